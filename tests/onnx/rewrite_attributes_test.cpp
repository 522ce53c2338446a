// Attributes and forms row by row of the table in docs/converting.md, where no other test has them:
// which layers they make, what is noted and what is refused.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "onnx/rewritten.h"

namespace {

using namespace onnx_test;

void expect_kinds(const MadeModel& model, const Kinds& kinds) {
    const Converted result = convert_and_prove(model.bytes());
    expect_proof(result);
    EXPECT_EQ(result.kinds(), kinds);
}

void expect_refused(const MadeModel& model, const std::string& node, const std::string& reason) {
    expect_refusal(convert_only(model.bytes()), "node \"" + node, reason);
}

TEST(ConvAttributes, ThreeDimensionsAndComputedWeightsAreRefused) {
    MadeModel solid;
    solid.input("x", {1, 2, 4, 4}).output("y").integers("s", {1, 2, 2, 2, 4});
    solid.random("w", {3, 2, 2, 2, 2}, 1).node("Reshape", {"x", "s"}, {"r"});
    solid.node("Conv", {"r", "w"}, {"y"});
    expect_refused(solid, "y\" (Conv)", "expected, found [1, 2, 2, 2, 4]");
    for (const char* type : {"Conv", "ConvTranspose"}) {
        MadeModel computed;
        computed.input("x", {1, 2, 4, 4}).input("w", {1, 2, 3, 3}).output("y");
        computed.node("Conv", {"x", "w"}, {"y"});
        computed.graph().mutable_node(0)->set_op_type(type);
        expect_refused(computed, std::string("y\" (") + type, "weights expected to be constant");
    }
}

TEST(BatchNormalizationAttributes, GoesIntoAGemm) {
    MadeModel model;
    model.input("x", {1, 8}).output("y").random("w", {8, 4}, 1).random("scale", {4}, 2);
    model.random("bias", {4}, 3).random("mean", {4}, 4).floats("variance", {4}, {0.5f, 1, 2, 3});
    model.node("Gemm", {"x", "w"}, {"g"});
    model.node("BatchNormalization", {"g", "scale", "bias", "mean", "variance"}, {"y"});
    expect_kinds(model, {"FullConnection"});
}

TEST(BatchNormalizationAttributes, TrainingAndComputedStatisticsAreRefused) {
    const auto model = [](int opset, bool computed, const std::vector<With>& attributes) {
        MadeModel result(opset);
        result.input("x", {1, 2, 4, 4}).output("y").random("scale", {2}, 1).random("bias", {2}, 2);
        result.random("mean", {2}, 3);
        if (computed) {
            result.input("variance", {2});
        } else {
            result.floats("variance", {2}, {1, 2});
        }
        result.node("BatchNormalization", {"x", "scale", "bias", "mean", "variance"}, {"y"},
                    attributes);
        return result;
    };
    expect_proof(convert_and_prove(model(15, false, {{"training_mode", 0}}).bytes()));
    const char* reason = "a batch normalisation of constants, not in training, expected";
    expect_refused(model(15, false, {{"training_mode", 1}}), "y\" (BatchNormalization)", reason);
    expect_refused(model(15, true, {}), "y\" (BatchNormalization)", reason);
    expect_refused(model(8, false, {{"spatial", 0}}), "y\" (BatchNormalization)",
                   "attribute \"spatial\" 1 expected, found 0");
}

TEST(ActivationAttributes, AreFusedIntoTheLayerBefore) {
    const std::pair<const char*, std::vector<With>> activations[] = {
        {"Relu", {}},
        {"Sigmoid", {}},
        {"Tanh", {}},
        {"LeakyRelu", {{"alpha", 0.1}}},
        {"Clip", {{"min", 0.0}, {"max", 6.0}}}};
    for (const auto& [type, attributes] : activations) {
        SCOPED_TRACE(type);
        MadeModel model(10);
        model.input("x", {1, 3, 4, 4}).output("y").random("w", {4, 3, 1, 1}, 1);
        model.node("Conv", {"x", "w"}, {"c"}).node(type, {"c"}, {"y"}, attributes);
        expect_kinds(model, {"Conv2D"});
    }
}

TEST(ActivationAttributes, LimitsOfTheEnginesExponentialsAreNoted) {
    for (const bool fused : {false, true}) {
        MadeModel model;
        model.input("x", {1, 3, 4, 4}).output("y").random("w", {3, 3, 1, 1}, 1);
        if (fused) model.node("Conv", {"x", "w"}, {"c"});
        model.node("Tanh", {fused ? "c" : "x"}, {"y"});
        expect_note(convert_and_prove(model.bytes()),
                    "node \"y\": the engine's Tanh gives NaN where its input is beyond 88.7");
    }
    expect_note(
        convert_and_prove(one_node("Softmax", {1, 5}).bytes()),
        "node \"y\": the engine's SoftMax subtracts no maximum: inputs above 88.7 give NaN");
    const Converted none = convert_and_prove(one_node("Sigmoid", {1, 3, 4, 4}).bytes());
    expect_proof(none);
    EXPECT_TRUE(none.conversion.notes.empty());
}

TEST(SumAttributes, TenTensorsAreOneLayerAndElevenAreRefused) {
    for (const int count : {2, 10, 11}) {
        MadeModel model;
        std::vector<std::string> names;
        for (int i = 0; i < count; ++i) {
            names.push_back("x" + std::to_string(i));
            model.input(names.back(), {1, 2, 3, 3});
        }
        model.output("y").node("Sum", names, {"y"});
        if (count <= 10) {
            expect_kinds(model, {"ElementWiseOperator"});
        } else {
            expect_refused(model, "y\" (Sum)", "2 to 10 tensors expected, found 11");
        }
    }
}

TEST(PoolingAttributes, IndicesOfMaximaAreRefusedWhereTheyAreRead) {
    for (const bool read : {false, true}) {
        MadeModel model;
        model.input("x", {1, 2, 4, 4}).output("y");
        model.node("MaxPool", {"x"}, {"y", "at"}, {{"kernel_shape", Ints{2, 2}}});
        if (!read) {
            expect_kinds(model, {"Pooling"});
            continue;
        }
        model.output("at");
        expect_refused(model, "y\" (MaxPool)", "the indices of the maxima are not supported");
    }
}

TEST(BatchNormalizationAttributes, AFactorThatIsNotFiniteIsTold) {
    const auto model = [](const std::vector<float>& variance, double epsilon) {
        MadeModel result;
        result.input("x", {1, 2, 4, 4}).output("y").floats("one", {2}, {1, 1});
        result.floats("variance", {2}, variance);
        result.node("BatchNormalization", {"x", "one", "one", "one", "variance"}, {"y"},
                    {{"epsilon", epsilon}});
        return result;
    };
    expect_refused(model({1, -2}, 1e-5), "y\" (BatchNormalization)",
                   "a finite scale / sqrt(variance + epsilon) expected, found a scale of 1, a "
                   "variance of -2 and an epsilon of 1e-05 in channel 1");
    expect_refused(model({0, 1}, 0.0), "y\" (BatchNormalization)",
                   "found a scale of 1, a variance of 0 and an epsilon of 0 in channel 0");
}

TEST(PaddingAttributes, PadsBesideAutoPadAreRefused) {
    for (const char* type : {"Conv", "ConvTranspose", "MaxPool", "AveragePool"}) {
        for (const char* mode : {"SAME_UPPER", "SAME_LOWER", "VALID", "NOTSET"}) {
            SCOPED_TRACE(std::string(type) + " " + mode);
            const bool weights = std::string(type).rfind("Conv", 0) == 0;
            MadeModel model;
            model.input("x", {1, 2, 6, 6}).output("y").random("w", {2, 2, 3, 3}, 1);
            std::vector<std::string> inputs = {"x"};
            if (weights) inputs.push_back("w");
            model.node(
                type, inputs, {"y"},
                {{"auto_pad", mode}, {"kernel_shape", Ints{3, 3}}, {"pads", Ints{1, 1, 1, 1}}});
            if (mode == std::string("NOTSET")) {
                expect_proof(convert_and_prove(model.bytes()));
                continue;
            }
            expect_refused(model, std::string("y\" (") + type,
                           "attribute \"pads\" is [1, 1, 1, 1] beside \"auto_pad\" \"" +
                               std::string(mode) + "\", expected one of them");
        }
    }
}

TEST(UnknownOperator, ThatNothingReadsIsLeftOut) {
    MadeModel model;
    model.input("x", {1, 2, 4, 4}).output("y").node("NoSuchOperator", {"x"}, {"unread"});
    model.node("Relu", {"unread"}, {"unread, too"}).node("Relu", {"x"}, {"y"});
    expect_kinds(model, {"Activation"});
    model.output("unread");
    expect_refused(model, "unread\" (NoSuchOperator)", "the operator is not supported");
}

// An output that is left out is not what an input that is left out reads.
TEST(UnknownOperator, ThatLeavesOutAnOutputIsLeftOutToo) {
    MadeModel model;
    model.input("x", {1, 2, 4, 4}).output("y").floats("six", {}, {6});
    model.node("NoSuchOperator", {"x"}, {"", "unread"});
    model.node("Relu", {"x"}, {"r"}).node("Clip", {"r", "", "six"}, {"y"});
    expect_proof(convert_and_prove(model.bytes()));
}

TEST(ReduceMeanAttributes, OtherAxesThanRowsAndColumnsAreRefused) {
    for (const Ints& axes : {Ints{1}, Ints{2}, Ints{3}, Ints{1, 2, 3}, Ints{0}, Ints{-3, -1}}) {
        expect_refused(one_node("ReduceMean", {1, 2, 4, 4}, {{"axes", axes}}), "y\" (ReduceMean)",
                       "a mean over all rows and columns expected, found the axes " +
                           modelkit::onnx::text_of(axes) + " of [1, 2, 4, 4]");
    }
    expect_refused(one_node("ReduceMean", {1, 2, 4, 4}), "y\" (ReduceMean)",
                   "a mean over all rows and columns expected, found no axes of [1, 2, 4, 4]");
    for (const Ints& axes : {Ints{2, 3}, Ints{-1, 2}, Ints{-2, -1}}) {
        expect_kinds(one_node("ReduceMean", {1, 2, 4, 4}, {{"axes", axes}}), {"Pooling"});
    }
}

MadeModel resized(const Ints& dims, const std::vector<float>& scales,
                  const std::vector<With>& attributes, int opset = 13) {
    MadeModel model(opset);
    model.input("x", dims).output("y").floats("s", {static_cast<int64_t>(scales.size())}, scales);
    model.node("Resize", {"x", "", "s"}, {"y"}, attributes);
    return model;
}

MadeModel sized(const Ints& dims, const Ints& sizes, const std::vector<With>& attributes,
                int opset) {
    MadeModel model(opset);
    model.input("x", dims).output("y").integers("s", sizes).floats("none", {0}, {});
    model.node("Resize", {"x", "none", "none", "s"}, {"y"}, attributes);
    return model;
}

TEST(ResizeAttributes, EveryRuleOfNearestNeighboursWithWholeAndOtherFactors) {
    for (const char* corner : {"half_pixel", "pytorch_half_pixel", "asymmetric", "align_corners",
                               "tf_half_pixel_for_nn"}) {
        for (const char* rounding : {"round_prefer_floor", "round_prefer_ceil", "floor", "ceil"}) {
            // The last rule is of sets 11 and 12 only.
            const int opset = corner == std::string("tf_half_pixel_for_nn") ? 12 : 13;
            const std::vector<With> rules = {{"mode", "nearest"},
                                             {"coordinate_transformation_mode", corner},
                                             {"nearest_mode", rounding}};
            for (const Ints& sizes :
                 {Ints{1, 2, 4, 6}, Ints{1, 2, 8, 12}, Ints{1, 2, 12, 18}, Ints{1, 2, 16, 24},
                  Ints{1, 2, 2, 3}, Ints{1, 2, 5, 9}, Ints{1, 2, 3, 5}, Ints{1, 2, 1, 1}}) {
                SCOPED_TRACE(std::string(corner) + " " + rounding + " " +
                             modelkit::onnx::text_of(sizes));
                expect_proof(convert_and_prove(sized({1, 2, 4, 6}, sizes, rules, opset).bytes()));
            }
        }
    }
}

TEST(ResizeAttributes, ScalesMeanTheSizesThatTheirFloatsGive) {
    for (const float scale : {0.7f, 1.1f, 0.3f, 2.9f}) {
        const MadeModel model =
            resized({1, 2, 10, 10}, {1, 1, scale, scale}, {{"mode", "nearest"}});
        const Converted result = convert_and_prove(model.bytes());
        expect_proof(result);
        const auto side = static_cast<int64_t>(std::lround(10 * scale));
        EXPECT_EQ(result.conversion.value_dims.at("y"), (Ints{1, 2, side, side}));
    }
}

TEST(ResizeAttributes, FactorsThatAreTheEnginesOwnAreOneLayer) {
    const Ints dims = {1, 2, 4, 6};
    for (const float factor : {2.0f, 4.0f}) {
        expect_kinds(resized(dims, {1, 1, factor, factor},
                             {{"mode", "nearest"},
                              {"coordinate_transformation_mode", "asymmetric"},
                              {"nearest_mode", "floor"}}),
                     {"Upsampling"});
    }
    for (const char* corner : {"half_pixel", "pytorch_half_pixel"}) {
        expect_kinds(resized(dims, {1, 1, 2, 2},
                             {{"mode", "linear"}, {"coordinate_transformation_mode", corner}}),
                     {"Upsampling"});
    }
    for (const float factor : {2.0f, 4.0f, 8.0f}) {
        expect_kinds(
            resized(dims, {1, 1, factor, factor},
                    {{"mode", "linear"}, {"coordinate_transformation_mode", "align_corners"}}),
            {"Upsampling"});
    }
}

// By 3 / 2 each pixel three times, and every other one of those; 290 to 301 line by line.
TEST(ResizeAttributes, FactorsOfManyPixels) {
    for (const char* corner : {"half_pixel", "asymmetric", "align_corners"}) {
        for (const char* rounding : {"round_prefer_floor", "floor", "ceil"}) {
            SCOPED_TRACE(std::string(corner) + " " + rounding);
            const std::vector<With> rules = {{"mode", "nearest"},
                                             {"coordinate_transformation_mode", corner},
                                             {"nearest_mode", rounding}};
            expect_proof(
                convert_and_prove(sized({1, 1, 2, 200}, {1, 1, 3, 300}, rules, 13).bytes()));
            expect_proof(
                convert_and_prove(sized({1, 2, 300, 4}, {1, 2, 200, 3}, rules, 13).bytes()));
        }
    }
    const std::vector<With> rules = {{"mode", "nearest"},
                                     {"coordinate_transformation_mode", "asymmetric"},
                                     {"nearest_mode", "floor"}};
    const Converted few =
        convert_and_prove(sized({1, 3, 200, 200}, {1, 3, 300, 300}, rules, 13).bytes());
    expect_proof(few);
    EXPECT_LE(few.kinds().size(), 4u);
    expect_proof(convert_and_prove(sized({1, 2, 2, 290}, {1, 2, 2, 301}, rules, 13).bytes()));
    expect_refused(sized({1, 2, 2, 700}, {1, 2, 2, 1999}, rules, 13), "y\" (Resize)",
                   "at most 1024 pieces of rows or columns to put together expected, found 1300");
}

TEST(UpsampleAttributes, ScalesBelow1AreRefused) {
    for (const int opset : {7, 9}) {
        for (const char* mode : {"nearest", "linear"}) {
            const std::vector<float> scales = {1, 1, 0.5f, 2};
            MadeModel model(opset);
            model.input("x", {1, 2, 4, 6}).output("y").floats("s", {4}, scales);
            if (opset < 9) {
                model.node("Upsample", {"x"}, {"y"}, {{"mode", mode}, {"scales", scales}});
            } else {
                model.node("Upsample", {"x", "s"}, {"y"}, {{"mode", mode}});
            }
            expect_refused(model, "y\" (Upsample)", "scales of at least 1 expected, found 0.5");
        }
    }
}

TEST(ResizeAttributes, WhatNoLayersGiveIsRefused) {
    const Ints dims = {1, 2, 4, 6};
    const std::vector<float> twice = {1, 1, 2, 2};
    expect_refused(resized(dims, twice, {{"mode", "cubic"}}), "y\" (Resize)",
                   "mode nearest or linear expected, found \"cubic\"");
    for (const char* mode : {"nearest", "linear"}) {
        MadeModel region =
            resized(dims, twice,
                    {{"mode", mode}, {"coordinate_transformation_mode", "tf_crop_and_resize"}});
        region.floats("roi", {8}, {0, 0, 0, 0, 1, 1, 0.5f, 0.5f});
        region.graph().mutable_node(0)->set_input(1, "roi");
        expect_refused(
            region, "y\" (Resize)",
            "a coordinate_transformation_mode of operator set 13 without a region expected");
    }
    const std::vector<With> for_nearest = {
        {"mode", "linear"}, {"coordinate_transformation_mode", "tf_half_pixel_for_nn"}};
    expect_refused(resized(dims, twice, for_nearest, 12), "y\" (Resize)",
                   "half_pixel, asymmetric or align_corners expected for mode linear");
    expect_refused(resized(dims, twice, for_nearest, 13), "y\" (Resize)",
                   "of operator set 13 without a region expected, found \"tf_half_pixel_for_nn\"");
    expect_refused(resized(dims, twice, {{"mode", "nearest"}, {"nearest_mode", "up"}}),
                   "y\" (Resize)", "a nearest_mode that ONNX knows expected");
    expect_refused(resized(dims, {1, 1, 1.5f, 1.5f}, {{"mode", "linear"}}), "y\" (Resize)",
                   "a whole factor expected, found 4 to 6 pixels");
    expect_refused(resized(dims, {1, 2, 2, 2}, {{"mode", "nearest"}}), "y\" (Resize)",
                   "a scale of 1 for batch and channels expected");
    expect_refused(resized(dims, {1, 1, 0, 2}, {{"mode", "nearest"}}), "y\" (Resize)",
                   "scales above 0 expected");
    expect_refused(
        resized(dims, {1, 1, 2, 4},
                {{"mode", "linear"}, {"coordinate_transformation_mode", "align_corners"}}),
        "y\" (Resize)", "align_corners with one factor of 2, 4 or 8");
}

TEST(DenseAttributes, AComputedFactorIsRefusedAndATurnedVectorIsTheVector) {
    for (const int64_t turned : {0, 1}) {
        MadeModel computed;
        computed.input("x", {1, 1}).input("w", {1, 1}).output("y");
        computed.node("Gemm", {"x", "w"}, {"y"}, {{"transA", turned}});
        expect_refused(computed, "y\" (Gemm)", "weights expected to be constant");
    }
    MadeModel product;
    product.input("x", {1, 4}).input("w", {4, 4}).output("y");
    product.node("MatMul", {"x", "w"}, {"y"});
    expect_refused(product, "y\" (MatMul)", "the second factor expected to be constant");
    MadeModel column;
    column.input("x", {8, 1}).output("y").random("w", {8, 4}, 1);
    column.node("Gemm", {"x", "w"}, {"y"}, {{"transA", 1}});
    expect_proof(convert_and_prove(column.bytes()));
}

TEST(DenseAttributes, AnAddBehindAMatMulIsItsBias) {
    MadeModel model;
    model.input("x", {1, 8}).output("y").random("w", {8, 4}, 1).random("b", {4}, 2);
    model.node("MatMul", {"x", "w"}, {"m"}).node("Add", {"b", "m"}, {"s"});
    model.node("Relu", {"s"}, {"y"});
    expect_kinds(model, {"FullConnection", "Activation"});
}

// One LSTM of 3 inputs and 4 hidden values over 2 steps; `inputs` behind the recurrent weights.
MadeModel recurrent(const std::vector<std::string>& inputs, const std::vector<With>& attributes,
                    const std::vector<std::string>& outputs = {"y"}, int opset = 13) {
    MadeModel model(opset);
    model.input("x", {2, 1, 3}).random("w", {1, 16, 3}, 1, 0.5).random("r", {1, 16, 4}, 2, 0.5);
    model.random("p", {1, 12}, 3).integers("whole", {2}).integers("short", {1});
    model.floats("zeros", {1, 1, 4}, {0, 0, 0, 0}).floats("ones", {1, 1, 4}, {1, 1, 1, 1});
    std::vector<std::string> all = {"x", "w", "r"};
    all.insert(all.end(), inputs.begin(), inputs.end());
    std::vector<With> with = attributes;
    with.emplace_back("hidden_size", 4);
    model.node("LSTM", all, outputs, with);
    for (const std::string& output : outputs) {
        if (!output.empty()) model.output(output);
    }
    return model;
}

With names(const char* attribute, const std::vector<std::string>& values) {
    With with(attribute, 0);
    with.proto.set_type(onnx::AttributeProto::STRINGS);
    with.proto.clear_i();
    for (const std::string& value : values) with.proto.add_strings(value);
    return with;
}

TEST(LstmAttributes, TheDefaultsSpelledOutAreTheDefaults) {
    expect_kinds(recurrent({}, {}), {"LSTM"});
    expect_kinds(recurrent({"", "whole"}, {}), {"LSTM"});
    expect_kinds(recurrent({"", "", "zeros", "zeros"}, {{"input_forget", 0}}), {"LSTM"});
    expect_kinds(recurrent({}, {names("activations", {"Sigmoid", "Tanh", "Tanh"})}), {"LSTM"});
    expect_kinds(recurrent({}, {{"layout", 0}}, {"y"}, 14), {"LSTM"});
    expect_note(convert_and_prove(recurrent({}, {}).bytes()),
                "the engine keeps hidden and cell state from run to run");
}

TEST(LstmAttributes, WhatTheEngineHasNotIsRefusedByItsName) {
    const auto refused = [](const MadeModel& model, const std::string& reason) {
        expect_refused(model, "y\" (LSTM)", reason);
    };
    refused(recurrent({}, {names("activations", {"Sigmoid", "Relu", "Tanh"})}),
            "the activations Sigmoid, Tanh, Tanh expected, found \"Relu\"");
    refused(recurrent({}, {names("activations", {"HardSigmoid", "Tanh", "Tanh"})}),
            "found \"HardSigmoid\"");
    refused(recurrent({}, {{"activation_alpha", std::vector<float>{0.2f}}}),
            "no attribute activation_alpha expected, found 0.2");
    refused(recurrent({}, {{"activation_beta", std::vector<float>{0.5f}}}),
            "no attribute activation_beta expected, found 0.5");
    refused(recurrent({}, {{"clip", 3.0}}), "no attribute clip expected, found 3");
    refused(recurrent({}, {{"input_forget", 1}}), "input_forget 0 expected, found 1");
    refused(recurrent({"", "", "", "", "p"}, {}), "no peepholes expected, found them in \"p\"");
    refused(recurrent({"", "short"}, {}),
            "a sequence length of all 2 time steps expected, found 1");
    refused(recurrent({"", "", "ones"}, {}),
            "an initial state of zeros expected, found 1 at element 0");
    refused(recurrent({"", "", "zeros", "ones"}, {}),
            "an initial state of zeros expected, found 1 at element 0");
    refused(recurrent({}, {{"layout", 1}}, {"y"}, 14), "layout 0 expected, found 1");
    refused(recurrent({}, {{"direction", "backward"}}), "found \"backward\"");
    refused(recurrent({}, {}, {"y", "", "cell"}), "the last cell state is not supported");
}

// Before any proof, which --no-verify leaves out.
TEST(LstmAttributes, ShapesThatDoNotFitAreRefused) {
    const auto refused = [](size_t input, const Ints& dims, const std::string& reason) {
        MadeModel model = recurrent({"b", "whole", "zeros", "zeros", "p"}, {});
        const char* const names[] = {"x", "w", "r", "b", "lengths", "h", "c"};
        auto& node = *model.graph().mutable_node(0);
        // Only what the test is about, and what has to be there.
        for (int i = 3; i < node.input_size(); ++i) node.set_input(i, "");
        const std::string name = std::string(names[input]) + " of another shape";
        node.set_input(static_cast<int>(input), name);
        size_t count = 1;
        for (const int64_t size : dims) count *= static_cast<size_t>(size);
        if (input == 4) {
            model.integers(name, Ints(count, 2));
            auto& lengths =
                *model.graph().mutable_initializer(model.graph().initializer_size() - 1);
            lengths.clear_dims();
            for (const int64_t size : dims) lengths.add_dims(size);
        } else {
            model.floats(name, dims, std::vector<float>(count, 0.0f));
        }
        const std::string found = " expected, found " + modelkit::onnx::text_of(dims);
        expect_refused(model, "y\" (LSTM)", reason + found);
    };
    refused(1, {1, 16, 4}, "weights of [1, 16, 3]");
    refused(1, {2, 16, 3}, "weights of [1, 16, 3]");
    refused(2, {1, 16, 3}, "recurrent weights of [1, 16, 4]");
    refused(3, {1, 16}, "a bias of [1, 32]");
    refused(3, {32}, "a bias of [1, 32]");
    refused(4, {2}, "sequence lengths of [1]");
    refused(4, {1, 1}, "sequence lengths of [1]");
    for (const size_t state : {5, 6}) {
        refused(state, {1, 1, 3}, "an initial state of [1, 1, 4]");
        refused(state, {2, 1, 4}, "an initial state of [1, 1, 4]");
        refused(state, {1, 4}, "an initial state of [1, 1, 4]");
        refused(state, {4, 1, 1}, "an initial state of [1, 1, 4]");
    }
}

TEST(TransposeAttributes, BlocksOfPixelsAsExportersSpellThemAreOneLayer) {
    MadeModel to_space;
    to_space.input("x", {1, 8, 3, 2}).output("y").integers("a", {1, 2, 2, 2, 3, 2});
    to_space.integers("b", {1, 2, 6, 4}).node("Reshape", {"x", "a"}, {"1"});
    to_space.node("Transpose", {"1"}, {"2"}, {{"perm", Ints{0, 1, 4, 2, 5, 3}}});
    to_space.node("Reshape", {"2", "b"}, {"y"});
    expect_kinds(to_space, {"PixelShuffle"});
    MadeModel to_depth;
    to_depth.input("x", {1, 2, 6, 4}).output("y").integers("a", {1, 2, 3, 2, 2, 2});
    to_depth.integers("b", {1, 8, 3, 2}).node("Reshape", {"x", "a"}, {"1"});
    to_depth.node("Transpose", {"1"}, {"2"}, {{"perm", Ints{0, 1, 3, 5, 2, 4}}});
    to_depth.node("Reshape", {"2", "b"}, {"y"});
    expect_kinds(to_depth, {"PixelShuffle"});
}

TEST(TransposeAttributes, OfDimensionsOfOneThereIsNoLayer) {
    MadeModel model;
    model.input("x", {1, 5, 1, 4}).output("y");
    model.node("Transpose", {"x"}, {"t"}, {{"perm", Ints{0, 2, 1, 3}}}).node("Relu", {"t"}, {"y"});
    expect_kinds(model, {"Activation"});
    expect_refused(one_node("Transpose", {1, 3, 4, 5}, {{"perm", Ints{0, 2, 3, 1}}}),
                   "y\" (Transpose)", "a permutation that leaves pixels where they are");
    expect_refused(one_node("Transpose", {1, 3, 4, 5}, {{"perm", Ints{0, 1, 1, 3}}}),
                   "y\" (Transpose)", "a permutation of all dimensions expected");
}

TEST(PadAttributes, OtherModesAndAxesAreRefused) {
    const auto pad = [](const Ints& pads, const char* mode) {
        MadeModel model;
        model.input("x", {1, 2, 3, 3}).output("y").integers("p", pads);
        return std::move(model.node("Pad", {"x", "p"}, {"y"}, {{"mode", mode}}));
    };
    expect_refused(pad({0, 0, 1, 1, 0, 0, 1, 1}, "wrap"), "y\" (Pad)",
                   "mode constant, edge or reflect expected, found \"wrap\"");
    expect_refused(pad({0, 1, 0, 0, 0, 0, 0, 0}, "constant"), "y\" (Pad)",
                   "pads for rows and columns only expected");
    expect_refused(pad({0, 0, 0, 0, 1, 0, 0, 0}, "constant"), "y\" (Pad)",
                   "pads for rows and columns only expected");
    expect_refused(pad({0, 0, 3, 0, 0, 0, 0, 0}, "reflect"), "y\" (Pad)",
                   "a reflection of at most the tensor expected");
    MadeModel computed;
    computed.input("x", {1, 2, 3, 3}).input("p", {8}).output("y");
    computed.node("Pad", {"x", "p"}, {"y"});
    expect_refused(computed, "y\" (Pad)", "constant pads for all axes expected");
}

MadeModel sliced(const Ints& dims, const Ints& starts, const Ints& ends, const Ints& axes,
                 const Ints& steps) {
    MadeModel model;
    model.input("x", dims).output("y").integers("s", starts).integers("e", ends);
    model.integers("a", axes).integers("t", steps);
    model.node("Slice", {"x", "s", "e", "a", "t"}, {"y"});
    return model;
}

TEST(SliceAttributes, StepsForwardAlongEachAxis) {
    const Ints dims = {1, 3, 4, 5};
    const auto gives = [&](const Ints& starts, const Ints& ends, const Ints& axes,
                           const Ints& steps, const Numbers& numbers) {
        expect_numbers(convert_and_prove(sliced(dims, starts, ends, axes, steps).bytes(),
                                         {{"x", ascending(dims)}}),
                       numbers);
    };
    // Channel c, row y, column x is 20 c + 5 y + x.
    gives({0, 0, 0}, {9, 1, 1}, {1, 2, 3}, {2, 1, 1}, {0, 40});
    gives({1, 0, 1}, {2, 4, 2}, {1, 2, 3}, {1, 3, 1}, {21, 36});
    gives({-1, -1, -4}, {9, 9, -1}, {-3, -2, -1}, {1, 1, 2}, {56, 58});
    gives({2, 3, 0}, {3, 4, 5}, {1, 2, 3}, {1, 1, 4}, {55, 59});
}

TEST(SliceAttributes, StepsBackwardAndNothingAreRefused) {
    const Ints dims = {1, 3, 4, 5};
    for (const int64_t axis : {1, 2, 3}) {
        expect_refused(sliced(dims, {-1}, {-9}, {axis}, {-1}), "y\" (Slice)",
                       "steps forward expected, found -1");
        expect_refused(sliced(dims, {0}, {9}, {axis}, {0}), "y\" (Slice)",
                       "steps forward expected, found 0");
        expect_refused(sliced(dims, {2}, {2}, {axis}, {1}), "y\" (Slice)",
                       "at least one element to stay expected");
    }
}

TEST(SplitAttributes, PartsThatDoNotMakeUpTheTensorAreRefused) {
    const auto split = [](const Ints& parts) {
        MadeModel model;
        model.input("x", {1, 4, 2, 2}).output("a").output("b").integers("p", parts);
        return std::move(model.node("Split", {"x", "p"}, {"a", "b"}, {{"axis", 1}}));
    };
    expect_proof(convert_and_prove(split({1, 3}).bytes()));
    expect_refused(split({1, 2}), "a\" (Split)", "parts that make up 4 expected");
    expect_refused(split({3, 2}), "a\" (Split)", "parts that make up 4 expected");
    expect_refused(split({2, 1, 1}), "a\" (Split)", "one size for each output expected");
}

TEST(DropoutAttributes, InTrainingOrWithItsMaskItIsRefused) {
    const auto dropout = [](bool training, bool mask) {
        MadeModel model;
        model.input("x", {1, 2, 3, 3}).output("y").floats("ratio", {}, {0.5f});
        auto& flag = *model.graph().add_initializer();
        flag.set_name("training");
        flag.set_data_type(onnx::TensorProto::BOOL);
        flag.add_int32_data(training ? 1 : 0);
        if (mask) model.output("mask");
        model.node("Dropout", {"x", "ratio", "training"}, {"d", "mask"});
        return std::move(model.node("Relu", {"d"}, {"y"}));
    };
    expect_kinds(dropout(false, false), {"Activation"});
    expect_refused(dropout(true, false), "d\" (Dropout)",
                   "a dropout that is not in training expected");
    expect_refused(dropout(false, true), "d\" (Dropout)", "the mask of a dropout is not supported");
}

// Sums with such numbers would leave 64 bits.
TEST(Attributes, OfTheLargestIntegersAreRefused) {
    constexpr int64_t LOWEST = std::numeric_limits<int64_t>::min();
    constexpr int64_t HIGHEST = std::numeric_limits<int64_t>::max();
    for (const int64_t size : {LOWEST, HIGHEST}) {
        MadeModel model(13);
        model.input("x", {1, 1, 4, 4})
            .output("y")
            .floats("w", {1, 1, 3, 3}, std::vector<float>(9, 0.5f));
        model.node("ConvTranspose", {"x", "w"}, {"y"}, {{"output_shape", Ints{size, 4}}});
        expect_refusal(convert_and_prove(model.bytes(), {}), "\"y\" (ConvTranspose)",
                       "an output_shape of 1 to 65535 expected");
    }
    for (const int64_t pad : {LOWEST, HIGHEST}) {
        MadeModel model(10);
        model.input("x", {1, 1, 4, 4})
            .output("y")
            .floats("w", {1, 1, 3, 3}, std::vector<float>(9, 0.5f));
        model.node("Pad", {"x"}, {"p"}, {{"pads", Ints{0, 0, 1, 1, 0, 0, 1, 1}}});
        model.node("Conv", {"p", "w"}, {"y"}, {{"pads", Ints{pad, 0, 0, 0}}});
        expect_refusal(convert_and_prove(model.bytes(), {}), "\"y\" (Conv)",
                       "pads of 0 to 65535 expected");
    }
}

TEST(SliceAttributes, OneAxisTwiceIsRefused) {
    for (const int opset : {9, 13}) {
        MadeModel model(opset);
        model.input("x", {1, 2, 6, 4}).output("y");
        if (opset < 10) {
            model.node("Slice", {"x"}, {"y"},
                       {{"starts", std::vector<int64_t>{1, 1}},
                        {"ends", std::vector<int64_t>{5, 3}},
                        {"axes", std::vector<int64_t>{2, -2}}});
        } else {
            model.integers("from", {1, 1}).integers("to", {5, 3}).integers("axes", {2, -2});
            model.node("Slice", {"x", "from", "to", "axes"}, {"y"});
        }
        expect_refused(model, "y\" (Slice)", "each axis once expected, found [2, -2]");
    }
}

TEST(ConvTransposeAttributes, AnOddPaddingInTotalHasNoEndBeforeSet11) {
    for (const int opset : {10, 11}) {
        MadeModel model(opset);
        model.input("x", {1, 2, 4, 4}).output("y").random("w", {2, 2, 3, 3}, 1);
        model.node("ConvTranspose", {"x", "w"}, {"y"},
                   {{"strides", std::vector<int64_t>{2, 2}}, {"auto_pad", "SAME_UPPER"}});
        if (opset >= 11) {
            expect_proof(convert_and_prove(model.bytes()));
            continue;
        }
        expect_refused(model, "y\" (ConvTranspose)",
                       "an even padding in total expected, found 1: operator set 10 does not say "
                       "at which end the odd pixel is");
    }
}

TEST(DivAttributes, AConstantThatIsZeroIsRefused) {
    for (const std::vector<float>& numbers : {std::vector<float>{0}, {1, 0}}) {
        const auto count = static_cast<int64_t>(numbers.size());
        MadeModel model;
        model.input("x", {1, 2, 3, 4}).output("y").floats("c", {count, 1, 1}, numbers);
        model.node("Div", {"x", "c"}, {"y"});
        expect_refused(model, "y\" (Div)",
                       "a constant other than 0 to divide by expected, found 0 at element " +
                           std::to_string(count - 1));
    }
}

TEST(PrintableText, HasNoControlCharactersAndIsUtf8) {
    using modelkit::onnx::printable;
    EXPECT_EQ(printable("caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80"),
              "caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80");
    EXPECT_EQ(printable("a\n\x1b\x7f"), "a???");
    // U+009B begins commands for a terminal; U+00A0 is the first behind such.
    EXPECT_EQ(printable("a\xc2\x9b\x33"), "a??3");
    EXPECT_EQ(printable("\xc2\xa0"), "\xc2\xa0");
    // Cut off, alone, longer than need be, half of a pair, beyond the last.
    EXPECT_EQ(printable("\xc3"), "?");
    EXPECT_EQ(printable("\x9b\xff"), "??");
    EXPECT_EQ(printable("\xc0\xaf\xe0\x80\xaf"), "?????");
    EXPECT_EQ(printable("\xed\xa0\x80"), "???");
    EXPECT_EQ(printable("\xf4\x90\x80\x80"), "????");
    // A letter is not cut in two.
    EXPECT_EQ(printable(std::string(99, 'a') + "\xc3\xa9"), std::string(99, 'a') + "...");
    EXPECT_EQ(printable(std::string(98, 'a') + "\xc3\xa9"), std::string(98, 'a') + "\xc3\xa9");
}

}  // namespace
