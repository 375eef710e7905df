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

# A process serves one host, so that the tests over the fake host run by themselves.
for options in "" "-O"; do
  for suite in core host isolated issues; do
    case $suite in
      core) paths=tests/python/core ;;
      host) paths="tests/python --ignore=tests/python/core" ;;
      *) paths=tests/$suite ;;
    esac
    [ -d "${paths%% *}" ] || continue
    section "pytest $paths under python${options:+ $options}"
    # shellcheck disable=SC2086
    run_pytest "$suite$options" "$options" --hypothesis-profile=repeatable $paths || failed=1
  done
done

.venv/bin/python scripts/test_summary.py $reports || failed=1
exit $failed
