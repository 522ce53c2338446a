// The fast guided filter, and its element programs one by one.
#include <functional>

#include "support/gl_programs.h"
#include "support/recorders.h"

namespace {

using namespace testing_support;

// --- The element programs ---------------------------------------------------------------------

class GuidedPrograms : public ProgramTest {
protected:
    /// Images on the units from 0, results on those behind them.
    std::vector<Tensor> loaded_into(tesk::ComputeProgram& program,
                                    const std::vector<Tensor>& sources, int results, Size size) {
        std::vector<std::shared_ptr<tesk::Image>> images;
        for (const Tensor& source : sources) images.push_back(upload(source));
        for (int i = 0; i < results; ++i) images.push_back(make_output(4, size.height, size.width));
        for (size_t unit = 0; unit < images.size(); ++unit) {
            program.bindImage(static_cast<unsigned int>(unit),
                              unit < sources.size() ? GL_READ_ONLY : GL_WRITE_ONLY, *images[unit]);
        }
        dispatched(program, *images.back());
        std::vector<Tensor> read;
        for (size_t unit = sources.size(); unit < images.size(); ++unit)
            read.push_back(read_back(*images[unit]));
        return read;
    }
};

TEST_F(GuidedPrograms, SetOnesFillsAllComponents) {
    for (const Size size : sizes()) {
        const auto to = make_output(3, size.height, size.width);
        tesk::ComputeProgram& program = use("setOnes_program");
        program.bindImage(1, GL_WRITE_ONLY, *to);
        expect_same(Tensor(4, size.height, size.width, 1.0), dispatched(program, *to));
    }
}

TEST_F(GuidedPrograms, MergeSamplesGuideAndMaskAtTheSamePlace) {
    unsigned int seed = 10000;
    for (const float radio : {1.0f, 2.0f, 4.0f, 2.5f}) {
        for (const Size mask_size : {Size{37, 45}, Size{18, 23}}) {
            SCOPED_TRACE(++seed);
            const Tensor guide = random_halves(4, 37, 45, seed);
            const Tensor mask = random_halves(4, mask_size.height, mask_size.width, seed + 1000);
            const Size small{static_cast<int>(37 / radio), static_cast<int>(45 / radio)};
            const auto from = upload(guide), filter = upload(mask);
            const auto to = make_output(4, small.height, small.width);
            tesk::ComputeProgram& program = use("mergeGuidedWithFilter_program");
            program.setUniform1f("sampleRadio", radio);
            program.setUnifromTexture("guidedImg", 0, *from);
            program.setUnifromTexture("filterImg", 1, *filter);
            program.bindImage(2, GL_WRITE_ONLY, *to);
            const Tensor result = dispatched(program, *to);
            Tensor expected(4, small.height, small.width), tolerance = expected;
            for (int c = 0; c < 4; ++c) {
                for (int y = 0; y < small.height; ++y) {
                    for (int x = 0; x < small.width; ++x) {
                        const double u = double{radio} * x / 45, v = double{radio} * y / 37;
                        const LinearSample sample =
                            c < 3 ? linear_sample(guide, c, u, v) : linear_sample(mask, 0, u, v);
                        expected.at(c, y, x) = sample.value;
                        tolerance.at(c, y, x) = sample.tolerance;
                    }
                }
            }
            expect_halves(expected, result, 2.0 * float_error(4, 64.0), &tolerance);
        }
    }
}

TEST_F(GuidedPrograms, ProductMultipliesColoursByTheMask) {
    unsigned int seed = 10100;
    for (const Size size : sizes()) {
        SCOPED_TRACE(++seed);
        const Tensor src = random_halves(4, size.height, size.width, seed);
        expect_halves(picture_of(size.height, size.width,
                                 [&](int y, int x) {
                                     const double p = src.at(3, y, x);
                                     return std::vector<double>{src.at(0, y, x) * p,
                                                                src.at(1, y, x) * p,
                                                                src.at(2, y, x) * p, 0.0};
                                 }),
                      loaded(use("2in_dot_product_program"), {src}, size), float_error(1, 1.0));
    }
}

TEST_F(GuidedPrograms, SquaresAndCrossProducts) {
    unsigned int seed = 10200;
    for (const Size size : sizes()) {
        SCOPED_TRACE(++seed);
        const Tensor src = random_halves(4, size.height, size.width, seed);
        const auto results = loaded_into(use("1in_dot_rrggbb_rggbbr_program"), {src}, 2, size);
        const auto v = [&](int c, int y, int x) { return src.at(c, y, x); };
        expect_halves(picture_of(size.height, size.width,
                                 [&](int y, int x) {
                                     std::vector<double> squares;
                                     for (int c = 0; c < 4; ++c)
                                         squares.push_back(v(c, y, x) * v(c, y, x));
                                     return squares;
                                 }),
                      results[0], float_error(1, 1.0));
        expect_halves(picture_of(size.height, size.width,
                                 [&](int y, int x) {
                                     return std::vector<double>{v(0, y, x) * v(1, y, x),
                                                                v(1, y, x) * v(2, y, x),
                                                                v(2, y, x) * v(0, y, x), 0.0};
                                 }),
                      results[1], float_error(1, 1.0));
    }
}

TEST_F(GuidedPrograms, CovarianceIsMeanOfProductLessProductOfMeans) {
    unsigned int seed = 10300;
    for (const Size size : sizes()) {
        SCOPED_TRACE(++seed);
        const Tensor product = random_halves(4, size.height, size.width, seed);
        const Tensor mean = random_halves(4, size.height, size.width, seed + 1000);
        expect_halves(picture_of(size.height, size.width,
                                 [&](int y, int x) {
                                     std::vector<double> cov(4, 0.0);
                                     for (int c = 0; c < 3; ++c) {
                                         cov[static_cast<size_t>(c)] =
                                             product.at(c, y, x) -
                                             mean.at(c, y, x) * mean.at(3, y, x);
                                     }
                                     return cov;
                                 }),
                      loaded(use("cal_cov_program"), {product, mean}, size), float_error(2, 1.0));
    }
}

TEST_F(GuidedPrograms, VariancesAreDividedByTheFallOffFirst) {
    unsigned int seed = 10400;
    for (const Size size : sizes()) {
        SCOPED_TRACE(++seed);
        const int h = size.height, w = size.width;
        const Tensor squares = random_halves(4, h, w, seed, 0.0, 1.0);
        const Tensor cross = random_halves(4, h, w, seed + 1000);
        const Tensor fall_off = random_halves(4, h, w, seed + 2000, 0.25, 1.0);
        const Tensor mean = random_halves(4, h, w, seed + 3000);
        const auto results =
            loaded_into(use("cal_var_program"), {squares, cross, fall_off, mean}, 2, size);
        Tensor var(4, h, w), var_cross(4, h, w);
        for (int c = 0; c < 4; ++c) {
            for (int y = 0; y < h; ++y) {
                for (int x = 0; x < w; ++x) {
                    const double m = mean.at(c, y, x), n = fall_off.at(c, y, x);
                    const double next = c < 3 ? mean.at((c + 1) % 3, y, x) : 0.0;
                    var.at(c, y, x) = squares.at(c, y, x) / n - m * m;
                    var_cross.at(c, y, x) = cross.at(c, y, x) / n - m * next;
                }
            }
        }
        expect_halves(var, results[0], float_error(3, 4.0));
        expect_halves(var_cross, results[1], float_error(3, 4.0));
    }
}

struct Model {
    double a[3];
    double b;
};

/// cov * inverse(sigma) by Cramer's rule, and the offset that carries the mean over.
Model ridge_regression(const double var[3], const double cross[3], const double cov[3],
                       const double mean[4], double eps) {
    const double rr = var[0] + eps, gg = var[1] + eps, bb = var[2] + eps;
    const double rg = cross[0], gb = cross[1], rb = cross[2];
    const double det =
        rr * (gg * bb - gb * gb) - rg * (rg * bb - gb * rb) + rb * (rg * gb - gg * rb);
    const double x = cov[0] * (gg * bb - gb * gb) - rg * (cov[1] * bb - gb * cov[2]) +
                     rb * (cov[1] * gb - gg * cov[2]);
    const double y = rr * (cov[1] * bb - gb * cov[2]) - cov[0] * (rg * bb - gb * rb) +
                     rb * (rg * cov[2] - cov[1] * rb);
    const double z = rr * (gg * cov[2] - cov[1] * gb) - rg * (rg * cov[2] - cov[1] * rb) +
                     cov[0] * (rg * gb - gg * rb);
    Model model{{x / det, y / det, z / det}, 0.0};
    model.b = mean[3] - model.a[0] * mean[0] - model.a[1] * mean[1] - model.a[2] * mean[2];
    return model;
}

TEST_F(GuidedPrograms, CoefficientsSolveTheRegressionOfEachWindow) {
    unsigned int seed = 10500;
    for (const Size size : sizes()) {
        SCOPED_TRACE(++seed);
        const int h = size.height, w = size.width;
        // Diagonally dominant: the eigenvalues of sigma lie between 0.1 and 0.4.
        const Tensor var = random_halves(4, h, w, seed, 0.18, 0.3);
        const Tensor cross = random_halves(4, h, w, seed + 1000, -0.05, 0.05);
        const Tensor cov = random_halves(4, h, w, seed + 2000, -0.3, 0.3);
        const Tensor mean = random_halves(4, h, w, seed + 3000, 0.0, 1.0);
        const float eps = 0.02f;
        tesk::ComputeProgram& program = use("cal_ab_program");
        program.setUniform1f("eps", eps);
        const Tensor result = loaded(program, {var, cross, cov, mean}, size);
        const Tensor expected = picture_of(h, w, [&](int y, int x) {
            const auto three = [&](const Tensor& t) {
                return std::vector<double>{t.at(0, y, x), t.at(1, y, x), t.at(2, y, x),
                                           t.at(3, y, x)};
            };
            const Model model =
                ridge_regression(three(var).data(), three(cross).data(), three(cov).data(),
                                 three(mean).data(), double{eps});
            return std::vector<double>{model.a[0], model.a[1], model.a[2], model.b};
        });
        // The inverse's entries are sums of products of two numbers below 0.4 over a determinant
        // above 0.1 cubed: relative errors of ten operations grow by 0.4 squared * 3 / 0.001 at
        // the most, times a covariance of 0.3, and enter b three times.
        const double growth = 0.4 * 0.4 * 3.0 / 0.001 * 0.3 * 3.0;
        expect_halves(expected, result, float_error(10, growth));
    }
}

TEST_F(GuidedPrograms, CoefficientsOfASingularMatrixAreTheMean) {
    const Size size{8, 8};
    const Tensor zero(4, 8, 8), mean = random_halves(4, 8, 8, 10600, 0.0, 1.0);
    const Tensor cov(4, 8, 8, 0.25);
    tesk::ComputeProgram& program = use("cal_ab_program");
    program.setUniform1f("eps", 0.0f);
    expect_same(picture_of(8, 8,
                           [&](int y, int x) {
                               return std::vector<double>{0, 0, 0, mean.at(3, y, x)};
                           }),
                loaded(program, {zero, zero, cov, mean}, size));
}

TEST_F(GuidedPrograms, ResultIsTheModelClampedAndNeverNan) {
    unsigned int seed = 10700;
    for (const Size size : sizes()) {
        SCOPED_TRACE(++seed);
        Tensor ab = random_halves(4, size.height, size.width, seed);
        const Tensor guide = random_halves(4, size.height, size.width, seed + 1000, 0.0, 1.0);
        ab.at(3, 0, 0) = 3.0;
        if (size.width > 1) ab.at(3, 0, 1) = -3.0;
        tesk::ComputeProgram& program = use("cal_q_program");
        expect_halves(picture_of(size.height, size.width,
                                 [&](int y, int x) {
                                     double q = ab.at(3, y, x);
                                     for (int c = 0; c < 3; ++c)
                                         q += ab.at(c, y, x) * guide.at(c, y, x);
                                     return std::vector<double>{std::clamp(q, 0.0, 1.0), 0, 0, 0};
                                 }),
                      loaded(program, {ab, guide}, size), float_error(7, 4.0));
        ab.at(0, 0, 0) = std::nan("");
        EXPECT_EQ(loaded(program, {ab, guide}, size).at(0, 0, 0), 0.0);
    }
}

// --- The filter -------------------------------------------------------------------------------

/// What becomes of a number on its way into a texture.
using Store = std::function<double(double)>;

template <typename Value>
Tensor stored(int height, int width, const Store& store, const Value& value) {
    Tensor made(4, height, width);
    for (int c = 0; c < 4; ++c) {
        for (int y = 0; y < height; ++y) {
            for (int x = 0; x < width; ++x) made.at(c, y, x) = store(value(c, y, x));
        }
    }
    return made;
}

Tensor box_step(const Tensor& src, int radius, const Tensor* div, const Store& store) {
    const int h = src.height, w = src.width;
    const Tensor rows = stored(h, w, store, [&](int c, int y, int x) {
        double sum = 0.0;
        for (int i = -radius; i <= radius; ++i) sum += value_or_zero(src, c, y, x + i);
        return sum;
    });
    return stored(h, w, store, [&](int c, int y, int x) {
        double sum = 0.0;
        for (int i = -radius; i <= radius; ++i) sum += value_or_zero(rows, c, y + i, x);
        const double side = 2 * radius + 1, mean = sum / (side * side);
        return div != nullptr ? mean / div->at(c, y, x) : mean;
    });
}

struct Setting {
    int radius;  ///< of the small picture
    double subsampling;
    double eps;
};

/// The filter step by step, with every intermediate picture stored.
Tensor by_steps(const Tensor& guide, const Tensor& mask, const Setting& setting,
                const Store& store) {
    const int h = static_cast<int>(guide.height / setting.subsampling);
    const int w = static_cast<int>(guide.width / setting.subsampling);
    const double s = setting.subsampling;
    const int r = setting.radius;
    const Tensor n = box_step(Tensor(4, h, w, 1.0), r, nullptr, store);
    const Tensor ip = stored(h, w, store, [&](int c, int y, int x) {
        const double u = s * x / guide.width, v = s * y / guide.height;
        return c < 3 ? linear_sample(guide, c, u, v).value : linear_sample(mask, 0, u, v).value;
    });
    const Tensor mean = box_step(ip, r, &n, store);
    const Tensor product = stored(h, w, store, [&](int c, int y, int x) {
        return c < 3 ? ip.at(c, y, x) * ip.at(3, y, x) : 0.0;
    });
    const Tensor mean_product = box_step(product, r, &n, store);
    const Tensor cov = stored(h, w, store, [&](int c, int y, int x) {
        return c < 3 ? mean_product.at(c, y, x) - mean.at(c, y, x) * mean.at(3, y, x) : 0.0;
    });
    const Tensor squares =
        stored(h, w, store, [&](int c, int y, int x) { return ip.at(c, y, x) * ip.at(c, y, x); });
    const Tensor cross = stored(h, w, store, [&](int c, int y, int x) {
        return c < 3 ? ip.at(c, y, x) * ip.at((c + 1) % 3, y, x) : 0.0;
    });
    const Tensor box_squares = box_step(squares, r, nullptr, store);
    const Tensor box_cross = box_step(cross, r, nullptr, store);
    const Tensor var = stored(h, w, store, [&](int c, int y, int x) {
        return box_squares.at(c, y, x) / n.at(c, y, x) - mean.at(c, y, x) * mean.at(c, y, x);
    });
    const Tensor var_cross = stored(h, w, store, [&](int c, int y, int x) {
        const double next = c < 3 ? mean.at((c + 1) % 3, y, x) : 0.0;
        return box_cross.at(c, y, x) / n.at(c, y, x) - mean.at(c, y, x) * next;
    });
    Tensor ab(4, h, w);
    for (int y = 0; y < h; ++y) {
        for (int x = 0; x < w; ++x) {
            double v[3], k[3], o[3], m[4];
            for (int c = 0; c < 3; ++c) {
                v[c] = var.at(c, y, x);
                k[c] = var_cross.at(c, y, x);
                o[c] = cov.at(c, y, x);
            }
            for (int c = 0; c < 4; ++c) m[c] = mean.at(c, y, x);
            const Model model = ridge_regression(v, k, o, m, setting.eps);
            for (int c = 0; c < 3; ++c) ab.at(c, y, x) = store(model.a[c]);
            ab.at(3, y, x) = store(model.b);
        }
    }
    const Tensor mean_ab = box_step(ab, r, &n, store);
    const Tensor full = stored(guide.height, guide.width, store, [&](int c, int y, int x) {
        return linear_sample(mean_ab, c, x / s / w, y / s / h).value;
    });
    return stored(guide.height, guide.width, store, [&](int c, int y, int x) {
        if (c > 0) return 0.0;
        double q = full.at(3, y, x);
        for (int i = 0; i < 3; ++i) q += full.at(i, y, x) * guide.at(i, y, x);
        return std::clamp(q, 0.0, 1.0);
    });
}

/// The textbook's guided filter at full size, on windows that end at the edges of the picture. The
/// filter under test reads picture and model at the corners of pixels, half a pixel up and left.
Tensor by_the_textbook(const Tensor& guide, const Tensor& mask, int radius, double eps) {
    const int h = guide.height, w = guide.width;
    const auto at_corner = [](const Tensor& t, int c, int y, int x) {
        return (value_or_zero(t, c, y - 1, x - 1) + value_or_zero(t, c, y - 1, x) +
                value_or_zero(t, c, y, x - 1) + value_or_zero(t, c, y, x)) /
               4.0;
    };
    Tensor ip(4, h, w);
    for (int y = 0; y < h; ++y) {
        for (int x = 0; x < w; ++x) {
            for (int c = 0; c < 3; ++c) ip.at(c, y, x) = at_corner(guide, c, y, x);
            ip.at(3, y, x) = at_corner(mask, 0, y, x);
        }
    }
    const auto over_window = [&](int y, int x, const auto& visit) {
        for (int j = std::max(y - radius, 0); j <= std::min(y + radius, h - 1); ++j) {
            for (int i = std::max(x - radius, 0); i <= std::min(x + radius, w - 1); ++i)
                visit(j, i);
        }
    };
    Tensor ab(4, h, w);
    for (int y = 0; y < h; ++y) {
        for (int x = 0; x < w; ++x) {
            double count = 0.0, mean[4] = {};
            over_window(y, x, [&](int j, int i) {
                count += 1.0;
                for (int c = 0; c < 4; ++c) mean[c] += ip.at(c, j, i);
            });
            for (double& m : mean) m /= count;
            // Deviations from the mean, pixel by pixel: the definition, not the shortcut.
            double var[3] = {}, cross[3] = {}, cov[3] = {};
            over_window(y, x, [&](int j, int i) {
                double d[4];
                for (int c = 0; c < 4; ++c) d[c] = ip.at(c, j, i) - mean[c];
                for (int c = 0; c < 3; ++c) {
                    var[c] += d[c] * d[c] / count;
                    cross[c] += d[c] * d[(c + 1) % 3] / count;
                    cov[c] += d[c] * d[3] / count;
                }
            });
            const Model model = ridge_regression(var, cross, cov, mean, eps);
            for (int c = 0; c < 3; ++c) ab.at(c, y, x) = model.a[c];
            ab.at(3, y, x) = model.b;
        }
    }
    Tensor mean_ab(4, h, w);
    for (int y = 0; y < h; ++y) {
        for (int x = 0; x < w; ++x) {
            double count = 0.0;
            over_window(y, x, [&](int, int) { count += 1.0; });
            for (int c = 0; c < 4; ++c) {
                over_window(y, x,
                            [&](int j, int i) { mean_ab.at(c, y, x) += ab.at(c, j, i) / count; });
            }
        }
    }
    Tensor q(4, h, w);
    for (int y = 0; y < h; ++y) {
        for (int x = 0; x < w; ++x) {
            double value = at_corner(mean_ab, 3, y, x);
            for (int c = 0; c < 3; ++c) value += at_corner(mean_ab, c, y, x) * guide.at(c, y, x);
            q.at(0, y, x) = std::clamp(value, 0.0, 1.0);
        }
    }
    return q;
}

double largest_difference(const Tensor& a, const Tensor& b) {
    double largest = 0.0;
    for (size_t i = 0; i < a.values.size(); ++i)
        largest = std::max(largest, std::fabs(a.values[i] - b.values[i]));
    return largest;
}

/// The largest difference of 40 runs of the steps with every picture in nearest halves. Float
/// arithmetic moves a number by a few parts in 2^24 before it is stored, and so to the neighbouring
/// half now and then; in each run chance decides how far. A driver is one more draw.
double worst_of_nudged_steps(const Tensor& expected, const Tensor& guide, const Tensor& mask,
                             const Setting& setting, unsigned int seed) {
    std::mt19937 generator(seed);
    std::uniform_real_distribution<double> nudge(-std::ldexp(1.0, -20), std::ldexp(1.0, -20));
    const auto nudged = [&](double v) { return nearest_half(v * (1.0 + nudge(generator))); };
    double worst = 0.0;
    for (int run = 0; run < 40; ++run)
        worst =
            std::max(worst, largest_difference(expected, by_steps(guide, mask, setting, nudged)));
    return worst;
}

/// A picture with edges and noise, and a rough mask along one of them.
Tensor scene(int height, int width, unsigned int seed) {
    Tensor picture = random_halves(4, height, width, seed, 0.0, 0.25);
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            const bool inside =
                (x - width / 2) * (x - width / 2) + (y - height / 2) * (y - height / 2) <
                width * height / 9;
            for (int c = 0; c < 3; ++c) {
                picture.at(c, y, x) =
                    nearest_half(picture.at(c, y, x) + (inside ? 0.25 * (c + 1) : 0.1));
            }
        }
    }
    return picture;
}
Tensor rough_mask(int height, int width, unsigned int seed) {
    Tensor mask = random_halves(4, height, width, seed, 0.0, 0.2);
    for (int y = 0; y < height; ++y) {
        for (int x = width / 4; x < width - width / 4; ++x)
            mask.at(0, y, x) = nearest_half(mask.at(0, y, x) + 0.8);
    }
    return mask;
}

