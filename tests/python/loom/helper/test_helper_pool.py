"""The first process's side, with helpers that the test plays, in virtual time."""

import logging
import os

import pytest
from loombase.location import CLocalFileLocation
from memorykit import PlayedHelper, raw_frame
from pysource.scancoordinator import kBackgroundPriority
from singleton import GetSingletons

from loom import freshness
from loom.helper import link as link_module
from loom.helper import messages, pool, setaside
from loom.helper.statuspage import Scanning
from loom.helper.support import CHelperProcessSupport
from loom.store.records import FileRecord, FileTimes, join_scans

PRIMARY = join_scans(["primary"])


def loc_of(path):
    return CLocalFileLocation(path)


def record_of(loc, **changes):
    """What a helper would find in a file."""
    status = os.stat(loc.path)
    fields = dict(
        url=loc.fUrl,
        mtime_ns=status.st_mtime_ns,
        size=status.st_size,
        digest=b"digest",
        scans=PRIMARY,
        settled=True,
        scanner=freshness.kScannerVersion,
    )
    return FileRecord(**(fields | changes))


class Setting:
    """An app with played helpers; `helpers` are all that were started."""

    def __init__(self, app, main_loop, count=1, share=False):
        self.app = app
        self.main_loop = main_loop
        self.coordinator = app.coordinator
        self.helpers = []
        self.refuse_to_start = False
        self.stored = []
        self.records = {}
        app.info_cache.connect("file-stored", self._note_stored)

        def launch():
            if self.refuse_to_start:
                raise FileNotFoundError("no such program")
            self.helpers.append(PlayedHelper())
            return self.helpers[-1]

        self.support = CHelperProcessSupport(app.ana_mgr, launch, count, share)
        self.support.start()
        self.pool = self.support.pool

    def _note_stored(self, cache, loc, record):
        self.stored.append(loc)
        self.records[loc] = record

    @property
    def helper(self):
        return self.helpers[-1]

    @property
    def in_helper(self):
        return self.coordinator._fLocsQueuedInHelper

    def add(self, *locs, first=False):
        self.coordinator.ask_for(locs, kBackgroundPriority)
        if first:
            self.coordinator.AddPairsToPrimaryQueue([(loc, "*") for loc in locs], True)

    def jobs(self, helper=None):
        """Let everything run, and the jobs that the helper then got."""
        self.main_loop.run_idle()
        return (helper or self.helper).hear()

    def answer(self, jobs, helper=None):
        """Results for these jobs."""
        helper = helper or self.helper
        helper.say(messages.Added([job.number for job in jobs]))
        for job in jobs:
            helper.say(messages.Result(job.number, record_of(loc_of(job.path)), []))
        self.main_loop.run_idle()

    def queued_here(self, loc):
        return self.coordinator.LocationInPrimaryScanQueue(loc)


@pytest.fixture
def make(app, main_loop, monkeypatch):
    monkeypatch.setattr(app.coordinator, "_fAnalyzeFoundImports", False)

    def make(**options):
        return Setting(app, main_loop, **options)

    return make


@pytest.fixture
def locs(tree):
    top = tree({f"f{i:03}.py": f"x{i} = 1\n" for i in range(60)})
    found = [loc_of(top / f"f{i:03}.py") for i in range(60)]
    for loc in found:
        os.utime(loc.path, (1_700_000_000, 1_700_000_000))
    return found


def paths(jobs):
    return [os.fsdecode(job.path) for job in jobs]


# --- work goes out and comes back


def test_work_goes_to_a_helper_that_has_greeted(make, locs):
    s = make()
    s.add(*locs[:3])
    assert s.in_helper == set(locs[:3])
    assert not any(s.queued_here(loc) for loc in locs[:3])
    assert s.jobs() == []  # it hasn't said who it is
    s.helper.greet()
    jobs = s.jobs()
    assert paths(jobs) == [loc.path for loc in locs[:3]]
    assert all(job.known is None and not job.is_python for job in jobs)
    assert s.helper.greeted == messages.greeting()


