"""The scanners of the derived stage by themselves, as the scheduler uses them."""

from collections.abc import Iterator
from typing import Any

import pytest
from derived_samples import Tree, kPackage, manager

from pysource import scopescanner

kFar = 10_000.0


@pytest.fixture
def primary(tree: Tree) -> Tree:
    """All files scanned once, none derived."""
    tree.write(kPackage)
    tree.scan(derived=False)
    return tree


@pytest.fixture
def asked(tree: Tree) -> Iterator[list[Any]]:
    """What was asked for by "needs-scan-added"; the scheduler doesn't hear of it."""
    found: list[Any] = []

    def note(triples: Any, priority: Any = None) -> None:
        found.append({(loc.path.rpartition("/tree/")[2], *rest) for loc, *rest in triples})

    cache = tree.cache
    cache.AddNeedsScan = note
    yield found
    del cache.AddNeedsScan


def scanner_of(tree: Tree, name: str) -> Any:
    return scopescanner.CWholeFileSecondaryScanner(tree.loc(name), "derived", lambda *_: None)


def test_missing_files_are_asked_for_once_and_the_scan_goes_on_when_they_are_there(
    tree: Tree, asked: list[Any]
) -> None:
    tree.write(kPackage)
    tree.scan("main.py", derived=False)
    tree.app.coordinator._fAnalyzeFoundImports = True
    scanner = scanner_of(tree, "main.py")
    assert scanner.Scan(kFar) is scopescanner.kWaitingForData
    (first,) = asked
    assert ("pkg/__init__.py", "*", "primary") in first
    tree.app.coordinator._fAnalyzeFoundImports = False
    tree.scan("pkg", derived=False)
    tree.app.coordinator._fAnalyzeFoundImports = True
    while scanner.Scan(kFar) is scopescanner.kWaitingForData:
        assert len(asked) < 5
    assert scanner.fState is scopescanner.kFinishedScanning
    every = [triple for each in asked for triple in each]
    assert len(every) == len(set(every))
    scanner.destroy()
    assert tree.imports("main.py")["B"] == ("pkg.a:A",)


def test_what_never_comes_stays_open(tree: Tree, asked: list[Any]) -> None:
    """The scan doesn't wait for ever, nor ask again."""
    tree.write(kPackage)
    tree.scan("main.py", derived=False)
    tree.app.coordinator._fAnalyzeFoundImports = True
    scanner = scanner_of(tree, "main.py")
    states = [scanner.Scan(kFar) for _ in range(4)]
    assert states[0] is scopescanner.kWaitingForData
    assert states[-1] is scopescanner.kFinishedScanning
    scanner.destroy()
    assert tree.imports("main.py")["B"] == ()
    # The files that it lacked make it stale when they come.
    tree.app.coordinator._fAnalyzeFoundImports = False
    tree.scan("pkg", derived=False)
    assert tree.scans("main.py") == ["primary"]


def test_no_other_files_are_asked_for_where_none_are_to_be_scanned(
    tree: Tree, asked: list[Any]
) -> None:
    tree.write(kPackage)
    tree.scan("main.py", derived=False)
    scanner = scanner_of(tree, "main.py")
    assert scanner.Scan(kFar) is scopescanner.kFinishedScanning
    assert asked == []
    scanner.destroy()


def test_the_scheduler_scans_what_is_missing_before_it_goes_on(tree: Tree) -> None:
    """The whole way: the signal, the queue, the primary scan, the second look."""
    tree.write(kPackage)
    tree.scan("main.py", derived=False)
    tree.app.coordinator._fAnalyzeFoundImports = True
    tree.cache.fLocCache.WantDerivedBelow([str(tree.path("main.py"))])
    tree.app.coordinator.AddPairsToSecondaryQueue([(tree.loc("main.py"), "*")])
    tree.main_loop.run_idle()
    assert tree.scans("main.py") == ["primary", "derived"]
    assert tree.scans("pkg/a.py") == ["primary"]
    assert tree.imports("main.py")["B"] == ("pkg.a:A",)


def test_the_filter_takes_out_what_the_scan_does_itself(primary: Tree) -> None:
    scanner = scanner_of(primary, "main.py")
    own, other = primary.loc("main.py"), primary.loc("pkg/a.py")
    stay = [(own, "*", "primary"), (other, "*", "derived"), (other, "A", "primary")]
    taken = [(own, "*", "derived"), (own, "C", "derived")]
    assert scanner.FilterNeedsScan([*taken, *stay]) == stay
    assert scanner.FilterNeedsScan(iter(taken)) == []
    scanner.destroy()


def test_a_file_that_changed_since_its_primary_scan_is_left_to_that(
    primary: Tree, asked: list[Any]
) -> None:
    primary.write({"main.py": "x = 1\n"})
    scanner = scanner_of(primary, "main.py")
    assert scanner.Scan(kFar) is scopescanner.kScanAbandoned
    assert asked == [{("main.py", "*", "primary")}]
    scanner.destroy()


def test_a_file_that_is_gone_is_abandoned(primary: Tree, asked: list[Any]) -> None:
    primary.path("main.py").unlink()
    scanner = scanner_of(primary, "main.py")
    assert scanner.Scan(kFar) is scopescanner.kScanAbandoned
    assert scanner.fFileDoesntExist
    assert asked == []
    scanner.destroy()


def test_unsaved_text_is_not_derived(primary: Tree, asked: list[Any]) -> None:
    cache_mgr = primary.app.ana_mgr.fScanCoordinator.fCacheMgr
    buffer = cache_mgr.OpenBuffer(primary.loc("main.py"), "x = 1\n", 0.0)
    buffer.SetText("x = 2\n")
    scanner = scanner_of(primary, "main.py")
    assert scanner.Scan(kFar) is scopescanner.kScanAbandoned
    assert asked == []
    scanner.destroy()
    cache_mgr.CloseBuffer(primary.loc("main.py"))


def test_the_scanner_of_one_scope_derives_its_file(primary: Tree) -> None:
    info = primary.cache.GetScopeInfo(primary.loc("main.py"), "C")
    scanner = scopescanner.CSingleScopeSecondaryScanner(info, lambda *_: None, None, manager())
    assert scanner.Scan(kFar) is scopescanner.kFinishedScanning
    scanner.destroy()
    assert primary.facts("main.py").bases == {1: ("pkg.a:A", "pkg.a:Base")}


def test_a_scan_that_is_over_stays_so_and_a_destroyed_one_fails(primary: Tree) -> None:
    scanner = scanner_of(primary, "main.py")
    assert scanner.Scan(kFar) is scanner.Scan(kFar) is scopescanner.kFinishedScanning
    scanner.destroy()
    scanner = scanner_of(primary, "main.py")
    scanner.destroy()
    with pytest.raises(RuntimeError, match="destroyed"):
        scanner.Scan(kFar)


def test_a_scan_leaves_no_answers_about_its_own_file(primary: Tree) -> None:
    """They would push out what other scans can use."""
    scanner = scanner_of(primary, "main.py")
    scanner.Scan(kFar)
    scanner.destroy()
    memo = manager().fInferenceEngine.memo
    assert memo
    assert not [key for key in memo if key[1] == primary.loc("main.py")]
