"""Reporting of failures that nobody handles."""

from __future__ import annotations

import logging
import sys

from loombase.destroyable import CDestroyable

__all__ = ["GetFailureReporter", "ReportCurrentException"]

_log = logging.getLogger("loom.failures")


class CFailureReporter(CDestroyable):
    """Tells who wants to know of reported failures.

    Signals: "failure-reported" (the exception), after it was logged.
    """

    def __init__(self) -> None:
        super().__init__(("failure-reported",))


_reporter = CFailureReporter()


def GetFailureReporter() -> CFailureReporter:
    """The reporter, the same object each time."""
    return _reporter


def ReportCurrentException() -> None:
    """Log the exception that is being handled, with its traceback. Never raises one itself.

    To be called in an `except` block; elsewhere there is nothing to report and nothing happens.
    """
    failure = sys.exception()
    if failure is None:
        return
    _log.error("unhandled failure: %s", failure, exc_info=failure)
    try:
        _reporter.emit("failure-reported", failure)
    except Exception:
        _log.exception("a listener to failures failed itself")
