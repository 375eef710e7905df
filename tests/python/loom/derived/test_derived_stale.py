"""When derived results hold no more: what others see of a file has changed."""

import pytest
from derived_samples import Tree, Watched, kPackage, manager

from loom.derive.deriver import Deriver
from pysource.scancoordinator import kBackgroundPriority


@pytest.fixture
def watched(monkeypatch: pytest.MonkeyPatch, tree: Tree) -> Watched:
    return Watched(monkeypatch, tree)


@pytest.fixture
def scanned(tree: Tree, watched: Watched) -> Tree:
    tree.write(kPackage)
    tree.scan()
    watched.scans.clear()
    return tree


def edit(tree: Tree, name: str, old: str, new: str) -> None:
    text = tree.path(name).read_text()
    assert old in text
    tree.write({name: text.replace(old, new)})


@pytest.mark.parametrize("from_database", [False, True])
@pytest.mark.parametrize(
    ("name", "old", "new"),
    [
        ("pkg/a.py", "def unused(): pass", "def unused(): print(1); x = 2"),
        ("pkg/a.py", "class Base:", "# why\n\nclass Base:"),
        ("main.py", "print(h", "print(1, h"),
    ],
)
def test_an_edit_that_nobody_sees_concerns_its_file_alone(
    scanned: Tree, watched: Watched, from_database: bool, name: str, old: str, new: str
) -> None:
    if from_database:
        scanned.open()
    edit(scanned, name, old, new)
    scanned.scan()
    assert watched.take("primary") == [name]
    assert watched.take("derived") == [name]


@pytest.mark.parametrize("from_database", [False, True])
@pytest.mark.parametrize(
    ("name", "old", "new", "concerned"),
    [
        ("pkg/a.py", "def f(", "def ff(", ["main.py", "pkg/__init__.py", "pkg/b.py"]),
        ("pkg/b.py", "g = f", "gg = f", ["main.py"]),
        ("pkg/a.py", "class A(Base)", "class A", ["main.py", "pkg/__init__.py", "pkg/b.py"]),
        ("main.py", "v = C", "w = C", []),
        ("alone.py", "x = 1", "y = 1", []),
    ],
)
def test_an_edit_that_others_see_concerns_exactly_those_that_import_it(
    scanned: Tree,
    watched: Watched,
    from_database: bool,
    name: str,
    old: str,
    new: str,
    concerned: list[str],
) -> None:
    """Also through re-exports."""
    if from_database:
        scanned.open()
    edit(scanned, name, old, new)
    scanned.scan()
    assert watched.take("primary") == [name]
    assert watched.take("derived") == sorted([name, *concerned])
    scanned.scan()
    assert watched.scans == []


def test_stale_results_are_derived_from_what_is_there_now(scanned: Tree) -> None:
    assert scanned.imports("main.py")["g"] == ("pkg.b:g",)
    edit(scanned, "pkg/b.py", "g = f", "from .a import f as g")
    scanned.scan()
    assert scanned.imports("main.py")["g"] == ("pkg.a:f",)


def test_importers_are_stale_at_once(scanned: Tree) -> None:
    """Also when only the changed file was scanned, and the stage isn't wanted at all."""
    edit(scanned, "pkg/b.py", "g = f", "gg = f")
    scanned.scan("pkg/b.py", derived=False)
    assert scanned.scans("main.py") == ["primary"]
    assert scanned.scans("alone.py") == ["primary", "derived"]
    scanned.cache.WriteEverything()
    scanned.open()
    assert scanned.scans("main.py") == ["primary"]


def test_a_deleted_file_makes_its_importers_stale(scanned: Tree, watched: Watched) -> None:
    scanned.path("pkg/b.py").unlink()
    scanned.scan()
    assert scanned.imports("main.py")["g"] == ()
    assert "main.py" in watched.take("derived")
    scanned.write({"pkg/b.py": kPackage["pkg/b.py"]})
    scanned.scan()
    assert scanned.imports("main.py")["g"] == ("pkg.b:g",)


