"""Asking a process that runs, over a real socket; the asking is done on another thread."""

import json
import os
import socket
import stat

import pytest

from loom.bootstrap import ensure_host_path

ensure_host_path()

from loombase.location import CLocalFileLocation

from loom.app import App
from loom.live import server as server_module
from loom.live.address import TakenError, at_socket, socket_path
from loom.live.answers import Answers, dump_queue
from loom.live.client import LiveError, ask
from loom.live.server import LiveServer
from loom.mainloop.asyncio_loop import AsyncioMainLoop
from loom.scansession import ScanSession
from pysource.scancoordinator import kBackgroundPriority, kInteractivePriority


@pytest.fixture
def loop():
    main_loop = AsyncioMainLoop()
    yield main_loop.loop
    main_loop.loop.run_until_complete(main_loop.loop.shutdown_default_executor())
    main_loop.close()


@pytest.fixture
def db_path(tmp_path):
    return tmp_path / "info.sqlite3"


@pytest.fixture
def server(loop, db_path):
    server = LiveServer(loop, db_path, lambda question: {"echo": question})
    yield server
    server.close()


def asked(loop, db_path, question, **options):
    """The answer, while the loop runs."""
    return loop.run_until_complete(
        loop.run_in_executor(None, lambda: ask(db_path, question, **options))
    )


def connected(db_path):
    connection = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    with at_socket(socket_path(db_path)) as name:
        connection.connect(name)
    return connection


def turn(loop, count=5):
    """Let the loop run for some turns."""

    async def turns():
        import asyncio

        for _ in range(count):
            await asyncio.sleep(0)

    loop.run_until_complete(turns())


# --- the connection


def test_a_question_is_answered(loop, db_path, server):
    assert asked(loop, db_path, {"a": 1}) == {"echo": {"a": 1}}
    assert asked(loop, db_path, {"b": "\N{SNOWMAN}"}) == {"echo": {"b": "\N{SNOWMAN}"}}


def test_nobody_runs(db_path):
    assert ask(db_path, {}) is None


def test_the_socket_is_this_users_alone(db_path, server):
    mode = socket_path(db_path).stat().st_mode
    assert stat.S_ISSOCK(mode)
    assert stat.S_IMODE(mode) == 0o600


def test_nothing_is_left_behind(loop, db_path):
    LiveServer(loop, db_path, dict).close()
    assert os.listdir(db_path.parent) == []


def test_a_second_process_is_told(loop, db_path, server):
    with pytest.raises(TakenError):
        LiveServer(loop, db_path, dict)
    assert asked(loop, db_path, {}) == {"echo": {}}


def test_what_a_killed_process_left_is_replaced(loop, db_path):
    left = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    left.bind(str(socket_path(db_path)))
    left.close()
    assert ask(db_path, {}) is None
    server = LiveServer(loop, db_path, lambda _: {"new": True})
    assert asked(loop, db_path, {}) == {"new": True}
    server.close()


def test_a_folder_with_a_long_name_will_do(loop, tmp_path):
    db_path = tmp_path / ("x" * 120) / "info.sqlite3"
    db_path.parent.mkdir()
    server = LiveServer(loop, db_path, lambda _: {"here": True})
    assert asked(loop, db_path, {}) == {"here": True}
    server.close()


def test_a_link_to_the_database_leads_to_the_same_process(loop, db_path, server, tmp_path):
    db_path.touch()
    link = tmp_path / "elsewhere"
    link.symlink_to(db_path)
    assert asked(loop, link, {}) == {"echo": {}}


def test_a_folder_that_cannot_be_written_is_an_ordinary_error(loop, tmp_path):
    with pytest.raises(OSError):
        LiveServer(loop, tmp_path / "missing" / "info.sqlite3", dict)


@pytest.mark.parametrize(
    "question", [b"nonsense\n", b"[]\n", b"\xff\n", b"\n", b"[" * 9999 + b"\n"]
)
def test_a_question_that_is_none_is_told_so(loop, db_path, server, question):
    with connected(db_path) as client:
        client.sendall(question)
        turn(loop)
        answer = json.loads(client.recv(10_000))
    assert list(answer) == ["error"]


def test_a_fault_is_told_to_the_one_who_asked(loop, db_path, caplog):
    server = LiveServer(loop, db_path, lambda _: 1 / 0)
    with pytest.raises(LiveError, match="ZeroDivisionError"):
        asked(loop, db_path, {})
    server.close()
    assert "couldn't be answered" in caplog.text


def test_a_question_may_come_in_pieces(loop, db_path, server):
    with connected(db_path) as client:
        for piece in (b'{"a"', b": 1", b"}\n"):
            client.sendall(piece)
            turn(loop)
        assert json.loads(client.recv(1000)) == {"echo": {"a": 1}}


def test_an_endless_question_is_cut_off(loop, db_path, server):
    with connected(db_path) as client:
        client.setblocking(False)
        for _ in range(20):
            try:
                client.send(b"x" * 16_384)
            except (BlockingIOError, BrokenPipeError, ConnectionResetError):
                pass
            turn(loop)
        assert not server._clients


def test_a_client_that_never_reads_holds_nobody_up(loop, db_path, monkeypatch):
    server = LiveServer(loop, db_path, lambda question: {"much": "x" * question["much"]})
    with connected(db_path) as client:
        client.sendall(b'{"much": 10000000}\n')
        turn(loop)
        assert len(server._clients) == 1
        assert asked(loop, db_path, {"much": 3}) == {"much": "xxx"}
        (stuck,) = server._clients
        stuck.drop()  # as its deadline does
        assert not server._clients
    server.close()


