// The memory manager, the page item pool and the mapper report, over the real paging engine.
#include "store_test_util.h"

#include <fstream>
#include <numeric>
#include <regex>

TEST(HXLVirtualMemoryMgr, ConstructorsTakeTheBudgetFromTheirArgument) {
    // 100 objects of 1000 bytes are paged out under a budget of a byte, not of a megabyte;
    // under the default of 0x400000 bytes 600 objects of 8000 bytes are.
    HXLVirtualMemoryMgr first(1, 1 << 20, 3), second(1 << 20, 1, 3, 4), defaulted(0, 0, 0);
    HXLVirtualMemoryMgr third(HXLVirtualMemoryMgr::eMapperVirtual, 1, 1 << 20, 3, 4);
    std::string pageFiles;
    for (HXLVirtualMemoryMgr* mgr : {&first, &second, &third, &defaulted, &defaulted}) {
        churn(*mgr, pageFiles.size() < 4 ? 100 : 600, pageFiles.size() < 4 ? 1000 : 8000);
        pageFiles += pagedOut(mgr) ? 'y' : 'n';
    }
    EXPECT_EQ(pageFiles, "yynny");
}

TEST(HXLVirtualMemoryMgr, AllocFreeInvalidItemsAndTheReferenceLeakCheck) {
    HXLVirtualMemoryMgr mgr(1 << 16, 0, 0);
    HXLVirtualPageItem item;
    std::string bytes(100, '\0');
    std::iota(bytes.begin(), bytes.end(), '\0');
    std::memcpy(mgr.alloc(100, item), bytes.data(), 100);
    mgr.dismiss(item);
    // Smaller: same object and bytes. Between the new and the old size, or equal: it moves,
    // since only the item's size is compared, with its bytes, and the old object is freed.
    const std::pair<unsigned, bool> steps[] = {{60, false}, {80, true}, {80, true}, {0, false}};
    for (const auto& step : steps) {
        const unsigned long long before = item.getOffset();
        const char* p = static_cast<const char*>(mgr.alloc(step.first, item));
        EXPECT_TRUE(item.getSize() == step.first && item.empty() == 0 &&
                    (item.getOffset() != before) == step.second)
            << step.first;
        EXPECT_EQ(std::string(p, std::min(step.first, 60u)),
                  bytes.substr(0, std::min(step.first, 60u)));
        mgr.dismiss(item);
        EXPECT_TRUE(!step.second || !mgr.getAddress(before, 1)) << "the old object is freed";
    }
    // free: empty afterwards, size kept, a second free does nothing.
    mgr.alloc(33, item);
    mgr.dismiss(item);
    mgr.free(item);
    EXPECT_TRUE(item.empty() == 1 && item.getSize() == 33u);
    mgr.free(item);

    // Empty and invalid items and offsets reach nothing.
    const unsigned long long invalid = HXLVirtualPageItem::getInvalidOffset();
    HXLVirtualPageItem bad(invalid, 8), a, b, c;
    EXPECT_EQ(bad.empty(), 0);
    mgr.free(bad);
    mgr.dirty(bad);
    mgr.dismiss(bad);
    mgr.dismiss(0ULL);
    EXPECT_TRUE(!mgr.getAddress(bad, 1) && !mgr.getAddress(0ULL, 1) && !mgr.getAddress(invalid, 1));
    // Shrinking an invalid item lowers its size, then fails; growing it makes a new object
    // that stays allocated (and mapped), then finds no old one to copy.
    EXPECT_EQ(thrown([&] { mgr.alloc(4, bad); }),
              "memory: Out of memory <- HXL_THROW HXLVirtualMemoryMgr::alloc");
    EXPECT_EQ(thrown([&] { mgr.alloc(10, bad); }), "assert: HXL_ASSERT(old_ptr); <- HXL_THROW");
    EXPECT_TRUE(bad.getOffset() == invalid && bad.getSize() == 4u);

    // Misuse is an error naming the call and the offset, and no count changes: a dismiss with
    // no reference held or of an offset inside an object, a free through a stale copy.
    HXLVirtualPageItem held, spare;
    mgr.alloc(24, held);
    mgr.alloc(24, spare);
    mgr.dismiss(spare);
    const unsigned long long outstanding = heldReferences(mgr);
    auto misuse = [](const char* call, const char* what, unsigned long long offset) {
        char text[200];
        std::snprintf(text, sizeof(text), "state: %s: %s at store offset 0x%llx <- HXL_THROW %s",
                      call, what, offset, call);
        return std::string(text);
    };
    const char* noReference = "no reference held, or no object";
    EXPECT_EQ(thrown([&] { mgr.dismiss(spare); }),
              misuse("HXLVirtualMemoryMgr::dismiss", noReference, spare.getOffset()));
    EXPECT_EQ(thrown([&] { mgr.dismiss(held.getOffset() + 16); }),
              misuse("HXLVirtualMemoryMgr::dismiss", noReference, held.getOffset() + 16));
    HXLVirtualPageItem stale = spare;
    mgr.free(spare);
    EXPECT_EQ(thrown([&] { mgr.free(stale); }),
              misuse("HXLVirtualMemoryMgr::free", "no live object", stale.getOffset()));
    EXPECT_EQ(stale.empty(), 0); // left as it was
    EXPECT_EQ(heldReferences(mgr), outstanding);
    mgr.dismiss(held);
    mgr.free(held);

    // Switched off the check does nothing; on, it counts objects with references (the one the
    // failed growth made among them), an object held twice once.
    EXPECT_EQ(thrown([&] { mgr.throwExceptionOnReferenceLeak(); }), "nothing");
    HXLVirtualMemoryMgr::setExceptionOnReferenceLeak(1);
    mgr.alloc(10, a);
    mgr.alloc(10, b);
    mgr.getAddress(a, 1);
    EXPECT_EQ(thrown([&] { mgr.throwExceptionOnReferenceLeak(); }),
              "state: Reference Leak Error, total objects with reference count > 0 "
              ": 3 <- HXL_THROW HXLVirtualMemoryMgr::throwExceptionOnReferenceLeak");
    HXLVirtualMemoryMgr::setExceptionOnReferenceLeak(0); // the switch is the whole process's

    // A manager destroyed with references outstanding raises nothing.
    auto* leaky = new HXLVirtualMemoryMgr(0, 0, 0);
    leaky->alloc(100, c);
    EXPECT_NO_THROW(delete leaky);
}

