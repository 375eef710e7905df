"""`loom scan [PATH...]`: fill the database."""

from __future__ import annotations

import signal
import sys
from collections.abc import Sequence
from pathlib import Path
from typing import TYPE_CHECKING

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
from loom.cli.output import Exit, set_up_logging, warn
from loom.cli.remote import PathOrUrl, RemoteSettings, local_paths, remote_options
from loom.cli.running import dump_option, observable
from loom.cli.tracing import Tracing, tracing_options

if TYPE_CHECKING:
    from pathspec import GitIgnoreSpec

    from loom.cli.report import ScanReport
    from loom.mainloop.asyncio_loop import AsyncioMainLoop
    from loom.scansession import ScanSession

__all__ = ["scan"]


@click.command()
@click.argument("paths", nargs=-1, type=PathOrUrl(exists=True, path_type=str), metavar="[PATH]...")
@exclude_option
@dump_option
@click.option("--exit-zero", is_flag=True, help="Exit with 0 even if files had errors.")
@import_options
@derived_option
@helper_options
@click.option(
    "--remote-loom",
    default="loom",
    show_default=True,
    metavar="COMMAND",
    help="With --helper, what starts loom on an SSH server, to scan the files there.",
)
@remote_options
@tracing_options
@shared_options
def scan(
    paths: Sequence[str],
    exclude: Sequence[str],
    dump_path: str,
    exit_zero: bool,
    python: str | None,
    no_imports: bool,
    derived: bool,
    helper: bool | None,
    jobs: int | None,
    remote_loom: str,
    remote: RemoteSettings,
    tracing: Tracing,
    db_path: Path,
    as_json: bool,
    verbose: int,
) -> int:
    """Scan the Python files at and below each PATH, by default the working folder, and the modules
    that they import.

    A PATH may be on an SSH server: ssh://[user@]host[:port]/path. Keys, the agent and the known
    hosts are those of OpenSSH. Imports of remote files find the standard library only.

    A file whose results are still valid isn't scanned again. ".gitignore" is honoured; virtual
    environments, node_modules, caches and build results are left out. A file given by name is
    always scanned.

    Exits with 1 if files at or below PATH had errors; those of imported modules don't count.
    Ctrl-C saves what was scanned so far.
    """
    set_up_logging(verbose)
    patterns = parse_exclude(exclude)
    paths = list(paths) or ["."]
    with Imports(local_paths(paths), python, no_imports) as imports:
        command = _Scan(paths, patterns, imports, remote, tracing, db_path, as_json, verbose)
        return command.run(exit_zero, derived, dump_path, jobs or int(bool(helper)), remote_loom)


class _Scan:
    """One run of the command."""

    def __init__(
        self,
        paths: list[str],
        exclude: GitIgnoreSpec | None,
        imports: Imports,
        remote: RemoteSettings,
        tracing: Tracing,
        db_path: Path,
        as_json: bool,
        verbose: int,
    ) -> None:
        self._paths = paths
        self._exclude = exclude
        self._imports = imports
        self._remote = remote
        self._tracing = tracing
        self._db_path = db_path
        self._as_json = as_json
        self._verbose = verbose
        self._signal: signal.Signals | None = None

    def run(
        self, exit_zero: bool, derived: bool, dump_path: str, helpers: int, remote_loom: str
    ) -> int:
        from loom.mainloop.asyncio_loop import AsyncioMainLoop

        main_loop = AsyncioMainLoop()
        early = None
        if helpers:  # they start while all the rest is loaded
            from loom.helper.launch import EarlyHelpers

            early = EarlyHelpers(main_loop.loop, helpers)
        from loom.app import App
        from loom.cli.progress import make_display
        from loom.scansession import ScanSession

        try:
            app = App(self._db_path, main_loop, self._tracing.coordinator_class())
            try:
                if self._verbose > 1:
                    app.coordinator.fLog.fOutputFile = sys.stderr
                if early is not None:
                    from loom.helper.support import may_share, use_helpers

                    use_helpers(app, helpers, may_share(helpers), early)
                self._imports.set_up(app)
                self._remote.set_up(app, self._paths)
                if helpers:
                    self._remote.set_up_helpers(app, self._paths, remote_loom)
                session = ScanSession(app, self._paths, self._exclude, derived=derived)
                session.connect("finished", lambda _session: main_loop.loop.stop())
                with (
                    self._tracing.around(
                        app,
                        local_paths(self._paths),
                        lambda: self._report(session).as_json(),
                    ),
                    make_display(session, live=not self._verbose),
                    observable("scan", app, session, main_loop, dump_path),
                ):
                    self._catch_signals(main_loop, session)
                    app.collect_between_slices()
                    session.start()
                    main_loop.loop.run_forever()
                session.destroy()
            finally:
                app.destroy()  # saves
        finally:
            if early is not None:
                early.close()
            main_loop.close()
        if session.failure is not None:
            raise session.failure
        self._report(session).write(self._as_json)
        if self._signal is not None:
            return Exit.TERMINATED if self._signal == signal.SIGTERM else Exit.INTERRUPTED
        return Exit.FINDINGS if session.counts.errors and not exit_zero else Exit.OK

    def _report(self, session: ScanSession) -> ScanReport:
        from loom.cli.report import ScanReport

        return ScanReport(session, self._db_path, self._signal is not None)

    def _catch_signals(self, main_loop: AsyncioMainLoop, session: ScanSession) -> None:
        """End the session at the first signal; a second one isn't caught any more."""

        def stop(number: signal.Signals) -> None:
            self._signal = number
            for each in (signal.SIGINT, signal.SIGTERM):
                main_loop.loop.remove_signal_handler(each)
            warn("stopping: saving what was scanned so far")
            session.stop()

        for number in (signal.SIGINT, signal.SIGTERM):
            main_loop.loop.add_signal_handler(number, stop, number)
