"""The helper process: what goes there, what it reports, how the work comes back."""

import pytest
from collaborators import Buffer, HelperCallbackObj, HelperSupport
from guiutils import lgtk
from loombase import location
from loombase.location import CLocalFileLocation
from operations import watched
from pysource.scancoordinator import CScanCoordinator
from world import forget, kDerived, kPrimary, pending, told

import hostlog


class CallbackObj(HelperCallbackObj):
    """A callback object whose own connections are noted: signals are connected to the object."""

    def class_connect_while_alive(self, name, callback, owner):
        hostlog.note("helper.connect", name, callback, owner)
        return super().class_connect_while_alive(name, callback, owner)


@pytest.fixture
def callback_obj(world):
    """A helper process that runs."""
    obj = CallbackObj()
    world.ana_mgr.fHelperProcessProxy = world.proxy
    world.ana_mgr._fHelperProcessSupport = HelperSupport(obj)
    return obj


@pytest.fixture
def loc(world):
    return world.loc("/p/a.py")


# What may go there.


def test_a_whole_local_file_without_buffer_may_go(world, coordinator, loc):
    assert coordinator._CanSendToHelperProcess(loc, "*") is True
    assert told() == [("DoesCacheBufferExist", loc, True)]


@pytest.mark.parametrize("scope", ["f", "", "**"])
def test_a_scope_may_not_go_and_nothing_is_asked(coordinator, scope):
    class Untouchable:
        @property
        def __class__(self):
            raise NotImplementedError

    assert coordinator._CanSendToHelperProcess(Untouchable(), scope) is False
    assert told() == []


def test_a_file_that_is_not_local_may_not_go_and_no_buffer_is_asked_for(world, coordinator):
    assert coordinator._CanSendToHelperProcess(world.other("/p/a.py"), "*") is False
    assert coordinator._CanSendToHelperProcess(world.remote("/p/a.py"), "*") is False
    assert coordinator._CanSendToHelperProcess(None, "*") is False
    assert told() == []


def test_a_location_of_a_derived_class_may_go(coordinator):
    class CMyLocation(CLocalFileLocation):
        pass

    assert coordinator._CanSendToHelperProcess(CMyLocation("file:///x.py"), "*") is True
    forget()


def test_a_file_with_a_buffer_may_not_go(world, coordinator, loc):
    world.cache_mgr.buffers[loc] = Buffer(False)
    assert coordinator._CanSendToHelperProcess(loc, "*") is False
    forget()


def test_a_false_buffer_is_no_buffer(world, coordinator, loc):
    world.cache_mgr.buffers[loc] = 0
    assert coordinator._CanSendToHelperProcess(loc, "*") is True
    forget()


def test_the_class_of_local_files_is_looked_up_at_each_use(world, coordinator, loc, monkeypatch):
    monkeypatch.setattr(location, "CLocalFileLocation", type("COther", (), {}))
    assert coordinator._CanSendToHelperProcess(loc, "*") is False
    assert told() == []


def test_questions_by_keyword(coordinator, loc):
    assert coordinator._CanSendToHelperProcess(scope_name="*", loc=loc) is True
    forget()


# A helper process that has started.


def test_connections_in_order_through_wrappers(world, coordinator, callback_obj):
    assert coordinator._UpdateForHelperProcess() is None
    calls = told("helper.connect")
    assert [(call[1], call[3]) for call in calls] == [
        ("scan-queue-locs-removed", coordinator),
        ("scan-queue-locs-added", coordinator),
    ]
    assert all(type(call[2]) is lgtk.NoObjCallback for call in calls)
    assert coordinator._fHelperCallbackObjConnected is callback_obj
    forget()


def test_reports_change_the_set(world, coordinator, callback_obj):
    a, b, c = world.locs(3)
    coordinator._UpdateForHelperProcess()
    callback_obj.emit("scan-queue-locs-added", callback_obj, [a, b])
    assert coordinator._fLocsQueuedInHelper == {a, b}
    callback_obj.emit("scan-queue-locs-removed", callback_obj, (c, a))
    assert coordinator._fLocsQueuedInHelper == {b}
    callback_obj.emit("scan-queue-locs-removed", callback_obj, {c})
    callback_obj.emit("scan-queue-locs-added", callback_obj, [])
    assert coordinator._fLocsQueuedInHelper == {b}
    forget()


def test_reports_take_one_argument(world, coordinator, callback_obj):
    coordinator._UpdateForHelperProcess()
    for name in ("scan-queue-locs-added", "scan-queue-locs-removed"):
        with pytest.raises(TypeError):
            callback_obj.emit(name, callback_obj)
        with pytest.raises(TypeError):
            callback_obj.emit(name, callback_obj, 5)
    assert coordinator._fLocsQueuedInHelper == set()
    forget()


def test_reports_end_with_the_coordinator(world, coordinator, callback_obj):
    coordinator._UpdateForHelperProcess()
    coordinator.destroy()
    callback_obj.emit("scan-queue-locs-added", callback_obj, world.locs(1))
    assert coordinator._fLocsQueuedInHelper == set()
    forget()


