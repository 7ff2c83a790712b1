#!/usr/bin/env bash
# Builds the modules and the C++ tests, or the targets named. Usage: scripts/build.sh [preset [target...]], release by
# default; see CMakePresets.json.
# Afterwards: PYTHONPATH=build/python /usr/bin/python3 -c "import torch, corvane"
set -euo pipefail
cd "$(dirname "$0")/.."

preset=${1:-release}
cmake --preset "$preset" >/dev/null || { echo "build: configuring failed; run scripts/setup.sh if something is missing" >&2; exit 1; }
cmake --build --preset "$preset" ${2:+--target "${@:2}"}
