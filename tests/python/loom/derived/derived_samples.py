"""A tree of files with a host that scans it, and sources that several tests use."""

import os
import sqlite3
from collections.abc import Mapping
from pathlib import Path
from typing import Any

from loombase.location import CLocalFileLocation
from singleton import GetSingletons

from loom.app import App
from loom.derive.facts import Facts, unpack
from loom.mainloop.stepped import SteppedMainLoop
from loom.scansession import ScanSession
from pysource import scopescanner

# A time that is old enough to be trusted.
kOldTime = 1_700_000_000

kPackage = {
    "pkg/__init__.py": "from .a import A as B, f\nfrom .b import *\n",
    "pkg/a.py": """\
class Base:
    def m(self): return 1
class A(Base):
    x = 1
    def __init__(self): self.y = Base()
def f(): return A()
def unused(): pass
""",
    "pkg/b.py": "from .a import *\ng = f\nh: A = None\n_hidden = 1\n",
    "main.py": """\
import pkg
from pkg import B, g
from pkg.b import *
class C(B): pass
v = C().m()
print(h, pkg.f(), A)
""",
    "alone.py": "import pkg_that_is_not\nx = 1\n",
}


class Tree:
    """Files below a folder, scanned by sessions of one host."""

    def __init__(self, folder: Path, main_loop: SteppedMainLoop, clock: Any) -> None:
        self.top = folder / "tree"
        self.top.mkdir()
        self.db_path = folder / "info.sqlite3"
        self.main_loop = main_loop
        self.clock = clock
        self._time = kOldTime
        self.app: App | None = None
        self.open()

    def open(self) -> App:
        """A new host over the same database."""
        self.close()
        self.app = App(self.db_path, self.main_loop)
        self.app.coordinator._fAnalyzeFoundImports = False
        return self.app

    def close(self) -> None:
        if self.app is not None:
            self.app.destroy()
            self.app = None

    @property
    def cache(self) -> Any:
        assert self.app is not None
        return self.app.info_cache

    def path(self, name: str) -> Path:
        return self.top / name

    def loc(self, name: str) -> CLocalFileLocation:
        return CLocalFileLocation(self.path(name))

    def write(self, files: Mapping[str, str]) -> None:
        """Write files with a time that is new and old enough to be trusted."""
        for name, text in files.items():
            path = self.path(name)
            path.parent.mkdir(parents=True, exist_ok=True)
            path.write_text(text)
            self._time += 1
            os.utime(path, (self._time, self._time))

    def scan(self, *names: str, derived: bool = True) -> ScanSession:
        """Run a session over the tree, or over a part of it, to its end."""
        assert self.app is not None
        self.clock.now += 60.0  # what has just been scanned isn't scanned again for some seconds
        self.app.ana_mgr.fAnalysisFactory.Recheck()
        paths = [str(self.path(name)) for name in names] or [str(self.top)]
        session = ScanSession(self.app, paths, derived=derived)
        session.start()
        self.main_loop.run_idle()
        assert session.failure is None
        session.destroy()
        return session

    def scans(self, name: str) -> list[str]:
        """The names of the valid scans of a file, as a whole-file check sees them."""
        loc = self.loc(name)
        modtime = self.cache.GetDiskMTime(loc)
        return self.cache.GetScansDoneForMultipleFiles({loc: modtime}).get(loc, "").split()

    def facts(self, name: str) -> Facts:
        """The stored facts of a file."""
        self.cache.WriteEverything()
        ((packed,),) = self.rows(
            "SELECT facts FROM derived JOIN files ON id = file_id WHERE url = ?",
            self.loc(name).fUrl,
        )
        return unpack(packed)

    def imports(self, name: str) -> dict[str, tuple[str, ...]]:
        """Where the names come from that a module imports, star imports included."""
        return {n: found for (_, n), found in self.facts(name).imports.items() if " " not in n}

    def rows(self, query: str, *arguments: Any) -> list[tuple[Any, ...]]:
        connection = sqlite3.connect(self.db_path)
        try:
            return connection.execute(query, arguments).fetchall()
        finally:
            connection.close()


class Watched:
    """Notes which files are scanned, and how, in order."""

    def __init__(self, monkeypatch: Any, tree: Tree) -> None:
        self.scans: list[tuple[str, str]] = []
        self._tree = tree
        for kind in ("Primary", "Secondary"):
            name = f"CWholeFile{kind}Scanner"
            monkeypatch.setattr(scopescanner, name, self._noting(getattr(scopescanner, name)))

    def _noting(self, base: Any) -> Any:
        watched = self

        class Noting(base):  # type: ignore[misc]
            def __init__(self, loc: CLocalFileLocation, scan_name: str, *args: Any, **kw: Any):
                watched.scans.append((os.path.relpath(loc.path, watched._tree.top), scan_name))
                super().__init__(loc, scan_name, *args, **kw)

        return Noting

    def take(self, scan_name: str) -> list[str]:
        """The files that had such a scan since the last call, sorted."""
        found = sorted(path for path, name in self.scans if name == scan_name)
        self.scans = [entry for entry in self.scans if entry[1] != scan_name]
        return found


def manager() -> Any:
    return GetSingletons().fAnalysisMgr
