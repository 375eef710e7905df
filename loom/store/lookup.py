"""What the info cache asks of the database: few columns, many files at a time."""

import sqlite3
from collections.abc import Sequence
from typing import Any, Final

from loom.store.records import FileState, StoredScope
from loom.store.schema import kScopesPerFile

__all__ = ["Lookup"]

# Files in one query; a whole-file check asks for 26.
_kUrlsPerQuery: Final = 100


class Lookup:
    """Reads over the writer's own connection."""

    def __init__(self, connection: sqlite3.Connection) -> None:
        self._connection = connection

    def data_version(self) -> int:
        """A number that changes when another connection has written."""
        (version,) = self._connection.execute("PRAGMA data_version").fetchone()
        assert isinstance(version, int)
        return version

    def states(self, urls: Sequence[str]) -> dict[str, FileState]:
        """What was scanned of the files, without those that aren't known."""
        rows = self._by_url(
            "SELECT url, mtime_ns, size, settled, digest, scanner, scans, followed FROM files"
            " WHERE url IN ",
            urls,
        )
        return {
            url: FileState(mtime_ns, size, settled == 1, digest, scanner, scans, followed)
            for url, mtime_ns, size, settled, digest, scanner, scans, followed in rows
        }

    def imports(self, urls: Sequence[str]) -> dict[str, bytes]:
        """The joined import equivalents of the files, without those that have none."""
        rows = self._by_url(
            "SELECT url, imports FROM files WHERE length(imports) > 0 AND url IN ", urls
        )
        return dict(rows)

    def scope(self, url: str, name: str, with_added: bool = True) -> StoredScope | None:
        """A scope of a file; one that was added by itself comes before a scanned one."""
        file = self._connection.execute(
            "SELECT id, mtime_ns, scans FROM files WHERE url = ?", (url,)
        ).fetchone()
        if file is None:
            return None
        file_id, mtime_ns, scans = file
        row = self._connection.execute(
            "SELECT scan_name, disk_mtime, incomplete, does_not_exist, info FROM added_scopes"
            " WHERE file_id = ? AND name = ?",
            (file_id, name),
        ).fetchone()
        if row is not None and with_added:
            scan_name, disk_mtime, incomplete, absent, info = row
            return StoredScope(scan_name, disk_mtime, bool(incomplete), bool(absent), info)
        if not scans:
            return None
        row = self._connection.execute(
            "SELECT info FROM scopes WHERE id BETWEEN ? AND ? AND name = ?",
            (file_id * kScopesPerFile, (file_id + 1) * kScopesPerFile - 1, name),
        ).fetchone()
        if row is None:
            return None
        return StoredScope(scans.split()[0], mtime_ns / 1e9, False, False, row[0])

    def scope_lines(self, url: str) -> list[tuple[str, int, int]]:
        """(scope name, first line, last line) of each scope, parents before children."""
        row = self._connection.execute(
            "SELECT id FROM files WHERE url = ? AND scans != ''", (url,)
        ).fetchone()
        if row is None:
            return []
        return self._connection.execute(
            "SELECT name, lineno, end_lineno FROM scopes WHERE id BETWEEN ? AND ? ORDER BY id",
            (row[0] * kScopesPerFile, (row[0] + 1) * kScopesPerFile - 1),
        ).fetchall()

    def urls_below(self, folder_url: str, after: str, limit: int) -> list[str]:
        """The next files below a folder, behind the URL `after` in order of URL."""
        first = folder_url.rstrip("/") + "/"
        rows = self._connection.execute(
            "SELECT url FROM files WHERE url > ? AND url < ? ORDER BY url LIMIT ?",
            (max(first, after), first[:-1] + chr(ord("/") + 1), limit),
        )
        return [url for (url,) in rows]

    def _by_url(self, query: str, urls: Sequence[str]) -> list[Any]:
        rows: list[Any] = []
        for start in range(0, len(urls), _kUrlsPerQuery):
            part = urls[start : start + _kUrlsPerQuery]
            marks = ", ".join("?" * len(part))
            rows += self._connection.execute(f"{query}({marks})", part)
        return rows
