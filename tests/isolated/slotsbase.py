"""A CDestroyable written in Python with `__slots__`: no `__dict__`, no weak references."""

import itertools
from typing import Any

_ids = itertools.count(1)
_class_connections: list[tuple[Any, ...]] = []


def reset() -> None:
    """Drop all class-wide connections."""
    _class_connections.clear()


class CDestroyable:
    """Signals by list; what a host owes the scheduler and nothing else."""

    __slots__ = ("__catchers", "__connections", "__fDestroyed", "__names")

    def __new__(cls, *_args: Any, **_kwargs: Any) -> "CDestroyable":
        self = super().__new__(cls)
        self.__fDestroyed = False
        self.__names = ()
        self.__connections = []
        self.__catchers = []
        return self

    def __init__(self, names: Any = ()) -> None:
        self.__names = tuple(names)

    def destroy(self) -> None:
        """End the object's life once."""
        if self.__fDestroyed:
            return
        self.__fDestroyed = True
        self._destroy_impl()
        for emitter in self.__catchers:
            emitter.__connections = [c for c in emitter.__connections if c[2] is not self]
        self.__catchers = []
        _class_connections[:] = [c for c in _class_connections if c[3] is not self]

    def _destroy_impl(self) -> None:
        """Hook for subclasses."""

    def emit(self, name: str, *args: Any) -> None:
        """Call what is connected."""
        if name not in self.__names:
            raise ValueError(name)
        for connected, callback, _owner, _id in self.__connections[:]:
            if connected == name:
                callback(*args)
        for cls, connected, callback, _owner in _class_connections[:]:
            if connected == name and isinstance(self, cls):
                callback(*args)

    def connect(self, name: str, callback: Any) -> int:
        """Connect for as long as this emitter lives."""
        return self.connect_while_alive(name, callback, None)

    def connect_while_alive(self, name: str, callback: Any, owner: Any) -> int:
        """Connect until `owner` is destroyed."""
        connection = next(_ids)
        self.__connections.append((name, callback, owner, connection))
        if owner is not None:
            owner.__catchers.append(self)
        return connection

    @classmethod
    def class_connect_while_alive(cls, name: str, callback: Any, owner: Any) -> int:
        """Connect to all instances until `owner` is destroyed."""
        _class_connections.append((cls, name, callback, owner))
        return next(_ids)

    def disconnect(self, connection_id: int) -> None:
        """Cut a connection."""
        self.__connections = [c for c in self.__connections if c[3] != connection_id]
