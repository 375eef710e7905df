"""UTF-8 helpers, each beside the plain-Python way."""

import sys

import pytest
from hypothesis import given
from hypothesis import strategies as st
from pysource import strutils

kSample = "aé中😀 7_"
kBytes = kSample.encode()

# Text of all planes, with an eye on the borders of the UTF-8 forms.
characters = st.one_of(
    st.characters(exclude_categories=["Cs"]),
    st.sampled_from("\x00\x7f\x80߿ࠀ퟿￿\U00010000\U0010ffff"),
)
texts = st.text(alphabet=characters, max_size=12)


def starts(data):
    """Positions of the first bytes of characters."""
    return [i for i, byte in enumerate(data) if not 0x80 <= byte < 0xC0]


class Str(str):
    """Not exactly str."""


class Bytes(bytes):
    """Not exactly bytes."""


# --- OrdAt ---------------------------------------------------------------------------------------


@given(texts, st.integers(-15, 15))
def test_ord_at(text, i):
    for value, codes in ((text, [ord(c) for c in text]), (text.encode(), list(text.encode()))):
        if -len(codes) <= i < len(codes):
            assert strutils.OrdAt(value, i) == codes[i]
        else:
            with pytest.raises(IndexError, match="^string index out of range$"):
                strutils.OrdAt(value, i)


def test_ord_at_counts_from_the_end_once():
    assert strutils.OrdAt("x", -1) == ord("x")
    with pytest.raises(IndexError, match="^string index out of range$"):
        strutils.OrdAt("x", -2)


def test_ord_at_of_a_lone_surrogate():
    assert strutils.OrdAt("\ud800", 0) == 0xD800


@pytest.mark.parametrize("value", [1, None, [1], bytearray(b"x"), Str("x"), Bytes(b"x")])
def test_ord_at_of_another_type(value):
    with pytest.raises(TypeError) as caught:
        strutils.OrdAt(value, 0)
    assert str(caught.value) == f"Expected str or bytes, got {type(value).__name__}"


# --- Concatenation -------------------------------------------------------------------------------


@given(st.lists(st.none() | st.text(max_size=5), min_size=2, max_size=5))
def test_concatenation_leaves_none_out(parts):
    concat = getattr(strutils, f"Utf8Concat{len(parts)}")
    assert concat(*parts) == "".join(part for part in parts if part is not None)


def test_concatenation_of_nothing():
    assert strutils.Utf8Concat2(None, None) == ""
    assert strutils.Utf8Concat5("a", "b", "c", None, None) == "abc"


@pytest.mark.parametrize("count", [2, 3, 4, 5])
def test_concatenation_needs_strings(count):
    concat = getattr(strutils, f"Utf8Concat{count}")
    with pytest.raises(TypeError, match="^Expected str, got bytes$"):
        concat(*["a"] * (count - 1), b"b")
    with pytest.raises(TypeError):
        concat(*["a"] * (count - 1))
    with pytest.raises(TypeError):
        concat(*["a"] * (count + 1))


# --- GetUtf8Ptr ----------------------------------------------------------------------------------


@given(texts)
def test_the_utf8_form(text):
    assert strutils.GetUtf8Ptr(text) == text.encode()
    assert strutils.GetUtf8Ptr(text.encode()) == text.encode()


def test_what_has_no_utf8_form():
    with pytest.raises(UnicodeEncodeError):
        strutils.GetUtf8Ptr("\ud800")
    with pytest.raises(TypeError):
        strutils.GetUtf8Ptr(None)


# --- AdjustUtf8Pos -------------------------------------------------------------------------------


def adjusted(data, pos, diff, end_pos):
    """The model: a list of the first bytes, with the end behind it."""
    firsts = [i for i in starts(data) if i < end_pos]
    if 0 <= pos < end_pos:
        pos = max((i for i in firsts if i <= pos), default=-1)
    places = [-1, *firsts, end_pos]
    index = places.index(pos) + diff
    return places[min(max(index, 0), len(places) - 1)]


