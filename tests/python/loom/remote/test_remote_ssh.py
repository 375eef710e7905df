"""Files over SSH: a real client against a real server."""

from __future__ import annotations

import ipaddress
import os
import signal
import sys
import threading
from dataclasses import replace
from pathlib import Path

import asyncssh
import pytest
from loombase.inspection import CFileKind, StateOf
from loombase.location import CServerName, CSshFileLocation
from sshserver import SshServer, find_sshd

from loom.app import App
from loom.ignore import parse_patterns
from loom.mainloop.asyncio_loop import AsyncioMainLoop
from loom.remote.options import RemoteOptions, RemotePatience
from loom.remote.requests import ListFolder, StatFile
from loom.remote.server import ServerPhase
from loom.remote.walk import RemoteWalk
from loom.scansession import ScanSession
from loom.walk import Found, FoundRemote, Waiting, walk

# A last resort: what is waited for here takes a fraction of a second.
_DEADLINE_SECONDS = 60


class Host:
    """A whole host on an asyncio loop, which runs until something has happened."""

    def __init__(self, folder: Path, options: RemoteOptions) -> None:
        self.main_loop = AsyncioMainLoop()
        self.app = App(folder / "info.sqlite3", self.main_loop)
        self.app.coordinator._fAnalyzeFoundImports = False
        self.files = self.app.ana_mgr.fLocationDataCache.SetUpRemote(options)
        self.stored: list[tuple[str, str | None]] = []
        self.app.info_cache.connect("file-stored", self._note)

    def _note(self, cache, loc, record) -> None:
        self.stored.append((loc.path, record.error))

    def run(self) -> None:
        """Run until `stop` is called."""
        loop = self.main_loop.loop
        late = loop.call_later(_DEADLINE_SECONDS, self._too_late)
        self._is_late = False
        loop.run_forever()
        late.cancel()
        assert not self._is_late, "what was waited for never came"

    def stop(self, *_anything: object) -> None:
        self.main_loop.loop.stop()

    def _too_late(self) -> None:
        self._is_late = True
        self.stop()

    def until(self, emitter, name, condition=lambda *args: True) -> None:
        """Run until an object emits a signal for which the condition holds."""

        def check(*args):
            if condition(*args):
                emitter.disconnect(connection)
                self.stop()

        connection = emitter.connect(name, check)
        self.run()

    def inspect(self, *locs) -> bool:
        aborts: list[bool] = []
        self.files.inspect(locs, lambda abort: (aborts.append(abort), self.stop()), force=True)
        self.run()
        assert len(aborts) == 1
        return aborts[0]

    def server(self, server: SshServer):
        return self.files.server(CServerName("", "127.0.0.1", server.port))

    def session(self, *paths) -> ScanSession:
        session = ScanSession(self.app, [str(path) for path in paths])
        session.start()
        return session

    def close(self) -> None:
        self.app.destroy()
        self.main_loop.close()


@pytest.fixture
def make_host(tmp_path):
    hosts = []

    def make(server, **changes):
        patience = RemotePatience(**{"first_retry": 0.05, "last_retry": 0.1, **changes})
        options = RemoteOptions(config=server.config, patience=patience)
        hosts.append(Host(tmp_path, options))
        return hosts[-1]

    yield make
    for host in hosts:
        host.close()


@pytest.fixture
def host(make_host, ssh_server):
    return make_host(ssh_server)


@pytest.fixture
def tree(tmp_path):
    """A tree with something of all that a walk meets."""
    top = tmp_path / "tree é"
    files = {
        ".gitignore": "ignored.py\n/skipped/\n*.pyw\n!kept.pyw\n",
        "a.py": "def in_a(): pass\n", "ignored.py": "", "x.pyw": "", "kept.pyw": "",
        "skipped/b.py": "", "sub/skipped/c.py": "", "sub/d.pyi": "", "sub/notes.txt": "",
        "script": "#!/usr/bin/env python3\nx = 1\n", "other": "#!/bin/sh\n", "empty": "",
        "build/e.py": "", "pkg/build/__init__.py": "", "node_modules/f.py": "",
        "env/pyvenv.cfg": "", "env/lib/g.py": "", "sub/.gitignore": "!ignored.py\nno/\n",
        "sub/ignored.py": "", "sub/no/h.py": "", "a b%20#?.py": "", "out.egg-info/i.py": "",
    }
    for name, text in files.items():
        path = top / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text)
    os.close(os.open(os.fsencode(top) + b"/\xff.py", os.O_CREAT | os.O_WRONLY))
    (top / "link.py").symlink_to(top / "a.py")
    (top / "loop").symlink_to(top)
    (top / "nowhere.py").symlink_to(top / "gone")
    os.mkfifo(top / "pipe.py")
    return top


