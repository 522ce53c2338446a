// A tensor in a texture.
#pragma once

#include "../types.h"

namespace tesk {

class TexturePool;

/// A height x width x channels block. Channel c at column x, row y stands in slice c / 4 at texel
/// (x, y), component c % 4. Up to four channels make a plain 2D texture, more a 2D array with one
/// layer for each slice; what the last slice has beyond the channels is not part of the tensor.
///
/// The texture comes from the pool when it is first needed and goes back when the read count says
/// that nobody will read it any more: who knows of N readers to come calls `addReadCount` N times,
/// each reader calls `subReadCount` once behind its dispatch.
///
/// Sizes are passed as height, width, channels. The pool stays the caller's and must outlive the
/// image. Needs the context current wherever a texture or framebuffer is touched.
class TN_API Image {
public:
    /// No texture yet. `format` is GL's internal format, GL_RGBA16F for all tensors of the engine.
    Image(int height, int width, int channels, unsigned int format, tesk::TexturePool* pool);
    /// A size of 0 in GL_RGBA16F, until `resize`; an upload before it is logged and does nothing.
    explicit Image(tesk::TexturePool* pool);
    /// Gives the texture back.
    ~Image();
    Image(const Image&) = delete;
    /// Takes over size, format, texture, read count and pool; both then name one texture, and the
    /// first whose count falls to 0 gives it back for both. Raise the count of an image by one
    /// before it is assigned when its texture has to stay. A texture held before is forgotten, not
    /// given back: it was the other's.
    Image& operator=(const Image& other);

    /// Gives the texture back, even when the size stays the same.
    void resize(int height, int width, int channels);
    void size(int& height, int& width, int& channels) const;
    int width() const { return image_width; }
    int height() const { return image_height; }
    int channels() const { return image_channels; }
    unsigned int format() const { return image_format; }
    unsigned int textureType() const { return texture_type; }
    /// The texture as it stands: 0 when there is none.
    unsigned int textureId() const { return texture_id; }
    /// The texture, taken from the pool when there is none. 0, and a log line, without a pool or
    /// with a size that is not above 0.
    unsigned int texture();

    void addReadCount() { ++read_count; }
    /// Gives the texture back when the count comes to 0 or below.
    void subReadCount();
    int readCount() const { return read_count; }
    int getReadCount() const { return read_count; }

    /// Uploads all slices one behind the other, each row by row with interleaved components, rows
    /// without padding. The component type follows the internal format: bytes for GL_RGBA8 (four a
    /// texel), GL_RGB8 (three) and, plain textures only, GL_R8 (one); for all others four halves
    /// when `half` is not 0, four floats when it is. Null data does nothing.
    void update(const char* data, int half);

    /// Reads a slice back: width * height texels of four floats, row by row. Blocks. Without a
    /// texture, or with a slice that there is not, `dst` is left alone and a GL error is pending.
    /// Leaves framebuffer 0 bound.
    void copyTexToMemry(char* dst, int slice);
    void copyTexToMemry(float* dst, int slice);
    /// The first component as bytes 0 to 255, one a pixel.
    void copyTexToMemry_c1(char* dst, int slice);

    /// The corners of every channel as text, to the log at verbose level.
    void printOutput();
    /// The same to a file of text.
    void saveToBin(const char* path);
    void saveToBin_onMobilePhone(const char* path);
    /// Every value of every channel as text, ten a line.
    void saveToBin_audio(const char* path);
    /// Raw floats, plane after plane of all slices, with the components beyond the channels too.
    void saveTo_CHW_Format_bin(const char* path);
    /// Does nothing.
    void saveToPng(const char* path, int value);

private:
    void acquireTexure();
    void releaseTexture();
    void bindFbo(int slice);
    void unbindFbo();
    void readComponent(float* dst, int slice, int component);
    int slices() const { return image_channels / 4 + (image_channels % 4 > 0 ? 1 : 0); }

    unsigned int texture_id = 0;
    unsigned int framebuffer = 0;
    int image_width = 0;
    int image_height = 0;
    int image_channels = 0;
    int read_count = 0;
    unsigned int image_format;
    unsigned int texture_type = 0;
    tesk::TexturePool* pool;
};

}  // namespace tesk
