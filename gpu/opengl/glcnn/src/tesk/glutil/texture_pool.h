// Textures that are handed from tensor to tensor.
#pragma once

#include <cstddef>
#include <vector>

#include "../types.h"

namespace tesk {

/// Never frees during a run: a texture that comes back is marked free and handed out again for the
/// next request of exactly its height, width, channels, format and type. Needs the context current
/// for `acquireTexture` and `release`.
class TN_API TexturePool {
public:
    /// The number is stored and has no effect.
    explicit TexturePool(int value);
    /// An empty pool: textures are never shared between pools.
    TexturePool(tesk::TexturePool& other);
    /// Leaves the GL textures alone: call `release` first, while the context is current.
    ~TexturePool();
    TexturePool& operator=(const TexturePool&) = delete;

    /// Id of a texture for a tensor: the first free one of this shape, or a new one. `type` is
    /// GL_TEXTURE_2D for up to four channels, GL_TEXTURE_2D_ARRAY above; `format` an internal format
    /// of GL. 0, with a log line, when the size is not above 0 or no context was ever made.
    unsigned int acquireTexture(int height, int width, int channels, unsigned int type,
                                unsigned int format);
    /// Marks the texture free and sets `id` to 0. An id that is not of this pool stays as it is.
    void releaseTexture(unsigned int& id);
    /// Deletes all textures, those in use too; images that hold one are not told.
    void release();

    /// Books list entries, not memory of the GPU: that many textures more than booked before can be
    /// made without anything from the heap.
    void reserve(int count);

    /// Textures of the pool, and how many of them are handed out.
    int textureCount() const { return static_cast<int>(textures.size()); }
    int texturesInUse() const;
    /// Bytes of all textures, by size and format.
    long long textureBytes() const;

private:
    struct _Texture {
        int height;
        int width;
        int channels;
        unsigned int format;
        bool in_use;
        unsigned int id;
        unsigned int type;
    };

    size_t findFitTexture(int height, int width, int channels, unsigned int type,
                          unsigned int format) const;
    size_t findTexture(unsigned int id) const;
    unsigned int createTexture(_Texture& entry, int height, int width, int channels,
                               unsigned int format);

    std::vector<_Texture> textures;  ///< in order of creation
    size_t reserved = 0;
    [[maybe_unused]] int value;
};

}  // namespace tesk
