"""One small graph and the arrays that PyTorch gives for it."""

import io
import pathlib

import cv2
import numpy as np
import onnx
import torch
from onnx import TensorProto, helper, numpy_helper

import fill

FOLDER = pathlib.Path(__file__).parent / "cases"
# The representation that belongs to each operator set.
IR_OF_OPSET = {7: 3, 8: 3, 9: 4, 10: 5, 11: 6, 12: 7, 13: 7, 14: 7, 15: 8, 16: 8, 17: 8}
made = []  # names, in order


def single(value):
    """A number as a float attribute keeps it."""
    return float(np.float32(value))


class Case:
    """Collects nodes and values; `expect` names the outputs. Values are torch tensors in double
    that hold floats exactly."""

    def __init__(self, name, opset=13):
        self.name = name
        self.opset = opset
        self.seed = 1
        self.nodes = []
        self.inputs = []
        self.initializers = []
        self.outputs = []
        self.expected = []
        self.fed = {}

    def numbers(self, shape, low=-1, high=1):
        self.seed += 1
        return torch.from_numpy(fill.uniform(self.seed, low, high, shape)).double()

    def input(self, shape, low=-2, high=2, name=None, symbols=None):
        """An input of the graph; `symbols` replaces its dimensions in the file."""
        name = name or f"x{len(self.inputs)}"
        value = self.numbers(shape, low, high)
        info = helper.make_tensor_value_info(name, TensorProto.FLOAT, symbols or shape)
        info.doc_string = fill.rule(self.seed, low, high)
        self.inputs.append(info)
        self.fed[name] = value.numpy().astype(np.float32)
        return name, value

    def weight(self, name, shape, low=-1, high=1):
        value = self.numbers(shape, low, high)
        self.constant(name, value.numpy().astype(np.float32))
        return value

    def constant(self, name, array):
        self.initializers.append(numpy_helper.from_array(np.ascontiguousarray(array), name))

    def node(self, op_type, inputs, outputs, **attributes):
        self.nodes.append(helper.make_node(op_type, inputs, outputs, **attributes))

    def expect(self, name, value):
        self.outputs.append(helper.make_tensor_value_info(name, TensorProto.FLOAT, value.shape))
        self.expected.append(value.detach().numpy())

    def save(self):
        inputs = list(self.inputs)
        if IR_OF_OPSET[self.opset] < 4:  # initializers must be inputs, too
            inputs += [helper.make_tensor_value_info(t.name, t.data_type, t.dims)
                       for t in self.initializers]
        graph = helper.make_graph(self.nodes, self.name, inputs, self.outputs, self.initializers)
        model = helper.make_model(graph, ir_version=IR_OF_OPSET[self.opset],
                                  producer_name="reference",
                                  opset_imports=[helper.make_opsetid("", self.opset)])
        onnx.checker.check_model(model)
        write(self.name, model, self.expected, self.fed)


def exported(name, module, inputs, opset=13, low=-2, high=2, **options):
    """A module as PyTorch's exporter writes it."""
    module = module.float().eval()
    torch.manual_seed(1)
    for key, value in module.state_dict().items():
        if value.is_floating_point():
            value.uniform_(0.5, 1.5) if key.endswith("running_var") else value.uniform_(-0.7, 0.7)
    rules = [fill.rule(2 + i, low, high) for i in range(len(inputs))]
    fed = [fill.from_rule(rule, shape) for rule, shape in zip(rules, inputs)]
    stream = io.BytesIO()
    names = [f"x{i}" for i in range(len(inputs))]
    torch.onnx.export(module, tuple(torch.from_numpy(array) for array in fed), stream,
                      opset_version=opset, input_names=names, **options)
    model = onnx.load_from_string(stream.getvalue())
    for info, rule in zip(model.graph.input, rules):
        info.doc_string = rule
    with torch.no_grad():
        results = module.double()(*(torch.from_numpy(array).double() for array in fed))
    if isinstance(results, torch.Tensor):
        results = [results]
    write(name, model, [value.numpy() for value in results], dict(zip(names, fed)))


def write(name, model, expected, fed):
    assert name not in made, name
    made.append(name)
    for node in model.graph.node:
        node.ClearField("doc_string")  # the exporter's paths
    model.graph.doc_string = second_opinion(name, model, expected, fed)
    FOLDER.mkdir(exist_ok=True)
    (FOLDER / f"{name}.onnx").write_bytes(model.SerializeToString())
    for i, array in enumerate(expected):
        assert np.isfinite(array).all(), name
        np.save(FOLDER / f"{name}.{i}.npy", np.ascontiguousarray(array, np.float64))


def second_opinion(name, model, expected, fed):
    """Asks OpenCV for the first output, which it computes in float."""
    try:
        net = cv2.dnn.readNetFromONNX(np.frombuffer(model.SerializeToString(), np.uint8))
        for key, array in fed.items():
            net.setInput(array, key)
        found = net.forward(model.graph.output[0].name)
    except cv2.error:
        return "PyTorch"
    if found.size != expected[0].size:
        print(f"{name}: OpenCV gives {found.shape}, PyTorch {expected[0].shape}")
        return "PyTorch"
    difference = np.abs(found.reshape(expected[0].shape) - expected[0]).max()
    if difference > 1e-5 * max(1, np.abs(expected[0]).max()):
        print(f"{name}: OpenCV differs by {difference:.2e}")
        return "PyTorch"
    return "PyTorch, OpenCV"
