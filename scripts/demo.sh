#!/usr/bin/env bash
# Sets up, builds, fetches a small model, and streams text generated with packed low-bit weights.
# Usage: scripts/demo.sh [--gguf FILE] [--perplexity | --compare] [options of corvane generate or corvane perplexity],
# such as --prompt TEXT, --format NAME and --dense; --help lists them. --compare measures all formats, and plots them.
set -euo pipefail
cd "$(dirname "$0")/.."

own_model=0 model=''
command=(generate --figures)
options=()
while (($#)); do
  case $1 in
    --gguf) own_model=1 model=${2:?--gguf needs a file}; shift ;;
    --gguf=*) own_model=1 model=${1#*=} ;;
    --perplexity) command=(perplexity) ;;
    --compare) command=(perplexity --compare --plot docs/formats.png) ;;
    --help | -h) own_model=1; options+=("$1") ;;
    *) options+=("$1") ;;
  esac
  shift
done

scripts/setup.sh >&2
python=.venv/bin/python
scripts/build.sh >&2

((own_model)) || model=$(scripts/demo_model.sh)

export PYTHONPATH=build/python:python
exec $python -m corvane_runtime "${command[@]}" "${options[@]}" -- "$model"
