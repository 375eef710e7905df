"""Sources, records and questions that several tests of the info cache use."""

from typing import Any

from loombase.location import CLocalFileLocation, CLocation

from loom.store.records import FileRecord
from pysource.scopeinfo import CInfoCache

kSource = """\
import os
class Walker:
    def walk(self):
        step = 1
def main():
    pass
"""


def done(cache: CInfoCache, *locs: CLocalFileLocation) -> dict[CLocation, str]:
    """Asks as a whole-file check does."""
    return cache.GetScansDoneForMultipleFiles({loc: cache.GetDiskMTime(loc) for loc in locs})


def record_of(loc: CLocalFileLocation, size: int = 1_000, **fields: Any) -> FileRecord:
    """A record with one scope of `size` bytes."""
    scopes = [("", -1, ord("O"), 1, 1, b"x" * size)]
    values: dict[str, Any] = {"url": loc.fUrl, "mtime_ns": 1, "size": 1, "scans": " primary "}
    return FileRecord(**(values | {"scopes": scopes} | fields))


def locations(count: int) -> list[CLocalFileLocation]:
    return [CLocalFileLocation(f"/nowhere/{number}.py") for number in range(count)]
