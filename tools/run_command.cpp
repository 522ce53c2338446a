#include "run_command.h"

#include <tarno/cpu.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <exception>
#include <limits>
#include <new>
#include <utility>

#include "composite.h"
#include "errors.h"
#include "files.h"
#include "gpu_net.h"
#include "library_reports.h"
#include "model_file.h"
#include "net_run.h"
#include "npy.h"
#include "picture.h"
#include "progress.h"
#include "tuning_table.h"

namespace tool {
namespace {

/// "012_7_Convolution3x3s1x1.npy": place in the run, layer id, display name.
std::string blob_file_name(size_t position, int id, std::string name) {
    char number[16];
    std::snprintf(number, sizeof(number), "%03zu", position);
    for (char& c : name) {
        if (c == ':' || c == '/') c = '-';
    }
    return std::string(number) + "_" + std::to_string(id) + "_" + name + ".npy";
}

/// Hears of every layer as it ends: shows how far the run is, and writes the blobs when there is a
/// folder for them.
///
/// The blobs are written here and not fetched after the run: an activation that is fused to its
/// layer works in place, so that what the layer itself made is gone when the run is over.
class RunObserver : public TarnoCPU::Statistician {
public:
    /// `kept`: position of the layer whose output is copied.
    RunObserver(int64_t layers, OutputFiles& files, std::string folder, int kept)
        : progress("layer", layers),
          files(files),
          folder(std::move(folder)),
          kept(static_cast<size_t>(kept)) {}

    void layer_stats(const TarnoCPU::Layer* layer, const TarnoCPU::Mat&, TarnoCPU::Mat& top, double,
                     double) override {
        progress.step(static_cast<int64_t>(position) + 1);
        // The library knows nothing of exceptions, so they wait here until it is done.
        if (!folder.empty() && !top.empty() && !failure) {
            try {
                if (position == kept) copy = top.clone(nullptr);
                write(*layer, top);
            } catch (...) {
                failure = std::current_exception();
            }
        }
        ++position;
    }

    /// The output of the layer in question.
    const TarnoCPU::Mat& kept_copy() const {
        if (failure) std::rethrow_exception(failure);
        if (copy.empty()) throw std::bad_alloc();
        return copy;
    }

private:
    void write(const TarnoCPU::Layer& layer, const TarnoCPU::Mat& top) {
        TensorSize size;
        const std::vector<float> values = values_of(top, size);
        files.write_in_folder(folder, blob_file_name(position, layer.id, layer.type),
                              npy_bytes(values.data(), static_cast<int>(size.c),
                                        static_cast<int>(size.h), static_cast<int>(size.w)));
    }

