"""What all Python tests share: reference package and examples on the path, the device class of this process, a model.

scripts/test.sh runs the suite once per class, with HOST_XPU_DEVICE_NAME set to a name that falls into it.
"""

import sys
from pathlib import Path

import pytest

sys.path[:0] = [str(Path(__file__).parents[1]), str(Path(__file__).parents[2] / "examples")]

import torch  # noqa: E402  (before the extension modules, which link to it)

import corvane  # noqa: E402, F401
import host_xpu  # noqa: E402
import tiny_llama  # noqa: E402
from llama.gguf_model import GgufModel  # noqa: E402
from llama.linear import load_dense  # noqa: E402
from llama.model import Llama  # noqa: E402

def class_of(name: str) -> int:
    """The device class that a name falls into, by the documented order of keys."""
    keys = [("Stratus Server GPU", 0), ("Cirrus(TM) A", 1), ("Cirrus(TM)", 4), ("NBG", 5), ("Stratus Edge GPU", 2)]
    return next((number for key, number in keys if key in name), 3)


@pytest.fixture(scope="session")
def device_class() -> int:
    return class_of(host_xpu.device_name())


@pytest.fixture(scope="session")
def model(tmp_path_factory) -> GgufModel:
    """A tiny Llama with random weights."""
    return GgufModel(tiny_llama.write_model(tmp_path_factory.mktemp("model") / "tiny.gguf"))


@pytest.fixture(scope="session")
def dense(model) -> Llama:
    return Llama(model, load_dense(model, torch.float32), torch.float32)
