#include <gtest/gtest.h>

#include <algorithm>
#include <functional>

#include "support/recorders.h"
#include "support/tensors.h"

namespace {

using namespace TarnoCPU;
using namespace testing_support;

/// Opens the protected parts; its net has a size and, when asked for, one layer.
class OpenDetector : public TnDetectedCpu {
public:
    OpenDetector() : TnDetectedCpu(0, nullptr) {}
    OpenDetector(int width, int height) : TnDetectedCpu(0, nullptr) {
        nets.resize(1);
        nets[0].setNetSize(width, height);
    }
    using TnDetectedCpu::blob_allocator;
    using TnDetectedCpu::getInMat;
    using TnDetectedCpu::init;
    using TnDetectedCpu::input_count;
    using TnDetectedCpu::input_names;
    using TnDetectedCpu::input_sizes;
    using TnDetectedCpu::loaded;
    using TnDetectedCpu::model_paths;
    using TnDetectedCpu::nets;
    using TnDetectedCpu::pixel_buffer_a;
    using TnDetectedCpu::pixel_buffer_b;
    using TnDetectedCpu::workspace_allocator;
    using TnDetectedCpu::yuv2rgb;
    using TnDetectedCpu::yuv_buffer;
};

/// A frame of random bytes, or of the bytes that a test wants.
struct Frame {
    std::vector<unsigned char> bytes;
    _TN_Image image;

