// A recurrent net fed frame by frame: Input, TensorReshape, FullConnection, LSTM.
#include <gtest/gtest.h>
#include <tarno/model.h>

#include <cmath>
#include <memory>

#include "modelkit/net_builder.h"
#include "support/temporary_file.h"
#include "support/tensors.h"

namespace {

using namespace TarnoCPU;
using namespace testing_support;

constexpr int channels = 2, height = 1, width = 4;  // one frame of features
constexpr int features = channels * height * width;
constexpr int dense = 8, hidden = 4;

/// The net in double, with the weights of its file.
class Reference {
public:
    explicit Reference(const ZQNetLoader& loader) {
        const auto records = loader.getLayersInfo();
        fc = static_cast<const ZQLayerInfo_FullConnection*>(records.at(2));
        lstm = static_cast<const ZQLayerInfo_LSTM*>(records.at(3));
        reset();
    }

    void reset() {
        h.assign(hidden, 0.0);
        c.assign(hidden, 0.0);
    }

    std::vector<double> step(const std::vector<float>& frame) {
        std::vector<double> x(dense);
        for (int o = 0; o < dense; ++o) {
            x[static_cast<size_t>(o)] = fc->bias[o];
            for (int i = 0; i < features; ++i) {
                x[static_cast<size_t>(o)] += static_cast<double>(fc->weights[o * features + i]) *
                                             frame[static_cast<size_t>(i)];
            }
        }
        const std::vector<double> before_h = h, before_c = c;
        for (int j = 0; j < hidden; ++j) {
            double a[4];  // input, forget, candidate, output
            for (int g = 0; g < 4; ++g) {
                a[g] = static_cast<double>(lstm->b_ih[0][g * hidden + j]) +
                       lstm->b_hh[0][g * hidden + j];
                for (int k = 0; k < dense; ++k) {
                    a[g] += static_cast<double>(lstm->w_ih[0][(g * hidden + j) * dense + k]) *
                            x[static_cast<size_t>(k)];
                }
                for (int k = 0; k < hidden; ++k) {
                    a[g] += static_cast<double>(lstm->w_hh[0][(g * hidden + j) * hidden + k]) *
                            before_h[static_cast<size_t>(k)];
                }
            }
            const auto logistic = [](double v) { return 1.0 / (1.0 + std::exp(-v)); };
            const size_t at = static_cast<size_t>(j);
            c[at] = logistic(a[0]) * std::tanh(a[2]) + logistic(a[1]) * before_c[at];
            h[at] = logistic(a[3]) * std::tanh(c[at]);
        }
        return h;
    }

private:
    const ZQLayerInfo_FullConnection* fc;
    const ZQLayerInfo_LSTM* lstm;
    std::vector<double> h, c;
};

class StreamingNet : public ::testing::Test {
protected:
    StreamingNet() {
        modelkit::NetBuilder builder;
        const int in = builder.tensor_input({channels, height, width});
        const int flat = builder.reshape(in, {1, features});
        const int fc = builder.fully_connected(flat, features, dense);
        builder.lstm(fc, dense, hidden);
        std::vector<unsigned char> bytes;
        const modelkit::Status status = builder.write(bytes);
        EXPECT_TRUE(status.ok()) << status.message();
        const TemporaryFile file(bytes);
        EXPECT_TRUE(loader.LoadFile(file.path(), false)) << loader.failure();
        net.load_tarno_net_with_inference_config(loader, nullptr);
        reference = std::make_unique<Reference>(loader);
    }

    /// One frame through an extractor of its own.
    std::vector<float> feed(const std::vector<float>& frame) {
        TarnoNetExtractor extractor = net.create_extractor();
        const Mat in =
            Mat::from_float_array(frame.data(), width, height, channels, TensorShape::CHW, nullptr);
        EXPECT_EQ(0, extractor.input(0, in));
        Mat out;
        EXPECT_EQ(0, extractor.extract(extractor.get_last_layer_index(), out));
        EXPECT_TRUE(out.shape == chw(1, 1, hidden));
        return values_of(out);
    }

    void expect_near(const std::vector<double>& expected, const std::vector<float>& found) {
        // Gates and states are at most 1 in size and the sums have at most features + 2 terms of
        // about 1; each rounding passes on with a factor below 1.
        for (size_t i = 0; i < expected.size(); ++i) {
            EXPECT_NEAR(expected[i], found[i], sum_error_bound(features + dense + hidden, 8.0));
        }
    }

    ZQNetLoader loader;
    TarnoNet net;
    std::unique_ptr<Reference> reference;
};

TEST_F(StreamingNet, KeepsItsStateAcrossExtractors) {
    for (unsigned int frame = 0; frame < 20; ++frame) {
        SCOPED_TRACE(frame);
        const auto values = random_floats(features, 100 + frame);
        expect_near(reference->step(values), feed(values));
    }
}

TEST_F(StreamingNet, TheSameFrameTwiceGivesTwoAnswersUnlessItIsReset) {
    const auto values = random_floats(features, 7);
    const auto first = feed(values);
    const auto second = feed(values);
    EXPECT_NE(first, second);
    net.reset_lstm_state();
    EXPECT_EQ(first, feed(values));
}

TEST_F(StreamingNet, ResetStartsTheStreamAnew) {
    for (unsigned int frame = 0; frame < 5; ++frame)
        feed(random_floats(features, frame));
    net.reset_lstm_state();
    reference->reset();
    for (unsigned int frame = 0; frame < 5; ++frame) {
        const auto values = random_floats(features, 50 + frame);
        expect_near(reference->step(values), feed(values));
    }
}

TEST_F(StreamingNet, TheLoaderMayGoBeforeTheFirstFrame) {
    const auto values = random_floats(features, 3);
    const auto expected = reference->step(values);
    loader.Release();
    expect_near(expected, feed(values));
}

}  // namespace
