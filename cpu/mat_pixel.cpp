#include <emmintrin.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <new>

#include "cpu/mat.h"
#include "cpu/resize.h"

// From interleaved bytes to float planes, without scaling. The last pixels go through a copy on the
// stack, so that no load or store leaves the blocks.

namespace TarnoCPU {
namespace {

enum PixelOrder { RGB = 1, BGR = 2, GREY = 4, RGBA = 8 };

constexpr int pixel_type(PixelOrder from, PixelOrder to) {
    return from | to << 16;
}

__m128i load_16_bytes(const unsigned char* at) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(at));
}

__m128i load_4_bytes(const unsigned char* at) {
    int value;
    std::memcpy(&value, at, sizeof(value));
    return _mm_cvtsi32_si128(value);
}

// Four pixels, one to a lane. Of three bytes, the lane's last byte is noise out of the next pixel,
// so one byte behind the four pixels is read.
template <int bytes>
__m128i load_4_pixels(const unsigned char* at) {
    if (bytes == 4) return load_16_bytes(at);
    const __m128i low = _mm_unpacklo_epi32(load_4_bytes(at), load_4_bytes(at + 3));
    const __m128i high = _mm_unpacklo_epi32(load_4_bytes(at + 6), load_4_bytes(at + 9));
    return _mm_unpacklo_epi64(low, high);
}

// Byte `q` of each lane.
template <int q>
__m128 byte_of_lanes(__m128i pixels) {
    const __m128i shifted = _mm_srli_epi32(pixels, 8 * q);
    return _mm_cvtepi32_ps(q == 3 ? shifted : _mm_and_si128(shifted, _mm_set1_epi32(0xff)));
}

void store_16_as_floats(float* out, __m128i bytes) {
    const __m128i zero = _mm_setzero_si128();
    const __m128i low = _mm_unpacklo_epi8(bytes, zero);
    const __m128i high = _mm_unpackhi_epi8(bytes, zero);
    _mm_storeu_ps(out, _mm_cvtepi32_ps(_mm_unpacklo_epi16(low, zero)));
    _mm_storeu_ps(out + 4, _mm_cvtepi32_ps(_mm_unpackhi_epi16(low, zero)));
    _mm_storeu_ps(out + 8, _mm_cvtepi32_ps(_mm_unpacklo_epi16(high, zero)));
    _mm_storeu_ps(out + 12, _mm_cvtepi32_ps(_mm_unpackhi_epi16(high, zero)));
}

// Each conversion takes `pixels` pixels of `bytes` bytes at `at` to floats at out + q * plane for
// channel q. It may read one byte more.

template <int channel_count>
struct FromGrey {
    static constexpr size_t pixels = 16, bytes = 1, channels = channel_count;
    static void step(const unsigned char* at, float* out, size_t plane) {
        const __m128i grey = load_16_bytes(at);
        for (size_t q = 0; q < channels; ++q) store_16_as_floats(out + q * plane, grey);
    }
};

// Byte `first` becomes channel 0: 0 keeps the order, 2 turns the first three round. With fewer
// channels than bytes the last byte is dropped.
template <int byte_count, int first, int channel_count>
struct Split {
    static constexpr size_t pixels = 4, bytes = byte_count, channels = channel_count;
    static void step(const unsigned char* at, float* out, size_t plane) {
        const __m128i lanes = load_4_pixels<byte_count>(at);
        _mm_storeu_ps(out, byte_of_lanes<first>(lanes));
        _mm_storeu_ps(out + plane, byte_of_lanes<1>(lanes));
        _mm_storeu_ps(out + 2 * plane, byte_of_lanes<2 - first>(lanes));
        if (channels == 4) _mm_storeu_ps(out + 3 * plane, byte_of_lanes<3>(lanes));
    }
};

// (f0 * byte 0 + f1 * byte 1 + f2 * byte 2) >> 8. Byte 3, be it there or noise, has the factor 0.
template <int byte_count, int f0, int f1, int f2>
struct ToGrey {
    static constexpr size_t pixels = 4, bytes = byte_count, channels = 1;
    static void step(const unsigned char* at, float* out, size_t) {
        const __m128i lanes = load_4_pixels<byte_count>(at);
        const __m128i even = _mm_madd_epi16(_mm_and_si128(lanes, _mm_set1_epi16(0xff)),
                                            _mm_set1_epi32(f0 | f2 << 16));
        const __m128i odd = _mm_madd_epi16(_mm_srli_epi16(lanes, 8), _mm_set1_epi32(f1));
        _mm_storeu_ps(out, _mm_cvtepi32_ps(_mm_srli_epi32(_mm_add_epi32(even, odd), 8)));
    }
};

