"""What all Python tests share: reference package, runtime and examples on the path, the device class of this process, a model.

scripts/test.sh runs the suite once per class, with HOST_XPU_DEVICE_NAME set to a name that falls into it.
"""

import sys
from pathlib import Path

import pytest

ROOT = Path(__file__).parents[2]
sys.path[:0] = [str(ROOT / "tests"), str(ROOT / "examples"), str(ROOT / "python")]

import torch  # noqa: E402, F401  isort: skip  (before the extension modules, which link to it)

import corvane  # noqa: E402, F401
import host_xpu  # noqa: E402
import tiny_llama  # noqa: E402

from corvane_runtime import Llama, load_gguf  # noqa: E402
from corvane_runtime.llama import GgufWeights  # noqa: E402


def class_of(name: str) -> int:
    """The device class that a name falls into, by the documented order of keys."""
    keys = [("Stratus Server GPU", 0), ("Cirrus(TM) A", 1), ("Cirrus(TM)", 4), ("NBG", 5), ("Stratus Edge GPU", 2)]
    return next((number for key, number in keys if key in name), 3)


@pytest.fixture(scope="session")
def device_class() -> int:
    return class_of(host_xpu.device_name())


@pytest.fixture(scope="session")
def model_path(tmp_path_factory) -> Path:
    """A tiny Llama with random weights, as a GGUF file."""
    return tiny_llama.write_model(tmp_path_factory.mktemp("model") / "tiny.gguf")


@pytest.fixture(scope="session")
def source(model_path) -> GgufWeights:
    return GgufWeights(model_path)


@pytest.fixture(scope="session")
def dense(model_path) -> Llama:
    return load_gguf(model_path)
