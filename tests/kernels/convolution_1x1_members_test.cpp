// Every hand-blocked 1x1 convolution against plain sums in double.

#include <algorithm>

#include "support/blocked_convolutions.h"

namespace {

using namespace TarnoCPU;
using namespace testing_support;

const char* const members[] = {
    "Convolution_1x1s1_Float_SSE_C4HW4_M1", "Convolution_1x1s1_Float_SSE_C4HW4_M2",
    "Convolution_1x1s1_Float_SSE_C4HW4_M3", "Convolution_1x1s1_Float_SSE_C4HW4_M4",
    "Convolution_1x1s1_Float_SSE_C4HW4_M5", "Convolution_1x1s1_Float_SSE_C4HW4_M6",
    "Convolution_1x1s1_Float_SSE_C4HW4_M7", "Convolution_1x1s1_Float_SSE_M1",
    "Convolution_1x1s1_Float_SSE_M2",       "Convolution_1x1s1_Float_SSE_M3",
    "Convolution_1x1s1_Float_SSE_M4",       "Convolution_1x1s1_Float_SSE_M5",
    "Convolution_1x1s1_Float_SSE_M6",       "Convolution_1x1s1_Float_C8HW8_AVX2_M1",
    "Convolution_1x1s2_Float_SSE_M1",
};

using Size = LayerSize;

// Random numbers of a layer, and what must come out of it.
struct Layer {
    Size size;
    int stride;
    std::vector<float> bottom, weights, bias;

    Layer(const Size& size, int stride, unsigned int seed)
        : size(size),
          stride(stride),
          bottom(random_floats(static_cast<size_t>(size.inputs) * size.h * size.w, seed)),
          weights(random_floats(static_cast<size_t>(size.inputs) * size.outputs, seed + 1)),
          bias(random_floats(size.outputs, seed + 2)) {}

    LayerParams params() const {
        LayerParams params;
        params.num_output = size.outputs;
        params.kernel = 1;
        params.stride = stride;
        params.weight_count = size.inputs * size.outputs;
        params.num_input = size.inputs;
        return params;
    }

