"""What expressions are worth."""

import pytest

KINDS = """\
from __future__ import annotations
import contextlib, functools, re, subprocess, typing
from typing import Generic, Optional, TypeVar, Callable, Literal
T = TypeVar("T")
class Box(Generic[T]):
    def __init__(self, content: T) -> None: ...
    def get(self) -> T: ...
    def boxed(self) -> Box[Box[T]]: ...
class IntBox(Box[int]):
    pass
class New[K, V]:
    def key(self) -> K: ...
    def swap(self) -> New[V, K]: ...
class Thing:
    size: int
    names = ["a"]
    def __enter__(self) -> str: ...
    def __exit__(self, *args): ...
    def __iter__(self):
        yield 1.5
    def __getitem__(self, index) -> bytes: ...
    def __call__(self): return 3
    def __add__(self, other) -> complex: ...
    @functools.cached_property
    def cached(self): return {"k": 1}
    def me(self) -> typing.Self: ...
class SubThing(Thing):
    pass
def first(items: list[T]) -> T: ...
def maybe(flag) -> Optional[Thing]: ...
def either() -> int | str: ...
def evident(flag):
    if flag:
        return 1
    return "text"
def numbers():
    yield 1
    yield from ["x"]
@contextlib.contextmanager
def managed():
    yield Thing()
async def later() -> Thing: ...
def caller(work: Callable[[int], Thing], *many: int, **named: str):
    with managed() as inside, open("f") as file:
        done = work(1)
    return inside, file, done, many, named
async def waiting():
    got = await later()
    async for each in stream(): pass
    return got
def stream() -> typing.AsyncIterator[bytes]: ...
def literal() -> Literal["a", 1]: ...
@functools.lru_cache(maxsize=None)
def remembered(): return Thing()
alias = dict[str, T]
def aliased() -> alias[Thing]: ...
a, (b, *c), d = 1, ("x", 2.0, 3.0), Thing()
pairs = {"k": Thing()}
for key, value in pairs.items(): pass
def looping():
    value = start()
    while value:
        value = value
    return value
def start(): return looping()
Pair = typing.NamedTuple("Pair", [("x", int)])
class Point(typing.NamedTuple):
    x: int = 0
UserId = typing.NewType("UserId", int)
"""

TYPES = [
    ("Box(1).get()", "int"),
    ("Box('x').boxed()", "Box[Box[str]]"),
    ("Box('x').boxed().get().get()", "str"),
    ("IntBox(1).get()", "int"),
    ("IntBox", "type[IntBox]"),
    ("Box[Thing](1).get()", "Thing"),
    ("New[int, str]().swap()", "New[str, int]"),
    ("New[int, str]().swap().key()", "str"),
    ("first([Thing()])", "Thing"),
    ("first", "function"),
    ("maybe(1)", "Thing | None"),
    ("maybe(1).size", "int"),
    ("either()", "int | str"),
    ("evident(0)", "int | str"),
    ("[x for x in numbers()][0]", "int | str"),
    ("later()", "Thing"),
    ("literal()", "str | int"),
    ("remembered()", "Thing"),
    ("remembered.cache_info", "function"),
    ("aliased()", "dict[str, Thing]"),
    ("aliased()['k']", "Thing"),
    ("(a, b, c, d)", "tuple[int, str, list[float], Thing]"),
    ("key", "str"),
    ("value", "Thing"),
    ("Thing().names[0]", "str"),
    ("Thing()[1]", "bytes"),
    ("Thing()()", "int"),
    ("Thing() + 1", "complex"),
    ("Thing().cached", "dict[str, int]"),
    ("[x for x in Thing()]", "list[float]"),
    ("{x: [x] for x in Thing()}", "dict[float, list[float]]"),
    ("{x for x in 'ab'}", "set[str]"),
    ("SubThing().me()", "SubThing"),
    ("type(SubThing())", "type[SubThing]"),
    ("(lambda x, y: y)(1, 'a')", "str"),
    ("1 if a else 's'", "int | str"),
    ("a or 's'", "int | str"),
    ("not a", "bool"),
    ("a < 1", "bool"),
    ("-a", "int"),
    ("1 / 2", "float"),
    ("'%s' % a", "str"),
    ("[1] + [2]", "list[int]"),
    ("'a,b'.split(',')[0]", "str"),
    ("f'{a}'", "str"),
    ("b'x'", "bytes"),
    ("None", "None"),
    ("(x := 3)", "int"),
    ("[*'ab']", "list[str]"),
    ("{'a': 1}.get('a')", "int | None"),
    ("dict(a=1).keys", "function"),
    ("sorted([1.5])[0]", "float"),
    ("list(map(str, [1]))[0]", "str"),
    ("[i for i, _ in enumerate('a')]", "list[int]"),
    ("next(iter([Thing()]))", "Thing"),
    ("max([1])", "int"),
    ("open('f')", "TextIOWrapper"),
    ("subprocess.Popen('x').pid", "int"),
    ("typing.cast(Thing, a)", "Thing"),
    ("UserId(1)", "int"),
    ("Point().x", "int"),
    ("(1, 'a', 2.0)[-1]", "float"),
    ("[1, 2][1:]", "list[int]"),
    ("looping()", ""),
    ("unknown_name", ""),
    ("a.unknown_attribute", ""),
    ("1 +", ""),
    ("", ""),
]


