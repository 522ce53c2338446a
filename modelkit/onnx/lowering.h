// From a simplified ONNX graph to layers.
//
// Every value is kept in the engine as channels, rows and columns; since a batch of one has no
// other order than ONNX has, reshaping costs no layer until an operator needs another division of
// the same numbers. What an engine computes otherwise than ONNX says is rewritten into layers that
// give ONNX's numbers, or refused.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "modelkit/onnx/emitter.h"
#include "modelkit/onnx/graph.h"
#include "modelkit/onnx/layer_weights.h"
#include "modelkit/onnx/passes.h"
#include "modelkit/onnx/refusal.h"
#include "modelkit/status.h"

namespace modelkit::onnx {

using Dims = std::vector<int64_t>;

struct Value {
    Dims dims;  ///< as in ONNX
    Blob blob;
    int zero_border = 0;  ///< rows and columns of zeros on all sides that the pooling behind adds
};

/// A window along one axis: where it starts, how it goes on, and how many places it has.
struct AxisWindow {
    int in = 0;
    int kernel = 1;
    int stride = 1;
    int dilation = 1;
    int begin = 0;  ///< padding, negative to leave out
    int end = 0;

    int64_t extent() const { return int64_t{kernel - 1} * dilation + 1; }
    /// How many places the window has, rounded down.
    int64_t places() const { return (in + int64_t{begin} + end - extent()) / stride + 1; }
};

/// Windows along rows and columns.
struct Window2D {
    AxisWindow y;
    AxisWindow x;
};

/// What the layers of a node do to its first input before the operator: a factor for what is above
/// 0, one for what is below, and a term.
struct InputChange {
    double above = 1.0;
    double below = 1.0;
    double term = 0.0;
};

class Lowering {
public:
    /// Works on a graph after `simplify`, whose shape chains it folds as it goes, and whose
    /// constants go with their last reader. `rounded`, when not null, is a copy of the graph, in
    /// which the constants become what the halves of the file mean; it stays a graph that can be
    /// evaluated.
    Lowering(Graph& graph, ConstantFolder& folder, Emitter& emitter, Graph* rounded);

    /// Emits the layers. `inputs` are the shapes of the graph's inputs, in its order.
    Status run(const std::vector<Dims>& inputs);

    /// The layer and size of each value that has them.
    const std::unordered_map<std::string, Value>& values() const { return made; }
    /// The same for the graph's outputs. One that is an input as well has a layer for each.
    const std::unordered_map<std::string, Value>& outputs() const { return finished; }
    /// Limits that the engine has where ONNX has none; no conversion is refused for them.
    const std::vector<std::string>& notes() const { return all_notes; }
    /// By what the layers multiply the output of a node, by its place in the graph, beside what it
    /// says: it has no attribute that could show it.
    const std::map<size_t, double>& factors() const { return own_factors; }
    /// The same for its first input.
    const std::map<size_t, InputChange>& input_changes() const { return own_changes; }
    /// Sum of the relative changes of constants that none of these show.
    double slack() const { return unshown; }

private:
    using Handler = void (Lowering::*)();
    static const std::unordered_map<std::string, Handler>& handlers();

    // lowering.cpp: what the handlers share.
    void find_sequences();
    void lower_input(const ValueInfo& info, const Dims& dims);
    void lower_node(size_t index);
    bool fold_shape();
    static void check_output(const ValueInfo& info, const Dims& dims);
    void finish_outputs();
    const Node& node() const { return graph.nodes[at]; }
    const Value& value(size_t input) const;
    const Tensor* constant(size_t input) const;
    /// A constant that must be there.
    const Tensor& required(size_t input, const char* what) const;
    bool is_constant(const std::string& name) const { return graph.initializers.count(name) != 0; }
    void give(const std::string& name, const Dims& dims, const Blob& blob);
    void give(const Dims& dims, const Blob& blob) { give(node().outputs[0], dims, blob); }
    void alias(Dims dims);
    void note(const std::string& text);
    /// The activation behind the current node's output where the layer can hold it: its kind and
    /// the name of its output. That node is then done.
    struct Fused {
        int activation = 0;
        std::string output;
    };
    Fused fuse(const std::set<int>& allowed);
    /// The same, from the output of another node.
    Fused fuse(const std::string& output, const std::set<int>& allowed);
    std::set<int> fusable(std::initializer_list<int> on_gpu) const;
    static int activation_kind(const Graph& graph, const Node& node);

    // What becomes of constants, for `rounded`.
    void show_halves(size_t input, double factor = 1.0);
    void show_tensor(size_t input, Tensor tensor);
    void show_number(const std::string& attribute, double value);
    /// The whole of what becomes the node's output, times a factor.
    Blob scaled(const Blob& bottom, double factor);
    /// The same for a part of it.
    Blob scaled_part(const Blob& bottom, double factor);

    // Layers that make other divisions of the same numbers.
    static Extent extent_of(const Dims& dims);
    /// The value divided as its dimensions say.
    Blob map_of(const Value& value);
    Blob in_rows(const Blob& blob, int rows);
    Blob channels_of(const Blob& blob);
    /// The numbers in so many channels, each divided in whatever way.
    Blob rows_of(const Blob& blob, int rows);
    /// `rows` * `length` channels of one pixel as `rows` channels of one line.
    Blob spread(const Blob& blob, int rows, int64_t length);

