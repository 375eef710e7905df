"""Buffers: the text of open files, with changes that aren't saved yet."""

from __future__ import annotations

from loombase.destroyable import CDestroyable
from loombase.location import CLocation

__all__ = ["CTextCache"]


class CTextCache(CDestroyable):
    """The buffer of one open file. `fLocation` is the file's location.

    `modtime` is the modification time on disk, in seconds, of the version that `text` is.

    Signals: "text-modified" (buffer) after each change of the text.
    """

    def __init__(self, loc: CLocation, text: str = "", modtime: float = 0.0) -> None:
        super().__init__(("text-modified",))
        self.fLocation = loc
        self._text = text
        self._modified = False
        self._modtime = modtime

    def GetText(self) -> str:
        return self._text

    def SetText(self, text: str) -> None:
        """Replace the text by an edited one. The same text again is no change."""
        if text == self._text:
            return
        self._text = text
        self._modified = True
        self.emit("text-modified", self)

    def MarkSaved(self, modtime: float) -> None:
        """The text is now what stands on disk since `modtime`."""
        self._modified = False
        self._modtime = modtime

    def IsModified(self) -> bool:
        """Whether there are unsaved changes."""
        return self._modified

    def _GetLastKnownModTime(self) -> float:
        """Modification time of the file when it was last read or saved."""
        return self._modtime
