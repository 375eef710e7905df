"""Helpers that are real processes: killed at every stage, given files that nobody can scan."""

import os
import signal
import subprocess
import sys
from pathlib import Path

import pytest
from realkit import (
    RealScan,
    bad_command,
    contents,
    loc_of,
    scan_alone,
    scans_in,
    wait_for_end,
)

import loom
from loom.cli import main as cli_main
from loom.helper import launch, support
from loom.helper import link as link_module

# What a helper may have at a time, and so what is scanned again if it goes.
kMostOut = 64


@pytest.fixture(scope="module")
def top(tmp_path_factory):
    """A tree of some 100 files."""
    top = tmp_path_factory.mktemp("real") / "tree"
    for number in range(100):
        path = top / f"p{number % 7}" / f"m{number:03}.py"
        path.parent.mkdir(parents=True, exist_ok=True)
        functions = "".join(f"def f{i}(a, b=1):\n    x{i} = a\n" for i in range(number % 30))
        path.write_text(f"import os\nclass C{number}:\n    pass\n{functions}")
        os.utime(path, (1_700_000_000 + number,) * 2)
    (top / "broken.py").write_text("def f(:\n  ]\n")
    (top / "notutf8.py").write_bytes(b"x = '\xff'\n")
    for name in ("broken.py", "notutf8.py"):
        os.utime(top / name, (1_700_000_000,) * 2)
    return top


@pytest.fixture(scope="module")
def alone(top, tmp_path_factory):
    """What a scan without helpers finds in it."""
    db_path = tmp_path_factory.mktemp("alone") / "info.sqlite3"
    scan_alone(top, db_path)
    return contents(db_path)


@pytest.fixture
def notes(tmp_path):
    """Where a bad helper takes its notes."""
    folder = tmp_path / "notes"
    folder.mkdir()
    return folder


@pytest.fixture
def real(top, db_path):
    """Make a scan of the tree, or of another one; it is closed in the end."""
    scans = []

    def make(folder=top, **options):
        scans.append(RealScan(folder, db_path, **options))
        return scans[-1]

    yield make
    for scan in scans:
        scan.close()


def test_a_helper_finds_what_a_scan_alone_finds(real, db_path, alone):
    scan = real()
    counts = scan.run()
    assert (counts.scanned, counts.failed) == (102, 0)
    assert max(scan.stored.values()) == 1
    scan.close()
    assert contents(db_path) == alone


@pytest.mark.parametrize("options", [{"share": True}, {"count": 3}, {"count": 2, "share": True}])
def test_so_do_several_and_the_first_process(real, db_path, alone, options):
    scan = real(**options)
    scan.run()
    assert max(scan.stored.values()) == 1
    scan.close()
    assert contents(db_path) == alone


def test_all_the_work_of_a_helper_without_share_is_done_there(real, notes, top):
    scan = real(command=bad_command(notes))
    scan.run()
    assert sum(scans_in(notes).values()) == 102


def test_what_has_not_changed_is_not_scanned_again(real, notes, top):
    scan = real()
    scan.run()
    scan.close()
    scan = real(command=bad_command(notes))
    counts = scan.run()
    assert counts.unchanged == 102
    assert counts.scanned == 0
    assert not scans_in(notes)


# --- kills


def check_nothing_lost(scan, notes, db_path, alone):
    counts = scan.run()
    assert counts.scanned == 102
    assert max(scan.stored.values()) == 1
    again = [name for name, times in scans_in(notes).items() if times > 1]
    assert len(again) <= kMostOut * (len(scan.handles) - 1)
    scan.close()
    assert contents(db_path) == alone


def test_killed_before_the_handshake(real, notes, db_path, alone):
    good = bad_command(notes)
    commands = [lambda arguments: ["/bin/sh", "-c", "kill -9 $$"]]

    def command(arguments):
        return (commands.pop() if commands else good)(arguments)

    check_nothing_lost(real(command=command), notes, db_path, alone)


def test_killed_while_idle(real, notes, db_path, alone, top):
    scan = real(command=bad_command(notes))
    scan.run()
    os.kill(scan.handles[0].pid, signal.SIGKILL)
    scan.app.coordinator.ask_for([loc_of(top / "p1" / "m001.py")])
    os.utime(top / "p1" / "m001.py", (1_700_000_001,) * 2)
    counts = scan.run()
    assert counts.scanned == 0
    scan.close()
    assert contents(db_path) == alone


