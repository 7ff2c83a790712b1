"""What an installed corvane has to do. Run by scripts/test_package.sh with the interpreter of the environment that has it,
from a folder outside the source tree; pytest is not needed there.
"""

import corvane  # alone and first: it has to find the libraries of PyTorch and bring up the device by itself

import ast  # noqa: E402
import importlib.metadata  # noqa: E402
import subprocess  # noqa: E402
import sys  # noqa: E402
from pathlib import Path  # noqa: E402

import host_xpu  # noqa: E402
import torch  # noqa: E402


def stub_of(module) -> ast.Module:
    beside = "corvane-stubs/__init__.pyi" if module is corvane else "_device.pyi"
    return ast.parse((Path(module.__file__).parent / beside).read_text())


def definitions(tree) -> dict:
    kinds = ast.FunctionDef, ast.ClassDef
    return {node.name: node for node in tree.body if isinstance(node, kinds)}


def check_what_is_installed():
    names = {path.parts[0] for path in importlib.metadata.files("corvane")}
    names = {name.split(".")[0] if name.endswith(".so") else name for name in names}
    metadata = {name for name in names if name.endswith(".dist-info")}
    assert len(metadata) == 1
    names = {name for name in names - metadata if name != ".."}  # the command lies beside the interpreter
    # Beside these there are no copies of libraries: PyTorch's, oneTBB's and OpenMP's are the environment's.
    compiled = "corvane_levels" if "level" in host_xpu.build_info() else "libcorvane_platform"
    assert names == {"corvane", "host_xpu", compiled, "corvane-stubs", "corvane_runtime"}, names
    assert importlib.metadata.version("corvane") == corvane.__version__
    for module in (corvane, host_xpu):
        assert Path(module.__file__).is_relative_to(sys.prefix), f"{module.__file__} is not of this environment"


def check_a_linear_layer():
    # 32 code bytes of a q4_0 block, low nibble 10 and high nibble 9: values 2 and 1 times the scale.
    weight = torch.tensor([0x9A] * 32, dtype=torch.uint8)
    scale = torch.tensor([0.5], dtype=torch.half).view(torch.uint8)
    x = torch.ones(1, 64).to("xpu")
    with host_xpu.record_launches() as launches:
        y = corvane.forward_new(x, torch.cat([weight, scale]).to("xpu"), 2, 1)
    assert y.cpu().tolist() == [[32 * (2 + 1) * 0.5]]
    assert len(launches) == 1


def check_the_runtime_and_its_command():
    from corvane_runtime import quantize_, unpack

    model = torch.nn.Sequential(torch.nn.Linear(64, 32), torch.nn.ReLU(), torch.nn.Linear(32, 8))
    x = torch.randn(3, 64)
    quantize_(model, "q8_0").to("xpu")
    layer = model[0]
    expected = x @ unpack(layer.weight, "q8_0", 32, 64).T + layer.bias.cpu()
    assert (layer(x.to("xpu")).cpu() - expected).abs().max() < 1e-2
    command = Path(sys.executable).with_name("corvane")
    assert "device" in subprocess.run([command, "info"], check=True, capture_output=True, text=True).stdout


def check_either_order_of_imports():
    for first, second in (("torch", "corvane"), ("host_xpu", "corvane"), ("corvane", "host_xpu")):
        program = f"import {first}, {second}, torch; assert torch.ones(3).to('xpu').sum().item() == 3"
        subprocess.run([sys.executable, "-c", program], check=True)


def check_stubs_name_what_there_is():
    assert set(host_xpu.__all__) - set(vars(host_xpu._device)) == {"build_info"}
    for module in (corvane, host_xpu._device):
        public = {name for name in vars(module) if not name.startswith("_")}
        stub = definitions(stub_of(module))
        assert public == set(stub), public ^ set(stub)
        for name, node in stub.items():
            assert ast.get_docstring(node), f"{name} has no docstring"
            if isinstance(node, ast.ClassDef):
                missing = [member for member in definitions(node) if not hasattr(getattr(module, name), member)]
                assert not missing, f"{name} has no {missing}"


def check_stub_signatures():
    """Names, defaults and annotations against the signature that the binding writes into the docstring."""
    for name, node in definitions(stub_of(corvane)).items():
        signature = getattr(corvane, name).__doc__.splitlines()[0].replace("torch.Tensor", "Tensor")
        bound = ast.parse(f"def {signature.replace('List', 'list')}: ...").body[0]
        stubbed = node.args.posonlyargs + node.args.args
        assert [ast.unparse(a.annotation) for a in stubbed] == [
            ast.unparse(a.annotation) for a in bound.args.args
        ], name
        assert ast.unparse(node.returns) == ast.unparse(bound.returns), name
        assert [ast.unparse(d) for d in node.args.defaults] == [ast.unparse(d) for d in bound.args.defaults], name
        assert [a.arg for a in node.args.args] == [a.arg for a in bound.args.args if not a.arg.startswith("arg")], name


checks = [check for name, check in list(globals().items()) if name.startswith("check_")]
for check in checks:
    check()
print(f"{len(checks)} passed")
