"""Print a table of how many lines the tests run, by rooms, and below it the lines that none runs.

    coverage_summary.py BUILD       the folder of scripts/run_coverage.sh
"""

import json
import sys
from collections import defaultdict
from pathlib import Path

# File: numbers of its lines, and of those that no test runs.
Lines = dict[str, tuple[set[int], set[int]]]


def python_lines(path: Path) -> Lines:
    found = {}
    for name, file in json.loads(path.read_text())["files"].items():
        missing = set(file["missing_lines"])
        found[name] = (set(file["executed_lines"]) | missing, missing)
    return found


def cpp_lines(path: Path) -> Lines:
    found = {}
    for file in json.loads(path.read_text())["files"]:
        counts: dict[int, int] = defaultdict(int)
        for line in file["lines"]:
            # A template has a count for each of its instances.
            counts[line["line_number"]] += line["count"]
        found[file["file"]] = (set(counts), {line for line, count in counts.items() if not count})
    return found


def ranges(numbers: set[int]) -> str:
    """"3, 5-7" for {3, 5, 6, 7}."""
    parts: list[list[int]] = []
    for number in sorted(numbers):
        if parts and number == parts[-1][-1] + 1:
            parts[-1].append(number)
        else:
            parts.append([number])
    return ", ".join(f"{p[0]}-{p[-1]}" if len(p) > 1 else str(p[0]) for p in parts)


def table(title: str, lines: Lines) -> list[str]:
    rooms: dict[str, list[int]] = defaultdict(lambda: [0, 0])
    for name, (known, missing) in lines.items():
        for room in (str(Path(name).parent), "all"):
            rooms[room][0] += len(known)
            rooms[room][1] += len(missing)
    rows = [f"## {title}", "", "| Room | Lines | Not run | Run |", "|---|---:|---:|---:|"]
    for room in sorted(rooms, key=lambda room: (room == "all", room)):
        known, missing = rooms[room]
        share = 100 * (known - missing) / known if known else 100
        rows.append(f"| {room} | {known} | {missing} | {share:.1f} % |")
    rows += ["", "Not run:", ""]
    for name, (_, missing) in sorted(lines.items()):
        if missing:
            rows.append(f"- {name}: {ranges(missing)}")
    return [*rows, ""]


def main(build: Path) -> None:
    text = table("Python", python_lines(build / "python" / "coverage.json"))
    text += table("C++", cpp_lines(build / "cpp" / "coverage.json"))
    print("\n".join(text))


if __name__ == "__main__":
    main(Path(sys.argv[1]))
