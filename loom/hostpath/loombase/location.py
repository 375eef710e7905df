"""Locations of files and folders.

A location is a name, not an open file: it can be made for what doesn't exist. There is one object
for each place, so that locations are compared and hashed by identity. An object that nobody holds
any more is forgotten, so that memory follows what is in use.
"""

from __future__ import annotations

import os
import re
import weakref
from collections.abc import Callable, Iterable
from functools import partial
from typing import Self
from urllib.parse import quote_from_bytes, unquote_to_bytes, urlsplit

from .inspection import GetInspector
from .locationbase import CLocation
from .sshlocation import CServerName, CSshFileLocation, IsSshUrl

__all__ = [
    "CLocalFileLocation",
    "CLocation",
    "CServerName",
    "CSshFileLocation",
    "IsAsyncInspectLocation",
    "IsSshUrl",
    "LocationFromUrl",
]


class CLocalFileLocation(CLocation):
    """A file or folder of the local file system.

    `path` is made absolute and loses "." and ".." by its text alone: links are never followed, so
    that a name stays what the user typed and a loop of links can't hang anything. Names that
    aren't UTF-8 are kept as the operating system has them: in `path` by surrogate escapes, as in
    `os.fsdecode`, in `fUrl` percent-encoded byte by byte.

    Raises `ValueError` for an empty path or one with a null character.
    """

    __slots__ = ("path", "_url")

    path: str
    _url: str | None

    def __new__(cls, path: str | bytes | os.PathLike[str] | os.PathLike[bytes]) -> Self:
        text = path if type(path) is str else os.fsdecode(path)
        ref = _interned.get((cls, text))  # only normal paths are keys
        found = None if ref is None else ref()
        if isinstance(found, cls):
            return found
        if not text or "\0" in text:
            raise ValueError(f"not a path: {text!r}")
        if _is_normal(text) is not None:
            return cls._new(text)
        text = os.path.abspath(text)
        if text.startswith("//"):  # POSIX leaves exactly two slashes alone
            text = text[1:]
        return cls._of_normal(text)

    @classmethod
    def _of_normal(cls, path: str) -> Self:
        """The location of a path that is absolute and normal already."""
        ref = _interned.get((cls, path))
        found = None if ref is None else ref()
        return found if isinstance(found, cls) else cls._new(path)

    @classmethod
    def _new(cls, path: str) -> Self:
        self = object.__new__(cls)
        self.path = path
        self._url = None
        key = (cls, path)
        _interned[key] = weakref.ref(self, partial(_forget, key))
        return self

    @property
    def fUrl(self) -> str:
        """The percent-encoded "file:" URL."""
        if self._url is None:
            if _is_plain(self.path) is not None:
                self._url = f"file://{self.path}"
            else:
                self._url = "file://" + quote_from_bytes(os.fsencode(self.path))
        return self._url

    @property
    def fShownName(self) -> str:
        return self.path

    def GetParentDir(self) -> CLocalFileLocation:
        return self._of_normal(os.path.dirname(self.path))  # of a normal path it is normal

    def __fspath__(self) -> str:
        return self.path

    def __repr__(self) -> str:
        return f"{type(self).__name__}({self.path!r})"

    def __reduce__(self) -> tuple[type[Self], tuple[str]]:
        return type(self), (self.path,)  # a copy is the same object


# Paths that are certainly normal, and paths in which no character must be quoted: nearly all there
# are, and the long way takes longer than finding the file does.
_is_normal = re.compile(r"(?:/[^/.\0][^/\0]*)+").fullmatch
_is_plain = re.compile(r"[A-Za-z0-9_.~/-]*").fullmatch

_Key = tuple[type[CLocalFileLocation], str]

# As a `WeakValueDictionary`, in half the time.
_interned: dict[_Key, weakref.ref[CLocalFileLocation]] = {}


def _forget(key: _Key, ref: weakref.ref[CLocalFileLocation]) -> None:
    if _interned.get(key) is ref:  # else there is a new object already
        del _interned[key]


def LocationFromUrl(url: str) -> CLocalFileLocation | CSshFileLocation:
    """The location with this `fUrl`.

    Raises `ValueError` for what is neither a local "file:" URL nor an "ssh:" URL.
    """
    if IsSshUrl(url):
        return CSshFileLocation.FromUrl(url)
    parts = urlsplit(url)
    if parts.scheme != "file" or parts.netloc not in ("", "localhost") or not parts.path:
        raise ValueError(f"not the URL of a local file: {url!r}")
    return CLocalFileLocation(unquote_to_bytes(parts.path))


def IsAsyncInspectLocation(loc: CLocation) -> bool:
    """Whether the location must be inspected asynchronously before use. Local ones never."""
    return loc.fAsyncInspect


def _WaitForInspectMultiple(
    loc_seq: Iterable[CLocation], callback: Callable[[bool], object], force: bool = False
) -> None:
    """Call `callback(abort)` once, when all the locations are inspected.

    If they are already, as local ones always are, the call comes before this returns. `force` asks
    for a fresh inspection of the others. `abort` is true if one couldn't be inspected because its
    server gave up, or because this host has no inspector.
    """
    remote = [loc for loc in loc_seq if loc.fAsyncInspect]
    if not force and all(loc.IsReady() for loc in remote):
        callback(False)
        return
    inspector = GetInspector()
    if inspector is None or not remote:
        callback(bool(remote))
    else:
        inspector.Inspect(remote, callback, force)
