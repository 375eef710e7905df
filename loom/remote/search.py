"""What a scan session needs of remote trees: finding their files, and noticing which are gone."""

from __future__ import annotations

from collections.abc import Generator, Iterator, Sequence
from typing import TYPE_CHECKING

from loombase.destroyable import CDestroyable
from loombase.inspection import CFileKind
from loombase.location import CServerName, CSshFileLocation
from pathspec import GitIgnoreSpec

from loom.remote.files import RemoteFiles
from loom.remote.server import RemoteServer
from loom.remote.walk import RemoteWalk
from loom.walk import Step, Waiting

if TYPE_CHECKING:
    from pysource.scopeinfo import CInfoCache

__all__ = ["RemoteSearch"]


class RemoteSearch(CDestroyable):
    """The Python files at and below the locations `roots`.

    Signals: "news" when what had yielded `Waiting` may go on.
    """

    def __init__(
        self,
        files: RemoteFiles,
        roots: Sequence[CSshFileLocation],
        exclude: GitIgnoreSpec | None,
    ) -> None:
        super().__init__(("news",))
        self._files = files
        by_server: dict[CServerName, list[CSshFileLocation]] = {}
        for root in roots:
            by_server.setdefault(root.server, []).append(root)
        files.connect_while_alive("server-eased", self._server_eased, self)
        self._walks = [
            RemoteWalk(files, of_server, exclude, self._wake) for of_server in by_server.values()
        ]

    def steps_with(self, local: Generator[Step, None, None]) -> Generator[Step, None, None]:
        """The steps of a walk of local paths, and in turn with them those of the remote ones.

        `Waiting` is yielded when there is nothing else to do.
        """
        walks = [local, *(walk.steps() for walk in self._walks)]
        while walks:
            waiting = 0
            for steps in list(walks):
                try:
                    step = next(steps)
                except StopIteration:
                    walks.remove(steps)
                    continue
                if isinstance(step, Waiting):
                    waiting += 1
                else:
                    yield step
            if walks and waiting == len(walks):
                yield Waiting()

    def forget_steps(self, info_cache: CInfoCache) -> Iterator[Waiting | None]:
        """Drop the files below the roots that are there no more; yields now and then.

        To be used when the walk is over. What can't be looked at is kept: it may be back tomorrow.
        """
        for walk in self._walks:
            for root in walk.folder_roots:
                if root not in walk.lost_roots:
                    yield from self._forget_below(root, walk.found_urls, info_cache)

    def _forget_below(
        self, root: CSshFileLocation, found_urls: set[str], info_cache: CInfoCache
    ) -> Iterator[Waiting | None]:
        for urls in info_cache.StoredUrlsBelow(root):
            locs = [CSshFileLocation.FromUrl(url) for url in urls if url not in found_urls]
            answers: list[bool] = []

            def inspected(abort: bool, answers: list[bool] = answers) -> None:
                answers.append(abort)
                self._wake()

            self._files.inspect(locs, inspected, force=True)
            while not answers:
                yield Waiting()
            if answers[0]:
                return  # the server was given up
            for loc in locs:
                state = self._files.state_of(loc)
                if state is not None and state.kind is CFileKind.ABSENT:
                    info_cache.ForgetFile(loc)
            yield None

    def _wake(self) -> None:
        self.emit("news")

    def _server_eased(self, server: RemoteServer) -> None:
        self.emit("news")
