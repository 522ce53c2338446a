#include "image.h"

#include "gl.h"
#include "platform/tn_core.h"
#include "texture_pool.h"

namespace tesk {
namespace {

GLenum texture_type_of(int channels) {
    return channels < 5 ? GL_TEXTURE_2D : GL_TEXTURE_2D_ARRAY;
}

struct Transfer {
    GLenum format;
    GLenum type;
};

Transfer transfer_of(unsigned int internal_format, bool array, bool half) {
    switch (internal_format) {
        case GL_RGBA8: return {GL_RGBA, GL_UNSIGNED_BYTE};
        case GL_RGB8: return {GL_RGB, GL_UNSIGNED_BYTE};
        case GL_R8:
            // Plain textures alone: an array of this format takes four components like any other.
            if (!array) return {GL_RED, GL_UNSIGNED_BYTE};
            break;
        default: break;
    }
    return {GL_RGBA, static_cast<GLenum>(half ? GL_HALF_FLOAT : GL_FLOAT)};
}

}  // namespace

Image::Image(int height, int width, int channels, unsigned int format, tesk::TexturePool* pool)
    : image_width(width),
      image_height(height),
      image_channels(channels),
      image_format(format),
      texture_type(texture_type_of(channels)),
      pool(pool) {}

Image::Image(tesk::TexturePool* pool) : image_format(GL_RGBA16F), pool(pool) {}

Image::~Image() {
    if (texture_id != 0) releaseTexture();
    if (framebuffer != 0) glDeleteFramebuffers(1, &framebuffer);
}

Image& Image::operator=(const Image& other) {
    // The framebuffer stays: each image has its own.
    texture_id = other.texture_id;
    image_width = other.image_width;
    image_height = other.image_height;
    image_channels = other.image_channels;
    read_count = other.read_count;
    image_format = other.image_format;
    texture_type = other.texture_type;
    pool = other.pool;
    return *this;
}

void Image::resize(int height, int width, int channels) {
    if (texture_id != 0) releaseTexture();
    image_height = height;
    image_width = width;
    image_channels = channels;
    texture_type = texture_type_of(channels);
}

void Image::size(int& height, int& width, int& channels) const {
    height = image_height;
    width = image_width;
    channels = image_channels;
}

unsigned int Image::texture() {
    if (texture_id == 0) acquireTexure();
    return texture_id;
}

void Image::subReadCount() {
    --read_count;
    if (read_count <= 0 && texture_id != 0) releaseTexture();
}

void Image::acquireTexure() {
    if (pool == nullptr) {
        Tarno::_LogError("Tarno", "image: expected a texture pool, found none");
        return;
    }
    texture_id =
        pool->acquireTexture(image_height, image_width, image_channels, texture_type, image_format);
}

void Image::releaseTexture() {
    pool->releaseTexture(texture_id);
}

void Image::update(const char* data, int half) {
    if (data == nullptr) return;
    const bool array = texture_type == GL_TEXTURE_2D_ARRAY;
    if (!array && texture_type != GL_TEXTURE_2D) {
        Tarno::_LogError("Tarno", "Unsupport texuture type!");
        return;
    }
    if (texture() == 0) return;
    const Transfer transfer = transfer_of(image_format, array, half != 0);
    const TightRows rows(GL_UNPACK_ALIGNMENT);
    glBindTexture(texture_type, texture_id);
    if (array) {
        glTexSubImage3D(texture_type, 0, 0, 0, 0, image_width, image_height, slices(),
                        transfer.format, transfer.type, data);
    } else {
        glTexSubImage2D(texture_type, 0, 0, 0, image_width, image_height, transfer.format,
                        transfer.type, data);
    }
}

void Image::copyTexToMemry(char* dst, int slice) {
    if (dst == nullptr) return;
    bindFbo(slice);
    const TightRows rows(GL_PACK_ALIGNMENT);
    glReadPixels(0, 0, image_width, image_height, GL_RGBA, GL_FLOAT, dst);
    unbindFbo();
}

void Image::copyTexToMemry(float* dst, int slice) {
    copyTexToMemry(reinterpret_cast<char*>(dst), slice);
}

void Image::copyTexToMemry_c1(char* dst, int slice) {
    if (dst == nullptr) return;
    bindFbo(slice);
    const TightRows rows(GL_PACK_ALIGNMENT);
    glReadPixels(0, 0, image_width, image_height, GL_RED, GL_UNSIGNED_BYTE, dst);
    unbindFbo();
}

void Image::bindFbo(int slice) {
    if (!entryPointsLoaded()) return;
    if (framebuffer == 0) glGenFramebuffers(1, &framebuffer);
    glBindFramebuffer(GL_FRAMEBUFFER, framebuffer);
    if (texture_type == GL_TEXTURE_2D_ARRAY) {
        glFramebufferTextureLayer(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, texture_id, 0, slice);
    } else {
        glFramebufferTexture2D(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D, texture_id, 0);
    }
}

void Image::unbindFbo() {
    if (entryPointsLoaded()) glBindFramebuffer(GL_FRAMEBUFFER, 0);
}

}  // namespace tesk
