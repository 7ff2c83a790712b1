#!/usr/bin/env bash
# Measures the kernels against a plain read (or fill) of the same bytes and against the dense product, in the same run.
# Usage: scripts/bench.sh [--rounds N] [--json FILE] [--only SECTION ...] [--formats FORMAT ...]; --help lists them.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
scripts/build.sh release >/dev/null
PYTHONPATH=build/python:tests exec .venv/bin/python bench/bench.py "$@"
