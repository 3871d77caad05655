// The three heap allocators: their model (fuzz/heap_fuzz.cpp) on seeded programs, exact layouts
// and budgets, misuse, damage and refused memory.
#include "HXLFixedMemoryPool.h"
#include "HXLMemoryArena.h"
#include "HXLMemoryPool.h"
#include "store_test_util.h"

#include <csignal>
#include <new>

// Unless SIZE_MAX, the next operator new of exactly this many bytes fails.
static std::size_t g_failSize = SIZE_MAX;
void* operator new(std::size_t size) {
    void* p = size == g_failSize ? nullptr : std::malloc(size + 1);
    if (p == nullptr) {
        g_failSize = SIZE_MAX;
        throw std::bad_alloc();
    }
    return p;
}
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmismatched-new-delete" // it pairs the new above with free
#endif
void operator delete(void* p) noexcept {
    std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
    std::free(p);
}

namespace {

// "heap blocks/quantum/budget left"
std::string stats(HXLMemoryPool& pool) {
    unsigned long long blocks = 0, quantum = 0, remaining = 0;
    pool.getStats(blocks, quantum, remaining);
    return std::to_string(blocks) + "/" + std::to_string(quantum) + "/" + std::to_string(remaining);
}

int chunks(HXLMemoryArena& arena, int bin) {
    int count = -1;
    arena.getPoolStats(bin, nullptr, &count, nullptr);
    return count;
}
std::string report(HXLMemoryArena& arena) {
    std::ostringstream os;
    arena.dumpStats(os);
    return os.str();
}
// Allocates n blocks of `size` and frees them, leaving their chunks wholly free.
void churn(HXLMemoryArena& arena, unsigned int size, int n) {
    std::vector<void*> blocks(static_cast<std::size_t>(n));
    for (void*& p : blocks)
        p = arena.alloc(size);
    for (void* p : blocks)
        arena.free(p);
}
} // namespace

TEST(HeapModel, RandomProgramsAgree) {
    runModel(300, 3000);
}

TEST(HXLMemoryPool, BlocksAreCutFromTheHighEndJoinUpAndFollowTheBudget) {
    HXLMemoryPool pool(0, 0);
    char* first = static_cast<char*>(pool.alloc(1));
    EXPECT_EQ(stats(pool), "1/131072/131056") << "a heap block of 8193 units";
    char* second = static_cast<char*>(pool.alloc(1));
    char* empty = static_cast<char*>(pool.alloc(0));
    EXPECT_EQ(first - second, 32) << "cut from the high end";
    EXPECT_EQ(second - empty, 16) << "alloc(0) is its header alone";
    // `second` freed again, as a free block of its own and then joined into the one below.
    for (char* p : {second, empty, first}) {
        pool.free(p);
        EXPECT_EQ(thrown([&] { pool.free(second); }),
                  "assert: HXL_ASSERT_NAMED(block < freeStart || block >= freeEnd, \"Block freed "
                  "twice in HXLMemoryPool::free\"); <- HXL_THROW");
    }
    EXPECT_EQ(pool.alloc(131072), first - 131072 + 16) << "joined into one block, taken whole";
    EXPECT_NE(pool.alloc(131072), nullptr);
    EXPECT_EQ(stats(pool), "2/131072/0") << "a block of two steps of 8192 units";
    EXPECT_NE(pool.alloc(131040), nullptr) << "its surplus of 8191 units, exactly";
    EXPECT_EQ(pool.alloc(0), nullptr);
    HXLMemoryPool tiny(1, 0), small(100, 16);
    EXPECT_NE(tiny.alloc(1000), nullptr) << "a budget of 1 is no budget of 0";
    EXPECT_NE(small.alloc(1), nullptr);
    for (unsigned long long nbytes : {~0ULL, ~0ULL - 40})
        EXPECT_EQ(small.alloc(nbytes), nullptr) << "no unit count for this size";
    EXPECT_EQ(stats(small), "1/16/68") << "a heap block of 32 bytes";
}

