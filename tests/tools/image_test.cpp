// The GPU operations on pictures from the command line.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "tools/command.h"
#include "tools/pictures.h"

namespace {

using namespace command_test;
using Words = std::vector<std::string>;

class ImageCommand : public testing::Test {
protected:
    Folder folder;
    const std::string input = folder / "in.png";
    const std::string output = folder / "out.png";
    static constexpr int w = 13;
    static constexpr int h = 10;

    /// Random RGB, the same in each run.
    static Pixels picture(int width = w, int height = h, int channels = 3) {
        Pixels made;
        made.w = width;
        made.h = height;
        made.channels = channels;
        std::mt19937 generator(7);
        for (int i = 0; i < width * height * channels; ++i)
            made.data.push_back(static_cast<unsigned char>(generator() & 255));
        return made;
    }

    Outcome run_op(const std::string& op, const Words& more = {}) const {
        Words words = {"image", "--op", op, "--input", input, "--output", output};
        words.insert(words.end(), more.begin(), more.end());
        return run_tarno(words);
    }

    /// Runs `op` and compares each component with `expected(x, y, c)`, in grey levels; halves carry
    /// eleven bits, so a level of 255 may be off by 255 / 1024 before it is rounded.
    void check(const std::string& op, const Words& more, int out_w, int out_h, int channels,
               const std::function<double(int, int, int)>& expected, double slack = 0.75) {
        expect_success(run_op(op, more));
        const Pixels result = read_png(output);
        ASSERT_EQ(result.w, out_w);
        ASSERT_EQ(result.h, out_h);
        ASSERT_EQ(result.channels, channels);
        for (int y = 0; y < out_h; ++y) {
            for (int x = 0; x < out_w; ++x) {
                for (int c = 0; c < channels; ++c)
                    ASSERT_NEAR(result.at(x, y, c), expected(x, y, c), slack)
                        << op << " at " << x << ", " << y << ", " << c;
            }
        }
    }
};

TEST_F(ImageCommand, FlipsTurnsAndSwaps) {
    const Pixels in = picture();
    write_file(input, png_file(in));
    check("bgr2rgb", {}, w, h, 3, [&](int x, int y, int c) { return in.at(x, y, 2 - c); });
    check("flip-h", {}, w, h, 3, [&](int x, int y, int c) { return in.at(w - 1 - x, y, c); });
    check("flip-v", {}, w, h, 3, [&](int x, int y, int c) { return in.at(x, h - 1 - y, c); });
    check("rotate180", {}, w, h, 3,
          [&](int x, int y, int c) { return in.at(w - 1 - x, h - 1 - y, c); });
    check("rotate90", {}, h, w, 3, [&](int x, int y, int c) { return in.at(y, h - 1 - x, c); });
    check("rotate270", {}, h, w, 3, [&](int x, int y, int c) { return in.at(w - 1 - y, x, c); });
}

TEST_F(ImageCommand, ResizesWithAlignedCorners) {
    const Pixels in = picture();
    write_file(input, png_file(in));
    check("resize", {"--size", "25x19"}, 25, 19, 3, [&](int x, int y, int c) {
        const double from_x = x * (w - 1.0) / 24.0;
        const double from_y = y * (h - 1.0) / 18.0;
        const int x0 = std::min(static_cast<int>(from_x), w - 2);
        const int y0 = std::min(static_cast<int>(from_y), h - 2);
        const double fx = from_x - x0;
        const double fy = from_y - y0;
        return (1 - fy) * ((1 - fx) * in.at(x0, y0, c) + fx * in.at(x0 + 1, y0, c)) +
               fy * ((1 - fx) * in.at(x0, y0 + 1, c) + fx * in.at(x0 + 1, y0 + 1, c));
    });
}

TEST_F(ImageCommand, BlursByBoxAndGaussian) {
    const Pixels in = picture();
    write_file(input, png_file(in));
    check("box", {"--radius", "1"}, w, h, 3, [&](int x, int y, int c) {
        double sum = 0.0;
        for (int dy = -1; dy <= 1; ++dy) {
            for (int dx = -1; dx <= 1; ++dx) {
                const bool inside = x + dx >= 0 && y + dy >= 0 && x + dx < w && y + dy < h;
                sum += inside ? in.at(x + dx, y + dy, c) : 0.0;
            }
        }
        return sum / 9.0;
    });
    const double kernel[] = {0.05448868, 0.24420134, 0.40261995, 0.24420134, 0.05448868};
    check("gaussian", {}, w, h, 3, [&](int x, int y, int c) {
        double sum = 0.0;
        for (int dy = -2; dy <= 2; ++dy) {
            for (int dx = -2; dx <= 2; ++dx) {
                sum += kernel[dx + 2] * kernel[dy + 2] *
                       in.at(std::clamp(x + dx, 0, w - 1), std::clamp(y + dy, 0, h - 1), c);
            }
        }
        return sum;
    });
}

TEST_F(ImageCommand, ConvertsAPlanarFrame) {
    // White, black, and one red and one blue block of 2 x 2, by the inverse of BT.709.
    const int size = 4;
    const double rgb[4][3] = {{1, 1, 1}, {0, 0, 0}, {0.8, 0.1, 0.1}, {0.1, 0.2, 0.9}};
    std::string frame(size * size * 3 / 2, '\0');
    for (int y = 0; y < size; ++y) {
        for (int x = 0; x < size; ++x) {
            const double* colour = rgb[y / 2 * 2 + x / 2];
            const double luma = 0.2126 * colour[0] + 0.7152 * colour[1] + 0.0722 * colour[2];
            const auto byte = [](double v) {
                return static_cast<char>(static_cast<unsigned char>(std::lround(v * 255.0)));
            };
            frame[static_cast<size_t>(y * size + x)] = byte(luma);
            const size_t at = static_cast<size_t>(y / 2 * 2 + x / 2);
            frame[16 + at] = byte((colour[2] - luma) / 1.8556 + 0.5);
            frame[20 + at] = byte((colour[0] - luma) / 1.5748 + 0.5);
        }
    }
    const std::string raw = folder / "frame.yuv";
    write_file(raw, frame);
    expect_success(run_tarno(
        {"image", "--op", "yuv2rgb", "--size", "4x4", "--input", raw, "--output", output}));
    const Pixels result = read_png(output);
    for (int y = 0; y < size; ++y) {
        for (int x = 0; x < size; ++x) {
            for (int c = 0; c < 3; ++c) {
                // Half a level of each plane, by factors up to 1.9, and of the result.
                EXPECT_NEAR(result.at(x, y, c), 255.0 * rgb[y / 2 * 2 + x / 2][c], 2.5);
            }
        }
    }
    write_file(raw, frame.substr(1));
    expect_refusal(
        run_tarno(
            {"image", "--op", "yuv2rgb", "--size", "4x4", "--input", raw, "--output", output}),
        1, {"frame.yuv", "expected a raw 4:2:0 frame of 4 x 4 pixels, 24 bytes", "found 23"});
}

TEST_F(ImageCommand, RefinesAMaskAlongTheGuide) {
    // The guide's edge stands at column 20, the mask's at 18, and the filter moves it.
    Pixels guide;
    guide.w = 40;
    guide.h = 40;
    guide.channels = 3;
    Pixels mask = guide;
    for (int i = 0; i < 40 * 40; ++i) {
        for (int c = 0; c < 3; ++c) {
            guide.data.push_back(i % 40 < 20 ? 220 : 40);
            mask.data.push_back(i % 40 < 18 ? 255 : 0);
        }
    }
    write_file(input, png_file(mask));
    const std::string guide_path = folder / "guide.png";
    write_file(guide_path, png_file(guide));
    const std::string composite = folder / "composite.png";
    expect_success(run_op("guided", {"--guide", guide_path, "--radius", "8", "--subsampling", "1",
                                     "--composite", composite, "--background", "0,255,0"}));
    const Pixels result = read_png(output);
    EXPECT_EQ(result.channels, 1);
    // Columns 18 and 19 were background in the mask and are figure now; the other side stays. A
    // window's length from the border, which the filter's zeroes reach.
    for (int y = 10; y < 30; ++y) {
        for (int x = 10; x < 30; ++x)
            ASSERT_EQ(result.at(x, y, 0) >= 128, x < 20) << x << ", " << y;
    }
    const Pixels laid = read_png(composite);
    ASSERT_EQ(laid.channels, 3);
    for (int y = 0; y < 40; ++y) {
        for (int x = 0; x < 40; ++x) {
            for (int c = 0; c < 3; ++c) {
                const double share = result.at(x, y, 0) / 255.0;
                const double under = c == 1 ? 255.0 : 0.0;
                // Half a level of the written mask, times at most 255 / 255, and half of its own.
                ASSERT_NEAR(laid.at(x, y, c), share * guide.at(x, y, c) + (1.0 - share) * under,
                            1.01)
                    << x << ", " << y << ", " << c;
            }
        }
    }
}

/// Every other row and column of a picture of even sides, blurred by 1, 4, 6, 4, 1 both ways, edge
/// pixels repeated.
std::vector<double> halved(const std::vector<double>& from, int width, int height) {
    const double taps[] = {1.0, 4.0, 6.0, 4.0, 1.0};
    std::vector<double> to;
    for (int y = 0; y < height; y += 2) {
        for (int x = 0; x < width; x += 2) {
            double sum = 0.0;
            for (int i = 0; i < 25; ++i) {
                const int row = std::clamp(y - 2 + i / 5, 0, height - 1);
                const int column = std::clamp(x - 2 + i % 5, 0, width - 1);
                sum += taps[i / 5] * taps[i % 5] * from[static_cast<size_t>(row * width + column)];
            }
            to.push_back(sum / 256.0);
        }
    }
    return to;
}

TEST_F(ImageCommand, LaysThePyramidSideBySide) {
    write_file(input, png_file(picture(16, 12)));
    expect_success(run_op("pyramid", {"--levels", "3"}));
    const Pixels result = read_png(output);
    EXPECT_EQ(result.w, 24);
    EXPECT_EQ(result.h, 12);
    EXPECT_EQ(result.channels, 1);
    const Pixels in = picture(16, 12);
    std::vector<double> level;
    for (int i = 0; i < 16 * 12; ++i) {
        level.push_back(0.299 * in.at(i % 16, i / 16, 0) + 0.587 * in.at(i % 16, i / 16, 1) +
                        0.114 * in.at(i % 16, i / 16, 2));
    }
    int left = 0, top = 0, level_w = 16, level_h = 12;
    for (int n = 0; n < 3; ++n) {
        // Half a level of the file, and half a step of halves below 1 for the base and for each of
        // the two passes of a reduction.
        const double slack = 0.5 + (1 + 2 * n) * 255.0 * 0x1p-12;
        for (int i = 0; i < level_w * level_h; ++i) {
            ASSERT_NEAR(result.at(left + i % level_w, top + i / level_w, 0),
                        level[static_cast<size_t>(i)], slack)
                << "level " << n << ", pixel " << i;
        }
        top += n == 0 ? 0 : level_h;
        left = 16;
        level = halved(level, level_w, level_h);
        level_w /= 2;
        level_h /= 2;
    }
    // Nothing below the last level.
    for (int y = top; y < 12; ++y) {
        for (int x = 16; x < 24; ++x) ASSERT_EQ(result.at(x, y, 0), 0) << x << ", " << y;
    }
}

TEST_F(ImageCommand, RefusesWhatItCannotDo) {
    write_file(input, png_file(picture()));
    expect_refusal(run_op("sharpen"), 2, {"--op", "found \"sharpen\""});
    expect_refusal(run_op("resize"), 2, {"resize", "expected --size"});
    expect_refusal(run_op("guided"), 2, {"guided", "expected --guide"});
    expect_refusal(run_op("box", {"--radius", "-1"}), 2, {"--radius", "found -1"});
    expect_refusal(run_op("pyramid", {"--levels", "0"}), 2, {"--levels", "found 0"});
    expect_refusal(run_op("guided", {"--guide", input, "--subsampling", "0"}), 2,
                   {"--subsampling", "expected 1 to 64"});
    expect_refusal(run_op("box", {"--composite", output, "--background", "0,0,0"}), 2,
                   {"--composite", "expected --op guided"});
    expect_refusal(run_op("resize", {"--size", "20000x4"}), 1, {"at most 16384", "20000 x 4"});
    expect_refusal(
        run_tarno({"image", "--op", "box", "--input", folder / "none", "--output", output}), 1,
        {"none", "expected a readable file"});
    expect_refusal(
        run_tarno({"image", "--op", "box", "--input", input, "--output", folder / "out.jpg"}), 1,
        {"out.jpg", "expected a .png file"});
    EXPECT_EQ(folder.names(), (Words{"in.png"}));
}

TEST_F(ImageCommand, AnErrorOfGlIsOneLineAndNoFile) {
    if (sanitized) GTEST_SKIP() << "a sanitizer needs the address space that is limited here";
    write_file(input, png_file(picture()));
    // A texture of 2 GiB, which does not fit into an address space of that size.
    setenv("LIBGL_ALWAYS_SOFTWARE", "1", 1);
    const Outcome outcome = run_tarno(
        {"image", "--op", "resize", "--size", "16384x16384", "--input", input, "--output", output},
        120, rlim_t{1} << 31);
    unsetenv("LIBGL_ALWAYS_SOFTWARE");
    expect_refusal(outcome, 1, {"16384 x 16384 pixels", "found the GL error 0x0505"});
    EXPECT_EQ(folder.names(), (Words{"in.png"}));
}

TEST(GpuInfo, TellsDriverLimitsAndDisplays) {
    const Outcome outcome = run_tarno({"gpu-info"});
    expect_success(outcome);
    for (const char* part : {"chosen", "vendor", "renderer", "version", "uniform block, bytes"})
        EXPECT_NE(outcome.out.find(part), std::string::npos) << part;
}

TEST(GpuInfo, WithoutADriverNamesTheWaysThatWereTried) {
    setenv("__EGL_VENDOR_LIBRARY_FILENAMES", "/nonexistent", 1);
    const Outcome outcome = run_tarno({"gpu-info"});
    unsetenv("__EGL_VENDOR_LIBRARY_FILENAMES");
    expect_refusal(outcome, 1, {"expected a context with OpenGL 4.3", "default display: "});
    EXPECT_NE(outcome.out.find("default display"), std::string::npos);
}

TEST(GpuInfo, ADriverThatIsTooOldIsNamed) {
    setenv("MESA_GL_VERSION_OVERRIDE", "4.2", 1);
    setenv("LIBGL_ALWAYS_SOFTWARE", "1", 1);
    const Outcome outcome = run_tarno({"gpu-info"});
    unsetenv("MESA_GL_VERSION_OVERRIDE");
    unsetenv("LIBGL_ALWAYS_SOFTWARE");
    expect_refusal(outcome, 1, {"expected OpenGL 4.3 or newer", "found 4.2"});
}

TEST_F(ImageCommand, AnOutputThatIsAnInputIsRefusedAndTheInputStays) {
    const std::string bytes = png_file(picture());
    write_file(input, bytes);
    write_file(folder / "guide.png", bytes);
    const std::string wanted = "expected a place for the output apart from the inputs";
    expect_refusal(run_tarno({"image", "--op", "flip-h", "--input", input, "--output", input}), 1,
                   {"in.png", wanted});
    expect_refusal(run_op("guided", {"--guide", folder / "guide.png", "--composite",
                                     folder / "./guide.png", "--background", "1,2,3"}),
                   1, {"guide.png", wanted});
    EXPECT_EQ(folder.names(), (Words{"guide.png", "in.png"}));
    EXPECT_TRUE(read_file(input) == bytes);
    EXPECT_TRUE(read_file(folder / "guide.png") == bytes);
}

}  // namespace
