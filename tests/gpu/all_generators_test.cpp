// What holds for every generator: the line that its print logs, and names of programs that tell
// apart whatever differs in the sources. No context is needed.
#include <gtest/gtest.h>
#include <tarno/gpu.h>
#include <tarno/model.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "gpu/opengl/glcnn/src/tesk/shaderformat.h"
#include "gpu/opengl/glcnn/src/tesk/tricks/tricks_activation.h"
#include "gpu/opengl/glcnn/src/tesk/tricks/tricks_benchmark_single_layer.h"
#include "gpu/opengl/glcnn/src/tesk/tricks/tricks_concat.h"
#include "gpu/opengl/glcnn/src/tesk/tricks/tricks_conv2d_1x1.h"
#include "gpu/opengl/glcnn/src/tesk/tricks/tricks_conv2d_kxk.h"
#include "gpu/opengl/glcnn/src/tesk/tricks/tricks_depthwise_conv2d_3x3.h"
#include "gpu/opengl/glcnn/src/tesk/tricks/tricks_depthwise_conv2d_3x3_4pointsout.h"
#include "gpu/opengl/glcnn/src/tesk/tricks/tricks_depthwise_conv2d_5x5.h"
#include "gpu/opengl/glcnn/src/tesk/tricks/tricks_elementwise_add_points.h"
#include "gpu/opengl/glcnn/src/tesk/tricks/tricks_elementwise_operator.h"
#include "gpu/opengl/glcnn/src/tesk/tricks/tricks_fullconnection.h"
#include "gpu/opengl/glcnn/src/tesk/tricks/tricks_group_conv2d_3x3_basic.h"
#include "gpu/opengl/glcnn/src/tesk/tricks/tricks_pixelshuffle.h"
#include "gpu/opengl/glcnn/src/tesk/tricks/tricks_pooling.h"
#include "gpu/opengl/glcnn/src/tesk/tricks/tricks_region2d.h"
#include "gpu/opengl/glcnn/src/tesk/tricks/tricks_tensorreshape.h"
#include "gpu/opengl/glcnn/src/tesk/tricks/tricks_tensorsqueeze.h"
#include "gpu/opengl/glcnn/src/tesk/tricks/tricks_transpose_conv2d.h"
#include "gpu/opengl/glcnn/src/tesk/tricks/tricks_upsampling.h"
#include "gpu/opengl/glcnn/src/tesk/tricks/tricks_upsampling_nearest.h"
#include "support/recorders.h"

