"""Information strings: kinds, parts, definitions; and the small helpers beside them."""

import pytest
from hypothesis import given
from hypothesis import strategies as st
from pysource import symbolinfo
from pysource.symbolinfo import CInferContext, CKindFilter, CLocationCache, CNode

kKinds = """
Set Get SetTypeHint Nonlocal Global WithinExpr Import FromImport ImportAsName Decorator
SpecificScope SpecificUrl BuiltinModule TypingModule BuiltinClass TypedLiteral Arg TypeHint
ExpressionEquiv Method UnboundMethod Function Class Self Instance Module InferredTypeHint
Conditional Called TypeParameter GenericTypeAlias DefLineScope LogicalIndex
DiscardCallResultStatement SetTrailers
""".split()


def kind_of(name):
    return getattr(symbolinfo, f"k{name}Kind")


# --- Kinds ---------------------------------------------------------------------------------------


@pytest.mark.parametrize("name", kKinds)
def test_each_kind_has_a_constant_pair(name):
    kind, prefix = kind_of(name), getattr(symbolinfo, f"k{name}Prefix")
    assert type(kind) is int and 0 < kind < 128
    assert type(prefix) is bytes and prefix == b":" + bytes([kind])
    assert len(prefix) == symbolinfo.kPrefixLen
    assert symbolinfo.GetInfoBytesKind(prefix + b"rest") == kind


def test_kinds_are_distinct_and_harmless():
    kinds = [kind_of(name) for name in kKinds] + [symbolinfo.kPlainEquivKind]
    assert len(set(kinds)) == len(kinds) == 36
    assert not set(bytes(kinds)) & set(b"\"'()[]{}:;")


def test_the_plain_kind_and_the_prefixes_as_text():
    assert symbolinfo.kPlainEquivSpec == b":" + bytes([symbolinfo.kPlainEquivKind])
    assert symbolinfo.kSpecificScopePrefixStr == symbolinfo.kSpecificScopePrefix.decode()
    assert symbolinfo.kSpecificUrlPrefixStr == symbolinfo.kSpecificUrlPrefix.decode()


def test_def_kinds():
    defs = {"Function", "Method", "UnboundMethod"}
    expected = {kind_of(name) for name in defs}
    for byte in range(256):
        assert symbolinfo.IsDefKind(byte) is (byte in expected)
        assert symbolinfo.IsDefKind(bytes([byte])) is (byte in expected)
        with_class = byte in expected or byte == symbolinfo.kClassKind
        assert symbolinfo.IsDefOrClassKind(byte) is with_class


kByteFunctions = [
    symbolinfo.IsDefKind,
    symbolinfo.IsDefOrClassKind,
    CKindFilter().KindMatches,
    lambda kind: CKindFilter([kind]),
]


@pytest.mark.parametrize("function", kByteFunctions)
def test_a_kind_converts_to_one_byte(function):
    for bad in (-1, 256, 2**70):
        with pytest.raises(OverflowError):
            function(bad)
    for bad in (b"", b"ab"):
        with pytest.raises(ValueError):
            function(bad)
    for bad in ("m", None, 1.0):
        with pytest.raises(TypeError):
            function(bad)


@pytest.mark.parametrize(
    "part", [":", "", "a", "a:m", "a:", " :m", b":", b"", b"plain:m", ":\0m", b":\0"]
)
def test_parts_of_the_plain_kind(part):
    assert symbolinfo.GetInfoBytesKind(part) == symbolinfo.kPlainEquivKind


@pytest.mark.parametrize("part", [":mC.f", b":mC.f", ":m", b":m"])
def test_the_kind_of_a_part_as_bytes_and_as_text(part):
    assert symbolinfo.GetInfoBytesKind(part) == symbolinfo.kMethodKind


def test_the_kind_is_a_byte_of_utf8():
    assert symbolinfo.GetInfoBytesKind(":é") == "é".encode()[0]


@pytest.mark.parametrize("bad", [None, 1, ["x"]])
def test_the_kind_of_what_is_no_text(bad):
    with pytest.raises(TypeError):
        symbolinfo.GetInfoBytesKind(bad)


