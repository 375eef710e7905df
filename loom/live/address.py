"""Where the process that runs on a database listens, and how it makes sure that it is the one."""

from __future__ import annotations

import contextlib
import fcntl
import os
import socket
from collections.abc import Iterator
from pathlib import Path
from typing import Final

__all__ = ["TakenError", "at_socket", "listen", "lock", "socket_path", "unlock"]

# Bytes of a socket's path that the kernel takes.
_kLongestPath: Final = 107


class TakenError(Exception):
    """Another process listens for this database already."""


def socket_path(db_path: Path) -> Path:
    """The socket stands beside the database, whatever links lead there."""
    real = Path(os.path.realpath(db_path))
    return real.with_name(real.name + ".live")


@contextlib.contextmanager
def at_socket(path: Path) -> Iterator[str]:
    """A name of the socket's place that is short enough for the kernel."""
    if len(os.fsencode(path)) <= _kLongestPath:
        yield str(path)
        return
    folder = os.open(path.parent, os.O_PATH | os.O_DIRECTORY | os.O_CLOEXEC)
    try:
        yield f"/proc/self/fd/{folder}/{path.name}"
    finally:
        os.close(folder)


def lock(path: Path) -> int:
    """Become the one that may listen at `path`: a descriptor, to be given to `unlock`.

    The lock ends with the process, so that a socket whose lock is free is a left-over.

    Raises `TakenError`, or `OSError` if the folder can't be written.
    """
    lock_path = _lock_path(path)
    while True:
        descriptor = os.open(lock_path, os.O_RDWR | os.O_CREAT | os.O_CLOEXEC, 0o600)
        try:
            fcntl.flock(descriptor, fcntl.LOCK_EX | fcntl.LOCK_NB)
        except BlockingIOError:
            os.close(descriptor)
            raise TakenError(f"another process answers for {path}") from None
        except BaseException:
            os.close(descriptor)
            raise
        # The one before us may have removed the file that we have locked now.
        with contextlib.suppress(FileNotFoundError):
            if os.path.samestat(os.fstat(descriptor), os.stat(lock_path)):
                return descriptor
        os.close(descriptor)


def unlock(path: Path, descriptor: int) -> None:
    """The end of `lock`."""
    _lock_path(path).unlink(missing_ok=True)
    os.close(descriptor)


def listen(path: Path) -> socket.socket:
    """A socket that listens at `path`, for this user alone. Requires: the lock is ours.

    Raises `OSError`.
    """
    path.unlink(missing_ok=True)  # of a process that couldn't do it any more
    listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    try:
        os.fchmod(listener.fileno(), 0o600)  # before anybody can connect
        with at_socket(path) as name:
            listener.bind(name)
        os.chmod(path, 0o600)
        listener.setblocking(False)
        listener.listen(16)
    except BaseException:
        listener.close()
        raise
    return listener


def _lock_path(path: Path) -> Path:
    return path.with_name(path.name + "-lock")
