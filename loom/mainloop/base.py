"""What a main loop offers to the host: idle callbacks and timers."""

from __future__ import annotations

import threading

from .queues import Callback, IdleQueue, TimerQueue

__all__ = ["DEFAULT_IDLE_PRIORITY", "LOW_IDLE_PRIORITY", "MainLoop"]

DEFAULT_IDLE_PRIORITY = 200
LOW_IDLE_PRIORITY = 300


class MainLoop:
    """Base of the main loops. All of it belongs to the thread that made it.

    A subclass supplies the clock, and runs `idle` and `timers` when it has time for them. Its
    `_changed` is called when a registration may have to be noticed.
    """

    def __init__(self) -> None:
        self.idle = IdleQueue()
        self.timers = TimerQueue()
        self._thread = threading.get_ident()

    def now(self) -> float:
        """Time of the clock of the timers, in seconds."""
        raise NotImplementedError

    def _changed(self) -> None:
        """Something was added or removed."""

    def idle_add(self, callback: Callback, priority: int = DEFAULT_IDLE_PRIORITY) -> int:
        """Call `callback` in idle time until it returns a false value. Returns an id.

        A lower `priority` runs first, equals in turn. Raises `RuntimeError` on another thread.
        """
        self._check_thread()
        idle_id = self.idle.add(callback, priority)
        self._changed()
        return idle_id

    def idle_remove(self, idle_id: int) -> None:
        """End an idle callback, also from inside of it. A dead id is no error."""
        self._check_thread()
        self.idle.remove(idle_id)

    def timeout_add(self, milliseconds: float, callback: Callback) -> int:
        """Call `callback` every so many milliseconds until it returns a false value."""
        self._check_thread()
        timer_id = self.timers.add(milliseconds / 1000, callback, self.now())
        self._changed()
        return timer_id

    def timeout_remove(self, timer_id: int) -> None:
        """End a timer, also from inside of its callback. A dead id is no error."""
        self._check_thread()
        self.timers.remove(timer_id)
        self._changed()

    def _check_thread(self) -> None:
        if threading.get_ident() != self._thread:
            raise RuntimeError("the main loop may be used on its own thread only")
