#include "HXLCore.h"
#include "HXLFixedMemoryPool.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdint>
#include <cstring>

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
int drain(HXLFixedMemoryPool& pool) {
    int served = 0;
    while (pool.alloc() != nullptr)
        ++served;
    return served;
}

} // namespace

TEST(HXLFixedMemoryPool, StrideCapacityAndRefusedSizes) {
    // size, header mode, stride (0: one element per chunk), elements per chunk
    const int rows[][4] = {{0, 1, 32, 1023},  {0, 0, 16, 2047}, {9, 1, 32, 1023}, {9, 0, 16, 2047},
                           {24, 0, 32, 1023}, {32744, 1, 0, 1}, {32752, 0, 0, 1}};
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << "size " << row[0] << " headers " << row[1]);
        HXLFixedMemoryPool pool(static_cast<unsigned int>(row[0]), 2, row[1]);
        EXPECT_EQ(pool.alloc(), nullptr) << "expandable 2 is not expandable";
        pool.grow(nullptr);
        void* first = pool.alloc();
        void* second = pool.alloc();
        EXPECT_EQ(u(first) % 16, row[1] ? 8u : 0u);
        EXPECT_EQ(row[2] == 0 ? 0 : u(second) - u(first), static_cast<std::uintptr_t>(row[2]));
        EXPECT_EQ(drain(pool) + 1 + (second != nullptr), row[3]);
    }
    EXPECT_EQ(HXLFixedMemoryPool::allocSize(HXLFixedMemoryPool(0, 3, 1).alloc()), 16u);
    for (unsigned int size : {32745u, 0xFFFFFFF8u}) {
        try {
            HXLFixedMemoryPool pool(size, 1, 1);
            ADD_FAILURE() << size << " accepted";
        } catch (const HXLAssertError& e) {
            EXPECT_STREQ(e.what(), "HXL_ASSERT_NAMED(m_esize <= Chunk::size, \"Specified size for "
                                   "HXLFixedMemoryPool is too large.\");");
        }
    }
    EXPECT_THROW(HXLFixedMemoryPool(32753, 1, 0), HXLAssertError);
}

TEST(HXLFixedMemoryPool, HeadersLinksAndChunkFieldsLieWhereTheLayoutSays) {
    HXLFixedMemoryPool pool(8, 1, 1);
    unsigned char* e0 = b(pool.alloc());
    unsigned char* chunk1 = e0 - 8;
    EXPECT_EQ(readAt<std::uint64_t>(chunk1), 0x0E01000000000008ull) << "size 8, offset 0";
    unsigned char* e1 = b(pool.alloc());
    EXPECT_EQ(readAt<std::uint64_t>(e1 - 8), 0x0E01001000000008ull) << "offset 16";
    EXPECT_EQ(readAt<void*>(chunk1 + 0x7FF8), e0 + 32) << "m_free names element 2";
    pool.free(e1);
    EXPECT_EQ(e1[-2], 0);
    EXPECT_EQ(readAt<void*>(e1), e0 + 32) << "the link lies in the caller's first 8 bytes";
    EXPECT_EQ(pool.alloc(), e1) << "last in, first out";

    for (int i = 2; i < 2047; ++i)
        pool.alloc();
    EXPECT_EQ(readAt<void*>(chunk1 + 0x7FF8), nullptr);
    unsigned char* chunk2 = b(pool.alloc()) - 8;
    EXPECT_EQ(readAt<void*>(chunk2 + 0x7FF0), chunk1) << "a new chunk goes to the head";
    pool.free(chunk2 + 8);
    EXPECT_EQ(pool.reclaim(0), chunk2);
    ::operator delete(chunk2);

    // The current chunk is served until it runs dry, even after the walk has moved on.
    HXLFixedMemoryPool big(8000, 0, 1); // 4 elements of stride 8016 per chunk
    big.grow(nullptr);
    big.grow(nullptr);
    unsigned char* inB[4];
    for (auto& p : inB)
        p = b(big.alloc());
    big.free(inB[1]);
    EXPECT_EQ(big.alloc(), inB[1]) << "B stayed current after its last element went out";
    unsigned char* a0 = b(big.alloc());
    big.free(inB[2]);
    EXPECT_EQ(big.alloc(), a0 + 8016) << "free does not make its chunk current";
}

