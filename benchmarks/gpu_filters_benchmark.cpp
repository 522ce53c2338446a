// Picture transforms, filters and the pyramid on the GPU engine: milliseconds on the driver at
// hand, beside a plain single-threaded loop of the same operation over floats in the same run.
// Before a row is timed its result is compared with the loop's.
//
// bytes_px: bytes that the shaders load and store for each pixel of the full picture, as designed:
// every texelFetch and imageLoad counts its texel, a sample of the linear filter four of them.
// cpu_ms: the loop. of_cpu: how many times faster (above 1) or slower the driver is. The driver is
// named in the context lines; where it is llvmpipe, shaders run on the processor's cores.
#include <benchmark/benchmark.h>
#include <GL/glew.h>
#include <tarno/gpu.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using Picture = std::shared_ptr<tesk::Image>;

double seconds_since(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// --- The processor's side ---------------------------------------------------------------------

/// Four floats a pixel, row by row.
struct Floats {
    int height = 0;
    int width = 0;
    std::vector<float> values;

    Floats(int height, int width)
        : height(height),
          width(width),
          values(4 * static_cast<size_t>(height) * static_cast<size_t>(width)) {}
    float* at(int y, int x) {
        return values.data() +
               4 * (static_cast<size_t>(y) * static_cast<size_t>(width) + static_cast<size_t>(x));
    }
    const float* at(int y, int x) const { return const_cast<Floats*>(this)->at(y, x); }
};

/// Smooth, between 0 and 1, and held by halves exactly.
Floats test_picture(int height, int width) {
    Floats made(height, width);
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            for (int c = 0; c < 4; ++c) {
                const double wave = std::sin(0.02 * x * (c + 1)) * std::cos(0.03 * y + c);
                made.at(y, x)[c] = static_cast<float>(std::round(512.0 + 500.0 * wave) / 1024.0);
            }
        }
    }
    return made;
}

template <typename Pixel>
void for_each_pixel(Floats& dst, const Pixel& pixel) {
    for (int y = 0; y < dst.height; ++y) {
        for (int x = 0; x < dst.width; ++x) pixel(y, x, dst.at(y, x));
    }
}

void cpu_copy(const Floats& src, Floats& dst) {
    for_each_pixel(dst, [&](int y, int x, float* to) { std::copy_n(src.at(y, x), 4, to); });
}

void cpu_swap(const Floats& src, Floats& dst) {
    for_each_pixel(dst, [&](int y, int x, float* to) {
        const float* from = src.at(y, x);
        to[0] = from[2];
        to[1] = from[1];
        to[2] = from[0];
        to[3] = 0.0f;
    });
}

void cpu_yuv(const Floats& luma, const Floats& u, const Floats& v, Floats& dst) {
    for_each_pixel(dst, [&](int y, int x, float* to) {
        const float l = luma.at(y, x)[0];
        const float cu = u.at(y / 2, x / 2)[0] - 0.5f, cv = v.at(y / 2, x / 2)[0] - 0.5f;
        to[0] = l + 1.57481f * cv;
        to[1] = l - 0.18732f * cu - 0.46813f * cv;
        to[2] = l + 1.8556f * cu;
        to[3] = 0.0f;
    });
}

void cpu_flip_h(const Floats& src, Floats& dst) {
    for_each_pixel(
        dst, [&](int y, int x, float* to) { std::copy_n(src.at(y, dst.width - 1 - x), 4, to); });
}

void cpu_flip_v(const Floats& src, Floats& dst) {
    for_each_pixel(
        dst, [&](int y, int x, float* to) { std::copy_n(src.at(dst.height - 1 - y, x), 4, to); });
}

void cpu_rotate180(const Floats& src, Floats& dst) {
    for_each_pixel(dst, [&](int y, int x, float* to) {
        std::copy_n(src.at(dst.height - 1 - y, dst.width - 1 - x), 4, to);
    });
}

void cpu_rotate90(const Floats& src, Floats& dst) {
    for_each_pixel(
        dst, [&](int y, int x, float* to) { std::copy_n(src.at(dst.width - 1 - x, y), 4, to); });
}

