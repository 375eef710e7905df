"""The dump of the queue as text."""

import pytest
from queue_support import kDerived, kPrimary, local, remote

kTitle = "_CScanQueue contents:\n"


def dump(queue, *args, **kwargs):
    """The texts that `PrintScanQueues` writes."""
    texts = []
    assert queue.PrintScanQueues(texts.append, *args, **kwargs) is None
    return texts


def test_empty_queue(queue):
    assert dump(queue) == [kTitle]


def test_location_of_one_scope_takes_two_lines(queue):
    queue.AddScanPairs([(local("a"), "s"), (local("b"), "t")], kPrimary)
    header = f" Scan queue for {kPrimary}; priority=2 count=2\n"
    assert dump(queue) == [
        kTitle,
        header,
        "  <file:///a.py>\n",
        "    s\n",
        "  <file:///b.py>\n",
        "    t\n",
    ]
    assert dump(queue, 2) == [kTitle, header, "  <file:///a.py>\n", "    s\n", "  ...\n"]


def test_limit_inside_a_location(queue):
    queue.AddScanPairs([(local("a"), n) for n in "pqrs"], kPrimary)
    assert dump(queue, 3) == [
        kTitle,
        f" Scan queue for {kPrimary}; priority=2 count=1\n",
        "  <file:///a.py>\n",
        "    p\n",
        "    q\n",
        "    ...\n",
        "  ...\n",
    ]


def test_limit_equal_to_the_lines_needed(queue):
    """Four scopes and the location are five lines: none is left out, but the walk ended early."""
    queue.AddScanPairs([(local("a"), n) for n in "pqrs"], kPrimary)
    texts = dump(queue, 5)
    assert texts[-2:] == ["    s\n", "  ...\n"]
    assert "    ...\n" not in texts
    assert dump(queue, 6)[-1] == "    s\n"


def test_limit_0_shows_headers_only(queue):
    queue.AddScanPairs([(local("a"), "s")], kPrimary)
    queue.AddScanPairs([(local("a"), "s")], kDerived)
    assert dump(queue, 0) == [
        kTitle,
        f" Scan queue for {kPrimary}; priority=2 count=1\n",
        "  ...\n",
        f" Scan queue for {kDerived}; priority=2 count=1\n",
        "  ...\n",
    ]


def test_limit_1_shows_the_location_without_scopes(queue):
    queue.AddScanPairs([(local("a"), "s")], kPrimary)
    assert dump(queue, limit=1)[2:] == ["  <file:///a.py>\n", "    ...\n", "  ...\n"]


def test_limit_is_a_budget_over_all_queues(queue):
    queue.AddScanPairs([(local("a"), "s")], kPrimary, 1)
    queue.AddScanPairs([(local("b"), "t")], kPrimary, 2)
    assert dump(queue, 3) == [
        kTitle,
        f" Scan queue for {kPrimary}; priority=1 count=1\n",
        "  <file:///a.py>\n",
        "    s\n",
        f" Scan queue for {kPrimary}; priority=2 count=1\n",
        "  <file:///b.py>\n",
        "    ...\n",
        "  ...\n",
    ]


def test_emptied_single_queue_prints_its_header(queue):
    queue.AddScanPairs([(local("a"), "s")], kPrimary)
    queue.ScanCompleted(queue.First())
    assert dump(queue) == [kTitle, f" Scan queue for {kPrimary}; priority=2 count=0\n"]
    assert dump(queue, 0) == [
        kTitle,
        f" Scan queue for {kPrimary}; priority=2 count=0\n",
        "  ...\n",
    ]


def test_default_limit_is_100(queue):
    queue.AddScanPairs([(local(str(i)), "*") for i in range(60)], kPrimary)
    texts = dump(queue)
    assert len(texts) == 2 + 100 + 1
    assert texts[-1] == "  ...\n"


def test_files_that_wait_for_inspection(queue):
    queue.AddScanPairs([(remote("r"), "s")], kPrimary)
    assert dump(queue) == [
        kTitle,
        "Waiting for 1 remote files to be inspected",
        "  File: <ssh://host/r.py>\n",
    ]
    assert dump(queue, 1) == [
        kTitle,
        "Waiting for 1 remote files to be inspected",
        "  File: <ssh://host/r.py>\n",
        "  ...\n",
    ], "also when all are shown"


@pytest.mark.parametrize(("limit", "shown", "more"), [(5, 3, False), (3, 3, True), (2, 2, True)])
def test_waiting_areas_have_budgets_of_their_own(queue, item, limit, shown, more):
    queue.AddScanPairs([(remote(n), "s") for n in "rst"], kPrimary)
    for n in "abc":
        queue.StartWaitingForData(item(local(n), "s"))
    texts = dump(queue, limit)
    files = [t for t in texts if t.startswith("  File: ")]
    scans = [t for t in texts if t.startswith("  Scan: ")]
    assert len(files) == len(scans) == shown
    assert len(set(files)) == len(set(scans)) == shown
    assert texts.count("  ...\n") == 2 * more
    assert "Waiting for 3 remote files to be inspected" in texts
    assert "Waiting for remote on 3 scans\n" in texts


def test_parked_scan_is_printed_as_a_record(queue, item):
    queue.StartWaitingForData(item(local("a"), "s", kPrimary, 2))
    assert dump(queue) == [
        kTitle,
        "Waiting for remote on 1 scans\n",
        "  Scan: CScanItem(loc=<file:///a.py>, scope_name='s', "
        f"scan_name='{kPrimary}', priority=2)\n",
    ]


def test_write_goes_to_standard_output_by_default(queue, capsys):
    queue.AddScanPairs([(local("a"), "s")], kPrimary)
    queue.PrintScanQueues()
    text = capsys.readouterr().out
    assert text == "".join(dump(queue))
    queue.PrintScanQueues(None, 0)
    assert capsys.readouterr().out == "".join(dump(queue, 0))


def test_arguments_by_keyword(queue):
    queue.AddScanPairs([(local("a"), "s")], kPrimary)
    texts = []
    queue.PrintScanQueues(write=texts.append, limit=0)
    assert texts == dump(queue, 0)


def test_texts_that_look_like_formats(queue):
    queue.SetScansToOrder({"%s": 1})
    queue.AddScanPairs([("%d%s{}", "%r{0}")], "%s")
    assert dump(queue) == [
        kTitle,
        " Scan queue for %s; priority=2 count=1\n",
        "  '%d%s{}'\n",
        "    %r{0}\n",
    ]


def test_failing_write_passes_through(queue):
    failure = OSError("disk full")

    def write(text):
        raise failure

    queue.AddScanPairs([(local("a"), "s")], kPrimary)
    with pytest.raises(OSError) as caught:
        queue.PrintScanQueues(write)
    assert caught.value is failure


def test_failing_repr_passes_through(queue):
    failure = RuntimeError("no text")

    class Loc:
        def __repr__(self):
            raise failure

    queue.AddScanPairs([(Loc(), "s")], kPrimary)
    with pytest.raises(RuntimeError) as caught:
        dump(queue)
    assert caught.value is failure


def test_write_that_changes_the_queue(queue):
    """What is printed then is nobody's promise; that it ends and that nothing breaks is."""
    queue.AddScanPairs([(local(str(i)), "s") for i in range(10)], kPrimary)
    texts = []

    def write(text):
        texts.append(text)
        if "2.py" in text:
            queue.Clear()
            queue.AddScanPairs([(local("new"), "s")], kPrimary)

    queue.PrintScanQueues(write)
    assert texts[0] == kTitle
    assert queue.GetAllLocations() == {local("new")}
