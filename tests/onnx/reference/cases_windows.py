"""Convolutions and poolings."""

import torch
import torch.nn.functional as F

from case import Case


def same(size, kernel, stride, dilation, upper):
    """Padding that keeps size / stride pixels, (begin, end)."""
    total = max(0, ((size + stride - 1) // stride - 1) * stride + (kernel - 1) * dilation + 1 - size)
    small, large = total // 2, total - total // 2
    return (small, large) if upper else (large, small)


def padded(x, rows, columns, value=0.0):
    return F.pad(x, (*columns, *rows), value=value)


def conv(name, channels, filters, size, kernel, opset=13, strides=(1, 1), pads=(0, 0, 0, 0),
         dilations=(1, 1), groups=1, bias=True, auto_pad=None, defaults=False, batch=1):
    case = Case(f"conv_{name}", opset)
    x, value = case.input((batch, channels, *size))
    w = case.weight("w", (filters, channels // groups, *kernel))
    names = [x, "w"]
    b = None
    if bias:
        b = case.weight("b", (filters,))
        names.append("b")
    rows, columns = (pads[0], pads[2]), (pads[1], pads[3])
    attributes = dict(kernel_shape=kernel, strides=strides, dilations=dilations, group=groups)
    if auto_pad:
        attributes["auto_pad"] = auto_pad
        if auto_pad != "VALID":
            rows, columns = (same(size[i], kernel[i], strides[i], dilations[i],
                                  auto_pad == "SAME_UPPER") for i in (0, 1))
    else:
        attributes["pads"] = pads
    if defaults:
        attributes = {}
    case.node("Conv", names, ["y"], **attributes)
    case.expect("y", F.conv2d(padded(value, rows, columns), w, b, strides, 0, dilations, groups))
    case.save()


def convolutions():
    conv("3x3", 3, 4, (6, 7), (3, 3), opset=7, pads=(1, 1, 1, 1))
    conv("3x3_stride_2", 3, 4, (8, 8), (3, 3), opset=8, strides=(2, 2), pads=(1, 1, 1, 1))
    conv("3x3_stride_2_odd", 3, 4, (7, 9), (3, 3), opset=9, strides=(2, 2), pads=(1, 1, 1, 1))
    conv("3x3_no_padding", 2, 3, (6, 5), (3, 3), opset=10)
    conv("1x1", 5, 3, (4, 4), (1, 1), opset=11)
    conv("1x1_stride_2", 4, 4, (6, 6), (1, 1), strides=(2, 2))
    conv("5x5", 2, 3, (7, 6), (5, 5), opset=12, pads=(2, 2, 2, 2))
    conv("7x7_stride_2", 3, 4, (12, 12), (7, 7), strides=(2, 2), pads=(3, 3, 3, 3))
    conv("1x3", 2, 3, (5, 6), (1, 3), pads=(0, 1, 0, 1))
    conv("3x1", 2, 3, (5, 6), (3, 1), pads=(1, 0, 1, 0))
    conv("2x2", 2, 3, (6, 6), (2, 2), opset=14)
    conv("strides_2_1", 2, 3, (8, 6), (3, 3), opset=15, strides=(2, 1), pads=(1, 1, 1, 1))
    conv("stride_3", 2, 3, (9, 9), (3, 3), strides=(3, 3))
    conv("dilation_2", 2, 3, (8, 8), (3, 3), opset=16, pads=(2, 2, 2, 2), dilations=(2, 2))
    conv("dilations_1_3", 2, 3, (7, 9), (3, 3), pads=(1, 3, 1, 3), dilations=(1, 3))
    conv("groups_2", 4, 6, (5, 5), (3, 3), opset=17, pads=(1, 1, 1, 1), groups=2)
    conv("groups_4_1x1", 8, 8, (4, 4), (1, 1), groups=4)
    conv("depthwise", 4, 4, (6, 6), (3, 3), pads=(1, 1, 1, 1), groups=4)
    conv("depthwise_stride_2", 4, 4, (8, 8), (3, 3), strides=(2, 2), pads=(1, 1, 1, 1), groups=4)
    conv("depthwise_5x5", 3, 3, (7, 7), (5, 5), pads=(2, 2, 2, 2), groups=3)
    conv("depthwise_multiplier_2", 3, 6, (5, 5), (3, 3), pads=(1, 1, 1, 1), groups=3)
    conv("no_bias", 3, 4, (5, 5), (3, 3), pads=(1, 1, 1, 1), bias=False)
    conv("asymmetric_end", 2, 3, (8, 8), (3, 3), strides=(2, 2), pads=(0, 0, 1, 1))
    conv("asymmetric_begin", 2, 3, (6, 6), (3, 3), pads=(2, 1, 0, 1))
    conv("asymmetric_depthwise", 3, 3, (8, 8), (3, 3), strides=(2, 2), pads=(0, 0, 1, 1), groups=3)
    conv("same_upper", 2, 3, (6, 6), (3, 3), auto_pad="SAME_UPPER")
    conv("same_upper_stride_2", 2, 3, (8, 8), (3, 3), strides=(2, 2), auto_pad="SAME_UPPER")
    conv("same_upper_2x2", 2, 3, (6, 5), (2, 2), auto_pad="SAME_UPPER")
    conv("same_upper_dilated", 2, 3, (7, 7), (3, 3), dilations=(2, 2), auto_pad="SAME_UPPER")
    conv("same_lower_stride_2", 2, 3, (8, 7), (3, 3), strides=(2, 2), auto_pad="SAME_LOWER")
    conv("valid", 2, 3, (6, 6), (3, 3), strides=(2, 2), auto_pad="VALID")
    conv("attributes_left_out", 2, 3, (5, 5), (3, 3), defaults=True)
    conv("batch_of_2", 2, 3, (4, 5), (3, 3), pads=(1, 1, 1, 1), batch=2)

    case = Case("conv_one_axis")
    x, value = case.input((1, 3, 10))
    w = case.weight("w", (4, 3, 3))
    b = case.weight("b", (4,))
    case.node("Conv", [x, "w", "b"], ["y"], pads=[1, 1], strides=[2])
    case.expect("y", F.conv1d(value, w, b, 2, 1))
    case.save()


def transposed(name, channels, filters, size, kernel, opset=13, stride=1, pad=0, extra=0,
               groups=1, dilation=1, bias=True, crop=None, **attributes):
    """`crop` are the pads of the file, [top, left, bottom, right], where PyTorch has no word for
    them: it computes without padding and the result is cut."""
    case = Case(f"conv_transpose_{name}", opset)
    x, value = case.input((1, channels, *size))
    w = case.weight("w", (channels, filters // groups, *kernel))
    names = [x, "w"]
    b = None
    if bias:
        b = case.weight("b", (filters,))
        names.append("b")
    whole = F.conv_transpose2d(value, w, b, stride, pad, extra, groups, dilation)
    if crop:
        whole = whole[..., crop[0]:whole.shape[2] - crop[2], crop[1]:whole.shape[3] - crop[3]]
    if not attributes:
        attributes["pads"] = crop or [pad] * 4
    if extra:
        attributes["output_padding"] = [extra] * 2
    if dilation != 1:
        attributes["dilations"] = [dilation] * 2
    case.node("ConvTranspose", names, ["y"], kernel_shape=kernel, strides=[stride] * 2,
              group=groups, **attributes)
    case.expect("y", whole)
    case.save()


def transposed_convolutions():
    transposed("4x4_stride_2", 4, 3, (4, 5), (4, 4), opset=7, stride=2, pad=1)
    transposed("3x3_stride_2", 4, 3, (4, 5), (3, 3), opset=9, stride=2, pad=1, extra=1)
    transposed("3x3_stride_2_no_output_padding", 4, 3, (4, 4), (3, 3), stride=2, pad=1)
    transposed("3x3_stride_1", 4, 3, (4, 5), (3, 3), opset=11, pad=1)
    transposed("2x2_stride_2", 4, 3, (4, 4), (2, 2), stride=2)
    transposed("3x3_no_padding", 2, 3, (4, 4), (3, 3))
    transposed("5x5_stride_3", 2, 3, (3, 4), (5, 5), stride=3, pad=1)
    transposed("groups_2", 4, 6, (4, 4), (4, 4), stride=2, pad=1, groups=2)
    transposed("depthwise", 3, 3, (4, 4), (4, 4), stride=2, pad=1, groups=3)
    transposed("depthwise_multiplier_2", 3, 6, (4, 4), (4, 4), stride=2, pad=1, groups=3)
    transposed("dilation_2", 2, 3, (4, 4), (3, 3), pad=2, dilation=2)
    transposed("no_bias", 3, 2, (4, 4), (4, 4), stride=2, pad=1, bias=False)
    transposed("asymmetric", 3, 2, (4, 4), (3, 3), stride=2, crop=[0, 0, 1, 1])
    transposed("output_shape", 3, 2, (4, 4), (4, 4), stride=2, pad=1, output_shape=[8, 8])
    transposed("same_upper", 3, 2, (4, 4), (3, 3), stride=2, crop=[0, 0, 1, 1],
               auto_pad="SAME_UPPER")
    transposed("same_lower", 3, 2, (4, 4), (3, 3), stride=2, crop=[1, 1, 0, 0],
               auto_pad="SAME_LOWER")
    transposed("valid", 3, 2, (4, 4), (3, 3), stride=2, auto_pad="VALID")


def pool(name, kind, size, kernel, opset=13, strides=(1, 1), pads=(0, 0, 0, 0), dilations=(1, 1),
         low=-2, high=2, auto_pad=None, ceil=False, include=None, channels=3):
    """Asymmetric padding is made explicit; PyTorch then counts it or not by a mask of ones."""
    case = Case(f"{kind}_pool_{name}", opset)
    x, value = case.input((1, channels, *size), low, high)
    rows, columns = (pads[0], pads[2]), (pads[1], pads[3])
    attributes = dict(kernel_shape=kernel, strides=strides)
    if auto_pad:
        attributes["auto_pad"] = auto_pad
        if auto_pad != "VALID":
            rows, columns = (same(size[i], kernel[i], strides[i], 1, auto_pad == "SAME_UPPER")
                             for i in (0, 1))
    elif any(pads):
        attributes["pads"] = pads
    if dilations != (1, 1):
        attributes["dilations"] = dilations
    if ceil:
        attributes["ceil_mode"] = 1
    if include is not None:
        attributes["count_include_pad"] = int(include)
    symmetric = rows[0] == rows[1] and columns[0] == columns[1] and max(
        2 * rows[0] - kernel[0], 2 * columns[0] - kernel[1]) <= 0
    if kind == "max":
        outer = padded(value, rows, columns, float("-inf"))
        expected = F.max_pool2d(outer, kernel, strides, 0, dilations, ceil)
    elif symmetric:
        expected = F.avg_pool2d(value, kernel, strides, (rows[0], columns[0]), ceil, bool(include))
    else:
        expected = F.avg_pool2d(padded(value, rows, columns), kernel, strides, 0, ceil)
        if not include:
            ones = padded(torch.ones_like(value), rows, columns)
            expected = expected / F.avg_pool2d(ones, kernel, strides, 0, ceil)
    case.node("MaxPool" if kind == "max" else "AveragePool", [x], ["y"], **attributes)
    case.expect("y", expected)
    case.save()


def poolings():
    for kind in ("max", "average"):
        pool("2x2", kind, (6, 8), (2, 2), opset=7, strides=(2, 2))
        pool("2x2_odd", kind, (7, 5), (2, 2), opset=8, strides=(2, 2))
        pool("3x3_stride_2", kind, (8, 8), (3, 3), opset=9, strides=(2, 2), pads=(1, 1, 1, 1))
        pool("3x3_stride_2_odd", kind, (7, 9), (3, 3), strides=(2, 2), pads=(1, 1, 1, 1))
        pool("3x3_stride_1", kind, (5, 6), (3, 3), opset=10, pads=(1, 1, 1, 1))
        pool("3x3_no_padding", kind, (7, 7), (3, 3), strides=(2, 2))
        pool("2x3", kind, (6, 6), (2, 3), opset=11, strides=(2, 3))
        pool("ceil", kind, (8, 8), (3, 3), opset=11, strides=(2, 2), ceil=True)
        pool("ceil_2x2_odd", kind, (7, 7), (2, 2), opset=12, strides=(2, 2), ceil=True)
        pool("ceil_padded", kind, (8, 8), (3, 3), strides=(2, 2), pads=(1, 1, 1, 1), ceil=True)
        pool("asymmetric_end", kind, (6, 6), (2, 2), strides=(2, 2), pads=(0, 0, 1, 1))
        pool("asymmetric_begin", kind, (6, 6), (3, 3), opset=14, strides=(1, 1), pads=(1, 0, 0, 1))
        pool("same_upper", kind, (7, 6), (3, 3), opset=16, strides=(2, 2), auto_pad="SAME_UPPER")
        pool("same_upper_2x2", kind, (5, 5), (2, 2), auto_pad="SAME_UPPER")
        pool("same_lower", kind, (6, 6), (3, 3), opset=17, strides=(2, 2), auto_pad="SAME_LOWER")
        pool("valid", kind, (6, 6), (3, 3), strides=(2, 2), auto_pad="VALID")
        pool("whole", kind, (4, 6), (4, 6))
    pool("all_negative", "max", (7, 7), (3, 3), strides=(2, 2), pads=(1, 1, 1, 1), low=-3, high=-1)
    pool("all_positive", "max", (7, 7), (3, 3), strides=(2, 2), pads=(1, 1, 1, 1), low=1, high=3)
    pool("dilated", "max", (8, 8), (2, 2), strides=(2, 2), dilations=(2, 2))
    pool("3x3_with_padding", "average", (6, 6), (3, 3), pads=(1, 1, 1, 1), include=True)
    pool("stride_2_with_padding", "average", (7, 7), (3, 3), strides=(2, 2), pads=(1, 1, 1, 1),
         include=True)
    pool("ceil_with_padding", "average", (8, 8), (3, 3), strides=(2, 2), pads=(1, 1, 1, 1),
         ceil=True, include=True)
    pool("asymmetric_with_padding", "average", (6, 6), (2, 2), strides=(2, 2), pads=(0, 0, 1, 1),
         include=True)

    for op_type, reduce in (("GlobalMaxPool", torch.amax), ("GlobalAveragePool", torch.mean)):
        case = Case("global_max_pool" if "Max" in op_type else "global_average_pool", 7)
        x, value = case.input((1, 5, 4, 6))
        case.node(op_type, [x], ["y"])
        case.expect("y", reduce(value, (2, 3), keepdim=True))
        case.save()
    for keep in (0, 1):
        case = Case(f"reduce_mean_{'kept' if keep else 'dropped'}", 11)
        x, value = case.input((1, 5, 4, 6))
        case.node("ReduceMean", [x], ["y"], axes=[2, 3] if keep else [-1, -2], keepdims=keep)
        case.expect("y", value.mean((2, 3), keepdim=bool(keep)))
        case.save()
