"""The modules that are scanned first of all: `_QueueBasicModules`."""

import pytest
from collaborators import BuiltinMod
from operations import private, watched
from pysource.scancoordinator import kTypingModulePriority
from world import forget, kPrimary, pending, told

kNames = ("sys", "types", "collections")


@pytest.fixture
def basic(world):
    """A coordinator that only notes what is added, with all basic modules to be found."""
    world.factory.builtin_mod = BuiltinMod()
    world.factory.locs_by_name = {
        name: [world.loc(f"/lib/{name}.py")] for name in ("builtins", *kNames)
    }
    world.factory.typing_locs = (world.loc("/lib/typing.py"), world.loc("/lib/t/ext.py"))
    return world.make(watched(AddPairsToPrimaryQueue=None), basic=False)


def added():
    """The locations that were added, in order."""
    ((_, pairs, first, priority),) = told("AddPairsToPrimaryQueue")
    assert {scope for _, scope in pairs} <= {"*"}
    assert (first, priority) == (True, kTypingModulePriority)
    forget()
    return [loc for loc, _ in pairs]


def test_all_in_order(world, basic):
    assert basic._QueueBasicModules(1.0) is None
    names = ("builtins", *kNames)
    builtins, sys, types, collections = (world.loc(f"/lib/{name}.py") for name in names)
    locs = [builtins, *world.factory.typing_locs, sys, types, collections]
    assert told() == [
        ("FindBuiltinMod",),
        ("GetAllLocsForName", "builtins", None, False),
        ("GetTypingLocations",),
        ("GetAllLocsForName", "sys", None, False),
        ("GetAllLocsForName", "types", None, False),
        ("GetAllLocsForName", "collections", None, False),
        ("AddPairsToPrimaryQueue", [(loc, "*") for loc in locs], True, kTypingModulePriority),
    ]
    assert basic._fAllBasicModuleQueued is True


def test_builtins_that_are_not_known_yet(world, basic):
    world.factory.builtin_mod = None
    basic._QueueBasicModules(1.0)
    assert told() == [("FindBuiltinMod",)]
    assert basic._fAllBasicModuleQueued is False


def test_the_local_name_of_the_builtins_is_used(world, basic):
    class OldBuiltins:
        fLocalName = "__builtin__"

    world.factory.builtin_mod = OldBuiltins()
    world.factory.locs_by_name["__builtin__"] = [world.loc("/lib/old.py")]
    basic._QueueBasicModules(1.0)
    assert added()[0] is world.loc("/lib/old.py")


@pytest.mark.parametrize("absent", [None, [], ()])
def test_modules_that_cannot_be_found_are_passed_over(world, basic, absent):
    world.factory.typing_locs = absent
    world.factory.locs_by_name["collections"] = absent
    basic._QueueBasicModules(1.0)
    assert added() == [world.loc(f"/lib/{name}.py") for name in ("builtins", "sys", "types")]
    assert basic._fAllBasicModuleQueued is True


def test_several_locations_of_a_module_keep_their_order_and_duplicates(world, basic):
    a, b = world.locs(2, "/lib/x")
    world.factory.locs_by_name.update(builtins=(a, b), sys=[b, a], types=None, collections=None)
    world.factory.typing_locs = [a]
    basic._QueueBasicModules(1.0)
    assert added() == [a, b, a, b, a]


def test_builtins_must_have_a_sequence(world, basic):
    world.factory.locs_by_name["builtins"] = None
    with pytest.raises(TypeError):
        basic._QueueBasicModules(1.0)
    assert told("AddPairsToPrimaryQueue") == []
    assert basic._fAllBasicModuleQueued is False
    forget()


def test_no_builtins_locations_at_all_still_queue(world, basic):
    world.factory.locs_by_name = {"builtins": []}
    world.factory.typing_locs = None
    basic._QueueBasicModules(1.0)
    assert added() == []
    assert basic._fAllBasicModuleQueued is True


def test_the_second_call_asks_nothing(basic):
    basic._QueueBasicModules(1.0)
    forget()
    basic._QueueBasicModules(1.0)
    assert told() == []


