"""Modification times: `__GetModtimeDict` and `__GetModtimes`."""

import pytest
import singleton
from collaborators import Buffer
from loombase import location
from operations import private
from world import forget, told

import hostlog


def get_dict(coordinator, locs):
    """The times at once."""
    return private(coordinator, "__GetModtimeDict")(locs)


def test_times_in_order(world, coordinator, monkeypatch):
    a, b, c, d = world.locs(4)
    world.info_cache.disk_mtimes.update({a: 1.5, d: 4.5})
    edited, saved = Buffer(True), Buffer(False, 33)
    world.cache_mgr.buffers.update({b: edited, c: saved})
    table = singleton.GetSingletons()

    def get_singletons():
        hostlog.note("GetSingletons")
        return table

    monkeypatch.setattr(singleton, "GetSingletons", get_singletons)
    times = get_dict(coordinator, [a, b, c, d])
    assert told() == [
        ("DoesCacheBufferExist", a, True),
        ("DoesCacheBufferExist", b, True),
        ("IsModified", edited),
        ("DoesCacheBufferExist", c, True),
        ("IsModified", saved),
        ("_GetLastKnownModTime", saved),
        ("DoesCacheBufferExist", d, True),
        ("GetSingletons",),
        ("GetDiskMTime", a),
        ("GetDiskMTime", d),
        ("emit", coordinator, "modtimes-updated", {a: 1.5, b: -2, c: 33, d: 4.5}),
    ]
    assert list(times.items()) == [(b, -2), (c, 33), (a, 1.5), (d, 4.5)]
    assert type(times) is dict
    assert type(times[b]) is int


def test_the_mapping_that_is_told_is_the_one_that_is_returned(world, coordinator):
    seen = []
    coordinator.connect("modtimes-updated", lambda *args: seen.append(args))
    times = get_dict(coordinator, world.locs(2))
    ((told_times,),) = seen
    assert told_times is times
    forget()


def test_no_locations(coordinator):
    assert get_dict(coordinator, []) == {}
    assert told() == [("emit", coordinator, "modtimes-updated", {})]


@pytest.mark.parametrize("kind", [list, tuple])
def test_any_sequence_of_locations(world, coordinator, kind):
    locs = world.locs(3)
    assert get_dict(coordinator, kind(locs)) == dict.fromkeys(locs, 0.0)
    forget()


def test_one_location_twice_has_one_entry(world, coordinator):
    (a,) = world.locs(1)
    world.info_cache.disk_mtimes[a] = 3.0
    assert get_dict(coordinator, [a, a]) == {a: 3.0}
    assert len(told("GetDiskMTime")) == 2
    forget()


def test_an_edited_buffer_asks_nothing_of_the_disk(world, coordinator):
    (a,) = world.locs(1)
    world.cache_mgr.buffers[a] = Buffer(True, 9)
    assert get_dict(coordinator, [a]) == {a: -2}
    assert told("GetDiskMTime", "_GetLastKnownModTime") == []
    forget()


def test_a_false_buffer_is_a_buffer(world, coordinator):
    class Falsy(Buffer):
        def __bool__(self):
            return False

    (a,) = world.locs(1)
    world.cache_mgr.buffers[a] = Falsy(False, 8.5)
    assert get_dict(coordinator, [a]) == {a: 8.5}
    assert told("GetDiskMTime") == []
    forget()


def test_the_time_of_a_buffer_is_handed_on_as_it_is(world, coordinator):
    (a,) = world.locs(1)
    time = 2**70
    world.cache_mgr.buffers[a] = Buffer(False, time)
    assert get_dict(coordinator, [a])[a] is time
    forget()


def test_a_file_that_does_not_exist_is_zero(world, coordinator):
    (a,) = world.locs(1)
    assert get_dict(coordinator, [a]) == {a: 0}
    forget()


@pytest.mark.parametrize(
    ("owner", "name"), [("cache_mgr", "DoesCacheBufferExist"), ("info_cache", "GetDiskMTime")]
)
def test_a_failure_reaches_the_caller_and_nothing_is_told(world, coordinator, owner, name):
    failure = RuntimeError(name)

    def fail(*_args):
        raise failure

    setattr(getattr(world, owner), name, fail)
    with pytest.raises(RuntimeError) as info:
        get_dict(coordinator, world.locs(1))
    assert info.value is failure
    assert told("emit") == []
    forget()


def test_locations_that_are_no_sequence_fail(coordinator):
    with pytest.raises(TypeError):
        get_dict(coordinator, 5)
    assert told("emit") == []


