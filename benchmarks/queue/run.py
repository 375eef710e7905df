"""Measure the scan queue beside its plain-Python twin and beside a floor, in one run.

    python benchmarks/queue/run.py                 # all sizes, some minutes
    python benchmarks/queue/run.py 1000 10000      # these numbers of locations
    python benchmarks/queue/run.py --write-readme  # also puts the tables into README.md here

What is measured, and how, is told in README.md. Each number of locations and kind of hash is
measured in a process of its own, and so is the memory of each implementation.
"""

import argparse
import gc
import json
import os
import platform
import random
import subprocess
import sys
import time
from collections.abc import Callable, Iterable
from pathlib import Path
from typing import Any

kHere = Path(__file__).resolve().parent
sys.path.insert(0, str(kHere))  # python -P doesn't

from measured import Counting, floor_of, locations_of, resident_bytes

kCore = kHere.parent.parent / "tests" / "python" / "core"
kHost = (kCore / "fakehost", kCore / "queue")

kSizes = (1_000, 10_000, 100_000, 1_000_000)
kKinds = ("identity", "python")
kImplementations = ("cpp", "twin")
kOperations = ("add", "add one", "re-add", "raise", "first and complete", "promote")
kScanName = "primary"
kMostPromotions = 20_000
kLeastSeconds = 3.0  # of measuring one number of locations and kind of hash
kLeastRounds = 2
kMostRounds = 50
kMemoryScans = 200_000  # at least so many scans are queued to measure the bytes of one

# (what, measured against, limit, sizes it is stated for)
kTargets = (
    ("add", "floor", 5.0, kSizes),
    ("first and complete", "floor", 8.0, kSizes),
    ("add", "twin", 10.0, kSizes[:3]),
    ("add", "twin", 6.0, kSizes[3:]),
    ("first and complete", "twin", 10.0, kSizes[:3]),
    ("first and complete", "twin", 6.0, kSizes[3:]),
)


def load(implementation: str) -> Any:
    """The module that holds the queue, over the small host of the tests."""
    sys.path[:0] = [str(folder) for folder in kHost]
    if implementation == "twin":
        import twin

        return twin
    from pysource import scancoordinator

    return scancoordinator


def new_queue(module: Any) -> Any:
    """An empty queue, as its owner makes it."""
    from queue_support import FakeLocationDataCache

    queue = module._CScanQueue(FakeLocationDataCache())
    queue.SetScansToOrder({kScanName: 1, "derived": 2})
    return queue


def forget(queue: Any) -> None:
    """Destroy a queue and what the host remembers of it."""
    import hostlog

    queue.destroy()
    hostlog.calls.clear()


def seconds(operation: Callable[[], object]) -> float:
    """Processor time of one call: what other processes take doesn't count."""
    start = time.thread_time()
    operation()
    return time.thread_time() - start


def complete_all(queue: Any) -> None:
    """`First` and `ScanCompleted` until nothing is queued."""
    first, completed = queue.First, queue.ScanCompleted
    item = first()
    while item.loc is not None:
        completed(item)
        item = first()


def one_by_one(queue: Any, pair_lists: Iterable[Any]) -> None:
    """A call for each pair."""
    add = queue.AddScanPairs
    for pairs in pair_lists:
        add(pairs, kScanName, 2, True)


def show_each(queue: Any, locs: Iterable[Any]) -> None:
    """Each location becomes the active one in turn."""
    show = queue.UpdateForVisibleDocuments
    for loc in locs:
        show(loc, ())


def one_round(module: Any, locs: list[Any], seed: int) -> dict[str, float]:
    """Seconds of each operation per scan, on new queues."""
    choose = random.Random(seed)

    def shuffled() -> list[Any]:
        order = locs[:]
        choose.shuffle(order)
        return order

    count = len(locs)
    times = {}
    queue = new_queue(module)
    pairs = [(loc, "*") for loc in shuffled()]
    times["add"] = seconds(lambda: queue.AddScanPairs(pairs, kScanName, 2, True)) / count
    pairs = [(loc, "*") for loc in shuffled()]
    times["re-add"] = seconds(lambda: queue.AddScanPairs(pairs, kScanName, 2, True)) / count
    chosen = shuffled()[:kMostPromotions]
    times["promote"] = seconds(lambda: show_each(queue, chosen)) / len(chosen)
    forget(queue)

    queue = new_queue(module)
    pair_lists = [[(loc, "*")] for loc in shuffled()]
    times["add one"] = seconds(lambda: one_by_one(queue, pair_lists)) / count
    pairs = [(loc, "*") for loc in shuffled()]
    times["raise"] = seconds(lambda: queue.AddScanPairs(pairs, kScanName, 1, True)) / count
    times["first and complete"] = seconds(lambda: complete_all(queue)) / count
    assert queue.Empty()
    forget(queue)
    return times


