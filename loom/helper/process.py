"""What a helper process runs: jobs come in, the scheduler works them off, reports go out.

It ends when the stream ends, whatever it is doing, and writes to nothing but the stream and
standard error.
"""

from __future__ import annotations

import errno
import faulthandler
import logging
import os
import signal
import sys
from collections.abc import Callable, Sequence, Set
from typing import Final

import msgspec

from loom.bootstrap import ensure_host_path

ensure_host_path()

from guiutils import lgtk
from loombase.destroyable import CDestroyable
from loombase.location import CLocalFileLocation, CLocation
from loomutils.reflect import GetFailureReporter

from loom.helper import messages
from loom.helper.engine import HelperHost
from loom.helper.frames import FrameError, Framer, FrameSplitter
from loom.helper.limits import kMostUnsentBytes, set_limits
from loom.helper.statuspage import StatusPage
from loom.helper.stream import FdStream, Stream
from loom.mainloop.poll_loop import PollMainLoop
from loom.store.records import FileRecord, FileState, FileTimes

__all__ = ["Helper", "main"]

_log = logging.getLogger("loom.helper")

_kWholeFile: Final = "*"

# Exit codes, beyond 0 for the end of the stream.
kFault: Final = 70
kRefused: Final = 76


class Helper(CDestroyable):
    """The helper's side of the protocol, over a stream, on the main loop that is set in `lgtk`.

    `on_over` is called once, with an exit code, when there is nothing more to do here.
    """

    def __init__(
        self, stream: Stream, page: StatusPage | None, on_over: Callable[[int], object]
    ) -> None:
        super().__init__()
        self._stream = stream
        self._page = page
        self._on_over = on_over
        self._greeting_decoder = messages.greeting_decoder()
        self._decoder = messages.to_helper_decoder()
        self._framer = Framer()
        self._splitter = FrameSplitter()
        self._greeted = False
        self._jobs: dict[CLocation, messages.Job] = {}
        self._gone: set[CLocation] = set()
        self._unchanged: set[CLocation] = set()
        self._announced = 0
        self._suspended = False
        self._over = False
        self._host = HelperHost(self)
        self._coordinator = self._host.coordinator
        self._host.queue.connect_while_alive("locations-removed", self._note_removed, self)
        GetFailureReporter().connect_while_alive("failure-reported", self._note_failure, self)
        stream.on_bytes = self._take_bytes
        stream.on_room = self._go_on
        stream.on_end = self._note_end

    def start(self) -> None:
        """Greet, and begin to listen."""
        self._send(messages.greeting())
        self._stream.flush()
        self._stream.start()

    def _destroy_impl(self) -> None:
        self._over = True
        self._host.destroy()
        self._stream.close()

    def _end(self, code: int) -> None:
        if not self._over:
            self._over = True
            self._coordinator.Quitting()
            self._on_over(code)

    # --- what comes in

    def _take_bytes(self, data: bytes) -> None:
        try:
            for message in self._splitter.feed(data):
                if self._over:
                    return
                self._take(message)
        except (FrameError, msgspec.MsgspecError) as error:
            _log.error("the first process sent garbage: %s", error)
            self._end(kRefused)

    def _take(self, data: bytes) -> None:
        if not self._greeted:
            reason = messages.check_greeting(self._greeting_decoder.decode(data))
            if reason:
                _log.error("refused: %s", reason)
                self._end(kRefused)
            self._greeted = True
            return
        message = self._decoder.decode(data)
        if isinstance(message, messages.AddPairs):
            self._add(message)
        else:
            self._jobs.clear()
            self._gone.clear()
            self._unchanged.clear()
            self._coordinator.FlushQueue()

    def _add(self, message: messages.AddPairs) -> None:
        jobs = [(CLocalFileLocation(job.path), job) for job in message.jobs]
        self._jobs.update(jobs)
        # Before the first of them can be scanned: what follows must not overtake it.
        self._send(messages.Added([job.number for _, job in jobs]))
        self._stream.flush()
        locs = [loc for loc, _ in jobs]
        # Who asks again has a reason, and doesn't want to wait for some seconds.
        self._coordinator.ClearLastScanInfo(locs)
        self._coordinator.AddPairsToPrimaryQueue(
            [(loc, _kWholeFile) for loc in locs], message.first
        )

    def _note_end(self, reason: str) -> None:
        _log.debug("the first process has gone: %s", reason)
        self._end(0)

    # --- what goes out

    def _send(self, message: messages.Report | messages.Greeting) -> None:
        self._stream.send(self._framer.frame(message))

    def _go_on(self) -> None:
        if self._suspended:
            self._suspended = False
            self._coordinator.ResumeIdleScans()

    def _note_removed(self, queue: object, locs: Set[CLocation]) -> None:
        """Some left the queue with their scan done, and have been reported."""
        unchanged: list[int] = []
        gone: list[int] = []
        other: list[int] = []
        for loc in locs:
            if self._host.queue.LocationInQueue(loc):
                continue  # it has come again
            job = self._jobs.pop(loc, None)
            self._coordinator.ClearLastScanInfo([loc])  # or they would all be remembered
            if job is None:
                continue
            if loc in self._gone:
                gone.append(job.number)
            elif loc in self._unchanged:
                unchanged.append(job.number)
            else:
                other.append(job.number)
        self._gone.difference_update(locs)
        self._unchanged.difference_update(locs)
        if unchanged or gone or other:
            self._send(messages.Left(unchanged, gone, other))
            self._stream.flush()

    def _note_failure(self, failure: BaseException) -> None:
        """A scan failed beyond what scanners handle: that is a crash, and the log has it all."""
        self._end(kFault)

    # --- what the engine tells (see `engine.Receiver`)

    def known_state(self, loc: CLocation) -> FileState | None:
        job = self._jobs.get(loc)
        return None if job is None else job.known

    def is_declared(self, loc: CLocation) -> bool:
        job = self._jobs.get(loc)
        return job is not None and job.is_python

    def scan_starts(self, loc: CLocation, now: float) -> None:
        job = self._jobs.get(loc)
        number = 0 if job is None else job.number
        if self._page is not None:
            self._page.starts(number, now)
        elif number != self._announced:
            self._announced = number
            self._send(messages.Starting(number))
            self._stream.flush()

    def scan_rests(self, now: float) -> None:
        if self._page is not None:
            self._page.rests(now)

    def file_scanned(self, loc: CLocation, record: FileRecord) -> None:
        job = self._jobs.pop(loc, None)
        if job is None:
            return  # flushed
        incomplete = self._host.incomplete_scopes(loc)
        try:
            self._send(messages.Result(job.number, record, incomplete))
        except (FrameError, UnicodeError, OverflowError) as error:
            _log.warning("results of %r can't be sent: %s", loc, error)
            failed = FileRecord(
                url=record.url,
                mtime_ns=record.mtime_ns,
                size=record.size,
                scans=record.scans,
                digest=record.digest,
                error=f"results can't be passed on: {error}"[:300],
                settled=record.settled,
                scanner=record.scanner,
            )
            self._send(messages.Result(job.number, failed, []))

    def file_reread(self, loc: CLocation, digest: bytes, times: FileTimes) -> None:
        job = self._jobs.pop(loc, None)
        if job is not None:
            self._send(messages.Reread(job.number, digest, times))

    def file_unchanged(self, loc: CLocation) -> None:
        self._unchanged.add(loc)

    def file_gone(self, loc: CLocation) -> None:
        self._gone.add(loc)

    def slice_ended(self) -> None:
        if self._over:
            return
        self._stream.flush()
        if self._stream.unsent > kMostUnsentBytes and not self._suspended:
            self._suspended = True
            self._coordinator.SuspendIdleScans()


