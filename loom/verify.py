"""Comparing the database with the tree: which stored results hold, and whether they are whole.

Nothing is changed, neither in the database nor in the tree, and no main loop is needed.
"""

from __future__ import annotations

import os
import random
import sqlite3
import stat
from collections.abc import Iterator, Sequence
from dataclasses import dataclass, field
from types import SimpleNamespace
from typing import Any, Final, Literal, NamedTuple

import singleton
from loombase.location import CLocalFileLocation
from pathspec import GitIgnoreSpec

from loom import freshness
from loom._pyscan import unpack_info
from loom.services.engine import kPrimaryScanName
from loom.services.managers import CCacheMgr, CFileAttribMgr
from loom.sourcetext import SourceError, SourceText, read_source
from loom.store import definitions
from loom.store.queries import path_of, url_of
from loom.store.records import FileRecord, FileState, FileTimes
from loom.store.schema import kScopesPerFile
from loom.walk import Found, Problem, walk
from pysource.scopescanner import CWholeFilePrimaryScanner

__all__ = ["Finding", "Kind", "Verification"]

# "gone": stored, and no longer there. "stale": stored, and no longer what is there. "unscanned":
# there, and not stored. "inconsistent": rows that can't be. "different": rows that a scan of the
# same bytes doesn't make. "unreadable": what can't be looked at.
Kind = Literal["gone", "stale", "unscanned", "inconsistent", "different", "unreadable"]

# Tables whose rows hang on a file, and how they name it. The index of names isn't among them: it
# may hold too much.
_HANGING: Final = (
    ("scopes", f"scopes.id / {kScopesPerFile}"),
    ("definitions", "file_id"),
    ("added_scopes", "file_id"),
)

# Beyond the end of any slice: each step of a scanner is carried on at once.
_FOREVER: Final = float("inf")


class Finding(NamedTuple):
    """Something that isn't as it should be. `place` is a path, or a URL or table."""

    kind: Kind
    place: str
    detail: str


@dataclass(slots=True)
class Counts:
    """Stored files, each counted once: those that hold, and those that don't.

    `touched` files hold by their bytes although their time doesn't tell it. Of `failed` ones
    nothing is stored but why. `elsewhere` are on other machines, and weren't looked at. `compared`
    are those that were scanned for comparison; they count among the others, too.
    """

    stored: int = 0
    fresh: int = 0
    touched: int = 0
    stale: int = 0
    gone: int = 0
    failed: int = 0
    elsewhere: int = 0
    unscanned: int = 0
    compared: int = 0


@dataclass(slots=True)
class _Row:
    id: int
    url: str
    error: str | None
    state: FileState