void cpu_rotate270(const Floats& src, Floats& dst) {
    for_each_pixel(
        dst, [&](int y, int x, float* to) { std::copy_n(src.at(x, dst.height - 1 - y), 4, to); });
}

void cpu_resize(const Floats& src, Floats& dst) {
    const float sx = dst.width > 1 ? static_cast<float>(src.width - 1) / (dst.width - 1) : 0.0f;
    const float sy = dst.height > 1 ? static_cast<float>(src.height - 1) / (dst.height - 1) : 0.0f;
    for_each_pixel(dst, [&](int y, int x, float* to) {
        const float py = sy * y, px = sx * x;
        const int y0 = static_cast<int>(py), x0 = static_cast<int>(px);
        const int y1 = std::min(y0 + 1, src.height - 1), x1 = std::min(x0 + 1, src.width - 1);
        const float fy = py - y0, fx = px - x0;
        for (int c = 0; c < 4; ++c) {
            const float top = src.at(y0, x0)[c] * (1 - fx) + src.at(y0, x1)[c] * fx;
            const float bottom = src.at(y1, x0)[c] * (1 - fx) + src.at(y1, x1)[c] * fx;
            to[c] = top * (1 - fy) + bottom * fy;
        }
    });
}

/// Weighted sums along a line; `at` gives the pixel of a step, or null for a 0.
template <typename At>
void line_sum(const std::vector<float>& weights, float divisor, float* to, const At& at) {
    float sum[4] = {};
    for (size_t i = 0; i < weights.size(); ++i) {
        const float* from = at(static_cast<int>(i));
        if (from == nullptr) continue;
        for (int c = 0; c < 4; ++c) sum[c] += weights[i] * from[c];
    }
    for (int c = 0; c < 4; ++c) to[c] = sum[c] / divisor;
}

void cpu_box(const Floats& src, int radius, const Floats* div, Floats& dst) {
    Floats rows(src.height, src.width);
    for_each_pixel(rows, [&](int y, int x, float* to) {
        float sum[4] = {};
        for (int i = std::max(x - radius, 0); i <= std::min(x + radius, src.width - 1); ++i) {
            for (int c = 0; c < 4; ++c) sum[c] += src.at(y, i)[c];
        }
        std::copy_n(sum, 4, to);
    });
    const float side = static_cast<float>(2 * radius + 1);
    for_each_pixel(dst, [&](int y, int x, float* to) {
        float sum[4] = {};
        for (int i = std::max(y - radius, 0); i <= std::min(y + radius, src.height - 1); ++i) {
            for (int c = 0; c < 4; ++c) sum[c] += rows.at(i, x)[c];
        }
        for (int c = 0; c < 4; ++c)
            to[c] = sum[c] / (side * side) / (div != nullptr ? div->at(y, x)[c] : 1.0f);
    });
}

void cpu_gaussian(const Floats& src, Floats& dst) {
    const std::vector<float> kernel = {0.05448868f, 0.24420134f, 0.40261995f, 0.24420134f,
                                       0.05448868f};
    Floats rows(src.height, src.width);
    for_each_pixel(rows, [&](int y, int x, float* to) {
        line_sum(kernel, 1.0f, to,
                 [&](int i) { return src.at(y, std::clamp(x - 2 + i, 0, src.width - 1)); });
    });
    for_each_pixel(dst, [&](int y, int x, float* to) {
        line_sum(kernel, 1.0f, to,
                 [&](int i) { return rows.at(std::clamp(y - 2 + i, 0, src.height - 1), x); });
    });
}

void cpu_luminance(const Floats& src, Floats& dst) {
    for_each_pixel(dst, [&](int y, int x, float* to) {
        const float* from = src.at(y, x);
        to[0] = 0.299f * from[0] + 0.587f * from[1] + 0.114f * from[2];
        to[1] = to[2] = to[3] = 0.0f;
    });
}

void cpu_reduce(const Floats& src, Floats& dst) {
    const std::vector<float> kernel = {1, 4, 6, 4, 1};
    Floats narrow(src.height, dst.width);
    for_each_pixel(narrow, [&](int y, int x, float* to) {
        line_sum(kernel, 16.0f, to,
                 [&](int i) { return src.at(y, std::clamp(2 * x - 2 + i, 0, src.width - 1)); });
    });
    for_each_pixel(dst, [&](int y, int x, float* to) {
        line_sum(kernel, 16.0f, to,
                 [&](int i) { return narrow.at(std::clamp(2 * y - 2 + i, 0, src.height - 1), x); });
    });
}

