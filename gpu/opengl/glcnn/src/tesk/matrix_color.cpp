#include "matrix_color.h"

#include <initializer_list>

#include "glutil/gl.h"
#include "picture_pass.h"
#include "program_sources.h"

namespace tesk {

namespace {

struct Source {
    const char* sampler;
    std::shared_ptr<Image> image;
};

/// A program that every operation registers by itself, under `name`, from the text of `file`.
struct Transform {
    const char* operation;
    const char* name;
    const char* file;
};

std::shared_ptr<ComputeProgram> registered(ComputeProgramManager* manager,
                                           const Transform& transform) {
    if (manager != nullptr && !manager->IsExistComputeProgram(transform.name)) {
        manager->addComputeProgramFromString(programSource(transform.file), transform.name);
    }
    return needProgram(transform.operation, manager, transform.name);
}

bool usable(const char* operation, std::initializer_list<Source> sources,
            const std::shared_ptr<Image>& dst) {
    for (const Source& source : sources) {
        if (!isPicture(operation, source.sampler, source.image)) return false;
    }
    return isPicture(operation, "dst", dst, GL_RGBA16F);
}

struct NoUniforms {
    void operator()(ComputeProgram&) const {}
};

/// Samplers on the units 0, 1, 2 in their order, dst on `image_unit`; threads over `grid`.
template <typename Uniforms = NoUniforms>
void run(ComputeProgramManager* manager, const Transform& transform,
         std::initializer_list<Source> sources, const std::shared_ptr<Image>& dst,
         unsigned int image_unit, const Image* grid, const Uniforms& set_uniforms = Uniforms()) {
    const std::shared_ptr<ComputeProgram> program = registered(manager, transform);
    if (program == nullptr) return;
    program->use();
    for (const Source& source : sources) {
        source.image->addReadCount();
        holdTextures({source.image.get()});
    }
    holdTextures({dst.get()});
    int unit = 0;
    for (const Source& source : sources) {
        program->setUnifromTextureWithTexID(source.sampler, unit++, source.image->texture());
    }
    program->bindImageTexture(image_unit, dst->texture(), 0, 0, GL_WRITE_ONLY, GL_RGBA16F);
    set_uniforms(*program);
    computeOver(*program, grid->width(), grid->height());
    for (const Source& source : sources) source.image->subReadCount();
}

void runOverTarget(ComputeProgramManager* manager, const Transform& transform,
                   const std::shared_ptr<Image>& src, const std::shared_ptr<Image>& dst) {
    if (!usable(transform.operation, {{"src", src}}, dst)) return;
    run(manager, transform, {{"src", src}}, dst, 1, dst.get());
}

// The quarter turns alone run over the source.
void runOverSource(ComputeProgramManager* manager, const Transform& transform,
                   const std::shared_ptr<Image>& src, const std::shared_ptr<Image>& dst) {
    if (!usable(transform.operation, {{"src", src}}, dst)) return;
    run(manager, transform, {{"src", src}}, dst, 1, src.get());
}

float alignedCornersScale(int from, int to) {
    return to > 1 ? static_cast<float>(from - 1) / static_cast<float>(to - 1) : 0.0f;
}

}  // namespace

MatrixColor::MatrixColor(TexturePool* pool, ComputeProgramManager* manager)
    : pool(pool), manager(manager) {}

MatrixColor::~MatrixColor() = default;

void MatrixColor::ConvertBGR2RGB(std::shared_ptr<Image> src, std::shared_ptr<Image> dst) {
    runOverTarget(manager, {"ConvertBGR2RGB", "cvtBGR2RGB_program", "swapRGB_program"}, src, dst);
}

void MatrixColor::ConvertYUV2RGB(std::shared_ptr<Image> y, std::shared_ptr<Image> u,
                                 std::shared_ptr<Image> v, std::shared_ptr<Image> dst) {
    const Transform transform{"ConvertYUV2RGB", "YUV2RGB_program", "YUV2RGB_program"};
    if (!usable(transform.operation, {{"Ysrc", y}, {"Usrc", u}, {"Vsrc", v}}, dst)) return;
    run(manager, transform, {{"Ysrc", y}, {"Usrc", u}, {"Vsrc", v}}, dst, 3, dst.get());
}

void MatrixColor::CopyImage(std::shared_ptr<Image> src, std::shared_ptr<Image> dst) {
    runOverTarget(manager, {"CopyImage", "copy_8uc_to_16f", "copy_8uc_to_16f"}, src, dst);
}

void MatrixColor::Flip_Horizontal(std::shared_ptr<Image> src, std::shared_ptr<Image> dst) {
    runOverTarget(manager, {"Flip_Horizontal", "flip_h_program", "flip_h_program"}, src, dst);
}

void MatrixColor::Flip_Vertical(std::shared_ptr<Image> src, std::shared_ptr<Image> dst) {
    runOverTarget(manager, {"Flip_Vertical", "flip_v_program", "flip_v_program"}, src, dst);
}

void MatrixColor::Rotate180(std::shared_ptr<Image> src, std::shared_ptr<Image> dst) {
    runOverTarget(manager, {"Rotate180", "rotate180_program", "rotate180_program"}, src, dst);
}

void MatrixColor::Rotate90(std::shared_ptr<Image> src, std::shared_ptr<Image> dst) {
    runOverSource(manager, {"Rotate90", "rotate90_program", "rotate90_program"}, src, dst);
}

void MatrixColor::Rotate270(std::shared_ptr<Image> src, std::shared_ptr<Image> dst) {
    runOverSource(manager, {"Rotate270", "rotate270_program", "rotate270_program"}, src, dst);
}

void MatrixColor::ResizeImage(std::shared_ptr<Image>& src, std::shared_ptr<Image>& dst) {
    const Transform transform{"ResizeImage", "sampling_align_corners_program",
                              "sampling_align_corners_program"};
    if (!usable(transform.operation, {{"src", src}}, dst)) return;
    run(manager, transform, {{"src", src}}, dst, 1, dst.get(), [&](ComputeProgram& program) {
        program.setUniform1f("_width_scale_factor",
                             alignedCornersScale(src->width(), dst->width()));
        program.setUniform1f("_height_scale_factor",
                             alignedCornersScale(src->height(), dst->height()));
    });
}

}  // namespace tesk
