// Every shader generator on layers of real networks, and what a layer costs beside its shader.
//
// Each row sets up one generator on one layer and compares its output with the CPU engine's, which
// the default rule computes; then fifteen rounds in turns of the generator, a copy and the CPU.
// The row's time is the mean of the generator's rounds. Ratios are of the best round of each,
// because what else runs on the machine only ever adds.
//
// GPU times are GL timer queries. A driver whose queries leave dispatches out, as llvmpipe's do, is
// timed by the clock, from the first call to the end of glFinish; a context line says which.
//
//   best_us         of the generator, all its dispatches and their barriers
//   wall_us         the same by the clock
//   times_copy      times as long as a plain copy program over half of the layer's texels, of input
//                   and output together: it reads and writes as many as the layer has
//   cpu_us, of_cpu  the CPU engine's layer, one core; times as fast as that
//   madds_s         multiply-adds a second, those with zeros of padded channels included
//   madds, fetches, weights
//                   for each texel that is written, four channels, as designed: multiply-adds,
//                   texels read, 16-byte entries of the weight buffer read
//
// The driver is named in the context lines; where it is llvmpipe, shaders run on the processor's
// cores.
#include <benchmark/benchmark.h>
#include <GL/glew.h>
#include <modelkit/net_builder.h>
#include <tarno/cpu.h>
#include <tarno/gpu.h>
#include <tarno/log.h>
#include <tarno/model.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "gpu/opengl/glcnn/src/tesk/tricks/tricks_activation.h"
#include "gpu/opengl/glcnn/src/tesk/tricks/tricks_concat.h"
#include "gpu/opengl/glcnn/src/tesk/tricks/tricks_conv2d_1x1.h"
#include "gpu/opengl/glcnn/src/tesk/tricks/tricks_conv2d_kxk.h"
#include "gpu/opengl/glcnn/src/tesk/tricks/tricks_depthwise_conv2d_3x3.h"
#include "gpu/opengl/glcnn/src/tesk/tricks/tricks_depthwise_conv2d_3x3_4pointsout.h"
#include "gpu/opengl/glcnn/src/tesk/tricks/tricks_depthwise_conv2d_5x5.h"
#include "gpu/opengl/glcnn/src/tesk/tricks/tricks_elementwise_add_points.h"
#include "gpu/opengl/glcnn/src/tesk/tricks/tricks_elementwise_operator.h"
#include "gpu/opengl/glcnn/src/tesk/tricks/tricks_fullconnection.h"
#include "gpu/opengl/glcnn/src/tesk/tricks/tricks_group_conv2d_3x3_basic.h"
#include "gpu/opengl/glcnn/src/tesk/tricks/tricks_pixelshuffle.h"
#include "gpu/opengl/glcnn/src/tesk/tricks/tricks_pooling.h"
#include "gpu/opengl/glcnn/src/tesk/tricks/tricks_region2d.h"
#include "gpu/opengl/glcnn/src/tesk/tricks/tricks_tensorreshape.h"
#include "gpu/opengl/glcnn/src/tesk/tricks/tricks_tensorsqueeze.h"
#include "gpu/opengl/glcnn/src/tesk/tricks/tricks_transpose_conv2d.h"
#include "gpu/opengl/glcnn/src/tesk/tricks/tricks_upsampling.h"
#include "gpu/opengl/glcnn/src/tesk/tricks/tricks_upsampling_nearest.h"