/// The linear filter at a position in pixels, corners on whole numbers, over a border of 0.
void linear_sample(const Floats& src, float py, float px, float* to) {
    const float cy = py - 0.5f, cx = px - 0.5f;
    const int y0 = static_cast<int>(std::floor(cy)), x0 = static_cast<int>(std::floor(cx));
    const float fy = cy - y0, fx = cx - x0;
    const float weights[4] = {(1 - fy) * (1 - fx), (1 - fy) * fx, fy * (1 - fx), fy * fx};
    std::fill_n(to, 4, 0.0f);
    for (int i = 0; i < 4; ++i) {
        const int y = y0 + i / 2, x = x0 + i % 2;
        if (y < 0 || x < 0 || y >= src.height || x >= src.width) continue;
        for (int c = 0; c < 4; ++c) to[c] += weights[i] * src.at(y, x)[c];
    }
}

void cpu_guided(const Floats& guide, const Floats& mask, int radius, float s, float eps,
                Floats& dst) {
    const int h = static_cast<int>(guide.height / s), w = static_cast<int>(guide.width / s);
    const int r = static_cast<int>(radius / s);
    Floats ones(h, w), n(h, w), ip(h, w), mean(h, w), product(h, w), mean_product(h, w);
    Floats squares(h, w), cross(h, w), box_squares(h, w), box_cross(h, w), ab(h, w), mean_ab(h, w);
    std::fill(ones.values.begin(), ones.values.end(), 1.0f);
    cpu_box(ones, r, nullptr, n);
    for_each_pixel(ip, [&](int y, int x, float* to) {
        float p[4];
        linear_sample(guide, s * y, s * x, to);
        linear_sample(mask, s * y, s * x, p);
        to[3] = p[0];
    });
    cpu_box(ip, r, &n, mean);
    for_each_pixel(product, [&](int y, int x, float* to) {
        const float* from = ip.at(y, x);
        for (int c = 0; c < 3; ++c) to[c] = from[c] * from[3];
    });
    cpu_box(product, r, &n, mean_product);
    for_each_pixel(squares, [&](int y, int x, float* to) {
        const float* from = ip.at(y, x);
        for (int c = 0; c < 4; ++c) to[c] = from[c] * from[c];
        for (int c = 0; c < 3; ++c) cross.at(y, x)[c] = from[c] * from[(c + 1) % 3];
    });
    cpu_box(squares, r, nullptr, box_squares);
    cpu_box(cross, r, nullptr, box_cross);
    for_each_pixel(ab, [&](int y, int x, float* to) {
        const float* m = mean.at(y, x);
        float var[3], k[3], cov[3];
        for (int c = 0; c < 3; ++c) {
            var[c] = box_squares.at(y, x)[c] / n.at(y, x)[c] - m[c] * m[c] + eps;
            k[c] = box_cross.at(y, x)[c] / n.at(y, x)[c] - m[c] * m[(c + 1) % 3];
            cov[c] = mean_product.at(y, x)[c] - m[c] * m[3];
        }
        // The adjugate of the symmetric matrix.
        const float a00 = var[1] * var[2] - k[1] * k[1], a01 = k[1] * k[2] - k[0] * var[2];
        const float a02 = k[0] * k[1] - var[1] * k[2], a11 = var[0] * var[2] - k[2] * k[2];
        const float a12 = k[0] * k[2] - var[0] * k[1], a22 = var[0] * var[1] - k[0] * k[0];
        const float det = var[0] * a00 + k[0] * a01 + k[2] * a02;
        to[0] = (cov[0] * a00 + cov[1] * a01 + cov[2] * a02) / det;
        to[1] = (cov[0] * a01 + cov[1] * a11 + cov[2] * a12) / det;
        to[2] = (cov[0] * a02 + cov[1] * a12 + cov[2] * a22) / det;
        to[3] = m[3] - to[0] * m[0] - to[1] * m[1] - to[2] * m[2];
    });
    cpu_box(ab, r, &n, mean_ab);
    for_each_pixel(dst, [&](int y, int x, float* to) {
        float model[4];
        linear_sample(mean_ab, y / s, x / s, model);
        const float* i = guide.at(y, x);
        const float q = model[0] * i[0] + model[1] * i[1] + model[2] * i[2] + model[3];
        to[0] = std::clamp(q, 0.0f, 1.0f);
        to[1] = to[2] = to[3] = 0.0f;
    });
}

