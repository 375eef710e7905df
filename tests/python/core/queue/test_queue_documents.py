"""The active and the visible documents."""

import pytest
import singleton
from edit.editor import CSourceEditor
from guiutils import lgtk
from queue_support import (
    FakeGuiMgr,
    check_invariants,
    kDerived,
    kOrders,
    kPrimary,
    local,
    order_of,
    pending,
    scopes_in,
    state,
    totals,
)

import hostlog


class Buffer:
    def __init__(self, loc):
        self.fLocation = loc


def editor(name):
    return CSourceEditor(Buffer(local(name)))


@pytest.fixture
def gui(queue):
    """A GUI manager that the queue follows."""
    gui = FakeGuiMgr()
    singleton.GetSingletons().Set("fGuiMgr", gui)
    hostlog.calls.clear()
    return gui


def locs_in(queue, priority, order=1):
    return [loc for loc, _ in scopes_in(queue, priority, order)]


def test_singleton_changed_without_gui_changes_nothing(queue):
    before = state(queue)
    singleton.GetSingletons().Set("fPrefMgr", object())
    assert state(queue) == before
    assert queue._fGuiMgr is None


def test_singleton_changed_connects_once(queue):
    gui = FakeGuiMgr()
    hostlog.calls.clear()
    singleton.GetSingletons().Set("fGuiMgr", gui)
    (call,) = hostlog.take("connect_while_alive")
    assert call.args[:2] == (gui, "active-document-changed")
    assert isinstance(call.args[2], lgtk.NoArgCallback)
    assert call.args[3] is queue
    assert queue._fGuiMgr is gui
    singleton.GetSingletons().Set("fPrefMgr", object())
    singleton.GetSingletons().Set("fGuiMgr", FakeGuiMgr())
    assert hostlog.take("connect_while_alive") == []
    assert queue._fGuiMgr is gui


def test_singletons_are_asked_for_at_each_change(queue, monkeypatch):
    gui = FakeGuiMgr()
    other = singleton.CSingletons()
    other.fGuiMgr = gui
    monkeypatch.setattr(singleton, "GetSingletons", lambda: other)
    queue._CB_SingletonChanged()
    assert queue._fGuiMgr is gui


def test_active_document_sets_active_and_visible(queue, gui):
    gui.show(editor("a"), local("b"), local("c"))
    assert queue._fActiveDocLoc is local("a")
    assert queue._fVisibleDocLocs == {local("a"), local("b"), local("c")}


def test_gui_is_asked_with_keywords(queue, gui):
    gui.show(editor("a"))
    (call,) = hostlog.take("GetDocuments")
    assert call.args == ()
    assert call.kwargs == {"visible_only": True, "include_help": False}


@pytest.mark.parametrize("document", [None, object(), "text"])
def test_another_kind_of_document_changes_nothing(queue, gui, document):
    gui.show(editor("a"), local("b"))
    hostlog.calls.clear()
    before = state(queue)
    gui.show(document, local("c"))
    assert state(queue) == before
    assert queue._fActiveDocLoc is local("a")
    assert hostlog.take("GetDocuments") == []


def test_subclass_of_the_editor_is_an_editor(queue, gui):
    class Special(CSourceEditor):
        pass

    gui.show(Special(Buffer(local("a"))))
    assert queue._fActiveDocLoc is local("a")


def test_editor_module_is_imported_at_the_call(queue, gui, monkeypatch):
    import sys
    from types import ModuleType

    class Other:
        def __init__(self, loc):
            self.fCache = Buffer(loc)

    replacement = ModuleType("edit.editor")
    replacement.CSourceEditor = Other
    monkeypatch.setitem(sys.modules, "edit.editor", replacement)
    import edit

    monkeypatch.setattr(edit, "editor", replacement)
    gui.show(editor("a"))
    assert queue._fActiveDocLoc is None
    gui.show(Other(local("b")))
    assert queue._fActiveDocLoc is local("b")


