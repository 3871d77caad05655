#include "HXLCore.h"
#include "HXLMemoryPool.h"
#include "heap_model.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <random>

namespace {

struct Stats {
    unsigned long long blocks, quantum, remaining;
};

Stats stats(HXLMemoryPool& pool) {
    Stats s{};
    pool.getStats(s.blocks, s.quantum, s.remaining);
    return s;
}

unsigned char* b(void* p) {
    return static_cast<unsigned char*>(p);
}

} // namespace

TEST(HXLMemoryPool, BlocksAreCutFromTheHighEndAndJoinUpAgain) {
    HXLMemoryPool pool(0, 0);
    Stats s = stats(pool);
    EXPECT_EQ(s.blocks, 0u);
    EXPECT_EQ(s.quantum, 131072u);
    EXPECT_EQ(s.remaining, 262144u);

    // 2 units asked; the step is 8193 units, so one heap block of 131088 bytes.
    unsigned char* first = b(pool.alloc(1));
    s = stats(pool);
    EXPECT_EQ(s.blocks, 1u);
    EXPECT_EQ(s.remaining, 131056u);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(first) % 16, 0u);
    unsigned char* heapBlock = first - 131072;

    unsigned char* second = b(pool.alloc(1));
    EXPECT_EQ(second, first - 32);
    unsigned char* empty = b(pool.alloc(0));
    EXPECT_EQ(empty, second - 16) << "alloc(0) is one unit: its header alone";

    pool.free(second);
    pool.free(empty);
    pool.free(first);
    // All three joined the rest: one free block of 8193 units fits a request of 8192 + 1.
    EXPECT_EQ(b(pool.alloc(131072)), heapBlock + 16);
    EXPECT_EQ(stats(pool).blocks, 1u);
    EXPECT_THROW(pool.free(nullptr), HXLAssertError);
    try {
        pool.free(nullptr);
    } catch (const HXLAssertError& e) {
        EXPECT_STREQ(e.what(), "HXL_ASSERT(memBlock);");
    }
}

TEST(HXLMemoryPool, TheBudgetDecidesGrowthButIsNoCeiling) {
    {
        HXLMemoryPool pool(0, 0);
        EXPECT_NE(pool.alloc(131072), nullptr);
        EXPECT_EQ(stats(pool).remaining, 131056u);
        // Budget 131056: step 8192 units, the block 16384 units; 8191 stay free.
        EXPECT_NE(pool.alloc(131072), nullptr);
        EXPECT_EQ(stats(pool).blocks, 2u);
        EXPECT_EQ(stats(pool).remaining, 0u);
        EXPECT_NE(pool.alloc(131056 - 16), nullptr) << "the 8191 free units serve 8190 + 1";
        EXPECT_EQ(pool.alloc(131072), nullptr);
        pool.expand(1);
        EXPECT_EQ(stats(pool).remaining, 131072u);
        EXPECT_NE(pool.alloc(131072), nullptr);
        EXPECT_EQ(stats(pool).blocks, 3u);
        EXPECT_EQ(stats(pool).remaining, 0u);
        pool.expand(200000);
        EXPECT_EQ(stats(pool).remaining, 200000u);
    }
    {
        HXLMemoryPool pool(0, 0);
        EXPECT_NE(pool.alloc(1048576), nullptr);
        EXPECT_EQ(stats(pool).remaining, 0u);
    }
    {
        HXLMemoryPool pool(1, 0);
        EXPECT_NE(pool.alloc(1000), nullptr);
        EXPECT_EQ(stats(pool).blocks, 1u);
    }
    {
        HXLMemoryPool pool(100, 16);
        unsigned char* p = b(pool.alloc(1));
        EXPECT_EQ(stats(pool).remaining, 68u) << "one heap block of 32 bytes";
        EXPECT_NE(p, nullptr);
        EXPECT_NE(pool.alloc(1), nullptr) << "a budget of 68 still grows by another 32 bytes";
        EXPECT_EQ(stats(pool).remaining, 36u);
    }
    {
        // Sizes whose unit count cannot be represented are refused without touching the heap.
        HXLMemoryPool pool(0, 0);
        EXPECT_EQ(pool.alloc(~0ULL), nullptr);
        EXPECT_EQ(pool.alloc(~0ULL - 40), nullptr);
        EXPECT_EQ(stats(pool).remaining, 262144u);
    }
}

TEST(HXLMemoryPool, RandomUseKeepsBlocksApartAndIntact) {
    std::mt19937 rng(61);
    // A small quantum makes many heap blocks, so that joins across them get exercised.
    HXLMemoryPool pool(1 << 16, 4096);
    HeapModel model;
    for (int step = 0; step < 20000; ++step) {
        if (model.count() > 0 && rng() % 2 == 0) {
            void* p = model.at(rng() % model.count());
            model.remove(p);
            pool.free(p);
        } else {
            const unsigned long long size = rng() % 8 == 0 ? rng() % 20000 : rng() % 300;
            void* p = pool.alloc(size);
            if (p == nullptr) {
                pool.expand(size);
                p = pool.alloc(size);
            }
            ASSERT_EQ(reinterpret_cast<std::uintptr_t>(p) % 16, 0u);
            model.add(p, size);
        }
        if (HasFatalFailure())
            return;
    }
    // With everything back, the joined free space serves one large request without growing.
    while (model.count() > 0) {
        void* p = model.at(0);
        model.remove(p);
        pool.free(p);
    }
    const unsigned long long blocks = stats(pool).blocks;
    EXPECT_NE(pool.alloc(3000), nullptr);
    EXPECT_EQ(stats(pool).blocks, blocks);
}
