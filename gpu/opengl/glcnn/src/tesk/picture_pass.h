// What the picture operations share: tests of their arguments, and the grid of their dispatches. No
// public header includes it.
#pragma once

#include <initializer_list>
#include <memory>

#include "compute_program_manager.h"
#include "glutil/compute_program.h"
#include "glutil/image.h"

namespace tesk {

/// Work groups of eight threads that cover `size` texels.
inline unsigned int groupsOfEight(int size) {
    return size > 0 ? (static_cast<unsigned int>(size) + 7) / 8 : 0;
}

/// One thread per texel of a picture of this size.
inline void computeOver(ComputeProgram& program, int width, int height, int slices = 1) {
    program.compute(groupsOfEight(width), groupsOfEight(height), static_cast<unsigned int>(slices));
}

/// Gives every image that has none its texture, before anything is bound: behind it a pass is binds
/// and a dispatch alone. The pool puts back what it unbinds while it makes a texture.
inline void holdTextures(std::initializer_list<Image*> images) {
    for (Image* image : images) image->texture();
}

/// Whether `image` is a picture that the operation can bind: there, plain 2D (up to four channels),
/// and of `format` unless that is 0. When it is not, an error line says what was found.
bool isPicture(const char* operation, const char* role, const std::shared_ptr<Image>& image,
               unsigned int format = 0);

/// Whether there is a pool for temporary pictures; an error line names the operation otherwise.
bool hasPool(const char* operation, const TexturePool* pool);

/// The program registered under `name`, or null, without leaving an empty entry behind that would
/// keep the name from being registered later.
std::shared_ptr<ComputeProgram> findProgram(ComputeProgramManager* manager, const char* name);

/// The same; an error line names the operation and the program when there is none.
std::shared_ptr<ComputeProgram> needProgram(const char* operation, ComputeProgramManager* manager,
                                            const char* name);

}  // namespace tesk