def test_a_module_that_comes_up_makes_those_stale_that_lacked_it(
    scanned: Tree, watched: Watched
) -> None:
    scanned.write({"pkg_that_is_not.py": "x = 1\n"})
    scanned.scan()
    assert watched.take("derived") == ["alone.py", "pkg_that_is_not.py"]
    assert scanned.imports("alone.py") == {"pkg_that_is_not": ("pkg_that_is_not:",)}


def test_a_file_that_was_only_touched_concerns_nobody(
    scanned: Tree, watched: Watched, monkeypatch: pytest.MonkeyPatch
) -> None:
    before = scanned.facts("pkg/a.py")
    asked: list[object] = []
    monkeypatch.setattr(Deriver, "questions", lambda self: asked.append(self) or iter(()))
    scanned.write({"pkg/a.py": kPackage["pkg/a.py"]})
    scanned.scan()
    assert watched.take("primary") == ["pkg/a.py"]
    assert asked == []
    assert scanned.scans("pkg/a.py") == ["primary", "derived"]
    assert scanned.facts("pkg/a.py") == before


def test_files_that_import_each_other_come_to_rest(tree: Tree, watched: Watched) -> None:
    tree.write(
        {"a.py": "from b import *\nfrom b import y\nx = 1\n", "b.py": "from a import *\ny = x\n"}
    )
    tree.scan()
    watched.scans.clear()
    edit(tree, "a.py", "x = 1", "z = 1")
    tree.scan()
    assert watched.take("derived") == ["a.py", "b.py"]
    assert watched.take("primary") == ["a.py"]
    tree.scan()
    assert watched.scans == []


def test_a_change_while_a_scan_is_under_way_is_taken_in(tree: Tree) -> None:
    """Its questions were answered from both states of the other file."""
    from pysource.scopescanner import CWholeFileSecondaryScanner

    tree.write(kPackage)
    tree.scan(derived=False)
    scanner = CWholeFileSecondaryScanner(tree.loc("main.py"), "derived", lambda *_: None)
    for _ in range(4):
        scanner.Scan(tree.clock.now - 1.0)
    edit(tree, "pkg/b.py", "g = f", "from .a import f as g")
    tree.scan("pkg/b.py", derived=False)
    while repr(scanner.Scan(tree.clock.now - 1.0)) == "kTimedOut":
        pass
    assert repr(scanner.fState) == "kFinishedScanning"
    scanner.destroy()
    # What can't be answered in no time stays open; imports need no second look.
    assert tree.imports("main.py").get("g") in ((), ("pkg.a:f",), None)


def test_stale_files_that_nobody_wants_are_not_asked_for(
    scanned: Tree, watched: Watched, monkeypatch: pytest.MonkeyPatch
) -> None:
    asked: list[object] = []
    scanned.cache.connect("needs-scan-added", lambda _cache, added, _p: asked.extend(added))
    edit(scanned, "pkg/b.py", "g = f", "gg = f")
    scanned.scan("pkg/b.py")
    assert asked == []
    assert watched.take("derived") == ["pkg/b.py"]
    assert manager().fInfoCache._fAskedScans == set()


def test_a_stale_file_is_asked_for_even_if_it_was_just_derived(tree: Tree) -> None:
    """The scheduler leaves alone what it scanned within seconds, unless it is told."""
    tree.write(kPackage)
    tree.scan()
    assert tree.app is not None
    edit(tree, "pkg/b.py", "g = f", "gg = f")
    loc = tree.loc("pkg/b.py")
    tree.app.coordinator.ClearLastScanInfo([loc])
    tree.app.coordinator.AddPairsToPrimaryQueue([(loc, "*")], False, kBackgroundPriority)
    tree.main_loop.run_idle()
    assert tree.scans("main.py") == ["primary", "derived"]
    assert tree.imports("main.py")["g"] == ()
