"""What the queue is measured with: locations, the floor, resident memory."""

import ctypes
import random
import sys
import time
from pathlib import Path
from typing import Any


class Identity:
    """A location whose hash and equality are those of identity, as interned ones have."""

    def __init__(self, number: int) -> None:
        self.fUrl = f"file:///project/package{number % 97}/module{number}.py"


class PythonHashed(Identity):
    """A location with hash and equality written in Python."""

    def __hash__(self) -> int:
        return hash(self.fUrl)

    def __eq__(self, other: object) -> bool:
        return isinstance(other, PythonHashed) and self.fUrl == other.fUrl


class Counting:
    """A location that counts the questions it is asked."""

    hashes = 0
    equals = 0

    def __hash__(self) -> int:
        Counting.hashes += 1
        return id(self) >> 4

    def __eq__(self, other: object) -> bool:
        Counting.equals += 1
        return self is other


def locations_of(kind: str, count: int) -> list[Any]:
    """New locations in random order."""
    make = {"identity": Identity, "python": PythonHashed}[kind]
    locs = [make(number) for number in range(count)]
    random.Random(count).shuffle(locs)
    return locs


def floor_of(locs: list[Any], seed: int) -> dict[str, float]:
    """Seconds for each key.

    "floor" is one store into and one delete from a dictionary, in random order, in plain loops
    whose own time ("loop") is part of it; "host call" is one question to the host.
    """
    from loombase import location

    choose = random.Random(seed)
    stored, deleted = locs[:], locs[:]
    choose.shuffle(stored)
    choose.shuffle(deleted)
    return {
        "floor": _store_and_delete(stored, deleted) / len(locs),
        "loop": _loop(stored) / len(locs),
        "host call": _call_for_each(location.IsAsyncInspectLocation, stored) / len(locs),
    }


def _store_and_delete(stored: list[Any], deleted: list[Any]) -> float:
    table: dict[Any, int] = {}
    start = time.thread_time()
    for key in stored:
        table[key] = 2
    for key in deleted:
        del table[key]
    return time.thread_time() - start


def _loop(keys: list[Any]) -> float:
    start = time.thread_time()
    for _key in keys:
        pass
    return time.thread_time() - start


def _call_for_each(function: Any, keys: list[Any]) -> float:
    start = time.thread_time()
    for key in keys:
        function(key)
    return time.thread_time() - start


def resident_bytes() -> int:
    """Memory of this process that is resident, after what is free was given back."""
    if sys.platform != "linux":
        raise RuntimeError("memory is measured on Linux only")
    ctypes.CDLL(None).malloc_trim(0)
    for line in Path("/proc/self/smaps_rollup").read_text().splitlines():
        if line.startswith("Rss:"):
            return int(line.split()[1]) * 1024
    raise RuntimeError("no Rss in /proc/self/smaps_rollup")