namespace {

using namespace tesk;
using testing_support::LogRecorder;

/// A source and what it is kept under.
struct Program {
    std::string name;
    std::string source;
};

/// Numbers that differ from layer to layer, beside those of TricksParams.
struct Drawn {
    TricksParams params;
    int inputs = 2;
    int align = 0;
    float scale = 2.0f;
    int anchors = 5;
    int classes = 6;
    int coords = 4;
};

using Programs = std::function<std::vector<Program>(Tricks&, const Drawn&)>;

struct Generator {
    const char* name;
    const char* printed;  ///< null: `print` logs nothing
    std::unique_ptr<Tricks> (*make)(ComputeProgramManager*);
    int kernel_w = 0;  ///< 0: any of the drawn ones
    int kernel_h = 0;
    Programs programs = nullptr;  ///< null: none of its own making
};

template <typename Class>
std::unique_ptr<Tricks> make(ComputeProgramManager* manager) {
    return std::make_unique<Class>(manager);
}

/// Those with `generateSource(params)` and `programName(params, prefix, x, y, z)`.
template <typename Class>
Programs plain(const char* prefix) {
    return [prefix](Tricks& tricks, const Drawn& drawn) -> std::vector<Program> {
        auto& generator = static_cast<Class&>(tricks);
        TricksParams params = drawn.params;
        const std::string name = generator.programName(params, prefix, params.localSizeX,
                                                       params.localSizeY, params.localSizeZ);
        return {{name, generator.generateSource(params)}};
    };
}

std::vector<Program> constant_index(Tricks& tricks, const Drawn& drawn, const char* prefix) {
    auto& generator = static_cast<Tricks_Constant_index&>(tricks);
    TricksParams params = drawn.params;
    const int x = params.localSizeX, y = params.localSizeY, z = params.localSizeZ;
    ShaderFormat& format = ShaderFormat::instance();
    return {{generator.programName(params, prefix, x, y, z), generator.generateSource(params)},
            {generator.preProgramName(params, x, y, z), format.constant_index_pre(params)},
            {generator.postProgramName(params, x, y, z), format.constant_index_post(params)}};
}

Programs three_passes(const char* prefix) {
    return [prefix](Tricks& tricks, const Drawn& drawn) {
        return constant_index(tricks, drawn, prefix);
    };
}

Programs element_wise(const char* prefix, int operation) {
    return [=](Tricks& tricks, const Drawn& drawn) -> std::vector<Program> {
        auto& generator = static_cast<Tricks_ElementWise_Operator&>(tricks);
        TricksParams params = drawn.params;
        // A product has two inputs.
        const int inputs = operation == 0 && drawn.inputs == 3 ? 3 : 2;
        const std::string name = generator.programName(params, prefix, inputs, params.localSizeX,
                                                       params.localSizeY, params.localSizeZ);
        return {{name, generator.generateSource(params, operation, inputs)}};
    };
}

std::vector<Program> concat(Tricks& tricks, const Drawn& drawn) {
    auto& generator = static_cast<Tricks_Concat&>(tricks);
    TricksParams params = drawn.params;
    std::vector<int> channels(static_cast<size_t>(drawn.inputs), params.inChannels);
    channels.back() = params.outChannels;
    const std::string name = generator.programName(params, channels, params.localSizeX,
                                                   params.localSizeY, params.localSizeZ);
    return {{name, generator.generateSource(params, channels)}};
}

std::vector<Program> bilinear(Tricks& tricks, const Drawn& drawn) {
    auto& generator = static_cast<Tricks_UpSampling&>(tricks);
    TricksParams params = drawn.params;
    const std::string name = generator.programName(
        params, "UpSampling", drawn.align, params.localSizeX, params.localSizeY, params.localSizeZ);
    return {{name, generator.generateSource(params, drawn.align)}};
}

std::vector<Program> nearest(Tricks& tricks, const Drawn& drawn) {
    auto& generator = static_cast<Tricks_UpSampling_Nearest&>(tricks);
    TricksParams params = drawn.params;
    const std::string name =
        generator.programName(params, "UpSampling_Nearest", drawn.scale, params.localSizeX,
                              params.localSizeY, params.localSizeZ);
    return {{name, generator.generateSource(params, drawn.scale)}};
}

std::vector<Program> region(Tricks& tricks, const Drawn& drawn) {
    auto& generator = static_cast<Tricks_Region2D&>(tricks);
    TricksParams params = drawn.params;
    const int slices = ((drawn.classes + drawn.coords + 1) * drawn.anchors + 3) / 4;
    const std::string name = generator.programName(params.localSizeX, params.localSizeY, slices,
                                                   drawn.anchors, drawn.classes, drawn.coords);
    return {{name, generator.generateSource(params, slices)}};
}

#define BASIC(k, w, h)                                                            \
    {                                                                             \
        "Tricks_Conv2d_" #k "_Basic", "I am Tricks_Conv2d_Basic_" #k ".",         \
            &make<Tricks_Conv2d_##k##_Basic>, w, h, plain<Tricks_Basic>("Conv2D") \
    }
#define CONSTANT_INDEX(k, w, h)                                                                    \
    {                                                                                              \
        "Tricks_Conv2d_" #k "_CI", "I am Tricks_Conv2d_CI_" #k ".", &make<Tricks_Conv2d_##k##_CI>, \
            w, h, three_passes("Conv2D")                                                           \
    }
#define TRANSPOSED(k, w, h)                                                                 \
    {"Tricks_Transpose_Conv2d_" #k "_Basic",                                                \
     "I am Tricks_Transpose_Conv2d_Basic_" #k ".",                                          \
     &make<Tricks_Transpose_Conv2d_##k##_Basic>,                                            \
     w,                                                                                     \
     h,                                                                                     \
     plain<Tricks_Basic>("Transpose_Conv2D")},                                              \
    {                                                                                       \
        "Tricks_Transpose_Conv2d_" #k "_CI", "I am Tricks_Transpose_Conv2d_CI_" #k ".",     \
            &make<Tricks_Transpose_Conv2d_##k##_CI>, w, h, three_passes("Transpose_Conv2D") \
    }
#define POINTS(k)                                                                                \
    {                                                                                            \
        "Tricks_Conv2d_1x1_" #k, "I am Tricks_Conv2d_1x1_" #k ".", &make<Tricks_Conv2d_1x1_##k>, \
            1, 1, plain<Tricks_Conv2d_1x1_Points>("Conv2D")                                      \
    }

const std::vector<Generator>& generators() {
    static const char* const depthwise = "Depthwise convolution 3x3 layer.";
    static const char* const sum_or_product = "ElementWise_Operator layer";
    static const std::vector<Generator> list = {
        {"Tricks_Basic", "I am Tricks_Conv2d_Basic.", &make<Tricks_Basic>},
        {"Tricks_Constant_index", "I am Tricks_Conv2d_CI.", &make<Tricks_Constant_index>},
        BASIC(1x1, 1, 1),
        BASIC(1x3, 3, 1),
        BASIC(3x1, 1, 3),
        BASIC(3x3, 3, 3),
        BASIC(4x4, 4, 4),
        BASIC(1x5, 5, 1),
        BASIC(5x1, 1, 5),
        BASIC(5x5, 5, 5),
        BASIC(1x7, 7, 1),
        BASIC(7x1, 1, 7),
        CONSTANT_INDEX(1x1, 1, 1),
        CONSTANT_INDEX(1x3, 3, 1),
        CONSTANT_INDEX(3x1, 1, 3),
        CONSTANT_INDEX(3x3, 3, 3),
        CONSTANT_INDEX(1x5, 5, 1),
        CONSTANT_INDEX(5x1, 1, 5),
        CONSTANT_INDEX(5x5, 5, 5),
        CONSTANT_INDEX(1x7, 7, 1),
        CONSTANT_INDEX(7x1, 1, 7),
        POINTS(4PointsOut),
        POINTS(4Points_2Slice),
        POINTS(4Points_4Slice),
        TRANSPOSED(3x3, 3, 3),
        TRANSPOSED(2x2, 2, 2),
        TRANSPOSED(1x7, 7, 1),
        {"Tricks_Depthwise_Conv2d_3x3", depthwise, &make<Tricks_Depthwise_Conv2d_3x3>, 3, 3,
         plain<Tricks_Depthwise_Conv2d>("")},
        {"Tricks_Depthwise_conv2d_3x3_4PointsOut", depthwise,
         &make<Tricks_Depthwise_conv2d_3x3_4PointsOut>, 3, 3, plain<Tricks_Depthwise_Conv2d>("")},
        {"Tricks_DepthWise_conv2d_3x3_4PointsOut_WeightBiasAccessWithUvec2", depthwise,
         &make<Tricks_DepthWise_conv2d_3x3_4PointsOut_WeightBiasAccessWithUvec2>, 3, 3,
         plain<Tricks_Depthwise_Conv2d>("")},
        {"Tricks_Depthwise_Conv2d_5x5", nullptr, &make<Tricks_Depthwise_Conv2d_5x5>, 5, 5,
         plain<Tricks_Depthwise_Conv2d>("")},
        {"Tricks_Group_Conv2d_3x3_Basic", "I am Tricks_Group_Conv2d_Basic_3x3.",
         &make<Tricks_Group_Conv2d_3x3_Basic>, 3, 3,
         plain<Tricks_Group_Conv2d_3x3_Basic>("Group_Conv2D")},
        {"Tricks_ElementWise_Add", sum_or_product, &make<Tricks_ElementWise_Add>, 0, 0,
         element_wise("Add", 0)},
        {"Tricks_ElementWise_Mul", sum_or_product, &make<Tricks_ElementWise_Mul>, 0, 0,
         element_wise("Mul", 2)},
        {"Tricks_ElementWise_Add_1Points_2Slice", sum_or_product,
         &make<Tricks_ElementWise_Add_1Points_2Slice>, 0, 0, element_wise("ElementWise_Add", 0)},
        {"Tricks_ElementWise_Add_4Points_1Slice", sum_or_product,
         &make<Tricks_ElementWise_Add_4Points_1Slice>, 0, 0, element_wise("ElementWise_Add", 0)},
        {"Tricks_ElementWise_Add_4Points_2Slice", sum_or_product,
         &make<Tricks_ElementWise_Add_4Points_2Slice>, 0, 0, element_wise("ElementWise_Add", 0)},
        {"Tricks_Concat", "Concat layer", &make<Tricks_Concat>, 0, 0, concat},
        {"Tricks_Activation", "Activation layer", &make<Tricks_Activation>, 0, 0,
         plain<Tricks_Activation>("Activation")},
        {"Tricks_Pooling_Max", "Pooling layer", &make<Tricks_Pooling_Max>, 0, 0,
         plain<Tricks_Pooling>("Max")},
        {"Tricks_Pooling_Avg", "Pooling layer", &make<Tricks_Pooling_Avg>, 0, 0,
         plain<Tricks_Pooling>("Avg")},
        {"Tricks_PixelShuffle_DownSampling", "PixelShuffle layer",
         &make<Tricks_PixelShuffle_DownSampling>},
        {"Tricks_PixelShuffle_UpSampling", "PixelShuffle layer",
         &make<Tricks_PixelShuffle_UpSampling>},
        {"Tricks_UpSampling", nullptr, &make<Tricks_UpSampling>, 0, 0, bilinear},
        {"Tricks_UpSampling_Nearest", nullptr, &make<Tricks_UpSampling_Nearest>, 0, 0, nearest},
        {"Tricks_Region2D", "I am Tricks_Region2D.", &make<Tricks_Region2D>, 0, 0, region},
        {"Tricks_TensorReshape", "reshape layer", &make<Tricks_TensorReshape>},
        {"Tricks_TensorSqueeze", "squeeze layer", &make<Tricks_TensorSqueeze>},
        {"Tricks_FullConnection", nullptr, &make<Tricks_FullConnection>},
        {"Tricks_Benchmark_Single_Layer", nullptr, &make<Tricks_Benchmark_Single_Layer>},
    };
    return list;
}

class AllGenerators : public testing::Test {
protected:
    ComputeProgramManager manager{0, "test"};
};

TEST_F(AllGenerators, AreListedHere) {
    std::set<std::string> listed;
    for (const Generator& each : generators()) listed.insert(each.name);
    // Bases that no object is made of.
    for (const char* base :
         {"Tricks_Conv2d_1x1_Points", "Tricks_Depthwise_Conv2d", "Tricks_ElementWise_Operator",
          "Tricks_ElementWise_Add_Points", "Tricks_Pooling", "Tricks_PixelShuffle"}) {
        listed.insert(base);
    }
    std::set<std::string> declared;
    const std::string declaration = "class TESK_TESTED Tricks_";
    const std::string folder = TARNO_SOURCE_DIR "/gpu/opengl/glcnn/src/tesk/tricks";
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        if (entry.path().extension() != ".h") continue;
        std::ifstream file(entry.path());
        std::string line;
        while (std::getline(file, line)) {
            if (line.compare(0, declaration.size(), declaration) != 0) continue;
            const size_t name = line.find("Tricks_");
            declared.insert(line.substr(name, line.find_first_of(" :{", name) - name));
        }
    }
    EXPECT_EQ(declared, listed);
}

