"""Frames, greetings, the list of what waits, delays, the status page."""

import os

import msgspec
import pytest
from hypothesis import given
from hypothesis import strategies as st

from loom.helper import frames, messages
from loom.helper.backlog import Backlog, Task, allowance
from loom.helper.backoff import Backoff
from loom.helper.frames import FrameError, Framer, FrameSplitter
from loom.helper.statuspage import Scanning, StatusPage
from loom.store.records import FileRecord, FileState, FileTimes

# --- frames


@given(st.lists(st.binary(max_size=40), max_size=8), st.data())
def test_frames_come_out_as_they_went_in_however_they_are_cut(bodies, data):
    framer, splitter = Framer(), FrameSplitter()
    rest = b"".join(framer.frame(body) for body in bodies)
    found = []
    while rest:
        cut = data.draw(st.integers(1, len(rest)))
        found += list(splitter.feed(rest[:cut]))
        rest = rest[cut:]
    assert [msgspec.msgpack.decode(each) for each in found] == bodies
    assert splitter.rest == 0


def test_a_short_message_after_a_long_one_has_nothing_of_it():
    framer = Framer()
    framer.frame(b"x" * 1000)
    (found,) = FrameSplitter().feed(framer.frame(b"y"))
    assert msgspec.msgpack.decode(found) == b"y"


def test_a_length_beyond_the_limit_is_garbage():
    with pytest.raises(FrameError, match="was announced"):
        list(FrameSplitter().feed(b"GET / HTTP/1.1\r\n\r\n"))


def test_what_came_before_garbage_still_counts():
    feed = FrameSplitter().feed(Framer().frame(1) + b"\xff" * 8)
    assert next(feed) == msgspec.msgpack.encode(1)
    with pytest.raises(FrameError):
        next(feed)


def test_a_message_that_is_too_long_is_not_framed(monkeypatch):
    monkeypatch.setattr(frames, "kMaxFrameBytes", 100)
    framer = Framer()
    with pytest.raises(FrameError, match="too long"):
        framer.frame(b"x" * 200)
    assert framer.frame(b"x") == b"\0\0\0\x03\xc4\x01x"


# --- messages


def test_greetings_of_the_same_version_fit():
    assert messages.check_greeting(messages.greeting()) == ""


@pytest.mark.parametrize(
    ("change", "why"),
    [
        ({"protocol": 999}, "version 999 of the protocol"),
        ({"scanner": 888}, "scanner 888"),
        ({"magic": "else"}, "no helper of this program"),
    ],
)
def test_greetings_of_another_version_are_refused_with_both_versions(change, why):
    theirs = msgspec.structs.replace(messages.greeting(), **change)
    assert why in messages.check_greeting(theirs)


def test_a_greeting_with_more_in_it_can_be_read():
    data = msgspec.msgpack.encode(["loom-helper", 7, 8, "and", ["more"]])
    assert messages.greeting_decoder().decode(data).protocol == 7


def test_a_result_comes_back_whole():
    record = FileRecord(
        url="file:///a.py",
        mtime_ns=-(1 << 63),
        size=5,
        scans=" primary ",
        digest=b"\0\xff",
        error="ä",
        error_lineno=3,
        line_count=4,
        definition_count=1,
        imports=b":ios",
        scopes=[("", -1, ord("O"), 1, 4, b"packed"), ("f", 0, ord("F"), 2, 3, b"")],
        definitions=b"0\t70\t2\tf\n",
        names=["f"],
        settled=True,
        scanner=1,
    )
    sent = messages.Result(7, record, ["f"])
    back = messages.report_decoder().decode(msgspec.msgpack.encode(sent))
    assert back == sent
    assert type(back.record.scopes[0]) is tuple


