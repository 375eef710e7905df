"""Finding files: which are Python, which are left out, and what survives."""

import os
import subprocess

import pytest
from loombase.mime import kPythonSuffixes

from loom.ignore import EXCLUDED_FOLDERS, parse_patterns
from loom.walk import Entered, Entering, Found, Problem, is_left_out, walk, walk_below


@pytest.fixture
def tree(tmp_path):
    """A folder to fill: `tree("a/b.py", {"c.py": "content"}, ...)` returns its path."""

    def fill(*names):
        for name in names:
            files = name if isinstance(name, dict) else {name: ""}
            for file, content in files.items():
                path = tmp_path / file
                path.parent.mkdir(parents=True, exist_ok=True)
                path.write_text(content)
        return tmp_path

    return fill


def found(top, *paths, exclude=()):
    """Names of the files found below `top`, and the problems."""
    names, problems = [], []
    for step in walk([str(path) for path in paths or [top]], parse_patterns(exclude)):
        if isinstance(step, Found):
            names.append(os.path.relpath(step.path, top))
        elif isinstance(step, Problem):
            problems.append((os.path.relpath(step.path, top), step.reason))
    assert len(names) == len(set(names))
    return names, problems


# --- what is Python


def test_python_files_by_suffix_in_order_of_names(tree):
    top = tree("b.py", "a.pyi", "c.pyw", "d/x.py", "d/a/y.py", "e.txt", "f.pyc", "g.py.bak", "Z.py")
    assert found(top) == (["Z.py", "a.pyi", "b.py", "c.pyw", "d/x.py", "d/a/y.py"], [])


def test_python_scripts_by_their_first_line(tree):
    top = tree(
        {
            "plain": "#!/usr/bin/python3\n",
            "env": "#!/usr/bin/env python3.12 -u\n",
            "env-options": "#!/usr/bin/env -S PYTHONHASHSEED=0 python\n",
            "spaces": "#! /usr/local/bin/python\t-O\n",
            "pypy": "#!/opt/pypy3\n",
            "no-newline": "#!python",
            "crlf": "#!/usr/bin/python\r\nprint()\r\n",
            "shell": "#!/bin/sh\n# python\n",
            "pythonish": "#!/usr/bin/pythonista\n",
            "late": "\n#!/usr/bin/python\n",
            "empty": "",
            "tool.sh": "#!/usr/bin/python3\n",
        }
    )
    names, problems = found(top)
    assert sorted(names) == sorted(
        ["plain", "env", "env-options", "spaces", "pypy", "no-newline", "crlf"]
    )
    assert problems == []


def test_a_file_given_by_name_is_taken_whatever_it_is_called_and_whatever_the_rules_say(tree):
    top = tree({".gitignore": "*.py\n"}, "notes.txt", "node_modules/a.py", "b.py")
    given = [top / "notes.txt", top / "node_modules/a.py", top / "b.py", top]
    assert found(top, *given, exclude=["*.txt"])[0] == ["notes.txt", "node_modules/a.py", "b.py"]


def test_each_file_is_found_once_however_often_it_is_given(tree):
    top = tree("a/x.py", "a/b/y.py", "z.py")
    assert found(top, top / "a/b", top / "z.py", top / "z.py", top, top / "a") == (
        ["z.py", "a/b/y.py", "a/x.py"],
        [],
    )


def test_named_tells_what_was_given_by_name(tree):
    top = tree("a.py", "b.py")
    steps = [step for step in walk([str(top / "b.py"), str(top)]) if isinstance(step, Found)]
    assert steps == [Found(str(top / "b.py"), True), Found(str(top / "a.py"), False)]


# --- what is left out by default


@pytest.mark.parametrize("name", sorted(EXCLUDED_FOLDERS))
def test_default_folders_are_left_out(tree, name):
    top = tree(f"{name}/x.py", f"sub/{name}/sub/x.py", "kept.py")
    assert found(top) == (["kept.py"], [])


