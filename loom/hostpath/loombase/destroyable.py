"""Objects that are ended explicitly and that emit named signals.

`CDestroyable` is the base class of everything in the host that has a life of its own or that
others listen to. The compiled scheduler derives its classes from it.
"""

from __future__ import annotations

import itertools
import logging
import threading
import weakref
from collections.abc import Callable, Iterable
from types import MappingProxyType
from typing import Any

__all__ = ["CDestroyable", "CheckOwner", "COwned", "SignalError"]

_log = logging.getLogger("loom.signals")

# Ids are never used twice in a process, so that a dead id can't hit a later connection.
_next_id = itertools.count(1).__next__


class SignalError(LookupError):
    """A signal was emitted or connected to that its object never declared."""


class COwned:
    """Something that ends when its owner is destroyed: see `CDestroyable.CutWhenDestroyed`.

    The owner knows it weakly, so it lasts only as long as somebody else holds it.
    """

    __slots__ = ("id", "__weakref__")

    def __init__(self) -> None:
        self.id = _next_id()

    def Cut(self) -> None:
        """End it. Called at most once by the owner."""
        raise NotImplementedError


class _CCatcher(COwned):
    """One connection; the emitter's table holds it.

    `callback` becomes none when the connection is cut, which is how an `emit` that is under way
    sees it. `emitter` is the object or class that emits, weakly, so that there is no cycle.
    """

    __slots__ = ("callback", "emitter", "signal")

    def __init__(self, callback: Callable[..., object], emitter: Any, signal: str) -> None:
        super().__init__()
        if not callable(callback):
            raise TypeError(f"callback of signal {signal!r} can't be called: {callback!r}")
        self.callback: Callable[..., object] | None = callback
        self.emitter: weakref.ref[Any] = weakref.ref(emitter)
        self.signal = signal

    def Cut(self) -> None:
        self.callback = None
        emitter = self.emitter()
        if emitter is None:
            return
        if not isinstance(emitter, type):
            emitter.disconnect(self.id)
            return
        by_name = _class_catchers[emitter]
        by_name[self.signal].pop(self.id)
        if not by_name[self.signal]:
            del by_name[self.signal]
        _class_wide_count[self.signal] -= 1
        if not _class_wide_count[self.signal]:
            del _class_wide_count[self.signal]


_Catchers = dict[int, _CCatcher]

# The key under which an object's table holds the connections that it cuts when it is destroyed,
# and the value that stands there afterwards. A signal can't have this name: it isn't text.
_kOwned: Any = object()
_kDead: Any = object()

# Class-wide connections. Names are counted apart, so that an `emit` of a signal to which nobody
# is connected class-wide doesn't walk the base classes.
_class_catchers: weakref.WeakKeyDictionary[type, dict[str, _Catchers]] = (
    weakref.WeakKeyDictionary()
)
_class_wide_count: dict[str, int] = {}


