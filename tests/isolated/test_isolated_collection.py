"""Cyclic garbage collection and weak references."""

kSetup = """
import gc
import weakref
import hostlog
from pysource import scopescanner
from pysource.scancoordinator import CScanCoordinator, CScanItem, _CScanQueue, _CSingleScanQueue
from loombase.location import CLocalFileLocation, CRemoteFileLocation

class Loc(CLocalFileLocation):
    pass

class RemoteLoc(CRemoteFileLocation):
    pass

class Box:
    pass

world = None
"""


def test_a_coordinator_dies_with_its_host_without_destroy(over):
    """The host's objects and the coordinator refer to each other by the plain connections."""
    over(
        kSetup
        + """
def life():
    world = new_world()
    coordinator = world.make()
    world.ana_mgr.fScanCoordinator = coordinator
    return refs(coordinator, coordinator._fScanQueue, world.info_cache, world.ana_mgr)

dies(life)
"""
    )


def test_a_coordinator_dies_with_its_host_after_destroy(over):
    over(
        kSetup
        + """
def life():
    world = new_world()
    coordinator = world.make()
    world.ana_mgr.fScanCoordinator = coordinator
    coordinator.destroy()
    return refs(coordinator, coordinator._fScanQueue, world.info_cache, world.ana_mgr)

dies(life)
"""
    )


def test_each_place_that_holds_an_object_lets_it_go(over):
    """An object that refers back to the coordinator, in each place where one can be held."""
    over(
        kSetup
        + """
def place_location_in_queue(world, coordinator, loc):
    world.queue(coordinator, loc, check=True)

def place_location_with_scopes(world, coordinator, loc):
    for scope in "abc":
        world.queue(coordinator, loc, scope)

def place_location_that_left_the_queue(world, coordinator, loc):
    world.queue(coordinator, loc, check=True)
    coordinator.RemoveLocationsFromQueue([loc])

def place_completed_count(world, coordinator, loc):
    coordinator._fScanQueue.ScanCompleted(CScanItem(loc, "*", "primary", 2))

def place_last_scan(world, coordinator, loc):
    world.loc_cache.derived_wanted = dict.fromkeys([loc], False)
    world.queue(coordinator, loc)
    coordinator._CScanCoordinator__DoScans(2e6)

def place_checked(world, coordinator, loc):
    world.info_cache.disk_mtimes[loc] = 1.0
    world.queue(coordinator, loc, check=True)
    coordinator._CScanCoordinator__CheckWholeFiles(2e6)

def place_active_scan(world, coordinator, loc):
    scopescanner.script.append(scopescanner.kTimedOut)
    world.queue(coordinator, loc)
    coordinator._CScanCoordinator__DoScans(2e6)
    for scanner in scopescanner.made:
        scanner.back = coordinator

def place_scope_scanner(world, coordinator, loc):
    scopescanner.script.append(scopescanner.kTimedOut)
    coordinator._DoSingleScan(CScanItem(loc, "f", "primary", 2), 0.0)
    for scanner in scopescanner.made:
        scanner.back = coordinator

def place_secondary_scanners(world, coordinator, loc):
    world.loc_cache.builtin_loc = loc
    world.info_cache.infos[loc, "f"] = loc
    for scope in ("*", "f"):
        scopescanner.script.append(scopescanner.kTimedOut)
        coordinator._DoSingleScan(CScanItem(loc, scope, "derived", 2), 0.0)
    for scanner in scopescanner.made:
        scanner.back = coordinator

def place_waiting_scanner(world, coordinator, loc):
    scopescanner.script.append(scopescanner.kWaitingForData)
    coordinator._DoSingleScan(world.queue(coordinator, loc), 0.0)
    for scanner in scopescanner.made:
        scanner.back = coordinator

def place_incomplete(world, coordinator, loc):
    coordinator._fIncompleteScansByLoc[loc].add("f")

def place_helper(world, coordinator, loc):
    world.ana_mgr.fHelperProcessProxy = world.proxy
    coordinator.AddPairsToPrimaryQueue([(loc, "*")])

def place_log_file(world, coordinator, loc):
    coordinator.fLog.fOutputFile = loc

def place_visible(world, coordinator, loc):
    coordinator._fScanQueue.UpdateForVisibleDocuments(loc, [loc])

def place_orders(world, coordinator, loc):
    orders = {"primary": 1, "back": 2}
    coordinator._fScanQueue.SetScansToOrder(orders)
    loc.orders = orders

def place_modtimes_callback(world, coordinator, loc):
    getattr(coordinator, "_CScanCoordinator__GetModtimes")([loc], lambda times: loc)

def place_own_attribute(world, coordinator, loc):
    coordinator.me = coordinator

def place_scheduled(world, coordinator, loc):
    coordinator._ScheduleIdle()
    coordinator._ScheduleWriteToDatabaseIdle()
    world.queue(coordinator, loc)
    coordinator._CScanCoordinator__EnsureStatusTimeout()

def place_set_in_hand(world, coordinator, loc):
    def step(scanner, end_time):
        raise RuntimeError(loc)
    scopescanner.script.append(step)
    try:
        coordinator.TryToScanDictNow(None, None, [(loc, "f", "primary")], 2e9)
    except RuntimeError:
        pass

class CMine(CScanCoordinator):
    pass

places = {name: place for name, place in globals().items() if name.startswith("place_")}
check(len(places) == 19, len(places))
for name, place in places.items():
    def life():
        world = new_world()
        coordinator = world.make(CMine)
        loc = Loc("file:///p/a.py")
        loc.back = coordinator
        place(world, coordinator, loc)
        return refs(coordinator, coordinator._fScanQueue, loc, *scopescanner.made)

    try:
        dies(life)
    except SystemExit as error:
        raise SystemExit(f"{name}: {error}")
"""
    )


