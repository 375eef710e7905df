"""Progress of `loom scan` on standard error: a live bar on a terminal, else a line a second."""

from __future__ import annotations

import os
import sys
from types import TracebackType
from typing import TYPE_CHECKING, Final

from guiutils import lgtk
from loombase.destroyable import CDestroyable

from loom.scansession import ScanSession

if TYPE_CHECKING:
    from rich.progress import Progress

    from loom.scancounts import ScanCounts
    from pysource.scancoordinator import CScanStatus

__all__ = ["make_display"]

# Often enough to look alive, seldom enough to cost nothing: drawing takes a millisecond or two.
_REDRAW_MILLISECONDS: Final = 150


class _Display(CDestroyable):
    """Follows a session from the `with` statement's start to its end."""

    def __init__(self, session: ScanSession) -> None:
        super().__init__()
        self._session = session
        session.app.coordinator.connect_while_alive(
            "scan-status-update", self._status_updated, self
        )

    def __enter__(self) -> None:
        self._begin()

    def __exit__(
        self,
        kind: type[BaseException] | None,
        error: BaseException | None,
        traceback: TracebackType | None,
    ) -> None:
        self._end()
        self.destroy()

    def _begin(self) -> None:
        """Show that work begins."""

    def _end(self) -> None:
        """Take away what is only of passing interest."""

    def _status_updated(self, coordinator: object, status: CScanStatus) -> None:
        """The scheduler's news of each second."""
        self._session.update_queued()
        self._show(status)

    def _show(self, status: CScanStatus) -> None:
        raise NotImplementedError


class _Lines(_Display):
    """A plain line for each status update."""

    def _show(self, status: CScanStatus) -> None:
        counts = self._session.counts
        found = f"{counts.total}" if counts.all_found else f"{counts.total} found so far"
        waiting = f", {status.waiting_count} waiting" if status.waiting_count else ""
        derive = f", {counts.to_derive} to derive" if counts.to_derive else ""
        print(f"loom: {counts.done} of {found} files done{derive}{waiting}", file=sys.stderr)


class _Bar(_Display):
    """A bar that is redrawn a few times a second from the session's own counts."""

    def __init__(self, session: ScanSession) -> None:
        super().__init__(session)
        from rich.console import Console
        from rich.progress import (
            BarColumn,
            MofNCompleteColumn,
            Progress,
            SpinnerColumn,
            TextColumn,
            TimeElapsedColumn,
        )

        self._progress: Progress = Progress(
            SpinnerColumn(),
            TextColumn("{task.description}"),
            BarColumn(),
            MofNCompleteColumn(),
            TextColumn("{task.fields[detail]}"),
            TimeElapsedColumn(),
            console=Console(stderr=True),
            auto_refresh=False,  # that would be a thread; this is the main loop's own timer
            transient=True,
        )
        self._task = self._progress.add_task("finding files", total=None, detail="")

    def _begin(self) -> None:
        self._progress.start()
        lgtk.timeout_add_while_alive(_REDRAW_MILLISECONDS, self._redraw, self)

    def _end(self) -> None:
        self._progress.stop()

    def _show(self, status: CScanStatus) -> None:
        self._redraw()

    def _redraw(self) -> bool:
        self._session.update_queued()
        # The scheduler's news stop while all that is left waits.
        waiting = self._session.app.coordinator.GetStatus().waiting_count
        counts = self._session.counts
        detail = f"{counts.definitions:,} definitions"
        if counts.to_derive:
            detail += f", {counts.to_derive:,} to derive"
        if waiting:
            detail += f", {waiting} waiting"
        if counts.errors:
            detail += f", {len(counts.errors)} with errors"
        self._progress.update(
            self._task,
            description=_description(counts),
            total=counts.total,
            completed=counts.done,
            detail=detail,
        )
        self._progress.refresh()
        return True


def _description(counts: ScanCounts) -> str:
    if not counts.all_found:
        return "finding and scanning"
    return "deriving" if counts.to_derive and counts.done == counts.total else "scanning"


def make_display(session: ScanSession, live: bool) -> _Display:
    """A display for the session: a bar if that is wanted and possible, else lines."""
    terminal = sys.stderr.isatty() and os.environ.get("TERM", "dumb") != "dumb"
    return _Bar(session) if live and terminal else _Lines(session)
