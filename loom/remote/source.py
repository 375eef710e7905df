"""Reading the source text of remote files."""

from __future__ import annotations

import hashlib
from collections.abc import Callable, Generator
from typing import Final

from loombase.inspection import CFileKind, CFileState
from loombase.location import CSshFileLocation
from singleton import GetSingletons

from loom import freshness
from loom.remote.files import PendingRead, RemoteFiles
from loom.sourcetext import SourceError, SourceText, kMaxSourceBytes

__all__ = ["read_remote_source"]

_kDigestBytes: Final = 1024 * 1024


def read_remote_source(
    loc: CSshFileLocation, text: SourceText, wake: Callable[[], object]
) -> Generator[bool, None, None]:
    """Read the file's bytes into `text`. Raises `SourceError`.

    Yields true between steps, and false while the bytes aren't there; `wake` is called when they
    are, or when they won't come.
    """
    files: RemoteFiles
    files = GetSingletons().fAnalysisMgr.fLocationDataCache.GetRemoteFiles()
    read_ns = freshness.now_ns()
    state = files.state_of(loc)
    if state is not None:
        # Looked at before it is opened: opening a device or a pipe can do things.
        _take_state(state, text, read_ns)
    while True:
        pending = files.read(loc, kMaxSourceBytes + 1, wake)
        try:
            while pending.content is None and pending.error is None:
                yield False
        finally:
            pending.close()
        if pending.error is None:
            break
        # A scanner may be taken up again long after its server was given up.
        if not pending.error.server_failed or not pending.server_is_back():
            raise _source_error(files, loc, pending)
    content = pending.content
    assert content is not None
    _take_state(content.state, text, read_ns)
    text.data = content.data
    if not content.whole:
        raise _too_big(f"more than {kMaxSourceBytes:,}")
    digest = hashlib.blake2b(digest_size=16, usedforsecurity=False)
    for start in range(0, len(text.data), _kDigestBytes):
        if start:
            yield True
        digest.update(text.data[start : start + _kDigestBytes])
    text.digest = digest.digest()


def _take_state(state: CFileState, text: SourceText, read_ns: int) -> None:
    if state.kind is CFileKind.ABSENT:
        raise SourceError("can't be read: no such file", gone=True)
    if state.kind is CFileKind.CLOSED:
        raise SourceError(f"can't be read: {state.reason}")
    text.mtime_ns = state.mtime_ns
    text.size = state.size
    text.settled = freshness.is_settled(text.mtime_ns, read_ns)
    if state.kind is not CFileKind.FILE:
        raise SourceError(f"not a regular file, but {state.kind.value}", lasting=True)
    if state.size > kMaxSourceBytes:
        raise _too_big(f"{state.size:,}")


def _too_big(size: str) -> SourceError:
    return SourceError(
        f"too big: {size} bytes, and the limit is {kMaxSourceBytes:,}", lasting=True
    )


def _source_error(
    files: RemoteFiles, loc: CSshFileLocation, pending: PendingRead
) -> SourceError:
    error = pending.error
    assert error is not None
    if error.server_failed:
        files.report_failed(loc)
        return SourceError(str(error), unreachable=True)
    return SourceError(f"can't be read: {error}", gone=error.gone)
