"""The tests of what the documents say find their helper modules here."""

import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent))
