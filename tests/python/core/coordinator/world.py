"""A coordinator and all its collaborators, set up for one test."""

from collections.abc import Callable
from typing import Any

import collaborators
import singleton
from collaborators import kDerived, kPrimary
from loombase.location import CFileLocation, CLocalFileLocation, CRemoteFileLocation
from operations import unwatched
from pysource import scopeinfo, scopescanner
from pysource.scancoordinator import CScanCoordinator, CScanItem, kBackgroundPriority

import hostclock
import hostlog

kIdlePriority = 300
kWholeFile = "*"
kSlice = 0.1 if __debug__ else 0.05


class LogFile:
    """Output file of a logger: each line is noted among the calls of the host as ("log", line)."""

    def write(self, text: str) -> None:
        hostlog.note("log", text)


class EndsWith:
    """Equals each text with this end: a logger is free in what it puts in front of a line."""

    def __init__(self, end: str) -> None:
        self.end = end

    def __eq__(self, other: object) -> bool:
        return isinstance(other, str) and other.endswith(self.end)

    def __hash__(self) -> int:
        return hash(self.end)

    def __repr__(self) -> str:
        return f"...{self.end!r}"


class EqualTo:
    """A scan state that equals another without being it."""

    def __init__(self, state: Any) -> None:
        self.state = state

    def __eq__(self, other: object) -> bool:
        return other is self.state

    def __ne__(self, other: object) -> bool:
        return other is not self.state

    def __hash__(self) -> int:
        return 0


def logged(line: str) -> tuple[str, EndsWith]:
    """The entry that `told` gives for a line of the coordinator's log."""
    return ("log", EndsWith(line + "\n"))


def told(*names: str) -> list[tuple[Any, ...]]:
    """Take the calls (with one of these names) out of the host's log.

    Each is a tuple of the name and the arguments, with the keyword arguments, if any, as a mapping
    at the end.
    """
    calls = hostlog.take(*names)
    return [(c.name, *c.args, c.kwargs) if c.kwargs else (c.name, *c.args) for c in calls]


def forget() -> None:
    """Drop what the host was asked so far: this test has nothing to say about it."""
    hostlog.calls.clear()


class World:
    """The collaborators by name; `make` makes a coordinator of them."""

    def __init__(self) -> None:
        self.info_cache = scopeinfo.CInfoCache()
        self.loc_cache = self.info_cache.fLocCache
        self.ana_mgr = collaborators.AnalysisManager(self.info_cache)
        self.engine = self.ana_mgr.fInferenceEngine
        self.loc_data_cache = self.ana_mgr.fLocationDataCache
        self.factory = self.ana_mgr.fAnalysisFactory
        self.mod_file_cache = self.factory._fModFileCache
        self.cache_mgr = collaborators.CacheManager()
        self.savable_mgr = collaborators.SavableManager()
        self.file_attrib_mgr = collaborators.FileAttribManager()
        self.proxy = collaborators.HelperProxy()
        self.singletons = singleton.GetSingletons()
        self.singletons.fPrefMgr = object()
        self.singletons.fCacheMgr = self.cache_mgr
        self.singletons.fSavableMgr = self.savable_mgr
        self.singletons.fAnalysisMgr = self.ana_mgr
        self.singletons.fFileAttribMgr = self.file_attrib_mgr
        self.made: list[Any] = []

    def make(self, cls: type = CScanCoordinator, *, path: bool = True, basic: bool = True) -> Any:
        """A coordinator that has queued the basic modules, of which there are none.

        Without `path` there is no Python path yet, without `basic` the basic modules are still to
        be queued. The log is empty afterwards.
        """
        coordinator = cls(kIdlePriority, self.ana_mgr)
        self.made.append(coordinator)
        coordinator._fScanQueue.SetScansToOrder({kPrimary: 1, kDerived: 2, "third": 3})
        if basic:
            self.factory.builtin_mod = collaborators.BuiltinMod()
            with unwatched():
                CScanCoordinator._QueueBasicModules(coordinator, 0.0)
            self.factory.builtin_mod = None
        if path:
            self.ana_mgr.fPyConfig.python_path_locs = [self.loc("/lib")]
        forget()
        return coordinator

    def loc(self, path: str) -> Any:
        """The local file at a path."""
        return CLocalFileLocation.at("file://" + path)

    def locs(self, count: int, folder: str = "/p") -> list[Any]:
        """Some local Python files of a folder."""
        return [self.loc(f"{folder}/m{i}.py") for i in range(count)]

    def other(self, path: str) -> Any:
        """A file that needs no inspection but isn't local."""
        return CFileLocation.at("other:" + path)

    def remote(self, path: str, ready: bool = True) -> Any:
        """A file that must be inspected before use."""
        loc = CRemoteFileLocation.at("ssh://host" + path)
        loc.ready = ready
        if not ready:
            self.loc_data_cache.not_ready.add(loc)
        return loc

    def queue(
        self,
        coordinator: Any,
        loc: Any,
        scope: str = kWholeFile,
        scan: str = kPrimary,
        priority: int = kBackgroundPriority,
        check: bool = False,
    ) -> Any:
        """Put a scan into the queue behind the coordinator's back; returns its item.

        What the queue asks of the host for it is not in the log.
        """
        before = hostlog.calls[:]
        coordinator._fScanQueue.AddScanPairs([(loc, scope)], scan, priority, check)
        hostlog.calls[:] = before
        return CScanItem(loc, scope, scan, priority)

    def during(self, coordinator: Any, item: Any, work: Callable[[], Any]) -> Any:
        """Run `work` inside the scan of `item`, which then runs out of time; returns its result.

        The scanner stays, as after any slice. The log keeps what it held and what `work` added.
        """
        results = []
        before = hostlog.calls[:]
        during: list[Any] = []
        self.loc_cache.builtin_loc = self.loc("/lib/builtins.pyi")

        def step(_scanner: Any, _end_time: float) -> Any:
            forget()
            results.append(work())
            during.extend(hostlog.calls)
            return scopescanner.kTimedOut

        scopescanner.script.appendleft(step)
        coordinator._DoSingleScan(item, 0.0)
        hostlog.calls[:] = before + during
        return results[0]

    def log_lines(self, coordinator: Any) -> None:
        """From now on the lines of the coordinator's log are among the calls."""
        coordinator.fLog.fOutputFile = LogFile()


def pending(coordinator: Any) -> dict[tuple[Any, str, str], int]:
    """All queued scans with their priorities."""
    return {
        (loc, scope, scan): priority
        for loc, record in coordinator._fScanQueue._fPerLocationInfo.items()
        for (scope, scan), priority in record.pending_dict.items()
    }


def waiting_files(coordinator: Any) -> dict[Any, int]:
    """The files that are due for a whole-file check, with their priorities."""
    return dict(coordinator._fScanQueue._fWholeFilesToCheck)


def pass_time(seconds: float) -> None:
    """Move the virtual clock; timers don't run."""
    hostclock.advance(seconds)


def scripted(*steps: Any) -> None:
    """What the next scans do: see `pysource.scopescanner`."""
    scopescanner.script.extend(steps)
