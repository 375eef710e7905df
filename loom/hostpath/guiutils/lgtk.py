"""Idle callbacks, timers and callback wrappers over the main loop that the host has set.

A true result of an idle or timer callback asks for the next call; a false one or none ends it, and
its id is dead from then on. Dead ids are tolerated everywhere and never used again. Everything here
belongs to the thread of the main loop.
"""

from __future__ import annotations

from collections.abc import Callable

from loombase.destroyable import CDestroyable, CheckOwner, COwned

from loom.mainloop.base import DEFAULT_IDLE_PRIORITY, MainLoop

__all__ = [
    "GetMainLoop",
    "NoArgCallback",
    "NoObjCallback",
    "SetMainLoop",
    "idle_add",
    "idle_add_while_alive",
    "idle_remove",
    "timeout_add_while_alive",
    "timeout_remove",
]

_main_loop: MainLoop | None = None


def SetMainLoop(main_loop: MainLoop | None) -> None:
    """Set the main loop that everything registered from now on runs on; none takes it away."""
    global _main_loop
    _main_loop = main_loop


def GetMainLoop() -> MainLoop:
    """The main loop. Raises `RuntimeError` if the host hasn't set one."""
    if _main_loop is None:
        raise RuntimeError("no main loop is set: call guiutils.lgtk.SetMainLoop first")
    return _main_loop


def idle_add(callback: Callable[[], object], priority: int = DEFAULT_IDLE_PRIORITY) -> int:
    """Call `callback` in idle time. A lower `priority` runs first, equals in turn."""
    return GetMainLoop().idle_add(callback, priority)


def idle_remove(idle_id: int) -> None:
    """End an idle callback. Without a main loop every id is dead."""
    if _main_loop is not None:
        _main_loop.idle_remove(idle_id)


def idle_add_while_alive(
    callback: Callable[[], object], owner: CDestroyable, priority: int = DEFAULT_IDLE_PRIORITY
) -> int:
    """As `idle_add`, and ended when `owner` is destroyed."""
    CheckOwner(owner)
    main_loop = GetMainLoop()
    registration = _CWhileAlive(callback, main_loop.idle_remove)
    registration.handle = main_loop.idle_add(registration, priority)
    owner.CutWhenDestroyed(registration)
    return registration.handle


def timeout_add_while_alive(
    milliseconds: float, callback: Callable[[], object], owner: CDestroyable
) -> int:
    """Call `callback` every so many milliseconds, until `owner` is destroyed at the latest."""
    CheckOwner(owner)
    main_loop = GetMainLoop()
    registration = _CWhileAlive(callback, main_loop.timeout_remove)
    registration.handle = main_loop.timeout_add(milliseconds, registration)
    owner.CutWhenDestroyed(registration)
    return registration.handle


def timeout_remove(timer_id: int) -> None:
    """End a timer. Without a main loop every id is dead."""
    if _main_loop is not None:
        _main_loop.timeout_remove(timer_id)


class _CWhileAlive(COwned):
    """A registration that its owner's end takes out. The main loop holds it as the callback."""

    __slots__ = ("_callback", "_remove", "handle")

    def __init__(self, callback: Callable[[], object], remove: Callable[[int], None]) -> None:
        super().__init__()
        if not callable(callback):
            raise TypeError(f"callback can't be called: {callback!r}")
        self._callback = callback
        self._remove = remove
        self.handle = 0

    def __call__(self) -> object:
        return self._callback()

    def __repr__(self) -> str:
        return repr(self._callback)

    def Cut(self) -> None:
        self._remove(self.handle)


def NoArgCallback(callback: Callable[[], object]) -> Callable[..., object]:
    """A callable that takes whatever a signal carries and calls `callback` with nothing."""

    def call(*_args: object) -> object:
        return callback()

    return call


def NoObjCallback(callback: Callable[..., object]) -> Callable[..., object]:
    """A callable that drops the first argument of a signal, the emitter, and passes on the rest."""

    def call(_emitter: object, *args: object) -> object:
        return callback(*args)

    return call
