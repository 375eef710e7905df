"""What is told of dotted names."""

import pytest

from loom.infer.describe import describe_name

THINGS = '''\
"""Things of all kinds.

More about them.
"""
from enum import Enum
import helpers
from helpers import Helper as Assistant

class Base:
    def __init__(self, size: int, *, name="n"): pass

class Thing(Base, Enum, metaclass=type):
    # A comment before it.
    """A thing.  It does."""
    count = 3
    def __init__(self, size, /, other: str = "x", *rest: int, key=None, **more) -> None:
        self.added = {1: "a"}
    @property
    def shape(self):
        "What it looks like."
        return self.added
    async def go(
        self, *, quick: bool
    ) -> "Base":
        """
        Goes.
        """

def plain(): return 1, "a"
'''


@pytest.fixture
def tell(project):
    project.write(things=THINGS, helpers="class Helper:\n    pass\nvalue = [Helper()]\n")

    def tell(name, file=None):
        context = project.context()
        folder = project.loc("things.py").GetParentDir()
        loc = None if file is None else project.loc(file)
        found = describe_name(name, folder, loc, context)
        assert not context.partial
        return found

    return tell


def test_a_module(tell, project):
    (found,) = tell("things")
    assert (found.kind, found.doc) == ("module", "Things of all kinds.")
    assert found.place.loc is project.loc("things.py")


def test_a_class(tell, project):
    (found,) = tell("things.Thing")
    assert (found.kind, found.doc) == ("class", "A thing.  It does.")
    assert found.bases == "(Base, Enum, metaclass=type)"
    assert found.mro == ("Thing", "Base", "Enum", "object")
    assert found.signatures == (
        "(self, size, /, other: str = \"x\", *rest: int, key=None, **more) -> None",
    )
    assert (found.place.line, found.place.column) == (12, 6)


def test_a_class_takes_the_constructor_of_its_base(tell):
    assert tell("helpers.Helper")[0].signatures == ()
    (found,) = tell("things.Base")
    assert found.signatures == ('(self, size: int, *, name="n")',)


def test_functions(tell):
    (found,) = tell("things.plain")
    assert (found.kind, found.signatures, found.type) == ("function", ("()",), "tuple[int, str]")
    (found,) = tell("things.Thing.go")
    assert (found.kind, found.doc) == ("method", "Goes.")
    assert found.signatures == ('(self, *, quick: bool) -> "Base"',)
    assert found.type == "Base"


def test_a_property_and_attributes(tell):
    (found,) = tell("things.Thing.shape")
    assert (found.type, found.doc) == ("dict[int, str]", "What it looks like.")
    (found,) = tell("things.Thing.added")
    assert (found.kind, found.type) == ("attribute", "dict[int, str]")
    (found,) = tell("things.Thing.count")
    assert (found.kind, found.type) == ("variable", "int")
    assert tell("helpers.value")[0].type == "list[Helper]"


def test_names_of_a_file(tell, project):
    (found,) = tell("Assistant", "things.py")
    assert (found.kind, found.place.loc) == ("class", project.loc("helpers.py"))
    (found,) = tell("helpers.value", "things.py")
    assert found.place.loc is project.loc("helpers.py")


def test_overloads_of_a_stub(tell):
    (found,) = tell("os.path.join")
    assert len(found.signatures) > 1
    assert found.place.loc.path.endswith("posixpath.py")
    assert found.doc


def test_builtins(tell):
    (found,) = tell("str.split")
    assert (found.kind, found.type) == ("method", "list[str]")


def test_what_is_not_there(tell):
    assert tell("things.missing") == ()
    assert tell("nothing.at.all") == ()
    assert tell("things.plain.nothing") == ()
