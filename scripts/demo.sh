#!/bin/sh
# Scan the standard library of the interpreter in .venv with the progress display.
set -eu
cd "$(dirname "$0")/.."
stdlib=$(.venv/bin/python -c 'import sysconfig; print(sysconfig.get_path("stdlib"))')

echo "==> loom scan $stdlib"
# The standard library's own tests have files with errors on purpose.
.venv/bin/loom scan --exit-zero "$stdlib"

cat <<END

Now try
  .venv/bin/loom symbols $stdlib/textwrap.py   what a file defines
  .venv/bin/loom find dedent                   where a name is defined
  .venv/bin/loom scan PATH                     scan sources of your own
  .venv/bin/loom --help                        all commands
END
