"""`loom watch`, `status` and `why` from outside; what is waited for is a line of theirs."""

import contextlib
import json
import os
import pty
import signal
import subprocess
import sys
import threading
import time

import pytest

# A last resort against a process that hangs.
DEADLINE = 60


@pytest.fixture
def env(tmp_path):
    env = os.environ | {"XDG_CACHE_HOME": str(tmp_path / "cache"), "TERM": "xterm"}
    for name in ("NO_COLOR", "LOOM_KEEP_DEBUG_CHECKS", "COLUMNS", "LINES"):
        env.pop(name, None)
    return env


@pytest.fixture
def project(tmp_path):
    top = tmp_path / "project"
    (top / "pkg").mkdir(parents=True)
    (top / "a.py").write_text("a = 1\n")
    (top / "pkg/b.py").write_text("b = 1\n")
    return top


@pytest.fixture
def loom_run(env, project):
    def run(*arguments):
        return subprocess.run(
            [sys.executable, "-P", "-m", "loom", *map(str, arguments)],
            env=env,
            cwd=project,
            stdin=subprocess.DEVNULL,
            capture_output=True,
            text=True,
            check=False,
            timeout=DEADLINE,
        )

    return run


class Watcher:
    """A `loom watch --json` under way."""

    def __init__(self, env, folder, *arguments, **options):
        self.process = subprocess.Popen(
            [sys.executable, "-P", "-m", "loom", "watch", "--no-imports", "--json"]
            + [*(arguments or ("--no-helper",))],
            env=env,
            cwd=folder,
            text=True,
            **{"stdin": subprocess.DEVNULL, "stdout": subprocess.PIPE, **options},
        )
        self.killer = threading.Timer(DEADLINE, self.process.kill)
        self.killer.start()

    def wait_for(self, kind, **what):
        """The next event of the kind with these values; those before it are passed over."""
        for line in self.process.stdout:
            event = json.loads(line)
            if event["event"] == kind and what.items() <= event.items():
                return event
        raise AssertionError(f"no {kind!r}; it ended with {self.process.wait()}")

    def close(self):
        if self.process.poll() is None:
            self.process.kill()
        self.process.wait()
        self.killer.cancel()
        if self.process.stdout is not None:
            self.process.stdout.close()


@pytest.fixture
def watching(env, project):
    """Starts watchers and ends them."""
    with contextlib.ExitStack() as stack:

        def start(*arguments, **options):
            watcher = Watcher(env, project, *arguments, **options)
            stack.callback(watcher.close)
            return watcher

        yield start


def inotify_count(pid):
    count = 0
    for name in os.listdir(f"/proc/{pid}/fd"):
        with contextlib.suppress(FileNotFoundError):
            count += os.readlink(f"/proc/{pid}/fd/{name}") == "anon_inode:inotify"
    return count


# --- watching


@pytest.mark.parametrize("helper", ["--no-helper", "--helper"])
def test_a_watched_project(watching, project, loom_run, helper):
    watcher = watching(helper)
    assert watcher.wait_for("started")["paths"] == [str(project)]
    assert watcher.wait_for("at-rest")["scanned"] == 2
    assert inotify_count(watcher.process.pid) == 1
    assert len(os.listdir(f"/proc/{watcher.process.pid}/task")) == 1
    (project / "new").mkdir()
    (project / "new/c.py").write_text("def made_later():\n    pass\n")
    watcher.wait_for("scanned", path=str(project / "new/c.py"))
    watcher.wait_for("at-rest")
    assert inotify_count(watcher.process.pid) == 1
    assert "made_later" in loom_run("find", "made_later").stdout
    (project / "a.py").unlink()
    watcher.wait_for("forgotten", path=str(project / "a.py"))
    (project / "pkg/b.py").write_text("def broken(\n")
    assert watcher.wait_for("error", path=str(project / "pkg/b.py"))["line"] == 1
    watcher.process.send_signal(signal.SIGINT)
    watcher.wait_for("ended")
    assert watcher.process.wait() == 130


@pytest.mark.parametrize(
    ("number", "code"), [(signal.SIGTERM, 143), (signal.SIGHUP, 129), (signal.SIGINT, 130)]
)
def test_a_signal_ends_it_cleanly(watching, project, number, code, loom_run):
    watcher = watching(stderr=subprocess.PIPE)
    watcher.wait_for("at-rest")
    (project / "a.py").write_text("changed = 1\n")
    watcher.wait_for("at-rest")
    watcher.process.send_signal(number)
    assert watcher.process.wait() == code
    assert watcher.process.stderr.read() == ""
    watcher.process.stderr.close()
    assert "changed" in loom_run("find", "changed").stdout


