"""What all scanners have in common: states, and work in steps within a deadline."""

from __future__ import annotations

from collections.abc import Callable, Generator
from typing import Final

import singleton
from loombase.destroyable import CDestroyable
from loombase.location import CLocalFileLocation, CSshFileLocation
from pysource import _fastaccess

from loom.sourcetext import SourceText, read_source

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

# A step that yields `kWaitingForData` can't go on before "scan-state-changed".
ScanSteps = Generator[CScanState | None, None, CScanState]


class CScanner(CDestroyable):
    """Base class of the scanners.

    Signals: "scan-state-changed" (the scanner), when a scanner that waits for data may go on.

    `log` is called with a format and its arguments. A subclass says what it does in
    `_ScanInSteps`.
    """

    def __init__(
        self, loc: CLocalFileLocation | CSshFileLocation, log: Callable[..., object]
    ) -> None:
        super().__init__(("scan-state-changed",))
        self.fLocation = loc
        self.fLog = log
        self.fState = kReadyToScan
        self.fFileDoesntExist = False
        self._fSteps: ScanSteps | None = self._ScanInSteps()

    def Scan(self, end_time: float) -> CScanState:
        """Work until `end_time` or until done; returns the state reached.

        Does one step at least, however late it is. A scan that is over stays so, and one that
        waits may be asked again at any time. Raises
        `RuntimeError` on a destroyed scanner.
        """
        if self.fState is kFinishedScanning or self.fState is kScanAbandoned:
            return self.fState
        if self._fSteps is None:
            raise RuntimeError(f"the scan of {self.fLocation!r} was destroyed")
        singleton.GetSingletons().fAnalysisMgr.fInfoCache.NoteSliceEnd(end_time)
        while True:
            try:
                state = next(self._fSteps)
            except StopIteration as end:
                self.fState = end.value
                return self.fState
            if state is kWaitingForData:
                self.fState = state
                return state
            if _fastaccess.OutOfTime(end_time):
                self.fState = kTimedOut
                return self.fState

    def Steps(self) -> ScanSteps:
        """What is left of the scan, for a scanner that has this one do a part of its work."""
        assert self._fSteps is not None
        return self._fSteps

    def _ScanInSteps(self) -> ScanSteps:
        """The scan: yields after each step, returns the state it ends in.

        What has to wait yields `kWaitingForData` until it needn't any more.
        """
        raise NotImplementedError

    def _ReadSource(self, text: SourceText) -> Generator[CScanState | None, None, None]:
        """Read the file's bytes into `text`, wherever it is. Raises `SourceError`."""
        if isinstance(self.fLocation, CSshFileLocation):
            from loom.remote.source import read_remote_source  # for those who have such files

            steps = read_remote_source(self.fLocation, text, self._DataArrived)
            for is_there in steps:
                yield None if is_there else kWaitingForData
        else:
            yield from read_source(self.fLocation.path, text)

    def _DataArrived(self) -> None:
        self.emit("scan-state-changed", self)

    def _destroy_impl(self) -> None:
        if self._fSteps is not None:
            self._fSteps.close()
            self._fSteps = None
