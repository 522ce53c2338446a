// Makes a context, prints what came of it and tears it down: "init N check N uninit N again N". With
// the argument "terminate" the host terminates the display in between and asks for a second context:
// "init N uninit N init N check N uninit N".
#include <EGL/egl.h>
#include <tarno/gpu.h>

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

}  // namespace

int main(int argc, char** argv) {
    return argc > 1 && std::strcmp(argv[1], "terminate") == 0 ? with_terminated_display() : once();
}
