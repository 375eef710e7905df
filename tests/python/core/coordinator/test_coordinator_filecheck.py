"""The check of whole files before they are scanned: `__CheckWholeFiles`."""

import pytest
from collaborators import Buffer
from operations import private, watched
from pysource.scancoordinator import (
    kBackgroundPriority,
    kDefaultWholeFilesToCheckCount,
    kInteractivePriority,
    kTypingModulePriority,
)
from world import (
    forget,
    kDerived,
    kPrimary,
    logged,
    pass_time,
    pending,
    told,
    waiting_files,
)

import hostclock

kStart = hostclock.kStartTime
kLate = kStart + 10.0
kBoth = f"{kPrimary},{kDerived}"


def check(coordinator, end_time=kLate):
    """Run the check."""
    return private(coordinator, "__CheckWholeFiles")(end_time)


def file(world, coordinator, path, *, done=None, mtime=1.0, priority=kBackgroundPriority):
    """A file whose whole-file scan is queued and whose check is due."""
    loc = world.loc(path)
    world.info_cache.disk_mtimes[loc] = mtime
    if done is not None:
        world.info_cache.scans_done[loc] = done
    world.queue(coordinator, loc, priority=priority, check=True)
    return loc


def test_nothing_to_check_is_false_and_asks_nothing(world, coordinator):
    world.log_lines(coordinator)
    assert check(coordinator) is False
    assert told() == []


def test_nothing_to_check_is_false_even_out_of_time(coordinator):
    assert check(coordinator, kStart - 1.0) is False


def test_one_check_in_order(world):
    """All that a check asks of the host for a file that is up to date."""
    coordinator = world.make(
        watched(
            "__GetModtimeDict",
            AddPairsToSecondaryQueue=None,
            AddPairsToPrimaryQueue=None,
        )
    )
    loc = file(world, coordinator, "/p/a.py", done=kPrimary)
    world.log_lines(coordinator)
    batch = [(loc, int(kBackgroundPriority))]
    assert check(coordinator) is False
    calls = told()
    assert calls == [
        logged(f"Checking whole files: {batch!r}"),
        ("__GetModtimeDict", [loc]),
        ("DoesCacheBufferExist", loc, True),
        ("GetDiskMTime", loc),
        ("emit", coordinator, "modtimes-updated", {loc: 1.0}),
        ("GetScansDoneForMultipleFiles", {loc: 1.0}),
        logged(f"__CheckWholeFiles scans_done_dict: { {loc: kPrimary}!r}"),
        ("WantDerivedInfo", loc),
        ("AddPairsToSecondaryQueue", [(loc, "*")], False, kBackgroundPriority),
        ("GetAllImports", [loc]),
    ]
    assert pending(coordinator) == {}


def test_a_file_with_both_scans_done_leaves_the_queue(world, coordinator):
    loc = file(world, coordinator, "/p/a.py", done=kBoth)
    assert check(coordinator) is False
    assert pending(coordinator) == {}
    assert told("WantDerivedInfo") == []
    assert coordinator._fMTimeAtLastWholeFileCheck == {loc: 1.0}
    forget()


@pytest.mark.parametrize("wanted", [True, False])
def test_a_missing_secondary_scan_is_queued_if_wanted(world, coordinator, wanted):
    loc = file(world, coordinator, "/p/a.py", done=kPrimary, priority=kInteractivePriority)
    world.loc_cache.derived_wanted[loc] = wanted
    check(coordinator)
    expected = {(loc, "*", kDerived): kInteractivePriority} if wanted else {}
    assert pending(coordinator) == expected
    forget()


def test_the_secondary_scan_has_the_priority_of_the_batch(world):
    coordinator = world.make(watched(AddPairsToSecondaryQueue=None))
    a = file(world, coordinator, "/p/a.py", done=kPrimary, priority=kTypingModulePriority)
    b = file(world, coordinator, "/p/b.py", done=kPrimary, priority=kBackgroundPriority)
    check(coordinator)
    assert sorted(call[3] for call in told("AddPairsToSecondaryQueue")) == [0, 2]
    assert {a, b} == set(coordinator._fMTimeAtLastWholeFileCheck)
    forget()


