"""A Python environment: which interpreter, and where it looks for modules."""

from __future__ import annotations

import sys
import sysconfig
from collections.abc import Mapping
from dataclasses import dataclass, field
from types import MappingProxyType

from loom.resolve.typeshed import Version

__all__ = ["PythonEnvironment", "own_environment"]


@dataclass(frozen=True, slots=True)
class PythonEnvironment:
    """What an interpreter tells of itself.

    `path` are the folders that it imports from, in order, absolute and normal. Those among them
    that hold the standard library are also in `stdlib`. `mapped` are modules and packages that are
    installed by name instead of by folder: their paths, without a suffix.
    """

    executable: str
    version: Version
    path: tuple[str, ...]
    stdlib: tuple[str, ...]
    mapped: Mapping[str, str] = field(default_factory=lambda: MappingProxyType({}))


def own_environment() -> PythonEnvironment:
    """The interpreter that runs this process, as far as it can be told without asking it.

    Folders that only its ".pth" files name are missing: `loom.resolve.interpreter` has those.
    """
    paths = sysconfig.get_paths()
    library = (paths["stdlib"], paths["platstdlib"], sysconfig.get_config_var("DESTSHARED"))
    # In a virtual environment the second is a folder that nothing is imported from.
    stdlib = tuple(dict.fromkeys(folder for folder in library if folder in sys.path))
    path = tuple(dict.fromkeys((*stdlib, paths["purelib"], paths["platlib"])))
    return PythonEnvironment(sys.executable, sys.version_info[:2], path, stdlib)
