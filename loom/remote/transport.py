"""What carries requests to a server: the seam between keeping a connection and using one."""

from __future__ import annotations

from collections.abc import Callable
from typing import Protocol

from loombase.location import CServerName

from loom.remote.requests import Outcome, Request

__all__ = ["ConnectionFailure", "Transport", "TransportClient", "TransportMaker"]


class ConnectionFailure(Exception):
    """Why there is no connection, or none any more; the text is the reason.

    `lasting` is true if trying again is no use until the user has changed something. `refused` is
    true if nobody listens at that address: a server that has worked before may be coming back.
    """

    def __init__(self, reason: str, *, lasting: bool = False, refused: bool = False) -> None:
        super().__init__(reason)
        self.lasting = lasting
        self.refused = refused


class Transport(Protocol):
    """One connection, from the attempt to make it to its end. Nothing here waits."""

    def start(self, request: Request) -> None:
        """Send a request. Requires: connected, and not closed.

        Its outcome comes by `TransportClient.answered`, never before this returns.
        """

    def stop(self, request: Request) -> None:
        """Forget a request: it isn't answered any more."""

    def close(self) -> None:
        """End the connection, or the attempt. The client hears nothing of it any more."""


class TransportClient(Protocol):
    """Who is told what becomes of a connection. Calls come on the main thread, out of its loop."""

    def connected(self, transport: Transport) -> None:
        """Requests can be sent."""

    def heard(self, transport: Transport) -> None:
        """The other side has shown that it is there, if only by part of an answer."""

    def answered(self, transport: Transport, request: Request, outcome: Outcome) -> None:
        """A request is over."""

    def lost(self, transport: Transport, failure: ConnectionFailure) -> None:
        """There is no connection, or none any more. Nothing else comes from this transport."""


# Begins to connect at once; nothing of it is told before the call has returned.
TransportMaker = Callable[[CServerName, TransportClient], Transport]