    Frame(int format, int width, int height, size_t size, unsigned int seed) : bytes(size) {
        std::mt19937 engine(seed);
        for (unsigned char& byte : bytes) byte = static_cast<unsigned char>(engine());
        image = {0, format, width, height, 0, bytes.data()};
    }
    static Frame rgba(int format, int width, int height, unsigned int seed) {
        return Frame(format, width, height, static_cast<size_t>(width) * height * 4, seed);
    }
    static Frame yuv(int format, int width, int height, unsigned int seed) {
        return Frame(format, width, height, static_cast<size_t>(width) * height * 3 / 2, seed);
    }
};

float at(const Mat& mat, int c, int y, int x) {
    return mat.ptr<float>()[(static_cast<size_t>(c) * mat.shape.h + y) * mat.shape.w + x];
}

TEST(Detector, TheBaseClassDetectsNothing) {
    TnDetectedCpu detector(0, nullptr);
    unsigned char frame[64] = {};
    EXPECT_FALSE(detector.detect(frame, nullptr));
    detector.reset_lstm_state();
}

TEST(Detector, KeepsItsModelPathsAndArguments) {
    const char* paths[2] = {"a.zqnet", "b.zqnet"};
    const char* names[1] = {"frame"};
    const long sizes[2] = {256, 128};
    class Open : public TnDetectedCpu {
    public:
        using TnDetectedCpu::flags;
        using TnDetectedCpu::input_count;
        using TnDetectedCpu::input_names;
        using TnDetectedCpu::input_sizes;
        using TnDetectedCpu::model_paths;
        using TnDetectedCpu::TnDetectedCpu;
    };
    const void* models[2] = {paths[0], paths[1]};
    Open detector(2, models, 1, names, sizes, 9);
    EXPECT_EQ((std::vector<std::string>{"a.zqnet", "b.zqnet"}), detector.model_paths);
    EXPECT_EQ(names, detector.input_names);
    EXPECT_EQ(sizes, detector.input_sizes);
    EXPECT_EQ(1, detector.input_count);
    EXPECT_EQ(9, detector.flags);
}

TEST(Detector, TheDestructorSaysSo) {
    LogRecorder log;
    { OpenDetector detector; }
    ASSERT_EQ(1u, log.lines.size());
    EXPECT_EQ(Tarno::LogLevel::Info, log.lines[0].level);
    EXPECT_EQ("Tarno", log.lines[0].tag);
    EXPECT_EQ("TnDetectedCpu delete finished.", log.lines[0].text);
}

TEST(Detector, AnUnknownFormatLogsTheLineAndLeavesTheTensorAlone) {
    for (const bool flipped : {false, true}) {
        OpenDetector detector(8, 8);
        Frame frame = Frame::rgba(7, 8, 8, 1);
        Mat out = random_tensor(1, 1, 3, 2);
        void* before = out.data;
        LogRecorder log;
        detector.getInMat(8, 8, &frame.image, out, flipped ? 8u : 0u, 0);
        EXPECT_EQ(before, out.data);
        ASSERT_EQ(1u, log.lines.size());
        EXPECT_EQ(Tarno::LogLevel::Error, log.lines[0].level);
        EXPECT_EQ(std::string("Error, unsupport camera frame data pixel format[7], in "
                              "TarnoCPU::TnDetectedCpu::getInMat[line: ") +
                      (flipped ? "1552]" : "1568]"),
                  log.lines[0].text);
    }
}

TEST(Detector, TheTwoNetNumbersChangePlacesForAFrameThatLies) {
    OpenDetector detector(8, 12);  // width 8, height 12
    Frame frame = Frame::rgba(4, 20, 20, 3);
    Mat out;
    detector.getInMat(10, 20, &frame.image, out, 0, 0);  // upright: th is height
    EXPECT_EQ(12, out.shape.h);
    EXPECT_EQ(8, out.shape.w);
    detector.getInMat(20, 10, &frame.image, out, 0, 0);
    EXPECT_EQ(8, out.shape.h);
    EXPECT_EQ(12, out.shape.w);
    detector.getInMat(10, 10, &frame.image, out, 0, 0);  // a square counts as lying
    EXPECT_EQ(8, out.shape.h);
}

TEST(Detector, FourByteFormatsOrderTheirChannels) {
    // No scaling: the net has the frame's size.
    for (const int format : {4, 5, 10}) {
        SCOPED_TRACE(format);
        OpenDetector detector(6, 4);
        Frame frame = Frame::rgba(format, 4, 6, 5);
        Mat out;
        detector.getInMat(4, 6, &frame.image, out, 0, 0);
        ASSERT_TRUE(out.shape == chw(3, 4, 6));  // upright: tw is width 6, th is height 4
        // The resize from 4 x 6 to 6 x 4 is not what is tested here: take the buffer as it is.
        for (int i = 0; i < 24; ++i) {
            const unsigned char* pixel =
                detector.pixel_buffer_b + (format == 10 ? 3 : 4) * static_cast<size_t>(i);
            const bool swapped = format != 4;
            EXPECT_EQ(pixel[swapped ? 2 : 0], out.ptr<float>()[i]);
            EXPECT_EQ(pixel[1], out.ptr<float>()[24 + i]);
            EXPECT_EQ(pixel[swapped ? 0 : 2], out.ptr<float>()[48 + i]);
        }
    }
}

// Where pixel (x, y) of an image of tw x th lands, and the new width.
using Turn = std::function<size_t(size_t x, size_t y, size_t tw, size_t th)>;

TEST(Detector, FourByteFramesTurnByTheirFlags) {
    struct Case {
        unsigned int flags;
        bool sides_change;
        Turn turn;
    };
    const Turn half = [](size_t x, size_t y, size_t tw, size_t th) {
        return tw * th - 1 - (y * tw + x);
    };
    const Case cases[] = {
        {1u, true, [](size_t x, size_t y, size_t tw, size_t th) { return (tw - 1 - x) * th + y; }},
        {2u, true, [](size_t x, size_t y, size_t, size_t th) { return x * th + (th - 1 - y); }},
        {3u, true, [](size_t x, size_t y, size_t tw, size_t th) { return (tw - 1 - x) * th + y; }},
        {4u, false, half},
        {64u, false, half},
        {5u, true, [](size_t x, size_t y, size_t tw, size_t th) { return (tw - 1 - x) * th + y; }},
        {0u, false, [](size_t x, size_t y, size_t tw, size_t) { return y * tw + x; }},
        {16u, false, [](size_t x, size_t y, size_t tw, size_t) { return y * tw + x; }},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.flags);
        OpenDetector detector(6, 10);
        Frame frame = Frame::rgba(4, 6, 10, 7);  // upright, the net's own size: no scaling
        Mat out;
        detector.getInMat(6, 10, &frame.image, out, c.flags, 0);
        ASSERT_TRUE(out.shape == (c.sides_change ? chw(3, 6, 10) : chw(3, 10, 6)));
        for (size_t y = 0; y < 10; ++y) {
            for (size_t x = 0; x < 6; ++x) {
                for (size_t k = 0; k < 3; ++k) {
                    EXPECT_EQ(frame.bytes[(y * 6 + x) * 4 + k],
                              out.ptr<float>()[k * 60 + c.turn(x, y, 6, 10)]);
                }
            }
        }
    }
}