def test_failing_import_of_the_editor_passes_through(queue, gui, monkeypatch):
    import sys

    import edit

    monkeypatch.setitem(sys.modules, "edit.editor", None)
    monkeypatch.delattr(edit, "editor", raising=False)
    with pytest.raises(ImportError):
        queue._CB_ActiveDocChanged()
    assert queue._fActiveDocLoc is None


def test_active_doc_changed_without_gui_fails(queue):
    with pytest.raises(AttributeError):
        queue._CB_ActiveDocChanged()


def test_second_call_with_the_same_documents_changes_nothing(queue):
    a, b = local("a"), local("b")
    queue.UpdateForVisibleDocuments(a, [b])
    queue.AddScanPairs([(local(n), "*") for n in "xab"], kPrimary)
    queue.AddScanPairs([(local("x"), "s")], kDerived, 1)
    before = state(queue)
    queue.UpdateForVisibleDocuments(a, [a, b])
    queue.UpdateForVisibleDocuments(a, iter((b,)))
    assert state(queue) == before
    assert locs_in(queue, 2) == [b, a, local("x")]


def test_active_location_is_part_of_the_visible_ones(queue):
    queue.UpdateForVisibleDocuments(local("a"), [])
    assert queue._fVisibleDocLocs == {local("a")}
    queue.UpdateForVisibleDocuments(active_loc=None, visible_locs=())
    assert queue._fActiveDocLoc is None
    assert queue._fVisibleDocLocs == set()


def test_visible_set_is_a_set_of_its_own(queue):
    visible = {local("b")}
    queue.UpdateForVisibleDocuments(local("a"), visible)
    visible.clear()
    assert queue._fVisibleDocLocs == {local("a"), local("b")}


def test_background_scans_of_the_active_location_become_interactive(queue):
    a = local("a")
    queue.AddScanPairs([(local("x"), "*")], kPrimary, 1)
    queue.AddScanPairs([(local("y"), "*"), (a, "s"), (a, "t")], kPrimary, 2)
    before = totals(queue)
    queue.UpdateForVisibleDocuments(a, [])
    assert scopes_in(queue, 1) == [(a, ["s", "t"]), (local("x"), ["*"])]
    assert scopes_in(queue, 2) == [(local("y"), ["*"])]
    assert pending(queue, a) == {("s", kPrimary): 1, ("t", kPrimary): 1}
    assert totals(queue) == before
    check_invariants(queue)


def test_each_scan_name_of_the_active_location_is_promoted(queue):
    a = local("a")
    queue.AddScanPairs([(a, "*")], kPrimary, 2)
    queue.AddScanPairs([(a, "s"), (a, "t")], kDerived, 2)
    queue.UpdateForVisibleDocuments(a, [])
    assert pending(queue, a) == {("*", kPrimary): 1, ("s", kDerived): 1, ("t", kDerived): 1}
    check_invariants(queue)


@pytest.mark.parametrize("priority", [0, 1])
def test_early_scans_of_the_active_location_only_come_first(queue, priority):
    a = local("a")
    queue.AddScanPairs([(local("x"), "*"), (a, "*")], kPrimary, priority)
    queue.UpdateForVisibleDocuments(a, [])
    assert locs_in(queue, priority) == [a, local("x")]
    assert pending(queue, a) == {("*", kPrimary): priority}


def test_other_late_priorities_are_promoted_too(queue):
    a = local("a")
    queue.AddScanPairs([(a, "*")], kPrimary, 7)
    queue.UpdateForVisibleDocuments(a, [])
    assert pending(queue, a) == {("*", kPrimary): 1}


def test_only_the_location_handled_first_is_promoted(queue):
    a, b = local("a"), local("b")
    queue.AddScanPairs([(a, "*"), (b, "*")], kPrimary, 2)
    queue.UpdateForVisibleDocuments(None, [a, b])
    assert len(locs_in(queue, 1)) == 1
    assert len(locs_in(queue, 2)) == 1


def test_active_location_is_handled_last_and_so_not_promoted(queue):
    a, b = local("a"), local("b")
    queue.AddScanPairs([(a, "*"), (b, "*")], kPrimary, 2)
    queue.UpdateForVisibleDocuments(a, [b])
    assert locs_in(queue, 1) == [b]
    assert locs_in(queue, 2) == [a]


