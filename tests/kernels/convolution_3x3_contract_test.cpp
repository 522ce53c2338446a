// Checks, refusals, blocks and damaged parameters of the 3x3 family.

#include <gtest/gtest.h>

#include <climits>

#include "support/convolutions_3x3.h"

namespace {

using namespace TarnoCPU;
using namespace testing_support;

constexpr unsigned int seed = 3307;

class Convolution3x3ContractTest : public Test3x3 {};
class Convolution3x3ScratchTest : public Test3x3 {};

INSTANTIATE_TEST_SUITE_P(AllMembers, Convolution3x3ContractTest, testing::ValuesIn(members_3x3),
                         name_of_3x3);
INSTANTIATE_TEST_SUITE_P(ScratchOfFours, Convolution3x3ScratchTest,
                         testing::ValuesIn(members_3x3_where([](const Member3x3& member) {
                             return member.input == Member3x3::Input::Fours;
                         })),
                         name_of_3x3);

TensorShape good_shape(const Member3x3& member) {
    return member.input == Member3x3::Input::Blocks
               ? TensorShape(TensorShape::C4HW4, 2, 16, 16 * 4, 4)
               : chw(8, 16, 16);
}

ConvolutionProblem good_problem(const Member3x3& member) {
    return problem_3x3(member, 8, 8, 16, 16, 1, 1, seed);
}

TEST_P(Convolution3x3ContractTest, StandsInTheListWithItsTile) {
    const Member3x3& member = GetParam();
    const OperatorInfo* row = find_operator(member.name);
    ASSERT_NE(nullptr, row);
    const bool blocks = member.input == Member3x3::Input::Blocks;
    EXPECT_STREQ("Convolution", row->layer);
    EXPECT_EQ(OperatorInfo::Base::SISO, row->base);
    EXPECT_EQ(
        member.fused ? OperatorInfo::InstructionSet::FMA : OperatorInfo::InstructionSet::Baseline,
        row->isa);
    EXPECT_EQ(blocks ? OperatorInfo::Layout::C4HW4 : OperatorInfo::Layout::CHW, row->layout_in);
    EXPECT_EQ(row->layout_in, row->layout_out);
    EXPECT_EQ(3, row->kernel_h);
    EXPECT_EQ(3, row->kernel_w);
    EXPECT_EQ(member.stride, row->stride);
    EXPECT_EQ(member.needs_outputs_in_fours ? 4 : member.outputs, row->output_multiple);
    EXPECT_EQ(member.lanes_of_input() ? 4 : 1, row->input_multiple);
    // The border at the top and left is one row only for an even height: of an odd one it makes
    // none and the result is another than the reference's.
    const int rows = member.top_left_border && member.rows == 1 ? 2
                     : member.rows == 1                         ? 1
                                                                : member.rows * member.stride;
    EXPECT_EQ(rows, row->height_multiple);
    EXPECT_EQ(member.columns == 1 ? 1 : member.columns * member.stride, row->width_multiple);
    EXPECT_EQ(OperatorInfo::Bias::Needed, row->bias);
    EXPECT_EQ(member.name, make_operator(member.name)->name());
}

TEST_P(Convolution3x3ContractTest, ChecksLayoutElementsOutputChannelsAndSizes) {
    const Member3x3& member = GetParam();
    for (int out : {1, 2, 3, 4, 5, 6, 7, 8}) {
        ConvolutionProblem p = problem_3x3(member, 8, out, 16, 16, 1, 1, seed);
        auto op = loaded_operator(member.name, p);
        const bool outputs_fit = !member.needs_outputs_in_fours || out % 4 == 0;
        TensorShape shape = good_shape(member);
        EXPECT_EQ(outputs_fit, op->check_forward(shape)) << out;
        shape.h = 15;
        EXPECT_EQ(outputs_fit && !member.needs_even, op->check_forward(shape)) << out;
        shape = good_shape(member);
        shape.w -= 1;
        EXPECT_EQ(outputs_fit && !member.needs_even, op->check_forward(shape)) << out;
        for (int elem_size : {1, 2, 8}) {
            shape = good_shape(member);
            shape.elem_size = elem_size;
            EXPECT_FALSE(op->check_forward(shape));
        }
        for (int layout : {0, 1, 2, 3, 4}) {
            shape = good_shape(member);
            const bool same = layout == static_cast<int>(shape.layout);
            shape.layout = static_cast<TensorShape::Layout>(layout);
            EXPECT_EQ(same && outputs_fit, op->check_forward(shape));
        }
    }
}

TEST_P(Convolution3x3ContractTest, AFailedCheckRaisesTheAssertionInItsOwnUnit) {
    const Member3x3& member = GetParam();
    AssertRecorder assertions;
    const ConvolutionProblem p = good_problem(member);
    auto op = loaded_operator(member.name, p);
    Mat wrong(TensorShape(good_shape(member).layout, 8, 16, 16, 2), nullptr);
    Mat top;
    EXPECT_EQ(-100, op->forward(wrong, top, get_default_option()));
    EXPECT_TRUE(top.empty());
    ASSERT_EQ(1u, assertions.count());
    EXPECT_EQ("false && \"Invalid forward pre-conditions\"", assertions.last().condition);
    EXPECT_EQ(unit_of(member.name), assertions.last().source);
}

TEST(Convolution3x3Checks, M2RefusesAnOddHeight) {
    const Member3x3& member = member_3x3("Convolution_3x3s1_Float_SSE_M2");
    auto op = loaded_operator(member.name, good_problem(member));
    EXPECT_FALSE(op->check_forward(chw(8, 15, 16)));
    EXPECT_TRUE(op->check_forward(chw(8, 16, 16)));
}

TEST(Convolution3x3Checks, M7AcceptsAnOddHeightAndRefusesSixOutputChannels) {
    const Member3x3& member = member_3x3("Convolution_3x3s1_Float_SSE_M7");
    auto four = loaded_operator(member.name, problem_3x3(member, 8, 4, 15, 16, 1, 1, seed));
    EXPECT_TRUE(four->check_forward(chw(8, 15, 16)));
    auto six = loaded_operator(member.name, problem_3x3(member, 8, 6, 15, 16, 1, 1, seed));
    EXPECT_FALSE(six->check_forward(chw(8, 15, 16)));
}

TEST_P(Convolution3x3ContractTest, WithoutASuccessfulLoadForwardFails) {
    const Member3x3& member = GetParam();
    const ConvolutionProblem p = good_problem(member);
    Bottom3x3 bottom(member, p);
    Mat top;
    {
        auto op = make_operator(member.name);
        EXPECT_EQ(-100, op->forward(bottom.view(), top, get_default_option()));
    }
    {
        ParamDict pd = p.parameters();
        pd.set(10, 0);
        auto op = make_operator(member.name);
        EXPECT_EQ(-100, op->load(pd, p.arrays(), {nullptr, 0, 0}));
        EXPECT_EQ(-100, op->forward(bottom.view(), top, get_default_option()));
    }
    {
        // A load that fails takes back the one before it.
        auto op = loaded_operator(member.name, p);
        ParamDict pd = p.parameters();
        pd.set(0, 0);
        EXPECT_EQ(-100, op->load(pd, p.arrays(), {nullptr, 0, 0}));
        EXPECT_EQ(-100, op->forward(bottom.view(), top, get_default_option()));
    }
}

TEST_P(Convolution3x3ContractTest, WithoutBiasNumbersTheSumsStartFromZero) {
    SCOPED_TRACE(seed);
    const Member3x3& member = GetParam();
    ConvolutionProblem p = good_problem(member);
    p.has_bias = false;
    p.bias.clear();
    expect_on_paper(member, p);
}

TEST_P(Convolution3x3ContractTest, TakesTopFromOneAllocatorAndBorderAndScratchFromTheOther) {
    const Member3x3& member = GetParam();
    const ConvolutionProblem p = good_problem(member);
    RecordingAllocator blobs, workspace;
    const Mat top = run_3x3(member, p, blobs, workspace);
    const int out = 16 / member.stride;
    const Margins3x3 m = margins_of(member, p);
    const int64_t bordered = int64_t{8} * (16 + m.top + m.bottom) * (16 + m.left + m.right);
    std::vector<unsigned int> expected = {RecordingAllocator::block(bordered)};
    if (member.input == Member3x3::Input::Fours) expected.push_back(expected[0]);
    EXPECT_EQ(expected, workspace.sizes);
    EXPECT_EQ(std::vector<unsigned int>{RecordingAllocator::block(8 * out * out)}, blobs.sizes);
    EXPECT_EQ(&blobs, top.allocator);
    EXPECT_EQ(1, blobs.alive);
}

TEST_P(Convolution3x3ContractTest, WithoutABorderNothingIsCopied) {
    const Member3x3& member = GetParam();
    const int size = member.top_left_border ? 17 : 18;
    const ConvolutionProblem p = problem_3x3(member, 8, 8, size, size, 0, 0, seed);
    RecordingAllocator blobs, workspace;
    run_3x3(member, p, blobs, workspace);
    EXPECT_EQ(member.input == Member3x3::Input::Fours ? 1u : 0u, workspace.sizes.size());
}

TEST_P(Convolution3x3ContractTest, FailsWithoutALeakWhenAnAllocationFails) {
    const Member3x3& member = GetParam();
    const ConvolutionProblem p = good_problem(member);
    auto op = loaded_operator(member.name, p);
    Bottom3x3 bottom(member, p);
    const int requests = member.input == Member3x3::Input::Fours ? 2 : 1;
    for (int refused = 0; refused <= requests; ++refused) {
        RecordingAllocator blobs, workspace;
        workspace.refuse_from = refused;
        Option opt;
        opt.blob_allocator = &blobs;
        opt.workspace_allocator = &workspace;
        {
            Mat top;
            EXPECT_EQ(refused < requests ? -100 : 0, op->forward(bottom.view(), top, opt));
        }
        EXPECT_EQ(0, blobs.alive);
        EXPECT_EQ(0, workspace.alive);
    }
    RecordingAllocator blobs, workspace;
    blobs.refuse_from = 0;
    Option opt;
    opt.blob_allocator = &blobs;
    opt.workspace_allocator = &workspace;
    Mat top;
    EXPECT_EQ(-100, op->forward(bottom.view(), top, opt));
    EXPECT_TRUE(top.empty());
    EXPECT_EQ(0, workspace.alive);
}

TEST_P(Convolution3x3ContractTest, RefusesBottomsThatLeaveNothingOfTop) {
    const Member3x3& member = GetParam();
    const int sizes[][2] = {{2, 16}, {16, 2}, {1, 1}, {2, 2}};
    for (const auto& size : sizes) {
        const ConvolutionProblem p = problem_3x3(member, 8, 8, size[0], size[1], 0, 0, seed);
        SCOPED_TRACE(p.text());
        if (member.needs_even && size[0] % 2 != 0) continue;
        const bool something = member.stride == 2 && size[0] > 1;
        auto op = loaded_operator(member.name, p);
        Bottom3x3 bottom(member, p);
        Mat top;
        EXPECT_EQ(something ? 0 : -100, op->forward(bottom.view(), top, get_default_option()));
    }
    auto op = loaded_operator(member.name, good_problem(member));
    Mat top;
    EXPECT_EQ(-100,
              op->forward(Mat(good_shape(member), nullptr, nullptr), top, get_default_option()));
}

TEST_P(Convolution3x3ContractTest, RefusesPaddingThatIsNoSizeWhereItLooksAtIt) {
    const Member3x3& member = GetParam();
    const int expected = member.top_left_border ? 0 : -100;
    for (int pad : {-1, -233, INT_MIN, INT_MAX, INT_MAX / 2}) {
        for (bool rows : {false, true}) {
            const ConvolutionProblem p = good_problem(member);
            ParamDict pd = p.parameters();
            pd.set(rows ? 8 : 7, pad);
            auto op = make_operator(member.name);
            ASSERT_EQ(0, op->load(pd, p.arrays(), {nullptr, 0, 0}));
            Bottom3x3 bottom(member, p);
            Mat top;
            AssertRecorder assertions;
            EXPECT_EQ(expected, op->forward(bottom.view(), top, get_default_option())) << pad;
        }
    }
}

TEST_P(Convolution3x3ScratchTest, FewerThanFourInputChannelsAreNoGroupOfFour) {
    const Member3x3& member = GetParam();
    for (int in : {1, 2, 3}) {
        const ConvolutionProblem p = problem_3x3(member, in, 4, 16, 16, 1, 1, seed);
        auto op = loaded_operator(member.name, p);
        Bottom3x3 bottom(member, p);
        Mat top;
        EXPECT_EQ(-100, op->forward(bottom.view(), top, get_default_option()));
    }
}

/// Where the weight of output n, input c and tap k lies in the form that the member reads.
size_t place_of_weight(const Member3x3& member, size_t n, size_t c, size_t k, size_t inputs) {
    if (member.input == Member3x3::Input::Blocks)
        return n % 4 + 4 * (c % 4) + 16 * k + 16 * 9 * (n / 4 * (inputs / 4) + c / 4);
    if (member.lanes_of_input()) return c % 4 + 4 * k + 4 * 9 * (n * (inputs / 4) + c / 4);
    // Four outputs in the lanes: the one class of planes that needs them in fours.
    if (member.needs_outputs_in_fours) return n % 4 + 4 * k + 4 * 9 * (n / 4 * inputs + c);
    return (n * inputs + c) * 9 + k;
}

TEST_P(Convolution3x3ContractTest, WeightsThatAreNotThereCountAsZero) {
    SCOPED_TRACE(seed);
    const Member3x3& member = GetParam();
    const ConvolutionProblem whole = good_problem(member);
    // Of the last output channel half is missing, and of a model that has none but the first few.
    for (size_t count : {whole.weights.size() - 36, size_t{100}, size_t{1}}) {
        ConvolutionProblem cut = whole, filled = whole;
        cut.weights.resize(count);
        // A packed form is as large as the weights: those that belong behind its end have no place
        // in it either.
        size_t left = 0;
        for (size_t i = 0; i < filled.weights.size(); ++i) {
            const size_t inputs = static_cast<size_t>(whole.in);
            const size_t place =
                place_of_weight(member, i / 9 / inputs, i / 9 % inputs, i % 9, inputs);
            if (i < count && place < count) {
                ++left;
            } else {
                filled.weights[i] = 0.0f;
            }
        }
        ASSERT_GT(left, 0u);
        PoisoningAllocator blobs, workspace;
        const Mat top = run_3x3(member, cut, blobs, workspace);
        const FlatWalk walk(member, filled);
        SCOPED_TRACE(testing::Message() << count << " weights, " << left << " in place");
        expect_top(walk.memory, walk.c, walk.h, walk.w, member, top);
    }
}

TEST_P(Convolution3x3ContractTest, BottomsOfOtherChannelsThanTheWeightsAreReadWithCare) {
    const Member3x3& member = GetParam();
    for (int in : {4, 8, 12, 100}) {
        for (int promised : {INT_MIN, -4, 0, 1, 4, 8, 12, INT_MAX}) {
            const ConvolutionProblem p = good_problem(member);
            ParamDict pd = p.parameters();
            pd.set(12, promised);
            auto op = make_operator(member.name);
            ASSERT_EQ(0, op->load(pd, p.arrays(), {nullptr, 0, 0}));
            const ConvolutionProblem other = problem_3x3(member, in, 8, 16, 16, 1, 1, seed);
            Bottom3x3 bottom(member, other);
            PoisoningAllocator blobs, workspace;
            Option opt;
            opt.blob_allocator = &blobs;
            opt.workspace_allocator = &workspace;
            Mat top;
            ASSERT_EQ(0, op->forward(bottom.view(), top, opt));
            for (float value : values_of(top))
                ASSERT_TRUE(std::isfinite(value)) << in << " " << promised;
        }
    }
}

TEST_P(Convolution3x3ContractTest, MoreOutputChannelsThanTheModelHasWeightsForGetTheirBias) {
    const Member3x3& member = GetParam();
    ConvolutionProblem p = good_problem(member);
    p.weights.assign(36, 0.0f);
    p.out = 1 << 9;
    p.bias = random_floats(static_cast<size_t>(p.out), seed);
    PoisoningAllocator blobs, workspace;
    const Mat top = run_3x3(member, p, blobs, workspace);
    const std::vector<float> values = planes_of_top(top);
    const size_t plane = values.size() / static_cast<size_t>(p.out);
    for (size_t i = 0; i < values.size(); ++i) ASSERT_EQ(p.bias[i / plane], values[i]);
}

TEST_P(Convolution3x3ContractTest, TopMayBeBottomOrShareItsBlock) {
    SCOPED_TRACE(seed);
    const Member3x3& member = GetParam();
    const ConvolutionProblem p = good_problem(member);
    auto op = loaded_operator(member.name, p);
    Bottom3x3 source(member, p);
    const std::vector<float> before = source.data;
    Mat expected;
    ASSERT_EQ(0, op->forward(source.view(), expected, get_default_option()));

    Mat same = source.view().clone(nullptr);
    ASSERT_EQ(0, op->forward(same, same, get_default_option()));
    EXPECT_EQ(values_of(expected), values_of(same));

    Mat bottom = source.view();
    Mat shared = bottom;
    ASSERT_EQ(0, op->forward(bottom, shared, get_default_option()));
    EXPECT_EQ(values_of(expected), values_of(shared));
    EXPECT_EQ(before, source.data);
}

TEST_P(Convolution3x3ContractTest, AsManyRunsAsOneLikesGiveTheSameBits) {
    const Member3x3& member = GetParam();
    const ConvolutionProblem p = good_problem(member);
    auto op = loaded_operator(member.name, p);
    Bottom3x3 bottom(member, p);
    Mat first, again;
    ASSERT_EQ(0, op->forward(bottom.view(), first, get_default_option()));
    ASSERT_EQ(0, op->forward(bottom.view(), again, get_default_option()));
    const void* block = again.data;
    ASSERT_EQ(0, op->forward(bottom.view(), again, get_default_option()));
    EXPECT_EQ(block, again.data) << "a block that fits stays";
    EXPECT_EQ(values_of(first), values_of(again));
}

}  // namespace
