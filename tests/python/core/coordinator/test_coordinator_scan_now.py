"""One scope, scanned on the caller's stack: `TryToScanNow`."""

import pytest
from operations import watched
from pysource import scopescanner, symbolinfo
from pysource.scancoordinator import CScanItem
from pysource.scopescanner import (
    kFinishedScanning,
    kReadyToScan,
    kScanAbandoned,
    kTimedOut,
    kWaitingForData,
)
from world import EqualTo, forget, kDerived, kPrimary, pending, scripted, told

kEnd = 50.0


@pytest.fixture
def loc(world):
    return world.loc("/p/a.py")


def scan_now(coordinator, loc, scope="f", names=(kPrimary,), **kwargs):
    """Scan one scope now."""
    return coordinator.TryToScanNow(loc, scope, list(names), kEnd, **kwargs)


def step(state=kFinishedScanning, **fields):
    """A step of the script that sets fields of the scanner and returns the state."""

    def run(scanner, _end_time):
        vars(scanner).update(fields)
        return state

    scripted(run)


def test_a_primary_scan_in_order(world, coordinator, loc):
    assert scan_now(coordinator, loc) is None
    (scanner,) = scopescanner.made
    scopes = coordinator._fIncompleteScansByLoc[loc]
    assert scanner.kwargs["incomplete_scope_set"] is scopes
    assert told() == [
        (
            "CSingleScopePrimaryScanner",
            loc,
            "f",
            {"incomplete_scope_set": scopes, "log": coordinator.fLog},
        ),
        ("Scan", scanner, kEnd),
        ("SaveToInfoCache", scanner),
        ("destroy", scanner),
    ]


def test_a_finished_scan_leaves_the_queue(world, coordinator, loc):
    world.queue(coordinator, loc, "f", priority=2)
    other = world.queue(coordinator, loc, "g", priority=2)
    scan_now(coordinator, loc)
    assert pending(coordinator) == {other[:3]: 2}
    forget()


def test_a_synchronous_scan_counts_and_records_nothing(world, coordinator, loc):
    scan_now(coordinator, loc)
    assert coordinator._fScanTripleCompletedCount == {}
    assert coordinator._fLastScanCompleted == {}
    assert told("Trim", "FinishedWithScans") == []
    assert coordinator.fActiveScanItem is None
    forget()


def test_a_file_that_does_not_exist(world, coordinator, loc):
    world.queue(coordinator, loc, "f")
    step(fFileDoesntExist=True)
    assert scan_now(coordinator, loc, names=(kPrimary, kDerived)) == (False, None, None)
    assert pending(coordinator) == {}
    assert [call[0] for call in told()] == ["CSingleScopePrimaryScanner", "Scan", "destroy"]


def test_data_that_is_not_there_yet(world, loc):
    coordinator = world.make(watched("AddPairsToPrimaryQueue"))
    step(kWaitingForData)
    assert scan_now(coordinator, loc, names=(kPrimary, kDerived)) == (True, None, None)
    assert pending(coordinator) == {(loc, "f", kPrimary): 1}
    (scanner,) = scopescanner.made
    assert told("AddPairsToPrimaryQueue", "SaveToInfoCache", "destroy", "WantDerivedInfo") == [
        ("AddPairsToPrimaryQueue", [(loc, "f")], True, None),
        ("destroy", scanner),
    ]
    forget()


@pytest.mark.parametrize("state", [kTimedOut, kReadyToScan, None])
def test_out_of_time_is_queued_saved_and_taken_out_again(world, loc, state):
    coordinator = world.make(watched("AddPairsToPrimaryQueue"))
    step(state)
    assert scan_now(coordinator, loc) is None
    assert [
        call[0] for call in told("Scan", "AddPairsToPrimaryQueue", "SaveToInfoCache", "destroy")
    ] == ["Scan", "AddPairsToPrimaryQueue", "SaveToInfoCache", "destroy"]
    assert pending(coordinator) == {}
    forget()


def test_an_abandoned_scan_is_saved(world, loc):
    coordinator = world.make(watched("AddPairsToPrimaryQueue"))
    step(kScanAbandoned)
    assert scan_now(coordinator, loc) is None
    assert told("AddPairsToPrimaryQueue") == []
    assert len(told("SaveToInfoCache")) == 1
    forget()


@pytest.mark.parametrize("state", [kFinishedScanning, kScanAbandoned])
def test_ends_are_tested_by_identity(world, loc, state):
    coordinator = world.make(watched("AddPairsToPrimaryQueue"))
    step(EqualTo(state))
    assert scan_now(coordinator, loc) is None
    assert len(told("AddPairsToPrimaryQueue")) == 1
    forget()


def test_waiting_is_tested_by_identity(world, coordinator, loc):
    step(EqualTo(kWaitingForData))
    assert scan_now(coordinator, loc) is None
    assert len(told("SaveToInfoCache")) == 1
    forget()


def test_removal_takes_the_waiting_scan_too(world, coordinator):
    remote = world.remote("/p/r.py", ready=False)
    world.queue(coordinator, remote, "f")
    assert coordinator._fScanQueue.GetWaitingCount() == 1
    scan_now(coordinator, remote)
    assert coordinator.QueuesEmpty() is True
    forget()


# Which scans.


