#include "operator_trial.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>
#include <memory>

#include "errors.h"
#include "metered_memory.h"
#include "numbers.h"

namespace tool {
namespace {

using Clock = std::chrono::steady_clock;
using TarnoCPU::Mat;
using TarnoCPU::Option;
using TarnoCPU::TensorShape;

// ---- what the layers load: seen by operators that only take notes ----

struct Loaded {
    TarnoCPU::ParamDict parameters;
    Mat weights;
    Mat bias;
};

// Factories are plain functions, so what is noted goes through here. One model at a time.
std::vector<Loaded>& loaded() {
    static std::vector<Loaded> list;
    return list;
}

int note(const TarnoCPU::ParamDict& pd, const TarnoCPU::ModelBin& mb, bool with_weights) {
    Loaded entry;
    entry.parameters = pd;
    if (with_weights) {
        entry.weights = mb.load(pd.get(10, 0), 0, 0);
        if (pd.get(9, 0) != 0) entry.bias = mb.load(pd.get(0, 0), 1, 0);
    }
    loaded().push_back(entry);
    return 0;
}

template <bool WithWeights>
class NotingSiso : public TarnoCPU::OperatorSISO {
public:
    int load(const TarnoCPU::ParamDict& pd, const TarnoCPU::ModelBin& mb,
             const TarnoCPU::LayerInferenceConfig&) override {
        return note(pd, mb, WithWeights);
    }
    std::string name() const override { return "notes"; }
    int forward(const Mat&, Mat&, const Option&) override { return -100; }
    bool check_forward(const TensorShape&) override { return false; }
};

class NotingInplace : public TarnoCPU::OperatorSISOInplace {
public:
    int load(const TarnoCPU::ParamDict& pd, const TarnoCPU::ModelBin& mb,
             const TarnoCPU::LayerInferenceConfig&) override {
        return note(pd, mb, false);
    }
    std::string name() const override { return "notes"; }
    int forward(Mat&, const Option&) override { return -100; }
    bool check_forward(const TensorShape&) override { return false; }
};

class NotingMimo : public TarnoCPU::OperatorMIMO {
public:
    int load(const TarnoCPU::ParamDict& pd, const TarnoCPU::ModelBin& mb,
             const TarnoCPU::LayerInferenceConfig&) override {
        return note(pd, mb, false);
    }
    std::string name() const override { return "notes"; }
    int forward(const std::vector<Mat>&, std::vector<Mat>&, const Option&) override { return -100; }
    bool check_forward(const std::vector<TensorShape>&) override { return false; }
};

template <typename Noting>
TarnoCPU::Operator* make_noting() {
    return new Noting;
}

bool has_weights(const std::string& layer) {
    return layer == "Convolution" || layer == "ConvolutionDepthWise" || layer == "Deconvolution" ||
           layer == "DeconvolutionDepthWise" || layer == "FullConnection";
}

TarnoCPU::OperatorCreator noting_creator(const TarnoCPU::OperatorInfo& info) {
    switch (info.base) {
        case TarnoCPU::OperatorInfo::Base::SISOInplace:
            return &make_noting<NotingInplace>;
        case TarnoCPU::OperatorInfo::Base::MIMO:
            return &make_noting<NotingMimo>;
        default:
            return has_weights(info.layer) ? &make_noting<NotingSiso<true>>
                                           : &make_noting<NotingSiso<false>>;
    }
}

// ---- the way back: notes as a source of weights ----

class NotedWeights : public TarnoCPU::ModelBin {
public:
    NotedWeights(const Mat& weights, const Mat& bias) : weights(weights), bias(bias) {}
    Mat load(int count, int type, int) const override {
        const Mat& source = type == 0 ? weights : bias;
        if (count <= 0) return Mat();
        Mat copy(TensorShape(TensorShape::FLAT, 1, 1, count, 4), nullptr);
        if (copy.empty()) return copy;
        const int64_t present = source.empty() ? 0 : std::min<int64_t>(count, source.shape.total());
        std::memset(copy.data, 0, static_cast<size_t>(count) * sizeof(float));
        if (present > 0) {
            std::memcpy(copy.data, source.data, static_cast<size_t>(present) * sizeof(float));
        }
        return copy;
    }

private:
    Mat weights;
    Mat bias;
};

/// [c][h][w] to [c / 4][h][w][c % 4].
Mat in_fours(const Mat& planes) {
    const TensorShape& from = planes.shape;
    Mat fours(TensorShape(TensorShape::C4HW4, from.c / 4, from.h, from.w * 4, 4), nullptr);
    if (fours.empty()) return fours;
    const int64_t pixels = int64_t{from.h} * from.w;
    for (int64_t q = 0; q < from.c / 4 * 4; ++q) {
        const float* source = planes.ptr<float>() + q * pixels;
        float* target = fours.ptr<float>() + q / 4 * 4 * pixels + q % 4;
        for (int64_t i = 0; i < pixels; ++i) target[i * 4] = source[i];
    }
    return fours;
}

/// The element of a tensor that stands at `index` of its planes.
float planes_element(const Mat& tensor, int64_t index) {
    if (tensor.shape.layout != TensorShape::C4HW4) return tensor.ptr<float>()[index];
    const int64_t pixels = int64_t{tensor.shape.h} * (tensor.shape.w / 4);
    const int64_t q = index / pixels;
    return tensor.ptr<float>()[q / 4 * 4 * pixels + index % pixels * 4 + q % 4];
}

int64_t logical_total(const Mat& tensor) {
    return tensor.empty() ? 0 : tensor.shape.total();
}

/// One operator with what it needs for a run: a fresh copy of its bottom where it works in place.
class Runner {
public:
    Runner(const TarnoCPU::OperatorInfo& info, const LayerTask& task, std::vector<Mat> bottoms,
           const TrialMemory& memory)
        : info(info),
          pools(memory.limit, memory.taken),
          made(info.creator()),
          bottoms(std::move(bottoms)) {
        loaded_well =
            made != nullptr && made->load(task.parameters, NotedWeights(task.weights, task.bias),
                                          {info.creator, 0, 0}) == 0;
    }
    ~Runner() {
        top.release();
        work.release();
        tops.clear();
    }

