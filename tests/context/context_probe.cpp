// Makes a context, prints what came of it and tears it down: "init N check N uninit N again N". With
// the argument "terminate" the host terminates the display in between and asks for a second context:
// "init N uninit N init N check N uninit N". With "outlive" its objects are used and destroyed when
// the context is gone: "outlived".
#include <EGL/egl.h>
#include <tarno/gpu.h>
#include <tarno/log.h>

#include <cstdio>
#include <cstring>

namespace {

int once() {
    unsigned int id = 0;
    const int init = tesk_Init(&id);
    const int check = tesk_CheckGLVersion();
    const int uninit = tesk_UnInit(id);
    std::printf("init %d check %d uninit %d again %d\n", init, check, uninit,
                static_cast<int>(tesk_UnInit(id)));
    return 0;
}

int with_terminated_display() {
    unsigned int id = 0;
    std::printf("init %d", static_cast<int>(tesk_Init(&id)));
    eglBindAPI(EGL_OPENGL_API);
    eglTerminate(eglGetCurrentDisplay());
    std::printf(" uninit %d", static_cast<int>(tesk_UnInit(id)));
    std::printf(" init %d", static_cast<int>(tesk_Init(&id)));
    std::printf(" check %d", static_cast<int>(tesk_CheckGLVersion()));
    std::printf(" uninit %d\n", static_cast<int>(tesk_UnInit(id)));
    return 0;
}

int with_objects_that_outlive_it() {
    constexpr unsigned int rgba16f = 0x881A, storage_buffer = 0x90D2, rgba = 0x1908, bytes = 0x1401;
    Tarno::SetLogLevel(Tarno::LogLevel::Silent);
    unsigned int id = 0;
    if (tesk_Init(&id) != TN_Result_Success) return 1;
    {
        const char* const source = "layout(local_size_x = 1) in; void main() {}";
        float texel[4] = {1.0f, 2.0f, 3.0f, 4.0f};
        tesk::TexturePool pool(0);
        tesk::ComputeProgramManager manager(0, "");
        manager.addComputeProgramFromString(source, "held");
        tesk::Image image(1, 1, 4, rgba16f, &pool), late(2, 2, 4, rgba16f, &pool);
        image.update(reinterpret_cast<const char*>(texel), 0);
        image.copyTexToMemry(texel, 0);
        tesk::Buffer buffer(16, texel, storage_buffer), rolling(16, texel, storage_buffer);
        buffer.asyncGpu2Cpu(16);
        rolling.getBufferDataAsync(16, texel, storage_buffer);
        tesk::BufferPool buffers;
        buffers.getBuffer(16, 1);
        buffers.startAysnBufferLoading(16);
        tesk::PboDownloader downloader;
        downloader.init(rgba, bytes, 1, 1, 1);
        downloader.download(0x0DE1, image.texture(), 0);

        tesk_UnInit(id);
        if (buffer.getAsyncData(16, texel)) return 1;
        if (rolling.getBufferDataAsync(16, texel, storage_buffer)) return 1;
        if (buffers.finishAysnBufferLoading(16, texel, nullptr)) return 1;
        buffer.getBufferData(16, reinterpret_cast<char*>(texel), storage_buffer);
        buffer.update(16, texel, storage_buffer);
        buffer.asyncGpu2Cpu(16);
        downloader.download(0x0DE1, image.texture(), 0);
        image.update(reinterpret_cast<const char*>(texel), 0);
        image.copyTexToMemry(texel, 0);
        if (late.texture() != 0 || pool.textureCount() != 1) return 1;
        manager.getComputeProgram("held")->use();
        manager.getComputeProgram("held")->compute(1, 1, 1);
        manager.addComputeProgramFromString(source, "late");
        manager.initOpenglParameters();
        pool.release();
        manager.release();
    }
    std::printf("outlived\n");
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    const char* const what = argc > 1 ? argv[1] : "";
    if (std::strcmp(what, "terminate") == 0) return with_terminated_display();
    if (std::strcmp(what, "outlive") == 0) return with_objects_that_outlive_it();
    return once();
}