TEST(HXLFixedMemoryPool, ReclaimAndTrimTakeOnlyWhollyFreeChunks) {
    void* c[3]; // X (newest, one element in use), Y and Z (wholly free)
    auto build = [&c](HXLFixedMemoryPool& pool) {
        for (int i = 2; i >= 0; --i)
            pool.grow(c[i] = ::operator new(0x8000));
        pool.alloc();
    };
    HXLFixedMemoryPool pool(8, 0, 1);
    build(pool);
    EXPECT_EQ(pool.reclaim(2), nullptr);
    int count = 0, inUse = 9;
    pool.info(nullptr, nullptr, nullptr, &inUse);
    EXPECT_EQ(inUse, 0) << "counted only with chunkCount";
    pool.info(nullptr, &count, nullptr, &inUse);
    EXPECT_EQ(count * 10 + inUse, 31);
    EXPECT_EQ(pool.reclaim(1), c[2]);
    EXPECT_EQ(pool.reclaim(0), c[1]);
    ::operator delete(c[2]);
    std::memset(c[1], 0xFF, 0x8000); // any bytes, another size: carved afresh
    HXLFixedMemoryPool other(100, 0, 1);
    other.grow(c[1]);
    EXPECT_EQ(HXLFixedMemoryPool::allocSize(other.alloc()), 100u);
    EXPECT_EQ(drain(other), 291);

    for (int limit : {-1, 1, 0}) {
        HXLFixedMemoryPool trimmed(8, 0, 1);
        build(trimmed);
        EXPECT_EQ(trimmed.trim(limit), limit < 0 ? 0u : limit == 1 ? 32768u : 65536u);
        if (limit == 1) {
            EXPECT_EQ(trimmed.reclaim(0), c[2]) << "Y went first, Z stayed";
            ::operator delete(c[2]);
        }
    }
    HXLFixedMemoryPool one(8, 0, 1); // reclaiming the current chunk clears it
    one.grow(nullptr);
    void* chunk = one.reclaim(0);
    EXPECT_EQ(one.alloc(), nullptr);
    ::operator delete(chunk);
    HXLFixedMemoryPool plain(8, 1, 0);
    plain.free(plain.alloc());
    EXPECT_EQ(plain.reclaim(0), nullptr);
    EXPECT_EQ(plain.trim(0), 0u);
}

TEST(HXLFixedMemoryPool, DamagedHeadersAreReported) {
    HXLFixedMemoryPool pool(8, 1, 1);
    pool.setDetectMemoryOverWrites(7);
    EXPECT_EQ(pool.getDetectMemoryOverWrites(), 1);
    unsigned char* p0 = b(pool.alloc());
    unsigned char* p1 = b(pool.alloc());
    unsigned char saved[8];
    std::memcpy(saved, p1 - 8, 8);
    std::memset(p0, 0x41, 12); // reaches only the next element's size: not reported
    EXPECT_NO_THROW(pool.free(pool.alloc()));
    std::memset(p0, 0x41, 16); // reaches its filler
    for (int op = 0; op < 3; ++op) {
        try {
            op == 0 ? (void)pool.alloc() : op == 1 ? pool.free(nullptr) : (void)pool.allocSize(p1);
            ADD_FAILURE() << "operation " << op << " missed the damage";
        } catch (const HXLAssertError& e) {
            EXPECT_STREQ(e.what(), "HXL_ASSERT(rh->m_filler3 == 0xE);");
        }
    }
    pool.setDetectMemoryOverWrites(0);
    EXPECT_THROW(pool.free(p1), HXLAssertError) << "the short test needs no detection";
    std::memcpy(p1 - 8, saved, 8);
    EXPECT_EQ(p1[-2], 1) << "the element stayed in use";
}

TEST(HXLFixedMemoryPoolDeathTest, AbortFlagEndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    auto damage = [](int bytes, int detect) {
        HXLFixedMemoryPool pool(8, 1, 1);
        pool.setDetectMemoryOverWrites(detect);
        pool.setAbortProcessOnMemoryOverWrites(2);
        std::memset(pool.alloc(), 0x41, static_cast<std::size_t>(bytes));
        pool.alloc();
    };
    EXPECT_EXIT(damage(16, 1), testing::KilledBySignal(SIGABRT), "");
    EXPECT_EXIT(damage(12, 1), testing::KilledBySignal(SIGABRT), "") << "a wrong size alone";
    EXPECT_EXIT(damage(16, 0), testing::KilledBySignal(SIGABRT), "") << "the short test";
}
