"""The object on which reports of helpers arrive as signals."""

from __future__ import annotations

from collections.abc import Sequence
from typing import Final

from loombase.destroyable import CDestroyable
from loombase.location import CLocation

__all__ = ["CHelperCallbackObj", "new_callback_obj"]

_kAdded: Final = "scan-queue-locs-added"
_kRemoved: Final = "scan-queue-locs-removed"


class CHelperCallbackObj(CDestroyable):
    """Signals: "scan-queue-locs-added" (the object, locations) when locations joined a helper's
    queue, "scan-queue-locs-removed" (the object, locations) when they left it.
    """

    def __init__(self) -> None:
        super().__init__((_kAdded, _kRemoved))

    def locs_added(self, locs: Sequence[CLocation]) -> None:
        if locs:
            self.emit(_kAdded, self, locs)

    def locs_removed(self, locs: Sequence[CLocation]) -> None:
        if locs:
            self.emit(_kRemoved, self, locs)


def new_callback_obj() -> CHelperCallbackObj:
    """An object of a class of its own.

    The scheduler connects to the class and never cuts that connection. With one class for all, the
    reports of the tenth helper would be heard ten times.
    """

    class COneHelperCallbackObj(CHelperCallbackObj):
        pass

    return COneHelperCallbackObj()
