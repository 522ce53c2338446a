// `tarno gpu-info`: what the GPU engine finds on this machine.
#pragma once

namespace tool {

struct GpuInfoCommand {
    bool verbose = false;
};

/// Prints the ways to a display that were tried, and driver and limits of the chosen one. Throws
/// CommandError, behind the ways, when there is no context with OpenGL 4.3.
void gpu_info(const GpuInfoCommand& command);

}  // namespace tool
