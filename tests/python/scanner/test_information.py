"""What is recorded of each name, and in which form."""

import pytest
from scanning import Scanned


@pytest.mark.parametrize(
    ("source", "name", "information"),
    [
        # Definitions.
        ("def f(): pass", "f", b":Ff 1"),
        ("\n\n@a\n@b.c( 1,\n 2)\nasync def f(): pass", "f", b":Ff 6;:@a;:@b.c(1, 2)"),
        ("def f(): pass\ndef f(): pass", "f", b":Ff 1;:Ff#2 2"),
        ("def f(): pass\nclass f: pass\nf = 1", "f", b":Ff 1;:Cf#2 2;:=1"),
        ("class A: pass", "A", b":CA 1"),
        ("class A(): pass", "A", b":CA 1"),
        ("class A( B ,\n  metaclass = C): pass", "A", b":CA 1 (B , metaclass = C)"),
        ("class A[T](B[T]): pass", "A", b":CA 1 (B[T])"),
        ("@d\nclass A(B): pass", "A", b":CA 2 (B);:@d"),
        ("type X = int", "X", b":G;:=int"),
        ("type X[T: int, *U] = list[T]", "X", b":G[T: int, *U];:=list[T]"),
        # Assignments.
        ("x = y  # z", "x", b":=y"),
        ("x = y = 1", "y", b":=1"),
        ("x = 1\nx = 2\nx = 1", "x", b":=1;:=2"),
        ("x: int", "x", b":Hint"),
        ("x: 'List[int]' = []", "x", b":H'List[int]';:=[]"),
        ("x += y", "x", b":=x + y"),
        ("x *= y + z", "x", b":=x * (y + z)"),
        ("x //= y", "x", b":=x // y"),
        ("x, y = z", "y", b":w[1] z"),
        ("x, (y, *z), w = v", "z", b":w[1][1:] v"),
        ("*x, y, z = v", "x", b":w[0:] v"),
        ("*x, y, z = v", "y", b":w[-2] v"),
        ("[x] = v", "x", b":w[0] v"),
        ("(x) = v", "x", b":=v"),
        ("f(x := y + 1)", "x", b":=y + 1"),
        ("[x := y for z in w]", "x", b":=y"),
        ("f'{(x := 1)}'", "x", b":=..."),
        # Other bindings.
        ("for x in y: pass", "x", b":w[*] y"),
        ("for x, (z, w) in y: pass", "w", b":w[*][1][1] y"),
        ("with a(b) as x: pass", "x", b":w.__enter__() a(b)"),
        ("async with a as (x, y): pass", "y", b":w.__aenter__()[1] a"),
        ("try: pass\nexcept (A, B) as x: pass", "x", b":w() (A, B)"),
        ("match a, b:\n case x: pass", "x", b":w a, b"),
        ("match a:\n case [1] as x: pass", "x", b":w a"),
        ("match a:\n case C(y=[x, *z]): pass", "z", b":w[...] a"),
        ("import a.b, a.c", "a", b":ia.b;:ia.c"),
        ("import a.b as x", "x", b":ia.b;:ax"),
        ("from a.b import x", "x", b":fa.b x"),
        ("from . import x as y", "y", b":f. x;:ay"),
        ("from .. a . b import (x,)", "x", b":f..a.b x"),
        ("from ....a import *", "*", b":f....a *"),
        ("global x", "x", b":o"),
        ("nonlocal x", "x", b":n"),
    ],
)
def test_information_of_a_name(source: str, name: str, information: bytes) -> None:
    """The parts of an information string, in order of appearance, each once."""
    assert Scanned(source).info(name) == information


def test_each_definition_of_a_name_has_its_own_decorators() -> None:
    source = """\
@overload
def f(a): ...
@overload
@x
@x
def f(b): ...
@property
class f: pass
"""
    parts = [":Ff 2", ":@overload", ":Ff#2 6", ":@overload", ":@x", ":Cf#3 8", ":@property"]
    assert Scanned(source).info("f") == ";".join(parts).encode()


