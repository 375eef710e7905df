"""Finding the Python files of a tree in steps that are short enough for idle time."""

from __future__ import annotations

import os
import stat
from collections.abc import Generator, Sequence, Set
from operator import attrgetter
from typing import Final, NamedTuple

from loombase.location import CSshFileLocation
from loombase.mime import kPythonSuffixes
from pathspec import GitIgnoreSpec

from loom.ignore import (
    EXCLUDED_FOLDERS,
    IgnoreRules,
    excluded_by_content,
    rules_above,
    rules_of_folder,
    verdict_of,
)
from pysource.utils import HasPythonShebang

__all__ = [
    "Entered",
    "Entering",
    "Found",
    "FoundRemote",
    "Problem",
    "Step",
    "Waiting",
    "is_folder_left_out",
    "is_left_out",
    "looks_like_python",
    "walk",
    "walk_below",
]

# Entries of a folder that are looked at in one step.
_ENTRIES_PER_STEP: Final = 200


_SUFFIXES: Final = tuple(kPythonSuffixes)


class Found(NamedTuple):
    """A Python file. `named` tells that the user gave it by name."""

    path: str
    named: bool


class FoundRemote(NamedTuple):
    """A Python file on another machine. With `declare`, its name alone doesn't tell that it is."""

    loc: CSshFileLocation
    declare: bool


class Problem(NamedTuple):
    """A file or folder that can't be looked at, and why. `path` may be a URL."""

    path: str
    reason: str


class Waiting(NamedTuple):
    """Nothing can be found before an answer comes from another machine."""


class Entering(NamedTuple):
    """A folder that is listed when the walk goes on. Whoever follows changes begins now.

    `root` is the given folder that it is, or is below of.
    """

    path: str
    root: str


class Entered(NamedTuple):
    """A folder that was listed. `rules` are those for what is in it.

    It isn't `kept` if what is in it tells that it is no folder of sources.
    """

    path: str
    rules: IgnoreRules | None
    kept: bool


Step = Found | FoundRemote | Problem | Entering | Entered | Waiting | None


def walk(
    paths: Sequence[str], exclude: GitIgnoreSpec | None = None
) -> Generator[Step, None, None]:
    """The Python files at and below `paths`, each once, and what couldn't be looked at.

    Yields none where nothing was found but a step has been done, so that the caller can stop in
    between. `exclude` are the user's patterns, relative to the path they are applied below.

    A file among `paths` is taken whatever it is called and whatever the rules say. Folders are
    walked depth first, files before folders, in order of names. Links to files are followed, links
    to folders aren't, so that no loop can arise and no file comes under two names; a folder that
    is mounted twice is walked once. Raises nothing for what it meets.
    """
    roots = [os.path.abspath(path) for path in paths]
    seen_files: set[str] = set()
    seen_folders: set[tuple[int, int]] = set()
    folders: list[str] = []
    for root in roots:
        try:
            mode = os.stat(root).st_mode
        except OSError as error:
            yield Problem(root, _reason(error))
            continue
        if stat.S_ISDIR(mode):
            folders.append(root)
        elif not stat.S_ISREG(mode):
            yield Problem(root, "neither a file nor a folder")
        elif root not in seen_files:
            seen_files.add(root)
            yield Found(root, True)
    for root in folders:
        first = _Folder(root, rules_above(root))
        yield from _walk_folder(first, root, exclude, seen_files, seen_folders)


def walk_below(
    folder: str,
    root: str,
    rules: IgnoreRules | None,
    exclude: GitIgnoreSpec | None = None,
    named_files: Set[str] = frozenset(),
) -> Generator[Step, None, None]:
    """As `walk`, for a folder that a walk of `root` came to: `root` itself, or one below it.

    `rules` are those that hold for the folder, without its own ".gitignore". `named_files` were
    given by name, and aren't found once more.
    """
    return _walk_folder(_Folder(folder, rules), root, exclude, named_files, set())


class _Folder(NamedTuple):
    path: str
    rules: IgnoreRules | None


def _walk_folder(
    first: _Folder,
    root: str,
    exclude: GitIgnoreSpec | None,
    named_files: Set[str],
    seen_folders: set[tuple[int, int]],
) -> Generator[Step, None, None]:
    pending = [first]
    while pending:
        folder = pending.pop()
        yield Entering(folder.path, root)
        entries: list[os.DirEntry[str]] = []
        try:
            status = os.stat(folder.path)
            if (status.st_dev, status.st_ino) in seen_folders:
                continue
            seen_folders.add((status.st_dev, status.st_ino))
            with os.scandir(folder.path) as found:
                for entry in found:
                    entries.append(entry)
                    if len(entries) % _ENTRIES_PER_STEP == 0:
                        yield None
        except OSError as error:
            yield Problem(folder.path, _reason(error))
            if not entries:  # what was listed before the failure is still good
                continue
        names = {entry.name for entry in entries}
        rules = folder.rules
        if ".gitignore" in names:
            rules = rules_of_folder(folder.path, rules)
        kept = folder.path == root or not is_folder_left_out(exclude, folder.path, root, names)
        yield Entered(folder.path, rules, kept)
        if not kept:
            continue
        subfolders: list[str] = []
        files: list[os.DirEntry[str]] = []
        for count, entry in enumerate(entries, 1):
            if count % _ENTRIES_PER_STEP == 0:
                yield None
            try:
                is_folder = entry.is_dir(follow_symlinks=False)
            except OSError:
                is_folder = False
            if is_folder:
                if not is_left_out(entry.path, root, rules, exclude, is_folder=True):
                    subfolders.append(entry.path)
            elif looks_like_python(entry.name):
                files.append(entry)
        ruled = rules is not None or exclude is not None
        for entry in sorted(files, key=attrgetter("name")):
            path = entry.path
            try:
                is_file = entry.is_file()  # itself or by a link; one that leads nowhere isn't
            except OSError:
                is_file = False
            if (
                is_file
                and path not in named_files
                and not (ruled and is_left_out(path, root, rules, exclude, is_folder=False))
                and ("." in entry.name or HasPythonShebang(path))
            ):
                yield Found(path, False)
            else:
                yield None
        pending.extend(_Folder(path, rules) for path in sorted(subfolders, reverse=True))
        yield None


def looks_like_python(name: str) -> bool:
    """Whether a file of this name may be Python: by its suffix, or as a script without one."""
    if name.endswith(_SUFFIXES):
        return not name.startswith(".") or os.path.splitext(name)[1] != ""
    return "." not in name


def is_left_out(
    path: str,
    root: str,
    rules: IgnoreRules | None,
    exclude: GitIgnoreSpec | None,
    *,
    is_folder: bool,
) -> bool:
    """Whether a file or folder below `root` is left out. `rules` are those of its folder."""
    if exclude is not None:
        verdict = verdict_of(exclude, _relative(path, root), is_folder)
        if verdict is not None:
            return verdict
    if is_folder and os.path.basename(path) in EXCLUDED_FOLDERS:
        return True
    return rules is not None and rules.leaves_out(path, is_folder)


def is_folder_left_out(
    exclude: GitIgnoreSpec | None, path: str, root: str, names: set[str]
) -> bool:
    """What only a folder's entries tell."""
    if excluded_by_content(os.path.basename(path), names) is None:
        return False
    return exclude is None or verdict_of(exclude, _relative(path, root), True) is not False


def _relative(path: str, root: str) -> str:
    return path[len(root.rstrip("/")) + 1 :]


def _reason(error: OSError) -> str:
    return error.strerror or str(error)
