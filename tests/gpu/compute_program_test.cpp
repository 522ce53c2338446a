// Compute programs: the rewrite of sources, building, log lines, uniforms, bindings, dispatch.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tarno/gpu.h>

#include <random>
#include <string>
#include <vector>

#include "support/gl_fixture.h"
#include "support/gl_hooks.h"
#include "support/recorders.h"
#include "support/temporary_file.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;
using testing_support::AssertRecorder;
using testing_support::GpuTest;
using testing_support::LogRecorder;
using testing_support::ReplacedEntryPoint;
using testing_support::TemporaryFile;

/// Writes `value`, any GLSL expression, to the first number of storage buffer 0.
std::string writing(const std::string& value, const std::string& declarations = "") {
    return "#version 310 es\n"
           "layout(local_size_x = 1, local_size_y = 1, local_size_z = 1) in;\n"
           "layout(std430, binding = 0) buffer Result { float result[]; };\n" +
           declarations + "void main() { result[0] = float(" + value + "); }\n";
}

const std::string does_not_compile = "#version 310 es\nvoid main() { no such words; }\n";
const std::string does_not_link =
    writing("missing()", "float missing();\n");

std::vector<std::string> texts(const LogRecorder& log, Tarno::LogLevel level) {
    std::vector<std::string> found;
    for (const LogRecorder::Line& line : log.lines) {
        EXPECT_EQ(line.tag, "Tarno");
        if (line.level == level) found.push_back(line.text);
    }
    return found;
}

GLint integer(GLenum name) {
    GLint value = -1;
    glGetIntegerv(name, &value);
    return value;
}

GLint integer(GLenum name, GLuint index) {
    GLint value = -1;
    glGetIntegeri_v(name, index, &value);
    return value;
}

bool linked(unsigned int id) {
    GLint status = 0;
    glGetProgramiv(id, GL_LINK_STATUS, &status);
    return status != 0;
}

class Program : public GpuTest {
protected:
    Program() { sent().clear(); }

    /// The source texts that reached the driver.
    static std::vector<std::string>& sent() {
        static std::vector<std::string> list;
        return list;
    }
    static PFNGLSHADERSOURCEPROC& driver() {
        static PFNGLSHADERSOURCEPROC entry_point = nullptr;
        return entry_point;
    }
    static void GLAPIENTRY record_source(GLuint shader, GLsizei count, const GLchar* const* strings,
                                         const GLint* lengths) {
        EXPECT_EQ(count, 1);
        EXPECT_EQ(lengths, nullptr);
        sent().push_back(strings[0]);
        driver()(shader, count, strings, lengths);
    }

    /// Runs `source` once and gives back what it wrote.
    float result_of(const std::string& source) {
        tesk::ComputeProgram program;
        EXPECT_TRUE(program.createFromString(source, true));
        const float before = -1.0f;
        tesk::Buffer buffer(4, &before, GL_SHADER_STORAGE_BUFFER);
        return run(program, buffer);
    }
    static float run(tesk::ComputeProgram& program, tesk::Buffer& buffer) {
        program.use();
        program.bindBuffer(0, buffer);
        program.compute(1, 1, 1);
        return content(buffer);
    }
    static float content(tesk::Buffer& buffer, GLintptr offset = 0) {
        float value = 0.0f;
        glBindBuffer(GL_COPY_READ_BUFFER, buffer.bufferId());
        glGetBufferSubData(GL_COPY_READ_BUFFER, offset, 4, &value);
        return value;
    }
};

TEST_F(Program, ASourceWithoutAVersionLineCompilesAsVersion430) {
    std::string source = writing("__VERSION__");
    source.erase(0, source.find('\n') + 1);
    EXPECT_EQ(result_of(source), 430.0f);
}

TEST_F(Program, ASourceInTheEsDialectCompilesAsVersion430) {
    EXPECT_EQ(result_of(writing("__VERSION__")), 430.0f);
}

