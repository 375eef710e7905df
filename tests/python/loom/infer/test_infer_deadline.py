"""Cold caches, deadlines, files that change, and what is remembered."""

import pytest
from cache.textcache import CTextCache
from singleton import GetSingletons

from loom.app import App
from loom.infer import api, records
from loom.infer.define import definitions_at

CHAIN = {
    "a.py": "from b import thing\nthing.go\n",
    "b.py": "from c import thing\n",
    "c.py": "from d import Thing\nthing = Thing()\n",
    "d.py": "class Thing:\n    def go(self): pass\n",
}
GO = ("a.py", "thing.|go", "d.py", "def |go")


class ScanLog:
    """Which files are scanned on the way, and when that began."""

    def __init__(self, project, monkeypatch):
        self.scanned = []
        self.times = []
        self.on_scan = lambda: None
        coordinator = project.app.coordinator
        original = type(coordinator).TryToScanDictNow

        def noted(coordinator, loc, scope, triples, end_time):
            self.scanned += sorted(triple[0].path.rpartition("/")[2] for triple in triples)
            self.times.append((project.clock.now, end_time))
            self.on_scan()
            return original(coordinator, loc, scope, triples, end_time)

        monkeypatch.setattr(type(coordinator), "TryToScanDictNow", noted)


@pytest.fixture
def project(cold_project):
    return cold_project


@pytest.fixture
def scans(project, monkeypatch):
    return ScanLog(project, monkeypatch)


def own(scans):
    """The files of the project among those scanned."""
    return [name for name in scans.scanned if name in CHAIN]


def test_a_cold_cache_is_filled_with_what_is_needed_only(project, scans):
    project.write_all({**CHAIN, "unused.py": "import a\n"})
    project.check(*GO)
    assert own(scans) == ["a.py", "b.py", "c.py", "d.py"]
    assert "unused.py" not in scans.scanned
    project.check(*GO)
    assert own(scans) == ["a.py", "b.py", "c.py", "d.py"]


def test_what_was_scanned_for_an_answer_is_in_the_database(project, scans, main_loop):
    project.write_all(CHAIN)
    project.check(*GO)
    project.app.destroy()
    app = project.app = App(project.app.info_cache.fPath, main_loop)
    project.engine = app.ana_mgr.fInferenceEngine
    try:
        answer = project.ask(*GO[:2], project.context(may_scan=False))
        assert project.place(answer) == (GO[2], *project.position(*GO[2:]))
        assert not answer.partial
    finally:
        app.destroy()


def test_nothing_is_scanned_if_that_is_not_allowed(project, scans):
    project.write_all(CHAIN)
    context = project.context(may_scan=False)
    answer = project.ask(*GO[:2], context)
    assert (answer.places, answer.partial) == ((), True)
    assert (project.loc("a.py"), "*", "primary") in context.needs_scan
    assert scans.scanned == []
    # What was missing isn't taken for an answer later on.
    project.check(*GO)


@pytest.mark.parametrize("seconds", [0.0, 1.0, 5.0, 20.0, 60.0, 100.0, 200.0])
def test_an_answer_after_its_deadline_is_partial_and_spoils_nothing(project, scans, seconds):
    project.write_all(CHAIN)
    project.clock.per_look = 0.25
    context = project.context(seconds)
    end_time = context.fEndTime
    answer = project.ask(*GO[:2], context)
    project.clock.per_look = 0.0
    assert project.clock.now >= end_time if answer.partial else project.clock.now <= end_time
    assert all(now <= end for now, end in scans.times)  # no scan begins behind the deadline
    if not answer.partial:
        assert project.place(answer) == (GO[2], *project.position(*GO[2:]))
    project.check(*GO)


def test_the_deadlines_of_the_test_before_reach_from_nothing_to_all(project, scans):
    project.write_all(CHAIN)
    project.clock.per_look = 0.25
    partial = [project.ask(*GO[:2], project.context(seconds)).partial for seconds in (0.0, 200.0)]
    assert partial == [True, False]