def test_results_are_stored_and_the_scheduler_is_told(make, locs):
    s = make()
    s.helper.greet()
    s.add(*locs[:3])
    s.answer(s.jobs())
    assert s.stored == locs[:3]
    assert s.in_helper == set()
    assert s.coordinator.QueuesEmpty()
    assert len(s.pool) == 0
    assert set(s.app.info_cache.StatesOf(locs[:5])) == set(locs[:3])


def test_a_location_leaves_only_when_its_result_is_stored(make, locs):
    s = make()
    s.helper.greet()
    s.add(locs[0])
    (job,) = s.jobs()
    seen = []
    s.app.info_cache.connect("file-stored", lambda *_: seen.append(set(s.in_helper)))
    s.answer([job])
    assert seen == [{locs[0]}]


def test_a_helper_has_a_bounded_part_and_gets_more_as_it_goes(make, locs):
    s = make()
    s.helper.greet()
    s.add(*locs)
    jobs = s.jobs()
    most = len(jobs)
    assert 0 < most < len(locs) / 2
    done = []
    while jobs:
        done += paths(jobs[:4])
        s.answer(jobs[:4])
        jobs = jobs[4:] + s.jobs()
        assert len(jobs) <= most
    assert done == [loc.path for loc in locs]  # and in order
    assert s.coordinator.QueuesEmpty()


def test_big_files_fill_a_helper_sooner(make, locs, monkeypatch):
    monkeypatch.setattr(pool, "_size_of", lambda loc: 10 * 1024 * 1024)
    s = make()
    s.helper.greet()
    s.add(*locs)
    assert len(s.jobs()) <= 16


def test_work_is_dealt_to_all_helpers(make, locs):
    s = make(count=3)
    for helper in s.helpers:
        helper.greet()
    s.add(*locs)
    s.main_loop.run_idle()
    parts = [helper.hear() for helper in s.helpers]
    assert all(parts)
    dealt = [path for part in parts for path in paths(part)]
    assert len(set(dealt)) == len(dealt)


def test_what_is_asked_for_first_is_dealt_first(make, locs):
    s = make()
    s.add(*locs[:3])
    s.coordinator.AddPairsToPrimaryQueue([(locs[5], "*"), (locs[2], "*")], True)
    s.helper.greet()
    assert paths(s.jobs()) == [locs[i].path for i in (5, 2, 0, 1)]


def test_what_is_known_of_a_file_goes_with_it(make, locs):
    s = make()
    s.helper.greet()
    s.add(locs[0])
    s.answer(s.jobs())
    s.coordinator.AddPairsToPrimaryQueue([(locs[0], "*")], True)
    (job,) = s.jobs()
    assert (job.known.scans, job.known.digest) == (PRIMARY, b"digest")


def test_a_file_that_is_python_because_the_user_says_so(make, tree):
    s = make()
    loc = loc_of(tree({"script": "x = 1\n"}) / "script")
    s.app.attribs.DeclareMimeType(loc, "text/x-python")
    s.helper.greet()
    s.add(loc)
    (job,) = s.jobs()
    assert job.is_python


def test_unchanged_gone_and_other_files_leave(make, locs):
    s = make()
    vanished = []
    s.coordinator.connect("modtimes-updated", vanished.append)
    s.helper.greet()
    s.add(*locs[:3])
    numbers = [job.number for job in s.jobs()]
    s.helper.say(messages.Left([numbers[0]], [numbers[1]], [numbers[2]]))
    s.main_loop.run_idle()
    assert {locs[1]: 0.0} in vanished
    assert s.coordinator.QueuesEmpty()
    assert s.stored == []


def test_bytes_that_are_known_renew_the_time(make, locs):
    s = make()
    s.helper.greet()
    s.add(locs[0])
    s.answer(s.jobs())
    os.utime(locs[0].path, (1_700_000_005, 1_700_000_005))
    s.add(locs[0])
    (job,) = s.jobs()
    s.helper.say(messages.Reread(job.number, b"digest", FileTimes(1_700_000_005 * 10**9, 7, True)))
    s.main_loop.run_idle()
    assert s.app.info_cache.StatesOf([locs[0]])[locs[0]].mtime_ns == 1_700_000_005 * 10**9
    assert s.coordinator.QueuesEmpty()


