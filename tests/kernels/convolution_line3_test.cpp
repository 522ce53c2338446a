// The vector convolutions with three taps in a line.
#include <gtest/gtest.h>

#include <cmath>
#include <tuple>

#include "support/recorders.h"
#include "support/tensors.h"

namespace {

using namespace TarnoCPU;
using namespace testing_support;

constexpr unsigned int seed = 20261122;

struct Shape {
    int in, out, h, w;
};

class ConvolutionLine3 : public ::testing::TestWithParam<const char*> {
protected:
    bool down() const { return std::string(GetParam()).find("3x1") != std::string::npos; }

    std::unique_ptr<OperatorSISO> loaded(const Shape& s, int pad_h, int pad_w, bool bias) {
        auto op = make_operator(GetParam());
        ParamDict pd;
        pd.set(0, s.out);
        pd.set(1, down() ? 1 : 3);
        pd.set(2, down() ? 3 : 1);
        pd.set(3, 1);
        pd.set(5, 1);
        pd.set(7, pad_w);
        pd.set(8, pad_h);
        pd.set(9, bias ? 1 : 0);
        pd.set(10, s.in * s.out * 3);
        pd.set(12, s.in);
        weights = random_floats(static_cast<size_t>(s.in) * s.out * 3, seed);
        biases = random_floats(static_cast<size_t>(s.out), seed + 1);
        EXPECT_EQ(0, op->load(pd, ModelBinFromTarnoWeightBias(weights.data(), biases.data()),
                              {nullptr, 0, 0}));
        return op;
    }

    /// Element by element in double on the flat bordered block.
    void expect_reference(const Shape& s, int pad_h, int pad_w, bool bias, const Mat& bottom,
                          const Mat& top) {
        ASSERT_TRUE(top.shape == chw(s.out, s.h, s.w));
        const int bw = s.w + 2 * pad_w, bh = s.h + 2 * pad_h;
        std::vector<double> block(static_cast<size_t>(s.in) * bh * bw, 0.0);
        for (int q = 0; q < s.in; ++q)
            for (int y = 0; y < s.h; ++y)
                for (int x = 0; x < s.w; ++x)
                    block[static_cast<size_t>((q * bh + y + pad_h) * bw + x + pad_w)] =
                        bottom.ptr<float>()[(q * s.h + y) * s.w + x];
        for (int p = 0; p < s.out; ++p) {
            for (int y = 0; y < s.h; ++y) {
                for (int x = 0; x < s.w; ++x) {
                    double sum = bias ? biases[static_cast<size_t>(p)] : 0.0;
                    double size = std::fabs(sum);
                    for (int q = 0; q < s.in; ++q) {
                        for (int k = 0; k < 3; ++k) {
                            const size_t at =
                                static_cast<size_t>((q * bh + y) * bw + x + k * (down() ? bw : 1));
                            if (at >= block.size()) continue;
                            const double product =
                                block[at] * weights[static_cast<size_t>((p * s.in + q) * 3 + k)];
                            sum += product;
                            size += std::fabs(product);
                        }
                    }
                    ASSERT_NEAR(sum, top.ptr<float>()[(p * s.h + y) * s.w + x],
                                sum_error_bound(s.in * 3, size))
                        << p << " " << y << " " << x;
                }
            }
        }
    }

    std::vector<float> weights, biases;
};

TEST_P(ConvolutionLine3, AgreesWithTheSumInDoubleOverSizesPaddingsAndBias) {
    SCOPED_TRACE(seed);
    const Shape shapes[] = {{1, 1, 1, 1},  {1, 4, 3, 8},    {3, 5, 5, 7}, {4, 8, 6, 9},
                            {8, 3, 4, 16}, {16, 12, 9, 23}, {5, 6, 7, 3}, {12, 16, 16, 32}};
    PoisoningAllocator blobs, workspace;
    for (const Shape& s : shapes) {
        for (const auto& pads : {std::pair<int, int>{0, 0}, {0, 1}, {1, 0}, {1, 1}, {2, 2}}) {
            for (const bool bias : {false, true}) {
                SCOPED_TRACE(::testing::Message()
                             << s.in << " " << s.out << " " << s.h << " " << s.w << " pad "
                             << pads.first << " " << pads.second);
                auto op = loaded(s, pads.first, pads.second, bias);
                const Mat bottom = random_tensor(s.in, s.h, s.w, seed + 2);
                Option opt;
                opt.blob_allocator = &blobs;
                opt.workspace_allocator = &workspace;
                Mat top;
                ASSERT_EQ(0, op->forward(bottom, top, opt));
                EXPECT_EQ(&blobs, top.allocator);
                EXPECT_EQ(0, workspace.alive);
                expect_reference(s, pads.first, pads.second, bias, bottom, top);
            }
        }
    }
}

TEST_P(ConvolutionLine3, AFailedCheckRaisesTheAssertion) {
    auto op = loaded({4, 4, 4, 4}, 0, 0, true);
    AssertRecorder assertions;
    Mat top;
    EXPECT_EQ(-100, op->forward(Mat(TensorShape(TensorShape::C4HW4, 1, 4, 16, 4), nullptr), top,
                                Option()));
    ASSERT_EQ(1u, assertions.count());
    EXPECT_EQ("false && \"Invalid forward pre-conditions\"", assertions.last().condition);
    EXPECT_EQ("convolution_line3", assertions.last().source);
}

TEST_P(ConvolutionLine3, NoMemoryGivesTheFailureValueAndLeavesNothing) {
    for (int failing = 0; failing < 2; ++failing) {
        PoisoningAllocator blobs, workspace;
        (failing == 0 ? blobs : workspace).fail = true;
        auto op = loaded({4, 4, 4, 8}, 1, 1, true);
        Option opt;
        opt.blob_allocator = &blobs;
        opt.workspace_allocator = &workspace;
        Mat top;
        EXPECT_EQ(-100, op->forward(random_tensor(4, 4, 8, seed), top, opt));
        top.release();
        EXPECT_EQ(0, blobs.alive);
        EXPECT_EQ(0, workspace.alive);
    }
}

TEST_P(ConvolutionLine3, WithoutLoadItFails) {
    Mat top;
    EXPECT_EQ(-100, make_operator(GetParam())->forward(random_tensor(1, 4, 8, 1), top, Option()));
}

INSTANTIATE_TEST_SUITE_P(Both, ConvolutionLine3,
                         ::testing::Values("Convolution_1x3s1_Float_SSE_M1",
                                           "Convolution_3x1s1_Float_SSE_M1"),
                         [](const auto& info) { return std::string(info.param); });

}  // namespace