def test_a_stranger_in_the_answer_has_background_priority(world):
    """The info cache may tell of a location that it wasn't asked about."""
    coordinator = world.make(watched(AddPairsToSecondaryQueue=None))
    file(world, coordinator, "/p/a.py", priority=kInteractivePriority)
    stranger = world.loc("/q/x.py")
    world.info_cache.GetScansDoneForMultipleFiles = lambda _times: {stranger: kPrimary}
    check(coordinator)
    assert told("AddPairsToSecondaryQueue") == [
        ("AddPairsToSecondaryQueue", [(stranger, "*")], False, kBackgroundPriority)
    ]
    forget()


def test_names_are_found_anywhere_in_the_text(world, coordinator):
    loc = file(world, coordinator, "/p/a.py", done=f"x{kDerived}y{kPrimary}z")
    check(coordinator)
    assert pending(coordinator) == {}
    assert told("WantDerivedInfo") == []
    assert told("GetAllImports") == [("GetAllImports", [loc])]
    forget()


@pytest.mark.parametrize("done", ["", kDerived, "primar"])
def test_a_file_without_a_valid_primary_scan_stays(world, coordinator, done):
    loc = file(world, coordinator, "/p/a.py", done=done)
    check(coordinator)
    assert pending(coordinator) == {(loc, "*", kPrimary): kBackgroundPriority}
    assert told("GetAllImports") == [("GetAllImports", [])]
    assert told("WantDerivedInfo") == []
    forget()


def test_a_file_that_the_cache_leaves_out_stays(world, coordinator):
    loc = file(world, coordinator, "/p/a.py")
    check(coordinator)
    assert pending(coordinator) == {(loc, "*", kPrimary): kBackgroundPriority}
    assert coordinator._fMTimeAtLastWholeFileCheck == {loc: 1.0}
    forget()


def test_an_up_to_date_file_loses_every_scan_of_every_scope(world, coordinator):
    loc = file(world, coordinator, "/p/a.py", done=kBoth)
    world.queue(coordinator, loc, "f", kPrimary, kInteractivePriority)
    world.queue(coordinator, loc, "g", kDerived)
    check(coordinator)
    assert pending(coordinator) == {}
    forget()


def test_a_file_that_is_gone_leaves_the_queue(world, coordinator):
    loc = file(world, coordinator, "/p/a.py", mtime=0, done=kBoth)
    world.queue(coordinator, loc, "f", kDerived, kInteractivePriority)
    check(coordinator)
    assert pending(coordinator) == {}
    assert coordinator._fMTimeAtLastWholeFileCheck == {loc: 0}
    assert told("GetScansDoneForMultipleFiles", "GetAllImports", "WantDerivedInfo") == [
        ("GetScansDoneForMultipleFiles", {}),
        ("GetAllImports", []),
    ]
    forget()


@pytest.mark.parametrize("zero", [0, 0.0, -0.0, False])
def test_any_zero_is_a_file_that_is_gone(world, coordinator, zero):
    file(world, coordinator, "/p/a.py", mtime=zero)
    check(coordinator)
    assert pending(coordinator) == {}
    forget()


def test_gone_files_leave_after_the_valid_ones(world):
    """The secondary scan of a valid file is queued while the file that is gone is still there."""
    seen = []
    coordinator = world.make(
        watched(AddPairsToSecondaryQueue=lambda c, *_args: seen.append(pending(c)))
    )
    gone = file(world, coordinator, "/p/gone.py", mtime=0)
    valid = file(world, coordinator, "/p/valid.py", done=kPrimary)
    check(coordinator)
    assert seen == [{(gone, "*", kPrimary): kBackgroundPriority}]
    assert pending(coordinator) == {}
    assert valid in coordinator._fMTimeAtLastWholeFileCheck
    forget()


def test_a_modified_buffer_is_asked_about_like_any_other(world, coordinator):
    loc = file(world, coordinator, "/p/a.py", done=kBoth)
    world.cache_mgr.buffers[loc] = Buffer(True)
    check(coordinator)
    assert told("GetScansDoneForMultipleFiles") == [("GetScansDoneForMultipleFiles", {loc: -2})]
    assert coordinator._fMTimeAtLastWholeFileCheck == {loc: -2}
    assert pending(coordinator) == {}
    forget()


def test_modification_times_are_kept_as_they_come(world, coordinator):
    loc = file(world, coordinator, "/p/a.py", mtime=12.5)
    world.info_cache.disk_mtimes[loc] = 12.5
    check(coordinator)
    assert coordinator._fMTimeAtLastWholeFileCheck[loc] == 12.5
    forget()


