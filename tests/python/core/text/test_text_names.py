"""Scope names: their parts, suffixes, instances and def lines."""

import pytest
from hypothesis import given
from hypothesis import strategies as st
from pysource import symbolinfo
from pysource.symbolinfo import CScope

kSeparators = ["", ".", "#2", "()", "[int]", "['a.b']", "[a.b[c.d]]", ".<def>"]

# Names that a scanner could make, and some that it wouldn't.
names = st.lists(
    st.sampled_from(["a", "Bc", "é", "中", *kSeparators]), max_size=8
).map("".join)
wild = st.text(alphabet="aé中.#()[]{}'\"<>*; \\", max_size=20)


def test_constants():
    assert symbolinfo.kWildcardScope == "*"
    assert symbolinfo.kModuleScopeName == ""
    assert symbolinfo._kDotLineScopeName == "." + symbolinfo.kDefLineScopeName
    for name in (
        "kWildcardScope",
        "kModuleScopeName",
        "kScopeIndexSep",
        "kDefLineScopeName",
        "_kDotLineScopeName",
        "kClassInstanceSuffix",
        "kIterationSubscript",
        "kSelfTypeVarName",
    ):
        assert type(getattr(symbolinfo, name)) is str
    assert type(symbolinfo.kUnknownLogicalIndex) is int


kParents = [
    ("", "", ""),
    ("f", "", "f"),
    ("C.f", "C", "f"),
    ("a.b.c", "a.b", "c"),
    ("C.f#2", "C", "f#2"),
    ("C()", "", "C()"),
    ("C().x", "C()", "x"),
    ("f.<def>", "f", "<def>"),
    ("D[a.b]", "", "D[a.b]"),
    ("D[a.b].get", "D[a.b]", "get"),
    ("D['x.y'].get", "D['x.y']", "get"),
    ("D['].'].get", "D['].']", "get"),
    ("D[a.b", "", "D[a.b"),
    ("a].b", "a]", "b"),
    ("*", "", "*"),
    ("é.中", "é", "中"),
    ("a.", "a", ""),
    (".a", ".", "a"),
    ("..a", "..", "a"),
    ("..a.b", "..a", "b"),
    ("...", "", "..."),
]


@pytest.mark.parametrize(("name", "parent", "leaf"), kParents)
def test_parent_and_leaf(name, parent, leaf):
    assert symbolinfo.ParentAndLeafScopeNames(name) == (parent, leaf)
    assert symbolinfo.ParentScopeName(name) == parent


@given(names | wild)
def test_parent_and_leaf_make_up_the_name(name):
    parent, leaf = symbolinfo.ParentAndLeafScopeNames(name)
    assert symbolinfo.ParentScopeName(name) == parent
    assert name in (parent + leaf, f"{parent}.{leaf}")


@given(names | wild)
def test_walking_up_comes_to_an_end(name):
    for _ in range(len(name) + 1):
        if not name:
            break
        parent = symbolinfo.ParentScopeName(name)
        assert len(parent) < len(name)
        name = parent
    assert name == ""


@given(st.lists(st.sampled_from(["a", "C#2", "D[x.y]", "E()"]), min_size=1, max_size=5))
def test_walking_up_takes_one_component_at_a_time(components):
    name = ".".join(components)
    for length in range(len(components) - 1, -1, -1):
        name = symbolinfo.ParentScopeName(name)
        assert name == ".".join(components[:length])


kSuffixes = [
    ("", "", ""),
    ("f", "f", ""),
    ("f#2", "f", "#2"),
    ("C()", "C", "()"),
    ("C#3[int]()", "C", "#3[int]()"),
    ("List[int][*]", "List", "[int][*]"),
    ("List['#.(']", "List", "['#.(']"),
    ("a#2.b[x]", "a#2.b", "[x]"),
    ("a#2.b", "a#2.b", ""),
    ("<def>", "<def>", ""),
]


@pytest.mark.parametrize(("leaf", "name", "suffixes"), kSuffixes)
def test_splitting_off_the_suffixes(leaf, name, suffixes):
    assert symbolinfo.SplitScopeNameFromSuffixes(leaf) == (name, suffixes)


@given(names | wild)
def test_name_and_suffixes_make_up_the_leaf(leaf):
    assert "".join(symbolinfo.SplitScopeNameFromSuffixes(leaf)) == leaf


