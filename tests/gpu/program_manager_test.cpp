// The registry of programs: names, limits and their log lines, the reader of the cache file.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tarno/gpu.h>

#include <cstring>
#include <string>
#include <vector>

#include "support/gl_fixture.h"
#include "support/gl_hooks.h"
#include "support/recorders.h"
#include "support/temporary_file.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing_support::GpuTest;
using testing_support::LogRecorder;
using testing_support::ReplacedEntryPoint;
using testing_support::TemporaryFile;

const char* const compiles =
    "#version 310 es\nlayout(local_size_x = 1) in;\n"
    "layout(std430, binding = 0) buffer Result { float result[]; };\n"
    "void main() { result[0] = 1.0; }\n";
const char* const compiles_to_two =
    "#version 310 es\nlayout(local_size_x = 1) in;\n"
    "layout(std430, binding = 0) buffer Result { float result[]; };\n"
    "void main() { result[0] = 2.0; }\n";
const char* const does_not_compile = "#version 310 es\nvoid main() { no such words; }\n";

std::vector<std::string> texts(const LogRecorder& log, Tarno::LogLevel level) {
    std::vector<std::string> found;
    for (const LogRecorder::Line& line : log.lines) {
        EXPECT_EQ(line.tag, "Tarno");
        if (line.level == level) found.push_back(line.text);
    }
    return found;
}

bool linked(unsigned int id) {
    GLint status = 0;
    glGetProgramiv(id, GL_LINK_STATUS, &status);
    return status != 0;
}

class Registry : public GpuTest {
protected:
    static float result_of(tesk::ComputeProgram& program) {
        const float before = 0.0f;
        tesk::Buffer buffer(4, &before, GL_SHADER_STORAGE_BUFFER);
        program.use();
        program.bindBuffer(0, buffer);
        program.compute(1, 1, 1);
        float value = -1.0f;
        buffer.getBufferData(4, reinterpret_cast<char*>(&value), GL_SHADER_STORAGE_BUFFER);
        return value;
    }
};

TEST_F(Registry, CompilesAProgramOnceAndSharesIt) {
    EXPECT_FALSE(manager.IsExistComputeProgram("one"));
    EXPECT_TRUE(manager.addComputeProgramFromString(compiles, "one"));
    EXPECT_TRUE(manager.IsExistComputeProgram("one"));
    const auto program = manager.getComputeProgram("one");
    EXPECT_EQ(program.get(), manager.getComputeProgram("one").get());
    EXPECT_EQ(result_of(*program), 1.0f);
    EXPECT_EQ(manager.programCount(), 1);
}

TEST_F(Registry, ASecondSourceUnderANameIsTrueAndTheFirstStays) {
    EXPECT_TRUE(manager.addComputeProgramFromString(compiles, "one"));
    const auto first = manager.getComputeProgram("one");
    EXPECT_TRUE(manager.addComputeProgramFromString(compiles_to_two, "one"));
    EXPECT_TRUE(manager.addComputeProgramFromString(does_not_compile, "one"));
    EXPECT_EQ(manager.getComputeProgram("one").get(), first.get());
    EXPECT_EQ(result_of(*first), 1.0f);
}

TEST_F(Registry, ASourceThatDoesNotCompileIsTrueAndTakesTheName) {
    LogRecorder log;
    EXPECT_TRUE(manager.addComputeProgramFromString(does_not_compile, "broken"));
    EXPECT_TRUE(manager.IsExistComputeProgram("broken"));
    const auto program = manager.getComputeProgram("broken");
    ASSERT_NE(program, nullptr);
    EXPECT_NE(program->getProgramID(), 0u);
    EXPECT_FALSE(linked(program->getProgramID()));
    const std::vector<std::string> errors = texts(log, Tarno::LogLevel::Error);
    ASSERT_EQ(errors.size(), 3u);
    EXPECT_EQ(errors[1], "Failed to compile compute shader");
    EXPECT_EQ(errors[2], "program broken: expected code that compiles and links, see above");
}

TEST_F(Registry, ANullSourceIsAProgramWithoutCode) {
    Tarno::SetLogLevel(Tarno::LogLevel::Silent);
    EXPECT_TRUE(manager.addComputeProgramFromString(nullptr, "null"));
    Tarno::SetLogLevel(Tarno::LogLevel::Info);
    EXPECT_FALSE(linked(manager.getComputeProgram("null")->getProgramID()));
}

