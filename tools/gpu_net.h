// Building a net on the GPU engine and running it, with one line for whatever fails.
#pragma once

#include <tarno/gpu.h>

#include <memory>
#include <vector>

#include "gpu_session.h"
#include "library_reports.h"
#include "model_plan.h"
#include "net_input.h"
#include "picture.h"

namespace tool {

/// A net of a model whose plan allows it.
class GpuNet {
public:
    /// Sets the session's base size to the plan's. Throws CommandError.
    GpuNet(const ModelFile& model, const ModelPlan& plan, GpuSession& session,
           LibraryReports& reports);

    /// Rounds the inputs to halves and uploads them.
    void upload(const std::vector<NetInput>& inputs);
    /// Runs all operators. `observer` may be null.
    void forward(tesk::NetObserver* observer = nullptr);
    /// The same; throws CommandError when a layer could not be dispatched.
    void forward_checked(tesk::NetObserver* observer = nullptr);

    /// The output of the layer at a position of the plan, while it holds its texture: inputs
    /// always, a layer that others read while the observer hears of it or of those.
    FloatMap read(size_t position) const;

    const tesk::Net& net() const { return built; }

private:
    struct Upload {
        int index;  ///< of the input, as the model numbers it
        std::shared_ptr<tesk::Image> image;
        TensorSize size;
    };

    const ModelFile& model;
    const ModelPlan& plan;
    LibraryReports& reports;
    std::vector<Upload> uploads;                       ///< in the order of the layer ids
    std::vector<std::shared_ptr<tesk::Image>> images;  ///< theirs
    tesk::Net built;
};

/// All slices of an image that holds its texture, as planes.
FloatMap read_image(tesk::Image& image);

}  // namespace tool
