"""The stubs of the standard library, from the copy that comes with `typeshed_client`."""

from __future__ import annotations

import importlib.util
import os
from functools import cache
from typing import Final

__all__ = ["Version", "builtins_path", "is_stub", "stub_versions", "stubs_folder"]

Version = tuple[int, int]

_BUILTINS: Final = "builtins.pyi"


@cache
def stubs_folder() -> str | None:
    """The folder that holds the stubs, or none if the package isn't installed."""
    # Importing the package would take 30 ms, for a parser of stubs that nobody needs here.
    found = importlib.util.find_spec("typeshed_client")
    for place in (found.submodule_search_locations or ()) if found is not None else ():
        folder = os.path.join(os.path.abspath(place), "typeshed")
        if os.path.isfile(os.path.join(folder, _BUILTINS)):
            return folder
    return None


def builtins_path() -> str | None:
    """The stub of the builtins, or none if there are no stubs."""
    folder = stubs_folder()
    return None if folder is None else os.path.join(folder, _BUILTINS)


def is_stub(path: str) -> bool:
    """Whether a file is one of these stubs."""
    folder = stubs_folder()
    return folder is not None and path.startswith(folder + "/")


@cache
def stub_versions() -> dict[str, tuple[Version, Version | None]]:
    """The first and the last version of Python that have a module; none if it still exists.

    A module that isn't listed has the versions of its package. Empty if there are no stubs.
    """
    folder = stubs_folder()
    if folder is None:
        return {}
    versions = {}
    with open(os.path.join(folder, "VERSIONS"), encoding="utf-8") as lines:
        for line in lines:
            name, colon, span = line.partition("#")[0].partition(":")
            if colon:
                first, _, last = span.strip().partition("-")
                versions[name.strip()] = (_version(first), _version(last) if last else None)
    return versions


def _version(text: str) -> Version:
    major, _, minor = text.partition(".")
    return int(major), int(minor)
