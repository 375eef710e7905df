"""Start of the `loom` command, by its name, by `python -m loom`, or by this file's path."""

from __future__ import annotations

# Nothing else is imported here: the working folder may still be on the path.
import os
import sys

__all__ = ["command_without_debug_checks", "main"]

# Set, and not empty: keep the interpreter's debug checks and run in this process.
_KEEP_CHECKS = "LOOM_KEEP_DEBUG_CHECKS"

_HERE = os.path.dirname(os.path.abspath(__file__))


def main() -> int:
    """Run the command line of this process. Returns the exit code."""
    if __debug__ and sys.executable and not os.environ.get(_KEEP_CHECKS):
        _start_again_without_debug_checks()
    _use_own_folder()
    if sys.argv[1:2] == ["helper"]:  # started by another one of us, and waited for
        from loom.helper.process import main as run_helper

        return run_helper(sys.argv[2:])
    from loom.cli.main import run

    return run(sys.argv[1:])


def _start_again_without_debug_checks() -> None:
    """Replace this process by the same command under "-O". Doesn't return.

    The scheduler's debug checks are for development, and while they are on, its slices are twice
    as long, which is too long for a user who waits for an answer.
    """
    command = command_without_debug_checks(sys.argv[1:])
    sys.stdout.flush()
    sys.stderr.flush()
    os.execv(command[0], command)


def command_without_debug_checks(arguments: list[str]) -> list[str]:
    """The command line that runs `loom` with these arguments in this interpreter, under "-O".

    "-P" keeps the working folder, which may be a project with modules of any name, off `sys.path`.
    """
    options = ["-O", "-P"]
    for flag, option in (("isolated", "-I"), ("no_user_site", "-s"), ("ignore_environment", "-E")):
        if getattr(sys.flags, flag):
            options.append(option)
    for name, value in sys._xoptions.items():
        options += ["-X", name if value is True else f"{name}={value}"]
    for warning in sys.warnoptions:
        options += ["-W", warning]
    script = os.path.join(_HERE, "__main__.py")
    return [sys.executable, *options, script, *arguments]


def _use_own_folder() -> None:
    """Make `loom` importable where it stands, and nothing where this process was started."""
    folder = os.path.dirname(_HERE)
    if not sys.flags.safe_path and sys.path and os.path.abspath(sys.path[0]) != folder:
        del sys.path[0]  # the working folder or that of the script
    if folder not in sys.path:
        sys.path.insert(0, folder)


if __name__ == "__main__":
    sys.exit(main())
