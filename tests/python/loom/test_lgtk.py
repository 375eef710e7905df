"""The main loop as the engine sees it: `guiutils.lgtk`."""

import pytest
from guiutils import lgtk
from loombase.destroyable import CDestroyable


@pytest.fixture
def owner():
    return CDestroyable()


@pytest.fixture
def seen():
    return []


def test_idle_callback_that_returns_false_is_not_run_again(main_loop, seen):
    idle_id = lgtk.idle_add(lambda: seen.append(1) or False)
    main_loop.run_idle()
    main_loop.run_idle()
    assert seen == [1]
    lgtk.idle_remove(idle_id)  # dead, and no error


def test_priority_is_optional_and_may_be_given_by_keyword(main_loop, seen):
    lgtk.idle_add(lambda: seen.append("low"), priority=300)
    lgtk.idle_add(lambda: seen.append("default"))
    main_loop.run_idle()
    assert seen == ["default", "low"]


def test_removed_idle_callback_is_not_run(main_loop, seen):
    lgtk.idle_remove(lgtk.idle_add(lambda: seen.append(1)))
    main_loop.run_idle()
    assert seen == []


def test_while_alive_idle_ends_with_its_owner(main_loop, owner, seen):
    lgtk.idle_add_while_alive(lambda: seen.append(1) or True, owner)
    main_loop.step()
    owner.destroy()
    assert main_loop.run_idle() == 0
    assert seen == [1]


def test_while_alive_idle_may_be_removed_by_its_id(main_loop, owner, seen):
    lgtk.idle_remove(lgtk.idle_add_while_alive(lambda: seen.append(1), owner))
    assert main_loop.run_idle() == 0
    owner.destroy()


def test_while_alive_idle_that_destroys_its_owner_is_over(main_loop, owner):
    lgtk.idle_add_while_alive(lambda: owner.destroy() or True, owner)
    assert main_loop.run_idle() == 1


def test_while_alive_of_a_destroyed_owner_never_runs(main_loop, owner):
    owner.destroy()
    lgtk.idle_add_while_alive(pytest.fail, owner)
    lgtk.timeout_add_while_alive(10, pytest.fail, owner)
    assert main_loop.run_idle() == 0
    main_loop.advance(1)


def test_an_owner_does_not_collect_registrations_that_are_over(main_loop, owner):
    for _ in range(100):
        lgtk.idle_add_while_alive(lambda: None, owner)
    main_loop.run_idle()
    [owned] = [
        table for table in owner._CDestroyable__fSignalCatchers.values() if table is not None
    ]
    assert len(owned) == 0


def test_while_alive_timer_ticks_until_its_owner_is_destroyed(main_loop, owner, seen):
    lgtk.timeout_add_while_alive(1000, lambda: seen.append(main_loop.now()) or True, owner)
    main_loop.advance(2.5)
    owner.destroy()
    main_loop.advance(2.5)
    assert seen == [1.0, 2.0]


def test_timer_that_returns_none_is_over(main_loop, owner, seen):
    timer_id = lgtk.timeout_add_while_alive(1000, lambda: seen.append(1), owner)
    main_loop.advance(5)
    lgtk.timeout_remove(timer_id)
    assert seen == [1]


def test_timer_removed_by_its_id(main_loop, owner):
    lgtk.timeout_remove(lgtk.timeout_add_while_alive(1000, pytest.fail, owner))
    main_loop.advance(5)


def test_an_owner_must_be_destroyable_and_a_callback_callable(main_loop, owner):
    for add in (
        lgtk.idle_add_while_alive,
        lambda callback, owner: lgtk.timeout_add_while_alive(10, callback, owner),
    ):
        with pytest.raises(TypeError, match="must be a CDestroyable"):
            add(bool, object())
        with pytest.raises(TypeError, match="can't be called"):
            add(None, owner)
    assert main_loop.run_idle() == 0


def test_without_a_main_loop_nothing_can_be_added_and_every_id_is_dead():
    with pytest.raises(RuntimeError, match="no main loop is set"):
        lgtk.idle_add(bool)
    with pytest.raises(RuntimeError, match="no main loop is set"):
        lgtk.timeout_add_while_alive(10, bool, CDestroyable())
    lgtk.idle_remove(1)
    lgtk.timeout_remove(1)


# --- wrappers


class Emitter(CDestroyable):
    def __init__(self):
        super().__init__(("changed",))


def test_no_arg_callback_on_a_signal_with_two_arguments(seen):
    emitter = Emitter()
    emitter.connect("changed", lgtk.NoArgCallback(lambda: seen.append("called")))
    emitter.emit("changed", 1, 2)
    assert seen == ["called"]


def test_no_obj_callback_drops_the_emitter_and_passes_on_the_rest(seen):
    emitter = Emitter()
    emitter.connect("changed", lgtk.NoObjCallback(lambda *args: seen.append(args)))
    emitter.emit("changed", emitter, 1, 2)
    emitter.emit("changed", emitter)
    assert seen == [(1, 2), ()]


def test_wrappers_hand_on_the_result():
    assert lgtk.NoArgCallback(lambda: 5)(1, 2) == 5
    assert lgtk.NoObjCallback(lambda value: value)("emitter", 7) == 7
