#!/usr/bin/env bash
# Sets up, builds and runs the fuzzer of fuzz/ for some seconds, from its seeds and what earlier runs found
# (build/fuzz/corpus). Fails on a finding, and says how to run it again.
#
#   scripts/fuzz.sh [seconds]            60 by default
#   scripts/fuzz.sh --fast [inputs]      a million by default, of the release build's code, without sanitizers
#   scripts/fuzz.sh --loaders [inputs]   files of models with something changed, 1000 by default, on the release build
#
# FUZZ_SEED=<number> makes the inputs the same in each run, as far as the time takes them.
set -euo pipefail
cd "$(dirname "$0")/.."

if [[ ${1:-} == --fast ]]; then
  inputs=${2:-1000000}
  [[ $inputs =~ ^[1-9][0-9]*$ ]] || { echo "usage: scripts/fuzz.sh --fast [inputs]" >&2; exit 2; }
  scripts/setup.sh
  scripts/build.sh fuzz-fast fuzz_surface
  . scripts/device_names.sh
  build=build/fuzz-fast classes=${#device_names[@]} failed=0 known=(fuzz/corpus/surface)
  if [[ -d build/fuzz/corpus/surface ]]; then known+=(build/fuzz/corpus/surface); fi
  part=$(((inputs + classes - 1) / classes))
  for class in "${!device_names[@]}"; do
    printf 'fuzz: %-24s ' "${device_names[class]}"
    HOST_XPU_DEVICE_NAME=${device_names[class]} OMP_NUM_THREADS=1 "$build/fuzz_surface" "${FUZZ_SEED:-0}" \
      $((class * part)) "$part" "$build/finding_$class" "${known[@]}" || failed=1
  done
  exit "$failed"
fi

if [[ ${1:-} == --loaders ]]; then
  inputs=${2:-1000}
  [[ $inputs =~ ^[1-9][0-9]*$ ]] || { echo "usage: scripts/fuzz.sh --loaders [inputs]" >&2; exit 2; }
  scripts/setup.sh
  scripts/build.sh
  . scripts/device_names.sh
  exec env PYTHONPATH=build/python:python:tests/python HOST_XPU_DEVICE_NAME="${device_names[1]}" .venv/bin/python \
    fuzz/loaders.py "$inputs" --seed "${FUZZ_SEED:-0}"
fi

seconds=${1:-60}
[[ $seconds =~ ^[1-9][0-9]*$ ]] || { echo "usage: scripts/fuzz.sh [seconds]" >&2; exit 2; }

scripts/setup.sh clang libclang-rt-dev
scripts/build.sh fuzz fuzz_surface

. scripts/device_names.sh

build=build/fuzz findings=build/fuzz/findings corpus=build/fuzz/corpus/surface
mkdir -p "$findings" "$corpus"
failed=0

# fuzz <seconds> <device name>
fuzz() {
  local log status=0
  log=$(mktemp)
  # One thread: the pool belongs to the platform's own tests, and a run can be repeated. Inputs are small, contents
  # follow from seeds in them. malloc_limit: an allocation that is too large is refused before, by the sanitizer.
  HOST_XPU_DEVICE_NAME=$2 OMP_NUM_THREADS=1 "$build/fuzz_surface" "$corpus" fuzz/corpus/surface \
    -max_total_time="$1" -max_len=160 -timeout=30 -rss_limit_mb=4096 -malloc_limit_mb=2048 \
    -seed="${FUZZ_SEED:-0}" -artifact_prefix="$findings/" >"$log" 2>&1 || status=$?
  if ((status == 0)); then
    printf 'fuzz: %-24s %s\n' "$2" "$(grep '^Done' "$log")"
  else
    failed=1
    grep -vE '^#[0-9]+|NEW_FUNC|^INFO' "$log" || true
    echo "fuzz: failed with status $status on \"$2\"" >&2
    local file
    file=$(sed -n 's/.*Test unit written to //p' "$log")
    if [[ -n $file ]]; then
      echo "fuzz: again: HOST_XPU_DEVICE_NAME=\"$2\" OMP_NUM_THREADS=1 $build/fuzz_surface $file" >&2
    fi
  fi
  rm -f "$log"
}

# A process has one device class: the fuzzer runs once for each.
classes=${#device_names[@]}
for name in "${device_names[@]}"; do fuzz $(((seconds + classes - 1) / classes)) "$name"; done

((failed == 0)) || { echo "fuzz: failed; what becomes of a finding: fuzz/README.md" >&2; exit 1; }
echo "fuzz: all passed"
