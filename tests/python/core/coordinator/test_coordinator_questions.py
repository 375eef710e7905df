"""Parseable files, questions about what is queued, and removal."""

import pytest
from loombase import mime
from operations import watched
from pysource.scancoordinator import (
    CScanItem,
    kBackgroundPriority,
    kTypingModulePriority,
)
from world import forget, kDerived, kPrimary, pending, told

import hostlog

kAddOperations = ("AddPairsToPrimaryQueue", "AddPairsToSecondaryQueue")
kScanOf = {"AddPairsToPrimaryQueue": kPrimary, "AddPairsToSecondaryQueue": kDerived}


@pytest.fixture
def loc(world):
    return world.loc("/p/a.py")


# Parseable files.


def test_only_files_that_can_be_analysed_are_queued(world):
    coordinator = world.make(watched(AddPairsToPrimaryQueue=None))
    a, b, c = world.locs(3)
    world.file_attrib_mgr.mime_types = {a: "text/x-python", b: "text/plain", c: "text/x-python"}
    assert coordinator.AddParseablesToQueue([c, b, a, c]) is None
    assert told() == [
        ("GetMultipleProbableMimeTypes", {c: None, b: None, a: None}),
        ("AddPairsToPrimaryQueue", [(c, "*"), (a, "*")], True, kBackgroundPriority),
    ]


def test_parseables_keep_the_order_of_first_appearance(world):
    coordinator = world.make(watched(AddPairsToPrimaryQueue=None))
    a, b = world.locs(2)
    world.file_attrib_mgr.mime_types = dict.fromkeys((a, b), "text/x-python")
    coordinator.AddParseablesToQueue(iter([b, a, b]))
    assert list(told("GetMultipleProbableMimeTypes")[0][1]) == [b, a]
    forget()


@pytest.mark.parametrize(("args", "kwargs"), [((0,), {}), ((), {"priority": 0})])
def test_parseables_take_a_priority(world, coordinator, loc, args, kwargs):
    world.file_attrib_mgr.mime_types[loc] = "text/x-python"
    coordinator.AddParseablesToQueue([loc], *args, **kwargs)
    assert pending(coordinator) == {(loc, "*", kPrimary): kTypingModulePriority}
    forget()


def test_parseables_are_in_the_background_even_during_a_scan(world, coordinator, loc):
    world.file_attrib_mgr.mime_types[loc] = "text/x-python"
    item = CScanItem(world.loc("/p/run.py"), "*", kPrimary, 0)
    world.during(coordinator, item, lambda: coordinator.AddParseablesToQueue([loc]))
    assert pending(coordinator) == {(loc, "*", kPrimary): kBackgroundPriority}
    forget()


def test_no_parseables_do_nothing(world, coordinator, loc):
    coordinator.AddParseablesToQueue([loc])
    assert [call[0] for call in told()] == ["GetMultipleProbableMimeTypes"]
    assert coordinator._fIdleProcId is None
    coordinator.AddParseablesToQueue([])
    assert told() == [("GetMultipleProbableMimeTypes", {})]


def test_parseables_walk_the_mapping_as_the_manager_leaves_it(world):
    coordinator = world.make(watched(AddPairsToPrimaryQueue=None))
    a, b = world.locs(2)

    def fill(mapping):
        mapping.clear()
        mapping[b] = "text/x-python"

    world.file_attrib_mgr.GetMultipleProbableMimeTypes = fill
    coordinator.AddParseablesToQueue([a])
    assert told("AddPairsToPrimaryQueue")[0][1] == [(b, "*")]


def test_the_mime_types_are_looked_up_at_each_use(world, coordinator, loc, monkeypatch):
    monkeypatch.setattr(mime, "kAnalyzableMimeTypes", ["odd"])
    world.file_attrib_mgr.mime_types[loc] = "odd"
    coordinator.AddParseablesToQueue([loc])
    assert set(pending(coordinator)) == {(loc, "*", kPrimary)}
    forget()


def test_the_file_attribute_manager_is_that_of_the_singletons_now(world, coordinator, loc):
    other = type(world.file_attrib_mgr)()
    other.mime_types[loc] = "text/x-python"
    world.singletons.fFileAttribMgr = other
    coordinator.AddParseablesToQueue([loc])
    assert coordinator.LocationInPrimaryScanQueue(loc) is True
    forget()


