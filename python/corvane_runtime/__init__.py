"""corvane_runtime: packs a model's linear layers into low-bit formats and runs them on XPU.

model = quantize_(model, "q4_0").to("xpu")       # any nn.Module
model = load_gguf("model.gguf", "q4_0")          # a Llama of this package
save(model, "folder"); model = load("folder")
"""

from .calibrate import load_importance, measure_importance, observed_inputs, save_importance
from .formats import FORMATS, Format, pack, unpack
from .generate import generate, perplexity
from .linear import PackedLinear
from .llama import Llama, load_folder, load_gguf
from .quantize import quantize_, summary
from .storage import load, save
from .transformers_fused import fuse_
from .transformers_models import CorvaneConfig
from .weights import ModelError, SafetensorsWeights

__all__ = [
    "CorvaneConfig", "FORMATS", "Format", "Llama", "ModelError", "PackedLinear", "SafetensorsWeights",
    "fuse_", "generate", "load", "load_folder", "load_gguf", "load_importance", "measure_importance", "observed_inputs",
    "pack", "perplexity", "quantize_", "save", "save_importance", "summary", "unpack",
]  # fmt: skip
