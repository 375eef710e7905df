"""What all locations have in common."""

from __future__ import annotations

__all__ = ["CLocation"]


class CLocation:
    """Base class of all locations.

    `fUrl` is the URL as text. `fAsyncInspect` is true for a class whose locations must be
    inspected asynchronously before anything is asked of them.
    """

    __slots__ = ("__weakref__",)

    fAsyncInspect = False

    @property
    def fUrl(self) -> str:
        raise NotImplementedError

    @property
    def fShownName(self) -> str:
        """What a person is shown: a path where that is enough, else the URL."""
        return self.fUrl

    def GetParentDir(self) -> CLocation:
        """The location of the folder that holds this one; the topmost folder holds itself."""
        raise NotImplementedError

    def IsReady(self) -> bool:
        """Whether everything can be asked of the location without waiting."""
        return True
