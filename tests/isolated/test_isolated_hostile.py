"""Collaborators that misbehave, and calls that come back in the middle of an operation.

Nothing here may crash the interpreter; what else must hold is checked after the fact.
"""

import pytest

kSetup = """
import gc
import random
import hostclock
import hostlog
from guiutils import lgtk
from pysource import scopescanner, scopeinfo
from pysource.scancoordinator import CScanCoordinator, CScanItem, _CScanQueue
from loombase.location import CLocalFileLocation

def quietly(work):
    try:
        return work()
    except Exception:
        return None

def consistent(coordinator):
    # The records of a queue agree with each other.
    queue = coordinator._fScanQueue
    listed = {}
    for single in queue._fOrderedQueues:
        for loc, scopes in single.fOrderedDict.items():
            check(scopes == sorted(set(scopes)) and scopes, scopes)
            for scope in scopes:
                listed[loc, scope, single.fScanName] = single.fPriority
    recorded = {
        (loc, scope, scan): priority
        for loc, record in queue._fPerLocationInfo.items()
        for (scope, scan), priority in record.pending_dict.items()
    }
    check(listed == recorded, (listed, recorded))
    counts = {}
    for loc, record in queue._fPerLocationInfo.items():
        check(record.pending_dict, loc)
        for scan, count in record.scan_name_counts.items():
            scans, files = counts.get(scan, (0, 0))
            counts[scan] = (scans + count, files + 1)
    check({k: tuple(v) for k, v in queue._fPerScanNameCounts.items()} == counts)
"""


def test_junk_arguments(either):
    """Every operation with every kind of junk, in a working coordinator."""
    either(
        kSetup
        + """
from operations import kPlain, kVirtual, mangled

world = new_world()
coordinator = world.make()

class Odd:
    def __getattr__(self, name):
        raise ValueError(name)

class Deep(list):
    pass

class BadIter:
    def __iter__(self):
        return 5

class BadLen:
    def __len__(self):
        return -1

class BadIndex:
    def __index__(self):
        raise OSError

endless = Deep()
endless.append(endless)
junk = [None, 0, -1, 2**31, 2**63, 2**100, 1.5, float("nan"), float("inf"), "", "x", "\\udc80",
        b"x", (), (1, 2), [], [()], [(1,)], [(1, 2)], [(1, 2, 3)], [None], {}, set(), object(),
        Odd(), BadIter(), BadLen(), BadIndex(), endless, type, len, iter([]), Ellipsis,
        CScanItem(None, None, None, None), CScanItem(1, 2, 3, 4), coordinator, world.loc("/p/a.py")]
random.seed(1)
for name, arguments in {**kVirtual, **kPlain}.items():
    if name in ("_destroy_impl", "_CB_DoIdleAnalysis"):
        continue
    operation = getattr(coordinator, mangled(name))
    count = len(arguments)
    for value in junk:
        quietly(lambda: operation(*[value] * count))
    for _ in range(60):
        values = random.choices(junk, k=count)
        quietly(lambda: operation(*values))
        quietly(lambda: operation(**{arg: v for (arg, _), v in zip(arguments, values)}))
    quietly(lambda: operation(*junk))
    quietly(lambda: operation(**{"\\udc80": 1}))
    coordinator._fScanQueue.Clear()
consistent(coordinator)
coordinator.destroy()
"""
    )


kMischief = {
    "destroy": "coordinator.destroy()",
    "flush": "coordinator.FlushQueue()",
    "quit": "coordinator.Quitting()",
    "suspend": "coordinator.SuspendIdleScans()",
    "remove all": "coordinator.RemoveLocationsFromQueue(locs)",
    "forget": "coordinator.ClearLastScanInfo(locs)",
    "add": "coordinator.AddPairsToPrimaryQueue([(loc, 'f') for loc in locs], priority=0)",
    "loop": "depth() or coordinator._CScanCoordinator__DoScans(soon())",
    "idle": "depth() or coordinator._CB_DoIdleAnalysis()",
    "check": "depth() or coordinator._CScanCoordinator__CheckWholeFiles(soon())",
    "scan now": "depth() or coordinator.TryToScanNow(locs[0], 'f', None, soon())",
    "clear live": "coordinator._fIncompleteScansByLoc.clear()",
    "visible": "coordinator._fScanQueue.UpdateForVisibleDocuments(locs[1], locs)",
    "lose everything": "lose()",
    "collect": "gc.collect()",
}