def test_locations_that_wait_for_inspection_let_go(over):
    over(
        kSetup
        + """
def life():
    world = new_world()
    coordinator = world.make()
    loc = RemoteLoc("ssh://p/a.py")
    loc.back = coordinator
    world.loc_data_cache.not_ready.add(loc)
    world.queue(coordinator, loc, check=True)
    check(coordinator._fScanQueue.GetWaitingCount() == 1)
    return refs(coordinator, loc)

dies(life)
"""
    )


def test_closures_and_bound_operations_let_go(over):
    over(
        kSetup
        + """
def life():
    world = new_world()
    coordinator = world.make()
    box = Box()
    box.operations = [getattr(coordinator, name) for name in dir(coordinator)
                      if not name.startswith("__") and callable(getattr(coordinator, name))]
    coordinator.connect("end", box.operations[0])
    world.ana_mgr.box = box
    from collaborators import HelperCallbackObj, HelperSupport
    world.ana_mgr._fHelperProcessSupport = HelperSupport(HelperCallbackObj())
    coordinator._UpdateForHelperProcess()
    return refs(coordinator, box)

dies(life)
"""
    )


def test_destroy_lets_the_host_go_on_without_the_coordinator(over):
    """Plain connections keep the coordinator for as long as their sources live, as they must."""
    over(
        kSetup
        + """
world = new_world()
coordinator = world.make()
ref = weakref.ref(coordinator)
coordinator.destroy()
world.made.clear()
del coordinator
hostlog.calls.clear()
collect()
check(ref() is not None, "kept by the plain connections")
world.info_cache.emit("needs-scan-added", world.info_cache, [], None)
check(ref() is not None)
"""
    )


def test_weak_references_and_their_callbacks(over):
    over(
        kSetup
        + """
world = new_world()
coordinator = world.make()
queue = coordinator._fScanQueue
single = queue._GetSingleQueue("primary", 1)
lone = _CSingleScanQueue("scan", 1, 2)
gone = []
ref = weakref.ref(lone, gone.append)
proxy = weakref.proxy(coordinator)
check(ref() is lone)
check(proxy.QueuesEmpty() is True)
for obj in (coordinator, queue, single):
    kept = weakref.ref(obj)
    check(kept is weakref.ref(obj))
    check(weakref.getweakrefcount(obj) >= 1)
table = weakref.WeakKeyDictionary({coordinator: 1, queue: 2, single: 3, lone: 4})
check(len(table) == 4)
del lone
check(gone == [ref] and ref() is None)
check(len(table) == 3)
weakref.finalize(coordinator, gone.append, "coordinator")
del coordinator, queue, single, proxy, obj
world = None
import hostreset
hostreset.reset()
collect()
check(gone[1:] == ["coordinator"], gone)
check(len(table) == 0)
"""
    )