TEST_F(AllGenerators, LogTheirLineAtVerboseLevelOrNone) {
    for (const Generator& each : generators()) {
        const std::unique_ptr<Tricks> generator = each.make(&manager);
        const LogRecorder log;
        generator->print();
        if (each.printed == nullptr) {
            EXPECT_TRUE(log.lines.empty()) << each.name;
            continue;
        }
        ASSERT_EQ(log.lines.size(), 1u) << each.name;
        EXPECT_EQ(log.lines[0].text, each.printed) << each.name;
        EXPECT_EQ(log.lines[0].level, Tarno::LogLevel::Verbose) << each.name;
        EXPECT_EQ(log.lines[0].tag, "Tarno") << each.name;
    }
}

TEST_F(AllGenerators, TheBasesOfConvolutionsRefuseEveryRecordAndHaveNoSource) {
    TricksParams params;
    EXPECT_EQ(Tricks_Basic(&manager).generateSource(params), "");
    EXPECT_EQ(Tricks_Constant_index(&manager).generateSource(params), "");
    ZQLayerInfo_Conv2D record;
    record.id = 7;
    record.kernel_w = record.kernel_h = 3;
    const LogRecorder log;
    Tricks_Basic(&manager).setup(&record);
    Tricks_Constant_index(&manager).setup(&record);
    ASSERT_EQ(log.lines.size(), 2u);
    for (const LogRecorder::Line& line : log.lines)
        EXPECT_EQ(line.text, "layer 7 (Conv2D): expected a kernel of 0 x 0, found 3 x 3");
    EXPECT_EQ(manager.setupCosts.programsMade, 0);
}

