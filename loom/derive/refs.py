"""Who refers to a name: exact where the derived results or the inference tell, else by the name alone.

The derived results say which files use a name at all. Where in such a file it stands is found by a
look at the file; who it is that is meant there, by the facts that are stored, then by the inference as
long as there is time. What stays open is a candidate. Of a file without valid derived results, the text
is searched.
"""

from __future__ import annotations

import os
import sqlite3
from collections.abc import Collection, Iterator, Sequence
from dataclasses import dataclass
from typing import TYPE_CHECKING, Final, NamedTuple

from loombase.location import CLocalFileLocation, CLocation
from pysource.symbolinfo import ParentScopeName

from loom import freshness
from loom._pyscan import SourceScanner
from loom.derive.facts import Facts, Namer, unpack
from loom.infer import api, modules
from loom.infer.define import definitions_at
from loom.sourcetext import SourceError, SourceText, decode_source, read_source
from loom.store import queries
from loom.store.derived import stored_record

if TYPE_CHECKING:
    from loom.infer.context import CInferenceContext
    from loom.infer.places import Place

__all__ = ["References", "Reference"]

_kBuiltins: Final = "builtins"
_kNoFacts: Final = Facts({}, {}, {})

_NOWHERE, _NO_HOME = -1, -3

_kKinds: Final = {
    "r": "use",
    "k": "keyword",
    "i": "import",
    "f": "import",
}


@dataclass(frozen=True, slots=True)
class Reference:
    """One place. Lines and columns count from 1, columns in characters.

    `kind` is "use", "keyword" or "import"; `target` is what is meant, as
    `module:scope.name`, empty for a mere candidate.
    """

    path: str
    line: int
    column: int
    kind: str
    scope: str
    text: str
    target: str

    @property
    def certain(self) -> bool:
        return bool(self.target)


class _Use(NamedTuple):
    scope: int
    home: int
    text: str
    kind: str
    line: int
    column: int


class _File:
    """A file that may hold references: its scopes, uses, lines and facts."""

    def __init__(self, loc: CLocalFileLocation, data: bytes, facts: Facts | None) -> None:
        scanner = SourceScanner(data, uses=True)
        while not scanner.scan(1 << 20):
            pass
        self.loc = loc
        self.facts = _kNoFacts if facts is None else facts
        self.known = facts is not None
        self.scopes = [(row[0], row[1], chr(row[2])) for row in scanner.scopes()]
        self.uses = [_Use(s, h, t, chr(k), line, c) for s, h, t, k, line, c in scanner.uses()]
        self._bom = 3 if data.startswith(b"\xef\xbb\xbf") else 0
        self._lines = data[self._bom :].replace(b"\r\n", b"\n").replace(b"\r", b"\n").split(b"\n")

    def line(self, number: int) -> bytes:
        return self._lines[number - 1] if number <= len(self._lines) else b""

    def class_around(self, scope: int) -> int | None:
        """The class that a method, or a function in it, belongs to."""
        while scope > 0:
            parent = self.scopes[scope][1]
            if self.scopes[scope][2] == "m":
                return parent
            scope = parent
        return None


