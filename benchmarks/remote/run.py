"""How long a scan of a remote tree takes, beside fetching it and beside a local scan.

    run.py [--tree FOLDER] [--delay MILLISECONDS]... [--rounds N]

The server is an sshd of our own on the loopback interface; a delay is added to each way by a proxy
in a process of its own. Prints a table; the best round counts.
"""

import argparse
import asyncio
import contextlib
import json
import os
import shutil
import subprocess
import sys
import sysconfig
import tempfile
import time
from collections.abc import Iterator
from pathlib import Path
from typing import Any, Final

_ROOT: Final = Path(__file__).resolve().parents[2]
sys.path.append(str(_ROOT))  # what is installed comes first
sys.path.append(str(_ROOT / "tests" / "python" / "loom" / "remote"))

from sshserver import SshServer

# A step that takes longer hangs.
_MOST_SECONDS: Final = 900


async def _pump(
    reader: asyncio.StreamReader, writer: asyncio.StreamWriter, seconds: float
) -> None:
    """Pass on what comes, each piece so many seconds later."""
    loop = asyncio.get_running_loop()
    while piece := await reader.read(1 << 16):
        loop.call_later(seconds, writer.write, piece)
    loop.call_later(seconds, writer.close)


async def _proxy(port: int, seconds: float) -> None:
    """Print a port, and pass on to `port` what comes there."""

    async def serve(reader: asyncio.StreamReader, writer: asyncio.StreamWriter) -> None:
        far_reader, far_writer = await asyncio.open_connection("127.0.0.1", port)
        await asyncio.gather(
            _pump(reader, far_writer, seconds), _pump(far_reader, writer, seconds)
        )

    server = await asyncio.start_server(serve, "127.0.0.1", 0)
    print(server.sockets[0].getsockname()[1], flush=True)
    await server.serve_forever()


@contextlib.contextmanager
def _delayed(server: SshServer, milliseconds: float) -> Iterator[int]:
    """The port at which the server is so far away, one way."""
    if not milliseconds:
        yield server.port
        return
    arguments = [sys.executable, __file__, "--proxy", str(server.port), str(milliseconds / 1000)]
    with subprocess.Popen(arguments, stdout=subprocess.PIPE, text=True) as proxy:
        assert proxy.stdout is not None
        try:
            yield int(proxy.stdout.readline())
        finally:
            proxy.terminate()


def _timed(*command: str) -> tuple[float, str]:
    start = time.perf_counter()
    done = subprocess.run(
        command, check=True, capture_output=True, text=True, timeout=_MOST_SECONDS, cwd=_ROOT
    )
    return time.perf_counter() - start, done.stdout


class _Case:
    """The ways of one distance. `config` is a client's configuration, `port` the server's."""

    def __init__(self, folder: Path, server: SshServer, port: int, tree: str) -> None:
        self._folder = folder
        self._tree = tree
        self._url = f"ssh://127.0.0.1:{port}{tree}"
        self._port = port
        self._config = folder / f"config{port}"
        key = server.known_hosts.read_text().partition(" ")[2]
        known = folder / f"known{port}"
        known.write_text(f"[127.0.0.1]:{port} {key}\n")
        self._config.write_text(
            f"Host *\nIdentityFile {server.identity}\nIdentityAgent none\n"
            f"UserKnownHostsFile {known}\n"
        )

    def _loom(self, place: str, db_path: Path) -> tuple[float, dict[str, Any]]:
        seconds, out = _timed(
            sys.executable, "-P", "-m", "loom", "scan", "--json", "--exit-zero", "--no-imports",
            "--ssh-config", str(self._config), "--db", str(db_path), place,
        )
        return seconds, json.loads(out)

    def measure(self) -> dict[str, float]:
        """Seconds of each way, and the longest slice of the remote scan."""
        remote_db, local_db = self._folder / "remote.db", self._folder / "local.db"
        local, _ = self._loom(self._tree, local_db)
        remote, document = self._loom(self._url, remote_db)
        again, second = self._loom(self._url, remote_db)
        assert second["files"]["scanned"] == 0, second["files"]
        copy = self._folder / "copy"
        fetch, _ = _timed(
            "sftp", "-q", "-r", "-F", str(self._config), "-P", str(self._port),
            f"127.0.0.1:{self._tree}", str(copy),
        )
        for path in (remote_db, local_db, copy):
            for each in self._folder.glob(path.name + "*"):
                shutil.rmtree(each) if each.is_dir() else each.unlink()
        return {
            "files": document["files"]["found"],
            "local": local,
            "remote": remote,
            "again": again,
            "sftp": fetch,
            "longest slice": document["slices"]["longest_seconds"],
        }


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__, allow_abbrev=False)
    parser.add_argument("--tree", default=os.path.join(sysconfig.get_path("stdlib"), "idlelib"))
    parser.add_argument("--delay", type=float, action="append", metavar="MILLISECONDS")
    parser.add_argument("--rounds", type=int, default=3)
    options = parser.parse_args()
    if shutil.which("sftp") is None:
        parser.error("this needs sftp: apt-get install openssh-client")
    tree = os.path.realpath(options.tree)
    print("| Way there and back | Files | `sftp -r` | `loom scan` | beside `sftp` | again |"
          " local | longest slice |")
    print("|---|---|---|---|---|---|---|---|")
    with tempfile.TemporaryDirectory() as name, SshServer(Path(name)) as server:
        for delay in options.delay or [0, 10]:
            with _delayed(server, delay) as port:
                case = _Case(Path(name), server, port, tree)
                rounds = [case.measure() for _ in range(options.rounds)]
            best = {key: min(each[key] for each in rounds) for key in rounds[0]}
            print(
                f"| {2 * delay:g} ms | {best['files']:,.0f} | {best['sftp']:.2f} s"
                f" | {best['remote']:.2f} s | {best['remote'] / best['sftp']:.2f}"
                f" | {best['again']:.2f} s | {best['local']:.2f} s"
                f" | {best['longest slice'] * 1e3:.1f} ms |"
            )


if __name__ == "__main__":
    if sys.argv[1:2] == ["--proxy"]:
        asyncio.run(_proxy(int(sys.argv[2]), float(sys.argv[3])))
    else:
        main()
