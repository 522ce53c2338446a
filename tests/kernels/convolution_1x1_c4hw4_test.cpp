// What is odd about the 1x1 convolutions on blocks of four channels.

#include "support/blocked_convolutions.h"

namespace {

using namespace TarnoCPU;
using namespace testing_support;

const char* const members[] = {
    "Convolution_1x1s1_Float_SSE_C4HW4_M1", "Convolution_1x1s1_Float_SSE_C4HW4_M2",
    "Convolution_1x1s1_Float_SSE_C4HW4_M3", "Convolution_1x1s1_Float_SSE_C4HW4_M4",
    "Convolution_1x1s1_Float_SSE_C4HW4_M5", "Convolution_1x1s1_Float_SSE_C4HW4_M6",
    "Convolution_1x1s1_Float_SSE_C4HW4_M7",
};

struct Layer {
    int inputs, outputs;
    std::vector<float> weights, bias;

    Layer(int inputs, int outputs, unsigned int seed)
        : inputs(inputs),
          outputs(outputs),
          weights(random_floats(static_cast<size_t>(inputs) * outputs, seed)),
          bias(random_floats(outputs, seed + 1)) {}

    std::unique_ptr<OperatorSISO> load(const char* name, bool with_bias) const {
        LayerParams params;
        params.num_output = outputs;
        params.kernel = 1;
        params.bias = with_bias;
        params.weight_count = inputs * outputs;
        params.num_input = inputs;
        return make_loaded(name, params, weights, bias);
    }
};

// The walk in steps of `pixels`, on memory with room behind it. A step that is longer than what is
// left of its row takes pixels of the next one.
std::vector<ExactSum> walk(const Layer& layer, int h, int columns, int pixels,
                           const std::vector<float>& bottom, const std::vector<ExactSum>& start) {
    const size_t row = static_cast<size_t>(columns) * 4;
    const size_t plane = row * h;
    const size_t room = row + 64;
    std::vector<float> in = bottom;
    in.resize(in.size() + room, 0.0f);
    std::vector<ExactSum> out = start;
    out.resize(out.size() + room);
    for (int ob = 0; ob < layer.outputs / 4; ++ob) {
        for (int ib = 0; ib < layer.inputs / 4; ++ib) {
            for (int y = 0; y < h; ++y) {
                for (int x = 0; x < columns; x += pixels) {
                    for (int pixel = x; pixel < x + pixels; ++pixel) {
                        const size_t place = y * row + static_cast<size_t>(pixel) * 4;
                        for (int n = 0; n < 4; ++n) {
                            for (int k = 0; k < 4; ++k) {
                                const float w =
                                    layer.weights[(4 * ob + n) * layer.inputs + 4 * ib + k];
                                out[ob * plane + place + n].add(double{in[ib * plane + place + k]} *
                                                                w);
                            }
                        }
                    }
                }
            }
        }
    }
    out.resize(start.size());
    return out;
}

class Convolution1x1Blocks : public testing::TestWithParam<const char*> {};

TEST_P(Convolution1x1Blocks, WithoutABiasTheSumsAddToWhatTheTopHolds) {
    const Layer layer(8, 12, 30);
    const int h = 3, columns = 16;
    const auto bottom = random_floats(8 * h * columns, 32);
    auto op = layer.load(GetParam(), false);
    for (bool zeros : {true, false}) {
        std::vector<float> before(12 * h * columns, 0.0f);
        if (!zeros) before = random_floats(before.size(), 33);
        std::vector<ExactSum> start(before.size());
        for (size_t i = 0; i < before.size(); ++i) start[i].add(before[i]);
        ExactBlock block(bottom), top_block(before);
        Mat top = top_block.view(c4hw4(12, h, columns));
        ASSERT_EQ(0, op->forward(block.view(c4hw4(8, h, columns)), top, get_default_option()));
        EXPECT_EQ(top_block.data(), top.data);
        expect_sums(walk(layer, h, columns, 1, bottom, start), values_of(top));
    }
}

TEST_P(Convolution1x1Blocks, WithABiasTheOldContentsOfTheTopDoNotMatter) {
    const Layer layer(4, 4, 34);
    const int h = 2, columns = 16;
    const auto bottom = random_floats(4 * h * columns, 35);
    auto op = layer.load(GetParam(), true);
    Mat top = Mat::from_float_array(random_floats(4 * h * columns, 36).data(), columns * 4, h, 1,
                                    TensorShape::C4HW4, nullptr);
    ExactBlock block(bottom);
    ASSERT_EQ(0, op->forward(block.view(c4hw4(4, h, columns)), top, get_default_option()));
    const auto first = values_of(top);
    ASSERT_EQ(0, op->forward(block.view(c4hw4(4, h, columns)), top, get_default_option()));
    EXPECT_EQ(first, values_of(top));
}

TEST_P(Convolution1x1Blocks, FewerThanFourOutputsGiveNothing) {
    const Layer layer(4, 3, 37);
    auto op = layer.load(GetParam(), true);
    ExactBlock block(random_floats(4 * 64, 38));
    Mat top;
    EXPECT_EQ(-100, op->forward(block.view(c4hw4(4, 4, 16)), top, get_default_option()));
}

TEST_P(Convolution1x1Blocks, OutputsBehindTheLastWholeBlockAreLeftOut) {
    const Layer layer(4, 7, 39);
    auto op = layer.load(GetParam(), true);
    const auto bottom = random_floats(4 * 64, 40);
    ExactBlock block(bottom);
    Mat top;
    ASSERT_EQ(0, op->forward(block.view(c4hw4(4, 4, 16)), top, get_default_option()));
    EXPECT_TRUE(c4hw4(4, 4, 16) == top.shape);
    std::vector<ExactSum> start(4 * 64);
    for (size_t i = 0; i < start.size(); ++i) start[i].add(layer.bias[i % 4]);
    expect_sums(walk(layer, 4, 16, 1, bottom, start), values_of(top));
}

TEST_P(Convolution1x1Blocks, RowsThatAreNoWholePixelsStayInsideTheTensor) {
    const Layer layer(8, 8, 41);
    auto op = layer.load(GetParam(), true);
    for (int w : {1, 2, 3, 5, 6, 7, 9, 13}) {
        const TensorShape shape(TensorShape::C4HW4, 2, 3, w, 4);
        if (!op->check_forward(shape)) continue;
        ExactBlock block(random_floats(shape.total(), 42));
        ExactBlock top_block(std::vector<float>(shape.total()));
        Mat top = top_block.view(shape);
        ASSERT_EQ(0, op->forward(block.view(shape), top, get_default_option()));
    }
}

INSTANTIATE_TEST_SUITE_P(All, Convolution1x1Blocks, testing::ValuesIn(members), class_name_of);

TEST(Convolution1x1C4HW4, AStepThatIsLongerThanItsRowGoesOnInTheNextOne) {
    struct Member {
        const char* name;
        int pixels;
    };
    for (const Member& member : {Member{"Convolution_1x1s1_Float_SSE_C4HW4_M3", 4},
                                 Member{"Convolution_1x1s1_Float_SSE_C4HW4_M4", 16},
                                 Member{"Convolution_1x1s1_Float_SSE_C4HW4_M5", 16}}) {
        for (int h : {1, 2, 5}) {
            for (int columns : {1, 2, 3, 5, 6, 15, 17, 23}) {
                SCOPED_TRACE(testing::Message()
                             << member.name << ", " << h << "x" << columns << ", seed 43");
                const Layer layer(8, 8, 43);
                const auto bottom = random_floats(8 * h * columns, 45);
                auto op = layer.load(member.name, true);
                std::vector<ExactSum> start(8 * h * columns);
                for (size_t i = 0; i < start.size(); ++i)
                    start[i].add(layer.bias[i / (4 * h * columns) * 4 + i % 4]);
                ExactBlock block(bottom), top_block(std::vector<float>(start.size()));
                Mat top = top_block.view(c4hw4(8, h, columns));
                ASSERT_EQ(0,
                          op->forward(block.view(c4hw4(8, h, columns)), top, get_default_option()));
                ASSERT_NO_FATAL_FAILURE(expect_sums(
                    walk(layer, h, columns, member.pixels, bottom, start), values_of(top)));
            }
        }
    }
}

TEST(Convolution1x1C4HW4, M4AndM5GiveIdenticalBits) {
    const Layer layer(20, 16, 46);
    const auto bottom = random_floats(20 * 5 * 48, 47);
    ExactBlock block(bottom);
    Mat fourth, fifth;
    auto m4 = layer.load("Convolution_1x1s1_Float_SSE_C4HW4_M4", true);
    auto m5 = layer.load("Convolution_1x1s1_Float_SSE_C4HW4_M5", true);
    ASSERT_EQ(0, m4->forward(block.view(c4hw4(20, 5, 48)), fourth, get_default_option()));
    ASSERT_EQ(0, m5->forward(block.view(c4hw4(20, 5, 48)), fifth, get_default_option()));
    ASSERT_TRUE(fourth.shape == fifth.shape);
    EXPECT_EQ(0, std::memcmp(fourth.data, fifth.data, fourth.shape.total() * sizeof(float)));
}

TEST(Convolution1x1C4HW4, M6AndM7RefuseRowsOfOtherLengthsAndSaySo) {
    const Layer layer(4, 4, 48);
    struct Case {
        const char* name;
        int w;
        bool allowed;
    };
    for (const Case& c : {Case{"Convolution_1x1s1_Float_SSE_C4HW4_M6", 4, false},
                          Case{"Convolution_1x1s1_Float_SSE_C4HW4_M6", 8, true},
                          Case{"Convolution_1x1s1_Float_SSE_C4HW4_M6", 12, false},
                          Case{"Convolution_1x1s1_Float_SSE_C4HW4_M6", 16, true},
                          Case{"Convolution_1x1s1_Float_SSE_C4HW4_M7", 8, false},
                          Case{"Convolution_1x1s1_Float_SSE_C4HW4_M7", 12, false},
                          Case{"Convolution_1x1s1_Float_SSE_C4HW4_M7", 16, true},
                          Case{"Convolution_1x1s1_Float_SSE_C4HW4_M7", 24, false},
                          Case{"Convolution_1x1s1_Float_SSE_C4HW4_M7", 32, true}}) {
        SCOPED_TRACE(testing::Message() << c.name << " on rows of " << c.w);
        auto op = layer.load(c.name, true);
        const TensorShape shape(TensorShape::C4HW4, 1, 2, c.w, 4);
        ExactBlock block(std::vector<float>(shape.total(), 1.0f));
        LogRecorder log;
        AssertRecorder assertions;
        Mat top;
        EXPECT_EQ(c.allowed ? 0 : -100, op->forward(block.view(shape), top, get_default_option()));
        EXPECT_EQ(c.allowed ? 0u : 1u, assertions.count());
        ASSERT_EQ(c.allowed ? 0u : 1u, log.lines.size());
        if (c.allowed) continue;
        EXPECT_EQ(Tarno::LogLevel::Debug, log.lines[0].level);
        EXPECT_EQ("Tarno", log.lines[0].tag);
        EXPECT_EQ("tensor shape is not allowed !!!", log.lines[0].text);
    }
}

TEST(Convolution1x1C4HW4, AnotherLayoutIsNoMatterOfRowLengths) {
    const Layer layer(4, 4, 49);
    for (const char* name :
         {"Convolution_1x1s1_Float_SSE_C4HW4_M6", "Convolution_1x1s1_Float_SSE_C4HW4_M7"}) {
        auto op = layer.load(name, true);
        LogRecorder log;
        EXPECT_FALSE(op->check_forward(chw(4, 4, 12)));
        EXPECT_TRUE(log.lines.empty());
    }
}

}  // namespace
