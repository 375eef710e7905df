"""An OpenSSH server of one's own on the loopback interface."""

from __future__ import annotations

import os
import shutil
import signal
import socket
import subprocess
import threading
from pathlib import Path
from typing import Self

import asyncssh

# A last resort: what is waited for here comes within a second.
_DEADLINE_SECONDS = 60

# Runs a command until its own input ends, so that a server doesn't outlive tests that are killed.
_WHILE_INPUT_IS_OPEN = """
exec 3<&0
"$@" 3<&- & it=$!
{ read -r _ <&3; kill -KILL $it; } 2>/dev/null &
wait $it
"""

_CONFIG = """\
ListenAddress 127.0.0.1
Port {port}
HostKey {folder}/host_key
PidFile none
AuthorizedKeysFile {folder}/authorized_keys
AuthenticationMethods publickey
PubkeyAuthentication yes
PasswordAuthentication no
KbdInteractiveAuthentication no
PermitRootLogin prohibit-password
StrictModes no
UsePAM no
PrintMotd no
MaxStartups 100
Subsystem sftp internal-sftp
LogLevel VERBOSE
"""


def find_sshd() -> str:
    """The server's program. Raises `RuntimeError` that tells what to install."""
    found = shutil.which("sshd", path=os.pathsep.join((os.environ["PATH"], "/usr/sbin")))
    if found is None:
        raise RuntimeError("the tests of remote files need sshd: apt-get install openssh-server")
    return found


class SshServer:
    """`sshd` in the foreground, with keys and configuration in `folder`.

    `url` is that of the server without a path. The fields `config`, `identity` and `known_hosts`
    are files for a client; the latter holds the server's key.
    """

    def __init__(self, folder: Path) -> None:
        self._program = find_sshd()
        self._folder = folder
        self._process: subprocess.Popen[str] | None = None
        self._listener: threading.Thread | None = None
        self._said: list[str] = []
        self.port = _free_port()
        self.url = f"ssh://127.0.0.1:{self.port}"
        self.identity = folder / "identity"
        self.known_hosts = folder / "known_hosts"
        self.config = folder / "ssh_config"
        host_key = asyncssh.generate_private_key("ssh-ed25519")
        user_key = asyncssh.generate_private_key("ssh-ed25519")
        host_key.write_private_key(folder / "host_key")
        user_key.write_private_key(self.identity)
        for private in (folder / "host_key", self.identity):
            private.chmod(0o600)
        (folder / "authorized_keys").write_bytes(user_key.export_public_key())
        self.known_hosts.write_text(
            f"[127.0.0.1]:{self.port} {host_key.export_public_key().decode()}"
        )
        self.config.write_text(
            f"Host 127.0.0.1\nIdentityFile {self.identity}\nIdentityAgent none\n"
            f"UserKnownHostsFile {self.known_hosts}\n"
        )
        (folder / "sshd_config").write_text(_CONFIG.format(port=self.port, folder=folder))

    def start(self) -> None:
        """Start it and wait until it listens. Raises `RuntimeError` with what it said if not."""
        if os.geteuid() == 0:
            os.makedirs("/run/sshd", mode=0o755, exist_ok=True)  # where it locks itself in
        self._process = subprocess.Popen(
            ["sh", "-c", _WHILE_INPUT_IS_OPEN, "sh", self._program, "-D", "-e", "-f", str(self._folder / "sshd_config")],
            stdin=subprocess.PIPE,
            stderr=subprocess.PIPE,
            text=True,
        )
        self._said = []
        settled = threading.Event()
        self._listener = threading.Thread(target=self._listen, args=(self._process, settled))
        self._listener.start()
        if not settled.wait(_DEADLINE_SECONDS) or self._process.poll() is not None:
            self.stop()
            raise RuntimeError("sshd doesn't start: " + "".join(self._said))

    def _listen(self, process: subprocess.Popen[str], settled: threading.Event) -> None:
        """Take what it says, or it would stop when the pipe is full."""
        assert process.stderr is not None
        with process.stderr:
            for line in process.stderr:
                self._said.append(line)
                if "Server listening on" in line:
                    settled.set()
        process.wait(_DEADLINE_SECONDS)
        settled.set()

    def sessions(self) -> list[int]:
        """The processes that serve connections."""
        assert self._process is not None
        return [pid for child in _children(self._process.pid) for pid in _children(child)]

    def signal_sessions(self, number: signal.Signals) -> None:
        """Send a signal to all processes that serve connections."""
        for session in self.sessions():
            for pid in (*_children(session), session):
                try:
                    os.kill(pid, number)
                except ProcessLookupError:
                    pass  # it has just ended

    def stop(self) -> None:
        """Kill it with all its sessions. It may be started again at the same port."""
        process = self._process
        if process is None:
            return
        self.signal_sessions(signal.SIGKILL)
        assert process.stdin is not None
        process.stdin.close()
        process.wait(_DEADLINE_SECONDS)
        assert self._listener is not None
        self._listener.join(_DEADLINE_SECONDS)
        self._process = None

    def __enter__(self) -> Self:
        self.start()
        return self

    def __exit__(self, *_error: object) -> None:
        self.stop()


def _children(pid: int) -> list[int]:
    try:
        text = Path(f"/proc/{pid}/task/{pid}/children").read_text()
    except FileNotFoundError:
        return []  # it has just ended
    return [int(each) for each in text.split()]


def _free_port() -> int:
    with socket.socket() as probe:
        probe.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        probe.bind(("127.0.0.1", 0))
        port = probe.getsockname()[1]
        assert isinstance(port, int)
        return port