TEST_F(Program, EveryVersionAndPrecisionStatementIsErasedAndWhitespaceStays) {
    const ReplacedEntryPoint<PFNGLSHADERSOURCEPROC> hook(__glewShaderSource, &record_source);
    driver() = hook.original();
    const std::string source =
        "#version 310 es\nprecision highp float;\n precision lowp float; precision mediump float;\n"
        "layout(local_size_x = 1) in;\n"
        "void main() { precision highp float;\n  highp float x = 1.0; }\n";
    tesk::ComputeProgram program;
    EXPECT_TRUE(program.createFromCharArray(source.c_str(), true));
    EXPECT_THAT(sent(), ElementsAre("#version 430\n#define highp\n#define mediump\n#define lowp\n"
                                    "\n\n  \n"
                                    "layout(local_size_x = 1) in;\n"
                                    "void main() { \n  highp float x = 1.0; }\n"));
}

TEST_F(Program, TheVersionLineIsErasedWhereverItStands) {
    const ReplacedEntryPoint<PFNGLSHADERSOURCEPROC> hook(__glewShaderSource, &record_source);
    driver() = hook.original();
    tesk::ComputeProgram program;
    EXPECT_TRUE(program.createFromString(
        "\n #version 310 es\n//#version 310 es\nlayout(local_size_x = 1) in;\nvoid main() {}\n",
        false));
    EXPECT_THAT(sent(), ElementsAre("#version 430\n#define highp\n#define mediump\n#define lowp\n"
                                    "\n \n//\nlayout(local_size_x = 1) in;\nvoid main() {}\n"));
}

TEST_F(Program, PrecisionQualifiersOnDeclarationsVanish) {
    EXPECT_EQ(result_of(writing("half_of(6.0)",
                                "precision highp float;\nuniform lowp sampler2D unused;\n"
                                "mediump float half_of(highp float x) { return x / 2.0; }\n")),
              3.0f);
}

TEST_F(Program, HasNoIdUntilAnObjectIsMadeAndKeepsItThen) {
    tesk::ComputeProgram program;
    EXPECT_EQ(program.getProgramID(), 0u);
    EXPECT_TRUE(program.createProgram());
    const unsigned int id = program.getProgramID();
    EXPECT_NE(id, 0u);
    EXPECT_TRUE(program.createProgram());
    EXPECT_EQ(program.getProgramID(), id);
}

TEST_F(Program, BuildingFromCharactersUsesTheObjectThatThereIs) {
    tesk::ComputeProgram program;
    EXPECT_TRUE(program.createProgram());
    const unsigned int id = program.getProgramID();
    EXPECT_TRUE(program.createFromCharArray(writing("7").c_str(), false));
    EXPECT_EQ(program.getProgramID(), id);
    EXPECT_TRUE(linked(id));
    GLint attached = -1;
    glGetProgramiv(id, GL_ATTACHED_SHADERS, &attached);
    EXPECT_EQ(attached, 0);
}

TEST_F(Program, BuildingFromAStringLeavesTheEarlierObjectWithoutAnOwner) {
    unsigned int first = 0;
    {
        tesk::ComputeProgram program;
        EXPECT_TRUE(program.createFromString(writing("1"), true));
        first = program.getProgramID();
        EXPECT_TRUE(program.createFromString(writing("2"), true));
        EXPECT_NE(program.getProgramID(), first);
    }
    EXPECT_TRUE(glIsProgram(first));
    glDeleteProgram(first);
}

TEST_F(Program, BuildsFromAFile) {
    const std::string source = writing("11");
    const TemporaryFile file(std::vector<unsigned char>(source.begin(), source.end()));
    tesk::ComputeProgram program;
    EXPECT_TRUE(program.createFromFile(file.path(), false));
    const float before = 0.0f;
    tesk::Buffer buffer(4, &before, GL_SHADER_STORAGE_BUFFER);
    EXPECT_EQ(run(program, buffer), 11.0f);
}

TEST_F(Program, AMissingFileIsNamedAndCompilesTheEmptyText) {
    const ReplacedEntryPoint<PFNGLSHADERSOURCEPROC> hook(__glewShaderSource, &record_source);
    driver() = hook.original();
    LogRecorder log;
    tesk::ComputeProgram program;
    EXPECT_FALSE(program.createFromFile("/no/such/shader.comp", true));
    EXPECT_THAT(sent(),
                ElementsAre("#version 430\n#define highp\n#define mediump\n#define lowp\n"));
    const std::vector<std::string> errors = texts(log, Tarno::LogLevel::Error);
    ASSERT_GE(errors.size(), 2u);
    EXPECT_EQ(errors[0], "Failed to load shader file: /no/such/shader.comp");
}

