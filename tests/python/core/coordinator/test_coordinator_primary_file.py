"""The driver of a primary scan of a whole file."""

import pytest
from operations import private, watched
from pysource import scopescanner, symbolinfo
from pysource.scancoordinator import CScanItem, kInteractivePriority, kTypingModulePriority
from pysource.scopescanner import (
    kFinishedScanning,
    kReadyToScan,
    kScanAbandoned,
    kTimedOut,
    kWaitingForData,
)
from world import EqualTo, forget, kDerived, kPrimary, logged, pending, scripted, told

kEnd = 7.5
kAdds = {"AddPairsToPrimaryQueue": None, "AddPairsToSecondaryQueue": None}


def scan(coordinator, loc, priority=2):
    """One slice."""
    item = CScanItem(loc, "*", kPrimary, priority)
    return private(coordinator, "__DoPrimaryWholeFileScan")(item, kEnd)


def scanners(coordinator):
    """The live scanners by location, as they are now."""
    return dict(private(coordinator, "__fActivePrimaryWholeFileScanners"))


@pytest.fixture
def loc(world):
    return world.loc("/p/a.py")


def test_a_whole_scan_in_order(world, loc):
    coordinator = world.make(watched(**kAdds))
    world.log_lines(coordinator)
    world.factory.secondary[loc] = [world.loc("/p/a.pyi")]
    assert scan(coordinator, loc, kInteractivePriority) is False
    (scanner,) = scopescanner.made
    scopes = scanner.kwargs["incomplete_scope_set"]
    assert told() == [
        (
            "CWholeFilePrimaryScanner",
            loc,
            kPrimary,
            {"incomplete_scope_set": scopes, "log": coordinator.fLog},
        ),
        logged(f"Starting primary whole file scan: {loc!r}"),
        ("Scan", scanner, kEnd),
        logged(f"Finished primary whole file scan: {loc!r}"),
        ("destroy", scanner),
        ("GetAllImports", [loc]),
        ("GetSecondaryLocations", loc),
        ("AddPairsToPrimaryQueue", [(world.loc("/p/a.pyi"), "*")], True, kInteractivePriority),
        ("AddPairsToSecondaryQueue", [(loc, "*")], True, kInteractivePriority),
    ]


def test_the_scanner_gets_the_very_set_and_the_very_log(world, coordinator, loc):
    scripted(kTimedOut)
    scan(coordinator, loc)
    (scanner,) = scopescanner.made
    assert scanner.kwargs["incomplete_scope_set"] is coordinator._fIncompleteScansByLoc[loc]
    assert scanner.kwargs["log"] is coordinator.fLog
    assert type(scanner.kwargs["incomplete_scope_set"]) is set
    forget()


def test_an_existing_set_is_reused_with_its_names(world, coordinator, loc):
    scopes = coordinator._fIncompleteScansByLoc[loc]
    scopes.add("old")
    scripted(kTimedOut)
    scan(coordinator, loc)
    (scanner,) = scopescanner.made
    assert scanner.kwargs["incomplete_scope_set"] is scopes
    assert scopes == {"old"}
    forget()


def test_the_scanner_class_is_looked_up_at_each_scan(world, coordinator, loc, monkeypatch):
    class COther(scopescanner.CWholeFilePrimaryScanner):
        pass

    monkeypatch.setattr(scopescanner, "CWholeFilePrimaryScanner", COther)
    scripted(kTimedOut)
    scan(coordinator, loc)
    assert type(scanners(coordinator)[loc]) is COther
    forget()


def test_the_scanner_is_stored_before_it_scans(world, coordinator, loc):
    seen = []

    def step(scanner, _end_time):
        seen.append(scanners(coordinator) == {loc: scanner})
        return kTimedOut

    scripted(step)
    assert scan(coordinator, loc) is True
    assert seen == [True]
    forget()


