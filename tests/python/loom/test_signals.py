"""Lifetime and signals of `CDestroyable`."""

import gc
import logging
import threading
import weakref

import pytest
from loombase.destroyable import CDestroyable, COwned, SignalError


class Emitter(CDestroyable):
    def __init__(self):
        super().__init__(("changed", "moved"))


class SpecialEmitter(Emitter):
    pass


@pytest.fixture
def emitter():
    return Emitter()


@pytest.fixture
def owner():
    owner = CDestroyable()
    yield owner
    owner.destroy()  # class-wide connections would outlast the test


@pytest.fixture
def seen():
    return []


# --- emit and connect


def test_emit_with_no_connected_callback_does_nothing(emitter):
    emitter.emit("changed", 1, 2)


def test_emit_calls_all_callbacks_in_order_with_exactly_its_arguments(emitter, seen):
    emitter.connect("changed", lambda *args: seen.append(("first", args)))
    emitter.connect("changed", lambda *args: seen.append(("second", args)))
    emitter.emit("changed", "a", emitter)
    assert seen == [("first", ("a", emitter)), ("second", ("a", emitter))]


def test_emit_calls_the_callbacks_of_that_signal_alone(emitter, seen):
    emitter.connect("moved", seen.append)
    emitter.emit("changed", 1)
    assert seen == []


def test_a_signal_that_was_not_declared_is_a_clear_error(emitter):
    with pytest.raises(SignalError, match="Emitter has no signal 'chnaged'"):
        emitter.emit("chnaged")
    with pytest.raises(SignalError, match="Emitter has no signal 'chnaged'"):
        emitter.connect("chnaged", print)


def test_an_object_without_signals_declares_none():
    with pytest.raises(SignalError):
        CDestroyable().emit("changed")


def test_one_text_is_not_a_sequence_of_signal_names():
    with pytest.raises(TypeError, match="not one text"):
        CDestroyable("changed")


def test_names_may_be_any_iterable_and_given_by_keyword():
    emitter = CDestroyable(names=iter(["a", "b"]))
    emitter.emit("a")
    emitter.emit("b")


def test_a_callback_that_is_not_callable_is_refused(emitter, owner):
    with pytest.raises(TypeError, match="can't be called"):
        emitter.connect("changed", None)
    with pytest.raises(TypeError, match="can't be called"):
        Emitter.class_connect_while_alive("changed", None, owner)


def test_the_same_callback_may_be_connected_twice(emitter, seen):
    first = emitter.connect("changed", seen.append)
    emitter.connect("changed", seen.append)
    emitter.emit("changed", 1)
    emitter.disconnect(first)
    emitter.emit("changed", 2)
    assert seen == [1, 1, 2]


def test_a_subclass_that_skips_the_constructor_lives_and_has_no_signals():
    class Careless(CDestroyable):
        def __init__(self):
            pass

    careless = Careless()
    with pytest.raises(SignalError):
        careless.emit("changed")
    emitter = Emitter()
    emitter.connect_while_alive("changed", pytest.fail, careless)
    careless.destroy()
    emitter.emit("changed")


# --- disconnect


def test_disconnect_during_the_emit_that_runs_the_callback(emitter, seen):
    def once(value):
        seen.append(value)
        emitter.disconnect(connect_id)

    connect_id = emitter.connect("changed", once)
    emitter.connect("changed", lambda value: seen.append(("other", value)))
    emitter.emit("changed", 1)
    emitter.emit("changed", 2)
    assert seen == [1, ("other", 1), ("other", 2)]


def test_a_callback_that_another_one_cuts_is_not_called_any_more(emitter, seen):
    emitter.connect("changed", lambda: emitter.disconnect(second))
    second = emitter.connect("changed", lambda: seen.append("second"))
    emitter.emit("changed")
    assert seen == []


def test_a_callback_connected_during_an_emit_is_called_by_the_next_one(emitter, seen):
    def connect_another():
        if not seen:
            emitter.connect("changed", lambda: seen.append("late"))
        seen.append("first")

    emitter.connect("changed", connect_another)
    emitter.emit("changed")
    assert seen == ["first"]
    emitter.emit("changed")
    assert seen == ["first", "first", "late"]


def test_disconnect_of_a_dead_or_unknown_id_does_nothing(emitter, seen):
    connect_id = emitter.connect("changed", seen.append)
    emitter.disconnect(connect_id)
    emitter.disconnect(connect_id)
    emitter.disconnect(-1)
    emitter.disconnect(None)


def test_disconnect_lets_go_of_the_callback(emitter):
    def callback():
        pass

    gone = weakref.ref(callback)
    connect_id = emitter.connect("changed", callback)
    del callback
    emitter.disconnect(connect_id)
    assert gone() is None


