"""Idle work and timers on asyncio. Polls and steps are counted; nothing sleeps or is timed."""

import asyncio
import os
import selectors
import socket

import pytest

from loom.mainloop.asyncio_loop import AsyncioMainLoop


class CountingSelector(selectors.DefaultSelector):
    """Notes each poll; fails a test that would sleep with nothing to wake it."""

    def __init__(self):
        super().__init__()
        self.polls = []
        self.on_poll = None

    def select(self, timeout=None):
        self.polls.append(timeout)
        if self.on_poll is not None:
            self.on_poll(timeout)
        return super().select(timeout)


@pytest.fixture
def selector():
    return CountingSelector()


@pytest.fixture
def main_loop(selector):
    main_loop = AsyncioMainLoop(selector)
    yield main_loop
    main_loop.close()


def run_until_idle_is_done(main_loop):
    """Run the loop until only the callback added here is left."""
    main_loop.idle_add(main_loop.loop.stop, priority=10_000)
    main_loop.loop.run_forever()


def test_idle_callbacks_run_in_order_of_priority(main_loop):
    seen = []
    main_loop.idle_add(lambda: seen.append("low"), 300)
    main_loop.idle_add(lambda: seen.append("high"), 100)
    run_until_idle_is_done(main_loop)
    assert seen == ["high", "low"]


def test_one_callback_between_two_polls(main_loop, selector):
    polls_at_call = []

    def callback():
        polls_at_call.append(len(selector.polls))
        return len(polls_at_call) < 5

    main_loop.idle_add(callback)
    run_until_idle_is_done(main_loop)
    # Each round: a poll, the callback, a poll again.
    assert [b - a for a, b in zip(polls_at_call, polls_at_call[1:])] == [2, 2, 2, 2]
    assert set(selector.polls) == {0}


def test_an_event_waits_for_one_callback_at_most(main_loop):
    order = []
    reader, writer = socket.socketpair()

    def slice_of_work():
        order.append("slice")
        if len(order) == 3:
            writer.send(b"x")  # the event comes while this callback is running
        return len(order) < 10

    def readable():
        order.append("event")
        reader.recv(1)

    with reader, writer:
        main_loop.loop.add_reader(reader, readable)
        main_loop.idle_add(slice_of_work)
        run_until_idle_is_done(main_loop)
        main_loop.loop.remove_reader(reader)
    assert order[:5] == ["slice", "slice", "slice", "event", "slice"]


def test_an_event_that_is_there_already_comes_before_idle_work(main_loop):
    order = []
    reader, writer = socket.socketpair()
    with reader, writer:
        writer.send(b"x")
        main_loop.loop.add_reader(reader, lambda: order.append(reader.recv(1)))
        main_loop.idle_add(lambda: order.append("idle"))
        run_until_idle_is_done(main_loop)
        main_loop.loop.remove_reader(reader)
    assert order == [b"x", "idle"]


def test_tasks_that_are_ready_come_before_idle_work(main_loop):
    order = []

    async def task():
        for _ in range(3):
            order.append("task")
            await asyncio.sleep(0)

    main_loop.idle_add(lambda: order.append("idle"))
    handle = main_loop.loop.create_task(task())
    run_until_idle_is_done(main_loop)
    assert order == ["task", "task", "task", "idle"]
    assert handle.done()


def test_an_asyncio_timer_that_is_due_waits_for_one_callback_at_most(main_loop):
    order = []

    def slice_of_work():
        order.append("slice")
        return len(order) < 10

    def first_slice():
        main_loop.loop.call_at(main_loop.loop.time(), order.append, "timer")

    main_loop.idle_add(first_slice, 100)
    main_loop.idle_add(slice_of_work, 200)
    run_until_idle_is_done(main_loop)
    assert order.index("timer") <= 1


def test_without_idle_work_the_loop_sleeps_and_is_not_woken(main_loop, selector):
    """After the last idle callback there is one poll with no time limit, and it lasts."""
    reader, writer = socket.socketpair()

    def asleep(timeout):
        if timeout is None:
            writer.send(b"x")  # nothing but an event ends the sleep

    with reader, writer:
        selector.on_poll = asleep
        main_loop.idle_add(lambda: False)
        main_loop.loop.add_reader(reader, main_loop.loop.stop)
        main_loop.loop.run_forever()
        main_loop.loop.remove_reader(reader)
    assert selector.polls.count(None) == 1