    bool ready() const { return loaded_well; }
    /// Whether the last run failed because its pools were at their limit.
    bool out_of_memory() const { return pools.meter.exceeded; }

    /// The value of `forward`; `milliseconds` receives its time.
    int run(double& milliseconds) {
        int result = -100;
        Option opt;
        opt.blob_allocator = pools.blob_allocator();
        opt.workspace_allocator = pools.workspace_allocator();
        const bool watched = !pools.settled();
        if (info.base == TarnoCPU::OperatorInfo::Base::SISOInplace) {
            work.release();
            work = bottoms[0].clone(opt.blob_allocator);
            if (work.empty()) return -100;
            const Clock::time_point start = Clock::now();
            result = static_cast<TarnoCPU::OperatorSISOInplace*>(made.get())->forward(work, opt);
            milliseconds = since(start);
        } else if (info.base == TarnoCPU::OperatorInfo::Base::MIMO) {
            tops.assign(1, Mat());
            const Clock::time_point start = Clock::now();
            result = static_cast<TarnoCPU::OperatorMIMO*>(made.get())->forward(bottoms, tops, opt);
            milliseconds = since(start);
        } else {
            top.release();
            const Clock::time_point start = Clock::now();
            result =
                static_cast<TarnoCPU::OperatorSISO*>(made.get())->forward(bottoms[0], top, opt);
            milliseconds = since(start);
        }
        if (watched) pools.note_run();
        return result;
    }

    const Mat& output() const {
        return info.base == TarnoCPU::OperatorInfo::Base::SISOInplace ? work
               : info.base == TarnoCPU::OperatorInfo::Base::MIMO      ? tops[0]
                                                                      : top;
    }

private:
    static double since(Clock::time_point start) {
        return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
    }

