"""Idle callbacks by priority, and timers by due time. No clock, no waiting, no threads here."""

from __future__ import annotations

import heapq
import itertools
import logging
import operator
from bisect import insort
from collections.abc import Callable

__all__ = ["Callback", "IdleQueue", "TimerQueue"]

# A true result asks for the next call; anything else ends the registration.
Callback = Callable[[], object]

_log = logging.getLogger(__name__)

# One sequence for all registrations of a process: a dead id never names anything else.
_next_id = itertools.count(1).__next__


def _wants_more(kind: str, callback: Callback) -> bool:
    """Call `callback`; one that raises is reported and over."""
    try:
        return bool(callback())
    except Exception:
        _log.exception("%s callback failed and is removed: %r", kind, callback)
        return False


class IdleQueue:
    """Callbacks to be run when there is nothing better to do.

    A lower priority number runs first, equal ones take turns. A callback that is running isn't in
    the queue, so that `run_one` inside of it runs the others. It comes back behind its equals if
    it asks for more and wasn't removed meanwhile.
    """

    def __init__(self) -> None:
        self._by_priority: dict[int, dict[int, Callback]] = {}  # no empty inner mapping
        self._priorities: list[int] = []  # its keys, ascending
        self._running: set[int] = set()
        self._priority_of: dict[int, int] = {}

    def __bool__(self) -> bool:
        return bool(self._priorities)

    def add(self, callback: Callback, priority: int) -> int:
        """Queue `callback`. Returns its id."""
        if not callable(callback):
            raise TypeError(f"idle callback can't be called: {callback!r}")
        idle_id = _next_id()
        self._put(idle_id, callback, operator.index(priority))
        return idle_id

    def remove(self, idle_id: int) -> None:
        """Take a callback out, also one that is running. A dead id is no error."""
        self._running.discard(idle_id)
        priority = self._priority_of.pop(idle_id, None)
        if priority is not None:
            self._take(idle_id, priority)

    def run_one(self) -> bool:
        """Run the most urgent callback. Returns false if there is none."""
        if not self._priorities:
            return False
        priority = self._priorities[0]
        idle_id = next(iter(self._by_priority[priority]))
        callback = self._take(idle_id, priority)
        del self._priority_of[idle_id]
        self._running.add(idle_id)
        try:
            again = _wants_more("idle", callback) and idle_id in self._running
        finally:
            self._running.discard(idle_id)
        if again:
            self._put(idle_id, callback, priority)
        return True

    def _put(self, idle_id: int, callback: Callback, priority: int) -> None:
        same = self._by_priority.get(priority)
        if same is None:
            same = self._by_priority[priority] = {}
            insort(self._priorities, priority)
        same[idle_id] = callback
        self._priority_of[idle_id] = priority

    def _take(self, idle_id: int, priority: int) -> Callback:
        same = self._by_priority[priority]
        callback = same.pop(idle_id)
        if not same:
            del self._by_priority[priority]
            self._priorities.remove(priority)
        return callback


class _Timer:
    __slots__ = ("callback", "interval")

    def __init__(self, callback: Callback, interval: float) -> None:
        self.callback = callback
        self.interval = interval

    def next_beat(self, due: float, now: float) -> float:
        """The first beat after `now` on the grid of `due`; what rounding errs isn't a beat."""
        beat = due + self.interval * ((now - due) // self.interval + 1)
        return beat if beat - now > self.interval / 100 else beat + self.interval


class TimerQueue:
    """Callbacks that are due at times of a clock that the caller keeps, in seconds.

    A repeated timer stays on the grid of its first due time: it neither drifts by what its
    callbacks take nor makes up for beats that were missed.
    """

    def __init__(self) -> None:
        self._timers: dict[int, _Timer] = {}
        self._due: list[tuple[float, int]] = []  # heap; ids without a timer are left-overs

    def add(self, interval: float, callback: Callback, now: float) -> int:
        """Have `callback` called each `interval` seconds, first at `now + interval`.

        An interval below a millisecond counts as one, so that no timer is due all the time.
        """
        if not callable(callback):
            raise TypeError(f"timer callback can't be called: {callback!r}")
        if not 0 <= interval < float("inf"):
            raise ValueError(f"not an interval of a timer in seconds: {interval!r}")
        interval = max(interval, 0.001)
        timer_id = _next_id()
        self._timers[timer_id] = _Timer(callback, interval)
        heapq.heappush(self._due, (now + interval, timer_id))
        return timer_id

    def remove(self, timer_id: int) -> None:
        """End a timer, also a running one. A dead id is no error."""
        self._timers.pop(timer_id, None)

    def next_due(self) -> float | None:
        """When the next timer is due, or none without timers."""
        while self._due and self._due[0][1] not in self._timers:
            heapq.heappop(self._due)
        return self._due[0][0] if self._due else None

    def run_due(self, now: float) -> None:
        """Run the timers that are due at `now`, each once, in order of their due times."""
        batch: list[tuple[float, int]] = []
        while (due := self.next_due()) is not None and due <= now:
            batch.append(heapq.heappop(self._due))
        while batch:
            due, timer_id = batch.pop(0)
            timer = self._timers.get(timer_id)
            if timer is None:
                continue
            try:
                if not _wants_more("timer", timer.callback):
                    self._timers.pop(timer_id, None)
            except BaseException:
                self._timers.pop(timer_id, None)
                for rest in batch:
                    heapq.heappush(self._due, rest)
                raise
            if timer_id in self._timers:
                heapq.heappush(self._due, (timer.next_beat(due, now), timer_id))
