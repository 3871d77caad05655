#include "HXLCore.h"
#include "HXLFixedMemoryPool.h"

#include <gmock/gmock.h>

#include <csignal>
#include <cstdint>
#include <cstring>

namespace {

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
    // size, header mode, stride (0: one element per chunk), elements per chunk (0: refused)
    const unsigned int rows[][4] = {{0, 1, 32, 1023},      {0, 0, 16, 2047},  {9, 1, 32, 1023},
                                    {9, 0, 16, 2047},      {24, 0, 32, 1023}, {32744, 1, 0, 1},
                                    {32752, 0, 0, 1},      {32745, 1, 0, 0},  {32753, 0, 0, 0},
                                    {0xFFFFFFF8u, 1, 0, 0}};
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << "size " << row[0] << " headers " << row[1]);
        const int headers = static_cast<int>(row[1]);
        if (row[3] == 0) {
            EXPECT_THAT([&] { HXLFixedMemoryPool(row[0], 1, headers); },
                        testing::ThrowsMessage<HXLAssertError>(testing::StrEq(
                            "HXL_ASSERT_NAMED(m_esize <= Chunk::size, \"Specified size for "
                            "HXLFixedMemoryPool is too large.\");")));
            continue;
        }
        HXLFixedMemoryPool pool(row[0], 2, headers);
        EXPECT_EQ(pool.alloc(), nullptr) << "expandable 2 is not expandable";
        pool.grow(nullptr);
        unsigned char* first = b(pool.alloc());
        unsigned char* second = b(pool.alloc());
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(first) % 16, headers ? 8u : 0u);
        if (headers) {
            EXPECT_EQ(HXLFixedMemoryPool::allocSize(first), row[0] == 0 ? 16u : row[0]);
        }
        EXPECT_EQ(second == nullptr ? 0 : second - first, row[2]);
        EXPECT_EQ(drain(pool) + 1 + (second != nullptr), static_cast<int>(row[3]));
    }
    EXPECT_NE(HXLFixedMemoryPool(0, 3, 1).alloc(), nullptr) << "expandable 3 is";
}

TEST(HXLFixedMemoryPool, HeadersLinksAndChunksLieWhereTheLayoutSays) {
    HXLFixedMemoryPool pool(8, 1, 1);
    unsigned char* e0 = b(pool.alloc());
    unsigned char* e1 = b(pool.alloc());
    EXPECT_EQ(readAt<std::uint64_t>(e0 - 8), 0x0E01000000000008ull) << "size 8, offset 0, in use";
    EXPECT_EQ(readAt<std::uint64_t>(e1 - 8), 0x0E01001000000008ull) << "offset 16";
    EXPECT_EQ(readAt<void*>(e0 - 8 + 0x7FF8), e0 + 32) << "m_free names element 2";
    pool.free(e1);
    EXPECT_EQ(e1[-2], 0);
    EXPECT_EQ(readAt<void*>(e1), e0 + 32) << "the link lies in the caller's first 8 bytes";
    EXPECT_EQ(pool.alloc(), e1) << "last in, first out";
    for (int i = 2; i < 2047; ++i)
        pool.alloc();
    EXPECT_EQ(readAt<void*>(e0 - 8 + 0x7FF8), nullptr);
    EXPECT_EQ(readAt<void*>(b(pool.alloc()) - 8 + 0x7FF0), e0 - 8) << "new chunks go first";
}

TEST(HXLFixedMemoryPool, ReclaimAndTrimTakeOnlyWhollyFreeChunks) {
    // Chunks X (newest, one element in use), Y and Z (wholly free): reclaim(skip) and trim(limit).
    // Per row: the argument, the index in c of the chunk reclaimed (-1: none), the bytes trimmed.
    const int rows[][3] = {{-1, -1, 0}, {0, 1, 65536}, {1, 0, 32768}, {2, -1, 65536}};
    for (const auto& row : rows) {
        void* c[3]; // Z, Y, X in the order grown
        HXLFixedMemoryPool pool(8, 0, 1), trimmed(8, 0, 1);
        for (void*& chunk : c) {
            pool.grow(chunk = ::operator new(0x8000));
            trimmed.grow(nullptr);
        }
        pool.alloc();
        trimmed.alloc();
        void* got = pool.reclaim(row[0]);
        EXPECT_EQ(got, row[1] < 0 ? nullptr : c[row[1]]) << "reclaim(" << row[0] << ")";
        EXPECT_EQ(trimmed.trim(row[0]), static_cast<unsigned int>(row[2]));
        ::operator delete(got);
    }
    HXLFixedMemoryPool one(8, 0, 1);
    one.grow(nullptr);
    ::operator delete(one.reclaim(0));
    EXPECT_EQ(one.alloc(), nullptr) << "the reclaimed current chunk is forgotten";
}

TEST(HXLFixedMemoryPool, DamagedHeadersAreReported) {
    HXLFixedMemoryPool pool(8, 1, 1);
    pool.setDetectMemoryOverWrites(7);
    EXPECT_EQ(pool.getDetectMemoryOverWrites(), 1);
    unsigned char* p0 = b(pool.alloc());
    unsigned char* p1 = b(pool.alloc());
    std::memset(p0, 0x41, 12); // reaches only the next element's size: not reported
    EXPECT_NO_THROW(pool.free(pool.alloc()));
    std::memset(p0, 0x41, 16); // reaches its filler too
    const auto hit =
        testing::ThrowsMessage<HXLAssertError>(testing::StrEq("HXL_ASSERT(rh->m_filler3 == 0xE);"));
    EXPECT_THAT([&] { pool.alloc(); }, hit);
    EXPECT_THAT([&] { pool.free(nullptr); }, hit);
    EXPECT_THAT([&] { HXLFixedMemoryPool::allocSize(p1); }, hit);
    pool.setDetectMemoryOverWrites(0);
    EXPECT_THAT([&] { pool.free(p1); }, hit) << "the short test needs no detection";
    EXPECT_EQ(p1[-2], 0x41) << "a refused free changes nothing";
}

TEST(HXLFixedMemoryPoolDeathTest, AbortFlagEndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    for (int damage : {16, 12, -16}) { // a filler, a size alone, a filler without detection
        HXLFixedMemoryPool pool(8, 1, 1);
        pool.setDetectMemoryOverWrites(damage > 0);
        pool.setAbortProcessOnMemoryOverWrites(2);
        std::memset(pool.alloc(), 0x41, static_cast<std::size_t>(damage < 0 ? -damage : damage));
        EXPECT_EXIT(pool.alloc(), testing::KilledBySignal(SIGABRT), "") << damage;
    }
}