/// One pixel block that a subsampling of 4 does not miss.
Tensor impulse_mask(int height, int width) {
    Tensor mask(4, height, width);
    for (int y = 0; y < 4; ++y) {
        for (int x = 0; x < 4; ++x) mask.at(0, height / 2 + y, width / 2 + x) = 1.0;
    }
    return mask;
}

const std::vector<std::string> guided_programs = {"setOnes_program",
                                                  "mergeGuidedWithFilter_program",
                                                  "2in_dot_product_program",
                                                  "cal_cov_program",
                                                  "1in_dot_rrggbb_rggbbr_program",
                                                  "cal_var_program",
                                                  "cal_ab_program",
                                                  "sample16f_program",
                                                  "cal_q_program",
                                                  "h_sum_16f_optimization_program",
                                                  "v_sum_16f_optimization_program",
                                                  "v_sum_16f_optimization_with_division_program"};

class FastGuidedFilter : public ProgramTest {
protected:
    void SetUp() override {
        ProgramTest::SetUp();
        register_programs(guided_programs);
    }
    Tensor filtered(const Tensor& guide, const Tensor& mask, int radius, float subsampling,
                    float eps) {
        tesk::FastGuidedFilter filter(radius, subsampling, eps, &pool, &manager);
        const auto to = make_output(4, guide.height, guide.width);
        filter.fastGuidedFilterEncode(upload(guide), upload(mask), to);
        return read_back(*to);
    }
};

