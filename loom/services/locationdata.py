"""Which locations can be asked without waiting, and how the others get there."""

from __future__ import annotations

from collections.abc import Callable, Iterable
from typing import TYPE_CHECKING

from loombase.destroyable import CDestroyable
from loombase.inspection import CFileState, GetInspector, SetInspector
from loombase.location import CLocation, CSshFileLocation

if TYPE_CHECKING:
    from loom.remote.files import RemoteFiles
    from loom.remote.options import RemoteOptions
    from loom.remote.transport import TransportMaker

__all__ = ["CLocationDataCache"]


class CLocationDataCache(CDestroyable):
    """What has been found of locations that must be inspected first; local ones are always ready.

    A branch is ready when what is at its end has been inspected, whatever was found, and stays so
    until the connection to its server is lost. For as long as it lives, the cache is the host's
    inspector.

    Signals: "now-tree-branch-ready" (cache, set of locations); "inspect-failed" (cache, set of
    locations) when their server was given up; "cleared" (cache) when what was found of some
    doesn't hold any more.
    """

    def __init__(self) -> None:
        super().__init__(("now-tree-branch-ready", "inspect-failed", "cleared"))
        self._fRemote: RemoteFiles | None = None
        SetInspector(self)

    # --- readiness

    def TreeBranchReady(self, leaf_loc: CLocation, inspect: bool) -> bool:
        """Whether everything down to `leaf_loc` can be asked without waiting.

        With `inspect`, what isn't ready is inspected, and a signal tells how that went.
        """
        if leaf_loc.IsReady():
            return True
        if inspect and isinstance(leaf_loc, CSshFileLocation):
            self.GetRemoteFiles().want(leaf_loc)
        return False

    def StateOf(self, loc: CLocation) -> CFileState | None:
        """What was found of a remote location; none if it isn't inspected or not remote."""
        if self._fRemote is None or not isinstance(loc, CSshFileLocation):
            return None
        return self._fRemote.state_of(loc)

    def Inspect(
        self, loc_seq: Iterable[CLocation], callback: Callable[[bool], object], force: bool
    ) -> None:
        """Call `callback(abort)` once, when all the locations are inspected, perhaps later.

        `force` asks for a fresh inspection of remote ones. `abort` is true if the server of one
        was given up, or if one is of a kind that nobody here can inspect.
        """
        locs = list(loc_seq)
        remote = [loc for loc in locs if isinstance(loc, CSshFileLocation)]
        others_ready = all(loc.IsReady() for loc in locs if not isinstance(loc, CSshFileLocation))
        if not remote:
            callback(not others_ready)
        else:
            self.GetRemoteFiles().inspect(
                remote, lambda abort: callback(abort or not others_ready), force
            )

    def Clear(self) -> None:
        """Forget what was found of all remote locations."""
        if self._fRemote is not None:
            self._fRemote.forget()

    # --- remote files

    def SetUpRemote(
        self, options: RemoteOptions | None = None, make: TransportMaker | None = None
    ) -> RemoteFiles:
        """Say how servers are reached, before the first is.

        By default as `RemoteOptions` says, over SSH, for which the main loop must be an
        `AsyncioMainLoop`. Raises `RuntimeError` if remote files are in use already.
        """
        # Not before they are needed: hosts without remote files are the rule.
        from loom.remote.files import RemoteFiles
        from loom.remote.options import RemoteOptions

        if self._fRemote is not None:
            raise RuntimeError("remote files are in use already")
        if options is None:
            options = RemoteOptions()
        if make is None:
            from loom.remote.sshtransport import ssh_transport_maker

            make = ssh_transport_maker(options)
        remote = self._fRemote = RemoteFiles(make, options.patience)
        remote.connect_while_alive("inspected", self._CB_Inspected, self)
        remote.connect_while_alive("inspect-failed", self._CB_InspectFailed, self)
        remote.connect_while_alive("forgotten", self._CB_Forgotten, self)
        return remote

    def GetRemoteFiles(self) -> RemoteFiles:
        """What knows of remote files, set up by default if that wasn't done yet."""
        return self.SetUpRemote() if self._fRemote is None else self._fRemote

    def _CB_Inspected(self, ready_set: set[CSshFileLocation]) -> None:
        self.emit("now-tree-branch-ready", self, ready_set)

    def _CB_InspectFailed(self, loc_set: set[CSshFileLocation]) -> None:
        self.emit("inspect-failed", self, loc_set)

    def _CB_Forgotten(self, loc_set: set[CSshFileLocation]) -> None:
        self.emit("cleared", self)

    def _destroy_impl(self) -> None:
        if GetInspector() is self:
            SetInspector(None)
        if self._fRemote is not None:
            self._fRemote.destroy()
