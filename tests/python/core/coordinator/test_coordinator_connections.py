"""The ten connections of the constructor, and what their callbacks do."""

import pytest
import singleton
from cache.textcache import CTextCache
from guiutils import lgtk
from loombase.containers import CContainerInspectorManager
from loombase.destroyable import CDestroyable
from loombase.remoteclient import CRemoteServerManager
from operations import private, watched
from pysource.analysis import CPySourceAnalysis
from pysource.scancoordinator import CScanCoordinator
from world import forget, kPrimary, pass_time, pending, told

import hostlog

kConnects = ("connect", "connect_while_alive", "class_connect_while_alive")


def connections(ana_mgr):
    """A new coordinator, and the connections that were made for it, each without its callback."""
    hostlog.calls.clear()
    coordinator = CScanCoordinator(1, ana_mgr)
    made = [(name, *args[:2], *args[3:]) for name, *args in told(*kConnects)]
    forget()
    return coordinator, made


def scanned(world, coordinator, *locs):
    """Record a finished scan and a whole-file check for each location."""
    for loc in locs:
        world.info_cache.disk_mtimes[loc] = 5.0
        world.loc_cache.derived_wanted[loc] = False
        world.queue(coordinator, loc, check=True)
    private(coordinator, "__DoScans")(3e6)
    assert set(coordinator._fLastScanCompleted) == set(locs)
    assert coordinator._fMTimeAtLastWholeFileCheck == dict.fromkeys(locs, 5.0)
    forget()


def test_all_connections_in_order_with_kinds_and_owners(world):
    coordinator, made = connections(world.ana_mgr)
    queue = coordinator._fScanQueue
    assert made == [
        ("connect_while_alive", world.loc_data_cache, "now-tree-branch-ready", queue),
        ("connect_while_alive", world.loc_data_cache, "inspect-failed", queue),
        ("connect_while_alive", world.loc_data_cache, "cleared", queue),
        ("connect_while_alive", world.singletons, "changed", queue),
        ("connect_while_alive", queue, "locations-added", coordinator),
        ("connect_while_alive", world.mod_file_cache, "suspend", coordinator),
        ("connect_while_alive", world.mod_file_cache, "unsuspend", coordinator),
        ("class_connect_while_alive", CPySourceAnalysis, "modified", coordinator),
        ("connect", world.savable_mgr, "external-files-changed"),
        ("class_connect_while_alive", CTextCache, "text-modified", coordinator),
        (
            "class_connect_while_alive",
            CPySourceAnalysis,
            "active-edit-lineno-changed",
            coordinator,
        ),
        ("class_connect_while_alive", CRemoteServerManager, "server-stopped", coordinator),
        ("class_connect_while_alive", CContainerInspectorManager, "server-stopped", coordinator),
        ("connect", world.info_cache, "needs-scan-added"),
        ("connect", world.factory, "import-resolution-changed"),
    ]


def test_wrappers_are_made_anew_for_each_connection(world, monkeypatch):
    wrapped = []

    class Wrapper:
        def __init__(self, callback):
            wrapped.append((self, callback))

        def __call__(self, *args):
            raise NotImplementedError

    monkeypatch.setattr(lgtk, "NoArgCallback", Wrapper)
    hostlog.calls.clear()
    CScanCoordinator(1, world.ana_mgr)
    connected = [call[3] for call in told(*kConnects) if isinstance(call[3], Wrapper)]
    # The queue's own, two of the module file cache, two of the servers, and the import resolution.
    assert connected == [wrapper for wrapper, _ in wrapped]
    assert len(wrapped) == 6
    assert wrapped[3][0] is not wrapped[4][0]
    assert wrapped[3][1] is wrapped[4][1]
    forget()


def test_sources_are_those_of_the_singletons_and_the_manager_now(world):
    other = type(world.savable_mgr)()
    world.singletons.fSavableMgr = other
    _, made = connections(world.ana_mgr)
    assert ("connect", other, "external-files-changed") in made


