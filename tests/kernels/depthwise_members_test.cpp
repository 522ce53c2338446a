// Every hand-blocked 3x3 depthwise convolution against plain sums in double.

#include "support/blocked_convolutions.h"

namespace {

using namespace TarnoCPU;
using namespace testing_support;

const char* const members[] = {
    "Depthewise_Convolution_3x3s1_Float_SSE_M1",
    "Depthewise_Convolution_3x3s1_Float_SSE_M2",
    "Depthewise_Convolution_3x3s1_Float_SSE_M3",
    "Depthewise_Convolution_3x3s1_Float_SSE_M4",
    "Depthewise_Convolution_3x3s1_Float_SSE_C4HW4_M1",
    "Depthewise_Convolution_3x3s1_Float_SSE_C4HW4_M2",
    "Depthewise_Convolution_3x3s1_Float_SSE_C4HW4_M3",
    "Depthewise_Convolution_3x3s2_Float_SSE_M1",
    "Depthewise_Convolution_3x3s2_Float_SSE_M2",
    "Depthewise_Convolution_3x3s2_Float_SSE_M3",
    "Depthewise_Convolution_3x3s2_Float_SSE_C4HW4_M1",
    "Depthewise_Convolution_3x3s1_Float_AVX2_M1",
    "Depthewise_Convolution_3x3s1_Float_AVX2_M2",
    "Depthewise_Convolution_3x3s1_Float_AVX2_M3",
    "Depthewise_Convolution_3x3s2_Float_AVX2_M1",
};

constexpr int keep_size = -233;

// As many outputs as there are inputs.
struct Size : LayerSize {
    Size(int channels, int h, int w) : LayerSize{channels, channels, h, w}, channels(channels) {}
    int channels;
};

struct Margins {
    int top, bottom, left, right;
};

// Random numbers of a layer, and what must come out of it.
struct Layer {
    Size size;
    int stride;
    std::vector<float> bottom, weights, bias;

    Layer(const Size& size, int stride, unsigned int seed)
        : size(size),
          stride(stride),
          bottom(random_floats(static_cast<size_t>(size.channels) * size.h * size.w, seed)),
          weights(random_floats(static_cast<size_t>(size.channels) * 9, seed + 1)),
          bias(random_floats(size.channels, seed + 2)) {}

    LayerParams params(int pad, bool with_bias) const {
        LayerParams params;
        params.num_output = size.channels;
        params.kernel = 3;
        params.stride = stride;
        params.pad = pad;
        params.bias = with_bias;
        params.weight_count = 9 * size.channels;
        params.group = size.channels;
        params.num_input = size.channels;
        return params;
    }

    // The margins that keep the size: what the last window lacks, the larger half behind.
    Margins margins(int pad) const {
        if (pad != keep_size) return {pad, pad, pad, pad};
        const int rows = 3 + (size.h - 1) / stride * stride - size.h;
        const int columns = 3 + (size.w - 1) / stride * stride - size.w;
        return {rows / 2, rows - rows / 2, columns / 2, columns - columns / 2};
    }

