#!/usr/bin/env bash
# Measures the kernels against a plain read (or fill) of the same bytes and against the dense product, in the same run.
# Usage: scripts/bench.sh [--rounds N] [--json FILE] [--only SECTION ...] [--formats FORMAT ...]; --help lists them.
#        scripts/bench.sh --peers [--rounds N] [--json FILE]: against PyTorch's int4 product and llama-cpp-python, which get
#        environments of their own under build/, made once: some 5 GB, and some ten minutes of building.
#        scripts/bench.sh --levels [--rounds N] [--lines LINE ...]: the levels of a portable build against the native one.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
scripts/build.sh release >/dev/null
if [[ ${1:-} == --peers ]]; then
  . scripts/make_environment.sh
  make_environment build/torch-venv /usr/bin/python3 requirements-torch.txt "some 5 GB"
  make_environment build/peer-venv /usr/bin/python3 requirements-peer.txt "some ten minutes"
  scripts/build.sh torch >/dev/null
  exec .venv/bin/python bench/peers.py "$(scripts/demo_model.sh)" "${@:2}"
fi
if [[ ${1:-} == --levels ]]; then
  scripts/build.sh portable corvane host_xpu >/dev/null
  exec .venv/bin/python bench/levels.py "${@:2}"
fi
PYTHONPATH=build/python:tests exec .venv/bin/python bench/bench.py "$@"
