"""Telling what others wrote from what the user did, by its place alone."""

from __future__ import annotations

import re

__all__ = ["is_library"]

# Installed packages, and the standard library of an interpreter.
_LIBRARY = re.compile(r"/(?:site-packages|dist-packages)/|/lib/python3(?:\.\d+)?/")


def is_library(path: str) -> bool:
    """Whether a path or URL is that of an installed package or of a standard library."""
    return _LIBRARY.search(path) is not None
