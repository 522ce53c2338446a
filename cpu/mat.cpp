#include "cpu/mat.h"

#include <emmintrin.h>

#include <climits>
#include <cstring>

namespace TarnoCPU {
namespace {

int atomic_add(int* counter, int delta) {
    return __atomic_fetch_add(counter, delta, __ATOMIC_ACQ_REL);
}

Mat from_array(const void* data, const TensorShape& shape, Allocator* allocator) {
    Mat result(shape, allocator);
    if (!result.empty() && data != nullptr) {
        std::memcpy(result.data, data, static_cast<size_t>(shape.total()) * shape.elem_size);
    }
    return result;
}

// (int)v as the processor's truncating conversion gives it: 0x80000000 for all that does not fit.
int truncate_to_int(float v) {
    return v > -2147483904.0f && v < 2147483648.0f ? static_cast<int>(v) : INT_MIN;
}

bool fits_int(int64_t v) {
    return v >= 0 && v <= INT_MAX;
}

}  // namespace

bool TensorShape::operator==(const TensorShape& other) const {
    return layout == other.layout && c == other.c && h == other.h && w == other.w &&
           elem_size == other.elem_size && frac_bits == other.frac_bits;
}

int TensorShape::dims() const {
    if (c > 1 && h >= 1 && w >= 1) return 3;
    if (c == 1 && h >= 2 && w >= 1) return 2;
    if (c == 1 && h == 1 && w >= 1) return 1;
    return 0;
}

Mat::Mat() : data(nullptr), refcount(nullptr), allocator(nullptr) {}

Mat::Mat(const TensorShape& shape, Allocator* allocator) : Mat() {
    create(shape, allocator);
}

Mat::Mat(const TensorShape& shape, void* data, Allocator* allocator)
    : shape(shape), data(data), refcount(nullptr), allocator(allocator) {}

Mat::Mat(const Mat& other)
    : shape(other.shape), data(other.data), refcount(other.refcount), allocator(other.allocator) {
    if (refcount != nullptr) atomic_add(refcount, 1);
}

Mat& Mat::operator=(const Mat& other) {
    if (this == &other) return *this;
    // The source first: both may share the block, and the release below may be the last but this.
    if (other.refcount != nullptr) atomic_add(other.refcount, 1);
    release();
    shape = other.shape;
    data = other.data;
    refcount = other.refcount;
    allocator = other.allocator;
    return *this;
}

Mat::~Mat() {
    release();
}

void Mat::release() {
    if (refcount != nullptr && atomic_add(refcount, -1) == 1) {
        if (allocator != nullptr) {
            allocator->fastFree(data);
        } else {
            fastFree(data);
        }
    }
    data = nullptr;
    refcount = nullptr;
    shape.c = 0;
    shape.h = 0;
    shape.w = 0;
    shape.elem_size = 0;
    shape.frac_bits = 0;
}

void Mat::create(const TensorShape& new_shape, Allocator* new_allocator) {
    if (shape == new_shape && allocator == new_allocator) return;
    // A copy: the argument may be this object's own shape.
    const TensorShape wanted = new_shape;
    release();
    allocator = new_allocator;
    shape = wanted;

    const int64_t total = shape.total();
    if (total <= 0 || shape.elem_size <= 0) return;
    // Allocators count in 32 bits. A tensor that does not fit, counter included, cannot be had:
    // the oversized request fails in the plain heap with its assertion, on every system alike.
    constexpr int64_t largest = UINT_MAX - 7;
    if (total > largest / shape.elem_size) {
        fastMalloc(SIZE_MAX);
        return;
    }
    const int64_t bytes = (total * shape.elem_size + 3) & ~int64_t{3};
    const unsigned int size = static_cast<unsigned int>(bytes + sizeof(int));
    data = allocator != nullptr ? allocator->fastMalloc(size) : fastMalloc(size);
    if (data == nullptr) return;
    refcount = reinterpret_cast<int*>(static_cast<unsigned char*>(data) + bytes);
    *refcount = 1;
}

Mat Mat::channel(int q) {
    TensorShape plane = shape;
    plane.c = 1;
    if (data == nullptr) return Mat(plane, nullptr, allocator);
    const int64_t offset = static_cast<int64_t>(shape.elem_size) * shape.h * shape.w * q;
    return Mat(plane, static_cast<unsigned char*>(data) + offset, allocator);
}

const Mat Mat::channel(int q) const {
    return const_cast<Mat*>(this)->channel(q);
}

Mat Mat::clone(Allocator* target_allocator) const {
    if (data == nullptr || shape.total() == 0) return Mat();
    Mat copy;
    if (shape.dims() > 0) copy.create(shape, target_allocator);
    if (!copy.empty()) {
        std::memcpy(copy.data, data, static_cast<size_t>(shape.total()) * shape.elem_size);
    }
    return copy;
}

Mat Mat::from_float_array(const float* data, int w, int h, int c, TensorShape::Layout layout,
                          Allocator* allocator) {
    return from_array(data, TensorShape(layout, c, h, w, 4), allocator);
}

Mat Mat::from_int16_array(const short* data, int w, int h, int c, TensorShape::Layout layout,
                          Allocator* allocator, unsigned int frac_bits) {
    return from_array(data, TensorShape(layout, c, h, w, 2, frac_bits), allocator);
}

Mat Mat::from_int8_array(const signed char* data, int w, int h, int c, TensorShape::Layout layout,
                         Allocator* allocator, unsigned int frac_bits) {
    return from_array(data, TensorShape(layout, c, h, w, 1, frac_bits), allocator);
}

void Mat::substract_mean_normalize(const float* mean_vals, const float* norm_vals) {
    if (empty() || shape.elem_size != 4 || (mean_vals == nullptr && norm_vals == nullptr)) return;
    const int64_t size = static_cast<int64_t>(shape.h) * shape.w;
    // Whole vectors only: the last size % 4 elements of a channel stay as they are. Models were
    // trained against this.
    const int64_t treated = size / 4 * 4;
    for (int q = 0; q < shape.c; ++q) {
        float* x = ptr<float>() + q * size;
        const __m128 mean = _mm_set1_ps(mean_vals != nullptr ? mean_vals[q] : 0.0f);
        const __m128 norm = _mm_set1_ps(norm_vals != nullptr ? norm_vals[q] : 1.0f);
        if (mean_vals != nullptr && norm_vals != nullptr) {
            for (int64_t i = 0; i < treated; i += 4) {
                const __m128 v = _mm_sub_ps(_mm_loadu_ps(x + i), mean);
                _mm_storeu_ps(x + i, _mm_mul_ps(v, norm));
            }
        } else if (mean_vals != nullptr) {
            for (int64_t i = 0; i < treated; i += 4) {
                _mm_storeu_ps(x + i, _mm_sub_ps(_mm_loadu_ps(x + i), mean));
            }
        } else {
            for (int64_t i = 0; i < treated; i += 4) {
                _mm_storeu_ps(x + i, _mm_mul_ps(_mm_loadu_ps(x + i), norm));
            }
        }
    }
}

namespace {

// The border word by word, for margins that cut and for elements that are not 4 bytes wide: the
// walk is in 4-byte steps all the same; what it would read behind the source counts as 0, what it
// would write behind the target is dropped.
void make_border_in_words(const Mat& src, Mat& dst, int top, int left, int fill_byte) {
    const int64_t src_bytes = src.shape.total() * src.shape.elem_size;
    const int64_t dst_bytes = dst.shape.total() * dst.shape.elem_size;
    const unsigned char* from = src.ptr<unsigned char>();
    unsigned char* to = dst.ptr<unsigned char>();
    std::memset(to, 0, static_cast<size_t>(dst_bytes));
    const int src_h = src.shape.h, src_w = src.shape.w;
    const int dst_h = dst.shape.h, dst_w = dst.shape.w;
    for (int q = 0; q < dst.shape.c; ++q) {
        // Channel starts count in the real element size, the walk inside in words.
        const int64_t from_channel = static_cast<int64_t>(q) * src_h * src_w * src.shape.elem_size;
        const int64_t to_channel = static_cast<int64_t>(q) * dst_h * dst_w * dst.shape.elem_size;
        for (int y = 0; y < dst_h; ++y) {
            for (int64_t byte = 0; byte < int64_t{4} * dst_w; ++byte) {
                const int64_t at = to_channel + int64_t{4} * y * dst_w + byte;
                if (at >= dst_bytes) continue;
                const int64_t x = byte / 4 - left;
                const int64_t row = y - top;
                if (row < 0 || row >= src_h || x < 0 || x >= src_w) {
                    to[at] = static_cast<unsigned char>(fill_byte);
                } else {
                    const int64_t source = from_channel + 4 * (row * src_w + x) + byte % 4;
                    to[at] = source < src_bytes ? from[source] : 0;
                }
            }
        }
    }
}

}  // namespace

void copy_make_border(const Mat& src, Mat& dst, int top, int bottom, int left, int right,
                      int /*type*/, float v, Allocator* allocator, int /*num_threads*/) {
    const int64_t new_h = static_cast<int64_t>(src.shape.h) + top + bottom;
    const int64_t new_w = static_cast<int64_t>(src.shape.w) + left + right;
    if (new_h == src.shape.h && new_w == src.shape.w) {
        dst = src;
        return;
    }
    const Mat source = src;  // dst may be src
    if (source.empty() || !fits_int(new_h) || !fits_int(new_w)) {
        dst.release();
        return;
    }
    TensorShape shape = source.shape;
    shape.h = static_cast<int>(new_h);
    shape.w = static_cast<int>(new_w);
    dst.create(shape, allocator);
    if (dst.empty()) return;

    const int fill_byte = truncate_to_int(v) & 0xff;
    const bool cuts = top < 0 || bottom < 0 || left < 0 || right < 0;
    if (shape.elem_size != 4 || cuts) {
        make_border_in_words(source, dst, top, left, fill_byte);
        return;
    }
    const size_t row_bytes = static_cast<size_t>(shape.w) * 4;
    const size_t source_row_bytes = static_cast<size_t>(source.shape.w) * 4;
    unsigned char* to = dst.ptr<unsigned char>();
    const unsigned char* from = source.ptr<unsigned char>();
    for (int q = 0; q < shape.c; ++q) {
        std::memset(to, fill_byte, row_bytes * top);
        to += row_bytes * top;
        for (int y = 0; y < source.shape.h; ++y) {
            std::memset(to, fill_byte, static_cast<size_t>(left) * 4);
            std::memcpy(to + static_cast<size_t>(left) * 4, from, source_row_bytes);
            std::memset(to + static_cast<size_t>(left) * 4 + source_row_bytes, fill_byte,
                        static_cast<size_t>(right) * 4);
            to += row_bytes;
            from += source_row_bytes;
        }
        std::memset(to, fill_byte, row_bytes * bottom);
        to += row_bytes * bottom;
    }
}

void copy_cut_border(const Mat& src, Mat& dst, int top, int bottom, int left, int right,
                     Allocator* allocator, int /*num_threads*/) {
    if (top == 0 && bottom == 0 && left == 0 && right == 0) {
        dst = src;
        return;
    }
    if (src.shape.c <= 1 && !(src.shape.c == 1 && src.shape.h > 1)) return;

    const Mat source = src;  // dst may be src
    const int64_t new_h = static_cast<int64_t>(source.shape.h) - top - bottom;
    const int64_t new_w = static_cast<int64_t>(source.shape.w) - left - right;
    const bool margins_valid = top >= 0 && bottom >= 0 && left >= 0 && right >= 0;
    if (source.empty() || !margins_valid || new_h <= 0 || new_w <= 0) {
        dst.release();
        return;
    }
    TensorShape shape = source.shape;
    shape.h = static_cast<int>(new_h);
    shape.w = static_cast<int>(new_w);
    dst.create(shape, allocator);
    if (dst.empty()) return;

    const size_t element = static_cast<size_t>(shape.elem_size);
    const size_t row_bytes = static_cast<size_t>(shape.w) * element;
    const size_t source_row_bytes = static_cast<size_t>(source.shape.w) * element;
    unsigned char* to = dst.ptr<unsigned char>();
    for (int q = 0; q < shape.c; ++q) {
        const unsigned char* from =
            source.ptr<unsigned char>() +
            (static_cast<size_t>(q) * source.shape.h + top) * source_row_bytes + left * element;
        for (int y = 0; y < shape.h; ++y) {
            std::memcpy(to, from, row_bytes);
            to += row_bytes;
            from += source_row_bytes;
        }
    }
}

}  // namespace TarnoCPU