TEST(Detector, TheRowFlipOfAFourByteFrameLeavesRowZeroAsItWas) {
    OpenDetector detector(4, 6);
    Frame frame = Frame::rgba(4, 4, 6, 8);
    Mat out;
    detector.getInMat(4, 6, &frame.image, out, 8u, 0);
    ASSERT_TRUE(out.shape == chw(3, 6, 4));
    for (int y = 0; y < 6; ++y) {
        // The target is the buffer of the resize: its row 0 holds the frame's own row 0.
        const int from = y == 0 ? 0 : 5 - y;
        for (int x = 0; x < 4; ++x) {
            EXPECT_EQ(frame.bytes[static_cast<size_t>(from * 4 + x) * 4], at(out, 0, y, x));
        }
    }
}

// The documented conversion in its own words.
void expected_rgb(int y, int a, int b, unsigned char rgb[3]) {
    const int av = a - 128, bv = b - 128;
    const auto low_byte = [](int v) {
        // Arithmetic shift by 6, low 8 bits.
        const int shifted = v >= 0 ? v / 64 : -((-v + 63) / 64);
        return static_cast<unsigned char>(((shifted % 256) + 256) % 256);
    };
    rgb[0] = low_byte(64 * y + 90 * av);
    rgb[1] = low_byte(64 * y - 46 * av - 22 * bv);
    rgb[2] = low_byte(64 * y + 113 * bv);
}

TEST(Detector, FullRangeWhiteIsWhite) {
    unsigned char rgb[3];
    expected_rgb(255, 128, 128, rgb);
    EXPECT_EQ(255, rgb[0]);
    OpenDetector detector(4, 4);
    Frame frame = Frame::yuv(1, 4, 4, 9);
    std::fill(frame.bytes.begin(), frame.bytes.begin() + 16, static_cast<unsigned char>(255));
    std::fill(frame.bytes.begin() + 16, frame.bytes.end(), static_cast<unsigned char>(128));
    Mat out;
    detector.getInMat(4, 4, &frame.image, out, 0, 0);
    for (const float v : values_of(out)) EXPECT_EQ(255.0f, v);
}

TEST(Detector, AResultBeyondAByteKeepsItsLowEightBits) {
    OpenDetector detector(4, 4);
    Frame frame = Frame::yuv(1, 4, 4, 9);
    std::fill(frame.bytes.begin(), frame.bytes.end(), static_cast<unsigned char>(255));
    Mat out;
    detector.getInMat(4, 4, &frame.image, out, 0, 0);
    EXPECT_EQ(((16320 + 11430) >> 6) & 0xff, static_cast<int>(at(out, 0, 1, 1)));
}

TEST(Detector, LumaAndChromaFramesConvertPixelByPixel) {
    for (const int format : {1, 8}) {
        for (const int swap : {0, 1}) {
            OpenDetector detector(6, 8);
            Frame frame = Frame::yuv(format, 6, 8, 10);
            Mat out;
            detector.getInMat(6, 8, &frame.image, out, 0, swap);
            ASSERT_TRUE(out.shape == chw(3, 8, 6));
            for (int y = 0; y < 8; ++y) {
                for (int x = 0; x < 6; ++x) {
                    const unsigned char* pair = frame.bytes.data() + 48 + ((y / 2) * 3 + x / 2) * 2;
                    unsigned char rgb[3];
                    expected_rgb(frame.bytes[static_cast<size_t>(y * 6 + x)], pair[0], pair[1],
                                 rgb);
                    for (int k = 0; k < 3; ++k) {
                        EXPECT_EQ(rgb[swap ? 2 - k : k], at(out, k, y, x)) << x << " " << y;
                    }
                }
            }
        }
    }
}

