"""Activations, arithmetic, normalisation, matrices, resampling and recurrent layers."""

import numpy as np
import torch
import torch.nn.functional as F
from onnx import TensorProto, helper

from case import Case, single


def unary(name, op_type, function, opset=13, shape=(1, 3, 4, 5), low=-4, high=4, constants=(),
          **attributes):
    case = Case(name, opset)
    x, value = case.input(shape, low, high)
    names = [x]
    for i, constant in enumerate(constants):
        names.append("" if constant is None else f"c{i}")
        if constant is not None:
            case.constant(f"c{i}", np.array(constant, np.float32))
    case.node(op_type, names, ["y"], **attributes)
    case.expect("y", function(value))
    case.save()


def activations():
    unary("relu", "Relu", F.relu, 7)
    unary("relu_14", "Relu", F.relu, 14)
    unary("leaky_relu_tenth", "LeakyRelu", lambda x: F.leaky_relu(x, single(0.1)), 9, alpha=0.1)
    unary("leaky_relu_fifth", "LeakyRelu", lambda x: F.leaky_relu(x, single(0.2)), alpha=0.2)
    unary("leaky_relu_default", "LeakyRelu", lambda x: F.leaky_relu(x, single(0.01)), 16)
    unary("relu6_attributes", "Clip", F.relu6, 7, low=-9, high=9, min=0.0, max=6.0)
    unary("relu6_inputs", "Clip", F.relu6, 11, low=-9, high=9, constants=(0, 6))
    unary("clip_other", "Clip", lambda x: x.clamp(-1, 2), 12, constants=(-1, 2))
    unary("clip_below", "Clip", lambda x: x.clamp(min=0), 13, constants=(0,))
    unary("clip_above", "Clip", lambda x: x.clamp(max=1), 13, constants=(None, 1))
    unary("sigmoid", "Sigmoid", torch.sigmoid, 7)
    unary("tanh", "Tanh", torch.tanh, 7)
    unary("elu", "Elu", F.elu)
    unary("hard_sigmoid", "HardSigmoid", lambda x: (x * single(0.3) + 0.5).clamp(0, 1), alpha=0.3)
    unary("hard_swish", "HardSwish", F.hardswish, 14)
    unary("abs", "Abs", torch.abs)
    unary("neg", "Neg", torch.neg)
    unary("exp", "Exp", torch.exp)
    unary("log", "Log", torch.log, low=0.5)
    unary("sqrt", "Sqrt", torch.sqrt, low=0)
    unary("softmax_rows_9", "Softmax", lambda x: x.softmax(1), 9, shape=(1, 7))
    unary("softmax_maps_11", "Softmax", lambda x: x.flatten(1).softmax(1).view(x.shape), 11,
          shape=(1, 5, 1, 1), axis=1)
    unary("softmax_coerced_11", "Softmax", lambda x: x.flatten(1).softmax(1).view(x.shape), 11,
          axis=1)
    unary("softmax_last_11", "Softmax", lambda x: x.softmax(3), 11, axis=3)
    unary("softmax_13", "Softmax", lambda x: x.softmax(-1), 13, shape=(1, 7))
    unary("softmax_channels_13", "Softmax", lambda x: x.softmax(1), 13, axis=1)
    unary("softmax_large", "Softmax", lambda x: x.softmax(1), 13, shape=(1, 9), low=-90, high=90)

    case = Case("prelu", 9)
    x, value = case.input((1, 3, 4, 5))
    slope = case.weight("slope", (3, 1, 1))
    case.node("PRelu", [x, "slope"], ["y"])
    case.expect("y", F.prelu(value, slope.flatten()))
    case.save()


def binary(name, op_type, function, left=(1, 3, 4, 5), right=(1, 3, 4, 5), constant=False,
           swapped=False, opset=13, low=-2, high=2):
    case = Case(name, opset)
    x, a = case.input(left)
    if constant:
        other, b = "c", case.weight("c", right, low, high)
    else:
        other, b = case.input(right, low, high)
    names = [other, x] if swapped else [x, other]
    case.node(op_type, names, ["y"])
    case.expect("y", function(b, a) if swapped else function(a, b))
    case.save()


