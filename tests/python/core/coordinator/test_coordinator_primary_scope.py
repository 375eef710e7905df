"""The driver of a primary scan of one scope."""

import pytest
from operations import private, watched
from pysource import scopescanner, symbolinfo
from pysource.analysis import CPySourceAnalysis
from pysource.logicalline import kClassDef, kFunctionDef
from pysource.scancoordinator import CScanItem
from pysource.scopescanner import (
    kFinishedScanning,
    kReadyToScan,
    kScanAbandoned,
    kTimedOut,
    kWaitingForData,
)
from world import EqualTo, forget, kDerived, kPrimary, logged, pending, scripted, told

kEnd = 7.5
kAdds = {"AddPairsToPrimaryQueue": None, "AddPairsToSecondaryQueue": None}


class Info:
    """Scope information with equivalents."""

    def __init__(self, **type_equivs):
        self.type_equivs = type_equivs


class Def:
    """A definition of some kind."""

    def __init__(self, kind):
        self.fType = kind


def scan(coordinator, loc, scope="f", priority=2):
    """One slice."""
    item = CScanItem(loc, scope, kPrimary, priority)
    return private(coordinator, "__DoPrimarySingleScopeScan")(item, kEnd)


def scanners(coordinator):
    """The live scanners by (location, scope), as they are now."""
    return dict(private(coordinator, "__fActivePrimarySingleScopeScanners"))


def finds(state=kFinishedScanning, **fields):
    """A step of the script that sets fields of the scanner and returns the state."""

    def step(scanner, _end_time):
        vars(scanner).update(fields)
        return state

    scripted(step)


@pytest.fixture
def loc(world):
    return world.loc("/p/a.py")


@pytest.fixture
def coordinator(world):
    """A coordinator that only notes what is added."""
    return world.make(watched(**kAdds))


def test_a_whole_scan_in_order(world, coordinator, loc):
    prefix = symbolinfo.kImportPrefix.decode()
    analysis = world.cache_mgr.analyses[loc] = CPySourceAnalysis(loc)
    world.log_lines(coordinator)
    finds(
        fInfo=Info(x=prefix + "one"),
        fScopeDef=Def(kClassDef),
        save_result="changed",
    )
    assert scan(coordinator, loc, "C") is False
    (scanner,) = scopescanner.made
    scopes = coordinator._fIncompleteScansByLoc[loc]
    assert told() == [
        ("GetAnalysis", loc, False),
        ("UpdateFromCache", analysis),
        (
            "CSingleScopePrimaryScanner",
            loc,
            "C",
            {"incomplete_scope_set": scopes, "log": coordinator.fLog},
        ),
        logged(f"starting primary scope scan: scope='C', file={loc!r}"),
        ("Scan", scanner, kEnd),
        ("SaveToInfoCache", scanner, False),
        logged(f"finished primary scope scan: scope='C', file={loc!r}, changed=changed"),
        ("_FindPrimaryLocsForNames", {"one"}, loc.GetParentDir(), False),
        ("emit", coordinator, "modtimes-updated", {}),
        ("AddPairsToSecondaryQueue", [(loc, "C")], False, None),
        (
            "AddPairsToPrimaryQueue",
            [(loc, symbolinfo.GetInstanceNameForClass("C"))],
            True,
            None,
        ),
        ("destroy", scanner),
    ]
    assert scanner.kwargs["incomplete_scope_set"] is scopes
    assert scanners(coordinator) == {}


def test_an_instance_scope_is_built_and_never_scanned(world, loc):
    coordinator = world.make(watched(BuildInstanceScopeNoScanning="result"))
    instance = symbolinfo.GetInstanceNameForClass("C")
    world.log_lines(coordinator)
    assert scan(coordinator, loc, instance) is False
    assert told() == [("BuildInstanceScopeNoScanning", loc, instance, kEnd)]
    assert scanners(coordinator) == {}
    assert coordinator._fIncompleteScansByLoc == {}


