"""Put the whole fake host back into its first state; every test starts with it."""

import hostclock
import hostlog
import singleton
from guiutils import lgtk
from loombase import destroyable, location
from loomutils import reflect
from pysource import scopescanner


def reset() -> None:
    """Forget all calls, idle procs, timers, class-wide connections, scripts and singletons."""
    hostclock.reset()
    lgtk.reset()
    destroyable.reset()
    location.reset()
    reflect.reset()
    scopescanner.reset()
    singleton.reset()
    hostlog.calls.clear()
