#include "composite.h"

#include <tarno/cpu.h>

#include "numbers.h"

namespace tool {

Picture background_of(const std::string& text, int w, int h) {
    Picture background;
    background.w = w;
    background.h = h;
    background.channels = 3;
    const size_t pixels = static_cast<size_t>(w) * static_cast<size_t>(h);
    unsigned char colour[3];
    if (parse_colour(text, colour)) {
        background.pixels.resize(pixels * 3);
        for (size_t i = 0; i < pixels * 3; ++i) background.pixels[i] = colour[i % 3];
        return background;
    }
    const Picture picture = read_picture(text, 3);
    if (picture.w == w && picture.h == h) return picture;
    background.pixels.resize(pixels * 3);
    TarnoCPU::resize_bilinear_c3(picture.pixels.data(), picture.w, picture.h,
                                 background.pixels.data(), w, h);
    return background;
}

Picture composite_of(const Picture& picture, const Picture& background, const FloatMap& mask) {
    const FloatMap alpha = resize_bilinear(mask, picture.w, picture.h);
    Picture result = picture;
    for (size_t i = 0; i < alpha.values.size(); ++i) {
        const float value = alpha.values[i];
        // A NaN fails both comparisons.
        const float a = value >= 1.0f ? 1.0f : value > 0.0f ? value : 0.0f;
        for (size_t k = i * 3; k < i * 3 + 3; ++k) {
            const float mixed = static_cast<float>(picture.pixels[k]) * a +
                                static_cast<float>(background.pixels[k]) * (1.0f - a);
            result.pixels[k] = static_cast<unsigned char>(mixed + 0.5f);
        }
    }
    return result;
}

}  // namespace tool
