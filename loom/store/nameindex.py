"""The index from names to the files that define them.

Names are spread over the whole index, so that the names of one file touch a page each. Written file
by file, the same pages would be written again and again. So names are staged in memory, and many
files are merged at once in order of name, in steps as short as the caller likes. Until then
`files.indexed` is 0 and a query reads the definitions of such files.
"""

import sqlite3
from collections import defaultdict
from collections.abc import Callable, Collection, Iterator
from dataclasses import dataclass, field
from typing import Final

from loom.store import definitions

__all__ = ["NameIndex"]

# Staged pairs of name and file from which on a merge is due: some 10 MB of memory.
kMergeAtPairs: Final = 100_000

# Pairs, and files to be marked, between two looks at the clock: a millisecond's worth at most.
_kPairsPerCheck: Final = 400
_kFilesPerCheck: Final = 40

# Parts of merged pairs that are let go with each file that is staged, more than it brings.
_kPartsPerFile: Final = 40

# A pair can be there already: from a merge that failed or that a crash cut short.
_kInsert: Final = "INSERT OR IGNORE INTO names VALUES(?, ?)"

_Pair = tuple[str, int]


@dataclass(slots=True)
class _Staged:
    """Pairs of a name and a file's id, and the ids of all their files.

    The pairs stand under the first characters of the name, so that a merge sorts a small part at a
    time. A negative id says that the name is to be taken out (`removals` is then true); the last
    pair of a name and a file holds. Pairs are tuples of text and number, which the garbage
    collector doesn't walk: it would take longer than a slice.
    """

    pairs: defaultdict[str, list[_Pair]] = field(default_factory=lambda: defaultdict(list))
    files: set[int] = field(default_factory=set)
    count: int = 0
    removals: bool = False

    def add(self, names: Collection[str], signed_id: int) -> None:
        pairs = self.pairs
        for name in names:
            pairs[name[:2]].append((name, signed_id))
        self.count += len(names)

    def in_order(self) -> Iterator[tuple[list[_Pair], list[_Pair]]]:
        """The pairs to be taken out and those to be added, sorted, a part at a time."""
        for start in sorted(self.pairs):
            pairs = self.pairs[start]
            if not self.removals:
                yield [], sorted(pairs)
                continue
            last = {(name, abs(signed_id)): signed_id for name, signed_id in pairs}
            yield (
                sorted(pair for pair, signed_id in last.items() if signed_id < 0),
                sorted(pair for pair, signed_id in last.items() if signed_id > 0),
            )


class NameIndex:
    """Belongs to one writer. `merge` needs an open transaction."""

    def __init__(self, connection: sqlite3.Connection) -> None:
        self._connection = connection
        self._staged = _Staged()
        self._changed: Collection[int] = ()
        # What is being merged, kept whole until it is done, so that a merge can begin again.
        self._merging: _Staged | None = None
        self._merge: Iterator[None] | None = None
        # Pairs that were merged. To let go of them all at once takes as long as a slice may.
        self._merged: list[list[_Pair]] = []

    def merge_due(self) -> bool:
        """Whether a merge is under way or enough is staged for one."""
        return self._merging is not None or self._staged.count >= kMergeAtPairs

    def empty(self) -> bool:
        """Whether there is nothing to merge."""
        return self._merging is None and not self._staged.files

    def stage(self, file_id: int, old: Collection[str], new: Collection[str]) -> None:
        """Note that the names of a file were `old` and are `new`."""
        if old:
            before = set(old)
            after = set(new)
            self._staged.removals = True
            self._staged.add(before - after, -file_id)
            self._staged.add(after - before, file_id)
        else:
            self._staged.add(new, file_id)
        self._staged.files.add(file_id)
        del self._merged[-_kPartsPerFile:]

    def merge(self, out_of_time: Callable[[], bool], changed: Collection[int]) -> bool:
        """Write some of what is staged; true when nothing is left of it.

        `changed` are the files that this transaction has written and that will be staged after it.
        """
        self._changed = changed
        while True:
            if self._merging is None:
                if not self._staged.files:
                    return True
                self._merging, self._staged = self._staged, _Staged()
            if self._merge is None:
                self._merge = self._merge_steps(self._merging)
            for _ in self._merge:
                if out_of_time():
                    return False
            self._merged += self._merging.pairs.values()
            self._merge = self._merging = None

    def transaction_failed(self) -> None:
        """What was merged in this transaction is undone: begin the merge again."""
        self._merge = None

    def _merge_steps(self, staged: _Staged) -> Iterator[None]:
        add: list[_Pair] = []
        for taken_out, added in staged.in_order():
            if taken_out:
                yield from self._in_parts(
                    "DELETE FROM names WHERE name = ? AND file_id = ?", taken_out
                )
            add += added
            if len(add) >= _kPairsPerCheck:
                yield from self._in_parts(_kInsert, add)
                add = []
        yield from self._in_parts(_kInsert, add)
        merged = sorted(staged.files)
        for start in range(0, len(merged), _kFilesPerCheck):
            # A file that was written anew in the meantime isn't done, nor is one that has the id
            # of a deleted file.
            done = [
                (file_id,)
                for file_id in merged[start : start + _kFilesPerCheck]
                if file_id not in self._staged.files and file_id not in self._changed
            ]
            self._connection.executemany("UPDATE files SET indexed = 1 WHERE id = ?", done)
            yield

    def _in_parts(self, statement: str, pairs: list[_Pair]) -> Iterator[None]:
        for start in range(0, len(pairs), _kPairsPerCheck):
            self._connection.executemany(statement, pairs[start : start + _kPairsPerCheck])
            yield

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
