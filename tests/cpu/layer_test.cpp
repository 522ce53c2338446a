#include <gtest/gtest.h>

#include <memory>

#include "support/recorders.h"
#include "support/tensors.h"

namespace {

using namespace TarnoCPU;
using namespace testing_support;

struct Row {
    const char* key;
    bool one_blob_only;
    bool support_inplace;
    const char* creator;  // an operator of the right base, null for layers without one
};

const Row rows[] = {
    {"Activation", true, false, "ReLU_Float_Fallback"},
    {"Input", true, true, "Input_Fallback"},
    {"Convolution", true, false, "Convolution_Float_Fallback"},
    {"ConvolutionDepthWise", true, false, "ConvolutionDepthwise_Float_Fallback"},
    {"Deconvolution", true, false, "Deconvolution_Float_Fallback"},
    {"DeconvolutionDepthWise", true, false, "DeconvolutionDepthwise_Float_Fallback"},
    {"Concat", false, false, nullptr},
    {"Eltwise", false, false, "Elementwise_Float_SSE"},
    {"Pooling", true, false, "Pooling_Float_Fallback"},
    {"PixelShuffle", true, false, "PixelShuffle_Float_Fallback"},
    {"Region", true, true, nullptr},
    {"Upsampling", true, false, "Upsampling_Float_Fallback"},
    {"FullConnection", true, false, "FullConnection_Float_SSE_M1"},
    {"TensorReshape", false, false, nullptr},
    {"BatchNormalization", true, false, "Batchnorm_Float_Fallback"},
    {"LSTM", true, false, "LSTM_Fallback"},
};

std::unique_ptr<Layer> make(const char* key) {
    return std::unique_ptr<Layer>(create_layer(key));
}

// Parameters and weights with which every operator of the rows loads.
int load_something(Layer& layer, OperatorCreator creator) {
    ParamDict pd;
    for (int id = 0; id <= 12; ++id) pd.set(id, 1);
    const std::vector<float> ones(64, 1.0f);
    if (layer.type == "LSTM") {
        const float* arrays[4] = {ones.data(), ones.data(), ones.data(), ones.data()};
        return layer.load(pd, ModelBinMultiFromTarnoWeightBias(arrays, arrays), {creator, 1, 2});
    }
    return layer.load(
        pd, ModelBinFromTarnoBatchnorm(ones.data(), ones.data(), ones.data(), ones.data()),
        {creator, 1, 2});
}

TEST(CreateLayer, SetsTheFlagsOfEachOfTheSixteenKinds) {
    for (const Row& row : rows) {
        SCOPED_TRACE(row.key);
        const auto layer = make(row.key);
        ASSERT_NE(nullptr, layer);
        EXPECT_EQ(row.one_blob_only, layer->one_blob_only);
        EXPECT_EQ(row.support_inplace, layer->support_inplace);
        EXPECT_TRUE(layer->name.empty());
    }
}

TEST(CreateLayer, TheClassNameBatchnormIsNoKey) {
    EXPECT_EQ(nullptr, make("Batchnorm"));
}

TEST(CreateLayer, ActivationKindsAreNoKeys) {
    EXPECT_EQ(nullptr, make("Softmax"));
    EXPECT_EQ(nullptr, make("ReLU"));
}

TEST(CreateLayer, KeysAreCaseSensitiveAndWhole) {
    EXPECT_EQ(nullptr, make("input"));
    EXPECT_EQ(nullptr, make("Inputs"));
    EXPECT_EQ(nullptr, make(""));
    EXPECT_EQ(nullptr, create_layer(nullptr));
}

TEST(LayerLoad, MakesTheOperatorStoresTheConfigAndForwardsItsName) {
    for (const Row& row : rows) {
        SCOPED_TRACE(row.key);
        const auto layer = make(row.key);
        layer->type = row.key;
        const OperatorCreator creator =
            row.creator != nullptr ? find_operator(row.creator)->creator : nullptr;
        EXPECT_EQ(0, load_something(*layer, creator));
        EXPECT_EQ(creator, layer->inference_config.op_creator);
        EXPECT_EQ(1, layer->inference_config.top_frac_bits);
        EXPECT_EQ(2, layer->inference_config.weight_frac_bits);
        EXPECT_EQ(row.creator != nullptr ? row.creator : "nullptr", layer->operator_name());
    }
}

TEST(LayerLoad, OnlyLstmHasAnOperatorForTheNetsList) {
    for (const Row& row : rows) {
        SCOPED_TRACE(row.key);
        const auto layer = make(row.key);
        layer->type = row.key;
        EXPECT_EQ(nullptr, layer->get_operator());
        load_something(*layer,
                       row.creator != nullptr ? find_operator(row.creator)->creator : nullptr);
        EXPECT_EQ(std::string(row.key) == "LSTM", layer->get_operator() != nullptr);
    }
}

TEST(LayerLoad, OperatorNameOfAConcatIsExactlyNullptr) {
    EXPECT_EQ("nullptr", make("Concat")->operator_name());
    EXPECT_EQ("nullptr", make("Region")->operator_name());
    EXPECT_EQ("nullptr", make("TensorReshape")->operator_name());
}

TEST(LayerLoad, AnOperatorOfTheWrongBaseFailsLoadAndForwardWithoutACrash) {
    const auto layer = make("Convolution");
    EXPECT_EQ(-100, load_something(*layer, find_operator("ReLU_Float_Fallback")->creator));
    Mat top;
    EXPECT_EQ(-100, layer->forward(random_tensor(1, 2, 2, 1), top, get_default_option()));
}

TEST(LayerLoad, ANullCreatorFailsLoadAndForwardWithoutACrash) {
    for (const Row& row : rows) {
        if (row.creator == nullptr) continue;
        SCOPED_TRACE(row.key);
        const auto layer = make(row.key);
        EXPECT_EQ(-100, load_something(*layer, nullptr));
        Mat top;
        std::vector<Mat> tops(1);
        const Mat bottom = random_tensor(1, 2, 2, 1);
        if (layer->one_blob_only) {
            EXPECT_EQ(-100, layer->forward(bottom, top, get_default_option()));
        } else {
            EXPECT_EQ(-100, layer->forward({bottom, bottom}, tops, get_default_option()));
        }
    }
}

TEST(LayerForward, ALayerNotInPlaceWorksOnACopyFromTheBlobAllocator) {
    const auto layer = make("Activation");
    ParamDict pd;
    layer->load(pd, ModelBinFromTarnoWeightBias(nullptr, nullptr),
                {find_operator("ReLU_Float_Fallback")->creator, 0, 0});
    PoisoningAllocator allocator;
    Option opt;
    opt.blob_allocator = &allocator;
    const float values[2] = {-1.0f, 1.0f};
    const Mat bottom = Mat::from_float_array(values, 2, 1, 1, TensorShape::CHW, nullptr);
    Mat top;
    EXPECT_EQ(0, layer->forward(bottom, top, opt));
    EXPECT_EQ(&allocator, top.allocator);
    EXPECT_EQ((std::vector<float>{-1.0f, 1.0f}), values_of(bottom));
    EXPECT_EQ((std::vector<float>{0.0f, 1.0f}), values_of(top));
    EXPECT_EQ(-100, layer->forward(Mat(), top, opt));
    allocator.fail = true;
    EXPECT_EQ(-100, layer->forward(bottom, top, opt));
}

TEST(LayerForward, ALayerInPlaceChangesItsBottomToo) {
    const auto layer = make("Activation");
    layer->support_inplace = true;
    layer->load(ParamDict(), ModelBinFromTarnoWeightBias(nullptr, nullptr),
                {find_operator("ReLU_Float_Fallback")->creator, 0, 0});
    const float values[2] = {-1.0f, 1.0f};
    const Mat bottom = Mat::from_float_array(values, 2, 1, 1, TensorShape::CHW, nullptr);
    Mat top;
    EXPECT_EQ(0, layer->forward(bottom, top, get_default_option()));
    EXPECT_EQ(bottom.data, top.data);
    EXPECT_EQ(0.0f, bottom.ptr<float>()[0]);
}

TEST(LayerForward, TheBaseVersionForSeveralTensorsSharesAndEndsInMinusOne) {
    const auto layer = make("Activation");
    const std::vector<Mat> bottoms = {random_tensor(1, 1, 2, 1), random_tensor(1, 1, 2, 2)};
    std::vector<Mat> tops;
    EXPECT_EQ(-1, layer->forward(bottoms, tops, get_default_option()));
    ASSERT_EQ(2u, tops.size());
    EXPECT_EQ(bottoms[1].data, tops[1].data);
    Mat mat;
    EXPECT_EQ(-1, make("Convolution")->forward_inplace(mat, get_default_option()));
}

}  // namespace
