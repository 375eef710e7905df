"""Definitions of names, construct by construct: one small project a topic."""

import pytest

NAMES = """\
import things
from things import Thing as Renamed, helper

count = 0
def outer(first, /, second=count, *rest, key: int = 1, **more):
    local = first
    def inner():
        nonlocal local
        local = second + 1
        global count
        count = 2
        return key, rest, more
    return inner, local

class Holder:
    count = 5
    doubled = count * 2
    def method(self):
        return count, Renamed

def generic[Kind](item: Kind) -> "Kind":
    return helper(item)
type Pair = tuple[int, int]
pair: Pair = (1, 2)
squares = [number * number for number in range(3) if number]
nested = {a: b for a, bs in [] for b in bs}
adder = lambda left, right=count: left + right
for index, (low, *high) in things.ROWS: print(index, low, high)
with open("x") as first_file, open("y") as second_file: print(first_file, second_file)
try:
    pass
except (ValueError, TypeError) as problem: print(problem)
if (walrus := count) > 1: print(walrus)
match pair:
    case [x, *others] if x: print(x, others)
    case {"k": value, **remaining}: print(value, remaining)
    case Holder() as held: print(held)
del walrus
print(things.helper(1), len([]), f"{pair!r:>{count}}")
print(undefined_name)
"""
THINGS = """\
ROWS = [(1, (2, 3))]
class Thing:
    pass
def helper(value):
    return value
"""

NAME_USES = [
    ("import |things\n", "things.py", None),
    ("from |things import", "things.py", None),
    ("import |Thing as Renamed", "things.py", "class |Thing"),
    ("Thing as |Renamed", "things.py", "class |Thing"),
    ("Renamed, |helper", "things.py", "def |helper"),
    ("second=|count,", "m.py", "|count = 0"),
    ("local = |first\n", "m.py", "outer(|first,"),
    ("nonlocal |local\n", "m.py", "    |local = first"),
    ("local = |second + 1", "m.py", "/, |second=count"),
    ("global |count\n", "m.py", "|count = 0"),
    ("return |key, rest", "m.py", "*rest, |key:"),
    ("return key, |rest", "m.py", "*|rest, key"),
    ("return key, rest, |more", "m.py", "**|more"),
    ("return |inner, local", "m.py", "def |inner"),
    ("doubled = |count * 2", "m.py", "    |count = 5"),
    ("return |count, Renamed", "m.py", "|count = 0"),
    ("return count, |Renamed", "things.py", "class |Thing"),
    ("item: |Kind)", "m.py", "generic[|Kind]"),
    ('-> "|Kind"', "m.py", "generic[|Kind]"),
    ("helper(|item)", "m.py", "(|item: Kind"),
    ("pair: |Pair", "m.py", "type |Pair"),
    ("squares = [|number *", "m.py", "for |number in range"),
    ("if |number]", "m.py", "for |number in range"),
    ("nested = {|a: b", "m.py", "for |a, bs"),
    ("{a: |b for", "m.py", "for |b in bs"),
    ("for b in |bs}", "m.py", "for a, |bs in"),
    ("right=|count:", "m.py", "|count = 0"),
    (": |left + right", "m.py", "lambda |left,"),
    ("left + |right", "m.py", "left, |right=count"),
    ("in things.|ROWS", "things.py", "|ROWS ="),
    ("in |things.ROWS", "things.py", None),
    ("print(|index, low", "m.py", "for |index, (low"),
    ("print(index, |low", "m.py", "(|low, *high)"),
    ("low, |high)", "m.py", "*|high) in"),
    ("print(|first_file,", "m.py", "as |first_file,"),
    ("first_file, |second_file)", "m.py", "as |second_file:"),
    ("print(|problem)", "m.py", "as |problem:"),
    ("print(|walrus)", "m.py", "(|walrus :="),
    ("print(|x, others)", "m.py", "case [|x,"),
    ("print(x, |others)", "m.py", "*|others] if"),
    ("print(|value, remaining)", "m.py", '"k": |value'),
    ("print(value, |remaining)", "m.py", "**|remaining}"),
    ("print(|held)", "m.py", "as |held:"),
    ("case |Holder()", "m.py", "class |Holder"),
    ("del |walrus", "m.py", "(|walrus :="),
    ("things.|helper(1)", "things.py", "def |helper"),
    ('f"{|pair!r', "m.py", "|pair: Pair"),
    (">{|count}}", "m.py", "|count = 0"),
    ("def |outer(", "m.py", "def |outer("),
    ("class |Holder", "m.py", "class |Holder"),
    ("*|rest, key: int", "m.py", "*|rest, key: int"),
]


