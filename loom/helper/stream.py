"""Two-way streams of bytes that never block, and what they are read and written with.

A stream calls its owner: `on_bytes(data)` for what has arrived, `on_room()` when what was sent has
gone out, `on_end(reason)` once, when nothing will arrive any more.
"""

from __future__ import annotations

import os
from collections.abc import Callable
from typing import Final, Protocol

__all__ = ["FdIo", "FdStream", "Stream"]

_kReadBytes: Final = 256 * 1024

# What is sent waits for this much more, or for `flush`, before it is written: a call of the system
# for each small message, and another process woken by it, costs more than the message.
_kWriteBytes: Final = 64 * 1024


class FdIo(Protocol):
    """Tells when a descriptor can be read or written: a main loop, or an asyncio loop."""

    def add_reader(self, fd: int, callback: Callable[[], object]) -> object: ...

    def remove_reader(self, fd: int) -> object: ...

    def add_writer(self, fd: int, callback: Callable[[], object]) -> object: ...

    def remove_writer(self, fd: int) -> object: ...


class Stream:
    """Base of the streams. `start` begins reading, `close` ends all calls of the owner."""

    def __init__(self) -> None:
        self.on_bytes: Callable[[bytes], object] = _nothing
        self.on_room: Callable[[], object] = _nothing
        self.on_end: Callable[[str], object] = _nothing

    def start(self) -> None:
        """Begin to call the owner."""
        raise NotImplementedError

    def send(self, data: bytes) -> None:
        """Send, perhaps only at the next `flush`. On a stream that has ended nothing happens."""
        raise NotImplementedError

    def flush(self) -> None:
        """Send what waits as far as there is room; the rest follows by itself."""
        raise NotImplementedError

    @property
    def unsent(self) -> int:
        """Bytes that wait to be sent."""
        raise NotImplementedError

    def pause(self) -> None:
        """Read nothing until `resume`, so that the other side has to wait."""
        raise NotImplementedError

    def resume(self) -> None:
        raise NotImplementedError

    def close(self) -> None:
        """Close both directions. What wasn't sent is lost."""
        raise NotImplementedError


def _nothing(*_args: object) -> None:
    """For an owner who doesn't care."""


class FdStream(Stream):
    """Over two descriptors, or twice the same one. They belong to the stream."""

    def __init__(self, io: FdIo, read_fd: int, write_fd: int) -> None:
        super().__init__()
        self._io = io
        self._read_fd = read_fd
        self._write_fd = write_fd
        self._to_send = bytearray()
        self._send_at = _kWriteBytes
        self._is_reading = False
        self._is_writing = False
        self._ended = False
        os.set_blocking(read_fd, False)
        os.set_blocking(write_fd, False)

    def start(self) -> None:
        self.resume()

    def pause(self) -> None:
        if self._is_reading:
            self._is_reading = False
            self._io.remove_reader(self._read_fd)

    def resume(self) -> None:
        if not self._is_reading and not self._ended:
            self._is_reading = True
            self._io.add_reader(self._read_fd, self._read)

    @property
    def unsent(self) -> int:
        return len(self._to_send)

    def send(self, data: bytes) -> None:
        if self._ended:
            return
        self._to_send += data
        if len(self._to_send) >= self._send_at:
            self.flush()

    def flush(self) -> None:
        if self._ended or not self._to_send:
            return
        self._write()
        # The next try comes soon, also while the loop has no time to tell that there is room again.
        self._send_at = len(self._to_send) + _kWriteBytes
        if self._to_send and not self._is_writing:
            self._is_writing = True
            self._io.add_writer(self._write_fd, self._write_more)

    def _write(self) -> None:
        try:
            written = os.write(self._write_fd, self._to_send)
        except BlockingIOError:
            return
        except OSError:
            # The other side has gone. Reading tells so, after all that it sent before.
            self._to_send.clear()
            return
        del self._to_send[:written]

    def _write_more(self) -> None:
        self._write()
        if not self._to_send and self._is_writing:
            self._is_writing = False
            self._io.remove_writer(self._write_fd)
            self.on_room()

    def _read(self) -> None:
        try:
            data = os.read(self._read_fd, _kReadBytes)
        except BlockingIOError:
            return
        except OSError as error:
            self._end(error.strerror or str(error))
            return
        if data:
            self.on_bytes(data)
        else:
            self._end("end of file")

    def _end(self, reason: str) -> None:
        on_end = self.on_end
        if not self._ended:
            self.close()
            on_end(reason)

    def close(self) -> None:
        if self._ended:
            return
        self.pause()
        self._ended = True
        if self._is_writing:
            self._is_writing = False
            self._io.remove_writer(self._write_fd)
        self._to_send.clear()
        for fd in {self._read_fd, self._write_fd}:
            os.close(fd)
        self.on_bytes = self.on_room = self.on_end = _nothing
