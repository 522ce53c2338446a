#include "gaussian_filter.h"

#include "glutil/gl.h"
#include "picture_pass.h"
#include "platform/tn_core.h"

namespace tesk {

namespace {

const char* const operation = "GaussianFilter";

void pass(ComputeProgram& program, Image& from, Image& to, unsigned int format) {
    program.use();
    program.bindImageTexture(0, from.texture(), 0, 0, GL_READ_ONLY, format);
    program.bindImageTexture(1, to.texture(), 0, 0, GL_WRITE_ONLY, format);
    computeOver(program, from.width(), from.height());
}

}  // namespace

GaussianFilter::GaussianFilter(int format, TexturePool* pool, ComputeProgramManager* manager)
    : format(format), pool(pool), manager(manager) {
    if (format != GL_RGBA16F) return;
    h_gaussian = needProgram(operation, manager, "h_gaussian_sum_16f_program");
    v_gaussian = needProgram(operation, manager, "v_gaussian_sum_16f_program");
}

bool GaussianFilter::isReady() const {
    return h_gaussian != nullptr && v_gaussian != nullptr;
}

void GaussianFilter::gaussianFliterEncode(std::shared_ptr<Image> src, std::shared_ptr<Image> dst) {
    const unsigned int gl_format = static_cast<unsigned int>(format);
    if (format != GL_RGBA16F) {
        Tarno::_LogError("Tarno", "%s: expected the GL format 0x%x, found 0x%x", operation,
                         GL_RGBA16F, gl_format);
        return;
    }
    if (!isReady()) {
        Tarno::_LogError("Tarno", "%s: its programs were not registered when it was made",
                         operation);
        return;
    }
    if (!hasPool(operation, pool) || !isPicture(operation, "src", src, gl_format) ||
        !isPicture(operation, "dst", dst, gl_format)) {
        return;
    }
    // One channel is a plain 2D texture; all four components go through it.
    Image blurred_rows(src->height(), src->width(), 1, gl_format, pool);
    src->addReadCount();
    pass(*h_gaussian, *src, blurred_rows, gl_format);
    src->subReadCount();
    blurred_rows.addReadCount();
    pass(*v_gaussian, blurred_rows, *dst, gl_format);
    blurred_rows.subReadCount();
}

}  // namespace tesk