    // Layers that move numbers without changing them.
    Blob pad_or_crop(Blob blob, int top, int left, int bottom, int right);
    Blob pick_channels(const Blob& blob, const std::vector<int>& channels);
    /// Refuses more `channels` than `pick_channels` takes, before anybody lists them.
    void expect_room_to_pick(const Blob& blob, int64_t channels) const;
    Blob gather_lines(const Blob& blob, bool rows, const std::vector<int>& lines);
    Blob repeat(Blob blob, int times_y, int times_x);
    Blob broadcast(Blob blob, const Extent& size);
    /// Along channels, rows or columns; one channel is no first tensor for it.
    Blob join(const std::vector<Blob>& blobs, int axis);
    Blob joined(const std::vector<Blob>& first, int axis);

    // lower_convolution.cpp
    void conv();
    void conv_transpose();
    Blob convolve(Blob blob, int channels, const Window2D& window, const WeightRows& weights,
                  const std::vector<float>& bias, int activation);
    Blob convolve_depthwise(Blob blob, int multiplier, const Window2D& window,
                            const WeightRows& weights, const std::vector<float>& bias,
                            int activation);
    Window2D window_of(const Dims& dims, const Dims& kernel, bool transposed = false);
    std::vector<float> bias_of(size_t input, int channels);

    // lower_blocks.cpp
    /// Whether a convolution is to go by blocks: the GPU engine lacks its kernel, and has one for
    /// them.
    bool needs_blocks(const Window2D& window) const;
    Blob convolve_blocks(const Blob& blob, int channels, const Window2D& window,
                         const WeightRows& weights, const std::vector<float>& bias, int activation);
    /// The current node as a transposed convolution that doubles the sides, `weights` in
    /// rows [out][y][x] of all inputs. False, and nothing happens, where it does not go by blocks
    /// or need not.
    bool transpose_by_blocks(const Blob& blob, const Window2D& window, const Dims& dims,
                             const WeightRows& weights, const std::vector<float>& bias);

    // lower_dense.cpp
    void gemm();
    void matmul();
    void dense(const Value& data, int64_t rows, const MatrixWeights& weights,
               const std::vector<float>& bias, const Dims& dims, const Fused& fused);

    // lower_pooling.cpp
    void max_pool();
    void average_pool();
    void global_pool();
    void reduce_mean();
    Blob pool_all(const Blob& blob, bool maximum);
    Blob without_padding(Blob blob, const AxisWindow& axis, bool rows);

    // lower_elementwise.cpp
    void unary();
    void leaky_relu();
    void clip();
    void hard_sigmoid();
    void hard_swish();
    void softmax();
    void affine_node();
    /// Says why the current BatchNormalization is no factor and term for each channel.
    [[noreturn]] void refuse_normalization() const;
    void binary();
    void with_constant_map(size_t side);
    void absolute();
    void concat();
    Blob clipped(const Blob& blob, double& low, double& high);
    Blob times(Blob blob, double factor, double& used);
    Blob side_of(const Blob& blob, double sign, double& limit);
    Blob leaked(const Blob& blob, const std::vector<double>& slopes, std::vector<double>& used);

    // lower_resize.cpp
    void resize();
    void depth_to_space();
    void space_to_depth();

    // lower_shape.cpp
    void hand_on();
    void reshape();
    void flatten();
    void squeeze();
    void unsqueeze();
    void transpose();
    void pad();
    Blob bordered(const Blob& blob, int top, int left, int bottom, int right, double value,
                  double& used);
    void slice();
    void gather();
    Blob one_of(const Value& data, size_t axis, int64_t index);
    void split();
    Blob slice_axis(const Blob& blob, const Dims& dims, size_t axis, int64_t start, int64_t count,
                    int64_t step);

    // lower_lstm.cpp
    void lstm();

    Graph& graph;
    ConstantFolder& folder;
    Emitter& emitter;
    Graph* rounded;
    Uses uses;
    size_t at = 0;
    std::set<size_t> done;
    std::set<std::string> sequences;  // values whose numbers an LSTM reads
    std::unordered_map<std::string, Value> made;
    std::unordered_map<std::string, Value> finished;
    std::vector<std::string> all_notes;
    std::map<size_t, double> own_factors;
    std::map<size_t, InputChange> own_changes;
    double unshown = 0;
};

/// An axis from -rank to rank - 1 as one from 0.
size_t axis_of(int64_t axis, size_t rank);
/// A number that must fit 0 to 65535, the fields of the format.
int small(int64_t value, const char* what);
/// Refuses what would be put together of too many lines.
void require_pieces(int64_t count);
std::vector<float> floats_of(const Tensor& tensor);
/// Up to six digits, "1e+06", "-inf".
std::string number_text(double number);
/// Weights that are the same number in rows of `length`.
WeightRows all_of(size_t length, float number);

}  // namespace modelkit::onnx
