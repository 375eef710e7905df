"""Finding the Python files of a tree in steps that are short enough for idle time."""

from __future__ import annotations

import os
import stat
from collections.abc import Generator, Sequence
from typing import Final, NamedTuple

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

__all__ = ["Found", "Problem", "walk"]

# Entries of a folder that are looked at in one step.
_ENTRIES_PER_STEP: Final = 200


class Found(NamedTuple):
    """A Python file. `named` tells that the user gave it by name."""

    path: str
    named: bool


class Problem(NamedTuple):
    """A file or folder that can't be looked at, and why."""

    path: str
    reason: str


def walk(
    paths: Sequence[str], exclude: GitIgnoreSpec | None = None
) -> Generator[Found | Problem | None, None, None]:
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
        yield from _walk_folder(root, exclude, seen_files, seen_folders)


class _Folder(NamedTuple):
    path: str
    rules: IgnoreRules | None
    is_root: bool


def _walk_folder(
    root: str,
    exclude: GitIgnoreSpec | None,
    named_files: set[str],
    seen_folders: set[tuple[int, int]],
) -> Generator[Found | Problem | None, None, None]:
    start = len(root.rstrip("/")) + 1
    pending = [_Folder(root, rules_above(root), True)]
    while pending:
        folder = pending.pop()
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
        if not folder.is_root and _leaves_out_folder(exclude, folder.path, start, names):
            continue
        rules = folder.rules
        if ".gitignore" in names:
            rules = rules_of_folder(folder.path, rules)
        subfolders: list[str] = []
        files: list[os.DirEntry[str]] = []
        for count, entry in enumerate(entries, 1):
            if count % _ENTRIES_PER_STEP == 0:
                yield None
            if _is_folder(entry):
                if not _leaves_out(exclude, rules, entry, start, is_folder=True):
                    subfolders.append(entry.path)
            elif os.path.splitext(entry.name)[1] in kPythonSuffixes or "." not in entry.name:
                files.append(entry)
        for entry in sorted(files, key=lambda entry: entry.name):
            if (
                entry.path not in named_files
                and not _leaves_out(exclude, rules, entry, start, is_folder=False)
                and _is_file(entry)
                and ("." in entry.name or HasPythonShebang(entry.path))
            ):
                yield Found(entry.path, False)
            else:
                yield None
        pending.extend(_Folder(path, rules, False) for path in sorted(subfolders, reverse=True))
        yield None


def _leaves_out(
    exclude: GitIgnoreSpec | None,
    rules: IgnoreRules | None,
    entry: os.DirEntry[str],
    start: int,
    is_folder: bool,
) -> bool:
    if exclude is not None:
        verdict = verdict_of(exclude, entry.path[start:], is_folder)
        if verdict is not None:
            return verdict
    if is_folder and entry.name in EXCLUDED_FOLDERS:
        return True
    return rules is not None and rules.leaves_out(entry.path, is_folder)


def _leaves_out_folder(
    exclude: GitIgnoreSpec | None, path: str, start: int, names: set[str]
) -> bool:
    """What only a folder's entries tell."""
    if excluded_by_content(os.path.basename(path), names) is None:
        return False
    return exclude is None or verdict_of(exclude, path[start:], True) is not False


def _is_folder(entry: os.DirEntry[str]) -> bool:
    try:
        return entry.is_dir(follow_symlinks=False)
    except OSError:
        return False


def _is_file(entry: os.DirEntry[str]) -> bool:
    """Whether it is a regular file, itself or by a link. A link that leads nowhere isn't."""
    try:
        return entry.is_file()
    except OSError:
        return False


def _reason(error: OSError) -> str:
    return error.strerror or str(error)
