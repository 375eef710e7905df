"""A server under any sequence of events: each request is answered exactly once."""

from fakeremote import SERVER, FakeNetwork, state_of
from guiutils import lgtk
from hypothesis import settings
from hypothesis import strategies as st
from hypothesis.stateful import RuleBasedStateMachine, invariant, precondition, rule
from loombase.inspection import CFileKind, CFileState

from loom.mainloop.stepped import SteppedMainLoop
from loom.remote.options import RemotePatience
from loom.remote.requests import FileContent, ReadFile, RemoteError, StatFile
from loom.remote.server import RemoteServer, ServerPhase

PATIENCE = RemotePatience(
    connect=4, answer=4, first_retry=1, last_retry=4, give_up=15, tries=2, requests=3, reads=2,
    held_bytes=30,
)


class Machine(RuleBasedStateMachine):
    def __init__(self):
        super().__init__()
        self.main_loop = SteppedMainLoop()
        lgtk.SetMainLoop(self.main_loop)
        self.network = FakeNetwork()
        self.server = RemoteServer(SERVER, self.network.make, PATIENCE)
        self.asked = []
        self.outcomes = {}
        self.cancelled = set()
        self.held = []
        self.inside = False

    def teardown(self):
        self.drain()
        self.server.destroy()
        lgtk.SetMainLoop(None)

    def done(self, number):
        def done(outcome):
            assert not self.inside, "answered inside of a call"
            assert number not in self.outcomes and number not in self.cancelled
            self.outcomes[number] = outcome
            if isinstance(outcome, FileContent):
                self.held.append(outcome)

        return done

    # --- what users do

    @rule(size=st.none() | st.integers(0, 40))
    def ask(self, size):
        number = len(self.asked)
        if size is None:
            request = StatFile(b"/%d" % number, self.done(number))
        else:
            request = ReadFile(b"/%d" % number, self.done(number), limit=99, expected=size)
        self.asked.append(request)
        self.inside = True
        self.server.ask(request)
        self.inside = False

    @precondition(lambda self: self.asked)
    @rule(data=st.data())
    def cancel(self, data):
        number = data.draw(st.integers(0, len(self.asked) - 1))
        self.inside = True
        self.server.cancel(self.asked[number])
        self.inside = False
        if number not in self.outcomes:
            self.cancelled.add(number)

    @precondition(lambda self: self.held)
    @rule()
    def release(self):
        self.server.release(self.held.pop())

    # --- what happens

    def live(self):
        return [each for each in self.network.made if not each.closed]

    @precondition(lambda self: self.server.phase is ServerPhase.CONNECTING)
    @rule()
    def connect(self):
        self.network.last.connect()

    @precondition(lambda self: any(each.under_way for each in self.live()))
    @rule(data=st.data(), fails=st.booleans())
    def answer(self, data, fails):
        transport = self.network.last
        index = data.draw(st.integers(0, len(transport.under_way) - 1))
        request = transport.under_way[index]
        if fails:
            outcome = RemoteError("no")
        elif isinstance(request, ReadFile):
            outcome = FileContent(state_of(b""), b"x" * request.expected, True)
        else:
            outcome = CFileState(CFileKind.ABSENT)
        transport.answer(outcome, index)

    @precondition(lambda self: self.live())
    @rule(how=st.sampled_from([{}, {}, {}, {"lasting": True}, {"refused": True}]))
    def lose(self, how):
        self.network.last.lose("cut", **how)

    @rule(seconds=st.sampled_from([0.5, 1, 3, 10]))
    def advance(self, seconds):
        self.main_loop.advance(seconds)

    @rule()
    def idle(self):
        self.main_loop.run_idle()

    # --- what holds

    @invariant()
    def at_most_one_connection(self):
        assert len(self.live()) <= 1
        phase = self.server.phase
        assert bool(self.live()) == (phase in (ServerPhase.CONNECTING, ServerPhase.CONNECTED))

    @invariant()
    def limits_are_kept(self):
        under_way = [request for each in self.live() for request in each.under_way]
        reads = [request for request in under_way if isinstance(request, ReadFile)]
        assert len(under_way) <= 3 and len(reads) <= 2
        held = sum(len(content.data) for content in self.held)
        assert self.server._held_bytes == held
        assert self.server._reserved_bytes == sum(request.expected for request in reads)
        if len(reads) > 1:
            assert held + self.server._reserved_bytes <= 30  # one alone always may

    @invariant()
    def nothing_is_lost(self):
        left = len(self.asked) - len(self.outcomes) - len(self.cancelled)
        assert self.server.unanswered == left
        if left and self.server.phase is ServerPhase.IDLE:
            assert self.server._failed  # what isn't told yet; all else has somebody at it

    def drain(self):
        """Whatever has happened, all ends when the server answers."""
        for _ in range(1000):
            if not self.server.unanswered:
                break
            if self.server.phase is ServerPhase.CONNECTING:
                self.network.last.connect()
            if self.live() and self.network.last.under_way:
                request = self.network.last.under_way[0]
                if isinstance(request, ReadFile):
                    self.network.last.answer(FileContent(state_of(b""), b"", True))
                else:
                    self.network.last.answer(CFileState(CFileKind.ABSENT))
            else:
                self.main_loop.advance(1)
            self.main_loop.run_idle()
        assert not self.server.unanswered
        assert len(self.outcomes) + len(self.cancelled) == len(self.asked)
        self.main_loop.advance(100)
        assert self.main_loop.timers.next_due() is None  # at rest, nothing wakes up


TestMachine = Machine.TestCase
TestMachine.settings = settings(max_examples=60, stateful_step_count=40, deadline=None)
