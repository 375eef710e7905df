"""Double bits, character tests, and the search outside of brackets and literals."""

import math
import string
import struct
import sys

import pytest
from hypothesis import example, given
from hypothesis import strategies as st
from pysource import _fastaccess
from pysource._fastaccess import CNonNestedSearch

# --- Doubles -------------------------------------------------------------------------------------


def bits_of(f):
    return struct.unpack("<Q", struct.pack("<d", f))[0]


@given(st.floats())
@example(-0.0)
@example(5e-324)
def test_bits_of_doubles(f):
    bits = _fastaccess.ULongLongValueForDoubleBits(f)
    assert bits == bits_of(f)
    assert bits_of(_fastaccess.DoubleValueForULongLongBits(bits)) == bits


@given(st.integers(0, 2**64 - 1))
def test_doubles_of_bits(bits):
    expected = struct.unpack("<d", struct.pack("<Q", bits))[0]
    for f in (
        _fastaccess.DoubleValueForULongLongBits(bits),
        _fastaccess.DoubleValueForPyIntBits(bits),
    ):
        assert f == expected or (math.isnan(f) and math.isnan(expected))


@given(st.integers(-(2**200), 2**200))
def test_only_the_low_64_bits_of_an_integer_count(number):
    f = _fastaccess.DoubleValueForPyIntBits(number)
    expected = struct.unpack("<d", struct.pack("<Q", number % 2**64))[0]
    assert f == expected or (math.isnan(f) and math.isnan(expected))


def test_all_bits_of_a_double():
    assert math.isnan(_fastaccess.DoubleValueForPyIntBits(-1))
    assert math.isnan(_fastaccess.DoubleValueForULongLongBits(2**64 - 1))


@pytest.mark.parametrize("bits", [-1, 2**64, -(2**80), 2**80])
def test_bits_out_of_range(bits):
    with pytest.raises(OverflowError):
        _fastaccess.DoubleValueForULongLongBits(bits)


@pytest.mark.parametrize(
    "function", [_fastaccess.DoubleValueForULongLongBits, _fastaccess.DoubleValueForPyIntBits]
)
def test_bits_are_an_integer(function):
    for bad in (1.0, "1", None):
        with pytest.raises(TypeError):
            function(bad)


def test_a_double_is_a_number():
    assert _fastaccess.ULongLongValueForDoubleBits(1) == bits_of(1.0)
    with pytest.raises(TypeError):
        _fastaccess.ULongLongValueForDoubleBits("1")


# --- Tests ---------------------------------------------------------------------------------------


@given(st.binary(max_size=4), st.binary(max_size=20))
@example(b"", b"")
@example(b"a\0x", b"ba")
@example(b"b", b"a\0b")
def test_one_string_in_another(sub, whole):
    expected = sub.split(b"\0")[0] in whole.split(b"\0")[0]
    assert _fastaccess.StrInStr(sub, whole) is expected


class Bytes(bytes):
    """Not exactly bytes."""


class Str(str):
    """Not exactly str."""


@pytest.mark.parametrize("bad", ["a", None, 1, bytearray(b"a"), Bytes(b"a")])
def test_both_are_exactly_bytes(bad):
    for arguments in ((bad, b"a"), (b"a", bad)):
        with pytest.raises(TypeError, match="^Both sub and whole must be strings$"):
            _fastaccess.StrInStr(*arguments)


def test_alnum_and_digit_of_every_byte():
    alnum = set((string.ascii_letters + string.digits).encode())
    digits = set(string.digits.encode())
    for byte in range(256):
        assert _fastaccess.IsAlnum(byte) is (byte in alnum)
        assert _fastaccess.IsDigit(byte) is (byte in digits)
        assert _fastaccess.IsDigit(bytes([byte])) is (byte in digits)


@pytest.mark.parametrize("function", [_fastaccess.IsAlnum, _fastaccess.IsDigit])
def test_a_character_is_one_byte(function):
    for bad in (-1, 256, 10**30):
        with pytest.raises(OverflowError):
            function(bad)
    with pytest.raises(ValueError):
        function(b"ab")
    with pytest.raises(TypeError):
        function("a")


def test_locations_are_equal_if_they_are_one_object():
    class Location:
        def __eq__(self, other):
            raise AssertionError("contents were compared")

    one, other = Location(), Location()
    assert _fastaccess.LocationsEqual(one, one) is True
    assert _fastaccess.LocationsEqual(one, other) is False
    assert _fastaccess.LocationsEqual(None, None) is True
    assert _fastaccess.LocationsEqual(one, None) is False


@pytest.mark.parametrize("opener", "([{")
def test_openers(opener):
    assert _fastaccess.UpdateNestingLevel(3, opener) == 4
    assert _fastaccess.UpdateNestingLevel(3, opener, False) == 2


