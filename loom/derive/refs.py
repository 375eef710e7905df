"""Who refers to a name: exact where derived results or the inference tell, else by the name alone.

The derived results say which files use a name at all. Where in such a file it stands is found by a
look at the file; who is meant there, by the facts that are stored, then by the inference as long as
there is time. What stays open is a candidate. Of a file without valid derived results, the text is
searched.
"""

from __future__ import annotations

import os
import re
import sqlite3
from collections.abc import Collection, Iterator, Sequence
from dataclasses import dataclass
from typing import TYPE_CHECKING, Final, NamedTuple

from loombase.location import CLocalFileLocation, CLocation
from pysource.symbolinfo import ParentScopeName

from loom import freshness
from loom._pyscan import SourceScanner
from loom.derive.facts import Facts, Namer, unpack
from loom.infer import api, bindings, modules
from loom.infer.define import definitions_at
from loom.sourcetext import SourceError, SourceText, decode_source, read_source
from loom.store import queries
from loom.store.derived import stored_record

if TYPE_CHECKING:
    from loom.infer.context import CInferenceContext
    from loom.infer.places import Place
    from loom.infer.values import Target

__all__ = ["References", "Reference"]

_kBuiltins: Final = "builtins"
_kNoFacts: Final = Facts({}, {}, {})

_NOWHERE: Final = -1
_NO_HOME: Final = -3

