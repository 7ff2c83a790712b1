"""transformers: models loaded packed, saved and loaded again, through its own from_pretrained and save_pretrained.

    model = AutoModelForCausalLM.from_pretrained(folder, quantization_config=CorvaneConfig("q4_0"), device_map="xpu")

Importable without transformers, where CorvaneConfig can be made and written, and does nothing else.
"""

from __future__ import annotations

import importlib.util
import json
import logging
from collections.abc import Mapping
from pathlib import Path

import torch
from torch import nn

from .calibrate import load_importance
from .formats import pack
from .linear import PackedLinear
from .quantize import Formats, check_formats, fitting_format, wanted_format
from .transformers_fused import fuse_
from .weights import ModelError

LOG = logging.getLogger("corvane_runtime")
METHOD = "corvane"

try:
    if importlib.util.find_spec("transformers") is None:
        raise ImportError("transformers is not installed")
    from transformers.core_model_loading import ConversionOps
    from transformers.quantizers.auto import register_quantization_config, register_quantizer
    from transformers.quantizers.base import HfQuantizer
    from transformers.utils.quantization_config import QuantizationConfigMixin
except Exception as error:  # a release that this one does not know, or that does not know the framework
    LOG.debug("without transformers: %s", error)
    ConversionOps = HfQuantizer = QuantizationConfigMixin = object
    HAS_TRANSFORMERS = False

    def register_quantizer(method: str):  # noqa: ANN201
        return lambda kind: kind

    register_quantization_config = register_quantizer
else:
    HAS_TRANSFORMERS = True


@register_quantization_config(METHOD)
class CorvaneConfig(QuantizationConfigMixin):
    """How transformers is to pack a model.

    `format`: a name, or a mapping from name patterns to formats, as quantize_ takes it. `modules_to_not_convert`: parts
    of names of layers that stay dense. `importance`: a file that save_importance wrote. `formats`: what each layer got,
    filled in when a model is packed, and kept in config.json. `fused`: use the fused operators, as fuse_ says.
    ValueError: an unknown format.
    """

    def __init__(
        self,
        format: Formats = "q4_0",
        modules_to_not_convert: list[str] | None = None,
        importance: str | None = None,
        formats: Mapping[str, str] | None = None,
        fused: bool = True,
        **_: object,
    ) -> None:
        check_formats(format)
        check_formats(formats or {})
        self.quant_method = METHOD
        self.format = format if isinstance(format, str) else dict(format)
        self.modules_to_not_convert = modules_to_not_convert
        self.importance = importance
        self.formats = dict(formats or {})
        self.fused = fused


class PackWeight(ConversionOps):
    """Packs a dense weight when its turn comes to be loaded."""

    def __init__(self, quantizer: CorvaneQuantizer) -> None:
        self.quantizer = quantizer

    def convert(
        self, input_dict: dict[str, list[torch.Tensor]], full_layer_name: str | None = None, **_: object
    ) -> dict[str, torch.Tensor]:
        values = next(iter(input_dict.values()))
        weight = values[0] if isinstance(values, list) else values
        name = full_layer_name.rpartition(".")[0]
        importance = self.quantizer.importance.get(name)
        return {full_layer_name: pack(weight, self.quantizer.formats[name], importance).to(weight.device)}


