// The paging engine against a model: bytes survive paging, pinned objects stay put, counts are
// exact, unchanged spans are never rewritten, I/O failures and a damaged page file give null
// and never wrong bytes, misuse leaves the store intact.
#include "../platform/virtualmm/Fingerprint.h"
#include "VirtualMemoryFastPath.h"
#include "VirtualMemoryPool.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <map>
#include <random>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

using tcmalloc::PageItem;
using tcmalloc::VirtualMemoryPool;
using tcmalloc::VirtualMemoryStats;

namespace {

const unsigned long long kBudget = 64 * 1024;

// A scratch directory for page files, removed at the end of the test.
struct ScratchDir {
    std::string path;
    ScratchDir() {
        char name[] = "/tmp/hxlvmm-test-XXXXXX";
        path = ::mkdtemp(name);
    }
    ~ScratchDir() {
        if (::rmdir(path.c_str()) != 0)
            ADD_FAILURE() << "something was left in " << path;
    }
};

VirtualMemoryStats stats(VirtualMemoryPool& pool) {
    unsigned long long needed = 0;
    pool.ExtractStats(nullptr, 0, needed);
    std::vector<unsigned char> block(needed);
    pool.ExtractStats(reinterpret_cast<VirtualMemoryStats*>(block.data()), needed, needed);
    VirtualMemoryStats head;
    std::memcpy(&head, block.data(), VirtualMemoryStats::kFixedPoolsOffset);
    return head;
}

void fill(void* address, size_t size, unsigned seed) {
    unsigned char* p = static_cast<unsigned char*>(address);
    for (size_t i = 0; i < size; ++i)
        p[i] = static_cast<unsigned char>(seed * 131 + i * 7 + (i >> 8));
}

bool holds(const void* address, size_t size, unsigned seed) {
    std::vector<unsigned char> expected(size);
    fill(expected.data(), size, seed);
    return size == 0 || std::memcmp(address, expected.data(), size) == 0;
}

unsigned long long newObject(VirtualMemoryPool& pool, size_t size, unsigned seed) {
    PageItem item;
    void* address = pool.Allocate(size, item);
    EXPECT_NE(address, nullptr);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(address) % 16, 0u);
    fill(address, size, seed);
    pool.Dismiss(item);
    return item.offset;
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

// The open descriptor, in this process, of the page file the statistics name.
std::string pageFileLink(VirtualMemoryPool& pool) {
    const std::string name = stats(pool).pageFileName;
    std::string found;
    DIR* fds = ::opendir("/proc/self/fd");
    while (dirent* entry = ::readdir(fds)) {
        char target[512] = {};
        const std::string link = std::string("/proc/self/fd/") + entry->d_name;
        if (!name.empty() && ::readlink(link.c_str(), target, sizeof(target) - 1) > 0 &&
            std::string(target).find(name) == 0)
            found = link;
    }
    ::closedir(fds);
    return found;
}

struct ModelObject {
    size_t size;
    unsigned seed, pins;
    void* pinnedAt;
};

} // namespace

