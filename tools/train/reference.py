#!/usr/bin/python3
"""Reads a .zqnet file and runs it with numpy alone, in double.

A reference for the engines: it shares no code with the exporter nor with any
network library.  Blobs are (height, width, channels).  As a program:

    reference.py MODEL PICTURE [--mask OUT.npy] [--picture-out OUT.png]
    reference.py --reduce FRAME OUT.png

The first runs a 256 x 256 picture and writes its mask, float32 (256, 256), or
as a grey picture.  The second halves a 512 x 512 picture by averaging 2 x 2
pixels, halves rounded up.
"""

import argparse
import struct
import sys

import numpy as np
from PIL import Image

MEANS = np.array([0.485, 0.456, 0.406])


class Reader:
    """Takes little-endian values off a byte string, one after the other."""

    def __init__(self, data):
        self.data, self.at = data, 0

    def u16(self, count=None):
        values = struct.unpack_from(f'<{count or 1}H', self.data, self.at)
        self.at += 2 * (count or 1)
        return values[0] if count is None else values

    def half(self, count):
        values = np.frombuffer(self.data, '<f2', count, self.at).astype(np.float64)
        self.at += 2 * count
        return values

    def shape(self, base):
        scale_x, scale_y = self.half(2)
        return round(base[1] * scale_y), round(base[0] * scale_x), self.u16()

    def done(self):
        return self.at == len(self.data)


def read(path):
    """Returns the layers of a file as dictionaries, in file order."""
    with open(path, 'rb') as file:
        data = file.read()
    if len(data) < 1000:
        raise ValueError(f'{path}: shorter than a header')
    words = struct.unpack_from('<250I', data)
    if words[0] != 0x5555 or words[249] != 0xAAAA or words[1] != 10011:
        raise ValueError(f'{path}: not a network file of version 10011')
    base = words[5], words[6]
    reader, layers = Reader(data[1000:]), []
    while not reader.done():
        if reader.u16() != 0x5555:
            raise ValueError(f'{path}: a record without head marker')
        kind = reader.u16()
        if kind not in PARSERS:
            raise ValueError(f'{path}: record of unknown type {kind}')
        layer = PARSERS[kind](reader, base)
        if reader.u16() != 0xAAAA:
            raise ValueError(f'{path}: record {layer["id"]} without end marker')
        layers.append(layer)
    return layers


def parse_input(r, base):
    layer = dict(kind='input', id=r.u16(), out=r.shape(base))
    r.u16()
    return layer


def parse_conv(r, base):
    layer = dict(kind='conv', id=r.u16(), bottoms=[r.u16()], out=r.shape(base))
    inputs = r.shape(base)
    kw, kh, pw, ph, sw, sh, dw, dh, has_bias, activation, groups = r.u16(11)
    r.u16(10)
    if (dw, dh, groups, has_bias, pw, sw) != (1, 1, 1, 1, ph, sh):
        raise ValueError('a convolution with options that are not run here')
    out, channels = layer['out'][2], inputs[2]
    weight = r.half(out * kh * kw * channels).reshape(out, kh, kw, channels)
    layer.update(weight=weight, bias=r.half(out), pad=pw, stride=sw, activation=activation)
    return layer


def parse_depthwise(r, base):
    layer = dict(kind='depthwise', id=r.u16(), bottoms=[r.u16()], out=r.shape(base))
    r.shape(base)
    multiplier, kw, kh, pw, ph, sw, sh, dw, dh, has_bias, activation = r.u16(11)
    if (multiplier, dw, dh, has_bias, pw, sw) != (1, 1, 1, 1, ph, sh):
        raise ValueError('a depthwise convolution with options that are not run here')
    channels = layer['out'][2]
    weight = r.half(kh * kw * channels).reshape(kh, kw, channels)
    layer.update(weight=weight, bias=r.half(channels), pad=pw, stride=sw, activation=activation)
    return layer


def parse_sum(r, base):
    layer = dict(kind='sum', id=r.u16())
    count = r.u16()
    layer['bottoms'] = list(r.u16(10)[:count])
    layer['out'] = r.shape(base)
    if r.u16() != 0:
        raise ValueError('an element-wise layer that is no sum')
    layer['activation'] = r.u16()
    return layer


def parse_concat(r, base):
    layer = dict(kind='concat', id=r.u16())
    count = r.u16()
    layer['bottoms'] = list(r.u16(10)[:count])
    for _ in range(10):
        r.shape(base)
    layer['out'] = r.shape(base)
    if r.u16() != 0:
        raise ValueError('a concatenation along another axis than channels')
    return layer


