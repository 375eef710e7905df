"""From events to work: which files are to be looked at again, which folders to be walked again.

Events are only noted when they come. A moment later, when a burst is over, idle calls of some
milliseconds each look at what is noted: at the file system as it is by then, so that the order of
events, and how many there were, matters little.
"""

from __future__ import annotations

import logging
import os
import stat
from collections.abc import Collection, Generator, Iterable, Iterator
from time import perf_counter
from typing import Final

from guiutils import lgtk
from loombase.destroyable import CDestroyable
from loombase.location import CLocalFileLocation, CLocation
from loombase.mime import kPythonMimeType
from pathspec import GitIgnoreSpec

from loom.app import App
from loom.ignore import rules_above
from loom.mainloop.base import LOW_IDLE_PRIORITY
from loom.store.errors import StoreLockedError
from loom.walk import Entered, Entering, Found, Problem, Step, walk, walk_below
from loom.watch.events import Change, EventSource, NoMoreWatchesError
from loom.watch.folders import Folder, FolderTree, outermost
from loom.watch.lostroots import LostRoots
from loom.watch.notes import Notes
from pysource.scancoordinator import CScanItem, kBackgroundPriority, kInteractivePriority
from pysource.utils import HasPythonShebang

__all__ = ["Follower"]

_log = logging.getLogger("loom.watch")

# A burst is over when there was nothing for so long, or has lasted for so long.
_kQuietSeconds: Final = 0.05
_kBurstSeconds: Final = 0.5

# How long one idle call works.
_kWorkSeconds: Final = 0.010

# Files that are handed over together.
_kFilesPerBatch: Final = 200

# So many changed files at a time are somebody's work and come first; more are a check-out.
_kMostUrgent: Final = 25

# Seconds until the next try when another process holds the database.
_kRetrySeconds: Final = 1.0


