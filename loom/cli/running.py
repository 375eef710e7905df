"""What the commands that keep running have in common: others can ask how they get on."""

from __future__ import annotations

import contextlib
import logging
import signal
import sys
from collections.abc import Callable, Iterator, Mapping
from pathlib import Path
from typing import TYPE_CHECKING, Any

import click

from loom.cli.output import warn

if TYPE_CHECKING:
    from loom.app import App
    from loom.mainloop.asyncio_loop import AsyncioMainLoop
    from loom.scansession import ScanSession

__all__ = ["dump_option", "observable"]

_log = logging.getLogger("loom.live")

dump_option = click.option(
    "--dump-queue",
    "dump_path",
    type=click.Path(dir_okay=False, allow_dash=True, path_type=str),
    default="-",
    metavar="FILE",
    help="Where the signal SIGUSR2 writes the scheduler's queue; by default standard error.",
)


@contextlib.contextmanager
def observable(
    command: str,
    app: App,
    session: ScanSession,
    main_loop: AsyncioMainLoop,
    dump_path: str,
    more: Callable[[], Mapping[str, Any]] = dict,
) -> Iterator[None]:
    """Answer `loom status` and `loom why`, and write the queue at SIGUSR2, within the block.

    If another process answers for the database already, this one doesn't.
    """
    from loom.live.address import TakenError
    from loom.live.answers import Answers, dump_queue
    from loom.live.server import LiveServer

    def dump() -> None:
        text = dump_queue(app)
        try:
            if dump_path == "-":
                sys.stderr.write(text)
                sys.stderr.flush()
            else:
                Path(dump_path).write_text(text, errors="surrogateescape")
        except OSError as error:
            warn(f"the queue can't be written to {dump_path}: {error.strerror or error}")

    loop = main_loop.loop
    server = None
    try:
        server = LiveServer(loop, app.info_cache.fPath, Answers(app, session, command, more))
    except (TakenError, OSError) as error:
        _log.info("this process won't answer for the database: %s", error)
    loop.add_signal_handler(signal.SIGUSR2, dump)
    try:
        yield
    finally:
        loop.remove_signal_handler(signal.SIGUSR2)
        if server is not None:
            server.close()
