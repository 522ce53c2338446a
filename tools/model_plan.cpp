#include "model_plan.h"

#include <crossplatform/src/common/src/half_float.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <set>

#include "errors.h"
#include "layer_rules.h"

namespace tool {
namespace {

/// Where the header has none.
constexpr int64_t default_base = 256;

bool is_input(const ZQLayerInfo& record) {
    return record.type == ZQLayerType_Input || record.type == ZQLayerType_TensorInput;
}

int input_index_of(const ZQLayerInfo& record) {
    return record.type == ZQLayerType_Input
               ? static_cast<const ZQLayerInfo_Input&>(record).input_index
               : static_cast<const ZQLayerInfo_TensorInput&>(record).input_index;
}

/// A factor of the base size, -1 for one that is no number that a size can be.
int64_t scaled(int64_t base, unsigned short scale, bool rounded) {
    const double size = static_cast<double>(base) * Tarno::half_to_float(scale);
    if (!(size >= 0.0) || size > 1e15) return -1;
    return static_cast<int64_t>(rounded ? size + 0.5 : size);
}

std::string refused_size(const std::string& expected, const std::string& found) {
    return "expected " + expected + ", found " + found;
}

class Planner {
public:
    Planner(const ModelFile& model, const PlanOptions& options, ModelPlan& plan)
        : model(model), options(options), plan(plan), records(model.loader.getLayersInfo()) {}

    void run();

private:
    void refuse(const PlannedLayer& layer, const std::string& text);
    void plan_layer(size_t position);
    void plan_input(const ZQLayerInfo& record, PlannedLayer& layer);
    void note_relative_size(const ZQLayerInfo& record, PlannedLayer& layer) const;
    void add_up();
    void find_peak();

