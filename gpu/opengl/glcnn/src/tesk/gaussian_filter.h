// Gaussian blur of deviation 1 with five taps, in two passes.
#pragma once

#include <memory>

#include "types.h"

namespace tesk {

class ComputeProgram;
class ComputeProgramManager;
class Image;
class TexturePool;

/// The edge pixel stands for what lies beyond it, so that a constant picture stays as it is. Images
/// are 2D, of the filter's format and of one size; all four components are filtered. A temporary
/// picture comes from the pool and goes back to it.
///
/// Read counts: the first pass adds one to src and takes it away again. A src that comes with a
/// count of 0 loses its texture, so raise the count to read it again. dst is not touched.
class TN_API GaussianFilter {
public:
    /// There are programs for GL_RGBA16F alone; a filter of another format holds none. Pool and
    /// manager stay the caller's and must outlive the filter; the catalogue's general group (or
    /// that of segmentation) must be registered.
    GaussianFilter(int format, TexturePool* pool, ComputeProgramManager* manager);

    /// Whether the filter holds its programs.
    bool isReady() const;

    /// Blurs src into dst. A filter without programs or pool, a missing image or one of the wrong
    /// format is an error line; nothing is dispatched and no count touched. Needs the context
    /// current.
    void gaussianFliterEncode(std::shared_ptr<Image> src, std::shared_ptr<Image> dst);

private:
    int format;
    std::shared_ptr<ComputeProgram> h_gaussian;
    std::shared_ptr<ComputeProgram> v_gaussian;
    TexturePool* pool;
    ComputeProgramManager* manager;
};

}  // namespace tesk
