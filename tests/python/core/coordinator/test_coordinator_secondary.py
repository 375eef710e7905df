"""The drivers of secondary scans."""

import pytest
from operations import private
from pysource import scopescanner
from pysource.scancoordinator import CScanItem
from pysource.scopescanner import (
    kFinishedScanning,
    kReadyToScan,
    kScanAbandoned,
    kTimedOut,
    kWaitingForData,
)
from world import EqualTo, forget, kDerived, kPrimary, logged, pending, scripted, told

kEnd = 7.5


def scan_file(coordinator, loc, scan_name=kDerived):
    """One slice of a whole file."""
    item = CScanItem(loc, "*", scan_name, 2)
    return private(coordinator, "__DoSecondaryWholeFileScan")(item, kEnd)


def scan_scope(coordinator, loc, scope="f"):
    """One slice of a scope."""
    return private(coordinator, "__DoSecondarySingleScopeScan")(loc, scope, kEnd)


def files(coordinator):
    """The live scanners of whole files, as they are now."""
    return dict(private(coordinator, "__fActiveSecondaryWholeFileScanners"))


def scopes(coordinator):
    """The live scanners of scopes, as they are now."""
    return dict(private(coordinator, "__fActiveSecondarySingleScopeScanners"))


@pytest.fixture
def loc(world):
    """A file whose scope `f` has an info record."""
    loc = world.loc("/p/a.py")
    world.info_cache.infos[loc, "f"] = "info"
    return loc


# Whole files.


@pytest.mark.parametrize("state", [kFinishedScanning, kScanAbandoned])
def test_file_scan_in_order(world, coordinator, loc, state):
    world.log_lines(coordinator)
    scripted(state)
    assert scan_file(coordinator, loc) is False
    (scanner,) = scopescanner.made
    assert told() == [
        ("WantDerivedInfo", loc),
        ("CWholeFileSecondaryScanner", loc, kDerived, coordinator.fLog),
        logged(f"Starting secondary whole file scan: {loc!r}"),
        ("Scan", scanner, kEnd),
        logged(f"Finished secondary whole file scan: {loc!r}"),
        ("destroy", scanner),
    ]
    assert files(coordinator) == {}
    assert coordinator._fIncompleteScansByLoc == {}
    assert pending(coordinator) == {}


def test_file_scan_gets_the_scan_name_of_the_item(world, coordinator, loc):
    scan_file(coordinator, loc, "third")
    assert told("CWholeFileSecondaryScanner")[0][2] == "third"
    forget()


@pytest.mark.parametrize("wanted", [False, None, 0, ""])
def test_file_scan_that_is_not_wanted_is_over(world, coordinator, loc, wanted):
    world.loc_cache.derived_wanted[loc] = wanted
    world.log_lines(coordinator)
    assert scan_file(coordinator, loc) is False
    assert told() == [("WantDerivedInfo", loc)]


def test_file_scan_in_two_slices(world, coordinator, loc):
    world.log_lines(coordinator)
    scripted(kTimedOut)
    assert scan_file(coordinator, loc) is True
    (scanner,) = scopescanner.made
    assert files(coordinator) == {loc: scanner}
    assert scan_file(coordinator, loc) is False
    assert scopescanner.made == [scanner]
    assert told("log") == [
        logged(f"Starting secondary whole file scan: {loc!r}"),
        logged(f"Finished secondary whole file scan: {loc!r}"),
    ]
    forget()


@pytest.mark.parametrize(
    "state",
    [
        kTimedOut,
        kReadyToScan,
        kWaitingForData,
        None,
        EqualTo(kFinishedScanning),
        EqualTo(kScanAbandoned),
    ],
)
def test_file_scan_ends_are_tested_by_identity(world, coordinator, loc, state):
    scripted(state)
    assert scan_file(coordinator, loc) is True
    assert told("connect_while_alive", "destroy") == []
    assert coordinator._fScanQueue._fScanItemsWaitingForData == set()
    assert set(files(coordinator)) == {loc}
    forget()