def parse_upsampling(r, base):
    layer = dict(kind='upsampling', id=r.u16(), bottoms=[r.u16()])
    r.shape(base)
    layer['out'] = r.shape(base)
    scale, mode, align = r.half(1)[0], r.u16(), r.u16()
    if (scale, mode, align) != (2.0, 1, 0):
        raise ValueError('an upsampling other than bilinear x2')
    return layer


PARSERS = {0: parse_input, 1: parse_conv, 3: parse_depthwise, 10: parse_sum, 11: parse_concat,
           14: parse_upsampling}


def windows(x, kernel_h, kernel_w, pad, stride, out):
    """Yields (row, column, part) for each tap of a kernel: the part of the
    zero-padded blob that the tap meets, as large as the output."""
    padded = np.pad(x, ((pad, pad), (pad, pad), (0, 0)))
    h, w = out[:2]
    for i in range(kernel_h):
        for j in range(kernel_w):
            yield i, j, padded[i:i + stride * (h - 1) + 1:stride, j:j + stride * (w - 1) + 1:stride]


def activated(x, kind):
    if kind == 0:
        return x
    if kind == 2:
        return np.maximum(x, 0)
    if kind == 4:
        return 1 / (1 + np.exp(-x))
    raise ValueError(f'unknown activation {kind}')


def doubled(x, axis):
    """Bilinear x2 along an axis: sample k of the output lies at (k + 0.5)/2 - 0.5
    of the input, clamped to its first and last sample."""
    n = x.shape[axis]
    at = np.clip((np.arange(2 * n) + 0.5) / 2 - 0.5, 0, n - 1)
    low = np.floor(at).astype(int)
    high = np.minimum(low + 1, n - 1)
    share = (at - low).reshape([-1 if a == axis else 1 for a in range(x.ndim)])
    return x.take(low, axis) * (1 - share) + x.take(high, axis) * share


def run(layers, picture):
    """Returns the last layer's first channel (height, width) for a picture
    (height, width, 3) uint8."""
    blobs = {}
    for layer in layers:
        kind = layer['kind']
        x = [blobs[b] for b in layer.get('bottoms', ())]
        if kind == 'input':
            y = picture / 255.0 - MEANS
        elif kind == 'conv':
            w = layer['weight']
            y = layer['bias'] + sum(
                part @ w[:, i, j].T for i, j, part in
                windows(x[0], w.shape[1], w.shape[2], layer['pad'], layer['stride'], layer['out']))
        elif kind == 'depthwise':
            w = layer['weight']
            y = layer['bias'] + sum(
                part * w[i, j] for i, j, part in
                windows(x[0], w.shape[0], w.shape[1], layer['pad'], layer['stride'], layer['out']))
        elif kind == 'sum':
            y = x[0] + x[1]
        elif kind == 'concat':
            y = np.concatenate(x, 2)
        else:
            y = doubled(doubled(x[0], 0), 1)
        y = activated(y, layer.get('activation', 0))
        if y.shape != layer['out']:
            raise ValueError(f'layer {layer["id"]} makes {y.shape}, the file says {layer["out"]}')
        blobs[layer['id']] = y
    return y[..., 0]


def read_picture(path):
    picture = np.asarray(Image.open(path).convert('RGB'))
    if picture.shape != (256, 256, 3):
        raise ValueError(f'{path}: not 256 x 256')
    return picture


def reduced(picture):
    """Averages 2 x 2 pixels of an RGB picture, halves rounded up."""
    h, w, _ = picture.shape
    total = picture.astype(np.uint32).reshape(h // 2, 2, w // 2, 2, 3).sum((1, 3))
    return ((total + 2) // 4).astype(np.uint8)


def main():
    parser = argparse.ArgumentParser(description='Run a .zqnet file in double.')
    parser.add_argument('model', help='the model, or the frame with --reduce')
    parser.add_argument('picture', help='the picture, or the output with --reduce')
    parser.add_argument('--reduce', action='store_true')
    parser.add_argument('--mask', metavar='OUT.npy')
    parser.add_argument('--picture-out', metavar='OUT.png')
    options = parser.parse_args()
    try:
        if options.reduce:
            frame = np.asarray(Image.open(options.model).convert('RGB'))
            Image.fromarray(reduced(frame)).save(options.picture)
            return
        mask = run(read(options.model), read_picture(options.picture))
        if options.mask:
            np.save(options.mask, mask.astype('<f4'))
        if options.picture_out:
            Image.fromarray((mask * 255 + 0.5).astype(np.uint8)).save(options.picture_out)
    except (OSError, ValueError, struct.error) as error:
        sys.exit(f'reference: {error}')


if __name__ == '__main__':
    main()
