"""What a trace tells of a run, and the page that is made of it."""

import io
import json
import re
from pathlib import Path

import pytest
from loombase.location import CLocalFileLocation
from pysource import scopescanner

from loom.app import App
from loom.cli import main as cli_main
from loom.cli.report import ScanReport
from loom.scansession import ScanSession
from loom.trace import recorder as recorder_module
from loom.trace.observe import TracedCoordinator, trace_app
from loom.trace.page import report_page
from loom.trace.recorder import TraceRecorder


@pytest.fixture
def top(tmp_path):
    top = tmp_path / "tree"
    top.mkdir()
    (top / "pyproject.toml").write_text("")
    (top / "a.py").write_text("import b\ndef f(): pass\n")
    (top / "b.py").write_text("class </script>\n")
    (top / "node_modules").mkdir()
    (top / "node_modules" / "x.py").write_text("")
    return top


@pytest.fixture
def app(main_loop, tmp_path):
    app = App(tmp_path / "info.sqlite3", main_loop, TracedCoordinator)
    yield app
    app.destroy()


class Clock:
    """Goes on by 300 microseconds at each look."""

    def __init__(self):
        self.now = 5.0

    def __call__(self):
        self.now += 0.0003
        return self.now


@pytest.fixture
def recorder():
    return TraceRecorder(Clock())


def run(app, main_loop, recorder, *paths):
    """Scan the paths, and return the session."""
    trace_app(app, recorder)
    session = ScanSession(app, [str(path) for path in paths])
    session.start()
    main_loop.run_idle()
    return session


def events(recorder, phase, category):
    return [e for e in recorder.events if (e["ph"], e["cat"]) == (phase, category)]


def test_a_recorder_that_is_not_asked_for_costs_nothing(app, main_loop, top):
    session = ScanSession(app, [str(top)])
    session.start()
    main_loop.run_idle()
    assert session.counts.found == 2
    assert app.coordinator.causes == {}


def test_each_scan_begins_and_ends_once(app, main_loop, top, recorder):
    run(app, main_loop, recorder, top)
    begun, ended = events(recorder, "b", "scan"), events(recorder, "e", "scan")
    assert sorted(e["id"] for e in begun) == sorted(e["id"] for e in ended)
    assert len({e["id"] for e in begun}) == len(begun)
    ends = {e["id"]: e["ts"] for e in ended}
    assert all(e["ts"] < ends[e["id"]] for e in begun)
    mine = [e for e in begun if e["name"].startswith(str(top))]
    assert [Path(e["name"]).name for e in mine] == ["a.py", "b.py"]
    assert mine[0]["args"] == {"scope": "*", "scan": "primary", "priority": 2, "because": ""}


def test_what_happens_in_a_slice_lies_within_it(app, main_loop, top, recorder):
    run(app, main_loop, recorder, top)
    slices = [(e["ts"], e["ts"] + e["dur"]) for e in events(recorder, "X", "slice")]
    inner = events(recorder, "X", "scan slice") + events(recorder, "X", "check")
    assert slices and inner
    for event in inner:
        start, end = event["ts"], event["ts"] + event["dur"]
        assert any(first <= start and end <= last for first, last in slices)


def test_the_queue_is_counted_before_and_after_each_slice(app, main_loop, top, recorder):
    run(app, main_loop, recorder, top)
    counted = events(recorder, "C", "state")
    assert len(counted) == 2 * len(events(recorder, "X", "slice"))
    assert counted[0]["args"] == {"priority 2": 2}
    assert counted[-1]["args"] == {}


def test_writing_to_the_database_is_told(app, main_loop, top, recorder):
    run(app, main_loop, recorder, top)
    assert "database: WriteToDatabase" in {e["name"] for e in events(recorder, "X", "host")}


def test_what_follows_a_file_is_noted_with_it(app, main_loop, top, recorder):
    (top / "lib").mkdir()
    (top / "lib" / "c.py").write_text("")
    (top / "a.py").write_text("import lib.c\n")
    run(app, main_loop, recorder, top / "a.py")
    causes = app.coordinator.causes
    a, c = CLocalFileLocation(top / "a.py"), CLocalFileLocation(top / "lib" / "c.py")
    assert causes[c] is a
    (event,) = [e for e in events(recorder, "b", "scan") if e["name"] == c.path]
    assert event["args"]["because"] == a.path


