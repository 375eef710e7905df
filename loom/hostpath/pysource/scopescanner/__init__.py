"""The scanners: live objects that carry one scan forward slice by slice."""

from __future__ import annotations

from .base import (
    CScanner,
    CScanState,
    kFinishedScanning,
    kReadyToScan,
    kScanAbandoned,
    kTimedOut,
    kWaitingForData,
)
from .instances import CreateClassInstInfo
from .derived import CSingleScopeSecondaryScanner, CWholeFileSecondaryScanner
from .singlescope import CSingleScopePrimaryScanner
from .wholefile import CWholeFilePrimaryScanner, ScopesOfLines

__all__ = [
    "CScanState",
    "CScanner",
    "CSingleScopePrimaryScanner",
    "CSingleScopeSecondaryScanner",
    "CWholeFilePrimaryScanner",
    "CWholeFileSecondaryScanner",
    "CreateClassInstInfo",
    "ScopesOfLines",
    "kFinishedScanning",
    "kReadyToScan",
    "kScanAbandoned",
    "kTimedOut",
    "kWaitingForData",
]
