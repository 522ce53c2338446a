#include <GL/glew.h>
#include <gtest/gtest.h>
#include <modelkit/net_builder.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <string>
#include <vector>

#include "support/gl_fixture.h"
#include "support/gpu_dispatches.h"
#include "support/recorders.h"
#include "support/temporary_file.h"

namespace {

using modelkit::NetBuilder;
using modelkit::Window;
using testing_support::AssertRecorder;
using testing_support::DispatchRecorder;
using testing_support::GpuTest;
using testing_support::LogRecorder;
using testing_support::random_halves;
using testing_support::TemporaryFile;
using testing_support::Tensor;
using Images = std::vector<std::shared_ptr<tesk::Image>>;

modelkit::ModelHeader header_of(unsigned int base_w, unsigned int base_h) {
    modelkit::ModelHeader header;
    header.base_w = base_w;
    header.base_h = base_h;
    return header;
}

size_t lines_with(const LogRecorder& log, const std::string& text) {
    return static_cast<size_t>(std::count_if(
        log.lines.begin(), log.lines.end(),
        [&](const LogRecorder::Line& line) { return line.text.find(text) != std::string::npos; }));
}

/// Hears which operators ran and looks at their outputs while they run.
class Watcher : public tesk::NetObserver {
public:
    struct Call {
        int index;
        int layer;
        bool before;
        unsigned int texture;
        int reads;
    };
    std::vector<Call> calls;

    void beforeOperator(int index, int layer, tesk::Image& output) override {
        calls.push_back({index, layer, true, output.textureId(), output.readCount()});
    }
    void afterOperator(int index, int layer, tesk::Image& output) override {
        calls.push_back({index, layer, false, output.textureId(), output.readCount()});
    }
    std::vector<int> indices() const {
        std::vector<int> list;
        for (const Call& call : calls) {
            if (!call.before) list.push_back(call.index);
        }
        return list;
    }
};

class Net : public GpuTest {
protected:
    /// Base size of the models below.
    static constexpr int side = 16;

    void SetUp() override {
        GpuTest::SetUp();
        manager.netWidth = side;
        manager.netHeight = side;
    }

    static NetBuilder builder() { return NetBuilder(header_of(side, side)); }

    static std::unique_ptr<TemporaryFile> file_of(const NetBuilder& net) {
        std::vector<unsigned char> bytes;
        const modelkit::Status status = net.write(bytes);
        EXPECT_TRUE(status.ok()) << status.message();
        return std::make_unique<TemporaryFile>(bytes);
    }

    bool load(tesk::Net& net, const NetBuilder& builder) {
        return net.loadFromFile(file_of(builder)->path(), &pool, &manager);
    }

    /// `count` activations one behind the other on an input of eight channels.
    static NetBuilder chain(int count) {
        NetBuilder net = builder();
        int last = net.input(8);
        for (int i = 0; i < count; ++i) last = net.activation(last, ActivationType_ReLU);
        return net;
    }

    void feed(tesk::Net& net, int channels = 8, int height = side, int width = side) {
        input = upload(random_halves(channels, height, width, 7));
        Images images = {input};
        net.setInputs(images);
    }

