#include "box_filter.h"

#include "glutil/gl.h"
#include "picture_pass.h"
#include "platform/tn_core.h"

namespace tesk {

namespace {

const char* const operation = "BoxFilter";

}  // namespace

BoxFilter::BoxFilter(int radius, int format, TexturePool* pool, ComputeProgramManager* manager)
    : format(format), radius(radius), pool(pool), manager(manager) {
    if (format == GL_RGBA16F) {
        h_sum = needProgram(operation, manager, "h_sum_16f_optimization_program");
        v_sum = needProgram(operation, manager, "v_sum_16f_optimization_program");
        v_sum_with_division =
            needProgram(operation, manager, "v_sum_16f_optimization_with_division_program");
    } else {
        h_sum = needProgram(operation, manager, "h_sum_32f_optimization_program");
        v_sum = needProgram(operation, manager, "v_sum_32f_optimization_program");
        v_sum_with_division =
            needProgram(operation, manager, "v_sum_32f_optimization_with_division_program");
    }
}

bool BoxFilter::isReady() const {
    return h_sum != nullptr && v_sum != nullptr && v_sum_with_division != nullptr;
}

bool BoxFilter::accepts(const std::shared_ptr<Image>& src,
                        const std::shared_ptr<Image>& dst) const {
    if (!isReady()) {
        Tarno::_LogError("Tarno", "%s: its programs were not registered when it was made",
                         operation);
        return false;
    }
    const unsigned int gl_format = static_cast<unsigned int>(format);
    return hasPool(operation, pool) && isPicture(operation, "src", src, gl_format) &&
           isPicture(operation, "dst", dst, gl_format);
}

std::shared_ptr<Image> BoxFilter::sumRows(const std::shared_ptr<Image>& src) {
    const unsigned int gl_format = static_cast<unsigned int>(format);
    // One channel is a plain 2D texture; all four components go through it.
    auto sums = std::make_shared<Image>(src->height(), src->width(), 1, gl_format, pool);
    src->addReadCount();
    h_sum->use();
    h_sum->bindImageTexture(0, src->texture(), 0, 0, GL_READ_ONLY, gl_format);
    h_sum->bindImageTexture(1, sums->texture(), 0, 0, GL_WRITE_ONLY, gl_format);
    h_sum->setUniform1i("filterSizeHalf", radius);
    computeOver(*h_sum, src->width(), src->height());
    src->subReadCount();
    sums->addReadCount();
    return sums;
}

void BoxFilter::boxFilterEncode(std::shared_ptr<Image> src, std::shared_ptr<Image> dst) {
    if (!accepts(src, dst)) return;
    const unsigned int gl_format = static_cast<unsigned int>(format);
    const std::shared_ptr<Image> sums = sumRows(src);
    v_sum->use();
    v_sum->bindImageTexture(0, sums->texture(), 0, 0, GL_READ_ONLY, gl_format);
    v_sum->bindImageTexture(1, dst->texture(), 0, 0, GL_WRITE_ONLY, gl_format);
    v_sum->setUniform1i("filterSizeHalf", radius);
    computeOver(*v_sum, src->width(), src->height());
    sums->subReadCount();
}

void BoxFilter::boxFilterWithElementWiseDivision(std::shared_ptr<Image> src,
                                                 std::shared_ptr<Image> div,
                                                 std::shared_ptr<Image> dst) {
    const unsigned int gl_format = static_cast<unsigned int>(format);
    if (!accepts(src, dst) || !isPicture(operation, "div", div, gl_format)) return;
    const std::shared_ptr<Image> sums = sumRows(src);
    v_sum_with_division->use();
    v_sum_with_division->bindImageTexture(0, sums->texture(), 0, 0, GL_READ_ONLY, gl_format);
    v_sum_with_division->bindImageTexture(1, div->texture(), 0, 0, GL_READ_ONLY, gl_format);
    v_sum_with_division->bindImageTexture(2, dst->texture(), 0, 0, GL_WRITE_ONLY, gl_format);
    v_sum_with_division->setUniform1i("filterSizeHalf", radius);
    computeOver(*v_sum_with_division, src->width(), src->height());
    sums->subReadCount();
}

}  // namespace tesk
