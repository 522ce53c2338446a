// Direct convolutions on the GPU against sums in double.
#include <gtest/gtest.h>
#include <tarno/gpu.h>

#include <algorithm>
#include <iterator>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "gpu/opengl/glcnn/src/tesk/tricks/tricks_conv2d_1x1.h"
#include "gpu/opengl/glcnn/src/tesk/tricks/tricks_conv2d_kxk.h"
#include "support/gpu_convolutions.h"
#include "support/gpu_dispatches.h"
#include "support/recorders.h"

namespace {

using namespace testing_support;

enum class Rounding { Once, AfterEachInputSlice };

struct Form {
    const char* name;
    int kernel_w;
    int kernel_h;
    int first_x;  ///< leftmost tap from the centre
    int first_y;
    bool dilates;
    Rounding rounding;
    std::unique_ptr<tesk::Tricks> (*make)(tesk::ComputeProgramManager* manager);
};

template <typename Generator>
std::unique_ptr<tesk::Tricks> make(tesk::ComputeProgramManager* manager) {
    return std::make_unique<Generator>(manager);
}

#define BASIC(k, w, h, x, y, d) \
    {"Basic_" #k, w, h, x, y, d, Rounding::Once, &make<tesk::Tricks_Conv2d_##k##_Basic>}
#define CONSTANT_INDEX(k, w, h, x, y, d) \
    {"CI_" #k, w, h, x, y, d, Rounding::AfterEachInputSlice, &make<tesk::Tricks_Conv2d_##k##_CI>}

const std::vector<Form>& forms() {
    static const std::vector<Form> list = {
        BASIC(1x1, 1, 1, 0, 0, false),
        BASIC(1x3, 3, 1, -1, 0, false),
        BASIC(3x1, 1, 3, 0, -1, false),
        BASIC(3x3, 3, 3, -1, -1, true),
        BASIC(4x4, 4, 4, -2, -2, false),
        BASIC(1x5, 5, 1, -2, 0, false),
        BASIC(5x1, 1, 5, 0, -2, false),
        BASIC(5x5, 5, 5, -2, -2, false),
        BASIC(1x7, 7, 1, -3, 0, false),
        BASIC(7x1, 1, 7, 0, -3, false),
        CONSTANT_INDEX(1x1, 1, 1, 0, 0, false),
        CONSTANT_INDEX(1x3, 3, 1, -1, 0, false),
        CONSTANT_INDEX(3x1, 1, 3, 0, -1, false),
        CONSTANT_INDEX(3x3, 3, 3, -1, -1, true),
        CONSTANT_INDEX(1x5, 5, 1, -2, 0, false),
        CONSTANT_INDEX(5x1, 1, 5, 0, -2, false),
        CONSTANT_INDEX(5x5, 5, 5, -2, -2, false),
        CONSTANT_INDEX(1x7, 7, 1, -3, 0, false),
        CONSTANT_INDEX(7x1, 1, 7, 0, -3, false),
        {"4PointsOut_1x1", 1, 1, 0, 0, false, Rounding::Once,
         &make<tesk::Tricks_Conv2d_1x1_4PointsOut>},
        {"4Points_2Slice_1x1", 1, 1, 0, 0, false, Rounding::Once,
         &make<tesk::Tricks_Conv2d_1x1_4Points_2Slice>},
        {"4Points_4Slice_1x1", 1, 1, 0, 0, false, Rounding::Once,
         &make<tesk::Tricks_Conv2d_1x1_4Points_4Slice>},
    };
    return list;
}

/// One output value: padding counts as zeros, the centre tap stands at stride * position + centre -
/// padding / dilation.
Expected reference(const Form& form, const ConvolutionCase& tested, const Tensor& input,
                   const ConvolutionLayer<ZQLayerInfo_Conv2D>& layer, int o, int y, int x) {
    const int step_x = form.dilates ? tested.dilation_x : 1;
    const int step_y = form.dilates ? tested.dilation_y : 1;
    const int centre_x =
        x * tested.stride_x + tested.kernel_w / 2 - tested.pad_x / tested.dilation_x;
    const int centre_y =
        y * tested.stride_y + tested.kernel_h / 2 - tested.pad_y / tested.dilation_y;
    Expected sum;
    FloatSum all;
    for (int slice = 0; slice < (tested.in_channels + 3) / 4; ++slice) {
        FloatSum part;
        for (int i = 4 * slice; i < 4 * slice + 4 && i < tested.in_channels; ++i) {
            for (int ky = 0; ky < tested.kernel_h; ++ky) {
                for (int kx = 0; kx < tested.kernel_w; ++kx) {
                    const int in_x = centre_x + (form.first_x + kx) * step_x;
                    const int in_y = centre_y + (form.first_y + ky) * step_y;
                    if (in_x < 0 || in_y < 0 || in_x >= input.width || in_y >= input.height) {
                        continue;
                    }
                    const double product = layer.weight(o, ky, kx, i) * input.at(i, in_y, in_x);
                    part.add(product);
                    all.add(product);
                }
            }
        }
        // Sums of single slices are stored one on top of the other.
        const Expected one = part.result();
        sum = stored({sum.value + one.value,
                      sum.bound + one.bound + std::ldexp(std::fabs(sum.value) + 1.0, -24)});
    }
    if (form.rounding == Rounding::Once) sum = all.result();
    if (tested.has_bias) {
        sum.value += layer.bias[static_cast<size_t>(o)];
        sum.bound += std::ldexp(std::fabs(sum.value) + 1.0, -24);
    }
    return stored(activated(sum, tested.activation));
}

class ConvolutionTest : public GpuTest {
protected:
    struct Layer : ConvolutionLayer<ZQLayerInfo_Conv2D> {
        explicit Layer(const ConvolutionCase& tested) : ConvolutionLayer(tested) {
            record.dilation_w = static_cast<unsigned short>(tested.dilation_x);
            record.dilation_h = static_cast<unsigned short>(tested.dilation_y);
        }
    };

    void check(const Form& form, ConvolutionCase tested) {
        tested.kernel_w = form.kernel_w;
        tested.kernel_h = form.kernel_h;
        SCOPED_TRACE(std::string(form.name) + ": " + tested.text());
        Layer layer(tested);
        const Tensor input = random_halves(tested.in_channels, tested.in_height, tested.in_width,
                                           tested.seed + 1000);
        const std::unique_ptr<tesk::Tricks> generator = form.make(&manager);
        generator->setup(&layer.record);
        // What the last slice holds beyond the channels meets weights of 0.
        const std::shared_ptr<tesk::Image> in = upload(input, GL_RGBA16F, 3.0f);
        const std::shared_ptr<tesk::Image> out =
            make_output(tested.out_channels, tested.out_height, tested.out_width);
        generator->compute(in.get(), out.get());
        const Tensor result = read_back(*out);
        Mismatches wrong;
        for (int o = 0; o < tested.out_channels; ++o) {
            for (int y = 0; y < tested.out_height; ++y) {
                for (int x = 0; x < tested.out_width; ++x) {
                    wrong.compare(o, y, x, reference(form, tested, input, layer, o, y, x),
                                  result.at(o, y, x));
                }
            }
        }
        EXPECT_EQ(wrong.count(), 0);
    }

    /// Names of the programs that `manager` gains while `work` runs.
    template <typename Work>
    int programsMadeBy(const Work& work) {
        const int before = manager.programCount();
        work();
        return manager.programCount() - before;
    }
};

class EachConvolution : public ConvolutionTest, public testing::WithParamInterface<Form> {};

bool has_points(const Form& form) { return std::string(form.name).rfind("4Point", 0) == 0; }
bool is_four_slice(const Form& form) { return std::string(form.name) == "4Points_4Slice_1x1"; }

const int channel_counts[] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 16};

TEST_P(EachConvolution, AgreesForAllChannelCounts) {
    const Form& form = GetParam();
    std::set<int> inputs, outputs;
    unsigned int seed = 1;
    for (int i = 0; i < 10; ++i) {
        const int in_channels = channel_counts[i];
        if (is_four_slice(form) && in_channels <= 4) continue;  // does not compile
        // 3 and 10 have no common factor, so that the outputs run through all ten, too. Those forms
        // that name the output channels share few programs.
        for (const int shift : {0, 5}) {
            if (shift > 0 && form.rounding == Rounding::AfterEachInputSlice) continue;
            ConvolutionCase tested;
            tested.in_channels = in_channels;
            tested.out_channels = channel_counts[(3 * i + shift) % 10];
            tested.seed = seed++;
            check(form, tested);
            inputs.insert(tested.in_channels);
            outputs.insert(tested.out_channels);
        }
    }
    const std::set<int> all(std::begin(channel_counts), std::end(channel_counts));
    EXPECT_EQ(outputs, all);
    EXPECT_EQ(inputs, is_four_slice(form) ? (std::set<int>{5, 6, 7, 8, 9, 16}) : all);
}

TEST_P(EachConvolution, AgreesForStridesPaddingsAndSizes) {
    const Form& form = GetParam();
    struct Geometry {
        int in_width, in_height, out_width, out_height, pad_x, pad_y, stride_x, stride_y;
    };
    const Geometry geometries[] = {
        {17, 9, 17, 9, form.kernel_w / 2, form.kernel_h / 2, 1, 1},
        {16, 8, 8, 4, form.kernel_w / 2, form.kernel_h / 2, 2, 2},
        {13, 10, 7, 10, 1, 0, 2, 1},
        {13, 11, 13, 4, 0, 1, 1, 3},
        {5, 5, 1, 1, 0, 0, 1, 1},
        {1, 1, 1, 1, form.kernel_w / 2, form.kernel_h / 2, 1, 1},
        {33, 3, 35, 5, 2, 2, 1, 1},
    };
    unsigned int seed = 100;
    for (const Geometry& geometry : geometries) {
        if (is_four_slice(form) && geometry.stride_x * geometry.stride_y != 1) continue;
        ConvolutionCase tested;
        tested.in_channels = 6;
        tested.out_channels = seed % 2 == 0 ? 7 : 3;
        tested.in_width = geometry.in_width;
        tested.in_height = geometry.in_height;
        tested.out_width = geometry.out_width;
        tested.out_height = geometry.out_height;
        tested.pad_x = geometry.pad_x;
        tested.pad_y = geometry.pad_y;
        tested.stride_x = geometry.stride_x;
        tested.stride_y = geometry.stride_y;
        tested.seed = seed++;
        // The names of the several-value forms do not tell the padding.
        if (has_points(form)) manager.release();
        check(form, tested);
    }
}

TEST_P(EachConvolution, AgreesForAllActivationCodesWithAndWithoutBias) {
    const Form& form = GetParam();
    for (const int code : {0, 1, 2, 3, 4, 5, 6, 7, 8, 9}) {
        // What the several-value forms make of leaky ReLU has a test of its own, and ReLU6 is the
        // two-slice form's alone.
        const bool two_slices = std::string(form.name) == "4Points_2Slice_1x1";
        if (has_points(form) && (code == 6 || (code == 8 && !two_slices))) continue;
        ConvolutionCase tested;
        tested.in_channels = is_four_slice(form) ? 5 : 3;
        tested.out_channels = 6;
        tested.activation = code;
        tested.has_bias = code % 2 == 0;
        tested.seed = 200 + static_cast<unsigned int>(code);
        check(form, tested);
    }
}

TEST_P(EachConvolution, DividesThePaddingByTheDilation) {
    const Form& form = GetParam();
    if (has_points(form)) return;  // these do not
    unsigned int seed = 300;
    for (const int dilation : {2, 3}) {
        for (const int channels : {3, 9}) {
            ConvolutionCase tested;
            tested.in_channels = channels;
            tested.out_channels = 12 - channels;
            tested.dilation_x = dilation;
            tested.dilation_y = dilation == 2 ? 1 : dilation;
            tested.pad_x = dilation;
            tested.pad_y = tested.dilation_y;
            tested.seed = seed++;
            check(form, tested);
        }
    }
}

/// Into how many blocks of four output slices at most: as few as divide the slices evenly.
int blocks_of_four(int slices) {
    int count = (slices + 3) / 4;
    while (slices % count != 0) ++count;
    return count;
}

TEST_P(EachConvolution, AgreesWithUniformBlocks) {
    const Form& form = GetParam();
    manager.uboSliceLimit = 4;
    const int in_slices = 3;
    // Four output slices to a block: 6, 8 and 16 of them are split.
    manager.maxUniformBlockSize = 4 * in_slices * form.kernel_w * form.kernel_h * 32;
    unsigned int seed = 400;
    int most = 0;
    for (const int out_channels : {3, 13, 24, 32, 64}) {
        if (form.rounding == Rounding::AfterEachInputSlice) continue;
        ConvolutionCase tested;
        tested.in_channels = 9;
        tested.out_channels = out_channels;
        tested.activation = 2;
        tested.seed = seed++;
        const DispatchRecorder dispatches;
        check(form, tested);
        const int blocks = blocks_of_four((out_channels + 3) / 4);
        // This form alone takes a storage buffer for weights that one block holds.
        const bool storage = std::string(form.name) == "Basic_1x3" && out_channels <= 16;
        EXPECT_EQ(dispatches.all(), blocks) << out_channels << " output channels";
        EXPECT_EQ(dispatches.with_uniform_weights(), storage ? 0 : blocks)
            << out_channels << " output channels";
        most = std::max(most, dispatches.with_uniform_weights());
    }
    if (form.rounding == Rounding::Once) {
        EXPECT_EQ(most, 4);
    }
}

TEST_P(EachConvolution, OfConstantIndicesAgreesWithUniformBlocks) {
    const Form& form = GetParam();
    if (form.rounding == Rounding::Once) return;
    unsigned int seed = 450;
    for (const int block_bytes : {65536, 4096}) {
        manager.maxUniformBlockSize = block_bytes;
        // Slices in ones, twos, threes and fours.
        const int cases[][2] = {{3, 1}, {20, 5}, {8, 1}, {24, 2}, {13, 1}};
        for (const auto& [out_channels, blocks] : cases) {
            ConvolutionCase tested;
            tested.in_channels = 9;
            tested.out_channels = out_channels;
            tested.activation = 2;
            tested.seed = seed++;
            const DispatchRecorder dispatches;
            check(form, tested);
            EXPECT_EQ(dispatches.with_uniform_weights(), 3 * blocks) << out_channels;
            EXPECT_EQ(dispatches.all(), 3 * blocks + 2) << "clearing and the last pass";
        }
    }
}

class UniformBlocks : public ConvolutionTest {
protected:
    /// Dispatches of a 1x1 layer that read uniform blocks; its values are checked.
    int uniform_dispatches(const std::string& name, int in_channels, int out_channels) {
        const auto form = std::find_if(forms().begin(), forms().end(),
                                       [&](const Form& each) { return each.name == name; });
        ConvolutionCase tested;
        tested.in_channels = in_channels;
        tested.out_channels = out_channels;
        tested.in_width = tested.out_width = 3;
        tested.in_height = tested.out_height = 3;
        tested.seed = 700;
        const DispatchRecorder dispatches;
        check(*form, tested);
        return dispatches.with_uniform_weights();
    }
};

TEST_F(UniformBlocks, OfASplitThatReadsBehindTheBiasBlockAreStorageBuffers) {
    // Two input slices: 64 bytes for each output slice. Three blocks of 85 slices: the last of the
    // four-slice form reads on to slice 170 + 88, of the two-slice form to 170 + 86.
    manager.uboSliceLimit = 4;
    manager.maxUniformBlockSize = 88 * 64;
    EXPECT_EQ(uniform_dispatches("4Points_4Slice_1x1", 8, 4 * 255), 0);
    EXPECT_EQ(uniform_dispatches("4Points_2Slice_1x1", 8, 4 * 255), 3);
    EXPECT_EQ(uniform_dispatches("4PointsOut_1x1", 8, 4 * 255), 3);
    // The two-slice form ends with slice 256 at most.
    manager.uboSliceLimit = 256;
    manager.maxUniformBlockSize = 2 * 64;
    EXPECT_EQ(uniform_dispatches("4Points_2Slice_1x1", 8, 4 * 256), 128);
    EXPECT_EQ(uniform_dispatches("4Points_2Slice_1x1", 8, 4 * 255), 255);
}

TEST_F(UniformBlocks, AreOf64KiBWhateverTheDriverAllows) {
    manager.uboSliceLimit = 4;
    manager.maxUniformBlockSize = 1 << 30;
    EXPECT_EQ(uniform_dispatches("Basic_1x1", 8, 16), 1);
    GLint program = 0;
    glGetIntegerv(GL_CURRENT_PROGRAM, &program);
    const GLuint block = glGetUniformBlockIndex(static_cast<GLuint>(program), "weight_buffer");
    ASSERT_NE(block, GL_INVALID_INDEX);
    GLint bytes = 0;
    glGetActiveUniformBlockiv(static_cast<GLuint>(program), block, GL_UNIFORM_BLOCK_DATA_SIZE,
                              &bytes);
    EXPECT_EQ(bytes, 65536);
    // Three slices of 512 input slices are 48 KiB; what one block of 64 KiB does not hold is read
    // from storage.
    EXPECT_EQ(uniform_dispatches("Basic_1x1", 2048, 12), 1);
    EXPECT_EQ(uniform_dispatches("Basic_1x1", 2048, 16), 1);
    EXPECT_EQ(uniform_dispatches("Basic_1x1", 2048, 20), 0);
}

class ConvolutionPrograms : public ConvolutionTest {
protected:
    static ConvolutionCase small_case(int kernel_w, int kernel_h) {
        ConvolutionCase tested;
        tested.kernel_w = kernel_w;
        tested.kernel_h = kernel_h;
        return tested;
    }
    /// Programs that setting up a 3x3 layer adds.
    int programsOf(const ConvolutionCase& tested) {
        return programsMadeBy([&] {
            Layer layer(tested);
            tesk::Tricks_Conv2d_3x3_Basic(&manager).setup(&layer.record);
        });
    }
};

TEST_F(ConvolutionPrograms, AreSharedByLayersThatDifferInNothingButWeights) {
    ConvolutionCase tested = small_case(3, 3);
    EXPECT_EQ(programsOf(tested), 1);
    tested.seed = 2;
    EXPECT_EQ(programsOf(tested), 0);
    tested.activation = 2;
    EXPECT_EQ(programsOf(tested), 1);
    EXPECT_EQ(manager.setupCosts.programsMade, 2);
    EXPECT_EQ(manager.setupCosts.programsShared, 1);
}

TEST_F(ConvolutionPrograms, ThreeToFiveChannels3x3EqualAPlainConvolutionOnChannels0To4) {
    // ic 3, oc 5, 3x3 equals a plain convolution on channels 0 to 4.
    int tested_forms = 0;
    for (const Form& form : forms()) {
        if (form.kernel_w != 3 || form.kernel_h != 3) continue;
        ConvolutionCase tested;
        tested.in_channels = 3;
        tested.out_channels = 5;
        tested.pad_x = tested.pad_y = 1;
        tested.seed = 600;
        check(form, tested);
        ++tested_forms;
    }
    EXPECT_EQ(tested_forms, 2);
}

TEST_F(ConvolutionPrograms, FourPointFormsShareThemOverDifferentPaddings) {
    ConvolutionCase tested = small_case(1, 1);
    tested.out_channels = 5;
    for (const int padding : {0, 1}) {
        tested.pad_x = padding;
        Layer layer(tested);
        tesk::Tricks_Conv2d_1x1_4Points_2Slice(&manager).setup(&layer.record);
    }
    EXPECT_EQ(manager.setupCosts.programsMade, 1);
    EXPECT_EQ(manager.setupCosts.programsShared, 1);
}

TEST_F(ConvolutionPrograms, FourPointFormsTakeHalfTheColumnsAndDropWhatIsBesideTheImage) {
    for (const Form& form : forms()) {
        if (!has_points(form)) continue;
        // Four columns of invocations for a width of 7, of which the last stores one beside the
        // image; nine for 17, where one pixel each would take three groups.
        const int cases[][2] = {{7, 1}, {16, 1}, {17, 2}};
        for (const auto& [width, groups] : cases) {
            ConvolutionCase tested;
            tested.in_channels = 6;
            tested.out_channels = 6;
            tested.in_width = tested.out_width = width;
            tested.seed = 520;
            const DispatchRecorder dispatches;
            check(form, tested);
            EXPECT_EQ(dispatches.groups_of_last(0), static_cast<unsigned int>(groups))
                << form.name << ", width " << width;
            EXPECT_EQ(dispatches.groups_of_last(1), 1u) << form.name;
        }
    }
}

TEST_F(ConvolutionPrograms, FourPointLeakyReluDoesNothing) {
    for (const Form& form : forms()) {
        if (!has_points(form)) continue;
        ConvolutionCase tested;
        tested.in_channels = 6;
        tested.out_channels = 6;
        tested.activation = 6;
        const Tensor input = random_halves(6, 7, 9, 500);
        Layer layer(tested);
        const std::unique_ptr<tesk::Tricks> generator = form.make(&manager);
        generator->setup(&layer.record);
        const std::shared_ptr<tesk::Image> in = upload(input);
        const std::shared_ptr<tesk::Image> out = make_output(6, 7, 9);
        generator->compute(in.get(), out.get());
        const Tensor result = read_back(*out);
        ConvolutionCase plain = tested;
        plain.activation = 0;
        int negative = 0;
        for (int y = 0; y < 7; ++y) {
            for (int x = 0; x < 9; ++x) {
                const Expected expected = reference(form, plain, input, layer, 1, y, x);
                EXPECT_NEAR(result.at(1, y, x), expected.value, expected.bound) << form.name;
                negative += expected.value < 0.0 ? 1 : 0;
            }
        }
        EXPECT_GT(negative, 0);
    }
}

TEST_F(ConvolutionPrograms, TwoSliceReluSixClamps) {
    ConvolutionCase tested;
    tested.in_channels = 16;
    tested.out_channels = 16;
    tested.activation = 8;
    Layer layer(tested);
    const Tensor input = random_halves(16, 7, 9, 502, -8.0, 8.0);
    tesk::Tricks_Conv2d_1x1_4Points_2Slice generator(&manager);
    generator.setup(&layer.record);
    const std::shared_ptr<tesk::Image> in = upload(input);
    const std::shared_ptr<tesk::Image> out = make_output(16, 7, 9);
    generator.compute(in.get(), out.get());
    const Tensor result = read_back(*out);
    const Form& form = forms()[forms().size() - 2];
    ASSERT_STREQ(form.name, "4Points_2Slice_1x1");
    int at_six = 0, at_zero = 0, between = 0;
    for (int o = 0; o < 16; ++o) {
        for (int y = 0; y < 7; ++y) {
            for (int x = 0; x < 9; ++x) {
                const Expected expected = reference(form, tested, input, layer, o, y, x);
                ASSERT_NEAR(result.at(o, y, x), expected.value, expected.bound);
                ++(expected.value == 6.0 ? at_six : expected.value == 0.0 ? at_zero : between);
            }
        }
    }
    EXPECT_GT(at_six, 0);
    EXPECT_GT(at_zero, 0);
    EXPECT_GT(between, 0);
}

TEST_F(ConvolutionPrograms, FourSliceReluSixDoesNotClamp) {
    ConvolutionCase tested;
    tested.in_channels = 16;
    tested.out_channels = 16;
    Layer layer(tested);
    layer.record.activation = 8;
    Tensor input(16, 7, 9, 60.0);
    tesk::Tricks_Conv2d_1x1_4Points_4Slice generator(&manager);
    generator.setup(&layer.record);
    const std::shared_ptr<tesk::Image> in = upload(input);
    const std::shared_ptr<tesk::Image> out = make_output(16, 7, 9);
    generator.compute(in.get(), out.get());
    const Tensor result = read_back(*out);
    const Form& form = forms().back();
    double largest = 0.0;
    for (int o = 0; o < 16; ++o) {
        const Expected expected = reference(form, tested, input, layer, o, 3, 4);
        EXPECT_NEAR(result.at(o, 3, 4), expected.value, expected.bound);
        largest = std::fmax(largest, std::fabs(expected.value));
    }
    EXPECT_GT(largest, 6.0);
}

TEST_F(ConvolutionPrograms, FourSliceStepsAreOneWhateverTheStride) {
    ConvolutionCase tested;
    tested.in_channels = 5;
    tested.out_channels = 5;
    tested.in_width = 18;
    tested.in_height = 14;
    tested.stride_x = 2;
    tested.stride_y = 2;
    Layer layer(tested);
    const Tensor input = random_halves(5, 14, 18, 501);
    tesk::Tricks_Conv2d_1x1_4Points_4Slice generator(&manager);
    generator.setup(&layer.record);
    const std::shared_ptr<tesk::Image> in = upload(input);
    const std::shared_ptr<tesk::Image> out = make_output(5, 7, 9);
    generator.compute(in.get(), out.get());
    const Tensor result = read_back(*out);
    for (int y = 0; y < 7; ++y) {
        for (int x = 0; x < 9; ++x) {
            // Pixels 2k and 2k + 1 read 4k and 4k + 1.
            const int in_x = x / 2 * 4 + x % 2;
            const int in_y = y / 2 * 4 + y % 2;
            FloatSum sum;
            for (int i = 0; i < 5; ++i)
                sum.add(layer.weight(2, 0, 0, i) * input.at(i, in_y, in_x));
            sum.add(layer.bias[2]);
            const Expected expected = stored(sum.result());
            EXPECT_NEAR(result.at(2, y, x), expected.value, expected.bound);
        }
    }
}

TEST_F(ConvolutionPrograms, ThatDoNotCompileAreNotDispatched) {
    struct Broken {
        int in_channels;
        int activation;
        std::unique_ptr<tesk::Tricks> generator;
    };
    Broken cases[] = {
        {4, 0, std::make_unique<tesk::Tricks_Conv2d_1x1_4Points_4Slice>(&manager)},
        {5, 8, std::make_unique<tesk::Tricks_Conv2d_1x1_4PointsOut>(&manager)},
    };
    for (Broken& broken : cases) {
        ConvolutionCase tested;
        tested.in_channels = broken.in_channels;
        tested.out_channels = 8;
        tested.activation = broken.activation;
        Layer layer(tested);
        LogRecorder log;
        broken.generator->setup(&layer.record);
        const std::shared_ptr<tesk::Image> in = upload(Tensor(broken.in_channels, 7, 9, 1.0));
        const std::shared_ptr<tesk::Image> out = make_output(8, 7, 9);
        broken.generator->compute(in.get(), out.get());
        EXPECT_TRUE(std::isnan(read_back(*out).at(0, 0, 0)));
        EXPECT_EQ(log.lines.back().text,
                  "layer: expected a program that links, found none; not dispatched");
    }
}

TEST_F(ConvolutionPrograms, ATruncatingFormCoversTheColumnThatRoundingAdds) {
    // 12.5 pixels: the dispatch is sized for 12, the image has 13, two groups of 8 cover 16.
    ConvolutionCase tested = small_case(3, 1);
    tested.in_width = 13;
    tested.out_width = 13;
    tested.pad_x = 1;
    Layer layer(tested);
    layer.record.out_shape->scale_x = Tarno::float_to_half(12.5f / 256.0f);
    const Tensor input = random_halves(4, 7, 13, 502);
    tesk::Tricks_Conv2d_1x3_Basic generator(&manager);
    generator.setup(&layer.record);
    const std::shared_ptr<tesk::Image> in = upload(input);
    const std::shared_ptr<tesk::Image> out = make_output(4, 7, 13);
    const DispatchRecorder dispatches;
    generator.compute(in.get(), out.get());
    EXPECT_EQ(dispatches.groups_of_last(0), 2u);
    const Tensor result = read_back(*out);
    const Expected expected = reference(forms()[1], tested, input, layer, 0, 3, 12);
    EXPECT_NEAR(result.at(0, 3, 12), expected.value, expected.bound);
}

TEST_F(ConvolutionPrograms, ARecordThatIsNotTheirsIsRefused) {
    struct Wrong {
        std::unique_ptr<ZQLayerInfo> record;
        std::string text;
    };
    auto kernel = std::make_unique<ZQLayerInfo_Conv2D>();
    kernel->id = 3;
    kernel->kernel_w = 5;
    kernel->kernel_h = 3;
    auto empty = std::make_unique<ZQLayerInfo_Conv2D>();
    empty->id = 4;
    empty->kernel_w = 3;
    empty->kernel_h = 3;
    empty->in_shape->channels = 2;
    empty->out_shape->channels = 3;
    Wrong cases[2] = {
        {std::move(kernel), "layer 3 (Conv2D): expected a kernel of 3 x 3, found 5 x 3"},
        {std::move(empty), "layer 4 (Conv2D): expected 54 weights, found 0"},
    };
    for (Wrong& wrong : cases) {
        LogRecorder log;
        tesk::Tricks_Conv2d_3x3_Basic generator(&manager);
        generator.setup(wrong.record.get());
        ASSERT_EQ(log.lines.size(), 1u);
        EXPECT_EQ(log.lines[0].text, wrong.text);
        const std::shared_ptr<tesk::Image> image = upload(Tensor(4, 8, 8, 1.0));
        generator.compute(image.get(), image.get());
    }
    tesk::Tricks_Conv2d_3x3_Basic(&manager).setup(nullptr);
}

INSTANTIATE_TEST_SUITE_P(Gpu, EachConvolution, testing::ValuesIn(forms()),
                         [](const testing::TestParamInfo<Form>& tested) {
                             return std::string(tested.param.name);
                         });

}  // namespace
