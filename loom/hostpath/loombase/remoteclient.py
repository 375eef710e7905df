"""Servers on other machines that inspect remote files. This host starts none yet."""

from __future__ import annotations

from .destroyable import CDestroyable

__all__ = ["CRemoteServerManager"]


class CRemoteServerManager(CDestroyable):
    """Keeps the server of one remote host.

    Signals: "server-stopped" (manager) when the server has ended for whatever reason.
    """

    def __init__(self) -> None:
        super().__init__(("server-stopped",))

    def ServerStopped(self) -> None:
        """To be called by whoever notices that the server is gone."""
        self.emit("server-stopped", self)
