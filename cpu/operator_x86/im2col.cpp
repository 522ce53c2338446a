#include "cpu/operator_x86/im2col.h"

#include <emmintrin.h>

#include <cstring>

namespace TarnoCPU {
namespace {

// Rows of a feature map are short, too short for the way into memcpy and back.
inline void copy_row(const float* from, int64_t count, float* to) {
    if (count > 128) {
        std::memcpy(to, from, static_cast<size_t>(count) * sizeof(float));
        return;
    }
    if (count < 4) {
        for (int64_t i = 0; i < count; ++i)
            to[i] = from[i];
        return;
    }
    for (int64_t i = 0; i + 4 < count; i += 4)
        _mm_storeu_ps(to + i, _mm_loadu_ps(from + i));
    // The last vector overlaps the one before it where 4 does not divide the count.
    _mm_storeu_ps(to + count - 4, _mm_loadu_ps(from + count - 4));
}

// to[i] = from[2 * i]; reads nothing behind from[2 * (count - 1)].
inline void copy_every_second(const float* from, int64_t count, float* to) {
    int64_t i = 0;
    for (; i + 4 < count; i += 4) {
        const __m128 low = _mm_loadu_ps(from + 2 * i);
        const __m128 high = _mm_loadu_ps(from + 2 * i + 4);
        _mm_storeu_ps(to + i, _mm_shuffle_ps(low, high, _MM_SHUFFLE(2, 0, 2, 0)));
    }
    for (; i < count; ++i)
        to[i] = from[2 * i];
}

inline void copy_strided(const float* from, int64_t stride, int64_t count, float* to) {
    if (stride == 1) {
        copy_row(from, count, to);
    } else if (stride == 2) {
        copy_every_second(from, count, to);
    } else {
        for (int64_t i = 0; i < count; ++i)
            to[i] = from[i * stride];
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

// Four taps of `count` neighbouring pixels: to[i * pitch + k] = from[k][i]. All of it inside.
inline void interleave_taps(const float* const from[4], int count, int64_t pitch, float* to) {
    int i = 0;
    for (; i + 4 <= count; i += 4) {
        __m128 a = _mm_loadu_ps(from[0] + i);
        __m128 b = _mm_loadu_ps(from[1] + i);
        __m128 c = _mm_loadu_ps(from[2] + i);
        __m128 d = _mm_loadu_ps(from[3] + i);
        _MM_TRANSPOSE4_PS(a, b, c, d);
        _mm_storeu_ps(to + i * pitch, a);
        _mm_storeu_ps(to + (i + 1) * pitch, b);
        _mm_storeu_ps(to + (i + 2) * pitch, c);
        _mm_storeu_ps(to + (i + 3) * pitch, d);
    }
    for (; i < count; ++i) {
        for (int k = 0; k < 4; ++k)
            to[i * pitch + k] = from[k][i];
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
            for (int y = 0; y < work.out_h; ++y, col += work.out_w) {
                copy_strided(work.source + start + y * step, work.stride_w, work.out_w, col);
            }
            continue;
        }
        for (int y = 0; y < work.out_h; ++y, col += work.out_w) {
            const int64_t row = start + y * step;
            const int64_t inside = pixels_inside(row, work.stride_w, work.out_w, work.size);
            if (inside > 0) copy_strided(work.source + row, work.stride_w, inside, col);
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
                if (work.stride_w == 1 && k + 4 <= taps) {
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
                        interleave_taps(from, count, pitch, to + k);
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
    for (int64_t q = 0; q < channels; ++q) {
        for (int64_t done = 0, y = 0; done < count; done += columns, y += 2) {
            const int64_t pixels = count - done < columns ? count - done : columns;
            copy_every_second(source + q * plane + y * w, pixels, col);
            col += pixels;
        }
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
