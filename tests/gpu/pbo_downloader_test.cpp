// The ring of pixel-pack buffers: results of init in their order, latency, framebuffers.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tarno/gpu.h>

#include <climits>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "support/gl_fixture.h"
#include "support/gl_hooks.h"
#include "support/gl_objects.h"
#include "support/recorders.h"

namespace tesk {

struct PboDownloaderProbe {
    static unsigned int& calls(PboDownloader& downloader) { return downloader.download_count; }
};

}  // namespace tesk

namespace {

using testing::ElementsAre;
using testing_support::GpuTest;
using testing_support::LiveObjects;
using testing_support::LogRecorder;
using testing_support::ReplacedEntryPoint;
using testing_support::Tensor;

const char* const too_many =
    "Asked to create more then 10 buffers; that is probaly a bit too much.";
const char* const unhandled = "Unhandled pixel format, use GL_R, GL_RG, GL_RGB or GL_RGBA.";

std::vector<std::string> texts(const LogRecorder& log) {
    std::vector<std::string> found;
    for (const LogRecorder::Line& line : log.lines) {
        EXPECT_EQ(line.tag, "Tarno");
        EXPECT_EQ(line.level, Tarno::LogLevel::Error);
        found.push_back(line.text);
    }
    return found;
}

class Downloads : public GpuTest {
protected:
    /// A plain byte texture of one colour.
    std::shared_ptr<tesk::Image> colour(int width, int height, unsigned char value) {
        const auto image = make_image(4, height, width, GL_RGBA8);
        const std::vector<char> bytes(static_cast<size_t>(4 * width * height),
                                      static_cast<char>(value));
        image->update(bytes.data(), 0);
        return image;
    }
    static GLint integer(GLenum name) {
        GLint value = -1;
        glGetIntegerv(name, &value);
        return value;
    }
};

TEST_F(Downloads, BeforeInitThereIsNothing) {
    tesk::PboDownloader downloader;
    EXPECT_FALSE(downloader.download());
    EXPECT_FALSE(downloader.download(GL_TEXTURE_2D, colour(1, 1, 9)->texture(), 0));
    EXPECT_EQ(downloader.data(), nullptr);
}

TEST_F(Downloads, TheFirstFrameComesWithTheCallBehindAFullRing) {
    tesk::PboDownloader downloader;
    ASSERT_EQ(downloader.init(GL_RGBA, GL_UNSIGNED_BYTE, 3, 2, 2), 0);
    for (int call = 0; call < 7; ++call) {
        const auto frame = colour(3, 2, static_cast<unsigned char>(10 + call));
        const bool fetched = downloader.download(GL_TEXTURE_2D, frame->texture(), 0);
        EXPECT_EQ(fetched, call >= 2) << call;
        const int expected = call >= 2 ? 10 + call - 2 : 0;
        for (int i = 0; i < 3 * 2 * 4; ++i) EXPECT_EQ(downloader.data()[i], expected) << call;
    }
}

TEST_F(Downloads, TheLatencyIsTheCountOfTheRing) {
    for (const int count : {1, 3, 10}) {
        tesk::PboDownloader downloader;
        ASSERT_EQ(downloader.init(GL_RED, GL_UNSIGNED_BYTE, 1, 1, count), 0);
        for (int call = 0; call < 2 * count + 2; ++call) {
            const auto frame = colour(1, 1, static_cast<unsigned char>(1 + call));
            EXPECT_EQ(downloader.download(GL_TEXTURE_2D, frame->texture(), 0), call >= count);
            if (call >= count) {
                EXPECT_EQ(downloader.data()[0], 1 + call - count) << count;
            }
        }
    }
}

TEST_F(Downloads, AWrapOfTheCounterKeepsTheRingFull) {
    tesk::PboDownloader downloader;
    ASSERT_EQ(downloader.init(GL_RED, GL_UNSIGNED_BYTE, 1, 1, 3), 0);
    unsigned int& calls = tesk::PboDownloaderProbe::calls(downloader);
    for (int call = 0; call < 10; ++call) {
        if (call == 4) {
            ASSERT_EQ(calls, 4u);
            calls = 0xFFFFFFFDu;
        }
        const auto frame = colour(1, 1, static_cast<unsigned char>(1 + call));
        ASSERT_EQ(downloader.download(GL_TEXTURE_2D, frame->texture(), 0), call >= 3) << call;
        if (call >= 3) {
            ASSERT_EQ(downloader.data()[0], 1 + call - 3) << call;
        }
        if (call == 4) {
            ASSERT_EQ(calls, 0xFFFFFFFEu);
        }
        if (call == 5) {
            ASSERT_EQ(calls, 3u);
        }
    }
    EXPECT_EQ(calls, 7u);
}

TEST_F(Downloads, ReadsTheFramebufferThatIsBound) {
    const auto frame = colour(2, 2, 77);
    GLuint framebuffer = 0;
    glGenFramebuffers(1, &framebuffer);
    glBindFramebuffer(GL_FRAMEBUFFER, framebuffer);
    glFramebufferTexture2D(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D, frame->texture(),
                           0);
    tesk::PboDownloader downloader;
    ASSERT_EQ(downloader.init(GL_RGBA, GL_UNSIGNED_BYTE, 2, 2, 1), 0);
    EXPECT_FALSE(downloader.download());
    EXPECT_TRUE(downloader.download());
    EXPECT_EQ(downloader.data()[15], 77);
    EXPECT_EQ(integer(GL_PIXEL_PACK_BUFFER_BINDING), 0);
    glBindFramebuffer(GL_FRAMEBUFFER, 0);
    glDeleteFramebuffers(1, &framebuffer);
}

TEST_F(Downloads, TheFramebufferThatWasBoundIsBoundAgain) {
    GLuint framebuffer = 0;
    glGenFramebuffers(1, &framebuffer);
    glBindFramebuffer(GL_FRAMEBUFFER, framebuffer);
    tesk::PboDownloader downloader;
    ASSERT_EQ(downloader.init(GL_RGBA, GL_UNSIGNED_BYTE, 1, 1, 1), 0);
    downloader.download(GL_TEXTURE_2D, colour(1, 1, 5)->texture(), 0);
    EXPECT_EQ(integer(GL_FRAMEBUFFER_BINDING), static_cast<GLint>(framebuffer));
    glBindFramebuffer(GL_FRAMEBUFFER, 0);
    downloader.download(GL_TEXTURE_2D, colour(1, 1, 5)->texture(), 0);
    EXPECT_EQ(integer(GL_FRAMEBUFFER_BINDING), 0);
    glDeleteFramebuffers(1, &framebuffer);
}

TEST_F(Downloads, LayersAreReadOneByOneAsFloats) {
    const Tensor tensor = testing_support::random_halves(12, 3, 5, 3);
    const auto image = upload(tensor);
    for (int layer = 0; layer < 3; ++layer) {
        tesk::PboDownloader downloader;
        ASSERT_EQ(downloader.init(GL_RGBA, GL_FLOAT, 5, 3, 1), 0);
        EXPECT_FALSE(downloader.download(GL_TEXTURE_2D_ARRAY, image->texture(), layer));
        EXPECT_TRUE(downloader.download(GL_TEXTURE_2D_ARRAY, image->texture(), layer));
        std::vector<float> texels(5 * 3 * 4);
        std::memcpy(texels.data(), downloader.data(), texels.size() * sizeof(float));
        for (int y = 0; y < 3; ++y)
            for (int x = 0; x < 5; ++x)
                for (int c = 0; c < 4; ++c)
                    EXPECT_EQ(texels[static_cast<size_t>(4 * (5 * y + x) + c)],
                              tensor.at(4 * layer + c, y, x));
    }
}

TEST_F(Downloads, EveryFormatHasRoomForFloats) {
    struct Case {
        GLenum format;
        int components;
        int first;
    };
    Tensor tensor(4, 2, 3);
    for (size_t i = 0; i < tensor.values.size(); ++i) tensor.values[i] = static_cast<double>(i);
    const auto image = upload(tensor);
    for (const Case& tested : {Case{GL_RED, 1, 0}, Case{GL_GREEN, 1, 1}, Case{GL_BLUE, 1, 2},
                               Case{GL_RGB, 3, 0}, Case{GL_RGBA, 4, 0}}) {
        tesk::PboDownloader downloader;
        ASSERT_EQ(downloader.init(tested.format, GL_FLOAT, 3, 2, 1), 0);
        downloader.download(GL_TEXTURE_2D, image->texture(), 0);
        EXPECT_TRUE(downloader.download(GL_TEXTURE_2D, image->texture(), 0));
        std::vector<float> values(static_cast<size_t>(3 * 2 * tested.components));
        std::memcpy(values.data(), downloader.data(), values.size() * sizeof(float));
        for (int y = 0; y < 2; ++y)
            for (int x = 0; x < 3; ++x)
                for (int c = 0; c < tested.components; ++c)
                    EXPECT_EQ(values[static_cast<size_t>(tested.components * (3 * y + x) + c)],
                              tensor.at(tested.first + c, y, x))
                        << std::hex << tested.format;
    }
}

TEST_F(Downloads, RowsOfBytesArePaddedToFour) {
    const auto frame = make_image(4, 3, 3, GL_RGBA8);
    std::vector<char> bytes(3 * 3 * 4);
    for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>(i);
    frame->update(bytes.data(), 0);
    for (const GLint alignment : {4, 8, 1}) {
        glPixelStorei(GL_PACK_ALIGNMENT, alignment);
        const size_t stride = alignment == 1 ? 9 : 12;
        tesk::PboDownloader ring, direct;
        Tarno::SetLogLevel(Tarno::LogLevel::Silent);
        ASSERT_EQ(ring.init(GL_RGB, GL_UNSIGNED_BYTE, 3, 3, 1), 0);
        ASSERT_EQ(direct.init(GL_RGB, GL_UNSIGNED_BYTE, 3, 3, 0), -2);
        Tarno::SetLogLevel(Tarno::LogLevel::Info);
        ring.download(GL_TEXTURE_2D, frame->texture(), 0);
        EXPECT_TRUE(ring.download(GL_TEXTURE_2D, frame->texture(), 0));
        EXPECT_TRUE(direct.download(GL_TEXTURE_2D, frame->texture(), 0));
        for (size_t y = 0; y < 3; ++y)
            for (size_t x = 0; x < 3; ++x)
                for (size_t c = 0; c < 3; ++c) {
                    EXPECT_EQ(ring.data()[y * stride + 3 * x + c], 12 * y + 4 * x + c);
                    EXPECT_EQ(direct.data()[y * stride + 3 * x + c], 12 * y + 4 * x + c);
                }
        EXPECT_EQ(integer(GL_PACK_ALIGNMENT), alignment);
    }
    glPixelStorei(GL_PACK_ALIGNMENT, 4);
}

TEST_F(Downloads, ASingleColumnStaysInsideItsFrameWhateverTheAlignment) {
    const auto frame = make_image(1, 64, 1, GL_R8);
    std::vector<char> bytes(64, 3);
    frame->update(bytes.data(), 0);
    glPixelStorei(GL_PACK_ALIGNMENT, 8);
    tesk::PboDownloader direct;
    Tarno::SetLogLevel(Tarno::LogLevel::Silent);
    ASSERT_EQ(direct.init(GL_RED, GL_UNSIGNED_BYTE, 1, 64, 0), -2);
    Tarno::SetLogLevel(Tarno::LogLevel::Info);
    EXPECT_TRUE(direct.download(GL_TEXTURE_2D, frame->texture(), 0));
    EXPECT_EQ(direct.data()[4 * 63], 3);
    glPixelStorei(GL_PACK_ALIGNMENT, 4);
}

TEST_F(Downloads, WithoutARingReadDirectlyAtOnce) {
    tesk::PboDownloader downloader;
    LogRecorder log;
    EXPECT_EQ(downloader.init(GL_RGBA, GL_UNSIGNED_BYTE, 2, 2, 0), -2);
    EXPECT_THAT(texts(log), ElementsAre("Invalid number of PBOs: 0"));
    ASSERT_NE(downloader.data(), nullptr);
    EXPECT_TRUE(downloader.download(GL_TEXTURE_2D, colour(2, 2, 88)->texture(), 0));
    EXPECT_EQ(downloader.data()[15], 88);
}

TEST_F(Downloads, MoreThanTenBuffersAreWarnedOf) {
    tesk::PboDownloader downloader;
    LogRecorder log;
    EXPECT_EQ(downloader.init(GL_RED, GL_UNSIGNED_BYTE, 2, 2, 11), 0);
    EXPECT_THAT(texts(log), ElementsAre(too_many));
    tesk::PboDownloader ten;
    EXPECT_EQ(ten.init(GL_RED, GL_UNSIGNED_BYTE, 2, 2, 10), 0);
    EXPECT_EQ(log.lines.size(), 1u);
}

TEST_F(Downloads, ASecondInitFailsAndTheRingGoesOn) {
    tesk::PboDownloader downloader;
    ASSERT_EQ(downloader.init(GL_RED, GL_UNSIGNED_BYTE, 1, 1, 1), 0);
    downloader.download(GL_TEXTURE_2D, colour(1, 1, 5)->texture(), 0);
    LogRecorder log;
    // Before every other test of the arguments.
    EXPECT_EQ(downloader.init(GL_RG, GL_UNSIGNED_BYTE, 0, 0, 99), -1);
    EXPECT_THAT(texts(log),
                ElementsAre("Already initialized. Not necessary to initialize again; or shutdown "
                            "first."));
    EXPECT_TRUE(downloader.download(GL_TEXTURE_2D, colour(1, 1, 6)->texture(), 0));
    EXPECT_EQ(downloader.data()[0], 5);
}

TEST_F(Downloads, ArgumentsAreTestedInOrder) {
    struct Case {
        GLenum format;
        int width, height, count;
        int result;
        std::vector<std::string> log;
    };
    const Case cases[] = {{GL_RG, 0, 0, 0, -3, {unhandled}},
                          {GL_RG, 2, 2, 2, -3, {unhandled}},
                          {GL_RG, 2, 2, 11, -3, {too_many, unhandled}},
                          {GL_RED, 0, 2, 0, -4, {"Invalid width or height given: 0 x 2"}},
                          {GL_RED, 2, 0, 2, -4, {"Invalid width or height given: 2 x 0"}},
                          {GL_RED, -2, -2, 2, -4, {"Invalid width or height given: -2 x -2"}},
                          {GL_RGBA, INT_MAX, INT_MAX, 0, -5, {"Cannot allocate pixel buffer."}},
                          {GL_RGBA, 46341, 46341, 2, -5, {"Cannot allocate pixel buffer."}},
                          {GL_RED, 2, 2, 0, -2, {"Invalid number of PBOs: 0"}},
                          {GL_RED, 2, 2, -1, -2, {"Invalid number of PBOs: -1"}}};
    for (const Case& tested : cases) {
        tesk::PboDownloader downloader;
        LogRecorder log;
        EXPECT_EQ(downloader.init(tested.format, GL_UNSIGNED_BYTE, tested.width, tested.height,
                                  tested.count),
                  tested.result);
        EXPECT_THAT(texts(log), testing::ElementsAreArray(tested.log));
    }
}

TEST_F(Downloads, AFailedInitLeavesNoFrameOfAnotherSize) {
    const auto large = colour(64, 64, 200);
    tesk::PboDownloader downloader;
    Tarno::SetLogLevel(Tarno::LogLevel::Silent);
    EXPECT_EQ(downloader.init(GL_RED, GL_UNSIGNED_BYTE, 1, 1, 0), -2);
    EXPECT_EQ(downloader.init(GL_RG, GL_UNSIGNED_BYTE, 64, 64, 0), -3);
    EXPECT_EQ(downloader.data(), nullptr);
    EXPECT_FALSE(downloader.download(GL_TEXTURE_2D, large->texture(), 0));
    EXPECT_EQ(downloader.init(GL_RED, GL_UNSIGNED_BYTE, 1, 1, 0), -2);
    EXPECT_EQ(downloader.init(GL_RED, GL_UNSIGNED_BYTE, 64, 64, 0), -2);
    Tarno::SetLogLevel(Tarno::LogLevel::Info);
    EXPECT_TRUE(downloader.download(GL_TEXTURE_2D, large->texture(), 0));
    EXPECT_EQ(downloader.data()[64 * 64 - 1], 200);
    // And a ring after all.
    EXPECT_EQ(downloader.init(GL_RED, GL_UNSIGNED_BYTE, 2, 2, 1), 0);
}

TEST_F(Downloads, AFailedMapIsLoggedAndTheFrameStays) {
    tesk::PboDownloader downloader;
    ASSERT_EQ(downloader.init(GL_RED, GL_UNSIGNED_BYTE, 1, 1, 1), 0);
    downloader.download(GL_TEXTURE_2D, colour(1, 1, 1)->texture(), 0);
    EXPECT_TRUE(downloader.download(GL_TEXTURE_2D, colour(1, 1, 2)->texture(), 0));
    {
        const ReplacedEntryPoint<PFNGLMAPBUFFERRANGEPROC> refuse(
            __glewMapBufferRange,
            [](GLenum, GLintptr, GLsizeiptr, GLbitfield) -> void* { return nullptr; });
        LogRecorder log;
        EXPECT_FALSE(downloader.download(GL_TEXTURE_2D, colour(1, 1, 3)->texture(), 0));
        EXPECT_THAT(texts(log), ElementsAre("Failed to map the buffer"));
    }
    EXPECT_EQ(downloader.data()[0], 1);
    EXPECT_TRUE(downloader.download(GL_TEXTURE_2D, colour(1, 1, 4)->texture(), 0));
    EXPECT_EQ(downloader.data()[0], 3);
}

TEST_F(Downloads, AFrameLargerThanTheTextureKeepsItsOtherBytes) {
    // GL leaves pixels outside the framebuffer undefined; only the memory's end matters here.
    tesk::PboDownloader downloader;
    Tarno::SetLogLevel(Tarno::LogLevel::Silent);
    ASSERT_EQ(downloader.init(GL_RED, GL_UNSIGNED_BYTE, 8, 8, 0), -2);
    Tarno::SetLogLevel(Tarno::LogLevel::Info);
    EXPECT_TRUE(downloader.download(GL_TEXTURE_2D, colour(2, 2, 7)->texture(), 0));
    EXPECT_EQ(downloader.data()[0], 7);
    EXPECT_EQ(downloader.data()[8], 7);
}

TEST_F(Downloads, BuffersAndFramebufferGoWithTheDownloader) {
    const auto frame = colour(1, 1, 1);
    const LiveObjects before = LiveObjects::count();
    {
        tesk::PboDownloader downloader;
        ASSERT_EQ(downloader.init(GL_RED, GL_UNSIGNED_BYTE, 1, 1, 3), 0);
        downloader.download(GL_TEXTURE_2D, frame->texture(), 0);
        EXPECT_EQ(LiveObjects::count().buffers, before.buffers + 3);
        EXPECT_EQ(LiveObjects::count().framebuffers, before.framebuffers + 1);
    }
    EXPECT_EQ(LiveObjects::count().buffers, before.buffers);
    EXPECT_EQ(LiveObjects::count().framebuffers, before.framebuffers);
}

}  // namespace
