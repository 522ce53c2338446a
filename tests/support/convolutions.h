// Cases and references for the convolution tests. The references are plain loops over flat arrays
// and share nothing with the library.
#pragma once

#include <gtest/gtest.h>
#include <tarno/cpu.h>

#include <cmath>
#include <cstring>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "support/tensors.h"

namespace testing_support {

/// One convolution: bottom, kernel, and what goes into the `ParamDict`.
struct ConvolutionCase {
    int c = 1, h = 1, w = 1;
    int num_output = 1;
    int kernel_w = 1, kernel_h = 1;
    int dilation_w = 1, dilation_h = 1;
    int stride_w = 1, stride_h = 1;
    int pad_w = 0, pad_h = 0;
    bool bias = false;
    int group = 1;
    unsigned int seed = 1;

    /// A bottom of `c` channels; the rest follows by name. One number is for both directions.
    static ConvolutionCase of(int c, int h, int w) {
        ConvolutionCase made;
        made.c = c;
        made.h = h;
        made.w = w;
        return made;
    }
    ConvolutionCase& outputs(int n) { return num_output = n, *this; }
    ConvolutionCase& groups(int n) { return group = n, *this; }
    /// As many groups and outputs as channels.
    ConvolutionCase& depthwise() { return num_output = group = c, *this; }
    ConvolutionCase& kernel(int x, int y) { return kernel_w = x, kernel_h = y, *this; }
    ConvolutionCase& kernel(int both) { return kernel(both, both); }
    ConvolutionCase& stride(int x, int y) { return stride_w = x, stride_h = y, *this; }
    ConvolutionCase& stride(int both) { return stride(both, both); }
    ConvolutionCase& dilation(int x, int y) { return dilation_w = x, dilation_h = y, *this; }
    ConvolutionCase& dilation(int both) { return dilation(both, both); }
    ConvolutionCase& pad(int x, int y) { return pad_w = x, pad_h = y, *this; }
    ConvolutionCase& pad(int both) { return pad(both, both); }
    ConvolutionCase& with_bias(bool has = true) { return bias = has, *this; }
    ConvolutionCase& seeded(unsigned int number) { return seed = number, *this; }

    int taps() const { return kernel_w * kernel_h; }
    int inputs() const { return c / group; }
    size_t weight_count() const { return static_cast<size_t>(num_output) * inputs() * taps(); }

    std::string text() const {
        std::ostringstream out;
        out << "seed " << seed << ", " << c << "x" << h << "x" << w << " -> " << num_output
            << ", kernel " << kernel_w << "x" << kernel_h << ", stride " << stride_w << "x"
            << stride_h << ", dilation " << dilation_w << "x" << dilation_h << ", pad " << pad_w
            << "x" << pad_h << ", group " << group << (bias ? ", bias" : ", no bias");
        return out.str();
    }

    TarnoCPU::ParamDict params() const {
        TarnoCPU::ParamDict pd;
        pd.set(0, num_output);
        pd.set(1, kernel_w);
        pd.set(2, kernel_h);
        pd.set(3, dilation_w);
        pd.set(4, dilation_h);
        pd.set(5, stride_w);
        pd.set(6, stride_h);
        pd.set(7, pad_w);
        pd.set(8, pad_h);
        pd.set(9, bias ? 1 : 0);
        pd.set(10, static_cast<int>(weight_count()));
        pd.set(11, group);
        pd.set(12, c);
        return pd;
    }
};

/// Random data of a case.
struct ConvolutionArrays {
    std::vector<float> input, weights, bias;

    explicit ConvolutionArrays(const ConvolutionCase& a)
        : input(random_floats(static_cast<size_t>(a.c) * a.h * a.w, a.seed)),
          weights(random_floats(a.weight_count(), a.seed + 1000)),
          bias(random_floats(static_cast<size_t>(a.num_output), a.seed + 2000)) {}