TEST(Detector, QuarterTurnsOfLumaAndChromaFramesChangeOnlyTheSides) {
    OpenDetector detector(4, 6);
    Frame first = Frame::yuv(1, 4, 6, 11);
    Frame second = Frame::yuv(1, 4, 6, 12);
    Mat plain, turned;
    detector.getInMat(4, 6, &first.image, plain, 0, 0);
    detector.getInMat(4, 6, &second.image, turned, 1u, 0);
    ASSERT_TRUE(turned.shape == chw(3, 4, 6));
    // The second buffer still holds the first frame.
    EXPECT_EQ(values_of(plain), values_of(turned));
}

TEST(Detector, AHalfTurnOfLumaAndChromaFramesKeepsTheEarlierContents) {
    OpenDetector detector(4, 6);
    Frame first = Frame::yuv(1, 4, 6, 13);
    Frame second = Frame::yuv(1, 4, 6, 14);
    Mat plain, turned;
    detector.getInMat(4, 6, &first.image, plain, 0, 0);
    detector.getInMat(4, 6, &second.image, turned, 4u, 0);
    EXPECT_EQ(values_of(plain), values_of(turned));
    EXPECT_TRUE(turned.shape == plain.shape);
}

TEST(Detector, TheRowFlipOfLumaAndChromaFramesIsWhole) {
    OpenDetector detector(4, 6);
    Frame frame = Frame::yuv(1, 4, 6, 15);
    Mat plain, flipped;
    detector.getInMat(4, 6, &frame.image, plain, 0, 0);
    detector.getInMat(4, 6, &frame.image, flipped, 8u, 0);
    for (int k = 0; k < 3; ++k)
        for (int y = 0; y < 6; ++y)
            for (int x = 0; x < 4; ++x) EXPECT_EQ(at(plain, k, 5 - y, x), at(flipped, k, y, x));
}

TEST(Detector, TheRotationsOfTheConverterAreThoseOfItsTable) {
    // Net 6 wide and 4 high: tw is 4, th is 6.
    Frame frame = Frame::yuv(1, 4, 6, 16);
    const auto converted = [&](int rotate, OpenDetector& detector) {
        Mat out;
        detector.yuv2rgb(4, 6, frame.bytes.data(), out, rotate, 0);
        return out;
    };
    OpenDetector detector(6, 4);
    const Mat plain = converted(4, detector);
    ASSERT_TRUE(plain.shape == chw(3, 6, 4));
    const Mat flipped = converted(3, detector);
    ASSERT_TRUE(flipped.shape == chw(3, 6, 4));
    const Mat turned = converted(0, detector);
    ASSERT_TRUE(turned.shape == chw(3, 4, 6));
    for (int k = 0; k < 3; ++k) {
        for (int y = 0; y < 6; ++y) {
            for (int x = 0; x < 4; ++x) {
                EXPECT_EQ(at(plain, k, y, x), at(flipped, k, 5 - y, x));
                EXPECT_EQ(at(plain, k, y, x), at(turned, k, 3 - x, 5 - y));
            }
        }
    }
    for (const int rotate : {1, 2}) {
        // What the buffer holds from the call before.
        const Mat stale = converted(rotate, detector);
        EXPECT_EQ(values_of(turned), values_of(stale));
        EXPECT_TRUE(stale.shape == turned.shape);
    }
    Mat untouched = random_tensor(1, 1, 2, 17);
    void* before = untouched.data;
    detector.yuv2rgb(4, 6, frame.bytes.data(), untouched, 5, 0);
    EXPECT_EQ(before, untouched.data);
}

