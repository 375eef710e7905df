"""Instance scopes: how the records of a class and its methods become one."""

from collections.abc import Mapping

import pytest
from loombase.location import CLocalFileLocation

from loom._pyscan import pack_info
from loom.store.records import kUnsavedTime
from pysource.scopeinfo import CScopeInfo, CScopeInfoKey, SecondsOf
from pysource.scopescanner import CreateClassInstInfo

kUnsaved = SecondsOf(kUnsavedTime)
kLoc = CLocalFileLocation("/a.py")


def record(
    scope: str,
    names: Mapping[str, bytes],
    mtime: float = 7.0,
    incomplete: bool = False,
    absent: bool = False,
) -> CScopeInfo:
    key = CScopeInfoKey(kLoc, scope, "primary", kLoc, scope)
    return CScopeInfo(key, pack_info(names), mtime, incomplete, absent)


def test_names_of_the_class_come_first_then_attributes_in_order_of_methods() -> None:
    cls = record("C", {"b": b":=1", "f": b":mC.f 2"})
    f = record("C.f", {"self": b":r0", "self.y": b":=x", "x": b":=1", "self.a": b":=2"})
    g = record("C.g", {"this": b":r0/", "this.z": b":=3", "self.no": b":=4"})
    info = CreateClassInstInfo(cls, [g, f], "primary")
    assert list(info.type_equivs.items()) == [
        ("b", b":=1"),
        ("f", b":mC.f 2"),
        ("z", b":sC.g;:=3"),
        ("y", b":sC.f;:=x"),
        ("a", b":sC.f;:=2"),
    ]
    assert info.key == CScopeInfoKey(kLoc, "C()", "primary", kLoc, "C()")
    assert (info.disk_mtime, info.incomplete, info.does_not_exist) == (7.0, False, False)


def test_information_of_one_name_is_put_together_with_where_each_part_is_from() -> None:
    cls = record("C", {"x": b":Hint;:=0"})
    f = record("C.f", {"self": b":r0", "self.x": b":=a;:=b"})
    g = record("C.g", {"self": b":r0", "self.x": b":wi[0] c"})
    info = CreateClassInstInfo(cls, (f, g), "other")
    assert info.type_equivs == {"x": b":Hint;:=0;:sC.f;:=a;:=b;:sC.g;:wi[0] c"}
    assert info.key.scan_name == "other"


def test_method_without_a_first_argument_gives_nothing() -> None:
    cls = record("C", {})
    static = record("C.s", {"a.x": b":=1"})
    rest = record("C.r", {"args": b":r0*", "b": b":r1|"})
    assert CreateClassInstInfo(cls, [static, rest], "primary").type_equivs == {}


def test_class_inside_of_a_class_and_a_second_one() -> None:
    for name in ("C.D", "C#2", "f.C"):
        assert CreateClassInstInfo(record(name, {}), [], "p").key.scope_name == f"{name}()"


def test_record_that_says_that_a_method_is_gone_adds_nothing() -> None:
    gone = record("C.f", {"self": b":r0", "self.x": b":=1"}, incomplete=True, absent=True)
    info = CreateClassInstInfo(record("C", {}), [gone], "primary")
    assert (info.type_equivs, info.incomplete) == ({}, False)


def test_class_that_does_not_exist_has_no_instances_that_do() -> None:
    assert CreateClassInstInfo(record("C", {}, absent=True), [], "primary").does_not_exist


def test_one_incomplete_record_makes_an_incomplete_one() -> None:
    method = record("C.f", {"self": b":r0"}, incomplete=True)
    assert CreateClassInstInfo(record("C", {}), [method], "primary").incomplete
    assert CreateClassInstInfo(record("C", {}, incomplete=True), [], "primary").incomplete


def test_one_record_of_unsaved_text_makes_one_that_is_kept_with_the_buffer() -> None:
    method = record("C.f", {"self": b":r0"}, mtime=kUnsaved)
    assert CreateClassInstInfo(record("C", {}), [method], "primary").disk_mtime == kUnsaved
    info = CreateClassInstInfo(record("C", {}, mtime=kUnsaved), [], "primary")
    assert info.disk_mtime == kUnsaved


def test_module_has_no_instances() -> None:
    with pytest.raises(ValueError, match="no class scope: ''"):
        CreateClassInstInfo(record("", {}), [], "primary")
