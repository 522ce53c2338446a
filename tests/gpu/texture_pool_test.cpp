// The texture pool: exact matches, reuse in order of creation, what a texture is made of.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tarno/gpu.h>

#include <climits>
#include <string>
#include <vector>

#include "support/gl_fixture.h"
#include "support/recorders.h"

namespace {

using testing::Each;
using testing_support::GpuTest;
using testing_support::LogRecorder;

constexpr GLenum plain = GL_TEXTURE_2D;
constexpr GLenum layers = GL_TEXTURE_2D_ARRAY;

class Textures : public GpuTest {
protected:
    static GLint level(GLenum target, unsigned int id, GLenum name) {
        GLint value = -1;
        glBindTexture(target, id);
        glGetTexLevelParameteriv(target, 0, name, &value);
        glBindTexture(target, 0);
        return value;
    }
    static GLint parameter(GLenum target, unsigned int id, GLenum name) {
        GLint value = -1;
        glBindTexture(target, id);
        glGetTexParameteriv(target, name, &value);
        glBindTexture(target, 0);
        return value;
    }
};

TEST_F(Textures, OfOneShapeEachHaveATextureOfTheirOwnAndTheOneGivenBackIsTheNext) {
    unsigned int first = pool.acquireTexture(4, 6, 4, plain, GL_RGBA16F);
    const unsigned int second = pool.acquireTexture(4, 6, 4, plain, GL_RGBA16F);
    EXPECT_NE(first, second);
    const unsigned int given_back = first;
    pool.releaseTexture(first);
    EXPECT_EQ(first, 0u);
    EXPECT_EQ(pool.acquireTexture(4, 6, 4, plain, GL_RGBA16F), given_back);
    EXPECT_EQ(pool.textureCount(), 2);
}

TEST_F(Textures, TheOldestFreeOneOfAShapeComesFirst) {
    std::vector<unsigned int> ids, kept;
    for (int i = 0; i < 4; ++i)
        ids.push_back(pool.acquireTexture(2, 2, 1, plain, GL_RGBA16F));
    kept = ids;
    // Given back in another order than that of their creation.
    for (const size_t i : {3u, 1u, 2u})
        pool.releaseTexture(ids[i]);
    for (const size_t i : {1u, 2u, 3u})
        EXPECT_EQ(pool.acquireTexture(2, 2, 1, plain, GL_RGBA16F), kept[i]);
}

TEST_F(Textures, ARequestThatDiffersInAnythingIsANewTexture) {
    unsigned int id = pool.acquireTexture(8, 6, 4, plain, GL_RGBA16F);
    const unsigned int first = id;
    pool.releaseTexture(id);
    EXPECT_NE(pool.acquireTexture(8, 6, 4, plain, GL_RGBA8), first);
    EXPECT_NE(pool.acquireTexture(6, 8, 4, plain, GL_RGBA16F), first);
    EXPECT_NE(pool.acquireTexture(8, 6, 3, plain, GL_RGBA16F), first);
    EXPECT_NE(pool.acquireTexture(8, 5, 4, plain, GL_RGBA16F), first);
    EXPECT_NE(pool.acquireTexture(4, 6, 4, plain, GL_RGBA16F), first);
    EXPECT_NE(pool.acquireTexture(8, 6, 5, layers, GL_RGBA16F), first);
    EXPECT_EQ(pool.textureCount(), 7);
    EXPECT_EQ(pool.acquireTexture(8, 6, 4, plain, GL_RGBA16F), first);
    EXPECT_EQ(pool.textureCount(), 7);
}

TEST_F(Textures, FourChannelsArePlainAndMoreHaveALayerForEachFour) {
    struct Case {
        int channels;
        int layers;
    };
    for (const Case& tested : {Case{1, 0}, Case{4, 0}, Case{5, 2}, Case{8, 2}, Case{9, 3},
                               Case{64, 16}}) {
        const GLenum target = tested.layers == 0 ? plain : layers;
        const unsigned int id =
            pool.acquireTexture(3, 5, tested.channels, target, GL_RGBA16F);
        EXPECT_EQ(level(target, id, GL_TEXTURE_WIDTH), 5) << tested.channels;
        EXPECT_EQ(level(target, id, GL_TEXTURE_HEIGHT), 3) << tested.channels;
        EXPECT_EQ(level(target, id, GL_TEXTURE_INTERNAL_FORMAT), GL_RGBA16F) << tested.channels;
        if (tested.layers > 0) {
            EXPECT_EQ(level(target, id, GL_TEXTURE_DEPTH), tested.layers) << tested.channels;
        }
        EXPECT_EQ(parameter(target, id, GL_TEXTURE_IMMUTABLE_FORMAT), GL_TRUE);
        EXPECT_EQ(parameter(target, id, GL_TEXTURE_IMMUTABLE_LEVELS), 1);
    }
}

TEST_F(Textures, AreFilteredLinearlyAndAreZeroBeyondTheirEdge) {
    for (const int channels : {3, 7}) {
        const GLenum target = channels < 5 ? plain : layers;
        const unsigned int id = pool.acquireTexture(2, 2, channels, target, GL_RGBA16F);
        EXPECT_EQ(parameter(target, id, GL_TEXTURE_MIN_FILTER), GL_LINEAR);
        EXPECT_EQ(parameter(target, id, GL_TEXTURE_MAG_FILTER), GL_LINEAR);
        EXPECT_EQ(parameter(target, id, GL_TEXTURE_WRAP_S), GL_CLAMP_TO_BORDER);
        EXPECT_EQ(parameter(target, id, GL_TEXTURE_WRAP_T), GL_CLAMP_TO_BORDER);
        float border[4] = {1, 1, 1, 1};
        glBindTexture(target, id);
        glGetTexParameterfv(target, GL_TEXTURE_BORDER_COLOR, border);
        glBindTexture(target, 0);
        EXPECT_THAT(border, Each(0.0f));
    }
}

TEST_F(Textures, AnIdOfNobodyStaysAsItIs) {
    const unsigned int held = pool.acquireTexture(2, 2, 4, plain, GL_RGBA16F);
    unsigned int none = 0, unknown = held + 1000;
    pool.releaseTexture(none);
    pool.releaseTexture(unknown);
    EXPECT_EQ(none, 0u);
    EXPECT_EQ(unknown, held + 1000);
    EXPECT_EQ(pool.textureCount(), 1);
    EXPECT_EQ(pool.texturesInUse(), 1);
}

TEST_F(Textures, AReleaseDeletesThoseInUseToo) {
    const unsigned int id = pool.acquireTexture(2, 2, 4, plain, GL_RGBA16F);
    EXPECT_TRUE(glIsTexture(id));
    pool.release();
    EXPECT_FALSE(glIsTexture(id));
    EXPECT_EQ(pool.textureCount(), 0);
    EXPECT_NE(pool.acquireTexture(2, 2, 4, plain, GL_RGBA16F), 0u);
}

TEST_F(Textures, ACopiedPoolIsEmpty) {
    pool.acquireTexture(2, 2, 4, plain, GL_RGBA16F);
    tesk::TexturePool copy(pool);
    EXPECT_EQ(copy.textureCount(), 0);
    EXPECT_EQ(pool.textureCount(), 1);
}

TEST_F(Textures, AreCountedWithTheirBytes) {
    unsigned int id = pool.acquireTexture(4, 8, 5, layers, GL_RGBA16F);
    pool.acquireTexture(4, 8, 3, plain, GL_RGBA8);
    EXPECT_EQ(pool.textureBytes(), 4 * 8 * 2 * 8 + 4 * 8 * 4);
    EXPECT_EQ(pool.texturesInUse(), 2);
    pool.releaseTexture(id);
    EXPECT_EQ(pool.texturesInUse(), 1);
    EXPECT_EQ(pool.textureCount(), 2);
}

TEST_F(Textures, ASizeOfZeroOrBelowGivesNoTextureAndALine) {
    struct Size {
        int height, width, channels;
    };
    for (const Size& size : {Size{0, 2, 4}, Size{2, 0, 4}, Size{2, 2, 0}, Size{-1, 2, 4}}) {
        LogRecorder log;
        EXPECT_EQ(pool.acquireTexture(size.height, size.width, size.channels, plain, GL_RGBA16F),
                  0u);
        ASSERT_EQ(log.lines.size(), 1u);
        EXPECT_EQ(log.lines[0].level, Tarno::LogLevel::Error);
        EXPECT_EQ(log.lines[0].text, "texture: expected a size above 0, found " +
                                         std::to_string(size.height) + " x " +
                                         std::to_string(size.width) + " x " +
                                         std::to_string(size.channels) +
                                         " (height, width, channels)");
    }
    EXPECT_EQ(pool.textureCount(), 0);
}

TEST_F(Textures, ATextureThatTheDriverCannotStoreIsAnErrorOfGLAlone) {
    // More layers than any driver has; the id comes all the same.
    EXPECT_NE(pool.acquireTexture(1, 1, INT_MAX, layers, GL_RGBA16F), 0u);
    EXPECT_NE(take_gl_error(), GLenum{GL_NO_ERROR});
}

TEST_F(Textures, ANewTextureLeavesTheBindingsOfTheActiveUnit) {
    const unsigned int image = pool.acquireTexture(2, 2, 4, plain, GL_RGBA16F);
    const unsigned int array = pool.acquireTexture(2, 2, 8, layers, GL_RGBA16F);
    glActiveTexture(GL_TEXTURE2);
    glBindTexture(plain, image);
    glBindTexture(layers, array);
    pool.acquireTexture(3, 3, 4, plain, GL_RGBA16F);
    pool.acquireTexture(3, 3, 8, layers, GL_RGBA16F);
    GLint bound = 0;
    glGetIntegerv(GL_TEXTURE_BINDING_2D, &bound);
    EXPECT_EQ(bound, static_cast<GLint>(image));
    glGetIntegerv(GL_TEXTURE_BINDING_2D_ARRAY, &bound);
    EXPECT_EQ(bound, static_cast<GLint>(array));
    glActiveTexture(GL_TEXTURE0);
}

TEST_F(Textures, ReachASteadyStateAfterTheFirstRun) {
    int after_first = 0;
    for (int run = 0; run < 20; ++run) {
        // Layers that hand two shapes along, each output alive while the next is made.
        unsigned int input = pool.acquireTexture(8, 8, 4, plain, GL_RGBA16F);
        for (int layer = 0; layer < 6; ++layer) {
            unsigned int output = layer % 2 == 0
                                      ? pool.acquireTexture(4, 4, 16, layers, GL_RGBA16F)
                                      : pool.acquireTexture(8, 8, 4, plain, GL_RGBA16F);
            pool.releaseTexture(input);
            input = output;
        }
        pool.releaseTexture(input);
        if (run == 0) after_first = pool.textureCount();
        EXPECT_EQ(pool.texturesInUse(), 0);
    }
    EXPECT_EQ(after_first, 2);
    EXPECT_EQ(pool.textureCount(), after_first);
}

}  // namespace
