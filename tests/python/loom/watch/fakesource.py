"""Events from a list."""

import os

from loom.watch.events import NoMoreWatchesError


class FakeSource:
    """Hears only what a test puts into `pending`. Notes which folders it was told of.

    `limit` folders can be followed; `on_watch` is called with each one.
    """

    def __init__(self, limit=None):
        self.watched = set()
        self.pending = []
        self.limit = limit
        self.on_watch = None
        self.closed = False

    def watch(self, folder):
        if self.limit is not None and len(self.watched) >= self.limit:
            raise NoMoreWatchesError("there are no more")
        os.listdir(folder)  # one that isn't there can't be followed
        self.watched.add(folder)
        if self.on_watch is not None:
            self.on_watch(folder)

    def unwatch(self, folder):
        self.watched.discard(folder)

    def fileno(self):
        return -1

    def read(self):
        pending, self.pending = self.pending, []
        yield from pending

    def close(self):
        self.closed = True
