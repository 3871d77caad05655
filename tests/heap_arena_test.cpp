#include "HXLCore.h"
#include "HXLFixedMemoryPool.h"
#include "HXLMemoryArena.h"
#include "heap_model.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <new>
#include <random>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {
// Unless 0, the next operator new of exactly this many bytes fails.
std::size_t g_failSize = 0;
} // namespace

void* operator new(std::size_t size) {
    const bool fail = g_failSize != 0 && size == g_failSize;
    if (fail)
        g_failSize = 0;
    void* p = fail ? nullptr : std::malloc(size == 0 ? 1 : size);
    if (p == nullptr)
        throw std::bad_alloc();
    return p;
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return std::malloc(size == 0 ? 1 : size);
}
// GCC sees the new above through the inlined free below and takes them for a mismatch.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#endif
void operator delete(void* p) noexcept {
    std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
    std::free(p);
}

namespace {

// The budget left (used = false) or spent (used = true).
unsigned int budget(HXLMemoryArena& arena, bool used = false) {
    unsigned int pools = 0, spent = 0, left = 0;
    arena.getPoolStats(pools, spent, left);
    EXPECT_EQ(pools, 1u);
    return used ? spent : left;
}
int chunks(HXLMemoryArena& arena, int bin) {
    int count = -1;
    arena.getPoolStats(bin, nullptr, &count, nullptr);
    return count;
}
std::vector<std::string> dumpLines(HXLMemoryArena& arena) {
    std::ostringstream os;
    arena.dumpStats(os);
    std::vector<std::string> lines;
    std::istringstream is(os.str());
    for (std::string line; std::getline(is, line);)
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
std::string freeFailure(HXLMemoryArena& arena, void* p) {
    try {
        arena.free(p);
    } catch (const HXLAssertError& e) {
        return e.what();
    }
    return "(nothing)";
}

} // namespace

TEST(HXLMemoryArena, BinsSizesHeadersAndBudget) {
    HXLMemoryArena arena(4, 0, 0);
    EXPECT_EQ(arena.size2Bin(0), 0x1FFFFFFF);
    EXPECT_EQ(arena.alloc(0), nullptr);

    unsigned char* p1 = static_cast<unsigned char*>(arena.alloc(1));
    EXPECT_EQ(budget(arena), 229376u) << "the first element costs a whole chunk";
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(p1) % 16, 8u);
    EXPECT_EQ(arena.alloc(8), p1 + 16);
    EXPECT_EQ(HXLFixedMemoryPool::allocSize(arena.alloc(9)), 16u);
    EXPECT_EQ(HXLFixedMemoryPool::allocSize(arena.alloc(32)), 32u);
    EXPECT_EQ(chunks(arena, 0) + chunks(arena, 1) + chunks(arena, 2) + chunks(arena, 3), 3);

    unsigned char* big = static_cast<unsigned char*>(arena.alloc(33));
    EXPECT_EQ(HXLFixedMemoryPool::allocSize(big), 33u);
    std::uint32_t word;
    std::memcpy(&word, big - 4, 4);
    EXPECT_EQ(word, 0x0E010000u);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(big) % 16, 8u);
    EXPECT_EQ(budget(arena), 262144u - 3 * 32768 - 41);
    arena.free(p1);
    EXPECT_EQ(budget(arena), 262144u - 3 * 32768 - 41) << "bins keep their chunks";
    arena.free(big);
    EXPECT_EQ(budget(arena), 262144u - 3 * 32768);

    int size = -1, count = -1, perChunk = -1;
    arena.getPoolStats(0, &size, &count, &perChunk);
    EXPECT_EQ(size * 10000 + perChunk, 327682047);
    for (int bin : {-1, 4}) {
        arena.getPoolStats(bin, &size, &count, &perChunk);
        EXPECT_EQ(size | count | perChunk, 0);
    }
}

