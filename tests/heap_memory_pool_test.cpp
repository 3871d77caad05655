#include "HXLCore.h"
#include "HXLMemoryPool.h"
#include "heap_model.h"

#include <gmock/gmock.h>

#include <cstdint>
#include <random>
#include <string>

namespace {

// "heap blocks/quantum/budget left" after alloc(nbytes), which must be served or refused.
std::string served(HXLMemoryPool& pool, unsigned long long nbytes, bool expected,
                   char** got = nullptr) {
    char* p = static_cast<char*>(pool.alloc(nbytes));
    EXPECT_EQ(p != nullptr, expected) << nbytes << " bytes";
    if (got != nullptr)
        *got = p;
    unsigned long long blocks = 0, quantum = 0, remaining = 0;
    pool.getStats(blocks, quantum, remaining);
    return std::to_string(blocks) + "/" + std::to_string(quantum) + "/" + std::to_string(remaining);
}

} // namespace

TEST(HXLMemoryPool, BlocksAreCutFromTheHighEndJoinUpAndFollowTheBudget) {
    HXLMemoryPool pool(0, 0);
    char *first = nullptr, *second = nullptr, *empty = nullptr;
    EXPECT_EQ(served(pool, 1, true, &first), "1/131072/131056") << "a heap block of 8193 units";
    served(pool, 1, true, &second);
    served(pool, 0, true, &empty);
    EXPECT_EQ(first - second, 32) << "cut from the high end";
    EXPECT_EQ(second - empty, 16) << "alloc(0) is its header alone";
    for (char* p : {second, empty, first})
        pool.free(p);
    EXPECT_EQ(served(pool, 131072, true, &second), "1/131072/131056");
    EXPECT_EQ(second, first - 131072 + 16) << "joined into one block, taken whole";
    EXPECT_EQ(served(pool, 131072, true), "2/131072/0") << "a block of two steps of 8192 units";
    EXPECT_EQ(served(pool, 131040, true), "2/131072/0") << "its surplus of 8191 units, exactly";
    EXPECT_EQ(served(pool, 131072, false), "2/131072/0");
    pool.expand(1);
    EXPECT_EQ(served(pool, 131072, true), "3/131072/0") << "expand(1) gave a quantum";
    EXPECT_THAT([&pool] { pool.free(nullptr); },
                testing::ThrowsMessage<HXLAssertError>(testing::StrEq("HXL_ASSERT(memBlock);")));
    HXLMemoryPool big(0, 0), tiny(1, 0), small(100, 16);
    EXPECT_EQ(served(big, 1048576, true), "1/131072/0");
    EXPECT_EQ(served(tiny, 1000, true), "1/131072/0");
    EXPECT_EQ(served(small, 1, true), "1/16/68") << "a heap block of 32 bytes";
    for (unsigned long long nbytes : {~0ULL, ~0ULL - 40})
        EXPECT_EQ(served(small, nbytes, false), "1/16/68") << "no unit count for this size";
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
