"""A session that reaches every operation of the coordinator, as a list of steps.

Whoever runs it decides what happens at the calls that the host gets meanwhile: `watch_host` tells of
each of them before it is answered. No step makes a function: CPython 3.12 crashes if it finds no memory
for one.
"""

from collections.abc import Callable
from functools import partial
from typing import Any

import singleton
from cache.textcache import CTextCache
from collaborators import Buffer, BuiltinMod, HelperCallbackObj, HelperSupport
from edit.editor import CSourceEditor
from guiutils import lgtk
from loombase import location
from loombase.containers import CContainerInspectorManager
from loombase.location import CFileLocation
from loombase.remoteclient import CRemoteServerManager
from pysource import _fastaccess, scopeinfo, scopescanner, symbolinfo
from pysource.analysis import CPySourceAnalysis
from pysource.scancoordinator import CScanCoordinator
from pysource.scopescanner import (
    kFinishedScanning,
    kScanAbandoned,
    kTimedOut,
    kWaitingForData,
)
from queue_support import FakeGuiMgr
from world import kDerived, kIdlePriority, kPrimary, LogFile, World

import hostclock
import hostlog

kLate = 2e6
_kMostIdleSteps = 60


class _ScopeDef:
    fType = "class"


class Session:
    """One coordinator in a world where something is to be done everywhere."""

    def __init__(self, world: World, cls: type = CScanCoordinator) -> None:
        self.world = world
        self.cls = cls
        self.coordinator: Any = None
        self.a, self.b, self.c, self.d = (world.loc(f"/p/{name}.py") for name in "abcd")
        self.script = world.loc("/p/run.script")
        self.odd = world.loc("/p/odd.txt")
        self.remote = world.remote("/r/m.py")
        self.unready = world.remote("/r/n.py", ready=False)
        self.gui = FakeGuiMgr()
        self.buffer = CTextCache(self.c)
        self.ana = CPySourceAnalysis(self.c, {3: "f", 5: "C"})
        self.helper = HelperCallbackObj()
        self._fill_world()

    def _fill_world(self) -> None:
        world = self.world
        builtins, typing = world.loc("/lib/builtins.pyi"), world.loc("/lib/typing.pyi")
        cache = world.info_cache
        world.loc_cache.builtin_loc = builtins
        cache.disk_mtimes = dict.fromkeys(
            [self.a, self.b, self.c, self.d, self.script, self.remote, builtins, typing], 5.0
        )
        cache.scans_done = {self.b: f" {kPrimary} ", self.d: f" {kPrimary} {kDerived} "}
        cache.imports = {self.b: [b":id;:f.a x"], self.a: [b":fb *"]}
        world.factory.found = {"d": self.d, "b": self.b, "remote": self.remote}
        world.factory.secondary = {self.a: [world.loc("/p/a.pyi")]}
        world.factory.locs_by_name = {"builtins": [builtins], "sys": [world.loc("/lib/sys.pyi")]}
        world.factory.typing_locs = [typing]
        world.file_attrib_mgr.mime_types = {self.a: "text/x-python", self.odd: "text/plain"}
        world.cache_mgr.analyses = {self.c: self.ana}
        world.cache_mgr.buffers = {self.c: Buffer(True, 7.0), self.d: Buffer(False, 5.0)}
        method = b":mC.g 4"
        for scope, equivs in (("C", {"g": method}), ("C.g", {}), ("f", {}), ("E", {"g": method})):
            info = scopeinfo.CScopeInfo(None, disk_mtime=5.0, type_equivs=equivs)
            cache.infos[self.a, scope] = info
            world.engine.infos[self.a, scope] = info

    def steps(self) -> list[Callable[[], Any]]:
        """The session. Each step stands by itself: it can be run although one before it failed."""
        return [
            self.construct,
            self.make_ready,
            lambda: self.coordinator.AddPairsToPrimaryQueue([(self.a, "*"), (self.b, "*")]),
            self.idle,
            self.learn_builtins,
            lambda: self.coordinator.AddParseablesToQueue([self.a, self.odd, self.c]),
            lambda: self.scan(kTimedOut, kFinishedScanning, kScanAbandoned),
            lambda: self.world.singletons.Set("fGuiMgr", self.gui),
            self.show_document,
            lambda: self.coordinator.AddPairsToSecondaryQueue([(self.d, "*"), (self.a, "f")]),
            lambda: self.scan(kTimedOut),
            self.report_needs,
            self.idle,
            self.edit,
            lambda: self.coordinator.AddPairsToPrimaryQueue(
                [(self.a, "C"), (self.a, "C.g"), (self.a, "C()"), (self.script, "*")], False, 1
            ),
            lambda: self.scan(self.changed_class, kTimedOut, self.changed_class),
            self.scan_now,
            self.scan_one_now,
            self.instance_scopes,
            lambda: self.coordinator.AddPairsToPrimaryQueue([(self.b, "*"), (self.b, "g")]),
            lambda: self.scan(kWaitingForData, kWaitingForData),
            self.wake_scanners,
            self.add_remote,
            lambda: self.scan(kWaitingForData),
            self.remote_becomes_ready,
            lambda: location.finish_inspections(),
            self.idle,
            self.questions,
            self.start_helper,
            lambda: self.coordinator.AddPairsToPrimaryQueue([(self.a, "*"), (self.c, "*")], False),
            self.hear_of_helper,
            lambda: self.coordinator.FlushQueue(),
            self.idle,
            self.stop_helper,
            lambda: self.coordinator.RemoveLocationsFromQueue([self.a, self.c]),
            self.suspend,
            lambda: self.coordinator.ClearLastScanInfo([self.a]),
            lambda: lgtk.advance(2.0),
            self.idle,
            lambda: self.coordinator.AddPairsToPrimaryQueue([(self.a, "*")], True, 2),
            lambda: self.coordinator.FlushQueue(),
            self.idle,
            lambda: self.coordinator._CancelIdle(),
            lambda: self.coordinator.Quitting(),
            self.idle,
            lambda: self.coordinator.destroy(),
        ]

    # --- the longer steps

    def construct(self) -> None:
        self.coordinator = self.cls(kIdlePriority, self.world.ana_mgr)
        self.world.made.append(self.coordinator)

    def make_ready(self) -> None:
        """Orders, a log, and a Python path."""
        self.coordinator._fScanQueue.SetScansToOrder({kPrimary: 1, kDerived: 2})
        self.coordinator.fLog.fOutputFile = LogFile()
        self.world.ana_mgr.fPyConfig.python_path_locs = [self.world.loc("/lib")]
        self.world.factory.emit("import-resolution-changed")

    def learn_builtins(self) -> None:
        self.world.factory.builtin_mod = BuiltinMod()

    def idle(self) -> None:
        """Run what is idle, within reason: some scans are always taken up again later."""
        for _ in range(_kMostIdleSteps):
            if not lgtk.step():
                return
            hostclock.advance(0.2)

    def scan(self, *script: Any) -> None:
        """Run what is idle; the next scans do what is told."""
        hostclock.advance(6.0)  # what was scanned a moment ago wouldn't be scanned again
        scopescanner.script.extend(script)
        try:
            self.idle()
        finally:
            scopescanner.script.clear()

    def changed_class(self, scanner: Any, _end_time: float) -> Any:
        """A scan that finds a class with an import in it."""
        scanner.fInfo = scopeinfo.CScopeInfo(None, type_equivs={"x": b":ib;:=1", "y": b":fd z"})
        scanner.fScopeDef = _ScopeDef()
        return kFinishedScanning

    def show_document(self) -> None:
        self.gui.show(CSourceEditor(self.buffer), self.d, self.b)

    def report_needs(self) -> None:
        needs = {
            (self.a, "f", kPrimary),
            (self.a, "*", kDerived),
            (self.b, "C()", kPrimary),
            (self.c, "*", kPrimary),
        }
        self.world.info_cache.emit("needs-scan-added", self.world.info_cache, needs, None)
        scopescanner.script.append(self.report_needs_of_own)
        self.world.info_cache.emit("needs-scan-added", self.world.info_cache, needs, 1)

    def report_needs_of_own(self, _scanner: Any, _end_time: float) -> Any:
        """Asked for from inside of a scan, which may take some out."""
        needs = {(self.d, "f", kDerived), (self.d, "g", kPrimary)}
        self.world.info_cache.emit("needs-scan-added", self.world.info_cache, needs, None)
        return kTimedOut

    def edit(self) -> None:
        self.ana.emit("active-edit-lineno-changed", self.ana, 3)
        self.buffer.emit("text-modified", self.buffer, 1, 2)
        self.ana.emit("modified", self.ana)
        self.ana.emit("active-edit-lineno-changed", self.ana, 5)
        self.ana.emit("active-edit-lineno-changed", self.ana, -1)
        changed = {self.a: True, self.b: True}
        self.world.savable_mgr.emit("external-files-changed", self.world.savable_mgr, changed)

    def scan_now(self) -> None:
        """Three calls on one stack, and one that comes too late."""
        coordinator = self.coordinator
        deepest = partial(self.scan_more, "C", kFinishedScanning)
        nested = partial(self.scan_more, "g", deepest)
        scopescanner.script.extend([nested, kTimedOut, kFinishedScanning])
        try:
            needs = [(self.a, "f", kPrimary), (self.b, "h", kPrimary), (self.d, "k", kDerived)]
            coordinator.TryToScanDictNow(self.a, "f", needs, 4e9)
            coordinator.TryToScanDictNow(self.a, "f", needs, 0.0)
        finally:
            scopescanner.script.clear()

    def scan_more(self, scope: str, then: Any, _scanner: Any, end_time: float) -> Any:
        """A scan that needs another scope, whose scan does `then`."""
        scopescanner.script.appendleft(then)
        needs = [(self.a, scope, kPrimary), (self.a, scope, kDerived)]
        self.coordinator.TryToScanDictNow(self.a, scope, needs, end_time)
        return kFinishedScanning

    def scan_one_now(self) -> None:
        try:
            for step in (kFinishedScanning, kTimedOut, kWaitingForData, self.vanish):
                scopescanner.script.append(step)
                self.coordinator.TryToScanNow(self.a, "f", None, kLate)
        finally:
            scopescanner.script.clear()

    def vanish(self, scanner: Any, _end_time: float) -> Any:
        """A scan that finds no file."""
        scanner.fFileDoesntExist = True
        return kScanAbandoned

    def instance_scopes(self) -> None:
        for cls in ("C", "E", "Missing"):
            scope = symbolinfo.GetInstanceNameForClass(cls)
            self.coordinator.TryToScanNow(self.a, scope, None, kLate)
            self.coordinator.BuildInstanceScopeNoScanning(self.a, scope, kLate)
        self.world.engine.deadlines = [False, True]
        scope = symbolinfo.GetInstanceNameForClass("C")
        self.coordinator._TryToScanInstanceScopeNow(self.a, scope, kLate)

    def wake_scanners(self) -> None:
        for scanner in list(scopescanner.made):
            scanner.emit("scan-state-changed", scanner)

    def add_remote(self) -> None:
        pairs = [(self.remote, "*"), (self.unready, "*"), (self.unready, "f")]
        self.coordinator.AddPairsToPrimaryQueue(pairs, False, 2)
        self.coordinator._CScanCoordinator__GetModtimes([self.remote], hostlog.calls.append)

    def remote_becomes_ready(self) -> None:
        self.world.loc_data_cache.not_ready.clear()
        cache = self.world.loc_data_cache
        cache.emit("now-tree-branch-ready", cache, {self.unready})
        cache.emit("inspect-failed", cache, {self.remote})
        cache.emit("cleared", cache)
        self.wake_scanners()

    def questions(self) -> None:
        coordinator = self.coordinator
        coordinator.GetStatus()
        coordinator.QueuesEmpty()
        for loc in (self.a, self.unready):
            coordinator.LocationInPrimaryScanQueue(loc)
            coordinator.LocationInSecondaryScanQueue(loc)
            coordinator.LocationInScanQueues(loc)
        coordinator._fScanQueue.PrintScanQueues(LogFile().write)

    def start_helper(self) -> None:
        self.world.ana_mgr.fHelperProcessProxy = self.world.proxy
        self.world.ana_mgr._fHelperProcessSupport = HelperSupport(self.helper)
        self.coordinator._UpdateForHelperProcess()

    def hear_of_helper(self) -> None:
        self.helper.emit("scan-queue-locs-added", self.helper, [self.a, self.b])
        self.helper.emit("scan-queue-locs-removed", self.helper, [self.b])

    def stop_helper(self) -> None:
        self.world.ana_mgr.fHelperProcessProxy = None
        self.world.ana_mgr._fHelperProcessSupport = None
        self.coordinator._UpdateForHelperProcess()

    def suspend(self) -> None:
        self.world.mod_file_cache.emit("suspend", self.world.mod_file_cache)
        self.idle()
        self.world.mod_file_cache.emit("unsuspend", self.world.mod_file_cache)
        self.coordinator.SuspendIdleScans()
        self.coordinator.ResumeIdleScans()
        for server in (CRemoteServerManager(), CContainerInspectorManager()):
            server.emit("server-stopped", server)


