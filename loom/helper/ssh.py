"""Helpers on SSH servers, where the files are.

The scheduler sends no remote files away. So what is asked for on such a server is taken before it
gets to the scheduler, which is told by the reports of the pool alone that it is under way.
"""

from __future__ import annotations

import asyncio
import logging
from collections.abc import Iterable
from typing import TYPE_CHECKING, Any, Final

from loombase.destroyable import COwned
from loombase.location import CLocation, CServerName, CSshFileLocation

from loom.app import App
from loom.helper.callback import new_callback_obj
from loom.helper.launch import HelperHandle
from loom.helper.link import Link
from loom.helper.stream import Stream
from loom.helper.support import CHelperProcessSupport
from loom.mainloop.asyncio_loop import AsyncioMainLoop
from loom.remote.options import RemoteOptions
from loom.remote.sshtransport import open_connection
from pysource.scancoordinator import kBackgroundPriority

if TYPE_CHECKING:
    import asyncssh

__all__ = ["SshHelper", "use_remote_helpers"]

_log = logging.getLogger("loom.helper")

_kMostLogBytes: Final = 64 * 1024
_kWholeFile: Final = "*"


class _SshStream(Stream):
    """Standard input and output of a process on a server. What is sent before it runs waits."""

    def __init__(self) -> None:
        super().__init__()
        self._channel: asyncssh.SSHClientChannel[bytes] | None = None
        self._waiting = b""
        self._closed = False

    def attach(self, channel: asyncssh.SSHClientChannel[bytes]) -> None:
        """The process runs."""
        self._channel = channel
        waiting, self._waiting = self._waiting, b""
        if waiting:
            channel.write(waiting)

    def start(self) -> None:
        """It is read from as soon as it runs."""

    def send(self, data: bytes) -> None:
        if self._closed:
            return
        if self._channel is None:
            self._waiting += data
        elif not self._channel.is_closing():
            self._channel.write(data)

    def flush(self) -> None:
        """What is sent is on its way."""

    @property
    def unsent(self) -> int:
        if self._channel is None:
            return len(self._waiting)
        return self._channel.get_write_buffer_size()

    def pause(self) -> None:
        if self._channel is not None:
            self._channel.pause_reading()

    def resume(self) -> None:
        if self._channel is not None and not self._closed:
            self._channel.resume_reading()

    def close(self) -> None:
        self._closed = True
        if self._channel is not None:
            self._channel.abort()


class SshHelper(HelperHandle):
    """A helper that is started by `command` on a server, over a connection of its own."""

    def __init__(
        self,
        loop: asyncio.AbstractEventLoop,
        server: CServerName,
        options: RemoteOptions,
        command: str,
    ) -> None:
        super().__init__()
        self._server = server
        self._options = options
        self._command = command
        self._log_bytes = 0
        self._fate = ""
        self._connection: asyncssh.SSHClientConnection | None = None
        self._over: asyncio.Future[str] = loop.create_future()
        self._ssh_stream = _SshStream()
        self.stream = self._ssh_stream
        self._life = loop.create_task(self._live())

    @property
    def name(self) -> str:
        return f"helper on {self._server}"

    def end(self) -> None:
        self._note_over("it was ended")

    def _destroy_impl(self) -> None:
        self.stream.close()
        self._life.cancel()
        if self._connection is not None:
            self._connection.abort()

    def _note_over(self, fate: str) -> None:
        if not self._over.done():
            self._over.set_result(self._fate or fate)

    async def _live(self) -> None:
        try:
            await self._open()
            fate = await self._over
        except Exception as error:  # whatever keeps it from running
            fate = str(error) or type(error).__name__
        self.stream.close()
        if self._connection is not None:
            self._connection.abort()
        self.stream.on_end(fate)
        self.on_gone(fate)

    async def _open(self) -> None:
        connection = await open_connection(
            self._server, self._options, lambda error: self._note_over(str(error or "it was cut"))
        )
        self._connection = connection
        import asyncssh

        helper = self

        class Session(asyncssh.SSHClientSession[bytes]):
            def data_received(self, data: bytes, datatype: int | None) -> None:
                if datatype is None:
                    helper.stream.on_bytes(data)
                else:
                    helper._log_text(data)

            def exit_status_received(self, status: int) -> None:
                helper._fate = f"it ended with exit code {status}"

            def exit_signal_received(
                self, signal: str, core_dumped: bool, msg: str, lang: str
            ) -> None:
                helper._fate = f"it was ended by SIG{signal}"

            def connection_lost(self, exc: Exception | None) -> None:
                helper._note_over(str(exc or "it ended"))

        channel, _ = await connection.create_session(Session, self._command, encoding=None)
        self._ssh_stream.attach(channel)

    def _log_text(self, data: bytes) -> None:
        if self._log_bytes <= _kMostLogBytes:
            self._log_bytes += len(data)
            for line in data.decode(errors="backslashreplace").splitlines():
                _log.warning("%s: %s", self.name, line)


