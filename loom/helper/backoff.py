"""When to start a helper again that has gone."""

from __future__ import annotations

from typing import Final

__all__ = ["Backoff"]

_kFirstSeconds: Final = 0.05

# So many that went without having done anything, and there is no use in more.
_kMostFailures: Final = 5


class Backoff:
    """Four times the delay for each helper in a row that went without having done anything."""

    def __init__(self) -> None:
        self._failures = 0

    def note_progress(self) -> None:
        """A helper has done something."""
        self._failures = 0

    def next_delay(self) -> float | None:
        """A helper has gone: seconds to wait before the next start, none to give up."""
        self._failures += 1
        if self._failures >= _kMostFailures:
            return None
        return _kFirstSeconds * float(4 ** (self._failures - 1))
