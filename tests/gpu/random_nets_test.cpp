// Networks of random layers, sizes and connections on both engines. They are built from what both
// run alike: see unlike_reason for what they don't.
#include <gtest/gtest.h>
#include <modelkit/net_builder.h>

#include <algorithm>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "support/both_engines.h"
#include "support/gl_fixture.h"
#include "support/gpu_dispatches.h"
#include "support/temporary_file.h"

namespace {

using modelkit::NetBuilder;
using modelkit::Window;
using testing_support::DispatchRecorder;
using testing_support::EnginePairs;
using testing_support::GpuTest;
using testing_support::TemporaryFile;

constexpr int groups = 32;
constexpr int groups_of_small_blocks = 16;
constexpr int nets_of_a_group = 10;
constexpr int largest_side = 40;
constexpr int most_channels = 24;

/// How a net's weights go to the GPU.
struct Way {
    const char* name;
    tool::GpuOptions gpu;
    int block_bytes = 0;  ///< the largest uniform block; 0: what the driver has

    /// Uniform blocks that cannot hold the weights of a middling layer.
    bool splits() const { return block_bytes > 0 && gpu.ubo_slice_limit > 0; }
};

class RandomNet {
public:
    RandomNet(unsigned int seed, const Way& way, bool shuffles)
        : generator(seed), gpu(way.gpu), shuffles(shuffles), net(header(), seed) {
        if (way.splits()) {
            begin_with_split_weights();
        } else {
            features.push_back(net.input(pick({1, 2, 3, 4, 5, 8, 9})));
        }
        const int layers = net.count() + 3 + below(8);
        for (int tries = 0; net.count() <= layers && tries < 200; ++tries) add();
        // Few features are of a shape for it, so that one is looked for at the end.
        const int before = net.count();
        for (size_t i = features.size(); shuffles && i > 0 && net.count() == before; --i)
            pixel_shuffle(features[i - 1]);
    }

    NetBuilder& builder() { return net; }
    /// A layer whose weights are certain to be split; -1 without one.
    int split_layer() const { return split; }
    unsigned int base_w() const { return base.base_w; }
    unsigned int base_h() const { return base.base_h; }

private:
    /// Powers of two, so that every relative size comes out whole.
    const modelkit::ModelHeader& header() {
        base.base_w = static_cast<unsigned int>(pick({8, 16, 32}));
        base.base_h = static_cast<unsigned int>(pick({8, 16, 32}));
        return base;
    }

    int below(int count) {
        return static_cast<int>(generator() % static_cast<unsigned int>(count));
    }
    int pick(const std::vector<int>& choices) {
        return choices[static_cast<size_t>(below(static_cast<int>(choices.size())))];
    }
    int channels() { return pick({1, 2, 3, 4, 5, 6, 7, 8, 9, 12, 16, 20}); }
    NetBuilder::Size size(int id) const { return net.size(id); }

    /// Layers of 16 channels. In mode 0 the first one's weights, at constant indices, go into a
    /// buffer for each input slice, and the second one's half weights into two blocks; else the
    /// first one's go into two or four.
    void begin_with_split_weights() {
        features.push_back(net.input(pick({5, 8, 9})));
        features.push_back(split = net.conv(features.back(), 16, 3, 1, 1, pick({0, 2, 6})));
        if (gpu.tricks_mode == 0) features.push_back(split = net.conv(split, 16, 1, 1, 0, 2));
    }

    void add() {
        // The newest feature mostly, so that nets are deep; branches start at older ones.
        const int last = static_cast<int>(features.size()) - 1;
        const int bottom = features[static_cast<size_t>(below(3) != 0 ? last : below(last + 1))];
        const int before = net.count();
        switch (below(16)) {
            case 0:
            case 1:
            case 2:
                convolution(bottom);
                break;
            case 3:
                pointwise(bottom, channels());
                break;
            case 4:
            case 5:
                depthwise(bottom);
                break;
            case 6:
                transposed(bottom);
                break;
            case 7:
                pooling(bottom);
                break;
            case 8:
            case 9:
                element_wise(bottom);
                break;
            case 10:
            case 11:
                concat(bottom);
                break;
            case 12:
            case 13:
                upsampling(bottom);
                break;
            case 14:
                pixel_shuffle(bottom);
                break;
            default:
                net.activation(bottom, pick({2, 4, 8}));
                break;
        }
        for (int id = before; id < net.count(); ++id) features.push_back(id);
    }

