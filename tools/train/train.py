#!/usr/bin/python3
"""Trains the segmentation network on made pictures.

The picture with number k of a run is compose.pair(FIRST + k, ...): each is
seen once.  Loss: binary cross entropy plus 1 - soft IoU, labels 0 to 1.  Adam
with a one-cycle learning rate; the weights that are kept are an exponential
moving average.  Every --report steps one line goes to the log file: step,
seconds, mean loss, mean IoU at threshold 0.5 of the training batches.

The checkpoint is the network's state_dict (before BatchNorm is folded).
"""

import argparse
import os
import sys
import time

import numpy as np
import torch
from torch.utils.data import DataLoader, Dataset

from compose import pair
from network import MEANS, SegmentationNet, load

FIRST = 1_000_000       # held-out pictures have numbers below 1,000,000


class Pictures(Dataset):
    """count pictures numbered from first on; items are uint8 tensors
    (256, 256, 3) and (256, 256)."""

    def __init__(self, directory, first, count):
        self.first, self.count = first, count
        self.figures, self.backgrounds = (
            np.load(os.path.join(directory, name), mmap_mode='r')
            for name in ('figures.npy', 'backgrounds.npy'))

    def __len__(self):
        return self.count

    def __getitem__(self, i):
        picture, label = pair(self.first + i, self.figures, self.backgrounds)
        return torch.from_numpy(picture.copy()), torch.from_numpy(label)


def network_input(pictures):
    """Turns (n, 256, 256, 3) uint8 into (n, 3, 256, 256) float32, channels
    last in memory: pixel/255 less the means."""
    x = pictures.float() / 255 - torch.tensor(MEANS)
    return x.permute(0, 3, 1, 2)


def loss_of(logits, labels):
    """BCE plus 1 - soft IoU per picture; labels (n, 256, 256) of 0 to 1."""
    logits = logits[:, 0]
    bce = torch.nn.functional.binary_cross_entropy_with_logits(logits, labels)
    p = torch.sigmoid(logits)
    both = (p * labels).sum((1, 2))
    either = p.sum((1, 2)) + labels.sum((1, 2)) - both
    return bce + (1 - (both + 100) / (either + 100)).mean()


def batch_iou(logits, labels):
    """Mean IoU at threshold 0.5; a picture without a person in label and mask
    counts 1."""
    mask, truth = logits[:, 0] > 0, labels > 0.5
    both = (mask & truth).sum((1, 2)).float()
    either = (mask | truth).sum((1, 2)).float()
    return ((both + 1e-6) / (either + 1e-6)).mean().item()


def train(options):
    torch.manual_seed(options.seed)
    torch.set_num_threads(options.threads)
    network = load(options.start) if options.start else SegmentationNet()
    network = network.to(memory_format=torch.channels_last)
    optimizer = torch.optim.AdamW(network.parameters(), options.rate, weight_decay=1e-4)
    schedule = torch.optim.lr_scheduler.OneCycleLR(
        optimizer, options.rate, options.steps, pct_start=options.warmup, final_div_factor=200)
    average = {k: v.clone() for k, v in network.state_dict().items()}
    loader = DataLoader(Pictures(options.data, FIRST + options.skip, options.steps * options.batch),
                        options.batch, num_workers=options.jobs, prefetch_factor=4)
    begun, losses, ious = time.time(), [], []
    for step, (pictures, labels) in enumerate(loader, 1):
        labels = labels.float() / 255
        logits = network(network_input(pictures))
        loss = loss_of(logits, labels)
        optimizer.zero_grad(set_to_none=True)
        loss.backward()
        optimizer.step()
        schedule.step()
        keep = min(0.998, step / (step + 10))
        with torch.no_grad():
            for k, v in network.state_dict().items():
                if v.is_floating_point():
                    average[k].lerp_(v, 1 - keep)
        losses.append(loss.item())
        ious.append(batch_iou(logits, labels))
        last = step == (options.stop or options.steps)
        if step % options.report == 0 or last:
            torch.save(average, options.checkpoint)
            line = (f'step {step} seconds {time.time() - begun:.0f} '
                    f'loss {np.mean(losses):.4f} iou {np.mean(ious):.4f}')
            losses, ious = [], []
            if options.log:
                with open(options.log, 'a') as log:
                    print(line, file=log)
            if sys.stderr.isatty():
                print(line, file=sys.stderr)
        if last:
            break


def main():
    parser = argparse.ArgumentParser(description='Train the segmentation network.')
    parser.add_argument('data', help='directory that make_data.py wrote')
    parser.add_argument('checkpoint', help='file to write, again at every report')
    parser.add_argument('--steps', type=int, default=5000, help='length of the schedule')
    parser.add_argument('--stop', type=int, help='end after so many steps of the schedule')
    parser.add_argument('--batch', type=int, default=16)
    parser.add_argument('--rate', type=float, default=3e-3, help='highest learning rate')
    parser.add_argument('--warmup', type=float, default=0.1, help='share of the steps')
    parser.add_argument('--skip', type=int, default=0, help='pictures to leave out')
    parser.add_argument('--start', help='checkpoint to start from')
    parser.add_argument('--seed', type=int, default=1)
    parser.add_argument('--threads', type=int, default=1)
    parser.add_argument('--jobs', type=int, default=1, help='processes that compose pictures')
    parser.add_argument('--report', type=int, default=200)
    parser.add_argument('--log')
    options = parser.parse_args()
    try:
        train(options)
    except (OSError, ValueError) as error:
        sys.exit(f'train: {error}')


if __name__ == '__main__':
    main()
