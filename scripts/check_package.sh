#!/bin/sh
# Build what is published, into dist/, and check it as its users will get it: the sdist, the wheel that
# is made of the sdist, its installation into a fresh environment of each CPython that it serves, and a
# bill of materials.
#
# Takes one compilation of everything. Interpreters other than that of .venv are taken where they are
# found.
set -eu
cd "$(dirname "$0")/.."
work=$PWD/build/package
rm -rf dist "$work"
mkdir -p dist "$work"
python=.venv/bin/python

step() { printf '\n==> %s\n' "$1"; }

step "sdist, and the wheel that is made of it"
CMAKE_BUILD_PARALLEL_LEVEL=$(getconf _NPROCESSORS_ONLN) \
  $python -m build --no-isolation --outdir dist >"$work/build.log" 2>&1 ||
  { cat "$work/build.log"; exit 1; }
ls -l dist
wheel=$(echo dist/*.whl)

step "What they hold"
$python scripts/check_wheel.py dist

step "abi3audit"
$python -P -m abi3audit --strict --summary "$wheel"

own=$($python -c 'import sys; print("%d.%d" % sys.version_info[:2])')
for version in 3.12 3.13 3.14; do
  if [ $version = "$own" ]; then
    found=$($python -c 'import sys; print(sys._base_executable)')
  elif ! found=$(PYTHON='' scripts/find_python.sh $version 2>/dev/null); then
    printf '\nNo CPython %s here\n' $version
    continue
  fi
  step "Installing on CPython $version ($found)"
  "$found" -m venv --without-pip "$work/$version"
  .venv/bin/pip -q --disable-pip-version-check --python "$work/$version/bin/python" install "$wheel"
  .venv/bin/pip -q --disable-pip-version-check --python "$work/$version/bin/python" check
  "$work/$version/bin/python" -I scripts/check_installed.py "$work/tree-$version"
done

step "Bill of materials"
bill=dist/$(basename "${wheel%%-cp*}").cdx.json
.venv/bin/cyclonedx-py environment --pyproject pyproject.toml --mc-type application \
  --output-reproducible --output-format JSON --output-file "$bill" "$work/$own/bin/python"
$python scripts/check_wheel.py --bill "$bill"
