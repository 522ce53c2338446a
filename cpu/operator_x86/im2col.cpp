#include "cpu/operator_x86/im2col.h"

#include <emmintrin.h>

#include <cstring>

namespace TarnoCPU {
namespace {

// from[0], from[stride], from[2 * stride], from[3 * stride]; nothing behind the last is read.
template <int stride>
inline __m128 load_four(const float* from) {
    if (stride == 1) return _mm_loadu_ps(from);
    return _mm_shuffle_ps(_mm_loadu_ps(from), _mm_loadu_ps(from + 3), _MM_SHUFFLE(3, 1, 2, 0));
}

// `rows` rows of `count` pixels `stride` floats apart, one row every `step` floats, to consecutive
// places. `vectors`, when not 0, is (count - 1) / 4 of a count of at least 4, known beforehand: the
// rows of small feature maps are so short that the loop around their vectors would cost as much as
// the copy.
template <int stride, int vectors>
void copy_rows(const float* from, int64_t step, int rows, int64_t count, float* to) {
    for (int y = 0; y < rows; ++y, to += count) {
        const float* row = from + y * step;
        const int64_t before_last = vectors != 0 ? 4 * vectors : (count - 1) / 4 * 4;
        for (int64_t i = 0; i < before_last; i += 4) {
            _mm_storeu_ps(to + i, load_four<stride>(row + i * stride));
        }
        // The last vector overlaps the one before it where 4 does not divide the count.
        _mm_storeu_ps(to + count - 4, load_four<stride>(row + (count - 4) * stride));
    }
}

template <int stride>
void copy_rows(const float* from, int64_t step, int rows, int64_t count, float* to) {
    if (count < 4) {
        for (int y = 0; y < rows; ++y, to += count) {
            for (int64_t i = 0; i < count; ++i)
                to[i] = from[y * step + i * stride];
        }
        return;
    }
    switch ((count - 1) / 4) {
        case 1:
            return copy_rows<stride, 1>(from, step, rows, count, to);
        case 2:
            return copy_rows<stride, 2>(from, step, rows, count, to);
        case 3:
            return copy_rows<stride, 3>(from, step, rows, count, to);
        default:
            return copy_rows<stride, 0>(from, step, rows, count, to);
    }
}

void copy_rows(const float* from, int64_t step, int rows, int64_t stride, int64_t count,
               float* to) {
    if (stride == 1 && count > 128) {
        for (int y = 0; y < rows; ++y, to += count) {
            std::memcpy(to, from + y * step, static_cast<size_t>(count) * sizeof(float));
        }
    } else if (stride == 1) {
        copy_rows<1>(from, step, rows, count, to);
    } else if (stride == 2) {
        copy_rows<2>(from, step, rows, count, to);
    } else {
        for (int y = 0; y < rows; ++y, to += count) {
            for (int64_t i = 0; i < count; ++i)
                to[i] = from[y * step + i * stride];
        }
    }
}

// How many of the pixels start, start + stride, ... lie in front of `size`, `count` at most.
inline int64_t pixels_inside(int64_t start, int64_t stride, int64_t count, int64_t size) {
    if (start >= size) return 0;
    const int64_t inside = (size - start - 1) / stride + 1;
    return inside < count ? inside : count;
}

// The taps one after the other, in the order channel, ky, kx.
struct TapWalk {
    int64_t q = 0;
    int ky = 0, kx = 0;