TEST(Detector, BuffersGrowWhenALaterFrameNeedsMore) {
    OpenDetector detector(8, 8);
    Mat out;
    Frame three_bytes = Frame::yuv(1, 8, 8, 18);
    detector.getInMat(8, 8, &three_bytes.image, out, 0, 0);
    Frame four_bytes = Frame::rgba(4, 8, 8, 19);
    detector.getInMat(8, 8, &four_bytes.image, out, 0, 0);
    EXPECT_EQ(four_bytes.bytes[0], at(out, 0, 0, 0));
    detector.nets[0].setNetSize(32, 32);
    detector.getInMat(8, 8, &four_bytes.image, out, 0, 0);
    EXPECT_TRUE(out.shape == chw(3, 32, 32));
}

TEST(Detector, OddSizesAndEmptyFramesStayInsideTheirBuffers) {
    for (const int size : {1, 2, 3, 5, 7}) {
        OpenDetector detector(size, size + 1);
        Frame yuv = Frame::yuv(1, 10, 10, 20);
        Frame rgba = Frame::rgba(4, 10, 10, 21);
        Mat out;
        for (const unsigned int flags : {0u, 1u, 2u, 4u, 8u, 9u}) {
            detector.getInMat(10, 10, &yuv.image, out, flags, 0);
            detector.getInMat(10, 10, &rgba.image, out, flags, 0);
        }
        for (int rotate = 0; rotate < 5; ++rotate) {
            detector.yuv2rgb(10, 10, yuv.bytes.data(), out, rotate, 0);
        }
    }
    OpenDetector detector(4, 4);
    Frame none = Frame::rgba(4, 4, 4, 22);
    none.image.data = nullptr;
    Mat out;
    detector.getInMat(4, 4, &none.image, out, 0, 0);
    EXPECT_TRUE(out.empty());
    none.image.width = 0;
    detector.getInMat(4, 4, &none.image, out, 0, 0);
    detector.getInMat(4, 4, nullptr, out, 0, 0);
    EXPECT_TRUE(out.empty());
}

/// A detector with one input layer that hands the frame on.
class PassingDetector : public OpenDetector {
public:
    int loads = 0;
    bool load_result = true;
    std::vector<std::string> calls;
    Mat seen;

    bool load() override {
        ++loads;
        if (!load_result) return false;
        nets.resize(1);
        nets[0].setNetSize(4, 4);
        Layer* layer = create_layer("Input");
        layer->load(ParamDict(), ModelBinFromTarnoWeightBias(nullptr, nullptr),
                    {find_operator("Input_Fallback")->creator, 0, 0});
        layer->bottoms = {0};
        layer->tops = {0};
        nets[0].layers.push_back(layer);
        nets[0].blobs.resize(1);
        nets[0].input_blobs[0] = 0;
        loaded = true;
        return true;
    }
    void preprocess(Mat& in) override {
        calls.push_back("preprocess");
        EXPECT_FALSE(in.empty());
    }
    void postprocess(const Mat& out, void* result) override {
        calls.push_back("postprocess");
        seen = out;
        *static_cast<int*>(result) = 42;
    }
};

TEST(Detector, DetectReadsTheFrameAtTheAddressOfTheHeader) {
    PassingDetector detector;
    // A raw 4 x 4 frame whose third and fourth word double as width and height.
    unsigned char frame[24];
    for (int i = 0; i < 24; ++i) frame[i] = static_cast<unsigned char>(200 + i);
    const int size[2] = {4, 4};
    std::memcpy(frame + 8, size, sizeof size);
    int result = 0;
    EXPECT_TRUE(detector.detect(frame, &result));
    EXPECT_TRUE(detector.detect(frame, &result));
    EXPECT_EQ(1, detector.loads);
    EXPECT_EQ(42, result);
    EXPECT_EQ((std::vector<std::string>{"preprocess", "postprocess", "preprocess", "postprocess"}),
              detector.calls);
    unsigned char rgb[3];
    expected_rgb(frame[0], frame[16], frame[17], rgb);
    EXPECT_EQ(rgb[0], at(detector.seen, 0, 3, 3));  // rotate 0: pixel (0, 0) goes last
}

TEST(Detector, AFailingLoadMakesDetectFalse) {
    PassingDetector detector;
    detector.load_result = false;
    unsigned char frame[24] = {};
    int result = 0;
    EXPECT_FALSE(detector.detect(frame, &result));
    EXPECT_EQ(0, result);
}

}  // namespace
