"""The classes over each kind of CDestroyable that a host may have, and under odd subclasses."""

kWholeLife = """
import hostlog
from guiutils import lgtk
from pysource import scancoordinator, scopescanner
from pysource.scancoordinator import CScanCoordinator, _CScanQueue, _CSingleScanQueue
from loombase.destroyable import CDestroyable
import singleton

for cls in (CScanCoordinator, _CScanQueue, _CSingleScanQueue):
    check(issubclass(cls, CDestroyable), cls)

world = new_world()
coordinator = world.make()
signals = []
for name in ("scheduled", "end"):
    coordinator.connect(name, lambda name=name: signals.append(name))
coordinator.connect("scan-status-update", lambda *args: signals.append(args[1].waiting_count))
locs = world.locs(20)
for loc in locs:
    world.info_cache.disk_mtimes[loc] = 1.0
world.loc_cache.builtin_loc = world.loc("/lib/builtins.pyi")
scopescanner.script.extend([scopescanner.kTimedOut] * 5)
coordinator.AddPairsToPrimaryQueue([(loc, "*") for loc in locs])
check(coordinator.GetStatus().queue_status_list == [("primary", 1, 20)])
lgtk.advance(2.0)
lgtk.run_idle()
check(signals == ["scheduled", "end"], signals)
check(len(coordinator._fScanTripleCompletedCount) == 40)
check(all(scanner.destroyed for scanner in scopescanner.made))
check("WriteToDatabase" in hostlog.names())
coordinator.AddPairsToPrimaryQueue([(loc, "f") for loc in locs])
coordinator.destroy()
coordinator.destroy()
check(coordinator.QueuesEmpty())
check(signals == ["scheduled", "end", "scheduled", "end"], signals)
check(lgtk.idle_ids() == [] and lgtk.timer_ids() == [])
"""

kFields = """
kFields = [
    "fAnaMgr", "_fInfoCache", "_fInferenceEngine", "fPrefMgr", "fCacheMgr", "fSingletons",
    "_fScanQueue", "_CScanCoordinator__fActiveLoc",
    "_CScanCoordinator__fActivePrimaryWholeFileScanners",
    "_CScanCoordinator__fActivePrimarySingleScopeScanners",
    "_CScanCoordinator__fActiveSecondaryWholeFileScanners",
    "_CScanCoordinator__fActiveSecondarySingleScopeScanners",
    "_fIncompleteScansByLoc", "_fCompletedScanCount", "_fIdleProcId",
    "_fMTimeAtLastWholeFileCheck", "fIdlePriority", "_CScanCoordinator__fCompletedLocs",
    "_CScanCoordinator__fStatusTimeout", "_fLastScanCompleted", "_CScanCoordinator__fQuitting",
    "_fAllBasicModuleQueued", "_fAnalyzeFoundImports", "_fRemoteLocationsReady",
    "_fActiveScanNowTriples", "_fPendingScanNowTriples", "fActiveScanItem",
    "_fScanTripleCompletedCount", "fLog", "_fActiveIdleStart", "_fLastLogQueue",
    "fWaitingForRemote", "_fLocsQueuedInHelper", "_fIdleToWriteToDatabase",
    "_fHelperCallbackObjConnected", "_fIdleScanSuspendCount",
]
kQueueFields = [
    "fAnyAsyncInspectLocation", "_fScansToOrder", "_fOrderedQueues", "_fPerLocationInfo",
    "_fPerScanNameCounts", "_fCompletedCount", "_fPendingLocationsAdded",
    "_fPendingLocationsRemoved", "_fSignalEmitIdle", "_fLocationDataCache",
    "_fWaitingForInspectByLoc", "_fScanItemsWaitingForData", "_fActiveDocLoc",
    "_fVisibleDocLocs", "_fGuiMgr", "_fWholeFilesToCheck",
]
kSingleFields = ["fScanName", "fPriority", "fOrder", "fOrderedDict"]
"""


def test_whole_life(over):
    over(kWholeLife)


def test_fields_are_read_only(over):
    over(
        kFields
        + """
world = new_world()
coordinator = world.make()
world.queue(coordinator, world.loc("/p/a.py"))
queue = coordinator._fScanQueue
(single,) = queue._fOrderedQueues
for obj, names in ((coordinator, kFields), (queue, kQueueFields), (single, kSingleFields)):
    for name in names:
        value = getattr(obj, name)
        if name != "_fAnalyzeFoundImports":
            raises(AttributeError, lambda: setattr(obj, name, value))
        raises(AttributeError, lambda: delattr(obj, name))
        after = getattr(obj, name)
        if name == "fOrderedDict":
            value, after = list(value.items()), list(after.items())
        check(after is value or after == value, name)
coordinator._fAnalyzeFoundImports = 0
check(coordinator._fAnalyzeFoundImports is False)
"""
    )


