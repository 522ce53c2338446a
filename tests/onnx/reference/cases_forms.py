"""Forms that exporters write: shape chains, constants, things to fold, several inputs."""

import numpy as np
import torch
import torch.nn.functional as F
from onnx import TensorProto, helper, numpy_helper
from torch import nn

from case import Case, exported, single


EPSILON = single(1e-5)


class Apply(nn.Module):
    def __init__(self, function, *parts):
        super().__init__()
        self.parts = nn.ModuleList(parts)
        self.function = function

    def forward(self, *inputs):
        return self.function(*self.parts, *inputs)


def shapes():
    for axis, opset in ((1, 7), (0, 9), (2, 13), (-2, 13)):
        case = Case(f"flatten_{'minus_2' if axis < 0 else axis}", opset)
        x, value = case.input((1, 2, 3, 4))
        case.node("Flatten", [x], ["y"], axis=axis)
        split = int(np.prod(value.shape[:axis])) if axis else 1
        case.expect("y", value.reshape(split, -1))
        case.save()
    for name, shape, opset in (("row", [1, -1], 7), ("kept", [0, -1], 8), ("all", [-1], 13),
                               ("map", [1, 3, 8, 1], 14)):
        case = Case(f"reshape_{name}", opset)
        x, value = case.input((1, 2, 3, 4))
        case.constant("shape", np.array(shape, np.int64))
        case.node("Reshape", [x, "shape"], ["y"])
        case.expect("y", value.reshape([1 if n == 0 else n for n in shape]))
        case.save()
    for opset in (11, 13):
        case = Case(f"squeeze_{opset}", opset)
        x, value = case.input((1, 5, 1, 1))
        t = case.weight("t", (5, 3))
        if opset < 13:
            case.node("Squeeze", [x], ["s"], axes=[2, 3])
            case.node("Unsqueeze", ["s"], ["u"], axes=[1])
        else:
            case.constant("axes", np.array([-1, -2], np.int64))
            case.node("Squeeze", [x, "axes"], ["s"])
            case.constant("one", np.array([1], np.int64))
            case.node("Unsqueeze", ["s", "one"], ["u"])
        case.node("MatMul", ["u", "t"], ["y"])
        case.expect("y", value.squeeze(3).squeeze(2).unsqueeze(1) @ t)
        case.save()
    case = Case("squeeze_all", 13)
    x, value = case.input((1, 5, 1, 1))
    case.node("Squeeze", [x], ["y"])
    case.expect("y", value.squeeze())
    case.save()
    case = Case("transpose", 13)
    x, value = case.input((1, 2, 3, 4))
    case.node("Transpose", [x], ["y"], perm=[0, 2, 3, 1])
    case.expect("y", value.permute(0, 2, 3, 1))
    case.save()
    for opset in (9, 10, 13):
        case = Case(f"slice_{opset}", opset)
        x, value = case.input((1, 6, 5, 4))
        if opset < 10:
            case.node("Slice", [x], ["y"], starts=[1, 0], ends=[4, -1], axes=[1, 2])
            case.expect("y", value[:, 1:4, :-1])
        else:
            for name, list_ in (("starts", [-1, 1]), ("ends", [-(1 << 63), 1 << 62]),
                                ("axes", [1, -1]), ("steps", [-2, 2])):
                case.constant(name, np.array(list_, np.int64))
            case.node("Slice", [x, "starts", "ends", "axes", "steps"], ["y"])
            case.expect("y", value.flip(1)[:, ::2][..., 1::2])
        case.save()
    for opset in (11, 13):
        case = Case(f"split_{opset}", opset)
        x, value = case.input((1, 6, 2, 3))
        if opset < 13:
            case.node("Split", [x], ["a", "b"], axis=1, split=[2, 4])
        else:
            case.constant("sizes", np.array([2, 4], np.int64))
            case.node("Split", [x, "sizes"], ["a", "b"], axis=1)
        a, b = value.split([2, 4], 1)
        case.node("Relu", ["a"], ["c"])
        case.expect("c", F.relu(a))
        case.expect("b", b)
        case.save()


