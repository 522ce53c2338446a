// Resize and Upsample by numbers worked out by hand.
#include <gtest/gtest.h>

#include "onnx/one_node.h"

namespace {

using namespace onnx_test;

OneNode resize(const Numbers& row, double scale, int opset = 13) {
    OneNode node("Resize", opset);
    const auto width = static_cast<int64_t>(row.size());
    node.reals({1, width}, row);
    if (opset >= 11) node.skip();
    return node.reals({2}, {1, scale});
}

OneNode resize_to(const Numbers& row, int64_t width) {
    return OneNode("Resize")
        .reals({1, static_cast<int64_t>(row.size())}, row)
        .skip()
        .skip()
        .list({1, width});
}

TEST(EvaluatorResize, RoundsTiesAsToldToTheNearest) {
    // Asymmetric, scale 2: coordinates 0, 0.5, 1, 1.5.
    const auto node = [](const char* mode) {
        return resize({1, 2}, 2)
            .with("coordinate_transformation_mode", "asymmetric")
            .with("nearest_mode", mode);
    };
    node("round_prefer_floor").gives({1, 4}, {1, 1, 2, 2});
    node("round_prefer_ceil").gives({1, 4}, {1, 2, 2, 2});
    node("floor").gives({1, 4}, {1, 1, 2, 2});
    node("ceil").gives({1, 4}, {1, 2, 2, 2});
    node("round").is_refused("\"nearest_mode\" is \"round\"");
}

TEST(EvaluatorResize, RoundsHalfDownAndFromPixelCentresByDefault) {
    // Coordinates (o + 0.5) / 2 - 0.5 = -0.25, 0.25, 0.75, 1.25.
    resize({1, 2}, 2).gives({1, 4}, {1, 1, 2, 2});
    // To a half: 0.5, 2.5.
    resize({1, 2, 3, 4}, 0.5).gives({1, 2}, {1, 3});
    resize({1, 2, 3, 4}, 0.5).with("nearest_mode", "ceil").gives({1, 2}, {2, 4});
}

TEST(EvaluatorResize, BlendsByTheCoordinate) {
    const auto node = [](const char* mode) {
        return resize({0, 4}, 2)
            .with("mode", "linear")
            .with("coordinate_transformation_mode", mode);
    };
    node("half_pixel").gives({1, 4}, {0, 1, 3, 4});
    node("pytorch_half_pixel").gives({1, 4}, {0, 1, 3, 4});
    node("asymmetric").gives({1, 4}, {0, 2, 4, 4});
    node("align_corners").gives({1, 4}, {0, 4.0 / 3, 8.0 / 3, 4}, 1e-15);
    node("tf_crop_and_resize").is_refused("\"tf_crop_and_resize\"");
    node("tf_half_pixel_for_nn").is_refused("is not supported");
}

TEST(EvaluatorResize, MakesOnePixelFromTheFirstOrTheMiddle) {
    const auto node = [](const char* mode) {
        return resize_to({0, 4, 8}, 1)
            .with("mode", "linear")
            .with("coordinate_transformation_mode", mode);
    };
    node("half_pixel").gives({1, 1}, {4});
    node("pytorch_half_pixel").gives({1, 1}, {0});
    node("align_corners").gives({1, 1}, {0});
}

TEST(EvaluatorResize, RoundsSizesDownInFloat) {
    // 0.7 as a float is a little less; its product with 10 in float is 7.
    resize(Numbers(10, 1), static_cast<double>(0.7f)).gives({1, 7}, Numbers(7, 1));
    resize({1, 2, 3}, 1.5)
        .with("coordinate_transformation_mode", "asymmetric")
        .with("nearest_mode", "floor")
        .gives({1, 4}, {1, 1, 2, 3});
}

TEST(EvaluatorResize, TakesTheRatioOfSizesAsTheScale) {
    resize_to({1, 2, 3}, 5)
        .with("coordinate_transformation_mode", "asymmetric")
        .with("nearest_mode", "floor")
        .gives({1, 5}, {1, 1, 2, 2, 3});
}

TEST(EvaluatorResize, LeavesPixelsAloneThatItKeeps) {
    resize({1, ENDLESS, 3}, 1).with("mode", "linear").gives({1, 3}, {1, ENDLESS, 3});
    resize({1, 2, ENDLESS}, 2)
        .with("mode", "linear")
        .with("coordinate_transformation_mode", "asymmetric")
        .gives({1, 6}, {1, 1.5, 2, ENDLESS, ENDLESS, ENDLESS});
}

TEST(EvaluatorResize, RefusesWhatItCannotDo) {
    resize({1, 2}, 2).with("mode", "cubic").is_refused("\"cubic\"");
    resize({1, 2}, 0).is_refused("not above 0");
    resize({1, 2}, NOT_A_NUMBER).is_refused("not above 0");
    resize({1, 2}, 1e30).is_refused("too large");
    resize({1, 2}, ENDLESS).is_refused("too large");
    resize_to({1, 2}, 0).is_refused("below 1");
    resize({1, 2}, 2).list({1, 4}).is_refused("either scales or sizes");
    OneNode("Resize").reals({1, 1}, {1}).is_refused("either scales or sizes");
    OneNode("Resize").reals({1, 1}, {1}).skip().reals({1}, {2}).is_refused("1 scales");
    OneNode("Resize", 11).reals({1, 1}, {1}).is_refused("has 1 inputs, expected 3 to 4");
}

TEST(EvaluatorUpsample, IsAsymmetricAndTakesThePixelBefore) {
    OneNode("Upsample", 7)
        .reals({1, 2}, {1, 2})
        .with_numbers("scales", {1, 2})
        .gives({1, 4}, {1, 1, 2, 2});
    OneNode("Upsample", 9)
        .reals({1, 2}, {0, 4})
        .reals({2}, {1, 2})
        .with("mode", "linear")
        .gives({1, 4}, {0, 2, 4, 4});
    OneNode("Upsample", 7).reals({1}, {1}).is_refused("no attribute \"scales\"");
    OneNode("Upsample", 9).reals({2}, {1, 2}).reals({1}, {0.5}).is_refused("below 1");
    OneNode("Upsample", 10)
        .reals({1}, {1})
        .reals({1}, {1})
        .is_refused("not part of operator set 10");
}

TEST(EvaluatorUpsample, HasAnotherNameForLinear) {
    OneNode("Upsample", 9)
        .reals({1, 2}, {0, 4})
        .reals({2}, {1, 2})
        .with("mode", "bilinear")
        .gives({1, 4}, {0, 2, 4, 4});
    resize({1, 2}, 2).with("mode", "bilinear").is_refused("\"bilinear\"");
}

// Scales whose quotients are whole in float and a little less in double, or a little more.
TEST(EvaluatorResize, ComputesCoordinatesOfNearestPixelsInFloat) {
    const auto last_of = [](int64_t in, float scale, int64_t out, const char* corner,
                            const char* rounding) {
        Numbers row;
        for (int64_t i = 0; i < in; ++i) row.push_back(static_cast<double>(i));
        OneNode node = resize(row, static_cast<double>(scale), 11);
        node.with("coordinate_transformation_mode", corner).with("nearest_mode", rounding);
        const Tensor result = node.result();
        return result.number(static_cast<size_t>(out));
    };
    EXPECT_EQ(last_of(10, 1.2f, 6, "asymmetric", "floor"), 5);
    // 5.5 / 1.1 is 5.
    EXPECT_EQ(last_of(10, 1.1f, 5, "tf_half_pixel_for_nn", "floor"), 5);
    EXPECT_EQ(last_of(10, 1.1f, 5, "half_pixel", "round_prefer_ceil"), 5);
    EXPECT_EQ(last_of(10, 1.1f, 5, "pytorch_half_pixel", "round_prefer_floor"), 4);
    // Of sets before 11, too.
    EXPECT_EQ(
        resize({0, 1, 2, 3, 4, 5, 6, 7, 8, 9}, static_cast<double>(1.2f), 10).result().number(6),
        5);
}

TEST(EvaluatorResize, OfSet10LeavesReductionsByFractionsOpen) {
    resize({1, 2, 3, 4}, 0.5, 10).gives({1, 2}, {1, 3});
    resize({1, 2, 3, 4}, 0.75, 10).is_refused("leaves open");
    resize({0, 4, 8}, static_cast<double>(2.0f / 3), 10)
        .with("mode", "linear")
        .gives({1, 2}, {0, 6}, 1e-6);
}

}  // namespace
