#include "HXLCore.h"
#include "HXLFixedMemoryPool.h"
#include "heap_model.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdint>
#include <cstring>
#include <new>
#include <random>
#include <vector>

namespace {

std::uintptr_t u(const void* p) {
    return reinterpret_cast<std::uintptr_t>(p);
}
unsigned char* b(void* p) {
    return static_cast<unsigned char*>(p);
}

template <class T> T readAt(const void* p) {
    T value;
    std::memcpy(&value, p, sizeof value);
    return value;
}

// Allocates until the pool says no; gives back how many it served.
int drain(HXLFixedMemoryPool& pool) {
    int served = 0;
    while (pool.alloc() != nullptr)
        ++served;
    return served;
}

const char* const kFillerAssert = "HXL_ASSERT(rh->m_filler3 == 0xE);";

} // namespace

TEST(HXLFixedMemoryPool, StrideAndCapacityFollowSizeAndMode) {
    struct Row {
        unsigned int size;
        int headers;
        int stride; // 0 where a chunk holds a single element
        int perChunk;
    };
    const Row rows[] = {{0, 1, 32, 1023}, {0, 0, 16, 2047},  {1, 1, 16, 2047},  {9, 1, 32, 1023},
                        {9, 0, 16, 2047}, {24, 0, 32, 1023}, {24, 1, 32, 1023}, {16376, 1, 0, 1},
                        {32744, 1, 0, 1}, {32752, 0, 0, 1}};
    for (const Row& row : rows) {
        SCOPED_TRACE(testing::Message() << "size " << row.size << " headers " << row.headers);
        HXLFixedMemoryPool pool(row.size, 0, row.headers);
        int chunkSize = 0, perChunk = 0;
        pool.info(&chunkSize, nullptr, &perChunk, nullptr);
        EXPECT_EQ(chunkSize, 32768);
        EXPECT_EQ(perChunk, row.perChunk);
        EXPECT_EQ(pool.alloc(), nullptr) << "a pool that is not expandable starts empty";
        pool.grow(nullptr);
        void* first = pool.alloc();
        void* second = pool.alloc();
        if (row.stride != 0) {
            EXPECT_EQ(u(second) - u(first), static_cast<std::uintptr_t>(row.stride));
        }
        EXPECT_EQ(u(first) % 16, row.headers ? 8u : 0u);
        EXPECT_EQ(drain(pool) + 1 + (second != nullptr), row.perChunk);
        if (row.headers) {
            EXPECT_EQ(HXLFixedMemoryPool::allocSize(first), row.size == 0 ? 16u : row.size);
        }
    }

    const struct {
        unsigned int size;
        int headers;
    } refused[] = {{32745, 1}, {32752, 1}, {32753, 0}, {0xFFFFFFF8u, 1}, {0xFFFFFFFFu, 0}};
    for (const auto& r : refused) {
        try {
            HXLFixedMemoryPool pool(r.size, 1, r.headers);
            ADD_FAILURE() << "size " << r.size << " accepted";
        } catch (const HXLAssertError& e) {
            EXPECT_STREQ(e.what(), "HXL_ASSERT_NAMED(m_esize <= Chunk::size, \"Specified size for "
                                   "HXLFixedMemoryPool is too large.\");");
        }
    }
}

TEST(HXLFixedMemoryPool, HeadersChunkLinksAndFreeListsLieWhereTheLayoutSays) {
    HXLFixedMemoryPool pool(8, 1, 1);
    unsigned char* e0 = b(pool.alloc());
    unsigned char* chunk1 = e0 - 8;
    EXPECT_EQ(u(chunk1) % 16, 0u);
    EXPECT_EQ(readAt<std::uint32_t>(e0 - 8), 8u);
    EXPECT_EQ(readAt<std::uint16_t>(e0 - 4), 0u);
    EXPECT_EQ(e0[-2], 1);
    EXPECT_EQ(e0[-1], 0x0E);

    unsigned char* e1 = b(pool.alloc());
    EXPECT_EQ(e1, e0 + 16);
    EXPECT_EQ(readAt<std::uint16_t>(e1 - 4), 16u);
    EXPECT_EQ(readAt<void*>(chunk1 + 0x7FF8), e0 + 32) << "m_free names element 2";

    pool.free(e1);
    EXPECT_EQ(e1[-2], 0);
    EXPECT_EQ(readAt<void*>(chunk1 + 0x7FF8), e1);
    EXPECT_EQ(readAt<void*>(e1), e0 + 32) << "the link lies in the caller's first 8 bytes";
    EXPECT_EQ(pool.alloc(), e1) << "free lists are last in, first out";

    for (int i = 2; i < 2047; ++i)
        pool.alloc();
    EXPECT_EQ(readAt<void*>(chunk1 + 0x7FF8), nullptr);
    EXPECT_EQ(readAt<void*>(chunk1 + 0x7FF0), nullptr);

    unsigned char* chunk2 = b(pool.alloc()) - 8;
    EXPECT_TRUE(u(chunk2) + 0x8000 <= u(chunk1) || u(chunk2) >= u(chunk1) + 0x8000);
    EXPECT_EQ(readAt<void*>(chunk2 + 0x7FF0), chunk1) << "a new chunk goes to the head";
    int count = 0, inUse = 0;
    pool.info(nullptr, &count, nullptr, &inUse);
    EXPECT_EQ(count, 2);
    EXPECT_EQ(inUse, 2);

    pool.free(chunk2 + 8);
    EXPECT_EQ(pool.reclaim(0), chunk2);
    ::operator delete(chunk2);
    EXPECT_EQ(HXLFixedMemoryPool::allocSize(nullptr), 0u);
}