@given(texts, st.data())
def test_adjusting_beside_the_model(text, data):
    utf8 = text.encode()
    end_pos = data.draw(st.sampled_from([*starts(utf8), len(utf8)]))
    pos = data.draw(st.integers(0, end_pos))
    diff = data.draw(st.integers(-15, 15))
    expected = adjusted(utf8, pos, diff, end_pos)
    assert strutils.AdjustUtf8Pos(utf8, pos, diff, end_pos) == expected
    assert strutils.AdjustUtf8Pos(text, pos, diff, end_pos) == expected
    assert -1 <= expected <= end_pos


def test_from_inside_a_character_to_its_first_byte():
    first = kBytes.index("中".encode())
    for pos in (first, first + 1, first + 2):
        assert strutils.AdjustUtf8Pos(kSample, pos, 0, len(kBytes)) == first


def test_from_inside_a_character_steps_are_from_its_first_byte():
    first = kBytes.index("中".encode())
    assert strutils.AdjustUtf8Pos(kSample, first + 2, 1, len(kBytes)) == first + 3
    assert strutils.AdjustUtf8Pos(kSample, first + 2, -1, len(kBytes)) == first - 2


def test_a_step_on_the_last_character_leads_to_the_end():
    assert strutils.AdjustUtf8Pos("é", 0, 1, 2) == 2
    assert strutils.AdjustUtf8Pos("é", 0, 2**62, 2) == 2


def test_a_step_back_on_the_first_character_leads_to_minus_one():
    assert strutils.AdjustUtf8Pos("é", 0, -1, 2) == -1
    assert strutils.AdjustUtf8Pos("é", 2, -(2**62), 2) == -1


def test_a_step_from_before_the_start_leads_to_it():
    assert strutils.AdjustUtf8Pos("é", -1, 1, 2) == 0
    assert strutils.AdjustUtf8Pos("é", -1, 0, 2) == -1
    assert strutils.AdjustUtf8Pos("é", -1, -1, 2) == -1


def test_a_position_behind_the_end_stays():
    assert strutils.AdjustUtf8Pos("abc", 9, 0, 3) == 9
    assert strutils.AdjustUtf8Pos("abc", 9, 2, 3) == 9
    assert strutils.AdjustUtf8Pos("abc", 3, 2, 2) == 3


def test_stray_continuation_bytes_lead_to_before_the_start():
    assert strutils.AdjustUtf8Pos(b"\x80\x80a", 1, 0, 3) == -1


@pytest.mark.parametrize(
    "arguments", [(-5, 1, 3), (9, -1, 3), (0, 9, 4), (2**62, -1, 3), (5, 0, 9), (-(2**62), 1, 3)]
)
def test_adjusting_never_reads_outside(arguments):
    with pytest.raises(ValueError, match="outside"):
        strutils.AdjustUtf8Pos(b"abc", *arguments)


# --- Characters ----------------------------------------------------------------------------------


@given(texts)
def test_decoding(text):
    utf8 = text.encode()
    for pos, character in zip(starts(utf8), text, strict=True):
        assert strutils.Ucs4CharAtUtf8Pos(utf8, pos, len(utf8)) == ord(character)
        assert strutils.Ucs4CharAtUtf8Pos(text, pos, len(utf8)) == ord(character)


kAtPosition = [
    strutils.Ucs4CharAtUtf8Pos,
    strutils.IsSpaceAtUtf8Pos,
    strutils.IsDigitAtUtf8Pos,
    strutils.IsAlnumAtUtf8Pos,
    lambda *arguments: strutils.IsIdentifierCharAtUtf8Pos(*arguments, True),
    lambda *arguments: strutils.IsIdentifierCharAtUtf8Pos(*arguments, False),
]


@pytest.mark.parametrize("function", kAtPosition)
def test_at_the_end_position_there_is_nothing(function):
    assert function("7", 1, 1) == 0
    assert function("7", 0, 0) == 0
    assert function("7", 5, 1) == 0
    assert function(b"\xff", 0, 0) == 0


