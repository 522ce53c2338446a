// The container: header, message stream, order of the layers, read counts.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <tarno/model.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "hand_made.h"
#include "support/recorders.h"
#include "support/temporary_file.h"

namespace {

using hand_made::activation;
using hand_made::Bytes;
using hand_made::eltwise;
using hand_made::header;
using hand_made::input;
using hand_made::message;
using testing_support::AssertRecorder;
using testing_support::LogRecorder;
using testing_support::TemporaryFile;

using Ids = std::vector<unsigned short>;

// Three layers: an input and two activations.
std::vector<Bytes> chain() {
    return {input(0), activation(1, 0), activation(2, 1)};
}

bool load(ZQNetLoader& loader, const std::vector<unsigned char>& bytes, bool sort = false) {
    const TemporaryFile file(bytes);
    return loader.LoadFile(file.path(), sort);
}

size_t open_files() {
    const std::filesystem::directory_iterator files("/proc/self/fd");
    return static_cast<size_t>(std::distance(begin(files), end(files)));
}

// --- Header

TEST(ModelHeader, AFileOfTheHeaderAloneLoadsWithoutLayers) {
    const std::vector<unsigned char> bytes = header(10011).data;
    ASSERT_EQ(1000u, bytes.size());
    ZQNetLoader loader;
    EXPECT_TRUE(load(loader, bytes));
    EXPECT_TRUE(loader.getLayersInfo().empty());
    EXPECT_TRUE(loader.getLayersRCnt().empty());
    EXPECT_TRUE(loader.getSequentialLayers().empty());
    EXPECT_EQ("", loader.failure());
}

TEST(ModelHeader, FieldsAreReturned) {
    ZQNetLoader loader;
    ASSERT_TRUE(load(loader, header(10011).data));
    EXPECT_EQ(10011u, loader.getVersion());
    EXPECT_EQ(7001u, loader.getGestureMode());
    EXPECT_EQ(7002u, loader.getApplicationType());
    EXPECT_EQ(301000010u, loader.getModelID());
    EXPECT_EQ(320u, loader.getModelBaseW());
    EXPECT_EQ(240u, loader.getModelBaseH());
    for (unsigned int word = 7; word < 249; ++word) {
        EXPECT_EQ(0x80000000u + word, loader.header_words()[word]);
    }
}

TEST(ModelHeader, AFileThatIsNotThereFailsSilently) {
    LogRecorder log;
    AssertRecorder assertions;
    ZQNetLoader loader;
    EXPECT_FALSE(loader.LoadFile("/no/such/model", false));
    EXPECT_FALSE(loader.LoadFile(static_cast<const char*>(nullptr), false));
    EXPECT_TRUE(log.lines.empty());
    EXPECT_EQ(0u, assertions.count());
}

TEST(ModelHeader, AFileOneByteShortOfTheHeaderIsNotRight) {
    std::vector<unsigned char> bytes = header(10011).data;
    bytes.pop_back();
    LogRecorder log;
    ZQNetLoader loader;
    EXPECT_FALSE(load(loader, bytes));
    ASSERT_EQ(1u, log.lines.size());
    EXPECT_EQ(Tarno::LogLevel::Error, log.lines[0].level);
    EXPECT_EQ("Tarno", log.lines[0].tag);
    EXPECT_EQ("file exist but not right", log.lines[0].text);
    EXPECT_EQ("offset 0, header: 1000 bytes expected, found 999", loader.failure());
}

TEST(ModelHeader, AnEmptyFileAndAFolderAreNotRight) {
    LogRecorder log;
    ZQNetLoader loader;
    EXPECT_FALSE(load(loader, {}));
    EXPECT_FALSE(loader.LoadFile("/", false));
    ASSERT_EQ(2u, log.lines.size());
    EXPECT_EQ("file exist but not right", log.lines[0].text);
    EXPECT_EQ("file exist but not right", log.lines[1].text);
}

TEST(ModelHeader, AWrongMarkerAtEitherEndIsNotRight) {
    for (const size_t place : {size_t{0}, size_t{2}, size_t{996}, size_t{999}}) {
        std::vector<unsigned char> bytes = header(10011).data;
        bytes[place] ^= 1;
        LogRecorder log;
        ZQNetLoader loader;
        EXPECT_FALSE(load(loader, bytes));
        ASSERT_EQ(1u, log.lines.size()) << place;
        EXPECT_EQ("file exist but not right", log.lines[0].text);
    }
}

TEST(ModelHeader, ABadHeaderLeavesNoFileOpen) {
    LogRecorder log;
    const size_t before = open_files();
    for (int i = 0; i < 3; ++i) {
        ZQNetLoader loader;
        EXPECT_FALSE(load(loader, std::vector<unsigned char>(1000, 0)));
    }
    EXPECT_EQ(before, open_files());
}

TEST(ModelHeader, AVersionBelowTenThousandIsRefusedWithoutAMessageAndAssertsAtTheEnd) {
    LogRecorder log;
    AssertRecorder assertions;
    {
        ZQNetLoader loader;
        EXPECT_FALSE(load(loader, hand_made::file(9999, chain()), true));
        EXPECT_TRUE(loader.getSequentialLayers().empty());
        EXPECT_EQ("offset 4, header: version 10000 or above expected, found 9999",
                  loader.failure());
        EXPECT_EQ(0u, assertions.count());
    }
    EXPECT_TRUE(log.lines.empty());
    ASSERT_EQ(1u, assertions.count());
    EXPECT_EQ("false", assertions.last().condition);
    EXPECT_EQ("crossplatform_zqnetloader", assertions.last().source);
    EXPECT_EQ(539, assertions.last().line);
}

TEST(ModelHeader, AVersionFarAboveIsReadByTheCurrentReader) {
    ZQNetLoader loader;
    EXPECT_TRUE(load(loader, hand_made::file_of_all_types(20000)));
    EXPECT_EQ(hand_made::types_of(20000).size(), loader.getSequentialLayers().size());
    EXPECT_EQ(20000u, loader.getVersion());
}

TEST(ModelHeader, ALoaderThatNeverReadAHeaderEndsSilently) {
    AssertRecorder assertions;
    {
        ZQNetLoader unused;
        EXPECT_EQ(0u, unused.getVersion());
        ZQNetLoader failed;
        EXPECT_FALSE(failed.LoadFile("/no/such/model", false));
    }
    EXPECT_EQ(0u, assertions.count());
}

// --- Construction from a path

TEST(ModelConstructor, LoadsInFileOrder) {
    const TemporaryFile file(
        hand_made::file(10011, {activation(2, 1), activation(1, 0), input(0)}));
    AssertRecorder assertions;
    const ZQNetLoader loader(file.path());
    EXPECT_EQ((Ids{2, 1, 0}), loader.getSequentialLayers());
    EXPECT_EQ(0u, assertions.count());
}

TEST(ModelConstructor, AFailurePrintsThePathAndRaisesTheAssertion) {
    AssertRecorder assertions;
    testing::internal::CaptureStdout();
    const ZQNetLoader loader("/no/such/model");
    EXPECT_EQ(
        "[Tarno] ZQNetLoader: Error in ZQNetLoader::ZQNetLoader(520), load file(/no/such/model) "
        "filed",
        testing::internal::GetCapturedStdout());
    ASSERT_EQ(1u, assertions.count());
    EXPECT_EQ("ifSuccess", assertions.last().condition);
    EXPECT_EQ("crossplatform_zqnetloader", assertions.last().source);
    EXPECT_EQ(522, assertions.last().line);
}

// --- Messages

TEST(MessageStream, FileOrderIsKeptWithoutSorting) {
    ZQNetLoader loader;
    ASSERT_TRUE(
        load(loader, hand_made::file(10011, {activation(7, 3), input(9), activation(3, 9)})));
    EXPECT_EQ((Ids{7, 9, 3}), loader.getSequentialLayers());
    const auto layers = loader.getLayersInfo();
    ASSERT_EQ(3u, layers.size());
    for (const auto& [id, record] : layers)
        EXPECT_EQ(id, record->id);
}

TEST(MessageStream, ASingleByteAtTheEndIsTheEnd) {
    std::vector<unsigned char> bytes = hand_made::file(10011, chain());
    bytes.push_back(0x55);
    AssertRecorder assertions;
    ZQNetLoader loader;
    EXPECT_TRUE(load(loader, bytes));
    EXPECT_EQ(3u, loader.getSequentialLayers().size());
    EXPECT_EQ(0u, assertions.count());
}

TEST(MessageStream, AWrongHeadRaisesTheAssertionAndTheMessageIsRead) {
    std::vector<unsigned char> bytes = hand_made::file(10011, chain());
    bytes[1000] = 0x54;
    AssertRecorder assertions;
    LogRecorder log;
    ZQNetLoader loader;
    EXPECT_TRUE(load(loader, bytes));
    EXPECT_EQ(3u, loader.getSequentialLayers().size());
    ASSERT_EQ(1u, assertions.count());
    EXPECT_EQ("message_head == 0x5555", assertions.last().condition);
    EXPECT_EQ("crossplatform_zqnetloader", assertions.last().source);
    EXPECT_EQ(1381, assertions.last().line);
    EXPECT_TRUE(log.lines.empty());
}

TEST(MessageStream, AWrongEndFailsAndTheRecordsReadSoFarStay) {
    Bytes broken = activation(1, 0);
    broken.data.back() = 0x2a;
    AssertRecorder assertions;
    LogRecorder log;
    ZQNetLoader loader;
    EXPECT_FALSE(load(loader, hand_made::file(10011, {input(0), broken, activation(2, 1)})));
    EXPECT_EQ((Ids{0, 1}), loader.getSequentialLayers());
    EXPECT_EQ(2u, loader.getLayersInfo().size());
    EXPECT_TRUE(loader.getLayersRCnt().empty());
    EXPECT_EQ(0u, assertions.count());
    EXPECT_TRUE(log.lines.empty());
    // 1000 bytes of header, 16 of the input, 20 of the activation up to its end.
    EXPECT_EQ(
        "offset 1036, record 1, layer id 1, type 8 (Activation): message_end 0xaaaa expected, "
        "found 0x2aaa",
        loader.failure());
}

TEST(MessageStream, AMissingEndFailsAndTheRecordStays) {
    std::vector<unsigned char> bytes = hand_made::file(10011, chain());
    bytes.resize(bytes.size() - 2);
    ZQNetLoader loader;
    EXPECT_FALSE(load(loader, bytes));
    EXPECT_EQ(3u, loader.getSequentialLayers().size());
}

TEST(MessageStream, AMissingTypeFails) {
    std::vector<unsigned char> bytes = hand_made::file(10011, chain());
    bytes.insert(bytes.end(), {0x55, 0x55, 0x08});
    ZQNetLoader loader;
    EXPECT_FALSE(load(loader, bytes));
    EXPECT_EQ(3u, loader.getSequentialLayers().size());
}

TEST(MessageStream, ATruncatedPayloadFailsAndDropsTheRecord) {
    std::vector<unsigned char> bytes = hand_made::file(10011, chain());
    bytes.resize(bytes.size() - 3);
    AssertRecorder assertions;
    LogRecorder log;
    ZQNetLoader loader;
    EXPECT_FALSE(load(loader, bytes));
    EXPECT_EQ((Ids{0, 1}), loader.getSequentialLayers());
    EXPECT_EQ(2u, loader.getLayersInfo().size());
    EXPECT_EQ(0u, assertions.count());
    EXPECT_TRUE(log.lines.empty());
    EXPECT_EQ(
        "offset 1056, record 2, layer id 2, type 8 (Activation): beta: 2 bytes expected, 1 left "
        "in the file",
        loader.failure());
}

TEST(MessageStream, UnknownTypesAreLoggedAndFail) {
    for (const unsigned int type : {12u, 13u, 23u, 24u, 25u, 27u, 255u, 65535u}) {
        LogRecorder log;
        AssertRecorder assertions;
        ZQNetLoader loader;
        EXPECT_FALSE(load(loader, hand_made::file(20000, {input(0), message(type, Bytes())})));
        EXPECT_EQ((Ids{0}), loader.getSequentialLayers());
        ASSERT_EQ(1u, log.lines.size());
        EXPECT_EQ(Tarno::LogLevel::Error, log.lines[0].level);
        EXPECT_EQ("Tarno", log.lines[0].tag);
        EXPECT_EQ("\n\n\nError, Unsupport Layer Type " + std::to_string(type) + ".\n",
                  log.lines[0].text);
        EXPECT_EQ(0u, assertions.count());
    }
}

TEST(MessageStream, ATypeTooNewForTheVersionFailsWithoutAMessage) {
    const std::map<unsigned int, std::vector<unsigned int>> gates = {
        {10003, {16}}, {10008, {17, 18, 19, 20, 21, 22}}, {10011, {26}}};
    for (const auto& [since, types] : gates) {
        for (const unsigned int type : types) {
            LogRecorder log;
            AssertRecorder assertions;
            {
                ZQNetLoader loader;
                const Bytes newest = message(type, hand_made::payload(type, since));
                EXPECT_FALSE(load(loader, hand_made::file(since - 1, {input(0), newest})));
                EXPECT_EQ((Ids{0}), loader.getSequentialLayers());
                EXPECT_NE("", loader.failure());
            }
            ZQNetLoader loader;
            const Bytes newest = message(type, hand_made::payload(type, since));
            EXPECT_TRUE(load(loader, hand_made::file(since, {input(0), newest}))) << type;
            EXPECT_TRUE(log.lines.empty());
            EXPECT_EQ(0u, assertions.count());
        }
    }
}

TEST(MessageStream, OfTwoRecordsWithOneIdTheFirstIsKeptAndBothStandInTheOrder) {
    const Bytes second = message(8, Bytes().u16(1).u16(0).list({1, 1, 3}).list({7, 0, 0}));
    ZQNetLoader loader;
    ASSERT_TRUE(load(loader, hand_made::file(10011, {input(0), activation(1, 0), second})));
    EXPECT_EQ((Ids{0, 1, 1}), loader.getSequentialLayers());
    const auto layers = loader.getLayersInfo();
    ASSERT_EQ(2u, layers.size());
    const auto* kept = dynamic_cast<ZQLayerInfo_Activation*>(layers.at(1));
    ASSERT_NE(nullptr, kept);
    EXPECT_EQ(2, kept->activation_type);
}

// --- Streams handed in

TEST(MessageStream, AStreamIsReadFromWhereItStandsAndClosedOnSuccess) {
    const TemporaryFile file(hand_made::file(10011, chain()));
    ZQNetLoader loader;
    FILE* stream = std::fopen(file.path(), "rb");
    ASSERT_NE(nullptr, stream);
    ASSERT_EQ(0, std::fseek(stream, 1000, SEEK_SET));
    const int descriptor = fileno(stream);
    EXPECT_TRUE(loader.LoadFile(stream));
    EXPECT_EQ((Ids{0, 1, 2}), loader.getSequentialLayers());
    EXPECT_EQ(-1, fcntl(descriptor, F_GETFD));
    EXPECT_EQ(1, loader.getLayersRCnt().at(0));
}

TEST(MessageStream, AStreamStaysOpenOnFailure) {
    std::vector<unsigned char> bytes = hand_made::file(10011, chain());
    bytes.pop_back();
    const TemporaryFile file(bytes);
    ZQNetLoader loader;
    FILE* stream = std::fopen(file.path(), "rb");
    ASSERT_NE(nullptr, stream);
    ASSERT_EQ(0, std::fseek(stream, 1000, SEEK_SET));
    EXPECT_FALSE(loader.LoadFile(stream));
    EXPECT_EQ(0, std::fclose(stream));
    EXPECT_FALSE(loader.LoadFile(static_cast<FILE*>(nullptr)));
    EXPECT_FALSE(loader.LoadFileV10000(nullptr));
}

TEST(MessageStream, APathLeavesNoFileOpenWhateverHappens) {
    AssertRecorder assertions;
    LogRecorder log;
    const size_t before = open_files();
    std::vector<unsigned char> bytes = hand_made::file(10011, chain());
    for (const size_t size : {bytes.size(), bytes.size() - 1, bytes.size() - 5, size_t{1000}}) {
        ZQNetLoader loader;
        load(loader, {bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(size)}, true);
    }
    EXPECT_EQ(before, open_files());
}

TEST(MessageStream, AStreamThatCannotSeekIsReadAllTheSame) {
    const std::vector<unsigned char> bytes = hand_made::file_of_all_types(10011);
    for (const size_t missing : {size_t{0}, size_t{7}}) {
        int ends[2] = {-1, -1};
        ASSERT_EQ(0, pipe(ends));
        // It fits the pipe's buffer.
        const size_t size = bytes.size() - missing;
        ASSERT_LT(size, 65536u);
        ASSERT_EQ(static_cast<ssize_t>(size), write(ends[1], bytes.data(), size));
        close(ends[1]);
        ZQNetLoader loader;
        const std::string path = "/dev/fd/" + std::to_string(ends[0]);
        EXPECT_EQ(missing == 0, loader.LoadFile(path.c_str(), false)) << loader.failure();
        const size_t layers = hand_made::types_of(10011).size();
        EXPECT_EQ(missing == 0 ? layers : layers - 1, loader.getSequentialLayers().size());
        close(ends[0]);
    }
}

// --- Read counts

TEST(ReadCounts, ALayerThatNobodyReadsHasZero) {
    ZQNetLoader loader;
    ASSERT_TRUE(load(loader, hand_made::file(10011, chain())));
    EXPECT_EQ((std::map<unsigned short, unsigned short>{{0, 1}, {1, 1}, {2, 0}}),
              loader.getLayersRCnt());
}

TEST(ReadCounts, ALayerTwiceInOneEltwiseCountsTwo) {
    ZQNetLoader loader;
    ASSERT_TRUE(load(loader, hand_made::file(10011, {input(0), eltwise(1, {0, 0})})));
    EXPECT_EQ(2, loader.getLayersRCnt().at(0));
    EXPECT_EQ(0, loader.getLayersRCnt().at(1));
}

TEST(ReadCounts, ALayerThatReadsItselfIsNotCountedAtItsOwnPlace) {
    ZQNetLoader loader;
    ASSERT_TRUE(load(loader, hand_made::file(10011, {eltwise(5, {5, 5}), activation(6, 5)})));
    EXPECT_EQ(1, loader.getLayersRCnt().at(5));
}

TEST(ReadCounts, OfADuplicatedIdTheCountAtItsFirstPlaceStands) {
    // Both places of id 5 stand for the first record, which reads itself twice: seen from either
    // place the other one counts.
    ZQNetLoader loader;
    ASSERT_TRUE(load(loader, hand_made::file(10011, {eltwise(5, {5, 5, 1}), eltwise(5, {})})));
    EXPECT_EQ((std::map<unsigned short, unsigned short>{{5, 2}}), loader.getLayersRCnt());
}

TEST(ReadCounts, BottomsBehindTheCountDoNotCount) {
    const Bytes one_of_ten = message(
        10,
        Bytes().u16(1).u16(1).list({0, 0, 0, 0, 0, 0, 0, 0, 0, 0}).list({1, 1, 3}).list({0, 0}));
    ZQNetLoader loader;
    ASSERT_TRUE(load(loader, hand_made::file(10011, {input(0), one_of_ten})));
    EXPECT_EQ(1, loader.getLayersRCnt().at(0));
}

TEST(ReadCounts, TheyAreTheSameByThePlainDefinitionOnRandomNetworks) {
    std::vector<Bytes> messages;
    std::vector<std::pair<unsigned short, Ids>> layers;
    unsigned int state = 12345;
    const auto next = [&state](unsigned int limit) {
        state = state * 1103515245u + 12345u;
        return state / 65536u % limit;
    };
    for (unsigned int i = 0; i < 200; ++i) {
        const unsigned int id = next(150);
        std::vector<unsigned int> bottoms(next(11));
        for (unsigned int& bottom : bottoms)
            bottom = next(150);
        messages.push_back(eltwise(id, bottoms));
        layers.push_back({static_cast<unsigned short>(id), Ids(bottoms.begin(), bottoms.end())});
    }
    std::map<unsigned short, Ids> first;
    for (const auto& [id, bottoms] : layers)
        first.insert({id, bottoms});
    std::map<unsigned short, unsigned short> expected;
    for (size_t i = 0; i < layers.size(); ++i) {
        int count = 0;
        for (size_t j = 0; j < layers.size(); ++j) {
            if (j == i) continue;
            for (const unsigned short bottom : first.at(layers[j].first)) {
                if (bottom == layers[i].first) ++count;
            }
        }
        expected.insert({layers[i].first, static_cast<unsigned short>(count)});
    }
    ZQNetLoader loader;
    ASSERT_TRUE(load(loader, hand_made::file(10011, messages)));
    EXPECT_EQ(expected, loader.getLayersRCnt());
}

TEST(ReadCounts, AnIdWithoutARecordThrowsOnASecondLoad) {
    // The sort brings id 9, which no record has, to the front; the next load looks it up.
    ZQNetLoader loader;
    ASSERT_TRUE(load(loader, hand_made::file(10011, {activation(1, 9)}), true));
    EXPECT_EQ((Ids{9}), loader.getSequentialLayers());
    const size_t before = open_files();
    try {
        load(loader, hand_made::file(10011, {activation(2, 1)}));
        FAIL() << "nothing thrown";
    } catch (const std::out_of_range& error) {
        EXPECT_STREQ("invalid map<K, T> key", error.what());
    }
    EXPECT_EQ(before, open_files());
}

// --- Order

// Reverse post-order by the plain recursive definition.
Ids order_of(const std::map<unsigned short, Ids>& bottoms_of) {
    std::map<unsigned short, Ids> readers;  // front first
    for (const auto& [id, bottoms] : bottoms_of) {
        for (const unsigned short bottom : bottoms) {
            readers[bottom].insert(readers[bottom].begin(), id);
            readers[id];
        }
    }
    std::map<unsigned short, bool> visited;
    Ids finished;
    const auto visit = [&](const auto& self, unsigned short id) -> void {
        visited[id] = true;
        for (const unsigned short reader : readers.at(id)) {
            if (!visited[reader]) self(self, reader);
        }
        finished.push_back(id);
    };
    for (const auto& [id, list] : readers) {
        if (!visited[id]) visit(visit, id);
    }
    std::reverse(finished.begin(), finished.end());
    return finished;
}

TEST(LayerOrder, EveryLayerStandsBehindItsBottoms) {
    ZQNetLoader loader;
    ASSERT_TRUE(
        load(loader, hand_made::file(10011, {activation(2, 1), activation(1, 0), input(0)}), true));
    EXPECT_EQ((Ids{0, 1, 2}), loader.getSequentialLayers());
}

TEST(LayerOrder, OfTwoInputsOfOneLayerTheOneWithTheHigherIdComesFirst) {
    ZQNetLoader loader;
    ASSERT_TRUE(
        load(loader, hand_made::file(10011, {input(0), input(1), eltwise(2, {0, 1})}), true));
    EXPECT_EQ((Ids{1, 0, 2}), loader.getSequentialLayers());
}

TEST(LayerOrder, OfTwoBranchesTheOneWhoseEdgeCameFirstRunsFirst) {
    // The edges from 0 are added in ascending id order; the last added is visited first and so
    // stands last.
    ZQNetLoader loader;
    ASSERT_TRUE(load(loader,
                     hand_made::file(10011, {input(0), activation(1, 0), activation(2, 0),
                                             activation(3, 0), eltwise(4, {1, 2, 3})}),
                     true));
    EXPECT_EQ((Ids{0, 1, 2, 3, 4}), loader.getSequentialLayers());
}

TEST(LayerOrder, LayersWithoutConnectionsLeaveTheOldIdsInTheTail) {
    ZQNetLoader loader;
    ASSERT_TRUE(load(
        loader, hand_made::file(10011, {input(8), input(9), activation(1, 0), input(0)}), true));
    EXPECT_EQ((Ids{0, 1, 1, 0}), loader.getSequentialLayers());
}

TEST(LayerOrder, MoreIdsThanPlacesAreCutOff) {
    // Four ids take part, one layer has a place.
    ZQNetLoader loader;
    ASSERT_TRUE(load(loader, hand_made::file(10011, {eltwise(7, {1, 2, 3})}), true));
    EXPECT_EQ((Ids{3}), loader.getSequentialLayers());
}

TEST(LayerOrder, ACycleEnds) {
    ZQNetLoader loader;
    ASSERT_TRUE(load(loader,
                     hand_made::file(10011, {activation(1, 3), activation(2, 1), activation(3, 2),
                                             activation(4, 4)}),
                     true));
    EXPECT_EQ((Ids{4, 1, 2, 3}), loader.getSequentialLayers());
}

TEST(LayerOrder, AFailedLoadIsSortedTooAndStillFails) {
    std::vector<unsigned char> bytes =
        hand_made::file(10011, {activation(2, 1), activation(1, 0), input(0)});
    bytes.back() = 0;
    ZQNetLoader loader;
    EXPECT_FALSE(load(loader, bytes, true));
    EXPECT_EQ((Ids{0, 1, 2}), loader.getSequentialLayers());
}

TEST(LayerOrder, TheReadCountsAreThoseOfTheFileOrder) {
    ZQNetLoader loader;
    ASSERT_TRUE(load(loader, hand_made::file(10011, {activation(1, 9), activation(2, 1)}), true));
    EXPECT_EQ((Ids{9, 1}), loader.getSequentialLayers());
    EXPECT_EQ((std::map<unsigned short, unsigned short>{{1, 1}, {2, 0}}), loader.getLayersRCnt());
}

TEST(LayerOrder, ItIsThatOfTheRecursiveDefinitionOnRandomNetworks) {
    unsigned int state = 777;
    const auto next = [&state](unsigned int limit) {
        state = state * 1103515245u + 12345u;
        return state / 65536u % limit;
    };
    for (int round = 0; round < 100; ++round) {
        std::vector<Bytes> messages;
        std::map<unsigned short, Ids> bottoms_of;
        Ids file_order;
        const unsigned int count = 1 + next(40);
        for (unsigned int i = 0; i < count; ++i) {
            const unsigned int id = next(60);
            std::vector<unsigned int> bottoms(next(4));
            for (unsigned int& bottom : bottoms)
                bottom = next(60);
            messages.push_back(eltwise(id, bottoms));
            file_order.push_back(static_cast<unsigned short>(id));
            bottoms_of.insert(
                {static_cast<unsigned short>(id), Ids(bottoms.begin(), bottoms.end())});
        }
        Ids expected = order_of(bottoms_of);
        expected.resize(std::min(expected.size(), file_order.size()));
        expected.insert(expected.end(),
                        file_order.begin() + static_cast<std::ptrdiff_t>(expected.size()),
                        file_order.end());
        ZQNetLoader loader;
        ASSERT_TRUE(load(loader, hand_made::file(10011, messages), true));
        ASSERT_EQ(expected, loader.getSequentialLayers()) << "round " << round;
    }
}

TEST(LayerOrder, AChainOfAllIdsIsSortedWithoutRecursion) {
    std::vector<Bytes> messages;
    for (unsigned int id = 65535; id > 0; --id)
        messages.push_back(activation(id, id - 1));
    messages.push_back(input(0));
    ZQNetLoader loader;
    ASSERT_TRUE(load(loader, hand_made::file(10011, messages), true));
    const Ids order = loader.getSequentialLayers();
    ASSERT_EQ(65536u, order.size());
    for (size_t i = 0; i < order.size(); ++i)
        ASSERT_EQ(i, order[i]);
}

TEST(ReadCounts, ACountThatDoesNotFitIsTakenModulo65536) {
    // 6,554 operators with ten bottoms each read layer 0.
    std::vector<Bytes> messages = {input(0)};
    const std::vector<unsigned int> zeros(10, 0);
    for (unsigned int id = 1; id <= 6554; ++id)
        messages.push_back(eltwise(id, zeros));
    ZQNetLoader loader;
    ASSERT_TRUE(load(loader, hand_made::file(10011, messages)));
    EXPECT_EQ(65540 - 65536, loader.getLayersRCnt().at(0));
}

// --- Life cycle

TEST(ModelLifeCycle, ReleaseEmptiesEverythingButTheHeader) {
    for (const unsigned int version : {10000u, 10011u}) {
        ZQNetLoader loader;
        ASSERT_TRUE(load(loader, hand_made::file_of_all_types(version)));
        if (version == 10000) {
            loader.ReleaseV10000();
        } else {
            loader.Release();
        }
        EXPECT_TRUE(loader.getLayersInfo().empty());
        EXPECT_TRUE(loader.getLayersRCnt().empty());
        EXPECT_TRUE(loader.getSequentialLayers().empty());
        EXPECT_EQ(version, loader.getVersion());
    }
}

TEST(ModelLifeCycle, CopiesShareTheRecordsWhichLiveUntilTheLastOfThemGoes) {
    auto original = std::make_unique<ZQNetLoader>();
    ASSERT_TRUE(load(*original, hand_made::file_of_all_types(10011)));
    const auto layers = original->getLayersInfo();
    const ZQNetLoader copy(*original);
    ZQNetLoader assigned;
    assigned = copy;
    EXPECT_EQ(layers, copy.getLayersInfo());
    EXPECT_EQ(layers, assigned.getLayersInfo());
    EXPECT_EQ(original->getSequentialLayers(), copy.getSequentialLayers());
    EXPECT_EQ(original->getLayersRCnt(), assigned.getLayersRCnt());
    EXPECT_TRUE(std::equal(original->header_words(),
                           original->header_words() + ZQNetLoader::header_word_count,
                           assigned.header_words()));
    original.reset();
    assigned.Release();
    for (const auto& [id, record] : copy.getLayersInfo())
        EXPECT_EQ(id, record->id);
}

TEST(ModelLifeCycle, AssigningALoaderToItselfChangesNothing) {
    ZQNetLoader loader;
    ASSERT_TRUE(load(loader, hand_made::file(10011, chain())));
    const ZQNetLoader& same = loader;
    loader = same;
    EXPECT_EQ(3u, loader.getLayersInfo().size());
    EXPECT_EQ(1, loader.getLayersInfo().at(1)->id);
}

TEST(ModelLifeCycle, ASecondLoadAddsItsRecords) {
    ZQNetLoader loader;
    ASSERT_TRUE(load(loader, hand_made::file(10011, {input(0), activation(1, 0)})));
    ASSERT_TRUE(load(loader, hand_made::file(10011, {activation(2, 1)})));
    EXPECT_EQ((Ids{0, 1, 2}), loader.getSequentialLayers());
    EXPECT_EQ(3u, loader.getLayersInfo().size());
}

}  // namespace
