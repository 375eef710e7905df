"""Every block of code in the README and in docs/ is run.

A block names its language:

- `sh`: commands, run by bash in a small tree, all blocks of a page in turn over one database. Words
  in capitals stand for something there (`kPlaceholders`).
- `console`: commands behind "$ " and what they print; "..." stands for anything.
- `python`: run with what `kPreludes` supplies. If it has comments at the left margin, these are
  what it prints.
- `text`: a table or a picture, nothing to run.

What isn't run as it stands: `make` (test_docs_links looks for the target), and commands that need a
server, whose options alone are checked; tests/python/loom/remote runs such commands.
"""

import os
import re
import subprocess
import sys
from pathlib import Path

import docpages
import pytest

kTimeLimit = 120  # seconds; only what hangs gets there

# What stands for what in commands, longest first. All are found in the tree below.
kPlaceholders = {
    "ssh://[user@]host[:port]": "ssh://me@host:2222",
    "FILE:LINE:COL": "sample.py:4:12",
    "FOLDER...": ".",
    "PATH...": ".",
    "FOLDER": ".",
    "FILE": "sample.py",
    "NAME": "sample",
}

kTree = {
    "sample.py": "def sample():\n    return 1\n\nanswer = sample()\n",
    "src/a.py": "import package.module\n\n\n\n\n\n\n\n\n\n\npackage.module.Class().method()\n",
    "package/__init__.py": "",
    "package/module.py": "class Class:\n    def method(self) -> int:\n        return 1\n",
    "script.py": "class Basket:\n    pass\n",
}

# The tools of the commands, each a line of shell.
kTools = {
    "loom": f'exec "$DOC_PYTHON" $DOC_OPTIONS -P {Path(__file__).with_name("loomshim.py")} "$@"',
    "python": 'exec "$DOC_PYTHON" $DOC_OPTIONS "$@"',
    "make": "exit 0",
}


def all_blocks(*languages: str) -> list[docpages.Block]:
    found = [block for page in docpages.user_pages() for block in docpages.blocks(page)]
    return [block for block in found if block.language in languages] if languages else found


def pages_with(language: str) -> list[Path]:
    return sorted({block.page for block in all_blocks(language)})


def name_of(page: Path) -> str:
    return str(page.relative_to(docpages.kRoot))


@pytest.fixture
def tree(tmp_path):
    folder = tmp_path / "tree"
    for name, text in kTree.items():
        (folder / name).parent.mkdir(parents=True, exist_ok=True)
        (folder / name).write_text(text)
    for bin_folder in (tmp_path / "bin", folder / ".venv" / "bin"):
        bin_folder.mkdir(parents=True)
        for tool, line in kTools.items():
            (bin_folder / tool).write_text(f"#!/bin/sh\n{line}\n")
            (bin_folder / tool).chmod(0o755)
    for name in ("examples", "tests"):
        (folder / name).symlink_to(docpages.kRoot / name)
    return folder


def environment(tree: Path) -> dict[str, str]:
    package = subprocess.run(
        [sys.executable, "-P", "-c", "import pysource; print(pysource.__path__[0])"],
        capture_output=True,
        text=True,
        check=True,
    ).stdout.strip()
    home = tree.parent / "home"
    home.mkdir(exist_ok=True)
    kept = {k: v for k, v in os.environ.items() if not k.startswith(("XDG_", "PYTEST"))}
    return kept | {
        "PATH": f"{tree.parent / 'bin'}:{os.environ['PATH']}",
        "PYTHONPATH": str(Path(package).parent),
        "HOME": str(home),
        "NO_COLOR": "1",
        "COLUMNS": "100",
        "DOC_PYTHON": sys.executable,
        "DOC_OPTIONS": "-O" if sys.flags.optimize else "",
    }


def bash(commands: str, tree: Path) -> subprocess.CompletedProcess[str]:
    for word, meaning in kPlaceholders.items():
        commands = re.sub(rf"(?<![\w/.]){re.escape(word)}(?!\w)", meaning, commands)
    return subprocess.run(
        ["bash", "-c", commands],
        cwd=tree,
        env=environment(tree),
        stdin=subprocess.DEVNULL,
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
        text=True,
        timeout=kTimeLimit,
        check=False,
    )


def test_every_block_names_a_language():
    named = {"sh", "console", "python", "text"}
    assert [str(block) for block in all_blocks() if block.language not in named] == []


@pytest.mark.parametrize("page", pages_with("sh"), ids=name_of)
def test_commands_work(page, tree):
    # First of all the tree is scanned, as the reader of any page has done.
    assert bash("loom scan .", tree).returncode == 0
    for block in all_blocks("sh"):
        if block.page == page:
            ran = bash(f"set -eo pipefail\n{block.text}", tree)
            assert ran.returncode == 0, f"{block}\n{ran.stdout}"


