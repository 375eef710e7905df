#!/bin/sh
# Look for inputs that break the text helpers: run.sh [SECONDS for each target, 60 if left out]
#
# Builds the targets with libFuzzer, ASan and UBSan and runs them from tests/fuzz/corpus on. What is new
# is kept in build/fuzz; an input that breaks something is left there, too, and the exit code is 1.
# Needs clang++ with its sanitizers (for example: apt-get install clang libclang-rt-dev) and the shared
# library of the Python that PYTHON names or that the project finds.
set -eu
cd "$(dirname "$0")/../.."
seconds=${1:-60}
python=${PYTHON:-$(scripts/find_python.sh)}

clang=
for candidate in "${CLANGXX:-}" clang++ clang++-20 clang++-19 clang++-18 clang++-17 clang++-16 \
  clang++-15 clang++-14; do
  if [ -n "$candidate" ] && command -v "$candidate" >/dev/null; then
    clang=$candidate
    break
  fi
done
if [ -z "$clang" ]; then
  echo "fuzzing needs clang++, for example: apt-get install clang" >&2
  exit 2
fi

config() { "$python" -c "import sysconfig, sys; print($1)"; }
include=$(config "sysconfig.get_path('include')")
library=$(config "sysconfig.get_config_var('LIBDIR')")
name=$(config "sysconfig.get_config_var('LDLIBRARY')")
PYTHONHOME=$(config "sys.base_prefix")
export PYTHONHOME
# What the interpreter allocates at its start is no leak.
export ASAN_OPTIONS=detect_leaks=0 PYTHONMALLOC=malloc

mkdir -p build/fuzz
failed=0
for target in search names utf8; do
  sources=tests/fuzz/${target}_fuzz.cpp
  python_link=
  if [ $target = utf8 ]; then
    sources="$sources pysource/strutils.cpp $(echo pysource/pyrt/*.cpp)"
    python_link="$library/$name -Wl,-rpath,$library"
  fi
  # shellcheck disable=SC2086
  "$clang" -std=c++20 -O1 -g -fsanitize=fuzzer,address,undefined -fno-sanitize-recover=all \
    -I. -isystem "$include" $sources $python_link -o build/fuzz/$target
  echo "==> $target, $seconds s"
  mkdir -p build/fuzz/corpus/$target
  build/fuzz/$target -max_total_time="$seconds" -max_len=512 -print_final_stats=1 \
    -artifact_prefix=build/fuzz/$target- \
    build/fuzz/corpus/$target tests/fuzz/corpus/$target >build/fuzz/$target.log 2>&1 ||
    failed=1
  tail -12 build/fuzz/$target.log
done
exit $failed