def test_nohup_is_obeyed(watching, project):
    watcher = watching(preexec_fn=lambda: signal.signal(signal.SIGHUP, signal.SIG_IGN))
    watcher.wait_for("at-rest")
    watcher.process.send_signal(signal.SIGHUP)
    (project / "a.py").write_text("changed = 1\n")
    watcher.wait_for("scanned", path=str(project / "a.py"))


def test_a_reader_that_has_had_enough_ends_it(watching, project):
    watcher = watching(stderr=subprocess.PIPE)
    watcher.wait_for("at-rest")
    watcher.process.stdout.close()
    (project / "a.py").write_text("changed = 1\n")
    assert watcher.process.wait() == 141
    assert watcher.process.stderr.read() == ""
    watcher.process.stderr.close()
    watcher.process.stdout = None


def test_a_signal_pauses_and_resumes(watching, project, loom_run):
    watcher = watching()
    watcher.wait_for("at-rest")
    watcher.process.send_signal(signal.SIGUSR1)
    watcher.wait_for("paused")
    (project / "a.py").write_text("changed = 1\n")
    assert json.loads(loom_run("status", "--json").stdout)["running"]["paused"] is True
    watcher.process.send_signal(signal.SIGUSR1)
    watcher.wait_for("resumed")
    watcher.wait_for("scanned", path=str(project / "a.py"))


def test_polling_where_it_is_asked_for(watching, project):
    watcher = watching("--poll", "0.1", "--no-helper")
    assert watcher.wait_for("polling")["seconds"] == 0.1
    watcher.wait_for("at-rest")
    assert inotify_count(watcher.process.pid) == 0
    (project / "c.py").write_text("c = 1\n")
    watcher.wait_for("scanned", path=str(project / "c.py"))


def test_the_queue_is_written_at_a_signal(watching, project, tmp_path):
    os.mkfifo(tmp_path / "dump")
    watcher = watching("--dump-queue", tmp_path / "dump", "--no-helper")
    watcher.wait_for("at-rest")
    watcher.process.send_signal(signal.SIGUSR2)
    assert (tmp_path / "dump").read_text().startswith("_CScanQueue contents:\n")
    (tmp_path / "dump").unlink()
    (tmp_path / "dump").mkdir()
    watcher.process.send_signal(signal.SIGUSR2)  # which it survives
    watcher.process.send_signal(signal.SIGUSR1)
    watcher.wait_for("paused")


# --- on a terminal


class Terminal:
    """`loom watch` with a terminal of its own."""

    def __init__(self, env, folder):
        self.master, slave = pty.openpty()
        self.process = subprocess.Popen(
            [sys.executable, "-P", "-m", "loom", "watch", "--no-imports", "--no-helper"],
            env=env,
            cwd=folder,
            stdin=slave,
            stdout=slave,
            stderr=slave,
            start_new_session=True,
            preexec_fn=lambda: _make_controlling(slave),
        )
        os.close(slave)
        self.text = ""
        self.killer = threading.Timer(DEADLINE, self.process.kill)
        self.killer.start()

    def read_until(self, words):
        while words not in self.text:
            self.text += os.read(self.master, 4096).decode()
        seen, _, self.text = self.text.partition(words)
        return seen + words

    def press(self, key):
        os.write(self.master, key.encode())

    def close(self):
        with contextlib.suppress(OSError):
            os.close(self.master)
        if self.process.poll() is None:
            self.process.kill()
        self.process.wait()
        self.killer.cancel()


def _make_controlling(descriptor):
    import fcntl
    import termios

    fcntl.ioctl(descriptor, termios.TIOCSCTTY, 0)


@pytest.fixture
def terminal(env, project):
    terminal = Terminal(env, project)
    yield terminal
    terminal.close()


def test_keys_pause_resume_and_quit(terminal, project):
    terminal.read_until("at rest, 2 folders   [p]ause [q]uit")
    terminal.press("p")
    terminal.read_until("paused, ")
    (project / "a.py").write_text("changed = 1\n")
    terminal.press("p")
    terminal.read_until("a.py")
    terminal.press("x")
    terminal.press("q")
    assert terminal.process.wait() == 0


def test_a_closed_terminal_ends_it(terminal):
    terminal.read_until("[q]uit")
    os.close(terminal.master)
    assert terminal.process.wait() == 129


def test_ctrl_c_on_a_terminal(terminal):
    terminal.read_until("[q]uit")
    terminal.press("\x03")
    assert terminal.process.wait() == 130


