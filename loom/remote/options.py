"""How servers are reached, and how long they are waited for."""

from __future__ import annotations

from dataclasses import dataclass
from pathlib import Path

__all__ = ["RemoteOptions", "RemotePatience"]


@dataclass(frozen=True, slots=True)
class RemotePatience:
    """How long servers are waited for, and how much is asked of one at once. Times in seconds.

    A connection is taken for dead when nothing has come over it for `answer` seconds while
    answers were due, or when it wasn't there after `connect` seconds. After the first failure the
    next try comes after `first_retry` seconds, then after twice as many each time, up to
    `last_retry`. A server that hasn't answered anything for `give_up` seconds since it first
    failed is given up; so is a request that was the next to be answered when `tries` connections
    were lost, but that one alone.

    At most `requests` are under way at once, and at most `reads` of them read files. Files of at
    most `held_bytes` in all are on their way or wait to be scanned, but one always may.
    """

    connect: float = 20.0
    answer: float = 20.0
    first_retry: float = 1.0
    last_retry: float = 15.0
    give_up: float = 60.0
    tries: int = 3
    requests: int = 64
    reads: int = 32
    held_bytes: int = 32 * 1024 * 1024


@dataclass(frozen=True, slots=True)
class RemoteOptions:
    """What the user has said about connections; none leaves it to the defaults of OpenSSH.

    `config` is a configuration file, `identity` one with a private key, `known_hosts` one with the
    keys of servers.
    """

    config: Path | None = None
    identity: Path | None = None
    known_hosts: Path | None = None
    patience: RemotePatience = RemotePatience()
