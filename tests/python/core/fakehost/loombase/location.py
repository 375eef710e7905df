"""Locations of the fake host: local ones, and remote ones that must be inspected first."""

from collections.abc import Callable, Sequence
from typing import Any

import hostlog

_interned: dict[tuple[type, str], Any] = {}
_inspections: list[tuple[list[Any], Callable[[bool], Any], Any]] = []


class CFileLocation:
    """A file by its URL. Equality and hash are those of identity; `at` interns."""

    def __init__(self, url: str) -> None:
        self.fUrl = url
        self.ready = True

    @classmethod
    def at(cls, url: str) -> Any:
        """The one location of this class with the URL."""
        key = (cls, url)
        if key not in _interned:
            _interned[key] = cls(url)
        return _interned[key]

    def GetParentDir(self) -> Any:
        """The location of the folder."""
        return type(self).at(self.fUrl.rsplit("/", 1)[0])

    def IsReady(self) -> bool:
        """Whether remote inspection is done; set by tests through `ready`."""
        return self.ready

    def __repr__(self) -> str:
        return f"<{self.fUrl}>"


class CLocalFileLocation(CFileLocation):
    """A file on this machine."""


class CRemoteFileLocation(CFileLocation):
    """A file that must be inspected before use."""


def IsAsyncInspectLocation(loc: Any) -> bool:
    """Whether the location needs asynchronous inspection before use. Not noted in the log."""
    return isinstance(loc, CRemoteFileLocation)


def _WaitForInspectMultiple(
    loc_seq: Sequence[Any], callback: Callable[[bool], Any], force: Any
) -> None:
    """Keep the request until `finish_inspections`."""
    hostlog.note("_WaitForInspectMultiple", loc_seq, callback, force)
    _inspections.append((list(loc_seq), callback, force))


def finish_inspections(abort: bool = False) -> int:
    """For tests: answer all requests so far; returns how many there were."""
    requests = _inspections[:]
    _inspections.clear()
    for _locs, callback, _force in requests:
        callback(abort)
    return len(requests)


def reset() -> None:
    """Forget interned locations and open inspections."""
    _interned.clear()
    _inspections.clear()
