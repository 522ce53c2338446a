// What the poolings with a window of a fixed size share.
#pragma once

#include <cstdint>

#include "cpu/operator.h"

namespace TarnoCPU {

/// Square windows side by side from the top left corner, without a border. Kernel size, padding and
/// its mode are not looked at. The strides say how large the top is and nothing else: the walk is
/// that of the window, whatever they are.
///
/// Parameters: 0 `pooling_type` (0), 3 `stride_w` (0), 4 `stride_h` (`stride_w`).
class FixedWindowPooling : public OperatorSISO {
public:
    int load(const ParamDict& pd, const ModelBin& mb, const LayerInferenceConfig& config) override;
    bool check_forward(const TensorShape& shape) override;

protected:
    /// {bottom's fields, h / stride_h, w / stride_w} from the plain heap, never from
    /// `opt.blob_allocator`: tables of memory use were made with this. False when it is empty.
    bool make_top(const Mat& bottom, Mat& top) const;

    int pooling_type = 0;

private:
    int stride_w = 0;
    int stride_h = 0;
};

/// Whether all windows of `size` that a top of this shape takes lie inside of bottom's planes. With
/// strides below the window's size they do not.
bool windows_fit(const TensorShape& bottom, const TensorShape& top, int size);

/// The window of `size` x `size` elements behind top[q][y][x], row by row, for a top whose windows
/// do not fit: rows go on where the plane goes on in memory, and what lies behind the end of the
/// block counts as 0.
void read_window(const Mat& bottom, int q, int y, int x, int size, float* window);

}  // namespace TarnoCPU
