#!/bin/sh
# Build the package with the tools in .venv and install it there, if a source is newer than what is
# installed. The C++ build in build/release is incremental.
set -eu
cd "$(dirname "$0")/.."
stamp=.venv/.installed

sources="CMakeLists.txt cmake host loom pyproject.toml pysource"
changed() {
  # Folders count too: their time tells that a file was removed.
  [ ! -e $stamp ] ||
    [ -n "$(find $sources -newer $stamp ! -path '*/__pycache__*' ! -name '*.so' -print | head -1)" ]
}

if changed; then
  scripts/check_toolchain.sh
  echo "==> Building and installing the package (a minute or two when all is new)"
  touch $stamp.start
  .venv/bin/python -m pip install -q --disable-pip-version-check --no-build-isolation .
  # Of the time when the build began, so that what was edited meanwhile counts as newer.
  mv $stamp.start $stamp
fi
