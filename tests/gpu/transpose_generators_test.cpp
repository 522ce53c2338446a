// Transposed convolutions of stride 2 on the GPU against sums in double.
#include <gtest/gtest.h>
#include <tarno/gpu.h>

#include <memory>
#include <string>
#include <vector>

#include "gpu/opengl/glcnn/src/tesk/tricks/tricks_transpose_conv2d.h"
#include "support/gpu_convolutions.h"
#include "support/gpu_dispatches.h"
#include "support/recorders.h"

namespace {

using namespace testing_support;

/// Per direction: input position x and tap k meet at output 2 * x + k - shift.
struct Form {
    const char* name;
    int kernel_w;
    int kernel_h;
    int shift_x;
    int shift_y;
    bool odd_rows;        ///< whether rows 1, 3, ... are written
    bool constant_index;  ///< stores after each input slice, and does not move the input by the pad
    std::unique_ptr<tesk::Tricks> (*make)(tesk::ComputeProgramManager* manager);
};

template <typename Generator>
std::unique_ptr<tesk::Tricks> make(tesk::ComputeProgramManager* manager) {
    return std::make_unique<Generator>(manager);
}

const Form forms[] = {
    {"Basic_3x3", 3, 3, 1, 1, true, false, &make<tesk::Tricks_Transpose_Conv2d_3x3_Basic>},
    {"Basic_2x2", 2, 2, 0, 0, true, false, &make<tesk::Tricks_Transpose_Conv2d_2x2_Basic>},
    {"Basic_1x7", 7, 1, 4, 0, false, false, &make<tesk::Tricks_Transpose_Conv2d_1x7_Basic>},
    {"CI_3x3", 3, 3, 1, 1, true, true, &make<tesk::Tricks_Transpose_Conv2d_3x3_CI>},
    {"CI_2x2", 2, 2, 0, 0, true, true, &make<tesk::Tricks_Transpose_Conv2d_2x2_CI>},
    {"CI_1x7", 7, 1, 4, 0, false, true, &make<tesk::Tricks_Transpose_Conv2d_1x7_CI>},
};

class TransposeTest : public GpuTest {
protected:
    /// The padding moves the window: by kernel / 2 - padding input pixels (one pass), or output
    /// pixels (constant index).
    static Expected reference(const Form& form, const ConvolutionCase& tested, const Tensor& input,
                              const ConvolutionLayer<ZQLayerInfo_Conv2DTranspose>& layer, int o,
                              int y, int x) {
        const int move_x = tested.kernel_w / 2 - tested.pad_x;
        const int move_y = tested.kernel_h / 2 - tested.pad_y;
        const int out_x = form.constant_index ? x - move_x : x;
        const int out_y = form.constant_index ? y - move_y : y;
        const int in_move_x = form.constant_index ? 0 : move_x;
        const int in_move_y = form.constant_index ? 0 : move_y;
        FloatSum all;
        Expected chained;
        for (int slice = 0; slice < (tested.in_channels + 3) / 4; ++slice) {
            FloatSum part;
            for (int i = 4 * slice; i < 4 * slice + 4 && i < tested.in_channels; ++i) {
                for (int in_y = -1; in_y <= input.height; ++in_y) {
                    for (int in_x = -3; in_x <= input.width + 2; ++in_x) {
                        const int kx = out_x + form.shift_x - 2 * in_x;
                        const int ky = out_y + form.shift_y - 2 * in_y;
                        if (kx < 0 || ky < 0 || kx >= tested.kernel_w || ky >= tested.kernel_h) {
                            continue;
                        }
                        const int from_x = in_x + in_move_x;
                        const int from_y = in_y + in_move_y;
                        if (from_x < 0 || from_y < 0 || from_x >= input.width ||
                            from_y >= input.height) {
                            continue;
                        }
                        const double product =
                            layer.weight(o, ky, kx, i) * input.at(i, from_y, from_x);
                        part.add(product);
                        all.add(product);
                    }
                }
            }
            const Expected one = part.result();
            chained = stored(
                {chained.value + one.value,
                 chained.bound + one.bound + std::ldexp(std::fabs(chained.value) + 1.0, -24)});
        }
        Expected sum = form.constant_index ? chained : all.result();
        if (tested.has_bias) {
            sum.value += layer.bias[static_cast<size_t>(o)];
            sum.bound += std::ldexp(std::fabs(sum.value) + 1.0, -24);
        }
        return stored(activated(sum, tested.activation));
    }

