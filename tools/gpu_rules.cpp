#include "gpu_rules.h"

#include <crossplatform/src/common/src/half_float.h>
#include <modelkit/gpu_layers.h>

#include <algorithm>
#include <cmath>
#include <set>

#include "layer_rules.h"

namespace tool {
namespace {

constexpr int64_t most_side = modelkit::GPU_MOST_SIDE;
// What every implementation of OpenGL 4.3 has at least.
constexpr int64_t most_group = 1024;           // invocations of a work group
constexpr int64_t most_uniform_block = 16384;  // bytes
constexpr int64_t most_storage_block = modelkit::GPU_MOST_WEIGHT_BYTES;
// The uniform blocks of biases hold 256 slices.
constexpr int64_t most_uniform_outputs = 1024;
constexpr int64_t bytes_of_texel = 8;

constexpr int64_t default_base = 256;

[[noreturn]] void refuse(const std::string& expected, const std::string& found) {
    throw LayerRefused{"expected " + expected + " on the GPU engine, found " + found};
}

std::string text_of(int64_t number) {
    return std::to_string(number);
}

std::string pair_text(int64_t w, int64_t h) {
    return text_of(w) + "x" + text_of(h);
}

int64_t slices_of(int64_t channels) {
    return modelkit::gpu_slices(channels);
}

void refuse_fault(const std::optional<modelkit::GpuFault>& fault) {
    if (fault) refuse(fault->expected, fault->found);
}

/// Images have the rounded size. Some generators size their work by the truncated one.
struct Pixels {
    int64_t rounded_w = 0;
    int64_t rounded_h = 0;
    int64_t truncated_w = 0;
    int64_t truncated_h = 0;
};

int64_t pixels_of(int64_t base, unsigned short factor, bool rounded) {
    const float product = static_cast<float>(base) * Tarno::half_to_float(factor);
    if (!(product >= 0.0f) || product > 1e6f) return -1;
    return static_cast<int64_t>(static_cast<double>(product) + (rounded ? 0.5 : 0.0));
}

class GpuPlanner {
public:
    GpuPlanner(const ModelFile& model, const PlanOptions& options, const GpuOptions& gpu,
               ModelPlan& plan)
        : model(model), options(options), gpu(gpu), plan(plan) {}

    void run();

private:
    void plan_input(const ZQLayerInfo& record, PlannedLayer& layer);
    void plan_layer(const ZQLayerInfo& record, PlannedLayer& layer);
    void size_layer(const ZQLayerInfo& record, const std::vector<TensorSize>& bottoms,
                    PlannedLayer& layer);
    void refuse_plan(const PlannedLayer& layer, const std::string& text);

    TensorSize relative_size(const shape3& shape) const;
    void check_truncated(const modelkit::GpuTruncatedWork& work) const;
    void check_bottoms(const ZQLayerInfo& record, const std::vector<TensorSize>& bottoms) const;
    void check_uniform_outputs(const TensorSize& top) const;
    void check_shared_padding(const ZQLayerInfo& record);
    bool pointwise_in_points(const ZQLayerInfo_Conv2D& record, const TensorSize& top) const;

    void conv2d(const ZQLayerInfo_Conv2D& record, const TensorSize& bottom, PlannedLayer& layer);
    void transpose(const ZQLayerInfo_Conv2DTranspose& record, const TensorSize& bottom,
                   PlannedLayer& layer);
    void depthwise(const ZQLayerInfo_DepthWiseConv2D& record, PlannedLayer& layer);
    void pooling(const ZQLayerInfo_Pooling& record, PlannedLayer& layer);
    void concat(const ZQLayerInfo_Concatenate& record, const std::vector<TensorSize>& bottoms);
    void pixel_shuffle(const ZQLayerInfo_PixelShuffle& record, const TensorSize& bottom,
                       PlannedLayer& layer);
    void upsampling(const ZQLayerInfo_Upsampling& record, const TensorSize& bottom,
                    PlannedLayer& layer);
    void region(const ZQLayerInfo_Region& record, const TensorSize& bottom, PlannedLayer& layer);
    void frozen(const ZQFreezedLayerInfo& record, const TensorSize& bottom, PlannedLayer& layer);

