// Small networks in a few lines, for tests, benchmarks and tools.
//
//     modelkit::NetBuilder net;
//     const int image = net.input(3);
//     const int features = net.conv(image, 8, 3, 2, 1, ActivationType_ReLU);
//     net.conv(features, 1, 1, 1, 0, ActivationType_Sigmoid);
//     const modelkit::Status status = net.save("small.model");
#pragma once

#include <tarno/model.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "modelkit/model_writer.h"
#include "modelkit/status.h"

namespace modelkit {

/// A kernel's window, in pixels.
struct Window {
    int kernel_w = 1;
    int kernel_h = 1;
    int pad_w = 0;
    int pad_h = 0;
    int stride_w = 1;
    int stride_h = 1;
    int dilation_w = 1;
    int dilation_h = 1;

    /// The same in both directions.
    static Window square(int kernel, int stride, int pad, int dilation = 1) {
        return {kernel, kernel, pad, pad, stride, stride, dilation, dilation};
    }
};

/// Weights and bias in the order of the file (see the record classes), rounded to halves. What is
/// left empty comes from the builder's generator.
struct Weights {
    std::vector<float> weights;
    std::vector<float> bias;
};

/// Adds layers one behind the other; each gets the next id, from 0, and each method returns it. The
/// builder keeps the size of every layer's output at the model's base size and writes the relative
/// shapes from it.
///
/// The first mistake (a bottom that is not there, sizes that do not fit, a type too new for the
/// version) is kept: later calls still return ids, and `status`, `write` and `save` report it.
class NetBuilder {
public:
    /// Pixels at the base size of the header, and channels. All 0 behind a layer whose shape is
    /// absolute.
    struct Size {
        int width = 0;
        int height = 0;
        int channels = 0;
    };

    explicit NetBuilder(const ModelHeader& header = ModelHeader(), uint32_t seed = 1);

    /// An input of the base size times the two factors. Inputs are numbered from 0, tensor inputs
    /// included.
    int input(int channels, double factor_x = 1.0, double factor_y = 1.0);

    /// Convolution. The output has size / stride pixels when the padding keeps the size
    /// (2 * pad = extent - 1), else (size + 2 * pad - extent) / stride + 1.
    int conv(int bottom, int out_channels, const Window& window, int activation = 0, int groups = 1,
             const Weights& weights = {});
    int conv(int bottom, int out_channels, int kernel, int stride, int pad, int activation = 0,
             const Weights& weights = {}) {
        return conv(bottom, out_channels, Window::square(kernel, stride, pad), activation, 1,
                    weights);
    }

    /// Depthwise convolution with `multiplier` times as many output channels. The output has
    /// (size + 2 * pad - extent) / stride + 1 pixels.
    int depthwise(int bottom, const Window& window, int activation = 0, int multiplier = 1,
                  const Weights& weights = {});
    int depthwise(int bottom, int kernel, int stride, int pad, int activation = 0,
                  const Weights& weights = {}) {
        return depthwise(bottom, Window::square(kernel, stride, pad), activation, 1, weights);
    }

    /// Transposed convolution: size * stride pixels, as for kernel 3 with stride 1 or 2 and
    /// kernel 4 with stride 2, all with padding 1.
    int deconvolution(int bottom, int out_channels, const Window& window, int activation = 0,
                      int groups = 1, const Weights& weights = {});
    int deconvolution(int bottom, int out_channels, int kernel, int stride, int pad,
                      int activation = 0, const Weights& weights = {}) {
        return deconvolution(bottom, out_channels, Window::square(kernel, stride, pad), activation,
                             1, weights);
    }

    /// Transposed depthwise convolution, size * stride pixels.
    int depthwise_deconvolution(int bottom, const Window& window, int activation = 0,
                                int multiplier = 1, const Weights& weights = {});
    int depthwise_deconvolution(int bottom, int kernel, int stride, int pad, int activation = 0,
                                const Weights& weights = {}) {
        return depthwise_deconvolution(bottom, Window::square(kernel, stride, pad), activation, 1,
                                       weights);
    }