    void convolution(int bottom) {
        const NetBuilder::Size in = size(bottom);
        struct Kernel {
            int w, h;
        };
        static const std::vector<Kernel> kernels = {{3, 3}, {3, 1}, {1, 3}, {5, 1}, {1, 5},
                                                    {5, 5}, {7, 1}, {1, 7}, {3, 3}, {4, 4}};
        const Kernel kernel = kernels[static_cast<size_t>(below(static_cast<int>(kernels.size())))];
        Window window;
        window.kernel_w = kernel.w;
        window.kernel_h = kernel.h;
        if (kernel.w == 4) {
            if (in.width < 4 || in.height < 4) return;
            window.pad_w = window.pad_h = 1;
            window.stride_w = window.stride_h = 2;
        } else {
            window.pad_w = kernel.w / 2;
            window.pad_h = kernel.h / 2;
            window.stride_w = in.width >= 2 ? pick({1, 1, 2}) : 1;
            window.stride_h = in.height >= 2 ? pick({1, 1, 2}) : 1;
            const bool square = kernel.w == 3 && kernel.h == 3;
            if (square && below(4) == 0) {
                window.dilation_w = window.dilation_h = 2;
                window.pad_w = window.pad_h = 2;
                window.stride_w = window.stride_h = 1;
            } else if (square && below(4) == 0 && in.width > 2 && in.height > 2) {
                window.pad_w = window.pad_h = 0;
                window.stride_w = window.stride_h = 1;
            }
        }
        net.conv(bottom, channels(), window, pick({0, 2, 3, 4, 6, 8}));
    }

    int pointwise(int bottom, int out) {
        const NetBuilder::Size in = size(bottom);
        const bool even = in.width % 2 == 0 && in.height % 2 == 0;
        const int stride = even && out == 0 ? 2 : 1;
        // The four-point forms of mode 0 have no leaky ReLU, that of one slice no ReLU6 either.
        const int activation = gpu.tricks_mode != 0 ? pick({0, 2, 3, 4, 6, 8})
                               : out > 4            ? pick({0, 2, 3, 4, 8})
                                                    : pick({0, 2, 3, 4});
        return net.conv(bottom, out == 0 ? 1 : out, 1, stride, 0, activation);
    }

    void depthwise(int bottom) {
        const NetBuilder::Size in = size(bottom);
        const int kernel = pick({3, 3, 5});
        Window window = Window::square(kernel, 1, kernel / 2);
        window.stride_w = in.width >= 2 ? pick({1, 1, 2}) : 1;
        window.stride_h = window.stride_w == 2 && in.height >= 2 ? pick({1, 2}) : 1;
        net.depthwise(bottom, window, pick({0, 2, 8}));
    }

    void transposed(int bottom) {
        const NetBuilder::Size in = size(bottom);
        if (2 * in.width > largest_side || 2 * in.height > largest_side) return;
        net.deconvolution(bottom, channels(), 3, 2, 1, pick({0, 2, 3, 4, 8}));
    }

    void pooling(int bottom) {
        const NetBuilder::Size in = size(bottom);
        const int smaller = std::min(in.width, in.height);
        if (below(2) == 0) {
            const int kernel = pick({2, 3});
            if (smaller < kernel) return;
            // Programs go by names without the padding: one for each stride.
            const int stride = pick({1, 2});
            net.pooling(bottom, 1, kernel, stride, kernel == 3 && stride == 1 ? 1 : 0);
        } else {
            const int kernel = pick({2, 3, 4});
            if (smaller < kernel) return;
            net.pooling(bottom, 0, kernel, pick({1, 2}));
        }
    }

