"""One scan to its driver: `_DoSingleScan` and `__GetAnalysis`."""

import pytest
from operations import private, watched
from pysource import analysis
from pysource.analysis import CPySourceAnalysis
from pysource.scancoordinator import CScanItem
from world import forget, kDerived, kPrimary, told

kDrivers = (
    "__DoPrimaryWholeFileScan",
    "__DoPrimarySingleScopeScan",
    "__DoSecondaryWholeFileScan",
    "__DoSecondarySingleScopeScan",
)
kByKind = [
    (kPrimary, "*", "__DoPrimaryWholeFileScan"),
    (kPrimary, "f", "__DoPrimarySingleScopeScan"),
    (kPrimary, "", "__DoPrimarySingleScopeScan"),
    (kDerived, "*", "__DoSecondaryWholeFileScan"),
    (kDerived, "f", "__DoSecondarySingleScopeScan"),
    ("third", "*", "__DoSecondaryWholeFileScan"),
    ("third", "f", "__DoSecondarySingleScopeScan"),
]


def make(world, reply=False):
    """A coordinator whose drivers all give one answer; the builtins are known."""
    world.loc_cache.builtin_loc = world.loc("/lib/builtins.pyi")
    return world.make(watched(**dict.fromkeys(kDrivers, reply)))


@pytest.mark.parametrize(("scan", "scope", "driver"), kByKind)
def test_dispatch_by_scan_name_and_scope(world, scan, scope, driver):
    coordinator = make(world)
    loc = world.loc("/p/a.py")
    item = CScanItem(loc, scope, scan, 2)
    assert coordinator._DoSingleScan(item, 5.0) is False
    calls = told()
    if scan != kPrimary:
        assert calls.pop(0) == ("GetBuiltinLoc",)
    arguments = (loc, scope, 5.0) if driver == "__DoSecondarySingleScopeScan" else (item, 5.0)
    assert calls == [(driver, *arguments), ("FinishedWithScans", loc, scope, scan)]
    assert coordinator._fScanTripleCompletedCount == {(loc, scope, scan): 1}


@pytest.mark.parametrize(("scan", "scope", "driver"), kByKind)
def test_out_of_time_returns_true_and_finishes_nothing(world, scan, scope, driver):
    coordinator = make(world, reply=True)
    assert coordinator._DoSingleScan(CScanItem(world.loc("/p/a.py"), scope, scan, 2), 5.0) is True
    assert [call[0] for call in told() if call[0] != "GetBuiltinLoc"] == [driver]
    assert coordinator._fScanTripleCompletedCount == {}


@pytest.mark.parametrize("scope", ["*", "f"])
def test_a_secondary_scan_without_builtins_is_dropped(world, scope):
    coordinator = make(world)
    world.loc_cache.builtin_loc = None
    item = CScanItem(world.loc("/p/a.py"), scope, kDerived, 2)
    assert coordinator._DoSingleScan(item, 5.0) is False
    assert told() == [("GetBuiltinLoc",)]
    assert coordinator._fScanTripleCompletedCount == {}
    assert coordinator.fActiveScanItem is None


def test_a_false_builtins_location_is_a_location(world):
    coordinator = make(world)
    world.loc_cache.builtin_loc = 0
    coordinator._DoSingleScan(CScanItem(world.loc("/p/a.py"), "*", kDerived, 2), 5.0)
    assert len(told("__DoSecondaryWholeFileScan")) == 1
    forget()


@pytest.mark.parametrize(("scan", "scope", "driver"), kByKind)
def test_the_item_is_active_inside_the_driver_alone(world, scan, scope, driver):
    seen = []

    def reply(coordinator, *_args):
        seen.append(coordinator.fActiveScanItem)
        return False

    coordinator = make(world, reply=reply)
    item = CScanItem(world.loc("/p/a.py"), scope, scan, 2)
    world.info_cache.FinishedWithScans = lambda *_args: seen.append(coordinator.fActiveScanItem)
    coordinator._DoSingleScan(item, 5.0)
    assert seen == [item, None]
    assert isinstance(seen[0], CScanItem)
    assert coordinator.fActiveScanItem is None
    forget()


def test_the_item_is_active_while_the_builtins_are_asked_for(world):
    coordinator = make(world)
    item = CScanItem(world.loc("/p/a.py"), "*", kDerived, 2)
    seen = []
    world.loc_cache.GetBuiltinLoc = lambda: seen.append(coordinator.fActiveScanItem)
    coordinator._DoSingleScan(item, 5.0)
    assert seen == [item]
    assert coordinator.fActiveScanItem is None
    forget()


@pytest.mark.parametrize(("scan", "scope", "driver"), kByKind)
def test_the_item_is_inactive_after_a_failure(world, scan, scope, driver):
    failure = RuntimeError(driver)
    coordinator = make(world, reply=failure)
    with pytest.raises(RuntimeError) as info:
        coordinator._DoSingleScan(CScanItem(world.loc("/p/a.py"), scope, scan, 2), 5.0)
    assert info.value is failure
    assert coordinator.fActiveScanItem is None
    assert told("FinishedWithScans") == []
    assert coordinator._fScanTripleCompletedCount == {}
    forget()


def test_the_item_is_inactive_after_a_failure_of_the_builtins(world):
    failure = RuntimeError("builtins")

    def get_builtin_loc():
        raise failure

    coordinator = make(world)
    world.loc_cache.GetBuiltinLoc = get_builtin_loc
    with pytest.raises(RuntimeError) as info:
        coordinator._DoSingleScan(CScanItem(world.loc("/p/a.py"), "*", kDerived, 2), 5.0)
    assert info.value is failure
    assert coordinator.fActiveScanItem is None
    forget()