    std::shared_ptr<tesk::Image> input;
};

// Loading -----------------------------------------------------------------------------------------

TEST_F(Net, AFileThatIsNoModelLeavesTheNetEmpty) {
    tesk::Net net;
    const LogRecorder log;
    const AssertRecorder asserts;
    const TemporaryFile file(std::vector<unsigned char>(100, 1));
    EXPECT_FALSE(net.loadFile(file.path()));
    EXPECT_FALSE(net.setupNet(&pool, &manager));
    EXPECT_FALSE(net.loadFromFile("/nowhere", &pool, &manager));
    EXPECT_FALSE(net.ready());
}

TEST_F(Net, AFileThatIsNoModelEmptiesANetThatWasReady) {
    tesk::Net net;
    ASSERT_TRUE(load(net, chain(2)));
    const LogRecorder log;
    const AssertRecorder asserts;
    EXPECT_FALSE(net.loadFile("/nowhere"));
    EXPECT_FALSE(net.ready());
    EXPECT_EQ(net.operatorCount(), 0);
    EXPECT_EQ(net.getFeature(0), nullptr);
    EXPECT_FALSE(net.setupNet(&pool, &manager));
    net.forward();
    EXPECT_EQ(lines_with(log, "Net not ready, please load first."), 1u);
    EXPECT_TRUE(load(net, chain(3)));
    EXPECT_EQ(net.operatorCount(), 3);
}

TEST_F(Net, ALayerWhoseProgramDoesNotLinkIsNamedAndNotDispatched) {
    // ReLU6 of the four-point form of one slice.
    manager.tricksMode = 0;
    NetBuilder model = builder();
    const int bottom = model.activation(model.input(8), ActivationType_ReLU);
    const int top = model.conv(bottom, 4, 1, 1, 0, ActivationType_ReLU6);
    tesk::Net net;
    const LogRecorder log;
    EXPECT_TRUE(load(net, model));
    EXPECT_TRUE(net.ready());
    EXPECT_EQ(lines_with(log, "layer " + std::to_string(top) +
                                  " (Conv2D): expected a program that links, found none"),
              1u);
    EXPECT_EQ(lines_with(log, "layer " + std::to_string(bottom) + " "), 0u);
    feed(net);
    net.forward();
    EXPECT_EQ(net.getOutputImage()->textureId(), 0u);
}

TEST_F(Net, ALayerWhoseGeneratorRefusesItsRecordIsNamedOnceAndTheNetIsReady) {
    NetBuilder model = builder();
    // Four groups of two channels: the generator has groups of four.
    const int top = model.conv(model.input(8), 8, modelkit::Window::square(3, 1, 1), 0, 4);
    tesk::Net net;
    const LogRecorder log;
    EXPECT_TRUE(load(net, model));
    EXPECT_TRUE(net.ready());
    EXPECT_EQ(lines_with(log, "layer " + std::to_string(top) + " (Conv2D): expected"), 1u);
    feed(net);
    net.forward();
    EXPECT_EQ(net.getOutputImage()->textureId(), 0u);
}

TEST_F(Net, HeaderWordsAreCopiedWhenAFileIsLoaded) {
    modelkit::ModelHeader header = header_of(side, side);
    header.gesture_mode = 5;
    header.model_id = 301000001;
    NetBuilder model(header);
    model.activation(model.input(4), ActivationType_ReLU);
    tesk::Net net;
    EXPECT_EQ(net.getGestureMode(), 0u);
    const auto file = file_of(model);
    ASSERT_TRUE(net.loadFile(file->path()));
    EXPECT_EQ(net.getGestureMode(), 5u);
    EXPECT_EQ(net.modelID(), 301000001u);
    EXPECT_FALSE(net.ready());
    EXPECT_TRUE(net.getLayerInfo_fcNet().empty());
}

TEST_F(Net, SetupNetGivesFalseTheSecondTime) {
    const auto file = file_of(chain(2));
    tesk::Net net;
    EXPECT_FALSE(net.setupNet(&pool, &manager)) << "before a file is there";
    ASSERT_TRUE(net.loadFile(file->path()));
    EXPECT_TRUE(net.setupNet(&pool, &manager));
    EXPECT_TRUE(net.ready());
    EXPECT_FALSE(net.setupNet(&pool, &manager));
    EXPECT_TRUE(net.ready());
}

TEST_F(Net, SetupNetWithoutPoolOrManagerIsRefused) {
    const auto file = file_of(chain(1));
    tesk::Net net;
    ASSERT_TRUE(net.loadFile(file->path()));
    const LogRecorder log;
    EXPECT_FALSE(net.setupNet(nullptr, &manager));
    EXPECT_FALSE(net.setupNet(&pool, nullptr));
    EXPECT_TRUE(net.setupNet(&pool, &manager)) << "the file is still there";
}

TEST_F(Net, CopiesShareOneNetwork) {
    tesk::Net net;
    tesk::Net copy(net);
    tesk::Net assigned;
    assigned = net;
    ASSERT_TRUE(load(net, chain(2)));
    EXPECT_TRUE(copy.ready());
    EXPECT_TRUE(assigned.ready());
    EXPECT_EQ(copy.getOutputImage(), net.getOutputImage());
}

TEST_F(Net, ASecondFileAppendsItsOperatorsToThoseOfTheFirst) {
    tesk::Net net;
    ASSERT_TRUE(load(net, chain(2)));
    ASSERT_TRUE(load(net, chain(2)));
    EXPECT_EQ(net.operatorCount(), 4);
    Watcher watcher;
    net.setObserver(&watcher);
    feed(net);
    net.forward();
    EXPECT_EQ(watcher.indices(), (std::vector<int>{0, 1})) << "those behind have no images";
    EXPECT_NE(net.getOutputImage()->textureId(), 0u);
}

// Sizes -------------------------------------------------------------------------------------------

TEST_F(Net, InputsTruncateAndOtherFeaturesRound) {
    NetBuilder model = builder();
    const int in = model.input(4);
    const int top = model.conv(in, 4, 1, 1, 0);
    // 0.975 in a half, times 16: 15.6.
    for (const int id : {in, top}) {
        model.record(id)->out_shape->scale_x = 0x3bcd;
        model.record(id)->out_shape->scale_y = 0x3bcd;
    }
    tesk::Net net;
    ASSERT_TRUE(load(net, model));
    EXPECT_EQ(net.getFeature(in)->width(), 15);
    EXPECT_EQ(net.getFeature(in)->height(), 15);
    EXPECT_EQ(net.getFeature(top)->width(), 16);
    EXPECT_EQ(net.getFeature(top)->height(), 16);
}

TEST_F(Net, SizesComeFromTheTuningWordsForWidthAndHeight) {
    manager.netWidth = 20;
    manager.netHeight = 12;
    tesk::Net net;
    ASSERT_TRUE(load(net, chain(1)));
    EXPECT_EQ(net.getOutputImage()->width(), 20);
    EXPECT_EQ(net.getOutputImage()->height(), 12);
    EXPECT_EQ(net.getOutputImage()->channels(), 8);
}

TEST_F(Net, ASizeThatRoundsTo0FailsTheAssertionAndTheSetup) {
    NetBuilder model = builder();
    const int top = model.conv(model.input(4), 4, 1, 1, 0);
    model.record(top)->out_shape->scale_y = 0x2400;  // 1/64 of 16 pixels
    tesk::Net net;
    const LogRecorder log;
    const AssertRecorder asserts;
    EXPECT_FALSE(load(net, model));
    ASSERT_EQ(asserts.count("h > 0 && w > 0"), 1u);
    EXPECT_EQ(asserts.last().source, "net");
    EXPECT_FALSE(net.ready());
    EXPECT_EQ(lines_with(log, "layer 1"), 1u);
}

TEST_F(Net, SizesThatAreNoNumbersAreNoSizes) {
    for (const unsigned short half : {0x7c00, 0xfc00, 0x7e00}) {
        NetBuilder model = builder();
        const int top = model.conv(model.input(4), 4, 1, 1, 0);
        model.record(top)->out_shape->scale_x = half;
        tesk::Net net;
        const LogRecorder log;
        const AssertRecorder asserts;
        EXPECT_FALSE(load(net, model));
        EXPECT_EQ(asserts.count("h > 0 && w > 0"), 1u);
    }
}

TEST_F(Net, ATensorInputIsASquareOfItsFirstDimension) {
    NetBuilder model = builder();
    model.fully_connected(model.tensor_input({1, 8}), 8, 8);
    manager.initProgramBinary(tesk::BinFileInfo{}, &manager);
    tesk::Net net;
    ASSERT_TRUE(load(net, model));
    EXPECT_EQ(net.getFeature(0)->width(), 1);
    EXPECT_EQ(net.getFeature(0)->height(), 1);
    EXPECT_EQ(net.getFeature(0)->channels(), 8);
    EXPECT_EQ(net.getFeature(1)->width(), 1);
    EXPECT_EQ(net.getFeature(1)->channels(), 8);
}

TEST_F(Net, ASqueezeOnASquareNetHasNoShape) {
    NetBuilder model = builder();
    model.squeeze(model.tensor_input({4, 4}), 0, {4, 8, 2});
    tesk::Net net;
    const LogRecorder log;
    const AssertRecorder asserts;
    EXPECT_FALSE(load(net, model));
    EXPECT_EQ(asserts.count("h > 0 && w > 0"), 1u);
}

TEST_F(Net, ASqueezeLaysItsLongerSideAlongTheNets) {
    const LogRecorder log;
    const AssertRecorder asserts;
    for (const bool wide : {false, true}) {
        manager.netWidth = wide ? 32 : 16;
        manager.netHeight = wide ? 16 : 32;
        NetBuilder model = builder();
        model.squeeze(model.tensor_input({4, 4}), 0, {4, 8, 2});
        tesk::Net net;
        ASSERT_TRUE(load(net, model));
        EXPECT_EQ(net.getOutputImage()->width(), wide ? 8 : 2);
        EXPECT_EQ(net.getOutputImage()->height(), wide ? 2 : 8);
        EXPECT_EQ(net.getOutputImage()->channels(), 4);
    }
}

TEST_F(Net, ARegionHasItsSlicesSideBySideInFourChannels) {
    NetBuilder model = builder();
    const int in = model.input(11 * 2, 0.25, 0.5);
    model.region(in, 2, 4, 6);
    tesk::Net net;
    ASSERT_TRUE(load(net, model));
    EXPECT_EQ(net.getOutputImage()->width(), 4 * 6);
    EXPECT_EQ(net.getOutputImage()->height(), 8);
    EXPECT_EQ(net.getOutputImage()->channels(), 4);
}

// What the tables do not hold
// -----------------------------------------------------------------------

TEST_F(Net, AKindWithoutAnOperatorIsNamedAndRefused) {
    for (const bool behind_another : {false, true}) {
        NetBuilder model = builder();
        int bottom = model.input(8);
        if (behind_another) bottom = model.conv(bottom, 8, 3, 1, 1);
        const int layer = model.batchnorm(bottom);
        tesk::Net net;
        const LogRecorder log;
        EXPECT_FALSE(load(net, model));
        EXPECT_FALSE(net.ready());
        EXPECT_EQ(lines_with(log, "no referenced layer."), 1u);
        EXPECT_EQ(lines_with(log, "layer " + std::to_string(layer) + " (BatchNormalization)"), 1u);
        net.forward();
        EXPECT_EQ(net.operatorCount(), 0);
    }
}

TEST_F(Net, AnUnknownKernelWithoutALayerBeforeIsRefused) {
    NetBuilder model = builder();
    model.conv(model.input(8), 8, 6, 1, 0);
    tesk::Net net;
    const LogRecorder log;
    EXPECT_FALSE(load(net, model));
    EXPECT_EQ(lines_with(log, "layer 1 (Conv2D)"), 1u);
}

TEST_F(Net, AnUnknownKernelBehindALayerOfAnotherKindIsRefused) {
    NetBuilder model = builder();
    model.conv(model.activation(model.input(8), ActivationType_ReLU), 8, 6, 1, 0);
    tesk::Net net;
    const LogRecorder log;
    EXPECT_FALSE(load(net, model));
    EXPECT_EQ(lines_with(log, "layer 2 (Conv2D)"), 1u);
}

TEST_F(Net, AnUnknownKernelBehindAConvolutionSetsThatOneUpAnewAndAppendsItTwice) {
    NetBuilder model = builder();
    const int first = model.conv(model.input(8), 8, 3, 1, 1);
    model.conv(first, 8, 6, 1, 0);
    tesk::Net net;
    const LogRecorder log;
    ASSERT_TRUE(load(net, model));
    EXPECT_EQ(net.operatorCount(), 2);
    EXPECT_EQ(net.operatorLayer(0), 1);
    EXPECT_EQ(net.operatorLayer(1), 2);
    EXPECT_EQ(lines_with(log,
                         "layer 2 (Conv2D): expected a kernel that the engine has an operator "
                         "for, found another; set up as the layer before"),
              1u);
    EXPECT_EQ(lines_with(log, "layer 2 (Conv2D): expected a kernel of 3 x 3, found 6 x 6"), 1u);
    EXPECT_EQ(lines_with(log, "layer 1 "), 0u);
    feed(net);
    Watcher watcher;
    net.setObserver(&watcher);
    const DispatchRecorder dispatches;
    net.forward();
    // One operator at both places, whose generator took the 3x3 record and gave it up for the 6x6
    // one: it runs twice, dispatches nothing, and counts its inputs' reads down all the same.
    EXPECT_EQ(watcher.indices(), (std::vector<int>{0, 1}));
    EXPECT_EQ(dispatches.all(), 0);
    for (const int id : {1, 2}) {
        EXPECT_EQ(net.getFeature(id)->textureId(), 0u) << "layer " << id;
        EXPECT_EQ(net.getFeature(id)->readCount(), 0) << "layer " << id;
    }
    EXPECT_EQ(net.getFeature(0)->readCount(), 1) << "the client's own";
}

TEST_F(Net, AnUnknownKernelBehindADepthwiseLayerLeavesBothPlacesWithTheNumbersOfTheSecond) {
    // This generator reads as many weights as its own kernel has, whatever the record's is.
    constexpr int channels = 8;
    NetBuilder model = builder();
    const int first = model.depthwise(model.input(channels), 3, 1, 1);
    const int second = model.depthwise(first, 7, 1, 3, ActivationType_ReLU);
    const auto& record = static_cast<const ZQLayerInfo_DepthWiseConv2D&>(*model.record(second));
    tesk::Net net;
    const LogRecorder log;
    ASSERT_TRUE(load(net, model));
    EXPECT_EQ(net.operatorCount(), 2);
    EXPECT_EQ(lines_with(log, "layer 2 (DepthWiseConv2D): expected a kernel"), 1u);
    feed(net, channels);
    net.getFeature(first)->addReadCount();
    net.forward();
    const auto expect_from = [&](const Tensor& in, int id) {
        const Tensor out = read_back(*net.getFeature(id));
        for (int c = 0; c < channels; ++c) {
            for (int y = 0; y < side; ++y) {
                for (int x = 0; x < side; ++x) {
                    double sum = static_cast<double>(record.bias[c]);
                    double magnitude = std::fabs(sum);
                    for (int tap = 0; tap < 9; ++tap) {
                        const int in_y = y - 3 + tap / 3, in_x = x - 3 + tap % 3;
                        if (in_y < 0 || in_x < 0 || in_y >= side || in_x >= side) continue;
                        const double term = in.at(c, in_y, in_x) *
                                            static_cast<double>(record.weights[tap * channels + c]);
                        sum += term;
                        magnitude += std::fabs(term);
                    }
                    // Nineteen roundings to float, then one to half, to nearest or towards zero.
                    const double bound = magnitude * (20 * 0x1p-24 + 0x1p-10) + 0x1p-24;
                    ASSERT_NEAR(out.at(c, y, x), std::fmax(sum, 0.0), bound)
                        << "layer " << id << " at " << c << ", " << y << ", " << x;
                }
            }
        }
    };
    expect_from(random_halves(channels, side, side, 7), first);
    expect_from(read_back(*net.getFeature(first)), second);
}

TEST_F(Net, AnOperationOrPoolWithoutAGeneratorIsRefused) {
    const LogRecorder log;
    {
        NetBuilder model = builder();
        const int in = model.input(8);
        model.eltwise({in, in}, 1);
        tesk::Net net;
        EXPECT_FALSE(load(net, model));
        EXPECT_EQ(lines_with(log, "layer 1 (ElementWiseOperator)"), 1u);
    }
    {
        NetBuilder model = builder();
        const int top = model.pooling(model.input(8), 1, 2, 2);
        static_cast<ZQLayerInfo_Pooling*>(model.record(top))->pool_type = 2;
        tesk::Net net;
        EXPECT_FALSE(load(net, model));
        EXPECT_EQ(lines_with(log, "layer 1 (Pooling)"), 1u);
    }
}

TEST_F(Net, ABottomThatIsNotThereOrComesLaterIsRefused) {
    for (const unsigned short bottom : {2, 1, 900, 65535}) {
        NetBuilder model = builder();
        const int top = model.activation(model.input(8), ActivationType_ReLU);
        model.activation(top, ActivationType_ReLU);
        model.record(top)->bottoms[0] = bottom;
        tesk::Net net;
        const LogRecorder log;
        EXPECT_FALSE(load(net, model)) << "bottom " << bottom;
        EXPECT_EQ(lines_with(log, "layer 1: expected a bottom among the layers before it"), 1u);
    }
}

TEST_F(Net, InputsThatAreNotTheLowestIdsAreRefused) {
    NetBuilder model = builder();
    const int in = model.input(8);
    const int top = model.activation(in, ActivationType_ReLU);
    model.record(in)->id = 7;
    model.record(top)->bottoms[0] = 7;
    tesk::Net net;
    const LogRecorder log;
    EXPECT_FALSE(load(net, model));
    EXPECT_EQ(lines_with(log, "with the inputs at the lowest ids"), 1u);
}

TEST_F(Net, AModelOfInputsAloneHasNoImagesToMakeAndNoOutput) {
    NetBuilder model = builder();
    model.input(8);
    tesk::Net net;
    const LogRecorder log;
    const AssertRecorder asserts;
    EXPECT_TRUE(load(net, model));
    EXPECT_EQ(lines_with(log, "create iamges error : out feature shape data is empty."), 1u);
    EXPECT_EQ(net.getOutputImage(), net.getFeature(0)) << "the last feature";
    EXPECT_EQ(asserts.count("NULL"), 1u);
    net.forward();
}

TEST_F(Net, AnEmptyNetHasNoOutput) {
    tesk::Net net;
    const AssertRecorder asserts;
    EXPECT_EQ(net.getOutputImage(), nullptr);
    EXPECT_EQ(asserts.count("NULL"), 1u);
    Images out;
    EXPECT_FALSE(net.getOutputImage(out));
    EXPECT_TRUE(out.empty());
}

// Running -----------------------------------------------------------------------------------------

TEST_F(Net, ForwardBeforeSetupLogsAndDispatchesNothing) {
    tesk::Net net;
    const LogRecorder log;
    net.forward();
    ASSERT_EQ(log.lines.size(), 1u);
    EXPECT_EQ(log.lines[0].text, "Net not ready, please load first.");
    EXPECT_EQ(log.lines[0].level, Tarno::LogLevel::Verbose);
    const auto file = file_of(chain(2));
    ASSERT_TRUE(net.loadFile(file->path()));
    net.forward();
    EXPECT_EQ(lines_with(log, "Net not ready, please load first."), 2u);
    EXPECT_EQ(pool.textureCount(), 0);
}

TEST_F(Net, ForwardUpTo1000OnTenOperatorsRunsTen) {
    tesk::Net net;
    ASSERT_TRUE(load(net, chain(10)));
    feed(net);
    Watcher watcher;
    net.setObserver(&watcher);
    net.forward(0, 1000);
    EXPECT_EQ(watcher.indices(), (std::vector<int>{0, 1, 2, 3, 4, 5, 6, 7, 8, 9}));
}

TEST_F(Net, ForwardOfARangeRunsItsOperatorsAndCountsTheirReads) {
    tesk::Net net;
    ASSERT_TRUE(load(net, chain(10)));
    feed(net);
    net.forward(0, 4);
    EXPECT_NE(net.getFeature(4)->textureId(), 0u) << "operator 3 writes layer 4, which nobody read";
    Watcher watcher;
    net.setObserver(&watcher);
    net.forward(4, 10);
    EXPECT_EQ(watcher.indices(), (std::vector<int>{4, 5, 6, 7, 8, 9}));
    EXPECT_EQ(net.getFeature(4)->textureId(), 0u);
    EXPECT_EQ(net.getFeature(4)->readCount(), 0);
}

TEST_F(Net, ForwardFromBelow0FailsTheAssertion) {
    tesk::Net net;
    ASSERT_TRUE(load(net, chain(10)));
    feed(net);
    Watcher watcher;
    net.setObserver(&watcher);
    const AssertRecorder asserts;
    net.forward(-1, 5);
    ASSERT_EQ(asserts.count("beg >= 0 && opEnd <= _impl->_ops.size()"), 1u);
    EXPECT_EQ(asserts.last().source, "net");
    net.forward(0, -1);
    EXPECT_EQ(asserts.count(), 2u);
    EXPECT_TRUE(watcher.calls.empty());
    net.forward(5, 2);
    EXPECT_TRUE(watcher.calls.empty()) << "an empty range";
}

TEST_F(Net, TheObserverHearsOfEachOperatorBeforeAndAfter) {
    tesk::Net net;
    ASSERT_TRUE(load(net, chain(2)));
    feed(net);
    Watcher watcher;
    net.setObserver(&watcher);
    net.forward();
    ASSERT_EQ(watcher.calls.size(), 4u);
    for (int i = 0; i < 2; ++i) {
        const Watcher::Call& before = watcher.calls[static_cast<size_t>(2 * i)];
        const Watcher::Call& after = watcher.calls[static_cast<size_t>(2 * i + 1)];
        EXPECT_TRUE(before.before);
        EXPECT_FALSE(after.before);
        EXPECT_EQ(before.index, i);
        EXPECT_EQ(after.layer, i + 1);
        EXPECT_EQ(before.texture, 0u);
        EXPECT_NE(after.texture, 0u);
    }
    EXPECT_EQ(watcher.calls[1].reads, 1) << "one reader to come";
    EXPECT_EQ(watcher.calls[3].reads, 0);
    net.setObserver(nullptr);
    net.forward();
    EXPECT_EQ(watcher.calls.size(), 4u);
}

TEST_F(Net, AFeatureStartsTheRunWithAsManyReadsAsItHasReaders) {
    NetBuilder model = builder();
    const int in = model.input(8);
    const int shared = model.activation(in, ActivationType_ReLU);
    const int a = model.activation(shared, ActivationType_ReLU);
    const int b = model.activation(shared, ActivationType_ReLU6);
    model.eltwise({a, b, shared});
    tesk::Net net;
    ASSERT_TRUE(load(net, model));
    feed(net);
    Watcher watcher;
    net.setObserver(&watcher);
    net.forward();
    EXPECT_EQ(watcher.calls[1].reads, 3);
    for (const int id : {shared, a, b}) {
        EXPECT_EQ(net.getFeature(id)->readCount(), 0) << "layer " << id;
        EXPECT_EQ(net.getFeature(id)->textureId(), 0u) << "layer " << id;
    }
    EXPECT_NE(net.getOutputImage()->textureId(), 0u);
    EXPECT_EQ(net.getOutputImage()->readCount(), 0);
}

TEST_F(Net, OutputImagesAreThoseThatHoldATextureAndTheResultIsFalse) {
    tesk::Net net;
    ASSERT_TRUE(load(net, chain(3)));
    Images out;
    EXPECT_FALSE(net.getOutputImage(out));
    EXPECT_TRUE(out.empty());
    feed(net);
    net.forward();
    EXPECT_FALSE(net.getOutputImage(out));
    ASSERT_EQ(out.size(), 2u) << "the input, whose client holds a read, and the output";
    EXPECT_EQ(out[0], net.getFeature(0));
    EXPECT_EQ(out[1], net.getOutputImage());
    EXPECT_FALSE(net.getOutputImage(out)) << "a second call appends";
    EXPECT_EQ(out.size(), 4u);
}

TEST_F(Net, TexturesAreHandedFromLayerToLayer) {
    tesk::Net net;
    ASSERT_TRUE(load(net, chain(10)));
    feed(net);
    net.forward();
    // The input's, and two that take turns.
    EXPECT_EQ(pool.textureCount(), 3);
    EXPECT_EQ(pool.texturesInUse(), 2);
    // Nobody reads the output: its count is 0 and it keeps its texture for the client, so that the
    // second run has one fewer to take turns with. From then on there are enough.
    EXPECT_EQ(net.getOutputImage()->readCount(), 0);
    net.forward();
    EXPECT_EQ(pool.textureCount(), 4);
    for (int run = 0; run < 5; ++run) net.forward();
    EXPECT_EQ(pool.textureCount(), 4);
    EXPECT_EQ(pool.texturesInUse(), 2);
}

TEST_F(Net, AThousandRunsLeakNothingAndEndWithTheDocumentedReadCounts) {
    NetBuilder model = builder();
    const int in = model.input(8);
    const int a = model.conv(in, 8, 3, 1, 1, ActivationType_ReLU);
    const int b = model.depthwise(a, 3, 1, 1);
    const int c = model.conv(b, 8, 1, 1, 0);
    const int sum = model.eltwise({a, c});
    const int joined = model.concat({sum, b});
    model.pooling(joined, 1, 2, 2);
    tesk::Net net;
    ASSERT_TRUE(load(net, model));
    feed(net);
    Images images = {input};

    const auto count = [](GLboolean (*is)(GLuint)) {
        int found = 0;
        for (GLuint id = 1; id < 4096; ++id) found += is(id) == GL_TRUE ? 1 : 0;
        return found;
    };
    struct Objects {
        int textures, buffers, programs, in_pool;
        bool operator==(const Objects& other) const {
            return textures == other.textures && buffers == other.buffers &&
                   programs == other.programs && in_pool == other.in_pool;
        }
    };
    const auto objects = [&]() -> Objects {
        return {count([](GLuint id) { return glIsTexture(id); }),
                count([](GLuint id) { return glIsBuffer(id); }),
                count([](GLuint id) { return glIsProgram(id); }), pool.textureCount()};
    };
    net.setInputs(images);
    net.forward();
    const Objects after_one = objects();
    EXPECT_GT(after_one.textures, 0);
    for (int i = 1; i < 1000; ++i) {
        net.setInputs(images);
        net.forward();
    }
    EXPECT_TRUE(objects() == after_one);
    for (int id = 1; id <= joined; ++id) {
        EXPECT_EQ(net.getFeature(id)->readCount(), 0) << "layer " << id;
        EXPECT_EQ(net.getFeature(id)->textureId(), 0u) << "layer " << id;
    }
    EXPECT_EQ(net.getFeature(in)->readCount(), 1) << "the client's own";
    EXPECT_EQ(net.getOutputImage()->readCount(), 0);
    EXPECT_NE(net.getOutputImage()->textureId(), 0u);
}

TEST_F(Net, TheTransposedDepthwiseRunsNoDispatchAndItsInputKeepsReadsAndTexture) {
    NetBuilder model = builder();
    const int bottom = model.activation(model.input(8), ActivationType_ReLU);
    const int top = model.depthwise_deconvolution(bottom, 3, 2, 1);
    tesk::Net net;
    ASSERT_TRUE(load(net, model));
    feed(net);
    for (int run = 1; run <= 2; ++run) {
        const DispatchRecorder dispatches;
        net.forward();
        EXPECT_EQ(dispatches.all(), 1) << "the activation's";
        EXPECT_EQ(net.getFeature(top)->textureId(), 0u) << "never written";
        EXPECT_EQ(net.getFeature(bottom)->readCount(), run);
        EXPECT_NE(net.getFeature(bottom)->textureId(), 0u);
    }
}

// Inputs ------------------------------------------------------------------------------------------

TEST_F(Net, AnInputNamesTheTextureSizeAndPoolOfTheClientsImage) {
    tesk::Net net;
    ASSERT_TRUE(load(net, chain(1)));
    const std::shared_ptr<tesk::Image> feature = net.getFeature(0);
    feed(net, 8, 4, 6);
    EXPECT_EQ(net.getFeature(0), feature) << "the shared pointer stays";
    EXPECT_EQ(feature->textureId(), input->textureId());
    EXPECT_EQ(feature->width(), 6);
    EXPECT_EQ(feature->height(), 4);
    EXPECT_EQ(feature->readCount(), input->readCount());
}

TEST_F(Net, AnInputOfAnotherSizeIsReadWithZerosAround) {
    tesk::Net net;
    ASSERT_TRUE(load(net, chain(1)));
    const Tensor values = random_halves(8, 4, 6, 3, 0.5, 1.0);
    input = upload(values);
    Images images = {input};
    net.setInputs(images);
    net.forward();
    const Tensor out = read_back(*net.getOutputImage());
    for (int c = 0; c < 8; ++c) {
        for (int y = 0; y < side; ++y) {
            for (int x = 0; x < side; ++x) {
                const double expected = y < 4 && x < 6 ? values.at(c, y, x) : 0.0;
                ASSERT_EQ(out.at(c, y, x), expected) << c << ", " << y << ", " << x;
            }
        }
    }
}

TEST_F(Net, AnInputWithoutAClientsReadGivesItsTextureBackAtTheFirstRun) {
    tesk::Net net;
    ASSERT_TRUE(load(net, chain(1)));
    feed(net);
    input->subReadCount();
    input->update(reinterpret_cast<const char*>(std::vector<float>(side * side * 8).data()), 0);
    Images images = {input};
    net.setInputs(images);
    net.forward();
    EXPECT_EQ(net.getFeature(0)->textureId(), 0u);
}

TEST_F(Net, NullImagesAndOneTooManyAreLeftOut) {
    tesk::Net net;
    ASSERT_TRUE(load(net, chain(1)));
    const LogRecorder log;
    Images images = {nullptr};
    net.setInputs(images);
    EXPECT_EQ(lines_with(log, "expected an image for each input layer"), 1u);
    const auto image = make_image(8, side, side);
    images = {image, image, image};
    net.setInputs(images);
    EXPECT_EQ(lines_with(log, "expected an image for each input layer"), 2u);
    tesk::Net empty;
    empty.setInputs(images);
}

TEST_F(Net, AnImageBeyondTheInputsBecomesTheOutputOfTheNextLayer) {
    tesk::Net net;
    ASSERT_TRUE(load(net, chain(2)));
    const auto own = upload(Tensor(8, side, side, -1.0));
    input = upload(random_halves(8, side, side, 7));
    Images images = {input, own};
    net.setInputs(images);
    EXPECT_EQ(net.getFeature(1)->textureId(), own->textureId());
    net.forward();
    const Tensor written = read_back(*own);
    const Tensor values = random_halves(8, side, side, 7);
    for (size_t i = 0; i < values.values.size(); ++i)
        ASSERT_EQ(written.values[i], std::fmax(values.values[i], 0.0));
}

TEST_F(Net, TwoInputsGoToTheFeaturesInTheirOrder) {
    NetBuilder model = builder();
    const int a = model.input(8);
    const int b = model.input(8);
    model.eltwise({a, b});
    tesk::Net net;
    ASSERT_TRUE(load(net, model));
    const Tensor first = random_halves(8, side, side, 11);
    const Tensor second = random_halves(8, side, side, 12);
    Images images = {upload(first), upload(second)};
    net.setInputs(images);
    net.forward();
    const Tensor out = read_back(*net.getOutputImage());
    for (size_t i = 0; i < first.values.size(); ++i) {
        const double sum = first.values[i] + second.values[i];
        ASSERT_EQ(out.values[i], testing_support::nearest_half(sum));
    }
}

// Other -------------------------------------------------------------------------------------------

TEST_F(Net, PrintLogsTheHeadline) {
    tesk::Net net;
    ASSERT_TRUE(load(net, chain(2)));
    const LogRecorder log;
    net.print();
    ASSERT_EQ(log.lines.size(), 1u) << "operators print nothing";
    EXPECT_EQ(log.lines[0].text, "Net Struct:\n");
    EXPECT_EQ(log.lines[0].level, Tarno::LogLevel::Verbose);
}

TEST_F(Net, LayersOfEqualConstantsShareAProgram) {
    NetBuilder model = builder();
    int last = model.input(8);
    for (int i = 0; i < 5; ++i) last = model.conv(last, 8, 3, 1, 1, ActivationType_ReLU);
    tesk::Net net;
    ASSERT_TRUE(load(net, model));
    EXPECT_EQ(manager.setupCosts.programsMade, 1);
    EXPECT_EQ(manager.setupCosts.programsShared, 4);
}

}  // namespace
