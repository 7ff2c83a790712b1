# Virtual environments beside .venv; to be sourced.

make_environment() {  # <folder> <interpreter> <requirements> <what it costs>: made anew when the requirements change
  sha256sum --check --status "$1/requirements.sum" 2>/dev/null && return
  echo "making $1: $4" >&2
  rm -rf "$1"
  "$2" -m venv "$1"
  "$1/bin/python" -m pip install --quiet --disable-pip-version-check -r "$3"
  sha256sum "$3" >"$1/requirements.sum"
}
