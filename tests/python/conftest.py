"""What all Python tests share: reference package, runtime and examples on the path, the device class of this process, a model.

scripts/test.sh runs the suite once per class, with HOST_XPU_DEVICE_NAME set to a name that falls into it, and says with
--varies what a run is there for.
"""

import sys
from pathlib import Path

import pytest

# What is not asked again on another device class: these reach neither path selection nor a kernel that has a form for each
# class. A file that stands nowhere here is run everywhere.
FOR_ONE_CLASS = {
    "test_accelerator.py", "test_bmm.py", "test_device_operators.py", "test_moe.py", "test_row_operators.py", "test_rwkv.py",
    "test_serialization.py",
}  # fmt: skip
# What is not asked again of another build either, nor under the order check: Python's side, on operators that other files
# test one by one.
FOR_ONE_BUILD = {
    "test_examples.py", "test_reference.py", "test_runtime_command.py", "test_runtime_formats.py", "test_runtime_parallel.py",
    "test_runtime_text.py", "test_runtime_transformers.py", "test_transformers.py",
}  # fmt: skip
LEFT_OUT = {"framework": set(), "build": FOR_ONE_BUILD, "class": FOR_ONE_BUILD | FOR_ONE_CLASS}

ROOT = Path(__file__).parents[2]
sys.path[:0] = [str(ROOT / "tests"), str(ROOT / "examples"), str(ROOT / "python")]

import torch  # noqa: E402, F401  isort: skip  (before the extension modules, which link to it)

import corvane  # noqa: E402, F401
import host_xpu  # noqa: E402
import tiny_llama  # noqa: E402

from corvane_runtime import Llama, load_gguf  # noqa: E402
from corvane_runtime.llama import GgufWeights  # noqa: E402


def pytest_addoption(parser):
    parser.addoption(
        "--varies", choices=LEFT_OUT, default="framework",
        help="what this run differs in from one of all tests: those that this cannot change are left out",
    )  # fmt: skip


def pytest_collection_modifyitems(config, items):
    left_out = LEFT_OUT[config.getoption("varies")]
    config.hook.pytest_deselected(items=[item for item in items if item.path.name in left_out])
    items[:] = [item for item in items if item.path.name not in left_out]


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
