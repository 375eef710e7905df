"""The scope of an instance, built from its class and the methods of the class."""

import pytest
import singleton
from collaborators import AnalysisManager
from operations import watched
from pysource import scopescanner, symbolinfo
from pysource.scopeinfo import CScopeInfo, CScopeInfoKey
from world import forget, kPrimary, pending, told

import hostlog

kInstance = symbolinfo.GetInstanceNameForClass("C")
kEnd = 50.0


class Info:
    """Information of a scope: what its names are, and how old it is."""

    def __init__(self, type_equivs=None, disk_mtime=0.0):
        self.type_equivs = type_equivs or {}
        self.disk_mtime = disk_mtime


@pytest.fixture
def loc(world):
    return world.loc("/p/a.py")


@pytest.fixture(autouse=True)
def definitions(monkeypatch):
    """Note which parts are decoded as definitions."""
    unpack = symbolinfo.UnpackDefInfoStr

    def noting_unpack(part):
        hostlog.note("UnpackDefInfoStr", part)
        return unpack(part)

    monkeypatch.setattr(symbolinfo, "UnpackDefInfoStr", noting_unpack)


def definition(prefix, scope_name):
    """A definition part of some kind."""
    return getattr(symbolinfo, prefix) + scope_name.encode()


def try_now(coordinator, loc, scope=kInstance):
    """Build with the inference engine."""
    return coordinator._TryToScanInstanceScopeNow(loc, scope, kEnd)


def build(coordinator, loc, scope=kInstance):
    """Build from the cache."""
    return coordinator.BuildInstanceScopeNoScanning(loc, scope, kEnd)


kBuilders = (try_now, build)


def know(world, loc, scope, info):
    """Let both the engine and the cache have information of a scope."""
    world.engine.infos[loc, scope] = info
    world.info_cache.infos[loc, scope] = info
    return info


# Both builders.


@pytest.mark.parametrize("builder", kBuilders)
def test_a_scope_that_is_no_instance_fails_the_debug_check(world, coordinator, loc, builder):
    if __debug__:
        with pytest.raises(AssertionError) as info:
            builder(coordinator, loc, "C")
        assert str(info.value) == ""
        assert told() == []
    else:
        know(world, loc, symbolinfo.GetClassForInstanceName("C"), Info())
        builder(coordinator, loc, "C")
        assert len(told("CreateClassInstInfo")) == 1
        forget()


@pytest.mark.parametrize("builder", kBuilders)
def test_a_class_without_methods(world, coordinator, loc, builder):
    info = know(world, loc, "C", Info({"x": b"plain", "y": b""}))
    result = builder(coordinator, loc)
    assert told("CreateClassInstInfo", "AddScopeInfo") == [
        ("CreateClassInstInfo", info, [], kPrimary),
        ("AddScopeInfo", (info, (), kPrimary)),
    ]
    assert result == (info, (), kPrimary)
    forget()


@pytest.mark.parametrize("builder", kBuilders)
def test_methods_in_the_order_of_the_mapping(world, coordinator, loc, builder):
    info = know(
        world,
        loc,
        "C",
        Info(
            {
                "z": definition("kMethodPrefix", "C.z"),
                "attr": definition("kClassPrefix", "C.Inner"),
                "a": definition("kUnboundMethodPrefix", "C.a"),
                "f": definition("kFunctionPrefix", "C.f"),
            }
        ),
    )
    z, a = know(world, loc, "C.z", Info()), know(world, loc, "C.a", Info())
    assert builder(coordinator, loc) == (info, (z, a), kPrimary)
    assert [call[1] for call in told("UnpackDefInfoStr")] == [
        definition("kMethodPrefix", "C.z"),
        definition("kUnboundMethodPrefix", "C.a"),
    ]
    forget()


@pytest.mark.parametrize("builder", kBuilders)
def test_the_first_part_that_is_a_method_counts(world, coordinator, loc, builder):
    parts = [
        b"plain",
        definition("kClassPrefix", "C.x"),
        definition("kUnboundMethodPrefix", "C.one"),
        definition("kMethodPrefix", "C.two"),
    ]
    know(world, loc, "C", Info({"m": b";".join(parts)}))
    one = know(world, loc, "C.one", Info())
    assert builder(coordinator, loc)[1] == (one,)
    assert len(told("UnpackDefInfoStr")) == 1
    forget()


