"""The index from names to the files that define them.

Names are spread over the whole index, so that the names of one file touch a page each. Written file
by file, the same pages would be written again and again. So names are staged in memory, and many
files are merged at once in order of name, in steps as short as the caller likes. Until then
`files.indexed` is 0 and a query reads the definitions of such files.
"""

import sqlite3
from collections.abc import Callable, Collection, Iterator
from typing import Final

from loom.store import definitions

__all__ = ["NameIndex"]

# Staged pairs of name and file from which on a merge is due: some 10 MB of memory.
kMergeAtPairs: Final = 100_000

# Pairs between two looks at the clock, well under a millisecond's worth.
_kPairsPerCheck: Final = 400

# Names by their first character, so that a merge sorts a part at a time. A file id says that the
# name is to be added, its negative that it is to be taken out; the last one for a file holds.
_Staged = dict[str, dict[str, list[int]]]


class NameIndex:
    """Belongs to one writer. `merge` needs an open transaction."""

    def __init__(self, connection: sqlite3.Connection) -> None:
        self._connection = connection
        self._staged: _Staged = {}
        self._staged_files: set[int] = set()
        self._staged_pairs = 0
        self._changed: Collection[int] = ()
        # What is being merged, kept whole until it is done, so that a merge can begin again.
        self._merging: tuple[_Staged, set[int]] | None = None
        self._merge: Iterator[None] | None = None

    def merge_due(self) -> bool:
        """Whether a merge is under way or enough is staged for one."""
        return self._merging is not None or self._staged_pairs >= kMergeAtPairs

    def empty(self) -> bool:
        """Whether there is nothing to merge."""
        return self._merging is None and not self._staged_files

    def stage(self, file_id: int, old: Collection[str], new: Collection[str]) -> None:
        """Note that the names of a file were `old` and are `new`."""
        if old:
            before = set(old)
            after = set(new)
            self._stage(sorted(before - after), -file_id)
            self._stage(sorted(after - before), file_id)
        else:
            self._stage(new, file_id)
        self._staged_files.add(file_id)

    def _stage(self, names: Collection[str], signed_id: int) -> None:
        buckets = self._staged
        for name in names:
            bucket = buckets.get(name[:1])
            if bucket is None:
                bucket = buckets[name[:1]] = {}
            ids = bucket.get(name)
            if ids is None:
                bucket[name] = [signed_id]
            else:
                ids.append(signed_id)
        self._staged_pairs += len(names)

    def merge(self, out_of_time: Callable[[], bool], changed: Collection[int]) -> bool:
        """Write some of what is staged; true when nothing is left of it.

        `changed` are the files that this transaction has written and that will be staged after it.
        """
        self._changed = changed
        while True:
            if self._merging is None:
                if not self._staged_files:
                    return True
                self._merging = self._staged, self._staged_files
                self._staged, self._staged_files, self._staged_pairs = {}, set(), 0
            if self._merge is None:
                self._merge = self._merge_steps(*self._merging)
            for _ in self._merge:
                if out_of_time():
                    return False
            self._merge = self._merging = None

    def transaction_failed(self) -> None:
        """What was merged in this transaction is undone: begin the merge again."""
        self._merge = None

    def _merge_steps(self, staged: _Staged, file_ids: set[int]) -> Iterator[None]:
        add: list[tuple[str, int]] = []
        for first in sorted(staged):
            bucket = staged[first]
            for name in sorted(bucket):
                ids = bucket[name]
                if min(ids) > 0:
                    add.extend([(name, file_id) for file_id in ids])
                else:
                    last = {abs(signed_id): signed_id for signed_id in ids}
                    add.extend([(name, file_id) for file_id in last.values() if file_id > 0])
                    self._connection.executemany(
                        "DELETE FROM names WHERE name = ? AND file_id = ?",
                        [(name, -file_id) for file_id in last.values() if file_id < 0],
                    )
                if len(add) >= _kPairsPerCheck:
                    self._insert(add)
                    add = []
                    yield
        self._insert(add)
        merged = sorted(file_ids)
        for start in range(0, len(merged), _kPairsPerCheck):
            # A file that was written anew in the meantime isn't done, nor is one that has the id
            # of a deleted file.
            done = [
                (file_id,)
                for file_id in merged[start : start + _kPairsPerCheck]
                if file_id not in self._staged_files and file_id not in self._changed
            ]
            self._connection.executemany("UPDATE files SET indexed = 1 WHERE id = ?", done)
            yield

    def _insert(self, pairs: list[tuple[str, int]]) -> None:
        # A pair can be there already: from a merge that failed or that a crash cut short.
        self._connection.executemany("INSERT OR IGNORE INTO names VALUES(?, ?)", pairs)

    def stage_unindexed(self, limit: int) -> bool:
        """Stage files that an earlier process wrote and didn't index; true if it found any.

        At most `limit` files at a time: call again when the index is `empty`.
        """
        rows = self._connection.execute(
            "SELECT id, packed FROM files JOIN definitions ON file_id = id"
            " WHERE indexed = 0 AND scans != '' LIMIT ?",
            (limit,),
        ).fetchall()
        for file_id, packed in rows:
            self.stage(file_id, (), definitions.names_in(packed))
        return bool(rows)