def test_is_instance_scope_is_looked_up_at_each_use(world, loc, monkeypatch):
    coordinator = world.make(watched(BuildInstanceScopeNoScanning=None))
    monkeypatch.setattr(symbolinfo, "IsInstanceScope", lambda name: name == "odd")
    scan(coordinator, loc, "odd")
    assert told() == [("BuildInstanceScopeNoScanning", loc, "odd", kEnd)]


def test_a_file_with_no_analysis_is_not_updated_and_none_is_created(world, coordinator, loc):
    finds(kTimedOut)
    scan(coordinator, loc)
    assert told("GetAnalysis", "UpdateFromCache") == [("GetAnalysis", loc, False)]
    forget()


def test_an_overridden_get_analysis_is_used(world, loc):
    coordinator = world.make(watched(__GetAnalysis=None))
    finds(kTimedOut)
    scan(coordinator, loc)
    assert told("__GetAnalysis", "GetAnalysis") == [("__GetAnalysis", loc, False)]
    forget()


def test_the_analysis_is_updated_once_for_a_scan(world, coordinator, loc):
    world.cache_mgr.analyses[loc] = CPySourceAnalysis(loc)
    finds(kTimedOut)
    finds(kTimedOut)
    scan(coordinator, loc)
    scan(coordinator, loc)
    assert len(told("UpdateFromCache")) == 1
    assert len(scopescanner.made) == 1
    forget()


def test_scanners_are_kept_by_location_and_scope(world, coordinator, loc):
    for _ in range(3):
        finds(kTimedOut)
    scan(coordinator, loc, "f")
    scan(coordinator, loc, "g")
    scan(coordinator, loc, "f")
    f, g = scopescanner.made
    assert scanners(coordinator) == {(loc, "f"): f, (loc, "g"): g}
    assert f.kwargs["incomplete_scope_set"] is g.kwargs["incomplete_scope_set"]
    forget()


@pytest.mark.parametrize("state", [kTimedOut, kReadyToScan, None, 3])
def test_any_other_state_means_out_of_time(world, coordinator, loc, state):
    finds(state)
    assert scan(coordinator, loc) is True
    assert told("SaveToInfoCache", "destroy") == []
    assert set(scanners(coordinator)) == {(loc, "f")}
    forget()


def test_waiting_parks_the_item(world, coordinator, loc):
    item = world.queue(coordinator, loc, "f")
    scripted(kWaitingForData)
    assert private(coordinator, "__DoPrimarySingleScopeScan")(item, kEnd) is True
    assert coordinator._fScanQueue._fScanItemsWaitingForData == {item}
    assert told("SaveToInfoCache") == []
    assert set(scanners(coordinator)) == {(loc, "f")}
    forget()


@pytest.mark.parametrize("state", [kFinishedScanning, kScanAbandoned])
def test_the_ends_are_tested_by_equality(world, coordinator, loc, state):
    scripted(EqualTo(state))
    assert scan(coordinator, loc) is False
    assert len(told("SaveToInfoCache")) == 1
    forget()


def test_waiting_is_tested_by_identity(world, coordinator, loc):
    scripted(EqualTo(kWaitingForData))
    assert scan(coordinator, loc) is True
    assert told("connect_while_alive") == []
    forget()


@pytest.mark.parametrize(("changed", "text"), [(False, "False"), (None, "None"), (0, "0")])
def test_no_change_ends_the_scan_at_once(world, coordinator, loc, changed, text):
    world.log_lines(coordinator)
    prefix = symbolinfo.kImportPrefix.decode()
    finds(save_result=changed, fInfo=Info(x=prefix + "one"), fScopeDef=Def(kClassDef))
    assert scan(coordinator, loc) is False
    (scanner,) = scopescanner.made
    assert told()[-3:] == [
        ("SaveToInfoCache", scanner, False),
        logged(f"finished primary scope scan: scope='f', file={loc!r}, changed={text}"),
        ("destroy", scanner),
    ]
    assert scanners(coordinator) == {}