    /// Compares where the form writes: the output pixels 2 * x to 2 * x + 1 of the input's x.
    void check(const Form& form, ConvolutionCase tested) {
        tested.kernel_w = form.kernel_w;
        tested.kernel_h = form.kernel_h;
        tested.stride_x = tested.stride_y = 2;
        SCOPED_TRACE(std::string(form.name) + ": " + tested.text());
        ConvolutionLayer<ZQLayerInfo_Conv2DTranspose> layer(tested);
        const Tensor input = random_halves(tested.in_channels, tested.in_height, tested.in_width,
                                           tested.seed + 1000);
        const std::unique_ptr<tesk::Tricks> generator = form.make(&manager);
        generator->setup(&layer.record);
        const std::shared_ptr<tesk::Image> in = upload(input, GL_RGBA16F, 3.0f);
        const std::shared_ptr<tesk::Image> out =
            make_output(tested.out_channels, tested.out_height, tested.out_width);
        generator->compute(in.get(), out.get());
        const Tensor result = read_back(*out);
        Mismatches wrong;
        for (int o = 0; o < tested.out_channels; ++o) {
            for (int y = 0; y < tested.out_height; ++y) {
                for (int x = 0; x < tested.out_width; ++x) {
                    if (!form.odd_rows && y % 2 == 1) {
                        // Not written by the one-pass form; cleared by the other.
                        if (!form.constant_index) {
                            EXPECT_TRUE(std::isnan(result.at(o, y, x)));
                        }
                        continue;
                    }
                    wrong.compare(o, y, x, reference(form, tested, input, layer, o, y, x),
                                  result.at(o, y, x));
                }
            }
        }
        EXPECT_EQ(wrong.count(), 0);
    }

    /// The padding at which a form does not move its window.
    static ConvolutionCase base_case(const Form& form) {
        ConvolutionCase tested;
        tested.in_width = 5;
        tested.in_height = 5;
        tested.out_width = 10;
        tested.out_height = 10;
        tested.pad_x = form.kernel_w / 2;
        tested.pad_y = form.kernel_h / 2;
        return tested;
    }
};

class EachTranspose : public TransposeTest, public testing::WithParamInterface<Form> {};

TEST_P(EachTranspose, AgreesForAllChannelCounts) {
    unsigned int seed = 1;
    const int channel_counts[] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 16};
    for (const int in_channels : channel_counts) {
        ConvolutionCase tested = base_case(GetParam());
        tested.in_channels = in_channels;
        tested.out_channels = channel_counts[(seed * 3) % 10];
        tested.seed = seed++;
        check(GetParam(), tested);
    }
}

TEST_P(EachTranspose, AgreesForOddSizesAndOnePixel) {
    const int sizes[][4] = {{5, 5, 9, 9}, {9, 3, 18, 5}, {1, 1, 1, 1}, {1, 1, 2, 2}};
    unsigned int seed = 50;
    for (const auto& size : sizes) {
        ConvolutionCase tested = base_case(GetParam());
        tested.in_width = size[0];
        tested.in_height = size[1];
        tested.out_width = size[2];
        tested.out_height = size[3];
        tested.in_channels = 3;
        tested.out_channels = 6;
        tested.seed = seed++;
        check(GetParam(), tested);
    }
}

TEST_P(EachTranspose, AgreesForTheActivationCodesThatItKnows) {
    for (const int code : {0, 1, 2, 3, 4, 8}) {
        ConvolutionCase tested = base_case(GetParam());
        tested.in_channels = 4;
        tested.out_channels = 5;
        tested.activation = code;
        tested.has_bias = code != 4;
        tested.seed = 80 + static_cast<unsigned int>(code);
        check(GetParam(), tested);
    }
}

