"""Putting the host's modules where the engine looks for them.

The scheduler imports its host as `loombase`, `guiutils`, `singleton` and so on, and its neighbours
as `pysource.scopescanner` and so on. They stand in the folder `hostpath` beside this file, which
gets onto `sys.path` here, so that nothing of such a name has to be installed.
"""

from __future__ import annotations

import importlib
import pkgutil
import sys
from pathlib import Path

__all__ = ["HOST_PATH", "ensure_host_path"]

HOST_PATH = str(Path(__file__).resolve().parent / "hostpath")


def ensure_host_path() -> None:
    """Make the host's modules importable. May be called any number of times.

    They come first on `sys.path`: a program that runs the host can't have modules of its own under
    their names.
    """
    if HOST_PATH not in sys.path:
        sys.path.insert(0, HOST_PATH)
        importlib.invalidate_caches()
    package = sys.modules.get("pysource")
    if package is not None:  # its path was settled before ours was known
        package.__path__ = pkgutil.extend_path(package.__path__, "pysource")