@dataclass(slots=True)
class Verification:
    """One comparison of the database behind `connection` with what is at and below `paths`.

    With `everything`, stored files elsewhere are looked at, too. Of the files that hold, `deep`
    (all if it is none) are scanned again, chosen by chance, and the rows compared.
    """

    connection: sqlite3.Connection
    paths: Sequence[str]
    exclude: GitIgnoreSpec | None = None
    everything: bool = False
    deep: int | None = 0
    counts: Counts = field(default_factory=Counts)

    def damage(self) -> list[str]:
        """What SQLite finds wrong with the file itself; empty if it is sound."""
        rows = self.connection.execute("PRAGMA integrity_check").fetchall()
        return [] if rows == [("ok",)] else [str(row[0]) for row in rows]

    def findings(self) -> Iterator[Finding]:
        """All that isn't as it should be; `counts` is complete at the end.

        What a running scan writes meanwhile isn't seen. Raises `sqlite3.Error`.
        """
        self.connection.execute("BEGIN")
        try:
            yield from self._orphans()
            rows = [row for row in self._rows() if self._is_asked_for(row.url)]
            self.counts.stored = len(rows)
            holding: list[_Row] = []
            for row in rows:
                yield from self._inconsistencies(row)
                yield from self._compare_with_file(row, holding)
            yield from self._unscanned({row.url for row in rows})
            yield from self._compare_with_scans(holding)
        finally:
            self.connection.execute("COMMIT")

    # --- the tree

    def _rows(self) -> Iterator[_Row]:
        for file_id, url, error, *state in self.connection.execute(
            "SELECT id, url, error, mtime_ns, size, settled, digest, scanner, scans FROM files"
            " ORDER BY url"
        ):
            yield _Row(file_id, url, error, FileState(*state))

    def _is_asked_for(self, url: str) -> bool:
        if self.everything:
            return True
        for path in self.paths:
            start = url_of(path)
            if url == start or url.startswith(start.rstrip("/") + "/"):
                return True
        return False

    def _compare_with_file(self, row: _Row, holding: list[_Row]) -> Iterator[Finding]:
        counts, state = self.counts, row.state
        path = path_of(row.url)
        if path is None:
            counts.elsewhere += 1
            return
        try:
            status = os.stat(path)
        except (FileNotFoundError, NotADirectoryError):
            counts.gone += 1
            yield Finding("gone", path, "there is no such file")
            return
        except OSError as error:
            counts.failed += 1
            yield Finding("unreadable", path, error.strerror or str(error))
            return
        if not state.scans:
            counts.failed += 1
            if row.error is None:
                yield Finding("unscanned", path, "no scan of it came to its end")
            return
        reason = self._why_stale(path, status, state)
        if reason:
            counts.stale += 1
            yield Finding("stale", path, reason)
            return
        if freshness.is_fresh(state, freshness.mtime_ns_of(status), status.st_size):
            counts.fresh += 1
        else:
            counts.touched += 1
        holding.append(row)

    @staticmethod
    def _why_stale(path: str, status: os.stat_result, state: FileState) -> str:
        """Why the results don't hold any more; empty if they do."""
        if state.scanner != freshness.kScannerVersion:
            return f"scanned by version {state.scanner} of the scanner"
        if freshness.is_fresh(state, freshness.mtime_ns_of(status), status.st_size):
            return ""
        if not state.digest:
            return "its time or size has changed"
        if not stat.S_ISREG(status.st_mode):
            return "it is no regular file any more"
        text = SourceText()
        try:
            _exhaust(read_source(path, text))
        except SourceError as error:
            return str(error)
        return "" if text.digest == state.digest else "its content has changed"

    def _unscanned(self, stored: set[str]) -> Iterator[Finding]:
        for step in walk(self.paths, self.exclude):
            if isinstance(step, Problem):
                yield Finding("unreadable", step.path, step.reason)
            elif isinstance(step, Found) and url_of(step.path) not in stored:
                self.counts.unscanned += 1
                yield Finding("unscanned", step.path, "not in the database")

    # --- the rows

    def _orphans(self) -> Iterator[Finding]:
        for table, file_id in _HANGING:
            [(count,)] = self.connection.execute(
                f"SELECT count(*) FROM {table} WHERE {file_id} NOT IN (SELECT id FROM files)"
            )
            if count:
                yield Finding("inconsistent", table, f"{count} rows belong to no file")

    def _inconsistencies(self, row: _Row) -> Iterator[Finding]:
        """What can't be, whatever the file holds. Of a broken-off scan nothing is expected."""
        if not row.state.scans:
            return
        place = path_of(row.url) or row.url
        for problem in (*self._wrong_scopes(row), *self._wrong_definitions(row)):
            yield Finding("inconsistent", place, problem)

    def _wrong_scopes(self, row: _Row) -> Iterator[str]:
        scopes = self._scopes(row.id)
        if not scopes and row.error is None:
            yield "it has no scopes"
        for index, (number, name, parent, _kind, lineno, end_lineno, info) in enumerate(scopes):
            if number != index:
                yield f"scope {index} is missing"
                return
            if not (parent == -1 if index == 0 else 0 <= parent < index):
                yield f"scope {name!r} has no parent before it"
            if not 1 <= lineno <= end_lineno + 1:
                yield f"scope {name!r} ends before it begins"
            try:
                unpack_info(info)
            except ValueError as error:
                yield f"scope {name!r} can't be unpacked: {error}"

    def _wrong_definitions(self, row: _Row) -> Iterator[str]:
        ask = self.connection.execute
        count, indexed = ask(
            "SELECT definition_count, indexed FROM files WHERE id = ?", (row.id,)
        ).fetchone()
        packed = ask("SELECT packed FROM definitions WHERE file_id = ?", (row.id,)).fetchone()
        try:
            found = [] if packed is None else list(definitions.unpack(packed[0]))
        except ValueError as error:
            yield f"its definitions can't be unpacked: {error}"
            return
        if len(found) != count:
            yield f"it has {len(found)} definitions and claims {count}"
        scope_count = len(self._scopes(row.id))
        if any(not 0 <= each.scope_index < scope_count for each in found):
            yield "it has definitions in scopes that aren't there"
        if indexed:
            for name in sorted({each.name for each in found}):
                key = (name, row.id)
                if not ask("SELECT 1 FROM names WHERE name = ? AND file_id = ?", key).fetchone():
                    yield f"the name {name!r} isn't in the index"

    def _scopes(self, file_id: int) -> list[Any]:
        first = file_id * kScopesPerFile
        return self.connection.execute(
            "SELECT id - ?, name, parent, kind, lineno, end_lineno, info FROM scopes"
            " WHERE id BETWEEN ? AND ? ORDER BY id",
            (first, first, first + kScopesPerFile - 1),
        ).fetchall()

    # --- the rows beside those of a new scan

    def _compare_with_scans(self, rows: list[_Row]) -> Iterator[Finding]:
        if self.deep is not None:
            rows = random.sample(rows, min(self.deep, len(rows)))
        if not rows:
            return
        with _Scans() as scans:
            for row in rows:
                path = path_of(row.url)
                assert path is not None
                record = scans.scan(CLocalFileLocation(path))
                if record.digest != row.state.digest:
                    self.counts.stale += 1
                    yield Finding("stale", path, "its content has changed, and its time hasn't")
                    continue
                self.counts.compared += 1
                differing = self._differing(row, record)
                if differing:
                    yield Finding(
                        "different", path, f"a scan finds other {', '.join(differing)}"
                    )

    def _differing(self, row: _Row, record: FileRecord) -> list[str]:
        stored = self.connection.execute(
            "SELECT error, error_lineno, line_count, definition_count, imports FROM files"
            " WHERE id = ?",
            (row.id,),
        ).fetchone()
        packed = self.connection.execute(
            "SELECT packed FROM definitions WHERE file_id = ?", (row.id,)
        ).fetchone()
        pairs: dict[str, tuple[object, object]] = {
            "errors": (stored[:2], (record.error, record.error_lineno)),
            "lengths": (stored[2:4], (record.line_count, record.definition_count)),
            "imports": (stored[4], record.imports),
            "scopes": ([scope[1:] for scope in self._scopes(row.id)], list(record.scopes)),
            "definitions": (b"" if packed is None else packed[0], record.definitions),
        }
        return [what for what, (ours, theirs) in pairs.items() if ours != theirs]