def test_a_reread_of_what_is_known_no_more_is_asked_for_again(make, locs):
    s = make()
    s.helper.greet()
    s.add(locs[0])
    (job,) = s.jobs()
    s.helper.say(messages.Reread(job.number, b"digest", FileTimes(1, 7, True)))
    (job,) = s.jobs()
    assert job.path == os.fsencode(locs[0].path)
    assert s.in_helper == {locs[0]}


def test_a_file_asked_for_while_it_is_out_is_looked_at_again_if_it_has_changed(make, locs):
    s = make()
    s.helper.greet()
    s.add(*locs[:2])
    jobs = s.jobs()
    s.add(*locs[:2])
    results = [messages.Result(job.number, record_of(loc_of(job.path)), []) for job in jobs]
    os.utime(locs[1].path, (1_700_000_009, 1_700_000_009))
    s.helper.say(*results)
    assert paths(s.jobs()) == [locs[1].path]
    assert s.in_helper == {locs[1]}


def test_importers_that_ask_for_a_file_that_is_done_get_nothing_scanned(make, locs):
    s = make()
    s.helper.greet()
    s.add(locs[0])
    s.answer(s.jobs())
    s.add(locs[0])
    assert s.jobs() == []
    assert s.coordinator.QueuesEmpty()
    os.utime(locs[0].path, (1_700_000_009, 1_700_000_009))
    s.add(locs[0])
    assert len(s.jobs()) == 1


def test_a_file_whose_time_cannot_be_trusted_is_always_asked_for(make, locs):
    s = make()
    s.helper.greet()
    s.add(locs[0])
    (job,) = s.jobs()
    s.helper.say(messages.Result(job.number, record_of(locs[0], settled=False), []))
    s.main_loop.run_idle()
    s.add(locs[0])
    assert len(s.jobs()) == 1


def test_a_file_that_was_opened_meanwhile_is_scanned_here(make, locs):
    s = make()
    s.helper.greet()
    s.add(locs[0])
    (job,) = s.jobs()
    GetSingletons().fCacheMgr.OpenBuffer(locs[0], "y = 2\n", os.stat(locs[0].path).st_mtime)
    s.answer([job])
    assert s.in_helper == set()
    assert len(s.stored) == 1  # by the scheduler itself, not by the helper's answer
    assert s.app.info_cache.StatesOf([locs[0]])[locs[0]].digest != b"digest"


def test_incomplete_scopes_reach_the_scheduler(make, locs):
    s = make()
    s.helper.greet()
    s.add(locs[0])
    (job,) = s.jobs()
    s.helper.say(messages.Result(job.number, record_of(locs[0]), ["f", "C.g"]))
    s.main_loop.run_idle()
    assert s.coordinator._fIncompleteScansByLoc[locs[0]] == {"f", "C.g"}


def test_imports_of_results_are_followed_once_a_folder(make, locs, monkeypatch):
    s = make()
    asked = []
    monkeypatch.setattr(
        s.app.ana_mgr.fAnalysisFactory,
        "_FindPrimaryLocsForNames",
        lambda names, folder, follow: asked.append((set(names), folder)) or [],
    )
    s.coordinator._fAnalyzeFoundImports = True
    s.helper.greet()
    s.add(*locs[:3])
    jobs = [job for job in s.jobs() if loc_of(job.path) in locs]
    del asked[:]
    for job, imports in zip(jobs, (b":ios;:ire", b":ire", b":ijson"), strict=True):
        record = record_of(loc_of(job.path), imports=imports)
        s.helper.say(messages.Result(job.number, record, []))
    s.main_loop.run_idle()
    assert sorted(name for names, _ in asked for name in names) == ["json", "os", "re"]
    assert {folder for _, folder in asked} == {locs[0].GetParentDir()}


def test_flushing_forgets_all_work_and_late_results(make, locs):
    s = make()
    s.helper.greet()
    s.add(*locs[:5])
    jobs = s.jobs()
    s.coordinator.FlushQueue()
    assert len(s.pool) == 0
    s.helper.hear()
    assert s.helper.received == [messages.Flush()]
    s.answer(jobs)
    assert s.stored == []
    s.add(locs[0])
    assert len(s.jobs()) == 1


