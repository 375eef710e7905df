"""An editor that stays responsive while a project is scanned. Needs PySide6.

    python -O examples/qt_editor.py FOLDER [--keys COUNT]

The stand-alone host `loom` runs here on the event loop of Qt: its database, its scanners, its files.
The window tells the scheduler which file is being looked at, shows what is scanned, and lists what
the file defines as soon as that is known. With `--keys` somebody types that many keys, and the program
ends by itself and tells how late they were.
"""

import argparse
import sys
import tempfile
import time
from pathlib import Path

from PySide6.QtCore import Qt, QTimer
from PySide6.QtTest import QTest
from PySide6.QtWidgets import QApplication, QListWidget, QMainWindow, QPlainTextEdit, QSplitter

from loom.bootstrap import ensure_host_path

ensure_host_path()  # from here on the host's modules can be imported

from edit.editor import CSourceEditor
from loombase.location import CLocalFileLocation
from pysource import scopescanner
from singleton import GetSingletons

from loom.app import App
from loom.mainloop.qt_loop import QtMainLoop
from loom.scansession import ScanSession


class Window(QMainWindow):
    """One file in an editor, with its outline beside it and the state of the scan below."""

    def __init__(self, app: App, path: Path) -> None:
        super().__init__()
        self.app = app
        self.loc = CLocalFileLocation(path)
        self.text = QPlainTextEdit(path.read_text(errors="replace"))
        self.outline = QListWidget()
        splitter = QSplitter()
        splitter.addWidget(self.text)
        splitter.addWidget(self.outline)
        self.setCentralWidget(splitter)
        self.setWindowTitle(str(path))
        app.info_cache.connect("file-stored", self.show_outline)
        app.coordinator.connect("scan-status-update", self.show_status)
        # What is looked at comes before the rest of the project.
        buffer = GetSingletons().fCacheMgr.OpenBuffer(
            self.loc, self.text.toPlainText(), path.stat().st_mtime
        )
        gui = GetSingletons().fGuiMgr
        gui.SetActiveDocument(CSourceEditor(buffer))

    def show_outline(self, info_cache, loc, record) -> None:
        if loc is self.loc:
            self.outline.clear()
            scopes = info_cache.GetScopeLines(loc)
            self.outline.addItems([f"{first}: {name}" for name, first, _ in scopes if name])

    def show_status(self, coordinator, status) -> None:
        queued = sum(queue.file_count for queue in status.queue_status_list)
        self.statusBar().showMessage(f"{queued} files to scan")

    def show_current(self, loc) -> None:
        self.statusBar().showMessage(f"scanning {loc.path}")


def tell_what_is_scanned(window: Window) -> None:
    """Put a scanner of our own in place of the host's: it is taken from the next file on."""

    class TellingScanner(scopescanner.CWholeFilePrimaryScanner):
        def Scan(self, end_time):
            window.show_current(self.fLocation)
            return super().Scan(end_time)

    scopescanner.CWholeFilePrimaryScanner = TellingScanner


class Typist:
    """Presses a key every 20 milliseconds, and notes how late the editor gets to see it."""

    def __init__(self, window: Window, count: int) -> None:
        self.window = window
        self.left = count
        self.delays: list[float] = []
        self.timer = QTimer(window, interval=20, timerType=Qt.TimerType.PreciseTimer)
        self.timer.timeout.connect(self.press)
        self.due = time.monotonic() + 0.020
        self.timer.start()

    def press(self) -> None:
        QTest.keyClick(self.window.text, Qt.Key.Key_A)
        self.delays.append(max(0.0, time.monotonic() - self.due))
        self.due = time.monotonic() + 0.020
        self.left -= 1
        if not self.left:
            self.timer.stop()


def main() -> int:
    parser = argparse.ArgumentParser()
    parser.add_argument("folder", type=Path)
    parser.add_argument("--keys", type=int, default=0)
    arguments = parser.parse_args()
    qt = QApplication([])
    main_loop = QtMainLoop()
    with tempfile.TemporaryDirectory() as scratch:
        app = App(Path(scratch) / "info.sqlite3", main_loop)
        first = min(arguments.folder.resolve().rglob("*.py"))
        window = Window(app, first)
        tell_what_is_scanned(window)
        window.show()
        session = ScanSession(app, [str(arguments.folder)])
        ended = []
        session.connect("finished", ended.append)
        session.connect("finished", lambda _session: window.statusBar().showMessage("all scanned"))
        session.start()
        if arguments.keys:
            typist = Typist(window, arguments.keys)
            ending = QTimer(window, interval=10)
            ending.timeout.connect(
                lambda: qt.quit() if ended and not typist.left else None
            )
            ending.start()
        qt.exec()
        counts = session.counts
        typed = window.text.toPlainText().count("a") if arguments.keys else 0
        outline = window.outline.count()
        window.close()
        session.destroy()
        app.destroy()
        main_loop.close()
    print(f"{counts.scanned} files scanned, {outline} scopes in the outline of {first.name}")
    if arguments.keys:
        late = sorted(typist.delays)
        print(f"{len(late)} keys, the latest {late[-1] * 1000:.0f} ms late, {typed} in the text")
    return 0


if __name__ == "__main__":
    sys.exit(main())
