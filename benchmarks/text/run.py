"""How fast the text helpers are, beside tight loops in C++ and beside the plain-Python way.

    run.py [--megabytes N] [--write]

Three texts: source of the standard library that is ASCII, the same with 5 % of its letters beyond
ASCII, and the same with all letters replaced by Chinese characters. `--write` puts the figures into
README.md beside this file.
"""

import argparse
import os
import platform
import random
import subprocess
import sys
import sysconfig
import tempfile
import time
from collections.abc import Callable, Iterator
from pathlib import Path
from typing import Final

_HERE: Final = Path(__file__).resolve().parent
_ROOT: Final = _HERE.parents[1]

_LEAST_RARE_NEEDLE: Final = 1.0  # GB/s
_MOST_ABOVE_LOOKUP: Final = 2.0  # ns a call, on ASCII
_ROUNDS: Final = 7
_CALLS: Final = 20_000


def make_texts(folder: Path, size: int) -> list[Path]:
    """Write the three texts."""
    source = bytearray()
    for path in sorted(Path(sysconfig.get_path("stdlib")).glob("*.py")):
        data = path.read_bytes()
        # A file that isn't balanced would leave the search at another level for the rest.
        if data.isascii() and b"\x01" not in data and len(source) < size:
            source += data
    text = source.decode()
    rng = random.Random(5)
    letters = [c if not c.isalpha() or rng.random() >= 0.05 else "é" for c in text]
    chinese = {ord(c): chr(0x4E00 + i) for i, c in enumerate("abcdefghijklmnopqrstuvwxyz")}
    # Prefixes of literals go, too: that makes no difference to where they end, but for f-strings.
    texts = {"ASCII": text, "5 % non-ASCII": "".join(letters), "CJK": text.translate(chinese)}
    paths = []
    for name, content in texts.items():
        paths.append(folder / name)
        paths[-1].write_text(content, encoding="utf-8", newline="")
    return paths


def build(folder: Path) -> Path:
    """Compile the C++ part as the modules are compiled."""
    program = folder / "text_bench"
    config = sysconfig.get_config_vars()
    sources = [_HERE / "text_bench.cpp", _ROOT / "pysource/strutils.cpp"]
    sources += sorted((_ROOT / "pysource/pyrt").glob("*.cpp"))
    library = Path(config["LIBDIR"])
    command = [
        os.environ.get("CXX", "c++"), "-std=c++20", "-O2", "-DNDEBUG", f"-I{_ROOT}",
        "-isystem", sysconfig.get_path("include"), *map(str, sources), "-o", str(program),
        str(library / config["LDLIBRARY"]), f"-Wl,-rpath,{library}", *config["LIBS"].split(),
        *config["SYSLIBS"].split(),
    ]  # fmt: skip
    subprocess.run(command, check=True)
    return program


Row = tuple[str, str, float, float, str, float, float]


def run_cpp(program: Path, texts: list[Path]) -> Iterator[Row]:
    """The rows of the C++ part: see text_bench.cpp."""
    environment = os.environ | {"PYTHONHOME": sys.base_prefix}
    output = subprocess.run(
        [str(program), *map(str, texts)], check=True, capture_output=True, env=environment
    ).stdout.decode()
    for line in output.splitlines():
        text, helper, ns, speed, other, other_ns, other_speed = line.split("\t")
        yield text, helper, float(ns), float(speed), other, float(other_ns), float(other_speed)


def nanoseconds(call: Callable[[], object]) -> float:
    """The best time of a call."""
    best = float("inf")
    for _ in range(_ROUNDS):
        begin = time.process_time_ns()
        for _ in range(_CALLS):
            call()
        best = min(best, (time.process_time_ns() - begin) / _CALLS)
    return best


