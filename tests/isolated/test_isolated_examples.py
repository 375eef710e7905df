"""The examples do what they say, each as its reader would start it."""

import os
import subprocess
import sys
from pathlib import Path

from support import package_folder

kExamples = Path(__file__).resolve().parents[2] / "examples"


def example(name: str, *arguments: str) -> list[str]:
    """The lines that an example prints. It must end well and without a word on standard error."""
    result = subprocess.run(
        [sys.executable, *["-O"] * sys.flags.optimize, str(kExamples / name), *arguments],
        capture_output=True,
        text=True,
        timeout=120,
        env={**os.environ, "PYTHONPATH": str(package_folder()), "PYTHONDEVMODE": "1"},
        check=False,
    )
    assert (result.returncode, result.stderr) == (0, "")
    return result.stdout.splitlines()


def source_tree(folder: Path) -> Path:
    """Three files, one of them no Python."""
    (folder / "pkg").mkdir()
    (folder / "a.py").write_text("class A:\n    def f(self): pass\n")
    (folder / "pkg" / "b.py").write_text("async def g(): pass\n")
    (folder / "pkg" / "broken.py").write_text("def (\n")
    return folder


def test_asyncio_host(tmp_path):
    folder = source_tree(tmp_path)
    *found, scanned, ticked = example("asyncio_host", str(folder))
    assert found == [f"{folder}/a.py: A, f", f"{folder}/pkg/b.py: g"]
    assert scanned == "2 of 3 files were scanned while the program ticked"
    assert ticked.startswith("1 times") or int(ticked.split()[0]) > 1


def test_the_examples_are_short():
    for host in kExamples.iterdir():
        if host.is_dir() and host.name != "cpp":
            for file in host.rglob("*.py"):
                assert len(file.read_text().splitlines()) < 200, file
