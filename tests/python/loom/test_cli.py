"""The `loom` command from outside, each time in a process of its own."""

import errno
import json
import os
import pty
import subprocess
import sys
from pathlib import Path

import pytest

import loom.__main__

KEYS = {
    "database",
    "interrupted",
    "files",
    "imported",
    "definitions",
    "bytes",
    "seconds",
    "bytes_per_second",
    "slices",
    "errors",
}

# Runs the command line with a clock that makes each slice one file long, and lets a signal come
# when so many files are stored.
INTERRUPT_AFTER = """
import os, sys, time
from loom.bootstrap import ensure_host_path
ensure_host_path()
from pysource import _fastaccess
from pysource.scopeinfo import CInfoCache
number, files, *arguments = sys.argv[1:]
stored, add_file = [], CInfoCache.AddFile
def count(self, loc, record):
    add_file(self, loc, record)
    stored.append(loc)
    if len(stored) == int(files):
        os.kill(os.getpid(), int(number))
CInfoCache.AddFile = count
setattr(_fastaccess, "__TimeFunc", lambda: time.time() + len(stored))
from loom.cli.main import run
sys.exit(run(arguments))
"""


@pytest.fixture
def env(tmp_path):
    env = os.environ | {"XDG_CACHE_HOME": str(tmp_path / "cache"), "TERM": "xterm"}
    for name in ("NO_COLOR", "LOOM_KEEP_DEBUG_CHECKS", "COLUMNS"):
        env.pop(name, None)
    return env


@pytest.fixture
def project(tmp_path):
    """A small project to scan, which is also the working folder of the commands."""
    top = tmp_path / "project"
    (top / "pkg").mkdir(parents=True)
    (top / "pkg/shapes.py").write_text(
        "class Shape:\n    sides = 0\n\n    def area(self):\n        return 0\n\n\n"
        "def make():\n    pass\n"
    )
    (top / "main.py").write_text("from pkg.shapes import make\n\nresult = make()\n")
    return top


@pytest.fixture
def loom_run(env, project):
    def run(*arguments, **options):
        return subprocess.run(
            [sys.executable, "-P", "-m", "loom", *arguments],
            env=env,
            cwd=project,
            stdin=subprocess.DEVNULL,
            **{"capture_output": True, "text": True, "check": False, **options},
        )

    return run


def scan_json(result):
    document = json.loads(result.stdout)
    assert document.keys() == KEYS
    return document


# --- starting


def test_version(loom_run):
    result = loom_run("--version")
    assert result.returncode == 0
    assert result.stdout.startswith("loom ")


def test_help_names_the_commands_and_exit_codes(loom_run):
    result = loom_run("--help")
    assert result.returncode == 0
    for word in ("scan", "watch", "status", "why", "symbols", "find", "130 interrupted"):
        assert word in result.stdout


def test_a_quick_answer_loads_nothing_heavy(env, project):
    result = subprocess.run(
        [sys.executable, "-X", "importtime", "-P", "-m", "loom", "--version"],
        env=env,
        cwd=project,
        capture_output=True,
        text=True,
        check=True,
    )
    loaded = {line.rpartition("|")[2].strip() for line in result.stderr.splitlines()}
    assert "click" in loaded
    assert not loaded & {"rich", "sqlite3", "asyncio", "pysource", "pathspec"}


@pytest.mark.parametrize("options", [[], ["-O"], ["-O", "-P"]])
def test_modules_in_the_working_folder_are_data_and_not_code(env, project, options):
    names = ["click", "json", "typing", "cache", "singleton", "rich", "asyncio"]
    for name in names:
        (project / f"{name}.py").write_text("raise SystemExit('taken from the working folder')\n")
    result = subprocess.run(
        [sys.executable, *options, "-m", "loom", "scan", "--json"],
        env=env | {"PYTHONPATH": str(Path(loom.__file__).parent.parent)},
        cwd=project,
        capture_output=True,
        text=True,
        check=False,
    )
    assert result.stderr == ""
    assert scan_json(result)["files"]["scanned"] == len(names) + 2


