"""The derived stage in a session: what it finds, of which files, when, and when again."""

import itertools
from pathlib import Path
from typing import Any

import pytest
from derived_samples import Tree, Watched, kPackage

from loom.store.derived import kDerivedVersion


@pytest.fixture
def watched(monkeypatch: pytest.MonkeyPatch, tree: Tree) -> Watched:
    return Watched(monkeypatch, tree)


def test_both_stages_of_every_file_are_done(tree: Tree) -> None:
    tree.write(kPackage)
    tree.scan()
    for name in kPackage:
        assert tree.scans(name) == ["primary", "derived"]


def test_imported_names_are_followed_through_re_exports_and_stars(tree: Tree) -> None:
    tree.write(kPackage)
    tree.scan()
    assert tree.imports("main.py") == {
        "pkg": ("pkg:",),
        "B": ("pkg.a:A",),
        "g": ("pkg.b:g",),
        "h": ("pkg.b:h",),
        "A": ("pkg.a:A",),
        "print": (),
    }
    assert tree.imports("pkg/__init__.py") == {"B": ("pkg.a:A",), "f": ("pkg.a:f",)}
    assert tree.imports("alone.py") == {"pkg_that_is_not": ()}


def test_an_import_under_another_name_is_known_by_both(tree: Tree) -> None:
    tree.write(kPackage)
    tree.scan()
    assert tree.facts("pkg/__init__.py").imports[0, ".a A"] == ("pkg.a:A",)


def test_bases_are_followed_across_files(tree: Tree) -> None:
    tree.write(kPackage)
    tree.scan()
    assert tree.facts("main.py").bases == {1: ("pkg.a:A", "pkg.a:Base")}


def test_the_order_of_bases_is_pythons(tree: Tree) -> None:
    tree.write(
        {
            "o.py": "class O: pass\n",
            "x.py": "import o\nclass X(o.O): pass\n",
            "y.py": "from o import O\nclass Y(O): pass\n",
            "z.py": "from x import X\nimport y\nclass Z(X, y.Y): pass\n",
        }
    )
    tree.scan()
    assert tree.facts("z.py").bases == {1: ("x:X", "y:Y", "o:O")}


@pytest.mark.parametrize(
    ("text", "types"),
    [
        ("x = 1", ("builtins:int()",)),
        ("x = 1.5", ("builtins:float()",)),
        ("x = 'a'", ("builtins:str()",)),
        ("x = b'a'", ("builtins:bytes()",)),
        ("x = f'{a}' 'b'", ("builtins:str()",)),
        ("x = [a for a in b]", ("builtins:list()",)),
        ("x = {1: 2}", ("builtins:dict()",)),
        ("x = not_known", None),
        ("x = A()", ("pkg.a:A()",)),
        ("x = pkg.a.A", ("pkg.a:A",)),
        ("x = pkg.f(1, y=2)", ("pkg.a:f()",)),
        ("x = A().y", None),
        ("x = A() if a else 'b'", ("pkg.a:A()", "builtins:str()")),
        ("x: A", ("pkg.a:A()",)),
        ("x: 'pkg.B | None' = None", ("pkg.a:A()",)),
        ("x: Optional[A] = f()", ("pkg.a:A()",)),
        ("x: list[A] = []", ("builtins:list()",)),
        ("x = True", ("builtins:bool()",)),
        ("x = None", None),
        ("x = await_(A)", None),
    ],
)
def test_what_values_evidently_are(
    tree: Tree, text: str, types: tuple[str, ...] | None
) -> None:
    tree.write({**kPackage, "m.py": f"import pkg\nfrom pkg.a import A\n{text}\n"})
    tree.scan()
    assert tree.facts("m.py").types.get((0, "x")) == types


def test_results_and_attributes_are_told_of_the_scopes_that_others_see(tree: Tree) -> None:
    tree.write(kPackage)
    tree.scan()
    assert tree.facts("pkg/a.py").types == {
        (2, "return"): ("builtins:int()",),
        (3, "x"): ("builtins:int()",),
        (4, "self.y"): ("pkg.a:Base()",),
        (5, "return"): ("pkg.a:A()",),
    }


