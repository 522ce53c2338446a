// Hand-wired nets through the extractor.
#include <gtest/gtest.h>

#include <memory>

#include "support/recorders.h"
#include "support/tensors.h"

namespace {

using namespace TarnoCPU;
using namespace testing_support;

/// A net whose layers are added by hand: an input on blob 0, then what a test asks for.
class HandWiredNet {
public:
    TarnoNet net;

    explicit HandWiredNet(int blob_count, int input_index = 0, int input_blob = 0) {
        net.blobs.resize(static_cast<size_t>(blob_count));
        Layer* input = add("Input", "Input_Fallback", {input_blob}, input_blob);
        net.blobs[static_cast<size_t>(input_blob)].consumers.clear();
        input->id = input_blob;
        net.input_blobs[input_index] = input_blob;
    }

    Layer* add(const char* key, const char* op, const std::vector<int>& bottoms, int top,
               float slope = 0.0f, bool inplace = false) {
        Layer* layer = create_layer(key);
        ParamDict pd;
        pd.set(0, slope);
        if (std::string(key) == "Eltwise") pd.set(0, 1);
        layer->load(pd, ModelBinFromTarnoWeightBias(nullptr, nullptr),
                    {find_operator(op)->creator, 0, 0});
        if (inplace) layer->support_inplace = true;
        layer->bottoms = bottoms;
        layer->tops = {top};
        const int index = static_cast<int>(net.layers.size());
        net.layers.push_back(layer);
        for (const int bottom : bottoms) {
            net.blobs[static_cast<size_t>(bottom)].consumers.push_back(index);
        }
        net.blobs[static_cast<size_t>(top)].producer = index;
        return layer;
    }
};

/// Notes which layers ran.
class RecordingStatistician : public Statistician {
public:
    std::vector<const Layer*> layers;
    bool times_in_order = true;

