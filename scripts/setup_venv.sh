#!/bin/sh
# Make .venv with the tools of a dependency group of pyproject.toml, if that isn't done yet.
#
#   scripts/setup_venv.sh GROUP
#
# Made anew when its interpreter has gone, or when $PYTHON names another one.
set -eu
cd "$(dirname "$0")/.."
group=$1
venv=.venv

base_of() { "$1" -c 'import sys; print(sys._base_executable)' 2>/dev/null; }

if base=$(base_of $venv/bin/python) && [ -n "$base" ]; then
  if [ -n "${PYTHON:-}" ]; then
    wanted=$(scripts/find_python.sh)
    [ "$(realpath "$wanted")" = "$(realpath "$base")" ] || base=
  fi
else
  base=
fi

if [ -z "$base" ]; then
  python=$(scripts/find_python.sh)
  echo "==> Making .venv with $("$python" -V) ($python)"
  rm -rf $venv build/release build/sanitize
  "$python" -m venv $venv
fi

# What is installed depends on nothing but this file.
state=$(cksum <pyproject.toml)
stamp=$venv/.group-$group
if [ "$(cat $stamp 2>/dev/null || true)" != "$state" ]; then
  echo "==> Installing the tools of group \"$group\""
  # Groups need pip 25.1; the pip that comes with Python 3.12 is older.
  $venv/bin/python -m pip install -q --disable-pip-version-check "pip>=25.1,<27"
  $venv/bin/python -m pip install -q --disable-pip-version-check --group "$group"
  echo "$state" >$stamp
fi