def test_used_names_are_found_by_name(tree: Tree) -> None:
    tree.write({"a.py": "from b import c as d\ndef f(p): loc = p.q.r; return loc, e(k=1)\n"})
    tree.scan()
    tree.cache.WriteEverything()
    ((names,),) = tree.rows("SELECT names FROM used_names")
    assert set(names.decode().split()) == {"b", "c", "d", "e", "f", "k", "p", "q", "r"}


# --- which files


def test_only_files_below_the_paths_are_derived(tree: Tree) -> None:
    tree.write(kPackage)
    tree.app.coordinator._fAnalyzeFoundImports = True
    tree.scan("main.py")
    assert tree.scans("main.py") == ["primary", "derived"]
    assert tree.scans("pkg/a.py") == ["primary"]
    assert tree.imports("main.py")["B"] == ("pkg.a:A",)
    assert tree.imports("main.py")["print"] == ("builtins:print",)


def test_nothing_is_derived_unless_it_is_wanted(tree: Tree, watched: Watched) -> None:
    tree.write(kPackage)
    tree.scan(derived=False)
    assert watched.take("derived") == []
    assert tree.scans("main.py") == ["primary"]
    tree.scan()
    assert watched.take("derived") == sorted(kPackage)


def test_want_derived_info_of_files_and_folders(tree: Tree) -> None:
    wanted = tree.cache.fLocCache
    wanted.WantDerivedBelow([str(tree.path("a.py")), str(tree.path("sub"))])
    found = {name: wanted.WantDerivedInfo(tree.loc(name)) for name in ("a.py", "b.py", "sub/c.py")}
    assert found == {"a.py": True, "b.py": False, "sub/c.py": True}
    wanted.WantDerivedBelow(["/"])
    assert wanted.WantDerivedInfo(tree.loc("b.py"))
    wanted.WantDerivedBelow([])
    assert not wanted.WantDerivedInfo(tree.loc("a.py"))


# --- when


def test_the_derived_stage_comes_behind_all_primary_scans(tree: Tree, watched: Watched) -> None:
    tree.write(kPackage)
    tree.scan()
    stages = [scan_name for _, scan_name in watched.scans]
    assert stages == ["primary"] * len(kPackage) + ["derived"] * len(kPackage)


def test_a_file_that_is_derived_is_not_derived_again(tree: Tree, watched: Watched) -> None:
    tree.write(kPackage)
    tree.scan()
    watched.scans.clear()
    tree.scan()
    tree.open()  # from the database
    tree.scan()
    assert watched.scans == []


def test_a_scan_that_is_cut_into_the_smallest_slices_finds_the_same(tree: Tree) -> None:
    tree.write(kPackage)
    tree.scan()
    whole = {name: tree.facts(name) for name in kPackage}
    tree.close()
    tree.db_path.unlink()
    tree.open()
    tree.clock.per_look = 0.005  # a slice is 0.05
    tree.scan()
    assert {name: tree.facts(name) for name in kPackage} == whole


def test_a_session_that_was_stopped_leaves_what_was_done_and_the_next_goes_on(
    tree: Tree, watched: Watched
) -> None:
    from loom.scansession import ScanSession

    tree.write({f"m{n}.py": f"import m{(n + 1) % 30}\nx = m{(n + 1) % 30}.x\n" for n in range(30)})
    tree.clock.per_look = 0.01
    session = ScanSession(tree.app, [str(tree.top)], derived=True)
    session.start()
    while len([s for s in watched.scans if s[1] == "derived"]) < 5:
        assert tree.main_loop.step()
    session.stop()
    session.destroy()
    tree.clock.per_look = 0.0
    tree.open()
    first = watched.take("derived")
    assert watched.take("primary") == sorted(f"m{n}.py" for n in range(30))
    tree.scan()
    assert len(first) + len(watched.take("derived")) in (30, 31)  # one may have been under way
    assert watched.take("primary") == []
    assert all(tree.scans(f"m{n}.py") == ["primary", "derived"] for n in range(30))


def test_results_do_not_depend_on_the_order_of_scans(tmp_path: Path, tree: Tree) -> None:
    tree.write(kPackage)
    found = []
    for order in itertools.islice(itertools.permutations(kPackage), 0, 120, 17):
        tree.close()
        tree.db_path.unlink(missing_ok=True)
        tree.open()
        for name in order[:3]:
            tree.scan(name, derived=False)
        for name in order:
            tree.scan(name)
        tree.scan()
        found.append({name: tree.facts(name) for name in kPackage})
    assert len(found) > 5
    assert all(each == found[0] for each in found)


