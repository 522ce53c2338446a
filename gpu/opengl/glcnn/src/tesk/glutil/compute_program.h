// One linked compute program and the verbs that drive it.
#pragma once

#include <string>

#include "../types.h"

namespace tesk {

class Buffer;
class Image;

/// Sources are written in GLSL ES 3.10 and rewritten for desktop OpenGL 4.3 on their way to the
/// driver. Where the driver cuts numbers off in stores to rgba16f images, which GL allows, sources
/// that store to no other images also get a function around their stores that rounds to the nearest
/// half, so that all drivers give the same pictures. Everything here needs the context current; uniform setters act on the program in use.
/// Before the first context nothing is done, and the creators are false.
///
/// The order of a dispatch: `use`, then uniforms and bindings, then `compute`. Units and bindings
/// are those of the source's `layout` qualifiers; nothing here checks them.
///
/// A copy holds the same GL program, which goes with the first of them that dies: share programs
/// through std::shared_ptr instead.
class TN_API ComputeProgram {
public:
    ComputeProgram();
    /// Unbinds the current program and framebuffer of the context and deletes the program.
    ~ComputeProgram();

    /// Makes the program object when there is none. False, with an assertion, when GL gives none.
    bool createProgram();
    /// Compiles, attaches and links `source`. False when one of them failed; the reason is logged,
    /// and the program object stays. The flag has no effect.
    bool createFromCharArray(const char* source, bool flag);
    /// The same with a new program object each time: an earlier one is left without an owner. Log
    /// lines of a failure speak of a fragment shader and do not hold the source.
    bool createFromString(const std::string& source, bool flag);
    /// The same from a text file; a file that cannot be read counts as the empty source.
    bool createFromFile(const std::string& path, bool flag);

    void use();
    /// Dispatches work groups, then waits with a barrier over all kinds of memory.
    void compute(unsigned int x, unsigned int y, unsigned int z);
    /// The context's oldest pending error, or 0. Nothing inside the library asks.
    unsigned int status();
    unsigned int getProgramID() { return program; }
    /// Whether the last build ended well: only then is there something to dispatch.
    bool isLinked() const { return linked; }

    /// A name that the program lacks is ignored, as GL does.
    void setUniform1i(const std::string& name, int value);
    void setUniform1f(const std::string& name, float value);
    void setUniform1fv(const std::string& name, float* values, int count);
    /// Binds the image's texture to texture unit `unit` and points the sampler `name` at it. An
    /// image without a texture takes one from its pool.
    void setUnifromTexture(const std::string& name, int unit, tesk::Image& image);
    /// The same for a plain 2D texture.
    void setUnifromTextureWithTexID(const std::string& name, int unit, unsigned int texture);

    /// Binds to image unit `unit`, all layers of an array at once. `access` is GL's, for instance
    /// GL_WRITE_ONLY.
    void bindImage(unsigned int unit, unsigned int access, tesk::Image& image);
    void bindImageTexture(unsigned int unit, unsigned int texture, unsigned char layered, int layer,
                          unsigned int access, unsigned int format);
    void bindBuffer(unsigned int unit, tesk::Buffer& buffer);
    void bindBuffer(unsigned int unit, unsigned int buffer, unsigned int target);
    /// Offset and size in bytes; the offset a multiple of GL's alignment for the target.
    void bindBufferRange(unsigned int unit, tesk::Buffer& buffer, unsigned int offset,
                         unsigned int size);
    /// As a storage buffer.
    void bindBufferRange_with_bufferID(unsigned int unit, unsigned int buffer, unsigned int offset,
                                       unsigned int size);
    /// Binds to uniform-block binding `index`. The name has no effect.
    void bindUniformBlockIdx(const std::string& name, tesk::Buffer& buffer, unsigned int index);

private:
    bool buildFrom(const char* source, const char* compile_failure, bool log_source);
    bool compileShader(unsigned int* shader, unsigned int type, const char* source);
    int linkProgram();
    std::string readFileToString(const std::string& path);
    int getUniformLoc(const std::string& name);

    unsigned int program = 0;
    bool linked = false;
};

}  // namespace tesk