ARGUMENTS = (
    "def f[T: int, *U, **V, W=str](a, /, b: B, c=1, *d: D, e, g: G = lambda x, y=2: {x: y}, **h)"
    " -> R[T]: pass"
)


@pytest.mark.parametrize(
    ("name", "information"),
    [
        ("T", b":pint"),
        ("U", b":p*"),
        ("V", b":p**"),
        ("W", b":p=str"),
        ("a", b":r0/"),
        ("b", b":r1;:HB"),
        ("c", b":r2=1"),
        ("d", b":r3*;:HD"),
        ("e", b":r4|"),
        ("g", b":r5|=lambda x, y=2: {x: y};:HG"),
        ("h", b":r6**"),
        ("return", b":HR[T]"),
    ],
)
def test_arguments_and_type_parameters(name: str, information: bytes) -> None:
    """They stand in the scope of their function."""
    assert Scanned(ARGUMENTS).info(name, "f") == information


def test_deleted_name_has_no_information() -> None:
    """Deleting makes a name local and tells nothing about it."""
    scanned = Scanned("del x")
    assert scanned.bound() == [("x", "g", 1)]
    assert scanned.scope("").info == {}


@pytest.mark.parametrize(
    ("expression", "text"),
    [
        ("a  +\t b", b"a + b"),
        ("(a,\n   # no\n   b\n)", b"(a, b)"),
        ("a \\\n  + b", b"a + b"),
        ("a\\\n+b", b"a +b"),
        ("'a  # b'", b"'a  # b'"),
        ("'''a\n  b'''", b"'''a\n  b'''"),
        ("'a;b' ; c", b"'a;b'"),
        ("[ 1 , {2 : 3} ]", b"[1 , {2 : 3}]"),
        ("f'{a['b']};'", b"f'...'"),
        ("f'{a[\"b\"]};'", b"f'{a[\"b\"]};'"),
        ("f'''{a # ' '''\n}'''", b"f'...'"),
        ("rb'\\''", b"rb'\\''"),
        ("(" + "a, " * 100 + ")", b"(...)"),
        ("[" + "a, " * 100 + "]", b"[...]"),
        ("{" + "a, " * 100 + "}", b"{...}"),
        ("a . b.c(" + "d, " * 100 + ")", b"a.b.c(...)"),
        ("a[" + "b, " * 100 + "]", b"..."),
        ("a(" + "b, " * 100 + ").c", b"..."),
        ("Rb'" + "a" * 300 + "'", b"Rb'...'"),
        ('f"' + "a" * 300 + '"', b'f"..."'),
        ("'''" + "a" * 300 + "'''", b"'...'"),
        ("'a'\n'b'".replace("\n", " ") + " 'c'" * 100, b"'...'"),
        ("'a' + " * 100 + "'b'", b"..."),
        ("a" * 240, b"a" * 240),
        ("a" * 241, b"..."),
        ("", b""),
    ],
)
def test_expression_text(expression: str, text: bytes) -> None:
    """One line without comments, and the shape only of what is too long."""
    assert Scanned(f"x = {expression}\n").info("x") == b":=" + text


@pytest.mark.parametrize("broken", ["(a; b", "[a", "f(a", "'a;", "f'{a;", '"""a;b', "a)];b"])
def test_text_of_a_broken_expression_is_balanced(broken: str) -> None:
    """Nothing that follows can be swallowed, whatever was left open."""
    information = Scanned(f"x = {broken}\n").info("x")
    assert information.count(b";") == 0
    for pair in (b"()", b"[]", b"{}"):
        assert information.count(pair[:1]) == information.count(pair[1:])
    assert information.count(b"'") % 2 == 0
    assert information.count(b'"') % 2 == 0


@pytest.mark.parametrize(
    ("source", "scope", "name", "information"),
    [
        ("def f(t=;)", "f", "t", b":r0=..."),
        ("def f(t=;", "f", "t", b":r0=..."),
        ("def f(a=1, t=x;y=2)", "f", "t", b":r1=..."),
        ("class A[T:;]", "A", "T", b":p..."),
    ],
)
def test_semicolon_in_half_typed_brackets_parts_nothing(
    source: str, scope: str, name: str, information: bytes
) -> None:
    assert Scanned(source).info(name, scope) == information