# The times, perhaps later.


@pytest.mark.parametrize(("more", "force"), [((), False), ((True,), True), (("x",), "x")])
def test_inspection_is_asked_for_with_the_sequence_and_force(world, coordinator, more, force):
    locs = world.locs(2)
    assert private(coordinator, "__GetModtimes")(locs, print, *more) is None
    ((_, loc_seq, callback, given),) = told("_WaitForInspectMultiple")
    assert loc_seq is locs
    assert given == force
    assert callable(callback)
    assert told() == []


def test_times_come_when_inspection_is_over(world, coordinator):
    a, b = world.locs(2)
    world.info_cache.disk_mtimes[a] = 2.0
    edited = world.cache_mgr.buffers[b] = Buffer(True)
    seen = []
    private(coordinator, "__GetModtimes")([a, b], lambda *args: seen.append(args))
    assert seen == []
    forget()
    location.finish_inspections()
    assert seen == [({a: 2.0, b: -2},)]
    assert told() == [
        ("DoesCacheBufferExist", a, True),
        ("DoesCacheBufferExist", b, True),
        ("IsModified", edited),
        ("GetDiskMTime", a),
        ("emit", coordinator, "modtimes-updated", {a: 2.0, b: -2}),
    ]


def test_times_are_told_before_the_completion(world, coordinator):
    order = []
    coordinator.connect("modtimes-updated", lambda times: order.append(("told", times)))
    private(coordinator, "__GetModtimes")(
        world.locs(1), lambda times: order.append(("completed", times))
    )
    location.finish_inspections()
    assert [what for what, _ in order] == ["told", "completed"]
    assert order[0][1] is order[1][1]
    forget()


def test_no_locations_complete_with_an_empty_mapping(coordinator):
    seen = []
    private(coordinator, "__GetModtimes")([], seen.append)
    location.finish_inspections()
    assert seen == [{}]
    forget()


def test_inspection_may_be_over_at_once(world, coordinator, monkeypatch):
    monkeypatch.setattr(
        location, "_WaitForInspectMultiple", lambda _locs, callback, _force: callback(False)
    )
    seen = []
    private(coordinator, "__GetModtimes")(world.locs(1), seen.append)
    assert len(seen) == 1
    forget()


@pytest.mark.parametrize("abort", [True, 1, "gone"])
def test_an_abort_completes_nothing_and_is_printed(world, coordinator, monkeypatch, capsys, abort):
    locs = world.locs(2)
    seen = []
    private(coordinator, "__GetModtimes")(locs, seen.append)
    world.log_lines(coordinator)
    forget()
    location.finish_inspections(abort)
    assert seen == []
    assert told() == []
    assert capsys.readouterr().out == (
        f"Skipping modtime processing due to remote agent abort: {locs!r}\n"
    )


@pytest.mark.parametrize("abort", [False, None, 0, ""])
def test_a_false_abort_completes(world, coordinator, abort):
    seen = []
    private(coordinator, "__GetModtimes")(world.locs(1), seen.append)
    location.finish_inspections(abort)
    assert len(seen) == 1
    forget()


def test_a_failing_completion_reaches_the_caller_of_the_callback(world, coordinator):
    failure = RuntimeError("completion")

    def complete(_times):
        raise failure

    private(coordinator, "__GetModtimes")(world.locs(1), complete)
    with pytest.raises(RuntimeError) as info:
        location.finish_inspections()
    assert info.value is failure
    forget()


def test_a_failure_of_the_disk_delivers_nothing(world, coordinator):
    failure = RuntimeError("disk")

    def fail(_loc):
        raise failure

    seen = []
    private(coordinator, "__GetModtimes")(world.locs(1), seen.append)
    world.info_cache.GetDiskMTime = fail
    with pytest.raises(RuntimeError) as info:
        location.finish_inspections()
    assert info.value is failure
    assert seen == []
    assert told("emit") == []
    forget()


def test_nothing_is_remembered_until_inspection_is_over(world, coordinator):
    (a,) = world.locs(1)
    seen = []
    private(coordinator, "__GetModtimes")([a], seen.append)
    world.info_cache.disk_mtimes[a] = 77.0
    location.finish_inspections()
    assert seen == [{a: 77.0}]
    forget()


def test_the_sequence_is_read_when_inspection_is_over(world, coordinator):
    a, b = world.locs(2)
    locs = [a]
    seen = []
    private(coordinator, "__GetModtimes")(locs, seen.append)
    locs.append(b)
    location.finish_inspections()
    assert set(seen[0]) == {a, b}
    forget()
