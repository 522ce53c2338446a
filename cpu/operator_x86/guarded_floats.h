// Blocks of floats that a walk may leave: the ground of the slow paths.
//
// The tiles of the hand-blocked kernels have no tails. Where a shape does not divide by the tile,
// the walk goes on in memory order, into the next row and the next plane, and the results of that
// are part of what a kernel is. Only at the end of the block it must stop.
#pragma once

#include <cstdint>

#include "cpu/mat.h"

namespace TarnoCPU {

/// Reads as 0 outside the block.
struct ReadableFloats {
    const float* data = nullptr;
    int64_t count = 0;

    ReadableFloats() = default;
    explicit ReadableFloats(const Mat& mat)
        : data(mat.ptr<float>()), count(mat.empty() ? 0 : mat.shape.total()) {}

    bool holds(int64_t i) const { return i >= 0 && i < count; }
    float operator[](int64_t i) const { return holds(i) ? data[i] : 0.0f; }
};

/// Reads as 0 outside the block and drops what is written there.
struct WritableFloats {
    float* data = nullptr;
    int64_t count = 0;

    explicit WritableFloats(Mat& mat)
        : data(mat.ptr<float>()), count(mat.empty() ? 0 : mat.shape.total()) {}

    bool holds(int64_t i) const { return i >= 0 && i < count; }
    void write(int64_t i, float value) const {
        if (holds(i)) data[i] = value;
    }
    void add(int64_t i, float value) const {
        if (holds(i)) data[i] += value;
    }
};

}  // namespace TarnoCPU
