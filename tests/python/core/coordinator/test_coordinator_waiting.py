"""A scanner that waits for data: `_WaitForScannerToBeReady`."""

import pytest
from operations import private, watched
from pysource import scopescanner
from pysource.scancoordinator import CScanCoordinator, CScanItem
from pysource.scopescanner import kFinishedScanning, kWaitingForData
from world import forget, kPrimary, pending, scripted, told

kLate = 2e6


def wait(world, coordinator, scope="*", priority=2):
    """Queue a scan and let its scanner wait; returns item and scanner."""
    item = world.queue(coordinator, world.loc("/p/a.py"), scope, kPrimary, priority)
    scanner = scopescanner.CScanner()
    assert coordinator._WaitForScannerToBeReady(scanner, item) is None
    return item, scanner


def parked(coordinator):
    """The items that wait for data."""
    return set(coordinator._fScanQueue._fScanItemsWaitingForData)


def test_the_item_is_parked_before_the_scanner_is_connected(world, coordinator):
    item = world.queue(coordinator, world.loc("/p/a.py"))
    scanner = scopescanner.CScanner()
    seen = []
    scanner.connect_while_alive = lambda *args: seen.append((parked(coordinator), args))
    forget()
    coordinator._WaitForScannerToBeReady(scanner, item)
    ((waiting, (name, callback, owner)),) = seen
    assert waiting == {item}
    assert (name, owner) == ("scan-state-changed", coordinator)
    assert callable(callback)
    assert pending(coordinator) == {}
    forget()


def test_a_change_of_state_brings_the_item_back_and_schedules(world):
    coordinator = world.make(watched(_ScheduleIdle=None))
    item, scanner = wait(world, coordinator, priority=1)
    forget()
    scanner.emit("scan-state-changed", scanner)
    assert parked(coordinator) == set()
    assert pending(coordinator) == {item[:3]: 1}
    names = [call[0] for call in told()]
    assert [name for name in names if name != "idle_add"] == [
        "emit",
        "_ScheduleIdle",
        "disconnect",
    ]


def test_the_item_is_back_before_the_idle_is_scheduled(world):
    seen = []
    coordinator = world.make(watched(_ScheduleIdle=lambda c: seen.append(len(pending(c)))))
    _, scanner = wait(world, coordinator)
    scanner.emit("scan-state-changed", scanner)
    assert seen == [1]
    forget()


def test_the_second_change_after_one_wait_does_nothing(world, coordinator):
    item, scanner = wait(world, coordinator)
    scanner.emit("scan-state-changed", scanner)
    assert scanner.connection_count("scan-state-changed") == 0
    coordinator._fScanQueue.RemoveAllForLocations([item.loc])
    coordinator._fScanQueue.StartWaitingForData(item)
    scanner.emit("scan-state-changed", scanner)
    assert parked(coordinator) == {item}
    forget()


def test_the_connection_is_the_one_that_is_cut(world, coordinator):
    item = world.queue(coordinator, world.loc("/p/a.py"))
    scanner = scopescanner.CScanner()
    forget()
    coordinator._WaitForScannerToBeReady(scanner, item)
    callback = told("connect_while_alive")[0][3]
    forget()
    cut = []
    scanner.disconnect = cut.append
    callback(scanner)
    callback(scanner)
    assert len(cut) == 2
    assert cut[0] == cut[1] is not None
    forget()


def test_a_change_before_the_connection_is_known_cuts_nothing(world):
    """A scanner that tells of its state inside `connect_while_alive`: the callback stays."""
    coordinator = world.make(watched(_ScheduleIdle=None))

    class CHasty(scopescanner.CScanner):
        def connect_while_alive(self, name, callback, owner):
            connection = super().connect_while_alive(name, callback, owner)
            self.emit("scan-state-changed", self)
            return connection

    item = world.queue(coordinator, world.loc("/p/a.py"))
    scanner = CHasty()
    coordinator._WaitForScannerToBeReady(scanner, item)
    assert pending(coordinator) == {item[:3]: 2}
    assert told("disconnect") == []
    assert scanner.connection_count("scan-state-changed") == 1
    scanner.emit("scan-state-changed", scanner)
    assert len(told("_ScheduleIdle")) == 2
    assert len(told("disconnect")) == 1
    assert scanner.connection_count("scan-state-changed") == 0
    forget()


