// One model on both engines, the outputs of all layers side by side.
#pragma once

#include <crossplatform/src/common/src/half_float.h>
#include <GL/glew.h>
#include <gtest/gtest.h>
#include <tarno/cpu.h>
#include <tarno/gpu.h>
#include <tarno/model.h>

#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "support/gl_fixture.h"
#include "tools/difference_bound.h"
#include "tools/layer_judgement.h"

namespace testing_support {

/// By layer id.
using EnginePairs = std::map<int, tool::EnginePair>;

/// Numbers of a tensor in the order of channels, rows, columns, whatever the layout.
inline std::vector<float> plain_values(const TarnoCPU::Mat& tensor) {
    const TarnoCPU::TensorShape& shape = tensor.shape;
    const size_t lanes = shape.layout == TarnoCPU::TensorShape::C4HW4 ? 4 : 1;
    const size_t plane = static_cast<size_t>(shape.h) * static_cast<size_t>(shape.w) / lanes;
    const float* from = tensor.ptr<float>();
    std::vector<float> values(static_cast<size_t>(shape.c) * lanes * plane);
    for (size_t c = 0; c < static_cast<size_t>(shape.c) * lanes; ++c) {
        for (size_t i = 0; i < plane; ++i)
            values[c * plane + i] = from[c / lanes * plane * lanes + i * lanes + c % lanes];
    }
    return values;
}

/// Hears of every layer of the CPU run. A fused activation comes behind its layer, under one id.
class CpuRecorder : public TarnoCPU::Statistician {
public:
    explicit CpuRecorder(EnginePairs& pairs) : pairs(pairs) {}
    void layer_stats(const TarnoCPU::Layer* layer, const TarnoCPU::Mat&, TarnoCPU::Mat& top, double,
                     double) override {
        pairs[layer->id].cpu = plain_values(top);
    }

private:
    EnginePairs& pairs;
};

/// Reads every output of the GPU run while it still holds its texture.
class GpuRecorder : public tesk::NetObserver {
public:
    using Around = std::function<void(int layer, bool before)>;
    explicit GpuRecorder(EnginePairs& pairs, Around around = nullptr)
        : pairs(pairs), around(std::move(around)) {}
    void beforeOperator(int, int layer, tesk::Image&) override {
        if (around) around(layer, true);
    }
    void afterOperator(int, int layer, tesk::Image& output) override {
        if (around) around(layer, false);
        take(layer, output);
    }
    void take(int layer, tesk::Image& image) {
        ASSERT_NE(image.textureId(), 0u) << "layer " << layer;
        const int plane = image.height() * image.width();
        std::vector<float> texels(static_cast<size_t>(plane) * 4);
        tool::EnginePair& pair = pairs[layer];
        pair.size = {image.channels(), image.height(), image.width()};
        pair.gpu.clear();
        for (int c = 0; c < image.channels(); ++c) {
            if (c % 4 == 0) image.copyTexToMemry(texels.data(), c / 4);
            for (int i = 0; i < plane; ++i)
                pair.gpu.push_back(texels[static_cast<size_t>(i * 4 + c % 4)]);
        }
    }

private:
    EnginePairs& pairs;
    Around around;
};

/// Texels of a c x h x w tensor as halves, slice after slice.
inline std::vector<unsigned short> half_texels(const std::vector<float>& values, int c, int h,
                                               int w) {
    const size_t plane = static_cast<size_t>(h) * static_cast<size_t>(w);
    std::vector<unsigned short> texels(static_cast<size_t>((c + 3) / 4) * plane * 4, 0);
    for (size_t q = 0; q < static_cast<size_t>(c); ++q) {
        for (size_t i = 0; i < plane; ++i)
            texels[q / 4 * plane * 4 + i * 4 + q % 4] = Tarno::float_to_half(values[q * plane + i]);
    }
    return texels;
}

struct RunHooks {
    /// May change the numbers that the GPU engine alone gets; the pair of the input keeps what both
    /// should have got.
    std::function<void(std::vector<float>&)> misread;
    /// Hears of each operator of the GPU run.
    GpuRecorder::Around around;
};

/// Runs the model at `path`, whose one input is layer 0, on both engines with random numbers of a
/// seed. Its relative sizes multiply the manager's base size.
inline EnginePairs run_both_engines(const std::string& path, tesk::TexturePool& pool,
                                    tesk::ComputeProgramManager& manager, unsigned int seed,
                                    const RunHooks& hooks = {}) {
    EnginePairs pairs;
    tesk::Net gpu;
    if (!gpu.loadFromFile(path, &pool, &manager)) {
        ADD_FAILURE() << "the GPU engine does not take the model";
        return pairs;
    }
    const std::shared_ptr<tesk::Image> feature = gpu.getFeature(0);
    const int c = feature->channels(), h = feature->height(), w = feature->width();
    std::mt19937 generator(seed);
    std::vector<float> values(static_cast<size_t>(c * h * w));
    for (float& value : values) value = static_cast<float>(generator() >> 8) * 0x1p-23f - 1.0f;

    const auto image = std::make_shared<tesk::Image>(h, w, c, GL_RGBA16F, &pool);
    image->addReadCount();
    image->update(reinterpret_cast<const char*>(half_texels(values, c, h, w).data()), 1);
    GpuRecorder gpu_recorder(pairs, hooks.around);
    gpu_recorder.take(0, *image);
    if (hooks.misread) {
        std::vector<float> read = values;
        hooks.misread(read);
        image->update(reinterpret_cast<const char*>(half_texels(read, c, h, w).data()), 1);
    }
    std::vector<std::shared_ptr<tesk::Image>> images = {image};
    gpu.setInputs(images);
    gpu.setObserver(&gpu_recorder);
    gpu.forward();
    gpu.setObserver(nullptr);

    ZQNetLoader loader;
    EXPECT_TRUE(loader.LoadFile(path.c_str(), false));
    TarnoCPU::TarnoNet cpu;
    cpu.load_tarno_net_with_inference_config(loader, nullptr);
    TarnoCPU::TarnoNetExtractor extractor = cpu.create_extractor();
    const TarnoCPU::Mat in = TarnoCPU::Mat::from_float_array(values.data(), w, h, c,
                                                             TarnoCPU::TensorShape::CHW, nullptr);
    EXPECT_EQ(extractor.input(0, in), 0);
    CpuRecorder cpu_recorder(pairs);
    TarnoCPU::Mat out;
    EXPECT_EQ(extractor.extract(extractor.get_last_layer_index(), out, &cpu_recorder), 0);
    pairs[0].cpu = values;
    return pairs;
}

/// What the outputs of layer `record` may differ by, given those of the layers that it reads.
inline std::vector<float> bound_of(const ZQLayerInfo& record, const EnginePairs& pairs,
                                   const tool::GpuOptions& gpu) {
    std::vector<const tool::EnginePair*> bottoms;
    for (int i = 0; i < record.bottom_count; ++i) bottoms.push_back(&pairs.at(record.bottoms[i]));
    const tool::EnginePair& output = pairs.at(record.id);
    return bottoms.empty() ? tool::explained_input_difference(output)
                           : tool::explained_difference(record, bottoms, output, gpu);
}

/// Every element of the layer has a bound, a finite one, and keeps it.
inline void expect_judged_to_agree(const std::string& name, const tool::EnginePair& pair,
                                   const std::vector<float>& bound) {
    const tool::Judgement judgement = tool::judge(pair, bound);
    EXPECT_EQ(judgement.unbounded, 0u)
        << name << ": no bound for element " << judgement.first_unbounded << " of " << bound.size()
        << ": " << pair.cpu[judgement.first_unbounded] << " on the CPU, "
        << pair.gpu[judgement.first_unbounded] << " on the GPU";
    EXPECT_FALSE(judgement.beyond())
        << name << ", element " << judgement.worst << " of " << bound.size() << ": "
        << pair.cpu[judgement.worst] << " on the CPU, " << pair.gpu[judgement.worst]
        << " on the GPU, at most " << judgement.worst_bound << " apart";
}

}  // namespace testing_support
