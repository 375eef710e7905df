"""What is installed: one stable ABI file a module, which every later CPython loads, and the headers."""

import importlib.metadata
import json
import os
import subprocess
import sys
import sysconfig
from pathlib import Path

import pytest

ROOT = Path(__file__).parent.parent.parent
MODULES = [
    "loom._pyscan",
    "pysource._fastaccess",
    "pysource.scancoordinator",
    "pysource.strutils",
    "pysource.symbolinfo",
    "pysource.usageordereddict",
]


@pytest.fixture(scope="module")
def distribution():
    try:
        return importlib.metadata.distribution("pysource-loom")
    except importlib.metadata.PackageNotFoundError:
        pytest.skip("modules built in place: no wheel is installed to look at")


@pytest.fixture(scope="module")
def files(distribution):
    """All installed files by their path in the wheel."""
    listed = distribution.files
    assert listed
    return {str(path): Path(str(path.locate())) for path in listed}


def find_python(version: str) -> list[str]:
    run = subprocess.run(
        [ROOT / "scripts" / "find_python.sh", version],
        env={name: value for name, value in os.environ.items() if name != "PYTHON"},
        capture_output=True,
        text=True,
    )
    return run.stdout.split()


def other_pythons() -> list[str]:
    """Return one interpreter of each version from 3.12 on that this machine has."""
    return [python for minor in range(12, 16) for python in find_python(f"3.{minor}")]


def test_wheel_is_tagged_for_the_stable_abi(distribution):
    tags = [
        line.removeprefix("Tag: ")
        for line in (distribution.read_text("WHEEL") or "").splitlines()
        if line.startswith("Tag: ")
    ]
    assert tags
    assert all(tag.startswith("cp312-abi3-") for tag in tags)


def test_every_module_is_one_abi3_file(files):
    extensions = {path for path in files if path.endswith(".so")}
    assert extensions == {module.replace(".", "/") + ".abi3.so" for module in MODULES}


def test_only_our_two_packages_are_installed(files):
    tops = {path.partition("/")[0] for path in files if not path.startswith("../")}
    assert tops - {"bin"} == {"loom", "pysource", f"pysource_loom-{version()}.dist-info"}


def version() -> str:
    return importlib.metadata.version("pysource-loom")


def test_no_sources_of_the_modules_are_installed(files):
    assert [path for path in files if path.endswith((".cpp", ".o", ".a"))] == []


@pytest.mark.parametrize("module", MODULES)
def test_module_needs_the_limited_api_of_3_12_only(files, module):
    file = files[module.replace(".", "/") + ".abi3.so"]
    run = subprocess.run(
        [sys.executable, "-P", "-m", "abi3audit"]
        + ["--strict", "--report", "--assume-minimum-abi3", "3.12", file],
        capture_output=True,
        text=True,
    )
    assert run.returncode == 0, run.stdout + run.stderr
    [audited] = json.loads(run.stdout)["specs"].values()
    assert audited["kind"] == "object"
    assert audited["object"]["result"]["is_abi3"]


@pytest.mark.parametrize("python", other_pythons() or [sys.executable])
def test_modules_load_in_every_later_python(distribution, python):
    site = str(distribution.locate_file(""))
    program = (
        f"import importlib\nfor name in {MODULES}: print(importlib.import_module(name).__file__)"
    )
    run = subprocess.run(
        [python, "-P", "-c", program],
        env=os.environ | {"PYTHONPATH": os.pathsep.join([site, f"{site}/loom/hostpath"])},
        capture_output=True,
        text=True,
    )
    assert run.returncode == 0, run.stderr
    assert run.stdout.split() == [f"{site}/{name.replace('.', '/')}.abi3.so" for name in MODULES]


def test_public_headers_stand_alone(files, tmp_path):
    """A C++ caller can include each header by itself."""
    mark = "pysource/include/"
    headers = sorted(path.removeprefix(mark) for path in files if path.startswith(mark))
    chief = {f"pysource/{module.partition('.')[2]}.h" for module in MODULES if "loom" not in module}
    assert chief <= set(headers)
    include = str(files[mark + headers[0]]).removesuffix(headers[0])
    for number, header in enumerate(headers):
        (tmp_path / f"caller{number}.cpp").write_text(f"#include <{header}>\n")
    run = subprocess.run(
        [os.environ.get("CXX", "c++"), "-std=c++20", "-fsyntax-only", "-DPy_LIMITED_API=0x030c0000"]
        + ["-I", include, "-I", sysconfig.get_path("include")]
        + [f"caller{number}.cpp" for number in range(len(headers))],
        env={name: value for name, value in os.environ.items() if name != "LD_PRELOAD"},
        cwd=tmp_path,
        capture_output=True,
        text=True,
    )
    assert run.returncode == 0, run.stderr