TEST_F(Registry, AskingForAnUnknownNameGivesNothingAndTakesTheName) {
    EXPECT_EQ(manager.getComputeProgram("unknown"), nullptr);
    EXPECT_TRUE(manager.IsExistComputeProgram("unknown"));
    EXPECT_TRUE(manager.addComputeProgramFromString(compiles, "unknown"));
    EXPECT_EQ(manager.getComputeProgram("unknown"), nullptr);
}

TEST_F(Registry, AFileReplacesTheProgramOfItsName) {
    EXPECT_TRUE(manager.addComputeProgramFromString(compiles, "one"));
    const auto first = manager.getComputeProgram("one");
    const TemporaryFile file(
        std::vector<unsigned char>(compiles_to_two, compiles_to_two + std::strlen(compiles_to_two)));
    EXPECT_TRUE(manager.addComputeProgramFromFile(file.path(), "one"));
    EXPECT_NE(manager.getComputeProgram("one").get(), first.get());
    EXPECT_EQ(result_of(*manager.getComputeProgram("one")), 2.0f);
    EXPECT_EQ(result_of(*first), 1.0f);
    EXPECT_EQ(manager.programCount(), 1);
}

TEST_F(Registry, AFileTakesANameThatAnUnknownRequestLeft) {
    EXPECT_EQ(manager.getComputeProgram("one"), nullptr);
    const TemporaryFile file(
        std::vector<unsigned char>(compiles, compiles + std::strlen(compiles)));
    EXPECT_TRUE(manager.addComputeProgramFromFile(file.path(), "one"));
    ASSERT_NE(manager.getComputeProgram("one"), nullptr);
}

TEST_F(Registry, AMissingFileIsTrueAndNamedInTheLog) {
    LogRecorder log;
    EXPECT_TRUE(manager.addComputeProgramFromFile("/no/such/shader.comp", "missing"));
    EXPECT_TRUE(manager.IsExistComputeProgram("missing"));
    const std::vector<std::string> errors = texts(log, Tarno::LogLevel::Error);
    EXPECT_EQ(errors.front(), "Failed to load shader file: /no/such/shader.comp");
    EXPECT_EQ(errors.back(), "program missing: expected code that compiles and links, see above");
}

TEST_F(Registry, ReleaseDropsItsShareAndTheRegistryCanBeFilledAgain) {
    manager.addComputeProgramFromString(compiles, "kept");
    manager.addComputeProgramFromString(compiles, "dropped");
    const auto kept = manager.getComputeProgram("kept");
    const unsigned int dropped = manager.getComputeProgram("dropped")->getProgramID();
    manager.release();
    EXPECT_EQ(manager.programCount(), 0);
    EXPECT_FALSE(manager.IsExistComputeProgram("kept"));
    EXPECT_FALSE(glIsProgram(dropped));
    EXPECT_TRUE(glIsProgram(kept->getProgramID()));
    EXPECT_TRUE(manager.addComputeProgramFromString(compiles_to_two, "kept"));
    EXPECT_EQ(result_of(*manager.getComputeProgram("kept")), 2.0f);
    EXPECT_EQ(result_of(*kept), 1.0f);
}

TEST_F(Registry, BeginsWithTheDocumentedNumbers) {
    const tesk::ComputeProgramManager fresh(77, "a client");
    EXPECT_EQ(fresh.cacheEntries, nullptr);
    EXPECT_EQ(fresh.cachePosition, 0);
    EXPECT_EQ(fresh.cacheEntryCount, 0);
    EXPECT_TRUE(fresh.cacheUsable);
    EXPECT_EQ(fresh.clientNumber, 77u);
    EXPECT_EQ(fresh.uniformBufferOffsetAlignment, 256);
    EXPECT_EQ(fresh.maxUniformBlockSize, 65536);
    EXPECT_EQ(fresh.maxUniformBufferBindings, 0);
    EXPECT_EQ(fresh.maxUniformVec4Count, 4096);
    EXPECT_EQ(fresh.maxComputeWorkGroupInvocations, 1024);
    EXPECT_EQ(fresh.tuningWord1, 4);
    EXPECT_EQ(fresh.maxComputeSharedMemorySize, 2048);
    EXPECT_EQ(fresh.maxComputeWorkGroupSizeZ, 64);
    EXPECT_EQ(fresh.tuningWord2, 6);
    EXPECT_EQ(fresh.tuningWord3, 8);
    EXPECT_EQ(fresh.tuningWord4, 0);
    EXPECT_EQ(fresh.tricksMode, 4);
    EXPECT_EQ(fresh.tuningWord6, 0);
    EXPECT_EQ(fresh.uboSliceLimit, 4);
    EXPECT_EQ(fresh.netWidth, 256);
    EXPECT_EQ(fresh.netHeight, 256);
    EXPECT_EQ(fresh.cacheName, "a client");
    EXPECT_EQ(fresh.cachePath, "");
    for (const uint32_t word : fresh.cacheInfo.words)
        EXPECT_EQ(word, 0u);
    EXPECT_EQ(fresh.programCount(), 0);
}

