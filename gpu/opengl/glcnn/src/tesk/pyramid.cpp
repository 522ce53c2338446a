#include "pyramid.h"

#include "glutil/gl.h"
#include "picture_pass.h"

namespace tesk {

Pyramid::Pyramid(int width, int height, int number, TexturePool* pool,
                 ComputeProgramManager* manager)
    : base_image(std::make_shared<Image>(height, width, 3, GL_RGBA16F, pool)),
      width(width),
      height(height),
      number(number),
      pool(pool),
      manager(manager) {
    base_image->addReadCount();
}

void Pyramid::buildPyramid(std::shared_ptr<Image> src) {
    const char* const operation = "buildPyramid";
    if (!hasPool(operation, pool) || !isPicture(operation, "src", src) ||
        !isPicture(operation, "base", base_image)) {
        return;
    }
    const auto program = needProgram(operation, manager, "transform_rgb2y_program");
    if (program == nullptr) return;
    holdTextures({src.get(), base_image.get()});
    program->use();
    program->setUnifromTextureWithTexID("src", 0, src->texture());
    program->bindImageTexture(1, base_image->texture(), 0, 0, GL_WRITE_ONLY, GL_RGBA16F);
    computeOver(*program, base_image->width(), base_image->height(),
                (base_image->channels() + 3) / 4);
}

void Pyramid::GaussianPyramid_sampler(std::shared_ptr<Image> src, std::shared_ptr<Image> dst) {
    const char* const operation = "GaussianPyramid_sampler";
    if (!hasPool(operation, pool) || !isPicture(operation, "src", src, GL_RGBA16F) ||
        !isPicture(operation, "dst", dst, GL_RGBA16F)) {
        return;
    }
    const auto along_rows = needProgram(operation, manager, "gaussianPyramid_h_program");
    const auto along_columns = needProgram(operation, manager, "gaussianPyramid_v_program");
    if (along_rows == nullptr || along_columns == nullptr) return;

    Image narrow(src->height(), dst->width(), 1, GL_RGBA16F, pool);
    along_rows->use();
    along_rows->bindImageTexture(0, src->texture(), 0, 0, GL_READ_ONLY, GL_RGBA16F);
    along_rows->bindImageTexture(1, narrow.texture(), 0, 0, GL_WRITE_ONLY, GL_RGBA16F);
    computeOver(*along_rows, dst->width(), src->height());
    narrow.addReadCount();

    along_columns->use();
    along_columns->bindImageTexture(0, narrow.texture(), 0, 0, GL_READ_ONLY, GL_RGBA16F);
    along_columns->bindImageTexture(1, dst->texture(), 0, 0, GL_WRITE_ONLY, GL_RGBA16F);
    computeOver(*along_columns, dst->width(), dst->height());
    narrow.subReadCount();
}

}  // namespace tesk