def test_a_scan_that_runs_out_of_time_is_left_to_the_idle_loop(project, scans, main_loop):
    project.write_all({"a.py": "from big import last\nlast.go\n"})
    project.write_file("big.py", "x = 1\n" * 100_000 + "class last:\n    def go(self): pass\n")
    warm = project.context()
    project.engine.GetScopeInfo(project.loc("a.py"), "", warm)
    # Time is up when the scan has begun, and long before it could be over.
    scans.on_scan = lambda: setattr(project.clock, "per_look", 40.0)
    context = project.context()
    answer = project.ask("a.py", "last.|go", context)
    project.clock.per_look = 0.0
    assert answer.partial
    assert context.needs_scan == {(project.loc("big.py"), "*", "primary")}
    assert project.app.coordinator.LocationInPrimaryScanQueue(project.loc("big.py"))
    main_loop.run_idle()
    answer = project.ask("a.py", "last.|go", project.context(may_scan=False))
    assert project.place(answer) == ("big.py", 100_002, 8)


def test_a_changed_file_gives_another_answer(project, scans):
    project.write_all(CHAIN)
    project.check(*GO)
    project.write_file("d.py", "class Base:\n    def go(self): pass\nclass Thing(Base): pass\n")
    project.check(*GO)
    project.write_file("c.py", "class Other:\n    def go(self): 'other'\nthing = Other()\n")
    project.check("a.py", "thing.|go", "c.py", "def |go")
    project.write_file("b.py", "thing = missing()\n")
    assert project.ask("a.py", "thing.|go").places == ()


def test_more_files_than_are_kept_in_hand(project, monkeypatch):
    monkeypatch.setattr(records, "_kMostFiles", 3)
    project.write_all(CHAIN)
    project.check(*GO)
    project.write_file("c.py", "class Other:\n    def go(self): 'other'\nthing = Other()\n")
    project.check("a.py", "thing.|go", "c.py", "def |go")
    project.check("a.py", "thing.|go", "c.py", "def |go")


def test_a_file_that_goes_and_comes_back(project):
    project.write_all(CHAIN)
    project.check(*GO)
    (project.top / "d.py").unlink()
    assert project.ask(*GO[:2]).places == ()
    project.write_file("d.py", CHAIN["d.py"])
    project.check(*GO)


def test_unsaved_text_is_what_counts(project):
    project.write_all(CHAIN)
    project.check(*GO)
    table = GetSingletons()
    loc = project.loc("c.py")
    buffer = table.fCacheMgr.OpenBuffer(loc, CHAIN["c.py"], 1.0)
    assert isinstance(buffer, CTextCache)
    buffer.SetText("class Local:\n    def go(self): 'here'\n\nthing = Local()\n")
    answer = project.ask("a.py", "thing.|go")
    assert project.place(answer) == ("c.py", 2, 8)
    buffer.SetText("\n\nclass Local:\n    def go(self): 'here'\n\nthing = Local()\n")
    answer = project.ask("a.py", "thing.|go")
    assert project.place(answer) == ("c.py", 4, 8)
    table.fCacheMgr.CloseBuffer(loc)
    project.check(*GO)


def test_a_scope_is_scanned_when_it_is_asked_for(project, scans):
    project.write_all(CHAIN)
    context = project.context()
    info = project.engine.GetScopeInfo(project.loc("d.py"), "Thing", context)
    assert list(info.type_equivs) == ["go"]
    assert own(scans) == ["d.py"]
    assert project.engine.GetScopeInfo(project.loc("d.py"), "Nothing", context) is None
    assert project.engine.GetScopeInfo(project.loc("gone.py"), "", context) is None
    assert not context.partial


def test_no_scope_after_the_deadline(project, scans):
    project.write_all(CHAIN)
    assert project.engine.GetScopeInfo(project.loc("d.py"), "", project.context(-1.0)) is None
    assert scans.scanned == []


def test_a_file_that_can_not_be_read_is_no_reason_to_wait(project):
    project.write_all({"a.py": "from b import thing\nthing.go\n"})
    (project.top / "b.py").write_bytes(b"\0\0\0")
    answer = project.ask("a.py", "|thing.go")
    assert project.place(answer) == ("a.py", *project.position("a.py", "import |thing"))
    assert not answer.partial


def test_a_file_that_is_not_there(project):
    answer = definitions_at(project.loc("none.py"), 1, 0, project.context())
    assert (answer.name, answer.places) == ("", ())


def test_answers_tell_which_files_they_were_drawn_from(project):
    project.write_all(CHAIN)
    for _ in range(2):  # once worked out, once remembered
        context = project.context()
        api.resolve_expression(project.loc("a.py"), "", "thing.go", context)
        consulted = {loc.path.rpartition("/")[2] for loc in context.consulted}
        assert {"a.py", "b.py", "c.py", "d.py"} <= consulted
