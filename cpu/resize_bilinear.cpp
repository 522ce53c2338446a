#include <emmintrin.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>

#include "cpu/allocator.h"
#include "cpu/resize.h"

// Bilinear resizing of N interleaved channels in two integer passes, with sx, a0 and a1 of a column
// and sy, b0 and b1 of a row from tables:
//
//   row pass     line[y][x * N + k] = (src[y][sx * N + k] * a0 + src[y][sx * N + N + k] * a1)
//                                     >> row_shift, in 16 bits
//   column pass  dst[y][i] = ((line[sy][i] * b0 >> column_shift)
//                             + (line[sy + 1][i] * b1 >> column_shift) + 2) >> 2, in 8 bits
//
// Nothing is clamped on the way: where the first columns or rows of an enlargement extrapolate
// beyond the range of a byte, the value wraps. Host programs compare frames byte for byte, so this
// stays.

namespace TarnoCPU {
namespace {

template <int N>
struct FixedPoint {
    static constexpr float one = 2048.0f;
    static constexpr int row_shift = 4;
    static constexpr int column_shift = 16;

    // To the nearest, halves away from zero, added up in float.
    static int16_t rounded(float v) { return static_cast<int16_t>(v + (v >= 0.0f ? 0.5f : -0.5f)); }
};

// Three channels carry two more bits than one, two and four, and round their weights in double.
template <>
struct FixedPoint<3> {
    static constexpr float one = 8192.0f;
    static constexpr int row_shift = 6;
    static constexpr int column_shift = 18;

    static int16_t rounded(float v) { return static_cast<int16_t>(v + (v >= 0.0f ? 0.5 : -0.5)); }
};

// For each target column or row: the first of its two neighbouring source columns or rows, times
// `stride`, and the weights of both.
template <int N>
struct Taps {
    std::unique_ptr<size_t[]> first;
    std::unique_ptr<int16_t[]> weights;  // two for each entry, side by side

    bool build(int source_size, int target_size, size_t stride) {
        const size_t count = static_cast<size_t>(target_size);
        first.reset(new (std::nothrow) size_t[count]);
        weights.reset(new (std::nothrow) int16_t[2 * count]);
        if (first == nullptr || weights == nullptr) return false;

        const double scale = static_cast<double>(source_size) / target_size;
        for (int d = 0; d < target_size; ++d) {
            const float f = static_cast<float>((d + 0.5) * scale - 0.5);
            // Truncation, not floor: between -0.5, where f starts, and 0 the fraction stays
            // negative, and the first entries of an enlargement extrapolate.
            int64_t s = static_cast<int64_t>(f);
            float fraction = f - static_cast<float>(s);
            if (s >= source_size - 1) {
                // The whole weight on the last column. With a single column that is also the first:
                // its left neighbour, of weight 0, does not exist and is not read.
                s = source_size > 1 ? source_size - 2 : 0;
                fraction = 1.0f;
            }
            first[d] = static_cast<size_t>(s) * stride;
            // The fraction lies between -0.5 and 1, so both weights fit 16 bits.
            weights[2 * static_cast<size_t>(d)] =
                FixedPoint<N>::rounded((1.0f - fraction) * FixedPoint<N>::one);
            weights[2 * static_cast<size_t>(d) + 1] =
                FixedPoint<N>::rounded(fraction * FixedPoint<N>::one);
        }
        return true;
    }
};

// Rows of 16-bit values from the plain aligned heap.
class LineBuffer {
public:
    explicit LineBuffer(size_t values)
        : values(static_cast<int16_t*>(fastMalloc(values * sizeof(int16_t)))) {}
    ~LineBuffer() { fastFree(values); }
    LineBuffer(const LineBuffer&) = delete;
    LineBuffer& operator=(const LineBuffer&) = delete;
    int16_t* get() const { return values; }

private:
    int16_t* values;
};

// How many values a row pass writes behind the end of a line.
constexpr size_t line_slack = 1;

__m128i load_8_bytes(const unsigned char* at) {
    return _mm_loadl_epi64(reinterpret_cast<const __m128i*>(at));
}

__m128i load_4_bytes(const unsigned char* at) {
    int value;
    std::memcpy(&value, at, sizeof(value));
    return _mm_cvtsi32_si128(value);
}

int load_2_bytes(const unsigned char* at) {
    uint16_t value;
    std::memcpy(&value, at, sizeof(value));
    return value;
}

__m128i load_8_values(const int16_t* at) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(at));
}

void store_8_values(int16_t* out, __m128i values) {
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out), values);
}

// The row pass over whole vectors, by N: as many pixels as fill one at `first` and `weights`. A
// plain store of 16 bits cuts off the upper half of a result. So do the shifts up and down again
// here, where a packing instruction would saturate.

