#include <gtest/gtest.h>

#include <memory>

#include "support/tensors.h"

namespace {

using namespace TarnoCPU;
using namespace testing_support;

std::unique_ptr<Layer> layer_of(const char* key, const char* op) {
    std::unique_ptr<Layer> layer(create_layer(key));
    layer->load(ParamDict(), ModelBinFromTarnoWeightBias(nullptr, nullptr),
                {op != nullptr ? find_operator(op)->creator : nullptr, 0, 0});
    layer->id = 12;
    layer->type = "Activation:ReLU";
    return layer;
}

TEST(ConfigPrinter, IsEmptyBeforeAnyCall) {
    EXPECT_EQ("", ConfigPrinter().get_config_string());
}

TEST(ConfigPrinter, HeaderAndTailAreTheFrameOfATable) {
    ConfigPrinter printer;
    printer.add_header();
    printer.add_tail();
    EXPECT_EQ(
        "static const std::vector<TarnoCPU::LayerInferenceConfig> model_inference_config = \n{\n"
        "};\n",
        printer.get_config_string());
}

TEST(ConfigPrinter, ALineHoldsFactoryPositionsAndSizes) {
    ConfigPrinter printer;
    const auto layer = layer_of("Activation", "ReLU_Float_Fallback");
    Mat bottom(chw(3, 5, 7), nullptr);
    Mat top(chw(3, 5, 7), nullptr);
    printer.layer_stats(layer.get(), bottom, top, 0, 0);
    EXPECT_EQ(
        "{TarnoCPU::                          ReLU_Float_Fallback_operator_creator,  0,  0},"
        "  // Index   0 Model ID  12 Activation:ReLU                In CHW(  3,   5,   7),"
        " Out CHW(  3,   5,   7)\n",
        printer.get_config_string());
}

TEST(ConfigPrinter, AConcatPrintsNullptrPaddedOnTheLeftToSeventyOneCharacters) {
    ConfigPrinter printer;
    const auto layer = layer_of("Concat", nullptr);
    Mat bottom(chw(3, 5, 7), nullptr);
    Mat top(chw(3, 5, 7), nullptr);
    printer.layer_stats(layer.get(), bottom, top, 0, 0);
    EXPECT_EQ(0u, printer.get_config_string().find("{" + std::string(64, ' ') + "nullptr,"));
}

TEST(ConfigPrinter, PackedLayoutsPrintTheirLogicalSizes) {
    ConfigPrinter printer;
    const auto layer = layer_of("Activation", "ReLU_Float_Fallback");
    Mat bottom(TensorShape(TensorShape::C8HW8, 2, 3, 80, 4), nullptr);
    Mat top(TensorShape(TensorShape::C4HW4, 8, 3, 64, 4), nullptr);
    printer.layer_stats(layer.get(), bottom, top, 0, 0);
    const std::string text = printer.get_config_string();
    EXPECT_NE(std::string::npos, text.find("In CHW( 16,   3,  10), Out CHW( 32,   3,  16)"))
        << text;
}

TEST(ConfigPrinter, FixedPointPositionsStandInTwoColumns) {
    ConfigPrinter printer;
    auto layer = layer_of("Activation", "ReLU_Float_Fallback");
    layer->inference_config.weight_frac_bits = 11;
    Mat bottom(chw(1, 1, 1), nullptr);
    Mat top(TensorShape(TensorShape::CHW, 1, 1, 1, 2, 7), nullptr);
    printer.layer_stats(layer.get(), bottom, top, 0, 0);
    EXPECT_NE(std::string::npos, printer.get_config_string().find("_operator_creator,  7, 11},"));
}

TEST(ConfigPrinter, TheIndexCountsLines) {
    ConfigPrinter printer;
    const auto layer = layer_of("Activation", "ReLU_Float_Fallback");
    Mat mat(chw(1, 1, 1), nullptr);
    for (int i = 0; i < 3; ++i) printer.layer_stats(layer.get(), mat, mat, 0, 0);
    EXPECT_NE(std::string::npos, printer.get_config_string().find("// Index   2 Model ID"));
}

}  // namespace
