"""A portable build: which level it takes, what is loaded before it is chosen, and that every level works.

Run by scripts/test.sh --portable, on such a build. Other processors than this one are the emulator's (qemu-user).
"""

import os
import re
import subprocess
import sys
import sysconfig
from pathlib import Path

import host_xpu
import pytest
from host_xpu import _levels

PACKAGES = Path(host_xpu.__file__).parents[1]
LEVELS = ["x86-64-v2", "x86-64-v3", "x86-64-v4", "x86-64-v4-bf16"]
SUFFIX = sysconfig.get_config_var("EXT_SUFFIX")
CHOICE = PACKAGES / f"host_xpu/_levels{SUFFIX}"
LOADED_FIRST = [CHOICE, PACKAGES / f"host_xpu/_device{SUFFIX}", PACKAGES / f"corvane{SUFFIX}"]

MAPPED = """
def mapped():
    with open("/proc/self/maps") as maps:
        files = {line.split(maxsplit=5)[5].strip() for line in maps if line.count("/")}
    return sorted(file.split("/corvane_levels/")[1] for file in files if "/corvane_levels/" in file)
"""

# One row of ones against a q4_0 weight of 2 rows: 32 code bytes a row (values 2 and 1), then a scale of 0.5 for each.
PRODUCT = """
import corvane, host_xpu, torch
codes, scales = torch.tensor([0x9A] * 64, dtype=torch.uint8), torch.tensor([0.5] * 2, dtype=torch.half)
weight = torch.cat([codes, scales.view(torch.uint8)]).to("xpu")
for dtype in (torch.float, torch.half, torch.bfloat16, torch.double):
    assert corvane.forward_new(torch.ones(1, 64, dtype=dtype).to("xpu"), weight, 2, 1).cpu().tolist() == [[48, 48]]
"""


def run_python(code: str, emulator: tuple[str, ...] = (), **environment: str) -> subprocess.CompletedProcess:
    command = [*emulator, sys.executable, "-c", code]
    return subprocess.run(command, env={**os.environ, **environment}, capture_output=True, text=True)


def output_of(code: str, emulator: tuple[str, ...] = (), **environment: str) -> str:
    done = run_python(code, emulator, **environment)
    assert done.returncode == 0, done.stderr
    return done.stdout.strip()


# --- the choice -------------------------------------------------------------------------------------------------------


def levels_of_flags() -> list[str]:
    """The levels by the flags that the kernel shows: those that the processor has and the kernel has enabled."""
    flags = set(re.search(r"^flags\s*:(.*)$", Path("/proc/cpuinfo").read_text(), re.MULTILINE)[1].split())
    needs = [
        {"ssse3", "sse4_1", "sse4_2", "popcnt", "cx16"},
        {"avx", "avx2", "bmi1", "bmi2", "f16c", "fma", "movbe", "abm"},
        {"avx512f", "avx512bw", "avx512cd", "avx512dq", "avx512vl"},
        {"avx512_vnni", "avx512vbmi", "avx512_bf16"},
    ]
    return [level for n, level in enumerate(LEVELS) if set.union(*needs[: n + 1]) <= flags]


def test_the_best_level_is_taken():
    offered = levels_of_flags()
    assert list(_levels.offered) == offered
    code = "import host_xpu; facts = host_xpu.build_info(); print(facts['level'], facts['levels'], sep='; ')"
    assert output_of(code, CORVANE_ISA="") == f"{offered[-1]}; {' '.join(offered)}"


def test_the_levels_are_those_that_were_built():
    assert sorted(folder.name for folder in (PACKAGES / "corvane_levels").iterdir()) == LEVELS


@pytest.mark.parametrize("level", _levels.offered)
def test_a_level_works_and_nothing_of_another_is_loaded(level):
    files = eval(output_of(MAPPED + PRODUCT + "print(mapped())", CORVANE_ISA=level))
    names = f"_device{SUFFIX}", f"corvane{SUFFIX}", "libcorvane_platform.so"
    assert files == [f"{level}/{name}" for name in names]


def test_a_process_takes_one_level_for_all_modules():
    lowest = _levels.offered[0]
    code = "import os, host_xpu; os.environ['CORVANE_ISA'] = 'none'; import corvane; print(mapped())"
    files = eval(output_of(MAPPED + code, CORVANE_ISA=lowest))
    assert {file.split("/")[0] for file in files} == {lowest}


