// What a run takes from the heap, told apart by who asks: the driver may, the library may not.
#include <gtest/gtest.h>
#include <modelkit/net_builder.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "support/gl_fixture.h"
#include "support/temporary_file.h"

#if defined(__GLIBC__) && !defined(__SANITIZE_ADDRESS__)
#include <dlfcn.h>
#include <execinfo.h>

namespace {

thread_local bool counting = false;
thread_local int from_library = 0;
thread_local int from_others = 0;

/// The first caller that is neither this executable's operator new nor the language's runtime.
bool asked_by_library() {
    void* frames[16];
    const int depth = backtrace(frames, 16);
    for (int i = 2; i < depth; ++i) {
        Dl_info info;
        if (dladdr(frames[i], &info) == 0 || info.dli_fname == nullptr) return false;
        const char* slash = std::strrchr(info.dli_fname, '/');
        const char* file = slash != nullptr ? slash + 1 : info.dli_fname;
        if (std::strncmp(file, "libstdc++", 9) == 0 || std::strncmp(file, "libc.so", 7) == 0)
            continue;
        return std::strncmp(file, "libtarno", 8) == 0;
    }
    return false;
}

void count() {
    if (!counting) return;
    counting = false;  // the look at the callers may ask, too
    ++(asked_by_library() ? from_library : from_others);
    counting = true;
}

}  // namespace

// Inlined, the pair would look to the compiler like malloc met by operator delete.
__attribute__((noinline)) void* operator new(size_t size) {
    count();
    void* block = std::malloc(size != 0 ? size : 1);
    if (block == nullptr) throw std::bad_alloc();
    return block;
}
__attribute__((noinline)) void operator delete(void* block) noexcept {
    std::free(block);
}
__attribute__((noinline)) void operator delete(void* block, size_t) noexcept {
    std::free(block);
}

namespace {

using testing_support::GpuTest;
using ForwardHeap = GpuTest;

TEST_F(ForwardHeap, TheCountSeesWhatTheLibraryTakes) {
    void* warm[1];
    backtrace(warm, 1);
    counting = true;
    from_library = 0;
    tesk::ComputeProgramManager other(0, "a name that is too long to be kept inside a string");
    counting = false;
    EXPECT_GT(from_library, 0);
}

TEST_F(ForwardHeap, ASecondRunThatMakesATextureTakesNothing) {
    manager.netWidth = 16;
    manager.netHeight = 16;
    modelkit::ModelHeader header;
    header.base_w = header.base_h = 16;
    modelkit::NetBuilder model(header);
    int last = model.input(8);
    for (int i = 0; i < 10; ++i) last = model.conv(last, 8, 3, 1, 1, ActivationType_ReLU);
    std::vector<unsigned char> bytes;
    const modelkit::Status status = model.write(bytes);
    ASSERT_TRUE(status.ok()) << status.message();
    const testing_support::TemporaryFile file(bytes);
    // The lists of a pool that grows as it likes have room for 1, 2, 4 or 8 entries: with up to
    // three inputs of other nets on it, one of these is full when the second run begins.
    for (int others = 0; others < 4; ++others) {
        tesk::TexturePool shared(0);
        std::vector<std::shared_ptr<tesk::Image>> images;
        tesk::Net net;
        ASSERT_TRUE(net.loadFromFile(file.path(), &shared, &manager));
        for (int i = 0; i <= others; ++i) {
            images.push_back(std::make_shared<tesk::Image>(16, 16, 8, GL_RGBA16F, &shared));
            images.back()->addReadCount();
            images.back()->texture();
        }
        std::vector<std::shared_ptr<tesk::Image>> first = {images[0]};
        net.setInputs(first);
        net.forward();
        const int textures = shared.textureCount();
        from_library = 0;
        counting = true;
        net.forward();
        counting = false;
        EXPECT_EQ(from_library, 0) << others;
        // The output keeps the texture of the first run.
        EXPECT_EQ(shared.textureCount(), textures + 1);
        net.forward();
        EXPECT_EQ(shared.textureCount(), textures + 1);
        images.clear();
        first.clear();
        shared.release();
    }
}

TEST_F(ForwardHeap, AForwardTakesNothingFromTheSecondFrameOn) {
    manager.netWidth = 16;
    manager.netHeight = 16;
    manager.initProgramBinary(tesk::BinFileInfo{}, &manager);
    for (const int mode : {0, 4}) {
        for (const int limit : {0, 4}) {
            manager.tricksMode = mode;
            manager.uboSliceLimit = limit;
            modelkit::ModelHeader header;
            header.base_w = header.base_h = 16;
            modelkit::NetBuilder model(header);
            // A layer of every kind of generator.
            const int in = model.input(8);
            int last = model.conv(in, 8, 3, 1, 1, ActivationType_ReLU);
            last = model.conv(last, 8, modelkit::Window{7, 1, 3, 0});
            last = model.conv(last, 8, 1, 1, 0, ActivationType_Sigmoid);
            last = model.conv(last, 8, modelkit::Window::square(3, 1, 1), 0, 2);
            last = model.depthwise(last, 3, 1, 1);
            last = model.depthwise(last, 5, 1, 2);
            last = model.eltwise({last, in}, 0);
            last = model.eltwise({last, in}, 2);
            last = model.pooling(last, 1, 2, 2);
            last = model.deconvolution(last, 8, 3, 2, 1);
            last = model.concat({last, in});
            last = model.pixel_shuffle(last, 0.5);
            last = model.pixel_shuffle(last, 2.0);
            last = model.pooling(last, 0, 2, 2);
            last = model.upsampling(last, 2, 1);
            last = model.upsampling(last, 2, 0);
            model.activation(last, ActivationType_ReLU);
            std::vector<unsigned char> bytes;
            const modelkit::Status status = model.write(bytes);
            ASSERT_TRUE(status.ok()) << status.message();
            const testing_support::TemporaryFile file(bytes);
            tesk::Net net;
            ASSERT_TRUE(net.loadFromFile(file.path(), &pool, &manager));
            std::vector<std::shared_ptr<tesk::Image>> images = {
                upload(testing_support::random_halves(8, 16, 16, 5))};
            net.setInputs(images);
            net.forward();
            const int textures = pool.textureCount();

            from_library = 0;
            from_others = 0;
            counting = true;
            net.forward();
            counting = false;
            EXPECT_EQ(from_library, 0) << "mode " << mode << ", limit " << limit;
            EXPECT_EQ(pool.textureCount(), textures);
        }
    }
}

}  // namespace

#endif