template <typename Conversion>
void convert(const unsigned char* pixels, size_t count, float* out) {
    constexpr size_t step = Conversion::pixels, bytes = Conversion::bytes;
    // A pixel is left over each time, for the byte that a step reads beyond its own.
    size_t i = 0;
    for (; i + step < count; i += step) Conversion::step(pixels + i * bytes, out + i, count);

    const size_t rest = count - i;
    unsigned char last_pixels[step * bytes + 1] = {};
    float last_values[step * Conversion::channels];
    std::memcpy(last_pixels, pixels + i * bytes, rest * bytes);
    Conversion::step(last_pixels, last_values, step);
    for (size_t q = 0; q < Conversion::channels; ++q) {
        std::memcpy(out + q * count + i, last_values + q * step, rest * sizeof(float));
    }
}

struct ConversionRow {
    int type;
    int channels;
    void (*convert)(const unsigned char* pixels, size_t count, float* out);
};

template <typename Conversion>
constexpr ConversionRow row(int type) {
    return {type, Conversion::channels, &convert<Conversion>};
}

const ConversionRow conversions[] = {
    row<Split<3, 0, 3>>(RGB),
    row<Split<3, 0, 3>>(BGR),
    row<FromGrey<1>>(GREY),
    row<Split<4, 0, 4>>(RGBA),
    row<Split<3, 2, 3>>(pixel_type(BGR, RGB)),
    row<Split<3, 2, 3>>(pixel_type(RGB, BGR)),
    row<ToGrey<3, 77, 150, 29>>(pixel_type(RGB, GREY)),
    row<ToGrey<3, 29, 150, 77>>(pixel_type(BGR, GREY)),
    row<FromGrey<3>>(pixel_type(GREY, RGB)),
    row<FromGrey<3>>(pixel_type(GREY, BGR)),
    row<Split<4, 0, 3>>(pixel_type(RGBA, RGB)),
    row<Split<4, 2, 3>>(pixel_type(RGBA, BGR)),
    row<ToGrey<4, 77, 150, 29>>(pixel_type(RGBA, GREY)),
};

const ConversionRow* find_conversion(int type) {
    for (const ConversionRow& candidate : conversions) {
        if (candidate.type == type) return &candidate;
    }
    return nullptr;
}

Mat planes_of(const ConversionRow& conversion, int w, int h, Allocator* allocator) {
    return Mat(TensorShape(TensorShape::CHW, conversion.channels, h, w, 4), allocator);
}

void fill(const ConversionRow& conversion, const unsigned char* pixels, Mat& planes) {
    // Sizes below 1 count as empty whatever their product is.
    if (planes.empty() || planes.shape.dims() == 0) return;
    const size_t count = static_cast<size_t>(planes.shape.w) * planes.shape.h;
    conversion.convert(pixels, count, planes.ptr<float>());
}

}  // namespace

Mat Mat::from_pixels(const unsigned char* pixels, int type, int w, int h, Allocator* allocator) {
    const ConversionRow* conversion = find_conversion(type);
    if (conversion == nullptr || pixels == nullptr) return Mat();
    Mat planes = planes_of(*conversion, w, h, allocator);
    fill(*conversion, pixels, planes);
    return planes;
}

Mat Mat::from_pixels_resize(const unsigned char* pixels, int type, int w, int h, int target_w,
                            int target_h, Allocator* allocator) {
    // On this road alone the block comes from the plain heap, whatever the caller asked for.
    // Callers know it; see the header.
    if (w == target_w && h == target_h) return from_pixels(pixels, type, w, h, nullptr);

    // A type without a row ends in an empty `Mat` after the resize as well; so does a target that
    // does not fit in memory.
    const ConversionRow* conversion = find_conversion(type);
    if (conversion == nullptr) return Mat();
    Mat planes = planes_of(*conversion, target_w, target_h, allocator);
    if (planes.empty() || planes.shape.dims() == 0) return planes;

    const int order = type & 0xffff;
    const size_t bytes = order == GREY ? 1 : order == RGBA ? 4 : 3;
    // Cleared: a source without pixels, or no memory for its tables, leaves it as it is.
    const size_t size = bytes * static_cast<size_t>(target_w) * static_cast<size_t>(target_h);
    const std::unique_ptr<unsigned char[]> resized(new (std::nothrow) unsigned char[size]());
    if (resized == nullptr) return Mat();
    const auto resize = bytes == 1   ? &resize_bilinear_c1
                        : bytes == 3 ? &resize_bilinear_c3
                                     : &resize_bilinear_c4;
    resize(pixels, w, h, resized.get(), target_w, target_h);
    fill(*conversion, resized.get(), planes);
    return planes;
}

}  // namespace TarnoCPU
