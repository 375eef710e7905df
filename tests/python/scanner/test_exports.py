"""The digest of what others can see of a source."""

import subprocess
import sys

import pytest

from loom._pyscan import SourceScanner

SOURCE = """\
import a
from b import *
class C(a.D):
    '''Text.'''
    x: int = 1
    def m(self, p, q=1):
        step = p + 1
        self.y = q
        print(step)
    class Inner: z = 1
@a.deco
def f(p: int, *, q=2) -> str:
    local = p
    return str(p)
def g():
    made = C()
    return made
"""


def digest(source: str) -> bytes:
    scanner = SourceScanner(source.encode())
    while not scanner.scan(1 << 20):
        pass
    return scanner.export_digest()


@pytest.mark.parametrize(
    ("old", "new"),
    [
        ("import a\n", "# why\n\n\nimport a\n"),
        ("'''Text.'''", "'''Other.\n    text.'''"),
        ("step = p + 1", "step = p + 2; other = step"),
        ("print(step)", "for n in p: print(n)"),
        ("local = p\n", "def local(x): return x\n"),
        ("q=1", "q=1, "),
    ],
)
def test_what_nobody_sees_changes_nothing(old: str, new: str) -> None:
    """Comments, lines, and what functions do inside."""
    assert old in SOURCE
    assert digest(SOURCE) == digest(SOURCE.replace(old, new))


@pytest.mark.parametrize(
    ("old", "new"),
    [
        ("import a\n", "import a as a\n"),
        ("from b import *", "from c import *"),
        ("a.D", "a.E"),
        ("x: int = 1", "x: str = 1"),
        ("x: int = 1", "x: int = 2"),
        ("self.y", "self.z"),
        ("self.y = q", "self.y = p"),
        ("q=1", "q=2"),
        ("def m", "async def n"),
        ("z = 1", "z = ''"),
        ("@a.deco", "@a.other"),
        ("-> str", "-> int"),
        ("return str(p)", "return int(p)"),
        ("made = C()", "made = a.D()"),
        ("def g", "def h"),
        ("return made", "yield made"),
    ],
)
def test_what_others_see_changes_the_digest(old: str, new: str) -> None:
    """Names, their information, arguments, results, attributes."""
    assert old in SOURCE
    assert digest(SOURCE) != digest(SOURCE.replace(old, new, 1))


def test_the_order_of_definitions_does_not_count() -> None:
    """Neither do names that look alike when they are put together."""
    assert digest("x = 1\ndef f(): pass\n") == digest("def f(): pass\nx = 1\n")
    assert digest("xy = z\n") != digest("x = yz\n")
    assert digest("class x: y = 1\n") != digest("class y: x = 1\n")


def test_the_digest_is_the_same_in_each_process() -> None:
    """It is stored and compared with that of another day."""
    code = f"from loom._pyscan import *; s = SourceScanner({SOURCE.encode()!r}); s.scan(1 << 20)"
    other = subprocess.run(
        [sys.executable, "-P", "-c", f"{code}; print(s.export_digest().hex())"],
        check=True,
        capture_output=True,
        text=True,
        timeout=60,
    )
    assert other.stdout.strip() == digest(SOURCE).hex()


def test_a_digest_needs_the_whole_source() -> None:
    """A part of it is an error."""
    with pytest.raises(ValueError, match="end"):
        SourceScanner(b"x = 1\n").export_digest()
