"""Check the package that is installed for the interpreter that runs this, isolated (-I).

    check_installed.py FOLDER       FOLDER is made, for a small tree and a database

Imports every module, and scans a small tree with the installed command.
"""

import importlib
import importlib.metadata
import pkgutil
import subprocess
import sys
from pathlib import Path

# Modules for programs that bring the toolkit along.
kToolkits = {"gi", "PySide6"}
# These run when they are imported.
kPrograms = {"loom.__main__"}


def import_all() -> int:
    from loom.bootstrap import ensure_host_path

    ensure_host_path()
    count = 0
    for top in ("loom", "pysource"):
        package = importlib.import_module(top)
        for found in pkgutil.walk_packages(package.__path__, f"{top}."):
            # What stands in loom/hostpath is imported by its path below that folder.
            name = found.name.removeprefix("loom.hostpath.")
            if name in kPrograms or name == "loom.hostpath":
                continue
            try:
                importlib.import_module(name)
            except ModuleNotFoundError as error:
                if (error.name or "").partition(".")[0] not in kToolkits:
                    raise
            count += 1
    return count


def loom(*arguments: str) -> str:
    command = [str(Path(sys.executable).with_name("loom")), *arguments]
    return subprocess.run(command, capture_output=True, text=True, check=True).stdout


def main(folder: Path) -> None:
    version = importlib.metadata.version("pysource-loom")
    assert version in loom("--version"), loom("--version")
    (folder / "pkg").mkdir(parents=True)
    (folder / "pkg" / "__init__.py").write_text("from .inner import Thing\n")
    (folder / "pkg" / "inner.py").write_text("class Thing:\n    def act(self): pass\n")
    database = f"--db={folder / 'database.sqlite3'}"
    loom("scan", str(folder / "pkg"), database)
    loom("scan", str(folder / "pkg"), database, "--helper", "--report", str(folder / "r.html"))
    assert "inner.py" in loom("find", "Thing.act", database)
    assert (folder / "r.html").stat().st_size > 1000
    print(f"{import_all()} modules imported, a tree scanned by loom {version}")


if __name__ == "__main__":
    if not __debug__:
        sys.exit("the checks are assertions")
    main(Path(sys.argv[1]))
