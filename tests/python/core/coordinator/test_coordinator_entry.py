"""The operations that put work into the queues, ask about it, and take it out."""

import pytest
from loombase import mime
from operations import watched
from pysource.scancoordinator import (
    CScanItem,
    kBackgroundPriority,
    kInteractivePriority,
    kTypingModulePriority,
)
from world import forget, kDerived, kPrimary, pending, told, waiting_files

import hostlog

kAddOperations = ("AddPairsToPrimaryQueue", "AddPairsToSecondaryQueue")
kScanOf = {"AddPairsToPrimaryQueue": kPrimary, "AddPairsToSecondaryQueue": kDerived}


@pytest.fixture
def loc(world):
    return world.loc("/p/a.py")


@pytest.fixture(params=kAddOperations)
def operation(request):
    """One of the two add operations."""
    return request.param


# The priority.


@pytest.mark.parametrize(
    ("args", "kwargs", "priority"),
    [
        ((), {}, kInteractivePriority),
        ((True,), {}, kInteractivePriority),
        ((False,), {}, kBackgroundPriority),
        ((), {"first": False}, kBackgroundPriority),
        ((0,), {}, kBackgroundPriority),
        (("yes",), {}, kInteractivePriority),
        ((True, kBackgroundPriority), {}, kBackgroundPriority),
        ((False, kInteractivePriority), {}, kInteractivePriority),
        ((), {"priority": kTypingModulePriority}, kTypingModulePriority),
        ((), {"priority": 0, "first": False}, kTypingModulePriority),
        ((True, None), {}, kInteractivePriority),
        ((), {"priority": 7}, 7),
    ],
)
def test_priority_without_a_running_scan(
    world, coordinator, loc, operation, args, kwargs, priority
):
    assert getattr(coordinator, operation)([(loc, "*")], *args, **kwargs) is None
    assert pending(coordinator) == {(loc, "*", kScanOf[operation]): priority}
    forget()


@pytest.mark.parametrize("running", [0, 1, 2])
@pytest.mark.parametrize("first", [True, False])
def test_priority_of_the_running_scan_is_inherited(
    world, coordinator, loc, operation, running, first
):
    item = CScanItem(world.loc("/p/run.py"), "*", kPrimary, running)
    world.during(
        coordinator, item, lambda: getattr(coordinator, operation)([(loc, "*")], first)
    )
    assert pending(coordinator) == {(loc, "*", kScanOf[operation]): running}
    forget()


def test_a_given_priority_beats_that_of_the_running_scan(world, coordinator, loc, operation):
    item = CScanItem(world.loc("/p/run.py"), "*", kPrimary, 0)
    world.during(
        coordinator, item, lambda: getattr(coordinator, operation)([(loc, "*")], priority=2)
    )
    assert pending(coordinator) == {(loc, "*", kScanOf[operation]): 2}
    forget()


@pytest.mark.parametrize("priority", ["1", 1.5, [], object()])
def test_a_priority_of_another_type_fails(world, coordinator, loc, operation, priority):
    with pytest.raises(TypeError):
        getattr(coordinator, operation)([(loc, "*")], True, priority)
    assert pending(coordinator) == {}
    forget()


# The primary queue.


def test_primary_pairs_are_due_for_a_check(world, coordinator, loc):
    coordinator.AddPairsToPrimaryQueue([(loc, "*")])
    assert waiting_files(coordinator) == {loc: kInteractivePriority}
    forget()


def test_primary_add_schedules_after_it_has_queued(world, loc):
    seen = []
    coordinator = world.make(watched(_ScheduleIdle=lambda c: seen.append(len(pending(c)))))
    coordinator.AddPairsToPrimaryQueue([(loc, "*")])
    assert seen == [1]
    forget()


def test_primary_add_of_nothing_schedules_all_the_same(world):
    coordinator = world.make(watched(_ScheduleIdle=None))
    coordinator.AddPairsToPrimaryQueue([])
    assert told() == [("_ScheduleIdle",)]


def test_primary_add_takes_any_iterable(world, coordinator):
    a, b = world.locs(2)
    coordinator.AddPairsToPrimaryQueue(iter([(a, "*"), [b, "f"]]))
    assert set(pending(coordinator)) == {(a, "*", kPrimary), (b, "f", kPrimary)}
    forget()


