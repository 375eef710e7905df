"""Why a file isn't among those that a scan finds: what is in its way, and where that is said."""

from __future__ import annotations

import os
import stat
from dataclasses import dataclass

from loombase.mime import kPythonSuffixes
from pathspec import GitIgnoreSpec

from loom.ignore import EXCLUDED_FOLDERS, excluded_by_content, patterns_in, verdict_of
from loom.sourcetext import kMaxSourceBytes
from pysource.utils import HasPythonShebang

__all__ = ["Obstacle", "obstacle"]


@dataclass(frozen=True, slots=True)
class Obstacle:
    """What keeps a file out. `path` is what the rule fits: the file, or a folder on the way to it.

    `rule_file` and `rule_line` say where the rule `rule` stands, if it is somebody's pattern.
    """

    kind: str  # "missing", "not a file", "too big", "not python", "folder", "pattern"
    path: str
    reason: str
    rule: str = ""
    rule_file: str = ""
    rule_line: int = 0


def obstacle(
    path: str, root: str | None = None, exclude: GitIgnoreSpec | None = None
) -> Obstacle | None:
    """The first obstacle on the way from `root` to the file at the absolute `path`, or none.

    Without a root, that of the repository counts, or else the topmost folder. `exclude` are the
    user's patterns.
    """
    folder = os.path.dirname(path)
    repository = _repository_of(folder)
    top = root if root is not None else repository if repository is not None else "/"
    for found in (_on_the_way(path, top, repository, exclude), _of_file(path)):
        if found is not None:
            return found
    return None


def _on_the_way(
    path: str, top: str, repository: str | None, exclude: GitIgnoreSpec | None
) -> Obstacle | None:
    below = _relative(path, top)
    if below is None:
        return None
    place = top
    parts = below.split("/")
    for number, part in enumerate(parts):
        place = os.path.join(place, part)
        is_folder = number < len(parts) - 1
        if exclude is not None:
            relative = "/".join(parts[: number + 1])
            verdict = verdict_of(exclude, relative, is_folder)
            if verdict is not None:
                if verdict:
                    rule = _deciding_pattern(exclude, relative, is_folder)
                    return Obstacle("pattern", place, "left out by a pattern", rule, "--exclude")
                continue  # kept, whatever else is said
        if is_folder and part in EXCLUDED_FOLDERS:
            return Obstacle("folder", place, f"folders called {part!r} are never sources")
        found = _by_pattern(place, is_folder, top, repository)
        if found is None and is_folder:
            found = _by_content(place)
        if found is not None:
            return found
    return None


def _by_pattern(
    place: str, is_folder: bool, top: str, repository: str | None
) -> Obstacle | None:
    """What ".gitignore" says, that of the deepest folder first."""
    folder = os.path.dirname(place)
    highest = repository if repository is not None else top
    while True:
        verdict = _verdict(os.path.join(folder, ".gitignore"), folder, place, is_folder)
        if verdict is not None:
            return verdict if isinstance(verdict, Obstacle) else None
        if folder == highest or folder == os.path.dirname(folder):
            break
        folder = os.path.dirname(folder)
    if repository is not None:
        exclude = os.path.join(repository, ".git", "info", "exclude")
        verdict = _verdict(exclude, repository, place, is_folder)
        if isinstance(verdict, Obstacle):
            return verdict
    return None


def _verdict(
    rule_file: str, folder: str, place: str, is_folder: bool
) -> Obstacle | bool | None:
    """An obstacle, true if the file is kept by a rule, or none if no rule fits."""
    found = patterns_in(rule_file)
    relative = _relative(place, folder)
    if found is None or relative is None:
        return None
    spec, lines = found
    if (included := verdict_of(spec, relative, is_folder)) is None:
        return None
    if not included:
        return True
    line = _deciding_line(spec, lines, relative, is_folder)
    return Obstacle("pattern", place, "left out by a pattern", lines[line], rule_file, line + 1)


def _deciding_line(
    spec: GitIgnoreSpec, lines: list[str], relative: str, is_folder: bool
) -> int:
    """The index of the line whose pattern decides."""
    index = spec.check_file(relative + "/" if is_folder else relative).index
    assert index is not None
    return [number for number, line in enumerate(lines) if line][index]


def _deciding_pattern(spec: GitIgnoreSpec, relative: str, is_folder: bool) -> str:
    index = spec.check_file(relative + "/" if is_folder else relative).index
    assert index is not None
    return str(spec.patterns[index].pattern)


def _by_content(folder: str) -> Obstacle | None:
    try:
        names = os.listdir(folder)
    except OSError:
        return None
    why = excluded_by_content(os.path.basename(folder), set(names))
    return None if why is None else Obstacle("folder", folder, why)


def _of_file(path: str) -> Obstacle | None:
    try:
        status = os.stat(path)
    except (FileNotFoundError, NotADirectoryError):
        return Obstacle("missing", path, "there is no such file")
    except OSError as error:
        return Obstacle("missing", path, f"can't be looked at: {error.strerror or error}")
    if not stat.S_ISREG(status.st_mode):
        return Obstacle("not a file", path, "not a regular file")
    suffix = os.path.splitext(path)[1]
    if suffix not in kPythonSuffixes and (suffix or not HasPythonShebang(path)):
        return Obstacle("not python", path, "neither its name nor its first line tells of Python")
    if status.st_size > kMaxSourceBytes:
        reason = f"too big: {status.st_size:,} bytes, and the limit is {kMaxSourceBytes:,}"
        return Obstacle("too big", path, reason)
    return None


def _repository_of(folder: str) -> str | None:
    while not os.path.lexists(os.path.join(folder, ".git")):
        parent = os.path.dirname(folder)
        if parent == folder:
            return None
        folder = parent
    return folder


def _relative(path: str, folder: str) -> str | None:
    """The part of `path` below the folder, none if it isn't there."""
    start = folder.rstrip("/") + "/"
    return path[len(start) :] if path.startswith(start) else None
