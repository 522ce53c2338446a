// The GL entry points, for the units of the GPU side; no public header includes it.
#pragma once

#include <GL/glew.h>

namespace tesk {

/// Whether the entry points of OpenGL 4.3 are loaded. Before the first context they are null, and
/// calling one would end the process.
inline bool entryPointsLoaded() {
    return glDispatchCompute != nullptr && glMapBufferRange != nullptr && glFenceSync != nullptr &&
           glTexStorage3D != nullptr && glGenFramebuffers != nullptr && glCreateProgram != nullptr;
}

/// Rows of client memory without padding, for the length of a scope. GL's own default pads each
/// row to four bytes, which for one- and three-byte pixels is more memory than a picture has.
class TightRows {
public:
    /// `parameter`: GL_PACK_ALIGNMENT for reads, GL_UNPACK_ALIGNMENT for uploads.
    explicit TightRows(GLenum parameter) : parameter(parameter) {
        glGetIntegerv(parameter, &before);
        glPixelStorei(parameter, 1);
    }
    ~TightRows() { glPixelStorei(parameter, before); }
    TightRows(const TightRows&) = delete;
    TightRows& operator=(const TightRows&) = delete;

private:
    GLenum parameter;
    GLint before = 4;
};

}  // namespace tesk
