"""Idle callbacks and timers without a loop, and the stepped main loop over them."""

import logging
import threading

import pytest
from hypothesis import given
from hypothesis import strategies as st

from loom.mainloop.queues import IdleQueue, TimerQueue
from loom.mainloop.stepped import SteppedMainLoop


@pytest.fixture
def queue():
    return IdleQueue()


@pytest.fixture
def seen():
    return []


def again(seen, name):
    """A callback that notes its name and asks for more."""

    def callback():
        seen.append(name)
        return True

    return callback


def once(seen, name):
    """A callback that notes its name and is over."""
    return lambda: seen.append(name)


# --- idle callbacks


def test_nothing_to_run(queue):
    assert not queue
    assert queue.run_one() is False


def test_a_lower_number_runs_first(queue, seen):
    queue.add(once(seen, "low"), 300)
    queue.add(once(seen, "high"), 100)
    queue.add(once(seen, "default"), 200)
    while queue.run_one():
        pass
    assert seen == ["high", "default", "low"]


def test_equals_take_turns(queue, seen):
    for name in "abc":
        queue.add(again(seen, name), 200)
    for _ in range(7):
        queue.run_one()
    assert "".join(seen) == "abcabca"


def test_a_more_urgent_one_keeps_the_others_waiting(queue, seen):
    queue.add(again(seen, "busy"), 100)
    queue.add(once(seen, "patient"), 200)
    for _ in range(5):
        queue.run_one()
    assert seen == ["busy"] * 5


@pytest.mark.parametrize("result", [False, None, 0, ""])
def test_a_false_result_ends_it(queue, seen, result):
    queue.add(lambda: seen.append(1) or result, 200)
    queue.run_one()
    assert not queue
    assert queue.run_one() is False


def test_ids_are_never_used_again(queue):
    ids = []
    for _ in range(100):
        ids.append(queue.add(bool, 200))
        queue.remove(ids[-1])
    assert len(set(ids)) == 100


def test_removal_of_a_dead_or_unknown_id_does_nothing(queue, seen):
    idle_id = queue.add(once(seen, "a"), 200)
    other = queue.add(once(seen, "b"), 200)
    queue.remove(idle_id)
    queue.remove(idle_id)
    queue.remove(None)
    queue.run_one()
    queue.remove(other)
    assert seen == ["b"]
    assert not queue


def test_a_callback_that_removes_itself_is_over_whatever_it_returns(queue, seen):
    def callback():
        queue.remove(idle_id)
        seen.append(1)
        return True

    idle_id = queue.add(callback, 200)
    queue.run_one()
    assert not queue
    assert seen == [1]


def test_a_callback_may_add_a_more_urgent_one(queue, seen):
    def callback():
        queue.add(once(seen, "urgent"), 1)
        seen.append("first")
        return True

    queue.add(callback, 200)
    queue.run_one()
    queue.run_one()
    assert seen == ["first", "urgent"]


def test_a_running_callback_is_not_entered_again(queue, seen):
    def outer():
        seen.append("outer")
        assert queue.run_one()
        assert not queue.run_one()
        return False

    queue.add(outer, 100)
    queue.add(once(seen, "inner"), 200)
    queue.run_one()
    assert seen == ["outer", "inner"]


def test_a_failing_callback_is_reported_and_removed(queue, seen, caplog):
    def fail():
        raise ValueError("broken")

    queue.add(fail, 100)
    queue.add(once(seen, "next"), 200)
    with caplog.at_level(logging.ERROR):
        assert queue.run_one()
        assert queue.run_one()
    [record] = caplog.records
    assert record.exc_info[0] is ValueError
    assert seen == ["next"]
    assert not queue


def test_a_result_without_truth_counts_as_failure(queue, caplog):
    class Odd:
        def __bool__(self):
            raise ValueError("neither")

    queue.add(Odd, 100)
    with caplog.at_level(logging.ERROR):
        queue.run_one()
    assert len(caplog.records) == 1
    assert not queue


def test_an_interrupt_passes_and_leaves_the_queue_whole(queue, seen):
    def interrupt():
        raise KeyboardInterrupt

    queue.add(interrupt, 100)
    queue.add(once(seen, "next"), 200)
    with pytest.raises(KeyboardInterrupt):
        queue.run_one()
    queue.run_one()
    assert seen == ["next"]
    assert not queue


@pytest.mark.parametrize(("callback", "priority"), [(None, 1), (bool, "high"), (bool, 1.5)])
def test_a_bad_registration_is_refused_and_leaves_nothing(queue, callback, priority):
    with pytest.raises(TypeError):
        queue.add(callback, priority)
    assert not queue


@given(st.lists(st.tuples(st.integers(-3, 3), st.integers(1, 4))))
def test_order_of_any_mixture(callbacks):
    """Each priority is finished before the next; inside of it the rounds go around."""
    queue, seen = IdleQueue(), []

    def make(index, calls):
        left = [calls]

        def callback():
            seen.append(index)
            left[0] -= 1
            return left[0] > 0

        return callback

    for index, (priority, calls) in enumerate(callbacks):
        queue.add(make(index, calls), priority)
    while queue.run_one():
        pass
    expected = []
    for priority in sorted({priority for priority, _ in callbacks}):
        same = [(i, calls) for i, (p, calls) in enumerate(callbacks) if p == priority]
        for turn in range(4):
            expected += [i for i, calls in same if calls > turn]
    assert seen == expected


