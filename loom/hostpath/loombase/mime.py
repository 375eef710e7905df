"""Mime types that the analysis can read, and the type that a file's name tells."""

from __future__ import annotations

import os

__all__ = ["kAnalyzableMimeTypes", "kPythonMimeType", "kPythonSuffixes", "MimeTypeFromName"]

kPythonMimeType = "text/x-python"

kAnalyzableMimeTypes = frozenset({kPythonMimeType})

# ".pi" is an old name for interface files.
kPythonSuffixes = frozenset({".py", ".pyi", ".pyw", ".pi"})


def MimeTypeFromName(path: str) -> str | None:
    """The mime type that the suffix of `path` tells, or none if it tells nothing of use here."""
    return kPythonMimeType if os.path.splitext(path)[1] in kPythonSuffixes else None