def test_the_command_starts_again_without_debug_checks(monkeypatch):
    calls = []
    monkeypatch.setattr(os, "execv", lambda *args: calls.append(args))
    monkeypatch.setattr(sys, "argv", ["loom", "scan", "a b"])
    monkeypatch.setattr(sys, "_xoptions", {"dev": True, "frozen_modules": "off"})
    monkeypatch.setattr(sys, "warnoptions", ["error"])
    loom.__main__._start_again_without_debug_checks()
    [(program, arguments)] = calls
    assert program == arguments[0] == sys.executable
    assert arguments[1:3] == ["-O", "-P"]
    assert arguments[-3:] == [str(Path(loom.__main__.__file__).absolute()), "scan", "a b"]
    joined = " ".join(arguments)
    assert "-X dev -X frozen_modules=off -W error" in joined


@pytest.mark.parametrize(("keep", "expected"), [("1", "True"), ("", "False")])
def test_debug_checks_can_be_kept(env, project, tmp_path, keep, expected):
    """A sitecustomize of the test tells in which mode the command line is reached."""
    (tmp_path / "sitecustomize.py").write_text(
        "import atexit, sys\natexit.register(lambda: print('debug', __debug__, file=sys.stderr))\n"
    )
    path = os.pathsep.join([str(tmp_path), env.get("PYTHONPATH", "")])
    result = subprocess.run(
        [sys.executable, "-P", "-m", "loom", "--version"],
        env=env | {"LOOM_KEEP_DEBUG_CHECKS": keep, "PYTHONPATH": path},
        cwd=project,
        capture_output=True,
        text=True,
        check=True,
    )
    assert result.stderr == f"debug {expected}\n"


# --- wrong usage


@pytest.mark.parametrize(
    "arguments",
    [
        ["nonsense"],
        ["--nonsense"],
        ["scan", "missing-folder"],
        ["scan", "--exclude", "[z-a]"],
        ["scan", "--db", "."],
        ["find"],
        ["find", "x", "--limit", "0"],
        ["symbols"],
        ["symbols", "a", "b"],
    ],
)
def test_wrong_usage_exits_with_2_and_says_so(loom_run, arguments):
    result = loom_run(*arguments)
    assert result.returncode == 2
    assert result.stdout == ""
    assert "Error: " in result.stderr
    assert "Traceback" not in result.stderr


# --- scan


def test_scan_tells_what_it_did(loom_run, project, tmp_path):
    result = loom_run("scan")
    assert result.returncode == 0, result.stderr
    lines = [line.split(None, 1) for line in result.stdout.splitlines()]
    told = {words[0]: words[1] for words in lines}
    assert told["files"] == "2 scanned, 0 unchanged"
    assert told["definitions"] == "5"
    assert told["database"] == str(tmp_path / "cache/loom/info.sqlite3")
    assert "median" in told["slices"] and "longest" in told["slices"]
    assert "MB/s" in told["speed"]


def test_a_second_scan_parses_nothing(loom_run):
    loom_run("scan", check=True)
    document = scan_json(loom_run("scan", "--json"))
    assert document["files"]["found"] == 2
    assert document["files"]["scanned"] == 0
    assert document["files"]["unchanged"] == 2
    assert document["bytes"] == 0


def test_a_changed_file_is_scanned_alone(loom_run, project):
    loom_run("scan", check=True)
    with open(project / "main.py", "a") as file:
        file.write("more = 1\n")
    document = scan_json(loom_run("scan", "--json"))
    assert document["files"]["scanned"] == 1
    assert document["bytes"] == (project / "main.py").stat().st_size


def test_json_is_one_document_with_all_figures(loom_run, project, tmp_path):
    result = loom_run("scan", "--json", "--db", "own.sqlite3", ".")
    assert result.returncode == 0
    document = scan_json(result)
    assert document["database"] == str(project / "own.sqlite3")
    assert document["files"] == {
        "found": 2,
        "all_found": True,
        "scanned": 2,
        "unchanged": 0,
        "reread": 0,
        "failed": 0,
        "vanished": 0,
        "left": 0,
        "with_errors": 0,
    }
    imported = document["imported"]
    assert imported["found"] == imported["scanned"] > 0  # the builtins
    assert imported["definitions"] > 0
    assert imported["bytes"] > 0
    assert imported["errors"] == []
    assert document["definitions"] == 5
    assert document["bytes"] == sum(file.stat().st_size for file in project.rglob("*.py"))
    assert document["slices"]["count"] >= 1
    assert document["slices"]["longest_seconds"] >= document["slices"]["median_seconds"] > 0
    assert document["interrupted"] is False
    assert not (tmp_path / "cache").exists()


