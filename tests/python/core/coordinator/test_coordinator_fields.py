"""The fields: names, first values, who may write them, what a read yields."""

import pytest
from operations import private
from pysource import _fastaccess, scopeinfo
from pysource.scancoordinator import CScanCoordinator, _CScanQueue
from world import forget, kPrimary, pass_time, pending, scripted, told

kNoneFields = (
    "__fActiveLoc",
    "_fIdleProcId",
    "__fStatusTimeout",
    "fActiveScanItem",
    "_fIdleToWriteToDatabase",
    "_fHelperCallbackObjConnected",
)
kMappings = (
    "__fActivePrimaryWholeFileScanners",
    "__fActivePrimarySingleScopeScanners",
    "__fActiveSecondaryWholeFileScanners",
    "__fActiveSecondarySingleScopeScanners",
    "_fIncompleteScansByLoc",
    "_fCompletedScanCount",
    "_fMTimeAtLastWholeFileCheck",
    "_fLastScanCompleted",
    "_fScanTripleCompletedCount",
)
kSets = (
    "__fCompletedLocs",
    "_fRemoteLocationsReady",
    "_fActiveScanNowTriples",
    "_fPendingScanNowTriples",
    "_fLocsQueuedInHelper",
)
kFalseFields = ("__fQuitting", "_fAllBasicModuleQueued", "fWaitingForRemote")
kTimes = ("_fActiveIdleStart", "_fLastLogQueue")
kObjects = (
    "fAnaMgr",
    "_fInfoCache",
    "_fInferenceEngine",
    "fPrefMgr",
    "fCacheMgr",
    "fSingletons",
    "_fScanQueue",
    "fIdlePriority",
    "fLog",
    "_fIdleScanSuspendCount",
)
kAll = (*kNoneFields, *kMappings, *kSets, *kFalseFields, *kTimes, *kObjects)


@pytest.fixture
def fresh(world):
    """A coordinator just as its constructor leaves it."""
    return world.make(path=False, basic=False)


def test_no_field_is_forgotten_here():
    assert len(set(kAll)) == 35


@pytest.mark.parametrize("name", kNoneFields)
def test_field_starts_as_none(fresh, name):
    assert private(fresh, name) is None


@pytest.mark.parametrize("name", kMappings)
def test_mapping_starts_empty(fresh, name):
    value = private(fresh, name)
    assert isinstance(value, dict)
    assert value == {}


@pytest.mark.parametrize("name", kSets)
def test_set_starts_empty(fresh, name):
    value = private(fresh, name)
    assert isinstance(value, set)
    assert value == set()


@pytest.mark.parametrize("name", kFalseFields)
def test_flag_starts_as_false(fresh, name):
    assert private(fresh, name) is False


@pytest.mark.parametrize("name", kTimes)
def test_time_starts_as_minus_one(fresh, name):
    value = private(fresh, name)
    assert isinstance(value, float)
    assert value == -1.0


def test_suspend_count_starts_at_zero(fresh):
    assert fresh._fIdleScanSuspendCount == 0
    assert type(fresh._fIdleScanSuspendCount) is int


def test_found_imports_are_analysed_at_first(fresh):
    assert fresh._fAnalyzeFoundImports is True


def test_objects_have_their_classes(fresh):
    assert type(fresh._fScanQueue) is _CScanQueue
    assert type(fresh.fLog) is _fastaccess.CLogger
    assert isinstance(fresh._fInfoCache, scopeinfo.CInfoCache)
    assert type(fresh.fIdlePriority) is int


@pytest.mark.parametrize("name", kAll)
def test_field_refuses_to_be_written(fresh, name):
    before = private(fresh, name)
    mangled = name if not name.startswith("__") else f"_CScanCoordinator{name}"
    with pytest.raises(AttributeError):
        setattr(fresh, mangled, before)
    with pytest.raises(AttributeError):
        setattr(fresh, mangled, object())
    after = private(fresh, name)
    assert after is before or after == before


@pytest.mark.parametrize("name", kAll)
def test_field_refuses_to_be_deleted(fresh, name):
    before = private(fresh, name)
    mangled = name if not name.startswith("__") else f"_CScanCoordinator{name}"
    with pytest.raises(AttributeError):
        delattr(fresh, mangled)
    after = private(fresh, name)
    assert after is before or after == before


