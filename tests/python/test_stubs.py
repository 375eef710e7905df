"""The type stubs tell the truth about the built modules."""

import importlib.util
import os
import subprocess
import sys
from pathlib import Path

import pytest


def folder_of(package: str) -> Path:
    """Return the folder of an installed package, without importing it."""
    spec = importlib.util.find_spec(package)
    assert spec is not None and spec.origin is not None
    return Path(spec.origin).parent


LOOM, PYSOURCE = folder_of("loom"), folder_of("pysource")
EXTENSIONS = {
    f"{folder.name}.{file.name.partition('.')[0]}"
    for folder in (LOOM, PYSOURCE)
    for file in folder.glob("*.so")
}


def test_all_modules_are_built():
    assert EXTENSIONS == {
        "loom._pyscan",
        "pysource._fastaccess",
        "pysource.scancoordinator",
        "pysource.strutils",
        "pysource.symbolinfo",
        "pysource.usageordereddict",
    }


def test_every_module_has_a_stub():
    stubs = {
        f"{folder.name}.{file.stem}" for folder in (LOOM, PYSOURCE) for file in folder.glob("*.pyi")
    }
    assert stubs == EXTENSIONS


@pytest.mark.parametrize("package", ["loom", "pysource"])
def test_packages_say_that_they_are_typed(package):
    assert (folder_of(package) / "py.typed").is_file()


@pytest.fixture(scope="module")
def config(tmp_path_factory):
    """A configuration of mypy, with a cache that all runs share and the host's modules in reach."""
    folder = tmp_path_factory.mktemp("stubtest")
    # Linked, because mypy takes no folder inside of site-packages.
    (folder / "hostpath").symlink_to(LOOM / "hostpath")
    file = folder / "mypy.ini"
    file.write_text(f"[mypy]\ncache_dir = {folder}\nmypy_path = {folder / 'hostpath'}\n")
    return file


@pytest.mark.parametrize("module", sorted(EXTENSIONS))
def test_stub_agrees_with_module(module, config):
    """A signature, name or type that differs from the built module is an error of stubtest."""
    # A module is loaded over the stand-alone host.
    hostpath = str(LOOM / "hostpath")
    run = subprocess.run(
        [sys.executable, "-P", "-m", "mypy.stubtest", "--mypy-config-file", config, module],
        env=os.environ | {"PYTHONPATH": os.pathsep.join([hostpath, *python_path()])},
        cwd=config.parent,
        capture_output=True,
        text=True,
    )
    assert run.returncode == 0, run.stdout + run.stderr


def python_path() -> list[str]:
    """Return the folders that `PYTHONPATH` names."""
    return [folder for folder in os.environ.get("PYTHONPATH", "").split(os.pathsep) if folder]
