// The 3x3 family over shapes that the tiles divide, and over those that they don't.

#include <gtest/gtest.h>

#include "support/convolutions_3x3.h"

namespace {

using namespace TarnoCPU;
using namespace testing_support;

constexpr unsigned int seed = 3306;

class Convolution3x3Test : public Test3x3 {};
class Convolution3x3LanesOfInputTest : public Test3x3 {};
class Convolution3x3RowsTest : public Test3x3 {};

INSTANTIATE_TEST_SUITE_P(AllMembers, Convolution3x3Test, testing::ValuesIn(members_3x3),
                         name_of_3x3);
INSTANTIATE_TEST_SUITE_P(InputChannelsInFours, Convolution3x3LanesOfInputTest,
                         testing::ValuesIn(members_3x3_where([](const Member3x3& member) {
                             return member.lanes_of_input();
                         })),
                         name_of_3x3);
// Less the one whose check lets no height pass that its tile does not divide.
INSTANTIATE_TEST_SUITE_P(OneOutputChannelAndSeveralRows, Convolution3x3RowsTest,
                         testing::ValuesIn(members_3x3_where([](const Member3x3& member) {
                             const bool always = member.needs_even && member.rows <= 2;
                             return member.outputs == 1 && member.rows > 1 && !always;
                         })),
                         name_of_3x3);

int multiple_of_inputs(const Member3x3& member) {
    return member.lanes_of_input() ? 4 : 1;
}
int multiple_of_outputs(const Member3x3& member) {
    return member.needs_outputs_in_fours ? 4 : member.outputs;
}

/// Bottom's size for `tiles` whole tiles in top.
int bottom_size(const Member3x3& member, int tile, int tiles, int pad) {
    const int top = tile * tiles;
    if (member.stride == 2) return pad == 0 && !member.top_left_border ? 2 * top + 1 : 2 * top;
    return pad == 0 ? top + 2 : top;
}

TEST_P(Convolution3x3Test, IsTheConvolutionOnPaperOnWholeTiles) {
    SCOPED_TRACE(seed);
    const Member3x3& member = GetParam();
    const int tile_counts[][2] = {{1, 1}, {1, 2}, {2, 1}, {3, 2}, {2, 5}};
    for (const auto& tiles : tile_counts) {
        for (int in : {1, 3, 4, 5, 8, 12, 16, 20}) {
            if (in % multiple_of_inputs(member) != 0) continue;
            for (int out : {1, 3, 4, 8, 20}) {
                if (out % multiple_of_outputs(member) != 0) continue;
                for (int pad : {0, 1}) {
                    // Without padding the bottom of stride 2 is odd, which some checks refuse.
                    if (pad == 0 && member.stride == 2 && member.needs_even) continue;
                    const ConvolutionProblem p = problem_3x3(
                        member, in, out, bottom_size(member, member.rows, tiles[0], pad),
                        bottom_size(member, member.columns, tiles[1], pad), pad, pad, seed);
                    SCOPED_TRACE(p.text());
                    expect_on_paper(member, p);
                    if (HasFatalFailure()) return;
                }
            }
        }
    }
}

TEST_P(Convolution3x3Test, IsTheConvolutionOnPaperOnALargePlane) {
    SCOPED_TRACE(seed);
    const Member3x3& member = GetParam();
    const int size = 32 * member.stride;
    const ConvolutionProblem p = problem_3x3(member, 16, 16, size, size, 1, 1, seed);
    expect_on_paper(member, p);
}

TEST_P(Convolution3x3Test, AgreesWithThePlainConvolutionUpToTheOrderOfTheSum) {
    SCOPED_TRACE(seed);
    const Member3x3& member = GetParam();
    const ConvolutionProblem p = problem_3x3(member, 12, 8, bottom_size(member, member.rows, 3, 1),
                                             bottom_size(member, member.columns, 3, 1), 1, 1, seed);
    PoisoningAllocator blobs, workspace;
    const Mat top = run_3x3(member, p, blobs, workspace);
    ConvolutionProblem plain_problem = p;
    Mat plain;
    ASSERT_EQ(0, loaded_operator("Convolution_Float_Fallback", p)
                     ->forward(plain_problem.bottom_view(), plain, get_default_option()));
    expect_same_sums(sums_on_paper(member, p), values_of(plain), planes_of_top(top));
}

TEST_P(Convolution3x3Test, AddsMarginsOfDifferentSizes) {
    SCOPED_TRACE(seed);
    const Member3x3& member = GetParam();
    // With more padding than the kernel needs, top keeps its size and shows the upper left part.
    for (int pad_h : {0, 1, 2, 3}) {
        for (int pad_w : {0, 1, 2, 3}) {
            const ConvolutionProblem p = problem_3x3(
                member, 4, 8, bottom_size(member, member.rows, 2, member.stride == 2 ? 1 : pad_h),
                bottom_size(member, member.columns, 2, member.stride == 2 ? 1 : pad_w), pad_h,
                pad_w, seed);
            SCOPED_TRACE(p.text());
            expect_on_flat_blocks(member, p);
            if (member.stride == 1 || member.top_left_border || (pad_h > 0 && pad_w > 0))
                expect_on_paper(member, p);
            if (HasFatalFailure()) return;
        }
    }
}

TEST_P(Convolution3x3Test, RunsOnInMemoryWhereTheTileDoesNotDivideTop) {
    SCOPED_TRACE(seed);
    const Member3x3& member = GetParam();
    for (int h = member.stride; h <= (member.rows + 3) * member.stride; ++h) {
        for (int w = member.stride; w <= (member.columns + 3) * member.stride; ++w) {
            if (member.needs_even && (h % 2 != 0 || w % 2 != 0)) continue;
            for (int pad : {0, 1}) {
                if (member.stride == 1 && pad == 0 && (h < 3 || w < 3)) continue;
                for (int out : {4, 5, 8}) {
                    if (member.needs_outputs_in_fours && out % 4 != 0) continue;
                    const ConvolutionProblem p = problem_3x3(member, 8, out, h, w, pad, pad, seed);
                    SCOPED_TRACE(p.text());
                    expect_on_flat_blocks(member, p);
                    if (HasFatalFailure()) return;
                }
            }
        }
    }
}

TEST_P(Convolution3x3LanesOfInputTest, LeavesOutTheInputChannelsBehindTheLastFour) {
    SCOPED_TRACE(seed);
    const Member3x3& member = GetParam();
    for (int in : {5, 6, 7, 9, 13}) {
        for (int out : {4, 8, 12}) {
            const ConvolutionProblem p =
                problem_3x3(member, in, out, bottom_size(member, member.rows, 2, 1),
                            bottom_size(member, member.columns, 2, 1), 1, 1, seed);
            SCOPED_TRACE(p.text());
            expect_on_flat_blocks(member, p);
            if (HasFatalFailure()) return;
        }
    }
}

TEST_P(Convolution3x3RowsTest, AHeightThatTheTileDoesNotDivideDoesNoHarm) {
    SCOPED_TRACE(seed);
    const Member3x3& member = GetParam();
    for (int rest = 1; rest < member.rows; ++rest) {
        const int h = (member.rows + rest) * member.stride;
        if (member.needs_even && h % 2 != 0) continue;
        const ConvolutionProblem p =
            problem_3x3(member, 4, 8, h, bottom_size(member, member.columns, 2, 1), 1, 1, seed);
        SCOPED_TRACE(p.text());
        expect_on_paper(member, p);
    }
}

TEST_P(Convolution3x3Test, AnInfinitySpoilsTheNinePixelsAroundItAndNoOther) {
    const Member3x3& member = GetParam();
    const int size = 16 * member.stride;
    ConvolutionProblem p = problem_3x3(member, 4, 4, size, size, 1, 1, seed);
    for (const auto& at : {std::pair<int, int>{5, 6}, {6, 7}, {8, 8}, {0, 0}, {size - 1, 3}}) {
        std::vector<float> bottom = p.bottom;
        for (float infinity :
             {std::numeric_limits<float>::infinity(), std::numeric_limits<float>::quiet_NaN()}) {
            p.bottom = bottom;
            p.bottom[static_cast<size_t>(at.first) * size + at.second] = infinity;
            PoisoningAllocator blobs, workspace;
            const Mat top = run_3x3(member, p, blobs, workspace);
            const std::vector<float> values = planes_of_top(top);
            for (int i = 0; i < 4 * 16 * 16; ++i) {
                const int y = i / 16 % 16 * member.stride - 1, x = i % 16 * member.stride - 1;
                const bool sees =
                    y <= at.first && at.first <= y + 2 && x <= at.second && at.second <= x + 2;
                ASSERT_EQ(!sees, std::isfinite(values[static_cast<size_t>(i)]))
                    << "element " << i << " with " << at.first << ", " << at.second;
            }
        }
        p.bottom = bottom;
    }
}

TEST_P(Convolution3x3Test, TakesViewsThatStartAtAnyFloat) {
    SCOPED_TRACE(seed);
    const Member3x3& member = GetParam();
    // Without a border the kernel reads the view itself. Those that refuse odd sizes read a
    // scratch.
    const int pad = member.needs_even && member.stride == 2 ? 1 : 0;
    const ConvolutionProblem p =
        problem_3x3(member, 8, 8, bottom_size(member, member.rows, 2, pad),
                    bottom_size(member, member.columns, 2, pad), pad, pad, seed);
    Bottom3x3 source(member, p);
    auto op = loaded_operator(member.name, p);
    Mat aligned;
    ASSERT_EQ(0, op->forward(source.view(), aligned, get_default_option()));
    for (size_t offset : {1u, 2u, 3u}) {
        std::vector<float> bottom(offset, 0.0f);
        bottom.insert(bottom.end(), source.data.begin(), source.data.end());
        std::vector<float> block(static_cast<size_t>(aligned.shape.total()) + offset);
        // A view of the right shape and allocator is a block that fits: it is written to.
        Mat top(aligned.shape, block.data() + offset, nullptr);
        ASSERT_EQ(0, op->forward(Mat(source.shape, bottom.data() + offset, nullptr), top,
                                 get_default_option()));
        EXPECT_EQ(block.data() + offset, top.data);
        EXPECT_EQ(values_of(aligned), values_of(top));
    }
}

TEST(Convolution3x3Shapes, M1OnEightByEightWithPaddingKeepsTheSize) {
    const Member3x3& member = member_3x3("Convolution_3x3s1_Float_SSE_M1");
    const ConvolutionProblem p = problem_3x3(member, 3, 2, 8, 8, 1, 1, seed);
    EXPECT_EQ(8, out_height(member, p));
    EXPECT_EQ(8, out_width(member, p));
    expect_on_paper(member, p);
}

TEST(Convolution3x3Shapes, M1IsOneChainOfFloatsFromTheBiasOnInTheOrderOfChannelsRowsAndColumns) {
    const Member3x3& member = member_3x3("Convolution_3x3s1_Float_SSE_M1");
    // The second height does not divide by the tile.
    for (int h : {8, 10}) {
        const ConvolutionProblem p = problem_3x3(member, 7, 3, h, 12, 1, 1, seed);
        std::vector<float> padded(static_cast<size_t>(7 * (h + 2) * 14), 0.0f);
        for (int i = 0; i < 7 * h * 12; ++i) {
            const int q = i / (h * 12), y = i / 12 % h, x = i % 12;
            padded[static_cast<size_t>((q * (h + 2) + y + 1) * 14 + x + 1)] =
                p.bottom[static_cast<size_t>(i)];
        }
        std::vector<float> chains;
        for (int i = 0; i < 3 * h * 12; ++i) {
            const int o = i / (h * 12), y = i / 12 % h, x = i % 12;
            float sum = p.bias[static_cast<size_t>(o)];
            for (int k = 0; k < 7 * 9; ++k) {
                const int row = k / 9 * (h + 2) + y + k / 3 % 3;
                const float product = padded[static_cast<size_t>(row * 14 + x + k % 3)] *
                                      p.weights[static_cast<size_t>(o * 63 + k)];
                sum += product;
            }
            chains.push_back(sum);
        }
        PoisoningAllocator blobs, workspace;
        EXPECT_EQ(chains, values_of(run_3x3(member, p, blobs, workspace)));
    }
}

TEST(Convolution3x3Shapes, WithoutPaddingTenByTenGivesEightByEight) {
    for (const Member3x3& member : members_3x3) {
        if (member.stride != 1) continue;
        SCOPED_TRACE(member.name);
        const ConvolutionProblem p = problem_3x3(member, 4, 4, 10, 10, 0, 0, seed);
        EXPECT_EQ(8, out_height(member, p));
        EXPECT_EQ(8, out_width(member, p));
        expect_on_paper(member, p);
    }
}

TEST(Convolution3x3Shapes, Stride2M1AddsARowAndAColumnAtTheTopAndTheLeft) {
    const Member3x3& member = member_3x3("Convolution_3x3s2_Float_SSE_M1");
    // The padding of the parameters is not looked at.
    for (int pad : {0, 1, 2}) {
        const ConvolutionProblem p = problem_3x3(member, 1, 1, 8, 8, pad, pad, seed);
        PoisoningAllocator blobs;
        RecordingAllocator workspace;
        const Mat top = run_3x3(member, p, blobs, workspace);
        EXPECT_EQ(chw(1, 4, 4), top.shape);
        EXPECT_EQ(std::vector<unsigned int>{RecordingAllocator::block(9 * 9)}, workspace.sizes);
        expect_on_paper(member, p);
    }
}

TEST(Convolution3x3Shapes, Stride2M1AndM2AddNoRowToAnOddHeightAndNoColumnToAnOddWidth) {
    for (const char* name : {"Convolution_3x3s2_Float_SSE_M1", "Convolution_3x3s2_Float_SSE_M2"}) {
        const Member3x3& member = member_3x3(name);
        for (int h : {16, 17}) {
            for (int w : {8, 9}) {
                const ConvolutionProblem p = problem_3x3(member, 2, 2, h, w, 1, 1, seed);
                SCOPED_TRACE(name + p.text());
                PoisoningAllocator blobs;
                RecordingAllocator workspace;
                run_3x3(member, p, blobs, workspace);
                const bool bordered = h % 2 == 0 || w % 2 == 0;
                EXPECT_EQ(bordered ? 1u : 0u, workspace.sizes.size());
                if (bordered) {
                    EXPECT_EQ(RecordingAllocator::block(2 * (h + 1 - h % 2) * (w + 1 - w % 2)),
                              workspace.sizes[0]);
                }
                expect_on_paper(member, p);
            }
        }
    }
}

TEST(Convolution3x3Shapes, Stride2WithoutPaddingReadsIntoTheNextRowAndTheNextChannel) {
    // An even bottom without a border: the last taps of a row belong to the next one, those of a
    // channel to the next channel, and those behind the block are 0.
    for (const Member3x3& member : members_3x3) {
        if (member.stride != 2 || member.top_left_border || !member.runs_here()) continue;
        SCOPED_TRACE(member.name);
        expect_on_flat_blocks(member, problem_3x3(member, 8, 4, 16, 16, 0, 0, seed));
    }
}

TEST(Convolution3x3Shapes, TheMarginOfC4HW4IsFourFloatsAPixel) {
    for (const char* name :
         {"Convolution_3x3s1_Float_SSE_C4HW4_M1", "Convolution_3x3s2_Float_SSE_C4HW4_M1"}) {
        const Member3x3& member = member_3x3(name);
        const ConvolutionProblem p = problem_3x3(member, 8, 12, 6, 10, 1, 2, seed);
        PoisoningAllocator blobs;
        RecordingAllocator workspace;
        const Mat top = run_3x3(member, p, blobs, workspace);
        EXPECT_EQ(std::vector<unsigned int>{RecordingAllocator::block(2 * 8 * 4 * 14)},
                  workspace.sizes);
        const int out_h = member.stride == 1 ? 6 : 3, out_w = member.stride == 1 ? 10 : 5;
        EXPECT_EQ(TensorShape(TensorShape::C4HW4, 3, out_h, out_w * 4, 4), top.shape);
    }
}

TEST(Convolution3x3Shapes, C4HW4DropsTheOutputChannelsBehindTheLastFour) {
    for (const char* name :
         {"Convolution_3x3s1_Float_SSE_C4HW4_M1", "Convolution_3x3s2_Float_SSE_C4HW4_M1"}) {
        const Member3x3& member = member_3x3(name);
        for (int out : {5, 6, 7, 9}) {
            const ConvolutionProblem p = problem_3x3(member, 8, out, 6, 6, 1, 1, seed);
            SCOPED_TRACE(p.text());
            expect_on_flat_blocks(member, p);
        }
    }
}

}  // namespace
