"""One model over several processes: cuts of packed bytes, two and four processes, faults, two machines."""

import importlib.util
import os
import re
import signal
import subprocess
import sys

import numpy as np
import parallel_processes
import pytest
import tiny_llama
import torch
import two_machines
from reference import formats as reference
from safetensors.torch import save_file
from test_runtime_llama import FLOAT_TOLERANCE, write_folder

from corvane_runtime import FORMATS, PackedLinear, load, load_gguf, save, save_importance
from corvane_runtime.cli.main import main
from corvane_runtime.parallel import Plan, cut_packed
from corvane_runtime.transformers_models import HAS_TRANSFORMERS

SIZES = 16, 4, 1024  # heads, key and value heads, MLP: four processes get blocks of 256 columns
TESTED = ("q4_0", "q8_0", "q4_k", "fp6", "q2_k")
COMMAND = ["-m", "corvane_runtime", "generate"]
RAW = ["--raw", "--prompt", "the", "--plain-rounding"]
# torchrun of PyTorch 1.13 breaks on Python 3.11 without: "no output of a tenth process on a machine goes to a file".
TORCHRUN = [sys.executable, "-m", "torch.distributed.run", "--redirects", "9:1", "--tee", "9:1"]


@pytest.fixture(scope="module")
def wide_path(tmp_path_factory):
    return tiny_llama.write_model(tmp_path_factory.mktemp("wide") / "wide.gguf", sizes=SIZES)


@pytest.fixture(scope="module")
def packed_folders(wide_path):
    """The model in the tested formats, and one with biases on all layers."""
    folders = {name: wide_path.parent / name for name in (*TESTED, "biases")}
    for name in TESTED:
        save(load_gguf(wide_path, name), folders[name])
    rng, rows = np.random.default_rng(5), {name: shape[0] for name, shape in tiny_llama.shapes(*SIZES).items()}
    biases = {f"{name}.bias": rng.normal(0, 0.3, size) for name, size in rows.items() if name.startswith("blk")}
    path = tiny_llama.write_model(wide_path.parent / "biases.gguf", vectors=biases, sizes=SIZES)
    save(load_gguf(path, "q4_0"), folders["biases"])
    return folders


# --- cuts ------------------------------------------------------------------------------------------------------------


@pytest.mark.parametrize("name", FORMATS)
def test_a_cut_weight_has_the_values_of_the_whole_one(name):
    block, rows = FORMATS[name].block_elements, 6
    columns = 3 * block
    whole = reference.random_weight(name, rows, columns, seed=1)
    values = reference.decode(name, whole, rows, columns)
    for axis, (first, last), shape in ((0, (1, 3), (2, columns)), (1, (block, 3 * block), (rows, 2 * block))):
        share = cut_packed(torch.from_numpy(whole), name, rows, columns, axis, first, last)
        expected = values[first:last] if axis == 0 else values[:, first:last]
        np.testing.assert_array_equal(reference.decode(name, share.numpy(), *shape), expected)


@pytest.mark.parametrize(
    ("axis", "first", "last", "text"),
    [
        (1, 0, 128, "multiples of 256"),
        (1, 0, 1024, "no range 0 to 1024"),
        (0, 3, 3, "no range"),
        (2, 0, 1, "dimension 2"),
    ],
)
def test_cuts_that_do_not_fit_are_refused(axis, first, last, text):
    with pytest.raises(ValueError, match=text):
        cut_packed(torch.zeros(4 * 2 * 148, dtype=torch.uint8), "q4_k", 4, 512, axis, first, last)


def test_refusals_say_how_many_processes_would_fit():
    with pytest.raises(
        ValueError, match=r"3 processes cannot share 8 key and value heads: 1, 2, 4 or 8 processes could"
    ):
        Plan(0, 3, heads=24, kv_heads=8, mlp=5632)
    plan = Plan(1, 4, heads=32, kv_heads=8, mlp=5632)
    assert plan.cut("model.layers.0.mlp.down_proj", 2048, 5632, "q4_0").shape == (2048, 1408)
    with pytest.raises(ValueError, match=r"mlp.down_proj: 4 processes .* 22 blocks .* 1, 2, 11 or 22 processes could"):
        plan.cut("model.layers.0.mlp.down_proj", 2048, 5632, "q4_k")


@pytest.mark.parametrize("count", [2, 3, 7])
def test_shares_of_an_output_head_are_all_of_it_and_start_on_eights(count):
    cuts = [Plan(rank, count, count, count, count).cut("lm_head", 1003, 64, "fp6") for rank in range(count)]
    assert [row for cut in cuts for row in range(cut.first, cut.last)] == list(range(1003))
    assert all(cut.first % 8 == 0 for cut in cuts)


