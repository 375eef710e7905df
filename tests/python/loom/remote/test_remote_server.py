"""Keeping a connection to a server: every order of events, in virtual time."""

import pytest
from fakeremote import SERVER, Answers, state_of
from loombase.inspection import CFileKind, CFileState
from loombase.remoteclient import CRemoteServerManager
from loomutils.reflect import GetFailureReporter

from loom.remote.options import RemotePatience
from loom.remote.requests import FileContent, ReadFile, RemoteError, StatFile
from loom.remote.server import RemoteServer, ServerPhase

ABSENT = CFileState(CFileKind.ABSENT)


@pytest.fixture
def patience():
    return RemotePatience(
        connect=8, answer=4, first_retry=1, last_retry=4, give_up=30, tries=3, requests=3, reads=2,
        held_bytes=100,
    )


@pytest.fixture
def server(main_loop, network, patience):
    server = RemoteServer(SERVER, network.make, patience)
    yield server
    server.destroy()


@pytest.fixture
def answers():
    return Answers()


@pytest.fixture
def stops(server):
    stops = []
    server.connect("server-stopped", stops.append)
    return stops


def ask(server, answers, *names):
    for name in names:
        server.ask(StatFile(f"/{name}".encode(), answers(name)))


def read(server, answers, name, expected=10):
    server.ask(ReadFile(f"/{name}".encode(), answers(name), limit=1000, expected=expected))


def content(size):
    return FileContent(state_of(b"x" * size), b"x" * size, True)


# --- the ordinary way


def test_nothing_is_connected_to_before_something_is_asked(server, network, main_loop):
    main_loop.advance(1000)
    assert network.made == []
    assert server.phase is ServerPhase.IDLE


def test_requests_wait_for_the_connection_and_are_answered_once(server, network, answers):
    ask(server, answers, "a", "b")
    assert server.phase is ServerPhase.CONNECTING
    assert network.last.log == []
    network.last.connect()
    assert server.phase is ServerPhase.CONNECTED
    assert network.last.log == ["StatFile /a", "StatFile /b"]
    request = network.last.answer(ABSENT, index=1)
    assert answers.got == [("b", ABSENT)]
    network.last.client.answered(network.last, request, ABSENT)  # once more, by mistake
    network.last.answer(ABSENT)
    assert answers.names() == ["b", "a"]
    assert server.unanswered == 0
    assert len(network.made) == 1


def test_so_many_requests_are_under_way_and_the_others_wait(server, network, answers):
    ask(server, answers, "a", "b", "c", "d")
    network.last.connect()
    assert len(network.last.under_way) == 3
    network.last.answer(ABSENT)
    assert network.last.log[-1] == "StatFile /d"


def test_questions_go_before_reads_and_leave_room(server, network, answers):
    for name in ("r1", "r2", "r3"):
        read(server, answers, name)
    ask(server, answers, "a")
    network.last.connect()
    assert network.last.log == ["StatFile /a", "ReadFile /r1", "ReadFile /r2"]
    network.last.answer(content(10), index=1)
    assert network.last.log[-1] == "ReadFile /r3"


def test_contents_that_nobody_has_taken_hold_up_further_reads(server, network, answers):
    read(server, answers, "big", expected=90)
    read(server, answers, "next", expected=20)
    network.last.connect()
    assert network.last.log == ["ReadFile /big"]
    network.last.answer(content(90))
    # One at a time goes on, or a content that is never taken would stop everything.
    assert network.last.log[-1] == "ReadFile /next"
    read(server, answers, "third", expected=5)
    assert network.last.log[-1] == "ReadFile /next"
    server.release(answers.got[0][1])
    assert network.last.log[-1] == "ReadFile /third"


def test_a_request_that_is_taken_back_is_never_answered(server, network, answers):
    ask(server, answers, "a", "b", "c", "waits", "d")
    network.last.connect()
    under_way = network.last.under_way[0]
    server.cancel(under_way)
    assert network.last.log[-2:] == ["stop /a", "StatFile /waits"]
    queued = StatFile(b"/queued", answers("queued"))
    server.ask(queued)
    server.cancel(queued)
    server.cancel(queued)  # a dead one is no error
    network.serve()
    assert answers.names() == ["b", "c", "waits", "d"]


def test_what_comes_of_a_request_may_ask_more(server, network, answers):
    server.ask(StatFile(b"/a", lambda outcome: ask(server, answers, "b")))
    network.last.connect()
    network.serve()
    assert answers.names() == ["b"]


def test_one_failing_listener_keeps_no_other_from_its_answer(server, network, answers):
    failures = []
    GetFailureReporter().connect_while_alive("failure-reported", failures.append, server)

    def fail(outcome):
        raise ValueError("in a listener")

    server.ask(StatFile(b"/a", fail))
    ask(server, answers, "b")
    network.last.connect()
    network.serve()
    assert answers.names() == ["b"]
    assert [str(failure) for failure in failures] == ["in a listener"]


