"""Words for the kind characters of scopes and definitions."""

from __future__ import annotations

from typing import Final

__all__ = ["word_for_kind"]

_WORDS: Final = {
    "=": "variable",
    "h": "variable",
    "a": "import",
    "C": "class",
    "F": "function",
    "G": "type alias",
    "I": "attribute",
    "M": "method",
    "O": "module",
    "f": "import",
    "i": "import",
    "m": "method",
    "n": "nonlocal",
    "o": "global",
    "p": "type parameter",
    "r": "argument",
}


def word_for_kind(kind: str) -> str:
    """What a kind is called. One without a word is shown as it is."""
    return _WORDS.get(kind, kind)
