"""What the first process and a helper say to each other.

The two greetings never change their shape, so that any two versions understand that they don't
understand each other. The rest may change with `kProtocolVersion`.

A file is named by the number of its job, which the first process gives.
"""

from __future__ import annotations

from typing import Final

import msgspec

from loom import freshness
from loom.store.records import FileRecord, FileState, FileTimes

__all__ = [
    "Added",
    "AddPairs",
    "Flush",
    "Greeting",
    "Job",
    "Left",
    "Report",
    "Reread",
    "Result",
    "Starting",
    "ToHelper",
    "check_greeting",
    "greeting",
    "greeting_decoder",
    "report_decoder",
    "to_helper_decoder",
]

# To be raised with every change of the messages below or of `FileRecord`.
kProtocolVersion: Final = 1

_kMagic: Final = "loom-helper"


class Greeting(msgspec.Struct, array_like=True, frozen=True):
    """The first message in each direction."""

    magic: str
    protocol: int
    scanner: int


def greeting() -> Greeting:
    """Ours."""
    return Greeting(_kMagic, kProtocolVersion, freshness.kScannerVersion)


def check_greeting(theirs: Greeting) -> str:
    """Why the two sides can't work together; empty if they can."""
    ours = greeting()
    if theirs.magic != ours.magic:
        return "the other side is no helper of this program"
    if theirs != ours:
        return (
            f"the other side speaks version {theirs.protocol} of the protocol with scanner"
            f" {theirs.scanner}, this one version {ours.protocol} with scanner {ours.scanner}"
        )
    return ""


# --- to the helper


class Job(msgspec.Struct, array_like=True, frozen=True):
    """One file. `path` is as the file system has it.

    `is_python` tells that it is Python whatever it looks like, `known` for which state of the file
    there are results already.
    """

    number: int
    path: bytes
    is_python: bool
    known: FileState | None


class AddPairs(msgspec.Struct, tag="add", array_like=True, frozen=True):
    """Scan these whole files; those that are `first` before others."""

    jobs: list[Job]
    first: bool


class Flush(msgspec.Struct, tag="flush", array_like=True, frozen=True):
    """Forget all work. A file that is being scanned may still be reported."""


ToHelper = AddPairs | Flush


# --- from the helper


class Added(msgspec.Struct, tag="added", array_like=True, frozen=True):
    """These jobs joined the helper's queue. Comes before anything else that is said of them."""

    numbers: list[int]


class Starting(msgspec.Struct, tag="starting", array_like=True, frozen=True):
    """This job is being scanned from now on. Sent where there is no status page to say so."""

    number: int


class Result(msgspec.Struct, tag="result", array_like=True, frozen=True):
    """The job is done. `incomplete` are the scopes that couldn't be read to their end.

    The URL of the record is that of the file on the helper's machine.
    """

    number: int
    record: FileRecord
    incomplete: list[str]


class Reread(msgspec.Struct, tag="reread", array_like=True, frozen=True):
    """The job is done: the file holds the very bytes whose results are known."""

    number: int
    digest: bytes
    times: FileTimes


class Left(msgspec.Struct, tag="left", array_like=True, frozen=True):
    """These jobs left the queue without a scan: the results still hold, the file is gone, or there
    is another reason, such as that it isn't Python.
    """

    unchanged: list[int]
    gone: list[int]
    other: list[int]


Report = Added | Starting | Result | Reread | Left


def greeting_decoder() -> msgspec.msgpack.Decoder[Greeting]:
    return msgspec.msgpack.Decoder(Greeting)


def to_helper_decoder() -> msgspec.msgpack.Decoder[ToHelper]:
    return msgspec.msgpack.Decoder(ToHelper)


def report_decoder() -> msgspec.msgpack.Decoder[Report]:
    return msgspec.msgpack.Decoder(Report)