def test_emits_may_nest(emitter, seen):
    def callback(depth):
        seen.append(depth)
        if depth < 3:
            emitter.emit("changed", depth + 1)

    emitter.connect("changed", callback)
    emitter.emit("changed", 1)
    assert seen == [1, 2, 3]


# --- while alive


def test_while_alive_connection_of_a_destroyed_owner_is_not_called(emitter, owner, seen):
    emitter.connect_while_alive("changed", seen.append, owner)
    emitter.emit("changed", 1)
    owner.destroy()
    emitter.emit("changed", 2)
    assert seen == [1]


def test_while_alive_connection_may_be_disconnected_by_hand(emitter, owner, seen):
    connect_id = emitter.connect_while_alive("changed", seen.append, owner)
    emitter.disconnect(connect_id)
    emitter.emit("changed", 1)
    owner.destroy()
    assert seen == []


def test_an_owner_that_was_destroyed_before_never_has_a_connection(emitter, owner, seen):
    owner.destroy()
    emitter.connect_while_alive("changed", seen.append, owner)
    emitter.emit("changed", 1)
    Emitter.class_connect_while_alive("changed", seen.append, owner)
    emitter.emit("changed", 2)
    assert seen == []


def test_owner_destroyed_during_the_emit(emitter, owner, seen):
    emitter.connect("changed", owner.destroy)
    emitter.connect_while_alive("changed", lambda: seen.append("called"), owner)
    emitter.emit("changed")
    assert seen == []


def test_an_object_may_own_connections_to_itself(emitter, seen):
    emitter.connect_while_alive("changed", seen.append, emitter)
    emitter.emit("changed", 1)
    emitter.destroy()
    assert seen == [1]


def test_an_owner_must_be_destroyable(emitter):
    for connect in (emitter.connect_while_alive, Emitter.class_connect_while_alive):
        with pytest.raises(TypeError, match="must be a CDestroyable"):
            connect("changed", print, object())
    emitter.emit("changed")  # and nothing was connected


def test_a_long_lived_owner_does_not_collect_connections_that_are_over(owner):
    for _ in range(100):
        emitter = Emitter()
        emitter.disconnect(emitter.connect_while_alive("changed", print, owner))
        emitter.connect_while_alive("changed", print, owner)
        emitter.connect_while_alive("moved", print, owner)
        emitter.destroy()
        Emitter().connect_while_alive("changed", print, owner)  # dropped, not destroyed
    owned = [
        value
        for value in owner._CDestroyable__fSignalCatchers.values()
        if isinstance(value, weakref.WeakValueDictionary)
    ]
    assert sum(map(len, owned)) == 0


def test_emitter_and_owner_make_no_cycle():
    emitter, owner = Emitter(), CDestroyable()
    emitter.connect_while_alive("changed", print, owner)
    gone = weakref.ref(emitter), weakref.ref(owner)
    gc.disable()
    try:
        del emitter, owner
        assert [ref() for ref in gone] == [None, None]
    finally:
        gc.enable()


# --- class-wide


def test_class_wide_connection_hears_every_instance_present_and_future(owner, seen):
    before = SpecialEmitter()
    Emitter.class_connect_while_alive("changed", seen.append, owner)
    after = Emitter()
    before.emit("changed", before)
    after.emit("changed", after)
    assert seen == [before, after]


def test_class_wide_connection_does_not_hear_a_base_class(owner, seen):
    SpecialEmitter.class_connect_while_alive("changed", seen.append, owner)
    Emitter().emit("changed", 1)
    assert seen == []


def test_class_wide_connection_of_an_object_is_that_of_its_class(owner, seen):
    helper = SpecialEmitter()
    helper.class_connect_while_alive("changed", lambda *args: seen.append(args), owner)
    other = SpecialEmitter()
    other.emit("changed", other, [1])
    Emitter().emit("changed", None, [2])
    assert seen == [(other, [1])]


def test_class_wide_connection_ends_with_its_owner(owner, seen):
    Emitter.class_connect_while_alive("changed", seen.append, owner)
    owner.destroy()
    Emitter().emit("changed", 1)
    assert seen == []


def test_own_callbacks_come_before_class_wide_ones_and_subclass_before_base(owner, seen):
    emitter = SpecialEmitter()
    Emitter.class_connect_while_alive("changed", lambda: seen.append("base"), owner)
    SpecialEmitter.class_connect_while_alive("changed", lambda: seen.append("special"), owner)
    emitter.connect("changed", lambda: seen.append("own"))
    emitter.emit("changed")
    assert seen == ["own", "special", "base"]


