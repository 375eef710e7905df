"""A Python environment: which interpreter, and where it looks for modules."""

from __future__ import annotations

import sys
import sysconfig
from dataclasses import dataclass

from loom.resolve.typeshed import Version

__all__ = ["PythonEnvironment", "own_environment"]


@dataclass(frozen=True, slots=True)
class PythonEnvironment:
    """What an interpreter tells of itself.

    `path` are the folders that it imports from, in order, absolute and normal; what isn't a folder
    is left out. Those among them that hold the standard library are also in `stdlib`.
    """

    executable: str
    version: Version
    path: tuple[str, ...]
    stdlib: tuple[str, ...]


def own_environment() -> PythonEnvironment:
    """The interpreter that runs this process, as far as it can be told without asking it.

    Folders that only its ".pth" files name are missing: `loom.resolve.interpreter` has those.
    """
    paths = sysconfig.get_paths()
    stdlib = dict.fromkeys((paths["stdlib"], paths["platstdlib"]))
    dynload = sysconfig.get_config_var("DESTSHARED")
    if dynload:
        stdlib[dynload] = None
    path = dict.fromkeys((*stdlib, paths["purelib"], paths["platlib"]))
    return PythonEnvironment(
        sys.executable, sys.version_info[:2], tuple(path), tuple(stdlib)
    )