@pytest.mark.parametrize("name", kAll)
def test_field_refuses_to_be_written_in_a_subclass_with_a_dict(world, name):
    class CMine(CScanCoordinator):
        pass

    coordinator = world.make(CMine)
    mangled = name if not name.startswith("__") else f"_CScanCoordinator{name}"
    with pytest.raises(AttributeError):
        setattr(coordinator, mangled, None)
    assert mangled not in vars(coordinator)


@pytest.mark.parametrize("value", [0, "", [], None, False])
def test_analyze_found_imports_takes_a_false_value(fresh, value):
    fresh._fAnalyzeFoundImports = value
    assert fresh._fAnalyzeFoundImports is False


@pytest.mark.parametrize("value", [1, "no", [0], True, object()])
def test_analyze_found_imports_takes_a_true_value(fresh, value):
    fresh._fAnalyzeFoundImports = False
    fresh._fAnalyzeFoundImports = value
    assert fresh._fAnalyzeFoundImports is True


def test_analyze_found_imports_passes_a_failing_truth(fresh):
    failure = RuntimeError("no truth")

    class Unsure:
        def __bool__(self):
            raise failure

    with pytest.raises(RuntimeError) as info:
        fresh._fAnalyzeFoundImports = Unsure()
    assert info.value is failure
    assert fresh._fAnalyzeFoundImports is True


def test_analyze_found_imports_refuses_to_be_deleted(fresh):
    with pytest.raises(AttributeError):
        del fresh._fAnalyzeFoundImports
    assert fresh._fAnalyzeFoundImports is True


def test_incomplete_scans_are_live_and_created_by_a_read_of_a_key(world, coordinator):
    loc = world.loc("/p/a.py")
    scopes = coordinator._fIncompleteScansByLoc[loc]
    assert scopes == set()
    scopes.add("f")
    assert coordinator._fIncompleteScansByLoc[loc] is scopes
    assert dict(coordinator._fIncompleteScansByLoc) == {loc: {"f"}}


def test_incomplete_scans_are_not_created_by_get(world, coordinator):
    assert coordinator._fIncompleteScansByLoc.get(world.loc("/p/a.py")) is None
    assert coordinator._fIncompleteScansByLoc == {}


def test_completed_count_reads_zero_for_a_missing_key_and_creates_nothing(world, coordinator):
    key = (world.loc("/p/a.py"), "*", kPrimary)
    assert coordinator._fScanTripleCompletedCount[key] == 0
    assert coordinator._fScanTripleCompletedCount == {}


def test_a_finished_scan_shows_in_the_fields(world, coordinator):
    loc = world.loc("/p/a.py")
    world.queue(coordinator, loc)
    world.loc_cache.derived_wanted[loc] = False
    coordinator._CScanCoordinator__DoScans(2e6)
    forget()
    assert pending(coordinator) == {}
    assert coordinator._fLastScanCompleted == {loc: {("*", kPrimary): 1_000_000.0}}
    assert type(coordinator._fLastScanCompleted[loc]) is dict
    assert coordinator._fScanTripleCompletedCount == {(loc, "*", kPrimary): 1}
    assert coordinator._fScanTripleCompletedCount[loc, "*", kPrimary] == 1


def test_live_scanners_show_in_the_fields(world, coordinator):
    from pysource import scopescanner

    loc = world.loc("/p/a.py")
    world.queue(coordinator, loc)
    world.queue(coordinator, loc, "f", priority=1)
    scripted(scopescanner.kTimedOut, scopescanner.kTimedOut)
    coordinator._CScanCoordinator__DoScans(2e6)
    coordinator._DoSingleScan(world.queue(coordinator, loc), 0.0)
    forget()
    scope_scanner, file_scanner = scopescanner.made
    assert private(coordinator, "__fActivePrimarySingleScopeScanners") == {
        (loc, "f"): scope_scanner
    }
    assert private(coordinator, "__fActivePrimaryWholeFileScanners") == {loc: file_scanner}
    assert private(coordinator, "__fActiveLoc") is loc


def test_the_helper_set_shows_what_was_sent(world, coordinator):
    loc = world.loc("/p/a.py")
    world.ana_mgr.fHelperProcessProxy = world.proxy
    coordinator.AddPairsToPrimaryQueue([(loc, "*")])
    assert coordinator._fLocsQueuedInHelper == {loc}
    assert type(coordinator._fLocsQueuedInHelper) is set
    forget()


def test_a_read_asks_nothing_of_the_host(world, coordinator):
    loc = world.loc("/p/a.py")
    world.queue(coordinator, loc)
    pass_time(1)
    for name in kAll:
        private(coordinator, name)
    assert told() == []
