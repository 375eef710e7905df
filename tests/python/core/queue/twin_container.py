"""Plain-Python counterpart of `CUsageOrderedDict`."""

from collections import OrderedDict
from collections.abc import Iterator
from typing import Any


class _CUsageOrderedDictItem:
    """One entry: `key` and `val`."""

    __slots__ = ("key", "val")

    def __init__(self, key: Any, val: Any) -> None:
        self.key = key
        self.val = val


class CUsageOrderedDict:
    """A mapping that keeps its entries in a sequence from first to last."""

    def __init__(self) -> None:
        self.__items: OrderedDict[Any, _CUsageOrderedDictItem] = OrderedDict()

    @property
    def _fFirst(self) -> _CUsageOrderedDictItem | None:
        return next(iter(self.__items.values()), None)

    def get(self, key: Any, default: Any = None, touch: bool = False) -> Any:
        item = self.__items.get(key)
        if item is None:
            return default
        if touch:
            self.__items.move_to_end(key, last=False)
        return item.val

    def Set(self, key: Any, val: Any, first: bool = False) -> None:
        self.__items[key] = _CUsageOrderedDictItem(key, val)
        self.__items.move_to_end(key, last=not first)

    def pop(self, key: Any, default: Any = None) -> Any:
        item = self.__items.pop(key, None)
        return default if item is None else item.val

    def items(self) -> list[tuple[Any, Any]]:
        return [(item.key, item.val) for item in self.__items.values()]

    def keys(self) -> list[Any]:
        return list(self.__items)

    def values(self) -> list[Any]:
        return [item.val for item in self.__items.values()]

    def __getitem__(self, key: Any) -> Any:
        return self.__items[key].val

    def __delitem__(self, key: Any) -> None:
        del self.__items[key]

    def __contains__(self, key: Any) -> bool:
        return key in self.__items

    def __iter__(self) -> Iterator[Any]:
        return iter(self.__items)

    def __len__(self) -> int:
        return len(self.__items)