    // [outputs][h / stride][w / stride]
    std::vector<ExactSum> sums(bool with_bias) const {
        const int h = size.h / stride, w = size.w / stride;
        std::vector<ExactSum> result(static_cast<size_t>(size.outputs) * h * w);
        size_t i = 0;
        for (int p = 0; p < size.outputs; ++p) {
            for (int y = 0; y < h; ++y) {
                for (int x = 0; x < w; ++x, ++i) {
                    if (with_bias) result[i].add(bias[p]);
                    for (int q = 0; q < size.inputs; ++q) {
                        const size_t pixel =
                            (static_cast<size_t>(q) * size.h + y * stride) * size.w + x * stride;
                        result[i].add(double{bottom[pixel]} * weights[p * size.inputs + q]);
                    }
                }
            }
        }
        return result;
    }
};

class Convolution1x1Members : public MemberTest {
protected:
    // Sizes around the tile of the member: exact, more tiles, few and many channels, one pixel
    // where that is a whole tile.
    std::vector<Size> sizes() const {
        const int h = info->height_multiple, w = info->width_multiple;
        std::vector<Size> result;
        for (int inputs : {1, 4, 8, 16, 20, 64}) {
            if (inputs % info->input_multiple != 0) continue;
            for (int outputs : {1, 4, 8, 16, 20, 48}) {
                if (outputs % info->output_multiple != 0) continue;
                result.push_back({inputs, outputs, h, w});
                result.push_back({inputs, outputs, 2 * h, 3 * w});
            }
        }
        const int inputs = 8 * info->input_multiple, outputs = 2 * info->output_multiple;
        for (int rows : {1, 3, 5, 8}) {
            for (int columns : {1, 3, 4, 5, 7})
                result.push_back({inputs, outputs, rows * h, columns * w});
        }
        result.push_back({32, 48, 12 * h, 48});
        return result;
    }
};

TEST_P(Convolution1x1Members, GivesTheSumOfProductsAndBiasInEveryElement) {
    unsigned int seed = 100;
    for (const Size& size : sizes()) {
        SCOPED_TRACE(testing::Message() << size << ", seed " << seed);
        const Layer layer(size, info->stride, seed);
        seed += 10;
        auto op = make_loaded(GetParam(), layer.params(), layer.weights, layer.bias);
        ExactBlock block = block_of(layer.bottom, layer.size);
        PoisoningAllocator blobs, workspace;
        Option opt = get_default_option();
        opt.blob_allocator = &blobs;
        opt.workspace_allocator = &workspace;
        {
            Mat top;
            ASSERT_EQ(0, op->forward(block.view(bottom_shape(size)), top, opt));
            EXPECT_TRUE(top_shape(size) == top.shape);
            EXPECT_EQ(&blobs, top.allocator);
            ASSERT_NO_FATAL_FAILURE(expect_sums(layer.sums(true), planes_of(top)));
        }
        EXPECT_EQ(0, blobs.alive);
        EXPECT_EQ(0, workspace.alive);
    }
}

TEST_P(Convolution1x1Members, AgreesWithThePlainConvolutionUpToTheOrderOfTheSum) {
    const Size size{4 * info->input_multiple, 2 * info->output_multiple, 4 * info->height_multiple,
                    4 * info->width_multiple};
    const Layer layer(size, info->stride, 6);
    auto op = make_loaded(GetParam(), layer.params(), layer.weights, layer.bias);
    auto plain =
        make_loaded("Convolution_Float_Fallback", layer.params(), layer.weights, layer.bias);
    ExactBlock block = block_of(layer.bottom, layer.size), planes(layer.bottom);
    Mat top, plain_top;
    ASSERT_EQ(0, op->forward(block.view(bottom_shape(size)), top, get_default_option()));
    ASSERT_EQ(0, plain->forward(planes.view(chw(size.inputs, size.h, size.w)), plain_top,
                                get_default_option()));
    expect_same_sums(layer.sums(true), planes_of(top), values_of(plain_top));
}

TEST_P(Convolution1x1Members, WritesNothingOutsideABlockOfExactlyTheTopsSize) {
    const Size size{2 * info->input_multiple, 2 * info->output_multiple, 3 * info->height_multiple,
                    5 * info->width_multiple};
    const Layer layer(size, info->stride, 7);
    auto op = make_loaded(GetParam(), layer.params(), layer.weights, layer.bias);
    ExactBlock block = block_of(layer.bottom, layer.size);
    const size_t total = layer.sums(true).size();
    ExactBlock top_block(std::vector<float>(total, std::nanf("")));
    Mat top = top_block.view(top_shape(size));
    ASSERT_EQ(0, op->forward(block.view(bottom_shape(size)), top, get_default_option()));
    EXPECT_EQ(top_block.data(), top.data) << "a top of the right shape is kept";
    expect_sums(layer.sums(true), planes_of(top));
}

TEST_P(Convolution1x1Members, TensorsNeedNoAlignment) {
    const Size size{8 * info->input_multiple, 2 * info->output_multiple, 2 * info->height_multiple,
                    16 * info->width_multiple};
    const Layer layer(size, info->stride, 8);
    auto op = make_loaded(GetParam(), layer.params(), layer.weights, layer.bias);
    for (int in_off : {0, 1, 3}) {
        for (int out_off : {0, 1}) {
            ExactBlock block = block_of(layer.bottom, layer.size, in_off);
            ExactBlock top_block(std::vector<float>(layer.sums(true).size()), out_off);
            Mat top = top_block.view(top_shape(size));
            ASSERT_EQ(0, op->forward(block.view(bottom_shape(size)), top, get_default_option()));
            expect_sums(layer.sums(true), planes_of(top));
        }
    }
}

TEST_P(Convolution1x1Members, PaddingStrideAndDilationOfTheParametersAreNotApplied) {
    const Size size{info->input_multiple * 2, info->output_multiple, 2 * info->height_multiple,
                    2 * info->width_multiple};
    const Layer layer(size, info->stride, 9);
    LayerParams params = layer.params();
    params.pad = 3;
    params.stride = 5;
    params.dilation = 2;
    auto op = make_loaded(GetParam(), params, layer.weights, layer.bias);
    ExactBlock block = block_of(layer.bottom, layer.size);
    Mat top;
    ASSERT_EQ(0, op->forward(block.view(bottom_shape(size)), top, get_default_option()));
    expect_sums(layer.sums(true), planes_of(top));
}

// Blocks of four are for layers with a bias; the others take both.
class Convolution1x1PlaneMembers : public Convolution1x1Members {};

std::vector<const char*> plane_members() {
    std::vector<const char*> names;
    for (const char* name : members) {
        if (find_operator(name)->layout_in != OperatorInfo::Layout::C4HW4) names.push_back(name);
    }
    return names;
}

TEST_P(Convolution1x1PlaneMembers, WithoutABiasTheTensorOfPlanesGetsThePlainSums) {
    const Size size{info->input_multiple, 2 * info->output_multiple, info->height_multiple,
                    info->width_multiple};
    const Layer layer(size, info->stride, 10);
    auto op = make_operator(GetParam());
    LayerParams params = layer.params();
    // The bias of an earlier load is forgotten.
    ASSERT_EQ(0, load(*op, params, layer.weights.data(), layer.bias.data()));
    params.bias = false;
    ASSERT_EQ(0, load(*op, params, layer.weights.data(), nullptr));
    ExactBlock block = block_of(layer.bottom, layer.size);
    PoisoningAllocator blobs;
    Option opt = get_default_option();
    opt.blob_allocator = &blobs;
    Mat top;
    ASSERT_EQ(0, op->forward(block.view(bottom_shape(size)), top, opt));
    expect_sums(layer.sums(false), planes_of(top));
}

TEST_P(Convolution1x1Members, CarriesItsName) {
    EXPECT_EQ(GetParam(), make_operator(GetParam())->name());
}

TEST_P(Convolution1x1Members, ATensorOfAnotherLayoutOrElementSizeRaisesTheAssertion) {
    const Size size{info->input_multiple, info->output_multiple, 2 * info->height_multiple,
                    4 * info->width_multiple};
    const Layer layer(size, info->stride, 11);
    auto op = make_loaded(GetParam(), layer.params(), layer.weights, layer.bias);
    const TensorShape right = bottom_shape(size);
    EXPECT_TRUE(op->check_forward(right));
    TensorShape other_layout = right;
    other_layout.layout = blocks() ? TensorShape::CHW : TensorShape::C4HW4;
    TensorShape other_size = right;
    other_size.elem_size = 2;
    const bool without_hyphen = blocks() || info->isa == OperatorInfo::InstructionSet::AVX2;
    for (const TensorShape& shape : {other_layout, other_size}) {
        EXPECT_FALSE(op->check_forward(shape));
        AssertRecorder assertions;
        Mat top;
        EXPECT_EQ(-100, op->forward(Mat(shape, nullptr), top, get_default_option()));
        ASSERT_EQ(1u, assertions.count());
        EXPECT_EQ(without_hyphen ? "false && \"Invalid forward pre conditions\""
                                 : "false && \"Invalid forward pre-conditions\"",
                  assertions.last().condition);
        EXPECT_EQ(unit_of(GetParam()), assertions.last().source);
    }
}

TEST_P(Convolution1x1Members, EveryAllocationMayFail) {
    const Size size{info->input_multiple, info->output_multiple, 2 * info->height_multiple,
                    4 * info->width_multiple};
    const Layer layer(size, info->stride, 12);
    auto op = make_loaded(GetParam(), layer.params(), layer.weights, layer.bias);
    ExactBlock block = block_of(layer.bottom, layer.size);
    int failures = 0;
    for (int failing = 0;; ++failing) {
        FailingAllocator allocator(failing);
        Option opt = get_default_option();
        opt.blob_allocator = &allocator;
        opt.workspace_allocator = &allocator;
        {
            Mat top;
            const int result = op->forward(block.view(bottom_shape(size)), top, opt);
            if (allocator.calls <= failing) {
                EXPECT_EQ(0, result);
                break;
            }
            EXPECT_EQ(-100, result);
            ++failures;
        }
        EXPECT_EQ(0, allocator.alive);
    }
    EXPECT_GE(failures, 1);
}

TEST_P(Convolution1x1Members, AFailedLoadMakesEveryForwardFail) {
    const Size size{info->input_multiple, info->output_multiple, 2 * info->height_multiple,
                    4 * info->width_multiple};
    const Layer layer(size, info->stride, 13);
    ExactBlock block = block_of(layer.bottom, layer.size);
    auto op = make_operator(GetParam());
    Mat top;
    LayerParams params = layer.params();
    // Of the check, only some classes know the parameters before they have any.
    if (op->check_forward(bottom_shape(size))) {
        EXPECT_EQ(-100, op->forward(block.view(bottom_shape(size)), top, get_default_option()));
    }
    // A good load before does not help.
    ASSERT_EQ(0, load(*op, params, layer.weights.data(), layer.bias.data()));
    params.weight_count = 0;
    EXPECT_EQ(-100, load(*op, params, layer.weights.data(), layer.bias.data()));
    EXPECT_EQ(-100, op->forward(block.view(bottom_shape(size)), top, get_default_option()));

    ASSERT_EQ(0, load(*op, layer.params(), layer.weights.data(), layer.bias.data()));
    params = layer.params();
    params.num_output = 0;  // and so no bias
    EXPECT_EQ(-100, load(*op, params, layer.weights.data(), layer.bias.data()));
    EXPECT_EQ(-100, op->forward(block.view(bottom_shape(size)), top, get_default_option()));
}

TEST_P(Convolution1x1Members, AnEmptyBottomOrNoOutputGivesNothing) {
    const Size size{info->input_multiple, info->output_multiple, 2 * info->height_multiple,
                    4 * info->width_multiple};
    const Layer layer(size, info->stride, 14);
    auto op = make_loaded(GetParam(), layer.params(), layer.weights, layer.bias);
    TensorShape shape = bottom_shape(size);
    Mat top;
    EXPECT_EQ(-100, op->forward(Mat(shape, nullptr, nullptr), top, get_default_option()));
    shape.h = 0;
    EXPECT_EQ(-100, op->forward(Mat(shape, nullptr), top, get_default_option()));
    shape.h = -2;
    shape.w = -shape.w;
    std::vector<float> some(static_cast<size_t>(shape.total()));
    if (op->check_forward(shape)) {
        EXPECT_EQ(-100, op->forward(Mat(shape, some.data(), nullptr), top, get_default_option()));
    }
}

TEST_P(Convolution1x1Members, WeightsThatAreTooFewForTheTensorEndInZeros) {
    // Two rows of the form's outputs, and weights for half of the tensor's channels. All that are
    // there are ones, so that their order in the form makes no difference.
    const Size size{4 * info->input_multiple, 2 * info->output_multiple, 2 * info->height_multiple,
                    4 * info->width_multiple};
    Layer layer(size, info->stride, 15);
    const Size half{size.inputs / 2, size.outputs, size.h, size.w};
    Layer known(half, info->stride, 15);
    std::fill(known.weights.begin(), known.weights.end(), 1.0f);
    known.bias = layer.bias;
    // The first row takes all of its channels' weights from what is there. Where a row is as long
    // as the tensor has channels, nothing is left for the second; the rows of these are as long as
    // the weights were for, and the second has half.
    const std::string name = GetParam();
    const bool rows_of_weights = blocks() || name == "Convolution_1x1s1_Float_SSE_M5" ||
                                 name == "Convolution_1x1s1_Float_SSE_M6";
    for (int p = 0; p < size.outputs; ++p) {
        for (int q = 0; q < size.inputs; ++q) {
            const bool there = p < size.outputs / 2 || (rows_of_weights && q < half.inputs);
            layer.weights[static_cast<size_t>(p) * size.inputs + q] = there ? 1.0f : 0.0f;
        }
    }
    auto op = make_loaded(name, known.params(), known.weights, known.bias);
    ExactBlock block = block_of(layer.bottom, layer.size);
    PoisoningAllocator blobs;
    Option opt = get_default_option();
    opt.blob_allocator = &blobs;
    Mat top;
    ASSERT_EQ(0, op->forward(block.view(bottom_shape(size)), top, opt));
    if (info->isa == OperatorInfo::InstructionSet::AVX2) {
        // Its rows are laid out in another way: no more is asked of it than numbers.
        for (float value : values_of(top)) ASSERT_TRUE(std::isfinite(value));
        return;
    }
    expect_sums(layer.sums(true), planes_of(top));
}

INSTANTIATE_TEST_SUITE_P(All, Convolution1x1Members, testing::ValuesIn(members), class_name_of);
INSTANTIATE_TEST_SUITE_P(All, Convolution1x1PlaneMembers, testing::ValuesIn(plane_members()),
                         class_name_of);

TEST(Convolution1x1, DotProductsOfTwoByTwoPixelsNeedEvenSizesAndInputsInFours) {
    const Layer layer({8, 4, 2, 2}, 1, 20);
    auto m5 =
        make_loaded("Convolution_1x1s1_Float_SSE_M5", layer.params(), layer.weights, layer.bias);
    auto m6 =
        make_loaded("Convolution_1x1s1_Float_SSE_M6", layer.params(), layer.weights, layer.bias);
    EXPECT_TRUE(m5->check_forward(chw(8, 2, 4)));
    EXPECT_FALSE(m5->check_forward(chw(8, 3, 4)));
    EXPECT_FALSE(m5->check_forward(chw(8, 2, 5)));
    EXPECT_TRUE(m6->check_forward(chw(8, 3, 5)));
    LayerParams params = layer.params();
    params.num_input = 6;
    for (auto* op : {m5.get(), m6.get()}) {
        ASSERT_EQ(0, load(*op, params, layer.weights.data(), layer.bias.data()));
        EXPECT_FALSE(op->check_forward(chw(8, 2, 4)));
    }
}

TEST(Convolution1x1, StrideTwoLeavesOutAnOddLastRowAndColumn) {
    for (const Size& size :
         {Size{3, 5, 7, 9}, Size{5, 6, 2, 3}, Size{1, 1, 3, 2}, Size{9, 3, 11, 35}}) {
        SCOPED_TRACE(testing::Message() << size);
        const Layer layer(size, 2, 21);
        auto op = make_loaded("Convolution_1x1s2_Float_SSE_M1", layer.params(), layer.weights,
                              layer.bias);
        ExactBlock block(layer.bottom);
        PoisoningAllocator blobs, workspace;
        Option opt = get_default_option();
        opt.blob_allocator = &blobs;
        opt.workspace_allocator = &workspace;
        Mat top;
        ASSERT_EQ(0, op->forward(block.view(chw(size.inputs, size.h, size.w)), top, opt));
        EXPECT_TRUE(chw(size.outputs, size.h / 2, size.w / 2) == top.shape);
        expect_sums(layer.sums(true), values_of(top));
    }
}

TEST(Convolution1x1, StrideTwoOfASinglePixelHasNoResult) {
    const Layer layer({2, 2, 1, 1}, 2, 22);
    auto op =
        make_loaded("Convolution_1x1s2_Float_SSE_M1", layer.params(), layer.weights, layer.bias);
    ExactBlock block(layer.bottom);
    Mat top;
    EXPECT_EQ(-100, op->forward(block.view(chw(2, 1, 1)), top, get_default_option()));
}

}  // namespace
