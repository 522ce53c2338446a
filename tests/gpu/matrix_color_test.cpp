#include <array>

#include "support/gl_hooks.h"
#include "support/gl_programs.h"
#include "support/recorders.h"

namespace {

using namespace testing_support;

class MatrixColor : public ProgramTest {
protected:
    MatrixColor() : transforms(&pool, &manager) {}

    using Operation = void (tesk::MatrixColor::*)(std::shared_ptr<tesk::Image>,
                                                  std::shared_ptr<tesk::Image>);

    Tensor applied(Operation operation, const Tensor& src, Size dst) {
        const auto from = upload(src);
        const auto to = make_output(4, dst.height, dst.width);
        (transforms.*operation)(from, to);
        return read_back(*to);
    }

    /// A picture of one byte a component, as a camera gives it.
    std::shared_ptr<tesk::Image> upload_bytes(int channels, int height, int width, GLenum format,
                                              const std::vector<unsigned char>& bytes) {
        const auto image = make_image(channels, height, width, format);
        image->addReadCount();
        image->update(reinterpret_cast<const char*>(bytes.data()), 0);
        return image;
    }
    static std::vector<unsigned char> random_bytes(size_t count, unsigned int seed) {
        std::mt19937 generator(seed);
        std::vector<unsigned char> bytes(count);
        for (unsigned char& byte : bytes) byte = static_cast<unsigned char>(generator() >> 24);
        return bytes;
    }

    tesk::MatrixColor transforms;
};

/// dst of `size` with dst[y][x] = src[from(y, x)].
template <typename From>
Tensor moved(const Tensor& src, Size size, const From& from) {
    Tensor made(4, size.height, size.width);
    for (int c = 0; c < 4; ++c) {
        for (int y = 0; y < size.height; ++y) {
            for (int x = 0; x < size.width; ++x) {
                const auto [sy, sx] = from(y, x);
                made.at(c, y, x) = src.at(c, sy, sx);
            }
        }
    }
    return made;
}

TEST_F(MatrixColor, FlipsAndTurnsMoveEveryPixelToItsPlace) {
    unsigned int seed = 6000;
    for (const Size size : sizes()) {
        SCOPED_TRACE(++seed);
        const int h = size.height, w = size.width;
        const Tensor src = random_halves(4, h, w, seed);
        const Size turned{w, h};
        expect_same(moved(src, size, [&](int y, int x) { return std::pair(y, w - 1 - x); }),
                    applied(&tesk::MatrixColor::Flip_Horizontal, src, size));
        expect_same(moved(src, size, [&](int y, int x) { return std::pair(h - 1 - y, x); }),
                    applied(&tesk::MatrixColor::Flip_Vertical, src, size));
        expect_same(moved(src, size, [&](int y, int x) { return std::pair(h - 1 - y, w - 1 - x); }),
                    applied(&tesk::MatrixColor::Rotate180, src, size));
        // Clockwise: what was the left column from the bottom up becomes the top row.
        expect_same(moved(src, turned, [&](int y, int x) { return std::pair(h - 1 - x, y); }),
                    applied(&tesk::MatrixColor::Rotate90, src, turned));
        expect_same(moved(src, turned, [&](int y, int x) { return std::pair(x, w - 1 - y); }),
                    applied(&tesk::MatrixColor::Rotate270, src, turned));
    }
}

/// The work groups of the dispatches while it lives, which go no further.
class DispatchRecorder {
public:
    using Groups = std::array<unsigned int, 3>;