def test_primary_add_asks_nothing_about_derived_information(world, coordinator, loc):
    coordinator.AddPairsToPrimaryQueue([(loc, "*")])
    assert told("WantDerivedInfo", "DoesCacheBufferExist") == []
    forget()


def test_primary_name_is_read_at_each_add(world, coordinator, loc):
    world.ana_mgr.fPrimaryScanName = "first"
    coordinator.AddPairsToPrimaryQueue([(loc, "*")])
    assert set(pending(coordinator)) == {(loc, "*", "first")}
    forget()


@pytest.mark.parametrize(
    ("pair", "error", "text"),
    [
        ((1, 2, 3), ValueError, "too many values to unpack (expected 2)"),
        ((1,), ValueError, "not enough values to unpack (expected 2, got 1)"),
        ((), ValueError, "not enough values to unpack (expected 2, got 0)"),
        (5, TypeError, "cannot unpack non-iterable int object"),
    ],
)
@pytest.mark.parametrize("helper", [True, False])
def test_an_element_that_is_no_pair_fails(world, coordinator, loc, pair, error, text, helper):
    if helper:
        world.ana_mgr.fHelperProcessProxy = world.proxy
    with pytest.raises(error) as info:
        coordinator.AddPairsToPrimaryQueue([(loc, "f"), pair, (loc, "g")])
    assert str(info.value) == text
    if helper:
        assert pending(coordinator) == {}
        assert told("proxy.AddPairsToPrimaryQueue") == []
    forget()


# The helper process.


def test_local_files_go_to_the_helper_and_the_rest_stays(world, loc):
    coordinator = world.make(watched("_CanSendToHelperProcess", _ScheduleIdle=None))
    other = world.other("/p/b.py")
    world.ana_mgr.fHelperProcessProxy = world.proxy
    sent = (loc, "*")
    coordinator.AddPairsToPrimaryQueue([(other, "*"), sent, (loc, "f")], first=False)
    assert told("_CanSendToHelperProcess", "proxy.AddPairsToPrimaryQueue", "_ScheduleIdle") == [
        ("_CanSendToHelperProcess", other, "*"),
        ("_CanSendToHelperProcess", loc, "*"),
        ("_CanSendToHelperProcess", loc, "f"),
        ("proxy.AddPairsToPrimaryQueue", [sent], False, {"callback": None}),
        ("_ScheduleIdle",),
    ]
    assert coordinator._fLocsQueuedInHelper == {loc}
    assert pending(coordinator) == {(other, "*", kPrimary): 2, (loc, "f", kPrimary): 2}
    forget()


def test_the_very_pair_goes_to_the_helper(world, coordinator, loc):
    world.ana_mgr.fHelperProcessProxy = world.proxy
    pair = [loc, "*"]
    coordinator.AddPairsToPrimaryQueue([pair])
    ((_, pairs, first, kwargs),) = told("proxy.AddPairsToPrimaryQueue")
    assert type(pairs) is list
    assert pairs[0] is pair
    assert (first, kwargs) == (True, {"callback": None})
    forget()


def test_locations_join_the_set_before_the_helper_is_called(world, coordinator, loc):
    seen = []

    class Proxy:
        def AddPairsToPrimaryQueue(self, pairs, first, callback):
            seen.append(set(coordinator._fLocsQueuedInHelper))

    world.ana_mgr.fHelperProcessProxy = Proxy()
    coordinator.AddPairsToPrimaryQueue([(loc, "*")])
    assert seen == [{loc}]
    forget()


def test_all_to_the_helper_leaves_queue_and_idle_alone(world, loc):
    coordinator = world.make(watched(_ScheduleIdle=None))
    world.ana_mgr.fHelperProcessProxy = world.proxy
    coordinator.AddPairsToPrimaryQueue([(loc, "*")])
    assert told("_ScheduleIdle", "idle_add") == []
    assert coordinator.LocationInScanQueues(loc) is False
    assert coordinator.LocationInPrimaryScanQueue(loc) is False
    assert coordinator.QueuesEmpty() is False
    assert coordinator.QueuesEmpty(False) is False
    assert coordinator._fScanQueue._fOrderedQueues == []
    forget()


def test_nothing_with_a_helper_running_schedules_nothing(world):
    coordinator = world.make(watched(_ScheduleIdle=None))
    world.ana_mgr.fHelperProcessProxy = world.proxy
    coordinator.AddPairsToPrimaryQueue([])
    assert told() == []


