#!/bin/sh
# Check the sources in Python with mypy, and the stubs of the extension modules against what was built.
set -u
cd "$(dirname "$0")/.." || exit 1
failed=0
echo "==> mypy"
.venv/bin/mypy || failed=1
echo "==> stubtest"
.venv/bin/python -P -m pytest -q tests/python/test_stubs.py || failed=1
exit $failed
