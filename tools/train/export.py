#!/usr/bin/python3
"""Exports a trained checkpoint as an ONNX file with BatchNorm folded in and
the Sigmoid behind the head; `tarno convert` makes the .zqnet file of it.

With --from-model the weights are those of a model file, for when the
checkpoint is gone: halves are floats, so that converting what comes out gives
the same file again.

With --check PICTURE a model file, already converted, is read with reference.py
and run in double on the picture; the greatest difference from torch, which runs
the rounded weights in float32, is printed.
"""

import argparse
import sys

import numpy as np
import torch
from torch import nn

import reference
from network import ConvNorm, SegmentationNet, SIZE, fold, half_rounded, load
from train import network_input

OPSET = 13


class Deployed(nn.Module):
    """The network with a mask from 0 to 1 for its output."""

    def __init__(self, network):
        super().__init__()
        self.network = network

    def forward(self, x):
        return torch.sigmoid(self.network(x))


def folded(network):
    """Puts convolutions with a bias in the place of every ConvNorm's two
    parts."""
    for module in list(network.modules()):
        if isinstance(module, ConvNorm):
            weight, bias = fold(module)
            replace(module, weight.float(), bias.float())
    return network


def replace(block, weight, bias):
    old = block.conv
    conv = nn.Conv2d(old.in_channels, old.out_channels, old.kernel_size, old.stride, old.padding,
                     groups=old.groups)
    conv.weight.data, conv.bias.data = weight, bias
    block.conv, block.norm = conv, nn.Identity()


def from_model(path):
    """The network with the weights of a model file, whose records follow
    SegmentationNet.forward."""
    network = SegmentationNet().eval()
    order = []
    for module in network.modules():
        if isinstance(module, ConvNorm) or module is network.head:
            module.register_forward_hook(lambda block, *_: order.append(block))
    with torch.no_grad():
        network(torch.zeros(1, 3, SIZE, SIZE))
    layers = [layer for layer in reference.read(path) if 'weight' in layer]
    if len(layers) != len(order):
        raise ValueError(f'{path}: {len(layers)} layers with weights, not {len(order)}')
    for layer, block in zip(layers, order):
        weight = layer['weight']        # (o, kh, kw, i), depthwise (kh, kw, o)
        weight = (weight.transpose(2, 0, 1)[:, None] if layer['kind'] == 'depthwise'
                  else weight.transpose(0, 3, 1, 2))
        weight, bias = (torch.tensor(np.ascontiguousarray(a), dtype=torch.float32)
                        for a in (weight, layer['bias']))
        if block is network.head:
            block.weight.data, block.bias.data = weight, bias
        else:
            replace(block, weight, bias)
    for module in network.modules():
        module._forward_hooks.clear()
    return network


def export(network, path):
    torch.onnx.export(Deployed(network).eval(), torch.zeros(1, 3, SIZE, SIZE), path,
                      opset_version=OPSET, input_names=['picture'], output_names=['mask'])


def check(network, model, picture):
    picture = reference.read_picture(picture)
    expected = reference.run(reference.read(model), picture)
    with torch.no_grad():
        x = network_input(torch.from_numpy(picture.copy())[None])
        mask = torch.sigmoid(half_rounded(network)(x))[0, 0].numpy()
    return np.abs(mask - expected).max()


def main():
    parser = argparse.ArgumentParser(description='Export a checkpoint as an ONNX file.')
    parser.add_argument('weights', help='a checkpoint of train.py')
    parser.add_argument('output', help='the ONNX file, or with --check the converted model')
    parser.add_argument('--from-model', action='store_true',
                        help='the weights are those of a model file')
    parser.add_argument('--check', metavar='PICTURE', help='a 256 x 256 picture')
    options = parser.parse_args()
    try:
        if options.check:
            difference = check(load(options.weights).eval(), options.output, options.check)
            print(f'greatest difference {difference:.3g}')
        elif options.from_model:
            export(from_model(options.weights), options.output)
        else:
            export(folded(load(options.weights).eval()), options.output)
    except (OSError, ValueError) as error:
        sys.exit(f'export: {error}')


if __name__ == '__main__':
    main()
