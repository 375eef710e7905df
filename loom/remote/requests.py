"""What can be asked of a server, and what comes back."""

from __future__ import annotations

from collections.abc import Callable
from dataclasses import dataclass
from typing import NamedTuple

from loombase.inspection import CFileState

__all__ = [
    "FileContent",
    "FolderEntry",
    "ListFolder",
    "Outcome",
    "ReadFile",
    "RemoteError",
    "Request",
    "StatFile",
]


class RemoteError(Exception):
    """A request came to nothing; the text is the reason.

    `gone` is true if there is no such file. `server_failed` is true if the server was given up: the
    reason then says nothing about the file.
    """

    def __init__(
        self, reason: str, *, gone: bool = False, server_failed: bool = False
    ) -> None:
        super().__init__(reason)
        self.gone = gone
        self.server_failed = server_failed


class FolderEntry(NamedTuple):
    """One name in a folder. `is_link` tells of a link, whose state is not that of its target."""

    name: bytes
    state: CFileState
    is_link: bool


class FileContent(NamedTuple):
    """What was read of a file. `whole` is false if there is more of it."""

    state: CFileState
    data: bytes
    whole: bool


@dataclass(slots=True, eq=False)
class Request:
    """Something to be asked about the absolute `path`.

    `done` is called once with the result or a `RemoteError`, unless the request is cancelled.
    `failures` counts the connections that were lost while this request was the one to be answered.
    """

    path: bytes
    done: Callable[[Outcome], object]
    failures: int = 0


@dataclass(slots=True, eq=False)
class StatFile(Request):
    """What is there? The result is a `CFileState`; links are followed unless `of_link`.

    That nothing is there, or that it may not be looked at, is a result, too.
    """

    of_link: bool = False


@dataclass(slots=True, eq=False)
class ListFolder(Request):
    """What does a folder hold? The result is a list of `FolderEntry`, in no order."""


@dataclass(slots=True, eq=False)
class ReadFile(Request):
    """What is in a regular file, `limit` bytes at most? The result is a `FileContent`.

    `expected` is the probable size in bytes.
    """

    limit: int = 0
    expected: int = 0


Outcome = CFileState | list[FolderEntry] | FileContent | RemoteError
