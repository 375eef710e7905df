"""Is it Python?"""

from typing import Any

import hostlog


def IsPythonSource(loc: Any) -> bool:
    """Whether a location that its URL doesn't tell is Python source."""
    hostlog.note("IsPythonSource", loc)
    return loc.fUrl.endswith(".script")
