"""Short ways to scan a text and to read the results."""

from typing import NamedTuple

from loom._pyscan import SourceScanner, unpack_info


class Scope(NamedTuple):
    """One scope of a scanned source."""

    name: str
    parent: int
    kind: str
    lineno: int
    end_lineno: int
    info: dict[str, bytes]


class Scanned:
    """All results of a finished scan."""

    def __init__(self, source: str | bytes, chunk: int = 1 << 20) -> None:
        self.data = data = source.encode() if isinstance(source, str) else source
        scanner = SourceScanner(data)
        self.calls = 1
        while not scanner.scan(chunk):
            self.calls += 1
        self.raw = (
            scanner.scopes(),
            scanner.names(),
            scanner.definitions(),
            scanner.imports(),
            scanner.errors(),
        )
        self.scopes = [
            Scope(name, parent, chr(kind), lineno, end, unpack_info(packed))
            for name, parent, kind, lineno, end, packed in self.raw[0]
        ]
        self.names = [(s, name, chr(kind), line) for s, name, kind, line in self.raw[1]]
        self.definitions = [(s, name, chr(kind), line) for s, name, kind, line in self.raw[2]]
        self.imports = self.raw[3]
        self.errors = self.raw[4]
        self.steps = scanner._steps
        self.position = scanner.position

    def with_uses(self, chunk: int = 1 << 20) -> "Scanned":
        """Scan once more for `uses`, `used`; everything else must come out the same."""
        scanner = SourceScanner(self.data, uses=True)
        while not scanner.scan(chunk):
            self.calls += 1
        raw = (
            scanner.scopes(),
            scanner.names(),
            scanner.definitions(),
            scanner.imports(),
            scanner.errors(),
        )
        assert raw == self.raw
        self.uses = [
            (scope, home, text, chr(kind), line, column)
            for scope, home, text, kind, line, column in scanner.uses()
        ]
        self.used = [(home, text, chr(kind)) for home, text, kind in scanner.used()]
        return self

    def scope(self, name: str) -> Scope:
        """Return the scope of that name."""
        [scope] = [scope for scope in self.scopes if scope.name == name]
        return scope

    def info(self, name: str, scope: str = "") -> bytes:
        """Return the information of a name in a scope."""
        return self.scope(scope).info[name]

    def bound(self, scope: str = "") -> list[tuple[str, str, int]]:
        """Return (name, kind, line) of each binding in a scope."""
        index = [s.name for s in self.scopes].index(scope)
        return [(name, kind, line) for s, name, kind, line in self.names if s == index]
