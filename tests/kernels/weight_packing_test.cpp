// The packed weight forms and the way from fixed point to float.

#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <functional>

#include "support/recorders.h"
#include "support/tensors.h"

namespace {

using namespace TarnoCPU;
using namespace testing_support;

/// A flat `Mat` over a vector of exactly its size, so that AddressSanitizer sees both ends.
Mat flat_view(std::vector<float>& values) {
    return Mat(TensorShape(TensorShape::FLAT, 1, 1, static_cast<int>(values.size()), 4),
               values.data(), nullptr);
}

std::vector<float> counted(int count) {
    std::vector<float> values(static_cast<size_t>(count));
    for (int i = 0; i < count; ++i)
        values[static_cast<size_t>(i)] = static_cast<float>(i + 1);
    return values;
}

using Packing = std::function<void(const Mat&, Mat&, int, int, int, int)>;
using Place = std::function<int(int n, int c, int y, int x, int C, int H, int W)>;

/// Packs 1, 2, 3, ... into a block of its own size and compares every element with `place`.
void expect_places(const Packing& pack, int N, int C, int H, int W, const Place& place) {
    SCOPED_TRACE(testing::Message() << N << " x " << C << " x " << H << " x " << W);
    std::vector<float> source = counted(N * C * H * W);
    std::vector<float> target(source.size(), -1.0f);
    Mat target_mat = flat_view(target);
    pack(flat_view(source), target_mat, N, C, H, W);
    size_t i = 0;
    for (int n = 0; n < N; ++n) {
        for (int c = 0; c < C; ++c) {
            for (int y = 0; y < H; ++y) {
                for (int x = 0; x < W; ++x, ++i) {
                    const int at = place(n, c, y, x, C, H, W);
                    ASSERT_LT(at, static_cast<int>(target.size()));
                    EXPECT_EQ(source[i], target[static_cast<size_t>(at)])
                        << n << ' ' << c << ' ' << y << ' ' << x;
                }
            }
        }
    }
}

void pack_depthwise(const Mat& src, Mat& dst, int n, int /*c*/, int h, int w) {
    transform_nhw_to_n4hw4(src, dst, n, h, w);
}

TEST(WeightPacking, Nc4hw4PutsFourInputChannelsSideBySide) {
    for (int N : {1, 3, 8}) {
        for (int C : {4, 8, 16}) {
            expect_places(transform_nchw_to_nc4hw4, N, C, 3, 2,
                          [](int n, int c, int y, int x, int channels, int H, int W) {
                              const int block = n * (channels / 4) + c / 4;
                              return ((block * H + y) * W + x) * 4 + c % 4;
                          });
        }
    }
}

TEST(WeightPacking, N4chw4PutsFourOutputChannelsSideBySide) {
    for (int N : {4, 8}) {
        for (int C : {1, 3, 5}) {
            expect_places(transform_nchw_to_n4chw4, N, C, 3, 3,
                          [](int n, int c, int y, int x, int channels, int H, int W) {
                              const int block = n / 4 * channels + c;
                              return ((block * H + y) * W + x) * 4 + n % 4;
                          });
        }
    }
}

TEST(WeightPacking, N4c4hw44PutsSixteenPairsOfChannelsSideBySide) {
    for (int N : {4, 12}) {
        for (int C : {4, 8}) {
            expect_places(transform_nchw_to_n4c4hw44, N, C, 2, 3,
                          [](int n, int c, int y, int x, int channels, int H, int W) {
                              const int block = n / 4 * (channels / 4) + c / 4;
                              return ((block * H + y) * W + x) * 16 + c % 4 * 4 + n % 4;
                          });
        }
    }
}

TEST(WeightPacking, N4hw4PutsFourDepthwiseFiltersSideBySide) {
    for (int N : {4, 8, 16}) {
        expect_places(pack_depthwise, N, 1, 3, 3, [](int n, int, int y, int x, int, int H, int W) {
            return ((n / 4 * H + y) * W + x) * 4 + n % 4;
        });
    }
}

TEST(WeightPacking, N4chw4OfEightOutputsThreeInputsAndNineTapsHasTheKnownPlace) {
    std::vector<float> source = counted(8 * 3 * 9);
    std::vector<float> target(source.size());
    Mat target_mat = flat_view(target);
    transform_nchw_to_n4chw4(flat_view(source), target_mat, 8, 3, 3, 3);
    // n = 5, c = 2, y = 1, x = 2
    EXPECT_EQ(source[((5 * 3 + 2) * 3 + 1) * 3 + 2], target[1 + 8 + 12 + 36 * (3 + 2)]);
}

TEST(WeightPacking, N4c4hw44OfFourByFourIsATransposition) {
    std::vector<float> source = counted(16);
    std::vector<float> target(16);
    Mat target_mat = flat_view(target);
    transform_nchw_to_n4c4hw44(flat_view(source), target_mat, 4, 4, 1, 1);
    for (size_t n = 0; n < 4; ++n) {
        for (size_t c = 0; c < 4; ++c)
            EXPECT_EQ(source[n * 4 + c], target[n + 4 * c]);
    }
}

TEST(WeightPacking, ElementsThatNoSourceElementNamesStayAsTheyWere) {
    // Three outputs fill three of the four lanes; the helpers write, they do not clear.
    std::vector<float> source = counted(3);
    std::vector<float> target(4, -7.0f);
    Mat target_mat = flat_view(target);
    transform_nchw_to_n4chw4(flat_view(source), target_mat, 3, 1, 1, 1);
    EXPECT_EQ((std::vector<float>{1, 2, 3, -7}), target);
}

TEST(WeightPacking, Nc4hw4OfAnOddChannelCountDividesTheWholeProduct) {
    // Three outputs of 6 inputs: the second starts at block 6 / 4 = 1, over the end of the first,
    // the third at block 12 / 4 = 3.
    std::vector<float> source = counted(18);
    std::vector<float> target(18, 0.0f);
    Mat target_mat = flat_view(target);
    transform_nchw_to_nc4hw4(flat_view(source), target_mat, 3, 6, 1, 1);
    EXPECT_EQ((std::vector<float>{1, 2, 3, 4, 7, 8, 9, 10, 11, 12, 0, 0, 13, 14, 15, 16, 17, 18}),
              target);
}

struct Helper {
    const char* name;
    Packing pack;
};

const Helper helpers[] = {
    {"transform_nchw_to_nc4hw4", transform_nchw_to_nc4hw4},
    {"transform_nchw_to_n4chw4", transform_nchw_to_n4chw4},
    {"transform_nchw_to_n4c4hw44", transform_nchw_to_n4c4hw44},
    {"transform_nhw_to_n4hw4", pack_depthwise},
};

TEST(WeightPacking, WhatWouldLandBehindTheTargetIsDropped) {
    for (const Helper& helper : helpers) {
        SCOPED_TRACE(helper.name);
        std::vector<float> source = counted(8 * 8 * 9), whole(source.size()), cut(100);
        Mat whole_mat = flat_view(whole), cut_mat = flat_view(cut);
        helper.pack(flat_view(source), whole_mat, 8, 8, 3, 3);
        helper.pack(flat_view(source), cut_mat, 8, 8, 3, 3);
        EXPECT_EQ(std::vector<float>(whole.begin(), whole.begin() + 100), cut);
    }
}

TEST(WeightPacking, WhatLiesBehindTheSourceReadsAsZero) {
    for (const Helper& helper : helpers) {
        SCOPED_TRACE(helper.name);
        std::vector<float> filled = counted(8 * 8 * 9);
        std::fill(filled.begin() + 30, filled.end(), 0.0f);
        std::vector<float> cut(filled.begin(), filled.begin() + 30);
        std::vector<float> expected(filled.size(), -1.0f), packed(filled.size(), -1.0f);
        Mat expected_mat = flat_view(expected), packed_mat = flat_view(packed);
        helper.pack(flat_view(filled), expected_mat, 8, 8, 3, 3);
        helper.pack(flat_view(cut), packed_mat, 8, 8, 3, 3);
        EXPECT_EQ(expected, packed);
    }
}

TEST(WeightPacking, SizesThatNoTensorCanHaveDoNothing) {
    for (const Helper& helper : helpers) {
        SCOPED_TRACE(helper.name);
        std::vector<float> source = counted(4), target(4, -1.0f);
        Mat target_mat = flat_view(target);
        helper.pack(flat_view(source), target_mat, INT_MAX, INT_MAX, INT_MAX, INT_MAX);
        helper.pack(flat_view(source), target_mat, INT_MAX, 4, 2, 1);
        helper.pack(flat_view(source), target_mat, -4, -4, 1, 1);
        helper.pack(flat_view(source), target_mat, 4, 4, 0, 1);
        EXPECT_EQ((std::vector<float>(4, -1.0f)), target);
    }
}

struct Texts {
    const char* helper;
    Packing pack;
    const char* source;
    const char* conditions[4];
};

const Texts texts[] = {
    {"transform_nchw_to_nc4hw4",
     transform_nchw_to_nc4hw4,
     "transform",
     {"tensor_nchw_float.shape.dims() == 1", "tensor_nc4hw4_float.shape.dims() == 1",
      "tensor_nchw_float.shape.elem_size == 4", "tensor_nc4hw4_float.shape.elem_size == 4"}},
    {"transform_nchw_to_n4chw4",
     transform_nchw_to_n4chw4,
     "transform",
     {"tensor_nchw_float.shape.dims() == 1", "tensor_n4chw4_float.shape.dims() == 1",
      "tensor_nchw_float.shape.elem_size == 4", "tensor_n4chw4_float.shape.elem_size == 4"}},
    {"transform_nchw_to_n4c4hw44",
     transform_nchw_to_n4c4hw44,
     "quantitation",
     {"tensor_nchw_float .shape.dims() == 1", "tensor_n4c4hw44_float.shape.dims() == 1",
      "tensor_nchw_float .shape.elem_size == 4", "tensor_n4c4hw44_float.shape.elem_size == 4"}},
    {"transform_nhw_to_n4hw4",
     pack_depthwise,
     "transform",
     {"tensor_nhw_float.shape.dims() == 1", "tensor_n4hw4_float.shape.dims() == 1",
      "tensor_nhw_float.shape.elem_size == 4", "tensor_n4hw4_float.shape.elem_size == 4"}},
};

TEST(WeightPacking, EachOfTheFourAssertionsHasItsTextAndItsOrder) {
    for (const Texts& text : texts) {
        SCOPED_TRACE(text.helper);
        std::vector<float> storage(64, 0.0f);
        const Mat good = flat_view(storage);
        const Mat two_rows(TensorShape(TensorShape::FLAT, 1, 2, 32, 4), storage.data(), nullptr);
        const Mat halves(TensorShape(TensorShape::FLAT, 1, 1, 64, 2), storage.data(), nullptr);
        const Mat bad(TensorShape(TensorShape::FLAT, 1, 2, 32, 2), storage.data(), nullptr);
        std::vector<float> target(64, 0.0f);
        const auto failures = [&](const Mat& src, const TensorShape& target_shape) {
            AssertRecorder assertions;
            Mat dst(target_shape, target.data(), nullptr);
            text.pack(src, dst, 4, 4, 1, 1);
            std::vector<std::string> conditions;
            for (const auto& entry : AssertRecorder::entries()) {
                EXPECT_EQ(text.source, entry.source);
                EXPECT_GT(entry.line, 0);
                conditions.push_back(entry.condition);
            }
            return conditions;
        };
        const auto& c = text.conditions;
        EXPECT_EQ((std::vector<std::string>{}), failures(good, good.shape));
        EXPECT_EQ((std::vector<std::string>{c[0]}), failures(two_rows, good.shape));
        EXPECT_EQ((std::vector<std::string>{c[1]}), failures(good, two_rows.shape));
        EXPECT_EQ((std::vector<std::string>{c[2]}), failures(halves, good.shape));
        EXPECT_EQ((std::vector<std::string>{c[3]}), failures(good, halves.shape));
        EXPECT_EQ((std::vector<std::string>{c[0], c[1], c[2], c[3]}), failures(bad, bad.shape));
    }
}

TEST(WeightPacking, AfterAFailedAssertionTheBlocksAreStillRespected) {
    AssertRecorder assertions;
    for (const Helper& helper : helpers) {
        SCOPED_TRACE(helper.name);
        // 16 elements of 2 bytes hold 8 floats.
        std::vector<float> source = counted(8), target(8, -1.0f);
        const TensorShape halves(TensorShape::FLAT, 1, 1, 16, 2);
        Mat dst(halves, target.data(), nullptr);
        helper.pack(Mat(halves, source.data(), nullptr), dst, 4, 4, 1, 1);
        EXPECT_EQ(1.0f, target[0]);
        Mat nothing;
        helper.pack(nothing, dst, 4, 4, 1, 1);
        EXPECT_EQ(0.0f, target[0]);
        helper.pack(Mat(halves, source.data(), nullptr), nothing, 4, 4, 1, 1);
    }
}

TEST(FixedPointToFloat, TenFractionalBitsOf1024AreOne) {
    const short value = 1024;
    Mat src = Mat::from_int16_array(&value, 1, 1, 1, TensorShape::CHW, nullptr, 10);
    Mat dst;
    mat_int16_to_float_chw(src, dst, 10);
    ASSERT_EQ(chw(1, 1, 1), dst.shape);
    EXPECT_EQ(1.0f, values_of(dst)[0]);
}

TEST(FixedPointToFloat, EveryElementIsTheNumberTimesTheUnitAtEverySizeOfTail) {
    for (int w = 1; w <= 19; ++w) {
        std::vector<short> numbers(static_cast<size_t>(3 * w));
        for (size_t i = 0; i < numbers.size(); ++i) {
            numbers[i] = static_cast<short>(static_cast<int>(i * 7919) % 65536 - 32768);
        }
        numbers[0] = SHRT_MIN;
        numbers[1] = SHRT_MAX;
        for (int bits : {0, 1, 7, 15, 30}) {
            Mat src = Mat::from_int16_array(numbers.data(), w, 1, 3, TensorShape::CHW, nullptr, 7);
            Mat dst;
            mat_int16_to_float_chw(src, dst, bits);
            ASSERT_EQ(chw(3, 1, w), dst.shape);
            const auto floats = values_of(dst);
            for (size_t i = 0; i < numbers.size(); ++i) {
                EXPECT_EQ(std::ldexp(static_cast<double>(numbers[i]), -bits),
                          static_cast<double>(floats[i]));
            }
        }
    }
}

TEST(FixedPointToFloat, TheNumberOfBitsCountsModulo32AndBit31IsTheSign) {
    const short value = 3;
    Mat src = Mat::from_int16_array(&value, 1, 1, 1, TensorShape::CHW, nullptr, 0);
    Mat dst;
    mat_int16_to_float_chw(src, dst, 33);
    EXPECT_EQ(1.5f, values_of(dst)[0]);
    mat_int16_to_float_chw(src, dst, -32);
    EXPECT_EQ(3.0f, values_of(dst)[0]);
    mat_int16_to_float_chw(src, dst, 31);
    EXPECT_EQ(-std::ldexp(3.0f, -31), values_of(dst)[0]);
}

TEST(FixedPointToFloat, ATargetOfTheRightShapeWithoutAllocatorKeepsItsBlock) {
    const short values[4] = {1, 2, 3, 4};
    Mat src = Mat::from_int16_array(values, 2, 2, 1, TensorShape::CHW, nullptr, 1);
    Mat dst(chw(1, 2, 2), nullptr);
    void* block = dst.data;
    mat_int16_to_float_chw(src, dst, 1);
    EXPECT_EQ(block, dst.data);
    EXPECT_EQ((std::vector<float>{0.5f, 1.0f, 1.5f, 2.0f}), values_of(dst));
}

TEST(FixedPointToFloat, ATargetWithAnAllocatorIsMadeAnewWithoutOne) {
    PoisoningAllocator allocator;
    const short values[2] = {1, 2};
    Mat src = Mat::from_int16_array(values, 2, 1, 1, TensorShape::C4HW4, nullptr, 1);
    Mat dst(chw(1, 1, 2), &allocator);
    mat_int16_to_float_chw(src, dst, 1);
    EXPECT_EQ(nullptr, dst.allocator);
    EXPECT_EQ(chw(1, 1, 2), dst.shape);
    EXPECT_EQ(0, allocator.alive);
    EXPECT_EQ(1, allocator.calls);
    EXPECT_EQ((std::vector<float>{0.5f, 1.0f}), values_of(dst));
}

TEST(FixedPointToFloat, ANothingInRaisesTheAssertionAndLeavesATargetOfNothing) {
    AssertRecorder assertions;
    Mat src;
    Mat dst(chw(1, 1, 2), nullptr);
    mat_int16_to_float_chw(src, dst, 10);
    ASSERT_EQ(1u, assertions.count());
    EXPECT_EQ("false && \"creat mat failed!\"", assertions.last().condition);
    EXPECT_EQ("transform", assertions.last().source);
    EXPECT_TRUE(dst.empty());
}

TEST(FixedPointToFloat, SourceAndTargetMayBeTheSameTensor) {
    const short values[3] = {2, 4, -6};
    Mat both = Mat::from_int16_array(values, 3, 1, 1, TensorShape::CHW, nullptr, 1);
    mat_int16_to_float_chw(both, both, 1);
    EXPECT_EQ((std::vector<float>{1.0f, 2.0f, -3.0f}), values_of(both));
}

TEST(FixedPointToFloat, BytesThatEndBeforeTheShapeReadAsZero) {
    std::vector<signed char> bytes = {1, 0, 2, 0, 3, 0};
    Mat src(TensorShape(TensorShape::CHW, 1, 1, 6, 1), bytes.data(), nullptr);
    Mat dst;
    mat_int16_to_float_chw(src, dst, 0);
    EXPECT_EQ((std::vector<float>{1, 2, 3, 0, 0, 0}), values_of(dst));
}

}  // namespace
