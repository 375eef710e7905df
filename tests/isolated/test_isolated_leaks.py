"""Memory stays flat over many rounds of everything that is done often."""

import pytest

kSetup = """
import sys
import hostlog
import hostreset
from guiutils import lgtk
from pysource import scopescanner
from pysource.scancoordinator import CScanCoordinator, CScanItem, _CScanQueue, _CSingleScanQueue
"""


def test_coordinators_come_and_go(over):
    over(
        kSetup
        + """
def life():
    world = new_world()
    coordinator = world.make()
    for loc in world.locs(5):
        world.queue(coordinator, loc, check=True)
    coordinator.destroy()
    hostreset.reset()
    collect()

flat(life, rounds=120)
"""
    )


def test_coordinators_that_are_never_destroyed(over):
    over(
        kSetup
        + """
def life():
    world = new_world()
    coordinator = world.make(type("CMine", (CScanCoordinator,), {}))
    coordinator.me = coordinator
    for loc in world.locs(5):
        world.queue(coordinator, loc, check=True)
    scopescanner.script.append(scopescanner.kTimedOut)
    coordinator._CScanCoordinator__DoScans(2e6)
    coordinator._ScheduleIdle()
    hostreset.reset()
    collect()

flat(life, rounds=120)
"""
    )


def test_queues_alone(over):
    over(
        kSetup
        + """
world = new_world()
loc = world.loc("/p/a.py")

class Cache:
    def connect_while_alive(self, *args):
        return 1

def life():
    queue = _CScanQueue(Cache())
    queue.AddScanPairs([(loc, "*"), (loc, "f")], "primary", 1, True)
    queue.First()
    single = _CSingleScanQueue("scan", 1, 2)
    single.fOrderedDict
    queue.destroy()
    hostreset.reset()

flat(life, rounds=400)
"""
    )


def test_scanners_that_wait(over):
    """With a coordinator each round: a host keeps what its owner has connected until the owner goes."""
    over(
        kSetup
        + """
def life():
    world = new_world()
    coordinator = world.make()
    item = world.queue(coordinator, world.loc("/p/a.py"), "f")
    scanner = scopescanner.CScanner()
    coordinator._WaitForScannerToBeReady(scanner, item)
    scanner.emit("scan-state-changed", scanner)
    coordinator._WaitForScannerToBeReady(scanner, item)
    coordinator.destroy()
    hostreset.reset()
    collect()

flat(life, rounds=120)
"""
    )


kRound = {
    "whole life of files": """
    coordinator.AddPairsToPrimaryQueue([(loc, "*") for loc in locs])
    lgtk.run_idle()
    coordinator.ClearLastScanInfo(locs)
""",
    "adding and removing": """
    coordinator.AddPairsToPrimaryQueue([(loc, scope) for loc in locs for scope in "abc"])
    coordinator.AddPairsToSecondaryQueue([(loc, "*") for loc in locs], False)
    coordinator.GetStatus()
    coordinator.RemoveLocationsFromQueue(locs)
    lgtk.run_idle()
""",
    "reading every field": """
    world.queue(coordinator, locs[0], check=True)
    for obj in (coordinator, coordinator._fScanQueue, coordinator._fScanQueue._fOrderedQueues[0]):
        for name in fields[type(obj)]:
            getattr(obj, name)
    for field in (setattr, delattr):
        raises((AttributeError, TypeError), lambda: field(coordinator, "fAnaMgr"))
        raises(AttributeError, lambda: setattr(coordinator, "fAnaMgr", None))
""",
    "failures": """
    world.queue(coordinator, locs[0])
    scopescanner.script.append(ValueError("scan"))
    raises(ValueError, lambda: coordinator._CScanCoordinator__DoScans(2e6))
    coordinator.FlushQueue()
    for scanner in scopescanner.made:
        scanner.destroy()
    scopescanner.made.clear()
    raises(TypeError, lambda: coordinator.AddPairsToPrimaryQueue([5]))
    raises(ValueError, lambda: coordinator.AddPairsToPrimaryQueue([(1, 2, 3)]))
    raises(TypeError, lambda: coordinator.AddPairsToPrimaryQueue(surplus=1))
    raises(TypeError, lambda: coordinator._DoSingleScan(5, 5))
    raises(TypeError, lambda: CScanCoordinator(1))
    raises(OverflowError, lambda: CScanCoordinator(2**40, world.ana_mgr))
    coordinator._CScanCoordinator__DoScans(2e6)
    coordinator.ClearLastScanInfo(locs)
""",
    "scans now": """
    coordinator.TryToScanDictNow(None, None, {(loc, "f", "primary") for loc in locs}, 2e9)
    coordinator.TryToScanDictNow(None, None, {(loc, "f", "derived") for loc in locs}, 2e9)
    coordinator.TryToScanNow(locs[0], "f", None, 2e9)
    coordinator.RemoveLocationsFromQueue(locs)
    coordinator._fIncompleteScansByLoc.clear()
    scopescanner.made.clear()
""",
    "modification times and imports": """
    coordinator._CScanCoordinator__GetModtimeDict(locs)
    getattr(coordinator, "_CScanCoordinator__GetModtimes")(locs, len)
    location.finish_inspections()
    getattr(coordinator, "_CScanCoordinator__AddImportEquivsToQueue")([":ia;:fb c"], locs[0], 2)
    coordinator.RemoveLocationsFromQueue(locs)
""",
    "needs": """
    coordinator._CB_NeedsScanAdded(None, [(loc, "f", "primary") for loc in locs], None)
    coordinator.AddNeedsScanSetToQueues([(loc, "f", "derived") for loc in locs])
    coordinator._fIncompleteScansByLoc[locs[0]].add("f")
    coordinator._CB_ActiveEditLinenoChanged(analysis, 4)
    coordinator._fIncompleteScansByLoc.clear()
    coordinator.RemoveLocationsFromQueue(locs)
""",
    "signals": """
    world.mod_file_cache.emit("suspend", 1)
    world.mod_file_cache.emit("unsuspend")
    analysis.emit("modified", analysis)
    world.savable_mgr.emit("external-files-changed", world.savable_mgr, dict.fromkeys(locs))
    world.factory.emit("import-resolution-changed")
    coordinator.SuspendIdleScans()
    coordinator.ResumeIdleScans()
    coordinator._CB_UpdateStatus()
    coordinator._CB_WriteToDatabase()
    coordinator.FlushQueue()
    lgtk.run_idle()
""",
    "logging": """
    world.log_lines(coordinator)
    world.queue(coordinator, locs[0], check=True)
    coordinator._ScheduleIdle()
    lgtk.run_idle()
    coordinator._fScanQueue.PrintScanQueues(len, 10)
    coordinator.ClearLastScanInfo(locs)
""",
    "the helper process": """
    world.ana_mgr.fHelperProcessProxy = world.proxy
    world.ana_mgr._fHelperProcessSupport = support
    coordinator.AddPairsToPrimaryQueue([(loc, "*") for loc in locs])
    coordinator._UpdateForHelperProcess()
    callback_obj.emit("scan-queue-locs-removed", callback_obj, locs)
    callback_obj.emit("scan-queue-locs-added", callback_obj, locs)
    world.ana_mgr.fHelperProcessProxy = None
    coordinator._UpdateForHelperProcess()
    coordinator.RemoveLocationsFromQueue(locs)
""",
    "overridden operations": """
    mine.AddPairsToPrimaryQueue([(loc, "*") for loc in locs])
    lgtk.run_idle()
    mine.ClearLastScanInfo(locs)
""",
}


