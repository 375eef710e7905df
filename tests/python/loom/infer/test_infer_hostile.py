"""Cycles of every kind end, and sources of every kind are borne."""

import random
from pathlib import Path

import pytest

from loom.infer import api
from loom.infer.define import definitions_at
from loom.infer.describe import describe_name


def ask_everywhere(project, name):
    """Ask at each position of a file; the answers that there are."""
    found = []
    data = (project.top / name).read_bytes()
    for line, text in enumerate(data.decode("utf-8", "replace").split("\n"), 1):
        for column in range(len(text) + 2):
            answer = definitions_at(project.loc(name), line, column, project.context())
            assert not answer.partial
            found += answer.places
    return found


def test_import_cycles(project):
    project.write(
        a="from b import one, two\nfrom c import *\nimport a\nthree = a.three\none; a.b; two\n",
        b="from a import one\nfrom c import two\n",
        c="from a import *\nfrom b import *\nfrom c import *\n",
    )
    answer = project.ask("a.py", "|one; a.b")
    assert answer.places
    assert not answer.partial
    assert project.ask("a.py", "= a.|three").places[0].kind == "variable"
    assert project.ask("a.py", "one; a.b; |two").places
    assert project.type("a.py", "three") == ""


def test_inheritance_cycles(project):
    project.write(
        a="from b import B\nclass A(B): pass\nclass Own(Own): pass\nA().nothing\nOwn.nothing2\n",
        b="from a import A\nclass B(A):\n    def there(self): pass\n    here = there\n",
    )
    context = project.context()
    names = [c.scope_name for c in api.class_mro(project.loc("a.py"), "A", context)]
    assert names == ["A", "B", "object"]
    assert project.ask("a.py", "A().|nothing").places == ()
    assert project.ask("a.py", "Own.|nothing2").places == ()
    project.check("b.py", "here = |there", "b.py", "def |there")


def test_functions_and_names_that_depend_on_themselves(project):
    project.write(
        m="def f(x): return f(x) or g(x)\n"
        "def g(x): return f(x) or [g(x)]\n"
        "x = x + 1\ny = [y for y in y]\nz = z.z.z\n"
        "a, b = b, a\nlist_ = [list_]\nw = lambda: w()\n"
        "class C:\n    me = property(lambda self: self.me)\n"
        "    def __init__(self): self.a = self.b; self.b = self.a\n"
        "    def __iter__(self): return self\n    def __next__(self): return self\n"
        "    def __getitem__(self, i): return self[i]\n    def __call__(self): return self()\n"
        "    def __enter__(self): return self.__enter__()\n"
        "    @property\n    def p(self): return self.p\n"
        "Alias = Alias[Alias]\ndef h(v: h): return v\n"
    )
    for expression in ("f(1)", "x", "y", "z", "a", "list_", "w()", "C()()", "C()[1]", "C().p"):
        project.type("m.py", expression)
    assert project.type("m.py", "[each for each in C()]") == "list[C]"
    assert ask_everywhere(project, "m.py")


def test_a_long_chain_of_names_ends(project):
    count = 3000
    project.write(
        m="n0 = int()\n" + "".join(f"n{i} = n{i - 1}\n" for i in range(1, count)),
        deep="x = " + "(" * 120 + "1" + ")" * 120 + "\ny = x" + ".a" * 5000 + "\n"
        "z = " + "-" * 3000 + "1\nl = " + "lambda: " * 300 + "1\n",
    )
    project.type("m.py", f"n{count - 1}")
    assert project.ask("m.py", f"|n{count - 1} =").places
    assert project.type("deep.py", "x") == ""  # too long for the scanner
    line = (project.top / "deep.py").read_text().split("\n")[1]
    for column in (4, 100, len(line) - 1):
        definitions_at(project.loc("deep.py"), 2, column, project.context())
    # Chains in hand are answered piece by piece; none is answered wrong.
    assert project.type("m.py", "n20") == "int"
    assert project.type("m.py", f"n{count - 1}") in ("int", "")


DEEP = {
    "functions": ("def f{n}(x): return f{m}(x).a\n", "f0(1)"),
    "attributes": (
        "class A{n}:\n    def __init__(self): self.a = A{m}().a\n"
        "    b = property(lambda s: A{m}().b)\n",
        "A0().a.b",
    ),
    "properties": ("class P{n}:\n    @property\n    def p(self): return P{m}().p\n", "P0().p"),
    "bases": ("class B{n}(B{m}, make(B{m})): pass\n", "B0().x"),
    "comprehensions": ("c{n} = [x for y in [c{m}] for x in y][0]\n", "c0"),
    "unpacking": ("u{n}, (v{n}, *w{n}) = u{m}, w{m}, [w{m}]\n", "v0"),
    "managers": (
        "class M{n}:\n    def __enter__(self): return M{m}().__enter__()\n"
        "with M{n}() as m{n}: pass\n",
        "m0.x",
    ),
    "iterators": (
        "class I{n}:\n    def __iter__(self): return iter(I{m}())\n"
        "    def __next__(self): return next(I{m}())\nfor i{n} in I{n}(): pass\n",
        "i0.x",
    ),
    "lambdas": ("l{n} = lambda x=1: l{m}(lambda: x)()\n", "l0()()"),
    "hints": ("def h{n}(x: 'h{m}') -> 'h{m}(x)': ...\n", "h0(1).y"),
    "generics": ("class G{n}[T](G{m}[G{m}[T]]): pass\n", "G0[int]().x"),
    "decorators": ("@d{m}\ndef d{n}(f): return d{m}(f)\n", "d0(1)(2).x"),
    "operators": ("class O{n}:\n    def __add__(self, o): return O{m}() + o\n", "O0() + 1"),
}


