#include "cpu/layer/region.h"

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
    for (int k = 0; k < entries; ++k)
        offsets[static_cast<size_t>(k)] = k * stride;

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
            float sum = 0.0f;
            for (int k = coords + 1; k < entries; ++k) {
                const int64_t at = position + offsets[static_cast<size_t>(k)];
                const float e = static_cast<float>(std::exp(static_cast<double>(read(at))));
                write(at, e);
                sum += e;
            }
            for (int k = coords + 1; k < entries; ++k) {
                const int64_t at = position + offsets[static_cast<size_t>(k)];
                write(at, read(at) / sum);
            }
        }
    }
    return 0;
}

}  // namespace TarnoCPU
