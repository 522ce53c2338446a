#!/usr/bin/python3
"""Prints the IoU of a checkpoint on 500 held-out made pictures.

The pictures are compose.pair(0), ..., compose.pair(499) over the held-out
figures and backgrounds, of which training saw none.  Weights and biases are
rounded to IEEE half with BatchNorm folded in, as exported.  IoU is at
threshold 0.5: the mean over pictures (a picture without a person in label and
mask counts 1), and pooled over all pixels.
"""

import argparse
import os
import sys

import numpy as np
import torch

from compose import pair
from network import half_rounded, load
from train import network_input

COUNT = 500


def scores(network, figures, backgrounds):
    """Returns the IoU of each picture, and of all pixels together."""
    each, both_all, either_all = [], 0, 0
    with torch.no_grad():
        for i in range(COUNT):
            picture, label = pair(i, figures, backgrounds)
            logits = network(network_input(torch.from_numpy(picture.copy())[None]))[0, 0].numpy()
            mask, truth = logits > 0, label > 127
            both, either = (mask & truth).sum(), (mask | truth).sum()
            each.append(both / either if either else 1.0)
            both_all, either_all = both_all + both, either_all + either
    return np.array(each), both_all / either_all


def main():
    parser = argparse.ArgumentParser(description='IoU on held-out made pictures.')
    parser.add_argument('data', help='held-out directory that make_data.py wrote')
    parser.add_argument('checkpoint')
    parser.add_argument('--float', action='store_true', help='do not round the weights')
    options = parser.parse_args()
    try:
        network = load(options.checkpoint).eval()
        figures, backgrounds = (np.load(os.path.join(options.data, name), mmap_mode='r')
                                for name in ('figures.npy', 'backgrounds.npy'))
    except (OSError, ValueError) as error:
        sys.exit(f'evaluate: {error}')
    each, pooled = scores(network if options.float else half_rounded(network), figures, backgrounds)
    print(f'mean IoU {each.mean():.4f}  pooled IoU {pooled:.4f}  '
          f'median {np.median(each):.4f}  lowest tenth below {np.quantile(each, 0.1):.4f}')


if __name__ == '__main__':
    main()
