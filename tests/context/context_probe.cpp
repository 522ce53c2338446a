// Makes a context, prints what came of it and tears it down: "init N check N uninit N again N".
#include <tarno/gpu.h>

#include <cstdio>

int main() {
    unsigned int id = 0;
    const int init = tesk_Init(&id);
    const int check = tesk_CheckGLVersion();
    const int uninit = tesk_UnInit(id);
    std::printf("init %d check %d uninit %d again %d\n", init, check, uninit,
                static_cast<int>(tesk_UnInit(id)));
    return 0;
}
