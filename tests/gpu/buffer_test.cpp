// Buffers: storage, the blocking read, and the three transfers. Contents are checked through GL.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tarno/gpu.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "support/gl_fixture.h"
#include "support/gl_hooks.h"
#include "support/recorders.h"

namespace {

using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing_support::AssertRecorder;
using testing_support::GpuTest;
using testing_support::LogRecorder;
using testing_support::ReplacedEntryPoint;

constexpr GLenum storage = GL_SHADER_STORAGE_BUFFER;

/// Bytes first, first + 1, ...
std::vector<char> counting(int size, int first = 1) {
    std::vector<char> bytes(static_cast<size_t>(size));
    for (int i = 0; i < size; ++i)
        bytes[static_cast<size_t>(i)] = static_cast<char>(first + i);
    return bytes;
}

std::vector<char> content(unsigned int id, int size) {
    std::vector<char> bytes(static_cast<size_t>(size), 'u');
    glBindBuffer(GL_COPY_READ_BUFFER, id);
    glGetBufferSubData(GL_COPY_READ_BUFFER, 0, size, bytes.data());
    return bytes;
}

void fill(unsigned int id, const std::vector<char>& bytes) {
    glBindBuffer(GL_COPY_WRITE_BUFFER, id);
    glBufferSubData(GL_COPY_WRITE_BUFFER, 0, static_cast<GLsizeiptr>(bytes.size()), bytes.data());
}

GLint stored_size(unsigned int id) {
    GLint size = -1;
    glBindBuffer(GL_COPY_READ_BUFFER, id);
    glGetBufferParameteriv(GL_COPY_READ_BUFFER, GL_BUFFER_SIZE, &size);
    return size;
}

/// Polls until the driver has signalled; on this driver that is at most a few turns.
template <typename Poll>
bool eventually(Poll poll) {
    for (int i = 0; i < 100000; ++i) {
        if (poll()) return true;
        glFinish();
    }
    return false;
}

/// What the fences and unmappings are told, and what they shall answer instead of the driver.
struct Answers {
    bool signalled = true;
    bool unmapped = true;
    std::vector<std::pair<GLbitfield, GLuint64>> waits;
    std::vector<std::pair<GLbitfield, GLsizeiptr>> maps;
    PFNGLUNMAPBUFFERPROC unmap = nullptr;
    PFNGLMAPBUFFERRANGEPROC map = nullptr;
};
Answers& answers() {
    static Answers instance;
    return instance;
}

GLenum GLAPIENTRY answer_wait(GLsync, GLbitfield flags, GLuint64 timeout) {
    answers().waits.emplace_back(flags, timeout);
    return answers().signalled ? GL_CONDITION_SATISFIED : GL_TIMEOUT_EXPIRED;
}
GLboolean GLAPIENTRY answer_unmap(GLenum target) {
    const GLboolean done = answers().unmap(target);
    return answers().unmapped ? done : GLboolean{GL_FALSE};
}
void* GLAPIENTRY record_map(GLenum target, GLintptr offset, GLsizeiptr length, GLbitfield access) {
    EXPECT_EQ(offset, 0);
    answers().maps.emplace_back(access, length);
    return answers().map(target, offset, length, access);
}

class Buffers : public GpuTest {
protected:
    Buffers() { answers() = Answers(); }
    void SetUp() override {
        GpuTest::SetUp();
        wait_hook.emplace(__glewClientWaitSync, &answer_wait);
        unmap_hook.emplace(__glewUnmapBuffer, &answer_unmap);
        map_hook.emplace(__glewMapBufferRange, &record_map);
        answers().unmap = unmap_hook->original();
        answers().map = map_hook->original();
    }

