"""The scheduler on a GLib main loop, with a scanner of the program's own. Needs PyGObject.

    python -O examples/glib_host.py FOLDER

Tells how much of each file is comment: the scanner counts lines, the host is `loom` on the main context
that a GTK program runs anyway. A timeout of the program beats all the while.
"""

import sys
import tempfile
from pathlib import Path

from gi.repository import GLib

from loom.bootstrap import ensure_host_path

ensure_host_path()  # from here on the host's modules can be imported

from loombase.location import CLocalFileLocation
from pysource import scopescanner
from pysource.scancoordinator import kBackgroundPriority

from loom.app import App
from loom.mainloop.glib_loop import GLibMainLoop

kLinesPerStep = 2000

comments: dict[str, tuple[int, int]] = {}  # comment lines and lines, by path


class CommentScanner(scopescanner.CScanner):
    """Counts lines in steps; the base class stops it when its time is over, and goes on later."""

    def __init__(self, loc, scan_name, incomplete_scope_set, log):
        super().__init__(loc, log)

    def _ScanInSteps(self):
        found = count = 0
        try:
            with open(self.fLocation.path, "rb") as file:
                for count, line in enumerate(file, 1):
                    found += line.lstrip().startswith(b"#")
                    if count % kLinesPerStep == 0:
                        yield
        except OSError:
            return scopescanner.kScanAbandoned
        comments[self.fLocation.path] = found, count
        return scopescanner.kFinishedScanning


def main(folder: str) -> None:
    loop = GLib.MainLoop()
    beats = 0

    def beat() -> bool:
        nonlocal beats
        beats += 1
        return True

    scopescanner.CWholeFilePrimaryScanner = CommentScanner
    main_loop = GLibMainLoop()
    with tempfile.TemporaryDirectory() as scratch:
        app = App(Path(scratch) / "info.sqlite3", main_loop)
        app.coordinator._fAnalyzeFoundImports = False  # these files, and no others
        app.coordinator.connect("end", loop.quit)
        GLib.timeout_add(5, beat)
        files = sorted(Path(folder).resolve().rglob("*.py"))
        pairs = [(CLocalFileLocation(path), "*") for path in files]
        app.coordinator.AddPairsToPrimaryQueue(pairs, False, kBackgroundPriority)
        loop.run()
        app.destroy()
    main_loop.close()

    for path in map(str, files):
        found, count = comments[path]
        print(f"{path}: {found} of {count} lines")
    print(f"{len(files)} files, and {beats} beats of the program meanwhile")


if __name__ == "__main__":
    main(sys.argv[1])