@pytest.mark.parametrize(
    ("name", "plain"),
    [
        ("", ""),
        ("C.f", "C.f"),
        ("C[int].f", "C.f"),
        ("C[int][*].f[x]()", "C.f()"),
        ("C[a[b]].f", "C.f"),
        ("C['[']", "C"),
        ("C[", "C"),
        ("f#2[x]", "f#2"),
        ("é[中].ö", "é.ö"),
    ],
)
def test_removing_subscripts(name, plain):
    assert symbolinfo.RemoveAllScopeNameSubscripts(name) == plain


@given(names)
def test_removing_subscripts_once_is_enough(name):
    plain = symbolinfo.RemoveAllScopeNameSubscripts(name)
    assert "[" not in plain
    assert symbolinfo.RemoveAllScopeNameSubscripts(plain) == plain


# --- Instances -----------------------------------------------------------------------------------


@given((names | wild).filter(bool))
def test_the_class_of_an_instance_is_the_class(name):
    instance = symbolinfo.GetInstanceNameForClass(name)
    assert symbolinfo.IsInstanceScope(instance)
    assert symbolinfo.GetClassForInstanceName(instance) == name


@given((names | wild).map(lambda name: name + "()"))
def test_the_instance_of_the_class_of_an_instance_is_the_instance(name):
    if symbolinfo.IsInstanceScope(name):
        class_name = symbolinfo.GetClassForInstanceName(name)
        assert symbolinfo.GetInstanceNameForClass(class_name) == name


@pytest.mark.parametrize("name", ["", "C", "*", "()", "C().f", "C(", "f.<def>"])
def test_what_is_no_instance_scope(name):
    assert symbolinfo.IsInstanceScope(name) is False
    assert symbolinfo.GetClassForInstanceName(name) == name


def test_the_module_has_no_instance():
    assert symbolinfo.GetInstanceNameForClass("") is None


# --- Def lines and the module --------------------------------------------------------------------


def test_def_line_scopes():
    line = "C.f" + symbolinfo._kDotLineScopeName
    assert symbolinfo.IsDefLineScope(line) is True
    assert symbolinfo.IsDefLineScope("C.f") is False
    assert symbolinfo.IsDefLineScope(line + "x") is False
    assert symbolinfo.IsDefLineScope(symbolinfo.kDefLineScopeName) is False
    assert symbolinfo.IsParentOfDefLineScope("C.f", line) is True
    assert symbolinfo.IsParentOfDefLineScope("C", line) is False


def test_only_lengths_are_compared_with_a_def_line_scope():
    unrelated = "x" * (3 + len(symbolinfo._kDotLineScopeName))
    assert symbolinfo.IsParentOfDefLineScope("abc", unrelated) is True


def test_lengths_are_those_of_characters():
    line = "中é" + symbolinfo._kDotLineScopeName
    assert symbolinfo.IsParentOfDefLineScope("ab", line) is True
    assert symbolinfo.IsParentOfDefLineScope("abcde", line) is False


@pytest.mark.parametrize("bad", [None, 1, b"x"])
def test_def_line_questions_need_text(bad):
    got = type(bad).__name__
    with pytest.raises(TypeError) as caught:
        symbolinfo.IsDefLineScope(bad)
    assert str(caught.value) == f"Argument 'scope' has incorrect type (expected str, got {got})"
    with pytest.raises(TypeError) as caught:
        symbolinfo.IsParentOfDefLineScope(bad, "x")
    assert str(caught.value) == (
        f"Argument 'maybe_parent' has incorrect type (expected str, got {got})"
    )
    with pytest.raises(TypeError) as caught:
        symbolinfo.IsParentOfDefLineScope("x", bad)
    assert str(caught.value) == (
        f"Argument 'def_line_scope' has incorrect type (expected str, got {got})"
    )


def test_the_top_level_scope_of_a_module():
    assert symbolinfo.IsTopLevelModuleScope("") is True
    assert symbolinfo.IsTopLevelModuleScope("*") is False
    assert symbolinfo.IsTopLevelModuleScope("f") is False
    with pytest.raises(TypeError):
        symbolinfo.IsTopLevelModuleScope(None)