def test_kind_filters():
    nothing = CKindFilter()
    some = CKindFilter([symbolinfo.kMethodKind, b"C", 0, 255])
    for byte in range(256):
        assert nothing.KindMatches(byte) is False
        assert some.KindMatches(byte) is (byte in {symbolinfo.kMethodKind, ord("C"), 0, 255})
    assert CKindFilter(b"mM").KindMatches(b"M") is True
    assert CKindFilter(kinds=iter([1])).KindMatches(kind=1) is True
    with pytest.raises(TypeError):
        CKindFilter(5)


# --- Parts ---------------------------------------------------------------------------------------

kSplits = [
    ("", [""]),
    ("a", ["a"]),
    ("a;b", ["a", "b"]),
    (";", ["", ""]),
    ("a;;b;", ["a", "", "b", ""]),
    ("f(a;b);c", ["f(a;b)", "c"]),
    ("[;];{;};x", ["[;]", "{;}", "x"]),
    ("(];);b", ["(]", ")", "b"]),
    ("';';b", ["';'", "b"]),
    ('"a\\";";b', ['"a\\";"', "b"]),
    ("'''a';'b''';c", ["'''a';'b'''", "c"]),
    ("r'\\';';b", ["r'\\';'", "b"]),
    ("f'{x[';']}';b", ["f'{x[';']}'", "b"]),
    ("('a)';b);c", ["('a)';b)", "c"]),
    ("a);b", ["a)", "b"]),
    ("a(;b", ["a(;b"]),
    ("'a;b", ["'a;b"]),
    ("'a;b\n;c", ["'a;b\n", "c"]),
    ("é;中", ["é", "中"]),
]


@pytest.mark.parametrize(("text", "parts"), kSplits)
def test_splitting_outside_of_brackets_and_literals(text, parts):
    assert symbolinfo.NonNestedSplit(text, ";") == parts
    assert symbolinfo.NonNestedSplit(text, b";") == parts
    encoded = [part.encode() for part in parts]
    assert symbolinfo.NonNestedSplit(text.encode(), ";") == encoded
    assert symbolinfo.NonNestedSplit(text.encode(), b";") == encoded


def test_separators_of_several_bytes():
    assert symbolinfo.NonNestedSplit("a, b,c, (d, e)", ", ") == ["a", "b,c", "(d, e)"]
    assert symbolinfo.NonNestedSplit("a中b(中)c", "中") == ["a", "b(中)c"]
    with pytest.raises(ValueError, match="empty separator"):
        symbolinfo.NonNestedSplit("a", "")
    for arguments in ((None, ";"), ("a", None), (1, ";"), ("a", 1)):
        with pytest.raises(TypeError):
            symbolinfo.NonNestedSplit(*arguments)


@given(st.text(alphabet="ab;()[]{}'\"\\\né", max_size=40))
def test_the_parts_make_up_the_text(text):
    assert ";".join(symbolinfo.NonNestedSplit(text, ";")) == text


@given(st.lists(st.sampled_from(["a", "f(x;y)", "';'", "{';': [;]}", ":mC.f 3", "é"]), min_size=1))
def test_balanced_parts_come_back(parts):
    assert symbolinfo.NonNestedSplit(";".join(parts), ";") == parts


kMethods = (symbolinfo.kMethodPrefix, symbolinfo.kUnboundMethodPrefix)


@pytest.mark.parametrize(
    ("information", "prefixes", "contains"),
    [
        (b":mC.f 3", symbolinfo.kMethodPrefix, True),
        (b"x;:mC.f 3", symbolinfo.kMethodPrefix, True),
        (b"x(;:mC.f 3)", symbolinfo.kMethodPrefix, False),
        (b"x;:MC.f 3", symbolinfo.kMethodPrefix, False),
        (b"x;:MC.f 3", kMethods, True),
        (b"x;:FC.f 3", kMethods, False),
        (b"x:m", kMethods, False),
        (b"", kMethods, False),
        (b":m", (), False),
        (b":ios;x", symbolinfo.kPlainEquivSpec, True),
        (b":ios", symbolinfo.kPlainEquivSpec, False),
    ],
)
def test_whether_information_contains_a_prefix(information, prefixes, contains):
    assert symbolinfo.InfoContains(information, prefixes) is contains
    assert symbolinfo.InfoContains(information.decode(), prefixes) is contains
    if isinstance(prefixes, bytes):
        assert symbolinfo.InfoContains(information, prefixes.decode()) is contains
        assert symbolinfo.InfoContains(information, [prefixes]) is contains
    else:
        as_text = tuple(prefix.decode() for prefix in prefixes)
        assert symbolinfo.InfoContains(information, as_text) is contains


