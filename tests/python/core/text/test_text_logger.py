"""The logger."""

import gc
import inspect
import weakref

import pytest
from pysource._fastaccess import CLogger

kCalls = [CLogger.__call__, CLogger.Log1, CLogger.Log2, CLogger.Log3]


class Output:
    """Keeps what is written."""

    def __init__(self):
        self.written = []

    def write(self, text):
        self.written.append(text)


@pytest.fixture
def output():
    return Output()


@pytest.fixture
def log(output):
    log = CLogger("IdleAnalysis")
    log.fOutputFile = output
    return log


class Unformattable:
    """Fails if anybody wants its text."""

    def __repr__(self):
        raise AssertionError("was formatted")

    __str__ = __repr__


@pytest.mark.parametrize("call", kCalls)
def test_without_an_output_file_nothing_is_formatted(call):
    log = CLogger("quiet")
    assert log.fOutputFile is None
    assert call(log, "%s", Unformattable()) is None
    assert call(log, "%d %d", "not even wrong") is None


@pytest.mark.parametrize("call", kCalls)
def test_each_call_makes_one_write_of_one_line(log, output, call):
    call(log, "scan %r of %s", "a", 1)
    call(log, "next")
    assert len(output.written) == 2
    assert output.written[0].endswith("scan 'a' of 1\n")
    assert output.written[1].endswith("next\n")


def test_without_arguments_the_format_stands_as_it_is(log, output):
    log("100% %s %")
    assert output.written[0].endswith("100% %s %\n")


def test_a_line_end_is_added_only_if_there_is_none(log, output):
    log("one\n")
    log("two %s", "\n")
    log("three\n\n")
    assert output.written[0].endswith("one\n") and not output.written[0].endswith("\n\n")
    assert output.written[1].endswith("two \n") and not output.written[1].endswith("\n\n")
    assert output.written[2].endswith("three\n\n")


def test_a_tuple_is_one_argument(log, output):
    log("%s", (1, 2))
    assert output.written[0].endswith("(1, 2)\n")


def test_text_beyond_ascii(log, output):
    log("%s → 中", "é😀\ud800")
    assert output.written[0].endswith("é😀\ud800 → 中\n")


def test_the_line_bears_the_name(log, output):
    log("text")
    assert output.written == ["IdleAnalysis: text\n"]
    assert log.fName == "IdleAnalysis"


def test_a_format_of_none_is_an_empty_line(log, output):
    log(None)
    assert output.written == ["IdleAnalysis: \n"]
    with pytest.raises(TypeError):
        log(None, 1)
    assert len(output.written) == 1


@pytest.mark.parametrize("call", kCalls)
@pytest.mark.parametrize("bad", [1, b"bytes", ["%s"], object()])
def test_a_format_of_another_type_fails(log, output, call, bad):
    with pytest.raises(TypeError):
        call(log, bad)
    with pytest.raises(TypeError):
        call(CLogger("quiet"), bad)
    assert output.written == []


@pytest.mark.parametrize("call", kCalls)
def test_a_missing_format_fails(log, call):
    with pytest.raises(TypeError, match="'s'"):
        call(log)


def test_the_format_by_keyword(log, output):
    log(s="text")
    log.Log1(s="more")
    assert [line[-5:] for line in output.written] == ["text\n", "more\n"]
    with pytest.raises(TypeError):
        log("text", t=1)
    with pytest.raises(TypeError):
        log("text", s="twice")


@pytest.mark.parametrize(
    ("arguments", "error"),
    [(("%d", "x"), TypeError), (("%s",), None), (("%s %s", 1), TypeError), (("%q", 1), ValueError)],
)
def test_formatting_fails_as_percent_does(log, output, arguments, error):
    if error is None:
        log(*arguments)
        assert len(output.written) == 1
        return
    with pytest.raises(error):
        log(*arguments)
    assert output.written == []


def test_a_failure_of_an_argument_passes_through(log):
    with pytest.raises(AssertionError, match="was formatted"):
        log("%s", Unformattable())


def test_a_failure_of_the_output_file_passes_through(log):
    class Full:
        def write(self, text):
            raise OSError("disk full")

    log.fOutputFile = Full()
    with pytest.raises(OSError, match="disk full"):
        log("text")
    log.fOutputFile = object()
    with pytest.raises(AttributeError):
        log("text")


def test_the_output_file_can_be_set_and_taken_away(log, output):
    assert log.fOutputFile is output
    log("one")
    log.fOutputFile = None
    log("two")
    assert len(output.written) == 1
    with pytest.raises(AttributeError):
        del log.fOutputFile


def test_an_output_file_that_takes_itself_away(log):
    class Once:
        def write(self, text):
            log.fOutputFile = None

    log.fOutputFile = Once()
    log("one")
    assert log.fOutputFile is None


def test_a_logger_that_logs_while_it_writes(log, output):
    class Nested:
        depth = 0

        def write(self, text):
            self.depth += 1
            if self.depth < 3:
                log("deeper")
            output.write(text)

    log.fOutputFile = Nested()
    log("start")
    assert [line[-7:] for line in output.written] == ["deeper\n", "deeper\n", ": start\n"[-7:]]


@pytest.mark.parametrize("name", [None, 1, b"x"])
def test_a_name_that_is_no_text(name):
    with pytest.raises(TypeError):
        CLogger(name)


def test_the_name_by_keyword_and_missing():
    assert CLogger(name="x").fName == "x"
    with pytest.raises(TypeError):
        CLogger()
    with pytest.raises(AttributeError):
        CLogger("x").fName = "y"


def test_a_subclass(output):
    class Loud(CLogger):
        def __init__(self):
            super().__init__("loud")
            self.count = 0

        def Log1(self, s, *args):
            self.count += 1
            super().Log1(s.upper(), *args)

    log = Loud()
    log.fOutputFile = output
    log.Log1("abc")
    log("abc")
    assert [line[-4:] for line in output.written] == ["ABC\n", "abc\n"]
    assert log.count == 1


def test_a_subclass_that_is_called_in_its_own_way():
    class Other(CLogger):
        def __call__(self, *args):
            return args

    assert Other("x")(1, 2) == (1, 2)


def test_a_subclass_that_skips_the_constructor(output):
    class Bare(CLogger):
        def __init__(self):
            pass

    log = Bare()
    log("nothing happens")
    log.fOutputFile = output
    log("text")
    assert log.fName == ""
    assert output.written == ["text\n"]


def test_loggers_in_cycles_are_collected():
    log = CLogger("cycle")
    log.fOutputFile = log
    gone = weakref.ref(log)
    del log
    gc.collect()
    assert gone() is None


def test_help_shows_the_signature():
    assert str(inspect.signature(CLogger.Log1)) == "(self, /, s, *args)"