@pytest.mark.parametrize("builder", kBuilders)
def test_the_name_of_the_entry_is_not_used(world, coordinator, loc, builder):
    class Untouchable:
        def __eq__(self, other):
            raise NotImplementedError

        __hash__ = object.__hash__

    know(world, loc, "C", Info({Untouchable(): definition("kMethodPrefix", "C.m")}))
    m = know(world, loc, "C.m", Info())
    assert builder(coordinator, loc)[1] == (m,)
    forget()


@pytest.mark.parametrize("builder", kBuilders)
def test_a_method_part_must_be_bytes(world, coordinator, loc, builder):
    know(world, loc, "C", Info({"m": definition("kMethodPrefix", "C.m").decode()}))
    with pytest.raises(TypeError) as info:
        builder(coordinator, loc)
    assert str(info.value) == "Expected bytes, got str"
    forget()


@pytest.mark.parametrize("builder", kBuilders)
def test_name_functions_are_looked_up_at_each_use(world, coordinator, loc, builder, monkeypatch):
    monkeypatch.setattr(symbolinfo, "IsInstanceScope", lambda name: name == "odd")
    monkeypatch.setattr(symbolinfo, "GetClassForInstanceName", lambda name: f"class of {name}")
    info = know(world, loc, "class of odd", Info())
    assert builder(coordinator, loc, "odd") == (info, (), kPrimary)
    forget()


@pytest.mark.parametrize("builder", kBuilders)
def test_the_scan_name_is_that_of_the_singletons_manager_now(world, coordinator, loc, builder):
    info = know(world, loc, "C", Info())
    other = AnalysisManager(world.info_cache)
    other.fPrimaryScanName = "other primary"
    singleton.GetSingletons().fAnalysisMgr = other
    assert builder(coordinator, loc) == (info, (), "other primary")
    forget()


@pytest.mark.parametrize("builder", kBuilders)
@pytest.mark.parametrize("name", ["CreateClassInstInfo", "AddScopeInfo"])
def test_a_failing_collaborator_passes(world, coordinator, loc, builder, monkeypatch, name):
    failure = RuntimeError(name)

    def fail(*_args):
        raise failure

    know(world, loc, "C", Info())
    if name == "AddScopeInfo":
        world.info_cache.AddScopeInfo = fail
    else:
        monkeypatch.setattr(scopescanner, name, fail)
    with pytest.raises(RuntimeError) as info:
        builder(coordinator, loc)
    assert info.value is failure
    forget()


# With the inference engine.


def test_engine_in_order(world, coordinator, loc):
    info = world.engine.infos[loc, "C"] = Info({"m": definition("kMethodPrefix", "C.m")})
    m = world.engine.infos[loc, "C.m"] = Info()
    built = (info, (m,), kPrimary)
    assert try_now(coordinator, loc) == built
    context = world.engine.context
    assert told() == [
        ("NewContext", kEnd),
        ("engine.GetScopeInfo", loc, "C", context),
        ("OutOfTime",),
        ("UnpackDefInfoStr", definition("kMethodPrefix", "C.m")),
        ("engine.GetScopeInfo", loc, "C.m", context),
        ("OutOfTime",),
        ("CreateClassInstInfo", info, [m], kPrimary),
        ("AddScopeInfo", built),
        ("GetScopeInfo", loc, kInstance),
    ]


def test_engine_the_answer_of_the_cache_wins(world, coordinator, loc):
    world.engine.infos[loc, "C"] = Info()
    world.info_cache.infos[loc, kInstance] = "stored"
    assert try_now(coordinator, loc) == "stored"
    forget()


def test_engine_a_false_answer_of_the_cache_wins_too(world, coordinator, loc):
    world.engine.infos[loc, "C"] = Info()
    world.info_cache.infos[loc, kInstance] = ()
    assert try_now(coordinator, loc) == ()
    forget()


def test_engine_without_class_is_none(world, coordinator, loc):
    assert try_now(coordinator, loc) is None
    assert [call[0] for call in told()] == ["NewContext", "engine.GetScopeInfo"]


def test_engine_out_of_time_after_the_class_is_none(world, coordinator, loc):
    world.engine.infos[loc, "C"] = Info()
    world.engine.deadlines = [True]
    assert try_now(coordinator, loc) is None
    assert told("CreateClassInstInfo", "AddScopeInfo") == []
    forget()