@pytest.mark.parametrize("mischief", kMischief)
def test_every_collaborator_comes_back(either, mischief):
    """Whatever the coordinator calls does something to the coordinator, then answers."""
    either(
        kSetup
        + f"""
from collaborators import HelperCallbackObj, HelperSupport

level = 0

def depth():
    return level > 3

def lose():
    # Drops what the host holds of the coordinator and its parts.
    world.made.clear()
    hostlog.calls.clear()
    scopescanner.made.clear()
    gc.collect()

def soon():
    return hostclock.now() + 0.5

def mischief():
    global level
    level += 1
    hostclock.advance(0.01)
    try:
        quietly(lambda: {kMischief[mischief]})
    finally:
        level -= 1

def spoil(obj, name):
    plain = getattr(obj, name)
    def spoiled(*args, **kwargs):
        mischief()
        return plain(*args, **kwargs)
    setattr(obj, name, spoiled)

for seed in range(6):
    random.seed(seed)
    world = new_world()
    coordinator = world.make()
    locs = world.locs(8)
    world.loc_cache.builtin_loc = world.loc("/lib/builtins.pyi")
    for loc in locs:
        world.info_cache.disk_mtimes[loc] = random.choice([0.0, 1.0])
        world.info_cache.scans_done[loc] = random.choice(["", "primary", "primary derived"])
        world.info_cache.imports[loc] = [":ia.b", ":fa b"]
        world.factory.secondary[loc] = random.sample(locs, 2)
        world.info_cache.infos[loc, "f"] = "info"
    world.factory.found = dict(zip(["a", "b", "a.b"], locs))
    for obj, names in (
        (world.info_cache, ["Trim", "FinishedWithScans", "GetScansDoneForMultipleFiles",
                            "GetAllImports", "GetDiskMTime", "GetScopeInfo", "WriteToDatabase"]),
        (world.loc_cache, ["GetBuiltinLoc", "WantDerivedInfo"]),
        (world.factory, ["GetSecondaryLocations", "_FindPrimaryLocsForNames"]),
        (world.cache_mgr, ["GetAnalysis", "DoesCacheBufferExist"]),
    ):
        for name in names:
            spoil(obj, name)
    for name in ("scheduled", "end", "scan-status-update", "modtimes-updated"):
        coordinator.connect(name, lambda *args: mischief())
    for name in ("locations-added", "locations-removed"):
        coordinator._fScanQueue.connect(name, lambda *args: mischief())

    def step(scanner, end_time):
        mischief()
        return random.choice([scopescanner.kFinishedScanning, scopescanner.kTimedOut,
                              scopescanner.kScanAbandoned, scopescanner.kWaitingForData])

    scopescanner.script.extend([step] * 40)
    if seed % 2:
        # Every other time a helper process takes part, and it comes and goes.
        for name in ("AddPairsToPrimaryQueue", "FlushQueue"):
            spoil(world.proxy, name)
        world.ana_mgr.fHelperProcessProxy = world.proxy
        world.ana_mgr._fHelperProcessSupport = HelperSupport(HelperCallbackObj())
    pairs = [(loc, scope) for loc in locs for scope in ("*", "f", "g")]
    random.shuffle(pairs)
    quietly(lambda: coordinator.AddPairsToPrimaryQueue(pairs))
    quietly(lambda: coordinator.AddPairsToSecondaryQueue(pairs, False))
    for turn in range(60):
        quietly(lgtk.step)
        quietly(lambda: lgtk.advance(0.5))
        if seed % 2 and turn % 10 == 5:
            quietly(coordinator._UpdateForHelperProcess)
            world.ana_mgr.fHelperProcessProxy = random.choice([None, world.proxy])
            world.ana_mgr._fHelperProcessSupport = HelperSupport(HelperCallbackObj())
    for scan in ("primary", "derived"):
        quietly(lambda: coordinator.TryToScanDictNow(
            None, None, {{(loc, "f", scan) for loc in locs}}, 2e9))
    check(coordinator.fActiveScanItem is None)
    check(set(coordinator._fActiveScanNowTriples) == set())
    check(set(coordinator._fPendingScanNowTriples) == set())
    consistent(coordinator)
    quietly(coordinator.destroy)
""",
    )