@register_quantizer(METHOD)
class CorvaneQuantizer(HfQuantizer):
    """What transformers asks while it loads a model: which layers are packed, and how."""

    requires_calibration = False

    def __init__(self, quantization_config: CorvaneConfig, **kwargs: object) -> None:
        super().__init__(quantization_config, **kwargs)
        self.formats: dict[str, str] = {}  # of the layers that are packed while loading
        self.importance: Mapping[str, object] = {}

    def validate_environment(self, *args: object, **kwargs: object) -> None:
        del args, kwargs
        path = self.quantization_config.importance
        if path is not None and not self.pre_quantized:
            found = load_importance(path)
            if found is None:
                raise ValueError(f"{path}: holds no importance of inputs")
            self.importance = found

    def chosen_format(self, name: str, module: nn.Module) -> str | None:
        """The format of a layer, None for what stays dense."""
        config = self.quantization_config
        if self.pre_quantized:
            return config.formats.get(name)
        if type(module) is not nn.Linear or any(part in name for part in config.modules_to_not_convert or ()):
            return None
        wanted = wanted_format(config.format, name)
        return None if wanted is None else fitting_format(wanted, module.out_features, module.in_features)

    def _process_model_before_weight_loading(self, model: nn.Module, **kwargs: object) -> nn.Module:
        del kwargs
        tied = {name.removesuffix(".weight") for name in getattr(model, "all_tied_weights_keys", None) or {}}
        for path, parent in list(model.named_modules()):
            for child, module in list(parent.named_children()):
                name = f"{path}.{child}" if path else child
                format = self.chosen_format(name, module)
                if format is None or name in tied:
                    continue
                sizes = module.in_features, module.out_features
                layer = PackedLinear(*sizes, format, module.bias is not None, "meta", module.weight.dtype)
                layer.dense_bytes = module.weight.numel() * module.weight.element_size()
                setattr(parent, child, layer)
                self.formats[name] = format
        if not self.formats:
            raise ValueError(f"no layer of the model can be packed in {self.quantization_config.format}")
        return model

    def param_needs_quantization(self, model: nn.Module, param_name: str, **kwargs: object) -> bool:
        del model, kwargs
        name, _, own = param_name.rpartition(".")
        return own == "weight" and name in self.formats

    def get_quantize_ops(self) -> PackWeight:
        return PackWeight(self)

    def _process_model_after_weight_loading(self, model: nn.Module, **kwargs: object) -> nn.Module:
        del kwargs
        if not self.pre_quantized:
            self.pack_tied_head(model)
            self.quantization_config.formats = dict(self.formats)
        return fuse_(model) if self.quantization_config.fused else model

    def pack_tied_head(self, model: nn.Module) -> None:
        """An output head that shares the embedding's weight gets packed bytes of its own; the embedding stays dense."""
        tied = getattr(model, "all_tied_weights_keys", None) or {}
        for key in list(tied):
            name = key.removesuffix(".weight")
            module = model.get_submodule(name)
            format = self.chosen_format(name, module)
            if format is None:
                continue
            parent, _, child = name.rpartition(".")
            layer = PackedLinear.from_linear(module, format, self.importance.get(name))
            setattr(model.get_submodule(parent), child, layer)
            LOG.info("%s: packed apart from %s, with which it shared its weight", name, tied[key])
            self.formats[name] = format
            del tied[key]
            model.config.tie_word_embeddings = False

    def is_serializable(self, *args: object, **kwargs: object) -> bool:
        del args, kwargs
        return True

    @property
    def is_trainable(self) -> bool:
        return False

    @property
    def is_compileable(self) -> bool:
        return False  # by generate(), which takes the compiler's default backend, and that one does not know the device


def empty_model(folder: Path, class_name: str) -> nn.Module:
    """A model of transformers, of the class and the config.json of a folder, on the meta device."""
    if not HAS_TRANSFORMERS:
        raise ModelError(f"{folder}: holds a model of transformers, which is not installed")
    import transformers

    kind = getattr(transformers, class_name, None)
    if not (isinstance(kind, type) and issubclass(kind, transformers.PreTrainedModel)):
        raise ModelError(f"{folder}: {class_name} is no model of the installed transformers")
    about = json.loads((folder / "config.json").read_text())
    about.pop("quantization_config", None)
    with torch.device("meta"):
        model = kind(kind.config_class.from_dict(about))
    for module in model.modules():
        # What no file holds, such as rotary frequencies, the model computes when it is asked to initialise.
        lost = [name for name in module._non_persistent_buffers_set if module._buffers[name] is not None]
        for name in lost:
            module._buffers[name] = torch.empty_like(module._buffers[name], device="cpu")
        if lost:
            model._init_weights(module)
    return model
