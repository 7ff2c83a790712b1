#!/usr/bin/env bash
# Builds and tests on a fresh machine: a Debian under build/fresh/ that has nothing but its base system and what
# scripts/setup.sh installs there; then, without a network, as a user without rights whose home is read-only, from a clone
# of the last commit in a path with spaces: the build, the demo on a tiny model, and what scripts/test.sh is asked for.
#
#   scripts/fresh_machine.sh 12|13 [mode of scripts/test.sh]      as root; --quick by default
#
# The base system stays for the next run; rm -rf build/fresh makes everything anew. Packages come from where this machine
# has its own from.
set -euo pipefail
cd "$(dirname "$0")/.."

declare -A releases=([12]=bookworm [13]=trixie)
release=${releases[${1:-none}]:-}
[[ $release && $(id -u) == 0 ]] || { echo "usage, as root: scripts/fresh_machine.sh 12|13 [mode of scripts/test.sh]" >&2; exit 2; }
mode=${2:---quick}
machine=$PWD/build/fresh/$1
clone="/srv/a path with spaces/corvane"

if [[ ! -e $machine/made ]]; then
  command -v debootstrap >/dev/null || scripts/setup.sh debootstrap
  rm -rf "$machine"
  mkdir -p "$machine"
  debootstrap --variant=minbase "$release" "$machine" "$(apt-get indextargets --format '$(SITE)' | sort -u | head -n 1)"
  touch "$machine/made"
fi

# What follows sees mounts of its own, which go with it.
if [[ ${CORVANE_OWN_MOUNTS:-} != 1 ]]; then
  CORVANE_OWN_MOUNTS=1 exec unshare --mount scripts/fresh_machine.sh "$@"
fi
mount -t proc proc "$machine/proc"
mount --rbind /dev "$machine/dev"
mount --rbind -o ro /sys "$machine/sys"
mount -t tmpfs tmpfs "$machine/dev/shm"

in_machine() {  # <unshare's options> -- <command...>: with a clean environment
  local options=()
  while [[ $1 != -- ]]; do
    options+=("$1")
    shift
  done
  shift
  "${options[@]}" env -i PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin LANG=C.UTF-8 "$@"
}

rm -rf "$machine/srv" "$machine/home/tester"
git clone --quiet --no-local . "$machine$clone"
chroot "$machine" bash -c 'id tester >/dev/null 2>&1 || useradd --shell /bin/bash tester'
mkdir -p "$machine/home/tester"  # root's, so read-only to its user
chroot "$machine" chown -R tester: "$clone"

# The network as this machine has it: names, pip's settings, certificates. None of it stays.
touch "$machine"/etc/{resolv.conf,pip.conf} "$machine/run/certificates.crt"
for file in resolv.conf pip.conf; do [[ ! -e /etc/$file ]] || mount --bind "/etc/$file" "$machine/etc/$file"; done
certificates=()
if [[ -e ${SSL_CERT_FILE:-} ]]; then
  mount --bind "$SSL_CERT_FILE" "$machine/run/certificates.crt"
  certificates=(SSL_CERT_FILE=/run/certificates.crt PIP_CERT=/run/certificates.crt)
fi
in_machine chroot "$machine" -- HOME=/root "${certificates[@]}" "$clone/scripts/setup.sh"

# A loopback, for the tests of several processes, and nothing else.
cat >"$machine/srv/try.sh" <<'TRY'
set -euo pipefail
cd "$1"
scripts/build.sh | tail -n 1
PYTHONPATH=tests/python:python .venv/bin/python -c 'import sys, tiny_llama; tiny_llama.write_model(sys.argv[1])' build/tiny.gguf
scripts/demo.sh --gguf build/tiny.gguf --prompt "Why" --format q8_0
scripts/test.sh "$2"
TRY
in_machine unshare --net bash -c 'ip link set lo up && exec "$@"' - \
  chroot --userspec=tester: "$machine" -- HOME=/home/tester bash /srv/try.sh "$clone" "$mode"
