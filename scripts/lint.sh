#!/usr/bin/env bash
# Checks the text of the whole tree: clang-format, ruff, and clang-tidy (.clang-tidy) on every source that is built here,
# the fuzzer's too. clang-tidy looks only at what changed since it passed (scripts/tidy.py).
# Usage: scripts/lint.sh [source...]: those alone for clang-tidy.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh clang-format clang-tidy
failed=0
git ls-files -z '*.cpp' '*.hpp' | xargs -0 clang-format --dry-run --Werror || failed=1
.venv/bin/ruff check --quiet . || failed=1
.venv/bin/ruff format --check --quiet . || failed=1
cmake --preset fuzz-fast -B build/lint -DCORVANE_TESTS=ON >/dev/null
.venv/bin/python scripts/tidy.py build/lint "$@" || failed=1
((failed == 0)) && echo "lint: all passed"
