// frame_tool to-ppm PICTURE OUT.ppm          writes an 8-bit RGB picture for the example program
// frame_tool to-rgba PICTURE OUT.raw         four bytes a pixel
// frame_tool to-nv21 PICTURE OUT.raw         luma, then pairs of V and U for each 2 x 2 pixels
// frame_tool to-nv12 PICTURE OUT.raw         the same with pairs of U and V
// frame_tool yuv-to-ppm nv21|nv12 WxH FRAME.raw WxH OUT.ppm
//                                            what the front end makes of such a frame at a net's
//                                            size, by the test's own arithmetic
// frame_tool compare A B LARGEST             fails when two grey pictures differ by more anywhere
// frame_tool overlap A B PERCENT             fails when the bright parts of two grey pictures have
//                                            less of their union in common
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#define STB_IMAGE_IMPLEMENTATION
#define STBI_FAILURE_USERMSG
#include <stb/stb_image.h>

namespace {

int to_ppm(const char* from, const char* to) {
    int w = 0, h = 0, channels = 0;
    unsigned char* rgb = stbi_load(from, &w, &h, &channels, 3);
    if (rgb == nullptr) return 1;
    std::FILE* file = std::fopen(to, "wb");
    if (file == nullptr) return 1;
    std::fprintf(file, "P6\n%d %d\n255\n", w, h);
    std::fwrite(rgb, 3, static_cast<size_t>(w) * h, file);
    std::fclose(file);
    stbi_image_free(rgb);
    return 0;
}

bool write_raw(const char* path, const std::vector<unsigned char>& bytes) {
    std::FILE* file = std::fopen(path, "wb");
    if (file == nullptr) return false;
    const bool good = std::fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size();
    return std::fclose(file) == 0 && good;
}

int to_rgba(const char* from, const char* to) {
    int w = 0, h = 0, channels = 0;
    unsigned char* rgba = stbi_load(from, &w, &h, &channels, 4);
    if (rgba == nullptr) return 1;
    const std::vector<unsigned char> bytes(rgba, rgba + static_cast<size_t>(w) * h * 4);
    stbi_image_free(rgba);
    return write_raw(to, bytes) ? 0 : 1;
}

// Full-range BT.601 in double, chroma as the mean of four pixels.
int to_yuv(const char* from, const char* to, bool v_first) {
    int w = 0, h = 0, channels = 0;
    unsigned char* rgb = stbi_load(from, &w, &h, &channels, 3);
    if (rgb == nullptr || w % 2 != 0 || h % 2 != 0) return 1;
    std::vector<unsigned char> bytes(static_cast<size_t>(w) * h * 3 / 2);
    const auto byte = [](double v) {
        return static_cast<unsigned char>(std::lround(v < 0.0 ? 0.0 : v > 255.0 ? 255.0 : v));
    };
    size_t pair = static_cast<size_t>(w) * h;
    for (int y = 0; y < h; y += 2) {
        for (int x = 0; x < w; x += 2) {
            double u = 0.0, v = 0.0;
            for (int i = 0; i < 4; ++i) {
                const size_t at =
                    static_cast<size_t>(y + i / 2) * w + static_cast<size_t>(x + i % 2);
                const double r = rgb[at * 3], g = rgb[at * 3 + 1], b = rgb[at * 3 + 2];
                const double luma = 0.299 * r + 0.587 * g + 0.114 * b;
                bytes[at] = byte(luma);
                u += (b - luma) / 1.772 / 4.0;
                v += (r - luma) / 1.402 / 4.0;
            }
            bytes[pair++] = byte((v_first ? v : u) + 128.0);
            bytes[pair++] = byte((v_first ? u : v) + 128.0);
        }
    }
    stbi_image_free(rgb);
    return write_raw(to, bytes) ? 0 : 1;
}

/// A plane of `step` bytes a pixel, of which the byte `offset` counts.
struct Plane {
    const unsigned char* bytes;
    int w, h, step, offset;

