#include "difference_bound.h"

#include <crossplatform/src/common/src/half_float.h>
#include <modelkit/gpu_layers.h>

#include <algorithm>
#include <cmath>
#include <limits>

namespace tool {
namespace {

constexpr double infinity = std::numeric_limits<double>::infinity();
constexpr double largest_half = 65504.0;
constexpr double half_step = 0x1p-10;      // of a number, relative, when cut off
constexpr double smallest_half = 0x1p-24;  // below the normal halves
constexpr double float_rounding = 0x1p-24;

/// What a tensor brings along: for each element the difference, and the larger magnitude. Where an
/// engine has no number the difference is infinite, the other's missing one notwithstanding: the
/// two may go on in two ways, as the maximum of 0 and no number does.
struct Carried {
    std::vector<float> difference;
    std::vector<float> magnitude;

    explicit Carried(const EnginePair& pair) {
        difference.reserve(pair.cpu.size());
        magnitude.reserve(pair.cpu.size());
        for (size_t i = 0; i < pair.cpu.size(); ++i) {
            const bool number = !std::isnan(pair.cpu[i]) && !std::isnan(pair.gpu[i]);
            difference.push_back(static_cast<float>(
                number ? element_difference(pair.cpu[i], pair.gpu[i]) : infinity));
            const double larger = std::max(std::fabs(pair.cpu[i]), std::fabs(pair.gpu[i]));
            magnitude.push_back(static_cast<float>(larger));
        }
    }

    /// difference + `rounding` * magnitude, what a weight multiplies.
    std::vector<float> with_rounding(double rounding) const {
        std::vector<float> sum(difference);
        if (rounding == 0.0) return sum;  // 0 times an infinite magnitude is no number
        for (size_t i = 0; i < sum.size(); ++i) {
            sum[i] += static_cast<float>(rounding * static_cast<double>(magnitude[i]));
        }
        return sum;
    }
};

/// Both engines round every product and sum once; the order is free.
double sum_rounding(int64_t terms) {
    return 2.02 * static_cast<double>(terms + 2) * float_rounding;
}

/// Outputs [first, last) along one side whose tap lies inside the input.
struct Span {
    int64_t first;
    int64_t last;
};

Span inside(int64_t out, int64_t in, int64_t stride, int64_t offset) {
    const int64_t first = offset >= 0 ? 0 : (-offset + stride - 1) / stride;
    const int64_t last = in - 1 - offset < 0 ? 0 : (in - 1 - offset) / stride + 1;
    return {first, std::min(out, last)};
}

/// plane[y][x] += weight * source[y * stride + offset][...], where that is inside the source.
void add_tap(const float* source, const TensorSize& in, float weight, const Window& window, int kx,
             int ky, float* plane, const TensorSize& out) {
    const int64_t dy = int64_t{ky} * window.dilation_h - window.pad_h;
    const int64_t dx = int64_t{kx} * window.dilation_w - window.pad_w;
    const Span rows = inside(out.h, in.h, window.stride_h, dy);
    const Span columns = inside(out.w, in.w, window.stride_w, dx);
    for (int64_t y = rows.first; y < rows.last; ++y) {
        const float* from = source + (y * window.stride_h + dy) * in.w + dx;
        float* to = plane + y * out.w;
        for (int64_t x = columns.first; x < columns.last; ++x) {
            to[x] += weight * from[x * window.stride_w];
        }
    }
}

template <typename Record>
float bias_of(const Record& record, int64_t channel) {
    const bool has = record.has_bias != 0 && record.bias != nullptr &&
                     static_cast<size_t>(channel) < record.bias_count;
    return has ? std::fabs(record.bias[channel]) : 0.0f;
}

class Bound {
public:
    Bound(const EnginePair& output, const GpuOptions& gpu)
        : out(output.size), gpu(gpu), values(output.cpu.size(), 0.0f) {}