def test_files_with_errors_are_findings_and_the_others_are_scanned(loom_run, project):
    (project / "broken.py").write_text("def good():\n    pass\n\n\nclass (:\n")
    (project / "binary.py").write_bytes(b"\0\1\2" * 100)
    result = loom_run("scan", "--json")
    assert result.returncode == 1
    document = scan_json(result)
    errors = {Path(error["path"]).name: error for error in document["errors"]}
    assert errors.keys() == {"broken.py", "binary.py"}
    assert errors["broken.py"]["line"] == 5
    assert all(error["reason"] for error in errors.values())
    assert document["files"]["scanned"] + document["files"]["failed"] == 4
    assert loom_run("find", "good").returncode == 0


def test_errors_are_shown_in_text_and_can_be_no_findings(loom_run, project):
    (project / "broken.py").write_text("class (:\n")
    result = loom_run("scan", "--exit-zero")
    assert result.returncode == 0
    assert result.stdout.startswith(f"{project / 'broken.py'}:1: ")


def test_a_file_given_by_name_is_scanned_whatever_it_is_called(loom_run, project):
    (project / "notes.txt").write_text("def in_notes():\n    pass\n")
    assert scan_json(loom_run("scan", "--json", "notes.txt"))["files"]["scanned"] == 1
    assert "notes.txt:1: function in_notes" in loom_run("find", "in_notes").stdout


def test_exclude_and_gitignore_are_honoured(loom_run, project):
    (project / ".gitignore").write_text("main.py\n")
    assert scan_json(loom_run("scan", "--json"))["files"]["found"] == 1
    assert scan_json(loom_run("scan", "--json", "--exclude", "pkg/"))["files"]["found"] == 0
    assert scan_json(loom_run("scan", "--json", "--exclude", "!main.py"))["files"]["found"] == 2


def test_nothing_to_scan_is_no_failure(loom_run, project, tmp_path):
    (tmp_path / "empty").mkdir()
    result = loom_run("scan", "--json", str(tmp_path / "empty"))
    assert result.returncode == 0
    assert scan_json(result)["files"]["found"] == 0


def test_odd_names_are_scanned_found_and_printed_byte_for_byte(loom_run, project):
    name = b"\xff odd\nname %#?.py"
    with open(os.fsencode(project) + b"/" + name, "wb") as file:
        file.write(b"def oddly():\n    pass\n")
    assert scan_json(loom_run("scan", "--json"))["files"]["scanned"] == 3
    result = loom_run("find", "oddly", text=False)
    assert result.stdout == os.fsencode(project) + b"/" + name + b":1: function oddly\n"
    [found] = json.loads(loom_run("find", "oddly", "--json").stdout)["definitions"]
    assert os.fsencode(found["path"]) == os.fsencode(project) + b"/" + name


@pytest.mark.parametrize("interpreter", [[sys.executable], [sys.executable, "-O"]])
@pytest.mark.parametrize(("number", "code"), [(2, 130), (15, 143)])
def test_interrupted_with_everything_scanned_so_far_saved(
    env, project, loom_run, interpreter, number, code
):
    for i in range(20):
        (project / f"m{i:02}.py").write_text(f"def f{i}():\n    pass\n")
    result = subprocess.run(
        [*interpreter, "-P", "-c", INTERRUPT_AFTER, str(number), "5", "scan", "--json", "--no-imports"],
        env=env,
        cwd=project,
        capture_output=True,
        text=True,
        check=False,
    )
    assert result.returncode == code
    assert result.stderr == "loom: stopping: saving what was scanned so far\n"
    document = scan_json(result)
    assert document["interrupted"] is True
    scanned, left = document["files"]["scanned"], document["files"]["left"]
    assert 5 <= scanned < 22
    assert scanned + left == 22
    again = scan_json(loom_run("scan", "--json", "--no-imports"))
    assert again["files"]["unchanged"] == scanned
    assert again["files"]["scanned"] == left


