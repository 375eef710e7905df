"""Files that end whoever scans them."""

from __future__ import annotations

from typing import Final

from loombase.location import CLocalFileLocation

from loom import freshness
from loom.helper.backlog import Task
from loom.sourcetext import SourceError, SourceText, read_source
from loom.store.records import FileRecord, join_scans

__all__ = ["kMostCrashes", "record_of"]

# So many helpers may be lost to a file before it is set aside.
kMostCrashes: Final = 2

_kMaxReasonLength: Final = 300


def record_of(task: Task, scan_name: str) -> FileRecord:
    """What is stored of a file that is set aside: why, and for which bytes that holds.

    It counts as scanned, so that it isn't tried again before it changes. If it was lost only once
    and there is no helper left to try again, the next run tries.
    """
    text = SourceText()
    if isinstance(task.loc, CLocalFileLocation):
        try:
            for _ in read_source(task.loc.path, text):
                pass
        except SourceError:
            pass  # the reason to tell is another one; without a digest the file is tried again
    lasting = task.crashes >= kMostCrashes
    how_often = "twice" if lasting else "once"
    reason = f"set aside: scanning it ended the helper process {how_often}; {task.fate}"
    return FileRecord(
        url=task.loc.fUrl,
        mtime_ns=text.mtime_ns,
        size=text.size,
        digest=text.digest,
        scans=join_scans([scan_name] if lasting else []),
        error=reason[:_kMaxReasonLength],
        settled=text.settled,
        scanner=freshness.kScannerVersion,
    )
