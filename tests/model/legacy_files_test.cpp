// Files of version 10000.
#include <gtest/gtest.h>
#include <tarno/model.h>

#include <string>
#include <vector>

#include "hand_made.h"
#include "support/recorders.h"
#include "support/temporary_file.h"

namespace {

using hand_made::activation;
using hand_made::Bytes;
using hand_made::input;
using hand_made::message;
using testing_support::AssertRecorder;
using testing_support::LogRecorder;
using testing_support::TemporaryFile;

using Ids = std::vector<unsigned short>;

bool load(ZQNetLoader& loader, const std::vector<unsigned char>& bytes, bool sort = false) {
    const TemporaryFile file(bytes);
    return loader.LoadFile(file.path(), sort);
}

template <typename Record>
const Record* find(const ZQNetLoader& loader, unsigned short id) {
    const auto layers = loader.getLayersInfo();
    const auto found = layers.find(id);
    return found == layers.end() ? nullptr : dynamic_cast<const Record*>(found->second);
}

TEST(LegacyFile, EveryTypeIsRead) {
    AssertRecorder assertions;
    LogRecorder log;
    ZQNetLoader loader;
    ASSERT_TRUE(load(loader, hand_made::file_of_all_types(10000))) << loader.failure();
    Ids expected;
    for (const unsigned int type : hand_made::types_of(10000)) {
        expected.push_back(static_cast<unsigned short>(900 + type));
    }
    EXPECT_EQ(expected, loader.getSequentialLayers());
    for (const auto& [id, record] : loader.getLayersInfo()) {
        EXPECT_EQ(id, record->id);
        EXPECT_EQ(id - 900, record->type);
    }
    EXPECT_EQ(0u, assertions.count());
    EXPECT_TRUE(log.lines.empty());
}

TEST(LegacyFile, AConvolutionHasNoGroupsAndCountsAsOne) {
    ZQNetLoader loader;
    ASSERT_TRUE(load(loader, hand_made::file_of_all_types(10000)));
    const auto* r = find<ZQLayerInfo_Conv2D>(loader, 901);
    ASSERT_NE(nullptr, r);
    EXPECT_EQ(22, r->activation);
    EXPECT_EQ(0, r->groups);
    EXPECT_EQ(1u, r->effective_groups());
    ASSERT_EQ(120u, r->weights_count);
    for (unsigned int i = 0; i < 120; ++i)
        ASSERT_EQ(100 + i, r->weights_half[i]);
    ASSERT_EQ(5u, r->bias_count);
    EXPECT_EQ(304, r->bias_half[4]);
    EXPECT_EQ(hand_made::half_value(304), static_cast<double>(r->bias[4]));
}

TEST(LegacyFile, ATransposedConvolutionHasNoGroups) {
    ZQNetLoader loader;
    ASSERT_TRUE(load(loader, hand_made::file_of_all_types(10000)));
    const auto* r = find<ZQLayerInfo_Conv2DTranspose>(loader, 902);
    ASSERT_NE(nullptr, r);
    EXPECT_EQ(0, r->groups);
    EXPECT_EQ(72u, r->weights_count);
    EXPECT_EQ(3u, r->bias_count);
}

TEST(LegacyFile, AnElementWiseOperatorReadsItsInputShapeAndCopiesIt) {
    ZQNetLoader loader;
    ASSERT_TRUE(load(loader, hand_made::file_of_all_types(10000)));
    const auto* r = find<ZQLayerInfo_ElementWiseOperator>(loader, 910);
    ASSERT_NE(nullptr, r);
    EXPECT_EQ(3, r->bottom_count);
    EXPECT_EQ(50, r->bottoms[0]);
    EXPECT_EQ(59, r->bottoms[9]);
    for (const shape3* shape : {r->in_shape, r->out_shape, &r->in_shapes[2]}) {
        EXPECT_EQ(11, shape->scale_x);
        EXPECT_EQ(12, shape->scale_y);
        EXPECT_EQ(13, shape->channels);
    }
    EXPECT_EQ(14, r->operator_type);
    EXPECT_EQ(15, r->activation);
}

TEST(LegacyFile, AnElementWiseOperatorWithoutBottomsStillHasItsInputShape) {
    const Bytes none = message(10, Bytes().u16(5).u16(0).zeros(10).list({11, 12, 13}).list({0, 0}));
    ZQNetLoader loader;
    ASSERT_TRUE(load(loader, hand_made::file(10000, {none})));
    EXPECT_EQ(13, loader.getLayersInfo().at(5)->in_shape->channels);
    EXPECT_EQ(13, loader.getLayersInfo().at(5)->out_shape->channels);
}

TEST(LegacyFile, AnUpsamplingHasTwoFields) {
    ZQNetLoader loader;
    ASSERT_TRUE(load(loader, hand_made::file_of_all_types(10000)));
    const auto* r = find<ZQLayerInfo_Upsampling>(loader, 914);
    ASSERT_NE(nullptr, r);
    EXPECT_EQ(0x4400, r->scale);
    EXPECT_EQ(17, r->mode);
    EXPECT_EQ(0, r->align);
    EXPECT_EQ(11, r->in_shape->scale_x);
    EXPECT_EQ(14, r->out_shape->scale_x);
}

TEST(LegacyFile, NewerTypesAndUnknownOnesArePrintedAndTheReaderGoesOn) {
    for (const unsigned int type : {12u, 13u, 16u, 17u, 22u, 26u, 65535u}) {
        AssertRecorder assertions;
        LogRecorder log;
        ZQNetLoader loader;
        testing::internal::CaptureStdout();
        EXPECT_TRUE(load(
            loader, hand_made::file(10000, {input(0), message(type, Bytes()), activation(1, 0)})));
        EXPECT_EQ("\n\n\nError, Unsupport Layer Type.\n", testing::internal::GetCapturedStdout());
        EXPECT_EQ((Ids{0, 1}), loader.getSequentialLayers());
        EXPECT_EQ(1, loader.getLayersRCnt().at(0));
        ASSERT_EQ(1u, assertions.count());
        EXPECT_EQ("false", assertions.last().condition);
        EXPECT_EQ("crossplatform_zqnetloader", assertions.last().source);
        EXPECT_EQ(1344, assertions.last().line);
        EXPECT_TRUE(log.lines.empty());
    }
}

TEST(LegacyFile, AWrongEndRaisesTheAssertionAndTheReaderGoesOn) {
    Bytes broken = activation(1, 0);
    broken.data.back() = 0x2a;
    AssertRecorder assertions;
    ZQNetLoader loader;
    EXPECT_TRUE(load(loader, hand_made::file(10000, {input(0), broken, activation(2, 1)})));
    EXPECT_EQ((Ids{0, 1, 2}), loader.getSequentialLayers());
    ASSERT_EQ(1u, assertions.count());
    EXPECT_EQ("message_end == 0xaaaa", assertions.last().condition);
    EXPECT_EQ("crossplatform_zqnetloader", assertions.last().source);
    EXPECT_EQ(1, loader.getLayersRCnt().at(1));
}

TEST(LegacyFile, AMissingEndRaisesTheAssertionAndTheFileIsOver) {
    for (const size_t missing : {size_t{1}, size_t{2}}) {
        std::vector<unsigned char> bytes = hand_made::file(10000, {input(0), activation(1, 0)});
        bytes.resize(bytes.size() - missing);
        AssertRecorder assertions;
        ZQNetLoader loader;
        EXPECT_TRUE(load(loader, bytes));
        EXPECT_EQ((Ids{0, 1}), loader.getSequentialLayers());
        EXPECT_EQ(1u, assertions.count("message_end == 0xaaaa"));
        EXPECT_EQ(1u, assertions.count());
    }
}

TEST(LegacyFile, AWrongHeadRaisesTheAssertion) {
    std::vector<unsigned char> bytes = hand_made::file(10000, {input(0), activation(1, 0)});
    bytes[1000] = 0;
    AssertRecorder assertions;
    ZQNetLoader loader;
    EXPECT_TRUE(load(loader, bytes));
    EXPECT_EQ((Ids{0, 1}), loader.getSequentialLayers());
    ASSERT_EQ(1u, assertions.count());
    EXPECT_EQ("message_head == 0x5555", assertions.last().condition);
    EXPECT_EQ("crossplatform_zqnetloader", assertions.last().source);
}

TEST(LegacyFile, ATruncatedPayloadFailsAndDropsTheRecord) {
    std::vector<unsigned char> bytes = hand_made::file(10000, {input(0), activation(1, 0)});
    bytes.resize(bytes.size() - 3);
    ZQNetLoader loader;
    EXPECT_FALSE(load(loader, bytes));
    EXPECT_EQ((Ids{0}), loader.getSequentialLayers());
    EXPECT_NE("", loader.failure());
}

TEST(LegacyFile, AMissingTypeFails) {
    std::vector<unsigned char> bytes = hand_made::file(10000, {input(0)});
    bytes.insert(bytes.end(), {0x55, 0x55});
    ZQNetLoader loader;
    EXPECT_FALSE(load(loader, bytes));
}

TEST(LegacyFile, ItIsSortedOnDemand) {
    ZQNetLoader loader;
    ASSERT_TRUE(
        load(loader, hand_made::file(10000, {activation(2, 1), activation(1, 0), input(0)}), true));
    EXPECT_EQ((Ids{0, 1, 2}), loader.getSequentialLayers());
}

TEST(LegacyFile, AStreamIsReadFromWhereItStands) {
    const TemporaryFile file(hand_made::file_of_all_types(10000));
    FILE* stream = std::fopen(file.path(), "rb");
    ASSERT_NE(nullptr, stream);
    ASSERT_EQ(0, std::fseek(stream, 1000, SEEK_SET));
    ZQNetLoader loader;
    EXPECT_TRUE(loader.LoadFileV10000(stream));
    EXPECT_EQ(14u, loader.getSequentialLayers().size());
    EXPECT_EQ(14u, loader.getLayersRCnt().size());
}

}  // namespace
