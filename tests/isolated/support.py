"""Run a script in a Python process of its own, over the fake host.

A script is checked for its exit status, for a clean standard error, and for having come to its
last line.
"""

import importlib.util
import os
import subprocess
import sys
import textwrap
from functools import cache
from pathlib import Path
from typing import Any

kHere = Path(__file__).resolve().parent
kCore = kHere.parent / "python" / "core"
kLastLine = "came to the end"
kTimeLimit = 300  # seconds; only a script that hangs gets there


@cache
def package_folder() -> Path:
    """The folder that holds the package `pysource` under test."""
    spec = importlib.util.find_spec("pysource")
    if spec is None or spec.origin is None:
        raise RuntimeError("the package pysource is not installed and not on sys.path")
    return Path(spec.origin).parent.parent


def script_path(*first: Path) -> list[str]:
    """`sys.path` entries of a script: host first, the package last."""
    shared = (kCore / "fakehost", kCore / "coordinator", kCore / "queue")
    return [str(p) for p in (*first, kHere, *shared)]


def start(
    script: str,
    *,
    base: str | None = "dict",
    base_folder: Path | None = None,
    python: str = sys.executable,
    flags: tuple[str, ...] = (),
    env: dict[str, str] | None = None,
) -> subprocess.CompletedProcess[str]:
    """Run a script and return what came of it, whatever it is.

    `base` names the host's CDestroyable (see hostkit); with none the script chooses by itself.
    Compiled bases are looked for in `base_folder`.
    """
    path = script_path(*([base_folder] if base_folder else []))
    lines = [
        "import sys, faulthandler",
        f"sys.path[:0] = {path!r}",
        f"sys.path.append({str(package_folder())!r})",
        "faulthandler.enable()",
        "from hostkit import *",
        f"use_base({base!r})" if base else "",
        textwrap.dedent(script),
        f"print({kLastLine!r})",
    ]
    optimize = ("-O",) * sys.flags.optimize
    return subprocess.run(
        [python, "-P", *optimize, *flags, "-c", "\n".join(lines)],
        capture_output=True,
        text=True,
        errors="backslashreplace",
        timeout=kTimeLimit,
        env={**os.environ, **(env or {})},
        check=False,
    )


def run(script: str, **options: Any) -> str:
    """Run a script that must come to its end without a word on standard error.

    Returns what it printed. Takes the options of `start`.
    """
    result = start(script, **options)
    lines = result.stdout.splitlines()
    if result.returncode != 0 or result.stderr or not lines or lines[-1] != kLastLine:
        raise AssertionError(
            f"exit status {result.returncode}\n-- standard output\n{result.stdout}"
            f"\n-- standard error\n{result.stderr}"
        )
    return "\n".join(lines[:-1])


def build_base(folder: Path, name: str, python: str = sys.executable) -> Path:
    """Build the compiled CDestroyable `name` ("heap" or "static") for an interpreter.

    Returns the folder to be put on `sys.path`.
    """
    ask = (
        "import sysconfig; "
        "print(sysconfig.get_config_var('CC') or 'cc'); "
        "print(sysconfig.get_config_var('EXT_SUFFIX')); "
        "print(sysconfig.get_path('include'))"
    )
    told = subprocess.run([python, "-c", ask], capture_output=True, text=True, check=True)
    compiler, suffix, include = told.stdout.splitlines()
    target = folder / name
    target.mkdir(parents=True, exist_ok=True)
    command = [
        *(os.environ.get("CC") or compiler).split(),
        "-shared",
        "-fPIC",
        "-O1",
        f"-I{include}",
        *(["-DSTATIC_TYPE"] if name == "static" else []),
        str(kHere / "compiled_base" / "compiled_base.c"),
        "-o",
        str(target / f"compiled_base{suffix}"),
    ]
    try:
        built = subprocess.run(command, capture_output=True, text=True, check=False)
    except FileNotFoundError as error:
        raise AssertionError(
            f"these tests need a C compiler: {error.filename} was not found; install gcc, or say "
            "in CC which compiler to use"
        ) from None
    if built.returncode != 0:
        raise AssertionError(f"{' '.join(command)}\n{built.stderr}")
    return target


@cache
def later_pythons() -> list[str]:
    """Other interpreters from 3.12 on, one of each version that this machine has."""
    finder = kHere.parent.parent / "scripts" / "find_python.sh"
    env = {name: value for name, value in os.environ.items() if name != "PYTHON"}
    found = []
    for minor in range(12, 16):
        if minor == sys.version_info.minor:
            continue
        told = subprocess.run(
            [str(finder), f"3.{minor}"], env=env, capture_output=True, text=True, check=False
        )
        found += told.stdout.split()[:1]
    return found
