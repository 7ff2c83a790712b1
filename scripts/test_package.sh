#!/usr/bin/env bash
# Installs corvane with pip and uses it from another folder. Usage: scripts/test_package.sh [environment]: the virtual
# environment to install into, from which the package is removed afterwards; by default a fresh one over Debian's PyTorch.
set -euo pipefail
cd "$(dirname "$0")/.."

source=$PWD
place=$(mktemp -d)
environment=$place/venv
clean_up() { rm -rf "$place"; }
if (($#)); then
  environment=$(realpath "$1")
  clean_up() {
    "$environment/bin/python" -m pip uninstall --quiet --yes corvane
    rm -rf "$place"
  }
else
  /usr/bin/python3 -m venv --system-site-packages "$environment"
fi
trap clean_up EXIT
cd "$place"
unset PYTHONPATH
export CXX=c++  # the name under which scripts/build.sh calls the compiler, so that ccache knows its objects
if ! "$environment/bin/python" -m pip install --quiet --disable-pip-version-check "$source" >pip.log 2>&1; then
  cat pip.log
  echo "package: an error, see above; without a network pip cannot fetch what builds the wheel" >&2
  exit 1
fi
"$environment/bin/python" "$source/tests/package/installed.py"
