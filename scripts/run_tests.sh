#!/bin/sh
# Run all tests against the installed package: the C++ unit tests, the Python tests, and the Python
# tests once more under "python -O". All run, also after a failure; the last line sums up.
#
# A Python process serves one host, so that the tests over the fake host run by themselves. Pytest is
# started with -P: the sources here must not hide the installed package.
set -u
cd "$(dirname "$0")/.." || exit 1
python=$PWD/.venv/bin/python
reports=build/reports
failed=0
rm -rf $reports
mkdir -p $reports

section() { printf '\n==> %s\n' "$1"; }

run_unit_tests() {
  section "C++ unit tests"
  .venv/bin/cmake -S . -B build/release -DLOOM_TESTS=ON >build/configure.log 2>&1 ||
    { cat build/configure.log; return 1; }
  .venv/bin/cmake --build build/release >build/build.log 2>&1 ||
    { cat build/build.log; return 1; }
  .venv/bin/ctest --test-dir build/release --output-on-failure --progress --no-tests=error \
    -j "$(nproc)" --output-junit "$PWD/$reports/unit.xml"
}

# run_pytest REPORT "python options" PYTEST-ARGUMENTS...
run_pytest() {
  report=$1
  options=$2
  shift 2
  section "pytest $* under python${options:+ $options}"
  # shellcheck disable=SC2086
  "$python" -P $options -m pytest -q --hypothesis-profile=repeatable \
    --junitxml="$reports/$report.xml" -o junit_suite_name="$report" "$@"
}

run_unit_tests || failed=1
for options in "" "-O"; do
  run_pytest "core$options" "$options" tests/python/core || failed=1
  run_pytest "host$options" "$options" tests/python --ignore=tests/python/core || failed=1
  run_pytest "isolated$options" "$options" tests/isolated || failed=1
  if [ -d tests/issues ]; then
    run_pytest "issues$options" "$options" tests/issues || failed=1
  fi
done

"$python" scripts/test_summary.py $reports || failed=1
exit $failed