def test_done_set_is_by_scan_name_and_priority(queue):
    a, b = local("a"), local("b")
    queue.AddScanPairs([(a, "*")], kPrimary, 2)
    queue.AddScanPairs([(b, "*")], kDerived, 2)
    queue.AddScanPairs([(local("x"), "*"), (b, "*")], kPrimary, 1)
    queue.UpdateForVisibleDocuments(a, [b])
    assert pending(queue, a) == {("*", kPrimary): 1}
    assert pending(queue, b) == {("*", kDerived): 1, ("*", kPrimary): 1}
    assert locs_in(queue, 1) == [a, b, local("x")]


def test_visible_location_without_scans_is_skipped(queue):
    a, b = local("a"), local("b")
    queue.AddScanPairs([(b, "*")], kPrimary, 2)
    queue.UpdateForVisibleDocuments(a, [b])
    assert pending(queue, b) == {("*", kPrimary): 1}


def test_scan_moved_forward_stays_moved(queue):
    a = local("a")
    queue.AddScanPairs([(a, "*")], kPrimary, 2, True)
    queue.UpdateForVisibleDocuments(a, [])
    queue.UpdateForVisibleDocuments(None, [])
    assert pending(queue, a) == {("*", kPrimary): 1}
    assert dict(queue._fWholeFilesToCheck) == {a: 2}, "a due check keeps its priority"


def test_scopes_at_two_priorities_merge_sorted(queue):
    a = local("a")
    queue.AddScanPairs([(a, "c")], kPrimary, 1)
    queue.AddScanPairs([(local("x"), "*")], kPrimary, 1)
    queue.AddScanPairs([(a, "b"), (a, "a")], kPrimary, 2)
    queue.UpdateForVisibleDocuments(a, [])
    assert scopes_in(queue, 1) == [(a, ["a", "b", "c"]), (local("x"), ["*"])]
    assert scopes_in(queue, 2) == []
    assert set(pending(queue, a).values()) == {1}
    assert totals(queue) == (4, 2)
    check_invariants(queue)


def test_wildcard_moved_onto_scopes_replaces_them(queue):
    a = local("a")
    queue.AddScanPairs([(a, "*")], kPrimary, 2)
    queue.AddScanPairs([(a, "s"), (a, "t")], kPrimary, 1)
    assert totals(queue) == (3, 1)
    queue.UpdateForVisibleDocuments(a, [])
    assert scopes_in(queue, 1) == [(a, ["*"])]
    assert pending(queue, a) == {("*", kPrimary): 1}
    assert totals(queue) == (1, 1)
    check_invariants(queue)


def test_scope_moved_onto_a_wildcard_is_gone(queue):
    a = local("a")
    queue.AddScanPairs([(a, "s")], kPrimary, 2)
    queue.AddScanPairs([(a, "*")], kPrimary, 1)
    assert totals(queue) == (2, 1)
    queue.UpdateForVisibleDocuments(a, [])
    assert scopes_in(queue, 1) == [(a, ["*"])]
    assert pending(queue, a) == {("*", kPrimary): 1}
    assert totals(queue) == (1, 1)
    check_invariants(queue)


def test_move_between_queues_by_keyword(queue):
    a = local("a")
    queue.AddScanPairs([(a, "s")], kPrimary, 2)
    late, early = queue._GetSingleQueue(kPrimary, 2), queue._GetSingleQueue(kPrimary, 0)
    result = queue._MoveScansBetweenQueues(
        loc=a, names_to_move=None, from_queue=late, to_queue=early
    )
    assert result is None
    assert scopes_in(queue, 0) == [(a, ["s"])] and scopes_in(queue, 2) == []
    assert pending(queue, a) == {("s", kPrimary): 0}


def test_move_between_queues_of_an_unknown_location(queue):
    late, early = queue._GetSingleQueue(kPrimary, 2), queue._GetSingleQueue(kPrimary, 1)
    before = state(queue)
    queue._MoveScansBetweenQueues(local("a"), None, late, early)
    queue._MoveScansBetweenQueues(local("a"), ["s"], late, early)
    assert state(queue) == before


