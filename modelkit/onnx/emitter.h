// Writes layers of the model format, one behind the other, and knows what the CPU engine makes of
// each under its default rule: sizes, and the range that the values can have.
//
// This is where numbers become halves, and where layers that the chosen engines lack are refused.
#pragma once

#include <tarno/model.h>

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "modelkit/model_writer.h"
#include "modelkit/net_builder.h"
#include "modelkit/onnx/gpu_rules.h"

namespace modelkit::onnx {

/// Channels, rows and columns as the engine keeps them; the values lie in this order without gaps.
struct Extent {
    int c = 0;
    int h = 0;
    int w = 0;

    int64_t elements() const { return int64_t{c} * h * w; }
    bool operator==(const Extent& other) const {
        return c == other.c && h == other.h && w == other.w;
    }
    bool operator!=(const Extent& other) const { return !(*this == other); }
};

std::string text_of(const Extent& extent);

/// Bounds of values that are known without running anything.
struct Range {
    double low = -std::numeric_limits<double>::infinity();
    double high = std::numeric_limits<double>::infinity();

    Range with(double value) const;
    Range with(const Range& other) const;
};

/// The output of an emitted layer.
struct Blob {
    int layer = -1;
    Extent size;
    Range range;
};

/// One multiplication and one addition for each channel, or one pair for all.
struct Affine {
    std::vector<double> scale;
    std::vector<double> shift;
};

/// What became of one layer.
struct LayerReport {
    int id = 0;
    unsigned short type = 0;
    std::string node;          ///< name of the ONNX node
    int64_t weights = 0;       ///< how many numbers were rounded to halves
    double largest_error = 0;  ///< largest change of a weight, relative to the largest weight
    double mean_error = 0;     ///< root of the summed squared changes over that of the weights
};

enum class Engines { Cpu, Gpu, Both };

class Emitter {
public:
    Emitter(const ModelHeader& header, Engines engines);

    /// The node that the next layers come from.
    void begin_node(const std::string& label) { node = label; }

    Blob input(const Extent& size);
    Blob tensor_input(const std::vector<int>& dims);

    /// Weights `[out][in][y][x]`, of one group. The output has the size that the engine gives it.
    Blob conv(const Blob& bottom, int out_channels, const Window& window,
              const std::vector<float>& weights, const std::vector<float>& bias, int activation);
    /// Weights `[channel][multiplier][y][x]`. The output has (size + 2 * pad - extent) / stride + 1
    /// pixels.
    Blob depthwise(const Blob& bottom, int multiplier, const Window& window,
                   const std::vector<float>& weights, const std::vector<float>& bias,
                   int activation = 0);
    /// Weights `[out][in][y][x]`. The output has stride * size + 2 - 2 * pad pixels, whatever the
    /// kernel, which may be no larger than stride + 2.
    Blob deconvolution(const Blob& bottom, int out_channels, const Window& window,
                       const std::vector<float>& weights, const std::vector<float>& bias,
                       int activation);
    /// Weights `[channel][y][x]`; sizes as above.
    Blob depthwise_deconvolution(const Blob& bottom, const Window& window,
                                 const std::vector<float>& weights, const std::vector<float>& bias,
                                 int activation = 0);
    /// `pad_w` at the left and the top, `pad_h` at the right and the bottom, as the CPU engine
    /// takes them. The border counts as 0 for a maximum. For an average it is left out where the
    /// engine's correction of the margins is right, which the caller sees to.
    Blob pooling(const Blob& bottom, bool maximum, const Window& window);
    Blob eltwise(const std::vector<Blob>& bottoms, bool product, int activation = 0);
    /// `axis` as the engine counts it for the first bottom's dimensions.
    Blob concat(const std::vector<Blob>& bottoms, int axis, const Extent& size);
    Blob upsampling(const Blob& bottom, int scale, bool linear, bool align_corners);
    Blob pixel_shuffle(const Blob& bottom, int factor, bool to_space);
    Blob activation(const Blob& bottom, int type);
    Blob row(const Blob& bottom);
    /// Weights `[out][in]`; both counts are multiples of 4.
    Blob full_connection(const Blob& bottom, int outputs, const std::vector<float>& weights,
                         const std::vector<float>& bias);
    /// The arrays in the order of the file (see the record class), one layer.
    Blob lstm(const Blob& bottom, int input_size, int hidden_size, bool bidirectional,
              const std::vector<float>& arrays);

    /// `x * scale + shift`, by the layers that hold the constants best: a Linear when halves do, a
    /// batch normalisation, whose quotient and sum carry about twice the digits of a half, or two
    /// Linear. `used` receives what the layers really compute with, one pair for each channel.
    Blob affine(const Blob& bottom, const Affine& wanted, Affine& used);

    const ModelWriter& model() const { return writer; }
    const std::vector<LayerReport>& layers() const { return reports; }
    Engines engines() const { return chosen; }
    bool for_gpu() const { return chosen != Engines::Cpu; }
    bool for_cpu() const { return chosen != Engines::Gpu; }

private:
    template <typename Record>
    Blob finish(Record& record, const Extent& size, const Range& range);
    template <typename Record>
    void read(Record& record, const Blob& bottom, const Extent& size);
    template <typename Record>
    void set_window(Record& record, const Window& window);
    std::vector<unsigned short> halves(const char* what, const std::vector<float>& values);
    shape3 shape(const Extent& size);
    Blob linear(const Blob& bottom, double alpha, double beta);
    Blob batchnorm(const Blob& bottom, const Affine& wanted, Affine& used);

    ModelHeader header;
    Engines chosen;
    ModelWriter writer;
    GpuRules gpu_rules;
    std::string node;
    int inputs = 0;
    std::vector<LayerReport> reports;
    // Of the layer in the making.
    double squared_weights = 0;
    double squared_errors = 0;
    LayerReport current;
};

/// A number as the file keeps it.
double as_half(double value);

}  // namespace modelkit::onnx
