"""One helper as the first process sees it: what it has, what it says, whether it still lives."""

from __future__ import annotations

from collections.abc import Callable
from typing import Final

import msgspec

from loom.helper import messages
from loom.helper.backlog import Task
from loom.helper.frames import FrameError, Framer, FrameSplitter
from loom.helper.launch import HelperHandle

__all__ = ["Link", "kHangSeconds", "kSilenceSeconds"]

# A scan that takes longer hangs: the biggest file that is read takes less than a second.
kHangSeconds: Final = 30.0

# A helper with work that says nothing for so long hangs somewhere between scans.
kSilenceSeconds: Final = 120.0

# Bytes of reports that wait to be stored, above which no more are read, and below which again.
_kMostWaiting: Final = 4 * 1024 * 1024
_kFewWaiting: Final = 1024 * 1024


class Link:
    """The conversation with one helper.

    `on_report(link)` is called when a report has come, to be fetched with `next_report`;
    `on_ready(link)` when the greeting was good; `on_gone(link, fate)` when the helper is no more.
    `clock` tells the monotonic time.
    """

    def __init__(
        self,
        handle: HelperHandle,
        clock: Callable[[], float],
        on_ready: Callable[[Link], object],
        on_report: Callable[[Link], object],
        on_gone: Callable[[Link, str], object],
    ) -> None:
        self.handle = handle
        self.tasks: dict[int, Task] = {}  # what it has, by number, in the order in which it got it
        self.bytes = 0  # the size of these
        self.is_ready = False
        self.is_lost = False
        self.refusal = ""
        self.has_progressed = False
        self._verdict = ""
        self._clock = clock
        self._on_ready = on_ready
        self._on_report = on_report
        self._on_gone = on_gone
        self._greeting_decoder = messages.greeting_decoder()
        self._decoder = messages.report_decoder()
        self._framer = Framer()
        self._splitter = FrameSplitter()
        self._inbox: list[bytes] = []
        self._inbox_start = 0
        self._inbox_bytes = 0
        self._is_paused = False
        self._heard = clock()
        self._starting: int | None = None
        self._fate: str | None = None
        stream = handle.stream
        stream.on_bytes = self._take_bytes
        stream.on_end = self._note_end
        handle.on_gone = self._note_gone
        self._send(messages.greeting())
        stream.flush()
        stream.start()

    # --- what goes out

    def _send(self, message: object) -> None:
        self.handle.stream.send(self._framer.frame(message))

    def give(self, tasks: list[Task], jobs: list[messages.Job], first: bool) -> None:
        """Hand work over."""
        if not self.tasks:
            self._heard = self._clock()
        for task in tasks:
            self.tasks[task.number] = task
            self.bytes += task.size
        self._send(messages.AddPairs(jobs, first))
        self.handle.stream.flush()

    def flush(self) -> None:
        """Have the helper forget its work."""
        self.tasks.clear()
        self.bytes = 0
        self._send(messages.Flush())
        self.handle.stream.flush()

    def take_back(self, number: int) -> Task | None:
        """The job is done: the helper has it no more. None for one that it doesn't have."""
        task = self.tasks.pop(number, None)
        if task is not None:
            self.bytes -= task.size
            self.has_progressed = True
        return task

    # --- what comes in

    def _take_bytes(self, data: bytes) -> None:
        self._heard = self._clock()
        try:
            for frame in self._splitter.feed(data):
                if self.is_ready:
                    self._inbox.append(frame)
                    self._inbox_bytes += len(frame)
                elif not self._greets(frame):
                    return
        except (FrameError, msgspec.MsgspecError) as error:
            self.give_up(f"it sent garbage: {error}")
            return
        if self._inbox_bytes > _kMostWaiting and not self._is_paused:
            self._is_paused = True
            self.handle.stream.pause()
        if self.has_report:
            self._on_report(self)

    def _greets(self, frame: bytes) -> bool:
        greeting = self._greeting_decoder.decode(frame)
        self.refusal = messages.check_greeting(greeting)
        if self.refusal:
            self.give_up(self.refusal)
            return False
        self.is_ready = True
        self._on_ready(self)
        return True

    @property
    def has_report(self) -> bool:
        return self._inbox_start < len(self._inbox)

    def next_report(self) -> messages.Report | None:
        """The next report, or none if none waits. A helper that sends garbage is given up."""
        if not self.has_report:
            return None
        frame = self._inbox[self._inbox_start]
        self._inbox[self._inbox_start] = b""
        self._inbox_start += 1
        self._inbox_bytes -= len(frame)
        if self._inbox_start == len(self._inbox):
            self._inbox.clear()
            self._inbox_start = 0
        if self._is_paused and self._inbox_bytes < _kFewWaiting:
            self._is_paused = False
            self.handle.stream.resume()
        try:
            report = self._decoder.decode(frame)
        except (msgspec.MsgspecError, UnicodeError) as error:
            self.give_up(f"it sent garbage: {error}")
            return None
        if isinstance(report, messages.Starting):
            self._starting = report.number
        return report

    # --- how it ends

    def give_up(self, verdict: str) -> None:
        """Have the helper ended, for this reason."""
        if not self._verdict:
            self._verdict = verdict
        self._inbox.clear()
        self._inbox_start = self._inbox_bytes = 0
        self._lose()

    def _lose(self) -> None:
        if not self.is_lost:
            self.is_lost = True
            self.handle.end()

    def _note_end(self, reason: str) -> None:
        self._lose()

    def _note_gone(self, fate: str) -> None:
        self.is_lost = True
        self._fate = self._verdict or fate
        if not self.has_report:
            self.report_end()
        else:
            self._on_report(self)  # what it said before its end still counts

    def report_end(self) -> bool:
        """If the helper is no more and all that it said is heard, tell its owner, once."""
        fate, self._fate = self._fate, None
        if fate is None:
            return False
        self._on_gone(self, fate)
        return True

    @property
    def suspect(self) -> Task | None:
        """What it is scanning, or was when it ended, if that is known and not done."""
        scanning = self.handle.scanning()
        number = scanning.number if scanning is not None else self._starting
        return None if number is None else self.tasks.get(number)

    def check_health(self) -> None:
        """Give the helper up if it hangs. To be called now and then."""
        now = self._clock()
        if self.is_lost:
            return
        if self._is_paused or self.has_report or (self.is_ready and not self.tasks):
            self._heard = now  # it isn't its turn
            return
        scanning = self.handle.scanning()
        since = self._heard if scanning is None else scanning.since
        suspect = self.suspect
        if suspect is not None and now - since > kHangSeconds:
            self.give_up(f"it came to no end with {suspect.loc!r} in {kHangSeconds:g} seconds")
        elif now - self._heard > (kSilenceSeconds if self.is_ready else kHangSeconds):
            self.give_up("it said nothing any more" if self.is_ready else "it never greeted")
