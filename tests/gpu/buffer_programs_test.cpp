// The programs that carry tensors between textures and buffers.

#include <array>
#include <functional>

#include "support/tensor_programs.h"

namespace {

using namespace testing_support;

constexpr unsigned int seed = 40212;

struct Shape {
    int channels;
    int height;
    int width;
};

// Two to eight slices: one pixel, whole groups, partly filled ones, padding channels.
const Shape shapes[] = {{8, 1, 1}, {8, 8, 8}, {12, 13, 11}, {6, 5, 9}, {29, 10, 6}, {5, 4, 3}};

std::string text(const Shape& shape) {
    return std::to_string(shape.channels) + " x " + std::to_string(shape.height) + " x " +
           std::to_string(shape.width);
}

/// What the last slice holds beyond the channels.
constexpr double padding = 3.5;

class BufferProgramTest : public TensorProgramTest {
protected:
    BufferProgramTest() : TensorProgramTest(seed) {}

    /// Dispatches a program from an image array at 0 to a buffer at 1 with a group to spare on
    /// every axis, and gives the buffer's `count` floats.
    std::vector<float> to_buffer(const std::string& name, const Tensor& in, size_t count,
                                 int offset = 0) {
        const auto src = upload(in, GL_RGBA16F, static_cast<float>(padding));
        const auto dst = make_untouched_buffer(count);
        const auto program = use_program(name);
        program->bindImage(0, GL_READ_ONLY, *src);
        program->bindBuffer(1, *dst);
        program->setUniform1i("bufferOffset", offset);
        GLint local[3];
        glGetProgramiv(program->getProgramID(), GL_COMPUTE_WORK_GROUP_SIZE, local);
        dispatch(*program, in.width + local[0], in.height + local[1],
                 (in.channels + 3) / 4 + local[2]);
        return read_buffer(*dst);
    }

