// Luminance of a frame, and reduction of images by an octave: the steps of a Gaussian pyramid.
#pragma once

#include <memory>

#include "types.h"

namespace tesk {

class ComputeProgramManager;
class Image;
class TexturePool;

/// Owns the base level; all other levels are the caller's. Needs the context current, in the
/// destructor too, and the catalogue's general group registered. A missing program, pool or image,
/// or one of the wrong kind is an error line, and nothing is dispatched.
class TN_API Pyramid {
public:
    /// Size of the base in pixels, width first. `number` has no effect. Pool and manager stay the
    /// caller's and must outlive the pyramid, and images made from `base()`.
    Pyramid(int width, int height, int number, TexturePool* pool, ComputeProgramManager* manager);

    /// base[y][x] = (0.299 r + 0.587 g + 0.114 b, 0, 0, 0) of src[y][x], a 2D image of any format.
    /// What src has beyond the base is dropped, what it lacks counts as 0. The read count of src
    /// is not touched.
    void buildPyramid(std::shared_ptr<Image> src);

    /// Blurs src with the taps 1, 4, 6, 4, 1 each way and keeps every second pixel, from (0, 0) on;
    /// the edge pixel stands for what lies beyond it. Both are 2D and GL_RGBA16F, all components
    /// are reduced. A dst of half the size of src, rounded up, is one octave; the step is 2 for any
    /// other size, too. No read count but that of a temporary picture is touched.
    void GaussianPyramid_sampler(std::shared_ptr<Image> src, std::shared_ptr<Image> dst);

    /// The base level, GL_RGBA16F with 3 channels. Its texture stays held through a read count of
    /// one that is the pyramid's.
    const std::shared_ptr<Image>& base() const { return base_image; }

private:
    std::shared_ptr<Image> base_image;
    int width;
    int height;
    int number;
    TexturePool* pool;
    ComputeProgramManager* manager;
};

}  // namespace tesk
