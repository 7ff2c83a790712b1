"""PackedLinear: a linear layer that keeps its weight in packed bytes and reads it in place."""

from __future__ import annotations

import numpy as np
import torch
from torch import nn
from torch.nn.functional import linear

from .device import corvane
from .formats import Progress, as_floats, format_of

# Several rows of these go through an expansion to float or Half, that of the last two in units of 512 elements.
FLOAT_OR_HALF_ROWS = ("fp8_e4m3", "fp6", "fp6_k")
EVEN_UNITS = ("fp6", "fp6_k")
# Several rows of these may go to the systolic kernel, which knows no double.
SYSTOLIC = ("q4_0", "q8_0", "fp8_e5m2")
# The systolic kernel reads fp8_e4m3 half a step below what all other kernels read, and takes up to so many rows of it.
SYSTOLIC_ROWS = 64
FEW_ROWS = 16  # so many are quicker one by one than behind an expansion
ERROR_ROWS = 256  # of a weight are read back to measure its error

is_compiling = torch.compiler.is_compiling if hasattr(torch, "compiler") else lambda: False


class PackedLinear(nn.Module):
    """y = x W^T + b, with W kept as packed bytes. For inference: no gradient reaches input, weight or bias.

    Attributes: `weight`, a buffer of packed bytes, uint8 (bytes,); `bias`, None or floating (out_features,); `format`,
    its name; `qtype`, its number; `in_features`; `out_features`; `dense_bytes`, what the weight took before; `error`,
    the root-mean-square error of the weight relative to its values, None if it was not measured.
    """

    weight: torch.Tensor

    def __init__(
        self,
        in_features: int,
        out_features: int,
        format: str,
        bias: bool = False,
        device: torch.device | str | None = None,
        dtype: torch.dtype | None = None,
    ) -> None:
        """A layer with zeroed bytes, to be filled by load_state_dict; `dtype` is the bias's.

        ValueError: an unknown format, or in_features that are no whole number of its blocks.
        """
        super().__init__()
        kind = format_of(format)
        kind.check_shape(out_features, in_features)
        self.in_features, self.out_features = in_features, out_features
        self.format, self.qtype = format, kind.qtype
        self.dense_bytes = 4 * in_features * out_features
        self.error: float | None = None
        size = kind.packed_bytes(out_features, in_features)
        self.register_buffer("weight", torch.zeros(size, dtype=torch.uint8, device=device))
        if bias:
            self.bias = nn.Parameter(torch.zeros(out_features, device=device, dtype=dtype), requires_grad=False)
        else:
            self.register_parameter("bias", None)

    @classmethod
    def from_packed(
        cls, packed: torch.Tensor, format: str, out_features: int, in_features: int, bias: torch.Tensor | None = None
    ) -> PackedLinear:
        """A layer on packed bytes, uint8 (bytes,), which it keeps as they are; ValueError for a wrong number of them."""
        layer = cls(in_features, out_features, format, device="meta")
        if packed.dtype != torch.uint8 or packed.shape != layer.weight.shape:
            raise ValueError(
                f"{format}: a weight ({out_features}, {in_features}) is {layer.weight.numel()} bytes of uint8, "
                f"not {packed.dtype} {tuple(packed.shape)}"
            )
        layer.weight = packed
        if bias is not None:
            layer.bias = nn.Parameter(bias.detach(), requires_grad=False)
        return layer

    @classmethod
    def from_dense(
        cls,
        weight: torch.Tensor | np.ndarray,
        format: str,
        bias: torch.Tensor | None = None,
        importance: torch.Tensor | np.ndarray | None = None,
        progress: Progress | None = None,
        first_column: int | None = None,
    ) -> PackedLinear:
        """Pack a dense weight (out_features, in_features); the arguments are those of pack(). The bytes are on the CPU.

        `first_column`: the weight is a part of a wider one, for all of whose columns there is an importance.
        """
        dense_bytes = weight.nbytes if isinstance(weight, np.ndarray) else weight.numel() * weight.element_size()
        values, kind = as_floats(weight), format_of(format)
        packed = kind.pack(values, None if importance is None else as_floats(importance), progress, first_column)
        layer = cls.from_packed(torch.from_numpy(packed), format, *values.shape, bias)
        rows = np.unique(np.linspace(0, values.shape[0] - 1, ERROR_ROWS).astype(np.int64))
        rest = kind.unpack_rows(packed, *values.shape, rows) - values[rows]
        norm = float(np.linalg.norm(values[rows]))
        layer.dense_bytes, layer.error = dense_bytes, float(np.linalg.norm(rest)) / norm if norm else 0.0
        return layer

    @classmethod
    def from_linear(
        cls,
        source: nn.Linear,
        format: str,
        importance: torch.Tensor | np.ndarray | None = None,
        progress: Progress | None = None,
    ) -> PackedLinear:
        """Pack a linear layer; bias and device are kept. Errors as those of pack()."""
        layer = cls.from_dense(source.weight, format, source.bias, importance, progress)
        layer.train(source.training)
        return layer.to(source.weight.device)

    def forward(self, x: torch.Tensor) -> torch.Tensor:
        """x (..., in_features) in float, half, bfloat16 or double on XPU to (..., out_features) of the same dtype.

        RuntimeError: a tensor that is not on XPU. ValueError: a last dimension other than in_features.
        """
        return self.with_bias(self.without_bias(x))

    def without_bias(self, x: torch.Tensor) -> torch.Tensor:
        """x W^T of any leading dimensions; errors as those of forward."""
        if x.device.type != "xpu" or self.weight.device.type != "xpu":
            raise RuntimeError(
                f"PackedLinear computes on XPU, but its input is on {x.device} and its weight on {self.weight.device}: "
                'move the model and its inputs there with .to("xpu")'
            )
        if x.dim() == 0 or x.shape[-1] != self.in_features:
            raise ValueError(f"the input {tuple(x.shape)} should end in {self.in_features} elements")
        y = self.product(x.reshape(-1, self.in_features).contiguous())
        return y.view(*x.shape[:-1], self.out_features)

    def with_bias(self, y: torch.Tensor) -> torch.Tensor:
        return y if self.bias is None else y + self.bias.to(y.dtype)

    def product(self, x: torch.Tensor) -> torch.Tensor:
        """x W^T without bias, x (rows, in_features) contiguous on XPU to (rows, out_features)."""
        way = self.way(x.shape[0], x.dtype)
        # The compiler traces operators, but calls to the module would break its graph.
        operators = torch.ops.corvane if is_compiling() else corvane
        if way == "direct":
            return operators.forward_new(x, self.weight, self.qtype, x.shape[0])
        if way == "empty":
            return x.new_empty(0, self.out_features)
        if way == "widened":
            return self.product(x.float()).to(x.dtype)
        if way == "expanded":
            return linear(x, operators.dequant(x, self.weight, self.qtype))
        if way == "padded":
            zeros = x.new_zeros(SYSTOLIC_ROWS + 1 - x.shape[0], self.in_features)
            return self.product(torch.cat([x, zeros]))[: x.shape[0]]
        return torch.cat([operators.forward_new(row, self.weight, self.qtype, 1) for row in x.split(1)])

    def way(self, rows: int, dtype: torch.dtype) -> str:
        """How so many rows of a dtype are multiplied: the module refuses some, and rounds some otherwise than one row."""
        if rows == 0:
            return "empty"
        if rows == 1:
            return "direct"
        if dtype == torch.float64 and self.format in SYSTOLIC:
            return "expanded"
        if self.format not in FLOAT_OR_HALF_ROWS:
            return "direct"
        if self.format in EVEN_UNITS and self.in_features * self.out_features % 512:
            return "one by one"
        if dtype == torch.bfloat16:
            return "widened"
        if dtype == torch.float64:
            return "one by one"
        if self.format == "fp8_e4m3" and rows <= SYSTOLIC_ROWS:
            return "one by one" if rows <= FEW_ROWS else "padded"
        return "direct"

    def extra_repr(self) -> str:
        bias = self.bias is not None
        return f"in_features={self.in_features}, out_features={self.out_features}, format={self.format}, bias={bias}"