class References:
    """The references to `name`, which is a bare name, or dotted: `module.name`, `Class.method`.

    `namer` names files as modules. The context's deadline holds for all questions; `partial` tells
    afterwards that it came before everything was looked at.
    """

    def __init__(
        self,
        connection: sqlite3.Connection,
        name: str,
        namer: Namer,
        context: CInferenceContext,
        folder: CLocalFileLocation,
    ) -> None:
        self.name = name
        self.partial = False
        self._connection = connection
        self._last = name.rpartition(".")[2]
        self._namer = namer
        self._context = context
        self._folder = folder
        # All definitions of the last part of the name, and those that are meant, as targets.
        self._definers: set[str] = set()
        self.targets: set[str] = set()
        self._find_targets()

    # --- what is meant

    def _find_targets(self) -> None:
        wanted = f".{self.name}"
        for found in queries.find_name(self._connection, self._last):
            path = queries.path_of(found.url)
            if path is None:
                continue
            scope = found.scope
            if found.kind == "I":  # an attribute that a method gives to its instance
                scope = ParentScopeName(scope)
            target = self._namer.place(CLocalFileLocation(path), scope, found.name)
            self._definers.add(target)
            if f".{target.replace(':', '.')}".endswith(wanted):
                self.targets.add(target)
        if "." in self.name:
            self._find_imported_targets()
        if "." in self.name and not self.targets:
            self._find_inherited_targets()
        module = modules.find_module(self._context, self.name, self._folder)
        if module is not None and module.name:
            self.targets.add(f"{module.name}:")

    def _find_imported_targets(self) -> None:
        """A dotted name may lead through a module that only imports what it names."""
        before, _, last = self.name.rpartition(".")
        module = modules.find_module(self._context, before, self._folder)
        if module is None:
            return
        target = modules.module_attribute(self._context, module, last)
        if target is not None:
            for each in modules.follow(self._context, target):
                self.targets.add(self._namer.target(each))

    def _find_inherited_targets(self) -> None:
        """A class may have the attribute from another one."""
        before, _, last = self.name.rpartition(".")
        for found in queries.find_name(self._connection, before):
            path = queries.path_of(found.url)
            if path is None or found.kind != "C":
                continue
            loc = CLocalFileLocation(path)
            for cls in api.class_mro(loc, found.qualified_name, self._context):
                target = f"{self._namer.place(cls.loc, cls.scope_name)}.{last}"
                if target in self._definers:
                    self.targets.add(target)
                    break

    # --- where it may be meant

    def __iter__(self) -> Iterator[Reference]:
        for url, facts in self._files():
            if self._context.OutOfTime():
                self.partial = True
            yield from self._in_file(url, facts)

    def _last_names(self) -> set[str]:
        """How the name may be written where it is used: by its last part, or that of a target."""
        names = {self._last}
        for target in self.targets:
            names.add(target.rstrip(":").rpartition(":")[2].rpartition(".")[2])
        return names - {""}

    def _files(self) -> Iterator[tuple[str, Facts | None]]:
        """The files to look at: those that are known to use the name, then those not derived."""
        words = [f"\n{name}\n".encode() for name in sorted(self._last_names())]
        condition = " OR ".join("instr(names, ?)" for _ in words)
        derived = self._connection.execute(
            "SELECT id, url, mtime_ns, size FROM used_names JOIN files ON id = file_id"
            f" WHERE scans LIKE '% derived %' AND ({condition}) ORDER BY url",
            words,
        ).fetchall()
        for file_id, url, mtime_ns, size in derived:
            record = stored_record(self._connection, file_id)
            valid = record is not None and _is_unchanged(url, mtime_ns, size)
            yield url, unpack(record[1]) if record is not None and valid else None
        others = self._connection.execute(
            "SELECT url FROM files WHERE scans != '' AND scans NOT LIKE '% derived %' ORDER BY url"
        ).fetchall()
        for (url,) in others:
            if self._context.OutOfTime():
                self.partial = True
                return
            yield url, None

    def _in_file(self, url: str, facts: Facts | None) -> Iterator[Reference]:
        path = queries.path_of(url)
        data = None if path is None else _read(path)
        if path is None or data is None:
            return
        names = self._last_names()
        if facts is None and not any(name.encode() in data for name in names):
            return
        file = _File(CLocalFileLocation(path), data, facts)
        for use in file.uses:
            found = self._meant(file, use, names)
            if found is None:
                continue
            part, target = found
            yield self._reference(file, path, use, part, target)

    def _reference(
        self, file: _File, path: str, use: _Use, part: int, target: str
    ) -> Reference:
        line = file.line(use.line)
        column = self._column(use, part) if use.kind == "r" else use.column
        return Reference(
            path,
            use.line,
            len(line[:column].decode("utf-8", "replace")) + 1,
            _kKinds[use.kind],
            file.scopes[use.scope][0],
            line.decode("utf-8", "replace").strip(),
            target,
        )

    # --- who is meant

    def _meant(self, file: _File, use: _Use, names: set[str]) -> tuple[int, str] | None:
        """(index of the part of the chain, target) if a use may mean the name.

        The target is empty if that isn't sure; none if the use means something else.
        """
        match use.kind:
            case "r":
                return self._meant_by_chain(file, use, names)
            case "f":
                return self._meant_by_from(file, use, names)
            case "i":
                return self._meant_by_import(file, use)
            case "k" if use.text in names:
                return self._judge(0, self._inferred(file, use, 0))
            case _:
                return None

    def _meant_by_chain(
        self, file: _File, use: _Use, names: set[str]
    ) -> tuple[int, str] | None:
        components = use.text.lstrip(".").split(".")
        for index, component in enumerate(components):
            if component not in names and (index or not self._is_alias(file, use, component)):
                continue
            answers = self._by_facts(file, use, components[: index + 1])
            if answers is None:
                answers = self._inferred(file, use, index)
            found = self._judge(index, answers)
            if found is not None:
                return found
        return None

    def _judge(
        self, index: int, answers: Collection[str] | None
    ) -> tuple[int, str] | None:
        if answers is None:
            return index, ""
        return next(((index, answer) for answer in answers if answer in self.targets), None)

    def _is_alias(self, file: _File, use: _Use, name: str) -> bool:
        found = file.facts.imports.get((use.home, name), ())
        return not self.targets.isdisjoint(found)

    def _meant_by_import(self, file: _File, use: _Use) -> tuple[int, str] | None:
        for target in self.targets:
            if target.endswith(":"):
                module = _absolute(use.text, self._namer.module(file.loc), file.loc)
                if f"{module}.".startswith(f"{target[:-1]}."):
                    return 0, target
        return None

    def _meant_by_from(
        self, file: _File, use: _Use, names: set[str]
    ) -> tuple[int, str] | None:
        module, _, name = use.text.partition(" ")
        facts = file.facts.imports
        answers: Collection[str] = facts.get((use.scope, use.text)) or facts.get(
            (use.scope, name), ()
        )
        if name not in names:  # it may be another name for the same thing
            return self._judge(0, answers)
        if not answers and not self._is_late():
            targets = api.resolve_import(file.loc, module, name, self._context)
            answers = [self._namer.target(target) for target in targets]
        return self._judge(0, answers or None)

    def _is_late(self) -> bool:
        """Whether there is no time to ask the inference."""
        if self._context.OutOfTime():
            self.partial = True
        return self.partial

    def _inferred(self, file: _File, use: _Use, index: int) -> Collection[str] | None:
        """What the inference says of a part of a use; none if it doesn't know."""
        if self._is_late():
            return None
        line = file.line(use.line)
        column = len(line[: self._column(use, index)].decode("utf-8", "replace"))
        answer = definitions_at(file.loc, use.line, column, self._context)
        return [self._target_of(place) for place in answer.places] or None

    def _target_of(self, place: Place) -> str:
        scope_name = place.scope_name
        if place.kind == "attribute":
            scope_name = ParentScopeName(scope_name)
        return self._namer.place(place.loc, scope_name, place.name)

    def _column(self, use: _Use, index: int) -> int:
        """Where a part of a chain stands, in bytes, if the chain stands on one line."""
        components = use.text.lstrip(".").split(".")
        return use.column + sum(len(each.encode()) + 1 for each in components[:index])

    def _by_facts(
        self, file: _File, use: _Use, components: Sequence[str]
    ) -> Collection[str] | None:
        """What the beginning of a chain means by the stored facts; none if they don't tell."""
        first = components[0]
        if not file.known or use.home == _NO_HOME:
            return None
        if len(components) == 1:
            return self._root(file, use.home, first)
        if len(components) > 2 or use.home < 0:
            return None
        if file.scopes[use.home][2] == "m" and first == "self":
            around = file.class_around(use.home)
            return None if around is None else self._in_class(file, around, components[1])
        for target in file.facts.imports.get((use.home, first), ()):
            if target.endswith(":"):
                direct = f"{target}{components[1]}"
                if direct in self._definers:
                    return (direct,)
        return None

    def _root(self, file: _File, home: int, name: str) -> Collection[str] | None:
        known = file.facts.imports.get((home, name))
        if known is not None:
            return known or None
        if home == _NOWHERE:
            return (f"{_kBuiltins}:{name}",)
        if home < 0:
            return ()
        scope_name, _, kind = file.scopes[home]
        if kind in "FmM":
            return ()  # a variable of a function
        return (self._namer.place(file.loc, scope_name, name),)

    def _in_class(self, file: _File, scope: int, attribute: str) -> Collection[str] | None:
        """The first class that has an attribute, in the order in which they are searched."""
        if attribute != self._last:
            return None
        own = self._namer.place(file.loc, file.scopes[scope][0])
        for cls in (own, *file.facts.bases.get(scope, ())):
            place = f"{cls}.{attribute}"
            if place in self._definers:
                return (place,)
        return None


def _absolute(module: str, own: str, loc: CLocation) -> str:
    """A module name that may begin with dots, as seen from the module `own`."""
    name = module.lstrip(".")
    dots = len(module) - len(name)
    if not dots:
        return module
    is_package = loc.fUrl.rpartition("/")[2].startswith("__init__.")
    parts = own.split(".")
    keep = len(parts) - dots + (1 if is_package else 0)
    return ".".join([*parts[: max(keep, 0)], *([name] if name else [])])


def _is_unchanged(url: str, mtime_ns: int, size: int) -> bool:
    path = queries.path_of(url)
    if path is None:
        return False
    try:
        status = os.stat(path)
    except OSError:
        return False
    return freshness.mtime_ns_of(status) == mtime_ns and status.st_size == size


def _read(path: str) -> bytes | None:
    text = SourceText()
    try:
        for _ in read_source(path, text):
            pass
        for _ in decode_source(text):
            pass
    except SourceError:
        return None
    return bytes(text.data)