def test_a_weak_callback_that_uses_what_is_left(over):
    over(
        kSetup
        + """
def life():
    world = new_world()
    coordinator = world.make()
    queue = coordinator._fScanQueue
    world.queue(coordinator, Loc("file:///p/a.py"))
    calls.append(weakref.ref(coordinator, lambda ref: calls.append(ref())))
    calls.append(weakref.ref(queue, lambda ref: calls.append(ref())))
    return refs(coordinator, queue)

calls = []
dies(life)
check(calls[2:] == [None, None], calls)
"""
    )


def test_finalizers_in_a_cycle_can_use_the_coordinator(over):
    """What is collected together may be called in any order, cleared or not."""
    over(
        kSetup
        + """
class Nosy:
    def __init__(self, coordinator):
        self.coordinator = coordinator

    def __del__(self):
        for name in dir(type(self.coordinator)):
            if name.startswith("__"):
                continue
            try:
                value = getattr(self.coordinator, name)
                if callable(value) and name not in ("destroy", "_destroy_impl"):
                    value()
            except Exception:
                pass
        log.append(1)

log = []
def life():
    world = new_world()
    coordinator = world.make()
    loc = Loc("file:///p/a.py")
    loc.nosy = Nosy(coordinator)
    world.queue(coordinator, loc)
    return refs(coordinator, loc)

for _ in range(5):
    dies(life)
check(len(log) == 5, len(log))
"""
    )


def test_a_location_that_calls_back_while_it_is_released(over):
    """Its finalizer runs in the middle of an operation that drops the last reference."""
    over(
        kSetup
        + """
from guiutils import lgtk

log = []

class Talker(CLocalFileLocation):
    def __del__(self):
        coordinator = self.ref()
        if coordinator is not None:
            log.append(coordinator._fScanQueue.GetAllLocations())
            coordinator.GetStatus()
            world.queue(coordinator, Loc("file:///late.py"))
            coordinator.ClearLastScanInfo([])

world = new_world()
coordinator = world.make()
ref = weakref.ref(coordinator)

def settle():
    # The pending change signals hold locations too.
    while lgtk.step():
        pass
    scopescanner.reset()
    collect()

def fill():
    for i in range(50):
        loc = Talker(f"file:///p/{i}.py")
        loc.ref = ref
        world.queue(coordinator, loc, check=True)
    collect()

fill()
coordinator.FlushQueue()
settle()
fill()
coordinator.RemoveLocationsFromQueue([l for l in coordinator._fScanQueue.GetAllLocations()])
settle()
fill()
world.loc_cache.WantDerivedInfo = lambda loc: False
coordinator._CScanCoordinator__DoScans(2e6)
settle()
coordinator.FlushQueue()
settle()
coordinator.destroy()
settle()
check(len(log) == 150, len(log))
"""
    )


def test_collection_in_the_middle_of_everything(over):
    over(
        kSetup
        + """
gc.set_threshold(1, 1, 1)
world = new_world()
coordinator = world.make()
for loc in world.locs(30):
    world.info_cache.disk_mtimes[loc] = 1.0
    coordinator.AddPairsToPrimaryQueue([(loc, "*"), (loc, "f")])
scopescanner.script.extend([scopescanner.kTimedOut] * 10)
from guiutils import lgtk
lgtk.run_idle()
check(coordinator.QueuesEmpty())
coordinator.destroy()
"""
    )


def test_the_collector_sees_what_is_held(over):
    over(
        kSetup
        + """
world = new_world()
coordinator = world.make()
loc = Loc("file:///p/a.py")
world.queue(coordinator, loc)

def reachable(start):
    seen, todo = set(), [start]
    while todo:
        obj = todo.pop()
        if id(obj) in seen or isinstance(obj, type) or obj is globals():
            continue
        seen.add(id(obj))
        todo.extend(gc.get_referents(obj))
    return seen

check(gc.is_tracked(coordinator))
check(gc.is_tracked(coordinator._fScanQueue))
queue = coordinator._fScanQueue
world.made.clear()
check(id(loc) in reachable(queue), "a queued location")
check(id(queue) in reachable(coordinator), "the queue")
check(id(world.ana_mgr) in reachable(coordinator), "the manager")
"""
    )
