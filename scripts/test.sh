#!/usr/bin/env bash
# Sets up, builds and runs the tests: the C++ ones once, the Python ones once for each device class.
#
#   scripts/test.sh             everything, and once more on a build without AVX-512
#   scripts/test.sh --quick     the release build, the Python tests on two device classes
#   scripts/test.sh --sanitize  under the address and undefined-behaviour sanitizers, on two device classes
set -euo pipefail
cd "$(dirname "$0")/.."

mode=${1:-all}
case $mode in
  all | --quick | --sanitize) ;;
  *) echo "usage: scripts/test.sh [--quick | --sanitize]" >&2; exit 2 ;;
esac

# Each device class by a name that falls into it.
class_names=("Stratus Server GPU 9000" "Cirrus(TM) A770" "Stratus Edge GPU" "some other device" "Cirrus(TM) Graphics" "NBG 3")

scripts/setup.sh
failures=0
summary=()

# run <title> <command...>: keeps the last line of the output for the summary.
run() {
  local title=$1 log
  shift
  log=$(mktemp)
  echo "== $title"
  if ! "$@" 2>&1 | tee "$log"; then failures=$((failures + 1)); fi
  summary+=("$(printf '%-46s %s' "$title" "$(grep -E 'passed|failed|error|PASSED|FAILED' "$log" | tail -n 1)")")
  rm -f "$log"
}

test_build() {  # <preset> <build folder> <classes...>
  local preset=$1 folder=$2 class
  shift 2
  scripts/build.sh "$preset"
  run "$preset: C++" "$folder/corvane_tests" --gtest_brief=1
  for class in "$@"; do
    run "$preset: Python, class $class" env PYTHONPATH="$folder/python" HOST_XPU_DEVICE_NAME="${class_names[$class]}" \
      .venv/bin/python -m pytest -q -p no:cacheprovider tests/python
  done
}

case $mode in
  all)
    test_build release build 0 1 2 3 4 5
    test_build avx2 build/avx2 1
    ;;
  --quick) test_build release build 1 3 ;;
  --sanitize)
    export ASAN_OPTIONS=detect_leaks=0:allocator_may_return_null=1 UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1
    export PYTHONMALLOC=malloc LD_PRELOAD
    LD_PRELOAD=$(g++ -print-file-name=libasan.so):$(g++ -print-file-name=libubsan.so):$(g++ -print-file-name=libstdc++.so)
    preload=$LD_PRELOAD
    LD_PRELOAD='' scripts/build.sh sanitize
    LD_PRELOAD=$preload test_build sanitize build/sanitize 1 0
    ;;
esac

printf '\n'
printf '%s\n' "${summary[@]}"
if ((failures)); then
  echo "$failures of ${#summary[@]} runs failed"
  exit 1
fi
echo "all ${#summary[@]} runs passed"