def test_the_end_time_is_not_used_but_required(basic):
    with pytest.raises(TypeError):
        basic._QueueBasicModules()
    basic._QueueBasicModules(end_time=-1.0)
    assert len(added()) == 6


def test_the_flag_is_set_last(world):
    failure = RuntimeError("queue")
    flags = []

    def add(coordinator, *_args):
        flags.append(coordinator._fAllBasicModuleQueued)
        if len(flags) == 1:
            raise failure

    world.factory.builtin_mod = BuiltinMod()
    coordinator = world.make(watched(AddPairsToPrimaryQueue=add), basic=False)
    with pytest.raises(RuntimeError) as info:
        coordinator._QueueBasicModules(1.0)
    assert info.value is failure
    assert coordinator._fAllBasicModuleQueued is False
    coordinator._QueueBasicModules(1.0)
    assert flags == [False, False]
    assert coordinator._fAllBasicModuleQueued is True
    forget()


@pytest.mark.parametrize("name", ["FindBuiltinMod", "GetAllLocsForName", "GetTypingLocations"])
def test_a_failing_factory_passes(world, basic, name):
    failure = RuntimeError(name)

    def fail(*_args):
        raise failure

    setattr(world.factory, name, fail)
    with pytest.raises(RuntimeError) as info:
        basic._QueueBasicModules(1.0)
    assert info.value is failure
    assert basic._fAllBasicModuleQueued is False
    forget()


def test_they_run_before_interactive_work_and_again_after_a_flush(world):
    coordinator = world.make(basic=False)
    a, b = world.locs(2)
    world.factory.builtin_mod = BuiltinMod()
    world.factory.locs_by_name = {"builtins": [a], "sys": [b]}
    other = world.queue(coordinator, world.loc("/q/x.py"), priority=1)
    for loc in (a, b, other.loc):
        world.loc_cache.derived_wanted[loc] = False
        world.info_cache.disk_mtimes[loc] = 1.0
    private(coordinator, "__DoScans")(2e6)
    assert [call[1] for call in told("CWholeFilePrimaryScanner")] == [a, b, other.loc]
    coordinator.FlushQueue()
    assert coordinator._fAllBasicModuleQueued is False
    private(coordinator, "__DoScans")(2e6)
    assert [call[1] for call in told("CWholeFilePrimaryScanner")] == [a, b]
    forget()


def test_they_stay_until_the_module_cache_is_unsuspended(world):
    coordinator = world.make(basic=False)
    world.factory.builtin_mod = BuiltinMod()
    world.mod_file_cache.emit("suspend")
    private(coordinator, "__DoScans")(2e6)
    assert coordinator._fAllBasicModuleQueued is False
    world.mod_file_cache.emit("unsuspend")
    private(coordinator, "__DoScans")(2e6)
    assert coordinator._fAllBasicModuleQueued is True
    forget()


def test_with_a_helper_they_go_there_without_their_priority(world):
    coordinator = world.make(basic=False)
    a = world.loc("/lib/builtins.pyi")
    world.factory.builtin_mod = BuiltinMod()
    world.factory.locs_by_name = {"builtins": [a]}
    world.ana_mgr.fHelperProcessProxy = world.proxy
    coordinator._QueueBasicModules(1.0)
    assert told("proxy.AddPairsToPrimaryQueue") == [
        ("proxy.AddPairsToPrimaryQueue", [(a, "*")], True, {"callback": None})
    ]
    assert pending(coordinator) == {}
    forget()


def test_a_basic_module_that_is_queued_already_moves_forward(world):
    coordinator = world.make(basic=False)
    a = world.loc("/lib/builtins.pyi")
    world.factory.builtin_mod = BuiltinMod()
    world.factory.locs_by_name = {"builtins": [a]}
    world.queue(coordinator, a, priority=2)
    coordinator._QueueBasicModules(1.0)
    assert pending(coordinator) == {(a, "*", kPrimary): kTypingModulePriority}
    forget()
