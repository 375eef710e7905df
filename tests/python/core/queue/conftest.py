"""Fixtures of the queue's tests. Most tests run over the C++ queue and its plain-Python twin."""

import pytest


@pytest.fixture(params=["twin", "cpp"])
def impl(request):
    """The module with `_CScanQueue`, `_CSingleScanQueue` and `CScanItem`."""
    import queue_support

    return queue_support.implementation(request.param)


@pytest.fixture
def cache():
    """The location data cache that `queue` is built with."""
    import queue_support

    return queue_support.FakeLocationDataCache()


@pytest.fixture
def queue(impl, cache):
    """An empty queue with orders for both scan names, over an empty log."""
    import hostlog
    import queue_support

    queue = impl._CScanQueue(cache)
    queue.SetScansToOrder(dict(queue_support.kOrders))
    hostlog.calls.clear()
    return queue


@pytest.fixture
def item(impl):
    """`item(loc, scope_name, scan_name, priority)` makes a `CScanItem`."""
    from queue_support import kPrimary

    def make(loc, scope_name="*", scan_name=kPrimary, priority=2):
        return impl.CScanItem(loc, scope_name, scan_name, priority)

    return make
