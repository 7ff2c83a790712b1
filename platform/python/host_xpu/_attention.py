"""scaled_dot_product_attention of XPU tensors under tracing, where PyTorch decomposes it before any device is asked.

Its decomposition in C++ chooses a kernel by device and does not know this one; the plain formula does.
"""

import torch


def complete() -> None:
    attention = torch.ops.aten.scaled_dot_product_attention.default
    composite = torch._C.DispatchKey.CompositeImplicitAutograd

    @attention.py_impl(composite)
    def composed(query, key, value, mask=None, dropout_p=0.0, is_causal=False, **options):
        if query.device.type != "xpu":
            return attention._op_dk(composite, query, key, value, mask, dropout_p, is_causal, **options)
        math = torch.ops.aten._scaled_dot_product_attention_math
        return math(query, key, value, mask, dropout_p, is_causal, **options)[0]
