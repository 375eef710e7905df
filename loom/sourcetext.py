"""Reading source files as UTF-8, and saying why one can't be read.

A file is read and decoded in steps (`read_source` and `decode_source` are generators), so that no
single step is long, however big the file or slow its codec.
"""

import codecs
import errno
import hashlib
import io
import os
import stat
import tokenize
from collections.abc import Generator, Iterator
from dataclasses import dataclass
from typing import Final

from loom import freshness

__all__ = ["SourceError", "SourceText", "decode_source", "kMaxSourceBytes", "read_source"]

# Files above this size are data in the form of source, or no source at all. The biggest ones in
# real trees, generated clients and tables, have about 6 MB.
kMaxSourceBytes: Final = 20 * 1024 * 1024

_kReadBytes: Final = 1024 * 1024
_kCheckBytes: Final = 1024 * 1024
_kDecodeBytes: Final = 64 * 1024

# How much of a file is looked at to tell text from other things, and how many control characters
# in it are still text.
_kSniffBytes: Final = 64 * 1024
_kControlShare: Final = 1 / 64
_kControls: Final = bytes(set(range(0x20)) - set(b"\t\n\r\f\x0e\x0f\x1b")) + b"\x7f"

# Text codecs that can't work piece by piece, or that fail by design.
_kUnusableCodecs: Final = frozenset({"idna", "punycode", "undefined"})


class SourceError(Exception):
    """The file can't be scanned; the text is the reason.

    `gone` is true if there is no such file. `lasting` is true if the reason holds for as long as
    the file's time and size stay what they are, so that trying again is no use. `unreachable` is
    true if the reason says nothing about the file, so that what is known of it still holds.
    """

    def __init__(
        self,
        reason: str,
        *,
        gone: bool = False,
        lasting: bool = False,
        unreachable: bool = False,
    ) -> None:
        super().__init__(reason)
        self.gone = gone
        self.lasting = lasting
        self.unreachable = unreachable


@dataclass(slots=True)
class SourceText:
    """What was read. `mtime_ns` and `size` are those of the file, also if reading it failed.

    `settled` tells that the time can be trusted (see `freshness`). `digest` tells the file's bytes
    from others; it is empty if they weren't read to their end.

    `data` are the bytes, once decoded the text in UTF-8 without byte order mark. `warning`, if not empty, says why it may
    not be the text that its author wrote, and `warning_lineno` where.
    """

    mtime_ns: int = 0
    size: int = 0
    settled: bool = False
    digest: bytes = b""
    data: bytes = b""
    encoding: str = "utf-8"
    warning: str = ""
    warning_lineno: int = 0


def read_source(path: str, text: SourceText) -> Iterator[None]:
    """Read the file's bytes into `text`; yields between steps. Raises `SourceError`."""
    try:
        yield from _read(path, text)
    except OSError as error:
        raise SourceError(
            f"can't be read: {error.strerror or error}",
            gone=error.errno in (errno.ENOENT, errno.ENOTDIR),
        ) from error


def _read(path: str, text: SourceText) -> Iterator[None]:
    read_ns = freshness.now_ns()
    # Looked at before it is opened: opening a device or a pipe can do things.
    _take_status(os.stat(path), text, read_ns)
    descriptor = os.open(path, os.O_RDONLY | os.O_CLOEXEC | os.O_NONBLOCK | os.O_NOCTTY)
    try:
        _take_status(os.fstat(descriptor), text, read_ns)
        if text.size <= _kReadBytes:
            # One byte more than there should be, to notice that the file is growing.
            text.data = os.read(descriptor, text.size + 1)
            if len(text.data) == text.size:
                text.digest = _new_digest(text.data).digest()
                return
        pieces = [text.data]
        length = len(text.data)
        digest = _new_digest(text.data)
        while piece := os.read(descriptor, _kReadBytes):
            pieces.append(piece)
            digest.update(piece)
            length += len(piece)
            _check_size(length)
            yield
        text.data = b"".join(pieces)
        text.digest = digest.digest()
    finally:
        os.close(descriptor)


def _new_digest(data: bytes) -> "hashlib.blake2b":
    return hashlib.blake2b(data, digest_size=16, usedforsecurity=False)


def _take_status(status: os.stat_result, text: SourceText, read_ns: int) -> None:
    text.mtime_ns = freshness.mtime_ns_of(status)
    text.size = status.st_size
    text.settled = freshness.is_settled(text.mtime_ns, read_ns)
    if not stat.S_ISREG(status.st_mode):
        raise SourceError(f"not a regular file, but {_file_type(status.st_mode)}", lasting=True)
    _check_size(text.size)


def _check_size(size: int) -> None:
    if size > kMaxSourceBytes:
        raise SourceError(
            f"too big: {size:,} bytes, and the limit is {kMaxSourceBytes:,}", lasting=True
        )


