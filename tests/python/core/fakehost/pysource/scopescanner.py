"""Scanners that do what a test has scripted.

A test appends steps to `script`; each `Scan` takes the first one. A step is a scan state to return,
a failure to raise, or a function of (scanner, end_time) that returns a state. With no step left a
scan finishes. `made` holds the scanners in order of creation.
"""

from collections import deque
from typing import Any

import hostlog
from loombase.destroyable import CDestroyable


class _ScanState:
    """Opaque state of a scan, compared by identity."""

    def __init__(self, name: str) -> None:
        self.name = name

    def __repr__(self) -> str:
        return self.name


kReadyToScan = _ScanState("kReadyToScan")
kWaitingForData = _ScanState("kWaitingForData")
kFinishedScanning = _ScanState("kFinishedScanning")
kTimedOut = _ScanState("kTimedOut")
kScanAbandoned = _ScanState("kScanAbandoned")

script: deque[Any] = deque()
made: list["CScanner"] = []


class CScanner(CDestroyable):
    """Emits "scan-state-changed" with itself."""

    def __init__(self, *args: Any, **kwargs: Any) -> None:
        super().__init__(("scan-state-changed",))
        hostlog.note(type(self).__name__, *args, **kwargs)
        self.args = args
        self.kwargs = kwargs
        self.destroyed = False
        made.append(self)

    def Scan(self, end_time: float) -> Any:
        """Take one step of the script."""
        hostlog.note("Scan", self, end_time)
        step = script.popleft() if script else kFinishedScanning
        if isinstance(step, BaseException):
            raise step
        if isinstance(step, _ScanState) or not callable(step):
            return step
        return step(self, end_time)

    def _destroy_impl(self) -> None:
        self.destroyed = True
        super()._destroy_impl()


class _CSingleScopeResults(CScanner):
    """What a scanner of one scope shows when it is done."""

    def __init__(self, *args: Any, **kwargs: Any) -> None:
        super().__init__(*args, **kwargs)
        self.fInfo: Any = None
        self.fScopeDef: Any = None
        self.fContainingClassDef: Any = None
        self.fFileDoesntExist = False
        self.save_result: Any = True

    def SaveToInfoCache(self, *args: Any) -> Any:
        """Noted; returns `save_result`."""
        hostlog.note("SaveToInfoCache", self, *args)
        return self.save_result


class CWholeFilePrimaryScanner(CScanner):
    """Called with (loc, scan_name, incomplete_scope_set=, log=)."""

    fFileDoesntExist = False


class CSingleScopePrimaryScanner(_CSingleScopeResults):
    """Called with (loc, scope_name, incomplete_scope_set=, log=)."""


class CWholeFileSecondaryScanner(CScanner):
    """Called with (loc, scan_name, log)."""

    def FilterNeedsScan(self, needs_scan_added: Any) -> list[Any]:
        """Noted; all triples stay."""
        hostlog.note("FilterNeedsScan", self, needs_scan_added)
        return list(needs_scan_added)


class CSingleScopeSecondaryScanner(_CSingleScopeResults):
    """Called with (info, log, None, ana_mgr)."""


def CreateClassInstInfo(class_info: Any, method_infos: list[Any], scan_name: str) -> Any:
    """Noted; the record is the tuple of the arguments."""
    hostlog.note("CreateClassInstInfo", class_info, method_infos, scan_name)
    return (class_info, tuple(method_infos), scan_name)


def reset() -> None:
    """Forget script and scanners."""
    script.clear()
    made.clear()
