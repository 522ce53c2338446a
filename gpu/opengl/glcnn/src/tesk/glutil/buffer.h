// One GL buffer object, with three ways of bringing its content back.
#pragma once

#include "../types.h"

namespace tesk {

/// By default a shader storage buffer. Needs the context current for everything but field reads and
/// construction without arguments. Targets are GL's, for instance GL_SHADER_STORAGE_BUFFER; sizes
/// are bytes.
class TN_API Buffer {
public:
    Buffer();
    /// `data` may be null: storage without content.
    Buffer(int size, const void* data, unsigned int type);
    Buffer(int size, long stamp, const void* data, unsigned int type);
    /// Ends a transfer in flight and deletes the buffer object. The two pack buffers of the
    /// double-buffered read live on until the context goes.
    ~Buffer();
    Buffer(const Buffer&) = delete;
    Buffer& operator=(const Buffer&) = delete;

    /// Makes the buffer object of a buffer constructed without arguments. One that there was goes
    /// first.
    void create(int size, const void* data, unsigned int type);
    /// Does nothing.
    void reset();
    /// Respecifies the storage. `size()` stays what it was. The data of a fenced transfer in flight
    /// are lost: `getAsyncData` is then false.
    void update(int size, const void* data, unsigned int target);

    /// Blocking read of `size` bytes to `dst`; `dst` is left alone when the buffer cannot be mapped
    /// (`size` beyond it, for instance).
    void getBufferData(int size, char* dst, unsigned int target);
    /// Double-buffered read: starts a copy of the buffer on the GPU and hands back the copy that
    /// the call before started. The first call hands back a copy that was never filled. The flag
    /// has no effect.
    void getBufferData(int size, char* dst, unsigned int target, bool flag);
    /// Rolling read, one call behind: false while nothing has arrived. The caller has bound the
    /// buffer to `target`. What comes is the content at the time of the call; bytes beyond the
    /// buffer, or beyond the size of the call before, come as 0. When the call before could not map
    /// the buffer that is an assertion, and false. False, too, while a fenced transfer is in flight.
    bool getBufferDataAsync(int size, void* dst, unsigned int target);

    /// Starts a fenced transfer; the buffer stays mapped until `getAsyncData` has collected it.
    /// False when an earlier mapping cannot be ended, or when the buffer cannot be mapped (`size` not
    /// above 0, or beyond it): nothing is in flight then, and a line is logged.
    bool asyncGpu2Cpu(int size);
    /// Collects it without waiting: false while it is on its way (ask again), or when none is. Bytes
    /// beyond those that the transfer was started with come as 0. `dst` may be null.
    bool getAsyncData(int size, void* dst);

    /// False while a transfer is in flight.
    bool IsWriteOk() const { return unmap_status == 1; }
    long timeStamp() const { return time_stamp; }
    void updateStamp(long stamp) { time_stamp = stamp; }
    unsigned int bufferId() const { return buffer_id; }
    int size() const { return byte_size; }
    unsigned int type() const { return target_type; }

private:
    void init();
    bool IsReadOk();
    void sizePackBuffers(int size);
    void dispose();
    void endTransfer(unsigned int target);
    bool mapForTransfer(int size, unsigned int target);
    void fence();
    void readCurrent(int size, void* dst, unsigned int target);

    unsigned int target_type;
    int byte_size;
    unsigned int buffer_id;
    __GLsync* sync;
    void* mapped_data;
    int unmap_status;  ///< 1: not mapped
    long time_stamp;
    unsigned int pack_buffers[2];
    int pack_index;
    int next_pack_index;
    unsigned int texture_id;  ///< has no use beyond marking the first double-buffered read
    int mapped_size;          ///< bytes behind `mapped_data`
};

}  // namespace tesk
