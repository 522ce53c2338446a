// How many objects of GL are alive, counted by asking for the first names. Drivers hand out names from
// 1 upwards, so what a test or a benchmark makes stands among them.
#pragma once

#include <GL/glew.h>

namespace testing_support {

struct LiveObjects {
    int buffers = 0;
    int textures = 0;
    int framebuffers = 0;
    int programs = 0;

    static LiveObjects count(GLuint names = 20000) {
        LiveObjects live;
        for (GLuint name = 1; name < names; ++name) {
            live.buffers += glIsBuffer(name) ? 1 : 0;
            live.textures += glIsTexture(name) ? 1 : 0;
            live.framebuffers += glIsFramebuffer(name) ? 1 : 0;
            live.programs += glIsProgram(name) ? 1 : 0;
        }
        return live;
    }
};

}  // namespace testing_support
