#include "HXLCore.h"
#include "HXLMemoryPool.h"
#include "heap_model.h"

#include <gmock/gmock.h>

#include <cstdint>
#include <random>
#include <string>

namespace {

// "heap blocks/quantum/budget left"
std::string stats(HXLMemoryPool& pool) {
    unsigned long long blocks = 0, quantum = 0, remaining = 0;
    pool.getStats(blocks, quantum, remaining);
    return std::to_string(blocks) + "/" + std::to_string(quantum) + "/" + std::to_string(remaining);
}

} // namespace

TEST(HXLMemoryPool, BlocksAreCutFromTheHighEndJoinUpAndFollowTheBudget) {
    HXLMemoryPool pool(0, 0);
    char* first = static_cast<char*>(pool.alloc(1));
    EXPECT_EQ(stats(pool), "1/131072/131056") << "a heap block of 8193 units";
    char* second = static_cast<char*>(pool.alloc(1));
    char* empty = static_cast<char*>(pool.alloc(0));
    EXPECT_EQ(first - second, 32) << "cut from the high end";
    EXPECT_EQ(second - empty, 16) << "alloc(0) is its header alone";
    for (char* p : {second, empty, first})
        pool.free(p);
    EXPECT_EQ(pool.alloc(131072), first - 131072 + 16) << "joined into one block, taken whole";
    EXPECT_NE(pool.alloc(131072), nullptr);
    EXPECT_EQ(stats(pool), "2/131072/0") << "a block of two steps of 8192 units";
    EXPECT_NE(pool.alloc(131040), nullptr) << "its surplus of 8191 units, exactly";
    EXPECT_EQ(pool.alloc(0), nullptr);
    pool.expand(1);
    EXPECT_EQ(stats(pool), "2/131072/131072") << "expand(1) gives a quantum";
    EXPECT_NE(pool.alloc(131072), nullptr);
    EXPECT_THAT([&pool] { pool.free(nullptr); },
                testing::ThrowsMessage<HXLAssertError>(testing::StrEq("HXL_ASSERT(memBlock);")));
    HXLMemoryPool tiny(1, 0), small(100, 16);
    EXPECT_NE(tiny.alloc(1000), nullptr) << "a budget of 1 is no budget of 0";
    EXPECT_NE(small.alloc(1), nullptr);
    for (unsigned long long nbytes : {~0ULL, ~0ULL - 40})
        EXPECT_EQ(small.alloc(nbytes), nullptr) << "no unit count for this size";
    EXPECT_EQ(stats(small), "1/16/68") << "a heap block of 32 bytes";
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

TEST(HXLMemoryPool, ABlockFreedTwiceIsRefused) {
    const auto twice = testing::ThrowsMessage<HXLAssertError>(
        testing::StrEq("HXL_ASSERT_NAMED(block < freeStart || block >= freeEnd, \"Block freed "
                       "twice in HXLMemoryPool::free\");"));
    HXLMemoryPool pool(0, 0);
    void* a = pool.alloc(1);
    void* b = pool.alloc(1);
    pool.free(a);
    EXPECT_THAT([&] { pool.free(a); }, twice) << "a free block of its own";
    pool.free(b);
    for (void* p : {a, b})
        EXPECT_THAT([&] { pool.free(p); }, twice) << "joined into the free block below";
    EXPECT_NE(pool.alloc(16), pool.alloc(16));
}
