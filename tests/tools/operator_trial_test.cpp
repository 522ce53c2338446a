// Trials of operators that are wrong on purpose: each has to be rejected, with its reason.
#include <gtest/gtest.h>
#include <tarno/cpu.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "../../tools/operator_trial.h"
#include "support/blocked_convolutions.h"

namespace {

using namespace TarnoCPU;
using testing_support::chw;

constexpr int channels = 4, size = 8, pixels = size * size;

Mat tensor(const TensorShape& shape, double step) {
    Mat made(shape, nullptr);
    for (int64_t i = 0; i < shape.total(); ++i) {
        made.ptr<float>()[i] = static_cast<float>(std::sin(step * static_cast<double>(i + 1)));
    }
    return made;
}

/// A 1x1 convolution of four channels without a bias, as plain sums in float.
class Sums : public OperatorSISO {
public:
    int load(const ParamDict& pd, const ModelBin& mb, const LayerInferenceConfig&) override {
        weights = mb.load(pd.get(10, 0), 0, 0);
        return weights.empty() ? -100 : 0;
    }
    std::string name() const override { return "Sums"; }
    bool check_forward(const TensorShape&) override { return true; }
    int forward(const Mat& bottom, Mat& top, const Option& opt) override {
        top.create(bottom.shape, opt.blob_allocator);
        for (int p = 0; p < channels; ++p) {
            for (int i = 0; i < pixels; ++i) {
                float sum = 0.0f;
                // Backwards, for another rounding than that of the product.
                for (int q = channels - 1; q >= 0; --q) {
                    sum += weights.ptr<float>()[p * channels + q] *
                           bottom.ptr<float>()[q * pixels + i];
                }
                top.ptr<float>()[p * pixels + i] = sum;
            }
        }
        return 0;
    }

protected:
    Mat weights;
};

/// Right but for one number, which is further away than rounding takes it.
class OneNumberOff : public Sums {
public:
    int forward(const Mat& bottom, Mat& top, const Option& opt) override {
        Sums::forward(bottom, top, opt);
        top.ptr<float>()[channels * pixels - 1] += 1e-5f;
        return 0;
    }
};

class OneNan : public Sums {
public:
    int forward(const Mat& bottom, Mat& top, const Option& opt) override {
        Sums::forward(bottom, top, opt);
        top.ptr<float>()[17] = std::numeric_limits<float>::quiet_NaN();
        return 0;
    }
};

class Infinite : public Sums {
public:
    int forward(const Mat& bottom, Mat& top, const Option& opt) override {
        Sums::forward(bottom, top, opt);
        top.ptr<float>()[0] = std::numeric_limits<float>::infinity();
        return 0;
    }
};

class RefusesToLoad : public Sums {
public:
    int load(const ParamDict&, const ModelBin&, const LayerInferenceConfig&) override {
        return -100;
    }
};

class RefusesToRun : public Sums {
public:
    int forward(const Mat&, Mat&, const Option&) override { return -100; }
};

class OneRowLess : public Sums {
public:
    int forward(const Mat&, Mat& top, const Option& opt) override {
        top.create(chw(channels, size - 1, size), opt.blob_allocator);
        return 0;
    }
};

/// As many numbers as expected, in another shape.
class Transposed : public Sums {
public:
    int forward(const Mat&, Mat& top, const Option& opt) override {
        top.create(chw(channels, size / 2, size * 2), opt.blob_allocator);
        return 0;
    }
};

class GivesNothing : public Sums {
public:
    int forward(const Mat&, Mat&, const Option&) override { return 0; }
};

template <typename Made>
Operator* make() {
    return new Made;
}
Operator* make_none() {
    return nullptr;
}

class OperatorTrial : public testing::Test {
protected:
    void SetUp() override {
        rule = find_operator("Convolution_1x1s1_Float_SGEMM");
        ASSERT_NE(nullptr, rule);
        slot.layer = "Convolution";
        slot.window.kernel_w = slot.window.kernel_h = 1;
        slot.in = slot.out = {channels, size, size};
        testing_support::LayerParams params;
        params.num_output = params.num_input = channels;
        params.kernel = 1;
        params.bias = false;
        params.weight_count = channels * channels;
        task.default_creator = rule->creator;
        task.parameters = params.dict();
        task.weights = tensor(TensorShape(TensorShape::FLAT, 1, 1, channels * channels, 4), 1.7);
        task.bottoms = {tensor(chw(channels, size, size), 0.37)};
        std::vector<float> weights(task.weights.ptr<float>(),
                                   task.weights.ptr<float>() + channels * channels);
        auto made = testing_support::make_loaded(rule->name, params, weights, {0.0f});
        ASSERT_NE(nullptr, made);
        ASSERT_EQ(0, made->forward(task.bottoms[0], task.top, get_default_option()));
        bounds = tool::error_bounds(slot, task, memory);
        ASSERT_EQ(static_cast<size_t>(channels * pixels), bounds.size());
    }

