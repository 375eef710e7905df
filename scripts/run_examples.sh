#!/bin/sh
# Run the examples on toolkits, and the contract of main loops on all loops that there are.
set -u
cd "$(dirname "$0")/.." || exit 1
reports=build/reports-examples
. scripts/test_functions.sh
rm -rf $reports
mkdir -p $reports
failed=0

section "The contract of main loops on asyncio, poll, GLib and Qt"
export LOOM_TEST_LOOPS="asyncio poll glib qt" QT_QPA_PLATFORM=offscreen
run_pytest loops "" tests/loops || failed=1

section "The examples on Qt and GLib"
run_pytest examples "" tests/examples || failed=1

.venv/bin/python scripts/test_summary.py $reports || failed=1
exit $failed
