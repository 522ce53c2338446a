#include "cpu/layer/tensorreshape.h"

#include <algorithm>
#include <cstring>

#include "platform/assertion.h"

namespace TarnoCPU {

int TensorReshape::forward(const std::vector<Mat>& bottoms, std::vector<Mat>& tops,
                           const Option& opt) {
    if (bottoms.empty() || tops.empty()) return -100;
    const Mat& bottom = bottoms[0];
    TensorShape shape = bottom.shape;
    shape.c = 1;
    shape.h = 1;
    if (dim_count >= 2 && dim_count <= 4) {
        shape.w = dims[dim_count - 1];
        if (shape.w != bottom.shape.total()) {
            TN_ASSERT(false && "Invalid forward pre conditions");
            return -100;
        }
    }
    Mat& top = tops[0];
    top.create(shape, opt.blob_allocator);
    if (top.empty() || bottom.empty()) return -100;
    // Without the test above the row may be shorter than the tensor: the rest is dropped.
    const int64_t count = std::min(shape.total(), bottom.shape.total());
    std::memcpy(top.data, bottom.data, static_cast<size_t>(count) * shape.elem_size);
    return 0;
}

}  // namespace TarnoCPU
