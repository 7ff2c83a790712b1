#!/usr/bin/env bash
# Sets up, builds and runs the tests: the C++ ones once, the Python ones once for each device class.
#
#   scripts/test.sh             everything: also under the order check (platform/sycl/check_order.hpp), on a build without
#                               AVX-512, and installed as a package
#   scripts/test.sh --quick     the release build, the Python tests on two device classes
#   scripts/test.sh --lint      the text: clang-format, clang-tidy and ruff (scripts/lint.sh)
#   scripts/test.sh --sanitize  under the address and undefined-behaviour sanitizers, on two device classes
#   scripts/test.sh --torch     on PyTorch as PyPI has it, in an environment of its own under build/: the C++ tests, the
#                               Python ones on two device classes, and installed as a package
#   scripts/test.sh --pythons   installed as a package from PyPI's PyTorch up, under each Python from 3.10 that the machine
#                               has (some 5 GB each)
#   scripts/test.sh --portable  a build for any x86-64 processor: the choice of a level, the C++ tests and the Python
#                               ones (class 1) on each level of this machine, and as a wheel where no compiler is
#   scripts/test.sh --arm       a build for 64-bit ARM: the C++ tests, under an emulator
#   scripts/test.sh --thread    the tests of pool, queue and groups under the thread sanitizer
#   scripts/test.sh --fuzz      the fuzzer for a minute, that of the loaders for 200 inputs (scripts/fuzz.sh)
#   scripts/test.sh --soak      four threads under shortages, forks and moves for ten minutes, or the seconds that follow
#   scripts/test.sh --ci        all of this but --pythons, --portable and --arm, the soak for a minute
set -euo pipefail
cd "$(dirname "$0")/.."

mode=${1:-all}
case $mode in
  all | --quick | --lint | --sanitize | --torch | --pythons | --portable | --arm | --thread | --fuzz | --soak | --ci) ;;
  *)
    echo "usage: scripts/test.sh [--quick | --lint | --sanitize | --torch | --pythons | --portable | --arm | --thread |" \
      "--fuzz | --soak [seconds] | --ci]" >&2
    exit 2
    ;;
esac

. scripts/device_names.sh
. scripts/make_environment.sh

scripts/setup.sh
failures=0
summary=()

# run <title> <command...>: a row of the summary: the title, the seconds, and the last line of the output that counts.
run() {
  local title=$1 log started=$SECONDS
  shift
  log=$(mktemp)
  echo "== $title"
  if ! "$@" 2>&1 | tee "$log"; then failures=$((failures + 1)); fi
  row "$title" $((SECONDS - started)) "$(grep -E 'passed|failed|error|PASSED|FAILED' "$log" | tail -n 1)"
  rm -f "$log"
}

# build <preset> [target...]: a row too; nothing can follow a build that fails.
build() {
  local started=$SECONDS
  scripts/build.sh "$@"
  row "$1: build" $((SECONDS - started)) built
}

row() { summary+=("$(printf '%-46s %5d s  %s' "$1" "$2" "$3")"); }

python=.venv/bin/python
python_environment=()  # what the Python runs get beside the device's name

test_build() {  # <preset> <build folder> <classes...>
  local preset=$1 folder=$2 varies=$varies class
  shift 2
  build "$preset"
  run "$preset: C++" "$folder/corvane_tests" --gtest_brief=1
  for class in "$@"; do
    test_python "$preset: Python, class $class" "$folder" "$class" "$varies"
    varies=class
  done
}

# What the next run of test_build differs in from one that had all Python tests (tests/python/conftest.py). Its classes
# after the first differ in the class.
varies=framework

test_python() {  # <title> <build folder> <class> <what differs>
  run "$1" env PYTHONPATH="$2/python" HOST_XPU_DEVICE_NAME="${device_names[$3]}" "${python_environment[@]}" \
    "$python" -m pytest -q -p no:cacheprovider --varies="$4" tests/python
}

test_lint() { run "lint" scripts/lint.sh; }

test_all() {
  test_build release build 1 0 2 3 4 5
  local seed=1
  python_environment=(HOST_XPU_CHECK_ORDER="$seed")
  run "order check $seed: C++" env HOST_XPU_CHECK_ORDER="$seed" build/corvane_tests --gtest_brief=1
  test_python "order check $seed: Python, class 1" build 1 build
  python_environment=()
  varies=build test_build avx2 build/avx2 1
  run "package: wheel in a fresh environment" scripts/test_package.sh
}

