#!/bin/sh
# Run clang-format with the given options over every C++ file of the project.
set -eu
cd "$(dirname "$0")/.."
find pysource host loom tests benchmarks examples \( -name '*.cpp' -o -name '*.h' \) -print0 \
  2>/dev/null | xargs -0 -r .venv/bin/clang-format "$@"