@pytest.mark.parametrize("after", [1, 30, 102])
def test_killed_while_the_first_process_stores(real, notes, db_path, alone, after):
    scan = real(command=bad_command(notes))

    def hook(loc):
        if sum(scan.stored.values()) == after:
            os.kill(scan.handles[0].pid, signal.SIGKILL)

    scan.hook = hook
    check_nothing_lost(scan, notes, db_path, alone)


@pytest.mark.parametrize("how", ["kill", "half"])
def test_killed_while_scanning_and_in_the_middle_of_a_frame(tmp_path, real, notes, how):
    top = make_tree(tmp_path, [f"a{i:02}" for i in range(40)] + [f"{how}_once"])
    scan = real(top, command=bad_command(notes))
    counts = scan.run()
    assert counts.scanned == 41
    assert scan.errors == {}
    assert max(scan.stored.values()) == 1
    assert scans_in(notes)[f"{how}_once"] == 2


def make_tree(folder, names):
    top = folder / "tree"
    top.mkdir()
    for name in names:
        path = top / f"{name}.py"
        path.write_text(f"def in_{name}():\n    pass\n")
        os.utime(path, (1_700_000_000,) * 2)
    return top


# --- files that nobody can scan


def test_a_file_that_crashes_the_scanner_is_set_aside(
    tmp_path, real, notes, db_path, caplog, capsys
):
    top = make_tree(tmp_path, [f"a{i:02}" for i in range(20)] + ["segv_x", "kill_y"])
    scan = real(top, command=bad_command(notes), share=False)
    counts = scan.run()
    assert (counts.scanned, counts.failed) == (20, 2)
    assert "SIGSEGV" in scan.errors["segv_x"]
    assert "SIGKILL" in scan.errors["kill_y"]
    assert scans_in(notes)["segv_x"] == scans_in(notes)["kill_y"] == 2
    assert "Fatal Python error: Segmentation fault" in caplog.text
    assert "bad_helper.py" in caplog.text  # the trace tells where
    scan.close()
    assert cli_main.run(["why", str(top / "segv_x.py"), "--db", str(db_path)]) == 1
    said = capsys.readouterr().out
    assert "failed" in said and "SIGSEGV" in said and "digest" in said
    # Not tried again as it is; tried again when it has changed.
    scan = real(top, command=bad_command(notes))
    counts = scan.run()
    assert counts.scanned == counts.failed == 0
    assert counts.unchanged == 22
    (top / "segv_x.py").write_text("x = 1\n")
    scan.close()
    scan = real(top)
    counts = scan.run()
    assert (counts.scanned, counts.failed) == (1, 0)


def test_a_scan_that_hangs_is_ended_and_set_aside(tmp_path, real, notes, monkeypatch, caplog):
    monkeypatch.setattr(link_module, "kHangSeconds", 0.5)
    monkeypatch.setattr(support, "_kWatchMilliseconds", 50)
    # Starting takes longer than that.
    monkeypatch.setattr(link_module.Link, "check_health", patient(link_module.Link.check_health))
    top = make_tree(tmp_path, ["a", "b", "hang_x"])
    scan = real(top, command=bad_command(notes))
    counts = scan.run()
    assert (counts.scanned, counts.failed) == (2, 1)
    assert "came to no end" in scan.errors["hang_x"]
    assert "hang_x.py" in caplog.text


def patient(check_health):
    def check(link):
        if link.is_ready:
            check_health(link)

    return check


def test_a_scan_that_eats_memory_ends_itself(tmp_path, real, notes):
    top = make_tree(tmp_path, ["a", "b", "eat_x", "z"])
    scan = real(top, command=bad_command(notes))
    counts = scan.run()
    assert (counts.scanned, counts.failed) == (3, 1)
    assert "MemoryError" in scan.errors["eat_x"]


# --- versions and garbage


def shell(text):
    return lambda arguments: ["/bin/bash", "-c", text.replace("FD", arguments[1])]