def test_overrides_that_come_back(either):
    """Every overridden operation calls another operation before it calls the base."""
    either(
        kSetup
        + """
from operations import kVirtual, mangled

level = 0
others = ["FlushQueue", "_ScheduleIdle", "_CancelIdle", "_CB_DoIdleAnalysis", "_CB_UpdateStatus",
          "SuspendIdleScans", "ResumeIdleScans", "GetStatus", "_CB_WriteToDatabase"]

def override(name):
    base = getattr(CScanCoordinator, name)
    def operation(self, *args, **kwargs):
        global level
        level += 1
        try:
            if level < 5:
                quietly(getattr(self, random.choice(others)))
            return base(self, *args, **kwargs)
        finally:
            level -= 1
    return operation

body = {mangled(name): override(mangled(name)) for name in kVirtual if name != "_destroy_impl"}
CMine = type("CMine", (CScanCoordinator,), body)
for seed in range(20):
    random.seed(seed)
    world = new_world()
    coordinator = world.make(CMine)
    locs = world.locs(6)
    world.loc_cache.builtin_loc = locs[0]
    scopescanner.script.extend([scopescanner.kTimedOut] * 5)
    quietly(lambda: coordinator.AddPairsToPrimaryQueue([(loc, "*") for loc in locs]))
    for _ in range(30):
        quietly(lgtk.step)
        quietly(lambda: lgtk.advance(0.7))
    check(coordinator.fActiveScanItem is None)
    consistent(coordinator)
    coordinator.destroy()
"""
    )


@pytest.mark.parametrize("failing", [False, True])
def test_locations_whose_comparison_changes_the_queue(either, failing):
    """Hash and equality of a location may run Python, fail, and change what is being searched."""
    either(
        kSetup
        + f"""
failing = {failing}

class Sly(CLocalFileLocation):
    def act(self):
        global busy
        hostclock.advance(0.001)
        if busy:
            return
        busy = True
        try:
            if failing and random.random() < 0.3:
                raise OSError("no")
            quietly(random.choice([
                lambda: coordinator.FlushQueue(),
                lambda: coordinator.ClearLastScanInfo(locs),
                lambda: coordinator.RemoveLocationsFromQueue([random.choice(locs)]),
                lambda: coordinator._fScanQueue.AddScanPairs([(random.choice(locs), "g")], "primary", 0),
                lambda: coordinator._fScanQueue.First(),
                lambda: coordinator._CScanCoordinator__DoScans(hostclock.now() + 0.1),
                lambda: gc.collect(),
            ]))
        finally:
            busy = False

    def __hash__(self):
        if random.random() < 0.2:
            self.act()
        return len(self.fUrl)

    def __eq__(self, other):
        if random.random() < 0.4:
            self.act()
        return self is other or getattr(other, "fUrl", None) == self.fUrl

for seed in range(12):
    random.seed(seed)
    world = new_world()
    coordinator = world.make()
    busy = True
    locs = [Sly(f"file:///p/{{i % 7}}.py") for i in range(14)]
    busy = False
    for _ in range(150):
        pairs = [(random.choice(locs), random.choice(["*", "f", "g"])) for _ in range(4)]
        quietly(random.choice([
            lambda: coordinator.AddPairsToPrimaryQueue(pairs, priority=random.choice([0, 1, 2])),
            lambda: coordinator._CScanCoordinator__DoScans(hostclock.now() + 0.5),
            lambda: coordinator.RemoveLocationsFromQueue([loc for loc, _ in pairs]),
            lambda: coordinator.ClearLastScanInfo([loc for loc, _ in pairs]),
            lambda: coordinator._fScanQueue.UpdateForVisibleDocuments(pairs[0][0], [pairs[1][0]]),
            lambda: coordinator._fScanQueue._fPerLocationInfo,
            lambda: coordinator.TryToScanDictNow(None, None, {{(*pairs[0], "primary")}}, 2e9),
        ]))
        hostlog.calls.clear()
    busy = True
    coordinator.FlushQueue()
    coordinator.destroy()
""",
        env={"PYTHONHASHSEED": "0"},
    )


