"""Runs clang-tidy over the sources of a build folder. Usage: scripts/tidy.py <build folder> [source ...]

Two at a time. One that passed is not looked at again as long as its preprocessed text, its command, the configuration and
the tool stay the same: tidy/ in the build folder has a stamp for each.
"""

import hashlib
import json
import re
import shlex
import subprocess
import sys
import time
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

ROOT = Path(__file__).resolve().parents[1]
# Our headers alone: PyTorch has a folder csrc too, which the filter in .clang-tidy, made for editors, would let pass.
HEADERS = f"--header-filter=^{re.escape(str(ROOT))}/(bench|csrc|fuzz|platform|tests)/"


def commands(build: Path, only: list[str]) -> dict[Path, list[str]]:
    """How each source is compiled, without its output."""
    found = {}
    for entry in json.loads((build / "compile_commands.json").read_text()):
        arguments = shlex.split(entry["command"])
        after_ccache = Path(arguments[0]).name == "ccache"
        found[Path(entry["file"])] = arguments[after_ccache : arguments.index("-o")]
    wanted = [Path(path).absolute() for path in only] or sorted(found)
    return {source: found[source] for source in wanted if source in found}


def check(build: Path, tool: bytes, source: Path, command: list[str]) -> bool:
    done = subprocess.run([*command, "-E", "-C", source], capture_output=True, check=False)
    text = done.stdout
    known = hashlib.sha256(b"".join((tool, repr(command).encode(), text))).hexdigest()
    stamp = build / "tidy" / known
    name = source.relative_to(ROOT)
    if stamp.exists():
        return True
    started = time.monotonic()
    # What clang needs beside GCC's command, see CMakeLists.txt; it does not know all of GCC's names of warnings.
    extra = ["--extra-arg=-Wno-unknown-warning-option"]
    if re.search(rb'/ATen/core/ivalue\.h"', text):
        extra += ["--extra-arg=-include", "--extra-arg=ATen/core/ivalue.h"]
    tidy = subprocess.run(
        ["clang-tidy", "-p", build, "--quiet", HEADERS, *extra, source], capture_output=True, text=True, check=False
    )
    print(f"{'failed' if tidy.returncode else 'passed'} {name} ({time.monotonic() - started:.0f} s)", flush=True)
    if tidy.returncode or done.returncode:
        print(tidy.stdout + tidy.stderr + done.stderr.decode(), flush=True)
        return False
    stamp.touch()
    return True


def main() -> int:
    build = Path(sys.argv[1]).absolute()
    (build / "tidy").mkdir(exist_ok=True)
    tool = subprocess.run(["clang-tidy", "--version"], capture_output=True, check=True).stdout
    tool += (ROOT / ".clang-tidy").read_bytes() + Path(__file__).read_bytes()
    sources = commands(build, sys.argv[2:])
    with ThreadPoolExecutor(2) as pool:
        passed = list(pool.map(lambda item: check(build, tool, *item), sources.items()))
    print(f"clang-tidy: {sum(passed)} of {len(passed)} sources passed")
    return 0 if all(passed) else 1


if __name__ == "__main__":
    sys.exit(main())