# --- silence


def test_a_connection_that_falls_silent_is_lost_and_made_anew(
    server, network, answers, main_loop, stops
):
    ask(server, answers, "a")
    network.last.connect()
    main_loop.advance(3.9)
    assert server.phase is ServerPhase.CONNECTED
    main_loop.advance(0.2)
    assert network.made[0].closed
    assert stops == [server]
    assert server.phase is ServerPhase.PAUSED
    assert server.failure == "no answer for 4 seconds"
    main_loop.advance(1)
    assert server.phase is ServerPhase.CONNECTING
    network.last.connect()
    network.last.answer(ABSENT)
    assert answers.got == [("a", ABSENT)]
    assert server.failure == ""


def test_part_of_an_answer_is_a_sign_of_life(server, network, answers, main_loop):
    ask(server, answers, "a")
    network.last.connect()
    for _ in range(20):
        main_loop.advance(3)
        network.last.client.heard(network.last)
    assert server.phase is ServerPhase.CONNECTED
    assert len(network.made) == 1


def test_a_process_that_was_stopped_looks_before_it_gives_a_connection_up(
    server, network, answers, main_loop
):
    ask(server, answers, "a")
    network.last.connect()
    main_loop._now += 3600  # no beat in between, as after SIGSTOP
    main_loop.advance(0)
    assert server.phase is ServerPhase.CONNECTED
    network.serve()
    assert answers.names() == ["a"]


def test_without_a_question_silence_is_nothing_and_no_timer_runs(
    server, network, answers, main_loop
):
    ask(server, answers, "a")
    network.last.connect()
    network.serve()
    main_loop.advance(1)
    assert main_loop.timers.next_due() is None
    main_loop.advance(3600)
    assert server.phase is ServerPhase.CONNECTED
    ask(server, answers, "b")
    main_loop.advance(3.9)
    assert server.phase is ServerPhase.CONNECTED  # what was before doesn't count


def test_an_attempt_that_leads_nowhere_is_ended_and_repeated(server, network, answers, main_loop):
    ask(server, answers, "a")
    main_loop.advance(8)
    assert network.made[0].closed
    assert server.failure == "no connection for 8 seconds"
    main_loop.advance(1)
    assert len(network.made) == 2


# --- loss and return


def test_what_was_under_way_is_asked_again_first_and_in_order(
    server, network, answers, main_loop, stops
):
    ask(server, answers, "a", "b", "c", "d")
    network.last.connect()
    network.last.lose()
    assert stops == [server]
    main_loop.advance(1)
    network.last.connect()
    assert network.last.log == ["StatFile /a", "StatFile /b", "StatFile /c"]
    network.serve()
    assert answers.names() == ["a", "b", "c", "d"]


def test_news_of_a_connection_that_is_gone_are_nothing(server, network, answers, main_loop):
    ask(server, answers, "a")
    old = network.last
    old.connect()
    request = old.under_way[0]
    old.lose()
    old.client.answered(old, request, ABSENT)
    old.client.heard(old)
    old.client.connected(old)
    old.client.lost(old, ValueError("once more"))
    assert answers.got == []
    assert server.phase is ServerPhase.PAUSED
    main_loop.advance(1)
    assert len(network.made) == 2


def test_pauses_grow_up_to_a_limit_and_begin_anew_after_an_answer(
    server, network, answers, main_loop
):
    ask(server, answers, "a")
    network.last.connect()
    network.serve()
    network.last.lose()
    ask(server, answers, "b")
    starts = []
    for _ in range(5):
        before = main_loop.now()
        while server.phase is not ServerPhase.CONNECTING:
            main_loop.advance(0.5)
        starts.append(main_loop.now() - before)
        network.last.lose()
    assert starts == [0, 1, 2, 4, 4]
    main_loop.advance(4)
    network.last.connect()
    network.serve()
    ask(server, answers, "c")
    network.last.lose()
    main_loop.advance(1)
    assert server.phase is ServerPhase.CONNECTING


def test_a_lost_connection_that_nobody_needs_is_not_made_anew(server, network, answers, main_loop):
    ask(server, answers, "a")
    network.last.connect()
    network.serve()
    network.last.lose()
    main_loop.advance(100)
    assert server.phase is ServerPhase.IDLE
    assert len(network.made) == 1


def test_what_connections_are_lost_over_fails_alone(server, network, answers, main_loop):
    ask(server, answers, "poison", "b")
    for _ in range(3):
        network.last.connect()
        network.last.lose("crash")
        main_loop.advance(2)
    main_loop.run_idle()
    ((name, error),) = answers.got
    assert name == "poison"
    assert isinstance(error, RemoteError) and not error.server_failed
    assert str(error) == "connection lost 3 times over it: crash"
    main_loop.advance(4)
    network.last.connect()
    network.serve()
    assert answers.names() == ["poison", "b"]


