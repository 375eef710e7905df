"""Events of a run, in the trace event format that chrome://tracing and Perfetto read."""

from __future__ import annotations

import json
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from time import perf_counter
from typing import Any, Final, TextIO

__all__ = ["TraceRecorder"]

Event = dict[str, Any]

# Beyond so many the rest is left out, and the trace says so: a viewer couldn't show them.
_kMostEvents: Final = 1_000_000

# Everything happens on the one thread of the main loop.
_kProcess: Final = 1
_kThread: Final = 1


class TraceRecorder:
    """Collects events. Times are microseconds since the recorder was made."""

    def __init__(self, clock: Callable[[], float] = perf_counter) -> None:
        self._clock = clock
        self._start = clock()
        self._next_id = 0
        self.events: list[Event] = []
        self.dropped = 0

    def now(self) -> float:
        return (self._clock() - self._start) * 1e6

    def _add(self, event: Event) -> None:
        if len(self.events) < _kMostEvents:
            self.events.append(event)
        else:
            self.dropped += 1

    @contextmanager
    def span(self, name: str, category: str, **args: Any) -> Iterator[dict[str, Any]]:
        """Something that begins and ends on the stack. What is put into the result is noted."""
        start = self.now()
        try:
            yield args
        finally:
            self.complete(name, category, start, **args)

    def complete(self, name: str, category: str, start: float, **args: Any) -> None:
        """Something that began at the time `start` is over now."""
        event = self._event("X", name, category, args)
        self._add({**event, "ts": start, "dur": event["ts"] - start})

    def begin(self, name: str, category: str, **args: Any) -> int:
        """Something that goes on beside others begins; returns the id for `end`."""
        self._next_id += 1
        self._add({**self._event("b", name, category, args), "id": self._next_id})
        return self._next_id

    def end(self, name: str, category: str, event_id: int, **args: Any) -> None:
        """What began with this id is over."""
        self._add({**self._event("e", name, category, args), "id": event_id})

    def instant(self, name: str, category: str, **args: Any) -> None:
        """Something that takes no time."""
        self._add({**self._event("i", name, category, args), "s": "t"})

    def counter(self, name: str, values: dict[str, float]) -> None:
        """Numbers that change over time."""
        self._add(self._event("C", name, "state", values))

    def _event(self, phase: str, name: str, category: str, args: dict[str, Any]) -> Event:
        return {
            "name": name,
            "cat": category,
            "ph": phase,
            "ts": self.now(),
            "pid": _kProcess,
            "tid": _kThread,
            "args": args,
        }

    def write(self, file: TextIO) -> None:
        """Write the trace as one JSON document, an event a line."""
        names = {"process_name": "loom", "thread_name": "main loop"}
        place = {"pid": _kProcess, "tid": _kThread}
        about: list[Event] = [
            {"name": name, "ph": "M", **place, "args": {"name": value}}
            for name, value in names.items()
        ]
        if self.dropped:
            full = self._event("i", "the trace is full", "state", {"left out": self.dropped})
            about.append({**full, "s": "g"})
        file.write('{"displayTimeUnit": "ms", "traceEvents": [\n')
        file.write(",\n".join(json.dumps(event) for event in [*about, *self.events]))
        file.write("\n]}\n")
