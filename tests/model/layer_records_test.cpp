// Each message type, field by field, against files pushed together by hand.
#include <gtest/gtest.h>
#include <tarno/model.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "hand_made.h"
#include "support/recorders.h"
#include "support/temporary_file.h"

namespace {

using hand_made::Bytes;
using hand_made::message;
using testing_support::AssertRecorder;
using testing_support::LogRecorder;
using testing_support::TemporaryFile;

const unsigned int VERSIONS[] = {10001, 10002, 10003, 10006, 10007,
                                 10008, 10009, 10010, 10011, 20000};

bool load(ZQNetLoader& loader, const std::vector<unsigned char>& bytes) {
    const TemporaryFile file(bytes);
    return loader.LoadFile(file.path(), false);
}

// The one record of a file, read. The loader owns it.
template <typename Record>
const Record* record_of(ZQNetLoader& loader, unsigned int type, uint32_t version,
                        const Bytes& payload) {
    AssertRecorder assertions;
    LogRecorder log;
    EXPECT_TRUE(load(loader, hand_made::file(version, {message(type, payload)})))
        << loader.failure();
    EXPECT_EQ(0u, assertions.count());
    EXPECT_TRUE(log.lines.empty());
    const auto layers = loader.getLayersInfo();
    const auto found = layers.find(static_cast<unsigned short>(900 + type));
    if (found == layers.end()) {
        ADD_FAILURE() << "no record";
        return nullptr;
    }
    const auto* record = dynamic_cast<const Record*>(found->second);
    if (record == nullptr) {
        ADD_FAILURE() << "record of another class";
        return nullptr;
    }
    EXPECT_EQ(900 + type, record->id);
    EXPECT_EQ(type, record->type);
    EXPECT_EQ(1, record->top_count);
    return record;
}

template <typename Record>
const Record* record_of(ZQNetLoader& loader, unsigned int type, uint32_t version) {
    return record_of<Record>(loader, type, version, hand_made::payload(type, version));
}

void expect_shape(const shape3* shape, unsigned int scale_x, unsigned int scale_y,
                  unsigned int channels) {
    ASSERT_NE(nullptr, shape);
    EXPECT_EQ(scale_x, shape->scale_x);
    EXPECT_EQ(scale_y, shape->scale_y);
    EXPECT_EQ(channels, shape->channels);
}

void expect_tensor(const tensor28& tensor, uint32_t kind, unsigned int rank,
                   unsigned int first_dim) {
    EXPECT_EQ(kind, tensor.kind);
    EXPECT_EQ(rank, tensor.rank);
    for (unsigned int i = 0; i < 11; ++i)
        EXPECT_EQ(first_dim + i, tensor.dims[i]);
}

void expect_one_bottom(const ZQLayerInfo& record, unsigned int bottom) {
    EXPECT_EQ(1, record.bottom_count);
    ASSERT_NE(nullptr, record.bottoms);
    EXPECT_EQ(bottom, record.bottoms[0]);
}

// The patterns count up from `first`, and the floats are their values.
void expect_halves(const unsigned short* halves, const float* floats, size_t count,
                   unsigned int first, size_t expected_count) {
    ASSERT_EQ(expected_count, count);
    ASSERT_NE(nullptr, halves);
    ASSERT_NE(nullptr, floats);
    for (size_t i = 0; i < count; ++i) {
        ASSERT_EQ(first + i, halves[i]);
        ASSERT_EQ(hand_made::half_value(first + static_cast<unsigned int>(i)),
                  static_cast<double>(floats[i]));
    }
}

TEST(LayerRecord, Input) {
    ZQNetLoader loader;
    const auto* r = record_of<ZQLayerInfo_Input>(loader, 0, 10011);
    ASSERT_NE(nullptr, r);
    EXPECT_EQ(0, r->bottom_count);
    EXPECT_EQ(nullptr, r->bottoms);
    expect_shape(r->out_shape, 11, 12, 13);
    EXPECT_EQ(14, r->input_index);
}

TEST(LayerRecord, Conv2DOfEveryVersion) {
    for (const unsigned int version : VERSIONS) {
        ZQNetLoader loader;
        const auto* r = record_of<ZQLayerInfo_Conv2D>(loader, 1, version);
        ASSERT_NE(nullptr, r);
        expect_one_bottom(*r, 41);
        expect_shape(r->out_shape, 11, 12, 5);
        expect_shape(r->in_shape, 13, 14, 4);
        EXPECT_EQ(2, r->kernel_w);
        EXPECT_EQ(3, r->kernel_h);
        EXPECT_EQ(15, r->pad_w);
        EXPECT_EQ(16, r->pad_h);
        EXPECT_EQ(17, r->stride_w);
        EXPECT_EQ(18, r->stride_h);
        EXPECT_EQ(19, r->dilation_w);
        EXPECT_EQ(20, r->dilation_h);
        EXPECT_EQ(22, r->activation);
        EXPECT_EQ(2, r->groups);
        EXPECT_EQ(2u, r->effective_groups());
        for (unsigned int i = 0; i < 10; ++i)
            EXPECT_EQ(80 + i, r->reserved[i]);
        expect_halves(r->weights_half, r->weights, r->weights_count, 100, 60);
    }
}

TEST(LayerRecord, Conv2DWithoutBiasStillCarriesTheBiasArray) {
    ZQNetLoader loader;
    const auto* r = record_of<ZQLayerInfo_Conv2D>(loader, 1, 10011);
    ASSERT_NE(nullptr, r);
    EXPECT_EQ(0, r->has_bias);
    expect_halves(r->bias_half, r->bias, r->bias_count, 300, 5);
}

TEST(LayerRecord, Conv2DTransposeOfEveryVersion) {
    for (const unsigned int version : VERSIONS) {
        ZQNetLoader loader;
        const auto* r = record_of<ZQLayerInfo_Conv2DTranspose>(loader, 2, version);
        ASSERT_NE(nullptr, r);
        expect_one_bottom(*r, 42);
        expect_shape(r->out_shape, 11, 12, 3);
        expect_shape(r->in_shape, 13, 14, 4);
        EXPECT_EQ(2, r->kernel_w);
        EXPECT_EQ(3, r->kernel_h);
        EXPECT_EQ(15, r->pad_w);
        EXPECT_EQ(16, r->pad_h);
        EXPECT_EQ(17, r->stride_w);
        EXPECT_EQ(18, r->stride_h);
        EXPECT_EQ(19, r->has_bias);
        EXPECT_EQ(20, r->activation);
        expect_halves(r->bias_half, r->bias, r->bias_count, 300, 3);
    }
}

TEST(LayerRecord, Conv2DTransposeBeforeVersion10003HasNoGroupsAndAllItsWeights) {
    for (const unsigned int version : {10001u, 10002u}) {
        ZQNetLoader loader;
        const auto* r = record_of<ZQLayerInfo_Conv2DTranspose>(loader, 2, version);
        ASSERT_NE(nullptr, r);
        EXPECT_EQ(0, r->groups);
        EXPECT_EQ(1u, r->effective_groups());
        expect_halves(r->weights_half, r->weights, r->weights_count, 100, 72);
    }
}

TEST(LayerRecord, Conv2DTransposeSinceVersion10003DividesItsWeightsByGroups) {
    for (const unsigned int version : {10003u, 10011u}) {
        ZQNetLoader loader;
        const auto* r = record_of<ZQLayerInfo_Conv2DTranspose>(loader, 2, version);
        ASSERT_NE(nullptr, r);
        EXPECT_EQ(3, r->groups);
        EXPECT_EQ(3u, r->effective_groups());
        expect_halves(r->weights_half, r->weights, r->weights_count, 100, 24);
    }
}

TEST(LayerRecord, GroupsDivideTheChannelsOfAConvolutionAndTheProductOfATransposedOne) {
    // 5 channels in 2 groups: 2 of them count; 3 * 5 * 1 * 1 weights in 2 groups: 7 of them.
    Bytes conv;
    conv.u16(901).u16(0).list({1, 1, 3}).list({1, 1, 5}).list({1, 1, 0, 0, 1, 1, 1, 1, 0, 0});
    conv.u16(2).zeros(10).run(100, 2 * 3).run(300, 3);
    ZQNetLoader conv_loader;
    const auto* c = record_of<ZQLayerInfo_Conv2D>(conv_loader, 1, 10011, conv);
    ASSERT_NE(nullptr, c);
    expect_halves(c->weights_half, c->weights, c->weights_count, 100, 6);
    expect_halves(c->bias_half, c->bias, c->bias_count, 300, 3);

    Bytes transposed;
    transposed.u16(902).u16(0).list({1, 1, 3}).list({1, 1, 5}).list({1, 1, 0, 0, 1, 1, 0, 0});
    transposed.u16(2).run(100, 7).run(300, 3);
    ZQNetLoader transposed_loader;
    const auto* t = record_of<ZQLayerInfo_Conv2DTranspose>(transposed_loader, 2, 10011, transposed);
    ASSERT_NE(nullptr, t);
    expect_halves(t->weights_half, t->weights, t->weights_count, 100, 7);
    expect_halves(t->bias_half, t->bias, t->bias_count, 300, 3);
}

TEST(LayerRecord, MoreGroupsThanChannelsLeaveNoWeights) {
    Bytes conv;
    conv.u16(901).u16(0).list({1, 1, 3}).list({1, 1, 4}).list({1, 1, 0, 0, 1, 1, 1, 1, 0, 0});
    conv.u16(5).zeros(10).run(300, 3);
    ZQNetLoader loader;
    const auto* r = record_of<ZQLayerInfo_Conv2D>(loader, 1, 10011, conv);
    ASSERT_NE(nullptr, r);
    EXPECT_EQ(0u, r->weights_count);
    EXPECT_EQ(nullptr, r->weights);
    EXPECT_EQ(nullptr, r->weights_half);
    expect_halves(r->bias_half, r->bias, r->bias_count, 300, 3);
}

TEST(LayerRecord, GroupsOfZeroFailTheLoadWithALineThatNamesTheLayer) {
    Bytes conv;
    conv.u16(17).u16(0).list({1, 1, 3}).list({1, 1, 4}).list({1, 1, 0, 0, 1, 1, 1, 1, 0, 0});
    conv.u16(0).zeros(10).run(100, 12).run(300, 3);
    Bytes transposed;
    transposed.u16(18).u16(0).list({1, 1, 3}).list({1, 1, 4}).list({1, 1, 0, 0, 1, 1, 0, 0});
    transposed.u16(0).run(100, 12).run(300, 3);
    for (const unsigned int type : {1u, 2u}) {
        LogRecorder log;
        ZQNetLoader loader;
        EXPECT_FALSE(
            load(loader, hand_made::file(10003, {hand_made::input(0),
                                                 message(type, type == 1 ? conv : transposed)})));
        EXPECT_EQ(1u, loader.getSequentialLayers().size());
        ASSERT_EQ(1u, log.lines.size());
        EXPECT_EQ(Tarno::LogLevel::Error, log.lines[0].level);
        EXPECT_EQ(type == 1 ? "layer 17 of type 1 (Conv2D) has 0 groups"
                            : "layer 18 of type 2 (Conv2DTranspose) has 0 groups",
                  log.lines[0].text);
        EXPECT_NE(std::string::npos, loader.failure().find("groups: 1 or more expected, found 0"));
    }
}

template <typename Record>
void expect_depthwise(unsigned int type, uint32_t version) {
    ZQNetLoader loader;
    const auto* r = record_of<Record>(loader, type, version);
    ASSERT_NE(nullptr, r);
    expect_one_bottom(*r, 40 + type);
    expect_shape(r->out_shape, 11, 12, 6);
    expect_shape(r->in_shape, 13, 14, 3);
    EXPECT_EQ(2, r->depth_multiplier);
    EXPECT_EQ(2, r->kernel_w);
    EXPECT_EQ(4, r->kernel_h);
    EXPECT_EQ(15, r->pad_w);
    EXPECT_EQ(16, r->pad_h);
    EXPECT_EQ(17, r->stride_w);
    EXPECT_EQ(18, r->stride_h);
    EXPECT_EQ(19, r->dilation_w);
    EXPECT_EQ(20, r->dilation_h);
    EXPECT_EQ(21, r->has_bias);
    EXPECT_EQ(22, r->activation);
    expect_halves(r->weights_half, r->weights, r->weights_count, 100, 48);
    expect_halves(r->bias_half, r->bias, r->bias_count, 300, 6);
}

TEST(LayerRecord, DepthWiseConv2DAndItsTransposedFormHaveOneLayout) {
    for (const unsigned int version : VERSIONS) {
        expect_depthwise<ZQLayerInfo_DepthWiseConv2D>(3, version);
        if (version >= 10003) expect_depthwise<ZQLayerInfo_DepthWiseConv2DTranspose>(16, version);
    }
}

TEST(LayerRecord, PixelShuffle) {
    ZQNetLoader loader;
    const auto* r = record_of<ZQLayerInfo_PixelShuffle>(loader, 4, 10011);
    ASSERT_NE(nullptr, r);
    expect_one_bottom(*r, 44);
    expect_shape(r->out_shape, 11, 12, 13);
    expect_shape(r->in_shape, 14, 15, 16);
    EXPECT_EQ(0x4000, r->upscale_factor);
}

TEST(LayerRecord, Pooling) {
    ZQNetLoader loader;
    const auto* r = record_of<ZQLayerInfo_Pooling>(loader, 5, 10011);
    ASSERT_NE(nullptr, r);
    expect_one_bottom(*r, 45);
    expect_shape(r->out_shape, 11, 12, 13);
    expect_shape(r->in_shape, 14, 15, 16);
    EXPECT_EQ(17, r->kernel_w);
    EXPECT_EQ(18, r->kernel_h);
    EXPECT_EQ(19, r->pad_w);
    EXPECT_EQ(20, r->pad_h);
    EXPECT_EQ(21, r->stride_w);
    EXPECT_EQ(22, r->stride_h);
    EXPECT_EQ(23, r->pool_type);
}

TEST(LayerRecord, InstanceNormalization) {
    ZQNetLoader loader;
    const auto* r = record_of<ZQLayerInfo_InstanceNormalization>(loader, 6, 10011);
    ASSERT_NE(nullptr, r);
    expect_one_bottom(*r, 46);
    expect_shape(r->in_shape, 11, 12, 13);
    expect_shape(r->out_shape, 11, 12, 13);
}

TEST(LayerRecord, BatchNormalization) {
    ZQNetLoader loader;
    const auto* r = record_of<ZQLayerInfo_BatchNormalization>(loader, 7, 10011);
    ASSERT_NE(nullptr, r);
    expect_one_bottom(*r, 47);
    expect_shape(r->in_shape, 11, 12, 3);
    expect_shape(r->out_shape, 11, 12, 3);
    expect_halves(r->bn_a_half, r->bn_a, r->bn_count, 100, 3);
    expect_halves(r->bn_b_half, r->bn_b, r->bn_count, 200, 3);
    expect_halves(r->bn_c_half, r->bn_c, r->bn_count, 300, 3);
    expect_halves(r->bn_d_half, r->bn_d, r->bn_count, 400, 3);
}

TEST(LayerRecord, Activation) {
    ZQNetLoader loader;
    const auto* r = record_of<ZQLayerInfo_Activation>(loader, 8, 10011);
    ASSERT_NE(nullptr, r);
    expect_one_bottom(*r, 48);
    expect_shape(r->in_shape, 11, 12, 13);
    expect_shape(r->out_shape, 11, 12, 13);
    EXPECT_EQ(14, r->activation_type);
    EXPECT_EQ(0x3c00, r->alpha);
    EXPECT_EQ(0xc000, r->beta);
}

TEST(LayerRecord, Region) {
    ZQNetLoader loader;
    const auto* r = record_of<ZQLayerInfo_Region>(loader, 9, 10011);
    ASSERT_NE(nullptr, r);
    expect_one_bottom(*r, 49);
    expect_shape(r->in_shape, 11, 12, 13);
    expect_shape(r->out_shape, 11, 12, 13);
    EXPECT_EQ(14, r->region_a);
    EXPECT_EQ(15, r->region_b);
    EXPECT_EQ(16, r->region_c);
}

TEST(LayerRecord, ElementWiseOperatorGivesItsOutputShapeToTheBottomsThatCount) {
    ZQNetLoader loader;
    const auto* r = record_of<ZQLayerInfo_ElementWiseOperator>(loader, 10, 10011);
    ASSERT_NE(nullptr, r);
    EXPECT_EQ(3, r->bottom_count);
    for (unsigned int i = 0; i < 10; ++i)
        EXPECT_EQ(50 + i, r->bottoms[i]);
    expect_shape(r->out_shape, 11, 12, 13);
    EXPECT_EQ(r->in_shape, r->in_shapes);
    for (unsigned int i = 0; i < 3; ++i)
        expect_shape(&r->in_shapes[i], 11, 12, 13);
    for (unsigned int i = 3; i < 10; ++i)
        expect_shape(&r->in_shapes[i], 0, 0, 0);
    EXPECT_EQ(14, r->operator_type);
    EXPECT_EQ(15, r->activation);
}

TEST(LayerRecord, Concatenate) {
    ZQNetLoader loader;
    const auto* r = record_of<ZQLayerInfo_Concatenate>(loader, 11, 10011);
    ASSERT_NE(nullptr, r);
    EXPECT_EQ(2, r->bottom_count);
    for (unsigned int i = 0; i < 10; ++i) {
        EXPECT_EQ(50 + i, r->bottoms[i]);
        expect_shape(&r->in_shapes[i], 100 + 3 * i, 101 + 3 * i, 102 + 3 * i);
    }
    EXPECT_EQ(r->in_shape, r->in_shapes);
    expect_shape(r->out_shape, 11, 12, 13);
    EXPECT_EQ(14, r->axis);
}

TEST(LayerRecord, TenBottomsAreReadAndElevenFailTheLoad) {
    for (const unsigned int type : {10u, 11u}) {
        for (const unsigned int count : {10u, 11u, 65535u}) {
            Bytes p;
            p.u16(5).u16(count).run(50, 10);
            if (type == 11) p.zeros(30);
            p.list({11, 12, 13}).u16(14);
            if (type == 10) p.u16(15);
            AssertRecorder assertions;
            ZQNetLoader loader;
            EXPECT_EQ(count == 10,
                      load(loader, hand_made::file(10011, {hand_made::input(0), message(type, p)})))
                << loader.failure();
            if (count == 10) {
                EXPECT_EQ(10, loader.getLayersInfo().at(5)->bottom_count);
            } else {
                EXPECT_EQ(1u, loader.getSequentialLayers().size());
                EXPECT_NE(std::string::npos,
                          loader.failure().find("bottom_count: at most 10 expected, found " +
                                                std::to_string(count)));
            }
            EXPECT_EQ(0u, assertions.count());
        }
    }
}

TEST(LayerRecord, UpsamplingNamesItsInputShapeFirst) {
    for (const unsigned int version : VERSIONS) {
        ZQNetLoader loader;
        const auto* r = record_of<ZQLayerInfo_Upsampling>(loader, 14, version);
        ASSERT_NE(nullptr, r);
        expect_one_bottom(*r, 54);
        expect_shape(r->in_shape, 11, 12, 13);
        expect_shape(r->out_shape, 14, 15, 16);
        EXPECT_EQ(0x4400, r->scale);
        EXPECT_EQ(17, r->mode);
    }
}

TEST(LayerRecord, UpsamplingHasAThirdFieldSinceVersion10007) {
    ZQNetLoader older;
    const auto* without = record_of<ZQLayerInfo_Upsampling>(older, 14, 10006);
    ASSERT_NE(nullptr, without);
    EXPECT_EQ(0, without->align);
    ZQNetLoader newer;
    const auto* with = record_of<ZQLayerInfo_Upsampling>(newer, 14, 10007);
    ASSERT_NE(nullptr, with);
    EXPECT_EQ(18, with->align);
}

TEST(LayerRecord, ChannelShuffle) {
    ZQNetLoader loader;
    const auto* r = record_of<ZQLayerInfo_ChannelShuffle>(loader, 15, 10011);
    ASSERT_NE(nullptr, r);
    expect_one_bottom(*r, 55);
    expect_shape(r->in_shape, 11, 12, 4);
    expect_shape(r->out_shape, 11, 12, 4);
    for (unsigned int i = 0; i < 10; ++i)
        EXPECT_EQ(80 + i, r->reserved[i]);
    ASSERT_EQ(4u, r->permutation_count);
    EXPECT_EQ((std::vector<unsigned short>{3, 1, 2, 0}),
              std::vector<unsigned short>(r->permutation, r->permutation + 4));
}

// What all records with absolute shapes have in common.
void expect_frozen(const ZQFreezedLayerInfo& r) {
    EXPECT_EQ(nullptr, r.in_shape);
    EXPECT_EQ(nullptr, r.out_shape);
    for (unsigned int i = 1; i < 10; ++i) {
        const tensor28 zeros = {};
        EXPECT_EQ(0, std::memcmp(&zeros, &r.in_tensors[i], sizeof(zeros)));
    }
}

TEST(LayerRecord, TensorInput) {
    ZQNetLoader loader;
    const auto* r = record_of<ZQLayerInfo_TensorInput>(loader, 17, 10011);
    ASSERT_NE(nullptr, r);
    expect_frozen(*r);
    EXPECT_EQ(0, r->bottom_count);
    EXPECT_EQ(nullptr, r->bottoms);
    EXPECT_EQ(14, r->input_index);
    expect_tensor(r->out_tensor, 0x00010002, 4, 200);
}

TEST(LayerRecord, TensorReshapeKeepsARankAboveTheDimsAsItStands) {
    ZQNetLoader loader;
    const auto* r = record_of<ZQLayerInfo_TensorReshape>(loader, 18, 10011);
    ASSERT_NE(nullptr, r);
    expect_frozen(*r);
    expect_one_bottom(*r, 58);
    expect_tensor(r->in_tensors[0], 0x00030004, 2, 200);
    expect_tensor(r->out_tensor, 0x00050006, 12, 300);
}

TEST(LayerRecord, DimsBehindTheRankHoldWhatTheFileHolds) {
    ZQNetLoader loader;
    const auto* r = record_of<ZQLayerInfo_TensorReshape>(loader, 18, 10008);
    ASSERT_NE(nullptr, r);
    EXPECT_EQ(2, r->in_tensors[0].rank);
    EXPECT_EQ(202, r->in_tensors[0].dims[2]);
    EXPECT_EQ(210, r->in_tensors[0].dims[10]);
}

TEST(LayerRecord, TensorTranspose) {
    ZQNetLoader loader;
    const auto* r = record_of<ZQLayerInfo_TensorTranspose>(loader, 19, 10011);
    ASSERT_NE(nullptr, r);
    expect_frozen(*r);
    expect_one_bottom(*r, 59);
    expect_tensor(r->in_tensors[0], 0x00030004, 2, 200);
    expect_tensor(r->out_tensor, 0x00050006, 3, 300);
    for (unsigned int i = 0; i < 10; ++i)
        EXPECT_EQ(80 + i, r->axes[i]);
}

TEST(LayerRecord, TensorSqueeze) {
    ZQNetLoader loader;
    const auto* r = record_of<ZQLayerInfo_TensorSqueeze>(loader, 20, 10011);
    ASSERT_NE(nullptr, r);
    expect_frozen(*r);
    expect_one_bottom(*r, 60);
    EXPECT_EQ(14, r->axis);
    expect_tensor(r->in_tensors[0], 0x00030004, 2, 200);
    expect_tensor(r->out_tensor, 0x00050006, 3, 300);
}

TEST(LayerRecord, FullConnection) {
    ZQNetLoader loader;
    const auto* r = record_of<ZQLayerInfo_FullConnection>(loader, 21, 10011);
    ASSERT_NE(nullptr, r);
    expect_frozen(*r);
    expect_one_bottom(*r, 61);
    EXPECT_EQ(3, r->num_input);
    EXPECT_EQ(2, r->num_output);
    EXPECT_EQ(15, r->has_bias);
    expect_tensor(r->in_tensors[0], 0x00030004, 2, 200);
    expect_tensor(r->out_tensor, 0x00050006, 3, 300);
    expect_halves(r->weights_half, r->weights, r->weights_count, 100, 6);
    expect_halves(r->bias_half, r->bias, r->bias_count, 400, 2);
}

TEST(LayerRecord, FullConnectionWithoutBiasHasNoBiasArray) {
    Bytes p;
    p.u16(921).u16(61).list({3, 2, 0}).tensor(1, 2, 200).tensor(1, 2, 300).run(100, 6);
    ZQNetLoader loader;
    const auto* r = record_of<ZQLayerInfo_FullConnection>(loader, 21, 10011, p);
    ASSERT_NE(nullptr, r);
    expect_halves(r->weights_half, r->weights, r->weights_count, 100, 6);
    EXPECT_EQ(0u, r->bias_count);
    EXPECT_EQ(nullptr, r->bias);
    EXPECT_EQ(nullptr, r->bias_half);
}

// A list of two arrays, whose patterns count up from 1000 + offset and 2000 + offset; null where
// the form has none.
void expect_list(unsigned short* const* halves, const float* const* floats, bool present,
                 unsigned int offset, size_t count, size_t expected_count) {
    EXPECT_EQ(present, halves != nullptr);
    EXPECT_EQ(present, floats != nullptr);
    if (!present || halves == nullptr || floats == nullptr) return;
    expect_halves(halves[0], floats[0], count, 1000 + offset, expected_count);
    expect_halves(halves[1], floats[1], count, 2000 + offset, expected_count);
}

TEST(LayerRecord, LstmOfEveryForm) {
    for (const bool bias : {false, true}) {
        for (const bool bidirectional : {false, true}) {
            ZQNetLoader loader;
            const hand_made::LstmForm form = {bias, bidirectional};
            const auto* r = record_of<ZQLayerInfo_LSTM>(loader, 22, 10011,
                                                        hand_made::lstm_payload(10011, form));
            ASSERT_NE(nullptr, r);
            expect_frozen(*r);
            expect_one_bottom(*r, 62);
            EXPECT_EQ(3, r->input_size);
            EXPECT_EQ(2, r->hidden_size);
            EXPECT_EQ(2, r->num_layers);
            EXPECT_EQ(bias ? 5 : 0, r->has_bias);
            EXPECT_EQ(bidirectional ? 6 : 0, r->bidirectional);
            EXPECT_EQ(77, r->lstm_flag);
            expect_tensor(r->in_tensors[0], 0x00030004, 2, 200);
            expect_tensor(r->out_tensor, 0x00050006, 3, 300);
            EXPECT_EQ(2u, r->list_count);
            const bool both = bias && bidirectional;
            expect_list(r->w_ih_half, r->w_ih, true, 0, r->w_ih_count, 24);
            expect_list(r->w_hh_half, r->w_hh, true, 100, r->w_hh_count, 16);
            expect_list(r->b_ih_half, r->b_ih, bias, 200, r->bias_count, 8);
            expect_list(r->b_hh_half, r->b_hh, bias, 300, r->bias_count, 8);
            expect_list(r->w_ih_reverse_half, r->w_ih_reverse, bidirectional, 400, r->w_ih_count,
                        24);
            expect_list(r->w_hh_reverse_half, r->w_hh_reverse, bidirectional, 500, r->w_hh_count,
                        16);
            expect_list(r->b_ih_reverse_half, r->b_ih_reverse, both, 600, r->bias_count, 8);
            expect_list(r->b_hh_reverse_half, r->b_hh_reverse, both, 700, r->bias_count, 8);
            EXPECT_EQ(bias ? 8u : 0u, r->bias_count);
        }
    }
}

TEST(LayerRecord, LstmHasItsFlagSinceVersion10009) {
    ZQNetLoader older;
    const auto* without = record_of<ZQLayerInfo_LSTM>(older, 22, 10008);
    ASSERT_NE(nullptr, without);
    EXPECT_EQ(0, without->lstm_flag);
    expect_list(without->w_ih_half, without->w_ih, true, 0, without->w_ih_count, 24);
    ZQNetLoader newer;
    const auto* with = record_of<ZQLayerInfo_LSTM>(newer, 22, 10009);
    ASSERT_NE(nullptr, with);
    EXPECT_EQ(77, with->lstm_flag);
}

TEST(LayerRecord, LstmWithoutInputsKeepsItsListWithEmptyEntries) {
    Bytes p;
    p.u16(922).u16(62).list({0, 1, 2, 0, 0, 0}).tensor(1, 2, 200).tensor(1, 2, 300);
    p.run(1100, 4).run(2100, 4);
    ZQNetLoader loader;
    const auto* r = record_of<ZQLayerInfo_LSTM>(loader, 22, 10011, p);
    ASSERT_NE(nullptr, r);
    EXPECT_EQ(0u, r->w_ih_count);
    ASSERT_NE(nullptr, r->w_ih);
    EXPECT_EQ(nullptr, r->w_ih[0]);
    EXPECT_EQ(nullptr, r->w_ih[1]);
    expect_list(r->w_hh_half, r->w_hh, true, 100, r->w_hh_count, 4);
}

TEST(LayerRecord, LstmWithoutStateHasNoLists) {
    Bytes p;
    p.u16(922).u16(62).list({9, 0, 65535, 1, 1, 0}).tensor(1, 2, 200).tensor(1, 2, 300);
    ZQNetLoader loader;
    const auto* r = record_of<ZQLayerInfo_LSTM>(loader, 22, 10011, p);
    ASSERT_NE(nullptr, r);
    EXPECT_EQ(65535, r->num_layers);
    EXPECT_EQ(0u, r->list_count);
    EXPECT_EQ(nullptr, r->w_ih);
    EXPECT_EQ(nullptr, r->b_hh_reverse_half);
}

TEST(LayerRecord, TensorActivation) {
    ZQNetLoader loader;
    const auto* r = record_of<ZQLayerInfo_TensorActivation>(loader, 26, 10011);
    ASSERT_NE(nullptr, r);
    expect_frozen(*r);
    expect_one_bottom(*r, 66);
    expect_tensor(r->in_tensors[0], 0x00030004, 2, 200);
    expect_tensor(r->out_tensor, 0x00030004, 2, 200);
    EXPECT_EQ(14, r->activation_type);
    EXPECT_EQ(15, r->alpha);
    EXPECT_EQ(16, r->beta);
}

TEST(LayerRecord, WeightsKeepEveryPatternDenormalsAndNanIncluded) {
    Bytes p;
    p.u16(921).u16(61).list({5, 1, 0}).tensor(1, 2, 200).tensor(1, 2, 300);
    p.list({0x0001, 0x8000, 0x7c00, 0xfd23, 0x03ff});
    ZQNetLoader loader;
    const auto* r = record_of<ZQLayerInfo_FullConnection>(loader, 21, 10011, p);
    ASSERT_NE(nullptr, r);
    ASSERT_EQ(5u, r->weights_count);
    const uint32_t expected[] = {0x33800000, 0x80000000, 0x7f800000, 0xffa46000, 0x387fc000};
    EXPECT_EQ(0, std::memcmp(expected, r->weights, sizeof(expected)));
}

TEST(LayerRecord, ANewRecordHasNoId) {
    const ZQLayerInfo_Conv2D record;
    EXPECT_EQ(0xffff, record.id);
    EXPECT_EQ(1, record.bottom_count);
    EXPECT_EQ(1, record.top_count);
    const ZQLayerInfo_TensorInput input;
    EXPECT_EQ(0, input.bottom_count);
    EXPECT_EQ(nullptr, input.bottoms);
}

TEST(LayerRecord, TypesHaveTheirNamesAndFirstVersions) {
    EXPECT_STREQ("Conv2D", zq_layer_type_name(1));
    EXPECT_STREQ("TensorActivation", zq_layer_type_name(26));
    EXPECT_STREQ("unknown", zq_layer_type_name(12));
    for (unsigned int type = 0; type <= 65536; ++type) {
        unsigned int expected = 0;
        if (type <= 11 || type == 14 || type == 15) expected = 10000;
        if (type == 16) expected = 10003;
        if (type >= 17 && type <= 22) expected = 10008;
        if (type == 26) expected = 10011;
        ASSERT_EQ(expected, zq_layer_type_since(type)) << type;
    }
}

}  // namespace
