"""What a scanned file imports: `__AddImportEquivsToQueue`."""

import pytest
from operations import private, watched
from pysource import symbolinfo
from pysource.scancoordinator import CScanCoordinator
from world import forget, kPrimary, pending, told

kImport = symbolinfo.kImportPrefix.decode()
kFrom = symbolinfo.kFromImportPrefix.decode()


@pytest.fixture
def dirloc(world):
    return world.loc("/p")


def follow(coordinator, equivs, dirloc, priority=2):
    """Follow some equivalents."""
    assert private(coordinator, "__AddImportEquivsToQueue")(equivs, dirloc, priority) is None


def resolved(coordinator, equivs, dirloc):
    """The names that are resolved for some equivalents, none if nothing is resolved."""
    follow(coordinator, equivs, dirloc)
    calls = told("_FindPrimaryLocsForNames")
    forget()
    return calls[0][1] if calls else None


def modules(world, **paths):
    """Let names resolve to files, each with a modification time."""
    locs = []
    for name, path in paths.items():
        loc = world.loc(path)
        world.factory.found[name] = loc
        world.info_cache.disk_mtimes[loc] = 5.0
        locs.append(loc)
    return locs


def test_all_in_order(world, dirloc):
    coordinator = world.make(watched("__GetModtimeDict", AddPairsToPrimaryQueue=None))
    (one,) = modules(world, one="/p/one.py")
    follow(coordinator, [kImport + "one", kImport + "none"], dirloc, 1)
    assert told() == [
        ("_FindPrimaryLocsForNames", {"one", "none"}, dirloc, False),
        ("__GetModtimeDict", [one]),
        ("DoesCacheBufferExist", one, True),
        ("GetDiskMTime", one),
        ("emit", coordinator, "modtimes-updated", {one: 5.0}),
        ("AddPairsToPrimaryQueue", [(one, "*")], False, 1),
    ]


def test_arguments_by_keyword(world, coordinator, dirloc):
    operation = private(coordinator, "__AddImportEquivsToQueue")
    operation(priority=1, dirloc=dirloc, imported_equivs=[kImport + "one"])
    assert told("_FindPrimaryLocsForNames")[0][1] == {"one"}
    forget()


def test_names_come_as_a_set_of_text(world, coordinator, dirloc):
    names = resolved(coordinator, [kImport + "one"], dirloc)
    assert isinstance(names, set)
    assert [type(name) for name in names] == [str]


def test_turned_off_it_does_nothing(world, coordinator, dirloc):
    coordinator._fAnalyzeFoundImports = False
    follow(coordinator, [kImport + "one"], dirloc)
    assert told() == []


def test_turned_off_it_does_not_look_at_the_equivalents(world, coordinator, dirloc):
    coordinator._fAnalyzeFoundImports = False
    follow(coordinator, [5], dirloc)
    assert told() == []


def test_a_directory_that_is_not_ready_fails_the_debug_check(world, coordinator):
    world.queue(coordinator, world.remote("/p/a.py"))
    dirloc = world.remote("/p", ready=False)
    if __debug__:
        with pytest.raises(AssertionError):
            follow(coordinator, [kImport + "one"], dirloc)
        assert told("_FindPrimaryLocsForNames") == []
    else:
        follow(coordinator, [kImport + "one"], dirloc)
        assert len(told("_FindPrimaryLocsForNames")) == 1
    forget()


def test_the_debug_check_comes_before_anything_else(world, coordinator):
    world.queue(coordinator, world.remote("/p/a.py"))
    dirloc = world.remote("/p", ready=False)
    coordinator._fAnalyzeFoundImports = False
    if __debug__:
        with pytest.raises(AssertionError):
            follow(coordinator, [5], dirloc)
    else:
        follow(coordinator, [5], dirloc)
    forget()


@pytest.mark.parametrize(
    ("equivs", "names"),
    [
        ([], None),
        (["plain"], None),
        (["", ";", ":"], None),
        ([kImport + "a"], {"a"}),
        ([kImport + "a.b.c"], {"a.b.c"}),
        ([kImport + "a", kImport + "b"], {"a", "b"}),
        ([f"{kImport}a;plain;{kImport}b"], {"a", "b"}),
        ([f"f({kImport}a;x);{kImport}b"], {"b"}),
        ([symbolinfo.kClassPrefix.decode() + "C"], None),
        ([symbolinfo.kImportAsNamePrefix.decode() + "a"], None),
        ([kFrom + "a b"], {"a.b", "a"}),
        ([kFrom + "a.b c"], {"a.b.c", "a.b", "a"}),
        ([kFrom + "a *"], {"a"}),
        ([kFrom + "a.b *"], {"a.b"}),
        ([kFrom + ". *"], {"."}),
        ([kFrom + ".a *"], {".a"}),
        ([f"{kFrom}a *;{kFrom}b c"], {"a", "b.c", "b"}),
        ([kFrom + "a b c"], None),
        ([kFrom + "a b c d"], None),
        ([kFrom + "a "], None),
        ([kFrom + " a"], None),
        ([kFrom + "  "], None),
        ([f"{kFrom}a b c;{kImport}d"], {"d"}),
    ],
)
def test_names_of_equivalents(coordinator, dirloc, equivs, names):
    assert resolved(coordinator, equivs, dirloc) == names