TEST_F(FastGuidedFilter, AtFullSizeItIsTheTextbooksFilter) {
    unsigned int seed = 11000;
    for (const Size size : {Size{23, 31}, Size{16, 24}}) {
        SCOPED_TRACE(++seed);
        const float eps = 0.05f;
        const int radius = 3;
        const Tensor guide = scene(size.height, size.width, seed);
        const Tensor mask = rough_mask(size.height, size.width, seed + 1000);
        const Tensor expected = by_the_textbook(guide, mask, radius, double{eps});

        // What keeping fifteen pictures in halves does to the result.
        const Setting setting{radius, 1.0, double{eps}};
        const double allowed = worst_of_nudged_steps(expected, guide, mask, setting, seed);
        EXPECT_LT(allowed, 0.02) << "the bound says something";
        // Without any rounding the steps are the textbook's.
        EXPECT_LT(largest_difference(expected,
                                     by_steps(guide, mask, setting, [](double v) { return v; })),
                  1e-9);

        const Tensor result = filtered(guide, mask, radius, 1.0f, eps);
        EXPECT_LE(largest_difference(expected, result), allowed);
    }
}

TEST_F(FastGuidedFilter, AtSmallerSizesItIsItsOwnStepsWithEveryPictureInHalves) {
    struct Case {
        Size size;
        int radius;
        float subsampling;
        int small_radius;
        bool impulse;
    };
    unsigned int seed = 11100;
    for (const Case& c : {Case{{45, 62}, 8, 4.0f, 2, false}, Case{{64, 48}, 15, 4.0f, 3, false},
                          Case{{33, 41}, 5, 2.0f, 2, false}, Case{{35, 50}, 6, 2.5f, 2, false},
                          Case{{45, 62}, 8, 4.0f, 2, true}, Case{{33, 41}, 5, 2.0f, 2, true}}) {
        SCOPED_TRACE(++seed);
        const float eps = 0.02f;
        const Tensor guide = scene(c.size.height, c.size.width, seed);
        const Tensor mask = c.impulse ? impulse_mask(c.size.height, c.size.width)
                                      : rough_mask(c.size.height, c.size.width, seed + 1000);
        const Setting setting{c.small_radius, double{c.subsampling}, double{eps}};
        const Tensor expected = by_steps(guide, mask, setting, nearest_half);
        const double allowed = worst_of_nudged_steps(expected, guide, mask, setting, seed);
        EXPECT_LT(allowed, 0.02) << "the bound says something";
        const Tensor result = filtered(guide, mask, c.radius, c.subsampling, eps);
        EXPECT_LE(largest_difference(expected, result), allowed);
    }
}

