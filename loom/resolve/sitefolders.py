"""What folders of installed packages say in their own files, read as data: nothing of it is run."""

from __future__ import annotations

import os
from collections.abc import Iterator

__all__ = ["mapped_packages", "path_entries"]

# Files that are longer aren't what they seem to be.
_MOST_CHARS = 1 << 20


def path_entries(site: str) -> list[str]:
    """The folder itself and those that its ".pth" files add, absolute, in order, each once.

    Lines of code in such a file are passed over.
    """
    entries = {site: None}
    for name in _names(site, "", ".pth"):
        for line in _text(os.path.join(site, name)).splitlines():
            line = line.strip()
            if not line or line.startswith(("#", "import ", "import\t")) or "\0" in line:
                continue
            folder = os.path.normpath(os.path.join(site, line))
            if os.path.isdir(folder):
                entries[folder] = None
    return list(entries)


def mapped_packages(site: str) -> dict[str, str]:
    """Packages that are installed by a finder with a table of names: their paths by name."""
    found: dict[str, str] = {}
    for name in _names(site, "__editable__", "_finder.py"):
        for package, path in _table(_text(os.path.join(site, name))):
            found.setdefault(package, os.path.normpath(os.path.join(site, path)))
    return found


def _names(folder: str, prefix: str, suffix: str) -> list[str]:
    try:
        names = os.listdir(folder)
    except OSError:
        return []
    return sorted(name for name in names if name.startswith(prefix) and name.endswith(suffix))


def _text(path: str) -> str:
    try:
        with open(path, encoding="utf-8", errors="surrogateescape") as file:
            return file.read(_MOST_CHARS)
    except OSError:
        return ""


def _table(source: str) -> Iterator[tuple[str, str]]:
    """The entries of the dictionary of literals that is assigned to MAPPING."""
    import ast  # only where there is such a file at all

    try:
        statements = ast.parse(source).body
    except (SyntaxError, ValueError, RecursionError, MemoryError):
        return
    for statement in statements:
        match statement:
            case (
                ast.Assign(targets=[ast.Name("MAPPING")], value=ast.Dict() as table)
                | ast.AnnAssign(target=ast.Name("MAPPING"), value=ast.Dict() as table)
            ):
                for key, value in zip(table.keys, table.values, strict=True):
                    match key, value:
                        case ast.Constant(str(package)), ast.Constant(str(path)):
                            if "\0" not in path:
                                yield package, path
