// Picture operations of one dispatch each: colour conversion, copy, flip, quarter turns, resize.
#pragma once

#include <memory>

#include "types.h"

namespace tesk {

class ComputeProgramManager;
class Image;
class TexturePool;

/// Brings a frame into the orientation and format that a network wants. Each operation registers
/// its program with the manager on its first use, so that no group of the catalogue is needed.
///
/// Sources are 2D images (up to four channels) of any format with a texture in them, destinations
/// 2D images of GL_RGBA16F that the caller has made in the size of the result. Both are read by
/// texel, dst[y][x] from src[y][x]; what a destination has beyond the picture that comes out of the
/// source is undefined, what it lacks is dropped.
///
/// Read counts: an operation adds one to each source and takes it away after the dispatch. A source
/// that comes with a count of 0 loses its texture; raise the count to read it again.
///
/// A missing image, one of the wrong kind or a missing manager is an error line that names the
/// operation, and nothing is dispatched and no count touched. Needs the context current.
class TN_API MatrixColor {
public:
    /// Both stay the caller's and must outlive this object.
    MatrixColor(TexturePool* pool, ComputeProgramManager* manager);
    ~MatrixColor();

    /// dst = (src.z, src.y, src.x, 0). Its own inverse but for the fourth component.
    void ConvertBGR2RGB(std::shared_ptr<Image> src, std::shared_ptr<Image> dst);
    /// Planar 4:2:0 YUV (BT.709, full range, components 0 to 1, each plane in its first component)
    /// to (r, g, b, 0), not clamped. `u` and `v` have half the size of `y`, rounded up.
    void ConvertYUV2RGB(std::shared_ptr<Image> y, std::shared_ptr<Image> u,
                        std::shared_ptr<Image> v, std::shared_ptr<Image> dst);
    /// dst = src, all four components.
    void CopyImage(std::shared_ptr<Image> src, std::shared_ptr<Image> dst);
    /// dst[y][W - x - 1] = src[y][x], W and H here and below the size of dst.
    void Flip_Horizontal(std::shared_ptr<Image> src, std::shared_ptr<Image> dst);
    /// dst[H - y - 1][x] = src[y][x].
    void Flip_Vertical(std::shared_ptr<Image> src, std::shared_ptr<Image> dst);
    /// dst[H - y - 1][W - x - 1] = src[y][x].
    void Rotate180(std::shared_ptr<Image> src, std::shared_ptr<Image> dst);
    /// Clockwise: dst[x][W - y - 1] = src[y][x]. dst is as wide as src is high.
    void Rotate90(std::shared_ptr<Image> src, std::shared_ptr<Image> dst);
    /// Counter-clockwise: dst[H - x - 1][y] = src[y][x]. dst is as wide as src is high.
    void Rotate270(std::shared_ptr<Image> src, std::shared_ptr<Image> dst);
    /// Bilinear, with the corner pixels of both pictures upon each other. A width (or height) of
    /// dst of 1 reads column (or row) 0.
    void ResizeImage(std::shared_ptr<Image>& src, std::shared_ptr<Image>& dst);

private:
    TexturePool* pool;
    ComputeProgramManager* manager;
};

}  // namespace tesk
