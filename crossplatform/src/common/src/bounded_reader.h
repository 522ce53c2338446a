// Reads little-endian numbers from a stream and knows how many bytes are still to come, so that
// nobody takes memory for more than the file holds.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <vector>

/// Reads from where the stream stands. A stream that cannot seek (a pipe) is read to its end into
/// memory at once. The stream stays the caller's.
///
/// Every read is all or nothing: when too few bytes are left it takes none and gives false.
class BoundedReader {
public:
    explicit BoundedReader(FILE* stream);
    BoundedReader(const BoundedReader&) = delete;
    BoundedReader& operator=(const BoundedReader&) = delete;

    /// Bytes that are still to come.
    uint64_t left() const { return bytes_left; }
    /// Distance of the next byte from the start of the stream; from the start of the reading where
    /// the stream does not tell.
    uint64_t offset() const { return start + bytes_read; }

    bool read(unsigned short& value) { return read(&value, 1); }
    bool read(unsigned int& value);
    /// `count` numbers of 16 bits.
    bool read(unsigned short* values, size_t count);

private:
    bool take(void* target, size_t size);

    FILE* stream;
    uint64_t start = 0;
    uint64_t bytes_read = 0;
    uint64_t bytes_left = 0;
    bool from_memory = false;
    std::vector<unsigned char> memory;
};
