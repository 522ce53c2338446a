#include "texture_pool.h"

#include <algorithm>

#include "gl.h"
#include "platform/tn_core.h"

namespace tesk {
namespace {

int bytes_per_texel(unsigned int format) {
    switch (format) {
        case GL_R8: return 1;
        case GL_RGB8: return 3;
        case GL_RGBA8: return 4;
        case GL_RGBA32F: return 16;
        default: return 8;
    }
}

int slice_count(int channels) {
    return channels / 4 + (channels % 4 > 0 ? 1 : 0);
}

}  // namespace

TexturePool::TexturePool(int value) : value(value) {}

TexturePool::TexturePool(tesk::TexturePool&) : value(0) {}

TexturePool::~TexturePool() = default;

unsigned int TexturePool::acquireTexture(int height, int width, int channels, unsigned int type,
                                         unsigned int format) {
    const size_t fit = findFitTexture(height, width, channels, type, format);
    if (fit < textures.size()) {
        textures[fit].in_use = true;
        return textures[fit].id;
    }
    if (height < 1 || width < 1 || channels < 1) {
        Tarno::_LogError("Tarno",
                         "texture: expected a size above 0, found %d x %d x %d (height, width, "
                         "channels)",
                         height, width, channels);
        return 0;
    }
    if (!entryPointsLoaded()) {
        Tarno::_LogError("Tarno", "texture: expected a context of tesk_Init, found none");
        return 0;
    }
    _Texture entry;
    const unsigned int id = createTexture(entry, height, width, channels, format);
    if (id != 0) textures.push_back(entry);
    return id;
}

void TexturePool::releaseTexture(unsigned int& id) {
    const size_t index = findTexture(id);
    if (index == textures.size()) return;
    textures[index].in_use = false;
    id = 0;
}

void TexturePool::release() {
    for (_Texture& texture : textures)
        glDeleteTextures(1, &texture.id);
    textures.clear();
}

void TexturePool::reserve(int count) {
    if (count <= 0) return;
    reserved += static_cast<size_t>(count);
    textures.reserve(reserved);
}

int TexturePool::texturesInUse() const {
    return static_cast<int>(std::count_if(textures.begin(), textures.end(),
                                          [](const _Texture& entry) { return entry.in_use; }));
}

long long TexturePool::textureBytes() const {
    long long bytes = 0;
    for (const _Texture& entry : textures) {
        bytes += static_cast<long long>(entry.height) * entry.width * slice_count(entry.channels) *
                 bytes_per_texel(entry.format);
    }
    return bytes;
}

size_t TexturePool::findFitTexture(int height, int width, int channels, unsigned int type,
                                   unsigned int format) const {
    const auto fits = [=](const _Texture& entry) {
        return entry.height == height && entry.width == width && entry.channels == channels &&
               entry.format == format && entry.type == type && !entry.in_use;
    };
    return static_cast<size_t>(std::find_if(textures.begin(), textures.end(), fits) -
                               textures.begin());
}

size_t TexturePool::findTexture(unsigned int id) const {
    const auto found = std::find_if(textures.begin(), textures.end(),
                                    [id](const _Texture& entry) { return entry.id == id; });
    return static_cast<size_t>(found - textures.begin());
}

unsigned int TexturePool::createTexture(_Texture& entry, int height, int width, int channels,
                                        unsigned int format) {
    const int slices = slice_count(channels);
    entry.type = slices == 1 ? GL_TEXTURE_2D : GL_TEXTURE_2D_ARRAY;
    // A sampler may stand on the active unit already: an output is first taken when it is bound,
    // behind the inputs.
    GLint bound = 0;
    glGetIntegerv(slices == 1 ? GL_TEXTURE_BINDING_2D : GL_TEXTURE_BINDING_2D_ARRAY, &bound);
    unsigned int id = 0;
    glGenTextures(1, &id);
    if (slices == 1) {
        glBindTexture(GL_TEXTURE_2D, id);
        glTexStorage2D(GL_TEXTURE_2D, 1, format, width, height);
    } else {
        glBindTexture(GL_TEXTURE_2D_ARRAY, id);
        glTexStorage3D(GL_TEXTURE_2D_ARRAY, 1, format, width, height, slices);
    }
    const float border[] = {0.0f, 0.0f, 0.0f, 0.0f};
    glTexParameteri(entry.type, GL_TEXTURE_MIN_FILTER, GL_LINEAR);
    glTexParameteri(entry.type, GL_TEXTURE_MAG_FILTER, GL_LINEAR);
    glTexParameteri(entry.type, GL_TEXTURE_WRAP_S, GL_CLAMP_TO_BORDER);
    glTexParameteri(entry.type, GL_TEXTURE_WRAP_T, GL_CLAMP_TO_BORDER);
    glTexParameterfv(entry.type, GL_TEXTURE_BORDER_COLOR, border);
    glBindTexture(entry.type, static_cast<GLuint>(bound));
    entry.height = height;
    entry.width = width;
    entry.channels = channels;
    entry.format = format;
    entry.in_use = true;
    entry.id = id;
    return id;
}

}  // namespace tesk
