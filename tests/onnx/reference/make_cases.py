#!/usr/bin/python3
"""Makes cases/: small graphs for every operator and attribute, with what PyTorch gives for them in
double; where OpenCV's dnn module reads a graph and agrees in float, the graph's doc_string says so.

    /usr/bin/python3 make_cases.py

Needs Debian's python3-torch, python3-onnx, python3-opencv and python3-numpy.
"""

import pathlib
import warnings

import torch

import case
import cases_forms
import cases_layers
import cases_windows

if __name__ == "__main__":
    warnings.simplefilter("ignore")
    torch.set_num_threads(1)
    for old in case.FOLDER.glob("*"):
        old.unlink()
    cases_windows.convolutions()
    cases_windows.transposed_convolutions()
    cases_windows.poolings()
    cases_layers.activations()
    cases_layers.arithmetic()
    cases_layers.normalisations()
    cases_layers.matrices()
    cases_layers.resampling()
    cases_layers.recurrent()
    cases_forms.shapes()
    cases_forms.paddings()
    cases_forms.folded()
    cases_forms.blocks()
    files = list(case.FOLDER.glob("*"))
    print(f"{len(case.made)} cases, {len(files)} files, "
          f"{sum(file.stat().st_size for file in files)} bytes")
