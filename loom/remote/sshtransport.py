"""Requests over SFTP on an SSH connection, with asyncssh, on the host's asyncio loop.

Each request is a task of its own, so that as many are under way as the server's keeper allows. What
takes time before the first byte is sent, loading the library, reading keys and configuration,
looking up a name, is done on a thread.
"""

from __future__ import annotations

import asyncio
import errno
import importlib
import os
import socket
import stat
from collections.abc import Callable
from typing import TYPE_CHECKING, Any, Final, cast
from urllib.parse import unquote

from guiutils import lgtk
from loombase.inspection import CFileKind, CFileState
from loombase.location import CServerName
from loomutils.reflect import ReportCurrentException

from loom.mainloop.asyncio_loop import AsyncioMainLoop
from loom.remote.options import RemoteOptions
from loom.remote.requests import (
    FileContent,
    FolderEntry,
    ListFolder,
    Outcome,
    ReadFile,
    RemoteError,
    Request,
    StatFile,
)
from loom.remote.transport import ConnectionFailure, TransportClient, TransportMaker

if TYPE_CHECKING:
    import asyncssh

__all__ = ["SshTransport", "open_connection", "ssh_transport_maker"]

# Bytes asked for at once; more comes in pieces, each of which shows that the server is there.
_READ_BYTES: Final = 256 * 1024

# Entries of a folder between two looks at the main loop.
_ENTRIES_PER_STEP: Final = 200

_NOBODY_LISTENS: Final = (errno.ECONNREFUSED, errno.EHOSTUNREACH, errno.ENETUNREACH)


def ssh_transport_maker(options: RemoteOptions) -> TransportMaker:
    """What makes connections as `options` say.

    Raises `RuntimeError` if the main loop doesn't run on asyncio.
    """
    main_loop = lgtk.GetMainLoop()
    if not isinstance(main_loop, AsyncioMainLoop):
        raise RuntimeError("connections over SSH need an AsyncioMainLoop")
    loop = main_loop.loop

    def make(name: CServerName, client: TransportClient) -> SshTransport:
        return SshTransport(name, client, options, loop)

    return make


async def open_connection(
    name: CServerName, options: RemoteOptions, on_lost: Callable[[Exception | None], object]
) -> asyncssh.SSHClientConnection:
    """Connect to a server. `on_lost` is called when the connection has ended, also in vain."""
    loop = asyncio.get_running_loop()
    # A tenth of a second, the first time.
    await loop.run_in_executor(None, importlib.import_module, "asyncssh")
    import asyncssh

    wanted: dict[str, Any] = {}
    if options.config is not None:
        wanted["config"] = [str(options.config)]
    if options.identity is not None:
        wanted["client_keys"] = [str(options.identity)]
    if options.known_hosts is not None:
        wanted["known_hosts"] = str(options.known_hosts)
    if name.user:
        wanted["username"] = name.user
    if name.port:
        wanted["port"] = name.port
    host = unquote(name.host.strip("[]"))
    settled = await asyncssh.SSHClientConnectionOptions.construct(host=host, **wanted)
    wanted["known_hosts"] = await loop.run_in_executor(
        None, _read_known_hosts, settled.known_hosts
    )

    class Owner(asyncssh.SSHClient):
        def connection_lost(self, exc: Exception | None) -> None:
            on_lost(exc)

    return await asyncssh.connect(
        host, client_factory=Owner, password_auth=False, kbdint_auth=False, **wanted
    )


