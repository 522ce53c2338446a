#include "cpu/operator/pooling_float_fallback.h"

#include <climits>

#include "cpu/operator/kernel_support.h"
#include "cpu/operator/window_rows.h"

namespace TarnoCPU {

TN_DEFINE_OPERATOR_CREATOR(Pooling_Float_Fallback)

namespace {

enum PoolingType { maximum = 0, average = 1 };
enum PadMode { full_windows = 0, as_told = 1, keep_size = 2 };

// The places of a window's elements behind its first one.
struct Window {
    int64_t row;  // elements from one row to the next
    int kernel_w;
    int kernel_h;

    int64_t area() const { return int64_t{kernel_w} * kernel_h; }
    int64_t last() const { return int64_t{kernel_h - 1} * row + (kernel_w - 1); }
};

struct MaximumTile {
    Window shape;

    template <int Columns, int Stride>
    void run(const float* window, int64_t stride, float* out) const {
        const int64_t step = Stride != 0 ? Stride : stride;
        float best[Columns];
        for (int i = 0; i < Columns; ++i)
            best[i] = window[i * step];
        for (int ky = 0; ky < shape.kernel_h; ++ky) {
            for (int kx = 0; kx < shape.kernel_w; ++kx) {
                const float* source = window + ky * shape.row + kx;
                for (int i = 0; i < Columns; ++i) {
                    const float v = source[i * step];
                    best[i] = v > best[i] ? v : best[i];
                }
            }
        }
        for (int i = 0; i < Columns; ++i)
            out[i] = best[i];
    }
};

struct AverageTile {
    Window shape;

