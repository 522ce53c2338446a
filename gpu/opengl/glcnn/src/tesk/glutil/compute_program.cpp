#include "compute_program.h"

#include <cstdio>
#include <memory>
#include <optional>
#include <vector>

#include "buffer.h"
#include "gl.h"
#include "half_stores.h"
#include "image.h"
#include "platform/assertion.h"
#include "platform/tn_core.h"

namespace tesk {
namespace {

void erase_all(std::string& text, const std::string& words) {
    for (size_t at = text.find(words); at != std::string::npos; at = text.find(words, at)) {
        text.erase(at, words.size());
    }
}

/// From GLSL ES 3.10 to desktop 4.30. Precision qualifiers on declarations stay and vanish through
/// the defines.
std::string rewrite_for_desktop(const char* source) {
    std::string text = source;
    erase_all(text, "#version 310 es");
    erase_all(text, "precision lowp float;");
    erase_all(text, "precision mediump float;");
    erase_all(text, "precision highp float;");
    return text;
}

constexpr const char* desktop_head =
    "#version 430\n#define highp\n#define mediump\n#define lowp\n";

bool compiles(unsigned int shader, const std::string& text) {
    const char* const strings[] = {text.c_str()};
    glShaderSource(shader, 1, strings, nullptr);
    glCompileShader(shader);
    GLint compiled = 0;
    glGetShaderiv(shader, GL_COMPILE_STATUS, &compiled);
    return compiled != 0;
}

/// `source` with a number before each line, as drivers count them.
std::string numbered(const std::string& source) {
    std::string text;
    int line = 1;
    size_t start = 0;
    while (start < source.size()) {
        size_t end = source.find('\n', start);
        if (end == std::string::npos) end = source.size();
        char number[16];
        std::snprintf(number, sizeof(number), "%4d  ", line++);
        text += number + source.substr(start, end - start) + '\n';
        start = end + 1;
    }
    return text;
}

/// What the driver has to say; nothing when it says so.
template <typename GetLength, typename GetText>
std::optional<std::string> info_log(unsigned int object, GetLength get_length, GetText get_text) {
    GLint length = 0;
    get_length(object, GL_INFO_LOG_LENGTH, &length);
    if (length <= 0) return std::nullopt;
    std::vector<char> text(static_cast<size_t>(length) + 1, '\0');
    get_text(object, length, nullptr, text.data());
    return std::string(text.data());
}

}  // namespace

ComputeProgram::ComputeProgram() = default;

ComputeProgram::~ComputeProgram() {
    if (!entryPointsLoaded()) return;
    glActiveTexture(GL_TEXTURE0);
    glBindFramebuffer(GL_FRAMEBUFFER, 0);
    glUseProgram(0);
    glDeleteProgram(program);
    program = 0;
}

bool ComputeProgram::createProgram() {
    if (program == 0 && entryPointsLoaded()) program = glCreateProgram();
    TN_ASSERT(program != 0);
    return program != 0;
}

bool ComputeProgram::createFromCharArray(const char* source, bool) {
    if (!createProgram()) return false;
    return buildFrom(source != nullptr ? source : "", "Failed to compile compute shader", true);
}

bool ComputeProgram::createFromString(const std::string& source, bool) {
    linked = false;
    program = entryPointsLoaded() ? glCreateProgram() : 0;
    TN_ASSERT(program != 0);
    if (program == 0) return false;
    // The words name another kind of shader; log filters know them.
    return buildFrom(source.c_str(), "Failed to compile fragment shader", false);
}

bool ComputeProgram::createFromFile(const std::string& path, bool) {
    return createFromString(readFileToString(path), true);
}

bool ComputeProgram::buildFrom(const char* source, const char* compile_failure, bool log_source) {
    linked = false;
    unsigned int shader = 0;
    if (!compileShader(&shader, GL_COMPUTE_SHADER, source)) {
        Tarno::_LogError("Tarno", "%s", compile_failure);
        return false;
    }
    glAttachShader(program, shader);
    if (linkProgram() == 0) {
        if (log_source) Tarno::_LogError("Tarno", "error source: %s.", source);
        Tarno::_LogError("Tarno", "Failed to link program: %d\n", static_cast<int>(program));
        glDeleteShader(shader);
        return false;
    }
    glDetachShader(program, shader);
    glDeleteShader(shader);
    linked = true;
    return true;
}

bool ComputeProgram::compileShader(unsigned int* shader, unsigned int type, const char* source) {
    const std::string body = rewrite_for_desktop(source);
    const std::string text = desktop_head + body;
    *shader = glCreateShader(type);
    bool compiled = false;
    // Some drivers cut numbers off where they store them as halves. An error that always points the
    // same way adds up from layer to layer: five times the difference to the CPU engine at the end
    // of the shipped model. So the stores round by themselves there; a source that does not compile
    // with that addition is compiled as it stands.
    if (halfStoresCutOff()) {
        const std::string rounding = withNearestHalfStores(body);
        if (rounding != body) compiled = compiles(*shader, desktop_head + rounding);
    }
    if (!compiled) compiled = compiles(*shader, text);

    const std::optional<std::string> log = info_log(*shader, glGetShaderiv, glGetShaderInfoLog);
    if (log) Tarno::_LogVerbose("Tarno", "Shader compile log:\n%s", log->c_str());
    if (!compiled) {
        Tarno::_LogError("Tarno", "%s\n%s", log.value_or("").c_str(),
                         numbered(text).c_str());
        glDeleteShader(*shader);
        return false;
    }
    return true;
}

int ComputeProgram::linkProgram() {
    glLinkProgram(program);
    GLint linked = 0;
    glGetProgramiv(program, GL_LINK_STATUS, &linked);
    if (linked == 0) {
        const std::string log =
            info_log(program, glGetProgramiv, glGetProgramInfoLog).value_or("");
        Tarno::_LogError("Tarno", "Program link log:\n%s", log.c_str());
    }
    return linked;
}

std::string ComputeProgram::readFileToString(const std::string& path) {
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "r"),
                                                               &std::fclose);
    long size = -1;
    if (file != nullptr && std::fseek(file.get(), 0, SEEK_END) == 0) size = std::ftell(file.get());
    // A folder opens, too, and has a size without an end.
    std::string text;
    if (size >= 0 && size < (1L << 30) && std::fseek(file.get(), 0, SEEK_SET) == 0) {
        text.resize(static_cast<size_t>(size));
        text.resize(std::fread(&text[0], 1, text.size(), file.get()));
        return text;
    }
    Tarno::_LogError("Tarno", "Failed to load shader file: %s", path.c_str());
    return "";
}

