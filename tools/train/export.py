#!/usr/bin/python3
"""Exports a trained checkpoint as a .zqnet file with BatchNorm folded in.

With --check PICTURE it reads the file back with reference.py, runs it in
double on the picture and prints the greatest difference from torch, which runs
the same rounded weights in float32.
"""

import argparse
import sys

import numpy as np
import torch

import reference
from network import SIZE, fold, half_rounded, load
from train import network_input
from zqnet_writer import RELU, SIGMOID, Writer

BACKGROUND_SEGMENTATION = 3
MODEL_ID = BACKGROUND_SEGMENTATION * 100_000_000 + 1_000_001      # version 1.0.1


def conv_norm(writer, bottom, block):
    """Writes a ConvNorm; gives the id of its blob."""
    weight, bias = (t.numpy() for t in fold(block))
    write = writer.depthwise if block.conv.groups > 1 else writer.conv
    return write(bottom, weight, bias, block.conv.stride[0], RELU if block.relu else 0)


def residual(writer, bottom, block):
    x = conv_norm(writer, conv_norm(writer, bottom, block.depthwise), block.pointwise)
    return writer.add(bottom, x, RELU)


def export(network, path):
    """Writes the network; the order of records follows SegmentationNet.forward."""
    writer = Writer(SIZE, SIZE, BACKGROUND_SEGMENTATION, MODEL_ID)
    x = conv_norm(writer, writer.input(3), network.stem)
    for block in network.stages[0]:
        x = residual(writer, x, block)
    skips = []
    for down, stage in zip(network.downs, list(network.stages)[1:]):
        skips.append(x)
        x = conv_norm(writer, conv_norm(writer, x, down.depthwise), down.pointwise)
        for block in stage:
            x = residual(writer, x, block)
    for up in reversed(network.ups):
        x = writer.upsample(conv_norm(writer, x, up.reduce))
        x = conv_norm(writer, writer.concat(x, skips.pop()), up.fuse)
        x = residual(writer, x, up.block)
    x = writer.upsample(x)
    writer.conv(x, network.head.weight.detach().numpy(), network.head.bias.detach().numpy(),
                activation=SIGMOID)
    writer.save(path)


def main():
    parser = argparse.ArgumentParser(description='Export a checkpoint as a .zqnet file.')
    parser.add_argument('checkpoint')
    parser.add_argument('output')
    parser.add_argument('--check', metavar='PICTURE', help='a 256 x 256 picture')
    options = parser.parse_args()
    try:
        network = load(options.checkpoint).eval()
        export(network, options.output)
        if options.check:
            picture = reference.read_picture(options.check)
            expected = reference.run(reference.read(options.output), picture)
            with torch.no_grad():
                x = network_input(torch.from_numpy(picture.copy())[None])
                mask = torch.sigmoid(half_rounded(network)(x))[0, 0].numpy()
            print(f'greatest difference {np.abs(mask - expected).max():.3g}')
    except (OSError, ValueError) as error:
        sys.exit(f'export: {error}')


if __name__ == '__main__':
    main()
