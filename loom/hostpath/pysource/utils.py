"""Telling Python sources from other files."""

from __future__ import annotations

import os
import re
import stat

from loombase.location import CLocalFileLocation, CLocation, CSshFileLocation
from loombase.mime import MimeTypeFromName, kAnalyzableMimeTypes
from singleton import GetSingletons

__all__ = ["HasPythonShebang", "IsPythonShebang", "IsPythonSource", "kShebangBytes"]

# The interpreter of a "#!" line, by its path or through env with options and assignments.
_shebang = re.compile(
    rb"#![ \t]*(?:\S*/)?"
    rb"(?:env[ \t]+(?:-\S+[ \t]+|\w+=\S*[ \t]+)*(?:\S*/)?)?"
    rb"(?:python|pypy)[0-9.]*(?:[ \t\r\n]|$)"
)

# Bytes at the start of a file that are looked at.
kShebangBytes = 256


def IsPythonSource(loc: CLocation) -> bool:
    """Whether a location is Python source: because the user said so, by its name, or by "#!".

    A remote file isn't read for that: whoever has found one by "#!" says so.
    """
    attribs = GetSingletons().fFileAttribMgr
    if attribs is not None:
        declared = attribs.GetDeclaredMimeType(loc)
        if declared is not None:
            return declared in kAnalyzableMimeTypes
    if isinstance(loc, CSshFileLocation):
        return MimeTypeFromName(loc.path) in kAnalyzableMimeTypes
    if not isinstance(loc, CLocalFileLocation):
        return False
    return MimeTypeFromName(loc.path) in kAnalyzableMimeTypes or HasPythonShebang(loc.path)


def IsPythonShebang(head: bytes) -> bool:
    """Whether the start of a file names a Python interpreter."""
    return _shebang.match(head) is not None


def HasPythonShebang(path: str) -> bool:
    """Whether the first line of a regular file names a Python interpreter.

    Anything else, and a file that can't be read, isn't Python. A pipe or a device is never waited
    for.
    """
    try:
        descriptor = os.open(path, os.O_RDONLY | os.O_NONBLOCK | os.O_CLOEXEC | os.O_NOCTTY)
    except OSError:
        return False
    try:
        if not stat.S_ISREG(os.fstat(descriptor).st_mode):
            return False
        return IsPythonShebang(os.read(descriptor, kShebangBytes))
    except OSError:
        return False
    finally:
        os.close(descriptor)
