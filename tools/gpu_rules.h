// What a model will do on the GPU engine, worked out from its records before a context is made.
#pragma once

#include "model_plan.h"

namespace tool {

/// Which of the engine's generators a net gets.
struct GpuOptions {
    int tricks_mode = 4;      ///< 0: four-point and constant-index forms, all others the basic ones
    int ubo_slice_limit = 0;  ///< 0: weights in storage buffers; above: uniform blocks, if no more
};

/// Sizes are those of the file's relative shapes at the base size: unlike the CPU engine's they do
/// not follow from the kernels. Memory is that of textures, all held at once at the worst.
///
/// Refused are layers that the engine has no operator for, and those whose output it would leave
/// unwritten or compute in another way than the model means: a window, factor, activation or
/// dilation that its shaders do not have, channels that are no whole slices where whole slices are
/// moved, sizes beyond what every OpenGL 4.3 takes.
ModelPlan make_gpu_plan(const ModelFile& model, const PlanOptions& options, const GpuOptions& gpu);

}  // namespace tool