def arithmetic():
    for name, op_type, function in (("add", "Add", torch.add), ("mul", "Mul", torch.mul),
                                    ("sub", "Sub", torch.sub), ("div", "Div", torch.div)):
        low = 0.5 if name == "div" else -2
        binary(name, op_type, function, opset=7, low=low)
        binary(f"{name}_constant", op_type, function, right=(), constant=True, low=low, opset=8)
        binary(f"{name}_constant_per_channel", op_type, function, right=(3, 1, 1), constant=True,
               low=low, opset=14)
        binary(f"{name}_constant_per_channel_4", op_type, function, right=(1, 3, 1, 1),
               constant=True, low=low, opset=9)
        binary(f"{name}_constant_whole", op_type, function, right=(1, 3, 4, 5), constant=True,
               low=low)
        binary(f"{name}_of_channels", op_type, function, right=(1, 3, 1, 1), low=low)
    binary("constant_minus", "Sub", torch.sub, right=(1,), constant=True, swapped=True)
    binary("add_row", "Add", torch.add, right=(1, 1, 1, 5))
    binary("max", "Max", torch.maximum, opset=8)
    binary("min", "Min", torch.minimum, opset=12)

    case = Case("sum_of_three", 8)
    names, values = zip(*(case.input((1, 2, 3, 4)) for _ in range(3)))
    case.node("Sum", list(names), ["y"])
    case.expect("y", values[0] + values[1] + values[2])
    case.save()

    case = Case("linear_scale_and_offset", 13)
    x, value = case.input((1, 2, 3, 4))
    a, b = case.weight("a", ()), case.weight("b", (1,))
    case.node("Mul", [x, "a"], ["t"])
    case.node("Add", ["b", "t"], ["y"])
    case.expect("y", value * a + b)
    case.save()

    for axis, opset in ((1, 7), (2, 11), (3, 13), (-3, 13)):
        case = Case(f"concat_axis_{'minus_3' if axis < 0 else axis}", opset)
        shapes = [[1, 2, 3, 4] for _ in range(3)]
        for i, shape in enumerate(shapes):
            shape[axis] += i
        names, values = zip(*(case.input(tuple(shape)) for shape in shapes))
        case.node("Concat", list(names), ["y"], axis=axis)
        case.expect("y", torch.cat(values, axis))
        case.save()


def normalisations():
    for opset in (7, 9, 15):
        case = Case(f"batch_normalization_{opset}", opset)
        x, value = case.input((1, 4, 3, 5))
        scale, bias = case.weight("scale", (4,)), case.weight("bias", (4,))
        mean, variance = case.weight("mean", (4,)), case.weight("variance", (4,), 0.3, 2)
        case.node("BatchNormalization", [x, "scale", "bias", "mean", "variance"], ["y"],
                  epsilon=1e-3)
        case.expect("y", F.batch_norm(value, mean, variance, scale, bias, eps=single(1e-3)))
        case.save()
    case = Case("instance_normalization", 8)
    x, value = case.input((1, 4, 5, 6))
    scale, bias = case.weight("scale", (4,)), case.weight("bias", (4,))
    case.node("InstanceNormalization", [x, "scale", "bias"], ["y"], epsilon=1e-4)
    case.expect("y", F.instance_norm(value, weight=scale, bias=bias, eps=single(1e-4)))
    case.save()


def gemm(name, opset=13, c_shape=(4,), alpha=None, beta=None, trans_a=0, trans_b=0, rows=1):
    case = Case(f"gemm_{name}", opset)
    x, a = case.input((5, rows) if trans_a else (rows, 5))
    b = case.weight("b", (4, 5) if trans_b else (5, 4))
    names = [x, "b"]
    attributes = {}
    result = (a.T if trans_a else a) @ (b.T if trans_b else b)
    if alpha is not None:
        attributes["alpha"] = alpha
        result = result * single(alpha)
    if c_shape is not None:
        result = result + case.weight("c", c_shape) * (1 if beta is None else single(beta))
        names.append("c")
    if beta is not None:
        attributes["beta"] = beta
    if trans_a:
        attributes["transA"] = 1
    if trans_b:
        attributes["transB"] = 1
    case.node("Gemm", names, ["y"], **attributes)
    case.expect("y", result)
    case.save()


