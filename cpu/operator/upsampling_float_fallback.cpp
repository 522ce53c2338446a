#include "cpu/operator/upsampling_float_fallback.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstring>

#include "cpu/operator/kernel_support.h"

namespace TarnoCPU {

TN_DEFINE_OPERATOR_CREATOR(Upsampling_Float_Fallback)

namespace {

enum Mode { nearest = 0, bilinear = 1 };

void enlarge_nearest(const Mat& bottom, Mat& top, int scale) {
    const int64_t w = bottom.shape.w, out_w = top.shape.w;
    const int64_t rows = int64_t{bottom.shape.c} * bottom.shape.h;
    for (int64_t row = 0; row < rows; ++row) {
        const float* source = bottom.ptr<float>() + row * w;
        float* first = top.ptr<float>() + row * scale * out_w;
        if (scale == 2) {
            for (int64_t x = 0; x < w; ++x)
                first[2 * x] = first[2 * x + 1] = source[x];
        } else {
            for (int64_t x = 0; x < w; ++x) {
                for (int64_t i = 0; i < 4; ++i)
                    first[4 * x + i] = source[x];
            }
        }
        for (int copy = 1; copy < scale; ++copy) {
            std::memcpy(first + copy * out_w, first, static_cast<size_t>(out_w) * sizeof(float));
        }
    }
}

// Where the outputs of a doubled row or column lie between the inputs: outputs 2i + 1 and 2i + 2 at
// first(i) and first(i) + step, as parts of the way from input i to input i + 1.
struct Doubling {
    float step;
    float start;

    Doubling(int count, bool align_corners) : step(0.5f), start(0.25f) {
        if (!align_corners) return;
        step = static_cast<float>((count - 1.0) / (2.0 * count - 1.0));
        start = step;
    }
};

float fraction(float position) {
    return position - std::trunc(position);
}

// out[0 .. 2n) from a row that is made of `upper` and `lower` by the weights 1 - u and u.
void double_row(const float* upper, const float* lower, float u, const float* fractions, float step,
                int n, float* out) {
    for (int i = 0; i < n - 1; ++i) {
        const float t1 = fractions[i];
        const float t2 = t1 + step;
        const float l = (1.0f - u) * upper[i] + u * lower[i];
        const float r = (1.0f - u) * upper[i + 1] + u * lower[i + 1];
        out[2 * i + 1] = (1.0f - t1) * l + t1 * r;
        out[2 * i + 2] = (1.0f - t2) * l + t2 * r;
    }
    out[0] = (1.0f - u) * upper[0] + u * lower[0];
    out[2 * n - 1] = (1.0f - u) * upper[n - 1] + u * lower[n - 1];
}

// The first and the last row of the top: made of one row, which is taken as it is.
void double_edge_row(const float* source, const float* fractions, float step, int n, float* out) {
    for (int i = 0; i < n - 1; ++i) {
        const float t1 = fractions[i];
        const float t2 = t1 + step;
        out[2 * i + 1] = (1.0f - t1) * source[i] + t1 * source[i + 1];
        out[2 * i + 2] = (1.0f - t2) * source[i] + t2 * source[i + 1];
    }
    out[0] = source[0];
    out[2 * n - 1] = source[n - 1];
}

int double_bilinear(const Mat& bottom, Mat& top, bool align_corners, Allocator* workspace) {
    const int n = bottom.shape.w, m = bottom.shape.h;
    const Doubling columns(n, align_corners);
    const Doubling rows(m, align_corners);
    // The positions are a running sum, not a product, so they are made once.
    Mat fractions(TensorShape(TensorShape::FLAT, 1, 1, n, 4), workspace);
    if (fractions.empty()) return -100;
    float px = columns.start;
    for (int i = 0; i < n; ++i, px += 2.0f * columns.step)
        fractions.ptr<float>()[i] = fraction(px);

    const int64_t plane = int64_t{n} * m;
    const int64_t out_w = top.shape.w;
    for (int q = 0; q < bottom.shape.c; ++q) {
        const float* source = bottom.ptr<float>() + q * plane;
        float* out = top.ptr<float>() + q * plane * 4;
        const float* t = fractions.ptr<float>();
        double_edge_row(source, t, columns.step, n, out);
        float py = rows.start;
        for (int64_t j = 0; j < m - 1; ++j, py += 2.0f * rows.step) {
            const float u1 = fraction(py);
            const float u2 = u1 + rows.step;
            const float* upper = source + j * n;
            const float* lower = upper + n;
            double_row(upper, lower, u1, t, columns.step, n, out + (2 * j + 1) * out_w);
            double_row(upper, lower, u2, t, columns.step, n, out + (2 * j + 2) * out_w);
        }
        double_edge_row(source + int64_t{m - 1} * n, t, columns.step, n,
                        out + int64_t{2 * int64_t{m} - 1} * out_w);
    }
    return 0;
}

// The input before an output, the one behind it, and how far it lies on the way between them.
struct Place {
    int before;
    int behind;
    float t;

