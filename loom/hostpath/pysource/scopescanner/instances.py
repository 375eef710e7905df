"""Instance scopes: what an instance of a class has, put together from the class and its methods."""

from __future__ import annotations

from collections.abc import Iterable
from typing import Final

from pysource.scopeinfo import CScopeInfo, CScopeInfoKey, SecondsOf
from pysource.symbolinfo import (
    GetInstanceNameForClass,
    NonNestedSplit,
    kArgPrefix,
    kSpecificScopePrefix,
)

from loom._pyscan import pack_info
from loom.store.records import kUnsavedTime

__all__ = ["CreateClassInstInfo"]

_kFirstArg: Final = kArgPrefix + b"0"
_kUnsavedSeconds: Final = SecondsOf(kUnsavedTime)


def CreateClassInstInfo(
    class_info: CScopeInfo, method_infos: Iterable[CScopeInfo], primary_scan_name: str
) -> CScopeInfo:
    """The record of the instance scope of a class.

    Its names are those of the class, then the attributes that methods give to the instance, each
    under its bare name, in order of methods and of appearance. What several of them say of one name
    follows each other, the class first. Parts that come from a method stand behind a part
    `kSpecificScopePrefix` with the name of the method's scope, in which their expressions are to be
    read; parts before the first of those are the class's.

    Records that say that a scope doesn't exist add nothing. The result is as old as the class's
    record, or of unsaved text if any of the records is; it is incomplete if any is.
    """
    key = class_info.key
    infos = [info for info in method_infos if not info.does_not_exist]
    found = dict(class_info.type_equivs)
    for info in infos:
        marker = kSpecificScopePrefix + info.key.scope_name.encode()
        for attribute, said in _attributes(info):
            parts = (found[attribute],) if attribute in found else ()
            found[attribute] = b";".join((*parts, marker, said))
    unsaved = any(info.disk_mtime == _kUnsavedSeconds for info in (class_info, *infos))
    instance_name = GetInstanceNameForClass(key.scope_name)
    if instance_name is None:
        raise ValueError(f"no class scope: {key.scope_name!r}")
    return CScopeInfo(
        CScopeInfoKey(key.loc, instance_name, primary_scan_name, key.loc, instance_name),
        pack_info(found),
        _kUnsavedSeconds if unsaved else class_info.disk_mtime,
        class_info.incomplete or any(info.incomplete for info in infos),
        class_info.does_not_exist,
    )


def _attributes(method: CScopeInfo) -> list[tuple[str, bytes]]:
    """(bare name, information) of what a method assigns to attributes of its first argument."""
    first = next(
        (
            name
            for name, info in method.type_equivs.items()
            if NonNestedSplit(info, ";")[0].startswith(_kFirstArg)
        ),
        None,
    )
    if first is None:
        return []
    prefix = f"{first}."
    return [
        (name[len(prefix) :], info)
        for name, info in method.type_equivs.items()
        if name.startswith(prefix)
    ]