    /// Floats from the first tap of an output pixel to this one.
    int64_t offset(const Im2col& work) const {
        return q * work.plane + int64_t{ky} * work.dilation_h * work.row +
               int64_t{kx} * work.dilation_w;
    }
    void next(const Im2col& work) {
        if (++kx < work.kernel_w) return;
        kx = 0;
        if (++ky < work.kernel_h) return;
        ky = 0;
        ++q;
    }
};

constexpr int strip = 16;  // floats of a cache line

// Four taps of `count` output pixels: to[i * pitch + k] = from[k][i * stride].
template <int stride>
void interleave_taps(const float* const from[4], int count, int64_t pitch, float* to) {
    int i = 0;
    for (; i + 4 <= count; i += 4) {
        __m128 a = load_four<stride>(from[0] + i * stride);
        __m128 b = load_four<stride>(from[1] + i * stride);
        __m128 c = load_four<stride>(from[2] + i * stride);
        __m128 d = load_four<stride>(from[3] + i * stride);
        _MM_TRANSPOSE4_PS(a, b, c, d);
        _mm_storeu_ps(to + i * pitch, a);
        _mm_storeu_ps(to + (i + 1) * pitch, b);
        _mm_storeu_ps(to + (i + 2) * pitch, c);
        _mm_storeu_ps(to + (i + 3) * pitch, d);
    }
    for (; i < count; ++i) {
        for (int k = 0; k < 4; ++k)
            to[i * pitch + k] = from[k][i * stride];
    }
}

}  // namespace

void im2col_channel_major(const Im2col& work, float* col) {
    const int64_t step = int64_t{work.stride_h} * work.row;
    const int64_t span = (work.out_h - 1) * step + int64_t{work.out_w - 1} * work.stride_w;
    const int64_t taps = work.taps();
    TapWalk tap;
    for (int64_t k = 0; k < taps; ++k, tap.next(work)) {
        const int64_t start = tap.offset(work);
        if (start + span < work.size) {
            copy_rows(work.source + start, step, work.out_h, work.stride_w, work.out_w, col);
            col += work.pixels();
            continue;
        }
        for (int y = 0; y < work.out_h; ++y, col += work.out_w) {
            const int64_t row = start + y * step;
            const int64_t inside = pixels_inside(row, work.stride_w, work.out_w, work.size);
            if (inside > 0) copy_rows(work.source + row, 0, 1, work.stride_w, inside, col);
            std::memset(col + inside, 0, static_cast<size_t>(work.out_w - inside) * sizeof(float));
        }
    }
}

void im2col_pixel_major(const Im2col& work, int64_t pitch, float* col) {
    const int64_t taps = work.taps();
    for (int y = 0; y < work.out_h; ++y) {
        // A strip of pixels at a time: a source line is read once, and the lines of `col` that the
        // strip touches stay in the cache until they are full.
        for (int x = 0; x < work.out_w; x += strip) {
            const int count = work.out_w - x < strip ? work.out_w - x : strip;
            const int64_t origin =
                int64_t{y} * work.stride_h * work.row + int64_t{x} * work.stride_w;
            const int64_t span = int64_t{count - 1} * work.stride_w;
            float* to = col + (int64_t{y} * work.out_w + x) * pitch;
            TapWalk tap;
            for (int64_t k = 0; k < taps;) {
                if (work.stride_w <= 2 && k + 4 <= taps) {
                    TapWalk ahead = tap;
                    int64_t start[4];
                    bool inside = true;
                    for (int64_t& place : start) {
                        place = origin + ahead.offset(work);
                        inside = inside && place + span < work.size;
                        ahead.next(work);
                    }
                    if (inside) {
                        const float* from[4] = {work.source + start[0], work.source + start[1],
                                                work.source + start[2], work.source + start[3]};
                        if (work.stride_w == 1) {
                            interleave_taps<1>(from, count, pitch, to + k);
                        } else {
                            interleave_taps<2>(from, count, pitch, to + k);
                        }
                        tap = ahead;
                        k += 4;
                        continue;
                    }
                }
                const int64_t start = origin + tap.offset(work);
                const int64_t inside = pixels_inside(start, work.stride_w, count, work.size);
                for (int64_t i = 0; i < inside; ++i) {
                    to[i * pitch + k] = work.source[start + i * work.stride_w];
                }
                for (int64_t i = inside; i < count; ++i)
                    to[i * pitch + k] = 0.0f;
                tap.next(work);
                ++k;
            }
        }
    }
}

void gather_every_second(const float* source, int64_t channels, int h, int w, int64_t count,
                         float* col) {
    const int64_t plane = int64_t{h} * w;
    const int64_t columns = (int64_t{w} + 1) / 2;
    const int rows = static_cast<int>(count / columns);
    const int64_t rest = count % columns;
    for (int64_t q = 0; q < channels; ++q, col += count) {
        const float* from = source + q * plane;
        copy_rows(from, 2 * int64_t{w}, rows, 2, columns, col);
        if (rest > 0) copy_rows(from + 2 * int64_t{w} * rows, 0, 1, 2, rest, col + rows * columns);
    }
}

void transpose(const float* source, int64_t rows, int64_t columns, float* target) {
    for (int64_t c = 0; c < columns; c += strip) {
        const int64_t width = columns - c < strip ? columns - c : strip;
        int64_t r = 0;
        for (; r + 4 <= rows; r += 4) {
            const float* from = source + r * columns + c;
            float* to = target + c * rows + r;
            int64_t i = 0;
            for (; i + 4 <= width; i += 4) {
                __m128 v0 = _mm_loadu_ps(from + i);
                __m128 v1 = _mm_loadu_ps(from + columns + i);
                __m128 v2 = _mm_loadu_ps(from + 2 * columns + i);
                __m128 v3 = _mm_loadu_ps(from + 3 * columns + i);
                _MM_TRANSPOSE4_PS(v0, v1, v2, v3);
                _mm_storeu_ps(to + i * rows, v0);
                _mm_storeu_ps(to + (i + 1) * rows, v1);
                _mm_storeu_ps(to + (i + 2) * rows, v2);
                _mm_storeu_ps(to + (i + 3) * rows, v3);
            }
            for (; i < width; ++i) {
                for (int j = 0; j < 4; ++j)
                    to[i * rows + j] = from[j * columns + i];
            }
        }
        for (; r < rows; ++r) {
            for (int64_t i = 0; i < width; ++i) {
                target[(c + i) * rows + r] = source[r * columns + c + i];
            }
        }
    }
}

}  // namespace TarnoCPU