// Names -------------------------------------------------------------------------------------------

/// A number of a layer, and how it is set to one of a few values.
struct Axis {
    const char* name;
    std::vector<int> values;
    void (*set)(Drawn&, int);
};

const std::vector<Axis>& axes() {
    static const std::vector<Axis> list = {
        {"input channels", {1, 3, 4, 5, 8, 12}, [](Drawn& d, int v) { d.params.inChannels = v; }},
        {"output channels",
         {1, 3, 4, 5, 8, 12, 16, 24, 32},
         [](Drawn& d, int v) { d.params.outChannels = v; }},
        {"kernel width", {1, 2, 3, 4, 7, 8}, [](Drawn& d, int v) { d.params.kernelWidth = v; }},
        {"kernel height", {2, 3, 4, 7, 8}, [](Drawn& d, int v) { d.params.kernelHeight = v; }},
        {"padding in x", {0, 1, 2}, [](Drawn& d, int v) { d.params.padX = v; }},
        {"padding in y", {0, 1, 2}, [](Drawn& d, int v) { d.params.padY = v; }},
        {"stride in x", {1, 2}, [](Drawn& d, int v) { d.params.strideX = v; }},
        {"stride in y", {1, 2}, [](Drawn& d, int v) { d.params.strideY = v; }},
        {"dilation in x", {1, 2}, [](Drawn& d, int v) { d.params.dilationX = v; }},
        {"dilation in y", {1, 2}, [](Drawn& d, int v) { d.params.dilationY = v; }},
        {"bias", {0, 1}, [](Drawn& d, int v) { d.params.hasBias = v; }},
        {"activation",
         {0, 2, 3, 4, 6, 7, 8},
         [](Drawn& d, int v) { d.params.activation = static_cast<int16_t>(v); }},
        {"uniform block", {0, 4096}, [](Drawn& d, int v) { d.params.uboWeightCount = v; }},
        {"local size in x", {4, 8}, [](Drawn& d, int v) { d.params.localSizeX = v; }},
        {"local size in y", {4, 8}, [](Drawn& d, int v) { d.params.localSizeY = v; }},
        {"inputs", {2, 3, 5}, [](Drawn& d, int v) { d.inputs = v; }},
        {"alignment", {0, 1}, [](Drawn& d, int v) { d.align = v; }},
        {"scale", {1, 2, 3, 4, 8}, [](Drawn& d, int v) { d.scale = static_cast<float>(v); }},
        {"anchors", {1, 5}, [](Drawn& d, int v) { d.anchors = v; }},
        {"classes", {1, 6}, [](Drawn& d, int v) { d.classes = v; }},
        {"coordinates", {4, 5}, [](Drawn& d, int v) { d.coords = v; }},
    };
    return list;
}

