#include "fast_guided_filter.h"

#include <initializer_list>

#include "box_filter.h"
#include "glutil/gl.h"
#include "picture_pass.h"
#include "platform/tn_core.h"

namespace tesk {

namespace {

const char* const operation = "FastGuidedFilter";

using Picture = std::shared_ptr<Image>;

// In the order of the steps.
enum Step { Ones, Merge, Product, Covariance, Squares, Variance, Coefficients, Upsample, Result };
const char* const step_programs[] = {"setOnes_program",
                                     "mergeGuidedWithFilter_program",
                                     "2in_dot_product_program",
                                     "cal_cov_program",
                                     "1in_dot_rrggbb_rggbbr_program",
                                     "cal_var_program",
                                     "cal_ab_program",
                                     "sample16f_program",
                                     "cal_q_program"};
const int step_count = Result + 1;

void bindRead(ComputeProgram& program, unsigned int unit, const Picture& image) {
    program.bindImageTexture(unit, image->texture(), 0, 0, GL_READ_ONLY, GL_RGBA16F);
}

void bindWrite(ComputeProgram& program, unsigned int unit, const Picture& image) {
    program.bindImageTexture(unit, image->texture(), 0, 0, GL_WRITE_ONLY, GL_RGBA16F);
}

/// One step on a program in use: inputs on the units from 0, outputs on those behind them, a thread
/// per texel of the outputs. An input that nobody else waits for loses its texture.
void elementPass(ComputeProgram& program, std::initializer_list<Picture> inputs,
                 std::initializer_list<Picture> outputs) {
    for (const Picture& input : inputs) input->addReadCount();
    unsigned int unit = 0;
    for (const Picture& input : inputs) bindRead(program, unit++, input);
    for (const Picture& output : outputs) bindWrite(program, unit++, output);
    const Image& grid = **outputs.begin();
    computeOver(program, grid.width(), grid.height());
    for (const Picture& input : inputs) input->subReadCount();
}

/// `value` cut to an int, or `otherwise` where no int holds it.
int truncated(float value, int otherwise) {
    return value > -2147483648.0f && value < 2147483648.0f ? static_cast<int>(value) : otherwise;
}

}  // namespace

FastGuidedFilter::FastGuidedFilter(int radius, float subsampling, float eps, TexturePool* pool,
                                   ComputeProgramManager* manager)
    : subsampling(subsampling),
      inverse_subsampling(1.0f / subsampling),
      eps(eps),
      radius(radius),
      subsampled_radius(truncated(static_cast<float>(radius) / subsampling, 0)),
      pool(pool),
      manager(manager) {}

void FastGuidedFilter::fastGuidedFilterEncode(std::shared_ptr<Image> guide,
                                              std::shared_ptr<Image> input,
                                              std::shared_ptr<Image> output) {
    if (!hasPool(operation, pool) || !isPicture(operation, "guide", guide, GL_RGBA16F) ||
        !isPicture(operation, "input", input) ||
        !isPicture(operation, "output", output, GL_RGBA16F)) {
        return;
    }
    if (!(subsampling > 0.0f)) {
        Tarno::_LogError("Tarno", "%s: expected a subsampling above 0, found %g", operation,
                         static_cast<double>(subsampling));
        return;
    }
    const int h = truncated(static_cast<float>(guide->height()) / subsampling, -1);
    const int w = truncated(static_cast<float>(guide->width()) / subsampling, -1);
    GLint largest = 0;
    glGetIntegerv(GL_MAX_TEXTURE_SIZE, &largest);
    if (h < 1 || w < 1 || h > largest || w > largest) {
        Tarno::_LogError(
            "Tarno",
            "%s: expected 1 to %d pixels a side after subsampling by %g, found a guide "
            "%d wide and %d high",
            operation, largest, static_cast<double>(subsampling), guide->width(), guide->height());
        return;
    }
    std::shared_ptr<ComputeProgram> programs[step_count];
    for (int step = 0; step < step_count; ++step) {
        programs[step] = needProgram(operation, manager, step_programs[step]);
        if (programs[step] == nullptr) return;
    }
    BoxFilter box(subsampled_radius, GL_RGBA16F, pool, manager);
    if (!box.isReady()) return;

    const auto small = [&] { return std::make_shared<Image>(h, w, 3, GL_RGBA16F, pool); };
    const auto begin = [&](Step step) -> ComputeProgram& {
        programs[step]->use();
        return *programs[step];
    };
    guide->addReadCount();

    const Picture ones = small();
    {
        ComputeProgram& program = begin(Ones);
        bindWrite(program, 1, ones);
        computeOver(program, w, h, (ones->channels() + 3) / 4);
    }
    // Less than 1 near the edges, as every other box mean is.
    const Picture fall_off = small();
    box.boxFilterEncode(ones, fall_off);
    fall_off->addReadCount();

    const Picture guide_and_mask = small();
    {
        ComputeProgram& program = begin(Merge);
        holdTextures({guide.get(), input.get(), guide_and_mask.get()});
        program.setUniform1f("sampleRadio", subsampling);
        program.setUnifromTextureWithTexID("guidedImg", 0, guide->texture());
        program.setUnifromTextureWithTexID("filterImg", 1, input->texture());
        bindWrite(program, 2, guide_and_mask);
        computeOver(program, w, h);
    }
    guide_and_mask->addReadCount();
    const Picture mean = small();
    box.boxFilterWithElementWiseDivision(guide_and_mask, fall_off, mean);
    mean->addReadCount();

    const Picture product = small();
    elementPass(begin(Product), {guide_and_mask}, {product});
    const Picture mean_product = small();
    box.boxFilterWithElementWiseDivision(product, fall_off, mean_product);
    const Picture covariance = small();
    elementPass(begin(Covariance), {mean_product, mean}, {covariance});

    const Picture squares = small(), cross = small();
    elementPass(begin(Squares), {guide_and_mask}, {squares, cross});
    guide_and_mask->subReadCount();
    const Picture box_squares = small(), box_cross = small();
    box.boxFilterEncode(squares, box_squares);
    box.boxFilterEncode(cross, box_cross);
    const Picture variance = small(), variance_cross = small();
    elementPass(begin(Variance), {box_squares, box_cross, fall_off, mean},
                {variance, variance_cross});

    const Picture coefficients = small();
    {
        ComputeProgram& program = begin(Coefficients);
        program.setUniform1f("eps", eps);
        elementPass(program, {variance, variance_cross, covariance, mean}, {coefficients});
    }
    mean->subReadCount();
    const Picture mean_coefficients = small();
    box.boxFilterWithElementWiseDivision(coefficients, fall_off, mean_coefficients);

    const auto full = std::make_shared<Image>(guide->height(), guide->width(), 3, GL_RGBA16F, pool);
    {
        ComputeProgram& program = begin(Upsample);
        mean_coefficients->addReadCount();
        holdTextures({mean_coefficients.get(), full.get()});
        program.setUniform1f("sampleRadio", inverse_subsampling);
        program.setUnifromTextureWithTexID("src", 0, mean_coefficients->texture());
        bindWrite(program, 1, full);
        computeOver(program, full->width(), full->height());
        mean_coefficients->subReadCount();
    }
    elementPass(begin(Result), {full, guide}, {output});

    fall_off->subReadCount();
    guide->subReadCount();
}

}  // namespace tesk
