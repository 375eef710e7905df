"""The main loop on Qt, for programs with windows.

Needs PySide6, which is the program's own to install.
"""

from __future__ import annotations

import time

from PySide6.QtCore import QObject, Qt, QTimer

from .base import MainLoop

__all__ = ["QtMainLoop"]


class QtMainLoop(MainLoop):
    """Idle callbacks and timers on the Qt event loop of the thread that makes it.

    A timer of no length stands for idle time: Qt runs it when it has been through all that is ready,
    input and drawing among it. While there is no idle work it isn't set, and the event loop sleeps.
    """

    def __init__(self, parent: QObject | None = None) -> None:
        super().__init__()
        self._idle_timer = self._make_timer(parent, self._run_idle)
        self._due_timer = self._make_timer(parent, self._run_timers)
        self._armed: float | None = None  # what the second one is set for

    @staticmethod
    def _make_timer(parent: QObject | None, slot: object) -> QTimer:
        timer = QTimer(parent)
        # Once each: a timer that repeats isn't run again inside of itself, so that a dialog which is
        # opened in idle time would stop all other idle work.
        timer.setSingleShot(True)
        timer.setTimerType(Qt.TimerType.PreciseTimer)
        timer.timeout.connect(slot)
        return timer

    def close(self) -> None:
        """Leave the event loop. What is still registered is never called."""
        self._idle_timer.stop()
        self._due_timer.stop()

    def now(self) -> float:
        return time.monotonic()

    def _changed(self) -> None:
        if self.idle and not self._idle_timer.isActive():
            self._idle_timer.start(0)
        due = self.timers.next_due()
        if due != self._armed:
            self._armed = due
            if due is None:
                self._due_timer.stop()
            else:
                # Rounded up: a timer that is early would be set again for nothing.
                self._due_timer.start(max(0, -int(-(due - self.now()) * 1000 // 1)))

    def _run_idle(self) -> None:
        self._idle_timer.start(0)  # for an event loop inside of the callback
        try:
            self.idle.run_one()
        finally:
            if not self.idle:
                self._idle_timer.stop()
            elif not self._idle_timer.isActive():
                self._idle_timer.start(0)

    def _run_timers(self) -> None:
        due, self._armed = self._armed, None
        try:
            if due is not None:
                self.timers.run_due(max(self.now(), due))
        finally:
            self._changed()