def test_file_scanner_that_is_no_longer_wanted_stays(world, coordinator, loc):
    scripted(kTimedOut)
    scan_file(coordinator, loc)
    (scanner,) = scopescanner.made
    world.loc_cache.derived_wanted[loc] = False
    assert scan_file(coordinator, loc) is False
    assert files(coordinator) == {loc: scanner}
    assert not scanner.destroyed
    world.loc_cache.derived_wanted[loc] = True
    assert scan_file(coordinator, loc) is False
    assert scopescanner.made == [scanner]
    forget()


def test_file_scanner_leaves_before_it_is_destroyed(world, coordinator, loc):
    seen = []

    def step(scanner, _end_time):
        scanner._destroy_impl = lambda: seen.append(files(coordinator))
        return kFinishedScanning

    scripted(step)
    scan_file(coordinator, loc)
    assert seen == [{}]
    forget()


def test_file_scanner_is_stored_before_it_scans(world, coordinator, loc):
    seen = []

    def step(scanner, _end_time):
        seen.append(files(coordinator) == {loc: scanner})
        return kFinishedScanning

    scripted(step)
    scan_file(coordinator, loc)
    assert seen == [True]
    forget()


def test_file_scan_that_fails_leaves_its_scanner(world, coordinator, loc):
    failure = RuntimeError("scan")
    scripted(failure)
    with pytest.raises(RuntimeError) as info:
        scan_file(coordinator, loc)
    assert info.value is failure
    assert set(files(coordinator)) == {loc}
    forget()


# Scopes.


@pytest.mark.parametrize("state", [kFinishedScanning, kScanAbandoned])
def test_scope_scan_in_order_and_without_a_log_line(world, coordinator, loc, state):
    world.log_lines(coordinator)
    scripted(state)
    assert scan_scope(coordinator, loc) is False
    (scanner,) = scopescanner.made
    assert told() == [
        ("WantDerivedInfo", loc),
        ("GetScopeInfo", loc, "f"),
        ("CSingleScopeSecondaryScanner", "info", coordinator.fLog, None, world.ana_mgr),
        ("Scan", scanner, kEnd),
        ("destroy", scanner),
    ]
    assert scopes(coordinator) == {}


def test_scope_scan_can_be_called_by_keyword(world, coordinator, loc):
    operation = private(coordinator, "__DoSecondarySingleScopeScan")
    assert operation(end_time=kEnd, scope_name="f", loc=loc) is False
    forget()


def test_scope_scan_that_is_not_wanted_is_over(world, coordinator, loc):
    world.loc_cache.derived_wanted[loc] = False
    world.log_lines(coordinator)
    assert scan_scope(coordinator, loc) is False
    assert told() == [("WantDerivedInfo", loc)]


def test_scope_scan_without_info_is_over(world, coordinator, loc):
    assert scan_scope(coordinator, loc, "g") is False
    assert told() == [("WantDerivedInfo", loc), ("GetScopeInfo", loc, "g")]
    assert scopescanner.made == []


def test_scope_scan_with_a_false_info_goes_on(world, coordinator, loc):
    world.info_cache.infos[loc, "f"] = ""
    scan_scope(coordinator, loc)
    assert len(scopescanner.made) == 1
    forget()


def test_scope_scan_fetches_the_info_on_each_slice_and_uses_it_once(world, coordinator, loc):
    scripted(kTimedOut)
    assert scan_scope(coordinator, loc) is True
    world.info_cache.infos[loc, "f"] = "newer"
    assert scan_scope(coordinator, loc) is False
    assert len(told("GetScopeInfo")) == 2
    (scanner,) = scopescanner.made
    assert scanner.args[0] == "info"
    forget()