def matrices():
    gemm("plain", 7)
    gemm("transposed_weights", 9, trans_b=1)
    gemm("alpha_beta", alpha=0.3, beta=-1.7, trans_b=1)
    gemm("no_c", 11, c_shape=None)
    gemm("scalar_c", c_shape=(1,), beta=0.5)
    gemm("matrix_c", c_shape=(1, 4))
    gemm("column_c", c_shape=(3, 1), rows=3)
    gemm("three_rows", rows=3, trans_b=1)
    gemm("transposed_input", trans_a=1, rows=3)
    for name, left, right in (("vector", (1, 6), (6, 4)), ("frames", (5, 1, 6), (6, 4)),
                              ("batches", (2, 3, 6), (2, 6, 4))):
        case = Case(f"matmul_{name}", 9 if name == "frames" else 13)
        x, value = case.input(left)
        w = case.weight("w", right)
        case.node("MatMul", [x, "w"], ["y"])
        case.expect("y", value @ w)
        case.save()
    case = Case("matmul_of_inputs", 13)
    (x, a), (y, b) = case.input((3, 4)), case.input((4, 2))
    case.node("MatMul", [x, y], ["z"])
    case.expect("z", a @ b)
    case.save()


def resize(name, function, size=(3, 4), scales=None, sizes=None, opset=13, channels=2, **attributes):
    """`function(x)` is PyTorch's word for it."""
    case = Case(f"resize_{name}", opset)
    x, value = case.input((1, channels, *size))
    if opset < 10:
        op_type = "Upsample"
    else:
        op_type = "Resize"
    names = [x]
    if opset >= 11:
        names.append("" if opset >= 13 else "roi")
        if opset < 13:
            case.constant("roi", np.zeros((0,), np.float32))
    if opset >= 9:
        if sizes is None:
            case.constant("scales", np.array([1, 1, *scales], np.float32))
            names.append("scales")
        else:
            if opset < 13:
                case.constant("scales", np.zeros((0,), np.float32))
            case.constant("sizes", np.array([1, channels, *sizes], np.int64))
            names += ["" if opset >= 13 else "scales", "sizes"]
    else:
        attributes["scales"] = [1.0, 1.0, *map(float, scales)]
    case.node(op_type, names, ["y"], **attributes)
    case.expect("y", function(value))
    case.save()


def interpolate(**options):
    return lambda x: F.interpolate(x, **options)


