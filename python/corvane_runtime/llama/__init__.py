"""A Llama runtime on packed linear layers: the model, and reading it from a GGUF file or a folder of transformers."""

from .gguf_file import GgufWeights, load_gguf
from .folder import load_folder
from .model import Config, KvCache, Llama

__all__ = ["Config", "GgufWeights", "KvCache", "Llama", "load_folder", "load_gguf"]
