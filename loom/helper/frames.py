"""Frames on a stream of bytes: four bytes of length, highest first, and that many of a message."""

from __future__ import annotations

from collections.abc import Iterator
from typing import Final

import msgspec

__all__ = ["FrameError", "Framer", "FrameSplitter", "kMaxFrameBytes"]

# The results of the biggest file that is read, with all that its scopes may hold, take less.
kMaxFrameBytes: Final = 64 * 1024 * 1024

_kLengthBytes: Final = 4


class FrameError(Exception):
    """What came isn't a frame, or what is to be sent is no frame; the text says why."""


class Framer:
    """Makes frames of messages. One buffer serves all of them."""

    def __init__(self) -> None:
        self._encoder = msgspec.msgpack.Encoder()
        self._buffer = bytearray()

    def frame(self, message: object) -> bytes:
        """The message as a frame. Raises `FrameError` if it is too long."""
        buffer = self._buffer
        self._encoder.encode_into(message, buffer, _kLengthBytes)
        length = len(buffer) - _kLengthBytes
        if length > kMaxFrameBytes:
            self._buffer = bytearray()  # don't hold on to so much
            raise FrameError(f"a message of {length:,} bytes is too long")
        buffer[:_kLengthBytes] = length.to_bytes(_kLengthBytes, "big")
        return bytes(buffer)


class FrameSplitter:
    """Cuts a stream into the messages of its frames, however it arrives."""

    def __init__(self) -> None:
        self._buffer = bytearray()

    def feed(self, data: bytes) -> Iterator[bytes]:
        """Take what has arrived; yields the messages that are complete now.

        Requires: the iterator is used up before the next call. Raises `FrameError` for a length
        beyond the limit, which is what garbage looks like.
        """
        buffer = self._buffer
        buffer += data
        start = 0
        try:
            while len(buffer) - start >= _kLengthBytes:
                body = start + _kLengthBytes
                length = int.from_bytes(buffer[start:body], "big")
                if length > kMaxFrameBytes:
                    raise FrameError(f"a frame of {length:,} bytes was announced")
                if len(buffer) < body + length:
                    break
                start = body + length
                yield bytes(memoryview(buffer)[body:start])
        finally:
            del buffer[:start]

    @property
    def rest(self) -> int:
        """Bytes of a frame that isn't complete."""
        return len(self._buffer)