// --- The driver's side ------------------------------------------------------------------------

struct Gpu {
    tesk::TexturePool pool{0};
    tesk::ComputeProgramManager manager{0, "bench"};

    Picture image(int height, int width, GLenum format = GL_RGBA16F) {
        const auto made = std::make_shared<tesk::Image>(height, width, 4, format, &pool);
        made->addReadCount();
        made->texture();
        return made;
    }
    Picture upload(const Floats& floats, GLenum format = GL_RGBA16F) {
        const Picture made = image(floats.height, floats.width, format);
        made->update(reinterpret_cast<const char*>(floats.values.data()), 0);
        return made;
    }
};

/// Made by main, with a context that lives as long as the process.
Gpu* gpu = nullptr;

struct Work {
    std::function<void()> on_driver;
    std::function<void()> on_cpu;
    Picture result;
    const Floats* expected;
    double bytes_per_pixel;
    double tolerance = 2e-3;  ///< a few steps of a half at 1
};

/// The best of at least three runs and a quarter of a second.
double cpu_seconds(const Work& work) {
    double best = 1e9, total = 0.0;
    for (int run = 0; run < 3 || total < 0.25; ++run) {
        const auto start = Clock::now();
        work.on_cpu();
        benchmark::ClobberMemory();
        const double seconds = seconds_since(start);
        best = std::min(best, seconds);
        total += seconds;
    }
    return best;
}

void measure(benchmark::State& state, const Work& work) {
    const double cpu = cpu_seconds(work);
    work.on_driver();
    Floats found(work.expected->height, work.expected->width);
    work.result->copyTexToMemry(found.values.data(), 0);
    double worst = 0.0;
    for (size_t i = 0; i < found.values.size(); ++i) {
        const double difference = std::fabs(double{found.values[i]} - work.expected->values[i]);
        worst = std::max(worst, std::isnan(difference) ? HUGE_VAL : difference);
    }
    if (worst > work.tolerance) {
        state.SkipWithError(("off the loop's result by " + std::to_string(worst)).c_str());
        return;
    }
    double total = 0.0;
    for (auto _ : state) {
        const auto start = Clock::now();
        work.on_driver();
        glFinish();
        const double seconds = seconds_since(start);
        state.SetIterationTime(seconds);
        total += seconds;
    }
    state.counters["bytes_px"] = work.bytes_per_pixel;
    state.counters["cpu_ms"] = 1e3 * cpu;
    state.counters["of_cpu"] = cpu * static_cast<double>(state.iterations()) / total;
}

const double texel = 8.0;  ///< RGBA16F

// --- Transforms -------------------------------------------------------------------------------

using Operation = void (tesk::MatrixColor::*)(Picture, Picture);

void transform(benchmark::State& state, Operation operation, void (*loop)(const Floats&, Floats&),
               bool turned) {
    const int h = static_cast<int>(state.range(1)), w = static_cast<int>(state.range(0));
    const Floats src = test_picture(h, w);
    Floats dst(turned ? w : h, turned ? h : w);
    const Picture from = gpu->upload(src), to = gpu->image(dst.height, dst.width);
    tesk::MatrixColor transforms(&gpu->pool, &gpu->manager);
    measure(state, {[&] { (transforms.*operation)(from, to); }, [&] { loop(src, dst); }, to, &dst,
                    2 * texel});
}

