#!/usr/bin/env python3
"""Plots the speed of the convolution kernels by member and layer shape.

    plot_kernels.py OUT.png RESULT.json...

Each RESULT.json is what a benchmark writes with --benchmark_format=json; its entries are named
MEMBER/16ch/64px (channels in and out, rows and columns) and carry the counter "best_FLOPS",
floating-point operations in a second. One panel
per file: members from top to bottom, one mark per shape, on a common axis of 1e9 floating-point
operations in a second (a product and a sum count as two). Needs Debian's python3-matplotlib.
"""
import json
import re
import sys

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt


def read(path):
    """Returns ({member: {shape: GFLOP/s}}, [shape]) of one result file, both in file order."""
    with open(path) as file:
        entries = json.load(file)["benchmarks"]
    members, shapes = {}, []
    for entry in entries:
        match = re.match(r"(\w+)/(\d+ch/\d+px)", entry["name"])
        if match is None or "best_FLOPS" not in entry:
            continue
        member, shape = match.groups()
        members.setdefault(member, {})[shape] = entry["best_FLOPS"] / 1e9
        if shape not in shapes:
            shapes.append(shape)
    return members, shapes


def shorten(member):
    """The member's name without what all of a panel share."""
    return member.replace("Depthewise_Convolution_", "dw ").replace("Convolution_", "").replace("_Float", "")


def main(arguments):
    if len(arguments) < 2:
        print(__doc__.strip().splitlines()[2].strip(), file=sys.stderr)
        return 2
    out, paths = arguments[0], arguments[1:]
    results = [read(path) for path in paths]
    heights = [max(2, len(members)) for members, _ in results]
    figure, axes = plt.subplots(len(paths), 1, figsize=(9, 0.28 * sum(heights) + 1.2 * len(paths)),
                                gridspec_kw={"height_ratios": heights}, squeeze=False)
    for (members, shapes), axis in zip(results, axes[:, 0]):
        names = list(members)
        for shape in shapes:
            rows = [i for i, name in enumerate(names) if shape in members[name]]
            axis.plot([members[names[i]][shape] for i in rows], rows, "o", label=shape, alpha=0.8)
        axis.set_yticks(range(len(names)))
        axis.set_yticklabels([shorten(name) for name in names], fontsize=8)
        axis.invert_yaxis()
        axis.set_xlim(left=0)
        axis.grid(axis="x", alpha=0.4)
        axis.legend(fontsize=7, loc="upper left", bbox_to_anchor=(1.01, 1.0), title="channels, pixels",
                    title_fontsize=7)
    axes[-1, 0].set_xlabel("GFLOP/s")
    figure.tight_layout()
    figure.savefig(out, dpi=110)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
