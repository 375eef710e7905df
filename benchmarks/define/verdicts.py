"""Comparing two answers to one use, and saying why they differ."""

import os
from collections.abc import Mapping, Sequence
from pathlib import PurePath
from typing import Any, Final

__all__ = ["AGREE", "NEITHER", "ONLY_JEDI", "ONLY_LOOM", "REASONS", "RIGHT", "verdict"]

Place = Mapping[str, Any]

AGREE: Final = "agree"
NEITHER: Final = "neither"
ONLY_JEDI: Final = "only jedi"
ONLY_LOOM: Final = "only loom"

# Why answers differ: what is told in the table, and whether loom's is right by itself. For those
# the name must stand at loom's place.
REASONS: Final = {
    "compiled": ("jedi names no file, for it looks into the compiled module; loom has it", True),
    "no file": ("neither has a file; loom stops at the import", False),
    "source": ("jedi stays in the stub; loom has the definition in the source", True),
    "alias": ("jedi answers with an alias in `typing`, loom with the class that is imported", True),
    "platform": ("jedi answers for another operating system", True),
    "followed": ("jedi stops at an import; loom follows it to the module", True),
    "order": ("loom has jedi's place, too, but another one first", False),
    "binding": ("both in the file, at different bindings of the name", False),
    "other": ("different places", False),
    ONLY_JEDI: ("loom finds nothing", False),
}
RIGHT: Final = frozenset(reason for reason, (_, right) in REASONS.items() if right)

_FOREIGN_PATH: Final = {"posix": "ntpath.py", "nt": "posixpath.py"}


def _is_stub(place: Place) -> bool:
    return str(place["path"]).endswith(".pyi")


def _stub_module(path: str) -> str | None:
    """The module that a stub of a typeshed tells of; none for other files."""
    if not path.endswith(".pyi"):
        return None
    parts = PurePath(path).with_suffix("").parts
    if "typeshed" not in parts:
        return None
    rest = [part for part in parts[parts.index("typeshed") + 1 :] if part not in ("stdlib", "3")]
    return ".".join(rest).removesuffix(".__init__")


def same(ours: Place, theirs: Place) -> bool:
    """Whether two places are one. In stubs of different releases the name is compared."""
    module = _stub_module(str(ours["path"]))
    if module is not None:
        if module != _stub_module(str(theirs["path"])):
            return False
    elif os.path.realpath(ours["path"]) != os.path.realpath(theirs["path"]):
        return False
    if "module" in (ours["kind"], theirs["kind"]):
        return bool(ours["kind"] == theirs["kind"])
    if module is not None:
        return bool(ours["name"] == theirs["name"])
    return bool(ours["line"] == theirs["line"])


def stands_there(place: Place) -> bool:
    """Whether the name of a place really stands at it; a module need only be there."""
    if place["kind"] == "module":
        return os.path.isfile(place["path"])
    try:
        with open(place["path"], encoding="utf-8") as file:
            lines = file.read().split("\n")
    except (OSError, UnicodeDecodeError):
        return False
    line = lines[place["line"] - 1] if 0 < place["line"] <= len(lines) else ""
    return line.startswith(place["name"], place["column"])


def verdict(ours: Sequence[Place], theirs: Sequence[Place]) -> str:
    """`AGREE` if loom's first answer is one of jedi's; else who has none, or why they differ."""
    if not theirs:
        return ONLY_LOOM if ours else NEITHER
    if not ours:
        return ONLY_JEDI
    first = ours[0]
    if any(same(first, place) for place in theirs):
        return AGREE
    reason = _reason(ours, theirs)
    return "other" if reason in RIGHT and not stands_there(first) else reason


def _reason(ours: Sequence[Place], theirs: Sequence[Place]) -> str:
    first, other = ours[0], theirs[0]
    if not other["path"] or (other["kind"] == "module" and not other["line"]):
        return "no file" if first["kind"] == "import" else "compiled"
    if any(same(place, each) for place in ours[1:] for each in theirs):
        return "order" if _is_stub(first) or not _is_stub(other) else "source"
    if os.path.basename(other["path"]) == _FOREIGN_PATH[os.name]:
        return "platform"
    if _is_stub(other) and not _is_stub(first) and first["name"] == other["name"]:
        return "source"
    if os.path.basename(other["path"]) == "typing.py" and first["name"] == other["name"]:
        return "alias"
    if first["kind"] == "module" and other["kind"] == "module" and other["line"] > 1:
        return "followed"
    if first["path"] == other["path"] and first["name"] == other["name"]:
        return "binding"
    return "other"