def test_a_second_update_changes_nothing(world, callback_obj):
    coordinator = world.make(watched("AddPairsToPrimaryQueue"))
    coordinator._UpdateForHelperProcess()
    world.queue(coordinator, world.loc("/p/a.py"))
    before = pending(coordinator)
    forget()
    coordinator._UpdateForHelperProcess()
    assert told() == []
    assert pending(coordinator) == before


def test_an_equal_callback_object_is_the_same_helper(world, coordinator):
    class Equal(CallbackObj):
        def __eq__(self, other):
            return isinstance(other, Equal)

        __hash__ = CallbackObj.__hash__

    first, second = Equal(), Equal()
    world.ana_mgr._fHelperProcessSupport = HelperSupport(first)
    coordinator._UpdateForHelperProcess()
    world.ana_mgr._fHelperProcessSupport = HelperSupport(second)
    forget()
    coordinator._UpdateForHelperProcess()
    assert told() == []
    assert coordinator._fHelperCallbackObjConnected is first


def test_a_new_callback_object_is_connected_and_the_old_stays(world, coordinator, callback_obj):
    coordinator._UpdateForHelperProcess()
    newer = CallbackObj()
    world.ana_mgr._fHelperProcessSupport.fHelperCallbackObj = newer
    forget()
    coordinator._UpdateForHelperProcess()
    assert [call[1] for call in told("helper.connect")] == [
        "scan-queue-locs-removed",
        "scan-queue-locs-added",
    ]
    assert told("disconnect") == []
    assert coordinator._fHelperCallbackObjConnected is newer
    forget()


@pytest.mark.parametrize("support", [None, HelperSupport(None)])
def test_no_callback_object_connects_nothing(world, coordinator, support):
    world.ana_mgr.fHelperProcessProxy = world.proxy
    world.ana_mgr._fHelperProcessSupport = support
    world.queue(coordinator, world.loc("/p/a.py"))
    coordinator._UpdateForHelperProcess()
    assert told() == []
    assert coordinator._fHelperCallbackObjConnected is None
    assert len(pending(coordinator)) == 1


# What is queued moves there.


def test_queued_whole_files_move_to_the_helper(world, callback_obj):
    coordinator = world.make(watched("AddPairsToPrimaryQueue", "_CanSendToHelperProcess"))
    a, b, c, d, e = world.locs(5)
    remote = world.other("/p/x.py")
    buffered = world.loc("/p/buffer.py")
    world.cache_mgr.buffers[buffered] = Buffer(False)
    for loc in (a, remote, buffered, b):
        world.queue(coordinator, loc, priority=2)
    world.queue(coordinator, c, "f", priority=2)
    world.queue(coordinator, d, "f", priority=2)
    world.queue(coordinator, d, "g", priority=2)
    world.queue(coordinator, e, "*", kDerived, priority=2)
    world.queue(coordinator, a, "*", kPrimary, priority=2)
    coordinator._UpdateForHelperProcess()
    assert told("_CanSendToHelperProcess", "AddPairsToPrimaryQueue")[:5] == [
        ("_CanSendToHelperProcess", a, "*"),
        ("_CanSendToHelperProcess", remote, "*"),
        ("_CanSendToHelperProcess", buffered, "*"),
        ("_CanSendToHelperProcess", b, "*"),
        ("AddPairsToPrimaryQueue", [(a, "*"), (b, "*")], True, 2),
    ]
    assert told("proxy.AddPairsToPrimaryQueue") == [
        ("proxy.AddPairsToPrimaryQueue", [(a, "*"), (b, "*")], True, {"callback": None})
    ]
    assert set(pending(coordinator)) == {
        (remote, "*", kPrimary),
        (buffered, "*", kPrimary),
        (c, "f", kPrimary),
        (d, "f", kPrimary),
        (d, "g", kPrimary),
        (e, "*", kDerived),
    }
    assert coordinator._fLocsQueuedInHelper == {a, b}
    forget()


def test_each_priority_moves_by_itself_in_order(world, callback_obj):
    coordinator = world.make(watched("AddPairsToPrimaryQueue"))
    a, b, c = world.locs(3)
    world.queue(coordinator, a, priority=2)
    world.queue(coordinator, b, priority=0)
    world.queue(coordinator, c, priority=1)
    coordinator._UpdateForHelperProcess()
    assert told("AddPairsToPrimaryQueue") == [
        ("AddPairsToPrimaryQueue", [(b, "*")], True, 0),
        ("AddPairsToPrimaryQueue", [(c, "*")], True, 1),
        ("AddPairsToPrimaryQueue", [(a, "*")], True, 2),
    ]
    assert pending(coordinator) == {}
    forget()


def test_nothing_that_may_go_calls_no_addition(world, callback_obj):
    coordinator = world.make(watched("AddPairsToPrimaryQueue"))
    world.queue(coordinator, world.other("/p/x.py"))
    coordinator._UpdateForHelperProcess()
    assert told("AddPairsToPrimaryQueue") == []
    forget()


