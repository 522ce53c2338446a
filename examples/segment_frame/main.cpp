// segment_frame MODEL FRAME.ppm MASK.pgm
//
// Runs a segmentation model on one RGB frame and writes its map as a grey picture of the size of
// the net. Build it with CMake (find_package(tarno)) or with
//
//     c++ -std=c++17 main.cpp $(pkg-config --cflags --libs tarno) -o segment_frame
#include <tarno/cpu.h>
#include <tarno/log.h>
#include <tarno/model.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

struct Picture {
    int width = 0;
    int height = 0;
    std::vector<unsigned char> rgb;
};

bool read_ppm(const char* path, Picture& picture) {
    std::FILE* file = std::fopen(path, "rb");
    if (file == nullptr) return false;
    int largest = 0;
    bool good = std::fscanf(file, "P6 %d %d %d", &picture.width, &picture.height, &largest) == 3 &&
                std::fgetc(file) != EOF && largest == 255 && picture.width > 1 &&
                picture.height > 1 && picture.width <= 8192 && picture.height <= 8192;
    if (good) {
        picture.rgb.resize(static_cast<size_t>(picture.width) * picture.height * 3);
        good = std::fread(picture.rgb.data(), 1, picture.rgb.size(), file) == picture.rgb.size();
    }
    std::fclose(file);
    return good;
}

bool write_pgm(const char* path, const std::vector<unsigned char>& grey, int width, int height) {
    std::FILE* file = std::fopen(path, "wb");
    if (file == nullptr) return false;
    std::fprintf(file, "P5\n%d %d\n255\n", width, height);
    const bool good = std::fwrite(grey.data(), 1, grey.size(), file) == grey.size();
    return std::fclose(file) == 0 && good;
}

int fail(const std::string& what) {
    std::fprintf(stderr, "segment_frame: %s\n", what.c_str());
    return 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        std::fprintf(stderr, "usage: segment_frame MODEL FRAME.ppm MASK.pgm\n");
        return 2;
    }
    ZQNetLoader loader;
    if (!loader.LoadFile(argv[1], false)) {
        return fail(std::string(argv[1]) + ": " + loader.failure());
    }
    Picture frame;
    if (!read_ppm(argv[2], frame)) return fail(std::string(argv[2]) + ": no 8-bit P6 picture");

    TarnoCPU::TarnoNet net;
    net.load_tarno_net_with_inference_config(loader, nullptr);
    const int width = static_cast<int>(loader.getModelBaseW());
    const int height = static_cast<int>(loader.getModelBaseH());
    net.setNetSize(width, height);

    // Two pools keep the blocks of one frame for the next. They outlive the extractor's tensors.
    TarnoCPU::UnlockedPoolAllocator blobs;
    TarnoCPU::UnlockedPoolAllocator workspace;
    {
        // The model was trained on pixel / 255 less these means.
        const float means[3] = {0.485f * 255.0f, 0.456f * 255.0f, 0.406f * 255.0f};
        const float norms[3] = {1.0f / 255.0f, 1.0f / 255.0f, 1.0f / 255.0f};
        TarnoCPU::Mat in = TarnoCPU::Mat::from_pixels_resize(frame.rgb.data(), 1, frame.width,
                                                             frame.height, width, height, &blobs);
        in.substract_mean_normalize(means, norms);

        TarnoCPU::TarnoNetExtractor extractor = net.create_extractor();
        extractor.set_blob_allocator(&blobs);
        extractor.set_workspace_allocator(&workspace);
        TarnoCPU::Mat out;
        if (extractor.input(0, in) != 0 ||
            extractor.extract(extractor.get_last_layer_index(), out) != 0 || out.empty()) {
            return fail(std::string(argv[1]) + ": the net did not run");
        }
        std::vector<unsigned char> mask(static_cast<size_t>(out.shape.h) * out.shape.w);
        size_t person = 0;
        for (size_t i = 0; i < mask.size(); ++i) {
            const float value = std::min(1.0f, std::max(0.0f, out.ptr<float>()[i]));
            mask[i] = static_cast<unsigned char>(value * 255.0f + 0.5f);
            person += value > 0.5f ? 1 : 0;
        }
        if (!write_pgm(argv[3], mask, out.shape.w, out.shape.h)) {
            return fail(std::string(argv[3]) + ": could not be written");
        }
        std::printf("%s: %.1f %% of the frame is person\n", loader.decodeModelID().c_str(),
                    100.0 * static_cast<double>(person) / static_cast<double>(mask.size()));
    }
    return 0;
}
