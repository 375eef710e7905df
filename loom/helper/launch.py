"""Starting a helper process, and seeing it to its end."""

from __future__ import annotations

import logging
import os
import signal
import socket
from collections.abc import Callable, Sequence
from typing import Final

from guiutils import lgtk
from loombase.destroyable import CDestroyable

from loom.__main__ import command_without_debug_checks
from loom.helper.statuspage import Scanning, StatusPage
from loom.helper.stream import FdIo, FdStream, Stream

__all__ = ["EarlyHelpers", "HelperHandle", "LocalHelper", "own_command"]

_log = logging.getLogger("loom.helper")

# How often a process that was killed is looked for.
_kReapMilliseconds: Final = 10

_kReadBytes: Final = 64 * 1024

# What one helper may say on standard error.
_kMostLogBytes: Final = 64 * 1024


class HelperHandle(CDestroyable):
    """A helper that was started, wherever it runs. `stream` leads to it.

    `on_gone(fate)` is called once, when the stream has ended and the process is no more; `fate`
    tells how it went. `destroy` ends it at once, without that call.
    """

    stream: Stream

    def __init__(self) -> None:
        super().__init__()
        self.on_gone: Callable[[str], object] = lambda _fate: None

    @property
    def name(self) -> str:
        """For messages."""
        raise NotImplementedError

    def scanning(self) -> Scanning | None:
        """What it is scanning, if it tells that otherwise than by messages."""
        return None

    def end(self) -> None:
        """Have the process ended, however busy it is; `on_gone` follows."""
        raise NotImplementedError


def own_command(arguments: Sequence[str]) -> list[str]:
    """The command line of a helper of this very program. Raises `OSError` if there is none."""
    command = command_without_debug_checks(["helper", *arguments])
    if not command[0]:
        raise FileNotFoundError("the interpreter doesn't know where it is")
    return command


class LocalHelper(HelperHandle):
    """A child process, over a socket pair.

    `command` makes its command line of the arguments that name the descriptors. Raises `OSError`
    if it can't be started.
    """

    def __init__(
        self, io: FdIo, command: Callable[[Sequence[str]], list[str]] = own_command
    ) -> None:
        super().__init__()
        self._io = io
        self._log_bytes = 0
        self._log_rest = b""
        self._stream_ended = False
        ours, theirs = socket.socketpair()
        page_fd = StatusPage.make_fd()
        log_fd, their_log_fd = os.pipe()
        given = (theirs.fileno(), page_fd)
        try:
            self._page = StatusPage(page_fd)
            for fd in given:
                os.set_inheritable(fd, True)
            argv = command(["--fd", str(given[0]), "--page-fd", str(page_fd)])
            self.pid = os.posix_spawn(
                argv[0],
                argv,
                os.environ,
                file_actions=[
                    (os.POSIX_SPAWN_OPEN, 0, os.devnull, os.O_RDONLY, 0),
                    (os.POSIX_SPAWN_DUP2, their_log_fd, 1),
                    (os.POSIX_SPAWN_DUP2, their_log_fd, 2),
                ],
                setsigmask=[signal.SIGINT],  # Ctrl-C reaches it, and is the first process's
            )
        except BaseException:
            ours.close()
            os.close(log_fd)
            raise
        finally:
            theirs.close()
            os.close(page_fd)
            os.close(their_log_fd)
        fd = ours.detach()
        self.stream = FdStream(io, fd, fd)
        self._log_fd: int | None = log_fd
        os.set_blocking(log_fd, False)
        io.add_reader(log_fd, self._read_log)
        self._is_reaped = False

    @property
    def name(self) -> str:
        return f"helper {self.pid}"

    def scanning(self) -> Scanning | None:
        return self._page.scanning()

    def end(self) -> None:
        self.stream.close()
        self._kill()
        if not self._reap_if_gone():
            lgtk.timeout_add_while_alive(
                _kReapMilliseconds, lambda: not self._reap_if_gone(), self
            )

    def _kill(self) -> None:
        if not self._is_reaped:
            os.kill(self.pid, signal.SIGKILL)  # not reaped, so the number is still its own

    def _reap_if_gone(self) -> bool:
        if self._is_reaped:
            return True
        pid, status = os.waitpid(self.pid, os.WNOHANG)
        if pid == 0:
            return False
        self._is_reaped = True
        self._read_log()
        self._close_log()
        self.on_gone(_fate(os.waitstatus_to_exitcode(status)))
        return True

    def _destroy_impl(self) -> None:
        self.stream.close()
        if not self._is_reaped:
            self._kill()
            os.waitpid(self.pid, 0)
            self._is_reaped = True
        self._close_log()
        self._page.close()

    # --- what it says on standard error

    def _read_log(self) -> None:
        if self._log_fd is None:
            return
        try:
            data = os.read(self._log_fd, _kReadBytes)
        except BlockingIOError:
            return
        if not data:
            self._close_log()
        lines = (self._log_rest + data).split(b"\n")
        self._log_rest = lines.pop()[:_kReadBytes] if data else b""
        for line in lines:
            if line and self._log_bytes <= _kMostLogBytes:
                self._log_bytes += len(line)
                text = line.decode(errors="backslashreplace")
                more = "" if self._log_bytes <= _kMostLogBytes else " ... and no more is logged"
                _log.warning("%s: %s%s", self.name, text, more)

    def _close_log(self) -> None:
        if self._log_fd is not None:
            self._io.remove_reader(self._log_fd)
            os.close(self._log_fd)
            self._log_fd = None


class EarlyHelpers:
    """Helpers that are started before the app that they will work for, which takes as long.

    `close` ends those that nobody took.
    """

    def __init__(self, io: FdIo, count: int) -> None:
        self._io = io
        self._started: list[LocalHelper] = []
        try:
            for _ in range(count):
                self._started.append(LocalHelper(io))
        except OSError:
            pass  # the app tries again, and says what comes of it

    def close(self) -> None:
        while self._started:
            self._started.pop().destroy()

    def take(self) -> HelperHandle:
        """One of them, or when there are no more, a new one. Raises `OSError`."""
        return self._started.pop() if self._started else LocalHelper(self._io)


def _fate(code: int) -> str:
    if code < 0:
        try:
            return f"it was ended by {signal.Signals(-code).name}"
        except ValueError:
            return f"it was ended by signal {-code}"
    return f"it ended with exit code {code}"
