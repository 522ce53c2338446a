#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "gpu/opengl/glcnn/src/tesk/layers/benchmark_single_layer.h"
#include "gpu/opengl/glcnn/src/tesk/tricks/tricks_benchmark_single_layer.h"
#include "support/gl_fixture.h"
#include "support/gl_hooks.h"

namespace {

using testing_support::GpuTest;

using BenchmarkNet = GpuTest;

TEST_F(BenchmarkNet, SetupTwiceAppendsTwoOperatorsAndSaysFalse) {
    tesk::BenchmarkNet net;
    EXPECT_EQ(net.operatorCount(), 0);
    EXPECT_FALSE(net.setupNet(&pool, &manager));
    EXPECT_FALSE(net.setupNet(&pool, &manager));
    EXPECT_EQ(net.operatorCount(), 2);
    EXPECT_EQ(pool.textureCount(), 0) << "the pool is not used";
    EXPECT_EQ(manager.programCount(), 0) << "there is no shader";
}

TEST_F(BenchmarkNet, TheEntryPointsAreLoadedOnce) {
    // The loader fills the variable of an entry point whenever it runs.
    tesk::BenchmarkNet net;
    const testing_support::ReplacedEntryPoint<PFNGLDISPATCHCOMPUTEPROC> entry(__glewDispatchCompute,
                                                                              nullptr);
    net.setupNet(&pool, &manager);
    EXPECT_NE(__glewDispatchCompute, nullptr);
    __glewDispatchCompute = nullptr;
    net.setupNet(&pool, &manager);
    EXPECT_EQ(__glewDispatchCompute, nullptr);
}

TEST_F(BenchmarkNet, ForwardWithoutOperatorsReturnsAtOnce) {
    tesk::BenchmarkNet net;
    net.forward();
}

TEST_F(BenchmarkNet, ForwardWithoutImagesRunsWithoutAnOutput) {
    tesk::BenchmarkNet net;
    net.setupNet(&pool, &manager);
    net.forward();
    EXPECT_EQ(take_gl_error(), GLenum{GL_NO_ERROR});
}

TEST_F(BenchmarkNet, CopiesShareOneNet) {
    tesk::BenchmarkNet net;
    net.setupNet(&pool, &manager);
    tesk::BenchmarkNet other;
    other = net;
    other.setupNet(&pool, &manager);
    EXPECT_EQ(net.operatorCount(), 2);
}

TEST_F(BenchmarkNet, TheOperatorTakesANullRecordAndMakesItsGenerator) {
    tesk::Benchmark_Single_Layer layer(&manager);
    EXPECT_EQ(layer.type(), 28);
    layer.setup(nullptr);
    EXPECT_NE(dynamic_cast<const tesk::Tricks_Benchmark_Single_Layer*>(layer.generator()), nullptr);
}

}  // namespace
