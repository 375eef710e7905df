#!/bin/sh
# Run all tests against the installed package: the C++ unit tests, the Python tests, and the Python
# tests once more under "python -O". All run, also after a failure; the last line sums up.
set -u
cd "$(dirname "$0")/.." || exit 1
reports=build/reports
. scripts/test_functions.sh
rm -rf $reports
mkdir -p $reports
failed=0

section "C++ unit tests"
run_unit_tests build/release || failed=1

# run_suites OPTIONS: run the Python tests under "python OPTIONS". A process serves one host, so that the
# tests over the fake host run by themselves.
run_suites() {
  suites_failed=0
  for suite in core host loops isolated docs issues; do
    case $suite in
      core) paths=tests/python/core ;;
      host) paths="tests/python --ignore=tests/python/core" ;;
      *) paths=tests/$suite ;;
    esac
    [ -d "${paths%% *}" ] || continue
    section "pytest $paths under python${1:+ $1}"
    # shellcheck disable=SC2086
    run_pytest "$suite$1" "$1" --hypothesis-profile=repeatable $paths || suites_failed=1
  done
  return $suites_failed
}

# Side by side; what the second one says is shown when the first one is done.
run_suites -O >build/optimized.log 2>&1 &
optimized=$!
run_suites "" || failed=1
wait $optimized || failed=1
cat build/optimized.log

.venv/bin/python scripts/test_summary.py $reports || failed=1
exit $failed
