"""Compare the scanner with ast and symtable over every *.py of whole trees.

Usage: python compare_trees.py FOLDER...

Prints each file that differs, and at the end how many were compared. Exits with 1 if one differs.
"""

import sys
from collections import Counter
from concurrent.futures import ProcessPoolExecutor
from pathlib import Path

from oracle import differences, read_source


def compare_file(path: Path) -> tuple[Path, list[str] | None]:
    """Return the differences of one file, or None if it isn't Python for this interpreter."""
    try:
        text = read_source(path)
        return path, None if text is None else differences(text)
    except RecursionError:
        return path, None


def main(folders: list[str]) -> int:
    """Compare all files below the folders."""
    files = sorted({path for folder in folders for path in Path(folder).rglob("*.py")})
    files = [path for path in files if path.is_file()]
    counts: Counter[str] = Counter()
    with ProcessPoolExecutor() as pool:
        for path, found in pool.map(compare_file, files, chunksize=50):
            if found is None:
                counts["no Python for this interpreter"] += 1
            elif not found:
                counts["equal"] += 1
            else:
                counts["different"] += 1
                print(path)
                for line in found[:5]:
                    print("   ", line[:500])
    print(", ".join(f"{count} {what}" for what, count in sorted(counts.items())))
    return 1 if counts["different"] else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
