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

/// The net in double, with the weights of its file, and how far the float computation may be from
/// it: rounding bounds carried along from sum to gate to state.
class Reference {
public:
    explicit Reference(const ZQNetLoader& loader) {
        const auto records = loader.getLayersInfo();
        fc = static_cast<const ZQLayerInfo_FullConnection*>(records.at(2));
        lstm = static_cast<const ZQLayerInfo_LSTM*>(records.at(3));
        reset();
    }

    void reset() {
        h.assign(hidden, {});
        c.assign(hidden, {});
    }

    struct Value {
        double exact = 0.0;
        double error = 0.0;
    };

    std::vector<Value> step(const std::vector<float>& frame) {
        std::vector<Value> x(dense);
        for (size_t o = 0; o < dense; ++o) {
            Sum sum(fc->bias[o]);
            for (size_t i = 0; i < features; ++i) {
                sum.add(fc->weights[o * features + i], {static_cast<double>(frame[i]), 0.0});
            }
            x[o] = sum.value();
        }
        const std::vector<Value> before_h = h, before_c = c;
        for (size_t j = 0; j < hidden; ++j) {
            Value a[4];  // input, forget, candidate, output
            for (size_t g = 0; g < 4; ++g) {
                Sum sum(lstm->b_ih[0][g * hidden + j]);
                sum.add(lstm->b_hh[0][g * hidden + j], {1.0, 0.0});
                for (size_t k = 0; k < dense; ++k) {
                    sum.add(lstm->w_ih[0][(g * hidden + j) * dense + k], x[k]);
                }
                for (size_t k = 0; k < hidden; ++k) {
                    sum.add(lstm->w_hh[0][(g * hidden + j) * hidden + k], before_h[k]);
                }
                a[g] = sum.value();
            }
            const Value input = logistic(a[0]), forget = logistic(a[1]), output = logistic(a[3]);
            const Value kept = product(forget, before_c[j]);
            c[j] = product(input, hyperbolic(a[2]));
            c[j].exact += kept.exact;
            c[j].error += kept.error + u * std::fabs(c[j].exact);
            h[j] = product(hyperbolic(c[j]), output);
        }
        return h;
    }

private:
    static constexpr double u = 1.0 / (1 << 24);

    /// A sum of products in any order, of numbers that are not exact themselves.
    class Sum {
    public:
        explicit Sum(float start) : exact(start), size(std::fabs(start)) {}
        void add(float weight, const Value& x) {
            exact += static_cast<double>(weight) * x.exact;
            size += std::fabs(weight) * (std::fabs(x.exact) + x.error);
            carried += std::fabs(weight) * x.error;
            ++terms;
        }
        Value value() const { return {exact, sum_error_bound(terms, size) + carried}; }

    private:
        double exact;
        double size;
        double carried = 0.0;
        int64_t terms = 0;
    };

    // Slopes of 1/4 and 1 at the most; three roundings of numbers that 1 / (e + 1) brings below 1,
    // one of tanh.
    static Value logistic(const Value& v) {
        return {1.0 / (1.0 + std::exp(-v.exact)), v.error / 4.0 + 3.0 * u};
    }
    static Value hyperbolic(const Value& v) { return {std::tanh(v.exact), v.error + u}; }
    static Value product(const Value& p, const Value& q) {
        const double exact = p.exact * q.exact;
        return {exact, p.error * std::fabs(q.exact) + q.error * std::fabs(p.exact) +
                           p.error * q.error + 2.0 * u * std::fabs(exact)};
    }

    const ZQLayerInfo_FullConnection* fc;
    const ZQLayerInfo_LSTM* lstm;
    std::vector<Value> h, c;
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

    void expect_near(const std::vector<Reference::Value>& expected,
                     const std::vector<float>& found) {
        for (size_t i = 0; i < expected.size(); ++i) {
            EXPECT_NEAR(expected[i].exact, found[i], expected[i].error);
            // A bound that grew to the size of the numbers would tell nothing.
            EXPECT_LT(expected[i].error, 1e-3);
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
    for (unsigned int frame = 0; frame < 5; ++frame) feed(random_floats(features, frame));
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