/// The numbers that follow from others, and what the class alone decides.
void complete(Drawn& drawn, const Generator& generator) {
    TricksParams& params = drawn.params;
    params.localSizeZ = 1;
    if (generator.kernel_w != 0) {
        params.kernelWidth = generator.kernel_w;
        params.kernelHeight = generator.kernel_h;
    }
    params.inSlices = (params.inChannels + 3) / 4;
    params.inSliceStride = params.kernelWidth * params.kernelHeight * 2;
    params.outSliceStride = params.inSlices * params.inSliceStride;
    const int slices = (params.outChannels + 3) / 4;
    params.slicesPerDispatch = slices % 4 == 0 ? 4 : slices % 3 == 0 ? 3 : slices % 2 == 0 ? 2 : 1;
    const std::string name = generator.name;
    if (name.find("Group") != std::string::npos) {
        // Four to four channels each, in as many groups as the input has slices.
        params.groups = params.inSlices;
        params.inChannels = params.outChannels = 4 * params.inSlices;
    } else if (name.find("epth") != std::string::npos) {
        params.inChannels = params.outChannels;
        const int taps = params.kernelWidth * params.kernelHeight;
        if (params.uboWeightCount > 0) params.uboWeightCount = taps * slices;
    } else if (name.find("ElementWise") != std::string::npos ||
               name.find("Activation") != std::string::npos ||
               name.find("Pooling") != std::string::npos ||
               name.find("UpSampling") != std::string::npos) {
        params.outChannels = params.inChannels;
    }
}