@pytest.mark.parametrize("closer", ")]}")
def test_closers(closer):
    assert _fastaccess.UpdateNestingLevel(0, closer) == -1
    assert _fastaccess.UpdateNestingLevel(0, closer, forward=False) == 1


@pytest.mark.parametrize("token", ["", "((", "()", "a", "é", "中", "name", "("[:0]])
@pytest.mark.parametrize("forward", [True, False])
def test_other_tokens_leave_the_level(token, forward):
    assert _fastaccess.UpdateNestingLevel(5, token, forward) == 5


@pytest.mark.parametrize("bad", [None, 1, b"("])
def test_a_token_is_text(bad):
    with pytest.raises(TypeError):
        _fastaccess.UpdateNestingLevel(0, bad)


def test_a_level_has_32_bits():
    with pytest.raises(OverflowError):
        _fastaccess.UpdateNestingLevel(2**31, "(")


# --- Search --------------------------------------------------------------------------------------


def matches(text, needle, start=0, end=None):
    """All matches, in order."""
    size = len(text if isinstance(text, bytes) else text.encode())
    search = CNonNestedSearch()
    result = search.InitWith(text, needle, start, size if end is None else end)
    assert result == 0
    found = []
    while (pos := search.FindNext()) != -1:
        found.append(pos)
    return found


def model(text, needle, start=0, end=None):
    """The search, one byte at a time; literals have no prefixes here."""
    end = len(text) if end is None else end
    level, pos, found = 0, start, []
    if not needle:
        return found
    while pos < end:
        byte = text[pos]
        if level == 0 and text[pos:end].startswith(needle):
            found.append(pos)
            level += sum(needle.count(c) for c in b"([{") - sum(needle.count(c) for c in b")]}")
            pos += len(needle)
        elif byte in b"\"'":
            pos = literal_end(text, pos, end)
        else:
            level += (byte in b"([{") - (byte in b")]}")
            pos += 1
    return found


def literal_end(text, pos, end):
    """Where a literal without a prefix ends."""
    quote = text[pos : pos + 1]
    triple = text[pos : min(pos + 3, end)] == quote * 3
    closing = quote * (3 if triple else 1)
    pos += len(closing)
    while pos < end:
        if text[pos : pos + 1] == b"\\":
            pos += 1
            if text[pos : pos + 2] == b"\r\n" and pos + 2 <= end:
                pos += 1
        elif not triple and text[pos] in b"\r\n":
            return pos
        elif text[pos:end].startswith(closing):
            return pos + len(closing)
        pos += 1
    return end


@given(
    st.text(alphabet="a;()[]{}'\"\\\n x", max_size=150).map(str.encode),
    st.sampled_from([b";", b"a", b"a;", b"(", b"()", b")", b"'", b"'a", b'"', b"x a", b""]),
    st.data(),
)
def test_the_search_beside_the_model(text, needle, data):
    start = data.draw(st.integers(0, len(text)))
    end = data.draw(st.integers(0, len(text)))
    assert matches(text, needle, start, end) == model(text, needle, start, end)
    assert matches(text, needle) == model(text, needle)


@given(st.integers(0, 200), st.integers(0, 200), st.integers(0, 70))
def test_blocks_have_no_borders(before, between, inside):
    """Long runs without interest, so that what matters stands anywhere in a block."""
    text = b"x" * before + b"(" + b"y;" * inside + b")" + b"z" * between + b"';';" + b"-" * inside
    assert matches(text, b";") == [before + 2 * inside + 2 + between + 3]


def test_in_brackets_and_literals_nothing_is_found():
    assert matches(b"f(a;b)", b";") == []
    assert matches(b"';' \";\"", b";") == []
    assert matches(b"f(a;b);", b";") == [6]
    assert matches(b"';';", b";") == [3]


def test_an_escape_in_a_format_specification_is_part_of_the_literal():
    assert matches(rb"f'{x!r:\'}';", b";") == [11]
    assert matches(rb"f'{x:\}}';", b";") == [9]


def test_positions_are_those_of_the_utf8_form():
    assert matches("é;中;", b";") == [2, 6]
    assert matches("é;中;".encode(), b";") == [2, 6]
    assert matches("é中", "中".encode()) == [2]


def test_a_bracket_is_found_and_counts():
    assert matches(b"f(x)(y)", b"(") == [1, 4]
    assert matches(b"((", b"(") == [0]
    assert matches(b"a)b)", b")") == [1]


def test_the_bytes_of_a_match_count():
    assert matches(b"f(a);f(b", b"f(") == [0, 5]
    assert matches(b"x(;);", b"x(") == [0]
    search = CNonNestedSearch()
    search.InitWith(b"ab(;);", b"ab(", 0, 6)
    assert search.FindNext() == 0
    assert search.FindNext() == -1