    /// A view of `input`, so that AddressSanitizer sees the first element behind it.
    TarnoCPU::Mat bottom(const ConvolutionCase& a) const {
        return TarnoCPU::Mat(chw(a.c, a.h, a.w), const_cast<float*>(input.data()), nullptr);
    }
};

/// What an output must be: the float chain itself, its value in double, and the sum of the absolute
/// values that went into it.
struct ConvolutionReference {
    int c = 0, h = 0, w = 0;
    int64_t terms = 0;
    std::vector<float> chain;
    std::vector<double> exact;
    std::vector<double> magnitude;
};

/// Gather. `pad_top`, ... are what the border really is, `outw` and `outh` what the class makes of
/// it. An index is taken through the flat padded block and counts as 0 behind its end; so is a
/// weight behind the end of `data.weights`.
inline ConvolutionReference reference_convolution(const ConvolutionCase& a,
                                                  const ConvolutionArrays& data, int pad_top,
                                                  int pad_bottom, int pad_left, int pad_right,
                                                  int outw, int outh) {
    const int64_t ph = a.h + pad_top + pad_bottom, pw = a.w + pad_left + pad_right;
    std::vector<float> padded(static_cast<size_t>(a.c * ph * pw), 0.0f);
    for (int q = 0; q < a.c; ++q)
        for (int y = 0; y < a.h; ++y)
            for (int x = 0; x < a.w; ++x)
                padded[static_cast<size_t>((q * ph + y + pad_top) * pw + x + pad_left)] =
                    data.input[static_cast<size_t>((q * a.h + y) * a.w + x)];

    ConvolutionReference ref;
    ref.c = a.num_output;
    ref.h = outh;
    ref.w = outw;
    const int in_g = a.c / a.group, out_g = a.num_output / a.group;
    ref.terms = static_cast<int64_t>(in_g) * a.taps() + 1;
    for (int p = 0; p < a.num_output; ++p)
        for (int y = 0; y < outh; ++y)
            for (int x = 0; x < outw; ++x) {
                float chain = a.bias ? data.bias[static_cast<size_t>(p)] : 0.0f;
                double exact = chain, magnitude = std::fabs(chain);
                for (int q = 0; q < in_g; ++q)
                    for (int ky = 0; ky < a.kernel_h; ++ky)
                        for (int kx = 0; kx < a.kernel_w; ++kx) {
                            const int64_t channel = p / out_g * in_g + q;
                            const int64_t row = channel * ph + y * a.stride_h + ky * a.dilation_h;
                            const size_t i =
                                static_cast<size_t>(row * pw + x * a.stride_w + kx * a.dilation_w);
                            const size_t k = static_cast<size_t>(
                                ((p * in_g + q) * a.kernel_h + ky) * a.kernel_w + kx);
                            const float v = i < padded.size() ? padded[i] : 0.0f;
                            const float weight = k < data.weights.size() ? data.weights[k] : 0.0f;
                            chain += v * weight;
                            exact += static_cast<double>(v) * weight;
                            magnitude += std::fabs(static_cast<double>(v) * weight);
                        }
                ref.chain.push_back(chain);
                ref.exact.push_back(exact);
                ref.magnitude.push_back(magnitude);
            }
    return ref;
}

/// Scatter into [num_output][stride_h * h + 2][stride_w * w + 2], then the cut. A place behind the
/// end of its channel is dropped.
inline ConvolutionReference reference_deconvolution(const ConvolutionCase& a,
                                                    const ConvolutionArrays& data) {
    const int64_t oh = static_cast<int64_t>(a.stride_h) * a.h + 2;
    const int64_t ow = static_cast<int64_t>(a.stride_w) * a.w + 2;
    const int in_g = a.c / a.group, out_g = a.num_output / a.group;
    ConvolutionReference ref;
    ref.c = a.num_output;
    const int cut_h = a.pad_w > 0 || a.pad_h > 0 ? a.pad_h : 0;
    const int cut_w = a.pad_w > 0 || a.pad_h > 0 ? a.pad_w : 0;
    ref.h = static_cast<int>(oh) - 2 * cut_h;
    ref.w = static_cast<int>(ow) - 2 * cut_w;
    ref.terms = static_cast<int64_t>(in_g) * a.taps() + 1;
    for (int p = 0; p < a.num_output; ++p) {
        const float start = a.bias ? data.bias[static_cast<size_t>(p)] : 0.0f;
        std::vector<float> chain(static_cast<size_t>(oh * ow), start);
        std::vector<double> exact(chain.size(), start), magnitude(chain.size(), std::fabs(start));
        for (int y = 0; y < a.h; ++y)
            for (int x = 0; x < a.w; ++x)
                for (int q = 0; q < in_g; ++q)
                    for (int ky = 0; ky < a.kernel_h; ++ky)
                        for (int kx = 0; kx < a.kernel_w; ++kx) {
                            const int64_t at = (y * a.stride_h + ky * a.dilation_h) * ow +
                                               x * a.stride_w + kx * a.dilation_w;
                            if (at >= oh * ow) continue;
                            const int64_t channel = p / out_g * in_g + q;
                            const float v =
                                data.input[static_cast<size_t>((channel * a.h + y) * a.w + x)];
                            const size_t k = static_cast<size_t>(
                                ((p * in_g + q) * a.kernel_h + ky) * a.kernel_w + kx);
                            const float weight = k < data.weights.size() ? data.weights[k] : 0.0f;
                            const size_t i = static_cast<size_t>(at);
                            chain[i] += v * weight;
                            exact[i] += static_cast<double>(v) * weight;
                            magnitude[i] += std::fabs(static_cast<double>(v) * weight);
                        }
        for (int64_t y = cut_h; y < oh - cut_h; ++y)
            for (int64_t x = cut_w; x < ow - cut_w; ++x) {
                const size_t i = static_cast<size_t>(y * ow + x);
                ref.chain.push_back(chain[i]);
                ref.exact.push_back(exact[i]);
                ref.magnitude.push_back(magnitude[i]);
            }
    }
    return ref;
}

/// A loaded operator of a case.
inline std::unique_ptr<TarnoCPU::OperatorSISO> load_convolution(const char* name,
                                                                const ConvolutionCase& a,
                                                                const ConvolutionArrays& data) {
    auto op = make_operator(name);
    EXPECT_EQ(0, op->load(a.params(),
                          TarnoCPU::ModelBinFromTarnoWeightBias(
                              data.weights.data(), a.bias ? data.bias.data() : nullptr),
                          {nullptr, 0, 0}));
    return op;
}

/// `top` must hold the chain bit for bit; the chain itself must lie near the exact sum, or the
/// reference would be no reference.
inline void expect_same_bits(const ConvolutionReference& ref, const TarnoCPU::Mat& top) {
    ASSERT_EQ(chw(ref.c, ref.h, ref.w), top.shape);
    const std::vector<float> values = values_of(top);
    ASSERT_EQ(ref.chain.size(), values.size());
    for (size_t i = 0; i < values.size(); ++i) {
        ASSERT_EQ(0, std::memcmp(&ref.chain[i], &values[i], sizeof(float)))
            << "element " << i << ": " << ref.chain[i] << " became " << values[i];
        ASSERT_LE(std::fabs(values[i] - ref.exact[i]), sum_error_bound(ref.terms, ref.magnitude[i]))
            << "element " << i;
    }
}

/// Hands out nothing for one type and index, and passes everything else on.
class WithoutArray : public TarnoCPU::ModelBin {
public:
    WithoutArray(const TarnoCPU::ModelBin& source, int type, int index)
        : source(source), type(type), index(index) {}
    TarnoCPU::Mat load(int count, int asked_type, int asked_index) const override {
        if (asked_type == type && asked_index == index) return TarnoCPU::Mat();
        return source.load(count, asked_type, asked_index);
    }

private:
    const TarnoCPU::ModelBin& source;
    int type;
    int index;
};

}  // namespace testing_support
