"""Asking an interpreter where it looks for modules, and finding the one to ask."""

from __future__ import annotations

import json
import os
import shutil
import subprocess
import sys
from collections.abc import Iterable, Sequence
from typing import Final

from loom.resolve.environment import PythonEnvironment
from loom.resolve.projects import project_top
from loom.resolve.sitefolders import mapped_packages, path_entries

__all__ = ["EnvironmentQuestion", "InterpreterError"]

# What an interpreter takes to start, on a machine that is very busy.
_PATIENCE_SECONDS: Final = 30.0

_VENV_NAMES: Final = (".venv", "venv")
_VENV_CONFIG: Final = "pyvenv.cfg"

# Comes before the answer: what an interpreter runs at its start may print, too.
_MARK: Final = "loom's answer: "

# Runs in the interpreter that is asked, whatever its version. It is isolated, so that neither the
# working folder nor the environment's variables have a say; the user's own packages would be left
# out with them, so they are taken in again.
_SCRIPT: Final = f"""
import json, os, site, sys, sysconfig
if sys.prefix == sys.base_prefix and not os.environ.get("PYTHONNOUSERSITE"):
    site.ENABLE_USER_SITE = True
    site.addusersitepackages(set(sys.path))
paths = sysconfig.get_paths()
library = [paths["stdlib"], paths["platstdlib"], sysconfig.get_config_var("DESTSHARED")]
answer = dict(version=sys.version_info[:2], path=sys.path, stdlib=library)
print({_MARK!r} + json.dumps(answer))
"""


class InterpreterError(Exception):
    """An interpreter can't be asked; the text says which and why."""


class EnvironmentQuestion:
    """In which environment a scan of `paths` looks for modules: asked at once, answered later.

    `python` is an interpreter, by path or by command, or a virtual environment. Without it, it is a
    virtual environment ".venv" or "venv" of the project that the first path belongs to, else the
    interpreter that runs this program. Of a project's own environment nothing is run, for a project
    is data: the interpreter that it was made from is asked, and the environment's folders are read.

    Raises `InterpreterError` for a `python` that can't be one.
    """

    def __init__(self, paths: Sequence[str], python: str | None = None) -> None:
        self.warning: str | None = None
        self._venv: str | None = None
        executable = sys.executable
        if python is not None:
            executable = _executable_of(python)
        elif (venv := _venv_of_project(paths)) is not None:
            try:
                executable = _base_of_venv(*venv)
                self._venv = venv[0]
            except InterpreterError as error:
                self._note_unused(venv[0], error)
        self._asked = _Asked(executable)

    def answer(self) -> PythonEnvironment:
        """Wait for the answer; call it once.

        Raises `InterpreterError` if the interpreter that the user chose doesn't work. A project's
        environment that doesn't work is left aside, and `warning` then says so.
        """
        if self._venv is None:
            return self._asked.answer()
        try:
            return _in_venv(self._asked.answer(), self._venv)
        except InterpreterError as error:
            self._note_unused(self._venv, error)
        return _Asked(sys.executable).answer()

    def cancel(self) -> None:
        """Nobody wants the answer any more."""
        self._asked.cancel()

    def _note_unused(self, venv: str, error: InterpreterError) -> None:
        self.warning = f"not using the environment {venv}: {error}"


class _Asked:
    """An interpreter that was asked."""

    def __init__(self, executable: str) -> None:
        self._executable = executable
        try:
            self._process = subprocess.Popen(
                [executable, "-I", "-c", _SCRIPT],
                stdin=subprocess.DEVNULL,
                stdout=subprocess.PIPE,
                stderr=subprocess.PIPE,
                encoding="utf-8",
                errors="replace",  # in what others print; the answer is ASCII
            )
        except (OSError, ValueError) as error:
            reason = getattr(error, "strerror", None) or str(error)
            raise InterpreterError(f"{executable} can't be run: {reason}") from error

    def answer(self) -> PythonEnvironment:
        try:
            output, errors = self._process.communicate(timeout=_PATIENCE_SECONDS)
        except subprocess.TimeoutExpired:
            self.cancel()
            raise InterpreterError(
                f"{self._executable} gave no answer within {_PATIENCE_SECONDS:.0f} seconds"
            ) from None
        code = self._process.returncode
        if code != 0:
            raise InterpreterError(f"{self._executable} doesn't work: {_reason(errors, code)}")
        _, mark, text = output.rpartition(_MARK)
        try:
            if not mark:
                raise ValueError
            return _environment(self._executable, json.loads(text))
        except (ValueError, KeyError, TypeError):
            raise InterpreterError(f"{self._executable} is no Python interpreter") from None

    def cancel(self) -> None:
        if self._process.returncode is None:
            self._process.kill()
            self._process.communicate()


