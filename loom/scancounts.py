"""Where a scan stands: files, each counted once, by what became of them."""

from __future__ import annotations

from collections.abc import Callable, Iterable
from dataclasses import dataclass, field
from typing import NamedTuple

from loombase.location import CLocation

__all__ = ["FileCounts", "FileError", "Outcome", "ScanCounts", "Tally"]


@dataclass(frozen=True, slots=True)
class FileError:
    """What was wrong with a file or folder. `lineno` is 0 if nothing of it was scanned."""

    path: str
    reason: str
    lineno: int = 0


class Outcome(NamedTuple):
    """What became of a file: exactly one of the first four is 1."""

    scanned: int = 0
    reread: int = 0
    failed: int = 0
    vanished: int = 0
    definitions: int = 0
    bytes: int = 0
    error: FileError | None = None


@dataclass(slots=True)
class FileCounts:
    """Some files, and what became of them.

    Of `found` files, `left` are still to be looked at; while a scan runs, that isn't told.
    `scanned` were parsed, `failed` couldn't be, `vanished` were gone when their turn came. What
    remains, `unchanged`, had valid results; `reread` of them had to be read to know it. `errors`
    are of files and of folders that couldn't be walked.
    """

    found: int = 0
    left: int = 0
    scanned: int = 0
    reread: int = 0
    failed: int = 0
    vanished: int = 0
    definitions: int = 0
    bytes: int = 0
    errors: list[FileError] = field(default_factory=list)

    @property
    def unchanged(self) -> int:
        return max(0, self.found - self.left - self.scanned - self.failed - self.vanished)

    def _add(self, outcome: Outcome, sign: int = 1) -> None:
        self.scanned += sign * outcome.scanned
        self.reread += sign * outcome.reread
        self.failed += sign * outcome.failed
        self.vanished += sign * outcome.vanished
        self.definitions += sign * outcome.definitions
        self.bytes += sign * outcome.bytes
        if outcome.error is not None:
            if sign > 0:
                self.errors.append(outcome.error)
            else:
                self.errors.remove(outcome.error)


@dataclass(slots=True)
class ScanCounts(FileCounts):
    """The files that were asked for, and apart from them those that came with them, `imported`.

    `queued` files of both kinds are still to be looked at. `all_found` tells that no more will be
    asked for; imported ones may come on as long as anything is queued. `to_derive` files of those
    that are done still wait for their derived stage.
    """

    imported: FileCounts = field(default_factory=FileCounts)
    queued: int = 0
    to_derive: int = 0
    all_found: bool = False

    @property
    def total(self) -> int:
        return self.found + self.imported.found

    @property
    def done(self) -> int:
        return max(0, self.total - self.queued)


class Tally:
    """Keeps `counts`. A file that is asked for when it was imported before changes sides."""

    def __init__(self) -> None:
        self.counts = ScanCounts()
        self._asked_counts: FileCounts = self.counts
        self._asked: dict[CLocation, Outcome | None] = {}
        self._imported: dict[CLocation, Outcome | None] = {}

    def ask(self, loc: CLocation) -> None:
        """A file is asked for."""
        if loc in self._asked:
            return
        if loc in self._imported:
            outcome = self._imported.pop(loc)
            self.counts.imported.found -= 1
            if outcome is not None:
                self.counts.imported._add(outcome, -1)
                self.counts._add(outcome)
        else:
            outcome = None
        self._asked[loc] = outcome
        self.counts.found += 1

    def follow(self, locs: Iterable[CLocation]) -> None:
        """Files come with others."""
        for loc in locs:
            if loc not in self._asked and loc not in self._imported:
                self._imported[loc] = None
                self.counts.imported.found += 1

    def settle(self, loc: CLocation, outcome: Outcome) -> None:
        """What became of a file. The last word counts, unless it only says "read again"."""
        if loc in self._asked:
            group, counts = self._asked, self._asked_counts
        else:
            self.follow((loc,))
            group, counts = self._imported, self.counts.imported
        before = group[loc]
        if before is not None and outcome.reread:
            return
        if before is not None:
            counts._add(before, -1)
        group[loc] = outcome
        counts._add(outcome)

    def imported(self) -> Iterable[CLocation]:
        """The files that came with others and weren't asked for."""
        return self._imported.keys()

    def settle_left(self, is_left: Callable[[CLocation], bool]) -> None:
        """Count the files that are left. Requires: `counts.queued` is up to date."""
        counts = self.counts
        some = counts.queued > 0
        counts.left = sum(map(is_left, self._asked)) if some else 0
        counts.imported.left = sum(map(is_left, self._imported)) if some else 0

    def split(self, is_left: Callable[[CLocation], bool]) -> tuple[Tally, ScanCounts]:
        """A tally of the files that are left, for the time to come, and the counts up to now.

        Requires: `counts.queued` is up to date.
        """
        self.settle_left(is_left)
        rest = Tally()
        rest.counts.all_found = self.counts.all_found
        rest.counts.queued = self.counts.queued
        if self.counts.left:
            for loc in filter(is_left, self._asked):
                rest.ask(loc)
        if self.counts.imported.left:
            rest.follow(filter(is_left, self._imported))
        return rest, self.counts
