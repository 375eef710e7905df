"""Record a real run of a command as the picture that the README shows.

    python scripts/record_demo.py docs/images/scan.svg loom scan PATH

The command runs in a terminal of its own. The picture holds what the terminal showed half-way, and
what it showed at the end.
"""

import fcntl
import io
import os
import pty
import re
import struct
import subprocess
import sys
import termios
import time
from pathlib import Path

import pyte
from rich.console import Console
from rich.style import Style
from rich.text import Text

COLUMNS, LINES = 112, 40


def run(command: list[str]) -> list[tuple[float, bytes]]:
    """Run `command` in a terminal and return what it wrote, with the seconds since its start."""
    master, slave = pty.openpty()
    fcntl.ioctl(slave, termios.TIOCSWINSZ, struct.pack("HHHH", LINES, COLUMNS, 0, 0))
    environment = {name: os.environ[name] for name in ("HOME", "PATH", "LANG") if name in os.environ}
    environment |= {"TERM": "xterm-256color", "COLORTERM": "truecolor"}
    start = time.monotonic()
    process = subprocess.Popen(
        command, stdin=slave, stdout=slave, stderr=slave, env=environment, start_new_session=True
    )
    os.close(slave)
    written = []
    while True:
        try:
            data = os.read(master, 65536)
        except OSError:  # How Linux tells that the last writer has gone.
            data = b""
        if not data:
            break
        written.append((time.monotonic() - start, data))
    os.close(master)
    if process.wait() > 1:
        sys.exit(f"{' '.join(command)} ended with {process.returncode}")
    return written


def screen_after(written: list[tuple[float, bytes]], seconds: float) -> list[Text]:
    """Return the lines of the screen as they stood `seconds` after the start."""
    screen = pyte.Screen(COLUMNS, LINES)
    stream = pyte.ByteStream(screen)
    for when, data in written:
        if when <= seconds:
            stream.feed(data)
    lines = [line_of(screen, row) for row in range(LINES)]
    while lines and not lines[-1].plain.strip():
        lines.pop()
    return lines


def line_of(screen: pyte.Screen, row: int) -> Text:
    """Return one row of the terminal with its colours."""
    line = Text()
    for column in range(COLUMNS):
        cell = screen.buffer[row][column]
        line.append(
            cell.data,
            Style(
                color=colour(cell.fg),
                bgcolor=colour(cell.bg),
                bold=cell.bold,
                italic=cell.italics,
                reverse=cell.reverse,
            ),
        )
    line.rstrip()
    return line


def colour(name: str) -> str | None:
    """Translate a colour of the terminal to one of rich."""
    if name == "default":
        return None
    if re.fullmatch("[0-9a-f]{6}", name):
        return "#" + name
    return name.replace("brown", "yellow").replace("bright", "bright_")


def main(target: str, command: list[str]) -> None:
    """Write the picture of `command` to the file `target`."""
    written = run(command)
    seconds = written[-1][0]
    console = Console(record=True, width=COLUMNS, file=io.StringIO(), force_terminal=True)
    console.print(f"[bold green]$ [/]{Path(command[0]).name} {' '.join(command[1:])}", highlight=False)
    for line in screen_after(written, seconds / 2):
        console.print(line)
    console.print(f"[dim]... {seconds / 2:.1f} seconds later[/]", highlight=False)
    for line in screen_after(written, seconds):
        console.print(line)
    picture = console.export_svg(title="loom", unique_id="loom")
    # The picture must show without fetching anything.
    picture = re.sub(r"@font-face \{.*?\}\s*|<!--.*?-->\s*", "", picture, flags=re.DOTALL)
    Path(target).write_text(picture.replace("Fira Code", "monospace"))


if __name__ == "__main__":
    main(sys.argv[1], sys.argv[2:])
