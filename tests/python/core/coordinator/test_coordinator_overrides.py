"""What the system calls when a subclass has an operation of its own."""

import pytest
from arguments import values_for
from guiutils import lgtk
from loomutils import reflect
from operations import kVirtual, private, watched
from pysource import scopescanner, symbolinfo
from pysource.analysis import CPySourceAnalysis
from pysource.scancoordinator import CScanCoordinator
from world import forget, kDerived, kPrimary, scripted, told

kLate = 2e6


def run_loop(_world, coordinator):
    """One pass of the scan loop."""
    private(coordinator, "__DoScans")(kLate)


def queue_and_run(scope, scan):
    """Let the loop meet a scan."""

    def run(world, coordinator):
        world.loc_cache.builtin_loc = world.loc("/lib/builtins.pyi")
        world.queue(coordinator, world.loc("/p/a.py"), scope, scan)
        run_loop(world, coordinator)

    return run


def check_file(world, coordinator):
    """Let a whole-file check meet a file whose primary scan is done."""
    loc = world.loc("/p/a.py")
    world.info_cache.disk_mtimes[loc] = 1.0
    world.info_cache.scans_done[loc] = kPrimary
    world.queue(coordinator, loc, check=True)
    private(coordinator, "__CheckWholeFiles")(kLate)


def meet_a_text_file(world, coordinator):
    """Let the loop meet a file that isn't known to be Python."""
    world.queue(coordinator, world.loc("/p/notes.txt"))
    run_loop(world, coordinator)


def add_primary(world, coordinator):
    """Add a pair."""
    coordinator.AddPairsToPrimaryQueue([(world.loc("/p/a.py"), "*")])


def add_with_helper(world, coordinator):
    """Add a pair while a helper process runs."""
    world.ana_mgr.fHelperProcessProxy = world.proxy
    add_primary(world, coordinator)


def run_the_timer(world, coordinator):
    """Let the status timer run."""
    world.queue(coordinator, world.loc("/p/a.py"))
    private(coordinator, "__EnsureStatusTimeout")()
    lgtk.advance(1.0)


def run_the_write(_world, coordinator):
    """Let the write run."""
    coordinator._ScheduleWriteToDatabaseIdle()
    lgtk.run_idle()


def run_idle(_world, coordinator):
    """Let the scheduled idle call run."""
    coordinator._ScheduleIdle()
    lgtk.step()


def scan_dict(scan):
    """Scan a set of one triple now."""

    def run(world, coordinator):
        coordinator.TryToScanDictNow(None, None, [(world.loc("/p/a.py"), "f", scan)], kLate)

    return run


def instance_now(world, coordinator):
    """Scan an instance scope now."""
    scope = symbolinfo.GetInstanceNameForClass("C")
    coordinator.TryToScanNow(world.loc("/p/a.py"), scope, None, kLate)


def instance_queued(world, coordinator):
    """Let the loop meet an instance scope."""
    queue_and_run(symbolinfo.GetInstanceNameForClass("C"), kPrimary)(world, coordinator)


def caret(world, coordinator):
    """Move the caret."""
    analysis = CPySourceAnalysis(world.loc("/p/a.py"))
    analysis.emit("active-edit-lineno-changed", analysis, 1)


def missing(world, coordinator):
    """Tell of missing information."""
    world.info_cache.emit("needs-scan-added", world.info_cache, [], None)


def added(world, coordinator):
    """Tell of added locations."""
    coordinator._fScanQueue.emit("locations-added", coordinator._fScanQueue, set())


def out_of_time(world, coordinator):
    """Let a set of triples run out of time."""
    coordinator.TryToScanDictNow(None, None, [(world.loc("/p/a.py"), "f", kPrimary)], -1.0)


kCallers = [
    ("_destroy_impl", None, lambda _w, c: c.destroy()),
    ("_CancelIdle", None, lambda _w, c: c.SuspendIdleScans()),
    ("_CancelIdle", None, lambda _w, c: c.destroy()),
    ("GetStatus", "status", lambda _w, c: c._CB_UpdateStatus()),
    ("QueuesEmpty", True, lambda _w, c: c._CB_UpdateStatus()),
    ("QueuesEmpty", True, lambda _w, c: private(c, "__EnsureStatusTimeout")()),
    ("QueuesEmpty", True, lambda _w, c: c._CB_DoIdleAnalysis()),
    ("_CB_ActiveEditLinenoChanged", None, caret),
    ("_CB_NeedsScanAdded", None, missing),
    ("_CB_QueueLocationsAdded", None, added),
    ("AddNeedsScanSetToQueues", None, out_of_time),
    ("TryToScanNow", None, scan_dict(kPrimary)),
    ("AddPairsToSecondaryQueue", None, scan_dict(kDerived)),
    ("_TryToScanInstanceScopeNow", None, instance_now),
    ("BuildInstanceScopeNoScanning", None, instance_queued),
    ("_CanSendToHelperProcess", False, add_with_helper),
    ("_ScheduleIdle", None, add_primary),
    ("_ScheduleIdle", None, added),
    ("_ScheduleIdle", None, missing),
    ("_CB_DoIdleAnalysis", False, run_idle),
    ("__DoScans", None, run_idle),
    ("__EnsureStatusTimeout", None, run_idle),
    ("_ScheduleWriteToDatabaseIdle", None, run_idle),
    ("_CB_WriteToDatabase", None, run_the_write),
    ("_CB_UpdateStatus", False, run_the_timer),
    ("__CheckWholeFiles", True, run_loop),
    ("_DoSingleScan", False, queue_and_run("*", kPrimary)),
    ("__GetAnalysis", None, meet_a_text_file),
    ("__GetAnalysis", None, queue_and_run("f", kPrimary)),
    ("__GetModtimeDict", {}, check_file),
    ("AddPairsToSecondaryQueue", None, check_file),
    ("AddPairsToSecondaryQueue", None, queue_and_run("*", kPrimary)),
    ("__DoPrimaryWholeFileScan", False, queue_and_run("*", kPrimary)),
    ("__DoPrimarySingleScopeScan", False, queue_and_run("f", kPrimary)),
    ("__DoSecondaryWholeFileScan", False, queue_and_run("*", kDerived)),
    ("__DoSecondarySingleScopeScan", False, queue_and_run("f", kDerived)),
]


