"""`CUsageOrderedDict`, alone and beside a plain-Python counterpart."""

import gc
import random
import weakref

import pytest
from hypothesis import given
from hypothesis import strategies as st
from pysource.usageordereddict import CUsageOrderedDict, _CUsageOrderedDictItem


def filled(*keys):
    """A mapping of keys to their upper-case forms."""
    result = CUsageOrderedDict()
    for key in keys:
        result.Set(key, key.upper())
    return result


def test_an_empty_one():
    empty = CUsageOrderedDict()
    assert len(empty) == 0
    assert not empty
    assert empty._fFirst is None
    assert empty.items() == empty.keys() == empty.values() == list(empty) == []


def test_set_appends_or_goes_to_the_front():
    d = CUsageOrderedDict()
    d.Set("a", 1)
    d.Set("b", 2, first=False)
    d.Set("c", 3, first=True)
    d.Set("d", 4, True)
    assert d.items() == [("d", 4), ("c", 3), ("a", 1), ("b", 2)]
    assert bool(d) and len(d) == 4


@pytest.mark.parametrize("key", ["a", "b", "c"])
@pytest.mark.parametrize("first", [True, False])
def test_set_of_a_key_that_is_there_moves_it(key, first):
    d = filled("a", "b", "c")
    d.Set(key, 9, first=first)
    others = [k for k in "abc" if k != key]
    assert d.keys() == ([key, *others] if first else [*others, key])
    assert d[key] == 9 and len(d) == 3


def test_get():
    d = filled("a", "b")
    assert d.get("a") == "A"
    assert d.get("x") is None
    assert d.get("x", 5) == 5
    assert d.get(key="b", default=1, touch=False) == "B"
    assert d.keys() == ["a", "b"]


@pytest.mark.parametrize("key", ["a", "b", "c"])
def test_get_with_touch_makes_an_entry_the_first(key):
    d = filled("a", "b", "c")
    assert d.get(key, None, True) == key.upper()
    assert d.keys() == [key] + [k for k in "abc" if k != key]


def test_touching_an_absent_key_changes_nothing():
    d = filled("a", "b")
    assert d.get("x", 7, True) == 7
    assert d.keys() == ["a", "b"]


def test_pop():
    d = filled("a", "b", "c")
    assert d.pop("b") == "B"
    assert d.pop("b", 3) == 3
    assert d.pop("b") is None
    assert d.items() == [("a", "A"), ("c", "C")]


def test_del_needs_the_key():
    d = filled("a", "b")
    del d["a"]
    assert d.keys() == ["b"]
    with pytest.raises(KeyError) as caught:
        del d["a"]
    assert caught.value.args == ("a",)


def test_subscript():
    d = filled("a")
    assert d["a"] == "A"
    with pytest.raises(KeyError) as caught:
        d["x"]
    assert caught.value.args == ("x",)
    d["b"] = 2
    d["a"] = 1
    assert d.items() == [("b", 2), ("a", 1)]


def test_contains():
    d = filled("a")
    assert "a" in d and "b" not in d


def test_first_follows_the_sequence():
    d = filled("a", "b")
    first = d._fFirst
    assert type(first) is _CUsageOrderedDictItem
    assert (first.key, first.val) == ("a", "A")
    d.get("b", None, True)
    assert d._fFirst.key == "b"
    with pytest.raises(AttributeError):
        d._fFirst = None


def test_an_entry_outlives_its_place():
    d = filled("a", "b")
    first = d._fFirst
    del d["a"]
    assert (first.key, first.val) == ("a", "A")
    assert d._fFirst.key == "b"
    del d
    gc.collect()
    assert first.val == "A"


def test_an_entry_shows_a_new_value_and_keeps_its_key():
    d = CUsageOrderedDict()
    one, other = 1, 1.0
    d.Set(one, "old")
    item = d._fFirst
    d.Set(other, "new")
    assert item.val == "new" and item.key is one
    assert d.keys() == [1] and type(d.keys()[0]) is int


def test_entries_are_read_only():
    item = _CUsageOrderedDictItem("k", "v")
    assert (item.key, item.val) == ("k", "v")
    for name in ("key", "val"):
        with pytest.raises(AttributeError):
            setattr(item, name, 1)
    with pytest.raises(TypeError):
        item.__init__(1, 2)