    /// Features of the same width and height, of the same channels too where `all`.
    std::vector<int> like(int bottom, bool all) const {
        std::vector<int> found;
        const NetBuilder::Size wanted = size(bottom);
        for (const int id : features) {
            const NetBuilder::Size each = size(id);
            const bool fits = each.width == wanted.width && each.height == wanted.height &&
                              (!all || each.channels == wanted.channels);
            if (fits && id != bottom) found.push_back(id);
        }
        return found;
    }

    void element_wise(int bottom) {
        std::vector<int> others = like(bottom, true);
        while (others.size() < 2) others.push_back(pointwise(bottom, size(bottom).channels));
        std::shuffle(others.begin(), others.end(), generator);
        const int activation = pick({0, 2, 8});
        switch (below(3)) {
            case 0:
                net.eltwise({bottom, others[0]}, 2, activation);
                break;
            case 1:
                net.eltwise({bottom, others[0], others[1]}, 0, activation);
                break;
            default:
                net.eltwise({bottom, others[0]}, 0, activation);
                break;
        }
    }

    void concat(int bottom) {
        const size_t count = static_cast<size_t>(pick({2, 2, 3, 5}));
        std::vector<int> others = like(bottom, false);
        std::shuffle(others.begin(), others.end(), generator);
        // Whole slices are moved: all but the last have channels in fours.
        std::vector<int> bottoms;
        int sum = 0;
        for (const int id : others) {
            if (bottoms.size() + 1 < count && size(id).channels % 4 == 0 &&
                sum + size(id).channels <= most_channels) {
                bottoms.push_back(id);
                sum += size(id).channels;
            }
        }
        while (bottoms.size() + 1 < count) bottoms.push_back(pointwise(bottom, 4));
        bottoms.push_back(bottom);
        net.concat(bottoms);
    }

    void upsampling(int bottom) {
        const NetBuilder::Size in = size(bottom);
        const int factor = pick({2, 2, 4});
        if (factor * in.width > largest_side || factor * in.height > largest_side) return;
        const int mode = below(2);
        net.upsampling(bottom, factor, mode, mode == 1 && factor == 4 ? 1 : below(2));
    }

    void pixel_shuffle(int bottom) {
        const NetBuilder::Size in = size(bottom);
        const bool fits = 2 * in.width <= largest_side && 2 * in.height <= largest_side;
        if (!shuffles) return;
        if (in.channels % 4 == 0 && fits) {
            net.pixel_shuffle(bottom, 2.0);
        } else if (in.width % 2 == 0 && in.height % 2 == 0 && 4 * in.channels <= most_channels) {
            net.pixel_shuffle(bottom, 0.5);
        }
    }

    std::mt19937 generator;
    const tool::GpuOptions& gpu;
    bool shuffles;
    modelkit::ModelHeader base;
    NetBuilder net;
    std::vector<int> features;
    int split = -1;
};

/// The nets of one group of the suite, and whether they have pixel shuffles: these take programs of
/// the built-in catalogue, which is long in the making.
struct Draw {
    unsigned int seed;
    Way way;
    bool shuffles;
};

/// Each way to the weights has its nets.
std::vector<Draw> draws_of(int group) {
    std::vector<Draw> draws;
    const bool small_blocks = group >= groups;
    for (int i = 0; i < nets_of_a_group; ++i) {
        const unsigned int seed = static_cast<unsigned int>(group * nets_of_a_group + i + 1);
        static const Way small[] = {
            {"two blocks", {4, 2}, 2048},        {"four blocks", {4, 4}, 1024},
            {"two blocks, mode 0", {0, 2}, 256}, {"four blocks, mode 0", {0, 4}, 256},
            {"storage buffers", {4, 0}, 1024},
        };
        static const Way large[] = {
            {"storage buffers", {4, 0}},
            {"storage buffers, mode 0", {0, 0}},
            {"one block", {4, 4}},
            {"one block, mode 0", {0, 4}},
        };
        const Way& way = small_blocks ? small[seed % 5]
                                      : large[(seed % 3 == 0 ? 1 : 0) + (seed % 4 == 0 ? 2 : 0)];
        draws.push_back({seed, way, group % 4 == 0});
    }
    return draws;
}

class RandomNets : public GpuTest, public testing::WithParamInterface<int> {
protected:
    void SetUp() override {
        GpuTest::SetUp();
        driver_block_bytes = manager.maxUniformBlockSize;
    }