@pytest.mark.parametrize(("use", "where", "definition"), NAME_USES)
def test_plain_names(project, use, where, definition):
    project.write(m=NAMES, things=THINGS)
    if definition is None:
        answer = project.ask("m.py", use)
        assert project.place(answer) == (where, 1, 0)
        assert answer.places[0].kind == "module"
    else:
        project.check("m.py", use, where, definition)


def test_builtins_are_defined_in_their_stub(project):
    project.write(m=NAMES, things=THINGS)
    place = project.ask("m.py", "|len([])").places[0]
    assert (place.loc.path.rpartition("/")[2], place.kind) == ("builtins.pyi", "function")


@pytest.mark.parametrize("use", ["|undefined_name", "|    nonlocal", "|match pair", '"|k"'])
def test_what_has_no_definition(project, use):
    project.write(m=NAMES, things=THINGS)
    answer = project.ask("m.py", use)
    assert (answer.places, answer.partial) == ((), False)


ATTRIBUTES = """\
import base
from base import Base, make, Color

class Child(Base, Color and object):
    limit: int = 3
    def __init__(self, size, *, key=None):
        super().__init__(size)
        self.size = size
        self.partner = Base(1)
        self.first, self.second = make(), (1, Base(2))
    @property
    def shape(self) -> "Base":
        return self.partner
    @shape.setter
    def shape(self, value): pass
    @classmethod
    def build(cls):
        return cls(1, key=cls.limit)
    @staticmethod
    def plain():
        return make()
    def use(self):
        self.size; self.partner.grow(); self.inherited_value
        self.shape.grow().shrink(); self.first.grow
        self.limit; self.plain().grow(amount=2)
        self.build().use; super().grow
        def helper(): return self.size
        for each in self.children(): each.shrink
        [one.grow for one in self.children()]
        return self
    def late(self):
        self.added_late = 1
child = Child(1, key=2)
child.use().use().added_late
Child.build().shape.shrink
base.Base.grow
Color.RED.value
Color.RED.describe
with child as entered: entered.use
"""
BASE = """\
from enum import Enum
class Top:
    inherited_value = 1
    def children(self) -> list["Base"]:
        return []
    def __enter__(self):
        return self
class Base(Top):
    def __init__(self, size):
        self.base_size = size
    def grow(self, amount=1):
        return self
    def shrink(self):
        return None
def make():
    result = Base(3)
    return result
class Color(Enum):
    RED = 1
    def describe(self): pass
"""

ATTRIBUTE_USES = [
    ("        self.|size; self", "m.py", "self.|size = size"),
    ("self.|partner.grow()", "m.py", "self.|partner = Base(1)"),
    ("partner.|grow();", "base.py", "def |grow"),
    ("self.|inherited_value", "base.py", "|inherited_value = 1"),
    ("self.|shape.grow()", "m.py", "def |shape(self) ->"),
    ("shape.|grow().shrink", "base.py", "def |grow"),
    ("grow().|shrink();", "base.py", "def |shrink"),
    ("self.first.|grow", "base.py", "def |grow"),
    ("self.|limit; self", "m.py", "|limit: int"),
    ("self.|plain().grow", "m.py", "def |plain"),
    ("grow(|amount=2)", "base.py", "|amount=1"),
    ("self.build().|use;", "m.py", "def |use"),
    ("super().|grow\n", "base.py", "def |grow"),
    ("super().|__init__(size)", "base.py", "def |__init__"),
    ("return self.|size", "m.py", "self.|size = size"),
    ("each.|shrink", "base.py", "def |shrink"),
    ("[one.|grow", "base.py", "def |grow"),
    ("self.|children(): each", "base.py", "def |children"),
    ("Child(1, |key=2)", "m.py", "*, |key=None"),
    ("key=cls.|limit", "m.py", "|limit: int"),
    ("return cls(1, |key=cls", "m.py", "*, |key=None"),
    ("use().use().|added_late", "m.py", "self.|added_late = 1"),
    ("build().shape.|shrink", "base.py", "def |shrink"),
    ("base.|Base.grow", "base.py", "class |Base"),
    ("base.Base.|grow\n", "base.py", "def |grow"),
    ("Color.|RED.value", "base.py", "|RED = 1"),
    ("RED.|describe", "base.py", "def |describe"),
    ("entered.|use", "m.py", "def |use"),
    ("@|shape.setter", "m.py", "def |shape(self) ->"),
    ("self.|added_late = 1", "m.py", "self.|added_late = 1"),
]