def test_no_control_sequences_without_a_terminal(loom_run, project):
    (project / "broken.py").write_text("class (:\n")
    for arguments in (["scan"], ["find", "make"], ["symbols", "main.py"]):
        result = loom_run(*arguments)
        assert result.stdout
        assert "\x1b" not in result.stdout + result.stderr


def test_verbose_twice_shows_the_scheduler_s_own_log(loom_run):
    result = loom_run("scan", "--json", "-vv")
    assert "Starting primary whole file scan" in result.stderr
    scan_json(result)
    assert loom_run("scan", "-v").stderr.count("Starting primary whole file scan") == 0


# --- terminals


def on_terminal(command, env, cwd):
    """Run a command on a terminal of its own; returns its exit code and all that it wrote."""
    master, slave = pty.openpty()
    process = subprocess.Popen(command, env=env, cwd=cwd, stdin=slave, stdout=slave, stderr=slave)
    os.close(slave)
    written = b""
    try:
        while chunk := os.read(master, 65536):
            written += chunk
    except OSError as error:
        if error.errno != errno.EIO:  # how a terminal says that nobody is on it any more
            raise
    finally:
        os.close(master)
    return process.wait(), written


@pytest.mark.parametrize(("no_color", "coloured"), [("", True), ("1", False)])
def test_colours_on_a_terminal_unless_NO_COLOR_is_set(env, project, no_color, coloured):
    (project / "broken.py").write_text("class (:\n")
    command = [sys.executable, "-P", "-m", "loom"]
    code, written = on_terminal([*command, "scan"], env | {"NO_COLOR": no_color}, project)
    assert code == 1
    assert b"3 scanned" in written
    assert (b"\x1b[33m" in written) is coloured
    code, written = on_terminal([*command, "find", "make"], env | {"NO_COLOR": no_color}, project)
    assert code == 0
    assert (b"\x1b[36m" in written) is coloured


def test_a_file_name_cannot_drive_the_terminal(env, project):
    with open(project / "\x1b]0;owned\x07.py", "w") as file:
        file.write("def evil():\n    pass\n")
    command = [sys.executable, "-P", "-m", "loom"]
    on_terminal([*command, "scan"], env, project)
    code, written = on_terminal([*command, "find", "evil"], env, project)
    assert code == 0
    assert b"\x1b]0;owned" not in written
    assert b"\\x1b]0;owned\\x07.py" in written


# --- symbols and find


def test_symbols_shows_scopes_and_definitions_with_lines(loom_run):
    loom_run("scan", check=True)
    result = loom_run("symbols", "pkg/shapes.py")
    assert result.returncode == 0
    assert [line.rstrip() for line in result.stdout.splitlines()] == [
        "     1  module shapes.py",
        "     1    class Shape",
        "     2      variable sides",
        "     4      method Shape.area",
        "     8    function make",
    ]


def test_symbols_as_json(loom_run, project):
    loom_run("scan", check=True)
    document = json.loads(loom_run("symbols", "--json", "pkg/shapes.py").stdout)
    assert document["scanned"] is True
    assert document["url"] == (project / "pkg/shapes.py").as_uri()
    scopes = document["scopes"]
    assert [(s["name"], s["parent"], s["kind"], s["line"]) for s in scopes] == [
        ("", -1, "module", 1),
        ("Shape", 0, "class", 1),
        ("Shape.area", 1, "method", 4),
        ("make", 0, "function", 8),
    ]
    assert {"name": "sides", "kind": "variable", "line": 2} in scopes[1]["definitions"]


def test_symbols_of_a_file_that_was_not_scanned(loom_run):
    loom_run("scan", check=True)
    result = loom_run("symbols", "elsewhere.py")
    assert (result.returncode, result.stdout) == (1, "")
    assert "elsewhere.py hasn't been scanned" in result.stderr
    result = loom_run("symbols", "--json", "elsewhere.py")
    assert result.returncode == 1
    assert json.loads(result.stdout)["scanned"] is False


