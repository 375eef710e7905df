"""Nothing is left behind by operations that succeed, nor by those that fail."""

import gc
import sys

import pytest
from pysource import _fastaccess, strutils, symbolinfo
from pysource.usageordereddict import CUsageOrderedDict


class Output:
    def write(self, text):
        pass


def log():
    logger = _fastaccess.CLogger("x")
    logger("%s", 1)
    logger.fOutputFile = Output()
    logger("%s %d", "a", 1000)
    logger.fOutputFile = logger


def log_in_vain():
    logger = _fastaccess.CLogger("x")
    logger.fOutputFile = Output()
    logger("%d", "x")


def order():
    d = CUsageOrderedDict()
    for i in range(1000, 1030):
        d.Set(i, [i], i % 2 == 0)
        d.get(i - 3, None, True)
        d.pop(i - 5)
    d.Set("me", d)
    d.Set("first", d._fFirst)
    d.items(), d.keys(), d.values(), repr(d)


def order_in_vain():
    d = CUsageOrderedDict()
    d.Set(1000, [1000])
    del d[[]]


def name():
    scope = symbolinfo.CScope("C[int].f#2")
    scope.UnspecializedName(), scope.ParentAndLeaf(), scope.ExprIn("'x'", True)
    symbolinfo.NonNestedSplit(b"a;b(;)", ";")
    symbolinfo.InfoContains("a;b", (b":m", ":M"))
    symbolinfo.UnpackDefInfoStr(b":CC 3000 (B)")
    symbolinfo.CKindFilter(b"abc")
    symbolinfo.CInferContext(1, {})


def name_in_vain():
    symbolinfo.UnpackDefInfoStr(b":x")


def decode():
    strutils.Utf8Concat5("abc", "é", None, "x", None)
    strutils.Ucs4CharAtUtf8Pos("中", 0, 3)
    strutils.IsAlnumAtUtf8Pos("中".encode(), 0, 3)
    strutils.GetUtf8Ptr("é" * 30)


def decode_in_vain():
    strutils.Ucs4CharAtUtf8Pos(b"\xff", 0, 1)


def search():
    search = _fastaccess.CNonNestedSearch()
    search.InitWith("é;" * 9, b";", 0, 27)
    search.FindNext()
    search.InitWith(b"abc" * 9, b"c" * 3, 0, 27)
    search.FindNext()


def search_in_vain():
    search = _fastaccess.CNonNestedSearch()
    search.InitWith("é;" * 9, b";", 0, 27)
    search.InitWith("é;" * 9, None, 0, 27)


def blocks():
    gc.collect()
    return sys.getallocatedblocks()


@pytest.mark.parametrize("action", [log, order, name, decode, search])
def test_nothing_is_left_of_what_succeeds(action):
    assert growth(action) < 50


@pytest.mark.parametrize(
    "action", [log_in_vain, order_in_vain, name_in_vain, decode_in_vain, search_in_vain]
)
def test_nothing_is_left_of_what_fails(action):
    def fails():
        with pytest.raises((TypeError, ValueError)):
            action()

    assert growth(fails) < 50


def growth(action):
    """Blocks of memory that 300 runs leave behind."""
    for _ in range(20):
        action()
    before = blocks()
    for _ in range(300):
        action()
    return blocks() - before
