// The paging engine: its model (in fuzz/virtualmm_fuzz.cpp) on seeded programs, the fingerprint
// that checks what comes back from the page file, a private page file that gives its space back,
// and unchanged spans that are never rewritten while scans read ahead.
#include "../platform/virtualmm/Fingerprint.h"
#include "store_test_util.h"

#include <sys/stat.h>

using tcmalloc::PageItem;
using tcmalloc::VirtualMemoryPool;
using tcmalloc::VirtualMemoryStats;

namespace {

const unsigned long long kBudget = 64 * 1024;

// `count` new objects of `size` bytes, the i-th filled from seed i, none held.
std::vector<unsigned long long> newObjects(VirtualMemoryPool& pool, unsigned count, size_t size) {
    std::vector<unsigned long long> offsets(count);
    for (unsigned i = 0; i < count; ++i) {
        PageItem item;
        void* address = pool.Allocate(size, item);
        EXPECT_NE(address, nullptr); // the model checks the alignment
        fill(address, size, i);
        pool.Dismiss(item);
        offsets[i] = item.offset;
    }
    return offsets;
}

// 1: mapped with the right bytes; 0: null; -1: mapped with wrong bytes.
int readBack(VirtualMemoryPool& pool, unsigned long long offset, size_t size, unsigned seed,
             bool forWriting = true) {
    PageItem item{offset};
    void* address = pool.GetAddress(item, forWriting);
    if (address == nullptr)
        return 0;
    const bool ok = holds(address, size, seed);
    pool.Dismiss(item);
    return ok ? 1 : -1;
}

} // namespace

TEST(Fingerprint, BothRoundsAgreeAndEveryWordCounts) {
    std::vector<unsigned char> block(8192);
    fill(block.data(), block.size(), 5);
    const std::uint64_t whole = tcmalloc::fingerprint(block.data(), 8192);
    EXPECT_NE(tcmalloc::fingerprint(block.data(), 0), whole);
    // The plain rounds and the vector ones this CPU has agree, so the value is the same on every
    // machine.
    std::uint64_t plain[16], avx2[16], avx512[16];
    for (std::uint64_t i = 0; i < 16; ++i)
        plain[i] = avx2[i] = avx512[i] = i + 1;
    tcmalloc::detail::fingerprintBlocks(plain, block.data(), 64);
    (tcmalloc::detail::fingerprintHasAvx2()
         ? tcmalloc::detail::fingerprintBlocksAvx2
         : tcmalloc::detail::fingerprintBlocks)(avx2, block.data(), 64);
    (tcmalloc::detail::fingerprintHasAvx512()
         ? tcmalloc::detail::fingerprintBlocksAvx512
         : tcmalloc::detail::fingerprintBlocks)(avx512, block.data(), 64);
    EXPECT_EQ(0, std::memcmp(plain, avx2, sizeof(plain)));
    EXPECT_EQ(0, std::memcmp(plain, avx512, sizeof(plain)));
    // One bit, or the same bit of two words of one lane (which must not cancel), changed.
    for (size_t at = 0; at + 128 < block.size(); at += 8 * 61 + 1) {
        for (size_t other : {at, at + 128}) {
            block[other] ^= 0x80;
            EXPECT_NE(tcmalloc::fingerprint(block.data(), 8192), whole) << at;
        }
        block[at] ^= 0x80;
        block[at + 128] ^= 0x80;
    }
}

TEST(VirtualMemoryPoolModel, RandomProgramsAgree) {
    runModel(60, 6000);
}

