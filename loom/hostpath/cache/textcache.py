"""Buffers: the text of open files, with changes that aren't saved yet."""

from __future__ import annotations

from typing import Final, NamedTuple

from loombase.destroyable import CDestroyable
from loombase.location import CLocation

__all__ = ["CTextCache", "TextEdit", "kNoColumn"]

kNoColumn: Final = 1_000_000


class TextEdit(NamedTuple):
    """Which lines an edit replaced: those from `first` to before `old_end` by those from `first` to
    before `new_end`. Lines count from 1. An edit inside of a line replaces that line.

    `column` is the least indentation among all those lines that aren't blank, old and new, in
    columns from 0; `kNoColumn` if there is none.
    """

    first: int
    old_end: int
    new_end: int
    column: int

    @property
    def shift(self) -> int:
        """By how many lines what stands behind has moved."""
        return self.new_end - self.old_end


class CTextCache(CDestroyable):
    """The buffer of one open file. `fLocation` is the file's location.

    `modtime` is the modification time on disk, in seconds, of the version that `text` is.
    `fVersion` is the number of edits so far.

    Signals: "text-modified" (buffer, `TextEdit`) after each change of the text; "saved" (buffer)
    when the text has become the file's.
    """

    def __init__(self, loc: CLocation, text: str = "", modtime: float = 0.0) -> None:
        super().__init__(("text-modified", "saved"))
        self.fLocation = loc
        self.fVersion = 0
        self._text = text
        self._modified = False
        self._modtime = modtime

    def GetText(self) -> str:
        return self._text

    def SetText(self, text: str) -> None:
        """Replace the text by an edited one. The same text again is no change."""
        self.Replace(0, len(self._text), text)

    def Replace(self, start: int, end: int, replacement: str) -> None:
        """Replace the characters from offset `start` to before `end`.

        Replacing nothing by nothing is no change. Raises `ValueError` if the range isn't one of the
        text's.
        """
        if not 0 <= start <= end <= len(self._text):
            raise ValueError(f"no range of a text of {len(self._text)} characters: {start}, {end}")
        old = self._text
        replaced = old[start:end]
        if replaced == replacement:
            return
        # What stays the same isn't replaced.
        prefix, suffix = _CommonEnds(replaced, replacement)
        start += prefix
        end -= suffix
        replacement = replacement[prefix : len(replacement) - suffix]
        self._text = f"{old[:start]}{replacement}{old[end:]}"
        self.fVersion += 1
        self._modified = True
        self.emit("text-modified", self, _LinesOf(old, self._text, start, end, replacement))

    def OffsetOfLine(self, lineno: int) -> int:
        """Where a line begins, in characters; the text's length for a line behind the last."""
        offset = 0
        for line in self._text.splitlines(keepends=True) if lineno > 1 else ():
            if _EndsLine(line):
                lineno -= 1
            offset += len(line)
            if lineno == 1:
                break
        return offset

    def MarkSaved(self, modtime: float) -> None:
        """The text is now what stands on disk since `modtime`."""
        self._modified = False
        self._modtime = modtime
        self.emit("saved", self)

    def IsModified(self) -> bool:
        """Whether there are unsaved changes."""
        return self._modified

    def _GetLastKnownModTime(self) -> float:
        """Modification time of the file when it was last read or saved."""
        return self._modtime


def _CommonEnds(old: str, new: str) -> tuple[int, int]:
    """How many characters both texts begin with, and how many of the others they end with."""
    longest = min(len(old), len(new))
    prefix = _CommonLength(old, new, longest)
    return prefix, _CommonLength(old[::-1], new[::-1], longest - prefix)


def _CommonLength(first: str, second: str, longest: int) -> int:
    """How many characters, `longest` at most, both texts begin with."""
    low, high = 0, longest
    while low < high:
        middle = (low + high + 1) // 2
        if first[low:middle] == second[low:middle]:
            low = middle
        else:
            high = middle - 1
    return low


def _LinesOf(old: str, new: str, start: int, end: int, replacement: str) -> TextEdit:
    new_stop = start + len(replacement)
    if old[start - 1 : start] == "\r":
        start -= 1  # it may end a line with what follows it, and by itself
    first = _CountLineEnds(old, 0, start) + 1
    old_end = first + _CountLineEnds(old, start, end)
    new_end = first + _CountLineEnds(new, start, new_stop)
    whole_lines = _AtLineStart(old, end) and _AtLineStart(new, new_stop)
    if not whole_lines or not (_AtLineStart(old, start) or (old_end > first and new_end > first)):
        # The line that it ends in is among them.
        old_end, new_end = old_end + 1, new_end + 1
        end, new_stop = _EndOfLine(old, end), _EndOfLine(new, new_stop)
    start = max(old.rfind("\n", 0, start), old.rfind("\r", 0, start)) + 1
    column = min(_LeastColumn(old[start:end]), _LeastColumn(new[start:new_stop]))
    return TextEdit(first, old_end, new_end, column)


def _EndOfLine(text: str, offset: int) -> int:
    ends = [at for at in (text.find("\n", offset), text.find("\r", offset)) if at >= 0]
    return min(ends, default=len(text))


def _LeastColumn(lines: str) -> int:
    columns = [
        len(line.expandtabs(8)) - len(line.expandtabs(8).lstrip())
        for line in lines.splitlines()
        if line.strip()
    ]
    return min(columns, default=kNoColumn)


def _CountLineEnds(text: str, start: int, end: int) -> int:
    """How many lines end in a range: by a line feed, a carriage return, or both."""
    feeds = text.count("\n", start, end)
    returns = text.count("\r", start, end)
    if not returns:
        return feeds
    # Between the two characters of a line end the line isn't over.
    split = text[end - 1 : end + 1] == "\r\n"
    return feeds + returns - text.count("\r\n", start, end) - split


def _AtLineStart(text: str, offset: int) -> bool:
    if offset == 0:
        return True
    return text[offset - 1] == "\n" or (
        text[offset - 1] == "\r" and text[offset : offset + 1] != "\n"
    )


def _EndsLine(line: str) -> bool:
    return line.endswith(("\n", "\r"))
