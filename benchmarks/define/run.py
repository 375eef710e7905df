"""The answers of `loom define` beside those of jedi, on the same uses of names in real code.

    run.py [--seed N] [--write] [--show REASON]

Jedi's answers are kept in build/bench-define for the next run over the same files. `--write` puts
the tables into README.md beside this file, `--show` prints the uses with one reason.
"""

import argparse
import hashlib
import json
import os
import platform
import shutil
import subprocess
import sys
import tempfile
from collections import Counter, defaultdict
from collections.abc import Sequence
from importlib.metadata import version
from pathlib import Path
from typing import Any, Final

_HERE: Final = Path(__file__).resolve().parent
_KEPT: Final = _HERE.parents[1] / "build" / "bench-define"
sys.path.insert(0, str(_HERE))

from sample import Use, draw
from verdicts import AGREE, NEITHER, ONLY_LOOM, REASONS, RIGHT, verdict

# The kinds that the aim is for.
_AIMED: Final = ("import", "class", "function", "attribute of self")
_LEAST_RIGHT: Final = 0.90
_MOST_WARM_MS: Final = 2.0
_MOST_OVERRUN_MS: Final = 20.0

# Deadlines, in seconds, under which every use is asked once over an empty database.
_SHORT_DEADLINES: Final = (0.0005, 0.001, 0.002, 0.005, 0.02)
_DEADLINE: Final = 1.0

# A contestant that takes longer hangs.
_MOST_SECONDS: Final = 900

_BEGIN: Final = "<!-- measured: begin -->"
_END: Final = "<!-- measured: end -->"


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__.partition("\n")[0])
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--write", action="store_true")
    parser.add_argument("--show", metavar="REASON")
    options = parser.parse_args()
    uses = draw(options.seed)
    with tempfile.TemporaryDirectory() as folder:
        jedi = _jedi(uses, Path(folder))
        loom = _loom(uses, Path(folder))
    verdicts = [
        verdict(ours, [place for place in theirs if "failure" not in place])
        for ours, theirs in zip(loom["answers"], jedi["answers"], strict=True)
    ]
    if options.show:
        _show(options.show, uses, verdicts, loom["answers"], jedi["answers"])
        return
    report = "\n".join(_report(uses, verdicts, loom, jedi))
    print(report)
    if options.write:
        readme = _HERE / "README.md"
        text = readme.read_text()
        head, tail = text.partition(_BEGIN)[0], text.partition(_END)[2]
        readme.write_text(f"{head}{_BEGIN}\n{report}\n{_END}{tail}")


# --- the contestants


def _ask(contestant: str, folder: Path, task: dict[str, Any]) -> dict[str, Any]:
    given, wanted = folder / "task.json", folder / "result.json"
    given.write_text(json.dumps(task))
    command = [sys.executable, "-O", "-P", str(_HERE / "contestants.py"), contestant]
    subprocess.run([*command, str(given), str(wanted)], check=True, timeout=_MOST_SECONDS)
    result: dict[str, Any] = json.loads(wanted.read_text())
    return result


def _jedi(uses: Sequence[Use], folder: Path) -> dict[str, Any]:
    kept = _KEPT / f"jedi-{_digest(uses)}.json"
    if kept.exists():
        found: dict[str, Any] = json.loads(kept.read_text())
        return found
    cache, project = folder / "cache", folder / "project"
    project.mkdir()
    task = {"uses": [use.as_row() for use in uses], "rounds": 2}
    result = _ask("jedi", folder, {**task, "cache": str(cache), "project": str(project)})
    _KEPT.mkdir(parents=True, exist_ok=True)
    kept.write_text(json.dumps(result))
    return result


def _digest(uses: Sequence[Use]) -> str:
    """Tells samples apart, states of their files and releases of jedi included."""
    digest = hashlib.sha256(f"{sys.version} {version('jedi')}".encode())
    for use in uses:
        status = os.stat(use.path)
        digest.update(f"{use} {status.st_mtime_ns} {status.st_size}".encode())
    return digest.hexdigest()[:16]


def _loom(uses: Sequence[Use], folder: Path) -> dict[str, Any]:
    """Cold is over an empty database, warm a new process over what that has written."""
    db = folder / "define.sqlite3"
    task = {"uses": [use.as_row() for use in uses], "db": str(db), "deadline": _DEADLINE}
    cold = _ask("loom", folder, {**task, "rounds": 1})
    result = _ask("loom", folder, {**task, "rounds": 2})
    asked = [cold, result]
    partial = 0
    for deadline in _SHORT_DEADLINES:
        empty = folder / f"empty-{deadline}"
        empty.mkdir()
        short = _ask(
            "loom",
            folder,
            {**task, "db": str(empty / "db.sqlite3"), "deadline": deadline, "rounds": 1},
        )
        asked.append(short)
        partial += short["partial"]
        shutil.rmtree(empty)
    return {
        "answers": result["answers"],
        "rounds": [cold["rounds"][0], *result["rounds"]],
        "latest": max(each["latest"] for each in asked),
        "latest_busy": max(each["latest_busy"] for each in asked),
        "partial": partial,
    }


# --- the report


