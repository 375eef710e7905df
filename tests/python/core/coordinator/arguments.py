"""Arguments that each operation of the coordinator takes."""

from operations import kPlain, kRequired, kVirtual
from pysource import scopescanner, symbolinfo
from pysource.analysis import CPySourceAnalysis
from pysource.scancoordinator import CScanItem
from world import kPrimary

kAll = {**kVirtual, **kPlain}


def example(world, argument):
    """A value that an operation takes for an argument of this name."""
    loc = world.loc("/p/a.py")
    return {
        "ana": CPySourceAnalysis(loc),
        "added": set(),
        "completion_cb": lambda _times: None,
        "create": False,
        "dirloc": world.loc("/p"),
        "do_secondary": True,
        "end_time": 0.0,
        "first": True,
        "for_loc": loc,
        "for_scope": "f",
        "force": False,
        "imported_equivs": [],
        "include_waiting": True,
        "info_cache": world.info_cache,
        "loc": loc,
        "loc_iterable": [loc],
        "loc_seq": [loc],
        "needs_scan_added": [],
        "needs_scan_set": [],
        "new_lineno": 3,
        "pairs": [],
        "priority": 1,
        "queue": None,
        "scan_item": CScanItem(loc, "*", kPrimary, 2),
        "scan_name_list": [],
        "scanner": scopescanner.CScanner(),
        "scope_name": "f",
        "to_remove": [loc],
    }[argument]


def instance_scope(name, values):
    """The two builders of instance scopes take nothing but instance scopes."""
    if name in ("_TryToScanInstanceScopeNow", "BuildInstanceScopeNoScanning"):
        values["scope_name"] = symbolinfo.GetInstanceNameForClass("C")
    return values


def values_for(world, name, *, required_only=False):
    """Arguments by name for a call of an operation."""
    values = {
        argument: example(world, argument)
        for argument, default in kAll[name]
        if not required_only or default is kRequired
    }
    return instance_scope(name, values)
