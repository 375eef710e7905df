"""One server: its connection, the requests that wait for it, and when to give it up.

Nothing here waits or knows of SSH. Events come from a transport and from timers of the main loop,
in any order; requests are answered exactly once, out of the main loop and never inside `ask`.

Requests only look at things, so all that a lost connection left without an answer is asked again.
"""

from __future__ import annotations

from collections import deque
from collections.abc import Callable
from enum import Enum
from typing import Final

from guiutils import lgtk
from loombase.location import CServerName
from loombase.remoteclient import CRemoteServerManager
from loomutils.reflect import ReportCurrentException

from loom.remote.options import RemotePatience
from loom.remote.requests import FileContent, Outcome, ReadFile, RemoteError, Request
from loom.remote.transport import ConnectionFailure, Transport, TransportMaker

__all__ = ["RemoteServer", "ServerPhase"]

# A time-out is over after so many beats of a timer, so that a process that was stopped for a while
# looks at what has come meanwhile before it takes a connection for dead.
_BEATS: Final = 4

# So many reads without an answer, and whoever finds files should let up; half of them, and go on.
_CROWD: Final = 256

# Requests that are told in one idle call that they have failed.
_FAILURES_PER_CALL: Final = 100


class ServerPhase(Enum):
    """Where a server stands."""

    IDLE = "not connected"
    CONNECTING = "connecting"
    CONNECTED = "connected"
    PAUSED = "waiting to try again"
    GIVEN_UP = "given up"