    /// `operator_type` 0 sum, 2 product; all bottoms of one size.
    int eltwise(const std::vector<int>& bottoms, int operator_type = 0, int activation = 0);
    /// Along the channels; all bottoms of one width and height.
    int concat(const std::vector<int>& bottoms, int axis = 0);
    /// `pool_type` 1 maximum, 0 average; (size + 2 * pad - kernel) / stride + 1 pixels.
    int pooling(int bottom, int pool_type, const Window& window);
    int pooling(int bottom, int pool_type, int kernel, int stride, int pad = 0) {
        return pooling(bottom, pool_type, Window::square(kernel, stride, pad));
    }
    /// `mode` 0 nearest, 1 bilinear.
    int upsampling(int bottom, double scale, int mode = 1, int align = 0);
    /// A factor r of 1 and above turns r * r channels into r by r pixels, 1 / r does the opposite.
    int pixel_shuffle(int bottom, double factor);
    /// Arrays of one number for each channel, from the generator where empty.
    int batchnorm(int bottom, const std::vector<float>& slope = {},
                  const std::vector<float>& bias = {}, const std::vector<float>& variance = {},
                  const std::vector<float>& mean = {});
    int instance_normalization(int bottom);
    int activation(int bottom, int type, double alpha = 0.0, double beta = 0.0);
    int region(int bottom, int a, int b, int c);
    /// A permutation of the bottom's channels; empty for the reverse order.
    int channel_shuffle(int bottom, const std::vector<int>& permutation = {});

    /// Layers with absolute shapes. `dims` are the dimensions of the output, at most 11.
    int tensor_input(const std::vector<int>& dims);
    int reshape(int bottom, const std::vector<int>& dims);
    int transpose(int bottom, const std::vector<int>& axes, const std::vector<int>& dims);
    int squeeze(int bottom, int axis, const std::vector<int>& dims);
    /// `alpha` and `beta` are plain numbers in this record.
    int tensor_activation(int bottom, int type, int alpha = 0, int beta = 0);
    /// `dims` empty: {1, outputs}.
    int fully_connected(int bottom, int inputs, int outputs, bool has_bias = true,
                        const Weights& weights = {}, const std::vector<int>& dims = {});
    /// Weights from the generator. `dims` empty: {1, hidden * directions}.
    int lstm(int bottom, int input_size, int hidden_size, bool has_bias = true,
             bool bidirectional = false, int num_layers = 1, const std::vector<int>& dims = {});

    /// The output size of a layer, zeros for an id that is not there.
    Size size(int id) const;
    /// The dimensions of a layer with absolute shapes, empty for all others.
    std::vector<int> dims(int id) const;

    /// A layer's record, for changes before the file is written; null for an id that is not there.
    ZQLayerInfo* record(int id);
    /// How many layers there are; the next one gets this id.
    int count() const { return static_cast<int>(layers.size()); }

    Status status() const;
    /// The finished file, or the first mistake.
    Status write(std::vector<unsigned char>& bytes) const;
    Status save(const std::string& path) const;

    /// The generator: a number of [-limit, limit).
    float random(float limit);

private:
    struct Layer {
        std::unique_ptr<ZQLayerInfo> record;
        Size size;
        std::vector<int> dims;
    };

    template <typename Record>
    Record& add(const Size& size, const std::vector<int>& dims);
    template <typename Record>
    Record& add_reading(int bottom, const Size& size, const std::vector<int>& dims = {});
    void check_bottoms(const std::vector<int>& bottoms);
    template <typename Record>
    int add_many(const std::vector<int>& bottoms, const Size& size, int word, int activation);
    template <typename Record>
    void set_window(Record& record, const Window& window);
    template <typename Record>
    void set_weights(Record& record, size_t weights, size_t bias, int fan_in, const Weights& given);
    std::vector<unsigned short> halves(const char* name, const std::vector<float>& given,
                                       size_t count, float center, float limit);
    tensor28 tensor(const std::vector<int>& dims);
    shape3 shape(const Size& size);
    unsigned short number(const char* name, long long value);
    unsigned short half(const char* name, double value);
    /// Notes a mistake in the layer just added, or in the one about to be.
    void fail(const std::string& text);
    void fail_next(const std::string& text);
    void fail_at(int layer, const std::string& text);
    int last() const { return count() - 1; }

    ModelHeader header;
    uint64_t state;
    int inputs = 0;
    std::vector<Layer> layers;
    std::string problem;
};

}  // namespace modelkit