def resampling():
    nearest = lambda factor: interpolate(scale_factor=factor, mode="nearest")
    linear = lambda factor: interpolate(scale_factor=factor, mode="bilinear", align_corners=False)
    corners = lambda factor: interpolate(scale_factor=factor, mode="bilinear", align_corners=True)
    exact = lambda factor: interpolate(scale_factor=factor, mode="nearest-exact")
    floor = dict(coordinate_transformation_mode="asymmetric", nearest_mode="floor")
    resize("upsample_7_nearest", nearest(2.0), scales=(2, 2), opset=7)
    resize("upsample_9_nearest_4", nearest(4.0), scales=(4, 4), opset=9, mode="nearest")
    resize("10_nearest", nearest(2.0), scales=(2, 2), opset=10)
    resize("nearest_2", nearest(2.0), scales=(2, 2), **floor)
    resize("nearest_3", nearest(3.0), scales=(3, 3), opset=11, **floor)
    resize("nearest_half", nearest(0.5), size=(4, 6), scales=(0.5, 0.5), **floor)
    resize("nearest_2_half_pixel", exact(2.0), scales=(2, 2),
           coordinate_transformation_mode="half_pixel", nearest_mode="round_prefer_ceil")
    resize("nearest_sizes", interpolate(size=(7, 6), mode="nearest-exact"), sizes=(7, 6),
           coordinate_transformation_mode="half_pixel", nearest_mode="round_prefer_ceil")
    resize("nearest_for_nn", exact(2.0), scales=(2, 2), opset=12,
           coordinate_transformation_mode="tf_half_pixel_for_nn", nearest_mode="floor")
    for factor in (2.0, 4.0):
        resize(f"linear_{factor:.0f}", linear(factor), scales=(factor, factor), mode="linear")
        resize(f"linear_{factor:.0f}_corners", corners(factor), scales=(factor, factor), opset=12,
               mode="linear", coordinate_transformation_mode="align_corners")
    resize("linear_8_corners", corners(8.0), size=(2, 3), scales=(8, 8), mode="linear",
           coordinate_transformation_mode="align_corners")
    resize("linear_2_pytorch", linear(2.0), scales=(2, 2), opset=11, mode="linear",
           coordinate_transformation_mode="pytorch_half_pixel")
    resize("linear_2_one_pixel", linear(2.0), size=(1, 1), scales=(2, 2), mode="linear",
           coordinate_transformation_mode="pytorch_half_pixel")
    resize("linear_2_four_channels", linear(2.0), scales=(2, 2), mode="linear", channels=4)
    resize("linear_half", linear(0.5), size=(4, 6), scales=(0.5, 0.5), mode="linear")
    resize("linear_sizes", interpolate(size=(5, 9), mode="bilinear", align_corners=False),
           sizes=(5, 9), mode="linear")
    resize("linear_sizes_double", interpolate(size=(6, 8), mode="bilinear", align_corners=False),
           sizes=(6, 8), opset=11, mode="linear")
    resize("linear_sizes_corners", interpolate(size=(5, 9), mode="bilinear", align_corners=True),
           sizes=(5, 9), mode="linear", coordinate_transformation_mode="align_corners")
    resize("linear_2_3", lambda x: F.interpolate(x, scale_factor=(2.0, 3.0), mode="bilinear"),
           scales=(2, 3), mode="linear")

    # Asymmetric coordinates: those of the corners rule over an input whose last row and column are
    # there twice, cut off behind.
    def asymmetric(x):
        x = F.pad(x, (0, 1, 0, 1), mode="replicate")
        y = F.interpolate(x, size=[2 * (n - 1) + 1 for n in x.shape[2:]], mode="bilinear",
                          align_corners=True)
        return y[..., :-1, :-1]

    resize("upsample_9_linear", asymmetric, scales=(2, 2), opset=9, mode="linear")
    resize("10_linear", asymmetric, scales=(2, 2), opset=10, mode="linear")
    resize("linear_2_asymmetric", asymmetric, scales=(2, 2), mode="linear",
           coordinate_transformation_mode="asymmetric")

    for factor in (2, 3):
        case = Case(f"depth_to_space_crd_{factor}", 11)
        x, value = case.input((1, 2 * factor**2, 2, 3))
        case.node("DepthToSpace", [x], ["y"], blocksize=factor, mode="CRD")
        case.expect("y", F.pixel_shuffle(value, factor))
        case.save()
        for opset, attributes in ((7, {}), (13, {"mode": "DCR"})):
            case = Case(f"depth_to_space_dcr_{factor}_{opset}", opset)
            x, value = case.input((1, 2 * factor**2, 2, 3))
            # PyTorch's order has the channel first.
            channels_first = value.view(1, factor**2, 2, 2, 3).transpose(1, 2).reshape(value.shape)
            case.node("DepthToSpace", [x], ["y"], blocksize=factor, **attributes)
            case.expect("y", F.pixel_shuffle(channels_first, factor))
            case.save()
        case = Case(f"space_to_depth_{factor}", 13)
        x, value = case.input((1, 2, 2 * factor, 3 * factor))
        case.node("SpaceToDepth", [x], ["y"], blocksize=factor)
        shuffled = F.pixel_unshuffle(value, factor)
        case.expect("y", shuffled.view(1, 2, factor**2, 2, 3).transpose(1, 2)
                    .reshape(shuffled.shape))
        case.save()