@pytest.mark.parametrize(("expression", "expected"), TYPES)
def test_types(project, expression, expected):
    project.write(m=KINDS)
    assert project.type("m.py", expression) == expected


@pytest.mark.parametrize(
    ("name", "expected"),
    [
        ("inside", "Thing"),
        ("file", "TextIOWrapper"),
        ("done", "Thing"),
        ("many", "tuple[int, ...]"),
        ("named", "dict[str, str]"),
    ],
)
def test_types_in_a_function(project, name, expected):
    project.write(m=KINDS)
    assert project.type("m.py", name, "caller") == expected


def test_names_of_the_typing_module(project):
    project.write(
        m="from typing import *\nimport typing as t\n"
        "def f() -> List[int]: ...\ndef g() -> t.Tuple[int, t.Dict[str, bytes]]: ...\n"
        "def h() -> DefaultDict[str, t.Deque[int]]: ...\ndef i() -> t.Type[int]: ...\n"
        "class D(t.TypedDict):\n    key: int\n"
    )
    assert project.type("m.py", "f()[0]") == "int"
    assert project.type("m.py", "g()[1]['x']") == "bytes"
    assert project.type("m.py", "h()['x'][0]") == "int"
    assert project.type("m.py", "i()") == "type[int]"
    assert project.type("m.py", "i()()") == "int"
    assert project.type("m.py", "D().get") == "function"
    assert project.type("m.py", "__name__") == "str"


def test_what_functions_assign_to_a_name_of_the_module(project):
    project.write(
        m="_db = None\ndef init():\n    global _db, only_here\n    _db = Database()\n"
        "    only_here = {'a': 1}\nclass Database:\n    def find(self): return 1\n"
        "def use(): return _db.find(), only_here\n"
    )
    assert project.type("m.py", "use()") == "tuple[int, dict[str, int]]"
    project.check("m.py", "_db.|find", "m.py", "def |find")
    project.check("m.py", "(), |only_here", "m.py", "    |only_here = {")


def test_awaiting(project):
    project.write(m=KINDS)
    assert project.type("m.py", "got", "waiting") == "Thing"
    assert project.type("m.py", "each", "waiting") == "bytes"


def test_an_argument_is_what_its_default_is(project):
    project.write(m="def f(size=3, name=None, *, flag: bool = None): pass\n")
    assert project.type("m.py", "size", "f") == "int"
    assert project.type("m.py", "name", "f") == ""
    assert project.type("m.py", "flag", "f") == "bool"


def test_the_first_argument_of_a_method(project):
    project.write(
        m="class C:\n"
        "    def f(this): pass\n"
        "    @classmethod\n    def g(klass): pass\n"
        "    @staticmethod\n    def h(first): pass\n"
        "    def __new__(klass): pass\n"
    )
    assert project.type("m.py", "this", "C.f") == "C"
    assert project.type("m.py", "klass", "C.g") == "type[C]"
    assert project.type("m.py", "first", "C.h") == ""
    assert project.type("m.py", "klass", "C.__new__") == "type[C]"


def test_what_the_source_leaves_open_its_stub_tells(project):
    project.write(m="import twofold\n", twofold="def load(path):\n    return _c.load(path)\n")
    project.write_file("twofold.pyi", "def load(path: str) -> list[int]: ...\n")
    assert project.type("m.py", "twofold.load('x')[0]") == "int"
    assert project.type("twofold.py", "load('x')") == "list[int]"
    assert project.type("twofold.py", "path", "load") == "str"