TEST(Fingerprint, FixedValuesAndEveryWordCounts) {
    std::vector<unsigned char> block(8192);
    fill(block.data(), block.size(), 5);
    EXPECT_EQ(tcmalloc::fingerprint(block.data(), 0), 0x6ffbf51e1e562ef3ULL);
    EXPECT_EQ(tcmalloc::fingerprint(block.data(), 8192), 0x49567e29c9ada792ULL);
    // The plain rounds and the AVX2 ones agree, so the value is the same on every machine.
    std::uint64_t plain[8] = {1, 2, 3, 4, 5, 6, 7, 8}, wide[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    tcmalloc::detail::fingerprintBlocks(plain, block.data(), 128);
    if (tcmalloc::detail::fingerprintHasAvx2())
        tcmalloc::detail::fingerprintBlocksAvx2(wide, block.data(), 128);
    else
        tcmalloc::detail::fingerprintBlocks(wide, block.data(), 128);
    EXPECT_EQ(0, std::memcmp(plain, wide, sizeof(plain)));
    // One bit, or the same bit of two words of one lane (which must not cancel), changed.
    for (size_t at = 0; at + 64 < block.size(); at += 8 * 61 + 1) {
        for (size_t other : {at, at + 64}) {
            block[other] ^= 0x80;
            EXPECT_NE(tcmalloc::fingerprint(block.data(), 8192), 0x49567e29c9ada792ULL) << at;
        }
        block[at] ^= 0x80;
        block[at + 64] ^= 0x80;
    }
}

// Budgets and object sizes: a small store of mixed sizes, and many small objects in few-slot
// spans so that most spans are paged out with live, free and pinned slots.
class VirtualMemoryPoolModel : public ::testing::TestWithParam<std::pair<unsigned, unsigned>> {};

TEST_P(VirtualMemoryPoolModel, RandomOperationsAgreeWithModel) {
    const unsigned long long budget = GetParam().first;
    const unsigned maxSmall = GetParam().second;
    ScratchDir dir;
    VirtualMemoryPool pool(budget, dir.path.c_str());
    std::mt19937 random(20261123);
    std::map<unsigned long long, ModelObject> model;
    unsigned long long pinned = 0;
    unsigned nextSeed = 1;

    // Hits go at random through the published fast path (which may decline and leave the
    // call to the plain one) or the plain calls alone: both meet the same store.
    tcmalloc::FastTable* table = tcmalloc_VirtualMemoryPool_FastTable(&pool);
    ASSERT_NE(table, nullptr);
    unsigned fastHits = 0, fastMoves = 0;
    auto map = [&](PageItem& item, bool forWriting) {
        void* address = random() % 2 ? tcmalloc::fastMap(*table, item.offset, forWriting) : nullptr;
        fastHits += address != nullptr;
        return address != nullptr ? address : pool.GetAddress(item, forWriting);
    };
    auto unmap = [&](PageItem& item) {
        if (random() % 2 != 0 && tcmalloc::fastDismiss(*table, item.offset))
            ++fastHits;
        else
            pool.Dismiss(item);
    };
    auto pick = [&] { return std::next(model.begin(), random() % model.size()); };
    auto add = [&](size_t size) {
        const unsigned seed = nextSeed++;
        const unsigned long long offset = newObject(pool, size, seed);
        ASSERT_TRUE(offset != 0 && offset != ~0ULL && model.count(offset) == 0) << offset;
        model[offset] = {size, seed, 0, nullptr};
    };

    add(5 * budget / 4); // one object larger than the whole budget
    for (int step = 0; step < 3000; ++step) {
        const unsigned op = random() % 100;
        auto it = pick(); // never empty: objects are removed only while there are 8 or more
        PageItem item{it->first};
        if (model.size() < 8 || op < 30) {
            const unsigned kind = random() % 10;
            add(kind < 6   ? 1 + random() % maxSmall
                : kind < 9 ? 1 + random() % 8192
                           : 8193 + random() % 24000);
        } else if (op < 38) { // move a reference from a held object to another, as a walk
            auto from = pick();
            while (from->second.pins == 0 && ++from != model.end()) {
            }
            if (from == model.end())
                continue;
            // Mostly to the next object, which often shares the span, as a list's next does.
            auto to = random() % 4 != 0 && std::next(from) != model.end() ? std::next(from) : it;
            PageItem fromItem{from->first}, toItem{to->first};
            void* address = tcmalloc::fastMove(*table, from->first, to->first, true);
            fastMoves += address != nullptr;
            if (address == nullptr) {
                address = pool.GetAddress(toItem, true);
                pool.Dismiss(fromItem);
            }
            ASSERT_NE(address, nullptr);
            ASSERT_TRUE(to->second.pins == 0 || address == to->second.pinnedAt);
            pinned += to->second.pins++ == 0;
            to->second.pinnedAt = address;
            pinned -= --from->second.pins == 0;
        } else if (op < 45) { // pin once, or past the range of a one-byte count and back
            const unsigned n = random() % 8 == 0 ? 300 : 1;
            for (unsigned i = 0; i < n; ++i) {
                void* address = map(item, true);
                ASSERT_NE(address, nullptr);
                if (it->second.pins++ > 0)
                    ASSERT_EQ(address, it->second.pinnedAt) << "a pinned object moved";
                else
                    ++pinned;
                it->second.pinnedAt = address;
            }
            for (unsigned i = n / 5; i > 0; --i, --it->second.pins)
                unmap(item);
        } else if (op < 65) { // unpin once or entirely
            for (unsigned n = random() % 2 ? 1 : it->second.pins; n > 0 && it->second.pins; --n) {
                unmap(item);
                pinned -= --it->second.pins == 0;
            }
        } else if (op < 75) { // rewrite in place through a fresh mapping
            void* address = map(item, true);
            ASSERT_NE(address, nullptr);
            it->second.seed = nextSeed++;
            fill(address, it->second.size, it->second.seed);
            unmap(item);
        } else if (op < 85) { // read only, through a mapping for reading
            ASSERT_EQ(readBack(pool, it->first, it->second.size, it->second.seed, false), 1);
        } else {
            pool.Deallocate(item);
            pinned -= it->second.pins > 0;
            model.erase(it);
        }
        pool.Verify();
        unsigned long long total = 0, modelTotal = 0;
        ASSERT_EQ(pool.GetOutstandingReferences(nullptr, 0, &total), pinned);
        for (const auto& entry : model)
            modelTotal += entry.second.pins;
        ASSERT_EQ(total, modelTotal);
        ASSERT_EQ(stats(pool).objectsCurrent, model.size());
        if (step % 10 == 0) { // in offset order: the page-ins read ahead
            for (const auto& entry : model) {
                PageItem item{entry.first};
                void* address = pool.GetAddress(item, true);
                ASSERT_NE(address, nullptr) << "step " << step;
                ASSERT_TRUE(entry.second.pins == 0 || address == entry.second.pinnedAt);
                ASSERT_TRUE(holds(address, entry.second.size, entry.second.seed))
                    << "step " << step << " offset " << entry.first;
                pool.Dismiss(item);
            }
        }
    }
    EXPECT_GT(fastHits, 100u); // both ways were taken
    EXPECT_GT(fastMoves, 10u);
    const VirtualMemoryStats figures = stats(pool);
    EXPECT_GT(figures.pageWrites, 100u);
    EXPECT_GT(figures.pageReads, 100u);
    EXPECT_GT(figures.pageDrops, 100u);
    EXPECT_GE(figures.pageFileSize, 4 * budget); // the store was many times its budget
    EXPECT_GE(figures.objectsCumulative, figures.objectsMax);

    // Once nothing is pinned the resident bytes are back within the budget.
    for (auto& entry : model) {
        PageItem item{entry.first};
        while (entry.second.pins-- > 0)
            pool.Dismiss(item);
    }
    EXPECT_EQ(pool.GetOutstandingReferences(nullptr, 0, nullptr), 0u);
    EXPECT_LE(stats(pool).residentBytes, budget);
    pool.Verify();
}

INSTANTIATE_TEST_SUITE_P(Stores, VirtualMemoryPoolModel,
                         ::testing::Values(std::make_pair(64u * 1024, 512u),
                                           std::make_pair(128u * 1024, 48u)));

TEST(VirtualMemoryPool, PageFileIsPrivateLeavesNoNameAndGivesSpaceBack) {
    ScratchDir dir;
    {
        VirtualMemoryPool pool(kBudget, dir.path.c_str());
        EXPECT_EQ(stats(pool).pageFileSize, 0u); // made lazily
        std::vector<unsigned long long> offsets;
        for (unsigned i = 0; i < 64; ++i)
            offsets.push_back(newObject(pool, 65536, i));
        const VirtualMemoryStats figures = stats(pool);
        const std::string name = figures.pageFileName, link = pageFileLink(pool);
        EXPECT_EQ(name.compare(0, dir.path.size(), dir.path), 0) << name;
        struct stat st;
        ASSERT_EQ(::stat(link.c_str(), &st), 0) << name;
        EXPECT_EQ(st.st_mode & 0777, 0600u);
        EXPECT_EQ(st.st_nlink, 0u) << "the page file's name must be gone at once";
        EXPECT_EQ(static_cast<unsigned long long>(st.st_size), figures.pageFileSize);
        // Every other object freed: its space goes back to the file system.
        for (unsigned i = 0; i < offsets.size(); i += 2) {
            PageItem item{offsets[i]};
            pool.Deallocate(item);
        }
        struct stat holed;
        ASSERT_EQ(::stat(link.c_str(), &holed), 0);
        EXPECT_LT(holed.st_blocks, st.st_blocks * 6 / 10);
        for (unsigned i = 1; i < offsets.size(); i += 2)
            EXPECT_EQ(readBack(pool, offsets[i], 65536, i), 1);
        // All freed: the file is cut to nothing.
        for (unsigned i = 1; i < offsets.size(); i += 2) {
            PageItem item{offsets[i]};
            pool.Deallocate(item);
        }
        ASSERT_EQ(::stat(link.c_str(), &st), 0);
        EXPECT_EQ(st.st_size, 0);
        EXPECT_EQ(stats(pool).pageFileSize, 0u);
        pool.Verify();
    }
}

TEST(VirtualMemoryPool, UnchangedSpansAreNeverRewrittenAndScansReadAhead) {
    ScratchDir dir;
    VirtualMemoryPool pool(4 * kBudget, dir.path.c_str()); // read-ahead runs of 8 spans
    std::vector<unsigned long long> offsets;
    for (unsigned i = 0; i < 256; ++i)
        offsets.push_back(newObject(pool, 4000, i)); // 128 spans, four times the budget
    unsigned long long mostReadAtOnce = 0;
    auto pass = [&](bool forWriting, unsigned skip) {
        for (unsigned i = 0; i < offsets.size(); ++i) {
            const unsigned long long before = stats(pool).pageReads;
            if (i != skip) {
                EXPECT_EQ(readBack(pool, offsets[i], 4000, i, forWriting), 1) << i;
            }
            mostReadAtOnce = std::max(mostReadAtOnce, stats(pool).pageReads - before);
        }
    };
    pass(true, ~0u); // writes out what was still resident since it was made
    const VirtualMemoryStats before = stats(pool);
    pass(true, ~0u);
    pass(false, ~0u);
    const VirtualMemoryStats after = stats(pool);
    EXPECT_EQ(after.pageWrites, before.pageWrites) << "not a byte changed";
    EXPECT_GT(after.pageDrops, before.pageDrops);
    EXPECT_GT(mostReadAtOnce, 1u) << "no read-ahead on a pass in file order";

    // A pinned span changed in memory, met by read-ahead: its bytes stay as they are, and the
    // one byte changed is written once, when it leaves.
    PageItem held{offsets[20]};
    unsigned char* p = static_cast<unsigned char*>(pool.GetAddress(held, true));
    ASSERT_NE(p, nullptr);
    p[7] ^= 1;
    pass(true, 20);
    pool.Verify();
    EXPECT_EQ(p, pool.GetAddress(held, true));
    p[7] ^= 1;
    EXPECT_TRUE(holds(p, 4000, 20)); // nothing but the byte changed, and that still changed
    p[7] ^= 1;
    pool.Dismiss(held);
    pool.Dismiss(held);
    pass(true, 20);
    pass(true, 20);
    EXPECT_EQ(stats(pool).pageWrites, after.pageWrites + 1);
    // A byte changed through a mapping for reading is kept only with Dirty.
    p = static_cast<unsigned char*>(pool.GetAddress(held, false));
    p[7] ^= 1;
    pool.Dirty(held);
    pool.Dismiss(held);
    pass(true, 20);
    EXPECT_EQ(readBack(pool, offsets[20], 4000, 20), 1);
    EXPECT_EQ(stats(pool).pageWrites, after.pageWrites + 2);
    pool.Verify();
}

namespace {
// The I/O seam: a disk that fills up, reads that fail, end early or bring back a changed byte,
// calls that move a few bytes at a time and are interrupted now and then.
enum Fault { kNoFault, kFullDisk, kFailingRead, kShortRead, kChangedRead, kChoppy } s_fault;
long s_writeAllowance = 0;
unsigned s_calls = 0;
long seamWrite(int fd, const void* data, unsigned long count, long long offset) {
    errno = s_fault == kChoppy ? EINTR : ENOSPC;
    if ((s_fault == kFullDisk && s_writeAllowance <= 0) ||
        (s_fault == kChoppy && ++s_calls % 3 == 0))
        return -1;
    count = std::min<unsigned long>(count, s_fault == kChoppy     ? 1000
                                           : s_fault == kFullDisk ? s_writeAllowance
                                                                  : count);
    s_writeAllowance -= static_cast<long>(count);
    return ::pwrite(fd, data, count, offset);
}
long seamRead(int fd, void* data, unsigned long count, long long offset) {
    errno = s_fault == kChoppy ? EINTR : EIO;
    if (s_fault == kFailingRead || (s_fault == kChoppy && ++s_calls % 3 == 0) ||
        (s_fault == kShortRead && ++s_calls % 2 == 0))
        return s_fault == kShortRead ? 0 : -1; // an error, or the end of the file
    const long n = ::pread(fd, data,
                           s_fault == kChoppy      ? std::min(count, 777ul)
                           : s_fault == kShortRead ? count / 2
                                                   : count,
                           offset);
    if (s_fault == kChangedRead)
        static_cast<unsigned char*>(data)[n / 2] ^= 0x40;
    return n;
}
const tcmalloc::VirtualMemoryIo kSeam = {seamWrite, seamRead};
} // namespace

TEST(VirtualMemoryPool, IoFailuresAndDamageGiveNullNeverWrongBytes) {
    ScratchDir dir;
    VirtualMemoryPool pool(kBudget, dir.path.c_str());
    std::vector<unsigned long long> offsets;
    for (unsigned i = 0; i < 16; ++i)
        offsets.push_back(newObject(pool, 3000, i)); // about 48 KiB: still resident

    // A disk with room for part of one span: allocation past the budget fails.
    s_fault = kFullDisk;
    s_writeAllowance = 8192;
    pool.SetIo(&kSeam);
    PageItem item;
    void* address = nullptr;
    for (unsigned i = 16; i < 56 && (address = pool.Allocate(3000, item)) != nullptr; ++i) {
        fill(address, 3000, i);
        pool.Dismiss(item);
        offsets.push_back(item.offset);
    }
    EXPECT_EQ(address, nullptr) << "the full disk was never noticed";
    EXPECT_EQ(item.offset, 0u);
    pool.Verify();
    for (unsigned i = 0; i < offsets.size(); ++i)
        EXPECT_EQ(readBack(pool, offsets[i], 3000, i), 1) << i;

    // Room again: more is made and pages out. Reads that fail, end early or bring back a
    // changed byte give null and change nothing; once reads work the bytes come back.
    s_fault = kNoFault;
    while (offsets.size() < 80)
        offsets.push_back(newObject(pool, 3000, static_cast<unsigned>(offsets.size())));
    auto nulls = [&] { // never wrong bytes
        unsigned count = 0;
        for (unsigned i = 0; i < offsets.size(); ++i) {
            const int got = readBack(pool, offsets[i], 3000, i);
            EXPECT_NE(got, -1) << i;
            count += got == 0;
        }
        return count;
    };
    for (Fault fault : {kFailingRead, kShortRead, kChangedRead}) {
        s_fault = fault;
        EXPECT_GT(nulls(), 0u);
        EXPECT_EQ(pool.GetOutstandingReferences(nullptr, 0, nullptr), 0u);
        pool.Verify();
    }

    // Short and interrupted transfers are carried through to the end.
    s_fault = kChoppy;
    EXPECT_EQ(nulls() + nulls(), 0u);

    // The page file changed behind the store's back: a changed byte, then a cut. What was
    // damaged gives null each time it is asked for; the rest comes back and the store goes on.
    pool.SetIo(nullptr);
    const int fd = ::open(pageFileLink(pool).c_str(), O_RDWR);
    ASSERT_GE(fd, 0);
    for (int damage = 0; damage < 2; ++damage) {
        const long long size = ::lseek(fd, 0, SEEK_END);
        if (damage == 0)
            ASSERT_EQ(::pwrite(fd, "!", 1, size / 3), 1);
        else
            ASSERT_EQ(::ftruncate(fd, size / 2), 0);
        const unsigned first = nulls();
        EXPECT_GT(first, 0u);
        EXPECT_EQ(nulls(), first); // what was damaged stays so; nothing else is
        EXPECT_EQ(newObject(pool, 3000, 7) % 16, 0u);
        pool.Verify();
    }
    ::close(fd);
}

TEST(VirtualMemoryPool, MisuseLeavesTheStoreIntact) {
    ScratchDir dir;
    VirtualMemoryPool pool(kBudget, dir.path.c_str());
    const unsigned long long a = newObject(pool, 100, 1);
    const unsigned long long b = newObject(pool, 100, 2);
    const unsigned long long big = newObject(pool, 20000, 3);

    for (unsigned long long bad : {0ULL, ~0ULL, a + 1, a + 16, big + 8192, 1ULL << 40}) {
        PageItem item{bad};
        EXPECT_EQ(pool.GetAddress(item, true), nullptr) << bad;
        pool.Dismiss(item);
        pool.Dirty(item);
        pool.Deallocate(item);
    }
    PageItem huge{77};
    EXPECT_EQ(pool.Allocate(~0ULL, huge), nullptr); // no size can wrap to a small one
    EXPECT_EQ(huge.offset, 0u);
    // After Deallocate the offset names nothing, and a second Deallocate does nothing.
    PageItem itemB{b};
    pool.Deallocate(itemB);
    EXPECT_EQ(pool.GetAddress(itemB, true), nullptr);
    pool.Deallocate(itemB);
    pool.Verify();
    EXPECT_EQ(readBack(pool, a, 100, 1), 1);
    EXPECT_EQ(readBack(pool, big, 20000, 3), 1);
    EXPECT_EQ(stats(pool).objectsCurrent, 2u);

    // Ending objects that are still pinned unpins their spans (two objects to a span here, the
    // other one kept), and the store goes back within its budget.
    std::vector<PageItem> held(40);
    for (unsigned i = 0; i < held.size(); ++i)
        fill(pool.Allocate(4000, held[i]), 4000, i);
    for (unsigned i = 0; i < held.size(); i += 2) {
        pool.Dismiss(held[i]);
        pool.Deallocate(held[i + 1]);
    }
    EXPECT_LE(stats(pool).residentBytes, kBudget);
    EXPECT_EQ(readBack(pool, held[38].offset, 4000, 38), 1);
}
