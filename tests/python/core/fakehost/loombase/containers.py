"""Manager of container inspectors."""

from loombase.destroyable import CDestroyable


class CContainerInspectorManager(CDestroyable):
    """Emits "server-stopped" with itself."""

    def __init__(self) -> None:
        super().__init__(("server-stopped",))
