// Convolution and transposed convolution of any kernel on the matrix product.

#include <gtest/gtest.h>

#include <climits>

#include "support/matrix_convolutions.h"

namespace {

using namespace TarnoCPU;
using namespace testing_support;

constexpr unsigned int seed = 5501;
const char* const convolution = "Convolution_Float_Blas";
const char* const deconvolution = "Deconvolution_Float_Blas";

/// Kernel, stride, dilation and padding, the same in both directions unless said otherwise.
ConvolutionProblem square(int in, int out, int h, int w, int kernel, int stride, int dilation,
                          int pad, bool bias) {
    ConvolutionProblem p;
    p.in = in;
    p.out = out;
    p.h = h;
    p.w = w;
    p.kernel_h = p.kernel_w = kernel;
    p.stride_h = p.stride_w = stride;
    p.dilation_h = p.dilation_w = dilation;
    p.pad_h = p.pad_w = pad;
    p.has_bias = bias;
    p.fill(seed);
    return p;
}

Mat forward(const char* name, ConvolutionProblem& p) {
    SCOPED_TRACE(p.text());
    // Static, so that a returned top may outlive the call.
    static PoisoningAllocator blobs, workspace;
    Option opt;
    opt.blob_allocator = &blobs;
    opt.workspace_allocator = &workspace;
    Mat top;
    EXPECT_EQ(0, loaded_operator(name, p)->forward(p.bottom_view(), top, opt));
    EXPECT_EQ(0, workspace.alive);
    return top;
}

const int channel_counts[] = {1, 3, 4, 5, 8, 16};
const int sizes[][2] = {{4, 4}, {5, 5}, {7, 4}, {6, 9}, {3, 34}};

// Convolution_Float_Blas

TEST(ConvolutionFloatBlas, IsTheConvolutionOnPaperForEveryChannelCount) {
    SCOPED_TRACE(seed);
    for (int in : channel_counts) {
        for (int out : channel_counts) {
            for (const auto& size : sizes) {
                for (bool bias : {false, true}) {
                    ConvolutionProblem p = square(in, out, size[0], size[1], 3, 1, 1, 1, bias);
                    expect_near(convolution_on_paper(p, p.h, p.w, 1, 1), forward(convolution, p));
                    if (HasFatalFailure()) return;
                }
            }
        }
    }
}

TEST(ConvolutionFloatBlas, TakesAnyKernelStrideAndDilation) {
    SCOPED_TRACE(seed);
    struct Kernel {
        int h, w, stride_h, stride_w, dilation_h, dilation_w, pad_h, pad_w;
    };
    const Kernel kernels[] = {
        {1, 1, 1, 1, 1, 1, 0, 0}, {1, 1, 2, 2, 1, 1, 0, 0}, {5, 5, 1, 1, 1, 1, 2, 2},
        {3, 3, 2, 2, 1, 1, 1, 1}, {3, 3, 3, 3, 1, 1, 1, 1}, {3, 3, 1, 1, 2, 2, 2, 2},
        {3, 5, 1, 2, 2, 1, 2, 2}, {7, 1, 2, 1, 1, 1, 3, 0}, {1, 3, 1, 3, 1, 2, 0, 2},
        {5, 5, 4, 4, 1, 1, 2, 2},
    };
    for (const Kernel& k : kernels) {
        for (const auto& size : {std::pair<int, int>{8, 8}, {9, 7}, {12, 22}}) {
            for (int in : {1, 3, 4}) {
                ConvolutionProblem p = square(in, 5, size.first, size.second, 1, 1, 1, 0, true);
                p.kernel_h = k.h;
                p.kernel_w = k.w;
                p.stride_h = k.stride_h;
                p.stride_w = k.stride_w;
                p.dilation_h = k.dilation_h;
                p.dilation_w = k.dilation_w;
                p.pad_h = k.pad_h;
                p.pad_w = k.pad_w;
                p.fill(seed);
                expect_near(
                    convolution_on_paper(p, p.h / k.stride_h, p.w / k.stride_w, k.pad_h, k.pad_w),
                    forward(convolution, p));
                if (HasFatalFailure()) return;
            }
        }
    }
}

TEST(ConvolutionFloatBlas, TheSizeIsBottomOverStrideWhateverKernelAndPaddingAre) {
    for (int pad : {0, 1, 2, 3}) {
        ConvolutionProblem p = square(2, 3, 7, 9, 3, 2, 1, pad, false);
        EXPECT_EQ(chw(3, 3, 4), forward(convolution, p).shape);
    }
}

TEST(ConvolutionFloatBlas, WithoutEnoughPaddingTheTapsRunOnInTheFlatBlock) {
    SCOPED_TRACE(seed);
    for (int kernel : {2, 3, 5}) {
        for (int stride : {1, 2, 3}) {
            for (int dilation : {1, 2, 3}) {
                for (int pad : {0, 1, 3}) {
                    ConvolutionProblem p = square(3, 4, 6, 7, kernel, stride, dilation, pad, true);
                    expect_near(
                        convolution_on_flat_block(p, with_border(planes_of(p), pad, pad, pad, pad),
                                                  p.in, p.h / stride, p.w / stride),
                        forward(convolution, p));
                    if (HasFatalFailure()) return;
                }
            }
        }
    }
}

TEST(ConvolutionFloatBlas, KeepSizePaddingPutsTheLargerHalfAtTheBottomAndRight) {
    SCOPED_TRACE(seed);
    for (int kernel : {1, 2, 3, 4, 5}) {
        for (int stride : {1, 2, 3}) {
            for (int dilation : {1, 2}) {
                ConvolutionProblem p = square(3, 4, 7, 8, kernel, stride, dilation, -233, true);
                const int extent = (kernel - 1) * dilation + 1;
                const int wpad = extent + (p.w - 1) / stride * stride - p.w;
                const int hpad = extent + (p.h - 1) / stride * stride - p.h;
                FlatPlanes planes = planes_of(p);
                if (wpad > 0 || hpad > 0) {
                    planes =
                        with_border(planes, hpad / 2, hpad - hpad / 2, wpad / 2, wpad - wpad / 2);
                }
                expect_near(convolution_on_flat_block(p, planes, p.in, p.h / stride, p.w / stride),
                            forward(convolution, p));
                if (HasFatalFailure()) return;
            }
        }
    }
}

TEST(ConvolutionFloatBlas, OnlyBothPaddingsOfKeepSizeMeanIt) {
    ConvolutionProblem p = square(3, 4, 6, 6, 3, 1, 1, -233, false);
    p.pad_h = 0;
    expect_near(convolution_on_flat_block(p, planes_of(p), p.in, 6, 6), forward(convolution, p));
}

TEST(ConvolutionFloatBlas, TheProductHasARowForTheBiasWithAndWithoutOne) {
    for (bool bias : {false, true}) {
        for (int pad : {0, 1}) {
            ConvolutionProblem p = square(3, 5, 6, 8, 3, 1, 1, pad, bias);
            RecordingAllocator blobs, workspace;
            Option opt;
            opt.blob_allocator = &blobs;
            opt.workspace_allocator = &workspace;
            Mat top;
            ASSERT_EQ(0, loaded_operator(convolution, p)->forward(p.bottom_view(), top, opt));
            std::vector<unsigned int> wanted;
            if (pad > 0) wanted.push_back(RecordingAllocator::block(3 * 8 * 10));
            wanted.push_back(RecordingAllocator::block(6 * 8 * (3 * 9 + 1)));
            wanted.push_back(RecordingAllocator::block(6 * 8 * 5));
            EXPECT_EQ(wanted, workspace.sizes);
            EXPECT_EQ((std::vector<unsigned int>{RecordingAllocator::block(5 * 6 * 8)}),
                      blobs.sizes);
            EXPECT_EQ(0, workspace.alive);
        }
    }
}

TEST(ConvolutionFloatBlas, WithoutABiasTermNoneIsReadAndTheRowIsZero) {
    ConvolutionProblem p = square(3, 5, 6, 8, 3, 1, 1, 1, false);
    auto op = make_operator(convolution);
    ASSERT_EQ(0, op->load(p.parameters(), ModelBinFromTarnoWeightBias(p.weights.data(), nullptr),
                          {nullptr, 0, 0}));
    Mat top;
    ASSERT_EQ(0, op->forward(p.bottom_view(), top, get_default_option()));
    expect_near(convolution_on_paper(p, 6, 8, 1, 1), top);
}

TEST(ConvolutionFloatBlas, WithoutInputChannelsTheResultIsTheBias) {
    ConvolutionProblem p = square(2, 3, 4, 4, 3, 1, 1, 1, true);
    ParamDict pd = p.parameters();
    pd.set(12, 0);
    auto op = make_operator(convolution);
    ASSERT_EQ(0, op->load(pd, p.arrays(), {nullptr, 0, 0}));
    Mat top;
    ASSERT_EQ(0, op->forward(p.bottom_view(), top, get_default_option()));
    for (int o = 0; o < 3; ++o) {
        for (int i = 0; i < 16; ++i) {
            EXPECT_EQ(p.bias[static_cast<size_t>(o)],
                      values_of(top)[static_cast<size_t>(o * 16 + i)]);
        }
    }
}

TEST(ConvolutionFloatBlas, ADilationOfNothingPutsAllTapsOnOnePixel) {
    ConvolutionProblem p = square(3, 4, 6, 6, 3, 1, 0, 0, true);
    expect_near(convolution_on_paper(p, 6, 6, 0, 0), forward(convolution, p));
}

// Deconvolution_Float_Blas

/// The transposed convolution on paper: every pixel spreads its weighted filter over the output,
/// the filter's last tap `pad` rows and columns behind the pixel's own place.
ExactTensor spread_on_paper(const ConvolutionProblem& p) {
    const int out_h = p.h * p.stride_h, out_w = p.w * p.stride_w;
    ExactTensor result(p.out, out_h, out_w, p.taps() + 1);
    for (int o = 0; o < p.out; ++o) {
        for (int i = 0; i < out_h * out_w; ++i) {
            if (p.has_bias) {
                result.add(static_cast<size_t>(o * out_h * out_w + i),
                           p.bias[static_cast<size_t>(o)]);
            }
        }
        for (int q = 0; q < p.in; ++q) {
            for (int y = 0; y < p.h; ++y) {
                for (int x = 0; x < p.w; ++x) {
                    for (int ky = 0; ky < p.kernel_h; ++ky) {
                        for (int kx = 0; kx < p.kernel_w; ++kx) {
                            const int ty = y * p.stride_h + p.pad_h - (p.kernel_h - 1 - ky);
                            const int tx = x * p.stride_w + p.pad_w - (p.kernel_w - 1 - kx);
                            if (ty < 0 || ty >= out_h || tx < 0 || tx >= out_w) continue;
                            const size_t weight =
                                ((static_cast<size_t>(o) * p.in + q) * p.kernel_h + ky) *
                                    p.kernel_w +
                                kx;
                            const size_t pixel = (static_cast<size_t>(q) * p.h + y) * p.w + x;
                            result.add(result.at(o, ty, tx),
                                       static_cast<double>(p.weights[weight]) * p.bottom[pixel]);
                        }
                    }
                }
            }
        }
    }
    return result;
}

/// Bottom with zeros behind every pixel and row.
FlatPlanes spread_out(const ConvolutionProblem& p) {
    FlatPlanes planes(p.in, p.h * p.stride_h, p.w * p.stride_w);
    for (int q = 0; q < p.in; ++q) {
        for (int y = 0; y < p.h; ++y) {
            for (int x = 0; x < p.w; ++x) {
                planes.data[(static_cast<size_t>(q) * planes.h + y * p.stride_h) * planes.w +
                            x * p.stride_w] =
                    p.bottom[(static_cast<size_t>(q) * p.h + y) * p.w + x];
            }
        }
    }
    return planes;
}

/// What the operator does on the flat block, for any padding.
ExactTensor deconvolution_on_flat_block(const ConvolutionProblem& p, const FlatPlanes& bordered) {
    ConvolutionProblem reversed = p;
    const size_t window = static_cast<size_t>(p.kernel_h) * p.kernel_w;
    for (size_t i = 0; i < p.weights.size(); ++i) {
        reversed.weights[i / window * window + window - 1 - i % window] = p.weights[i];
    }
    reversed.stride_h = reversed.stride_w = 1;
    return convolution_on_flat_block(reversed, bordered, p.in, p.h * p.stride_h, p.w * p.stride_w);
}

TEST(DeconvolutionFloatBlas, IsTheTransposedConvolutionOnPaperForEveryChannelCount) {
    SCOPED_TRACE(seed);
    for (int in : channel_counts) {
        for (int out : channel_counts) {
            for (const auto& size : {std::pair<int, int>{2, 2}, {3, 5}, {4, 9}}) {
                for (bool bias : {false, true}) {
                    for (int kernel : {3, 4}) {
                        ConvolutionProblem p =
                            square(in, out, size.first, size.second, kernel, 2, 1, 1, bias);
                        expect_near(spread_on_paper(p), forward(deconvolution, p));
                        if (HasFatalFailure()) return;
                    }
                }
            }
        }
    }
}

TEST(DeconvolutionFloatBlas, TheSizeIsBottomTimesStrideWithAnyPadding) {
    for (int kernel : {2, 3, 4, 5}) {
        for (int pad : {-233, 0, 1, 2}) {
            ConvolutionProblem p = square(2, 3, 8, 8, kernel, 2, 1, pad, false);
            EXPECT_EQ(chw(3, 16, 16), forward(deconvolution, p).shape) << kernel << ' ' << pad;
        }
    }
    ConvolutionProblem p = square(2, 3, 4, 5, 3, 1, 1, 1, false);
    p.stride_h = 3;
    EXPECT_EQ(chw(3, 12, 5), forward(deconvolution, p).shape);
}

TEST(DeconvolutionFloatBlas, TheTapsRunOnInTheFlatBlockWhateverThePadding) {
    SCOPED_TRACE(seed);
    for (int kernel : {1, 2, 3, 4, 5}) {
        for (int stride : {1, 2, 3}) {
            for (int dilation : {1, 2}) {
                for (int pad_h : {0, 1, 2}) {
                    for (int pad_w : {0, 1, 2}) {
                        ConvolutionProblem p =
                            square(3, 4, 4, 5, kernel, stride, dilation, 0, true);
                        p.pad_h = pad_h;
                        p.pad_w = pad_w;
                        expect_near(deconvolution_on_flat_block(
                                        p, with_border(spread_out(p), pad_h, pad_h, pad_w, pad_w)),
                                    forward(deconvolution, p));
                        if (HasFatalFailure()) return;
                    }
                }
            }
        }
    }
}

TEST(DeconvolutionFloatBlas, KeepSizePaddingCountsFromBottomAndKnowsNoKernel) {
    SCOPED_TRACE(seed);
    for (int kernel : {2, 3, 4, 5}) {
        for (int stride : {1, 2}) {
            for (int h : {4, 5, 7}) {
                for (int w : {4, 5}) {
                    ConvolutionProblem p = square(3, 4, h, w, kernel, stride, 1, -233, true);
                    const int hpad = (h - 1) / stride * stride - h + 2;
                    const int wpad = (w - 1) / stride * stride - w + 2;
                    FlatPlanes planes = spread_out(p);
                    if (hpad > 0 || wpad > 0) {
                        planes = with_border(planes, hpad / 2, hpad - hpad / 2, wpad / 2,
                                             wpad - wpad / 2);
                    }
                    expect_near(deconvolution_on_flat_block(p, planes), forward(deconvolution, p));
                    if (HasFatalFailure()) return;
                }
            }
        }
    }
}

TEST(DeconvolutionFloatBlas, AFilterIsReversedAsAWhole) {
    // One pixel of 1 at [1][1] of 3x3 at stride 1: the filter stands around it as it was stored.
    ConvolutionProblem p;
    p.h = p.w = 3;
    p.kernel_h = p.kernel_w = 3;
    p.pad_h = p.pad_w = 1;
    p.bottom = {0, 0, 0, 0, 1, 0, 0, 0, 0};
    p.weights = {1, 2, 3, 4, 5, 6, 7, 8, 9};
    EXPECT_EQ(p.weights, values_of(forward(deconvolution, p)));
}

TEST(DeconvolutionFloatBlas, TheBorderIsTheOneScratchFromThePlainHeap) {
    for (int pad : {0, 1}) {
        ConvolutionProblem p = square(3, 5, 4, 6, 3, 2, 1, pad, true);
        RecordingAllocator blobs, workspace;
        Option opt;
        opt.blob_allocator = &blobs;
        opt.workspace_allocator = &workspace;
        Mat top;
        ASSERT_EQ(0, loaded_operator(deconvolution, p)->forward(p.bottom_view(), top, opt));
        EXPECT_EQ((std::vector<unsigned int>{RecordingAllocator::block(5 * 8 * 12)}), blobs.sizes);
        EXPECT_EQ((std::vector<unsigned int>{RecordingAllocator::block(3 * 8 * 12),
                                             RecordingAllocator::block(8 * 12 * (3 * 9 + 1)),
                                             RecordingAllocator::block(8 * 12 * 5)}),
                  workspace.sizes);
        EXPECT_EQ(0, workspace.alive);
    }
}

// Both

class BlasConvolutionTest : public testing::TestWithParam<const char*> {};

INSTANTIATE_TEST_SUITE_P(Both, BlasConvolutionTest, testing::Values(convolution, deconvolution),
                         [](const auto& info) { return std::string(info.param); });

ExactTensor exact_of(const char* name, const ConvolutionProblem& p) {
    return name == convolution ? convolution_on_paper(p, p.h, p.w, p.pad_h, p.pad_w)
                               : spread_on_paper(p);
}

TEST_P(BlasConvolutionTest, EveryFailedAllocationGivesTheFailureValueAndLeavesNothingBehind) {
    ConvolutionProblem p = square(3, 5, 4, 6, 3, 1, 1, 1, true);
    auto op = loaded_operator(GetParam(), p);
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
                EXPECT_EQ(which == 0 ? 1 : 3, refuse_from);
                break;
            }
        }
    }
}

