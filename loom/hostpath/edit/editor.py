"""Documents that show source text."""

from __future__ import annotations

from cache.textcache import CTextCache
from loombase.destroyable import CDestroyable

__all__ = ["CSourceEditor"]


class CSourceEditor(CDestroyable):
    """An editor on the buffer `fCache`, whose `fLocation` tells which file is shown."""

    def __init__(self, text_cache: CTextCache) -> None:
        super().__init__()
        self.fCache = text_cache
