"""The proxy that the scheduler calls: whole-file scans are dealt to helpers, results stored.

The pool holds the list of what is to be done and gives each helper a small part of it at a time.
What a helper finds is stored by the first process in its own transactions; then the file's imports
are followed and its secondary scan is queued, just as the scheduler does after a scan of its own.
"""

from __future__ import annotations

import logging
import os
from collections.abc import Callable, Iterable
from dataclasses import replace
from typing import Final

from guiutils import lgtk
from loombase.destroyable import CDestroyable
from loombase.location import CLocalFileLocation, CLocation, CSshFileLocation
from loombase.mime import kPythonMimeType
from pysource import _fastaccess
from pysource.scancoordinator import kBackgroundPriority
from singleton import GetSingletons

from loom.helper import messages, setaside
from loom.helper.backlog import Backlog, Task, allowance, kMostBytes
from loom.helper.callback import CHelperCallbackObj
from loom.helper.followup import Engine, FollowUp
from loom.helper.link import Link
from loom.mainloop.base import LOW_IDLE_PRIORITY

__all__ = ["CHelperPool"]

_log = logging.getLogger("loom.helper")

_kWholeFile: Final = "*"

# Seconds that one idle call stores results, and seconds in which its writing has to be over.
_kStoreSeconds: Final = 0.005
_kWriteSeconds: Final = 0.012

# Bytes of results that wait to be written, above which no more are stored.
_kMostUnwritten: Final = 24 * 1024 * 1024
_kRetryMilliseconds: Final = 100

# Before the search for files, which feeds the helpers, and before the scheduler's own slices.
_kStorePriority: Final = LOW_IDLE_PRIORITY - 20
_kDealPriority: Final = LOW_IDLE_PRIORITY - 10