@pytest.mark.parametrize("arguments", [(None, b":m"), (b":m", None), (b":m", 1), (b":m", (1,))])
def test_information_and_prefixes_are_text(arguments):
    with pytest.raises(TypeError):
        symbolinfo.InfoContains(*arguments)


# --- Definitions ---------------------------------------------------------------------------------


@pytest.mark.parametrize(
    ("part", "kind", "scope_name", "line", "bases"),
    [
        (b":Ff 1", "Function", "f", 1, None),
        (b":mC.f 12", "Method", "C.f", 12, None),
        (b":MC.f#2 7", "UnboundMethod", "C.f#2", 7, None),
        (b":CC 3", "Class", "C", 3, None),
        (b":CA.B 3 (Base, metaclass=M)", "Class", "A.B", 3, "(Base, metaclass=M)"),
        (b":CC 3 (f(x for x in y))", "Class", "C", 3, "(f(x for x in y))"),
        (":mÉ.ä 4".encode(), "Method", "É.ä", 4, None),
        (b":mC[int, str].f 4", "Method", "C[int, str].f", 4, None),
        (b":mC.f", "Method", "C.f", None, None),
    ],
)
def test_unpacking_definitions(part, kind, scope_name, line, bases):
    info = symbolinfo.UnpackDefInfoStr(part)
    assert info.kind == kind_of(kind)
    assert (info.scope_name, info.line, info.bases) == (scope_name, line, bases)
    assert type(info).__name__ == "CDefInfo"
    assert type(info).__module__ == "pysource.symbolinfo"


@pytest.mark.parametrize(
    "part",
    [b"", b":", b":m", b"C.f 3", b":iC.f 3", b":m 3", b":mC.f x", b":mC.f 0", b":mC.f -1",
     b":mC.f 3 (Base)", b":CC 3(Base)", b":CC 3 ", b":mC.f 99999999999999999999"],
)
def test_what_is_no_definition(part):
    with pytest.raises(ValueError, match="not a definition"):
        symbolinfo.UnpackDefInfoStr(part)


def test_a_definition_that_is_no_utf8():
    with pytest.raises(UnicodeDecodeError):
        symbolinfo.UnpackDefInfoStr(b":m\xff 3")


class Bytes(bytes):
    """Not exactly bytes."""


@pytest.mark.parametrize("part", [":mC.f 3", None, 5, bytearray(b":mC.f 3"), Bytes(b":mC.f 3")])
def test_a_definition_is_exactly_bytes(part):
    with pytest.raises(TypeError) as caught:
        symbolinfo.UnpackDefInfoStr(part)
    assert str(caught.value) == f"Expected bytes, got {type(part).__name__}"


# --- Nesting -------------------------------------------------------------------------------------


def indexes(text, begin=0, end=None):
    """All indexes from `begin` on, as a walk gives them."""
    end = len(text) if end is None else end
    pos, result = begin, []
    while (pos := symbolinfo.NextNonNestedUtf8PtrIndex(text, pos, end)) != -1:
        result.append(pos)
    return result


def test_plain_bytes_one_by_one():
    assert indexes(b"abc") == [1, 2, 3]


def test_the_index_may_fall_inside_a_character():
    assert indexes("é中".encode()) == [1, 2, 3, 4, 5]


def test_at_the_end_position_there_is_no_next():
    assert symbolinfo.NextNonNestedUtf8PtrIndex(b"abc", 1, 1) == -1
    assert symbolinfo.NextNonNestedUtf8PtrIndex(b"abc", 3, 3) == -1
    assert symbolinfo.NextNonNestedUtf8PtrIndex(b"abc", 2, 1) == -1
    assert symbolinfo.NextNonNestedUtf8PtrIndex(b"(", 9, 9) == -1


def test_a_closing_bracket_at_level_0_is_a_plain_byte():
    assert indexes(b")]}a") == [1, 2, 3, 4]


def test_groups_and_literals_are_one_step():
    assert indexes(b"a(b[c]{d})e") == [1, 10, 11]
    assert indexes(b"'a' \"b\"") == [3, 4, 7]
    assert indexes(b"'''a'b'''c") == [9, 10]
    assert indexes(b"(')')x") == [5, 6]


