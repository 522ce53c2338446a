#include "cpu/operator/eltwise_float_fallback.h"

#include <algorithm>

#include "cpu/operator/kernel_support.h"

namespace TarnoCPU {

TN_DEFINE_OPERATOR_CREATOR(Eltwise_Float_Fallback)

namespace {

enum OpType { product = 0, sum = 1, maximum = 2 };

// A plane of a bottom: `count` elements, zeros behind them.
struct Plane {
    const float* data;
    int64_t count;
};

// Channel q for a top whose planes are `size` long. A bottom of another shape is walked by its own
// channels; what lies behind its end counts as 0.
Plane plane_of(const Mat& bottom, int64_t q, int64_t size) {
    if (bottom.empty() || bottom.shape.dims() == 0) return {nullptr, 0};
    const int64_t first = q * bottom.shape.h * bottom.shape.w;
    const int64_t left = bottom.shape.total() - first;
    if (left <= 0) return {nullptr, 0};
    return {bottom.ptr<float>() + first, std::min(left, size)};
}

template <typename Op>
void combine(const float* a, Plane b, int64_t size, float* out, Op op) {
    for (int64_t i = 0; i < b.count; ++i)
        out[i] = op(a[i], b.data[i]);
    for (int64_t i = b.count; i < size; ++i)
        out[i] = op(a[i], 0.0f);
}

}  // namespace

int Eltwise_Float_Fallback::load(const ParamDict& pd, const ModelBin&,
                                 const LayerInferenceConfig&) {
    op_type = pd.get(0, 0);
    coeffs = Mat();
    return 0;
}

bool Eltwise_Float_Fallback::check_forward(const std::vector<TensorShape>& shapes) {
    return std::all_of(shapes.begin(), shapes.end(), is_float_of_any_layout);
}

int Eltwise_Float_Fallback::forward(const std::vector<Mat>& bottoms, std::vector<Mat>& tops,
                                    const Option& opt) {
    TN_FORWARD_PRECONDITIONS(check_forward(shapes_of(bottoms)));
    if (bottoms.size() < 2 || tops.empty()) return -100;
    const TensorShape shape = bottoms[0].shape;
    if (bottoms[0].empty() || shape.dims() == 0) return -100;
    Mat& top = tops[0];
    top.create(shape, opt.blob_allocator);
    if (top.empty()) return -100;

    const int64_t size = int64_t{shape.h} * shape.w;
    const bool weighted = op_type == sum && !coeffs.empty();
    const auto coeff = [this](size_t k) {
        return static_cast<int64_t>(k) < coeffs.shape.total() ? coeffs.ptr<float>()[k] : 0.0f;
    };
    for (int q = 0; q < shape.c; ++q) {
        float* out = top.ptr<float>() + q * size;
        const float* a = bottoms[0].ptr<float>() + q * size;
        for (size_t k = 1; k < bottoms.size(); ++k) {
            const Plane b = plane_of(bottoms[k], q, size);
            if (weighted) {
                const float ca = coeff(0), cb = coeff(k);
                if (k == 1) {
                    combine(a, b, size, out, [=](float x, float y) { return x * ca + y * cb; });
                } else {
                    combine(out, b, size, out, [=](float x, float y) { return x + y * cb; });
                }
                continue;
            }
            const float* x = k == 1 ? a : out;
            if (op_type == product) {
                combine(x, b, size, out, [](float x, float y) { return x * y; });
            } else if (op_type == sum) {
                combine(x, b, size, out, [](float x, float y) { return x + y; });
            } else if (op_type == maximum) {
                // The first stays where either is NaN.
                combine(x, b, size, out, [](float x, float y) { return y > x ? y : x; });
            }
        }
    }
    return 0;
}

}  // namespace TarnoCPU
