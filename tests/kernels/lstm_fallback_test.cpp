#include <gtest/gtest.h>

#include <cmath>

#include "support/convolutions.h"
#include "support/recorders.h"
#include "support/tensors.h"

namespace {

using namespace TarnoCPU;
using namespace testing_support;

constexpr const char* name = "LSTM_Fallback";

// Weights and biases of all directions, as a model hands them over.
struct Cell {
    int inputs, units, factor;
    bool bias, both;
    std::vector<float> weights[4];  // input, recurrent, the same reversed
    std::vector<float> biases[4];

    Cell(int inputs, int units, bool bias, bool both, unsigned int seed, int factor = 1)
        : inputs(inputs), units(units), factor(factor), bias(bias), both(both) {
        for (unsigned int i = 0; i < 4; ++i) {
            const int per_unit = i % 2 == 0 ? inputs : units;
            weights[i] =
                random_floats(static_cast<size_t>(4 * units * per_unit * factor), seed + i);
            biases[i] = random_floats(static_cast<size_t>(4 * units * factor), seed + 10 + i);
        }
    }
    ParamDict params() const {
        const int values[] = {inputs, units, factor, bias ? 1 : 0, both ? 1 : 0};
        ParamDict pd;
        for (int id = 0; id < 5; ++id)
            pd.set(id, values[id]);
        return pd;
    }
    int width() const { return both ? 2 * units : units; }
};

// The pointers that `ModelBin` wants, for the length of a load.
struct CellBin {
    const float* weights[4];
    const float* biases[4];
    ModelBinMultiFromTarnoWeightBias bin;

    explicit CellBin(const Cell& cell) : bin(weights, biases) {
        for (int i = 0; i < 4; ++i) {
            weights[i] = cell.weights[i].data();
            biases[i] = cell.biases[i].data();
        }
    }
};

std::unique_ptr<OperatorSISO> load(const Cell& cell) {
    auto op = make_operator(name);
    const CellBin bin(cell);
    EXPECT_EQ(0, op->load(cell.params(), bin.bin, {nullptr, 0, 0}));
    return op;
}

// State of one direction: the float chain, the value in double, and a bound on their distance.
struct State {
    std::vector<float> hidden, cell;
    std::vector<double> exact_hidden, exact_cell, hidden_error, cell_error;