@pytest.mark.parametrize("name", ["q4_0", "q4_k"])
def test_columns_packed_apart_are_those_of_the_whole(name):
    rng = np.random.default_rng(2)
    weight, importance = rng.normal(size=(4, 1024)).astype(np.float32), rng.uniform(0, 9, 1024).astype(np.float32)
    whole = torch.from_numpy(FORMATS[name].pack(weight, importance))
    share = FORMATS[name].pack(weight[:, 256:512], importance, first_column=256)
    assert torch.equal(torch.from_numpy(share), cut_packed(whole, name, 4, 1024, 1, 256, 512))


# --- processes -------------------------------------------------------------------------------------------------------


@pytest.mark.parametrize("count", [2, 4])
def test_processes_compute_what_one_does(packed_folders, count):
    found = parallel_processes.run(count, "saved", folders=[*packed_folders.values()])
    for i, (name, folder) in enumerate(packed_folders.items()):
        with torch.no_grad():
            one = parallel_processes.figures(load(folder))
        # q2_k rounds inputs to 8 bits, where a last bit of difference may become a step (as in test_runtime_llama).
        tolerance = 15**0.5 * 3 / 254 if name == "q2_k" else 2 * FLOAT_TOLERANCE
        expected = torch.tensor(one["logits"])
        for share in (shares[i] for shares in found):
            assert (torch.tensor(share["logits"]) - expected).abs().max() <= tolerance * expected.abs().max()
            assert (share["greedy"], share["sampled"]) == (one["greedy"], one["sampled"])
            assert share["cache"][1] == one["cache"][1] // count
            assert share["bytes"] <= 1.05 * one["bytes"] / count


def test_every_way_to_a_share_gives_the_same_bytes(wide_path, tmp_path):
    dense = load_gguf(wide_path)
    folder = write_folder(tmp_path, dense, "mistral")
    heads, kv_heads, mlp = SIZES
    about = (folder / "config.json").read_text()
    for key, size in (("num_attention_heads", heads), ("num_key_value_heads", kv_heads), ("intermediate_size", mlp)):
        about = re.sub(rf'"{key}": \d+', f'"{key}": {size}', about)
    (folder / "config.json").write_text(about.replace("{", f'{{"head_dim": {tiny_llama.HEAD_SIZE}, ', 1))
    importance = {
        name: np.random.default_rng(len(name)).uniform(0, 5, layer.in_features).astype(np.float32)
        for name, layer in dense.named_modules()
        if isinstance(layer, torch.nn.Linear)
    }
    save_importance(importance, tmp_path / "inputs.npz", "")
    save(load_gguf(wide_path, "q4_0", importance), tmp_path / "packed")
    found = parallel_processes.run(
        2, "shares", source=wide_path, folder=folder, packed=tmp_path / "packed", importance=tmp_path / "inputs.npz"
    )
    assert found == [{"file": [], "folder": [], "whole": []}] * 2


@pytest.mark.parametrize("count", [2, 4])
def test_a_token_sends_two_sums_a_layer_and_a_candidate(packed_folders, count):
    sums = 2 * tiny_llama.LAYERS
    for found in parallel_processes.run(count, "sent", folder=packed_folders["q4_0"]):
        assert (found["sums"], found["gathers"]) == (sums, 1)
        assert found["payload"] == sums * 4 * tiny_llama.HIDDEN + 16
        # A sum over n processes moves 2 (n - 1) / n of its bytes. The engine's messages have heads of some 50 bytes, and
        # go to and fro a few times for each of the 2 (n - 1) steps.
        bytes_of_sums = 2 * (count - 1) / count * sums * 4 * tiny_llama.HIDDEN
        assert bytes_of_sums < found["tcp"] < bytes_of_sums + (sums + 1) * 2 * (count - 1) * 400


@pytest.mark.skipif(
    not HAS_TRANSFORMERS or importlib.util.find_spec("accelerate") is None, reason="no transformers for this framework"
)
@pytest.mark.parametrize("family", ["Llama", "Qwen3"])
def test_models_of_transformers_are_shared(family, tmp_path):
    import transformers

    torch.manual_seed(0)
    sizes = {"vocab_size": 320, "hidden_size": 256, "intermediate_size": 512, "num_hidden_layers": 2, "head_dim": 64}
    biases = {"attention_bias": True, **({"mlp_bias": True} if family == "Llama" else {})}
    config = getattr(transformers, f"{family}Config")(**sizes, num_attention_heads=4, num_key_value_heads=2, **biases)
    model = getattr(transformers, f"{family}ForCausalLM")(config)
    for name, parameter in model.named_parameters():
        if name.endswith("bias"):
            torch.nn.init.normal_(parameter, std=0.3)
    model.save_pretrained(tmp_path)
    (one,) = parallel_processes.run(1, "transformers_model", folder=tmp_path, cut=False)
    expected = torch.tensor(one["logits"])
    for share in parallel_processes.run(2, "transformers_model", folder=tmp_path, cut=True):
        assert (torch.tensor(share["logits"]) - expected).abs().max() <= 2 * FLOAT_TOLERANCE * expected.abs().max()
        assert (share["dynamic"], share["static"]) == (one["dynamic"], one["static"])
        assert share["bytes"] <= 1.05 * one["bytes"] / 2