class SshTransport:
    """One connection to one server. See `Transport` for what its operations do.

    Log-in is by the keys and the agent that OpenSSH would use. Nothing is ever prompted for: a key
    with a passphrase must be in the agent, and passwords aren't supported. The server's key must be
    among the known ones.
    """

    def __init__(
        self,
        name: CServerName,
        client: TransportClient,
        options: RemoteOptions,
        loop: asyncio.AbstractEventLoop,
    ) -> None:
        self._name = name
        self._client = client
        self._options = options
        self._loop = loop
        self._connection: asyncssh.SSHClientConnection | None = None
        self._sftp: asyncssh.SFTPClient | None = None
        self._tasks: dict[Request, asyncio.Task[None]] = {}
        self._is_closed = False
        self._life = loop.create_task(self._live())

    # --- what the keeper asks for

    def start(self, request: Request) -> None:
        self._tasks[request] = self._loop.create_task(self._answer(request))

    def stop(self, request: Request) -> None:
        task = self._tasks.pop(request, None)
        if task is not None:
            task.cancel()

    def close(self) -> None:
        self._is_closed = True
        self._life.cancel()
        for task in self._tasks.values():
            task.cancel()
        self._tasks.clear()
        if self._connection is not None:
            self._connection.abort()

    # --- the connection

    async def _live(self) -> None:
        try:
            failure = await self._connect_and_wait()
        except Exception as error:
            failure = _failure_of(error)
        if self._is_closed:
            return
        self.close()
        try:
            self._client.lost(self, failure)
        except Exception:
            ReportCurrentException()

    async def _connect_and_wait(self) -> ConnectionFailure:
        """Connect, and return why there is no connection any more."""
        lost: asyncio.Future[Exception | None] = self._loop.create_future()

        def note_lost(error: Exception | None) -> None:
            if not lost.done():
                lost.set_result(error)

        self._connection = await open_connection(self._name, self._options, note_lost)
        self._sftp = await self._connection.start_sftp_client(path_encoding=None)
        self._client.connected(self)
        closed = asyncio.ensure_future(self._sftp.wait_closed())
        either: set[asyncio.Future[Any]] = {lost, closed}
        try:
            await asyncio.wait(either, return_when=asyncio.FIRST_COMPLETED)
        finally:
            closed.cancel()
        error = lost.result() if lost.done() else None
        if error is None:
            return ConnectionFailure("the server closed the connection")
        return _failure_of(error)

    # --- requests

    async def _answer(self, request: Request) -> None:
        try:
            outcome = await self._outcome(request)
        except Exception as error:
            failure = _error_of(error)
            if failure is None:
                # The connection's end tells, and the request will be asked again.
                self._tasks.pop(request, None)
                return
            outcome = failure
        if self._tasks.pop(request, None) is not None:
            try:
                self._client.answered(self, request, outcome)
            except Exception:
                ReportCurrentException()

    async def _outcome(self, request: Request) -> Outcome:
        match request:
            case StatFile():
                return await self._stat(request)
            case ListFolder():
                return await self._list(request)
            case ReadFile():
                return await self._read(request)
        raise TypeError(f"not a request: {request!r}")

    async def _stat(self, request: StatFile) -> CFileState:
        assert self._sftp is not None
        try:
            return _state_of(
                await self._sftp.stat(request.path, follow_symlinks=not request.of_link)
            )
        except Exception as error:
            failure = _error_of(error)
            if failure is None:
                raise
            if failure.gone:
                return CFileState(CFileKind.ABSENT)
            return CFileState(CFileKind.CLOSED, reason=str(failure))

    async def _list(self, request: ListFolder) -> list[FolderEntry]:
        assert self._sftp is not None
        entries: list[FolderEntry] = []
        async for entry in self._sftp.scandir(request.path):
            name = entry.filename
            assert isinstance(name, bytes)
            if name in (b".", b".."):
                continue
            is_link = stat.S_ISLNK(entry.attrs.permissions or 0)
            entries.append(FolderEntry(name, _state_of(entry.attrs), is_link))
            if len(entries) % _ENTRIES_PER_STEP == 0:
                self._client.heard(self)
                await asyncio.sleep(0)
        return entries

    async def _read(self, request: ReadFile) -> FileContent:
        assert self._sftp is not None
        # Not in blocks of the library's own, which would be a task each.
        file = await self._sftp.open(request.path, "rb", encoding=None, block_size=0)
        try:
            self._client.heard(self)
            # One byte more than there should be, to notice that the file is growing.
            first = min(request.expected + 1, request.limit, _READ_BYTES)
            attrs, data = await asyncio.gather(file.stat(), _bytes_of(file, first, 0))
            state = _state_of(attrs)
            pieces: list[bytes] = [data]
            length = len(data)
            while length < request.limit and length != state.size:
                self._client.heard(self)
                wanted = min(request.limit - length, _READ_BYTES)
                piece = await _bytes_of(file, wanted, length)
                if not piece:
                    break
                pieces.append(piece)
                length += len(piece)
            if length < request.limit:
                whole = True
            else:
                whole = not await file.read(1, length)
            return FileContent(state, b"".join(pieces), whole)
        finally:
            if not self._is_closed:  # else there is nobody to answer
                await file.close()