class Follower(CDestroyable):
    """Follows the folders of `tree` through `source`, by polling if that is none.

    Signals, each with the follower first: "files-changed" (locations, priority), "forgotten"
    (path) for a file or folder that is there no more, "problem" (a `Problem`) for what couldn't be
    walked, "caught-up" when all that was noted has been looked at, "events-lost", "polling" (why)
    when `source` is given up, "failed" (an exception).
    """

    def __init__(
        self, app: App, tree: FolderTree, exclude: GitIgnoreSpec | None, source: EventSource | None
    ) -> None:
        super().__init__(
            (
                "files-changed",
                "forgotten",
                "problem",
                "caught-up",
                "events-lost",
                "polling",
                "failed",
            )
        )
        self.tree = tree
        self.source = source
        self._app = app
        self._exclude = exclude
        self._lost_roots = LostRoots()
        self._notes = Notes(tree, self._lost_roots)
        # Folders as they were followed until a moment ago, for a walk that comes to their place.
        self._dropped: dict[str, Folder] = {}
        # Files that changed after a scan that is under way had begun.
        self._again: set[CLocation] = set()
        self._found: list[CLocation] = []
        self._found_priority = int(kBackgroundPriority)
        self._walked: list[CLocation] = []
        self._steps: Iterator[None] | None = None  # of the work that is under way
        self._first_walk_over = False
        self._paused = False
        self._work_idle: int | None = None
        self._settle_timer: int | None = None
        self._burst_start = self._last_event = 0.0
        app.coordinator.on_scan_over = self._scan_over
        app.info_cache.connect_while_alive("file-stored", self._file_settled, self)
        app.info_cache.connect_while_alive("file-reread", self._file_settled, self)

    # --- the first walk

    def first_walk(self, paths: list[str]) -> Generator[Step, None, None]:
        """The steps of a walk of the paths; what it comes to is followed from then on."""
        for folder in sorted({os.path.dirname(path) for path in self.tree.named_files}):
            self._follow(folder, folder, walked=False)
        for step in walk(paths, self._exclude):
            self._take_step(step)
            if isinstance(step, Problem):
                self.emit("problem", self, step)
            yield step
        self._first_walk_over = True
        self._wake()

    def _take_step(self, step: Step) -> None:
        if isinstance(step, Entering):
            self._follow(step.path, step.root)
        elif isinstance(step, Entered):
            self.tree.settle(step.path, step.rules, step.kept)

    def _follow(self, path: str, root: str, *, walked: bool = True) -> None:
        self.tree.add(path, root, walked=walked)
        self._watch(path)

    def _watch(self, path: str) -> None:
        if self.source is None:
            return
        try:
            self.source.watch(path)
        except NoMoreWatchesError as error:
            self._give_up_source(str(error))
        except OSError as error:  # the walk will meet it, too, and tell
            _log.info("%s can't be followed: %s", path, error.strerror or error)

    def _give_up_source(self, reason: str) -> None:
        assert self.source is not None
        self.emit("polling", self, reason)  # with the source, whose descriptor somebody may wait on
        self.source.close()
        self.source = None

    # --- noting what happens

    def take_events(self) -> None:
        """Note what the source has to tell. To be called when its descriptor is readable."""
        if self.source is None:
            return
        for event in list(self.source.read()):
            self._notes.add(event)
            if event.change is Change.LOST:
                self.emit("events-lost", self)
        if self._notes:
            self._wait_for_quiet()

    def walk_everything(self) -> None:
        """Walk all trees again."""
        self._notes.add_everything()
        self._wake()

    def _wait_for_quiet(self) -> None:
        self._last_event = lgtk.GetMainLoop().now()
        if self._settle_timer is None:
            self._burst_start = self._last_event
            self._settle_timer = lgtk.timeout_add_while_alive(
                _kQuietSeconds * 1000, self._is_burst_going_on, self
            )

    def _is_burst_going_on(self) -> bool:
        now = lgtk.GetMainLoop().now()
        quiet = now - self._last_event >= _kQuietSeconds * 0.99  # the clock's ticks
        if not quiet and now - self._burst_start < _kBurstSeconds:
            return True
        self._settle_timer = None
        self._wake()
        return False

    def _scan_over(self, item: CScanItem) -> None:
        self._look_again_at(item.loc)

    def _file_settled(self, _cache: object, loc: CLocation, _record: object = None) -> None:
        if not self._app.coordinator.WholeFileScanBegun(loc):  # scanned elsewhere
            self._look_again_at(loc)

    def _look_again_at(self, loc: CLocation | None) -> None:
        if loc in self._again and isinstance(loc, CLocalFileLocation):
            self._again.discard(loc)
            self._notes.files[loc.path] = None
            self._wake()

    # --- working

    def is_busy(self) -> bool:
        """Whether something is noted that wasn't looked at yet. For when no scan is under way."""
        for loc in list(self._again):  # their scans were taken away by somebody
            self._look_again_at(loc)
        return bool(self._notes or self._steps)

    def pause(self) -> None:
        """Only note what happens, until `resume`."""
        self._paused = True
        if self._work_idle is not None:
            lgtk.idle_remove(self._work_idle)
            self._work_idle = None

    def resume(self) -> None:
        self._paused = False
        self._wake()

    def _wake(self) -> None:
        if self._work_idle is None and not self._paused and self._has_work():
            self._work_idle = lgtk.idle_add_while_alive(
                self._work, self, priority=LOW_IDLE_PRIORITY
            )

    def _has_work(self) -> bool:
        notes = self._notes
        walks = notes.walks and self._first_walk_over
        return bool(notes.files or notes.gone or walks or self._steps)

    def _work(self) -> bool:
        end = perf_counter() + _kWorkSeconds
        try:
            more = self._work_until(end)
        except StoreLockedError as error:
            _log.warning("changes wait: %s", error)
            self._steps = None
            self._notes.add_everything()
            lgtk.timeout_add_while_alive(_kRetrySeconds * 1000, self._retry, self)
            more = False
        except Exception as error:
            self.emit("failed", self, error)
            more = False
        if not more:
            self._work_idle = None
            self.emit("caught-up", self)
        return more

    def _retry(self) -> bool:
        self._wake()
        return False

    def _work_until(self, end: float) -> bool:
        if self._steps is None:
            self._steps = self._all_steps()
        for _ in self._steps:
            if perf_counter() >= end:
                self._hand_over()
                return True
        self._steps = None
        self._hand_over()
        return False

    def _all_steps(self) -> Iterator[None]:
        while (steps := self._next_steps()) is not None:
            yield from steps
        self._dropped.clear()

    def _next_steps(self) -> Iterator[None] | None:
        notes = self._notes
        if notes.gone:
            return self._drop_folders(notes.take_gone())
        if notes.walks and self._first_walk_over:
            return self._walk_folders(notes.take_walks())
        if notes.files:
            return self._look_at_files(notes.take_files())
        return None

    def _hand_over(self) -> None:
        if self._found:
            found, self._found = self._found, []
            self.emit("files-changed", self, found, self._found_priority)
        if self._walked:
            walked, self._walked = self._walked, []
            changed = self._without_unchanged(walked)
            if changed:
                self.emit("files-changed", self, changed, int(kBackgroundPriority))

    def _add_found(self, loc: CLocation, priority: int) -> None:
        if priority != self._found_priority or len(self._found) >= _kFilesPerBatch:
            self._hand_over()
            self._found_priority = priority
        self._found.append(loc)

    def _without_unchanged(self, locs: Iterable[CLocation]) -> list[CLocation]:
        """Those that aren't as they were scanned. Most files that a walk finds again are."""
        cache, ana_mgr = self._app.info_cache, self._app.ana_mgr
        times = {loc: cache.GetDiskMTime(loc) for loc in locs}
        done = cache.GetScansDoneForMultipleFiles(times)

        def is_unchanged(loc: CLocation) -> bool:
            scans = done.get(loc, "")
            return ana_mgr.fPrimaryScanName in scans and (
                ana_mgr.fDerivedScanName in scans or not cache.fLocCache.WantDerivedInfo(loc)
            )

        return [loc for loc in times if not is_unchanged(loc)]

    # --- files

    def _look_at_files(self, files: Collection[str]) -> Iterator[None]:
        urgent = len(files) <= _kMostUrgent
        priority = int(kInteractivePriority if urgent else kBackgroundPriority)
        for path in files:
            self._look_at_file(path, priority)
            yield

    def _look_at_file(self, path: str, priority: int) -> None:
        if not self.tree.takes_file(path):  # the rules may have changed since
            return
        loc = CLocalFileLocation(path)
        coordinator = self._app.coordinator
        if loc in coordinator._fLocsQueuedInHelper:
            self._again.add(loc)
            return
        if coordinator.WholeFileScanBegun(loc):
            # What it has read may be old. One that nobody goes on with is taken up by the queue.
            self._again.add(loc)
            if coordinator.LocationInPrimaryScanQueue(loc):
                return
        elif not self._is_source(path):
            self._forget_file(loc)
            return
        if path in self.tree.named_files:
            self._app.attribs.DeclareMimeType(loc, kPythonMimeType)
        self._add_found(loc, priority)

    def _is_source(self, path: str) -> bool:
        try:
            mode = os.stat(path).st_mode
        except (FileNotFoundError, NotADirectoryError):
            return False
        except OSError:
            return True  # it is there; the scan tells what is wrong with it
        if not stat.S_ISREG(mode):
            return False
        if "." in os.path.basename(path) or path in self.tree.named_files:
            return True
        return HasPythonShebang(path)

    def _forget_file(self, loc: CLocalFileLocation) -> None:
        self._app.coordinator.RemoveLocationsFromQueue([loc])
        # What isn't known isn't worth a write: it may be our own database that was written.
        if self._app.info_cache.IsKnown(loc):
            self._app.info_cache.ForgetFile(loc)
            self.emit("forgotten", self, loc.path)

    # --- folders

    def _drop_folders(self, gone: Iterable[str]) -> Iterator[None]:
        for path in outermost(gone):
            folder = self.tree.get(path)
            if folder is None:
                continue
            self._dropped |= self.tree.copies_below(path)
            for each in self.tree.remove(path):
                if self.source is not None:
                    self.source.unwatch(each)
                yield
            if os.path.isdir(path) and (path == folder.root or self.tree.takes_folder(path)):
                self._notes.walks.add(path)  # another one stands in its place by now
            elif path == folder.root:
                self._wait_for_root(path)
            self.emit("forgotten", self, path)
            for _ in self._app.info_cache.ForgetVanishedBelow(CLocalFileLocation(path)):
                yield

    def _wait_for_root(self, root: str) -> None:
        if self.source is not None:
            self._stop_waiting(root)
            if self._lost_roots.lose(root, self._watch):
                self._notes.walks.add(root)  # it came back meanwhile

    def _stop_waiting(self, root: str) -> None:
        if root in self._lost_roots:
            ancestor = self._lost_roots.find(root)
            if ancestor is not None and ancestor not in self.tree and self.source is not None:
                self.source.unwatch(ancestor)

    def _walk_folders(self, folders: Iterable[str]) -> Iterator[None]:
        for path in outermost(folders):
            if path in self._lost_roots:
                if not os.path.isdir(path):
                    self._wait_for_root(path)  # only a folder on the way to it is back
                    continue
                self._stop_waiting(path)
            yield from self._walk_folder(path)

    def _walk_folder(self, path: str) -> Iterator[None]:
        """Walk a folder again, or a new one; all its files are looked at."""
        folder = self.tree.get(path)
        parent = self.tree.get(os.path.dirname(path))
        named = [file for file in self.tree.named_files if os.path.dirname(file) == path]
        self._notes.files.update(dict.fromkeys(named))
        if path in self.tree.roots:
            root, rules = path, rules_above(path)
        elif named and (folder is None or not folder.walked):
            self._follow(path, path, walked=False)
            return
        elif parent is not None and self.tree.takes_folder(path):
            root, rules = parent.root, parent.rules
        else:
            return
        start = path.rstrip("/") + "/"
        before = {each: old for each, old in self._dropped.items() if f"{each}/".startswith(start)}
        before |= self.tree.copies_below(path)
        found: set[str] = set()
        entered: set[str] = set()
        for step in walk_below(path, root, rules, self._exclude, self.tree.named_files):
            self._take_step(step)
            if isinstance(step, Entering):
                entered.add(step.path)
            elif isinstance(step, Found):
                found.add(step.path)
                self._look_at_found(step.path)
            elif isinstance(step, Problem) and os.path.lexists(step.path):
                self.emit("problem", self, step)
            yield
        for each in before.keys() - entered:
            self.tree.remove(each)
            if self.source is not None:
                self.source.unwatch(each)
        yield from self._forget_left_out(path, before, found)

    def _look_at_found(self, path: str) -> None:
        loc = CLocalFileLocation(path)
        if self._app.coordinator.WholeFileScanBegun(loc):
            self._notes.files[path] = None
            return
        self._walked.append(loc)
        if len(self._walked) >= _kFilesPerBatch:
            self._hand_over()

    def _forget_left_out(
        self, path: str, before: dict[str, Folder], found: Collection[str]
    ) -> Iterator[None]:
        """Drop what is gone below `path`, and what the rules used to keep and leave out now.

        What was in the database for another reason, because somebody imports it, stays.
        """

        def is_left_out_now(file: str) -> bool:
            folder = before.get(os.path.dirname(file))
            if (
                folder is None
                or file in found
                or file in self.tree.named_files
                or not folder.takes_file(file, self._exclude)
            ):
                return False
            self.emit("forgotten", self, file)
            return True

        loc = CLocalFileLocation(path)
        for _ in self._app.info_cache.ForgetVanishedBelow(loc, is_left_out_now):
            yield

    def _destroy_impl(self) -> None:
        self._app.coordinator.on_scan_over = None
        if self.source is not None:
            self.source.close()
            self.source = None