def test_none_is_a_key_and_a_value():
    d = CUsageOrderedDict()
    d.Set(None, None)
    assert None in d and d[None] is None and d.get(None, 1) is None
    assert d.pop(None, 1) is None
    assert None not in d


def test_iteration_is_over_what_was_there():
    d = filled("a", "b", "c")
    for key in d:
        d.pop(key)
        d.Set(key + "2", 0)
    assert d.keys() == ["a2", "b2", "c2"]


def test_unhashable_keys_fail_everywhere():
    d = filled("a")
    for operation in (
        lambda: d.get([]),
        lambda: d.Set([], 1),
        lambda: d.pop([]),
        lambda: d[[]],
        lambda: [] in d,
        lambda: d.__delitem__([]),
    ):
        with pytest.raises(TypeError, match="unhashable"):
            operation()
    assert d.items() == [("a", "A")]


def test_wrong_calls():
    with pytest.raises(TypeError):
        CUsageOrderedDict(1)
    with pytest.raises(TypeError):
        CUsageOrderedDict().Set("a")
    with pytest.raises(TypeError):
        CUsageOrderedDict().get()


class Counted:
    """Counts what is asked of it."""

    def __init__(self, value):
        self.value = value
        self.hashes = 0
        self.comparisons = 0

    def __hash__(self):
        self.hashes += 1
        return hash(self.value)

    def __eq__(self, other):
        self.comparisons += 1
        return self.value == other.value


def test_one_hash_an_operation_and_no_comparison_of_identical_keys():
    key = Counted(1)
    d = CUsageOrderedDict()
    operations = [
        lambda: d.Set(key, 1),
        lambda: d.Set(key, 2, True),
        lambda: d.get(key, None, True),
        lambda: d[key],
        lambda: key in d,
        lambda: d.pop(key),
    ]
    for count, operation in enumerate(operations, 1):
        operation()
        assert key.hashes == count
    assert key.comparisons == 0
    d.items(), d.keys(), d._fFirst
    assert key.hashes == len(operations)


def test_equal_keys_are_one_entry():
    d = CUsageOrderedDict()
    d.Set(Counted(1), "old")
    d.Set(Counted(1), "new")
    assert len(d) == 1 and d[Counted(1)] == "new"


def test_failures_of_hash_and_eq_pass_through_and_change_nothing():
    class Broken:
        def __init__(self, hash_fails):
            self.hash_fails = hash_fails

        def __hash__(self):
            if self.hash_fails:
                raise ZeroDivisionError("hash")
            return hash("a")

        def __eq__(self, other):
            raise ZeroDivisionError("eq")

    d = filled("a", "b")
    for hash_fails in (True, False):
        key = Broken(hash_fails)
        for operation in (
            lambda key=key: d.get(key, None, True),
            lambda key=key: d.Set(key, 1),
            lambda key=key: d.pop(key),
            lambda key=key: d.__delitem__(key),
            lambda key=key: key in d,
        ):
            with pytest.raises(ZeroDivisionError, match="hash" if hash_fails else "eq"):
                operation()
    assert d.items() == [("a", "A"), ("b", "B")]


def test_a_comparison_that_empties_the_mapping():
    d = CUsageOrderedDict()

    class Emptying:
        def __hash__(self):
            return 1

        def __eq__(self, other):
            for key in d:
                if key is not self:
                    d.pop(key)
            return True

    one, two = Emptying(), Emptying()
    d.Set(one, 1)
    d.Set(two, 2)  # comparing them takes the first out, so nothing equal is left
    assert d.items() == [(two, 2)]


def test_a_comparison_that_adds_the_very_key():
    d = CUsageOrderedDict()

    class Adding:
        busy = False

        def __hash__(self):
            return 1

        def __eq__(self, other):
            if not Adding.busy:
                Adding.busy = True
                d.Set(new, "from inside")
            return self is other

    old, new = Adding(), Adding()
    d.Set(old, "old")
    d.Set(new, "from outside")
    assert d.items() == [(old, "old"), (new, "from outside")]


