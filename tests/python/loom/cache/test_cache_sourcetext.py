"""Reading source files: encodings, and each way in which a file can be no source."""

import codecs
import errno
import hashlib
import os
import socket
import tokenize
from collections.abc import Callable, Iterator
from io import BytesIO
from pathlib import Path

import pytest
from loombase.location import CLocalFileLocation

from loom import sourcetext
from loom.sourcetext import (
    SourceError,
    SourceText,
    decode_source,
    kMaxSourceBytes,
    read_source,
)

MakeFile = Callable[..., CLocalFileLocation]


def steps(path: str | os.PathLike[str], text: SourceText) -> Iterator[None]:
    yield from read_source(os.fspath(path), text)
    yield from decode_source(text)


def read(path: str | os.PathLike[str]) -> SourceText:
    text = SourceText()
    for _ in steps(path, text):
        pass
    return text


@pytest.fixture
def read_bytes(make_file: MakeFile) -> Callable[[bytes], SourceText]:
    return lambda content: read(make_file("a.py", content))


ReadBytes = Callable[[bytes], SourceText]


# --- encodings


@pytest.mark.parametrize(
    "content", [b"", b"\n", b"x = 1\n", "x = 'äöü 数 \U0001f40d'".encode(), b"a\r\nb\rc\n"]
)
def test_utf8_is_taken_as_it_stands(read_bytes: ReadBytes, content: bytes) -> None:
    text = read_bytes(content)
    assert (text.data, text.encoding, text.warning) == (content, "utf-8", "")


def test_byte_order_mark_is_left_out(read_bytes: ReadBytes) -> None:
    assert read_bytes(codecs.BOM_UTF8 + b"x = 1\n").data == b"x = 1\n"
    assert read_bytes(codecs.BOM_UTF8).data == b""
    text = read_bytes(codecs.BOM_UTF8 + "# coding: utf-8\nx = 'ä'".encode())
    assert (text.data, text.warning) == ("# coding: utf-8\nx = 'ä'".encode(), "")


@pytest.mark.parametrize(
    "codec",
    [
        "latin-1",
        "iso-8859-15",
        "cp1252",
        "koi8-r",
        "mac-roman",
        "shift_jis",
        "euc-jp",
        "gb18030",
        "big5",
        "euc-kr",
        "iso2022_jp",
        "cp437",
        "utf-7",
    ],
)
def test_declared_encoding_is_turned_into_utf8(read_bytes: ReadBytes, codec: str) -> None:
    sample = {
        "koi8-r": "привет",
        "shift_jis": "日本",
        "euc-jp": "日本",
        "gb18030": "中文",
        "big5": "中文",
        "euc-kr": "한국",
        "iso2022_jp": "日本",
    }.get(codec, "äöü")
    source = f"# -*- coding: {codec} -*-\nname = '{sample}'\n"
    text = read_bytes(source.encode(codec))
    assert (text.data.decode(), text.warning) == (source, "")
    assert codecs.lookup(text.encoding).name == codecs.lookup(codec).name


@pytest.mark.parametrize(
    "head",
    [
        b"# coding: latin-1",
        b"#coding=latin-1",
        b"# vim: set fileencoding=latin-1 :",
        b"\t # -*- coding: Latin_1 -*-",
        b"#!/usr/bin/python\n# coding: iso-latin-1-unix",
        b"\n# coding: latin-1",
        b"\r\n# coding: latin-1",
        b"x = 1\n# coding: latin-1",  # the first line isn't blank: no declaration
        b"\n\n# coding: latin-1",  # the third line is too late
        b"x = 'coding: latin-1'",
        b"# coding : latin-1",
        b"# encoding latin-1",
        b"",
    ],
)
def test_declaration_is_found_where_the_language_finds_it(
    read_bytes: ReadBytes, head: bytes
) -> None:
    content = head + b"\nname = 1\n"
    expected, _ = tokenize.detect_encoding(BytesIO(content).readline)
    assert codecs.lookup(read_bytes(content).encoding).name == codecs.lookup(expected).name


