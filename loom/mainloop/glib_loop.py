"""The main loop on GLib, for programs with GTK or anything else that runs a main context.

Needs PyGObject, which is the program's own to install.
"""

from __future__ import annotations

import time
from typing import Any

from gi.repository import GLib

from .base import MainLoop

__all__ = ["GLibMainLoop"]


class GLibMainLoop(MainLoop):
    """Idle callbacks and timers on the default main context, which the program runs.

    Idle work has GLib's priority "low", behind events and drawing. There is one source for it while
    there is any, and one for the timer that is due next; without either the context sleeps.
    """

    def __init__(self) -> None:
        super().__init__()
        self._idle_source: Any = None
        self._timer_source: Any = None
        self._armed: float | None = None  # what the timer source is set for

    def close(self) -> None:
        """Leave the main context. What is still registered is never called."""
        for source in (self._idle_source, self._timer_source):
            if source is not None:
                source.destroy()
        self._idle_source = self._timer_source = None

    def now(self) -> float:
        return time.monotonic()

    def _changed(self) -> None:
        if self.idle and self._idle_source is None:
            source = self._idle_source = GLib.Idle(GLib.PRIORITY_LOW)
            source.set_can_recurse(True)  # a nested main loop gets idle time, too
            source.set_callback(self._run_idle)
            source.attach(None)
        due = self.timers.next_due()
        if due != self._armed:
            self._arm(due)

    def _arm(self, due: float | None) -> None:
        if self._timer_source is not None:
            self._timer_source.destroy()
            self._timer_source = None
        self._armed = due
        if due is not None:
            # Rounded up: a source that is early would be set again for nothing.
            milliseconds = max(0, -int(-(due - self.now()) * 1000 // 1))
            source = self._timer_source = GLib.Timeout(milliseconds)
            source.set_callback(self._run_timers, due)
            source.attach(None)

    def _run_idle(self, *_args: object) -> bool:
        source = self._idle_source
        try:
            self.idle.run_one()
        finally:
            if not self.idle and self._idle_source is source:
                self._idle_source = None
                if source is not None:
                    source.destroy()
        return bool(self.idle)

    def _run_timers(self, due: float) -> bool:
        self._timer_source = None
        self._armed = None
        try:
            self.timers.run_due(max(self.now(), due))
        finally:
            self._changed()
        return False  # a new source was made for what is due next
