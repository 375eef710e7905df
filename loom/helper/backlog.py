"""The files that wait for a helper, and how they are dealt."""

from __future__ import annotations

from collections.abc import Iterable
from dataclasses import dataclass
from typing import Final

from loombase.location import CLocation

__all__ = ["Backlog", "Task", "allowance"]

# Files that a helper may have at a time. It must not run dry between two looks of the first process
# at its reports, and what it has is scanned again if it dies.
_kMostFiles: Final = 64
_kLeastFiles: Final = 4

# Bytes of source that it may have at a time: some 20 milliseconds' worth.
kMostBytes: Final = 2 * 1024 * 1024


@dataclass(slots=True, eq=False)
class Task:
    """One file that is to be scanned, from its coming to its end.

    `number` is its name in messages. `again` tells that it was asked for anew after it was given
    to a helper. `crashes` are the helpers that it has ended, `fate` what became of the last one.
    """

    number: int
    loc: CLocation
    first: bool
    size: int = 0
    again: bool = False
    crashes: int = 0
    fate: str = ""


def allowance(waiting: int, workers: int) -> int:
    """How many files a worker may have when so many wait for so many workers.

    Fewer towards the end, so that all come to it together.
    """
    return min(_kMostFiles, max(_kLeastFiles, waiting // (3 * max(1, workers))))


class Backlog:
    """Waiting files: those that are first, then the others, each in order of arrival.

    Suspects, which have ended a helper, stand apart: they are dealt one by one.
    """

    def __init__(self) -> None:
        self._first: dict[Task, None] = {}
        self._rest: dict[Task, None] = {}
        self._suspects: dict[Task, None] = {}

    def __len__(self) -> int:
        return len(self._first) + len(self._rest) + len(self._suspects)

    @property
    def suspects(self) -> list[Task]:
        return list(self._suspects)

    @property
    def unsuspected(self) -> int:
        """How many can be dealt to anyone."""
        return len(self._first) + len(self._rest)

    def add(self, task: Task) -> None:
        """Queue a file behind its like."""
        if task.crashes:
            self._suspects[task] = None
        else:
            (self._first if task.first else self._rest)[task] = None

    def promote(self, task: Task) -> None:
        """A waiting file is to be first after all."""
        task.first = True
        if task in self._rest:
            del self._rest[task]
            self._first[task] = None

    def put_back(self, tasks: Iterable[Task]) -> None:
        """Queue files in front of their like, in this order: a helper had them and has gone."""
        came = list(tasks)
        for task in came:
            if task.crashes:
                self._suspects[task] = None
        for waiting, first in ((self._first, True), (self._rest, False)):
            front = [task for task in came if not task.crashes and task.first == first]
            if front:
                behind = list(waiting)
                waiting.clear()
                waiting.update(dict.fromkeys(front + behind))

    def take_suspect(self) -> Task | None:
        """The next suspect, or none."""
        task = next(iter(self._suspects), None)
        if task is not None:
            del self._suspects[task]
        return task

    def take(self, count: int) -> list[Task]:
        """The next files, at most `count`, all first ones or none of them."""
        which = self._first or self._rest
        tasks = [task for task, _ in zip(which, range(count), strict=False)]
        for task in tasks:
            del which[task]
        return tasks

    def clear(self) -> None:
        """Drop all but the suspects."""
        self._first.clear()
        self._rest.clear()

    def remove(self, task: Task) -> None:
        """Take a file out, if it waits."""
        for waiting in (self._first, self._rest, self._suspects):
            waiting.pop(task, None)