TEST(HXLMemoryArena, SpentBudgetMovesChunksBetweenBinsOrTrimsThem) {
    HXLMemoryArena arena(4, 3 * 32768, 0);
    churn(arena, 32, 683); // two wholly free chunks in bin 3
    for (int i = 0; i < 2047; ++i)
        arena.alloc(8); // bin 0 full, budget spent
    EXPECT_NE(arena.alloc(8), nullptr);
    EXPECT_EQ(chunks(arena, 0) * 10 + chunks(arena, 3), 21);
    EXPECT_EQ(dumpLines(arena)[1], "Pool Statistics - Max Allowed: 98304, Memory used: 98304, "
                                   "Pool remaining: 0, Expansions: 0, Reclaims: 1");
    for (int i = 1; i < 2047; ++i)
        arena.alloc(8);
    EXPECT_EQ(arena.alloc(8), nullptr) << "every bin keeps its first wholly free chunk";

    HXLMemoryArena trimmed(4, 3 * 32768, 0);
    churn(trimmed, 8, 2048); // two wholly free chunks in bin 0
    churn(trimmed, 32, 1);   // one in bin 3
    void* p = trimmed.alloc(40000);
    EXPECT_EQ(budget(trimmed), 65536u - 40008);
    EXPECT_EQ(chunks(trimmed, 0) * 10 + chunks(trimmed, 3), 1) << "bin 0 released enough";
    trimmed.free(p);
    EXPECT_EQ(trimmed.alloc(1000000), nullptr);
    EXPECT_EQ(budget(trimmed), 98304u) << "trimmed bytes stay credited";
    trimmed.expand(1);
    EXPECT_EQ(budget(trimmed), 98304u + 32776);
    trimmed.expand(100000);
    EXPECT_EQ(trimmed.alloc(100001 + 131080), nullptr);
    EXPECT_NE(trimmed.alloc(100000 + 131080), nullptr) << "expand covers the header too";
    EXPECT_EQ(budget(trimmed), 0u);

    HXLMemoryArena huge(0, 0xFFFFFFFFu, 0); // block sizes past 32 bits are refused
    EXPECT_EQ(huge.alloc(0xFFFFFFF8u), nullptr);
    EXPECT_EQ(huge.alloc(0xFFFFFFFFu), nullptr);
    EXPECT_EQ(budget(huge), 0xFFFFFFFFu);
}

TEST(HXLMemoryArena, MisuseAndDamageAreRefused) {
    HXLMemoryArena arena(4, 0, 0);
    EXPECT_EQ(freeFailure(arena, nullptr), "HXL_ASSERT(mem);");
    alignas(16) unsigned char forged[24] = {0xE8, 0x03, 0, 0, 0, 0, 1, 0x0E}; // size 1000
    EXPECT_EQ(
        freeFailure(arena, forged + 8),
        "HXL_ASSERT_NAMED(eraseCount == 1, \"Invalid memory chunk in HXLMemoryArena::free\");");
    EXPECT_EQ(budget(arena), 262144u);

    // allocSize has no flags at hand: a damaged block header is an assertion even with abort on.
    arena.setAbortProcessOnMemoryOverWrites(1);
    unsigned char* p = static_cast<unsigned char*>(arena.alloc(100));
    p[-1] = 0;
    EXPECT_EQ(freeFailure(arena, p), "HXL_ASSERT(rh->m_filler3 == 0xE);");
    p[-1] = 0x0E;
    arena.free(p);
    EXPECT_EQ(budget(arena), 262144u);

    EXPECT_THROW(HXLMemoryArena(-1, 0, 0), std::length_error);
    EXPECT_THROW(HXLMemoryArena(4094, 0, 0), HXLAssertError);
    EXPECT_EQ(HXLMemoryArena(4093, 0, 0).getNumVarBins(), 4093);
}

