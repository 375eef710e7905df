"""Scans for a caller that can't wait, with everything real, on a cold cache."""

import os
from collections.abc import Callable, Generator
from typing import Any

import pytest
from loombase.location import CLocalFileLocation
from scope_host import Host
from scope_samples import kSample, replace

from pysource import scopescanner
from pysource.scancoordinator import kInteractivePriority
from pysource.scopescanner import kFinishedScanning, kTimedOut, kWaitingForData
from pysource.symbolinfo import kModuleScopeName

MakeFile = Callable[..., CLocalFileLocation]

kAttributes = {"name", "area"}


@pytest.fixture
def cold(make_file: MakeFile) -> CLocalFileLocation:
    """The sample, of which nothing is known."""
    return make_file("cold.py", kSample)


def queued(host: Host) -> dict[tuple[Any, str, str], int]:
    return {
        (loc, scope, scan): priority
        for loc, record in host.app.coordinator._fScanQueue._fPerLocationInfo.items()
        for (scope, scan), priority in record.pending_dict.items()
    }


def scan_set(host: Host, loc: CLocalFileLocation, *scopes: str, seconds: float = 1.0) -> bool:
    triples = {(loc, scope, "primary") for scope in scopes}
    coordinator = host.app.coordinator
    return coordinator.TryToScanDictNow(loc, scopes[0], triples, host.clock.now + seconds)


def scan_now(host: Host, loc: CLocalFileLocation, scope: str, seconds: float = 1.0) -> Any:
    end_time = host.clock.now + seconds
    return host.app.coordinator.TryToScanNow(loc, scope, ["primary"], end_time)


# --- one scope


@pytest.mark.parametrize("scope", ["first", "Shape.size#2", "Shape.Corner", ""])
def test_scope_of_a_cold_file_is_known_when_the_call_returns(
    host: Host, cold: CLocalFileLocation, scope: str
) -> None:
    assert host.cache.GetScopeInfo(cold, scope) is None
    assert scan_set(host, cold, scope) is True
    assert host.names(cold, scope)
    assert host.names(cold, "chosen") is None
    assert queued(host) == {}
    assert scan_now(host, cold, "chosen") is None
    assert host.names(cold, "chosen") == ["return"]


def test_scope_that_waits_in_the_queue_leaves_it(host: Host, cold: CLocalFileLocation) -> None:
    host.app.coordinator.AddPairsToPrimaryQueue([(cold, "first")])
    assert queued(host) == {(cold, "first", "primary"): kInteractivePriority}
    assert scan_now(host, cold, "first") is None
    assert queued(host) == {}
    assert host.run() == []


def test_scope_of_an_edited_buffer(host: Host, cold: CLocalFileLocation) -> None:
    host.scan_file(cold)
    buffer = host.open(cold)
    replace(buffer, "inner = a", "other = a")
    assert scan_set(host, cold, "first") is True
    assert "other" in (host.names(cold, "first") or [])
    assert host.run() == []  # done already


def test_several_scopes_and_files(host: Host, make_file: MakeFile) -> None:
    locs = [make_file(f"{n}.py", kSample) for n in range(3)]
    triples = {(loc, scope, "primary") for loc in locs for scope in ("first", "Shape.make")}
    end_time = host.clock.now + 1.0
    assert host.app.coordinator.TryToScanDictNow(None, "", triples, end_time) is True
    assert all(host.names(loc, scope) for loc, scope, _ in triples)
    assert queued(host) == {}


def test_whole_file_on_the_callers_stack(host: Host, cold: CLocalFileLocation) -> None:
    assert scan_set(host, cold, "*") is True
    modtimes = {cold: host.cache.GetDiskMTime(cold)}
    assert cold in host.cache.GetScansDoneForMultipleFiles(modtimes)
    assert host.names(cold, "Shape.Corner.where") == ["self", "self.place"]


def test_scope_that_is_not_there_is_known_not_to_be_there(
    host: Host, cold: CLocalFileLocation
) -> None:
    assert scan_set(host, cold, "Shape.missing") is True
    info = host.cache.GetScopeInfo(cold, "Shape.missing")
    assert info is not None and info.does_not_exist


# --- files that can't be scanned


def test_missing_file(host: Host, make_file: MakeFile) -> None:
    loc = make_file("gone.py", kSample)
    host.app.coordinator.AddPairsToPrimaryQueue([(loc, "first")])
    os.unlink(loc.path)
    assert scan_now(host, loc, "first") == (False, None, None)
    assert queued(host) == {}
    assert scan_set(host, loc, "first") is True  # there is nothing more to come
    assert host.cache.GetScopeInfo(loc, "first") is None


