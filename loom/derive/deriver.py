"""The questions of a derived scan to the inference, one small one after the other."""

from __future__ import annotations

from collections.abc import Callable, Iterator, Sequence
from typing import TYPE_CHECKING, Final

from loombase.location import CLocation
from pysource.symbolinfo import ParentScopeName

from loom._pyscan import unpack_info
from loom.derive import evident
from loom.derive.facts import Facts, Namer
from loom.infer import classes, modules, names
from loom.infer.parts import ExprPart, HintPart, ImportPart, Part, parts_of
from loom.infer.values import Class, Target
from loom.store.derived import key_of_module
from loom.store.records import ScopeRow

if TYPE_CHECKING:
    from loom.infer.context import CInferenceContext

__all__ = ["Deriver", "Question"]

Question = Callable[["CInferenceContext"], None]

_kStar: Final = "*"
_kModuleOrClass: Final = frozenset(map(ord, "OC"))
_kClass: Final = ord("C")

# What a name is worth is told in at most so many ways.
_kMostTypes: Final = 6


class Deriver:
    """Finds the facts of one file by questions, each to be asked with a context.

    `star_names` are names that no scope of the file binds. A question may be asked again; the last
    answer counts. `keys` are those of names of modules that the facts depend on.
    """

    def __init__(
        self, loc: CLocation, rows: Sequence[ScopeRow], star_names: Sequence[str], namer: Namer
    ) -> None:
        self.facts = Facts({}, {}, {})
        self.keys: set[int] = set()
        self._loc = loc
        self._rows = rows
        self._star_names = star_names
        self._namer = namer

    def questions(self) -> Iterator[Question | None]:
        """All questions in order; none where nothing is asked but time may have passed."""
        yield from self._about_imports()
        yield from self._about_bases()
        yield from self._about_types()

    # --- where imported names come from

    def _about_imports(self) -> Iterator[Question | None]:
        stars = False
        for index, row in enumerate(self._rows):
            packed = row[5]
            if b":i" not in packed and b":f" not in packed:
                continue
            for name, info in unpack_info(packed).items():
                if b":i" not in info and b":f" not in info:
                    continue
                parts = [part for part in parts_of(info) if isinstance(part, ImportPart)]
                for part in parts:
                    self._note_modules(part)
                if name == _kStar:
                    stars = True
                elif parts:
                    yield self._import_question(index, name, parts)
            yield None
        if stars:
            for name in self._star_names:
                yield self._star_question(name)

    def _note_modules(self, part: ImportPart) -> None:
        """A module that comes or goes under one of these names may change what the import means."""
        stem = part.module.rpartition(".")[2]
        if stem:
            self.keys.add(key_of_module(stem))
        if part.name and part.name != _kStar:
            self.keys.add(key_of_module(part.name))

    def _import_question(self, index: int, name: str, parts: Sequence[ImportPart]) -> Question:
        def ask(ctx: CInferenceContext) -> None:
            found: dict[str, None] = {}
            for part in parts:
                target = modules.imported(ctx, self._loc, part)
                if target is not None:
                    self._take_targets(ctx, target, found)
            self.facts.imports[index, name] = tuple(found)
            for part in parts:
                if part.name and part.alias:
                    self.facts.imports[index, f"{part.module} {part.name}"] = tuple(found)

        return ask

    def _star_question(self, name: str) -> Question:
        def ask(ctx: CInferenceContext) -> None:
            target = names.lookup(ctx, self._loc, "", name)
            found: dict[str, None] = {}
            if target is not None:
                self._take_targets(ctx, target, found)
            self.facts.imports[-1, name] = tuple(found)

        return ask

    def _take_targets(
        self, ctx: CInferenceContext, target: Target, found: dict[str, None]
    ) -> None:
        for each in modules.follow(ctx, target):
            found[self._namer.target(each)] = None

    # --- base classes

    def _about_bases(self) -> Iterator[Question | None]:
        for index, row in enumerate(self._rows):
            if row[2] == _kClass:
                yield self._bases_question(index, row[0])

    def _bases_question(self, index: int, scope_name: str) -> Question:
        def ask(ctx: CInferenceContext) -> None:
            order = classes.linearization(ctx, Class(self._loc, scope_name))
            # Itself first and `object` last go without saying.
            found = [self._namer.value(cls) for cls in order[1:-1]]
            if found:
                self.facts.bases[index] = tuple(found)

        return ask

    # --- what names are worth

    def _about_types(self) -> Iterator[Question | None]:
        inside_function = [False] * len(self._rows)
        for index, (scope_name, parent, kind, _, _, packed) in enumerate(self._rows):
            is_function = kind not in _kModuleOrClass
            if parent >= 0 and (
                inside_function[parent] or self._rows[parent][2] not in _kModuleOrClass
            ):
                inside_function[index] = True
            if inside_function[index]:
                continue
            if is_function and (
                b"\x06yield" in packed or (b"self." not in packed and b"return" not in packed)
            ):
                continue
            for name, info in unpack_info(packed).items():
                if is_function and name != "return" and not name.startswith("self."):
                    continue
                if info.startswith((b":=", b":H")):
                    yield self._type_question(index, scope_name, name, parts_of(info))
            yield None

    def _type_question(
        self, index: int, scope_name: str, name: str, parts: tuple[Part, ...]
    ) -> Question:
        def ask(ctx: CInferenceContext) -> None:
            found: dict[str, None] = {}
            # Where there is an annotation, it has the word.
            for part in parts:
                if isinstance(part, HintPart):
                    scope = ParentScopeName(scope_name) if name == "return" else scope_name
                    found.update(
                        dict.fromkeys(
                            evident.annotated(ctx, self._namer, self._loc, scope, part.text)
                        )
                    )
            for part in parts if not found else ():
                if isinstance(part, ExprPart):
                    found.update(
                        dict.fromkeys(
                            evident.assigned(ctx, self._namer, self._loc, scope_name, part.text)
                        )
                    )
            if found:
                self.facts.types[index, name] = tuple(found)[:_kMostTypes]

        return ask