void yuv(benchmark::State& state) {
    const int h = static_cast<int>(state.range(1)), w = static_cast<int>(state.range(0));
    const Floats luma = test_picture(h, w), u = test_picture(h / 2, w / 2), v = u;
    Floats dst(h, w);
    const Picture y_plane = gpu->upload(luma), u_plane = gpu->upload(u), v_plane = gpu->upload(v);
    const Picture to = gpu->image(h, w);
    tesk::MatrixColor transforms(&gpu->pool, &gpu->manager);
    measure(state, {[&] { transforms.ConvertYUV2RGB(y_plane, u_plane, v_plane, to); },
                    [&] { cpu_yuv(luma, u, v, dst); }, to, &dst, 4 * texel});
}

// To half the size; bytes for each pixel of the result.
void resize(benchmark::State& state) {
    const int h = static_cast<int>(state.range(1)), w = static_cast<int>(state.range(0));
    const Floats src = test_picture(h, w);
    Floats dst(h / 2, w / 2);
    Picture from = gpu->upload(src), to = gpu->image(h / 2, w / 2);
    tesk::MatrixColor transforms(&gpu->pool, &gpu->manager);
    measure(state, {[&] { transforms.ResizeImage(from, to); }, [&] { cpu_resize(src, dst); }, to,
                    &dst, 5 * texel});
}

// --- Filters ----------------------------------------------------------------------------------

void box(benchmark::State& state, GLenum format) {
    const int h = static_cast<int>(state.range(1)), w = static_cast<int>(state.range(0));
    const int radius = static_cast<int>(state.range(2));
    const Floats src = test_picture(h, w);
    Floats dst(h, w);
    const Picture from = gpu->upload(src, format), to = gpu->image(h, w, format);
    tesk::BoxFilter filter(radius, static_cast<int>(format), &gpu->pool, &gpu->manager);
    const double size = format == GL_RGBA16F ? texel : 2 * texel;
    measure(state,
            {[&] { filter.boxFilterEncode(from, to); }, [&] { cpu_box(src, radius, nullptr, dst); },
             to, &dst, 2 * (2 * radius + 2) * size});
}

void gaussian(benchmark::State& state) {
    const int h = static_cast<int>(state.range(1)), w = static_cast<int>(state.range(0));
    const Floats src = test_picture(h, w);
    Floats dst(h, w);
    const Picture from = gpu->upload(src), to = gpu->image(h, w);
    tesk::GaussianFilter filter(GL_RGBA16F, &gpu->pool, &gpu->manager);
    measure(state, {[&] { filter.gaussianFliterEncode(from, to); }, [&] { cpu_gaussian(src, dst); },
                    to, &dst, 2 * 6 * texel});
}

void pyramid_base(benchmark::State& state) {
    const int h = static_cast<int>(state.range(1)), w = static_cast<int>(state.range(0));
    const Floats src = test_picture(h, w);
    Floats dst(h, w);
    const Picture from = gpu->upload(src);
    tesk::Pyramid pyramid(w, h, 1, &gpu->pool, &gpu->manager);
    measure(state, {[&] { pyramid.buildPyramid(from); }, [&] { cpu_luminance(src, dst); },
                    pyramid.base(), &dst, 2 * texel});
}

// Bytes for each pixel of the source: half of them in the first pass, a quarter in the second.
void pyramid_reduction(benchmark::State& state) {
    const int h = static_cast<int>(state.range(1)), w = static_cast<int>(state.range(0));
    const Floats src = test_picture(h, w);
    Floats dst(h / 2, w / 2);
    const Picture from = gpu->upload(src), to = gpu->image(h / 2, w / 2);
    tesk::Pyramid pyramid(w, h, 1, &gpu->pool, &gpu->manager);
    measure(state, {[&] { pyramid.GaussianPyramid_sampler(from, to); },
                    [&] { cpu_reduce(src, dst); }, to, &dst, 0.75 * 6 * texel});
}

