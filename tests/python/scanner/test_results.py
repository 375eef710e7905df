"""What a function gives back and what a generator yields, as parts of `return` and `yield`."""

import pytest
from scanning import Scanned


@pytest.mark.parametrize(
    ("body", "name", "information"),
    [
        ("return a", "return", b":=a"),
        ("return", "return", b":=None"),
        ("return a, *b", "return", b":=a, *b"),
        ("return ( # why\n  a )", "return", b":=(a)"),
        ("return a; return b; return a", "return", b":=a;:=b"),
        ("if a: return 1\n  else: return ''", "return", b":=1;:=''"),
        ("return [lambda: (yield a)]", "return", b":=[lambda: (yield a)]"),
        ("yield", "yield", b":=None"),
        ("yield a, b", "yield", b":=a, b"),
        ("x = yield a", "yield", b":=a"),
        ("f((yield a), b)", "yield", b":=a"),
        ("yield from a.b", "yield", b":w[*] a.b"),
        ("yield (yield a)", "yield", b":=(yield a);:=a"),
        ("await (yield)", "yield", b":=None"),
        ("return [(yield a) for b in c]", "yield", b":=a"),
        ("return a +", "return", b":=a +"),
        ("yield (a\n  def g(): pass", "yield", b":=..."),
    ],
)
def test_results_of_a_function(body: str, name: str, information: bytes) -> None:
    """In a function on lines of its own, and where it fits on one line there, too."""
    assert Scanned(f"def f():\n  {body}\n").info(name, "f") == information
    if "\n" not in body and not body.startswith("if"):
        assert Scanned(f"async def f(): {body}\n").info(name, "f") == information


def test_annotation_of_the_result_comes_first() -> None:
    """The annotation and the values are told under the same name."""
    assert Scanned("def f() -> int:\n  return 1\n").info("return", "f") == b":Hint;:=1"


@pytest.mark.parametrize(
    "source", ["return 1\nyield 2\n", "class f:\n  return 1\n  yield 2\n", "f = lambda: (yield 1)\n"]
)
def test_only_functions_have_results(source: str) -> None:
    """A module, a class and a lambda have none."""
    for scope in Scanned(source).scopes:
        assert not {"return", "yield"} & scope.info.keys()


def test_results_belong_to_the_innermost_function() -> None:
    """Also in a method, and in a function inside of it."""
    scanned = Scanned("class C:\n  def m(self):\n    def g(): yield 1\n    return g\n")
    assert scanned.info("return", "C.m") == b":=g"
    assert scanned.info("yield", "C.m.g") == b":=1"
    assert "yield" not in scanned.scope("C.m").info


def test_many_results_are_limited() -> None:
    """As all parts that quote an expression."""
    body = "".join(f"  return {n}\n" for n in range(100))
    assert Scanned(f"def f():\n{body}").info("return", "f").count(b";") == 23
