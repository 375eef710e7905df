"""`loom define` and `loom describe`, each in a process of its own."""

import json
import os
import subprocess
import sys
from pathlib import Path

import pytest

import loom

MAIN = "import sys; from loom.cli.main import run; sys.exit(run(sys.argv[1:]))"
ROOT = str(Path(loom.__file__).parent.parent)  # that of the package under test


@pytest.fixture
def run(tmp_path):
    (tmp_path / "a.py").write_text("from b import Thing\nThing().go()\nif Thing( :\n")
    (tmp_path / "b.py").write_text('class Thing:\n    """A thing."""\n    def go(self): pass\n')

    def run(*arguments, code=0):
        done = subprocess.run(
            [sys.executable, "-P", "-c", MAIN, *arguments, "--db", str(tmp_path / "db.sqlite3")],
            cwd=tmp_path,
            env=os.environ | {"PYTHONPATH": ROOT},
            capture_output=True,
            text=True,
            timeout=120,
        )
        assert done.returncode == code, done.stderr
        return done

    return run


def test_a_definition_in_another_file_over_an_empty_database(run, tmp_path):
    done = run("define", "a.py:2:9", "--deadline", "100")
    assert done.stdout == f"{tmp_path}/b.py:3:9: method Thing.go\n"
    assert done.stderr == ""
    # What was scanned for it is there now.
    assert "go" in run("symbols", "b.py").stdout


def test_a_definition_as_json(run, tmp_path):
    done = run("define", "a.py:2:1", "--deadline", "100", "--json")
    assert json.loads(done.stdout) == {
        "path": "a.py",
        "line": 2,
        "column": 1,
        "name": "Thing",
        "partial": False,
        "definitions": [
            {
                "path": f"{tmp_path}/b.py",
                "url": f"file://{tmp_path}/b.py",
                "line": 1,
                "column": 7,
                "kind": "class",
                "scope": "",
                "name": "Thing",
            }
        ],
    }


def test_the_import_itself(run, tmp_path):
    done = run("define", "a.py:2:2", "--stop-at-import", "--deadline", "100")
    assert done.stdout == f"{tmp_path}/a.py:1:15: import Thing\n"


def test_a_deadline_that_is_over_at_once(run):
    done = run("define", "a.py:2:9", "--deadline", "0", code=1)
    assert (done.stdout, "partial" in done.stderr) == ("", True)
    done = run("define", "a.py:2:9", "--deadline", "0", "--json", code=1)
    assert json.loads(done.stdout)["partial"] is True


def test_no_name_and_no_definition(run, tmp_path):
    done = run("define", "a.py:9:1", "--deadline", "100", code=1)
    assert "no name at a.py:9:1" in done.stderr
    (tmp_path / "c.py").write_text("unknown\n")
    done = run("define", "c.py:1:1", "--deadline", "100", code=1)
    assert "no definition of 'unknown'" in done.stderr


@pytest.mark.parametrize(
    ("position", "remark"),
    [
        ("a.py", "FILE:LINE:COL"),
        ("a.py:1", "FILE:LINE:COL"),
        ("a.py:0:1", "count from 1"),
        ("a.py:1:0", "count from 1"),
        ("gone.py:1:1", "there is no file gone.py"),
    ],
)
def test_what_is_no_position(run, position, remark):
    assert remark in run("define", position, code=2).stderr


def test_describe(run, tmp_path):
    done = run("describe", "b.Thing", "--deadline", "100")
    assert done.stdout.splitlines() == [
        f"{tmp_path}/b.py:1:7: class Thing",
        "    order: Thing > object",
        "    doc: A thing.",
    ]
    done = run("describe", "Thing.go", "--in", "a.py", "--json", "--deadline", "100")
    (found,) = json.loads(done.stdout)["descriptions"]
    assert (found["kind"], found["signatures"]) == ("method", ["(self)"])


def test_describe_nothing(run):
    done = run("describe", "b.Nothing", "--deadline", "100", code=1)
    assert "isn't known" in done.stderr
