"""Numbers that Python and C++ make alike.

A tensor is described by a rule, one line of text: `uniform SEED LOW HIGH`. Element i in C order is
LOW + (HIGH - LOW) * u(SEED, i), computed in double and rounded to float, where u is a fraction of
24 bits. Rules stand in the `doc_string` of a graph's inputs and of initializers without data; C++
reads them in tests/support/onnx_fill.h.
"""

import numpy as np


def mix(word):
    """Scatters 32 bits; a bijection."""
    word = word.astype(np.uint32)
    word ^= word >> np.uint32(16)
    word *= np.uint32(0x7FEB352D)
    word ^= word >> np.uint32(15)
    word *= np.uint32(0x846CA68B)
    word ^= word >> np.uint32(16)
    return word


def uniform(seed, low, high, shape):
    count = int(np.prod(shape, dtype=np.int64))
    start = mix(np.array([seed], np.uint32))
    fraction = (mix(np.arange(count, dtype=np.uint32) + start) >> np.uint32(8)) / 2.0**24
    return (low + (high - low) * fraction).astype(np.float32).reshape(shape)


def rule(seed, low, high):
    return f"uniform {seed} {float(low)!r} {float(high)!r}"


def from_rule(text, shape):
    kind, seed, low, high = text.split()
    assert kind == "uniform", text
    return uniform(int(seed), float(low), float(high), shape)