def _reason(errors: str, code: int) -> str:
    lines = errors.split("\n")
    told = [line.strip() for line in lines if line.strip()]
    if not told:
        return f"it ended with code {code}"
    return told[-1] if told[0].startswith("Traceback") else told[0]


def _environment(executable: str, answer: dict[str, Sequence[str]]) -> PythonEnvironment:
    major, minor = map(int, answer["version"])
    path = _folders(answer["path"])
    stdlib = [folder for folder in _folders(answer["stdlib"]) if folder in path]
    if major < 3 or not stdlib:
        raise ValueError
    return PythonEnvironment(executable, (major, minor), *_complete(path, stdlib))


def _folders(entries: Iterable[str | None]) -> list[str]:
    """The absolute ones that are folders, each once, as a location would have them."""
    found: dict[tuple[int, int], str] = {}
    for entry in entries:
        if entry and os.path.isabs(entry) and os.path.isdir(entry):
            status = os.stat(entry)  # "lib64" may be a link to "lib"
            found.setdefault((status.st_dev, status.st_ino), os.path.normpath(entry))
    return list(found.values())


def _complete(
    path: Sequence[str], stdlib: Sequence[str]
) -> tuple[tuple[str, ...], tuple[str, ...], dict[str, str]]:
    mapped: dict[str, str] = {}
    for folder in path:
        if folder not in stdlib:
            mapped = mapped_packages(folder) | mapped
    return tuple(path), tuple(stdlib), mapped


def _in_venv(base: PythonEnvironment, venv: str) -> PythonEnvironment:
    """The environment that `venv` makes of the interpreter that it was made from."""
    version = "python{}.{}".format(*base.version)
    libraries = (os.path.join(venv, lib, version, "site-packages") for lib in ("lib", "lib64"))
    sites = _folders(libraries)
    if not sites:
        raise InterpreterError(f"it has no packages of {version}")
    entries = [*base.stdlib]
    for site in sites:
        entries += path_entries(site)
    if _sees_base_packages(venv):
        entries += base.path
    executable = os.path.join(venv, "bin", "python")
    return PythonEnvironment(executable, base.version, *_complete(_folders(entries), base.stdlib))


def _sees_base_packages(venv: str) -> bool:
    try:
        with open(os.path.join(venv, _VENV_CONFIG), encoding="utf-8", errors="replace") as lines:
            for line in lines:
                key, _, value = line.partition("=")
                if key.strip().lower() == "include-system-site-packages":
                    return value.strip().lower() == "true"
    except OSError:
        pass
    return False


# --- which interpreter


def _executable_of(python: str) -> str:
    """The interpreter that the user means."""
    if os.path.isdir(python):
        for name in ("bin/python", "bin/python3", "Scripts/python.exe"):
            executable = os.path.join(os.path.abspath(python), name)
            if os.path.lexists(executable):
                return executable
        raise InterpreterError(f"{python} is a folder without an interpreter in bin")
    found = shutil.which(python)
    if found is None:
        reason = "isn't executable" if os.path.exists(python) else "isn't there"
        raise InterpreterError(f"{python} {reason}")
    return os.path.abspath(found)


def _venv_of_project(paths: Sequence[str]) -> tuple[str, str] | None:
    """The environment of the first path's project, and the top of the project."""
    start = next((os.path.abspath(path) for path in paths if os.path.exists(path)), None)
    if start is None:
        return None  # a path may also be a URL
    folder = start if os.path.isdir(start) else os.path.dirname(start)
    for top in dict.fromkeys((folder, project_top(folder) or folder)):
        for name in _VENV_NAMES:
            venv = os.path.join(top, name)
            if os.path.isfile(os.path.join(venv, _VENV_CONFIG)):
                return venv, top
    return None


def _base_of_venv(venv: str, project: str) -> str:
    """The interpreter that an environment was made from. Requires no trust in the project."""
    executable = os.path.join(venv, "bin", "python")
    base = os.path.realpath(executable)
    if not os.path.isfile(base):
        raise InterpreterError(f"{executable} leads nowhere")
    if base.startswith(os.path.realpath(project).rstrip("/") + "/"):
        raise InterpreterError("its interpreter is part of the project; choose it with --python")
    if not os.path.basename(base).startswith(("python", "pypy")):
        raise InterpreterError(f"{base} is no Python interpreter")
    return base
