"""Where things are kept when nobody says otherwise."""

from __future__ import annotations

import os
from pathlib import Path

__all__ = ["default_db_path"]


def default_db_path() -> Path:
    """The database in the user's cache folder, `$XDG_CACHE_HOME` or "~/.cache".

    There is one for all projects: what they share, the standard library and installed packages, is
    then scanned and stored once.
    """
    # By the XDG rules a relative path there counts as not set.
    configured = os.environ.get("XDG_CACHE_HOME", "")
    cache = Path(configured) if os.path.isabs(configured) else Path.home() / ".cache"
    return cache / "loom" / "info.sqlite3"
