// The list of operators against the classes behind it.
#include <gtest/gtest.h>

#include <memory>
#include <set>
#include <string>

#include "support/tensors.h"

namespace {

using namespace TarnoCPU;

TEST(OperatorList, EveryRowMakesAnOperatorOfItsNameAndBase) {
    size_t count = 0;
    const OperatorInfo* rows = operator_list(&count);
    ASSERT_GT(count, 0u);
    for (size_t i = 0; i < count; ++i) {
        SCOPED_TRACE(rows[i].name);
        const std::unique_ptr<Operator> made(rows[i].creator());
        ASSERT_NE(nullptr, made);
        EXPECT_EQ(rows[i].name, made->name());
        EXPECT_EQ(rows[i].base == OperatorInfo::Base::SISO,
                  dynamic_cast<OperatorSISO*>(made.get()) != nullptr);
        EXPECT_EQ(rows[i].base == OperatorInfo::Base::SISOInplace,
                  dynamic_cast<OperatorSISOInplace*>(made.get()) != nullptr);
        EXPECT_EQ(rows[i].base == OperatorInfo::Base::MIMO,
                  dynamic_cast<OperatorMIMO*>(made.get()) != nullptr);
    }
}

TEST(OperatorList, NamesAndFactoriesAreUniqueAndLeadBackToTheirRow) {
    size_t count = 0;
    const OperatorInfo* rows = operator_list(&count);
    std::set<std::string> names;
    for (size_t i = 0; i < count; ++i) {
        EXPECT_TRUE(names.insert(rows[i].name).second) << rows[i].name;
        EXPECT_EQ(&rows[i], find_operator(rows[i].name));
        EXPECT_EQ(&rows[i], find_operator(rows[i].creator));
    }
    EXPECT_EQ(nullptr, find_operator("Convolution"));
    EXPECT_EQ(nullptr, find_operator(static_cast<const char*>(nullptr)));
    EXPECT_EQ(nullptr, find_operator(static_cast<OperatorCreator>(nullptr)));
}

TEST(OperatorList, EveryRowFitsALayerOfItsKind) {
    size_t count = 0;
    const OperatorInfo* rows = operator_list(&count);
    const std::vector<float> ones(4096, 1.0f);
    for (size_t i = 0; i < count; ++i) {
        SCOPED_TRACE(rows[i].name);
        const std::unique_ptr<Layer> layer(create_layer(rows[i].layer));
        ASSERT_NE(nullptr, layer);
        ParamDict pd;
        pd.set(0, 4);
        pd.set(1, std::max(1, rows[i].kernel_w));
        pd.set(2, std::max(1, rows[i].kernel_h));
        for (int id = 3; id <= 6; ++id) pd.set(id, 1);
        pd.set(10, 4 * 4 * 16);
        pd.set(11, 4);
        pd.set(12, 4);
        const LayerInferenceConfig config = {rows[i].creator, 0, 0};
        const float* arrays[4] = {ones.data(), ones.data(), ones.data(), ones.data()};
        const int result =
            std::string(rows[i].layer) == "LSTM"
                ? layer->load(pd, ModelBinMultiFromTarnoWeightBias(arrays, arrays), config)
                : layer->load(pd,
                              ModelBinFromTarnoBatchnorm(ones.data(), ones.data(), ones.data(),
                                                         ones.data()),
                              config);
        EXPECT_EQ(0, result);
        EXPECT_EQ(rows[i].name, layer->operator_name());
    }
}

// The names that tables in the field use. They stay, spelled as they are.
const char* const table_names[] = {
    "Batchnorm_Float_Fallback",
    "ConvolutionDepthwise_Float_Fallback",
    "Convolution_1x1s1_Float_C8HW8_AVX2_M1",
    "Convolution_1x1s1_Float_SGEMM",
    "Convolution_1x1s1_Float_SSE_C4HW4_M1",
    "Convolution_1x1s1_Float_SSE_C4HW4_M2",
    "Convolution_1x1s1_Float_SSE_C4HW4_M3",
    "Convolution_1x1s1_Float_SSE_C4HW4_M4",
    "Convolution_1x1s1_Float_SSE_C4HW4_M5",
    "Convolution_1x1s1_Float_SSE_C4HW4_M6",
    "Convolution_1x1s1_Float_SSE_C4HW4_M7",
    "Convolution_1x1s1_Float_SSE_M1",
    "Convolution_1x1s1_Float_SSE_M2",
    "Convolution_1x1s1_Float_SSE_M3",
    "Convolution_1x1s1_Float_SSE_M4",
    "Convolution_1x1s1_Float_SSE_M5",
    "Convolution_1x1s1_Float_SSE_M6",
    "Convolution_1x1s2_Float_SGEMM",
    "Convolution_1x1s2_Float_SSE_M1",
    "Convolution_1x3s1_Float_SGEMM",
    "Convolution_1x3s1_Float_SGEMM_M1",
    "Convolution_1x3s1_Float_SSE_M1",
    "Convolution_3x1s1_Float_SGEMM",
    "Convolution_3x1s1_Float_SGEMM_M1",
    "Convolution_3x1s1_Float_SSE_M1",
    "Convolution_3x3s1_Float_SGEMM",
    "Convolution_3x3s1_Float_SSE_C4HW4_M1",
    "Convolution_3x3s1_Float_SSE_M1",
    "Convolution_3x3s1_Float_SSE_M2",
    "Convolution_3x3s1_Float_SSE_M3",
    "Convolution_3x3s1_Float_SSE_M4",
    "Convolution_3x3s1_Float_SSE_M5",
    "Convolution_3x3s1_Float_SSE_M6",
    "Convolution_3x3s1_Float_SSE_M7",
    "Convolution_3x3s1_Float_SSE_M8",
    "Convolution_3x3s1_Float_SSE_M9",
    "Convolution_3x3s1_Float_SSE_M10",
    "Convolution_3x3s2_Float_SGEMM",
    "Convolution_3x3s2_Float_SSE_C4HW4_M1",
    "Convolution_3x3s2_Float_SSE_M1",
    "Convolution_3x3s2_Float_SSE_M2",
    "Convolution_3x3s2_Float_SSE_M3",
    "Convolution_3x3s2_Float_SSE_M4",
    "Convolution_3x3s2_Float_SSE_M5",
    "Convolution_3x3s2_Float_SSE_M6",
    "Convolution_4x4s1_Float_SGEMM",
    "Convolution_Float_Blas",
    "Convolution_Float_Fallback",
    "DeconvolutionDepthwise_Float_Fallback",
    "Deconvolution_Float_Blas",
    "Deconvolution_Float_Fallback",
    "Depthewise_Convolution_3x3s1_Float_AVX2_M1",
    "Depthewise_Convolution_3x3s1_Float_AVX2_M2",
    "Depthewise_Convolution_3x3s1_Float_AVX2_M3",
    "Depthewise_Convolution_3x3s1_Float_SGEMM",
    "Depthewise_Convolution_3x3s1_Float_SSE_C4HW4_M1",
    "Depthewise_Convolution_3x3s1_Float_SSE_C4HW4_M2",
    "Depthewise_Convolution_3x3s1_Float_SSE_C4HW4_M3",
    "Depthewise_Convolution_3x3s1_Float_SSE_M1",
    "Depthewise_Convolution_3x3s1_Float_SSE_M2",
    "Depthewise_Convolution_3x3s1_Float_SSE_M3",
    "Depthewise_Convolution_3x3s1_Float_SSE_M4",
    "Depthewise_Convolution_3x3s2_Float_AVX2_M1",
    "Depthewise_Convolution_3x3s2_Float_SGEMM",
    "Depthewise_Convolution_3x3s2_Float_SSE_C4HW4_M1",
    "Depthewise_Convolution_3x3s2_Float_SSE_M1",
    "Depthewise_Convolution_3x3s2_Float_SSE_M2",
    "Depthewise_Convolution_3x3s2_Float_SSE_M3",
    "Elementwise_Float_SSE",
    "Eltwise_Float_Fallback",
    "FullConnection_Float_Fallback",
    "FullConnection_Float_SGEMM",
    "FullConnection_Float_SSE_M1",
    "Input_Fallback",
    "LSTM_Fallback",
    "Linear_Float_Fallback",
    "PixelShuffle_Float_Fallback",
    "PixelShuffle_Float_SSE",
    "Pooling_2x2s2_Float_SSE",
    "Pooling_4x4_Average_Float_SSE",
    "Pooling_Float_Fallback",
    "ReLU6_Float_Fallback",
    "ReLU6_Float_SSE",
    "ReLU6_Float_SSE_C4HW4_To_CHW",
    "ReLU6_Float_SSE_CHW_To_C4HW4",
    "ReLU_Float_AVX",
    "ReLU_Float_Fallback",
    "ReLU_Float_SSE",
    "ReLU_Float_SSE_C4HW4_To_CHW",
    "ReLU_Float_SSE_CHW_To_C4HW4",
    "Sigmoid_Float_Fallback",
    "Softmax_Float_Fallback",
    "Tanh_Float_Fallback",
    "Upsampling_Float_Fallback",
    "Upsampling_Float_SSE_C4HW4",
};

TEST(OperatorList, HoldsTheNinetyFiveNamesThatTablesUse) {
    std::set<std::string> names;
    for (const char* name : table_names) {
        EXPECT_NE(nullptr, find_operator(name)) << name;
        EXPECT_TRUE(names.insert(name).second) << name;
    }
    EXPECT_EQ(95u, names.size());
    size_t count = 0;
    operator_list(&count);
    EXPECT_GE(count, names.size());
}

TEST(OperatorList, LayoutsOfTheRowsAreThoseOfTheChecks) {
    size_t count = 0;
    const OperatorInfo* rows = operator_list(&count);
    for (size_t i = 0; i < count; ++i) {
        const std::string layer = rows[i].layer;
        // Kinds whose check depends on parameters are held to it by the tests of their classes.
        if (layer != "Activation" && layer != "Convolution") continue;
        SCOPED_TRACE(rows[i].name);
        const std::unique_ptr<Operator> made(rows[i].creator());
        const auto accepts = [&](TensorShape::Layout layout) {
            const TensorShape shape(layout, 16, 1, 1, 4);
            if (auto* siso = dynamic_cast<OperatorSISO*>(made.get())) {
                return siso->check_forward(TensorShape(layout, 16, 16, 16, 4));
            }
            return static_cast<OperatorSISOInplace*>(made.get())->check_forward(shape);
        };
        if (rows[i].layout_in == OperatorInfo::Layout::CHW && layer == "Convolution") {
            EXPECT_FALSE(accepts(TensorShape::C4HW4));
        }
        if (rows[i].layout_in == OperatorInfo::Layout::C4HW4 && layer == "Convolution") {
            EXPECT_FALSE(accepts(TensorShape::CHW));
        }
        if (layer == "Activation") {
            EXPECT_TRUE(accepts(TensorShape::CHW));
            EXPECT_TRUE(accepts(TensorShape::C4HW4));
        }
    }
}

}  // namespace
