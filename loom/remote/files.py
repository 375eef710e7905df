"""All remote files: what was found of them, and who asks their servers."""

from __future__ import annotations

import weakref
from collections.abc import Callable, Iterable
from typing import Final

from guiutils import lgtk
from loombase.destroyable import CDestroyable
from loombase.inspection import CFileKind, CFileState
from loombase.location import CServerName, CSshFileLocation
from loomutils.reflect import ReportCurrentException

from loom.remote.options import RemotePatience
from loom.remote.requests import FileContent, Outcome, ReadFile, RemoteError, StatFile
from loom.remote.server import RemoteServer
from loom.remote.transport import TransportMaker

__all__ = ["PendingRead", "RemoteFiles"]

# Bytes asked for of a file whose size isn't known.
_DEFAULT_EXPECTED: Final = 64 * 1024


class PendingRead:
    """The content of a file, on its way or there. To be closed when it isn't needed any more.

    `content` is none until it is there or `error` says why it won't be.
    """

    def __init__(self, server: RemoteServer, request: ReadFile) -> None:
        self.content: FileContent | None = None
        self.error: RemoteError | None = None
        self._answers = 0
        self._server = server
        self._request = request
        self._is_open = True

    def fail(self, error: RemoteError) -> None:
        """To be called when the request is answered so."""
        self.error = error
        self._answers = self._server.answers

    def server_is_back(self) -> bool:
        """Whether the server has answered anything since this failed."""
        return self._server.answers > self._answers

    def close(self) -> None:
        """Let go of the content; what isn't there yet isn't waited for any more."""
        if not self._is_open:
            return
        self._is_open = False
        if self.content is not None:
            self._server.release(self.content)
        elif self.error is None:
            self._server.cancel(self._request)


class _Group:
    """Locations whose inspection somebody waits for together."""

    def __init__(self, callback: Callable[[bool], object]) -> None:
        self.left: set[CSshFileLocation] = set()
        self.abort = False
        self._callback = callback

    def over(self, loc: CSshFileLocation, failed: bool) -> None:
        self.left.discard(loc)
        self.abort = self.abort or failed
        if not self.left:
            self._callback(self.abort)