    Progress progress;
    OutputFiles& files;
    std::string folder;
    size_t kept;
    size_t position = 0;
    TarnoCPU::Mat copy;
    std::exception_ptr failure;
};

/// The layer whose output is asked for.
const PlannedLayer& wanted_layer(const RunCommand& command, const ModelFile& model,
                                 const ModelPlan& plan) {
    if (!command.layer) return plan.layers.back();
    const auto position = plan.find(*command.layer);
    if (!position) {
        throw CommandError(model.path + ": expected the id of a layer (see `tarno info`), found " +
                           std::to_string(*command.layer));
    }
    return plan.layers[*position];
}

/// What can be said about the output files before the net runs.
void check_outputs(const RunCommand& command, const ModelFile& model, const PlannedLayer& layer,
                   const InputFiles& files) {
    const auto fail = [&](const std::string& text) {
        throw CommandError(layer_fault(model.path, layer.id, layer.type, text));
    };
    const int64_t channels = layer.size->c;
    if (extension_of(command.output) == ".png" && channels != 1 && channels != 3) {
        fail("expected 1 or 3 output channels for a .png file, found " + std::to_string(channels) +
             ": write an .npy file instead");
    }
    if (!command.composite.empty() && channels != 1) {
        fail("expected 1 output channel as the mask of a composite, found " +
             std::to_string(channels));
    }
    if ((command.resize_output || !command.composite.empty()) && files.picture_path().empty()) {
        throw CommandError(command.inputs[0] +
                           ": expected a picture, whose size the output takes, "
                           "found an .npy file");
    }
    unsigned char colour[3];
    if (!command.composite.empty() && !parse_colour(command.background, colour)) {
        picture_info(command.background);
    }
    if (!command.resize_output && command.composite.empty()) return;
    const PictureInfo info = picture_info(files.picture_path());
    // Floats of the resized output; of a composite the resized mask and three pictures.
    const double bytes_of_pixel =
        (command.resize_output ? 4.0 * static_cast<double>(channels) : 0) +
        (command.composite.empty() ? 0.0 : 4.0 + 3.0 * 3.0);
    const double bytes = bytes_of_pixel * info.w * info.h;
    if (bytes > static_cast<double>(command.limits.memory)) {
        fail("expected at most " + bytes_text(command.limits.memory) +
             " of memory for outputs in the size of the picture, found a need of " +
             bytes_text(static_cast<int64_t>(bytes)) + " (see --memory-limit)");
    }
}

/// "1x256x256, 0.0012 to 0.9987".
std::string summary_of(const FloatMap& map) {
    float low = std::numeric_limits<float>::infinity();
    float high = -low;
    int64_t not_finite = 0;
    for (const float value : map.values) {
        if (!std::isfinite(value)) {
            ++not_finite;
            continue;
        }
        low = std::min(low, value);
        high = std::max(high, value);
    }
    std::string text = size_text({map.c, map.h, map.w});
    if (low <= high) text += ", " + fixed(low, 4) + " to " + fixed(high, 4);
    if (not_finite > 0) text += ", " + grouped(not_finite) + " not finite";
    return text;
}

/// Reads layers back as they end: behind the run most have given their textures on.
class GpuRunObserver : public tesk::NetObserver {
public:
    GpuRunObserver(const GpuNet& net, const ModelPlan& plan, OutputFiles& files, std::string folder,
                   size_t wanted)
        : net(net),
          plan(plan),
          files(files),
          folder(std::move(folder)),
          wanted(wanted),
          progress("layer", static_cast<int64_t>(plan.layers.size())) {}

    /// Inputs hold their textures before the run.
    void take_inputs() {
        for (const ModelInput& input : plan.inputs) take(*plan.find(input.id));
        finish();
    }

    void afterOperator(int, int layer, tesk::Image&) override {
        // The library knows nothing of exceptions, so they wait here until it is done.
        if (failure) return;
        try {
            take(*plan.find(layer));
        } catch (...) {
            failure = std::current_exception();
        }
    }

    void finish() const {
        if (failure) std::rethrow_exception(failure);
    }

    FloatMap kept;

private:
    void take(size_t position) {
        progress.step(static_cast<int64_t>(position) + 1);
        if (folder.empty() && position != wanted) return;
        const FloatMap map = net.read(position);
        if (!folder.empty()) {
            const PlannedLayer& layer = plan.layers[position];
            files.write_in_folder(folder, blob_file_name(position, layer.id, layer.kind),
                                  npy_bytes(map.values.data(), map.c, map.h, map.w));
        }
        if (position == wanted) kept = map;
    }

