"""The main loop without asyncio: descriptors, timers and idle work by turns."""

import os

import pytest

from loom.mainloop.poll_loop import PollMainLoop


@pytest.fixture
def loop():
    loop = PollMainLoop()
    yield loop
    loop.close()


@pytest.fixture
def pipe():
    ends = os.pipe()
    yield ends
    for end in ends:
        os.close(end)


def test_idle_work_runs_by_priority_until_it_is_stopped(loop):
    ran = []
    loop.idle_add(lambda: ran.append("late") or loop.stop(), 300)
    loop.idle_add(lambda: ran.append("early"), 100)
    loop.run()
    assert ran == ["early", "late"]


def test_a_descriptor_comes_before_idle_work(loop, pipe):
    ran = []
    os.write(pipe[1], b"x")
    loop.add_reader(pipe[0], lambda: ran.append(os.read(pipe[0], 1)))
    loop.idle_add(lambda: ran.append("idle") or loop.stop())
    loop.run()
    assert ran == [b"x", "idle"]


def test_without_idle_work_it_waits_for_a_descriptor(loop, pipe):
    other = os.pipe()
    loop.add_reader(pipe[0], lambda: os.read(pipe[0], 1) and os.write(other[1], b"y"))
    loop.add_reader(other[0], loop.stop)
    os.write(pipe[1], b"x")
    loop.run()
    assert os.read(other[0], 1) == b"y"
    for end in other:
        os.close(end)


def test_a_timer_beats_until_it_has_enough(loop):
    beats = []

    def beat():
        beats.append(loop.now())
        if len(beats) == 3:
            loop.stop()
        return True

    loop.timeout_add(1, beat)
    loop.run()
    assert len(beats) == 3
    assert beats == sorted(beats)


def test_reading_and_writing_end_apart(loop, pipe):
    calls = []

    def write():
        calls.append("write")
        loop.remove_writer(pipe[1])
        os.write(pipe[1], b"x")

    def read():
        calls.append("read")
        os.read(pipe[0], 1)
        loop.remove_reader(pipe[0])
        loop.idle_add(loop.stop)

    loop.add_writer(pipe[1], write)
    loop.add_reader(pipe[0], read)
    loop.run()
    assert calls == ["write", "read"]


def test_the_end_of_a_pipe_is_told_and_a_plain_file_is_always_ready(loop, tmp_path):
    read_end, write_end = os.pipe()
    os.close(write_end)
    path = tmp_path / "plain"
    path.write_text("")
    plain = os.open(path, os.O_RDONLY)
    told = []

    def note(fd):
        told.append(fd)
        loop.remove_reader(fd)
        if len(told) == 2:
            loop.stop()

    loop.add_reader(read_end, lambda: note(read_end))
    loop.add_reader(plain, lambda: note(plain))
    loop.run()
    assert set(told) == {read_end, plain}
    os.close(read_end)
    os.close(plain)
