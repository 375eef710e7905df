#!/bin/sh
# Count which lines of C++ and Python the tests run, and show a table of it by rooms. The pages of all
# files are build/coverage/cpp/index.html and build/coverage/html/index.html.
#
# What no test runs, and why, stands in docs/coverage.md.
set -u
cd "$(dirname "$0")/.." || exit 1
build=build/coverage
reports=$build/reports
. scripts/test_functions.sh
rm -rf $reports $build/python $build/html $build/cpp
mkdir -p $reports $build/python $build/cpp
failed=0

section "Building with counters"
.venv/bin/python -m pip install -q --disable-pip-version-check --no-build-isolation --no-deps \
  --upgrade --target $build/site -C build-dir=$build -C cmake.define.LOOM_COVERAGE=ON \
  -C install.strip=false . || exit 1
find $build -name '*.gcda' -delete

section "C++ unit tests"
run_unit_tests $build || failed=1

# run_suite NAME PATHS: run Python tests over the modules with counters.
export COVERAGE_FILE="$PWD/$build/python/data" LOOM_COVERAGE_SITE="$PWD/$build/site"
run_suite() {
  section "pytest $2"
  # shellcheck disable=SC2086
  PYTHONPATH="$PWD/$build/site" COVERAGE_CORE=sysmon \
    .venv/bin/python -P -m coverage run -m pytest -q --junitxml="$reports/$1.xml" \
    --hypothesis-profile=sanitize $2 || failed=1
}
run_suite core tests/python/core
# Left out: tests of what a fresh process has loaded, for the counter is loaded, too.
run_suite host "tests/python --ignore=tests/python/core
  --deselect tests/python/loom/test_cli.py::test_a_quick_answer_loads_nothing_heavy
  --deselect tests/python/loom/test_host_services.py::test_the_engine_finds_its_neighbours_before_and_after_pysource_was_imported"
run_suite loops tests/loops
# What the interpreter does with classes and cycles shows in processes of their own.
run_suite isolated "tests/isolated/test_isolated_bases.py tests/isolated/test_isolated_collection.py"

section "Coverage"
.venv/bin/coverage combine -q && .venv/bin/coverage html -q -d $build/html &&
  .venv/bin/coverage json -q -o $build/python/coverage.json || failed=1
.venv/bin/gcovr --root . --object-directory $build --gcov-executable "${GCOV:-gcov}" \
  --filter pysource/ --filter host/ --filter loom/ --merge-mode-functions=separate \
  --exclude-throw-branches --json $build/cpp/coverage.json \
  --html-details $build/cpp/index.html >$build/gcovr.log 2>&1 ||
  { cat $build/gcovr.log; failed=1; }
.venv/bin/python scripts/coverage_summary.py $build | tee $build/summary.md || failed=1
exit $failed
