// What the GPU engine has, by its layer tables.
#pragma once

#include <tarno/model.h>

#include <string>

namespace modelkit::onnx {

class GpuRules {
public:
    /// The base size of the model in pixels.
    GpuRules(unsigned int base_w, unsigned int base_h) : base_w(base_w), base_h(base_h) {}

    /// Empty when the engine runs the layer and gives what the CPU engine gives; else what it
    /// expects and what it found.
    std::string fault(const ZQLayerInfo& record) const;

private:
    std::string shape_fault(const shape3& shape, bool truncates) const;

    unsigned int base_w;
    unsigned int base_h;
};

}  // namespace modelkit::onnx
