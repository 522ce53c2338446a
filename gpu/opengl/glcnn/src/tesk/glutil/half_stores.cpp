#include "half_stores.h"

#include <algorithm>
#include <iterator>
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
// go. Below 2^-14 halves are 2^-24 apart; from halfway between the largest and 2^16 on numbers
// become infinite. Infinities and what is no number stay.
constexpr const char* nearest_half =
    "vec4 tesk_nearest_half(vec4 v) {"
    " uvec4 bits = floatBitsToUint(v);"
    " uvec4 magnitude = bits & 0x7fffffffu;"
    " uvec4 nearest = (bits + 0xfffu + ((bits >> 13) & 1u)) & 0xffffe000u;"
    " vec4 tiny = roundEven(v * 16777216.0) / 16777216.0;"
    " vec4 infinite = uintBitsToFloat((bits & 0x80000000u) | 0x7f800000u);"
    " vec4 rounded = mix(uintBitsToFloat(nearest), tiny,"
    " lessThan(magnitude, uvec4(0x38800000u)));"
    " rounded = mix(rounded, infinite, greaterThanEqual(magnitude, uvec4(0x477ff000u)));"
    " return mix(rounded, v, greaterThanEqual(magnitude, uvec4(0x7f800000u))); }\n"
    "#define imageStore(image, place, value)"
    " imageStore(image, place, tesk_nearest_half(value))\n";

/// Comments become single spaces, as in the language.
std::string without_comments(const std::string& text) {
    std::string code;
    size_t at = 0;
    while (at < text.size()) {
        if (text.compare(at, 2, "/*") == 0) {
            const size_t end = text.find("*/", at + 2);
            at = end == std::string::npos ? text.size() : end + 2;
            code += ' ';
        } else if (text.compare(at, 2, "//") == 0) {
            // A backslash at its end carries a comment on into the next line.
            do {
                at = text.find('\n', at + 1);
            } while (at != std::string::npos && text[at - 1] == '\\');
            if (at == std::string::npos) at = text.size();
            code += ' ';
        } else {
            code += text[at++];
        }
    }
    return code;
}

bool is_word_character(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
}

/// Names, numbers and keywords whole, everything else but blanks as single characters.
std::vector<std::string> tokens_of(const std::string& code) {
    std::vector<std::string> tokens;
    size_t at = 0;
    while (at < code.size()) {
        const size_t start = at++;
        if (is_word_character(code[start])) {
            while (at < code.size() && is_word_character(code[at])) ++at;
        } else if (code[start] == ' ' || (code[start] >= '\t' && code[start] <= '\r')) {
            continue;
        }
        tokens.push_back(code.substr(start, at - start));
    }
    return tokens;
}

template <size_t count>
bool is_one_of(const std::string& token, const char* const (&words)[count]) {
    return std::find(std::begin(words), std::end(words), token) != std::end(words);
}

constexpr const char* image_kinds[] = {
    "image1D",     "image2D",        "image3D",      "image2DRect",  "imageCube",
    "imageBuffer", "image1DArray",   "image2DArray", "imageCubeArray"};
constexpr const char* other_image_kinds[] = {
    "image2DMS",      "image2DMSArray", "iimage1D",       "iimage2D",       "iimage3D",
    "iimage2DRect",   "iimageCube",     "iimageBuffer",   "iimage1DArray",  "iimage2DArray",
    "iimageCubeArray", "iimage2DMS",    "iimage2DMSArray", "uimage1D",      "uimage2D",
    "uimage3D",       "uimage2DRect",   "uimageCube",     "uimageBuffer",   "uimage1DArray",
    "uimage2DArray",  "uimageCubeArray", "uimage2DMS",    "uimage2DMSArray"};
constexpr const char* other_formats[] = {
    "rgba32f",     "rg32f",   "rg16f",   "r11f_g11f_b10f", "r32f",        "r16f",     "rgba16",
    "rgb10_a2",    "rgba8",   "rg16",    "rg8",            "r16",         "r8",       "rgba16_snorm",
    "rgba8_snorm", "rg16_snorm", "rg8_snorm", "r16_snorm", "r8_snorm",    "rgba32i",  "rgba16i",
    "rgba8i",      "rg32i",   "rg16i",   "rg8i",           "r32i",        "r16i",     "r8i",
    "rgba32ui",    "rgba16ui", "rgb10_a2ui", "rgba8ui",    "rg32ui",      "rg16ui",   "rg8ui",
    "r32ui",       "r16ui",   "r8ui"};

