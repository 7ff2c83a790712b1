#!/usr/bin/env bash
# Measures the kernels against a plain read (or fill) of the same bytes and against the dense product, in the same run.
# Usage: scripts/bench.sh [--json FILE] [--only SECTION ...]; sections: see bench/bench.py --help.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
scripts/build.sh release >/dev/null
PYTHONPATH=build/python:tests exec .venv/bin/python bench/bench.py "$@"