TEST_P(BlasConvolutionTest, AFailedCheckRaisesTheAssertionOfItsUnit) {
    ConvolutionProblem p = square(3, 5, 4, 6, 3, 1, 1, 1, true);
    auto op = loaded_operator(GetParam(), p);
    EXPECT_EQ(GetParam(), op->name());
    EXPECT_TRUE(op->check_forward(chw(3, 4, 6)));
    std::vector<float> storage(72);
    for (const TensorShape& shape : {TensorShape(TensorShape::C4HW4, 3, 4, 6, 4),
                                     TensorShape(TensorShape::CHW, 3, 4, 6, 2), TensorShape()}) {
        AssertRecorder assertions;
        Mat top;
        EXPECT_FALSE(op->check_forward(shape));
        EXPECT_EQ(-100,
                  op->forward(Mat(shape, storage.data(), nullptr), top, get_default_option()));
        ASSERT_EQ(1u, assertions.count());
        EXPECT_EQ("false && \"Invalid forward pre-conditions\"", assertions.last().condition);
        EXPECT_EQ(GetParam() == convolution ? "convolution_float_blas" : "deconvolution_float_blas",
                  assertions.last().source);
    }
}

TEST_P(BlasConvolutionTest, AnOperatorWithoutWeightsOrBiasFailsToLoadAndToCompute) {
    ConvolutionProblem p = square(3, 5, 4, 6, 3, 1, 1, 1, true);
    for (int id : {10, 0}) {
        auto op = loaded_operator(GetParam(), p);
        ParamDict pd = p.parameters();
        pd.set(id, 0);
        EXPECT_EQ(-100, op->load(pd, p.arrays(), {nullptr, 0, 0}));
        Mat top;
        EXPECT_EQ(-100, op->forward(p.bottom_view(), top, get_default_option()));
        EXPECT_TRUE(top.empty());
    }
    Mat top;
    EXPECT_EQ(-100, make_operator(GetParam())->forward(p.bottom_view(), top, get_default_option()));
}

