"""Sum up the JUnit reports in the given folders; the last line is like that of pytest.

Exits with 1 if a test failed or none ran.
"""

import sys
import xml.etree.ElementTree as ElementTree
from pathlib import Path


def count(report: Path) -> tuple[dict[str, int], float]:
    """Return the numbers of tests by outcome and the seconds of all suites in `report`."""
    outcomes = {"failed": 0, "passed": 0, "skipped": 0}
    seconds = 0.0
    for case in ElementTree.parse(report).iter("testcase"):
        seconds += float(case.get("time", 0))
        if case.find("failure") is not None or case.find("error") is not None:
            outcomes["failed"] += 1
        elif case.find("skipped") is not None or case.get("status") in ("notrun", "disabled"):
            outcomes["skipped"] += 1
        else:
            outcomes["passed"] += 1
    return outcomes, seconds


def told(outcomes: dict[str, int]) -> str:
    """Return for example "2 failed, 40 passed"."""
    return ", ".join(f"{n} {outcome}" for outcome, n in outcomes.items() if n) or "no tests ran"


def main(folders: list[str]) -> int:
    """Print a line for each report and the sum; return the exit code."""
    total = {"failed": 0, "passed": 0, "skipped": 0}
    total_seconds = 0.0
    print("\n==> Test summary")
    for report in sorted(path for folder in folders for path in Path(folder).glob("*.xml")):
        outcomes, seconds = count(report)
        total_seconds += seconds
        for outcome, n in outcomes.items():
            total[outcome] += n
        print(f"{report.parent.name + '/' + report.stem:<28} {told(outcomes)} in {seconds:.1f}s")
    print(f"===== {told(total)} in {total_seconds:.2f}s =====")
    return 1 if total["failed"] or not total["passed"] else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
