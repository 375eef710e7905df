"""Inspectors of files inside containers. This host starts none yet."""

from __future__ import annotations

from .destroyable import CDestroyable

__all__ = ["CContainerInspectorManager"]


class CContainerInspectorManager(CDestroyable):
    """Keeps the inspector of one container.

    Signals: "server-stopped" (manager) when the inspector has ended for whatever reason.
    """

    def __init__(self) -> None:
        super().__init__(("server-stopped",))

    def ServerStopped(self) -> None:
        """To be called by whoever notices that the inspector is gone."""
        self.emit("server-stopped", self)
