// Pictures in and out, and resizing of float maps.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace tool {

/// Rows of interleaved 8-bit pixels without gaps.
struct Picture {
    int w = 0;
    int h = 0;
    int channels = 0;  ///< 1 grey, 3 RGB, 4 RGBA
    std::vector<unsigned char> pixels;
};

/// A picture of more pixels than this is refused, whatever its file.
constexpr int64_t most_picture_pixels = int64_t{1} << 27;

/// What a file says about itself.
struct PictureInfo {
    int w = 0;
    int h = 0;
    int channels = 0;  ///< as in the file, 1 to 4
};

/// Size of a PNG or JPEG. Throws CommandError for what is neither, and for sizes beyond reason.
PictureInfo picture_info(const std::string& path);

/// Decodes a PNG or JPEG. `wanted_channels` 1, 3 or 4; alpha is dropped or added as opaque.
/// Samples of 16 bits come down to 8.
Picture read_picture(const std::string& path, int wanted_channels);

/// The bytes of a PNG file.
std::string png_bytes(const Picture& picture);

/// c planes of floats, one after the other.
struct FloatMap {
    int c = 0;
    int h = 0;
    int w = 0;
    std::vector<float> values;
};

/// Bilinear between pixel centres; positions outside the centres of the border take the border.
FloatMap resize_bilinear(const FloatMap& map, int w, int h);

/// 0 to 1 as 0 to 255, rounded to nearest, clamped; NaN is 0. One channel gives a grey picture,
/// three give RGB. Only for those.
Picture picture_of(const FloatMap& map);

}  // namespace tool
