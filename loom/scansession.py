"""One scan of some paths: finds the files, queues them, follows the run to its end."""

from __future__ import annotations

import logging
import os
from collections.abc import Callable, Generator, Iterator, Mapping, Sequence
from functools import partial
from time import perf_counter
from typing import TYPE_CHECKING, Final

from guiutils import lgtk
from guiutils.lgtk import NoArgCallback
from loombase.destroyable import CDestroyable
from loombase.location import CLocalFileLocation, CLocation, CSshFileLocation, IsSshUrl
from loombase.mime import kPythonMimeType
from loomutils.reflect import GetFailureReporter
from pathspec import GitIgnoreSpec

from loom.app import App
from loom.following import ImportMemory
from loom.mainloop.base import LOW_IDLE_PRIORITY
from loom.scancounts import FileError, Outcome, ScanCounts, Tally
from loom.store.errors import StoreError
from loom.store.records import FileRecord
from loom.walk import Found, FoundRemote, Problem, Step, Waiting, walk
from pysource.scancoordinator import kBackgroundPriority

if TYPE_CHECKING:
    from loom.remote.search import RemoteSearch

__all__ = ["FileError", "ScanCounts", "ScanSession"]

_log = logging.getLogger(__name__)

# How long one idle call looks for files. Finding takes turns with scanning.
_WALK_SECONDS: Final = 0.010

# Behind everything else: runs only when all other idle work is done.
_LAST_IDLE_PRIORITY: Final = 1000

# So many failures outside of scans with nothing done in between, and the run is given up.
_MOST_FAILURES: Final = 5

_kWholeFile: Final = "*"


