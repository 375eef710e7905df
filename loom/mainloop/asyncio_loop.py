"""The main loop on asyncio, with idle time taken where asyncio would go to sleep.

A callback that re-arms itself with `call_soon` is always ready, so that asyncio polls for events
only between its rounds and an event waits behind other callbacks. Here idle work stands behind the
selector instead: when asyncio asks it to wait, it looks for events first, runs one idle callback
only if there are none, and looks again. So an event waits for at most the one callback that was
running when it came, and a loop without idle work sleeps as it always did.
"""

from __future__ import annotations

import asyncio
import selectors
from collections.abc import Mapping
from typing import Any, Final

from .base import MainLoop
from .queues import IdleQueue

__all__ = ["AsyncioMainLoop", "IdleSelector"]

_Ready = list[tuple[selectors.SelectorKey, int]]

# How long tasks that were cancelled may take to end, and how often they are cancelled: cleaning up,
# one may wait for another that has ended already.
_END_SECONDS: Final = 0.2
_END_TIMES: Final = 5


class IdleSelector(selectors.BaseSelector):
    """A selector that runs an idle callback rather than wait."""

    def __init__(self, idle: IdleQueue, inner: selectors.BaseSelector | None = None) -> None:
        self._idle: IdleQueue | None = idle
        self._inner = selectors.DefaultSelector() if inner is None else inner

    def select(self, timeout: float | None = None) -> _Ready:
        if self._idle is None or not self._idle or (timeout is not None and timeout <= 0):
            return self._inner.select(timeout)
        ready = self._inner.select(0)
        if ready:
            return ready
        self._idle.run_one()
        return self._inner.select(0)

    def end_idle(self) -> None:
        """Run no idle callback any more."""
        self._idle = None

    def register(self, fileobj: Any, events: int, data: Any = None) -> selectors.SelectorKey:
        return self._inner.register(fileobj, events, data)

    def unregister(self, fileobj: Any) -> selectors.SelectorKey:
        return self._inner.unregister(fileobj)

    def modify(self, fileobj: Any, events: int, data: Any = None) -> selectors.SelectorKey:
        return self._inner.modify(fileobj, events, data)

    def get_map(self) -> Mapping[Any, selectors.SelectorKey]:
        return self._inner.get_map()

    def close(self) -> None:
        self._inner.close()


class AsyncioMainLoop(MainLoop):
    """Idle callbacks and timers on an asyncio event loop of its own, the field `loop`.

    The owner runs `loop` as it likes and calls `close` in the end.
    """

    def __init__(self, inner: selectors.BaseSelector | None = None) -> None:
        super().__init__()
        self._selector = IdleSelector(self.idle, inner)
        self.loop = asyncio.SelectorEventLoop(self._selector)
        self._armed: asyncio.TimerHandle | None = None

    def close(self) -> None:
        """Close the event loop. What is still registered is never called, and tasks are cancelled.

        Waits a second at most for tasks that take their time. Requires: the loop isn't running.
        """
        if self.loop.is_closed():
            return
        self._selector.end_idle()
        if self._armed is not None:
            self._armed.cancel()
            self._armed = None
        if tasks := asyncio.all_tasks(self.loop):
            self.loop.run_until_complete(_end(tasks))
        self.loop.close()

    def now(self) -> float:
        return self.loop.time()

    def _changed(self) -> None:
        """Keep one asyncio timer armed, for the timer that is due next."""
        due = self.timers.next_due()
        if self._armed is not None:
            if due == self._armed.when():
                return
            self._armed.cancel()
            self._armed = None
        if due is not None and not self.loop.is_closed():
            self._armed = self.loop.call_at(due, self._run_timers, due)

    def _run_timers(self, due: float) -> None:
        self._armed = None
        try:
            self.timers.run_due(max(self.now(), due))  # asyncio calls up to a clock tick early
        finally:
            self._changed()


async def _end(tasks: set[asyncio.Task[Any]]) -> None:
    for _ in range(_END_TIMES):
        for task in tasks:
            task.cancel()
        _, tasks = await asyncio.wait(tasks, timeout=_END_SECONDS)
        if not tasks:
            break
    await asyncio.sleep(0)  # for the connections that they have let go of