def test_file_that_is_no_text(host: Host, make_file: MakeFile) -> None:
    loc = make_file("a.py", b"\0" * 100)
    assert scan_now(host, loc, "first") is None
    assert host.cache.GetScopeInfo(loc, "first") is None
    assert queued(host) == {}


def test_file_whose_text_is_not_there_yet(
    host: Host, cold: CLocalFileLocation, monkeypatch: pytest.MonkeyPatch
) -> None:
    arrived = False
    read = scopescanner.CSingleScopePrimaryScanner._ReadSource

    def wait(self: Any, text: Any) -> Generator[Any, None, None]:
        while not arrived:
            yield kWaitingForData
        yield from read(self, text)

    monkeypatch.setattr(scopescanner.CSingleScopePrimaryScanner, "_ReadSource", wait)
    assert scan_now(host, cold, "first") == (True, None, None)
    assert queued(host) == {(cold, "first", "primary"): kInteractivePriority}
    # In the idle loop it waits, and goes on when the data is there.
    assert ("first", "primary") not in host.run() or host.names(cold, "first") is None
    coordinator = host.app.coordinator
    assert not coordinator.QueuesEmpty(include_waiting=True)
    assert coordinator.QueuesEmpty(include_waiting=False)
    arrived = True
    scanners = getattr(coordinator, "_CScanCoordinator__fActivePrimarySingleScopeScanners")
    scanners[cold, "first"]._DataArrived()
    assert host.run() == [("first", "primary")]
    assert "inner" in (host.names(cold, "first") or [])


# --- deadlines