@pytest.mark.parametrize("field", ["{(y}", "{x=} {(lambda q: **}", "{a[(}", "{f({y}"])
def test_a_bracket_left_open_in_a_field_ends_with_its_literal(field: str) -> None:
    """Else the next part would be taken for a piece of it."""
    information = Scanned(f"x = f'{field}'\nx = 3\n").info("x")
    assert information == b":=f'...';:=3"


def test_parts_that_quote_expressions_are_limited() -> None:
    """The 25th different value of a name tells nothing more; a definition always does."""
    source = "".join(f"x = {n}\n" for n in range(30)) + "def x(): pass\n"
    parts = Scanned(source).info("x").split(b";")
    assert parts == [b":=%d" % n for n in range(24)] + [b":Fx 31"]


def test_many_parts_stay_distinct() -> None:
    """Parts are kept apart, and each once, however many there are."""
    source = "".join(f"import a.b{n}\n" for n in range(500)) * 2
    assert Scanned(source).info("a").split(b";") == [b":ia.b%d" % n for n in range(500)]


def test_targets_of_one_statement_quote_its_value_at_most_16_times() -> None:
    """A long value with many targets must not fill the cache."""
    names = [f"x{n}" for n in range(20)]
    info = Scanned(", ".join(names) + " = value\n").scope("").info
    assert [info[name] for name in names] == [
        b":w[%d] %s" % (n, b"value" if n < 16 else b"...") for n in range(20)
    ]


def test_scopes_have_names_parents_kinds_and_lines() -> None:
    """The module is first; the second definition of a name gets a number."""
    source = (
        "class C:\n"  # 1
        "  @staticmethod\n"
        "  def s(): pass\n"
        "  @a.staticmethod\n"
        "  def t(): pass\n"  # 5
        "  async def m(self):\n"
        "    def g():\n"
        "      x = '''\n"
        "'''\n"
        "    # comment\n"  # 10
        "  class D:\n"
        "    def m(self): pass\n"
        "  def m(self): pass\n"
        "def f(a,\n"
        "      b): pass\n"  # 15
        "\n"
    )
    found = [scope[:5] for scope in Scanned(source).scopes]
    assert found == [
        ("", -1, "O", 1, 15),
        ("C", 0, "C", 1, 13),
        ("C.s", 1, "M", 3, 3),
        ("C.t", 1, "M", 5, 5),
        ("C.m", 1, "m", 6, 9),
        ("C.m.g", 4, "F", 7, 9),
        ("C.D", 1, "C", 11, 12),
        ("C.D.m", 6, "m", 12, 12),
        ("C.m#2", 1, "m", 13, 13),
        ("f", 0, "F", 14, 15),
    ]


def test_attributes_of_the_instance() -> None:
    """They are names of the method with its first argument in front."""
    scanned = Scanned(
        "class C:\n"
        "  def f(this, /, other):\n"
        "    this . x = this.y.z = other.w = 1\n"
        "    this.v: int\n"
        "    def g(a): this.u, b = 1, 2\n"
        "    def h(this): this.t = 1\n"
        "  @staticmethod\n"
        "  def s(this): this.r = 1\n"
        "  def n(): this.q = 1\n"
        "  def star(*args): args.p = 1\n"
        "def f(self): self.o = 1\n"
    )
    attributes = [
        (scanned.scopes[s].name, name, kind) for s, name, kind, _ in scanned.names if "." in name
    ]
    assert attributes == [
        ("C.f", "this.x", "="),
        ("C.f", "this.v", "H"),
        ("C.f.g", "this.u", "w"),
    ]
    assert scanned.info("this.x", "C.f") == b":=1"
    assert scanned.info("this.v", "C.f") == b":Hint"


