#include "gpu_net.h"

#include <crossplatform/src/common/src/half_float.h>
#include <GL/glew.h>

#include <algorithm>

#include "errors.h"

namespace tool {
namespace {

/// Kinds that take programs of the built-in catalogue.
bool needs_catalogue(const ModelPlan& plan) {
    return std::any_of(plan.layers.begin(), plan.layers.end(), [](const PlannedLayer& layer) {
        return layer.type == ZQLayerType_PixelShuffle || layer.type == ZQLayerType_TensorReshape ||
               layer.type == ZQLayerType_FullConnection || layer.type == ZQLayerType_Upsampling;
    });
}

}  // namespace

GpuNet::GpuNet(const ModelFile& model, const ModelPlan& plan, GpuSession& session,
               LibraryReports& reports)
    : model(model), plan(plan), reports(reports) {
    session.manager.netWidth = static_cast<int>(plan.base_w);
    session.manager.netHeight = static_cast<int>(plan.base_h);
    reports.forget_error();
    if (needs_catalogue(plan)) {
        session.manager.initProgramBinary(tesk::BinFileInfo{}, &session.manager);
    }
    const bool made = built.loadFromFile(model.file, &session.pool, &session.manager);
    if (!made || !reports.error().empty()) {
        throw CommandError(model.path + ": " +
                           (reports.error().empty()
                                ? "expected the GPU engine to set it up, found that it could not"
                                : reports.error()));
    }
    for (const PlannedLayer& layer : plan.layers) {
        for (const ModelInput& input : plan.inputs) {
            if (input.id != layer.id) continue;
            uploads.push_back({input.index,
                               std::make_shared<tesk::Image>(
                                   static_cast<int>(layer.size->h), static_cast<int>(layer.size->w),
                                   static_cast<int>(layer.size->c), GL_RGBA16F, &session.pool),
                               *layer.size});
            // The texture stays this image's through all runs.
            uploads.back().image->addReadCount();
            images.push_back(uploads.back().image);
        }
    }
}

void GpuNet::upload(const std::vector<NetInput>& inputs) {
    for (Upload& upload : uploads) {
        const auto input = std::find_if(inputs.begin(), inputs.end(), [&](const NetInput& each) {
            return each.index == upload.index;
        });
        const TensorSize& size = upload.size;
        const size_t plane = static_cast<size_t>(size.h * size.w);
        const size_t slices = static_cast<size_t>((size.c + 3) / 4);
        std::vector<float> texels(slices * plane * 4);
        const float* values = input->tensor.ptr<float>();
        for (size_t c = 0; c < static_cast<size_t>(size.c); ++c) {
            float* to = &texels[c / 4 * plane * 4 + c % 4];
            for (size_t i = 0; i < plane; ++i) to[i * 4] = values[c * plane + i];
        }
        std::vector<unsigned short> halves(texels.size());
        Tarno::floats_to_halves(texels.data(), halves.data(), halves.size());
        upload.image->update(reinterpret_cast<const char*>(halves.data()), 1);
    }
    built.setInputs(images);
}

void GpuNet::forward(tesk::NetObserver* observer) {
    built.setObserver(observer);
    built.forward();
    built.setObserver(nullptr);
}

void GpuNet::forward_checked(tesk::NetObserver* observer) {
    reports.forget_error();
    forward(observer);
    glFinish();
    const GLenum error = glGetError();
    if (!reports.error().empty()) throw CommandError(model.path + ": " + reports.error());
    if (error != GL_NO_ERROR) {
        throw CommandError(model.path + ": expected a run without a GL error, found " +
                           std::to_string(error));
    }
}

FloatMap GpuNet::read(size_t position) const {
    const PlannedLayer& layer = plan.layers[position];
    const std::shared_ptr<tesk::Image> image = built.getFeature(layer.id);
    if (image == nullptr || image->textureId() == 0) {
        throw CommandError(layer_fault(model.path, layer.id, layer.type,
                                       "expected a texture with the output, found none"));
    }
    return read_image(*image);
}

FloatMap read_image(tesk::Image& image) {
    FloatMap map;
    map.c = image.channels();
    map.h = image.height();
    map.w = image.width();
    const size_t plane = static_cast<size_t>(map.h) * static_cast<size_t>(map.w);
    map.values.resize(static_cast<size_t>(map.c) * plane);
    std::vector<float> texels(plane * 4);
    for (int c = 0; c < map.c; ++c) {
        if (c % 4 == 0) image.copyTexToMemry(texels.data(), c / 4);
        float* to = &map.values[static_cast<size_t>(c) * plane];
        for (size_t i = 0; i < plane; ++i) to[i] = texels[i * 4 + static_cast<size_t>(c % 4)];
    }
    return map;
}

}  // namespace tool
