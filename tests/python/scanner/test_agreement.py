"""The scanner finds what Python's own syntax tree and symbol table hold.

A default run takes a fixed sample of the standard library and of the installed packages. The
environment variable LOOM_SCAN_TREES, folders separated as in PATH, adds every file below them; see
also compare_trees.py, which does the same on all processors.
"""

import os
import random
import sysconfig
from pathlib import Path

import pytest
from oracle import differences, read_source

STDLIB = Path(sysconfig.get_paths()["stdlib"])
SITE = Path(sysconfig.get_paths()["purelib"])
SAMPLE = 160

# Files that are long, odd, or made to try out syntax. The "test" package isn't installed everywhere.
NASTY = [
    "_pydecimal.py",
    "argparse.py",
    "enum.py",
    "functools.py",
    "inspect.py",
    "locale.py",
    "platform.py",
    "posixpath.py",
    "pydoc.py",
    "turtle.py",
    "typing.py",
    "test/test_asyncgen.py",
    "test/test_class.py",
    "test/test_coroutines.py",
    "test/test_except_star.py",
    "test/test_fstring.py",
    "test/test_generators.py",
    "test/test_grammar.py",
    "test/test_keywordonlyarg.py",
    "test/test_lambda.py",
    "test/test_named_expressions.py",
    "test/test_patma.py",
    "test/test_pep646_syntax.py",
    "test/test_peepholer.py",
    "test/test_positional_only_arg.py",
    "test/test_scope.py",
    "test/test_string_literals.py",
    "test/test_syntax.py",
    "test/test_type_aliases.py",
    "test/test_type_annotations.py",
    "test/test_type_params.py",
    "test/test_typing.py",
    "test/test_unicode_identifiers.py",
    "test/test_unpack_ex.py",
    "test/test_with.py",
]


def sample(folder: Path, count: int) -> list[Path]:
    """Return a fixed choice of the files below a folder."""
    files = sorted(path for path in folder.rglob("*.py") if path.is_file())
    return sorted(random.Random(2112).sample(files, min(count, len(files))))


def chosen() -> list[Path]:
    """Return all files to compare, each once."""
    files = [STDLIB / name for name in NASTY if (STDLIB / name).is_file()]
    files += sample(STDLIB, SAMPLE)
    files += sample(SITE, SAMPLE)
    for folder in filter(None, os.environ.get("LOOM_SCAN_TREES", "").split(os.pathsep)):
        files += sample(Path(folder), 1 << 62)
    return list(dict.fromkeys(files))


def test_scan_agrees_with_tree_and_table() -> None:
    """Scopes, names with kinds, imports and line numbers are equal in every file."""
    compared = 0
    reports = []
    for path in chosen():
        text = read_source(path)
        found = None if text is None else differences(text)
        if found is not None:
            compared += 1
        if found:
            reports.append("\n    ".join([str(path), *found[:5]]))
    assert not reports, "\n".join(reports)
    assert compared >= SAMPLE