def test_a_prefix_is_no_part_of_its_literal():
    assert indexes(b"fr'a'b") == [1, 2, 5, 6]
    assert indexes(b"f'{'}'}'b") == [1, 8, 9]


def test_what_is_never_closed_runs_to_the_end_position():
    assert indexes(b"(a'b") == [4]
    assert indexes(b"(ab)c", 0, 3) == [3]
    assert indexes(b"'''ab") == [5]


def test_a_position_that_would_read_outside():
    for pos, end in ((-1, 3), (0, 4), (-5, -1), (2, 2**62)):
        for function in (
            symbolinfo.NextNonNestedUtf8PtrIndex,
            symbolinfo._NonInlineNextNonNestedUtf8PtrIndex,
        ):
            with pytest.raises(ValueError):
                function(b"(a)", pos, end)


def test_the_slow_path_by_itself():
    assert symbolinfo._NonInlineNextNonNestedUtf8PtrIndex("(a)b", 0, 4) == 3
    assert symbolinfo._NonInlineNextNonNestedUtf8PtrIndex(b"x'a'", 1, 4) == 4


# --- Location cache, nodes, inference context ----------------------------------------------------


def test_the_builtins_are_found_once():
    class Cache(CLocationCache):
        calls = 0

        def _FindBuiltinLoc(self):
            self.calls += 1
            return None if self.calls < 3 else ["builtins"]

    cache = Cache()
    assert cache.GetBuiltinLoc() is None
    assert cache.GetBuiltinLoc() is None
    found = cache.GetBuiltinLoc()
    assert found == ["builtins"]
    assert cache.GetBuiltinLoc() is found
    assert cache.calls == 3


def test_a_cache_that_cannot_find_them():
    assert CLocationCache().GetBuiltinLoc() is None

    class Broken(CLocationCache):
        def _FindBuiltinLoc(self):
            raise OSError("no builtins")

    with pytest.raises(OSError, match="no builtins"):
        Broken().GetBuiltinLoc()


@pytest.fixture
def taken_back(monkeypatch):
    """What the node layer is handed."""
    nodes = []
    monkeypatch.setattr(symbolinfo, "__FinishedWithNode", nodes.append)
    return nodes


def test_a_node_is_passed_on_and_so_is_none(taken_back):
    class Leaf(CNode):
        def __init__(self, text):
            self.text = text

    nodes = [CNode(), Leaf("x"), None]
    for node in nodes:
        assert symbolinfo.FinishedWithNode(node) is None
    assert all(a is b for a, b in zip(taken_back, nodes, strict=True))


@pytest.mark.parametrize("bad", [1, "node", object])
def test_what_is_no_node(taken_back, bad):
    with pytest.raises(TypeError) as caught:
        symbolinfo.FinishedWithNode(bad)
    assert str(caught.value) == (
        f"Argument 'node' has incorrect type (expected CNode, got {type(bad).__name__})"
    )
    assert taken_back == []


def test_nodes_without_a_node_layer_are_left_to_themselves():
    assert symbolinfo.FinishedWithNode(CNode()) is None


def isolated(context, reason):
    return context._CInferContext__Isolated(reason)


def test_a_context_that_is_not_isolated():
    assert isolated(CInferContext(), None) is False
    assert isolated(CInferContext(0, {"a": 1}), "a") is False


def test_an_isolated_context_without_reasons():
    assert isolated(CInferContext(1), "a") is True
    assert isolated(CInferContext(isolated=True, reasons=None), None) is True


@pytest.mark.parametrize("reasons", [{}, {"a": 1}, {None: 1}])
def test_a_reason_of_none_whatever_the_mapping_holds(reasons):
    assert isolated(CInferContext(1, reasons), None) is True


def test_reasons_are_the_keys():
    context = CInferContext(2, {"a": None})
    assert isolated(context, "a") is True
    assert isolated(context, "b") is False
    with pytest.raises(TypeError, match="unhashable"):
        isolated(context, [])


def test_the_flag_is_an_integer():
    with pytest.raises(TypeError):
        CInferContext("yes")
    with pytest.raises(OverflowError):
        CInferContext(2**80)