@pytest.mark.parametrize("mark", ["pyvenv.cfg", "conda-meta/history"])
def test_virtual_environments_are_left_out_by_what_they_hold(tree, mark):
    top = tree(f"my-env/{mark}", "my-env/lib/x.py", "env/x.py")
    assert found(top) == (["env/x.py"], [])


def test_build_results_are_left_out_but_a_package_of_that_name_is_not(tree):
    top = tree("build/lib/x.py", "dist/x.py", "src/build/__init__.py", "src/build/x.py")
    top = tree("thing.egg-info/x.py")
    assert found(top)[0] == ["src/build/__init__.py", "src/build/x.py"]


def test_a_folder_given_by_name_is_entered_whatever_it_is(tree):
    top = tree("node_modules/a.py", "env/pyvenv.cfg", "env/b.py", "build/c.py")
    assert found(top, top / "node_modules", top / "env", top / "build")[0] == [
        "node_modules/a.py",
        "env/b.py",
        "build/c.py",
    ]


def test_a_file_named_like_a_default_folder_is_a_file(tree):
    top = tree({"node_modules": "#!/usr/bin/python\n"})
    assert found(top)[0] == ["node_modules"]


# --- .gitignore


def test_gitignore_of_each_level_is_honoured(tree):
    top = tree(
        {".gitignore": "/top_only.py\ngenerated/\n*_pb2.py\n"},
        {"sub/.gitignore": "local.py\n!kept_pb2.py\n"},
        "top_only.py",
        "sub/top_only.py",
        "sub/local.py",
        "local.py",
        "a_pb2.py",
        "sub/b_pb2.py",
        "sub/kept_pb2.py",
        "sub/generated/x.py",
        "generated/x.py",
    )
    assert found(top)[0] == ["local.py", "sub/kept_pb2.py", "sub/top_only.py"]


def test_gitignore_above_the_given_folder_counts_up_to_the_repository(tree):
    top = tree(
        {".gitignore": "*.py\n"},
        {"repo/.gitignore": "a.py\n/sub/b.py\n/other/\n"},
        {"repo/.git/info/exclude": "private.py\n"},
        "repo/sub/a.py",
        "repo/sub/b.py",
        "repo/sub/private.py",
        "repo/sub/c.py",
    )
    assert found(top, top / "repo/sub")[0] == ["repo/sub/c.py"]


def test_without_a_repository_nothing_above_the_given_folder_counts(tree):
    top = tree({".gitignore": "*.py\n"}, "sub/a.py")
    assert found(top, top / "sub")[0] == ["sub/a.py"]


def test_an_ignored_folder_that_is_given_by_name_is_scanned(tree):
    top = tree({".gitignore": "/out\n"}, {".git/HEAD": ""}, "out/deep/a.py", "b.py")
    assert found(top)[0] == ["b.py"]
    assert found(top, top / "out")[0] == ["out/deep/a.py"]
    assert found(top, top / "out/deep")[0] == ["out/deep/a.py"]


def test_bad_patterns_in_a_gitignore_are_passed_over(tree):
    top = tree({".gitignore": "[z-a]\n!\n\\\nignored.py\n"}, "ignored.py", "a.py")
    assert found(top) == (["a.py"], [])


def test_a_gitignore_with_a_byte_order_mark_or_other_bytes(tmp_path):
    (tmp_path / ".gitignore").write_bytes(b"\xef\xbb\xbfa.py\r\n\xff.py\r\n")
    for name in (b"a.py", b"\xff.py", b"b.py"):
        with open(os.fsencode(tmp_path) + b"/" + name, "wb"):
            pass
    assert found(tmp_path) == (["b.py"], [])


def test_a_gitignore_that_is_a_folder_a_pipe_or_unreadable_is_none(tree):
    top = tree(".gitignore/x.txt", "a.py", "sub/b.py")
    os.mkfifo(top / "sub/.gitignore")
    assert found(top) == (["a.py", "sub/b.py"], [])


