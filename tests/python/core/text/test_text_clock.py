"""The clock: `GetNowTime` and `OutOfTime`."""

import time

import pytest
from pysource import _fastaccess

kTimeFunc = "__TimeFunc"


@pytest.fixture
def clock(monkeypatch):
    """A clock that stands at 100.0 until it is set."""

    class Clock:
        now: object = 100.0
        calls = 0

        def __call__(self):
            self.calls += 1
            return self.now

    clock = Clock()
    monkeypatch.setattr(_fastaccess, kTimeFunc, clock)
    return clock


def test_the_clock_is_at_first_that_of_the_time_module():
    import subprocess
    import sys

    code = (
        "import time; from pysource import _fastaccess;"
        "print(getattr(_fastaccess, '__TimeFunc') is time.time)"
    )
    result = subprocess.run(
        [sys.executable, "-c", code], capture_output=True, text=True, check=True
    )
    assert result.stdout == "True\n"


def test_now_is_what_the_clock_says(clock):
    assert _fastaccess.GetNowTime() == 100.0
    clock.now = 101.5
    assert _fastaccess.GetNowTime() == 101.5
    assert clock.calls == 2


@pytest.mark.parametrize("now", [3, True, -1, -1.0])
def test_another_numeric_result_is_converted(clock, now):
    clock.now = now
    result = _fastaccess.GetNowTime()
    assert type(result) is float
    assert result == now


def test_a_result_with_a_float_form_is_converted(clock):
    class Moment:
        def __float__(self):
            return 7.25

    clock.now = Moment()
    assert _fastaccess.GetNowTime() == 7.25


@pytest.mark.parametrize("now", ["soon", None])
def test_a_result_that_is_no_number_is_a_type_error(clock, now):
    clock.now = now
    with pytest.raises(TypeError):
        _fastaccess.GetNowTime()
    with pytest.raises(TypeError):
        _fastaccess.OutOfTime(0.0)


def test_a_failure_of_the_clock_passes_through_unchanged(monkeypatch):
    failure = OSError("the battery is empty")

    def broken():
        raise failure

    monkeypatch.setattr(_fastaccess, kTimeFunc, broken)
    with pytest.raises(OSError) as caught:
        _fastaccess.GetNowTime()
    assert caught.value is failure


def test_a_clock_that_is_gone_is_an_attribute_error(monkeypatch):
    monkeypatch.delattr(_fastaccess, kTimeFunc)
    with pytest.raises(AttributeError):
        _fastaccess.GetNowTime()


def test_out_of_time_at_the_very_moment_of_the_end_time(clock):
    assert _fastaccess.OutOfTime(100.0) is True


@pytest.mark.parametrize(
    ("end_time", "out"),
    [(99.0, True), (101.0, False), (float("inf"), False), (float("-inf"), True)],
)
def test_out_of_time_before_and_after(clock, end_time, out):
    assert _fastaccess.OutOfTime(end_time) is out


def test_an_end_time_that_is_no_number_compares_to_nothing(clock):
    assert _fastaccess.OutOfTime(float("nan")) is False


def test_end_time_by_keyword_and_of_another_numeric_type(clock):
    assert _fastaccess.OutOfTime(end_time=100) is True


@pytest.mark.parametrize("end_time", ["1", None])
def test_an_end_time_of_the_wrong_type(clock, end_time):
    with pytest.raises(TypeError):
        _fastaccess.OutOfTime(end_time)
    assert clock.calls == 0


def test_real_time_goes_forward():
    before = time.time()
    assert before <= _fastaccess.GetNowTime() <= time.time()