TEST_F(FastGuidedFilter, AMaskOfZeroesStaysZeroEverywhere) {
    for (const float subsampling : {1.0f, 4.0f}) {
        const Tensor result =
            filtered(scene(37, 29, 11200), Tensor(4, 37, 29), 8, subsampling, 0.01f);
        expect_same(Tensor(4, 37, 29), result);
    }
}

TEST_F(FastGuidedFilter, TheResultLiesBetweenZeroAndOneAndIsZeroBeyondTheFirstComponent) {
    for (const float eps : {0.0f, 1e-6f, 0.01f}) {
        for (const float subsampling : {1.0f, 2.0f, 4.0f}) {
            const Tensor guide = random_halves(4, 41, 30, 11300, 0.0, 1.0);
            const Tensor mask = random_halves(4, 41, 30, 11301, -2.0, 3.0);
            const Tensor result = filtered(guide, mask, 8, subsampling, eps);
            for (int y = 0; y < 41; ++y) {
                for (int x = 0; x < 30; ++x) {
                    ASSERT_GE(result.at(0, y, x), 0.0);
                    ASSERT_LE(result.at(0, y, x), 1.0);
                    for (int c = 1; c < 4; ++c) ASSERT_EQ(result.at(c, y, x), 0.0);
                }
            }
        }
    }
}

