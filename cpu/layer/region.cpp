#include "cpu/layer/region.h"

#include <algorithm>
#include <cmath>

namespace TarnoCPU {
namespace {

float logistic(float v) {
    const float e = static_cast<float>(std::exp(static_cast<double>(0.0f - v)));
    return 1.0f / (e + 1.0f);
}

}  // namespace

int Region::forward_inplace(Mat& bottom_top, const Option&) {
    if (bottom_top.empty() || bottom_top.shape.elem_size != 4) return -100;
    float* data = bottom_top.ptr<float>();
    const int64_t total = bottom_top.shape.total();
    const int64_t stride = (static_cast<int64_t>(w) * h + 3) / 4 * 4;
    const int entries = coords + classes + 1;
    std::vector<int64_t> offsets(static_cast<size_t>(entries));
    for (int k = 0; k < entries; ++k) offsets[static_cast<size_t>(k)] = k * stride;

    const auto read = [&](int64_t at) { return at < total ? data[at] : 0.0f; };
    const auto write = [&](int64_t at, float v) {
        if (at < total) data[at] = v;
    };
    for (int n = 0; n < num; ++n) {
        const int64_t anchor = static_cast<int64_t>(n) * entries * stride;
        if (anchor >= total) break;
        for (int64_t cell = 0; cell < static_cast<int64_t>(w) * h; ++cell) {
            const int64_t position = anchor + cell;
            for (const int k : {0, 1, coords}) {
                if (k >= entries) continue;
                const int64_t at = position + offsets[static_cast<size_t>(k)];
                write(at, logistic(read(at)));
            }
            // Entries ascend, so those behind the end come last; each adds exp(0) to the sum.
            const int64_t within = stride > 0 ? (total - position + stride - 1) / stride : 0;
            const int inside =
                static_cast<int>(std::min<int64_t>(entries, std::max<int64_t>(within, 0)));
            float sum = 0.0f;
            for (int k = coords + 1; k < inside; ++k) {
                const int64_t at = position + offsets[static_cast<size_t>(k)];
                data[at] = static_cast<float>(std::exp(static_cast<double>(data[at])));
                sum += data[at];
            }
            sum += static_cast<float>(entries - std::max(inside, coords + 1));
            for (int k = coords + 1; k < inside; ++k) {
                data[position + offsets[static_cast<size_t>(k)]] /= sum;
            }
        }
    }
    return 0;
}

}  // namespace TarnoCPU