@pytest.mark.parametrize(("use", "where", "definition"), ATTRIBUTE_USES)
def test_attributes(project, use, where, definition):
    project.write(m=ATTRIBUTES, base=BASE)
    project.check("m.py", use, where, definition)


IMPORTS = {
    "pkg/__init__.py": "from .api import *\nfrom . import tools\n__version__ = '1'\n",
    "pkg/api.py": (
        "from ._impl import Engine, _private as exposed, hidden\n"
        "__all__ = ['Engine', 'exposed']\n__all__ += ['extra']\nextra = 1\n"
    ),
    "pkg/_impl.py": "class Engine:\n    def run(self): pass\ndef _private(): pass\nhidden = 1\n",
    "pkg/tools/__init__.py": "from .. import api as sibling\nfrom ..api import Engine\n",
    "pkg/tools/deep.py": "value = 1\n",
    "plain.py": "shown = 1\n_concealed = 2\n",
    "m.py": (
        "import pkg.tools.deep\nimport pkg.tools.deep as deep\nimport pkg\n"
        "from pkg import Engine, exposed, hidden, tools as t\n"
        "from plain import *\nfrom nowhere import lost\nimport os.path\n"
        "try:\n    import fast_twin as twin\nexcept ImportError:\n    import plain as twin\n"
        "Engine().run; exposed(); hidden; t.sibling.extra; pkg.tools.deep.value\n"
        "deep.value; pkg.extra; shown; _concealed; lost; twin.shown; pkg.api.Engine\n"
        "os.path.join; pkg.__version__\n"
    ),
}
IMPORT_USES = [
    ("pkg import |Engine", "pkg/_impl.py", "class |Engine"),
    ("Engine, |exposed, hidden, tools", "pkg/_impl.py", "def |_private"),
    ("Engine().|run", "pkg/_impl.py", "def |run"),
    ("; |exposed()", "pkg/_impl.py", "def |_private"),
    ("t.sibling.|extra", "pkg/api.py", "|extra = 1"),
    ("tools.deep.|value\n", "pkg/tools/deep.py", "|value = 1"),
    ("\ndeep.|value;", "pkg/tools/deep.py", "|value = 1"),
    ("pkg.|extra", "pkg/api.py", "|extra = 1"),
    ("; |shown;", "plain.py", "|shown = 1"),
    ("twin.|shown", "plain.py", "|shown = 1"),
    ("pkg.api.|Engine\n", "pkg/_impl.py", "class |Engine"),
    ("pkg.|__version__", "pkg/__init__.py", "|__version__"),
    ("; |lost;", "m.py", "import |lost"),
]
MODULE_USES = [
    ("import |pkg.tools.deep\n", "pkg/__init__.py"),
    ("import pkg.|tools.deep\n", "pkg/tools/__init__.py"),
    ("import pkg.tools.|deep\n", "pkg/tools/deep.py"),
    ("deep as |deep", "pkg/tools/deep.py"),
    ("tools as |t\n", "pkg/tools/__init__.py"),
    ("t.|sibling.", "pkg/api.py"),
    ("from |plain import", "plain.py"),
    ("import os.|path", "posixpath.py"),
    ("plain as |twin", "plain.py"),
]


@pytest.mark.parametrize(("use", "where", "definition"), IMPORT_USES)
def test_imports(project, use, where, definition):
    project.write_all(IMPORTS)
    project.check("m.py", use, where, definition)


