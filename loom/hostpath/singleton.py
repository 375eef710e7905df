"""The host's service table."""

from __future__ import annotations

from typing import Any

from loombase.destroyable import CDestroyable

__all__ = ["CSingletons", "GetSingletons"]


class _CEntry:
    """One entry of the table; setting it emits "changed"."""

    def __set_name__(self, owner: type, name: str) -> None:
        self._key = "_" + name

    def __get__(self, table: CSingletons, owner: type | None = None) -> Any:
        return table.__dict__.get(self._key)

    def __set__(self, table: CSingletons, value: object) -> None:
        table.__dict__[self._key] = value
        table.emit("changed", table)


class CSingletons(CDestroyable):
    """One manager of each kind, none until the host has set it.

    Signals: "changed" (the table) each time that an entry is set.
    """

    fPrefMgr = _CEntry()
    fCacheMgr = _CEntry()
    fSavableMgr = _CEntry()
    fAnalysisMgr = _CEntry()
    fFileAttribMgr = _CEntry()
    fGuiMgr = _CEntry()

    def __init__(self) -> None:
        super().__init__(("changed",))


_singletons = CSingletons()


def GetSingletons() -> CSingletons:
    """The table, the same object each time."""
    return _singletons
