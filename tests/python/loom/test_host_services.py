"""The service table, the managers, and how the host's modules are found."""

import importlib
import logging
import os
import subprocess
import sys

import pytest
from loombase.location import CLocalFileLocation
from loombase.mime import kAnalyzableMimeTypes
from loomutils import reflect
from pysource import utils
from singleton import GetSingletons

from loom.bootstrap import HOST_PATH
from loom.places import default_db_path

# --- how the modules are found


def in_new_process(code):
    return subprocess.run(
        [sys.executable, "-P", "-c", code], capture_output=True, text=True, check=False
    )


@pytest.mark.parametrize("before", ["", "import pysource; "])
def test_the_engine_finds_its_neighbours_before_and_after_pysource_was_imported(before):
    code = (
        before + "from loom.bootstrap import ensure_host_path as e; e(); e();"
        "import pysource.logicalline, pysource, sys;"
        "print(pysource.logicalline.kClassDef, sys.path.count(sys.path[0]), len(pysource.__path__))"
    )
    result = in_new_process(code)
    assert (result.stdout, result.stderr) == ("class 1 2\n", "")


def test_nothing_of_the_host_is_importable_before_it_is_started():
    names = "cache edit guiutils loombase loomutils singleton".split()
    code = f"import importlib.util as u, loom; print([n for n in {names} if u.find_spec(n)])"
    assert in_new_process(code).stdout == "[]\n"


def test_the_host_hides_no_module_of_the_standard_library():
    own = {name.removesuffix(".py") for name in os.listdir(HOST_PATH)} - {"__pycache__"}
    assert not own & sys.stdlib_module_names


# --- the service table


def test_singletons_are_the_same_object_each_time():
    assert GetSingletons() is GetSingletons()


def test_setting_a_singleton_emits_changed(monkeypatch):
    table, seen = GetSingletons(), []
    connect_id = table.connect("changed", lambda source: seen.append((source, source.fGuiMgr)))
    try:
        assert table.fGuiMgr is None
        table.fGuiMgr = "gui"
        table.fGuiMgr = None
    finally:
        table.disconnect(connect_id)
    assert seen == [(table, "gui"), (table, None)]


@pytest.mark.parametrize(
    "name", "fPrefMgr fCacheMgr fSavableMgr fAnalysisMgr fFileAttribMgr fGuiMgr".split()
)
def test_every_singleton_is_none_until_it_is_set(name):
    assert getattr(GetSingletons(), name) is None


# --- failures


def test_a_reported_failure_is_logged_with_its_traceback_and_told(caplog):
    seen = []
    reporter = reflect.GetFailureReporter()
    connect_id = reporter.connect("failure-reported", seen.append)
    failure = ValueError("broken")
    try:
        raise failure
    except ValueError:
        reflect.ReportCurrentException()
    finally:
        reporter.disconnect(connect_id)
    assert seen == [failure]
    [record] = caplog.records
    assert record.levelno == logging.ERROR
    assert record.exc_info[1] is failure
    assert "broken" in record.getMessage()


def test_a_listener_that_fails_does_not_add_to_the_trouble(caplog):
    reporter = reflect.GetFailureReporter()
    connect_id = reporter.connect("failure-reported", lambda failure: 1 / 0)
    try:
        raise ValueError("broken")
    except ValueError:
        reflect.ReportCurrentException()
    finally:
        reporter.disconnect(connect_id)
    assert len(caplog.records) == 2


def test_without_a_failure_there_is_nothing_to_report(caplog):
    reflect.ReportCurrentException()
    assert caplog.records == []


# --- managers; imported here, since they need the compiled modules


@pytest.fixture
def managers():
    return importlib.import_module("loom.services.managers")


@pytest.fixture
def attribs(managers):
    table = GetSingletons()
    table.fFileAttribMgr = managers.CFileAttribMgr()
    yield table.fFileAttribMgr
    table.fFileAttribMgr = None


@pytest.fixture
def script(tmp_path):
    path = tmp_path / "script"
    path.write_text("#!/usr/bin/env python3\n")
    return CLocalFileLocation(path)


def test_mime_types_are_filled_in_for_each_location(attribs, script, tmp_path):
    source, other = CLocalFileLocation("/x.py"), CLocalFileLocation(tmp_path / "x.c")
    mapping = dict.fromkeys([source, script, other])
    attribs.GetMultipleProbableMimeTypes(mapping)
    assert list(mapping) == [source, script, other]
    assert [mapping[loc] in kAnalyzableMimeTypes for loc in mapping] == [True, True, False]


