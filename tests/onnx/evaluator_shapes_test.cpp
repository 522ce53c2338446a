// Operators that move values, by numbers worked out by hand.
#include <gtest/gtest.h>

#include "onnx/one_node.h"

namespace {

using namespace onnx_test;

const Numbers SIX = {1, 2, 3, 4, 5, 6};

TEST(EvaluatorReshape, CopiesZeroAndFillsMinusOne) {
    OneNode("Reshape").reals({2, 3}, SIX).list({0, -1, 1}).gives({2, 3, 1}, SIX);
    OneNode("Reshape").reals({2, 3}, SIX).list({-1}).gives({6}, SIX);
    OneNode("Reshape").reals({1}, {7}).list({}).gives({}, {7});
    OneNode("Reshape", 14).reals({0, 3}, {}).list({3, 0}).with("allowzero", 1).gives({3, 0}, {});
    OneNode("Reshape").list({1, 2}).list({2, 1}).gives({2, 1}, {1, 2});
}

TEST(EvaluatorReshape, RefusesWhatDoesNotFit) {
    const auto reshape = [] { return OneNode("Reshape").reals({2, 3}, SIX); };
    reshape().list({4, -1}).is_refused("does not fit the shape [4, -1]");
    reshape().list({7}).is_refused("does not fit the shape [7]");
    reshape().list({-1, -1}).is_refused("two dimensions are left open");
    reshape().list({2, 3, 0}).is_refused("dimension 2 is to be kept");
    reshape().list({-2, -3}).is_refused("does not fit");
    reshape().list({INT64_MAX, INT64_MAX, -1}).is_refused("does not fit");
    reshape().reals({1}, {6}).is_refused("expected integers");
    reshape().integers({1, 1}, {6}).is_refused("expected a short list");
    OneNode("Reshape").reals({0}, {}).list({0, -1}).is_refused("does not fit the shape");
}

TEST(EvaluatorFlatten, MakesTwoAxes) {
    OneNode("Flatten").reals({1, 2, 3}, SIX).gives({1, 6}, SIX);
    OneNode("Flatten").reals({1, 2, 3}, SIX).with("axis", 0).gives({1, 6}, SIX);
    OneNode("Flatten").reals({1, 2, 3}, SIX).with("axis", 3).gives({6, 1}, SIX);
    OneNode("Flatten").reals({1, 2, 3}, SIX).with("axis", -1).gives({2, 3}, SIX);
    OneNode("Flatten", 9).reals({1, 2, 3}, SIX).with("axis", -1).is_refused("axis -1");
    OneNode("Flatten").reals({1, 2, 3}, SIX).with("axis", 4).is_refused("axis 4");
}

TEST(EvaluatorSqueeze, DropsAxesOfOne) {
    OneNode("Squeeze").reals({1, 2, 1}, {1, 2}).gives({2}, {1, 2});
    OneNode("Squeeze").reals({1, 2, 1}, {1, 2}).list({-1}).gives({1, 2}, {1, 2});
    OneNode("Squeeze", 11).reals({1, 2, 1}, {1, 2}).with("axes", Dims{0}).gives({2, 1}, {1, 2});
    OneNode("Squeeze").reals({1, 2}, {1, 2}).list({1}).is_refused("axis 1 of [1, 2] is not 1");
    OneNode("Squeeze").reals({1, 2}, {1, 2}).list({0, -2}).is_refused("given twice");
    OneNode("Squeeze").reals({1, 2}, {1, 2}).with("axes", Dims{0}).is_refused("\"axes\"");
}

TEST(EvaluatorUnsqueeze, CountsAxesInTheResult) {
    OneNode("Unsqueeze").reals({2}, {1, 2}).list({-1, 0}).gives({1, 2, 1}, {1, 2});
    OneNode("Unsqueeze", 11).reals({2}, {1, 2}).with("axes", Dims{1}).gives({2, 1}, {1, 2});
    OneNode("Unsqueeze").reals({2}, {1, 2}).list({2}).is_refused("axis 2");
    OneNode("Unsqueeze").reals({2}, {1, 2}).list({0, 0}).is_refused("given twice");
}

TEST(EvaluatorTranspose, ReversesAxesByDefault) {
    OneNode("Transpose").reals({2, 3}, SIX).gives({3, 2}, {1, 4, 2, 5, 3, 6});
    OneNode("Transpose")
        .reals({1, 2, 3}, SIX)
        .with("perm", Dims{2, 0, 1})
        .gives({3, 1, 2}, {1, 4, 2, 5, 3, 6});
    OneNode("Transpose").reals({2, 3}, SIX).with("perm", Dims{0, 0}).is_refused("given twice");
    OneNode("Transpose").reals({2, 3}, SIX).with("perm", Dims{0}).is_refused("\"perm\" is [0]");
    OneNode("Transpose").reals({2, 3}, SIX).with("perm", Dims{}).is_refused("\"perm\"");
}

TEST(EvaluatorConcat, JoinsAlongAnyAxis) {
    OneNode("Concat")
        .reals({2, 1}, {1, 2})
        .reals({2, 2}, {3, 4, 5, 6})
        .with("axis", 1)
        .gives({2, 3}, {1, 3, 4, 2, 5, 6});
    OneNode("Concat").list({1}).list({}).list({2, 3}).with("axis", 0).gives({3}, {1, 2, 3});
    OneNode("Concat")
        .reals({1, 2}, {1, 2})
        .reals({2}, {1, 2})
        .with("axis", 0)
        .is_refused("does not fit double [1, 2]");
    OneNode("Concat").reals({1}, {1}).list({1}).with("axis", 0).is_refused("of int64 [1]");
    OneNode("Concat").reals({1}, {1}).is_refused("no attribute \"axis\"");
}

TEST(EvaluatorSplit, CutsIntoParts) {
    OneNode node = OneNode("Split").reals({2, 3}, SIX).list({1, 2}).with("axis", -1);
    node.outputs({"a", "b"});
    EXPECT_EQ(node.result("a").numbers(), (Numbers{1, 4}));
    EXPECT_EQ(node.values.at("b").numbers(), (Numbers{2, 3, 5, 6}));
    OneNode even = OneNode("Split", 11).reals({2, 2}, {1, 2, 3, 4}).outputs({"a", "b"});
    EXPECT_EQ(even.result("b").numbers(), (Numbers{3, 4}));
    OneNode unread = OneNode("Split", 11).reals({2}, {1, 2}).outputs({"", "b"});
    EXPECT_EQ(unread.result("b").numbers(), (Numbers{2}));
}

TEST(EvaluatorSplit, RefusesWhatDoesNotFit) {
    const auto split = [] { return OneNode("Split").reals({3}, {1, 2, 3}).outputs({"a", "b"}); };
    split().is_refused("does not divide into 2 parts");
    split().list({1, 1}).is_refused("parts of [1, 1]");
    split().list({1, 1, 1}).is_refused("and 2 outputs");
    split().list({-1, 4}).is_refused("parts of [-1, 4]");
    split().list({INT64_MAX, INT64_MAX}).is_refused("do not fit");
}

TEST(EvaluatorSlice, ClampsAndCountsFromTheEnd) {
    const auto slice = [](int64_t start, int64_t end, int64_t step) {
        return OneNode("Slice")
            .reals({5}, {0, 1, 2, 3, 4})
            .list({start})
            .list({end})
            .list({0})
            .list({step});
    };
    slice(1, 3, 1).gives({2}, {1, 2});
    slice(-2, INT64_MAX, 1).gives({2}, {3, 4});
    slice(INT64_MIN, 2, 1).gives({2}, {0, 1});
    slice(3, 1, 1).gives({0}, {});
    slice(0, 5, 2).gives({3}, {0, 2, 4});
    slice(0, 5, INT64_MAX).gives({1}, {0});
    slice(4, INT64_MIN, -1).gives({5}, {4, 3, 2, 1, 0});
    slice(INT64_MAX, 0, -2).gives({2}, {4, 2});
    slice(-1, -3, -1).gives({2}, {4, 3});
    slice(1, 3, -1).gives({0}, {});
    slice(0, 1, 0).is_refused("a step of 0");
    slice(0, 1, INT64_MIN).is_refused("a step of");
}

TEST(EvaluatorSlice, TakesAttributesBeforeSet10) {
    const auto slice = [] { return OneNode("Slice", 9).reals({2, 3}, SIX); };
    slice().with("starts", Dims{0, 1}).with("ends", Dims{1, 3}).gives({1, 2}, {2, 3});
    slice()
        .with("starts", Dims{-1})
        .with("ends", Dims{9})
        .with("axes", Dims{1})
        .gives({2, 1}, {3, 6});
    slice().with("starts", Dims{0}).is_refused("no attribute \"ends\"");
    slice().with("starts", Dims{0}).with("ends", Dims{1, 1}).is_refused("not of one length");
    slice().with("starts", Dims{0, 0, 0}).with("ends", Dims{1, 1, 1}).is_refused("axis 2");
}

TEST(EvaluatorGather, TakesNegativeIndicesAndAnyShape) {
    OneNode("Gather").reals({2, 3}, SIX).integers({}, {-1}).gives({3}, {4, 5, 6});
    OneNode("Gather")
        .reals({2, 3}, SIX)
        .integers({1, 2}, {2, 0})
        .with("axis", 1)
        .gives({2, 1, 2}, {3, 1, 6, 4});
    OneNode("Gather").list({1, 3, 224, 224}).integers({}, {2}).gives({}, {224});
    OneNode("Gather").reals({2}, {1, 2}).list({2}).is_refused("index 2 along an axis of 2");
    OneNode("Gather").reals({2}, {1, 2}).list({-3}).is_refused("index -3");
    OneNode("Gather").reals({2}, {1, 2}).reals({1}, {0}).is_refused("no integers");
    OneNode("Gather").reals({}, {1}).list({0}).is_refused("axis 0 of a tensor with 0 dimensions");
}

TEST(EvaluatorShape, TakesAPartOfItFromSet15On) {
    OneNode("Shape").reals({1, 2, 3}, SIX).gives({3}, {1, 2, 3});
    const auto shape = [] { return OneNode("Shape", 15).reals({1, 2, 3}, SIX); };
    shape().with("start", -2).gives({2}, {2, 3});
    shape().with("start", 1).with("end", 2).gives({1}, {2});
    shape().with("start", -9).with("end", 9).gives({3}, {1, 2, 3});
    shape().with("start", 2).with("end", 1).gives({0}, {});
    OneNode("Shape").reals({1}, {1}).with("start", 0).is_refused("\"start\" is not supported");
    OneNode("Size").reals({2, 3}, SIX).gives({}, {6});
}

TEST(EvaluatorExpand, BroadcastsBothWays) {
    OneNode("Expand").reals({2, 1}, {1, 2}).list({1, 2}).gives({2, 2}, {1, 1, 2, 2});
    OneNode("Expand").reals({2}, {1, 2}).list({}).gives({2}, {1, 2});
    OneNode("Expand").list({7}).list({2, 1}).gives({2, 1}, {7, 7});
    OneNode("Expand").reals({2}, {1, 2}).list({3}).is_refused("do not broadcast");
    OneNode("Expand").reals({1}, {1}).list({-1}).is_refused("too large");
}

TEST(EvaluatorConstants, ComeInAllForms) {
    OneNode("Constant").with_tensor("value", Tensor::of_integers({2}, {1, 2})).gives({2}, {1, 2});
    OneNode("Constant").with("value_float", 0.5).gives({}, {0.5});
    OneNode("Constant").with_numbers("value_floats", {1, 2}).gives({2}, {1, 2});
    OneNode("Constant").with("value_int", 3).gives({}, {3});
    OneNode("Constant").with("value_ints", Dims{3, 4}).gives({2}, {3, 4});
    OneNode("Constant").is_refused("expected one attribute");
    OneNode("Constant").with("value_string", "x").is_refused("\"value_string\"");
    OneNode("Constant", 11).with("value_int", 3).is_refused("\"value_int\"");
    OneNode("ConstantOfShape").list({2}).gives({2}, {0, 0});
    OneNode("ConstantOfShape")
        .list({})
        .with_tensor("value", Tensor::of_integers({1}, {5}))
        .gives({}, {5});
    OneNode("ConstantOfShape")
        .list({1})
        .with_tensor("value", Tensor::of_integers({2}, {5, 6}))
        .is_refused("expected one element");
}

TEST(EvaluatorPad, KnowsItsThreeModes) {
    const auto pad = [](const char* mode) {
        return OneNode("Pad").reals({3}, {1, 2, 3}).list({2, 1}).with("mode", mode);
    };
    pad("constant").gives({6}, {0, 0, 1, 2, 3, 0});
    pad("reflect").gives({6}, {3, 2, 1, 2, 3, 2});
    pad("edge").gives({6}, {1, 1, 1, 2, 3, 3});
    pad("wrap").is_refused("\"mode\" is \"wrap\"");
    pad("constant").reals({}, {9}).gives({6}, {9, 9, 1, 2, 3, 9});
    OneNode("Pad", 7)
        .reals({1}, {1})
        .with("pads", Dims{1, 0})
        .with("value", 7.0)
        .gives({2}, {7, 1});
}

TEST(EvaluatorPad, CutsWithNegativeNumbers) {
    OneNode("Pad").reals({3}, {1, 2, 3}).list({-1, 1}).gives({3}, {2, 3, 0});
    OneNode("Pad").reals({3}, {1, 2, 3}).list({-1, 1}).with("mode", "edge").gives({3}, {2, 3, 3});
    OneNode("Pad").reals({2}, {1, 2}).list({-2, -1}).is_refused("remove more than there is");
    OneNode("Pad").list({1, 2}).list({0, 1}).integers({}, {9}).gives({3}, {1, 2, 9});
}

TEST(EvaluatorPad, RefusesReflectionsOfReflections) {
    const auto pad = [](int64_t end) {
        return OneNode("Pad").reals({3}, {1, 2, 3}).list({0, end}).with("mode", "reflect");
    };
    pad(2).gives({5}, {1, 2, 3, 2, 1});
    pad(3).is_refused("too large for mode");
    OneNode("Pad").reals({0}, {}).list({1, 0}).with("mode", "edge").is_refused("too large");
    OneNode("Pad").reals({1}, {1}).list({1}).is_refused("do not fit the input");
}

TEST(EvaluatorDropout, CopiesAndMarksAllAsKept) {
    OneNode node = OneNode("Dropout").reals({2}, {1, 2}).outputs({"y", "mask"});
    EXPECT_EQ(node.result().numbers(), (Numbers{1, 2}));
    EXPECT_EQ(node.values.at("mask").type, ElementType::Bool);
    EXPECT_EQ(node.values.at("mask").integers(), (std::vector<int64_t>{1, 1}));
    OneNode("Dropout").reals({1}, {1}).skip().bools({}, {0}).gives({1}, {1});
    OneNode("Dropout").reals({1}, {1}).skip().bools({}, {1}).is_refused("training mode");
}

TEST(EvaluatorDepthToSpace, HasTwoOrders) {
    const auto shuffle = [] {
        return OneNode("DepthToSpace").reals({1, 8, 1, 1}, {0, 1, 2, 3, 4, 5, 6, 7});
    };
    shuffle().with("blocksize", 2).gives({1, 2, 2, 2}, {0, 2, 4, 6, 1, 3, 5, 7});
    shuffle()
        .with("blocksize", 2)
        .with("mode", "CRD")
        .gives({1, 2, 2, 2}, {0, 1, 2, 3, 4, 5, 6, 7});
    shuffle().with("blocksize", 3).is_refused("do not divide by a block of 3");
    shuffle().with("blocksize", 0).is_refused("\"blocksize\" is 0");
    shuffle().is_refused("\"blocksize\" is 0");
    shuffle().with("blocksize", 2).with("mode", "RCD").is_refused("\"RCD\"");
}

TEST(EvaluatorSpaceToDepth, PutsThePlaceInTheBlockFirst) {
    OneNode("SpaceToDepth")
        .reals({1, 2, 2, 2}, {0, 1, 2, 3, 4, 5, 6, 7})
        .with("blocksize", 2)
        .gives({1, 8, 1, 1}, {0, 4, 1, 5, 2, 6, 3, 7});
    OneNode("SpaceToDepth")
        .reals({1, 1, 2, 3}, SIX)
        .with("blocksize", 2)
        .is_refused("does not divide");
    OneNode("SpaceToDepth").reals({2, 3}, SIX).with("blocksize", 1).is_refused("four dimensions");
}

}  // namespace