# --- asking


def test_status_and_why_of_a_running_watch(watching, project, loom_run):
    watcher = watching("--no-helper", "--exclude", "*eft.py")
    watcher.wait_for("at-rest")
    status = json.loads(loom_run("status", "--json").stdout)
    assert status["database"]["files"] == 2
    assert status["database"]["failed"] == 0
    assert status["running"]["pid"] == watcher.process.pid
    assert status["running"]["following"]["roots"] == [str(project)]
    text = loom_run("status").stdout
    assert f"process {watcher.process.pid}" in text
    assert "at rest" in text
    assert loom_run("status", "--dump").stdout.startswith("_CScanQueue contents:\n")
    answer = json.loads(loom_run("why", "a.py", "--json").stdout)
    assert answer["verdict"] == "scanned"
    assert answer["stored"]["definitions"] == 1
    assert abs(answer["stored"]["when"] - time.time()) < DEADLINE
    (project / "left.py").write_text("")
    left = loom_run("why", "left.py")
    assert left.returncode == 1
    assert "left.py: left out by a pattern '*eft.py' in --exclude" in left.stdout
    outside = loom_run("why", project.parent / "other.py")
    assert outside.returncode == 1
    assert "not in what is watched" in outside.stdout


def test_status_of_a_database_alone(loom_run, project):
    missing = loom_run("status")
    assert missing.returncode == 2
    assert "no database" in missing.stderr
    loom_run("scan", "--no-imports")
    status = json.loads(loom_run("status", "--json").stdout)
    assert status["running"] is status["problem"] is None
    assert status["database"]["bytes"] > 0
    assert abs(status["database"]["last_write"] - time.time()) < DEADLINE
    dump = loom_run("status", "--dump")
    assert (dump.returncode, dump.stdout) == (1, "")
    assert "no loom runs" in dump.stderr


def test_why_tells_each_fate(loom_run, project):
    (project / "bad.py").write_text("def f(\n")
    (project / "zero.py").write_bytes(b"\0")
    (project / ".gitignore").write_text("# of no use\nleft.py\n")
    (project / ".git").mkdir()
    (project / "left.py").write_text("")
    loom_run("scan", "--no-imports")
    (project / "pkg/b.py").write_text("changed = 2\n")
    (project / "late.py").write_text("")
    (project / "a.py").unlink()
    expected = {
        "bad.py": ("scanned", 0, "error in line 1"),
        "zero.py": ("failed", 1, "null byte"),
        "left.py": ("left out", 1, f"'left.py' in {project / '.gitignore'}, line 2"),
        "pkg/b.py": ("changed", 1, "another one since"),
        "late.py": ("unknown", 1, "not scanned yet"),
        "a.py": ("gone", 1, "no such file"),
        "readme.txt": ("left out", 1, "no such file"),
    }
    for name, (verdict, code, words) in expected.items():
        result = loom_run("why", name)
        assert result.stdout.splitlines()[0] == f"{project / name}: {verdict}"
        assert words in result.stdout
        assert result.returncode == code


# Runs the command line with a clock that makes each slice one file long, and sends itself a signal
# when the first file is stored.
SIGNAL_ON_THE_WAY = """
import os, signal, sys, time
from loom.bootstrap import ensure_host_path
ensure_host_path()
from pysource import _fastaccess
from pysource.scopeinfo import CInfoCache
stored, add_file = [], CInfoCache.AddFile
def send(self, loc, record):
    add_file(self, loc, record)
    stored.append(loc)
    if len(stored) == 1:
        os.kill(os.getpid(), signal.SIGUSR2)
CInfoCache.AddFile = send
setattr(_fastaccess, "__TimeFunc", lambda: time.time() + len(stored))
from loom.cli.main import run
sys.exit(run(sys.argv[1:]))
"""


def test_a_scan_writes_its_queue_at_a_signal(env, project, tmp_path):
    subprocess.run(
        [sys.executable, "-P", "-c", SIGNAL_ON_THE_WAY]
        + ["scan", "--no-imports", "--dump-queue", str(tmp_path / "dump")],
        env=env | {"PYTHONPATH": os.pathsep.join(filter(None, sys.path))},
        cwd=project,
        stdin=subprocess.DEVNULL,
        capture_output=True,
        check=True,
        timeout=DEADLINE,
    )
    dump = (tmp_path / "dump").read_text()
    assert "priority=2 count=1" in dump
    assert f"{project / 'pkg/b.py'}" in dump
