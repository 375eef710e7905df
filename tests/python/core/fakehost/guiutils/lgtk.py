"""Idle procs and timers that run only when a test says so.

`step()` runs one idle callback, `run_idle()` runs them until none is left, `advance(seconds)` moves
the virtual clock and runs the timers that fall due. All requests are noted in `hostlog`.
"""

import itertools
import operator
from collections.abc import Callable
from dataclasses import dataclass
from typing import Any

import hostclock
import hostlog

kDefaultIdlePriority = 200


@dataclass
class _Proc:
    """One registered callback: idle if `due` is none, else a timer."""

    id: int
    callback: Callable[[], Any]
    owner: Any
    priority: int = kDefaultIdlePriority
    turn: int = 0
    interval: float = 0.0
    due: float | None = None


_urgency = operator.attrgetter("priority", "turn")
_due_time = operator.attrgetter("due", "id")

_ids = itertools.count(1)
_turns = itertools.count(1)
_idles: dict[int, _Proc] = {}
_timers: dict[int, _Proc] = {}


def idle_add(callback: Callable[[], Any], priority: int = kDefaultIdlePriority) -> int:
    """Register an idle callback; a lower number runs first, equals in turn. Returns its id."""
    hostlog.note("idle_add", callback, priority)
    return _add_idle(callback, None, priority)


def idle_add_while_alive(callback: Callable[[], Any], owner: Any) -> int:
    """As `idle_add`, but removed when `owner` is destroyed."""
    hostlog.note("idle_add_while_alive", callback, owner)
    return _add_idle(callback, owner, kDefaultIdlePriority)


def idle_remove(idle_id: Any) -> None:
    """Remove an idle callback; a dead id is tolerated."""
    hostlog.note("idle_remove", idle_id)
    _idles.pop(idle_id, None)


def timeout_add_while_alive(milliseconds: int, callback: Callable[[], Any], owner: Any) -> int:
    """Register a repeating timer that is removed when `owner` is destroyed. Returns its id."""
    hostlog.note("timeout_add_while_alive", milliseconds, callback, owner)
    interval = milliseconds / 1000.0
    proc = _Proc(next(_ids), callback, owner, interval=interval, due=hostclock.now() + interval)
    _timers[proc.id] = proc
    return proc.id


def timeout_remove(timeout_id: Any) -> None:
    """Remove a timer; a dead id is tolerated."""
    hostlog.note("timeout_remove", timeout_id)
    _timers.pop(timeout_id, None)


class NoArgCallback:
    """Calls `callback` with no argument, whatever it is called with."""

    def __init__(self, callback: Callable[[], Any]) -> None:
        self.callback = callback

    def __call__(self, *args: Any) -> Any:
        return self.callback()


class NoObjCallback:
    """Calls `callback` without the first argument, the emitter."""

    def __init__(self, callback: Callable[..., Any]) -> None:
        self.callback = callback

    def __call__(self, _emitter: Any, *args: Any) -> Any:
        return self.callback(*args)


def step() -> bool:
    """Run the idle callback that is next; false when none is registered.

    A callback that fails is dropped, and its failure reaches the test.
    """
    _drop_dead(_idles)
    if not _idles:
        return False
    proc = min(_idles.values(), key=_urgency)
    again = False
    try:
        again = bool(proc.callback())
    finally:
        if not again:
            _idles.pop(proc.id, None)
    proc.turn = next(_turns)
    return True


def run_idle(limit: int = 10_000) -> int:
    """Run idle callbacks until none is left; returns how many ran. Fails beyond `limit`."""
    for count in range(limit):
        if not step():
            return count
    raise RuntimeError(f"still idle work after {limit} steps")


def advance(seconds: float) -> int:
    """Move the virtual clock and run the timers that fall due; returns how many ran."""
    end = hostclock.now() + seconds
    ran = 0
    while True:
        _drop_dead(_timers)
        due = [proc for proc in _timers.values() if proc.due is not None and proc.due <= end]
        if not due:
            break
        proc = min(due, key=_due_time)
        assert proc.due is not None
        hostclock.advance(max(0.0, proc.due - hostclock.now()))
        again = False
        try:
            again = bool(proc.callback())
        finally:
            if not again:
                _timers.pop(proc.id, None)
        proc.due += proc.interval
        ran += 1
    hostclock.advance(max(0.0, end - hostclock.now()))
    return ran


def idle_ids() -> list[int]:
    """Ids of the idle callbacks that are registered now."""
    _drop_dead(_idles)
    return list(_idles)


def timer_ids() -> list[int]:
    """Ids of the timers that are registered now."""
    _drop_dead(_timers)
    return list(_timers)


def reset() -> None:
    """Forget all idle callbacks and timers."""
    _idles.clear()
    _timers.clear()


def _add_idle(callback: Callable[[], Any], owner: Any, priority: int) -> int:
    proc = _Proc(next(_ids), callback, owner, priority, next(_turns))
    _idles[proc.id] = proc
    return proc.id


def _drop_dead(procs: dict[int, _Proc]) -> None:
    for proc in list(procs.values()):
        if proc.owner is not None and proc.owner._CDestroyable__fDestroyed:
            del procs[proc.id]
