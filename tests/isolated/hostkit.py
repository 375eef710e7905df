"""What the scripts of the isolated tests stand on; imported in their own processes only.

`use_base` must come first: it settles which CDestroyable the host has. After it, `world` and the
modules of the fake host can be imported as in the tests of the coordinator.
"""

import gc
import importlib
import sys
import weakref
from collections.abc import Callable
from typing import Any

kBases = ("dict", "slots", "heap", "static")


def use_base(name: str) -> None:
    """Let the host have the CDestroyable of this name.

    `dict` is the fake host's own, written in Python. `heap` and `static` are compiled, and found on
    `sys.path` as `compiled_base`.
    """
    import loombase

    module = {"slots": "slotsbase", "heap": "compiled_base", "static": "compiled_base"}.get(name)
    if module is not None:
        base = importlib.import_module(module)
        sys.modules["loombase.destroyable"] = base
        setattr(loombase, "destroyable", base)


def new_world() -> Any:
    """The collaborators of a coordinator, in their first state."""
    import hostreset
    from pysource import _fastaccess
    from world import World

    import hostclock

    hostreset.reset()
    setattr(_fastaccess, "__TimeFunc", hostclock.now)
    return World()


def collect() -> None:
    """Collect garbage until nothing is left, and forget what the host noted."""
    import hostlog

    hostlog.calls.clear()
    while gc.collect():
        pass


def dies(make: Callable[[], Any]) -> None:
    """Fail unless all that `make` returns weak references to is collected."""
    refs = make()
    import hostreset

    hostreset.reset()
    collect()
    alive = [ref() for ref in refs if ref() is not None]
    if alive:
        raise SystemExit(f"still alive: {alive}, referred to by {gc.get_referrers(alive[0])}")


def refs(*objects: Any) -> list[weakref.ref[Any]]:
    """Weak references to some objects."""
    return [weakref.ref(obj) for obj in objects]


def flat(work: Callable[[], Any], rounds: int = 400, slack: int = 60) -> None:
    """Fail if memory grows with the rounds of some work, however often it is repeated.

    The interpreter's free lists take some hundred rounds to fill, so one flat series of rounds is
    enough: with a leak there is none. `slack` is far less than one block a round.
    """
    counts = []
    for _ in range(12):
        collect()
        before = (sys.getallocatedblocks(), len(gc.get_objects()))
        for _ in range(rounds):
            work()
        collect()
        after = (sys.getallocatedblocks(), len(gc.get_objects()))
        counts.append((after[0] - before[0], after[1] - before[1]))
        if max(counts[-1]) <= slack:
            return
    raise SystemExit(f"growth of (blocks, objects) in {rounds} rounds, again and again: {counts}")


def check(condition: Any, text: str = "") -> None:
    """An assertion that holds under `-O` as well."""
    if not condition:
        raise SystemExit(f"line {sys._getframe(1).f_lineno}: check failed: {text}")


def raises(errors: Any, work: Callable[[], Any]) -> BaseException:
    """Fail unless some work raises one of these errors; returns it."""
    try:
        work()
    except errors as error:
        return error
    raise SystemExit(f"nothing was raised by {work}")
