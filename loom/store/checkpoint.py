"""Moving the write-ahead log into the database file, on a thread of its own.

It waits for the disk, which can take longer than a slice, so it is the one piece of work that
doesn't happen on the main thread. It has its own connection and shares nothing with the writer but
the file; SQLite keeps the two apart.
"""

import logging
import sqlite3
import threading
from pathlib import Path
from typing import Final

from loom.store.errors import is_lock

__all__ = ["Checkpointer"]

_log = logging.getLogger("loom.store")

# Length of the log, in bytes, from which on it is worth moving.
kWorthwhileBytes: Final = 16 * 1024 * 1024


class Checkpointer:
    """Starts a thread when the log has grown long. At most one runs at a time."""

    def __init__(self, path: Path) -> None:
        self._path = path
        self._log_path = path.with_name(path.name + "-wal")
        self._thread: threading.Thread | None = None
        self._length_before = 0
        self.runs = 0

    def start_if_worthwhile(self) -> None:
        """Called after a transaction; returns at once."""
        if self._thread is not None:
            if self._thread.is_alive():
                return
            self._thread = None
        try:
            length = self._log_path.stat().st_size
        except FileNotFoundError:
            return
        # The log isn't cut when it has been moved: SQLite begins again at its start. So it is the
        # growth since the last time that counts, or its length if others write too.
        if length < kWorthwhileBytes or length == self._length_before:
            return
        self._length_before = length
        self.runs += 1
        self._thread = threading.Thread(target=self._run, name="loom-checkpoint", daemon=True)
        self._thread.start()

    def join(self) -> None:
        """Wait for a thread that is under way."""
        if self._thread is not None:
            self._thread.join()
            self._thread = None

    def _run(self) -> None:
        try:
            connection = sqlite3.connect(self._path, timeout=0.0, isolation_level=None)
            try:
                connection.execute("PRAGMA wal_checkpoint(PASSIVE)")
            finally:
                connection.close()
        except sqlite3.Error as error:
            # Nothing is lost: the log stays, and closing the database moves it.
            if not is_lock(error):
                _log.warning("write-ahead log of %s couldn't be moved: %s", self._path, error)
