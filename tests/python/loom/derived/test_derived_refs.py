"""`loom refs`: who refers to a name."""

import json
import os
from pathlib import Path
from typing import Any

import pytest
from derived_samples import Tree

from loom.cli.main import run

kUses = {
    "lib/__init__.py": "from .shapes import Shape as Form, make\n",
    "lib/shapes.py": """\
class Shape:
    def area(self): return self.size()
    def size(self): return 1
class Square(Shape):
    def size(self): return 2
def make(): return Square()
SHAPES = [make()]
""",
    "one.py": """\
import lib
from lib import Form, make as build
from lib.shapes import *
s = build()
print(s.area(), Form, "é", make, SHAPES)
def f(x, y: Form):
    make = 1
    x.area(); y.size()
    return [make for make in x] + [lib.shapes.make, f'{lib.make(area=1)}', make]
""",
    "two.py": "def make(): pass\nmake()\nclass Shape: pass\nlib = 1\nlib.make\n",
}


@pytest.fixture
def used(tree: Tree, monkeypatch: pytest.MonkeyPatch) -> Tree:
    tree.write(kUses)
    tree.scan()
    tree.close()
    monkeypatch.chdir(tree.top)
    return tree


def refs(
    tree: Tree, capsys: pytest.CaptureFixture[str], name: str, *options: str, code: int = 0
) -> dict[str, Any]:
    capsys.readouterr()
    arguments = ["refs", name, "--json", "--db", str(tree.db_path), "--deadline", "1e9", *options]
    assert run(arguments) == code
    document: dict[str, Any] = json.loads(capsys.readouterr().out)
    return document


def places(found: dict[str, Any], certain: bool | None = True) -> list[tuple[str, int, int]]:
    return [
        (os.path.relpath(each["path"], os.getcwd()), each["line"], each["column"])
        for each in found["references"]
        if certain is None or each["certain"] is certain
    ]


def test_a_function_is_found_through_re_exports_stars_and_other_names(
    used: Tree, capsys: pytest.CaptureFixture[str]
) -> None:
    found = refs(used, capsys, "lib.shapes.make")
    assert found["targets"] == ["lib.shapes:make"]
    assert not found["partial"]
    assert places(found) == [
        ("lib/__init__.py", 1, 36),
        ("lib/shapes.py", 7, 11),
        ("one.py", 2, 23),
        ("one.py", 4, 5),
        ("one.py", 5, 28),
        ("one.py", 9, 47),
        ("one.py", 9, 60),
    ]
    assert places(found, certain=False) == [("two.py", 5, 5)]  # an attribute of 1


def test_a_name_leads_through_a_module_that_only_imports_it(
    used: Tree, capsys: pytest.CaptureFixture[str]
) -> None:
    assert refs(used, capsys, "lib.make")["targets"] == ["lib.shapes:make"]
    assert refs(used, capsys, "lib.Form")["targets"] == ["lib.shapes:Shape"]


def test_a_bare_name_means_all_that_are_called_so(
    used: Tree, capsys: pytest.CaptureFixture[str]
) -> None:
    found = refs(used, capsys, "make")
    assert found["targets"] == ["lib.shapes:make", "two:make"]
    assert ("two.py", 2, 1) in places(found)
    assert len(places(found)) == 8
    assert places(found, certain=False) == [("two.py", 5, 5)]  # an attribute of 1


def test_a_class_is_found_where_it_is_a_base(
    used: Tree, capsys: pytest.CaptureFixture[str]
) -> None:
    found = refs(used, capsys, "lib.shapes.Shape")
    assert places(found) == [
        ("lib/__init__.py", 1, 21),
        ("lib/shapes.py", 4, 14),
        ("one.py", 2, 17),
        ("one.py", 5, 17),
        ("one.py", 6, 13),
    ]


def test_methods_are_told_apart_by_their_classes(
    used: Tree, capsys: pytest.CaptureFixture[str]
) -> None:
    found = refs(used, capsys, "Shape.size")
    assert places(found) == [("lib/shapes.py", 2, 33), ("one.py", 8, 17)]
    assert refs(used, capsys, "Square.size", code=1)["references"] == []


def test_an_inherited_method_is_that_of_the_base(
    used: Tree, capsys: pytest.CaptureFixture[str]
) -> None:
    found = refs(used, capsys, "Square.area")
    assert found["targets"] == ["lib.shapes:Shape.area"]
    assert ("one.py", 5, 9) in places(found)