@pytest.mark.parametrize(
    ("name", "reply", "cause"), kCallers, ids=[f"{i}-{c[0]}" for i, c in enumerate(kCallers)]
)
def test_the_system_calls_the_override(world, name, reply, cause):
    coordinator = world.make(watched(**{name: reply}))
    cause(world, coordinator)
    assert told(name) != []
    forget()


def test_basic_modules_are_queued_by_the_override(world):
    coordinator = world.make(watched(_QueueBasicModules=None), basic=False)
    run_loop(world, coordinator)
    assert told("_QueueBasicModules") == [("_QueueBasicModules", kLate)]
    forget()


def test_an_override_can_call_the_base(world):
    class CMine(CScanCoordinator):
        def QueuesEmpty(self, include_waiting=True):
            return not super().QueuesEmpty(include_waiting)

    coordinator = world.make(CMine)
    assert coordinator.QueuesEmpty() is False
    coordinator._CB_DoIdleAnalysis()
    assert told("emit") == []
    forget()


def test_an_override_in_the_middle_of_a_line_of_classes_is_called(world):
    class CBase(CScanCoordinator):
        calls = 0

        def _ScheduleIdle(self):
            CBase.calls += 1

    class CDerived(CBase):
        pass

    coordinator = world.make(CDerived)
    CBase.calls = 0
    add_primary(world, coordinator)
    assert CBase.calls == 1
    forget()


def test_an_override_of_a_mixin_is_called(world):
    class CMixin:
        calls = 0

        def _CScanCoordinator__CheckWholeFiles(self, end_time):
            CMixin.calls += 1
            return True

    coordinator = world.make(type("CMixed", (CMixin, CScanCoordinator), {}))
    run_loop(world, coordinator)
    assert CMixin.calls == 1
    forget()


def test_an_override_by_anything_callable_is_called(world):
    calls = []

    class CMine(CScanCoordinator):
        _ScheduleIdle = staticmethod(lambda: calls.append("static"))

        @classmethod
        def _CancelIdle(cls):
            calls.append(cls)

    coordinator = world.make(CMine)
    calls.clear()
    add_primary(world, coordinator)
    coordinator.SuspendIdleScans()
    assert calls == ["static", CMine]
    forget()


@pytest.mark.parametrize("name", kVirtual)
def test_an_override_that_fails_passes_its_failure(world, name):
    failure = RuntimeError(name)
    coordinator = world.make(watched(**{name: failure}))
    causes = [cause for operation, _, cause in kCallers if operation == name]
    for cause in causes or [lambda w, c: private(c, name)(*values_for(w, name).values())]:
        with pytest.raises(RuntimeError) as info:
            cause(world, coordinator)
            raise_reported(failure)
        assert info.value is failure
    world.made.remove(coordinator)
    forget()


def raise_reported(failure):
    """Without debug checks the idle call ends with a report instead of the failure."""
    if not __debug__ and reflect.reported:
        assert reflect.reported.pop() is failure
        raise failure


@pytest.mark.parametrize("name", ["__DoPrimaryWholeFileScan", "_DoSingleScan"])
def test_a_result_that_has_no_truth_is_a_failure(world, name):
    failure = RuntimeError("no truth")

    class Unsure:
        def __bool__(self):
            raise failure

    coordinator = world.make(watched(**{name: [Unsure()]}))
    with pytest.raises(RuntimeError) as info:
        queue_and_run("*", kPrimary)(world, coordinator)
    assert info.value is failure
    forget()


def test_a_plain_operation_of_a_subclass_is_its_own(world):
    """The system goes on calling its own; who calls the subclass gets the subclass's."""

    class CMine(CScanCoordinator):
        def ClearLastScanInfo(self, loc_iterable):
            return "mine"

        def _UpdateForHelperProcess(self):
            return "mine"

    coordinator = world.make(CMine)
    loc = world.loc("/p/a.py")
    world.loc_cache.derived_wanted[loc] = False
    queue_and_run("*", kPrimary)(world, coordinator)
    assert set(coordinator._fLastScanCompleted) == {loc}
    analysis = CPySourceAnalysis(loc)
    analysis.emit("modified", analysis)
    assert coordinator._fLastScanCompleted == {}
    assert coordinator.ClearLastScanInfo([]) == "mine"
    assert coordinator._UpdateForHelperProcess() == "mine"
    forget()


def test_scanners_may_be_resumed_through_an_override(world):
    """A driver of a subclass may let the base do every other slice."""

    class CSlow(CScanCoordinator):
        slices = 0

        def _CScanCoordinator__DoPrimaryWholeFileScan(self, scan_item, end_time):
            self.slices += 1
            if self.slices % 2:
                return True
            return CScanCoordinator._CScanCoordinator__DoPrimaryWholeFileScan(
                self, scan_item, end_time
            )

    coordinator = world.make(CSlow)
    world.loc_cache.derived_wanted[world.loc("/p/a.py")] = False
    scripted(scopescanner.kTimedOut)
    queue_and_run("*", kPrimary)(world, coordinator)
    for _ in range(3):
        run_loop(world, coordinator)
    assert coordinator.slices == 4
    assert coordinator.QueuesEmpty()
    forget()
