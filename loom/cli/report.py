"""What `loom scan` says at its end."""

from __future__ import annotations

from collections.abc import Iterator
from pathlib import Path
from typing import Any, Final

from loom.cli.output import escape, styled, write, write_json
from loom.measure import SliceLengths
from loom.scancounts import FileCounts
from loom.scansession import ScanSession

__all__ = ["ScanReport"]

# Errors that are shown one by one; all of them are in the JSON document.
_SHOWN_ERRORS: Final = 10


class ScanReport:
    """The outcome of a session that is over."""

    def __init__(self, session: ScanSession, db_path: Path, interrupted: bool) -> None:
        self._counts = session.counts
        self._seconds = session.seconds
        self._slices = SliceLengths.of(session.app.coordinator.slices)
        self._db_path = db_path
        self._interrupted = interrupted

    def write(self, as_json: bool) -> None:
        """Write the report to standard output."""
        if as_json:
            write_json(self.as_json())
            return
        for line in self.as_text():
            write(line)

    @property
    def _bytes_per_second(self) -> float:
        return self._bytes / self._seconds if self._seconds > 0 else 0.0

    @property
    def _bytes(self) -> int:
        return self._counts.bytes + self._counts.imported.bytes

    def as_json(self) -> dict[str, Any]:
        counts, slices = self._counts, self._slices
        return {
            "database": str(self._db_path),
            "interrupted": self._interrupted,
            "files": {"all_found": counts.all_found, **_files_as_json(counts)},
            "imported": {
                **_files_as_json(counts.imported),
                "definitions": counts.imported.definitions,
                "bytes": counts.imported.bytes,
                "errors": _errors_as_json(counts.imported),
            },
            "definitions": counts.definitions,
            "bytes": counts.bytes,
            "seconds": round(self._seconds, 6),
            "bytes_per_second": round(self._bytes_per_second),
            "slices": {
                "count": slices.count,
                "median_seconds": round(slices.median, 6),
                "p99_seconds": round(slices.p99, 6),
                "longest_seconds": round(slices.longest, 6),
            },
            "errors": _errors_as_json(counts),
        }

    def as_text(self) -> Iterator[str]:
        counts, slices = self._counts, self._slices
        for error in counts.errors[:_SHOWN_ERRORS]:
            place = escape(error.path)
            if error.lineno:
                place += f":{error.lineno}"
            yield f"{styled(place, fg='yellow')}: {escape(error.reason)}"
        if len(counts.errors) > _SHOWN_ERRORS:
            yield f"... and {len(counts.errors) - _SHOWN_ERRORS} more files with errors"
        if counts.errors:
            yield ""
        yield _line("files", _files_as_text(counts))
        if counts.imported.found:
            imported = _files_as_text(counts.imported)
            if counts.imported.errors:
                imported += f", {len(counts.imported.errors):,} with errors"
            yield _line("imported", imported)
        yield _line("definitions", f"{counts.definitions:,}")
        yield _line("with errors", f"{len(counts.errors):,}")
        yield _line(
            "speed",
            f"{self._bytes_per_second / 1e6:,.1f} MB/s"
            f" ({self._bytes / 1e6:,.1f} MB in {self._seconds:.2f} s)",
        )
        yield _line(
            "slices",
            f"{slices.count:,}: median {slices.median * 1e3:.1f} ms,"
            f" 99% {slices.p99 * 1e3:.1f} ms, longest {slices.longest * 1e3:.1f} ms",
        )
        yield _line("database", escape(str(self._db_path)))


def _line(title: str, text: str) -> str:
    return f"{styled(f'{title:>12}', bold=True)}  {text}"


def _files_as_text(counts: FileCounts) -> str:
    text = f"{counts.scanned:,} scanned, {counts.unchanged:,} unchanged"
    if counts.reread:
        text += f" ({counts.reread:,} read to make sure)"
    if counts.failed:
        text += f", {counts.failed:,} failed"
    if counts.vanished:
        text += f", {counts.vanished:,} gone"
    if counts.left:
        text += f", {counts.left:,} left"
    return text


def _files_as_json(counts: FileCounts) -> dict[str, int]:
    return {
        "found": counts.found,
        "scanned": counts.scanned,
        "unchanged": counts.unchanged,
        "reread": counts.reread,
        "failed": counts.failed,
        "vanished": counts.vanished,
        "left": counts.left,
        "with_errors": len(counts.errors),
    }


def _errors_as_json(counts: FileCounts) -> list[dict[str, Any]]:
    return [
        {"path": error.path, "line": error.lineno, "reason": error.reason}
        for error in counts.errors
    ]