TEST_P(BlasConvolutionTest, ParametersThatNoProductCanBeMadeOfGiveTheFailureValue) {
    ConvolutionProblem p = square(3, 5, 4, 6, 3, 1, 1, 1, false);
    for (int id : {0, 1, 2, 5, 6}) {
        for (int value : {0, -1}) {
            auto op = make_operator(GetParam());
            ParamDict pd = p.parameters();
            pd.set(id, value);
            EXPECT_EQ(0, op->load(pd, p.arrays(), {nullptr, 0, 0}));
            Mat top;
            EXPECT_EQ(-100, op->forward(p.bottom_view(), top, get_default_option())) << id;
        }
    }
    for (int id : {3, 4, 12}) {
        auto op = make_operator(GetParam());
        ParamDict pd = p.parameters();
        pd.set(id, -1);
        EXPECT_EQ(0, op->load(pd, p.arrays(), {nullptr, 0, 0}));
        Mat top;
        EXPECT_EQ(-100, op->forward(p.bottom_view(), top, get_default_option())) << id;
    }
}

TEST_P(BlasConvolutionTest, CountsThatNoMemoryHoldsFailInLoad) {
    ConvolutionProblem p = square(3, 5, 4, 6, 3, 1, 1, 1, false);
    for (int id : {0, 1, 12}) {
        AssertRecorder assertions;
        auto op = make_operator(GetParam());
        ParamDict pd = p.parameters();
        pd.set(id, INT_MAX - 3);
        EXPECT_EQ(-100, op->load(pd, p.arrays(), {nullptr, 0, 0})) << id;
        Mat top;
        EXPECT_EQ(-100, op->forward(p.bottom_view(), top, get_default_option())) << id;
    }
    // A kernel of so many taps that their square leaves 32 bits.
    auto op = make_operator(GetParam());
    ParamDict pd = p.parameters();
    pd.set(1, 100000);
    pd.set(2, 100000);
    EXPECT_EQ(-100, op->load(pd, p.arrays(), {nullptr, 0, 0}));
}

