"""XPU tensors in files and pickles, and copied by Python: values, device, shared storage."""

import copy
import io
import pickle

import pytest
import torch

FORMATS = {
    "zip": lambda x: torch.load(saved(x), weights_only=False),
    "older format": lambda x: torch.load(saved(x, _use_new_zipfile_serialization=False), weights_only=False),
    "pickle": lambda x: pickle.loads(pickle.dumps(x)),
    "deepcopy": copy.deepcopy,
}


def saved(x, **options) -> io.BytesIO:
    file = io.BytesIO()
    torch.save(x, file, **options)
    file.seek(0)
    return file


@pytest.fixture(params=FORMATS)
def round_trip(request):
    return FORMATS[request.param]


@pytest.mark.parametrize("dtype", [torch.float, torch.half, torch.bfloat16, torch.uint8, torch.int64, torch.bool])
def test_tensors_come_back_as_they_were(round_trip, dtype):
    plain = torch.randint(0, 2, (5, 7), device="xpu").to(dtype)
    for x in (plain, plain.t()[1:, 2:], plain[:0], plain[2, 3]):
        back = round_trip(x)
        assert back.device == x.device and back.dtype == dtype and back.stride() == x.stride()
        assert torch.equal(back, x) and back.data_ptr() != plain.data_ptr()


@pytest.mark.parametrize("name", [name for name in FORMATS if name != "pickle"])  # which gives each its own, anywhere
def test_views_go_on_sharing_memory(name):
    base = torch.zeros(3, 4, device="xpu")
    whole, row = FORMATS[name]([base, base[1]])
    row.fill_(7)
    assert whole.sum().item() == 28 and base.sum().item() == 0


def test_modules_and_their_state(round_trip):
    layer = torch.nn.Linear(3, 2).to("xpu")
    back = round_trip(layer)
    state = round_trip(layer.state_dict())
    for name, parameter in layer.named_parameters():
        assert isinstance(getattr(back, name), torch.nn.Parameter) and getattr(back, name).is_xpu
        assert torch.equal(getattr(back, name), parameter) and torch.equal(state[name], parameter)


@pytest.mark.parametrize("location", ["xpu", "xpu:0", torch.device("xpu"), {"cpu": "xpu:0"}])
@pytest.mark.parametrize("zipped", [True, False])
def test_files_of_the_other_device_are_moved(location, zipped):
    x = torch.randn(3, 4)
    from_cpu = torch.load(saved(x, _use_new_zipfile_serialization=zipped), map_location=location)
    assert from_cpu.is_xpu and torch.equal(from_cpu.cpu(), x)
    to_cpu = torch.load(saved(from_cpu, _use_new_zipfile_serialization=zipped), map_location="cpu")
    assert to_cpu.is_cpu and torch.equal(to_cpu, x)


@pytest.mark.parametrize("x", [torch.zeros(3), torch.zeros(0)])
def test_a_device_that_does_not_exist_is_refused(x):
    with pytest.raises(RuntimeError, match=r"does not exist|device_count"):
        torch.load(saved(x), map_location="xpu:1")