kMalformed = [
    (b"\x80", "stray continuation byte"),
    (b"\xbf\x80", "stray continuation byte"),
    (b"\xc0\x80", "overlong form"),
    (b"\xc1\xbf", "overlong form"),
    (b"\xe0\x80\x80", "overlong form"),
    (b"\xe0\x9f\xbf", "overlong form"),
    (b"\xf0\x80\x80\x80", "overlong form"),
    (b"\xf0\x8f\xbf\xbf", "overlong form"),
    (b"\xed\xa0\x80", "surrogate"),
    (b"\xed\xbf\xbf", "surrogate"),
    (b"\xf4\x90\x80\x80", "beyond"),
    (b"\xf5\x80\x80\x80", "beyond"),
    (b"\xff", "beyond"),
    (b"\xc3", "truncated"),
    (b"\xe4\xb8", "truncated"),
    (b"\xf0\x9f\x98", "truncated"),
    (b"\xc3a", "truncated"),
    (b"\xe4\xb8a", "truncated"),
]


@pytest.mark.parametrize("function", kAtPosition)
@pytest.mark.parametrize(("sequence", "reason"), kMalformed)
def test_malformed_sequences(function, sequence, reason):
    for data, pos in ((sequence, 0), (b"ab" + sequence, 2)):
        with pytest.raises(UnicodeDecodeError, match=f"{reason}.* position {pos}$"):
            function(data, pos, len(data))


@pytest.mark.parametrize(
    ("data", "shown"),
    [
        (b"\x80", b"\x80"),
        (b"\xc0\x80", b"\xc0"),
        (b"\xed\xa0\x80", b"\xed\xa0"),
        (b"\xe4\xb8a", b"\xe4\xb8a"),
        (b"\xff", b"\xff"),
    ],
)
def test_a_failure_shows_what_was_looked_at(data, shown):
    """And nothing behind it, also if the end position lies outside of the text."""
    for end_pos in (len(data), len(data) + 9):
        with pytest.raises(UnicodeDecodeError) as caught:
            strutils.Ucs4CharAtUtf8Pos(data, 0, end_pos)
        assert caught.value.object == shown


@pytest.mark.parametrize("function", kAtPosition)
def test_a_sequence_is_cut_off_by_the_end_position(function):
    with pytest.raises(UnicodeDecodeError, match="truncated"):
        function("中", 0, 2)


@pytest.mark.parametrize("function", kAtPosition)
def test_characters_are_never_read_outside(function):
    for data, pos, end_pos in (
        (b"abc", -1, 3),
        (b"abc", 3, 4),
        (b"abc", 2**62, 2**63 - 1),
        (b"\xc3", 0, 2),
        (b"", 0, 1),
    ):
        with pytest.raises(ValueError, match="outside"):
            function(data, pos, end_pos)


@given(st.binary(max_size=6))
def test_decoding_any_bytes_as_python_does(data):
    try:
        expected = ord(data.decode()[0]) if data else 0
    except UnicodeDecodeError as error:
        expected = None if error.start == 0 else ord(data[: error.start].decode()[0])
    if expected is None:
        with pytest.raises(UnicodeDecodeError):
            strutils.Ucs4CharAtUtf8Pos(data, 0, len(data))
    else:
        assert strutils.Ucs4CharAtUtf8Pos(data, 0, len(data)) == expected


kAsciiSpace = set(" \t\n\v\f\r")


def is_space(c):
    return c in kAsciiSpace if c < "\x80" else c.isspace()


def is_identifier(c, initial):
    return c.isidentifier() or (not initial and c.isdigit())


def test_every_code_point():
    """All tests of characters beside the str methods, over all of Unicode."""
    for u in range(sys.maxunicode + 1):
        c = chr(u)
        assert strutils.IsIdentifierChar(u, True) is is_identifier(c, True), hex(u)
        assert strutils.IsIdentifierChar(u, False) is is_identifier(c, False), hex(u)
        if 0xD800 <= u < 0xE000:
            continue
        utf8 = c.encode()
        end = len(utf8)
        assert strutils.Ucs4CharAtUtf8Pos(utf8, 0, end) == u
        assert strutils.IsSpaceAtUtf8Pos(utf8, 0, end) is is_space(c), hex(u)
        assert strutils.IsDigitAtUtf8Pos(utf8, 0, end) is c.isdigit(), hex(u)
        assert strutils.IsAlnumAtUtf8Pos(utf8, 0, end) is c.isalnum(), hex(u)
        for initial in (True, False):
            is_one = strutils.IsIdentifierCharAtUtf8Pos(utf8, 0, end, initial)
            assert is_one is is_identifier(c, initial), hex(u)


