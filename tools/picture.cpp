#include "picture.h"

#include "stb_configuration.h"

#include <stb/stb_image.h>
#include <stb/stb_image_write.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <memory>
#include <string_view>

#include "errors.h"
#include "files.h"
#include "numbers.h"

namespace tool {
namespace {

/// No picture that we take has a larger file.
constexpr int64_t largest_file = int64_t{1} << 30;

/// Deflate makes at most 1032 bytes out of one, and a byte may hold eight pixels. JPEG stays below.
constexpr int64_t most_pixels_of_a_byte = 1032 * 8;

struct FreePixels {
    void operator()(stbi_uc* pixels) const { stbi_image_free(pixels); }
};

const stbi_uc* data_of(const std::string& bytes) {
    return reinterpret_cast<const stbi_uc*>(bytes.data());
}

bool is_jpeg(const std::string& bytes) {
    return bytes.compare(0, 2, "\xff\xd8") == 0;
}

/// Whether the segments of a JPEG lead to its end marker. The decoder fills what a cut file lacks
/// with grey and calls it a success.
bool reaches_end_of_jpeg(const std::string& bytes) {
    const auto at = [&](size_t i) { return static_cast<unsigned char>(bytes[i]); };
    size_t i = 2;
    while (i + 1 < bytes.size()) {
        if (at(i) != 0xff) {
            ++i;  // compressed data, or filling
            continue;
        }
        const unsigned char marker = at(i + 1);
        if (marker == 0xd9) return true;
        const bool alone = marker == 0x00 || marker == 0x01 || (marker >= 0xd0 && marker <= 0xd8);
        if (marker == 0xff) {
            ++i;
        } else if (alone) {
            i += 2;
        } else if (i + 3 < bytes.size()) {
            i += 2 + size_t{256} * at(i + 2) + at(i + 3);
        } else {
            return false;
        }
    }
    return false;
}

PictureInfo info_of(const std::string& path, const std::string& bytes) {
    PictureInfo info;
    const int size = static_cast<int>(bytes.size());
    if (stbi_info_from_memory(data_of(bytes), size, &info.w, &info.h, &info.channels) == 0) {
        throw CommandError(path + ": expected a PNG or JPEG picture, found another file (" +
                           stbi_failure_reason() + ")");
    }
    const int64_t pixels = int64_t{info.w} * info.h;
    const std::string size_text = std::to_string(info.w) + " x " + std::to_string(info.h);
    if (info.w < 1 || info.h < 1 || pixels > most_picture_pixels) {
        throw CommandError(path + ": expected a picture of 1 to " + grouped(most_picture_pixels) +
                           " pixels, found " + size_text);
    }
    if (pixels > most_pixels_of_a_byte * static_cast<int64_t>(bytes.size())) {
        throw CommandError(path + ": expected a picture that " +
                           grouped(static_cast<int64_t>(bytes.size())) + " bytes can hold, found " +
                           size_text + " pixels");
    }
    return info;
}

}  // namespace

PictureInfo picture_info(const std::string& path) {
    return info_of(path, whole_file(path, largest_file));
}

Picture read_picture(const std::string& path, int wanted_channels) {
    const std::string bytes = whole_file(path, largest_file);
    info_of(path, bytes);
    if (is_jpeg(bytes) && !reaches_end_of_jpeg(bytes)) {
        throw CommandError(path + ": expected a whole JPEG picture, found one without its end");
    }
    Picture picture;
    picture.channels = wanted_channels;
    int channels_in_file = 0;
    const std::unique_ptr<stbi_uc, FreePixels> pixels(
        stbi_load_from_memory(data_of(bytes), static_cast<int>(bytes.size()), &picture.w,
                              &picture.h, &channels_in_file, wanted_channels));
    if (!pixels) {
        throw CommandError(path + ": expected a sound PNG or JPEG picture, found a damaged one (" +
                           stbi_failure_reason() + ")");
    }
    const size_t size = static_cast<size_t>(picture.w) * static_cast<size_t>(picture.h) *
                        static_cast<size_t>(wanted_channels);
    picture.pixels.assign(pixels.get(), pixels.get() + size);
    return picture;
}

std::string png_bytes(const Picture& picture) {
    std::string bytes;
    const auto append = [](void* context, void* data, int size) {
        static_cast<std::string*>(context)->append(static_cast<const char*>(data),
                                                   static_cast<size_t>(size));
    };
    if (stbi_write_png_to_func(append, &bytes, picture.w, picture.h, picture.channels,
                               picture.pixels.data(), picture.w * picture.channels) == 0) {
        throw std::bad_alloc();
    }
    return bytes;
}

FloatMap resize_bilinear(const FloatMap& map, int w, int h) {
    struct Tap {
        int first;
        int second;
        float share;  ///< of the second
    };
    const auto taps_of = [](int from, int to) {
        std::vector<Tap> taps(static_cast<size_t>(to));
        for (int i = 0; i < to; ++i) {
            const double centre = (i + 0.5) * from / to - 0.5;
            const double inside = std::clamp(centre, 0.0, static_cast<double>(from - 1));
            const int first = static_cast<int>(inside);
            taps[static_cast<size_t>(i)] = {first, std::min(first + 1, from - 1),
                                            static_cast<float>(inside - first)};
        }
        return taps;
    };
    const std::vector<Tap> columns = taps_of(map.w, w);
    const std::vector<Tap> rows = taps_of(map.h, h);

    FloatMap resized{map.c, h, w, {}};
    resized.values.reserve(static_cast<size_t>(map.c) * static_cast<size_t>(h) *
                           static_cast<size_t>(w));
    for (int q = 0; q < map.c; ++q) {
        const float* plane = map.values.data() + static_cast<int64_t>(q) * map.h * map.w;
        for (const Tap& row : rows) {
            const float* upper = plane + static_cast<int64_t>(row.first) * map.w;
            const float* lower = plane + static_cast<int64_t>(row.second) * map.w;
            for (const Tap& column : columns) {
                const float above = upper[column.first] * (1.0f - column.share) +
                                    upper[column.second] * column.share;
                const float below = lower[column.first] * (1.0f - column.share) +
                                    lower[column.second] * column.share;
                resized.values.push_back(above * (1.0f - row.share) + below * row.share);
            }
        }
    }
    return resized;
}

Picture picture_of(const FloatMap& map) {
    Picture picture;
    picture.w = map.w;
    picture.h = map.h;
    picture.channels = map.c;
    picture.pixels.resize(map.values.size());
    const size_t plane = static_cast<size_t>(map.w) * static_cast<size_t>(map.h);
    for (size_t q = 0; q < static_cast<size_t>(map.c); ++q) {
        for (size_t i = 0; i < plane; ++i) {
            const float value = map.values[q * plane + i] * 255.0f;
            // A NaN fails both comparisons.
            const float clamped = value >= 255.0f ? 255.0f : value > 0.0f ? value : 0.0f;
            picture.pixels[i * static_cast<size_t>(map.c) + q] =
                static_cast<unsigned char>(clamped + 0.5f);
        }
    }
    return picture;
}

}  // namespace tool
