// Whether the comparison of both engines catches what it is for: one element a little beyond its
// bound, one input read wrongly, and elements of which nothing can be said.
#include <gtest/gtest.h>
#include <modelkit/net_builder.h>

#include <cmath>
#include <functional>
#include <limits>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "gpu/opengl/glcnn/src/tesk/layers/create_operator.h"
#include "gpu/opengl/glcnn/src/tesk/operator.h"
#include "support/both_engines.h"
#include "support/gl_fixture.h"
#include "support/temporary_file.h"
#include "tools/layer_judgement.h"

namespace {

using modelkit::NetBuilder;
using modelkit::Window;
using namespace testing_support;

constexpr float infinity = std::numeric_limits<float>::infinity();
const float no_number = std::nanf("");

TEST(LayerJudgement, TakesTheElementNearestToItsBound) {
    const tool::EnginePair pair = {{1, 1, 3}, {1.0f, 2.0f, 3.0f}, {1.0f, 2.5f, 3.25f}};
    const tool::Judgement judgement = tool::judge(pair, {0.5f, 1.0f, 1.0f});
    EXPECT_EQ(judgement.share_of_bound, 0.5);
    EXPECT_EQ(judgement.worst, 1u);
    EXPECT_EQ(judgement.worst_difference, 0.5);
    EXPECT_EQ(judgement.worst_bound, 1.0);
    EXPECT_TRUE(judgement.agrees());
    EXPECT_TRUE(tool::judge(pair, {0.5f, 0.5f, 0.25f}).agrees()) << "at the bound";
    EXPECT_TRUE(tool::judge(pair, {0.5f, 0.49f, 1.0f}).beyond());
}

TEST(LayerJudgement, AnElementWithoutABoundIsCountedAndNoPass) {
    const tool::EnginePair pair = {{1, 1, 3}, {1.0f, 2.0f, 3.0f}, {1.0f, 9.0f, 3.0f}};
    for (const float bound : {infinity, no_number}) {
        const tool::Judgement judgement = tool::judge(pair, {1.0f, bound, bound});
        EXPECT_EQ(judgement.unbounded, 2u);
        EXPECT_EQ(judgement.first_unbounded, 1u);
        EXPECT_FALSE(judgement.beyond());
        EXPECT_FALSE(judgement.agrees());
    }
}

TEST(LayerJudgement, AnElementBeyondItsBoundIsFoundBesideThoseWithoutOne) {
    const tool::EnginePair pair = {{1, 1, 3}, {1.0f, 2.0f, 3.0f}, {1.0f, 9.0f, 4.0f}};
    for (const float bound : {infinity, no_number}) {
        const tool::Judgement judgement = tool::judge(pair, {1.0f, bound, 0.5f});
        EXPECT_TRUE(judgement.beyond());
        EXPECT_EQ(judgement.worst, 2u);
        EXPECT_EQ(judgement.unbounded, 1u);
    }
}

TEST(LayerJudgement, AnEngineThatAloneHasNoNumberIsBeyondEveryBound) {
    for (const float gpu : {infinity, -infinity, no_number}) {
        const tool::EnginePair pair = {{1, 1, 1}, {1.0f}, {gpu}};
        EXPECT_TRUE(tool::judge(pair, {1e30f}).beyond()) << gpu;
    }
}

/// A net behind an input that holds what is no number, or lies beyond the range of halves.
class WithoutABound : public testing::Test {
protected:
    static constexpr int side = 4;

