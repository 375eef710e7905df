"""What a scan session remembers of imports from one run to the next.

To find out where ten thousand files' imports lead takes several times as long as to find out that
none of the files has changed. So a session that comes to its end notes which folders were looked
into, and which files outside of the walk were come by. The next one over the same paths looks at
the times of these folders first: if all are what they were, it queues those files at once, and
follows the imports of changed files only.
"""

from __future__ import annotations

from collections.abc import Iterable, Iterator, Sequence
from hashlib import blake2b
from random import getrandbits
from typing import Final

from loombase.location import CLocalFileLocation, CLocation, LocationFromUrl
from pathspec import GitIgnoreSpec
from pysource.scopeinfo import CFollowing

from loom import freshness
from loom.app import App
from loom.resolve.resolver import is_as_it_was
from loom.store.followed import Followed, Stamp, kUrlsPerMark

__all__ = ["ImportMemory"]

# To be raised with every change of what names mean.
_VERSION: Final = 1

# Folders looked at between two steps: half a millisecond or so.
_FOLDERS_PER_STEP: Final = 200


class ImportMemory:
    """Of one session, over the local `folders`. The environment must be settled."""

    def __init__(self, app: App, folders: Sequence[str], exclude: GitIgnoreSpec | None) -> None:
        self._cache = app.info_cache
        self._factory = app.ana_mgr.fAnalysisFactory
        patterns = [] if exclude is None else [str(p.pattern) for p in exclude.patterns]
        config = (_VERSION, app.ana_mgr.fPyConfig.fEnvironment, tuple(folders), patterns)
        self._key = blake2b(repr(config).encode(errors="surrogateescape"), digest_size=16).digest()
        self._began_ns = freshness.now_ns()
        self._old: Followed | None = None

    def recall(self) -> Iterator[Sequence[CLocation]]:
        """Find out whether what is remembered holds, in steps; the last ones tell what to queue."""
        old = self._cache.LoadFollowed(self._key)
        if old is not None:
            for count, (folder, known) in enumerate(old.folders.items()):
                if not is_as_it_was(folder, known):
                    old = None
                    break
                if count % _FOLDERS_PER_STEP == 0:
                    yield ()
        self._old = old
        self._cache.fFollowing = CFollowing(0 if old is None else old.number)
        if old is not None:
            yield [LocationFromUrl(url) for url in old.targets]

    @property
    def holds(self) -> bool:
        """Whether what an earlier session remembered is made use of."""
        return self._old is not None

    def drop(self) -> None:
        """Follow everything from now on, and remember nothing: names mean something else now."""
        self._cache.fFollowing = None

    def remember(self, imported: Iterable[CLocation]) -> Iterator[None]:
        """Note where imports led to, in steps. `imported` are the files outside of the walk.

        For the end of a session in which everything was followed and written.
        """
        following, self._cache.fFollowing = self._cache.fFollowing, None
        if following is None or not following.others:
            return
        folders: dict[str, Stamp] = {} if self._old is None else dict(self._old.folders)
        for folder, now in self._factory.GetFolderStamps().items():
            if now is not None and not 0 <= now[1] < self._began_ns:
                return  # it may have changed meanwhile; the next session is as good
            folders.setdefault(folder, now)
        targets = dict.fromkeys(() if self._old is None else self._old.targets)
        targets.update(
            (loc.fUrl, None) for loc in imported if isinstance(loc, CLocalFileLocation)
        )
        number = getrandbits(62) if self._old is None else self._old.number
        if not self._cache.SaveFollowed(self._key, Followed(number, folders, list(targets))):
            return
        urls = list(following.others)
        for start in range(0, len(urls), kUrlsPerMark):
            yield
            if not self._cache.MarkFollowed(number, urls[start : start + kUrlsPerMark]):
                return
