// Weights on their way from the records to the operators, seen through what the operators compute,
// and records that are damaged.
#include <gtest/gtest.h>
#include <tarno/model.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <memory>

#include "modelkit/net_builder.h"
#include "support/built_nets.h"
#include "support/recorders.h"
#include "support/temporary_file.h"
#include "support/tensors.h"

namespace {

using namespace TarnoCPU;
using namespace testing_support;
using modelkit::ModelHeader;
using modelkit::NetBuilder;
using modelkit::Window;

// All weights different, in the order of the file.
std::vector<float> numbered(size_t count) {
    std::vector<float> values(count);
    for (size_t i = 0; i < count; ++i) values[i] = static_cast<float>(static_cast<int>(i) - 20);
    return values;
}

TEST(ConstructionWeights, AConvolutionsInputChannelsMoveOutOfItsTaps) {
    NetBuilder builder(small_header());
    const int in = builder.input(2);
    const std::vector<float> file = numbered(3 * 9 * 2);
    builder.conv(in, 3, Window::square(3, 1, 1), 0, 1, {file, {1, 2, 3}});
    const auto net = net_of(builder);
    const Mat in_mat = random_tensor(2, 8, 8, 21);
    const Mat out = run(*net, in_mat);
    for (int o = 0; o < 3; ++o) {
        for (int y = 0; y < 8; ++y) {
            for (int x = 0; x < 8; ++x) {
                double sum = o + 1, magnitude = std::fabs(sum);
                for (int ky = 0; ky < 3; ++ky) {
                    for (int kx = 0; kx < 3; ++kx) {
                        for (int i = 0; i < 2; ++i) {
                            const int sy = y + ky - 1, sx = x + kx - 1;
                            if (sy < 0 || sx < 0 || sy > 7 || sx > 7) continue;
                            const double product =
                                static_cast<double>(
                                    file[static_cast<size_t>(((o * 3 + ky) * 3 + kx) * 2 + i)]) *
                                in_mat.ptr<float>()[(i * 8 + sy) * 8 + sx];
                            sum += product;
                            magnitude += std::fabs(product);
                        }
                    }
                }
                EXPECT_NEAR(sum, out.ptr<float>()[(o * 8 + y) * 8 + x],
                            sum_error_bound(18, magnitude));
            }
        }
    }
}

TEST(ConstructionWeights, ARecordOfTheOldestVersionCountsAsOneGroup) {
    for (const unsigned int version : {10000u, 10001u}) {
        NetBuilder builder(small_header(version));
        builder.conv(builder.input(2), 2, 1, 1, 0, 0, {{1, 2, 3, 4}, {0, 0}});
        const auto net = net_of(builder);
        const float values[8] = {1, 1, 1, 1, 10, 10, 10, 10};
        const Mat out =
            run(*net, Mat::from_float_array(values, 2, 2, 2, TensorShape::CHW, nullptr));
        EXPECT_EQ((std::vector<float>{21, 21, 21, 21, 43, 43, 43, 43}), values_of(out));
    }
}

TEST(ConstructionWeights, AGroupedConvolutionsWeightsPassAsTheyAre) {
    // The depthwise operator applies groups to them.
    NetBuilder builder(small_header());
    const std::vector<float> file = numbered(4 * 2 * 9);
    builder.conv(builder.input(4), 4, Window::square(3, 1, 1), 0, 2, {file, {0, 0, 0, 0}});
    const std::vector<LayerInferenceConfig> table = {
        config_of("Input_Fallback"), config_of("ConvolutionDepthwise_Float_Fallback")};
    const auto net = net_of(builder, table.data());
    const Mat in_mat = random_tensor(4, 8, 8, 22);
    const Mat out = run(*net, in_mat);
    for (int o = 0; o < 4; ++o) {
        double sum = 0, magnitude = 0;  // at (4, 4), away from the border
        for (int i = 0; i < 2; ++i) {
            for (int k = 0; k < 9; ++k) {
                const double product =
                    static_cast<double>(file[static_cast<size_t>((o * 2 + i) * 9 + k)]) *
                    in_mat.ptr<float>()[((o / 2 * 2 + i) * 8 + 3 + k / 3) * 8 + 3 + k % 3];
                sum += product;
                magnitude += std::fabs(product);
            }
        }
        EXPECT_NEAR(sum, out.ptr<float>()[(o * 8 + 4) * 8 + 4], sum_error_bound(18, magnitude));
    }
}

TEST(ConstructionWeights, ADepthwiseConvolutionsChannelsMoveOutOfItsTaps) {
    NetBuilder builder(small_header());
    const std::vector<float> file = numbered(9 * 4);
    builder.depthwise(builder.input(4), 3, 1, 1, 0, {file, {0, 0, 0, 0}});
    const auto net = net_of(builder);
    const Mat in_mat = random_tensor(4, 8, 8, 23);
    const Mat out = run(*net, in_mat);
    for (int c = 0; c < 4; ++c) {
        double sum = 0, magnitude = 0;
        for (int k = 0; k < 9; ++k) {
            const double product = static_cast<double>(file[static_cast<size_t>(k * 4 + c)]) *
                                   in_mat.ptr<float>()[(c * 8 + 3 + k / 3) * 8 + 3 + k % 3];
            sum += product;
            magnitude += std::fabs(product);
        }
        EXPECT_NEAR(sum, out.ptr<float>()[(c * 8 + 4) * 8 + 4], sum_error_bound(9, magnitude));
    }
}

TEST(ConstructionWeights, ADepthMultiplierMakesItsChannelsSideBySide) {
    NetBuilder builder(small_header());
    // Two channels, multiplier 2: output 2 * c + m reads channel c with filter [tap][2 * c + m].
    builder.depthwise(builder.input(2), Window::square(1, 1, 0), 0, 2,
                      {{1, 2, 3, 4}, {0, 0, 0, 0}});
    const auto net = net_of(builder);
    const float values[2] = {10, 100};
    const Mat out = run(*net, Mat::from_float_array(values, 1, 1, 2, TensorShape::CHW, nullptr));
    EXPECT_EQ((std::vector<float>{10, 20, 300, 400}), values_of(out));
}

TEST(ConstructionWeights, ADeconvolutionScattersItsReorderedWeights) {
    NetBuilder builder(small_header());
    const std::vector<float> file = numbered(3 * 16 * 2);  // [out][y][x][in], 4 x 4, stride 2
    builder.deconvolution(builder.input(2), 3, Window::square(4, 2, 1), 0, 1, {file, {0, 0, 0}});
    const auto net = net_of(builder);
    Mat in_mat(chw(2, 4, 4), nullptr);
    std::memset(in_mat.data, 0, 2 * 16 * sizeof(float));
    in_mat.ptr<float>()[16 + 1 * 4 + 2] = 1.0f;  // channel 1, row 1, column 2
    const Mat out = run(*net, in_mat);
    ASSERT_TRUE(out.shape == chw(3, 8, 8));
    for (int o = 0; o < 3; ++o) {
        for (int y = 0; y < 8; ++y) {
            for (int x = 0; x < 8; ++x) {
                const int ky = y - (1 * 2 - 1), kx = x - (2 * 2 - 1);
                const bool hit = ky >= 0 && ky < 4 && kx >= 0 && kx < 4;
                const float expected =
                    hit ? file[static_cast<size_t>(((o * 4 + ky) * 4 + kx) * 2 + 1)] : 0.0f;
                EXPECT_EQ(expected, out.ptr<float>()[(o * 8 + y) * 8 + x]);
            }
        }
    }
}

TEST(ConstructionWeights, ADepthwiseDeconvolutionsMultiplierMovesOutOfItsTaps) {
    NetBuilder builder(small_header());
    // [channel][y][x][multiplier], one tap: two channels, multiplier 2.
    builder.depthwise_deconvolution(builder.input(2), Window{1, 1, 1, 1, 1, 1, 1, 1}, 0, 2,
                                    {{1, 2, 3, 4}, {0, 0, 0, 0}});
    const auto net = net_of(builder);
    const float values[8] = {10, 10, 10, 10, 100, 100, 100, 100};
    const Mat out = run(*net, Mat::from_float_array(values, 2, 2, 2, TensorShape::CHW, nullptr));
    ASSERT_EQ(4, out.shape.c);
    // The scratch is 4 x 4 (size + 2), the cut of one pixel all round leaves its inside, in which
    // only the last input pixel lies, at the front.
    for (int c = 0; c < 4; ++c) {
        const float* plane = out.ptr<float>() + c * out.shape.h * out.shape.w;
        const float expected[4] = {10, 20, 300, 400};
        EXPECT_EQ(expected[c], plane[0]);
    }
}

TEST(ConstructionWeights, ABiasThatTheRecordDisownsIsNotAdded) {
    const std::function<void(NetBuilder&)> kinds[] = {
        [](NetBuilder& b) {
            b.conv(0, 1, 1, 1, 0, 0, {{2}, {5}});
            static_cast<ZQLayerInfo_Conv2D*>(b.record(1))->has_bias = 0;
        },
        [](NetBuilder& b) {
            b.depthwise(0, 1, 1, 0, 0, {{2}, {5}});
            static_cast<ZQLayerInfo_DepthWiseConv2D*>(b.record(1))->has_bias = 0;
        },
    };
    for (const auto& add : kinds) {
        NetBuilder builder(small_header());
        builder.input(1);
        add(builder);
        const float values[4] = {1, 2, 3, 4};
        EXPECT_EQ(
            (std::vector<float>{2, 4, 6, 8}),
            values_of(run(*net_of(builder),
                          Mat::from_float_array(values, 2, 2, 1, TensorShape::CHW, nullptr))));
    }
}

TEST(ConstructionWeights, ADeconvolutionOfSeveralGroupsReadsZerosBehindItsWeights) {
    NetBuilder builder(small_header());
    // Two groups, two channels, one tap: the file has two weights where the operator has four.
    builder.deconvolution(builder.input(2), 2, Window{1, 1, 1, 1, 1, 1, 1, 1}, 0, 2,
                          {{3, 4}, {0, 0}});
    const float values[8] = {10, 10, 10, 10, 100, 100, 100, 100};
    const Mat out =
        run(*net_of(builder), Mat::from_float_array(values, 2, 2, 2, TensorShape::CHW, nullptr));
    ASSERT_EQ(2, out.shape.c);
    EXPECT_EQ(3.0f * 10 + 4.0f * 100, out.ptr<float>()[0]);
    EXPECT_EQ(0.0f, out.ptr<float>()[out.shape.h * out.shape.w]);
}

TEST(ConstructionWeights, OfAStackedLstmTheFirstLayerRuns) {
    // Layer by layer the builder's numbers differ; the engine takes those of the first.
    const auto outputs = [](int layers) {
        NetBuilder builder(small_header(), 9);
        const int in = builder.tensor_input({2, 1, 4});
        builder.lstm(in, 4, 4, true, false, layers);
        return values_of(run(*net_of(builder), random_tensor(2, 1, 4, 31)));
    };
    const std::vector<float> one = outputs(1);
    ASSERT_EQ(8u, one.size());
    // The generator runs array by array, so the first layer of both nets has equal weights only
    // when they are drawn first.
    NetBuilder builder(small_header(), 9);
    builder.lstm(builder.tensor_input({2, 1, 4}), 4, 4, true, false, 2);
    const auto* lstm = static_cast<const ZQLayerInfo_LSTM*>(builder.record(1));
    NetBuilder first(small_header(), 9);
    first.lstm(first.tensor_input({2, 1, 4}), 4, 4, true, false, 1);
    auto* copy = static_cast<ZQLayerInfo_LSTM*>(first.record(1));
    const auto take = [](float** to, unsigned short** to_half, float** from,
                         unsigned short** from_half, size_t count) {
        std::copy(from[0], from[0] + count, to[0]);
        std::copy(from_half[0], from_half[0] + count, to_half[0]);
    };
    take(copy->w_ih, copy->w_ih_half, lstm->w_ih, lstm->w_ih_half, lstm->w_ih_count);
    take(copy->w_hh, copy->w_hh_half, lstm->w_hh, lstm->w_hh_half, lstm->w_hh_count);
    take(copy->b_ih, copy->b_ih_half, lstm->b_ih, lstm->b_ih_half, lstm->bias_count);
    take(copy->b_hh, copy->b_hh_half, lstm->b_hh, lstm->b_hh_half, lstm->bias_count);
    const Mat in_mat = random_tensor(2, 1, 4, 31);
    EXPECT_EQ(values_of(run(*net_of(first), in_mat)), values_of(run(*net_of(builder), in_mat)));
}

TEST(ConstructionWeights, AReshapeCountsTheDimensionsThatAreNotZero) {
    struct Case {
        std::vector<int> dims;
        int rank;
        int width;  // of the top, 0 for a refusal
    };
    const Case cases[] = {
        {{1, 8}, 2, 8},           // the second of two
        {{8, 0}, 2, 8},           // one that is not 0: the width stays
        {{1, 1, 8}, 3, 8},        // the third of three
        {{1, 8, 0, 1}, 4, 0},     // three count, and the third is 0
        {{1, 1, 1, 8}, 4, 8},     // the fourth of four
        {{1, 1, 1, 1, 8}, 5, 8},  // more than four: the width stays
    };
    for (const Case& c : cases) {
        NetBuilder builder(small_header());
        builder.reshape(builder.tensor_input({1, 1, 8}), {1, 8});
        auto* record = static_cast<ZQLayerInfo_TensorReshape*>(builder.record(1));
        record->out_tensor.rank = static_cast<unsigned short>(c.rank);
        for (int i = 0; i < 11; ++i) {
            record->out_tensor.dims[i] = static_cast<unsigned short>(
                i < static_cast<int>(c.dims.size()) ? c.dims[static_cast<size_t>(i)] : 0);
        }
        AssertRecorder assertions;
        const Mat out = run(*net_of(builder), random_tensor(1, 1, 8, 1), -1, c.width ? 0 : -100);
        EXPECT_EQ(c.width, out.shape.w);
        EXPECT_EQ(c.width ? 0u : 1u,
                  assertions.count("false && \"Invalid forward pre conditions\""));
    }
}

TEST(ConstructionWeights, BatchNormalizationsArraysAreSlopeBiasVarianceMean) {
    NetBuilder builder(small_header());
    builder.batchnorm(builder.input(2), {2, 3}, {10, 20}, {4, 16}, {1, 2});
    const auto net = net_of(builder);
    const float values[8] = {5, 5, 5, 5, 6, 6, 6, 6};
    const Mat out = run(*net, Mat::from_float_array(values, 2, 2, 2, TensorShape::CHW, nullptr));
    // slope * (x - mean) / sqrt(variance) + bias
    EXPECT_EQ((std::vector<float>{14, 14, 14, 14, 23, 23, 23, 23}), values_of(out));
}

TEST(ConstructionWeights, EltwiseCodesAreSumAndProduct) {
    for (const int code : {0, 2}) {
        NetBuilder builder(small_header());
        const int in = builder.input(1);
        builder.activation(in, ActivationType_Linear, 1.0, 2.0);
        builder.eltwise({0, 1}, code, ActivationType_ReLU);
        const auto net = net_of(builder);
        const float values[4] = {3, -4, -1, 0};
        const Mat out =
            run(*net, Mat::from_float_array(values, 2, 2, 1, TensorShape::CHW, nullptr));
        EXPECT_EQ(code == 0 ? (std::vector<float>{8, 0, 0, 2}) : (std::vector<float>{15, 8, 0, 0}),
                  values_of(out));
    }
}

TEST(ConstructionWeights, PoolingKindsAreMaximumOneAndAverageZero) {
    for (const int type : {0, 1}) {
        NetBuilder builder(small_header());
        builder.pooling(builder.input(1), type, 2, 2);
        const auto net = net_of(builder);
        const float values[4] = {1, 2, 3, 6};
        const Mat out =
            run(*net, Mat::from_float_array(values, 2, 2, 1, TensorShape::CHW, nullptr));
        EXPECT_EQ((std::vector<float>{type == 1 ? 6.0f : 3.0f}), values_of(out));
    }
}

TEST(ConstructionWeights, RegionAndConcatGetTheirFields) {
    NetBuilder builder(small_header());
    const int in = builder.input(2);
    builder.concat({in, in});
    builder.region(1, 1, 0, 1);
    const auto net = net_of(builder);
    Mat in_mat(chw(2, 8, 16), nullptr);
    std::fill(in_mat.ptr<float>(), in_mat.ptr<float>() + 256, 0.0f);
    const Mat out = run(*net, in_mat);
    ASSERT_TRUE(out.shape == chw(4, 8, 16));
    // One anchor, no box values: entry 0 is box value and score in one and is taken twice, entry 1
    // is the only class, which a softmax makes 1. Entries are 124 apart: 11 * 11 rounded up.
    const float* values = out.ptr<float>();
    const double once = 0.5, twice = 1.0 / (1.0 + std::exp(-once));
    // Rounded after the exponential, the addition and the division, of numbers below 2.
    const double rounding = 3 * 2 * std::ldexp(1.0, -24);
    EXPECT_NEAR(twice, values[0], rounding);
    EXPECT_NEAR(twice, values[120], rounding);
    for (int gap = 121; gap < 124; ++gap) EXPECT_EQ(0.0f, values[gap]);
    EXPECT_EQ(1.0f, values[124]);
    EXPECT_EQ(1.0f, values[244]);
    EXPECT_EQ(0.0f, values[245]);
}

// ---- damaged records ----

TEST(DamagedRecords, ZeroStridesHugeKernelsAndOddFactorsFailTheirLayerWithoutACrash) {
    struct Case {
        int layer;
        std::function<void(ZQLayerInfo*)> damage;
    };
    const Case cases[] = {
        {1, [](ZQLayerInfo* r) { static_cast<ZQLayerInfo_Conv2D*>(r)->stride_w = 0; }},
        {2, [](ZQLayerInfo* r) { static_cast<ZQLayerInfo_DepthWiseConv2D*>(r)->stride_h = 0; }},
        {3, [](ZQLayerInfo* r) { static_cast<ZQLayerInfo_Pooling*>(r)->stride_w = 0; }},
        {3, [](ZQLayerInfo* r) { static_cast<ZQLayerInfo_Pooling*>(r)->kernel_w = 60000; }},
        {4, [](ZQLayerInfo* r) { static_cast<ZQLayerInfo_Conv2DTranspose*>(r)->stride_w = 0; }},
        {5, [](ZQLayerInfo* r) { static_cast<ZQLayerInfo_PixelShuffle*>(r)->upscale_factor = 0; }},
        {5,
         [](ZQLayerInfo* r) {
             static_cast<ZQLayerInfo_PixelShuffle*>(r)->upscale_factor = 0x7c00;  // infinity
         }},
        {6,
         [](ZQLayerInfo* r) { static_cast<ZQLayerInfo_Upsampling*>(r)->scale = 0x7e00; }},  // NaN
    };
    for (size_t i = 0; i < sizeof cases / sizeof cases[0]; ++i) {
        SCOPED_TRACE(i);
        NetBuilder builder(small_header());
        const int in = builder.input(4);
        builder.conv(in, 4, Window::square(5, 1, 2));
        builder.depthwise(in, 3, 1, 1);
        builder.pooling(in, 1, 2, 2);
        builder.deconvolution(in, 4, 3, 1, 1);
        builder.pixel_shuffle(in, 2.0);
        builder.upsampling(in, 2.0);
        cases[i].damage(builder.record(cases[i].layer));
        AssertRecorder assertions;
        const auto net = net_of(builder);
        ASSERT_EQ(7u, net->layers.size());
        for (int layer = 1; layer < 7; ++layer) {
            Mat out;
            const int result = net->layers[static_cast<size_t>(layer)]->forward(
                random_tensor(4, 8, 8, 1), out, get_default_option());
            EXPECT_EQ(layer == cases[i].layer ? -100 : 0, result) << layer;
        }
    }
}

TEST(DamagedRecords, SeededMutationsOfAWholeNetBuildAndRunInsideTheirBlocks) {
    NetBuilder builder(small_header());
    const int in = builder.input(4);
    const int conv = builder.conv(in, 8, 3, 2, 1, ActivationType_ReLU);
    const int depthwise = builder.depthwise(conv, 3, 1, 1, ActivationType_ReLU6);
    const int sum = builder.eltwise({conv, depthwise}, 0, ActivationType_ReLU);
    const int up = builder.upsampling(sum, 2.0);
    const int joined = builder.concat({up, in});
    const int deconv = builder.deconvolution(joined, 4, 4, 2, 1);
    const int pooled = builder.pooling(deconv, 0, 2, 2);
    const int shuffled = builder.pixel_shuffle(pooled, 2.0);
    builder.batchnorm(shuffled);
    const int tensor = builder.tensor_input({3, 1, 16});
    builder.lstm(tensor, 16, 4, true, true);
    builder.fully_connected(builder.reshape(tensor, {1, 48}), 48, 8);
    std::vector<unsigned char> whole;
    ASSERT_TRUE(builder.write(whole).ok());

    AssertRecorder assertions;
    Tarno::SetLogLevel(Tarno::LogLevel::Silent);
    std::mt19937 engine(20261120);
    int built = 0;
    for (int round = 0; round < 400; ++round) {
        std::vector<unsigned char> bytes = whole;
        const int flips = 1 + static_cast<int>(engine() % 6);
        for (int i = 0; i < flips; ++i) {
            bytes[1000 + engine() % (bytes.size() - 1000)] =
                static_cast<unsigned char>(engine() % 4 == 0 ? 0 : engine());
        }
        const TemporaryFile file(bytes);
        ZQNetLoader loader;
        loader.LoadFile(file.path(), engine() % 2 == 0);
        TarnoNet net;
        net.load_tarno_net_with_inference_config(loader, nullptr);
        TarnoNetExtractor extractor = net.create_extractor();
        extractor.input(0, random_tensor(4, 8, 8, 1));
        extractor.input(1, random_tensor(3, 1, 16, 2));
        Mat out;
        extractor.extract(extractor.get_last_layer_index(), out);
        built += net.layers.empty() ? 0 : 1;
    }
    Tarno::SetLogLevel(Tarno::LogLevel::Info);
    EXPECT_GT(built, 200);  // else the mutations would test the reader alone
}

}  // namespace