/// Names leave these out, and have to stay: documented beside the generators.
bool is_left_out(const std::string& generator, const std::string& axis) {
    const auto is = [&](const char* part) { return generator.find(part) != std::string::npos; };
    const bool padding = axis.find("padding") != std::string::npos;
    return padding && (is("epth") || is("Pooling") || is("Conv2d_1x1_4Points"));
}

/// What one generator makes of random layers, and of their neighbours along each axis.
class Variations {
public:
    Variations(const Generator& generator, ComputeProgramManager& manager)
        : generator(generator), tricks(generator.make(&manager)) {}

    /// `visit(axis, before, after)` for each pair of layers that differ in one number.
    template <typename Visit>
    void each_pair(const Visit& visit) {
        constexpr int layers = 12;
        std::mt19937 numbers(1);
        for (int i = 0; i < layers; ++i) {
            Drawn drawn;
            for (const Axis& axis : axes())
                axis.set(drawn, axis.values[numbers() % axis.values.size()]);
            const std::vector<Program> before = made(drawn);
            for (const Axis& axis : axes()) {
                for (const int value : axis.values) {
                    Drawn other = drawn;
                    axis.set(other, value);
                    visit(std::string(axis.name), before, made(other));
                }
            }
        }
    }

private:
    std::vector<Program> made(Drawn drawn) {
        complete(drawn, generator);
        const LogRecorder unsupported_codes_and_windows;
        return generator.programs(*tricks, drawn);
    }

