"""The scheduler in a program of its own, on asyncio.

    python examples/asyncio_host FOLDER

Scans the Python files of a folder with a scanner made of `ast`, while a task of the program goes on
ticking, and prints what they define. docs/embedding.md walks through it.
"""

import ast
import asyncio
import os
import sys
import time
from pathlib import Path
from types import SimpleNamespace

from host import CDestroyable, Location, MainLoop, emitter, supply


class InfoCache(CDestroyable):
    """The results, in memory: the time of each file and what it defines."""

    def __init__(self):
        super().__init__(["needs-scan-added"])
        self.results = {}
        self.fLocCache = SimpleNamespace(WantDerivedInfo=lambda loc: False)

    def GetDiskMTime(self, loc):
        return os.path.getmtime(loc.path) if os.path.exists(loc.path) else 0.0

    def GetScansDoneForMultipleFiles(self, times):
        return {loc: " primary " for loc, t in times.items() if self.results.get(loc, [0])[0] == t}

    def GetAllImports(self, locs):
        return []

    def Trim(self):
        pass

    def FinishedWithScans(self, loc, scope_name, scan_name):
        pass

    def WriteToDatabase(self):
        pass


info_cache = InfoCache()
kFinished, kAbandoned = object(), object()


class WholeFileScanner(CDestroyable):
    """The program's own scanner. A better one stops at `end_time` and goes on in the next slice."""

    def __init__(self, loc, scan_name, incomplete_scope_set, log):
        super().__init__(["scan-state-changed"])
        self.loc = loc

    def Scan(self, end_time):
        try:
            tree = ast.parse(Path(self.loc.path).read_bytes())
        except (OSError, SyntaxError, ValueError):
            return kAbandoned
        definitions = (ast.ClassDef, ast.FunctionDef, ast.AsyncFunctionDef)
        found = [node.name for node in ast.walk(tree) if isinstance(node, definitions)]
        info_cache.results[self.loc] = info_cache.GetDiskMTime(self.loc), found
        return kFinished


def make_manager():
    factory = emitter("import-resolution-changed")()
    factory._fModFileCache = emitter("suspend", "unsuspend")()
    factory.GetSecondaryLocations = lambda loc: None
    factory.FindBuiltinMod = lambda: None
    return SimpleNamespace(
        fInfoCache=info_cache,
        fInferenceEngine=None,
        fLocationDataCache=emitter("now-tree-branch-ready", "inspect-failed", "cleared")(),
        fAnalysisFactory=factory,
        fPyConfig=SimpleNamespace(python_path_locs=[Location(os.path.dirname(os.__file__))]),
        fPrimaryScanName="primary",
        fDerivedScanName="derived",
        fHelperProcessProxy=None,
        _fHelperProcessSupport=None,
    )


def make_table(manager):
    table = emitter("changed")()
    table.fAnalysisMgr, table.fPrefMgr, table.fGuiMgr = manager, None, None
    table.fSavableMgr = emitter("external-files-changed")()
    table.fFileAttribMgr = None
    table.fCacheMgr = SimpleNamespace(
        GetAnalysis=lambda loc, create: None, DoesCacheBufferExist=lambda loc, any_kind: None
    )
    return table


def main(folder):
    loop, manager = MainLoop(), make_manager()
    own_modules = {
        "pysource.scopescanner": {
            "CWholeFilePrimaryScanner": WholeFileScanner,
            "kReadyToScan": object(),
            "kWaitingForData": object(),
            "kTimedOut": object(),
            "kFinishedScanning": kFinished,
            "kScanAbandoned": kAbandoned,
        },
        "pysource.scopeinfo": {"CInfoCache": InfoCache},
    }
    supply(loop, make_table(manager), own_modules)
    from pysource.scancoordinator import CScanCoordinator

    coordinator = CScanCoordinator(300, manager)
    coordinator._fScanQueue.SetScansToOrder({"primary": 0, "derived": 1})
    coordinator.connect("end", loop.asyncio_loop.stop)
    ticks = []

    async def tick():
        while True:
            ticks.append(time.monotonic())
            await asyncio.sleep(0.01)

    ticking = loop.asyncio_loop.create_task(tick())
    files = [Location(str(path)) for path in sorted(Path(folder).resolve().rglob("*.py"))]
    coordinator.AddPairsToPrimaryQueue([(loc, "*") for loc in files])
    loop.asyncio_loop.run_forever()
    ticking.cancel()
    coordinator.destroy()

    for loc, (_, names) in info_cache.results.items():
        print(f"{loc.path}: {', '.join(names)}")
    gaps = [later - earlier for earlier, later in zip(ticks, ticks[1:])]
    print(f"{len(info_cache.results)} of {len(files)} files were scanned while the program ticked")
    print(f"{len(ticks)} times, at most {max(gaps, default=0) * 1000:.0f} ms apart")


if __name__ == "__main__":
    main(sys.argv[1])
