"""Imports on the command line: which environment, what is told of it, what it does to the code."""

import json
import os
import subprocess
import sys
import venv

import pytest


@pytest.fixture
def project(tmp_path):
    """A project with an environment of its own, in which a package with an error is installed."""
    top = tmp_path / "project"
    top.mkdir()
    (top / "pyproject.toml").write_text("")
    (top / "main.py").write_text("import installed\n\n\ndef main():\n    pass\n")
    venv.EnvBuilder(symlinks=True).create(top / ".venv")
    [site] = top.glob(".venv/lib/*/site-packages")
    (site / "installed.py").write_text("def found():\n    pass\n\n\nclass (:\n")
    return top


@pytest.fixture
def scan(project, tmp_path):
    def scan(*arguments):
        return subprocess.run(
            [sys.executable, "-P", "-m", "loom", "scan", *arguments],
            env=os.environ | {"XDG_CACHE_HOME": str(tmp_path / "cache")},
            cwd=project,
            stdin=subprocess.DEVNULL,
            capture_output=True,
            text=True,
            check=False,
        )

    return scan


def test_imports_come_from_the_environment_of_the_project(scan, project):
    result = scan("--json")
    assert (result.returncode, result.stderr) == (0, "")
    document = json.loads(result.stdout)
    assert document["files"]["found"] == document["files"]["scanned"] == 1
    assert document["errors"] == []
    [error] = document["imported"]["errors"]
    assert error["path"].endswith("site-packages/installed.py")
    assert error["line"] == 5
    assert document["imported"]["with_errors"] == 1


def test_the_summary_tells_both(scan):
    lines = scan().stdout.splitlines()
    titles = [line.split()[0] for line in lines if line]
    assert titles[:2] == ["files", "imported"]
    assert lines[0].endswith("1 scanned, 0 unchanged")
    assert lines[1].endswith(" scanned, 0 unchanged, 1 with errors")


def test_an_error_in_a_file_that_was_asked_for_counts_although_it_was_imported(scan, project):
    [site] = project.glob(".venv/lib/*/site-packages")
    result = scan("--json", ".", str(site / "installed.py"))
    assert result.returncode == 1
    document = json.loads(result.stdout)
    assert len(document["errors"]) == 1
    assert document["imported"]["errors"] == []


def test_without_imports(scan):
    document = json.loads(scan("--json", "--no-imports").stdout)
    assert document["files"]["scanned"] == 1
    assert document["imported"]["found"] == 0


def test_the_source_of_a_stub_goes_along_unless_there_are_to_be_no_imports(scan, project):
    (project / "typed.pyi").write_text("")
    (project / "typed.py").write_text("class (:\n")
    document = json.loads(scan("--json", "typed.pyi").stdout)
    assert [error["path"] for error in document["imported"]["errors"]] == [
        str(project / "typed.py")
    ]
    document = json.loads(scan("--json", "--no-imports", "--db", "new.sqlite3", "typed.pyi").stdout)
    assert document["files"]["scanned"] == 1
    assert document["imported"]["found"] == 0


def test_another_interpreter_can_be_chosen(scan):
    document = json.loads(scan("--json", "--python", os.path.realpath(sys.executable)).stdout)
    assert document["imported"]["errors"] == []  # nothing is installed there
    assert document["imported"]["found"] > 10


def test_an_interpreter_that_does_not_work_is_wrong_usage(scan, project, tmp_path):
    broken = project / "broken"
    broken.write_text("#!/bin/sh\necho 'no such version' >&2\nexit 127\n")
    broken.chmod(0o755)
    for python, reason in ((broken, "no such version"), (project / "missing", "isn't there")):
        result = scan("--python", str(python))
        assert result.returncode == 2
        assert result.stdout == ""
        assert f"Invalid value for --python: {python}" in result.stderr
        assert reason in result.stderr
    assert scan().returncode == 0  # and nothing is left locked


def test_an_environment_of_no_use_is_told_of_once(scan, project):
    (project / ".venv/bin/python").unlink()
    (project / ".venv/bin/python").symlink_to("/nowhere/python")
    result = scan("--json")
    assert result.returncode == 0
    [line] = result.stderr.splitlines()
    assert line.startswith(f"loom: not using the environment {project}/.venv: ")
    assert json.loads(result.stdout)["imported"]["found"] > 10
