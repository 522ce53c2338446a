// Frames through upload, three transforms, the guided filter and two kinds of read-back, and what the process holds on
// the way: pool entries, GL objects, resident memory. All are to be flat after the first frames; the
// last line says whether they were, with 8 MiB of resident memory for the driver's own.
//
// usage: gpu_steady_state [frames [width height]]      10000 frames of 320 x 240 without arguments
#include <GL/glew.h>
#include <tarno/gpu.h>
#include <tarno/log.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <vector>

#include "support/gl_objects.h"

namespace {

using testing_support::LiveObjects;

using ImagePointer = std::shared_ptr<tesk::Image>;

double resident_mebibytes() {
    std::FILE* const file = std::fopen("/proc/self/statm", "r");
    if (file == nullptr) return 0.0;
    long total = 0, resident = 0;
    const int read = std::fscanf(file, "%ld %ld", &total, &resident);
    std::fclose(file);
    return read == 2 ? static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE)) /
                           1048576.0
                     : 0.0;
}

struct State {
    int textures = 0;
    int in_use = 0;
    LiveObjects objects;
    double resident = 0.0;
};

class Frames {
public:
    Frames(int width, int height)
        : width(width),
          height(height),
          pool(0),
          manager(0, "steady state"),
          transforms(&pool, &manager),
          filter(8, 4.0f, 0.01f, &pool, &manager),
          frame(static_cast<size_t>(4 * width * height)),
          result(static_cast<size_t>(width * height * 4)) {
        manager.initOpenglParameters();
        manager.initProgramBinary({}, &manager);
        downloader.init(GL_RGBA, GL_FLOAT, height, width, 2);
    }
    ~Frames() {
        buffers.release();
        manager.release();
        pool.release();
    }

    void run(int number) {
        for (size_t i = 0; i < frame.size(); ++i)
            frame[i] = static_cast<char>(static_cast<size_t>(number) + i);
        const ImagePointer picture = image(GL_RGBA8, height, width);
        picture->update(frame.data(), 0);

        const ImagePointer swapped = image(GL_RGBA16F, height, width);
        transforms.ConvertBGR2RGB(picture, swapped);
        const ImagePointer mirrored = image(GL_RGBA16F, height, width);
        transforms.Flip_Horizontal(swapped, mirrored);
        // Behind the quarter turn the picture is as wide as it was high.
        const ImagePointer turned = image(GL_RGBA16F, width, height);
        transforms.Rotate90(mirrored, turned);
        const ImagePointer refined = image(GL_RGBA16F, width, height);
        filter.fastGuidedFilterEncode(turned, turned, refined);

        downloader.download(GL_TEXTURE_2D, refined->texture(), 0);
        finished += collect(to_buffer(refined, number)) ? 1 : 0;
    }

    State state() const {
        return {pool.textureCount(), pool.texturesInUse(), LiveObjects::count(2000),
                resident_mebibytes()};
    }
    long long poolBytes() const { return pool.textureBytes(); }

    int finished = 0;

private:
    ImagePointer image(GLenum format, int rows, int columns) {
        return std::make_shared<tesk::Image>(rows, columns, 4, format, &pool);
    }

    int to_buffer(const ImagePointer& source, int stamp) {
        const int bytes = static_cast<int>(result.size() * sizeof(float));
        const unsigned int buffer = buffers.getBuffer(bytes, stamp);
        glBindBuffer(GL_PIXEL_PACK_BUFFER, buffer);
        glBindTexture(GL_TEXTURE_2D, source->texture());
        glGetTexImage(GL_TEXTURE_2D, 0, GL_RGBA, GL_FLOAT, nullptr);
        glBindBuffer(GL_PIXEL_PACK_BUFFER, 0);
        buffers.startAysnBufferLoading(bytes);
        return bytes;
    }
    bool collect(int bytes) {
        long stamp = 0;
        return buffers.finishAysnBufferLoading(bytes, result.data(), &stamp);
    }

    int width;
    int height;
    tesk::TexturePool pool;
    tesk::ComputeProgramManager manager;
    tesk::MatrixColor transforms;
    tesk::FastGuidedFilter filter;
    tesk::BufferPool buffers;
    tesk::PboDownloader downloader;
    std::vector<char> frame;
    std::vector<float> result;
};

bool same(const State& a, const State& b) {
    return a.textures == b.textures && a.in_use == b.in_use &&
           a.objects.buffers == b.objects.buffers && a.objects.textures == b.objects.textures &&
           a.objects.framebuffers == b.objects.framebuffers &&
           a.objects.programs == b.objects.programs;
}

}  // namespace

int main(int argc, char** argv) {
    const int frame_count = argc > 1 ? std::atoi(argv[1]) : 10000;
    const int width = argc > 3 ? std::atoi(argv[2]) : 320;
    const int height = argc > 3 ? std::atoi(argv[3]) : 240;
    if (frame_count < 1 || width < 1 || height < 1 || width > 8192 || height > 8192) {
        std::fprintf(stderr, "usage: gpu_steady_state [frames [width height]]\n");
        return 2;
    }
    Tarno::SetLogLevel(Tarno::LogLevel::Error);
    unsigned int id = 0;
    if (tesk_Init(&id) != TN_Result_Success) {
        std::fprintf(stderr, "gpu_steady_state: expected a context with OpenGL 4.3, found none\n");
        return 1;
    }
    bool flat = true;
    {
        Frames frames(width, height);
        std::printf("driver: %s, %s\nframes of %d x %d\n\n", glGetString(GL_RENDERER),
                    glGetString(GL_VERSION), width, height);
        std::printf("%8s %9s %7s %9s %8s %9s %13s %9s %13s %12s\n", "frame", "textures", "in use",
                    "pool MiB", "buffers", "GL tex.", "framebuffers", "programs", "resident MiB",
                    "ms a frame");
        State early;
        auto start = std::chrono::steady_clock::now();
        int printed = 0;
        for (int number = 1; number <= frame_count; ++number) {
            frames.run(number);
            const bool mark = number == 1 || number == 10 || number == 100 || number == 1000 ||
                              number == frame_count;
            if (!mark) continue;
            const double milliseconds = std::chrono::duration<double, std::milli>(
                                            std::chrono::steady_clock::now() - start)
                                            .count();
            const State now = frames.state();
            std::printf("%8d %9d %7d %9.2f %8d %9d %13d %9d %13.1f %12.3f\n", number, now.textures,
                        now.in_use, static_cast<double>(frames.poolBytes()) / 1048576.0,
                        now.objects.buffers, now.objects.textures, now.objects.framebuffers,
                        now.objects.programs, now.resident,
                        milliseconds / static_cast<double>(number - printed));
            std::fflush(stdout);
            printed = number;
            if (number <= 100) early = now;
            flat = number <= 100 || (flat && same(now, early) && now.resident < early.resident + 8);
            start = std::chrono::steady_clock::now();
        }
        std::printf("\n%d of %d frames collected; flat since frame 100: %s\n", frames.finished,
                    frame_count, flat ? "yes" : "no");
    }
    tesk_UnInit(id);
    return flat ? 0 : 1;
}