TEST_F(FastGuidedFilter, AConstantGuideWithoutRegularisationGivesTheMeanOfTheMask) {
    const Tensor result = filtered(Tensor(4, 32, 32, 0.5), Tensor(4, 32, 32, 0.25), 2, 1.0f, 0.0f);
    // Away from the edges, where the border of zeroes makes a picture of the constant.
    for (int y = 8; y < 32; ++y) {
        for (int x = 8; x < 32; ++x) ASSERT_EQ(result.at(0, y, x), 0.25) << y << ", " << x;
    }
}

TEST_F(FastGuidedFilter, TheRadiusIsDividedBySubsamplingAndTruncated) {
    const Tensor guide = scene(48, 40, 11400), mask = rough_mask(48, 40, 11401);
    const Tensor eight = filtered(guide, mask, 8, 4.0f, 0.01f);
    expect_same(eight, filtered(guide, mask, 11, 4.0f, 0.01f));
    EXPECT_GT(largest_difference(eight, filtered(guide, mask, 12, 4.0f, 0.01f)), 0.01);
    EXPECT_GT(largest_difference(eight, filtered(guide, mask, 7, 4.0f, 0.01f)), 0.01);
}

TEST_F(FastGuidedFilter, AMaskOfAnotherSizeIsStretchedOverTheGuide) {
    // A flat mask is the same at every size but for the border of zeroes on the first pixels.
    const Tensor guide = scene(40, 48, 11450);
    const Tensor full = filtered(guide, Tensor(4, 40, 48, 0.75), 4, 2.0f, 0.1f);
    const Tensor small = filtered(guide, Tensor(4, 20, 24, 0.75), 4, 2.0f, 0.1f);
    for (int y = 20; y < 40; ++y) {
        for (int x = 20; x < 48; ++x) ASSERT_EQ(full.at(0, y, x), small.at(0, y, x));
    }
}