def measure_speed(count: int, kind: str) -> dict[str, dict[str, float]]:
    """Nanoseconds by operation: of the floor and of both implementations. In this process.

    Rounds of all of them take turns, and the least of each time counts.
    """
    gc.disable()
    modules = {name: load(name) for name in kImplementations}
    locs = locations_of(kind, count)
    best: dict[str, dict[str, float]] = {"floor": {}, "cpp": {}, "twin": {}}
    start = time.thread_time()
    for seed in range(kMostRounds):
        times = {"floor": floor_of(locs, seed)}
        times |= {name: one_round(module, locs, seed) for name, module in modules.items()}
        for name, values in times.items():
            for what, value in values.items():
                best[name][what] = min(value * 1e9, best[name].get(what, float("inf")))
        if seed >= kLeastRounds - 1 and time.thread_time() - start > kLeastSeconds:
            break
    return best


def measure_calls(implementation: str) -> dict[str, float]:
    """Calls of `__hash__` and `__eq__` of a location for each add, first one and again."""
    module = load(implementation)
    locs = [Counting() for _ in range(10_000)]
    queue = new_queue(module)
    calls = {}
    for what, priority in (("add", 2), ("re-add", 2), ("raise", 1)):
        Counting.hashes = Counting.equals = 0
        for loc in locs:
            queue.AddScanPairs([(loc, "*")], kScanName, priority, True)
        calls[f"{what} hash"] = Counting.hashes / len(locs)
        calls[f"{what} eq"] = Counting.equals / len(locs)
    return calls


