// Which layers of a converted model the GPU engine runs and gives what the CPU engine gives.
#pragma once

#include <tarno/model.h>

#include <string>

#include "modelkit/gpu_layers.h"

namespace modelkit::onnx {

/// Sees the layers of one model, one behind the other.
class GpuRules {
public:
    /// The base size of the model in pixels.
    GpuRules(unsigned int base_w, unsigned int base_h) : base_w(base_w), base_h(base_h) {}

    /// Empty when the engine runs the layer and gives what the CPU engine gives; else what is
    /// expected and what was found.
    std::string fault(const ZQLayerInfo& record);

private:
    std::string shape_fault(const shape3& shape, const GpuTruncatedWork& work) const;

    unsigned int base_w;
    unsigned int base_h;
    GpuPaddings paddings;
};

}  // namespace modelkit::onnx