@pytest.mark.parametrize("kind", list(DEEP))
def test_what_depends_on_very_much(project, kind):
    """Deeper than is followed; nothing fails, and it ends."""
    piece, question = DEEP[kind]
    project.write(m="".join(piece.format(n=i, m=i + 1) for i in range(300)))
    project.type("m.py", question)
    project.type("m.py", f"{question}{'.a()' * 200}")


def test_a_table_that_is_too_big_to_be_looked_at_as_a_whole(project):
    rows = "".join(f"    ({i}, name, 'text'),\n" for i in range(40_000))
    project.write(m=f"name = 1\ntable = [\n{rows}]\ntail = name\n")
    project.check("m.py", "(39999, |name", "m.py", "|name = 1")
    project.check("m.py", "(5, |name", "m.py", "|name = 1")
    project.check("m.py", "tail = |name", "m.py", "|name = 1")


def test_very_many_values_of_one_name(project):
    classes = "".join(f"class C{i}:\n    def go(self): pass\n" for i in range(300))
    values = "".join(f"v = C{i}()\n" for i in range(300))
    project.write(m=f"{classes}{values}v.go\n")
    assert len(project.ask("m.py", "v.|go").places) <= 12


@pytest.mark.parametrize(
    "data",
    [
        b"",
        b"\n\n\n",
        b"x",
        b"x.",
        b".x",
        b"x..y",
        b"import",
        b"from . import",
        b"from x import (a,\n",
        b"import a.b.",
        b"class",
        b"class C(",
        b"class C(C(C(",
        b"def f(a, b=",
        b"def f(a: 'x, y': z):",
        b"@",
        b"@a.b(",
        b"f(x=",
        b"f(x=1",
        b"'''open",
        b'"open\nx = 1',
        b"f'{x!r:{y}'",
        b"f'{'",
        b"x = [i for",
        b"lambda",
        b"else: x",
        b"elif y: x",
        b"except E as e: e",
        b"case x: x",
        b"match x:",
        b"try:",
        b"\xef\xbb\xbfx = 1\nx",
        b"# coding: latin-1\n\xe4 = 1\n\xe4",
        b"\xff\xfe\xfd = 1",
        b"a\0b",
        b"x = 1 \\\n + 2 \\",
        b"\tx\n  y\n z",
        b"if x:\r\n    y\r\n",
        b"x: 'x' = 'x'",
        b"x: '\\x41' = 1",
        b"x: 'a\\nb' = 1",
        b"x: \"'x'\" = 1",
        b"def f[T: (T, T)](x: T = T) -> T: pass",
        b"type X[T] = X[T]",
        b"global x\nnonlocal y",
        b"print 'old'\nexec x in y\nraise E, 'x'",
        b"<<<<<<< here\nx = 1\n=======\nx = 2\n>>>>>>> there\nx",
        "é.ü(ß=1).ñ".encode(),
        "x = '\U0001f600'; y".encode(),
    ],
)
def test_sources_of_every_kind(project, data):
    project.write(m="")
    (project.top / "m.py").write_bytes(data)
    for line, text in enumerate(data.split(b"\n"), 1):
        for column in range(len(text) + 2):
            answer = definitions_at(project.loc("m.py"), line, column, project.context())
            assert all(place.line >= 1 and place.column >= 0 for place in answer.places)
    for line, column in ((0, 0), (-1, -1), (10**6, 10**6), (1, -5)):
        definitions_at(project.loc("m.py"), line, column, project.context())


def test_pieces_of_real_code(project):
    """Positions in sources that were cut off, or had something taken out."""
    text = Path(random.__file__).read_text(encoding="utf-8")
    lot = random.Random(7)
    for round_ in range(12):
        start = lot.randrange(len(text))
        piece = text[max(0, start - 1500) : start]
        at = lot.randrange(len(piece) + 1)
        slip = lot.choice(["", "(", '"', "'''", "\\", "def "])
        project.write(m=piece[:at] + slip + piece[at + 9 :])
        lines = (project.top / "m.py").read_text().split("\n")
        for line in range(1, len(lines) + 1, 3):
            for column in range(0, len(lines[line - 1]) + 1, 5):
                definitions_at(project.loc("m.py"), line, column, project.context())


def test_odd_names_to_describe(project):
    project.write(m="x = 1\n")
    folder = project.loc("m.py").GetParentDir()
    for name in ("", ".", "..", "a..b", ".a", "a.", "a b", "1", "m.x.y.z", "m" * 5000, "a." * 999):
        assert describe_name(name, folder, None, project.context()) == ()


def test_one_scope_with_very_many_attributes_is_no_slower_each_time(project):
    """The table of a class's attributes is made once, however often it is asked."""
    methods = "".join(f"    def m{i}(self): self.a{i} = {i}\n" for i in range(400))
    uses = "".join(f"c.a{i}\n" for i in range(400))
    project.write(m=f"class C:\n{methods}c = C()\n{uses}")
    made = []
    engine = project.engine
    original = engine.records.scope
    engine.records.scope = lambda ctx, loc, name: made.append(name) or original(ctx, loc, name)
    context = project.context()
    for i in range(400):
        assert api.resolve_expression(project.loc("m.py"), "", f"c.a{i}", context)
    assert sum(name.startswith("C.m") for name in made) <= 2 * 400