/// Whether the function fits every store of the text, as far as its words tell. What a macro hides
/// counts as not fitting.
bool stores_halves_only(const std::vector<std::string>& tokens) {
    bool stores = false, declares = false;
    bool in_layout = false, half_format = false;  // half_format: in the present declaration
    int depth = 0;                                // of the layout's parentheses
    for (size_t i = 0; i < tokens.size(); ++i) {
        const std::string& token = tokens[i];
        if (token == "#" && i + 1 < tokens.size() && tokens[i + 1] == "extension") return false;
        if (token == "imageStore") stores = true;
        if (token == "layout") {
            in_layout = true;
            depth = 0;
        } else if (in_layout) {
            if (token == "(") ++depth;
            if (token == ")" && --depth <= 0) in_layout = false;
            if (token == "rgba16f") half_format = true;
            if (is_one_of(token, other_formats)) return false;
        } else if (token == ";" || token == "{" || token == "}") {
            half_format = false;
        }
        if (is_one_of(token, other_image_kinds)) return false;
        if (is_one_of(token, image_kinds)) {
            if (!half_format) return false;
            declares = true;
        }
    }
    return stores && declares;
}

/// Puts back what was bound, when the scope ends.
class Bindings {
public:
    Bindings() {
        glGetIntegerv(GL_CURRENT_PROGRAM, &program);
        glGetIntegerv(GL_TEXTURE_BINDING_2D, &texture);
        glGetIntegerv(GL_PIXEL_PACK_BUFFER_BINDING, &pack_buffer);
        glGetIntegeri_v(GL_IMAGE_BINDING_NAME, 0, &image);
        glGetIntegeri_v(GL_IMAGE_BINDING_LEVEL, 0, &level);
        glGetIntegeri_v(GL_IMAGE_BINDING_LAYERED, 0, &layered);
        glGetIntegeri_v(GL_IMAGE_BINDING_LAYER, 0, &layer);
        glGetIntegeri_v(GL_IMAGE_BINDING_ACCESS, 0, &access);
        glGetIntegeri_v(GL_IMAGE_BINDING_FORMAT, 0, &format);
    }
    ~Bindings() {
        glBindImageTexture(0, static_cast<GLuint>(image), level, layered != 0 ? GL_TRUE : GL_FALSE,
                           layer, static_cast<GLenum>(access), static_cast<GLenum>(format));
        glBindBuffer(GL_PIXEL_PACK_BUFFER, static_cast<GLuint>(pack_buffer));
        glBindTexture(GL_TEXTURE_2D, static_cast<GLuint>(texture));
        glUseProgram(static_cast<GLuint>(program));
    }
    Bindings(const Bindings&) = delete;
    Bindings& operator=(const Bindings&) = delete;

private:
    GLint program = 0, texture = 0, pack_buffer = 0;
    GLint image = 0, level = 0, layered = 0, layer = 0;
    GLint access = GL_READ_ONLY, format = GL_R8;
};

std::string textOf(GLenum name) {
    const GLubyte* text = glGetString(name);
    return text != nullptr ? reinterpret_cast<const char*>(text) : "";
}

}  // namespace

bool tryHalfStores() {
    const Bindings before;
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
        glBindBuffer(GL_PIXEL_PACK_BUFFER, 0);
        glGetTexImage(GL_TEXTURE_2D, 0, GL_RGBA, GL_FLOAT, stored);
    }
    // Both live on in their bindings until these change.
    glDeleteTextures(1, &texture);
    glDeleteProgram(program);
    return stored[0] == 1.0f;
}

bool halfStoresCutOff() {
    if (!entryPointsLoaded()) return false;
    // Contexts belong to threads; one thread may have had another driver's before.
    thread_local std::string tried_driver;
    thread_local bool cut_off = false;
    const std::string driver = textOf(GL_RENDERER) + textOf(GL_VERSION);
    if (driver.empty()) return false;
    if (driver != tried_driver) {
        cut_off = tryHalfStores();
        tried_driver = driver;
    }
    return cut_off;
}

std::string withNearestHalfStores(const std::string& text) {
    return stores_halves_only(tokens_of(without_comments(text))) ? nearest_half + text : text;
}

}  // namespace tesk
