// Damaged models and careless clients: memory and time stay in proportion, blocks stay whole.
#include <gtest/gtest.h>
#include <tarno/model.h>

#include <memory>

#include "modelkit/net_builder.h"
#include "support/recorders.h"
#include "support/temporary_file.h"
#include "support/tensors.h"

namespace {

using namespace TarnoCPU;
using namespace testing_support;
using modelkit::NetBuilder;
using modelkit::Window;

void push_u16(std::vector<unsigned char>& bytes, unsigned int v) {
    bytes.push_back(static_cast<unsigned char>(v & 0xff));
    bytes.push_back(static_cast<unsigned char>(v >> 8));
}

/// A file of `records` behind the header of a builder's file.
std::vector<unsigned char> file_of(const std::vector<unsigned char>& records) {
    std::vector<unsigned char> bytes;
    NetBuilder builder;
    builder.input(1);
    EXPECT_TRUE(builder.write(bytes).ok());
    bytes.resize(1000);
    bytes.insert(bytes.end(), records.begin(), records.end());
    return bytes;
}

/// Floats that the operators of a net keep, by the calls of a table that counts.
int64_t floats_kept = 0;

class CountingOperator : public OperatorSISO {
public:
    int load(const ParamDict& pd, const ModelBin& mb, const LayerInferenceConfig&) override {
        const Mat weights = mb.load(pd.get(10, 0), 0, 0);
        floats_kept += weights.empty() ? 0 : weights.shape.total();
        return 0;
    }
    std::string name() const override { return "counts"; }
    int forward(const Mat&, Mat&, const Option&) override { return -100; }
    bool check_forward(const TensorShape&) override { return false; }
};

Operator* make_counting() {
    return new CountingOperator;
}

int64_t floats_of(const std::vector<unsigned char>& bytes, size_t layers) {
    const TemporaryFile file(bytes);
    ZQNetLoader loader;
    EXPECT_TRUE(loader.LoadFile(file.path(), false)) << loader.failure();
    const std::vector<LayerInferenceConfig> table(layers, {&make_counting, 0, 0});
    floats_kept = 0;
    LogRecorder quiet;
    TarnoNet net;
    EXPECT_EQ(0, net.load_tarno_net_with_inference_config(loader, table));
    return floats_kept;
}

constexpr int64_t spare = 1 << 24;

TEST(Proportion, RecordsThatClaimArraysTheFileDoesNotBringShareOneAllowance) {
    // Depthwise, no input channels: no weights in the file, and 2^24 in the operator's count.
    std::vector<unsigned char> records;
    const int count = 20;
    for (int i = 0; i < count; ++i) {
        push_u16(records, 0x5555);
        push_u16(records, 3);
        push_u16(records, static_cast<unsigned int>(i));
        push_u16(records, 0);
        for (const unsigned int v : {0x3c00u, 0x3c00u, 1u}) push_u16(records, v);  // out_shape
        for (const unsigned int v : {0x3c00u, 0x3c00u, 0u}) push_u16(records, v);  // in_shape
        push_u16(records, 1);                                                      // multiplier
        for (const unsigned int v : {2000u, 2000u, 0u, 0u, 1u, 1u, 1u, 1u}) push_u16(records, v);
        push_u16(records, 1);
        push_u16(records, 0);
        push_u16(records, 0x3c00);  // bias of one output
        push_u16(records, 0xaaaa);
    }
    EXPECT_LE(floats_of(file_of(records), count), spare);
}

TEST(Proportion, ARecordListedAgainAndAgainDrawsOnTheSameAllowance) {
    modelkit::ModelHeader header;
    NetBuilder builder(header);
    const int in = builder.input(1000);
    builder.conv(in, 1000, 1, 1, 0);
    std::vector<unsigned char> bytes;
    ASSERT_TRUE(builder.write(bytes).ok());
    const size_t once = 100;
    for (size_t i = 0; i < once; ++i) {
        push_u16(bytes, 0x5555);
        push_u16(bytes, 0);  // an input under the convolution's id
        push_u16(bytes, 1);
        for (const unsigned int v : {0x3c00u, 0x3c00u, 1u, 0u}) push_u16(bytes, v);
        push_u16(bytes, 0xaaaa);
    }
    EXPECT_LE(floats_of(bytes, once + 2), 1000 * 1000 + spare);
}

TEST(Proportion, ASizeThatWrapsAroundSixtyFourBitsGivesNoTensor) {
    auto op = make_operator("Deconvolution_Float_Fallback");
    ParamDict pd;
    pd.set(0, 62065);
    pd.set(1, 1);
    pd.set(3, 1);
    pd.set(5, 52090);
    pd.set(6, 65298);
    pd.set(10, 62065);
    const std::vector<float> weights(62065, 1.0f);
    ASSERT_EQ(0,
              op->load(pd, ModelBinFromTarnoWeightBias(weights.data(), nullptr), {nullptr, 0, 0}));
    AssertRecorder assertions;
    Mat top;
    EXPECT_EQ(-100, op->forward(random_tensor(1, 512, 512, 1), top, Option()));
}

TEST(Proportion, ABlobOfManyReadersIsNotWalkedByEachOfThem) {
    // 8,000 sums of ten times the same blob: 6.4e8 looks if each bottom walked all readers.
    NetBuilder builder;
    builder.input(1);  // index 0, blob 0: it would stay by itself, so the readers are on blob 1
    builder.activation(0, ActivationType_ReLU);
    for (int i = 0; i < 8000; ++i) builder.eltwise(std::vector<int>(10, 1));
    std::vector<unsigned char> bytes;
    ASSERT_TRUE(builder.write(bytes).ok());
    const TemporaryFile file(bytes);
    ZQNetLoader loader;
    ASSERT_TRUE(loader.LoadFile(file.path(), false));
    TarnoNet net;
    net.load_tarno_net_with_inference_config(loader, nullptr);
    TarnoNetExtractor extractor = net.create_extractor();
    extractor.input(0, random_tensor(1, 1, 1, 1));
    Mat out;
    EXPECT_EQ(0, extractor.extract(extractor.get_last_layer_index(), out));
}

TEST(Proportion, AKernelOfManyTapsUnderALargeStrideIsNotSearchedForEachPhase) {
    const int size = 65535;
    auto op = make_operator("Deconvolution_Float_Fallback");
    ParamDict pd;
    pd.set(0, 1);
    pd.set(1, size);
    pd.set(2, 1);
    pd.set(3, 1);
    pd.set(5, size);
    pd.set(6, 1);
    pd.set(10, size);
    const std::vector<float> weights = random_floats(size, 5);
    ASSERT_EQ(0,
              op->load(pd, ModelBinFromTarnoWeightBias(weights.data(), nullptr), {nullptr, 0, 0}));
    Mat bottom(chw(1, 1, 1), nullptr);
    bottom.ptr<float>()[0] = 2.0f;
    Mat top;
    ASSERT_EQ(0, op->forward(bottom, top, Option()));
    ASSERT_TRUE(top.shape == chw(1, 3, size + 2));
    for (int x = 0; x < size; ++x) {
        ASSERT_EQ(2.0f * weights[static_cast<size_t>(x)], top.ptr<float>()[x]);
    }
    EXPECT_EQ(0.0f, top.ptr<float>()[size]);
}

TEST(NegativeSizes, CountAsEmptyEverywhere) {
    for (const TensorShape& shape : {chw(3, -1, -1), chw(-1, -4, 4), chw(-1, 4, -4)}) {
        const Mat mat(shape, nullptr);
        EXPECT_TRUE(mat.empty());
        Mat dst;
        copy_make_border(mat, dst, 5, 5, 5, 5, 0, 0.0f, nullptr, 1);
        EXPECT_TRUE(dst.empty());
        auto op = make_operator("Convolution_3x3s1_Float_SGEMM");
        ParamDict pd;
        for (int id = 0; id <= 12; ++id) pd.set(id, 1);
        pd.set(10, 27);
        const std::vector<float> weights(27, 1.0f);
        op->load(pd, ModelBinFromTarnoWeightBias(weights.data(), weights.data()), {nullptr, 0, 0});
        Mat top;
        EXPECT_EQ(-100, op->forward(mat, top, Option()));
    }
}

TEST(NegativeSizes, AConcatOfThemFails) {
    const std::unique_ptr<Layer> concat(create_layer("Concat"));
    std::vector<Mat> tops(1);
    Mat odd(chw(1, -1, -20), nullptr);
    EXPECT_EQ(-100, concat->forward({random_tensor(1, 1, 10, 1), odd, random_tensor(1, 1, 15, 2)},
                                    tops, Option()));
}

TEST(NegativeMargins, CutTheTensor) {
    const Mat src = random_tensor(2, 4, 5, 3);
    Mat dst;
    copy_make_border(src, dst, -1, 1, 2, -2, 0, 0.0f, nullptr, 1);
    ASSERT_TRUE(dst.shape == chw(2, 4, 5));  // the sizes stay: shared
    EXPECT_EQ(src.data, dst.data);
    copy_make_border(src, dst, 1, -2, -1, 0, 0, 0.0f, nullptr, 1);
    ASSERT_TRUE(dst.shape == chw(2, 3, 4));
    for (int q = 0; q < 2; ++q) {
        for (int y = 0; y < 3; ++y) {
            for (int x = 0; x < 4; ++x) {
                const float expected = y < 1 ? 0.0f : src.ptr<float>()[(q * 4 + y - 1) * 5 + x + 1];
                EXPECT_EQ(expected, dst.ptr<float>()[(q * 3 + y) * 4 + x]);
            }
        }
    }
    copy_make_border(src, dst, -2, -2, 0, 0, 0, 0.0f, nullptr, 1);
    EXPECT_TRUE(dst.empty());
}

TEST(OneObject, AsBottomAndTopGivesWhatTwoGive) {
    struct Case {
        const char* name;
        float first;  // parameter 0
        int c, h, w;
    };
    const Case cases[] = {{"Upsampling_Float_Fallback", 2.0f, 4, 3, 5},
                          {"PixelShuffle_Float_Fallback", 2.0f, 4, 3, 5},
                          {"PixelShuffle_Float_SSE", 0.5f, 1, 4, 6}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        auto op = make_operator(c.name);
        ParamDict pd;
        pd.set(0, c.first);
        ASSERT_EQ(0, op->load(pd, ModelBinFromTarnoWeightBias(nullptr, nullptr), {nullptr, 0, 0}));
        Mat mat = random_tensor(c.c, c.h, c.w, 4);
        Mat apart;
        ASSERT_EQ(0, op->forward(mat, apart, Option()));
        ASSERT_EQ(0, op->forward(mat, mat, Option()));
        EXPECT_EQ(values_of(apart), values_of(mat));
    }
    for (const char* name : {"FullConnection_Float_Fallback", "FullConnection_Float_SSE_M1",
                             "FullConnection_Float_SGEMM"}) {
        SCOPED_TRACE(name);
        auto op = make_operator(name);
        ParamDict pd;
        pd.set(0, 8);
        pd.set(1, 8);
        pd.set(9, 0);
        pd.set(10, 64);
        const std::vector<float> weights = random_floats(64, 6);
        ASSERT_EQ(
            0, op->load(pd, ModelBinFromTarnoWeightBias(weights.data(), nullptr), {nullptr, 0, 0}));
        Mat mat = random_tensor(8, 1, 1, 7);
        Mat apart;
        ASSERT_EQ(0, op->forward(mat, apart, Option()));
        ASSERT_EQ(0, op->forward(mat, mat, Option()));
        EXPECT_EQ(values_of(apart), values_of(mat));
    }
}

TEST(OneObject, ServesTheHandBlockedConvolutionsToo) {
    size_t count = 0;
    const OperatorInfo* rows = operator_list(&count);
    int tried = 0;
    for (size_t i = 0; i < count; ++i) {
        const std::string layer = rows[i].layer;
        const bool convolution = layer == "Convolution" || layer == "ConvolutionDepthWise";
        if (!convolution || rows[i].layout_in != OperatorInfo::Layout::CHW) continue;
        SCOPED_TRACE(rows[i].name);
        const int kernel_h = std::max(1, rows[i].kernel_h),
                  kernel_w = std::max(1, rows[i].kernel_w);
        const bool depthwise = layer == "ConvolutionDepthWise";
        ParamDict pd;
        pd.set(0, 16);
        pd.set(1, kernel_w);
        pd.set(2, kernel_h);
        pd.set(3, 1);
        pd.set(5, std::max(1, rows[i].stride));
        pd.set(7, kernel_w / 2);
        pd.set(8, kernel_h / 2);
        pd.set(9, 1);
        const int weight_count = 16 * (depthwise ? 1 : 16) * kernel_h * kernel_w;
        pd.set(10, weight_count);
        pd.set(11, 16);
        pd.set(12, 16);
        const std::vector<float> weights = random_floats(static_cast<size_t>(weight_count), 9);
        auto op = make_operator(rows[i].name);
        ASSERT_EQ(0, op->load(pd, ModelBinFromTarnoWeightBias(weights.data(), weights.data()),
                              {nullptr, 0, 0}));
        Mat mat = random_tensor(16, 32, 32, 10);
        Mat apart;
        ASSERT_EQ(0, op->forward(mat, apart, Option()));
        ASSERT_EQ(0, op->forward(mat, mat, Option()));
        EXPECT_EQ(values_of(apart), values_of(mat));
        ++tried;
    }
    EXPECT_GT(tried, 40);
}

TEST(WrongTables, AnOperatorOfAnotherKindReadsZerosBehindTheWeights) {
    NetBuilder builder;
    builder.conv(builder.input(1), 16, 1, 1, 0);
    std::vector<unsigned char> bytes;
    ASSERT_TRUE(builder.write(bytes).ok());
    const TemporaryFile file(bytes);
    ZQNetLoader loader;
    ASSERT_TRUE(loader.LoadFile(file.path(), false));
    // Every operator of the base that convolutions have.
    size_t count = 0;
    const OperatorInfo* rows = operator_list(&count);
    for (size_t i = 0; i < count; ++i) {
        if (rows[i].base != OperatorInfo::Base::SISO) continue;
        SCOPED_TRACE(rows[i].name);
        AssertRecorder assertions;
        TarnoNet net;
        ASSERT_EQ(0, net.load_tarno_net_with_inference_config(
                         loader, {{find_operator("Input_Fallback")->creator, 0, 0},
                                  {rows[i].creator, 0, 0}}));
        TarnoNetExtractor extractor = net.create_extractor();
        extractor.input(0, random_tensor(1, 16, 16, 8));
        Mat out;
        extractor.extract(1, out);
    }
}

}  // namespace
