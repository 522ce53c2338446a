#include "cpu/operator_x86/upsampling_float_sse_c4hw4.h"

#include <emmintrin.h>

#include <cstring>

#include "cpu/operator/kernel_support.h"
#include "cpu/operator_x86/upsampling_bilinear_x2.h"

namespace TarnoCPU {

TN_DEFINE_OPERATOR_CREATOR(Upsampling_Float_SSE_C4HW4)

namespace {

enum Mode { nearest = 0, bilinear = 1 };

template <int Scale>
void enlarge_nearest(const Mat& bottom, Mat& top) {
    const int64_t w = bottom.shape.w;
    const int64_t rows = int64_t{bottom.shape.c} * bottom.shape.h;
    const float* row = bottom.ptr<float>();
    float* out = top.ptr<float>();
    for (int64_t y = 0; y < rows; ++y, row += w, out += Scale * Scale * w) {
        for (int64_t x = 0; x < w; x += 4) {
            const __m128 pixel = _mm_loadu_ps(row + x);
            for (int64_t copy = 0; copy < Scale; ++copy) {
                _mm_storeu_ps(out + Scale * x + 4 * copy, pixel);
            }
        }
        for (int64_t copy = 1; copy < Scale; ++copy) {
            std::memcpy(out + copy * Scale * w, out,
                        static_cast<size_t>(Scale * w) * sizeof(float));
        }
    }
}

}  // namespace

int Upsampling_Float_SSE_C4HW4::load(const ParamDict& pd, const ModelBin&,
                                     const LayerInferenceConfig&) {
    scale = pd.get(0, 0.0f);
    mode = pd.get(1, 1);
    align_corners = pd.get(2, 0) != 0;
    return 0;
}

bool Upsampling_Float_SSE_C4HW4::check_forward(const TensorShape& shape) {
    return shape.elem_size == 4 && shape.layout == TensorShape::C4HW4 &&
           (scale == 2.0f || scale == 4.0f);
}

int Upsampling_Float_SSE_C4HW4::forward(const Mat& bottom, Mat& top, const Option& opt) {
    TN_FORWARD_PRECONDITIONS(check_forward(bottom.shape));
    if (is_same_block(bottom, top)) return forward_apart(*this, bottom, top, opt);
    // A row that 4 does not divide is no row of this layout.
    if (bottom.empty() || bottom.shape.dims() == 0 || bottom.shape.w % 4 != 0) return -100;
    // The size is computed in float, which counts to 2^24; what is larger is no picture.
    constexpr int largest = 1 << 24;
    const int factor = static_cast<int>(scale);
    if (bottom.shape.h > largest / factor || bottom.shape.w > largest / factor) return -100;
    TensorShape shape = bottom.shape;
    shape.h = static_cast<int>(static_cast<float>(shape.h) * scale);
    shape.w = static_cast<int>(static_cast<float>(shape.w) * scale);
    top.create(shape, opt.blob_allocator);
    if (top.empty()) return -100;

    if (mode == nearest && factor == 2) {
        enlarge_nearest<2>(bottom, top);
    } else if (mode == nearest) {
        enlarge_nearest<4>(bottom, top);
    } else if (mode == bilinear && factor == 2) {
        const int64_t block = int64_t{bottom.shape.h} * bottom.shape.w;
        for (int64_t q = 0; q < bottom.shape.c; ++q) {
            upsampling_bilinear_x2(bottom.ptr<float>() + q * block, bottom.shape.h,
                                   bottom.shape.w / 4, align_corners,
                                   top.ptr<float>() + q * block * 4);
        }
    } else {
        TN_ASSERT(false && "Not implemeted");
    }
    return 0;
}

}  // namespace TarnoCPU
