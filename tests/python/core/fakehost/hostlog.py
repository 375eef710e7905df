"""What the fake host was asked to do, in order.

Every fake notes its calls here as (name, args, kwargs). A test reads `calls` or takes a part of it
with `take`, and `reset` of `hostreset` empties it between tests.
"""

from typing import Any, NamedTuple


class Call(NamedTuple):
    """One call of a fake: its name, its positional and its keyword arguments."""

    name: str
    args: tuple[Any, ...]
    kwargs: dict[str, Any]


calls: list[Call] = []


def note(name: str, *args: Any, **kwargs: Any) -> None:
    """Append one call to the log."""
    calls.append(Call(name, args, kwargs))


def take(*names: str) -> list[Call]:
    """Remove and return the calls with one of these names, or all calls when none is given."""
    taken = [call for call in calls if not names or call.name in names]
    calls[:] = [call for call in calls if names and call.name not in names]
    return taken


def names() -> list[str]:
    """The names of the calls so far, in order."""
    return [call.name for call in calls]
