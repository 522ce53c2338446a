#!/usr/bin/python3
"""Makes networks/: each network as exported, its weights replaced by rules, and PyTorch's output.

    /usr/bin/python3 make_networks.py [NAME...]

Needs Debian's python3-torch, python3-onnx and python3-numpy. PyTorch runs in double; what it gives
depends on its version in the last digits of a double at most.
"""

import io
import math
import pathlib
import sys

import numpy as np
import onnx
import torch

import fill
from networks import NETWORKS

FOLDER = pathlib.Path(__file__).parent / "networks"
FRAMES = 8
TORCH_GATES = (0, 3, 1, 2)  # where ONNX's gates (input, output, forget, cell) stand in PyTorch


def range_of(name, shape, node_type):
    """The range of a seeded weight, so that activations neither vanish nor grow."""
    if name.endswith("running_var"):
        return 0.5, 1.5
    if name.endswith("running_mean"):
        return -0.2, 0.2
    if name.endswith("second.1.weight"):
        return 0.2, 0.6  # behind each comes a sum
    if node_type == "BatchNormalization":
        return (0.5, 1.5) if name.endswith("weight") else (-0.2, 0.2)
    if len(shape) == 1:
        return -0.1, 0.1
    if node_type == "LSTM":
        limit = 3.0 / math.sqrt(shape[-1]) if len(shape) == 3 else 0.2
    elif node_type == "ConvTranspose":
        limit = math.sqrt(6.0 / (shape[0] * 4))  # a kernel 4 of stride 2 meets 2x2 of 4x4
    elif node_type == "MatMul":
        limit = math.sqrt(6.0 / shape[0])
    else:
        limit = math.sqrt(6.0 / np.prod(shape[1:]))
    return -limit, limit


def export(module, inputs, opset):
    torch.manual_seed(1)
    for value in module.state_dict().values():
        if value.is_floating_point():
            value.uniform_(0.5, 1)  # tensors of equal numbers would become one
    stream = io.BytesIO()
    # PRESERVE keeps BatchNormalization apart from the convolutions.
    torch.onnx.export(module, inputs, stream, opset_version=opset, input_names=["input"],
                      output_names=["output"], training=torch.onnx.TrainingMode.PRESERVE)
    return onnx.load_from_string(stream.getvalue())


def put_rules(model):
    """Replaces the data of all weights by rules; returns the weights by name."""
    readers = {name: node.op_type for node in model.graph.node for name in node.input}
    weights = {}
    for tensor in model.graph.initializer:
        if tensor.data_type != onnx.TensorProto.FLOAT or len(tensor.dims) == 0:
            continue
        node_type = readers[tensor.name]
        if node_type == "LSTM" and len(tensor.dims) == 3 and is_state(model, tensor.name):
            continue
        low, high = range_of(tensor.name, list(tensor.dims), node_type)
        seed = 1000 + len(weights)
        tensor.doc_string = fill.rule(seed, low, high)
        tensor.ClearField("raw_data")
        tensor.ClearField("float_data")
        weights[tensor.name] = fill.from_rule(tensor.doc_string, list(tensor.dims))
    return weights


def is_state(model, name):
    return any(name in list(node.input)[5:] for node in model.graph.node)


def from_onnx_gates(array):
    """[gates * units, ...] in ONNX's order of gates to PyTorch's."""
    units = array.shape[0] // 4
    return np.concatenate([array[units * TORCH_GATES.index(g):][:units] for g in (0, 1, 2, 3)])


def to_torch(module, model, weights):
    """Gives the module the weights of the file."""
    state = dict(module.state_dict())
    found = {name: value for name, value in weights.items() if name in state}
    recurrent = [(name, part) for name, part in module.named_modules()
                 if isinstance(part, torch.nn.LSTM)]
    for (name, _), node in zip(recurrent, [n for n in model.graph.node if n.op_type == "LSTM"]):
        w, r, b = (weights[node.input[i]] for i in (1, 2, 3))
        for direction, suffix in enumerate(["", "_reverse"][:w.shape[0]]):
            units = r.shape[2]
            found[f"{name}.weight_ih_l0{suffix}"] = from_onnx_gates(w[direction])
            found[f"{name}.weight_hh_l0{suffix}"] = from_onnx_gates(r[direction])
            found[f"{name}.bias_ih_l0{suffix}"] = from_onnx_gates(b[direction][:4 * units])
            found[f"{name}.bias_hh_l0{suffix}"] = from_onnx_gates(b[direction][4 * units:])
    products = [n for n in model.graph.node if n.op_type == "MatMul"]
    dense = [name for name, part in module.named_modules() if isinstance(part, torch.nn.Linear)
             and f"{name}.weight" not in found]
    for name, node in zip(dense, products):
        found[f"{name}.weight"] = weights[node.input[1]].T
    missing = [name for name in state
               if name not in found and not name.endswith("num_batches_tracked")]
    assert not missing, missing
    for name, value in found.items():
        assert tuple(state[name].shape) == value.shape, name
        state[name] = torch.from_numpy(np.ascontiguousarray(value))
    module.load_state_dict(state)


def stream(module, shape, low, high):
    """Frame after frame through the module in double, its recurrent layer going on from one to the
    next; frame i has the seed i + 1."""
    results, state = [], None
    for i in range(FRAMES):
        frame = torch.from_numpy(fill.uniform(i + 1, low, high, shape)).double()
        hidden, state = module.cell(torch.tanh(module.before(frame)).unsqueeze(0), state)
        results.append(torch.sigmoid(module.after(hidden.squeeze(0))).numpy())
    return np.concatenate(results)


def make(name):
    kind, shape, (low, high), opset, every = NETWORKS[name]
    module = kind().eval()
    model = export(module, torch.zeros(shape), opset)
    weights = put_rules(model)
    to_torch(module, model, weights)
    rule = fill.rule(1, low, high)
    model.graph.input[0].doc_string = rule
    model.graph.output[0].doc_string = f"every {every}"
    with torch.no_grad():
        inputs = torch.from_numpy(fill.from_rule(rule, shape))
        exact = module.double()(inputs.double()).numpy()
        if name == "one_frame_denoiser":
            np.save(FOLDER / f"{name}.stream.npy", stream(module, shape, low, high))
        single = module.float()(inputs).numpy()
    kept = exact[..., ::every, ::every] if every > 1 else exact
    FOLDER.mkdir(exist_ok=True)
    (FOLDER / f"{name}.onnx").write_bytes(model.SerializeToString())
    np.save(FOLDER / f"{name}.0.npy", kept)
    count = sum(value.size for value in weights.values())
    print(f"{name}: {count} weights, {(FOLDER / f'{name}.onnx').stat().st_size} bytes, output "
          f"{exact.min():.4f} to {exact.max():.4f}, standard deviation {exact.std():.4f}, float "
          f"differs by {np.abs(exact - single).max():.2e}; "
          f"{sorted({n.op_type for n in model.graph.node})}")


if __name__ == "__main__":
    torch.set_num_threads(1)
    for wanted in sys.argv[1:] or NETWORKS:
        make(wanted)
