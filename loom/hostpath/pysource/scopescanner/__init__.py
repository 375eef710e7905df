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
from .singlescope import CSingleScopePrimaryScanner
from .wholefile import CWholeFilePrimaryScanner, ScopesOfLines

__all__ = [
    "CScanState",
    "CScanner",
    "CSingleScopePrimaryScanner",
    "CWholeFilePrimaryScanner",
    "CreateClassInstInfo",
    "ScopesOfLines",
    "kFinishedScanning",
    "kReadyToScan",
    "kScanAbandoned",
    "kTimedOut",
    "kWaitingForData",
]