void GLAPIENTRY no_work_group_size(GLenum name, GLuint index, GLint* value) {
    EXPECT_EQ(name, GLenum{GL_MAX_COMPUTE_WORK_GROUP_SIZE});
    EXPECT_EQ(index, 2u);
    *value = 0;
}

std::string text(GLenum name) {
    return reinterpret_cast<const char*>(glGetString(name));
}

GLint limit(GLenum name) {
    GLint value = -1;
    glGetIntegerv(name, &value);
    return value;
}

TEST_F(Registry, ReadsTheLimitsAndLogsThemInOrder) {
    tesk::ComputeProgramManager fresh(0, "");
    LogRecorder log;
    fresh.initOpenglParameters();
    EXPECT_EQ(fresh.uniformBufferOffsetAlignment, limit(GL_UNIFORM_BUFFER_OFFSET_ALIGNMENT));
    EXPECT_EQ(fresh.maxUniformBlockSize, limit(GL_MAX_UNIFORM_BLOCK_SIZE));
    EXPECT_EQ(fresh.maxUniformBufferBindings, limit(GL_MAX_UNIFORM_BUFFER_BINDINGS));
    EXPECT_EQ(fresh.maxComputeWorkGroupInvocations, limit(GL_MAX_COMPUTE_WORK_GROUP_INVOCATIONS));
    EXPECT_EQ(fresh.maxComputeSharedMemorySize, limit(GL_MAX_COMPUTE_SHARED_MEMORY_SIZE));
    GLint z = 0;
    glGetIntegeri_v(GL_MAX_COMPUTE_WORK_GROUP_SIZE, 2, &z);
    EXPECT_EQ(fresh.maxComputeWorkGroupSizeZ, z);
    EXPECT_EQ(fresh.maxUniformVec4Count, fresh.maxUniformBlockSize / 16);

    std::vector<std::string> lines;
    for (const LogRecorder::Line& line : log.lines) {
        EXPECT_EQ(line.level, lines.size() < 4 ? Tarno::LogLevel::Verbose : Tarno::LogLevel::Info);
        lines.push_back(line.text);
    }
    EXPECT_THAT(
        lines,
        ElementsAre("Opengl info:GL_MAX_COMPUTE_WORK_GROUP_INVOCATIONS = " +
                        std::to_string(limit(GL_MAX_COMPUTE_WORK_GROUP_INVOCATIONS)) + ".",
                    "Opengl info:GL_MAX_COMPUTE_SHARED_MEMORY_SIZE = " +
                        std::to_string(limit(GL_MAX_COMPUTE_SHARED_MEMORY_SIZE)) + ".",
                    "Opengl info:GL_MAX_UNIFORM_BLOCK_SIZE = " +
                        std::to_string(limit(GL_MAX_UNIFORM_BLOCK_SIZE)) + ".",
                    "Opengl info:GL_MAX_COMPUTE_WORK_GROUP_SIZE_Z = " + std::to_string(z) + ".",
                    "OpenGL Info: " + text(GL_VENDOR), "OpenGL Info: " + text(GL_RENDERER),
                    "OpenGL Info: " + text(GL_VERSION)));
}