def test_declaration_may_stand_in_a_line_with_other_bytes(read_bytes: ReadBytes) -> None:
    text = read_bytes(b"# \xe4\xf6 coding: latin-1\nx = '\xfc'\n")
    assert text.data.decode() == "# äö coding: latin-1\nx = 'ü'\n"


@pytest.mark.parametrize(
    ("name", "reason"),
    [
        ("no-such-codec", "unknown encoding: no-such-codec"),
        ("rot13", "encoding rot13 can't be used"),
        ("hex", "encoding hex can't be used"),
        ("zlib", "encoding zlib can't be used"),
        ("idna", "encoding idna can't be used"),
        ("punycode", "encoding punycode can't be used"),
        ("undefined", "encoding undefined can't be used"),
        ("utf-16", "encoding utf-16 can't be used"),
        ("utf-32-be", "encoding utf-32-be can't be used"),
        ("cp037", "encoding cp037 can't be used"),
    ],
)
def test_unusable_encoding_is_read_as_latin1_with_a_warning(
    read_bytes: ReadBytes, name: str, reason: str
) -> None:
    text = read_bytes(f"# coding: {name}\nname = 'ä'\n".encode("latin-1"))
    assert text.data.decode() == f"# coding: {name}\nname = 'ä'\n"
    assert reason in text.warning
    assert "read as Latin-1" in text.warning
    assert text.warning_lineno == 1


def test_mark_and_declaration_that_disagree(read_bytes: ReadBytes) -> None:
    source = "# coding: koi8-r\nx = 'ä'\n"
    text = read_bytes(codecs.BOM_UTF8 + source.encode())
    assert text.data.decode() == source
    assert "declared as koi8-r, but marked as UTF-8" in text.warning
    text = read_bytes(codecs.BOM_UTF8 + b"# coding: no-such-codec\n")
    assert text.encoding == "utf-8"
    assert "read as UTF-8" in text.warning


def test_bytes_that_are_not_utf8_are_replaced_with_a_warning(read_bytes: ReadBytes) -> None:
    text = read_bytes("x = 1\n# ä ".encode() + b"caf\xe9\ny = 2\n")
    assert text.data.decode() == "x = 1\n# ä caf\ufffd\ny = 2\n"
    assert text.warning == "not valid utf-8 in line 2; bytes were replaced"
    assert text.warning_lineno == 2