kNameFunctions = [
    symbolinfo.ParentScopeName,
    symbolinfo.ParentAndLeafScopeNames,
    symbolinfo.IsInstanceScope,
    symbolinfo.GetInstanceNameForClass,
    symbolinfo.GetClassForInstanceName,
    symbolinfo.SplitScopeNameFromSuffixes,
    symbolinfo.RemoveAllScopeNameSubscripts,
]


@pytest.mark.parametrize("function", kNameFunctions)
@pytest.mark.parametrize("bad", [None, 1, b"C.f"])
def test_scope_names_are_text(function, bad):
    with pytest.raises(TypeError):
        function(bad)


@pytest.mark.parametrize("function", kNameFunctions)
def test_a_lone_surrogate_is_a_clear_failure(function):
    with pytest.raises(UnicodeEncodeError):
        function("a.\ud800")


# --- CScope --------------------------------------------------------------------------------------


def test_questions_of_a_scope():
    scope = CScope("C[int].f")
    assert scope.scope_name == "C[int].f"
    assert scope.UnspecializedName() == "C.f"
    assert scope.ParentName() == "C[int]"
    assert scope.ParentAndLeaf() == ("C[int]", "f")
    assert scope.IsTopLevelModule() is False
    assert CScope("").IsTopLevelModule() is True
    assert CScope(scope_name="*").IsTopLevelModule() is False


def test_a_scope_without_a_name():
    with pytest.raises(TypeError):
        CScope(None).IsTopLevelModule()
    with pytest.raises(TypeError):
        CScope(1)
    with pytest.raises(TypeError):
        CScope()


def test_the_unspecialized_name_is_computed_once(monkeypatch):
    asked = []
    monkeypatch.setattr(
        symbolinfo, "RemoveAllScopeNameSubscripts", lambda name: asked.append(name) or "plain"
    )
    scope = CScope("C[x]")
    assert scope.UnspecializedName() == scope.UnspecializedName() == "plain"
    assert asked == ["C[x]"]


def test_an_unspecialized_name_of_none_is_computed_again(monkeypatch):
    answers = [None, None, "C"]
    monkeypatch.setattr(symbolinfo, "RemoveAllScopeNameSubscripts", lambda name: answers.pop(0))
    scope = CScope("C[x]")
    assert [scope.UnspecializedName() for _ in range(4)] == [None, None, "C", "C"]
    assert answers == []


def test_an_unspecialized_name_must_be_text(monkeypatch):
    monkeypatch.setattr(symbolinfo, "RemoveAllScopeNameSubscripts", lambda name: 5)
    with pytest.raises(TypeError) as caught:
        CScope("C").UnspecializedName()
    assert str(caught.value) == "Expected str, got int"


def test_a_scope_asks_the_layer_as_it_stands(monkeypatch):
    monkeypatch.setattr(symbolinfo, "ParentScopeName", lambda name: ("parent", name))
    monkeypatch.setattr(symbolinfo, "ParentAndLeafScopeNames", lambda name: ("both", name))
    monkeypatch.setattr(
        symbolinfo, "FullyScopedNameWithScope", lambda *arguments: ("expr", *arguments)
    )
    scope = CScope("C")
    assert scope.ParentName() == ("parent", "C")
    assert scope.ParentAndLeaf() == ("both", "C")
    assert scope.ExprIn("x.y") == ("expr", scope, "x.y", False)
    assert scope.ExprIn("x.y", type_hint=True) == ("expr", scope, "x.y", True)


@pytest.mark.parametrize(
    ("expr", "type_hint", "result"),
    [
        ("x.y", False, "x.y"),
        (b" x ", False, "x"),
        ("'C'", False, "'C'"),
        ("'C'", True, "C"),
        ('"""C | None"""', True, "C | None"),
        ("'C' | 'D'", True, "'C' | 'D'"),
        ("'", True, "'"),
        ("''", True, ""),
        ("List['C']", True, "List['C']"),
        ("", True, ""),
    ],
)
def test_an_expression_in_a_scope(expr, type_hint, result):
    assert CScope("f").ExprIn(expr, type_hint) == ("f", result, type_hint)
    named = symbolinfo.FullyScopedNameWithScope(CScope("f"), expr, type_hint)
    assert (named.scope_name, named.expr, named.type_hint) == ("f", result, type_hint)


def test_an_expression_needs_a_scope():
    with pytest.raises(TypeError, match="expected CScope, got str"):
        symbolinfo.FullyScopedNameWithScope("f", "x")
