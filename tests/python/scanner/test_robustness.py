"""Nothing that a scanner is given makes it fail, and it can stop anywhere."""

import random
import sys
import sysconfig
from pathlib import Path

import pytest
from hypothesis import given
from hypothesis import strategies as st
from scanning import Scanned

from loom._pyscan import SourceScanner, pack_info, unpack_info

STDLIB = Path(sysconfig.get_paths()["stdlib"])

PIECES = [
    *"()[]{}'\"\n\r\t\f\\#:=;,.@*xf0 ",
    '"""',
    "'''",
    "f'",
    'f"""',
    "rb'",
    "{x",
    "\\N{",
    "\r\n",
    "\\\n",
    ":=",
    "->",
    "...",
    "\n    ",
    "\n  ",
    "self.",
    "<<<<<<< a\n",
    "\x00",
    "\xe9",
    *(
        f"{word} "
        for word in "lambda def class import from match case type async global for in with as".split()
    ),
    *("except ", "if ", "else:", "del ", "return ", "nonlocal ", "yield ", "def f(self):\n    "),
]
SOURCES = st.lists(st.sampled_from(PIECES), max_size=60).map(
    lambda pieces: "".join(pieces).encode("latin-1")
)


# Resumability.


def results(source: bytes, chunk: int) -> tuple[object, ...]:
    """Return everything that a scan in chunks gives."""
    return Scanned(source, chunk).raw


@given(SOURCES, st.integers(1, 40))
def test_results_do_not_depend_on_the_chunks(source: bytes, chunk: int) -> None:
    """A scan can stop at any place and goes on as if it had not."""
    assert results(source, chunk) == results(source, 1 << 30)


@given(st.binary(max_size=300))
def test_any_bytes_can_be_scanned(source: bytes) -> None:
    """Bytes that are no text, in pieces or at once."""
    assert results(source, 1) == results(source, 1 << 30)


@pytest.mark.parametrize("chunk", [1, 2, 3, 100, 4096])
@pytest.mark.parametrize("name", ["argparse.py", "typing.py", "_pydecimal.py"])
def test_real_files_in_chunks(name: str, chunk: int) -> None:
    """The same on real files, with many steps."""
    source = (STDLIB / name).read_bytes()
    scanned = Scanned(source, chunk)
    assert scanned.raw == results(source, 1 << 30)
    # A step goes on for its bytes and one token.
    assert scanned.calls >= len(source) // (chunk + 3000)
    assert scanned.position == len(source)


def test_position_never_goes_back() -> None:
    """Also where the scanner walks back over an error."""
    source = b"def f():\n    x = (1,\ny = 2\nz = 3\ndef g(): pass\n" * 50
    scanner = SourceScanner(source)
    positions = [scanner.position]
    while not scanner.scan(7):
        positions.append(scanner.position)
    positions.append(scanner.position)
    assert positions == sorted(positions)
    assert positions[0] == 0
    assert positions[-1] == len(source)


def test_each_step_goes_on_until_the_end_and_no_further() -> None:
    """The smallest step takes a token; behind the end a step does nothing."""
    scanner = SourceScanner(b"x = 1")
    steps = 1
    while not scanner.scan(1):
        steps += 1
    assert steps <= 6
    before = scanner._steps
    assert scanner.scan(1) is True
    assert scanner._steps == before


def test_results_grow_while_the_scan_goes_on() -> None:
    """They can be asked for at any time."""
    scanner = SourceScanner(b"def f():\n    x = 1\ny = 2\n")
    assert scanner.scopes() == [("", -1, ord("O"), 1, 1, b"")]
    assert scanner.names() == []
    scanner.scan(10)
    assert [name for _, name, _, _ in scanner.names()] == ["f"]
    scanner.scan(1000)
    assert [name for _, name, _, _ in scanner.names()] == ["f", "x", "y"]


