#include <gtest/gtest.h>

#include "support/recorders.h"
#include "support/tensors.h"

namespace {

using namespace TarnoCPU;
using namespace testing_support;

TEST(ParamDict, AFreshEntryGivesTheDefaultAndAStoredZeroWins) {
    ParamDict pd;
    EXPECT_EQ(7, pd.get(3, 7));
    EXPECT_EQ(2.5f, pd.get(3, 2.5f));
    pd.set(3, 0);
    EXPECT_EQ(0, pd.get(3, 7));
}

TEST(ParamDict, AFloatReadAsAnIntGivesItsBits) {
    ParamDict pd;
    pd.set(1, 2.5f);
    EXPECT_EQ(0x40200000, pd.get(1, 0));
    pd.set(2, 0);
    EXPECT_EQ(0.0f, pd.get(2, 1.0f));
}

TEST(ParamDict, MatsAreSharedAndClearReleasesThem) {
    PoisoningAllocator allocator;
    ParamDict pd;
    {
        const Mat mat(chw(1, 1, 3), &allocator);
        pd.set(19, mat);
        EXPECT_EQ(mat.data, pd.get(19, Mat()).data);
    }
    EXPECT_EQ(1, allocator.alive);
    const ParamDict copy = pd;
    pd.clear();
    EXPECT_EQ(1, allocator.alive);
    EXPECT_TRUE(pd.get(19, Mat()).empty());
    EXPECT_FALSE(copy.get(19, Mat()).empty());
}

TEST(ParamDict, IdsOutOfRangeReadAsAbsent) {
    ParamDict pd;
    pd.set(20, 1);
    pd.set(-1, 1);
    EXPECT_EQ(5, pd.get(20, 5));
    EXPECT_EQ(5, pd.get(-1, 5));
}

TEST(ModelBin, ACountOfZeroGivesAnEmptyFlatMat) {
    const Mat mat = ModelBinFromTarnoWeightBias(nullptr, nullptr).load(0, 0, 0);
    EXPECT_TRUE(mat.shape == TensorShape(TensorShape::FLAT, 1, 1, 0, 4));
    EXPECT_EQ(nullptr, mat.data);
}

TEST(ModelBin, WeightBiasHandsOutFreshFlatCopies) {
    const float weights[3] = {1, 2, 3};
    const float bias[2] = {4, 5};
    const ModelBinFromTarnoWeightBias mb(weights, bias);
    const Mat w = mb.load(3, 0, 9);
    EXPECT_TRUE(w.shape == TensorShape(TensorShape::FLAT, 1, 1, 3, 4));
    EXPECT_NE(static_cast<const void*>(weights), w.data);
    EXPECT_EQ((std::vector<float>{1, 2, 3}), values_of(w));
    EXPECT_EQ((std::vector<float>{4, 5}), values_of(mb.load(2, 1, 0)));
    EXPECT_NE(w.data, mb.load(3, 0, 0).data);
    EXPECT_EQ(4, mb.load(4, 7, 0).shape.w);  // an unknown type copies nothing
}

TEST(ModelBin, MultiSelectsByIndex) {
    const float a[1] = {1}, b[1] = {2}, c[1] = {3}, d[1] = {4};
    const float* weights[2] = {a, b};
    const float* bias[2] = {c, d};
    const ModelBinMultiFromTarnoWeightBias mb(weights, bias);
    EXPECT_EQ(2.0f, values_of(mb.load(1, 0, 1))[0]);
    EXPECT_EQ(3.0f, values_of(mb.load(1, 1, 0))[0]);
    EXPECT_TRUE(mb.load(0, 0, 0).empty());
}

TEST(ModelBin, BatchnormHasItsFourArraysInTheOrderGiven) {
    const float a[1] = {1}, b[1] = {2}, c[1] = {3}, d[1] = {4};
    const ModelBinFromTarnoBatchnorm mb(a, b, c, d);
    for (int type = 0; type < 4; ++type) {
        EXPECT_EQ(static_cast<float>(type + 1), values_of(mb.load(1, type, 0))[0]);
    }
}

TEST(DefaultOption, HasLightModeAndOneThread) {
    const Option& opt = get_default_option();
    EXPECT_TRUE(opt.lightmode);
    EXPECT_EQ(1, opt.num_threads);
    EXPECT_EQ(nullptr, opt.blob_allocator);
    EXPECT_EQ(nullptr, opt.workspace_allocator);
}

TEST(DefaultOption, NoThreadsAssertsAndKeepsTheOldDefault) {
    const Option before = get_default_option();
    AssertRecorder assertions;
    Option bad;
    bad.num_threads = 0;
    bad.lightmode = false;
    EXPECT_EQ(-1, set_default_option(bad));
    EXPECT_TRUE(get_default_option().lightmode);
    ASSERT_EQ(1u, assertions.count());
    EXPECT_EQ("false && \"invalid option num_threads %d\\n\"", assertions.last().condition);
    EXPECT_EQ("option", assertions.last().source);
    EXPECT_EQ(25, assertions.last().line);

    Option other;
    other.num_threads = 3;
    EXPECT_EQ(0, set_default_option(other));
    EXPECT_EQ(3, get_default_option().num_threads);
    EXPECT_EQ(0, set_default_option(before));
}

}  // namespace