def test_a_star_in_second_place_decides_whatever_follows(coordinator, dirloc):
    """Only the last two characters are cut, whatever they are."""
    assert resolved(coordinator, [kFrom + "a * b"], dirloc) == {"a *"}


@pytest.mark.parametrize("dots", [".", "..", "..."])
def test_a_module_of_dots_takes_the_name_without_another_dot(coordinator, dirloc, dots):
    names = resolved(coordinator, [f"{kFrom}{dots} name"], dirloc)
    expected = set()
    name = dots + "name"
    while name and set(name) != {"."}:
        expected.add(name)
        name = symbolinfo.ParentScopeName(name)
    assert names == expected
    assert dots + "name" in names
    assert not any(set(name) == {"."} for name in names)


def test_a_relative_module_takes_a_dot(coordinator, dirloc):
    names = resolved(coordinator, [kFrom + ".a b"], dirloc)
    assert {".a.b", ".a"} <= names
    assert not any(set(name) == {"."} for name in names)


def test_a_module_that_ends_in_a_dot_takes_no_other(coordinator, dirloc):
    assert "a.b" in resolved(coordinator, [kFrom + "a. b"], dirloc)


def test_the_walk_over_the_parents_uses_parent_scope_name(coordinator, dirloc, monkeypatch):
    parents = {"a.b": "x", "x": "..."}
    monkeypatch.setattr(symbolinfo, "ParentScopeName", lambda name: parents[name])
    assert resolved(coordinator, [kFrom + "a b"], dirloc) == {"a.b", "x"}


@pytest.mark.parametrize("kind", [list, tuple, set, iter, dict.fromkeys])
def test_any_iterable_of_equivalents(coordinator, dirloc, kind):
    assert resolved(coordinator, kind([kImport + "a"]), dirloc) == {"a"}


def test_equivalents_of_bytes(coordinator, dirloc):
    names = resolved(
        coordinator,
        [symbolinfo.kImportPrefix + b"a;plain", symbolinfo.kFromImportPrefix + b"b c"],
        dirloc,
    )
    assert names == {"a", "b.c", "b"}
    assert {type(name) for name in names} == {str}


def test_names_beyond_ascii(coordinator, dirloc):
    assert resolved(coordinator, [kFrom + "modül größe"], dirloc) == {"modül.größe", "modül"}


def test_a_from_import_without_a_blank_is_a_failure(coordinator, dirloc):
    with pytest.raises(IndexError):
        follow(coordinator, [kFrom + "a"], dirloc)
    assert told("_FindPrimaryLocsForNames") == []


# From names to the queue.


def test_nothing_that_resolves_queues_nothing_but_tells_the_times(world, dirloc):
    coordinator = world.make(watched(AddPairsToPrimaryQueue=None))
    follow(coordinator, [kImport + "a"], dirloc)
    assert told() == [
        ("_FindPrimaryLocsForNames", {"a"}, dirloc, False),
        ("emit", coordinator, "modtimes-updated", {}),
    ]


def test_locations_keep_the_order_of_the_resolution(world, dirloc):
    coordinator = world.make(watched(AddPairsToPrimaryQueue=None))
    a, b, c = modules(world, a="/p/a.py", b="/p/b.py", c="/p/c.py")
    world.factory._FindPrimaryLocsForNames = lambda *_args: [c, None, a, None, b]
    follow(coordinator, [kImport + "a"], dirloc)
    assert told("AddPairsToPrimaryQueue") == [
        ("AddPairsToPrimaryQueue", [(c, "*"), (a, "*"), (b, "*")], False, 2)
    ]
    forget()


def test_a_false_location_is_kept(world, dirloc):
    class Falsy(type(dirloc)):
        def __bool__(self):
            return False

    coordinator = world.make(watched(AddPairsToPrimaryQueue=None))
    loc = Falsy("file:///p/x.py")
    world.factory._FindPrimaryLocsForNames = lambda *_args: [loc]
    follow(coordinator, [kImport + "a"], dirloc)
    assert told("AddPairsToPrimaryQueue")[0][1] == [(loc, "*")]
    forget()


def checked_at(world, coordinator, loc, mtime):
    """Let a whole-file check note a time for the file."""
    world.info_cache.disk_mtimes[loc] = mtime
    world.queue(coordinator, loc, check=True)
    private(coordinator, "__CheckWholeFiles")(2e6)
    coordinator._fScanQueue.RemoveAllForLocations([loc])
    assert coordinator._fMTimeAtLastWholeFileCheck[loc] == mtime
    forget()


def test_a_file_unchanged_since_its_check_is_left_out(world, coordinator, dirloc):
    a, b = modules(world, a="/p/a.py", b="/p/b.py")
    checked_at(world, coordinator, a, 5.0)
    follow(coordinator, [kImport + "a", kImport + "b"], dirloc)
    assert pending(coordinator) == {(b, "*", kPrimary): 2}
    forget()