TEST(HXLFixedMemoryPool, StrideCapacityLinksAndRefusedSizes) {
    // size, header mode, stride, elements per chunk
    const unsigned int rows[][4] = {
        {0, 1, 32, 1023}, {9, 0, 16, 2047}, {32744, 1, 0, 1}, {32752, 0, 0, 1}};
    for (const auto& row : rows) {
        HXLFixedMemoryPool pool(row[0], 2, static_cast<int>(row[1]));
        EXPECT_EQ(pool.alloc(), nullptr) << "expandable 2 is not expandable";
        pool.grow(nullptr);
        std::vector<unsigned char*> got;
        while (auto* p = static_cast<unsigned char*>(pool.alloc()))
            got.push_back(p);
        ASSERT_EQ(got.size(), row[3]) << "size " << row[0];
        EXPECT_EQ(got.size() > 1 ? got[1] - got[0] : 0, row[2]);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(got[0]) % 16, row[1] ? 8u : 0u);
    }
    EXPECT_EQ(HXLFixedMemoryPool::allocSize(HXLFixedMemoryPool(0, 3, 1).alloc()), 16u)
        << "expandable 3 is; size 0 stands for 16";
    HXLFixedMemoryPool pool(8, 1, 1);
    auto* e0 = static_cast<unsigned char*>(pool.alloc());
    auto* e1 = static_cast<unsigned char*>(pool.alloc());
    pool.free(e1);
    EXPECT_EQ(*reinterpret_cast<void**>(e1), e0 + 32) << "the link is in the first 8 bytes";
    EXPECT_EQ(pool.alloc(), e1) << "last in, first out";
    for (unsigned int size : {32745u, 0xFFFFFFF8u})
        EXPECT_EQ(thrown([&] { HXLFixedMemoryPool(size, 1, 1); }),
                  "assert: HXL_ASSERT_NAMED(m_esize <= Chunk::size, \"Specified size for "
                  "HXLFixedMemoryPool is too large.\"); <- HXL_THROW");
}

// Damage reaching a filler is reported by assertion, or ends the process under the abort flag.
TEST(HXLFixedMemoryPoolDeathTest, DamagedHeadersAreReported) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const std::string hit = "assert: HXL_ASSERT(rh->m_filler3 == 0xE); <- HXL_THROW";
    HXLFixedMemoryPool pool(8, 1, 1);
    pool.setDetectMemoryOverWrites(7); // any value but 0 turns it on
    auto* p0 = static_cast<unsigned char*>(pool.alloc());
    auto* p1 = static_cast<unsigned char*>(pool.alloc());
    std::memset(p0, 0x41, 12); // reaches only the next element's size: not reported
    EXPECT_NO_THROW(pool.free(pool.alloc()));
    std::memset(p0, 0x41, 16); // reaches its filler too
    EXPECT_EQ(thrown([&] { pool.alloc(); }), hit);
    pool.setDetectMemoryOverWrites(0);
    EXPECT_EQ(thrown([&] { pool.free(p1); }), hit) << "the short test needs no detection";
    EXPECT_EQ(p1[-2], 0x41) << "a refused free changes nothing";
    void* e = pool.alloc(); // an element freed twice is refused, or aborts
    pool.free(e);
    EXPECT_EQ(thrown([&] { pool.free(e); }), "assert: HXL_ASSERT_NAMED(rh->m_inUse != 0, \"Element "
                                             "freed twice in HXLFixedMemoryPool::free\"); <- "
                                             "HXL_THROW");
    EXPECT_NE(pool.alloc(), pool.alloc()) << "it was linked once";
    pool.free(e);
    pool.setAbortProcessOnMemoryOverWrites(1);
    EXPECT_EXIT(pool.free(e), testing::KilledBySignal(SIGABRT), "");
    for (int damage : {16, 12, -16}) { // a filler, a size alone, a filler without detection
        HXLFixedMemoryPool doomed(8, 1, 1);
        doomed.setDetectMemoryOverWrites(damage > 0);
        doomed.setAbortProcessOnMemoryOverWrites(2);
        std::memset(doomed.alloc(), 0x41, static_cast<std::size_t>(damage < 0 ? -damage : damage));
        EXPECT_EXIT(doomed.alloc(), testing::KilledBySignal(SIGABRT), "") << damage;
    }
}