def test_results_of_another_version_are_derived_again(
    tree: Tree, watched: Watched, monkeypatch: pytest.MonkeyPatch
) -> None:
    tree.write(kPackage)
    tree.scan()
    watched.scans.clear()
    tree.close()
    monkeypatch.setattr("loom.store.derived.kDerivedVersion", kDerivedVersion + 1)
    tree.open()
    tree.scan()
    assert watched.take("derived") == sorted(kPackage)
    assert watched.take("primary") == []


# --- odd sources


HOSTILE: dict[str, str] = {
    "cycle_a.py": "from cycle_b import *\nfrom cycle_b import x\nclass A(B): pass\n",
    "cycle_b.py": "from cycle_a import *\nfrom cycle_a import x\nclass B(A): pass\n",
    "self_import.py": "from self_import import self_import\nx = x\nclass C(C): pass\n",
    "broken.py": "class (:\n  def f(\nimport\nfrom import x\nfrom . import (a\nx = ((\n",
    "nowhere.py": "from ....too.far import x\nfrom . import *\nimport .y\n",
    "deep.py": f"x = {'(' * 150}y{')' * 150}\nclass C({'(' * 90}B{')' * 90}): pass\n",
    "long.py": "x = a" + ".b" * 5_000 + "\n",
    "names.py": "é = 1\nx\u0301 = é\n\x00 = 2\nfrom \u200b import x\n",
    "tabs.py": "x: 'a\tb\tc' = 1\ndef f() -> 'd\\ne': return g('\\t')\n",
    "empty.py": "",
}


def test_odd_sources_end_with_a_result_each(tree: Tree, caplog: pytest.LogCaptureFixture) -> None:
    tree.write(HOSTILE)
    tree.scan()
    tree.scan()  # what couldn't be parsed is found to have no derived result
    for name in HOSTILE:
        assert tree.scans(name) == ["primary", "derived"], name
        tree.facts(name)
    assert "failed" not in caplog.text


def test_a_class_that_is_its_own_base_has_some_order(tree: Tree) -> None:
    tree.write(HOSTILE)
    tree.scan()
    bases = tree.facts("cycle_a.py").bases
    assert bases == {1: ("cycle_b:B",)}


def test_many_names_are_taken_in_slices(tree: Tree, monkeypatch: pytest.MonkeyPatch) -> None:
    from pysource.scopescanner import derived

    monkeypatch.setattr(derived, "_kGroupsPerStep", 7)
    tree.write({"big.py": "\n".join(f"x{n} = y{n}.z{n}()" for n in range(300))})
    tree.clock.per_look = 0.03
    tree.scan()
    tree.cache.WriteEverything()
    ((names,),) = tree.rows("SELECT names FROM used_names")
    assert len(set(names.split())) == 900


def test_a_failure_of_ours_ends_its_own_scan_only(
    tree: Tree, monkeypatch: pytest.MonkeyPatch, caplog: pytest.LogCaptureFixture
) -> None:
    from pysource.scopescanner import derived

    class Failing(derived.Deriver):
        def questions(self) -> Any:
            if self._loc.path.endswith("main.py"):
                raise RuntimeError("a fault")
            return super().questions()

    monkeypatch.setattr(derived, "Deriver", Failing)
    tree.write(kPackage)
    tree.scan()
    assert tree.scans("main.py") == ["primary"]
    assert tree.scans("pkg/b.py") == ["primary", "derived"]
    assert "a fault" in caplog.text


# --- what is shown


def test_the_session_tells_how_many_files_are_still_to_be_derived(tree: Tree) -> None:
    from loom.cli.progress import _description
    from loom.scansession import ScanSession

    tree.write(kPackage)
    tree.clock.per_look = 0.01
    session = ScanSession(tree.app, [str(tree.top)], derived=True)
    session.start()
    seen = []
    while tree.main_loop.step():
        session.update_queued()
        seen.append((session.counts.to_derive, _description(session.counts)))
    session.destroy()
    assert max(count for count, _ in seen) == len(kPackage)
    assert seen[-1] == (0, "scanning")
    assert (2, "deriving") in seen
