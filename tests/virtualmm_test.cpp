// The paging engine against a model: bytes survive paging, pinned objects stay put, counts are
// exact, I/O failures give null and never wrong bytes, misuse leaves the store intact.
#include "VirtualMemoryPool.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
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
    int entries() const {
        int count = 0;
        DIR* dir = ::opendir(path.c_str());
        while (dirent* entry = ::readdir(dir))
            count += entry->d_name[0] != '.';
        ::closedir(dir);
        return count;
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

bool readBack(VirtualMemoryPool& pool, unsigned long long offset, size_t size, unsigned seed,
              bool forWriting = true) {
    PageItem item{offset};
    void* address = pool.GetAddress(item, forWriting);
    const bool ok = address != nullptr && holds(address, size, seed);
    if (address)
        pool.Dismiss(item);
    return ok;
}

unsigned long long outstanding(VirtualMemoryPool& pool) {
    return pool.GetOutstandingReferences(nullptr, 0, nullptr);
}

struct ModelObject {
    size_t size;
    unsigned seed;
    unsigned pins;
    void* pinnedAt;
};

} // namespace

TEST(VirtualMemoryPool, RandomOperationsAgreeWithModel) {
    ScratchDir dir;
    VirtualMemoryPool pool(kBudget, dir.path.c_str());
    std::mt19937 random(20261123);
    std::map<unsigned long long, ModelObject> model;
    unsigned long long pinned = 0, liveBytes = 0, maxLiveBytes = 0;
    unsigned nextSeed = 1;

    auto pick = [&] { return std::next(model.begin(), random() % model.size()); };
    auto add = [&](size_t size) {
        const unsigned seed = nextSeed++;
        const unsigned long long offset = newObject(pool, size, seed);
        ASSERT_TRUE(offset != 0 && offset != ~0ULL && model.count(offset) == 0) << offset;
        model[offset] = {size, seed, 0, nullptr};
        liveBytes += size;
    };
    auto remove = [&](std::map<unsigned long long, ModelObject>::iterator it) {
        PageItem item{it->first};
        pool.Deallocate(item);
        pinned -= it->second.pins > 0;
        liveBytes -= it->second.size;
        model.erase(it);
    };

    add(5 * kBudget / 4); // one object larger than the whole budget
    for (int step = 0; step < 3000; ++step) {
        const unsigned op = random() % 100;
        if (model.size() < 8 || op < 30) {
            // From 1 byte to several pages, most of them small.
            const unsigned kind = random() % 10;
            add(kind < 6   ? 1 + random() % 512
                : kind < 9 ? 513 + random() % 8192
                           : 8193 + random() % 24000);
        } else if (op < 45) { // pin
            auto it = pick();
            PageItem item{it->first};
            void* address = pool.GetAddress(item, true);
            ASSERT_NE(address, nullptr);
            if (it->second.pins++ > 0)
                ASSERT_EQ(address, it->second.pinnedAt) << "a pinned object moved";
            else
                ++pinned;
            it->second.pinnedAt = address;
        } else if (op < 65) { // unpin
            auto it = pick();
            if (it->second.pins > 0) {
                PageItem item{it->first};
                pool.Dismiss(item);
                pinned -= --it->second.pins == 0;
            }
        } else if (op < 75) { // rewrite in place through a fresh mapping
            auto it = pick();
            PageItem item{it->first};
            void* address = pool.GetAddress(item, true);
            ASSERT_NE(address, nullptr);
            it->second.seed = nextSeed++;
            fill(address, it->second.size, it->second.seed);
            pool.Dismiss(item);
        } else if (op < 85) { // reallocate: new object, old bytes checked, old one freed
            auto it = pick();
            if (it->second.pins == 0) {
                const ModelObject old = it->second;
                const size_t size = old.size + random() % 4096;
                PageItem fresh, item{it->first};
                void* to = pool.Allocate(size, fresh);
                void* from = pool.GetAddress(item, true);
                ASSERT_TRUE(to && from);
                ASSERT_TRUE(holds(from, old.size, old.seed));
                fill(to, size, nextSeed);
                pool.Dismiss(item);
                pool.Dismiss(fresh);
                remove(it);
                model[fresh.offset] = {size, nextSeed++, 0, nullptr};
                liveBytes += size;
            }
        } else {
            remove(pick());
        }
        maxLiveBytes = std::max(maxLiveBytes, liveBytes);

        pool.Verify();
        ASSERT_EQ(outstanding(pool), pinned);
        ASSERT_EQ(stats(pool).objectsCurrent, model.size());
        if (step % 10 == 0 || step > 2900) {
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
    EXPECT_GE(maxLiveBytes, 8 * kBudget);

    const VirtualMemoryStats figures = stats(pool);
    EXPECT_GT(figures.pageWrites, 100u);
    EXPECT_GT(figures.pageReads, 100u);
    EXPECT_GT(figures.pageOuts, figures.pageWrites);
    EXPECT_GT(figures.pageFileSize, 0u);
    EXPECT_GE(figures.objectsCumulative, figures.objectsMax);

    // Once nothing is pinned the resident bytes are back within the budget.
    for (auto& entry : model) {
        PageItem item{entry.first};
        while (entry.second.pins-- > 0)
            pool.Dismiss(item);
    }
    EXPECT_EQ(outstanding(pool), 0u);
    EXPECT_LE(stats(pool).residentBytes, kBudget);
    pool.Verify();
}

TEST(VirtualMemoryPool, PageFileIsPrivateAndLeavesNoName) {
    ScratchDir dir;
    {
        VirtualMemoryPool pool(kBudget, dir.path.c_str());
        EXPECT_EQ(stats(pool).pageFileSize, 0u); // made lazily
        std::vector<unsigned long long> offsets;
        for (unsigned i = 0; i < 40; ++i)
            offsets.push_back(newObject(pool, 4000, i));
        const VirtualMemoryStats figures = stats(pool);
        const std::string name = figures.pageFileName;
        ASSERT_GT(figures.pageFileSize, 0u);
        EXPECT_EQ(name.compare(0, dir.path.size(), dir.path), 0) << name;
        EXPECT_EQ(dir.entries(), 0) << "the page file's name must be gone at once";

        // The open descriptor whose link names the deleted page file.
        int found = 0;
        std::string fileLink;
        DIR* fds = ::opendir("/proc/self/fd");
        while (dirent* entry = ::readdir(fds)) {
            char target[512] = {};
            const std::string link = std::string("/proc/self/fd/") + entry->d_name;
            struct stat st;
            if (::readlink(link.c_str(), target, sizeof(target) - 1) > 0 &&
                std::string(target).find(name) == 0 && ::stat(link.c_str(), &st) == 0) {
                EXPECT_EQ(st.st_mode & 0777, 0600u);
                EXPECT_EQ(st.st_nlink, 0u);
                EXPECT_EQ(static_cast<unsigned long long>(st.st_size), figures.pageFileSize);
                fileLink = link;
                ++found;
            }
        }
        ::closedir(fds);
        EXPECT_EQ(found, 1);
        for (unsigned i = 0; i < offsets.size(); ++i)
            EXPECT_TRUE(readBack(pool, offsets[i], 4000, i));
        // Freed spans give their file space back; the file shrinks with its free tail.
        for (unsigned long long offset : offsets) {
            PageItem item{offset};
            pool.Deallocate(item);
        }
        struct stat st;
        ASSERT_EQ(::stat(fileLink.c_str(), &st), 0);
        EXPECT_EQ(st.st_size, 0);
        EXPECT_EQ(stats(pool).pageFileSize, 0u);
    }
    EXPECT_EQ(dir.entries(), 0);
}

namespace {
// I/O seams: a disk that fills up, a read that fails, calls that move a few bytes at a time and
// are interrupted now and then.
long s_writeAllowance = 0;
unsigned s_calls = 0;
long fullDiskWrite(int fd, const void* data, unsigned long count, long long offset) {
    if (s_writeAllowance <= 0) {
        errno = ENOSPC;
        return -1;
    }
    const unsigned long n = std::min<unsigned long>(count, s_writeAllowance);
    s_writeAllowance -= static_cast<long>(n);
    return ::pwrite(fd, data, n, offset);
}
long plainRead(int fd, void* data, unsigned long count, long long offset) {
    return ::pread(fd, data, count, offset);
}
long plainWrite(int fd, const void* data, unsigned long count, long long offset) {
    return ::pwrite(fd, data, count, offset);
}
long failingRead(int, void*, unsigned long, long long) {
    errno = EIO;
    return -1;
}
long choppyWrite(int fd, const void* data, unsigned long count, long long offset) {
    errno = EINTR;
    return ++s_calls % 3 == 0 ? -1 : ::pwrite(fd, data, std::min(count, 1000ul), offset);
}
long choppyRead(int fd, void* data, unsigned long count, long long offset) {
    errno = EINTR;
    return ++s_calls % 3 == 0 ? -1 : ::pread(fd, data, std::min(count, 777ul), offset);
}
} // namespace

TEST(VirtualMemoryPool, IoFailuresGiveNullAndNeverWrongBytes) {
    ScratchDir dir;
    VirtualMemoryPool pool(kBudget, dir.path.c_str());
    std::vector<unsigned long long> offsets;
    for (unsigned i = 0; i < 16; ++i)
        offsets.push_back(newObject(pool, 3000, i)); // about 48 KiB: still resident

    // A disk with room for part of one span: allocation past the budget fails.
    const tcmalloc::VirtualMemoryIo fullDisk = {fullDiskWrite, plainRead};
    s_writeAllowance = 8192;
    pool.SetIo(&fullDisk);
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
        EXPECT_TRUE(readBack(pool, offsets[i], 3000, i)) << i;

    // Room again: more is made and pages out; a failing read then gives null, changes nothing,
    // and the bytes come back once reads work again.
    pool.SetIo(nullptr);
    const size_t before = offsets.size();
    for (unsigned i = 0; i < 40; ++i)
        offsets.push_back(newObject(pool, 3000, 100 + i));
    const tcmalloc::VirtualMemoryIo badRead = {plainWrite, failingRead};
    pool.SetIo(&badRead);
    unsigned nulls = 0;
    for (unsigned long long offset : offsets)
        nulls += !readBack(pool, offset, 0, 0);
    EXPECT_GT(nulls, 0u);
    EXPECT_EQ(outstanding(pool), 0u);

    // Short and interrupted transfers are carried through to the end.
    const tcmalloc::VirtualMemoryIo choppy = {choppyWrite, choppyRead};
    pool.SetIo(&choppy);
    for (unsigned round = 0; round < 2; ++round)
        for (unsigned i = 0; i < offsets.size(); ++i)
            EXPECT_TRUE(readBack(pool, offsets[i], 3000, i < before ? i : 100 + i - before));
    pool.Verify();
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
    EXPECT_EQ(pool.Allocate(1ULL << 50, huge), nullptr);
    EXPECT_EQ(huge.offset, 0u);
    // A dismiss of an object whose count is 0 leaves it at 0.
    PageItem itemA{a};
    pool.Dismiss(itemA);
    ASSERT_NE(pool.GetAddress(itemA, true), nullptr);
    EXPECT_EQ(outstanding(pool), 1u);
    pool.Dismiss(itemA);
    pool.Dismiss(itemA);
    EXPECT_EQ(outstanding(pool), 0u);

    // After Deallocate the offset names nothing, and a second Deallocate does nothing.
    PageItem itemB{b};
    pool.Deallocate(itemB);
    EXPECT_EQ(pool.GetAddress(itemB, true), nullptr);
    pool.Deallocate(itemB);
    pool.Verify();
    EXPECT_TRUE(readBack(pool, a, 100, 1));
    EXPECT_TRUE(readBack(pool, big, 20000, 3));
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
    EXPECT_TRUE(readBack(pool, held[38].offset, 4000, 38));
}

TEST(VirtualMemoryPool, SpansMappedOnlyForReadingAreDroppedWithoutWrite) {
    ScratchDir dir;
    VirtualMemoryPool pool(kBudget, dir.path.c_str());
    std::vector<unsigned long long> offsets;
    for (unsigned i = 0; i < 64; ++i)
        offsets.push_back(newObject(pool, 4000, i)); // 32 spans, four times the budget
    bool forWriting = false;
    auto readPass = [&] {
        for (unsigned i = 0; i < offsets.size(); ++i)
            EXPECT_TRUE(readBack(pool, offsets[i], 4000, i, forWriting));
        forWriting = true;
    };
    readPass(); // writes out what was still resident since it was made
    const VirtualMemoryStats before = stats(pool);
    readPass();
    const VirtualMemoryStats after = stats(pool);
    EXPECT_GT(after.pageReads, before.pageReads);
    EXPECT_EQ(after.pageWrites, before.pageWrites) << "nothing was mapped for writing";
    EXPECT_GT(after.pageDrops, before.pageDrops);
    // Mapped for writing but unchanged: still no write. A byte changed through a read-only
    // mapping is kept only with Dirty, and then written once.
    readPass();
    EXPECT_EQ(stats(pool).pageWrites, after.pageWrites);
    PageItem last{offsets.back()};
    unsigned char* p = static_cast<unsigned char*>(pool.GetAddress(last, false));
    ASSERT_NE(p, nullptr);
    p[7] ^= 1;
    pool.Dirty(last);
    pool.Dismiss(last);
    for (int pass = 0; pass < 2; ++pass)
        for (unsigned i = 0; i + 1 < offsets.size(); ++i)
            EXPECT_TRUE(readBack(pool, offsets[i], 4000, i));
    EXPECT_EQ(stats(pool).pageWrites, after.pageWrites + 1);
    p = static_cast<unsigned char*>(pool.GetAddress(last, true));
    p[7] ^= 1;
    EXPECT_TRUE(holds(p, 4000, 63));
    pool.Dismiss(last);
    pool.Verify();
}