def test_a_client_has_a_deadline(loop, db_path, monkeypatch):
    monkeypatch.setattr(server_module, "_kClientSeconds", 0.0)
    server = LiveServer(loop, db_path, dict)
    with connected(db_path) as client:
        turn(loop)
        assert client.recv(10) == b""
    server.close()


def test_clients_that_leave_are_forgotten(loop, db_path, server):
    for question in (b"", b'{"a"', b"{}\n"):
        client = connected(db_path)
        client.sendall(question)
        client.close()
        turn(loop)
    assert not server._clients


def test_too_many_clients_are_turned_away(loop, db_path, server):
    clients = []
    for _ in range(20):
        clients.append(connected(db_path))
        turn(loop)
    assert len(server._clients) == 16
    for client in clients:
        client.close()
    turn(loop)
    assert not server._clients
    assert asked(loop, db_path, {}) == {"echo": {}}


def test_a_process_that_does_not_answer_is_not_waited_for(loop, db_path, server):
    with pytest.raises(LiveError, match="doesn't answer"):
        ask(db_path, {}, seconds=0.01)  # the loop doesn't run


def test_an_answer_that_is_none_is_an_error(tmp_path, loop):
    db_path = tmp_path / "info.sqlite3"
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as listener:
        listener.bind(str(socket_path(db_path)))
        listener.listen()
        for reply in (b"", b"nonsense", b"[]"):
            future = loop.run_in_executor(None, ask, db_path, {})
            connection, _ = listener.accept()
            connection.recv(100)
            connection.sendall(reply)
            connection.close()
            with pytest.raises(LiveError, match="no answer"):
                loop.run_until_complete(future)


# --- what is said


@pytest.fixture
def app(main_loop, db_path):
    app = App(db_path, main_loop)
    app.coordinator._fAnalyzeFoundImports = False
    yield app
    app.destroy()


@pytest.fixture
def locs(tmp_path):
    paths = [tmp_path / f"{name}.py" for name in "abc"]
    for path in paths:
        path.write_text("x = 1\n")
    return [CLocalFileLocation(path) for path in paths]


@pytest.fixture
def answers(app, locs):
    session = ScanSession(app, [], endless=True)
    app.coordinator.SuspendIdleScans()
    session.add(locs[:2], kBackgroundPriority)
    yield Answers(app, session, "watch", lambda: {"more": 1})
    app.coordinator.ResumeIdleScans()
    session.destroy()


def test_the_status_tells_of_the_queue(answers, locs):
    status = answers({"ask": "status"})
    assert status["queues"] == [{"scan": "primary", "priority": "background", "files": 2}]
    assert status["paused"] is True
    assert status["next"] == locs[0].path
    assert status["scanning"] is None
    assert status["progress"]["found"] == 2
    assert status["progress"]["done"] == 0
    assert (status["pid"], status["command"], status["more"]) == (os.getpid(), "watch", 1)
    json.dumps(status)


def test_why_tells_the_place_in_the_queue(app, answers, locs):
    app.coordinator.ask_for([locs[2]], kInteractivePriority)
    places = [answers({"ask": "why", "url": loc.fUrl})["queued"] for loc in locs]
    assert places == [
        [{"scan": "primary", "scope": "*", "priority": "background", "position": 1}],
        [{"scan": "primary", "scope": "*", "priority": "background", "position": 2}],
        [{"scan": "primary", "scope": "*", "priority": "interactive", "position": 0}],
    ]


def test_why_of_a_file_that_is_not_queued(answers, tmp_path):
    answer = answers({"ask": "why", "url": CLocalFileLocation(tmp_path / "z.py").fUrl})
    assert answer["queued"] == []
    assert answer["waiting_for"] is None
    assert answer["scanning"] is False


def test_why_tells_what_a_file_waits_for(app, answers, locs):
    queue = app.coordinator._fScanQueue
    item = queue.First()
    queue.StartWaitingForData(item)
    assert answers({"ask": "why", "url": item.loc.fUrl})["waiting_for"] == "data"
    other = queue.First()
    queue.RemoveAllForLocations([other.loc])
    queue._AddItemsWaitingForInspect(other.loc, [other])
    assert answers({"ask": "why", "url": other.loc.fUrl})["waiting_for"] == "inspection"
    assert answers({"ask": "status"})["waiting"] == 2
    assert answers({"ask": "why", "url": locs[2].fUrl})["waiting_for"] is None


def test_why_tells_that_a_file_is_scanned_just_now(app, answers, locs, monkeypatch):
    monkeypatch.setattr(app.coordinator, "ActiveLocation", lambda: locs[0])
    assert answers({"ask": "why", "url": locs[0].fUrl})["scanning"] is True
    assert answers({"ask": "why", "url": locs[1].fUrl})["scanning"] is False
    assert answers({"ask": "status"})["scanning"] == locs[0].path


def test_the_dump_is_the_schedulers_own(app, answers, locs):
    dump = answers({"ask": "dump"})["dump"]
    assert dump == dump_queue(app)
    assert dump.startswith("_CScanQueue contents:\n")
    assert f"  {locs[0]!r}\n    *\n" in dump
    assert "..." in answers({"ask": "dump", "limit": 1})["dump"]


@pytest.mark.parametrize(
    "question",
    [{}, {"ask": "nothing"}, {"ask": "dump", "limit": -1}, {"ask": "why", "url": "http://x"}],
)
def test_what_cannot_be_answered_is_a_value_error(answers, question):
    with pytest.raises(ValueError):
        answers(question)