    // [channels][h / stride][w / stride]. Windows that leave their row run on into the next one, as
    // memory has it, and into zeros behind the last.
    std::vector<ExactSum> sums(const Margins& m, bool with_bias) const {
        const int bh = size.h + m.top + m.bottom, bw = size.w + m.left + m.right;
        std::vector<float> bordered(static_cast<size_t>(size.channels) * bh * bw, 0.0f);
        for (int g = 0; g < size.channels; ++g) {
            for (int y = 0; y < size.h; ++y) {
                for (int x = 0; x < size.w; ++x) {
                    bordered[(static_cast<size_t>(g) * bh + y + m.top) * bw + x + m.left] =
                        bottom[(static_cast<size_t>(g) * size.h + y) * size.w + x];
                }
            }
        }
        bordered.resize(bordered.size() + 3 * static_cast<size_t>(bw) + 3, 0.0f);
        std::vector<ExactSum> result;
        for (int g = 0; g < size.channels; ++g) {
            for (int y = 0; y < size.h / stride; ++y) {
                for (int x = 0; x < size.w / stride; ++x) {
                    ExactSum sum;
                    if (with_bias) sum.add(bias[g]);
                    for (int ky = 0; ky < 3; ++ky) {
                        for (int kx = 0; kx < 3; ++kx) {
                            const size_t place =
                                (static_cast<size_t>(g) * bh + y * stride + ky) * bw + x * stride +
                                kx;
                            sum.add(double{bordered[place]} * weights[g * 9 + ky * 3 + kx]);
                        }
                    }
                    result.push_back(sum);
                }
            }
        }
        return result;
    }
};

class DepthwiseMembers : public MemberTest {
protected:
    std::vector<Size> sizes() const {
        const int h = info->height_multiple, w = info->width_multiple;
        std::vector<Size> result;
        for (int channels : {1, 4, 8, 16, 20}) {
            if (channels % info->input_multiple != 0) continue;
            result.push_back({channels, h, w});
            result.push_back({channels, 3 * h, 2 * w});
        }
        const int few = 2 * info->input_multiple;
        for (int rows : {1, 2, 5}) {
            for (int columns : {1, 3, 4, 5, 7}) result.push_back({few, rows * h, columns * w});
        }
        result.push_back({few, 8 * h, 80});
        return result;
    }

