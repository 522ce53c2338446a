#include "crossplatform/src/common/src/bounded_reader.h"

#include <cstring>

#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ != __ORDER_LITTLE_ENDIAN__
#error "Numbers are copied from the file as they stand: the host has to be little-endian."
#endif
static_assert(sizeof(unsigned short) == 2 && sizeof(unsigned int) == 4, "numbers of the file");

namespace {

// Bytes from the current position to the end, false when the stream cannot tell. The position is
// the same afterwards.
bool bytes_to_end(FILE* stream, uint64_t& start, uint64_t& left) {
    const long position = std::ftell(stream);
    if (position < 0) return false;
    if (std::fseek(stream, 0, SEEK_END) != 0) return false;
    const long end = std::ftell(stream);
    if (std::fseek(stream, position, SEEK_SET) != 0) return false;
    if (end < position) return false;
    start = static_cast<uint64_t>(position);
    left = static_cast<uint64_t>(end) - start;
    return true;
}

}  // namespace

BoundedReader::BoundedReader(FILE* stream) : stream(stream) {
    if (bytes_to_end(stream, start, bytes_left)) return;
    from_memory = true;
    unsigned char chunk[65536];
    size_t size = 0;
    while ((size = std::fread(chunk, 1, sizeof(chunk), stream)) != 0) {
        memory.insert(memory.end(), chunk, chunk + size);
    }
    bytes_left = memory.size();
}

bool BoundedReader::take(void* target, size_t size) {
    if (size > bytes_left) return false;
    if (size == 0) return true;
    if (from_memory) {
        std::memcpy(target, memory.data() + bytes_read, size);
    } else if (std::fread(target, 1, size, stream) != size) {
        // A read error, or a file that shrinks under the reader's eyes: nothing more will come.
        bytes_left = 0;
        return false;
    }
    bytes_read += size;
    bytes_left -= size;
    return true;
}

bool BoundedReader::read(unsigned int& value) {
    return take(&value, sizeof(value));
}

bool BoundedReader::read(unsigned short* values, size_t count) {
    if (count > bytes_left / sizeof(unsigned short)) return false;
    return take(values, count * sizeof(unsigned short));
}
