#include <gtest/gtest.h>

#include <cstdint>
#include <thread>

#include "support/recorders.h"
#include "support/tensors.h"

namespace {

using namespace TarnoCPU;
using namespace testing_support;

uint32_t bits_of(float v) {
    uint32_t bits;
    std::memcpy(&bits, &v, 4);
    return bits;
}

TEST(PlainHeap, BlocksAreAlignedToSixteenWithTheRawPointerInFront) {
    for (size_t size : {1u, 15u, 16u, 100u, 4097u}) {
        void* block = fastMalloc(size);
        EXPECT_EQ(0u, reinterpret_cast<uintptr_t>(block) % 16);
        const auto raw = reinterpret_cast<uintptr_t>(static_cast<void**>(block)[-1]);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(block), (raw + 19) & ~uintptr_t{15});
        std::memset(block, 0xab, size);
        fastFree(block);
    }
    fastFree(nullptr);
}

TEST(PlainHeap, AFailedRequestRaisesTheAssertionAndGivesNull) {
    AssertRecorder assertions;
    EXPECT_EQ(nullptr, fastMalloc(SIZE_MAX - 4096));
    ASSERT_EQ(1u, assertions.count());
    EXPECT_EQ("false && \"malloc failed\"", assertions.last().condition);
    EXPECT_EQ("allocator", assertions.last().source);
    EXPECT_EQ(62, assertions.last().line);
}

TEST(TensorShape, DimsFollowTheSizes) {
    EXPECT_EQ(3, chw(3, 1, 1).dims());
    EXPECT_EQ(2, chw(1, 2, 1).dims());
    EXPECT_EQ(1, chw(1, 1, 5).dims());
    EXPECT_EQ(1, chw(1, 1, 1).dims());
    EXPECT_EQ(0, chw(3, 0, 5).dims());
    EXPECT_EQ(0, chw(0, 4, 4).dims());
    EXPECT_EQ(0, chw(1, 1, 0).dims());
    EXPECT_EQ(0, chw(-1, 2, 2).dims());
    EXPECT_EQ(0, chw(1, 0, 5).dims());
}

TEST(TensorShape, ATotalBeyondSixtyFourBitsIsTheLargestOrTheLowestNumber) {
    const int most = std::numeric_limits<int>::max();
    EXPECT_EQ(INT64_MAX, chw(most, most, most).total());
    EXPECT_EQ(INT64_MIN, chw(-most, most, most).total());
    EXPECT_EQ(int64_t{2} * most * most, chw(2, most, most).total());
    EXPECT_EQ(0, chw(most, most, 0).total());
    AssertRecorder assertions;
    EXPECT_TRUE(Mat(chw(most, most, most), nullptr).empty());
    EXPECT_TRUE(Mat(chw(-most, most, most), nullptr).empty());
}

TEST(TensorShape, EqualityLooksAtAllSixFields) {
    const TensorShape base(TensorShape::CHW, 2, 3, 4, 4, 0);
    EXPECT_TRUE(base == TensorShape(TensorShape::CHW, 2, 3, 4, 4, 0));
    EXPECT_TRUE(base != TensorShape(TensorShape::C4HW4, 2, 3, 4, 4, 0));
    EXPECT_TRUE(base != TensorShape(TensorShape::CHW, 1, 3, 4, 4, 0));
    EXPECT_TRUE(base != TensorShape(TensorShape::CHW, 2, 1, 4, 4, 0));
    EXPECT_TRUE(base != TensorShape(TensorShape::CHW, 2, 3, 1, 4, 0));
    EXPECT_TRUE(base != TensorShape(TensorShape::CHW, 2, 3, 4, 2, 0));
    EXPECT_TRUE(base != TensorShape(TensorShape::CHW, 2, 3, 4, 4, 8));
}

TEST(MatBlock, TheCounterStandsBehindThePayloadRoundedToFourBytes) {
    Mat mat(TensorShape(TensorShape::CHW, 1, 1, 5, 1), nullptr);
    EXPECT_EQ(static_cast<void*>(mat.ptr<unsigned char>() + 8), static_cast<void*>(mat.refcount));
    EXPECT_EQ(1, *mat.refcount);
    const Mat copy = mat;
    EXPECT_EQ(2, *mat.refcount);
    EXPECT_EQ(mat.data, copy.data);
}