TEST(HXLFixedMemoryPool, ExpandabilityAndTheCurrentChunk) {
    EXPECT_EQ(HXLFixedMemoryPool(8, 2, 1).alloc(), nullptr);
    EXPECT_EQ(HXLFixedMemoryPool(8, 2, 0).alloc(), nullptr);
    EXPECT_NE(HXLFixedMemoryPool(8, 3, 1).alloc(), nullptr);

    // 4 elements of stride 8016 per chunk; chunkB is grown last and so is current.
    HXLFixedMemoryPool pool(8000, 0, 1);
    pool.grow(nullptr);
    pool.grow(nullptr);
    unsigned char* inB[4];
    for (auto& p : inB)
        p = b(pool.alloc());
    EXPECT_EQ(inB[3] - inB[0], 3 * 8016);
    // B stays current with no free element; an element freed into it is served first.
    pool.free(inB[1]);
    EXPECT_EQ(pool.alloc(), inB[1]);
    // Now B is empty: the walk finds A, which becomes current.
    unsigned char* a0 = b(pool.alloc());
    EXPECT_TRUE(a0 < inB[0] - 8 || a0 >= inB[0] - 8 + 0x8000);
    pool.free(inB[2]);
    EXPECT_EQ(pool.alloc(), a0 + 8016) << "free does not make its chunk current";
}

TEST(HXLFixedMemoryPool, ReclaimTrimAndInfoSeeOnlyWhollyFreeChunks) {
    // X (newest, one element in use), Y and Z (wholly free).
    auto build = [](HXLFixedMemoryPool& pool, void*(&c)[3]) {
        for (void*& chunk : c)
            chunk = ::operator new(0x8000);
        pool.grow(c[2]);
        pool.grow(c[1]);
        pool.grow(c[0]);
        pool.alloc();
    };
    void* c[3];
    {
        HXLFixedMemoryPool pool(8, 0, 1);
        build(pool, c);
        EXPECT_EQ(pool.reclaim(2), nullptr);
        EXPECT_EQ(pool.reclaim(-1), nullptr);
        int inUse = 7;
        pool.info(nullptr, nullptr, nullptr, &inUse);
        EXPECT_EQ(inUse, 0) << "chunksInUse is counted only with chunkCount";
        int count = 0;
        pool.info(nullptr, &count, nullptr, &inUse);
        EXPECT_EQ(count, 3);
        EXPECT_EQ(inUse, 1);
        EXPECT_EQ(pool.reclaim(1), c[2]);
        EXPECT_EQ(pool.reclaim(0), c[1]);
        EXPECT_EQ(pool.reclaim(0), nullptr);
        ::operator delete(c[2]);

        // A chunk of another pool, holding any bytes, is carved afresh and serves normally.
        std::memset(c[1], 0xFF, 0x8000);
        HXLFixedMemoryPool other(100, 0, 1);
        other.grow(c[1]);
        void* e = other.alloc();
        EXPECT_EQ(HXLFixedMemoryPool::allocSize(e), 100u);
        EXPECT_EQ(drain(other) + 1, 292);
    }
    {
        HXLFixedMemoryPool pool(8, 0, 1);
        build(pool, c);
        EXPECT_EQ(pool.trim(-1), 0u);
        EXPECT_EQ(pool.trim(1), 32768u);
        EXPECT_EQ(pool.reclaim(0), c[2]) << "trim(1) released Y and left Z";
        ::operator delete(c[2]);
    }
    {
        HXLFixedMemoryPool pool(8, 0, 1);
        build(pool, c);
        EXPECT_EQ(pool.trim(0), 65536u);
        int count = 0;
        pool.info(nullptr, &count, nullptr, nullptr);
        EXPECT_EQ(count, 1);
    }
    {
        // Reclaiming the current chunk clears it; every element freed makes a chunk wholly
        // free again, whatever the order of its free list.
        HXLFixedMemoryPool pool(8, 0, 1);
        pool.grow(nullptr);
        EXPECT_EQ(pool.reclaim(1), nullptr);
        void* chunk = pool.reclaim(0);
        ASSERT_NE(chunk, nullptr);
        EXPECT_EQ(pool.alloc(), nullptr);
        pool.grow(chunk);
        std::vector<void*> all;
        for (void* p = pool.alloc(); p != nullptr; p = pool.alloc())
            all.push_back(p);
        for (void* p : all)
            pool.free(p);
        EXPECT_EQ(pool.trim(0), 32768u);
    }
    {
        HXLFixedMemoryPool plain(8, 1, 0);
        plain.free(plain.alloc());
        EXPECT_EQ(plain.reclaim(0), nullptr);
        EXPECT_EQ(plain.trim(0), 0u);
        int count = 0, inUse = 5;
        plain.info(nullptr, &count, nullptr, &inUse);
        EXPECT_EQ(count, 1);
        EXPECT_EQ(inUse, 0);
    }
}

