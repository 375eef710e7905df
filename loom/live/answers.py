"""What a running process says of itself: how far it is, and where a file stands."""

from __future__ import annotations

import os
import time
from collections.abc import Callable, Mapping
from typing import Any, Final

from loombase.location import CLocation, LocationFromUrl
from pysource import _fastaccess

from loom.app import App
from loom.scansession import ScanSession
from pysource.scancoordinator import (
    kBackgroundPriority,
    kInteractivePriority,
    kTypingModulePriority,
)

__all__ = ["Answers", "dump_queue"]

_kPriorityNames: Final = {
    int(kTypingModulePriority): "typing",
    int(kInteractivePriority): "interactive",
    int(kBackgroundPriority): "background",
}

# Lines of a dump, unless the question says otherwise, and at most.
_kDumpLines: Final = 100
_kMostDumpLines: Final = 100_000


class Answers:
    """Answers the questions {"ask": "status"}, {"ask": "why", "url": ...}, {"ask": "dump"}.

    `more` adds to the status what the command knows besides.
    """

    def __init__(
        self,
        app: App,
        session: ScanSession,
        command: str,
        more: Callable[[], Mapping[str, Any]] = dict,
    ) -> None:
        self._app = app
        self._session = session
        self._command = command
        self._more = more
        self._started = time.time()

    def __call__(self, question: Mapping[str, Any]) -> dict[str, Any]:
        """The answer as a JSON object. Raises `ValueError` for a question that isn't one."""
        match question.get("ask"):
            case "status":
                return self._status()
            case "why":
                return self._why(str(question.get("url")))
            case "dump":
                limit = question.get("limit", _kDumpLines)
                if not isinstance(limit, int) or not 0 <= limit <= _kMostDumpLines:
                    raise ValueError(f"not a number of lines: {limit!r}")
                return {"dump": dump_queue(self._app, limit)}
            case other:
                raise ValueError(f"not a question: {other!r}")

    def _status(self) -> dict[str, Any]:
        coordinator = self._app.coordinator
        status = coordinator.GetStatus()
        self._session.update_queued()
        counts = self._session.counts
        return {
            "pid": os.getpid(),
            "command": self._command,
            "started": round(self._started, 3),
            "paused": coordinator._fIdleScanSuspendCount > 0,
            "scanning": _name_of(coordinator.ActiveLocation()),
            "next": _name_of(self._next_location()),
            "queues": [
                {
                    "scan": queue.scan_name,
                    "priority": _kPriorityNames[int(queue.priority)],
                    "files": queue.file_count,
                }
                for queue in status.queue_status_list
            ],
            "waiting": status.waiting_count,
            "in_helper": len(coordinator._fLocsQueuedInHelper),
            "progress": {
                "found": counts.total,
                "all_found": counts.all_found,
                "done": counts.done,
                "scanned": counts.scanned + counts.imported.scanned,
                "failed": counts.failed + counts.imported.failed,
            },
            **self._more(),
        }

    def _next_location(self) -> CLocation | None:
        for queue in self._app.coordinator._fScanQueue._fOrderedQueues:
            loc: CLocation
            for loc in queue.fOrderedDict:
                return loc
        return None

    def _why(self, url: str) -> dict[str, Any]:
        loc = LocationFromUrl(url)
        coordinator = self._app.coordinator
        queue = coordinator._fScanQueue
        waiting = None
        if loc in queue._fWaitingForInspectByLoc:
            waiting = "inspection"
        elif any(item.loc is loc for item in queue._fScanItemsWaitingForData):
            waiting = "data"
        now = _fastaccess.GetNowTime()
        completed = coordinator._fLastScanCompleted.get(loc, {})
        return {
            "pid": os.getpid(),
            "command": self._command,
            "paused": coordinator._fIdleScanSuspendCount > 0,
            "scanning": loc is coordinator.ActiveLocation(),
            "begun": coordinator.WholeFileScanBegun(loc),
            "queued": self._places_in_queue(loc),
            "waiting_for": waiting,
            "in_helper": loc in coordinator._fLocsQueuedInHelper,
            "seconds_since_scans": {
                f"{scan} {scope}": round(now - when, 3)
                for (scope, scan), when in completed.items()
            },
            **self._more(),
        }

    def _places_in_queue(self, loc: CLocation) -> list[dict[str, Any]]:
        """Each scan of the file that is queued, with how many files come before it."""
        coordinator = self._app.coordinator
        pending = coordinator._fScanQueue.GetPendingDictForLoc(loc)
        places: list[dict[str, Any]] = []
        if not pending:
            return places
        before = 0
        for queue in coordinator._fScanQueue._fOrderedQueues:
            files = queue.fOrderedDict
            if loc in files:
                position = next(index for index, each in enumerate(files) if each is loc)
                places += [
                    {
                        "scan": scan,
                        "scope": scope,
                        "priority": _kPriorityNames[priority],
                        "position": before + position,
                    }
                    for (scope, scan), priority in pending.items()
                    if scan == queue.fScanName and priority == queue.fPriority
                ]
            before += len(files)
        return places


def dump_queue(app: App, limit: int = _kDumpLines) -> str:
    """The text of the scheduler's own dump of its queue."""
    pieces: list[str] = []
    app.coordinator._fScanQueue.PrintScanQueues(pieces.append, limit)
    return "".join(pieces)


def _name_of(loc: CLocation | None) -> str | None:
    """A file as a user knows it."""
    return None if loc is None else str(getattr(loc, "path", loc.fUrl))
