// Writes layers of the model format, one behind the other, and knows what the CPU engine makes of
// each under its default rule: sizes, and the range that the values can have.
//
// This is where numbers become halves, and where layers that the chosen engines lack are refused.
#pragma once

#include <tarno/model.h>

#include <cstddef>
#include <cstdint>
#include <functional>
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
    int64_t elements = 0;      ///< of its output
    int64_t weights = 0;       ///< how many numbers were rounded to halves
    double largest_error = 0;  ///< largest change of a weight, relative to the largest weight
    double mean_error = 0;     ///< root of the summed squared changes over that of the weights
};

enum class Engines { Cpu, Gpu, Both };

/// Writes one row of a layer's weights to `to`. Each method says which rows there are and how long
/// they are; they come in the order of the file, so that a layer is never in memory as a whole.
using WeightRows = std::function<void(size_t row, float* to)>;

class Emitter {
public:
    /// `most_numbers` in the arrays of all layers together: a layer that only moves numbers may
    /// have millions of weights that no file has given.
    Emitter(const ModelHeader& header, Engines engines, int64_t most_numbers);

    /// The node that the next layers come from.
    void begin_node(const std::string& label) { node = label; }

    Blob input(const Extent& size);
    Blob tensor_input(const std::vector<int>& dims);

    /// Weights of one group: rows `[out][y][x]`, each with a number for every input channel. The
    /// output has the size that the engine gives it.
    Blob conv(const Blob& bottom, int out_channels, const Window& window, const WeightRows& weights,
              const std::vector<float>& bias, int activation);
    /// Weights: rows `[y][x]`, each with a number for every output channel, those of one input side
    /// by side. The output has (size + 2 * pad - extent) / stride + 1 pixels.
    Blob depthwise(const Blob& bottom, int multiplier, const Window& window,
                   const WeightRows& weights, const std::vector<float>& bias, int activation = 0);
    /// Weights as for `conv`. The output has stride * size + 2 - 2 * pad pixels, whatever the
    /// kernel, which may be no larger than stride + 2.
    Blob deconvolution(const Blob& bottom, int out_channels, const Window& window,
                       const WeightRows& weights, const std::vector<float>& bias, int activation);
    /// Weights: a row for each channel, with a number for every `[y][x]`; sizes as above.
    Blob depthwise_deconvolution(const Blob& bottom, const Window& window,
                                 const WeightRows& weights, const std::vector<float>& bias,
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
    /// Weights: a row for each output; both counts are multiples of 4.
    Blob full_connection(const Blob& bottom, int outputs, const WeightRows& weights,
                         const std::vector<float>& bias);
    /// Weights of one layer: for each direction `array` 0 has `4 * hidden_size` rows for the input,
    /// 1 as many for the hidden state, 2 and 3 are the biases of both, in rows of one number.
    using LstmRows = std::function<void(size_t direction, size_t array, size_t row, float* to)>;
    Blob lstm(const Blob& bottom, int input_size, int hidden_size, bool bidirectional,
              const LstmRows& weights);

    /// `x * scale + shift`, by the layers that hold the constants best: a Linear when halves do, a
    /// batch normalisation, whose quotient and sum carry about twice the digits of a half, or two
    /// Linear. `used` receives what the layers really compute with, one pair for each channel.
    Blob affine(const Blob& bottom, const Affine& wanted, Affine& used);

    /// Room for a file that holds so many numbers.
    void reserve(int64_t numbers) { writer.reserve(static_cast<size_t>(numbers) * 2 + 65536); }
    /// The file; nothing can be emitted behind it.
    std::vector<unsigned char> take_file() { return writer.take(); }
    const std::vector<LayerReport>& layers() const { return reports; }
    Engines engines() const { return chosen; }
    bool for_gpu() const { return chosen != Engines::Cpu; }
    bool for_cpu() const { return chosen != Engines::Gpu; }

private:
    /// What rounding changes in one array, or in several that are looked at together.
    struct Rounding {
        double largest = 0;
        double largest_error = 0;
        double squares = 0;
        double squared_errors = 0;

        void add(const Rounding& other);
    };
    /// Takes numbers over as halves.
    void round(const char* what, const float* values, size_t count, unsigned short* halves,
               Rounding& rounding);
    void count_rounding(const Rounding& rounding);
    /// Refuses weights of a layer that halves lose.
    void expect_kept(unsigned short type, double squares, double squared_errors) const;
    /// The same for rows, which `put` gets in pieces.
    void round_rows(const char* what, size_t rows, size_t length, const WeightRows& fill,
                    const PutHalves& put, Rounding& rounding);
    void take_numbers(uint64_t count);
    template <typename Record>
    Blob finish(Record& record, const Extent& size, const Range& range,
                const ArraySource& source = ArraySource());
    /// The same for a record with weights of so many rows, and with a bias.
    template <typename Record>
    Blob finish_weights(Record& record, const Extent& size, const Range& range, size_t rows,
                        size_t length, const WeightRows& weights, const std::vector<float>& bias);
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
    uint64_t numbers_left;
    int64_t most_numbers;
    int64_t spare_floats;  ///< that the CPU engine has left for depth multipliers
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

}  // namespace modelkit::onnx
