"""What `loom watch` says: JSON lines, plain lines, or lines above a live one on a terminal."""

from __future__ import annotations

import json
import os
import shutil
import sys
from collections.abc import Callable, Mapping
from typing import Any, Final, TextIO

from guiutils import lgtk
from loombase.destroyable import CDestroyable

from loom.cli.output import OutputError, escape, finish_output, give_up_output, styled, write
from loom.watch.session import WatchSession

__all__ = ["make_view"]

_REDRAW_MILLISECONDS: Final = 200

_CLEAR_LINE: Final = "\r\x1b[K"


class _View(CDestroyable):
    """Follows a session. `give_up` is called when nobody reads any more; `error` says why."""

    def __init__(self, session: WatchSession, give_up: Callable[[], object]) -> None:
        super().__init__()
        self._session = session
        self._give_up = give_up
        self.error: OutputError | None = None
        session.connect_while_alive("event", self._event, self)

    def _event(self, _session: object, event: Mapping[str, Any]) -> None:
        if self.error is not None:
            return
        try:
            self._show(event)
            finish_output()  # whoever reads waits for the line
        except OutputError as error:
            # It must not go up to the engine, which would take it for a failed scan.
            self.error = error
            self._give_up()

    def _show(self, event: Mapping[str, Any]) -> None:
        raise NotImplementedError

    def hang_up(self) -> None:
        """The terminal is closed: write nothing any more."""
        give_up_output(sys.stdout, sys.stderr)


class _Json(_View):
    """One JSON document a line for each event."""

    def _show(self, event: Mapping[str, Any]) -> None:
        write(json.dumps(event))


class _Lines(_View):
    """A line for each event that a reader wants to know of."""

    def _show(self, event: Mapping[str, Any]) -> None:
        text = self._text(event)
        if text:
            write(text)

    def _text(self, event: Mapping[str, Any]) -> str:
        match event["event"]:
            case "started":
                return f"watching {', '.join(map(escape, event['paths']))}"
            case "scanned":
                return f"{styled('scanned', fg='green')}    {escape(event['path'])}"
            case "forgotten":
                return f"{styled('forgotten', fg='cyan')}  {escape(event['path'])}"
            case "failed" | "error":
                place = escape(event["path"]) + (f":{event['line']}" if event["line"] else "")
                return f"{styled('error', fg='yellow')}      {place}: {escape(event['reason'])}"
            case "polling":
                return f"polling each {event['seconds']:g} s or more: {event['reason']}"
            case "events-lost":
                return "events were lost: looking at everything again"
            case "paused" | "resumed" as word:
                return str(word)
            case "at-rest":
                return self._rest(event)
        return ""

    def _rest(self, event: Mapping[str, Any]) -> str:
        done = f"{event['scanned']:,} scanned, {event['unchanged']:,} unchanged"
        for word in ("failed", "forgotten"):
            if event[word]:
                done += f", {event[word]:,} {word}"
        return f"at rest: {done} in {event['seconds']:.2f} s"


class _Live(_Lines):
    """Lines, and below them on the terminal one that is drawn anew: it tells the state."""

    def __init__(
        self, session: WatchSession, give_up: Callable[[], object], terminal: TextIO, hint: str
    ) -> None:
        self._terminal = terminal
        self._hint = hint
        self._redraw_timer: int | None = None
        super().__init__(session, give_up)
        session.app.coordinator.connect_while_alive("scheduled", self._keep_drawing, self)

    def _show(self, event: Mapping[str, Any]) -> None:
        self._draw(_CLEAR_LINE)
        super()._show(event)
        finish_output()
        if event["event"] != "ended":
            self._draw(_CLEAR_LINE + self._state())

    def _text(self, event: Mapping[str, Any]) -> str:
        # The live line tells the other states.
        if event["event"] in ("paused", "resumed"):
            return ""
        return super()._text(event)

    def _keep_drawing(self) -> None:
        if self._redraw_timer is None:
            self._redraw_timer = lgtk.timeout_add_while_alive(
                _REDRAW_MILLISECONDS, self._redraw, self
            )

    def _redraw(self) -> bool:
        """Until the session is at rest; then nothing wakes us."""
        self._draw(_CLEAR_LINE + self._state())
        if self._session.at_rest or self._session.is_paused:
            self._redraw_timer = None
            return False
        return True

    def _state(self) -> str:
        session = self._session
        session.scan.update_queued()
        counts = session.scan.counts
        folders = f"{len(session.follower.tree):,} folders"
        if session.is_paused:
            state = f"paused, {counts.queued:,} files wait"
        elif session.at_rest:
            state = "at rest"
        else:
            state = f"scanning: {counts.done:,} of {counts.total:,} files"
        line = f"{state}, {folders}{self._hint}"
        return line[: max(0, shutil.get_terminal_size().columns - 1)]

    def _draw(self, text: str) -> None:
        try:
            self._terminal.write(text)
            self._terminal.flush()
        except OSError as error:
            if self.error is None:
                self.error = OutputError()
                self.error.__cause__ = error
                self._give_up()

    def _destroy_impl(self) -> None:
        self._draw(_CLEAR_LINE)


def make_view(
    session: WatchSession, give_up: Callable[[], object], as_json: bool, live: bool, has_keys: bool
) -> _View:
    """A view of the session: JSON lines if they are wanted, a live line if that is possible."""
    if as_json:
        return _Json(session, give_up)
    if live and sys.stderr.isatty() and os.environ.get("TERM", "dumb") != "dumb":
        hint = "   [p]ause [q]uit" if has_keys else ""
        return _Live(session, give_up, sys.stderr, hint)
    return _Lines(session, give_up)
