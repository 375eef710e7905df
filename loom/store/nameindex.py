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
    """Pairs of a name and a file's id, and the ids of all their files with `files.written`.

    The pairs stand under the first characters of the name, so that a merge sorts a small part at a
    time. A negative id says that the name is to be taken out (`removals` is then true); the last
    pair of a name and a file holds. Pairs are tuples of text and number, which the garbage
    collector doesn't walk: it would take longer than a slice.
    """

    pairs: defaultdict[str, list[_Pair]] = field(default_factory=lambda: defaultdict(list))
    files: dict[int, int] = field(default_factory=dict)
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
    """Belongs to one writer. `merge` needs an open transaction.

    Another process may write a file between our own write and the merge, and index it, too. Then
    our names are no longer the file's: `files.written` tells, and the file isn't marked by us, nor
    is any of its names taken out.
    """

    def __init__(self, connection: sqlite3.Connection) -> None:
        self._connection = connection
        self._staged = _Staged()
        # Of files that were written again since they were staged, what `files.written` is now: by
        # the transaction that is open, and by earlier ones.
        self._writing: dict[int, int] = {}
        self._written: dict[int, int] = {}
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

    def note_write(self, file_id: int, written: int) -> None:
        """Note what the open transaction sets `files.written` to, before `stage` after it."""
        self._writing[file_id] = written

    def stage(
        self, file_id: int, written: int, old: Collection[str], new: Collection[str]
    ) -> None:
        """Note that the names of a file were `old` and are `new`.

        `written` is its `files.written`, 0 if it was deleted.
        """
        if old:
            before = set(old)
            after = set(new)
            self._staged.removals = True
            self._staged.add(before - after, -file_id)
            self._staged.add(after - before, file_id)
        else:
            self._staged.add(new, file_id)
        self._staged.files[file_id] = written
        self._written[file_id] = self._writing.pop(file_id, written)
        del self._merged[-_kPartsPerFile:]

    def merge(self, out_of_time: Callable[[], bool]) -> bool:
        """Write some of what is staged; true when nothing is left of it."""
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
        self._writing.clear()
        self._merge = None

    def _merge_steps(self, staged: _Staged) -> Iterator[None]:
        add: list[_Pair] = []
        for taken_out, added in staged.in_order():
            if taken_out:
                yield from self._take_out(staged, taken_out)
            add += added
            if len(add) >= _kPairsPerCheck:
                yield from self._in_parts(_kInsert, add)
                add = []
        yield from self._in_parts(_kInsert, add)
        merged = sorted(staged.files.items())
        for start in range(0, len(merged), _kFilesPerCheck):
            done = merged[start : start + _kFilesPerCheck]
            # A file that was written anew in the meantime isn't done, nor is one that has the id
            # of a deleted file.
            self._connection.executemany(
                "UPDATE files SET indexed = 1 WHERE id = ? AND written = ?", done
            )
            for file_id, written in done:
                if self._written.get(file_id) == written:
                    del self._written[file_id]
            yield

    def _take_out(self, staged: _Staged, pairs: list[_Pair]) -> Iterator[None]:
        for start in range(0, len(pairs), _kPairsPerCheck):
            part = pairs[start : start + _kPairsPerCheck]
            self._connection.executemany(
                "DELETE FROM names WHERE name = ? AND file_id = ?"
                " AND NOT EXISTS(SELECT 1 FROM files WHERE id = ? AND written != ?)",
                [
                    (name, file_id, file_id, self._last_write(staged, file_id))
                    for name, file_id in part
                ],
            )
            yield

    def _last_write(self, staged: _Staged, file_id: int) -> int:
        """What `files.written` is if nobody but us has written the file."""
        written = self._writing.get(file_id)
        if written is None:
            written = self._written.get(file_id, staged.files[file_id])
        return written

    def _in_parts(self, statement: str, pairs: list[_Pair]) -> Iterator[None]:
        for start in range(0, len(pairs), _kPairsPerCheck):
            self._connection.executemany(statement, pairs[start : start + _kPairsPerCheck])
            yield

    def stage_unindexed(self, limit: int) -> bool:
        """Stage files that an earlier process wrote and didn't index; true if it found any.

        At most `limit` files at a time: call again when the index is `empty`.
        """
        rows = self._connection.execute(
            "SELECT id, written, packed FROM files JOIN definitions ON file_id = id"
            " WHERE indexed = 0 AND scans != '' LIMIT ?",
            (limit,),
        ).fetchall()
        for file_id, written, packed in rows:
            self.stage(file_id, written, (), definitions.names_in(packed))
        return bool(rows)
