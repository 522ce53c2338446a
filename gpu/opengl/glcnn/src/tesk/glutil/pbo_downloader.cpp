#include "pbo_downloader.h"

#include <climits>
#include <cstring>
#include <new>

#include "gl.h"
#include "platform/tn_core.h"

namespace tesk {
namespace {

int components_of(unsigned int format) {
    switch (format) {
        case GL_RED:
        case GL_GREEN:
        case GL_BLUE: return 1;
        case GL_RGB: return 3;
        case GL_RGBA: return 4;
        default: return 0;
    }
}

/// Rows padded to at most four bytes, for the length of a scope: the frame has room for no more.
class PaddedRows {
public:
    PaddedRows() {
        glGetIntegerv(GL_PACK_ALIGNMENT, &before);
        if (before > 4) glPixelStorei(GL_PACK_ALIGNMENT, 4);
    }
    ~PaddedRows() {
        if (before > 4) glPixelStorei(GL_PACK_ALIGNMENT, before);
    }
    PaddedRows(const PaddedRows&) = delete;
    PaddedRows& operator=(const PaddedRows&) = delete;

private:
    GLint before = 4;
};

}  // namespace

PboDownloader::PboDownloader() : pixel_type(GL_UNSIGNED_BYTE) {}

PboDownloader::~PboDownloader() {
    delete[] pixels;
    if (framebuffer != 0) glDeleteFramebuffers(1, &framebuffer);
    if (pbos != nullptr) {
        glDeleteBuffers(pbo_count, pbos);
        delete[] pbos;
    }
}

int PboDownloader::init(unsigned int format, unsigned int type, int width, int height, int count) {
    if (pbos != nullptr) {
        Tarno::_LogError("Tarno",
                         "Already initialized. Not necessary to initialize again; or shutdown first.");
        return -1;
    }
    if (count > 10) {
        Tarno::_LogError("Tarno",
                         "Asked to create more then 10 buffers; that is probaly a bit too much.");
    }
    pixel_format = format;
    pixel_type = type;
    frame_width = width;
    frame_height = height;
    pbo_count = count;

    // An earlier call may have left a frame of another size.
    delete[] pixels;
    pixels = nullptr;
    const int components = components_of(format);
    if (components == 0) {
        Tarno::_LogError("Tarno", "Unhandled pixel format, use GL_R, GL_RG, GL_RGB or GL_RGBA.");
        return -3;
    }
    if (width < 1 || height < 1) {
        Tarno::_LogError("Tarno", "Invalid width or height given: %d x %d", width, height);
        return -4;
    }
    if (width <= INT_MAX / 4 / components / height) {
        byte_size = width * height * components * 4;
        pixels = new (std::nothrow) unsigned char[static_cast<size_t>(byte_size)];
    }
    if (pixels == nullptr) {
        Tarno::_LogError("Tarno", "Cannot allocate pixel buffer.");
        return -5;
    }
    std::memset(pixels, 0, static_cast<size_t>(byte_size));
    if (count < 1) {
        Tarno::_LogError("Tarno", "Invalid number of PBOs: %d", count);
        return -2;
    }
    pbos = new (std::nothrow) unsigned int[static_cast<size_t>(count)]();
    if (pbos == nullptr || !entryPointsLoaded()) {
        Tarno::_LogError("Tarno", "Cannot allocate pbos.");
        delete[] pbos;
        pbos = nullptr;
        return -3;
    }
    checkSupported();
    glGenBuffers(count, pbos);
    for (int i = 0; i < count; ++i) {
        glBindBuffer(GL_PIXEL_PACK_BUFFER, pbos[i]);
        glBufferData(GL_PIXEL_PACK_BUFFER, byte_size, nullptr, GL_STREAM_READ);
    }
    glBindBuffer(GL_PIXEL_PACK_BUFFER, 0);
    return 0;
}

bool PboDownloader::download() {
    if (pixels == nullptr || !entryPointsLoaded()) return false;
    const PaddedRows rows;
    if (!supported || pbo_count == 0) {
        glBindBuffer(GL_PIXEL_PACK_BUFFER, 0);
        glReadPixels(0, 0, frame_width, frame_height, pixel_format, pixel_type, pixels);
        return true;
    }
    bool fetched = false;
    const unsigned int ring_size = static_cast<unsigned int>(pbo_count);
    glBindBuffer(GL_PIXEL_PACK_BUFFER, pbos[ring_position]);
    if (download_count >= ring_size) {
        const void* const frame =
            glMapBufferRange(GL_PIXEL_PACK_BUFFER, 0, byte_size, GL_MAP_READ_BIT);
        if (frame != nullptr) {
            std::memcpy(pixels, frame, static_cast<size_t>(byte_size));
            glUnmapBuffer(GL_PIXEL_PACK_BUFFER);
            fetched = true;
        } else {
            Tarno::_LogError("Tarno", "Failed to map the buffer");
        }
    }
    glReadPixels(0, 0, frame_width, frame_height, pixel_format, pixel_type, nullptr);
    ring_position = (ring_position + 1) % ring_size;
    // A wrap of the counter keeps the ring full.
    if (++download_count == 0xFFFFFFFFu) download_count = ring_size;
    glBindBuffer(GL_PIXEL_PACK_BUFFER, 0);
    return fetched;
}

bool PboDownloader::download(unsigned int target, unsigned int texture, int layer) {
    if (pixels == nullptr || !entryPointsLoaded()) return false;
    GLint before = 0;
    glGetIntegerv(GL_FRAMEBUFFER_BINDING, &before);
    bindFbo(target, texture, layer);
    const bool fetched = download();
    glBindFramebuffer(GL_FRAMEBUFFER, static_cast<GLuint>(before));
    return fetched;
}

void PboDownloader::bindFbo(unsigned int target, unsigned int texture, int layer) {
    if (framebuffer == 0) glGenFramebuffers(1, &framebuffer);
    glBindFramebuffer(GL_FRAMEBUFFER, framebuffer);
    if (target == GL_TEXTURE_2D) {
        glFramebufferTexture2D(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D, texture, 0);
    } else {
        glFramebufferTextureLayer(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, texture, 0, layer);
    }
}

bool PboDownloader::checkSupported() {
    supported = true;
    return true;
}

}  // namespace tesk
