// Guided filter with a colour guide: refines a mask along the edges of a picture.
#pragma once

#include <memory>

#include "types.h"

namespace tesk {

class ComputeProgramManager;
class Image;
class TexturePool;

/// In each window the mask is modelled as a . guide + b, with a kept small by `eps`; the model is
/// fitted on a picture smaller by `subsampling` each way and applied at full size.
///
/// Both resizes sample at the corner of a pixel, not at its centre, and beyond the picture stands
/// 0: the result fades on the first rows and columns, and on the last ones of a picture whose size
/// `subsampling` does not divide.
class TN_API FastGuidedFilter {
public:
    /// `radius`: reach of the window in pixels of the guide; the windows of the small picture
    /// reach radius / subsampling, truncated. `subsampling`: 1 or more in practice, above 0 at any
    /// rate. `eps`: added to the variances of the guide, whose components run from 0 to 1; the
    /// larger, the smoother. Half floats carry 11 bits, so that less than about 1e-3 leaves noise
    /// in flat areas. Pool and manager stay the caller's and must outlive the filter.
    FastGuidedFilter(int radius, float subsampling, float eps, TexturePool* pool,
                     ComputeProgramManager* manager);

    /// guide: 2D, GL_RGBA16F, RGB. input: 2D of any format, the mask in its first component; mostly
    /// of the guide's size, but any size is stretched over it. output: 2D, GL_RGBA16F, of the
    /// guide's size, becomes (mask between 0 and 1, 0, 0, 0).
    ///
    /// Read counts: the guide gets one and gives it back at the end, so that one that comes with a
    /// count of 0 loses its texture; those of input and output are not touched. All intermediate
    /// textures are back in the pool at the end.
    ///
    /// The catalogue's general group must be registered. A missing program, pool or image, or one
    /// of the wrong kind, a subsampling that is not above 0 or leaves no pixel (or more than a
    /// texture holds) is an error line; nothing is dispatched and no count touched. Needs the
    /// context current.
    void fastGuidedFilterEncode(std::shared_ptr<Image> guide, std::shared_ptr<Image> input,
                                std::shared_ptr<Image> output);

private:
    float subsampling;
    float inverse_subsampling;
    float eps;
    int radius;
    int subsampled_radius;
    TexturePool* pool;
    ComputeProgramManager* manager;
};

}  // namespace tesk
