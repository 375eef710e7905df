"""The native scanner of Python source: what each scope of a file defines."""

from collections.abc import Mapping
from typing import Self, final

@final
class SourceScanner:
    """A resumable scan of Python source.

    `source` is UTF-8 and may start with a byte order mark; it need be neither valid UTF-8 nor valid
    Python. It is kept and not copied. Anything but bytes is a TypeError, 4 GiB or more a ValueError.
    With `uses`, the uses of names are recorded, too, which takes about as long as the rest.

    All results can be asked for at any time and cover what has been scanned so far. They do not
    depend on how the scan was divided. Long lists can be asked for in parts: `limit` items from item
    `first` on, or all if `limit` is -1; what lies behind the end is empty, a negative `first` or a
    smaller `limit` is a ValueError. A kind is the number of a kind character: see docs/scanner.md
    for those that occur and for the form of the information. Names that are no valid UTF-8 have
    escapes such as "\\xff" in place of the bytes. Line numbers count from 1.
    """

    def __new__(cls, source: bytes, uses: bool = False) -> Self: ...
    def scan(self, max_bytes: int) -> bool:
        """Go on for about `max_bytes` bytes, and at least one token.

        Return True when the whole source is scanned; further calls do nothing then. A `max_bytes`
        below 1 is a ValueError.
        """

    def may_grow(self, scope: int) -> bool:
        """Return whether what follows may still add to the scope with this index.

        True for a scope that hasn't been found yet, False for all when the source is scanned. A
        negative index is a ValueError.
        """

    @property
    def position(self) -> int:
        """How many bytes of the source have been walked; `len(source)` at the end."""

    @property
    def _steps(self) -> int:
        """How much work was done: bytes walked and tokens looked at."""

    def scopes(
        self, first: int = 0, limit: int = -1
    ) -> list[tuple[str, int, int, int, int, bytes]]:
        """Return (name, parent, kind, lineno, end_lineno, packed information) of each scope.

        The module is the first, the others follow in the order in which they begin; `parent` is an
        index in this list, -1 for the module. `lineno` is that of "def", "class" or "async",
        `end_lineno` that of the last token of the body.
        """

    def names(self, first: int = 0, limit: int = -1) -> list[tuple[int, str, int, int]]:
        """Return (scope index, name, kind, lineno) of each binding of a name, in order."""

    def definitions(self, first: int = 0, limit: int = -1) -> list[tuple[int, str, int, int]]:
        """Return (scope index, name, kind, lineno) of what is worth finding from anywhere.

        These are classes, functions, methods and type aliases, the names that assignments of a module
        or class bind (each once, kind "="), and the attributes that methods give to their instances
        (each once a class, the bare attribute, kind "I", in the scope of the method).
        """

    def export_digest(self) -> bytes:
        """Return 16 bytes that stay the same unless what other files can see has changed.

        That are the names of the module and of classes with their information, the arguments and
        results of functions, and attributes of instances; no line numbers and nothing else inside of
        functions, unless their results quote it. A ValueError before the scan is over.
        """

    def uses(
        self, first: int = 0, limit: int = -1
    ) -> list[tuple[int, int, str, int, int, int]]:
        """Return (scope index, home, text, kind, lineno, column) of each place where a name stands.

        `text` is the name with the attributes behind it, "a.b.c"; ".b" are attributes of something
        that isn't a name; for a name of a from-import, kind "f", "module name". `home` is the index of
        the scope that the first name belongs to, -1 for one that no scope of the file binds, -2 for one
        that a comprehension or a lambda binds, -3 for what is no name of a scope. `column` is that of
        the first name, in bytes from the begin of its line, from 0. In order of places.

        A ValueError unless the scanner was made with `uses` and the scan is over; the same for `used`.
        """

    def used(self, first: int = 0, limit: int = -1) -> list[tuple[int, str, int]]:
        """Return (home, text, kind) of what `uses` tells, each once.

        Plain variables of functions, comprehensions and lambdas are left out. `first` and `limit` count
        groups of uses, of which not all are listed: a part can be shorter than its limit, or empty.
        Whoever takes parts needs `used_groups`.
        """

    @property
    def used_groups(self) -> int:
        """How many groups of uses `used` walks over."""

    def imports(self) -> list[bytes]:
        """Return the import equivalents, each once: b":ia.b" or b":fmodule name"."""

    def errors(self) -> list[tuple[int, str]]:
        """Return (lineno, remark) for what is wrong with the source, at most 100."""

def unpack_info(packed: bytes) -> dict[str, bytes]:
    """Return the names of a scope with their information strings, in order of appearance.

    Empty bytes stand for no names. Damaged data is a ValueError.
    """

def pack_info(info: Mapping[str, bytes]) -> bytes:
    """Return the packed form of names with information strings; the inverse of `unpack_info`."""