    explicit State(int units)
        : hidden(static_cast<size_t>(units)),
          cell(hidden.size()),
          exact_hidden(hidden.size()),
          exact_cell(hidden.size()),
          hidden_error(hidden.size()),
          cell_error(hidden.size()) {}
};

float logistic(float v) {
    const float e = static_cast<float>(std::exp(static_cast<double>(-v)));
    return static_cast<float>(1.0 / (static_cast<double>(e) + 1.0));
}

// One time step of direction d. Gates: 0 input, 1 forget, 2 candidate, 3 output.
void reference_step(const Cell& cell, int d, const float* x, State& state) {
    const double u = std::ldexp(1.0, -24);
    const State before = state;
    const size_t inputs = static_cast<size_t>(cell.inputs), units = static_cast<size_t>(cell.units);
    const auto& wi = cell.weights[2 * d];
    const auto& wr = cell.weights[2 * d + 1];
    for (size_t j = 0; j < units; ++j) {
        float a[4];
        double exact[4], error[4];
        for (size_t g = 0; g < 4; ++g) {
            const float bi = cell.bias ? cell.biases[2 * d][g * units + j] : 0.0f;
            const float br = cell.bias ? cell.biases[2 * d + 1][g * units + j] : 0.0f;
            float sum = 0.0f;
            double magnitude = std::fabs(bi) + std::fabs(br), carried = 0.0;
            exact[g] = static_cast<double>(bi) + br;
            for (size_t k = 0; k < inputs; ++k) {
                const float w = wi[(g * units + j) * inputs + k];
                sum += w * x[k];
                exact[g] += static_cast<double>(w) * x[k];
                magnitude += std::fabs(static_cast<double>(w) * x[k]);
            }
            sum = bi + sum;
            for (size_t k = 0; k < units; ++k) {
                const float w = wr[(g * units + j) * units + k];
                sum += w * before.hidden[k];
                exact[g] += static_cast<double>(w) * before.exact_hidden[k];
                magnitude += std::fabs(static_cast<double>(w) * before.hidden[k]);
                carried += std::fabs(static_cast<double>(w)) * before.hidden_error[k];
            }
            a[g] = br + sum;
            error[g] =
                sum_error_bound(static_cast<int64_t>(inputs + units) + 2, magnitude) + carried;
        }
        const float input = logistic(a[0]), forget = logistic(a[1]), output = logistic(a[3]);
        const float candidate = static_cast<float>(std::tanh(static_cast<double>(a[2])));
        const float kept = forget * before.cell[j];
        const float taken = input * candidate;
        state.cell[j] = taken + kept;
        state.hidden[j] =
            static_cast<float>(std::tanh(static_cast<double>(state.cell[j]))) * output;

        // The logistic function has a slope of at most 1/4, the hyperbolic tangent of at most 1;
        // both round at most twice, to values of at most 1.
        const auto exact_logistic = [](double v) { return 1.0 / (1.0 + std::exp(-v)); };
        const double ei = exact_logistic(exact[0]), ef = exact_logistic(exact[1]);
        const double eo = exact_logistic(exact[3]), ec = std::tanh(exact[2]);
        const double di = error[0] / 4 + 2 * u, df = error[1] / 4 + 2 * u;
        const double doo = error[3] / 4 + 2 * u, dc = error[2] + 2 * u;
        const double c0 = before.exact_cell[j], dc0 = before.cell_error[j];
        state.exact_cell[j] = ei * ec + ef * c0;
        const double product_error =
            di * std::fabs(ec) + (ei + di) * dc + df * std::fabs(c0) + (ef + df) * dc0;
        state.cell_error[j] =
            product_error + 2 * u * (std::fabs(ei * ec) + std::fabs(ef * c0) + product_error);
        const double th = std::tanh(state.exact_cell[j]);
        state.exact_hidden[j] = th * eo;
        const double dth = state.cell_error[j] + u;
        state.hidden_error[j] = doo * std::fabs(th) + (eo + doo) * dth + u;
    }
}

// A sequence from the state that `states` holds; checks `op` on it and leaves the new state there.
void expect_sequence(OperatorSISO* op, const Cell& cell, std::vector<float> sequence, int steps,
                     std::vector<State>& states) {
    PoisoningAllocator blobs;
    Option opt;
    opt.blob_allocator = &blobs;
    std::vector<float> values;
    {
        Mat top;
        ASSERT_EQ(0,
                  op->forward(Mat(chw(steps, 1, cell.inputs), sequence.data(), nullptr), top, opt));
        ASSERT_EQ(chw(steps, 1, cell.width()), top.shape);
        EXPECT_EQ(&blobs, top.allocator);
        values = values_of(top);
    }
    EXPECT_EQ(0, blobs.alive);
    const size_t width = static_cast<size_t>(cell.width());
    for (int d = 0; d < (cell.both ? 2 : 1); ++d)
        for (int i = 0; i < steps; ++i) {
            const size_t t = static_cast<size_t>(d == 0 ? i : steps - 1 - i);
            State& state = states[static_cast<size_t>(d)];
            reference_step(cell, d, sequence.data() + t * static_cast<size_t>(cell.inputs), state);
            for (size_t j = 0; j < static_cast<size_t>(cell.units); ++j) {
                const float value = values[t * width + static_cast<size_t>(d * cell.units) + j];
                ASSERT_EQ(state.hidden[j], value) << "direction " << d << ", time " << t;
                ASSERT_NEAR(state.exact_hidden[j], value, state.hidden_error[j]);
            }
        }
}

std::vector<State> fresh_states(const Cell& cell) {
    return {State(cell.units), State(cell.units)};
}

TEST(LstmFallback, EveryStepFollowsTheCellFormula) {
    unsigned int seed = 130;
    for (const int inputs : {1, 3, 8})
        for (const int units : {1, 4, 5})
            for (const bool bias : {false, true})
                for (const bool both : {false, true})
                    for (const int steps : {1, 3, 6}) {
                        SCOPED_TRACE(testing::Message()
                                     << "seed " << seed << ", " << inputs << " -> " << units
                                     << ", bias " << bias << ", both " << both << ", " << steps
                                     << " steps");
                        const Cell cell(inputs, units, bias, both, seed);
                        auto op = load(cell);
                        auto states = fresh_states(cell);
                        expect_sequence(
                            op.get(), cell,
                            random_floats(static_cast<size_t>(inputs * steps), seed + 5), steps,
                            states);
                        seed += 20;
                    }
}

TEST(LstmFallback, TheStateCarriesOverUntilItIsReset) {
    for (const bool both : {false, true}) {
        const Cell cell(3, 4, true, both, 131);
        const auto first = random_floats(6, 132), second = random_floats(9, 133);
        auto op = load(cell);
        auto states = fresh_states(cell);
        expect_sequence(op.get(), cell, first, 2, states);
        expect_sequence(op.get(), cell, second, 3, states);
        op->reset_lstm_state();
        states = fresh_states(cell);
        expect_sequence(op.get(), cell, first, 2, states);
    }
}

TEST(LstmFallback, TheSameFrameTwiceGivesAnotherResult) {
    const Cell cell(3, 4, true, false, 134);
    auto op = load(cell);
    const Mat frame = random_tensor(1, 1, 3, 135);
    Mat first, second, third;
    ASSERT_EQ(0, op->forward(frame, first, get_default_option()));
    EXPECT_EQ(chw(1, 1, 4), first.shape);
    ASSERT_EQ(0, op->forward(frame, second, get_default_option()));
    EXPECT_NE(values_of(first), values_of(second));
    op->reset_lstm_state();
    ASSERT_EQ(0, op->forward(frame, third, get_default_option()));
    EXPECT_EQ(values_of(first), values_of(third));
}

TEST(LstmFallback, TheReverseDirectionBeginsWithTheLastStepAndFillsTheRightHalf) {
    const Cell cell(2, 3, true, true, 136);
    const auto sequence = random_floats(6, 137);
    Mat top;
    ASSERT_EQ(0, load(cell)->forward(
                     Mat::from_float_array(sequence.data(), 2, 1, 3, TensorShape::CHW, nullptr),
                     top, get_default_option()));
    State state(3);
    reference_step(cell, 1, sequence.data() + 4, state);
    const auto values = values_of(top);
    for (size_t j = 0; j < 3; ++j)
        EXPECT_EQ(state.hidden[j], values[2 * 6 + 3 + j]);
}

TEST(LstmFallback, ALargerSizeFactorOnlyWastesMemory) {
    const Cell cell(3, 4, true, true, 138, 2);
    auto op = load(cell);
    auto states = fresh_states(cell);
    expect_sequence(op.get(), cell, random_floats(6, 139), 2, states);
}

TEST(LstmFallback, WithoutStoredBiasesNoneIsAskedForAndAllAreZero) {
    const Cell cell(3, 4, false, true, 140);
    const CellBin bin(cell);
    auto op = make_operator(name);
    const WithoutArray no_first(bin.bin, 1, 0);
    const WithoutArray no_second(no_first, 1, 1);
    const WithoutArray no_third(no_second, 1, 2);
    ASSERT_EQ(0, op->load(cell.params(), WithoutArray(no_third, 1, 3), {nullptr, 0, 0}));
    auto states = fresh_states(cell);
    expect_sequence(op.get(), cell, random_floats(6, 141), 2, states);
}

TEST(LstmFallback, TheInputSizeAndNotTheWidthDividesTheBottomIntoSteps) {
    // The bottom has 2 channels of 2 x 5; the steps are the first two runs of three floats.
    const Cell cell(3, 4, true, false, 142);
    auto sequence = random_floats(20, 143);
    auto op = load(cell);
    Mat top;
    ASSERT_EQ(0,
              op->forward(Mat(chw(2, 2, 5), sequence.data(), nullptr), top, get_default_option()));
    State state(4);
    for (size_t t = 0; t < 2; ++t) {
        reference_step(cell, 0, sequence.data() + t * 3, state);
        for (size_t j = 0; j < 4; ++j)
            EXPECT_EQ(state.hidden[j], values_of(top)[t * 4 + j]);
    }
}

TEST(LstmFallback, StepsBehindTheEndOfTheBottomReadZeros) {
    for (const bool both : {false, true}) {
        const Cell cell(3, 4, true, both, 144);
        std::vector<float> short_sequence = random_floats(4, 145);  // 4 steps of one float
        auto padded = short_sequence;
        padded.resize(12, 0.0f);
        Mat top, expected;
        ASSERT_EQ(0, load(cell)->forward(Mat(chw(4, 1, 1), short_sequence.data(), nullptr), top,
                                         get_default_option()));
        ASSERT_EQ(0, load(cell)->forward(Mat(chw(4, 1, 3), padded.data(), nullptr), expected,
                                         get_default_option()));
        EXPECT_EQ(values_of(expected), values_of(top));
        ASSERT_EQ(0, load(cell)->forward(Mat(chw(2, 0, 0), nullptr), top, get_default_option()));
        EXPECT_EQ(chw(2, 1, cell.width()), top.shape);
    }
}

TEST(LstmFallback, WithoutWeightsTheyCountAsZero) {
    Cell cell(3, 4, false, true, 146);
    cell.factor = 0;
    auto op = load(cell);
    for (auto& array : cell.weights)
        std::fill(array.begin(), array.end(), 0.0f);
    auto states = fresh_states(cell);
    expect_sequence(op.get(), cell, random_floats(6, 147), 2, states);
}

TEST(LstmFallback, WithoutUnitsOrStepsThereIsNothingToDo) {
    Mat top;
    EXPECT_EQ(0, load(Cell(3, 0, true, true, 148))
                     ->forward(random_tensor(2, 1, 3, 1), top, get_default_option()));
    EXPECT_TRUE(top.empty());
    Mat other;
    EXPECT_EQ(0, load(Cell(3, 4, true, true, 148))
                     ->forward(Mat(chw(0, 1, 3), nullptr), other, get_default_option()));
    EXPECT_TRUE(other.empty());
}

TEST(LstmFallback, WithoutInputsTheStateStillMoves) {
    const Cell cell(0, 3, true, false, 149);
    auto op = load(cell);
    Mat top;
    ASSERT_EQ(0, op->forward(random_tensor(2, 1, 1, 1), top, get_default_option()));
    State state(3);
    for (size_t t = 0; t < 2; ++t) {
        reference_step(cell, 0, nullptr, state);
        for (size_t j = 0; j < 3; ++j)
            EXPECT_EQ(state.hidden[j], values_of(top)[t * 3 + j]);
    }
}

TEST(LstmFallback, AnyShapeOfOneRowPassesTheCheck) {
    auto op = load(Cell(3, 4, true, false, 150));
    EXPECT_TRUE(op->check_forward(TensorShape(TensorShape::C4HW4, 7, 1, 0, 1)));
    EXPECT_FALSE(op->check_forward(chw(1, 2, 1)));
    EXPECT_FALSE(op->check_forward(chw(1, 0, 1)));
}

TEST(LstmFallback, ABottomOfManyRowsPassesSinceTheTopIsChecked) {
    AssertRecorder assertions;
    Mat top;
    EXPECT_EQ(0, load(Cell(3, 4, true, false, 151))
                     ->forward(random_tensor(2, 5, 3, 1), top, get_default_option()));
    EXPECT_EQ(0u, assertions.count());
}

TEST(LstmFallback, ElementsThatAreNoFloatsAreRefused) {
    auto op = load(Cell(3, 4, true, false, 152));
    for (const int size : {1, 2, 8}) {
        Mat top;
        EXPECT_EQ(-100, op->forward(Mat(TensorShape(TensorShape::CHW, 2, 1, 3, size), nullptr), top,
                                    get_default_option()));
    }
}

TEST(LstmFallback, TheTopHasTheBottomsLayout) {
    auto op = load(Cell(3, 4, true, false, 153));
    const auto values = random_floats(6, 154);
    Mat top;
    ASSERT_EQ(
        0, op->forward(Mat::from_float_array(values.data(), 3, 1, 2, TensorShape::C4HW4, nullptr),
                       top, get_default_option()));
    EXPECT_EQ(TensorShape(TensorShape::C4HW4, 2, 1, 4, 4), top.shape);
}

TEST(LstmFallback, MissingArraysFailTheLoadAndEveryForwardBehindIt) {
    const Cell cell(3, 4, true, true, 155);
    const CellBin bin(cell);
    for (const int type : {0, 1})
        for (const int index : {0, 1, 2, 3}) {
            auto op = make_operator(name);
            EXPECT_EQ(-100,
                      op->load(cell.params(), WithoutArray(bin.bin, type, index), {nullptr, 0, 0}));
            Mat top;
            EXPECT_EQ(-100, op->forward(random_tensor(2, 1, 3, 1), top, get_default_option()));
            op->reset_lstm_state();
        }
}

TEST(LstmFallback, CountsBeyondAnyArrayFailTheLoad) {
    ParamDict pd;
    for (int id = 0; id < 3; ++id)
        pd.set(id, 65535);
    auto op = make_operator(name);
    EXPECT_EQ(-100,
              op->load(pd, ModelBinMultiFromTarnoWeightBias(nullptr, nullptr), {nullptr, 0, 0}));
}

TEST(LstmFallback, SizesAreKeptInSixteenBits) {
    const Cell cell(3, 4, true, false, 156);
    const CellBin bin(cell);
    ParamDict pd = cell.params();
    pd.set(0, 65536 + 3);
    pd.set(1, 4 - 65536);
    auto op = make_operator(name);
    ASSERT_EQ(0, op->load(pd, bin.bin, {nullptr, 0, 0}));
    auto states = fresh_states(cell);
    expect_sequence(op.get(), cell, random_floats(6, 157), 2, states);
}

TEST(LstmFallback, ASecondLoadOfAnotherSizeBeginsWithAFreshState) {
    const Cell small(3, 2, true, false, 158), large(3, 9, true, true, 159);
    auto op = load(small);
    auto states = fresh_states(small);
    expect_sequence(op.get(), small, random_floats(6, 160), 2, states);
    const CellBin bin(large);
    ASSERT_EQ(0, op->load(large.params(), bin.bin, {nullptr, 0, 0}));
    states = fresh_states(large);
    expect_sequence(op.get(), large, random_floats(6, 160), 2, states);
}

TEST(LstmFallback, ASecondLoadOfTheSameSizeKeepsTheState) {
    const Cell cell(3, 4, true, false, 161), other(3, 4, true, false, 162);
    auto op = load(cell);
    auto states = fresh_states(cell);
    expect_sequence(op.get(), cell, random_floats(6, 163), 2, states);
    const CellBin bin(other);
    ASSERT_EQ(0, op->load(other.params(), bin.bin, {nullptr, 0, 0}));
    expect_sequence(op.get(), other, random_floats(6, 164), 2, states);
}

TEST(LstmFallback, AnAllocatorThatFailsGivesMinusHundredAndKeepsTheState) {
    const Cell cell(3, 4, true, false, 165);
    auto op = load(cell);
    PoisoningAllocator blobs;
    blobs.fail = true;
    Option opt;
    opt.blob_allocator = &blobs;
    Mat top;
    EXPECT_EQ(-100, op->forward(random_tensor(2, 1, 3, 1), top, opt));
    auto states = fresh_states(cell);
    expect_sequence(op.get(), cell, random_floats(6, 166), 2, states);
    EXPECT_EQ(name, op->name());
}

}  // namespace
