#include "cpu/transform.h"

#include <emmintrin.h>

#include <climits>

#include "platform/assertion.h"

namespace TarnoCPU {
namespace {

int64_t floats_in(const Mat& mat) {
    return mat.empty() ? 0 : mat.shape.total() * mat.shape.elem_size / int64_t{sizeof(float)};
}

// Copies the weights [n][c][y][x] to the places place(n, c, 4 * h * w) + 4 * (y * w + x). Callers
// come here after a failed assertion too, so nothing is taken from the shapes but the size of the
// blocks.
template <typename Place>
void scatter(const Mat& src, Mat& dst, int n, int c, int h, int w, const Place& place) {
    // No flat `Mat` holds more than INT_MAX elements; below that no index leaves 64 bits.
    if (n <= 0 || c <= 0 || h <= 0 || w <= 0) return;
    const int64_t kernel = int64_t{h} * w;
    if (kernel > INT_MAX || int64_t{n} * c > INT_MAX / kernel) return;

    const float* from = src.ptr<float>();
    float* to = dst.ptr<float>();
    const int64_t from_count = floats_in(src);
    const int64_t to_count = floats_in(dst);
    int64_t source = 0;
    for (int i = 0; i < n; ++i) {
        for (int j = 0; j < c; ++j) {
            int64_t target = place(i, j, 4 * kernel);
            for (int64_t k = 0; k < kernel; ++k, ++source, target += 4) {
                if (target < to_count) to[target] = source < from_count ? from[source] : 0.0f;
            }
        }
    }
}

}  // namespace

// The names of the arguments are part of the assertion texts.

void transform_nchw_to_nc4hw4(const Mat& tensor_nchw_float, Mat& tensor_nc4hw4_float, int n, int c,
                              int h, int w) {
    TN_ASSERT(tensor_nchw_float.shape.dims() == 1);
    TN_ASSERT(tensor_nc4hw4_float.shape.dims() == 1);
    TN_ASSERT(tensor_nchw_float.shape.elem_size == 4);
    TN_ASSERT(tensor_nc4hw4_float.shape.elem_size == 4);
    scatter(tensor_nchw_float, tensor_nc4hw4_float, n, c, h, w,
            [=](int64_t i, int64_t j, int64_t block) {
                // i * c is divided as a whole: where c is no multiple of 4 the rows run into each
                // other.
                return j % 4 + block * (j / 4 + i * c / 4);
            });
}

void transform_nchw_to_n4chw4(const Mat& tensor_nchw_float, Mat& tensor_n4chw4_float, int n, int c,
                              int h, int w) {
    TN_ASSERT(tensor_nchw_float.shape.dims() == 1);
    TN_ASSERT(tensor_n4chw4_float.shape.dims() == 1);
    TN_ASSERT(tensor_nchw_float.shape.elem_size == 4);
    TN_ASSERT(tensor_n4chw4_float.shape.elem_size == 4);
    scatter(tensor_nchw_float, tensor_n4chw4_float, n, c, h, w,
            [=](int64_t i, int64_t j, int64_t block) { return i % 4 + block * (i / 4 * c + j); });
}

void transform_nhw_to_n4hw4(const Mat& tensor_nhw_float, Mat& tensor_n4hw4_float, int n, int h,
                            int w) {
    TN_ASSERT(tensor_nhw_float.shape.dims() == 1);
    TN_ASSERT(tensor_n4hw4_float.shape.dims() == 1);
    TN_ASSERT(tensor_nhw_float.shape.elem_size == 4);
    TN_ASSERT(tensor_n4hw4_float.shape.elem_size == 4);
    scatter(tensor_nhw_float, tensor_n4hw4_float, n, 1, h, w,
            [=](int64_t i, int64_t, int64_t block) { return i % 4 + block * (i / 4); });
}

void mat_int16_to_float_chw(Mat& src, Mat& dst, int fraction_bits) {
    const Mat source = src;  // dst may be src
    const TensorShape shape(TensorShape::CHW, source.shape.c, source.shape.h, source.shape.w, 4);
    if (dst.shape != shape || dst.allocator != nullptr) {
        dst.release();
        dst.create(shape, nullptr);
    }
    if (dst.empty() || shape.dims() == 0) {
        TN_ASSERT(false && "creat mat failed!");
        return;
    }

    // A shift by 31 gives the most negative int, so that 31 fractional bits change the sign. The
    // shift is of the unsigned number because the signed one may not reach its sign.
    const int one = static_cast<int>(1u << (fraction_bits & 31));
    const float unit = 1.0f / static_cast<float>(one);
    const short* from = source.ptr<short>();
    float* to = dst.ptr<float>();
    const int64_t total = shape.total();
    int64_t count = source.empty() ? 0 : total * source.shape.elem_size / int64_t{sizeof(short)};
    if (count > total) count = total;

    int64_t i = 0;
    const __m128 units = _mm_set1_ps(unit);
    for (; i + 8 <= count; i += 8) {
        const __m128i x = _mm_loadu_si128(reinterpret_cast<const __m128i*>(from + i));
        // Each number in the upper half of a lane; the shift brings it down with its sign.
        const __m128i low = _mm_srai_epi32(_mm_unpacklo_epi16(x, x), 16);
        const __m128i high = _mm_srai_epi32(_mm_unpackhi_epi16(x, x), 16);
        _mm_storeu_ps(to + i, _mm_mul_ps(_mm_cvtepi32_ps(low), units));
        _mm_storeu_ps(to + i + 4, _mm_mul_ps(_mm_cvtepi32_ps(high), units));
    }
    for (; i < count; ++i) to[i] = static_cast<float>(from[i]) * unit;
    for (; i < total; ++i) to[i] = 0.0f * unit;
}

}  // namespace TarnoCPU
