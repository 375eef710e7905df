"""What the constructor takes, makes, and refuses."""

import importlib
import sys

import loombase
import pytest
import singleton
from pysource import _fastaccess, scopeinfo
from pysource.scancoordinator import CScanCoordinator, _CScanQueue
from world import forget, kIdlePriority, told

import hostlog


def test_construct_by_position_and_by_keyword(world):
    by_position = CScanCoordinator(7, world.ana_mgr)
    by_keyword = CScanCoordinator(ana_mgr=world.ana_mgr, idle_priority=8)
    assert (by_position.fIdlePriority, by_keyword.fIdlePriority) == (7, 8)
    assert by_position.fAnaMgr is by_keyword.fAnaMgr is world.ana_mgr
    forget()


@pytest.mark.parametrize("kwargs", [{}, {"idle_priority": 1}, {"ana_mgr": object()}, {"x": 1}])
def test_both_arguments_are_required(world, kwargs):
    with pytest.raises(TypeError):
        CScanCoordinator(**kwargs)


def test_a_third_argument_is_refused(world):
    with pytest.raises(TypeError):
        CScanCoordinator(1, world.ana_mgr, 3)
    forget()


@pytest.mark.parametrize("priority", [-(2**31), -1, 0, 2**31 - 1])
def test_idle_priority_takes_any_32_bit_integer(world, priority):
    assert CScanCoordinator(priority, world.ana_mgr).fIdlePriority == priority
    forget()


@pytest.mark.parametrize("priority", [2**31, -(2**31) - 1, 2**63, 2**200, -(2**200)])
def test_idle_priority_out_of_32_bits_fails(world, priority):
    with pytest.raises((OverflowError, ValueError)):
        CScanCoordinator(priority, world.ana_mgr)
    forget()


@pytest.mark.parametrize("priority", [None, "1", b"1", 1.5, [], object()])
def test_idle_priority_of_another_type_fails(world, priority):
    with pytest.raises(TypeError):
        CScanCoordinator(priority, world.ana_mgr)
    forget()


def test_base_is_initialised_first_with_the_signal_names_in_order(world, monkeypatch):
    from loombase.destroyable import CDestroyable

    base_init = CDestroyable.__init__

    def init(self, *args, **kwargs):
        hostlog.note("init", type(self), *args, **kwargs)
        base_init(self, *args, **kwargs)

    monkeypatch.setattr(CDestroyable, "__init__", init)
    CScanCoordinator(1, world.ana_mgr)
    calls = told()
    assert calls[0] == (
        "init",
        CScanCoordinator,
        ("scheduled", "end", "scan-status-update", "modtimes-updated"),
    )
    assert [call[1] for call in calls if call[0] == "init"] == [CScanCoordinator, _CScanQueue]


def test_collaborators_are_taken_in_order(world, monkeypatch):
    seen = []

    class Watched:
        def __init__(self, label, target, names):
            self.__dict__["_watch"] = (label, target, names)

        def __getattr__(self, name):
            label, target, names = self._watch
            if name in names:
                seen.append(f"{label}.{name}")
            return getattr(target, name)

    table = Watched("singletons", world.singletons, ("fPrefMgr", "fCacheMgr"))
    ana_mgr = Watched(
        "ana_mgr", world.ana_mgr, ("fInfoCache", "fInferenceEngine", "fLocationDataCache")
    )

    def get_singletons():
        seen.append("GetSingletons")
        return table

    monkeypatch.setattr(singleton, "GetSingletons", get_singletons)
    coordinator = CScanCoordinator(1, ana_mgr)
    assert seen == [
        "ana_mgr.fInfoCache",
        "ana_mgr.fInferenceEngine",
        "GetSingletons",
        "singletons.fPrefMgr",
        "GetSingletons",
        "singletons.fCacheMgr",
        "GetSingletons",
        "ana_mgr.fLocationDataCache",
        "GetSingletons",
    ]
    assert coordinator.fSingletons is table
    forget()


def test_collaborators_are_kept(world):
    coordinator = CScanCoordinator(1, world.ana_mgr)
    assert coordinator.fAnaMgr is world.ana_mgr
    assert coordinator._fInfoCache is world.info_cache
    assert coordinator._fInferenceEngine is world.engine
    assert coordinator.fPrefMgr is world.singletons.fPrefMgr
    assert coordinator.fCacheMgr is world.cache_mgr
    assert coordinator.fSingletons is world.singletons
    forget()


def test_the_queue_is_new_and_has_the_location_data_cache(world):
    one = CScanCoordinator(1, world.ana_mgr)
    two = CScanCoordinator(1, world.ana_mgr)
    assert type(one._fScanQueue) is _CScanQueue
    assert one._fScanQueue is not two._fScanQueue
    assert one._fScanQueue._fLocationDataCache is world.loc_data_cache
    forget()