TEST(MatBlock, ATotalOfZeroHasNoBlock) {
    const Mat mat(chw(3, 0, 5), nullptr);
    EXPECT_EQ(nullptr, mat.data);
    EXPECT_EQ(nullptr, mat.refcount);
    EXPECT_EQ(3, mat.shape.c);
}

TEST(MatBlock, ReleaseOfAViewLeavesTheMemoryAloneAndZeroesTheView) {
    float external[4] = {1, 2, 3, 4};
    PoisoningAllocator allocator;
    Mat view(chw(1, 2, 2), external, &allocator);
    view.release();
    EXPECT_EQ(nullptr, view.data);
    EXPECT_EQ(0, view.shape.c);
    EXPECT_EQ(0, view.shape.elem_size);
    EXPECT_EQ(TensorShape::CHW, view.shape.layout);
    EXPECT_EQ(&allocator, view.allocator);
    EXPECT_EQ(4.0f, external[3]);
}

TEST(MatBlock, AssigningAMatToItselfChangesNothing) {
    Mat mat = random_tensor(1, 2, 2, 1);
    void* data = mat.data;
    Mat& alias = mat;
    mat = alias;
    EXPECT_EQ(data, mat.data);
    EXPECT_EQ(1, *mat.refcount);
}

TEST(MatBlock, AssigningACopyToItsOriginKeepsTheBlockAlive) {
    PoisoningAllocator allocator;
    {
        Mat mat(chw(1, 1, 4), &allocator);
        mat.ptr<float>()[0] = 7.0f;
        const Mat copy = mat;
        mat = copy;
        EXPECT_EQ(1, allocator.alive);
        EXPECT_EQ(7.0f, mat.ptr<float>()[0]);
        EXPECT_EQ(2, *mat.refcount);
    }
    EXPECT_EQ(0, allocator.alive);
}

TEST(MatBlock, CreateWithTheSameShapeAndAllocatorKeepsTheContents) {
    PoisoningAllocator first, second;
    Mat mat(chw(1, 1, 4), &first);
    mat.ptr<float>()[2] = 5.0f;
    void* data = mat.data;
    mat.create(chw(1, 1, 4), &first);
    EXPECT_EQ(data, mat.data);
    EXPECT_EQ(5.0f, mat.ptr<float>()[2]);
    mat.create(chw(1, 1, 4), &second);
    EXPECT_EQ(0, first.alive);
    EXPECT_EQ(1, second.alive);
}

TEST(MatBlock, CreateFromItsOwnShapeIsSafe) {
    PoisoningAllocator allocator;
    Mat mat(chw(2, 3, 4), nullptr);
    mat.create(mat.shape, &allocator);
    EXPECT_EQ(24, mat.shape.total());
    EXPECT_FALSE(mat.empty());
}

TEST(MatBlock, ATensorBeyondThirtyTwoBitsIsAFailedRequest) {
    AssertRecorder assertions;
    const Mat mat(chw(65535, 65535, 65535), nullptr);
    EXPECT_EQ(nullptr, mat.data);
    EXPECT_TRUE(mat.empty());
    EXPECT_EQ(1u, assertions.count("false && \"malloc failed\""));
}

TEST(MatBlock, AnAllocatorThatGivesNothingLeavesTheMatEmpty) {
    PoisoningAllocator allocator;
    allocator.fail = true;
    const Mat mat(chw(1, 2, 2), &allocator);
    EXPECT_TRUE(mat.empty());
    EXPECT_EQ(nullptr, mat.refcount);
}

TEST(MatBlock, CopiesOnTwoThreadsCountTogether) {
    const Mat shared(chw(1, 1, 16), nullptr);
    const auto work = [&shared] {
        for (int i = 0; i < 20000; ++i) {
            const Mat copy = shared;
            EXPECT_GE(__atomic_load_n(copy.refcount, __ATOMIC_RELAXED), 2);
        }
    };
    std::thread other(work);
    work();
    other.join();
    EXPECT_EQ(1, *shared.refcount);
}