TEST_F(Registry, AWorkGroupDepthOfZeroBecomesOneWithAMessage) {
    const ReplacedEntryPoint<PFNGLGETINTEGERI_VPROC> hook(__glewGetIntegeri_v,
                                                          &no_work_group_size);
    tesk::ComputeProgramManager fresh(0, "");
    LogRecorder log;
    fresh.initOpenglParameters();
    EXPECT_EQ(fresh.maxComputeWorkGroupSizeZ, 1);
    ASSERT_EQ(log.lines.size(), 8u);
    EXPECT_EQ(log.lines[3].text, "Opengl info:GL_MAX_COMPUTE_WORK_GROUP_SIZE_Z = 0.");
    EXPECT_EQ(log.lines[4].text, "get max compute work group size error.");
    EXPECT_EQ(log.lines[4].level, Tarno::LogLevel::Verbose);
    EXPECT_EQ(log.lines[5].text, "OpenGL Info: " + text(GL_VENDOR));
}

TEST_F(Registry, TuningIsTheSameOnEveryDriver) {
    tesk::ComputeProgramManager fresh(0, "");
    fresh.tricksMode = 1;
    fresh.initTricksParameters();
    EXPECT_EQ(fresh.tricksMode, 4);
    EXPECT_EQ(fresh.uboSliceLimit, 0);
    // The limits' reader calls it, too.
    EXPECT_EQ(manager.tricksMode, 4);
    EXPECT_EQ(manager.uboSliceLimit, 0);
}

TEST_F(Registry, NoCacheFileEverExists) {
    tesk::ComputeProgramManager fresh(0, "");
    EXPECT_FALSE(fresh.binaryFileExist());
    EXPECT_FALSE(fresh.cacheUsable);
    fresh.cacheUsable = true;
    EXPECT_FALSE(fresh.binaryFileExist(tesk::BinFileInfo()));
    EXPECT_FALSE(fresh.cacheUsable);
}

TEST_F(Registry, AGroupWithoutAManagerIsLogged) {
    LogRecorder log;
    EXPECT_FALSE(manager.initProgramBinary_Audio({}, nullptr));
    EXPECT_THAT(texts(log, Tarno::LogLevel::Error),
                ElementsAre("program group: expected a manager to register with, found none"));
    EXPECT_EQ(manager.programCount(), 0);
}

/// Little-endian words and bytes, as the file holds them.
class Bytes {
public:
    Bytes& word(uint32_t value) {
        for (int shift = 0; shift < 32; shift += 8)
            content.push_back(static_cast<unsigned char>(value >> shift));
        return *this;
    }
    Bytes& text(const std::string& value) {
        content.insert(content.end(), value.begin(), value.end());
        return *this;
    }
    Bytes& header(uint32_t count) {
        return word(0x04030201).word(0xFFFFFFFF).word(3).word(0x80000000).word(count);
    }
    Bytes& entry(uint32_t first, const std::string& data, uint32_t second) {
        return word(first).word(static_cast<uint32_t>(data.size())).word(second).text(data);
    }
    std::vector<unsigned char> content;
};

/// Loaded entries belong to the client.
struct CacheReader : tesk::ComputeProgramManager {
    explicit CacheReader(const std::string& path) : tesk::ComputeProgramManager(0, "") {
        cachePath = path;
    }
    ~CacheReader() {
        for (int i = 0; i < cacheEntryCount; ++i)
            delete[] cacheEntries[i].data;
        delete[] cacheEntries;
    }
};

TEST(CacheFile, WithoutAPathIsMissingInSilence) {
    CacheReader cache("");
    LogRecorder log;
    EXPECT_FALSE(cache.loadProgramBinary());
    EXPECT_FALSE(cache.cacheUsable);
    EXPECT_EQ(cache.cacheEntries, nullptr);
    EXPECT_THAT(log.lines, IsEmpty());
}

TEST(CacheFile, AFolderIsNone) {
    CacheReader cache("/");
    EXPECT_FALSE(cache.loadProgramBinary());
    EXPECT_FALSE(cache.cacheUsable);
}

