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
