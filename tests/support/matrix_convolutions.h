// Problems and double references for the convolutions on a matrix product.
#pragma once

#include <string>

#include "support/recorders.h"
#include "support/tensors.h"

namespace testing_support {

/// One convolution layer with its data.
struct ConvolutionProblem {
    int in = 1, out = 1, h = 1, w = 1;
    int kernel_h = 1, kernel_w = 1;
    int stride_h = 1, stride_w = 1;
    int dilation_h = 1, dilation_w = 1;
    int pad_h = 0, pad_w = 0;
    int group = 1;
    bool has_bias = false;
    bool depthwise = false;
    std::vector<float> bottom, weights, bias;

    /// Weights that one output channel has.
    int taps() const { return (depthwise ? 1 : in) * kernel_h * kernel_w; }

    /// Fills the data, deterministically in the shape.
    void fill(unsigned int seed) {
        bottom = random_floats(static_cast<size_t>(in) * h * w, seed);
        weights = random_floats(static_cast<size_t>(out) * taps(), seed + 1);
        bias = has_bias ? random_floats(static_cast<size_t>(out), seed + 2) : std::vector<float>();
    }

    TarnoCPU::ParamDict parameters() const {
        TarnoCPU::ParamDict pd;
        pd.set(0, out);
        pd.set(1, kernel_w);
        pd.set(2, kernel_h);
        pd.set(3, dilation_w);
        pd.set(4, dilation_h);
        pd.set(5, stride_w);
        pd.set(6, stride_h);
        pd.set(7, pad_w);
        pd.set(8, pad_h);
        pd.set(9, has_bias ? 1 : 0);
        pd.set(10, static_cast<int>(weights.size()));
        pd.set(11, group);
        pd.set(12, in);
        return pd;
    }

    TarnoCPU::ModelBinFromTarnoWeightBias arrays() const {
        return TarnoCPU::ModelBinFromTarnoWeightBias(weights.data(), bias.data());
    }

    /// A view of the data, which ends where the vector ends.
    TarnoCPU::Mat bottom_view() { return TarnoCPU::Mat(chw(in, h, w), bottom.data(), nullptr); }

    std::string text() const {
        std::string s = std::to_string(in) + "x" + std::to_string(h) + "x" + std::to_string(w) +
                        " to " + std::to_string(out) + ", pad " + std::to_string(pad_h) + " " +
                        std::to_string(pad_w);
        return s + (has_bias ? ", bias" : "");
    }
};

inline std::unique_ptr<TarnoCPU::OperatorSISO> loaded_operator(const char* name,
                                                               const ConvolutionProblem& problem) {
    auto op = make_operator(name);
    EXPECT_EQ(0, op->load(problem.parameters(), problem.arrays(), {nullptr, 0, 0}));
    return op;
}

/// Exact values with the sum of the absolute values of their terms.
struct ExactTensor {
    int c = 0, h = 0, w = 0;
    int64_t terms = 0;
    std::vector<double> value, magnitude;

    ExactTensor(int c, int h, int w, int64_t terms)
        : c(c),
          h(h),
          w(w),
          terms(terms),
          value(static_cast<size_t>(c) * h * w, 0.0),
          magnitude(value.size(), 0.0) {}

    size_t at(int q, int y, int x) const { return (static_cast<size_t>(q) * h + y) * w + x; }
    void add(size_t i, double term) {
        value[i] += term;
        magnitude[i] += std::abs(term);
    }
};

inline void expect_near(const ExactTensor& exact, const TarnoCPU::Mat& top) {
    ASSERT_EQ(chw(exact.c, exact.h, exact.w), top.shape);
    const std::vector<float> values = values_of(top);
    for (size_t i = 0; i < values.size(); ++i) {
        ASSERT_LE(std::abs(static_cast<double>(values[i]) - exact.value[i]),
                  sum_error_bound(exact.terms, exact.magnitude[i]))
            << "element " << i << ": " << values[i] << " for " << exact.value[i];
    }
}

/// The convolution as it is drawn on paper: output [p][y][x] sees row y * stride_h + ky *
/// dilation_h
/// - top of bottom, and zeros around it.
inline ExactTensor convolution_on_paper(const ConvolutionProblem& p, int out_h, int out_w, int top,
                                        int left) {
    ExactTensor result(p.out, out_h, out_w, p.taps() + 1);
    for (int o = 0; o < p.out; ++o) {
        for (int y = 0; y < out_h; ++y) {
            for (int x = 0; x < out_w; ++x) {
                const size_t i = result.at(o, y, x);
                if (p.has_bias) result.add(i, p.bias[static_cast<size_t>(o)]);
                const int first = p.depthwise ? o : 0, last = p.depthwise ? o : p.in - 1;
                size_t weight = static_cast<size_t>(o) * p.taps();
                for (int q = first; q <= last; ++q) {
                    for (int ky = 0; ky < p.kernel_h; ++ky) {
                        for (int kx = 0; kx < p.kernel_w; ++kx, ++weight) {
                            const int sy = y * p.stride_h + ky * p.dilation_h - top;
                            const int sx = x * p.stride_w + kx * p.dilation_w - left;
                            if (sy < 0 || sy >= p.h || sx < 0 || sx >= p.w) continue;
                            result.add(
                                i, static_cast<double>(p.weights[weight]) *
                                       p.bottom[(static_cast<size_t>(q) * p.h + sy) * p.w + sx]);
                        }
                    }
                }
            }
        }
    }
    return result;
}

/// A flat block of planes, 0 behind its end.
struct FlatPlanes {
    int c = 0, h = 0, w = 0;
    std::vector<double> data;

