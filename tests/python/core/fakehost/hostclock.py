"""Virtual time of the fake host, in seconds. It moves only when a test moves it.

`install()` makes it the clock of the C++ modules too.
"""

kStartTime = 1_000_000.0

_now = kStartTime


def now() -> float:
    """The virtual time."""
    return _now


def advance(seconds: float) -> None:
    """Let time pass, without running timers: `guiutils.lgtk.advance` runs them as well."""
    global _now
    if seconds < 0:
        raise ValueError("time can't go back")
    _now += seconds


def reset() -> None:
    """Back to the start time."""
    global _now
    _now = kStartTime


def install() -> None:
    """Replace the clock of `pysource._fastaccess` by this one."""
    from pysource import _fastaccess

    setattr(_fastaccess, "__TimeFunc", now)
