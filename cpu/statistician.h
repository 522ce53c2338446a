// The hook for per-layer statistics.
#pragma once

#include "../platform/export.h"
#include "layer.h"
#include "mat.h"

namespace TarnoCPU {

/// Handed to `TarnoNetExtractor::extract`; called once for each layer that ran, in run order, also
/// for one that failed.
class TN_API Statistician {
public:
    virtual ~Statistician();
    /// `bottom` is the layer's first bottom, `top` its top. Times are milliseconds of the wall
    /// clock before and after the layer's `forward`.
    virtual void layer_stats(const Layer* layer, const Mat& bottom, Mat& top, double t_before,
                             double t_after) = 0;
};

}  // namespace TarnoCPU