def test_a_batch_whose_files_all_wait_runs_on_nothing(world, coordinator):
    remote = world.remote("/p/a.py")
    world.queue(coordinator, remote, check=True)
    world.loc_data_cache.not_ready.add(remote)
    world.log_lines(coordinator)
    assert check(coordinator) is False
    calls = [call for call in told() if call[0] not in ("TreeBranchReady", "idle_add")]
    assert calls == [
        logged("Checking whole files: []"),
        ("emit", coordinator, "modtimes-updated", {}),
        ("GetScansDoneForMultipleFiles", {}),
        logged("__CheckWholeFiles scans_done_dict: {}"),
        ("GetAllImports", []),
    ]
    assert coordinator._fScanQueue.GetWaitingCount() == 1


# Imports of files that are up to date.


def imports_of(calls):
    """(directory, names) of each resolution, in order."""
    return [(call[2], call[1]) for call in calls]


def test_two_files_of_a_directory_are_followed_in_one_call(world, coordinator):
    from pysource import symbolinfo

    prefix = symbolinfo.kImportPrefix.decode()
    a = file(world, coordinator, "/p/a.py", done=kBoth)
    b = file(world, coordinator, "/p/b.py", done=kBoth)
    world.info_cache.imports = {a: [prefix + "one"], b: [prefix + "two"]}
    check(coordinator)
    assert imports_of(told("_FindPrimaryLocsForNames")) == [(a.GetParentDir(), {"one", "two"})]
    forget()


def test_directories_and_priorities_are_followed_apart(world, coordinator):
    from pysource import symbolinfo

    prefix = symbolinfo.kImportPrefix.decode()
    a = file(world, coordinator, "/p/a.py", done=kBoth)
    b = file(world, coordinator, "/p/b.py", done=kBoth, priority=kInteractivePriority)
    c = file(world, coordinator, "/q/c.py", done=kBoth)
    world.info_cache.imports = {a: [prefix + "one"], b: [prefix + "two"], c: [prefix + "three"]}
    check(coordinator)
    resolved = imports_of(told("_FindPrimaryLocsForNames"))
    assert len(resolved) == 3
    assert {(loc.fUrl, *names) for loc, names in resolved} == {
        ("file:///p", "one"),
        ("file:///p", "two"),
        ("file:///q", "three"),
    }
    forget()


def test_imports_are_queued_at_the_priority_of_the_batch(world, coordinator):
    from pysource import symbolinfo

    prefix = symbolinfo.kImportPrefix.decode()
    a = file(world, coordinator, "/p/a.py", done=kBoth, priority=kInteractivePriority)
    imported = world.loc("/p/one.py")
    world.factory.found["one"] = imported
    world.info_cache.disk_mtimes[imported] = 3.0
    world.info_cache.imports = {a: [prefix + "one"]}
    check(coordinator)
    assert pending(coordinator) == {(imported, "*", kPrimary): kInteractivePriority}
    forget()


def test_the_second_field_of_an_import_record_is_not_looked_at(world, coordinator):
    class Untouchable:
        def __getattribute__(self, name):
            raise NotImplementedError(name)

    a = file(world, coordinator, "/p/a.py", done=kBoth)
    world.info_cache.GetAllImports = lambda _locs: [(a, Untouchable(), "plain")]
    check(coordinator)
    forget()


def test_an_importing_file_outside_the_batch_has_background_priority(world):
    from pysource import symbolinfo

    prefix = symbolinfo.kImportPrefix.decode()
    coordinator = world.make(watched(AddPairsToPrimaryQueue=None))
    file(world, coordinator, "/p/a.py", done=kBoth, priority=kInteractivePriority)
    stranger = world.loc("/q/x.py")
    world.factory.found["one"] = world.loc("/q/one.py")
    world.info_cache.GetAllImports = lambda _locs: [(stranger, None, prefix + "one")]
    check(coordinator)
    assert told("AddPairsToPrimaryQueue") == [
        ("AddPairsToPrimaryQueue", [(world.loc("/q/one.py"), "*")], False, kBackgroundPriority)
    ]
    forget()


# Batches and time.