TEST(MatChannel, IsAViewWithoutAShare) {
    Mat mat = random_tensor(3, 2, 5, 2);
    Mat view = mat.channel(2);
    EXPECT_EQ(mat.ptr<float>() + 20, view.ptr<float>());
    EXPECT_EQ(nullptr, view.refcount);
    EXPECT_EQ(1, view.shape.c);
    EXPECT_EQ(2, view.shape.h);
    EXPECT_EQ(5, view.shape.w);
    EXPECT_EQ(1, *mat.refcount);
    const Mat& constant = mat;
    EXPECT_EQ(view.data, constant.channel(2).data);
}

TEST(MatClone, HasABlockOfItsOwn) {
    PoisoningAllocator allocator;
    const Mat mat = random_tensor(2, 3, 3, 3);
    const Mat copy = mat.clone(&allocator);
    EXPECT_NE(mat.data, copy.data);
    EXPECT_EQ(&allocator, copy.allocator);
    EXPECT_EQ(values_of(mat), values_of(copy));
    EXPECT_TRUE(Mat().clone(nullptr).empty());
    EXPECT_TRUE(Mat(chw(2, 0, 2), nullptr).clone(nullptr).empty());
}

TEST(MatFromArray, KeepsValuesShapeAndFraction) {
    const float floats[6] = {1, 2, 3, 4, 5, 6};
    const Mat f = Mat::from_float_array(floats, 3, 1, 2, TensorShape::CHW, nullptr);
    EXPECT_TRUE(f.shape == TensorShape(TensorShape::CHW, 2, 1, 3, 4));
    EXPECT_EQ((std::vector<float>{1, 2, 3, 4, 5, 6}), values_of(f));
    const short shorts[4] = {-1, 2, -3, 4};
    const Mat s = Mat::from_int16_array(shorts, 2, 2, 1, TensorShape::CHW, nullptr, 10);
    EXPECT_TRUE(s.shape == TensorShape(TensorShape::CHW, 1, 2, 2, 2, 10));
    EXPECT_EQ(-3, s.ptr<short>()[2]);
    const signed char bytes[3] = {-128, 0, 127};
    const Mat b = Mat::from_int8_array(bytes, 3, 1, 1, TensorShape::C4HW4, nullptr, 7);
    EXPECT_TRUE(b.shape == TensorShape(TensorShape::C4HW4, 1, 1, 3, 1, 7));
    EXPECT_EQ(-128, b.ptr<signed char>()[0]);
}

TEST(SubstractMeanNormalize, OnFiveByFiveChangesTwentyFourOfTwentyFive) {
    for (const bool with_mean : {false, true}) {
        for (const bool with_norm : {false, true}) {
            const Mat before = random_tensor(2, 5, 5, 4);
            Mat mat = before.clone(nullptr);
            const float means[2] = {0.25f, -1.5f};
            const float norms[2] = {3.0f, 0.5f};
            mat.substract_mean_normalize(with_mean ? means : nullptr, with_norm ? norms : nullptr);
            for (int q = 0; q < 2; ++q) {
                for (int i = 0; i < 25; ++i) {
                    float expected = before.ptr<float>()[q * 25 + i];
                    if (i < 24 && with_mean) expected -= means[q];
                    if (i < 24 && with_norm) expected *= norms[q];
                    EXPECT_EQ(expected, mat.ptr<float>()[q * 25 + i]) << q << " " << i;
                }
            }
        }
    }
}

TEST(CopyMakeBorder, AFillOfOneIsTheByteOneFourTimes) {
    const Mat src = random_tensor(2, 2, 3, 5);
    Mat dst;
    copy_make_border(src, dst, 1, 2, 3, 4, 0, 1.0f, nullptr, 1);
    ASSERT_TRUE(dst.shape == chw(2, 5, 10));
    for (int q = 0; q < 2; ++q) {
        for (int y = 0; y < 5; ++y) {
            for (int x = 0; x < 10; ++x) {
                const float value = dst.ptr<float>()[(q * 5 + y) * 10 + x];
                const bool inside = y >= 1 && y < 3 && x >= 3 && x < 6;
                if (inside) {
                    EXPECT_EQ(src.ptr<float>()[(q * 2 + y - 1) * 3 + x - 3], value);
                } else {
                    EXPECT_EQ(0x01010101u, bits_of(value));
                    EXPECT_EQ(2.3694278e-38f, value);
                }
            }
        }
    }
}