class _RemoteSupport(CHelperProcessSupport):
    """The helper of one server, beside the scheduler rather than as its proxy."""

    def __init__(
        self, app: App, server: CServerName, options: RemoteOptions, command: str
    ) -> None:
        main_loop = app.main_loop
        assert isinstance(main_loop, AsyncioMainLoop)
        loop = main_loop.loop
        self._app = app
        super().__init__(
            app.ana_mgr, lambda: SshHelper(loop, server, options, command), 1, share=False
        )

    def scan(self, locs: list[CLocation]) -> None:
        """Have the helper scan these files."""
        assert self.pool.fCallbackObj is not None
        self.pool.fCallbackObj.locs_added(locs)
        self.pool.AddPairsToPrimaryQueue([(loc, _kWholeFile) for loc in locs], False)

    def _register(self) -> None:
        """Whoever is the proxy stays it."""

    def _unregister(self) -> None:
        """The app ends, and this with it."""

    def _come(self) -> None:
        ana_mgr: Any = self._app.ana_mgr
        support = ana_mgr._fHelperProcessSupport
        if support is None:  # only what it hears of is a helper to the scheduler
            self.fHelperCallbackObj = new_callback_obj()
            ana_mgr._fHelperProcessSupport = support = self
            ana_mgr.fScanCoordinator._UpdateForHelperProcess()
        self.pool.fCallbackObj = support.fHelperCallbackObj

    def _delay_after(self, link: Link) -> float | None:
        # One that never ran isn't there, and another try would tell the same.
        return super()._delay_after(link) if link.is_ready else None

    def _take_back(self) -> None:
        locs = self.pool.locs
        callback_obj = self.pool.fCallbackObj
        suspects = {task.loc for task in self.pool.backlog.suspects}
        self.pool.give_back()
        locs = [loc for loc in locs if loc not in suspects]
        if callback_obj is not None:
            callback_obj.locs_removed(locs)
        self._app.coordinator.AddPairsToPrimaryQueue(
            [(loc, _kWholeFile) for loc in locs], False, kBackgroundPriority
        )


class _EndsWith(COwned):
    """Ends a support with its owner."""

    __slots__ = ("_support",)

    def __init__(self, support: _RemoteSupport) -> None:
        super().__init__()
        self._support = support

    def Cut(self) -> None:
        self._support.destroy()


class _RemoteHelpers:
    """The supports of all servers, by name. A server gets one when a file on it is asked for."""

    def __init__(self, app: App, options: RemoteOptions, command: str) -> None:
        self._app = app
        self._options = options
        self._command = command
        self._supports: dict[CServerName, _RemoteSupport] = {}
        self._endings: list[_EndsWith] = []

    def take(self, locs: Iterable[CLocation]) -> list[CLocation]:
        """Take the files on servers with a helper; returns the others."""
        others: list[CLocation] = []
        by_server: dict[CServerName, list[CLocation]] = {}
        for loc in locs:
            if isinstance(loc, CSshFileLocation) and not self._of(loc.server).is_given_up:
                by_server.setdefault(loc.server, []).append(loc)
            else:
                others.append(loc)
        for server, taken in by_server.items():
            self._of(server).scan(taken)
        return others

    def _of(self, server: CServerName) -> _RemoteSupport:
        support = self._supports.get(server)
        if support is None:
            support = _RemoteSupport(self._app, server, self._options, self._command)
            self._supports[server] = support
            self._endings.append(_EndsWith(support))
            self._app.coordinator.CutWhenDestroyed(self._endings[-1])
            support.start()
        return support


def use_remote_helpers(app: App, options: RemoteOptions, command: str) -> None:
    """Have the files on each SSH server that `app` is asked for scanned there.

    `command` starts a helper on the server, such as "loom helper". Where it doesn't, that is
    logged, and the files are read over SFTP.
    """
    helpers = _RemoteHelpers(app, options, command)
    app.coordinator.scan_elsewhere = helpers.take
