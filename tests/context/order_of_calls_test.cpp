// A client that forgets tesk_Init. This process never makes a context, so GL has no entry points yet.
#include <GL/glew.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tarno/gpu.h>

#include <string>
#include <vector>

#include "support/recorders.h"

namespace {

using testing::Contains;
using testing::Each;
using testing_support::AssertRecorder;
using testing_support::LogRecorder;

std::vector<std::string> errors(const LogRecorder& log) {
    std::vector<std::string> texts;
    for (const LogRecorder::Line& line : log.lines) {
        if (line.level == Tarno::LogLevel::Error) texts.push_back(line.text);
    }
    return texts;
}

TEST(BeforeAnyContext, ProgramsAreNotMadeAndDoNothing) {
    const AssertRecorder assertions;
    tesk::TexturePool pool(0);
    tesk::Image image(2, 2, 4, GL_RGBA16F, &pool);
    tesk::Buffer buffer;
    float values[] = {1.0f};
    {
        tesk::ComputeProgram program;
        EXPECT_FALSE(program.createProgram());
        EXPECT_FALSE(program.createFromCharArray("void main() {}", true));
        EXPECT_FALSE(program.createFromString("void main() {}", true));
        EXPECT_EQ(assertions.count("program != 0"), 3u);
        program.use();
        program.setUniform1i("a", 1);
        program.setUniform1f("a", 1.0f);
        program.setUniform1fv("a", values, 1);
        program.setUnifromTexture("a", 0, image);
        program.setUnifromTextureWithTexID("a", 0, 1);
        program.bindImage(0, GL_READ_ONLY, image);
        program.bindImageTexture(0, 1, 0, 0, GL_READ_ONLY, GL_RGBA16F);
        program.bindBuffer(0, buffer);
        program.bindBuffer(0, 1, GL_UNIFORM_BUFFER);
        program.bindBufferRange(0, buffer, 0, 4);
        program.bindBufferRange_with_bufferID(0, 1, 0, 4);
        program.bindUniformBlockIdx("a", buffer, 0);
        program.compute(1, 1, 1);
        EXPECT_EQ(program.status(), 0u);
        EXPECT_EQ(program.getProgramID(), 0u);
    }
    EXPECT_EQ(image.textureId(), 0u);
}

TEST(BeforeAnyContext, TheRegistryHoldsProgramsWithoutCode) {
    LogRecorder log;
    tesk::ComputeProgramManager manager(3, "client");
    manager.initOpenglParameters();
    EXPECT_THAT(errors(log), Contains("OpenGL limits: expected a current context, found none"));
    EXPECT_EQ(manager.maxUniformBlockSize, 65536);
    EXPECT_EQ(manager.uboSliceLimit, 0);
    EXPECT_FALSE(manager.initProgramBinary_Audio({}, &manager));
    EXPECT_EQ(manager.programCount(), 8);
    EXPECT_THAT(errors(log),
                Contains("program audio_classification_program: expected code that compiles and "
                         "links, see above"));
    manager.release();
}

TEST(BeforeAnyContext, BuffersHaveNoObjectAndReadNothing) {
    char data[8] = "unread";
    tesk::Buffer buffer(8, data, GL_SHADER_STORAGE_BUFFER);
    EXPECT_EQ(buffer.bufferId(), 0u);
    EXPECT_EQ(buffer.size(), 8);
    buffer.update(8, data, GL_SHADER_STORAGE_BUFFER);
    char read[8] = "before";
    buffer.getBufferData(8, read, GL_SHADER_STORAGE_BUFFER);
    buffer.getBufferData(8, read, GL_SHADER_STORAGE_BUFFER, true);
    EXPECT_FALSE(buffer.getBufferDataAsync(8, read, GL_SHADER_STORAGE_BUFFER));
    EXPECT_FALSE(buffer.asyncGpu2Cpu(8));
    EXPECT_FALSE(buffer.getAsyncData(8, read));
    EXPECT_STREQ(read, "before");
    EXPECT_TRUE(buffer.IsWriteOk());
}

TEST(BeforeAnyContext, ThePoolsHandOutNothing) {
    LogRecorder log;
    tesk::BufferPool buffers;
    EXPECT_EQ(buffers.getBuffer(64, 1), 0u);
    buffers.startAysnBufferLoading(64);
    EXPECT_FALSE(buffers.finishAysnBufferLoading(64, nullptr, nullptr));
    tesk::TexturePool textures(0);
    EXPECT_EQ(textures.acquireTexture(2, 2, 4, GL_TEXTURE_2D, GL_RGBA16F), 0u);
    EXPECT_EQ(textures.textureCount(), 0);
    textures.release();
    EXPECT_THAT(errors(log),
                testing::ElementsAre("buffer: expected a context of tesk_Init, found none",
                                     "texture: expected a context of tesk_Init, found none"));
}

TEST(BeforeAnyContext, ImagesReadNothing) {
    tesk::TexturePool pool(0);
    tesk::Image image(1, 1, 4, GL_RGBA16F, &pool);
    LogRecorder log;
    const float data[] = {1.0f, 2.0f, 3.0f, 4.0f};
    image.update(reinterpret_cast<const char*>(data), 0);
    EXPECT_EQ(image.texture(), 0u);
    float read[] = {-1.0f, -1.0f, -1.0f, -1.0f};
    image.copyTexToMemry(read, 0);
    EXPECT_THAT(read, Each(-1.0f));
    char byte = 'x';
    image.copyTexToMemry_c1(&byte, 0);
    EXPECT_EQ(byte, 'x');
    image.printOutput();
    image.saveToBin("/dev/null");
    image.saveToBin_onMobilePhone("/dev/null");
    image.saveToBin_audio("/dev/null");
    image.saveTo_CHW_Format_bin("/dev/null");
    image.subReadCount();
}

TEST(BeforeAnyContext, ADownloaderHasNoRing) {
    LogRecorder log;
    tesk::PboDownloader downloader;
    EXPECT_FALSE(downloader.download());
    EXPECT_FALSE(downloader.download(GL_TEXTURE_2D, 1, 0));
    EXPECT_EQ(downloader.init(GL_RED, GL_UNSIGNED_BYTE, 2, 2, 2), -3);
    EXPECT_FALSE(downloader.download());
    EXPECT_THAT(errors(log), testing::ElementsAre("Cannot allocate pbos."));
}

}  // namespace