def sessions(page: Path) -> list[tuple[str, str, str]]:
    """Place, command and expected output of each command in the page's consoles."""
    found = []
    for block in all_blocks("console"):
        if block.page == page:
            for number, part in enumerate(re.split(r"^\$ ", block.text, flags=re.M)):
                if number == 0:
                    assert part == "", f"{block} begins with no command"
                    continue
                lines = part.splitlines()
                count = 1
                while lines[count - 1].endswith("\\") or (
                    (heredoc := re.search(r"<<'?(\w+)", lines[0]))
                    and lines[count - 1] != heredoc[1]
                ):
                    count += 1
                found.append((str(block), "\n".join(lines[:count]), "\n".join(lines[count:])))
    return found


def fits(expected: str, printed: str) -> bool:
    """Whether they are equal, but for blanks at line ends and what "..." stands for."""
    pattern = ".*?".join(re.escape(part.strip(" ")) for part in expected.strip().split("..."))
    pattern = re.sub(r"(\\ )+", r" +", pattern)
    return re.fullmatch(pattern, _trimmed(printed), re.S) is not None


def _trimmed(text: str) -> str:
    return "\n".join(line.rstrip() for line in text.strip().splitlines())


@pytest.mark.parametrize(
    ("expected", "printed", "same"),
    [
        ("a b", "a   b  \n", True),
        ("a ... c", "a b b c", True),
        ("a\n...\nc", "a\nb\nb\nc", True),
        ("a b", "a c", False),
        ("a ...", "b a", False),
        ("", "a", False),
        ("3.0 s", "310 s", False),
    ],
)
def test_outputs_are_compared(expected, printed, same):
    assert fits(expected, printed) == same


# A reader takes longer than the two seconds for which a file's time isn't trusted yet.
kPause = "find . -type f -newermt '-3 seconds' -exec touch -d '-10 seconds' {} +"


@pytest.mark.parametrize("page", pages_with("console"), ids=name_of)
def test_consoles_print_what_is_shown(page, tree):
    folder = tree.parent / "empty"
    folder.mkdir()
    told = sessions(page)
    script = ["set -o pipefail", f"cd {folder}"]
    for number, (_, command, _) in enumerate(told):
        script += [f"{{ {command}\n}} >{tree.parent}/out{number} 2>&1", kPause]
    ran = bash("\n".join(script), tree)
    assert ran.stdout == ""
    for number, (place, command, expected) in enumerate(told):
        printed = (tree.parent / f"out{number}").read_text()
        assert fits(expected, printed), f"{place}: {command}\n{printed}"


# What pages take for granted in their Python blocks.
_kHost = """
from pathlib import Path
from loom.bootstrap import ensure_host_path
ensure_host_path()
from loom.app import App
from loom.mainloop.stepped import SteppedMainLoop
from loombase.location import CLocalFileLocation
app = App(Path("docs.sqlite3"), SteppedMainLoop())
"""
kPreludes = {
    "inference.md": _kHost + """
from pysource._fastaccess import GetNowTime
from loom.infer import api
from loom.infer.define import definitions_at
Path("mod.py").write_text("class C:\\n    def f(self, x: str):\\n        return x\\n")
loc, line, column = CLocalFileLocation(Path("mod.py").resolve()), 3, 15
""",
    "resolution.md": _kHost + """
factory = app.ana_mgr.fAnalysisFactory
folder, names = None, ["json.decoder", "os"]
location = factory.GetAllLocsForName("json.decoder", None, False)[0]
""",
}
# And what must hold afterwards.
kEpilogues = {
    "inference.md": """
assert not answer.partial and [place.line for place in answer.places] == [2], answer
assert targets and values
app.destroy()
""",
    "resolution.md": """
assert len(factory.GetAllLocsForName("json.decoder", folder, False)) == 2
assert factory.GetModuleName(location) == "json.decoder"
app.destroy()
""",
}


@pytest.mark.parametrize("block", all_blocks("python"), ids=str)
def test_python_works(block, tree):
    program = "\n".join(
        [kPreludes.get(block.page.name, ""), block.text, kEpilogues.get(block.page.name, "")]
    )
    ran = subprocess.run(
        [sys.executable, "-c", program],
        cwd=tree,
        env=environment(tree),
        capture_output=True,
        text=True,
        timeout=kTimeLimit,
        check=False,
    )
    assert (ran.returncode, ran.stderr) == (0, "")
    shown = [line[2:] for line in block.text.splitlines() if line.startswith("# ")]
    assert ran.stdout.splitlines() == shown