def test_two_slices_use_one_scanner_and_log_one_start(world, coordinator, loc):
    world.log_lines(coordinator)
    scripted(kTimedOut, kTimedOut, kFinishedScanning)
    assert scan(coordinator, loc) is True
    assert scan(coordinator, loc) is True
    assert scan(coordinator, loc) is False
    (scanner,) = scopescanner.made
    assert told("log", "Scan", "CWholeFilePrimaryScanner")[1:] == [
        logged(f"Starting primary whole file scan: {loc!r}"),
        ("Scan", scanner, kEnd),
        ("Scan", scanner, kEnd),
        ("Scan", scanner, kEnd),
        logged(f"Finished primary whole file scan: {loc!r}"),
    ]
    assert scanners(coordinator) == {}
    forget()


@pytest.mark.parametrize("state", [kTimedOut, kReadyToScan, None, 0, "odd"])
def test_any_other_state_means_out_of_time(world, coordinator, loc, state):
    scripted(state)
    assert scan(coordinator, loc) is True
    (scanner,) = scopescanner.made
    assert scanners(coordinator) == {loc: scanner}
    assert not scanner.destroyed
    assert told("connect_while_alive", "GetAllImports") == []
    forget()


def test_finished_is_tested_by_equality(world, coordinator, loc):
    scripted(EqualTo(kFinishedScanning))
    assert scan(coordinator, loc) is False
    assert told("GetAllImports") == [("GetAllImports", [loc])]
    forget()


def test_abandoned_is_tested_by_equality(world, coordinator, loc):
    scripted(EqualTo(kScanAbandoned))
    assert scan(coordinator, loc) is False
    assert told("GetAllImports") == []
    forget()


def test_waiting_is_tested_by_identity(world, coordinator, loc):
    scripted(EqualTo(kWaitingForData))
    assert scan(coordinator, loc) is True
    assert told("connect_while_alive") == []
    assert coordinator._fScanQueue._fScanItemsWaitingForData == set()
    forget()


def test_waiting_parks_the_item_and_keeps_the_scanner(world, coordinator, loc):
    item = world.queue(coordinator, loc)
    scripted(kWaitingForData)
    assert private(coordinator, "__DoPrimaryWholeFileScan")(item, kEnd) is True
    (scanner,) = scopescanner.made
    assert scanners(coordinator) == {loc: scanner}
    assert coordinator._fScanQueue._fScanItemsWaitingForData == {item}
    assert pending(coordinator) == {}
    assert scanner.connection_count("scan-state-changed") == 1
    forget()


def test_an_abandoned_scan_queues_nothing_and_keeps_its_entry(world, loc):
    coordinator = world.make(watched(**kAdds))
    world.log_lines(coordinator)
    scripted(kScanAbandoned)
    assert scan(coordinator, loc) is False
    (scanner,) = scopescanner.made
    assert told()[1:] == [
        logged(f"Starting primary whole file scan: {loc!r}"),
        ("Scan", scanner, kEnd),
        logged(f"Finished primary whole file scan: {loc!r}"),
        ("destroy", scanner),
    ]
    assert coordinator._fIncompleteScansByLoc == {loc: set()}
    assert scanners(coordinator) == {}


def test_a_finished_scan_with_an_empty_set_drops_the_entry(world, coordinator, loc):
    scan(coordinator, loc)
    assert coordinator._fIncompleteScansByLoc == {}
    forget()


def test_a_finished_scan_with_incomplete_scopes_keeps_the_entry(world, coordinator, loc):
    def step(scanner, _end_time):
        scanner.kwargs["incomplete_scope_set"].add("f")
        return kFinishedScanning

    scripted(step)
    scan(coordinator, loc)
    assert coordinator._fIncompleteScansByLoc == {loc: {"f"}}
    forget()


def test_the_scanner_leaves_the_mapping_before_it_is_destroyed(world, coordinator, loc):
    seen = []

    def step(scanner, _end_time):
        scanner._destroy_impl = lambda: seen.append(scanners(coordinator))
        return kFinishedScanning

    scripted(step)
    scan(coordinator, loc)
    assert seen == [{}]
    forget()


def test_a_scanner_that_is_no_longer_in_the_mapping_is_no_fault(world, coordinator, loc):
    """A nested scan of the same file takes the entry out first."""

    def step(_scanner, _end_time):
        assert scan(coordinator, loc) is False
        return kFinishedScanning

    scripted(step, kFinishedScanning)
    assert scan(coordinator, loc) is False
    assert scanners(coordinator) == {}
    forget()


