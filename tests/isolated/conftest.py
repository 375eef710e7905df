"""Fixtures of the tests that run scripts in processes of their own."""

import sys
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).resolve().parent))

import support


@pytest.fixture(scope="session")
def compiled_bases(tmp_path_factory):
    """The folders of the compiled CDestroyables, by name."""
    folder = tmp_path_factory.mktemp("bases")
    return {name: support.build_base(folder, name) for name in ("heap", "static")}


def over_base(name, request):
    """A function that runs a script over the CDestroyable of this name."""
    folder = None
    if name in ("heap", "static"):
        folder = request.getfixturevalue("compiled_bases")[name]

    def run(script, **options):
        return support.run(script, base=name, base_folder=folder, **options)

    return run


@pytest.fixture(params=["dict", "slots", "heap", "static"])
def over(request):
    """Run a script over each kind of CDestroyable."""
    return over_base(request.param, request)


@pytest.fixture(params=["dict", "heap"])
def either(request):
    """Run a long script over a CDestroyable in Python and over a compiled one."""
    return over_base(request.param, request)