def test_deadline_ends_the_scan_and_leaves_the_rest_to_the_idle_loop(
    host: Host, make_file: MakeFile, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setattr(scopescanner.singlescope, "_kWholeStepBytes", 100)
    loc = make_file("a.py", kSample)
    other = make_file("b.py", kSample)
    host.clock.per_look = 0.4  # a second is over at the third look
    triples = [(loc, "Shape.Corner.where", "primary"), (other, "first", "primary")]
    end_time = host.clock.now + 1.0
    assert host.app.coordinator.TryToScanDictNow(None, "", triples, end_time) is False
    assert host.clock.now < end_time + 2 * host.clock.per_look
    host.clock.per_look = 0.0
    assert host.names(loc, "Shape.Corner.where") is None
    # Both files are queued as wholes, for neither is open.
    assert queued(host).keys() == {(loc, "*", "primary"), (other, "*", "primary")}
    host.run()
    assert host.names(loc, "Shape.Corner.where") == ["self", "self.place"]
    assert "inner" in (host.names(other, "first") or [])


def test_what_a_scan_found_until_its_deadline_is_an_incomplete_answer(
    host: Host, make_file: MakeFile, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setattr(scopescanner.singlescope, "_kWholeStepBytes", 20)
    loc = make_file("a.py", kSample)
    host.clock.per_look = 0.35
    assert scan_now(host, loc, "first") is None
    host.clock.per_look = 0.0
    info = host.cache.GetScopeInfo(loc, "first")
    assert info is not None and info.incomplete
    assert "a" in info.type_equivs and "nested" not in info.type_equivs
    assert queued(host) == {}


def test_scan_is_begun_however_late_it_is(host: Host, cold: CLocalFileLocation) -> None:
    assert scan_set(host, cold, "first", seconds=-5.0) is False
    assert queued(host) == {(cold, "*", "primary"): kInteractivePriority}


# --- instances


def instance_names(info: Any) -> set[str]:
    return set(info.type_equivs) - {"__init__", "make", "size", "Corner", "sides"}


def test_instance_scope_of_a_cold_file(host: Host, cold: CLocalFileLocation) -> None:
    info = scan_now(host, cold, "Shape()")
    assert info.key.scope_name == "Shape()"
    assert instance_names(info) == kAttributes
    assert info.type_equivs["name"] == b":sShape.__init__;:=name"
    assert info.type_equivs["area"] == b":sShape.__init__;:=0"
    assert info.type_equivs["sides"] == b":=0"
    stored = host.cache.GetScopeInfo(cold, "Shape()")
    assert stored is not None and stored.packed == info.packed
    assert host.names(cold, "Shape.__init__") is not None


def test_instance_scope_by_the_set_operation(host: Host, cold: CLocalFileLocation) -> None:
    assert scan_set(host, cold, "Shape()", "first") is True
    assert set(host.names(cold, "Shape()") or []) > kAttributes


def test_instance_scope_of_an_edited_buffer(host: Host, cold: CLocalFileLocation) -> None:
    host.scan_file(cold)
    buffer = host.open(cold)
    replace(buffer, "self.area = 0", "self.extent = 0")
    scan_set(host, cold, "Shape.__init__")
    info = scan_now(host, cold, "Shape()")
    # What the setter assigns isn't looked at: of a name, only the first method counts.
    assert instance_names(info) == {"name", "extent"}
    host.cache_mgr.CloseBuffer(cold)
    host.run()
    assert instance_names(scan_now(host, cold, "Shape()")) == kAttributes


def test_instance_scope_with_no_time_left(host: Host, cold: CLocalFileLocation) -> None:
    assert scan_now(host, cold, "Shape()", seconds=-1.0) is None
    assert host.cache.GetScopeInfo(cold, "Shape()") is None


def test_instance_scope_of_a_missing_file(host: Host, tmp_path: Any) -> None:
    assert scan_now(host, CLocalFileLocation(tmp_path / "missing.py"), "Shape()") is None


# --- instances from what is known


def build(host: Host, loc: CLocalFileLocation, scope: str = "Shape()") -> Any:
    return host.app.coordinator.BuildInstanceScopeNoScanning(loc, scope, host.clock.now + 1.0)


def test_instance_scope_is_built_of_what_is_known(host: Host, cold: CLocalFileLocation) -> None:
    host.scan_file(cold)
    info = build(host, cold)
    assert instance_names(info) == kAttributes
    assert queued(host) == {}
    stored = host.cache.GetScopeInfo(cold, "Shape()")
    assert stored is not None and stored.packed == info.packed
    assert build(host, cold, "Shape.Corner()").type_equivs.keys() == {"where", "place"}


def test_building_asks_for_what_is_missing_until_it_is_there(
    host: Host, cold: CLocalFileLocation
) -> None:
    asked: list[set[str]] = []
    info = build(host, cold)
    while info is None:
        asked.append({scope for _, scope, _ in queued(host)})
        assert len(asked) < 5
        host.run()
        info = build(host, cold)
    # A scan of the class brings its methods along.
    assert asked == [{kModuleScopeName}, {"Shape"}]
    assert instance_names(info) == kAttributes


def test_missing_method_alone_is_asked_for(host: Host, cold: CLocalFileLocation) -> None:
    scan_now(host, cold, "Shape")
    size = host.cache.GetScopeInfo(cold, "Shape.size")
    assert size is not None
    host.cache._fWriter._drop(cold.fUrl)  # as if nothing had been stored
    host.cache._Forget(cold)
    shape = scopescanner.CSingleScopePrimaryScanner(
        cold, "Shape", incomplete_scope_set=set(), log=lambda *args: None
    )
    assert shape.Scan(host.clock.now + 1.0) is kFinishedScanning
    host.cache.AddScopeInfo(shape.fInfo)
    assert build(host, cold) is None
    assert {scope for _, scope, _ in queued(host)} == {
        "Shape.__init__",
        "Shape.make",
        "Shape.size",
    }
    assert ("Shape()", "primary") in host.run()  # the methods' scans have asked for it
    assert instance_names(build(host, cold)) == kAttributes


def test_class_that_is_not_there(host: Host, cold: CLocalFileLocation) -> None:
    host.scan_file(cold)
    info = build(host, cold, "Missing()")
    assert info.does_not_exist and info.key.scope_name == "Missing()"
    for name in ("Missing", "Missing()"):
        stored = host.cache.GetScopeInfo(cold, name)
        assert stored is not None and stored.does_not_exist
        assert stored.disk_mtime == os.stat(cold.path).st_mtime


def test_function_is_no_class(host: Host, cold: CLocalFileLocation) -> None:
    scan_now(host, cold, "")
    assert build(host, cold, "first()").does_not_exist


def test_scanner_is_timed_out_as_long_as_the_clock_says_so(
    host: Host, cold: CLocalFileLocation
) -> None:
    scanner = scopescanner.CSingleScopePrimaryScanner(
        cold, "first", incomplete_scope_set=set(), log=lambda *args: None
    )
    assert scanner.Scan(host.clock.now - 1.0) is kTimedOut
    assert scanner.Scan(host.clock.now + 1.0) is kFinishedScanning