def test_a_quote_that_is_sought_is_found_at_level_0():
    assert matches(b"a'b'c'", b"'") == [1, 3, 5]
    assert matches(b"a'b'", b"'b'") == [1]
    assert matches(b"('b')'b'", b"'b'") == [5]


def test_a_match_must_lie_before_the_end():
    assert matches(b"aab", b"ab", 0, 2) == []
    assert matches(b"aab", b"ab", 0, 3) == [1]


def test_matches_do_not_overlap():
    assert matches(b"aaaa", b"aa") == [0, 2]


def test_behind_an_unbalanced_closer_nothing_is_found():
    assert matches(b"a);b;", b";") == []
    assert matches(b"a);b(;", b";") == [5]


def test_an_empty_search_finds_nothing():
    assert matches(b"abc", b"") == []


def test_comments_are_no_literals_but_their_quotes_count():
    assert matches(b"a # don't; \n;", b";") == [12]


kLiterals = [
    (b"'a\\';';", [6]),
    (b"'\\\\';", [4]),
    (b"r'\\';';", [6]),
    (b"R'\\\\';", [5]),
    (b"b';';", [4]),
    (b"rb';';Rb\";\";", [5, 11]),
    (b"'''a';''';", [9]),
    (b"'''\n;''';", [8]),
    (b"'''a\\''';''';", [12]),
    (b"'';", [2]),
    (b"'''''';", [6]),
    (b"'a\n;", [3]),
    (b"'a\r;", [3]),
    (b"'a\\\n;';", [6]),
    (b"'a\\\r\n;';", [7]),
    (b"'''a;", []),
    (b"'a;", []),
    (b"'a\\", []),
    # Replacement fields.
    (b"f'{a}';", [6]),
    (b"f'{a[';']};';", [12]),
    (b"f'{a[\";\"]};';", [12]),
    (b"F'{';'};';", [9]),
    (b"fr'{';'}\\';';", [12]),
    (b"Rf'{';'}';", [9]),
    (b"f'{{';", [5]),
    (b"f'}}';", [5]),
    (b"f'{{{';'}}}';", [12]),
    (b"f'{x:{';'}};';", [13]),
    (b"f'{x!r:>{w}};';", [14]),
    (b"f'{ {1: ';'}[1] };';", [19]),
    (b"f'{f'{f';'}'}';", [14]),
    (b"f'{x\n};';", [8]),
    (b"f'''{x # ';'\n};''';", [18]),
    (b"f'''{';'}';''';", [14]),
    (b"f'''{x:\n}''';", [12]),
    (b"f'\\{';'}';", [9]),
    (b"f'\\N{DASH}';", [11]),
    (b"fr'\\N{';'}';", [11]),
    (b"f'{x:';", [6]),
    (b"f'{x", []),
    (b"f'{x;';", []),
    (b"f'a\n;", [4]),
    (b"f'{\"a\n};';", [9]),
    # A name that ends in f is no prefix, and bytes have no fields.
    (b"buf'{';'}';", [6, 10]),
    (b"_f'{';'}';", [5, 9]),
    ("éf'{';'}';".encode(), [6, 10]),
    (b"bf'{';'}';", [5, 9]),
    (b"fb'{';'}';", [5, 9]),
    (b"u'{';'}';", [4, 8]),
]


@pytest.mark.parametrize(("text", "found"), kLiterals)
def test_where_literals_end(text, found):
    assert matches(text, b";") == found


def test_f_strings_nested_beyond_measure_run_to_the_end():
    deep = 5000
    text = b"f'{" * deep + b"1" + b"}'" * deep + b";"
    assert matches(text, b";") == []
    assert matches(b"f'{" * 100 + b"1" + b"}'" * 100 + b";", b";") == [501]


def test_deep_brackets():
    deep = 1_000_000
    assert matches(b"(" * deep + b";" + b")" * deep + b";", b";") == [2 * deep + 1]


def test_literals_of_real_source_end_where_the_tokenizer_says():
    """Each literal of this file and of some modules of the standard library."""
    import argparse
    import ast
    import io
    import tokenize
    import typing

    count = 0
    for module in (argparse, ast, tokenize, typing, sys.modules[__name__]):
        with tokenize.open(module.__file__) as file:
            source = file.read()
        lines = source.splitlines(keepends=True)
        offsets = [0]
        for line in lines:
            offsets.append(offsets[-1] + len(line.encode()))

        def position(place, lines=lines, offsets=offsets):
            row, column = place
            return offsets[row - 1] + len(lines[row - 1][:column].encode())

        depth = 0
        utf8 = source.encode()
        for token in tokenize.generate_tokens(io.StringIO(source).readline):
            if token.type == tokenize.FSTRING_START:
                begin = begin if depth else position(token.start)
                depth += 1
            elif token.type == tokenize.FSTRING_END:
                depth -= 1
            elif token.type == tokenize.STRING and not depth:
                begin = position(token.start)
            else:
                continue
            if depth:
                continue
            end = position(token.end)
            marked = utf8[begin:end] + b"\x01" + utf8[end : end + 20].replace(b"\0", b"")
            assert matches(marked, b"\x01") == [end - begin], utf8[begin:end]
            count += 1
    assert count > 1000


