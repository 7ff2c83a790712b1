#!/usr/bin/env bash
# Installs what corvane builds, tests and runs with: Debian packages, those named as arguments too, and a virtual
# environment with the Python packages of requirements-dev.txt. Quick when nothing is missing.
set -euo pipefail
cd "$(dirname "$0")/.."

packages=(g++ cmake ninja-build ccache python3-dev python3-venv python3-torch libtorch-dev python3-numpy pybind11-dev
  python3-setuptools libtbb-dev libdnnl-dev libgtest-dev libopenblas0-pthread iproute2 "$@")

missing=()
for package in "${packages[@]}"; do
  [[ $(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null) == installed ]] || missing+=("$package")
done
if ((${#missing[@]})); then
  echo "setup: installing ${missing[*]}"
  as_root=()
  if [[ $(id -u) != 0 ]]; then
    command -v sudo >/dev/null || { echo "setup: as root, run: apt-get install ${missing[*]}" >&2; exit 1; }
    as_root=(sudo)
  fi
  if ! { "${as_root[@]}" apt-get update -qq &&
    DEBIAN_FRONTEND=noninteractive "${as_root[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null; }; then
    echo "setup: these Debian packages could not be installed: ${missing[*]}" >&2
    echo "setup: check the network and the package sources, then run this again" >&2
    exit 1
  fi
fi

requirements=(requirements-dev.txt examples/requirements.txt)
stamp=.venv/requirements.sum
if ! sha256sum --check --status "$stamp" 2>/dev/null; then
  echo "setup: making .venv"
  /usr/bin/python3 -m venv --system-site-packages .venv
  # PyTorch is built against Debian's numpy: no package may bring another.
  /usr/bin/python3 -c 'import numpy; print(f"numpy=={numpy.__version__}")' >.venv/constraints.txt
  if ! .venv/bin/python -m pip install --quiet --disable-pip-version-check -c .venv/constraints.txt \
    -r "${requirements[0]}"; then
    echo "setup: the Python packages of ${requirements[0]} could not be installed: check the network, then run this again" >&2
    exit 1
  fi
  sha256sum "${requirements[@]}" >"$stamp"
fi