TEST_F(Program, AFolderIsNoSource) {
    LogRecorder log;
    tesk::ComputeProgram program;
    EXPECT_FALSE(program.createFromFile("/", true));
    EXPECT_EQ(texts(log, Tarno::LogLevel::Error).at(0), "Failed to load shader file: /");
}

TEST_F(Program, ACompileFailureIsLoggedWithTheDriversWordsAndNumberedLines) {
    LogRecorder log;
    tesk::ComputeProgram program;
    EXPECT_FALSE(program.createFromCharArray(does_not_compile.c_str(), true));
    ASSERT_EQ(log.lines.size(), 3u);
    EXPECT_EQ(log.lines[0].level, Tarno::LogLevel::Verbose);
    EXPECT_THAT(log.lines[0].text, StartsWith("Shader compile log:\n"));
    const std::string drivers_words = log.lines[0].text.substr(log.lines[0].text.find('\n') + 1);
    EXPECT_FALSE(drivers_words.empty());
    EXPECT_EQ(log.lines[1].level, Tarno::LogLevel::Error);
    EXPECT_THAT(log.lines[1].text, StartsWith(drivers_words));
    EXPECT_THAT(log.lines[1].text, HasSubstr("\n   1  #version 430\n   2  #define highp\n"));
    EXPECT_THAT(log.lines[1].text, HasSubstr("\n   6  void main() { no such words; }\n"));
    EXPECT_EQ(log.lines[2].level, Tarno::LogLevel::Error);
    EXPECT_EQ(log.lines[2].text, "Failed to compile compute shader");
}

TEST_F(Program, ACompileFailureKeepsAnUnlinkedObject) {
    Tarno::SetLogLevel(Tarno::LogLevel::Silent);
    tesk::ComputeProgram program;
    EXPECT_FALSE(program.createFromCharArray(does_not_compile.c_str(), true));
    const unsigned int id = program.getProgramID();
    EXPECT_NE(id, 0u);
    EXPECT_FALSE(linked(id));
    // The same object takes a better source.
    EXPECT_TRUE(program.createFromCharArray(writing("1").c_str(), true));
    EXPECT_EQ(program.getProgramID(), id);
    Tarno::SetLogLevel(Tarno::LogLevel::Info);
}

TEST_F(Program, AStringThatDoesNotCompileIsLoggedAsAFragmentShader) {
    LogRecorder log;
    tesk::ComputeProgram program;
    EXPECT_FALSE(program.createFromString(does_not_compile, true));
    EXPECT_EQ(texts(log, Tarno::LogLevel::Error).back(), "Failed to compile fragment shader");
    EXPECT_NE(program.getProgramID(), 0u);
}

TEST_F(Program, ALinkFailureOfCharactersIsLoggedWithTheSource) {
    LogRecorder log;
    tesk::ComputeProgram program;
    EXPECT_FALSE(program.createFromCharArray(does_not_link.c_str(), true));
    const std::vector<std::string> errors = texts(log, Tarno::LogLevel::Error);
    ASSERT_EQ(errors.size(), 3u);
    EXPECT_THAT(errors[0], StartsWith("Program link log:\n"));
    EXPECT_GT(errors[0].size(), std::string("Program link log:\n").size());
    EXPECT_EQ(errors[1], "error source: " + does_not_link + ".");
    EXPECT_EQ(errors[2],
              "Failed to link program: " + std::to_string(program.getProgramID()) + "\n");
}

TEST_F(Program, ALinkFailureOfAStringIsLoggedWithoutTheSource) {
    LogRecorder log;
    tesk::ComputeProgram program;
    EXPECT_FALSE(program.createFromString(does_not_link, true));
    const std::vector<std::string> errors = texts(log, Tarno::LogLevel::Error);
    ASSERT_EQ(errors.size(), 2u);
    EXPECT_THAT(errors[0], StartsWith("Program link log:\n"));
    EXPECT_EQ(errors[1],
              "Failed to link program: " + std::to_string(program.getProgramID()) + "\n");
}