TEST_P(BlasConvolutionTest, ASizeOfNothingGivesTheFailureValue) {
    ConvolutionProblem p = square(3, 5, 4, 6, 3, 2, 1, 1, false);
    auto op = loaded_operator(GetParam(), p);
    for (const auto& size : {std::pair<int, int>{0, 6}, {4, 0}, {-4, -6}}) {
        Mat top;
        EXPECT_EQ(-100, op->forward(Mat(chw(3, size.first, size.second), p.bottom.data(), nullptr),
                                    top, get_default_option()));
    }
    Mat top;
    const Mat pixel(chw(3, 1, 1), p.bottom.data(), nullptr);
    EXPECT_EQ(GetParam() == convolution ? -100 : 0, op->forward(pixel, top, get_default_option()));
}

TEST_P(BlasConvolutionTest, PaddingsThatGiveNoBorderGiveTheFailureValue) {
    // More than an int counts, and less than nothing.
    for (const auto& pads : {std::pair<int, int>{INT_MAX, 1}, {1, INT_MIN}}) {
        ConvolutionProblem p = square(3, 5, 4, 6, 3, 1, 1, 1, false);
        p.pad_h = pads.first;
        p.pad_w = pads.second;
        auto op = loaded_operator(GetParam(), p);
        Mat top;
        EXPECT_EQ(-100, op->forward(p.bottom_view(), top, get_default_option()));
    }
}