def test_the_logger_is_new(world):
    one = CScanCoordinator(1, world.ana_mgr)
    two = CScanCoordinator(1, world.ana_mgr)
    assert type(one.fLog) is _fastaccess.CLogger
    assert one.fLog is not two.fLog
    assert one.fLog.fOutputFile is None
    forget()


def test_an_info_cache_of_another_class_is_a_type_error(world):
    world.ana_mgr.fInfoCache = object()
    with pytest.raises(TypeError):
        CScanCoordinator(1, world.ana_mgr)
    assert told() == []


def test_no_info_cache_is_a_type_error(world):
    world.ana_mgr.fInfoCache = None
    with pytest.raises(TypeError):
        CScanCoordinator(1, world.ana_mgr)
    assert told() == []


def test_an_info_cache_of_a_derived_class_is_taken(world):
    class CDerivedCache(scopeinfo.CInfoCache):
        pass

    world.ana_mgr.fInfoCache = CDerivedCache()
    assert CScanCoordinator(1, world.ana_mgr)._fInfoCache is world.ana_mgr.fInfoCache
    forget()


def test_the_class_of_the_info_cache_is_looked_up_at_each_construction(world, monkeypatch):
    monkeypatch.setattr(scopeinfo, "CInfoCache", type("CInfoCache", (), {}))
    with pytest.raises(TypeError):
        CScanCoordinator(1, world.ana_mgr)
    assert told() == []


@pytest.mark.parametrize(
    "name", ["fInfoCache", "fInferenceEngine", "fLocationDataCache", "fAnalysisFactory"]
)
def test_a_missing_attribute_of_the_manager_passes_to_the_caller(world, name):
    delattr(world.ana_mgr, name)
    with pytest.raises(AttributeError) as info:
        CScanCoordinator(1, world.ana_mgr)
    assert (info.value.name, info.value.obj) == (name, world.ana_mgr)
    forget()


@pytest.mark.parametrize("module", ["loombase.remoteclient", "loombase.containers"])
def test_a_failed_import_passes_to_the_caller_and_nothing_is_cleaned_up(world, monkeypatch, module):
    monkeypatch.setitem(sys.modules, module, None)
    with pytest.raises(ImportError) as info:
        CScanCoordinator(1, world.ana_mgr)
    assert info.value.name == module
    assert not {"destroy", "disconnect", "emit"} & set(hostlog.names())
    forget()


def test_the_two_server_modules_are_imported_by_the_constructor(world, monkeypatch):
    for name in ("remoteclient", "containers"):
        module = importlib.import_module(f"loombase.{name}")
        monkeypatch.delitem(sys.modules, module.__name__)
        monkeypatch.setattr(loombase, name, module)
    CScanCoordinator(1, world.ana_mgr)
    assert {"loombase.remoteclient", "loombase.containers"} <= set(sys.modules)
    forget()


def test_a_failing_property_of_the_manager_passes_unchanged(world):
    failure = RuntimeError("no engine")

    class Manager(type(world.ana_mgr)):
        @property
        def fInferenceEngine(self):
            raise failure

        @fInferenceEngine.setter
        def fInferenceEngine(self, value):
            pass

    with pytest.raises(RuntimeError) as info:
        CScanCoordinator(1, Manager(world.info_cache))
    assert info.value is failure
    assert info.traceback[-1].name == "fInferenceEngine"
    forget()


def test_a_failing_connection_passes_unchanged(world, monkeypatch):
    failure = RuntimeError("no signals")

    def connect(name, callback):
        raise failure

    monkeypatch.setattr(world.savable_mgr, "connect", connect, raising=False)
    with pytest.raises(RuntimeError) as info:
        CScanCoordinator(1, world.ana_mgr)
    assert info.value is failure
    forget()


def test_initialising_again_is_refused_and_changes_nothing(world):
    coordinator = world.make()
    queue = coordinator._fScanQueue
    item = world.queue(coordinator, world.loc("/p/a.py"))
    with pytest.raises(RuntimeError):
        coordinator.__init__(9, world.ana_mgr)
    assert coordinator.fIdlePriority == kIdlePriority
    assert coordinator._fScanQueue is queue
    assert queue.First() == item
    assert told() == []


def test_a_subclass_may_have_a_constructor_of_its_own(world):
    class CMine(CScanCoordinator):
        def __init__(self, ana_mgr):
            super().__init__(3, ana_mgr)
            self.mine = "mine"

    coordinator = CMine(world.ana_mgr)
    assert (coordinator.fIdlePriority, coordinator.mine) == (3, "mine")
    forget()