@pytest.mark.parametrize("first", ["corvane", "host_xpu"])
@pytest.mark.parametrize("wanted", ["native", "x86-64-V2", "x86-64-v2 "])
def test_an_unknown_level_is_refused_before_anything_of_one_is_loaded(first, wanted):
    code = f"""
try:
    import {first}
except ImportError as error:
    print(error, mapped())
"""
    message = output_of(MAPPED + code, CORVANE_ISA=wanted)
    assert message.startswith(f"CORVANE_ISA is '{wanted}'") and message.endswith(" []")
    assert all(f"'{level}'" in message for level in LEVELS)


# The choice alone, as the import of host_xpu makes it, without PyTorch.
CHOOSE = f"""
from importlib.util import module_from_spec, spec_from_file_location
try:
    print(module_from_spec(spec_from_file_location("host_xpu._levels", {str(CHOICE)!r})).taken)
except ImportError as error:
    print(error)
"""


@pytest.mark.parametrize(
    ("processor", "wanted", "said"),
    [
        ("Nehalem", "", "x86-64-v2"),
        ("Haswell", "", "x86-64-v3"),
        ("Haswell", "x86-64-v2", "x86-64-v2"),
        ("Haswell,-xsave", "", "x86-64-v2"),  # an operating system that does not keep AVX's registers
        ("Nehalem", "x86-64-v3", "of which this machine offers ('x86-64-v2',)"),
        ("qemu64", "", "older than all levels"),
        ("qemu64", "x86-64-v2", "of which this machine offers ()"),
    ],
)
def test_another_processor(processor, wanted, said):
    assert said in output_of(CHOOSE, ("qemu-x86_64", "-cpu", processor), CORVANE_ISA=wanted)


@pytest.mark.parametrize(("processor", "level"), [("Nehalem", "x86-64-v2"), ("Haswell", "x86-64-v3")])
def test_another_processor_computes(processor, level):
    code = PRODUCT + "print(host_xpu.build_info()['level'])"
    assert output_of(code, ("qemu-x86_64", "-cpu", processor), CORVANE_ISA="", OMP_NUM_THREADS="1") == level


# --- what is loaded before the choice ---------------------------------------------------------------------------------


def lines_of(*command: object) -> list[str]:
    return subprocess.check_output([str(word) for word in command], text=True).splitlines()


def newer_instructions(file: Path) -> set[str]:
    """The instructions in the file that the first x86-64 processors lack: AVX and later, BMI, SSE3 to SSE4.2."""
    lines = lines_of("objdump", "--disassemble", "--no-show-raw-insn", file)
    code = [line.split("\t")[1] for line in lines if "\t" in line]
    used = {re.sub(r"^((rep|repz|repnz|lock|notrack|bnd|data16) +)+", "", line).split()[0] for line in code}
    assert {"ret", "call"} <= used, "nothing was disassembled"
    newer = r"""v(?!err|erw).* | k(mov|or|and|x|not|test|shift|unpck|add).*
        | (pdep|pext|mulx|rorx|sarx|shlx|shrx|andn|bextr|bls|tzcnt|lzcnt|popcnt|movbe|crc32|adcx|adox|sha\d|aes|pclmul).*
        | (lddqu|movddup|movs[hl]dup|h(add|sub)p.|addsubp.|fisttp.*)
        | p(shufb|abs.|sign.|align.*|hadd.*|hsub.*|maddub.*|mulhrsw)
        | p(mov[sz]x.*|mulld|muldq|blend.*|insr[bdq]|extr[bdq]|test|cmpeqq|cmpgtq|cmp.str.|(min|max)(sb|sd|uw|ud))
        | (blend.*|round[ps].|dpp.|insertps|extractps|mpsadbw|packusdw|phminposuw|movntdqa|xsave.*)"""
    return {name for name in used if re.fullmatch(newer, name, re.VERBOSE)}


def test_the_search_for_instructions_finds_those_of_a_level():
    for level, one in [("x86-64-v2", "pmulld"), ("x86-64-v3", "vpermps"), ("x86-64-v4-bf16", "vdpbf16ps")]:
        assert one in newer_instructions(PACKAGES / f"corvane_levels/{level}/corvane{SUFFIX}")


@pytest.mark.parametrize("file", LOADED_FIRST, ids=lambda file: file.name.split(".")[0])
def test_what_is_loaded_first_runs_on_any_processor_and_shares_nothing(file):
    assert newer_instructions(file) == set()
    needed = {line.split("[")[1].rstrip("]") for line in lines_of("readelf", "--dynamic", file) if "(NEEDED)" in line}
    assert needed <= {"libstdc++.so.6", "libgcc_s.so.1", "libc.so.6"}
    # With no other symbol of its own there is none that the linker could merge with a level's.
    defined = [line.split()[-1] for line in lines_of("nm", "--dynamic", "--defined-only", file) if line]
    assert defined == [f"PyInit_{file.name.split('.')[0]}"]