test_sanitize() {
  # The modules are loaded by an interpreter that knows nothing of the sanitizers: their runtimes have to be there
  # first, and the C++ library with them, whose throw they replace. Leaks are the interpreter's and PyTorch's.
  local -x ASAN_OPTIONS=detect_leaks=0:allocator_may_return_null=1:detect_stack_use_after_return=0
  local -x UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1
  local preload='' library
  for library in libasan.so libubsan.so libstdc++.so; do preload+=$(realpath "$(g++ -print-file-name=$library)"):; done
  python_environment=(LD_PRELOAD="${preload%:}" PYTHONMALLOC=malloc)
  varies=build test_build sanitize build/sanitize 1 0
  python_environment=()
}

test_torch() {
  local environment=build/torch-venv
  make_environment "$environment" /usr/bin/python3 requirements-torch.txt "some 5 GB"
  python=$environment/bin/python
  test_build torch build/torch 1 3
  run "torch: wheel in a fresh environment" scripts/test_package.sh "$environment"
  python=.venv/bin/python
}

test_pythons() {
  local version interpreter environment
  for version in 3.10 3.11 3.12 3.13; do
    for interpreter in "${PYENV_ROOT:-$HOME/.pyenv}"/versions/"$version".*/bin/python "python$version" ''; do
      "$interpreter" -c '' 2>/dev/null && break
    done
    [[ -n $interpreter ]] || continue
    environment=build/python$version-venv
    make_environment "$environment" "$interpreter" requirements-torch.txt "some 5 GB"
    run "Python $version: wheel in a fresh environment" scripts/test_package.sh "$environment"
  done
}

test_portable() {
  scripts/setup.sh binutils qemu-user
  build portable
  local folder=build/portable levels level
  run "portable: choice of a level" env PYTHONPATH="$folder/python" \
    "$python" -m pytest -q -p no:cacheprovider tests/portable
  levels=$(PYTHONPATH="$folder/python" "$python" -c 'from host_xpu import _levels; print(*_levels.offered)')
  for level in $levels; do
    run "$level: C++" "$folder/corvane_tests_$level" --gtest_brief=1
    python_environment=(CORVANE_ISA="$level")
    test_python "$level: Python, class 1" "$folder" 1 build
    python_environment=()
  done
  run "portable: wheel without a compiler" test_wheel
}

test_wheel() {
  local version
  version=$("$python" -c 'import torch; print(torch.__version__.split("+")[0])')
  scripts/build_wheel.sh "$python" && scripts/test_package.sh --wheel dist/torch-"$version"/*.whl
}

test_arm() {
  scripts/setup.sh g++-aarch64-linux-gnu qemu-user
  build arm
  # But for the test that starts its own program anew, which the emulator cannot.
  run "arm: C++" qemu-aarch64 -L /usr/aarch64-linux-gnu build/arm/corvane_tests --gtest_brief=1 \
    --gtest_filter=-order_check_variable.*
}

test_thread() {
  build thread platform_tests
  local -x TSAN_OPTIONS=halt_on_error=1:suppressions=$PWD/scripts/thread_sanitizer.supp
  run "thread: C++ of pool, queue and groups" build/thread/platform_tests --gtest_brief=1
}

test_fuzz() {
  run "fuzz: a minute" env FUZZ_SEED=1 scripts/fuzz.sh 60
  run "fuzz: loaders" env FUZZ_SEED=1 scripts/fuzz.sh --loaders 200
}

test_soak() {  # <seconds>
  build release
  run "soak: $1 seconds" env PYTHONPATH=build/python:tests HOST_XPU_DEVICE_NAME="${device_names[1]}" "$python" \
    tests/soak/soak.py "$1"
}

case $mode in
  all) test_all ;;
  --quick) test_build release build 1 3 ;;
  --lint) test_lint ;;
  --sanitize) test_sanitize ;;
  --torch) test_torch ;;
  --pythons) test_pythons ;;
  --portable) test_portable ;;
  --arm) test_arm ;;
  --thread) test_thread ;;
  --fuzz) test_fuzz ;;
  --soak) test_soak "${2:-600}" ;;
  --ci)
    test_lint
    test_all
    test_torch
    test_sanitize
    test_thread
    test_fuzz
    test_soak 60
    ;;
esac

printf '\n'
row total "$SECONDS" "$((${#summary[@]} - failures)) of ${#summary[@]} passed"
printf '%s\n' "${summary[@]}"
((failures == 0))
