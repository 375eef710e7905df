"""Writing scan results in transactions that are as short as the caller likes.

Results wait in memory until `write` is called. A file with very many scopes can take more than one
transaction: until its last one `files.scans` is empty, so that nobody takes it for scanned.
"""

import sqlite3
from collections.abc import Callable, Iterator, Sequence
from dataclasses import replace
from random import getrandbits
from typing import Final, NamedTuple

from loom.store import definitions
from loom.store.database import transaction
from loom.store.derived import DerivedStore
from loom.store.nameindex import NameIndex
from loom.store.records import AddedScope, FileRecord, FileTimes, ScopeRow
from loom.store.schema import kScopesPerFile

__all__ = ["Writer"]

# Scopes written between two looks at the clock, about a millisecond's worth.
_kScopesPerCheck: Final = 500

# Files staged at a time that an earlier process didn't get to index.
_kRecoverFiles: Final = 200

# Memory of a time that waits, in bytes.
_kTimesMemory: Final = 300


class _Renamed(NamedTuple):
    """What the index has to be told of a file after a transaction."""

    file_id: int
    written: int
    old: Sequence[str] | set[str]
    new: Sequence[str] | set[str]


class _HalfWritten(NamedTuple):
    """A file that a transaction left half written: the record, its row, the rest of the work."""

    record: FileRecord
    file_id: int
    written: int
    steps: Iterator[None]


