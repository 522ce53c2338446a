#include "buffer.h"

#include <algorithm>
#include <cstring>

#include "gl.h"
#include "platform/assertion.h"
#include "platform/tn_core.h"
#include "platform/trace_file.h"

namespace tesk {
namespace {

/// The transfers map with these flags although they read through the pointer: it is what keeps the
/// map from waiting for the GPU.
constexpr GLbitfield transfer_access = GL_MAP_WRITE_BIT | GL_MAP_UNSYNCHRONIZED_BIT;

/// `size` bytes, of which the block at `src` has `available`; the others are 0.
void copy_bytes(void* dst, const void* src, int size, int available) {
    const int copied = std::max(0, std::min(size, available));
    if (copied > 0) std::memcpy(dst, src, static_cast<size_t>(copied));
    if (size > copied) {
        std::memset(static_cast<char*>(dst) + copied, 0, static_cast<size_t>(size - copied));
    }
}

}  // namespace

Buffer::Buffer() {
    init();
}

Buffer::Buffer(int size, const void* data, unsigned int type) : Buffer(size, 0, data, type) {}

Buffer::Buffer(int size, long stamp, const void* data, unsigned int type) {
    init();
    time_stamp = stamp;
    create(size, data, type);
}

Buffer::~Buffer() {
    dispose();
}

/// The pack buffers and the texture stay, as documented.
void Buffer::dispose() {
    if (!entryPointsLoaded()) return;
    if (sync != nullptr) {
        if (unmap_status != 1) {
            glBindBuffer(target_type, buffer_id);
            unmap_status = glUnmapBuffer(target_type);
        }
        glDeleteSync(sync);
        sync = nullptr;
        mapped_data = nullptr;
        mapped_size = 0;
    }
    if (buffer_id != 0) glDeleteBuffers(1, &buffer_id);
    buffer_id = 0;
}

void Buffer::init() {
    target_type = GL_SHADER_STORAGE_BUFFER;
    byte_size = 0;
    buffer_id = 0;
    sync = nullptr;
    mapped_data = nullptr;
    unmap_status = 1;
    time_stamp = 0;
    pack_buffers[0] = pack_buffers[1] = 0;
    pack_index = 1;
    next_pack_index = 0;
    texture_id = 0;
    mapped_size = 0;
}

void Buffer::create(int size, const void* data, unsigned int type) {
    dispose();
    byte_size = size;
    target_type = type;
    unmap_status = 1;
    if (!entryPointsLoaded()) return;
    glGenBuffers(1, &buffer_id);
    glBindBuffer(type, buffer_id);
    glBufferData(type, size, data, GL_STREAM_DRAW);
}

void Buffer::reset() {}

void Buffer::update(int size, const void* data, unsigned int target) {
    if (!entryPointsLoaded()) return;
    glBindBuffer(target, buffer_id);
    if (unmap_status != 1) endTransfer(target);
    glBufferData(target, size, data, GL_STREAM_DRAW);
}

/// New storage takes the mapping of a transfer in flight with it: its pointer must not be read any
/// more.
void Buffer::endTransfer(unsigned int target) {
    glUnmapBuffer(target);
    if (sync != nullptr) glDeleteSync(sync);
    sync = nullptr;
    mapped_data = nullptr;
    mapped_size = 0;
    unmap_status = 1;
}

void Buffer::getBufferData(int size, char* dst, unsigned int target) {
    if (dst == nullptr || !entryPointsLoaded()) return;
    glBindBuffer(target, buffer_id);
    const void* const data = glMapBufferRange(target, 0, size, GL_MAP_READ_BIT);
    if (data == nullptr) return;
    std::memcpy(dst, data, static_cast<size_t>(size));
    glUnmapBuffer(target);
}

void Buffer::getBufferData(int size, char* dst, unsigned int target, bool) {
    if (dst == nullptr || !entryPointsLoaded()) return;
    if (texture_id == 0) glGenTextures(1, &texture_id);
    if (pack_buffers[0] == 0) {
        glGenBuffers(2, pack_buffers);
        sizePackBuffers(size);
    } else if (byte_size != size) {
        sizePackBuffers(size);
    }
    byte_size = size;
    pack_index = (pack_index + 1) % 2;
    next_pack_index = (pack_index + 1) % 2;

    glBindBuffer(target, buffer_id);
    glBindBuffer(GL_PIXEL_PACK_BUFFER, pack_buffers[pack_index]);
    glCopyBufferSubData(target, GL_PIXEL_PACK_BUFFER, 0, 0, size);

    glBindBuffer(GL_PIXEL_PACK_BUFFER, pack_buffers[next_pack_index]);
    const void* const data = glMapBufferRange(GL_PIXEL_PACK_BUFFER, 0, size, GL_MAP_READ_BIT);
    if (data != nullptr) {
        std::memcpy(dst, data, static_cast<size_t>(size));
        glUnmapBuffer(GL_PIXEL_PACK_BUFFER);
    }
    Tarno::trace_floats(pack_index == 0 ? "E:\\Compare\\pbo\\pbo1.txt" : "E:\\Compare\\pbo\\pbo2.txt",
                        dst, size / 4);
    glBindBuffer(GL_PIXEL_PACK_BUFFER, 0);
}

void Buffer::sizePackBuffers(int size) {
    for (const unsigned int pack_buffer : pack_buffers) {
        glBindBuffer(GL_PIXEL_PACK_BUFFER, pack_buffer);
        glBufferData(GL_PIXEL_PACK_BUFFER, size, nullptr, GL_STREAM_READ);
    }
    glBindBuffer(GL_PIXEL_PACK_BUFFER, 0);
}

bool Buffer::mapForTransfer(int size, unsigned int target) {
    mapped_data = glMapBufferRange(target, 0, size, transfer_access);
    mapped_size = mapped_data != nullptr ? size : 0;
    return mapped_data != nullptr;
}

/// The polls flush nothing, so that a fence left in the driver's queue might never be signalled.
void Buffer::fence() {
    sync = glFenceSync(GL_SYNC_GPU_COMMANDS_COMPLETE, 0);
    glFlush();
}

bool Buffer::getBufferDataAsync(int size, void* dst, unsigned int target) {
    if (unmap_status != 1 || !entryPointsLoaded()) return false;
    const bool under_way = sync != nullptr;
    bool arrived = false;
    if (under_way) {
        if (!IsReadOk()) return false;
        glDeleteSync(sync);
        glBindBuffer(target, buffer_id);
        TN_ASSERT(mapped_data != nullptr);
        arrived = mapped_data != nullptr;
        if (arrived && dst != nullptr) readCurrent(size, dst, target);
    }
    const bool mapped = mapForTransfer(size, target);
    fence();
    if (mapped) glUnmapBuffer(target);
    return arrived;
}

/// The pointer of the last call was unmapped and only tells that there was a mapping; what stands
/// behind it is read through a mapping of this call.
void Buffer::readCurrent(int size, void* dst, unsigned int target) {
    // The storage may have been respecified since.
    GLint stored = 0;
    glGetBufferParameteriv(target, GL_BUFFER_SIZE, &stored);
    const int available = std::min({size, mapped_size, static_cast<int>(stored)});
    const void* const data =
        available > 0 ? glMapBufferRange(target, 0, available, GL_MAP_READ_BIT) : nullptr;
    copy_bytes(dst, data, size, data != nullptr ? available : 0);
    if (data != nullptr) glUnmapBuffer(target);
}

bool Buffer::asyncGpu2Cpu(int size) {
    if (!entryPointsLoaded()) return false;
    glBindBuffer(target_type, buffer_id);
    if (unmap_status != 1) {
        unmap_status = glUnmapBuffer(target_type);
        if (unmap_status != 1) return false;
    }
    if (sync != nullptr) glDeleteSync(sync);
    sync = nullptr;
    if (!mapForTransfer(size, target_type)) {
        Tarno::_LogError("Tarno", "buffer: expected %d bytes to read back, found %d", size,
                         byte_size);
        return false;
    }
    fence();
    unmap_status = 0;
    return true;
}

bool Buffer::getAsyncData(int size, void* dst) {
    if (!entryPointsLoaded()) return false;
    glBindBuffer(target_type, buffer_id);
    // A fence of the rolling read has no mapping behind it.
    if (sync == nullptr || unmap_status == 1) return false;
    if (!IsReadOk()) {
        Tarno::_LogVerbose("Tarno", "gpu2cpu do not transfer over.");
        return false;
    }
    glDeleteSync(sync);
    sync = nullptr;
    if (mapped_data != nullptr && dst != nullptr) copy_bytes(dst, mapped_data, size, mapped_size);
    mapped_data = nullptr;
    mapped_size = 0;
    unmap_status = glUnmapBuffer(target_type);
    if (unmap_status == 1) return true;
    Tarno::_LogVerbose("Tarno", "getBufferDataAsync unmapbuffer failed");
    return false;
}

bool Buffer::IsReadOk() {
    if (sync == nullptr) return false;
    const GLenum answer = glClientWaitSync(sync, 0, 0);
    return answer == GL_ALREADY_SIGNALED || answer == GL_CONDITION_SATISFIED;
}

}  // namespace tesk