def far(server, path):
    return CSshFileLocation(CServerName("", "127.0.0.1", server.port), str(path))


def slices_of(app):
    return len(app.coordinator.slices)


# --- requests


def test_files_are_inspected(host, ssh_server, tree):
    names = ("a.py", "sub", "gone.py", "link.py", "pipe.py", "nowhere.py", "a.py/x", "\udcff.py")
    locs = [far(ssh_server, tree / name) for name in names]
    assert host.inspect(*locs) is False
    kinds = [StateOf(loc).kind for loc in locs]
    file, folder, absent = CFileKind.FILE, CFileKind.FOLDER, CFileKind.ABSENT
    assert kinds == [file, folder, absent, file, CFileKind.OTHER, absent, absent, file]
    status = os.stat(tree / "a.py")
    state = StateOf(locs[0])
    assert (state.size, state.mtime_ns // 10**9) == (status.st_size, int(status.st_mtime))


@pytest.mark.parametrize("size", [0, 1, 70_000, 256 * 1024, 256 * 1024 + 1, 1_000_000])
@pytest.mark.parametrize("known", [True, False])
def test_files_are_read(host, ssh_server, tmp_path, size, known):
    data = os.urandom(size)
    (tmp_path / "data.py").write_bytes(data)
    loc = far(ssh_server, tmp_path / "data.py")
    if known:
        host.inspect(loc)
    pending = host.files.read(loc, 2_000_000, host.stop)
    assert pending.content is None
    host.run()
    assert pending.content.data == data and pending.content.whole
    assert pending.content.state.size == size
    pending.close()


def test_no_more_is_read_than_was_asked_for(host, ssh_server, tmp_path):
    (tmp_path / "data.py").write_bytes(b"x" * 1000)
    for limit, whole in ((999, False), (1000, True)):
        pending = host.files.read(far(ssh_server, tmp_path / "data.py"), limit, host.stop)
        host.run()
        assert (len(pending.content.data), pending.content.whole) == (limit, whole)
        pending.close()


def test_a_file_that_is_bigger_than_its_inspection_said_is_read_to_its_end(
    host, ssh_server, tmp_path
):
    (tmp_path / "data.py").write_bytes(b"x" * 10)
    loc = far(ssh_server, tmp_path / "data.py")
    host.inspect(loc)
    (tmp_path / "data.py").write_bytes(b"y" * 300_000)
    pending = host.files.read(loc, 1_000_000, host.stop)
    host.run()
    assert pending.content.data == b"y" * 300_000
    assert StateOf(loc).size == 300_000
    pending.close()


def test_what_can_not_be_read_says_why(host, ssh_server, tree):
    for name, reason, gone in (("gone.py", "No such file", True), ("sub", "Failure", False)):
        pending = host.files.read(far(ssh_server, tree / name), 1000, host.stop)
        host.run()
        assert reason in str(pending.error) and pending.error.gone is gone
        assert not pending.error.server_failed
        pending.close()


def test_folders_of_many_entries_are_listed(host, ssh_server, tmp_path):
    for number in range(1000):
        (tmp_path / f"m{number}.py").touch()
    outcomes = []
    host.server(ssh_server).ask(
        ListFolder(os.fsencode(tmp_path), lambda outcome: (outcomes.append(outcome), host.stop()))
    )
    host.run()
    (entries,) = outcomes
    assert {os.fsdecode(entry.name) for entry in entries} == set(os.listdir(tmp_path))


# --- walks


@pytest.mark.parametrize("exclude", [None, ["sub/", "!node_modules"]])
@pytest.mark.parametrize("repository", [False, True])
def test_a_remote_walk_finds_what_a_local_one_does(
    host, ssh_server, tree, tmp_path, exclude, repository
):
    patterns = parse_patterns(exclude) if exclude else None
    if repository:
        (tmp_path / ".git" / "info").mkdir(parents=True)
        (tmp_path / ".git" / "info" / "exclude").write_text("script\n")
        (tmp_path / ".gitignore").write_text("d.pyi\n")
    remote_walk = RemoteWalk(host.files, [far(ssh_server, tree)], patterns, host.stop)
    remote = []
    for step in remote_walk.steps():
        if isinstance(step, Waiting):
            host.run()
        elif step is not None:
            remote.append(step)
    local = [step for step in walk([str(tree)], patterns) if isinstance(step, Found)]
    assert all(isinstance(step, FoundRemote) for step in remote)
    assert sorted(step.loc.path for step in remote) == sorted(step.path for step in local)
    assert len(local) >= 6


# --- scans


def test_a_tree_is_scanned_and_then_nothing_of_it(host, ssh_server, tree):
    url = ssh_server.url + str(tree)
    for path in tree.rglob("*"):
        if path.is_file():
            os.utime(path, (1_600_000_000, 1_600_000_000))
    session = host.session(url)
    host.until(session, "finished")
    assert session.counts.errors == []
    assert session.counts.scanned == len(host.stored) == session.counts.found
    host.app.coordinator.ClearLastScanInfo([far(ssh_server, path) for path, _ in host.stored])
    again = host.session(url)
    host.until(again, "finished")
    assert (again.counts.scanned, again.counts.reread) == (0, 0)
    assert again.counts.unchanged == session.counts.found


def test_no_call_on_the_main_thread_waits(host, ssh_server, tree):
    seen = []
    active = True

    def audit(event, args):
        if not active or threading.current_thread() is not threading.main_thread():
            return
        if event in ("socket.connect", "socket.sendto", "socket.sendmsg"):
            seen.append((event, args[0].gettimeout()))
        elif event in ("socket.gethostbyname", "time.sleep", "subprocess.Popen"):
            seen.append((event, None))
        elif event == "socket.getaddrinfo":
            ipaddress.ip_address(args[0])  # of a number nobody is asked

    sys.addaudithook(audit)  # for good; it can't be taken away
    session = host.session(ssh_server.url + str(tree))
    host.until(session, "finished")
    active = False
    assert session.counts.scanned > 5
    assert seen == [("socket.connect", 0.0)]


def test_a_cut_connection_is_made_anew_and_the_scan_goes_on(make_host, own_ssh_server, tree):
    # Nothing is to blame for these cuts, however often it is the oldest request.
    host = make_host(own_ssh_server, reads=2, tries=100)
    server = host.server(own_ssh_server)
    stops, cuts = [], []
    server.connect("server-stopped", stops.append)
    for number in range(100):
        (tree / f"n{number}.py").write_text(f"v{number} = 1\n")

    def cut(cache, loc, record):
        due = len(stops) == len(cuts) < 3 and len(host.stored) >= 10 + 30 * len(cuts)
        if due and server.phase is ServerPhase.CONNECTED:
            cuts.append(len(host.stored))
            own_ssh_server.signal_sessions(signal.SIGKILL)

    host.app.info_cache.connect("file-stored", cut)
    session = host.session(own_ssh_server.url + str(tree))
    host.until(session, "finished")
    assert session.counts.errors == [] and len(stops) == len(cuts) >= 1
    assert session.counts.scanned == session.counts.found > 100


def test_a_stopped_server_parks_its_scans_and_local_ones_go_on(
    make_host, own_ssh_server, tree, tmp_path
):
    host = make_host(own_ssh_server)
    for number in range(50):
        (tree / f"n{number}.py").write_text(f"v{number} = 1\n")
    session = host.session(own_ssh_server.url + str(tree))
    host.until(host.app.info_cache, "file-stored")
    own_ssh_server.signal_sessions(signal.SIGSTOP)
    local = tmp_path / "local"
    local.mkdir()
    for number in range(50):
        (local / f"l{number}.py").write_text("x = 1\n")
    other = host.session(local)
    done = []
    host.until(
        host.app.info_cache, "file-stored",
        lambda cache, loc, record: done.append(loc) or
        sum(loc.path.startswith(str(local)) for loc in done) == 50,
    )
    own_ssh_server.signal_sessions(signal.SIGCONT)
    host.until(session, "finished")
    assert session.counts.errors == other.counts.errors == []
    assert host.app.coordinator.GetStatus().waiting_count == 0


def test_a_silent_server_counts_as_waiting_until_it_is_reached_another_way(
    make_host, own_ssh_server, tree
):
    host = make_host(own_ssh_server, answer=0.4)
    server = host.server(own_ssh_server)
    for number in range(50):
        (tree / f"n{number}.py").write_text(f"v{number} = 1\n")
    session = host.session(own_ssh_server.url + str(tree))
    host.until(host.app.info_cache, "file-stored")
    own_ssh_server.signal_sessions(signal.SIGSTOP)
    host.until(server, "status-changed", lambda server: server.phase is ServerPhase.PAUSED)
    assert server.failure == "no answer for 0.4 seconds"
    assert host.app.coordinator.GetStatus().waiting_count > 0
    host.until(session, "finished")  # over a new connection: the old one is stopped still
    assert session.counts.errors == []
    own_ssh_server.signal_sessions(signal.SIGKILL)


def test_a_server_that_is_gone_ends_the_scan_with_errors(make_host, own_ssh_server, tree):
    host = make_host(own_ssh_server, give_up=0.5)
    for number in range(50):
        (tree / f"n{number}.py").write_text(f"v{number} = 1\n")
    session = host.session(own_ssh_server.url + str(tree))
    host.until(host.app.info_cache, "file-stored")
    own_ssh_server.stop()
    host.until(session, "finished")
    counts = session.counts
    assert counts.errors and counts.failed + counts.scanned == counts.found
    assert counts.scanned >= 1
    own_ssh_server.start()
    host.server(own_ssh_server)._given_up_at = float("-inf")  # as after a long pause
    again = host.session(own_ssh_server.url + str(tree))
    host.until(again, "finished")
    assert again.counts.errors == []


# --- connections that can't be


@pytest.fixture
def fails(tmp_path, tree, ssh_server):
    """The reason why a server is given up at once, with other options."""
    hosts = []

    def reason(url_server=None, **changes):
        options = replace(RemoteOptions(config=ssh_server.config), **changes)
        host = Host(tmp_path, options)
        hosts.append(host)
        loc = CSshFileLocation(
            url_server or CServerName("", "127.0.0.1", ssh_server.port), str(tree)
        )
        assert host.inspect(loc) is True
        server = host.files.server(loc.server)
        assert server.phase is ServerPhase.GIVEN_UP
        return server.failure

    yield reason
    for host in hosts:
        host.close()


def test_a_server_whose_key_is_not_known_is_refused(fails, tmp_path):
    (tmp_path / "empty").write_text("")
    reason = fails(known_hosts=tmp_path / "empty")
    assert "the server's key isn't trusted" in reason and "known hosts" in reason


def test_a_server_whose_key_has_changed_is_refused(fails, tmp_path, ssh_server):
    other = asyncssh.generate_private_key("ssh-ed25519").export_public_key().decode()
    (tmp_path / "changed").write_text(f"[127.0.0.1]:{ssh_server.port} {other}")
    assert "the server's key isn't trusted" in fails(known_hosts=tmp_path / "changed")


def test_trusting_any_key_can_not_be_configured(fails, tmp_path, ssh_server, monkeypatch):
    monkeypatch.setenv("HOME", str(tmp_path))  # with no known hosts
    (tmp_path / "config").write_text(
        f"Host *\nIdentityFile {ssh_server.identity}\nUserKnownHostsFile none\n"
        "StrictHostKeyChecking no\n"
    )
    assert "the server's key isn't trusted" in fails(config=tmp_path / "config")


def test_a_key_that_does_not_fit_is_refused_and_nothing_is_prompted_for(fails, tmp_path):
    key = tmp_path / "key"
    asyncssh.generate_private_key("ssh-ed25519").write_private_key(key)
    assert "log-in refused" in fails(identity=key)


def test_a_key_with_a_passphrase_is_no_use_and_says_so(fails, tmp_path):
    key = tmp_path / "key"
    asyncssh.generate_private_key("ssh-ed25519").write_private_key(
        key, "pkcs8-pem", passphrase="secret"
    )
    assert "passphrase" in fails(identity=key).lower()


def test_nobody_listens(fails):
    assert fails(CServerName("", "127.0.0.1", 1)) == "Connection refused"


def test_no_such_host(fails):
    assert "no such host" in fails(CServerName("", "does-not-exist.invalid", 0))


def test_a_bad_configuration_is_told(fails, tmp_path):
    (tmp_path / "bad").write_text("Port many\n")
    assert "many" in fails(config=tmp_path / "bad")


# --- the end


def test_a_host_that_ends_in_the_middle_of_things_leaves_no_noise(
    make_host, ssh_server, tree, caplog, recwarn
):
    host = make_host(ssh_server)
    session = host.session(ssh_server.url + str(tree))
    host.until(host.app.info_cache, "file-stored")
    host.server(ssh_server).ask(StatFile(b"/", lambda outcome: None))
    session.destroy()
    host.close()
    assert not [record for record in caplog.records if record.levelname in ("WARNING", "ERROR")]
    assert not recwarn.list


def test_one_that_ends_before_it_is_connected(make_host, ssh_server, tree, caplog):
    host = make_host(ssh_server)
    host.files.want(far(ssh_server, tree))
    host.close()
    assert not [record for record in caplog.records if record.levelname in ("WARNING", "ERROR")]


def test_a_machine_without_sshd_is_told_what_to_install(monkeypatch):
    monkeypatch.setattr("sshserver.shutil.which", lambda *args, **kwargs: None)
    with pytest.raises(RuntimeError, match="apt-get install openssh-server"):
        find_sshd()
