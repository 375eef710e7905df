"""When garbage is collected in a process that is the host's own."""

import gc
import weakref

import pytest

from loom.app import App
from loom.scansession import ScanSession


@pytest.fixture
def app(main_loop, tmp_path):
    app = App(tmp_path / "info.sqlite3", main_loop)
    app.coordinator._fAnalyzeFoundImports = False
    yield app
    app.destroy()
    gc.enable()
    gc.unfreeze()


class Node:
    """Garbage for the collector: it holds itself."""

    def __init__(self):
        self.me = self


def test_garbage_of_slices_is_collected_in_idle_calls_of_their_own(app, main_loop, monkeypatch):
    from loom import app as app_module

    collections = []
    collect = gc.collect
    app.collect_between_slices()
    assert not gc.isenabled()
    monkeypatch.setattr(gc, "collect", lambda *args: (collections.append(args), collect(*args)))
    monkeypatch.setattr(app_module, "_kYoungPerFull", 3)
    session = ScanSession(app, [], endless=True)
    for _ in range(4):
        gone = weakref.ref(Node())
        kept = [[] for _ in range(30_000)]
        app.coordinator._CB_DoIdleAnalysis()
        assert gone() is not None
        main_loop.run_idle()
        assert gone() is None
        del kept
    assert collections == [(1,), (1,), (2,), (1,)]
    session.destroy()


def test_little_garbage_is_left_for_later(app, main_loop, monkeypatch):
    app.collect_between_slices()
    collections = []
    monkeypatch.setattr(gc, "collect", lambda *args: collections.append(args))
    for _ in range(3):
        app.coordinator._CB_DoIdleAnalysis()
        main_loop.run_idle()
    assert collections == []
    app.coordinator._CB_DoIdleAnalysis()  # but not for ever
    main_loop.run_idle()
    assert collections == [(1,)]
