from collections.abc import Callable
from typing import Any, Protocol

from typing_extensions import disjoint_base

class _Writer(Protocol):
    def write(self, text: str, /) -> object: ...

# The clock: what stands here when the time is asked for.
__TimeFunc: Callable[[], float]

def GetNowTime() -> float: ...
def OutOfTime(end_time: float) -> bool: ...

@disjoint_base
class CLogger:
    """A logger: called with a format and its arguments.

    Nothing is written or formatted while `fOutputFile` is None. Otherwise each call makes one call
    of its `write` with one line.
    """

    fOutputFile: _Writer | None
    def __init__(self, name: str) -> None: ...
    @property
    def fName(self) -> str: ...
    def __call__(self, s: str | None, *args: Any) -> None: ...
    def Log1(self, s: str | None, *args: Any) -> None: ...
    def Log2(self, s: str | None, *args: Any) -> None: ...
    def Log3(self, s: str | None, *args: Any) -> None: ...
