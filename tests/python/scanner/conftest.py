"""Tests of the native source scanner, with their helper modules on the path."""

import sys
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).resolve().parent))


def pytest_addoption(parser: pytest.Parser) -> None:
    """Let a run compare more files than the sample of the standard library."""
    parser.addoption(
        "--scan-tree",
        action="append",
        default=[],
        metavar="FOLDER",
        help="also compare every *.py under FOLDER with ast and symtable (may be repeated)",
    )