@pytest.mark.parametrize(
    ("arguments", "expected"),
    [
        (["make"], ["function make"]),
        (["area"], ["method Shape.area"]),
        (["Shape.area"], ["method Shape.area"]),
        (["--prefix", "s"], ["variable Shape.sides"]),
        (["--glob", "*a*e"], ["class Shape", "function make"]),
        (["--glob", "*a*e", "--limit", "1"], ["class Shape"]),
    ],
)
def test_find(loom_run, project, arguments, expected):
    loom_run("scan", "--no-imports", check=True)
    result = loom_run("find", *arguments)
    assert result.returncode == 0
    assert [line.partition(": ")[2] for line in result.stdout.splitlines()] == expected
    found = json.loads(loom_run("find", "--json", *arguments).stdout)["definitions"]
    assert len(found) == len(expected)
    assert {Path(definition["path"]).name for definition in found} == {"shapes.py"}


def test_find_shows_the_users_own_definitions_before_those_of_libraries(loom_run, project):
    (project / "zzz.py").write_text("class OrderedDict:\n    pass\n")
    loom_run("scan", check=True)
    lines = loom_run("find", "OrderedDict").stdout.splitlines()
    assert lines[0].startswith(str(project / "zzz.py"))
    assert any("collections/__init__.pyi" in line for line in lines[1:])


def test_find_of_what_is_not_defined(loom_run):
    loom_run("scan", check=True)
    result = loom_run("find", "nowhere")
    assert (result.returncode, result.stdout) == (1, "")
    assert "'nowhere' isn't defined" in result.stderr
    result = loom_run("find", "nowhere", "--json")
    assert result.returncode == 1
    assert json.loads(result.stdout)["definitions"] == []


def test_a_reader_that_has_enough_is_no_failure(env, project, loom_run):
    (project / "many.py").write_text("".join(f"name_{i} = {i}\n" for i in range(20_000)))
    loom_run("scan", check=True)
    process = subprocess.Popen(
        [sys.executable, "-P", "-m", "loom", "find", "--prefix", "name_"],
        env=env,
        cwd=project,
        stdout=subprocess.PIPE,
        stderr=subprocess.PIPE,
    )
    process.stdout.readline()
    process.stdout.close()
    with process.stderr:
        assert process.stderr.read() == b""
    assert process.wait() == 141


def test_an_output_that_cannot_be_written_is_told_in_one_line(loom_run):
    loom_run("scan", check=True)
    with open("/dev/full", "w") as full:
        result = loom_run(
            "find", "make", capture_output=False, stdout=full, stderr=subprocess.PIPE
        )
    assert result.returncode == 70
    assert result.stderr.startswith("loom: can't write the output: ")
    assert result.stderr.count("\n") == 1


# --- databases of no use


def test_without_a_database_there_is_one_clear_line(loom_run, tmp_path):
    for command in (["find", "make"], ["symbols", "main.py"]):
        result = loom_run(*command)
        assert result.returncode == 2
        database = tmp_path / "cache/loom/info.sqlite3"
        assert result.stderr == f"loom: there is no database at {database}\n"


def test_a_damaged_database_is_set_aside_and_rebuilt(loom_run, project):
    database = project / "own.sqlite3"
    database.write_bytes(b"not a database at all, whatever it is called\n" * 100)
    result = loom_run("find", "make", "--db", "own.sqlite3")
    assert result.returncode == 2
    assert result.stderr.count("\n") == 1
    result = loom_run("scan", "--json", "--db", "own.sqlite3")
    assert result.returncode == 0
    assert scan_json(result)["files"]["scanned"] == 2
    assert "was set aside" in result.stderr
    assert len(list(project.glob("own.sqlite3.damaged-*"))) == 1
    assert loom_run("find", "make", "--db", "own.sqlite3").returncode == 0


def test_a_place_where_no_database_can_be_made(loom_run, project):
    result = loom_run("scan", "--db", "main.py/own.sqlite3")
    assert result.returncode == 2
    assert result.stderr.startswith("loom: ")
    assert result.stderr.count("\n") == 1
