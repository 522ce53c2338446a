#include <gtest/gtest.h>
#include <tarno/cpu.h>

#include <map>
#include <string>
#include <vector>

#include "support/guarded_bytes.h"
#include "support/recorders.h"
#include "support/tensors.h"

namespace {

using namespace TarnoCPU;
using namespace testing_support;

using Bytes = std::vector<unsigned char>;

struct PixelType {
    int bytes;
    // For each channel the factors of the bytes and the divisor behind their sum.
    std::vector<std::vector<int>> factors;
    int divisor;
};

const std::map<int, PixelType> pixel_types = {
    {1, {3, {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}}, 1}},
    {2, {3, {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}}, 1}},
    {4, {1, {{1}}, 1}},
    {8, {4, {{1, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 0}, {0, 0, 0, 1}}, 1}},
    {0x10002, {3, {{0, 0, 1}, {0, 1, 0}, {1, 0, 0}}, 1}},
    {0x20001, {3, {{0, 0, 1}, {0, 1, 0}, {1, 0, 0}}, 1}},
    {0x40001, {3, {{77, 150, 29}}, 256}},
    {0x40002, {3, {{29, 150, 77}}, 256}},
    {0x10004, {1, {{1}, {1}, {1}}, 1}},
    {0x20004, {1, {{1}, {1}, {1}}, 1}},
    {0x10008, {4, {{1, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 0}}, 1}},
    {0x20008, {4, {{0, 0, 1, 0}, {0, 1, 0, 0}, {1, 0, 0, 0}}, 1}},
    {0x40008, {4, {{77, 150, 29, 0}}, 256}},
};

std::vector<float> planes_reference(const PixelType& type, const Bytes& pixels, size_t count) {
    std::vector<float> planes;
    for (const auto& factors : type.factors) {
        for (size_t p = 0; p < count; ++p) {
            int sum = 0;
            for (int b = 0; b < type.bytes; ++b) sum += factors[b] * pixels[p * type.bytes + b];
            planes.push_back(static_cast<float>(sum / type.divisor));
        }
    }
    return planes;
}

TEST(FromPixels, EveryTypeAgreesWithItsFactorsOverManySizes) {
    for (const auto& [code, type] : pixel_types) {
        for (const int w : {1, 2, 3, 4, 5, 7, 8, 11, 15, 16, 17, 23, 31, 32, 33, 40}) {
            for (const int h : {1, 2, 3, 7, 40}) {
                const size_t count = static_cast<size_t>(w) * h;
                const Bytes pixels = random_bytes(count * type.bytes, 10 * w + h);
                PoisoningAllocator allocator;
                {
                    const Mat planes = Mat::from_pixels(pixels.data(), code, w, h, &allocator);
                    const TensorShape& shape = planes.shape;
                    ASSERT_EQ(chw(static_cast<int>(type.factors.size()), h, w), shape);
                    ASSERT_EQ(&allocator, planes.allocator);
                    ASSERT_EQ(planes_reference(type, pixels, count), values_of(planes))
                        << "type " << code << ", " << w << " x " << h;
                    // The counter behind the block is intact, so nothing was written beyond.
                    ASSERT_EQ(1, *planes.refcount);
                }
                ASSERT_EQ(0, allocator.alive);
            }
        }
    }
}

TEST(FromPixels, EveryByteValueBecomesTheSameFloat) {
    Bytes pixels;
    for (int value = 0; value < 256; ++value) pixels.push_back(static_cast<unsigned char>(value));
    const auto values = values_of(Mat::from_pixels(pixels.data(), 4, 16, 16, nullptr));
    for (int value = 0; value < 256; ++value) ASSERT_EQ(static_cast<float>(value), values[value]);
}

TEST(FromPixels, EveryTypeOutsideTheTableGivesAnEmptyMat) {
    const Bytes pixels(64, 1);
    std::vector<int> codes = {-1, static_cast<int>(0x80000001u)};
    for (int high = 0; high <= 16; ++high) {
        for (int low = 0; low <= 16; ++low) codes.push_back(high << 16 | low);
    }
    for (const int code : codes) {
        if (pixel_types.count(code) != 0) continue;
        for (const Mat& result :
             {Mat::from_pixels(pixels.data(), code, 2, 2, nullptr),
              Mat::from_pixels_resize(pixels.data(), code, 2, 2, 3, 3, nullptr),
              Mat::from_pixels_resize(pixels.data(), code, 2, 2, 2, 2, nullptr)}) {
            EXPECT_TRUE(result.empty()) << code;
            EXPECT_EQ(TensorShape(), result.shape) << code;
        }
    }
}

TEST(FromPixels, TypeThreeGivesAnEmptyMat) {
    const Bytes pixels(12, 1);
    EXPECT_TRUE(Mat::from_pixels(pixels.data(), 3, 2, 2, nullptr).empty());
}