def _report(
    uses: Sequence[Use], verdicts: Sequence[str], loom: dict[str, Any], jedi: dict[str, Any]
) -> list[str]:
    lines = [
        "",
        f"jedi {version('jedi')}, CPython {platform.python_version()}, {platform.system()}"
        f" {platform.machine()}; {len(uses):,} uses in {len({use.path for use in uses})} files.",
        "",
    ]
    lines += _agreement(uses, verdicts)
    lines += _reasons(uses, verdicts)
    lines += _times(loom, jedi)
    return lines


def _agreement(uses: Sequence[Use], verdicts: Sequence[str]) -> list[str]:
    counts: defaultdict[str, Counter[str]] = defaultdict(Counter)
    for use, each in zip(uses, verdicts, strict=True):
        counts[use.kind][each] += 1
    lines = [
        "| Use | Uses | jedi answers | agree | loom right | agree or right | only loom | neither |",
        "|---|---:|---:|---:|---:|---:|---:|---:|",
    ]
    aimed: Counter[str] = Counter()
    for kind in (*_AIMED, *sorted(set(counts) - set(_AIMED))):
        lines.append(_row(kind, counts[kind]))
        if kind in _AIMED:
            aimed += counts[kind]
        if kind == _AIMED[-1]:
            lines.append(_row("**these four**", aimed))
    everything = sum(counts.values(), Counter())
    lines += [_row("all", everything), ""]
    reached = _share(aimed)
    told = _told(reached >= _LEAST_RIGHT)
    lines += [f"Aim: at least {_LEAST_RIGHT:.0%} of the four; {told}.", ""]
    return lines


def _share(counts: Counter[str]) -> float:
    answered = counts.total() - counts[ONLY_LOOM] - counts[NEITHER]
    right = counts[AGREE] + sum(counts[reason] for reason in RIGHT)
    return right / answered if answered else 1.0


def _row(title: str, counts: Counter[str]) -> str:
    answered = counts.total() - counts[ONLY_LOOM] - counts[NEITHER]
    right = sum(counts[reason] for reason in RIGHT)
    return (
        f"| {title} | {counts.total():,} | {answered:,} | {counts[AGREE]:,} | {right:,} "
        f"| {_share(counts):.1%} | {counts[ONLY_LOOM]:,} | {counts[NEITHER]:,} |"
    )


def _reasons(uses: Sequence[Use], verdicts: Sequence[str]) -> list[str]:
    counts = Counter(verdicts)
    of_kinds = Counter(each for use, each in zip(uses, verdicts, strict=True) if use.kind in _AIMED)
    lines = ["| Why they differ | of the four | of all | loom right |", "|---|---:|---:|---|"]
    for reason, (text, right) in REASONS.items():
        if counts[reason]:
            told = "yes" if right else "not counted"
            name = f"{text} (`{reason}`)"
            lines.append(f"| {name} | {of_kinds[reason]:,} | {counts[reason]:,} | {told} |")
    return [*lines, ""]


def _times(loom: dict[str, Any], jedi: dict[str, Any]) -> list[str]:
    lines = ["| Time of an answer, ms | median | 99 % | longest |", "|---|---:|---:|---:|"]
    rows = (
        ("loom, empty database", loom["rounds"][0]),
        ("loom, new process, database of the first", loom["rounds"][1]),
        ("loom, same process once more", loom["rounds"][2]),
        ("jedi, empty cache", jedi["rounds"][0]),
        ("jedi, same process once more", jedi["rounds"][1]),
    )
    for title, times in rows:
        ordered = sorted(times)
        middle, high = ordered[len(ordered) // 2], ordered[int(len(ordered) * 0.99)]
        lines.append(
            f"| {title} | {middle * 1e3:.2f} | {high * 1e3:.1f} | {ordered[-1] * 1e3:,.0f} |"
        )
    warm = sorted(loom["rounds"][1])[len(loom["rounds"][1]) // 2] * 1e3
    late = max(0.0, loom["latest"] * 1e3)
    busy = max(0.0, loom["latest_busy"] * 1e3)
    deadlines = ", ".join(f"{deadline * 1e3:g}" for deadline in _SHORT_DEADLINES)
    return [
        *lines,
        "",
        f"Aim: a warm answer in {_MOST_WARM_MS:g} ms at the median;"
        f" {_told(warm <= _MOST_WARM_MS)}.",
        "",
        f"Deadlines of {deadlines} ms over an empty database: {loom['partial']:,} answers were"
        f" partial and said so; the latest came {late:.1f} ms after its deadline, {busy:.1f} ms without"
        f" the time that other processes took. Aim: at most {_MOST_OVERRUN_MS:g} ms;"
        f" {_told(late <= _MOST_OVERRUN_MS)}.",
    ]


def _told(reached: bool) -> str:
    return "reached" if reached else "**missed**"


def _show(
    reason: str,
    uses: Sequence[Use],
    verdicts: Sequence[str],
    ours: Sequence[Any],
    theirs: Sequence[Any],
) -> None:
    for use, each, loom, jedi in zip(uses, verdicts, ours, theirs, strict=True):
        if each == reason:
            line = Path(use.path).read_text(encoding="utf-8").split("\n")[use.line - 1].strip()
            print(f"{use.path}:{use.line}:{use.column + 1}: {use.kind} {use.name} | {line[:100]}")
            for title, places in (("loom", loom), ("jedi", jedi)):
                for place in places[:3]:
                    print(f"    {title}: {place}")


if __name__ == "__main__":
    main()
