# Read by run_tests.sh and run_sanitized.sh, which set `reports` and run in the root of the project.

section() { printf '\n==> %s\n' "$1"; }

# run_unit_tests BUILD: build and run the GoogleTest executables in the build folder BUILD.
run_unit_tests() {
  .venv/bin/cmake -S . -B "$1" -DLOOM_TESTS=ON >build/tests.log 2>&1 &&
    .venv/bin/cmake --build "$1" >>build/tests.log 2>&1 ||
    { cat build/tests.log; record_crash unit; return 1; }
  .venv/bin/ctest --test-dir "$1" --output-on-failure --progress --no-tests=error \
    -j "$(getconf _NPROCESSORS_ONLN)" --output-junit "$PWD/$reports/unit.xml" >build/ctest.log 2>&1
  ctest_status=$?
  if [ $ctest_status -eq 0 ]; then tail -4 build/ctest.log; else cat build/ctest.log; fi
  return $ctest_status
}

# run_pytest REPORT "PYTHON-OPTIONS" PYTEST-ARGUMENTS...: run pytest in the virtual environment; -P keeps
# the sources here from hiding the installed package.
run_pytest() {
  report=$1
  options=$2
  shift 2
  # shellcheck disable=SC2086
  .venv/bin/python -P $options -m pytest -q --junitxml="$reports/$report.xml" "$@"
  pytest_status=$?
  [ -e "$reports/$report.xml" ] || record_crash "$report"
  return $pytest_status
}

# record_crash REPORT: count one failure for a run that ended before it could report.
record_crash() {
  printf '<testsuite><testcase name="%s"><failure message="no report"/></testcase></testsuite>\n' \
    "$1" >"$reports/$1.xml"
}
