"""Bases across files, and the order in which attributes are looked for."""

import itertools

import pytest

from loom.infer import api


def mro(project, name, scope_name):
    context = project.context()
    found = api.class_mro(project.loc(name), scope_name, context)
    assert not context.partial
    return [cls.scope_name for cls in found]


def test_the_order_over_files(project):
    project.write(
        a="class Root:\n    def say(self): pass\n",
        b="import a\nclass Left(a.Root):\n    def say(self): pass\n",
        c="from a import Root as R\nclass Right(R):\n    def say(self): pass\n",
        m="from b import Left\nimport c\nclass Both(Left, c.Right, metaclass=type): pass\n"
        "Both().say\nsuper\n",
    )
    assert mro(project, "m.py", "Both") == ["Both", "Left", "Right", "Root", "object"]
    project.check("m.py", "Both().|say", "b.py", "def |say")


BASES = ["", "A", "B", "A, B", "B, A"]
LAST_BASES = ["A, C", "C, A", "C, B", "B, C"]


@pytest.mark.parametrize(("c", "d"), list(itertools.product(BASES, LAST_BASES)))
def test_the_order_is_pythons(project, c, d):
    text = f"class A: pass\nclass B(A): pass\nclass C({c}): pass\nclass D({d}): pass\n"
    project.write(m=text)
    names = mro(project, "m.py", "D")
    space = {}
    try:
        exec(text, space)
    except TypeError:
        # There is no order; every class is there all the same, each once.
        assert names[0] == "D"
        assert names[-1] == "object"
        assert len(set(names)) == len(names)
    else:
        assert names == [cls.__name__ for cls in space["D"].__mro__]


def test_a_base_that_is_not_known_is_left_out(project):
    project.write(m="import nowhere\nclass A: pass\nclass B(nowhere.C, A, *rest, **more): pass\n")
    assert mro(project, "m.py", "B") == ["B", "A", "object"]


def test_nested_classes_and_second_definitions(project):
    project.write(
        m="class A:\n    class Inner:\n        def old(self): pass\n"
        "class A(A):\n    class Inner(A.Inner):\n        def new(self): pass\n"
        "A.Inner().new\n"
    )
    assert mro(project, "m.py", "A#2.Inner")[0] == "A#2.Inner"
    project.check("m.py", "A.Inner().|new", "m.py", "def |new")


def test_attributes_of_the_metaclass(project):
    project.write(
        m="class Meta(type):\n    def register(cls): pass\n"
        "class A(metaclass=Meta): pass\nclass B(A): pass\nB.register\nB().register\n"
    )
    project.check("m.py", "B.|register", "m.py", "def |register")
    assert project.ask("m.py", "B().|register").places == ()


def test_super_follows_the_order(project):
    project.write(
        m="class A:\n    def go(self): 'A'\nclass B(A):\n    def go(self): 'B'\n"
        "class C(B):\n    def go(self):\n        super().go; super(B, self).go\n"
        "    @classmethod\n    def make(cls): super().make2\n"
    )
    project.check("m.py", "super().|go;", "m.py", "def |go(self): 'B'")
    project.check("m.py", "super(B, self).|go", "m.py", "def |go(self): 'A'")


def test_an_attribute_that_a_derived_class_assigns_hides_that_of_its_base(project):
    project.write(
        m="class A:\n    kind = 'a'\n    def __init__(self): self.kind = 1\n"
        "class B(A):\n    kind = 'b'\n    def read(self): return self.kind\n"
        "class C(B):\n    def set(self): self.kind = 3\n    def get(self): return self.kind, 2\n"
    )
    project.check("m.py", "return self.|kind\n", "m.py", "|kind = 'b'")
    project.check("m.py", "return self.|kind, 2", "m.py", "self.|kind = 3")


def test_the_data_of_data_classes_as_keywords(project):
    project.write(
        m="from dataclasses import dataclass\n@dataclass\nclass Point:\n    x: int = 0\n"
        "@dataclass\nclass Named(Point):\n    name: str = ''\n"
        "Named(name='n', x=1)\n"
    )
    project.check("m.py", "Named(|name='n'", "m.py", "|name: str")
    project.check("m.py", "'n', |x=1)", "m.py", "|x: int")
