// What the GPU engine has, by the records of layers: the one table of who refuses layers for it and
// of who tells what it will do.
#pragma once

#include <tarno/model.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>

namespace modelkit {

struct GpuFault {
    std::string expected;
    std::string found;
};

/// What a record asks for that the engine has no shader for, or computes without: kernels,
/// dilations, activations, factors, counts of bottoms. Sizes are not looked at. Nothing where the
/// engine has it.
std::optional<GpuFault> gpu_layer_fault(const ZQLayerInfo& record);

/// What the engines compute in two ways, a noun and why; empty where they mean the same.
std::string unlike_on_gpu(const ZQLayerInfo& record);

/// Images have the size that a shape means rounded. Some programs count their work by a size cut
/// off instead, in groups of 8 by 8 invocations, of which each does `step` by `step` pixels.
struct GpuTruncatedWork {
    const shape3* shape = nullptr;  ///< of the record; null where the program goes by the image
    int step = 1;
};
GpuTruncatedWork gpu_truncated_work(const ZQLayerInfo& record);
/// Whether these groups reach the last of `rounded` pixels along a side.
bool gpu_work_covers(int64_t truncated, int64_t rounded, int step);

/// What every implementation of OpenGL 4.3 has at least.
constexpr int64_t GPU_MOST_SIDE = 16384;
constexpr int64_t GPU_MOST_SLICES = 2048;
/// A storage buffer of 16 MiB is what 4.3 asks for; 4.5 and every driver in use have this.
constexpr int64_t GPU_MOST_WEIGHT_BYTES = int64_t{1} << 27;
/// Slices of four channels.
constexpr int64_t gpu_slices(int64_t channels) {
    return (channels + 3) / 4;
}
std::optional<GpuFault> gpu_texture_fault(int64_t c, int64_t h, int64_t w);
/// Bytes of the weights of a convolution of any kind as they are packed; 0 for other layers. For
/// records without a fault.
int64_t gpu_weight_bytes(const ZQLayerInfo& record);

/// The programs of depthwise convolutions and poolings have the padding of the layer that came
/// first in them, and names that do not tell it.
class GpuPaddings {
public:
    /// The fault of a layer with another padding than the first of its program has.
    /// `names_channels` is how programs with uniform blocks are named.
    std::optional<GpuFault> add(const ZQLayerInfo& record, bool names_channels);
    /// The same for a program of another name.
    std::optional<GpuFault> add(const std::string& program, int id, int pad_w, int pad_h);

private:
    struct First {
        int id;
        int w;
        int h;
    };
    std::map<std::string, First> paddings;
};

}  // namespace modelkit