def test_imports_are_followed_from_the_directory_at_the_priority(world, coordinator, loc):
    prefix = symbolinfo.kImportPrefix.decode()
    imported = world.loc("/p/one.py")
    world.info_cache.disk_mtimes[imported] = 2.0
    world.info_cache.imports[loc] = [prefix + "one", prefix + "two"]
    world.factory.found["one"] = imported
    world.loc_cache.derived_wanted[loc] = False
    scan(coordinator, loc, kTypingModulePriority)
    assert told("_FindPrimaryLocsForNames") == [
        ("_FindPrimaryLocsForNames", {"one", "two"}, loc.GetParentDir(), False)
    ]
    assert pending(coordinator) == {(imported, "*", kPrimary): kTypingModulePriority}
    forget()


def test_the_last_field_of_a_record_is_the_import(world, coordinator, loc):
    prefix = symbolinfo.kImportPrefix.decode()
    world.info_cache.GetAllImports = lambda _locs: [
        (prefix + "a",),
        (0, prefix + "b"),
        (0, 1, 2, 3, prefix + "c"),
    ]
    scan(coordinator, loc)
    ((_, names, _, _),) = told("_FindPrimaryLocsForNames")
    assert names == {"a", "b", "c"}
    forget()


def test_no_imports_still_queue_the_secondary_scan(world, coordinator, loc):
    scan(coordinator, loc)
    assert pending(coordinator) == {(loc, "*", kDerived): 2}
    forget()


def test_no_imports_still_ask_for_the_directory(world, coordinator):
    class Loc(type(world.loc("/p/a.py"))):
        asked = 0

        def GetParentDir(self):
            Loc.asked += 1
            return super().GetParentDir()

    scan(coordinator, Loc("file:///p/a.py"))
    assert Loc.asked == 1
    forget()


@pytest.mark.parametrize("secondary", [None, (), [], ""])
def test_no_secondary_locations_queue_nothing_primary(world, loc, secondary):
    coordinator = world.make(watched(**kAdds))
    world.factory.secondary[loc] = secondary
    scan(coordinator, loc)
    assert told("AddPairsToPrimaryQueue", "AddPairsToSecondaryQueue") == [
        ("AddPairsToSecondaryQueue", [(loc, "*")], True, 2)
    ]
    forget()


@pytest.mark.parametrize("kind", [list, tuple])
def test_secondary_locations_keep_their_order(world, loc, kind):
    coordinator = world.make(watched(**kAdds))
    others = world.locs(3, "/s")[::-1]
    world.factory.secondary[loc] = kind(others)
    scan(coordinator, loc)
    assert told("AddPairsToPrimaryQueue") == [
        ("AddPairsToPrimaryQueue", [(other, "*") for other in others], True, 2)
    ]
    forget()


def test_the_factory_is_that_of_the_singletons_manager(world, coordinator, loc):
    from collaborators import AnalysisManager

    other = AnalysisManager(world.info_cache)
    calls = []
    other.fAnalysisFactory.GetSecondaryLocations = calls.append
    world.singletons.fAnalysisMgr = other
    scan(coordinator, loc)
    assert calls == [loc]
    assert told("GetSecondaryLocations") == []
    forget()


def test_the_manager_is_taken_before_anything_else_on_every_slice(world, coordinator, loc):
    scripted(kTimedOut)
    scan(coordinator, loc)
    del world.singletons.fAnalysisMgr
    forget()
    with pytest.raises(AttributeError) as info:
        scan(coordinator, loc)
    assert info.value.name == "fAnalysisMgr"
    assert told() == []


def test_the_manager_of_the_last_slice_is_the_one_asked(world, coordinator, loc):
    """Taken before `Scan`: what the scan sets in the table is not seen any more."""
    world.singletons.fAnalysisMgr = world.ana_mgr

    def step(_scanner, _end_time):
        world.singletons.fAnalysisMgr = None
        return kFinishedScanning

    scripted(step)
    scan(coordinator, loc)
    assert told("GetSecondaryLocations") == [("GetSecondaryLocations", loc)]
    forget()