TEST(FromPixels, TurningRgbRoundIsTurningBgrRound) {
    const Bytes pixels = random_bytes(3 * 35, 2);
    EXPECT_EQ(values_of(Mat::from_pixels(pixels.data(), 0x20001, 7, 5, nullptr)),
              values_of(Mat::from_pixels(pixels.data(), 0x10002, 7, 5, nullptr)));
}

TEST(FromPixels, AWhitePixelIsAGreyOf255) {
    const Bytes white(4, 255);
    for (const int code : {0x40001, 0x40002, 0x40008}) {
        EXPECT_EQ(std::vector<float>{255.0f},
                  values_of(Mat::from_pixels(white.data(), code, 1, 1, nullptr)));
    }
}

TEST(FromPixels, NoMemoryGivesAnEmptyMat) {
    const Bytes pixels(12, 1);
    PoisoningAllocator allocator;
    allocator.fail = true;
    EXPECT_TRUE(Mat::from_pixels(pixels.data(), 1, 2, 2, &allocator).empty());
    EXPECT_TRUE(Mat::from_pixels_resize(pixels.data(), 1, 2, 2, 5, 5, &allocator).empty());
    EXPECT_EQ(2, allocator.calls);
}

TEST(FromPixels, SizesBelowOneReadNothing) {
    EXPECT_TRUE(Mat::from_pixels(nullptr, 1, 0, 5, nullptr).empty());
    EXPECT_TRUE(Mat::from_pixels(nullptr, 1, 5, 0, nullptr).empty());
    EXPECT_TRUE(Mat::from_pixels(nullptr, 1, -5, 3, nullptr).empty());
    EXPECT_EQ(0, Mat::from_pixels(nullptr, 1, -5, -3, nullptr).shape.dims());
    EXPECT_TRUE(Mat::from_pixels_resize(nullptr, 1, 4, 4, 0, 5, nullptr).empty());
    EXPECT_EQ(0, Mat::from_pixels_resize(nullptr, 1, 4, 4, -2, -5, nullptr).shape.dims());
}

TEST(FromPixels, ASizeBeyondTheAddressSpaceOfABlockGivesAnEmptyMat) {
    AssertRecorder assertions;
    const Bytes pixels(64, 1);
    EXPECT_TRUE(Mat::from_pixels(pixels.data(), 1, 1 << 20, 1 << 20, nullptr).empty());
    EXPECT_TRUE(Mat::from_pixels_resize(pixels.data(), 1, 2, 2, 1 << 20, 1 << 20, nullptr).empty());
    EXPECT_EQ(2u, assertions.count("false && \"malloc failed\""));
}

TEST(FromPixelsResize, EveryTypeIsTheBilinearResizeAndThenTheConversion) {
    for (const auto& [code, type] : pixel_types) {
        const int low = code & 0xffff;
        for (const auto& size : std::vector<std::vector<int>>{
                 {9, 7, 16, 12}, {16, 12, 9, 7}, {16, 12, 16, 7}, {16, 12, 9, 12}, {3, 3, 1, 1}}) {
            const int w = size[0], h = size[1], target_w = size[2], target_h = size[3];
            const Bytes pixels = random_bytes(static_cast<size_t>(type.bytes) * w * h, 77);
            Bytes resized(static_cast<size_t>(type.bytes) * target_w * target_h);
            const auto resize = low == 4   ? &resize_bilinear_c1
                                : low == 8 ? &resize_bilinear_c4
                                           : &resize_bilinear_c3;
            resize(pixels.data(), w, h, resized.data(), target_w, target_h);
            PoisoningAllocator allocator;
            {
                const Mat planes = Mat::from_pixels_resize(pixels.data(), code, w, h, target_w,
                                                           target_h, &allocator);
                EXPECT_EQ(&allocator, planes.allocator);
                EXPECT_EQ(chw(static_cast<int>(type.factors.size()), target_h, target_w),
                          planes.shape);
                EXPECT_EQ(planes_reference(type, resized, static_cast<size_t>(target_w) * target_h),
                          values_of(planes))
                    << "type " << code;
            }
            EXPECT_EQ(0, allocator.alive);
        }
    }
}

TEST(FromPixelsResize, TheSameSizeIgnoresTheAllocator) {
    const Bytes pixels = random_bytes(3 * 12, 5);
    PoisoningAllocator allocator;
    const Mat planes = Mat::from_pixels_resize(pixels.data(), 1, 4, 3, 4, 3, &allocator);
    EXPECT_EQ(0, allocator.calls);
    EXPECT_EQ(nullptr, planes.allocator);
    EXPECT_EQ(values_of(Mat::from_pixels(pixels.data(), 1, 4, 3, nullptr)), values_of(planes));
}

TEST(FromPixelsResize, ASourceWithoutPixelsGivesZeros) {
    const Mat planes = Mat::from_pixels_resize(nullptr, 1, 0, 4, 2, 3, nullptr);
    EXPECT_EQ(std::vector<float>(18, 0.0f), values_of(planes));
}

}  // namespace
