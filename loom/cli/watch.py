"""`loom watch [PATH...]`: keep the database up to date."""

from __future__ import annotations

import contextlib
import signal
import sys
from collections.abc import Sequence
from pathlib import Path
from typing import TYPE_CHECKING, Any, Final

import click

from loom.cli.imports import Imports
from loom.cli.options import (
    derived_option,
    exclude_option,
    helper_options,
    import_options,
    parse_exclude,
    shared_options,
)
from loom.cli.output import Exit, set_up_logging
from loom.cli.running import dump_option, observable

if TYPE_CHECKING:
    from pathspec import GitIgnoreSpec

    from loom.app import App
    from loom.cli.watchview import _View
    from loom.mainloop.asyncio_loop import AsyncioMainLoop
    from loom.watch.session import WatchSession

__all__ = ["watch"]

_EXIT_CODES: Final = {
    signal.SIGINT: Exit.INTERRUPTED,
    signal.SIGTERM: Exit.TERMINATED,
    signal.SIGHUP: Exit.HUNG_UP,
}

_QUIT_KEYS: Final = ("q", "Q", "\x04")  # the last is Ctrl-D


@click.command()
@click.argument("paths", nargs=-1, type=click.Path(exists=True, path_type=str), metavar="[PATH]...")
@exclude_option
@click.option(
    "--poll",
    "poll_seconds",
    type=click.FloatRange(min=0.1),
    metavar="SECONDS",
    help="Look at all files this often, where the file system doesn't tell of changes.",
)
@dump_option
@import_options
@derived_option
@helper_options
@shared_options
def watch(
    paths: Sequence[str],
    exclude: Sequence[str],
    poll_seconds: float | None,
    dump_path: str,
    python: str | None,
    no_imports: bool,
    derived: bool,
    helper: bool | None,
    jobs: int | None,
    db_path: Path,
    as_json: bool,
    verbose: int,
) -> int:
    """Scan as `loom scan` does, and go on: what changes is scanned, what is gone is forgotten.

    On a terminal the key "p" pauses and resumes, "q" quits; elsewhere the signal SIGUSR1 does the
    former. SIGUSR2 writes the scheduler's queue. With --json, each event is a line of its own.

    Where there is more than one processor core, a helper process scans, too, unless --no-helper is
    given. What a link leads to outside of the folders isn't followed.
    """
    set_up_logging(verbose)
    patterns = parse_exclude(exclude)
    paths = list(paths) or ["."]
    with Imports(paths, python, no_imports) as imports:
        helpers = 0 if helper is False else jobs or (1 if helper else None)
        command = _Watch(paths, patterns, imports, derived, helpers, db_path)
        return command.run(poll_seconds, as_json, verbose, dump_path)


class _Watch:
    """One run of the command."""

    def __init__(
        self,
        paths: list[str],
        exclude: GitIgnoreSpec | None,
        imports: Imports,
        derived: bool,
        helpers: int | None,
        db_path: Path,
    ) -> None:
        self._paths = paths
        self._exclude = exclude
        self._imports = imports
        self._derived = derived
        self._helpers = helpers
        self._db_path = db_path
        self._signal: signal.Signals | None = None

    def run(
        self, poll_seconds: float | None, as_json: bool, verbose: int, dump_path: str
    ) -> int:
        from loom.app import App
        from loom.helper.support import use_helpers
        from loom.mainloop.asyncio_loop import AsyncioMainLoop

        main_loop = AsyncioMainLoop()
        try:
            app = App(self._db_path, main_loop)
            try:
                if verbose > 1:
                    app.coordinator.fLog.fOutputFile = sys.stderr
                use_helpers(app, self._helpers)
                self._imports.set_up(app)
                session = self._make_session(app, poll_seconds)
                with contextlib.ExitStack() as stack:
                    stack.callback(session.destroy)
                    view = self._set_up(stack, session, main_loop, as_json, verbose, dump_path)
                    app.collect_between_slices()
                    session.start()
                    main_loop.loop.run_forever()
            finally:
                app.destroy()  # saves
        finally:
            main_loop.close()
        if view.error is not None:
            raise view.error
        if session.failure is not None:
            raise session.failure
        return Exit.OK if self._signal is None else _EXIT_CODES[self._signal]

    def _make_session(self, app: App, poll_seconds: float | None) -> WatchSession:
        from loom.watch.inotify import InotifySource
        from loom.watch.session import WatchSession, kPollSeconds

        return WatchSession(
            app,
            self._paths,
            self._exclude,
            make_source=InotifySource if poll_seconds is None else None,
            poll_seconds=kPollSeconds if poll_seconds is None else poll_seconds,
            derived=self._derived,
        )

    def _set_up(
        self,
        stack: contextlib.ExitStack,
        session: WatchSession,
        main_loop: AsyncioMainLoop,
        as_json: bool,
        verbose: int,
        dump_path: str,
    ) -> _View:
        from loom.cli.keys import keys
        from loom.cli.watchview import make_view

        loop = main_loop.loop
        session.connect("finished", lambda _session: loop.stop())

        def pressed(key: str) -> None:
            if key in ("p", "P"):
                session.toggle_pause()
            elif key in _QUIT_KEYS:
                session.stop()

        has_keys = stack.enter_context(keys(loop, pressed))
        view = make_view(session, session.stop, as_json, not verbose, has_keys)
        stack.callback(view.destroy)

        # One that is ignored already stays so: nohup means it.
        caught = [each for each in _EXIT_CODES if signal.getsignal(each) != signal.SIG_IGN]

        def stop(number: signal.Signals) -> None:
            self._signal = number
            for each in caught:
                loop.remove_signal_handler(each)  # a second one ends us at once
            if number == signal.SIGHUP:
                view.hang_up()
            session.stop()

        for number in caught:
            loop.add_signal_handler(number, stop, number)
        loop.add_signal_handler(signal.SIGUSR1, session.toggle_pause)

        def describe() -> dict[str, Any]:
            return {"following": session.describe(), "at_rest": session.at_rest}

        stack.enter_context(
            observable("watch", session.app, session.scan, main_loop, dump_path, describe)
        )
        source = session.follower.source
        if source is not None:
            loop.add_reader(source.fileno(), session.follower.take_events)
            session.follower.connect(
                "polling", lambda follower, _reason: loop.remove_reader(follower.source.fileno())
            )
            stack.callback(_stop_reading, session, main_loop)
        return view


def _stop_reading(session: WatchSession, main_loop: AsyncioMainLoop) -> None:
    if session.follower.source is not None:
        main_loop.loop.remove_reader(session.follower.source.fileno())