def test_a_failing_finish_is_not_counted(world):
    failure = RuntimeError("finish")

    def finished(*_args):
        raise failure

    coordinator = make(world)
    world.info_cache.FinishedWithScans = finished
    with pytest.raises(RuntimeError) as info:
        coordinator._DoSingleScan(CScanItem(world.loc("/p/a.py"), "*", kPrimary, 2), 5.0)
    assert info.value is failure
    assert coordinator._fScanTripleCompletedCount == {}
    forget()


def test_each_finish_is_counted(world):
    coordinator = make(world)
    loc = world.loc("/p/a.py")
    for _ in range(3):
        coordinator._DoSingleScan(CScanItem(loc, "f", kPrimary, 2), 5.0)
    coordinator._DoSingleScan(CScanItem(loc, "f", kPrimary, 1), 5.0)
    assert coordinator._fScanTripleCompletedCount == {(loc, "f", kPrimary): 4}
    forget()


def test_scan_names_are_read_from_the_manager_at_each_scan(world):
    coordinator = make(world)
    item = CScanItem(world.loc("/p/a.py"), "*", "first", 2)
    world.ana_mgr.fPrimaryScanName = "first"
    coordinator._DoSingleScan(item, 5.0)
    assert len(told("__DoPrimaryWholeFileScan")) == 1
    world.ana_mgr.fPrimaryScanName = "other"
    coordinator._DoSingleScan(item, 5.0)
    assert len(told("__DoSecondaryWholeFileScan")) == 1
    forget()


def test_scan_names_are_compared_as_text(world):
    coordinator = make(world)
    name = "".join(["pri", "mary"])
    coordinator._DoSingleScan(CScanItem(world.loc("/p/a.py"), "".join(["", "*"]), name, 2), 5.0)
    assert len(told("__DoPrimaryWholeFileScan")) == 1
    forget()


def test_a_nested_scan_leaves_no_active_item(world):
    inner = []

    def reply(coordinator, item, end_time):
        if item.scope_name == "*" and not inner:
            inner.append(coordinator._DoSingleScan(CScanItem(item.loc, "f", kPrimary, 1), end_time))
        return False

    coordinator = make(world, reply=reply)
    coordinator._DoSingleScan(CScanItem(world.loc("/p/a.py"), "*", kPrimary, 2), 5.0)
    assert inner == [False]
    assert coordinator.fActiveScanItem is None
    forget()


@pytest.mark.parametrize("item", [None, 3, "xy", (1, 2), object()])
def test_something_that_is_no_item_fails(world, item):
    coordinator = make(world)
    with pytest.raises((TypeError, AttributeError, ValueError)):
        coordinator._DoSingleScan(item, 5.0)
    assert coordinator.fActiveScanItem is None
    forget()


@pytest.mark.parametrize("end_time", [None, "5", [], object()])
def test_an_end_time_that_is_no_number_fails(world, end_time):
    coordinator = make(world)
    item = CScanItem(world.loc("/p/a.py"), "*", kPrimary, 2)
    for operation in (
        lambda: coordinator._DoSingleScan(item, end_time),
        lambda: private(coordinator, "__DoScans")(end_time),
        lambda: private(coordinator, "__CheckWholeFiles")(end_time),
    ):
        with pytest.raises(TypeError):
            operation()
    forget()


def test_an_integer_end_time_is_a_time(world):
    coordinator = make(world)
    coordinator._DoSingleScan(CScanItem(world.loc("/p/a.py"), "*", kPrimary, 2), 5)
    ((_, _, end_time),) = told("__DoPrimaryWholeFileScan")
    assert end_time == 5.0
    forget()


# The analysis of a location.


@pytest.mark.parametrize("create", [True, False])
def test_get_analysis_asks_the_cache_manager(world, coordinator, create):
    loc = world.loc("/p/a.py")
    found = CPySourceAnalysis(loc)
    world.cache_mgr.analyses[loc] = found
    assert private(coordinator, "__GetAnalysis")(loc, create) is found
    assert told() == [("GetAnalysis", loc, create)]


def test_get_analysis_of_a_derived_class(world, coordinator):
    class CMyAnalysis(CPySourceAnalysis):
        pass

    loc = world.loc("/p/a.py")
    world.cache_mgr.analyses[loc] = CMyAnalysis(loc)
    assert private(coordinator, "__GetAnalysis")(loc, True) is world.cache_mgr.analyses[loc]
    forget()


@pytest.mark.parametrize("other", [None, object(), 0, "analysis"])
def test_get_analysis_of_another_class_is_none(world, coordinator, other):
    loc = world.loc("/p/a.py")
    world.cache_mgr.analyses[loc] = other
    assert private(coordinator, "__GetAnalysis")(loc, False) is None
    forget()


def test_the_analysis_class_is_looked_up_at_each_use(world, coordinator, monkeypatch):
    class CNewAnalysis:
        pass

    loc = world.loc("/p/a.py")
    world.cache_mgr.analyses[loc] = CPySourceAnalysis(loc)
    monkeypatch.setattr(analysis, "CPySourceAnalysis", CNewAnalysis)
    assert private(coordinator, "__GetAnalysis")(loc, False) is None
    world.cache_mgr.analyses[loc] = CNewAnalysis()
    assert private(coordinator, "__GetAnalysis")(loc, False) is world.cache_mgr.analyses[loc]
    forget()


def test_get_analysis_passes_a_failure(world, coordinator):
    failure = RuntimeError("cache manager")

    def get_analysis(*_args):
        raise failure

    world.cache_mgr.GetAnalysis = get_analysis
    with pytest.raises(RuntimeError) as info:
        private(coordinator, "__GetAnalysis")(world.loc("/p/a.py"), True)
    assert info.value is failure
