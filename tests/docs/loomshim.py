"""What `loom` is in the commands of documents: itself, but for what never ends or needs a server.

`loom watch` is interrupted when it is at rest for the first time; of a command on an SSH server the
options are checked.
"""

import signal
import subprocess
import sys


def check_options(arguments: list[str]) -> None:
    from loom.bootstrap import ensure_host_path

    ensure_host_path()
    import click
    from loom.cli.main import _loom

    command = _loom.get_command(click.Context(_loom), arguments[0])
    assert command is not None
    command.make_context(arguments[0], arguments[1:])


def watch(command: list[str]) -> int:
    watching = subprocess.Popen(command, stdout=subprocess.PIPE, text=True)
    assert watching.stdout is not None
    for line in watching.stdout:
        print(line, end="")
        if "at rest" in line or "at-rest" in line:
            watching.send_signal(signal.SIGINT)
    status = watching.wait()
    return 0 if status == 128 + signal.SIGINT else status


def main(arguments: list[str]) -> int:
    if any(argument.startswith("ssh://") for argument in arguments):
        check_options(arguments)
        return 0
    command = [sys.executable, *["-O"] * sys.flags.optimize, "-P", "-m", "loom", *arguments]
    return watch(command) if arguments[:1] == ["watch"] else subprocess.call(command)


if __name__ == "__main__":
    signal.signal(signal.SIGINT, signal.default_int_handler)
    sys.exit(main(sys.argv[1:]))
