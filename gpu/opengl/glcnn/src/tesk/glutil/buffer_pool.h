// Buffers grouped by byte size, for results of several frames in flight.
#pragma once

#include "../types.h"

namespace tesk {

class BufferPoolPrivate;

/// A frame takes a free buffer of its size, writes it on the GPU, starts the transfer, and collects
/// it some frames later together with its time stamp. Nothing here waits for the GPU. Needs the
/// context current, in the destructor too.
class TN_API BufferPool {
public:
    BufferPool();
    ~BufferPool();
    BufferPool(const BufferPool&) = delete;
    BufferPool& operator=(const BufferPool&) = delete;

    /// GL id of a storage buffer of exactly `size` bytes without a transfer in flight, queued with
    /// `stamp`; it stays the pool's. 0 when none could be made; a size not above 0 and a missing
    /// context are logged.
    unsigned int getBuffer(int size, long stamp);
    /// Starts the transfer of the buffer of that size that was handed out last.
    void startAysnBufferLoading(int size);
    /// Collects the oldest buffer of that size into `dst` (`size` bytes) and its stamp into `*stamp`
    /// (may be null). False while it has not arrived; the queue then stays.
    bool finishAysnBufferLoading(int size, void* dst, long* stamp);
    /// Deletes all buffers.
    void release();

private:
    BufferPoolPrivate* tn_d() { return d; }
    const BufferPoolPrivate* tn_d() const { return d; }

    BufferPoolPrivate* d;
};

}  // namespace tesk