def run_python() -> Iterator[tuple[str, float, str, float]]:
    """The helpers called from Python, beside the shortest plain-Python way."""
    from pysource import _fastaccess, strutils, symbolinfo
    from pysource.usageordereddict import CUsageOrderedDict

    utf8 = "aé中😀 name = value(1); x".encode()
    end = len(utf8)
    name, name_text = b":mC.f 3;:ios;plain", "pkg.module.Class.method"
    search = _fastaccess.CNonNestedSearch()
    log = _fastaccess.CLogger("bench")
    ordered: CUsageOrderedDict[int, int] = CUsageOrderedDict()
    plain: dict[int, int] = {}

    def find() -> int:
        search.InitWith(utf8, b";", 0, end)
        return search.FindNext()

    def set_plain() -> None:
        plain.pop(1, None)
        plain[1] = 1

    def quiet(_format: str, *_args: object) -> None:
        if False:
            print()

    cases: list[tuple[str, Callable[[], object], str, Callable[[], object]]] = [
        ("GetNowTime()", _fastaccess.GetNowTime, "time.time()", time.time),
        ("a quiet CLogger", lambda: log("%r", 1), "an empty function", lambda: quiet("%r", 1)),
        ("Ucs4CharAtUtf8Pos", lambda: strutils.Ucs4CharAtUtf8Pos(utf8, 3, end),
         "ord(utf8[3:6].decode())", lambda: ord(utf8[3:6].decode())),
        ("IsAlnumAtUtf8Pos", lambda: strutils.IsAlnumAtUtf8Pos(utf8, 3, end),
         "utf8[3:6].decode().isalnum()", lambda: utf8[3:6].decode().isalnum()),
        ("BytesFindByte", lambda: strutils.BytesFindByte(utf8, b";"),
         "utf8.index", lambda: utf8.index(b";")),
        ("InitWith and FindNext", find, "utf8.find", lambda: utf8.find(b";")),
        ("NonNestedSplit", lambda: symbolinfo.NonNestedSplit(name, ";"),
         "bytes.split", lambda: name.split(b";")),
        ("InfoContains", lambda: symbolinfo.InfoContains(name, b":m"),
         "any(startswith)", lambda: any(p.startswith(b":m") for p in name.split(b";"))),
        ("ParentScopeName", lambda: symbolinfo.ParentScopeName(name_text),
         "str.rpartition", lambda: name_text.rpartition(".")[0]),
        ("CUsageOrderedDict.Set", lambda: ordered.Set(1, 1),
         "dict.pop and store", set_plain),
    ]  # fmt: skip
    for helper, call, other, alternative in cases:
        yield helper, nanoseconds(call), other, nanoseconds(alternative)


def report(rows: list[Row], python: list[tuple[str, float, str, float]]) -> str:
    """The figures as Markdown."""
    lines = [
        f"CPython {platform.python_version()}, {platform.machine()}, {os.cpu_count()} cores.",
        "",
        "From C++; the ratio is speed beside the alternative:",
        "",
        "| Text | Helper | ns a call | GB/s | Alternative | ns a call | GB/s | Ratio |",
        "|---|---|--:|--:|---|--:|--:|--:|",
    ]
    for text, helper, ns, speed, other, other_ns, other_speed in rows:
        # A search is one call over a text of megabytes.
        whole = ns > 1e4
        mine, theirs = ("", "") if whole else (f"{ns:.2f}", f"{other_ns:.2f}")
        lines.append(
            f"| {text} | {helper} | {mine} | {speed:.2f} | {other} | {theirs} "
            f"| {other_speed:.2f} | {other_ns / ns:.2f} |"
        )
    lines += [
        "",
        "From Python:",
        "",
        "| Helper | ns a call | Plain Python | ns a call | Ratio |",
        "|---|--:|---|--:|--:|",
    ]
    for helper, ns, other, other_ns in python:
        lines.append(f"| {helper} | {ns:.0f} | `{other}` | {other_ns:.0f} | {other_ns / ns:.2f} |")
    lines += ["", "Targets:", ""]
    rare = min(row[3] for row in rows if row[0] == "ASCII" and row[1] == "FindNext, rare byte")
    lines.append(
        f"- a rare needle over source at {_LEAST_RARE_NEEDLE:.0f} GB/s or more: {rare:.2f} GB/s, "
        f"{'met' if rare >= _LEAST_RARE_NEEDLE else 'missed'}"
    )
    above = max(row[2] - row[5] for row in rows if row[0] == "ASCII" and row[4] == "table lookup")
    lines.append(
        f"- tests of ASCII characters within {_MOST_ABOVE_LOOKUP:.0f} ns of a table lookup: "
        f"{above:.2f} ns above it at most, {'met' if above <= _MOST_ABOVE_LOOKUP else 'missed'}"
    )
    return "\n".join(lines) + "\n"


def main() -> None:
    parser = argparse.ArgumentParser(description="Measure the text helpers.")
    parser.add_argument("--megabytes", type=float, default=4, help="size of the ASCII text")
    parser.add_argument("--write", action="store_true", help="put the figures into README.md")
    arguments = parser.parse_args()
    with tempfile.TemporaryDirectory() as name:
        folder = Path(name)
        texts = make_texts(folder, int(arguments.megabytes * 1_000_000))
        figures = report(list(run_cpp(build(folder), texts)), list(run_python()))
    print(figures, end="")
    if arguments.write:
        title = "# Text helpers\n\nMade by `run.py --write`.\n\n"
        (_HERE / "README.md").write_text(title + figures, encoding="utf-8")


if __name__ == "__main__":
    main()
