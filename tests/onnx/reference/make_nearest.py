#!/usr/bin/python3
"""Writes nearest_indices.txt: which pixel of a row PyTorch takes for each pixel of the row that it
makes by a fractional scale. A line is "size scale: indices".

    /usr/bin/python3 make_nearest.py

Needs Debian's python3-torch.
"""

import pathlib

import torch
import torch.nn.functional as F

FILE = pathlib.Path(__file__).parent / "nearest_indices.txt"
ROWS = ((10, 0.6), (10, 1.2), (20, 1.1), (20, 0.3), (21, 1.7), (32, 1.4), (32, 0.7), (32, 2.3),
        (32, 1.3), (32, 1.2))

if __name__ == "__main__":
    lines = []
    for size, scale in ROWS:
        row = torch.arange(size, dtype=torch.float32).view(1, 1, 1, size)
        found = F.interpolate(row, scale_factor=(1.0, scale), mode="nearest").flatten()
        lines.append(f"{size} {scale}: " + " ".join(str(int(value)) for value in found))
    FILE.write_text("\n".join(lines) + "\n")