    DispatchRecorder() { recorded().clear(); }
    static std::vector<Groups>& recorded() {
        static std::vector<Groups> groups;
        return groups;
    }

private:
    static void GLAPIENTRY record(GLuint x, GLuint y, GLuint z) { recorded().push_back({x, y, z}); }
    const ReplacedEntryPoint<PFNGLDISPATCHCOMPUTEPROC> hook{__glewDispatchCompute, &record};
};

TEST_F(MatrixColor, QuarterTurnsRunOverTheSourceAndTheOthersOverTheDestination) {
    // 3 by 2 groups cover the source, 5 by 4 the destination; GL drops what is stored outside, so
    // that results cannot tell the two grids apart everywhere.
    const Size of_source{9, 17}, of_destination{31, 34};
    const DispatchRecorder::Groups over_source{3, 2, 1}, over_destination{5, 4, 1};
    const Tensor src = random_halves(4, of_source.height, of_source.width, 6050);
    using Transforms = tesk::MatrixColor;
    // The first program of a thread tries the driver out with a dispatch of its own.
    applied(&Transforms::CopyImage, src, of_destination);
    const DispatchRecorder recorder;
    for (const Operation turn : {&Transforms::Rotate90, &Transforms::Rotate270}) {
        DispatchRecorder::recorded().clear();
        applied(turn, src, of_destination);
        EXPECT_EQ(DispatchRecorder::recorded(), std::vector{over_source});
    }
    for (const Operation other :
         {&Transforms::Rotate180, &Transforms::Flip_Horizontal, &Transforms::Flip_Vertical,
          &Transforms::ConvertBGR2RGB, &Transforms::CopyImage}) {
        DispatchRecorder::recorded().clear();
        applied(other, src, of_destination);
        EXPECT_EQ(DispatchRecorder::recorded(), std::vector{over_destination});
    }
    DispatchRecorder::recorded().clear();
    auto from = upload(src), to = make_output(4, of_destination.height, of_destination.width);
    transforms.ResizeImage(from, to);
    transforms.ConvertYUV2RGB(from, from, from, to);
    EXPECT_EQ(DispatchRecorder::recorded(), (std::vector{over_destination, over_destination}));
}

TEST_F(MatrixColor, AQuarterTurnOfASquareAndBackGivesTheSource) {
    const Tensor src = random_halves(4, 21, 21, 6060);
    const Tensor there = applied(&tesk::MatrixColor::Rotate90, src, {21, 21});
    expect_same(src, applied(&tesk::MatrixColor::Rotate270, there, {21, 21}));
}

TEST_F(MatrixColor, CopyImageReproducesAllFourComponentsOfAPictureOfItsSize) {
    const Tensor src = random_halves(4, 19, 33, 6070, -10.0, 10.0);
    expect_same(src, applied(&tesk::MatrixColor::CopyImage, src, {19, 33}));
}

TEST_F(MatrixColor, CopyImageBringsBytesToZeroToOne) {
    const std::vector<unsigned char> bytes = random_bytes(11 * 13 * 4, 6080);
    const auto from = upload_bytes(4, 11, 13, GL_RGBA8, bytes);
    const auto to = make_output(4, 11, 13);
    transforms.CopyImage(from, to);
    expect_halves(picture_of(11, 13,
                             [&](int y, int x) {
                                 std::vector<double> texel(4);
                                 for (size_t c = 0; c < 4; ++c) {
                                     const size_t pixel = static_cast<size_t>(y * 13 + x);
                                     texel[c] = bytes[4 * pixel + c] / 255.0;
                                 }
                                 return texel;
                             }),
                  read_back(*to), float_error(1, 1.0));
}

TEST_F(MatrixColor, Bgr2RgbSwapsColoursAndSetsTheFourthComponentToZero) {
    unsigned int seed = 6100;
    for (const Size size : sizes()) {
        SCOPED_TRACE(++seed);
        const Tensor src = random_halves(4, size.height, size.width, seed, 0.5, 1.0);
        expect_same(picture_of(size.height, size.width,
                               [&](int y, int x) {
                                   return std::vector<double>{src.at(2, y, x), src.at(1, y, x),
                                                              src.at(0, y, x), 0.0};
                               }),
                    applied(&tesk::MatrixColor::ConvertBGR2RGB, src, size));
    }
    EXPECT_TRUE(manager.IsExistComputeProgram("cvtBGR2RGB_program"));
    EXPECT_FALSE(manager.IsExistComputeProgram("swapRGB_program"));
}

TEST_F(MatrixColor, YuvPlanesWithHalvedColourBecomeRgb) {
    unsigned int seed = 6200;
    for (const Size size : sizes()) {
        SCOPED_TRACE(++seed);
        const int h = size.height, w = size.width, uv_h = (h + 1) / 2, uv_w = (w + 1) / 2;
        const Tensor y = random_halves(4, h, w, seed, 0.0, 1.0);
        const Tensor u = random_halves(4, uv_h, uv_w, seed + 1000, 0.0, 1.0);
        const Tensor v = random_halves(4, uv_h, uv_w, seed + 2000, 0.0, 1.0);
        const auto to = make_output(4, h, w);
        transforms.ConvertYUV2RGB(upload(y), upload(u), upload(v), to);
        expect_halves(picture_of(h, w,
                                 [&](int row, int column) {
                                     const double cu = u.at(0, row / 2, column / 2) - 0.5;
                                     const double cv = v.at(0, row / 2, column / 2) - 0.5;
                                     const double luma = y.at(0, row, column);
                                     return std::vector<double>{luma + 1.57481 * cv,
                                                                luma - 0.18732 * cu - 0.46813 * cv,
                                                                luma + 1.8556 * cu, 0.0};
                                 }),
                      read_back(*to), float_error(6, 2.0));
    }
}

TEST_F(MatrixColor, YuvPlanesOfBytesBecomeRgb) {
    const int h = 10, w = 14;
    const auto y = random_bytes(h * w, 6250), u = random_bytes(h * w / 4, 6251),
               v = random_bytes(h * w / 4, 6252);
    const auto to = make_output(4, h, w);
    transforms.ConvertYUV2RGB(upload_bytes(1, h, w, GL_R8, y),
                              upload_bytes(1, h / 2, w / 2, GL_R8, u),
                              upload_bytes(1, h / 2, w / 2, GL_R8, v), to);
    expect_halves(
        picture_of(h, w,
                   [&](int row, int column) {
                       const size_t chroma = static_cast<size_t>(row / 2 * (w / 2) + column / 2);
                       const double cu = u[chroma] / 255.0 - 0.5, cv = v[chroma] / 255.0 - 0.5;
                       const double luma = y[static_cast<size_t>(row * w + column)] / 255.0;
                       return std::vector<double>{luma + 1.57481 * cv,
                                                  luma - 0.18732 * cu - 0.46813 * cv,
                                                  luma + 1.8556 * cu, 0.0};
                   }),
        read_back(*to), float_error(8, 2.0));
}

TEST_F(MatrixColor, ResizeKeepsCornersAndBlendsBetween) {
    unsigned int seed = 6300;
    struct Case {
        Size src, dst;
    };
    for (const Case& r : {Case{{9, 7}, {21, 33}}, Case{{20, 30}, {10, 15}}, Case{{6, 5}, {6, 5}}}) {
        SCOPED_TRACE(++seed);
        const Tensor src = random_halves(4, r.src.height, r.src.width, seed);
        auto from = upload(src), to = make_output(4, r.dst.height, r.dst.width);
        transforms.ResizeImage(from, to);
        const Tensor result = read_back(*to);
        Tensor expected(4, r.dst.height, r.dst.width);
        for (int c = 0; c < 4; ++c) {
            for (int y = 0; y < r.dst.height; ++y) {
                for (int x = 0; x < r.dst.width; ++x) {
                    // Whole pixels are computed in integers: y (h - 1) / (H - 1).
                    const int down = y * (r.src.height - 1), rows = r.dst.height - 1;
                    const int across = x * (r.src.width - 1), columns = r.dst.width - 1;
                    const double fy = double(down % rows) / rows;
                    const double fx = double(across % columns) / columns;
                    const int sy = down / rows, sx = across / columns;
                    const auto p = [&](int dy, int dx) {
                        return value_clamped(src, c, sy + dy, sx + dx);
                    };
                    expected.at(c, y, x) = (p(0, 0) * (1 - fx) + p(0, 1) * fx) * (1 - fy) +
                                           (p(1, 0) * (1 - fx) + p(1, 1) * fx) * fy;
                }
            }
            EXPECT_EQ(result.at(c, 0, 0), src.at(c, 0, 0));
        }
        // A place below 64 in the source is a rounded scale times a whole number: two roundings, 2^-24
        // of it each. On either axis it moves the blend by that part of the difference of two
        // neighbours, 2 at most. Two blends of four operations on numbers up to 1 come on top.
        const double place_error = 2.0 * 64.0 * std::ldexp(1.0, -24);
        expect_halves(expected, result, 2.0 * 2.0 * place_error + float_error(8, 1.0));
    }
}

TEST_F(MatrixColor, ResizeToAWidthOfOneReadsColumnZero) {
    const Tensor src = random_halves(4, 9, 12, 6400);
    auto from = upload(src), to = make_output(4, 9, 1);
    transforms.ResizeImage(from, to);
    const Tensor result = read_back(*to);
    for (int c = 0; c < 4; ++c) {
        for (int y = 0; y < 9; ++y) EXPECT_EQ(result.at(c, y, 0), src.at(c, y, 0));
    }
}

TEST_F(MatrixColor, AnOperationCalledTwiceCompilesItsProgramOnce) {
    const Tensor src = random_halves(4, 4, 4, 6500);
    applied(&tesk::MatrixColor::Flip_Vertical, src, {4, 4});
    ASSERT_EQ(manager.programCount(), 1);
    const auto program = manager.getComputeProgram("flip_v_program");
    const unsigned int id = program->getProgramID();
    applied(&tesk::MatrixColor::Flip_Vertical, src, {4, 4});
    EXPECT_EQ(manager.programCount(), 1);
    EXPECT_EQ(manager.getComputeProgram("flip_v_program"), program);
    EXPECT_EQ(program->getProgramID(), id);
}

TEST_F(MatrixColor, ADestinationWithoutATextureGetsOneWithoutDisplacingTheSources) {
    const Tensor src = random_halves(4, 9, 12, 6550);
    const auto from = upload(src);
    const auto to = make_image(4, 9, 12);
    transforms.CopyImage(from, to);
    expect_same(src, read_back(*to));
    const auto rgb = make_image(4, 9, 12);
    const auto y = upload(Tensor(4, 9, 12, 0.25)), u = upload(Tensor(4, 5, 6, 0.5));
    transforms.ConvertYUV2RGB(y, u, u, rgb);
    EXPECT_EQ(read_back(*rgb).at(1, 8, 11), 0.25);
}

TEST_F(MatrixColor, ASourceThatNobodyWaitsForLosesItsTextureAndAnotherKeepsIt) {
    const Tensor src = random_halves(4, 6, 6, 6600);
    const auto kept = upload(src);
    const auto dst = make_output(4, 6, 6);
    transforms.CopyImage(kept, dst);
    EXPECT_EQ(kept->readCount(), 1);
    EXPECT_NE(kept->textureId(), 0u);

    const auto given_up = make_image(4, 6, 6);
    given_up->texture();
    transforms.CopyImage(given_up, dst);
    EXPECT_EQ(given_up->readCount(), 0);
    EXPECT_EQ(given_up->textureId(), 0u);
    EXPECT_EQ(dst->readCount(), 1) << "the destination's count is the caller's";
}

TEST_F(MatrixColor, UnusableImagesAreAnErrorLineAndNothingIsDispatched) {
    const Tensor src = random_halves(4, 6, 6, 6700);
    const auto from = upload(src);
    const auto to = make_output(4, 6, 6);
    LogRecorder log;
    transforms.CopyImage(nullptr, to);
    transforms.CopyImage(from, nullptr);
    transforms.Rotate90(from, make_image(4, 6, 6, GL_RGBA8));
    transforms.Flip_Vertical(make_image(8, 6, 6), to);
    transforms.ConvertYUV2RGB(from, nullptr, from, to);
    std::shared_ptr<tesk::Image> none;
    transforms.ResizeImage(none, none);
    ASSERT_EQ(log.lines.size(), 6u);
    EXPECT_EQ(log.lines[0].text, "CopyImage: src: expected an image, found none");
    EXPECT_EQ(log.lines[1].text, "CopyImage: dst: expected an image, found none");
    EXPECT_EQ(log.lines[2].text, "Rotate90: dst: expected the GL format 0x881a, found 0x8058");
    EXPECT_EQ(log.lines[3].text,
              "Flip_Vertical: src: expected a picture of 1 to 4 channels, found width 6, height 6, "
              "channels 8");
    EXPECT_EQ(log.lines[4].text, "ConvertYUV2RGB: Usrc: expected an image, found none");
    for (const LogRecorder::Line& line : log.lines) EXPECT_EQ(line.level, Tarno::LogLevel::Error);
    EXPECT_EQ(manager.programCount(), 0);
    EXPECT_EQ(from->readCount(), 1);
    EXPECT_TRUE(std::isnan(read_back(*to).at(0, 0, 0)));
}

TEST_F(MatrixColor, WithoutAManagerEveryOperationIsAnErrorLine) {
    tesk::MatrixColor orphan(&pool, nullptr);
    const auto image = make_output(4, 6, 6);
    LogRecorder log;
    orphan.CopyImage(image, image);
    ASSERT_EQ(log.lines.size(), 1u);
    EXPECT_EQ(log.lines[0].text,
              "CopyImage: expected the program copy_8uc_to_16f to be registered, found none");
}

}  // namespace
