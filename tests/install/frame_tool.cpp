// frame_tool to-ppm PICTURE OUT.ppm          writes an 8-bit RGB picture for the example program
// frame_tool compare A B LARGEST             fails when two grey pictures differ by more anywhere
#include <cstdio>
#include <cstdlib>
#include <cstring>

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
    if (argc == 5 && std::strcmp(argv[1], "compare") == 0) {
        return compare(argv[2], argv[3], std::atoi(argv[4]));
    }
    return 2;
}