    tool::Trial tried(OperatorCreator creator) {
        info = *rule;
        info.creator = creator;
        return tool::try_operator(info, task, tool::Packing::planes, bounds, memory);
    }

    const OperatorInfo* rule = nullptr;
    OperatorInfo info{};
    tool::TableSlot slot;
    tool::LayerTask task;
    tool::TrialMemory memory{int64_t{64} << 20, 0};
    std::vector<double> bounds;
};

TEST_F(OperatorTrial, TakesSumsInAnotherOrder) {
    const tool::Trial trial = tried(&make<Sums>);
    EXPECT_EQ("", trial.rejection);
    EXPECT_GT(trial.milliseconds, 0.0);
}

TEST_F(OperatorTrial, BoundsEachNumberByTheSumOfTheSizesOfItsProducts) {
    for (int p = 0; p < channels; ++p) {
        for (int i = 0; i < pixels; ++i) {
            double sizes = 0.0;
            for (int q = 0; q < channels; ++q) {
                sizes +=
                    std::fabs(static_cast<double>(task.weights.ptr<float>()[p * channels + q]) *
                              static_cast<double>(task.bottoms[0].ptr<float>()[q * pixels + i]));
            }
            // Between four roundings, the least that such a sum has, and twice the six that its
            // bias and the rounding of the bound itself could make of it.
            const double u = std::ldexp(1.0, -24);
            EXPECT_GE(bounds[static_cast<size_t>(p * pixels + i)], 4.0 * u * sizes);
            EXPECT_LE(bounds[static_cast<size_t>(p * pixels + i)], 12.0 * u * sizes);
        }
    }
}

TEST_F(OperatorTrial, RejectsASingleNumberBeyondRounding) {
    const tool::Trial trial = tried(&make<OneNumberOff>);
    EXPECT_EQ(0u, trial.rejection.find("differs by 0.00001")) << trial.rejection;
    EXPECT_NE(std::string::npos, trial.rejection.find("at number 255, rounding explains 0.00000"))
        << trial.rejection;
    EXPECT_EQ(0.0, trial.milliseconds);
}

TEST_F(OperatorTrial, RejectsANanAndAnInfinityThatTheDefaultDoesNotHave) {
    EXPECT_NE(std::string::npos, tried(&make<OneNan>).rejection.find("at number 17,"));
    EXPECT_NE(std::string::npos, tried(&make<Infinite>).rejection.find("at number 0,"));
}

TEST_F(OperatorTrial, RejectsWhatDoesNotLoad) {
    EXPECT_EQ("does not load", tried(&make<RefusesToLoad>).rejection);
    EXPECT_EQ("does not load", tried(&make_none).rejection);
}

TEST_F(OperatorTrial, RejectsWhatDoesNotRunWithItsResult) {
    EXPECT_EQ("does not run: result -100", tried(&make<RefusesToRun>).rejection);
}

TEST_F(OperatorTrial, RejectsAnotherShapeEvenOfAsManyNumbers) {
    EXPECT_EQ("gives a tensor of another shape", tried(&make<OneRowLess>).rejection);
    EXPECT_EQ("gives a tensor of another shape", tried(&make<Transposed>).rejection);
    EXPECT_EQ("gives a tensor of another shape", tried(&make<GivesNothing>).rejection);
}

TEST_F(OperatorTrial, RejectsWhatTakesMoreMemoryThanIsLeft) {
    memory.limit = 512;
    EXPECT_EQ("takes more memory than --memory-limit leaves", tried(rule->creator).rejection);
}

}  // namespace
