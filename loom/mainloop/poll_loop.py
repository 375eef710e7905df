"""The main loop without asyncio, for a process that has little else to do and must start fast."""

from __future__ import annotations

import selectors
import time
from collections.abc import Callable
from typing import Final

from .base import MainLoop

__all__ = ["PollMainLoop"]

_kEvents: Final = (selectors.EVENT_READ, selectors.EVENT_WRITE)


class PollMainLoop(MainLoop):
    """Idle callbacks, timers and descriptors by turns: descriptors first, idle work last.

    The owner calls `run`, and `close` in the end.
    """

    def __init__(self) -> None:
        super().__init__()
        # Unlike epoll it takes every kind of descriptor; there are two or three.
        self._selector = selectors.PollSelector()
        # Descriptor to its two callbacks, for reading and for writing.
        self._callbacks: dict[int, list[Callable[[], object] | None]] = {}
        self._running = False

    def now(self) -> float:
        return time.monotonic()

    def run(self) -> None:
        """Work until `stop` is called. What a callback for a descriptor raises ends it, too."""
        self._running = True
        while self._running:
            self._run_once()

    def stop(self) -> None:
        """Have `run` return when the present callback is over."""
        self._running = False

    def close(self) -> None:
        self._selector.close()

    def _run_once(self) -> None:
        due = self.timers.next_due()
        timeout = None if due is None else max(0.0, due - self.now())
        ready = self._selector.select(0 if self.idle else timeout)
        for key, events in ready:
            for which, event in enumerate(_kEvents):
                callbacks = self._callbacks.get(key.fd)
                callback = callbacks[which] if callbacks is not None else None
                if events & event and callback is not None and self._running:
                    callback()
        self.timers.run_due(self.now())
        if not ready and self._running:
            self.idle.run_one()

    def add_reader(self, fd: int, callback: Callable[[], object]) -> None:
        self._set(fd, 0, callback)

    def remove_reader(self, fd: int) -> None:
        self._set(fd, 0, None)

    def add_writer(self, fd: int, callback: Callable[[], object]) -> None:
        self._set(fd, 1, callback)

    def remove_writer(self, fd: int) -> None:
        self._set(fd, 1, None)

    def _set(self, fd: int, which: int, callback: Callable[[], object] | None) -> None:
        callbacks = self._callbacks.get(fd)
        known = callbacks is not None
        if callbacks is None:
            callbacks = self._callbacks[fd] = [None, None]
        callbacks[which] = callback
        events = sum(e for e, each in zip(_kEvents, callbacks, strict=True) if each is not None)
        if not events:
            del self._callbacks[fd]
            if known:
                self._selector.unregister(fd)
        elif known:
            self._selector.modify(fd, events)
        else:
            self._selector.register(fd, events)