def test_engine_leaves_out_a_method_that_it_cannot_find(world, coordinator, loc):
    equivs = {name: definition("kMethodPrefix", f"C.{name}") for name in ("a", "b", "c")}
    info = world.engine.infos[loc, "C"] = Info(equivs)
    a, c = (world.engine.infos.setdefault((loc, f"C.{name}"), Info()) for name in "ac")
    assert try_now(coordinator, loc) == (info, (a, c), kPrimary)
    assert len(told("AddScopeInfo")) == 1
    assert pending(coordinator) == {}
    forget()


def test_engine_out_of_time_among_the_methods_gives_a_part_that_is_not_stored(
    world, coordinator, loc
):
    equivs = {name: definition("kMethodPrefix", f"C.{name}") for name in ("a", "b", "c")}
    info = world.engine.infos[loc, "C"] = Info(equivs)
    a = world.engine.infos[loc, "C.a"] = Info()
    b = world.engine.infos[loc, "C.b"] = Info()
    world.engine.deadlines = [False, False, True]
    assert try_now(coordinator, loc) == (info, (a, b), kPrimary)
    assert told("AddScopeInfo", "GetScopeInfo") == []
    assert len(told("OutOfTime")) == 3
    forget()


def test_engine_out_of_time_after_the_last_method_is_a_part_all_the_same(world, coordinator, loc):
    info = world.engine.infos[loc, "C"] = Info({"a": definition("kMethodPrefix", "C.a")})
    a = world.engine.infos[loc, "C.a"] = Info()
    world.engine.deadlines = [False, True]
    assert try_now(coordinator, loc) == (info, (a,), kPrimary)
    assert told("AddScopeInfo") == []
    forget()


def test_engine_asks_for_the_time_only_after_a_method(world, coordinator, loc):
    world.engine.infos[loc, "C"] = Info({"x": b"plain", "y": b"plain"})
    world.engine.deadlines = [False, True]
    try_now(coordinator, loc)
    assert len(told("OutOfTime")) == 1
    assert len(told("AddScopeInfo")) == 1
    forget()


def test_engine_is_that_of_the_construction(world, coordinator, loc):
    world.ana_mgr.fInferenceEngine = None
    world.engine.infos[loc, "C"] = Info()
    assert try_now(coordinator, loc) is not None
    forget()


def test_engine_end_time_is_handed_on(world, coordinator, loc):
    coordinator._TryToScanInstanceScopeNow(end_time=3, scope_name=kInstance, loc=loc)
    ((_, end_time),) = told("NewContext")
    assert end_time == 3.0
    forget()


def test_engine_that_fails_passes(world, coordinator, loc):
    failure = RuntimeError("engine")

    def fail(*_args):
        raise failure

    world.engine.GetScopeInfo = fail
    with pytest.raises(RuntimeError) as info:
        try_now(coordinator, loc)
    assert info.value is failure
    forget()


# From the cache alone.


def test_cache_in_order(world, coordinator, loc):
    info = world.info_cache.infos[loc, "C"] = Info({"m": definition("kMethodPrefix", "C.m")})
    m = world.info_cache.infos[loc, "C.m"] = Info()
    built = (info, (m,), kPrimary)
    assert build(coordinator, loc) == built
    assert told() == [
        ("GetScopeInfo", loc, "C"),
        ("UnpackDefInfoStr", definition("kMethodPrefix", "C.m")),
        ("GetScopeInfo", loc, "C.m"),
        ("CreateClassInstInfo", info, [m], kPrimary),
        ("AddScopeInfo", built),
    ]


def test_cache_queues_the_methods_that_are_missing(world, loc):
    coordinator = world.make(watched(AddPairsToPrimaryQueue=None))
    equivs = {name: definition("kMethodPrefix", f"C.{name}") for name in ("b", "a", "c")}
    world.info_cache.infos[loc, "C"] = Info(equivs)
    world.info_cache.infos[loc, "C.a"] = Info()
    assert build(coordinator, loc) is None
    assert told("AddPairsToPrimaryQueue", "CreateClassInstInfo", "AddScopeInfo") == [
        ("AddPairsToPrimaryQueue", [(loc, "C.b"), (loc, "C.c")], True, None)
    ]
    forget()


def test_cache_without_class_and_parent_queues_the_parent_alone(world, loc):
    coordinator = world.make(watched(AddPairsToPrimaryQueue=None))
    assert build(coordinator, loc, symbolinfo.GetInstanceNameForClass("A.C")) is None
    assert told() == [
        ("GetScopeInfo", loc, "A.C"),
        ("GetScopeInfo", loc, "A"),
        ("AddPairsToPrimaryQueue", [(loc, "A")], True, None),
    ]


