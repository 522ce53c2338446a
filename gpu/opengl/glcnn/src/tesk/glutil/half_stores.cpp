#include "half_stores.h"

#include <vector>

#include "gl.h"

namespace tesk {
namespace {

// Three quarters of the way from 1 to the next half.
constexpr const char* probe_source =
    "#version 430\n"
    "layout(local_size_x = 1) in;\n"
    "layout(rgba16f, binding = 0) writeonly uniform image2D dst;\n"
    "void main() { imageStore(dst, ivec2(0), vec4(1.0 + 0.75 / 1024.0)); }\n";

// Half a step more, a little less for an even last bit, and the bits that a half has no room for
// go. Infinities and what is no number stay.
constexpr const char* nearest_half =
    "vec4 tesk_nearest_half(vec4 v) {"
    " uvec4 bits = floatBitsToUint(v);"
    " uvec4 nearest = (bits + 0xfffu + ((bits >> 13) & 1u)) & 0xffffe000u;"
    " return mix(uintBitsToFloat(nearest), v,"
    " equal(bits & 0x7f800000u, uvec4(0x7f800000u))); }\n"
    "#define imageStore(image, place, value)"
    " imageStore(image, place, tesk_nearest_half(value))\n";

bool contains(const std::string& text, const char* word) {
    return text.find(word) != std::string::npos;
}

bool tryOut() {
    GLint program_before = 0;
    GLint texture_before = 0;
    glGetIntegerv(GL_CURRENT_PROGRAM, &program_before);
    glGetIntegerv(GL_TEXTURE_BINDING_2D, &texture_before);
    const GLuint program = glCreateShaderProgramv(GL_COMPUTE_SHADER, 1, &probe_source);
    GLint linked = 0;
    glGetProgramiv(program, GL_LINK_STATUS, &linked);
    GLuint texture = 0;
    glGenTextures(1, &texture);
    glBindTexture(GL_TEXTURE_2D, texture);
    glTexStorage2D(GL_TEXTURE_2D, 1, GL_RGBA16F, 1, 1);
    float stored[4] = {2.0f, 2.0f, 2.0f, 2.0f};
    if (linked != 0) {
        glUseProgram(program);
        glBindImageTexture(0, texture, 0, GL_FALSE, 0, GL_WRITE_ONLY, GL_RGBA16F);
        glDispatchCompute(1, 1, 1);
        glMemoryBarrier(GL_ALL_BARRIER_BITS);
        glGetTexImage(GL_TEXTURE_2D, 0, GL_RGBA, GL_FLOAT, stored);
        glBindImageTexture(0, 0, 0, GL_FALSE, 0, GL_WRITE_ONLY, GL_RGBA16F);
    }
    glBindTexture(GL_TEXTURE_2D, static_cast<GLuint>(texture_before));
    glUseProgram(static_cast<GLuint>(program_before));
    glDeleteTextures(1, &texture);
    glDeleteProgram(program);
    return stored[0] == 1.0f;
}

std::string textOf(GLenum name) {
    const GLubyte* text = glGetString(name);
    return text != nullptr ? reinterpret_cast<const char*>(text) : "";
}

}  // namespace

bool halfStoresCutOff() {
    if (!entryPointsLoaded()) return false;
    // Contexts belong to threads; one thread may have had another driver's before.
    thread_local std::string tried_driver;
    thread_local bool cut_off = false;
    const std::string driver = textOf(GL_RENDERER) + textOf(GL_VERSION);
    if (driver.empty()) return false;
    if (driver != tried_driver) {
        cut_off = tryOut();
        tried_driver = driver;
    }
    return cut_off;
}

std::string withNearestHalfStores(const std::string& text) {
    if (!contains(text, "imageStore") || !contains(text, "rgba16f")) return text;
    for (const char* other : {"rgba32f", "rgba8", "r32f", "r8"}) {
        if (contains(text, other)) return text;
    }
    return nearest_half + text;
}

}  // namespace tesk
