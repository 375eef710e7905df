"""How fast imported names become files, beside other ways to find them.

    run.py [--rounds N] [--write]

The names are those that the standard library and the installed packages of this interpreter import,
with the folders that they are imported in. `--write` puts the figures into README.md beside this
file.
"""

import argparse
import os
import platform
import sys
from collections.abc import Callable, Iterator, Sequence
from pathlib import Path
from time import perf_counter
from typing import Final

_HERE: Final = Path(__file__).resolve().parent
sys.path.append(str(_HERE.parents[1]))  # what is installed comes first

from loom.bootstrap import ensure_host_path

ensure_host_path()

from loombase.location import CLocalFileLocation
from typeshed_client import finder

from loom._pyscan import SourceScanner
from loom.resolve.environment import PythonEnvironment, own_environment
from loom.services.modules import CAnalysisFactory
from loom.walk import Found, walk

# One question of the scheduler: names, and the folder that they are seen from.
_Question = tuple[set[str], str]

_MOST_KNOWN_NS: Final = 1_000.0
_STAT_SUFFIXES: Final = ("/__init__.pyi", "/__init__.py", ".pyi", ".py", ".abi3.so", "")


def questions(environment: PythonEnvironment) -> Iterator[_Question]:
    """What a scan of the environment asks, file after file."""
    for step in walk(list(environment.path)):
        if isinstance(step, Found):
            scanner = SourceScanner(Path(step.path).read_bytes())
            while not scanner.scan(1 << 20):
                pass
            names = set(_names(scanner.imports()))
            if names:
                yield names, os.path.dirname(step.path)


def _names(equivs: Sequence[bytes]) -> Iterator[str]:
    for equiv in equivs:
        module, _, name = equiv[2:].decode().partition(" ")
        name = name.partition(":")[0].strip("; ")
        yield module.partition(";")[0]
        if equiv.startswith(b":f") and name != "*":
            yield f"{module}{name}" if module.endswith(".") else f"{module}.{name}"


def seconds(ask: Callable[[], object]) -> float:
    start = perf_counter()
    ask()
    return perf_counter() - start


class Contestants:
    """Ways to answer all questions; each returns the seconds it took."""

    def __init__(self, environment: PythonEnvironment, asked: Sequence[_Question]) -> None:
        self._asked = [(names, CLocalFileLocation(folder)) for names, folder in asked]
        self._environment = environment
        absolute = {name for names, _ in asked for name in names if not name.startswith(".")}
        self.absolute = sorted(absolute)

    def factory(self) -> tuple[float, float]:
        """Ours: all questions for the first time, and all of them once more."""
        factory = CAnalysisFactory()

        def ask() -> None:
            for names, loc in self._asked:
                factory._FindPrimaryLocsForNames(names, loc, False)

        return seconds(ask), seconds(ask)

    def each_once(self) -> float:
        """Ours: each absolute name once, from one folder."""
        factory = CAnalysisFactory()
        return seconds(lambda: factory._FindPrimaryLocsForNames(self.absolute, None, False))

    def library(self) -> float:
        """`typeshed_client`, which looks for stubs and sources of absolute names."""
        context = finder.get_search_context(
            search_path=[Path(folder) for folder in self._environment.path], allow_py_files=True
        )

        def ask() -> None:
            for name in self.absolute:
                finder.get_stub_file(name, search_context=context)

        return seconds(ask)

    def probing(self) -> float:
        """One `os.stat` for each folder and each suffix until one succeeds."""

        def ask() -> None:
            for name in self.absolute:
                path = name.replace(".", "/")
                for folder in self._environment.path:
                    if any(_exists(f"{folder}/{path}{suffix}") for suffix in _STAT_SUFFIXES):
                        break

        return seconds(ask)


def _exists(path: str) -> bool:
    try:
        os.stat(path)
    except OSError:
        return False
    return True


def report(rounds: int) -> str:
    environment = own_environment()
    asked = list(questions(environment))
    contestants = Contestants(environment, asked)
    count, absolute = sum(len(names) for names, _ in asked), len(contestants.absolute)
    ours = [contestants.factory() for _ in range(rounds)]
    first, again = (min(times) for times in zip(*ours, strict=True))
    once, library, probing = (
        min(measure() for _ in range(rounds))
        for measure in (contestants.each_once, contestants.library, contestants.probing)
    )
    rows = [
        ("as a scan asks, for the first time", count, first, None),
        ("as a scan asks, all answers known", count, again, None),
        ("each absolute name once", absolute, once, None),
        ("`typeshed_client`, each absolute name once", absolute, library, once),
        ("probing with `os.stat`, each absolute name once", absolute, probing, once),
    ]
    lines = [
        f"CPython {platform.python_version()}, {platform.machine()}, {os.cpu_count()} cores;"
        f" {len(asked):,} files with imports.",
        "",
        "| Way | Names | Microseconds a name | Beside ours |",
        "|---|---:|---:|---:|",
    ]
    for way, number, time, beside in rows:
        ratio = f"{time / beside:.1f} times" if beside is not None else ""
        lines.append(f"| {way} | {number:,} | {time / number * 1e6:.2f} | {ratio} |")
    known_ns = again / count * 1e9
    verdict = "met" if known_ns <= _MOST_KNOWN_NS else "NOT MET"
    aim = f"- a known answer: at most {_MOST_KNOWN_NS:.0f} ns: {known_ns:.0f} ns, {verdict}."
    lines += ["", aim]
    return "\n".join(lines)


_README_HEAD: Final = """\
# Imported names to files

Made by `run.py --write`.

The first two rows are questions as the scheduler asks them, with the folder of each file; folders
are read in the first. The other ways know no relative names and no folder of the file, so each
absolute name is asked once, and they are compared with the same of ours. Neither of them finds both
files of a module or merges namespace packages.

"""


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--rounds", type=int, default=3, metavar="N")
    parser.add_argument("--write", action="store_true", help="write README.md beside this file")
    options = parser.parse_args()
    text = report(options.rounds)
    print(text)
    if options.write:
        (_HERE / "README.md").write_text(f"{_README_HEAD}{text}\n")


if __name__ == "__main__":
    main()