def paddings():
    for mode, opset in (("constant", 7), ("reflect", 10), ("edge", 11), ("constant", 13)):
        case = Case(f"pad_{mode}_{opset}", opset)
        x, value = case.input((1, 2, 4, 5))
        pads = [0, 0, 1, 2, 0, 0, 2, 1]
        fill = 0.5 if mode == "constant" else 0.0
        if opset < 11:
            attributes = {"value": fill} if mode == "constant" else {}
            case.node("Pad", [x], ["y"], mode=mode, pads=pads, **attributes)
        else:
            case.constant("pads", np.array(pads, np.int64))
            names = [x, "pads"]
            if mode == "constant":
                case.constant("fill", np.array(fill, np.float32))
                names.append("fill")
            case.node("Pad", names, ["y"], mode=mode)
        torch_mode = "replicate" if mode == "edge" else mode
        options = {"value": fill} if mode == "constant" else {}
        case.expect("y", F.pad(value, (2, 1, 1, 2), torch_mode, **options))
        case.save()
    exported("pad_before_conv", nn.Sequential(nn.ZeroPad2d(1), nn.Conv2d(2, 3, 3)), [(1, 2, 5, 6)])
    exported("pad_before_conv_asymmetric",
             nn.Sequential(nn.ZeroPad2d((0, 1, 0, 1)), nn.Conv2d(2, 3, 3, 2)), [(1, 2, 8, 8)],
             opset=11)
    exported("pad_before_padded_conv",
             nn.Sequential(nn.ZeroPad2d(1), nn.Conv2d(2, 3, 5, padding=1)), [(1, 2, 6, 6)])
    exported("pad_before_max_pool", nn.Sequential(nn.ReLU(), nn.ZeroPad2d(1), nn.MaxPool2d(3, 2)),
             [(1, 2, 7, 7)], opset=9)
    exported("pad_before_average_pool", nn.Sequential(nn.ZeroPad2d(1), nn.AvgPool2d(3, 2)),
             [(1, 2, 7, 7)])


def folded():
    for opset in (7, 11, 13, 17):
        exported(f"conv_batchnorm_relu_{opset}",
                 nn.Sequential(nn.Conv2d(3, 4, 3, padding=1, bias=False), nn.BatchNorm2d(4, EPSILON),
                               nn.ReLU()), [(1, 3, 5, 6)], opset=opset,
                 training=torch.onnx.TrainingMode.PRESERVE)
    exported("batchnorm_before_conv",
             nn.Sequential(nn.BatchNorm2d(3, EPSILON), nn.Conv2d(3, 4, 3, padding=1)), [(1, 3, 5, 6)],
             training=torch.onnx.TrainingMode.PRESERVE)
    exported("depthwise_batchnorm_relu6",
             nn.Sequential(nn.Conv2d(4, 4, 3, padding=1, groups=4, bias=False), nn.BatchNorm2d(4, EPSILON),
                           nn.ReLU6()), [(1, 4, 5, 6)], opset=10,
             training=torch.onnx.TrainingMode.PRESERVE)
    exported("transposed_batchnorm_sigmoid",
             nn.Sequential(nn.ConvTranspose2d(4, 2, 4, 2, 1), nn.BatchNorm2d(2, EPSILON), nn.Sigmoid()),
             [(1, 4, 3, 4)], training=torch.onnx.TrainingMode.PRESERVE)
    exported("conv_read_twice",
             Apply(lambda conv, norm, x: (lambda t: norm(t) + t)(conv(x)), nn.Conv2d(2, 3, 3),
                   nn.BatchNorm2d(3, EPSILON)), [(1, 2, 5, 6)],
             training=torch.onnx.TrainingMode.PRESERVE)
    exported("conv_scale_offset",
             Apply(lambda conv, x: conv(x) * 0.25 + 0.5, nn.Conv2d(2, 3, 3, padding=1)),
             [(1, 2, 5, 5)])
    for name, act in (("leaky", nn.LeakyReLU(single(0.1))), ("tanh", nn.Tanh()),
                      ("sigmoid", nn.Sigmoid()), ("relu6", nn.ReLU6()), ("swish", nn.SiLU())):
        exported(f"conv_{name}", nn.Sequential(nn.Conv2d(2, 3, 3, padding=1), act), [(1, 2, 5, 5)],
                 opset=13)

    exported("conv_hardswish", nn.Sequential(nn.Conv2d(2, 3, 3, padding=1), nn.Hardswish()),
             [(1, 2, 5, 5)], opset=14)

    case = Case("identity_and_dropout", 11)
    x, value = case.input((1, 2, 4, 5))
    w = case.weight("w", (3, 2, 3, 3))
    case.node("Identity", [x], ["a"])
    case.node("Identity", ["w"], ["w2"])
    case.node("Conv", ["a", "w2"], ["b"])
    case.node("Dropout", ["b"], ["c"], ratio=0.3)
    case.node("Relu", ["c"], ["d"])
    case.node("Identity", ["d"], ["y"])
    case.expect("y", F.relu(F.conv2d(value, w)))
    case.save()

    case = Case("weights_by_constant_nodes", 9)
    x, value = case.input((1, 2, 4, 5))
    w, b = case.numbers((3, 2, 3, 3)), case.numbers((3,))
    for name, array in (("w", w), ("b", b)):
        case.node("Constant", [], [name],
                  value=numpy_helper.from_array(array.numpy().astype(np.float32), name))
    case.node("Conv", [x, "w", "b"], ["y"])
    case.expect("y", F.conv2d(value, w, b))
    case.save()

    case = Case("weights_computed", 13)
    x, value = case.input((1, 2, 4, 5))
    w = case.weight("w", (2, 3, 3, 3))
    case.constant("two", np.array(2, np.float32))
    case.node("Transpose", ["w"], ["t"], perm=[1, 0, 2, 3])
    case.node("Div", ["t", "two"], ["half"])
    case.node("Conv", [x, "half"], ["y"])
    case.expect("y", F.conv2d(value, w.transpose(0, 1) / 2))
    case.save()

    case = Case("float16_weights", 13)
    x, value = case.input((1, 2, 4, 5))
    w = case.numbers((3, 2, 3, 3)).numpy().astype(np.float16)
    case.constant("w16", w)
    case.node("Cast", ["w16"], ["w"], to=TensorProto.FLOAT)
    case.node("Conv", [x, "w"], ["y"])
    case.expect("y", F.conv2d(value, torch.from_numpy(w.astype(np.float64))))
    case.save()