def test_a_digit_is_no_first_character_of_a_name():
    assert strutils.IsIdentifierChar(ord("7"), False) is True
    assert strutils.IsIdentifierChar(ord("7"), True) is False


def test_a_separator_is_no_c_space():
    assert strutils.IsSpaceAtUtf8Pos("\x1c", 0, 1) is False
    assert "\x1c".isspace()


@pytest.mark.parametrize("u", [-1, 0x110000, 2**40])
def test_beyond_unicode(u):
    with pytest.raises(ValueError):
        strutils.IsIdentifierChar(u, True)


# --- Bytes ---------------------------------------------------------------------------------------


@given(st.binary(max_size=40), st.integers(0, 255), st.integers(-3, 45))
def test_finding_a_byte(data, c, start):
    if 0 <= start < len(data):
        expected = data.find(bytes([c]), start)
        assert strutils.PtrFindByte(data, len(data), c, start) == expected
        assert strutils.BytesFindByte(data, c, start) == expected
        assert strutils.BytesFindByte(data, bytes([c]), start) == expected
        return
    for function in (
        lambda: strutils.PtrFindByte(data, len(data), c, start),
        lambda: strutils.BytesFindByte(data, c, start),
    ):
        with pytest.raises(ValueError, match="^Invalid start$"):
            function()


def test_a_start_at_the_very_end_is_an_error():
    with pytest.raises(ValueError, match="^Invalid start$"):
        strutils.PtrFindByte(b"abc", 3, b"a", 3)
    with pytest.raises(ValueError, match="^Invalid start$"):
        strutils.BytesFindByte(b"", b"a")


def test_the_length_bounds_the_search():
    assert strutils.PtrFindByte(b"abc", 2, b"c", 0) == -1
    assert strutils.PtrFindByte("é", 2, 0xA9, 0) == 1
    with pytest.raises(ValueError, match="outside"):
        strutils.PtrFindByte(b"abc", 4, b"c", 0)


def test_the_start_is_0_if_left_out():
    assert strutils.BytesFindByte(b"abca", b"a") == 0
    assert strutils.BytesFindByte(b="abca".encode(), c=97, start=1) == 3


@pytest.mark.parametrize("value", ["abc", None, 5, bytearray(b"abc"), Bytes(b"abc")])
def test_bytes_find_byte_needs_bytes(value):
    with pytest.raises(TypeError) as caught:
        strutils.BytesFindByte(value, 97)
    assert str(caught.value) == f"Expected bytes, got {type(value).__name__}"


@pytest.mark.parametrize(
    ("c", "error"), [(256, OverflowError), (-1, OverflowError), (b"", ValueError), ("a", TypeError)]
)
def test_the_byte_is_one(c, error):
    with pytest.raises(error):
        strutils.BytesFindByte(b"abc", c)


# --- AdjustPosArg --------------------------------------------------------------------------------


@given(st.integers(-50, 50), st.integers(0, 30))
def test_a_position_as_a_slice_takes_it(pos, length):
    assert strutils.AdjustPosArg(pos, length) == slice(pos, None).indices(length)[0]


def test_positions_at_the_borders():
    assert strutils.AdjustPosArg(-7, 7) == 0
    assert strutils.AdjustPosArg(8, 7) == 7
    assert strutils.AdjustPosArg(7, 7) == 7
    assert strutils.AdjustPosArg(-1, 7) == 6
    assert strutils.AdjustPosArg(-(2**63), 2**63 - 1) == 0
    assert strutils.AdjustPosArg(2**63 - 1, 5) == 5


@pytest.mark.parametrize("function", [strutils.AdjustUtf8Pos, *kAtPosition])
def test_texts_are_bytes_or_str(function):
    arguments = (0, 0, 1) if function is strutils.AdjustUtf8Pos else (0, 1)
    for bad in (None, 1, bytearray(b"a")):
        with pytest.raises(TypeError):
            function(bad, *arguments)
    for bad in ("0", None, 1.5):
        with pytest.raises(TypeError):
            function(b"a", bad, *arguments[1:])
