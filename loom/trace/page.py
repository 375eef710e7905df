"""The report of a run as one page that needs nothing else: no server, no network."""

from __future__ import annotations

import importlib.resources
import json
import os
from collections import Counter
from collections.abc import Hashable, Iterator, Mapping, Sequence
from itertools import islice
from typing import Any, Final

from loom.leftout import obstacle
from loom.trace.observe import TracedCoordinator, name_of
from loom.trace.recorder import TraceRecorder

__all__ = ["report_page"]

# More rows than this of a kind nobody reads; the page says how many there are.
_kMostRows: Final = 200

# Points of a curve, and bars of slices: about as many as a screen has columns.
_kMostPoints: Final = 2000

# The element of the template whose text is replaced.
_kPlace: Final = "{}"


def report_page(
    recorder: TraceRecorder,
    coordinator: TracedCoordinator,
    report: Mapping[str, Any],
    roots: Sequence[str],
) -> str:
    """The page, as HTML.

    `report` is what the command says as JSON, `roots` are the local paths that were scanned.
    """
    template = importlib.resources.files("loom.trace").joinpath("page.html").read_text("utf-8")
    data = {
        "report": {**report, "errors": report["errors"][:_kMostRows]},
        "error_count": len(report["errors"]),
        "slices": _thinned([[e["ts"], e["dur"]] for e in _of(recorder, "slice")]),
        "others": _thinned([[e["ts"], e["dur"], e["name"]] for e in _of(recorder, "host")]),
        "depths": _depths(recorder),
        "slowest": _slowest(recorder),
        "causes": _causes(coordinator.causes),
        "left_out": list(islice(_left_out(roots), _kMostRows)),
        "dropped": recorder.dropped,
    }
    # What ends a script element can't stand in it.
    return template.replace(_kPlace, json.dumps(data).replace("</", "<\\/"), 1)


def _of(recorder: TraceRecorder, category: str) -> Iterator[dict[str, Any]]:
    return (e for e in recorder.events if e["ph"] == "X" and e["cat"] == category)


def _thinned(spans: list[list[Any]]) -> list[list[Any]]:
    """The longest of so many spans that not all can be drawn, in order of time."""
    if len(spans) > _kMostPoints:
        spans = sorted(spans, key=lambda span: -span[1])[:_kMostPoints]
    return sorted(spans)


def _depths(recorder: TraceRecorder) -> dict[str, list[list[float]]]:
    """For each priority the number of queued files over time."""
    counters = [e for e in recorder.events if e["ph"] == "C"]
    step = len(counters) // _kMostPoints + 1
    names = sorted({name for e in counters for name in e["args"]})
    return {
        name: [[e["ts"], e["args"].get(name, 0)] for e in counters[::step]] for name in names
    }


def _slowest(recorder: TraceRecorder) -> list[list[Any]]:
    """(file, milliseconds of scanning, slices), most time first."""
    times: Counter[str] = Counter()
    slices: Counter[str] = Counter()
    for event in _of(recorder, "scan slice"):
        times[event["name"]] += event["dur"]
        slices[event["name"]] += 1
    return [[name, time / 1000, slices[name]] for name, time in times.most_common(25)]


def _causes(causes: Mapping[Hashable, Hashable | None]) -> list[list[Any]]:
    """(file, how many files followed it into the queue, some of them), most first."""
    followers: dict[Hashable | None, list[Hashable]] = {}
    for loc, cause in causes.items():
        followers.setdefault(cause, []).append(loc)
    ordered = sorted(followers.items(), key=lambda item: -len(item[1]))[:_kMostRows]
    return [
        [name_of(cause) or "(the host)", len(locs), [name_of(loc) for loc in locs[:5]]]
        for cause, locs in ordered
    ]


def _left_out(roots: Sequence[str]) -> Iterator[list[str]]:
    """(file or folder, reason, rule with its place) of what the rules keep out."""
    for root in roots:
        told: set[str] = set()
        for folder, folders, files in os.walk(root):
            folders.sort()
            for name in sorted(files):
                if not name.endswith((".py", ".pyi", ".pyw")):
                    continue
                found = obstacle(os.path.abspath(os.path.join(folder, name)), os.path.abspath(root))
                if found is None or found.path in told:
                    continue
                told.add(found.path)
                place = f"{found.rule_file}:{found.rule_line}" if found.rule_file else ""
                yield [found.path, found.reason, place]