// Eight pixels of one channel.
void weigh_vector(const unsigned char* row, const size_t* first, const int16_t* weights,
                  int16_t* out, std::integral_constant<int, 1>) {
    constexpr int up = 16 - FixedPoint<1>::row_shift;
    __m128i pairs = _mm_cvtsi32_si128(load_2_bytes(row + first[0]));
    pairs = _mm_insert_epi16(pairs, load_2_bytes(row + first[1]), 1);
    pairs = _mm_insert_epi16(pairs, load_2_bytes(row + first[2]), 2);
    pairs = _mm_insert_epi16(pairs, load_2_bytes(row + first[3]), 3);
    pairs = _mm_insert_epi16(pairs, load_2_bytes(row + first[4]), 4);
    pairs = _mm_insert_epi16(pairs, load_2_bytes(row + first[5]), 5);
    pairs = _mm_insert_epi16(pairs, load_2_bytes(row + first[6]), 6);
    pairs = _mm_insert_epi16(pairs, load_2_bytes(row + first[7]), 7);
    const __m128i zero = _mm_setzero_si128();
    const __m128i low = _mm_madd_epi16(_mm_unpacklo_epi8(pairs, zero), load_8_values(weights));
    const __m128i high = _mm_madd_epi16(_mm_unpackhi_epi8(pairs, zero), load_8_values(weights + 8));
    store_8_values(out, _mm_packs_epi32(_mm_srai_epi32(_mm_slli_epi32(low, up), 16),
                                        _mm_srai_epi32(_mm_slli_epi32(high, up), 16)));
}

// Results for lanes that hold two neighbouring channels of a pixel and the same two of the pixel to
// its right, one byte each. A lane of `weights` holds the weights of both pixels, a lane of the
// results the two channels.
template <int N>
__m128i weigh_channel_pairs(__m128i lanes, __m128i weights) {
    constexpr int up = 16 - FixedPoint<N>::row_shift;
    const __m128i even = _mm_madd_epi16(_mm_and_si128(lanes, _mm_set1_epi16(0xff)), weights);
    const __m128i odd = _mm_madd_epi16(_mm_srli_epi16(lanes, 8), weights);
    const __m128i low = _mm_srli_epi32(_mm_slli_epi32(even, up), 16);
    const __m128i high = _mm_and_si128(_mm_slli_epi32(odd, up), _mm_set1_epi32(~0xffff));
    return _mm_or_si128(low, high);
}

// Four pixels of two channels.
void weigh_vector(const unsigned char* row, const size_t* first, const int16_t* weights,
                  int16_t* out, std::integral_constant<int, 2>) {
    const __m128i left =
        _mm_unpacklo_epi32(load_4_bytes(row + first[0]), load_4_bytes(row + first[1]));
    const __m128i right =
        _mm_unpacklo_epi32(load_4_bytes(row + first[2]), load_4_bytes(row + first[3]));
    store_8_values(out,
                   weigh_channel_pairs<2>(_mm_unpacklo_epi64(left, right), load_8_values(weights)));
}

// Both weights of two columns, each column's twice.
__m128i load_doubled_weights(const int16_t* at) {
    const __m128i two = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(at));
    return _mm_unpacklo_epi32(two, two);
}

// Channels 0 and 1 and channels 2 and 3 of a pixel and its right neighbour. The second load starts
// one byte early, so that it ends with the neighbour and never reads behind the image. Channel 3 is
// noise.
__m128i channel_pairs_of_3(const unsigned char* pixel) {
    return _mm_unpacklo_epi16(load_4_bytes(pixel), _mm_srli_epi32(load_4_bytes(pixel + 2), 8));
}

__m128i channel_pairs_of_4(const unsigned char* pixel) {
    const __m128i both = load_8_bytes(pixel);
    return _mm_unpacklo_epi16(both, _mm_srli_epi64(both, 32));
}

// Two pixels of three channels. Each store carries one value of noise, which the next pixel or the
// slack of the line takes.
void weigh_vector(const unsigned char* row, const size_t* first, const int16_t* weights,
                  int16_t* out, std::integral_constant<int, 3>) {
    const __m128i lanes =
        _mm_unpacklo_epi64(channel_pairs_of_3(row + first[0]), channel_pairs_of_3(row + first[1]));
    const __m128i two = weigh_channel_pairs<3>(lanes, load_doubled_weights(weights));
    _mm_storel_epi64(reinterpret_cast<__m128i*>(out), two);
    _mm_storel_epi64(reinterpret_cast<__m128i*>(out + 3), _mm_srli_si128(two, 8));
}

// Two pixels of four channels.
void weigh_vector(const unsigned char* row, const size_t* first, const int16_t* weights,
                  int16_t* out, std::integral_constant<int, 4>) {
    const __m128i lanes =
        _mm_unpacklo_epi64(channel_pairs_of_4(row + first[0]), channel_pairs_of_4(row + first[1]));
    store_8_values(out, weigh_channel_pairs<4>(lanes, load_doubled_weights(weights)));
}

// The row pass of one source row of at least two pixels.
template <int N>
void weigh_row(const unsigned char* row, const Taps<N>& taps, size_t w, int16_t* line) {
    constexpr size_t step = N == 1 ? 8 : N == 2 ? 4 : 2;
    const size_t* first = taps.first.get();
    const int16_t* weights = taps.weights.get();
    size_t x = 0;
    for (; x + step <= w; x += step) {
        weigh_vector(row, first + x, weights + 2 * x, line + x * N,
                     std::integral_constant<int, N>());
    }
    for (; x < w; ++x) {
        const unsigned char* pixel = row + first[x];
        for (size_t k = 0; k < N; ++k) {
            const int sum = pixel[k] * weights[2 * x] + pixel[N + k] * weights[2 * x + 1];
            line[x * N + k] = static_cast<int16_t>(sum >> FixedPoint<N>::row_shift);
        }
    }
}

