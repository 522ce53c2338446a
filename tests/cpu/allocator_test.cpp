#include <gtest/gtest.h>

#include <cstdlib>
#include <new>

#include "support/recorders.h"
#include "support/tensors.h"

namespace {

using namespace TarnoCPU;
using namespace testing_support;

template <typename Pool>
struct PoolTraits;
template <>
struct PoolTraits<PoolAllocator> {
    static constexpr const char* wild = "false && \"Pool allocator get wild\"";
    static constexpr int wild_line = 226;
    static constexpr int early_line = 33;
};
template <>
struct PoolTraits<UnlockedPoolAllocator> {
    static constexpr const char* wild = "false && \"Unlocked pool allocator get wild\"";
    static constexpr int wild_line = 353;
    static constexpr int early_line = 242;
};

template <typename Pool>
class Pools : public ::testing::Test {};
using BothPools = ::testing::Types<PoolAllocator, UnlockedPoolAllocator>;
TYPED_TEST_SUITE(Pools, BothPools);

TYPED_TEST(Pools, AFreedLargeBlockServesASmallRequestAndKeepsItsRecordedSize) {
    TypeParam pool;
    void* large = pool.fastMalloc(1000);
    pool.fastFree(large);
    void* small = pool.fastMalloc(100);
    EXPECT_EQ(large, small);
    pool.fastFree(small);
    // Its recorded size is still 1000: it serves 1000 again.
    void* again = pool.fastMalloc(1000);
    EXPECT_EQ(large, again);
    pool.fastFree(again);
}

TYPED_TEST(Pools, TheFirstBlockThatFitsIsTaken) {
    TypeParam pool;
    void* a = pool.fastMalloc(50);
    void* b = pool.fastMalloc(300);
    void* c = pool.fastMalloc(200);
    pool.fastFree(a);
    pool.fastFree(b);
    pool.fastFree(c);
    EXPECT_EQ(b, pool.fastMalloc(200));
    EXPECT_EQ(c, pool.fastMalloc(200));
    EXPECT_EQ(a, pool.fastMalloc(1));
    for (void* block : {a, b, c}) pool.fastFree(block);
}

TYPED_TEST(Pools, WithTheFullRatioNotEvenAnExactFitIsReused) {
    TypeParam pool;
    pool.set_size_compare_ratio(1.0f);
    void* first = pool.fastMalloc(100);
    pool.fastFree(first);
    void* second = pool.fastMalloc(100);
    EXPECT_NE(first, second);
    pool.fastFree(second);
}

TYPED_TEST(Pools, AStoredRatioOfOneReusesExactFitsOnly) {
    TypeParam pool;
    pool.set_size_compare_ratio(1.0f / 256.0f);
    void* first = pool.fastMalloc(100);
    pool.fastFree(first);
    void* smaller = pool.fastMalloc(99);
    EXPECT_NE(first, smaller);
    EXPECT_EQ(first, pool.fastMalloc(100));
    pool.fastFree(first);
    pool.fastFree(smaller);
}

TYPED_TEST(Pools, TheRatioTestIsUnsignedThirtyTwoBitArithmetic) {
    TypeParam pool;
    // 256 * 2^24 wraps to 0, which is at most any size: overflow lets the block pass.
    void* large = pool.fastMalloc(1u << 24);
    pool.fastFree(large);
    pool.set_size_compare_ratio(1.0f);
    EXPECT_EQ(large, pool.fastMalloc(10));
    pool.fastFree(large);
}

TYPED_TEST(Pools, ARatioOutOfRangeAssertsAndKeepsTheOldValue) {
    for (const float bad : {1.5f, -0.1f, std::numeric_limits<float>::quiet_NaN()}) {
        TypeParam pool;
        pool.set_size_compare_ratio(1.0f);
        {
            AssertRecorder assertions;
            pool.set_size_compare_ratio(bad);
            ASSERT_EQ(1u, assertions.count());
            EXPECT_EQ("false && \"Invalid size compare ratio\"", assertions.last().condition);
            EXPECT_EQ("allocator", assertions.last().source);
            EXPECT_EQ(68, assertions.last().line);
        }
        void* first = pool.fastMalloc(100);
        pool.fastFree(first);
        void* second = pool.fastMalloc(100);
        EXPECT_NE(first, second);  // still 256
        pool.fastFree(second);
    }
}

TYPED_TEST(Pools, ATinyRatioIsStoredAsZero) {
    TypeParam pool;
    pool.set_size_compare_ratio(0.001f);
    void* large = pool.fastMalloc(1000);
    pool.fastFree(large);
    EXPECT_EQ(large, pool.fastMalloc(1));
    pool.fastFree(large);
}

TYPED_TEST(Pools, AnUnknownPointerAssertsAndIsFreed) {
    TypeParam pool;
    void* foreign = fastMalloc(64);
    AssertRecorder assertions;
    pool.fastFree(foreign);  // the leak checker would tell if it were not freed
    ASSERT_EQ(1u, assertions.count());
    EXPECT_EQ(PoolTraits<TypeParam>::wild, assertions.last().condition);
    EXPECT_EQ("allocator", assertions.last().source);
    EXPECT_EQ(PoolTraits<TypeParam>::wild_line, assertions.last().line);
    pool.fastFree(nullptr);
    EXPECT_EQ(2u, assertions.count());
}

TYPED_TEST(Pools, ClearWithBlocksInUseLeavesThemValid) {
    TypeParam pool;
    char* used = static_cast<char*>(pool.fastMalloc(100));
    void* idle = pool.fastMalloc(100);
    pool.fastFree(idle);
    pool.clear();
    std::memset(used, 1, 100);
    EXPECT_EQ(1, used[99]);
    pool.fastFree(used);
    EXPECT_EQ(used, pool.fastMalloc(100));
    pool.fastFree(used);
}

TYPED_TEST(Pools, DestructionWithBlocksInUseAssertsAndPrintsThem) {
    void* used = nullptr;
    AssertRecorder assertions;
    testing::internal::CaptureStderr();
    {
        TypeParam pool;
        used = pool.fastMalloc(32);
    }
    char expected[64];
    std::snprintf(expected, sizeof expected, "%p still in use\n", used);
    EXPECT_EQ(expected, testing::internal::GetCapturedStderr());
    ASSERT_EQ(1u, assertions.count());
    EXPECT_EQ("false && \"Unlocked pool allocator destroyed too early\"",
              assertions.last().condition);
    EXPECT_EQ("allocator", assertions.last().source);
    EXPECT_EQ(PoolTraits<TypeParam>::early_line, assertions.last().line);
    fastFree(used);
}

TYPED_TEST(Pools, AMatReturnsItsBlockToThePool) {
    TypeParam pool;
    void* data = nullptr;
    {
        const Mat mat(chw(1, 4, 4), &pool);
        data = mat.data;
    }
    const Mat mat(chw(1, 4, 4), &pool);
    EXPECT_EQ(data, mat.data);
}

}  // namespace