TEST_F(Program, WarningsOfAProgramThatLinksAreKeptAtVerboseLevel) {
    // A driver that finds the source in its cache does not compile it and has nothing to say, so it
    // is a new one each time.
    const std::string once = "// " + std::to_string(std::random_device()()) + "\n";
    LogRecorder log;
    tesk::ComputeProgram program;
    EXPECT_TRUE(program.createFromString(
        writing("never_set", "float never_set;\n") +
            "float read_first() { float x; return x; }\n" + once,
        true));
    EXPECT_THAT(texts(log, Tarno::LogLevel::Verbose),
                ElementsAre(testing::AllOf(StartsWith("Shader compile log:\n"),
                                           HasSubstr("warning"))));
    EXPECT_THAT(texts(log, Tarno::LogLevel::Error), IsEmpty());
}

TEST_F(Program, KnowsWhetherItsLastBuildEndedWell) {
    Tarno::SetLogLevel(Tarno::LogLevel::Silent);
    tesk::ComputeProgram program;
    EXPECT_FALSE(program.isLinked());
    EXPECT_TRUE(program.createFromCharArray(writing("1").c_str(), true));
    EXPECT_TRUE(program.isLinked());
    EXPECT_FALSE(program.createFromCharArray(does_not_compile.c_str(), true));
    EXPECT_FALSE(program.isLinked());
    Tarno::SetLogLevel(Tarno::LogLevel::Info);
}

TEST_F(Program, ANullSourceIsTheEmptyText) {
    Tarno::SetLogLevel(Tarno::LogLevel::Silent);
    tesk::ComputeProgram program;
    EXPECT_FALSE(program.createFromCharArray(nullptr, true));
    Tarno::SetLogLevel(Tarno::LogLevel::Info);
}

GLuint GLAPIENTRY no_program() {
    return 0;
}

TEST_F(Program, ADriverWithoutAnObjectIsAnAssertionAndAFailure) {
    const ReplacedEntryPoint<PFNGLCREATEPROGRAMPROC> hook(__glewCreateProgram, &no_program);
    const AssertRecorder assertions;
    tesk::ComputeProgram program;
    EXPECT_FALSE(program.createProgram());
    EXPECT_FALSE(program.createFromCharArray(writing("1").c_str(), true));
    EXPECT_FALSE(program.createFromString(writing("1"), true));
    EXPECT_EQ(assertions.count("program != 0"), 3u);
    EXPECT_EQ(assertions.last().source, "compute_program");
}

TEST_F(Program, UniformsReachTheProgramInUse) {
    tesk::ComputeProgram program;
    EXPECT_TRUE(program.createFromString(
        writing("float(a) + b + c[0] * 10.0 + c[1] * 100.0 + c[2] * 1000.0",
                "uniform int a; uniform float b; uniform float c[3];\n"),
        true));
    const float before = 0.0f;
    tesk::Buffer buffer(4, &before, GL_SHADER_STORAGE_BUFFER);
    program.use();
    program.setUniform1i("a", 3);
    program.setUniform1f("b", 0.5f);
    float weights[] = {1.0f, 2.0f, 4.0f};
    program.setUniform1fv("c", weights, 3);
    EXPECT_EQ(run(program, buffer), 4213.5f);
}

TEST_F(Program, AUniformThatTheProgramLacksIsIgnored) {
    tesk::ComputeProgram program;
    EXPECT_TRUE(program.createFromString(writing("1"), true));
    program.use();
    LogRecorder log;
    float weights[] = {1.0f};
    program.setUniform1i("none", 3);
    program.setUniform1f("none", 3.0f);
    program.setUniform1fv("none", weights, 1);
    EXPECT_THAT(log.lines, IsEmpty());
    EXPECT_EQ(program.status(), GLenum{GL_NO_ERROR});
}