def test_what_is_not_known_is_a_candidate(
    used: Tree, capsys: pytest.CaptureFixture[str]
) -> None:
    found = refs(used, capsys, "Shape.area")
    assert places(found) == [("one.py", 5, 9)]
    assert places(found, certain=False) == [("one.py", 8, 7), ("one.py", 9, 65)]
    kinds = {each["column"]: each["kind"] for each in found["references"] if not each["certain"]}
    assert kinds == {7: "use", 65: "keyword"}
    assert places(refs(used, capsys, "Shape.area", "--certain"), None) == [("one.py", 5, 9)]


def test_a_module_is_found_where_it_is_imported_and_used(
    used: Tree, capsys: pytest.CaptureFixture[str]
) -> None:
    found = refs(used, capsys, "lib.shapes")
    assert places(found) == [("lib/__init__.py", 1, 6), ("one.py", 3, 6), ("one.py", 9, 40)]


def test_a_reference_is_told_in_full(used: Tree, capsys: pytest.CaptureFixture[str]) -> None:
    """Columns count characters from 1."""
    (_, *rest) = refs(used, capsys, "lib.shapes.SHAPES")["references"]
    assert rest == []
    assert refs(used, capsys, "lib.shapes.SHAPES")["references"] == [
        {
            "path": str(used.path("one.py")),
            "line": 5,
            "column": 34,
            "kind": "use",
            "scope": "",
            "certain": True,
            "target": "lib.shapes:SHAPES",
            "text": 'print(s.area(), Form, "é", make, SHAPES)',
        }
    ]


def test_the_text_shows_files_in_groups(used: Tree, capsys: pytest.CaptureFixture[str]) -> None:
    assert run(["refs", "Shape.area", "--db", str(used.db_path), "--deadline", "1e9"]) == 0
    assert capsys.readouterr().out.splitlines() == [
        f"{used.path('one.py')}:5:9: print(s.area(), Form, \"é\", make, SHAPES)",
        f"{used.path('one.py')}:8:7: ? x.area(); y.size()",
        f"{used.path('one.py')}:9:65: ? return [make for make in x] + "
        "[lib.shapes.make, f'{lib.make(area=1)}', make]",
    ]
    assert run(["refs", "lib.shapes", "--db", str(used.db_path), "--deadline", "1e9"]) == 0
    assert capsys.readouterr().out.splitlines()[1] == ""


def test_a_limit_ends_the_search(used: Tree, capsys: pytest.CaptureFixture[str]) -> None:
    assert len(refs(used, capsys, "make", "--limit", "3")["references"]) == 3


def test_a_name_that_nobody_uses(used: Tree, capsys: pytest.CaptureFixture[str]) -> None:
    assert refs(used, capsys, "no_such_name", code=1)["references"] == []
    assert run(["refs", "no.such.name", "--db", str(used.db_path)]) == 1
    assert "nothing refers to 'no.such.name'" in capsys.readouterr().err


def test_an_answer_that_is_late_says_so(used: Tree, capsys: pytest.CaptureFixture[str]) -> None:
    arguments = ["refs", "lib.shapes.make", "--db", str(used.db_path), "--deadline", "0", "--json"]
    run(arguments)
    captured = capsys.readouterr()
    assert json.loads(captured.out)["partial"]
    assert "partial" in captured.err


@pytest.mark.parametrize("name", ["lib.shapes.make", "Shape.size", "lib.shapes.Shape"])
def test_files_that_were_not_derived_are_searched(
    tree: Tree,
    monkeypatch: pytest.MonkeyPatch,
    capsys: pytest.CaptureFixture[str],
    name: str,
) -> None:
    """More slowly; where the inference knows the answer, it is the same."""
    tree.write(kUses)
    tree.scan()
    monkeypatch.chdir(tree.top)
    tree.close()
    derived = places(refs(tree, capsys, name))
    tree.db_path.unlink()
    tree.open()
    tree.scan(derived=False)
    tree.close()
    found = places(refs(tree, capsys, name))
    # Under another name nobody finds it without the derived results.
    assert set(found) <= set(derived)
    assert len(found) >= len(derived) - 3


def test_a_file_that_changed_since_it_was_scanned_is_read_anew(
    used: Tree, capsys: pytest.CaptureFixture[str]
) -> None:
    used.write({"two.py": "\n\nfrom lib.shapes import make\nx = make\n"})
    found = refs(used, capsys, "lib.shapes.make")
    assert ("two.py", 4, 5) in places(found)
    used.path("one.py").unlink()
    found = refs(used, capsys, "lib.shapes.make")
    assert not [place for place in places(found, None) if place[0] == "one.py"]


def test_there_must_be_a_database(tmp_path: Path, capsys: pytest.CaptureFixture[str]) -> None:
    (tmp_path / "file").write_text("")
    assert run(["refs", "x", "--db", str(tmp_path / "file" / "info.sqlite3")]) == 2
    assert "can't be used" in capsys.readouterr().err
