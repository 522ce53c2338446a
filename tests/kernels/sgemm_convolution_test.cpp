// The eleven convolutions that are one matrix product per layer or per channel.

#include <gtest/gtest.h>

#include <climits>

#include "support/matrix_convolutions.h"

namespace {

using namespace TarnoCPU;
using namespace testing_support;

constexpr unsigned int seed = 7041;

enum class Size { Keep, Shrink, Half };
enum class Scratch { None, Blob, Workspace };

struct Member {
    const char* name;
    const char* unit;
    int kernel_h, kernel_w, stride;
    Size size;
    Scratch col;
    bool pixel_major;
    bool depthwise;
    const char* text = "false && \"Invalid forward pre-conditions\"";
};

const Member members[] = {
    {"Convolution_1x1s1_Float_SGEMM", "convolution_1x1s1_float_sgemm", 1, 1, 1, Size::Keep,
     Scratch::None, false, false, "false && \"Invalid forward pre conditions\""},
    {"Convolution_1x1s2_Float_SGEMM", "convolution_1x1s2_float_sgemm", 1, 1, 2, Size::Half,
     Scratch::Workspace, false, false},
    {"Convolution_3x3s1_Float_SGEMM", "convolution_3x3s1_float_sgemm", 3, 3, 1, Size::Shrink,
     Scratch::Blob, false, false},
    {"Convolution_4x4s1_Float_SGEMM", "convolution_4x4s1_float_sgemm", 4, 4, 1, Size::Shrink,
     Scratch::Blob, false, false},
    {"Convolution_3x3s2_Float_SGEMM", "convolution_3x3s2_float_sgemm", 3, 3, 2, Size::Half,
     Scratch::Blob, false, false},
    {"Convolution_3x1s1_Float_SGEMM_M1", "convolution_3x1s1_float_sgemm_m1", 3, 1, 1, Size::Keep,
     Scratch::Workspace, false, false},
    {"Convolution_1x3s1_Float_SGEMM_M1", "convolution_1x3s1_float_sgemm_m1", 1, 3, 1, Size::Keep,
     Scratch::Workspace, false, false},
    {"Convolution_3x1s1_Float_SGEMM", "convolution_3x1s1_float_sgemm", 3, 1, 1, Size::Keep,
     Scratch::Blob, true, false},
    {"Convolution_1x3s1_Float_SGEMM", "convolution_1x3s1_float_sgemm", 1, 3, 1, Size::Keep,
     Scratch::Workspace, true, false},
    {"Depthewise_Convolution_3x3s1_Float_SGEMM", "depthewise_convolution_3x3s1_float_sgemm", 3, 3,
     1, Size::Shrink, Scratch::Workspace, false, true},
    {"Depthewise_Convolution_3x3s2_Float_SGEMM", "depthewise_convolution_3x3s2_float_sgemm", 3, 3,
     2, Size::Half, Scratch::Workspace, false, true},
};

ConvolutionProblem problem_of(const Member& member, int in, int out, int h, int w, int pad_h,
                              int pad_w, bool bias) {
    ConvolutionProblem p;
    p.depthwise = member.depthwise;
    p.in = in;
    p.out = member.depthwise ? in : out;
    p.h = h;
    p.w = w;
    p.kernel_h = member.kernel_h;
    p.kernel_w = member.kernel_w;
    p.stride_h = p.stride_w = member.stride;
    p.pad_h = pad_h;
    p.pad_w = pad_w;
    p.group = member.depthwise ? in : 1;
    p.has_bias = bias;
    p.fill(seed);
    return p;
}

int out_size(const Member& member, int size, int kernel, int pad) {
    switch (member.size) {
        case Size::Keep:
            return size;
        case Size::Shrink:
            return pad == 0 ? size - kernel + 1 : size;
        default:
            return size / 2;
    }
}

int out_h(const Member& m, const ConvolutionProblem& p) {
    return out_size(m, p.h, m.kernel_h, p.pad_h);
}
int out_w(const Member& m, const ConvolutionProblem& p) {
    return out_size(m, p.w, m.kernel_w, p.pad_w);
}

/// The padding with which the member is the convolution on paper.
int natural_pad(int kernel) {
    return kernel == 1 ? 0 : 1;
}

class SgemmConvolutionTest : public testing::TestWithParam<Member> {};

INSTANTIATE_TEST_SUITE_P(AllEleven, SgemmConvolutionTest, testing::ValuesIn(members),
                         [](const auto& info) { return std::string(info.param.name); });

/// 1x1 does not look at the padding; all others do.
class SgemmTapsTest : public testing::TestWithParam<Member> {};

INSTANTIATE_TEST_SUITE_P(AllButOneByOne, SgemmTapsTest,
                         testing::ValuesIn(std::begin(members) + 2, std::end(members)),
                         [](const auto& info) { return std::string(info.param.name); });

const int channel_counts[] = {1, 3, 4, 5, 8, 16};
const int sizes[][2] = {{4, 4}, {5, 5}, {4, 7}, {9, 6}, {8, 8}, {11, 19}, {6, 34}};

TEST_P(SgemmConvolutionTest, IsTheConvolutionOnPaperWithThePaddingThatItIsMadeFor) {
    SCOPED_TRACE(seed);
    const Member& member = GetParam();
    for (const auto& size : sizes) {
        // The gathering of 1x1 at stride 2 is on paper for even widths only; see below.
        if (member.kernel_h == 1 && member.stride == 2 && size[1] % 2 != 0) continue;
        for (int in : channel_counts) {
            for (int out : channel_counts) {
                if (member.depthwise && out != in) continue;
                for (bool bias : {false, true}) {
                    ConvolutionProblem p =
                        problem_of(member, in, out, size[0], size[1], natural_pad(member.kernel_h),
                                   natural_pad(member.kernel_w), bias);
                    SCOPED_TRACE(p.text());
                    PoisoningAllocator blobs, workspace;
                    Option opt;
                    opt.blob_allocator = &blobs;
                    opt.workspace_allocator = &workspace;
                    Mat top;
                    auto op = loaded_operator(member.name, p);
                    ASSERT_EQ(0, op->forward(p.bottom_view(), top, opt));
                    expect_near(convolution_on_paper(p, out_h(member, p), out_w(member, p), p.pad_h,
                                                     p.pad_w),
                                top);
                    if (HasFatalFailure()) return;
                }
            }
        }
    }
}

TEST_P(SgemmTapsTest, WithoutPaddingOrWithTooMuchOfItTheTapsRunOnInTheFlatBlock) {
    SCOPED_TRACE(seed);
    const Member& member = GetParam();
    for (const auto& size : sizes) {
        for (int in : {1, 3, 4}) {
            for (int pad_h : {0, 1, 2, 3}) {
                for (int pad_w : {0, 1, 2, 3}) {
                    ConvolutionProblem p =
                        problem_of(member, in, 5, size[0], size[1], pad_h, pad_w, true);
                    SCOPED_TRACE(p.text());
                    Mat top;
                    auto op = loaded_operator(member.name, p);
                    ASSERT_EQ(0, op->forward(p.bottom_view(), top, get_default_option()));
                    expect_near(convolution_on_flat_block(
                                    p, with_border(planes_of(p), pad_h, pad_h, pad_w, pad_w), in,
                                    out_h(member, p), out_w(member, p)),
                                top);
                    if (HasFatalFailure()) return;
                }
            }
        }
    }
}

TEST_P(SgemmConvolutionTest, RowsOfEveryLengthAreCopiedAndAddedToTheirEnd) {
    SCOPED_TRACE(seed);
    const Member& member = GetParam();
    std::vector<int> widths = {127, 128, 129, 130, 131, 133, 256, 259};
    for (int w = 4; w <= 42; ++w)
        widths.push_back(w);
    for (int w : widths) {
        if (member.kernel_h == 1 && member.stride == 2 && w % 2 != 0) continue;
        ConvolutionProblem p = problem_of(member, 3, 2, 5, w, natural_pad(member.kernel_h),
                                          natural_pad(member.kernel_w), true);
        SCOPED_TRACE(p.text());
        Mat top;
        auto op = loaded_operator(member.name, p);
        ASSERT_EQ(0, op->forward(p.bottom_view(), top, get_default_option()));
        expect_near(convolution_on_paper(p, out_h(member, p), out_w(member, p), p.pad_h, p.pad_w),
                    top);
        if (HasFatalFailure()) return;
    }
}

TEST_P(SgemmConvolutionTest, EveryScratchComesFromItsAllocatorAndGoesBack) {
    const Member& member = GetParam();
    for (int pad : {0, 1}) {
        ConvolutionProblem p = problem_of(member, 4, 6, 8, 10, pad, pad, true);
        SCOPED_TRACE(p.text());
        auto op = loaded_operator(member.name, p);
        RecordingAllocator blobs, workspace;
        Option opt;
        opt.blob_allocator = &blobs;
        opt.workspace_allocator = &workspace;
        Mat top;
        ASSERT_EQ(0, op->forward(p.bottom_view(), top, opt));

        const int pixels = out_h(member, p) * out_w(member, p);
        const int taps = p.in * member.kernel_h * member.kernel_w;
        std::vector<unsigned int> wanted_blobs = {RecordingAllocator::block(p.out * pixels)};
        std::vector<unsigned int> wanted_workspace;
        if (pad > 0) {
            wanted_workspace.push_back(
                RecordingAllocator::block(p.in * (p.h + 2 * pad) * (p.w + 2 * pad)));
        }
        if (member.col == Scratch::Blob) {
            wanted_blobs.push_back(RecordingAllocator::block(taps * pixels));
        } else if (member.col == Scratch::Workspace) {
            wanted_workspace.push_back(RecordingAllocator::block(taps * pixels));
        }
        if (member.pixel_major) {
            wanted_workspace.push_back(RecordingAllocator::block(p.out * pixels));
        }
        EXPECT_EQ(wanted_blobs, blobs.sizes);
        EXPECT_EQ(wanted_workspace, workspace.sizes);
        EXPECT_EQ(1, blobs.alive);
        EXPECT_EQ(0, workspace.alive);
        top.release();
        EXPECT_EQ(0, blobs.alive);
    }
}

TEST_P(SgemmConvolutionTest, EveryFailedAllocationGivesTheFailureValueAndLeavesNothingBehind) {
    const Member& member = GetParam();
    ConvolutionProblem p = problem_of(member, 4, 6, 8, 10, 1, 1, true);
    auto op = loaded_operator(member.name, p);
    for (int which = 0; which < 2; ++which) {
        for (int refuse_from = 0;; ++refuse_from) {
            RecordingAllocator blobs, workspace;
            (which == 0 ? blobs : workspace).refuse_from = refuse_from;
            Option opt;
            opt.blob_allocator = &blobs;
            opt.workspace_allocator = &workspace;
            Mat top;
            const int result = op->forward(p.bottom_view(), top, opt);
            const bool refused =
                static_cast<int>((which == 0 ? blobs : workspace).sizes.size()) > refuse_from;
            EXPECT_EQ(refused ? -100 : 0, result) << which << ' ' << refuse_from;
            top.release();
            EXPECT_EQ(0, blobs.alive);
            EXPECT_EQ(0, workspace.alive);
            if (!refused) {
                EXPECT_GT(refuse_from, 0);
                break;
            }
        }
    }
}

TEST_P(SgemmConvolutionTest, AFailedCheckRaisesTheAssertionOfItsUnit) {
    const Member& member = GetParam();
    ConvolutionProblem p = problem_of(member, 4, 4, 8, 8, 1, 1, false);
    auto op = loaded_operator(member.name, p);
    EXPECT_EQ(member.name, op->name());
    EXPECT_TRUE(op->check_forward(chw(4, 8, 8)));
    std::vector<float> storage(256);
    for (const TensorShape& shape :
         {TensorShape(TensorShape::C4HW4, 4, 8, 8, 4), TensorShape(TensorShape::FLAT, 4, 8, 8, 4),
          TensorShape(TensorShape::CHW, 4, 8, 8, 2), TensorShape()}) {
        AssertRecorder assertions;
        Mat top;
        EXPECT_FALSE(op->check_forward(shape));
        EXPECT_EQ(-100,
                  op->forward(Mat(shape, storage.data(), nullptr), top, get_default_option()));
        ASSERT_EQ(1u, assertions.count());
        EXPECT_EQ(member.text, assertions.last().condition);
        EXPECT_EQ(member.unit, assertions.last().source);
        EXPECT_TRUE(top.empty());
    }
}

TEST_P(SgemmConvolutionTest, AnOperatorWithoutWeightsOrBiasFailsToLoadAndToCompute) {
    const Member& member = GetParam();
    ConvolutionProblem p = problem_of(member, 4, 4, 8, 8, 1, 1, true);
    for (int missing = 0; missing < 2; ++missing) {
        auto op = make_operator(member.name);
        ParamDict pd = p.parameters();
        // No weights, or a bias of no channels.
        pd.set(missing == 0 ? 10 : 0, 0);
        EXPECT_EQ(-100, op->load(pd, p.arrays(), {nullptr, 0, 0}));
        pd = p.parameters();
        Mat top;
        if (op->check_forward(chw(4, 8, 8))) {
            EXPECT_EQ(-100, op->forward(p.bottom_view(), top, get_default_option()));
        }
        EXPECT_TRUE(top.empty());
    }
}

TEST_P(SgemmConvolutionTest, AnOperatorThatWasNeverLoadedGivesTheFailureValue) {
    AssertRecorder assertions;
    auto op = make_operator(GetParam().name);
    Mat top;
    EXPECT_EQ(-100, op->forward(random_tensor(4, 8, 8, seed), top, get_default_option()));
}

TEST_P(SgemmConvolutionTest, NoBiasIsReadWithoutABiasTerm) {
    const Member& member = GetParam();
    ConvolutionProblem p = problem_of(member, 4, 4, 8, 8, 1, 1, false);
    auto op = make_operator(member.name);
    EXPECT_EQ(0, op->load(p.parameters(), ModelBinFromTarnoWeightBias(p.weights.data(), nullptr),
                          {nullptr, 0, 0}));
    Mat top;
    EXPECT_EQ(0, op->forward(p.bottom_view(), top, get_default_option()));
}

TEST_P(SgemmConvolutionTest, TheKernelIsThatOfTheClassWhateverTheParametersSay) {
    const Member& member = GetParam();
    ConvolutionProblem p = problem_of(member, 4, 4, 8, 8, natural_pad(member.kernel_h),
                                      natural_pad(member.kernel_w), true);
    auto op = make_operator(member.name);
    ParamDict pd = p.parameters();
    // Kernel, dilation and stride of 0, as they are when a table is made by hand.
    for (int id = 1; id <= 6; ++id)
        pd.set(id, 0);
    ASSERT_EQ(0, op->load(pd, p.arrays(), {nullptr, 0, 0}));
    Mat top;
    ASSERT_EQ(0, op->forward(p.bottom_view(), top, get_default_option()));
    expect_near(convolution_on_paper(p, out_h(member, p), out_w(member, p), p.pad_h, p.pad_w), top);
}

TEST_P(SgemmConvolutionTest, ASizeOfNothingGivesTheFailureValue) {
    const Member& member = GetParam();
    ConvolutionProblem p = problem_of(member, 4, 4, 8, 8, 0, 0, true);
    auto op = loaded_operator(member.name, p);
    for (const auto& size : {std::pair<int, int>{0, 8}, {8, 0}, {-8, -8}}) {
        Mat top;
        EXPECT_EQ(-100, op->forward(Mat(chw(4, size.first, size.second), p.bottom.data(), nullptr),
                                    top, get_default_option()));
    }
    // Smaller than the kernel, or nothing left of a half.
    if (member.size != Size::Keep) {
        Mat top;
        EXPECT_EQ(-100, op->forward(Mat(chw(4, 1, 1), p.bottom.data(), nullptr), top,
                                    get_default_option()));
        EXPECT_TRUE(top.empty());
    }
}

TEST_P(SgemmConvolutionTest, ANegativePaddingGivesTheFailureValue) {
    const Member& member = GetParam();
    ConvolutionProblem p = problem_of(member, 4, 4, 8, 8, -1, -1, true);
    auto op = loaded_operator(member.name, p);
    Mat top;
    EXPECT_EQ(-100, op->forward(p.bottom_view(), top, get_default_option()));
    // These classes know no padding that keeps the size.
    ConvolutionProblem keep = problem_of(member, 4, 4, 8, 8, -233, -233, true);
    EXPECT_EQ(
        -100,
        loaded_operator(member.name, keep)->forward(keep.bottom_view(), top, get_default_option()));
}

TEST_P(SgemmConvolutionTest, ATopThatSharesBottomGetsABlockOfItsOwn) {
    const Member& member = GetParam();
    ConvolutionProblem p = problem_of(member, 4, 4, 8, 8, natural_pad(member.kernel_h),
                                      natural_pad(member.kernel_w), true);
    const ExactTensor exact =
        convolution_on_paper(p, out_h(member, p), out_w(member, p), p.pad_h, p.pad_w);
    auto op = loaded_operator(member.name, p);
    const Mat bottom = p.bottom_view().clone(nullptr);
    Mat top = bottom;
    ASSERT_EQ(0, op->forward(bottom, top, get_default_option()));
    EXPECT_NE(bottom.data, top.data);
    expect_near(exact, top);
    EXPECT_EQ(p.bottom, values_of(bottom));
    Mat both = bottom.clone(nullptr);
    ASSERT_EQ(0, op->forward(both, both, get_default_option()));
    expect_near(exact, both);
}

TEST_P(SgemmConvolutionTest, ATopOfTheRightShapeKeepsItsBlockAndASecondRunIsTheSame) {
    const Member& member = GetParam();
    ConvolutionProblem p = problem_of(member, 4, 4, 8, 8, 1, 1, true);
    auto op = loaded_operator(member.name, p);
    Mat top;
    ASSERT_EQ(0, op->forward(p.bottom_view(), top, get_default_option()));
    const auto first = values_of(top);
    void* block = top.data;
    ASSERT_EQ(0, op->forward(p.bottom_view(), top, get_default_option()));
    EXPECT_EQ(block, top.data);
    EXPECT_EQ(first, values_of(top));
}

TEST_P(SgemmConvolutionTest, BlocksThatAreNotAlignedAreReadAllTheSame) {
    const Member& member = GetParam();
    ConvolutionProblem p = problem_of(member, 4, 4, 8, 8, natural_pad(member.kernel_h),
                                      natural_pad(member.kernel_w), true);
    auto op = loaded_operator(member.name, p);
    std::vector<float> shifted(p.bottom.size() + 1);
    std::copy(p.bottom.begin(), p.bottom.end(), shifted.begin() + 1);
    Mat top;
    ASSERT_EQ(0, op->forward(Mat(chw(p.in, p.h, p.w), shifted.data() + 1, nullptr), top,
                             get_default_option()));
    expect_near(convolution_on_paper(p, out_h(member, p), out_w(member, p), p.pad_h, p.pad_w), top);
}

TEST_P(SgemmConvolutionTest, WeightsThatAreTooFewCountAsZeroBehindTheirEnd) {
    const Member& member = GetParam();
    ConvolutionProblem p = problem_of(member, 4, 4, 8, 8, natural_pad(member.kernel_h),
                                      natural_pad(member.kernel_w), true);
    ConvolutionProblem cut = p;
    cut.weights.resize(p.weights.size() / 2 + 1);
    std::fill(p.weights.begin() + static_cast<int>(cut.weights.size()), p.weights.end(), 0.0f);
    Mat top;
    ASSERT_EQ(
        0,
        loaded_operator(member.name, cut)->forward(cut.bottom_view(), top, get_default_option()));
    expect_near(convolution_on_paper(p, out_h(member, p), out_w(member, p), p.pad_h, p.pad_w), top);
}

TEST_P(SgemmConvolutionTest, CountsThatNoMemoryHoldsFailInLoadAndInForward) {
    const Member& member = GetParam();
    ConvolutionProblem p = problem_of(member, 4, 4, 8, 8, 1, 1, false);
    for (int id : {0, 12}) {
        if (member.depthwise && id == 12) continue;  // reads the ids up to 11
        AssertRecorder assertions;
        auto op = make_operator(member.name);
        ParamDict pd = p.parameters();
        pd.set(id, INT_MAX - 3);
        EXPECT_EQ(-100, op->load(pd, p.arrays(), {nullptr, 0, 0})) << id;
        Mat top;
        EXPECT_EQ(-100, op->forward(p.bottom_view(), top, get_default_option())) << id;
    }
}

TEST_P(SgemmConvolutionTest, ChannelCountsOfNothingGiveTheFailureValue) {
    const Member& member = GetParam();
    ConvolutionProblem p = problem_of(member, 4, 4, 8, 8, 1, 1, false);
    for (int count : {0, -4}) {
        for (int id : {0, 12}) {
            const bool used = id == 0 ? !member.depthwise
                                      : !member.depthwise && member.kernel_h * member.kernel_w > 1;
            auto op = make_operator(member.name);
            ParamDict pd = p.parameters();
            pd.set(id, count);
            EXPECT_EQ(0, op->load(pd, p.arrays(), {nullptr, 0, 0}));
            Mat top;
            // 1x1 takes bottom's word for the input channels, depthwise for all channels.
            EXPECT_EQ(used ? -100 : 0, op->forward(p.bottom_view(), top, get_default_option()))
                << id << ' ' << count;
        }
    }
}

// The documented sizes and oddities, one by one.

TensorShape top_shape(const char* name, int channels, int h, int w, int pad_h, int pad_w) {
    for (const Member& member : members) {
        if (std::string(name) != member.name) continue;
        ConvolutionProblem p = problem_of(member, channels, channels, h, w, pad_h, pad_w, false);
        Mat top;
        EXPECT_EQ(0, loaded_operator(name, p)->forward(p.bottom_view(), top, get_default_option()));
        return top.shape;
    }
    ADD_FAILURE() << name;
    return TensorShape();
}

TEST(SgemmConvolution, ThreeByThreeAtStrideOneShrinksWithoutPaddingAndKeepsTheSizeWithAny) {
    for (const char* name :
         {"Convolution_3x3s1_Float_SGEMM", "Depthewise_Convolution_3x3s1_Float_SGEMM"}) {
        EXPECT_EQ(chw(2, 3, 3), top_shape(name, 2, 5, 5, 0, 0));
        EXPECT_EQ(chw(2, 5, 5), top_shape(name, 2, 5, 5, 1, 1));
        EXPECT_EQ(chw(2, 5, 5), top_shape(name, 2, 5, 5, 2, 2));
        EXPECT_EQ(chw(2, 5, 3), top_shape(name, 2, 5, 5, 1, 0));
        EXPECT_EQ(chw(2, 3, 5), top_shape(name, 2, 5, 5, 0, 1));
    }
    EXPECT_EQ(chw(2, 4, 5), top_shape("Convolution_4x4s1_Float_SGEMM", 2, 7, 8, 0, 0));
    EXPECT_EQ(chw(2, 7, 8), top_shape("Convolution_4x4s1_Float_SGEMM", 2, 7, 8, 1, 1));
}

TEST(SgemmConvolution, StrideTwoHalvesOddSizesDownWhateverThePadding) {
    for (const char* name : {"Convolution_3x3s2_Float_SGEMM", "Convolution_1x1s2_Float_SGEMM",
                             "Depthewise_Convolution_3x3s2_Float_SGEMM"}) {
        for (int pad : {0, 1, 2}) {
            EXPECT_EQ(chw(2, 3, 4), top_shape(name, 2, 7, 9, pad, pad)) << name;
            EXPECT_EQ(chw(2, 3, 4), top_shape(name, 2, 6, 8, pad, pad)) << name;
        }
    }
}

TEST(SgemmConvolution, PaddingOfTwoTakesTheTopLeftOfTheBorderAndIgnoresTheRestOfIt) {
    // One pixel of 1 in the corner, taps 1 to 9: with two rings the last tap meets it at [0][0],
    // and top ends five pixels on although the border goes nine.
    ConvolutionProblem p;
    p.h = p.w = 5;
    p.kernel_h = p.kernel_w = 3;
    p.pad_h = p.pad_w = 2;
    p.weights = {1, 2, 3, 4, 5, 6, 7, 8, 9};
    p.bottom.assign(25, 0.0f);
    p.bottom[0] = 1.0f;
    p.bottom[24] = 100.0f;  // in the far corner, which the last tap alone reaches
    for (const char* name :
         {"Convolution_3x3s1_Float_SGEMM", "Depthewise_Convolution_3x3s1_Float_SGEMM"}) {
        Mat top;
        ASSERT_EQ(0, loaded_operator(name, p)->forward(p.bottom_view(), top, get_default_option()));
        EXPECT_EQ((std::vector<float>{9, 8, 7, 0, 0,  //
                                      6, 5, 4, 0, 0,  //
                                      3, 2, 1, 0, 0,  //
                                      0, 0, 0, 0, 0,  //
                                      0, 0, 0, 0, 900}),
                  values_of(top));
    }
}

TEST(SgemmConvolution, OneByOneDoesNotLookAtThePaddingThatItMakes) {
    for (const char* name : {"Convolution_1x1s1_Float_SGEMM", "Convolution_1x1s2_Float_SGEMM"}) {
        const Member& member = members[std::string(name).find("s2") == std::string::npos ? 0 : 1];
        ConvolutionProblem plain = problem_of(member, 3, 5, 6, 8, 0, 0, true);
        ConvolutionProblem padded = plain;
        padded.pad_h = 1;
        padded.pad_w = 2;
        Mat first, second;
        ASSERT_EQ(0, loaded_operator(name, plain)
                         ->forward(plain.bottom_view(), first, get_default_option()));
        RecordingAllocator workspace;
        Option opt;
        opt.workspace_allocator = &workspace;
        ASSERT_EQ(0, loaded_operator(name, padded)->forward(padded.bottom_view(), second, opt));
        EXPECT_EQ(values_of(first), values_of(second));
        ASSERT_FALSE(workspace.sizes.empty());
        EXPECT_EQ(RecordingAllocator::block(3 * 8 * 12), workspace.sizes[0]);
    }
}

TEST(SgemmConvolution, OneByOneAtStrideTwoGathersSixColumnsFromFourBySix) {
    const Member& member = members[1];
    ConvolutionProblem p = problem_of(member, 5, 3, 4, 6, 0, 0, false);
    RecordingAllocator workspace;
    Option opt;
    opt.workspace_allocator = &workspace;
    Mat top;
    ASSERT_EQ(0, loaded_operator(member.name, p)->forward(p.bottom_view(), top, opt));
    EXPECT_EQ((std::vector<unsigned int>{RecordingAllocator::block(5 * 6)}), workspace.sizes);
    expect_near(convolution_on_paper(p, 2, 3, 0, 0), top);
}

TEST(SgemmConvolution, OneByOneAtStrideTwoShiftsTheRowsOfOddWidths) {
    const Member& member = members[1];
    for (const auto& size : {std::pair<int, int>{3, 3}, {4, 5}, {5, 4}, {5, 5}, {7, 9}, {2, 35}}) {
        for (int in : {1, 3, 8}) {
            ConvolutionProblem p = problem_of(member, in, 4, size.first, size.second, 0, 0, true);
            SCOPED_TRACE(p.text());
            // The gathering, channel after channel into one array, each over what the one before
            // it left behind its own space; nothing is kept behind the end.
            const int pixels = (p.h / 2) * (p.w / 2);
            std::vector<double> col(static_cast<size_t>(in) * pixels, 0.0);
            for (int q = 0; q < in; ++q) {
                size_t at = static_cast<size_t>(q) * pixels;
                for (int y = 0; y < p.h; y += 2) {
                    for (int x = 0; x < p.w; x += 2, ++at) {
                        if (at >= col.size()) continue;
                        col[at] = p.bottom[(static_cast<size_t>(q) * p.h + y) * p.w + x];
                    }
                }
            }
            ExactTensor exact(p.out, p.h / 2, p.w / 2, in + 1);
            for (int o = 0; o < p.out; ++o) {
                for (int i = 0; i < pixels; ++i) {
                    const size_t at = static_cast<size_t>(o * pixels + i);
                    exact.add(at, p.bias[static_cast<size_t>(o)]);
                    for (int q = 0; q < in; ++q) {
                        exact.add(at, p.weights[static_cast<size_t>(o * in + q)] *
                                          col[static_cast<size_t>(q * pixels + i)]);
                    }
                }
            }
            Mat top;
            ASSERT_EQ(0, loaded_operator(member.name, p)
                             ->forward(p.bottom_view(), top, get_default_option()));
            expect_near(exact, top);
        }
    }
}

TEST(SgemmConvolution, TheNumberOfInputChannelsIsThatOfTheParametersNotOfBottom) {
    for (const Member& member : members) {
        if (member.depthwise || member.kernel_h * member.kernel_w == 1) continue;
        SCOPED_TRACE(member.name);
        ConvolutionProblem p = problem_of(member, 4, 5, 6, 8, 1, 1, true);
        auto op = loaded_operator(member.name, p);
        // Two channels less: they read as 0. Two more: they are not looked at.
        for (int channels : {2, 6}) {
            ConvolutionProblem other = p;
            other.in = channels;
            other.bottom = random_floats(static_cast<size_t>(channels) * p.h * p.w, seed + 9);
            Mat top;
            ASSERT_EQ(0, op->forward(other.bottom_view(), top, get_default_option()));
            expect_near(convolution_on_flat_block(p, with_border(planes_of(other), 1, 1, 1, 1),
                                                  p.in, out_h(member, p), out_w(member, p)),
                        top);
        }
    }
}

TEST(SgemmConvolution, OneByOneTakesTheInputChannelsFromBottom) {
    for (int m : {0, 1}) {
        const Member& member = members[m];
        ConvolutionProblem p = problem_of(member, 4, 5, 6, 8, 0, 0, true);
        auto op = loaded_operator(member.name, p);
        // The rows of the weights become as long as bottom has channels, zeros behind the last.
        for (int channels : {3, 6}) {
            ConvolutionProblem other = p;
            other.in = channels;
            other.bottom = random_floats(static_cast<size_t>(channels) * p.h * p.w, seed + 9);
            other.weights.resize(static_cast<size_t>(other.out) * channels, 0.0f);
            Mat top;
            ASSERT_EQ(0, op->forward(other.bottom_view(), top, get_default_option()));
            expect_near(convolution_on_paper(other, out_h(member, p), out_w(member, p), 0, 0), top);
        }
    }
}

TEST(SgemmConvolution, TheBiasIsAddedToTheFinishedProduct) {
    // 2^24 + 1 - 2^24: a bias inside the sum would be lost to the first term.
    ConvolutionProblem p;
    p.in = 2;
    p.h = 1;
    p.w = 5;
    p.has_bias = true;
    p.bottom.assign(10, 16777216.0f);
    p.weights = {1.0f, -1.0f};
    p.bias = {1.0f};
    Mat top;
    ASSERT_EQ(0, loaded_operator("Convolution_1x1s1_Float_SGEMM", p)
                     ->forward(p.bottom_view(), top, get_default_option()));
    EXPECT_EQ(std::vector<float>(5, 1.0f), values_of(top));
}

TEST(DepthwiseSgemmConvolution, ChannelsMustBeDivisibleByTheGroup) {
    for (int m : {9, 10}) {
        const Member& member = members[m];
        SCOPED_TRACE(member.name);
        ConvolutionProblem p = problem_of(member, 8, 8, 6, 6, 1, 1, false);
        p.group = 4;
        auto op = loaded_operator(member.name, p);
        EXPECT_TRUE(op->check_forward(chw(8, 6, 6)));
        EXPECT_TRUE(op->check_forward(chw(12, 6, 6)));
        EXPECT_FALSE(op->check_forward(chw(6, 6, 6)));
        // The outputs, too, although they are not looked at further.
        ParamDict pd = p.parameters();
        pd.set(0, 6);
        ASSERT_EQ(0, op->load(pd, p.arrays(), {nullptr, 0, 0}));
        EXPECT_FALSE(op->check_forward(chw(8, 6, 6)));
    }
}

TEST(DepthwiseSgemmConvolution, AGroupOfNothingFailsTheCheck) {
    for (int m : {9, 10}) {
        ConvolutionProblem p = problem_of(members[m], 4, 4, 6, 6, 1, 1, false);
        p.group = 0;
        auto op = loaded_operator(members[m].name, p);
        AssertRecorder assertions;
        Mat top;
        EXPECT_EQ(-100, op->forward(p.bottom_view(), top, get_default_option()));
        EXPECT_EQ(1u, assertions.count());
    }
}

TEST(DepthwiseSgemmConvolution, GroupsAreCheckedForAndNotApplied) {
    for (int m : {9, 10}) {
        const Member& member = members[m];
        ConvolutionProblem p = problem_of(member, 8, 8, 6, 6, 1, 1, true);
        p.group = 2;
        Mat top;
        ASSERT_EQ(
            0,
            loaded_operator(member.name, p)->forward(p.bottom_view(), top, get_default_option()));
        expect_near(convolution_on_paper(p, out_h(member, p), out_w(member, p), 1, 1), top);
    }
}

TEST(DepthwiseSgemmConvolution, TopHasTheChannelsOfBottomWhateverTheParametersSay) {
    for (int m : {9, 10}) {
        const Member& member = members[m];
        SCOPED_TRACE(member.name);
        ConvolutionProblem p = problem_of(member, 4, 4, 6, 6, 1, 1, true);
        p.group = 2;
        auto op = loaded_operator(member.name, p);
        // Two channels more than there are weights and bias: zeros.
        ConvolutionProblem other = p;
        other.in = other.out = 6;
        other.bottom = random_floats(6 * 36, seed + 9);
        other.weights.resize(6 * 9, 0.0f);
        other.bias.resize(6, 0.0f);
        Mat top;
        ASSERT_EQ(0, op->forward(other.bottom_view(), top, get_default_option()));
        expect_near(convolution_on_paper(other, out_h(member, p), out_w(member, p), 1, 1), top);
    }
}

}  // namespace