TEST_P(BlasConvolutionTest, ATopThatSharesBottomGetsABlockOfItsOwn) {
    ConvolutionProblem p = square(4, 4, 5, 7, 3, 1, 1, 1, true);
    auto op = loaded_operator(GetParam(), p);
    const ExactTensor exact = exact_of(GetParam(), p);
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

TEST_P(BlasConvolutionTest, ASecondRunIsTheSameInTheSameBlock) {
    ConvolutionProblem p = square(4, 4, 5, 7, 3, 1, 1, 1, true);
    auto op = loaded_operator(GetParam(), p);
    Mat top;
    ASSERT_EQ(0, op->forward(p.bottom_view(), top, get_default_option()));
    const auto first = values_of(top);
    void* block = top.data;
    ASSERT_EQ(0, op->forward(p.bottom_view(), top, get_default_option()));
    EXPECT_EQ(block, top.data);
    EXPECT_EQ(first, values_of(top));
}

TEST_P(BlasConvolutionTest, TheNumberOfInputChannelsIsThatOfTheParametersNotOfBottom) {
    ConvolutionProblem p = square(4, 5, 4, 6, 3, 1, 1, 1, true);
    auto op = loaded_operator(GetParam(), p);
    for (int channels : {2, 6}) {
        ConvolutionProblem other = p;
        other.in = channels;
        other.bottom = random_floats(static_cast<size_t>(channels) * p.h * p.w, seed + 9);
        const FlatPlanes planes = with_border(planes_of(other), 1, 1, 1, 1);
        ConvolutionProblem weights = p;
        Mat top;
        ASSERT_EQ(0, op->forward(other.bottom_view(), top, get_default_option()));
        expect_near(GetParam() == convolution
                        ? convolution_on_flat_block(weights, planes, p.in, p.h, p.w)
                        : deconvolution_on_flat_block(weights, planes),
                    top);
    }
}

TEST_P(BlasConvolutionTest, WeightsThatAreTooFewCountAsZeroBehindTheirEnd) {
    ConvolutionProblem p = square(3, 4, 4, 6, 3, 1, 1, 1, true);
    ConvolutionProblem cut = p;
    cut.weights.resize(p.weights.size() / 2 + 1);
    std::fill(p.weights.begin() + static_cast<int>(cut.weights.size()), p.weights.end(), 0.0f);
    expect_near(exact_of(GetParam(), p), forward(GetParam(), cut));
}

}  // namespace
