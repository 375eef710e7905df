"""Why a file isn't among those that a scan finds."""

import os

import pytest

from loom.ignore import parse_patterns
from loom.leftout import obstacle
from loom.sourcetext import kMaxSourceBytes
from loom.walk import Found, walk


@pytest.fixture
def top(tmp_path):
    top = tmp_path / "project"
    (top / ".git" / "info").mkdir(parents=True)
    return top


def write(top, name, text=""):
    path = top / name
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_text(text)
    return str(path)


def test_nothing_stands_in_the_way_of_an_ordinary_file(top):
    assert obstacle(write(top, "pkg/a.py")) is None
    assert obstacle(write(top, "tool", "#!/usr/bin/python3\n")) is None


@pytest.mark.parametrize(
    ("rule_file", "rule", "name", "fits"),
    [
        (".gitignore", "*.gen.py", "pkg/a.gen.py", "pkg/a.gen.py"),
        (".gitignore", "/out/", "out/deep/a.py", "out"),
        ("pkg/.gitignore", "a.py", "pkg/a.py", "pkg/a.py"),
        (".git/info/exclude", "a.py", "pkg/a.py", "pkg/a.py"),
    ],
)
def test_a_pattern_is_told_with_its_file_and_line(top, rule_file, rule, name, fits):
    path = write(top, name)
    write(top, rule_file, f"# a comment\n\n{rule}\nother\n")
    found = obstacle(path)
    assert found.kind == "pattern"
    assert found.path == str(top / fits)
    assert (found.rule, found.rule_file, found.rule_line) == (rule, str(top / rule_file), 3)


def test_the_last_pattern_that_fits_decides_and_the_deepest_file(top):
    path = write(top, "pkg/a.py")
    write(top, ".gitignore", "*.py\n")
    assert obstacle(path).rule_line == 1
    write(top, ".gitignore", "*.py\n*\n")
    assert obstacle(path).rule_line == 2
    write(top, ".gitignore", "*.py\n!a.py\n")
    assert obstacle(path) is None
    write(top, ".gitignore", "*.py\n")
    write(top, "pkg/.gitignore", "!a.py\n")
    assert obstacle(path) is None


def test_a_bad_pattern_does_not_shift_the_lines(top):
    path = write(top, "a.py")
    write(top, ".gitignore", "!\n\na.py\n")
    assert obstacle(path).rule_line == 3


def test_folders_that_are_never_sources(top):
    path = write(top, "node_modules/pkg/a.py")
    assert (obstacle(path).kind, obstacle(path).path) == ("folder", str(top / "node_modules"))
    path = write(top, "env/lib/a.py")
    write(top, "env/pyvenv.cfg")
    assert obstacle(path).reason == "virtual environment"
    path = write(top, "build/lib/a.py")
    assert obstacle(path).reason == "build results"


def test_a_root_that_was_asked_for_by_name_is_no_obstacle(top):
    path = write(top, "node_modules/pkg/a.py")
    assert obstacle(path, str(top / "node_modules")) is None


def test_patterns_of_the_user_come_first(top):
    path = write(top, "node_modules/pkg/a.py")
    write(top, ".gitignore", "*.py\n")
    other = write(top, "b.py")
    exclude = parse_patterns(["b*", "!node_modules", "!a.py"])
    assert obstacle(path, str(top), exclude) is None
    found = obstacle(other, str(top), exclude)
    assert (found.rule, found.rule_file, found.path) == ("b*", "--exclude", other)


def test_what_is_wrong_with_the_file_itself(top):
    assert obstacle(str(top / "missing.py")).kind == "missing"
    assert obstacle(write(top, "notes.txt")).kind == "not python"
    assert obstacle(write(top, "script", "#!/bin/sh\n")).kind == "not python"
    (top / "folder.py").mkdir()
    assert obstacle(str(top / "folder.py")).kind == "not a file"
    big = write(top, "big.py")
    os.truncate(big, kMaxSourceBytes + 1)
    assert obstacle(big).kind == "too big"


def test_outside_of_a_repository_only_names_and_contents_count(tmp_path):
    path = write(tmp_path, "pkg/a.py")
    assert obstacle(path) is None
    assert obstacle(write(tmp_path, "__pycache__/a.py")).kind == "folder"


def test_it_says_of_each_file_what_a_walk_does(top):
    """The rules of `ignore` are told once more here, in another order; both must agree."""
    names = ["a.py", "b.py", "x/a.py", "x/b.py", "x/y/a.py", "dist/a.py", "z/dist/__init__.py"]
    names += ["z/dist/a.py", ".tox/a.py", "v/conda-meta/a.py", "p.egg-info/a.py"]
    paths = {write(top, name) for name in names}
    for exclude in (None, parse_patterns(["x/y", "!.tox", "!dist/"])):
        for rules, inner in _RULES:
            write(top, ".gitignore", rules)
            write(top, "x/.gitignore", inner)
            steps = walk([str(top)], exclude)
            walked = {step.path for step in steps if isinstance(step, Found)}
            assert {path for path in paths if obstacle(path, str(top), exclude) is None} == walked


_RULES = (
    ("", ""),
    ("a.py\n", ""),
    ("x/\n", "!b.py\n"),
    ("*.py\n!b.py\n", "!a.py\n"),
    ("/a.py\n!/x/\n", "y/\n"),
)
