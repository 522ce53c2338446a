// The layers that compute by themselves: Concat, Region, TensorReshape.
#include <gtest/gtest.h>

#include <cmath>
#include <numeric>

#include "cpu/layer/concat.h"
#include "cpu/layer/region.h"
#include "cpu/layer/tensorreshape.h"
#include "support/recorders.h"
#include "support/tensors.h"

namespace {

using namespace TarnoCPU;
using namespace testing_support;

// The fields stand in the headers, the type information of the classes stays in the library.
__attribute__((no_sanitize("undefined"))) std::unique_ptr<Layer> make_concat(int axis) {
    std::unique_ptr<Layer> layer(create_layer("Concat"));
    static_cast<Concat*>(layer.get())->axis = axis;
    return layer;
}

__attribute__((no_sanitize("undefined"))) std::unique_ptr<Layer> make_region(int num, int coords,
                                                                             int classes, int w,
                                                                             int h) {
    std::unique_ptr<Layer> layer(create_layer("Region"));
    Region* region = static_cast<Region*>(layer.get());
    region->num = num;
    region->coords = coords;
    region->classes = classes;
    region->w = w;
    region->h = h;
    return layer;
}

__attribute__((no_sanitize("undefined"))) std::unique_ptr<Layer> make_reshape(
    const std::vector<int>& dims) {
    std::unique_ptr<Layer> layer(create_layer("TensorReshape"));
    TensorReshape* reshape = static_cast<TensorReshape*>(layer.get());
    for (size_t i = 0; i < dims.size() && i < 4; ++i)
        reshape->dims[i] = dims[i];
    reshape->dim_count = static_cast<int>(dims.size());
    return layer;
}

struct Joined {
    int result;
    TensorShape shape;
    std::vector<float> values;
};

Joined join(int axis, const std::vector<Mat>& bottoms) {
    PoisoningAllocator blobs;
    Option opt;
    opt.blob_allocator = &blobs;
    Joined joined;
    {
        std::vector<Mat> tops(1);
        joined.result = make_concat(axis)->forward(bottoms, tops, opt);
        joined.shape = tops[0].shape;
        joined.values = values_of(tops[0]);
    }
    EXPECT_EQ(0, blobs.alive);
    return joined;
}

// Joins three bottoms whose sizes differ along `dimension` (0 channels, 1 rows, 2 columns) only.
void expect_joined(int axis, int dimension, const int base[3]) {
    SCOPED_TRACE(testing::Message() << "axis " << axis << ", seed 170");
    const int extents[] = {base[dimension], 2, 3};
    std::vector<Mat> bottoms;
    int shape[3] = {base[0], base[1], base[2]};
    for (unsigned int i = 0; i < 3; ++i) {
        shape[dimension] = extents[i];
        bottoms.push_back(random_tensor(shape[0], shape[1], shape[2], 170 + i));
    }
    shape[dimension] = extents[0] + extents[1] + extents[2];
    const Joined joined = join(axis, bottoms);
    ASSERT_EQ(0, joined.result);
    ASSERT_EQ(chw(shape[0], shape[1], shape[2]), joined.shape);
    for (int q = 0; q < shape[0]; ++q)
        for (int y = 0; y < shape[1]; ++y)
            for (int x = 0; x < shape[2]; ++x) {
                int at[3] = {q, y, x};
                size_t from = 0;
                while (at[dimension] >= extents[from])
                    at[dimension] -= extents[from++];
                const TensorShape& part = bottoms[from].shape;
                const size_t i = static_cast<size_t>((at[0] * part.h + at[1]) * part.w + at[2]);
                ASSERT_EQ(values_of(bottoms[from])[i],
                          joined.values[static_cast<size_t>((q * shape[1] + y) * shape[2] + x)]);
            }
}

TEST(Concat, JoinsAlongEveryAxisOfEveryDimensionCount) {
    const int three[] = {4, 3, 5}, two[] = {1, 3, 5}, one[] = {1, 1, 5};
    for (int axis = 0; axis < 3; ++axis)
        expect_joined(axis, axis, three);
    for (int axis = 0; axis < 2; ++axis)
        expect_joined(axis, axis + 1, two);
    for (const int axis : {0, 1, 2, 7, -1})
        expect_joined(axis, 2, one);
}

TEST(Concat, TheFirstBottomCountsTheDimensions) {
    // One channel in front: two dimensions, so axis 0 is rows, and every bottom adds its rows.
    const Joined joined = join(0, {random_tensor(1, 2, 3, 1), random_tensor(1, 1, 3, 2)});
    EXPECT_EQ(0, joined.result);
    EXPECT_EQ(chw(1, 3, 3), joined.shape);
}

TEST(Concat, AnAxisThatIsNoneLeavesTheTopUntouched) {
    const Mat volume = random_tensor(2, 3, 4, 1), plane = random_tensor(1, 3, 4, 1);
    for (const auto& each : {std::make_pair(3, volume), std::make_pair(-1, volume),
                             std::make_pair(2, plane), std::make_pair(-1, plane)}) {
        std::vector<Mat> tops = {random_tensor(1, 1, 2, 9)};
        void* const block = tops[0].data;
        EXPECT_EQ(0, make_concat(each.first)
                         ->forward({each.second, each.second}, tops, get_default_option()));
        EXPECT_EQ(block, tops[0].data);
    }
    std::vector<Mat> tops(1);
    const Mat none(chw(0, 3, 4), nullptr);
    EXPECT_EQ(0, make_concat(0)->forward({none, volume}, tops, get_default_option()));
    EXPECT_TRUE(tops[0].empty());
}

TEST(Concat, LayoutAndElementSizeComeFromTheFirst) {
    const auto values = random_floats(16, 3);
    const Mat packed = Mat::from_float_array(values.data(), 8, 1, 2, TensorShape::C4HW4, nullptr);
    const Joined joined = join(0, {packed, packed});
    EXPECT_EQ(TensorShape(TensorShape::C4HW4, 4, 1, 8, 4), joined.shape);

    const signed char bytes[] = {1, 2, 3};
    const Mat chars = Mat::from_int8_array(bytes, 3, 1, 1, TensorShape::CHW, nullptr, 0);
    std::vector<Mat> tops(1);
    ASSERT_EQ(0, make_concat(0)->forward({chars, chars}, tops, get_default_option()));
    EXPECT_EQ(TensorShape(TensorShape::CHW, 1, 1, 6, 1), tops[0].shape);
    EXPECT_EQ(3, tops[0].ptr<signed char>()[5]);
}

TEST(Concat, BottomsThatDoNotFitStayInsideTheBlocks) {
    std::vector<float> small(2 * 2 * 2, 1.0f), large(5 * 7 * 3, 2.0f);
    const Mat first(chw(2, 2, 2), small.data(), nullptr);
    const Mat second(chw(5, 7, 3), large.data(), nullptr);
    for (const int axis : {0, 1, 2}) {
        EXPECT_EQ(0, join(axis, {first, second}).result);
        EXPECT_EQ(0, join(axis, {second, first}).result);
    }
}

TEST(Concat, AnAllocatorThatFailsGivesMinusHundred) {
    PoisoningAllocator blobs;
    blobs.fail = true;
    Option opt;
    opt.blob_allocator = &blobs;
    std::vector<Mat> tops(1);
    const Mat bottom = random_tensor(2, 3, 4, 1);
    EXPECT_EQ(-100, make_concat(0)->forward({bottom, bottom}, tops, opt));
    EXPECT_EQ("nullptr", make_concat(0)->operator_name());
}

// ---- Region

float logistic(float v) {
    const float e = static_cast<float>(std::exp(static_cast<double>(0.0f - v)));
    const float sum = e + 1.0f;
    return 1.0f / sum;
}

void expect_region(int num, int coords, int classes, int w, int h, size_t total) {
    const unsigned int seed = 180;
    SCOPED_TRACE(testing::Message() << "seed " << seed << ", " << num << " anchors, " << coords
                                    << " + 1 + " << classes << ", " << w << "x" << h);
    std::vector<float> data = random_floats(total, seed, -4.0f, 4.0f);
    std::vector<float> expected = data;
    const int stride = (w * h + 3) / 4 * 4;
    const auto at = [&](int n, int k, int cell) {
        return static_cast<size_t>((n * (coords + classes + 1) + k) * stride + cell);
    };
    for (int n = 0; n < num; ++n)
        for (int cell = 0; cell < w * h; ++cell) {
            for (const int k : {0, 1, coords}) {
                const size_t i = at(n, k, cell);
                if (i < total) expected[i] = logistic(expected[i]);
            }
            float sum = 0.0f;
            for (int k = coords + 1; k <= coords + classes; ++k) {
                const size_t i = at(n, k, cell);
                const float e =
                    static_cast<float>(std::exp(static_cast<double>(i < total ? expected[i] : 0)));
                if (i < total) expected[i] = e;
                // What is behind the end reads as 0 in the sum, and its exponential is 1.
                sum += e;
            }
            for (int k = coords + 1; k <= coords + classes; ++k) {
                const size_t i = at(n, k, cell);
                if (i < total) expected[i] = expected[i] / sum;
            }
        }
    auto layer = make_region(num, coords, classes, w, h);
    Mat mat(chw(1, 1, static_cast<int>(total)), data.data(), nullptr);
    ASSERT_EQ(0, layer->forward_inplace(mat, get_default_option()));
    EXPECT_EQ(expected, data);
}

TEST(Region, AChannelOfElevenByElevenIsOneHundredAndTwentyFourFloatsLong) {
    expect_region(2, 4, 3, 11, 11, 2 * 8 * 124);
    // The mark of the stride: entry 1 begins at 124, and 121 is untouched.
    std::vector<float> data(8 * 124, 1.0f);
    Mat mat(chw(1, 1, 8 * 124), data.data(), nullptr);
    ASSERT_EQ(0, make_region(1, 4, 3, 11, 11)->forward_inplace(mat, get_default_option()));
    EXPECT_EQ(logistic(1.0f), data[120]);
    EXPECT_EQ(1.0f, data[121]);
    EXPECT_EQ(1.0f, data[123]);
    EXPECT_EQ(logistic(1.0f), data[124]);
    EXPECT_EQ(1.0f, data[2 * 124]);
    EXPECT_EQ(logistic(1.0f), data[4 * 124]);
    EXPECT_FLOAT_EQ(1.0f / 3.0f, data[5 * 124]);
}

TEST(Region, OtherGridsHaveOtherStrides) {
    expect_region(1, 4, 1, 2, 2, 6 * 4);
    expect_region(3, 5, 2, 3, 5, 3 * 8 * 16);
    expect_region(1, 4, 0, 3, 1, 5 * 4);
}

TEST(Region, ATensorWithoutThePaddingIsWalkedToItsEnd) {
    expect_region(1, 4, 1, 11, 11, 6 * 121);
    expect_region(5, 4, 20, 11, 11, 5 * 25 * 121);
    expect_region(1, 4, 2, 3, 3, 1);
}

TEST(Region, NoMaximumIsSubtracted) {
    // One cell, so a stride of 4: the class of the only anchor stands at 8.
    std::vector<float> data(9, 100.0f);
    Mat mat(chw(9, 1, 1), data.data(), nullptr);
    ASSERT_EQ(0, make_region(1, 1, 1, 1, 1)->forward_inplace(mat, get_default_option()));
    EXPECT_TRUE(std::isnan(data[8]));
}

TEST(Region, WorksOnTheBottomsOwnBlock) {
    auto layer = make_region(1, 4, 1, 2, 2);
    EXPECT_TRUE(layer->support_inplace);
    Mat bottom = random_tensor(6, 2, 2, 181), top;
    ASSERT_EQ(0, layer->forward(bottom, top, get_default_option()));
    EXPECT_EQ(bottom.data, top.data);
    EXPECT_EQ("nullptr", layer->operator_name());
}

// ---- TensorReshape

TEST(TensorReshape, FlattensToARow) {
    const unsigned int seed = 190;
    SCOPED_TRACE(seed);
    const Mat bottom = random_tensor(3, 4, 5, seed);
    for (const std::vector<int>& dims :
         {std::vector<int>{1, 60}, std::vector<int>{1, 1, 60}, std::vector<int>{7, 1, 1, 60}}) {
        PoisoningAllocator blobs;
        Option opt;
        opt.blob_allocator = &blobs;
        {
            std::vector<Mat> tops(1);
            ASSERT_EQ(0, make_reshape(dims)->forward({bottom}, tops, opt));
            EXPECT_EQ(chw(1, 1, 60), tops[0].shape);
            EXPECT_EQ(&blobs, tops[0].allocator);
            EXPECT_EQ(values_of(bottom), values_of(tops[0]));
        }
        EXPECT_EQ(0, blobs.alive);
    }
}

TEST(TensorReshape, ACountThatIsNotTheBottomsRaisesTheAssertion) {
    for (const std::vector<int>& dims :
         {std::vector<int>{60, 1}, std::vector<int>{3, 4, 5}, std::vector<int>{1, 61}}) {
        AssertRecorder assertions;
        std::vector<Mat> tops(1);
        EXPECT_EQ(-100, make_reshape(dims)->forward({random_tensor(3, 4, 5, 1)}, tops,
                                                    get_default_option()));
        ASSERT_EQ(1u, assertions.count());
        EXPECT_EQ("false && \"Invalid forward pre conditions\"", assertions.last().condition);
        EXPECT_EQ("tensorreshape", assertions.last().source);
    }
}

TEST(TensorReshape, OtherDimensionCountsKeepTheWidthWithoutATest) {
    const Mat bottom = random_tensor(3, 4, 5, 191);
    for (const std::vector<int>& dims : {std::vector<int>{}, std::vector<int>{60}}) {
        AssertRecorder assertions;
        std::vector<Mat> tops(1);
        ASSERT_EQ(0, make_reshape(dims)->forward({bottom}, tops, get_default_option()));
        EXPECT_EQ(0u, assertions.count());
        EXPECT_EQ(chw(1, 1, 5), tops[0].shape);
        const auto values = values_of(bottom);
        EXPECT_EQ(std::vector<float>(values.begin(), values.begin() + 5), values_of(tops[0]));
    }
}

TEST(TensorReshape, AnAllocatorThatFailsGivesMinusHundred) {
    PoisoningAllocator blobs;
    blobs.fail = true;
    Option opt;
    opt.blob_allocator = &blobs;
    std::vector<Mat> tops(1);
    auto layer = make_reshape({1, 60});
    EXPECT_EQ(-100, layer->forward({random_tensor(3, 4, 5, 1)}, tops, opt));
    EXPECT_EQ("nullptr", layer->operator_name());
}

}  // namespace