    // The margins of a run: blocks of four channels get one pixel all round, whatever `pad` is.
    Margins margins(const Layer& layer, int pad) const { return layer.margins(blocks() ? 1 : pad); }
};

TEST_P(DepthwiseMembers, GivesTheSumOfTheNineTapsInEveryElement) {
    unsigned int seed = 200;
    for (const Size& size : sizes()) {
        for (int pad : {1, 0, 2, keep_size}) {
            for (bool with_bias : {true, false}) {
                SCOPED_TRACE(testing::Message() << size << ", pad " << pad << ", bias " << with_bias
                                                << ", seed " << seed);
                const Layer layer(size, info->stride, seed);
                seed += 10;
                auto op = make_loaded(GetParam(), layer.params(pad, with_bias), layer.weights,
                                      layer.bias);
                ExactBlock block = block_of(layer.bottom, layer.size);
                PoisoningAllocator blobs, workspace;
                Option opt = get_default_option();
                opt.blob_allocator = &blobs;
                opt.workspace_allocator = &workspace;
                {
                    Mat top;
                    ASSERT_EQ(0, op->forward(block.view(bottom_shape(size)), top, opt));
                    EXPECT_TRUE(top_shape(size) == top.shape);
                    EXPECT_EQ(&blobs, top.allocator);
                    ASSERT_NO_FATAL_FAILURE(
                        expect_sums(layer.sums(margins(layer, pad), with_bias), planes_of(top)));
                }
                EXPECT_EQ(0, blobs.alive);
                EXPECT_EQ(0, workspace.alive);
            }
        }
    }
}

TEST_P(DepthwiseMembers, AgreesWithThePlainConvolutionUpToTheOrderOfTheSum) {
    // 8 x 8 and more, even sizes: where the two know the same size of the top.
    for (int times : {1, 2}) {
        const Size size{4, 8 * times, 16 * times};
        const Layer layer(size, info->stride, 16);
        for (bool with_bias : {true, false}) {
            const LayerParams params = layer.params(1, with_bias);
            auto op = make_loaded(GetParam(), params, layer.weights, layer.bias);
            auto plain = make_loaded("ConvolutionDepthwise_Float_Fallback", params, layer.weights,
                                     layer.bias);
            ExactBlock block = block_of(layer.bottom, layer.size), planes(layer.bottom);
            Mat top, plain_top;
            ASSERT_EQ(0, op->forward(block.view(bottom_shape(size)), top, get_default_option()));
            ASSERT_EQ(0, plain->forward(planes.view(chw(4, size.h, size.w)), plain_top,
                                        get_default_option()));
            expect_same_sums(layer.sums({1, 1, 1, 1}, with_bias), planes_of(top),
                             values_of(plain_top));
        }
    }
}

TEST_P(DepthwiseMembers, WritesNothingOutsideABlockOfExactlyTheTopsSizeAndNeedsNoAlignment) {
    const Size size{2 * info->input_multiple, 3 * info->height_multiple, 5 * info->width_multiple};
    const Layer layer(size, info->stride, 17);
    for (int pad : {0, 1}) {
        auto op = make_loaded(GetParam(), layer.params(pad, true), layer.weights, layer.bias);
        for (int misalignment : {0, 1, 3}) {
            const auto expected = layer.sums(margins(layer, pad), true);
            ExactBlock block = block_of(layer.bottom, layer.size, misalignment);
            ExactBlock top_block(std::vector<float>(expected.size(), std::nanf("")), misalignment);
            Mat top = top_block.view(top_shape(size));
            ASSERT_EQ(0, op->forward(block.view(bottom_shape(size)), top, get_default_option()));
            EXPECT_EQ(top_block.data(), top.data);
            expect_sums(expected, planes_of(top));
        }
    }
}

TEST_P(DepthwiseMembers, ANanReachesOnlyTheOutputsWhoseWindowHoldsIt) {
    const Size size{info->input_multiple, 2 * info->height_multiple, 2 * info->width_multiple};
    const Layer clean(size, info->stride, 18);
    for (int spot = 0; spot < size.h * size.w; ++spot) {
        Layer layer = clean;
        layer.bottom[spot] = std::nanf("");
        auto op = make_loaded(GetParam(), layer.params(1, true), layer.weights, layer.bias);
        ExactBlock block = block_of(layer.bottom, layer.size);
        Mat top;
        ASSERT_EQ(0, op->forward(block.view(bottom_shape(size)), top, get_default_option()));
        const auto expected = layer.sums({1, 1, 1, 1}, true);
        const auto actual = planes_of(top);
        for (size_t i = 0; i < actual.size(); ++i) {
            ASSERT_EQ(std::isnan(expected[i].value), std::isnan(actual[i]))
                << "element " << i << ", NaN at " << spot;
        }
    }
}

TEST_P(DepthwiseMembers, WithoutABiasASumOfNegativeZerosStaysNegative) {
    const Size size{info->input_multiple, info->height_multiple * 3, info->width_multiple * 3};
    Layer layer(size, info->stride, 19);
    // The border is of positive zeros, which a negative weight turns.
    for (float& value : layer.bottom) value = 0.0f;
    for (float& weight : layer.weights) weight = -1.0f;
    auto op = make_loaded(GetParam(), layer.params(1, false), layer.weights, layer.bias);
    ExactBlock block = block_of(layer.bottom, layer.size);
    Mat top;
    ASSERT_EQ(0, op->forward(block.view(bottom_shape(size)), top, get_default_option()));
    for (float value : values_of(top)) ASSERT_TRUE(value == 0.0f && std::signbit(value));
}

TEST_P(DepthwiseMembers, KernelStrideAndDilationOfTheParametersAreNotApplied) {
    const Size size{info->input_multiple, 2 * info->height_multiple, 2 * info->width_multiple};
    const Layer layer(size, info->stride, 20);
    LayerParams params = layer.params(1, true);
    params.kernel = 5;
    params.stride = 0;
    params.dilation = 7;
    auto op = make_loaded(GetParam(), params, layer.weights, layer.bias);
    ExactBlock block = block_of(layer.bottom, layer.size);
    Mat top;
    ASSERT_EQ(0, op->forward(block.view(bottom_shape(size)), top, get_default_option()));
    expect_sums(layer.sums({1, 1, 1, 1}, true), planes_of(top));
}

TEST_P(DepthwiseMembers, CarriesItsName) {
    EXPECT_EQ(GetParam(), make_operator(GetParam())->name());
}

TEST_P(DepthwiseMembers, TheCheckAsksForFloatsOfItsLayoutAndWholeGroups) {
    const Size size{4, 2 * info->height_multiple, 2 * info->width_multiple};
    const Layer layer(size, info->stride, 21);
    auto op = make_loaded(GetParam(), layer.params(1, true), layer.weights, layer.bias);
    const TensorShape right = bottom_shape(size);
    EXPECT_TRUE(op->check_forward(right));
    TensorShape wrong = right;
    wrong.layout = blocks() ? TensorShape::CHW : TensorShape::C4HW4;
    EXPECT_FALSE(op->check_forward(wrong));
    wrong = right;
    wrong.elem_size = 2;
    EXPECT_FALSE(op->check_forward(wrong));

    LayerParams params = layer.params(1, true);
    params.group = 3;  // 4 % 3
    ASSERT_EQ(0, load(*op, params, layer.weights.data(), layer.bias.data()));
    EXPECT_FALSE(op->check_forward(right));
    params.group = 0;
    ASSERT_EQ(0, load(*op, params, layer.weights.data(), layer.bias.data()));
    EXPECT_FALSE(op->check_forward(right));
    params.group = 4;
    params.num_output = 2;  // 2 % 4
    ASSERT_EQ(0, load(*op, params, layer.weights.data(), layer.bias.data()));
    EXPECT_FALSE(op->check_forward(right));
}

TEST_P(DepthwiseMembers, AFailedCheckRaisesTheAssertion) {
    const Size size{4, 2 * info->height_multiple, 2 * info->width_multiple};
    const Layer layer(size, info->stride, 22);
    auto op = make_loaded(GetParam(), layer.params(1, true), layer.weights, layer.bias);
    TensorShape shape = bottom_shape(size);
    shape.layout = blocks() ? TensorShape::CHW : TensorShape::C4HW4;
    AssertRecorder assertions;
    LogRecorder log;
    Mat top;
    EXPECT_EQ(-100, op->forward(Mat(shape, nullptr), top, get_default_option()));
    ASSERT_EQ(1u, assertions.count());
    EXPECT_EQ("false && \"Invalid forward pre-conditions\"", assertions.last().condition);
    EXPECT_EQ(unit_of(GetParam()), assertions.last().source);
    EXPECT_TRUE(log.lines.empty());
}

TEST_P(DepthwiseMembers, PaddingThatKeepsTheSizeIsRefusedWithoutAStride) {
    const Size size{4, 2 * info->height_multiple, 2 * info->width_multiple};
    const Layer layer(size, info->stride, 23);
    LayerParams params = layer.params(keep_size, true);
    params.stride = 0;
    auto op = make_loaded(GetParam(), params, layer.weights, layer.bias);
    // Blocks of four channels have their own border.
    EXPECT_EQ(blocks(), op->check_forward(bottom_shape(size)));
}

TEST_P(DepthwiseMembers, EveryAllocationMayFail) {
    const Size size{info->input_multiple, 2 * info->height_multiple, 4 * info->width_multiple};
    const Layer layer(size, info->stride, 24);
    auto op = make_loaded(GetParam(), layer.params(1, true), layer.weights, layer.bias);
    ExactBlock block = block_of(layer.bottom, layer.size);
    // The border and the top.
    for (int failing : {0, 1, 2}) {
        FailingAllocator allocator(failing);
        Option opt = get_default_option();
        opt.blob_allocator = &allocator;
        opt.workspace_allocator = &allocator;
        {
            Mat top;
            EXPECT_EQ(failing < 2 ? -100 : 0,
                      op->forward(block.view(bottom_shape(size)), top, opt));
        }
        EXPECT_EQ(0, allocator.alive);
        EXPECT_EQ(failing < 2 ? failing + 1 : 2, allocator.calls);
    }
}

TEST_P(DepthwiseMembers, AFailedLoadMakesEveryForwardFail) {
    const Size size{4, 2 * info->height_multiple, 2 * info->width_multiple};
    const Layer layer(size, info->stride, 25);
    ExactBlock block = block_of(layer.bottom, layer.size);
    auto op = make_operator(GetParam());
    EXPECT_FALSE(op->check_forward(bottom_shape(size))) << "no group yet";
    ASSERT_EQ(0, load(*op, layer.params(1, true), layer.weights.data(), layer.bias.data()));
    LayerParams params = layer.params(1, true);
    params.weight_count = 0;
    EXPECT_EQ(-100, load(*op, params, layer.weights.data(), layer.bias.data()));
    Mat top;
    EXPECT_EQ(-100, op->forward(block.view(bottom_shape(size)), top, get_default_option()));
    params = layer.params(1, true);
    params.num_output = 0;  // and so no bias
    EXPECT_EQ(-100, load(*op, params, layer.weights.data(), layer.bias.data()));
    EXPECT_EQ(-100, op->forward(block.view(bottom_shape(size)), top, get_default_option()));
}

TEST_P(DepthwiseMembers, AnEmptyBottomGivesNothing) {
    const Size size{4, 2 * info->height_multiple, 2 * info->width_multiple};
    const Layer layer(size, info->stride, 26);
    auto op = make_loaded(GetParam(), layer.params(1, true), layer.weights, layer.bias);
    TensorShape shape = bottom_shape(size);
    Mat top;
    EXPECT_EQ(-100, op->forward(Mat(shape, nullptr, nullptr), top, get_default_option()));
    shape.w = 0;
    EXPECT_EQ(-100, op->forward(Mat(shape, nullptr), top, get_default_option()));
}

TEST_P(DepthwiseMembers, WeightsAndChannelsThatAreMissingReadAsZeros) {
    // Twice as many outputs as there are channels, weights for half of the channels.
    const Size size{8, 2 * info->height_multiple, 2 * info->width_multiple};
    const Layer layer(size, info->stride, 27);
    LayerParams params = layer.params(1, true);
    params.num_output = 16;
    params.weight_count = 9 * 4;
    std::vector<float> bias = layer.bias;
    bias.resize(16, 0.25f);
    auto op = make_loaded(GetParam(), params, layer.weights, bias);
    ExactBlock block = block_of(layer.bottom, layer.size);
    PoisoningAllocator blobs;
    Option opt = get_default_option();
    opt.blob_allocator = &blobs;
    Mat top;
    ASSERT_EQ(0, op->forward(block.view(bottom_shape(size)), top, opt));
    const auto values = values_of(top);
    const auto expected = layer.sums({1, 1, 1, 1}, true);
    const size_t plane = values.size() / 16;
    const auto planes = planes_of(top);
    for (size_t i = 0; i < planes.size(); ++i) {
        if (i < 4 * plane) {
            ASSERT_LE(std::abs(planes[i] - expected[i].value),
                      sum_error_bound(expected[i].terms, expected[i].magnitude));
        } else {
            ASSERT_EQ(bias[i / plane], planes[i]);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(All, DepthwiseMembers, testing::ValuesIn(members), class_name_of);

TEST(Depthwise, OneRowAStepOnEightByEightMatchesThePlainConvolution) {
    const Layer layer({3, 8, 8}, 1, 30);
    const LayerParams params = layer.params(1, true);
    auto op =
        make_loaded("Depthewise_Convolution_3x3s1_Float_SSE_M1", params, layer.weights, layer.bias);
    auto plain =
        make_loaded("ConvolutionDepthwise_Float_Fallback", params, layer.weights, layer.bias);
    ExactBlock block(layer.bottom);
    Mat top, plain_top;
    ASSERT_EQ(0, op->forward(block.view(chw(3, 8, 8)), top, get_default_option()));
    ASSERT_EQ(0, plain->forward(block.view(chw(3, 8, 8)), plain_top, get_default_option()));
    EXPECT_TRUE(top.shape == plain_top.shape);
    expect_same_sums(layer.sums({1, 1, 1, 1}, true), values_of(top), values_of(plain_top));
}

TEST(Depthwise, ThreeBlocksOfFourChannelsAreTwelveChannelsForTheGroups) {
    const auto weights = random_floats(9 * 12, 28);
    const auto bias = random_floats(12, 29);
    LayerParams params;
    params.num_output = 12;
    params.kernel = 3;
    params.weight_count = 9 * 12;
    params.group = 4;
    auto op = make_loaded("Depthewise_Convolution_3x3s1_Float_SSE_C4HW4_M1", params, weights, bias);
    EXPECT_TRUE(op->check_forward(c4hw4(12, 4, 4)));
    params.group = 5;
    ASSERT_EQ(0, load(*op, params, weights.data(), bias.data()));
    EXPECT_FALSE(op->check_forward(c4hw4(12, 4, 4)));
}

}  // namespace