@pytest.mark.parametrize("name", kRound)
def test_memory_is_flat_over(over, name):
    over(
        kSetup
        + f"""
from collaborators import HelperCallbackObj, HelperSupport
from loombase import location
from operations import watched
from pysource.analysis import CPySourceAnalysis

world = new_world()
coordinator = world.make()
mine = world.make(watched("_ScheduleIdle", "_DoSingleScan", "__CheckWholeFiles", "QueuesEmpty"))
locs = world.locs(6)
for loc in locs:
    world.info_cache.disk_mtimes[loc] = 1.0
    world.info_cache.infos[loc, "f"] = "info"
world.loc_cache.builtin_loc = world.loc("/lib/builtins.pyi")
analysis = CPySourceAnalysis(locs[0])
callback_obj = HelperCallbackObj()
support = HelperSupport(callback_obj)
fields = {{
    cls: [name for name, member in vars(cls).items() if type(member).__name__ == "getset_descriptor"]
    for cls in (CScanCoordinator, _CScanQueue, _CSingleScanQueue)
}}
check(len(fields[CScanCoordinator]) >= 36)

def life():
{kRound[name]}
    scopescanner.made.clear()
    hostlog.calls.clear()

before = [sys.getrefcount(loc) for loc in locs]
flat(life, rounds=150)
hostlog.calls.clear()
# What a location may gain for good is its place in the records, not one a round.
for loc, count in zip(locs, before):
    check(abs(sys.getrefcount(loc) - count) < 20, (count, sys.getrefcount(loc)))
""",
    )


def test_whole_sessions(over):
    """Every operation of the coordinator, with all of its collaborators doing something."""
    over(
        kSetup
        + """
from session import Session

def life():
    for step in Session(new_world()).steps():
        step()
    hostreset.reset()

flat(life, rounds=40)
"""
    )


def test_sessions_in_which_the_host_fails(over):
    """What an operation holds is released on every way out of it."""
    over(
        kSetup
        + """
import random
import pytest
from session import Session, watch_host

chance = random.Random(1)

def fail_now_and_then(name):
    if chance.random() < 0.03:
        raise ValueError(name)

def life():
    session = Session(new_world())
    session.construct()
    session.make_ready()
    patch = pytest.MonkeyPatch()
    watch_host(patch, fail_now_and_then)
    for step in session.steps()[2:]:
        try:
            step()
        except ValueError:
            pass
    patch.undo()
    hostreset.reset()

flat(life, rounds=40)
"""
    )