TEST(CacheFile, IsReadToTheByte) {
    const std::string binary("a\0b", 3);
    const TemporaryFile file(
        Bytes().header(3).entry(1, "code", 0xFFFFFFFE).entry(5, "", 6).entry(7, binary, 8).content);
    CacheReader cache(file.path());
    EXPECT_TRUE(cache.loadProgramBinary());
    EXPECT_TRUE(cache.cacheUsable);
    EXPECT_THAT(cache.cacheInfo.words, ElementsAre(0x04030201u, 0xFFFFFFFFu, 3u, 0x80000000u));
    ASSERT_EQ(cache.cacheEntryCount, 3);
    const tesk::BinFileEntry* entries = cache.cacheEntries;
    EXPECT_EQ(entries[0].first_word, 1);
    EXPECT_EQ(entries[0].second_word, -2);
    EXPECT_EQ(std::string(entries[0].data, 4), "code");
    EXPECT_EQ(entries[0].length, 4);
    EXPECT_EQ(entries[1].first_word, 5);
    EXPECT_EQ(entries[1].length, 0);
    EXPECT_EQ(entries[1].second_word, 6);
    EXPECT_EQ(entries[2].first_word, 7);
    EXPECT_EQ(std::string(entries[2].data, 3), binary);
    EXPECT_EQ(entries[2].second_word, 8);
}

TEST(CacheFile, MayHoldNothing) {
    const TemporaryFile file(Bytes().header(0).content);
    CacheReader cache(file.path());
    EXPECT_TRUE(cache.loadProgramBinary());
    EXPECT_EQ(cache.cacheEntryCount, 0);
}

TEST(CacheFile, MayHaveBytesBehindItsEntries) {
    const TemporaryFile file(Bytes().header(1).entry(1, "x", 2).text("more").content);
    CacheReader cache(file.path());
    EXPECT_TRUE(cache.loadProgramBinary());
    EXPECT_EQ(cache.cacheEntryCount, 1);
}

TEST(CacheFile, CutAnywhereIsRefusedAndKeepsTheEntriesBeforeTheCut) {
    const std::vector<unsigned char> whole =
        Bytes().header(2).entry(1, "first", 2).entry(3, "second", 4).content;
    const size_t first_end = 20 + 12 + 5;
    for (size_t length = 0; length < whole.size(); ++length) {
        const TemporaryFile file(std::vector<unsigned char>(
            whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length)));
        CacheReader cache(file.path());
        EXPECT_FALSE(cache.loadProgramBinary()) << length;
        EXPECT_FALSE(cache.cacheUsable) << length;
        // Two entries take 24 bytes at least, so shorter files are refused as a whole.
        if (length < 20 + 24) {
            EXPECT_EQ(cache.cacheEntryCount, 0) << length;
            continue;
        }
        ASSERT_EQ(cache.cacheEntryCount, 2) << length;
        ASSERT_GE(length, first_end);
        EXPECT_EQ(std::string(cache.cacheEntries[0].data, 5), "first") << length;
        EXPECT_EQ(cache.cacheEntries[1].data, nullptr) << length;
        EXPECT_EQ(cache.cacheEntries[1].length, 0) << length;
    }
}

TEST(CacheFile, CountsBeyondTheFileTakeNoMemory) {
    for (const uint32_t count : {3u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu}) {
        const TemporaryFile file(Bytes().header(count).entry(1, "x", 2).entry(1, "x", 2).content);
        CacheReader cache(file.path());
        EXPECT_FALSE(cache.loadProgramBinary()) << count;
        EXPECT_EQ(cache.cacheEntries, nullptr) << count;
        EXPECT_EQ(cache.cacheEntryCount, 0) << count;
    }
}

TEST(CacheFile, LengthsBeyondTheFileTakeNoMemory) {
    for (const uint32_t length : {5u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu}) {
        const TemporaryFile file(
            Bytes().header(1).word(1).word(length).word(2).text("four").content);
        CacheReader cache(file.path());
        EXPECT_FALSE(cache.loadProgramBinary()) << length;
        ASSERT_EQ(cache.cacheEntryCount, 1) << length;
        EXPECT_EQ(cache.cacheEntries[0].data, nullptr) << length;
        EXPECT_EQ(cache.cacheEntries[0].length, 0) << length;
    }
}

TEST(CacheFile, IsNamedAfterTheClientAndTwoNumbers) {
    EXPECT_EQ(tesk::ComputeProgramManager::cacheFileName("effects", 3, 14),
              "./effectsOffical314.bin");
    EXPECT_EQ(tesk::ComputeProgramManager::cacheFileName("", 0, -1), "./shaderBinOffical0-1.bin");
}

TEST(CacheFile, ANameThatIsTooLongIsCut) {
    const std::string name =
        tesk::ComputeProgramManager::cacheFileName(std::string(5000, 'n'), 1, 2);
    EXPECT_EQ(name, "./" + std::string(1021, 'n'));
}

}  // namespace