def test_keys_that_do_anything_at_all():
    """Whatever the keys do, size, sequence and lookup stay of one mind."""
    rng = random.Random(7)
    d = CUsageOrderedDict()
    depth = 0

    class Wild:
        def __init__(self, value):
            self.value = value

        def __hash__(self):
            return self.value % 3

        def __eq__(self, other):
            nonlocal depth
            if depth < 3:
                depth += 1
                try:
                    act()
                finally:
                    depth -= 1
            return self.value == other.value

    def act():
        key = Wild(rng.randrange(12))
        action = rng.randrange(8)
        if action == 0:
            d.Set(key, key, rng.random() < 0.5)
        elif action == 1:
            d.pop(key)
        elif action == 2:
            d.get(key, None, True)
        elif action == 3 and len(d):
            d.pop(rng.choice(d.keys()))
        elif action == 4 and rng.random() < 0.2:
            raise ZeroDivisionError

    for _ in range(20_000):
        try:
            act()
        except ZeroDivisionError:
            pass
        entries = d.items()
        assert len(entries) == len(d)
        assert (d._fFirst.key if entries else None) is (entries[0][0] if entries else None)
    depth = 9
    values = [key.value for key in d]
    assert len(set(values)) == len(values)
    for key in d.keys():
        assert d.pop(key) is not None
    assert len(d) == 0


def test_values_that_come_back_in_when_they_go():
    d = CUsageOrderedDict()
    log = []

    class Dying:
        def __init__(self, name):
            self.name = name

        def __del__(self):
            log.append((self.name, d.keys()))
            if len(log) < 3:
                d.Set(f"after {self.name}", Dying(f"{self.name}'"))

    d.Set("a", Dying("a"))
    d.Set("a", 1)
    d.pop("after a")
    assert log[:2] == [("a", ["a"]), ("a'", ["a"])]
    assert d.keys() == ["a", "after a'"]


def test_repr_also_of_one_that_holds_itself():
    d = filled("a")
    assert repr(d) == "CUsageOrderedDict([('a', 'A')])"
    d.Set("me", d)
    assert repr(d) == "CUsageOrderedDict([('a', 'A'), ('me', CUsageOrderedDict(...))])"


def test_cycles_are_collected_and_weak_references_cleared():
    d = filled("a")
    d.Set("me", d)
    d.Set("item", d._fFirst)
    gone = weakref.ref(d)
    del d
    gc.collect()
    assert gone() is None


def test_deep_nesting_ends_without_a_deep_stack():
    d = None
    for _ in range(200_000):
        outer = CUsageOrderedDict()
        outer.Set("inner", d)
        d = outer
    d = None
    assert not gc.garbage


def test_a_subclass():
    class Noisy(CUsageOrderedDict):
        def Set(self, key, val, first=False):
            super().Set(key, [val], first)

    d = Noisy()
    d.extra = 1
    d.Set("a", 1)
    assert d.items() == [("a", [1])]
    assert CUsageOrderedDict[str, int].__origin__ is CUsageOrderedDict


kOperations = st.lists(
    st.tuples(
        st.sampled_from(["Set", "get", "pop", "del", "assign"]),
        st.integers(0, 9),
        st.booleans(),
    ),
    max_size=60,
)


@given(kOperations)
def test_beside_a_list_of_pairs(operations):
    """The counterpart is the plainest one: a list of (key, value) pairs."""
    d = CUsageOrderedDict()
    pairs: list[tuple[int, int]] = []
    for step, (operation, key, flag) in enumerate(operations):
        old = next((pair for pair in pairs if pair[0] == key), None)
        rest = [pair for pair in pairs if pair[0] != key]
        if operation == "Set":
            d.Set(key, step, flag)
            pairs = [(key, step), *rest] if flag else [*rest, (key, step)]
        elif operation == "assign":
            d[key] = step
            pairs = [*rest, (key, step)]
        elif operation == "get":
            assert d.get(key, "none", flag) == (old[1] if old else "none")
            if old and flag:
                pairs = [old, *rest]
        elif operation == "pop":
            assert d.pop(key, "none") == (old[1] if old else "none")
            pairs = rest
        elif old is not None:
            del d[key]
            pairs = rest
        else:
            with pytest.raises(KeyError):
                del d[key]
        assert d.items() == pairs
        assert d.keys() == list(d) == [key for key, _ in pairs]
        assert d.values() == [val for _, val in pairs]
        assert len(d) == len(pairs)
        assert (d._fFirst.key if d else None) == (pairs[0][0] if pairs else None)
