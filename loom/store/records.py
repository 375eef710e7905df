"""The shapes that pass between the info cache and the database."""

import time
from collections.abc import Sequence
from dataclasses import dataclass, field
from typing import Final, NamedTuple

__all__ = [
    "AddedScope",
    "FileRecord",
    "FileState",
    "FileTimes",
    "ScopeRow",
    "StoredScope",
    "join_scans",
    "kUnsavedTime",
]

# Time, in nanoseconds, of results that came from unsaved text: that of no file, so that they are
# never taken for valid once the text is gone.
kUnsavedTime: Final = -1

# (scope name, index of the parent scope or -1, kind, first line, last line, packed information),
# just as the native scanner makes it.
ScopeRow = tuple[str, int, int, int, int, bytes]


@dataclass(slots=True, frozen=True)
class FileRecord:
    """All that a whole-file scan found. `definitions` is packed, `names` are those in it, once.

    `exports` is a digest of what other files can see of it.
    `settled` tells that the time can be trusted, `scanner` is the version of the scanner,
    `scanned_ns` when this record was made.
    """

    url: str
    mtime_ns: int
    size: int
    scans: str
    digest: bytes = b""
    error: str | None = None
    error_lineno: int = 0
    line_count: int = 0
    definition_count: int = 0
    imports: bytes = b""
    scopes: Sequence[ScopeRow] = ()
    definitions: bytes = b""
    names: Sequence[str] = ()
    exports: bytes = b""
    settled: bool = False
    scanner: int = 0
    scanned_ns: int = field(default_factory=time.time_ns, compare=False)

    def state(self) -> "FileState":
        """For which state of the file the results are valid."""
        return FileState(
            self.mtime_ns, self.size, self.settled, self.digest, self.scanner, self.scans
        )

    def memory(self) -> int:
        """Roughly the bytes that the record holds on to."""
        infos = sum([len(row[5]) for row in self.scopes])
        texts = len(self.imports) + len(self.definitions) + infos
        return 500 + texts + 300 * len(self.scopes) + 80 * len(self.names)


class FileTimes(NamedTuple):
    """When a file was read whose results stay as they are."""

    mtime_ns: int
    size: int
    settled: bool


class FileState(NamedTuple):
    """For which state of a file its results are valid, and who made them.

    `followed` tells when all that the file imports was followed (see `followed`), 0 for never.
    """

    mtime_ns: int
    size: int
    settled: bool
    digest: bytes
    scanner: int
    scans: str
    followed: int = 0


class StoredScope(NamedTuple):
    """A scope as it stands in the database or waits to be written. Times are in seconds."""

    scan_name: str
    disk_mtime: float
    incomplete: bool
    does_not_exist: bool
    info: bytes


class AddedScope(NamedTuple):
    """A scope to be stored that no whole-file scan wrote."""

    url: str
    name: str
    stored: StoredScope

    def memory(self) -> int:
        """Roughly the bytes that the record holds on to."""
        return 500 + len(self.stored.info)


def join_scans(names: Sequence[str]) -> str:
    """The text of scan names as `files.scans` holds it."""
    return f" {' '.join(names)} " if names else ""
