// The four operators that activate and change the layout.

#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <limits>

#include "support/recorders.h"
#include "support/tensors.h"

namespace {

using namespace TarnoCPU;
using namespace testing_support;

constexpr unsigned int seed = 20240611;

struct Row {
    const char* name;
    const char* unit;
    bool to_c4hw4;
    double ceiling;
};

const Row rows[] = {
    {"ReLU_Float_SSE_CHW_To_C4HW4", "relu_float_sse_chw_to_c4hw4", true,
     std::numeric_limits<double>::infinity()},
    {"ReLU_Float_SSE_C4HW4_To_CHW", "relu_float_sse_c4hw4_to_chw", false,
     std::numeric_limits<double>::infinity()},
    {"ReLU6_Float_SSE_CHW_To_C4HW4", "relu6_float_sse_chw_to_c4hw4", true, 6.0},
    {"ReLU6_Float_SSE_C4HW4_To_CHW", "relu6_float_sse_c4hw4_to_chw", false, 6.0},
};

class ReluRelayoutTest : public testing::TestWithParam<Row> {};

INSTANTIATE_TEST_SUITE_P(AllFour, ReluRelayoutTest, testing::ValuesIn(rows),
                         [](const auto& info) { return std::string(info.param.name); });

std::unique_ptr<OperatorSISOInplace> loaded(const char* name, float slope = 0.0f) {
    auto op = make_operator<OperatorSISOInplace>(name);
    ParamDict pd;
    pd.set(0, slope);
    EXPECT_EQ(0, op->load(pd, ModelBinFromTarnoWeightBias(nullptr, nullptr), {nullptr, 0, 0}));
    EXPECT_EQ(name, op->name());
    return op;
}

double activated(double x, double ceiling) {
    return std::min(std::max(x, 0.0), ceiling);
}

/// Both layouts of one tensor of C channels of H x W, the second from the first element by element.
std::vector<float> c4hw4_of(const std::vector<float>& planar, int C, int H, int W) {
    std::vector<float> interleaved(planar.size());
    for (int q = 0; q < C; ++q) {
        for (int y = 0; y < H; ++y) {
            for (int x = 0; x < W; ++x) {
                const int at = ((q / 4) * H + y) * W * 4 + x * 4 + q % 4;
                interleaved[static_cast<size_t>(at)] =
                    planar[static_cast<size_t>((q * H + y) * W + x)];
            }
        }
    }
    return interleaved;
}

TEST_P(ReluRelayoutTest, EveryElementIsActivatedAndMovedForEverySizeOfPlane) {
    SCOPED_TRACE(seed);
    auto op = loaded(GetParam().name);
    for (int C : {4, 8, 16}) {
        for (int H : {1, 2, 3, 5}) {
            for (int W : {1, 2, 3, 4, 5, 7, 8, 9}) {
                SCOPED_TRACE(testing::Message() << C << " x " << H << " x " << W);
                const auto planar =
                    random_floats(static_cast<size_t>(C) * H * W, seed, -9.0f, 9.0f);
                const auto interleaved = c4hw4_of(planar, C, H, W);
                PoisoningAllocator workspace;
                Option opt;
                opt.workspace_allocator = &workspace;
                const TensorShape planar_shape = chw(C, H, W);
                const TensorShape interleaved_shape(TensorShape::C4HW4, C / 4, H, W * 4, 4);
                const bool forth = GetParam().to_c4hw4;
                // A view of exactly its size: no element behind the last may be touched.
                std::vector<float> storage = forth ? planar : interleaved;
                const auto& wanted = forth ? interleaved : planar;
                Mat mat(forth ? planar_shape : interleaved_shape, storage.data(), nullptr);
                ASSERT_EQ(0, op->forward(mat, opt));
                EXPECT_EQ(forth ? interleaved_shape : planar_shape, mat.shape);
                EXPECT_EQ(&workspace, mat.allocator);
                const auto result = values_of(mat);
                ASSERT_EQ(wanted.size(), result.size());
                for (size_t i = 0; i < wanted.size(); ++i) {
                    ASSERT_EQ(static_cast<float>(activated(wanted[i], GetParam().ceiling)),
                              result[i])
                        << i;
                }
            }
        }
    }
}

TEST_P(ReluRelayoutTest, TheOldBlockIsActivatedInPlaceAndReleased) {
    auto op = loaded(GetParam().name);
    PoisoningAllocator heap, workspace, blobs;
    Option opt;
    opt.workspace_allocator = &workspace;
    opt.blob_allocator = &blobs;
    {
        Mat mat(chw(4, 1, 4), &heap);
        for (int i = 0; i < 16; ++i)
            mat.ptr<float>()[i] = -1.0f;
        Mat sharer = mat;
        ASSERT_EQ(0, op->forward(mat, opt));
        EXPECT_EQ(std::vector<float>(16, 0.0f), values_of(sharer));
        EXPECT_EQ(1, *sharer.refcount);
        EXPECT_EQ(1, workspace.calls);
        EXPECT_EQ(0, blobs.calls);
    }
    EXPECT_EQ(0, heap.alive);
    EXPECT_EQ(0, workspace.alive);
}

TEST_P(ReluRelayoutTest, WithoutMemoryTheTensorStaysInItsLayoutAndIsActivated) {
    auto op = loaded(GetParam().name);
    PoisoningAllocator workspace;
    workspace.fail = true;
    Option opt;
    opt.workspace_allocator = &workspace;
    Mat mat(chw(4, 1, 4), nullptr);
    for (int i = 0; i < 16; ++i)
        mat.ptr<float>()[i] = i % 2 == 0 ? -1.0f : 8.0f;
    void* block = mat.data;
    EXPECT_EQ(-100, op->forward(mat, opt));
    EXPECT_EQ(1, workspace.calls);
    EXPECT_EQ(block, mat.data);
    EXPECT_EQ(chw(4, 1, 4), mat.shape);
    for (int i = 0; i < 16; ++i) {
        EXPECT_EQ(i % 2 == 0 ? 0.0f : static_cast<float>(activated(8.0, GetParam().ceiling)),
                  values_of(mat)[static_cast<size_t>(i)]);
    }
}

TEST_P(ReluRelayoutTest, ANanAndANegativeZeroBecomePlainZero) {
    auto op = loaded(GetParam().name);
    const float nan = std::numeric_limits<float>::quiet_NaN();
    for (int w : {4, 12}) {
        Mat mat(chw(4, 1, w), nullptr);
        for (int i = 0; i < 4 * w; ++i)
            mat.ptr<float>()[i] = i % 2 == 0 ? nan : -0.0f;
        ASSERT_EQ(0, op->forward(mat, get_default_option()));
        for (float value : values_of(mat)) {
            EXPECT_EQ(0.0f, value);
            EXPECT_FALSE(std::signbit(value));
        }
    }
    // Five floats: the last goes through the tail. The result has no room for it, the block has.
    Mat mat(chw(5, 1, 1), nullptr);
    for (int i = 0; i < 5; ++i)
        mat.ptr<float>()[i] = nan;
    Mat sharer = mat;
    op->forward(mat, get_default_option());
    EXPECT_EQ(std::vector<float>(5, 0.0f), values_of(sharer));
}

TEST_P(ReluRelayoutTest, InfinityMeetsTheCeiling) {
    auto op = loaded(GetParam().name);
    Mat mat(chw(4, 1, 4), nullptr);
    for (int i = 0; i < 16; ++i)
        mat.ptr<float>()[i] = std::numeric_limits<float>::infinity();
    ASSERT_EQ(0, op->forward(mat, get_default_option()));
    EXPECT_EQ(static_cast<float>(GetParam().ceiling), values_of(mat)[0]);
}

TEST_P(ReluRelayoutTest, SlopeIsAcceptedAndNotUsed) {
    auto op = loaded(GetParam().name, 0.5f);
    Mat mat(chw(4, 1, 4), nullptr);
    for (int i = 0; i < 16; ++i)
        mat.ptr<float>()[i] = -2.0f;
    ASSERT_EQ(0, op->forward(mat, get_default_option()));
    EXPECT_EQ(std::vector<float>(16, 0.0f), values_of(mat));
}

TEST_P(ReluRelayoutTest, AllThreeLayoutsOfFloatsPassTheCheckAndNothingElse) {
    auto op = loaded(GetParam().name);
    for (int layout = 0; layout < 6; ++layout) {
        TensorShape shape(static_cast<TensorShape::Layout>(layout), 4, 1, 4, 4);
        EXPECT_EQ(layout == 1 || layout == 3 || layout == 4, op->check_forward(shape)) << layout;
        shape.elem_size = 2;
        EXPECT_FALSE(op->check_forward(shape)) << layout;
    }
}

TEST_P(ReluRelayoutTest, TheLayoutThatComesInIsNotLookedAtAgain) {
    // A tensor that is already where it should go is moved all the same, by its numbers.
    auto op = loaded(GetParam().name);
    const bool forth = GetParam().to_c4hw4;
    const auto values = random_floats(32, seed, 0.0f, 5.0f);
    for (int layout : {1, 3, 4}) {
        Mat mat = Mat::from_float_array(values.data(), 4, 2, 4,
                                        static_cast<TensorShape::Layout>(layout), nullptr);
        ASSERT_EQ(0, op->forward(mat, get_default_option()));
        EXPECT_EQ(forth ? TensorShape(TensorShape::C4HW4, 1, 2, 16, 4) : chw(16, 2, 1), mat.shape);
    }
}

TEST_P(ReluRelayoutTest, ATensorOfOtherElementSizeRaisesTheAssertion) {
    auto op = loaded(GetParam().name);
    AssertRecorder assertions;
    Mat mat(TensorShape(TensorShape::CHW, 4, 1, 4, 2), nullptr);
    EXPECT_EQ(-100, op->forward(mat, get_default_option()));
    ASSERT_EQ(1u, assertions.count());
    EXPECT_EQ("false && \"Invalid forward pre-conditions\"", assertions.last().condition);
    EXPECT_EQ(GetParam().unit, assertions.last().source);
}

TEST_P(ReluRelayoutTest, AnEmptyTensorAndSizesBeyondIntGiveTheFailureValue) {
    auto op = loaded(GetParam().name);
    Mat nothing(chw(4, 0, 4), nullptr);
    EXPECT_EQ(-100, op->forward(nothing, get_default_option()));
    float one = 1.0f;
    Mat negative(chw(-1, -1, 1), &one, nullptr);
    EXPECT_EQ(-100, op->forward(negative, get_default_option()));
}

TEST(ReluRelayout, OfEightChannelsOfTwoByThreeHasTheKnownShape) {
    Mat mat = random_tensor(8, 2, 3, seed);
    ASSERT_EQ(0, loaded("ReLU_Float_SSE_CHW_To_C4HW4")->forward(mat, get_default_option()));
    EXPECT_EQ(TensorShape(TensorShape::C4HW4, 2, 2, 12, 4), mat.shape);
}

TEST(ReluRelayout, ThereAndBackIsTheActivationAlone) {
    for (int C : {4, 8, 12}) {
        Mat mat = random_tensor(C, 3, 5, seed);
        const auto before = values_of(mat);
        ASSERT_EQ(0, loaded("ReLU_Float_SSE_CHW_To_C4HW4")->forward(mat, get_default_option()));
        ASSERT_EQ(0, loaded("ReLU_Float_SSE_C4HW4_To_CHW")->forward(mat, get_default_option()));
        EXPECT_EQ(chw(C, 3, 5), mat.shape);
        const auto after = values_of(mat);
        for (size_t i = 0; i < before.size(); ++i) {
            EXPECT_EQ(std::max(before[i], 0.0f), after[i]);
        }
    }
}

TEST(ReluRelayout, ChannelsBeyondTheLastWholeBlockAreLost) {
    for (int C : {5, 6, 7}) {
        SCOPED_TRACE(C);
        PoisoningAllocator workspace;
        Option opt;
        opt.workspace_allocator = &workspace;
        Mat mat = random_tensor(C, 2, 3, seed, 0.0f, 1.0f);
        const auto before = values_of(mat);
        ASSERT_EQ(0, loaded("ReLU_Float_SSE_CHW_To_C4HW4")->forward(mat, opt));
        EXPECT_EQ(TensorShape(TensorShape::C4HW4, 1, 2, 12, 4), mat.shape);
        EXPECT_EQ(c4hw4_of(std::vector<float>(before.begin(), before.begin() + 24), 4, 2, 3),
                  values_of(mat));
    }
}

TEST(ReluRelayout, FewerChannelsThanABlockGiveTheFailureValueAndStayActivated) {
    for (int C : {1, 2, 3}) {
        Mat mat = random_tensor(C, 2, 3, seed);
        const auto before = values_of(mat);
        EXPECT_EQ(-100, loaded("ReLU_Float_SSE_CHW_To_C4HW4")->forward(mat, get_default_option()));
        EXPECT_EQ(chw(C, 2, 3), mat.shape);
        const auto after = values_of(mat);
        for (size_t i = 0; i < before.size(); ++i) {
            EXPECT_EQ(std::max(before[i], 0.0f), after[i]);
        }
    }
}

TEST(ReluRelayout, RowsThatAreNoWholePixelsAreCountedAsIfTheyWere) {
    // {C4HW4, 2, 2, 6}: one column of four lanes per row, four floats further for the next.
    std::vector<float> values(24);
    for (size_t i = 0; i < values.size(); ++i)
        values[i] = static_cast<float>(i);
    Mat mat(TensorShape(TensorShape::C4HW4, 2, 2, 6, 4), values.data(), nullptr);
    ASSERT_EQ(0, loaded("ReLU_Float_SSE_C4HW4_To_CHW")->forward(mat, get_default_option()));
    EXPECT_EQ(chw(8, 2, 1), mat.shape);
    EXPECT_EQ((std::vector<float>{0, 4, 1, 5, 2, 6, 3, 7, 8, 12, 9, 13, 10, 14, 11, 15}),
              values_of(mat));
}

}  // namespace