class CDestroyable:
    """Base class with explicit destruction and declared signals.

    `names` are the signals that the object can emit. All operations belong to the main thread.

    Order in an `emit`: the callbacks of the object in order of connection, then the class-wide
    ones, from the object's own class up through its bases. A callback that is connected during
    an `emit` is first called by the next one; a callback that is cut isn't called any more.

    A callback that raises doesn't keep the others from being called: all of them run, and then
    the first exception is raised from `emit`, the very object. Further ones are logged.
    `KeyboardInterrupt` and other exceptions that aren't `Exception` are raised at once.
    """

    # Defaults for an object whose class forgot to call `__init__`: it lives, has no signals, and
    # says so clearly when it is asked for one.
    __fDestroyed: bool = False
    __fSignalCatchers: Any = MappingProxyType({})
    __fAlwaysDestroyOnMainThread: bool = False

    def __init__(self, names: Iterable[str] = ()) -> None:
        if isinstance(names, str):
            raise TypeError("signal names must be a sequence of texts, not one text")
        self.__fDestroyed = False
        # Signal name to its catchers, none until somebody connects.
        self.__fSignalCatchers = dict.fromkeys(names)
        self.__fAlwaysDestroyOnMainThread = False

    # --- lifetime

    def destroy(self) -> None:
        """End the object's life; only the first call does anything.

        Runs `_destroy_impl`, in which signals can still be emitted and reach their callbacks.
        Afterwards, also if it raised, every connection that the object owns or emits to is cut,
        and its `emit` does nothing.
        """
        if self.__fDestroyed:
            return
        if (
            self.__fAlwaysDestroyOnMainThread
            and threading.current_thread() is not threading.main_thread()
        ):
            raise RuntimeError(f"{type(self).__name__} must be destroyed on the main thread")
        self.__fDestroyed = True
        try:
            self._destroy_impl()
        finally:
            self.__CutAll()

    def _destroy_impl(self) -> None:
        """For subclasses: release what the object holds. Called once, by `destroy`."""

    def __CutAll(self) -> None:
        table = self.__fSignalCatchers
        owned = table.get(_kOwned)
        self.__fSignalCatchers = {name: None for name in table} | {_kOwned: _kDead}
        for name, catchers in table.items():
            if name is not _kOwned and catchers:
                for catcher in catchers.values():
                    catcher.callback = None
        if owned is not None:
            for thing in list(owned.values()):
                thing.Cut()

    def CutWhenDestroyed(self, thing: COwned) -> None:
        """Call `thing.Cut()` when this object is destroyed, or now if that has happened.

        `thing` is held weakly, so that a long-lived owner doesn't collect what is over.
        """
        table = self.__fSignalCatchers
        owned = table.get(_kOwned)
        if owned is _kDead:
            thing.Cut()
            return
        if owned is None:
            if isinstance(table, MappingProxyType):
                table = self.__fSignalCatchers = {}
            owned = table[_kOwned] = weakref.WeakValueDictionary()
        owned[thing.id] = thing

    # --- signals

    def emit(self, name: str, *args: object) -> None:
        """Call all callbacks that are connected to the signal `name`, each with exactly `args`."""
        try:
            catchers = self.__fSignalCatchers[name]
        except KeyError:
            raise _NotDeclared(self, name) from None
        if name in _class_wide_count and self.__fSignalCatchers.get(_kOwned) is not _kDead:
            to_call = list(catchers.values()) if catchers else []
            for cls in type(self).__mro__:
                by_name = _class_catchers.get(cls)
                if by_name is not None and (class_wide := by_name.get(name)):
                    to_call.extend(class_wide.values())
        elif catchers:
            to_call = list(catchers.values())
        else:
            return
        first_error: Exception | None = None
        for catcher in to_call:
            callback = catcher.callback
            if callback is None:
                continue
            try:
                callback(*args)
            except Exception as error:
                if first_error is None:
                    first_error = error
                else:
                    _log.exception("a further callback of %r failed: %r", name, callback)
        if first_error is not None:
            try:
                raise first_error
            finally:
                del first_error  # no cycle through this frame

    def connect(self, name: str, callback: Callable[..., object]) -> int:
        """Call `callback` at each `emit` of `name` for as long as this object lives.

        Returns the id to give to `disconnect`. On a destroyed object the connection is dead.
        """
        return self.__Connect(name, callback).id

    def connect_while_alive(
        self, name: str, callback: Callable[..., object], owner: CDestroyable
    ) -> int:
        """As `connect`, and the connection is also cut when `owner` is destroyed."""
        CheckOwner(owner)
        catcher = self.__Connect(name, callback)
        owner.CutWhenDestroyed(catcher)
        return catcher.id

    def disconnect(self, connect_id: int) -> None:
        """Cut a connection, also from inside its own callback. A dead id is no error."""
        for name, catchers in self.__fSignalCatchers.items():
            if name is not _kOwned and catchers and connect_id in catchers:
                catchers.pop(connect_id).callback = None
                return

    def __Connect(self, name: str, callback: Callable[..., object]) -> _CCatcher:
        table = self.__fSignalCatchers
        if name not in table:
            raise _NotDeclared(self, name)
        catcher = _CCatcher(callback, self, name)
        if table.get(_kOwned) is _kDead:
            catcher.callback = None
            return catcher
        catchers = table[name]
        if catchers is None:
            catchers = table[name] = {}
        catchers[catcher.id] = catcher
        return catcher

    @classmethod
    def class_connect_while_alive(
        cls, name: str, callback: Callable[..., object], owner: CDestroyable
    ) -> int:
        """Connect to the signal `name` of every instance of the class, present and future.

        Called on an object, it means the object's class. Emitters of such signals pass themselves
        as the first argument, so that the callback can tell them apart. The connection is cut
        when `owner` is destroyed.
        """
        CheckOwner(owner)
        catcher = _CCatcher(callback, cls, name)
        catchers = _class_catchers.setdefault(cls, {}).setdefault(name, {})
        catchers[catcher.id] = catcher
        _class_wide_count[name] = _class_wide_count.get(name, 0) + 1
        owner.CutWhenDestroyed(catcher)
        return catcher.id


def CheckOwner(owner: object) -> None:
    """Raise `TypeError` for an owner that can't end anything, before anything is begun."""
    if not isinstance(owner, CDestroyable):
        raise TypeError(f"owner must be a CDestroyable, not {owner!r}")


def _NotDeclared(emitter: object, name: object) -> SignalError:
    return SignalError(f"{type(emitter).__name__} has no signal {name!r}")
