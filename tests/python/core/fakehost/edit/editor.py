"""Source editor documents."""

from typing import Any


class CSourceEditor:
    """A document with the buffer `fCache`."""

    def __init__(self, cache: Any) -> None:
        self.fCache = cache