    /// The same into the middle `count` floats of a larger buffer, whose other floats must stay:
    /// the program sees a buffer that is smaller than the tensor.
    void expect_cut_off(const std::string& name, const Tensor& in,
                        const std::vector<double>& whole) {
        SCOPED_TRACE(name + " into a short buffer");
        GLint alignment = 256;
        glGetIntegerv(GL_SHADER_STORAGE_BUFFER_OFFSET_ALIGNMENT, &alignment);
        const size_t before = static_cast<size_t>(alignment) / sizeof(float) * 4;
        const size_t kept = whole.size() / 2 / 4 * 4;
        ASSERT_GT(kept, 0u);
        const auto src = upload(in, GL_RGBA16F, static_cast<float>(padding));
        const auto dst = make_untouched_buffer(before + whole.size() + 64);
        const auto program = use_program(name);
        program->bindImage(0, GL_READ_ONLY, *src);
        program->bindBufferRange(1, *dst, static_cast<unsigned int>(before * sizeof(float)),
                                 static_cast<unsigned int>(kept * sizeof(float)));
        program->setUniform1i("bufferOffset", 0);
        dispatch(*program, in.width, in.height, (in.channels + 3) / 4);
        std::vector<double> want(before + whole.size() + 64, untouched);
        std::copy_n(whole.begin(), kept, want.begin() + static_cast<std::ptrdiff_t>(before));
        expect_floats(read_buffer(*dst), want);
    }
};

// ---- Orders
// --------------------------------------------------------------------------------------

std::vector<double> chw_floats(const Tensor& in) {
    return filled_slices(in, padding).values;
}

std::vector<double> hwc_floats(const Tensor& in) {
    const Tensor whole = filled_slices(in, padding);
    std::vector<double> floats;
    for (int y = 0; y < whole.height; ++y) {
        for (int x = 0; x < whole.width; ++x) {
            for (int c = 0; c < whole.channels; ++c) floats.push_back(whole.at(c, y, x));
        }
    }
    return floats;
}

TEST_F(BufferProgramTest, TensorsArriveAsPlanesOrAsPixels) {
    const struct {
        const char* name;
        std::vector<double> (*order)(const Tensor&);
    } programs[] = {
        {"transform_face_output_program", chw_floats},
        {"transform_outputTex_to_CHW_buffer_program", chw_floats},
        {"hands_image_to_buf_program", chw_floats},
        {"body_landmarks_image_to_buf_program", chw_floats},
        {"transform_outputTex_to_hwc_buffer_program", hwc_floats},
    };
    for (const auto& program : programs) {
        for (const Shape& shape : shapes) {
            SCOPED_TRACE(std::string(program.name) + ", " + text(shape));
            const Tensor in = random_halves(shape.channels, shape.height, shape.width, seed);
            std::vector<double> want = program.order(in);
            expect_cut_off(program.name, in, want);
            want.resize(want.size() + 64, untouched);
            expect_floats(to_buffer(program.name, in, want.size()), want);
        }
    }
}

TEST_F(BufferProgramTest, PlanesStartAtTheBufferOffset) {
    for (const char* name : {"hands_image_to_buf_program", "body_landmarks_image_to_buf_program"}) {
        for (const int offset : {1, 40, -7}) {
            SCOPED_TRACE(std::string(name) + ", offset " + std::to_string(offset));
            const Tensor in = random_halves(8, 7, 13, seed);
            const std::vector<double> planes = chw_floats(in);
            std::vector<double> want(planes.size() + 50, untouched);
            for (size_t i = 0; i < planes.size(); ++i) {
                const int at = static_cast<int>(i) + offset;  // what lies before 0 is dropped
                if (at >= 0) want[static_cast<size_t>(at)] = planes[i];
            }
            expect_floats(to_buffer(name, in, want.size(), offset), want);
        }
    }
}

TEST_F(BufferProgramTest, TensorsOfOnePixelArriveSliceAfterSlice) {
    for (const char* name : {"transform_stnNet_ouput_to_buffer_program",
                             "transform_classification_program", "load_fcNetOutput_to_Buffer"}) {
        for (const int channels : {5, 8, 40, 136}) {
            SCOPED_TRACE(std::string(name) + ", channels " + std::to_string(channels));
            const Tensor in = random_halves(channels, 1, 1, seed);
            std::vector<double> want = chw_floats(in);
            expect_cut_off(name, in, want);
            want.resize(want.size() + 12, untouched);
            expect_floats(to_buffer(name, in, want.size()), want);
        }
    }
}

TEST_F(BufferProgramTest, BuffersBecomeTensorsOfOnePixel) {
    for (const char* name : {"init_fcNet_fromBuffer", "tensor_reshape_step1_program"}) {
        for (const int slices : {2, 4, 7, 33}) {
            SCOPED_TRACE(std::string(name) + ", slices " + std::to_string(slices));
            const Tensor in = random_halves(4 * slices, 1, 1, seed);
            const std::vector<float> floats(in.values.begin(), in.values.end());
            const auto src = make_buffer(floats);
            const auto dst = make_output(4 * slices, 1, 1);
            const auto program = use_program(name);
            program->bindBuffer(0, *src);
            program->bindImage(1, GL_WRITE_ONLY, *dst);
            dispatch(*program, 1, 1, slices + 4);
            expect_same_texture(read_back(*dst), in);
        }
    }
}

TEST_F(BufferProgramTest, SlicesBeyondTheEndOfTheBufferAreZeroOrStay) {
    const Tensor in = random_halves(12, 1, 1, seed);
    const auto src = make_buffer(std::vector<float>(in.values.begin(), in.values.end()));
    for (const bool reshape : {false, true}) {
        const auto dst = make_output(20, 1, 1);
        const auto program =
            use_program(reshape ? "tensor_reshape_step1_program" : "init_fcNet_fromBuffer");
        program->bindBuffer(0, *src);
        program->bindImage(1, GL_WRITE_ONLY, *dst);
        dispatch(*program, 1, 1, 5);
        Tensor want(20, 1, 1, reshape ? 0.0 : untouched);
        std::copy(in.values.begin(), in.values.end(), want.values.begin());
        expect_same_texture(read_back(*dst), want);
    }
}

// ---- Class probabilities of a detector
// -----------------------------------------------------------

TEST_F(BufferProgramTest, ClassProbabilitiesAreTheMaximumOverTwelveChannelsOfEachAnchor) {
    for (const bool hwc : {true, false}) {
        const char* name =
            hwc ? "transform_cls_probs_to_HWC_buffer" : "transform_cls_probs_to_CHW_buffer";
        // 108 channels are nine anchors; 24 and 30 channels are two and two and a half.
        for (const Shape& shape : {Shape{108, 13, 11}, {108, 1, 1}, {24, 8, 8}, {30, 3, 5}}) {
            SCOPED_TRACE(std::string(name) + ", " + text(shape));
            const Tensor in = random_halves(shape.channels, shape.height, shape.width, seed);
            const int anchors = shape.channels / 12;
            const size_t pixels = static_cast<size_t>(shape.height * shape.width);
            std::vector<double> want(pixels * 9 + 16, untouched);
            for (int a = 0; a < anchors; ++a) {
                for (int y = 0; y < shape.height; ++y) {
                    for (int x = 0; x < shape.width; ++x) {
                        double best = in.at(12 * a, y, x);
                        for (int c = 1; c < 12; ++c) best = std::max(best, in.at(12 * a + c, y, x));
                        const int index = hwc ? (y * shape.width + x) * 9 + a
                                              : (a * shape.height + y) * shape.width + x;
                        want[static_cast<size_t>(index)] = best;
                    }
                }
            }
            expect_floats(to_buffer(name, in, want.size()), want);
        }
    }
}

TEST_F(BufferProgramTest, ClassProbabilitiesOfATenthAnchorDoNotReachTheNextPixel) {
    const Tensor in = random_halves(120, 2, 3, seed);
    const std::vector<float> got =
        to_buffer("transform_cls_probs_to_HWC_buffer", in, 2 * 3 * 9 + 9);
    for (int pixel = 0; pixel < 6; ++pixel) {
        for (int a = 0; a < 9; ++a) {
            double best = -HUGE_VAL;
            for (int c = 0; c < 12; ++c)
                best = std::max(best, in.at(12 * a + c, pixel / 3, pixel % 3));
            EXPECT_EQ(static_cast<double>(got[static_cast<size_t>(pixel * 9 + a)]), best);
        }
    }
    EXPECT_TRUE(std::isnan(got[54]));
}

// ---- Images to denser images
// ---------------------------------------------------------------------

TEST_F(BufferProgramTest, SlicesOfAOnePixelTensorFillAPlaneRowByRow) {
    // 250 slices fill the plane of one group; the others leave texels without a slice.
    for (const Shape& shape : {Shape{1000, 25, 10}, {40, 3, 7}, {400, 30, 13}}) {
        SCOPED_TRACE(text(shape));
        const Tensor in = random_halves(shape.channels, 1, 1, seed);
        const auto src = upload(in);
        const auto dst = make_output(4, shape.height, shape.width);
        const auto program = use_program("loadGpuData2CpuData_softmax_program");
        program->bindImage(0, GL_READ_ONLY, *src);
        program->bindImage(1, GL_WRITE_ONLY, *dst);
        dispatch(*program, shape.width, shape.height, 1);
        Tensor want(4, shape.height, shape.width);
        for (int y = 0; y < shape.height; ++y) {
            for (int x = 0; x < shape.width; ++x) {
                const int slice = y * shape.width + x;
                for (int c = 0; c < 4; ++c)
                    want.at(c, y, x) =
                        4 * slice < shape.channels ? in.at(4 * slice + c, 0, 0) : 0.0;
            }
        }
        expect_same_texture(read_back(*dst), want);
    }
}

TEST_F(BufferProgramTest, FirstComponentsOfTwoByTwoPixelsShareATexel) {
    for (const Shape& shape : {Shape{4, 2, 2}, {4, 16, 16}, {4, 13, 27}}) {
        SCOPED_TRACE(text(shape));
        const Tensor in = random_halves(4, shape.height, shape.width, seed);
        const auto src = upload(in);
        const int height = (shape.height + 1) / 2, width = (shape.width + 1) / 2;
        const auto dst = make_output(4, height, width);
        const auto program = use_program("copyGpuData2Cpu");
        program->setUnifromTexture("src", 0, *src);
        program->bindImage(1, GL_WRITE_ONLY, *dst);
        dispatch(*program, width, height, 1);
        Tensor want(4, height, width);
        for (int y = 0; y < shape.height; ++y) {
            for (int x = 0; x < shape.width; ++x)
                want.at(y % 2 * 2 + x % 2, y / 2, x / 2) = in.at(0, y, x);
        }
        expect_same_texture(read_back(*dst), want);
    }
}

TEST_F(BufferProgramTest, TestPatternIsARampOfThousandths) {
    for (const Shape& shape : {Shape{4, 1, 1}, {4, 8, 8}, {4, 21, 35}}) {
        SCOPED_TRACE(text(shape));
        const auto dst = make_output(4, shape.height, shape.width);
        const auto program = use_program("test_input2d_srcImg_program");
        program->bindImage(0, GL_WRITE_ONLY, *dst);
        dispatch(*program, shape.width, shape.height, 1);
        Tensor want(4, shape.height, shape.width);
        for (int y = 0; y < shape.height; ++y) {
            for (int x = 0; x < shape.width; ++x) {
                for (int c = 0; c < 3; ++c) want.at(c, y, x) = (x + y + c) * 0.001;
            }
        }
        expect_texture(read_back(*dst), want, 2 * float_unit);
    }
}

// ---- Words
// ---------------------------------------------------------------------------------------

TEST_F(BufferProgramTest, EachWordUnpacksToTwoHalves) {
    for (const size_t words : {size_t{1}, size_t{8}, size_t{133}}) {
        SCOPED_TRACE("words " + std::to_string(words));
        std::mt19937 generator(seed);
        std::vector<uint32_t> packed;
        std::vector<double> want;
        while (packed.size() < words) {
            uint32_t word = 0;
            for (int part = 0; part < 2; ++part) {
                // Normal numbers and zeros; by hand: sign, exponent less 15, ten bits below the 1.
                const uint32_t bits = generator() & 0xffffu;
                const int exponent = static_cast<int>(bits >> 10 & 31);
                const uint32_t half = exponent == 0 || exponent == 31 ? bits & 0x8000u : bits;
                const double magnitude =
                    half == bits ? std::ldexp(1024.0 + (bits & 1023u), exponent - 25) : 0.0;
                want.push_back((bits & 0x8000u) != 0 ? -magnitude : magnitude);
                word |= half << (16 * part);
            }
            packed.push_back(word);
        }
        want.resize(want.size() + 16, untouched);
        const auto src = make_buffer(packed);
        const auto dst = make_untouched_buffer(want.size());
        const auto program = use_program("convert_half_to_float");
        program->bindBuffer(0, *src);
        program->bindBuffer(1, *dst);
        dispatch(*program, static_cast<int>(words) + 8, 1, 1);
        expect_floats(read_buffer(*dst), want);
    }
}

TEST_F(BufferProgramTest, UnpackingStopsAtTheEndOfAnOddOutput) {
    const auto src = make_buffer(std::vector<uint32_t>{0x40003c00u, 0x44004200u});  // 1, 2, 3, 4
    GLint alignment = 256;
    glGetIntegerv(GL_SHADER_STORAGE_BUFFER_OFFSET_ALIGNMENT, &alignment);
    const auto dst = make_untouched_buffer(8);
    const auto program = use_program("convert_half_to_float");
    program->bindBuffer(0, *src);
    program->bindBufferRange(1, *dst, 0, 3 * sizeof(float));
    program->compute(1, 1, 1);
    std::vector<double> want(8, untouched);
    want[0] = 1, want[1] = 2, want[2] = 3;
    expect_floats(read_buffer(*dst), want);
}

TEST_F(BufferProgramTest, CodeDecodeIsItsOwnInverse) {
    for (const size_t count : {size_t{1}, size_t{8}, size_t{101}}) {
        SCOPED_TRACE("ints " + std::to_string(count));
        std::mt19937 generator(seed);
        std::vector<int32_t> plain(count);
        for (int32_t& value : plain) value = static_cast<int32_t>(generator());
        const int32_t secret = static_cast<int32_t>(generator());
        const auto src = make_buffer(plain);
        const auto coded = make_buffer(std::vector<int32_t>(count + 9, -77));
        const auto back = make_buffer(std::vector<int32_t>(count, 0));
        const auto program = use_program("code_decode");
        program->setUniform1i("secret", secret);
        program->bindBuffer(0, *src);
        program->bindBuffer(1, *coded);
        dispatch(*program, static_cast<int>(count) + 8, 1, 1);
        const std::vector<int32_t> hidden = read_buffer<int32_t>(*coded);
        for (size_t i = 0; i < hidden.size(); ++i)
            EXPECT_EQ(hidden[i], i < count ? plain[i] ^ secret : -77) << i;
        program->bindBuffer(0, *coded);
        program->bindBuffer(1, *back);
        dispatch(*program, static_cast<int>(count), 1, 1);
        EXPECT_EQ(read_buffer<int32_t>(*back), plain);
    }
}

// ---- Sound
// ---------------------------------------------------------------------------------------

// The precision tables that GL's successors give: atan to 4096 units, cos and sin to 2^-11
// absolute.
constexpr double atan_error = 4096 * float_unit;
const double cosine_error = std::ldexp(1.0, -11);
constexpr double magnitude_scale = 13.685064;

TEST_F(BufferProgramTest, FloatsFillThePlaneOfAClassifierRowByRow) {
    for (const Shape& shape : {Shape{4, 1, 1}, {4, 8, 8}, {4, 13, 41}}) {
        SCOPED_TRACE(text(shape));
        const Tensor in = random_halves(1, shape.height, shape.width, seed);
        std::vector<float> floats(in.values.begin(), in.values.end());
        floats.pop_back();  // one too few: the last pixel reads 0
        floats.resize(std::max<size_t>(floats.size(), 1), 0.25f);
        const auto src = make_buffer(floats);
        const auto dst = make_output(4, shape.height, shape.width);
        const auto program = use_program("audio_classification_program");
        program->bindBuffer(0, *src);
        program->bindImage(1, GL_WRITE_ONLY, *dst);
        dispatch(*program, shape.width, shape.height, 1);
        Tensor want(4, shape.height, shape.width);
        for (size_t i = 0; i < floats.size(); ++i) want.values[i] = static_cast<double>(floats[i]);
        expect_same_texture(read_back(*dst), want);
    }
}

TEST_F(BufferProgramTest, SpectrumSplitsIntoMagnitudesAndPhases) {
    for (const Shape& shape : {Shape{4, 1, 1}, {4, 8, 8}, {4, 9, 65}}) {
        SCOPED_TRACE(text(shape));
        const size_t count = static_cast<size_t>(shape.height * shape.width);
        const Tensor parts = random_halves(2, shape.height, shape.width, seed, -40.0, 40.0);
        std::vector<float> spectrum(2 * count);
        for (size_t i = 0; i < 2 * count; ++i) spectrum[i] = static_cast<float>(parts.values[i]);
        if (count > 4) {
            spectrum[2] = spectrum[3] = 0.0f;  // the angle of nothing is 0
            spectrum[4] = 0.0f;                // straight up and straight to the left
            spectrum[6] = -1.0f, spectrum[7] = 0.0f;
        }
        const auto source = make_buffer(spectrum);
        const auto phase = make_untouched_buffer(count + 5);
        const auto dst = make_output(4, shape.height, shape.width);
        const auto program = use_program("audio_denoise_preprocess_program");
        program->bindBuffer(0, *source);
        program->bindBuffer(1, *phase);
        program->bindImage(2, GL_WRITE_ONLY, *dst);
        dispatch(*program, shape.width, shape.height, 1);
        Tensor magnitudes(4, shape.height, shape.width);
        std::vector<double> phases(count + 5, untouched);
        for (size_t i = 0; i < count; ++i) {
            const double re = static_cast<double>(spectrum[2 * i]);
            const double im = static_cast<double>(spectrum[2 * i + 1]);
            magnitudes.values[i] = std::sqrt(re * re + im * im) / magnitude_scale;
            phases[i] = std::atan2(im, re + 1e-10);
        }
        expect_texture(read_back(*dst), magnitudes, 8 * float_unit);
        expect_floats(read_buffer(*phase), phases, atan_error, 0.0);
    }
}

TEST_F(BufferProgramTest, MagnitudesMaskAndPhasesMakeASpectrumAgain) {
    for (const Shape& shape : {Shape{4, 1, 1}, {4, 8, 8}, {4, 9, 65}}) {
        SCOPED_TRACE(text(shape));
        const size_t count = static_cast<size_t>(shape.height * shape.width);
        const Tensor magnitude = random_halves(4, shape.height, shape.width, seed, 0.0, 4.0);
        const Tensor mask = random_halves(4, shape.height, shape.width, seed + 1, 0.0, 1.0);
        const Tensor angles = random_halves(1, shape.height, shape.width, seed + 2, -3.14, 3.14);
        const auto src0 = upload(magnitude);
        const auto src1 = upload(mask);
        const auto phase =
            make_buffer(std::vector<float>(angles.values.begin(), angles.values.end()));
        const auto spectrum = make_untouched_buffer(2 * count + 6);
        const auto program = use_program("audio_denoise_postprocess_program");
        program->bindImage(0, GL_READ_ONLY, *src0);
        program->bindImage(1, GL_READ_ONLY, *src1);
        program->bindBuffer(2, *phase);
        program->bindBuffer(3, *spectrum);
        dispatch(*program, shape.width, shape.height, 1);
        std::vector<double> want(2 * count + 6, untouched);
        for (size_t i = 0; i < count; ++i) {
            const double m = magnitude.values[i] * mask.values[i] * magnitude_scale;
            want[2 * i] = m * std::cos(angles.values[i]);
            want[2 * i + 1] = m * std::sin(angles.values[i]);
        }
        expect_floats(read_buffer(*spectrum), want, 4 * float_unit,
                      4.0 * magnitude_scale * cosine_error);
    }
}

// ---- Reshape
// -------------------------------------------------------------------------------------

TEST_F(BufferProgramTest, ReshapeTakesPlainTexturesAndArraysAlike) {
    for (const Shape& shape :
         {Shape{4, 8, 8}, {1, 13, 11}, {3, 1, 1}, {5, 1, 1}, {8, 8, 8}, {21, 5, 19}}) {
        SCOPED_TRACE(text(shape));
        const Tensor in = random_halves(shape.channels, shape.height, shape.width, seed);
        const auto src = upload(in, GL_RGBA16F, static_cast<float>(padding));
        std::vector<double> want = chw_floats(in);
        want.resize(want.size() + 40, untouched);
        const auto dst = make_untouched_buffer(want.size());
        const auto program = use_program("tensor_reshape_step0_program");
        program->bindImage(0, GL_READ_ONLY, *src);
        program->bindBuffer(1, *dst);
        dispatch(*program, shape.width, shape.height, (shape.channels + 3) / 4);
        expect_floats(read_buffer(*dst), want);
    }
}

TEST_F(BufferProgramTest, ReshapeFlattensAMapIntoAOnePixelTensor) {
    const Tensor in = random_halves(8, 3, 5, seed);  // 120 values make 30 slices
    const auto src = upload(in);
    const auto floats = make_untouched_buffer(120);
    const auto dst = make_output(120, 1, 1);
    const auto planes = use_program("tensor_reshape_step0_program");
    planes->bindImage(0, GL_READ_ONLY, *src);
    planes->bindBuffer(1, *floats);
    planes->compute(1, 1, 2);
    const auto slices = use_program("tensor_reshape_step1_program");
    slices->bindBuffer(0, *floats);
    slices->bindImage(1, GL_WRITE_ONLY, *dst);
    slices->compute(1, 1, (30 + 3) / 4);
    Tensor want(120, 1, 1);
    want.values = in.values;
    expect_same_texture(read_back(*dst), want);
}

}  // namespace
