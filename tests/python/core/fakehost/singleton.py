"""The host's service table."""

from typing import Any

from loombase.destroyable import CDestroyable


class CSingletons(CDestroyable):
    """Managers by name, none until set; emits "changed" with itself when one is set by `Set`."""

    def __init__(self) -> None:
        super().__init__(("changed",))
        self.fPrefMgr: Any = None
        self.fCacheMgr: Any = None
        self.fSavableMgr: Any = None
        self.fAnalysisMgr: Any = None
        self.fFileAttribMgr: Any = None
        self.fGuiMgr: Any = None

    def Set(self, name: str, value: Any) -> None:
        """Set a manager and tell of it."""
        if not hasattr(self, name):
            raise AttributeError(name)
        setattr(self, name, value)
        self.emit("changed", self)


_singletons = CSingletons()


def GetSingletons() -> CSingletons:
    """The same object each time, until `reset`."""
    return _singletons


def reset() -> None:
    """Start over with an empty table."""
    global _singletons
    _singletons = CSingletons()