class CHelperPool(CDestroyable):
    """Deals whole-file scans to its links, and takes their results in.

    `fCallbackObj` is told what joins and leaves the helpers. Signals: "work-came" (pool).
    """

    def __init__(self, engine: Engine) -> None:
        super().__init__(("work-came",))
        self._engine = engine
        self._cache = engine.fInfoCache
        self._coordinator = engine.fScanCoordinator
        self.fCallbackObj: CHelperCallbackObj | None = None
        self.links: list[Link] = []
        self.workers = 1  # among whom the work is shared, the first process included
        self.backlog = Backlog()
        self._tasks: dict[CLocation, Task] = {}
        self.local_task: Task | None = None  # what the first process scans itself
        self._last_number = 0
        self.follow_up = FollowUp(engine, self._note_if_empty)
        self._settled: set[Callable[[], bool]] = set()  # idle calls that will come
        self._waits_for_database = False
        self._was_filled = False

    def _destroy_impl(self) -> None:
        self.follow_up.destroy()

    # --- what the scheduler calls

    def AddPairsToPrimaryQueue(
        self,
        pairs: Iterable[tuple[CLocation, str]],
        first: bool,
        callback: Callable[..., object] | None = None,
    ) -> None:
        """Take whole-file scans of local files over. No answer is given, `callback` isn't called.

        A file that is on the list already stays where it is, or moves to the first ones. One that
        a helper has is looked at again when it is done.
        """
        unchanged: list[CLocation] = []
        for loc, _scope_name in pairs:
            task = self._tasks.get(loc)
            if task is None:
                if not first and self.follow_up.is_as_done(loc):
                    unchanged.append(loc)
                    continue
                self._last_number += 1
                task = self._tasks[loc] = Task(self._last_number, loc, first)
                self.backlog.add(task)
            elif self._is_out(task):
                task.again = True
            elif first and not task.first:
                self.backlog.promote(task)
        if unchanged:
            self._report_removed(unchanged)
        if not self._was_filled:
            # What the scheduler does at the start of a slice, such as queueing the basic modules,
            # isn't done if all its work comes here.
            self._was_filled = True
            self._coordinator._ScheduleIdle()
        if self._tasks:
            self._soon(self._deal, _kDealPriority)
            self.emit("work-came", self)

    def FlushQueue(self, callback: Callable[..., object] | None = None) -> None:
        """Forget all work. What the helpers are scanning is scanned for nothing."""
        self.backlog = Backlog()
        self.local_task = None
        self._tasks.clear()
        self.follow_up.clear()
        self._was_filled = False
        for link in self.links:
            if link.is_ready and not link.is_lost:
                link.flush()
        self._note_if_empty()

    # --- questions

    @property
    def locs(self) -> list[CLocation]:
        """The files that aren't done."""
        return list(self._tasks)

    def __len__(self) -> int:
        """Files that aren't done."""
        return len(self._tasks)

    def __bool__(self) -> bool:
        return True  # a proxy with nothing to do is one, too

    def _is_out(self, task: Task) -> bool:
        return task is self.local_task or any(task.number in link.tasks for link in self.links)

    # --- helpers come and go

    def add_link(self, link: Link) -> None:
        """A helper was started. It gets work when it has greeted."""
        self.links.append(link)

    def link_ready(self, link: Link) -> None:
        self._soon(self._deal, _kDealPriority)

    def link_reported(self, link: Link) -> None:
        if not self._waits_for_database:
            self._soon(self._store_some, _kStorePriority)

    def remove_link(self, link: Link, fate: str) -> None:
        """A helper has gone. What it had waits again; the file that ended it is a suspect."""
        self.links.remove(link)
        suspect = link.suspect
        if suspect is not None:
            suspect.crashes += 1
            suspect.fate = fate
            _log.warning("%s has gone while it scanned %r: %s", link.handle.name, suspect.loc, fate)
        elif not link.refusal:
            _log.warning("%s has gone: %s", link.handle.name, fate)
        self.backlog.put_back(link.tasks.values())
        link.tasks = {}
        if suspect is not None and suspect.crashes >= setaside.kMostCrashes:
            self._set_aside(suspect)
        self._soon(self._deal, _kDealPriority)

    def give_back(self) -> None:
        """There will be no helper any more, and the scheduler is about to take all work back.

        But for the suspects, which would end this very process.
        """
        while (task := self.backlog.take_suspect()) is not None:
            self._set_aside(task)
        self.backlog.clear()
        self._tasks.clear()

    def _set_aside(self, task: Task) -> None:
        """Store that the file can't be scanned, and go on without it."""
        record = setaside.record_of(task, self._engine.fPrimaryScanName)
        _log.warning("%r: %s", task.loc, record.error)
        self.backlog.remove(task)
        self._cache.AddFile(task.loc, record)
        self._finish([task])

    # --- dealing

    def _deal(self) -> bool:
        """Give work to each helper that has room, in turn, until nothing waits or all have much."""
        for link in self.links:
            while self._give_some(link):
                pass
        return False

    def _give_some(self, link: Link) -> bool:
        if not link.is_ready or link.is_lost:
            return False
        suspected = any(task.crashes for task in link.tasks.values())
        if suspected:
            return False
        if not link.tasks:
            suspect = self.backlog.take_suspect()
            if suspect is not None:
                self._give(link, [suspect])
                return False
        elif self.backlog.suspects and not self._has_idle_link():
            return False  # let it run dry, for the suspects need one for themselves
        room = allowance(self.backlog.unsuspected, self.workers) - len(link.tasks)
        if room <= 0 or link.bytes >= kMostBytes:
            return False
        tasks = self.backlog.take(min(room, 16))
        if not tasks:
            return False
        self._give(link, tasks)
        return True

    def _has_idle_link(self) -> bool:
        return any(link.is_ready and not link.is_lost and not link.tasks for link in self.links)

    def _give(self, link: Link, tasks: list[Task]) -> None:
        known = self._cache.StatesOf([task.loc for task in tasks])
        attribs = GetSingletons().fFileAttribMgr
        jobs: list[messages.Job] = []
        for task in tasks:
            loc = task.loc
            assert isinstance(loc, CLocalFileLocation | CSshFileLocation)
            task.size = _size_of(loc)
            task.again = False
            jobs.append(
                messages.Job(
                    task.number,
                    os.fsencode(loc.path),
                    attribs.GetDeclaredMimeType(loc) == kPythonMimeType,
                    known.get(loc),
                )
            )
        link.give(tasks, jobs, tasks[0].first)

    # --- taking results in

    def _store_some(self) -> bool:
        now = _fastaccess.GetNowTime()
        end = now + _kStoreSeconds
        self._cache.NoteSliceEnd(now + _kWriteSeconds)
        self._cache.Trim()
        if self._cache.UnwrittenBytes() > _kMostUnwritten:
            self._wait_for_database()
            return False
        done: list[Task] = []
        ready = False
        try:
            for link in list(self.links):
                while (report := link.next_report()) is not None:
                    done += self._take(link, report)
                    if _fastaccess.OutOfTime(end):
                        break
                ready = ready or link.has_report
                if not link.has_report:
                    link.report_end()
        finally:
            self._finish(done)
        self._deal()
        self.slice_over()
        return ready

    def slice_over(self) -> None:
        """Have done what the app does after a slice of the scheduler."""
        on_slice_over = getattr(self._coordinator, "on_slice_over", None)
        if on_slice_over is not None:
            on_slice_over()

    def _wait_for_database(self) -> None:
        """Somebody else has it. The helpers run into their bounds and wait as well."""
        self._waits_for_database = True

        def go_on() -> bool:
            self._waits_for_database = False
            self._soon(self._store_some, _kStorePriority)
            return False

        lgtk.timeout_add_while_alive(_kRetryMilliseconds, go_on, self)

    def _take(self, link: Link, report: messages.Report) -> list[Task]:
        """What a report is about and now done with."""
        if isinstance(report, messages.Result):
            task = link.take_back(report.number)
            return [] if task is None else self._take_result(task, report)
        if isinstance(report, messages.Reread):
            task = link.take_back(report.number)
            if task is None:
                return []
            times = report.times
            if not isinstance(task.loc, CLocalFileLocation):
                times = times._replace(mtime_ns=_whole_seconds(times.mtime_ns))
            if not self._cache.RefreshFile(
                task.loc, self._engine.fPrimaryScanName, report.digest, times
            ):
                task.again = True  # what was known has changed meanwhile
            self.follow_up.reread(task.loc, times)
            return [task]
        if isinstance(report, messages.Left):
            return self._take_left(link, report)
        if isinstance(report, messages.Added) and self.fCallbackObj is not None:
            numbers = link.tasks.keys() & report.numbers
            self.fCallbackObj.locs_added([link.tasks[number].loc for number in numbers])
        return []

    def _take_result(self, task: Task, report: messages.Result) -> list[Task]:
        loc, record = task.loc, report.record
        if GetSingletons().fCacheMgr.DoesCacheBufferExist(loc, True):
            task.again = True  # it was opened meanwhile, and its buffer is what counts
            return [task]
        if record.url != loc.fUrl:  # it has another name on its own machine
            record = replace(record, url=loc.fUrl, mtime_ns=_whole_seconds(record.mtime_ns))
        self._cache.AddFile(loc, record)
        if report.incomplete:
            self._coordinator._fIncompleteScansByLoc[loc].update(report.incomplete)
        self.follow_up.stored(loc, record)
        return [task]

    def _take_left(self, link: Link, report: messages.Left) -> list[Task]:
        tasks: list[Task] = []
        up_to_date: list[CLocation] = []
        for number in report.unchanged:
            task = link.take_back(number)
            if task is not None:
                tasks.append(task)
                up_to_date.append(task.loc)
        for number in report.gone:
            task = link.take_back(number)
            if task is not None:
                tasks.append(task)
                self.follow_up.gone(task.loc)
        for number in report.other:
            task = link.take_back(number)
            if task is not None:
                tasks.append(task)
        self.follow_up.unchanged(up_to_date)
        return tasks

    # --- the end of a file

    def finish(self, task: Task) -> None:
        """A file that was taken off the list is done."""
        self._finish([task])

    def _finish(self, tasks: list[Task]) -> None:
        again: list[Task] = []
        done: list[CLocation] = []
        for task in tasks:
            if self._tasks.get(task.loc) is not task:
                continue  # flushed
            if task.again and not self.follow_up.is_as_done(task.loc):
                again.append(task)
                continue
            del self._tasks[task.loc]
            done.append(task.loc)
        self._report_removed(done)
        for task in again:
            del self._tasks[task.loc]
            self._report_removed([task.loc])
            # By the scheduler's own way in: it may be nothing for a helper any more.
            self._coordinator.AddPairsToPrimaryQueue(
                [(task.loc, _kWholeFile)], task.first, kBackgroundPriority
            )
        if done:
            self._note_if_empty()

    def _report_removed(self, locs: list[CLocation]) -> None:
        if self.fCallbackObj is not None:
            self.fCallbackObj.locs_removed(locs)

    def _note_if_empty(self) -> None:
        if not self._tasks and not self.follow_up.is_busy:
            self.follow_up.rest()
            # A slice with nothing to do: it tells that scanning has ended, and has all written.
            self._coordinator._ScheduleIdle()

    # --- idle work

    def _soon(self, callback: Callable[[], bool], priority: int) -> None:
        """Have `callback` called in idle time, unless that is settled already."""
        if callback in self._settled:
            return
        self._settled.add(callback)

        def call() -> None:
            self._settled.discard(callback)  # from here on it may be asked for anew
            if callback():
                self._soon(callback, priority)

        lgtk.idle_add_while_alive(call, self, priority=priority)

    def check_health(self) -> None:
        """Give helpers up that hang."""
        for link in list(self.links):
            link.check_health()


def _whole_seconds(mtime_ns: int) -> int:
    """A time as a server tells it that is asked for the file: it counts in seconds."""
    return mtime_ns // 1_000_000_000 * 1_000_000_000


def _size_of(loc: CLocation) -> int:
    if not isinstance(loc, CLocalFileLocation):
        return 0  # that would be a question to a server
    try:
        return os.stat(loc.path).st_size
    except OSError:
        return 0
