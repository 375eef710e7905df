"""The manager of documents, and what the scheduler makes of it."""

import pytest
from cache.textcache import CTextCache
from edit.editor import CSourceEditor
from loombase.destroyable import CDestroyable
from loombase.location import CLocalFileLocation
from singleton import GetSingletons

from loom.app import App
from loom.services.gui import CGuiMgr
from pysource.scancoordinator import kBackgroundPriority


@pytest.fixture
def gui():
    return CGuiMgr()


@pytest.fixture
def changes(gui):
    changes = []
    gui.connect("active-document-changed", changes.append)
    return changes


def editor(name):
    return CSourceEditor(CTextCache(CLocalFileLocation(f"/tree/{name}")))


def test_documents_are_told_by_their_locations(gui):
    seen, hidden, help_page = editor("a.py"), editor("b.py"), editor("help.py")
    gui.OpenDocument(seen)
    gui.OpenDocument(hidden, visible=False)
    gui.OpenDocument(help_page, is_help=True)
    gui.OpenDocument(CDestroyable())  # shows no file
    assert gui.GetDocuments() == [seen.fCache.fLocation]
    assert gui.GetDocuments(visible_only=False) == [
        seen.fCache.fLocation,
        hidden.fCache.fLocation,
    ]
    assert help_page.fCache.fLocation in gui.GetDocuments(include_help=True)


def test_two_editors_on_one_file_are_one_location(gui):
    gui.OpenDocument(editor("a.py"))
    gui.OpenDocument(editor("a.py"))
    assert len(gui.GetDocuments()) == 1


def test_the_active_document_is_open_and_visible(gui):
    document = editor("a.py")
    gui.OpenDocument(document, visible=False)
    gui.SetActiveDocument(document)
    assert gui.GetActiveDocument() is document
    assert gui.GetDocuments() == [document.fCache.fLocation]
    gui.CloseDocument(document)
    assert gui.GetActiveDocument() is None
    assert gui.GetDocuments(visible_only=False) == []


def test_a_change_is_told_once_and_no_change_is_not(gui, changes):
    document = editor("a.py")
    gui.SetActiveDocument(None)
    gui.CloseDocument(document)
    assert changes == []
    gui.OpenDocument(document)
    gui.OpenDocument(document)
    gui.SetActiveDocument(document)
    gui.SetActiveDocument(document)
    gui.OpenDocument(document, visible=False)
    gui.CloseDocument(document)
    assert changes == [gui] * 4


@pytest.fixture
def app(main_loop, tmp_path):
    app = App(tmp_path / "info.sqlite3", main_loop)
    yield app
    app.destroy()
    assert GetSingletons().fGuiMgr is None


def test_what_the_user_looks_at_is_scanned_next(app, tmp_path):
    locs = [CLocalFileLocation(tmp_path / f"{name}.py") for name in "abc"]
    app.coordinator.ask_for(locs, kBackgroundPriority)
    queue = app.coordinator._fScanQueue
    assert queue.First().loc is locs[0]
    GetSingletons().fGuiMgr.SetActiveDocument(CSourceEditor(CTextCache(locs[2])))
    assert queue.First().loc is locs[2]
    assert queue._fActiveDocLoc is locs[2]
    GetSingletons().fGuiMgr.SetActiveDocument(CDestroyable())  # no editor changes nothing
    assert queue._fActiveDocLoc is locs[2]
