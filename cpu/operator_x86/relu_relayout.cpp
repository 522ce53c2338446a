#include "cpu/operator_x86/relu_relayout.h"

#include <emmintrin.h>

#include <climits>

#include "cpu/operator/kernel_support.h"
#include "cpu/operator_x86/interleave.h"

namespace TarnoCPU {
namespace {

// x[i] = min(max(x[i], 0), ceiling). A block ends with its last element (views have nothing behind
// it), so the tail is not a whole vector; it goes through the same instructions one by one.
void activate(float* x, int64_t count, float ceiling) {
    const __m128 zero = _mm_setzero_ps();
    const __m128 top = _mm_set1_ps(ceiling);
    int64_t i = 0;
    for (; i + 4 <= count; i += 4) {
        _mm_storeu_ps(x + i, _mm_min_ps(_mm_max_ps(_mm_loadu_ps(x + i), zero), top));
    }
    for (; i < count; ++i) {
        _mm_store_ss(x + i, _mm_min_ss(_mm_max_ss(_mm_load_ss(x + i), zero), top));
    }
}

// The block of the new layout; empty when a size leaves the range of int or there is no memory.
Mat relaid_block(TensorShape::Layout layout, int64_t c, int64_t h, int64_t w, int elem_size,
                 Allocator* allocator) {
    if (c < 1 || h < 1 || w < 1 || c > INT_MAX || w > INT_MAX) return Mat();
    return Mat(TensorShape(layout, static_cast<int>(c), static_cast<int>(h), static_cast<int>(w),
                           elem_size),
               allocator);
}

}  // namespace

int ReluRelayout::load(const ParamDict&, const ModelBin&, const LayerInferenceConfig&) {
    return 0;
}

bool ReluRelayout::check_forward(const TensorShape& shape) {
    return is_float_of_any_layout(shape);
}

int ReluRelayout::chw_to_c4hw4(Mat& bottom_top, float ceiling, const Option& opt) {
    if (bottom_top.empty()) return -100;
    activate(bottom_top.ptr<float>(), bottom_top.shape.total(), ceiling);

    const TensorShape& shape = bottom_top.shape;
    Mat relaid = relaid_block(TensorShape::C4HW4, shape.c / 4, shape.h, int64_t{shape.w} * 4,
                              shape.elem_size, opt.workspace_allocator);
    if (relaid.empty()) return -100;
    const int64_t plane = int64_t{shape.h} * shape.w;
    for (int64_t block = 0; block < relaid.shape.c; ++block) {
        interleave(bottom_top.ptr<float>() + 4 * block * plane, plane,
                   relaid.ptr<float>() + 4 * block * plane);
    }
    bottom_top = relaid;
    return 0;
}

int ReluRelayout::c4hw4_to_chw(Mat& bottom_top, float ceiling, const Option& opt) {
    if (bottom_top.empty()) return -100;
    activate(bottom_top.ptr<float>(), bottom_top.shape.total(), ceiling);

    const TensorShape& shape = bottom_top.shape;
    Mat relaid = relaid_block(TensorShape::CHW, int64_t{shape.c} * 4, shape.h, shape.w / 4,
                              shape.elem_size, opt.workspace_allocator);
    if (relaid.empty()) return -100;
    const int64_t plane = int64_t{relaid.shape.h} * relaid.shape.w;
    for (int64_t block = 0; block < shape.c; ++block) {
        separate(bottom_top.ptr<float>() + 4 * block * plane, plane,
                 relaid.ptr<float>() + 4 * block * plane);
    }
    bottom_top = relaid;
    return 0;
}

}  // namespace TarnoCPU