def test_scope_that_vanished_leaves_its_scanner(world, coordinator, loc):
    scripted(kTimedOut)
    scan_scope(coordinator, loc)
    (scanner,) = scopescanner.made
    del world.info_cache.infos[loc, "f"]
    assert scan_scope(coordinator, loc) is False
    assert scopes(coordinator) == {(loc, "f"): scanner}
    assert not scanner.destroyed
    forget()


@pytest.mark.parametrize("state", [EqualTo(kFinishedScanning), EqualTo(kScanAbandoned)])
def test_scope_scan_ends_are_tested_by_equality(world, coordinator, loc, state):
    scripted(state)
    assert scan_scope(coordinator, loc) is False
    assert scopes(coordinator) == {}
    forget()


@pytest.mark.parametrize("state", [kTimedOut, kReadyToScan, kWaitingForData, None])
def test_scope_scan_with_any_other_state_goes_on(world, coordinator, loc, state):
    scripted(state)
    assert scan_scope(coordinator, loc) is True
    assert told("connect_while_alive", "destroy") == []
    assert set(scopes(coordinator)) == {(loc, "f")}
    forget()


def test_scope_scanner_is_destroyed_before_it_leaves(world, coordinator, loc):
    seen = []

    def step(scanner, _end_time):
        scanner._destroy_impl = lambda: seen.append(scopes(coordinator) == {(loc, "f"): scanner})
        return kFinishedScanning

    scripted(step)
    scan_scope(coordinator, loc)
    assert seen == [True]
    assert scopes(coordinator) == {}
    forget()


def test_scope_scanner_that_fails_to_be_destroyed_stays(world, coordinator, loc):
    failure = RuntimeError("destroy")

    def step(scanner, _end_time):
        def destroy():
            raise failure

        scanner.destroy = destroy
        return kFinishedScanning

    scripted(step)
    with pytest.raises(RuntimeError) as info:
        scan_scope(coordinator, loc)
    assert info.value is failure
    assert set(scopes(coordinator)) == {(loc, "f")}
    forget()


def test_scope_scanner_that_a_nested_call_took_out_is_no_fault(world, coordinator, loc):
    def step(_scanner, _end_time):
        assert scan_scope(coordinator, loc) is False
        return kFinishedScanning

    scripted(step, kFinishedScanning)
    assert scan_scope(coordinator, loc) is False
    assert scopes(coordinator) == {}
    forget()


def test_scope_scan_that_fails_leaves_its_scanner(world, coordinator, loc):
    failure = RuntimeError("scan")
    scripted(failure)
    with pytest.raises(RuntimeError) as info:
        scan_scope(coordinator, loc)
    assert info.value is failure
    assert set(scopes(coordinator)) == {(loc, "f")}
    forget()


@pytest.mark.parametrize("name", ["CWholeFileSecondaryScanner", "CSingleScopeSecondaryScanner"])
def test_scanner_classes_are_looked_up_at_each_use(world, coordinator, loc, monkeypatch, name):
    class COther(getattr(scopescanner, name)):
        pass

    monkeypatch.setattr(scopescanner, name, COther)
    scan_file(coordinator, loc)
    scan_scope(coordinator, loc)
    assert [type(scanner) is COther for scanner in scopescanner.made].count(True) == 1
    forget()


def test_both_stages_of_a_file_in_turn(world, coordinator, loc):
    world.loc_cache.builtin_loc = world.loc("/lib/builtins.pyi")
    world.queue(coordinator, loc)
    private(coordinator, "__DoScans")(2e6)
    assert [type(scanner).__name__ for scanner in scopescanner.made] == [
        "CWholeFilePrimaryScanner",
        "CWholeFileSecondaryScanner",
    ]
    assert coordinator._fScanTripleCompletedCount == {
        (loc, "*", kPrimary): 1,
        (loc, "*", kDerived): 1,
    }
    assert private(coordinator, "__fCompletedLocs") == {loc}
    forget()
