// Texture contents on the CPU without a stall: a ring of pixel-pack buffers.
#pragma once

#include "../types.h"

namespace tesk {

/// With a ring of n buffers, call number n + 1 delivers the frame of call 1. Needs the context
/// current, in the destructor too. Width comes before height here.
class TN_API PboDownloader {
public:
    PboDownloader();
    ~PboDownloader();
    PboDownloader(const PboDownloader&) = delete;
    PboDownloader& operator=(const PboDownloader&) = delete;

    /// `format` is GL_RED, GL_GREEN, GL_BLUE, GL_RGB or GL_RGBA, `type` GL's component type. Four
    /// bytes are kept for each component, whatever the type. 0, or in this order of tests: -1 there
    /// is a ring, -3 another format, -4 a size of 0, -5 no memory for the frame, -2 a count below 1,
    /// -3 no memory for the ring. More than ten buffers are only warned of. There is no way back:
    /// a second size wants a second object.
    int init(unsigned int format, unsigned int type, int width, int height, int count);

    /// Reads the framebuffer that is bound for reading. True: a frame stands in `data()`. Before
    /// `init` it does nothing and is false.
    bool download();
    /// Reads a texture: `target` GL_TEXTURE_2D, or an array with its layer. The framebuffer that was
    /// bound is bound again.
    bool download(unsigned int target, unsigned int texture, int layer);

    /// The frame last fetched, rows padded to GL's pack alignment, at most to four bytes. Null before
    /// `init` and when it refused the size or format. Stays the downloader's.
    unsigned char* data() { return pixels; }

private:
    /// Of the tests: the counter wraps once in 2^32 frames.
    friend struct PboDownloaderProbe;

    void bindFbo(unsigned int target, unsigned int texture, int layer);
    bool checkSupported();

    unsigned int framebuffer = 0;
    unsigned int pixel_format = 0;
    unsigned int pixel_type;
    unsigned int* pbos = nullptr;
    int pbo_count = 0;
    unsigned int ring_position = 0;
    unsigned int download_count = 0;
    int frame_width = 0;
    int frame_height = 0;
    int byte_size = 0;
    unsigned char* pixels = nullptr;
    bool supported = false;
};

}  // namespace tesk