TEST_F(FastGuidedFilter, ReadCountsComeBackAndThePoolHoldsAllIntermediatesForTheNextFrame) {
    tesk::FastGuidedFilter filter(8, 4.0f, 0.01f, &pool, &manager);
    const auto guide = upload(scene(37, 45, 11500)), mask = upload(rough_mask(37, 45, 11501));
    const auto to = make_output(4, 37, 45);
    filter.fastGuidedFilterEncode(guide, mask, to);
    EXPECT_EQ(guide->readCount(), 1);
    EXPECT_EQ(mask->readCount(), 1);
    EXPECT_EQ(to->readCount(), 1);
    EXPECT_NE(guide->textureId(), 0u);
    EXPECT_EQ(pool.texturesInUse(), 3) << "guide, mask and result";
    const int textures = pool.textureCount();
    const Tensor first = read_back(*to);
    for (int frame = 0; frame < 3; ++frame) filter.fastGuidedFilterEncode(guide, mask, to);
    EXPECT_EQ(pool.textureCount(), textures);
    EXPECT_EQ(pool.texturesInUse(), 3);
    expect_same(first, read_back(*to));
}

TEST_F(FastGuidedFilter, AGuideThatNobodyWaitsForLosesItsTextureAtTheEndAndTheMaskKeepsIts) {
    tesk::FastGuidedFilter filter(4, 2.0f, 0.01f, &pool, &manager);
    const Tensor picture = scene(24, 24, 11600), rough = rough_mask(24, 24, 11601);
    const auto guide = upload(picture), mask = upload(rough);
    const auto to = make_output(4, 24, 24);
    filter.fastGuidedFilterEncode(guide, mask, to);
    const Tensor expected = read_back(*to);

    for (const auto& image : {guide, mask}) {
        // The count falls to 0 and the texture goes; the content comes anew.
        image->subReadCount();
        const Tensor& content = image == guide ? picture : rough;
        std::vector<float> texels;
        for (int y = 0; y < 24; ++y) {
            for (int x = 0; x < 24; ++x) {
                for (int c = 0; c < 4; ++c)
                    texels.push_back(static_cast<float>(content.at(c, y, x)));
            }
        }
        image->update(reinterpret_cast<const char*>(texels.data()), 0);
    }
    filter.fastGuidedFilterEncode(guide, mask, to);
    EXPECT_EQ(guide->textureId(), 0u);
    EXPECT_EQ(guide->readCount(), 0);
    EXPECT_NE(mask->textureId(), 0u);
    EXPECT_EQ(mask->readCount(), 0);
    expect_same(expected, read_back(*to));
}

