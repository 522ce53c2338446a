#include "cpu/tn_detectcpu_x86.h"

#include <climits>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "cpu/resize.h"
#include "platform/tn_core.h"

namespace TarnoCPU {
namespace {

// Pixel types of Mat::from_pixels.
constexpr int pixel_rgb = 1;
constexpr int pixel_rgb_swapped = 0x20001;
constexpr int pixel_rgba_to_rgb = 0x10008;
constexpr int pixel_rgba_to_bgr = 0x20008;

bool is_yuv(int format) {
    return format == 1 || format == 8;
}

// 0 for a format that is no four-byte one.
int pixel_type_of(int format) {
    switch (format) {
        case 4:
            return pixel_rgba_to_rgb;
        case 5:
            return pixel_rgba_to_bgr;
        case 10:
            // Three bytes a pixel are read of the four that were written. Kept.
            return pixel_rgb_swapped;
        default:
            return 0;
    }
}

// Makes room for `size` bytes. Buffers only grow, and what they held stays: some turns leave parts
// of the frame before in them. New bytes are 0.
bool reserve(unsigned char*& buffer, size_t& capacity, size_t size) {
    if (buffer != nullptr && capacity >= size) return true;
    void* grown = std::realloc(buffer, size);
    if (grown == nullptr) return false;
    const size_t kept = buffer != nullptr ? capacity : 0;
    buffer = static_cast<unsigned char*>(grown);
    std::memset(buffer + kept, 0, size - kept);
    capacity = size;
    return true;
}

void copy_pixel(const unsigned char* from, size_t from_index, unsigned char* to, size_t to_index,
                size_t bytes) {
    std::memcpy(to + to_index * bytes, from + from_index * bytes, bytes);
}

// Rows of `row_bytes` bytes, the last one first. Target rows below `first_row` stay as they were.
void flip_rows(const unsigned char* from, unsigned char* to, int rows, size_t row_bytes,
               int first_row) {
    for (int y = rows - 1; y >= first_row; --y) {
        std::memcpy(to + static_cast<size_t>(y) * row_bytes,
                    from + static_cast<size_t>(rows - 1 - y) * row_bytes, row_bytes);
    }
}

// The turns of a four-byte image of tw x th pixels.
void turn(const unsigned char* from, unsigned char* to, int tw, int th, unsigned int flags) {
    const size_t columns = static_cast<size_t>(tw), rows = static_cast<size_t>(th);
    const size_t pixels = columns * rows;
    if ((flags & 3u) == 0 && (flags & (1u << 2 | 1u << 6)) == 0) {
        std::memcpy(to, from, pixels * 4);
        return;
    }
    for (size_t y = 0; y < rows; ++y) {
        for (size_t x = 0; x < columns; ++x) {
            const size_t at = y * columns + x;
            size_t target = pixels - 1 - at;
            if (flags & 1u) {
                target = (columns - 1 - x) * rows + y;
            } else if (flags & 2u) {
                target = x * rows + (rows - 1 - y);
            }
            copy_pixel(from, at, to, target, 4);
        }
    }
}

// Luma of tw x th and a plane of chroma pairs of half the size to three bytes a pixel. Blocks of
// 2 x 2: the last row and column of an odd size stay as they were.
void convert(const unsigned char* luma, const unsigned char* chroma, int tw, int th,
             unsigned char* rgb) {
    for (int block_y = 0; block_y < th / 2; ++block_y) {
        for (int block_x = 0; block_x < tw / 2; ++block_x) {
            const unsigned char* pair =
                chroma + (static_cast<size_t>(block_y) * (tw / 2) + block_x) * 2;
            const int a = pair[0] - 128;
            const int b = pair[1] - 128;
            for (int corner = 0; corner < 4; ++corner) {
                const size_t x = static_cast<size_t>(block_x) * 2 + (corner & 1);
                const size_t y = static_cast<size_t>(block_y) * 2 + (corner >> 1);
                const size_t at = y * static_cast<size_t>(tw) + x;
                const int bright = 64 * luma[at];
                // Stored without a clamp: overflow wraps.
                rgb[at * 3 + 0] = static_cast<unsigned char>((bright + 90 * a) >> 6);
                rgb[at * 3 + 1] = static_cast<unsigned char>((bright - 46 * a - 22 * b) >> 6);
                rgb[at * 3 + 2] = static_cast<unsigned char>((bright + 113 * b) >> 6);
            }
        }
    }
}

bool is_drawable(int w, int h) {
    return w > 0 && h > 0 && h <= INT_MAX / 4 / w;
}

}  // namespace

TnDetectedCpu::TnDetectedCpu(int model_count, const void* const* models)
    : TnDetectedCpu(model_count, models, 0, nullptr, nullptr, 0) {}

TnDetectedCpu::TnDetectedCpu(int model_count, const void* const* models, int input_count,
                             const char** input_names, const long* input_sizes, int flags)
    : input_names(input_names),
      input_sizes(input_sizes),
      input_count(input_count),
      flags(flags),
      yuv_buffer(nullptr),
      pixel_buffer_a(nullptr),
      pixel_buffer_b(nullptr),
      loaded(false),
      blob_allocator(new UnlockedPoolAllocator),
      workspace_allocator(new PoolAllocator),
      yuv_buffer_size(0),
      pixel_buffer_a_size(0),
      pixel_buffer_b_size(0) {
    init(model_count, models);
}

TnDetectedCpu::~TnDetectedCpu() {
    std::free(yuv_buffer);
    std::free(pixel_buffer_a);
    std::free(pixel_buffer_b);
    delete blob_allocator;
    delete workspace_allocator;
    Tarno::_LogInfo("Tarno", "TnDetectedCpu delete finished.");
}

void TnDetectedCpu::init(int model_count, const void* const* models) {
    if (model_count < 1 || models == nullptr) return;
    for (int i = 0; i < model_count; ++i) {
        if (models[i] == nullptr) continue;
        model_paths.emplace_back(static_cast<const char*>(models[i]));
    }
    // A second call by a subclass drops the buffers.
    std::free(yuv_buffer);
    std::free(pixel_buffer_a);
    std::free(pixel_buffer_b);
    yuv_buffer = nullptr;
    pixel_buffer_a = nullptr;
    pixel_buffer_b = nullptr;
    yuv_buffer_size = pixel_buffer_a_size = pixel_buffer_b_size = 0;
}

bool TnDetectedCpu::detect(const void* image, void* result) {
    if (!loaded && !load()) return false;
    if (image == nullptr) return false;
    Mat in, out;
    int size[2];
    std::memcpy(size, static_cast<const unsigned char*>(image) + 8, sizeof size);
    yuv2rgb(size[0], size[1], image, in, 0, 0);
    preprocess(in);
    const bool done = forward(in, out);
    postprocess(out, result);
    return done;
}

void TnDetectedCpu::reset_lstm_state() {}

bool TnDetectedCpu::load() {
    return false;
}

void TnDetectedCpu::preprocess(Mat&) {}

bool TnDetectedCpu::forward(const Mat& in, Mat& out) {
    if (nets.empty()) return false;
    TarnoNetExtractor extractor = nets[0].create_extractor();
    extractor.set_num_threads(1);
    extractor.set_light_mode(true);
    extractor.input(0, in);
    return extractor.extract(extractor.get_last_layer_index(), out, nullptr) == 0;
}

void TnDetectedCpu::postprocess(const Mat&, void*) {}

void TnDetectedCpu::getInMat(int width, int height, const _TN_Image* image, Mat& out,
                             unsigned int flags, int swap) {
    if (nets.empty() || image == nullptr) return;
    const bool yuv = is_yuv(image->format);
    const bool flipped = (flags & (1u << 3)) != 0;
    const int pixel_type =
        yuv ? (swap != 0 ? pixel_rgb_swapped : pixel_rgb) : pixel_type_of(image->format);
    if (pixel_type == 0) {
        Tarno::_LogError("Tarno",
                         "Error, unsupport camera frame data pixel format[%d], in %s[line: %d]",
                         image->format, "TarnoCPU::TnDetectedCpu::getInMat", flipped ? 1552 : 1568);
        return;
    }
    const bool upright = height > width;
    int th = upright ? nets[0].height() : nets[0].width();
    int tw = upright ? nets[0].width() : nets[0].height();
    if (image->data == nullptr || !is_drawable(image->width, image->height) ||
        !is_drawable(tw, th)) {
        return;
    }
    const size_t bytes = yuv ? 3 : 4;
    const size_t size = static_cast<size_t>(tw) * th * bytes;
    if (!reserve(pixel_buffer_a, pixel_buffer_a_size, size) ||
        !reserve(pixel_buffer_b, pixel_buffer_b_size, size)) {
        return;
    }

    if (yuv) {
        yuv2rgb(image->width, image->height, image->data, tw, th);
        if (flags & 3u) {
            // The sides change places, the pixels do not, and nothing is copied: the tensor shows
            // what the second buffer held.
            std::swap(tw, th);
        } else if ((flags & (1u << 2 | 1u << 6)) == 0) {
            std::memcpy(pixel_buffer_b, pixel_buffer_a, size);
        }
    } else {
        resize_bilinear_c4(static_cast<const unsigned char*>(image->data), image->width,
                           image->height, pixel_buffer_a, tw, th);
        turn(pixel_buffer_a, pixel_buffer_b, tw, th, flags);
        if (flags & 3u) std::swap(tw, th);
    }

    const unsigned char* pixels = pixel_buffer_b;
    if (flipped) {
        // On four-byte frames row 0 of the target is not written.
        flip_rows(pixel_buffer_b, pixel_buffer_a, th, static_cast<size_t>(tw) * bytes, yuv ? 0 : 1);
        pixels = pixel_buffer_a;
    }
    out = Mat::from_pixels(pixels, pixel_type, tw, th, nullptr);
}

void TnDetectedCpu::yuv2rgb(int w, int h, const void* data, int target_w, int target_h) {
    if (data == nullptr || !is_drawable(w, h) || !is_drawable(target_w, target_h)) return;
    const size_t luma_size = static_cast<size_t>(target_w) * target_h;
    if (!reserve(pixel_buffer_a, pixel_buffer_a_size, luma_size * 3) ||
        !reserve(yuv_buffer, yuv_buffer_size, luma_size * 3 / 2 + 1)) {
        return;
    }
    const unsigned char* luma = static_cast<const unsigned char*>(data);
    resize_bilinear_c1(luma, w, h, yuv_buffer, target_w, target_h);
    resize_bilinear_c2(luma + static_cast<size_t>(w) * h, w / 2, h / 2, yuv_buffer + luma_size,
                       target_w / 2, target_h / 2);
    convert(yuv_buffer, yuv_buffer + luma_size, target_w, target_h, pixel_buffer_a);
}

void TnDetectedCpu::yuv2rgb(int w, int h, const void* data, Mat& out, int rotate, int swap) {
    if (nets.empty()) return;
    const int tw = nets[0].height();
    const int th = nets[0].width();
    if (data == nullptr || !is_drawable(w, h) || !is_drawable(tw, th)) return;
    const size_t columns = static_cast<size_t>(tw), rows = static_cast<size_t>(th);
    const size_t size = columns * rows * 3;
    if (!reserve(pixel_buffer_a, pixel_buffer_a_size, size) ||
        !reserve(pixel_buffer_b, pixel_buffer_b_size, size)) {
        return;
    }
    yuv2rgb(w, h, data, tw, th);

    bool turned = true;
    switch (rotate) {
        case 0:
            for (size_t y = 0; y < rows; ++y) {
                for (size_t x = 0; x < columns; ++x) {
                    copy_pixel(pixel_buffer_a, y * columns + x, pixel_buffer_b,
                               (columns - 1 - x) * rows + (rows - 1 - y), 3);
                }
            }
            break;
        case 1:
        case 2:
            // The pixels of these two are never made.
            break;
        case 3:
            flip_rows(pixel_buffer_a, pixel_buffer_b, th, columns * 3, 0);
            turned = false;
            break;
        case 4:
            std::memcpy(pixel_buffer_b, pixel_buffer_a, size);
            turned = false;
            break;
        default:
            return;
    }
    out = Mat::from_pixels(pixel_buffer_b, swap != 0 ? pixel_rgb_swapped : pixel_rgb,
                           turned ? th : tw, turned ? tw : th, nullptr);
}

}  // namespace TarnoCPU
