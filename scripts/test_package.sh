#!/usr/bin/env bash
# Installs corvane with pip into a fresh virtual environment, and uses it there from another folder.
set -euo pipefail
cd "$(dirname "$0")/.."

source=$PWD
place=$(mktemp -d)
trap 'rm -rf "$place"' EXIT
/usr/bin/python3 -m venv --system-site-packages "$place/venv"
cd "$place"
unset PYTHONPATH
export CXX=c++  # the name under which scripts/build.sh calls the compiler, so that ccache knows its objects
if ! venv/bin/python -m pip install --quiet --disable-pip-version-check "$source" >pip.log 2>&1; then
  cat pip.log
  echo "package: an error, see above; without a network pip cannot fetch scikit-build-core, which builds the wheel" >&2
  exit 1
fi
venv/bin/python "$source/tests/package/installed.py"