def test_the_rules_agree_with_git(tree):
    """Git itself says what it would leave out of a tree with patterns of many forms."""
    patterns = ["*.tmp.py", "/root.py", "doc/*.py", "**/deep", "a/**/z.py", "!keep.tmp.py"]
    patterns.append("b[0-5].py")
    names = [
        f"{folder}{name}"
        for folder in ("", "doc/", "doc/sub/", "a/", "a/b/", "a/b/c/", "deep/", "x/deep/y/")
        for name in ("x.tmp.py", "keep.tmp.py", "root.py", "z.py", "b3.py", "b7.py", "plain.py")
    ]
    top = tree(*names, {".gitignore": "\n".join(patterns)}, {"a/.gitignore": "!b3.py\nplain.py\n"})
    git = ["git", "-C", str(top)]
    subprocess.run([*git, "init", "-q"], check=True)
    listed = subprocess.run(
        [*git, "ls-files", "--others", "--exclude-standard"], check=True, capture_output=True
    )
    expected = [name for name in os.fsdecode(listed.stdout).split() if name.endswith(".py")]
    assert sorted(found(top)[0]) == sorted(expected)


# --- --exclude


def test_exclude_adds_to_the_defaults(tree):
    top = tree("a.py", "test/x.py", "sub/test/y.py", "sub/b.py", "node_modules/z.py")
    assert found(top, exclude=["test/", "/a.py"])[0] == ["sub/b.py"]


def test_a_negated_exclude_keeps_what_other_rules_leave_out(tree):
    top = tree({".gitignore": "*_gen.py\n"}, "a_gen.py", "b_gen.py", "build/x.py", "dist/y.py")
    assert found(top, exclude=["!a_gen.py", "!build"])[0] == ["a_gen.py", "build/x.py"]


def test_exclude_is_relative_to_each_given_folder(tree):
    top = tree("one/a.py", "two/a.py", "two/sub/a.py")
    assert found(top, top / "one", top / "two", exclude=["/a.py"])[0] == ["two/sub/a.py"]


@pytest.mark.parametrize("pattern", ["!", "[z-a]"])
def test_a_bad_exclude_is_named(pattern):
    with pytest.raises(ValueError, match="not a pattern: "):
        parse_patterns(["good", pattern])


# --- odd file systems


def test_loops_of_links_are_survived(tree):
    top = tree("a/x.py")
    (top / "a/up").symlink_to(top)
    (top / "self").symlink_to(top / "self")
    (top / "self.py").symlink_to(top / "self.py")
    (top / "one.py").symlink_to(top / "two.py")
    (top / "two.py").symlink_to(top / "one.py")
    assert found(top) == (["a/x.py"], [])


def test_links_to_files_are_followed_and_to_nowhere_passed_over(tree):
    top = tree("real/x.py")
    (top / "link.py").symlink_to(top / "real/x.py")
    (top / "broken.py").symlink_to(top / "missing.py")
    assert found(top) == (["link.py", "real/x.py"], [])


def test_a_given_folder_may_be_a_link(tree):
    top = tree("real/x.py")
    (top / "link").symlink_to(top / "real")
    assert found(top, top / "link") == (["link/x.py"], [])


def test_pipes_and_sockets_are_never_opened(tree):
    top = tree("a.py")
    os.mkfifo(top / "pipe.py")
    os.mkfifo(top / "script")
    assert found(top) == (["a.py"], [])
    assert found(top, top / "pipe.py") == ([], [("pipe.py", "neither a file nor a folder")])


def test_what_is_missing_is_reported_and_the_rest_goes_on(tree):
    top = tree("a.py")
    assert found(top, top / "missing", top) == (
        ["a.py"],
        [("missing", "No such file or directory")],
    )


def test_an_unreadable_folder_is_reported_and_the_rest_goes_on(tree, monkeypatch):
    top = tree("a/x.py", "b/y.py", "c/z.py")
    scandir = os.scandir

    def refuse(path):
        if path.endswith("/b"):
            raise PermissionError(13, "Permission denied", path)
        return scandir(path)

    monkeypatch.setattr(os, "scandir", refuse)  # whoever runs the tests may be allowed anything
    assert found(top) == (["a/x.py", "c/z.py"], [("b", "Permission denied")])