def _read_known_hosts(named: Any) -> asyncssh.SSHKnownHosts:
    """The keys of servers in the files that the configuration names, by default OpenSSH's own.

    The library would read them in the main loop, and trust any server for "UserKnownHostsFile
    none".
    """
    import asyncssh

    files = [named] if isinstance(named, str) else named or ["~/.ssh/known_hosts"]
    paths = [os.path.expanduser(file) for file in files]
    return asyncssh.read_known_hosts([path for path in paths if os.path.exists(path)])


async def _bytes_of(file: asyncssh.SFTPClientFile, size: int, offset: int) -> bytes:
    return cast(bytes, await file.read(size, offset))  # no encoding was asked for


def _state_of(attrs: asyncssh.SFTPAttrs) -> CFileState:
    mode = attrs.permissions or 0
    if stat.S_ISREG(mode):
        kind = CFileKind.FILE
    elif stat.S_ISDIR(mode):
        kind = CFileKind.FOLDER
    else:
        kind = CFileKind.OTHER
    # The protocol's usual version counts whole seconds.
    mtime_ns = (attrs.mtime or 0) * 1_000_000_000 + (attrs.mtime_ns or 0)
    return CFileState(kind, mtime_ns, attrs.size or 0)


def _error_of(error: Exception) -> RemoteError | None:
    """What a failed request is told; none if the connection is to blame."""
    import asyncssh

    if isinstance(error, asyncssh.SFTPError):
        if error.code in (asyncssh.FX_NO_CONNECTION, asyncssh.FX_CONNECTION_LOST):
            return None
        gone = error.code in (
            asyncssh.FX_NO_SUCH_FILE,
            asyncssh.FX_NO_SUCH_PATH,
            asyncssh.FX_NOT_A_DIRECTORY,
        )
        return RemoteError(error.reason or f"error {error.code}", gone=gone)
    if isinstance(error, (asyncssh.Error, OSError)):
        return None
    return RemoteError(f"{type(error).__name__}: {error}")


def _failure_of(error: Exception) -> ConnectionFailure:
    """Why there is no connection, in words for the user."""
    import asyncssh

    if isinstance(error, asyncssh.HostKeyNotVerifiable):
        return ConnectionFailure(
            f"the server's key isn't trusted ({error.reason}); "
            "it must be in the file of known hosts, where ssh puts it when you log in once",
            lasting=True,
        )
    if isinstance(error, asyncssh.PermissionDenied):
        return ConnectionFailure(
            f"log-in refused ({error.reason}); keys and agents are tried, passwords aren't",
            lasting=True,
        )
    if isinstance(error, (asyncssh.ChannelOpenError, asyncssh.SFTPError)):
        return ConnectionFailure(f"no SFTP there: {error.reason}", lasting=True)
    if isinstance(error, asyncssh.DisconnectError):
        return ConnectionFailure(error.reason or type(error).__name__)
    if isinstance(error, socket.gaierror):
        unknown = error.errno != socket.EAI_AGAIN
        return ConnectionFailure(f"no such host: {error.strerror}", lasting=unknown)
    if isinstance(error, OSError) and error.filename is None:
        refused = error.errno in _NOBODY_LISTENS or isinstance(error, ConnectionRefusedError)
        reason = os.strerror(error.errno) if error.errno else str(error)
        return ConnectionFailure(reason, refused=refused)
    # Of a key or of the configuration.
    return ConnectionFailure(f"{error}" or type(error).__name__, lasting=True)
