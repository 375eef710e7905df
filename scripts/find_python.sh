#!/bin/sh
# Print the path of a CPython that this project can be built with, or say in one line what is missing.
#
#   scripts/find_python.sh [MINOR]      MINOR (say 3.13) allows that version only
#
# $PYTHON, if set, is the only candidate. Otherwise candidates are tried in order: names on PATH, in
# every folder of it, then pyenv's versions and the usual folders. Each is run: a shim that fails, a
# version before 3.12, another implementation, or one without headers or venv doesn't count.
set -u

only_minor=${1:-}

# Run by each candidate: prints "ok EXECUTABLE" or "no REASON".
probe='
import os, sys
def verdict():
    name = getattr(getattr(sys, "implementation", None), "name", "python 2")
    if name != "cpython":
        return "no is %s, not CPython" % name
    version = "%d.%d" % sys.version_info[:2]
    if sys.version_info < (3, 12):
        return "no is CPython %s; 3.12 or later is needed" % version
    wanted = sys.argv[1]
    if wanted and version != wanted:
        return "no is CPython %s; %s is wanted" % (version, wanted)
    import sysconfig
    if sysconfig.get_config_var("Py_GIL_DISABLED"):
        return "no is a free-threaded build, which has no stable ABI"
    if not os.path.exists(os.path.join(sysconfig.get_path("include"), "Python.h")):
        return "no has no Python.h; install python%s-dev" % version
    try:
        import ensurepip, venv
    except ImportError:
        return "no has no venv; install python%s-venv" % version
    # Of a virtual environment, the interpreter below it: the environment may be ours and about to go.
    return "ok " + getattr(sys, "_base_executable", sys.executable)
print(verdict())
'

# try CANDIDATE: 0 and `found` set, or 1 and `reason` set.
try() {
  answer=$("$1" -E -s -c "$probe" "$only_minor" 2>/dev/null </dev/null) || answer="no does not run"
  case $answer in
    "ok "*) found=${answer#ok }; return 0 ;;
    "no "*) reason="$1 ${answer#no }" ;;
    *) reason="$1 does not run as Python" ;;
  esac
  return 1
}

if [ -n "${PYTHON:-}" ]; then
  try "$PYTHON" && { echo "$found"; exit 0; }
  echo "find_python: PYTHON=$reason" >&2
  exit 1
fi

near_miss=
# consider CANDIDATE: ends the script when it is good; keeps the reason of a near miss.
consider() {
  [ -x "$1" ] && [ ! -d "$1" ] || return 0
  try "$1" && { echo "$found"; exit 0; }
  case $reason in *"; install "*) : "${near_miss:=$reason}" ;; esac
}

names="python3.12 python3.13 python3.14 python3"
[ -n "$only_minor" ] && names="python$only_minor python3"

old_ifs=$IFS
for name in $names; do
  IFS=:
  for folder in ${PATH:-}; do
    IFS=$old_ifs
    consider "${folder:-.}/$name"
  done
  IFS=$old_ifs
done

# The home of the account counts as well as $HOME, which may be elsewhere.
account_home=$(getent passwd "$(id -u)" 2>/dev/null | cut -d: -f6)
for name in $names; do
  for home in "${HOME:-}" "$account_home"; do
    [ -n "$home" ] || continue
    for root in "${PYENV_ROOT:-$home/.pyenv}" "$home/.pyenv"; do
      for folder in "$root"/versions/*/bin; do consider "$folder/$name"; done
    done
    consider "$home/.local/bin/$name"
    for folder in "$home"/.local/share/uv/python/*/bin; do consider "$folder/$name"; done
  done
  for folder in /usr/bin /usr/local/bin /opt/bin /opt/*/bin; do consider "$folder/$name"; done
done

if [ -n "$near_miss" ]; then
  echo "find_python: $near_miss" >&2
else
  version=${only_minor:-3.12}
  or_later=$([ -n "$only_minor" ] || echo " or later")
  echo "find_python: no CPython $version${or_later} found; install python$version," \
    "python$version-venv and python$version-dev, or set PYTHON to the path of one" >&2
fi
exit 1