    static NetBuilder builder() {
        modelkit::ModelHeader header;
        header.base_w = header.base_h = side;
        return NetBuilder(header);
    }
    /// Ones, but for the element in the second row and column.
    static tool::EnginePair plane(float cpu, float gpu) {
        tool::EnginePair pair = {{1, side, side}, std::vector<float>(side * side, 1.0f), {}};
        pair.gpu = pair.cpu;
        pair.cpu[side + 1] = cpu;
        pair.gpu[side + 1] = gpu;
        return pair;
    }
    /// How many elements of a layer on such an input have no bound. Its own output is all ones.
    static size_t unbounded(NetBuilder& net, int layer, float cpu, float gpu) {
        const tool::EnginePair bottom = plane(cpu, gpu);
        const NetBuilder::Size size = net.size(layer);
        tool::EnginePair top;
        top.size = {size.channels, size.height, size.width};
        top.cpu.assign(static_cast<size_t>(size.channels * size.height * size.width), 1.0f);
        top.gpu = top.cpu;
        const std::vector<const tool::EnginePair*> bottoms(3, &bottom);
        const std::vector<const tool::EnginePair*> taken(
            bottoms.begin(), bottoms.begin() + net.record(layer)->bottom_count);
        return tool::judge(top, tool::explained_difference(*net.record(layer), taken, top, {}))
            .unbounded;
    }
};

TEST_F(WithoutABound, AreTheElementsThatReadWhatIsNoNumberOnEitherEngine) {
    NetBuilder net = builder();
    const int in = net.input(1);
    const int maximum = net.pooling(in, 1, 3, 1, 1);
    const int average = net.pooling(in, 0, 3, 1, 1);
    const int conv = net.conv(in, 1, 3, 1, 1);
    const int depthwise = net.depthwise(in, 3, 1, 1);
    const int relu = net.activation(in, ActivationType_ReLU);
    const int sum = net.eltwise({in, in});
    const int product = net.eltwise({in, in}, 2);
    const int nearest = net.upsampling(in, 2, 0);
    const float values[][2] = {{no_number, no_number},
                               {1.0f, no_number},
                               {no_number, 1.0f},
                               {1.0f, infinity},
                               {-infinity, 1.0f}};
    for (const auto& [cpu, gpu] : values) {
        EXPECT_EQ(unbounded(net, maximum, cpu, gpu), 9u) << cpu << ", " << gpu;
        EXPECT_EQ(unbounded(net, average, cpu, gpu), 9u) << cpu << ", " << gpu;
        EXPECT_EQ(unbounded(net, conv, cpu, gpu), 9u) << cpu << ", " << gpu;
        EXPECT_EQ(unbounded(net, depthwise, cpu, gpu), 9u) << cpu << ", " << gpu;
        EXPECT_EQ(unbounded(net, relu, cpu, gpu), 1u) << cpu << ", " << gpu;
        EXPECT_EQ(unbounded(net, sum, cpu, gpu), 1u) << cpu << ", " << gpu;
        EXPECT_EQ(unbounded(net, product, cpu, gpu), 1u) << cpu << ", " << gpu;
        EXPECT_EQ(unbounded(net, nearest, cpu, gpu), 4u) << cpu << ", " << gpu;
    }
    EXPECT_EQ(unbounded(net, conv, 1.0f, 1.0f), 0u);
}

TEST_F(WithoutABound, AreOutputsThatHalvesDoNotHold) {
    for (const float value : {65505.0f, -65520.0f, infinity, no_number}) {
        const tool::EnginePair input = plane(value, value);
        const tool::Judgement judgement =
            tool::judge(input, tool::explained_input_difference(input));
        EXPECT_EQ(judgement.unbounded, 1u) << value;
        EXPECT_EQ(judgement.first_unbounded, 5u) << value;
    }
    const tool::EnginePair input = plane(65503.0f, 65472.0f);
    EXPECT_TRUE(tool::judge(input, tool::explained_input_difference(input)).agrees());
}

// Each kind of layer that is judged ---------------------------------------------------------------

struct Judged {
    const char* name;
    std::function<void(NetBuilder&)> build;  ///< the last layer is the one in question
    tool::GpuOptions gpu;
};

class EachJudgedKind : public GpuTest, public testing::WithParamInterface<Judged> {
protected:
    static constexpr int side = 8;
    static constexpr unsigned int seed = 5;

    void SetUp() override {
        GpuTest::SetUp();
        manager.initProgramBinary(tesk::BinFileInfo{}, &manager);
        manager.netWidth = side;
        manager.netHeight = side;
        manager.tricksMode = GetParam().gpu.tricks_mode;
        manager.uboSliceLimit = GetParam().gpu.ubo_slice_limit;
        modelkit::ModelHeader header;
        header.base_w = header.base_h = side;
        NetBuilder net(header);
        GetParam().build(net);
        last = net.count() - 1;
        std::vector<unsigned char> bytes;
        const modelkit::Status status = net.write(bytes);
        ASSERT_TRUE(status.ok()) << status.message();
        file = std::make_unique<TemporaryFile>(bytes);
        ASSERT_TRUE(loader.LoadFile(file->path(), false));
        pairs = run_both_engines(file->path(), pool, manager, seed);
        ASSERT_EQ(pairs.size(), static_cast<size_t>(net.count()));
    }

