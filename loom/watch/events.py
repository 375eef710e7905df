"""What happens in followed folders, and who tells of it."""

from __future__ import annotations

import os
from collections.abc import Iterator
from enum import Enum, auto
from typing import NamedTuple, Protocol

__all__ = ["Change", "Event", "EventSource", "NoMoreWatchesError"]


class Change(Enum):
    """What happened to an entry of a folder, to the folder itself, or to the events."""

    APPEARED = auto()  # made here, or moved to here
    WRITTEN = auto()  # closed by somebody who wrote, or given other attributes
    GONE = auto()  # deleted, or moved away
    FOLDER_GONE = auto()  # the followed folder itself, which has no name in the event
    LOST = auto()  # events were lost; nothing is known of what else happened


class Event(NamedTuple):
    """One event. `folder` is empty for lost events, `name` if it isn't about an entry."""

    change: Change
    folder: str = ""
    name: str = ""
    is_folder: bool = False

    @property
    def path(self) -> str:
        return os.path.join(self.folder, self.name) if self.name else self.folder


class NoMoreWatchesError(Exception):
    """No further folder can be followed this way. The text says why."""


class EventSource(Protocol):
    """Hears of what happens in folders, not in those below them."""

    def watch(self, folder: str) -> None:
        """Begin to hear of a folder, anew if it is followed already.

        Raises `NoMoreWatchesError`, or `OSError` for a folder that can't be followed.
        """

    def unwatch(self, folder: str) -> None:
        """Hear no more of a folder. One that isn't followed is no error."""

    def fileno(self) -> int:
        """The descriptor that is readable when there is something to `read`."""

    def read(self) -> Iterator[Event]:
        """What has happened, in its order; some of it, if there is very much."""

    def close(self) -> None:
        """The end of it."""
