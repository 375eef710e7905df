"""Tests of the native source scanner, with their helper modules on the path."""

import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent))