    const TarnoCPU::OperatorInfo& info;
    MeteredPools pools;
    std::unique_ptr<TarnoCPU::Operator> made;
    bool loaded_well = false;
    std::vector<Mat> bottoms;
    Mat top;
    Mat work;
    std::vector<Mat> tops = std::vector<Mat>(1);
};

Mat absolute(const Mat& tensor) {
    Mat copy = tensor.clone(nullptr);
    for (int64_t i = 0; i < logical_total(copy); ++i) {
        copy.ptr<float>()[i] = std::fabs(copy.ptr<float>()[i]);
    }
    return copy;
}

double largest_magnitude(const Mat& tensor) {
    double largest = 0.0;
    for (int64_t i = 0; i < logical_total(tensor); ++i) {
        largest = std::max(largest, std::fabs(static_cast<double>(tensor.ptr<float>()[i])));
    }
    return largest;
}

/// n u / (1 - n u), the usual bound of n roundings to nearest in float.
double rounding_factor(double n) {
    const double u = std::ldexp(1.0, -24);
    return n * u / (1.0 - n * u);
}

}  // namespace

std::vector<LayerTask> record_tasks(const ModelFile& model, const TarnoCPU::TarnoNet& net,
                                    const std::vector<std::pair<int, Mat>>& inputs) {
    // Once more with operators that only write down what they are loaded with.
    std::vector<TarnoCPU::LayerInferenceConfig> noting;
    for (const TarnoCPU::Layer* layer : net.layers) {
        const TarnoCPU::OperatorCreator creator = layer->inference_config.op_creator;
        const TarnoCPU::OperatorInfo* info =
            creator != nullptr ? TarnoCPU::find_operator(creator) : nullptr;
        // An LSTM asks for its weights in another way, and there is one operator for it.
        const bool noted = info != nullptr && std::string(info->layer) != "LSTM";
        noting.push_back({noted ? noting_creator(*info) : creator, 0, 0});
    }
    loaded().clear();
    TarnoCPU::TarnoNet noted_net;
    noted_net.load_tarno_net_with_inference_config(model.loader, noting.data());

    std::vector<Mat> blobs(net.blobs.size());
    for (const auto& input : inputs) {
        blobs[static_cast<size_t>(net.input_blobs.at(input.first))] = input.second;
    }
    std::vector<LayerTask> tasks;
    size_t next = 0;
    for (size_t i = 0; i < net.layers.size(); ++i) {
        TarnoCPU::Layer* layer = net.layers[i];
        LayerTask task;
        task.default_creator = layer->inference_config.op_creator;
        const TarnoCPU::OperatorInfo* info = task.default_creator != nullptr
                                                 ? TarnoCPU::find_operator(task.default_creator)
                                                 : nullptr;
        if (info != nullptr && std::string(info->layer) != "LSTM" && next < loaded().size()) {
            task.parameters = loaded()[next].parameters;
            task.weights = loaded()[next].weights;
            task.bias = loaded()[next].bias;
            ++next;
        }
        for (const int blob : layer->bottoms)
            task.bottoms.push_back(blobs[static_cast<size_t>(blob)]);

        int result = -100;
        if (layer->one_blob_only) {
            // A layer in place gets a copy: what it reads is a task of its own.
            const Mat bottom =
                layer->support_inplace ? task.bottoms[0].clone(nullptr) : task.bottoms[0];
            result = layer->forward(bottom, task.top, Option());
        } else {
            std::vector<Mat> tops(1);
            result = layer->forward(task.bottoms, tops, Option());
            task.top = tops[0];
        }
        if (result != 0 || task.top.empty()) {
            throw CommandError(model.path + ": layer " + std::to_string(layer->id) +
                               ": expected a run without a fault, found result " +
                               std::to_string(result));
        }
        blobs[static_cast<size_t>(layer->tops[0])] = task.top;
        tasks.push_back(task);
    }
    loaded().clear();
    return tasks;
}

std::vector<double> error_bounds(const TableSlot& slot, const LayerTask& task,
                                 const TrialMemory& memory) {
    const size_t count = static_cast<size_t>(logical_total(task.top));
    if (has_weights(slot.layer)) {
        // The sum of the sizes of the products: the layer once more on absolute values.
        LayerTask sizes = task;
        sizes.weights = absolute(task.weights);
        sizes.bias = task.bias.empty() ? task.bias : absolute(task.bias);
        const TarnoCPU::OperatorInfo& info = *TarnoCPU::find_operator(task.default_creator);
        Runner runner(info, sizes, {absolute(task.bottoms[0])}, memory);
        double unused = 0.0;
        const bool done = runner.ready() && runner.run(unused) == 0;
        if (!done && runner.out_of_memory()) {
            throw CommandError(slot_text(slot) + ": " +
                               MemoryMeter(memory.limit, memory.taken).refusal);
        }
        if (done) {
            // Weights per output and a bias. The sums of sizes are rounded themselves, upwards or
            // not: as much again covers it.
            const double terms =
                static_cast<double>(task.weights.shape.total()) / static_cast<double>(slot.out.c) +
                1;
            const double factor = rounding_factor(terms + 1) * (1.0 + rounding_factor(terms + 1));
            std::vector<double> bounds(count);
            for (size_t i = 0; i < count; ++i) {
                bounds[i] = factor * static_cast<double>(
                                         planes_element(runner.output(), static_cast<int64_t>(i)));
            }
            return bounds;
        }
    }
    // Element by element: a sum of the bottoms, an average over a window, a mix of four neighbours
    // with weights that add up to 1, all with few roundings of numbers not larger than these.
    double magnitude = largest_magnitude(task.top);
    for (const Mat& bottom : task.bottoms) magnitude += largest_magnitude(bottom);
    const double roundings = 8.0 +
                             static_cast<double>(slot.window.kernel_w) * slot.window.kernel_h +
                             static_cast<double>(task.bottoms.size());
    return std::vector<double>(count, rounding_factor(roundings) * magnitude);
}

Trial try_operator(const TarnoCPU::OperatorInfo& info, const LayerTask& task, Packing packing,
                   const std::vector<double>& bounds, const TrialMemory& memory) {
    Trial trial;
    trial.info = &info;
    trial.in = packing;
    trial.out = packing_behind(info, packing);

    std::vector<Mat> bottoms;
    for (const Mat& bottom : task.bottoms) {
        bottoms.push_back(packing == Packing::fours ? in_fours(bottom) : bottom);
    }
    Runner runner(info, task, std::move(bottoms), memory);
    if (!runner.ready()) {
        trial.rejection = "does not load";
        return trial;
    }
    double first = 0.0;
    const int result = runner.run(first);
    if (result != 0 && runner.out_of_memory()) {
        trial.rejection = "takes more memory than --memory-limit leaves";
        return trial;
    }
    if (result != 0) {
        trial.rejection = "does not run: result " + std::to_string(result);
        return trial;
    }
    const Mat& output = runner.output();
    const int channels = trial.out == Packing::fours ? 4 : 1;
    if (output.empty() || output.shape.c * channels != task.top.shape.c ||
        output.shape.h != task.top.shape.h || output.shape.w != task.top.shape.w * channels) {
        trial.rejection = "gives a tensor of another shape";
        return trial;
    }
    for (size_t i = 0; i < bounds.size(); ++i) {
        const double found = planes_element(output, static_cast<int64_t>(i));
        const double expected = planes_element(task.top, static_cast<int64_t>(i));
        // Also false for a NaN that only one of them has.
        const bool right = std::fabs(found - expected) <= 2.0 * bounds[i] ||
                           (std::isnan(found) && std::isnan(expected)) || found == expected;
        if (!right) {
            trial.rejection = "differs by " + fixed(std::fabs(found - expected), 9) +
                              " at number " + std::to_string(i) + ", rounding explains " +
                              fixed(2.0 * bounds[i], 9);
            return trial;
        }
    }
    // The fastest of several runs: what else the machine does only ever adds.
    constexpr double enough_ms = 4.0, most_ms = 200.0;
    constexpr int fewest = 5, most = 60;
    double total = 0.0;
    trial.milliseconds = first;
    for (int i = 0; i < most && (i < fewest || total < enough_ms) && total < most_ms; ++i) {
        double time = 0.0;
        // Pools may grow from run to run, up to their limit.
        if (runner.run(time) != 0) break;
        total += time;
        trial.milliseconds = std::min(trial.milliseconds, time);
    }
    return trial;
}

}  // namespace tool