class _Scans:
    """Runs the scanner of whole files outside of any session; nothing is stored.

    It stands in for the host's info cache. Raises `RuntimeError` if a host runs in this process.
    """

    def __init__(self) -> None:
        self._record: FileRecord | None = None

    def __enter__(self) -> _Scans:
        table = singleton.GetSingletons()
        if table.fAnalysisMgr is not None:
            raise RuntimeError("a host runs in this process")
        table.fAnalysisMgr = SimpleNamespace(fInfoCache=self)
        table.fCacheMgr = CCacheMgr(CFileAttribMgr())
        return self

    def __exit__(self, *_exception: object) -> None:
        table = singleton.GetSingletons()
        table.fAnalysisMgr = table.fCacheMgr = None

    def scan(self, loc: CLocalFileLocation) -> FileRecord:
        """What a scan of the file finds."""
        scanner = CWholeFilePrimaryScanner(loc, kPrimaryScanName, set(), _say_nothing)
        try:
            scanner.Scan(_FOREVER)
        finally:
            scanner.destroy()
        record, self._record = self._record, None
        assert record is not None
        return record

    # --- what a scanner asks of an info cache

    def NoteSliceEnd(self, end_time: float) -> None:
        pass

    def RefreshFile(
        self, loc: CLocalFileLocation, scan_name: str, digest: bytes, times: FileTimes
    ) -> bool:
        return False

    def AddFile(self, loc: CLocalFileLocation, record: FileRecord) -> None:
        self._record = record


def _say_nothing(*_message: object) -> None:
    pass


def _exhaust(steps: Iterator[object]) -> None:
    for _ in steps:
        pass