def test_names_that_are_strange(either):
    either(
        kSetup
        + """
class Name(str):
    def __eq__(self, other):
        gc.collect()
        return str.__eq__(self, other)

    def __hash__(self):
        return str.__hash__(self)

world = new_world()
for primary, derived in (("\\udc80", "\\udfff"), ("a\\0b", "c\\0d"), (Name("p"), Name("d")),
                         ("x" * 100000, "y" * 100000), ("", "\\U0010ffff")):
    world.ana_mgr.fPrimaryScanName = primary
    world.ana_mgr.fDerivedScanName = derived
    coordinator = world.make()
    loc = world.loc("/p/a.py")
    for scope in ("*", "\\udc80", "a\\0b", Name("f"), "", "x" * 100000):
        quietly(lambda: coordinator.AddPairsToPrimaryQueue([(loc, scope)]))
        quietly(lambda: coordinator.AddPairsToSecondaryQueue([(loc, scope)]))
        quietly(lambda: coordinator._CScanCoordinator__DoScans(2e6))
        quietly(lambda: coordinator._fScanQueue.PrintScanQueues(len))
        quietly(coordinator.GetStatus)
    quietly(coordinator.destroy)
for name in (None, 5, b"primary", [], object()):
    world.ana_mgr.fPrimaryScanName = name
    quietly(lambda: world.make())
    coordinator = CScanCoordinator(1, world.ana_mgr)
    quietly(lambda: coordinator.AddPairsToPrimaryQueue([(world.loc("/p/a.py"), "*")]))
    quietly(lambda: coordinator._CScanCoordinator__DoScans(2e6))
    quietly(lambda: coordinator.LocationInPrimaryScanQueue(5))
    coordinator.destroy()
"""
    )


def test_collaborators_that_answer_nonsense(either):
    """Each answer in turn is replaced by each kind of nonsense."""
    either(
        kSetup
        + """
nonsense = [None, 5, -1, "text", b"bytes", [], {}, [None], [5], [()], {1: 2}, object(), 2**100,
            float("nan"), (1, 2, 3, 4), type, iter([1, 2])]
places = [
    ("info_cache", name) for name in
    ("Trim", "GetScansDoneForMultipleFiles", "GetAllImports", "GetDiskMTime", "GetScopeInfo",
     "WriteToDatabase", "FinishedWithScans")
] + [
    ("loc_cache", "GetBuiltinLoc"), ("loc_cache", "WantDerivedInfo"),
    ("factory", "GetSecondaryLocations"), ("factory", "_FindPrimaryLocsForNames"),
    ("factory", "FindBuiltinMod"), ("factory", "GetAllLocsForName"),
    ("factory", "GetTypingLocations"), ("cache_mgr", "GetAnalysis"),
    ("cache_mgr", "DoesCacheBufferExist"), ("engine", "NewContext"), ("engine", "GetScopeInfo"),
    ("file_attrib_mgr", "GetMultipleProbableMimeTypes"), ("loc_data_cache", "TreeBranchReady"),
]
for owner, name in places:
    for value in nonsense:
        world = new_world()
        coordinator = world.make(basic=False)
        world.factory.builtin_mod = world
        world.fLocalName = "builtins"
        obj = getattr(world, owner)
        setattr(obj, name, lambda *args, value=value, **kwargs: value)
        locs = world.locs(3) + [world.loc("/p/notes.txt"), world.remote("/p/r.py")]
        for loc in locs[:3]:
            world.info_cache.scans_done[loc] = "primary"
            world.info_cache.imports[loc] = [":ia;:fb c"]
        for scan in ("primary", "derived"):
            for scope in ("*", "f", "C()"):
                for loc in locs:
                    quietly(lambda: world.queue(coordinator, loc, scope, scan, check=True))
        quietly(lambda: coordinator.AddParseablesToQueue(locs))
        quietly(lambda: coordinator.TryToScanNow(locs[0], "C()", None, 2e9))
        for _ in range(12):
            quietly(lambda: coordinator._CB_DoIdleAnalysis())
            quietly(lambda: coordinator._fScanQueue.ScanCompleted(coordinator._fScanQueue.First()))
        quietly(coordinator._CB_UpdateStatus)
        quietly(coordinator._CB_WriteToDatabase)
        quietly(coordinator.destroy)
"""
    )