def test_nothing_for_the_helper_calls_no_helper(world, coordinator, loc):
    world.ana_mgr.fHelperProcessProxy = world.proxy
    coordinator.AddPairsToPrimaryQueue([(loc, "f")])
    assert told("proxy.AddPairsToPrimaryQueue") == []
    assert coordinator._fLocsQueuedInHelper == set()
    forget()


def test_a_false_proxy_is_a_proxy(world, coordinator, loc):
    class Falsy(type(world.proxy)):
        def __bool__(self):
            return False

    world.ana_mgr.fHelperProcessProxy = Falsy()
    coordinator.AddPairsToPrimaryQueue([(loc, "*")])
    assert len(told("proxy.AddPairsToPrimaryQueue")) == 1
    forget()


def test_a_failing_helper_leaves_the_set_filled_and_the_rest_unqueued(world, coordinator, loc):
    failure = RuntimeError("pipe")

    class Proxy:
        def AddPairsToPrimaryQueue(self, pairs, first, callback):
            raise failure

    world.ana_mgr.fHelperProcessProxy = Proxy()
    with pytest.raises(RuntimeError) as info:
        coordinator.AddPairsToPrimaryQueue([(loc, "*"), (loc, "f")])
    assert info.value is failure
    assert coordinator._fLocsQueuedInHelper == {loc}
    assert pending(coordinator) == {}
    assert coordinator._fIdleProcId is None
    forget()


def test_an_overridden_question_decides_for_its_truth(world, loc):
    coordinator = world.make(watched(_CanSendToHelperProcess=["yes", 0]))
    other = world.other("/p/b.py")
    world.ana_mgr.fHelperProcessProxy = world.proxy
    coordinator.AddPairsToPrimaryQueue([(other, "f"), (loc, "*")])
    assert told("proxy.AddPairsToPrimaryQueue")[0][1] == [(other, "f")]
    assert set(pending(coordinator)) == {(loc, "*", kPrimary)}
    forget()


# The secondary queue.


def test_secondary_pairs_of_unwanted_files_are_dropped(world, coordinator):
    a, b, c = world.locs(3)
    world.loc_cache.derived_wanted[b] = False
    coordinator.AddPairsToSecondaryQueue([(a, "*"), (b, "*"), (c, "f")])
    assert told("WantDerivedInfo") == [("WantDerivedInfo", loc) for loc in (a, b, c)]
    assert pending(coordinator) == {(a, "*", kDerived): 1, (c, "f", kDerived): 1}
    assert waiting_files(coordinator) == {}
    forget()


@pytest.mark.parametrize("empty", [(), [], "unwanted"])
def test_secondary_add_of_nothing_schedules_nothing(world, loc, empty):
    coordinator = world.make(watched(_ScheduleIdle=None))
    world.loc_cache.derived_wanted[loc] = False
    coordinator.AddPairsToSecondaryQueue([(loc, "*")] if empty == "unwanted" else empty)
    assert told("_ScheduleIdle", "idle_add") == []
    forget()


def test_secondary_add_schedules(world, loc):
    coordinator = world.make(watched(_ScheduleIdle=None))
    coordinator.AddPairsToSecondaryQueue([(loc, "*")])
    assert told("_ScheduleIdle") == [("_ScheduleIdle",)]
    forget()


def test_secondary_work_never_goes_to_the_helper(world, coordinator, loc):
    world.ana_mgr.fHelperProcessProxy = world.proxy
    coordinator.AddPairsToSecondaryQueue([(loc, "*")])
    assert told("proxy.AddPairsToPrimaryQueue") == []
    assert pending(coordinator) == {(loc, "*", kDerived): 1}
    forget()


def test_secondary_failure_of_the_location_cache_queues_nothing(world, coordinator):
    failure = RuntimeError("location cache")
    a, b = world.locs(2)

    def want(loc):
        if loc is b:
            raise failure
        return True

    world.loc_cache.WantDerivedInfo = want
    with pytest.raises(RuntimeError) as info:
        coordinator.AddPairsToSecondaryQueue([(a, "*"), (b, "*")])
    assert info.value is failure
    assert pending(coordinator) == {}
    assert told() == []


@pytest.mark.parametrize("pairs", [5, None, [5], [None]])
def test_add_of_something_that_holds_no_pairs_fails(coordinator, operation, pairs):
    with pytest.raises(TypeError):
        getattr(coordinator, operation)(pairs)
    assert pending(coordinator) == {}
    forget()


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