    const Generator& generator;
    std::unique_ptr<Tricks> tricks;
};

TEST_F(AllGenerators, NamesEndInProgramAndTellSourcesOfOneClassApart) {
    for (const Generator& each : generators()) {
        if (each.programs == nullptr) continue;
        std::set<std::string> left_out;
        int told_apart = 0;
        Variations(each, manager)
            .each_pair([&](const std::string& axis, const std::vector<Program>& before,
                           const std::vector<Program>& after) {
                ASSERT_EQ(before.size(), after.size());
                for (size_t i = 0; i < before.size(); ++i) {
                    const std::string& name = after[i].name;
                    const std::string end = "_program";
                    ASSERT_GT(name.size(), end.size()) << each.name;
                    EXPECT_EQ(name.substr(name.size() - end.size()), end) << each.name;
                    if (before[i].source == after[i].source) continue;
                    if (before[i].name != after[i].name) {
                        ++told_apart;
                    } else if (is_left_out(each.name, axis)) {
                        left_out.insert(axis);
                    } else {
                        ADD_FAILURE() << each.name << ": two sources under " << name << ", which "
                                      << axis << " tells apart";
                    }
                }
            });
        EXPECT_GT(told_apart, 0) << each.name;
        // The list of what is left out holds no more than it has to.
        const std::set<std::string> expected =
            is_left_out(each.name, "padding")
                ? std::set<std::string>{"padding in x", "padding in y"}
                : std::set<std::string>{};
        EXPECT_EQ(left_out, expected) << each.name;
    }
}

TEST_F(AllGenerators, NamesTellClassesApartButForTheTwoFourPointFormsOfDepthwise) {
    std::map<std::string, std::pair<std::string, std::string>> kept;  // name: class, source
    std::set<std::string> sharing;
    for (const Generator& each : generators()) {
        if (each.programs == nullptr) continue;
        // Of one class, the first source of each name stands for the others: see above.
        std::map<std::string, std::string> own;
        Variations(each, manager)
            .each_pair([&](const std::string&, const std::vector<Program>&,
                           const std::vector<Program>& after) {
                for (const Program& program : after) own.emplace(program.name, program.source);
            });
        for (const auto& [name, source] : own) {
            const auto [at, is_new] = kept.emplace(name, std::make_pair(each.name, source));
            if (!is_new && at->second.second != source)
                sharing.insert(at->second.first + " and " + each.name);
        }
    }
    EXPECT_EQ(sharing, (std::set<std::string>{
                           "Tricks_Depthwise_conv2d_3x3_4PointsOut and "
                           "Tricks_DepthWise_conv2d_3x3_4PointsOut_WeightBiasAccessWithUvec2"}));
    EXPECT_GT(kept.size(), 2000u);
}

TEST_F(AllGenerators, NamesOfNearestEnlargingCutTheScaleToAWholeNumber) {
    // 4 makes sixteen stores, 4.5 makes four: the first of the two serves both.
    Tricks_UpSampling_Nearest generator(&manager);
    TricksParams params;
    params.inChannels = params.outChannels = 8;
    const auto name = [&](float scale) {
        return generator.programName(params, "UpSampling_Nearest", scale, 8, 8, 1);
    };
    EXPECT_EQ(name(4.0f), name(4.5f));
    EXPECT_NE(generator.generateSource(params, 4.0f), generator.generateSource(params, 4.5f));
    EXPECT_NE(name(4.0f), name(2.0f));
}

TEST_F(AllGenerators, AConcatOfAnUnsupportedCountHasNoNameAndNoSource) {
    Tricks_Concat generator(&manager);
    TricksParams params;
    for (const size_t count : {0, 1, 4, 6}) {
        const std::vector<int> channels(count, 8);
        EXPECT_EQ(generator.programName(params, channels, 8, 8, 1), "") << count;
        EXPECT_EQ(generator.generateSource(params, channels), "") << count;
    }
}

}  // namespace
