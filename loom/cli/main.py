"""Start of the command line: which commands there are, and what their failures become."""

from __future__ import annotations

import errno
import importlib
import importlib.metadata
import sys
import traceback
from collections.abc import Sequence

import click

from loom.cli.output import (
    Exit,
    OutputError,
    finish_output,
    give_up_output,
    is_store_error,
    set_up_streams,
    warn,
)

__all__ = ["run"]

_COMMANDS = (
    *("scan", "watch", "status", "why", "verify"),
    *("symbols", "find", "define", "describe", "refs"),
)


class _LazyGroup(click.Group):
    """Imports a command's module `loom.cli.NAME` when that command is asked for."""

    def list_commands(self, ctx: click.Context) -> list[str]:
        return list(_COMMANDS)

    def get_command(self, ctx: click.Context, cmd_name: str) -> click.Command | None:
        if cmd_name not in _COMMANDS:
            return None
        command = getattr(importlib.import_module(f"loom.cli.{cmd_name}"), cmd_name)
        assert isinstance(command, click.Command)
        return command


def _show_version(ctx: click.Context, param: click.Parameter, wanted: bool) -> None:
    if wanted and not ctx.resilient_parsing:
        print(f"loom {version()}")
        ctx.exit(Exit.OK)


def version() -> str:
    """The version of the installed package."""
    try:
        return importlib.metadata.version("pysource-loom")
    except importlib.metadata.PackageNotFoundError:
        return "(not installed)"  # running from a source folder


@click.group(cls=_LazyGroup, context_settings={"help_option_names": ["-h", "--help"]})
@click.option(
    "--version",
    is_flag=True,
    is_eager=True,
    expose_value=False,
    callback=_show_version,
    help="Show the version and exit.",
)
def _loom() -> None:
    """Scan Python sources and ask what they define.

    \b
    Exit codes: 0 all is well, 1 files with errors or nothing found,
    2 wrong usage or an unusable database, 130 interrupted.
    """


def run(arguments: Sequence[str]) -> int:
    """Run the command line `arguments` and return the exit code. A user's error isn't raised."""
    set_up_streams()
    try:
        code = _run(arguments)
        finish_output()
        return code
    except OutputError as error:
        if isinstance(error.__cause__, OSError) and error.__cause__.errno == errno.EIO:
            # The terminal was closed, and the signal that tells it is still to come.
            give_up_output(sys.stdout, sys.stderr)
            return Exit.HUNG_UP
        give_up_output()
        if isinstance(error.__cause__, BrokenPipeError):
            return Exit.BROKEN_PIPE  # the reader has had enough, which is nothing to talk about
        warn(f"can't write the output: {error.__cause__}")
        return Exit.FAULT


def _run(arguments: Sequence[str]) -> int:
    try:
        result = _loom.main(list(arguments), prog_name="loom", standalone_mode=False)
        return Exit.OK if result is None else int(result)
    except click.Abort:
        return Exit.INTERRUPTED
    except click.ClickException as error:
        error.show()
        return Exit.UNUSABLE
    except OutputError:
        raise
    except ImportError as error:
        warn(f"a part of the program can't be loaded; was it built and installed? {error}")
        return Exit.FAULT
    except Exception as error:
        if is_store_error(error):
            warn(str(error))
            return Exit.UNUSABLE
        traceback.print_exc()
        warn("this is a fault of the program")
        return Exit.FAULT