int ComputeProgram::getUniformLoc(const std::string& name) {
    return glGetUniformLocation(program, name.c_str());
}

void ComputeProgram::use() {
    if (!entryPointsLoaded()) return;
    glUseProgram(program);
}

void ComputeProgram::compute(unsigned int x, unsigned int y, unsigned int z) {
    if (!entryPointsLoaded()) return;
    glDispatchCompute(x, y, z);
    glMemoryBarrier(GL_ALL_BARRIER_BITS);
}

unsigned int ComputeProgram::status() {
    return glGetError();
}

void ComputeProgram::setUniform1i(const std::string& name, int value) {
    if (!entryPointsLoaded()) return;
    glUniform1i(getUniformLoc(name), value);
}

void ComputeProgram::setUniform1f(const std::string& name, float value) {
    if (!entryPointsLoaded()) return;
    glUniform1f(getUniformLoc(name), value);
}

void ComputeProgram::setUniform1fv(const std::string& name, float* values, int count) {
    if (!entryPointsLoaded()) return;
    glUniform1fv(getUniformLoc(name), count, values);
}

void ComputeProgram::setUnifromTexture(const std::string& name, int unit, tesk::Image& image) {
    if (!entryPointsLoaded()) return;
    glUniform1i(getUniformLoc(name), unit);
    glActiveTexture(GL_TEXTURE0 + static_cast<GLenum>(unit));
    glBindTexture(image.textureType(), image.texture());
}

void ComputeProgram::setUnifromTextureWithTexID(const std::string& name, int unit,
                                                unsigned int texture) {
    if (!entryPointsLoaded()) return;
    glUniform1i(getUniformLoc(name), unit);
    glActiveTexture(GL_TEXTURE0 + static_cast<GLenum>(unit));
    glBindTexture(GL_TEXTURE_2D, texture);
}

void ComputeProgram::bindImage(unsigned int unit, unsigned int access, tesk::Image& image) {
    if (!entryPointsLoaded()) return;
    const GLboolean layered = image.textureType() == GL_TEXTURE_2D_ARRAY ? GL_TRUE : GL_FALSE;
    glBindImageTexture(unit, image.texture(), 0, layered, 0, access, image.format());
}

void ComputeProgram::bindImageTexture(unsigned int unit, unsigned int texture,
                                      unsigned char layered, int layer, unsigned int access,
                                      unsigned int format) {
    if (!entryPointsLoaded()) return;
    glBindImageTexture(unit, texture, 0, layered, layer, access, format);
}

void ComputeProgram::bindBuffer(unsigned int unit, tesk::Buffer& buffer) {
    if (!entryPointsLoaded()) return;
    glBindBufferBase(buffer.type(), unit, buffer.bufferId());
}

void ComputeProgram::bindBuffer(unsigned int unit, unsigned int buffer, unsigned int target) {
    if (!entryPointsLoaded()) return;
    glBindBufferBase(target, unit, buffer);
}

void ComputeProgram::bindBufferRange(unsigned int unit, tesk::Buffer& buffer, unsigned int offset,
                                     unsigned int size) {
    if (!entryPointsLoaded()) return;
    glBindBufferRange(buffer.type(), unit, buffer.bufferId(), offset, size);
}

void ComputeProgram::bindBufferRange_with_bufferID(unsigned int unit, unsigned int buffer,
                                                   unsigned int offset, unsigned int size) {
    if (!entryPointsLoaded()) return;
    glBindBufferRange(GL_SHADER_STORAGE_BUFFER, unit, buffer, offset, size);
}

void ComputeProgram::bindUniformBlockIdx(const std::string&, tesk::Buffer& buffer,
                                         unsigned int index) {
    if (!entryPointsLoaded()) return;
    glBindBufferBase(GL_UNIFORM_BUFFER, index, buffer.bufferId());
}

}  // namespace tesk