    void layer_stats(const Layer* layer, const Mat&, Mat&, double t_before,
                     double t_after) override {
        layers.push_back(layer);
        times_in_order = times_in_order && t_before <= t_after;
    }
};

const float values[4] = {-2.0f, -1.0f, 1.0f, 2.0f};

Mat input_tensor(Allocator* allocator = nullptr) {
    return Mat::from_float_array(values, 4, 1, 1, TensorShape::CHW, allocator);
}

TEST(Extractor, AChainOfInputAndActivationRunsFromInputToExtract) {
    HandWiredNet wired(3);
    wired.add("Activation", "ReLU_Float_Fallback", {0}, 1, 0.5f);
    wired.add("Activation", "ReLU_Float_Fallback", {1}, 2, 0.5f);
    TarnoNetExtractor extractor = wired.net.create_extractor();
    EXPECT_EQ(2, extractor.get_last_layer_index());
    EXPECT_EQ(0, extractor.input(0, input_tensor()));
    Mat out;
    EXPECT_EQ(0, extractor.extract(2, out));
    EXPECT_EQ((std::vector<float>{-0.5f, -0.25f, 1.0f, 2.0f}), values_of(out));
}

TEST(Extractor, ExtractOutOfRangeReturnsMinusOneAndLeavesOutAlone) {
    HandWiredNet wired(1);
    TarnoNetExtractor extractor = wired.net.create_extractor();
    Mat out = input_tensor();
    void* before = out.data;
    EXPECT_EQ(-1, extractor.extract(-1, out));
    EXPECT_EQ(-1, extractor.extract(1, out));
    EXPECT_EQ(before, out.data);
}

TEST(Extractor, InputWithTheNumberOfBlobsAsIndexReturnsMinusOne) {
    HandWiredNet wired(2);
    TarnoNetExtractor extractor = wired.net.create_extractor();
    EXPECT_EQ(-1, extractor.input(2, input_tensor()));
    EXPECT_EQ(-1, extractor.input(-1, input_tensor()));
    EXPECT_EQ(-1, extractor.input(1, input_tensor()));  // not an input of the model
    // An input of the model whose index is the number of blobs.
    HandWiredNet far(2, 2, 0);
    TarnoNetExtractor other = far.net.create_extractor();
    EXPECT_EQ(-1, other.input(2, input_tensor()));
    EXPECT_EQ(0, extractor.input(0, input_tensor()));
}

TEST(Extractor, InputSharesTheTensor) {
    HandWiredNet wired(1);
    TarnoNetExtractor extractor = wired.net.create_extractor();
    const Mat in = input_tensor();
    extractor.input(0, in);
    EXPECT_EQ(2, *in.refcount);
    Mat out;
    extractor.extract(0, out);
    EXPECT_EQ(in.data, out.data);
}

TEST(Extractor, ATopThatIsFilledIsGivenBackWithoutARunAlsoAfterANewInput) {
    HandWiredNet wired(2);
    wired.add("Activation", "ReLU_Float_Fallback", {0}, 1);
    TarnoNetExtractor extractor = wired.net.create_extractor();
    extractor.input(0, input_tensor());
    Mat first, second;
    RecordingStatistician stats;
    EXPECT_EQ(0, extractor.extract(1, first, &stats));
    EXPECT_EQ(2u, stats.layers.size());
    extractor.input(0, random_tensor(1, 1, 8, 1));
    EXPECT_EQ(0, extractor.extract(1, second, &stats));
    EXPECT_EQ(2u, stats.layers.size());
    EXPECT_EQ(first.data, second.data);
}

TEST(Extractor, AFailingLayerEndsTheRunWithItsValueAndIsCounted) {
    HandWiredNet wired(3);
    wired.add("Activation", "Softmax_Float_Fallback", {0}, 1);  // wants h 1 and w 1
    wired.add("Activation", "ReLU_Float_Fallback", {1}, 2);
    TarnoNetExtractor extractor = wired.net.create_extractor();
    extractor.input(0, input_tensor());
    AssertRecorder assertions;
    RecordingStatistician stats;
    Mat out = input_tensor();
    EXPECT_EQ(-100, extractor.extract(2, out, &stats));
    EXPECT_TRUE(out.empty());
    ASSERT_EQ(2u, stats.layers.size());
    EXPECT_EQ(wired.net.layers[1], stats.layers[1]);
    EXPECT_TRUE(stats.times_in_order);
    EXPECT_EQ(1u, assertions.count("false && \"Invalid forward pre-conditions\""));
}

TEST(Extractor, StatisticsComeOncePerLayerInRunOrder) {
    HandWiredNet wired(4);
    wired.add("Activation", "ReLU_Float_Fallback", {0}, 1);
    wired.add("Activation", "ReLU_Float_Fallback", {0}, 2);
    wired.add("Eltwise", "Elementwise_Float_SSE", {1, 2}, 3);
    TarnoNetExtractor extractor = wired.net.create_extractor();
    extractor.input(0, input_tensor());
    RecordingStatistician stats;
    Mat out;
    EXPECT_EQ(0, extractor.extract(3, out, &stats));
    EXPECT_EQ(std::vector<const Layer*>(wired.net.layers.begin(), wired.net.layers.end()),
              stats.layers);
    EXPECT_EQ((std::vector<float>{0, 0, 2, 4}), values_of(out));
}

TEST(Extractor, AMissingInputFailsAtTheFirstLayerThatLooks) {
    HandWiredNet wired(2);
    wired.add("Activation", "ReLU_Float_Fallback", {0}, 1);
    TarnoNetExtractor extractor = wired.net.create_extractor();
    AssertRecorder assertions;
    Mat out;
    EXPECT_EQ(-100, extractor.extract(1, out));
    // A layer in place clones its bottom first, which fails without a word; an operator that is
    // called with the empty tensor raises its assertion.
    EXPECT_EQ(0u, assertions.count());
    HandWiredNet pooled(2);
    pooled.add("Pooling", "Pooling_Float_Fallback", {0}, 1);
    TarnoNetExtractor without_input = pooled.net.create_extractor();
    EXPECT_EQ(-100, without_input.extract(1, out));
    ASSERT_GE(assertions.count(), 1u);
    EXPECT_EQ("false && \"Invalid forward pre-conditions\"", assertions.entries()[0].condition);
    EXPECT_EQ("pooling_float_fallback", assertions.entries()[0].source);
}

TEST(LightMode, ABlobGoesWhenItsLastReaderHasRunAndNotBefore) {
    // 0 -> 1, read by 2 and 3; 3 -> 4.
    HandWiredNet wired(6);
    wired.add("Activation", "ReLU_Float_Fallback", {0}, 1);
    wired.add("Activation", "ReLU_Float_Fallback", {1}, 2);
    wired.add("Activation", "ReLU_Float_Fallback", {1}, 3);
    wired.add("Activation", "ReLU_Float_Fallback", {3}, 4);
    wired.add("Eltwise", "Elementwise_Float_SSE", {2, 4}, 5);

    // Watches the pool of blocks while the layers run.
    class AliveBlocks : public Statistician {
    public:
        explicit AliveBlocks(const PoisoningAllocator& allocator) : allocator(allocator) {}
        void layer_stats(const Layer*, const Mat&, Mat&, double, double) override {
            alive.push_back(allocator.alive);
        }
        const PoisoningAllocator& allocator;
        std::vector<int> alive;
    };
    PoisoningAllocator allocator;
    AliveBlocks stats(allocator);
    {
        TarnoNetExtractor extractor = wired.net.create_extractor();
        extractor.set_blob_allocator(&allocator);
        extractor.input(0, input_tensor());
        Mat out;
        EXPECT_EQ(0, extractor.extract(5, out, &stats));
        EXPECT_EQ(1, allocator.alive);  // only the result
    }
    // Input; blob 1; 1 and 2; 1, 2 and 3; 1 is gone, 2, 3 and 4; 3 is gone, 2, 4 and 5.
    EXPECT_EQ((std::vector<int>{0, 1, 2, 3, 3, 3}), stats.alive);
    EXPECT_EQ(0, allocator.alive);
}

TEST(LightMode, OffEveryBlobStaysAndCanBeReadWithoutANewRun) {
    HandWiredNet wired(3);
    wired.add("Activation", "ReLU_Float_Fallback", {0}, 1);
    wired.add("Activation", "ReLU_Float_Fallback", {1}, 2);
    TarnoNetExtractor extractor = wired.net.create_extractor();
    extractor.set_light_mode(false);
    extractor.input(0, input_tensor());
    Mat out;
    RecordingStatistician stats;
    EXPECT_EQ(0, extractor.extract(2, out, &stats));
    for (int i = 0; i < 3; ++i) {
        Mat blob;
        EXPECT_EQ(0, extractor.extract(i, blob, &stats));
        EXPECT_FALSE(blob.empty());
    }
    EXPECT_EQ(3u, stats.layers.size());
}

TEST(LightMode, ABlobThatNobodyReadsIsNeverReleased) {
    HandWiredNet wired(3);
    wired.add("Activation", "ReLU_Float_Fallback", {0}, 1);
    wired.add("Activation", "ReLU_Float_Fallback", {0}, 2);
    TarnoNetExtractor extractor = wired.net.create_extractor();
    extractor.input(0, input_tensor());
    Mat out, unread;
    RecordingStatistician stats;
    EXPECT_EQ(0, extractor.extract(2, out, &stats));
    EXPECT_EQ(0, extractor.extract(1, unread, &stats));
    EXPECT_EQ(3u, stats.layers.size());  // it was there
    EXPECT_FALSE(unread.empty());
}

TEST(LightMode, TheBlobWhoseIndexEqualsAnInputIndexStays) {
    // Input index 1 feeds blob 0. The release rule looks for blob indices among input indices, so
    // blob 1 stays although it was read, and blob 0, the input itself, goes.
    HandWiredNet wired(3, 1, 0);
    wired.add("Activation", "ReLU_Float_Fallback", {0}, 1);
    wired.add("Activation", "ReLU_Float_Fallback", {1}, 2);
    TarnoNetExtractor extractor = wired.net.create_extractor();
    Mat in = input_tensor();
    EXPECT_EQ(0, extractor.input(1, in));
    Mat out, blob;
    RecordingStatistician stats;
    EXPECT_EQ(0, extractor.extract(2, out, &stats));
    EXPECT_EQ(1, *in.refcount);
    EXPECT_EQ(0, extractor.extract(1, blob, &stats));
    EXPECT_FALSE(blob.empty());
    EXPECT_EQ(3u, stats.layers.size());
}

TEST(LightMode, TheUsualInputOnIndexZeroAndBlobZeroStays) {
    HandWiredNet wired(2);
    wired.add("Activation", "ReLU_Float_Fallback", {0}, 1);
    TarnoNetExtractor extractor = wired.net.create_extractor();
    const Mat in = input_tensor();
    extractor.input(0, in);
    Mat out;
    extractor.extract(1, out);
    EXPECT_EQ(2, *in.refcount);
}

TEST(LightMode, InPlaceLayersKeepTheSharedBlockAlive) {
    HandWiredNet wired(3);
    wired.add("Activation", "ReLU_Float_Fallback", {0}, 1, 0.5f);
    wired.add("Activation", "ReLU_Float_Fallback", {1}, 2, 0.5f, true);
    PoisoningAllocator allocator;
    {
        TarnoNetExtractor extractor = wired.net.create_extractor();
        extractor.set_blob_allocator(&allocator);
        extractor.input(0, input_tensor());
        Mat out;
        EXPECT_EQ(0, extractor.extract(2, out));
        EXPECT_EQ(1, allocator.calls);
        EXPECT_EQ((std::vector<float>{-0.5f, -0.25f, 1.0f, 2.0f}), values_of(out));
    }
    EXPECT_EQ(0, allocator.alive);
}

TEST(LightMode, AReaderWithoutExactlyOneTopAssertsOnTheSingleTensorPath) {
    HandWiredNet wired(4);
    wired.add("Activation", "ReLU_Float_Fallback", {0}, 1);
    wired.add("Activation", "ReLU_Float_Fallback", {1}, 2);
    wired.net.layers[2]->tops = {2, 3};
    TarnoNetExtractor extractor = wired.net.create_extractor();
    extractor.input(0, input_tensor());
    AssertRecorder assertions;
    Mat out;
    extractor.extract(2, out);
    ASSERT_EQ(1u, assertions.count());
    EXPECT_EQ("layers[consumer_layer_index]->tops.size() == 1", assertions.last().condition);
    EXPECT_EQ("tarnonet", assertions.last().source);
    EXPECT_EQ(1446, assertions.last().line);
}

TEST(LightMode, AReaderWithoutExactlyOneTopAssertsOnTheMultiTensorPath) {
    HandWiredNet wired(5);
    wired.add("Activation", "ReLU_Float_Fallback", {0}, 1);
    wired.add("Eltwise", "Elementwise_Float_SSE", {1, 1}, 2);
    wired.add("Activation", "ReLU_Float_Fallback", {1}, 3);
    wired.net.layers[3]->tops = {3, 4};
    TarnoNetExtractor extractor = wired.net.create_extractor();
    extractor.input(0, input_tensor());
    AssertRecorder assertions;
    Mat out;
    EXPECT_EQ(0, extractor.extract(2, out));
    ASSERT_EQ(2u, assertions.count());  // once for each of the two equal bottoms
    EXPECT_EQ("layers[consumer_layer_index]->tops.size() == 1", assertions.last().condition);
    EXPECT_EQ("tarnonet", assertions.last().source);
    EXPECT_EQ(1504, assertions.last().line);
}

TEST(ForwardLayer, AMultiTensorLayerWithoutExactlyOneTopAsserts) {
    HandWiredNet wired(4);
    wired.add("Eltwise", "Elementwise_Float_SSE", {0, 0}, 1);
    wired.net.layers[1]->tops = {1, 2};
    TarnoNetExtractor extractor = wired.net.create_extractor();
    extractor.input(0, input_tensor());
    AssertRecorder assertions;
    Mat out;
    EXPECT_EQ(0, extractor.extract(1, out));
    ASSERT_GE(assertions.count(), 1u);
    EXPECT_EQ("layers[i]->tops.size() == 1", assertions.entries()[0].condition);
    EXPECT_EQ("tarnonet", assertions.entries()[0].source);
    EXPECT_EQ(1467, assertions.entries()[0].line);
}

TEST(Extractor, SeveralOfOneNetDoNotDisturbEachOther) {
    HandWiredNet wired(2);
    wired.add("Activation", "ReLU_Float_Fallback", {0}, 1);
    TarnoNetExtractor first = wired.net.create_extractor();
    TarnoNetExtractor second = wired.net.create_extractor();
    first.input(0, input_tensor());
    second.input(0, random_tensor(1, 1, 2, 3, 1.0f, 2.0f));
    Mat a, b;
    EXPECT_EQ(0, second.extract(1, b));
    EXPECT_EQ(0, first.extract(1, a));
    EXPECT_EQ(4, a.shape.w);
    EXPECT_EQ(2, b.shape.w);
    TarnoNetExtractor copy = first;
    Mat c;
    EXPECT_EQ(0, copy.extract(1, c));
    EXPECT_EQ(a.data, c.data);
}

TEST(Net, SizeIsWhatWasSet) {
    TarnoNet net;
    net.setNetSize(640, 480);
    EXPECT_EQ(640, net.width());
    EXPECT_EQ(480, net.height());
    EXPECT_EQ(-1, net.create_extractor().get_last_layer_index());
}

}  // namespace
