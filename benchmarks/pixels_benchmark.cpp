// Pixel conversion and resizing: bytes read and written a second, and parts of memcpy's speed.
#include <benchmark/benchmark.h>
#include <tarno/cpu.h>

#include <cstddef>
#include <vector>

#include "memory_traffic.h"

namespace {

using namespace TarnoCPU;

std::vector<unsigned char> frame(size_t bytes) {
    std::vector<unsigned char> pixels(bytes);
    for (size_t i = 0; i < bytes; ++i)
        pixels[i] = static_cast<unsigned char>(i * 2654435761u >> 24);
    return pixels;
}

int channels_of(int order) {
    return order == 4 ? 1 : order == 8 ? 4 : 3;
}

// Into a warm block, as a run with a pool does.
void from_pixels(benchmark::State& state, int type) {
    const int w = static_cast<int>(state.range(0)), h = static_cast<int>(state.range(1));
    const size_t count = static_cast<size_t>(w) * static_cast<size_t>(h);
    const auto pixels = frame(count * static_cast<size_t>(channels_of(type & 0xffff)));
    PoolAllocator pool;
    size_t written = 0;
    for (auto _ : state) {
        const Mat planes = Mat::from_pixels(pixels.data(), type, w, h, &pool);
        benchmark::DoNotOptimize(planes.data);
        written = static_cast<size_t>(planes.shape.total()) * sizeof(float);
    }
    benchmark_support::report_traffic(state, pixels.size(), written);
}

using Resize = void (*)(const unsigned char*, int, int, unsigned char*, int, int);

void resize_frame(benchmark::State& state, Resize resize, size_t channels) {
    const int srcw = static_cast<int>(state.range(0)), srch = static_cast<int>(state.range(1));
    const int w = static_cast<int>(state.range(2)), h = static_cast<int>(state.range(3));
    const auto src = frame(channels * static_cast<size_t>(srcw) * static_cast<size_t>(srch));
    std::vector<unsigned char> dst(channels * static_cast<size_t>(w) * static_cast<size_t>(h));
    for (auto _ : state) {
        resize(src.data(), srcw, srch, dst.data(), w, h);
        benchmark::DoNotOptimize(dst.data());
        benchmark::ClobberMemory();
    }
    benchmark_support::report_traffic(state, src.size(), dst.size());
}

void frame_sizes(benchmark::internal::Benchmark* made) {
    made->Args({256, 256})->Args({640, 480})->Args({1280, 720});
}

// From a camera to a network, from a network's mask to a camera, and by a bit.
void resize_sizes(benchmark::internal::Benchmark* made) {
    made->Args({1280, 720, 256, 256})->Args({256, 256, 1280, 720})->Args({640, 480, 720, 540});
}

BENCHMARK_CAPTURE(from_pixels, rgb, 1)->Apply(frame_sizes);
BENCHMARK_CAPTURE(from_pixels, rgb_to_bgr, 0x20001)->Apply(frame_sizes);
BENCHMARK_CAPTURE(from_pixels, rgb_to_grey, 0x40001)->Apply(frame_sizes);
BENCHMARK_CAPTURE(from_pixels, grey, 4)->Apply(frame_sizes);
BENCHMARK_CAPTURE(from_pixels, rgba, 8)->Apply(frame_sizes);
BENCHMARK_CAPTURE(from_pixels, rgba_to_bgr, 0x20008)->Apply(frame_sizes);
BENCHMARK_CAPTURE(from_pixels, rgba_to_grey, 0x40008)->Apply(frame_sizes);
BENCHMARK_CAPTURE(resize_frame, bilinear_c1, &resize_bilinear_c1, 1)->Apply(resize_sizes);
BENCHMARK_CAPTURE(resize_frame, bilinear_c2, &resize_bilinear_c2, 2)->Apply(resize_sizes);
BENCHMARK_CAPTURE(resize_frame, bilinear_c3, &resize_bilinear_c3, 3)->Apply(resize_sizes);
BENCHMARK_CAPTURE(resize_frame, bilinear_c4, &resize_bilinear_c4, 4)->Apply(resize_sizes);
BENCHMARK_CAPTURE(resize_frame, nearest_c1, &resize_nearest_c1, 1)->Apply(resize_sizes);

}  // namespace
