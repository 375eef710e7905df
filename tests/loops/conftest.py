"""The main loops that the contract is tested on.

`LOOM_TEST_LOOPS` names them, separated by blanks; without it those that need nothing installed.
"""

import asyncio
import os
import time

import pytest

from loom.bootstrap import ensure_host_path

ensure_host_path()

kLoops = os.environ.get("LOOM_TEST_LOOPS", "asyncio poll").split()

# Only a loop that never comes to an end gets here.
_kMostSeconds = 60.0


class Driver:
    """A main loop, and the ways to run it that its own kind has."""

    def __init__(self):
        self.main_loop = self.make()
        self.closed = False

    def run(self):
        """Run until `stop` is called."""
        raise NotImplementedError

    def run_until(self, condition):
        """Run until `condition()` holds; it is looked at after each callback of the timer."""
        deadline = time.monotonic() + _kMostSeconds

        def look():
            if condition() or time.monotonic() > deadline:
                self.stop()
                return False
            return True

        self.main_loop.timeout_add(1, look)
        self.run()
        assert condition(), "the loop never got there"

    def run_idle(self):
        """Run until no idle callback is left but one that comes last."""
        self.main_loop.idle_add(self.stop, priority=10_000)
        self.run()

    def close(self):
        if not self.closed:
            self.closed = True
            self.main_loop.close()


class AsyncioDriver(Driver):
    def make(self):
        from loom.mainloop.asyncio_loop import AsyncioMainLoop

        return AsyncioMainLoop()

    def run(self):
        self.main_loop.loop.run_forever()

    def stop(self):
        self.main_loop.loop.stop()

    def soon(self, callback):
        self.main_loop.loop.call_soon(callback)

    nests = False  # asyncio refuses to run inside of itself


class PollDriver(Driver):
    def make(self):
        from loom.mainloop.poll_loop import PollMainLoop

        return PollMainLoop()

    def run(self):
        self.main_loop.run()

    def stop(self):
        self.main_loop.stop()

    def soon(self, callback):
        reader, writer = os.pipe()

        def ready():
            self.main_loop.remove_reader(reader)
            os.close(reader)
            callback()

        self.main_loop.add_reader(reader, ready)
        os.close(writer)

    nests = False


class GLibDriver(Driver):
    nests = True

    def make(self):
        from gi.repository import GLib

        from loom.mainloop.glib_loop import GLibMainLoop

        self.glib = GLib
        self.running = []
        return GLibMainLoop()

    def run(self):
        loop = self.glib.MainLoop()
        self.running.append(loop)
        loop.run()

    def stop(self):
        self.running.pop().quit()

    def soon(self, callback):
        self.glib.timeout_add(0, lambda: callback() and False)


class QtDriver(Driver):
    nests = True

    def make(self):
        os.environ.setdefault("QT_QPA_PLATFORM", "offscreen")
        from PySide6 import QtCore

        from loom.mainloop.qt_loop import QtMainLoop

        self.core = QtCore
        self.app = QtCore.QCoreApplication.instance() or QtCore.QCoreApplication([])
        self.running = []
        return QtMainLoop()

    def run(self):
        loop = self.core.QEventLoop()
        self.running.append(loop)
        loop.exec()

    def stop(self):
        self.running.pop().quit()

    def soon(self, callback):
        self.core.QTimer.singleShot(0, callback)


kDrivers = {"asyncio": AsyncioDriver, "poll": PollDriver, "glib": GLibDriver, "qt": QtDriver}


@pytest.fixture(params=kLoops)
def driver(request):
    """A main loop of each kind, closed afterwards."""
    driver = kDrivers[request.param]()
    yield driver
    driver.close()
    asyncio.set_event_loop(None)