def test_classes_are_looked_up_at_construction(world, monkeypatch):
    from cache import textcache
    from pysource import analysis

    class CMyTextCache(CTextCache):
        pass

    class CMyAnalysis(CPySourceAnalysis):
        pass

    monkeypatch.setattr(textcache, "CTextCache", CMyTextCache)
    monkeypatch.setattr(analysis, "CPySourceAnalysis", CMyAnalysis)
    coordinator, made = connections(world.ana_mgr)
    assert ("class_connect_while_alive", CMyTextCache, "text-modified", coordinator) in made
    assert ("class_connect_while_alive", CMyAnalysis, "modified", coordinator) in made


# 1 and 2: the module file cache suspends and unsuspends.


@pytest.mark.parametrize("args", [(), (1,), (1, 2, 3)])
def test_suspend_and_unsuspend_set_and_clear_the_flag(world, coordinator, args):
    world.mod_file_cache.emit("suspend", *args)
    assert coordinator.fWaitingForRemote is True
    world.mod_file_cache.emit("suspend", *args)
    assert coordinator.fWaitingForRemote is True
    world.mod_file_cache.emit("unsuspend", *args)
    assert coordinator.fWaitingForRemote is False
    forget()


def test_suspend_and_unsuspend_schedule_nothing(world, coordinator):
    world.queue(coordinator, world.loc("/p/a.py"))
    world.mod_file_cache.emit("suspend")
    world.mod_file_cache.emit("unsuspend")
    assert [call[0] for call in told()] == ["emit", "emit"]


# 3: an analysis is modified.


def test_modified_analysis_drops_both_records(world, coordinator):
    a, b = world.locs(2)
    scanned(world, coordinator, a, b)
    analysis = CPySourceAnalysis(a)
    analysis.emit("modified", analysis)
    assert set(coordinator._fLastScanCompleted) == {b}
    assert coordinator._fMTimeAtLastWholeFileCheck == {b: 5.0}
    forget()


def test_modified_analysis_without_records_is_no_failure(world, coordinator):
    a, b = world.locs(2)
    scanned(world, coordinator, a)
    analysis = CPySourceAnalysis(b)
    analysis.emit("modified", analysis)
    assert set(coordinator._fLastScanCompleted) == {a}
    forget()


def test_modified_analysis_without_location_fails(world, coordinator):
    analysis = CPySourceAnalysis(None)
    del analysis.fLocation
    with pytest.raises(AttributeError) as info:
        analysis.emit("modified", analysis)
    assert (info.value.name, info.value.obj) == ("fLocation", analysis)
    forget()


# 4: files change outside.


def test_external_change_drops_exactly_the_records_that_stand(world, coordinator):
    a, b, c = world.locs(3)
    scanned(world, coordinator, a, b)
    changed = {a: "x", c: "y"}
    world.savable_mgr.emit("external-files-changed", world.savable_mgr, changed)
    assert set(coordinator._fLastScanCompleted) == {b}
    assert coordinator._fMTimeAtLastWholeFileCheck == {a: 5.0, b: 5.0}
    assert changed == {a: "x", c: "y"}
    forget()


def test_external_change_of_nothing(world, coordinator):
    (a,) = world.locs(1)
    scanned(world, coordinator, a)
    world.savable_mgr.emit("external-files-changed", world.savable_mgr, {})
    assert set(coordinator._fLastScanCompleted) == {a}
    forget()


def test_external_change_wants_both_arguments(world, coordinator):
    with pytest.raises(TypeError):
        world.savable_mgr.emit("external-files-changed", world.savable_mgr)
    with pytest.raises(TypeError):
        world.savable_mgr.emit("external-files-changed", world.savable_mgr, {}, {})
    forget()


def test_external_change_with_something_that_isnt_iterable_fails(world, coordinator):
    (a,) = world.locs(1)
    scanned(world, coordinator, a)
    with pytest.raises(TypeError):
        world.savable_mgr.emit("external-files-changed", world.savable_mgr, 3)
    assert set(coordinator._fLastScanCompleted) == {a}
    forget()