    double at(int x, int y) const {
        return bytes[(static_cast<size_t>(y) * w + x) * static_cast<size_t>(step) + offset];
    }
};

/// The plane at w x h, pixel centres on pixel centres, by bilinear weights in double. The front end
/// works in integers with 11 bits of a weight and drops the last bits twice on the way; the sizes
/// that are compared are a half or the same, where the weights are halves or one and nothing is
/// lost but the rounding of a quarter sum. So its result is this one, rounded to nearest, halves
/// upwards.
std::vector<double> resized(const Plane& plane, int w, int h) {
    std::vector<double> result;
    for (int y = 0; y < h; ++y) {
        for (int x = 0; x < w; ++x) {
            const double sx = (x + 0.5) * plane.w / w - 0.5, sy = (y + 0.5) * plane.h / h - 0.5;
            const int x0 = static_cast<int>(std::floor(sx)), y0 = static_cast<int>(std::floor(sy));
            const double fx = sx - x0, fy = sy - y0;
            double sum = 0.0;
            for (int i = 0; i < 4; ++i) {
                const double weight = (i % 2 ? fx : 1.0 - fx) * (i / 2 ? fy : 1.0 - fy);
                if (weight > 0.0) sum += weight * plane.at(x0 + i % 2, y0 + i / 2);
            }
            result.push_back(std::floor(sum + 0.5));
        }
    }
    return result;
}

/// Red, green and blue of full-range luma and chroma with the front end's factors, in 64ths; what
/// leaves the range of a byte wraps.
int yuv_to_ppm(const char* format, const char* size, const char* from, const char* target_size,
               const char* to) {
    const bool v_first = std::strcmp(format, "nv21") == 0;
    int w = 0, h = 0, tw = 0, th = 0;
    if (std::sscanf(size, "%dx%d", &w, &h) != 2 ||
        std::sscanf(target_size, "%dx%d", &tw, &th) != 2 || w < 2 || h < 2 || tw < 2 || th < 2 ||
        (w != tw && w != 2 * tw) || (h != th && h != 2 * th)) {
        return 2;
    }
    const size_t pixels = static_cast<size_t>(w) * h;
    std::vector<unsigned char> frame(pixels * 3 / 2);
    std::FILE* file = std::fopen(from, "rb");
    if (file == nullptr) return 1;
    const bool whole = std::fread(frame.data(), 1, frame.size(), file) == frame.size();
    std::fclose(file);
    if (!whole) return 1;

    const std::vector<double> luma = resized({frame.data(), w, h, 1, 0}, tw, th);
    const unsigned char* pairs = frame.data() + pixels;
    const std::vector<double> v =
        resized({pairs, w / 2, h / 2, 2, v_first ? 0 : 1}, tw / 2, th / 2);
    const std::vector<double> u =
        resized({pairs, w / 2, h / 2, 2, v_first ? 1 : 0}, tw / 2, th / 2);
    std::vector<unsigned char> rgb;
    for (int y = 0; y < th; ++y) {
        for (int x = 0; x < tw; ++x) {
            const size_t pair = static_cast<size_t>(y / 2) * (tw / 2) + x / 2;
            const double l = luma[static_cast<size_t>(y) * tw + x];
            const double dv = v[pair] - 128.0, du = u[pair] - 128.0;
            const double colours[3] = {l + dv * 90.0 / 64.0,
                                       l - dv * 46.0 / 64.0 - du * 22.0 / 64.0,
                                       l + du * 113.0 / 64.0};
            for (const double colour : colours) {
                const double level = std::floor(colour);
                rgb.push_back(
                    static_cast<unsigned char>(level - 256.0 * std::floor(level / 256.0)));
            }
        }
    }
    std::FILE* out = std::fopen(to, "wb");
    if (out == nullptr) return 1;
    std::fprintf(out, "P6\n%d %d\n255\n", tw, th);
    const bool good = std::fwrite(rgb.data(), 1, rgb.size(), out) == rgb.size();
    return std::fclose(out) == 0 && good ? 0 : 1;
}

int overlap(const char* first, const char* second, int percent) {
    int w[2] = {}, h[2] = {}, channels = 0;
    unsigned char* grey[2] = {stbi_load(first, &w[0], &h[0], &channels, 1),
                              stbi_load(second, &w[1], &h[1], &channels, 1)};
    if (grey[0] == nullptr || grey[1] == nullptr || w[0] != w[1] || h[0] != h[1]) return 1;
    int both = 0, any = 0;
    for (int i = 0; i < w[0] * h[0]; ++i) {
        const bool a = grey[0][i] > 127, b = grey[1][i] > 127;
        both += a && b ? 1 : 0;
        any += a || b ? 1 : 0;
    }
    const double share = any > 0 ? 100.0 * both / any : 0.0;
    std::printf("overlap %.1f %%\n", share);
    return share >= percent ? 0 : 1;
}

int compare(const char* first, const char* second, int largest) {
    int w[2] = {}, h[2] = {}, channels = 0;
    unsigned char* grey[2] = {stbi_load(first, &w[0], &h[0], &channels, 1),
                              stbi_load(second, &w[1], &h[1], &channels, 1)};
    if (grey[0] == nullptr || grey[1] == nullptr || w[0] != w[1] || h[0] != h[1]) {
        std::fprintf(stderr, "%s and %s have no common size\n", first, second);
        return 1;
    }
    int worst = 0, lowest = 255, highest = 0;
    for (int i = 0; i < w[0] * h[0]; ++i) {
        const int a = grey[0][i], b = grey[1][i];
        worst = a - b > worst ? a - b : b - a > worst ? b - a : worst;
        lowest = a < lowest ? a : lowest;
        highest = a > highest ? a : highest;
    }
    std::printf("largest difference %d, values from %d to %d\n", worst, lowest, highest);
    // A map that is the same everywhere would agree too, and tell nothing.
    if (highest - lowest < 128) return 1;
    return worst <= largest ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 4 && std::strcmp(argv[1], "to-ppm") == 0) return to_ppm(argv[2], argv[3]);
    if (argc == 4 && std::strcmp(argv[1], "to-rgba") == 0) return to_rgba(argv[2], argv[3]);
    if (argc == 4 && std::strcmp(argv[1], "to-nv21") == 0) return to_yuv(argv[2], argv[3], true);
    if (argc == 4 && std::strcmp(argv[1], "to-nv12") == 0) return to_yuv(argv[2], argv[3], false);
    if (argc == 7 && std::strcmp(argv[1], "yuv-to-ppm") == 0) {
        return yuv_to_ppm(argv[2], argv[3], argv[4], argv[5], argv[6]);
    }
    if (argc == 5 && std::strcmp(argv[1], "overlap") == 0) {
        return overlap(argv[2], argv[3], std::atoi(argv[4]));
    }
    if (argc == 5 && std::strcmp(argv[1], "compare") == 0) {
        return compare(argv[2], argv[3], std::atoi(argv[4]));
    }
    return 2;
}