    const ModelFile& model;
    const PlanOptions& options;
    const GpuOptions& gpu;
    ModelPlan& plan;
    std::map<unsigned short, size_t> positions;
    std::set<int> input_indices;
    modelkit::GpuPaddings paddings;
};

void GpuPlanner::refuse_plan(const PlannedLayer& layer, const std::string& text) {
    plan.refusals.push_back(PlanRefusal{true, layer.id, layer.type, text});
    if (!plan.refusal) plan.refusal = plan.refusals.back();
}

void GpuPlanner::run() {
    const unsigned int header_w = model.loader.getModelBaseW();
    const unsigned int header_h = model.loader.getModelBaseH();
    plan.base_w = options.base ? options.base->w : header_w != 0 ? header_w : default_base;
    plan.base_h = options.base ? options.base->h : header_h != 0 ? header_h : default_base;
    if (plan.base_w > most_side || plan.base_h > most_side) {
        plan.refusal =
            PlanRefusal{false, 0, 0,
                        "expected a base size of at most " + pair_text(most_side, most_side) +
                            ", found " + pair_text(plan.base_w, plan.base_h)};
        return;
    }
    const auto records = model.loader.getLayersInfo();
    const auto read_counts = model.loader.getLayersRCnt();
    const std::vector<unsigned short> order = model.loader.getSequentialLayers();
    plan.layers.reserve(order.size());
    for (const unsigned short id : order) {
        const ZQLayerInfo& record = *records.at(id);
        PlannedLayer layer;
        describe_layer(record, layer);
        const auto count = read_counts.find(id);
        layer.read_count = count != read_counts.end() ? count->second : 0;
        try {
            if (positions.count(id) != 0) {
                throw LayerRefused{"expected each layer id once, found two layers of id " +
                                   text_of(id)};
            }
            if (record.type == ZQLayerType_Input || record.type == ZQLayerType_TensorInput) {
                plan_input(record, layer);
            } else {
                plan_layer(record, layer);
            }
        } catch (const LayerRefused& refused) {
            layer.size.reset();
            refuse_plan(layer, refused.text);
        }
        plan.parameters = saturated_sum(plan.parameters, layer.parameters);
        plan.multiply_adds = saturated_sum(plan.multiply_adds, layer.multiply_adds);
        plan.work = saturated_sum(plan.work, layer.work);
        plan.weight_bytes = saturated_sum(plan.weight_bytes, layer.weight_bytes);
        plan.all_tensor_bytes = saturated_sum(plan.all_tensor_bytes, layer.tensor_bytes);
        positions[id] = plan.layers.size();
        if (layer.tensor_bytes > 0 &&
            (plan.layers.empty() ||
             layer.tensor_bytes > plan.layers[plan.peak_layer].tensor_bytes)) {
            plan.peak_layer = plan.layers.size();
        }
        plan.layers.push_back(std::move(layer));
    }
    plan.peak_bytes = plan.all_tensor_bytes;
    std::sort(plan.inputs.begin(), plan.inputs.end(),
              [](const ModelInput& a, const ModelInput& b) { return a.index < b.index; });
    if (!plan.refusal && order.empty()) {
        plan.refusal = PlanRefusal{false, 0, 0, "expected at least one layer, found none"};
    }
    if (!plan.refusal && plan.inputs.empty()) {
        plan.refusal = PlanRefusal{false, 0, 0, "expected at least one input layer, found none"};
    }
    if (!plan.refusal && plan.inputs.size() == plan.layers.size()) {
        plan.refusal = PlanRefusal{
            false, 0, 0, "expected a layer behind the inputs on the GPU engine, found none"};
    }
}

void check_texture(const TensorSize& size) {
    refuse_fault(modelkit::gpu_texture_fault(size.c, size.h, size.w));
}

int64_t texture_bytes(const TensorSize& size) {
    return size.w * size.h * slices_of(size.c) * bytes_of_texel;
}

TensorSize GpuPlanner::relative_size(const shape3& shape) const {
    return {shape.channels, pixels_of(plan.base_h, shape.scale_y, true),
            pixels_of(plan.base_w, shape.scale_x, true)};
}

void GpuPlanner::plan_input(const ZQLayerInfo& record, PlannedLayer& layer) {
    ModelInput input;
    input.id = layer.id;
    input.type = layer.type;
    input.is_tensor = record.type == ZQLayerType_TensorInput;
    TensorSize size;
    if (input.is_tensor) {
        const auto& tensor = static_cast<const ZQLayerInfo_TensorInput&>(record);
        input.index = tensor.input_index;
        for (int i = 0; i < std::min<int>(tensor.out_tensor.rank, 11); ++i) {
            input.dims.push_back(tensor.out_tensor.dims[i]);
        }
        size = {tensor.out_tensor.dims[1], tensor.out_tensor.dims[0], tensor.out_tensor.dims[0]};
        if (input.dims.size() != 2)
            refuse("an input of 2 dimensions", text_of(tensor.out_tensor.rank));
    } else {
        input.index = static_cast<const ZQLayerInfo_Input&>(record).input_index;
        input.channels = record.out_shape->channels;
        size = {input.channels, pixels_of(plan.base_h, record.out_shape->scale_y, false),
                pixels_of(plan.base_w, record.out_shape->scale_x, false)};
    }
    check_texture(size);
    // The engine keeps the inputs in front, at the places that their ids name.
    const int place = static_cast<int>(plan.inputs.size());
    if (layer.id != place) {
        refuse("input layers with the lowest ids, here " + text_of(place), text_of(layer.id));
    }
    if (!input_indices.insert(input.index).second) {
        throw LayerRefused{"expected each input index once, found two inputs of index " +
                           text_of(input.index)};
    }
    const auto given = options.input_sizes.find(input.index);
    if (given != options.input_sizes.end()) {
        const bool fits =
            input.is_tensor ? given->second.elements() == size.elements() : given->second == size;
        if (!fits) {
            refuse("an array of " + size_text(size) + ", as the base size has it (see --size),",
                   size_text(given->second));
        }
    }
    layer.size = size;
    layer.tensor_bytes = texture_bytes(size);
    input.size = size;
    plan.inputs.push_back(input);
}

void GpuPlanner::plan_layer(const ZQLayerInfo& record, PlannedLayer& layer) {
    std::vector<TensorSize> bottoms;
    for (const unsigned short bottom : layer.bottoms) {
        const auto found = positions.find(bottom);
        if (found == positions.end()) {
            throw LayerRefused{"expected a bottom among the layers before it, found layer " +
                               text_of(bottom)};
        }
        const auto& size = plan.layers[found->second].size;
        if (!size) return;  // behind a layer that was refused
        bottoms.push_back(*size);
    }
    if (bottoms.empty()) throw LayerRefused{"expected a bottom, found none"};
    size_layer(record, bottoms, layer);
    check_texture(*layer.size);
    layer.tensor_bytes = saturated_sum(texture_bytes(*layer.size), layer.scratch_bytes);
    layer.work = saturated_sum(std::max(layer.work, layer.multiply_adds), layer.size->elements());
}

void GpuPlanner::check_truncated(const modelkit::GpuTruncatedWork& work) const {
    if (work.shape == nullptr) return;
    const TensorSize image = relative_size(*work.shape);
    const int64_t w = pixels_of(plan.base_w, work.shape->scale_x, false);
    const int64_t h = pixels_of(plan.base_h, work.shape->scale_y, false);
    if (!modelkit::gpu_work_covers(w, image.w, work.step) ||
        !modelkit::gpu_work_covers(h, image.h, work.step)) {
        refuse("a base size at which the layer's relative size comes to whole pixels",
               "a last row or column of " + pair_text(image.w, image.h) +
                   " that its program leaves out");
    }
}

void GpuPlanner::check_bottoms(const ZQLayerInfo& record,
                               const std::vector<TensorSize>& bottoms) const {
    // Shaders read a plain texture or an array by what the record says.
    if (record.in_shape->channels != bottoms[0].c) {
        throw LayerRefused{"expected " + text_of(record.in_shape->channels) +
                           " input channels, found " + text_of(bottoms[0].c)};
    }
}

void GpuPlanner::check_uniform_outputs(const TensorSize& top) const {
    const bool uniform = gpu.ubo_slice_limit > 0 || gpu.tricks_mode == 0;
    if (uniform && top.c > most_uniform_outputs) {
        refuse("at most " + text_of(most_uniform_outputs) + " output channels with uniform blocks",
               text_of(top.c));
    }
}

void GpuPlanner::check_shared_padding(const ZQLayerInfo& record) {
    refuse_fault(paddings.add(record, gpu.ubo_slice_limit > 0));
}

bool GpuPlanner::pointwise_in_points(const ZQLayerInfo_Conv2D& record,
                                     const TensorSize& top) const {
    return gpu.tricks_mode == 0 && record.kernel_w == 1 && record.kernel_h == 1 && top.w >= 2 &&
           top.h >= 2;
}

void check_counts(size_t weights, size_t expected_weights, size_t bias, int64_t out,
                  bool has_bias) {
    if (weights < expected_weights) {
        throw LayerRefused{"expected " + text_of(static_cast<int64_t>(expected_weights)) +
                           " weights, found " + text_of(static_cast<int64_t>(weights))};
    }
    if (has_bias && static_cast<int64_t>(bias) < out) {
        throw LayerRefused{"expected " + text_of(out) + " biases, found " +
                           text_of(static_cast<int64_t>(bias))};
    }
}

void check_weight_bytes(int64_t bytes, int64_t most = most_storage_block) {
    if (bytes > most) refuse("at most " + bytes_text(most) + " of weights", bytes_text(bytes));
}

void GpuPlanner::conv2d(const ZQLayerInfo_Conv2D& record, const TensorSize& bottom,
                        PlannedLayer& layer) {
    const int64_t groups = record.effective_groups();
    const TensorSize top = *layer.size;
    const Window& window = *layer.window;
    if (groups != 1) {
        if (bottom.c != 4 * groups || top.c != 4 * groups) {
            refuse("groups of 4 input and 4 output channels", text_of(bottom.c) + " and " +
                                                                  text_of(top.c) + " in " +
                                                                  text_of(groups) + " groups");
        }
        if (bottom.c <= 4)
            refuse("more than 4 channels for a convolution in groups", text_of(bottom.c));
    } else if (pointwise_in_points(record, top)) {
        // Leaky ReLU does nothing there, and ReLU6 does not compile in the form of one slice.
        if (record.activation == ActivationType_LeakyReLU ||
            (record.activation == ActivationType_ReLU6 && top.c <= 4)) {
            refuse(top.c > 4 ? "an activation of kind 0, 1, 2, 3, 4, 7 or 8"
                             : "an activation of kind 0, 1, 2, 3, 4 or 7",
                   "kind " + text_of(record.activation) + " (" + layer.activation + ")");
        }
        refuse_fault(paddings.add("points " + text_of(slices_of(bottom.c)) + " " +
                                      (top.c <= 4 ? "plain " : "array ") +
                                      text_of(record.activation) + " " + text_of(record.has_bias) +
                                      " " + pair_text(window.stride_w, window.stride_h),
                                  layer.id, window.pad_w, window.pad_h));
    }
    const int64_t taps = int64_t{window.kernel_w} * window.kernel_h;
    const int64_t weights = saturated_product({top.c, taps, bottom.c / groups});
    check_counts(record.weights_count, static_cast<size_t>(weights), record.bias_count, top.c,
                 record.has_bias != 0);
    layer.multiply_adds = saturated_product({weights, top.h, top.w});
    layer.weight_bytes = modelkit::gpu_weight_bytes(record);
    // Grouped weights are never divided between blocks.
    const bool one_block = groups != 1 && gpu.ubo_slice_limit > 0;
    check_weight_bytes(layer.weight_bytes, one_block ? most_uniform_block : most_storage_block);
    check_uniform_outputs(top);
}

void GpuPlanner::transpose(const ZQLayerInfo_Conv2DTranspose& record, const TensorSize& bottom,
                           PlannedLayer& layer) {
    const TensorSize top = *layer.size;
    const Window& window = *layer.window;
    if (top.w > 2 * bottom.w || top.h > 2 * bottom.h) {
        refuse("an output of at most " + pair_text(2 * bottom.w, 2 * bottom.h),
               pair_text(top.w, top.h));
    }
    const int64_t taps = int64_t{window.kernel_w} * window.kernel_h;
    const int64_t weights = saturated_product({top.c, taps, bottom.c});
    check_counts(record.weights_count, static_cast<size_t>(weights), record.bias_count, top.c,
                 record.has_bias != 0);
    layer.multiply_adds = saturated_product({weights, bottom.h, bottom.w});
    layer.weight_bytes = modelkit::gpu_weight_bytes(record);
    check_weight_bytes(layer.weight_bytes);
    check_uniform_outputs(top);
}

void GpuPlanner::depthwise(const ZQLayerInfo_DepthWiseConv2D& record, PlannedLayer& layer) {
    const TensorSize top = *layer.size;
    const Window& window = *layer.window;
    if (record.in_shape->channels != top.c) {
        throw LayerRefused{"expected " + text_of(record.in_shape->channels) +
                           " output channels, found " + text_of(top.c)};
    }
    check_shared_padding(record);
    const int64_t taps = int64_t{window.kernel_w} * window.kernel_h;
    check_counts(record.weights_count, static_cast<size_t>(top.c * taps), record.bias_count, top.c,
                 record.has_bias != 0);
    layer.multiply_adds = saturated_product({top.c, taps, top.h, top.w});
    layer.weight_bytes = modelkit::gpu_weight_bytes(record);
    if (gpu.ubo_slice_limit > 0) check_weight_bytes(layer.weight_bytes, most_uniform_block);
}

void GpuPlanner::pooling(const ZQLayerInfo_Pooling& record, PlannedLayer& layer) {
    if (record.in_shape->channels != layer.size->c) {
        throw LayerRefused{"expected " + text_of(record.in_shape->channels) +
                           " output channels, found " + text_of(layer.size->c)};
    }
    check_shared_padding(record);
    layer.work = saturated_product({layer.size->elements(), record.kernel_w, record.kernel_h});
}

void GpuPlanner::concat(const ZQLayerInfo_Concatenate& record,
                        const std::vector<TensorSize>& bottoms) {
    const int64_t out = record.out_shape->channels;
    int64_t sum = 0;
    for (size_t i = 0; i < bottoms.size(); ++i) {
        if (record.in_shapes[i].channels != bottoms[i].c) {
            throw LayerRefused{"expected " + text_of(record.in_shapes[i].channels) +
                               " channels in bottom " + text_of(static_cast<int64_t>(i)) +
                               ", found " + text_of(bottoms[i].c)};
        }
        if (bottoms[i].h != bottoms[0].h || bottoms[i].w != bottoms[0].w) {
            throw LayerRefused{"expected bottoms of one width and height, found " +
                               size_text(bottoms[0]) + " and " + size_text(bottoms[i])};
        }
        sum += bottoms[i].c;
    }
    if (sum != out) {
        throw LayerRefused{"expected " + text_of(sum) + " output channels, found " + text_of(out)};
    }
}

void GpuPlanner::pixel_shuffle(const ZQLayerInfo_PixelShuffle& record, const TensorSize& bottom,
                               PlannedLayer& layer) {
    const float factor = Tarno::half_to_float(record.upscale_factor);
    const bool up = factor >= 1.0f;
    const TensorSize expected = up ? TensorSize{bottom.c / 4, 2 * bottom.h, 2 * bottom.w}
                                   : TensorSize{4 * bottom.c, bottom.h / 2, bottom.w / 2};
    const bool whole = up ? bottom.c % 4 == 0 : bottom.h % 2 == 0 && bottom.w % 2 == 0;
    if (!whole || *layer.size != expected) {
        refuse(up ? "four channels for each of the output" : "sides of twice the output's",
               size_text(bottom) + " to " + size_text(*layer.size));
    }
}

void GpuPlanner::upsampling(const ZQLayerInfo_Upsampling& record, const TensorSize& bottom,
                            PlannedLayer& layer) {
    const float scale = Tarno::half_to_float(record.scale);
    const TensorSize top = *layer.size;
    if (top.c != bottom.c) {
        throw LayerRefused{"expected " + text_of(bottom.c) + " output channels, found " +
                           text_of(top.c)};
    }
    if (record.mode == 0) {
        const bool wide = top.w == 4 * bottom.w && top.h == bottom.h && top.c > 4;
        const bool known = (scale == 2.0f || scale == 4.0f) &&
                           top.w == static_cast<int64_t>(scale) * bottom.w &&
                           top.h == static_cast<int64_t>(scale) * bottom.h;
        if (!wide && !known) {
            refuse("nearest upsampling by 2 or 4",
                   fixed(scale, 3) + " from " + size_text(bottom) + " to " + size_text(top));
        }
    }
}

void GpuPlanner::region(const ZQLayerInfo_Region& record, const TensorSize& bottom,
                        PlannedLayer& layer) {
    const int64_t values = (int64_t{record.region_b} + record.region_c + 1) * record.region_a;
    const int64_t slices = slices_of(bottom.c);
    if (values != bottom.c) refuse(text_of(values) + " input channels", text_of(bottom.c));
    if (bottom.c <= 4) refuse("more than 4 input channels", text_of(bottom.c));
    if (bottom.w * bottom.h > most_group) {
        refuse("a map of at most " + text_of(most_group) + " pixels, one for each invocation,",
               pair_text(bottom.w, bottom.h));
    }
    const float width = Tarno::half_to_float(record.in_shape->scale_x) * static_cast<float>(slices);
    const TensorSize top{4, pixels_of(plan.base_h, record.in_shape->scale_y, true),
                         pixels_of(plan.base_w, Tarno::float_to_half(width), true)};
    if (top.w != slices * bottom.w || top.h != bottom.h) {
        refuse("a map that the base size holds as a factor of 16 bits",
               pair_text(slices * bottom.w, bottom.h));
    }
    layer.size = top;
    layer.work = saturated_product({bottom.elements(), 4});
}

/// Layers of absolute sizes.
void GpuPlanner::frozen(const ZQFreezedLayerInfo& record, const TensorSize& bottom,
                        PlannedLayer& layer) {
    const auto& out = record.out_tensor;
    const int rank = std::min<int>(out.rank, 11);
    TensorSize top;
    if (record.type == ZQLayerType_TensorSqueeze) {
        const int64_t larger = std::max(out.dims[1], out.dims[2]);
        const int64_t smaller = std::min(out.dims[1], out.dims[2]);
        if (rank < 3) refuse("an output of 3 dimensions", text_of(rank));
        if (plan.base_w == plan.base_h || larger == smaller) {
            refuse("a base size and an output that are no squares (see --size)",
                   pair_text(plan.base_w, plan.base_h) + " and " + pair_text(larger, smaller));
        }
        const bool wide = plan.base_w > plan.base_h;
        top = {out.dims[0], wide ? smaller : larger, wide ? larger : smaller};
        if (static_cast<const ZQLayerInfo_TensorSqueeze&>(record).axis != 0) {
            refuse("a squeeze of axis 0",
                   text_of(static_cast<const ZQLayerInfo_TensorSqueeze&>(record).axis));
        }
        if (bottom.c > 4) refuse("at most 4 input channels", text_of(bottom.c));
    } else {
        if (rank < 2) refuse("an output of 2 dimensions", text_of(rank));
        top = {out.dims[1], out.dims[0], out.dims[0]};
    }
    const auto back = [](int64_t base, int64_t size) {
        return pixels_of(
            base, Tarno::float_to_half(static_cast<float>(size) / static_cast<float>(base)), true);
    };
    if (back(plan.base_h, top.h) != top.h || back(plan.base_w, top.w) != top.w) {
        refuse("an output that the base size holds as a factor of 16 bits", size_text(top));
    }
    layer.size = top;
    if (record.type == ZQLayerType_TensorReshape) {
        if (top.h != 1 || top.w != 1) refuse("an output of one pixel", size_text(top));
        if (top.c != bottom.elements()) {
            refuse(text_of(bottom.elements()) + " output channels", text_of(top.c));
        }
        if (top.c <= 4) refuse("more than 4 output channels", text_of(top.c));
        layer.scratch_bytes = bottom.w * bottom.h * slices_of(bottom.c) * 16;
    }
    if (record.type == ZQLayerType_FullConnection) {
        const auto& dense = static_cast<const ZQLayerInfo_FullConnection&>(record);
        if (bottom.h != 1 || bottom.w != 1 || bottom.c != dense.num_input) {
            refuse(size_text({dense.num_input, 1, 1}) + " as input", size_text(bottom));
        }
        if (bottom.c <= 4) refuse("more than 4 inputs", text_of(bottom.c));
        if (dense.num_input % 4 != 0 && dense.num_output > 1) {
            refuse("inputs in fours", text_of(dense.num_input));
        }
        if (top.h != 1 || top.w != 1 || top.c != dense.num_output) {
            refuse(size_text({dense.num_output, 1, 1}) + " as output", size_text(top));
        }
        layer.multiply_adds = saturated_product({dense.num_input, dense.num_output});
        check_counts(dense.weights_count, static_cast<size_t>(layer.multiply_adds),
                     dense.bias_count, dense.num_output, dense.has_bias != 0);
        layer.weight_bytes = saturated_product({slices_of(top.c), slices_of(bottom.c), 32});
        check_weight_bytes(layer.weight_bytes,
                           gpu.ubo_slice_limit > 0 ? most_uniform_block : most_storage_block);
    }
}

void GpuPlanner::size_layer(const ZQLayerInfo& record, const std::vector<TensorSize>& bottoms,
                            PlannedLayer& layer) {
    const TensorSize& bottom = bottoms[0];
    if (record.in_shape != nullptr) {
        check_bottoms(record, bottoms);
        layer.size = relative_size(*record.out_shape);
        check_texture(*layer.size);
        refuse_fault(modelkit::gpu_layer_fault(record));
    }
    switch (record.type) {
        case ZQLayerType_Conv2D:
            conv2d(static_cast<const ZQLayerInfo_Conv2D&>(record), bottom, layer);
            break;
        case ZQLayerType_Conv2DTranspose:
            transpose(static_cast<const ZQLayerInfo_Conv2DTranspose&>(record), bottom, layer);
            break;
        case ZQLayerType_DepthWiseConv2D:
            depthwise(static_cast<const ZQLayerInfo_DepthWiseConv2D&>(record), layer);
            break;
        case ZQLayerType_Pooling:
            pooling(static_cast<const ZQLayerInfo_Pooling&>(record), layer);
            break;
        case ZQLayerType_ElementWiseOperator:
            for (const TensorSize& each : bottoms) {
                if (each != *layer.size) {
                    throw LayerRefused{"expected bottoms of the output's size, " +
                                       size_text(*layer.size) + ", found " + size_text(each)};
                }
            }
            break;
        case ZQLayerType_Concatenate:
            concat(static_cast<const ZQLayerInfo_Concatenate&>(record), bottoms);
            break;
        case ZQLayerType_PixelShuffle:
            pixel_shuffle(static_cast<const ZQLayerInfo_PixelShuffle&>(record), bottom, layer);
            break;
        case ZQLayerType_Upsampling:
            upsampling(static_cast<const ZQLayerInfo_Upsampling&>(record), bottom, layer);
            break;
        case ZQLayerType_Activation:
            if (*layer.size != bottom) {
                throw LayerRefused{"expected an output of " + size_text(bottom) + ", found " +
                                   size_text(*layer.size)};
            }
            break;
        case ZQLayerType_Region:
            region(static_cast<const ZQLayerInfo_Region&>(record), bottom, layer);
            break;
        case ZQLayerType_TensorReshape:
        case ZQLayerType_TensorSqueeze:
        case ZQLayerType_FullConnection:
            frozen(static_cast<const ZQFreezedLayerInfo&>(record), bottom, layer);
            break;
        default:
            throw LayerRefused{"expected a layer that the GPU engine has, found " + layer.kind +
                               ", which it has not"};
    }
    check_truncated(modelkit::gpu_truncated_work(record));
}

}  // namespace

ModelPlan make_gpu_plan(const ModelFile& model, const PlanOptions& options, const GpuOptions& gpu) {
    ModelPlan plan;
    GpuPlanner(model, options, gpu, plan).run();
    return plan;
}

}  // namespace tool