    void conv2d(const ZQLayerInfo_Conv2D& record, const EnginePair& bottom);
    void transpose(const ZQLayerInfo_Conv2DTranspose& record, const EnginePair& bottom);
    void depthwise(const ZQLayerInfo_DepthWiseConv2D& record, const EnginePair& bottom);
    void pooling(const ZQLayerInfo_Pooling& record, const EnginePair& bottom);
    void eltwise(const ZQLayerInfo_ElementWiseOperator& record,
                 const std::vector<const EnginePair*>& bottoms);
    void concat(const std::vector<const EnginePair*>& bottoms);
    void pixel_shuffle(const EnginePair& bottom);
    void upsampling(const ZQLayerInfo_Upsampling& record, const EnginePair& bottom);
    void dense(const ZQLayerInfo_FullConnection& record, const EnginePair& bottom);
    void copy(const EnginePair& bottom);
    void activation(int code);

    /// With the rounding to half.
    std::vector<float> stored(const EnginePair& output) const;

private:
    float* plane(int64_t channel) { return &values[static_cast<size_t>(channel * out.h * out.w)]; }

    TensorSize out;
    const GpuOptions& gpu;
    std::vector<float> values;
    double own_error = 0.0;
};

void Bound::conv2d(const ZQLayerInfo_Conv2D& record, const EnginePair& bottom) {
    Window window = window_of(record);
    window.dilation_w = record.dilation_w;
    window.dilation_h = record.dilation_h;
    const int64_t taps = int64_t{window.kernel_w} * window.kernel_h;
    const int64_t in = bottom.size.c;
    double rounding = sum_rounding(taps * in);
    const bool pointwise = taps == 1;
    const bool four = window.kernel_w == 4;
    const bool three = window.kernel_w == 3 && window.kernel_h == 3;
    if (gpu.tricks_mode == 0 && !pointwise && !four && !(three && out.c % 4 != 0)) {
        rounding += static_cast<double>((in + 3) / 4 + 2) * half_step;
    }
    const std::vector<float> carried = Carried(bottom).with_rounding(rounding);
    const int64_t in_plane = bottom.size.h * bottom.size.w;
    for (int64_t o = 0; o < out.c; ++o) {
        float* to = plane(o);
        const float bias = static_cast<float>(rounding) * bias_of(record, o);
        std::fill(to, to + out.h * out.w, bias);
        for (int64_t t = 0; t < taps; ++t) {
            const int kx = static_cast<int>(t % window.kernel_w);
            const int ky = static_cast<int>(t / window.kernel_w);
            for (int64_t i = 0; i < in; ++i) {
                const float weight = std::fabs(record.weights[(o * taps + t) * in + i]);
                if (weight == 0.0f) continue;
                add_tap(&carried[static_cast<size_t>(i * in_plane)], bottom.size, weight, window,
                        kx, ky, to, out);
            }
        }
    }
}

/// Stride 2: output o takes tap k of input (o + pad - k) / 2 where that is whole.
void Bound::transpose(const ZQLayerInfo_Conv2DTranspose& record, const EnginePair& bottom) {
    const Window window = window_of(record);
    const int64_t taps = int64_t{window.kernel_w} * window.kernel_h;
    const TensorSize& in = bottom.size;
    const double rounding = sum_rounding(taps * in.c);
    const std::vector<float> carried = Carried(bottom).with_rounding(rounding);
    for (int64_t o = 0; o < out.c; ++o) {
        float* to = plane(o);
        const float bias = static_cast<float>(rounding) * bias_of(record, o);
        std::fill(to, to + out.h * out.w, bias);
        for (int64_t t = 0; t < taps; ++t) {
            const int64_t dx = t % window.kernel_w - window.pad_w;
            const int64_t dy = t / window.kernel_w - window.pad_h;
            for (int64_t i = 0; i < in.c; ++i) {
                const float weight = std::fabs(record.weights[(o * taps + t) * in.c + i]);
                const float* source = &carried[static_cast<size_t>(i * in.h * in.w)];
                for (int64_t y = 0; y < in.h; ++y) {
                    const int64_t oy = y * window.stride_h + dy;
                    if (oy < 0 || oy >= out.h) continue;
                    for (int64_t x = 0; x < in.w; ++x) {
                        const int64_t ox = x * window.stride_w + dx;
                        if (ox < 0 || ox >= out.w) continue;
                        to[oy * out.w + ox] += weight * source[y * in.w + x];
                    }
                }
            }
        }
    }
}

void Bound::depthwise(const ZQLayerInfo_DepthWiseConv2D& record, const EnginePair& bottom) {
    const Window window = window_of(record);
    const int64_t taps = int64_t{window.kernel_w} * window.kernel_h;
    const double rounding = sum_rounding(taps);
    const std::vector<float> carried = Carried(bottom).with_rounding(rounding);
    const int64_t in_plane = bottom.size.h * bottom.size.w;
    for (int64_t c = 0; c < out.c; ++c) {
        float* to = plane(c);
        const float bias = static_cast<float>(rounding) * bias_of(record, c);
        std::fill(to, to + out.h * out.w, bias);
        for (int64_t t = 0; t < taps; ++t) {
            add_tap(&carried[static_cast<size_t>(c * in_plane)], bottom.size,
                    std::fabs(record.weights[t * out.c + c]), window,
                    static_cast<int>(t % window.kernel_w), static_cast<int>(t / window.kernel_w),
                    to, out);
        }
    }
}

void Bound::pooling(const ZQLayerInfo_Pooling& record, const EnginePair& bottom) {
    const Window window = window_of(record);
    const int64_t taps = int64_t{window.kernel_w} * window.kernel_h;
    const bool maximum = record.pool_type == 1;
    const std::vector<float> carried =
        Carried(bottom).with_rounding(maximum ? 0.0 : sum_rounding(taps + 2));
    const TensorSize& in = bottom.size;
    for (int64_t c = 0; c < out.c; ++c) {
        const float* source = &carried[static_cast<size_t>(c * in.h * in.w)];
        if (!maximum) {
            for (int64_t t = 0; t < taps; ++t) {
                add_tap(source, in, 1.0f / static_cast<float>(taps), window,
                        static_cast<int>(t % window.kernel_w),
                        static_cast<int>(t / window.kernel_w), plane(c), out);
            }
            continue;
        }
        for (int64_t y = 0; y < out.h; ++y) {
            for (int64_t x = 0; x < out.w; ++x) {
                float most = 0.0f;
                for (int64_t t = 0; t < taps; ++t) {
                    const int64_t iy = y * window.stride_h - window.pad_h + t / window.kernel_w;
                    const int64_t ix = x * window.stride_w - window.pad_w + t % window.kernel_w;
                    if (iy < 0 || iy >= in.h || ix < 0 || ix >= in.w) continue;
                    most = std::max(most, source[iy * in.w + ix]);
                }
                plane(c)[y * out.w + x] = most;
            }
        }
    }
}

void Bound::eltwise(const ZQLayerInfo_ElementWiseOperator& record,
                    const std::vector<const EnginePair*>& bottoms) {
    if (record.operator_type == 0) {
        for (const EnginePair* bottom : bottoms) {
            const std::vector<float> carried =
                Carried(*bottom).with_rounding(sum_rounding(static_cast<int64_t>(bottoms.size())));
            for (size_t i = 0; i < values.size(); ++i) values[i] += carried[i];
        }
        return;
    }
    const Carried a(*bottoms[0]);
    const Carried b(*bottoms[1]);
    const float rounding = static_cast<float>(sum_rounding(1));
    for (size_t i = 0; i < values.size(); ++i) {
        values[i] = a.difference[i] * b.magnitude[i] + b.difference[i] * a.magnitude[i] +
                    rounding * a.magnitude[i] * b.magnitude[i];
    }
}

void Bound::concat(const std::vector<const EnginePair*>& bottoms) {
    size_t at = 0;
    for (const EnginePair* bottom : bottoms) {
        const Carried carried(*bottom);
        std::copy(carried.difference.begin(), carried.difference.end(),
                  values.begin() + static_cast<std::ptrdiff_t>(at));
        at += carried.difference.size();
    }
}

/// By 2: channels 4c to 4c + 3 are the pixels of a square, row by row.
void Bound::pixel_shuffle(const EnginePair& bottom) {
    const Carried carried(bottom);
    const bool up = out.w > bottom.size.w;
    const TensorSize& fine = up ? out : bottom.size;
    const TensorSize& coarse = up ? bottom.size : out;
    for (int64_t c = 0; c < fine.c; ++c) {
        for (int64_t y = 0; y < fine.h; ++y) {
            for (int64_t x = 0; x < fine.w; ++x) {
                const size_t pixel = static_cast<size_t>((c * fine.h + y) * fine.w + x);
                const int64_t channel = 4 * c + y % 2 * 2 + x % 2;
                const size_t packed =
                    static_cast<size_t>((channel * coarse.h + y / 2) * coarse.w + x / 2);
                if (up) {
                    values[pixel] = carried.difference[packed];
                } else {
                    values[packed] = carried.difference[pixel];
                }
            }
        }
    }
}

void Bound::upsampling(const ZQLayerInfo_Upsampling& record, const EnginePair& bottom) {
    const TensorSize& in = bottom.size;
    const bool nearest = record.mode == 0;
    // Bilinear: the places between pixels are floats, too, and a place that is off by its rounding
    // is off by that share of the step between two pixels.
    const double place = 8.0 * static_cast<double>(std::max(out.w, out.h)) * float_rounding;
    const std::vector<float> carried =
        Carried(bottom).with_rounding(nearest ? 0.0 : 2.0 * place + sum_rounding(8));
    const auto most_around = [&](const float* source, int64_t y, int64_t x) {
        const int64_t cy = y * in.h / out.h;
        const int64_t cx = x * in.w / out.w;
        if (nearest) return source[cy * in.w + cx];
        float most = 0.0f;
        for (int64_t iy = std::max<int64_t>(cy - 2, 0); iy <= std::min(cy + 2, in.h - 1); ++iy) {
            for (int64_t ix = std::max<int64_t>(cx - 2, 0); ix <= std::min(cx + 2, in.w - 1);
                 ++ix) {
                most = std::max(most, source[iy * in.w + ix]);
            }
        }
        return most;
    };
    for (int64_t c = 0; c < out.c; ++c) {
        const float* source = &carried[static_cast<size_t>(c * in.h * in.w)];
        for (int64_t y = 0; y < out.h; ++y) {
            for (int64_t x = 0; x < out.w; ++x) {
                plane(c)[y * out.w + x] = most_around(source, y, x);
            }
        }
    }
}

void Bound::dense(const ZQLayerInfo_FullConnection& record, const EnginePair& bottom) {
    const int64_t in = record.num_input;
    const double rounding = sum_rounding(in);
    const std::vector<float> carried = Carried(bottom).with_rounding(rounding);
    for (int64_t o = 0; o < record.num_output; ++o) {
        double sum = rounding * static_cast<double>(bias_of(record, o));
        for (int64_t i = 0; i < in; ++i) {
            sum += static_cast<double>(std::fabs(record.weights[o * in + i])) *
                   static_cast<double>(carried[static_cast<size_t>(i)]);
        }
        values[static_cast<size_t>(o)] = static_cast<float>(sum);
    }
}

void Bound::copy(const EnginePair& bottom) {
    values = Carried(bottom).difference;
}

/// None of them is steeper than 1, and the logistic function nowhere steeper than 1/4.
void Bound::activation(int code) {
    if (code == ActivationType_Tanh || code == ActivationType_Sigmoid) own_error = function_error;
    if (code != ActivationType_Sigmoid) return;
    for (float& value : values) value *= 0.25f;
}

double stored_difference(double carried, float value) {
    const double magnitude = std::fabs(static_cast<double>(value)) + carried;
    if (!(magnitude < largest_half)) return infinity;
    return 1.001 * carried + half_step * magnitude + smallest_half;
}

std::vector<float> Bound::stored(const EnginePair& output) const {
    std::vector<float> bound(values.size());
    for (size_t i = 0; i < bound.size(); ++i) {
        bound[i] = static_cast<float>(
            stored_difference(static_cast<double>(values[i]) + own_error, output.cpu[i]));
    }
    return bound;
}

}  // namespace

double element_difference(float cpu, float gpu) {
    if (cpu == gpu || (std::isnan(cpu) && std::isnan(gpu))) return 0.0;
    const double difference = std::fabs(static_cast<double>(cpu) - static_cast<double>(gpu));
    return std::isnan(difference) ? infinity : difference;
}

std::optional<std::string> unlike_reason(const ZQLayerInfo& info, const TensorSize& cpu_size,
                                         const TensorSize& gpu_size) {
    std::string reason = modelkit::unlike_on_gpu(info);
    if (reason.empty() && cpu_size.elements() != gpu_size.elements()) {
        reason = "sizes " + size_text(cpu_size) + " on the CPU engine and " + size_text(gpu_size) +
                 " on the GPU engine";
    }
    if (reason.empty()) return std::nullopt;
    return reason;
}

std::vector<float> explained_difference(const ZQLayerInfo& info,
                                        const std::vector<const EnginePair*>& bottoms,
                                        const EnginePair& output, const GpuOptions& gpu) {
    Bound bound(output, gpu);
    const EnginePair& bottom = *bottoms[0];
    switch (info.type) {
        case ZQLayerType_Conv2D: {
            const auto& record = static_cast<const ZQLayerInfo_Conv2D&>(info);
            bound.conv2d(record, bottom);
            bound.activation(record.activation);
            break;
        }
        case ZQLayerType_Conv2DTranspose: {
            const auto& record = static_cast<const ZQLayerInfo_Conv2DTranspose&>(info);
            bound.transpose(record, bottom);
            bound.activation(record.activation);
            break;
        }
        case ZQLayerType_DepthWiseConv2D:
            bound.depthwise(static_cast<const ZQLayerInfo_DepthWiseConv2D&>(info), bottom);
            break;
        case ZQLayerType_Pooling:
            bound.pooling(static_cast<const ZQLayerInfo_Pooling&>(info), bottom);
            break;
        case ZQLayerType_ElementWiseOperator:
            bound.eltwise(static_cast<const ZQLayerInfo_ElementWiseOperator&>(info), bottoms);
            break;
        case ZQLayerType_Concatenate:
            bound.concat(bottoms);
            break;
        case ZQLayerType_PixelShuffle:
            bound.pixel_shuffle(bottom);
            break;
        case ZQLayerType_Upsampling:
            bound.upsampling(static_cast<const ZQLayerInfo_Upsampling&>(info), bottom);
            break;
        case ZQLayerType_FullConnection:
            bound.dense(static_cast<const ZQLayerInfo_FullConnection&>(info), bottom);
            break;
        case ZQLayerType_Activation:
            bound.copy(bottom);
            bound.activation(static_cast<const ZQLayerInfo_Activation&>(info).activation_type);
            break;
        default:
            bound.copy(bottom);
            break;
    }
    return bound.stored(output);
}

std::vector<float> explained_input_difference(const EnginePair& input) {
    std::vector<float> bound;
    bound.reserve(input.cpu.size());
    for (const float value : input.cpu)
        bound.push_back(static_cast<float>(stored_difference(0.0, value)));
    return bound;
}

}  // namespace tool