def test_the_share_of_the_first_process(make, locs):
    s = make(share=True)
    s.add(*locs)
    s.main_loop.run_idle()  # without a helper that greets it does it all
    assert len(s.stored) == len(locs)
    assert s.coordinator.QueuesEmpty()


def test_suspended_scans_suspend_the_share(make, locs):
    s = make(share=True)
    s.coordinator.SuspendIdleScans()
    s.add(*locs[:3])
    s.main_loop.run_idle()
    assert s.stored == []


# --- what waits is bounded


def test_reports_that_are_not_stored_stop_the_reading(make, locs, monkeypatch):
    monkeypatch.setattr(link_module, "_kMostWaiting", 1000)
    monkeypatch.setattr(link_module, "_kFewWaiting", 500)
    s = make()
    s.helper.greet()
    s.add(*locs)
    jobs = s.jobs()
    s.helper.say(*[messages.Result(j.number, record_of(loc_of(j.path)), []) for j in jobs])
    assert s.helper.stream.paused
    s.main_loop.run_idle()
    assert not s.helper.stream.paused
    assert len(s.stored) == len(jobs)


def test_a_locked_database_holds_the_reports_back_until_it_is_free(make, locs, monkeypatch):
    s = make()
    s.helper.greet()
    s.add(*locs[:2])
    jobs = s.jobs()
    monkeypatch.setattr(s.app.info_cache, "UnwrittenBytes", lambda: 1 << 30)
    s.answer(jobs)
    assert s.stored == []
    monkeypatch.undo()
    s.main_loop.advance(1.0)
    s.main_loop.run_idle()
    assert len(s.stored) == 2


# --- helpers go


def test_work_of_a_helper_that_goes_is_kept_for_the_next(make, locs, caplog):
    s = make()
    s.helper.greet()
    s.add(*locs[:5])
    jobs = s.jobs()
    s.answer(jobs[:2])
    s.helpers[0].die("it was ended by SIGKILL")
    assert s.helpers[0].is_destroyed
    assert s.app.ana_mgr.fHelperProcessProxy is s.pool
    s.main_loop.run_idle()
    assert s.in_helper == set(locs[2:5])
    assert not any(s.queued_here(loc) for loc in locs)
    s.main_loop.advance(1.0)
    assert len(s.helpers) == 2
    s.helper.greet()
    s.answer(s.jobs())
    assert sorted(loc.path for loc in s.stored) == [loc.path for loc in locs[:5]]
    assert "SIGKILL" in caplog.text


def test_each_run_of_helpers_has_a_callback_object_of_its_own(app, main_loop):
    seen = []
    for _ in range(2):
        s = Setting(app, main_loop)
        seen.append(s.support.fHelperCallbackObj)
        assert app.coordinator._fHelperCallbackObjConnected is seen[-1]
        s.support.destroy()
    # Were both of one class, the reports of either would be heard twice.
    assert type(seen[0]) is not type(seen[1])


def test_when_no_helper_is_left_the_scheduler_takes_the_work_back(make, locs):
    s = make()
    s.helper.greet()
    s.add(*locs[:5])
    s.answer(s.jobs()[:2])
    s.refuse_to_start = True
    s.helper.die()
    s.main_loop.advance(10.0)
    assert s.support.is_given_up
    assert s.app.ana_mgr.fHelperProcessProxy is None
    assert s.in_helper == set()
    assert all(s.queued_here(loc) for loc in locs[2:5])
    s.main_loop.run_idle()
    assert set(s.stored) == set(locs[:5])


def test_one_of_several_that_goes_leaves_its_work_to_the_others(make, locs):
    s = make(count=2)
    for helper in s.helpers:
        helper.greet()
    s.add(*locs[:20])
    s.main_loop.run_idle()
    one, other = s.helpers
    lost = one.hear()
    kept = other.hear()
    one.die()
    assert s.app.ana_mgr.fHelperProcessProxy is s.pool
    done = []
    while kept:
        done += paths(kept)
        s.answer(kept, other)
        kept = s.jobs(other)
    assert set(paths(lost)) < set(done)
    assert len(done) == len(set(done)) == 20


