#include "buffer_pool.h"

#include <algorithm>
#include <deque>
#include <list>
#include <memory>
#include <vector>

#include "buffer.h"
#include "gl.h"
#include "platform/tn_core.h"

namespace tesk {
namespace {

struct BufferSizeGroup {
    std::vector<std::unique_ptr<Buffer>> buffers;
    std::deque<int> pending;  ///< indices handed out and not yet collected, oldest first
    int size = 0;             ///< bytes of each buffer
};

}  // namespace

class BufferPoolPrivate {
public:
    explicit BufferPoolPrivate(BufferPool* owner) : q(owner) {}

    BufferSizeGroup* find(int size) {
        for (const std::unique_ptr<BufferSizeGroup>& group : groups) {
            if (group->size == size) return group.get();
        }
        return nullptr;
    }
    /// The group, when it has a buffer; else null, and the reason is logged.
    BufferSizeGroup* find_filled(int size) {
        BufferSizeGroup* const group = find(size);
        if (group == nullptr) {
            Tarno::_LogVerbose("Tarno", "no matched bytes buffer pooling");
            return nullptr;
        }
        if (group->buffers.empty()) {
            Tarno::_LogVerbose("Tarno", "The buffer of this size does not existed.");
            return nullptr;
        }
        return group;
    }

    BufferPool* q;
    std::list<std::unique_ptr<BufferSizeGroup>> groups;  ///< in order of first use
};

BufferPool::BufferPool() : d(new BufferPoolPrivate(this)) {}

BufferPool::~BufferPool() {
    release();
    delete d;
}

unsigned int BufferPool::getBuffer(int size, long stamp) try {
    if (size < 1) {
        Tarno::_LogError("Tarno", "buffer: expected a size above 0, found %d", size);
        return 0;
    }
    if (!entryPointsLoaded()) {
        Tarno::_LogError("Tarno", "buffer: expected a context of tesk_Init, found none");
        return 0;
    }
    BufferSizeGroup* group = tn_d()->find(size);
    if (group == nullptr) {
        tn_d()->groups.push_back(std::make_unique<BufferSizeGroup>());
        group = tn_d()->groups.back().get();
        group->size = size;
    }
    const auto free_buffer =
        std::find_if(group->buffers.begin(), group->buffers.end(),
                     [size](const std::unique_ptr<Buffer>& buffer) {
                         return buffer->size() == size && buffer->IsWriteOk();
                     });
    const int index = static_cast<int>(free_buffer - group->buffers.begin());
    if (free_buffer == group->buffers.end()) {
        group->buffers.push_back(
            std::make_unique<Buffer>(size, stamp, nullptr, GL_SHADER_STORAGE_BUFFER));
    } else {
        (*free_buffer)->updateStamp(stamp);
    }
    group->pending.push_back(index);
    return group->buffers[static_cast<size_t>(index)]->bufferId();
} catch (...) {
    return 0;
}

void BufferPool::startAysnBufferLoading(int size) {
    BufferSizeGroup* const group = tn_d()->find_filled(size);
    if (group == nullptr) return;
    const int index = group->pending.empty() ? 0 : group->pending.back();
    group->buffers[static_cast<size_t>(index)]->asyncGpu2Cpu(group->size);
}

bool BufferPool::finishAysnBufferLoading(int size, void* dst, long* stamp) {
    BufferSizeGroup* const group = tn_d()->find_filled(size);
    if (group == nullptr) return false;
    // Nothing was handed out that is not collected yet; buffer 0 may have been started all the same.
    const int index = group->pending.empty() ? 0 : group->pending.front();
    Buffer& buffer = *group->buffers[static_cast<size_t>(index)];
    if (!buffer.getAsyncData(group->size, dst)) return false;
    if (stamp != nullptr) *stamp = buffer.timeStamp();
    if (!group->pending.empty()) group->pending.pop_front();
    return true;
}

void BufferPool::release() {
    tn_d()->groups.clear();
}

}  // namespace tesk