def test_cache_with_a_parent_that_has_the_class_queues_the_class(world, loc):
    coordinator = world.make(watched(AddPairsToPrimaryQueue=None))
    world.info_cache.infos[loc, "A"] = Info({"C": b"plain;" + definition("kClassPrefix", "A.C")})
    assert build(coordinator, loc, symbolinfo.GetInstanceNameForClass("A.C")) is None
    assert told("AddPairsToPrimaryQueue", "AddScopeInfo") == [
        ("AddPairsToPrimaryQueue", [(loc, "A.C")], True, None)
    ]
    forget()


@pytest.mark.parametrize("equivs", [{}, {"C": b"plain"}, {"C": b""}, {"c": b"x"}])
def test_cache_that_knows_of_no_class_stores_two_records(world, coordinator, loc, equivs):
    world.info_cache.infos[loc, ""] = Info(equivs, disk_mtime=17.5)
    result = build(coordinator, loc)
    class_record, instance_record = world.info_cache.added_infos
    assert result is instance_record
    for record, scope in ((class_record, "C"), (instance_record, kInstance)):
        assert type(record) is CScopeInfo
        assert record.key == CScopeInfoKey(loc, scope, kPrimary, loc, scope)
        assert record.data == b""
        assert record.disk_mtime == 17.5
        assert record.incomplete is False
        assert record.does_not_exist is True
    assert pending(coordinator) == {}
    forget()


def test_cache_records_are_made_with_these_arguments(world, coordinator, loc, monkeypatch):
    from pysource import scopeinfo

    made = []

    def make(*args, **kwargs):
        made.append((args, kwargs))
        return len(made)

    monkeypatch.setattr(scopeinfo, "CScopeInfo", make)
    monkeypatch.setattr(scopeinfo, "CScopeInfoKey", lambda *args: args)
    world.info_cache.infos[loc, ""] = Info({}, disk_mtime=4.0)
    assert build(coordinator, loc) == 2
    assert made == [
        (((loc, scope, kPrimary, loc, scope), b"", 4.0, False), {"does_not_exist": True})
        for scope in ("C", kInstance)
    ]
    assert world.info_cache.added_infos == [1, 2]
    forget()


def test_cache_stores_the_class_before_the_instance_is_made(world, coordinator, loc, monkeypatch):
    failure = RuntimeError("name")

    def fail(_name):
        raise failure

    world.info_cache.infos[loc, ""] = Info({})
    monkeypatch.setattr(symbolinfo, "GetInstanceNameForClass", fail)
    with pytest.raises(RuntimeError) as info:
        build(coordinator, loc)
    assert info.value is failure
    assert [record.key.scope_name for record in world.info_cache.added_infos] == ["C"]
    forget()


def test_cache_looks_for_the_leaf_without_its_suffixes(world, loc, monkeypatch):
    coordinator = world.make(watched(AddPairsToPrimaryQueue=None))
    monkeypatch.setattr(symbolinfo, "ParentAndLeafScopeNames", lambda _name: ("P", "C!suffix"))
    monkeypatch.setattr(
        symbolinfo, "SplitScopeNameFromSuffixes", lambda leaf: (leaf.split("!")[0], "more", "more")
    )
    world.info_cache.infos[loc, "P"] = Info({"C": definition("kClassPrefix", "P.C")})
    assert build(coordinator, loc) is None
    assert told("AddPairsToPrimaryQueue") == [("AddPairsToPrimaryQueue", [(loc, "C")], True, None)]
    forget()


def test_cache_end_time_is_not_used(world, coordinator, loc):
    world.info_cache.infos[loc, "C"] = Info()
    assert coordinator.BuildInstanceScopeNoScanning(loc, kInstance, -1.0) is not None
    assert told("NewContext", "OutOfTime") == []
    forget()


def test_cache_that_fails_passes(world, coordinator, loc):
    failure = RuntimeError("cache")

    def fail(*_args):
        raise failure

    world.info_cache.GetScopeInfo = fail
    with pytest.raises(RuntimeError) as info:
        build(coordinator, loc)
    assert info.value is failure
    forget()


def test_an_instance_scope_in_the_idle_loop(world, coordinator, loc):
    info = world.info_cache.infos[loc, "C"] = Info()
    world.queue(coordinator, loc, kInstance)
    coordinator._CB_DoIdleAnalysis()
    assert world.info_cache.added_infos == [(info, (), kPrimary)]
    assert pending(coordinator) == {}
    forget()