def test_attributes_that_vanish_or_change(either):
    """Each attribute of the manager and the singletons is taken away or made nonsense later."""
    either(
        kSetup
        + """
names = [("ana_mgr", name) for name in
         ("fInfoCache", "fAnalysisFactory", "fPyConfig", "fPrimaryScanName", "fDerivedScanName",
          "fHelperProcessProxy", "_fHelperProcessSupport", "fInferenceEngine")] + [
         ("singletons", name) for name in
         ("fCacheMgr", "fAnalysisMgr", "fFileAttribMgr", "fGuiMgr", "fSavableMgr")]
for owner, name in names:
    for value in ("gone", None, 5, "text", object(), lambda *args: 3):
        world = new_world()
        coordinator = world.make(basic=False)
        locs = world.locs(3)
        for loc in locs:
            world.queue(coordinator, loc, check=True)
            world.queue(coordinator, loc, "f", "derived")
        obj = getattr(world, owner)
        if value == "gone":
            delattr(obj, name)
        else:
            setattr(obj, name, value)
        for work in (
            coordinator._ScheduleIdle,
            coordinator._CB_DoIdleAnalysis,
            lambda: coordinator.AddPairsToPrimaryQueue([(locs[0], "*")]),
            lambda: coordinator.AddPairsToSecondaryQueue([(locs[0], "*")]),
            lambda: coordinator.AddParseablesToQueue(locs),
            lambda: coordinator._CB_NeedsScanAdded(None, [(locs[0], "f", "primary")], None),
            lambda: coordinator.AddNeedsScanSetToQueues([(locs[0], "f", "primary")]),
            lambda: coordinator.TryToScanDictNow(None, None, [(locs[0], "f", "primary")], 2e9),
            lambda: coordinator.TryToScanNow(locs[0], "C()", None, 2e9),
            lambda: coordinator.LocationInPrimaryScanQueue(locs[0]),
            coordinator._UpdateForHelperProcess,
            coordinator.FlushQueue,
            coordinator._CB_UpdateStatus,
            coordinator._CB_WriteToDatabase,
        ):
            quietly(work)
        quietly(coordinator.destroy)
"""
    )


def test_deep_recursion_is_a_failure_and_no_crash(either):
    either(
        kSetup
        + """
class CDeep(CScanCoordinator):
    def _ScheduleIdle(self):
        self.AddPairsToPrimaryQueue([])

class CDeeper(CScanCoordinator):
    def QueuesEmpty(self, include_waiting=True):
        return self._CB_UpdateStatus()

# Instrumented code takes far more of the C stack.
sys.setrecursionlimit(250)
world = new_world()
coordinator = CDeep(1, world.ana_mgr)
raises(RecursionError, lambda: coordinator._ScheduleIdle())
coordinator = CDeeper(1, world.ana_mgr)
raises(RecursionError, lambda: coordinator.QueuesEmpty())

def step(scanner, end_time):
    scopescanner.script.append(step)
    return coordinator._DoSingleScan(item, 0.0)

coordinator = world.make()
item = world.queue(coordinator, world.loc("/p/a.py"))
scopescanner.script.append(step)
raises(RecursionError, lambda: coordinator._DoSingleScan(item, 0.0))
check(coordinator.fActiveScanItem is None)
hostlog.calls.clear()
coordinator.destroy()
"""
    )


def test_memory_errors_on_the_way(either):
    """Failures of allocation in the middle of everything: exceptions and nothing else."""
    pytest.importorskip("_testcapi", reason="only its hooks can make an allocation fail")
    either(
        kSetup
        + """
import _testcapi

world = new_world()
coordinator = world.make()
locs = world.locs(3)
for start in range(1, 250):
    scopescanner.script.extend([scopescanner.kTimedOut, scopescanner.kFinishedScanning])
    hostlog.calls.clear()
    _testcapi.set_nomemory(start, start + 1)
    try:
        coordinator._fScanQueue.AddScanPairs([(loc, "f") for loc in locs], "primary", 1, True)
        coordinator.GetStatus()
        coordinator._fScanQueue.First()
        coordinator.RemoveLocationsFromQueue(locs)
    except Exception:
        # A MemoryError, or what the standard library makes of one.
        pass
    finally:
        _testcapi.remove_mem_hooks()
    scopescanner.script.clear()
quietly(coordinator.FlushQueue)
coordinator.destroy()
"""
    )


def test_memory_errors_at_any_point_of_a_session(either):
    """The n-th allocation of each step fails, for many n; the queue stays whole."""
    pytest.importorskip("_testcapi", reason="only its hooks can make an allocation fail")
    either(
        kSetup
        + """
import _testcapi
import os
import sys
from queue_support import check_invariants
from session import Session

# What can't be raised is told here, and is nothing but MemoryErrors; a crash is told elsewhere.
sys.stderr = open(os.devnull, "w")

def run(nth):
    session = Session(new_world())
    session.construct()
    for step in session.steps()[1:]:
        _testcapi.set_nomemory(nth, nth + 1)
        try:
            step()
        except Exception:
            # A MemoryError, or what the standard library makes of one.
            pass
        finally:
            _testcapi.remove_mem_hooks()
        check_invariants(session.coordinator._fScanQueue)
        check(not session.coordinator._fActiveScanNowTriples)
        check(not session.coordinator._fPendingScanNowTriples)
    hostlog.calls.clear()

for nth in [*range(1, 120), *range(120, 2000, 41)]:
    run(nth)
"""
    )