// The upper half of a 16-bit by 16-bit product is that product shifted down by 16; what is left of
// the column shift follows. Sums stay far inside 16 bits.
template <int N>
__m128i blend_8(const int16_t* upper, const int16_t* lower, __m128i b0, __m128i b1) {
    constexpr int rest = FixedPoint<N>::column_shift - 16;
    const __m128i u = _mm_mulhi_epi16(load_8_values(upper), b0);
    const __m128i l = _mm_mulhi_epi16(load_8_values(lower), b1);
    const __m128i sum = _mm_add_epi16(_mm_srai_epi16(u, rest), _mm_srai_epi16(l, rest));
    const __m128i value = _mm_srai_epi16(_mm_add_epi16(sum, _mm_set1_epi16(2)), 2);
    return _mm_and_si128(value, _mm_set1_epi16(0xff));
}

// The column pass of one target row of `count` bytes.
template <int N>
void blend_lines(const int16_t* upper, const int16_t* lower, const int16_t* weights,
                 unsigned char* out, size_t count) {
    const __m128i b0 = _mm_set1_epi16(weights[0]);
    const __m128i b1 = _mm_set1_epi16(weights[1]);
    size_t i = 0;
    for (; i + 16 <= count; i += 16) {
        const __m128i left = blend_8<N>(upper + i, lower + i, b0, b1);
        const __m128i right = blend_8<N>(upper + i + 8, lower + i + 8, b0, b1);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + i), _mm_packus_epi16(left, right));
    }
    for (; i + 8 <= count; i += 8) {
        const __m128i left = blend_8<N>(upper + i, lower + i, b0, b1);
        _mm_storel_epi64(reinterpret_cast<__m128i*>(out + i), _mm_packus_epi16(left, left));
    }
    constexpr int shift = FixedPoint<N>::column_shift;
    for (; i < count; ++i) {
        const int sum = (upper[i] * weights[0] >> shift) + (lower[i] * weights[1] >> shift);
        out[i] = static_cast<unsigned char>((sum + 2) >> 2);
    }
}

template <int N>
void resize_bilinear(const unsigned char* src, int srcw, int srch, unsigned char* dst, int w,
                     int h) {
    if (srcw <= 0 || srch <= 0 || w <= 0 || h <= 0) return;
    Taps<N> columns, rows;
    if (!columns.build(srcw, w, N) || !rows.build(srch, h, 1)) return;

    const size_t source_stride = static_cast<size_t>(srcw) * N;
    const size_t count = static_cast<size_t>(w) * N;
    const LineBuffer first_line(count + line_slack), second_line(count + line_slack);
    int16_t* lines[2] = {first_line.get(), second_line.get()};
    if (lines[0] == nullptr || lines[1] == nullptr) return;
    // The source rows that are in `lines`.
    const size_t none = static_cast<size_t>(srch);
    size_t held[2] = {none, none};

    const auto weigh = [&](size_t y, int16_t* line) {
        const unsigned char* row = src + y * source_stride;
        unsigned char twice[2 * N];
        if (srcw == 1) {
            std::memcpy(twice, row, N);
            std::memcpy(twice + N, row, N);
            row = twice;
        }
        weigh_row<N>(row, columns, static_cast<size_t>(w), line);
    };
    for (int y = 0; y < h; ++y) {
        const size_t upper = rows.first[y];
        const size_t wanted[2] = {upper, srch > 1 ? upper + 1 : upper};
        if (held[1] == wanted[0]) {
            std::swap(lines[0], lines[1]);
            std::swap(held[0], held[1]);
        }
        for (int i = 0; i < 2; ++i) {
            if (held[i] == wanted[i]) continue;
            weigh(wanted[i], lines[i]);
            held[i] = wanted[i];
        }
        blend_lines<N>(lines[0], lines[1], rows.weights.get() + 2 * static_cast<size_t>(y), dst,
                       count);
        dst += count;
    }
}

}  // namespace

void resize_bilinear_c1(const unsigned char* src, int srcw, int srch, unsigned char* dst, int w,
                        int h) {
    resize_bilinear<1>(src, srcw, srch, dst, w, h);
}

void resize_bilinear_c2(const unsigned char* src, int srcw, int srch, unsigned char* dst, int w,
                        int h) {
    resize_bilinear<2>(src, srcw, srch, dst, w, h);
}

void resize_bilinear_c3(const unsigned char* src, int srcw, int srch, unsigned char* dst, int w,
                        int h) {
    resize_bilinear<3>(src, srcw, srch, dst, w, h);
}

void resize_bilinear_c4(const unsigned char* src, int srcw, int srch, unsigned char* dst, int w,
                        int h) {
    resize_bilinear<4>(src, srcw, srch, dst, w, h);
}

}  // namespace TarnoCPU