class ScanSession(CDestroyable):
    """Scans `paths`, and what they import, in the idle time of the app's main loop.

    A path may be the URL of a file or folder on an SSH server. Files of a server that is given up
    leave the queue with a recorded error each.

    The builtins come first, then the files at and below `paths`, then what they import. An imported
    file that stands below `paths` itself is one of these, whichever way it was come by.

    A scan that fails leaves the queue with a recorded error, and the others go on. The session
    ends when every file is done and written, when `stop` is called, or when the engine fails again
    and again outside of scans; `failure` is then the exception. An `endless` session doesn't end
    when all is done, and more files may be added to it at any time.

    With `derived`, the derived stage follows for the files at and below the local paths.

    `steps` find the files, by default those of a walk of the paths.

    Signals: "finished" (session), once; "at-rest" (session) whenever all is done and written.
    """

    def __init__(
        self,
        app: App,
        paths: Sequence[str],
        exclude: GitIgnoreSpec | None = None,
        *,
        steps: Generator[Step, None, None] | None = None,
        endless: bool = False,
        derived: bool = False,
    ) -> None:
        super().__init__(("finished", "at-rest"))
        self.app = app
        self._tally = Tally()
        self.seconds = 0.0
        self.stopped = False
        self.failure: BaseException | None = None
        self._start = perf_counter()
        self._is_over = False
        self._endless = endless
        urls = [path for path in paths if IsSshUrl(path)]
        paths = [path for path in paths if not IsSshUrl(path)]
        self._walk = walk(paths, exclude) if steps is None else steps
        self._remote = self._remote_search(urls, exclude) if urls else None
        if self._remote is not None:
            self._walk = self._remote.steps_with(self._walk)
        self._folders = [os.path.abspath(path) for path in paths if os.path.isdir(path)]
        self._unwalkable: set[str] = set()
        self._found: set[str] = set()
        self._memory: ImportMemory | None = None
        self._recalling = self._recall_steps([os.path.abspath(path) for path in paths], exclude)
        self._forgetting = self._forget_steps()
        self._has_forgotten = False
        self._walk_idle: int | None = None
        self._last_idle: int | None = None
        self._failures = 0
        app.ana_mgr.fAnalysisFactory.SetScannedFolders(_folders_of(paths))
        app.info_cache.fLocCache.WantDerivedBelow(paths if derived else ())
        coordinator = app.coordinator
        coordinator.hold_followed()
        coordinator.connect_while_alive("scheduled", self._watch_for_end, self)
        coordinator.connect_while_alive("modtimes-updated", self._count_vanished, self)
        app.ana_mgr.connect_while_alive("files-followed", self._count_followed, self)
        data_cache = app.ana_mgr.fLocationDataCache
        data_cache.connect_while_alive("inspect-failed", self._take_out_unreachable, self)
        app.info_cache.connect_while_alive("file-stored", self._count_file, self)
        app.info_cache.connect_while_alive("file-reread", self._count_reread, self)
        GetFailureReporter().connect_while_alive("failure-reported", self._note_failure, self)

    @property
    def counts(self) -> ScanCounts:
        return self._tally.counts

    def _remote_search(self, urls: Sequence[str], exclude: GitIgnoreSpec | None) -> RemoteSearch:
        from loom.remote.search import RemoteSearch  # for those who have such paths

        files = self.app.ana_mgr.fLocationDataCache.GetRemoteFiles()
        roots = [CSshFileLocation.FromUrl(url) for url in urls]
        search = RemoteSearch(files, roots, exclude)
        search.connect_while_alive("news", self._search_on, self)
        return search

    def start(self) -> None:
        """Begin. Nothing is looked at before the main loop has idle time."""
        self._start = perf_counter()
        self._walk_idle = lgtk.idle_add_while_alive(
            self._find_some, self, priority=LOW_IDLE_PRIORITY
        )

    def stop(self) -> None:
        """End early: no further slice runs. What was scanned so far stays to be saved."""
        if not self._is_over:
            self.stopped = True
            self.app.coordinator.Quitting()
            self._finish()

    def add(self, locs: Sequence[CLocation], priority: int) -> None:
        """Have files looked at, and scanned if they have changed."""
        for loc in locs:
            self._tally.ask(loc)
        self.app.coordinator.ask_for(locs, priority)
        self._watch_for_end()

    def take_counts(self) -> ScanCounts:
        """The counts since the last call; those that follow begin anew."""
        self.update_queued()
        self._tally, taken = self._tally.split(self._left_test())
        return taken

    def update_queued(self) -> None:
        """Bring `counts.queued` up to date with the queue."""
        coordinator = self.app.coordinator
        status = coordinator.GetStatus()
        manager = self.app.ana_mgr
        counts = dict.fromkeys((manager.fPrimaryScanName, manager.fDerivedScanName), 0)
        for queue in status.queue_status_list:
            if queue.scan_name in counts:
                counts[queue.scan_name] += queue.file_count
        queued, self.counts.to_derive = counts.values()
        self.counts.queued = (
            queued
            + status.waiting_count
            + coordinator.held_count
            + len(coordinator._fLocsQueuedInHelper)
        )

    # --- finding files

    def _find_some(self) -> bool:
        try:
            return self._find_for_a_while()
        except Exception as error:  # nobody would go on with the walk, or end the session
            self.give_up(error)
            return False

    def _find_for_a_while(self) -> bool:
        end = perf_counter() + _WALK_SECONDS
        for _ in self._recalling:
            if perf_counter() >= end:
                return True
        locs: list[CLocation] = []
        ask, found = self._tally.ask, self._found
        more = True
        waiting = False
        for step in self._walk:
            if isinstance(step, (Found, FoundRemote)):
                if isinstance(step, Found):
                    loc: CLocation = CLocalFileLocation(step.path)
                    declare = step.named
                    found.add(loc.fUrl)
                else:
                    loc, declare = step
                if declare:
                    self.app.attribs.DeclareMimeType(loc, kPythonMimeType)
                ask(loc)
                locs.append(loc)
            elif isinstance(step, Waiting):
                waiting = True
                self._walk_idle = None
                break
            elif isinstance(step, Problem):
                self._unwalkable.add(step.path)
                self.counts.errors.append(self._error(step.path, step.reason))
            if perf_counter() >= end:
                break
        else:
            more = False
        if locs:
            self.app.coordinator.ask_for(locs)
        if not more:
            _log.info("found %d files", self.counts.found)
            self.counts.all_found = True
            self.app.coordinator.release_followed()
            self._walk_idle = lgtk.idle_add_while_alive(
                self._forget_some, self, priority=LOW_IDLE_PRIORITY
            )
            self._watch_for_end()
        return more and not waiting

    def _search_on(self) -> None:
        """What the search waited for is there."""
        if self._walk_idle is None and not self._is_over and not self._has_forgotten:
            go_on = self._forget_some if self.counts.all_found else self._find_some
            self._walk_idle = lgtk.idle_add_while_alive(go_on, self, priority=LOW_IDLE_PRIORITY)

    def _forget_some(self) -> bool:
        """Drop what the database has of files that are gone, in steps like those of the walk."""
        end = perf_counter() + _WALK_SECONDS
        try:
            for step in self._forgetting:
                if isinstance(step, Waiting):
                    self._walk_idle = None
                    return False
                if perf_counter() >= end:
                    return True
            if self.app.info_cache.HasUnwritten():
                self.app.info_cache.WriteToDatabase()
        except Exception as error:
            self.give_up(error)
        self._walk_idle = None
        self._has_forgotten = True
        self._watch_for_end()
        return False

    def _forget_steps(self) -> Iterator[Waiting | None]:
        for folder in self._folders:
            # One that couldn't be looked at may be back tomorrow, with all that is in it.
            if folder not in self._unwalkable:
                loc = CLocalFileLocation(folder)
                for others in self.app.info_cache.ForgetVanishedBelow(loc, found=self._found):
                    # They were come by once, as imported files may be that are left out.
                    self._follow(others)
                    yield None
        if self._remote is not None:
            yield from self._remote.forget_steps(self.app.info_cache)

    # --- imports

    def _recall_steps(
        self, paths: Sequence[str], exclude: GitIgnoreSpec | None
    ) -> Iterator[None]:
        """See which imports need not be followed."""
        if not self.app.coordinator._fAnalyzeFoundImports:
            return
        memory = self._memory = ImportMemory(self.app, paths, exclude)
        factory = self.app.ana_mgr.fAnalysisFactory
        factory.connect_while_alive(
            "import-resolution-changed", NoArgCallback(self._forget_imports), self
        )
        for locs in memory.recall():
            self._follow(locs)
            yield

    def _follow(self, locs: Sequence[CLocation]) -> None:
        """Have files looked at that an earlier session came by."""
        if locs and self._memory is not None and self._memory.holds:
            pairs = [(loc, _kWholeFile) for loc in locs]
            self.app.coordinator.AddPairsToPrimaryQueue(pairs, False, kBackgroundPriority)

    def _forget_imports(self) -> None:
        if self._memory is not None:
            self._memory.drop()
            self._memory = None

    def _remember_some(self, remembering: Iterator[None]) -> bool:
        end = perf_counter() + _WALK_SECONDS
        try:
            for _ in remembering:
                if perf_counter() >= end:
                    return True
        except Exception as error:
            self.give_up(error)
        self._walk_idle = None
        self._watch_for_end()
        return False

    # --- following the run

    def _count_file(self, info_cache: object, loc: CLocation, record: FileRecord) -> None:
        self._failures = 0
        error = None
        if record.error is not None:
            error = self._error(loc.fShownName, record.error, record.error_lineno)
        if error is not None and error.lineno == 0:
            self._tally.settle(loc, Outcome(failed=1, error=error))
        else:
            self._tally.settle(
                loc,
                Outcome(
                    scanned=1, definitions=record.definition_count, bytes=record.size, error=error
                ),
            )

    def _count_reread(self, info_cache: object, loc: CLocation) -> None:
        self._failures = 0
        self._tally.settle(loc, Outcome(reread=1))

    def _count_followed(self, locs: Sequence[CLocation]) -> None:
        self._tally.follow(locs)

    def _count_vanished(self, modtimes: Mapping[CLocation, float]) -> None:
        for loc, modtime in modtimes.items():
            if modtime == 0:
                error = None
                if not self._endless:  # there it is nothing unusual
                    error = self._error(loc.fShownName, "file is gone or can't be reached")
                self._tally.settle(loc, Outcome(vanished=1, error=error))

    def _take_out_unreachable(self, data_cache: object, locs: set[CLocation]) -> None:
        """Nobody will say when these can be scanned: their server was given up."""
        self.app.coordinator.RemoveLocationsFromQueue(locs)
        for loc in locs:
            error = self._error(loc.fShownName, "the server can't be reached")
            self._tally.settle(loc, Outcome(failed=1, error=error))
        self._watch_for_end()

    def _error(self, path: str, reason: str, lineno: int = 0) -> FileError:
        _log.info("%s:%d: %s", path, lineno, reason)
        return FileError(path, reason, lineno)

    def _note_failure(self, failure: BaseException) -> None:
        """The engine failed in a slice and has no callback any more; `_at_rest` starts it again."""
        coordinator = self.app.coordinator
        if isinstance(failure, StoreError):
            # What can't be stored need not be scanned.
            coordinator.Quitting()
            self.give_up(failure)
            return
        item = coordinator.failed_item
        coordinator.failed_item = None
        if item is None or item.loc is None:
            self._failures += 1
            self.failure = failure
        else:
            coordinator.RemoveLocationsFromQueue([item.loc])
            loc: CLocation = item.loc
            error = self._error(loc.fShownName, f"scan failed: {type(failure).__name__}: {failure}")
            self._tally.settle(item.loc, Outcome(failed=1, error=error))
        self._watch_for_end()

    def _watch_for_end(self) -> None:
        if self._last_idle is None and not self._is_over:
            self._last_idle = lgtk.idle_add_while_alive(
                self._at_rest, self, priority=_LAST_IDLE_PRIORITY
            )

    def _at_rest(self) -> None:
        """Called when no other idle work is left: finding, scanning and writing have stopped."""
        self._last_idle = None
        try:
            self._go_on_or_end()
        except Exception as error:
            self.give_up(error)

    def _go_on_or_end(self) -> None:
        coordinator = self.app.coordinator
        if self._failures >= _MOST_FAILURES:
            self._finish()
        elif not coordinator._fScanQueue.Empty(include_waiting=False):
            # A failure had stopped it. While scanning is suspended this does nothing, and
            # "scheduled" brings us back when it is resumed.
            coordinator._ScheduleIdle()
        elif coordinator._fLocsQueuedInHelper:
            pass  # helpers are at work, and "scheduled" comes when they are done
        elif self._has_forgotten and coordinator.QueuesEmpty():
            memory, self._memory = self._memory, None
            if memory is not None and self._endless:
                memory.drop()
            elif memory is not None:
                remembering = memory.remember(self._tally.imported())
                self._walk_idle = lgtk.idle_add_while_alive(
                    partial(self._remember_some, remembering), self, priority=LOW_IDLE_PRIORITY
                )
                return
            self.failure = None
            self.emit("at-rest", self)
            if not self._endless:
                self._finish()

    def give_up(self, failure: BaseException) -> None:
        """End because of a failure."""
        self.failure = failure
        self._finish()

    def _finish(self) -> None:
        if self._is_over:
            return
        self._is_over = True
        self.seconds = perf_counter() - self._start
        if not self.counts.all_found:
            self.app.coordinator.release_followed()
        self.update_queued()
        self._tally.settle_left(self._left_test())
        if self._walk_idle is not None:
            lgtk.idle_remove(self._walk_idle)
        self.emit("finished", self)

    def _left_test(self) -> Callable[[CLocation], bool]:
        """What tells whether a file is still to be looked at, now."""
        coordinator = self.app.coordinator
        queue = coordinator._fScanQueue
        elsewhere = {*coordinator._fLocsQueuedInHelper, *queue._fWaitingForInspectByLoc}
        elsewhere.update(item.loc for item in queue._fScanItemsWaitingForData)
        return lambda loc: loc in elsewhere or coordinator.LocationInPrimaryScanQueue(loc)

    def _destroy_impl(self) -> None:
        self._walk.close()
        if self._remote is not None:
            self._remote.destroy()


def _folders_of(paths: Sequence[str]) -> list[str]:
    """The folders among `paths`, and those that hold the files among them."""
    absolute = (os.path.abspath(path) for path in paths)
    return list(dict.fromkeys(p if os.path.isdir(p) else os.path.dirname(p) for p in absolute))
