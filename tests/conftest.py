"""What all tests share: which package is tested, and how much hypothesis tries."""

import importlib.metadata
import importlib.util
import signal
from pathlib import Path

import pytest
from hypothesis import settings

# A shell starts its background jobs with interrupts ignored, and the processes of tests would inherit it.
if signal.getsignal(signal.SIGINT) is signal.SIG_IGN:
    signal.signal(signal.SIGINT, signal.default_int_handler)

# A busy machine is no failure.
settings.register_profile("default", deadline=None, print_blob=True)
# The same examples in each run, for whoever must be able to trust a red result.
settings.register_profile("repeatable", deadline=None, derandomize=True)
# Instrumented code is several times slower.
settings.register_profile(
    "sanitize", deadline=None, derandomize=True, max_examples=20, stateful_step_count=25
)
settings.load_profile("default")

FAKE_HOST_TESTS = Path(__file__).parent / "python" / "core"


def pytest_report_header() -> list[str]:
    """Tell which `pysource` is tested: the installed one, or the sources in place."""
    # Found, not imported: its path is settled at the import, and the folders of a host come later.
    spec = importlib.util.find_spec("pysource")
    if spec is None or spec.origin is None:
        return ["pysource: not found"]
    where = Path(spec.origin).parent
    in_place = where.parent == Path(__file__).parent.parent
    version = "built in place" if in_place else importlib.metadata.version("pysource-loom")
    return [f"pysource: {where} ({version}), debug checks {'on' if __debug__ else 'off'}"]


def pytest_collection_modifyitems(items: list[pytest.Item]) -> None:
    """Refuse to mix hosts: `pysource.scancoordinator` is bound to the one it was loaded with."""
    over_fake_host = [FAKE_HOST_TESTS in item.path.parents for item in items]
    if any(over_fake_host) and not all(over_fake_host):
        raise pytest.UsageError(
            "tests/python/core runs over a fake host and needs a process of its own: "
            "give its folder alone, or use 'make test'"
        )
