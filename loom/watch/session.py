"""The whole of `loom watch`: a first scan, and then whatever changes."""

from __future__ import annotations

import logging
import os
from collections.abc import Callable, Sequence
from time import perf_counter
from typing import Any, Final

from guiutils import lgtk
from loombase.destroyable import CDestroyable
from loombase.location import CLocalFileLocation, CLocation
from pathspec import GitIgnoreSpec
from singleton import GetSingletons

from loom.app import App
from loom.scansession import ScanSession
from loom.store.errors import StoreError
from loom.store.records import FileRecord
from loom.walk import Problem
from loom.watch.events import EventSource, NoMoreWatchesError
from loom.watch.folders import FolderTree
from loom.watch.follower import Follower
from pysource.scancoordinator import kBackgroundPriority

__all__ = ["WatchSession"]

_log = logging.getLogger("loom.watch")

# Seconds between two looks at all files where nobody tells of changes, at least, and as a multiple
# of the time that a look takes: a twentieth of the processor at most.
kPollSeconds: Final = 5.0
_kPollRest: Final = 20.0

# Seconds until the next try when results couldn't be written.
_kWriteAgainSeconds: Final = 5.0


class WatchSession(CDestroyable):
    """Scans `paths` in the idle time of the app's main loop, and follows what changes there.

    `make_source` makes what tells of changes; without it, or if it raises `NoMoreWatchesError`,
    all files are looked at each `poll_seconds` or so. `derived` is that of `ScanSession`.

    Signals: "event" (session, a mapping with the text "event" and what belongs to it) for whatever
    is worth telling, "finished" (session) once, after `stop` or when the engine has failed for
    good; `failure` is then the exception.
    """

    def __init__(
        self,
        app: App,
        paths: Sequence[str],
        exclude: GitIgnoreSpec | None = None,
        make_source: Callable[[], EventSource] | None = None,
        poll_seconds: float = kPollSeconds,
        derived: bool = False,
    ) -> None:
        super().__init__(("event", "finished"))
        self.app = app
        self.is_paused = False
        self.at_rest = False
        self.total_scanned = 0
        self._poll_seconds = poll_seconds
        self._poll_timer: int | None = None
        self._poll_reason = "it was asked for"
        self._write_timer: int | None = None
        self._busy_since: float | None = None
        self._forgotten = 0
        self._first_rest_over = False
        whole = [os.path.abspath(path) for path in paths]
        named = {path for path in whole if not os.path.isdir(path)}
        roots = list(dict.fromkeys(path for path in whole if path not in named))
        self.follower = Follower(
            app, FolderTree(roots, named, exclude), exclude, self._make_source(make_source)
        )
        self.scan = ScanSession(
            app,
            paths,
            exclude,
            steps=self.follower.first_walk(whole),
            endless=True,
            derived=derived,
        )
        self._connect()

    def _make_source(self, make_source: Callable[[], EventSource] | None) -> EventSource | None:
        if make_source is None:
            return None
        try:
            return make_source()
        except NoMoreWatchesError as error:
            self._poll_reason = str(error)
            return None

    def _connect(self) -> None:
        self.scan.connect_while_alive("finished", self._finished, self)
        self.scan.connect_while_alive("at-rest", lgtk.NoArgCallback(self._come_to_rest), self)
        self.app.coordinator.connect_while_alive("scheduled", self._become_busy, self)
        self.app.info_cache.connect_while_alive("file-stored", self._file_stored, self)
        follower = self.follower
        follower.connect_while_alive("files-changed", self._queue, self)
        follower.connect_while_alive("forgotten", self._file_forgotten, self)
        follower.connect_while_alive("problem", self._problem, self)
        follower.connect_while_alive("events-lost", lgtk.NoArgCallback(self._events_lost), self)
        follower.connect_while_alive("polling", self._poll_from_now, self)
        follower.connect_while_alive("failed", self._follower_failed, self)
        follower.connect_while_alive("caught-up", lgtk.NoArgCallback(self._followed), self)

    # --- from outside

    def start(self) -> None:
        """Begin. Nothing is looked at before the main loop has idle time."""
        self._tell(
            "started",
            paths=[*self.follower.tree.roots, *sorted(self.follower.tree.named_files)],
            database=str(self.app.info_cache.fPath),
        )
        if self.follower.source is None:
            self._tell_of_polling(self._poll_reason)
        self._become_busy()
        self.scan.start()

    def stop(self) -> None:
        """End: no further slice runs. What was scanned so far stays to be saved."""
        self.scan.stop()

    @property
    def failure(self) -> BaseException | None:
        return self.scan.failure

    def pause(self) -> None:
        """Scan nothing until `resume`. Changes are noted meanwhile."""
        if self.is_paused:
            return
        self.is_paused = True
        self.app.coordinator.SuspendIdleScans()
        self.follower.pause()
        self._write()
        self.scan.update_queued()
        self._tell("paused", queued=self.scan.counts.queued)

    def resume(self) -> None:
        """Go on after `pause`."""
        if not self.is_paused:
            return
        self.is_paused = False
        self._tell("resumed")
        self.follower.resume()
        self.app.coordinator.ResumeIdleScans()
        self._followed()

    def toggle_pause(self) -> None:
        """Pause, or go on."""
        if self.is_paused:
            self.resume()
        else:
            self.pause()

    def describe(self) -> dict[str, Any]:
        """How the trees are followed, for whoever asks."""
        tree = self.follower.tree
        return {
            "by": "polling" if self.follower.source is None else "inotify",
            "folders": len(tree),
            "roots": list(tree.roots),
            "exclude": tree.exclude_patterns(),
            "files": sorted(tree.named_files),
        }

    # --- what happens

    def _tell(self, event: str, **what: object) -> None:
        self.emit("event", self, {"event": event, **what})

    def _queue(self, _follower: object, locs: list[CLocation], priority: int) -> None:
        GetSingletons().fSavableMgr.FilesChanged(locs)
        self.app.ana_mgr.fAnalysisFactory.Recheck()
        self.scan.add(locs, priority)

    def _followed(self) -> None:
        """Nothing may have come of what was looked at, and then all is done."""
        self.scan.add([], kBackgroundPriority)

    def _file_stored(self, _cache: object, loc: CLocalFileLocation, record: FileRecord) -> None:
        self.total_scanned += 1
        if record.error is not None:
            self._tell(
                "failed" if record.error_lineno == 0 else "error",
                path=loc.path,
                line=record.error_lineno,
                reason=record.error,
            )
        elif self._first_rest_over:
            self._tell("scanned", path=loc.path, definitions=record.definition_count)

    def _file_forgotten(self, _follower: object, path: str) -> None:
        self._forgotten += 1
        self.app.ana_mgr.fAnalysisFactory.Recheck()
        self._become_busy()
        self._tell("forgotten", path=path)

    def _problem(self, _follower: object, problem: Problem) -> None:
        self._tell("failed", path=problem.path, line=0, reason=problem.reason)

    def _events_lost(self) -> None:
        self._tell("events-lost")

    def _become_busy(self) -> None:
        if self._busy_since is None:
            self._busy_since = perf_counter()
            self.at_rest = False

    def _come_to_rest(self) -> None:
        if self.is_paused or self.follower.is_busy():
            return
        counts = self.scan.take_counts()
        del self.app.coordinator.slices[:]  # a run without an end would fill the memory with them
        since, self._busy_since = self._busy_since, None
        forgotten, self._forgotten = self._forgotten, 0
        self.at_rest = True
        is_news = counts.scanned or counts.failed or forgotten or not self._first_rest_over
        if is_news or (self.follower.source is not None and counts.found):
            self._first_rest_over = True
            self._tell(
                "at-rest",
                scanned=counts.scanned,
                unchanged=counts.unchanged,
                failed=counts.failed,
                forgotten=forgotten,
                definitions=counts.definitions,
                seconds=round(perf_counter() - since, 3) if since is not None else 0.0,
                folders=len(self.follower.tree),
            )
        if self.follower.source is None:
            self._poll_later(perf_counter() - since if since is not None else 0.0)
        if self.app.info_cache.HasUnwritten() and self._write_timer is None:
            self._write_timer = lgtk.timeout_add_while_alive(
                _kWriteAgainSeconds * 1000, self._write_again, self
            )

    def _write_again(self) -> bool:
        self._write_timer = None
        self._write()
        return False

    def _write(self) -> None:
        try:
            self.app.info_cache.WriteToDatabase()
        except StoreError as error:
            _log.warning("results wait to be written: %s", error)

    def _follower_failed(self, _follower: object, failure: BaseException) -> None:
        self.scan.give_up(failure)

    def _finished(self, _scan: object) -> None:
        self._tell("ended")
        self.emit("finished", self)

    # --- polling

    def _poll_from_now(self, _follower: object, reason: str) -> None:
        self._tell_of_polling(reason)
        if self.at_rest:
            self._poll_later(0.0)

    def _tell_of_polling(self, reason: str) -> None:
        self._tell("polling", reason=reason, seconds=self._poll_seconds)

    def _poll_later(self, seconds_taken: float) -> None:
        if self._poll_timer is None:
            seconds = max(self._poll_seconds, seconds_taken * _kPollRest)
            self._poll_timer = lgtk.timeout_add_while_alive(seconds * 1000, self._poll, self)

    def _poll(self) -> bool:
        self._poll_timer = None
        self._become_busy()
        self.follower.walk_everything()
        return False

    def _destroy_impl(self) -> None:
        self.scan.destroy()
        self.follower.destroy()