def test_an_abandoned_scan_with_a_change_is_treated_as_finished(world, coordinator, loc):
    prefix = symbolinfo.kImportPrefix.decode()
    finds(kScanAbandoned, fInfo=Info(x=prefix + "one"))
    assert scan(coordinator, loc) is False
    assert told("_FindPrimaryLocsForNames", "AddPairsToSecondaryQueue") == [
        ("_FindPrimaryLocsForNames", {"one"}, loc.GetParentDir(), False),
        ("AddPairsToSecondaryQueue", [(loc, "f")], False, None),
    ]
    forget()


def test_no_info_adds_no_imports_but_the_rest_follows(world, coordinator, loc):
    finds(fInfo=None, fScopeDef=Def(kClassDef))
    scan(coordinator, loc, "C")
    assert [call[0] for call in told()][-3:] == [
        "AddPairsToSecondaryQueue",
        "AddPairsToPrimaryQueue",
        "destroy",
    ]


def test_only_the_parts_that_are_imports_are_followed(world, coordinator, loc):
    imp = symbolinfo.kImportPrefix.decode()
    frm = symbolinfo.kFromImportPrefix.decode()
    cls = symbolinfo.kClassPrefix.decode()
    finds(
        fInfo=Info(
            a=f"plain;{imp}one;{cls}C",
            b=f"{frm}pack two;x",
            c="nothing",
            d=f"(x;{imp}inside);{imp}three",
        )
    )
    scan(coordinator, loc)
    ((_, names, _, _),) = told("_FindPrimaryLocsForNames")
    assert names == {"one", "pack.two", "pack", "three"}
    forget()


def test_equivalents_may_be_bytes(world, coordinator, loc):
    finds(fInfo=Info(a=symbolinfo.kImportPrefix + b"one;plain"))
    scan(coordinator, loc)
    assert told("_FindPrimaryLocsForNames")[0][1] == {"one"}
    forget()


def test_without_imports_the_directory_is_not_fetched(world, coordinator):
    class Loc(type(world.loc("/p/a.py"))):
        def GetParentDir(self):
            raise NotImplementedError

    finds(fInfo=Info(a="plain"))
    assert scan(coordinator, Loc("file:///p/a.py")) is False
    assert told("_FindPrimaryLocsForNames", "emit") == []
    forget()


def test_imports_are_queued_at_the_priority_of_the_item(world, coordinator, loc):
    imported = world.loc("/p/one.py")
    world.factory.found["one"] = imported
    finds(fInfo=Info(a=symbolinfo.kImportPrefix.decode() + "one"))
    scan(coordinator, loc, priority=1)
    assert told("AddPairsToPrimaryQueue") == [
        ("AddPairsToPrimaryQueue", [(imported, "*")], False, 1)
    ]
    forget()


def test_follow_ups_take_the_priority_of_the_running_item(world, loc):
    coordinator = world.make()
    world.loc_cache.builtin_loc = world.loc("/lib/builtins.pyi")
    finds(fScopeDef=Def(kClassDef))
    coordinator._DoSingleScan(CScanItem(loc, "C", kPrimary, 0), kEnd)
    assert pending(coordinator) == {
        (loc, "C", kDerived): 0,
        (loc, symbolinfo.GetInstanceNameForClass("C"), kPrimary): 0,
    }
    forget()


# Instance scopes that follow.


def instances():
    """The scopes that were added to the primary queue."""
    return [call[1] for call in told("AddPairsToPrimaryQueue")]


def test_a_class_queues_its_instance_scope(world, coordinator, loc):
    finds(fScopeDef=Def(kClassDef), fContainingClassDef=Def(kClassDef))
    scan(coordinator, loc, "A.B")
    assert instances() == [[(loc, symbolinfo.GetInstanceNameForClass("A.B"))]]
    forget()


def test_a_method_queues_the_instance_scope_of_its_class(world, coordinator, loc):
    finds(fScopeDef=Def(kFunctionDef), fContainingClassDef=Def(kClassDef))
    scan(coordinator, loc, "C.m")
    assert instances() == [[(loc, symbolinfo.GetInstanceNameForClass("C"))]]
    forget()


def test_a_function_queues_no_instance_scope(world, coordinator, loc):
    finds(fScopeDef=Def(kFunctionDef))
    scan(coordinator, loc, "f")
    assert instances() == []
    forget()


