#include <cstdint>
#include <cstring>
#include <memory>
#include <new>

#include "cpu/resize.h"

namespace TarnoCPU {
namespace {

// Where a target column or row takes its value from: its place in the source, negative for nowhere.
using Places = std::unique_ptr<int[]>;

Places make_places(int count) {
    return Places(new (std::nothrow) int[static_cast<size_t>(count)]);
}

float source_position(int target, float scale) {
    return static_cast<float>((target + 0.5) * scale - 0.5);
}

Places places_in_image(int source_size, int target_size) {
    Places places = make_places(target_size);
    if (places == nullptr) return places;
    const float scale = static_cast<float>(source_size) / static_cast<float>(target_size);
    for (int d = 0; d < target_size; ++d) {
        // Never below -0.5, so the truncation yields no negative place.
        const float f = source_position(d, scale);
        const int64_t s = static_cast<int64_t>(f);
        const float fraction = f - static_cast<float>(s);
        places[d] =
            s >= source_size - 1 ? source_size - 1 : static_cast<int>(s) + (fraction >= 0.5f);
    }
    return places;
}

// The same for the range from `start` to `end`, both included, of a source of `source_size`.
Places places_in_range(int source_size, int target_size, int start, int end) {
    Places places = make_places(target_size);
    if (places == nullptr) return places;
    const int64_t last = static_cast<int64_t>(end) - start;
    const float scale = static_cast<float>(last + 1) / static_cast<float>(target_size);
    for (int d = 0; d < target_size; ++d) {
        const float f = source_position(d, scale);
        int64_t s = static_cast<int64_t>(f);
        float fraction = f - static_cast<float>(s);
        if (s < 0) {
            s = 0;
            fraction = 0.0f;
        }
        if (s >= last) {
            s = last;
            fraction = 0.0f;
        }
        s += start;
        if (s < 0 || s > source_size - 1) {
            places[d] = -1;
        } else {
            places[d] = static_cast<int>(s) + (s != source_size - 1 && fraction >= 0.5f);
        }
    }
    return places;
}

template <int N>
void copy_places(const unsigned char* src, int srcw, unsigned char* dst, int w, int h,
                 const int* columns, const int* rows) {
    for (int y = 0; y < h; ++y) {
        if (rows[y] < 0) continue;
        const unsigned char* from = src + static_cast<size_t>(rows[y]) * srcw * N;
        unsigned char* to = dst + static_cast<size_t>(y) * w * N;
        for (int x = 0; x < w; ++x, to += N) {
            if (columns[x] >= 0) std::memcpy(to, from + static_cast<size_t>(columns[x]) * N, N);
        }
    }
}

template <int N>
void crop_resize_nearest(const unsigned char* src, int srcw, int srch, unsigned char* dst, int w,
                         int h, int x0, int y0, int x1, int y1) {
    if (srcw <= 0 || srch <= 0 || w <= 0 || h <= 0) return;
    const Places columns = places_in_range(srcw, w, x0, x1);
    const Places rows = places_in_range(srch, h, y0, y1);
    if (columns == nullptr || rows == nullptr) return;
    copy_places<N>(src, srcw, dst, w, h, columns.get(), rows.get());
}

}  // namespace

void resize_nearest_c1(const unsigned char* src, int srcw, int srch, unsigned char* dst, int w,
                       int h) {
    if (srcw <= 0 || srch <= 0 || w <= 0 || h <= 0) return;
    const Places columns = places_in_image(srcw, w);
    const Places rows = places_in_image(srch, h);
    if (columns == nullptr || rows == nullptr) return;
    copy_places<1>(src, srcw, dst, w, h, columns.get(), rows.get());
}

void crop_resize_nearest_c1(const unsigned char* src, int srcw, int srch, unsigned char* dst, int w,
                            int h, int x0, int y0, int x1, int y1) {
    crop_resize_nearest<1>(src, srcw, srch, dst, w, h, x0, y0, x1, y1);
}

void crop_resize_nearest_c3(const unsigned char* src, int srcw, int srch, unsigned char* dst, int w,
                            int h, int x0, int y0, int x1, int y1) {
    crop_resize_nearest<3>(src, srcw, srch, dst, w, h, x0, y0, x1, y1);
}

void crop_resize_nearest_c4(const unsigned char* src, int srcw, int srch, unsigned char* dst, int w,
                            int h, int x0, int y0, int x1, int y1) {
    crop_resize_nearest<4>(src, srcw, srch, dst, w, h, x0, y0, x1, y1);
}

}  // namespace TarnoCPU