@pytest.mark.parametrize(
    ("text", "why"),
    [
        (r"printf '\000\000\000\017\223\253loom-helper\175\001' >&FD; read x", "version 125"),
        (r"echo 'bash: loom: command not found' >&FD; read x", "garbage"),
        ("exit 3", "exit code 3"),
        ("echo what is this >&2; exit 4", "what is this"),
    ],
)
def test_something_else_instead_of_a_helper(real, db_path, alone, text, why, caplog, monkeypatch):
    monkeypatch.setattr("loom.helper.backoff._kFirstSeconds", 0.0001)
    scan = real(command=shell(text))
    scan.run_until(scan.support, "given-up")
    assert why in caplog.text
    assert scan.run().scanned == 102
    scan.close()
    assert contents(db_path) == alone


def start_helper(*arguments, **options):
    command = launch.own_command(arguments)
    return subprocess.Popen(
        command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE, **options
    )


def test_a_helper_refuses_a_first_process_of_another_version():
    process = start_helper()
    out, err = process.communicate(b"\0\0\0\x0f\x93\xabloom-helper\x7d\x01")
    assert process.returncode == 76
    assert b"version 125 of the protocol" in err
    assert out.startswith(b"\0\0\0\x0f\x93\xabloom-helper")


def test_a_helper_refuses_garbage():
    process = start_helper()
    _, err = process.communicate(b"GET / HTTP/1.1\r\n\r\n")
    assert process.returncode == 76
    assert b"garbage" in err


def test_a_helper_ends_with_its_input():
    process = start_helper()
    process.communicate(b"")
    assert process.returncode == 0


def test_a_helper_is_nothing_for_people():
    process = start_helper("--what")
    _, err = process.communicate()
    assert process.returncode == 2
    assert b"started by the program itself" in err


# --- the end of the first process

_kParent = """
import sys
sys.path[:0] = sys.argv[1:3]
from loom.mainloop.asyncio_loop import AsyncioMainLoop
from loom.helper.launch import LocalHelper
from guiutils import lgtk
from pathlib import Path
from realkit import bad_command, loc_of
from loom.helper import messages
from loom.helper.frames import Framer
main_loop = AsyncioMainLoop()
lgtk.SetMainLoop(main_loop)
helper = LocalHelper(main_loop.loop, bad_command(Path(sys.argv[3])))
framer = Framer()
heard = []
def hear(data):
    heard.append(data)
    if len(heard) == 1 and len(sys.argv) > 4:
        job = messages.Job(1, sys.argv[4].encode(), True, None)
        helper.stream.send(framer.frame(messages.greeting()))
        helper.stream.send(framer.frame(messages.AddPairs([job], False)))
        helper.stream.flush()
        return
    print(helper.pid, flush=True)
helper.stream.on_bytes = hear
helper.stream.start()
main_loop.loop.run_forever()
"""


@pytest.mark.skipif(not hasattr(os, "pidfd_open"), reason="needs pidfd_open to wait for a stranger")
@pytest.mark.parametrize("busy", [False, True])
def test_a_helper_ends_with_a_first_process_that_is_killed(tmp_path, notes, busy):
    root = Path(loom.__file__).resolve().parent.parent
    paths = [str(root / "loom" / "hostpath"), str(root)]
    code = _kParent.replace("sys.argv[1:3]", "sys.argv[1:3] + [HERE]")
    code = code.replace("HERE", repr(str(Path(__file__).resolve().parent)))
    arguments = [str(notes)]
    if busy:
        arguments.append(str(make_tree(tmp_path, ["hang_x"]) / "hang_x.py"))
    parent = subprocess.Popen(
        [sys.executable, "-O", "-P", "-c", code, *paths, *arguments], stdout=subprocess.PIPE
    )
    helper_pid = int(parent.stdout.readline())
    pid_fd = os.pidfd_open(helper_pid)
    parent.kill()
    parent.wait()
    wait_for_end(pid_fd)
    os.close(pid_fd)
    parent.stdout.close()


def test_a_helper_ends_with_the_app(real):
    scan = real()
    scan.run()
    (handle,) = scan.handles
    scan.close()
    with pytest.raises(ProcessLookupError):
        os.kill(handle.pid, 0)


def test_ctrl_c_is_the_first_processes(real, alone, db_path):
    scan = real()
    scan.hook = lambda _loc: os.kill(scan.handles[0].pid, signal.SIGINT)
    scan.run()
    assert len(scan.handles) == 1
    scan.close()
    assert contents(db_path) == alone
