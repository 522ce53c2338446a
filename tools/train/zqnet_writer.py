"""Writes network description files: a fixed header, then one record a layer.

Everything is little-endian.  The header is 250 u32 words between two markers.
A record is a marker, its type, its payload and an end marker, each u16 where
nothing else is said.  A blob's shape is written as its width and height as
factors of the base size (IEEE half) and its channel count.  Layers have ids in
ascending file order, which is the order they run in; the input has id 0.
Weights and biases are IEEE half.

This module knows nothing of how a network was trained; weights are handed in
as numpy arrays in the usual (out, in, kh, kw) order.
"""

import struct

import numpy as np

HEAD, TAIL = 0x5555, 0xAAAA
VERSION = 10011
INPUT, CONV, DEPTHWISE, ELTWISE, CONCAT, UPSAMPLING = 0, 1, 3, 10, 11, 14
NONE, RELU, SIGMOID = 0, 2, 4


class Writer:
    """Collects records; save() writes the file.

    Each layer method returns the id of the blob that it makes.  The shape of
    blob i is shapes[i] = (width, height, channels) in pixels."""

    def __init__(self, base_width, base_height, application, model_id):
        self.base = base_width, base_height
        words = [0] * 250
        words[0:7] = HEAD, VERSION, 0, application, model_id, base_width, base_height
        words[249] = TAIL
        self.data = bytearray(struct.pack('<250I', *words))
        self.shapes = []

    def save(self, path):
        with open(path, 'wb') as file:
            file.write(self.data)

    def input(self, channels):
        self.shapes.append((*self.base, channels))
        return self._record(INPUT, _u16(0) + self._shape(0) + _u16(0))

    def conv(self, bottom, weight, bias, stride=1, activation=NONE):
        """weight (out, in, kh, kw), bias (out,); the padding is half the kernel."""
        out, inputs, kh, kw = weight.shape
        self._add_strided(bottom, stride, out, inputs)
        top = len(self.shapes) - 1
        payload = (_u16(top, bottom) + self._shape(top) + self._shape(bottom)
                   + _u16(kw, kh, kw // 2, kh // 2, stride, stride, 1, 1, 1, activation, 1)
                   + _u16(*[0] * 10)
                   + _halves(weight.transpose(0, 2, 3, 1)) + _halves(bias))
        return self._record(CONV, payload)

    def depthwise(self, bottom, weight, bias, stride=1, activation=NONE):
        """weight (channels, 1, kh, kw), bias (channels,)."""
        channels, _, kh, kw = weight.shape
        self._add_strided(bottom, stride, channels, channels)
        top = len(self.shapes) - 1
        payload = (_u16(top, bottom) + self._shape(top) + self._shape(bottom)
                   + _u16(1, kw, kh, kw // 2, kh // 2, stride, stride, 1, 1, 1, activation)
                   + _halves(weight[:, 0].transpose(1, 2, 0)) + _halves(bias))
        return self._record(DEPTHWISE, payload)

    def add(self, a, b, activation=NONE):
        """The sum of two blobs of the same shape."""
        if self.shapes[a] != self.shapes[b]:
            raise ValueError(f'sum of {self.shapes[a]} and {self.shapes[b]}')
        self.shapes.append(self.shapes[a])
        top = len(self.shapes) - 1
        return self._record(ELTWISE, _u16(top, 2, a, b, *[0] * 8) + self._shape(top)
                            + _u16(0, activation))

    def concat(self, a, b):
        """Two blobs one after the other along channels."""
        (w, h, m), (w2, h2, n) = self.shapes[a], self.shapes[b]
        if (w, h) != (w2, h2):
            raise ValueError(f'concatenation of {self.shapes[a]} and {self.shapes[b]}')
        self.shapes.append((w, h, m + n))
        top = len(self.shapes) - 1
        return self._record(CONCAT, _u16(top, 2, a, b, *[0] * 8) + self._shape(a)
                            + self._shape(b) + bytes(6 * 8) + self._shape(top) + _u16(0))

    def upsample(self, bottom):
        """Bilinear, twice the sides; edges of pixels, not centres, coincide."""
        w, h, channels = self.shapes[bottom]
        self.shapes.append((2 * w, 2 * h, channels))
        top = len(self.shapes) - 1
        return self._record(UPSAMPLING, _u16(top, bottom) + self._shape(bottom)
                            + self._shape(top) + _halves([2.0]) + _u16(1, 0))

    def _add_strided(self, bottom, stride, out, inputs):
        w, h, channels = self.shapes[bottom]
        if channels != inputs:
            raise ValueError(f'{inputs} input channels over a blob of {channels}')
        self.shapes.append((w // stride, h // stride, out))

    def _shape(self, i):
        w, h, channels = self.shapes[i]
        return _halves([w / self.base[0], h / self.base[1]]) + _u16(channels)

    def _record(self, kind, payload):
        self.data += _u16(HEAD, kind) + payload + _u16(TAIL)
        return len(self.shapes) - 1


def _u16(*values):
    return struct.pack(f'<{len(values)}H', *values)


def _halves(values):
    halves = np.ascontiguousarray(values).astype('<f2')
    if not np.isfinite(halves).all():
        raise ValueError('a value does not fit IEEE half')
    return halves.tobytes()