TEST(VirtualMemoryPool, UnchangedSpansAreNeverRewrittenAndScansReadAhead) {
    VirtualMemoryPool pool(4 * kBudget, "/tmp"); // read-ahead runs of 8 spans
    // 128 spans, four times the budget
    const std::vector<unsigned long long> offsets = newObjects(pool, 256, 4000);
    unsigned long long mostReadAtOnce = 0;
    auto pass = [&](bool forWriting, unsigned skip) {
        for (unsigned i = 0; i < offsets.size(); ++i) {
            const unsigned long long before = poolStats(pool).pageReads;
            EXPECT_TRUE(i == skip || readBack(pool, offsets[i], 4000, i, forWriting) == 1) << i;
            mostReadAtOnce = std::max(mostReadAtOnce, poolStats(pool).pageReads - before);
        }
    };
    pass(true, ~0u); // writes out what was still resident since it was made
    const VirtualMemoryStats before = poolStats(pool);
    pass(true, ~0u);
    pass(false, ~0u);
    const VirtualMemoryStats after = poolStats(pool);
    EXPECT_EQ(after.pageWrites, before.pageWrites) << "not a byte changed";
    EXPECT_GT(after.pageDrops, before.pageDrops);
    EXPECT_GT(mostReadAtOnce, 1u) << "no read-ahead on a pass in file order";

    // A byte changed through a mapping for reading is kept with Dirty, and written once when the
    // span leaves. (A pinned span that read-ahead meets is the model's case.)
    PageItem held{offsets[20]};
    static_cast<unsigned char*>(pool.GetAddress(held, false))[7] ^= 1;
    pool.Dirty(held);
    pool.Dismiss(held);
    pass(true, 20);
    EXPECT_EQ(readBack(pool, offsets[20], 4000, 20), -1) << "the changed byte is lost";
    EXPECT_EQ(poolStats(pool).pageWrites, after.pageWrites + 1);
    pool.Verify();
}

// Pinned objects may hold the store beyond its span memory, which is sized to the budget: what
// does not fit comes from the heap, holds the same bytes through paging, and goes back to it.
// The page file, made at the first page-out, is private, has no name, and gives the space of
// freed objects back.
TEST(VirtualMemoryPool, PinnedBeyondSpanMemoryAndAPrivatePageFileThatGivesSpaceBack) {
    VirtualMemoryPool pool(kBudget, "/tmp");
    std::vector<PageItem> held(48); // 3 MiB, the memory of a 64 KiB budget is 2 MiB
    for (unsigned i = 0; i < held.size(); ++i) {
        void* address = pool.Allocate(65536, held[i]);
        ASSERT_NE(address, nullptr) << i;
        fill(address, 65536, i);
    }
    EXPECT_EQ(poolStats(pool).residentBytes, held.size() * 65536);
    EXPECT_EQ(poolStats(pool).pageFileSize, 0u); // nothing could leave memory yet
    pool.Verify();
    for (PageItem& item : held)
        pool.Dismiss(item);
    // Each allocation above found every span pinned; letting go makes the store page again.
    EXPECT_LE(poolStats(pool).residentBytes, kBudget);
    for (unsigned round = 0; round < 2; ++round)
        for (unsigned i = 0; i < held.size(); ++i)
            EXPECT_EQ(readBack(pool, held[i].offset, 65536, i), 1) << i;
    const VirtualMemoryStats figures = poolStats(pool);
    const std::string name = figures.pageFileName;
    const std::string link = "/proc/self/fd/" + std::to_string(pageFileDescriptor(name));
    struct stat st, holed;
    ASSERT_EQ(::stat(link.c_str(), &st), 0) << name;
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    EXPECT_EQ(st.st_nlink, 0u) << "the page file's name must be gone at once";
    EXPECT_EQ(static_cast<unsigned long long>(st.st_size), figures.pageFileSize);
    // Every other object freed: its space goes back to the file system. All freed: the file is
    // cut to nothing.
    for (unsigned half = 0; half < 2; ++half) {
        for (unsigned i = half; i < held.size(); i += 2)
            pool.Deallocate(held[i]);
        ASSERT_EQ(::stat(link.c_str(), &holed), 0);
        EXPECT_LT(holed.st_blocks, half == 0 ? st.st_blocks * 6 / 10 : 1);
    }
    EXPECT_EQ(holed.st_size, 0);
    EXPECT_EQ(poolStats(pool).pageFileSize, 0u);
    pool.Verify();
}