_kBound: Final = ord("b")
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
    """A file that may hold references: its scopes, lines and facts, and the uses of some names."""

    def __init__(
        self, loc: CLocalFileLocation, data: bytes, facts: Facts | None, names: Collection[str]
    ) -> None:
        scanner = SourceScanner(data, uses=True)
        while not scanner.scan(1 << 20):
            pass
        self.loc = loc
        self.facts = _kNoFacts if facts is None else facts
        self.known = facts is not None
        self.names = names
        pattern = re.compile(rf"(?<!\w)(?:{'|'.join(map(re.escape, sorted(names)))})(?!\w)")
        self.uses = [
            _Use(scope, home, text, chr(kind), line, column)
            for scope, home, text, kind, line, column in scanner.uses()
            if kind != _kBound and pattern.search(text)
        ]
        self.scopes = (
            [(row[0], row[1], chr(row[2])) for row in scanner.scopes()] if self.uses else []
        )
        bom = 3 if data.startswith(b"\xef\xbb\xbf") else 0
        self._lines = data[bom:].splitlines() if self.uses else []

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
        self._attributes: dict[tuple[str, str], Collection[str] | None] = {}
        self._imports: dict[tuple[CLocation, str], Collection[str]] = {}
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
        """First what the stored facts tell, then what the inference does, then the candidates."""
        unknown: list[tuple[_File, _Use, int]] = []
        for file in self._files():
            for use in file.uses:
                for index, answers in self._by_facts(file, use):
                    if answers is None:
                        unknown.append((file, use, index))
                        break
                    target = self._meant(answers)
                    if target:
                        yield self._reference(file, use, index, target)
                        break
        candidates: list[tuple[_File, _Use, int]] = []
        for file, use, index in unknown:
            answers = self._inferred(file, use, index)
            if answers is None:
                candidates.append((file, use, index))
            elif target := self._meant(answers):
                yield self._reference(file, use, index, target)
        for file, use, index in candidates:
            yield self._reference(file, use, index, "")

    def _is_late(self) -> bool:
        """Whether there is no time to look at anything more."""
        if not self.partial and self._context.OutOfTime():
            self.partial = True
        return self.partial

    def _last_names(self) -> set[str]:
        """How the name may be written where it is used: by its last part, or that of a target."""
        names = {self._last}
        for target in self.targets:
            names.add(target.rstrip(":").rpartition(":")[2].rpartition(".")[2])
        return names - {""}

    def _files(self) -> Iterator[_File]:
        """The files to look at: those that are known to use the name, then those not derived."""
        names = self._last_names()
        words = [f"\n{name}\n".encode() for name in sorted(names)]
        condition = " OR ".join("instr(names, ?)" for _ in words)
        derived = self._connection.execute(
            "SELECT id, url, mtime_ns, size FROM used_names JOIN files ON id = file_id"
            f" WHERE scans LIKE '% derived %' AND ({condition}) ORDER BY url",
            words,
        ).fetchall()
        others = self._connection.execute(
            "SELECT url FROM files WHERE scans != '' AND scans NOT LIKE '% derived %' ORDER BY url"
        ).fetchall()
        for file_id, url, mtime_ns, size in derived:
            if self._is_late():
                return
            record = stored_record(self._connection, file_id)
            valid = record is not None and _is_unchanged(url, mtime_ns, size)
            yield from self._open(url, names, unpack(record[1]) if record and valid else None)
        for (url,) in others:
            if self._is_late():
                return
            yield from self._open(url, names, None)

    def _open(self, url: str, names: set[str], facts: Facts | None) -> Iterator[_File]:
        path = queries.path_of(url)
        data = None if path is None else _read(path)
        if path is None or data is None:
            return
        if facts is not None:
            aliases = {
                name.rpartition(" ")[2]
                for (_, name), found in facts.imports.items()
                if not self.targets.isdisjoint(found)
            }
            names = names | aliases
        elif not any(name.encode() in data for name in names):
            return
        file = _File(CLocalFileLocation(path), data, facts, names)
        if file.uses:
            yield file

    def _reference(self, file: _File, use: _Use, index: int, target: str) -> Reference:
        line = file.line(use.line)
        column = _column(use, index)
        return Reference(
            file.loc.path,
            use.line,
            len(line[:column].decode("utf-8", "replace")) + 1,
            _kKinds[use.kind],
            file.scopes[use.scope][0],
            line.decode("utf-8", "replace").strip(),
            target,
        )

    def _meant(self, answers: Collection[str]) -> str:
        return next((answer for answer in answers if answer in self.targets), "")

    # --- who is meant: by what is stored

    def _by_facts(
        self, file: _File, use: _Use
    ) -> Iterator[tuple[int, Collection[str] | None]]:
        """For each part of a use that may be the name, what it means; none if it isn't known."""
        match use.kind:
            case "r":
                components = use.text.lstrip(".").split(".")
                for index, component in enumerate(components):
                    if component in file.names:
                        yield index, self._chain(file, use, components[: index + 1])
            case "f":
                module, _, name = use.text.partition(" ")
                facts = file.facts.imports
                found: Collection[str] | None = facts.get((use.scope, use.text)) or facts.get(
                    (use.scope, name)
                )
                if found is None:
                    found = self._imported(file.loc, module, name)
                if found or name in self._last_names():
                    yield 0, found or None
            case "i":
                module = _absolute(use.text, self._namer.module(file.loc), file.loc)
                names = module.split(".")
                yield 0, [".".join(names[: n + 1]) + ":" for n in range(len(names))]
            case _:
                if use.text in file.names:
                    yield 0, None

    def _chain(
        self, file: _File, use: _Use, components: Sequence[str]
    ) -> Collection[str] | None:
        if not file.known or use.home == _NO_HOME:
            return None
        first, *attributes = components
        if not attributes:
            return self._root(file, use.home, first)
        if use.home >= 0 and file.scopes[use.home][2] in "FmM":
            if first == "self" and len(attributes) == 1:
                around = file.class_around(use.home)
                return None if around is None else self._in_class(file, around, attributes[0])
            if (use.home, first) not in file.facts.imports:
                return None
        targets = self._root(file, use.home, first)
        for attribute in attributes:
            if not targets:
                return None
            found: dict[str, None] = {}
            for target in targets:
                inside = self._attribute(target, attribute)
                if inside is None:
                    return None
                found.update(dict.fromkeys(inside))
            targets = tuple(found)
        return targets or None

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
        own = self._namer.place(file.loc, file.scopes[scope][0])
        for cls in (own, *file.facts.bases.get(scope, ())):
            place = f"{cls}.{attribute}"
            if place in self._definers:
                return (place,)
        return None

    # --- who is meant: by the inference

    def _attribute(self, target: str, name: str) -> Collection[str] | None:
        """What an attribute of a target means; none if that isn't known. Each asked once."""
        key = (target, name)
        if key not in self._attributes:
            if self._is_late():
                return None
            self._attributes[key] = self._find_attribute(target, name)
        return self._attributes[key]

    def _find_attribute(self, target: str, name: str) -> Collection[str] | None:
        context = self._context
        module_name, _, inside = target.rpartition(":")
        module = modules.find_module(context, module_name, self._folder)
        if module is None:
            return None
        found: Sequence[Target] = ()
        if not inside:
            attribute = modules.module_attribute(context, module, name)
            found = () if attribute is None else modules.follow(context, attribute)
        elif "." not in inside:
            symbol = modules.module_attribute(context, module, inside)
            if symbol is not None:
                values = bindings.target_values(context, symbol)
                found = api.attribute_targets(values, name, context)
        return [self._namer.target(each) for each in found] or None

    def _imported(self, loc: CLocation, module: str, name: str) -> Collection[str] | None:
        key = (loc.GetParentDir(), f"{module} {name}")
        if key not in self._imports:
            if self._is_late():
                return None
            targets = api.resolve_import(loc, module, name, self._context)
            self._imports[key] = [self._namer.target(target) for target in targets]
        return self._imports[key] or None

    def _inferred(self, file: _File, use: _Use, index: int) -> Collection[str] | None:
        """What the inference says of a part of a use; none if it doesn't know."""
        if self._is_late():
            return None
        column = _column(use, index)
        characters = len(file.line(use.line)[:column].decode("utf-8", "replace"))
        answer = definitions_at(file.loc, use.line, characters, self._context)
        return [self._target_of(place) for place in answer.places] or None

    def _target_of(self, place: Place) -> str:
        scope_name = place.scope_name
        if place.kind == "attribute":
            scope_name = ParentScopeName(scope_name)
        return self._namer.place(place.loc, scope_name, place.name)


def _column(use: _Use, index: int) -> int:
    """Where a part of a chain stands, in bytes, if the chain stands on one line."""
    if use.kind != "r":
        return use.column
    components = use.text.lstrip(".").split(".")
    return use.column + sum(len(each.encode()) + 1 for each in components[:index])


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

