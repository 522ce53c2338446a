#include <gtest/gtest.h>
#include <tarno/cpu.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "support/guarded_bytes.h"

namespace {

using namespace TarnoCPU;
using namespace testing_support;

using Bytes = std::vector<unsigned char>;

// The definition, byte by byte, with divisions where the library shifts.

int64_t floor_divide(int64_t value, int64_t divisor) {
    const int64_t quotient = value / divisor;
    return value % divisor < 0 ? quotient - 1 : quotient;
}

// The low bits of `value` as an unsigned number.
int64_t modulo(int64_t value, int64_t divisor) {
    return value - floor_divide(value, divisor) * divisor;
}

struct Tap {
    int place;
    int64_t weight[2];
};

Tap bilinear_tap(int channels, int d, int source, int target) {
    const double scale = static_cast<double>(source) / target;
    const float f = static_cast<float>((d + 0.5) * scale - 0.5);
    Tap tap;
    tap.place = static_cast<int>(std::trunc(f));
    float fraction = f - static_cast<float>(tap.place);
    if (tap.place < 0) {
        tap.place = 0;
        fraction = 0.0f;
    }
    if (tap.place >= source - 1) {
        tap.place = source - 2;
        fraction = 1.0f;
    }
    const float one = channels == 3 ? 8192.0f : 2048.0f;
    const float exact[2] = {(1.0f - fraction) * one, fraction * one};
    for (int i = 0; i < 2; ++i) {
        if (channels == 3) {
            const double up = static_cast<double>(exact[i]) + (exact[i] < 0.0f ? -0.5 : 0.5);
            tap.weight[i] = static_cast<int64_t>(std::trunc(up));
        } else {
            const float up = exact[i] + (exact[i] < 0.0f ? -0.5f : 0.5f);
            tap.weight[i] = static_cast<int64_t>(std::trunc(up));
        }
        tap.weight[i] = std::min<int64_t>(32767, std::max<int64_t>(-32768, tap.weight[i]));
    }
    return tap;
}

Bytes bilinear_reference(int channels, const Bytes& src, int srcw, int srch, int w, int h) {
    const int64_t row_divisor = channels == 3 ? 64 : 16;
    const int64_t column_divisor = channels == 3 ? 262144 : 65536;
    Bytes result(static_cast<size_t>(channels) * w * h);
    // The value of a place left of or above the image has the weight 0 and may be anything.
    const auto pixel = [&](int y, int x, int k) -> int64_t {
        return x < 0 || y < 0 ? 99 : src[(static_cast<size_t>(y) * srcw + x) * channels + k];
    };
    for (int y = 0; y < h; ++y) {
        const Tap row = bilinear_tap(channels, y, srch, h);
        for (int x = 0; x < w; ++x) {
            const Tap column = bilinear_tap(channels, x, srcw, w);
            for (int k = 0; k < channels; ++k) {
                int64_t sum = 2;
                for (int i = 0; i < 2; ++i) {
                    const int64_t across =
                        pixel(row.place + i, column.place, k) * column.weight[0] +
                        pixel(row.place + i, column.place + 1, k) * column.weight[1];
                    const int64_t line =
                        modulo(floor_divide(across, row_divisor) + 32768, 65536) - 32768;
                    sum += floor_divide(line * row.weight[i], column_divisor);
                }
                result[(static_cast<size_t>(y) * w + x) * channels + k] =
                    static_cast<unsigned char>(modulo(floor_divide(sum, 4), 256));
            }
        }
    }
    return result;
}

using Resize = void (*)(const unsigned char*, int, int, unsigned char*, int, int);
const Resize bilinear[5] = {nullptr, &resize_bilinear_c1, &resize_bilinear_c2, &resize_bilinear_c3,
                            &resize_bilinear_c4};

// Runs it on a source of exactly its size and checks the bytes around the target.
Bytes run(Resize resize, int channels, const Bytes& src, int srcw, int srch, int w, int h) {
    GuardedBytes dst(static_cast<size_t>(channels) * w * h);
    resize(src.data(), srcw, srch, dst.data(), w, h);
    EXPECT_TRUE(dst.guards_intact());
    return dst.contents();
}

::testing::AssertionResult bilinear_agrees(int channels, const Bytes& src, int srcw, int srch,
                                           int w, int h) {
    const Bytes computed = run(bilinear[channels], channels, src, srcw, srch, w, h);
    const Bytes expected = bilinear_reference(channels, src, srcw, srch, w, h);
    if (computed == expected) return ::testing::AssertionSuccess();
    const auto at = std::mismatch(computed.begin(), computed.end(), expected.begin());
    return ::testing::AssertionFailure()
           << channels << " channels, " << srcw << " x " << srch << " to " << w << " x " << h
           << ": byte " << at.first - computed.begin() << " is " << int{*at.first} << ", not "
           << int{*at.second};
}

class ResizeBilinear : public ::testing::TestWithParam<int> {};
INSTANTIATE_TEST_SUITE_P(Channels, ResizeBilinear, ::testing::Values(1, 2, 3, 4));

TEST_P(ResizeBilinear, AgreesWithTheDefinitionOverManySizes) {
    const int channels = GetParam();
    unsigned int seed = 1;
    for (const int srcw : {1, 2, 3, 5, 8, 17, 40}) {
        for (const int srch : {1, 2, 3, 6, 19, 40}) {
            for (const int w : {1, 2, 3, 4, 7, 8, 9, 16, 31, 33, 40}) {
                for (const int h : {1, 2, 3, 5, 12, 21, 40}) {
                    SCOPED_TRACE(seed);
                    const Bytes src =
                        random_bytes(static_cast<size_t>(channels) * srcw * srch, seed++);
                    ASSERT_TRUE(bilinear_agrees(channels, src, srcw, srch, w, h));
                }
            }
        }
    }
}

TEST_P(ResizeBilinear, AgreesWithTheDefinitionForEveryWeightOfARow) {
    const int channels = GetParam();
    unsigned int seed = 7000;
    for (const int srch : {1, 2, 3, 7, 40}) {
        for (int h = 1; h <= 150; ++h) {
            SCOPED_TRACE(seed);
            const Bytes src = random_bytes(static_cast<size_t>(channels) * 5 * srch, seed++);
            ASSERT_TRUE(bilinear_agrees(channels, src, 5, srch, 9, h));
        }
    }
}

TEST_P(ResizeBilinear, AgreesWithTheDefinitionForEveryWeightOfAColumn) {
    const int channels = GetParam();
    unsigned int seed = 9000;
    for (const int srcw : {1, 2, 3, 7, 40}) {
        for (int w = 1; w <= 150; ++w) {
            SCOPED_TRACE(seed);
            const Bytes src = random_bytes(static_cast<size_t>(channels) * 3 * srcw, seed++);
            ASSERT_TRUE(bilinear_agrees(channels, src, srcw, 3, w, 5));
        }
    }
}

// Every pair of neighbours is as far apart as can be, so extrapolation leaves the range of a byte
// and of the 16-bit line.
TEST_P(ResizeBilinear, ExtrapolatedValuesWrapAsTheDefinitionSays) {
    const int channels = GetParam();
    for (const int phase : {0, 1}) {
        for (const int size : {2, 3, 4, 9}) {
            Bytes src(static_cast<size_t>(channels) * size * size);
            for (size_t i = 0; i < src.size(); ++i) {
                const size_t x = i / channels % size, y = i / channels / size;
                src[i] = (x + y + phase) % 2 == 0 ? 0 : 255;
            }
            for (int w = size; w <= 4 * size + 1; ++w) {
                for (const int h : {2 * size, 3 * size + 1}) {
                    ASSERT_TRUE(bilinear_agrees(channels, src, size, size, w, h));
                }
            }
        }
    }
}

TEST_P(ResizeBilinear, TheSameSizeCopies) {
    const int channels = GetParam();
    const Bytes src = random_bytes(static_cast<size_t>(channels) * 21 * 10, 3);
    EXPECT_EQ(src, run(bilinear[channels], channels, src, 21, 10, 21, 10));
}

TEST_P(ResizeBilinear, ASourceOfOnePixelFillsTheTarget) {
    const int channels = GetParam();
    const Bytes src = random_bytes(static_cast<size_t>(channels), 4);
    const Bytes result = run(bilinear[channels], channels, src, 1, 1, 13, 6);
    for (size_t i = 0; i < result.size(); ++i) ASSERT_EQ(src[i % channels], result[i]);
}

TEST_P(ResizeBilinear, ASourceOfOneColumnRepeatsItsRows) {
    const int channels = GetParam();
    const Bytes src = random_bytes(static_cast<size_t>(channels) * 7, 5);
    const Bytes result = run(bilinear[channels], channels, src, 1, 7, 11, 7);
    for (size_t y = 0; y < 7; ++y) {
        for (size_t i = 0; i < 11u * channels; ++i) {
            ASSERT_EQ(src[y * channels + i % channels], result[y * 11 * channels + i]);
        }
    }
}

TEST_P(ResizeBilinear, EmptyAndNegativeSizesWriteNothing) {
    const int channels = GetParam();
    const Bytes src = random_bytes(static_cast<size_t>(channels) * 16, 6);
    const int sizes[][4] = {{0, 4, 2, 2},   {4, 0, 2, 2},  {4, 4, 0, 2},  {4, 4, 2, 0},
                            {-4, 4, 2, 2},  {4, -4, 2, 2}, {4, 4, -2, 2}, {4, 4, 2, -2},
                            {-4, -4, 2, 2}, {4, 4, -2, -2}};
    for (const auto& size : sizes) {
        GuardedBytes dst(64);
        bilinear[channels](src.data(), size[0], size[1], dst.data(), size[2], size[3]);
        EXPECT_EQ(Bytes(64, 0xcd), dst.contents());
        EXPECT_TRUE(dst.guards_intact());
    }
}

TEST_P(ResizeBilinear, TheLastColumnOfTwoByTwoEnlargedToFourByFourIsTheSourcesLastColumn) {
    const size_t channels = static_cast<size_t>(GetParam());
    const Bytes src = random_bytes(channels * 4, 8);
    const Bytes result = run(bilinear[channels], GetParam(), src, 2, 2, 4, 4);
    Bytes column;
    for (const size_t y : {0, 1}) {
        for (size_t k = 0; k < channels; ++k) column.push_back(src[(y * 2 + 1) * channels + k]);
    }
    const Bytes expected = bilinear_reference(GetParam(), column, 1, 2, 1, 4);
    for (size_t y = 0; y < 4; ++y) {
        for (size_t k = 0; k < channels; ++k) {
            EXPECT_EQ(expected[y * channels + k], result[(y * 4 + 3) * channels + k]);
        }
    }
    for (size_t k = 0; k < channels; ++k) {
        EXPECT_EQ(src[3 * channels + k], result[15 * channels + k]);
    }
}

TEST(ResizeBilinearFirstColumn, AnEnlargementExtrapolatesALittle) {
    // Column 0 lies a quarter of a pixel left of the first: 1.25 * 100 - 0.25 * 60.
    const Bytes result = run(&resize_bilinear_c1, 1, {100, 60, 100, 60}, 2, 2, 4, 4);
    EXPECT_EQ(110, result[0]);
    EXPECT_EQ(90, result[1]);
    EXPECT_EQ(60, result[3]);
}

TEST(ResizeBilinearFirstColumn, AnOvershootWrapsAndIsNotClamped) {
    // 1.25 * 255 - 0.25 * 0 is 318.75, of which the low 8 bits stay.
    const Bytes result = run(&resize_bilinear_c1, 1, {255, 0, 255, 0}, 2, 2, 4, 2);
    EXPECT_EQ(319 - 256, result[0]);
}

TEST(ResizeBilinearC3, DiffersFromOneChannelByAtMostOneInSinglePixels) {
    // Away from the ends of the range, so that no value wraps.
    const Bytes grey = random_bytes(40 * 30, 11, 80, 170);
    Bytes three;
    for (const unsigned char value : grey) three.insert(three.end(), 3, value);
    const Bytes one_result = run(&resize_bilinear_c1, 1, grey, 40, 30, 57, 43);
    const Bytes three_result = run(&resize_bilinear_c3, 3, three, 40, 30, 57, 43);
    int differing = 0;
    for (size_t i = 0; i < one_result.size(); ++i) {
        for (size_t k = 0; k < 3; ++k) {
            const int difference = std::abs(one_result[i] - three_result[3 * i + k]);
            ASSERT_LE(difference, 1);
            differing += difference;
        }
    }
    EXPECT_GT(differing, 0);
}

TEST(ResizeBilinearSisters, OnTheCoarseScaleTwoAndFourChannelsGiveTheBytesOfOne) {
    const Bytes grey = random_bytes(23 * 11, 12);
    const Bytes expected = run(&resize_bilinear_c1, 1, grey, 23, 11, 30, 19);
    for (const int channels : {2, 4}) {
        Bytes wide;
        for (const unsigned char value : grey) wide.insert(wide.end(), channels, value);
        const Bytes result = run(bilinear[channels], channels, wide, 23, 11, 30, 19);
        for (size_t i = 0; i < result.size(); ++i) ASSERT_EQ(expected[i / channels], result[i]);
    }
}

// Nearest: the place of a target column in the source, or -1.
int nearest_reference(int d, int source, int target) {
    const float scale = static_cast<float>(source) / static_cast<float>(target);
    const float f = static_cast<float>((d + 0.5) * static_cast<double>(scale) - 0.5);
    int place = static_cast<int>(std::trunc(f));
    float fraction = f - static_cast<float>(place);
    if (place < 0) {
        place = 0;
        fraction = 0.0f;
    }
    if (place >= source - 1) return source - 1;
    return fraction >= 0.5f ? place + 1 : place;
}

int crop_reference(int d, int source, int target, int start, int end) {
    const float scale = static_cast<float>(end - start + 1) / static_cast<float>(target);
    const float f = static_cast<float>((d + 0.5) * static_cast<double>(scale) - 0.5);
    int place = static_cast<int>(std::trunc(f));
    float fraction = f - static_cast<float>(place);
    if (place < 0) {
        place = 0;
        fraction = 0.0f;
    }
    if (place >= end - start) {
        place = end - start;
        fraction = 0.0f;
    }
    place += start;
    if (place < 0 || place > source - 1) return -1;
    if (place != source - 1 && fraction >= 0.5f) ++place;
    return place;
}

TEST(ResizeNearest, AgreesWithTheDefinitionOverManySizes) {
    unsigned int seed = 100;
    for (const int srcw : {1, 2, 3, 8, 17, 40}) {
        for (const int srch : {1, 2, 5, 40}) {
            for (int w = 1; w <= 40; w += 3) {
                for (const int h : {1, 2, 3, 11, 40}) {
                    SCOPED_TRACE(seed);
                    const Bytes src = random_bytes(static_cast<size_t>(srcw) * srch, seed++);
                    const Bytes result = run(&resize_nearest_c1, 1, src, srcw, srch, w, h);
                    for (int y = 0; y < h; ++y) {
                        for (int x = 0; x < w; ++x) {
                            const int from = nearest_reference(y, srch, h) * srcw +
                                             nearest_reference(x, srcw, w);
                            ASSERT_EQ(src[from], result[static_cast<size_t>(y) * w + x]);
                        }
                    }
                }
            }
        }
    }
}

TEST(ResizeNearest, EmptyAndNegativeSizesWriteNothing) {
    const Bytes src(16, 1);
    const int sizes[][4] = {{0, 4, 2, 2}, {4, 0, 2, 2},  {4, 4, 0, 2},
                            {4, 4, 2, 0}, {-4, 4, 2, 2}, {4, 4, -2, -2}};
    for (const auto& size : sizes) {
        GuardedBytes dst(64);
        resize_nearest_c1(src.data(), size[0], size[1], dst.data(), size[2], size[3]);
        crop_resize_nearest_c4(src.data(), size[0], size[1], dst.data(), size[2], size[3], 0, 0, 3,
                               3);
        EXPECT_EQ(Bytes(64, 0xcd), dst.contents());
        EXPECT_TRUE(dst.guards_intact());
    }
}

using Crop = void (*)(const unsigned char*, int, int, unsigned char*, int, int, int, int, int, int);
struct CropCase {
    int channels;
    Crop crop;
};
class CropResizeNearest : public ::testing::TestWithParam<CropCase> {};
INSTANTIATE_TEST_SUITE_P(Channels, CropResizeNearest,
                         ::testing::Values(CropCase{1, &crop_resize_nearest_c1},
                                           CropCase{3, &crop_resize_nearest_c3},
                                           CropCase{4, &crop_resize_nearest_c4}),
                         [](const auto& info) {
                             return "C" + std::to_string(info.param.channels);
                         });

TEST_P(CropResizeNearest, AgreesWithTheDefinitionInsideAndOutsideOfTheImage) {
    const int channels = GetParam().channels;
    const int srcw = 13, srch = 9;
    const Bytes src = random_bytes(static_cast<size_t>(channels) * srcw * srch, 55);
    for (const int x0 : {-30, -10, -1, 0, 5, 12, 13, 20}) {
        for (const int x1 : {-12, -1, 0, 4, 12, 13, 25}) {
            for (const int y0 : {-9, 0, 3, 8}) {
                for (const int y1 : {-2, 3, 8, 15}) {
                    for (const int w : {1, 7, 16}) {
                        const int h = 11;
                        GuardedBytes dst(static_cast<size_t>(channels) * w * h);
                        GetParam().crop(src.data(), srcw, srch, dst.data(), w, h, x0, y0, x1, y1);
                        ASSERT_TRUE(dst.guards_intact());
                        const Bytes result = dst.contents();
                        for (int y = 0; y < h; ++y) {
                            const int row = crop_reference(y, srch, h, y0, y1);
                            for (int x = 0; x < w; ++x) {
                                const int column = crop_reference(x, srcw, w, x0, x1);
                                for (int k = 0; k < channels; ++k) {
                                    const int expected =
                                        row < 0 || column < 0
                                            ? 0xcd
                                            : src[(row * srcw + column) * channels + k];
                                    ASSERT_EQ(expected, result[(y * w + x) * channels + k])
                                        << "(" << x0 << ", " << y0 << ") to (" << x1 << ", " << y1
                                        << ")";
                                }
                            }
                        }
                    }
                }
            }
        }
    }
}

TEST_P(CropResizeNearest, AnExtremeRectangleTouchesNothingOutside) {
    const int channels = GetParam().channels;
    const Bytes src = random_bytes(static_cast<size_t>(channels) * 4, 56);
    const int low = std::numeric_limits<int>::min(), high = std::numeric_limits<int>::max();
    for (const int x0 : {low, -1, high}) {
        for (const int x1 : {low, 1, high}) {
            GuardedBytes dst(static_cast<size_t>(channels) * 25);
            GetParam().crop(src.data(), 2, 2, dst.data(), 5, 5, x0, x0, x1, x1);
            EXPECT_TRUE(dst.guards_intact());
        }
    }
}

TEST(CropResizeNearestC3, ColumnsLeftOfTheImageStayAsTheyWere) {
    // Columns -10 to 9 of a 10 x 1 image, one to one: the first ten lie outside.
    const Bytes src = random_bytes(30, 57);
    GuardedBytes dst(60, 0x11);
    crop_resize_nearest_c3(src.data(), 10, 1, dst.data(), 20, 1, -10, 0, 9, 0);
    const Bytes result = dst.contents();
    EXPECT_EQ(Bytes(30, 0x11), Bytes(result.begin(), result.begin() + 30));
    EXPECT_EQ(src, Bytes(result.begin() + 30, result.end()));
    EXPECT_TRUE(dst.guards_intact());
}

TEST(CropResizeNearestC1, ARowOutsideTheImageIsSkippedAsAWhole) {
    const Bytes src = {1, 2, 3, 4};
    GuardedBytes dst(8, 0x11);
    crop_resize_nearest_c1(src.data(), 2, 2, dst.data(), 2, 4, 0, -1, 1, 2);
    EXPECT_EQ((Bytes{0x11, 0x11, 1, 2, 3, 4, 0x11, 0x11}), dst.contents());
}

}  // namespace
