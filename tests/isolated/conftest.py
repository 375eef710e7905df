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


@pytest.fixture(params=["dict", "slots", "heap", "static"])
def over(request):
    """Run a script over each kind of CDestroyable."""
    folder = None
    if request.param in ("heap", "static"):
        folder = request.getfixturevalue("compiled_bases")[request.param]

    def run(script, **options):
        return support.run(script, base=request.param, base_folder=folder, **options)

    run.base = request.param
    return run