TEST(CopyMakeBorder, TheLowestFloatBecomesZeroBytes) {
    // (int) of it is 0x80000000, whose low byte is 0.
    Mat dst;
    copy_make_border(random_tensor(1, 1, 1, 6), dst, 1, 0, 0, 0, 0, -3.4028235e38f, nullptr, 1);
    EXPECT_EQ(0u, bits_of(dst.ptr<float>()[0]));
}

TEST(CopyMakeBorder, FourZeroMarginsShareTheBlock) {
    const Mat src = random_tensor(1, 2, 2, 7);
    Mat dst;
    copy_make_border(src, dst, 0, 0, 0, 0, 0, 1.0f, nullptr, 1);
    EXPECT_EQ(src.data, dst.data);
}

TEST(CopyMakeBorder, NoMemoryLeavesTheTargetEmpty) {
    PoisoningAllocator allocator;
    allocator.fail = true;
    Mat dst;
    copy_make_border(random_tensor(1, 2, 2, 8), dst, 1, 1, 1, 1, 0, 0.0f, &allocator, 1);
    EXPECT_TRUE(dst.empty());
}

TEST(CopyMakeBorder, MayWriteOverItsSource) {
    Mat mat = random_tensor(1, 1, 2, 9);
    const std::vector<float> before = values_of(mat);
    copy_make_border(mat, mat, 0, 0, 1, 1, 0, 0.0f, nullptr, 1);
    EXPECT_EQ((std::vector<float>{0, before[0], before[1], 0}), values_of(mat));
}

TEST(CopyMakeBorder, OtherElementSizesStayInsideTheirBlocks) {
    PoisoningAllocator allocator;
    for (int elem_size : {1, 2}) {
        Mat src(TensorShape(TensorShape::CHW, 3, 4, 5, elem_size), &allocator);
        std::memset(src.data, 1, static_cast<size_t>(60) * elem_size);
        Mat dst;
        copy_make_border(src, dst, 1, 1, 2, 2, 0, 0.0f, &allocator, 1);
        EXPECT_TRUE(dst.shape == TensorShape(TensorShape::CHW, 3, 6, 9, elem_size));
        // The walk goes in steps of 4 bytes from the start of each channel: what fits of the first
        // rows is a row of 0, then 2 words of margin and the first words of the source.
        const unsigned char* bytes = dst.ptr<unsigned char>();
        for (int i = 0; i < 9 * 4; ++i) EXPECT_EQ(0, bytes[i]);
        for (int i = 9 * 4; i < 11 * 4; ++i) EXPECT_EQ(0, bytes[i]);
        for (int i = 11 * 4; i < 12 * 4; ++i) EXPECT_EQ(1, bytes[i]);
    }
    EXPECT_EQ(0, allocator.alive);
}

TEST(CopyCutBorder, KeepsTheInside) {
    const Mat src = random_tensor(2, 4, 5, 10);
    Mat dst;
    copy_cut_border(src, dst, 1, 1, 2, 0, nullptr, 1);
    ASSERT_TRUE(dst.shape == chw(2, 2, 3));
    for (int q = 0; q < 2; ++q)
        for (int y = 0; y < 2; ++y)
            for (int x = 0; x < 3; ++x)
                EXPECT_EQ(src.ptr<float>()[(q * 4 + y + 1) * 5 + x + 2],
                          dst.ptr<float>()[(q * 2 + y) * 3 + x]);
}

TEST(CopyCutBorder, FourZeroMarginsShareTheBlock) {
    const Mat src = random_tensor(1, 2, 2, 11);
    Mat dst;
    copy_cut_border(src, dst, 0, 0, 0, 0, nullptr, 1);
    EXPECT_EQ(src.data, dst.data);
}

TEST(CopyCutBorder, LeavesTheTargetOfASingleRowAlone) {
    const Mat src = random_tensor(1, 1, 8, 12);
    Mat dst = random_tensor(1, 1, 3, 13);
    void* before = dst.data;
    copy_cut_border(src, dst, 0, 0, 1, 1, nullptr, 1);
    EXPECT_EQ(before, dst.data);
}

TEST(CopyCutBorder, AMarginLargerThanTheTensorEmptiesTheTarget) {
    Mat dst;
    copy_cut_border(random_tensor(1, 2, 2, 14), dst, 1, 1, 0, 0, nullptr, 1);
    EXPECT_TRUE(dst.empty());
}

}  // namespace
