"""Manager of remote servers."""

from loombase.destroyable import CDestroyable


class CRemoteServerManager(CDestroyable):
    """Emits "server-stopped" with itself."""

    def __init__(self) -> None:
        super().__init__(("server-stopped",))