def test_a_failing_mime_lookup_queues_nothing(world, coordinator, loc):
    failure = RuntimeError("mime")

    def fail(_mapping):
        raise failure

    world.file_attrib_mgr.GetMultipleProbableMimeTypes = fail
    with pytest.raises(RuntimeError) as info:
        coordinator.AddParseablesToQueue([loc])
    assert info.value is failure
    assert pending(coordinator) == {}


# Questions.


def test_queues_empty_counts_waiting_scans_by_default(world, coordinator):
    assert coordinator.QueuesEmpty() is True
    world.queue(coordinator, world.remote("/p/a.py", ready=False))
    assert coordinator.QueuesEmpty() is False
    assert coordinator.QueuesEmpty(include_waiting=True) is False
    assert coordinator.QueuesEmpty(False) is True
    forget()


@pytest.mark.parametrize("value", [0, None, "", []])
def test_queues_empty_takes_its_argument_for_its_truth(world, coordinator, value):
    world.queue(coordinator, world.remote("/p/a.py", ready=False))
    assert coordinator.QueuesEmpty(value) is True
    forget()


def test_queues_empty_counts_locations_in_the_helper(world, coordinator, loc):
    world.ana_mgr.fHelperProcessProxy = world.proxy
    coordinator.AddPairsToPrimaryQueue([(loc, "*")])
    assert coordinator.QueuesEmpty() is False
    assert coordinator.QueuesEmpty(False) is False
    coordinator.FlushQueue()
    assert coordinator.QueuesEmpty() is True
    forget()


def test_location_questions_by_scan(world, coordinator):
    a, b, c, d = world.locs(4)
    world.queue(coordinator, a, scan=kPrimary)
    world.queue(coordinator, b, scan=kDerived)
    world.queue(coordinator, c, scan="third")
    for loc, primary, secondary, any_scan in (
        (a, True, False, True),
        (b, False, True, True),
        (c, False, False, True),
        (d, False, False, False),
    ):
        assert coordinator.LocationInPrimaryScanQueue(loc) is primary
        assert coordinator.LocationInSecondaryScanQueue(loc) is secondary
        assert coordinator.LocationInScanQueues(loc=loc) is any_scan
    assert hostlog.calls == []


# Removal.


@pytest.mark.parametrize("kind", [list, tuple, set, frozenset, iter, dict.fromkeys])
def test_remove_takes_any_iterable(world, coordinator, kind):
    a, b, c = world.locs(3)
    for loc in (a, b, c):
        world.queue(coordinator, loc)
        world.queue(coordinator, loc, "f", kDerived, 1)
    assert coordinator.RemoveLocationsFromQueue(kind([a, c])) is None
    assert {loc for loc, _, _ in pending(coordinator)} == {b}
    forget()


def test_remove_of_one_location_twice_treats_it_once(world, coordinator, loc):
    world.queue(coordinator, loc)
    coordinator.RemoveLocationsFromQueue([loc, loc])
    assert pending(coordinator) == {}
    forget()


def test_remove_takes_waiting_scans_too(world, coordinator):
    remote = world.remote("/p/a.py", ready=False)
    world.queue(coordinator, remote)
    coordinator.RemoveLocationsFromQueue([remote])
    assert coordinator.QueuesEmpty() is True
    forget()


def test_remove_leaves_the_helper_alone(world, coordinator, loc):
    world.ana_mgr.fHelperProcessProxy = world.proxy
    coordinator.AddPairsToPrimaryQueue([(loc, "*")])
    forget()
    coordinator.RemoveLocationsFromQueue([loc])
    assert coordinator._fLocsQueuedInHelper == {loc}
    assert told() == []


def test_remove_of_strangers_and_of_nothing(world, coordinator, loc):
    coordinator.RemoveLocationsFromQueue([loc])
    coordinator.RemoveLocationsFromQueue([])
    assert told() == []


@pytest.mark.parametrize("locs", [5, None, [[]]])
def test_remove_of_something_else_fails(coordinator, locs):
    with pytest.raises(TypeError):
        coordinator.RemoveLocationsFromQueue(locs)
