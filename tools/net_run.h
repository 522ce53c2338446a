// Building a net and running it, with one line for whatever fails.
#pragma once

#include <tarno/cpu.h>

#include <vector>

#include "library_reports.h"
#include "metered_memory.h"
#include "model_plan.h"
#include "net_input.h"

namespace tool {

/// A net that was built from a model whose plan allows it.
class RunnableNet {
public:
    /// By `table`, one entry for each layer, or by the default rule. Throws CommandError when the
    /// library asserts.
    RunnableNet(const ModelFile& model, const ModelPlan& plan, LibraryReports& reports,
                const std::vector<TarnoCPU::LayerInferenceConfig>* table = nullptr);

    const TarnoCPU::TarnoNet& net() const { return built; }

    /// Forgets what recurrent layers remember of earlier runs.
    void reset_state() { built.reset_lstm_state(); }

    /// Position in `net().layers` of what computes the blob of a layer id: its fused activation
    /// when it has one.
    int position_of(int id) const;
    int last_position() const { return static_cast<int>(built.layers.size()) - 1; }

    struct Settings {
        bool light_mode = true;
        TarnoCPU::Allocator* blob_allocator = nullptr;
        TarnoCPU::Allocator* workspace_allocator = nullptr;
        const MemoryMeter* meter = nullptr;  ///< of the allocators, for what an error says
    };
    static Settings on(MeteredPools& pools, bool light_mode = true) {
        return {light_mode, pools.blob_allocator(), pools.workspace_allocator(), &pools.meter};
    }
    static Settings on(MeteredHeap& heap) { return {true, &heap, &heap, &heap.meter}; }

    /// Runs the layers up to a position and gives the tensor of the last. Throws CommandError that
    /// names the layer when one fails. `stats` hears of every layer, and may be null.
    TarnoCPU::Mat run_checked(const std::vector<NetInput>& inputs, int position,
                              const Settings& settings, TarnoCPU::Statistician* stats) const;

    /// The same as a host does it, with no look at what happens on the way. Throws CommandError
    /// when the run fails.
    TarnoCPU::Mat run(const std::vector<NetInput>& inputs, int position, const Settings& settings,
                      TarnoCPU::Statistician* stats) const;

    /// The kind of a layer's record.
    const PlannedLayer& planned(const TarnoCPU::Layer& layer) const;

private:
    const ModelFile& model;
    const ModelPlan& plan;
    LibraryReports& reports;
    TarnoCPU::TarnoNet built;
};

/// The elements of a float tensor in the order of channels, rows and columns, whatever its layout,
/// and its size in channels, rows and columns.
std::vector<float> values_of(const TarnoCPU::Mat& tensor, TensorSize& size);

}  // namespace tool
