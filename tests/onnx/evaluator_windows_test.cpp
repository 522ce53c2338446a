// Convolutions and poolings by numbers worked out by hand.
#include <gtest/gtest.h>

#include "onnx/one_node.h"

namespace {

using namespace onnx_test;

TEST(EvaluatorConv, IsACorrelationNotAConvolution) {
    OneNode("Conv")
        .reals({1, 1, 1, 4}, {1, 2, 3, 4})
        .reals({1, 1, 1, 2}, {1, 10})
        .gives({1, 1, 1, 3}, {21, 32, 43});
}

TEST(EvaluatorConv, AddsTheBiasOfEachFilter) {
    OneNode("Conv")
        .reals({1, 1, 1, 2}, {1, 2})
        .reals({2, 1, 1, 1}, {1, -1})
        .reals({2}, {0.5, 100})
        .gives({1, 2, 1, 2}, {1.5, 2.5, 99, 98});
}

TEST(EvaluatorConv, PadsBeginAndEndApart) {
    OneNode("Conv")
        .reals({1, 1, 1, 3}, {1, 2, 3})
        .reals({1, 1, 1, 2}, {1, 10})
        .with("pads", Dims{0, 2, 0, 1})
        .gives({1, 1, 1, 5}, {0, 10, 21, 32, 3});
}

TEST(EvaluatorConv, SamePaddingPutsTheOddPixelWhereItsNameSays) {
    OneNode("Conv")
        .reals({1, 1, 1, 3}, {1, 2, 3})
        .reals({1, 1, 1, 2}, {1, 10})
        .with("auto_pad", "SAME_UPPER")
        .gives({1, 1, 1, 3}, {21, 32, 3});
    OneNode("Conv")
        .reals({1, 1, 1, 3}, {1, 2, 3})
        .reals({1, 1, 1, 2}, {1, 10})
        .with("auto_pad", "SAME_LOWER")
        .gives({1, 1, 1, 3}, {10, 21, 32});
}

TEST(EvaluatorConv, SamePaddingIsNoneWhereTheStrideSkipsPixels) {
    OneNode("Conv")
        .reals({1, 1, 1, 4}, {1, 2, 3, 4})
        .reals({1, 1, 1, 1}, {1})
        .with("strides", Dims{1, 3})
        .with("auto_pad", "SAME_UPPER")
        .gives({1, 1, 1, 2}, {1, 4});
}

TEST(EvaluatorConv, DilationLeavesPixelsOut) {
    OneNode("Conv")
        .reals({1, 1, 5, 1}, {1, 2, 3, 4, 5})
        .reals({1, 1, 2, 1}, {1, 10})
        .with("dilations", Dims{3, 1})
        .gives({1, 1, 2, 1}, {41, 52});
}

TEST(EvaluatorConv, GroupsSeeOnlyTheirChannels) {
    OneNode("Conv")
        .reals({1, 4, 1, 1}, {1, 2, 3, 4})
        .reals({2, 2, 1, 1}, {1, 10, 1, 10})
        .with("group", 2)
        .gives({1, 2, 1, 1}, {21, 43});
}

TEST(EvaluatorConv, RefusesWhatDoesNotFit) {
    const auto conv = [] { return OneNode("Conv").reals({1, 2, 3, 3}, Numbers(18)); };
    conv().reals({1, 3, 1, 1}, {1, 1, 1}).is_refused("weights have shape [1, 3, 1, 1]");
    conv().reals({1, 2, 1}, {1, 1}).is_refused("weights have shape [1, 2, 1]");
    conv().reals({3, 1, 1, 1}, {1, 1, 1}).with("group", 2).is_refused("2 group(s)");
    conv().reals({1, 2, 1, 1}, {1, 1}).with("group", 0).is_refused("\"group\" is 0");
    conv().reals({1, 2, 4, 1}, Numbers(8)).is_refused("a window of 4 pixels does not fit into 3");
    conv().reals({1, 2, 1, 1}, {1, 1}).reals({2}, {1, 1}).is_refused("the bias has shape [2]");
    conv().reals({1, 2, 1, 1}, {1, 1}).with("strides", Dims{0, 1}).is_refused("\"strides\"");
    conv().reals({1, 2, 1, 1}, {1, 1}).with("strides", Dims{1}).is_refused("expected 2 numbers");
    conv().reals({1, 2, 1, 1}, {1, 1}).with("pads", Dims{0, -1, 0, 0}).is_refused("\"pads\"");
    conv().reals({1, 2, 1, 1}, {1, 1}).with("dilations", Dims{0, 1}).is_refused("\"dilations\"");
    conv()
        .reals({1, 2, 1, 1}, {1, 1})
        .with("kernel_shape", Dims{3, 3})
        .is_refused("the weights have [1, 1]");
    conv().reals({1, 2, 1, 1}, {1, 1}).with("auto_pad", "SAME").is_refused("\"SAME\"");
    OneNode("Conv")
        .reals({1, 1, 1, 1, 1}, {1})
        .reals({1, 1, 1, 1, 1}, {1})
        .is_refused("one or two spatial axes");
    OneNode("Conv").reals({1, 1, 0, 1}, {}).reals({1, 1, 1, 1}, {1}).is_refused("no pixels");
    OneNode("Conv").integers({1, 1, 1, 1}, {1}).reals({1, 1, 1, 1}, {1}).is_refused("int64");
}

TEST(EvaluatorConvTranspose, SpreadsEachPixel) {
    OneNode("ConvTranspose")
        .reals({1, 1, 1, 3}, {1, 2, 3})
        .reals({1, 1, 1, 3}, {1, 10, 100})
        .with("strides", Dims{1, 2})
        .gives({1, 1, 1, 7}, {1, 10, 102, 20, 203, 30, 300});
}

TEST(EvaluatorConvTranspose, PadsCutAndOutputPaddingAdds) {
    const auto node = [] {
        return OneNode("ConvTranspose")
            .reals({1, 1, 1, 3}, {1, 2, 3})
            .reals({1, 1, 1, 3}, {1, 10, 100})
            .reals({1}, {0.5})
            .with("strides", Dims{1, 2})
            .with("pads", Dims{0, 1, 0, 2});
    };
    node().gives({1, 1, 1, 4}, {10.5, 102.5, 20.5, 203.5});
    node().with("output_padding", Dims{0, 1}).gives({1, 1, 1, 5}, {10.5, 102.5, 20.5, 203.5, 30.5});
}

TEST(EvaluatorConvTranspose, OutputPaddingBeyondTheWindowsIsBias) {
    OneNode("ConvTranspose")
        .reals({1, 1, 1, 2}, {1, 2})
        .reals({1, 1, 1, 1}, {10})
        .reals({1}, {0.5})
        .with("strides", Dims{1, 2})
        .with("output_padding", Dims{0, 1})
        .gives({1, 1, 1, 4}, {10.5, 0.5, 20.5, 0.5});
}

TEST(EvaluatorConvTranspose, OutputShapeSplitsOddPaddingByTheMode) {
    const auto node = [](int opset) {
        return OneNode("ConvTranspose", opset)
            .reals({1, 1, 1, 3}, {1, 2, 3})
            .reals({1, 1, 1, 2}, {1, 10})
            .with("output_shape", Dims{1, 3});
    };
    // Whole: 1 12 23 30.
    node(11).with("auto_pad", "SAME_UPPER").gives({1, 1, 1, 3}, {1, 12, 23});
    node(11).with("auto_pad", "SAME_LOWER").gives({1, 1, 1, 3}, {12, 23, 30});
    node(11).gives({1, 1, 1, 3}, {12, 23, 30});
    node(9).is_refused("does not say how to split");
}

TEST(EvaluatorConvTranspose, OutputShapeMayReachBeyondTheWindows) {
    OneNode("ConvTranspose")
        .reals({1, 1, 1, 2}, {1, 2})
        .reals({1, 1, 1, 2}, {1, 10})
        .with("output_shape", Dims{1, 5})
        .gives({1, 1, 1, 5}, {1, 12, 20, 0, 0});
}

TEST(EvaluatorConvTranspose, WeightsHaveTheInputChannelFirst) {
    OneNode("ConvTranspose")
        .reals({1, 2, 1, 1}, {1, 2})
        .reals({2, 3, 1, 1}, {1, 2, 3, 10, 20, 30})
        .gives({1, 3, 1, 1}, {21, 42, 63});
    OneNode("ConvTranspose")
        .reals({1, 2, 1, 1}, {1, 2})
        .reals({2, 2, 1, 1}, {1, 2, 10, 20})
        .with("group", 2)
        .gives({1, 4, 1, 1}, {1, 2, 20, 40});
}

TEST(EvaluatorConvTranspose, RefusesWhatDoesNotFit) {
    const auto node = [] {
        return OneNode("ConvTranspose")
            .reals({1, 2, 1, 2}, {1, 2, 3, 4})
            .reals({2, 1, 1, 2}, {1, 2, 3, 4});
    };
    node().with("group", 3).is_refused("3 group(s)");
    node().with("output_padding", Dims{0, 1}).is_refused("less than stride or dilation");
    node().with("output_padding", Dims{1}).is_refused("\"output_padding\" is [1]");
    node().with("pads", Dims{0, 2, 0, 1}).is_refused("leaves no pixels");
    node().with("output_shape", Dims{1}).is_refused("\"output_shape\" is [1]");
    node().with("output_shape", Dims{1, INT64_MIN}).is_refused("not possible");
    node().with("output_shape", Dims{1, 0}).is_refused("not possible");
}

TEST(EvaluatorMaxPool, PaddingNeverWins) {
    OneNode("MaxPool")
        .reals({1, 1, 1, 3}, {-5, -4, -7})
        .with("kernel_shape", Dims{1, 3})
        .with("pads", Dims{0, 1, 0, 1})
        .gives({1, 1, 1, 3}, {-4, -4, -4});
}

TEST(EvaluatorMaxPool, KeepsNaN) {
    OneNode("MaxPool")
        .reals({1, 1, 1, 3}, {1, NOT_A_NUMBER, 0})
        .with("kernel_shape", Dims{1, 2})
        .gives({1, 1, 1, 2}, {NOT_A_NUMBER, NOT_A_NUMBER});
}

TEST(EvaluatorMaxPool, CeilModeAddsAWindowThatIsNotFull) {
    const auto pool = [](int64_t ceil_mode) {
        return OneNode("MaxPool")
            .reals({1, 1, 1, 4}, {1, 2, 3, 4})
            .with("kernel_shape", Dims{1, 3})
            .with("strides", Dims{1, 2})
            .with("ceil_mode", ceil_mode);
    };
    pool(0).gives({1, 1, 1, 1}, {3});
    pool(1).gives({1, 1, 1, 2}, {3, 4});
}

TEST(EvaluatorMaxPool, RefusesAWindowBehindTheInput) {
    // Windows at -1, 1 and 3, where the input ends.
    OneNode("MaxPool")
        .reals({1, 1, 1, 3}, {1, 2, 3})
        .with("kernel_shape", Dims{1, 2})
        .with("strides", Dims{1, 2})
        .with("pads", Dims{0, 1, 0, 1})
        .with("ceil_mode", 1)
        .is_refused("begins behind the input");
    OneNode("MaxPool")
        .reals({1, 1, 1, 2}, {1, 2})
        .with("kernel_shape", Dims{1, 1})
        .with("pads", Dims{0, 0, 0, 1})
        .is_refused("in the padding altogether");
}

TEST(EvaluatorMaxPool, DilatedWindowsSkipPixels) {
    OneNode("MaxPool")
        .reals({1, 1, 1, 5}, {1, 9, 2, 9, 3})
        .with("kernel_shape", Dims{1, 3})
        .with("dilations", Dims{1, 2})
        .gives({1, 1, 1, 1}, {3});
    // Taps at -1 and 1, 1 and 3: the first is outside.
    OneNode("MaxPool")
        .reals({1, 1, 1, 3}, {9, 1, 8})
        .with("kernel_shape", Dims{1, 2})
        .with("dilations", Dims{1, 2})
        .with("strides", Dims{1, 2})
        .with("pads", Dims{0, 1, 0, 1})
        .gives({1, 1, 1, 2}, {1, 1});
}

TEST(EvaluatorMaxPool, RefusesWhatIsNotThere) {
    const auto pool = [](int opset = 13) {
        return OneNode("MaxPool", opset).reals({1, 1, 2, 2}, {1, 2, 3, 4});
    };
    pool().is_refused("no attribute \"kernel_shape\"");
    pool().with("kernel_shape", Dims{2}).is_refused("expected 2 numbers");
    pool().with("kernel_shape", Dims{0, 2}).is_refused("\"kernel_shape\" is [0, 2]");
    pool(9).with("kernel_shape", Dims{2, 2}).with("ceil_mode", 1).is_refused("\"ceil_mode\"");
    pool().with("kernel_shape", Dims{2, 2}).outputs({"y", "i"}).is_refused("\"Indices\"");
}

TEST(EvaluatorAveragePool, CountsPaddingOnlyWhenTold) {
    const auto pool = [](int64_t include) {
        return OneNode("AveragePool")
            .reals({1, 1, 1, 3}, {6, 12, 18})
            .with("kernel_shape", Dims{1, 3})
            .with("pads", Dims{0, 1, 0, 1})
            .with("count_include_pad", include);
    };
    pool(0).gives({1, 1, 1, 3}, {9, 12, 15});
    pool(1).gives({1, 1, 1, 3}, {6, 12, 10});
}

TEST(EvaluatorAveragePool, NeverCountsWhatRoundingUpAdds) {
    const auto pool = [](int64_t include) {
        return OneNode("AveragePool")
            .reals({1, 1, 1, 4}, {2, 4, 6, 8})
            .with("kernel_shape", Dims{1, 3})
            .with("strides", Dims{1, 2})
            .with("ceil_mode", 1)
            .with("count_include_pad", include);
    };
    pool(0).gives({1, 1, 1, 2}, {4, 7});
    pool(1).gives({1, 1, 1, 2}, {4, 7});
}

TEST(EvaluatorAveragePool, RefusesAMeanOfNothing) {
    const auto pool = [](int64_t include) {
        return OneNode("AveragePool")
            .reals({1, 1, 1, 2}, {2, 4})
            .with("kernel_shape", Dims{1, 1})
            .with("pads", Dims{0, 1, 0, 0})
            .with("count_include_pad", include);
    };
    pool(0).is_refused("a mean of nothing");
    pool(1).gives({1, 1, 1, 3}, {0, 2, 4});
}

TEST(EvaluatorGlobalPool, ReducesAllSpatialAxes) {
    OneNode("GlobalMaxPool").reals({1, 2, 2}, {1, 2, -4, -3}).gives({1, 2, 1}, {2, -3});
    OneNode("GlobalAveragePool").reals({1, 1, 2, 2}, {1, 2, 3, 6}).gives({1, 1, 1, 1}, {3});
    OneNode("GlobalMaxPool").reals({1, 1, 2}, {NOT_A_NUMBER, 1}).gives({1, 1, 1}, {NOT_A_NUMBER});
    OneNode("GlobalMaxPool").reals({1, 2}, {1, 2}).is_refused("spatial axes");
    OneNode("GlobalAveragePool").reals({1, 2, 0}, {}).is_refused("nothing to reduce");
}

TEST(EvaluatorReduceMean, TakesAllAxesByDefault) {
    OneNode("ReduceMean").reals({2, 2}, {1, 2, 3, 6}).gives({1, 1}, {3});
    OneNode("ReduceMean").reals({2, 2}, {1, 2, 3, 6}).with("keepdims", 0).gives({}, {3});
    OneNode("ReduceMean").reals({2, 2}, {1, 2, 3, 6}).with("axes", Dims{0}).gives({1, 2}, {2, 4});
    OneNode("ReduceMean").reals({2}, {1, 2}).with("axes", Dims{1}).is_refused("axis 1");
}

}  // namespace
