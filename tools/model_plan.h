// What a model will do on the CPU engine, worked out from its records before memory is taken.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "model_file.h"
#include "numbers.h"

namespace tool {

struct TensorSize {
    int64_t c = 0;
    int64_t h = 0;
    int64_t w = 0;

    int64_t elements() const { return c * h * w; }
    bool operator==(const TensorSize& other) const {
        return c == other.c && h == other.h && w == other.w;
    }
    bool operator!=(const TensorSize& other) const { return !(*this == other); }
};

/// "32x128x128", channels first.
std::string size_text(const TensorSize& size);

struct Window {
    int kernel_w = 0;
    int kernel_h = 0;
    int stride_w = 0;
    int stride_h = 0;
    int pad_w = 0;
    int pad_h = 0;
    int dilation_w = 1;
    int dilation_h = 1;
};

/// The window of a record that has one, without a dilation.
template <typename Record>
Window window_of(const Record& record) {
    Window window;
    window.kernel_w = record.kernel_w;
    window.kernel_h = record.kernel_h;
    window.stride_w = record.stride_w;
    window.stride_h = record.stride_h;
    window.pad_w = record.pad_w;
    window.pad_h = record.pad_h;
    return window;
}

struct PlannedLayer {
    unsigned short id = 0;
    unsigned short type = 0;
    std::string kind;  ///< name of the record type
    std::vector<unsigned short> bottoms;
    std::optional<Window> window;
    std::string activation;          ///< fused or own, empty for none
    std::string detail;              ///< what else there is to know, such as "sum"
    int64_t parameters = 0;          ///< numbers that the file holds for it
    int read_count = 0;              ///< how many bottoms of other layers name it
    std::optional<TensorSize> size;  ///< of its output; nothing behind a refused layer
    int64_t multiply_adds = 0;       ///< products with a weight, each with its sum
    int64_t work = 0;                ///< inner steps of a run, those without weights included
    int64_t tensor_bytes = 0;        ///< of its output
    int64_t scratch_bytes = 0;       ///< taken and given back while it runs
    int64_t weight_bytes = 0;        ///< that its operator keeps
    std::vector<std::string> notes;  ///< what may surprise, though it runs
};

/// Why a model does not run here.
struct PlanRefusal {
    bool names_layer = false;
    unsigned short id = 0;
    unsigned short type = 0;
    std::string text;  ///< what was expected and what was found
};

struct ModelInput {
    int index = 0;  ///< by which the model numbers its inputs
    unsigned short id = 0;
    unsigned short type = 0;
    bool is_tensor = false;     ///< of a size in numbers, which no picture is resized to
    std::vector<int64_t> dims;  ///< of a tensor, as the file has them
    int channels = 0;           ///< of a picture
    std::optional<TensorSize> size;
};

struct PlanOptions {
    std::optional<Size> base;               ///< in place of the header's base size
    std::map<int, TensorSize> input_sizes;  ///< by input index, in place of the model's own
};

/// The sizes follow the kernels of the default rule, one for one: several of them do not compute
/// what the textbook has for their padding.
struct ModelPlan {
    int64_t base_w = 0;
    int64_t base_h = 0;
    std::vector<PlannedLayer> layers;  ///< in execution order
    std::vector<ModelInput> inputs;    ///< by ascending index
    std::optional<PlanRefusal> refusal;  ///< the first of them
    std::vector<PlanRefusal> refusals;   ///< of single layers, all

    int64_t parameters = 0;
    int64_t multiply_adds = 0;
    int64_t work = 0;
    int64_t weight_bytes = 0;
    int64_t all_tensor_bytes = 0;  ///< all outputs together: a run without light mode
    int64_t peak_bytes = 0;        ///< tensors and scratch at the worst moment, with light mode
    size_t peak_layer = 0;         ///< position of the layer that runs at that moment

    /// The position of the layer with this id; nothing when there is none.
    std::optional<size_t> find(int id) const;
};

ModelPlan make_plan(const ModelFile& model, const PlanOptions& options);

struct RunLimits {
    int64_t memory = int64_t{2} << 30;  ///< bytes of weights, tensors and scratch
    int64_t work = 10'000'000'000;      ///< inner steps of one run
};

/// Which nets of a plan hold weights.
enum class WeightsOf { Rule, Table, RuleAndTable };

/// Bytes of weights in the operators of these nets, at the most: an operator of a table may keep a
/// packed form beside the weights as they came.
int64_t weight_bytes(const ModelPlan& plan, WeightsOf nets);

/// Throws CommandError when the plan has a refusal or is beyond the limits.
void require_runnable(const ModelFile& model, const ModelPlan& plan, const RunLimits& limits);

/// The refusal as an error line of the model's file.
std::string refusal_text(const ModelFile& model, const PlanRefusal& refusal);

}  // namespace tool