def test_a_declared_type_settles_it(attribs, script, tmp_path):
    notes = CLocalFileLocation(tmp_path / "notes.txt")
    assert utils.IsPythonSource(script)
    assert not utils.IsPythonSource(notes)
    attribs.DeclareMimeType(notes, "text/x-python")
    attribs.DeclareMimeType(script, "text/plain")
    assert utils.IsPythonSource(notes)
    assert not utils.IsPythonSource(script)
    assert attribs.GetProbableMimeType(script) == "text/plain"


def test_python_source_without_any_manager(script, tmp_path):
    assert utils.IsPythonSource(script)
    assert utils.IsPythonSource(CLocalFileLocation("/missing.pyw"))
    assert not utils.IsPythonSource(CLocalFileLocation(tmp_path))
    assert not utils.IsPythonSource(CLocalFileLocation("/missing"))


def test_a_pipe_is_not_waited_for(tmp_path):
    os.mkfifo(tmp_path / "pipe")
    assert not utils.IsPythonSource(CLocalFileLocation(tmp_path / "pipe"))


def test_buffers_and_their_analyses(managers, attribs):
    cache_mgr = managers.CCacheMgr(attribs)
    loc, other = CLocalFileLocation("/a.py"), CLocalFileLocation("/notes.txt")
    assert cache_mgr.DoesCacheBufferExist(loc, True) is None
    assert cache_mgr.GetAnalysis(loc, True) is None
    buffer = cache_mgr.OpenBuffer(loc, "x = 1\n", 12.5)
    cache_mgr.OpenBuffer(other, "", 0.0)
    assert cache_mgr.DoesCacheBufferExist(loc, True) is buffer
    analysis = cache_mgr.GetAnalysis(loc, False)
    assert analysis.fLocation is loc
    assert cache_mgr.GetAnalysis(loc, True) is analysis
    assert cache_mgr.GetAnalysis(other, True) is None  # not Python
    with pytest.raises(ValueError, match="open already"):
        cache_mgr.OpenBuffer(loc, "", 0.0)
    cache_mgr.CloseBuffer(loc)
    cache_mgr.CloseBuffer(loc)
    assert cache_mgr.DoesCacheBufferExist(loc, True) is None
    assert cache_mgr.GetAnalysis(loc, True) is None


def test_a_buffer_tells_of_changes_and_knows_whether_it_is_saved(managers, attribs):
    seen = []
    buffer = managers.CCacheMgr(attribs).OpenBuffer(CLocalFileLocation("/a.txt"), "x", 12.5)
    buffer.connect("text-modified", lambda *args: seen.append(args))
    assert (buffer.IsModified(), buffer._GetLastKnownModTime()) == (False, 12.5)
    buffer.SetText("x")
    assert not buffer.IsModified()
    buffer.SetText("y")
    assert (buffer.IsModified(), buffer.GetText(), seen) == (
        True,
        "y",
        [(buffer, (1, 2, 2, 0))],
    )
    buffer.MarkSaved(20.0)
    assert (buffer.IsModified(), buffer._GetLastKnownModTime()) == (False, 20.0)


def test_external_changes_are_told_as_a_mapping(managers):
    savables, seen = managers.CSavableMgr(), []
    savables.connect("external-files-changed", lambda *args: seen.append(args))
    loc = CLocalFileLocation("/a.py")
    savables.FilesChanged([])
    savables.FilesChanged([loc])
    assert seen == [(savables, {loc: True})]


def test_preferences_have_defaults(managers):
    prefs = managers.CPrefMgr({"a": 1})
    prefs.SetValue("b", 2)
    assert [prefs.GetValue(name, 0) for name in "abc"] == [1, 2, 0]


def test_remote_managers_tell_when_a_server_stops():
    from loombase.containers import CContainerInspectorManager
    from loombase.destroyable import CDestroyable
    from loombase.remoteclient import CRemoteServerManager

    for cls in (CRemoteServerManager, CContainerInspectorManager):
        owner, seen, manager = CDestroyable(), [], cls()
        cls.class_connect_while_alive("server-stopped", seen.append, owner)
        manager.ServerStopped()
        owner.destroy()
        assert seen == [manager]


# --- places


def test_the_database_stands_in_the_users_cache_folder(monkeypatch, tmp_path):
    monkeypatch.setenv("XDG_CACHE_HOME", str(tmp_path))
    assert default_db_path() == tmp_path / "loom/info.sqlite3"
    monkeypatch.setenv("XDG_CACHE_HOME", "relative")  # doesn't count
    monkeypatch.setenv("HOME", "/home/me")
    assert str(default_db_path()) == "/home/me/.cache/loom/info.sqlite3"
    monkeypatch.delenv("XDG_CACHE_HOME")
    assert str(default_db_path()) == "/home/me/.cache/loom/info.sqlite3"