def test_move_between_queues_of_a_location_that_is_elsewhere(queue):
    a = local("a")
    queue.AddScanPairs([(a, "s")], kPrimary, 0)
    late, early = queue._GetSingleQueue(kPrimary, 2), queue._GetSingleQueue(kPrimary, 1)
    before = state(queue)
    queue._MoveScansBetweenQueues(a, None, late, early)
    assert state(queue) == before


def test_move_between_queues_checks_the_scan_names(queue):
    a = local("a")
    queue.AddScanPairs([(a, "s")], kPrimary, 2)
    late, other = queue._GetSingleQueue(kPrimary, 2), queue._GetSingleQueue(kDerived, 1)
    before = state(queue)
    if __debug__:
        with pytest.raises(AssertionError):
            queue._MoveScansBetweenQueues(a, None, late, other)
        assert state(queue) == before
    else:
        queue._MoveScansBetweenQueues(a, None, late, other)
        assert scopes_in(queue, 1, kOrders[kDerived]) == [(a, ["s"])]
        assert pending(queue, a) == {("s", kPrimary): 2, ("s", kDerived): 1}


def test_selective_move_moves_nothing_from_a_location_with_scopes(queue):
    a = local("a")
    queue.AddScanPairs([(a, "s"), (a, "t")], kPrimary, 2)
    late, early = queue._GetSingleQueue(kPrimary, 2), queue._GetSingleQueue(kPrimary, 1)
    before = state(queue)
    queue._MoveScansBetweenQueues(a, ["s"], late, early)
    queue._MoveScansBetweenQueues(a, [], late, early)
    assert state(queue) == before


def test_selective_move_fails_for_a_location_that_is_not_in_the_queue(queue):
    """As a binary search on an absent list does."""
    a = local("a")
    queue.AddScanPairs([(a, "s")], kPrimary, 0)
    late, early = queue._GetSingleQueue(kPrimary, 2), queue._GetSingleQueue(kPrimary, 1)
    before = state(queue)
    with pytest.raises(TypeError, match="object of type 'NoneType' has no len"):
        queue._MoveScansBetweenQueues(a, ["s"], late, early)
    assert state(queue) == before
    queue._MoveScansBetweenQueues(a, [], late, early)
    assert state(queue) == before


def test_promotion_reports_no_change_of_locations(queue):
    a = local("a")
    queue.AddScanPairs([(a, "s")], kPrimary, 2)
    lgtk.run_idle()
    queue.UpdateForVisibleDocuments(a, [])
    assert queue._fPendingLocationsAdded == queue._fPendingLocationsRemoved == set()
    assert queue._fSignalEmitIdle is None


def test_promotion_creates_the_interactive_queue(queue):
    queue.AddScanPairs([(local("a"), "s")], kPrimary, 2)
    queue.UpdateForVisibleDocuments(local("a"), [])
    assert order_of(queue) == [(1, 1), (2, 1)]


def test_failing_iterable_of_visible_locations(queue):
    failure = RuntimeError("no more documents")

    def visible():
        yield local("a")
        raise failure

    with pytest.raises(RuntimeError) as caught:
        queue.UpdateForVisibleDocuments(None, visible())
    assert caught.value is failure
    assert queue._fVisibleDocLocs == set()


def test_documents_by_equality(queue):
    """The same documents by value: nothing to do, and the old objects stay."""

    class Path(str):
        pass

    first = Path("a")
    queue.UpdateForVisibleDocuments(first, [])
    queue.UpdateForVisibleDocuments(Path("a"), [])
    assert queue._fActiveDocLoc is first


def test_gui_death_cuts_nothing_in_the_queue(queue, gui):
    queue.AddScanPairs([(local("a"), "*")], kPrimary)
    gui.destroy()
    assert queue.First().loc is local("a")


def test_documents_are_not_followed_after_destroy(queue, gui):
    queue.destroy()
    gui.show(editor("a"))
    assert queue._fActiveDocLoc is None