TEST(HXLVirtualMemoryMgr, StoreFailureRaisesOutOfMemoryAndKeepsWhatWasStored) {
    // A temporary directory that disappears once the store is made: the first page-out fails.
    // A store made after it has gone pages to /tmp instead.
    char dir[] = "/tmp/hxlvmm-gone-XXXXXX";
    ASSERT_NE(::mkdtemp(dir), nullptr);
    const char* saved = std::getenv("TMPDIR");
    const std::string restore = saved ? saved : "";
    ::setenv("TMPDIR", dir, 1);
    HXLVirtualMemoryMgr mgr(1 << 16, 0, 0);
    ::rmdir(dir);
    HXLVirtualMemoryMgr fallback(1 << 16, 0, 0);
    saved ? ::setenv("TMPDIR", restore.c_str(), 1) : ::unsetenv("TMPDIR");
    churn(fallback, 30, 4000);
    EXPECT_EQ(mapperReport(fallback, 1).find("**Dump of Virtual Mapper**\n\nPaging File - /tmp/"),
              0u);

    HXLVirtualPageItem kept, item;
    std::memset(mgr.alloc(100, kept), 'k', 100);
    mgr.dismiss(kept);
    const std::string failure = thrown([&] { mgr.alloc(1 << 17, item); });
    EXPECT_EQ(failure, "memory: Out of memory <- HXL_THROW HXLVirtualMemoryMgr::alloc");
    EXPECT_TRUE(item.empty() == 1 && item.getSize() == 1u << 17);
    const char* p = static_cast<const char*>(mgr.getAddress(kept, 1));
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(std::string(p, 100), std::string(100, 'k'));
    mgr.dismiss(kept);
}