# --- timers


def test_timers_run_in_order_of_their_due_times(seen):
    timers = TimerQueue()
    timers.add(3.0, once(seen, "c"), now=0.0)
    timers.add(1.0, once(seen, "a"), now=0.0)
    timers.add(1.0, once(seen, "b"), now=0.0)
    assert timers.next_due() == 1.0
    timers.run_due(0.9)
    assert seen == []
    timers.run_due(5.0)
    assert seen == ["a", "b", "c"]
    assert timers.next_due() is None


def test_a_timer_keeps_its_grid_however_late_it_is_called(seen):
    timers = TimerQueue()
    timers.add(1.0, again(seen, "tick"), now=0.0)
    timers.run_due(1.25)
    assert timers.next_due() == 2.0


def test_beats_that_were_missed_are_not_made_up_for(seen):
    timers = TimerQueue()
    timers.add(1.0, again(seen, "tick"), now=0.0)
    timers.run_due(7.5)
    assert seen == ["tick"]
    assert timers.next_due() == 8.0


@given(st.floats(0.001, 10), st.integers(1, 2000))
def test_rounding_never_gives_a_beat_twice_or_loses_one(interval, beats):
    timers, seen = TimerQueue(), []
    timers.add(interval, again(seen, "tick"), now=0.0)
    for _ in range(beats):
        timers.run_due(timers.next_due())
    assert len(seen) == beats
    assert timers.next_due() == pytest.approx(interval * (beats + 1), rel=1e-6)


def test_a_removed_timer_is_not_due(seen):
    timers = TimerQueue()
    timer_id = timers.add(1.0, again(seen, "tick"), now=0.0)
    timers.remove(timer_id)
    timers.remove(timer_id)
    assert timers.next_due() is None
    timers.run_due(5.0)
    assert seen == []


def test_a_timer_that_another_one_removes_is_not_run(seen):
    timers = TimerQueue()
    timers.add(1.0, lambda: timers.remove(second), now=0.0)
    second = timers.add(1.0, once(seen, "second"), now=0.0)
    timers.run_due(1.0)
    assert seen == []


def test_a_failing_timer_is_reported_and_removed(seen, caplog):
    timers = TimerQueue()

    def fail():
        raise ValueError("broken")

    timers.add(1.0, fail, now=0.0)
    timers.add(1.0, again(seen, "tick"), now=0.0)
    with caplog.at_level(logging.ERROR):
        timers.run_due(1.0)
        timers.run_due(2.0)
    assert len(caplog.records) == 1
    assert seen == ["tick", "tick"]


def test_an_interrupt_in_a_timer_does_not_lose_the_others(seen):
    timers = TimerQueue()

    def interrupt():
        raise KeyboardInterrupt

    timers.add(1.0, interrupt, now=0.0)
    timers.add(1.0, again(seen, "tick"), now=0.0)
    with pytest.raises(KeyboardInterrupt):
        timers.run_due(1.0)
    timers.run_due(1.0)
    assert seen == ["tick"]
    assert timers.next_due() == 2.0


@pytest.mark.parametrize("interval", [-1.0, float("nan"), float("inf")])
def test_an_interval_that_is_none_is_refused(interval):
    with pytest.raises(ValueError, match="interval"):
        TimerQueue().add(interval, bool, now=0.0)


# --- the stepped main loop


def test_stepped_loop_moves_only_when_told(seen):
    loop = SteppedMainLoop(start=100.0)
    loop.idle_add(once(seen, "idle"))
    loop.timeout_add(1000, again(seen, "tick"))
    loop.advance(2.5)
    assert loop.now() == 102.5
    assert seen == ["tick", "tick"]
    assert loop.run_idle() == 1
    assert loop.step() is False
    assert seen == ["tick", "tick", "idle"]


def test_stepped_loop_shows_timers_their_own_time(seen):
    loop = SteppedMainLoop()
    loop.timeout_add(400, lambda: seen.append(loop.now()) or True)
    loop.advance(1.0)
    assert seen == [0.4, 0.8]


def test_stepped_loop_notices_idle_work_without_end(seen):
    loop = SteppedMainLoop()
    loop.idle_add(again(seen, "idle"))
    with pytest.raises(RuntimeError, match="goes on after 10 steps"):
        loop.run_idle(max_steps=10)


def test_a_main_loop_belongs_to_its_thread():
    loop, errors = SteppedMainLoop(), []

    def use():
        for operation in (
            lambda: loop.idle_add(bool),
            lambda: loop.timeout_add(1, bool),
            lambda: loop.idle_remove(1),
            lambda: loop.timeout_remove(1),
        ):
            try:
                operation()
            except RuntimeError as error:
                errors.append(str(error))

    thread = threading.Thread(target=use)
    thread.start()
    thread.join()
    assert errors == ["the main loop may be used on its own thread only"] * 4