@pytest.mark.parametrize(("use", "where"), MODULE_USES)
def test_modules(project, use, where):
    project.write_all(IMPORTS)
    answer = project.ask("m.py", use)
    assert project.place(answer) == (where, 1, 0)
    assert answer.places[0].kind == "module"


def test_star_imports_bring_what_is_stated_only(project):
    project.write_all(IMPORTS)
    assert project.ask("m.py", "|_concealed;").places == ()
    # What `__all__` leaves out isn't there, though the module has it.
    answer = project.ask("m.py", "; |hidden;")
    assert project.place(answer) == ("m.py", *project.position("m.py", "exposed, |hidden, tools"))


def test_an_import_is_the_definition_if_it_shall_not_be_followed(project):
    project.write_all(IMPORTS)
    answer = project.ask("m.py", "Engine().|run", stop_at_import=True)
    assert project.place(answer) == ("pkg/_impl.py", *project.position("pkg/_impl.py", "def |run"))
    for use, definition in (("; |exposed()", "Engine, |exposed, hidden, tools"),):
        answer = project.ask("m.py", use, stop_at_import=True)
        assert project.place(answer) == ("m.py", *project.position("m.py", definition))
        assert answer.places[0].kind == "import"


def test_the_source_has_the_definition_and_the_stub_the_type(project):
    project.write(m="import twofold\ntwofold.Thing().find().strip\ntwofold.only_in_stub\n")
    project.write(twofold="class Thing:\n    def find(self):\n        return object_of_c()\n")
    project.write_file(
        "twofold.pyi",
        "class Thing:\n    def find(self) -> str: ...\nonly_in_stub: int\n",
    )
    project.check("m.py", "twofold.|Thing", "twofold.py", "class |Thing")
    project.check("m.py", "Thing().|find", "twofold.py", "def |find")
    project.check("m.py", "|only_in_stub", "twofold.pyi", "|only_in_stub")
    assert project.ask("m.py", "find().|strip").places[0].scope_name == "str"


def test_what_only_the_stub_says_again_is_defined_in_the_base(project):
    project.write(m="from twofold import Part\nPart().attach\nPart().extra\n")
    project.write(
        twofold="class Whole:\n    def attach(self): pass\nclass Part(Whole): pass\n"
    )
    project.write_file(
        "twofold.pyi",
        "class Whole:\n    def attach(self) -> None: ...\n"
        "class Part(Whole):\n    def attach(self) -> int: ...\n    extra: int\n",
    )
    project.check("m.py", "Part().|attach", "twofold.py", "def |attach")
    project.check("m.py", "Part().|extra", "twofold.pyi", "|extra: int")


BRANCHES = """\
def choose(flag):
    if flag == 1:
        value = 1
        print(value, "one")
    elif flag == 2:
        value = 2
        print(value, "two")
    else:
        value = 3
    while flag:
        if value: value = 4; continue
        print(value, "three")
    return value
"""


@pytest.mark.parametrize(
    ("use", "definition"),
    [
        ('print(|value, "one")', "|value = 1\n"),
        ('print(|value, "two")', "|value = 2\n"),
        ("return |value", "if value: |value = 4"),
    ],
)
def test_the_nearest_binding_before_a_use_comes_first(project, use, definition):
    project.write(m=BRANCHES)
    project.check("m.py", use, "m.py", definition)


def test_what_is_half_typed(project):
    project.write(
        m="class Thing:\n    def go(self): return self\nthing = Thing()\n"
        "if thing.go(\nthing.go().go().\nx = thing.go().go )\n"
    )
    project.check("m.py", "if thing.|go(", "m.py", "def |go")
    project.check("m.py", "\n|thing.go().go().", "m.py", "|thing = Thing()")
    project.check("m.py", "x = thing.go().|go )", "m.py", "def |go")


def test_columns_are_characters(project):
    project.write(m='größe = "äöü"; weiß = größe\n')
    project.check("m.py", "weiß = |größe", "m.py", '|größe = "')
    assert project.ask("m.py", "; |weiß").places[0].column == 15