    Place(int out, float step, bool align_corners, int count) {
        const float position = align_corners ? static_cast<float>(out) * step
                                             : std::max(0.0f, (out + 0.5f) * step - 0.5f);
        before = std::min(static_cast<int>(position), count - 1);
        behind = before < count - 1 ? before + 1 : before;
        t = position - static_cast<float>(before);
    }
};

float step_of(int count, int out_count, bool align_corners) {
    if (align_corners) return static_cast<float>(count - 1) / static_cast<float>(out_count - 1);
    // A division of integers, 0 for every enlargement: the whole top is the first element of the
    // bottom. Models have learned to live with it.
    return static_cast<float>(count / out_count);
}

void enlarge_bilinear(const Mat& bottom, Mat& top, bool align_corners) {
    const int in_w = bottom.shape.w, in_h = bottom.shape.h;
    const int out_w = top.shape.w, out_h = top.shape.h;
    const float sx = step_of(in_w, out_w, align_corners);
    const float sy = step_of(in_h, out_h, align_corners);
    float* out = top.ptr<float>();
    for (int q = 0; q < bottom.shape.c; ++q) {
        const float* source = bottom.ptr<float>() + int64_t{q} * in_h * in_w;
        for (int y = 0; y < out_h; ++y) {
            const Place py(y, sy, align_corners, in_h);
            const float* upper = source + int64_t{py.before} * in_w;
            const float* lower = source + int64_t{py.behind} * in_w;
            const float ty = py.t;
            for (int x = 0; x < out_w; ++x) {
                const Place px(x, sx, align_corners, in_w);
                const float tx = px.t;
                *out++ = upper[px.behind] * tx * (1.0f - ty) +
                         upper[px.before] * (1.0f - tx) * (1.0f - ty) +
                         lower[px.before] * (1.0f - tx) * ty + lower[px.behind] * tx * ty;
            }
        }
    }
}

}  // namespace

int Upsampling_Float_Fallback::load(const ParamDict& pd, const ModelBin&,
                                    const LayerInferenceConfig&) {
    scale = pd.get(0, 0.0f);
    mode = pd.get(1, 1);
    align_corners = pd.get(2, 0) != 0;
    return 0;
}

bool Upsampling_Float_Fallback::check_forward(const TensorShape& shape) {
    return is_float_chw(shape) && (scale == 2.0f || scale == 4.0f || scale == 8.0f);
}

int Upsampling_Float_Fallback::forward(const Mat& bottom, Mat& top, const Option& opt) {
    TN_FORWARD_PRECONDITIONS(check_forward(bottom.shape));
    if (is_same_block(bottom, top)) return forward_apart(*this, bottom, top, opt);
    if (bottom.empty() || bottom.shape.dims() == 0) return -100;

    // The size is computed in float, which counts to 2^24; what is larger is no picture.
    const int factor = static_cast<int>(scale);
    constexpr int largest = 1 << 24;
    if (bottom.shape.h > largest / factor || bottom.shape.w > largest / factor) return -100;
    TensorShape shape = bottom.shape;
    shape.h = static_cast<int>(static_cast<float>(shape.h) * scale);
    shape.w = static_cast<int>(static_cast<float>(shape.w) * scale);
    top.create(shape, opt.blob_allocator);
    if (top.empty()) return -100;

    if (mode == nearest && factor <= 4) {
        enlarge_nearest(bottom, top, factor);
        return 0;
    }
    if (mode == bilinear && factor == 2) {
        return double_bilinear(bottom, top, align_corners, opt.workspace_allocator);
    }
    if (mode == bilinear) {
        enlarge_bilinear(bottom, top, align_corners);
        return 0;
    }
    TN_ASSERT(false && "Not implemeted");
    return 0;
}

}  // namespace TarnoCPU
