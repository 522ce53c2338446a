// portrait_cpu MODEL nv21|nv12|rgba WIDTHxHEIGHT FRAME.raw MASK.pgm
//
// A detector on the library's front end: takes camera frames as they come from a driver, and gives
// the person's mask in the size of the net. Configured with -DPORTRAIT_TABLE=/path/table.h, it runs
// the operators that `tarno tune` chose for a machine.
#include <tarno/cpu.h>
#include <tarno/log.h>
#include <tarno/model.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#ifdef PORTRAIT_TABLE
#include PORTRAIT_TABLE
#endif

namespace {

/// Grey levels of a mask, 255 for person, row by row.
struct Mask {
    int width = 0;
    int height = 0;
    std::vector<unsigned char> grey;
};

class PortraitDetector : public TarnoCPU::TnDetectedCpu {
public:
    explicit PortraitDetector(const void* const* model) : TnDetectedCpu(1, model) {}

    std::string failure;

    bool load() override {
        ZQNetLoader loader;
        if (!loader.LoadFile(model_paths[0].c_str(), false)) {
            failure = loader.failure();
            return false;
        }
        nets.resize(1);
#ifdef PORTRAIT_TABLE
        if (nets[0].load_tarno_net_with_inference_config(loader, model_inference_config) != 0) {
            failure = "the table was made for another model";
            return false;
        }
#else
        nets[0].load_tarno_net_with_inference_config(loader, nullptr);
#endif
        nets[0].setNetSize(static_cast<int>(loader.getModelBaseW()),
                           static_cast<int>(loader.getModelBaseH()));
        loaded = true;
        return true;
    }

    /// `image` is a `_TN_Image`; `result` a `Mask`.
    bool detect(const void* image, void* result) override {
        if (!loaded && !load()) return false;
        const _TN_Image* frame = static_cast<const _TN_Image*>(image);
        TarnoCPU::Mat in, out;
        getInMat(frame->width, frame->height, frame, in, 0, 0);
        if (in.empty()) return false;
        preprocess(in);
        if (!forward(in, out)) return false;
        postprocess(out, result);
        return true;
    }

    void preprocess(TarnoCPU::Mat& in) override {
        // The model was trained on pixel / 255 less these means.
        const float means[3] = {0.485f * 255.0f, 0.456f * 255.0f, 0.406f * 255.0f};
        const float norms[3] = {1.0f / 255.0f, 1.0f / 255.0f, 1.0f / 255.0f};
        in.substract_mean_normalize(means, norms);
    }

    void postprocess(const TarnoCPU::Mat& out, void* result) override {
        Mask* mask = static_cast<Mask*>(result);
        mask->width = out.shape.w;
        mask->height = out.shape.h;
        mask->grey.resize(static_cast<size_t>(out.shape.w) * out.shape.h);
        for (size_t i = 0; i < mask->grey.size(); ++i) {
            const float value = std::min(1.0f, std::max(0.0f, out.ptr<float>()[i]));
            mask->grey[i] = static_cast<unsigned char>(value * 255.0f + 0.5f);
        }
    }
};

bool read_frame(const char* path, std::vector<unsigned char>& bytes) {
    std::FILE* file = std::fopen(path, "rb");
    if (file == nullptr) return false;
    const bool good = std::fread(bytes.data(), 1, bytes.size(), file) == bytes.size();
    std::fclose(file);
    return good;
}

bool write_mask(const char* path, const Mask& mask) {
    std::FILE* file = std::fopen(path, "wb");
    if (file == nullptr) return false;
    std::fprintf(file, "P5\n%d %d\n255\n", mask.width, mask.height);
    const bool good = std::fwrite(mask.grey.data(), 1, mask.grey.size(), file) == mask.grey.size();
    return std::fclose(file) == 0 && good;
}

int fail(const std::string& what) {
    std::fprintf(stderr, "portrait_cpu: %s\n", what.c_str());
    return 1;
}

}  // namespace

int main(int argc, char** argv) {
    int width = 0, height = 0;
    if (argc != 6 || std::sscanf(argv[3], "%dx%d", &width, &height) != 2) {
        std::fprintf(stderr,
                     "usage: portrait_cpu MODEL nv21|nv12|rgba WIDTHxHEIGHT FRAME.raw MASK.pgm\n");
        return 2;
    }
    Tarno::SetLogLevel(Tarno::LogLevel::Error);
    if (width < 2 || height < 2 || width > 8192 || height > 8192 || width % 2 || height % 2) {
        return fail(std::string(argv[3]) + ": expected even sizes from 2 to 8192");
    }
    const std::string format = argv[2];
    const bool yuv = format == "nv21" || format == "nv12";
    if (!yuv && format != "rgba") return fail(format + ": expected nv21, nv12 or rgba");

    const size_t pixels = static_cast<size_t>(width) * height;
    std::vector<unsigned char> frame(yuv ? pixels * 3 / 2 : pixels * 4);
    if (!read_frame(argv[4], frame)) {
        return fail(std::string(argv[4]) + ": expected " + std::to_string(frame.size()) +
                    " bytes of " + format);
    }
    if (format == "nv12") {
        // The front end reads chroma pairs as V, U.
        for (size_t i = pixels; i + 1 < frame.size(); i += 2) std::swap(frame[i], frame[i + 1]);
    }
    _TN_Image image = {0, yuv ? 1 : 4, width, height, 0, frame.data()};

    const void* model[1] = {argv[1]};
    PortraitDetector detector(model);
    Mask mask;
    if (!detector.detect(&image, &mask)) {
        return fail(std::string(argv[1]) + ": " +
                    (detector.failure.empty() ? "the net did not run" : detector.failure));
    }
    if (!write_mask(argv[5], mask)) return fail(std::string(argv[5]) + ": could not be written");
    return 0;
}
