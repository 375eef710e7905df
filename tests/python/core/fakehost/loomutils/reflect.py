"""The host's error report: keeps what was reported, for tests to look at."""

import sys

import hostlog

reported: list[BaseException] = []


def ReportCurrentException() -> None:
    """Keep the failure in hand."""
    failure = sys.exc_info()[1]
    if failure is None:
        raise RuntimeError("no failure in hand")
    hostlog.note("ReportCurrentException", failure)
    reported.append(failure)


def reset() -> None:
    """Forget the reports."""
    reported.clear()