def test_jobs_and_times_come_back_whole():
    job = messages.Job(1, b"/a\xff.py", True, FileState(1, 2, True, b"d", 1, " primary "))
    sent = messages.AddPairs([job, messages.Job(2, b"/b.py", False, None)], True)
    assert messages.to_helper_decoder().decode(msgspec.msgpack.encode(sent)) == sent
    reread = messages.Reread(1, b"d", FileTimes(1, 2, False))
    assert messages.report_decoder().decode(msgspec.msgpack.encode(reread)) == reread


# --- what waits


def tasks(*names, **options):
    return [Task(number, name, **{"first": False} | options) for number, name in enumerate(names)]


def names_of(taken):
    return [task.loc for task in taken]


def test_first_ones_come_before_others_each_in_order_of_arrival():
    backlog = Backlog()
    for task in tasks("a", "b") + tasks("c", "d", first=True):
        backlog.add(task)
    assert names_of(backlog.take(3)) == ["c", "d"]  # a part is all of one kind
    assert names_of(backlog.take(1)) == ["a"]
    assert len(backlog) == 1


def test_a_promoted_file_comes_behind_the_first_ones():
    backlog = Backlog()
    a, b = tasks("a", "b")
    (c,) = tasks("c", first=True)
    for task in (a, b, c):
        backlog.add(task)
    backlog.promote(b)
    assert names_of(backlog.take(9)) == ["c", "b"]


def test_what_comes_back_stands_in_front_in_its_old_order():
    backlog = Backlog()
    a, b, c = tasks("a", "b", "c")
    for task in (a, b, c):
        backlog.add(task)
    taken = backlog.take(2)
    backlog.put_back(taken)
    assert names_of(backlog.take(9)) == ["a", "b", "c"]


def test_suspects_are_dealt_one_by_one_and_only_on_demand():
    backlog = Backlog()
    a, b, c = tasks("a", "b", "c")
    a.crashes = b.crashes = 1
    backlog.put_back([a, b, c])
    assert (len(backlog), backlog.unsuspected) == (3, 1)
    assert names_of(backlog.take(9)) == ["c"]
    assert [backlog.take_suspect(), backlog.take_suspect(), backlog.take_suspect()] == [a, b, None]


def test_clearing_leaves_suspects():
    backlog = Backlog()
    a, b = tasks("a", "b")
    a.crashes = 1
    backlog.add(a)
    backlog.add(b)
    backlog.clear()
    assert backlog.suspects == [a]
    backlog.remove(a)
    assert len(backlog) == 0


def test_shares_get_smaller_towards_the_end_and_never_too_small():
    shares = [allowance(waiting, 2) for waiting in (10_000, 200, 60, 12, 0)]
    assert shares == sorted(shares, reverse=True)
    assert shares[0] == allowance(1_000_000, 2)
    assert shares[-1] > 0
    assert allowance(60, 4) < allowance(60, 1)
    assert allowance(60, 0) == allowance(60, 1)


# --- delays


def test_delays_grow_and_end_and_progress_begins_anew():
    backoff = Backoff()
    delays = []
    while (delay := backoff.next_delay()) is not None:
        delays.append(delay)
    assert len(delays) > 2
    assert delays == sorted(set(delays))
    assert backoff.next_delay() is None
    backoff.note_progress()
    assert backoff.next_delay() == delays[0]


# --- the status page


def test_the_page_tells_what_is_scanned_and_for_how_long():
    fd = StatusPage.make_fd()
    helper, first = StatusPage(fd), StatusPage(fd)
    os.close(fd)
    assert first.scanning() is None
    helper.starts(7, 100.0)
    assert first.scanning() == Scanning(7, 100.0)
    helper.rests(101.0)
    assert first.scanning() is None
    helper.starts(7, 200.0)  # the second slice: the time in between doesn't count
    assert first.scanning() == Scanning(7, 199.0)
    helper.rests(202.0)
    helper.starts(8, 300.0)
    assert first.scanning() == Scanning(8, 300.0)
    helper.close()
    first.close()