def test_no_definition_queues_no_instance_scope(world, coordinator, loc):
    finds(fScopeDef=None, fContainingClassDef=Def(kClassDef))
    scan(coordinator, loc, "C.m")
    assert instances() == []
    forget()


def test_a_false_definition_is_a_definition(world, coordinator, loc):
    class Falsy(Def):
        def __bool__(self):
            return False

    finds(fScopeDef=Falsy(kFunctionDef), fContainingClassDef=Falsy(kClassDef))
    scan(coordinator, loc, "C.m")
    assert instances() == [[(loc, symbolinfo.GetInstanceNameForClass("C"))]]
    forget()


def test_no_instance_name_queues_nothing(world, coordinator, loc, monkeypatch):
    monkeypatch.setattr(symbolinfo, "GetInstanceNameForClass", lambda _name: None)
    finds(fScopeDef=Def(kClassDef))
    scan(coordinator, loc, "C")
    assert instances() == []
    forget()


def test_name_functions_and_kinds_are_looked_up_at_each_use(world, coordinator, loc, monkeypatch):
    from pysource import logicalline

    monkeypatch.setattr(symbolinfo, "GetInstanceNameForClass", lambda name: f"inst of {name}")
    monkeypatch.setattr(symbolinfo, "ParentScopeName", lambda name: f"parent of {name}")
    monkeypatch.setattr(logicalline, "kClassDef", "klass")
    finds(fScopeDef=Def("klass"))
    scan(coordinator, loc, "C")
    finds(fScopeDef=Def(kClassDef), fContainingClassDef=Def("klass"))
    scan(coordinator, loc, "C.m")
    assert instances() == [[(loc, "inst of C")], [(loc, "inst of parent of C.m")]]
    forget()


# What stands and what is gone at each step.


def test_the_scanner_leaves_before_the_save_and_is_destroyed_last(world, coordinator, loc):
    seen = []

    def step(scanner, _end_time):
        def save(*_args):
            seen.append(("save", scanners(coordinator)))
            return True

        scanner.SaveToInfoCache = save
        scanner._destroy_impl = lambda: seen.append(
            ("destroy", len(told("AddPairsToSecondaryQueue")))
        )
        return kFinishedScanning

    scripted(step)
    scan(coordinator, loc)
    assert seen == [("save", {}), ("destroy", 1)]
    forget()


def test_a_failing_scan_leaves_the_scanner(world, coordinator, loc):
    failure = RuntimeError("scan")
    scripted(failure)
    with pytest.raises(RuntimeError) as info:
        scan(coordinator, loc)
    assert info.value is failure
    assert set(scanners(coordinator)) == {(loc, "f")}
    forget()


@pytest.mark.parametrize("name", ["SaveToInfoCache", "fInfo", "fScopeDef"])
def test_a_failure_after_the_scan_loses_the_scanner_undestroyed(world, coordinator, loc, name):
    failure = RuntimeError(name)

    def fail(*_args):
        raise failure

    class CFailing(scopescanner.CSingleScopePrimaryScanner):
        pass

    def step(scanner, _end_time):
        vars(scanner).pop(name, None)
        setattr(CFailing, name, fail if name == "SaveToInfoCache" else property(fail))
        scanner.__class__ = CFailing
        return kFinishedScanning

    scripted(step)
    with pytest.raises(RuntimeError) as info:
        scan(coordinator, loc)
    assert info.value is failure
    assert scanners(coordinator) == {}
    assert not scopescanner.made[0].destroyed
    forget()
    scripted(kTimedOut)
    scan(coordinator, loc)
    assert len(scopescanner.made) == 2
    forget()


def test_a_failing_update_of_the_analysis_passes(world, coordinator, loc):
    failure = RuntimeError("update")

    class CFailing(CPySourceAnalysis):
        def UpdateFromCache(self):
            raise failure

    world.cache_mgr.analyses[loc] = CFailing(loc)
    with pytest.raises(RuntimeError) as info:
        scan(coordinator, loc)
    assert info.value is failure
    assert scopescanner.made == []
    assert coordinator._fIncompleteScansByLoc == {}
    forget()
