#!/usr/bin/env bash
# Builds the modules and the C++ tests. Usage: scripts/build.sh [preset], release by default; see CMakePresets.json.
# Afterwards: PYTHONPATH=build/python /usr/bin/python3 -c "import torch, corvane"
set -euo pipefail
cd "$(dirname "$0")/.."

preset=${1:-release}
cmake --preset "$preset" >/dev/null || { echo "build: configuring failed; run scripts/setup.sh if something is missing" >&2; exit 1; }
cmake --build --preset "$preset"
