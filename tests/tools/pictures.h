// Pictures for the command: PNG files put together by hand, and a decoder for those it writes.
#pragma once

#include <gtest/gtest.h>
#include <stb/stb_image.h>
#include <stb/stb_image_write.h>

#include <cstdint>
#include <string>
#include <vector>

#include "tools/command.h"

namespace command_test {

/// Interleaved 8-bit pixels.
struct Pixels {
    int w = 0;
    int h = 0;
    int channels = 0;
    std::vector<unsigned char> data;

    unsigned char at(int x, int y, int k) const {
        return data[static_cast<size_t>((y * w + x) * channels + k)];
    }
};

inline std::string big_endian(uint32_t number) {
    std::string text;
    for (int shift = 24; shift >= 0; shift -= 8)
        text += static_cast<char>(number >> shift & 0xff);
    return text;
}

inline std::string png_chunk(const std::string& type, const std::string& data) {
    const std::string body = type + data;
    uint32_t crc = 0xffffffff;
    for (const char c : body) {
        crc ^= static_cast<unsigned char>(c);
        for (int bit = 0; bit < 8; ++bit)
            crc = crc & 1 ? crc >> 1 ^ 0xedb88320u : crc >> 1;
    }
    return big_endian(static_cast<uint32_t>(data.size())) + body + big_endian(~crc);
}

/// The start of a PNG file of 8-bit samples: `channels` 1 grey, 2 grey and alpha, 3 RGB, 4 RGBA.
inline std::string png_start(uint32_t w, uint32_t h, int channels) {
    const char colour_types[] = {0, 0, 4, 2, 6};
    std::string header = big_endian(w) + big_endian(h);
    header += '\x08';
    header += colour_types[channels];
    header += std::string(3, '\0');
    return "\x89PNG\r\n\x1a\n" + png_chunk("IHDR", header);
}

/// A PNG file with stored, not compressed data.
inline std::string png_file(const Pixels& pixels) {
    std::string rows;
    const size_t row = static_cast<size_t>(pixels.w) * pixels.channels;
    for (int y = 0; y < pixels.h; ++y) {
        rows += '\0';
        rows.append(reinterpret_cast<const char*>(pixels.data.data()) + y * row, row);
    }
    std::string stream = "\x78\x01";
    uint32_t a = 1, b = 0;
    for (const char c : rows) {
        a = (a + static_cast<unsigned char>(c)) % 65521;
        b = (b + a) % 65521;
    }
    for (size_t at = 0; at < rows.size(); at += 65535) {
        const size_t size = std::min<size_t>(65535, rows.size() - at);
        stream += at + size == rows.size() ? '\1' : '\0';
        stream += static_cast<char>(size & 0xff);
        stream += static_cast<char>(size >> 8);
        stream += static_cast<char>(~size & 0xff);
        stream += static_cast<char>(~size >> 8 & 0xff);
        stream += rows.substr(at, size);
    }
    stream += big_endian(b << 16 | a);
    return png_start(static_cast<uint32_t>(pixels.w), static_cast<uint32_t>(pixels.h),
                     pixels.channels) +
           png_chunk("IDAT", stream) + png_chunk("IEND", "");
}

/// Every sample from its place: no two neighbours alike, all of 0 to 255 in use.
inline Pixels pattern(int w, int h, int channels) {
    Pixels pixels{w, h, channels, {}};
    for (int y = 0; y < h; ++y) {
        for (int x = 0; x < w; ++x) {
            for (int k = 0; k < channels; ++k) {
                pixels.data.push_back(static_cast<unsigned char>((x * 37 + y * 61 + k * 83) % 256));
            }
        }
    }
    return pixels;
}

inline Pixels plain(int w, int h, const std::vector<int>& colour) {
    Pixels pixels{w, h, static_cast<int>(colour.size()), {}};
    for (int i = 0; i < w * h; ++i) {
        for (const int value : colour)
            pixels.data.push_back(static_cast<unsigned char>(value));
    }
    return pixels;
}

inline std::string jpeg_file(const Pixels& pixels) {
    std::string file;
    stbi_write_jpg_to_func(
        [](void* context, void* data, int size) {
            static_cast<std::string*>(context)->append(static_cast<const char*>(data),
                                                       static_cast<size_t>(size));
        },
        &file, pixels.w, pixels.h, pixels.channels, pixels.data.data(), 95);
    return file;
}

/// Decodes a PNG file with the channels that it has.
inline Pixels read_png(const std::string& path) {
    const std::string file = read_file(path);
    EXPECT_EQ(file.compare(0, 8, "\x89PNG\r\n\x1a\n"), 0) << path;
    Pixels pixels;
    stbi_uc* data = stbi_load_from_memory(reinterpret_cast<const stbi_uc*>(file.data()),
                                          static_cast<int>(file.size()), &pixels.w, &pixels.h,
                                          &pixels.channels, 0);
    if (data == nullptr) {
        ADD_FAILURE() << path << ": " << stbi_failure_reason();
        return pixels;
    }
    pixels.data.assign(data, data + pixels.w * pixels.h * pixels.channels);
    stbi_image_free(data);
    return pixels;
}

}  // namespace command_test