SNIPPETS = {
    "form feed": "\fx = 1\nif x:\n  \f    y = 1\n    z = 2\n",
    "tabs": "if a:\n\tif b:\n\t    x = 1\n\ty = 2\nif c:\n    \td = 1\n",
    "carriage returns": "def f():\r    x = 1\r\r\ny = 2\r",
    "windows lines": "def f(\r\n    a,\r\n):\r\n    '''a\r\nb'''\r\n    x = 1\r\ny = '\\\r\n'\r\nz = 2",
    "no line end": "class A: pass",
    "backslash in indentation": "if x:\n  \\\n    y = 1\n  z = 2\n",
    "backslash at column 0": "\\\nx = 1\n",
    "joined keyword": "from a \\\n  import b\nif x: \\\n  import c\n",
    "joined def": "async \\\n  def f(): x = 1\n",
    "semicolons": "x = 1; import a; y = 2; global_ = 3;\n",
    "one-line class": "class A: x = 1; y: int = 2; import z\nw = 3\n",
    "end behind a semicolon": "def f(): x = 1 \\\n  ;\ny = 2\n",
    "nested quotes": "x = f'{a['b']}'\ny = 1\n",
    "nested f-strings": "x = f'{f'{f'{1}'}'}' ; y = 2\n",
    "lines in a field": "x = f'{\n    a\n    # it\\'s\n}'\ny = 1\n",
    "format": "x = f'{a:{b}>{c!r}}{{}}{d:%H:%M}' ; y = 1\n",
    "named character": "x = f'\\N{LATIN SMALL LETTER A}{y}' ; z = rf'\\N{y}'\n",
    "braces in a format": "x = f'{a:{{1: 2}[1]}}'\ny = 2\n",
    "walrus in a field": "x = f'{(y := 1)}{z:=5}'\n",
    "raw quote": "x = r'\\'' ; y = b'\\\\' ; z = 1\n",
    "quotes in triple": "x = '''a'b''c\\''''\ny = 1\n",
    "lambda colons": "x: int = lambda a, b=1, *c: {a: b}\nif lambda: y: z = (w := 1)\n",
    "lambda in lambda": "f(lambda a=lambda: (x := 1), b=(y := 2): (z := 3), c=(w := 4))\n",
    "lambda in a slice": "a[lambda: (x := 1):(y := 2), lambda: 0]\n",
    "comprehension": "x = [y := f(z), y ** 2]\nv = [(w := q) for q in range(3)]\n",
    "lambda in a comprehension": "x = [lambda: (y := 1) for z in (w := 2,)]\n",
    "names like keywords": "match = 1\ncase = type = 2\nmatch[0]: int = 3\nmatch, case = 1, 2\n",
    "calls like keywords": "match(x)\ntype(x)\ncase(x)\nmatch.x = 1\ntype.y = 2\n",
    "match on brackets": "match [x]:\n  case [y]: z = 1\nmatch (x):\n  case (w): pass\n",
    "match on a minus": "match -x:\n  case -1: y = 1\nmatch *a, b:\n  case _: pass\n",
    "patterns": (
        "match a, b:\n  case {'x': p, **q} if (r := p): pass\n  case A(s, t=u) | B.C(s, t=u): pass\n"
        "  case [*v, _] as w: pass\n  case D.E | -1 | 1+2j | 'x' | None | True: pass\n"
        "  case (y, *_): case = 1\n"
    ),
    "match in a match": "match a:\n  case b:\n    match c:\n      case d: e = 1\n  case f: pass\n",
    "with items": (
        "with a as b, c as (d, [e, *f]), g: pass\nwith (h as i, j as k,): pass\n"
        "with (l) as m, (n): pass\nwith (o, p) as q: pass\nwith (yield_): pass\n"
        "with (a as r.s, b as t[0]): pass\n"
    ),
    "for targets": "for a, (b, *c), d.e, f[0] in g: pass\nfor [h] in i, j: pass\nelse: k = 1\n",
    "assignments": (
        "a = b = c, (d, [e, *f]) = g\n(h) = 1\n(i,) = 2\n[j] = 3\nk.l = m[0] = 4\nn += 1\n"
        "(o) += 2\np: int\n(q): int\n(r): int = 5\ns.t: int = 6\nu @= 1; v //= 2; w **= 3; x >>= 4\n"
    ),
    "deletion": "del a, (b, [c]), d.e, f[0]\n",
    "handlers": "try: a = 1\nexcept A as b: c = 1\nexcept (D, E) as f: pass\nfinally: g = 1\n",
    "handlers of groups": "try: pass\nexcept* (A, B) as b: pass\n",
    "imports": (
        "import a.b.c, d as e, f.g as h\nfrom . import i\nfrom ... import j as k\n"
        "from .l.m import (n as o, p,\n  # q\n  r,)\nfrom s . t import *\nfrom .... u import v\n"
    ),
    "declarations": "def f():\n  global a, b\n  a = 1\n  def g():\n    nonlocal_ = 1\n",
    "nonlocal": "def f():\n  x = 1\n  def g():\n    nonlocal x\n    x = 2\n",
    "arguments": (
        "def f(a, /, b: int = (c := 1), *d: e, g=lambda h, i=2: h, **j) -> k: pass\n"
        "def f(*, a): pass\ndef f(*a: *b): pass\nasync def f(): pass\n"
    ),
    "decorators": "@a\n@b.c(d := 1, x=lambda: 0)\n# e\n\nclass F: \n  @g\n\n  async def h(self): pass\n",
    "static method": "class A:\n  @staticmethod\n  def f(x): x.y = 1\n  def g(x): x.y = 1\n",
    "attributes": (
        "class A:\n  def f(self, o):\n    self.a = self.b.c = 1\n    self.d, o.e = 1\n    self.f: int\n"
        "    for self.g in o: pass\n    with o as self.h: pass\n    self.i += 1\n    self.j[0] = 1\n"
        "    def g(): self.k = 1\n    def h(self): self.l = 1\n    del self.a\n"
    ),
    "type parameters": (
        "def f[T, *Ts, **P](a: T) -> Ts: pass\nclass A[T: (int, str)](B[T], metaclass=M): x = T\n"
        "type X = int\ntype Y[T: int] = list[T]\nclass C:\n  type Z = int\n  def m[U](self): self.u = U\n"
    ),
    "second definitions": "def f():\n  def g(): pass\ndef f():\n  def g(): pass\nclass f: pass\n",
    "private names": "class _A:\n  __x = 1\n  def __f(self, __y):\n    self.__z = __w = 1\n  def g[__T](s): pass\n",
    "unicode": "\N{LATIN SMALL LETTER E WITH ACUTE} = 1\n\N{LATIN SMALL LIGATURE FI} = 2\nx\u0301 = 3\n",
    "numbers": "x = 1if a else 2\ny = 0x1for b\nz = [1for w in (1.,)]\nv = 1_000.5e-3j\n",
    "ellipsis": "x = ...; y = a[..., 1]\ndef f(): ...\n",
    "walruses": "if (a := 1) and (b := 2): pass\nwhile c := d: e = (f := 3)\n",
    "empty": "",
    "only comments": "# a\n\n   # b\n",
    "deep": "\n".join(" " * n + f"class C{n}:" for n in range(90)) + "\n" + " " * 90 + "x = 1\n",
}


@pytest.mark.parametrize("name", SNIPPETS)
def test_snippet_agrees_with_tree_and_table(name: str) -> None:
    """Small sources, one for each construct and quirk of the grammar."""
    text = SNIPPETS[name]
    assert differences(text) == []
