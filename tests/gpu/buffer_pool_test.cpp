// The buffer pool: groups by size, the queue of frames, time stamps.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tarno/gpu.h>

#include <new>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "support/gl_fixture.h"
#include "support/gl_hooks.h"
#include "support/recorders.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing_support::GpuTest;
using testing_support::LogRecorder;
using testing_support::ReplacedEntryPoint;

bool signalled = true;
GLenum GLAPIENTRY answer_wait(GLsync, GLbitfield, GLuint64) {
    return signalled ? GL_ALREADY_SIGNALED : GL_TIMEOUT_EXPIRED;
}

void fill(unsigned int id, const std::string& bytes) {
    glBindBuffer(GL_COPY_WRITE_BUFFER, id);
    glBufferSubData(GL_COPY_WRITE_BUFFER, 0, static_cast<GLsizeiptr>(bytes.size()), bytes.data());
}

GLint stored_size(unsigned int id) {
    GLint size = -1;
    glBindBuffer(GL_COPY_READ_BUFFER, id);
    glGetBufferParameteriv(GL_COPY_READ_BUFFER, GL_BUFFER_SIZE, &size);
    return size;
}

std::vector<std::string> texts(const LogRecorder& log) {
    std::vector<std::string> found;
    for (const LogRecorder::Line& line : log.lines) {
        EXPECT_EQ(line.tag, "Tarno");
        EXPECT_EQ(line.level, Tarno::LogLevel::Verbose);
        found.push_back(line.text);
    }
    return found;
}

class BufferFrames : public GpuTest {
protected:
    void SetUp() override {
        GpuTest::SetUp();
        wait_hook.emplace(__glewClientWaitSync, &answer_wait);
        signalled = true;
    }

    std::string finish(int size, long* stamp = nullptr) {
        std::string bytes(static_cast<size_t>(size), 'u');
        if (!buffers.finishAysnBufferLoading(size, &bytes[0], stamp)) return "none";
        return bytes;
    }

    std::optional<ReplacedEntryPoint<PFNGLCLIENTWAITSYNCPROC>> wait_hook;
    tesk::BufferPool buffers;
};

TEST_F(BufferFrames, AFrameComesBackWithItsStamp) {
    const unsigned int id = buffers.getBuffer(5, 1234);
    ASSERT_NE(id, 0u);
    EXPECT_EQ(stored_size(id), 5);
    fill(id, "frame");
    buffers.startAysnBufferLoading(5);
    long stamp = 0;
    EXPECT_EQ(finish(5, &stamp), "frame");
    EXPECT_EQ(stamp, 1234);
    // The queue is empty again, and so is the buffer.
    EXPECT_EQ(finish(5), "none");
}

TEST_F(BufferFrames, ResultsLeaveInTheOrderInWhichTheFramesTookTheirBuffers) {
    std::set<unsigned int> ids;
    const std::vector<std::string> frames = {"one", "two", "six"};
    for (size_t i = 0; i < frames.size(); ++i) {
        const unsigned int id = buffers.getBuffer(3, static_cast<long>(10 + i));
        ids.insert(id);
        fill(id, frames[i]);
        buffers.startAysnBufferLoading(3);
    }
    EXPECT_EQ(ids.size(), 3u);
    for (size_t i = 0; i < frames.size(); ++i) {
        long stamp = 0;
        EXPECT_EQ(finish(3, &stamp), frames[i]);
        EXPECT_EQ(stamp, static_cast<long>(10 + i));
    }
    // All three are free again: the next frames take them in order.
    EXPECT_EQ(ids.count(buffers.getBuffer(3, 0)), 1u);
}

TEST_F(BufferFrames, FinishingBeforeAnyStartIsFalseWithoutAMessageAndKeepsTheQueue) {
    const unsigned int id = buffers.getBuffer(4, 7);
    LogRecorder log;
    long stamp = -1;
    EXPECT_EQ(finish(4, &stamp), "none");
    EXPECT_EQ(stamp, -1);
    EXPECT_THAT(log.lines, IsEmpty());
    fill(id, "data");
    buffers.startAysnBufferLoading(4);
    EXPECT_EQ(finish(4, &stamp), "data");
    EXPECT_EQ(stamp, 7);
}

TEST_F(BufferFrames, AFrameThatHasNotArrivedStaysAtTheHeadOfTheQueue) {
    fill(buffers.getBuffer(4, 1), "head");
    buffers.startAysnBufferLoading(4);
    fill(buffers.getBuffer(4, 2), "next");
    buffers.startAysnBufferLoading(4);
    signalled = false;
    {
        LogRecorder log;
        EXPECT_EQ(finish(4), "none");
        EXPECT_THAT(texts(log), ElementsAre("gpu2cpu do not transfer over."));
    }
    signalled = true;
    EXPECT_EQ(finish(4), "head");
    EXPECT_EQ(finish(4), "next");
}

TEST_F(BufferFrames, WithoutATransferTheSameBufferIsHandedOutAgainAndQueuedAgain) {
    const unsigned int id = buffers.getBuffer(4, 1);
    EXPECT_EQ(buffers.getBuffer(4, 2), id);
    EXPECT_EQ(buffers.getBuffer(4, 3), id);
    // Three entries of one buffer: three transfers can be collected, each with the last stamp.
    fill(id, "same");
    for (int i = 0; i < 3; ++i) {
        buffers.startAysnBufferLoading(4);
        long stamp = 0;
        EXPECT_EQ(finish(4, &stamp), "same") << i;
        EXPECT_EQ(stamp, 3) << i;
    }
}

