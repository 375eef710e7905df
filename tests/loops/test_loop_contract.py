"""What every main loop owes the scheduler. Time is the loop's own; nothing is asserted about speed."""

import logging
import threading

import pytest
from guiutils import lgtk
from loombase.destroyable import CDestroyable


def test_a_lower_priority_runs_first(driver):
    seen = []
    for name, priority in (("last", 300), ("first", 100), ("middle", 200)):
        driver.main_loop.idle_add(lambda name=name: seen.append(name), priority)
    driver.run_idle()
    assert seen == ["first", "middle", "last"]


def test_equals_take_turns(driver):
    seen = []

    def count(name):
        seen.append(name)
        return seen.count(name) < 3

    driver.main_loop.idle_add(lambda: count("a"))
    driver.main_loop.idle_add(lambda: count("b"))
    driver.run_idle()
    assert seen == ["a", "b"] * 3


def test_a_more_urgent_callback_overtakes(driver):
    seen = []

    def urgent():
        seen.append("urgent")

    def work():
        seen.append("work")
        if len(seen) == 1:
            driver.main_loop.idle_add(urgent, 100)
        return len(seen) < 3

    driver.main_loop.idle_add(work, 200)
    driver.run_idle()
    assert seen == ["work", "urgent", "work"]


@pytest.mark.parametrize("result", [False, None, 0, ""])
def test_a_false_result_ends_an_idle_callback(driver, result):
    calls = []

    def once():
        calls.append(1)
        return result

    idle_id = driver.main_loop.idle_add(once)
    driver.run_idle()
    driver.main_loop.idle_remove(idle_id)  # dead, and no error
    driver.run_idle()
    assert calls == [1]


def test_what_is_removed_is_not_called(driver):
    seen = []
    first = driver.main_loop.idle_add(lambda: seen.append("first"))
    driver.main_loop.idle_add(lambda: seen.append("second"))
    timer = driver.main_loop.timeout_add(1, lambda: seen.append("timer"))
    driver.main_loop.idle_remove(first)
    driver.main_loop.timeout_remove(timer)
    driver.main_loop.timeout_remove(timer)
    driver.run_idle()
    assert seen == ["second"]


def test_a_callback_may_remove_itself_and_others(driver):
    seen = []

    def remove_all():
        seen.append("ran")
        driver.main_loop.idle_remove(own)
        driver.main_loop.idle_remove(other)
        return True

    own = driver.main_loop.idle_add(remove_all)
    other = driver.main_loop.idle_add(lambda: seen.append("other"))
    driver.run_idle()
    assert seen == ["ran"]


def test_a_callback_that_raises_is_reported_and_over(driver, caplog):
    seen = []

    def fail():
        seen.append("failed")
        raise ValueError("in idle time")

    def fail_late():
        seen.append("late")
        raise ValueError("in a timer")

    with caplog.at_level(logging.ERROR):
        driver.main_loop.idle_add(fail)
        driver.main_loop.idle_add(lambda: seen.append("next"))
        driver.main_loop.timeout_add(1, fail_late)
        driver.run_until(lambda: {"late", "next"} <= set(seen))
    assert sorted(seen) == ["failed", "late", "next"]
    told = {str(record.exc_info[1]) for record in caplog.records if record.exc_info}
    assert told == {"in idle time", "in a timer"}


def test_timers_repeat_until_they_say_no(driver):
    beats = []

    def beat():
        beats.append(driver.main_loop.now())
        return len(beats) < 3

    start = driver.main_loop.now()
    driver.main_loop.timeout_add(2, beat)
    driver.run_until(lambda: len(beats) == 3)
    driver.run_idle()
    assert len(beats) == 3
    # None of them before its time.
    assert all(beat >= start + 0.002 * (n + 1) - 1e-6 for n, beat in enumerate(beats))


def test_a_timer_may_remove_itself(driver):
    beats = []

    def beat():
        beats.append(1)
        driver.main_loop.timeout_remove(timer)
        return True

    timer = driver.main_loop.timeout_add(1, beat)
    late = []
    driver.main_loop.timeout_add(20, lambda: late.append(1))
    driver.run_until(lambda: late)
    assert beats == [1]


def test_timers_run_while_idle_work_goes_on(driver):
    """Idle work that never ends keeps nobody waiting."""
    beats = []
    driver.main_loop.idle_add(lambda: True)
    driver.main_loop.timeout_add(1, lambda: beats.append(1) or True)
    driver.run_until(lambda: len(beats) >= 3)


def test_what_the_program_does_gets_its_turn_between_idle_callbacks(driver):
    """Something that becomes ready waits for a few callbacks at most, not for all of them."""
    seen = []

    def work():
        seen.append("work")
        if len(seen) == 3:
            driver.soon(lambda: seen.append("event"))
        return len(seen) < 50

    driver.main_loop.idle_add(work)
    driver.run_idle()
    assert 3 <= seen.index("event") <= 6


def test_idle_work_may_be_added_from_anywhere_on_the_thread(driver):
    seen = []

    def adder(name):
        def add():
            driver.main_loop.idle_add(lambda: seen.append(name))

        return add

    driver.main_loop.idle_add(adder("from idle"))
    driver.main_loop.timeout_add(1, adder("from timer"))
    driver.soon(adder("from event"))
    driver.run_until(lambda: len(seen) == 3)


def test_another_thread_is_refused(driver):
    failures = []

    def add():
        try:
            driver.main_loop.idle_add(print)
        except RuntimeError as failure:
            failures.append(failure)

    thread = threading.Thread(target=add)
    thread.start()
    thread.join()
    assert len(failures) == 1


def test_a_loop_inside_of_a_callback_runs_the_others(driver):
    """As a dialog does that is opened in idle time; where loops don't nest, a single step."""
    seen = []

    def open_dialog():
        seen.append("open")
        if driver.nests:
            driver.main_loop.idle_add(driver.stop, 9_000)
            driver.run()
        else:
            driver.main_loop.idle.run_one()
        seen.append("closed")

    driver.main_loop.idle_add(open_dialog, 100)
    driver.main_loop.idle_add(lambda: seen.append("other"), 200)
    driver.run_idle()
    assert seen == ["open", "other", "closed"]


def test_the_toolkit_module_runs_on_it(driver):
    """`guiutils.lgtk`, with an owner whose end takes its callbacks along."""
    owner, seen = CDestroyable(), []
    lgtk.SetMainLoop(driver.main_loop)
    try:
        lgtk.idle_add_while_alive(lambda: seen.append("idle") or True, owner)
        lgtk.timeout_add_while_alive(1, lambda: seen.append("timer") or True, owner)
        driver.run_until(lambda: "timer" in seen and "idle" in seen)
        owner.destroy()
        seen.clear()
        driver.run_idle()
        assert seen == []
    finally:
        lgtk.SetMainLoop(None)


def test_nothing_is_called_after_the_end(driver):
    seen = []
    driver.main_loop.idle_add(lambda: seen.append("idle"))
    driver.main_loop.timeout_add(1, lambda: seen.append("timer"))
    driver.close()
    assert seen == []