# --- giving up


def test_a_server_that_never_answers_is_given_up_in_time(
    server, network, answers, main_loop, stops
):
    ask(server, answers, "a", "b")
    main_loop.advance(29.5)
    assert server.phase is not ServerPhase.GIVEN_UP
    main_loop.advance(2.5)  # at the next beat
    assert server.phase is ServerPhase.GIVEN_UP
    assert answers.got == []  # not inside of a timer
    main_loop.run_idle()
    assert answers.names() == ["a", "b"]
    assert all(error.server_failed for _, error in answers.got)
    assert "no connection for" in str(answers.got[0][1])
    assert stops == []  # there was never one
    main_loop.advance(1000)
    assert main_loop.timers.next_due() is None
    assert answers.names() == ["a", "b"]


def test_one_that_takes_connections_but_answers_nothing_is_given_up_as_well(
    server, network, answers, main_loop
):
    ask(server, answers, "a")
    for _ in range(60):
        if server.phase is ServerPhase.CONNECTING:
            network.last.connect()
        main_loop.advance(1)
    main_loop.run_idle()
    assert answers.names() == ["a"]
    assert server.unanswered == 0


@pytest.mark.parametrize("how", ["lasting", "refused"])
def test_what_waiting_can_not_mend_ends_at_once(server, network, answers, main_loop, how):
    ask(server, answers, "a")
    network.last.lose("no key fits", **{how: True})
    assert server.phase is ServerPhase.GIVEN_UP
    main_loop.run_idle()
    ((_, error),) = answers.got
    assert error.server_failed and str(error) == "the server can't be reached: no key fits"


def test_one_that_has_worked_may_be_starting_again_when_it_refuses(
    server, network, answers, main_loop
):
    ask(server, answers, "a")
    network.last.connect()
    network.serve()
    network.last.lose()
    ask(server, answers, "b")
    network.last.lose("refused", refused=True)
    assert server.phase is ServerPhase.PAUSED
    main_loop.advance(1)
    network.last.connect()
    network.serve()
    assert answers.names() == ["a", "b"]


def test_a_server_that_was_given_up_fails_at_once_and_gets_a_chance_later(
    server, network, answers, main_loop
):
    ask(server, answers, "a")
    network.last.lose("nobody", lasting=True)
    ask(server, answers, "b")
    assert answers.got == []  # never inside of the call
    main_loop.run_idle()
    assert answers.names() == ["a", "b"]
    assert len(network.made) == 1
    main_loop.advance(4)
    ask(server, answers, "c")
    network.last.connect()
    network.serve()
    assert len(network.made) == 2
    assert answers.got[-1] == ("c", ABSENT)


def test_a_failed_request_can_be_taken_back_before_it_is_told(server, network, answers, main_loop):
    request = StatFile(b"/a", answers("a"))
    server.ask(request)
    network.last.lose("nobody", lasting=True)
    server.cancel(request)
    main_loop.run_idle()
    assert answers.got == []
    assert server.unanswered == 0


# --- crowds, the end


def test_a_crowd_is_told_when_half_of_it_has_gone(server, network, answers):
    eased = []
    server.connect("eased", eased.append)
    for count in range(256):
        assert not server.crowded()
        read(server, answers, f"r{count}")
    assert server.crowded()
    network.last.connect()
    for _ in range(127):
        network.last.answer(content(0))
    assert server.crowded() and eased == []
    network.last.answer(content(0))
    assert eased == [server] and not server.crowded()


def test_a_crowd_that_fails_is_gone_too(server, network, answers, main_loop):
    eased = []
    server.connect("eased", eased.append)
    for count in range(300):
        read(server, answers, f"r{count}")
    assert server.crowded()
    network.last.lose("nobody", lasting=True)
    main_loop.run_idle()
    assert len(answers.got) == 300
    assert eased == [server] and not server.crowded()


def test_a_destroyed_server_answers_nothing_and_takes_nothing(server, network, answers, main_loop):
    ask(server, answers, "a")
    network.last.connect()
    old = network.last
    request = old.under_way[0]
    server.destroy()
    assert old.log[-1] == "close"
    old.client.answered(old, request, ABSENT)
    old.lose()
    server.cancel(request)
    main_loop.advance(100)
    main_loop.run_idle()
    assert answers.got == []
    with pytest.raises(RuntimeError, match="ended"):
        ask(server, answers, "b")


def test_the_host_hears_of_a_stop_by_the_class(server, network, answers):
    stopped = []
    CRemoteServerManager.class_connect_while_alive("server-stopped", stopped.append, server)
    ask(server, answers, "a")
    network.last.connect()
    network.last.lose()
    assert stopped == [server]