TEST_F(BufferFrames, OnlyATransferInFlightTakesABufferOutOfReach) {
    const unsigned int first = buffers.getBuffer(4, 1);
    buffers.startAysnBufferLoading(4);
    const unsigned int second = buffers.getBuffer(4, 2);
    EXPECT_NE(second, first);
    EXPECT_EQ(buffers.getBuffer(4, 3), second);
    EXPECT_NE(finish(4), "none");
    // The first is writable again and comes first.
    EXPECT_EQ(buffers.getBuffer(4, 4), first);
}

TEST_F(BufferFrames, AStartWithAnEmptyQueueTakesBufferZero) {
    const unsigned int first = buffers.getBuffer(4, 1);
    buffers.startAysnBufferLoading(4);
    const unsigned int second = buffers.getBuffer(4, 2);
    buffers.startAysnBufferLoading(4);
    EXPECT_NE(finish(4), "none");
    EXPECT_NE(finish(4), "none");
    fill(first, "zero");
    fill(second, "noop");
    buffers.startAysnBufferLoading(4);
    // Buffer 0 is in flight now, so the next frame gets the other one.
    EXPECT_EQ(buffers.getBuffer(4, 3), second);
}

TEST_F(BufferFrames, ATransferStartedWithAnEmptyQueueCanBeCollected) {
    fill(buffers.getBuffer(4, 5), "zero");
    buffers.startAysnBufferLoading(4);
    EXPECT_EQ(finish(4), "zero");
    buffers.startAysnBufferLoading(4);
    long stamp = 0;
    EXPECT_EQ(finish(4, &stamp), "zero");
    EXPECT_EQ(stamp, 5);
}

TEST_F(BufferFrames, TheNewestFrameIsStarted) {
    fill(buffers.getBuffer(4, 1), "one.");
    buffers.startAysnBufferLoading(4);
    fill(buffers.getBuffer(4, 2), "two.");
    buffers.startAysnBufferLoading(4);
    EXPECT_EQ(finish(4), "one.");
    EXPECT_EQ(finish(4), "two.");
}

TEST_F(BufferFrames, SizesThatDifferByOneByteShareNothing) {
    const unsigned int four = buffers.getBuffer(4, 1);
    const unsigned int five = buffers.getBuffer(5, 2);
    EXPECT_NE(four, five);
    EXPECT_EQ(buffers.getBuffer(4, 3), four);
    EXPECT_EQ(buffers.getBuffer(5, 4), five);
    buffers.startAysnBufferLoading(5);
    EXPECT_EQ(finish(4), "none");
    EXPECT_NE(finish(5), "none");
}

TEST_F(BufferFrames, ASizeNeverAskedForIsReported) {
    LogRecorder log;
    buffers.startAysnBufferLoading(99);
    EXPECT_EQ(finish(99), "none");
    EXPECT_THAT(texts(log), ElementsAre("no matched bytes buffer pooling",
                                        "no matched bytes buffer pooling"));
}

TEST_F(BufferFrames, MemoryThatEndsGivesNoBufferAndAGroupWithoutBuffersIsReported) {
    {
        const ReplacedEntryPoint<PFNGLGENBUFFERSPROC> no_memory(
            __glewGenBuffers, [](GLsizei, GLuint*) { throw std::bad_alloc(); });
        EXPECT_EQ(buffers.getBuffer(4, 1), 0u);
    }
    LogRecorder log;
    buffers.startAysnBufferLoading(4);
    EXPECT_EQ(finish(4), "none");
    EXPECT_THAT(texts(log), ElementsAre("The buffer of this size does not existed.",
                                        "The buffer of this size does not existed."));
    EXPECT_NE(buffers.getBuffer(4, 1), 0u);
}

TEST_F(BufferFrames, ASizeOfZeroOrBelowGivesNoBuffer) {
    LogRecorder log;
    EXPECT_EQ(buffers.getBuffer(0, 1), 0u);
    EXPECT_EQ(buffers.getBuffer(-8, 1), 0u);
    ASSERT_EQ(log.lines.size(), 2u);
    EXPECT_EQ(log.lines[0].text, "buffer: expected a size above 0, found 0");
    EXPECT_EQ(log.lines[1].text, "buffer: expected a size above 0, found -8");
}

TEST_F(BufferFrames, AReleaseDeletesAllBuffersInFlightOnesToo) {
    const unsigned int first = buffers.getBuffer(4, 1);
    buffers.startAysnBufferLoading(4);
    const unsigned int second = buffers.getBuffer(8, 1);
    buffers.release();
    EXPECT_FALSE(glIsBuffer(first));
    EXPECT_FALSE(glIsBuffer(second));
    LogRecorder log;
    EXPECT_EQ(finish(4), "none");
    EXPECT_THAT(texts(log), ElementsAre("no matched bytes buffer pooling"));
    EXPECT_NE(buffers.getBuffer(4, 1), 0u);
}

TEST_F(BufferFrames, TheNumberOfBuffersStaysAtTheFramesInFlight) {
    std::set<unsigned int> ids;
    for (int frame = 0; frame < 100; ++frame) {
        ids.insert(buffers.getBuffer(16, frame));
        buffers.startAysnBufferLoading(16);
        if (frame >= 2) {
            long stamp = -1;
            EXPECT_NE(finish(16, &stamp), "none");
            EXPECT_EQ(stamp, frame - 2);
        }
    }
    EXPECT_EQ(ids.size(), 3u);
}

}  // namespace