TEST(HXLMemoryArena, HeapRefusalIsOutOfMemoryWithTheBudgetUntouched) {
    auto refused = [](std::size_t size, auto&& step) {
        g_failSize = size;
        try {
            step();
            ADD_FAILURE() << size << " bytes were not refused";
        } catch (const HXLOutOfMemoryError& e) {
            EXPECT_EQ(e.getBackTrace().front().function, "") << "no function named at the throw";
        }
        g_failSize = 0;
    };
    refused(sizeof(HXLFixedMemoryPool), [] { HXLMemoryArena(2, 0, 0); });
    refused(sizeof(std::set<void*>), [] { HXLMemoryArena(2, 0, 0); });
    HXLMemoryArena arena(2, 0, 0);
    refused(0x8000, [&arena] { arena.alloc(8); });
    EXPECT_EQ(budget(arena), 262144u);
    EXPECT_NE(arena.alloc(8), nullptr);
    EXPECT_EQ(budget(arena), 262144u - 32768);
}

TEST(HXLMemoryArenaDeathTest, AbortFlagReachesEveryBin) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    auto damage = [] {
        HXLMemoryArena arena(4, 0, 0);
        arena.setDetectMemoryOverWrites(1);
        arena.setAbortProcessOnMemoryOverWrites(1);
        std::memset(arena.alloc(24), 0, 32);
        arena.alloc(100); // scans every bin
    };
    EXPECT_EXIT(damage(), testing::KilledBySignal(SIGABRT), "");
}

TEST(HXLMemoryArena, DumpStatsWritesTheReport) {
    HXLMemoryArena arena(2, 0, 0);
    arena.alloc(8);
    arena.alloc(100);
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

    HXLMemoryArena four(4, 0, 0);
    EXPECT_EQ(dumpLines(four)[3], "Arena Statistics - Memory Bins: 4, Non Bin Allocs: 0 (0/0)");
    four.free(four.alloc(33));
    four.free(four.alloc(100));
    EXPECT_EQ(dumpLines(four)[3], "Arena Statistics - Memory Bins: 4, Non Bin Allocs: 2 (41/108)");
}

TEST(HXLMemoryArena, RandomUseKeepsBlocksApartAndTheBudgetBalanced) {
    std::mt19937 rng(64);
    HXLMemoryArena arena(32, 0, 0);
    HeapModel model;
    unsigned long long nonBinBytes = 0, binBytes = 0;
    int trims = 0;
    // Phases fill a few hot bins and then drain them, so that wholly free chunks pile up and
    // later phases must move them between bins or trim them for non-bin blocks.
    for (int phase = 0; phase < 24 && !HasFatalFailure(); ++phase) {
        const unsigned int hot = 8 * (rng() % 29);
        const unsigned int allocPercent = phase % 2 == 0 ? 80 : 15;
        for (int step = 0; step < 1500 && !HasFatalFailure(); ++step) {
            if (model.count() > 0 && rng() % 100 >= allocPercent) {
                void* p = model.remove(rng());
                const unsigned int size = HXLFixedMemoryPool::allocSize(p);
                nonBinBytes -= size > 256 ? size + 8 : 0;
                arena.free(p);
            } else {
                const unsigned int size =
                    rng() % 20 == 0 ? 257 + rng() % 40000 : hot + 1 + rng() % 32;
                void* p = arena.alloc(size);
                if (p == nullptr && rng() % 8 == 0) {
                    arena.expand(size);
                    p = arena.alloc(size);
                    ASSERT_NE(p, nullptr) << "expand(size) makes room for size";
                }
                if (p != nullptr) {
                    model.add(p, size);
                    ASSERT_EQ(HXLFixedMemoryPool::allocSize(p),
                              size > 256 ? size : arena.bin2Size(arena.size2Bin(size)));
                    nonBinBytes += size > 256 ? size + 8 : 0;
                }
            }
            const unsigned long long before = binBytes;
            binBytes = 0;
            for (int bin = 0; bin < 32; ++bin)
                binBytes += 32768ull * static_cast<unsigned int>(chunks(arena, bin));
            trims += binBytes < before;
            ASSERT_EQ(budget(arena, true), binBytes + nonBinBytes) << "phase " << phase;
        }
    }
    EXPECT_GT(trims, 0);
    EXPECT_EQ(dumpLines(arena)[1].find("Reclaims: 0"), std::string::npos) << dumpLines(arena)[1];
}