def test_the_file_that_ends_a_helper_twice_is_set_aside(make, locs, caplog):
    s = make()
    s.helper.greet()
    s.add(*locs[:3])
    jobs = s.jobs()
    s.helper.now_scanning = Scanning(jobs[1].number, 0.0)
    s.helper.die()
    assert not s.queued_here(locs[1])  # nobody else touches it
    assert s.in_helper == set(locs[:3])
    s.main_loop.advance(1.0)
    s.helper.greet()
    (job,) = s.jobs()  # alone
    assert job.path == os.fsencode(locs[1].path)
    s.helper.now_scanning = Scanning(job.number, 0.0)
    s.helper.die()
    record = s.records[locs[1]]
    assert "set aside: scanning it ended the helper process twice" in record.error
    assert "SIGSEGV" in record.error
    assert (record.scans, record.settled) == (PRIMARY, True)
    assert record.digest
    s.main_loop.advance(1.0)
    s.helper.greet()
    s.answer(s.jobs())
    assert s.coordinator.QueuesEmpty()
    assert set(s.stored) == set(locs[:3])
    # Once it has changed it is tried again.
    os.utime(locs[1].path, (1_700_000_009, 1_700_000_009))
    s.add(locs[1])
    assert len(s.jobs()) == 1


def test_a_file_that_ends_a_helper_once_is_cleared_by_its_result(make, locs):
    s = make()
    s.helper.greet()
    s.add(*locs[:2])
    jobs = s.jobs()
    s.helper.now_scanning = Scanning(jobs[0].number, 0.0)
    s.helper.die()
    s.main_loop.advance(1.0)
    s.helper.greet()
    s.answer(s.jobs())
    s.answer(s.jobs())
    assert set(s.stored) == set(locs[:2])
    assert s.coordinator.QueuesEmpty()


def test_without_a_page_messages_tell_what_is_scanned(make, locs):
    s = make()
    for _ in range(2):
        s.helper.greet()
        s.add(locs[0])
        (job,) = s.jobs()
        s.helper.say(messages.Starting(job.number))
        s.main_loop.run_idle()
        s.helper.die()
        s.main_loop.advance(1.0)
    assert "set aside" in s.records[locs[0]].error


def test_a_done_scan_is_not_to_blame_for_the_end(make, locs):
    s = make()
    s.helper.greet()
    s.add(*locs[:2])
    jobs = s.jobs()
    s.helper.now_scanning = Scanning(jobs[0].number, 0.0)
    s.helper.say(messages.Result(jobs[0].number, record_of(locs[0]), []))
    s.helper.die()  # the result is read before the end is seen
    s.main_loop.run_idle()
    assert s.pool.backlog.suspects == []
    assert locs[0] in s.stored


def test_a_helper_that_hangs_is_ended_and_the_file_named(make, locs, caplog):
    s = make()
    s.helper.greet()
    s.add(*locs[:2])
    jobs = s.jobs()
    s.helper.now_scanning = Scanning(jobs[0].number, s.main_loop.now())
    s.main_loop.advance(link_module.kHangSeconds - 1)
    assert not s.helper.ended
    s.main_loop.advance(3)
    assert s.helpers[0].ended
    assert locs[0].path in caplog.text
    assert "came to no end" in caplog.text
    assert [task.loc for task in s.pool.backlog.suspects] == [locs[0]]


def test_a_helper_that_is_not_read_from_does_not_hang(make, locs, monkeypatch):
    monkeypatch.setattr(link_module, "_kMostWaiting", 10)
    s = make()
    s.helper.greet()
    s.add(*locs[:2])
    jobs = s.jobs()
    s.helper.say(messages.Result(jobs[0].number, record_of(locs[0]), []))
    s.helper.now_scanning = Scanning(jobs[1].number, s.main_loop.now())
    s.main_loop.advance(link_module.kHangSeconds * 10)  # nothing is stored in this time
    assert not s.helper.ended


def test_a_helper_without_work_may_be_silent(make):
    s = make()
    s.helper.greet()
    s.main_loop.advance(10_000)
    assert not s.helper.ended


def test_a_helper_that_never_greets_is_ended(make, locs, caplog):
    s = make()
    s.add(locs[0])
    s.main_loop.advance(link_module.kHangSeconds + 2)
    assert s.helpers[0].ended
    assert "never greeted" in caplog.text