# 5: a text buffer is edited.


@pytest.mark.parametrize("more", [(), (1,), (1, "two", None, 4)])
def test_buffer_change_drops_the_last_scan_alone(world, coordinator, more):
    a, b = world.locs(2)
    scanned(world, coordinator, a, b)
    text_cache = CTextCache(a)
    text_cache.emit("text-modified", text_cache, *more)
    assert set(coordinator._fLastScanCompleted) == {b}
    assert coordinator._fMTimeAtLastWholeFileCheck == {a: 5.0, b: 5.0}
    forget()


def test_buffer_change_without_record_is_no_failure(world, coordinator):
    text_cache = CTextCache(world.loc("/p/a.py"))
    text_cache.emit("text-modified", text_cache)
    forget()


def test_buffer_change_lets_the_next_scan_run_at_once(world, coordinator):
    (a,) = world.locs(1)
    scanned(world, coordinator, a)
    pass_time(1.0)
    text_cache = CTextCache(a)
    text_cache.emit("text-modified", text_cache)
    world.queue(coordinator, a)
    private(coordinator, "__DoScans")(3e6)
    assert coordinator._fScanTripleCompletedCount[a, "*", kPrimary] == 2
    forget()


# 6: the caret moves; 9: the info cache wants scans.


def test_caret_signal_of_any_analysis_reaches_the_operation(world):
    world.make(watched(_CB_ActiveEditLinenoChanged=None))
    analysis = CPySourceAnalysis(world.loc("/p/a.py"))
    analysis.emit("active-edit-lineno-changed", analysis, -1)
    assert told("_CB_ActiveEditLinenoChanged") == [("_CB_ActiveEditLinenoChanged", analysis, -1)]
    forget()


def test_needs_scan_signal_reaches_the_operation(world):
    world.make(watched(_CB_NeedsScanAdded=None))
    world.info_cache.emit("needs-scan-added", world.info_cache, ["x"], None)
    assert told("_CB_NeedsScanAdded") == [("_CB_NeedsScanAdded", world.info_cache, ["x"], None)]
    forget()


# 7 and 8: servers stop.


@pytest.mark.parametrize("manager_class", [CRemoteServerManager, CContainerInspectorManager])
def test_a_stopped_server_clears_the_empty_set(world, coordinator, manager_class):
    manager = manager_class()
    manager.emit("server-stopped", manager, "name")
    assert coordinator._fRemoteLocationsReady == set()
    assert [call[0] for call in told()] == ["emit"]


# 10: the Python path may have changed.


def test_empty_path_ends_a_scheduled_run_and_keeps_the_queue(world, coordinator):
    item = world.queue(coordinator, world.loc("/p/a.py"))
    coordinator._ScheduleIdle()
    handle = coordinator._fIdleProcId
    forget()
    world.ana_mgr.fPyConfig.python_path_locs = []
    world.factory.emit("import-resolution-changed", "ignored", 2)
    assert told() == [
        ("emit", world.factory, "import-resolution-changed", "ignored", 2),
        ("idle_remove", handle),
        ("emit", coordinator, "end"),
    ]
    assert coordinator._fIdleProcId is None
    assert coordinator._fScanQueue.First() == item


def test_empty_path_clears_the_handle_before_the_end_is_told(world, coordinator):
    coordinator._ScheduleIdle()
    seen = []
    coordinator.connect("end", lambda: seen.append(coordinator._fIdleProcId))
    world.ana_mgr.fPyConfig.python_path_locs = []
    world.factory.emit("import-resolution-changed")
    assert seen == [None]
    forget()


def test_empty_path_with_nothing_scheduled_does_nothing(world, coordinator):
    world.ana_mgr.fPyConfig.python_path_locs = ()
    world.factory.emit("import-resolution-changed")
    assert [call[0] for call in told()] == ["emit"]


def test_a_path_with_an_empty_queue_schedules_nothing(world, coordinator):
    world.factory.emit("import-resolution-changed")
    assert [call[0] for call in told()] == ["emit"]
    assert coordinator._fIdleProcId is None