namespace {

using namespace tesk;
using modelkit::NetBuilder;
using modelkit::Window;
using Clock = std::chrono::steady_clock;
using Images = std::vector<std::shared_ptr<Image>>;

constexpr int base = 256;
constexpr int rounds = 15;

double seconds_since(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

/// Whether the driver's timer queries see dispatches; `main` finds out.
bool queries_see_dispatches = false;

struct Seconds {
    double query = 0.0;
    double wall = 0.0;

    double gpu() const { return queries_see_dispatches ? query : wall; }
    void keep_less(const Seconds& other) {
        query = std::min(query, other.query);
        wall = std::min(wall, other.wall);
    }
};

constexpr Seconds never = {1e9, 1e9};

template <typename Work>
Seconds time_of(const Work& work) {
    GLuint query = 0;
    glGenQueries(1, &query);
    glFinish();
    const auto start = Clock::now();
    glBeginQuery(GL_TIME_ELAPSED, query);
    work();
    glEndQuery(GL_TIME_ELAPSED);
    glFinish();
    const double wall = seconds_since(start);
    GLuint64 nanoseconds = 0;
    glGetQueryObjectui64v(query, GL_QUERY_RESULT, &nanoseconds);
    glDeleteQueries(1, &query);
    return {static_cast<double>(nanoseconds) * 1e-9, wall};
}

// --- A layer on both engines ------------------------------------------------------------------

struct Size {
    int channels = 0;
    int height = 0;
    int width = 0;

    size_t slices() const { return static_cast<size_t>((channels + 3) / 4); }
    size_t plane() const { return static_cast<size_t>(height) * static_cast<size_t>(width); }
    size_t texels() const { return slices() * plane(); }
};

int scaled_input(NetBuilder& net, const Size& size) {
    return net.input(size.channels, static_cast<double>(size.width) / base,
                     static_cast<double>(size.height) / base);
}

/// Numbers of -1 to 1 that halves hold.
std::vector<float> numbers_of(const Size& size) {
    std::vector<float> values(static_cast<size_t>(size.channels) * size.plane());
    unsigned int state = 1;
    for (float& value : values) {
        state = state * 1664525u + 1013904223u;
        value = static_cast<float>(static_cast<int>(state >> 22) - 512) / 512.0f;
    }
    return values;
}

std::shared_ptr<Image> image_of(const Size& size, TexturePool& pool) {
    const auto image =
        std::make_shared<Image>(size.height, size.width, size.channels, GL_RGBA16F, &pool);
    image->addReadCount();
    image->texture();
    return image;
}

std::shared_ptr<Image> upload(const std::vector<float>& values, const Size& size,
                              TexturePool& pool) {
    std::vector<float> texels(size.texels() * 4);
    for (size_t c = 0; c < static_cast<size_t>(size.channels); ++c) {
        for (size_t i = 0; i < size.plane(); ++i)
            texels[(c / 4 * size.plane() + i) * 4 + c % 4] = values[c * size.plane() + i];
    }
    const std::shared_ptr<Image> image = image_of(size, pool);
    image->update(reinterpret_cast<const char*>(texels.data()), 0);
    return image;
}

/// The layer as a net of the CPU engine, by the default rule.
class CpuLayer {
public:
    CpuLayer(const NetBuilder& builder, const std::vector<Size>& sizes) {
        std::string path = (std::filesystem::temp_directory_path() / "tarno_layer_XXXXXX").string();
        const int descriptor = mkstemp(path.data());
        if (descriptor >= 0) close(descriptor);
        good = builder.save(path).ok() && loader.LoadFile(path.c_str(), false);
        std::filesystem::remove(path);
        if (good) net.load_tarno_net_with_inference_config(loader, nullptr);
        for (const Size& size : sizes) {
            std::vector<float> values = numbers_of(size);
            inputs.push_back(TarnoCPU::Mat::from_float_array(values.data(), size.width, size.height,
                                                             size.channels,
                                                             TarnoCPU::TensorShape::CHW, nullptr)
                                 .clone(nullptr));
        }
        good = good && seconds() > 0.0;
    }

    /// Of one run; 0 when the engine cannot run the layer.
    double seconds() {
        top = TarnoCPU::Mat();
        TarnoCPU::TarnoNetExtractor extractor = net.create_extractor();
        extractor.set_blob_allocator(&pool);
        extractor.set_workspace_allocator(&pool);
        for (size_t i = 0; i < inputs.size(); ++i) {
            if (extractor.input(static_cast<int>(i), inputs[i]) != 0) return 0.0;
        }
        const auto start = Clock::now();
        const int result = extractor.extract(extractor.get_last_layer_index(), top);
        return result == 0 ? seconds_since(start) : 0.0;
    }

    bool good = false;

    /// Numbers in the order of channels, rows, columns.
    std::vector<float> values() const {
        const TarnoCPU::TensorShape& shape = top.shape;
        const size_t lanes = shape.layout == TarnoCPU::TensorShape::C4HW4 ? 4 : 1;
        const size_t plane = static_cast<size_t>(shape.h) * static_cast<size_t>(shape.w) / lanes;
        std::vector<float> result(static_cast<size_t>(shape.c) * lanes * plane);
        for (size_t c = 0; c < static_cast<size_t>(shape.c) * lanes; ++c) {
            for (size_t i = 0; i < plane; ++i)
                result[c * plane + i] =
                    top.ptr<float>()[c / lanes * plane * lanes + i * lanes + c % lanes];
        }
        return result;
    }

private:
    ZQNetLoader loader;
    TarnoCPU::PoolAllocator pool;
    TarnoCPU::TarnoNet net;
    std::vector<TarnoCPU::Mat> inputs;
    TarnoCPU::Mat top;
};

/// Reads and writes `texels` texels each.
class Copy {
public:
    Copy(size_t texels, TexturePool& pool, ComputeProgramManager& manager)
        : size{4, static_cast<int>((texels + base - 1) / base), base},
          from(upload(numbers_of(size), size, pool)),
          to(image_of(size, pool)) {
        manager.addComputeProgramFromString(
            "#version 310 es\n"
            "layout(local_size_x = 8, local_size_y = 8, local_size_z = 1) in;\n"
            "uniform lowp sampler2D src;\n"
            "layout(rgba16f, binding = 1) writeonly uniform lowp image2D dst;\n"
            "void main() {\n"
            "ivec2 pos = ivec2(gl_GlobalInvocationID.xy);\n"
            "imageStore(dst, pos, texelFetch(src, pos, 0));\n"
            "}\n",
            "benchmark_copy");
        program = manager.getComputeProgram("benchmark_copy");
    }
    void run() {
        program->use();
        program->setUnifromTexture("src", 0, *from);
        program->bindImage(1, GL_WRITE_ONLY, *to);
        program->compute(base / 8, static_cast<unsigned int>(size.height + 7) / 8, 1);
    }

private:
    Size size;
    std::shared_ptr<Image> from;
    std::shared_ptr<Image> to;
    std::shared_ptr<ComputeProgram> program;
};

/// A copy of a million texels takes no driver less than a microsecond.
void try_queries() {
    TexturePool pool(0);
    ComputeProgramManager manager(0, "bench");
    {
        Copy copy(1 << 20, pool, manager);
        copy.run();
        queries_see_dispatches = time_of([&] { copy.run(); }).query > 1e-6;
    }
    manager.release();
    pool.release();
}

// --- Rows -------------------------------------------------------------------------------------

/// For each texel that is written.
struct Design {
    double madds = 0.0;
    double fetches = 0.0;
    double weights = 0.0;
    double written = 1.0;  ///< part of the output's texels
};

using Make = std::unique_ptr<Tricks> (*)(ComputeProgramManager* manager);

template <typename Generator>
std::unique_ptr<Tricks> make(ComputeProgramManager* manager) {
    return std::make_unique<Generator>(manager);
}

/// How far the engines may be apart, in parts of the largest value: a guard against timing a layer
/// that is wrong. The bounds of the tests are the proof.
constexpr double one_store = 0.01;
constexpr double many_stores = 0.05;  ///< partial sums of constant-index forms are rounded each
constexpr double unlike = 0.0;        ///< the engines do not mean this layer alike: timed alone
constexpr double absent = -1.0;       ///< the CPU engine has no such layer

struct Row {
    std::string name;
    Make make;
    std::vector<Size> inputs;
    Size output;
    /// Adds the layer behind the inputs, which are layers 0 and up.
    std::function<void(NetBuilder& net)> add;
    Design design;
    double tolerance = one_store;
    int ubo_slice_limit = 0;
};

class LayerBench {
public:
    explicit LayerBench(const Row& row)
        : row(row), manager(0, "bench"), pool(0), net(modelkit::ModelHeader(), 1) {
        manager.initOpenglParameters();
        manager.uboSliceLimit = row.ubo_slice_limit;
        for (const Size& size : row.inputs) {
            scaled_input(net, size);
            images.push_back(upload(numbers_of(size), size, pool));
        }
        row.add(net);
        if (row.tolerance != absent) cpu = std::make_unique<CpuLayer>(net, row.inputs);
        generator = row.make(&manager);
        generator->setup(net.record(net.count() - 1));
        output = image_of(row.output, pool);
        size_t texels = row.output.texels();
        for (const Size& size : row.inputs) texels += size.texels();
        copy = std::make_unique<Copy>((texels + 1) / 2, pool, manager);
    }
    ~LayerBench() {
        generator.reset();
        copy.reset();
        images.clear();
        output.reset();
        manager.release();
        pool.release();
    }
    LayerBench(const LayerBench&) = delete;
    LayerBench& operator=(const LayerBench&) = delete;

    void run(benchmark::State& state);

private:
    void compute() {
        if (images.size() == 1) {
            generator->compute(images[0].get(), output.get());
            return;
        }
        // A concatenation counts its inputs down.
        for (const std::shared_ptr<Image>& image : images) image->addReadCount();
        generator->compute(images, output.get());
    }
    bool on_cpu() const { return cpu != nullptr && cpu->good; }
    std::string fault();

    const Row& row;
    ComputeProgramManager manager;
    TexturePool pool;
    NetBuilder net;
    Images images;
    std::unique_ptr<CpuLayer> cpu;
    std::unique_ptr<Tricks> generator;
    std::shared_ptr<Image> output;
    std::unique_ptr<Copy> copy;
};

/// Empty when the generator has stored what the CPU engine has.
std::string LayerBench::fault() {
    compute();
    if (manager.setupCosts.programsMade == 0) return "no program";
    if (row.tolerance <= unlike) return "";
    if (!on_cpu()) return "the CPU engine does not run the layer";
    const std::vector<float> want = cpu->values();
    if (want.size() != static_cast<size_t>(row.output.channels) * row.output.plane()) {
        return "the CPU engine's output has " + std::to_string(want.size()) + " numbers";
    }
    double largest = 0.0, worst = 0.0;
    std::vector<float> texels(row.output.plane() * 4);
    for (size_t c = 0; c < static_cast<size_t>(row.output.channels); ++c) {
        if (c % 4 == 0) output->copyTexToMemry(texels.data(), static_cast<int>(c / 4));
        for (size_t i = 0; i < row.output.plane(); ++i) {
            const double value = want[c * row.output.plane() + i];
            const double off = std::fabs(double{texels[i * 4 + c % 4]} - value);
            largest = std::max(largest, std::fabs(value));
            worst = std::max(worst, std::isnan(off) ? HUGE_VAL : off);
        }
    }
    if (worst <= row.tolerance * largest) return "";
    return "off the CPU engine's output by " + std::to_string(worst) + ", the largest value is " +
           std::to_string(largest);
}

void LayerBench::run(benchmark::State& state) {
    const std::string text = fault();
    if (!text.empty()) {
        state.SkipWithError(text.c_str());
        return;
    }
    Seconds best = never, best_copy = never;
    double best_cpu = 1e9;
    for (auto _ : state) {
        const Seconds seconds = time_of([&] { compute(); });
        state.SetIterationTime(seconds.gpu());
        best.keep_less(seconds);
        best_copy.keep_less(time_of([&] { copy->run(); }));
        if (on_cpu()) best_cpu = std::min(best_cpu, cpu->seconds());
    }
    state.counters["best_us"] = 1e6 * best.gpu();
    state.counters["wall_us"] = 1e6 * best.wall;
    state.counters["times_copy"] = best.gpu() / best_copy.gpu();
    if (on_cpu()) {
        state.counters["cpu_us"] = 1e6 * best_cpu;
        state.counters["of_cpu"] = best_cpu / best.gpu();
    }
    if (row.design.madds > 0.0) {
        state.counters["madds_s"] = row.design.madds * row.design.written *
                                    static_cast<double>(row.output.texels()) / best.gpu();
    }
    state.counters["madds"] = row.design.madds;
    state.counters["fetches"] = row.design.fetches;
    state.counters["weights"] = row.design.weights;
}

std::string text_of(const Size& size) {
    return std::to_string(size.channels) + "x" + std::to_string(size.height) + "x" +
           std::to_string(size.width);
}

class Rows {
public:
    std::vector<Row> list;

    void add(const std::string& form, Make generator, std::vector<Size> inputs, const Size& output,
             std::function<void(NetBuilder&)> layer, const Design& design,
             double tolerance = one_store, int ubo_slice_limit = 0) {
        std::string name = form;
        for (const Size& size : inputs) name += "/" + text_of(size);
        list.push_back({name + "/to_" + text_of(output), generator, std::move(inputs), output,
                        std::move(layer), design, tolerance, ubo_slice_limit});
    }

    /// A convolution whose invocations make `pixels` pixels of `slices` slices.
    void conv(const std::string& form, Make generator, const Size& in, const Size& out,
              const Window& window, int pixels, int slices, int ubo_slice_limit = 0) {
        const double blocks = window.kernel_w * window.kernel_h * static_cast<double>(in.slices());
        add(
            form, generator, {in}, out,
            [=](NetBuilder& net) { net.conv(0, out.channels, window, ActivationType_ReLU); },
            {16.0 * blocks, blocks / slices, 2.0 * blocks / pixels}, one_store, ubo_slice_limit);
    }
    /// One in constant-index form: each input slice is a dispatch that reads the output back.
    void conv_ci(const std::string& form, Make generator, const Size& in, const Size& out,
                 const Window& window) {
        const double blocks = window.kernel_w * window.kernel_h * static_cast<double>(in.slices());
        add(
            form, generator, {in}, out,
            [=](NetBuilder& net) { net.conv(0, out.channels, window, ActivationType_ReLU); },
            {16.0 * blocks, blocks / at_once(out) + static_cast<double>(in.slices()) + 1.0,
             4.0 * blocks},
            many_stores);
    }
    static double at_once(const Size& out) {
        const size_t slices = out.slices();
        return slices % 4 == 0 ? 4.0 : slices % 3 == 0 ? 3.0 : slices % 2 == 0 ? 2.0 : 1.0;
    }

    void depthwise(const std::string& form, Make generator, const Size& in, const Size& out,
                   const Window& window, double fetches, double weights) {
        add(form, generator, {in}, out,
            [=](NetBuilder& net) { net.depthwise(0, window, ActivationType_ReLU); },
            {4.0 * window.kernel_w * window.kernel_h, fetches, weights});
    }

    /// `outputs` texels for each invocation, which reads `window_texels` of each input slice.
    void transpose(const std::string& form, Make generator, bool constant_index,
                   const Window& window, double outputs, double window_texels, double tolerance) {
        const Size in = {64, 32, 32}, out = {32, 64, 64};
        const double slices = static_cast<double>(in.slices());
        const double blocks = window.kernel_w * window.kernel_h * slices / outputs;
        const double fetches = window_texels * slices / outputs;
        const double written = outputs / 4.0;  // of two by two for each input pixel
        add(
            form, generator, {in}, out,
            [=](NetBuilder& net) {
                net.deconvolution(0, out.channels, window, ActivationType_ReLU);
            },
            constant_index ? Design{16.0 * blocks, fetches / at_once(out) + slices + 1.0,
                                    4.0 * blocks, written}
                           : Design{16.0 * blocks, fetches, 2.0 * blocks, written},
            tolerance);
    }

    void eltwise(const std::string& form, Make generator, size_t count, int operation) {
        const Size size = {64, 64, 64};
        add(form, generator, std::vector<Size>(count, size), size,
            [=](NetBuilder& net) {
                std::vector<int> bottoms;
                for (size_t i = 0; i < count; ++i) bottoms.push_back(static_cast<int>(i));
                net.eltwise(bottoms, operation, ActivationType_ReLU);
            },
            {0.0, static_cast<double>(count), 0.0});
    }

    void concat(std::vector<Size> inputs) {
        Size out = inputs[0];
        for (size_t i = 1; i < inputs.size(); ++i) out.channels += inputs[i].channels;
        const int count = static_cast<int>(inputs.size());
        add("Concat", make<Tricks_Concat>, std::move(inputs), out,
            [=](NetBuilder& net) {
                std::vector<int> bottoms;
                for (int i = 0; i < count; ++i) bottoms.push_back(i);
                net.concat(bottoms);
            },
            {0.0, 1.0, 0.0});
    }

    void pool(const std::string& form, Make generator, int type, const Size& in, const Size& out,
              int kernel, int stride) {
        add(form, generator, {in}, out,
            [=](NetBuilder& net) { net.pooling(0, type, kernel, stride); },
            {0.0, static_cast<double>(kernel) * kernel, 0.0});
    }
};

void add_pointwise(Rows& rows) {
    const Window window = Window::square(1, 1, 0);
    const Size layers[][2] = {{{64, 64, 64}, {32, 64, 64}}, {{512, 7, 7}, {512, 7, 7}}};
    for (const auto& [in, out] : layers) {
        rows.conv("1x1_Basic", make<Tricks_Conv2d_1x1_Basic>, in, out, window, 1, 1);
        rows.conv("1x1_4PointsOut", make<Tricks_Conv2d_1x1_4PointsOut>, in, out, window, 4, 1);
        rows.conv("1x1_4Points_2Slice", make<Tricks_Conv2d_1x1_4Points_2Slice>, in, out, window, 4,
                  2);
        rows.conv("1x1_4Points_4Slice", make<Tricks_Conv2d_1x1_4Points_4Slice>, in, out, window, 4,
                  4);
        rows.conv_ci("1x1_CI", make<Tricks_Conv2d_1x1_CI>, in, out, window);
    }
    rows.conv("1x1_Basic_uniform", make<Tricks_Conv2d_1x1_Basic>, {64, 64, 64}, {32, 64, 64},
              window, 1, 1, 4);
}

void add_windows(Rows& rows) {
    const Size first = {3, 256, 256}, first_out = {16, 128, 128};
    const Size middle = {64, 56, 56};
    const Window three = Window::square(3, 1, 1);
    rows.conv("3x3_Basic", make<Tricks_Conv2d_3x3_Basic>, first, first_out, Window::square(3, 2, 1),
              1, 1);
    rows.conv_ci("3x3_CI", make<Tricks_Conv2d_3x3_CI>, first, first_out, Window::square(3, 2, 1));
    rows.conv("3x3_Basic", make<Tricks_Conv2d_3x3_Basic>, middle, middle, three, 1, 1);
    rows.conv("3x3_Basic_uniform", make<Tricks_Conv2d_3x3_Basic>, middle, middle, three, 1, 1, 4);
    rows.conv_ci("3x3_CI", make<Tricks_Conv2d_3x3_CI>, middle, middle, three);
    rows.conv("3x3_Basic", make<Tricks_Conv2d_3x3_Basic>, {16, 256, 256}, {1, 256, 256}, three, 1,
              1);
    rows.conv("4x4_Basic", make<Tricks_Conv2d_4x4_Basic>, {16, 64, 64}, {32, 32, 32},
              Window::square(4, 2, 1), 1, 1);

    struct Line {
        const char* name;
        Make basic;
        Make constant_index;
        Window window;
        Size size;
    };
    const Size wide = {64, 28, 28}, deep = {128, 17, 17}, small = {32, 28, 28};
    const Line lines[] = {
        {"1x3", make<Tricks_Conv2d_1x3_Basic>, make<Tricks_Conv2d_1x3_CI>, {3, 1, 1, 0}, wide},
        {"3x1", make<Tricks_Conv2d_3x1_Basic>, make<Tricks_Conv2d_3x1_CI>, {1, 3, 0, 1}, wide},
        {"1x5", make<Tricks_Conv2d_1x5_Basic>, make<Tricks_Conv2d_1x5_CI>, {5, 1, 2, 0}, wide},
        {"5x1", make<Tricks_Conv2d_5x1_Basic>, make<Tricks_Conv2d_5x1_CI>, {1, 5, 0, 2}, wide},
        {"1x7", make<Tricks_Conv2d_1x7_Basic>, make<Tricks_Conv2d_1x7_CI>, {7, 1, 3, 0}, deep},
        {"7x1", make<Tricks_Conv2d_7x1_Basic>, make<Tricks_Conv2d_7x1_CI>, {1, 7, 0, 3}, deep},
        {"5x5", make<Tricks_Conv2d_5x5_Basic>, make<Tricks_Conv2d_5x5_CI>, {5, 5, 2, 2}, small}};
    for (const Line& line : lines) {
        const std::string name = line.name;
        rows.conv(name + "_Basic", line.basic, line.size, line.size, line.window, 1, 1);
        rows.conv_ci(name + "_CI", line.constant_index, line.size, line.size, line.window);
    }
}

void add_depthwise(Rows& rows) {
    const Size size = {64, 64, 64}, half = {64, 32, 32};
    const Window one = Window::square(3, 1, 1), two = Window::square(3, 2, 1);
    rows.depthwise("depthwise_3x3", make<Tricks_Depthwise_Conv2d_3x3>, size, size, one, 9.0, 9.0);
    rows.depthwise("depthwise_3x3_4PointsOut", make<Tricks_Depthwise_conv2d_3x3_4PointsOut>, size,
                   size, one, 4.0, 9.0 / 4.0);
    // Entries of eight bytes.
    rows.depthwise("depthwise_3x3_4PointsOut_Uvec2",
                   make<Tricks_DepthWise_conv2d_3x3_4PointsOut_WeightBiasAccessWithUvec2>, size,
                   size, one, 4.0, 9.0 / 8.0);
    rows.depthwise("depthwise_3x3_stride_2", make<Tricks_Depthwise_Conv2d_3x3>, size, half, two,
                   9.0, 9.0);
    rows.depthwise("depthwise_5x5", make<Tricks_Depthwise_Conv2d_5x5>, half, half,
                   Window::square(5, 1, 2), 25.0, 25.0);
    const Size grouped = {128, 28, 28};
    rows.add(
        "group_3x3", make<Tricks_Group_Conv2d_3x3_Basic>, {grouped}, grouped,
        [=](NetBuilder& net) {
            net.conv(0, grouped.channels, Window::square(3, 1, 1), ActivationType_ReLU,
                     grouped.channels / 4);
        },
        {16.0 * 9.0, 9.0, 18.0}, unlike);
}

void add_transposed(Rows& rows) {
    const Window three = Window::square(3, 2, 1), two = Window::square(2, 2, 0);
    const Window seven = {7, 1, 3, 0, 2, 2};
    rows.transpose("transpose_3x3_Basic", make<Tricks_Transpose_Conv2d_3x3_Basic>, false, three,
                   4.0, 4.0, one_store);
    rows.transpose("transpose_3x3_CI", make<Tricks_Transpose_Conv2d_3x3_CI>, true, three, 4.0, 4.0,
                   many_stores);
    rows.transpose("transpose_2x2_Basic", make<Tricks_Transpose_Conv2d_2x2_Basic>, false, two, 4.0,
                   1.0, unlike);
    rows.transpose("transpose_2x2_CI", make<Tricks_Transpose_Conv2d_2x2_CI>, true, two, 4.0, 1.0,
                   unlike);
    rows.transpose("transpose_1x7_Basic", make<Tricks_Transpose_Conv2d_1x7_Basic>, false, seven,
                   2.0, 4.0, unlike);
    rows.transpose("transpose_1x7_CI", make<Tricks_Transpose_Conv2d_1x7_CI>, true, seven, 2.0, 4.0,
                   unlike);
}

void add_elements(Rows& rows) {
    rows.eltwise("Add", make<Tricks_ElementWise_Add>, 2, 0);
    rows.eltwise("Add_1Points_2Slice", make<Tricks_ElementWise_Add_1Points_2Slice>, 2, 0);
    rows.eltwise("Add_4Points_1Slice", make<Tricks_ElementWise_Add_4Points_1Slice>, 2, 0);
    rows.eltwise("Add_4Points_2Slice", make<Tricks_ElementWise_Add_4Points_2Slice>, 2, 0);
    rows.eltwise("Add", make<Tricks_ElementWise_Add>, 3, 0);
    rows.eltwise("Mul", make<Tricks_ElementWise_Mul>, 2, 2);
    rows.concat({{64, 32, 32}, {64, 32, 32}});
    rows.concat({{64, 32, 32}, {32, 32, 32}, {32, 32, 32}});
    rows.concat({{32, 32, 32}, {32, 32, 32}, {32, 32, 32}, {16, 32, 32}, {16, 32, 32}});
    const Size size = {64, 64, 64}, mask = {1, 256, 256};
    rows.add("Activation_ReLU", make<Tricks_Activation>, {size}, size,
             [](NetBuilder& net) { net.activation(0, ActivationType_ReLU); }, {0.0, 1.0, 0.0});
    rows.add("Activation_Sigmoid", make<Tricks_Activation>, {mask}, mask,
             [](NetBuilder& net) { net.activation(0, ActivationType_Sigmoid); }, {0.0, 1.0, 0.0});
}

void add_sizes(Rows& rows) {
    const Size size = {64, 64, 64}, half = {64, 32, 32};
    rows.pool("Pooling_Max_2x2", make<Tricks_Pooling_Max>, 1, size, half, 2, 2);
    rows.pool("Pooling_Max_3x3", make<Tricks_Pooling_Max>, 1, {64, 65, 65}, half, 3, 2);
    rows.pool("Pooling_Avg_2x2", make<Tricks_Pooling_Avg>, 0, size, half, 2, 2);
    rows.pool("Pooling_Avg_7x7", make<Tricks_Pooling_Avg>, 0, {512, 7, 7}, {512, 1, 1}, 7, 1);
    rows.add("PixelShuffle_Up", make<Tricks_PixelShuffle_UpSampling>, {size}, {16, 128, 128},
             [](NetBuilder& net) { net.pixel_shuffle(0, 2.0); }, {0.0, 1.0, 0.0});
    rows.add("PixelShuffle_Down", make<Tricks_PixelShuffle_DownSampling>, {{16, 128, 128}}, size,
             [](NetBuilder& net) { net.pixel_shuffle(0, 0.5); }, {0.0, 1.0, 0.0});
    const Size wide = {32, 128, 128};
    rows.add("UpSampling", make<Tricks_UpSampling>, {{32, 64, 64}}, wide,
             [](NetBuilder& net) { net.upsampling(0, 2.0, 1); }, {24.0, 4.0, 0.0});
    rows.add("UpSampling_Nearest", make<Tricks_UpSampling_Nearest>, {{32, 64, 64}}, wide,
             [](NetBuilder& net) { net.upsampling(0, 2.0, 0); }, {0.0, 0.25, 0.0});
    // The decoded values stand side by side.
    rows.add(
        "Region2D", make<Tricks_Region2D>, {{125, 13, 13}}, {4, 13, 32 * 13},
        [](NetBuilder& net) { net.region(0, 5, 4, 20); }, {0.0, 1.0, 0.0}, unlike);
    const Size map = {64, 7, 7};
    rows.add("TensorReshape", make<Tricks_TensorReshape>, {map}, {64 * 49, 1, 1},
             [=](NetBuilder& net) {
                 auto& record = static_cast<ZQLayerInfo_TensorReshape&>(
                     *net.record(net.reshape(0, {1, 64 * 49})));
                 record.in_tensors[0].rank = 3;
                 record.in_tensors[0].dims[0] = 64;
                 record.in_tensors[0].dims[1] = record.in_tensors[0].dims[2] = 7;
             },
             {0.0, 1.0, 0.0});
    rows.add(
        "TensorSqueeze", make<Tricks_TensorSqueeze>, {{4, 256, 256}}, {4, 256, 256},
        [](NetBuilder& net) {
            auto& record = static_cast<ZQLayerInfo_TensorSqueeze&>(
                *net.record(net.squeeze(0, 0, {4, 256, 256})));
            record.in_tensors[0] = record.out_tensor;
        },
        {0.0, 1.0, 0.0}, absent);
    rows.add("FullConnection", make<Tricks_FullConnection>, {{1024, 1, 1}}, {1000, 1, 1},
             [](NetBuilder& net) { net.fully_connected(0, 1024, 1000); },
             {16.0 * 256.0, 256.0, 2.0 * 256.0});
}

// --- What a layer costs beside its shader -----------------------------------------------------

/// The way to an operator and its generator, without one GL call.
void stand(benchmark::State& state) {
    ComputeProgramManager manager(0, "bench");
    BenchmarkNet net;
    constexpr int layers = 100;
    for (int i = 0; i < layers; ++i) net.setupNet(nullptr, &manager);
    double best = 1e9;
    for (auto _ : state) {
        const auto start = Clock::now();
        net.forward();
        const double seconds = seconds_since(start) / layers;
        state.SetIterationTime(seconds);
        best = std::min(best, seconds);
    }
    state.counters["best_us"] = 1e6 * best;
}

/// Layers of one pixel one behind the other through a net, by the clock, beside the bare GL calls
/// of one such layer: program, sampler, image, dispatch, barrier.
void chain(benchmark::State& state, bool convolution) {
    constexpr int layers = 100;
    NetBuilder builder;
    int at = scaled_input(builder, {4, 1, 1});
    for (int i = 0; i < layers; ++i) {
        at = convolution ? builder.conv(at, 4, 1, 1, 0)
                         : builder.activation(at, ActivationType_ReLU);
    }
    std::string path = (std::filesystem::temp_directory_path() / "tarno_chain_XXXXXX").string();
    const int descriptor = mkstemp(path.data());
    if (descriptor >= 0) close(descriptor);
    ComputeProgramManager manager(0, "bench");
    manager.initOpenglParameters();
    TexturePool pool(0);
    {
        Net net;
        const bool good = builder.save(path).ok() && net.loadFromFile(path, &pool, &manager);
        std::filesystem::remove(path);
        if (!good) {
            state.SkipWithError("the net");
            return;
        }
        Images images = {upload(numbers_of({4, 1, 1}), {4, 1, 1}, pool)};
        const auto run = [&] {
            images[0]->addReadCount();
            net.setInputs(images);
            net.forward();
            glFinish();
        };
        run();

        // The net's own program, over other textures.
        GLint program = 0;
        glGetIntegerv(GL_CURRENT_PROGRAM, &program);
        const GLint place = glGetUniformLocation(static_cast<GLuint>(program), "src");
        const std::shared_ptr<Image> from = image_of({4, 1, 1}, pool);
        const std::shared_ptr<Image> to = image_of({4, 1, 1}, pool);
        const auto bare = [&] {
            for (int i = 0; i < layers; ++i) {
                glUseProgram(static_cast<GLuint>(program));
                glActiveTexture(GL_TEXTURE0);
                glBindTexture(GL_TEXTURE_2D, from->texture());
                glUniform1i(place, 0);
                glBindImageTexture(1, to->texture(), 0, GL_TRUE, 0, GL_WRITE_ONLY, GL_RGBA16F);
                glDispatchCompute(1, 1, 1);
                glMemoryBarrier(GL_ALL_BARRIER_BITS);
            }
            glFinish();
        };
        bare();
        double best = 1e9, best_bare = 1e9;
        for (auto _ : state) {
            auto start = Clock::now();
            run();
            const double seconds = seconds_since(start) / layers;
            state.SetIterationTime(seconds);
            best = std::min(best, seconds);
            start = Clock::now();
            bare();
            best_bare = std::min(best_bare, seconds_since(start) / layers);
        }
        state.counters["best_us"] = 1e6 * best;
        state.counters["bare_us"] = 1e6 * best_bare;
        state.counters["times_bare"] = best / best_bare;
    }
    manager.release();
    pool.release();
}

}  // namespace

int main(int argc, char** argv) {
    Tarno::SetLogLevel(Tarno::LogLevel::Error);
    unsigned int id = 0;
    if (tesk_Init(&id) != TN_Result_Success) {
        std::fprintf(stderr, "gpu_generators: expected a context with OpenGL 4.3, found none\n");
        return 1;
    }
    benchmark::AddCustomContext("gl_renderer",
                                reinterpret_cast<const char*>(glGetString(GL_RENDERER)));
    benchmark::AddCustomContext("gl_version",
                                reinterpret_cast<const char*>(glGetString(GL_VERSION)));
    try_queries();
    benchmark::AddCustomContext("gpu_times",
                                queries_see_dispatches ? "timer queries" : "clock and glFinish");
    Rows rows;
    add_pointwise(rows);
    add_windows(rows);
    add_depthwise(rows);
    add_transposed(rows);
    add_elements(rows);
    add_sizes(rows);
    for (const Row& row : rows.list) {
        benchmark::RegisterBenchmark(
            row.name.c_str(), [&row](benchmark::State& state) { LayerBench(row).run(state); })
            ->UseManualTime()
            ->Unit(benchmark::kMicrosecond)
            ->Iterations(rounds);
    }
    using Overhead = void (*)(benchmark::State&);
    const std::pair<const char*, Overhead> overheads[] = {
        {"overhead/empty_operator", stand},
        {"overhead/activation_of_one_pixel", [](benchmark::State& state) { chain(state, false); }},
        {"overhead/convolution_of_one_pixel", [](benchmark::State& state) { chain(state, true); }}};
    for (const auto& [name, run] : overheads) {
        // A run is a hundred layers, of which the manual time is one.
        benchmark::RegisterBenchmark(name, run)
            ->UseManualTime()
            ->Unit(benchmark::kMicrosecond)
            ->Iterations(200);
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
    benchmark::RunSpecifiedBenchmarks();
    tesk_UnInit(id);
    return 0;
}