# --- State ---------------------------------------------------------------------------------------


def test_a_fresh_search_is_cleared():
    search = CNonNestedSearch()
    assert search.fToSearchBytes is None and search.fToSearchStr is None
    assert [search.FindNext() for _ in range(3)] == [-1, -1, -1]


def test_what_is_searched_is_kept_alive():
    search = CNonNestedSearch()
    text = b"a;" * 10
    search.InitWith(text, b";", 0, 20)
    assert search.fToSearchBytes is text and search.fToSearchStr is None
    as_str = "é;" * 10
    search.InitWith(to_search=as_str, to_find_bytes=b";", start=0, end=30)
    assert search.fToSearchStr is as_str and search.fToSearchBytes is None
    del text, as_str
    assert search.FindNext() == 2


def test_the_last_find_clears_the_search():
    search = CNonNestedSearch()
    search.InitWith("a;", b";", 0, 2)
    assert search.FindNext() == 1
    assert search.fToSearchStr == "a;"
    assert search.FindNext() == -1
    assert search.fToSearchStr is None
    assert search.FindNext() == -1


def test_clear_and_again():
    search = CNonNestedSearch()
    search.InitWith(b"a;(;", b";", 0, 4)
    search.FindNext()
    search.Clear()
    assert search.fToSearchBytes is None
    assert search.FindNext() == -1
    search.InitWith(b"(;);", b";", 2, 4)
    assert search.FindNext() == -1  # the closer alone leads below 0
    search.InitWith(b"(;);", b";", 3, 4)
    assert search.FindNext() == 3


@pytest.mark.parametrize("nothing", [None, 1, [b"a"], bytearray(b"a;"), memoryview(b"a;")])
def test_what_is_no_text_holds_nothing(nothing):
    search = CNonNestedSearch()
    search.InitWith(b"a;", b";", 0, 2)
    assert search.InitWith(nothing, b";", -5, 100) == 0
    assert search.fToSearchBytes is None and search.fToSearchStr is None
    assert search.FindNext() == -1


@pytest.mark.parametrize(("bad", "expected"), [(Bytes(b"a"), "bytes"), (Str("a"), "str")])
def test_a_subclass_of_bytes_or_str_fails(bad, expected):
    search = CNonNestedSearch()
    with pytest.raises(TypeError) as caught:
        search.InitWith(bad, b"a", 0, 1)
    assert str(caught.value) == f"Expected {expected}, got {type(bad).__name__}"


def test_what_is_sought_is_bytes():
    search = CNonNestedSearch()
    for text in (b"a", None):
        with pytest.raises(TypeError, match="^expected bytes, NoneType found$"):
            search.InitWith(text, None, 0, 0)
        with pytest.raises(TypeError, match="^expected bytes, str found$"):
            search.InitWith(text, "a", 0, 0)


def test_a_failed_start_leaves_the_search_as_it_was():
    search = CNonNestedSearch()
    search.InitWith(b"a;b;", b";", 0, 4)
    assert search.FindNext() == 1
    for arguments in ((b"x", None, 0, 1), (Bytes(b"x"), b"x", 0, 1), ("\ud800", b"x", 0, 1)):
        with pytest.raises((TypeError, ValueError)):
            search.InitWith(*arguments)
    assert search.FindNext() == 3


@pytest.mark.parametrize(("start", "end"), [(-1, 3), (0, 4), (4, 3), (0, -1), (4, 4)])
def test_positions_outside_of_the_text(start, end):
    search = CNonNestedSearch()
    if __debug__:
        with pytest.raises(AssertionError):
            search.InitWith(b"abc", b"b", start, end)
    elif start < 0 or end > 3:
        with pytest.raises(ValueError, match="outside"):
            search.InitWith(b"abc", b"b", start, end)
    else:
        search.InitWith(b"abc", b"b", start, end)
        assert search.FindNext() == -1


def test_a_zero_byte_ends_the_text_for_the_debug_check():
    search = CNonNestedSearch()
    if __debug__:
        with pytest.raises(AssertionError):
            search.InitWith(b"a\0;", b";", 0, 3)
    else:
        search.InitWith(b"a\0;", b";", 0, 3)
        assert search.FindNext() == 2


def test_a_subclass():
    class Named(CNonNestedSearch):
        def __init__(self, name):
            self.name = name

    search = Named("x")
    assert search.FindNext() == -1
    search.InitWith(b"a;", b";", 0, 2)
    assert (search.name, search.FindNext()) == ("x", 1)
