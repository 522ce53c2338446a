"""The segmentation network and its bare counterpart without BatchNorm.

Input (n, 3, 256, 256): pixel/255 less the channel means, no division by a
standard deviation.  Output (n, 1, 256, 256): the logit of "person"; the
Sigmoid is fused into the last convolution at export.

A U-shaped encoder-decoder.  Every block is a depthwise 3 x 3 convolution
followed by a 1 x 1 convolution, with a residual sum where shapes allow it.
The encoder halves the picture six times, down to 4 x 4, so that the innermost
blocks see the whole picture.  Channel counts are multiples of 4 except at the
two ends.
"""

import copy
import pickle

import torch
from torch import nn

SIZE = 256
MEANS = (0.485, 0.456, 0.406)

# Channels at 128, 64, 32, 16, 8 and 4 pixels a side, and residual blocks there.
WIDTHS = (16, 32, 48, 80, 128, 128)
DEPTHS = (0, 1, 2, 3, 3, 2)


class ConvNorm(nn.Module):
    """Convolution without bias, BatchNorm, and ReLU if asked for."""

    def __init__(self, inputs, outputs, kernel, stride=1, groups=1, relu=True):
        super().__init__()
        self.conv = nn.Conv2d(inputs, outputs, kernel, stride, kernel // 2,
                              groups=groups, bias=False)
        self.norm = nn.BatchNorm2d(outputs)
        self.relu = relu

    def forward(self, x):
        x = self.norm(self.conv(x))
        return torch.relu_(x) if self.relu else x


class Down(nn.Module):
    """Depthwise 3 x 3 with stride 2, then 1 x 1: halves sides, sets channels."""

    def __init__(self, inputs, outputs):
        super().__init__()
        self.depthwise = ConvNorm(inputs, inputs, 3, stride=2, groups=inputs)
        self.pointwise = ConvNorm(inputs, outputs, 1)

    def forward(self, x):
        return self.pointwise(self.depthwise(x))


class Residual(nn.Module):
    """relu(x + pointwise(depthwise(x))), shape unchanged."""

    def __init__(self, channels):
        super().__init__()
        self.depthwise = ConvNorm(channels, channels, 3, groups=channels)
        self.pointwise = ConvNorm(channels, channels, 1, relu=False)

    def forward(self, x):
        return torch.relu(x + self.pointwise(self.depthwise(x)))


class Up(nn.Module):
    """1 x 1 to the skip's channels, bilinear x2, Concat with the skip, 1 x 1,
    one residual block."""

    def __init__(self, inputs, outputs):
        super().__init__()
        self.reduce = ConvNorm(inputs, outputs, 1)
        self.fuse = ConvNorm(2 * outputs, outputs, 1)
        self.block = Residual(outputs)

    def forward(self, x, skip):
        x = upsample(self.reduce(x))
        return self.block(self.fuse(torch.cat((x, skip), 1)))


def upsample(x):
    return nn.functional.interpolate(x, scale_factor=2.0, mode='bilinear',
                                     align_corners=False)


class SegmentationNet(nn.Module):
    """See the module's description."""

    def __init__(self, widths=WIDTHS, depths=DEPTHS):
        super().__init__()
        self.stem = ConvNorm(3, widths[0], 3, stride=2)
        self.downs = nn.ModuleList(
            [Down(a, b) for a, b in zip(widths, widths[1:])])
        self.stages = nn.ModuleList(
            [nn.Sequential(*[Residual(w) for _ in range(n)])
             for w, n in zip(widths, depths)])
        self.ups = nn.ModuleList(
            [Up(b, a) for a, b in zip(widths, widths[1:])])
        self.head = nn.Conv2d(widths[0], 1, 3, padding=1)

    def forward(self, x):
        x = self.stages[0](self.stem(x))
        skips = []
        for down, stage in zip(self.downs, self.stages[1:]):
            skips.append(x)
            x = stage(down(x))
        for up in reversed(self.ups):
            x = up(x, skips.pop())
        return self.head(upsample(x))


def load(path):
    """Returns the network of a checkpoint that train.py wrote; ValueError if
    the file is none."""
    network = SegmentationNet()
    try:
        network.load_state_dict(torch.load(path, map_location='cpu'))
    except (RuntimeError, pickle.UnpicklingError, EOFError, KeyError, TypeError, AttributeError):
        raise ValueError(f'{path}: not a checkpoint of this network') from None
    return network


def fold(block):
    """Returns (weight (o, i, kh, kw), bias (o,)) of a ConvNorm with its
    BatchNorm's running statistics folded in, computed in double."""
    norm = block.norm
    scale = norm.weight.double() / torch.sqrt(norm.running_var.double() + norm.eps)
    weight = block.conv.weight.double() * scale[:, None, None, None]
    bias = norm.bias.double() - norm.running_mean.double() * scale
    return weight.detach(), bias.detach()


def half_rounded(network):
    """Returns a copy for evaluation whose BatchNorms are folded and whose
    weights and biases are rounded to IEEE half, as the exported file has
    them; arithmetic stays float32."""
    copied = copy.deepcopy(network).eval()
    for module in list(copied.modules()):
        if isinstance(module, ConvNorm):
            weight, bias = fold(module)
            old = module.conv
            conv = nn.Conv2d(old.in_channels, old.out_channels, old.kernel_size,
                             old.stride, old.padding, groups=old.groups)
            conv.weight.data = weight.half().float()
            conv.bias.data = bias.half().float()
            module.conv, module.norm = conv, nn.Identity()
    copied.head.weight.data = copied.head.weight.data.half().float()
    copied.head.bias.data = copied.head.bias.data.half().float()
    return copied


def count(network):
    """Returns (parameters after folding, multiply-adds for one picture)."""
    parameters = multiply_adds = 0
    hooks = []

    def hook(module, _, output):
        nonlocal parameters, multiply_adds
        parameters += module.weight.numel() + module.out_channels
        multiply_adds += module.weight.numel() * output.shape[2] * output.shape[3]

    for module in network.modules():
        if isinstance(module, nn.Conv2d):
            hooks.append(module.register_forward_hook(hook))
    was_training = network.training
    with torch.no_grad():
        network.eval()(torch.zeros(1, 3, SIZE, SIZE))
    network.train(was_training)
    for h in hooks:
        h.remove()
    return parameters, multiply_adds