    const ZQLayerInfo& record(int id) const { return *loader.getLayersInfo().at(id); }
    std::vector<float> bound(int id, const EnginePairs& of) const {
        return bound_of(record(id), of, GetParam().gpu);
    }

    std::unique_ptr<TemporaryFile> file;
    ZQNetLoader loader;
    EnginePairs pairs;
    int last = 0;
};

TEST_P(EachJudgedKind, AgreesAndNoElementMayBeALittleBeyondItsBound) {
    for (int id = 0; id <= last; ++id)
        expect_judged_to_agree("layer " + std::to_string(id), pairs.at(id), bound(id, pairs));
    const tool::EnginePair& clean = pairs.at(last);
    EXPECT_EQ(tool::unlike_reason(record(last), clean.size, clean.size), std::nullopt);
    ASSERT_FALSE(clean.cpu.empty());
    const std::vector<float> limits = bound(last, pairs);
    EnginePairs disturbed = pairs;
    tool::EnginePair& output = disturbed.at(last);
    for (size_t i = 0; i < clean.gpu.size(); ++i) {
        for (const double factor : {1.01, -1.01, 0.99, -0.99}) {
            output.gpu[i] = static_cast<float>(static_cast<double>(clean.cpu[i]) +
                                               factor * static_cast<double>(limits[i]));
            // What the GPU engine made of the layer is no part of its bound.
            if (i == 0) {
                ASSERT_EQ(bound(last, disturbed), limits);
            }
            const tool::Judgement judgement = tool::judge(output, limits);
            const bool caught = std::fabs(factor) > 1.0;
            ASSERT_EQ(judgement.beyond(), caught) << "element " << i << ", " << factor;
            if (!caught) continue;
            ASSERT_EQ(judgement.worst, i);
        }
        output.gpu[i] = clean.gpu[i];
    }
}

TEST_P(EachJudgedKind, OneInputThatAnEngineReadsWronglyIsCaught) {
    if (record(last).bottom_count == 0) return;  // nothing stands between it and its store
    // A quarter more than the largest number that there is, in the middle of the first channel.
    RunHooks hooks;
    hooks.misread = [](std::vector<float>& values) {
        values[values.size() > side * side ? side * side / 2 + side / 2 : 0] = 1.25f;
    };
    const EnginePairs faulty = run_both_engines(file->path(), pool, manager, seed, hooks);
    // What the layers before did with it is not held against the last one.
    EnginePairs judged = pairs;
    judged.at(last).gpu = faulty.at(last).gpu;
    const tool::Judgement judgement = tool::judge(judged.at(last), bound(last, judged));
    EXPECT_TRUE(judgement.beyond()) << "at most " << judgement.share_of_bound << " of the bound";
    EXPECT_EQ(judgement.unbounded, 0u);
    RecordProperty("share_of_bound", std::to_string(judgement.share_of_bound));
}

constexpr tool::GpuOptions constant_indices = {0, 0};
constexpr tool::GpuOptions uniform_blocks = {4, 4};

const Judged kinds[] = {
    {"Input", [](NetBuilder& n) { n.input(5); }, {}},
    {"TensorInput",
     [](NetBuilder& n) {
         n.tensor_input({1, 8});
     },
     {}},
    {"Conv2D", [](NetBuilder& n) { n.conv(n.input(5), 6, 3, 1, 1); }, {}},
    {"Conv2DInUniformBlocks", [](NetBuilder& n) { n.conv(n.input(5), 6, 3, 1, 1); },
     uniform_blocks},
    {"Conv2DAtConstantIndices", [](NetBuilder& n) { n.conv(n.input(5), 8, 5, 1, 2); },
     constant_indices},
    {"Conv2DWithTanh",
     [](NetBuilder& n) { n.conv(n.input(5), 6, 3, 1, 1, ActivationType_Tanh); },
     {}},
    {"Conv2DWithSigmoid",
     [](NetBuilder& n) { n.conv(n.input(5), 6, 1, 1, 0, ActivationType_Sigmoid); },
     {}},
    {"Conv2DOfFourPoints", [](NetBuilder& n) { n.conv(n.input(5), 6, 1, 1, 0); }, constant_indices},
    {"Conv2DTranspose", [](NetBuilder& n) { n.deconvolution(n.input(5), 6, 3, 2, 1); }, {}},
    {"DepthWiseConv2D", [](NetBuilder& n) { n.depthwise(n.input(5), 3, 1, 1); }, {}},
    {"DepthWiseConv2D5x5", [](NetBuilder& n) { n.depthwise(n.input(5), 5, 2, 2); }, {}},
    {"MaximumPooling", [](NetBuilder& n) { n.pooling(n.input(5), 1, 2, 2); }, {}},
    {"AveragePooling", [](NetBuilder& n) { n.pooling(n.input(5), 0, 2, 2); }, {}},
    {"SumOfTwo",
     [](NetBuilder& n) {
         const int in = n.input(5);
         n.eltwise({in, n.conv(in, 5, 1, 1, 0)});
     },
     {}},
    {"SumOfThree",
     [](NetBuilder& n) {
         const int in = n.input(5);
         const int a = n.conv(in, 5, 1, 1, 0);
         n.eltwise({in, a, n.conv(in, 5, 1, 1, 0)});
     },
     {}},
    {"Product",
     [](NetBuilder& n) {
         const int in = n.input(5);
         n.eltwise({in, n.conv(in, 5, 1, 1, 0)}, 2);
     },
     {}},
    {"Concatenate",
     [](NetBuilder& n) {
         const int in = n.input(8);
         n.concat({in, n.conv(in, 4, 1, 1, 0), in});
     },
     {}},
    {"PixelShuffleUp", [](NetBuilder& n) { n.pixel_shuffle(n.input(8), 2.0); }, {}},
    {"PixelShuffleDown", [](NetBuilder& n) { n.pixel_shuffle(n.input(2), 0.5); }, {}},
    {"NearestUpsampling", [](NetBuilder& n) { n.upsampling(n.input(5), 2, 0); }, {}},
    {"BilinearUpsampling", [](NetBuilder& n) { n.upsampling(n.input(5), 2, 1); }, {}},
    {"AlignedUpsampling", [](NetBuilder& n) { n.upsampling(n.input(5), 4, 1, 1); }, {}},
    {"ReLU", [](NetBuilder& n) { n.activation(n.input(5), ActivationType_ReLU); }, {}},
    {"ReLU6", [](NetBuilder& n) { n.activation(n.input(5), ActivationType_ReLU6); }, {}},
    {"Sigmoid", [](NetBuilder& n) { n.activation(n.input(5), ActivationType_Sigmoid); }, {}},
    {"TensorReshape",
     [](NetBuilder& n) {
         const int flat = n.reshape(n.input(8, 0.25, 0.25), {1, 8 * 2 * 2});
         // A relative shape leaves none in the record.
         tensor28& in = static_cast<ZQFreezedLayerInfo*>(n.record(flat))->in_tensors[0];
         in.rank = 3;
         in.dims[0] = 8;
         in.dims[1] = in.dims[2] = 2;
     },
     {}},
    {"FullConnection",
     [](NetBuilder& n) {
         n.fully_connected(n.tensor_input({1, 16}), 16, 8);
     },
     {}},
};

TEST(JudgedKinds, AreThoseThatBothEnginesHaveAndMeanAlike) {
    tesk::ComputeProgramManager manager(0, "test");
    std::set<int> without;
    for (int code = 0; code <= 27; ++code) {
        const auto op = tesk::createOperator(code, &manager);
        if (op == nullptr) continue;
        bool found = false;
        for (const Judged& kind : kinds) {
            NetBuilder net;
            kind.build(net);
            found = found || op->takes(*net.record(net.count() - 1));
        }
        if (!found) without.insert(code);
    }
    // The transposed depthwise has no program, region is laid out in two ways, and the CPU engine
    // has no squeeze.
    EXPECT_EQ(without, (std::set<int>{16, 21, 24}));
}

INSTANTIATE_TEST_SUITE_P(Layers, EachJudgedKind, testing::ValuesIn(kinds),
                         [](const auto& tested) { return std::string(tested.param.name); });

}  // namespace