void guided(benchmark::State& state) {
    const int h = static_cast<int>(state.range(1)), w = static_cast<int>(state.range(0));
    const int s = static_cast<int>(state.range(2)), radius = 8;
    const float eps = 0.05f;
    const Floats guide = test_picture(h, w), mask = test_picture(h, w);
    Floats dst(h, w);
    const Picture picture = gpu->upload(guide), rough = gpu->upload(mask), to = gpu->image(h, w);
    tesk::FastGuidedFilter filter(radius, static_cast<float>(s), eps, &gpu->pool, &gpu->manager);
    // Six box means, three of them with a divisor, and the element steps on the small picture;
    // a sample and a product at full size.
    const double box_mean = 2 * (2 * (radius / s) + 2) * texel;
    const double elements = (1 + 9 + 2 + 3 + 3 + 6 + 5) * texel;
    const double bytes = (6 * box_mean + 3 * texel + elements) / (s * s) + (5 + 3) * texel;
    // Means of squares less squares of means in halves, over eps: 2^-10 * 4 / 0.05.
    measure(state, {[&] { filter.fastGuidedFilterEncode(picture, rough, to); },
                    [&] { cpu_guided(guide, mask, radius, static_cast<float>(s), eps, dst); }, to,
                    &dst, bytes, 0.08});
}

void pictures(benchmark::internal::Benchmark* made) {
    made->ArgNames({"w", "h"})->Args({640, 480})->Args({1280, 720});
    made->UseManualTime()->Unit(benchmark::kMillisecond);
}
void boxes(benchmark::internal::Benchmark* made) {
    made->ArgNames({"w", "h", "radius"});
    made->Args({640, 480, 2})->Args({640, 480, 8})->Args({1280, 720, 2})->Args({1280, 720, 8});
    made->UseManualTime()->Unit(benchmark::kMillisecond);
}
void guided_pictures(benchmark::internal::Benchmark* made) {
    made->ArgNames({"w", "h", "subsampling"});
    for (const int s : {1, 2, 4}) made->Args({640, 480, s});
    for (const int s : {1, 2, 4}) made->Args({1280, 720, s});
    made->UseManualTime()->Unit(benchmark::kMillisecond);
}

using Color = tesk::MatrixColor;
BENCHMARK_CAPTURE(transform, CopyImage, &Color::CopyImage, cpu_copy, false)->Apply(pictures);
BENCHMARK_CAPTURE(transform, ConvertBGR2RGB, &Color::ConvertBGR2RGB, cpu_swap, false)
    ->Apply(pictures);
BENCHMARK(yuv)->Name("transform/ConvertYUV2RGB")->Apply(pictures);
BENCHMARK_CAPTURE(transform, Flip_Horizontal, &Color::Flip_Horizontal, cpu_flip_h, false)
    ->Apply(pictures);
BENCHMARK_CAPTURE(transform, Flip_Vertical, &Color::Flip_Vertical, cpu_flip_v, false)
    ->Apply(pictures);
BENCHMARK_CAPTURE(transform, Rotate180, &Color::Rotate180, cpu_rotate180, false)->Apply(pictures);
BENCHMARK_CAPTURE(transform, Rotate90, &Color::Rotate90, cpu_rotate90, true)->Apply(pictures);
BENCHMARK_CAPTURE(transform, Rotate270, &Color::Rotate270, cpu_rotate270, true)->Apply(pictures);
BENCHMARK(resize)->Name("transform/ResizeImage_to_half")->Apply(pictures);
BENCHMARK_CAPTURE(box, 16f, GL_RGBA16F)->Apply(boxes);
BENCHMARK_CAPTURE(box, 32f, GL_RGBA32F)->Apply(boxes);
BENCHMARK(gaussian)->Apply(pictures);
BENCHMARK(pyramid_base)->Apply(pictures);
BENCHMARK(pyramid_reduction)->Apply(pictures);
BENCHMARK(guided)->Apply(guided_pictures);

}  // namespace

int main(int argc, char** argv) {
    unsigned int id = 0;
    if (tesk_Init(&id) != TN_Result_Success) {
        std::fprintf(stderr, "gpu_filters: expected a context with OpenGL 4.3, found none\n");
        return 1;
    }
    benchmark::AddCustomContext("gl_renderer",
                                reinterpret_cast<const char*>(glGetString(GL_RENDERER)));
    benchmark::AddCustomContext("gl_version",
                                reinterpret_cast<const char*>(glGetString(GL_VERSION)));
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
    {
        Gpu made;
        gpu = &made;
        made.manager.initOpenglParameters();
        made.manager.initProgramBinary({}, &made.manager);
        benchmark::RunSpecifiedBenchmarks();
        made.manager.release();
        made.pool.release();
    }
    tesk_UnInit(id);
    return 0;
}