    /// Every layer's difference is within what the differences of its inputs and half storage
    /// explain.
    void expect_agreement(const Draw& draw) {
        const tool::GpuOptions& gpu = draw.way.gpu;
        RandomNet random(draw.seed, draw.way, draw.shuffles);
        std::vector<unsigned char> bytes;
        const modelkit::Status status = random.builder().write(bytes);
        ASSERT_TRUE(status.ok()) << status.message();
        const TemporaryFile file(bytes);
        manager.netWidth = static_cast<int>(random.base_w());
        manager.netHeight = static_cast<int>(random.base_h());
        manager.tricksMode = gpu.tricks_mode;
        manager.uboSliceLimit = gpu.ubo_slice_limit;
        manager.maxUniformBlockSize =
            draw.way.block_bytes > 0 ? draw.way.block_bytes : driver_block_bytes;
        const DispatchRecorder dispatches;
        std::map<int, int> dispatches_of;
        testing_support::RunHooks hooks;
        hooks.around = [&](int layer, bool before) {
            dispatches_of[layer] += before ? -dispatches.all() : dispatches.all();
        };
        const EnginePairs pairs =
            testing_support::run_both_engines(file.path(), pool, manager, draw.seed, hooks);
        if (gpu.ubo_slice_limit == 0 && gpu.tricks_mode != 0) {
            ASSERT_EQ(dispatches.with_uniform_weights(), 0);
        }
        if (draw.way.splits()) {
            // One for each block.
            const int blocks = dispatches_of.at(random.split_layer());
            ASSERT_GE(blocks, 2) << "layer " << random.split_layer() << " was not split";
            ASSERT_LE(blocks, gpu.ubo_slice_limit);
        }

        ZQNetLoader loader;
        ASSERT_TRUE(loader.LoadFile(file.path(), false));
        const auto records = loader.getLayersInfo();
        ASSERT_EQ(pairs.size(), records.size());
        for (const auto& [id, record] : records) {
            const tool::EnginePair& pair = pairs.at(id);
            const std::string name =
                "layer " + std::to_string(id) + " (" + zq_layer_type_name(record->type) + ")";
            ASSERT_EQ(pair.cpu.size(), pair.gpu.size()) << name;
            testing_support::expect_judged_to_agree(name, pair,
                                                    testing_support::bound_of(*record, pairs, gpu));
            if (HasFailure()) return;
        }
    }

private:
    int driver_block_bytes = 0;
};

TEST_P(RandomNets, AgreeLayerByLayer) {
    const std::vector<Draw> draws = draws_of(GetParam());
    if (draws[0].shuffles) manager.initProgramBinary(tesk::BinFileInfo{}, &manager);
    for (const Draw& draw : draws) {
        SCOPED_TRACE("seed " + std::to_string(draw.seed) + ", " + draw.way.name);
        expect_agreement(draw);
        if (HasFailure()) return;
    }
}

INSTANTIATE_TEST_SUITE_P(Seeds, RandomNets, testing::Range(0, groups + groups_of_small_blocks));

// What is drawn -----------------------------------------------------------------------------------

/// How often what the nets are made of occurs in all of them together.
class Coverage {
public:
    void add(const Draw& draw) {
        RandomNet random(draw.seed, draw.way, draw.shuffles);
        ++counts[std::string("net: ") + draw.way.name];
        std::map<int, int> readers;
        for (int id = 0; id < random.builder().count(); ++id) {
            const ZQLayerInfo& record = *random.builder().record(id);
            const std::string kind = zq_layer_type_name(record.type);
            ++counts[kind];
            ++counts[kind + ": " + draw.way.name];
            for (int i = 0; i < record.bottom_count; ++i) ++readers[record.bottoms[i]];
            details(record, kind + ": ", draw.way.gpu.tricks_mode);
        }
        for (const auto& [id, count] : readers) {
            if (count > 1) ++counts["feature with several readers"];
        }
    }