def test_all_are_collected_before_any_is_removed(world, callback_obj):
    counts = []

    def can_send(coordinator, _loc, _scope):
        counts.append(len(pending(coordinator)))
        return True

    coordinator = world.make(watched(_CanSendToHelperProcess=can_send))
    for loc in world.locs(3):
        world.queue(coordinator, loc)
    coordinator._UpdateForHelperProcess()
    # The last three answers are those of the addition.
    assert counts == [3, 3, 3, 0, 0, 0]
    forget()


def test_scans_move_before_the_signals_are_connected(world, coordinator, callback_obj):
    world.queue(coordinator, world.loc("/p/a.py"))
    coordinator._UpdateForHelperProcess()
    names = [call[0] for call in told()]
    assert names.index("proxy.AddPairsToPrimaryQueue") < names.index("helper.connect")


def test_without_proxy_the_pairs_are_taken_out_and_added_again(world, callback_obj):
    coordinator = world.make(watched("AddPairsToPrimaryQueue"))
    world.ana_mgr.fHelperProcessProxy = None
    a, b = world.locs(2)
    world.queue(coordinator, a, priority=1)
    world.queue(coordinator, b, priority=1)
    coordinator._UpdateForHelperProcess()
    assert told("AddPairsToPrimaryQueue") == [
        ("AddPairsToPrimaryQueue", [(a, "*"), (b, "*")], True, 1)
    ]
    assert pending(coordinator) == {(a, "*", kPrimary): 1, (b, "*", kPrimary): 1}
    assert coordinator._fLocsQueuedInHelper == set()
    assert coordinator._fHelperCallbackObjConnected is callback_obj
    forget()


def test_a_failing_proxy_leaves_the_scans_nowhere_and_nothing_connected(
    world, coordinator, callback_obj
):
    failure = RuntimeError("pipe")

    def fail(*_args, **_kwargs):
        raise failure

    loc = world.loc("/p/a.py")
    world.queue(coordinator, loc)
    world.proxy.AddPairsToPrimaryQueue = fail
    with pytest.raises(RuntimeError) as info:
        coordinator._UpdateForHelperProcess()
    assert info.value is failure
    assert pending(coordinator) == {}
    assert coordinator._fLocsQueuedInHelper == {loc}
    assert coordinator._fHelperCallbackObjConnected is None
    assert told("helper.connect") == []
    forget()


# A helper process that has gone.


def test_the_work_of_a_helper_that_has_gone_comes_back(world, callback_obj):
    coordinator = world.make(watched("AddPairsToPrimaryQueue"))
    locs = world.locs(3)
    coordinator._UpdateForHelperProcess()
    coordinator.AddPairsToPrimaryQueue([(loc, "*") for loc in locs])
    world.ana_mgr.fHelperProcessProxy = None
    forget()
    coordinator._UpdateForHelperProcess()
    ((_, pairs, first, priority),) = told("AddPairsToPrimaryQueue")
    assert type(pairs) is list
    assert set(pairs) == {(loc, "*") for loc in locs}
    assert (first, priority) == (False, None)
    assert pending(coordinator) == {(loc, "*", kPrimary): 2 for loc in locs}
    assert coordinator._fLocsQueuedInHelper == set()
    assert coordinator._fHelperCallbackObjConnected is callback_obj
    forget()


def test_the_set_is_cleared_after_the_work_is_back(world):
    seen = []
    coordinator = world.make(
        watched(AddPairsToPrimaryQueue=lambda c, *_args: seen.append(set(c._fLocsQueuedInHelper)))
    )
    loc = world.loc("/p/a.py")
    world.ana_mgr.fHelperProcessProxy = world.proxy
    CScanCoordinator.AddPairsToPrimaryQueue(coordinator, [(loc, "*")])
    world.ana_mgr.fHelperProcessProxy = None
    coordinator._UpdateForHelperProcess()
    assert seen == [{loc}]
    assert coordinator._fLocsQueuedInHelper == set()
    forget()


def test_no_proxy_and_an_empty_set_do_nothing(coordinator):
    coordinator._UpdateForHelperProcess()
    assert told() == []


def test_a_proxy_with_a_full_set_takes_nothing_back(world, coordinator, callback_obj, loc):
    coordinator.AddPairsToPrimaryQueue([(loc, "*")])
    coordinator._UpdateForHelperProcess()
    assert coordinator._fLocsQueuedInHelper == {loc}
    assert pending(coordinator) == {}
    forget()


def test_a_helper_that_comes_back_gets_nothing_of_the_local_queue(
    world, coordinator, callback_obj, loc
):
    coordinator._UpdateForHelperProcess()
    world.ana_mgr.fHelperProcessProxy = None
    world.queue(coordinator, loc)
    coordinator._UpdateForHelperProcess()
    world.ana_mgr.fHelperProcessProxy = world.proxy
    coordinator._UpdateForHelperProcess()
    assert pending(coordinator) == {(loc, "*", kPrimary): 2}
    forget()
