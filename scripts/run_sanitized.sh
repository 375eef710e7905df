#!/bin/sh
# Build the modules and the unit tests with the address and undefined behaviour sanitizers, and run the
# unit tests and the Python tests of the C++ modules with them. A diagnostic ends the process that
# caused it, and so fails its test.
set -u
cd "$(dirname "$0")/.." || exit 1
build=build/sanitize
reports=build/reports-sanitize
. scripts/test_functions.sh
rm -rf $reports
mkdir -p $reports
failed=0

section "Building with ASan and UBSan"
.venv/bin/python -m pip install -q --disable-pip-version-check --no-build-isolation --no-deps \
  --upgrade --target $build/site -C build-dir=$build -C cmake.define.LOOM_SANITIZE=ON \
  -C install.strip=false . || exit 1

section "C++ unit tests under ASan and UBSan"
run_unit_tests $build || failed=1

# The runtime must be in the process before anything else, and libstdc++ with it, because the
# sanitizer intercepts the throwing of exceptions. What an interpreter holds at exit is no leak.
cxx=${CXX:-c++}
preload="$("$cxx" -print-file-name=libasan.so) $("$cxx" -print-file-name=libstdc++.so)"

# run_suites SUITE...: run the Python tests of these folders with the sanitized modules.
run_suites() {
  suites_failed=0
  for suite in "$@"; do
    section "pytest tests/$suite under ASan and UBSan"
    (
      export LD_PRELOAD="$preload" PYTHONMALLOC=malloc PYTHONPATH="$PWD/$build/site"
      export ASAN_OPTIONS=detect_leaks=0 UBSAN_OPTIONS=print_stacktrace=1
      # Captured at the level of sys only, so that a diagnostic gets out of a process that it ends.
      run_pytest "${suite#python/}" "" --capture=sys --hypothesis-profile=sanitize "tests/$suite"
    ) || suites_failed=1
  done
  return $suites_failed
}

# Side by side; what the second one says is shown when the first one is done.
run_suites python/scanner isolated >build/sanitized.log 2>&1 &
others=$!
run_suites python/core || failed=1
wait $others || failed=1
cat build/sanitized.log

.venv/bin/python scripts/test_summary.py $reports || failed=1
exit $failed