TEST_F(Program, SamplersReadTheImageOfTheirUnit) {
    tesk::ComputeProgram program;
    EXPECT_TRUE(program.createFromString(
        writing("texelFetch(plain, ivec2(1, 0), 0).g + texelFetch(layers, ivec3(0, 1, 1), 0).r + "
                "texelFetch(raw, ivec2(0, 0), 0).r",
                "uniform lowp sampler2D plain; uniform lowp sampler2DArray layers; "
                "uniform lowp sampler2D raw;\n"),
        true));
    testing_support::Tensor few(2, 1, 2), many(5, 2, 1), one(1, 1, 1, 32.0);
    few.at(1, 0, 1) = 1.0;
    many.at(4, 1, 0) = 8.0;
    const auto plain = upload(few);
    const auto layers = upload(many);
    const auto raw = upload(one);
    program.use();
    program.setUnifromTexture("plain", 0, *plain);
    EXPECT_EQ(integer(GL_ACTIVE_TEXTURE), GL_TEXTURE0);
    EXPECT_EQ(integer(GL_TEXTURE_BINDING_2D), static_cast<GLint>(plain->textureId()));
    program.setUnifromTexture("layers", 3, *layers);
    EXPECT_EQ(integer(GL_ACTIVE_TEXTURE), GL_TEXTURE3);
    EXPECT_EQ(integer(GL_TEXTURE_BINDING_2D_ARRAY), static_cast<GLint>(layers->textureId()));
    program.setUnifromTextureWithTexID("raw", 2, raw->textureId());
    EXPECT_EQ(integer(GL_ACTIVE_TEXTURE), GL_TEXTURE2);
    EXPECT_EQ(integer(GL_TEXTURE_BINDING_2D), static_cast<GLint>(raw->textureId()));
    const float before = 0.0f;
    tesk::Buffer buffer(4, &before, GL_SHADER_STORAGE_BUFFER);
    EXPECT_EQ(run(program, buffer), 41.0f);
}

TEST_F(Program, ASamplerTakesATextureForAnImageThatHasNone) {
    tesk::ComputeProgram program;
    EXPECT_TRUE(program.createFromString(
        writing("texelFetch(plain, ivec2(0, 0), 0).r", "uniform lowp sampler2D plain;\n"), true));
    const auto image = make_image(1, 2, 2);
    program.use();
    program.setUnifromTexture("plain", 1, *image);
    EXPECT_NE(image->textureId(), 0u);
    EXPECT_EQ(integer(GL_TEXTURE_BINDING_2D), static_cast<GLint>(image->textureId()));
}

TEST_F(Program, AnImageOfOneSliceIsBoundPlainAndOfMoreLayered) {
    tesk::ComputeProgram program;
    const auto four = make_image(4, 2, 2);
    const auto five = make_image(5, 2, 2);
    const auto bytes = make_image(3, 2, 2, GL_RGBA8);
    program.bindImage(1, GL_WRITE_ONLY, *four);
    program.bindImage(2, GL_READ_ONLY, *five);
    program.bindImage(3, GL_READ_WRITE, *bytes);
    EXPECT_EQ(integer(GL_IMAGE_BINDING_LAYERED, 1), GL_FALSE);
    EXPECT_EQ(integer(GL_IMAGE_BINDING_NAME, 1), static_cast<GLint>(four->textureId()));
    EXPECT_EQ(integer(GL_IMAGE_BINDING_ACCESS, 1), GL_WRITE_ONLY);
    EXPECT_EQ(integer(GL_IMAGE_BINDING_FORMAT, 1), GL_RGBA16F);
    EXPECT_EQ(integer(GL_IMAGE_BINDING_LEVEL, 1), 0);
    EXPECT_EQ(integer(GL_IMAGE_BINDING_LAYERED, 2), GL_TRUE);
    EXPECT_EQ(integer(GL_IMAGE_BINDING_NAME, 2), static_cast<GLint>(five->textureId()));
    EXPECT_EQ(integer(GL_IMAGE_BINDING_ACCESS, 2), GL_READ_ONLY);
    EXPECT_EQ(integer(GL_IMAGE_BINDING_LAYER, 2), 0);
    EXPECT_EQ(integer(GL_IMAGE_BINDING_FORMAT, 3), GL_RGBA8);
    EXPECT_EQ(integer(GL_IMAGE_BINDING_LAYERED, 3), GL_FALSE);
}

TEST_F(Program, ATextureIsBoundWithTheValuesGiven) {
    tesk::ComputeProgram program;
    const auto image = make_image(12, 2, 2);
    program.bindImageTexture(4, image->texture(), GL_FALSE, 2, GL_READ_WRITE, GL_RGBA16F);
    EXPECT_EQ(integer(GL_IMAGE_BINDING_NAME, 4), static_cast<GLint>(image->textureId()));
    EXPECT_EQ(integer(GL_IMAGE_BINDING_LAYERED, 4), GL_FALSE);
    EXPECT_EQ(integer(GL_IMAGE_BINDING_LAYER, 4), 2);
    EXPECT_EQ(integer(GL_IMAGE_BINDING_LEVEL, 4), 0);
    EXPECT_EQ(integer(GL_IMAGE_BINDING_ACCESS, 4), GL_READ_WRITE);
}