@pytest.mark.parametrize("bad", [b"\xff", b"\xc0\x80", b"\xed\xa0\x80", b"\xf5\x80\x80\x80"])
@pytest.mark.parametrize("lines", [0, 1, 5, 9, 10, 11, 100])
def test_line_of_the_first_bad_byte_wherever_the_steps_end(
    read_bytes: ReadBytes, bad: bytes, lines: int, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setattr(sourcetext, "_kCheckBytes", 13)
    good = "# ä数\U0001f40d\n".encode()
    assert read_bytes(good * 100).warning == ""
    text = read_bytes(good * lines + b"x" * 200 + bad + b"\n" + good)
    assert text.warning_lineno == lines + 1


def test_character_that_the_end_cuts_off(read_bytes: ReadBytes) -> None:
    assert read_bytes(b"x = 1\n# \xc3").warning_lineno == 2


@pytest.mark.parametrize("step", [1, 5, 64 * 1024])
def test_bytes_that_the_declared_encoding_does_not_know(
    read_bytes: ReadBytes, step: int, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setattr(sourcetext, "_kDecodeBytes", step)
    text = read_bytes(b"# coding: cp1252\n\n'\x80\x81'\n")
    assert text.encoding == "cp1252"
    assert text.warning == "not valid cp1252 in line 3; bytes were replaced"
    assert text.data.decode() == "# coding: cp1252\n\n'€\ufffd'\n"


@pytest.mark.parametrize("step", [1, 2, 3, 7, 64 * 1024])
def test_decoding_in_steps_gives_the_same_text(
    make_file: MakeFile, step: int, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setattr(sourcetext, "_kDecodeBytes", step)
    source = "# coding: gb18030\n" + "名 = '中文 \U0001f40d'\n" * 20
    assert read(make_file("a.py", source.encode("gb18030"))).data.decode() == source


@pytest.mark.parametrize("size", [0, 5, 1_000_000, 3_000_000])
def test_digest_is_that_of_the_bytes(make_file: MakeFile, size: int) -> None:
    content = codecs.BOM_UTF8 + b"#" * size
    expected = hashlib.blake2b(content, digest_size=16).digest()
    assert read(make_file("a.py", content)).digest == expected
    assert read(make_file("b.py", content + b"x")).digest != expected


# --- files that are no source


def failure(path: str | os.PathLike[str]) -> SourceError:
    with pytest.raises(SourceError) as caught:
        read(path)
    return caught.value


def test_missing_file(tmp_path: Path) -> None:
    (tmp_path / "file").write_text("")
    for path in (tmp_path / "no.py", tmp_path / "file" / "no.py", tmp_path / "a\0b"):
        if "\0" in str(path):
            continue
        error = failure(path)
        assert error.gone and not error.lasting
        assert "can't be read: " in str(error)


def test_null_bytes(make_file: MakeFile) -> None:
    error = failure(make_file("a.py", b"x = 1\n\0\n"))
    assert str(error) == "not text: null byte at offset 6"
    assert error.lasting and not error.gone
    assert "null byte" in str(failure(make_file("b.py", "x = 1".encode("utf-16"))))
    assert "null byte" in str(failure(make_file("c.py", b"\x7fELF\2\1\1\0")))


def test_null_character_that_the_encoding_makes(make_file: MakeFile) -> None:
    error = failure(make_file("a.py", b"# coding: utf-7\nx = '+AAA-'\n"))
    assert "null character" in str(error)


def test_bytes_that_are_no_text_in_any_encoding(make_file: MakeFile) -> None:
    garbage = bytes(n for n in range(1, 256)) * 100
    error = failure(make_file("a.py", garbage))
    assert str(error) == "not text: too many control characters"
    assert error.lasting


def test_size_is_bounded(make_file: MakeFile, tmp_path: Path) -> None:
    big = tmp_path / "big.py"
    with open(big, "wb") as file:
        file.truncate(100 * 1024 * 1024)
    error = failure(big)
    assert str(error) == "too big: 104,857,600 bytes, and the limit is 20,971,520"
    assert error.lasting
    with open(big, "wb") as file:
        file.truncate(kMaxSourceBytes + 1)
    assert "too big" in str(failure(big))


def test_file_of_the_greatest_size_is_read_in_steps(tmp_path: Path) -> None:
    path = tmp_path / "big.py"
    path.write_bytes(b"# " + b"x" * (kMaxSourceBytes - 3) + b"\n")
    text = SourceText()
    count = sum(1 for _ in steps(path, text))
    assert len(text.data) == kMaxSourceBytes
    assert count >= 20


def test_decoded_text_is_bounded(make_file: MakeFile, monkeypatch: pytest.MonkeyPatch) -> None:
    loc = make_file("a.py", ("# coding: latin-1\n#" + "é" * 900).encode("latin-1"))
    monkeypatch.setattr(sourcetext, "kMaxSourceBytes", 1_000)
    assert "too big" in str(failure(loc))


@pytest.mark.parametrize("grown", [10, 3 * 1024 * 1024])
def test_file_that_grows_while_it_is_read(
    make_file: MakeFile, monkeypatch: pytest.MonkeyPatch, grown: int
) -> None:
    loc = make_file("a.py", b"#" * 100)
    fstat = os.fstat

    def fstat_and_grow(descriptor: int) -> os.stat_result:
        status = fstat(descriptor)
        with open(loc.path, "ab") as file:
            file.write(b"#" * grown)
        return status

    monkeypatch.setattr(os, "fstat", fstat_and_grow)
    text = read(loc)
    assert len(text.data) == 100 + grown
    assert text.size == 100  # so that the next check sees that it has changed


def test_file_that_grows_without_end(make_file: MakeFile, monkeypatch: pytest.MonkeyPatch) -> None:
    loc = make_file("a.py", b"#")
    monkeypatch.setattr(os, "read", lambda descriptor, count: b"#" * count)
    assert "too big" in str(failure(loc))


def test_file_that_shrinks_while_it_is_read(
    make_file: MakeFile, monkeypatch: pytest.MonkeyPatch
) -> None:
    loc = make_file("a.py", b"x = 1\n" * 10)
    fstat = os.fstat

    def fstat_and_shrink(descriptor: int) -> os.stat_result:
        status = fstat(descriptor)
        os.truncate(loc.path, 6)
        return status

    monkeypatch.setattr(os, "fstat", fstat_and_shrink)
    text = read(loc)
    assert (text.data, text.size) == (b"x = 1\n", 60)


def test_file_that_fails_while_it_is_read(
    make_file: MakeFile, monkeypatch: pytest.MonkeyPatch
) -> None:
    def fail(descriptor: int, count: int) -> bytes:
        raise OSError(errno.EIO, os.strerror(errno.EIO))

    loc = make_file("a.py", b"x = 1\n")
    open_files = len(os.listdir("/proc/self/fd"))
    monkeypatch.setattr(os, "read", fail)
    error = failure(loc)
    assert "Input/output error" in str(error)
    assert not error.lasting and not error.gone
    assert len(os.listdir("/proc/self/fd")) == open_files


def test_file_without_permission(make_file: MakeFile, monkeypatch: pytest.MonkeyPatch) -> None:
    def refuse(path: str, flags: int) -> int:
        raise PermissionError(errno.EACCES, os.strerror(errno.EACCES), path)

    loc = make_file("a.py", b"x = 1\n")
    monkeypatch.setattr(os, "open", refuse)  # root may read everything
    error = failure(loc)
    assert str(error) == "can't be read: Permission denied"
    assert not error.lasting and not error.gone


def test_folder(tmp_path: Path) -> None:
    (tmp_path / "a.py").mkdir()
    error = failure(tmp_path / "a.py")
    assert str(error) == "not a regular file, but a folder"
    assert error.lasting


def test_pipe_is_not_waited_for(tmp_path: Path) -> None:
    os.mkfifo(tmp_path / "a.py")
    assert str(failure(tmp_path / "a.py")) == "not a regular file, but a pipe"


def test_socket(tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.chdir(tmp_path)  # the length of a socket's name is limited
    with socket.socket(socket.AF_UNIX) as server:
        server.bind("a.py")
        assert str(failure("a.py")) == "not a regular file, but a socket"


@pytest.mark.parametrize("device", ["/dev/zero", "/dev/null", "/dev/full"])
def test_device(device: str) -> None:
    assert str(failure(device)) == "not a regular file, but a character device"


def test_file_that_becomes_a_pipe_before_it_is_opened(
    make_file: MakeFile, monkeypatch: pytest.MonkeyPatch
) -> None:
    loc = make_file("a.py", b"x = 1\n")
    stat = os.stat

    def stat_and_replace(path: str) -> os.stat_result:
        status = stat(path)
        os.unlink(path)
        os.mkfifo(path)
        return status

    monkeypatch.setattr(os, "stat", stat_and_replace)
    assert str(failure(loc)) == "not a regular file, but a pipe"


def test_loop_of_links(tmp_path: Path) -> None:
    (tmp_path / "a.py").symlink_to("a.py")
    error = failure(tmp_path / "a.py")
    assert "Too many levels of symbolic links" in str(error)
    assert not error.gone


def test_link_is_followed(make_file: MakeFile, tmp_path: Path) -> None:
    make_file("a.py", b"x = 1\n")
    (tmp_path / "b.py").symlink_to("a.py")
    assert read(tmp_path / "b.py").data == b"x = 1\n"


def test_name_that_is_not_utf8(tmp_path: Path) -> None:
    path = os.fsdecode(os.fsencode(tmp_path) + b"/\xff.py")
    with open(path, "wb") as file:
        file.write(b"x = 1\n")
    assert read(path).data == b"x = 1\n"
