"""Paths on SSH servers, and the options that say how these are reached."""

from __future__ import annotations

import functools
from collections.abc import Callable, Sequence
from pathlib import Path
from typing import TYPE_CHECKING, Any, NamedTuple, TypeVar

import click

from loom.cli.output import warn

if TYPE_CHECKING:
    from loom.app import App
    from loom.remote.files import RemoteFiles
    from loom.remote.options import RemoteOptions
    from loom.remote.server import RemoteServer

__all__ = ["PathOrUrl", "RemoteSettings", "is_url", "local_paths", "remote_options"]

_F = TypeVar("_F", bound=Callable[..., Any])


def is_url(path: str) -> bool:
    """Whether a path is the URL of a file on an SSH server."""
    return path[:6].lower() == "ssh://"


def local_paths(paths: Sequence[str]) -> list[str]:
    """Those of the paths that aren't URLs."""
    return [path for path in paths if not is_url(path)]


class PathOrUrl(click.Path):
    """A path of this machine, or a URL "ssh://[user@]host[:port]/path", whose form is checked."""

    name = "path or URL"

    def convert(self, value: Any, param: click.Parameter | None, ctx: click.Context | None) -> Any:
        if not isinstance(value, str) or not is_url(value):
            return super().convert(value, param, ctx)
        from loom.bootstrap import ensure_host_path

        ensure_host_path()
        from loombase.location import CSshFileLocation

        try:
            return CSshFileLocation.FromUrl(value).fUrl
        except ValueError as error:
            self.fail(str(error), param, ctx)


class RemoteSettings(NamedTuple):
    """The options of `remote_options`. Files are none where OpenSSH's own are used."""

    ssh_config: Path | None
    ssh_identity: Path | None
    ssh_known_hosts: Path | None
    ssh_timeout: float

    def set_up(self, app: App, paths: Sequence[str]) -> None:
        """Tell the app how servers are reached, if any path is on one."""
        if any(map(is_url, paths)):
            self.watch(app.ana_mgr.fLocationDataCache.SetUpRemote(self._options()))

    def set_up_helpers(self, app: App, paths: Sequence[str], remote_loom: str) -> None:
        """Have remote files scanned on their servers, by the program of this name there."""
        if any(map(is_url, paths)):
            from loom.helper.ssh import use_remote_helpers

            use_remote_helpers(app, self._options(), f"{remote_loom} helper")

    def _options(self) -> RemoteOptions:
        from loom.remote.options import RemoteOptions, RemotePatience

        return RemoteOptions(
            self.ssh_config,
            self.ssh_identity,
            self.ssh_known_hosts,
            RemotePatience(give_up=self.ssh_timeout),
        )

    def watch(self, files: RemoteFiles) -> None:
        """Tell the user when a server has to be waited for, and when it is back."""
        files.connect("server-changed", _Watcher(self.ssh_timeout).server_changed)


class _Watcher:
    """Remembers of which servers the user knows that they are waited for."""

    def __init__(self, timeout: float) -> None:
        self._timeout = timeout
        self._down: set[str] = set()

    def server_changed(self, server: RemoteServer) -> None:
        from loom.remote.server import ServerPhase

        name = str(server.name)
        if server.phase is ServerPhase.PAUSED and name not in self._down:
            self._down.add(name)
            warn(f"{name}: {server.failure}; waiting for it, for {self._timeout:g} s at most")
        elif not server.failure and name in self._down:
            self._down.discard(name)
            warn(f"{name}: is back")


def remote_options(command: _F) -> _F:
    """The options `--ssh-...`, which `command` gets as one argument `remote`."""

    @functools.wraps(command)
    def with_settings(*args: Any, **options: Any) -> Any:
        settings = {name: options.pop(name) for name in RemoteSettings._fields}
        return command(*args, remote=RemoteSettings(**settings), **options)

    wrapped: Any = with_settings
    file = click.Path(exists=True, dir_okay=False, path_type=Path, resolve_path=True)
    for option in (
        click.option(
            "--ssh-timeout",
            type=click.FloatRange(min=1),
            default=60.0,
            show_default=True,
            metavar="SECONDS",
            help="Give an SSH server up when it hasn't answered for so long, and exit with 1.",
        ),
        click.option(
            "--ssh-known-hosts", type=file, help="The keys of servers, as in ~/.ssh/known_hosts."
        ),
        click.option("--ssh-identity", type=file, help="A private key without passphrase."),
        click.option("--ssh-config", type=file, help="What to read for ~/.ssh/config."),
    ):
        wrapped = option(wrapped)
    result: _F = wrapped
    return result
