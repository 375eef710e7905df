"""Derived results: what a file's imports, bases and values turned out to mean in other files.

A derived result holds for a digest of the file, and as long as no file that it was drawn from
changes what others see of it. Which files these are is kept as keys: numbers made of a file's URL,
or of the last part of a module's name, since a module that comes or goes under that name may be
meant as well. Two that have the same key by chance cost a needless scan.
"""

import sqlite3
from collections.abc import Callable, Collection, Iterable, Iterator, Sequence
from hashlib import blake2b
from typing import Final, NamedTuple

from loom.store.records import FileState

__all__ = [
    "DerivedRecord",
    "DerivedStore",
    "drop_outdated",
    "kDerivedVersion",
    "key_of_file",
    "key_of_module",
    "stored_record",
    "unpack_names",
]

# To be raised with every change of what the derived scanner stores.
kDerivedVersion: Final = 1

_kDerived: Final = "derived"


def _key(text: str) -> int:
    return int.from_bytes(blake2b(text.encode(), digest_size=8).digest(), "big", signed=True)


def key_of_file(url: str) -> int:
    """The key under which results depend on a file."""
    return _key(url)


def key_of_module(name: str) -> int:
    """The key under which results depend on there being no other module of a name.

    `name` is the last part of a dotted name.
    """
    return _key(f"?{name}")


def module_stem(url: str) -> str:
    """The last part of the name that a file has as a module."""
    folder, _, name = url.rpartition("/")
    stem = name.partition(".")[0]
    return folder.rpartition("/")[2] if stem == "__init__" else stem


class DerivedRecord(NamedTuple):
    """The derived result of a file. `digest` is that of its bytes.

    `packed` are the facts (see `loom.derive.facts`), `names` all names that the file uses, `keys`
    those of what it was drawn from.
    """

    url: str
    digest: bytes
    packed: bytes
    names: Collection[str]
    keys: frozenset[int]

    def memory(self) -> int:
        """Roughly the bytes that the record holds on to."""
        return 500 + len(self.packed) + 60 * (len(self.names) + len(self.keys))


def _pack_names(names: Iterable[str]) -> bytes:
    # Each name between two line ends, so that a search for one finds nothing else.
    return f"\n{chr(10).join(sorted(names))}\n".encode()


def unpack_names(packed: bytes) -> set[str]:
    """The names that a file uses."""
    return set(packed.decode().split("\n")) - {""}


