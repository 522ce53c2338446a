// What every convolution operator must do with what it cannot compute.
#pragma once

#include <gtest/gtest.h>
#include <tarno/cpu.h>

#include <climits>
#include <string>
#include <vector>

#include "support/convolutions.h"
#include "support/recorders.h"
#include "support/tensors.h"

namespace testing_support {

/// The top of a case by the default options. The forward must succeed.
inline TarnoCPU::Mat convolved(const char* name, const ConvolutionCase& a,
                               const ConvolutionArrays& data) {
    TarnoCPU::Mat top;
    EXPECT_EQ(0, load_convolution(name, a, data)
                     ->forward(data.bottom(a), top, TarnoCPU::get_default_option()));
    return top;
}

/// A forward that fails, with nothing said of the top.
inline void expect_no_forward(TarnoCPU::OperatorSISO& op, const TarnoCPU::Mat& bottom) {
    TarnoCPU::Mat top;
    EXPECT_EQ(-100, op.forward(bottom, top, TarnoCPU::get_default_option()));
}

/// A number of a `ParamDict`.
struct ParamChange {
    int id;
    int value;
};

/// Numbers that make neither a convolution in groups nor a transposed one: no output, no kernel,
/// too few weights, and sizes that leave 32 bits.
inline const std::vector<ParamChange> UNUSABLE_NUMBERS = {
    {0, 0},       {1, 0},       {2, -1},      {3, -1},      {5, 0},       {6, -3},
    {3, INT_MAX}, {4, 1 << 30}, {7, INT_MAX}, {8, INT_MAX}, {1, INT_MAX}, {10, 4}};

/// Loads with each of the numbers changed, and fails every forward, without a fault.
inline void expect_refused_numbers(const char* name, const ConvolutionCase& good,
                                   const std::vector<ParamChange>& changes) {
    const ConvolutionArrays data(good);
    const TarnoCPU::ModelBinFromTarnoWeightBias arrays(data.weights.data(),
                                                       good.bias ? data.bias.data() : nullptr);
    for (const ParamChange& change : changes) {
        SCOPED_TRACE(testing::Message() << name << ", id " << change.id << " = " << change.value);
        TarnoCPU::ParamDict pd = good.params();
        pd.set(change.id, change.value);
        auto op = make_operator(name);
        ASSERT_EQ(0, op->load(pd, arrays, {nullptr, 0, 0}));
        expect_no_forward(*op, data.bottom(good));
    }
}

/// A tensor that the operator does not take: the check says so, and the forward raises the
/// assertion of `source`.
inline void expect_precondition(TarnoCPU::OperatorSISO& op, const TarnoCPU::TensorShape& shape,
                                const std::string& source) {
    AssertRecorder assertions;
    EXPECT_FALSE(op.check_forward(shape));
    expect_no_forward(op, TarnoCPU::Mat(shape, nullptr));
    ASSERT_EQ(1u, assertions.count());
    EXPECT_EQ("false && \"Invalid forward pre-conditions\"", assertions.last().condition);
    EXPECT_EQ(source, assertions.last().source);
}

/// Neither packed tensors nor two bytes an element.
inline void expect_plain_floats_only(const char* name, const std::string& source) {
    using TarnoCPU::TensorShape;
    const ConvolutionCase a = ConvolutionCase::of(1, 1, 4);
    const ConvolutionArrays data(a);
    auto op = load_convolution(name, a, data);
    expect_precondition(*op, TensorShape(TensorShape::C4HW4, 1, 1, 4, 4), source);
    expect_precondition(*op, TensorShape(TensorShape::CHW, 1, 1, 4, 2), source);
}

/// Groups that divide neither the channels nor the outputs, or are no count at all.
inline void expect_groups_must_divide(const char* name, const std::string& source) {
    const struct {
        int c, num_output, group;
    } cases[] = {{5, 4, 2}, {4, 5, 2}, {4, 4, 0}, {4, 4, -2}};
    for (const auto& each : cases) {
        SCOPED_TRACE(testing::Message() << each.c << " " << each.num_output << " " << each.group);
        const ConvolutionCase a = ConvolutionCase::of(each.c, 3, 3).outputs(each.num_output);
        const ConvolutionArrays data(a);
        TarnoCPU::ParamDict pd = a.params();
        pd.set(11, each.group);
        auto op = make_operator(name);
        ASSERT_EQ(0,
                  op->load(pd, TarnoCPU::ModelBinFromTarnoWeightBias(data.weights.data(), nullptr),
                           {nullptr, 0, 0}));
        expect_precondition(*op, chw(each.c, 3, 3), source);
    }
}

/// Without its weights or its bias the load fails, and every forward behind it.
inline void expect_arrays_are_needed(const char* name, ConvolutionCase a) {
    a.with_bias();
    const ConvolutionArrays data(a);
    const TarnoCPU::ModelBinFromTarnoWeightBias arrays(data.weights.data(), data.bias.data());
    for (const int type : {0, 1}) {
        auto op = make_operator(name);
        EXPECT_EQ(-100, op->load(a.params(), WithoutArray(arrays, type, 0), {nullptr, 0, 0}));
        expect_no_forward(*op, data.bottom(a));
    }
    auto op = make_operator(name);
    TarnoCPU::ParamDict pd = a.params();
    pd.set(10, 0);
    EXPECT_EQ(-100, op->load(pd, arrays, {nullptr, 0, 0}));
}

/// Both allocators are used by `a`; whichever has no memory, the forward fails and holds none.
inline void expect_failing_allocators(const char* name, const ConvolutionCase& a) {
    SCOPED_TRACE(a.text());
    const ConvolutionArrays data(a);
    auto op = load_convolution(name, a, data);
    for (const bool blob_fails : {true, false}) {
        PoisoningAllocator blobs, workspace;
        blobs.fail = blob_fails;
        workspace.fail = !blob_fails;
        TarnoCPU::Option opt;
        opt.blob_allocator = &blobs;
        opt.workspace_allocator = &workspace;
        {
            TarnoCPU::Mat top;
            EXPECT_EQ(-100, op->forward(data.bottom(a), top, opt));
        }
        EXPECT_EQ(0, blobs.alive);
        EXPECT_EQ(0, workspace.alive);
    }
}

}  // namespace testing_support
