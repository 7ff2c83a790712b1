#!/usr/bin/env bash
# Installs corvane with pip and uses it from another folder. Usage: scripts/test_package.sh [--wheel FILE] [environment]:
# the virtual environment to install into, from which the package is removed afterwards; by default a fresh one over
# Debian's PyTorch. A wheel is installed and used where no compiler is to be found; without one the package is built.
set -euo pipefail
cd "$(dirname "$0")/.."

source=$PWD
wheel=
if [[ ${1:-} == --wheel ]]; then
  wheel=$(realpath "$2")
  shift 2
fi
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
alone=()
if [[ $wheel ]]; then
  # Nothing but the environment's own commands: what would have to be compiled cannot be.
  alone=(env --unset=CXX PATH="$environment/bin")
  if (($(stat --format=%s "$wheel") > 25000000)); then
    echo "package: an error: $wheel is larger than 25 MB" >&2
    exit 1
  fi
fi
if ! "${alone[@]}" "$environment/bin/python" -m pip install --quiet --disable-pip-version-check \
  ${wheel:+--only-binary=:all:} "${wheel:-$source}" >pip.log 2>&1; then
  cat pip.log
  echo "package: an error, see above; without a network pip cannot fetch what the package needs" >&2
  exit 1
fi
"${alone[@]}" "$environment/bin/python" "$source/tests/package/installed.py"
