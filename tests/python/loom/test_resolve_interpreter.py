"""Asking interpreters, real ones and things that only look like one, and choosing which to ask."""

import os
import subprocess
import sys
import venv

import pytest

from loom.resolve import interpreter
from loom.resolve.environment import own_environment
from loom.resolve.interpreter import EnvironmentQuestion, InterpreterError
from loom.resolve.sitefolders import mapped_packages, path_entries

VERSION = "python{}.{}".format(*sys.version_info)
BASE = os.path.realpath(sys.executable)


@pytest.fixture
def project(tmp_path):
    top = tmp_path / "project"
    top.mkdir()
    (top / "pyproject.toml").write_text("")
    return top


def make_venv(folder, **options):
    venv.EnvBuilder(**{"symlinks": True, **options}).create(folder)
    return folder / "lib" / VERSION / "site-packages"


def fake(folder, text, name="python"):
    """An executable script that is asked in place of an interpreter."""
    folder.mkdir(parents=True, exist_ok=True)
    path = folder / name
    path.write_text(f"#!/bin/sh\n{text}\n")
    path.chmod(0o755)
    return str(path)


def ask(paths=(), python=None):
    return EnvironmentQuestion([str(path) for path in paths], python).answer()


def is_real(environment):
    """Whether it is one of this machine's, with a standard library in front."""
    return environment.path[0] in environment.stdlib and all(
        os.path.isdir(folder) for folder in environment.path
    )


# --- real ones


def test_the_interpreter_of_this_program_is_the_default(tmp_path):
    found, own = ask([tmp_path]), own_environment()
    assert (found.executable, found.version) == (sys.executable, sys.version_info[:2])
    assert set(found.stdlib) == set(own.stdlib)
    assert set(own.path) <= set(found.path)
    assert is_real(found)


def test_an_environment_is_asked_by_its_folder_or_its_interpreter(tmp_path):
    site = make_venv(tmp_path / "env")
    for python in (tmp_path / "env", tmp_path / "env/bin/python"):
        found = ask(python=str(python))
        assert found.executable == str(tmp_path / "env/bin/python")
        assert found.path[-1] == str(site)
        assert is_real(found)
        assert not any("site-packages" in folder for folder in found.stdlib)


def test_a_command_is_looked_for_on_the_path(tmp_path, monkeypatch):
    os.symlink(BASE, tmp_path / "mypython")
    monkeypatch.setenv("PATH", str(tmp_path))
    assert ask(python="mypython").executable == str(tmp_path / "mypython")


def test_neither_variables_nor_the_working_folder_have_a_say(tmp_path, monkeypatch):
    (tmp_path / "json.py").write_text("raise SystemExit('run')")
    monkeypatch.chdir(tmp_path)
    monkeypatch.setenv("PYTHONPATH", str(tmp_path))
    monkeypatch.setenv("PYTHONHOME", str(tmp_path))
    assert str(tmp_path) not in ask(python=sys.executable).path


def test_folders_that_pth_files_add_are_searched(tmp_path):
    site = make_venv(tmp_path / "env")
    (tmp_path / "added").mkdir()
    (site / "added.pth").write_text(f"{tmp_path}/added\n{tmp_path}/missing\n")
    assert ask(python=str(tmp_path / "env")).path[-1] == str(tmp_path / "added")


def test_what_an_environment_prints_at_its_start_does_no_harm(tmp_path):
    site = make_venv(tmp_path / "env")
    (site / "noise.pth").write_text("import sys; print('{no'); print('no', file=sys.stderr)\n")
    assert ask(python=str(tmp_path / "env")).path[-1] == str(site)


# --- what only looks like one


@pytest.mark.parametrize(
    ("text", "reason"),
    [
        ("echo 'shim: no such version' >&2; exit 127", "doesn't work: shim: no such version"),
        ("exit 3", "doesn't work: it ended with code 3"),
        ("echo Python 3.12", "is no Python interpreter"),
        ("exit 0", "is no Python interpreter"),
        ("echo \"loom's answer: [1]\"", "is no Python interpreter"),
        ("echo \"loom's answer: {\"", "is no Python interpreter"),
        (
            "echo \"loom's answer: {\\\"version\\\": [2, 7], \\\"path\\\": [\\\"/usr\\\"],"
            " \\\"stdlib\\\": [\\\"/usr\\\"]}\"",
            "is no Python interpreter",
        ),
        ("printf 'Traceback (most recent call):\\n  x\\nOops: y' >&2; exit 1", "work: Oops: y"),
    ],
)
def test_an_interpreter_that_does_not_work_is_refused(tmp_path, text, reason):
    with pytest.raises(InterpreterError, match=reason):
        ask(python=fake(tmp_path / "bin", text))


def test_an_interpreter_that_gives_no_answer_is_given_up(tmp_path, monkeypatch):
    monkeypatch.setattr(interpreter, "_PATIENCE_SECONDS", 0.05)
    with pytest.raises(InterpreterError, match="no answer within"):
        ask(python=fake(tmp_path / "bin", "exec tail -f /dev/null"))


def test_no_process_is_left_behind(tmp_path, monkeypatch):
    started, popen = [], subprocess.Popen

    def start(*args, **options):
        started.append(popen(*args, **options))
        return started[-1]

    monkeypatch.setattr(subprocess, "Popen", start)
    silent = EnvironmentQuestion([], fake(tmp_path / "bin", "exec tail -f /dev/null"))
    silent.cancel()
    silent.cancel()
    answered = EnvironmentQuestion([str(tmp_path)])
    answered.answer()
    answered.cancel()
    assert len(started) == 2
    assert all(process.returncode is not None for process in started)


