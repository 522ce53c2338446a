// The depthwise convolutions where the top does not divide by their tiles: the walk goes on in
// memory order, and only the ends of the blocks stop it.

#include <algorithm>

#include "support/blocked_convolutions.h"

namespace {

using namespace TarnoCPU;
using namespace testing_support;

struct Member {
    const char* name;
    int stride;
    int unit;  // floats of a pixel
    int rows, columns;
    int block;  // columns done in all rows before the next ones
};

std::ostream& operator<<(std::ostream& stream, const Member& member) {
    return stream << member.name;
}

const Member members[] = {
    {"Depthewise_Convolution_3x3s1_Float_SSE_M1", 1, 1, 1, 4, 1 << 20},
    {"Depthewise_Convolution_3x3s1_Float_SSE_M2", 1, 1, 4, 4, 1 << 20},
    {"Depthewise_Convolution_3x3s1_Float_SSE_M3", 1, 1, 4, 4, 1 << 20},
    {"Depthewise_Convolution_3x3s1_Float_SSE_M4", 1, 1, 4, 4, 32},
    {"Depthewise_Convolution_3x3s1_Float_SSE_C4HW4_M1", 1, 4, 1, 1, 1 << 20},
    {"Depthewise_Convolution_3x3s1_Float_SSE_C4HW4_M2", 1, 4, 2, 2, 1 << 20},
    {"Depthewise_Convolution_3x3s1_Float_SSE_C4HW4_M3", 1, 4, 4, 4, 1 << 20},
    {"Depthewise_Convolution_3x3s2_Float_SSE_M1", 2, 1, 1, 1, 1 << 20},
    {"Depthewise_Convolution_3x3s2_Float_SSE_M2", 2, 1, 1, 4, 1 << 20},
    {"Depthewise_Convolution_3x3s2_Float_SSE_M3", 2, 1, 4, 4, 1 << 20},
    {"Depthewise_Convolution_3x3s2_Float_SSE_C4HW4_M1", 2, 4, 1, 1, 1 << 20},
    {"Depthewise_Convolution_3x3s1_Float_AVX2_M1", 1, 1, 1, 8, 1 << 20},
    {"Depthewise_Convolution_3x3s1_Float_AVX2_M2", 1, 1, 4, 8, 1 << 20},
    {"Depthewise_Convolution_3x3s1_Float_AVX2_M3", 1, 1, 8, 8, 1 << 20},
    {"Depthewise_Convolution_3x3s2_Float_AVX2_M1", 2, 1, 1, 8, 1 << 20},
};

class DepthwiseWalks : public testing::TestWithParam<Member> {};

TEST_P(DepthwiseWalks, TilesThatStickOutGoOnInTheNextRowAndThePlaneBehindOverwritesThem) {
    const Member& member = GetParam();
    if (!machine_has(find_operator(member.name)->isa))
        GTEST_SKIP() << "needs an instruction set that is not here";
    const int unit = member.unit, stride = member.stride;
    for (int h : {1, 2, 3, 5, 7, 9, 13, 16}) {
        for (int columns : {1, 2, 3, 5, 6, 7, 9, 11, 13, 19, 33, 38, 67, 75}) {
            const unsigned int seed = 300 + h * 100 + columns;
            SCOPED_TRACE(testing::Message()
                         << member << " on " << h << "x" << columns << ", seed " << seed);
            // A bottom of one pixel has no half.
            const int row = columns * unit / stride, rows = h / stride;
            const int planes = 3;
            const auto bottom =
                random_floats(static_cast<size_t>(planes) * h * columns * unit, seed);
            const auto weights = random_floats(static_cast<size_t>(planes) * unit * 9, seed + 1);
            const auto bias = random_floats(static_cast<size_t>(planes) * unit, seed + 2);
            LayerParams params;
            params.num_output = planes * unit;
            params.kernel = 3;
            params.stride = stride;
            params.pad = 1;
            params.weight_count = planes * unit * 9;
            params.group = planes * unit;
            auto op = make_loaded(member.name, params, weights, bias);
            const TensorShape shape =
                unit == 4 ? c4hw4(planes * 4, h, columns) : chw(planes, h, columns);
            ExactBlock block(bottom);
            if (row == 0 || rows == 0) {
                Mat top;
                EXPECT_EQ(-100, op->forward(block.view(shape), top, get_default_option()));
                continue;
            }

            // Border and top as memory, with room behind them.
            const int bw = (columns + 2) * unit, bh = h + 2;
            std::vector<float> in(static_cast<size_t>(planes) * bh * bw + 20 * bw + 200, 0.0f);
            for (int g = 0; g < planes; ++g) {
                for (int y = 0; y < h; ++y) {
                    for (int i = 0; i < columns * unit; ++i) {
                        in[(static_cast<size_t>(g) * bh + y + 1) * bw + unit + i] =
                            bottom[(static_cast<size_t>(g) * h + y) * columns * unit + i];
                    }
                }
            }
            const size_t total = static_cast<size_t>(planes) * rows * row;
            std::vector<ExactSum> out(total + 20 * row + 200);
            for (int g = 0; g < planes; ++g) {
                for (int start = 0; start < row; start += member.block) {
                    for (int y = 0; y < rows; y += member.rows) {
                        const int end = std::min(row, start + member.block);
                        for (int x = start; x < end; x += member.columns * unit) {
                            for (int i = 0; i < member.rows; ++i) {
                                for (int j = 0; j < member.columns * unit; ++j) {
                                    const int lane = j % unit;
                                    // Of the output's pixel, at the stride of the input.
                                    const size_t from = static_cast<size_t>(g) * bh * bw +
                                                        static_cast<size_t>(y + i) * stride * bw +
                                                        static_cast<size_t>(x + j - lane) * stride +
                                                        lane;
                                    ExactSum sum;
                                    for (int k = 0; k < 9; ++k) {
                                        sum.add(double{in[from + k / 3 * bw + k % 3 * unit]} *
                                                weights[(g * unit + lane) * 9 + k]);
                                    }
                                    sum.add(bias[g * unit + lane]);
                                    out[(static_cast<size_t>(g) * rows + y + i) * row + x + j] =
                                        sum;
                                }
                            }
                        }
                    }
                }
            }
            out.resize(total);

            ExactBlock top_block(std::vector<float>(total, std::nanf("")));
            TensorShape top_shape = shape;
            top_shape.h = rows;
            top_shape.w = row;
            Mat top = top_block.view(top_shape);
            ASSERT_EQ(0, op->forward(block.view(shape), top, get_default_option()));
            EXPECT_EQ(top_block.data(), top.data);
            ASSERT_NO_FATAL_FAILURE(expect_sums(out, values_of(top)));
        }
    }
}

INSTANTIATE_TEST_SUITE_P(All, DepthwiseWalks, testing::ValuesIn(members),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