    FlatPlanes(int c, int h, int w) : c(c), h(h), w(w), data(static_cast<size_t>(c) * h * w, 0.0) {}
    double at(int64_t i) const {
        return i < static_cast<int64_t>(data.size()) ? data[static_cast<size_t>(i)] : 0.0;
    }
};

/// `in` planes with zeros around them.
inline FlatPlanes with_border(const FlatPlanes& inside, int top, int bottom, int left, int right) {
    FlatPlanes planes(inside.c, inside.h + top + bottom, inside.w + left + right);
    for (int q = 0; q < inside.c; ++q) {
        for (int y = 0; y < inside.h; ++y) {
            for (int x = 0; x < inside.w; ++x) {
                // A negative margin cuts.
                if (y + top < 0 || y + top >= planes.h || x + left < 0 || x + left >= planes.w) {
                    continue;
                }
                planes.data[(static_cast<size_t>(q) * planes.h + y + top) * planes.w + x + left] =
                    inside.data[(static_cast<size_t>(q) * inside.h + y) * inside.w + x];
            }
        }
    }
    return planes;
}

inline FlatPlanes planes_of(const ConvolutionProblem& p) {
    FlatPlanes planes(p.in, p.h, p.w);
    planes.data.assign(p.bottom.begin(), p.bottom.end());
    return planes;
}

/// The convolution as a walk over the flat block, where a tap beyond a row is in the next row and
/// one beyond a channel in the next channel. `channels` of the planes are summed.
inline ExactTensor convolution_on_flat_block(const ConvolutionProblem& p, const FlatPlanes& planes,
                                             int channels, int out_h, int out_w) {
    const int taps = (p.depthwise ? 1 : channels) * p.kernel_h * p.kernel_w;
    ExactTensor result(p.out, out_h, out_w, taps + 1);
    for (int o = 0; o < p.out; ++o) {
        for (int y = 0; y < out_h; ++y) {
            for (int x = 0; x < out_w; ++x) {
                const size_t i = result.at(o, y, x);
                if (p.has_bias) result.add(i, p.bias[static_cast<size_t>(o)]);
                const int first = p.depthwise ? o : 0, last = p.depthwise ? o : channels - 1;
                size_t weight = static_cast<size_t>(o) * taps;
                for (int q = first; q <= last; ++q) {
                    for (int ky = 0; ky < p.kernel_h; ++ky) {
                        for (int kx = 0; kx < p.kernel_w; ++kx, ++weight) {
                            const int64_t place = (static_cast<int64_t>(q) * planes.h +
                                                   y * p.stride_h + ky * p.dilation_h) *
                                                      planes.w +
                                                  x * p.stride_w + kx * p.dilation_w;
                            const double w = weight < p.weights.size() ? p.weights[weight] : 0.0;
                            result.add(i, w * planes.at(place));
                        }
                    }
                }
            }
        }
    }
    return result;
}

/// Remembers the size of every request and refuses those from the `refuse_from`-th on.
class RecordingAllocator : public PoisoningAllocator {
public:
    std::vector<unsigned int> sizes;
    int refuse_from = -1;

    void* fastMalloc(unsigned int size) override {
        sizes.push_back(size);
        fail = refuse_from >= 0 && static_cast<int>(sizes.size()) > refuse_from;
        return PoisoningAllocator::fastMalloc(size);
    }
    /// Bytes of a block of `floats` floats with the counter behind them.
    static unsigned int block(int64_t floats) { return static_cast<unsigned int>(4 * floats + 4); }
};

}  // namespace testing_support