    std::optional<ReplacedEntryPoint<PFNGLCLIENTWAITSYNCPROC>> wait_hook;
    std::optional<ReplacedEntryPoint<PFNGLUNMAPBUFFERPROC>> unmap_hook;
    std::optional<ReplacedEntryPoint<PFNGLMAPBUFFERRANGEPROC>> map_hook;
};

TEST_F(Buffers, WithoutArgumentsIsAnEmptyStorageBufferWithoutAnObject) {
    tesk::Buffer buffer;
    EXPECT_EQ(buffer.type(), storage);
    EXPECT_EQ(buffer.size(), 0);
    EXPECT_EQ(buffer.bufferId(), 0u);
    EXPECT_EQ(buffer.timeStamp(), 0);
    EXPECT_TRUE(buffer.IsWriteOk());
}

TEST_F(Buffers, HoldsTheBytesItWasMadeFrom) {
    const std::vector<char> bytes = counting(13);
    tesk::Buffer buffer(13, bytes.data(), GL_UNIFORM_BUFFER);
    EXPECT_EQ(buffer.size(), 13);
    EXPECT_EQ(buffer.type(), GLenum{GL_UNIFORM_BUFFER});
    EXPECT_EQ(buffer.timeStamp(), 0);
    EXPECT_EQ(content(buffer.bufferId(), 13), bytes);
    GLint usage = 0;
    glGetBufferParameteriv(GL_COPY_READ_BUFFER, GL_BUFFER_USAGE, &usage);
    EXPECT_EQ(usage, GL_STREAM_DRAW);
}

TEST_F(Buffers, KeepsATimeStamp) {
    tesk::Buffer buffer(4, 77L, nullptr, storage);
    EXPECT_EQ(buffer.timeStamp(), 77);
    EXPECT_EQ(stored_size(buffer.bufferId()), 4);
    buffer.updateStamp(-3);
    EXPECT_EQ(buffer.timeStamp(), -3);
    buffer.reset();
    EXPECT_EQ(buffer.timeStamp(), -3);
    EXPECT_EQ(buffer.size(), 4);
}

TEST_F(Buffers, CanBeMadeLater) {
    const std::vector<char> bytes = counting(8);
    tesk::Buffer buffer;
    buffer.create(8, bytes.data(), GL_UNIFORM_BUFFER);
    EXPECT_EQ(buffer.size(), 8);
    EXPECT_EQ(buffer.type(), GLenum{GL_UNIFORM_BUFFER});
    EXPECT_EQ(content(buffer.bufferId(), 8), bytes);
}

TEST_F(Buffers, ASecondCreationEndsWhatThereWas) {
    const std::vector<char> bytes = counting(8);
    tesk::Buffer buffer(4, nullptr, storage);
    const unsigned int first = buffer.bufferId();
    EXPECT_TRUE(buffer.asyncGpu2Cpu(4));
    buffer.create(8, bytes.data(), storage);
    EXPECT_TRUE(buffer.IsWriteOk());
    EXPECT_FALSE(buffer.getAsyncData(8, nullptr));
    EXPECT_EQ(content(buffer.bufferId(), 8), bytes);
    EXPECT_TRUE(first == buffer.bufferId() || !glIsBuffer(first));
}

TEST_F(Buffers, GoWithTheirObject) {
    unsigned int id = 0;
    {
        tesk::Buffer buffer(4, nullptr, storage);
        id = buffer.bufferId();
        EXPECT_TRUE(glIsBuffer(id));
    }
    EXPECT_FALSE(glIsBuffer(id));
}

TEST_F(Buffers, GoWithATransferInFlight) {
    unsigned int id = 0;
    {
        tesk::Buffer buffer(4, nullptr, storage);
        id = buffer.bufferId();
        EXPECT_TRUE(buffer.asyncGpu2Cpu(4));
    }
    EXPECT_FALSE(glIsBuffer(id));
}

TEST_F(Buffers, AnUpdateRespecifiesTheStorageAndLeavesTheSizeField) {
    const std::vector<char> bytes = counting(10, 50);
    tesk::Buffer buffer(4, nullptr, storage);
    buffer.update(10, bytes.data(), storage);
    EXPECT_EQ(buffer.size(), 4);
    EXPECT_EQ(stored_size(buffer.bufferId()), 10);
    EXPECT_EQ(content(buffer.bufferId(), 10), bytes);
}

TEST_F(Buffers, ASizeOfZeroOrBelowHoldsNothingAndReadsNothing) {
    std::vector<char> dst(4, 'u');
    tesk::Buffer empty(0, nullptr, storage);
    EXPECT_NE(empty.bufferId(), 0u);
    empty.getBufferData(0, dst.data(), storage);
    EXPECT_EQ(take_gl_error(), GLenum{GL_INVALID_OPERATION});
    tesk::Buffer negative(-4, nullptr, storage);
    EXPECT_EQ(take_gl_error(), GLenum{GL_INVALID_VALUE});
    negative.getBufferData(-4, dst.data(), storage);
    EXPECT_EQ(take_gl_error(), GLenum{GL_INVALID_VALUE});
    EXPECT_THAT(dst, Each('u'));
}

// Blocking read.

TEST_F(Buffers, AreReadAsAWholeOrInPart) {
    const std::vector<char> bytes = counting(12);
    tesk::Buffer buffer(12, bytes.data(), storage);
    std::vector<char> dst(12, 'u');
    buffer.getBufferData(12, dst.data(), storage);
    EXPECT_EQ(dst, bytes);
    EXPECT_THAT(answers().maps, ElementsAre(std::make_pair(GLbitfield{GL_MAP_READ_BIT}, 12)));
    std::vector<char> part(12, 'u');
    buffer.getBufferData(5, part.data(), GL_COPY_READ_BUFFER);
    EXPECT_THAT(part, ElementsAre(1, 2, 3, 4, 5, 'u', 'u', 'u', 'u', 'u', 'u', 'u'));
}

TEST_F(Buffers, AReadBeyondTheEndLeavesTheDestinationAlone) {
    tesk::Buffer buffer(4, nullptr, storage);
    std::vector<char> dst(8, 'u');
    buffer.getBufferData(8, dst.data(), storage);
    EXPECT_EQ(take_gl_error(), GLenum{GL_INVALID_VALUE});
    EXPECT_THAT(dst, Each('u'));
}

TEST_F(Buffers, AReadToNowhereDoesNothing) {
    tesk::Buffer buffer(4, nullptr, storage);
    buffer.getBufferData(4, nullptr, storage);
    buffer.getBufferData(4, nullptr, storage, true);
    EXPECT_THAT(answers().maps, IsEmpty());
}

// Fenced transfer.

TEST_F(Buffers, AFencedTransferBringsTheContent) {
    const std::vector<char> bytes = counting(16);
    tesk::Buffer buffer(16, bytes.data(), storage);
    EXPECT_TRUE(buffer.asyncGpu2Cpu(16));
    EXPECT_FALSE(buffer.IsWriteOk());
    EXPECT_THAT(answers().maps,
                ElementsAre(std::make_pair(
                    GLbitfield{GL_MAP_WRITE_BIT | GL_MAP_UNSYNCHRONIZED_BIT}, 16)));
    std::vector<char> dst(16, 'u');
    EXPECT_TRUE(buffer.getAsyncData(16, dst.data()));
    EXPECT_EQ(dst, bytes);
    EXPECT_TRUE(buffer.IsWriteOk());
    // The poll has no flags and waits for nothing.
    EXPECT_THAT(answers().waits, ElementsAre(std::make_pair(GLbitfield{0}, GLuint64{0})));
}

TEST_F(Buffers, AFencedTransferArrivesOnTheDriversOwnWord) {
    wait_hook.reset();
    const std::vector<char> bytes = counting(16);
    tesk::Buffer buffer(16, bytes.data(), storage);
    EXPECT_TRUE(buffer.asyncGpu2Cpu(16));
    std::vector<char> dst(16, 'u');
    EXPECT_TRUE(eventually([&] { return buffer.getAsyncData(16, dst.data()); }));
    EXPECT_EQ(dst, bytes);
}

TEST_F(Buffers, ATransferThatHasNotArrivedStaysInFlightAndSaysSo) {
    const std::vector<char> bytes = counting(4);
    tesk::Buffer buffer(4, bytes.data(), storage);
    EXPECT_TRUE(buffer.asyncGpu2Cpu(4));
    answers().signalled = false;
    std::vector<char> dst(4, 'u');
    LogRecorder log;
    EXPECT_FALSE(buffer.getAsyncData(4, dst.data()));
    ASSERT_EQ(log.lines.size(), 1u);
    EXPECT_EQ(log.lines[0].text, "gpu2cpu do not transfer over.");
    EXPECT_EQ(log.lines[0].tag, "Tarno");
    EXPECT_EQ(log.lines[0].level, Tarno::LogLevel::Verbose);
    EXPECT_THAT(dst, Each('u'));
    EXPECT_FALSE(buffer.IsWriteOk());
    answers().signalled = true;
    EXPECT_TRUE(buffer.getAsyncData(4, dst.data()));
    EXPECT_EQ(dst, bytes);
}

TEST_F(Buffers, CollectingWithoutATransferIsFalseAndSilent) {
    tesk::Buffer buffer(4, nullptr, storage);
    LogRecorder log;
    EXPECT_FALSE(buffer.getAsyncData(4, nullptr));
    EXPECT_THAT(log.lines, IsEmpty());
    EXPECT_TRUE(buffer.IsWriteOk());
}

TEST_F(Buffers, ATransferCanBeCollectedToNowhere) {
    tesk::Buffer buffer(4, nullptr, storage);
    EXPECT_TRUE(buffer.asyncGpu2Cpu(4));
    EXPECT_TRUE(buffer.getAsyncData(4, nullptr));
    EXPECT_TRUE(buffer.IsWriteOk());
}

TEST_F(Buffers, AFailedUnmapKeepsTheBufferUntilATransferHasRetriedIt) {
    tesk::Buffer buffer(4, nullptr, storage);
    EXPECT_TRUE(buffer.asyncGpu2Cpu(4));
    {
        // The driver refuses, and the mapping stays.
        const ReplacedEntryPoint<PFNGLUNMAPBUFFERPROC> refuse(
            __glewUnmapBuffer, [](GLenum) { return GLboolean{GL_FALSE}; });
        LogRecorder log;
        EXPECT_FALSE(buffer.getAsyncData(4, nullptr));
        ASSERT_EQ(log.lines.size(), 1u);
        EXPECT_EQ(log.lines[0].text, "getBufferDataAsync unmapbuffer failed");
        EXPECT_EQ(log.lines[0].level, Tarno::LogLevel::Verbose);
        EXPECT_FALSE(buffer.IsWriteOk());
        EXPECT_FALSE(buffer.asyncGpu2Cpu(4));
        EXPECT_FALSE(buffer.IsWriteOk());
    }
    EXPECT_TRUE(buffer.asyncGpu2Cpu(4));
    EXPECT_TRUE(buffer.getAsyncData(4, nullptr));
    EXPECT_TRUE(buffer.IsWriteOk());
}

TEST_F(Buffers, ASecondStartReplacesTheFirst) {
    const std::vector<char> bytes = counting(4, 40);
    tesk::Buffer buffer(4, nullptr, storage);
    EXPECT_TRUE(buffer.asyncGpu2Cpu(4));
    EXPECT_TRUE(buffer.asyncGpu2Cpu(4));
    EXPECT_FALSE(buffer.IsWriteOk());
    std::vector<char> dst(4, 'u');
    EXPECT_TRUE(buffer.getAsyncData(4, dst.data()));
    EXPECT_FALSE(buffer.getAsyncData(4, dst.data()));
}

TEST_F(Buffers, MoreBytesThanWereStartedComeAsZero) {
    const std::vector<char> bytes = counting(8);
    tesk::Buffer buffer(8, bytes.data(), storage);
    EXPECT_TRUE(buffer.asyncGpu2Cpu(3));
    std::vector<char> dst(10, 'u');
    EXPECT_TRUE(buffer.getAsyncData(10, dst.data()));
    EXPECT_THAT(dst, ElementsAre(1, 2, 3, 0, 0, 0, 0, 0, 0, 0));
    EXPECT_TRUE(buffer.asyncGpu2Cpu(8));
    std::vector<char> fewer(3, 'u');
    EXPECT_TRUE(buffer.getAsyncData(2, fewer.data()));
    EXPECT_THAT(fewer, ElementsAre(1, 2, 'u'));
}

TEST_F(Buffers, ATransferThatDoesNotFitIsRefusedAndTheBufferStaysOfUse) {
    tesk::Buffer buffer(8, nullptr, storage);
    for (const int size : {9, 0, -1}) {
        LogRecorder log;
        EXPECT_FALSE(buffer.asyncGpu2Cpu(size)) << size;
        EXPECT_NE(take_gl_error(), GLenum{GL_NO_ERROR}) << size;
        ASSERT_EQ(log.lines.size(), 1u);
        EXPECT_EQ(log.lines[0].text, "buffer: expected " + std::to_string(size) +
                                         " bytes to read back, found 8");
        EXPECT_TRUE(buffer.IsWriteOk()) << size;
        EXPECT_FALSE(buffer.getAsyncData(8, nullptr)) << size;
    }
    EXPECT_TRUE(buffer.asyncGpu2Cpu(8));
    EXPECT_TRUE(buffer.getAsyncData(8, nullptr));
}

TEST_F(Buffers, ABufferWithoutAnObjectTransfersNothing) {
    Tarno::SetLogLevel(Tarno::LogLevel::Silent);
    tesk::Buffer buffer;
    EXPECT_FALSE(buffer.asyncGpu2Cpu(4));
    EXPECT_EQ(take_gl_error(), GLenum{GL_INVALID_OPERATION});
    EXPECT_FALSE(buffer.getAsyncData(4, nullptr));
    Tarno::SetLogLevel(Tarno::LogLevel::Info);
}

TEST_F(Buffers, AnUpdateUnderATransferLosesItsData) {
    const std::vector<char> large(1 << 20, 'a');
    tesk::Buffer buffer(1 << 20, large.data(), storage);
    EXPECT_TRUE(buffer.asyncGpu2Cpu(1 << 20));
    // The mapping goes with the storage it showed.
    buffer.update(4, "new", storage);
    EXPECT_TRUE(buffer.IsWriteOk());
    std::vector<char> dst(1 << 20, 'u');
    EXPECT_FALSE(buffer.getAsyncData(1 << 20, dst.data()));
    EXPECT_THAT(dst[0], 'u');
    EXPECT_EQ(content(buffer.bufferId(), 4), std::vector<char>({'n', 'e', 'w', '\0'}));
}

// Rolling read.

TEST_F(Buffers, ARollingReadIsOneCallBehind) {
    tesk::Buffer buffer(4, "one", storage);
    std::vector<char> dst(4, 'u');
    glBindBuffer(storage, buffer.bufferId());
    EXPECT_FALSE(buffer.getBufferDataAsync(4, dst.data(), storage));
    EXPECT_THAT(dst, Each('u'));
    EXPECT_THAT(answers().maps,
                ElementsAre(std::make_pair(
                    GLbitfield{GL_MAP_WRITE_BIT | GL_MAP_UNSYNCHRONIZED_BIT}, 4)));
    EXPECT_TRUE(buffer.IsWriteOk());
    EXPECT_TRUE(buffer.getBufferDataAsync(4, dst.data(), storage));
    EXPECT_STREQ(dst.data(), "one");
    fill(buffer.bufferId(), {'t', 'w', 'o', '\0'});
    EXPECT_TRUE(buffer.getBufferDataAsync(4, dst.data(), storage));
    EXPECT_STREQ(dst.data(), "two");
}

TEST_F(Buffers, ARollingReadPollsAndKeepsItsTransfer) {
    tesk::Buffer buffer(4, "one", storage);
    std::vector<char> dst(4, 'u');
    glBindBuffer(storage, buffer.bufferId());
    EXPECT_FALSE(buffer.getBufferDataAsync(4, dst.data(), storage));
    answers().signalled = false;
    EXPECT_FALSE(buffer.getBufferDataAsync(4, dst.data(), storage));
    EXPECT_FALSE(buffer.getBufferDataAsync(4, dst.data(), storage));
    EXPECT_THAT(answers().waits, Each(std::make_pair(GLbitfield{0}, GLuint64{0})));
    EXPECT_THAT(dst, Each('u'));
    answers().signalled = true;
    EXPECT_TRUE(buffer.getBufferDataAsync(4, dst.data(), storage));
    EXPECT_STREQ(dst.data(), "one");
}

TEST_F(Buffers, ARollingReadBeyondTheCallBeforeOrTheBufferComesAsZero) {
    tesk::Buffer buffer(8, counting(8).data(), storage);
    glBindBuffer(storage, buffer.bufferId());
    std::vector<char> dst(8, 'u');
    EXPECT_FALSE(buffer.getBufferDataAsync(3, dst.data(), storage));
    EXPECT_TRUE(buffer.getBufferDataAsync(8, dst.data(), storage));
    EXPECT_THAT(dst, ElementsAre(1, 2, 3, 0, 0, 0, 0, 0));
    buffer.update(2, "x", storage);
    EXPECT_TRUE(buffer.getBufferDataAsync(8, dst.data(), storage));
    EXPECT_THAT(dst, ElementsAre('x', 0, 0, 0, 0, 0, 0, 0));
    EXPECT_EQ(take_gl_error(), GLenum{GL_INVALID_VALUE});
}

TEST_F(Buffers, ARollingReadThatCouldNotBeMappedIsAnAssertionAndStartsAnew) {
    tesk::Buffer buffer(4, "one", storage);
    glBindBuffer(storage, buffer.bufferId());
    std::vector<char> dst(8, 'u');
    EXPECT_FALSE(buffer.getBufferDataAsync(8, dst.data(), storage));
    EXPECT_EQ(take_gl_error(), GLenum{GL_INVALID_VALUE});
    const AssertRecorder assertions;
    EXPECT_FALSE(buffer.getBufferDataAsync(4, dst.data(), storage));
    EXPECT_EQ(assertions.count("mapped_data != nullptr"), 1u);
    EXPECT_EQ(assertions.last().source, "buffer");
    EXPECT_THAT(dst, Each('u'));
    EXPECT_TRUE(buffer.getBufferDataAsync(4, dst.data(), storage));
    EXPECT_STREQ(dst.data(), "one");
    EXPECT_EQ(assertions.count(), 1u);
}

TEST_F(Buffers, TheTwoTransfersDoNotReadEachOthersMappings) {
    tesk::Buffer buffer(4, "one", storage);
    glBindBuffer(storage, buffer.bufferId());
    std::vector<char> dst(4, 'u');
    EXPECT_FALSE(buffer.getBufferDataAsync(4, dst.data(), storage));
    EXPECT_FALSE(buffer.getAsyncData(4, dst.data()));
    EXPECT_THAT(dst, Each('u'));
    EXPECT_TRUE(buffer.asyncGpu2Cpu(4));
    EXPECT_FALSE(buffer.getBufferDataAsync(4, dst.data(), storage));
    EXPECT_THAT(dst, Each('u'));
    EXPECT_TRUE(buffer.getAsyncData(4, dst.data()));
    EXPECT_STREQ(dst.data(), "one");
}

// Double-buffered read.

TEST_F(Buffers, ADoubleBufferedReadIsOneCallBehind) {
    tesk::Buffer buffer(4, "one", storage);
    std::vector<char> dst(4, 'u');
    // What comes first was never filled; only that it stays within four bytes is known.
    buffer.getBufferData(4, dst.data(), storage, true);
    fill(buffer.bufferId(), {'t', 'w', 'o', '\0'});
    buffer.getBufferData(4, dst.data(), storage, false);
    EXPECT_STREQ(dst.data(), "one");
    fill(buffer.bufferId(), {'s', 'i', 'x', '\0'});
    buffer.getBufferData(4, dst.data(), storage, true);
    EXPECT_STREQ(dst.data(), "two");
    buffer.getBufferData(4, dst.data(), storage, true);
    EXPECT_STREQ(dst.data(), "six");
    GLint bound = -1;
    glGetIntegerv(GL_PIXEL_PACK_BUFFER_BINDING, &bound);
    EXPECT_EQ(bound, 0);
}

TEST_F(Buffers, ADoubleBufferedReadOfAnotherSizeBeginsAnew) {
    tesk::Buffer buffer(8, counting(8).data(), storage);
    std::vector<char> dst(8, 'u');
    buffer.getBufferData(8, dst.data(), storage, true);
    EXPECT_EQ(buffer.size(), 8);
    std::vector<char> part(4, 'u');
    buffer.getBufferData(4, part.data(), storage, true);
    EXPECT_EQ(buffer.size(), 4);
    buffer.getBufferData(4, part.data(), storage, true);
    EXPECT_THAT(part, ElementsAre(1, 2, 3, 4));
}

TEST_F(Buffers, ADoubleBufferedReadBeyondTheBufferBringsNothingOfIt) {
    tesk::Buffer buffer(4, "one", storage);
    std::vector<char> dst(16, 'u');
    buffer.getBufferData(16, dst.data(), storage, true);
    EXPECT_EQ(take_gl_error(), GLenum{GL_INVALID_VALUE});
    buffer.getBufferData(16, dst.data(), storage, true);
    EXPECT_EQ(take_gl_error(), GLenum{GL_INVALID_VALUE});
    EXPECT_EQ(std::string(dst.data(), 16).find("one"), std::string::npos);
}

TEST_F(Buffers, ADoubleBufferedReadThatCannotBeMappedLeavesTheDestinationAlone) {
    tesk::Buffer buffer(4, "one", storage);
    const ReplacedEntryPoint<PFNGLMAPBUFFERRANGEPROC> refuse(
        __glewMapBufferRange,
        [](GLenum, GLintptr, GLsizeiptr, GLbitfield) -> void* { return nullptr; });
    std::vector<char> dst(4, 'u');
    buffer.getBufferData(4, dst.data(), storage, true);
    EXPECT_THAT(dst, Each('u'));
}

TEST_F(Buffers, ADoubleBufferedReadLeavesNoFileInTheWorkingDirectory) {
    namespace fs = std::filesystem;
    std::string folder = ::testing::TempDir() + "tarno_XXXXXX";
    ASSERT_NE(mkdtemp(folder.data()), nullptr);
    const fs::path before = fs::current_path();
    fs::current_path(folder);
    {
        tesk::Buffer buffer(8, counting(8).data(), storage);
        std::vector<char> dst(8, 'u');
        for (int i = 0; i < 3; ++i)
            buffer.getBufferData(8, dst.data(), storage, true);
    }
    EXPECT_TRUE(fs::is_empty(folder));
    fs::current_path(before);
    fs::remove_all(folder);
}

}  // namespace