TEST(HXLMemoryArena, SpentBudgetMovesChunksBetweenBinsOrTrimsThem) {
    HXLMemoryArena arena(4, 3 * 32768, 0);
    churn(arena, 32, 683); // two wholly free chunks in bin 3
    for (int i = 0; i < 2047; ++i)
        arena.alloc(8); // bin 0 full, budget spent
    EXPECT_NE(arena.alloc(8), nullptr);
    EXPECT_EQ(chunks(arena, 0) * 10 + chunks(arena, 3), 21) << "bin 3 gave its second";
    EXPECT_NE(report(arena).find("remaining: 0, Expansions: 0, Reclaims: 1"), std::string::npos);
    for (int i = 1; i < 2047; ++i)
        arena.alloc(8);
    EXPECT_EQ(arena.alloc(8), nullptr) << "every bin keeps its first wholly free chunk";

    HXLMemoryArena trimmed(4, 3 * 32768, 0);
    churn(trimmed, 8, 2048); // two wholly free chunks in bin 0
    churn(trimmed, 32, 1);   // one in bin 3
    EXPECT_NE(trimmed.alloc(40000), nullptr);
    EXPECT_EQ(chunks(trimmed, 0) * 10 + chunks(trimmed, 3), 1) << "bin 0 released enough";
    HXLMemoryArena huge(0, 0xFFFFFFFFu, 0); // block sizes past 32 bits are refused
    EXPECT_EQ(huge.alloc(0xFFFFFFF8u), nullptr);
    EXPECT_NE(report(huge).find("Memory used: 0, Pool remaining: 4294967295,"), std::string::npos);
}

TEST(HXLMemoryArena, MisuseDamageAndRefusedMemoryAreReported) {
    HXLMemoryArena arena(4, 0, 0);
    // The heap refuses a pool, the block set, then a chunk: the budget stays untouched.
    for (std::size_t size : {sizeof(HXLFixedMemoryPool), sizeof(std::set<void*>), 0x8000ul}) {
        g_failSize = size;
        EXPECT_EQ(thrown([&] {
                      HXLMemoryArena(2, 0, 0);
                      arena.alloc(8);
                  }),
                  "memory: Out of memory <- HXL_THROW");
    }
    EXPECT_NE(report(arena).find("Memory used: 0, Pool remaining: 262144,"), std::string::npos);
    HXLMemoryPool pool(0, 0);
    EXPECT_EQ(thrown([&] { arena.free(nullptr); }) + thrown([&] { pool.free(nullptr); }),
              "assert: HXL_ASSERT(mem); <- HXL_THROWassert: HXL_ASSERT(memBlock); <- HXL_THROW");
    alignas(16) unsigned char forged[24] = {0xE8, 0x03, 0, 0, 0, 0, 1, 0x0E}; // size 1000
    EXPECT_EQ(thrown([&] { arena.free(forged + 8); }),
              "assert: HXL_ASSERT_NAMED(eraseCount == 1, \"Invalid memory chunk in "
              "HXLMemoryArena::free\"); <- HXL_THROW");
    arena.setAbortProcessOnMemoryOverWrites(1); // allocSize has no flags: still an assertion
    auto* p = static_cast<unsigned char*>(arena.alloc(100));
    p[-1] = 0;
    const std::string hit = "assert: HXL_ASSERT(rh->m_filler3 == 0xE); <- HXL_THROW";
    EXPECT_EQ(thrown([&] { arena.free(p); }), hit);
    arena.setAbortProcessOnMemoryOverWrites(0);
    arena.setDetectMemoryOverWrites(1); // every bin scans: damage in bin 2 stops a non-bin alloc
    std::memset(arena.alloc(24), 0, 32);
    EXPECT_EQ(thrown([&] { arena.alloc(100); }), hit);
}

// The report: the budget line, the arena's line (non-bin allocations, with the last and the
// largest size seen) and each bin's two lines, one per bin, the same for every bin.
TEST(HXLMemoryArena, TheReport) {
    HXLMemoryArena arena(2, 0, 0);
    arena.alloc(8);
    arena.free(arena.alloc(100));
    arena.free(arena.alloc(17));
    const std::string head =
        "\nPool Statistics - Max Allowed: 262144, Memory used: 32768, Pool remaining: "
        "229376, Expansions: 0, Reclaims: 0\n\nArena Statistics - Memory Bins: 2, Non Bin "
        "Allocs: 2 (25/108)\n  Bin [1] - Size: 8\n     Chunk Size: 32768, Chunk Count: 1, "
        "Chunks InUse: 1, Pool Size: 32768, Elements/Chunk: 2047\n";
    EXPECT_EQ(report(arena).substr(0, head.size()), head);
}
