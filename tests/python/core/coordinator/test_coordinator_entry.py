"""The operations that put pairs into the queues."""

import pytest
from operations import watched
from pysource.scancoordinator import (
    CScanItem,
    kBackgroundPriority,
    kInteractivePriority,
    kTypingModulePriority,
)
from world import forget, kDerived, kPrimary, pending, told, waiting_files

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
    world.during(coordinator, item, lambda: getattr(coordinator, operation)([(loc, "*")], first))
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
