// Debug dumps of an image, as text and as raw floats.
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "gl.h"
#include "image.h"
#include "platform/tn_core.h"

namespace tesk {
namespace {

using Write = std::function<void(const char* line)>;

constexpr const char* dashes = "---------------------------------------\n";

std::string channel_line(int slice, int component) {
    char line[32];
    std::snprintf(line, sizeof(line), "channel=%d\n", component + 4 * slice);
    return line;
}

/// One component of one slice.
struct Plane {
    int width;
    int height;
    std::vector<float> values;

    /// 0 outside: an image may have fewer than three rows or columns.
    float at(int x, int y) const {
        if (x < 0 || y < 0 || x >= width || y >= height) return 0.0f;
        return values[static_cast<size_t>(y) * static_cast<size_t>(width) +
                      static_cast<size_t>(x)];
    }
};

void write_row_ends(const Plane& plane, int y, const Write& write) {
    const int w = plane.width;
    char line[384];  // the largest float has 39 digits before the point
    std::snprintf(line, sizeof(line), "%.4f %.4f %.4f | %.4f %.4f %.4f \n", plane.at(0, y),
                  plane.at(1, y), plane.at(2, y), plane.at(w - 3, y), plane.at(w - 2, y),
                  plane.at(w - 1, y));
    write(line);
}

void write_corners(const Plane& plane, int slice, int component, const Write& write) {
    write(channel_line(slice, component).c_str());
    for (int y = 0; y < 3; ++y)
        write_row_ends(plane, y, write);
    write(dashes);
    for (int y = plane.height - 3; y < plane.height; ++y)
        write_row_ends(plane, y, write);
    write("\n");
}

void write_all(const Plane& plane, int slice, int component, const Write& write) {
    write(channel_line(slice, component).c_str());
    for (size_t i = 0; i < plane.values.size(); ++i) {
        char value[64];
        std::snprintf(value, sizeof(value), "%.4f ", plane.values[i]);
        write(value);
        if (i % 10 == 9) write("\n");
    }
    write(dashes);
    write("\n");
}

/// A file that may have failed to open; writes then do nothing.
class File {
public:
    explicit File(const char* path) : file(path != nullptr ? std::fopen(path, "wb") : nullptr) {}
    ~File() {
        if (file != nullptr) std::fclose(file);
    }
    File(const File&) = delete;
    File& operator=(const File&) = delete;

    void write(const void* data, size_t bytes) const {
        if (file != nullptr) std::fwrite(data, 1, bytes, file);
    }
    Write text() const {
        return [this](const char* line) { write(line, std::char_traits<char>::length(line)); };
    }

private:
    std::FILE* file;
};

/// The four planes of interleaved texels.
std::vector<Plane> split(const std::vector<float>& texels, int width, int height) {
    std::vector<Plane> planes(4);
    for (size_t component = 0; component < 4; ++component) {
        planes[component] = {width, height, std::vector<float>(texels.size() / 4)};
        for (size_t i = 0; i < texels.size() / 4; ++i)
            planes[component].values[i] = texels[4 * i + component];
    }
    return planes;
}

size_t pixel_count(int width, int height) {
    return width > 0 && height > 0 ? static_cast<size_t>(width) * static_cast<size_t>(height) : 0;
}

}  // namespace

void Image::printOutput() {
    const Write log = [](const char* line) { Tarno::_LogVerbose("Tarno", "%s ", line); };
    std::vector<float> texels(4 * pixel_count(image_width, image_height));
    for (int slice = 0; slice < slices(); ++slice) {
        copyTexToMemry(texels.data(), slice);
        const std::vector<Plane> planes = split(texels, image_width, image_height);
        for (int component = 0; component < 4; ++component)
            write_corners(planes[static_cast<size_t>(component)], slice, component, log);
    }
}

void Image::saveToBin_onMobilePhone(const char* path) {
    const File file(path);
    std::vector<float> texels(4 * pixel_count(image_width, image_height));
    for (int slice = 0; slice < slices(); ++slice) {
        copyTexToMemry(texels.data(), slice);
        const std::vector<Plane> planes = split(texels, image_width, image_height);
        for (int component = 0; component < 4; ++component)
            write_corners(planes[static_cast<size_t>(component)], slice, component, file.text());
    }
}

void Image::saveToBin(const char* path) {
    const File file(path);
    Plane plane = {image_width, image_height,
                   std::vector<float>(pixel_count(image_width, image_height))};
    for (int slice = 0; slice < slices(); ++slice) {
        for (int component = 0; component < 4; ++component) {
            readComponent(plane.values.data(), slice, component);
            write_corners(plane, slice, component, file.text());
        }
    }
}

void Image::saveToBin_audio(const char* path) {
    const File file(path);
    Plane plane = {image_width, image_height,
                   std::vector<float>(pixel_count(image_width, image_height))};
    for (int slice = 0; slice < slices(); ++slice) {
        for (int component = 0; component < 4; ++component) {
            readComponent(plane.values.data(), slice, component);
            write_all(plane, slice, component, file.text());
        }
    }
}

void Image::saveTo_CHW_Format_bin(const char* path) {
    const File file(path);
    std::vector<float> texels(4 * pixel_count(image_width, image_height));
    for (int slice = 0; slice < slices(); ++slice) {
        copyTexToMemry(texels.data(), slice);
        for (const Plane& plane : split(texels, image_width, image_height))
            file.write(plane.values.data(), plane.values.size() * sizeof(float));
    }
}

void Image::saveToPng(const char*, int) {}

/// GL counts the formats of single components up from GL_RED.
void Image::readComponent(float* dst, int slice, int component) {
    bindFbo(slice);
    const TightRows rows(GL_PACK_ALIGNMENT);
    glReadPixels(0, 0, image_width, image_height, GL_RED + static_cast<GLenum>(component), GL_FLOAT,
                 dst);
    unbindFbo();
}

}  // namespace tesk