def test_a_connection_of_none_is_never_cut(world, coordinator):
    item = world.queue(coordinator, world.loc("/p/a.py"))
    scanner = scopescanner.CScanner()
    callbacks = []
    scanner.connect_while_alive = lambda _name, callback, _owner: callbacks.append(callback)
    coordinator._WaitForScannerToBeReady(scanner, item)
    (callback,) = callbacks
    callback(scanner)
    assert told("disconnect") == []
    assert pending(coordinator) == {item[:3]: 2}
    forget()


def test_a_connection_of_zero_is_cut(world, coordinator):
    item = world.queue(coordinator, world.loc("/p/a.py"))
    scanner = scopescanner.CScanner()
    callbacks = []

    def connect(_name, callback, _owner):
        callbacks.append(callback)
        return 0

    scanner.connect_while_alive = connect
    coordinator._WaitForScannerToBeReady(scanner, item)
    callbacks[0](scanner)
    assert told("disconnect") == [("disconnect", scanner, 0)]
    forget()


def test_the_connection_ends_with_the_coordinator(world, coordinator):
    item, scanner = wait(world, coordinator)
    coordinator.destroy()
    scanner.emit("scan-state-changed", scanner)
    assert parked(coordinator) == {item}
    forget()


def test_a_waiting_item_counts_as_waiting(world, coordinator):
    wait(world, coordinator)
    assert coordinator._fScanQueue.GetWaitingCount() == 1
    assert coordinator.QueuesEmpty(include_waiting=False) is True
    assert coordinator.QueuesEmpty() is False
    forget()


def test_a_wait_has_no_end_of_its_own(world, coordinator):
    item, _ = wait(world, coordinator)
    coordinator.FlushQueue()
    assert parked(coordinator) == {item}
    forget()


def test_plain_wait_is_what_the_drivers_call(world):
    """An operation that isn't virtual: an override in a subclass is not what the system calls."""

    class CMine(CScanCoordinator):
        def _WaitForScannerToBeReady(self, scanner, scan_item):
            raise NotImplementedError

    coordinator = world.make(CMine)
    item = world.queue(coordinator, world.loc("/p/a.py"))
    scripted(kWaitingForData)
    private(coordinator, "__DoScans")(kLate)
    assert parked(coordinator) == {item}
    forget()


@pytest.mark.parametrize("scope", ["*", "f"])
def test_a_scan_that_waits_and_goes_on_with_its_scanner(world, coordinator, scope):
    loc = world.loc("/p/a.py")
    world.loc_cache.derived_wanted[loc] = False
    item = world.queue(coordinator, loc, scope, kPrimary, 1)
    scripted(kWaitingForData, kWaitingForData, kFinishedScanning)
    run = private(coordinator, "__DoScans")
    run(kLate)
    (scanner,) = scopescanner.made
    assert parked(coordinator) == {item}
    run(kLate)
    assert len(told("Scan")) == 1
    scanner.emit("scan-state-changed", scanner)
    assert coordinator._fIdleProcId is not None
    run(kLate)
    assert parked(coordinator) == {item}
    scanner.emit("scan-state-changed", scanner)
    run(kLate)
    assert len(told("Scan")) == 2
    assert scopescanner.made == [scanner]
    assert scanner.destroyed
    assert coordinator._fScanTripleCompletedCount == {(loc, scope, kPrimary): 1}
    assert coordinator.QueuesEmpty() is True
    forget()


def test_a_failing_connection_leaves_the_item_parked(world, coordinator):
    failure = RuntimeError("connect")

    def connect(*_args):
        raise failure

    item = world.queue(coordinator, world.loc("/p/a.py"))
    scanner = scopescanner.CScanner()
    scanner.connect_while_alive = connect
    with pytest.raises(RuntimeError) as info:
        coordinator._WaitForScannerToBeReady(scanner, item)
    assert info.value is failure
    assert parked(coordinator) == {item}
    forget()


def test_a_scanner_that_cannot_be_connected_fails(world, coordinator):
    item = CScanItem(world.loc("/p/a.py"), "*", kPrimary, 2)
    with pytest.raises(AttributeError):
        coordinator._WaitForScannerToBeReady(object(), item)
    forget()
