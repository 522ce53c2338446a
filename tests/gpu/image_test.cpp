// Images: lifetimes by read count, uploads of every format, read-backs, dumps byte for byte.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tarno/gpu.h>

#include <cfloat>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <iomanip>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "support/gl_fixture.h"
#include "support/gl_objects.h"
#include "support/recorders.h"
#include "support/temporary_file.h"

namespace {

using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing_support::GpuTest;
using testing_support::LiveObjects;
using testing_support::LogRecorder;
using testing_support::random_halves;
using testing_support::TemporaryFile;
using testing_support::Tensor;

/// The bits of a number that a half holds exactly, zero or normal.
uint16_t half_bits(double value) {
    if (value == 0.0) return 0;
    int exponent = 0;
    const double fraction = std::frexp(std::fabs(value), &exponent);  // [0.5, 1)
    const int mantissa = static_cast<int>(std::ldexp(fraction, 11)) - 1024;
    const int bits = ((exponent + 14) << 10) + mantissa;
    return static_cast<uint16_t>(bits | (value < 0 ? 0x8000 : 0));
}

/// A texture's content as GL itself gives it back.
template <typename T>
std::vector<T> pixels(GLenum target, unsigned int id, GLenum format, GLenum type, size_t count) {
    std::vector<T> values(count);
    GLint alignment = 0;
    glGetIntegerv(GL_PACK_ALIGNMENT, &alignment);
    glPixelStorei(GL_PACK_ALIGNMENT, 1);
    glBindTexture(target, id);
    glGetTexImage(target, 0, format, type, values.data());
    glBindTexture(target, 0);
    glPixelStorei(GL_PACK_ALIGNMENT, alignment);
    return values;
}

GLint integer(GLenum name) {
    GLint value = -1;
    glGetIntegerv(name, &value);
    return value;
}

class Images : public GpuTest {};

// Lifetime.

TEST_F(Images, HaveNoTextureUntilSomebodyAsks) {
    tesk::Image image(3, 5, 7, GL_RGBA16F, &pool);
    EXPECT_EQ(image.textureId(), 0u);
    EXPECT_EQ(pool.textureCount(), 0);
    EXPECT_EQ(image.height(), 3);
    EXPECT_EQ(image.width(), 5);
    EXPECT_EQ(image.channels(), 7);
    EXPECT_EQ(image.format(), GLenum{GL_RGBA16F});
    EXPECT_EQ(image.readCount(), 0);
    int height = 0, width = 0, channels = 0;
    image.size(height, width, channels);
    EXPECT_THAT((std::vector<int>{height, width, channels}), ElementsAre(3, 5, 7));
    const unsigned int id = image.texture();
    EXPECT_NE(id, 0u);
    EXPECT_EQ(image.textureId(), id);
    EXPECT_EQ(image.texture(), id);
    EXPECT_EQ(pool.textureCount(), 1);
}

TEST_F(Images, OfUpToFourChannelsArePlainAndOfMoreArrays) {
    for (const int channels : {1, 3, 4})
        EXPECT_EQ(make_image(channels, 2, 2)->textureType(), GLenum{GL_TEXTURE_2D}) << channels;
    for (const int channels : {5, 8, 9})
        EXPECT_EQ(make_image(channels, 2, 2)->textureType(), GLenum{GL_TEXTURE_2D_ARRAY})
            << channels;
}

TEST_F(Images, GiveTheirTextureBackWhenTheyGo) {
    unsigned int id = 0;
    {
        tesk::Image image(2, 2, 4, GL_RGBA16F, &pool);
        id = image.texture();
        EXPECT_EQ(pool.texturesInUse(), 1);
    }
    EXPECT_EQ(pool.texturesInUse(), 0);
    tesk::Image next(2, 2, 4, GL_RGBA16F, &pool);
    EXPECT_EQ(next.texture(), id);
}

TEST_F(Images, GiveTheirTextureBackBehindTheLastReader) {
    tesk::Image image(2, 2, 4, GL_RGBA16F, &pool);
    const unsigned int id = image.texture();
    image.addReadCount();
    image.addReadCount();
    image.addReadCount();
    EXPECT_EQ(image.getReadCount(), 3);
    image.subReadCount();
    image.subReadCount();
    EXPECT_EQ(image.textureId(), id);
    image.subReadCount();
    EXPECT_EQ(image.readCount(), 0);
    EXPECT_EQ(image.textureId(), 0u);
    EXPECT_EQ(pool.texturesInUse(), 0);
    // The image lives on and can acquire again.
    EXPECT_EQ(image.texture(), id);
    EXPECT_EQ(image.height(), 2);
}

TEST_F(Images, AReaderNobodyCountedGivesTheTextureBackAndTheCountGoesBelowZero) {
    tesk::Image image(2, 2, 4, GL_RGBA16F, &pool);
    image.texture();
    image.subReadCount();
    EXPECT_EQ(image.readCount(), -1);
    EXPECT_EQ(image.textureId(), 0u);
    image.subReadCount();
    EXPECT_EQ(image.readCount(), -2);
    image.texture();
    image.addReadCount();
    EXPECT_EQ(image.readCount(), -1);
    EXPECT_NE(image.textureId(), 0u);
    image.subReadCount();
    EXPECT_EQ(image.textureId(), 0u);
}

TEST_F(Images, AResizeGivesTheTextureBackEvenToTheSameSize) {
    tesk::Image image(2, 3, 4, GL_RGBA16F, &pool);
    image.texture();
    image.resize(2, 3, 4);
    EXPECT_EQ(image.textureId(), 0u);
    EXPECT_EQ(pool.texturesInUse(), 0);
    image.resize(7, 6, 5);
    EXPECT_EQ(image.textureType(), GLenum{GL_TEXTURE_2D_ARRAY});
    EXPECT_EQ(image.height(), 7);
    EXPECT_EQ(image.width(), 6);
    EXPECT_EQ(image.channels(), 5);
    image.texture();
    EXPECT_EQ(pool.textureCount(), 2);
}

TEST_F(Images, AnAssignedImageNamesTheSameTextureAndTheFirstToBeDoneGivesItBack) {
    tesk::Image source(2, 3, 7, GL_RGBA16F, &pool);
    source.addReadCount();
    const unsigned int id = source.texture();
    tesk::Image image(&pool);
    image = source;
    EXPECT_EQ(image.textureId(), id);
    EXPECT_EQ(image.readCount(), 1);
    EXPECT_EQ(image.height(), 2);
    EXPECT_EQ(image.width(), 3);
    EXPECT_EQ(image.channels(), 7);
    EXPECT_EQ(image.textureType(), GLenum{GL_TEXTURE_2D_ARRAY});
    EXPECT_EQ(pool.texturesInUse(), 1);
    image.subReadCount();
    EXPECT_EQ(pool.texturesInUse(), 0);
    EXPECT_EQ(source.textureId(), id);
}

TEST_F(Images, WithoutASizeTakeNothingUntilAResize) {
    tesk::Image image(&pool);
    EXPECT_EQ(image.format(), GLenum{GL_RGBA16F});
    const float texel[] = {1.0f, 2.0f, 3.0f, 4.0f};
    {
        LogRecorder log;
        image.update(reinterpret_cast<const char*>(texel), 0);
        ASSERT_EQ(log.lines.size(), 1u);
        EXPECT_EQ(log.lines[0].text, "Unsupport texuture type!");
        EXPECT_EQ(log.lines[0].tag, "Tarno");
        EXPECT_EQ(log.lines[0].level, Tarno::LogLevel::Error);
        EXPECT_EQ(image.texture(), 0u);
        EXPECT_EQ(log.lines.back().text,
                  "texture: expected a size above 0, found 0 x 0 x 0 (height, width, channels)");
    }
    image.resize(1, 1, 4);
    image.update(reinterpret_cast<const char*>(texel), 0);
    EXPECT_EQ(read_back(image).at(3, 0, 0), 4.0);
}

TEST_F(Images, WithoutAPoolHaveNoTexture) {
    tesk::Image image(2, 2, 4, GL_RGBA16F, nullptr);
    LogRecorder log;
    EXPECT_EQ(image.texture(), 0u);
    ASSERT_EQ(log.lines.size(), 1u);
    EXPECT_EQ(log.lines[0].text, "image: expected a texture pool, found none");
    image.resize(1, 1, 1);
    image.subReadCount();
}

// Uploads.

TEST_F(Images, NullDataIsNoUpload) {
    tesk::Image image(2, 2, 4, GL_RGBA16F, &pool);
    image.update(nullptr, 0);
    EXPECT_EQ(image.textureId(), 0u);
}

struct ByteFormat {
    GLenum internal;
    GLenum transfer;
    int components;
    int channels;
};

/// Rows of 1 to 9 texels, of one, three and four bytes each, plain and in layers, from memory that
/// ends with the last byte.
TEST_F(Images, BytesAreUploadedWithoutRowPadding) {
    for (const ByteFormat& format :
         {ByteFormat{GL_R8, GL_RED, 1, 1}, ByteFormat{GL_RGB8, GL_RGB, 3, 3},
          ByteFormat{GL_RGBA8, GL_RGBA, 4, 4}, ByteFormat{GL_RGB8, GL_RGB, 3, 12},
          ByteFormat{GL_RGBA8, GL_RGBA, 4, 9}}) {
        for (const int width : {1, 2, 3, 5, 7, 8, 9}) {
            const int height = 3;
            const bool array = format.channels > 4;
            const int slices = (format.channels + 3) / 4;
            std::vector<unsigned char> data(
                static_cast<size_t>(width * height * slices * format.components));
            for (size_t i = 0; i < data.size(); ++i)
                data[i] = static_cast<unsigned char>(17 + 31 * i);
            tesk::Image image(height, width, format.channels, format.internal, &pool);
            image.update(reinterpret_cast<const char*>(data.data()), width % 2);
            EXPECT_EQ(pixels<unsigned char>(array ? GL_TEXTURE_2D_ARRAY : GL_TEXTURE_2D,
                                            image.textureId(), format.transfer, GL_UNSIGNED_BYTE,
                                            data.size()),
                      data)
                << std::hex << format.internal << std::dec << " channels " << format.channels
                << " width " << width;
        }
    }
    EXPECT_EQ(integer(GL_UNPACK_ALIGNMENT), 4);
}

/// All other formats take four components a texel, as floats or halves.
TEST_F(Images, FloatsAndHalvesAreUploadedSliceAfterSlice) {
    for (const GLenum internal : {GL_RGBA16F, GL_RGBA32F}) {
        for (const int channels : {1, 4, 5, 9}) {
            for (const int half : {0, 1, -7}) {
                const int height = 3, width = 5;
                const int slices = (channels + 3) / 4;
                const Tensor numbers = random_halves(4 * slices, height, width, 20 + channels);
                std::vector<float> floats;
                std::vector<uint16_t> halves;
                for (const double value : numbers.values) {
                    floats.push_back(static_cast<float>(value));
                    halves.push_back(std::fabs(value) < 6.2e-5 ? uint16_t{0} : half_bits(value));
                    if (halves.back() == 0) floats.back() = 0.0f;
                }
                tesk::Image image(height, width, channels, internal, &pool);
                image.update(half != 0 ? reinterpret_cast<const char*>(halves.data())
                                       : reinterpret_cast<const char*>(floats.data()),
                             half);
                EXPECT_EQ(pixels<float>(slices > 1 ? GL_TEXTURE_2D_ARRAY : GL_TEXTURE_2D,
                                        image.textureId(), GL_RGBA, GL_FLOAT, floats.size()),
                          floats)
                    << "channels " << channels << " half " << half;
            }
        }
    }
}

TEST_F(Images, OneByteTexelsInLayersTakeFourFloatsLikeAnyOther) {
    std::vector<float> floats(2 * 2 * 2 * 4, 0.5f);
    for (size_t i = 0; i < floats.size(); i += 4)
        floats[i] = static_cast<float>(i) / 32.0f;
    tesk::Image image(2, 2, 8, GL_R8, &pool);
    image.update(reinterpret_cast<const char*>(floats.data()), 0);
    const std::vector<unsigned char> bytes = pixels<unsigned char>(
        GL_TEXTURE_2D_ARRAY, image.textureId(), GL_RED, GL_UNSIGNED_BYTE, 8);
    for (size_t i = 0; i < bytes.size(); ++i)
        EXPECT_NEAR(bytes[i], floats[4 * i] * 255.0f, 0.5001f) << i;
}

TEST_F(Images, AnUploadTakesATextureAndKeepsIt) {
    const std::vector<float> zeros(16, 0.0f);
    tesk::Image image(2, 2, 4, GL_RGBA16F, &pool);
    image.update(reinterpret_cast<const char*>(zeros.data()), 0);
    const unsigned int id = image.textureId();
    EXPECT_NE(id, 0u);
    image.update(reinterpret_cast<const char*>(zeros.data()), 0);
    EXPECT_EQ(image.textureId(), id);
}

TEST_F(Images, ChannelsStandInSlicesAndComponents) {
    Tensor tensor(6, 2, 3);
    for (int c = 0; c < 6; ++c)
        for (int y = 0; y < 2; ++y)
            for (int x = 0; x < 3; ++x)
                tensor.at(c, y, x) = 100 * c + 10 * y + x;
    const auto image = upload(tensor);
    std::vector<float> texels(2 * 3 * 4);
    image->copyTexToMemry(texels.data(), 1);
    for (int y = 0; y < 2; ++y)
        for (int x = 0; x < 3; ++x)
            for (int c = 4; c < 6; ++c)
                EXPECT_EQ(texels[static_cast<size_t>(4 * (3 * y + x) + c - 4)],
                          100 * c + 10 * y + x);
}

// Read-backs.

TEST_F(Images, BothFormsOfTheReadBackWriteFloats) {
    const Tensor tensor = random_halves(9, 3, 5, 7);
    const auto image = upload(tensor);
    for (int slice = 0; slice < 3; ++slice) {
        std::vector<float> floats(3 * 5 * 4, -9.0f);
        std::vector<char> bytes(floats.size() * sizeof(float), 'u');
        image->copyTexToMemry(floats.data(), slice);
        image->copyTexToMemry(bytes.data(), slice);
        EXPECT_EQ(std::memcmp(floats.data(), bytes.data(), bytes.size()), 0);
        for (int y = 0; y < 3; ++y)
            for (int x = 0; x < 5; ++x)
                for (int c = 0; c < 4; ++c) {
                    const int channel = 4 * slice + c;
                    EXPECT_EQ(floats[static_cast<size_t>(4 * (5 * y + x) + c)],
                              channel < 9 ? tensor.at(channel, y, x) : 0.0);
                }
    }
    EXPECT_EQ(integer(GL_FRAMEBUFFER_BINDING), 0);
}

TEST_F(Images, OneByteReadBacksHaveNoRowPadding) {
    for (const int width : {1, 3, 5, 7, 8}) {
        const int height = 4;
        std::vector<char> data(static_cast<size_t>(width * height));
        for (size_t i = 0; i < data.size(); ++i)
            data[i] = static_cast<char>(40 * i);
        tesk::Image image(height, width, 1, GL_R8, &pool);
        image.update(data.data(), 0);
        std::vector<char> read(data.size());
        image.copyTexToMemry_c1(read.data(), 0);
        EXPECT_EQ(read, data) << width;
    }
    EXPECT_EQ(integer(GL_PACK_ALIGNMENT), 4);
    EXPECT_EQ(integer(GL_FRAMEBUFFER_BINDING), 0);
}

TEST_F(Images, OneByteReadBacksOfFloatsAreScaledAndClamped) {
    Tensor tensor(5, 1, 3);
    tensor.at(4, 0, 0) = -1.0;
    tensor.at(4, 0, 1) = 1.0;
    tensor.at(4, 0, 2) = 7.0;
    const auto image = upload(tensor);
    unsigned char read[3] = {9, 9, 9};
    image->copyTexToMemry_c1(reinterpret_cast<char*>(read), 1);
    EXPECT_THAT(read, ElementsAre(0, 255, 255));
}

TEST_F(Images, RowAlignmentsOfTheHostChangeNothing) {
    const Tensor tensor = random_halves(1, 5, 3, 11);
    const auto image = upload(tensor, GL_RGBA16F, 0.0f);
    glPixelStorei(GL_PACK_ALIGNMENT, 8);
    glPixelStorei(GL_UNPACK_ALIGNMENT, 8);
    const TemporaryFile file;
    image->saveToBin_audio(file.path());
    std::vector<unsigned char> data(3 * 5, 200);
    tesk::Image bytes(5, 3, 1, GL_R8, &pool);
    bytes.update(reinterpret_cast<const char*>(data.data()), 0);
    std::vector<char> read(data.size());
    bytes.copyTexToMemry_c1(read.data(), 0);
    EXPECT_THAT(read, Each(static_cast<char>(200)));
    EXPECT_EQ(integer(GL_PACK_ALIGNMENT), 8);
    EXPECT_EQ(integer(GL_UNPACK_ALIGNMENT), 8);
    glPixelStorei(GL_PACK_ALIGNMENT, 4);
    glPixelStorei(GL_UNPACK_ALIGNMENT, 4);
}

TEST_F(Images, AReadWithoutATextureLeavesTheDestinationAlone) {
    for (const int channels : {4, 8}) {
        tesk::Image image(1, 1, channels, GL_RGBA16F, &pool);
        float read[] = {-1.0f, -1.0f, -1.0f, -1.0f};
        image.copyTexToMemry(read, 0);
        EXPECT_EQ(take_gl_error(), GLenum{GL_INVALID_FRAMEBUFFER_OPERATION});
        EXPECT_THAT(read, Each(-1.0f));
        EXPECT_EQ(image.textureId(), 0u);
        EXPECT_EQ(integer(GL_FRAMEBUFFER_BINDING), 0);
    }
}

TEST_F(Images, AReadOfASliceThatThereIsNotLeavesTheDestinationAlone) {
    const auto image = upload(Tensor(8, 1, 1, 3.0));
    float read[] = {-1.0f, -1.0f, -1.0f, -1.0f};
    image->copyTexToMemry(read, 2);
    EXPECT_NE(take_gl_error(), GLenum{GL_NO_ERROR});
    image->copyTexToMemry(read, -1);
    while (take_gl_error() != GL_NO_ERROR) continue;
    EXPECT_THAT(read, Each(-1.0f));
    image->copyTexToMemry(read, 1);
    EXPECT_THAT(read, Each(3.0f));
}

TEST_F(Images, AReadToNowhereDoesNothing) {
    const auto image = upload(Tensor(4, 1, 1, 3.0));
    image->copyTexToMemry(static_cast<float*>(nullptr), 0);
    image->copyTexToMemry(static_cast<char*>(nullptr), 0);
    image->copyTexToMemry_c1(nullptr, 0);
}

TEST_F(Images, TheFramebufferGoesWithTheImage) {
    const int before = LiveObjects::count().framebuffers;
    {
        const auto image = upload(Tensor(4, 1, 1, 3.0));
        EXPECT_EQ(LiveObjects::count().framebuffers, before);
        read_back(*image);
        read_back(*image);
        EXPECT_EQ(LiveObjects::count().framebuffers, before + 1);
    }
    EXPECT_EQ(LiveObjects::count().framebuffers, before);
}

// Dumps. The expectations are formatted by streams and take the numbers of the tensor, not of the
// texture.

std::string number(double value) {
    std::ostringstream text;
    text << std::fixed << std::setprecision(4) << value;
    return text.str();
}

double value_at(const Tensor& tensor, int c, int y, int x) {
    const bool inside = c < tensor.channels && y >= 0 && y < tensor.height && x >= 0 &&
                        x < tensor.width;
    return inside ? tensor.at(c, y, x) : 0.0;
}

/// Lines of the corner dump.
std::vector<std::string> corner_lines(const Tensor& tensor) {
    std::vector<std::string> lines;
    const auto row = [&](int c, int y) {
        const int w = tensor.width;
        lines.push_back(number(value_at(tensor, c, y, 0)) + " " +
                        number(value_at(tensor, c, y, 1)) + " " +
                        number(value_at(tensor, c, y, 2)) + " | " +
                        number(value_at(tensor, c, y, w - 3)) + " " +
                        number(value_at(tensor, c, y, w - 2)) + " " +
                        number(value_at(tensor, c, y, w - 1)) + " \n");
    };
    for (int c = 0; c < 4 * ((tensor.channels + 3) / 4); ++c) {
        lines.push_back("channel=" + std::to_string(c) + "\n");
        for (int y = 0; y < 3; ++y)
            row(c, y);
        lines.push_back("---------------------------------------\n");
        for (int y = tensor.height - 3; y < tensor.height; ++y)
            row(c, y);
        lines.push_back("\n");
    }
    return lines;
}

std::string joined(const std::vector<std::string>& lines) {
    std::string text;
    for (const std::string& line : lines)
        text += line;
    return text;
}

std::string content(const TemporaryFile& file) {
    const std::vector<unsigned char> bytes = file.read();
    return std::string(bytes.begin(), bytes.end());
}

struct DumpSize {
    int channels, height, width;
};

class Dumps : public GpuTest, public testing::WithParamInterface<DumpSize> {
protected:
    Tensor tensor() const {
        return random_halves(GetParam().channels, GetParam().height, GetParam().width, 99, -40, 40);
    }
};

TEST_P(Dumps, CornersAsText) {
    const Tensor numbers = tensor();
    const auto image = upload(numbers);
    const TemporaryFile one_by_one, at_once;
    image->saveToBin(one_by_one.path());
    image->saveToBin_onMobilePhone(at_once.path());
    EXPECT_EQ(content(one_by_one), joined(corner_lines(numbers)));
    EXPECT_EQ(content(at_once), joined(corner_lines(numbers)));
}

TEST_P(Dumps, CornersInTheLog) {
    const Tensor numbers = tensor();
    const auto image = upload(numbers);
    std::vector<std::string> expected = corner_lines(numbers);
    for (std::string& line : expected)
        line += " ";
    LogRecorder log;
    image->printOutput();
    std::vector<std::string> lines;
    for (const LogRecorder::Line& line : log.lines) {
        EXPECT_EQ(line.tag, "Tarno");
        EXPECT_EQ(line.level, Tarno::LogLevel::Verbose);
        lines.push_back(line.text);
    }
    EXPECT_EQ(lines, expected);
}

TEST_P(Dumps, EveryValueAsText) {
    const Tensor numbers = tensor();
    const auto image = upload(numbers);
    std::string expected;
    for (int c = 0; c < 4 * ((numbers.channels + 3) / 4); ++c) {
        expected += "channel=" + std::to_string(c) + "\n";
        int written = 0;
        for (int y = 0; y < numbers.height; ++y) {
            for (int x = 0; x < numbers.width; ++x) {
                expected += number(value_at(numbers, c, y, x)) + " ";
                if (++written % 10 == 0) expected += "\n";
            }
        }
        expected += "---------------------------------------\n\n";
    }
    const TemporaryFile file;
    image->saveToBin_audio(file.path());
    EXPECT_EQ(content(file), expected);
}

TEST_P(Dumps, RawPlanes) {
    const Tensor numbers = tensor();
    const float padding = -3.5f;
    const auto image = upload(numbers, GL_RGBA16F, padding);
    std::vector<float> expected;
    for (int c = 0; c < 4 * ((numbers.channels + 3) / 4); ++c)
        for (int y = 0; y < numbers.height; ++y)
            for (int x = 0; x < numbers.width; ++x)
                expected.push_back(c < numbers.channels
                                       ? static_cast<float>(numbers.at(c, y, x))
                                       : padding);
    const TemporaryFile file;
    image->saveTo_CHW_Format_bin(file.path());
    const std::vector<unsigned char> bytes = file.read();
    ASSERT_EQ(bytes.size(), expected.size() * sizeof(float));
    EXPECT_EQ(std::memcmp(bytes.data(), expected.data(), bytes.size()), 0);
}

INSTANTIATE_TEST_SUITE_P(
    Sizes, Dumps,
    testing::Values(DumpSize{4, 3, 3}, DumpSize{1, 7, 5}, DumpSize{5, 4, 6}, DumpSize{9, 10, 10},
                    DumpSize{2, 1, 2}, DumpSize{3, 2, 1}),
    [](const testing::TestParamInfo<DumpSize>& tested) {
        return "c" + std::to_string(tested.param.channels) + "h" +
               std::to_string(tested.param.height) + "w" + std::to_string(tested.param.width);
    });

TEST_F(Images, DumpsHoldTheLargestNumbers) {
    const Tensor numbers(4, 3, 6, -static_cast<double>(FLT_MAX));
    const auto image = upload(numbers, GL_RGBA32F);
    const TemporaryFile file;
    image->saveToBin(file.path());
    EXPECT_EQ(content(file), joined(corner_lines(numbers)));
}

TEST_F(Images, DumpsReplaceWhatTheFileHeld) {
    const auto image = upload(Tensor(4, 1, 1, 2.0));
    const TemporaryFile file(std::vector<unsigned char>(5000, 'x'));
    image->saveTo_CHW_Format_bin(file.path());
    EXPECT_EQ(file.read().size(), 16u);
}

TEST_F(Images, DumpsToAPlaceThatCannotBeWrittenDoNothing) {
    const auto image = upload(Tensor(4, 1, 1, 2.0));
    for (const char* const path : {"/no/such/folder/dump", "", static_cast<const char*>(nullptr)}) {
        LogRecorder log;
        image->saveToBin(path);
        image->saveToBin_onMobilePhone(path);
        image->saveToBin_audio(path);
        image->saveTo_CHW_Format_bin(path);
        EXPECT_THAT(log.lines, IsEmpty());
    }
}

TEST_F(Images, PicturesAreNotWritten) {
    const auto image = upload(Tensor(4, 1, 1, 2.0));
    const TemporaryFile file({'k', 'e', 'p', 't'});
    image->saveToPng(file.path(), 1);
    EXPECT_EQ(content(file), "kept");
}

TEST_F(Images, ChannelCountsNearTheLimitOfNumbersDoNotOverflow) {
    tesk::Image image(1, 1, INT_MAX, GL_RGBA16F, &pool);
    EXPECT_EQ(image.textureType(), GLenum{GL_TEXTURE_2D_ARRAY});
    tesk::Image negative(1, 1, INT_MIN, GL_RGBA16F, &pool);
    Tarno::SetLogLevel(Tarno::LogLevel::Silent);
    EXPECT_EQ(negative.texture(), 0u);
    Tarno::SetLogLevel(Tarno::LogLevel::Info);
    negative.printOutput();
}

}  // namespace
