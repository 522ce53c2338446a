// Networks of random layers, sizes and connections on both engines. They are built from what both
// run alike: see unlike_reason for what they don't.
#include <gtest/gtest.h>
#include <modelkit/net_builder.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "support/both_engines.h"
#include "support/gl_fixture.h"
#include "support/temporary_file.h"

namespace {

using modelkit::NetBuilder;
using modelkit::Window;
using testing_support::EnginePairs;
using testing_support::GpuTest;
using testing_support::TemporaryFile;

constexpr int groups = 32;
constexpr int nets_of_a_group = 10;
constexpr int largest_side = 40;
constexpr int most_channels = 24;

class RandomNet {
public:
    RandomNet(unsigned int seed, const tool::GpuOptions& gpu, bool shuffles)
        : generator(seed), gpu(gpu), shuffles(shuffles), net(header(), seed) {
        features.push_back(net.input(pick({1, 2, 3, 4, 5, 8, 9})));
        const int layers = 4 + below(8);
        for (int tries = 0; net.count() <= layers && tries < 200; ++tries) add();
    }

    const NetBuilder& builder() const { return net; }
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
};

class RandomNets : public GpuTest, public testing::WithParamInterface<int> {
protected:
    /// Every layer's difference is within what the differences of its inputs and half storage
    /// explain.
    void expect_agreement(unsigned int seed, const tool::GpuOptions& gpu, bool shuffles) {
        const RandomNet random(seed, gpu, shuffles);
        std::vector<unsigned char> bytes;
        const modelkit::Status status = random.builder().write(bytes);
        ASSERT_TRUE(status.ok()) << status.message();
        const TemporaryFile file(bytes);
        manager.netWidth = static_cast<int>(random.base_w());
        manager.netHeight = static_cast<int>(random.base_h());
        manager.tricksMode = gpu.tricks_mode;
        manager.uboSliceLimit = gpu.ubo_slice_limit;
        const EnginePairs pairs =
            testing_support::run_both_engines(file.path(), pool, manager, seed);

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
};

TEST_P(RandomNets, AgreeLayerByLayer) {
    // Pixel shuffles take programs of the built-in catalogue, which is long in the making.
    const bool shuffles = GetParam() % 4 == 0;
    if (shuffles) manager.initProgramBinary(tesk::BinFileInfo{}, &manager);
    for (int i = 0; i < nets_of_a_group; ++i) {
        const unsigned int seed = static_cast<unsigned int>(GetParam() * nets_of_a_group + i + 1);
        tool::GpuOptions gpu;
        // Each way to the weights has its nets.
        gpu.tricks_mode = seed % 3 == 0 ? 0 : 4;
        gpu.ubo_slice_limit = seed % 4 == 0 ? 4 : 0;
        SCOPED_TRACE("seed " + std::to_string(seed) + ", tricks mode " +
                     std::to_string(gpu.tricks_mode) + ", slice limit " +
                     std::to_string(gpu.ubo_slice_limit));
        expect_agreement(seed, gpu, shuffles);
        if (HasFailure()) return;
    }
}

INSTANTIATE_TEST_SUITE_P(Seeds, RandomNets, testing::Range(0, groups));

}  // namespace