def test_hidden_members_are_not_to_be_seen(over):
    """What holds an object's C++ state cannot be reached or replaced from Python."""
    over(
        """
world = new_world()
coordinator = world.make()
for obj in (coordinator, coordinator._fScanQueue):
    cls = type(obj)
    for name in dir(cls):
        descriptor = cls.__dict__.get(name)
        if type(descriptor).__name__ == "member_descriptor":
            raises((AttributeError, TypeError), lambda: descriptor.__set__(obj, None))
            raises((AttributeError, TypeError), lambda: descriptor.__delete__(obj))
coordinator.destroy()
"""
    )


def test_a_subclass_that_skips_the_constructor(over):
    """Every field and every operation answers or fails; nothing crashes, and all is collected."""
    over(
        kFields
        + """
import hostlog
from operations import kVirtual, kPlain, mangled
from pysource.scancoordinator import CScanCoordinator, CScanItem, _CScanQueue, _CSingleScanQueue
from loombase.destroyable import CDestroyable

world = new_world()
loc = world.loc("/p/a.py")

class CSkips(CScanCoordinator):
    def __init__(self):
        pass

class CBaseOnly(CScanCoordinator):
    def __init__(self):
        CDestroyable.__init__(self, ("scheduled", "end", "scan-status-update", "modtimes-updated"))

class CQueueSkips(_CScanQueue):
    def __init__(self):
        pass

class CSingleSkips(_CSingleScanQueue):
    def __init__(self):
        pass

def poke(obj, names, fields):
    for name in fields:
        try:
            getattr(obj, name)
        except (AttributeError, RuntimeError):
            pass
    for name, count in names.items():
        for values in ([loc] * count, [None] * count, [[]] * count, [1] * count):
            try:
                getattr(obj, name)(*values)
            except Exception:
                pass

operations = {mangled(name): len(args) for name, args in {**kVirtual, **kPlain}.items()}
queue_operations = {
    name: count
    for name in dir(_CScanQueue)
    if not name.startswith("__") and callable(getattr(_CScanQueue, name))
    for count in range(5)
}
for make, names, fields in (
    (CSkips, operations, kFields),
    (CBaseOnly, operations, kFields),
    (CQueueSkips, queue_operations, kQueueFields),
    (CSingleSkips, {}, kSingleFields),
):
    obj = make()
    poke(obj, names, fields)
    collect()
    obj.destroy()
    poke(obj, names, fields)
    del obj

dies(lambda: refs(CSkips(), CBaseOnly(), CQueueSkips(), CSingleSkips()))
"""
    )


def test_objects_made_by_new_alone(over):
    over(
        """
from pysource.scancoordinator import CScanCoordinator, _CScanQueue, _CSingleScanQueue

for cls in (CScanCoordinator, _CScanQueue, _CSingleScanQueue):
    obj = cls.__new__(cls)
    repr(obj), hash(obj), obj == obj
    del obj
    dies(lambda: refs(cls.__new__(cls)))
"""
    )


def test_a_constructor_that_fails_half_way(over):
    over(
        """
from pysource.scancoordinator import CScanCoordinator

world = new_world()
for name in ("fInfoCache", "fInferenceEngine", "fLocationDataCache", "fAnalysisFactory"):
    value = getattr(world.ana_mgr, name)
    delattr(world.ana_mgr, name)
    raises(AttributeError, lambda: CScanCoordinator(1, world.ana_mgr))
    setattr(world.ana_mgr, name, value)
    collect()
raises(TypeError, lambda: CScanCoordinator())
raises(OverflowError, lambda: CScanCoordinator(2**40, world.ana_mgr))
coordinator = world.make()
coordinator.destroy()
"""
    )


def test_a_subclass_with_a_finalizer_of_its_own(over):
    over(
        """
import gc
from pysource.scancoordinator import CScanCoordinator, _CScanQueue, _CSingleScanQueue
from pysource.scopescanner import script, kTimedOut

finalized = []

class CMine(CScanCoordinator):
    def __del__(self):
        finalized.append((self.QueuesEmpty(), self.fIdlePriority, len(self.GetStatus()[0])))

class CMyQueue(_CScanQueue):
    def __del__(self):
        finalized.append(self.Empty())

class CMySingle(_CSingleScanQueue):
    def __del__(self):
        finalized.append(self.fScanName)

def life():
    world = new_world()
    coordinator = world.make(CMine)
    loc = type("Loc", (type(world.loc("/x")),), {})("file:///p/a.py")
    item = world.queue(coordinator, loc)
    script.append(kTimedOut)
    coordinator._DoSingleScan(item, 0.0)
    (scanner,) = coordinator._CScanCoordinator__fActivePrimaryWholeFileScanners.values()
    return refs(coordinator, loc, scanner)

dies(life)
check(finalized == [(False, 300, 1)], finalized)
finalized.clear()

def queues():
    world = new_world()
    return refs(CMyQueue(world.loc_data_cache), CMySingle("scan", 1, 2))

dies(queues)
check(sorted(map(str, finalized)) == ["True", "scan"], finalized)
"""
    )


