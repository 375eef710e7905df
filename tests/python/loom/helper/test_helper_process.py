"""The helper's side, in this process and in virtual time; the test plays the first process."""

import os

import pytest
from memorykit import raw_frame, stream_pair
from pysource import scopescanner

from loom.helper import messages, process
from loom.helper.frames import Framer, FrameSplitter
from loom.helper.process import Helper
from loom.store.records import FileState


class FirstProcess:
    """Talks to a helper. `said` are the reports that came, `codes` what it ended with."""

    def __init__(self, main_loop, page=None):
        self.main_loop = main_loop
        self.stream, their_end = stream_pair()
        self.stream.on_bytes = self._take
        self.stream.start()
        self._splitter = FrameSplitter()
        self._framer = Framer()
        self.greeted = None
        self.said = []
        self.codes = []
        self.helper = Helper(their_end, page, self.codes.append)
        self.their_end = their_end
        self.helper.start()
        self.last_number = 0

    def _take(self, data):
        for frame in self._splitter.feed(data):
            if self.greeted is None:
                self.greeted = messages.greeting_decoder().decode(frame)
            else:
                self.said.append(messages.report_decoder().decode(frame))

    def send(self, *sent):
        for message in sent:
            self.stream.send(self._framer.frame(message))
        self.their_end.pump()

    def send_bytes(self, data):
        self.stream.send(data)
        self.their_end.pump()

    def job(self, path, known=None, is_python=False):
        self.last_number += 1
        return messages.Job(self.last_number, os.fsencode(path), is_python, known)

    def run(self):
        """Let the helper work, and hear what it says."""
        self.main_loop.run_idle()
        self.stream.pump()
        said, self.said = self.said, []
        return said


class Page:
    """A status page that remembers all that was on it."""

    def __init__(self):
        self.seen = []

    def starts(self, number, now):
        self.seen.append(number)

    def rests(self, now):
        self.seen.append(0)


@pytest.fixture
def make(main_loop):
    made = []

    def make(**options):
        made.append(FirstProcess(main_loop, **options))
        return made[-1]

    yield make
    for each in made:
        each.helper.destroy()


@pytest.fixture
def files(tree):
    top = tree({f"f{i}.py": f"import os\ndef f{i}(): pass\n" for i in range(5)})
    paths = [top / f"f{i}.py" for i in range(5)]
    for path in paths:
        os.utime(path, (1_700_000_000, 1_700_000_000))
    return paths


def results(said):
    return [each for each in said if isinstance(each, messages.Result)]


def test_a_greeting_comes_at_once_and_work_after_theirs(make, files):
    first = make()
    first.run()
    assert first.greeted == messages.greeting()
    job = first.job(files[0])
    first.send(messages.greeting(), messages.AddPairs([job], False))
    said = first.run()
    assert said[0] == messages.Added([job.number])
    (result,) = results(said)
    assert result.number == job.number
    assert [scope[0] for scope in result.record.scopes] == ["", "f0"]
    assert result.record.imports == b":ios"
    assert not any(isinstance(each, messages.Left) for each in said)


def test_first_ones_overtake(make, files):
    first = make(page=Page())
    jobs = [first.job(path) for path in files]
    first.send(
        messages.greeting(),
        messages.AddPairs(jobs[:4], False),
        messages.AddPairs(jobs[4:], True),
    )
    assert [r.number for r in results(first.run())] == [5, 1, 2, 3, 4]


def test_a_page_tells_what_is_scanned_and_messages_do_where_there_is_none(make, files):
    page = Page()
    first = make(page=page)
    first.send(messages.greeting(), messages.AddPairs([first.job(files[0])], False))
    said = first.run()
    assert page.seen == [1, 0]
    assert messages.Starting(1) not in said
    first.helper.destroy()
    first = make()
    first.send(messages.greeting(), messages.AddPairs([first.job(files[0])], False))
    said = first.run()
    assert said.index(messages.Starting(1)) < said.index(results(said)[0])


def known_of(record):
    return FileState(
        record.mtime_ns, record.size, record.settled, record.digest, record.scanner, record.scans
    )


def test_what_is_known_and_holds_is_not_scanned(make, files):
    first = make()
    first.send(messages.greeting(), messages.AddPairs([first.job(files[0])], False))
    (result,) = results(first.run())
    known = known_of(result.record)
    job = first.job(files[0], known)
    first.send(messages.AddPairs([job], False))
    assert first.run() == [messages.Added([job.number]), messages.Left([job.number], [], [])]