def onnx_gates(array):
    """PyTorch's gates (input, forget, cell, output) in ONNX's order (input, output, forget,
    cell)."""
    i, f, g, o = array.chunk(4)
    return torch.cat([i, o, f, g])


def lstm(name, direction="forward", steps=5, batch=1, inputs=3, units=4, bias=True, opset=13,
         initial=False, outputs="y", batch_first=False, lengths=None):
    case = Case(f"lstm_{name}", opset)
    directions = 2 if direction == "bidirectional" else 1
    shape = (batch, steps, inputs) if batch_first else (steps, batch, inputs)
    x, value = case.input(shape)
    module = torch.nn.LSTM(inputs, units, bias=bias, bidirectional=directions == 2,
                           batch_first=batch_first).double()
    w, r, b = [], [], []
    with torch.no_grad():
        for suffix in ["", "_reverse"][:directions]:
            for kind, size, to in (("weight_ih", inputs, w), ("weight_hh", units, r)):
                values = case.numbers((4 * units, size))
                getattr(module, f"{kind}_l0{suffix}").copy_(values)
                to.append(onnx_gates(values))
            if bias:
                pair = [case.numbers((4 * units,)) for _ in range(2)]
                getattr(module, f"bias_ih_l0{suffix}").copy_(pair[0])
                getattr(module, f"bias_hh_l0{suffix}").copy_(pair[1])
                b.append(torch.cat([onnx_gates(values) for values in pair]))
    stacked = lambda parts: torch.stack(parts).numpy().astype(np.float32)
    case.constant("w", stacked(w))
    case.constant("r", stacked(r))
    names = [x, "w", "r", "b" if bias else ""]
    if bias:
        case.constant("b", stacked(b))
    state = None
    if initial or lengths:
        names.append("lengths" if lengths else "")
    if lengths:
        case.constant("lengths", np.array(lengths, np.int32))
    if initial:
        h = case.weight("h", (directions, batch, units))
        c = case.weight("c", (directions, batch, units))
        names += ["h", "c"]
        state = (h, c)
    while names[-1] == "":
        names.pop()
    attributes = {"hidden_size": units}
    if direction != "forward":
        attributes["direction"] = direction
    if batch_first:
        attributes["layout"] = 1
    case.node("LSTM", names, [out if out in outputs.split() else "" for out in
                              ("y", "y_h", "y_c")], **attributes)
    axis = 1 if batch_first else 0
    with torch.no_grad():
        if lengths:
            packed = torch.nn.utils.rnn.pack_padded_sequence(value, lengths, enforce_sorted=False)
            y, (h_n, c_n) = module(packed, state)
            y, _ = torch.nn.utils.rnn.pad_packed_sequence(y, total_length=steps)
        else:
            y, (h_n, c_n) = module(value.flip(axis) if direction == "reverse" else value, state)
            if direction == "reverse":
                y = y.flip(axis)
    y = y.reshape(*y.shape[:2], directions, units)
    results = {"y": y if batch_first else y.transpose(1, 2), "y_h": h_n, "y_c": c_n}
    for out in outputs.split():
        result = results[out]
        if batch_first and out != "y":
            result = result.transpose(0, 1)
        case.expect(out, result.contiguous())
    case.save()


def recurrent():
    lstm("forward", opset=7)
    lstm("reverse", "reverse")
    lstm("bidirectional", "bidirectional", opset=11)
    lstm("no_bias", bias=False)
    lstm("bidirectional_no_bias", "bidirectional", bias=False)
    lstm("one_step", steps=1)
    lstm("one_feature", steps=6, inputs=1)
    lstm("initial_state", initial=True)
    lstm("states_out", "bidirectional", outputs="y y_h y_c", initial=True)
    lstm("last_state_only", outputs="y_h")
    lstm("batch_of_2", batch=2, outputs="y y_h")
    lstm("batch_first", "bidirectional", batch=2, opset=14, batch_first=True, outputs="y y_h y_c")
    lstm("sequence_lengths", "bidirectional", batch=3, lengths=[5, 2, 4], outputs="y y_h y_c")