def test_a_folder_that_vanishes_during_the_walk_is_reported(tree):
    top = tree("a/x.py", "b/y.py")
    steps = walk([str(top)])
    names = []
    for step in steps:
        if isinstance(step, Found):
            names.append(step.path)
            (top / "b/y.py").unlink()
            (top / "b").rmdir()
        elif isinstance(step, Problem):
            assert step == Problem(str(top / "b"), "No such file or directory")
            break
    assert names == [str(top / "a/x.py")]


def test_names_that_are_not_utf8_are_found(tmp_path):
    name = os.fsencode(tmp_path) + b"/\xff\xfe.py"
    with open(name, "wb"):
        pass
    steps = walk([str(tmp_path)])
    assert [os.fsencode(step.path) for step in steps if isinstance(step, Found)] == [name]


def test_a_folder_is_walked_in_steps_however_large(tree):
    """Between two steps few entries are looked at, so that the caller keeps the time."""
    top = tree(*(f"{i:04}.txt" for i in range(1000)), *(f"{i:04}.py" for i in range(10)))
    steps = list(walk([str(top)]))
    assert sum(step is None for step in steps) >= 2 * (1010 // 200)
    assert sum(isinstance(step, Found) for step in steps) == 10


def test_a_walk_that_is_closed_leaves_nothing_open(tree):
    top = tree(*(f"{i:04}.txt" for i in range(500)))
    steps = walk([str(top)])
    next(steps)
    steps.close()  # an open folder would be a ResourceWarning, which is an error here


def test_suffixes_agree_with_what_the_scheduler_takes_for_python():
    assert {".py", ".pi", ".pyi"} <= kPythonSuffixes


# --- for those who follow changes


def test_a_folder_is_announced_before_it_is_listed(tree):
    """What appears in it after the announcement is found, or seen by whoever began to follow."""
    top = tree("a/x.py")
    names = []
    for step in walk([str(top)]):
        if isinstance(step, Entering):
            (top / "late.py").touch()
            (top / "a/late.py").touch()
        elif isinstance(step, Found):
            names.append(os.path.relpath(step.path, top))
    assert names == ["late.py", "a/late.py", "a/x.py"]


def test_each_folder_comes_with_the_rules_for_what_is_in_it(tree):
    top = tree({".gitignore": "no.py"}, "a/no.py", {"b/.gitignore": "!no.py"}, "b/no.py")
    steps = list(walk([str(top)]))
    assert [step.path for step in steps if isinstance(step, Entering)] == [
        str(top),
        str(top / "a"),
        str(top / "b"),
    ]
    assert {step.root for step in steps if isinstance(step, Entering)} == {str(top)}
    for step in steps:
        if isinstance(step, Entered) and step.path != str(top):
            no_py = os.path.join(step.path, "no.py")
            left_out = is_left_out(no_py, str(top), step.rules, None, is_folder=False)
            assert left_out is (step.path == str(top / "a"))
            assert step.kept


def test_a_folder_that_is_left_out_for_its_content_is_listed_and_not_kept(tree):
    top = tree("env/pyvenv.cfg", "env/lib/x.py", "node_modules/x.py")
    steps = list(walk([str(top)]))
    kept = {step.path: step.kept for step in steps if isinstance(step, Entered)}
    assert kept == {str(top): True, str(top / "env"): False}


def test_a_part_of_a_tree_is_walked_again_by_the_rules_that_hold_for_it(tree):
    top = tree({".gitignore": "no.py"}, {"a/.gitignore": "also.py"}, "a/no.py", "a/also.py")
    tree("a/b/yes.py", "a/b/no.py", "a/b/named.py", "a/env/pyvenv.cfg", "a/env/x.py")
    (rules,) = [
        step.rules
        for step in walk([str(top)])
        if isinstance(step, Entered) and step.path == str(top)
    ]
    steps = walk_below(str(top / "a"), str(top), rules, None, {str(top / "a/b/named.py")})
    paths = [step.path for step in steps if isinstance(step, Found)]
    assert paths == [str(top / "a/b/yes.py")]
