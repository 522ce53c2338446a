// That the proof fails when a converted model is not what the graph says.
#include <gtest/gtest.h>
#include <modelkit/model_writer.h>
#include <modelkit/records.h>

#include <limits>
#include <map>
#include <string>
#include <vector>

#include "onnx/converted.h"
#include "onnx/made_model.h"

namespace {

using namespace onnx_test;

MadeModel two_convolutions() {
    MadeModel model;
    model.input("x", {1, 3, 12, 12}).output("y");
    model.random("w", {8, 3, 3, 3}, 1, 0.3).random("b", {8}, 2, 0.1);
    model.random("v", {4, 8, 1, 1}, 3, 0.5);
    model.node("Conv", {"x", "w", "b"}, {"c"}, {{"pads", std::vector<int64_t>{1, 1, 1, 1}}});
    model.node("Relu", {"c"}, {"r"}).node("Conv", {"r", "v"}, {"y"});
    return model;
}

// The converted file with one of its records changed.
std::vector<unsigned char> changed(const Converted& converted, void (*change)(ZQLayerInfo& record),
                                   unsigned short id) {
    const testing_support::TemporaryFile file(converted.conversion.file);
    ZQNetLoader loader;
    EXPECT_TRUE(loader.LoadFile(file.path(), false));
    change(*loader.getLayersInfo().at(id));
    modelkit::ModelWriter writer(modelkit::header_of(loader));
    EXPECT_TRUE(writer.add_all(loader).ok());
    return writer.bytes();
}

void expect_failure(void (*change)(ZQLayerInfo& record), unsigned short id) {
    MadeModel model = two_convolutions();
    Converted converted = convert_only(model.bytes());
    ASSERT_TRUE(converted.status) << converted.status.message();
    prove_converted(converted, {}, false, changed(converted, change, id));
    ASSERT_TRUE(converted.status) << converted.status.message();
    EXPECT_FALSE(converted.proof.holds())
        << converted.proof.outputs[0].unexplained << " within " << converted.proof.outputs[0].bound;
}

TEST(Proof, HoldsForTheFileAsItIs) {
    MadeModel model = two_convolutions();
    const Converted converted = convert_and_prove(model.bytes());
    expect_proof(converted);
    EXPECT_TRUE(converted.proof.holds());
    const ValueProof& output = converted.proof.outputs[0];
    // The halves move the numbers, float sums a thousand times less.
    EXPECT_GT(output.by_halves.maximum, 100 * output.unexplained);
    EXPECT_GT(output.by_halves.maximum, output.bound);
    EXPECT_GT(output.from_graph.relative, 0.0);
}

// File and rounded graph agree, as they do when a pass over the graph is wrong: the graph as it was
// read has the last word.
TEST(Proof, FailsWhenTheSimplifiedGraphIsAnotherOne) {
    MadeModel model = two_convolutions();
    Converted converted = convert_only(model.bytes());
    ASSERT_TRUE(converted.status) << converted.status.message();
    for (const double change : {0.0, 0.02}) {
        SCOPED_TRACE(change);
        Tensor& bias = converted.original.initializers.at("b");
        std::vector<double> values = bias.numbers();
        for (double& value : values) value += change;
        bias = Tensor::of_doubles(bias.dims, values);
        prove_converted(converted);
        ASSERT_TRUE(converted.status) << converted.status.message();
        const ValueProof& output = converted.proof.outputs[0];
        EXPECT_LE(output.unexplained, output.bound);
        EXPECT_EQ(output.halves_hold(), change == 0.0)
            << output.by_halves.maximum << " within " << output.halves_bound;
        EXPECT_EQ(converted.proof.holds(), change == 0.0);
    }
}

TEST(Proof, FailsWhenOneWeightIsTheNextHalf) {
    expect_failure(
        [](ZQLayerInfo& record) {
            auto& conv = static_cast<ZQLayerInfo_Conv2D&>(record);
            // The largest, so that the step is one of the larger.
            size_t largest = 0;
            for (size_t i = 0; i < conv.weights_count; ++i) {
                if (conv.weights[i] > conv.weights[largest]) largest = i;
            }
            ++conv.weights_half[largest];
            conv.weights[largest] = Tarno::half_to_float(conv.weights_half[largest]);
        },
        2);
}

TEST(Proof, FailsWhenAnActivationIsAnother) {
    expect_failure(
        [](ZQLayerInfo& record) {
            static_cast<ZQLayerInfo_Conv2D&>(record).activation = ActivationType_LeakyReLU;
        },
        1);
}

TEST(Proof, FailsWhenAPictureIsShiftedByAPixel) {
    expect_failure(
        [](ZQLayerInfo& record) {
            auto& conv = static_cast<ZQLayerInfo_Conv2D&>(record);
            // Taps one column on: [out][y][x][in].
            for (size_t i = 0; i + 3 < conv.weights_count; ++i) {
                conv.weights_half[i] = conv.weights_half[i + 3];
                conv.weights[i] = conv.weights[i + 3];
            }
        },
        1);
}

TEST(Proof, TellsEveryLayerWhereAskedTo) {
    MadeModel model = two_convolutions();
    Converted converted = convert_only(model.bytes());
    prove_converted(converted, {}, true);
    ASSERT_TRUE(converted.status) << converted.status.message();
    std::vector<std::string> names;
    for (const ValueProof& layer : converted.proof.layers) names.push_back(layer.name);
    EXPECT_EQ(names, (std::vector<std::string>{"x", "r", "y"}));
}

TEST(Proof, FailsForAFileThatDoesNotRun) {
    MadeModel model = two_convolutions();
    Converted converted = convert_only(model.bytes());
    std::vector<unsigned char> half = converted.conversion.file;
    half.resize(1000);
    prove_converted(converted, {}, false, half);
    EXPECT_FALSE(converted.status);
}

// 0 / 0 in the graph and in the engine are no agreement.
TEST(Proof, IsNoneWhereTheGraphGivesNoNumber) {
    MadeModel model;
    model.input("x", {1, 2, 2, 2}).output("y").output("z").random("w", {2, 2, 1, 1}, 1);
    model.node("Mul", {"x", "k"}, {"m"}).node("Conv", {"m", "w"}, {"y"});
    model.floats("k", {}, {2.0f}).node("Relu", {"x"}, {"z"});
    std::vector<float> values(8, 0.5f);
    expect_proof(
        convert_and_prove(model.bytes(), {{"x", Tensor::of_floats({1, 2, 2, 2}, values)}}));
    for (const float none :
         {std::numeric_limits<float>::quiet_NaN(), -std::numeric_limits<float>::quiet_NaN()}) {
        values[3] = none;
        const Converted converted =
            convert_and_prove(model.bytes(), {{"x", Tensor::of_floats({1, 2, 2, 2}, values)}});
        ASSERT_FALSE(converted.status) << "was proven";
        EXPECT_EQ(converted.status.message(), "the output \"y\" is not a number in the graph");
    }
}

// One infinite number may not make the bound of all others infinite.
TEST(Proof, HoldsForInfiniteNumbersOnlyWhereBothAreInfinite) {
    MadeModel model;
    model.input("x", {1, 1, 2, 2}).output("y").node("Relu", {"x"}, {"y"});
    const float endless = std::numeric_limits<float>::infinity();
    const std::map<std::string, Tensor> inputs = {
        {"x", Tensor::of_floats({1, 1, 2, 2}, {endless, 1, -2, 3})}};
    Converted converted = convert_and_prove(model.bytes(), inputs);
    ASSERT_TRUE(converted.status) << converted.status.message();
    EXPECT_TRUE(converted.proof.holds());
    EXPECT_EQ(converted.proof.outputs[0].largest, 3);
    EXPECT_LE(converted.proof.outputs[0].bound, 1e-5);
    prove_converted(converted, inputs, false,
                    changed(
                        converted,
                        [](ZQLayerInfo& record) {
                            static_cast<ZQLayerInfo_Activation&>(record).activation_type =
                                ActivationType_ReLU6;
                        },
                        1));
    ASSERT_TRUE(converted.status) << converted.status.message();
    EXPECT_FALSE(converted.proof.holds());
}

// On the CPU engine; for both a factor is a tap among zeros, which times infinity are no number.
TEST(Proof, HoldsWhereInfiniteNumbersAreClamped) {
    const float endless = std::numeric_limits<float>::infinity();
    MadeModel model;
    model.input("x", {1, 2, 1, 2}).output("y");
    model.floats("a", {}, {-0.9f}).floats("b", {}, {0.83f});
    model.node("Clip", {"x", "a", "b"}, {"y"});
    expect_proof(convert_and_prove(
        model.bytes(), {{"x", Tensor::of_floats({1, 2, 1, 2}, {endless, 1, -2, -endless})}}));
}

TEST(Proof, HoldsWhereAnInputIsAnOutputAsWell) {
    for (const std::vector<int64_t>& dims : {std::vector<int64_t>{1, 2, 3, 4}, {4, 6}, {1, 5}}) {
        MadeModel model;
        model.input("x", dims).output("x").output("y").node("Relu", {"x"}, {"y"});
        Converted converted = convert_and_prove(model.bytes());
        expect_proof(converted);
        const modelkit::ModelNames& names = converted.conversion.names;
        ASSERT_EQ(names.inputs.size(), 1u);
        EXPECT_EQ(names.inputs[0].layer, 0);
        ASSERT_EQ(names.outputs.size(), 2u);
        EXPECT_EQ(names.outputs[0].name, "x");
        EXPECT_GT(names.outputs[0].layer, 0);
        // Named layers that are none are told, not taken for inputs.
        converted.conversion.names.inputs[0].layer = names.outputs[1].layer;
        prove_converted(converted);
        ASSERT_FALSE(converted.status);
        EXPECT_NE(converted.status.message().find("is expected to be the input \"x\""),
                  std::string::npos)
            << converted.status.message();
    }
}

MadeModel chain_of(const char* type, int count) {
    MadeModel model(14);
    model.input("0", {1, 2, 8, 8}).output("y");
    for (int i = 0; i < count; ++i) {
        model.node(type, {std::to_string(i)}, {i + 1 < count ? std::to_string(i + 1) : "y"});
    }
    return model;
}

ConvertOptions for_both() {
    ConvertOptions options;
    options.engines = Engines::Both;
    return options;
}

// Both engines take the half of 1 / 6 in each layer, which is 2^-12 below it.
TEST(Proof, HoldsForAnyNumberOfFactorsOneBehindTheOther) {
    for (const char* type : {"HardSwish", "HardSigmoid"}) {
        for (const int count : {1, 2, 3, 7, 20}) {
            SCOPED_TRACE(std::string(type) + " " + std::to_string(count));
            MadeModel model = chain_of(type, count);
            const auto values = testing_support::uniform_fill(5, -4.0, 6.0, 128);
            const Converted converted = convert_and_prove(
                model.bytes(), {{"0", Tensor::of_floats({1, 2, 8, 8}, values)}}, for_both());
            expect_proof(converted);
            // The factors are in the graph with the file's numbers; floats are left to explain.
            const ValueProof& output = converted.proof.outputs[0];
            EXPECT_GT(output.by_halves.relative, 0x1p-14);
            const auto layers = static_cast<double>(converted.conversion.layers.size());
            EXPECT_LE(output.bound, 4.001 * layers * 0x1p-24 * output.largest);
        }
    }
}

// Factors before and behind a clamp are shares of its input, and differences let them grow.
TEST(Proof, HoldsForClampsOneBehindTheOtherAndTheirDifference) {
    struct Limits {
        float low, high, other_low, other_high;
    };
    const Limits all[] = {{-0.9f, 0.83f, -0.87f, 0.9f},
                          {0.0f, 0.7f, 0.0f, 0.75f},
                          {-0.7f, 0.0f, -0.75f, 0.0f},
                          {0.13f, 0.7f, 0.11f, 0.77f},
                          {-0.7f, -0.13f, -0.77f, -0.11f}};
    for (const Limits& limits : all) {
        for (const Engines engines : {Engines::Cpu, Engines::Both}) {
            SCOPED_TRACE(std::to_string(limits.low) + " to " + std::to_string(limits.high));
            MadeModel model(14);
            model.input("x", {1, 2, 8, 8}).output("y").output("z");
            model.floats("a", {}, {limits.low}).floats("b", {}, {limits.high});
            model.floats("c", {}, {limits.other_low}).floats("d", {}, {limits.other_high});
            model.node("Clip", {"x", "a", "b"}, {"p"}).node("Clip", {"x", "c", "d"}, {"q"});
            model.node("Sub", {"p", "q"}, {"y"});
            model.node("Clip", {"p", "c", "d"}, {"r"}).node("Mul", {"r", "r"}, {"s"});
            model.node("Mul", {"s", "s"}, {"z"});
            ConvertOptions options;
            options.engines = engines;
            const Converted converted = convert_and_prove(model.bytes(), {}, options);
            expect_proof(converted);
            const auto layers = static_cast<double>(converted.conversion.layers.size());
            for (const ValueProof& output : converted.proof.outputs) {
                EXPECT_LE(output.bound, 4.001 * layers * 0x1p-24 * output.largest);
            }
        }
    }
}

TEST(Proof, FailsWhenAFactorIsTheNextHalf) {
    MadeModel model = chain_of("HardSwish", 2);
    Converted converted = convert_only(model.bytes(), for_both());
    ASSERT_TRUE(converted.status) << converted.status.message();
    ASSERT_EQ(converted.kinds().at(2), "DepthWiseConv2D");
    const auto next_half = [](ZQLayerInfo& record) {
        auto& conv = static_cast<ZQLayerInfo_DepthWiseConv2D&>(record);
        for (size_t i = 0; i < conv.weights_count; ++i) {
            if (conv.weights_half[i] == 0) continue;
            ++conv.weights_half[i];
            conv.weights[i] = Tarno::half_to_float(conv.weights_half[i]);
        }
    };
    prove_converted(converted, {}, false, changed(converted, next_half, 3));
    ASSERT_TRUE(converted.status) << converted.status.message();
    EXPECT_FALSE(converted.proof.holds());
}

MadeModel mean_of(const char* type, const std::vector<int64_t>& dims, int64_t kernel) {
    MadeModel model;
    model.input("x", dims).output("y");
    if (std::string(type) == "AveragePool") {
        model.node(type, {"x"}, {"y"}, {{"kernel_shape", std::vector<int64_t>{kernel, kernel}}});
    } else if (std::string(type) == "ReduceMean") {
        model.node(type, {"x"}, {"y"}, {{"axes", std::vector<int64_t>{2, 3}}});
    } else {
        model.node(type, {"x"}, {"y"});
    }
    return model;
}

// A chain of 65536 sums of the same number leans one way with all its roundings.
TEST(Proof, HoldsForMeansOfLargeMaps) {
    for (const char* type : {"GlobalAveragePool", "ReduceMean", "AveragePool"}) {
        const int64_t side = std::string(type) == "AveragePool" ? 130 : 256;
        MadeModel model = mean_of(type, {1, 2, side, side}, 128);
        const auto count = static_cast<size_t>(2 * side * side);
        const std::vector<float> fills[] = {std::vector<float>(count, 0.1f),
                                            std::vector<float>(count, -0.7f),
                                            testing_support::uniform_fill(3, 0.0, 1.0, count),
                                            testing_support::uniform_fill(4, -1.0, 1.0, count)};
        for (const std::vector<float>& values : fills) {
            SCOPED_TRACE(std::string(type) + " " + std::to_string(values[0]));
            const Converted converted = convert_and_prove(
                model.bytes(), {{"x", Tensor::of_floats({1, 2, side, side}, values)}});
            expect_proof(converted);
            // n * 2^-24 of the mean magnitude, which is no more than the largest, twice.
            const double n = std::string(type) == "AveragePool" ? 128 * 128 : 256 * 256;
            EXPECT_LE(converted.proof.outputs[0].bound, 2.1 * (n + 8) * 0x1p-24);
        }
    }
}

}  // namespace