TEST_F(FastGuidedFilter, AResultWithoutATextureGetsOne) {
    const Tensor guide = scene(24, 24, 11650), mask = rough_mask(24, 24, 11651);
    tesk::FastGuidedFilter filter(4, 2.0f, 0.01f, &pool, &manager);
    const auto to = make_image(4, 24, 24);
    filter.fastGuidedFilterEncode(upload(guide), upload(mask), to);
    expect_same(filtered(guide, mask, 4, 2.0f, 0.01f), read_back(*to));
}

TEST_F(FastGuidedFilter, ASubsamplingThatLeavesNoPixelOrTooManyIsAnErrorLine) {
    const auto guide = upload(scene(12, 16, 11700)), mask = upload(rough_mask(12, 16, 11701));
    const auto to = make_output(4, 12, 16);
    LogRecorder log;
    const float bad[] = {0.0f, -0.0f, -2.0f, std::nanf(""), 13.0f, HUGE_VALF, 1e-6f, 1e-44f};
    for (const float subsampling : bad) {
        tesk::FastGuidedFilter(8, subsampling, 0.01f, &pool, &manager)
            .fastGuidedFilterEncode(guide, mask, to);
    }
    ASSERT_EQ(log.lines.size(), std::size(bad));
    EXPECT_EQ(log.lines[0].text, "FastGuidedFilter: expected a subsampling above 0, found 0");
    EXPECT_EQ(log.lines[2].text, "FastGuidedFilter: expected a subsampling above 0, found -2");
    EXPECT_EQ(log.lines[4].text.rfind("FastGuidedFilter: expected 1 to ", 0), 0u);
    EXPECT_NE(log.lines[4].text.find("after subsampling by 13, found a guide 16 wide and 12 high"),
              std::string::npos);
    EXPECT_EQ(guide->readCount(), 1);
    EXPECT_EQ(pool.textureCount(), 3);
    EXPECT_TRUE(std::isnan(read_back(*to).at(0, 0, 0)));
}

