"""The examples on Qt and GLib, each as its reader would start it, and the report in a browser.

Needs both toolkits and Chromium.
"""

import os
import re
import shutil
import subprocess
import sys
from pathlib import Path

import pytest

from loom.bootstrap import HOST_PATH

kExamples = Path(__file__).resolve().parents[2] / "examples"
kPackages = Path(HOST_PATH).parent.parent


def example(name, *arguments):
    """What an example prints. It must end well."""
    result = subprocess.run(
        [sys.executable, "-O", str(kExamples / name), *arguments],
        capture_output=True,
        text=True,
        timeout=300,
        env={
            **os.environ,
            "PYTHONPATH": str(kPackages),
            "QT_QPA_PLATFORM": "offscreen",
            "QT_LOGGING_RULES": "*.warning=false",
        },
        check=False,
    )
    assert result.returncode == 0, result.stderr
    assert "Traceback" not in result.stderr, result.stderr
    return result.stdout


@pytest.fixture
def project(tmp_path):
    for number in range(20):
        body = "".join(f"def f{i}():  # of {number}\n    # a comment\n    pass\n" for i in range(30))
        (tmp_path / f"m{number:02}.py").write_text("class A:\n    def g(self): pass\n" + body)
    return tmp_path


def test_qt_editor_scans_a_project_while_somebody_types(project):
    scanned, typed = example("qt_editor.py", str(project), "--keys", "40").splitlines()
    assert scanned == "20 files scanned, 32 scopes in the outline of m00.py"
    found = re.fullmatch(r"40 keys, the latest \d+ ms late, (\d+) in the text", typed)
    text = (project / "m00.py").read_text()
    assert found is not None and int(found[1]) == text.count("a") + 40


def test_glib_host_counts_comments_in_files_of_its_own(project):
    *files, last = example("glib_host.py", str(project)).splitlines()
    assert files == [f"{project}/m{n:02}.py: 30 of 92 lines" for n in range(20)]
    assert re.fullmatch(r"20 files, and \d+ beats of the program meanwhile", last)


def test_the_page_of_a_run_draws_itself_in_a_browser(project, tmp_path):
    page = tmp_path / "report.html"
    scan = [sys.executable, "-P", "-m", "loom", "scan", str(project), "--db", str(tmp_path / "d")]
    subprocess.run(
        [*scan, "--report", str(page)],
        env={**os.environ, "PYTHONPATH": str(kPackages)},
        check=True,
        capture_output=True,
    )
    browser = shutil.which("chromium") or shutil.which("google-chrome")
    assert browser is not None, "Chromium is needed: apt-get install chromium"
    drawn = subprocess.run(
        [browser, "--headless", "--no-sandbox", "--disable-gpu", "--dump-dom", page.as_uri()],
        capture_output=True,
        text=True,
        timeout=120,
        check=True,
    ).stdout
    assert 'data-drawn="yes"' in drawn  # the last line of the script was reached
    assert "20 scanned, 0 unchanged, 0 failed" in drawn
    for chart in ("timeline", "lengths", "depths"):
        shapes = re.search(rf'<svg id="{chart}"[^>]*>(.*?)</svg>', drawn, re.DOTALL)
        assert shapes is not None and re.search("<(rect|polyline) ", shapes[1]), chart
