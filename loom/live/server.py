"""Answers questions of other processes, on the main loop's thread, between its slices.

A question is one line of JSON, and so is the answer, after which the connection ends. Nothing here
waits: what a client doesn't read stays in a buffer of its own until its time is over.
"""

from __future__ import annotations

import asyncio
import json
import logging
import socket
from collections.abc import Callable, Mapping
from pathlib import Path
from typing import Any, Final

from loom.live.address import listen, lock, socket_path, unlock

__all__ = ["LiveServer"]

_log = logging.getLogger("loom.live")

# A client has so long for its question and for reading the answer.
_kClientSeconds: Final = 5.0

# More clients at a time are turned away, and so is a longer question.
_kMostClients: Final = 16
_kLongestQuestion: Final = 64 * 1024

_kReadBytes: Final = 16 * 1024

Answer = Callable[[Mapping[str, Any]], Mapping[str, Any]]


class LiveServer:
    """Listens from its making on until `close`.

    `answer` gets a question and returns the answer; a `ValueError` of it tells the client what is
    wrong with the question.

    Raises `TakenError` if another process answers for the database, `OSError` if nothing can be
    made beside it.
    """

    def __init__(self, loop: asyncio.AbstractEventLoop, db_path: Path, answer: Answer) -> None:
        self.loop = loop
        self._answer = answer
        self._path = socket_path(db_path)
        self._clients: set[_Client] = set()
        self._lock = lock(self._path)
        try:
            self._listener = listen(self._path)
        except BaseException:
            unlock(self._path, self._lock)
            raise
        loop.add_reader(self._listener, self._accept)

    def close(self) -> None:
        """Listen no more. Clients that are left get nothing further."""
        self.loop.remove_reader(self._listener)
        self._listener.close()
        for client in list(self._clients):
            client.drop()
        self._path.unlink(missing_ok=True)
        unlock(self._path, self._lock)

    def _accept(self) -> None:
        try:
            connection, _ = self._listener.accept()
        except OSError as error:  # gone again, or there is no descriptor left
            _log.info("a client couldn't be taken: %s", error)
            return
        if len(self._clients) >= _kMostClients:
            connection.close()
        else:
            self._clients.add(_Client(self, connection))

    def reply_to(self, question: bytes) -> bytes:
        """The line that answers a line."""
        try:
            parsed = json.loads(question)
            if not isinstance(parsed, dict):
                raise ValueError("a question is a JSON object")
            answer = self._answer(parsed)
        except (ValueError, RecursionError) as error:
            answer = {"error": str(error)}
        except Exception as error:
            _log.exception("a question couldn't be answered")
            answer = {"error": f"{type(error).__name__}: {error}"}
        return json.dumps(answer).encode() + b"\n"

    def forget(self, client: _Client) -> None:
        """The client's connection has ended."""
        self._clients.discard(client)


class _Client:
    """One connection: first the question comes in, then the answer goes out."""

    def __init__(self, server: LiveServer, connection: socket.socket) -> None:
        self._server = server
        self._connection = connection
        self._question = b""
        self._answer = memoryview(b"")
        connection.setblocking(False)
        self._deadline = server.loop.call_later(_kClientSeconds, self.drop)
        server.loop.add_reader(connection, self._read)

    def _read(self) -> None:
        try:
            data = self._connection.recv(_kReadBytes)
        except BlockingIOError:
            return
        except OSError:
            data = b""
        self._question += data
        line, end, _ = self._question.partition(b"\n")
        if end:
            self._server.loop.remove_reader(self._connection)
            self._answer = memoryview(self._server.reply_to(line))
            self._server.loop.add_writer(self._connection, self._write)
        elif not data or len(self._question) > _kLongestQuestion:
            self.drop()

    def _write(self) -> None:
        try:
            sent = self._connection.send(self._answer)
        except BlockingIOError:
            return
        except OSError:
            self.drop()
            return
        self._answer = self._answer[sent:]
        if not self._answer:
            self.drop()

    def drop(self) -> None:
        """End the connection, whatever its state."""
        self._deadline.cancel()
        self._server.loop.remove_reader(self._connection)
        self._server.loop.remove_writer(self._connection)
        self._connection.close()
        self._server.forget(self)