class RemoteFiles(CDestroyable):
    """What is known of remote files, and one `RemoteServer` for each server that was asked.

    What was found of a location is known for as long as somebody holds the location. What was found
    of a file doesn't hold any more when its connection is lost: it may be another one when the
    server is back. Folders aren't asked for their times; that they are there, as those around
    any file that is, holds on.

    Signals, all with a set of locations: "inspected", "inspect-failed" because the server was given
    up; "forgotten", when what was found doesn't hold any more. "server-changed" (server) when a
    server's `phase` or `failure` did; "server-eased" (server), see `RemoteServer.crowded`.
    """

    def __init__(self, make: TransportMaker, patience: RemotePatience) -> None:
        super().__init__(
            ("inspected", "inspect-failed", "forgotten", "server-changed", "server-eased")
        )
        self._make = make
        self._patience = patience
        self._servers: dict[CServerName, RemoteServer] = {}
        self._states: weakref.WeakKeyDictionary[CSshFileLocation, CFileState]
        self._states = weakref.WeakKeyDictionary()
        # Questions under way, each with the groups that wait for it.
        self._asked: dict[CSshFileLocation, list[_Group]] = {}
        self._news: set[CSshFileLocation] = set()
        self._bad_news: set[CSshFileLocation] = set()
        self._news_idle: int | None = None

    def server(self, name: CServerName) -> RemoteServer:
        """The server of a name; made, but not yet connected to, if need be."""
        server = self._servers.get(name)
        if server is None:
            server = self._servers[name] = RemoteServer(name, self._make, self._patience)
            server.connect_while_alive("server-stopped", self._server_stopped, self)
            server.connect_while_alive("status-changed", self._server_changed, self)
            server.connect_while_alive("eased", self._server_eased, self)
        return server

    def servers(self) -> list[RemoteServer]:
        return list(self._servers.values())

    # --- inspection

    def state_of(self, loc: CSshFileLocation) -> CFileState | None:
        """What was found, or none if the location isn't inspected."""
        return self._states.get(loc)

    def note_state(self, loc: CSshFileLocation, state: CFileState) -> None:
        """Take over what somebody has found, who listed a folder for example."""
        if self._states.get(loc) is None:
            self._tell_soon(loc, self._news)
        self._states[loc] = state
        if state.kind not in (CFileKind.ABSENT, CFileKind.CLOSED):
            parent = loc.GetParentDir()
            while parent not in self._states:
                self._states[parent] = CFileState(CFileKind.FOLDER)
                parent = parent.GetParentDir()

    def want(self, loc: CSshFileLocation) -> None:
        """Have a location inspected, if it isn't being inspected already."""
        if loc not in self._asked:
            self._asked[loc] = []
            self._stat(loc)

    def inspect(
        self,
        locs: Iterable[CSshFileLocation],
        callback: Callable[[bool], object],
        force: bool = False,
    ) -> None:
        """Call `callback(abort)` once, when all of `locs` are inspected, perhaps at once.

        With `force`, what is known of them already doesn't count. `abort` is true if the server
        of one was given up.
        """
        group = _Group(callback)
        wanted = dict.fromkeys(loc for loc in locs if force or loc not in self._states)
        group.left.update(wanted)
        for loc in wanted:
            self.want(loc)
            self._asked[loc].append(group)
        if not wanted:
            callback(False)

    def _stat(self, loc: CSshFileLocation) -> None:
        self.server(loc.server).ask(
            StatFile(loc.fBytesPath, lambda outcome: self._inspected(loc, outcome))
        )

    def _inspected(self, loc: CSshFileLocation, outcome: Outcome) -> None:
        groups = self._asked.pop(loc)
        failed = isinstance(outcome, RemoteError) and outcome.server_failed
        if isinstance(outcome, CFileState):
            self.note_state(loc, outcome)
        elif failed:
            self._tell_soon(loc, self._bad_news)
        else:
            self.note_state(loc, CFileState(CFileKind.CLOSED, reason=str(outcome)))
        for group in groups:
            try:
                group.over(loc, failed)
            except Exception:
                ReportCurrentException()  # the others wait, too

    # --- contents

    def read(self, loc: CSshFileLocation, limit: int, done: Callable[[], object]) -> PendingRead:
        """Begin to read a file, `limit` bytes at most. `done` is called when that is over.

        That is never before this returns, and not at all if the result is closed first.
        """
        state = self._states.get(loc)
        expected = min(state.size if state is not None else _DEFAULT_EXPECTED, limit)

        def answered(outcome: Outcome) -> None:
            if isinstance(outcome, FileContent):
                pending.content = outcome
                self.note_state(loc, outcome.state)
            else:
                assert isinstance(outcome, RemoteError)
                pending.fail(outcome)
                if outcome.gone:
                    self.note_state(loc, CFileState(CFileKind.ABSENT))
            done()

        server = self.server(loc.server)
        request = ReadFile(loc.fBytesPath, answered, limit=limit, expected=expected)
        pending = PendingRead(server, request)
        server.ask(request)
        return pending

    def report_failed(self, loc: CSshFileLocation) -> None:
        """Tell that a read came to nothing because the server was given up."""
        self._tell_soon(loc, self._bad_news)

    # --- news

    def _tell_soon(self, loc: CSshFileLocation, news: set[CSshFileLocation]) -> None:
        news.add(loc)
        if self._news_idle is None:
            self._news_idle = lgtk.idle_add_while_alive(self._tell, self)

    def _tell(self) -> bool:
        self._news_idle = None
        good, self._news = self._news, set()
        bad, self._bad_news = self._bad_news, set()
        good = {loc for loc in good if loc in self._states}  # not forgotten meanwhile
        try:
            if good:
                self.emit("inspected", good)
        finally:
            if bad:
                self.emit("inspect-failed", bad)
        return False

    def forget(self, server: RemoteServer | None = None) -> None:
        """Forget what was found of the files of one server, or of all."""
        gone = {
            loc
            for loc, state in list(self._states.items())
            if state.kind is not CFileKind.FOLDER and (server is None or loc.server == server.name)
        }
        for loc in gone:
            self._states.pop(loc, None)
        if gone:
            self.emit("forgotten", gone)

    def _server_stopped(self, server: RemoteServer) -> None:
        self.forget(server)

    def _server_changed(self, server: RemoteServer) -> None:
        self.emit("server-changed", server)

    def _server_eased(self, server: RemoteServer) -> None:
        self.emit("server-eased", server)

    def _destroy_impl(self) -> None:
        for server in self._servers.values():
            server.destroy()
