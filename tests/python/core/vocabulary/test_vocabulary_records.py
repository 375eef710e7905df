"""Records, priorities and constants that `pysource.scancoordinator` publishes."""

import copy
import enum
import pickle

import pytest
from pysource import scancoordinator
from pysource.scancoordinator import CScanItem, CScanStatus, CSingleQueueStatus

kRecords = {
    CScanItem: ("loc", "scope_name", "scan_name", "priority"),
    CSingleQueueStatus: ("scan_name", "priority", "file_count"),
    CScanStatus: ("queue_status_list", "waiting_count"),
}


@pytest.mark.parametrize("record", kRecords, ids=lambda r: r.__name__)
def test_records_are_named_tuples_of_the_delivering_module(record):
    assert issubclass(record, tuple)
    assert record._fields == kRecords[record]
    assert record.__module__ == "pysource.scancoordinator"
    assert getattr(scancoordinator, record.__name__) is record


@pytest.mark.parametrize("record", kRecords, ids=lambda r: r.__name__)
def test_records_are_immutable(record):
    value = record(*range(len(record._fields)))
    for name in record._fields:
        with pytest.raises(AttributeError):
            setattr(value, name, 1)


@pytest.mark.parametrize("record", kRecords, ids=lambda r: r.__name__)
def test_records_by_keyword_replace_pickle_and_copy(record):
    fields = {name: index for index, name in enumerate(record._fields)}
    value = record(**fields)
    assert value == record(*fields.values()) == tuple(fields.values())
    first = record._fields[0]
    assert getattr(value._replace(**{first: 99}), first) == 99
    assert pickle.loads(pickle.dumps(value)) == value
    assert type(copy.copy(value)) is record


def test_scan_item_unpacks_to_four_values_in_order():
    loc, scope_name, scan_name, priority = CScanItem("loc", "scope", "scan", 1)
    assert (loc, scope_name, scan_name, priority) == ("loc", "scope", "scan", 1)


def test_first_three_of_a_scan_item_are_its_triple():
    loc = object()
    assert CScanItem(loc, "scope", "scan", 1)[:3] == (loc, "scope", "scan")
    assert hash(CScanItem(loc, "scope", "scan", 1)[:3]) == hash((loc, "scope", "scan"))


def test_scan_items_that_differ_in_priority_are_different_keys():
    items = {CScanItem("loc", "*", "scan", priority) for priority in (0, 1, 2, None)}
    assert len(items) == 4
    assert CScanItem("loc", "*", "scan", 1) in items


def test_scan_item_of_four_nones():
    assert CScanItem(None, None, None, None) == (None,) * 4


def test_scan_item_repr_shows_the_fields():
    text = repr(CScanItem("loc", "*", "scan", 2))
    assert text == "CScanItem(loc='loc', scope_name='*', scan_name='scan', priority=2)"


def test_priorities_are_an_integer_enumeration():
    priorities = [
        scancoordinator.kTypingModulePriority,
        scancoordinator.kInteractivePriority,
        scancoordinator.kBackgroundPriority,
    ]
    assert [int(p) for p in priorities] == [0, 1, 2]
    assert priorities == [0, 1, 2]
    assert len({type(p) for p in priorities}) == 1
    assert all(isinstance(p, int) and isinstance(p, enum.IntEnum) for p in priorities)
    assert [p.name for p in priorities] == [
        "kTypingModulePriority",
        "kInteractivePriority",
        "kBackgroundPriority",
    ]
    assert list(type(priorities[0])) == priorities


def test_constants():
    assert scancoordinator.kDefaultWholeFilesToCheckCount == 25
    assert type(scancoordinator.kDefaultWholeFilesToCheckCount) is int
    assert scancoordinator.kMinSecondsBetweenScans == 5.0
    assert type(scancoordinator.kMinSecondsBetweenScans) is float


def test_public_names_are_there():
    for name in (
        "CScanCoordinator",
        "CScanItem",
        "CSingleQueueStatus",
        "CScanStatus",
        "kTypingModulePriority",
        "kInteractivePriority",
        "kBackgroundPriority",
        "_CScanQueue",
        "_CSingleScanQueue",
    ):
        assert hasattr(scancoordinator, name), name


def test_classes_report_their_module():
    for cls in (scancoordinator._CScanQueue, scancoordinator._CSingleScanQueue):
        assert cls.__module__ == "pysource.scancoordinator"
        assert cls.__qualname__ == cls.__name__


def test_module_is_loaded_once_in_a_process():
    import importlib

    assert importlib.import_module("pysource.scancoordinator") is scancoordinator
