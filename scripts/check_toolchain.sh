#!/bin/sh
# Say in one line what the C++ build, or the tests, lack on this machine, with the Debian package to install.
#
#   scripts/check_toolchain.sh [--tests] [--sanitize] [--toolkits]
set -u

work=$(mktemp -d) || exit 1
trap 'rm -rf "$work"' EXIT
cxx=${CXX:-c++}

fail() {
  echo "check_toolchain: $1" >&2
  exit 1
}

# compiles FLAGS...: whether the program in $work/probe.cpp builds.
compiles() { "$cxx" -std=c++20 "$@" "$work/probe.cpp" -o "$work/probe" >/dev/null 2>&1; }

command -v "$cxx" >/dev/null 2>&1 || fail "no C++ compiler ($cxx) found; apt-get install g++"

echo '#include <concepts>
int main() { return std::same_as<int, int> ? 0 : 1; }' >"$work/probe.cpp"
compiles || fail "$cxx can't build C++20; g++ 12 or clang++ 16 and later can: apt-get install g++"

for option in "$@"; do
  case $option in
    --tests)
      echo '#include <gtest/gtest.h>
      TEST(Probe, Links) {}' >"$work/probe.cpp"
      compiles -lgtest_main -lgtest -pthread ||
        fail "GoogleTest not found; apt-get install libgtest-dev"
      PATH="$PATH:/usr/sbin" command -v sshd >/dev/null 2>&1 ||
        fail "the tests of remote files start an sshd; apt-get install openssh-server"
      ;;
    --sanitize)
      echo 'int main() {}' >"$work/probe.cpp"
      compiles -fsanitize=address,undefined ||
        fail "$cxx has no address sanitizer; apt-get install libasan8 libubsan1"
      # Python itself isn't instrumented, so the runtime is preloaded, and that is named as g++ does.
      [ -e "$("$cxx" -print-file-name=libasan.so)" ] ||
        fail "$cxx has no libasan.so to preload; the sanitized tests need g++: apt-get install g++"
      ;;
    --toolkits)
      pkg-config --exists gobject-introspection-1.0 cairo 2>/dev/null ||
        fail "PyGObject can't be built; apt-get install pkg-config libgirepository1.0-dev libcairo2-dev"
      command -v chromium >/dev/null 2>&1 || command -v google-chrome >/dev/null 2>&1 ||
        fail "no browser for the test of the report page; apt-get install chromium"
      ;;
    *) fail "unknown option $option" ;;
  esac
done
