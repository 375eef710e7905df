#!/bin/bash
# Look for inputs that break the C++ code that walks text. tests/fuzz/README.md tells how it works.
#
#   scripts/run_fuzz.sh [--replay | --keep] [TARGET...]
#
# Without an option each target (all, if none is named) runs for FUZZ_SECONDS (20) from its kept corpus
# on, with the random numbers of FUZZ_SEED (1). --replay only runs the kept inputs. --keep adds to the
# kept corpus what the last run has found and the corpus doesn't reach.
#
# One line a target sums up. An input that breaks something is left in build/fuzz/finds; then, and if
# anything else goes wrong, the exit code isn't 0.
set -uo pipefail
cd "$(dirname "$0")/.."
build=build/fuzz
finds=$build/finds
all=(bytescan literals search names packinfo scan utf8 fstrings fastaccess)
seconds=${FUZZ_SECONDS:-20}
seed=${FUZZ_SEED:-1}

mode=fuzz
case ${1:-} in
  --replay | --keep)
    mode=${1#--}
    shift
    ;;
esac
targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=("${all[@]}")
for target in "${targets[@]}"; do
  [ -e "tests/fuzz/${target}_fuzz.cpp" ] || {
    echo "run_fuzz: no target \"$target\"; there are: ${all[*]}" >&2
    exit 2
  }
done

# The newest clang++ there is, or the one that CLANGXX names, if it can link a fuzzer.
find_clang() {
  local candidate missing="clang libclang-rt-14-dev"
  for candidate in "${CLANGXX:-}" clang++ clang++-{20..14}; do
    [ -n "$candidate" ] && command -v "$candidate" >/dev/null || continue
    if echo 'extern "C" int LLVMFuzzerTestOneInput(const char*, unsigned long) { return 0; }' |
      "$candidate" -fsanitize=fuzzer,address,undefined -x c++ - -o "$build/probe" 2>/dev/null; then
      rm -f "$build/probe"
      echo "$candidate"
      return 0
    fi
    missing="libclang-rt-$("$candidate" -dumpversion | cut -d. -f1)-dev"
  done
  echo "$missing"
  return 1
}

mkdir -p "$build" "$finds"
if ! clang=$(find_clang); then
  if command -v apt-get >/dev/null && [ "$(id -u)" -eq 0 ]; then
    echo "==> Installing clang libclang-rt-14-dev"
    apt-get update -qq && DEBIAN_FRONTEND=noninteractive \
      apt-get install -qq -y clang libclang-rt-14-dev >"$build/install.log" 2>&1
  fi
  clang=$(find_clang) || {
    echo "run_fuzz: no clang++ that links fuzzers found; apt-get install $clang" >&2
    exit 2
  }
fi

tools=${FUZZ_TOOLS:-.venv/bin}
build_fuzzers() {
  CXX=$clang "$tools/cmake" -S . -B "$build" -G Ninja -DCMAKE_MAKE_PROGRAM="$(realpath "$tools/ninja")" \
    -DPython_EXECUTABLE="$(realpath -s "$tools/python")" -DLOOM_SANITIZE=ON -DLOOM_FUZZ=ON &&
    "$tools/cmake" --build "$build" --target "${targets[@]/%/_fuzz}"
}
build_fuzzers >"$build/build.log" 2>&1 || {
  cat "$build/build.log"
  exit 1
}

# For the targets that start an interpreter. What it allocates at its start is no leak.
PYTHONHOME=$("$tools/python" -c 'import sys; print(sys.base_prefix)')
export PYTHONHOME PYTHONMALLOC=malloc
export UBSAN_OPTIONS=print_stacktrace=1
needs_python() { [[ $1 == utf8 || $1 == fstrings || $1 == fastaccess ]]; }

# options_of TARGET: the longest input worth trying, and the words that such inputs hold.
options_of() {
  case $1 in
    scan) echo "-max_len=2048 -dict=tests/fuzz/python.dict" ;;
    literals) echo "-max_len=1024 -dict=tests/fuzz/python.dict" ;;
    names | search) echo "-max_len=512 -dict=tests/fuzz/python.dict" ;;
    fstrings) echo "-max_len=80 -dict=tests/fuzz/python.dict" ;;
    utf8) echo "-max_len=64" ;;
    *) echo "-max_len=256" ;;
  esac
}

# run TARGET ARGUMENTS...: run its fuzzer, with all that it says in its log.
run() {
  local target=$1 leaks=1
  shift
  needs_python "$target" && leaks=0
  ASAN_OPTIONS=detect_leaks=$leaks "$build/fuzzers/$target" -seed="$seed" -timeout=30 \
    -rss_limit_mb=2048 -artifact_prefix="$finds/$target-" "$@" >"$build/$target.log" 2>&1
}

inputs_in() { find "$1" -type f | wc -l; }

# report TARGET STATUS WHAT: one line; of a failure also what the fuzzer said.
failed=0
report() {
  if [ "$2" -eq 0 ]; then
    printf '%-11s passed: %s\n' "$1" "$3"
  else
    failed=1
    printf '%-11s FAILED: %s\n' "$1" "$3"
    grep -E "doesn't hold|ERROR|SUMMARY|runtime error|Test unit written" "$build/$1.log" ||
      tail -20 "$build/$1.log"
  fi
}

# statistic TARGET NAME: of the log, as -print_final_stats=1 writes it.
statistic() { sed -n "s/^stat::$2: *//p" "$build/$1.log"; }

for target in "${targets[@]}"; do
  kept=tests/fuzz/corpus/$target
  new=$build/corpus/$target
  # shellcheck disable=SC2046
  case $mode in
    replay)
      run "$target" -runs=0 "$kept"
      report "$target" $? "$(inputs_in "$kept") kept inputs"
      ;;
    fuzz)
      # Each run starts from what is kept, so that the same seed takes the same way.
      rm -rf "$new"
      mkdir -p "$new"
      run "$target" $(options_of "$target") -max_total_time="$seconds" -print_final_stats=1 \
        "$new" "$kept"
      report "$target" $? "$(inputs_in "$kept") kept inputs, $(statistic "$target" \
        number_of_executed_units) runs in $seconds s, $(inputs_in "$new") new inputs"
      ;;
    keep)
      mkdir -p "$new"
      before=$(inputs_in "$kept")
      # Whether code is reached counts, and not how often, else the corpus grows by thousands.
      run "$target" -merge=1 -use_counters=0 "$kept" "$new"
      report "$target" $? "$(($(inputs_in "$kept") - before)) inputs added"
      ;;
  esac
done
exit $failed
