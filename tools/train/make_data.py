#!/usr/bin/python3
"""Makes figures and backgrounds and stores them as two .npy files.

DIR/figures.npy: (n, 288, 288, 4) uint8, colour (not premultiplied) and
coverage; DIR/backgrounds.npy: (m, 288, 288, 3) uint8.  Item i of a split comes
from the seed (split, kind, i) and nothing else, so that more items extend the
same files and the number of processes plays no part.
"""

import argparse
import functools
import multiprocessing
import os
import sys

os.environ.setdefault('OPENBLAS_NUM_THREADS', '1')

import numpy as np

from backgrounds import background
from compose import CANVAS
from figures import figure

SPLITS = {'train': 1, 'held-out': 2}


def make_figure(split, i):
    colour, alpha = figure(np.random.default_rng([split, 1, i]), CANVAS)
    return (np.dstack([colour, alpha]) * 255 + 0.5).astype(np.uint8)


def make_background(split, i):
    colour = background(np.random.default_rng([split, 2, i]), CANVAS)
    return (np.clip(colour, 0, 1) * 255 + 0.5).astype(np.uint8)


def fill(path, make, count, channels, jobs):
    """Writes `count` items made by make(i) into the array file at path."""
    array = np.lib.format.open_memmap(path, 'w+', np.uint8, (count, CANVAS, CANVAS, channels))
    with multiprocessing.Pool(jobs) as pool:
        for i, item in enumerate(pool.imap(make, range(count), chunksize=16)):
            array[i] = item
            if sys.stderr.isatty() and i % 50 == 0:
                print(f'\r{os.path.basename(path)}: {i} of {count}', end='', file=sys.stderr)
    if sys.stderr.isatty():
        print('\r\033[K', end='', file=sys.stderr)
    array.flush()


def main():
    parser = argparse.ArgumentParser(description='Make figures and backgrounds.')
    parser.add_argument('directory')
    parser.add_argument('--split', choices=SPLITS, default='train')
    parser.add_argument('--figures', type=int, default=16000)
    parser.add_argument('--backgrounds', type=int, default=8000)
    parser.add_argument('--jobs', type=int, default=2)
    options = parser.parse_args()
    split = SPLITS[options.split]
    try:
        os.makedirs(options.directory, exist_ok=True)
        fill(os.path.join(options.directory, 'figures.npy'),
             functools.partial(make_figure, split), options.figures, 4, options.jobs)
        fill(os.path.join(options.directory, 'backgrounds.npy'),
             functools.partial(make_background, split), options.backgrounds, 3, options.jobs)
    except OSError as error:
        sys.exit(f'make_data: {error}')


if __name__ == '__main__':
    main()