def test_a_file_changed_since_its_check_is_queued(world, coordinator, dirloc):
    (a,) = modules(world, a="/p/a.py")
    checked_at(world, coordinator, a, 4.0)
    world.info_cache.disk_mtimes[a] = 5.0
    follow(coordinator, [kImport + "a"], dirloc)
    assert pending(coordinator) == {(a, "*", kPrimary): 2}
    forget()


def test_only_unchanged_files_call_for_no_addition_at_all(world, dirloc):
    coordinator = world.make(watched(AddPairsToPrimaryQueue=None))
    (a,) = modules(world, a="/p/a.py")
    checked_at(world, coordinator, a, 5.0)
    follow(coordinator, [kImport + "a"], dirloc)
    assert told("AddPairsToPrimaryQueue") == []
    forget()


def test_a_file_that_was_forgotten_is_queued(world, coordinator, dirloc):
    (a,) = modules(world, a="/p/a.py")
    checked_at(world, coordinator, a, 5.0)
    coordinator.ClearLastScanInfo([a])
    follow(coordinator, [kImport + "a"], dirloc)
    assert pending(coordinator) == {(a, "*", kPrimary): 2}
    forget()


@pytest.mark.parametrize(
    ("queued", "asked", "added"), [(2, 1, True), (2, 2, False), (1, 2, False), (1, 0, True)]
)
def test_a_file_that_is_queued_is_added_only_at_a_better_priority(
    world, dirloc, queued, asked, added
):
    coordinator = world.make(watched("AddPairsToPrimaryQueue"))
    (a,) = modules(world, a="/p/a.py")
    world.queue(coordinator, a, priority=queued)
    follow(coordinator, [kImport + "a"], dirloc, asked)
    expected = [(a, "*")] if added else []
    assert told("AddPairsToPrimaryQueue") == [("AddPairsToPrimaryQueue", expected, False, asked)]
    assert pending(coordinator) == {(a, "*", kPrimary): min(queued, asked)}
    forget()


def test_a_queued_scope_of_the_file_is_not_the_file(world, dirloc):
    coordinator = world.make(watched(AddPairsToPrimaryQueue=None))
    (a,) = modules(world, a="/p/a.py")
    world.queue(coordinator, a, "f", priority=1)
    follow(coordinator, [kImport + "a"], dirloc)
    assert told("AddPairsToPrimaryQueue")[0][1] == [(a, "*")]
    forget()


# Locations that need inspection.


def test_without_remote_locations_readiness_is_not_asked_for(world, coordinator, dirloc):
    class Loc(type(dirloc)):
        def IsReady(self):
            raise NotImplementedError

    loc = Loc("file:///p/x.py")
    world.factory._FindPrimaryLocsForNames = lambda *_args: [loc]
    follow(coordinator, [kImport + "x"], dirloc)
    assert pending(coordinator) == {(loc, "*", kPrimary): 2}
    forget()


def test_a_location_that_is_not_ready_is_kept_without_a_time(world, dirloc):
    coordinator = world.make(watched("__GetModtimeDict", AddPairsToPrimaryQueue=None))
    world.queue(coordinator, world.remote("/q/z.py"))
    ready, late = world.remote("/p/a.py"), world.remote("/p/b.py", ready=False)
    world.info_cache.disk_mtimes[ready] = 5.0
    checked_at(world, coordinator, ready, 5.0)
    world.factory._FindPrimaryLocsForNames = lambda *_args: [late, ready]
    follow(coordinator, [kImport + "a"], dirloc)
    assert told("__GetModtimeDict", "AddPairsToPrimaryQueue") == [
        ("__GetModtimeDict", [ready]),
        ("AddPairsToPrimaryQueue", [(late, "*")], False, 2),
    ]
    forget()


# It is no virtual operation.


def test_an_override_in_a_subclass_is_not_what_the_system_calls(world, dirloc):
    class CMine(CScanCoordinator):
        def _CScanCoordinator__AddImportEquivsToQueue(self, imported_equivs, dirloc, priority):
            raise NotImplementedError

    coordinator = world.make(CMine)
    loc = world.loc("/p/a.py")
    world.queue(coordinator, loc)
    world.loc_cache.derived_wanted[loc] = False
    world.info_cache.imports[loc] = [kImport + "one"]
    private(coordinator, "__DoScans")(2e6)
    assert len(told("_FindPrimaryLocsForNames")) == 1
    forget()


@pytest.mark.parametrize("name", ["_FindPrimaryLocsForNames"])
def test_a_failing_factory_passes(world, coordinator, dirloc, name):
    failure = RuntimeError(name)

    def fail(*_args):
        raise failure

    setattr(world.factory, name, fail)
    with pytest.raises(RuntimeError) as info:
        follow(coordinator, [kImport + "a"], dirloc)
    assert info.value is failure
    forget()


@pytest.mark.parametrize("equivs", [[5], [None], 5, None])
def test_equivalents_of_another_type_fail(coordinator, dirloc, equivs):
    with pytest.raises(TypeError):
        follow(coordinator, equivs, dirloc)
    forget()