def test_a_finalizer_that_brings_the_object_back(over):
    over(
        """
from pysource.scancoordinator import CScanCoordinator

kept = []

class CMine(CScanCoordinator):
    def __del__(self):
        kept.append(self)

world = new_world()
coordinator = CMine(1, world.ana_mgr)
coordinator.me = coordinator
item = world.queue(coordinator, world.loc("/p/a.py"))
world = None
del coordinator
import hostreset
hostreset.reset()
collect()
check(len(kept) == 1, kept)
check(kept[0]._fScanQueue.First() == item)
check(kept[0].QueuesEmpty() is False)
kept[0].destroy()
check(kept[0].QueuesEmpty() is True)
"""
    )


def test_a_subclass_with_slots(over):
    over(
        """
from pysource.scancoordinator import CScanCoordinator, _CScanQueue

class CMine(CScanCoordinator):
    __slots__ = ("one", "two")

class CMyQueue(_CScanQueue):
    __slots__ = ("one",)

def life():
    world = new_world()
    coordinator = world.make(CMine)
    coordinator.one = coordinator
    coordinator.two = loc = type("Loc", (type(world.loc("/x")),), {})("file:///p/a.py")
    world.queue(coordinator, loc)
    queue = CMyQueue(world.loc_data_cache)
    queue.one = queue
    check(coordinator.one is coordinator and queue.one is queue)
    return refs(coordinator, queue, loc)

dies(life)
"""
    )


def test_a_subclass_of_several_classes(over):
    over(
        """
import threading
from pysource.scancoordinator import CScanCoordinator
from loombase.destroyable import CDestroyable

class CMixin:
    def _CScanCoordinator__CheckWholeFiles(self, end_time):
        self.checks = getattr(self, "checks", 0) + 1
        return super()._CScanCoordinator__CheckWholeFiles(end_time)

class CSlotted:
    __slots__ = ()

class CFirst(CMixin, CScanCoordinator):
    pass

class CSecond(CSlotted, CScanCoordinator, threading.local):
    pass

class CThird(CFirst, CDestroyable):
    pass

def life(cls):
    world = new_world()
    coordinator = world.make(cls)
    loc = world.loc("/p/a.py")
    world.loc_cache.derived_wanted[loc] = False
    world.queue(coordinator, loc)
    coordinator._CScanCoordinator__DoScans(2e6)
    check(coordinator.QueuesEmpty())
    if cls is not CFirst.__mro__[2]:
        check(coordinator.checks == 2, coordinator.checks)
    coordinator.destroy()
    return refs(coordinator)

dies(lambda: life(CFirst))
dies(lambda: life(CThird))
""".replace("class CSecond(CSlotted, CScanCoordinator, threading.local):\n    pass\n\n", "")
        .replace("import threading\n", "")
        .replace("    if cls is not CFirst.__mro__[2]:\n        check", "    check")
    )


def test_two_compiled_layouts_do_not_mix(over):
    """Bases that can't be laid out together are refused by Python itself."""
    over(
        """
from pysource.scancoordinator import CScanCoordinator, _CScanQueue

for others in ((CScanCoordinator, _CScanQueue), (CScanCoordinator, int), (dict, CScanCoordinator)):
    raises(TypeError, lambda: type("CMixed", others, {}))
"""
    )


def test_a_class_is_changed_under_a_live_object(over):
    over(
        """
from pysource.scancoordinator import CScanCoordinator, _CScanQueue

class COne(CScanCoordinator):
    def QueuesEmpty(self, include_waiting=True):
        return "one"

class CTwo(CScanCoordinator):
    def QueuesEmpty(self, include_waiting=True):
        return "two"

world = new_world()
coordinator = world.make(COne)
coordinator.__class__ = CTwo
check(coordinator.QueuesEmpty() == "two")
check(coordinator.fAnaMgr is world.ana_mgr)
raises(TypeError, lambda: setattr(coordinator, "__class__", _CScanQueue))
raises(TypeError, lambda: setattr(coordinator, "__class__", object))
coordinator.destroy()
"""
    )


def test_operations_of_one_class_refuse_the_other(over):
    over(
        """
from pysource.scancoordinator import CScanCoordinator, _CScanQueue, _CSingleScanQueue

world = new_world()
coordinator = world.make()
queue = coordinator._fScanQueue
single = queue._GetSingleQueue("primary", 2)
objects = (coordinator, queue, single, object(), None)
for cls in (CScanCoordinator, _CScanQueue, _CSingleScanQueue):
    for name, member in vars(cls).items():
        if name.startswith("__") and name.endswith("__"):
            continue
        for obj in objects:
            if isinstance(obj, cls):
                continue
            if hasattr(member, "__get__") and type(member).__name__ == "getset_descriptor":
                raises(TypeError, lambda: member.__get__(obj, type(obj)) if obj is not None
                       else member.__get__(5))
            elif callable(member) and not isinstance(member, type):
                raises(TypeError, lambda: member(obj))
"""
    )
