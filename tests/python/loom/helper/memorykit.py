"""Streams in memory, and helpers that a test plays itself."""

import msgspec

from loom.helper import messages
from loom.helper.frames import Framer, FrameSplitter
from loom.helper.launch import HelperHandle
from loom.helper.stream import Stream


class MemoryStream(Stream):
    """One end of a pair; what is sent arrives when the other end is pumped."""

    def __init__(self):
        super().__init__()
        self.peer = None
        self.arrived = []
        self.room = None  # bytes that the peer takes before it is pumped; none is any number
        self.paused = True
        self.closed = False
        self.pieces = 0

    def start(self):
        self.paused = False

    def send(self, data):
        if not self.closed and not self.peer.closed:
            self.peer.arrived.append(data)

    def flush(self):
        pass

    @property
    def unsent(self):
        waiting = sum(map(len, self.peer.arrived))
        return 0 if self.room is None else max(0, waiting - self.room)

    def pause(self):
        self.paused = True

    def resume(self):
        self.paused = False

    def close(self):
        self.closed = True

    def pump(self):
        """Hand over what has arrived, and tell the sender that there is room."""
        while self.arrived and not self.paused and not self.closed:
            self.on_bytes(self.arrived.pop(0))
        if not self.arrived:
            self.peer.on_room()


def stream_pair():
    one, other = MemoryStream(), MemoryStream()
    one.peer, other.peer = other, one
    return one, other


class PlayedHelper(HelperHandle):
    """A helper whose part is played by the test.

    `received` are the messages from the first process. `now_scanning` is what its page shows.
    """

    def __init__(self):
        super().__init__()
        self.stream, self.their_end = stream_pair()
        self.their_end.on_bytes = self._take
        self.their_end.start()
        self._splitter = FrameSplitter()
        self._framer = Framer()
        self.received = []
        self.greeted = None
        self.now_scanning = None
        self.ended = False
        self.is_destroyed = False

    @property
    def name(self):
        return "played helper"

    def scanning(self):
        return self.now_scanning

    def end(self):
        if not self.ended:
            self.ended = True
            self.stream.close()
            self.on_gone("it was ended by SIGKILL")

    def _destroy_impl(self):
        self.is_destroyed = True
        self.stream.close()

    def _take(self, data):
        for frame in self._splitter.feed(data):
            if self.greeted is None:
                self.greeted = messages.greeting_decoder().decode(frame)
            else:
                self.received.append(messages.to_helper_decoder().decode(frame))

    # --- the test's part

    def hear(self):
        """Take in what the first process has sent; returns the jobs that it gave."""
        self.their_end.pump()
        jobs = [job for m in self.received if isinstance(m, messages.AddPairs) for job in m.jobs]
        self.received = [m for m in self.received if not isinstance(m, messages.AddPairs)]
        return jobs

    def say(self, *reports):
        self.say_bytes(b"".join(self._framer.frame(report) for report in reports))

    def say_bytes(self, data):
        self.their_end.send(data)
        self.stream.pump()

    def greet(self, greeting=None):
        self.say(messages.greeting() if greeting is None else greeting)

    def die(self, fate="it was ended by SIGSEGV"):
        """The process ends, and with it the stream."""
        self.ended = True
        self.stream.pump()
        on_end = self.stream.on_end
        self.stream.close()
        on_end("end of file")
        self.on_gone(fate)


def raw_frame(value):
    """A frame that holds anything."""
    body = msgspec.msgpack.encode(value)
    return len(body).to_bytes(4, "big") + body