def watch_host(monkeypatch: Any, tell: Callable[[str], None]) -> None:
    """Have `tell(name)` called before each call of the host is answered.

    The fakes note their calls in `hostlog`; the few that don't are wrapped.
    """
    note = hostlog.note

    def noted(name: str, *args: Any, **kwargs: Any) -> None:
        note(name, *args, **kwargs)
        tell(name)

    monkeypatch.setattr(hostlog, "note", noted)

    def wrap(owner: Any, name: str) -> None:
        inner = getattr(owner, name)

        def call(*args: Any, **kwargs: Any) -> Any:
            tell(name)
            return inner(*args, **kwargs)

        monkeypatch.setattr(owner, name, call)

    for owner, name in (
        (location, "IsAsyncInspectLocation"),
        (CFileLocation, "GetParentDir"),
        (CFileLocation, "IsReady"),
        (lgtk, "NoArgCallback"),
        (lgtk, "NoObjCallback"),
        (singleton, "GetSingletons"),
        (scopeinfo, "CScopeInfo"),
        (scopeinfo, "CScopeInfoKey"),
        (symbolinfo, "IsInstanceScope"),
        (symbolinfo, "GetInstanceNameForClass"),
        (symbolinfo, "GetInfoBytesKind"),
        (symbolinfo, "NonNestedSplit"),
        (_fastaccess, "__TimeFunc"),
    ):
        wrap(owner, name)
