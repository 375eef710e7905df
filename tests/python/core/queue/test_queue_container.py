"""`CUsageOrderedDict`, by itself and as the field of a single queue."""

import pytest
from queue_support import implementation, kPrimary, local


@pytest.fixture
def make(impl):
    """The class of the implementation."""
    import importlib

    name = {"twin": "twin_container"}.get(impl.__name__, "pysource.usageordereddict")
    return importlib.import_module(name).CUsageOrderedDict


@pytest.fixture
def abc(make):
    """Three entries, a to c."""
    entries = make()
    for n, key in enumerate("abc"):
        entries.Set(key, n)
    return entries


def test_new_is_empty(make):
    entries = make()
    assert len(entries) == 0
    assert not entries
    assert entries._fFirst is None
    assert list(entries.items()) == []


def test_set_at_the_end_and_at_the_front(abc):
    abc.Set("d", 3, first=True)
    abc.Set("e", 4, first=False)
    assert list(abc.items()) == [("d", 3), ("a", 0), ("b", 1), ("c", 2), ("e", 4)]


def test_set_of_a_present_key_moves_it(abc):
    abc.Set("a", 10)
    assert list(abc.items()) == [("b", 1), ("c", 2), ("a", 10)]
    abc.Set("c", 12, first=True)
    assert list(abc.items()) == [("c", 12), ("b", 1), ("a", 10)]
    assert len(abc) == 3


def test_get(abc):
    assert abc.get("b") == 1
    assert abc.get("x") is None
    assert abc.get("x", 7) == 7
    assert abc.get("x", 7, True) == 7
    assert [k for k, _ in abc.items()] == ["a", "b", "c"]


def test_get_with_touch_moves_to_the_front(abc):
    assert abc.get("c", None, True) == 2
    assert [k for k, _ in abc.items()] == ["c", "a", "b"]
    assert abc.get("c", None, True) == 2
    assert abc.get("a", None, False) == 0
    assert [k for k, _ in abc.items()] == ["c", "a", "b"]


def test_pop(abc):
    assert abc.pop("b", None) == 1
    assert abc.pop("b", None) is None
    assert abc.pop("b", 9) == 9
    assert [k for k, _ in abc.items()] == ["a", "c"]


def test_delete(abc):
    del abc["a"]
    assert [k for k, _ in abc.items()] == ["b", "c"]
    with pytest.raises(KeyError):
        del abc["a"]


def test_first_entry(abc):
    assert (abc._fFirst.key, abc._fFirst.val) == ("a", 0)
    abc.get("b", None, True)
    assert abc._fFirst.key == "b"
    for key in "abc":
        del abc[key]
    assert abc._fFirst is None


def test_mapping_face(abc):
    assert "a" in abc and "x" not in abc
    assert abc["b"] == 1
    with pytest.raises(KeyError):
        abc["x"]
    assert list(abc) == list(abc.keys()) == ["a", "b", "c"]
    assert list(abc.values()) == [0, 1, 2]
    assert bool(abc) is True


def test_field_of_a_single_queue(impl, queue):
    queue.AddScanPairs([(local("b"), "t"), (local("a"), "*"), (local("b"), "s")], kPrimary)
    entries = queue._fOrderedQueues[0].fOrderedDict
    assert list(entries.items()) == [(local("b"), ["s", "t"]), (local("a"), ["*"])]
    assert entries._fFirst.key is local("b")
    assert list(entries._fFirst.val) == ["s", "t"]
    assert type(entries[local("a")]) is list
    assert entries.get(local("x")) is None


def test_field_of_the_cpp_single_queue_is_of_the_published_class(cache):
    from pysource.usageordereddict import CUsageOrderedDict

    queue = implementation("cpp")._CScanQueue(cache)
    queue.SetScansToOrder({kPrimary: 1})
    queue.AddScanPairs([(local("a"), "*")], kPrimary)
    assert type(queue._fOrderedQueues[0].fOrderedDict) is CUsageOrderedDict


def test_field_keeps_equality_of_locations(queue):
    """Equal locations find each other in what is read, as in the queue itself."""
    queue.AddScanPairs([(("path", 1), "*")], kPrimary)
    assert ("path", 1) in queue._fOrderedQueues[0].fOrderedDict
    assert queue._fPerLocationInfo[("path", 1)].pending_dict == {("*", kPrimary): 2}
