#!/usr/bin/env bash
# Builds the modules and the C++ tests, or the targets named. Usage: scripts/build.sh [preset [target...]], release by
# default; see CMakePresets.json.
# Afterwards: PYTHONPATH=build/python /usr/bin/python3 -c "import torch, corvane"
#
# scripts/build.sh wheel [python]: a wheel for any x86-64 processor and the PyTorch of that interpreter, by default
# Debian's, in dist/torch-<version>/.
set -euo pipefail
cd "$(dirname "$0")/.."

if [[ ${1:-} == wheel ]]; then exec scripts/build_wheel.sh "${@:2}"; fi

preset=${1:-release}
if [[ $preset == arm ]]; then scripts/arm_sysroot.sh; fi
cmake --preset "$preset" >/dev/null || { echo "build: configuring failed; run scripts/setup.sh if something is missing" >&2; exit 1; }
cmake --build --preset "$preset" ${2:+--target "${@:2}"}
