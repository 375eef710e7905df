"""Arguments of every kind for every function: a clear failure or a result, never a crash."""

import inspect
import itertools

import pytest
from pysource import _fastaccess, strutils, symbolinfo, usageordereddict


class Odd:
    """Whatever is asked of it fails."""

    def __index__(self):
        raise ZeroDivisionError

    __hash__ = __eq__ = __len__ = __iter__ = __bool__ = __float__ = __str__ = __repr__ = __index__


class Str(str):
    """Not exactly str."""


class Bytes(bytes):
    """Not exactly bytes."""


kValues = [
    None, True, 0, -1, 3, 2**31, 2**63 - 1, -(2**63), 2**64, -(2**200), 1.5, float("nan"),
    "", "a.b[c]#2()", "é中😀'", "\ud800", "\0;", b"", b":mC.f 3", b"\xff\xc3", b"'\0\\",
    Str("x"), Bytes(b"x"), bytearray(b"x"), memoryview(b"x"), (), ("a",), (Odd(),), [b":m"], {},
    Odd(), object, iter([1]), symbolinfo.CScope("C"), symbolinfo.CNode(), len,
]  # fmt: skip

kExpected = (
    TypeError,
    ValueError,
    OverflowError,
    IndexError,
    KeyError,
    AssertionError,
    ZeroDivisionError,
)


def callables():
    """All functions, classes and methods that the modules publish."""
    for module in (_fastaccess, strutils, symbolinfo, usageordereddict):
        for name, value in vars(module).items():
            if inspect.isbuiltin(value) and value.__module__ == module.__name__:
                yield pytest.param(value, id=f"{module.__name__}.{name}")
            elif isinstance(value, type) and value.__module__ == module.__name__:
                yield pytest.param(value, id=f"{module.__name__}.{name}")
    instances = [
        _fastaccess.CLogger("x"),
        _fastaccess.CNonNestedSearch(),
        symbolinfo.CScope("C[x].f"),
        symbolinfo.CKindFilter(),
        symbolinfo.CInferContext(1, {}),
        usageordereddict.CUsageOrderedDict(),
    ]
    for instance in instances:
        for name in dir(type(instance)):
            if not name.startswith("__") or name in ("__call__", "__contains__", "__setitem__"):
                method = getattr(instance, name)
                if callable(method):
                    yield pytest.param(method, id=f"{type(instance).__name__}.{name}")


@pytest.mark.parametrize("function", list(callables()))
def test_any_arguments(function):
    pairs = list(itertools.product(kValues, repeat=2))
    calls = [()] + [(value,) for value in kValues] + pairs
    # Longer calls vary two of their arguments.
    calls += [(first, *middle, last) for first, last in pairs for middle in ((0,), (0, 1), ("x", None, 2))]
    for arguments in calls:
        try:
            function(*arguments)
        except kExpected:
            pass


def test_a_logger_with_any_output_and_arguments():
    log = _fastaccess.CLogger("x")
    for output in kValues:
        log.fOutputFile = output
        for arguments in [("%s", value) for value in kValues] + [("text",)]:
            if output is None:
                log(*arguments)
                continue
            with pytest.raises((AttributeError, ZeroDivisionError)):
                log(*arguments)
