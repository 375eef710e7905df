"""Text buffers."""

from typing import Any

from loombase.destroyable import CDestroyable


class CTextCache(CDestroyable):
    """Buffer of a file; emits "text-modified" with itself and what else there is to say."""

    def __init__(self, loc: Any) -> None:
        super().__init__(("text-modified",))
        self.fLocation = loc
        self.modified = False
        self.mod_time = 0.0

    def IsModified(self) -> bool:
        """Whether there are unsaved changes."""
        return self.modified

    def _GetLastKnownModTime(self) -> float:
        return self.mod_time
