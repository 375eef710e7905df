"""Servers on other machines that inspect remote files."""

from __future__ import annotations

from collections.abc import Iterable

from .destroyable import CDestroyable

__all__ = ["CRemoteServerManager"]


class CRemoteServerManager(CDestroyable):
    """Keeps the server of one remote host. `names` are a subclass's further signals.

    Signals: "server-stopped" (manager) when the server has ended for whatever reason.
    """

    def __init__(self, names: Iterable[str] = ()) -> None:
        super().__init__(("server-stopped", *names))

    def ServerStopped(self) -> None:
        """To be called by whoever notices that the server is gone."""
        self.emit("server-stopped", self)