class DerivedStore:
    """The derived results, those that wait and those in the database. Belongs to one writer."""

    def __init__(self, connection: sqlite3.Connection) -> None:
        # Counts changes of what files export, and results that turned stale.
        self.generation = 0
        self._pending: dict[str, DerivedRecord] = {}
        self._exports: dict[str, bytes] = {}
        self._stale: set[str] = set()
        self._gone: set[str] = set()
        self._memory = 0
        self._written: list[DerivedRecord] = []
        self._written_exports: list[tuple[str, bytes]] = []
        self._written_stale: list[str] = []
        self.reconnect(connection)

    def reconnect(self, connection: sqlite3.Connection) -> None:
        """Go on with another database."""
        self._connection = connection
        self._may_hold: bool | None = None  # results that can turn stale; not looked for yet

    # --- what waits

    @property
    def pending_bytes(self) -> int:
        """Roughly the memory that waiting results take."""
        return self._memory

    @property
    def empty(self) -> bool:
        """Whether nothing waits to be written."""
        return not (self._pending or self._exports or self._stale)

    def put(self, record: DerivedRecord) -> None:
        """Take the derived result of a file."""
        self._drop(record.url)
        self._pending[record.url] = record
        self._memory += record.memory()
        self._stale.discard(record.url)
        self._may_hold = True

    def _drop(self, url: str) -> None:
        old = self._pending.pop(url, None)
        if old is not None:
            self._memory -= old.memory()

    def scans_of(self, url: str, state: FileState) -> str:
        """The names of the scans that are valid for a state of a file, between blanks."""
        scans = state.scans
        if not scans:
            return scans
        record = self._pending.get(url)
        if record is not None and record.digest == state.digest:
            return scans if f" {_kDerived} " in scans else f"{scans}{_kDerived} "
        if url in self._stale:
            return scans.replace(f" {_kDerived} ", " ")
        return scans

    # --- staleness

    def note_exports(self, url: str, exports: bytes | None) -> list[str]:
        """Note what others see of a file now, none if it is gone.

        Returns the URLs of the files whose derived results are stale for it.
        """
        if url in self._exports:
            old: bytes | None = self._exports[url]
        else:
            old = None if url in self._gone else self._stored_exports(url)
        self._drop(url)
        if old == exports:
            return []
        if exports is not None:
            self._exports[url] = exports
            self._gone.discard(url)
        else:
            self._exports.pop(url, None)
            self._gone.add(url)
        self.generation += 1
        if not self._may_hold_any():
            return []
        keys = [key_of_file(url)]
        if old is None or exports is None:
            keys.append(key_of_module(module_stem(url)))
        return self.make_stale([found for found in self._dependants(keys) if found != url])

    def make_stale(self, urls: Sequence[str]) -> list[str]:
        """Let go of derived results; returns the URLs."""
        for url in urls:
            self._drop(url)
            self._stale.add(url)
        return list(urls)

    def _may_hold_any(self) -> bool:
        if self._may_hold is None:
            row = self._connection.execute("SELECT 1 FROM depends LIMIT 1").fetchone()
            self._may_hold = row is not None
        return self._may_hold

    def _stored_exports(self, url: str) -> bytes | None:
        row = self._connection.execute(
            "SELECT exports.digest FROM exports JOIN files ON file_id = id WHERE url = ?", (url,)
        ).fetchone()
        return None if row is None else bytes(row[0])

    def _dependants(self, keys: Sequence[int]) -> list[str]:
        wanted = set(keys)
        found = {url: None for url, record in self._pending.items() if wanted & record.keys}
        marks = ", ".join("?" * len(keys))
        rows = self._connection.execute(
            "SELECT DISTINCT url FROM depends JOIN files ON file_id = id"
            f" WHERE key IN ({marks}) AND scans LIKE '% {_kDerived} %' ORDER BY url",
            keys,
        )
        # A file that was itself scanned anew since isn't derived any more anyway.
        done = self._stale | self._exports.keys()
        found.update(dict.fromkeys(url for (url,) in rows if url not in done))
        return list(found)

    # --- writing, within a transaction of the writer

    def write(self, out_of_time: Callable[[], bool]) -> bool:
        """Write what waits; true when all is written. To be called when the files are written."""
        for _ in self._steps():
            if out_of_time():
                return False
        return True

    def write_stale(self, out_of_time: Callable[[], bool]) -> bool:
        """Write which results are stale; true when all of that is written.

        To be called before the files are written that made them so: after a kill in between, they
        would pass for fresh. The other way round a result is derived anew in vain.
        """
        for url in self._stale:
            self._connection.execute(
                f"UPDATE files SET scans = replace(scans, ' {_kDerived} ', ' ') WHERE url = ?",
                (url,),
            )
            self._written_stale.append(url)
            if out_of_time():
                return False
        return True

    def write_exports(self, file_id: int, exports: bytes) -> None:
        """Write what others see of a file. Belongs to the transaction that completes the file."""
        self._connection.execute(
            "INSERT OR REPLACE INTO exports VALUES(?, ?)", (file_id, exports)
        )

    def _steps(self) -> Iterator[None]:
        execute = self._connection.execute
        for url, exports in self._exports.items():
            execute(
                "INSERT OR REPLACE INTO exports SELECT id, ? FROM files WHERE url = ?",
                (exports, url),
            )
            self._written_exports.append((url, exports))
            yield
        if self._pending:
            execute("INSERT OR REPLACE INTO derived_version VALUES(0, ?)", (kDerivedVersion,))
        for record in self._pending.values():
            self._write_record(record)
            self._written.append(record)
            yield

    def _write_record(self, record: DerivedRecord) -> None:
        execute = self._connection.execute
        row = execute(
            "SELECT id, scans FROM files WHERE url = ? AND digest = ? AND scans != ''",
            (record.url, record.digest),
        ).fetchone()
        if row is None:
            return  # another process has scanned another state of the file
        file_id, scans = row
        self.delete_file(file_id, exports=False)
        execute("INSERT INTO derived VALUES(?, ?, ?)", (file_id, record.digest, record.packed))
        execute("INSERT INTO used_names VALUES(?, ?)", (file_id, _pack_names(record.names)))
        keys = sorted(record.keys)
        execute(
            "INSERT INTO depends_of VALUES(?, ?)",
            (file_id, b"".join(key.to_bytes(8, "big", signed=True) for key in keys)),
        )
        self._connection.executemany(
            "INSERT OR IGNORE INTO depends VALUES(?, ?)", [(key, file_id) for key in keys]
        )
        if f" {_kDerived} " not in scans:
            execute("UPDATE files SET scans = ? WHERE id = ?", (f"{scans}{_kDerived} ", file_id))

    def delete_file(self, file_id: int, exports: bool = True) -> None:
        """Delete the rows of a file; what others saw of it is kept without `exports`."""
        execute = self._connection.execute
        row = execute("SELECT keys FROM depends_of WHERE file_id = ?", (file_id,)).fetchone()
        if row is not None:
            keys: bytes = row[0]
            self._connection.executemany(
                "DELETE FROM depends WHERE key = ? AND file_id = ?",
                [
                    (int.from_bytes(keys[i : i + 8], "big", signed=True), file_id)
                    for i in range(0, len(keys), 8)
                ],
            )
            for table in ("derived", "used_names", "depends_of"):
                execute(f"DELETE FROM {table} WHERE file_id = ?", (file_id,))
        if exports:
            execute("DELETE FROM exports WHERE file_id = ?", (file_id,))

    def committed(self) -> None:
        """The transaction is through: what it wrote doesn't wait any more."""
        for record in self._written:
            if self._pending.get(record.url) is record:
                self._drop(record.url)
        for url, exports in self._written_exports:
            if self._exports.get(url) == exports:
                del self._exports[url]
        self._stale.difference_update(self._written_stale)
        self._gone.clear()
        self.transaction_failed()

    def transaction_failed(self) -> None:
        """Nothing of the transaction is in the database; everything still waits."""
        self._written.clear()
        self._written_exports.clear()
        self._written_stale.clear()


def drop_outdated(connection: sqlite3.Connection) -> None:
    """Let go of the results of another version of the derived scanner."""
    row = connection.execute("SELECT version FROM derived_version").fetchone()
    if row is not None and row[0] != kDerivedVersion:
        with connection:
            connection.execute("BEGIN IMMEDIATE")
            connection.execute(f"UPDATE files SET scans = replace(scans, ' {_kDerived} ', ' ')")
            for table in ("derived", "used_names", "depends", "depends_of", "derived_version"):
                connection.execute(f"DELETE FROM {table}")


def stored_record(connection: sqlite3.Connection, file_id: int) -> tuple[bytes, bytes] | None:
    """(digest, packed facts) of the derived result of a file, stale or not; none if it has none."""
    row = connection.execute(
        "SELECT digest, facts FROM derived WHERE file_id = ?", (file_id,)
    ).fetchone()
    return None if row is None else (bytes(row[0]), bytes(row[1]))