def test_a_wait_ends_when_the_scan_goes_on(app, main_loop, top, recorder, monkeypatch):
    waiting = []

    class Waits(scopescanner.CWholeFilePrimaryScanner):
        def Scan(self, end_time):
            if self.fLocation.path.endswith("a.py") and self not in waiting:
                waiting.append(self)
                return scopescanner.kWaitingForData
            return super().Scan(end_time)

    monkeypatch.setattr(scopescanner, "CWholeFilePrimaryScanner", Waits)
    session = run(app, main_loop, recorder, top)
    (begun,) = events(recorder, "b", "wait for data")
    assert events(recorder, "e", "wait for data") == []
    waiting[0].emit("scan-state-changed", waiting[0])
    main_loop.run_idle()
    (ended,) = events(recorder, "e", "wait for data")
    assert begun["id"] == ended["id"] and begun["name"].endswith("a.py")
    assert session.counts.scanned == 2


def test_a_scan_that_fails_ends(app, main_loop, top, recorder, monkeypatch):
    def fail(self, end_time):
        raise OSError("no more")

    monkeypatch.setattr(scopescanner.CWholeFilePrimaryScanner, "Scan", fail)
    run(app, main_loop, recorder, top)
    assert len(events(recorder, "b", "scan")) == len(events(recorder, "e", "scan")) > 0


def test_the_trace_is_one_json_document(recorder):
    with recorder.span("outer", "slice", n=1) as args:
        args["found"] = "x"
        recorder.instant("now", "helper", files=["a\udc80"])
    file = io.StringIO()
    recorder.write(file)
    document = json.loads(file.getvalue())
    *about, now, outer = document["traceEvents"]
    assert {e["ph"] for e in about} == {"M"}
    assert now["name"] == "now" and now["s"] == "t"
    assert outer["args"] == {"n": 1, "found": "x"}
    assert outer["ts"] == pytest.approx(300) and outer["dur"] == pytest.approx(600)


def test_a_full_trace_says_so(recorder, monkeypatch):
    monkeypatch.setattr(recorder_module, "_kMostEvents", 2)
    for number in range(5):
        recorder.instant(str(number), "host")
    file = io.StringIO()
    recorder.write(file)
    told = json.loads(file.getvalue())["traceEvents"]
    assert [e["args"] for e in told if e["name"] == "the trace is full"] == [{"left out": 3}]
    assert [e["name"] for e in told[-2:]] == ["0", "1"]


def page_data(page):
    return json.loads(re.search(r'id="data">(.*?)</script>', page, re.DOTALL)[1])


def test_the_page_holds_what_it_shows(app, main_loop, top, recorder, tmp_path):
    session = run(app, main_loop, recorder, top)
    report = ScanReport(session, tmp_path / "info.sqlite3", False).as_json()
    page = report_page(recorder, app.coordinator, report, [str(top)])
    data = page_data(page)
    assert data["report"]["files"]["scanned"] == 2
    assert [e["line"] for e in data["report"]["errors"]] == [1]
    assert len(data["slices"]) == len(events(recorder, "X", "slice"))
    assert 0 < len(data["slowest"]) <= 25
    assert all(milliseconds > 0 and slices > 0 for _, milliseconds, slices in data["slowest"])
    (left_out,) = data["left_out"]
    assert left_out[0] == str(top / "node_modules")
    assert "http" not in re.sub(r"http://www.w3.org/\S+", "", page)  # needs no network


def test_the_command_writes_both(top, tmp_path, capsys):
    arguments = ["scan", str(top), "--db", str(tmp_path / "d.sqlite3"), "--exit-zero"]
    trace, page = tmp_path / "t.json", tmp_path / "r.html"
    assert cli_main.run([*arguments, "--trace", str(trace), "--report", str(page)]) == 0
    kinds = {e["cat"] for e in json.loads(trace.read_text())["traceEvents"] if "cat" in e}
    assert {"slice", "scan", "check", "state"} <= kinds
    assert page_data(page.read_text())["report"]["files"]["found"] == 2
    assert capsys.readouterr().err.count("Traceback") == 0


def test_a_trace_that_cannot_be_written_is_told(top, tmp_path, capsys):
    arguments = ["scan", str(top), "--db", str(tmp_path / "d.sqlite3")]
    assert cli_main.run([*arguments, "--trace", str(tmp_path / "no" / "t.json")]) == 2
    assert "No such file or directory" in capsys.readouterr().err


def test_no_name_ends_the_script_of_the_page(app, recorder):
    report = {"errors": [{"path": "</script><b>", "line": 1, "reason": "x"}]}
    page = report_page(recorder, app.coordinator, report, [])
    assert "</script><b>" not in page
    assert page_data(page)["report"]["errors"][0]["path"] == "</script><b>"