def test_the_same_bytes_at_another_time_are_only_read(make, files):
    first = make()
    first.send(messages.greeting(), messages.AddPairs([first.job(files[0])], False))
    (result,) = results(first.run())
    os.utime(files[0], (1_700_000_009, 1_700_000_009))
    job = first.job(files[0], known_of(result.record))
    first.send(messages.AddPairs([job], False))
    (reread,) = [each for each in first.run() if isinstance(each, messages.Reread)]
    assert (reread.number, reread.digest) == (job.number, result.record.digest)
    assert reread.times.mtime_ns == 1_700_000_009 * 10**9


def test_what_is_gone_or_no_python_leaves(make, files, tmp_path):
    (tmp_path / "text").write_text("no python\n")
    (tmp_path / "script").write_text("x = 1\n")
    first = make()
    gone = first.job(tmp_path / "nowhere.py")
    text = first.job(tmp_path / "text")
    script = first.job(tmp_path / "script", is_python=True)
    first.send(messages.greeting(), messages.AddPairs([gone, text, script], False))
    said = first.run()
    left = [each for each in said if isinstance(each, messages.Left)]
    assert {n for each in left for n in each.gone} == {gone.number}
    assert {n for each in left for n in each.other} == {text.number}
    assert [r.number for r in results(said)] == [script.number]


def test_a_file_can_be_asked_for_again_at_once(make, files):
    first = make()
    first.send(messages.greeting())
    for _ in range(3):  # the scheduler by itself would wait for some seconds
        first.send(messages.AddPairs([first.job(files[0])], False))
        assert len(results(first.run())) == 1


def test_a_flush_forgets_all_work(make, files):
    first = make()
    first.send(
        messages.greeting(),
        messages.AddPairs([first.job(path) for path in files], False),
        messages.Flush(),
    )
    assert results(first.run()) == []
    first.send(messages.AddPairs([first.job(files[0])], False))
    assert len(results(first.run())) == 1


def test_scanning_stops_while_nobody_listens(make, files, monkeypatch):
    monkeypatch.setattr(process, "kMostUnsentBytes", 0)
    first = make()
    first.send(messages.greeting(), messages.AddPairs([first.job(files[0])], False))
    first.their_end.room = 0
    assert len(results(first.run())) == 1  # heard, and so there is room again
    first.send(messages.AddPairs([first.job(files[1])], False))
    first.main_loop.run_idle()  # scanned, but not heard
    first.send(messages.AddPairs([first.job(files[2])], False))
    first.main_loop.run_idle()
    assert first.helper._suspended
    first.stream.pump()
    assert [r.number for r in results(first.said)] == [2]
    assert [r.number for r in results(first.run())] == [2, 3]


def test_the_end_of_the_stream_is_the_end(make, files):
    first = make()
    first.send(messages.greeting(), messages.AddPairs([first.job(path) for path in files], False))
    first.their_end.on_end("end of file")
    assert first.codes == [0]
    assert results(first.run()) == []  # no further slice


@pytest.mark.parametrize("data", [raw_frame("hello"), b"GET / HTTP/1.1\r\n\r\n"])
def test_garbage_is_the_end(make, data):
    first = make()
    first.send_bytes(data)
    assert first.codes == [process.kRefused]


def test_garbage_after_the_greeting_is_the_end(make):
    first = make()
    first.send(messages.greeting())
    first.send_bytes(raw_frame(["add", 1, 2]))
    assert first.codes == [process.kRefused]


def test_a_result_that_cannot_be_sent_is_a_failure_of_its_file(make, files, monkeypatch):
    first = make()
    first.send(messages.greeting())
    monkeypatch.setattr("loom.helper.frames.kMaxFrameBytes", 300)
    files[0].write_text("".join(f"name_{i} = {i}\n" for i in range(100)))
    first.send(messages.AddPairs([first.job(files[0])], False))
    monkeypatch.setattr("loom.helper.frames.kMaxFrameBytes", 400)
    (result,) = results(first.run())
    assert "can't be passed on" in result.record.error
    assert result.record.scopes == []


def test_a_scan_that_fails_beyond_its_scanner_is_a_crash_with_a_name(make, files, monkeypatch):
    class Broken:
        def __init__(self, *args, **options):
            pass

        def Scan(self, end_time):
            raise RuntimeError("beyond repair")

    page = Page()
    first = make(page=page)
    monkeypatch.setattr(scopescanner, "CWholeFilePrimaryScanner", Broken)
    first.send(messages.greeting(), messages.AddPairs([first.job(files[0])], False))
    first.run()
    assert first.codes == [process.kFault]
    assert page.seen[-1] == 1  # it is what was being scanned at the end