    const GpuNet& net;
    const ModelPlan& plan;
    OutputFiles& files;
    std::string folder;
    size_t wanted;
    Progress progress;
    std::exception_ptr failure;
};

/// The wanted layer's output; the outputs of all layers into the folder when there is one.
FloatMap run_on_cpu(const RunCommand& command, const ModelFile& model, const ModelPlan& plan,
                    const PlannedLayer& layer, const std::vector<NetInput>& inputs,
                    LibraryReports& reports, OutputFiles& files, size_t& arrays) {
    const std::vector<TarnoCPU::LayerInferenceConfig> configs =
        command.table.empty() ? std::vector<TarnoCPU::LayerInferenceConfig>()
                              : checked_configs(read_tuning_table(command.table), model, plan);
    const RunnableNet net(model, plan, reports, command.table.empty() ? nullptr : &configs);
    const int wanted = net.position_of(layer.id);
    // The plan is that of the default operators; those of a table may take more.
    MeteredHeap heap(
        command.limits.memory,
        weight_bytes(plan, command.table.empty() ? WeightsOf::Rule : WeightsOf::Table));
    arrays = static_cast<size_t>(net.last_position()) + 1;
    TarnoCPU::Mat out;
    for (int i = 0; i < command.repeat; ++i) {
        // One walk serves the folder and the output: an LSTM would not give the same again.
        const bool into_folder = !command.all_layers.empty() && i + 1 == command.repeat;
        const int position = command.all_layers.empty() ? wanted : net.last_position();
        out.release();
        RunObserver observer(position + 1, files, into_folder ? command.all_layers : std::string(),
                             wanted);
        out = net.run_checked(inputs, position, RunnableNet::on(heap), &observer);
        if (into_folder) out = observer.kept_copy();
    }
    TensorSize size;
    FloatMap map;
    map.values = values_of(out, size);
    map.c = static_cast<int>(size.c);
    map.h = static_cast<int>(size.h);
    map.w = static_cast<int>(size.w);
    return map;
}

FloatMap run_on_gpu(const RunCommand& command, const ModelFile& model, const ModelPlan& plan,
                    const PlannedLayer& layer, const std::vector<NetInput>& inputs,
                    LibraryReports& reports, OutputFiles& files, size_t& arrays) {
    GpuSession session(command.gpu, reports);
    GpuNet net(model, plan, session, reports);
    arrays = plan.layers.size();
    for (int i = 0; i + 1 < command.repeat; ++i) {
        net.upload(inputs);
        net.forward_checked();
    }
    net.upload(inputs);
    GpuRunObserver observer(net, plan, files, command.all_layers, *plan.find(layer.id));
    observer.take_inputs();
    net.forward_checked(&observer);
    observer.finish();
    return observer.kept;
}

ModelPlan plan_of(const RunCommand& command, const ModelFile& model, const PlanOptions& options) {
    return command.on_gpu ? make_gpu_plan(model, options, command.gpu) : make_plan(model, options);
}

}  // namespace

void run(const RunCommand& command) {
    OutputFiles files;
    for (const std::string& input : command.inputs) files.keep(input);
    for (const std::string& input : {command.model, command.table, command.background}) {
        files.keep(input);
    }
    files.expect_apart(command.output);
    files.expect_apart(command.composite);
    LibraryReports reports(command.verbose);
    ModelFile model;
    open_model(command.model, reports, model);

    // The first plan tells the inputs, the second has the sizes that the files bring along.
    PlanOptions plan_options = command.plan;
    const ModelPlan own_sizes = plan_of(command, model, plan_options);
    const bool number_fits = own_sizes.inputs.size() == command.inputs.size();
    if (own_sizes.refusal && (command.on_gpu || !number_fits)) {
        require_runnable(model, own_sizes, command.limits);
    }
    const InputFiles input_files(model, own_sizes.inputs, command.inputs);
    plan_options.input_sizes = input_files.sizes();
    const ModelPlan plan = plan_of(command, model, plan_options);
    require_runnable(model, plan, command.limits);
    input_files.check(command.rules);
    const PlannedLayer& layer = wanted_layer(command, model, plan);
    check_outputs(command, model, layer, input_files);
    const std::vector<NetInput> inputs = input_files.load(command.rules, plan.inputs);

    if (!command.all_layers.empty()) files.folder(command.all_layers);
    size_t arrays = 0;
    FloatMap map =
        (command.on_gpu ? run_on_gpu : run_on_cpu)(command, model, plan, layer, inputs, reports,
                                                   files, arrays);

    std::string report;
    if (!command.all_layers.empty()) {
        report += "wrote " + command.all_layers + ": " + std::to_string(arrays) + " arrays\n";
    }

    if (!command.composite.empty()) {
        const Picture picture = read_picture(input_files.picture_path(), 3);
        const Picture background = background_of(command.background, picture.w, picture.h);
        files.write(command.composite, png_bytes(composite_of(picture, background, map)));
        report += "wrote " + command.composite + ": " + std::to_string(picture.w) + " x " +
                  std::to_string(picture.h) + " pixels\n";
    }
    if (!command.output.empty()) {
        if (command.resize_output) {
            const PictureInfo info = picture_info(input_files.picture_path());
            map = resize_bilinear(map, info.w, info.h);
        }
        files.write(command.output, extension_of(command.output) == ".png"
                                        ? png_bytes(picture_of(map))
                                        : npy_bytes(map.values.data(), map.c, map.h, map.w));
        report += "wrote " + command.output + ": " + summary_of(map) + "\n";
    }
    std::fputs(report.c_str(), stdout);
    files.commit();
}

}  // namespace tool