def test_a_silent_helper_with_work_is_ended(make, locs, caplog):
    s = make()
    s.helper.greet()
    s.add(locs[0])
    s.jobs()
    s.main_loop.advance(link_module.kSilenceSeconds + 2)
    assert s.helpers[0].ended
    assert "said nothing" in caplog.text


def test_nothing_wakes_up_when_nothing_is_to_be_done(make, locs):
    s = make()
    s.helper.greet()
    s.add(locs[0])
    s.answer(s.jobs())
    s.main_loop.advance(5)
    s.main_loop.run_idle()
    assert s.main_loop.timers.next_due() is None


def test_another_version_is_refused_and_the_work_is_done_here(make, locs, caplog):
    s = make()
    s.add(*locs[:3])
    s.helper.greet(messages.Greeting("loom-helper", 99, 1))
    assert s.helper.ended
    assert "version 99 of the protocol" in caplog.text
    assert s.support.is_given_up
    s.main_loop.advance(100)
    assert len(s.helpers) == 1  # another one would speak the same
    s.main_loop.run_idle()
    assert set(s.stored) == set(locs[:3])
    assert s.coordinator.QueuesEmpty()


@pytest.mark.parametrize(
    "garbage",
    [b"Traceback (most recent call last):\n", raw_frame(["result", 1]), raw_frame({"a": 1})],
)
def test_garbage_ends_a_helper_and_loses_nothing(make, locs, garbage, caplog):
    s = make()
    s.helper.greet()
    s.add(*locs[:3])
    s.answer(s.jobs()[:1])
    s.helper.say_bytes(garbage)
    s.main_loop.run_idle()
    assert s.helpers[0].ended
    assert "garbage" in caplog.text
    s.main_loop.advance(1)
    s.helper.greet()
    s.answer(s.jobs())
    assert set(s.stored) == set(locs[:3])


def test_garbage_instead_of_a_greeting(make, locs, caplog):
    s = make()
    s.helper.say_bytes(raw_frame("hello"))
    assert s.helper.ended
    assert "garbage" in caplog.text


def test_a_helper_that_cannot_be_started_is_done_without(make, locs, app, main_loop, caplog):
    caplog.set_level(logging.WARNING)

    def launch():
        raise FileNotFoundError("no such program")

    support = CHelperProcessSupport(app.ana_mgr, launch, 1, False)
    support.start()
    assert support.is_given_up
    assert app.ana_mgr.fHelperProcessProxy is None
    assert "can't be started" in caplog.text
    app.coordinator.ask_for(locs[:2])
    main_loop.run_idle()
    assert app.coordinator.QueuesEmpty()


def test_helpers_that_do_nothing_but_die_are_given_up(make, locs, caplog):
    s = make()
    s.add(locs[0])
    for _ in range(100):
        if s.support.is_given_up:
            break
        s.helper.die()
        s.main_loop.advance(40)
    assert s.support.is_given_up
    assert 3 <= len(s.helpers) < 20
    s.main_loop.run_idle()
    assert s.stored == [locs[0]]


def test_a_suspect_is_not_scanned_here_when_helpers_are_given_up(make, locs):
    s = make()
    s.helper.greet()
    s.add(*locs[:2])
    jobs = s.jobs()
    s.helper.now_scanning = Scanning(jobs[0].number, 0.0)
    s.helper.die()
    s.refuse_to_start = True
    s.main_loop.advance(1)
    s.main_loop.run_idle()
    record = s.records[locs[0]]
    assert "once" in record.error
    assert record.scans == ""  # the next run tries again
    assert s.coordinator.QueuesEmpty()
    assert set(s.stored) == set(locs[:2])


def test_an_end_with_the_app(make, locs, app):
    s = make(count=2)
    s.add(*locs[:2])
    app.destroy()
    assert all(helper.is_destroyed for helper in s.helpers)


def test_the_record_of_a_file_that_is_gone_tells_why(locs):
    from loom.helper.backlog import Task

    task = Task(1, loc_of("/nowhere/at/all.py"), False, crashes=2, fate="it was ended by SIGSEGV")
    record = setaside.record_of(task, "primary")
    assert "SIGSEGV" in record.error
    assert (record.digest, record.settled) == (b"", False)