@pytest.mark.parametrize(
    "source",
    [
        b"#" + b"a" * 100_000,
        b'"""' + b"a\n" * 50_000 + b'"""',
        b"f'''" + b"a\n" * 50_000 + b"'''",
        b" " * 100_000 + b"x",
        b"x = [" + b"1, " * 30_000 + b"]",
        b"(" * 100_000,
        b"\n" * 100_000,
    ],
)
def test_a_giant_token_or_line_is_scanned_in_chunks(source: bytes) -> None:
    """No step does much more than it was told to."""
    scanner = SourceScanner(source)
    largest = before = 0
    while not scanner.scan(1000):
        largest = max(largest, scanner._steps - before)
        before = scanner._steps
    assert largest <= 2000


# Time.


def pathological(size: int) -> dict[str, bytes]:
    """Return sources of about `size` bytes, each a trap for a careless scanner."""
    units = """( [ { ) ] } f'{ f'{x:{ f\"\"\"{ (a:= a:= f'{(a:= lambda_ lambda: lambda:( x= x, *x, ((x)), x.
        self. ''' \"\"\" ' \\N{ f'\\N{ import_a, global_a; class_A: if_x: with_a_as_b, 1 a # \\ """.split()
    lines = [
        "(\ndef ",
        "(\nx\ndef f\n",
        '"""\nx',
        '""" x ',
        '"""\n""" x\n',
        "def f(\n",
        "x=f(\n",
        "x=[\n",
        "f'''{\n",
        "f'{\n",
        "from x\n(from x\n",
        "@x\n",
        "@x\ndef f():pass\n",
        "import a.b\n",
        "\n x",
        "  x\n y\nz\n",
        "if x:\ny\n  z\n",
        "x=1\n",
        "class A:\n def f(self): self.x=1\n",
        "<<<<<<< \n",
        "\\\n",
        "\r",
        "\f",
        "\x00",
    ]
    sources = {unit: unit.replace("_", " ") for unit in units} | {line: line for line in lines}
    built = {name: (text * (size // len(text) + 1)).encode() for name, text in sources.items()}
    width = size // 40
    built["brackets that close"] = b"(" * width * 20 + b")" * width * 20
    built["nested targets"] = b"(" * width * 10 + b"x" + b",)" * width * 10 + b" = 1\n"
    built["many names"] = b"".join(b"n%d = 1\n" % n for n in range(size // 10))
    built["redefinitions"] = b"def f(): pass\n" * (size // 40) + b"@x\ndef f(): pass\n" * (size // 40)
    built["garbage"] = random.Random(3).randbytes(size)
    return built


@pytest.mark.parametrize("name", pathological(0))
def test_work_is_proportional_to_the_length(name: str) -> None:
    """Ten times the source takes ten times the steps, and never many a byte."""
    steps = []
    for size in (20_000, 200_000):
        source = pathological(size)[name]
        scanner = SourceScanner(source)
        while not scanner.scan(1 << 16):
            pass
        steps.append(scanner._steps / len(source))
    assert max(steps) <= 8
    assert steps[1] <= 1.2 * steps[0] + 0.1


@pytest.mark.parametrize(
    "source",
    [
        b"(" * 1_000_000,
        b"([{" * 400_000 + b"}])" * 400_000,
        b"f'{" * 500_000,
        b"f'{x:{" * 300_000,
        b"lambda:(" * 200_000,
        b"x = " + b"-" * 1_000_000 + b"1",
        b"\n".join(b" " * n + b"if x:" for n in range(2000)),
        b"class A:" * 100_000,
        random.Random(7).randbytes(5_000_000),
        bytes(5_000_000),
        b"x" * 5_000_000,
    ],
    ids=lambda source: repr(source[:12]),
)
def test_depth_and_size_are_no_danger(source: bytes) -> None:
    """No recursion, and results in proportion."""
    scanned = Scanned(source + b"\ndef last(): pass\n", 1 << 16)
    assert len(scanned.errors) <= 100
    assert sum(len(scope[-1]) + len(scope[0]) for scope in scanned.raw[0]) <= 200 * len(source)


def test_a_long_scope_name_opens_no_scope() -> None:
    """What such a definition holds belongs to the scope around it."""
    source = f"class {'A' * 600}:\n  class {'B' * 600}:\n    x = 1\n  y = 2\n"
    scanned = Scanned(source)
    assert [scope.name for scope in scanned.scopes] == ["", "A" * 600]
    assert [name for name, kind, _ in scanned.bound("A" * 600) if kind == "="] == ["x", "y"]
    assert scanned.errors == [(2, "the name of the scope is too long")]


def test_deep_blocks_belong_to_the_last_that_counts() -> None:
    """Python takes 100 levels of indentation, and so does the scanner."""
    source = "".join(" " * n + "class A:\n" for n in range(120)) + " " * 120 + "x = 1\n"
    scanned = Scanned(source)
    assert len(scanned.scopes) >= 100
    assert "too many levels of indentation" in {text for _, text in scanned.errors}


# Bytes that are no text.


def test_byte_order_mark_is_passed_over() -> None:
    """It is no part of the first name."""
    assert Scanned(b"\xef\xbb\xbfx = 1").bound() == [("x", "=", 1)]
    assert Scanned(b"\xef\xbb\xbf").errors == []
    assert Scanned(b"\xef\xbb").position == 2


def test_invalid_utf8_is_escaped_in_names() -> None:
    """Names can be printed and stored whatever the file holds."""
    scanned = Scanned(b"caf\xe9 = '\xff'\ndef \xed\xa0\x80(): pass\nx = '\xff'\n")
    assert [name for name, _, _ in scanned.bound()] == ["caf\\xe9", "\\xed\\xa0\\x80", "x"]
    assert scanned.scopes[1].name == "\\xed\\xa0\\x80"
    assert scanned.info("x") == b":='\xff'"
    for _, name, _, _ in scanned.names:
        name.encode()


def test_null_bytes_are_a_remark() -> None:
    """What stands around them is found."""
    scanned = Scanned(b"x = 1\0\ny\0 = 2\n\0\nz = 3\n")
    assert [name for name, _, _ in scanned.bound()] == ["x", "y", "z"]
    assert scanned.errors[0] == (1, "source code cannot contain null bytes")


# The interface.


@pytest.mark.parametrize("source", ["text", bytearray(b"x"), memoryview(b"x"), None, 3])
def test_only_bytes_can_be_scanned(source: object) -> None:
    """Anything else may change while it is scanned."""
    with pytest.raises(TypeError, match="source must be bytes"):
        SourceScanner(source)


def test_constructor_takes_its_argument_by_name() -> None:
    """As its signature says."""
    assert SourceScanner(source=b"", uses=False).scan(1)
    with pytest.raises(TypeError):
        SourceScanner()
    with pytest.raises(TypeError):
        SourceScanner(b"", True, b"")


@pytest.mark.parametrize("size", [0, -1, -(1 << 62)])
def test_a_step_has_at_least_one_byte(size: int) -> None:
    """Otherwise a loop of steps would not end."""
    with pytest.raises(ValueError, match="max_bytes must be positive"):
        SourceScanner(b"x").scan(size)


def test_a_step_takes_an_integer() -> None:
    """Of a size that can be told to a machine."""
    with pytest.raises(TypeError):
        SourceScanner(b"x").scan("1")
    with pytest.raises(OverflowError):
        SourceScanner(b"x").scan(1 << 70)


def test_the_source_is_kept_and_not_copied() -> None:
    """The scanner owns a reference to the bytes while it lives."""
    source = b"x = 1\n" * 1000
    before = sys.getrefcount(source)
    scanner = SourceScanner(source)
    assert sys.getrefcount(source) == before + 1
    del scanner
    assert sys.getrefcount(source) == before


def test_a_subclass_of_bytes_is_scanned() -> None:
    """Its content counts."""

    class Odd(bytes):
        def __len__(self) -> int:
            return 1 << 40

    assert Scanned(Odd(b"x = 1")).bound() == [("x", "=", 1)]


@pytest.mark.parametrize("method", ["scopes", "names", "definitions"])
def test_results_in_parts_make_up_the_whole(method: str) -> None:
    """Long lists can be made in small steps."""
    scanner = SourceScanner(b"".join(b"def f%d(a): x = 1\n" % n for n in range(50)))
    scanner.scan(1 << 20)
    ask = getattr(scanner, method)
    whole = ask()
    assert len(whole) >= 50
    parts = []
    while part := ask(first=len(parts), limit=7):
        assert len(part) <= 7
        parts += part
    assert parts == whole
    assert ask(10) == whole[10:]
    assert ask(len(whole)) == ask(1 << 60, 1 << 60) == ask(0, 0) == []
    for arguments in [(-1,), (0, -2)]:
        with pytest.raises(ValueError, match="must"):
            ask(*arguments)


@pytest.mark.parametrize("attribute", ["position", "_steps"])
def test_attributes_cannot_be_set(attribute: str) -> None:
    """They tell of the scan."""
    with pytest.raises(AttributeError):
        setattr(SourceScanner(b""), attribute, 1)


# The packed form.

NAMES = st.dictionaries(st.text(st.characters(exclude_categories=["Cs"])), st.binary(max_size=300))


@given(NAMES)
def test_packed_information_comes_back(info: dict[str, bytes]) -> None:
    """With its order."""
    assert list(unpack_info(pack_info(info)).items()) == list(info.items())


def test_no_information_is_packed_as_nothing() -> None:
    """An empty scope costs no bytes."""
    assert pack_info({}) == b""
    assert unpack_info(b"") == {}


@given(NAMES.filter(bool), st.data())
def test_cut_off_data_is_refused(info: dict[str, bytes], data: st.DataObject) -> None:
    """At whichever byte, but the empty form."""
    packed = pack_info(info)
    with pytest.raises(ValueError, match="damaged"):
        unpack_info(packed[: data.draw(st.integers(1, len(packed) - 1))] if len(packed) > 1 else b"\1")


@given(NAMES, st.binary(min_size=1, max_size=5))
def test_data_behind_the_end_is_refused(info: dict[str, bytes], rest: bytes) -> None:
    """It is no part of any name."""
    packed = pack_info(info) or b"\0"
    with pytest.raises(ValueError, match="damaged"):
        unpack_info(packed + rest)


@given(st.binary(max_size=60))
def test_any_data_is_unpacked_or_refused(packed: bytes) -> None:
    """Never anything else."""
    try:
        info = unpack_info(packed)
    except ValueError:
        return
    assert sum(map(len, info.values())) <= len(packed)


@pytest.mark.parametrize(
    "packed",
    [
        b"\x01",
        b"\x02\x01\x00a\x01\x00a",
        b"\xff" * 9 + b"\x01",
        b"\x01\xff\xff\xff\xff\xff\xff\xff\x7f\x00a",
        b"\x01\x00\xff\xff\xff\xff\xff\xff\xff\x7f",
        b"\x80",
    ],
    ids=["cut off", "twice a name", "long count", "long name", "long information", "open number"],
)
def test_damaged_data_is_refused(packed: bytes) -> None:
    """Lengths that lead out of the data, and names that are there twice."""
    with pytest.raises(ValueError, match="damaged"):
        unpack_info(packed)


@pytest.mark.parametrize("info", [{"a": "b"}, {1: b"b"}, {"a": None}, None, 3])
def test_only_text_and_bytes_can_be_packed(info: object) -> None:
    """Names are text, their information is bytes."""
    with pytest.raises((TypeError, AttributeError)):
        pack_info(info)


def test_only_bytes_can_be_unpacked() -> None:
    """As they came from a scan."""
    with pytest.raises(TypeError, match="packed must be bytes"):
        unpack_info("a")


def test_a_lone_surrogate_cannot_be_packed() -> None:
    """It has no UTF-8."""
    with pytest.raises(UnicodeEncodeError):
        pack_info({"\ud800": b""})
