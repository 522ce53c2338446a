#include "cpu/quantitation.h"

#include <climits>

#include "platform/assertion.h"

namespace TarnoCPU {
namespace {

int64_t floats_in(const Mat& mat) {
    return mat.empty() ? 0 : mat.shape.total() * mat.shape.elem_size / int64_t{sizeof(float)};
}

}  // namespace

void transform_nchw_to_n4c4hw44(const Mat& tensor_nchw_float, Mat& tensor_n4c4hw44_float, int n,
                                int c, int h, int w) {
    // The blanks before two of the points are part of the texts that hosts know.
    // clang-format off
    TN_ASSERT(tensor_nchw_float .shape.dims() == 1);
    TN_ASSERT(tensor_n4c4hw44_float.shape.dims() == 1);
    TN_ASSERT(tensor_nchw_float .shape.elem_size == 4);
    TN_ASSERT(tensor_n4c4hw44_float.shape.elem_size == 4);
    // clang-format on

    // No flat `Mat` holds more than INT_MAX elements; below that no index leaves 64 bits.
    if (n <= 0 || c <= 0 || h <= 0 || w <= 0) return;
    const int64_t kernel = int64_t{h} * w;
    if (kernel > INT_MAX || int64_t{n} * c > INT_MAX / kernel) return;

    const float* from = tensor_nchw_float.ptr<float>();
    float* to = tensor_n4c4hw44_float.ptr<float>();
    const int64_t from_count = floats_in(tensor_nchw_float);
    const int64_t to_count = floats_in(tensor_n4c4hw44_float);
    int64_t source = 0;
    for (int64_t i = 0; i < n; ++i) {
        for (int64_t j = 0; j < c; ++j) {
            int64_t target = i % 4 + 4 * (j % 4) + 16 * kernel * (i / 4 * (c / 4) + j / 4);
            for (int64_t k = 0; k < kernel; ++k, ++source, target += 16) {
                if (target < to_count) to[target] = source < from_count ? from[source] : 0.0f;
            }
        }
    }
}

}  // namespace TarnoCPU
