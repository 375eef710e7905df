"""Single keys from the terminal, while a command runs."""

from __future__ import annotations

import asyncio
import contextlib
import os
import signal
import sys
import termios
import tty
from collections.abc import Callable, Iterator
from typing import Any

__all__ = ["keys"]


@contextlib.contextmanager
def keys(loop: asyncio.AbstractEventLoop, pressed: Callable[[str], object]) -> Iterator[bool]:
    """Call `pressed` with each key, within the block. Yields whether there is a keyboard.

    There is none without a terminal, nor in the background, where touching its settings would
    stop the process. Keys that make signals go on to make them.
    """
    try:
        descriptor = sys.stdin.fileno()
        before: list[Any] = termios.tcgetattr(descriptor)
    except (AttributeError, OSError, ValueError, termios.error):
        yield False
        return
    if not _in_foreground(descriptor):
        yield False
        return

    def read() -> None:
        try:
            data = os.read(descriptor, 64)
        except OSError:
            data = b""
        if not data:  # the terminal is closed
            loop.remove_reader(descriptor)
        for key in data.decode(errors="replace"):
            pressed(key)

    def set_up() -> None:
        if _in_foreground(descriptor):
            with contextlib.suppress(termios.error):
                tty.setcbreak(descriptor, termios.TCSANOW)

    set_up()
    loop.add_reader(descriptor, read)
    loop.add_signal_handler(signal.SIGCONT, set_up)  # the shell may have changed what we set
    try:
        yield True
    finally:
        loop.remove_signal_handler(signal.SIGCONT)
        loop.remove_reader(descriptor)
        if _in_foreground(descriptor):
            with contextlib.suppress(termios.error):
                termios.tcsetattr(descriptor, termios.TCSANOW, before)


def _in_foreground(descriptor: int) -> bool:
    try:
        return os.tcgetpgrp(descriptor) == os.getpgrp()
    except OSError:
        return False
