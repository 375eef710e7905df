"""Helpers that are played in memory, an app in virtual time, and helpers that are real."""

import sys
from pathlib import Path

import pytest

from loom.bootstrap import ensure_host_path

ensure_host_path()
sys.path.insert(0, str(Path(__file__).parent))  # for the kits

from loom.app import App


@pytest.fixture
def db_path(tmp_path):
    return tmp_path / "info.sqlite3"


@pytest.fixture
def app(main_loop, db_path):
    """A host in virtual time, without imports: what is asked for is what is scanned."""
    app = App(db_path, main_loop)
    app.coordinator._fAnalyzeFoundImports = False
    yield app
    app.destroy()


@pytest.fixture
def tree(tmp_path):
    """Make files below a folder: names to texts. Returns the folder."""

    def make(files):
        top = tmp_path / "tree"
        for name, text in files.items():
            path = top / name
            path.parent.mkdir(parents=True, exist_ok=True)
            path.write_text(text)
        return top

    return make