class RemoteServer(CRemoteServerManager):
    """The connection to the server `name`; made when something is asked, and again when it is lost.

    `phase` is where it stands, `failure` the reason if it isn't well, else empty. `answers` counts
    the answers that it has given.

    A server that was given up fails what is asked of it for the time of a long pause, and is tried
    again by what is asked later.

    Signals: "server-stopped" (server) when a connection that stood is lost; "status-changed"
    (server) when `phase` or `failure` changed; "eased" (server) when `crowded` is no longer true.
    """

    def __init__(self, name: CServerName, make: TransportMaker, patience: RemotePatience) -> None:
        super().__init__(("status-changed", "eased"))
        self.name = name
        self.phase = ServerPhase.IDLE
        self.failure = ""
        self.answers = 0
        self._make = make
        self._patience = patience
        self._transport: Transport | None = None
        self._questions: deque[Request] = deque()  # all but reads; they go first
        self._reads: deque[ReadFile] = deque()
        self._under_way: dict[Request, None] = {}  # in order of sending
        self._reads_under_way = 0
        self._reserved_bytes = 0
        self._held_bytes = 0
        self._failed: deque[tuple[Request, RemoteError]] = deque()
        self._fail_idle: int | None = None
        self._timer: int | None = None
        self._silent_beats = 0
        # None once it has answered. Counted by timers and not by the clock, see `_BEATS`.
        self._down_seconds: float | None = None
        self._given_up_at = 0.0
        self._pause = patience.first_retry
        self._crowd_told = False
        self._is_over = False

    # --- asking

    def ask(self, request: Request) -> None:
        """Have a request answered: its `done` is called later.

        Raises `RuntimeError` on a destroyed server, which answers nothing any more.
        """
        if self._is_over:
            raise RuntimeError(f"the connection to {self.name} was ended")
        if self.phase is ServerPhase.GIVEN_UP:
            if lgtk.GetMainLoop().now() < self._given_up_at + self._patience.last_retry:
                self._fail(request, self._error())
                return
            self._set_phase(ServerPhase.IDLE)
        if isinstance(request, ReadFile):
            self._reads.append(request)
        else:
            self._questions.append(request)
        self._go_on()

    def cancel(self, request: Request) -> None:
        """Take a request back. One that is over is no error."""
        if request in self._under_way:
            self._end(request)
            if self._transport is not None:
                self._transport.stop(request)
            self._go_on()
            return
        self._questions = deque(each for each in self._questions if each is not request)
        self._reads = deque(each for each in self._reads if each is not request)
        self._failed = deque(entry for entry in self._failed if entry[0] is not request)
        self._ease()

    def release(self, content: FileContent) -> None:
        """Tell that a read's content isn't held any more. To be called once for each."""
        self._held_bytes -= len(content.data)
        self._go_on()

    @property
    def unanswered(self) -> int:
        """How many requests have no answer yet."""
        return len(self._questions) + len(self._reads) + len(self._under_way) + len(self._failed)

    def crowded(self) -> bool:
        """Whether so many reads wait that no more should be caused; "eased" tells when not."""
        if len(self._reads) + self._reads_under_way >= _CROWD:
            self._crowd_told = True
        return self._crowd_told

    # --- the transport's news

    def connected(self, transport: Transport) -> None:
        if transport is self._transport:
            self._unwatch()
            self._set_phase(ServerPhase.CONNECTED)
            self._go_on()

    def heard(self, transport: Transport) -> None:
        if transport is self._transport:
            self._silent_beats = 0
            self._down_seconds = None

    def answered(self, transport: Transport, request: Request, outcome: Outcome) -> None:
        if transport is not self._transport or request not in self._under_way:
            return
        self.answers += 1
        self._silent_beats = 0
        self._down_seconds = None
        self._pause = self._patience.first_retry
        self._end(request)
        if isinstance(outcome, FileContent):
            self._held_bytes += len(outcome.data)
        if self.failure:
            self.failure = ""
            self.emit("status-changed", self)
        _tell(request, outcome)
        self._go_on()

    def lost(self, transport: Transport, failure: ConnectionFailure) -> None:
        if transport is self._transport:
            self._lose(failure, 0.0)

    # --- the connection

    def _go_on(self) -> None:
        """Do what can be done now."""
        if self._is_over:
            return
        if self.phase is ServerPhase.CONNECTED:
            self._send()
        elif self.phase is ServerPhase.IDLE and (self._questions or self._reads):
            self._connect()
        self._ease()

    def _connect(self) -> None:
        if self._down_seconds is None:
            self._down_seconds = 0.0
        self._watch(self._patience.connect)
        self._transport = self._make(self.name, self)
        self._set_phase(ServerPhase.CONNECTING)

    def _send(self) -> None:
        assert self._transport is not None
        while len(self._under_way) < self._patience.requests:
            if self._questions:
                request = self._questions.popleft()
            elif self._reads and self._may_read(self._reads[0]):
                request = self._reads.popleft()
            else:
                break
            if isinstance(request, ReadFile):
                self._reads_under_way += 1
                self._reserved_bytes += request.expected
            self._under_way[request] = None
            if self._timer is None:
                self._watch(self._patience.answer)
            self._transport.start(request)

    def _may_read(self, request: ReadFile) -> bool:
        if self._reads_under_way == 0:
            return True  # or a content that nobody takes would stop everything
        return (
            self._reads_under_way < self._patience.reads
            and self._held_bytes + self._reserved_bytes + request.expected
            <= self._patience.held_bytes
        )

    def _end(self, request: Request) -> None:
        """Take a request out of those under way."""
        del self._under_way[request]
        if isinstance(request, ReadFile):
            self._reads_under_way -= 1
            self._reserved_bytes -= request.expected

    def _lose(self, failure: ConnectionFailure, silent_seconds: float) -> None:
        """The connection or the attempt is over, after so many seconds in silence."""
        was_connected = self.phase is ServerPhase.CONNECTED
        self._transport = None
        self._unwatch()
        self.failure = str(failure)
        if self._down_seconds is None:
            self._down_seconds = silent_seconds
        self._take_back(was_connected)
        hopeless = failure.lasting or (failure.refused and not self.answers)
        if hopeless or self._seconds_left() <= 0:
            self._give_up()
        elif self._questions or self._reads:
            # Not beyond the time at which the last try is due.
            pause = min(self._pause, self._seconds_left())
            self._start_timer(pause, lambda: self._retry(pause))
            self._pause = min(2 * self._pause, self._patience.last_retry)
            self._set_phase(ServerPhase.PAUSED)
        else:
            self._down_seconds = None  # nobody wants it
            self._set_phase(ServerPhase.IDLE)
        if was_connected:
            self.ServerStopped()

    def _take_back(self, was_connected: bool) -> None:
        """Put what is under way back in front of the queues, in its order."""
        requests = list(self._under_way)
        for request in reversed(requests):
            self._end(request)
            if isinstance(request, ReadFile):
                self._reads.appendleft(request)
            else:
                self._questions.appendleft(request)
        if not was_connected or not requests:
            return
        # A server answers in order, as a rule: the oldest is what it may have choked on.
        suspect = requests[0]
        suspect.failures += 1
        if suspect.failures >= self._patience.tries:
            tries = f"connection lost {suspect.failures} times over it: {self.failure}"
            if isinstance(suspect, ReadFile):
                self._reads.remove(suspect)
            else:
                self._questions.remove(suspect)
            self._fail(suspect, RemoteError(tries))

    def _retry(self, pause: float) -> bool:
        self._timer = None
        if self._down_seconds is not None:
            self._down_seconds += pause
        self._set_phase(ServerPhase.IDLE)
        self._go_on()
        return False

    def _give_up(self) -> None:
        self._given_up_at = lgtk.GetMainLoop().now()
        self._down_seconds = None
        self._pause = self._patience.first_retry
        error = self._error()
        for queue in (self._questions, self._reads):
            while queue:
                self._fail(queue.popleft(), error)
        self._set_phase(ServerPhase.GIVEN_UP)

    def _seconds_left(self) -> float:
        """How long to go on hoping. Requires: it is down."""
        assert self._down_seconds is not None
        return self._patience.give_up - self._down_seconds

    def _set_phase(self, phase: ServerPhase) -> None:
        self.phase = phase
        self.emit("status-changed", self)

    # --- failed requests

    def _error(self) -> RemoteError:
        return RemoteError(f"the server can't be reached: {self.failure}", server_failed=True)

    def _fail(self, request: Request, error: RemoteError) -> None:
        self._failed.append((request, error))
        if self._fail_idle is None:
            self._fail_idle = lgtk.idle_add_while_alive(self._tell_failures, self)

    def _tell_failures(self) -> bool:
        for _ in range(min(_FAILURES_PER_CALL, len(self._failed))):
            if self._failed:  # whoever is told may cancel others
                _tell(*self._failed.popleft())
        if self._failed:
            return True
        self._fail_idle = None
        self._ease()
        return False

    def _ease(self) -> None:
        if self._crowd_told and len(self._reads) + self._reads_under_way <= _CROWD // 2:
            self._crowd_told = False
            self.emit("eased", self)

    # --- time

    def _watch(self, seconds: float) -> None:
        """Take the connection for dead after so many seconds without a sign of life.

        Not beyond the time at which it is given up.
        """
        if self._down_seconds is not None:
            seconds = max(min(seconds, self._seconds_left()), 0.0)
        self._silent_beats = 0
        self._start_timer(seconds / _BEATS, lambda: self._beat(seconds))

    def _unwatch(self) -> None:
        if self._timer is not None:
            lgtk.timeout_remove(self._timer)
            self._timer = None

    def _start_timer(self, seconds: float, callback: Callable[[], bool]) -> None:
        self._unwatch()
        self._timer = lgtk.timeout_add_while_alive(seconds * 1000, callback, self)

    def _beat(self, seconds: float) -> bool:
        if self.phase is ServerPhase.CONNECTED and not self._under_way:
            self._timer = None
            self._down_seconds = None
            return False  # nobody waits for anything
        self._silent_beats += 1
        out_of_time = False
        if self._down_seconds is not None:
            self._down_seconds += seconds / _BEATS
            out_of_time = self._seconds_left() <= 0
        if self._silent_beats < _BEATS and not out_of_time:
            return True
        what = "answer" if self.phase is ServerPhase.CONNECTED else "connection"
        silent = seconds * self._silent_beats / _BEATS
        self._timer = None
        if self._transport is not None:
            self._transport.close()
        self._lose(ConnectionFailure(f"no {what} for {silent:g} seconds"), silent)
        return False

    def _destroy_impl(self) -> None:
        self._is_over = True
        transport, self._transport = self._transport, None
        self._questions.clear()
        self._reads.clear()
        self._under_way.clear()
        self._failed.clear()
        if transport is not None:
            transport.close()


def _tell(request: Request, outcome: Outcome) -> None:
    try:
        request.done(outcome)
    except Exception:
        ReportCurrentException()  # of one, and no reason to leave out the others