    std::map<std::string, int> counts;

private:
    template <typename Record>
    static std::string window(const Record& record) {
        return std::to_string(record.kernel_w) + "x" + std::to_string(record.kernel_h);
    }
    static std::string code(int activation) { return "activation " + std::to_string(activation); }
    template <typename Record>
    void strides(const Record& record, const std::string& kind) {
        ++counts[kind + "strides " + std::to_string(record.stride_w) + ", " +
                 std::to_string(record.stride_h)];
    }

    void details(const ZQLayerInfo& info, const std::string& kind, int mode) {
        switch (info.type) {
            case ZQLayerType_Conv2D: {
                const auto& record = static_cast<const ZQLayerInfo_Conv2D&>(info);
                const std::string of_mode = mode == 0 ? " in mode 0" : "";
                ++counts[kind + window(record) + of_mode];
                ++counts[kind + code(record.activation) + of_mode];
                strides(record, kind);
                if (record.kernel_w == 1 && record.kernel_h == 1 && mode == 0) {
                    ++counts[kind + (record.out_shape->channels > 4 ? "two slices" : "one slice") +
                             " of four points"];
                }
                if (record.dilation_w > 1) ++counts[kind + "dilation"];
                if (record.kernel_w == 3 && record.kernel_h == 3 && record.pad_w == 0)
                    ++counts[kind + "3x3 without padding"];
                ++counts[kind + (record.in_shape->channels > 4 ? "array" : "plain texture") +
                         " to " + (record.out_shape->channels > 4 ? "array" : "plain texture")];
                break;
            }
            case ZQLayerType_Conv2DTranspose:
                ++counts[kind +
                         code(static_cast<const ZQLayerInfo_Conv2DTranspose&>(info).activation)];
                break;
            case ZQLayerType_DepthWiseConv2D: {
                const auto& record = static_cast<const ZQLayerInfo_DepthWiseConv2D&>(info);
                ++counts[kind + window(record)];
                ++counts[kind + code(record.activation)];
                strides(record, kind);
                break;
            }
            case ZQLayerType_Pooling: {
                const auto& record = static_cast<const ZQLayerInfo_Pooling&>(info);
                ++counts[kind + (record.pool_type == 1 ? "maximum " : "average ") + window(record)];
                strides(record, kind);
                break;
            }
            case ZQLayerType_ElementWiseOperator: {
                const auto& record = static_cast<const ZQLayerInfo_ElementWiseOperator&>(info);
                ++counts[kind + (record.operator_type == 0 ? "sum of " : "product of ") +
                         std::to_string(record.bottom_count)];
                ++counts[kind + code(record.activation)];
                break;
            }
            case ZQLayerType_Concatenate:
                ++counts[kind + std::to_string(info.bottom_count) + " inputs"];
                break;
            case ZQLayerType_Upsampling: {
                const auto& record = static_cast<const ZQLayerInfo_Upsampling&>(info);
                const int scale = static_cast<int>(Tarno::half_to_float(record.scale));
                ++counts[kind +
                         (record.mode == 0    ? "nearest"
                          : record.align != 0 ? "aligned"
                                              : "bilinear") +
                         " by " + std::to_string(scale)];
                break;
            }
            case ZQLayerType_PixelShuffle: {
                const auto& record = static_cast<const ZQLayerInfo_PixelShuffle&>(info);
                const float factor = Tarno::half_to_float(record.upscale_factor);
                ++counts[kind + (factor > 1.0f ? "up" : "down")];
                break;
            }
            case ZQLayerType_Activation:
                ++counts[kind +
                         code(static_cast<const ZQLayerInfo_Activation&>(info).activation_type)];
                break;
            default:
                break;
        }
    }
};

/// What has to occur, a group of forms to a line.
const std::set<std::string>& forms() {
    static const std::set<std::string> list = [] {
        std::set<std::string> all = {"feature with several readers"};
        const auto add = [&](const std::string& kind, const std::vector<std::string>& of_kind) {
            for (const std::string& form : of_kind) all.insert(kind + ": " + form);
        };
        for (const std::string mode : {"", " in mode 0"}) {
            for (const char* kernel :
                 {"1x1", "3x1", "1x3", "3x3", "4x4", "5x1", "1x5", "5x5", "7x1", "1x7"}) {
                add("Conv2D", {kernel + mode});
            }
            for (const char* activation : {"0", "2", "3", "4", "6", "8"})
                add("Conv2D", {"activation " + (activation + mode)});
        }
        add("Conv2D", {"one slice of four points", "two slices of four points", "dilation",
                       "3x3 without padding"});
        add("Conv2D", {"strides 1, 1", "strides 1, 2", "strides 2, 1", "strides 2, 2"});
        add("Conv2D", {"plain texture to plain texture", "plain texture to array",
                       "array to plain texture", "array to array"});
        add("Conv2DTranspose",
            {"activation 0", "activation 2", "activation 3", "activation 4", "activation 8"});
        add("DepthWiseConv2D", {"3x3", "5x5", "activation 0", "activation 2", "activation 8"});
        add("DepthWiseConv2D", {"strides 1, 1", "strides 2, 1", "strides 2, 2"});
        add("Pooling", {"maximum 2x2", "maximum 3x3", "average 2x2", "average 3x3", "average 4x4"});
        add("Pooling", {"strides 1, 1", "strides 2, 2"});
        add("ElementWiseOperator", {"sum of 2", "sum of 3", "product of 2"});
        add("ElementWiseOperator", {"activation 0", "activation 2", "activation 8"});
        add("Concatenate", {"2 inputs", "3 inputs", "5 inputs"});
        add("Upsampling",
            {"nearest by 2", "nearest by 4", "bilinear by 2", "aligned by 2", "aligned by 4"});
        add("PixelShuffle", {"up", "down"});
        add("Activation", {"activation 2", "activation 4", "activation 8"});
        return all;
    }();
    return list;
}

TEST(RandomNetDraws, HoldEachKindOfLayerInEachOfItsFormsAndOnEachWayToTheWeights) {
    Coverage coverage;
    std::set<std::string> ways;
    int nets = 0;
    for (int group = 0; group < groups + groups_of_small_blocks; ++group) {
        for (const Draw& draw : draws_of(group)) {
            coverage.add(draw);
            ways.insert(draw.way.name);
            ++nets;
        }
    }
    EXPECT_EQ(nets, 480);
    EXPECT_EQ(ways.size(), 8u);
    std::string table;
    for (const auto& [what, count] : coverage.counts)
        table += std::to_string(count) + "  " + what + "\n";
    RecordProperty("drawn", table);
    SCOPED_TRACE(table);
    std::set<std::string> expected = forms();
    for (const std::string& form : expected) EXPECT_GE(coverage.counts[form], 4) << form;
    for (const char* kind :
         {"Input", "Conv2D", "Conv2DTranspose", "DepthWiseConv2D", "Pooling", "ElementWiseOperator",
          "Concatenate", "Upsampling", "PixelShuffle", "Activation"}) {
        expected.insert(kind);
        for (const std::string& way : ways) expected.insert(std::string(kind) + ": " + way);
    }
    for (const std::string& way : ways) expected.insert("net: " + way);
    std::set<std::string> drawn;
    for (const auto& [what, count] : coverage.counts) {
        if (count > 0) drawn.insert(what);
    }
    EXPECT_EQ(drawn, expected);
}

}  // namespace
