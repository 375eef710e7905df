"""`loom scan` with the derived stage and without."""

import sqlite3
from pathlib import Path

import pytest

from loom.cli.main import run


def scans(database: Path) -> set[str]:
    connection = sqlite3.connect(database)
    try:
        return {found.strip() for (found,) in connection.execute("SELECT scans FROM files")}
    finally:
        connection.close()


def test_the_stage_runs_unless_it_is_left_out(
    tmp_path: Path, capsys: pytest.CaptureFixture[str]
) -> None:
    (tmp_path / "a.py").write_text("import b\n")
    (tmp_path / "b.py").write_text("x = 1\n")
    database = tmp_path / "db" / "info.sqlite3"
    arguments = ["--no-imports", "--db", str(database), str(tmp_path)]
    assert run(["scan", "--no-derived", *arguments]) == 0
    assert scans(database) == {"primary"}
    assert run(["scan", *arguments]) == 0
    assert scans(database) == {"primary derived"}
    capsys.readouterr()
    assert run(["scan", *arguments]) == 0


def test_the_stage_can_not_be_left_in_twice(capsys: pytest.CaptureFixture[str]) -> None:
    assert run(["scan", "--no-derived=x", "."]) == 2
    assert "--no-derived" in capsys.readouterr().err