// The page item pool against a model: the keys most recently used first, with the offset each
// was stored at, under each limit, lowered half-way; the leak check empties it, switched off
// it does not. Keys are prefixes of a few blocks, so some are prefixes of others.
TEST(HXLVirtualPageItemPool, AgreesWithAnLruModel) {
    for (unsigned limit : {0u, 1u, 2u, 5u, 1000u}) {
        SCOPED_TRACE("limit " + std::to_string(limit));
        HXLVirtualMemoryMgr mgr(1 << 16, 0, 0);
        if (limit != 1000) // the default
            mgr.setVirtualPageItemPoolSize(limit);
        std::mt19937 random(limit);
        std::vector<std::pair<std::string, unsigned long long>> lru;
        std::set<unsigned long long> issued; // pooled objects are never freed
        for (int step = 0; step < 400; ++step) {
            if (step == 100 && limit > 1) // removes nothing until the next miss, which removes one
                mgr.setVirtualPageItemPoolSize(limit /= 2);
            HXLVirtualMemoryMgr::setExceptionOnReferenceLeak(step == 200 || step == 300);
            if (step % 100 == 0)
                mgr.throwExceptionOnReferenceLeak();
            if (step == 200 || step == 300)
                lru.clear();
            const std::string key = std::string("block ", 5 + random() % 2) +
                                    (random() % 3 ? std::string(1, '0' + random() % 6) : "");
            const auto hit = std::find_if(lru.begin(), lru.end(),
                                          [&](const auto& entry) { return entry.first == key; });
            HXLVirtualPageItem item, owned;
            if (hit != lru.end()) { // a hit overwrites a non-empty item, releasing nothing
                mgr.alloc(8, owned);
                mgr.dismiss(item = owned);
            }
            mgr.allocUsingPool(std::vector<char>(key.begin(), key.end()).data(), key.size(), item);
            if (hit != lru.end()) {
                ASSERT_EQ(item.getOffset(), hit->second) << key;
                ASSERT_NE(mgr.getAddress(owned, 1), nullptr);
                mgr.dismiss(owned);
                std::rotate(lru.begin(), hit, hit + 1);
            } else {
                ASSERT_TRUE(issued.insert(item.getOffset()).second) << key;
                lru.insert(lru.begin(), {key, item.getOffset()});
                if (lru.size() > limit)
                    lru.pop_back();
            }
            ASSERT_EQ(item.getSize(), key.size());
            ASSERT_EQ(std::string(static_cast<const char*>(mgr.getAddress(item, 1)), key.size()),
                      key);
            mgr.dismiss(item);
        }
        EXPECT_EQ(heldReferences(mgr), 0u) << "a pooled object holds no reference";
        HXLVirtualPageItem item(77, 5); // null data or size 0 leave an item alone
        mgr.allocUsingPool(nullptr, 16, item);
        mgr.allocUsingPool("block", 0, item);
        EXPECT_TRUE(item.getOffset() == 77 && item.getSize() == 5);
    }
}

TEST(HXLVirtualMemoryMgr, DumpMapperTexts) {
    HXLVirtualMemoryMgr mgr(1 << 16, 0, 0);
    const std::string title = "**Dump of Virtual Mapper**\n\n";
    const std::string end = "Diagnostic Options are not supported!\n\n";
    const std::string notSupported =
        "HXLVirtualMemoryMgr::eDumpMapper is not supported - consider using Windbg to debug "
        "leaks in the virtual memory system!\n\nTotal Objects with reference count > 0 : 1\n\n";
    EXPECT_EQ(mapperReport(mgr, 0), title + end);
    EXPECT_EQ(mapperReport(mgr, 4), title + end) << "other bits have no effect";

    HXLVirtualPageItem item;
    mgr.alloc(72, item); // held: one reference outstanding
    EXPECT_EQ(mapperReport(mgr, 2), title + notSupported + end);
    // Both parts; a pool's lines, one pair per pool.
    const std::string both = mapperReport(mgr, 3);
    EXPECT_NE(both.find("  Pool [0] - Size: 80\n      Pages: 1, Spans: 1, Alloc: 80 bytes, Free: "
                        "8080 bytes\n\n" +
                        notSupported + end),
              std::string::npos);
    mgr.dismiss(item);
    mgr.free(item);

    // A store that has paged, with a large object: the page file and large block sections.
    churn(mgr, 1, 20000);
    churn(mgr, 30, 4000);
    // The page file's name and size, the write counts and the pools' lines vary; not the rest.
    const std::string paged = std::regex_replace(
        mapperReport(mgr, 1),
        std::regex("(File - |file size: |Writes: |Outs: )[^ ,\n]+|  Pool [\\s\\S]*?\n\n"), "$1#");
    EXPECT_EQ(paged, title +
                         "Paging File - #\nPage file size: # bytes\n\n"
                         "Mapping Mode - libtcmalloc_virtualmm\nPage size: 8192 bytes\n"
                         "Mapping Statistics - Virtual Objects (Current/Max/Cumulative): 31/31/32\n"
                         "Paging Statistics - Reads: 0, Writes: #, Page Outs: #\n\n"
                         "Large size block breakdown\n--------------------------\n"
                         "Pages: 3, Spans: 1, Alloc: 24576 bytes\n"
                         "Fixed-size pool breakdown\n-------------------------\n#" +
                         end);

    // A stream that throws on failure ends the dump; the leak checker sees the record freed.
    std::ofstream os; // not open: every write fails
    os.exceptions(std::ios::badbit);
    EXPECT_THROW(mgr.dumpMapper(os, 3), std::ios_base::failure);
}
