// Watching a run layer by layer.
#pragma once

#include <tarno/cpu.h>

#include <chrono>
#include <string>
#include <vector>

#include "model_plan.h"

namespace tool {

/// Milliseconds on the monotonic clock.
inline double milliseconds_since(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
        .count();
}

/// Times the layers on the monotonic clock. The times that the library hands over are wall-clock
/// milliseconds, which is too coarse for a layer. What is measured is the time since the end of the
/// call before, so it holds the layer itself and the few steps by which the net stores its output
/// and lets go of its bottoms.
class LayerTimer : public TarnoCPU::Statistician {
public:
    explicit LayerTimer(size_t layers, size_t runs) : times(layers) {
        for (auto& samples : times) samples.reserve(runs);
    }

    void start_run() {
        position = 0;
        previous = std::chrono::steady_clock::now();
    }

    void layer_stats(const TarnoCPU::Layer*, const TarnoCPU::Mat&, TarnoCPU::Mat&, double,
                     double) override {
        times[position++].push_back(milliseconds_since(previous));
        previous = std::chrono::steady_clock::now();
    }

    /// By position of the layer, one sample a run.
    std::vector<std::vector<double>> times;

private:
    size_t position = 0;
    std::chrono::steady_clock::time_point previous;
};

/// Names and sizes of the layers of a net, heard of in one run.
class LayerNames : public TarnoCPU::Statistician {
public:
    struct Row {
        int id;
        std::string type;
        std::string operator_name;
        TensorSize size;
    };
    std::vector<Row> rows;

    void layer_stats(const TarnoCPU::Layer* layer, const TarnoCPU::Mat&, TarnoCPU::Mat& top, double,
                     double) override {
        const TarnoCPU::TensorShape& shape = top.shape;
        const int packing = shape.layout == TarnoCPU::TensorShape::C4HW4   ? 4
                            : shape.layout == TarnoCPU::TensorShape::C8HW8 ? 8
                                                                           : 1;
        const std::string name = const_cast<TarnoCPU::Layer*>(layer)->operator_name();
        rows.push_back({layer->id,
                        layer->type,
                        name == "nullptr" ? "-" : name,
                        {int64_t{shape.c} * packing, shape.h, shape.w / packing}});
    }
};

}  // namespace tool