def blocks():
    dynamic = {"x0": {0: "batch"}}
    for opset in (9, 11, 13):
        exported(f"view_of_size_{opset}",
                 Apply(lambda pool, dense, x: dense(pool(x).view(x.size(0), -1)),
                       nn.AdaptiveAvgPool2d(1), nn.Linear(3, 4)), [(1, 3, 4, 5)], opset=opset,
                 dynamic_axes=dynamic)
    exported("interpolate_to_other",
             Apply(lambda x, y: F.interpolate(x, size=y.shape[2:], mode="bilinear") + y),
             [(1, 2, 3, 4), (1, 2, 6, 8)], opset=12)
    exported("interpolate_to_other_dynamic",
             Apply(lambda x, y: torch.cat([F.interpolate(x, size=y.shape[2:], mode="nearest"), y],
                                          1)), [(1, 2, 3, 4), (1, 3, 6, 8)], opset=13,
             dynamic_axes={"x0": {2: "h", 3: "w"}, "x1": {2: "h2", 3: "w2"}})
    exported("squeeze_and_excite",
             Apply(lambda pool, one, two, x: x * torch.sigmoid(two(F.relu(one(pool(x))))),
                   nn.AdaptiveAvgPool2d(1), nn.Conv2d(4, 2, 1), nn.Conv2d(2, 4, 1)),
             [(1, 4, 5, 6)])
    exported("channel_shuffle",
             Apply(lambda conv, x: conv(x).view(1, 2, 3, 4, 5).transpose(1, 2).reshape(1, 6, 4, 5),
                   nn.Conv2d(6, 6, 1, groups=2)), [(1, 6, 4, 5)])
    exported("residual",
             Apply(lambda one, two, x: F.relu(two(F.relu(one(x))) + x),
                   nn.Conv2d(3, 3, 3, padding=1), nn.Conv2d(3, 3, 3, padding=1)), [(1, 3, 5, 6)],
             opset=8)
    exported("two_inputs_two_outputs",
             Apply(lambda one, two, x, y: (one(x) + two(y), F.relu(two(y))),
                   nn.Conv2d(2, 3, 3, padding=1), nn.Conv2d(4, 3, 1)),
             [(1, 2, 4, 5), (1, 4, 4, 5)])
    exported("output_read_on",
             Apply(lambda one, two, x: (lambda t: (t, two(t)))(one(x)), nn.Conv2d(2, 3, 3),
                   nn.Conv2d(3, 2, 1)), [(1, 2, 5, 6)])
    exported("chunks",
             Apply(lambda conv, x: (lambda a, b: torch.cat([conv(a), b], 1))(*x.chunk(2, 1)),
                   nn.Conv2d(2, 2, 1)), [(1, 4, 3, 4)])
    exported("dense_layers", nn.Sequential(nn.Linear(6, 5), nn.ReLU(), nn.Linear(5, 3),
                                           nn.Softmax(1)), [(1, 6)], opset=9)
    exported("pixel_shuffle", nn.Sequential(nn.Conv2d(2, 8, 3, padding=1), nn.PixelShuffle(2)),
             [(1, 2, 3, 4)], opset=11)
    exported("upsample_then_conv",
             nn.Sequential(nn.Upsample(scale_factor=2, mode="nearest"), nn.Conv2d(2, 2, 3)),
             [(1, 2, 3, 4)], opset=9)
    exported("recurrent_then_dense",
             Apply(lambda cell, dense, x: dense(cell(x)[0]), nn.LSTM(3, 4), nn.Linear(4, 2)),
             [(5, 1, 3)], opset=14)
    exported("recurrent_last_step",
             Apply(lambda cell, dense, x: dense(cell(x)[0][:, -1]),
                   nn.LSTM(1, 4, batch_first=True), nn.Linear(4, 2)), [(1, 6, 1)])
    exported("recurrent_mask",
             Apply(lambda cell, dense, x: x * torch.sigmoid(dense(cell(x)[0])),
                   nn.LSTM(13, 6), nn.Linear(6, 13)), [(4, 1, 13)])
    exported("dense_layers_over_steps",
             nn.Sequential(nn.Linear(8, 6), nn.ReLU(), nn.Linear(6, 5)), [(1, 4, 8)])
