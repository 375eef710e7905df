#!/bin/sh
# Build the modules and the unit tests with the address and undefined behaviour sanitizers, and run the
# unit tests and the Python tests of the C++ modules with them. A diagnostic ends the process that
# caused it, and so fails its test.
set -u
cd "$(dirname "$0")/.." || exit 1
python=$PWD/.venv/bin/python
build=build/sanitize
site=$PWD/$build/site
reports=build/reports-sanitize
failed=0
rm -rf $reports
mkdir -p $reports

section() { printf '\n==> %s\n' "$1"; }

section "Building with ASan and UBSan"
"$python" -m pip install -q --disable-pip-version-check --no-build-isolation --no-deps --upgrade \
  --target "$site" -C build-dir=$build -C cmake.define.LOOM_SANITIZE=ON . || exit 1
.venv/bin/cmake -S . -B $build -DLOOM_TESTS=ON >build/configure.log 2>&1 ||
  { cat build/configure.log; exit 1; }
.venv/bin/cmake --build $build >build/build.log 2>&1 || { cat build/build.log; exit 1; }

section "C++ unit tests under ASan and UBSan"
.venv/bin/ctest --test-dir $build --output-on-failure --progress --no-tests=error -j "$(nproc)" \
  --output-junit "$PWD/$reports/unit.xml" || failed=1

# The runtime must be in the process before anything else, and libstdc++ with it, because the
# sanitizer intercepts the throwing of exceptions. What an interpreter holds at exit is no leak.
cxx=${CXX:-c++}
preload="$("$cxx" -print-file-name=libasan.so) $("$cxx" -print-file-name=libstdc++.so)"

run_pytest() {
  report=$1
  shift
  section "pytest $* under ASan and UBSan"
  LD_PRELOAD=$preload ASAN_OPTIONS=detect_leaks=0 UBSAN_OPTIONS=print_stacktrace=1 \
    PYTHONMALLOC=malloc PYTHONPATH=$site "$python" -P -m pytest -q \
    --hypothesis-profile=sanitize --junitxml="$reports/$report.xml" "$@"
}

run_pytest core tests/python/core || failed=1
run_pytest scanner tests/python/scanner || failed=1
run_pytest isolated tests/isolated || failed=1

"$python" scripts/test_summary.py $reports || failed=1
exit $failed
