"""What the fake host promises: the tests of the C++ modules stand on it."""

import pytest
import singleton
from guiutils import lgtk
from loombase import location
from loombase.destroyable import CDestroyable

import hostclock
import hostlog


class Emitter(CDestroyable):
    def __init__(self):
        super().__init__(("ping",))


def test_disconnect_in_callback_during_emit():
    emitter = Emitter()
    calls = []

    def once(*args):
        calls.append(args)
        emitter.disconnect(connection)

    connection = emitter.connect("ping", once)
    emitter.emit("ping", 1)
    emitter.emit("ping", 2)
    assert calls == [(1,)]


def test_disconnect_of_a_later_callback_during_emit():
    emitter = Emitter()
    calls = []
    emitter.connect("ping", lambda: emitter.disconnect(later))
    later = emitter.connect("ping", lambda: calls.append("later"))
    emitter.emit("ping")
    assert calls == []


def test_destroyed_owner_is_not_called():
    emitter, owner, calls = Emitter(), CDestroyable(), []
    emitter.connect_while_alive("ping", calls.append, owner)
    Emitter.class_connect_while_alive("ping", calls.append, owner)
    emitter.emit("ping", 1)
    assert calls == [1, 1]
    owner.destroy()
    emitter.emit("ping", 2)
    assert calls == [1, 1]


def test_emit_without_connections_does_nothing():
    Emitter().emit("ping", 1, 2)
    assert hostlog.names() == ["emit"]


def test_emit_adds_no_emitter():
    emitter, calls = Emitter(), []
    emitter.connect("ping", lambda *args: calls.append(args))
    emitter.emit("ping")
    assert calls == [()]


def test_undeclared_signal_fails():
    with pytest.raises(ValueError, match="pong"):
        Emitter().emit("pong")


def test_destroy_runs_destroy_impl_once():
    class Owner(CDestroyable):
        runs = 0

        def _destroy_impl(self):
            self.runs += 1
            super()._destroy_impl()

    owner = Owner()
    owner.destroy()
    owner.destroy()
    assert owner.runs == 1


def test_class_connection_sees_instances_of_the_future():
    calls = []
    owner = CDestroyable()
    Emitter.class_connect_while_alive("ping", lambda *args: calls.append(args), owner)
    emitter = Emitter()
    emitter.emit("ping", emitter)
    assert calls == [(emitter,)]


def test_no_arg_callback_drops_arguments():
    emitter, calls = Emitter(), []
    emitter.connect("ping", lgtk.NoArgCallback(lambda: calls.append("ran")))
    emitter.emit("ping", 1, 2)
    assert calls == ["ran"]


def test_no_obj_callback_drops_the_emitter_only():
    calls = []
    lgtk.NoObjCallback(lambda *args: calls.append(args))("emitter", 1, 2)
    assert calls == [(1, 2)]


def test_idle_that_returns_false_is_dead():
    calls = []
    idle_id = lgtk.idle_add(lambda: calls.append(1))
    assert lgtk.run_idle() == 1
    lgtk.idle_remove(idle_id)
    assert lgtk.run_idle() == 0
    assert calls == [1]


def test_idle_order_is_priority_then_turn():
    calls = []
    lgtk.idle_add(lambda: calls.append("late"), priority=300)
    lgtk.idle_add(lambda: calls.append("first"), priority=100)
    again = iter([True, False])
    lgtk.idle_add(lambda: (calls.append("a"), next(again))[1])
    lgtk.idle_add(lambda: calls.append("b"))
    lgtk.run_idle()
    assert calls == ["first", "a", "b", "a", "late"]


def test_idle_and_timer_of_a_destroyed_owner_are_gone():
    owner = CDestroyable()
    lgtk.idle_add_while_alive(lambda: True, owner)
    lgtk.timeout_add_while_alive(1000, lambda: True, owner)
    owner.destroy()
    assert (lgtk.run_idle(), lgtk.advance(10)) == (0, 0)


def test_timer_repeats_in_virtual_time():
    times = []
    owner = CDestroyable()

    def tick():
        times.append(hostclock.now() - hostclock.kStartTime)
        return len(times) < 3

    lgtk.timeout_add_while_alive(1000, tick, owner)
    assert lgtk.advance(0.5) == 0
    assert lgtk.advance(10) == 3
    assert times == [1.0, 2.0, 3.0]
    assert hostclock.now() == hostclock.kStartTime + 10.5


def test_singletons_tell_of_changes():
    table, calls = singleton.GetSingletons(), []
    table.connect("changed", lambda *args: calls.append(args))
    gui = object()
    table.Set("fGuiMgr", gui)
    assert calls == [(table,)]
    assert singleton.GetSingletons() is table and table.fGuiMgr is gui


def test_only_remote_locations_are_inspected():
    assert not location.IsAsyncInspectLocation(location.CLocalFileLocation.at("file:///a.py"))
    assert location.IsAsyncInspectLocation(location.CRemoteFileLocation.at("ssh://h/a.py"))


def test_locations_are_interned():
    at = location.CLocalFileLocation.at
    assert at("file:///d/a.py") is at("file:///d/a.py")
    assert at("file:///d/a.py").GetParentDir() is at("file:///d")
