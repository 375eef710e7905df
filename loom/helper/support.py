"""Helpers for an app: how many there are, and that they are there."""

from __future__ import annotations

import logging
import os
from collections.abc import Callable
from typing import Any, Final

from guiutils import lgtk
from loombase.destroyable import CDestroyable

from loom.app import App
from loom.helper.backoff import Backoff
from loom.helper.callback import CHelperCallbackObj, new_callback_obj
from loom.helper.launch import EarlyHelpers, HelperHandle, LocalHelper
from loom.helper.link import Link
from loom.helper.pool import CHelperPool
from loom.helper.share import LocalShare
from loom.mainloop.asyncio_loop import AsyncioMainLoop

__all__ = ["CHelperProcessSupport", "default_helpers", "may_share", "use_helpers"]

_log = logging.getLogger("loom.helper")

_kWatchMilliseconds: Final = 1000

# Seconds that writing to the database takes at a time, with helpers that do the rest.
_kWriteSeconds: Final = 0.008


class CHelperProcessSupport(CDestroyable):
    """Starts `count` helpers with `launch` and keeps them there.

    One that goes is started again, later and later if none ever does anything. Meanwhile `pool`
    stays the proxy of the analysis manager `ana_mgr`: what has ended one process isn't to end this
    one. When no more are started, `is_given_up` is true and the scheduler takes its work back. With
    `share`, the first process scans, too.

    Signals: "given-up" (support).
    """

    def __init__(
        self, ana_mgr: Any, launch: Callable[[], HelperHandle], count: int, share: bool
    ) -> None:
        super().__init__(("given-up",))
        self._ana_mgr = ana_mgr
        self._launch = launch
        self.fHelperCallbackObj: CHelperCallbackObj | None = None
        self.pool = CHelperPool(ana_mgr)
        self._share = LocalShare(ana_mgr, self.pool) if share else None
        self._missing = count
        self._to_come = 0  # starts that a timer will make
        self._backoff = Backoff()
        self._watches = False
        self.is_given_up = False
        self.pool.connect_while_alive("work-came", self._watch, self)

    def start(self) -> None:
        """Start the helpers. Their work can be queued at once."""
        self._register()
        for _ in range(self._missing):
            self._start_one()
        self._note_count()

    def _register(self) -> None:
        self._ana_mgr._fHelperProcessSupport = self

    def _unregister(self) -> None:
        self._ana_mgr.fHelperProcessProxy = None
        self._ana_mgr._fHelperProcessSupport = None

    def _start_one(self) -> None:
        try:
            handle = self._launch()
        except OSError as error:
            _log.warning("a helper process can't be started: %s", error)
            return
        link = Link(
            handle,
            lgtk.GetMainLoop().now,
            self.pool.link_ready,
            self.pool.link_reported,
            self._note_gone,
        )
        self.pool.add_link(link)
        if self.pool.fCallbackObj is None:
            self._come()
        self._watch()

    def _come(self) -> None:
        """The first helper is there: the scheduler is to send work."""
        self.fHelperCallbackObj = self.pool.fCallbackObj = new_callback_obj()
        self._ana_mgr.SetHelperProxy(self.pool)

    def _take_back(self) -> None:
        """The last helper has gone for good: the scheduler is to do all by itself."""
        self.pool.give_back()
        self._ana_mgr.SetHelperProxy(None)

    def _note_gone(self, link: Link, fate: str) -> None:
        self.pool.remove_link(link, fate)
        link.handle.destroy()
        if link.refusal:
            _log.warning("%s can't be used: %s", link.handle.name, link.refusal)
        else:
            delay = self._delay_after(link)
            if delay is not None:
                self._to_come += 1
                lgtk.timeout_add_while_alive(delay * 1000, self._start_again, self)
            else:
                _log.warning("a helper process isn't started any more: none of them did anything")
        self._note_count()

    def _delay_after(self, link: Link) -> float | None:
        """Seconds until a helper is started in place of one that has gone, or none for never."""
        if link.has_progressed:
            self._backoff.note_progress()
        return self._backoff.next_delay()

    def _start_again(self) -> bool:
        self._to_come -= 1
        self._start_one()
        self._note_count()
        return False

    def _note_count(self) -> None:
        """Fit the scheduler to how many helpers there are."""
        self.pool.workers = len(self.pool.links) + (self._share is not None)
        if self.pool.links or self._to_come or self.is_given_up:
            return
        self.is_given_up = True
        if self.pool.fCallbackObj is not None:
            self._take_back()
        self.emit("given-up", self)

    # --- looking after them

    def _watch(self, pool: object = None) -> None:
        """Look at the helpers once a second, as long as anything is expected of them."""
        if not self._watches:
            self._watches = True
            lgtk.timeout_add_while_alive(_kWatchMilliseconds, self._check_health, self)

    def _check_health(self) -> bool:
        self.pool.check_health()
        self._watches = len(self.pool) > 0 or not all(link.is_ready for link in self.pool.links)
        return self._watches

    def _destroy_impl(self) -> None:
        self._unregister()
        if self._share is not None:
            self._share.destroy()
        for link in list(self.pool.links):
            link.handle.destroy()
        self.pool.destroy()


def default_helpers() -> int:
    """How many helpers there are when nobody says: one, if it can have a core of its own."""
    return 1 if len(os.sched_getaffinity(0)) > 1 else 0


def may_share(count: int) -> bool:
    """Whether a core would be idle if the first process only stored what `count` helpers find."""
    return count < len(os.sched_getaffinity(0))


def use_helpers(
    app: App,
    count: int | None = None,
    share: bool = False,
    early: EarlyHelpers | None = None,
) -> CHelperProcessSupport | None:
    """Have `count` local helper processes scan whole files for `app`; none if `count` is 0.

    They end with the app, or when the result is destroyed. With `share` the first process scans a
    part itself, which is faster with few helpers; without, it is left to other things, and to
    storing, and no file can harm it. `early` are helpers that were started before. One that can't
    be started is logged, and the app scans alone.
    """
    if count is None:
        count = default_helpers()
    main_loop = app.main_loop
    if count <= 0 or not isinstance(main_loop, AsyncioMainLoop):
        return None
    io = main_loop.loop
    launch = (lambda: LocalHelper(io)) if early is None else early.take
    support = CHelperProcessSupport(app.ana_mgr, launch, count, share)
    app.info_cache.fWriteSeconds = _kWriteSeconds
    support.start()
    return support
