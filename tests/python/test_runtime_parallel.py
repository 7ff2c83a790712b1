"""One model over several processes: cuts of packed bytes, two and four processes, faults, two machines."""

import numpy as np
import parallel_processes
import pytest
import tiny_llama
import torch
from reference import formats as reference

from corvane_runtime import FORMATS, load_gguf, save
from corvane_runtime.parallel import Plan, cut_packed

SIZES = 16, 4, 1024  # heads, key and value heads, MLP: four processes get blocks of 256 columns
TESTED = ("q4_0", "q8_0", "q4_k", "fp6", "q2_k")


@pytest.fixture(scope="module")
def wide_path(tmp_path_factory):
    return tiny_llama.write_model(tmp_path_factory.mktemp("wide") / "wide.gguf", sizes=SIZES)


@pytest.fixture(scope="module")
def packed_folders(wide_path):
    folders = []
    for name in TESTED:
        save(load_gguf(wide_path, name), wide_path.parent / name)
        folders.append(wide_path.parent / name)
    return folders


@pytest.mark.parametrize("count", [2, 4])
def test_processes_give_what_one_gives(packed_folders, count):
    shares = parallel_processes.run(count, "saved", folders=packed_folders)
    for i, name in enumerate(TESTED):
        print(name, [s[i]["bytes"] for s in shares])
