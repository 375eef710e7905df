"""What all scanners have in common: states, and work in steps within a deadline."""

from __future__ import annotations

from collections.abc import Callable, Generator
from typing import Final

import singleton
from loombase.destroyable import CDestroyable
from loombase.location import CLocalFileLocation
from pysource import _fastaccess

__all__ = [
    "CScanState",
    "CScanner",
    "ScanSteps",
    "kFinishedScanning",
    "kReadyToScan",
    "kScanAbandoned",
    "kTimedOut",
    "kWaitingForData",
]


class CScanState:
    """Where a scanner stands. There are five, compared by identity alone."""

    __slots__ = ("_name",)

    def __init__(self, name: str) -> None:
        self._name = name

    def __repr__(self) -> str:
        return self._name


kReadyToScan: Final = CScanState("kReadyToScan")
kWaitingForData: Final = CScanState("kWaitingForData")
kFinishedScanning: Final = CScanState("kFinishedScanning")
kTimedOut: Final = CScanState("kTimedOut")
kScanAbandoned: Final = CScanState("kScanAbandoned")

ScanSteps = Generator[None, None, CScanState]


class CScanner(CDestroyable):
    """Base class of the scanners.

    Signals: "scan-state-changed" (the scanner), when a scanner that waits for data may go on.

    `log` is called with a format and its arguments. A subclass says what it does in
    `_ScanInSteps`.
    """

    def __init__(self, loc: CLocalFileLocation, log: Callable[..., object]) -> None:
        super().__init__(("scan-state-changed",))
        self.fLocation = loc
        self.fLog = log
        self.fState = kReadyToScan
        self.fFileDoesntExist = False
        self._fSteps: ScanSteps | None = self._ScanInSteps()

    def Scan(self, end_time: float) -> CScanState:
        """Work until `end_time` or until done; returns the state reached.

        Does one step at least, however late it is. A scan that is over stays so. Raises
        `RuntimeError` on a destroyed scanner.
        """
        if self.fState is kFinishedScanning or self.fState is kScanAbandoned:
            return self.fState
        if self._fSteps is None:
            raise RuntimeError(f"the scan of {self.fLocation!r} was destroyed")
        singleton.GetSingletons().fAnalysisMgr.fInfoCache.NoteSliceEnd(end_time)
        while True:
            try:
                next(self._fSteps)
            except StopIteration as end:
                self.fState = end.value
                return self.fState
            if _fastaccess.OutOfTime(end_time):
                self.fState = kTimedOut
                return self.fState

    def _ScanInSteps(self) -> ScanSteps:
        """The scan: yields after each step, returns the state it ends in."""
        raise NotImplementedError

    def _destroy_impl(self) -> None:
        if self._fSteps is not None:
            self._fSteps.close()
            self._fSteps = None
