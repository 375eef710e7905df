"""Which files and folders of a tree are left out, and by which rule.

Three sources of rules, the first that has an opinion decides:

1. the patterns that the user gave, in the syntax of ".gitignore", relative to the given folder;
   one that begins with "!" keeps what the others would leave out;
2. folders that are never sources: of version control, environments, caches, build results;
3. ".gitignore" of each folder from the root of the repository down, the deepest first, and
   ".git/info/exclude" of the repository.
"""

from __future__ import annotations

import os
import re
import stat
import warnings
from collections.abc import Collection, Iterable
from typing import Final

from pathspec import GitIgnoreSpec

__all__ = [
    "EXCLUDED_FOLDERS",
    "IgnoreRules",
    "excluded_by_content",
    "kLargestIgnoreFile",
    "parse_patterns",
    "patterns_in",
    "rules_above",
    "rules_of_content",
    "rules_of_folder",
    "tells_about_folder",
]

EXCLUDED_FOLDERS: Final = frozenset(
    {
        ".bzr",
        ".direnv",
        ".eggs",
        ".git",
        ".hg",
        ".hypothesis",
        ".ipynb_checkpoints",
        ".mypy_cache",
        ".nox",
        ".pytest_cache",
        ".pytype",
        ".ruff_cache",
        ".svn",
        ".tox",
        "CVS",
        "__pycache__",
        "__pypackages__",
        "node_modules",
    }
)

# Names that build tools use for their results, but packages have, too.
_BUILD_FOLDERS: Final = frozenset({"_build", "build", "dist"})

# Bytes of a file of rules that are read.
kLargestIgnoreFile: Final = 1 << 20


class IgnoreRules:
    """The rules of one ".gitignore" and, by `outer`, of those around it."""

    __slots__ = ("_outer", "_spec", "_start")

    def __init__(self, folder: str, spec: GitIgnoreSpec, outer: IgnoreRules | None) -> None:
        self._start = len(folder.rstrip("/")) + 1
        self._spec = spec
        self._outer = outer

    def leaves_out(self, path: str, is_folder: bool) -> bool:
        """Whether the rules leave out an absolute path below the folder."""
        rules: IgnoreRules | None = self
        while rules is not None:
            verdict = verdict_of(rules._spec, path[rules._start :], is_folder)
            if verdict is not None:
                return verdict
            rules = rules._outer
        return False


def verdict_of(spec: GitIgnoreSpec, relative: str, is_folder: bool) -> bool | None:
    """Whether `spec` leaves a path out; none if no pattern fits."""
    return spec.check_file(relative + "/" if is_folder else relative).include


def parse_patterns(lines: Iterable[str]) -> GitIgnoreSpec:
    """Patterns in the syntax of ".gitignore". Raises `ValueError` that names a bad one."""
    kept = list(lines)
    for line in kept:
        if not _is_pattern(line):
            raise ValueError(f"not a pattern: {line!r}")
    return _compile(kept)


def _compile(lines: list[str]) -> GitIgnoreSpec:
    with warnings.catch_warnings():
        # Of the regular expression that the library makes of an odd set of characters.
        warnings.simplefilter("ignore", FutureWarning)
        return GitIgnoreSpec.from_lines(lines)


def _is_pattern(line: str) -> bool:
    try:
        _compile([line])
    except (ValueError, re.error):  # the library's, or that of the expression that it makes
        return False
    return True


def excluded_by_content(name: str, entries: Collection[str]) -> str | None:
    """Why a folder of this name with these entries is no folder of sources; none if it is one."""
    if "pyvenv.cfg" in entries or "conda-meta" in entries:
        return "virtual environment"
    if name in _BUILD_FOLDERS and "__init__.py" not in entries:
        return "build results"
    if name.endswith((".egg-info", ".dist-info")):
        return "package metadata"
    return None


def tells_about_folder(name: str, entry: str) -> bool:
    """Whether this entry of a folder of this name may decide what is left out there."""
    return entry in (".gitignore", "pyvenv.cfg", "conda-meta") or (
        entry == "__init__.py" and name in _BUILD_FOLDERS
    )


def rules_of_folder(folder: str, outer: IgnoreRules | None) -> IgnoreRules | None:
    """`outer` with the rules of the folder's own ".gitignore" in front.

    Bad patterns in it are passed over, as is a file that can't be read. Raises nothing.
    """
    spec = _read_patterns(os.path.join(folder, ".gitignore"))
    return outer if spec is None else IgnoreRules(folder, spec, outer)


def rules_above(folder: str) -> IgnoreRules | None:
    """The rules that the repository around `folder` has for it, but for its own ".gitignore".

    If they leave out the folder itself they don't count: it was asked for by name.
    """
    above: list[str] = []
    current = folder
    while not os.path.lexists(os.path.join(current, ".git")):
        parent = os.path.dirname(current)
        if parent == current:
            return None  # not in a repository
        current = parent
        above.append(current)
    rules = None
    spec = _read_patterns(os.path.join(current, ".git", "info", "exclude"))
    if spec is not None:
        rules = IgnoreRules(current, spec, None)
    for place in reversed(above):
        rules = rules_of_folder(place, rules)
        below = folder[len(place.rstrip("/")) + 1 :].split("/")
        child = os.path.join(place, below[0])
        if rules is not None and rules.leaves_out(child, is_folder=True):
            return None
    return rules


def patterns_in(path: str) -> tuple[GitIgnoreSpec, list[str]] | None:
    """The patterns of a file of rules, with its lines; a line that is no pattern is empty.

    None if there is no such file.
    """
    content = _content_of(path)
    if content is None:
        return None
    lines = [line if _is_pattern(line) else "" for line in _lines_of(content)]
    return _compile(lines), lines


def _read_patterns(path: str) -> GitIgnoreSpec | None:
    content = _content_of(path)
    return None if content is None else _patterns_of(content)


def _content_of(path: str) -> bytes | None:
    try:
        if not stat.S_ISREG(os.lstat(path).st_mode):  # git doesn't follow a link here either
            return None
        with open(path, "rb") as file:
            return file.read(kLargestIgnoreFile)
    except OSError:
        return None


def rules_of_content(
    folder: str, content: bytes | None, outer: IgnoreRules | None
) -> IgnoreRules | None:
    """`outer` with the rules in front that a file for `folder` holds; none for no such file."""
    return outer if content is None else IgnoreRules(folder, _patterns_of(content), outer)


def _patterns_of(content: bytes) -> GitIgnoreSpec:
    """The rules in a file; bad ones are passed over."""
    lines = _lines_of(content)
    try:
        return _compile(lines)
    except (ValueError, re.error):
        return _compile([line for line in lines if _is_pattern(line)])


def _lines_of(content: bytes) -> list[str]:
    return os.fsdecode(content.removeprefix(b"\xef\xbb\xbf")).splitlines()
