"""Locations of files that are reached over SSH."""

from __future__ import annotations

import posixpath
import re
import weakref
from typing import Final, NamedTuple, Self
from urllib.parse import quote_from_bytes, unquote_to_bytes

from .inspection import StateOf
from .locationbase import CLocation

__all__ = ["CServerName", "CSshFileLocation", "IsSshUrl"]

_kScheme: Final = "ssh://"

# Narrow on purpose: both may end up on the command line of a proxy that the user has configured.
_user: Final = re.compile(r"[A-Za-z0-9_][A-Za-z0-9._+@-]*")
_host: Final = re.compile(r"[A-Za-z0-9_][A-Za-z0-9._-]*|\[[0-9A-Fa-f:.]+(?:%25[A-Za-z0-9]+)?\]")


class CServerName(NamedTuple):
    """A server as the user named it.

    `user` is empty and `port` is 0 where that is left to the configuration of SSH.
    """

    user: str
    host: str
    port: int

    def __str__(self) -> str:
        """The URL without a path."""
        user = f"{self.user}@" if self.user else ""
        port = f":{self.port}" if self.port else ""
        return f"{_kScheme}{user}{self.host}{port}"


def IsSshUrl(text: str) -> bool:
    """Whether `text` is meant to be the URL of a file on an SSH server."""
    return text[: len(_kScheme)].lower() == _kScheme


class CSshFileLocation(CLocation):
    """A file or folder on an SSH server: "ssh://[user@]host[:port]/path".

    There is one object for each place, as with local files, and nothing is known of it until it
    has been inspected. `server` names the server, `path` is absolute and normal by its text alone;
    bytes of it that aren't UTF-8 are surrogate escapes. In `fUrl` the host is in lower case and
    the path percent-encoded. A URL that names the default port and one that names none are two.
    """

    __slots__ = ("server", "path", "_parent", "_url")

    fAsyncInspect = True

    server: CServerName
    path: str
    # Held, so that what is known of the folders around a file lasts as long as the file does.
    _parent: CSshFileLocation | None
    _url: str | None

    def __new__(cls, server: CServerName, path: str) -> Self:
        """Raises `ValueError` for a path that isn't absolute or that has a null character."""
        found = _interned.get((server, path))
        if isinstance(found, cls):  # only normal paths are keys
            return found
        if not path.startswith("/") or "\0" in path:
            raise ValueError(f"not an absolute path: {path!r}")
        path = posixpath.normpath(path)
        if path.startswith("//"):  # POSIX leaves exactly two slashes alone
            path = path[1:]
        return cls._OfNormal(server, path)

    @classmethod
    def _OfNormal(cls, server: CServerName, path: str) -> Self:
        found = _interned.get((server, path))
        if isinstance(found, cls):
            return found
        self = super().__new__(cls)
        self.server = server
        self.path = path
        self._parent = None
        self._url = None
        _interned[server, path] = self
        return self

    @classmethod
    def FromUrl(cls, url: str) -> Self:
        """The location that a URL names. Raises `ValueError` that tells what is wrong with it.

        The path may be percent-encoded or not.
        """
        if not IsSshUrl(url):
            raise ValueError(f"not the URL of a file on an SSH server: {url!r}")
        authority, slash, path = url[len(_kScheme) :].partition("/")
        if not slash:
            raise ValueError(f"no path in {url!r}: one that begins with / is needed")
        user, _, place = authority.rpartition("@")
        if ":" in user:
            raise ValueError("a password can't stand in a URL: use a key or an agent")
        host, port_text = _SplitPort(place)
        if (user and not _user.fullmatch(user)) or not _host.fullmatch(host):
            raise ValueError(f"not a user and host: {authority!r}")
        port = 0
        if port_text:
            port = int(port_text) if port_text.isascii() and port_text.isdigit() else -1
            if not 0 < port < 65536:
                raise ValueError(f"not a port: {port_text!r}")
        if path == "~" or path.startswith("~/"):
            raise ValueError(f"the path in {url!r} must be absolute, without ~")
        text = unquote_to_bytes(path.encode("utf-8", "surrogateescape"))
        decoded = text.decode("utf-8", "surrogateescape")
        return cls(CServerName(user, host.lower(), port), "/" + decoded)

    @property
    def fUrl(self) -> str:
        """The percent-encoded "ssh:" URL."""
        if self._url is None:
            path = quote_from_bytes(self.fBytesPath)
            if path.startswith("/~"):
                path = "/%7E" + path[2:]  # a folder of that name, and nobody's home
            self._url = str(self.server) + path
        return self._url

    @property
    def fBytesPath(self) -> bytes:
        """The path as it goes over the wire."""
        return self.path.encode("utf-8", "surrogateescape")

    def GetParentDir(self) -> CSshFileLocation:
        if self.path == "/":
            return self
        if self._parent is None:
            self._parent = self._OfNormal(self.server, posixpath.dirname(self.path))
        return self._parent

    def Child(self, name: str) -> CSshFileLocation:
        """What lies in this folder under `name`, which is one name and no path."""
        return self._OfNormal(self.server, posixpath.join(self.path, name))

    def IsReady(self) -> bool:
        return StateOf(self) is not None

    def __repr__(self) -> str:
        return f"{type(self).__name__}({self.fUrl!r})"

    def __reduce__(self) -> tuple[type[Self], tuple[CServerName, str]]:
        return type(self), (self.server, self.path)  # a copy is the same object


def _SplitPort(place: str) -> tuple[str, str]:
    """Host and port; colons inside of the brackets of an address separate nothing."""
    if place.startswith("["):
        host, bracket, rest = place.partition("]")
        return host + bracket + rest.partition(":")[0], rest.partition(":")[2]
    host, _, port = place.partition(":")
    return host, port


_interned: weakref.WeakValueDictionary[tuple[CServerName, str], CSshFileLocation]
_interned = weakref.WeakValueDictionary()
