#include "net_run.h"

#include <string>

#include "errors.h"

namespace tool {
namespace {

/// Finds the layer at which the run fails: the last that was heard of, or the first that was heard
/// of behind an assertion.
class FailureFinder : public TarnoCPU::Statistician {
public:
    explicit FailureFinder(TarnoCPU::Statistician* next) : next(next) {}

    void layer_stats(const TarnoCPU::Layer* layer, const TarnoCPU::Mat& bottom, TarnoCPU::Mat& top,
                     double t_before, double t_after) override {
        last = layer;
        if (!assertion.empty() && asserting == nullptr) asserting = layer;
        if (next != nullptr) next->layer_stats(layer, bottom, top, t_before, t_after);
    }

    std::string assertion;
    const TarnoCPU::Layer* last = nullptr;
    const TarnoCPU::Layer* asserting = nullptr;

private:
    TarnoCPU::Statistician* next;
};

int extract(const TarnoCPU::TarnoNet& net, const std::vector<NetInput>& inputs, int position,
            const RunnableNet::Settings& settings, TarnoCPU::Statistician* stats,
            TarnoCPU::Mat& out) {
    TarnoCPU::TarnoNetExtractor extractor = net.create_extractor();
    extractor.set_light_mode(settings.light_mode);
    extractor.set_blob_allocator(settings.blob_allocator);
    extractor.set_workspace_allocator(settings.workspace_allocator);
    for (const NetInput& input : inputs) {
        const int result = extractor.input(input.index, input.tensor);
        if (result != 0) return result;
    }
    // An input holds its tensor already: there is nothing to compute, and nothing would be.
    return extractor.extract(position, out, stats);
}

}  // namespace

RunnableNet::RunnableNet(const ModelFile& model, const ModelPlan& plan, LibraryReports& reports,
                         const std::vector<TarnoCPU::LayerInferenceConfig>* table)
    : model(model), plan(plan), reports(reports) {
    std::string assertion;
    std::string after = "at the first layer";
    {
        const LibraryReports::Observation observation(reports, [&](const std::string& condition) {
            assertion = condition;
            if (!built.layers.empty()) {
                after = "behind layer " + std::to_string(built.layers.back()->id);
            }
        });
        built.load_tarno_net_with_inference_config(model.loader,
                                                   table != nullptr ? table->data() : nullptr);
    }
    if (!assertion.empty()) {
        throw CommandError(model.path + ": " + after + ": expected " + assertion +
                           ", found otherwise");
    }
    built.setNetSize(static_cast<int>(plan.inputs[0].size->w),
                     static_cast<int>(plan.inputs[0].size->h));
}

int RunnableNet::position_of(int id) const {
    for (int i = last_position(); i >= 0; --i) {
        if (built.layers[static_cast<size_t>(i)]->id == id) return i;
    }
    return -1;
}

const PlannedLayer& RunnableNet::planned(const TarnoCPU::Layer& layer) const {
    return plan.layers[*plan.find(layer.id)];
}

TarnoCPU::Mat RunnableNet::run(const std::vector<NetInput>& inputs, int position,
                               const Settings& settings, TarnoCPU::Statistician* stats) const {
    TarnoCPU::Mat out;
    const int result = extract(built, inputs, position, settings, stats, out);
    if (result != 0 && settings.meter != nullptr && settings.meter->exceeded) {
        throw CommandError(model.path + ": " + settings.meter->refusal);
    }
    if (result != 0) {
        throw CommandError(model.path + ": expected a run without a fault, found result " +
                           std::to_string(result));
    }
    return out;
}

TarnoCPU::Mat RunnableNet::run_checked(const std::vector<NetInput>& inputs, int position,
                                       const Settings& settings,
                                       TarnoCPU::Statistician* stats) const {
    FailureFinder finder(stats);
    TarnoCPU::Mat out;
    int result = 0;
    {
        const LibraryReports::Observation observation(
            reports, [&](const std::string& condition) { finder.assertion = condition; });
        result = extract(built, inputs, position, settings, &finder, out);
    }
    if (result == 0 && finder.assertion.empty() && !out.empty()) return out;

    const TarnoCPU::Layer* layer = finder.asserting != nullptr ? finder.asserting : finder.last;
    if (layer == nullptr) layer = built.layers[0];
    const PlannedLayer& record = planned(*layer);
    if (settings.meter != nullptr && settings.meter->exceeded) {
        throw CommandError(
            layer_fault(model.path, record.id, record.type, settings.meter->refusal));
    }
    std::string text = "expected ";
    const std::string operator_name = const_cast<TarnoCPU::Layer*>(layer)->operator_name();
    text += operator_name == "nullptr" ? "the layer" : operator_name;
    text += " to run, found result " + std::to_string(result);
    if (!finder.assertion.empty()) text += " and the assertion " + finder.assertion;
    throw CommandError(layer_fault(model.path, record.id, record.type, text));
}

std::vector<float> values_of(const TarnoCPU::Mat& tensor, TensorSize& size) {
    const TarnoCPU::TensorShape& shape = tensor.shape;
    const int packing = shape.layout == TarnoCPU::TensorShape::C4HW4   ? 4
                        : shape.layout == TarnoCPU::TensorShape::C8HW8 ? 8
                                                                       : 1;
    size = {int64_t{shape.c} * packing, shape.h, shape.w / packing};
    const float* from = tensor.ptr<float>();
    if (packing == 1) return std::vector<float>(from, from + shape.total());
    std::vector<float> values;
    values.reserve(static_cast<size_t>(size.elements()));
    for (int64_t q = 0; q < size.c; ++q) {
        const float* block = from + q / packing * shape.h * shape.w + q % packing;
        for (int64_t i = 0; i < size.h * size.w; ++i) values.push_back(block[i * packing]);
    }
    return values;
}

}  // namespace tool