def test_what_cannot_be_run_is_refused_at_once(tmp_path):
    (tmp_path / "file").write_text("")
    (tmp_path / "empty").mkdir()
    (tmp_path / "binary").write_bytes(b"\0\1\2")
    (tmp_path / "binary").chmod(0o755)
    for python, reason in (
        (tmp_path / "missing", "isn't there"),
        (tmp_path / "file", "isn't executable"),
        (tmp_path / "empty", "a folder without an interpreter"),
        (tmp_path / "binary", "can't be run: Exec format error"),
        ("no-such-command", "isn't there"),
        ("", "isn't there"),
    ):
        with pytest.raises(InterpreterError, match=reason):
            EnvironmentQuestion([], str(python))


# --- the project's own


@pytest.mark.parametrize("name", [".venv", "venv"])
def test_the_environment_of_the_project_is_the_default(project, name):
    site = make_venv(project / name)
    (project / "pkg").mkdir()
    (project / "pkg/a.py").write_text("")
    for path in (project, project / "pkg", project / "pkg/a.py"):
        found = ask([path])
        assert found.path[-1] == str(site)
        assert found.executable == str(project / name / "bin/python")
        assert is_real(found)
        assert set(found.path) - {str(site)} == set(found.stdlib)


def test_an_environment_may_see_the_packages_of_its_base(project):
    site = make_venv(project / ".venv", system_site_packages=True)
    found, base = ask([project]), ask(python=BASE)
    assert set(found.path) == {str(site), *base.path}
    assert found.path.index(str(site)) == len(found.stdlib)


def test_nothing_of_a_project_is_run_unless_the_user_says_so(project):
    site = make_venv(project / ".venv")
    (project / "src").mkdir()
    code = f"open({str(project / 'ran')!r}, 'w')\n"
    (site / "code.pth").write_text(f"import os; {code}../../../../src\n")
    (site / "sitecustomize.py").write_text(code)
    found = ask([project])
    assert found.path[-2:] == (str(site), str(project / "src"))
    assert not (project / "ran").exists()
    ask(python=str(project / ".venv"))
    assert (project / "ran").exists()


def broken_by_script(project):
    fake(project / ".venv/bin", f"touch {project}/ran; exec {BASE} \"$@\"")


def broken_by_link(project):
    fake(project / "tool", f"touch {project}/ran; exec {BASE} \"$@\"")
    (project / ".venv/bin").mkdir(parents=True)
    (project / ".venv/bin/python").symlink_to("../../tool/python")


def broken_by_other_program(project):
    (project / ".venv/bin").mkdir(parents=True)
    (project / ".venv/bin/python").symlink_to("/bin/sh")


def broken_by_missing_base(project):
    (project / ".venv/bin").mkdir(parents=True)
    (project / ".venv/bin/python").symlink_to("/nowhere/python3")


def broken_by_missing_packages(project):
    (project / ".venv/bin").mkdir(parents=True)
    (project / ".venv/bin/python").symlink_to(BASE)


@pytest.mark.parametrize(
    ("break_it", "reason"),
    [
        (broken_by_script, "part of the project"),
        (broken_by_link, "part of the project"),
        (broken_by_other_program, "no Python interpreter"),
        (broken_by_missing_base, "leads nowhere"),
        (broken_by_missing_packages, "no packages of"),
    ],
)
def test_a_project_environment_of_no_use_is_left_aside_with_a_word(project, break_it, reason):
    break_it(project)
    (project / ".venv/pyvenv.cfg").write_text("")
    question = EnvironmentQuestion([str(project)])
    assert question.answer() == ask([project.parent])
    assert str(project / ".venv") in question.warning
    assert reason in question.warning
    assert not (project / "ran").exists()


def test_a_folder_that_is_no_environment_is_not_taken_for_one(project):
    (project / "venv").mkdir()
    question = EnvironmentQuestion([str(project)])
    assert question.answer().executable == sys.executable
    assert question.warning is None


# --- what stands in folders of packages


def test_path_entries(tmp_path):
    for name in ("one", "two", "site"):
        (tmp_path / name).mkdir()
    site = tmp_path / "site"
    (site / "b.pth").write_text("# comment\n\n../two\n../missing\n../two\n")
    lines = f"{tmp_path}/one\nimport os\nimport\tos\n\0\n\xff"
    (site / "a.pth").write_bytes(lines.encode("latin-1"))
    (site / "c.txt").write_text(str(tmp_path))
    (site / "d.pth").mkdir()
    expected = [str(site), str(tmp_path / "one"), str(tmp_path / "two")]
    assert path_entries(str(site)) == expected
    assert path_entries(str(tmp_path / "missing")) == [str(tmp_path / "missing")]


def test_packages_that_a_finder_maps(tmp_path):
    (tmp_path / "__editable___demo_1_0_finder.py").write_text(
        "import sys\n"
        "MAPPING: dict[str, str] = {'demo': '/code/src/demo', 'ns.part': '/code/part',\n"
        "  **{}, 'computed': 'a' + 'b', 3: '/x', 'zero': '/a\\0b'}\nNAMESPACES = {}\n"
    )
    (tmp_path / "__editable___older_finder.py").write_text("MAPPING = {'older': '/code/older'}")
    (tmp_path / "__editable___broken_finder.py").write_text("MAPPING = {")
    (tmp_path / "__editable___other_finder.py").write_text("MAPPING = make()")
    assert mapped_packages(str(tmp_path)) == {
        "demo": "/code/src/demo",
        "ns.part": "/code/part",
        "older": "/code/older",
    }


def test_mapped_packages_are_part_of_an_environment(project):
    site = make_venv(project / ".venv")
    (site / "__editable___demo_finder.py").write_text("MAPPING = {'demo': '/code/demo'}")
    for found in (ask([project]), ask(python=str(project / ".venv"))):
        assert found.mapped == {"demo": "/code/demo"}
