#!/usr/bin/python3
"""Exports a trained checkpoint as an ONNX file with BatchNorm folded in and
the Sigmoid behind the head; `tarno convert` makes the .zqnet file of it.

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
from network import ConvNorm, SIZE, fold, half_rounded, load
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
    """Puts a convolution with a bias in the place of every ConvNorm's two
    parts."""
    for module in list(network.modules()):
        if isinstance(module, ConvNorm):
            old = module.conv
            weight, bias = fold(module)
            conv = nn.Conv2d(old.in_channels, old.out_channels, old.kernel_size, old.stride,
                             old.padding, groups=old.groups)
            conv.weight.data, conv.bias.data = weight.float(), bias.float()
            module.conv, module.norm = conv, nn.Identity()
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
    parser.add_argument('--check', metavar='PICTURE', help='a 256 x 256 picture')
    options = parser.parse_args()
    try:
        if options.check:
            difference = check(load(options.weights).eval(), options.output, options.check)
            print(f'greatest difference {difference:.3g}')
        else:
            export(folded(load(options.weights).eval()), options.output)
    except (OSError, ValueError) as error:
        sys.exit(f'export: {error}')


if __name__ == '__main__':
    main()