TEST_F(Program, BuffersAreBoundToTheirTargets) {
    tesk::ComputeProgram program;
    const std::vector<float> content(256, 1.0f);
    tesk::Buffer storage(1024, content.data(), GL_SHADER_STORAGE_BUFFER);
    tesk::Buffer uniform(1024, content.data(), GL_UNIFORM_BUFFER);
    const GLint storage_id = static_cast<GLint>(storage.bufferId());
    const GLint uniform_id = static_cast<GLint>(uniform.bufferId());

    program.bindBuffer(1, storage);
    EXPECT_EQ(integer(GL_SHADER_STORAGE_BUFFER_BINDING, 1), storage_id);
    program.bindBuffer(2, uniform);
    EXPECT_EQ(integer(GL_UNIFORM_BUFFER_BINDING, 2), uniform_id);
    program.bindBuffer(3, storage.bufferId(), GL_UNIFORM_BUFFER);
    EXPECT_EQ(integer(GL_UNIFORM_BUFFER_BINDING, 3), storage_id);

    program.bindBufferRange(4, storage, 256, 64);
    EXPECT_EQ(integer(GL_SHADER_STORAGE_BUFFER_BINDING, 4), storage_id);
    EXPECT_EQ(integer(GL_SHADER_STORAGE_BUFFER_START, 4), 256);
    EXPECT_EQ(integer(GL_SHADER_STORAGE_BUFFER_SIZE, 4), 64);
    program.bindBufferRange_with_bufferID(5, uniform.bufferId(), 512, 128);
    EXPECT_EQ(integer(GL_SHADER_STORAGE_BUFFER_BINDING, 5), uniform_id);
    EXPECT_EQ(integer(GL_SHADER_STORAGE_BUFFER_START, 5), 512);
    EXPECT_EQ(integer(GL_SHADER_STORAGE_BUFFER_SIZE, 5), 128);

    // The name is not looked at, and the buffer's own target neither.
    program.bindUniformBlockIdx("no such block", storage, 6);
    EXPECT_EQ(integer(GL_UNIFORM_BUFFER_BINDING, 6), storage_id);
}

struct Dispatch {
    std::vector<std::string> calls;
    PFNGLDISPATCHCOMPUTEPROC dispatch = nullptr;
    PFNGLMEMORYBARRIERPROC barrier = nullptr;
};
Dispatch& dispatch() {
    static Dispatch instance;
    return instance;
}

void GLAPIENTRY record_dispatch(GLuint x, GLuint y, GLuint z) {
    dispatch().calls.push_back("dispatch " + std::to_string(x) + " " + std::to_string(y) + " " +
                               std::to_string(z));
    dispatch().dispatch(x, y, z);
}
void GLAPIENTRY record_barrier(GLbitfield bits) {
    dispatch().calls.push_back(bits == GL_ALL_BARRIER_BITS ? "barrier all" : "barrier some");
    dispatch().barrier(bits);
}

TEST_F(Program, EveryDispatchIsFollowedByABarrierOverAllMemory) {
    const ReplacedEntryPoint<PFNGLDISPATCHCOMPUTEPROC> first(__glewDispatchCompute,
                                                             &record_dispatch);
    const ReplacedEntryPoint<PFNGLMEMORYBARRIERPROC> second(__glewMemoryBarrier, &record_barrier);
    dispatch() = {{}, first.original(), second.original()};
    tesk::ComputeProgram program;
    EXPECT_TRUE(program.createFromString(writing("result[0] + 1.0"), true));
    // The first program of a thread tries out how the driver stores halves.
    dispatch().calls.clear();
    const float before = 0.0f;
    tesk::Buffer buffer(4, &before, GL_SHADER_STORAGE_BUFFER);
    program.use();
    program.bindBuffer(0, buffer);
    program.compute(1, 1, 1);
    program.compute(1, 1, 1);
    EXPECT_THAT(dispatch().calls, ElementsAre("dispatch 1 1 1", "barrier all", "dispatch 1 1 1",
                                              "barrier all"));
    EXPECT_EQ(content(buffer), 2.0f);
}

