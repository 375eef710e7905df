"""What the commands write, and how: text for people, one JSON document for programs, messages.

Results go to standard output, everything else to standard error. Paths go out byte for byte as the
file system has them, except on a terminal, where a character that isn't printable is escaped.
"""

from __future__ import annotations

import json
import logging
import os
import sys
from enum import IntEnum
from typing import Any, TextIO

import click

__all__ = [
    "Exit",
    "OutputError",
    "escape",
    "finish_output",
    "give_up_output",
    "is_store_error",
    "may_style",
    "set_up_logging",
    "set_up_streams",
    "styled",
    "warn",
    "write",
    "write_json",
]


class Exit(IntEnum):
    """Exit codes of all commands."""

    OK = 0
    FINDINGS = 1  # files with errors; nothing found
    UNUSABLE = 2  # wrong usage, or a database that can't be used
    FAULT = 70  # a fault of the program itself
    HUNG_UP = 129  # 128 + SIGHUP: the terminal was closed
    INTERRUPTED = 130  # 128 + SIGINT
    BROKEN_PIPE = 141  # 128 + SIGPIPE: the reader of the output has gone
    TERMINATED = 143  # 128 + SIGTERM


def set_up_streams() -> None:
    """Let any file name through to the standard streams."""
    for stream in (sys.stdout, sys.stderr):
        reconfigure = getattr(stream, "reconfigure", None)
        if reconfigure is not None:
            reconfigure(errors="surrogateescape")


def may_style(stream: TextIO) -> bool:
    """Whether colours are welcome: on a terminal that has them, unless NO_COLOR is set."""
    return (
        stream.isatty()
        and not os.environ.get("NO_COLOR")
        and os.environ.get("TERM", "dumb") != "dumb"
    )


def styled(text: str, fg: str | None = None, bold: bool | None = None) -> str:
    """`text` for standard output, in a style if colours are welcome there."""
    return click.style(text, fg=fg, bold=bold) if may_style(sys.stdout) else text


def escape(text: str, stream: TextIO | None = None) -> str:
    """`text` as it can be shown: a file name can't drive the terminal."""
    if not (sys.stdout if stream is None else stream).isatty() or text.isprintable():
        return text
    return "".join(
        char if char.isprintable() else char.encode("unicode_escape").decode() for char in text
    )


class OutputError(Exception):
    """Standard output can't be written; the cause tells why.

    Click has an answer of its own to an `OSError`, so it never gets to see one of these.
    """


def write(line: str = "") -> None:
    """One line of the result. Raises `OutputError`."""
    try:
        print(line)
    except OSError as error:
        raise OutputError from error


def write_json(document: object) -> None:
    """The result as one JSON document. Raises `OutputError`."""
    write(json.dumps(document, indent=2))


def finish_output() -> None:
    """Write out what is buffered. Raises `OutputError`."""
    try:
        sys.stdout.flush()
    except OSError as error:
        raise OutputError from error


def give_up_output(*streams: TextIO) -> None:
    """Send what is still buffered, by default for standard output, nowhere, so that the end of the
    process doesn't try again.
    """
    nowhere = os.open(os.devnull, os.O_WRONLY)
    for stream in streams or (sys.stdout,):
        os.dup2(nowhere, stream.fileno())
    os.close(nowhere)


def warn(message: str) -> None:
    """One line to the user about what went on."""
    print(f"loom: {message}", file=sys.stderr)


class _Handler(logging.Handler):
    """Writes to what is standard error at that moment; a progress display replaces it."""

    def emit(self, record: logging.LogRecord) -> None:
        try:
            print(self.format(record), file=sys.stderr)
        except Exception:
            self.handleError(record)


class _Formatter(logging.Formatter):
    def formatException(self, ei: Any) -> str:
        # Where in the program the database turned out to be of no use is nothing to the user.
        return "" if is_store_error(ei[1]) else super().formatException(ei)


def is_store_error(error: BaseException | None) -> bool:
    """Whether the database is to blame. Where none was needed, its module isn't loaded."""
    errors = sys.modules.get("loom.store.errors")
    return errors is not None and isinstance(error, errors.StoreError)


def set_up_logging(verbose: int) -> None:
    """Show warnings and worse of everything; with `verbose` 1 what goes on, with 2 all of it."""
    handler = _Handler()
    handler.setFormatter(_Formatter("loom: %(levelname)s: %(message)s"))
    levels = {0: logging.WARNING, 1: logging.INFO}
    logging.basicConfig(
        level=levels.get(verbose, logging.DEBUG), handlers=[handler], force=True
    )
