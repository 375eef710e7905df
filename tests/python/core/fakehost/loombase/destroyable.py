"""Base class with explicit destruction and declared signals.

Calls of `connect`, `connect_while_alive` and `class_connect_while_alive` are noted in `hostlog`
(with the emitter first), and so are `emit`, `disconnect` and `destroy`.
"""

import itertools
from collections.abc import Callable, Sequence
from typing import Any

import hostlog

_ids = itertools.count(1)
_class_connections: list["_Connection"] = []


class _Connection:
    """A callback on a signal, until it is cut."""

    def __init__(self, emitter: Any, name: str, callback: Callable[..., Any], owner: Any) -> None:
        self.id = next(_ids)
        self.emitter = emitter
        self.name = name
        self.callback = callback
        self.owner = owner
        self.alive = True


def reset() -> None:
    """Drop all class-wide connections."""
    for connection in _class_connections:
        connection.alive = False
    _class_connections.clear()


class CDestroyable:
    """See the module. A subclass that skips `__init__` has no signals but can be destroyed."""

    __fDestroyed = False
    __fSignalCatchers: list[_Connection] = []
    __fAlwaysDestroyOnMainThread = False
    __signal_names: tuple[str, ...] = ()
    __connections: list[_Connection] = []

    def __init__(self, signal_names: Sequence[str] = ()) -> None:
        self.__fDestroyed = False
        self.__fSignalCatchers = []
        self.__fAlwaysDestroyOnMainThread = False
        self.__signal_names = tuple(signal_names)
        self.__connections = []

    def destroy(self) -> None:
        """End the object's life: `_destroy_impl` once, then all connections it owns are cut."""
        hostlog.note("destroy", self)
        if self.__fDestroyed:
            return
        self.__fDestroyed = True
        try:
            self._destroy_impl()
        finally:
            for connection in self.__fSignalCatchers:
                connection.alive = False
                if connection in _class_connections:
                    _class_connections.remove(connection)
                elif isinstance(connection.emitter, CDestroyable):
                    connection.emitter.__drop_dead()
            self.__fSignalCatchers = []

    def _destroy_impl(self) -> None:
        """Hook for subclasses."""

    def emit(self, name: str, *args: Any) -> None:
        """Call what is connected to the signal, in that order, with exactly `args`."""
        if name not in self.__signal_names:
            raise ValueError(f"signal {name!r} wasn't declared by {type(self).__name__}")
        hostlog.note("emit", self, name, *args)
        mine = [c for c in self.__connections if c.name == name]
        classwide = [c for c in _class_connections if c.name == name]
        for connection in mine + [c for c in classwide if isinstance(self, c.emitter)]:
            if connection.alive:
                connection.callback(*args)

    def connect(self, name: str, callback: Callable[..., Any]) -> int:
        """Connect for as long as this emitter lives; returns the connection's id."""
        hostlog.note("connect", self, name, callback)
        return self.__add(_Connection(self, name, callback, None))

    def connect_while_alive(self, name: str, callback: Callable[..., Any], owner: Any) -> int:
        """As `connect`, but cut when `owner` is destroyed."""
        hostlog.note("connect_while_alive", self, name, callback, owner)
        return self.__add(_Connection(self, name, callback, owner))

    @classmethod
    def class_connect_while_alive(
        cls, name: str, callback: Callable[..., Any], owner: "CDestroyable"
    ) -> int:
        """Connect to the signal of all instances, also future ones, until `owner` is destroyed."""
        hostlog.note("class_connect_while_alive", cls, name, callback, owner)
        connection = _Connection(cls, name, callback, owner)
        _class_connections.append(connection)
        owner.__own(connection)
        return connection.id

    def disconnect(self, connection_id: int) -> None:
        """Cut a connection of this emitter, also from inside its own callback."""
        hostlog.note("disconnect", self, connection_id)
        for connection in self.__connections:
            if connection.id == connection_id:
                connection.alive = False
        self.__drop_dead()

    def connection_count(self, name: str) -> int:
        """For tests: how many living connections this emitter has on a signal."""
        return sum(c.alive and c.name == name for c in self.__connections)

    def __add(self, connection: _Connection) -> int:
        if connection.name not in self.__signal_names:
            raise ValueError(f"{type(self).__name__} has no signal {connection.name!r}")
        if connection.owner is not None:
            connection.owner.__own(connection)
        self.__connections.append(connection)
        return connection.id

    def __drop_dead(self) -> None:
        self.__connections = [c for c in self.__connections if c.alive]

    def __own(self, connection: _Connection) -> None:
        if self.__fSignalCatchers is CDestroyable.__fSignalCatchers:
            self.__fSignalCatchers = []
        self.__fSignalCatchers.append(connection)
