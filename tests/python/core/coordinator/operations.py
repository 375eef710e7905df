"""The operations of the coordinator: their arguments, and subclasses that watch or replace them."""

import contextlib
import inspect
from collections.abc import Callable, Iterator
from typing import Any

from pysource.scancoordinator import CScanCoordinator, kBackgroundPriority

import hostlog

kRequired = inspect.Parameter.empty
kItem = (("scan_item", kRequired), ("end_time", kRequired))
kScope = (("loc", kRequired), ("scope_name", kRequired), ("end_time", kRequired))
kPairs = (("pairs", kRequired), ("first", True), ("priority", None))
kLoc = (("loc", kRequired),)
kEnd = (("end_time", kRequired),)

# Virtual operations in the order of their slots, each with (name, default) of its arguments.
kVirtual: dict[str, tuple[tuple[str, Any], ...]] = {
    "Quitting": (),
    "_destroy_impl": (),
    "SuspendIdleScans": (),
    "ResumeIdleScans": (),
    "GetStatus": (),
    "_CB_ActiveEditLinenoChanged": (("ana", kRequired), ("new_lineno", kRequired)),
    "_CB_NeedsScanAdded": (
        ("info_cache", kRequired),
        ("needs_scan_added", kRequired),
        ("priority", kRequired),
    ),
    "AddNeedsScanSetToQueues": (("needs_scan_set", kRequired),),
    "TryToScanDictNow": (
        ("for_loc", kRequired),
        ("for_scope", kRequired),
        ("needs_scan_set", kRequired),
        ("end_time", kRequired),
    ),
    "TryToScanNow": (
        ("loc", kRequired),
        ("scope_name", kRequired),
        ("scan_name_list", kRequired),
        ("end_time", kRequired),
        ("do_secondary", True),
    ),
    "_TryToScanInstanceScopeNow": kScope,
    "BuildInstanceScopeNoScanning": kScope,
    "_QueueBasicModules": kEnd,
    "QueuesEmpty": (("include_waiting", True),),
    "AddParseablesToQueue": (("loc_seq", kRequired), ("priority", kBackgroundPriority)),
    "_CanSendToHelperProcess": (("loc", kRequired), ("scope_name", kRequired)),
    "AddPairsToPrimaryQueue": kPairs,
    "AddPairsToSecondaryQueue": kPairs,
    "_CB_QueueLocationsAdded": (("queue", kRequired), ("added", kRequired)),
    "_ScheduleIdle": (),
    "_CancelIdle": (),
    "LocationInPrimaryScanQueue": kLoc,
    "LocationInSecondaryScanQueue": kLoc,
    "LocationInScanQueues": kLoc,
    "RemoveLocationsFromQueue": (("to_remove", kRequired),),
    "FlushQueue": (),
    "_CB_DoIdleAnalysis": (),
    "__GetAnalysis": (("loc", kRequired), ("create", kRequired)),
    "__CheckWholeFiles": kEnd,
    "__DoScans": kEnd,
    "_DoSingleScan": kItem,
    "__GetModtimeDict": (("loc_seq", kRequired),),
    "__DoPrimarySingleScopeScan": kItem,
    "__DoPrimaryWholeFileScan": kItem,
    "__DoSecondaryWholeFileScan": kItem,
    "__DoSecondarySingleScopeScan": kScope,
    "_CB_UpdateStatus": (),
    "__EnsureStatusTimeout": (),
    "_ScheduleWriteToDatabaseIdle": (),
    "_CB_WriteToDatabase": (),
}

# Operations that the system calls directly, whatever a subclass has under their names.
kPlain: dict[str, tuple[tuple[str, Any], ...]] = {
    "_UpdateForHelperProcess": (),
    "_WaitForScannerToBeReady": (("scanner", kRequired), ("scan_item", kRequired)),
    "__AddImportEquivsToQueue": (
        ("imported_equivs", kRequired),
        ("dirloc", kRequired),
        ("priority", kRequired),
    ),
    "__GetModtimes": (("loc_seq", kRequired), ("completion_cb", kRequired), ("force", False)),
    "ClearLastScanInfo": (("loc_iterable", kRequired),),
}


# While a coordinator is set up for a test, what watches it looks away.
_unwatched = False


@contextlib.contextmanager
def unwatched() -> Iterator[None]:
    """Let the base class do everything, unnoticed."""
    global _unwatched
    _unwatched = True
    try:
        yield
    finally:
        _unwatched = False


def mangled(name: str) -> str:
    """The name of an operation or field as Python's own rule gives it."""
    return f"_CScanCoordinator{name}" if name.startswith("__") else name


def private(coordinator: Any, name: str) -> Any:
    """The operation or the field of a coordinator that the class calls `name`."""
    return getattr(coordinator, mangled(name))


def signature(name: str) -> inspect.Signature:
    """What the operation can be called with, the coordinator left out."""
    arguments = kVirtual[name] if name in kVirtual else kPlain[name]
    kind = inspect.Parameter.POSITIONAL_OR_KEYWORD
    return inspect.Signature(
        [inspect.Parameter(arg, kind, default=default) for arg, default in arguments]
    )


def watched(*names: str, **replies: Any) -> type:
    """A subclass that notes the calls of some operations, with the defaults filled in.

    The base class still does what is asked of an operation in `names`. In `replies` stands what an
    operation answers instead: a failure to raise, a function of (coordinator, arguments), a list of
    answers to be given in turn, or a plain result.
    """
    body = {mangled(name): _override(name, None) for name in names}
    body |= {mangled(name): _override(name, _replier(reply)) for name, reply in replies.items()}
    return type("CWatchedCoordinator", (CScanCoordinator,), body)


def _override(name: str, reply: Callable[..., Any] | None) -> Callable[..., Any]:
    expected = signature(name)
    base = getattr(CScanCoordinator, mangled(name))

    def operation(self: Any, *args: Any, **kwargs: Any) -> Any:
        bound = expected.bind(*args, **kwargs)
        bound.apply_defaults()
        if _unwatched:
            return base(self, *bound.args)
        hostlog.note(name, *bound.args)
        return base(self, *bound.args) if reply is None else reply(self, *bound.args)

    return operation


def _replier(reply: Any) -> Callable[..., Any]:
    def answer(coordinator: Any, *args: Any) -> Any:
        step = reply.pop(0) if isinstance(reply, list) else reply
        if isinstance(step, BaseException):
            raise step
        return step(coordinator, *args) if callable(step) else step

    return answer