def test_class_wide_connection_does_not_make_an_undeclared_signal_legal(owner):
    Emitter.class_connect_while_alive("unheard-of", print, owner)
    with pytest.raises(SignalError):
        Emitter().emit("unheard-of")


# --- destruction


def test_destroy_runs_its_hook_exactly_once(seen):
    class Thing(CDestroyable):
        def _destroy_impl(self):
            seen.append("hook")
            self.destroy()  # from inside, too

    thing = Thing()
    assert thing._CDestroyable__fDestroyed is False
    thing.destroy()
    thing.destroy()
    assert seen == ["hook"]
    assert thing._CDestroyable__fDestroyed is True


def test_signals_still_work_inside_the_hook(owner, seen):
    class Thing(CDestroyable):
        def __init__(self):
            super().__init__(("end",))

        def _destroy_impl(self):
            self.emit("end", self)

    thing = Thing()
    thing.connect("end", seen.append)
    Thing.class_connect_while_alive("end", seen.append, owner)
    thing.destroy()
    assert seen == [thing, thing]


def test_a_destroyed_object_emits_nothing_but_still_knows_its_signals(emitter, owner, seen):
    emitter.connect("changed", seen.append)
    Emitter.class_connect_while_alive("changed", seen.append, owner)
    emitter.destroy()
    emitter.emit("changed", 1)
    emitter.connect("changed", seen.append)
    emitter.emit("changed", 2)
    with pytest.raises(SignalError):
        emitter.emit("unheard-of")
    assert seen == []


def test_an_emitter_destroyed_during_its_emit_calls_nobody_else(emitter, seen):
    emitter.connect("changed", emitter.destroy)
    emitter.connect("changed", lambda: seen.append("second"))
    emitter.emit("changed")
    assert seen == []


def test_a_hook_that_fails_is_reported_and_not_run_again(emitter, seen):
    class Thing(CDestroyable):
        def _destroy_impl(self):
            seen.append("hook")
            raise ValueError("broken")

    thing = Thing()
    emitter.connect_while_alive("changed", pytest.fail, thing)
    with pytest.raises(ValueError, match="broken"):
        thing.destroy()
    thing.destroy()
    emitter.emit("changed")  # cut all the same
    assert seen == ["hook"]


def test_what_an_owner_owns_is_cut_once(owner, seen):
    class Thing(COwned):
        def Cut(self):
            seen.append("cut")

    kept, dropped = Thing(), Thing()
    owner.CutWhenDestroyed(kept)
    owner.CutWhenDestroyed(dropped)
    del dropped
    owner.destroy()
    assert seen == ["cut"]
    owner.CutWhenDestroyed(kept)
    assert seen == ["cut", "cut"]  # at once, since the owner is gone


def test_an_object_bound_to_the_main_thread_refuses_another_one(seen):
    thing = CDestroyable()
    thing._CDestroyable__fAlwaysDestroyOnMainThread = True

    def destroy():
        try:
            thing.destroy()
        except RuntimeError as error:
            seen.append(str(error))

    thread = threading.Thread(target=destroy)
    thread.start()
    thread.join()
    assert seen == ["CDestroyable must be destroyed on the main thread"]
    thing.destroy()
    assert thing._CDestroyable__fDestroyed


def test_instances_take_attributes_and_weak_references(emitter):
    emitter.anything = 1
    assert weakref.ref(emitter)() is emitter


# --- callbacks that fail


def test_a_failing_callback_does_not_keep_the_others_from_being_called(emitter, seen):
    failure = ValueError("first")

    def fail():
        raise failure

    emitter.connect("changed", fail)
    emitter.connect("changed", lambda: seen.append("second"))
    with pytest.raises(ValueError) as caught:
        emitter.emit("changed")
    assert caught.value is failure
    assert seen == ["second"]


def test_of_several_failures_the_first_is_raised_and_the_others_are_logged(emitter, caplog):
    def fail(error):
        raise error

    emitter.connect("changed", lambda: fail(ValueError("first")))
    emitter.connect("changed", lambda: fail(KeyError("second")))
    with caplog.at_level(logging.ERROR), pytest.raises(ValueError, match="first"):
        emitter.emit("changed")
    [record] = caplog.records
    assert record.exc_info[0] is KeyError


def test_an_interrupt_in_a_callback_is_raised_at_once(emitter, seen):
    def interrupt():
        raise KeyboardInterrupt

    emitter.connect("changed", interrupt)
    emitter.connect("changed", lambda: seen.append("second"))
    with pytest.raises(KeyboardInterrupt):
        emitter.emit("changed")
    assert seen == []