def test_the_scope_name_of_the_item_is_not_read(world, coordinator, loc):
    item = CScanItem(loc, "f", kPrimary, 2)
    assert private(coordinator, "__DoPrimaryWholeFileScan")(item, kEnd) is False
    assert pending(coordinator) == {(loc, "*", kDerived): 2}
    forget()


def test_the_scan_name_of_the_item_goes_to_the_scanner(world, coordinator, loc):
    item = CScanItem(loc, "*", "other", 2)
    private(coordinator, "__DoPrimaryWholeFileScan")(item, kEnd)
    assert told("CWholeFilePrimaryScanner")[0][2] == "other"
    forget()


def test_a_removed_item_leaves_its_scanner_for_the_next_scan(world, coordinator, loc):
    item = world.queue(coordinator, loc)
    scripted(kTimedOut)
    private(coordinator, "__DoScans")(2e6)
    coordinator.RemoveLocationsFromQueue([loc])
    (scanner,) = scopescanner.made
    assert scanners(coordinator) == {loc: scanner}
    assert not scanner.destroyed
    assert private(coordinator, "__DoPrimaryWholeFileScan")(item, kEnd) is False
    assert scopescanner.made == [scanner]
    assert scanner.destroyed
    forget()


# Failures.


def test_a_failing_constructor_stores_nothing(world, coordinator, loc, monkeypatch):
    failure = RuntimeError("constructor")

    def construct(*_args, **_kwargs):
        raise failure

    monkeypatch.setattr(scopescanner, "CWholeFilePrimaryScanner", construct)
    with pytest.raises(RuntimeError) as info:
        scan(coordinator, loc)
    assert info.value is failure
    assert scanners(coordinator) == {}
    assert coordinator._fIncompleteScansByLoc == {loc: set()}


def test_a_failing_scan_leaves_the_scanner_to_be_resumed(world, coordinator, loc):
    failure = RuntimeError("scan")
    scripted(failure, kFinishedScanning)
    with pytest.raises(RuntimeError) as info:
        scan(coordinator, loc)
    assert info.value is failure
    assert info.traceback[-1].name == "Scan"
    (scanner,) = scopescanner.made
    assert scanners(coordinator) == {loc: scanner}
    assert scan(coordinator, loc) is False
    assert scopescanner.made == [scanner]
    forget()


@pytest.mark.parametrize(
    ("owner", "name"),
    [("info_cache", "GetAllImports"), ("factory", "GetSecondaryLocations")],
)
def test_a_failure_after_the_end_leaves_no_scanner(world, coordinator, loc, owner, name):
    failure = RuntimeError(name)

    def fail(*_args):
        raise failure

    setattr(getattr(world, owner), name, fail)
    with pytest.raises(RuntimeError) as info:
        scan(coordinator, loc)
    assert info.value is failure
    assert scanners(coordinator) == {}
    assert scopescanner.made[0].destroyed
    assert pending(coordinator) == {}
    forget()


def test_a_failing_destroy_passes_and_the_scanner_is_gone(world, coordinator, loc):
    failure = RuntimeError("destroy")

    def step(scanner, _end_time):
        def destroy():
            raise failure

        scanner.destroy = destroy
        return kFinishedScanning

    scripted(step)
    with pytest.raises(RuntimeError) as info:
        scan(coordinator, loc)
    assert info.value is failure
    assert scanners(coordinator) == {}
    forget()


def test_a_record_of_none_is_a_failure(world, coordinator, loc):
    world.info_cache.GetAllImports = lambda _locs: [None]
    with pytest.raises(TypeError):
        scan(coordinator, loc)
    assert pending(coordinator) == {}
    forget()


@pytest.mark.parametrize("result", [None, 5])
def test_imports_that_are_no_sequence_are_a_failure(world, coordinator, loc, result):
    world.info_cache.GetAllImports = lambda _locs: result
    with pytest.raises(TypeError):
        scan(coordinator, loc)
    forget()