    const ModelFile& model;
    const PlanOptions& options;
    ModelPlan& plan;
    std::map<unsigned short, ZQLayerInfo*> records;
    std::vector<unsigned short> order;
    std::map<unsigned short, size_t> positions;  ///< of the layers behind us
    std::set<int> input_indices;
    int highest_id = -1;
    bool sizes_are_relative = true;
};

void Planner::refuse(const PlannedLayer& layer, const std::string& text) {
    plan.refusals.push_back(PlanRefusal{true, layer.id, layer.type, text});
    if (!plan.refusal) plan.refusal = plan.refusals.back();
}

void Planner::run() {
    const unsigned int header_w = model.loader.getModelBaseW();
    const unsigned int header_h = model.loader.getModelBaseH();
    plan.base_w = options.base ? options.base->w : header_w != 0 ? header_w : default_base;
    plan.base_h = options.base ? options.base->h : header_h != 0 ? header_h : default_base;
    order = model.loader.getSequentialLayers();
    for (const unsigned short id : order) highest_id = std::max<int>(highest_id, id);

    const auto read_counts = model.loader.getLayersRCnt();
    for (const unsigned short id : order) {
        PlannedLayer layer;
        describe_layer(*records.at(id), layer);
        const auto count = read_counts.find(id);
        layer.read_count = count != read_counts.end() ? count->second : 0;
        plan.layers.push_back(std::move(layer));
    }
    for (size_t i = 0; i < plan.layers.size(); ++i) plan_layer(i);
    std::sort(plan.inputs.begin(), plan.inputs.end(),
              [](const ModelInput& a, const ModelInput& b) { return a.index < b.index; });

    if (!plan.refusal && order.empty()) {
        plan.refusal = PlanRefusal{false, 0, 0, refused_size("at least one layer", "none")};
    }
    if (!plan.refusal && plan.inputs.empty()) {
        plan.refusal = PlanRefusal{false, 0, 0, refused_size("at least one input layer", "none")};
    }
    add_up();
}

void Planner::plan_layer(size_t position) {
    PlannedLayer& layer = plan.layers[position];
    const ZQLayerInfo& record = *records.at(layer.id);
    if (positions.count(layer.id) != 0) {
        refuse(layer,
               refused_size("each layer id once", "two layers of id " + std::to_string(layer.id)));
        return;
    }
    if (is_input(record)) {
        plan_input(record, layer);
        positions[layer.id] = position;
        return;
    }
    std::vector<TensorSize> bottoms;
    bool known = true;
    for (const unsigned short bottom : layer.bottoms) {
        const auto found = positions.find(bottom);
        if (found != positions.end()) {
            const auto& size = plan.layers[found->second].size;
            known = known && size.has_value();
            if (size) bottoms.push_back(*size);
        } else {
            known = false;
            refuse(layer,
                   refused_size("a bottom among the layers before it",
                                records.count(bottom) != 0
                                    ? "layer " + std::to_string(bottom) + ", which runs later"
                                    : "layer " + std::to_string(bottom) +
                                          ", which the model does not have"));
        }
    }
    positions[layer.id] = position;
    if (!known) return;
    try {
        size_layer(record, bottoms, layer);
        note_relative_size(record, layer);
    } catch (const LayerRefused& refused) {
        layer.size.reset();
        refuse(layer, refused.text);
    }
}

void Planner::plan_input(const ZQLayerInfo& record, PlannedLayer& layer) {
    ModelInput input;
    input.index = input_index_of(record);
    input.id = layer.id;
    input.type = layer.type;
    input.is_tensor = record.type == ZQLayerType_TensorInput;
    const auto given = options.input_sizes.find(input.index);
    const bool size_is_given = given != options.input_sizes.end();
    std::string fault;

    TensorSize size;
    if (input.is_tensor) {
        sizes_are_relative = false;
        const tensor28& tensor = static_cast<const ZQLayerInfo_TensorInput&>(record).out_tensor;
        for (int i = 0; i < std::min<int>(tensor.rank, 11); ++i) {
            input.dims.push_back(tensor.dims[i]);
        }
        const auto& dims = input.dims;
        if (dims.size() == 1) size = {1, 1, dims[0]};
        if (dims.size() == 2) size = {dims[0], 1, dims[1]};
        if (dims.size() == 3) size = {dims[0], dims[1], dims[2]};
        if (tensor.rank < 1 || tensor.rank > 3) {
            fault = refused_size("1 to 3 dimensions", std::to_string(tensor.rank));
        }
    } else {
        input.channels = record.out_shape->channels;
        size = {input.channels, scaled(plan.base_h, record.out_shape->scale_y, false),
                scaled(plan.base_w, record.out_shape->scale_x, false)};
        if (!size_is_given && (size.h < 1 || size.w < 1)) {
            fault = refused_size(
                "a relative size that gives at least 1x1",
                fixed(Tarno::half_to_float(record.out_shape->scale_x), 4) + " and " +
                    fixed(Tarno::half_to_float(record.out_shape->scale_y), 4) + " of " +
                    std::to_string(plan.base_w) + "x" + std::to_string(plan.base_h));
        }
    }
    if (size_is_given) {
        size = given->second;
        sizes_are_relative = false;
    }
    if (!input_indices.insert(input.index).second) {
        fault = refused_size("each input index once",
                             "two inputs of index " + std::to_string(input.index));
    }
    // An extractor takes no index at or above its number of blobs.
    if (input.index > highest_id) {
        fault = refused_size(
            "an input index of at most " + std::to_string(highest_id) + ", the highest layer id",
            std::to_string(input.index));
    }
    if (fault.empty()) {
        try {
            layer.tensor_bytes = checked_tensor_bytes(size);
            layer.size = size;
            input.size = size;
        } catch (const LayerRefused& refused) {
            fault = refused.text;
        }
    }
    if (!fault.empty()) refuse(layer, fault);
    plan.inputs.push_back(input);
}

void Planner::note_relative_size(const ZQLayerInfo& record, PlannedLayer& layer) const {
    if (!sizes_are_relative || record.out_shape == nullptr) return;
    const int64_t w = scaled(plan.base_w, record.out_shape->scale_x, true);
    const int64_t h = scaled(plan.base_h, record.out_shape->scale_y, true);
    if (w == layer.size->w && h == layer.size->h) return;
    layer.notes.push_back("the relative size in the file is " + std::to_string(w) + "x" +
                          std::to_string(h) + " here, the CPU engine makes " +
                          std::to_string(layer.size->w) + "x" + std::to_string(layer.size->h));
}

void Planner::add_up() {
    for (const PlannedLayer& layer : plan.layers) {
        plan.parameters = saturated_sum(plan.parameters, layer.parameters);
        plan.multiply_adds = saturated_sum(plan.multiply_adds, layer.multiply_adds);
        plan.work = saturated_sum(plan.work, layer.work);
        plan.weight_bytes = saturated_sum(plan.weight_bytes, layer.weight_bytes);
        plan.all_tensor_bytes = saturated_sum(plan.all_tensor_bytes, layer.tensor_bytes);
    }
    if (!plan.refusal) find_peak();
}

/// Follows light mode through the run. A layer that works in place on its bottom counts as if it
/// made a copy.
void Planner::find_peak() {
    std::map<unsigned short, int> readers;
    for (const PlannedLayer& layer : plan.layers) {
        for (const unsigned short bottom : layer.bottoms) ++readers[bottom];
    }
    int64_t alive = 0;
    // The inputs are there from the start.
    for (const ModelInput& input : plan.inputs) {
        alive = saturated_sum(alive, plan.layers[positions.at(input.id)].tensor_bytes);
    }
    for (size_t i = 0; i < plan.layers.size(); ++i) {
        const PlannedLayer& layer = plan.layers[i];
        if (!layer.bottoms.empty()) alive = saturated_sum(alive, layer.tensor_bytes);
        const int64_t now = saturated_sum(alive, layer.scratch_bytes);
        if (now > plan.peak_bytes) {
            plan.peak_bytes = now;
            plan.peak_layer = i;
        }
        for (const unsigned short bottom : layer.bottoms) {
            // A blob whose id equals an input index is never released.
            if (--readers[bottom] == 0 && input_indices.count(bottom) == 0) {
                alive -= plan.layers[positions.at(bottom)].tensor_bytes;
            }
        }
    }
}

}  // namespace

std::optional<size_t> ModelPlan::find(int id) const {
    for (size_t i = 0; i < layers.size(); ++i) {
        if (layers[i].id == id) return i;
    }
    return std::nullopt;
}

ModelPlan make_plan(const ModelFile& model, const PlanOptions& options) {
    ModelPlan plan;
    Planner(model, options, plan).run();
    return plan;
}

int64_t weight_bytes(const ModelPlan& plan, WeightsOf nets) {
    const int64_t copies = nets == WeightsOf::Rule ? 1 : nets == WeightsOf::Table ? 2 : 3;
    return saturated_product({plan.weight_bytes, copies});
}

std::string refusal_text(const ModelFile& model, const PlanRefusal& refusal) {
    return refusal.names_layer ? layer_fault(model.path, refusal.id, refusal.type, refusal.text)
                               : model.path + ": " + refusal.text;
}

void require_runnable(const ModelFile& model, const ModelPlan& plan, const RunLimits& limits) {
    if (plan.refusal) throw CommandError(refusal_text(model, *plan.refusal));
    const PlannedLayer& peak = plan.layers[plan.peak_layer];
    const int64_t memory = saturated_sum(plan.peak_bytes, plan.weight_bytes);
    if (memory > limits.memory) {
        throw CommandError(layer_fault(model.path, peak.id, peak.type,
                                       "expected at most " + bytes_text(limits.memory) +
                                           " of memory, found a need of " + bytes_text(memory) +
                                           " (see --memory-limit)"));
    }
    if (plan.work > limits.work) {
        const auto most = std::max_element(
            plan.layers.begin(), plan.layers.end(),
            [](const PlannedLayer& a, const PlannedLayer& b) { return a.work < b.work; });
        throw CommandError(layer_fault(model.path, most->id, most->type,
                                       "expected at most " + count_text(limits.work) +
                                           " steps in all layers, found " + count_text(plan.work) +
                                           " (see --work-limit)"));
    }
}

}  // namespace tool
