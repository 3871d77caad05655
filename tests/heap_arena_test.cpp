#include "HXLCore.h"
#include "HXLFixedMemoryPool.h"
#include "HXLMemoryArena.h"
#include "heap_model.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

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

// The budget left; the memory used must be the rest of the ceiling.
unsigned int left(HXLMemoryArena& arena, unsigned int ceiling) {
    unsigned int pools = 0, used = 0, remaining = 0;
    arena.getPoolStats(pools, used, remaining);
    EXPECT_EQ(used + remaining, ceiling);
    return remaining;
}
int chunks(HXLMemoryArena& arena, int bin) {
    int count = -1;
    arena.getPoolStats(bin, nullptr, &count, nullptr);
    return count;
}
std::vector<std::string> dumpLines(HXLMemoryArena& arena) {
    std::stringstream report;
    arena.dumpStats(report);
    std::vector<std::string> lines;
    for (std::string line; std::getline(report, line);)
        lines.push_back(line);
    return lines;
}
// Allocates n blocks of `size` and frees them, leaving their chunks wholly free.
void churn(HXLMemoryArena& arena, unsigned int size, int n) {
    std::vector<void*> blocks;
    for (int i = 0; i < n; ++i)
        blocks.push_back(arena.alloc(size));
    for (void* p : blocks)
        arena.free(p);
}
// The text of what a step throws, followed by the function named at the throw, if any.
template <class Step> std::string thrown(Step&& step) {
    try {
        step();
    } catch (const HXLThrowable& e) {
        return e.what() + e.getBackTrace().front().function;
    }
    return "(nothing)";
}

} // namespace

// The random run below checks the budget after every step; here, which chunks go where.
TEST(HXLMemoryArena, SpentBudgetMovesChunksBetweenBinsOrTrimsThem) {
    HXLMemoryArena arena(4, 3 * 32768, 0);
    churn(arena, 32, 683); // two wholly free chunks in bin 3
    for (int i = 0; i < 2047; ++i)
        arena.alloc(8); // bin 0 full, budget spent
    EXPECT_NE(arena.alloc(8), nullptr);
    EXPECT_EQ(chunks(arena, 0) * 10 + chunks(arena, 3), 21) << "bin 3 gave its second";
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
    EXPECT_EQ(left(huge, 0xFFFFFFFFu), 0xFFFFFFFFu);
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
                  "Out of memory");
    }
    EXPECT_EQ(left(arena, 262144), 262144u);
    EXPECT_EQ(thrown([&] { arena.free(nullptr); }), "HXL_ASSERT(mem);");
    void* element = arena.alloc(8);
    arena.free(element);
    EXPECT_EQ(thrown([&] { arena.free(element); }),
              "HXL_ASSERT_NAMED(rh->m_inUse != 0, \"Element freed twice in "
              "HXLFixedMemoryPool::free\");");
    EXPECT_NE(arena.alloc(8), arena.alloc(8));
    alignas(16) unsigned char forged[24] = {0xE8, 0x03, 0, 0, 0, 0, 1, 0x0E}; // size 1000
    EXPECT_EQ(
        thrown([&] { arena.free(forged + 8); }),
        "HXL_ASSERT_NAMED(eraseCount == 1, \"Invalid memory chunk in HXLMemoryArena::free\");");
    arena.setAbortProcessOnMemoryOverWrites(1); // allocSize has no flags: still an assertion
    unsigned char* p = static_cast<unsigned char*>(arena.alloc(100));
    p[-1] = 0;
    EXPECT_EQ(thrown([&] { arena.free(p); }), "HXL_ASSERT(rh->m_filler3 == 0xE);");
    arena.setAbortProcessOnMemoryOverWrites(0);
    arena.setDetectMemoryOverWrites(1); // every bin scans: damage in bin 2 stops a non-bin alloc
    std::memset(arena.alloc(24), 0, 32);
    EXPECT_EQ(thrown([&] { arena.alloc(100); }), "HXL_ASSERT(rh->m_filler3 == 0xE);");
}

TEST(HXLMemoryArena, HeadersAndTheReport) {
    HXLMemoryArena arena(2, 0, 0);
    EXPECT_EQ(arena.size2Bin(0), 0x1FFFFFFF);
    EXPECT_EQ(arena.alloc(0), nullptr);
    auto* small = static_cast<unsigned char*>(arena.alloc(8));
    auto* big = static_cast<unsigned char*>(arena.alloc(100));
    for (auto* p : {small, big})
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(p) % 16, 8u);
    const std::vector<std::string> expected = {
        "",
        "Pool Statistics - Max Allowed: 262144, Memory used: 32876, Pool remaining: 229268, "
        "Expansions: 0, Reclaims: 0",
        "",
        "Arena Statistics - Memory Bins: 2, Non Bin Allocs: 1 (108/108)",
        "  Bin [1] - Size: 8",
        "     Chunk Size: 32768, Chunk Count: 1, Chunks InUse: 1, Pool Size: 32768, "
        "Elements/Chunk: 2047",
        "  Bin [2] - Size: 16",
        "     Chunk Size: 32768, Chunk Count: 0, Chunks InUse: 0, Pool Size: 0, "
        "Elements/Chunk: 1023",
        ""};
    EXPECT_EQ(dumpLines(arena), expected);
    arena.free(big); // freeing leaves the count and the sizes seen
    arena.free(arena.alloc(17));
    EXPECT_EQ(dumpLines(arena)[3], "Arena Statistics - Memory Bins: 2, Non Bin Allocs: 2 (25/108)");
}

TEST(HXLMemoryArena, RandomUseKeepsBlocksApartAndTheBudgetBalanced) {
    std::mt19937 rng(64);
    HXLMemoryArena arena(32, 0, 0);
    HeapModel model;
    unsigned int ceiling = 262144, nonBinBytes = 0, binBytes = 0, trims = 0, hot = 0;
    // Phases of 1500 steps fill a few hot bins and then drain them, so that wholly free chunks
    // pile up and later phases must move them between bins or trim them for non-bin blocks.
    for (int step = 0; step < 24 * 1500 && !HasFatalFailure(); ++step) {
        hot = step % 1500 == 0 ? 8 * (rng() % 29) : hot;
        const unsigned int allocPercent = step / 1500 % 2 == 0 ? 80 : 15;
        if (model.count() > 0 && rng() % 100 >= allocPercent) {
            void* p = model.remove(rng());
            const unsigned int size = HXLFixedMemoryPool::allocSize(p);
            nonBinBytes -= size > 256 ? size + 8 : 0;
            arena.free(p);
        } else {
            const unsigned int size = rng() % 20 == 0 ? 257 + rng() % 40000 : hot + 1 + rng() % 32;
            void* p = arena.alloc(size);
            if (p == nullptr && rng() % 8 == 0) {
                arena.expand(size);
                ceiling += std::max(size, 32768u) + 8;
                ASSERT_NE(p = arena.alloc(size), nullptr) << "expand(size) makes room";
            }
            if (p != nullptr)
                model.add(p, size);
            nonBinBytes += p != nullptr && size > 256 ? size + 8 : 0;
        }
        const unsigned int before = binBytes;
        binBytes = 0;
        for (int bin = 0; bin < 32; ++bin)
            binBytes += 32768 * static_cast<unsigned int>(chunks(arena, bin));
        trims += binBytes < before;
        ASSERT_EQ(ceiling - left(arena, ceiling), binBytes + nonBinBytes) << "step " << step;
    }
    EXPECT_GT(trims, 0u);
    EXPECT_EQ(dumpLines(arena)[1].find("Reclaims: 0"), std::string::npos) << dumpLines(arena)[1];
}