TEST(HXLFixedMemoryPool, RandomUseKeepsElementsApartAndIntact) {
    std::mt19937 rng(9);
    for (int headers = 0; headers < 2; ++headers) {
        HXLFixedMemoryPool pool(40, 1, headers);
        HeapModel model;
        for (int step = 0; step < 20000; ++step) {
            if (model.count() > 0 && rng() % 5 < 2) {
                void* p = model.at(rng() % model.count());
                model.remove(p);
                pool.free(p);
            } else {
                model.add(pool.alloc(), 40);
            }
            if (::testing::Test::HasFatalFailure())
                return;
        }
    }
}

TEST(HXLFixedMemoryPool, DamagedHeadersAreReported) {
    HXLFixedMemoryPool pool(8, 1, 1);
    pool.setDetectMemoryOverWrites(7);
    pool.setAbortProcessOnMemoryOverWrites(9);
    EXPECT_EQ(pool.getDetectMemoryOverWrites(), 1);
    EXPECT_EQ(pool.getAbortProcessOnMemoryOverWrites(), 1);
    pool.setAbortProcessOnMemoryOverWrites(0);

    unsigned char* p0 = b(pool.alloc());
    unsigned char* p1 = b(pool.alloc());
    unsigned char saved[8];
    std::memcpy(saved, p1 - 8, 8);

    // 12 bytes reach only the next element's size: no report without the abort flag.
    std::memset(p0, 0x41, 12);
    EXPECT_NO_THROW(pool.free(pool.alloc()));
    EXPECT_NO_THROW(pool.checkForMemoryOverWrite());

    // 16 bytes reach its filler: every scanning operation reports it.
    std::memset(p0, 0x41, 16);
    for (int op = 0; op < 4; ++op) {
        try {
            if (op == 0)
                pool.alloc();
            else if (op == 1)
                pool.free(nullptr);
            else if (op == 2)
                pool.info(nullptr, nullptr, nullptr, nullptr);
            else
                HXLFixedMemoryPool::allocSize(p1);
            ADD_FAILURE() << "operation " << op << " missed the damage";
        } catch (const HXLAssertError& e) {
            EXPECT_STREQ(e.what(), kFillerAssert);
        }
    }
    // Without detection the short test still guards the element given to free, which stays
    // in use.
    pool.setDetectMemoryOverWrites(0);
    EXPECT_THROW(pool.free(p1), HXLAssertError);
    std::memcpy(p1 - 8, saved, 8);
    EXPECT_EQ(p1[-2], 1);
    pool.setDetectMemoryOverWrites(1);
    EXPECT_NO_THROW(pool.free(p1));
}

TEST(HXLFixedMemoryPoolDeathTest, AbortFlagEndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    auto damaged = [](int bytes, int detect) {
        HXLFixedMemoryPool pool(8, 1, 1);
        pool.setDetectMemoryOverWrites(detect);
        pool.setAbortProcessOnMemoryOverWrites(1);
        unsigned char* p0 = b(pool.alloc());
        void* p1 = pool.alloc();
        std::memset(p0, 0x41, static_cast<std::size_t>(bytes));
        try {
            pool.free(p1);
        } catch (...) {
        }
    };
    EXPECT_EXIT(damaged(16, 1), testing::KilledBySignal(SIGABRT), "");
    EXPECT_EXIT(damaged(12, 1), testing::KilledBySignal(SIGABRT), "")
        << "a wrong size alone aborts in a scan";
    EXPECT_EXIT(damaged(16, 0), testing::KilledBySignal(SIGABRT), "")
        << "the short test obeys the abort flag";
}