def test_definitions_are_what_is_worth_finding() -> None:
    """Assignments of module and class once each, instance attributes once a class; nothing local."""
    scanned = Scanned(
        "import a\n"
        "X = 1\n"
        "X = 2\n"
        "Y, (Z, *W) = 3\n"
        "V: int\n"
        "V = 4\n"
        "U += 1\n"
        "for T in X: pass\n"
        "class C:\n"
        "  S = 1\n"
        "  def f(self, r):\n"
        "    q = 1\n"
        "    self.x = self.y = 1\n"
        "    self.x += 1\n"
        "    class D: pass\n"
        "    type E = int\n"
        "  def g(self):\n"
        "    self.x = 2\n"
        "    self.z: int\n"
        "def f(): pass\n"
        "if X: f = 1\n"
    )
    assert [(scanned.scopes[s].name, *rest) for s, *rest in scanned.definitions] == [
        ("", "X", "=", 2),
        ("", "Y", "=", 4),
        ("", "Z", "=", 4),
        ("", "W", "=", 4),
        ("", "V", "=", 5),
        ("", "C", "C", 9),
        ("C", "S", "=", 10),
        ("C", "f", "m", 11),
        ("C.f", "x", "I", 13),
        ("C.f", "y", "I", 13),
        ("C.f", "D", "C", 15),
        ("C.f", "E", "G", 16),
        ("C", "g", "m", 17),
        ("C.g", "z", "I", 19),
        ("", "f", "F", 20),
        ("", "f", "=", 21),
    ]


def test_imports_are_listed_once_in_order() -> None:
    """Wherever in the file they stand."""
    scanned = Scanned(
        "import a.b as c, d\n"
        "def f():\n  from . import x as y\n  if 1: import a.b\n"
        "class C: from .p import *\n"
        "from .p import z, d\nimport d\n"
    )
    assert scanned.imports == [b":ia.b", b":id", b":f. x", b":f.p *", b":f.p z", b":f.p d"]


def test_walrus_binds_around_comprehensions_and_inside_of_lambdas() -> None:
    """A comprehension is no scope for it, a lambda is one that isn't recorded."""
    scanned = Scanned(
        "def f(x=(a := 1)):\n"
        "  [[(b := y) for y in x] for z in x]\n"
        "  lambda: (c := 1)\n"
        "  lambda d=(e := 1): [(g := 1) for h in x]\n"
        "class C((i := object)): pass\n"
    )
    assert [(scanned.scopes[s].name, name) for s, name, kind, _ in scanned.names if kind == "="] == [
        ("", "a"),
        ("f", "b"),
        ("f", "e"),
        ("", "i"),
    ]


@pytest.mark.parametrize(
    "source",
    [
        'x = t"{a["b"]}"\ny = 1\n',  # template strings
        "try: x = 1\nexcept A, B: y = 2\n",  # exceptions without brackets
        "class A[T = int]: y = 1\n",  # defaults of type parameters
        "type X[*Ts = int] = y\ny = 1",
        "def f(): return\nfinally_ = [*y, *(y := 1)]\n",
    ],
)
def test_newer_syntax_does_no_harm(source: str) -> None:
    """What later versions of Python allow is no error."""
    scanned = Scanned(source)
    assert scanned.errors == []
    assert "y" in {name for _, name, kind, _ in scanned.names} or "x" in scanned.scope("").info


def test_python_2_is_scanned_around_its_oddities() -> None:
    """Old statements bind nothing and hide nothing."""
    scanned = Scanned(
        "print >>f, 'x = 1', y\n"
        "exec 'z = 2' in w\n"
        "raise E, 'v = 3'\n"
        "u = `t` + ur's' + 0777L <> 10l\n"
        "try: r = 1\n"
        "except E, e: q = 2\n"
        "def f(a, (b, c), d=1): print a\n"
        "p = 3\n"
    )
    assert [name for name, _, _ in scanned.bound()] == ["u", "r", "q", "f", "p"]
    assert [name for name, _, _ in scanned.bound("f")] == ["a", "d"]
