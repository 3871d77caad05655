#include "HXLCore.h"
#include "HXLFixedMemoryPool.h"

#include <gmock/gmock.h>

#include <csignal>
#include <cstdint>
#include <cstring>
#include <vector>

namespace {

unsigned char* b(void* p) {
    return static_cast<unsigned char*>(p);
}

} // namespace

TEST(HXLFixedMemoryPool, StrideCapacityLinksAndRefusedSizes) {
    // size, header mode, stride, elements per chunk
    const unsigned int rows[][4] = {
        {0, 1, 32, 1023}, {9, 0, 16, 2047}, {32744, 1, 0, 1}, {32752, 0, 0, 1}};
    for (const auto& row : rows) {
        HXLFixedMemoryPool pool(row[0], 2, static_cast<int>(row[1]));
        EXPECT_EQ(pool.alloc(), nullptr) << "expandable 2 is not expandable";
        pool.grow(nullptr);
        std::vector<unsigned char*> got;
        while (unsigned char* p = b(pool.alloc()))
            got.push_back(p);
        ASSERT_EQ(got.size(), row[3]) << "size " << row[0];
        EXPECT_EQ(got.size() > 1 ? got[1] - got[0] : 0, row[2]);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(got[0]) % 16, row[1] ? 8u : 0u);
    }
    EXPECT_EQ(HXLFixedMemoryPool::allocSize(HXLFixedMemoryPool(0, 3, 1).alloc()), 16u)
        << "expandable 3 is; size 0 stands for 16";
    HXLFixedMemoryPool pool(8, 1, 1);
    unsigned char* e0 = b(pool.alloc());
    unsigned char* e1 = b(pool.alloc());
    pool.free(e1);
    void* link = nullptr;
    std::memcpy(&link, e1, sizeof link);
    EXPECT_EQ(link, e0 + 32) << "the free list runs through the caller's first 8 bytes";
    EXPECT_EQ(pool.alloc(), e1) << "last in, first out";
    for (unsigned int size : {32745u, 0xFFFFFFF8u})
        EXPECT_THAT([&] { HXLFixedMemoryPool(size, 1, 1); },
                    testing::ThrowsMessage<HXLAssertError>(testing::StrEq(
                        "HXL_ASSERT_NAMED(m_esize <= Chunk::size, \"Specified size for "
                        "HXLFixedMemoryPool is too large.\");")));
}

TEST(HXLFixedMemoryPool, ReclaimAndTrimTakeOnlyWhollyFreeChunks) {
    void* c[3]; // chunks Z, Y and X in the order grown; X, the newest, gets an element in use
    HXLFixedMemoryPool pool(8, 0, 1);
    for (void*& chunk : c)
        pool.grow(chunk = ::operator new(0x8000));
    pool.alloc();
    EXPECT_EQ(pool.reclaim(1), c[0]) << "passes X and skips Y";
    ::operator delete(c[0]);
    EXPECT_EQ(pool.trim(0), 32768u) << "Y alone";
    HXLFixedMemoryPool one(8, 0, 1);
    one.grow(nullptr);
    ::operator delete(one.reclaim(0));
    EXPECT_EQ(one.alloc(), nullptr) << "the reclaimed current chunk is forgotten";
}

// Damage reaching a filler is reported by assertion, or ends the process under the abort flag.
TEST(HXLFixedMemoryPoolDeathTest, DamagedHeadersAreReported) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto hit =
        testing::ThrowsMessage<HXLAssertError>(testing::StrEq("HXL_ASSERT(rh->m_filler3 == 0xE);"));
    HXLFixedMemoryPool pool(8, 1, 1);
    pool.setDetectMemoryOverWrites(7); // any value but 0 turns it on
    unsigned char* p0 = b(pool.alloc());
    unsigned char* p1 = b(pool.alloc());
    std::memset(p0, 0x41, 12); // reaches only the next element's size: not reported
    EXPECT_NO_THROW(pool.free(pool.alloc()));
    std::memset(p0, 0x41, 16); // reaches its filler too
    EXPECT_THAT([&] { pool.alloc(); }, hit);
    pool.setDetectMemoryOverWrites(0);
    EXPECT_THAT([&] { pool.free(p1); }, hit) << "the short test needs no detection";
    EXPECT_EQ(p1[-2], 0x41) << "a refused free changes nothing";
    HXLFixedMemoryPool fresh(8, 1, 1); // an element freed twice is refused, or aborts
    unsigned char* e = b(fresh.alloc());
    fresh.free(e);
    EXPECT_THAT([&] { fresh.free(e); },
                testing::ThrowsMessage<HXLAssertError>(
                    testing::StrEq("HXL_ASSERT_NAMED(rh->m_inUse != 0, \"Element freed twice in "
                                   "HXLFixedMemoryPool::free\");")));
    EXPECT_EQ(fresh.alloc(), e);
    EXPECT_NE(fresh.alloc(), e) << "it was linked once";
    fresh.free(e);
    fresh.setAbortProcessOnMemoryOverWrites(1);
    EXPECT_EXIT(fresh.free(e), testing::KilledBySignal(SIGABRT), "");
    for (int damage : {16, 12, -16}) { // a filler, a size alone, a filler without detection
        HXLFixedMemoryPool doomed(8, 1, 1);
        doomed.setDetectMemoryOverWrites(damage > 0);
        doomed.setAbortProcessOnMemoryOverWrites(2);
        std::memset(doomed.alloc(), 0x41, static_cast<std::size_t>(damage < 0 ? -damage : damage));
        EXPECT_EXIT(doomed.alloc(), testing::KilledBySignal(SIGABRT), "") << damage;
    }
}