class Writer:
    """The results that wait, and the way into the database. One for a connection."""

    def __init__(self, connection: sqlite3.Connection) -> None:
        self._connection = connection
        self._index = NameIndex(connection)
        self.derived = DerivedStore(connection)
        # With the memory that each takes; a record of none says that the file is to be deleted.
        self._files: dict[str, tuple[FileRecord | None, int]] = {}
        self._added: dict[tuple[str, str], AddedScope] = {}
        # New times of files whose results stay, with the digest that they were found for.
        self._times: dict[str, tuple[bytes, FileTimes]] = {}
        self._memory = 0
        self._half_written: _HalfWritten | None = None
        # Row of the file that is being written, and its number.
        self._row = (0, 0)
        self._renamed: list[_Renamed] = []
        self._recovered = False

    def reconnect(self, connection: sqlite3.Connection) -> None:
        """Go on with another database. What waits is written there."""
        self._connection = connection
        self._index = NameIndex(connection)
        self.derived.reconnect(connection)
        self._half_written = None
        self._recovered = False

    # --- what waits

    @property
    def pending_bytes(self) -> int:
        """Roughly the memory that waiting results take."""
        return self._memory + self.derived.pending_bytes

    @property
    def merge_due(self) -> bool:
        """Whether the index of names asks for time."""
        return self._index.merge_due()

    @property
    def idle(self) -> bool:
        """Whether there is nothing left to write or to index."""
        return self._recovered and self.rows_written and self._index.empty()

    @property
    def rows_written(self) -> bool:
        """Whether no result waits; the index may still lag behind."""
        return not (self._files or self._added or self._times) and self.derived.empty

    def pending_file(self, url: str) -> FileRecord | None:
        """The result of a file that waits, or none."""
        return self._files[url][0] if url in self._files else None

    def pending_deletion(self, url: str) -> bool:
        """Whether the file waits to be deleted."""
        return url in self._files and self._files[url][0] is None

    def pending_urls_below(self, folder_url: str) -> list[str]:
        """The files below a folder whose results wait."""
        start = folder_url.rstrip("/") + "/"
        return [url for url, (record, _) in self._files.items() if record and url.startswith(start)]

    def pending_scope(self, url: str, name: str) -> AddedScope | None:
        """The added scope that waits, or none."""
        return self._added.get((url, name))

    def pending_times(self, url: str) -> FileTimes | None:
        """The new time of a file that waits, or none."""
        return self._times[url][1] if url in self._times else None

    def put_file(self, record: FileRecord) -> None:
        """Take the result of a whole-file scan, in place of all that is known of the file."""
        self._drop(record.url)
        memory = record.memory()
        self._files[record.url] = record, memory
        self._memory += memory

    def delete_file(self, url: str) -> None:
        """Forget a file."""
        self._drop(url)
        self._files[url] = None, 0

    def put_times(self, url: str, digest: bytes, times: FileTimes) -> None:
        """Take a new time for a file that was scanned again to the same result.

        Scopes that were added go, as with any scan. Does nothing if by then another process has
        written the file with another digest.
        """
        record = self.pending_file(url)
        if record is not None:
            self.put_file(replace(record, **times._asdict()))
            return
        self._drop(url)
        self._times[url] = digest, times
        self._memory += _kTimesMemory

    def put_scope(self, added: AddedScope) -> None:
        """Take a scope by itself. One for a file that is unknown makes the file known."""
        key = (added.url, added.name)
        old = self._added.pop(key, None)
        if old is not None:
            self._memory -= old.memory()
        self._added[key] = added
        self._memory += added.memory()

    def _drop(self, url: str) -> None:
        old = self._files.pop(url, None)
        if old is not None:
            self._memory -= old[1]
        if self._times.pop(url, None) is not None:
            self._memory -= _kTimesMemory
        if self._added:
            for key in [key for key in self._added if key[0] == url]:
                self._memory -= self._added.pop(key).memory()

    # --- writing

    def write(self, out_of_time: Callable[[], bool], wait_seconds: float, index_all: bool) -> bool:
        """Write what waits, in one transaction that ends soon after `out_of_time()` is true.

        Merges into the index of names if enough is staged, or, with `index_all`, whatever is
        staged. Something is written at each call, however little time there is. Returns true
        when all this is done.

        Raises `sqlite3.Error`; then nothing of this call is in the database, and everything is
        still waiting.
        """
        written: list[str] = []
        times: list[str] = []
        scopes: list[tuple[str, str]] = []
        done = False
        if self.rows_written and self._index.empty():
            return not index_all or self._recover()
        try:
            with transaction(self._connection, wait_seconds):
                if (
                    self.derived.write_stale(out_of_time)
                    and self._write_files(written, out_of_time)
                    and self._write_times(times, out_of_time)
                    and self._write_scopes(scopes, out_of_time)
                    and self.derived.write(out_of_time)
                ):
                    if index_all or self._index.merge_due():
                        done = self._index.merge(out_of_time)
                    else:
                        done = True
        except BaseException:
            self._half_written = None
            self._renamed.clear()
            self._index.transaction_failed()
            self.derived.transaction_failed()
            raise
        self.derived.committed()
        for url in written:
            self._memory -= self._files.pop(url)[1]
        for url in times:
            del self._times[url]
            self._memory -= _kTimesMemory
        for key in scopes:
            self._memory -= self._added.pop(key).memory()
        for renamed in self._renamed:
            self._index.stage(*renamed)
        self._renamed.clear()
        if done and index_all:
            # Staging begins with the commit, so the files of this very call are still to merge.
            done = self._index.empty() and self._recover()
        return done

    def _recover(self) -> bool:
        """True once nothing is left that another process wrote and didn't index."""
        if not self._recovered:
            self._recovered = not self._index.stage_unindexed(_kRecoverFiles)
        return self._recovered

    def _write_files(self, written: list[str], out_of_time: Callable[[], bool]) -> bool:
        for url, (record, _) in self._files.items():
            if record is None:
                self._delete_file(url)
            else:
                half, self._half_written = self._half_written, None
                if half is not None and half.record is record and self._is_last_write(half):
                    self._row, steps = half[1:3], half.steps
                else:
                    steps = self._file_steps(record)
                for _ in steps:
                    if out_of_time():
                        self._half_written = _HalfWritten(record, *self._row, steps)
                        return False
            written.append(url)
            if out_of_time():
                return False
        return True

    def _is_last_write(self, half: _HalfWritten) -> bool:
        """Whether no other process has written the file, or another one in its row, meanwhile."""
        row = self._connection.execute(
            "SELECT written FROM files WHERE id = ?", (half.file_id,)
        ).fetchone()
        return row is not None and row[0] == half.written

    def _write_times(self, written: list[str], out_of_time: Callable[[], bool]) -> bool:
        execute = self._connection.execute
        for url, (digest, times) in self._times.items():
            changed = execute(
                "UPDATE files SET mtime_ns = ?, size = ?, settled = ?"
                " WHERE url = ? AND digest = ? AND scans != '' RETURNING id",
                (*times, url, digest),
            ).fetchone()
            if changed is not None:
                execute("DELETE FROM added_scopes WHERE file_id = ?", changed)
            written.append(url)
            if out_of_time():
                return False
        return True

    def _write_scopes(
        self, written: list[tuple[str, str]], out_of_time: Callable[[], bool]
    ) -> bool:
        execute = self._connection.execute
        for key, added in self._added.items():
            row = execute("SELECT id FROM files WHERE url = ?", (added.url,)).fetchone()
            if row is None:
                file_id = self._insert_file(FileRecord(added.url, 0, 0, ""), "", getrandbits(62))
            else:
                (file_id,) = row
            stored = added.stored
            execute(
                "INSERT OR REPLACE INTO added_scopes VALUES(?, ?, ?, ?, ?, ?, ?)",
                (
                    file_id,
                    added.name,
                    stored.scan_name,
                    stored.disk_mtime,
                    stored.incomplete,
                    stored.does_not_exist,
                    stored.info,
                ),
            )
            written.append(key)
            if out_of_time():
                return False
        return True

    def _file_steps(self, record: FileRecord) -> Iterator[None]:
        """Write a file; yields where the transaction may end."""
        execute = self._connection.execute
        whole = len(record.scopes) <= _kScopesPerCheck
        scans = record.scans if whole else ""
        written = getrandbits(62)
        row = execute("SELECT id, indexed FROM files WHERE url = ?", (record.url,)).fetchone()
        if row is None:
            file_id = self._insert_file(record, scans, written)
            if record.names:
                self._renamed.append(_Renamed(file_id, written, (), record.names))
        else:
            file_id, indexed = row
            self._forget_scopes(file_id, bool(indexed), written, record.names)
            execute(
                "UPDATE files SET mtime_ns = ?, size = ?, digest = ?, scans = ?, error = ?,"
                " error_lineno = ?, line_count = ?, definition_count = ?, imports = ?, indexed = ?,"
                " followed = 0, settled = ?, scanner = ?, scanned_ns = ?, written = ? WHERE id = ?",
                (
                    record.mtime_ns,
                    record.size,
                    record.digest,
                    scans,
                    record.error,
                    record.error_lineno,
                    record.line_count,
                    record.definition_count,
                    record.imports,
                    0,
                    record.settled,
                    record.scanner,
                    record.scanned_ns,
                    written,
                    file_id,
                ),
            )
        self._row = file_id, written
        self._index.note_write(file_id, written)
        if record.definitions:
            execute("INSERT INTO definitions VALUES(?, ?)", (file_id, record.definitions))
        if whole:
            self._insert_scopes(file_id, 0, record.scopes)
            self.derived.write_exports(file_id, record.exports)
            return
        for start in range(0, len(record.scopes), _kScopesPerCheck):
            self._insert_scopes(file_id, start, record.scopes[start : start + _kScopesPerCheck])
            yield
        execute("UPDATE files SET scans = ? WHERE id = ?", (record.scans, file_id))
        self.derived.write_exports(file_id, record.exports)

    def _delete_file(self, url: str) -> None:
        row = self._connection.execute(
            "SELECT id, indexed FROM files WHERE url = ?", (url,)
        ).fetchone()
        if row is not None:
            file_id, indexed = row
            self._forget_scopes(file_id, bool(indexed), 0, ())
            self.derived.delete_file(file_id)
            self._connection.execute("DELETE FROM files WHERE id = ?", (file_id,))

    def _insert_file(self, record: FileRecord, scans: str, written: int) -> int:
        cursor = self._connection.execute(
            "INSERT INTO files(url, mtime_ns, size, digest, scans, error, error_lineno, line_count,"
            " definition_count, imports, indexed, settled, scanner, scanned_ns, written)"
            " VALUES(?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)",
            (
                record.url,
                record.mtime_ns,
                record.size,
                record.digest,
                scans,
                record.error,
                record.error_lineno,
                record.line_count,
                record.definition_count,
                record.imports,
                0 if record.names else 1,
                record.settled,
                record.scanner,
                record.scanned_ns,
                written,
            ),
        )
        assert cursor.lastrowid is not None
        return cursor.lastrowid

    def _forget_scopes(
        self, file_id: int, indexed: bool, written: int, names: Sequence[str]
    ) -> None:
        """Delete what hangs on a file, and note how its names change."""
        execute = self._connection.execute
        row = execute("SELECT packed FROM definitions WHERE file_id = ?", (file_id,)).fetchone()
        old = definitions.names_in(row[0]) if row is not None else set()
        if not indexed:
            # Whether the old names stand in the index isn't known: let it have them first.
            self._renamed.append(_Renamed(file_id, written, (), old))
        self._renamed.append(_Renamed(file_id, written, old, names))
        execute("DELETE FROM definitions WHERE file_id = ?", (file_id,))
        execute(
            "DELETE FROM scopes WHERE id BETWEEN ? AND ?",
            (file_id * kScopesPerFile, (file_id + 1) * kScopesPerFile - 1),
        )
        execute("DELETE FROM added_scopes WHERE file_id = ?", (file_id,))

    def _insert_scopes(self, file_id: int, start: int, scopes: Sequence[ScopeRow]) -> None:
        first = file_id * kScopesPerFile + start
        self._connection.executemany(
            "INSERT INTO scopes VALUES(?, ?, ?, ?, ?, ?, ?)",
            [(first + index, *row) for index, row in enumerate(scopes)],
        )
