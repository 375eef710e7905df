"""Check what the sdist and the wheel in a folder hold, or what a bill of materials tells.

    check_wheel.py FOLDER
    check_wheel.py --bill FILE

Exits with 1 and says what is wrong.
"""

import json
import re
import subprocess
import sys
import tarfile
import tomllib
import zipfile
from pathlib import Path

kRoot = Path(__file__).resolve().parent.parent
kProject = tomllib.loads((kRoot / "pyproject.toml").read_text())["project"]
kVersion = kProject["version"]
kStem = f"pysource_loom-{kVersion}"

# Each file of the wheel is of one of these kinds, and there is one at least of each.
kKinds = {
    "sources": r"(loom|pysource)/[\w/]*\w\.py",
    "stubs": r"pysource/\w+\.pyi|loom/_pyscan\.pyi",
    "type marks": r"(loom|pysource)/py\.typed",
    "modules": r"(pysource/(_fastaccess|scancoordinator|strutils|symbolinfo|usageordereddict)"
    r"|loom/_pyscan)\.abi3\.so",
    "headers": r"pysource/include/(host|pysource|pysource/pyrt|pysource/scancoordinator)/\w+\.h",
    "the page of --report": r"loom/trace/page\.html",
    "metadata": rf"{re.escape(kStem)}\.dist-info/"
    r"(METADATA|WHEEL|RECORD|entry_points\.txt|licenses/LICENSE)",
}
kCounts = {"modules": 6, "type marks": 2, "the page of --report": 1, "metadata": 5}

# What every file of the sources needs to be built and tested from the sdist.
kSdistHolds = (
    *("CMakeLists.txt", "LICENSE", "Makefile", "README.md", "CHANGELOG.md", "SECURITY.md"),
    *("cmake/Abi3Module.cmake", "loom/_pyscan.h", "pysource/scancoordinator.h"),
    *("docs/architecture.md", "scripts/check_wheel.py", "tests/conftest.py"),
)
kSdistLeavesOut = r"(build|dist|\.venv|\.ci|\.git)/|.*\.(so|pyc|o|sqlite3)$|.*__pycache__"

# Libraries that every Linux of the wheel's age has.
kLibraries = {"libc.so.6", "libm.so.6", "libstdc++.so.6", "libgcc_s.so.1"}


def sdist_faults(path: Path) -> list[str]:
    with tarfile.open(path) as archive:
        names = {member.name.partition("/")[2] for member in archive if member.isfile()}
    faults = [f"the sdist lacks {name}" for name in kSdistHolds if name not in names]
    return faults + [
        f"the sdist holds {name}" for name in sorted(names) if re.match(kSdistLeavesOut, name)
    ]


def wheel_faults(path: Path) -> list[str]:
    faults = []
    if path.name != f"{kStem}-cp312-abi3-linux_{path.name.rpartition('linux_')[2]}":
        faults.append(f"the name of the wheel is {path.name}")
    with zipfile.ZipFile(path) as archive:
        names = [name for name in archive.namelist() if not name.endswith("/")]
        metadata = archive.read(f"{kStem}.dist-info/METADATA").decode()
    kinds: dict[str, list[str]] = {kind: [] for kind in kKinds}
    for name in names:
        fitting = [kind for kind, pattern in kKinds.items() if re.fullmatch(pattern, name)]
        if len(fitting) == 1:
            kinds[fitting[0]].append(name)
        else:
            faults.append(f"the wheel holds {name}")
    for kind, found in kinds.items():
        print(f"{len(found):5} {kind}")
        if not found or len(found) != kCounts.get(kind, len(found)):
            faults.append(f"the wheel has {len(found)} of {kind}")
    sources = [path for top in ("loom", "pysource") for path in (kRoot / top).rglob("*.py")]
    expected = {str(path.relative_to(kRoot)) for path in sources}
    faults += [f"the wheel lacks {name}" for name in sorted(expected - set(names))]
    if f"\nVersion: {kVersion}\n" not in metadata:
        faults.append("the version is not that of pyproject.toml")
    return faults + library_faults(path)


def library_faults(path: Path) -> list[str]:
    """What auditwheel tells of the libraries that the modules are linked with."""
    told = subprocess.run(
        [sys.executable, "-m", "auditwheel", "show", "--json", path],
        capture_output=True,
        text=True,
        check=True,
    )
    report = json.loads(told.stdout)
    tag, libraries = report["overall_tag"], set(report["versioned_symbols"])
    print(f"fits {tag}; linked with {', '.join(sorted(libraries))}")
    faults = [f"{name} isn't on every Linux" for name in sorted(libraries - kLibraries)]
    faults += [f"{name} comes from elsewhere" for name in report["external_libs"]]
    if not tag.startswith("manylinux_"):
        faults.append(f"the wheel fits {tag} only")
    return faults


def bill_faults(path: Path) -> list[str]:
    bill = json.loads(path.read_text())
    faults = []
    main = bill["metadata"]["component"]
    if (main["name"], main.get("version")) != (kProject["name"], kVersion):
        faults.append(f"the bill is of {main['name']} {main.get('version')}")
    listed = {component["name"].lower().replace("_", "-") for component in bill["components"]}
    for requirement in kProject["dependencies"]:
        name = re.match(r"[\w-]+", requirement)[0].lower().replace("_", "-")
        if name not in listed:
            faults.append(f"the bill lacks {name}")
    print(f"{path}: {len(listed)} components")
    return faults


def main(arguments: list[str]) -> int:
    if arguments[0] == "--bill":
        faults = bill_faults(Path(arguments[1]))
    else:
        folder = Path(arguments[0])
        [sdist], [wheel] = folder.glob("*.tar.gz"), folder.glob("*.whl")
        faults = sdist_faults(sdist) + wheel_faults(wheel)
    for fault in faults:
        print(f"FAULT: {fault}")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
