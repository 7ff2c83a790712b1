"""The examples of single layers: they run, and what they compare agrees."""

import host_xpu
import pytest
import torch

import moe_layer
import rwkv_layer


@pytest.mark.parametrize("layer", [rwkv_layer.TimeMixing4, rwkv_layer.TimeMixing5])
def test_rwkv_layer_in_two_halves(layer):
    torch.manual_seed(3)
    x = torch.randn(2, 22, 128).to("xpu")
    # The products of a half may sum in another order than those of the whole: 128 terms of magnitude 1 to start with,
    # in float, and a few more operations behind.
    assert max(rwkv_layer.largest_difference(layer(128), x)) < 128 * 2.0**-22


def test_moe_layer():
    layer = moe_layer.packed_layer(hidden=64, inner=128, n_experts=6, n_selected=2)
    x = torch.randn(17, 64, generator=torch.Generator().manual_seed(5)).to("xpu")
    expected = layer.token_by_token(x)
    # An expert with several tokens may expand its weights in half precision, with a relative error of 2^-11 each.
    assert (layer(x) - expected).norm() < 4 * 2.0**-11 * expected.norm()


def test_rwkv_block_of_transformers():
    pytest.importorskip("transformers")
    try:
        import rwkv_transformers
    except Exception as error:  # a transformers that does not know the framework
        pytest.skip(f"this transformers does not run here: {error}")
    torch.manual_seed(2)
    block = rwkv_transformers.random_block(64, "q8_0")
    with torch.no_grad():  # the model starts with zeros in places, which would hide what they meet
        for parameter in block.attention.parameters():
            parameter.add_(torch.randn(parameter.shape).to("xpu"), alpha=0.3)
    x = torch.randn(2, 9, 64).to("xpu")
    # Exponentials and sums of nine tokens in float, in two orders.
    assert max(rwkv_transformers.largest_difference(block, x)) < 2.0**-18
    with host_xpu.record_launches() as launches, rwkv_transformers.own_attention():
        rwkv_transformers.run(block, x)
    assert sum("v4" in launch.kernel for launch in launches) == 2


@pytest.mark.parametrize("example", [rwkv_layer, moe_layer])
def test_main_reports(example, capsys):
    example.main()
    assert "differ" in capsys.readouterr().out
