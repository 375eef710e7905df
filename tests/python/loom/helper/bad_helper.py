"""A helper with a scanner that misbehaves: the first argument is a folder, the rest is a helper's.

In the folder, "scanned" gets a line for each scan that starts. What a scan does depends on the
name of its file: "segv...", "hang...", "eat...", "kill..." and "half..." do what they say, each
time, or with "_once" in the name only the first time; a file of that name in the folder tells.
"""

import os
import signal
import sys
from pathlib import Path

from loom.helper import limits, process
from loom.helper.stream import FdStream
from pysource import scopescanner
from pysource.scopescanner import wholefile

_kMemoryBytes = 300 * 1024 * 1024


def misbehave(what):
    if what == "segv":
        import ctypes

        ctypes.string_at(0)
    elif what == "kill":
        os.kill(os.getpid(), signal.SIGKILL)
    elif what == "hang":
        while True:
            signal.pause()
    elif what == "eat":
        eaten = []
        while True:
            eaten.append(bytearray(1024 * 1024))
    elif what == "half":
        streams[0].send(b"\x00\x00\x10\x00 and no more")
        streams[0].flush()
        os.kill(os.getpid(), signal.SIGKILL)


streams = []


def main():
    folder = Path(sys.argv[1])
    limits.kMemoryBytes = _kMemoryBytes

    class Scanner(wholefile.CWholeFilePrimaryScanner):
        def _Parse(self, text):
            name = Path(self.fLocation.path).stem
            with open(folder / "scanned", "a") as file:
                file.write(f"{name}\n")
            if "_once" not in name or not (folder / name).exists():
                (folder / name).touch()
                misbehave(name.partition("_")[0])
            return (yield from super()._Parse(text))

    class Stream(FdStream):
        def __init__(self, *args):
            super().__init__(*args)
            streams.append(self)

    scopescanner.CWholeFilePrimaryScanner = Scanner
    process.FdStream = Stream
    return process.main(sys.argv[2:])


if __name__ == "__main__":
    sys.exit(main())