TEST_F(Program, TheGroupsOfADispatchAreCountedAlongThreeAxes) {
    tesk::ComputeProgram program;
    EXPECT_TRUE(program.createFromString(
        "#version 310 es\nlayout(local_size_x = 1) in;\n"
        "layout(std430, binding = 0) buffer Result { uint result[]; };\n"
        "void main() { atomicAdd(result[0], 1u + 100u * gl_WorkGroupID.x + "
        "10000u * gl_WorkGroupID.y + 1000000u * gl_WorkGroupID.z); }\n",
        true));
    const unsigned int before = 0;
    tesk::Buffer buffer(4, &before, GL_SHADER_STORAGE_BUFFER);
    program.use();
    program.bindBuffer(0, buffer);
    program.compute(4, 3, 2);
    unsigned int sum = 0;
    buffer.getBufferData(4, reinterpret_cast<char*>(&sum), GL_SHADER_STORAGE_BUFFER);
    // 24 groups; the sum of the ids along each axis is count * (n - 1) / 2.
    EXPECT_EQ(sum, 24u + 100u * 36u + 10000u * 24u + 1000000u * 12u);
}

TEST_F(Program, StatusIsTheOldestErrorAndTakesIt) {
    tesk::ComputeProgram program;
    glBindTexture(GL_TEXTURE_2D + 1, 0);
    EXPECT_EQ(program.status(), GLenum{GL_INVALID_ENUM});
    EXPECT_EQ(program.status(), GLenum{GL_NO_ERROR});
}

TEST_F(Program, AProgramWithoutCodeDispatchesNothingAndLeavesAnError) {
    Tarno::SetLogLevel(Tarno::LogLevel::Silent);
    tesk::ComputeProgram program;
    program.createFromString(does_not_compile, true);
    Tarno::SetLogLevel(Tarno::LogLevel::Info);
    glUseProgram(0);
    program.use();
    EXPECT_EQ(take_gl_error(), GLenum{GL_INVALID_OPERATION});
    program.compute(1, 1, 1);
    EXPECT_EQ(take_gl_error(), GLenum{GL_INVALID_OPERATION});
}

TEST_F(Program, ADyingProgramUnbindsProgramAndFramebuffer) {
    GLuint framebuffer = 0;
    glGenFramebuffers(1, &framebuffer);
    unsigned int id = 0;
    {
        tesk::ComputeProgram other;
        EXPECT_TRUE(other.createFromString(writing("1"), true));
        {
            tesk::ComputeProgram program;
            EXPECT_TRUE(program.createFromString(writing("1"), true));
            id = program.getProgramID();
            other.use();
            glBindFramebuffer(GL_FRAMEBUFFER, framebuffer);
            glActiveTexture(GL_TEXTURE5);
        }
        EXPECT_FALSE(glIsProgram(id));
        EXPECT_EQ(integer(GL_CURRENT_PROGRAM), 0);
        EXPECT_EQ(integer(GL_FRAMEBUFFER_BINDING), 0);
        EXPECT_EQ(integer(GL_ACTIVE_TEXTURE), GL_TEXTURE0);
    }
    glDeleteFramebuffers(1, &framebuffer);
}

TEST_F(Program, ACopyHoldsTheSameObject) {
    tesk::ComputeProgram program;
    EXPECT_TRUE(program.createFromString(writing("1"), true));
    const unsigned int id = program.getProgramID();
    {
        tesk::ComputeProgram copy = program;
        EXPECT_EQ(copy.getProgramID(), id);
    }
    EXPECT_FALSE(glIsProgram(id));
    // Its destructor would delete a name that is gone, which is an error for GL.
    program = tesk::ComputeProgram();
}

TEST_F(Program, AnOutputTakenBehindASamplerLeavesTheSamplerAlone) {
    tesk::ComputeProgram program;
    EXPECT_TRUE(program.createFromString(
        "#version 310 es\nlayout(local_size_x = 1) in;\nuniform lowp sampler2D src;\n"
        "layout(rgba16f, binding = 1) writeonly uniform lowp image2D dst;\n"
        "void main() { imageStore(dst, ivec2(0), texelFetch(src, ivec2(0), 0)); }\n",
        true));
    const auto input = upload(testing_support::Tensor(1, 1, 1, 5.0));
    const auto output = make_image(1, 1, 1);
    program.use();
    program.setUnifromTexture("src", 0, *input);
    program.bindImage(1, GL_WRITE_ONLY, *output);
    program.compute(1, 1, 1);
    EXPECT_EQ(read_back(*output).at(0, 0, 0), 5.0);
}

}  // namespace