def test_an_idle_callback_added_by_a_callback_of_the_loop_is_noticed(main_loop):
    seen = []
    main_loop.loop.call_soon(lambda: main_loop.idle_add(lambda: seen.append("idle")))
    main_loop.loop.call_soon(lambda: main_loop.idle_add(main_loop.loop.stop, 10_000))
    main_loop.loop.run_forever()
    assert seen == ["idle"]


def test_a_failing_idle_callback_leaves_the_loop_running(main_loop, caplog):
    seen = []

    def fail():
        raise ValueError("broken")

    main_loop.idle_add(fail)
    main_loop.idle_add(lambda: seen.append("next"))
    run_until_idle_is_done(main_loop)
    assert seen == ["next"]
    assert [record.exc_info[0] for record in caplog.records] == [ValueError]


def test_an_idle_callback_may_use_the_running_loop(main_loop):
    seen = []

    async def task():
        seen.append("task")

    def callback():
        assert asyncio.get_running_loop() is main_loop.loop
        seen.append(main_loop.loop.create_task(task()))

    main_loop.idle_add(callback)
    run_until_idle_is_done(main_loop)
    main_loop.loop.run_until_complete(seen[0])
    assert seen[1] == "task"


def test_timers_arm_one_asyncio_timer_for_the_next_due_time(main_loop):
    now = main_loop.now()
    late = main_loop.timeout_add(60_000, bool)
    early = main_loop.timeout_add(30_000, bool)
    assert main_loop._armed.when() == pytest.approx(now + 30, abs=5)
    first = main_loop._armed
    main_loop.timeout_remove(early)
    assert first.cancelled()
    assert main_loop._armed.when() == pytest.approx(now + 60, abs=5)
    main_loop.timeout_remove(late)
    assert main_loop._armed is None
    main_loop.timeout_remove(late)


def test_a_timer_is_called_until_it_returns_false(main_loop):
    seen = []

    def tick():
        seen.append(main_loop.now())
        if len(seen) == 3:
            main_loop.loop.stop()
            return False
        return True

    main_loop.timeout_add(1, tick)
    main_loop.loop.run_forever()
    assert len(seen) == 3
    assert main_loop._armed is None


def test_timers_run_beside_busy_idle_work(main_loop):
    ticks, slices = [], []

    def tick():
        ticks.append(len(slices))
        return len(ticks) < 3

    def slice_of_work():
        slices.append(1)
        return len(ticks) < 3

    main_loop.timeout_add(1, tick)
    main_loop.idle_add(slice_of_work)
    run_until_idle_is_done(main_loop)
    assert len(ticks) == 3


def test_the_selector_behaves_like_the_one_inside(main_loop, selector):
    reader, writer = os.pipe()
    outer = main_loop.loop._selector
    try:
        key = outer.register(reader, selectors.EVENT_READ, "data")
        assert selector.get_key(reader) == key
        assert outer.modify(reader, selectors.EVENT_READ, "other").data == "other"
        assert outer.get_key(reader).data == "other"
        assert outer.get_map() is selector.get_map()
        outer.unregister(reader)
        with pytest.raises(KeyError):
            selector.get_key(reader)
    finally:
        os.close(reader)
        os.close(writer)


def test_closing_with_registrations_left(selector):
    main_loop = AsyncioMainLoop(selector)
    main_loop.idle_add(pytest.fail)
    timer_id = main_loop.timeout_add(1000, pytest.fail)
    main_loop.close()
    main_loop.timeout_remove(timer_id)


def test_the_end_cancels_what_runs_and_runs_nothing_else():
    main_loop = AsyncioMainLoop()
    ended = []

    async def stubborn():
        try:
            await asyncio.Event().wait()
        finally:
            ended.append("first")
            try:
                await asyncio.Event().wait()  # for somebody who has ended already
            finally:
                ended.append("second")

    main_loop.loop.create_task(stubborn())
    main_loop.loop.run_until_complete(asyncio.sleep(0))
    main_loop.idle_add(lambda: ended.append("idle"))
    main_loop.timeout_add(1, lambda: ended.append("timer"))
    main_loop.close()
    assert ended == ["first", "second"]
    main_loop.close()
