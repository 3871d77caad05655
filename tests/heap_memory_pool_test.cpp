#include "HXLCore.h"
#include "HXLMemoryPool.h"
#include "heap_model.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <utility>

namespace {

// Heap blocks taken and the budget left.
using Stats = std::pair<unsigned long long, unsigned long long>;
Stats stats(HXLMemoryPool& pool) {
    unsigned long long blocks = 0, quantum = 0, remaining = 0;
    pool.getStats(blocks, quantum, remaining);
    return {blocks, remaining};
}
unsigned char* b(void* p) {
    return static_cast<unsigned char*>(p);
}

} // namespace

TEST(HXLMemoryPool, BlocksAreCutFromTheHighEndAndJoinUpAgain) {
    HXLMemoryPool pool(0, 0);
    EXPECT_EQ(stats(pool), Stats(0, 262144));
    unsigned char* first = b(pool.alloc(1)); // 2 units; step 8193 units: 131088 bytes taken
    EXPECT_EQ(stats(pool), Stats(1, 131056));
    unsigned char* second = b(pool.alloc(1));
    EXPECT_EQ(second, first - 32);
    unsigned char* empty = b(pool.alloc(0));
    EXPECT_EQ(empty, second - 16) << "alloc(0) is one unit: its header alone";
    pool.free(second);
    pool.free(empty);
    pool.free(first);
    EXPECT_EQ(b(pool.alloc(131072)), first - 131072 + 16) << "all joined into 8193 units";
    EXPECT_EQ(stats(pool).first, 1u);
    try {
        pool.free(nullptr);
        ADD_FAILURE();
    } catch (const HXLAssertError& e) {
        EXPECT_STREQ(e.what(), "HXL_ASSERT(memBlock);");
    }
}

TEST(HXLMemoryPool, TheBudgetDecidesGrowthButIsNoCeiling) {
    HXLMemoryPool pool(0, 0);
    pool.alloc(131072);
    EXPECT_NE(pool.alloc(131072), nullptr); // step 8192 units: a block of 16384, 8191 left free
    EXPECT_EQ(stats(pool), Stats(2, 0));
    EXPECT_NE(pool.alloc(131040), nullptr) << "the 8191 free units fit 8190 + 1 exactly";
    EXPECT_EQ(pool.alloc(131072), nullptr);
    pool.expand(1);
    EXPECT_EQ(stats(pool), Stats(2, 131072));
    EXPECT_NE(pool.alloc(131072), nullptr);
    EXPECT_EQ(stats(pool), Stats(3, 0));

    HXLMemoryPool big(0, 0);
    EXPECT_NE(big.alloc(1048576), nullptr);
    EXPECT_EQ(stats(big), Stats(1, 0));
    HXLMemoryPool small(100, 16);
    small.alloc(1);
    EXPECT_EQ(stats(small), Stats(1, 68)) << "one heap block of 32 bytes";
    EXPECT_EQ(small.alloc(~0ULL), nullptr) << "no unit count for this size";
    EXPECT_EQ(small.alloc(~0ULL - 40), nullptr);
    EXPECT_EQ(stats(small), Stats(1, 68));
}

TEST(HXLMemoryPool, RandomUseKeepsBlocksApartAndIntact) {
    std::mt19937 rng(61);
    HXLMemoryPool pool(1 << 16, 4096); // a small quantum: many heap blocks to join across
    HeapModel model;
    for (int step = 0; step < 20000 && !HasFatalFailure(); ++step) {
        if (model.count() > 0 && rng() % 2 == 0) {
            pool.free(model.remove(rng()));
            continue;
        }
        const unsigned long long size = rng() % 8 == 0 ? rng() % 20000 : rng() % 300;
        void* p = pool.alloc(size);
        if (p == nullptr) {
            pool.expand(size);
            p = pool.alloc(size);
        }
        ASSERT_EQ(reinterpret_cast<std::uintptr_t>(p) % 16, 0u);
        model.add(p, size);
    }
}
