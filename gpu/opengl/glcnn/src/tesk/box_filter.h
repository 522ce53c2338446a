// Mean over a square window, in two passes.
#pragma once

#include <memory>

#include "types.h"

namespace tesk {

class ComputeProgram;
class ComputeProgramManager;
class Image;
class TexturePool;

/// The window has 2 * radius + 1 pixels a side. What lies outside the picture counts as 0 and the
/// divisor stays the whole window, so that the mean falls off within `radius` pixels of an edge;
/// dividing by the mean of ones makes up for that.
///
/// Images are 2D, of the filter's format, and of one size; all four components are filtered. A
/// temporary picture comes from the pool and goes back to it.
///
/// Read counts: the first pass adds one to src and takes it away again. A src that comes with a
/// count of 0 loses its texture, so raise the count to read it again. div and dst are not touched.
///
/// A filter whose programs were not registered when it was made, a missing pool or image, or one of
/// the wrong format is an error line; nothing is dispatched and no count touched. Needs the context
/// current.
class TN_API BoxFilter {
public:
    /// GL_RGBA16F takes the programs on half floats, any other format those on GL_RGBA32F, the only
    /// other format that they fit. Sums of half floats end at 65504 and carry 11 bits. Pool and
    /// manager stay the caller's and must outlive the filter; the catalogue's general group must
    /// be registered.
    BoxFilter(int radius, int format, TexturePool* pool, ComputeProgramManager* manager);

    /// Whether the programs were registered when the filter was made.
    bool isReady() const;

    /// dst[y][x] = sum of src over the window / (2 * radius + 1) squared.
    void boxFilterEncode(std::shared_ptr<Image> src, std::shared_ptr<Image> dst);
    /// The same, divided by div[y][x], component by component.
    void boxFilterWithElementWiseDivision(std::shared_ptr<Image> src, std::shared_ptr<Image> div,
                                          std::shared_ptr<Image> dst);

private:
    bool accepts(const std::shared_ptr<Image>& src, const std::shared_ptr<Image>& dst) const;
    std::shared_ptr<Image> sumRows(const std::shared_ptr<Image>& src);

    int format;
    int radius;
    std::shared_ptr<ComputeProgram> h_sum;
    std::shared_ptr<ComputeProgram> v_sum;
    std::shared_ptr<ComputeProgram> v_sum_with_division;
    TexturePool* pool;
    ComputeProgramManager* manager;
};

}  // namespace tesk