TEST_F(FastGuidedFilter, EveryMissingProgramIsAnErrorLineAndNothingIsDispatched) {
    const auto guide = upload(scene(12, 16, 11800)), mask = upload(rough_mask(12, 16, 11801));
    const auto to = make_output(4, 12, 16);
    for (const std::string& missing : guided_programs) {
        SCOPED_TRACE(missing);
        tesk::ComputeProgramManager others(0, "others");
        for (const std::string& name : guided_programs) {
            if (name != missing) {
                others.addComputeProgramFromString(tesk::programSource(name), name);
            }
        }
        LogRecorder log;
        tesk::FastGuidedFilter(4, 2.0f, 0.01f, &pool, &others)
            .fastGuidedFilterEncode(guide, mask, to);
        ASSERT_EQ(log.lines.size(), 1u);
        EXPECT_NE(log.lines[0].text.find("expected the program " + missing), std::string::npos);
        EXPECT_EQ(guide->readCount(), 1);
        ASSERT_TRUE(std::isnan(read_back(*to).at(0, 0, 0)));
    }
}

TEST_F(FastGuidedFilter, ImagesOfTheWrongKindAreAnErrorLine) {
    const auto guide = upload(scene(12, 16, 11900)), mask = upload(rough_mask(12, 16, 11901));
    const auto to = make_output(4, 12, 16);
    tesk::FastGuidedFilter filter(4, 2.0f, 0.01f, &pool, &manager);
    LogRecorder log;
    filter.fastGuidedFilterEncode(nullptr, mask, to);
    filter.fastGuidedFilterEncode(guide, nullptr, to);
    filter.fastGuidedFilterEncode(guide, mask, nullptr);
    filter.fastGuidedFilterEncode(make_image(4, 12, 16, GL_RGBA8), mask, to);
    filter.fastGuidedFilterEncode(guide, make_image(8, 12, 16), to);
    ASSERT_EQ(log.lines.size(), 5u);
    EXPECT_EQ(log.lines[0].text, "FastGuidedFilter: guide: expected an image, found none");
    EXPECT_EQ(log.lines[1].text, "FastGuidedFilter: input: expected an image, found none");
    EXPECT_EQ(log.lines[2].text, "FastGuidedFilter: output: expected an image, found none");
    EXPECT_EQ(log.lines[3].text,
              "FastGuidedFilter: guide: expected the GL format 0x881a, found 0x8058");
    EXPECT_EQ(log.lines[4].text,
              "FastGuidedFilter: input: expected a picture of 1 to 4 channels, found width 16, "
              "height 12, channels 8");
    EXPECT_TRUE(std::isnan(read_back(*to).at(0, 0, 0)));
}

TEST_F(FastGuidedFilter, WithoutAPoolItIsAnErrorLine) {
    const auto image = make_output(4, 8, 8);
    LogRecorder log;
    tesk::FastGuidedFilter(2, 1.0f, 0.1f, nullptr, &manager)
        .fastGuidedFilterEncode(image, image, image);
    ASSERT_EQ(log.lines.size(), 1u);
    for (const LogRecorder::Line& line : log.lines)
        EXPECT_NE(line.text.find("expected a texture pool, found none"), std::string::npos);
    EXPECT_TRUE(std::isnan(read_back(*image).at(0, 0, 0)));
}

}  // namespace