def test_a_path_with_a_full_queue_schedules(world):
    coordinator = world.make(watched(_ScheduleIdle=None))
    world.queue(coordinator, world.loc("/p/a.py"))
    world.factory.emit("import-resolution-changed")
    assert [call[0] for call in told()] == ["emit", "_ScheduleIdle"]


def test_a_path_with_only_waiting_scans_schedules(world, coordinator):
    world.queue(coordinator, world.remote("/p/a.py", ready=False))
    assert pending(coordinator) == {}
    world.factory.emit("import-resolution-changed")
    assert coordinator._fIdleProcId is not None
    forget()


def test_a_path_with_locations_only_in_the_helper_schedules_nothing(world, coordinator):
    world.ana_mgr.fHelperProcessProxy = world.proxy
    coordinator.AddPairsToPrimaryQueue([(world.loc("/p/a.py"), "*")])
    world.factory.emit("import-resolution-changed")
    assert coordinator._fIdleProcId is None
    forget()


def test_a_path_whose_size_fails_passes_the_failure(world, coordinator):
    failure = RuntimeError("no size")

    class Unsized:
        def __len__(self):
            raise failure

    world.ana_mgr.fPyConfig.python_path_locs = Unsized()
    with pytest.raises(RuntimeError) as info:
        world.factory.emit("import-resolution-changed")
    assert info.value is failure
    forget()


# What ends with the coordinator and what doesn't.


def test_while_alive_connections_end_with_destroy(world):
    coordinator = world.make(watched(_CB_ActiveEditLinenoChanged=None))
    (a,) = world.locs(1)
    scanned(world, coordinator, a)
    coordinator.destroy()
    world.mod_file_cache.emit("suspend")
    assert coordinator.fWaitingForRemote is False
    analysis = CPySourceAnalysis(a)
    analysis.emit("modified", analysis)
    analysis.emit("active-edit-lineno-changed", analysis, 3)
    text_cache = CTextCache(a)
    text_cache.emit("text-modified", text_cache)
    assert set(coordinator._fLastScanCompleted) == {a}
    assert told("_CB_ActiveEditLinenoChanged") == []
    forget()


def test_plain_connections_outlive_destroy(world):
    coordinator = world.make(watched(_CB_NeedsScanAdded=None, _ScheduleIdle=None))
    (a,) = world.locs(1)
    scanned(world, coordinator, a)
    coordinator.destroy()
    forget()
    world.savable_mgr.emit("external-files-changed", world.savable_mgr, {a: 1})
    assert coordinator._fLastScanCompleted == {}
    world.info_cache.emit("needs-scan-added", world.info_cache, [], None)
    assert len(told("_CB_NeedsScanAdded")) == 1
    world.queue(coordinator, world.loc("/p/late.py"))
    world.factory.emit("import-resolution-changed")
    assert len(told("_ScheduleIdle")) == 1
    for source, name in (
        (world.savable_mgr, "external-files-changed"),
        (world.info_cache, "needs-scan-added"),
        (world.factory, "import-resolution-changed"),
    ):
        assert source.connection_count(name) == 1
    forget()


def test_locations_added_reaches_the_operation(world):
    coordinator = world.make(watched(_CB_QueueLocationsAdded=None))
    queue = coordinator._fScanQueue
    loc = world.loc("/p/a.py")
    queue.emit("locations-added", queue, {loc})
    assert told("_CB_QueueLocationsAdded") == [("_CB_QueueLocationsAdded", queue, {loc})]
    coordinator.destroy()
    forget()
    queue.emit("locations-added", queue, {loc})
    assert told("_CB_QueueLocationsAdded") == []
    forget()


def test_singletons_that_change_reach_the_queue(world, coordinator):
    gui = CDestroyable(("active-document-changed",))
    singleton.GetSingletons().Set("fGuiMgr", gui)
    assert coordinator._fScanQueue._fGuiMgr is gui
    forget()