    template <int Columns, int Stride>
    void run(const float* window, int64_t stride, float* out) const {
        const int64_t step = Stride != 0 ? Stride : stride;
        float sums[Columns];
        for (int i = 0; i < Columns; ++i)
            sums[i] = 0.0f;
        for (int ky = 0; ky < shape.kernel_h; ++ky) {
            for (int kx = 0; kx < shape.kernel_w; ++kx) {
                const float* source = window + ky * shape.row + kx;
                for (int i = 0; i < Columns; ++i)
                    sums[i] += source[i * step];
            }
        }
        const float area = static_cast<float>(shape.area());
        for (int i = 0; i < Columns; ++i)
            out[i] = sums[i] / area;
    }
};

// One output whose window may reach behind the end of the block.
float guarded_output(int pooling_type, const Window& shape, const float* data, int64_t window,
                     int64_t total) {
    float best = data[window], sum = 0.0f;
    for (int ky = 0; ky < shape.kernel_h; ++ky) {
        for (int kx = 0; kx < shape.kernel_w; ++kx) {
            const int64_t at = window + ky * shape.row + kx;
            const float v = at < total ? data[at] : 0.0f;
            best = v > best ? v : best;
            sum += v;
        }
    }
    return pooling_type == maximum ? best : sum / static_cast<float>(shape.area());
}

}  // namespace

int Pooling_Float_Fallback::load(const ParamDict& pd, const ModelBin&,
                                 const LayerInferenceConfig&) {
    pooling_type = pd.get(0, 0);
    kernel_w = pd.get(1, 0);
    kernel_h = pd.get(2, kernel_w);
    stride_w = pd.get(3, 0);
    stride_h = pd.get(4, stride_w);
    pad_left = pd.get(5, 0);
    pad_right = pd.get(6, pad_left);
    pad_top = pd.get(7, 0);
    pad_bottom = pd.get(8, pad_top);
    global_pooling = pd.get(9, 0);
    pad_mode = pd.get(10, 2);
    return 0;
}

bool Pooling_Float_Fallback::check_forward(const TensorShape& shape) {
    return is_float_chw(shape);
}

int Pooling_Float_Fallback::forward_global(const Mat& bottom, Mat& top) const {
    const TensorShape shape = bottom.shape;
    // From the plain heap, whatever the blob allocator is.
    top.create(TensorShape(shape.layout, 1, 1, shape.c, shape.elem_size), nullptr);
    if (top.empty()) return -100;
    const int64_t size = int64_t{shape.h} * shape.w;
    for (int q = 0; q < shape.c; ++q) {
        const float* x = bottom.ptr<float>() + q * size;
        if (pooling_type == maximum) {
            float best = x[0];
            for (int64_t i = 0; i < size; ++i)
                best = x[i] > best ? x[i] : best;
            top.ptr<float>()[q] = best;
        } else {
            float sum = 0.0f;
            for (int64_t i = 0; i < size; ++i)
                sum += x[i];
            top.ptr<float>()[q] = sum / static_cast<float>(size);
        }
    }
    return 0;
}

Pooling_Float_Fallback::Tail Pooling_Float_Fallback::tail_of(const TensorShape& bottom) const {
    Tail tail;
    if (pad_mode != full_windows) return tail;
    const int64_t wtail = (int64_t{bottom.w} + pad_left + pad_right - kernel_w) % stride_w;
    const int64_t htail = (int64_t{bottom.h} + pad_top + pad_bottom - kernel_h) % stride_h;
    if (wtail != 0) tail.columns = stride_w - wtail;
    if (htail != 0) tail.rows = stride_h - htail;
    return tail;
}

int Pooling_Float_Fallback::make_padded(const Mat& bottom, Tail tail, Mat& padded,
                                        const Option& opt) const {
    int64_t above = 0, below = 0, left = 0, right = 0;
    if (pad_mode == full_windows || pad_mode == as_told) {
        above = pad_top;
        below = pad_bottom + tail.rows;
        left = pad_left;
        right = pad_right + tail.columns;
    } else if (pad_mode == keep_size) {
        const int64_t w = bottom.shape.w, h = bottom.shape.h;
        const int64_t wpad = kernel_w + (w - 1) / stride_w * stride_w - w;
        const int64_t hpad = kernel_h + (h - 1) / stride_h * stride_h - h;
        if (wpad > 0 || hpad > 0) {
            // The larger half is at the bottom and on the right.
            above = hpad / 2;
            below = hpad - above;
            left = wpad / 2;
            right = wpad - left;
        }
    }
    if (below > INT_MAX || right > INT_MAX) return -100;
    // Both kinds get a border of zeros. The lowest float as the fill of a maximum is what was
    // meant, but a border is filled byte by byte with the low byte of the integer, which is 0.
    // Models were trained against zeros.
    const float fill = pooling_type == maximum ? -3.4028235e38f : 0.0f;
    copy_make_border(bottom, padded, static_cast<int>(above), static_cast<int>(below),
                     static_cast<int>(left), static_cast<int>(right), 0, fill,
                     opt.workspace_allocator, 1);
    return padded.empty() ? -100 : 0;
}

// Each edge as a whole, so that corners get two factors. What is padded is taken from the
// parameters, even where `pad_mode` padded otherwise: that is how averages at edges always were.
void Pooling_Float_Fallback::correct_edges(float* plane, int outw, int outh, Tail tail) const {
    const auto factor = [](int kernel, int64_t pad) {
        return static_cast<float>(kernel) / static_cast<float>(kernel - pad);
    };
    const auto scale_row = [&](int y, float by) {
        for (int x = 0; x < outw; ++x)
            plane[int64_t{y} * outw + x] *= by;
    };
    const auto scale_column = [&](int x, float by) {
        for (int y = 0; y < outh; ++y)
            plane[int64_t{y} * outw + x] *= by;
    };
    const int64_t below = pad_bottom + tail.rows;
    const int64_t right = pad_right + tail.columns;
    if (pad_top != 0) scale_row(0, factor(kernel_h, pad_top));
    if (below != 0) scale_row(outh - 1, factor(kernel_h, below));
    if (pad_left != 0) scale_column(0, factor(kernel_w, pad_left));
    if (right != 0) scale_column(outw - 1, factor(kernel_w, right));
}

int Pooling_Float_Fallback::forward(const Mat& bottom, Mat& top, const Option& opt) {
    TN_FORWARD_PRECONDITIONS(check_forward(bottom.shape));
    if (bottom.empty() || bottom.shape.dims() == 0) return -100;
    if (pooling_type != maximum && pooling_type != average) return -100;
    if (global_pooling != 0) return forward_global(bottom, top);
    // The model format counts kernels in 16 bits.
    constexpr int largest_kernel = 65535;
    if (kernel_w <= 0 || kernel_h <= 0 || kernel_w > largest_kernel || kernel_h > largest_kernel ||
        stride_w <= 0 || stride_h <= 0) {
        return -100;
    }

    const Tail tail = tail_of(bottom.shape);
    Mat padded;
    if (make_padded(bottom, tail, padded, opt) != 0) return -100;

    // Division toward zero: see the depthwise convolution.
    const int row = padded.shape.w;
    const int64_t outw = (int64_t{row} - kernel_w) / stride_w + 1;
    const int64_t outh = (int64_t{padded.shape.h} - kernel_h) / stride_h + 1;
    if (outw <= 0 || outh <= 0) return -100;
    top.create(TensorShape(padded.shape.layout, padded.shape.c, static_cast<int>(outh),
                           static_cast<int>(outw), padded.shape.elem_size),
               opt.blob_allocator);
    if (top.empty()) return -100;

    const int64_t plane = int64_t{row} * padded.shape.h;
    const int64_t total = padded.shape.total();
    const float* data = padded.ptr<float>();
    const int columns = top.shape.w, rows = top.shape.h;
    const Window shape{row, kernel_w, kernel_h};
    float* out = top.ptr<float>();
    for (int q = 0; q < top.shape.c; ++q) {
        for (int y = 0; y < rows; ++y, out += columns) {
            const int64_t window = q * plane + int64_t{y} * stride_h * row;
            if (window + int64_t{columns - 1} * stride_w + shape.last() >= total) {
                for (int x = 0; x < columns; ++x) {
                    out[x] = guarded_output(pooling_type, shape, data,
                                            window + int64_t{x} * stride_w, total);
                }
            } else if (pooling_type == maximum) {
                compute_window_row(MaximumTile{shape}, data + window, stride_w, columns, out);
            } else {
                compute_window_row(AverageTile{shape}, data + window, stride_w, columns, out);
            }
        }
        if (pooling_type == average) {
            correct_edges(out - int64_t{rows} * columns, columns, rows, tail);
        }
    }
    return 0;
}

}  // namespace TarnoCPU