TEST_P(EachTranspose, AgreesWithUniformBlocks) {
    const Form& form = GetParam();
    manager.uboSliceLimit = 4;
    // Four output slices to a block; constant indices take one, two, three or four at a time.
    const int in_slices = 3;
    manager.maxUniformBlockSize = 4 * in_slices * form.kernel_w * form.kernel_h * 32;
    struct Case {
        int out_channels, blocks, constant_blocks;
    };
    const Case cases[] = {{3, 1, 1}, {13, 1, 1}, {24, 2, 2}, {32, 2, 2}, {64, 4, 4}};
    for (const Case& each : cases) {
        if (form.constant_index && each.out_channels > 24) continue;
        ConvolutionCase tested = base_case(form);
        tested.in_channels = 9;
        tested.out_channels = each.out_channels;
        tested.seed = 90 + static_cast<unsigned int>(each.out_channels);
        const DispatchRecorder dispatches;
        check(form, tested);
        EXPECT_EQ(dispatches.with_uniform_weights(),
                  form.constant_index ? in_slices * each.constant_blocks : each.blocks)
            << each.out_channels << " output channels";
    }
}

INSTANTIATE_TEST_SUITE_P(Gpu, EachTranspose, testing::ValuesIn(forms),
                         [](const testing::TestParamInfo<Form>& tested) {
                             return std::string(tested.param.name);
                         });

TEST_F(TransposeTest, FiveByFiveWritesTenByTenWhateverTheSizeOfTheImage) {
    const Form& form = forms[0];
    ASSERT_STREQ(form.name, "Basic_3x3");
    for (const int side : {9, 10, 20}) {
        ConvolutionCase tested = base_case(form);
        tested.kernel_w = tested.kernel_h = 3;
        tested.stride_x = tested.stride_y = 2;
        tested.in_channels = 3;
        tested.out_channels = 6;
        tested.out_width = tested.out_height = side;
        tested.seed = 130;
        ConvolutionLayer<ZQLayerInfo_Conv2DTranspose> layer(tested);
        const Tensor input = random_halves(3, 5, 5, 131);
        const std::unique_ptr<tesk::Tricks> generator = form.make(&manager);
        generator->setup(&layer.record);
        const std::shared_ptr<tesk::Image> in = upload(input);
        const std::shared_ptr<tesk::Image> out = make_output(6, side, side);
        generator->compute(in.get(), out.get());
        const Tensor result = read_back(*out);
        Mismatches wrong;
        for (int o = 0; o < 6; ++o) {
            for (int y = 0; y < side; ++y) {
                for (int x = 0; x < side; ++x) {
                    const double found = result.at(o, y, x);
                    if (x < 10 && y < 10) {
                        wrong.compare(o, y, x, reference(form, tested, input, layer, o, y, x),
                                      found);
                    } else if (x < 16 && y < 16) {
                        // The rest of the work group stands beside the input and stores the bias.
                        EXPECT_EQ(found, layer.bias[static_cast<size_t>(o)]) << x << ", " << y;
                    } else {
                        EXPECT_TRUE(std::isnan(found)) << x << ", " << y;
                    }
                }
            }
        }
        EXPECT_EQ(wrong.count(), 0) << side;
    }
}

TEST_F(TransposeTest, AnotherPaddingMovesTheWindow) {
    for (const Form& form : {forms[0], forms[1]}) {
        ConvolutionCase tested = base_case(form);
        tested.pad_x = 0;
        tested.in_channels = 4;
        tested.out_channels = 4;
        check(form, tested);
    }
}

TEST_F(TransposeTest, AnUnknownActivationFailsTheAssertion) {
    ConvolutionCase tested = base_case(forms[0]);
    tested.kernel_w = tested.kernel_h = 3;
    tested.stride_x = tested.stride_y = 2;
    tested.activation = 6;
    ConvolutionLayer<ZQLayerInfo_Conv2DTranspose> layer(tested);
    AssertRecorder assertions;
    forms[0].make(&manager)->setup(&layer.record);
    ASSERT_EQ(assertions.count("NULL"), 1u);
    EXPECT_EQ(assertions.last().source, "shaderformat");
}

}  // namespace
