"""Asking the process that runs on a database."""

from __future__ import annotations

import json
import socket
from collections.abc import Mapping
from pathlib import Path
from typing import Any, Final

from loom.live.address import at_socket, socket_path

__all__ = ["LiveError", "ask"]

# A busy process answers between two slices, well below a second.
_kAnswerSeconds: Final = 5.0

_kReadBytes: Final = 64 * 1024


class LiveError(Exception):
    """A process runs on the database, but has no good answer. The text says why."""


def ask(
    db_path: Path, question: Mapping[str, Any], seconds: float = _kAnswerSeconds
) -> dict[str, Any] | None:
    """The answer, or none if no process runs on the database. Raises `LiveError`."""
    path = socket_path(db_path)
    try:
        with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as connection:
            connection.settimeout(seconds)
            with at_socket(path) as name:
                connection.connect(name)
            connection.sendall(json.dumps(question).encode() + b"\n")
            pieces = []
            while piece := connection.recv(_kReadBytes):
                pieces.append(piece)
    except (FileNotFoundError, ConnectionRefusedError):
        return None  # nobody, or what somebody left who was killed
    except TimeoutError as error:
        raise LiveError("a loom process runs on this database, but doesn't answer") from error
    except OSError as error:
        raise LiveError(f"{path} can't be asked: {error.strerror or error}") from error
    try:
        answer = json.loads(b"".join(pieces))
    except ValueError as error:
        raise LiveError(f"{path} gave no answer that can be read") from error
    if not isinstance(answer, dict):
        raise LiveError(f"{path} gave no answer that can be read")
    if "error" in answer:
        raise LiveError(str(answer["error"]))
    return answer