@pytest.fixture
def secondary(world):
    """A coordinator whose secondary driver is answered by the test."""
    return world.make(watched(__DoSecondarySingleScopeScan=False))


def ran(coordinator):
    """Which of the two scans ran."""
    names = {"CSingleScopePrimaryScanner": "primary", "__DoSecondarySingleScopeScan": "derived"}
    result = [names[call[0]] for call in told(*names)]
    forget()
    return result


@pytest.mark.parametrize("do_secondary", [True, False])
@pytest.mark.parametrize(
    ("names", "expected"),
    [
        ([], []),
        ([kPrimary], ["primary"]),
        ([kDerived], ["derived"]),
        ([kPrimary, kDerived], ["primary", "derived"]),
        ([kDerived, kPrimary, kDerived], ["primary", "derived"]),
        (["third"], []),
        (None, ["primary", "derived"]),
    ],
)
def test_the_list_alone_says_which_scans_run(secondary, loc, names, expected, do_secondary):
    assert secondary.TryToScanNow(loc, "f", names, kEnd, do_secondary) is None
    assert ran(secondary) == expected


def test_do_secondary_by_keyword_has_no_effect(secondary, loc):
    secondary.TryToScanNow(
        do_secondary=False, end_time=kEnd, scan_name_list=[kDerived], scope_name="f", loc=loc
    )
    assert ran(secondary) == ["derived"]


def test_an_empty_list_touches_nothing(secondary, loc):
    assert secondary.TryToScanNow(loc, "f", [], kEnd) is None
    assert told() == []
    assert secondary._fIncompleteScansByLoc == {}


def test_the_secondary_driver_gets_a_double(secondary, loc):
    secondary.TryToScanNow(loc, "f", [kDerived], 5)
    ((_, given_loc, scope, end_time),) = told("__DoSecondarySingleScopeScan")
    assert (given_loc, scope, end_time) == (loc, "f", 5.0)
    assert type(end_time) is float
    forget()


@pytest.mark.parametrize("goes_on", [True, False])
def test_a_secondary_scan_that_is_over_leaves_the_queue(world, loc, goes_on):
    coordinator = world.make(watched(__DoSecondarySingleScopeScan=goes_on))
    world.queue(coordinator, loc, "f", kDerived)
    scan_now(coordinator, loc, names=(kDerived,))
    expected = {(loc, "f", kDerived): 2} if goes_on else {}
    assert pending(coordinator) == expected
    forget()


def test_a_secondary_scan_really_runs(world, coordinator, loc):
    world.info_cache.infos[loc, "f"] = "info"
    scan_now(coordinator, loc, names=(kPrimary, kDerived))
    assert [type(scanner).__name__ for scanner in scopescanner.made] == [
        "CSingleScopePrimaryScanner",
        "CSingleScopeSecondaryScanner",
    ]
    assert all(scanner.destroyed for scanner in scopescanner.made)
    forget()


@pytest.mark.parametrize("names", [[], None, [kDerived], 5])
def test_an_instance_scope_ignores_the_list(world, loc, names):
    coordinator = world.make(watched(_TryToScanInstanceScopeNow="info"))
    instance = symbolinfo.GetInstanceNameForClass("C")
    assert coordinator.TryToScanNow(loc, instance, names, kEnd) == "info"
    assert told() == [("_TryToScanInstanceScopeNow", loc, instance, kEnd)]


def test_a_synchronous_scan_inside_an_idle_scan_inherits_its_priority(world, coordinator, loc):
    item = CScanItem(world.loc("/p/run.py"), "*", kPrimary, 2)

    def work():
        step(kWaitingForData)
        scan_now(coordinator, loc)

    world.during(coordinator, item, work)
    assert pending(coordinator) == {(loc, "f", kPrimary): 2}
    forget()


# Failures.


@pytest.mark.parametrize("where", ["Scan", "SaveToInfoCache", "fFileDoesntExist"])
def test_a_failure_has_destroyed_the_scanner(world, coordinator, loc, monkeypatch, where):
    failure = RuntimeError(where)

    def fail(*_args):
        raise failure

    class CFailing(scopescanner.CSingleScopePrimaryScanner):
        def __init__(self, *args, **kwargs):
            super().__init__(*args, **kwargs)
            vars(self).pop(where, None)

    # The property takes over once the base's constructor has set what it sets.
    def construct(*args, **kwargs):
        scanner = CFailing(*args, **kwargs)
        setattr(CFailing, where, property(fail) if where == "fFileDoesntExist" else fail)
        return scanner

    monkeypatch.setattr(scopescanner, "CSingleScopePrimaryScanner", construct)
    with pytest.raises(RuntimeError) as info:
        scan_now(coordinator, loc)
    assert info.value is failure
    assert scopescanner.made[0].destroyed
    forget()


def test_a_failing_constructor_passes(world, coordinator, loc, monkeypatch):
    failure = RuntimeError("constructor")

    def fail(*_args, **_kwargs):
        raise failure

    monkeypatch.setattr(scopescanner, "CSingleScopePrimaryScanner", fail)
    with pytest.raises(RuntimeError) as info:
        scan_now(coordinator, loc)
    assert info.value is failure
    assert coordinator._fIncompleteScansByLoc == {loc: set()}
    forget()
