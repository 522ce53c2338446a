// The writer against hand-made bytes, and the way there and back.
#include <gtest/gtest.h>
#include <modelkit/model_writer.h>
#include <modelkit/records.h>
#include <tarno/log.h>
#include <tarno/model.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "hand_made.h"
#include "support/temporary_file.h"

namespace {

using hand_made::Bytes;
using hand_made::message;
using modelkit::ModelHeader;
using modelkit::ModelWriter;
using modelkit::Status;
using testing_support::TemporaryFile;

using File = std::vector<unsigned char>;

const unsigned int VERSIONS[] = {10000, 10001, 10002, 10003, 10006, 10007,
                                 10008, 10009, 10010, 10011, 20000};

void load(ZQNetLoader& loader, const File& bytes) {
    const TemporaryFile file(bytes);
    ASSERT_TRUE(loader.LoadFile(file.path(), false)) << loader.failure();
}

ModelHeader header_of_version(unsigned int version) {
    ModelHeader header;
    header.version = version;
    return header;
}

TEST(ModelWriter, TheHeaderIsThatOfTheHandMadeFile) {
    ModelHeader header = header_of_version(10011);
    header.gesture_mode = 7001;
    header.application_type = 7002;
    header.model_id = 301000010;
    header.base_w = 320;
    header.base_h = 240;
    for (size_t i = 0; i < header.reserved.size(); ++i) {
        header.reserved[i] = 0x80000007u + static_cast<unsigned int>(i);
    }
    EXPECT_EQ(hand_made::header(10011).data, ModelWriter(header).bytes());
}

TEST(ModelWriter, WritingWhatWasReadGivesTheSameBytes) {
    for (const unsigned int version : VERSIONS) {
        for (const unsigned int type : hand_made::types_of(version)) {
            const File bytes =
                hand_made::file(version, {message(type, hand_made::payload(type, version))});
            ZQNetLoader loader;
            load(loader, bytes);
            ModelWriter writer(modelkit::header_of(loader));
            const Status status = writer.add_all(loader);
            EXPECT_TRUE(status) << status.message();
            EXPECT_EQ(bytes, writer.bytes()) << "type " << type << " version " << version;
        }
        const File all = hand_made::file_of_all_types(version);
        ZQNetLoader loader;
        load(loader, all);
        ModelWriter writer(modelkit::header_of(loader));
        EXPECT_TRUE(writer.add_all(loader));
        EXPECT_EQ(all, writer.bytes());
    }
}

TEST(ModelWriter, EveryFormOfAnLstmGivesTheSameBytes) {
    for (const bool bias : {false, true}) {
        for (const bool bidirectional : {false, true}) {
            const hand_made::LstmForm form = {bias, bidirectional};
            const File bytes =
                hand_made::file(10011, {message(22, hand_made::lstm_payload(10011, form))});
            ZQNetLoader loader;
            load(loader, bytes);
            ModelWriter writer(modelkit::header_of(loader));
            EXPECT_TRUE(writer.add_all(loader));
            EXPECT_EQ(bytes, writer.bytes());
        }
    }
}

TEST(ModelWriter, ReadingWhatWasWrittenGivesEqualRecords) {
    for (const unsigned int version : VERSIONS) {
        ZQNetLoader first;
        load(first, hand_made::file_of_all_types(version));
        ModelWriter writer(modelkit::header_of(first));
        ASSERT_TRUE(writer.add_all(first));
        ZQNetLoader second;
        load(second, writer.bytes());
        EXPECT_EQ(first.getSequentialLayers(), second.getSequentialLayers());
        const auto records = second.getLayersInfo();
        for (const auto& [id, record] : first.getLayersInfo()) {
            EXPECT_EQ("", modelkit::difference(*record, *records.at(id)));
        }
    }
}

// A record filled by hand, not by the reader.
std::unique_ptr<ZQLayerInfo_Conv2D> small_convolution() {
    auto record = std::make_unique<ZQLayerInfo_Conv2D>();
    record->id = 901;
    record->bottoms[0] = 41;
    *record->out_shape = {11, 12, 5};
    *record->in_shape = {13, 14, 4};
    record->kernel_w = 2;
    record->kernel_h = 3;
    record->pad_w = 15;
    record->pad_h = 16;
    record->stride_w = 17;
    record->stride_h = 18;
    record->dilation_w = 19;
    record->dilation_h = 20;
    record->has_bias = 0;
    record->activation = 22;
    record->groups = 2;
    for (unsigned short i = 0; i < 10; ++i)
        record->reserved[i] = static_cast<unsigned short>(80 + i);
    std::vector<unsigned short> weights(60);
    for (size_t i = 0; i < 60; ++i) weights[i] = static_cast<unsigned short>(100 + i);
    EXPECT_TRUE(modelkit::assign_weights(*record, weights));
    EXPECT_TRUE(modelkit::assign_bias(*record, {300, 301, 302, 303, 304}));
    return record;
}

TEST(ModelWriter, ARecordFilledByHandGivesTheHandMadeMessage) {
    ModelWriter writer(header_of_version(10011));
    ASSERT_TRUE(writer.add(*small_convolution()));
    const File& bytes = writer.bytes();
    EXPECT_EQ(message(1, hand_made::payload(1, 10011)).data,
              File(bytes.begin() + 1000, bytes.end()));
}

TEST(ModelWriter, ATypeTooNewForTheVersionIsRefused) {
    ModelWriter writer(header_of_version(10007));
    const Status status = writer.add(ZQLayerInfo_TensorInput());
    EXPECT_FALSE(status);
    EXPECT_EQ(
        "layer 65535 (TensorInput): a file of version 10008 or above expected, this one has "
        "version 10007",
        status.message());
    EXPECT_EQ(1000u, writer.bytes().size());
}

TEST(ModelWriter, AVersionThatNobodyReadsIsRefused) {
    ModelWriter writer(header_of_version(9999));
    const Status status = writer.add(ZQLayerInfo_Input());
    EXPECT_EQ("layer 65535 (Input): a file of version 9999 can't be read: 10000 is the lowest",
              status.message());
}

TEST(ModelWriter, TheSameIdTwiceIsRefused) {
    ModelWriter writer(header_of_version(10011));
    ZQLayerInfo_Input input;
    input.id = 3;
    EXPECT_TRUE(writer.add(input));
    const size_t size = writer.bytes().size();
    EXPECT_EQ("layer 3 (Input): id: another layer of the file has it", writer.add(input).message());
    EXPECT_EQ(size, writer.bytes().size());
}

TEST(ModelWriter, FieldsThatTheVersionHasNoPlaceForAreRefused) {
    const auto refusal = [](unsigned int version, const ZQLayerInfo& record) {
        return ModelWriter(header_of_version(version)).add(record).message();
    };
    const auto conv = small_convolution();
    EXPECT_EQ("layer 901 (Conv2D): groups: 2 has no place in a file of version 10000, before 10001",
              refusal(10000, *conv));
    conv->groups = 0;
    EXPECT_EQ("layer 901 (Conv2D): reserved: has no place in a file of version 10000",
              refusal(10000, *conv));
    EXPECT_EQ("layer 901 (Conv2D): groups: 1 or more expected, found 0", refusal(10001, *conv));

    ZQLayerInfo_Conv2DTranspose transposed;
    transposed.groups = 1;
    EXPECT_EQ("", refusal(10003, transposed));
    EXPECT_EQ(
        "layer 65535 (Conv2DTranspose): groups: 1 has no place in a file of version 10002, "
        "before 10003",
        refusal(10002, transposed));

    ZQLayerInfo_Upsampling upsampling;
    upsampling.align = 1;
    EXPECT_EQ("", refusal(10007, upsampling));
    EXPECT_EQ(
        "layer 65535 (Upsampling): align: 1 has no place in a file of version 10006, before "
        "10007",
        refusal(10006, upsampling));

    ZQLayerInfo_LSTM lstm;
    lstm.lstm_flag = 1;
    EXPECT_EQ("", refusal(10009, lstm));
    EXPECT_EQ(
        "layer 65535 (LSTM): lstm_flag: 1 has no place in a file of version 10008, before "
        "10009",
        refusal(10008, lstm));
}

TEST(ModelWriter, ArraysOfAnotherLengthThanTheFieldsSayAreRefused) {
    const auto refusal = [](const ZQLayerInfo& record) {
        return ModelWriter(header_of_version(10011)).add(record).message();
    };
    auto conv = small_convolution();
    conv->out_shape->channels = 6;
    EXPECT_EQ("layer 901 (Conv2D): weights: 72 numbers expected, found 60", refusal(*conv));
    conv = small_convolution();
    EXPECT_TRUE(modelkit::assign_bias(*conv, {}));
    EXPECT_EQ("layer 901 (Conv2D): bias: 5 numbers expected, found 0", refusal(*conv));
    conv = small_convolution();
    conv->weights[7] += 1.0f;
    EXPECT_EQ("layer 901 (Conv2D): weights: float 7 is not what its half means", refusal(*conv));

    ZQLayerInfo_FullConnection dense;
    dense.num_output = 1;
    dense.has_bias = 1;
    EXPECT_EQ("layer 65535 (FullConnection): bias: 1 numbers expected, found 0", refusal(dense));
    dense.has_bias = 0;
    EXPECT_EQ("", refusal(dense));

    ZQLayerInfo_ChannelShuffle shuffle;
    shuffle.in_shape->channels = 2;
    shuffle.out_shape->channels = 2;
    EXPECT_EQ("layer 65535 (ChannelShuffle): permutation: 2 numbers expected, found 0",
              refusal(shuffle));

    ZQLayerInfo_LSTM lstm;
    lstm.hidden_size = 1;
    lstm.num_layers = 2;
    EXPECT_EQ("layer 65535 (LSTM): list_count: 2 expected, found 0", refusal(lstm));
    EXPECT_TRUE(modelkit::assign_lstm(lstm, std::vector<unsigned short>(8, 0x3c00)));
    EXPECT_EQ("", refusal(lstm));
    lstm.has_bias = 1;
    EXPECT_EQ("layer 65535 (LSTM): b_ih: lists expected", refusal(lstm));
    lstm.has_bias = 0;
}

TEST(ModelWriter, ShapesThatTheReaderWouldNotGiveBackAreRefused) {
    const auto refusal = [](unsigned int version, const ZQLayerInfo& record) {
        return ModelWriter(header_of_version(version)).add(record).message();
    };
    ZQLayerInfo_Activation activation;
    activation.in_shape->channels = 1;
    EXPECT_EQ("layer 65535 (Activation): out_shape: a copy of in_shape expected",
              refusal(10011, activation));

    ZQLayerInfo_ElementWiseOperator eltwise;
    eltwise.bottom_count = 2;
    *eltwise.out_shape = {1, 2, 3};
    eltwise.in_shapes[0] = {1, 2, 3};
    const std::string expected =
        "layer 65535 (ElementWiseOperator): in_shapes: copies of out_shape for the bottoms "
        "expected, and zeros behind";
    EXPECT_EQ(expected, refusal(10011, eltwise));
    eltwise.in_shapes[1] = {1, 2, 3};
    EXPECT_EQ("", refusal(10011, eltwise));
    EXPECT_EQ("", refusal(10000, eltwise));
    eltwise.in_shapes[2] = {1, 2, 3};
    EXPECT_EQ(expected, refusal(10011, eltwise));
    eltwise.bottom_count = 11;
    EXPECT_EQ("layer 65535 (ElementWiseOperator): bottom_count: at most 10 expected, found 11",
              refusal(10011, eltwise));

    ZQLayerInfo_TensorActivation tensor;
    tensor.in_tensors[0].rank = 1;
    EXPECT_EQ("layer 65535 (TensorActivation): out_tensor: a copy of in_tensors[0] expected",
              refusal(10011, tensor));
    tensor.out_tensor.rank = 1;
    EXPECT_EQ("", refusal(10011, tensor));
    tensor.in_tensors[9].rank = 1;
    EXPECT_EQ("layer 65535 (TensorActivation): in_tensors: zeros expected behind the first",
              refusal(10011, tensor));
}

TEST(ModelWriter, ARecordWhoseTypeIsNotThatOfItsClassIsRefused) {
    ZQLayerInfo_Input input;
    input.type = 1;
    EXPECT_EQ("layer 65535 (Conv2D): type: the record is not of the class of type 1",
              ModelWriter(header_of_version(10011)).add(input).message());
    input.type = 12;
    EXPECT_EQ("layer 65535 (unknown): type: 12 is not in use",
              ModelWriter(header_of_version(10011)).add(input).message());
}

TEST(ModelWriter, SaveReplacesTheFileAndLeavesNothingElse) {
    const std::filesystem::path folder =
        std::filesystem::path(testing::TempDir()) / ("tarno_save_" + std::to_string(getpid()));
    std::filesystem::create_directory(folder);
    const std::string path = (folder / "net.model").string();
    for (const unsigned int version : {10011u, 10000u}) {
        const ModelWriter writer(header_of_version(version));
        EXPECT_TRUE(writer.save(path));
        ZQNetLoader loader;
        EXPECT_TRUE(loader.LoadFile(path.c_str(), false));
        EXPECT_EQ(version, loader.getVersion());
        EXPECT_EQ(1, std::distance(std::filesystem::directory_iterator(folder), {}));
    }
    std::filesystem::remove_all(folder);
}

TEST(ModelWriter, SaveToAFolderThatIsNotThereFails) {
    const Status status = ModelWriter(ModelHeader()).save("/no/such/folder/net.model");
    EXPECT_FALSE(status);
    EXPECT_NE(std::string::npos, status.message().find("can't be created"));
    // The target is a folder: the move fails and the partial file goes.
    const std::filesystem::path folder =
        std::filesystem::path(testing::TempDir()) / ("tarno_folder_" + std::to_string(getpid()));
    std::filesystem::create_directories(folder / "net.model" / "inside");
    EXPECT_FALSE(ModelWriter(ModelHeader()).save((folder / "net.model").string()));
    EXPECT_EQ(1, std::distance(std::filesystem::directory_iterator(folder), {}));
    std::filesystem::remove_all(folder);
}

// A convolution of 2 channels with a kernel of 1, whose 4 weights and 2 terms are only counted.
struct CountedConvolution : ZQLayerInfo_Conv2D {
    CountedConvolution() {
        id = 0;
        in_shape->channels = out_shape->channels = 2;
        kernel_w = kernel_h = stride_w = stride_h = dilation_w = dilation_h = groups = 1;
        weights_count = 4;
        bias_count = 2;
    }
};

TEST(ModelWriter, ArraysThatARecordOnlyCountsComeFromASource) {
    CountedConvolution record;
    std::string asked;
    ModelWriter streamed(header_of_version(10011));
    const Status added = streamed.add(
        record, [&](const std::string& array, size_t count, const modelkit::PutHalves& put) {
            asked += array + std::to_string(count);
            for (size_t i = 0; i < count; ++i) {
                const auto half = static_cast<unsigned short>(0x3c00 + i);
                put(&half, 1);
            }
        });
    ASSERT_TRUE(added) << added.message();
    EXPECT_EQ("weights4bias2", asked);
    ModelWriter whole(header_of_version(10011));
    ASSERT_TRUE(modelkit::assign_weights(record, {0x3c00, 0x3c01, 0x3c02, 0x3c03}));
    ASSERT_TRUE(modelkit::assign_bias(record, {0x3c00, 0x3c01}));
    ASSERT_TRUE(whole.add(record));
    EXPECT_EQ(whole.bytes(), streamed.bytes());
    EXPECT_EQ(whole.bytes(), streamed.take());
}

TEST(ModelWriter, ASourceThatFailsLeavesNothingBehind) {
    CountedConvolution record;
    ModelWriter writer(header_of_version(10011));
    const File before = writer.bytes();
    const Status few =
        writer.add(record, [](const std::string&, size_t, const modelkit::PutHalves& put) {
            const unsigned short half = 0x3c00;
            put(&half, 1);
        });
    EXPECT_EQ("layer 0 (Conv2D): weights: 4 numbers expected, the source gave 1", few.message());
    EXPECT_EQ(before, writer.bytes());
    EXPECT_THROW(static_cast<void>(
                     writer.add(record,
                                [](const std::string&, size_t, const modelkit::PutHalves& put) {
                                    const unsigned short half = 0x3c00;
                                    put(&half, 1);
                                    throw 1;
                                })),
                 int);
    EXPECT_EQ(before, writer.bytes());
    record.weights_count = 3;
    EXPECT_EQ("layer 0 (Conv2D): weights: 4 numbers expected, found 3",
              writer.add(record, [](const std::string&, size_t, const modelkit::PutHalves&) {})
                  .message());
    EXPECT_FALSE(writer.add(CountedConvolution())) << "without a source";
}

TEST(RecordDifference, NamesTheFirstMemberThatDiffers) {
    const auto a = small_convolution();
    const auto b = small_convolution();
    EXPECT_EQ("", modelkit::difference(*a, *b));
    b->weights_half[3] = 1;
    EXPECT_EQ("weights_half", modelkit::difference(*a, *b));
    b->in_shape->channels = 1;
    EXPECT_EQ("in_shape", modelkit::difference(*a, *b));
    EXPECT_EQ("type", modelkit::difference(*a, ZQLayerInfo_Input()));
}

TEST(RecordDifference, SeesEveryFieldOfEveryType) {
    // Of each message of a hand-made file one word at a time is changed; either the reader refuses
    // it, or the record differs. Words that only name a size may do both.
    for (const unsigned int type : hand_made::types_of(10011)) {
        const Bytes payload = hand_made::payload(type, 10011);
        const File original = hand_made::file(10011, {message(type, payload)});
        ZQNetLoader whole;
        load(whole, original);
        const auto first = whole.getLayersInfo();
        for (size_t at = 1004; at < 1004 + payload.data.size(); at += 2) {
            File changed = original;
            changed[at] ^= 4;
            const TemporaryFile file(changed);
            ZQNetLoader loader;
            Tarno::SetLogLevel(Tarno::LogLevel::Silent);
            const bool loaded = loader.LoadFile(file.path(), false);
            Tarno::SetLogLevel(Tarno::LogLevel::Info);
            if (!loaded) continue;
            ASSERT_NE("", modelkit::difference(*first.begin()->second,
                                               *loader.getLayersInfo().begin()->second))
                << "type " << type << " offset " << at;
        }
    }
}

TEST(RecordMaking, EveryTypeHasARecordOfItsClass) {
    for (unsigned int type = 0; type < 100; ++type) {
        const auto record = modelkit::make_record(type);
        ASSERT_EQ(zq_layer_type_since(type) != 0, record != nullptr) << type;
        if (record == nullptr) continue;
        EXPECT_EQ(type, record->type);
        if (type == 1 || type == 2) continue;  // groups have to be set
        ModelWriter writer(header_of_version(10011));
        const Status status = writer.add(*record);
        EXPECT_TRUE(status) << status.message();
    }
}

TEST(RecordMaking, AnLstmTakesOnlyAsManyHalvesAsItsSizesAskFor) {
    ZQLayerInfo_LSTM lstm;
    lstm.input_size = 3;
    lstm.hidden_size = 2;
    lstm.num_layers = 2;
    lstm.has_bias = 1;
    lstm.bidirectional = 1;
    EXPECT_EQ(2u * 2u * (24 + 16 + 8 + 8), modelkit::lstm_halves_count(lstm));
    EXPECT_FALSE(modelkit::assign_lstm(lstm, std::vector<unsigned short>(223)));
    EXPECT_EQ(nullptr, lstm.w_ih);
    EXPECT_TRUE(modelkit::assign_lstm(lstm, std::vector<unsigned short>(224, 0x3c00)));
    EXPECT_EQ(2u, lstm.list_count);
    EXPECT_EQ(1.0f, lstm.b_hh_reverse[1][7]);
    // Once more, with other sizes: the old lists go.
    lstm.num_layers = 1;
    lstm.bidirectional = 0;
    EXPECT_TRUE(modelkit::assign_lstm(lstm, std::vector<unsigned short>(56, 0)));
    EXPECT_EQ(1u, lstm.list_count);
    EXPECT_EQ(nullptr, lstm.w_ih_reverse);
}

TEST(RecordMaking, ABatchNormalizationTakesFourArraysOfOneLength) {
    ZQLayerInfo_BatchNormalization record;
    EXPECT_FALSE(modelkit::assign_batchnorm(record, {1, 2}, {1, 2}, {1, 2}, {1}));
    EXPECT_EQ(0u, record.bn_count);
    EXPECT_TRUE(modelkit::assign_batchnorm(record, {1, 2}, {3, 4}, {5, 6}, {7, 8}));
    EXPECT_EQ(2u, record.bn_count);
    EXPECT_EQ(6, record.bn_c_half[1]);
}

}  // namespace
