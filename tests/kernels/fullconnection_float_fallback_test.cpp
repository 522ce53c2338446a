#include <gtest/gtest.h>

#include <climits>
#include <cmath>

#include "support/convolutions.h"
#include "support/recorders.h"
#include "support/tensors.h"

namespace {

using namespace TarnoCPU;
using namespace testing_support;

constexpr const char* name = "FullConnection_Float_Fallback";

struct Dense {
    int inputs, outputs;
    bool bias;
    std::vector<float> weights, biases;

    Dense(int inputs, int outputs, bool bias, unsigned int seed)
        : inputs(inputs),
          outputs(outputs),
          bias(bias),
          weights(random_floats(static_cast<size_t>(inputs) * outputs, seed)),
          biases(random_floats(static_cast<size_t>(outputs), seed + 1)) {}

    ParamDict params() const {
        ParamDict pd;
        pd.set(0, outputs);
        pd.set(1, inputs);
        pd.set(9, bias ? 1 : 0);
        pd.set(10, static_cast<int>(weights.size()));
        return pd;
    }
    ModelBinFromTarnoWeightBias bin() const {
        return ModelBinFromTarnoWeightBias(weights.data(), bias ? biases.data() : nullptr);
    }
    std::unique_ptr<OperatorSISO> load() const {
        auto op = make_operator(name);
        EXPECT_EQ(0, op->load(params(), bin(), {nullptr, 0, 0}));
        return op;
    }
    // Row p of `channels` weights, zeros behind the array.
    void expect_dot(const std::vector<float>& x, int channels, int p, float result) const {
        float chain = bias ? biases[static_cast<size_t>(p)] : 0.0f;
        double exact = chain, magnitude = std::fabs(chain);
        for (int i = 0; i < channels; ++i) {
            const size_t k = static_cast<size_t>(p) * channels + i;
            const float w = k < weights.size() ? weights[k] : 0.0f;
            const float v = x[static_cast<size_t>(i)];
            chain += w * v;
            exact += static_cast<double>(w) * v;
            magnitude += std::fabs(static_cast<double>(w) * v);
        }
        EXPECT_EQ(0, std::memcmp(&chain, &result, sizeof(float))) << chain << " " << result;
        EXPECT_NEAR(exact, result, sum_error_bound(channels + 1, magnitude));
    }
};

TEST(FullConnectionFloatFallback, EveryOutputIsOneFloatChain) {
    unsigned int seed = 110;
    for (const int inputs : {1, 3, 4, 5, 8, 129})
        for (const int outputs : {1, 3, 4, 5, 8, 10})
            for (const bool bias : {false, true}) {
                SCOPED_TRACE(testing::Message() << "seed " << seed << ", " << inputs << " -> "
                                                << outputs << ", bias " << bias);
                const Dense dense(inputs, outputs, bias, seed);
                auto x = random_floats(static_cast<size_t>(inputs), seed + 2);
                PoisoningAllocator blobs;
                Option opt;
                opt.blob_allocator = &blobs;
                Mat top;
                ASSERT_EQ(
                    0, dense.load()->forward(Mat(chw(inputs, 1, 1), x.data(), nullptr), top, opt));
                ASSERT_EQ(chw(outputs, 1, 1), top.shape);
                EXPECT_EQ(&blobs, top.allocator);
                const auto values = values_of(top);
                for (int p = 0; p < outputs; ++p) {
                    dense.expect_dot(x, inputs, p, values[static_cast<size_t>(p)]);
                }
                top.release();
                EXPECT_EQ(0, blobs.alive);
                seed += 3;
            }
}

TEST(FullConnectionFloatFallback, OfALargerBottomAsManyElementsAsItHasChannelsAreRead) {
    const Dense dense(3, 5, true, 120);
    const auto x = random_floats(3 * 4 * 4, 121);
    Mat top;
    ASSERT_EQ(0, dense.load()->forward(
                     Mat::from_float_array(x.data(), 4, 4, 3, TensorShape::CHW, nullptr), top,
                     get_default_option()));
    for (int p = 0; p < 5; ++p)
        dense.expect_dot(x, 3, p, values_of(top)[static_cast<size_t>(p)]);
}

TEST(FullConnectionFloatFallback, TheBottomsChannelsAndNotTheParameterCountTheInputs) {
    const Dense dense(3, 5, true, 122);
    const auto x = random_floats(7, 123);
    for (const int channels : {1, 2, 7}) {
        Mat top;
        ASSERT_EQ(0, dense.load()->forward(
                         Mat::from_float_array(x.data(), 1, 1, channels, TensorShape::CHW, nullptr),
                         top, get_default_option()));
        for (int p = 0; p < 5; ++p) {
            dense.expect_dot(x, channels, p, values_of(top)[static_cast<size_t>(p)]);
        }
    }
}

TEST(FullConnectionFloatFallback, MissingArraysFailTheLoadAndEveryForwardBehindIt) {
    const Dense dense(3, 2, true, 124);
    const auto bin = dense.bin();
    for (const int type : {0, 1}) {
        auto op = make_operator(name);
        EXPECT_EQ(-100, op->load(dense.params(), WithoutArray(bin, type, 0), {nullptr, 0, 0}));
        Mat top;
        EXPECT_EQ(-100, op->forward(random_tensor(3, 1, 1, 1), top, get_default_option()));
    }
    const Dense plain(3, 2, false, 124);
    auto op = make_operator(name);
    EXPECT_EQ(0, op->load(plain.params(), WithoutArray(plain.bin(), 1, 0), {nullptr, 0, 0}));
}

TEST(FullConnectionFloatFallback, CountsThatAreNoneAreRefused) {
    const Dense dense(3, 2, false, 125);
    for (const int outputs : {0, -1, INT_MAX}) {
        ParamDict pd = dense.params();
        pd.set(0, outputs);
        auto op = make_operator(name);
        ASSERT_EQ(0, op->load(pd, dense.bin(), {nullptr, 0, 0}));
        AssertRecorder assertions;
        Mat top;
        EXPECT_EQ(-100, op->forward(random_tensor(3, 1, 1, 1), top, get_default_option()));
    }
    Mat top;
    EXPECT_EQ(-100, dense.load()->forward(Mat(chw(0, 1, 1), nullptr), top, get_default_option()));
}

TEST(FullConnectionFloatFallback, AnAllocatorThatFailsGivesMinusHundred) {
    PoisoningAllocator blobs;
    blobs.fail = true;
    Option opt;
    opt.blob_allocator = &blobs;
    Mat top;
    EXPECT_EQ(-100, Dense(3, 2, false, 126).load()->forward(random_tensor(3, 1, 1, 1), top, opt));
}

TEST(FullConnectionFloatFallback, ATensorOfAnotherLayoutRaisesTheAssertion) {
    auto op = Dense(4, 2, false, 127).load();
    for (const TensorShape& shape :
         {TensorShape(TensorShape::C4HW4, 1, 1, 4, 4), TensorShape(TensorShape::CHW, 4, 1, 1, 2)}) {
        AssertRecorder assertions;
        Mat top;
        EXPECT_EQ(-100, op->forward(Mat(shape, nullptr), top, get_default_option()));
        ASSERT_EQ(1u, assertions.count());
        EXPECT_EQ("false && \"Invalid forward pre-conditions\"", assertions.last().condition);
        EXPECT_EQ("fullconnection_float_fallback", assertions.last().source);
    }
    EXPECT_EQ(name, op->name());
}

}  // namespace