def _file_type(mode: int) -> str:
    for test, name in (
        (stat.S_ISDIR, "a folder"),
        (stat.S_ISFIFO, "a pipe"),
        (stat.S_ISCHR, "a character device"),
        (stat.S_ISBLK, "a block device"),
        (stat.S_ISSOCK, "a socket"),
    ):
        if test(mode):
            return name
    return "something else"


def decode_source(text: SourceText) -> Iterator[None]:
    """Turn the bytes that were read into text; yields between steps. Raises `SourceError`."""
    data = text.data
    if (position := data.find(b"\0")) >= 0:
        raise SourceError(f"not text: null byte at offset {position:,}", lasting=True)
    marked = data.startswith(codecs.BOM_UTF8)
    if marked:
        data = text.data = data[len(codecs.BOM_UTF8) :]
    text.encoding = _declared_encoding(data, marked, text)
    if text.encoding == "utf-8":
        if data.isascii():
            return
        bad = yield from _first_bad_byte(data)
        if bad is None:
            return
        lineno = data.count(b"\n", 0, bad) + 1
    else:
        yield
        lineno = yield from _transcode(data, text, "strict")
        if lineno == 0:
            return
    _warn(text, f"not valid {text.encoding} in line {lineno}; bytes were replaced", lineno)
    if (yield from _transcode(data, text, "replace")):
        text.encoding = "iso-8859-1"  # a codec that doesn't know how to replace
        yield from _transcode(data, text, "strict")


def _declared_encoding(data: bytes, marked: bool, text: SourceText) -> str:
    """The name of the codec by the rules of PEP 263, normalized if it is UTF-8.

    What is wrong with a declaration becomes a warning.
    """
    lines = data[:_kSniffBytes].split(b"\n", 2)[:2]
    if not any(b"coding" in line for line in lines):
        return "utf-8"
    head = b"\n".join(lines)
    try:
        # Bytes that aren't ASCII are no part of a declaration, and are judged later.
        ascii_head = head.decode("latin-1").encode("ascii", "replace")
        name, _ = tokenize.detect_encoding(io.BytesIO(ascii_head).readline)
    except SyntaxError as error:
        _warn(text, f"{error}; read as {'UTF-8' if marked else 'Latin-1'}", 1)
        return "utf-8" if marked else "iso-8859-1"
    if name in ("utf-8", "utf-8-sig", "ascii"):
        return "utf-8"
    if marked:
        _warn(text, f"declared as {name}, but marked as UTF-8; read as UTF-8", 1)
        return "utf-8"
    codec = codecs.lookup(name)
    try:
        usable = (
            codec.name not in _kUnusableCodecs
            and codec.incrementaldecoder is not None
            # A declaration that can't be read under the codec it declares isn't one.
            and "coding" in head.decode(name, "replace")
        )
    except (LookupError, ValueError):  # not a codec of text, or one that knows no "replace"
        usable = False
    if not usable:
        _warn(text, f"encoding {name} can't be used for source; read as Latin-1", 1)
        return "iso-8859-1"
    return codec.name


def _first_bad_byte(data: bytes) -> Generator[None, None, int | None]:
    """The offset of the first byte that isn't UTF-8, as the generator's result, or none."""
    decoder = codecs.getincrementaldecoder("utf-8")()
    for start in range(0, len(data), _kCheckBytes):
        piece = data[start : start + _kCheckBytes]
        left = len(decoder.getstate()[0])
        try:
            decoder.decode(piece, start + _kCheckBytes >= len(data))
        except UnicodeDecodeError as error:
            return start - left + error.start
        yield
    return None


def _transcode(data: bytes, text: SourceText, errors: str) -> Generator[None, None, int]:
    """Bring `text.data` into UTF-8; the result is 0, or the line with the first bad byte."""
    _check_controls(data)
    decoder = codecs.getincrementaldecoder(text.encoding)(errors)
    pieces: list[bytes] = []
    length = 0
    for start in range(0, len(data), _kDecodeBytes):
        piece = data[start : start + _kDecodeBytes]
        try:
            # Characters that UTF-8 can't hold are lone surrogates.
            decoded = decoder.decode(piece, start + _kDecodeBytes >= len(data))
            pieces.append(decoded.encode(errors="replace"))
        except UnicodeDecodeError as error:
            return data.count(b"\n", 0, start) + error.object.count(b"\n", 0, error.start) + 1
        except ValueError:
            return data.count(b"\n", 0, start) + 1
        length += len(pieces[-1])
        _check_size(length)
        yield
    joined = b"".join(pieces)
    if (position := joined.find(b"\0")) >= 0:
        raise SourceError(f"not text: null character at offset {position:,}", lasting=True)
    text.data = joined
    return 0


def _check_controls(data: bytes) -> None:
    head = data[:_kSniffBytes]
    controls = len(head) - len(head.translate(None, _kControls))
    if controls > len(head) * _kControlShare:
        raise SourceError("not text: too many control characters", lasting=True)


def _warn(text: SourceText, warning: str, lineno: int) -> None:
    if not text.warning:
        text.warning = warning
        text.warning_lineno = lineno