def main(arguments: Sequence[str]) -> int:
    """Run a helper over the descriptors that the arguments name, and end the process with it.

    Returns an exit code only for wrong arguments.

    `--fd N` is a socket to talk over, else it is standard input and output; `--page-fd N` a status
    page. The first process gives these; there is nothing here for people.
    """
    signal.signal(signal.SIGINT, signal.SIG_IGN)  # the first process decides
    faulthandler.enable(sys.stderr)
    logging.basicConfig(level=logging.WARNING, format="%(name)s: %(message)s", stream=sys.stderr)
    try:
        fds, page_fd = _parse(arguments)
    except ValueError as error:
        print(f"loom helper: {error}", file=sys.stderr)
        return 2
    main_loop = PollMainLoop()
    stream = FdStream(main_loop, *fds)
    page = None if page_fd is None else StatusPage(page_fd)
    code = run(main_loop, stream, page)
    sys.stderr.flush()
    # The stream ends with the process and not before, so that its end finds the exit code.
    os._exit(code)


def run(main_loop: PollMainLoop, stream: Stream, page: StatusPage | None) -> int:
    """Run a helper until it is over. Returns the exit code."""
    codes: list[int] = []

    def stop(code: int) -> None:
        codes.append(code)
        main_loop.stop()

    lgtk.SetMainLoop(main_loop)
    helper = Helper(stream, page, stop)
    helper.start()
    # Not before the greeting is out: what it needs takes a few milliseconds to load.
    lgtk.idle_add(set_limits)
    main_loop.run()
    stream.flush()
    return codes[0]


def _parse(arguments: Sequence[str]) -> tuple[tuple[int, int], int | None]:
    given: dict[str, int] = {}
    rest = list(arguments)
    while rest:
        name = rest.pop(0)
        if name not in ("--fd", "--page-fd") or not rest or not rest[0].isdigit():
            raise ValueError(f"can't make sense of {name!r}; it is started by the program itself")
        given[name] = int(rest.pop(0))
    if "--fd" in given:
        return (given["--fd"], given["--fd"]), given.get("--page-fd")
    return _take_standard_streams(), given.get("--page-fd")


def _take_standard_streams() -> tuple[int, int]:
    """Descriptors of the standard streams, where nobody else writes or reads any more."""
    try:
        read_fd, write_fd = os.dup(0), os.dup(1)
    except OSError as error:
        if error.errno == errno.EBADF:
            raise ValueError("standard input and output must be open") from error
        raise
    nowhere = os.open(os.devnull, os.O_RDONLY)
    os.dup2(nowhere, 0)
    os.close(nowhere)
    os.dup2(2, 1)
    return read_fd, write_fd
