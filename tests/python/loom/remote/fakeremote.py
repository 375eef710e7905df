"""Servers that answer when a test says so, and not before."""

from __future__ import annotations

from collections.abc import Callable

from loombase.inspection import CFileKind, CFileState
from loombase.location import CServerName

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
from loom.remote.transport import ConnectionFailure, TransportClient

SERVER = CServerName("", "far", 0)


def state_of(data: bytes, mtime: int = 1_600_000_000) -> CFileState:
    return CFileState(CFileKind.FILE, mtime * 1_000_000_000, len(data))


class FakeTransport:
    """A connection whose every event is a test's doing. `log` is what was asked of it."""

    def __init__(self, name: CServerName, client: TransportClient) -> None:
        self.name = name
        self.client = client
        self.log: list[str] = []
        self.under_way: list[Request] = []
        self.closed = False

    # --- what the server asks for

    def start(self, request: Request) -> None:
        assert not self.closed
        self.log.append(f"{type(request).__name__} {request.path.decode()}")
        self.under_way.append(request)

    def stop(self, request: Request) -> None:
        self.log.append(f"stop {request.path.decode()}")
        self.under_way.remove(request)

    def close(self) -> None:
        self.log.append("close")
        self.closed = True

    # --- what happens

    def connect(self) -> None:
        self.client.connected(self)

    def answer(self, outcome: Outcome, index: int = 0) -> Request:
        """Answer one of the requests under way."""
        request = self.under_way.pop(index)
        self.client.answered(self, request, outcome)
        return request

    def lose(self, reason: str = "cut", **how: bool) -> None:
        self.closed = True
        self.client.lost(self, ConnectionFailure(reason, **how))


class FakeNetwork:
    """Makes the connections. `tree` is what `serve` answers from: contents by path."""

    def __init__(self) -> None:
        self.made: list[FakeTransport] = []
        self.tree: dict[str, bytes] = {}
        self.links: dict[str, str] = {}
        self.mtimes: dict[str, int] = {}
        self.errors: dict[str, RemoteError] = {}

    def make(self, name: CServerName, client: TransportClient) -> FakeTransport:
        self.made.append(FakeTransport(name, client))
        return self.made[-1]

    @property
    def last(self) -> FakeTransport:
        return self.made[-1]

    def serve(self, transport: FakeTransport | None = None, most: int = 1_000_000) -> int:
        """Answer what is under way, at most so many requests. Returns how many it were."""
        transport = self.last if transport is None else transport
        for count in range(most):
            if not transport.under_way:
                return count
            transport.answer(self._outcome(transport.under_way[0]))
        return most

    def _outcome(self, request: Request) -> Outcome:
        path = request.path.decode("utf-8", "surrogateescape")
        if path in self.errors:
            return self.errors[path]
        match request:
            case StatFile(of_link=True) if path in self.links:
                return CFileState(CFileKind.OTHER)
            case StatFile():
                return self._state(self.links.get(path, path))
            case ListFolder():
                return self._entries(path)
            case ReadFile():
                data = self.tree.get(path)
                if data is None:
                    return RemoteError("No such file", gone=True)
                limit = request.limit
                return FileContent(self._state(path), data[:limit], len(data) <= limit)
        raise AssertionError(request)

    def _state(self, path: str) -> CFileState:
        if path in self.tree:
            return state_of(self.tree[path], self.mtimes.get(path, 1_600_000_000))
        if path == "/" or any(each.startswith(path + "/") for each in self.tree):
            return CFileState(CFileKind.FOLDER)
        return CFileState(CFileKind.ABSENT)

    def _entries(self, path: str) -> list[FolderEntry]:
        start = path.rstrip("/") + "/"
        names = {
            each[len(start) :].partition("/")[0]
            for each in (*self.tree, *self.links)
            if each.startswith(start)
        }
        return [
            FolderEntry(
                name.encode("utf-8", "surrogateescape"),
                CFileState(CFileKind.OTHER) if start + name in self.links
                else self._state(start + name),
                start + name in self.links,
            )
            for name in sorted(names, reverse=True)
        ]


class Answers:
    """Collects what `done` of requests is called with."""

    def __init__(self) -> None:
        self.got: list[tuple[str, Outcome]] = []

    def __call__(self, name: str) -> Callable[[Outcome], None]:
        return lambda outcome: self.got.append((name, outcome))

    def names(self) -> list[str]:
        return [name for name, _ in self.got]