# --- the command -----------------------------------------------------------------------------------------------------


def test_torchrun_prints_the_text_once(packed_folders, wide_path, capsys):
    arguments = [str(wide_path), *RAW, "--tokens", "32", "--format", "q4_0"]
    command = [*TORCHRUN, "--nproc_per_node", "2", *COMMAND, *arguments, "--tensor-parallel"]
    found = subprocess.run(command, env=parallel_processes.environment(), capture_output=True, text=True)
    assert found.returncode == 0, found.stderr
    main(["generate", *arguments])
    assert found.stdout == capsys.readouterr().out


def test_without_torchrun_the_command_says_so(wide_path, monkeypatch):
    monkeypatch.delenv("RANK", raising=False)
    with pytest.raises(SystemExit, match="torchrun --nproc-per-node 2"):
        main(["generate", str(wide_path), "--tensor-parallel"])


@pytest.mark.parametrize("case", ["model", "option", "damage"])
def test_groups_that_do_not_fit_are_refused_by_all(packed_folders, tmp_path, case):
    folder, other, options = packed_folders["q4_0"], packed_folders["q4_0"], []
    if case == "model":
        other = packed_folders["fp6"]
        text = "rank 1 on .* has another model than rank 0"
    elif case == "option":
        options = ["--tokens", "7"]
        text = "rank 1 on .* has another --tokens than rank 0: 7, not 80"
    else:
        folder = other = tmp_path
        save(load(packed_folders["q4_0"]), folder)
        layer = "model.layers.1.mlp.down_proj.weight"
        # The last byte of a tensor is one of the last process's share.
        tensors = load(folder).state_dict()
        tensors[layer] = tensors[layer].cpu().clone()
        tensors[layer][-1] ^= 1
        save_file({name: tensor.cpu() for name, tensor in tensors.items()}, folder / "model.safetensors")
        text = f"{layer}: is damaged"
    command = [*COMMAND, "--tensor-parallel", *RAW]
    processes = parallel_processes.start(2, command, [str(folder)], [str(other), *options])
    for status, output, errors in parallel_processes.finish(processes):
        assert status == 1 and output == ""
        assert re.search(text, errors), errors


@pytest.mark.parametrize(("count", "fault"), [(2, "SIGKILL"), (2, "SIGSTOP"), (3, "SIGKILL"), (3, "SIGSTOP")])
def test_a_process_that_ends_or_hangs_ends_all_and_is_named(tmp_path, count, fault):
    path = tiny_llama.write_model(tmp_path / "model.gguf", sizes=(12, 3, 384) if count == 3 else SIZES)
    options = ["--tokens", "20000", "--format", "q4_0", "--time-limit", "12", "--tensor-parallel"]
    processes = parallel_processes.start(count, [*COMMAND, str(path), *RAW, *options])
    assert processes[0].stdout.read(1)  # the first token has come
    victim = processes.pop(1)
    os.kill(victim.pid, getattr(signal, fault))
    try:
        results = parallel_processes.finish(processes, seconds=40)
    finally:
        victim.kill()
        victim.communicate()
    for status, _, errors in results:
        assert status == 1
        assert re.search(r"corvane: rank [02]: rank 1 on \S+ (has ended|does not answer)", errors), errors


@pytest.mark.skipif(two_machines.missing() is not None, reason=str(two_machines.missing()))
def test_two_machines_with_a_slow_and_lossy_link_say_the_same(wide_path, capsys):
    arguments = [str(wide_path), *RAW, "--tokens", "12", "--format", "q4_0"]
    with two_machines.machines(delay=0.020, loss=0.01) as names:
        processes = []
        for rank, name in enumerate(names):
            group = ["--nnodes", "2", "--node_rank", str(rank), "--nproc_per_node", "1"]
            group += ["--master_addr", two_machines.ADDRESSES[0], "--master_port", "29511"]
            command = ["ip", "netns", "exec", name, *TORCHRUN, *group, *COMMAND, *arguments, "--tensor-parallel"]
            variables = {**parallel_processes.environment(), "GLOO_SOCKET_IFNAME": two_machines.DEVICE}
            pipes = {"stdout": subprocess.PIPE, "stderr": subprocess.PIPE}
            processes.append(subprocess.Popen(command, env=variables, text=True, **pipes))
        results = parallel_processes.finish(processes)
    assert [status for status, _, _ in results] == [0, 0], results
    main(["generate", *arguments])
    assert [output for _, output, _ in results] == [capsys.readouterr().out, ""]


def test_a_share_is_not_saved(packed_folders, tmp_path):
    model = load(packed_folders["q4_0"])
    assert isinstance(model.lm_head, PackedLinear)
    model.link = object()
    with pytest.raises(ValueError, match="a share of the model"):
        save(model, tmp_path)