def test_a_batch_has_one_file_more_than_the_default(world, coordinator):
    for loc in world.locs(kDefaultWholeFilesToCheckCount + 5):
        world.info_cache.disk_mtimes[loc] = 1.0
        world.queue(coordinator, loc, check=True)
    check(coordinator)
    asked = [len(call[1]) for call in told("GetScansDoneForMultipleFiles")]
    assert asked == [26, 4]
    assert waiting_files(coordinator) == {}
    forget()


def test_the_newest_file_is_checked_first(world, coordinator):
    a, b, c = (file(world, coordinator, f"/p/{name}.py") for name in "abc")
    check(coordinator)
    ((_, modtimes),) = told("GetScansDoneForMultipleFiles")
    assert list(modtimes) == [c, b, a]
    forget()


@pytest.mark.parametrize("end_time", [kStart - 1.0, kStart])
def test_one_batch_is_done_even_out_of_time(world, coordinator, end_time):
    for loc in world.locs(30):
        world.info_cache.disk_mtimes[loc] = 1.0
        world.queue(coordinator, loc, check=True)
    assert check(coordinator, end_time) is True
    assert len(told("GetScansDoneForMultipleFiles")) == 1
    assert len(waiting_files(coordinator)) == 4
    forget()


def test_out_of_time_after_the_last_batch_is_still_true(world, coordinator):
    file(world, coordinator, "/p/a.py")
    assert check(coordinator, kStart) is True
    assert waiting_files(coordinator) == {}
    forget()


def test_time_is_looked_at_after_each_batch(world, coordinator):
    for loc in world.locs(60):
        world.info_cache.disk_mtimes[loc] = 1.0
        world.queue(coordinator, loc, check=True)
    coordinator.connect("modtimes-updated", lambda _times: pass_time(1.0))
    assert check(coordinator, kStart + 2.0) is True
    assert len(waiting_files(coordinator)) == 60 - 52
    forget()


def test_an_overridden_modtime_dict_is_used(world):
    a = world.loc("/p/a.py")
    coordinator = world.make(watched(__GetModtimeDict={a: 4.0}))
    world.queue(coordinator, a, check=True)
    check(coordinator)
    assert told("__GetModtimeDict", "GetScansDoneForMultipleFiles") == [
        ("__GetModtimeDict", [a]),
        ("GetScansDoneForMultipleFiles", {a: 4.0}),
    ]
    forget()


# Failures.


@pytest.mark.parametrize("name", ["GetScansDoneForMultipleFiles", "GetAllImports", "GetDiskMTime"])
def test_a_failure_loses_the_check_but_not_the_scan(world, coordinator, name):
    failure = RuntimeError(name)

    def fail(*_args):
        raise failure

    loc = file(world, coordinator, "/p/a.py")
    setattr(world.info_cache, name, fail)
    with pytest.raises(RuntimeError) as info:
        check(coordinator)
    assert info.value is failure
    assert waiting_files(coordinator) == {}
    assert pending(coordinator) == {(loc, "*", kPrimary): kBackgroundPriority}
    forget()


def test_a_result_that_is_no_mapping_fails(world, coordinator):
    file(world, coordinator, "/p/a.py")
    world.info_cache.GetScansDoneForMultipleFiles = lambda _times: None
    with pytest.raises((TypeError, AttributeError)):
        check(coordinator)
    forget()


@pytest.mark.parametrize("record", [(), (1, 2), 7, None])
def test_an_import_record_that_is_no_triple_fails(world, coordinator, record):
    file(world, coordinator, "/p/a.py", done=kBoth)
    world.info_cache.GetAllImports = lambda _locs: [record]
    with pytest.raises((ValueError, IndexError, TypeError)):
        check(coordinator)
    forget()


def test_files_queued_inside_the_check_are_checked_in_the_same_call(world, coordinator):
    a, b = world.locs(2)
    world.info_cache.disk_mtimes.update({a: 1.0, b: 1.0})
    world.queue(coordinator, a, check=True)
    scans_done = world.info_cache.GetScansDoneForMultipleFiles
    batches = []

    def answer(modtimes):
        batches.append(list(modtimes))
        if len(batches) == 1:
            world.queue(coordinator, b, check=True)
        return scans_done(modtimes)

    world.info_cache.GetScansDoneForMultipleFiles = answer
    assert check(coordinator) is False
    assert batches == [[a], [b]]
    forget()