def measure_memory(implementation: str, count: int) -> float:
    """Bytes of a queued whole-file scan, after the idle proc that reports the adds."""
    gc.disable()
    module = load(implementation)
    from guiutils import lgtk

    import hostlog

    locs = locations_of("identity", count)
    random.Random(1).shuffle(locs)
    pairs = [(loc, "*") for loc in locs]
    queues = [new_queue(module) for _ in range(max(1, kMemoryScans // count))]
    spare = new_queue(module)  # what is allocated once for all
    spare.AddScanPairs(pairs[:100], kScanName, 2, True)
    lgtk.run_idle()
    before = resident_bytes()
    for queue in queues:
        queue.AddScanPairs(pairs, kScanName, 2, True)
        lgtk.run_idle()
        hostlog.calls.clear()
    after = resident_bytes()
    return (after - before) / (count * len(queues))


def in_subprocess(*what: str) -> Any:
    """The result of one measurement in a process of its own."""
    command = [sys.executable, __file__, "--measure", *what]
    # A fixed seed: the order of sets of texts is the same for all.
    environment = {**os.environ, "PYTHONHASHSEED": "0"}
    done = subprocess.run(command, check=True, stdout=subprocess.PIPE, env=environment)
    return json.loads(done.stdout)


def measure(what: str, *args: str) -> Any:
    """What a subprocess is asked for."""
    if what == "speed":
        return measure_speed(int(args[0]), args[1])
    if what == "memory":
        return measure_memory(args[0], int(args[1]))
    return measure_calls(args[0])


def speed_lines(count: int, kind: str, measured: dict[str, dict[str, float]]) -> list[str]:
    """Rows of the table of speeds."""
    floor = measured["floor"]["floor"]
    rows = []
    for what in kOperations:
        cpp, twin = measured["cpp"][what], measured["twin"][what]
        rows.append(
            f"| {count:,} | {kind} | {what} | {cpp:,.0f} | {1e9 / cpp / 1e6:.2f} | {twin:,.0f} "
            f"| {floor:.0f} | {cpp / floor:.1f} | {twin / cpp:.1f} |"
        )
    return rows


def target_lines(speeds: dict[tuple[int, str], Any], memory: dict[Any, float]) -> list[str]:
    """Each target with what it came to."""
    lines = ["| Target | Locations | Hash | Reached |", "|---|---:|---|---|"]
    for what, against, limit, sizes in kTargets:
        for (count, kind), measured in speeds.items():
            if count not in sizes:
                continue
            cpp = measured["cpp"][what]
            if against == "floor":
                ratio, text = cpp / measured["floor"]["floor"], f"{what}: at most {limit:g} floors"
                met = ratio <= limit
            else:
                ratio, text = measured["twin"][what] / cpp, f"{what}: at least {limit:g} x the twin"
                met = ratio >= limit
            lines.append(f"| {text} | {count:,} | {kind} | {ratio:.1f}: {'yes' if met else 'no'} |")
    for (implementation, count), value in memory.items():
        if implementation == "cpp" and count == 100_000:
            met = f"{value:.0f}: {'yes' if value <= 128 else 'no'}"
            lines.append(f"| at most 128 bytes a scan | {count:,} | identity | {met} |")
    return lines


def machine() -> str:
    """One line on what was measured on."""
    model = platform.processor() or platform.machine()
    try:
        for line in Path("/proc/cpuinfo").read_text().splitlines():
            if line.startswith("model name"):
                model = line.split(":", 1)[1].strip()
                break
    except OSError:
        pass
    return (
        f"{os.cpu_count()} cores ({model}), CPython {platform.python_version()}, "
        f"debug checks {'on' if __debug__ else 'off'}, "
        f"load {os.getloadavg()[0]:.1f} at the start"
    )


def run(sizes: list[int]) -> str:
    """Measure all and return the tables."""
    lines = [machine(), ""]
    speeds = {}
    lines += [
        "| Locations | Hash | Operation | C++ ns | C++ M/s | twin ns | floor ns "
        "| C++ / floor | twin / C++ |",
        "|---:|---|---|---:|---:|---:|---:|---:|---:|",
    ]
    for count in sizes:
        for kind in kKinds:
            print(f"measuring {count:,} locations, {kind} hash", file=sys.stderr, flush=True)
            speeds[count, kind] = in_subprocess("speed", str(count), kind)
            lines += speed_lines(count, kind, speeds[count, kind])
    any_speed = next(iter(speeds.values()))["floor"]
    lines += [
        "",
        f"An empty loop over the keys takes {any_speed['loop']:.0f} ns a key (it is part of the "
        f"floor), a call of the host's `IsAsyncInspectLocation` {any_speed['host call']:.0f} ns "
        "(it is part of each add).",
        "",
        "| Locations | C++ bytes a scan | twin bytes a scan | twin / C++ |",
        "|---:|---:|---:|---:|",
    ]
    memory = {}
    for count in sizes:
        print(f"measuring the memory of {count:,} locations", file=sys.stderr, flush=True)
        for name in kImplementations:
            memory[name, count] = in_subprocess("memory", name, str(count))
        cpp, twin = memory["cpp", count], memory["twin", count]
        lines.append(f"| {count:,} | {cpp:.0f} | {twin:.0f} | {twin / cpp:.1f} |")
    heads = ("C++ `__hash__`", "C++ `__eq__`", "twin `__hash__`", "twin `__eq__`")
    lines += ["", f"| Calls for each | {' | '.join(heads)} |"]
    lines.append("|---|---:|---:|---:|---:|")
    calls = {name: in_subprocess("calls", name) for name in kImplementations}
    for what in ("add", "re-add", "raise"):
        numbers = [calls[n][f"{what} {m}"] for n in kImplementations for m in ("hash", "eq")]
        lines.append(f"| {what} | " + " | ".join(f"{n:.2f}" for n in numbers) + " |")
    return "\n".join([*lines, "", *target_lines(speeds, memory)])


def write_readme(tables: str) -> None:
    """Put the tables between the two marks of README.md."""
    readme = kHere / "README.md"
    start, end = "<!-- tables: written by run.py -->", "<!-- end of tables -->"
    text = readme.read_text(encoding="utf-8")
    before, rest = text.split(start)
    after = rest.split(end)[1]
    readme.write_text(f"{before}{start}\n\n{tables}\n\n{end}{after}", encoding="utf-8")


def main() -> None:
    """Command line."""
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("sizes", nargs="*", type=int, default=list(kSizes), metavar="LOCATIONS")
    parser.add_argument("--write-readme", action="store_true", help="put the tables into README.md")
    parser.add_argument("--measure", nargs="+", help=argparse.SUPPRESS)
    options = parser.parse_args()
    if options.measure:
        json.dump(measure(*options.measure), sys.stdout)
        return
    tables = run(options.sizes)
    print(tables)
    if options.write_readme:
        write_readme(tables)


if __name__ == "__main__":
    main()
