#!/usr/bin/env bash
# Fetches Debian's 64-bit ARM packages of oneTBB and GoogleTest into build/arm/sysroot, for cmake/aarch64.cmake. Nothing
# of them is installed: the package manager works on lists of its own. Quick when they are there.
set -euo pipefail
cd "$(dirname "$0")/.."

packages=(libtbb12 libtbbmalloc2 libtbbbind-2-5 libtbb-dev libgtest-dev)
sysroot=build/arm/sysroot
[[ -f $sysroot/complete ]] && exit

echo "arm: fetching ${packages[*]} for arm64"
rm -rf "$sysroot"
fetch=$PWD/$sysroot/fetch
mkdir -p "$fetch"/{lists,cache/archives}/partial
options=(-qq -o APT::Architecture=arm64 -o APT::Architectures=arm64 -o APT::Sandbox::User="$(id -un)"
  -o Dir::State::status=/dev/null -o Dir::State::lists="$fetch/lists" -o Dir::Cache="$fetch/cache")
(cd "$fetch" && apt-get "${options[@]}" update && apt-get "${options[@]}" download "${packages[@]}" >/dev/null)
for package in "$fetch"/*.deb; do dpkg-deb --extract "$package" "$sysroot"; done
rm -rf "$fetch"
touch "$sysroot/complete"
