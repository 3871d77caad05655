// The memory manager, the page item pool and the mapper report, over the real paging engine.
#include "HXLCore.h"
#include "HXLVirtualMemoryMgr.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

typedef std::vector<std::string> Lines;

Lines dumpLines(HXLVirtualMemoryMgr& mgr, int flags) {
    std::ostringstream os;
    mgr.dumpMapper(os, flags);
    Lines lines;
    std::istringstream in(os.str());
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

bool hasPageFile(HXLVirtualMemoryMgr& mgr) {
    return dumpLines(mgr, 1).at(2).rfind("Paging File - ", 0) == 0;
}

// Writes `count` objects of `size` bytes and lets go of each.
void churn(HXLVirtualMemoryMgr& mgr, unsigned count, unsigned size) {
    for (unsigned i = 0; i < count; ++i) {
        HXLVirtualPageItem item;
        std::memset(mgr.alloc(size, item), 'a' + i % 26, size);
        mgr.dismiss(item);
    }
}

// The text and the first frame's function of what `call` throws as E ("" if nothing).
template <class E> std::pair<std::string, std::string> thrown(const std::function<void()>& call) {
    try {
        call();
    } catch (const E& e) {
        return {e.what(), e.getBackTrace().at(0).function};
    }
    return {"", ""};
}

// Restores the process-wide leak switch however a test ends.
struct LeakSwitch {
    explicit LeakSwitch(int on) { HXLVirtualMemoryMgr::setExceptionOnReferenceLeak(on); }
    ~LeakSwitch() { HXLVirtualMemoryMgr::setExceptionOnReferenceLeak(0); }
};

} // namespace

TEST(HXLVirtualMemoryMgr, ConstructorsTakeTheBudgetFromTheirArgument) {
    // 100 objects of 1000 bytes fit a budget of a megabyte, never one of a byte.
    HXLVirtualMemoryMgr first(1, 1 << 20, 3), second(1 << 20, 1, 3, 4);
    HXLVirtualMemoryMgr third(HXLVirtualMemoryMgr::eMapperVirtual, 1, 1 << 20, 3, 4);
    HXLVirtualMemoryMgr defaulted(0, 0, 0); // 0x400000 bytes
    for (HXLVirtualMemoryMgr* mgr : {&first, &second, &third, &defaulted})
        churn(*mgr, 100, 1000);
    EXPECT_TRUE(hasPageFile(first));
    EXPECT_TRUE(hasPageFile(second));
    EXPECT_FALSE(hasPageFile(third));
    EXPECT_FALSE(hasPageFile(defaulted));
    churn(defaulted, 600, 8000);
    EXPECT_TRUE(hasPageFile(defaulted));
    EXPECT_EQ(first.getMapper(123), nullptr);
}

TEST(HXLVirtualMemoryMgr, AllocShrinksInPlaceAndMovesOtherwise) {
    HXLVirtualMemoryMgr mgr(1 << 16, 0, 0);
    HXLVirtualPageItem item;
    char* p = static_cast<char*>(mgr.alloc(100, item));
    for (int i = 0; i < 100; ++i)
        p[i] = static_cast<char>(i);
    mgr.dismiss(item);
    const unsigned long long first = item.getOffset();

    // Smaller: same object and bytes. Between the new and the old size, or equal: it moves,
    // since only the item's size is compared, and the old object is freed.
    const struct {
        unsigned size;
        bool moves;
    } steps[] = {{60, false}, {80, true}, {80, true}, {0, false}};
    for (const auto& step : steps) {
        const unsigned long long before = item.getOffset();
        p = static_cast<char*>(mgr.alloc(step.size, item));
        EXPECT_EQ(item.getOffset() != before, step.moves) << step.size;
        EXPECT_EQ(item.getSize(), step.size);
        EXPECT_EQ(item.empty(), 0);
        for (unsigned i = 0; i < std::min(step.size, 60u); ++i)
            ASSERT_EQ(p[i], static_cast<char>(i));
        mgr.dismiss(item);
        if (step.moves) {
            EXPECT_EQ(mgr.getAddress(before, 1), nullptr) << "the old object is freed";
        }
    }
    EXPECT_NE(item.getOffset(), first);

    // free: empty afterwards, size kept, a second free does nothing.
    mgr.alloc(33, item);
    mgr.dismiss(item);
    mgr.free(item);
    EXPECT_EQ(item.empty(), 1);
    EXPECT_EQ(item.getSize(), 33u);
    mgr.free(item);
}

TEST(HXLVirtualMemoryMgr, EmptyAndInvalidItems) {
    HXLVirtualMemoryMgr mgr(1 << 16, 0, 0);
    const unsigned long long invalid = HXLVirtualPageItem::getInvalidOffset();
    HXLVirtualPageItem bad(invalid, 8);
    EXPECT_EQ(bad.empty(), 0);
    mgr.free(bad);
    mgr.dirty(bad);
    mgr.dismiss(bad);
    mgr.dismiss(0ULL);
    EXPECT_EQ(bad.getOffset(), invalid);
    EXPECT_EQ(mgr.getAddress(bad, 1), nullptr);
    EXPECT_EQ(mgr.getAddress(0ULL, 1), nullptr);

    // Shrinking an invalid item lowers its size, then fails; growing it makes a new object
    // that stays allocated (and mapped), then finds no old one to copy.
    EXPECT_EQ(thrown<HXLOutOfMemoryError>([&] { mgr.alloc(4, bad); }).second,
              "HXLVirtualMemoryMgr::alloc");
    EXPECT_EQ(bad.getSize(), 4u);
    EXPECT_EQ(thrown<HXLAssertError>([&] { mgr.alloc(10, bad); }).first, "HXL_ASSERT(old_ptr);");
    EXPECT_EQ(bad.getOffset(), invalid);
    EXPECT_EQ(bad.getSize(), 4u);
    LeakSwitch on(1);
    EXPECT_EQ(thrown<HXLIllegalStateError>([&] { mgr.throwExceptionOnReferenceLeak(); }).first,
              "Reference Leak Error, total objects with reference count > 0 : 1");
}

TEST(HXLVirtualMemoryMgr, StoreFailureRaisesOutOfMemoryAndKeepsWhatWasStored) {
    // A temporary directory that disappears once the store is made: the first page-out fails.
    char dir[] = "/tmp/hxlvmm-gone-XXXXXX";
    ASSERT_NE(::mkdtemp(dir), nullptr);
    const char* saved = std::getenv("TMPDIR");
    const std::string restore = saved ? saved : "";
    ::setenv("TMPDIR", dir, 1);
    HXLVirtualMemoryMgr mgr(1 << 16, 0, 0);
    saved ? ::setenv("TMPDIR", restore.c_str(), 1) : ::unsetenv("TMPDIR");
    ::rmdir(dir);

    HXLVirtualPageItem kept, item;
    std::memset(mgr.alloc(100, kept), 'k', 100);
    mgr.dismiss(kept);
    std::pair<std::string, std::string> failure;
    for (int i = 0; i < 20 && failure.first.empty(); ++i) {
        item.clear();
        failure = thrown<HXLOutOfMemoryError>([&] {
            mgr.alloc(8000, item);
            mgr.dismiss(item);
        });
    }
    EXPECT_EQ(failure.first, "Out of memory");
    EXPECT_EQ(failure.second, "HXLVirtualMemoryMgr::alloc");
    EXPECT_EQ(item.empty(), 1);
    EXPECT_EQ(item.getSize(), 8000u);
    const char* p = static_cast<const char*>(mgr.getAddress(kept, 1));
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(std::string(p, 100), std::string(100, 'k'));
    mgr.dismiss(kept);
}

TEST(HXLVirtualMemoryMgr, ReferenceLeakCheck) {
    HXLVirtualMemoryMgr mgr(1 << 16, 0, 0);
    const char bytes[] = "shared bytes";
    HXLVirtualPageItem pooled, again, a, b;
    mgr.allocUsingPool(bytes, sizeof(bytes), pooled);
    mgr.throwExceptionOnReferenceLeak(); // off: the page item pool keeps its entries
    mgr.allocUsingPool(bytes, sizeof(bytes), again);
    EXPECT_EQ(again.getOffset(), pooled.getOffset());

    LeakSwitch on(1);
    mgr.throwExceptionOnReferenceLeak(); // pooled objects hold no reference
    mgr.allocUsingPool(bytes, sizeof(bytes), again);
    EXPECT_NE(again.getOffset(), pooled.getOffset()) << "the check empties the pool";

    mgr.alloc(10, a);
    mgr.alloc(10, b);
    mgr.getAddress(a, 1); // two references on one object count once
    auto check = [&] { mgr.throwExceptionOnReferenceLeak(); };
    EXPECT_EQ(thrown<HXLIllegalStateError>(check),
              std::make_pair(std::string("Reference Leak Error, total objects with reference "
                                         "count > 0 : 2"),
                             std::string("HXLVirtualMemoryMgr::throwExceptionOnReferenceLeak")));
    mgr.dismiss(b);
    mgr.dismiss(a);
    EXPECT_EQ(thrown<HXLIllegalStateError>(check).first,
              "Reference Leak Error, total objects with reference count > 0 : 1");
    mgr.dismiss(a);
    check();

    // A manager destroyed with references outstanding raises nothing.
    auto* leaky = new HXLVirtualMemoryMgr(0, 0, 0);
    leaky->alloc(100, a);
    EXPECT_NO_THROW(delete leaky);
}

TEST(HXLVirtualPageItemPool, SharesEqualBytesAndEvictsLeastRecent) {
    HXLVirtualMemoryMgr mgr(1 << 16, 0, 0);
    mgr.setVirtualPageItemPoolSize(2);
    char one[16] = "block one", two[16] = "block two", three[16] = "block three";
    auto pooled = [&](const char* bytes, unsigned size, HXLVirtualMemoryMgr* in = nullptr) {
        HXLVirtualPageItem item;
        (in ? in : &mgr)->allocUsingPool(bytes, size, item);
        return item.getOffset();
    };

    // Equal bytes in another block share the object; a prefix does not. The caller's block
    // is not kept, and a pooled object holds no reference.
    std::vector<char> copy(one, one + 16);
    const unsigned long long o1 = pooled(one, 16);
    EXPECT_EQ(pooled(copy.data(), 16), o1);
    copy.assign(16, 'x');
    EXPECT_NE(pooled(one, 8), o1);
    EXPECT_STREQ(static_cast<const char*>(mgr.getAddress(o1, 1)), "block one");
    mgr.dismiss(o1);
    EXPECT_EQ(dumpLines(mgr, 0).size(), 4u) << "no reference is left held";

    // Limit 2, most recent first: a hit moves an entry to the front, a miss evicts the last.
    EXPECT_EQ(pooled(one, 16), o1);                // one, prefix
    const unsigned long long o2 = pooled(two, 16); // two, one
    EXPECT_EQ(pooled(one, 16), o1);                // one, two
    pooled(three, 16);                             // three, one
    EXPECT_EQ(pooled(one, 16), o1);
    EXPECT_NE(pooled(two, 16), o2) << "block two was evicted";
    EXPECT_NE(mgr.getAddress(o2, 1), nullptr) << "its first object stays allocated";
    mgr.dismiss(o2);

    // A hit overwrites a non-empty item without releasing what it named; null data or size 0
    // leave the item alone.
    HXLVirtualPageItem owned;
    mgr.alloc(32, owned);
    mgr.dismiss(owned);
    const HXLVirtualPageItem before = owned;
    mgr.allocUsingPool(nullptr, 16, owned);
    mgr.allocUsingPool(one, 0, owned);
    EXPECT_EQ(owned.getOffset(), before.getOffset());
    mgr.allocUsingPool(one, 16, owned);
    EXPECT_EQ(owned.getOffset(), o1);
    EXPECT_NE(mgr.getAddress(before.getOffset(), 1), nullptr);
    mgr.dismiss(before.getOffset());

    // Limit 0: every miss makes an object and forgets it at once. Lowering the limit removes
    // nothing until the next miss, which removes one; reset forgets everything.
    HXLVirtualMemoryMgr none(1 << 16, 0, 0), lowered(1 << 16, 0, 0);
    none.setVirtualPageItemPoolSize(0);
    EXPECT_NE(pooled(three, 16, &none), pooled(three, 16, &none));
    char keys[4][8] = {"k0", "k1", "k2", "k3"};
    std::vector<unsigned long long> first;
    for (int i = 0; i < 3; ++i) {
        HXLVirtualPageItem item;
        lowered.allocUsingPool(keys[i], 8, item);
        first.push_back(item.getOffset());
    }
    lowered.setVirtualPageItemPoolSize(1);
    HXLVirtualPageItem item;
    lowered.allocUsingPool(keys[2], 8, item);
    EXPECT_EQ(item.getOffset(), first[2]) << "lowering the limit removed nothing";
    lowered.allocUsingPool(keys[3], 8, item); // a miss: evicts k0 only
    lowered.allocUsingPool(keys[1], 8, item);
    EXPECT_EQ(item.getOffset(), first[1]);
    lowered.allocUsingPool(keys[0], 8, item);
    EXPECT_NE(item.getOffset(), first[0]);
}

TEST(HXLVirtualMemoryMgr, DumpMapperTexts) {
    HXLVirtualMemoryMgr mgr(1 << 16, 0, 0);
    const std::string notSupported =
        "HXLVirtualMemoryMgr::eDumpMapper is not supported - consider using Windbg to debug "
        "leaks in the virtual memory system!";
    EXPECT_EQ(dumpLines(mgr, 0), (Lines{"**Dump of Virtual Mapper**", "",
                                        "Diagnostic Options are not supported!", ""}));
    EXPECT_EQ(dumpLines(mgr, 4), dumpLines(mgr, 0)) << "other bits have no effect";

    HXLVirtualPageItem item;
    mgr.alloc(72, item); // held: one reference outstanding
    EXPECT_EQ(dumpLines(mgr, 2), (Lines{"**Dump of Virtual Mapper**", "", notSupported, "",
                                        "Total Objects with reference count > 0 : 1", "",
                                        "Diagnostic Options are not supported!", ""}));
    EXPECT_EQ(
        dumpLines(mgr, 3),
        (Lines{"**Dump of Virtual Mapper**", "", "Mapping Mode - libtcmalloc_virtualmm",
               "Page size: 8192 bytes",
               "Mapping Statistics - Virtual Objects (Current/Max/Cumulative): 1/1/1",
               "Paging Statistics - Reads: 0, Writes: 0, Page Outs: 0", "",
               "Fixed-size pool breakdown", "-------------------------", "  Pool [0] - Size: 80",
               "      Pages: 1, Spans: 1, Alloc: 80 bytes, Free: 8080 bytes", "", notSupported, "",
               "Total Objects with reference count > 0 : 1", "",
               "Diagnostic Options are not supported!", ""}));
    mgr.dismiss(item);
    mgr.free(item);

    // A store that has paged, with a large object: the page file and large block sections.
    mgr.alloc(20000, item);
    mgr.dismiss(item);
    churn(mgr, 30, 4000);
    const Lines lines = dumpLines(mgr, 1);
    ASSERT_GE(lines.size(), 20u);
    EXPECT_EQ(lines[2].rfind("Paging File - ", 0), 0u);
    EXPECT_EQ(lines[3].rfind("Page file size: ", 0), 0u);
    EXPECT_EQ(lines[3].substr(lines[3].size() - 6), " bytes");
    EXPECT_EQ(lines[7], "Mapping Statistics - Virtual Objects (Current/Max/Cumulative): 31/31/32");
    EXPECT_EQ(lines[8].rfind("Paging Statistics - Reads: 0, Writes: ", 0), 0u);
    EXPECT_EQ(lines[10], "Large size block breakdown");
    EXPECT_EQ(lines[11], "--------------------------");
    EXPECT_EQ(lines[12], "Pages: 3, Spans: 1, Alloc: 24576 bytes");
    EXPECT_EQ(lines[13], "Fixed-size pool breakdown");
    EXPECT_EQ(lines[lines.size() - 2], "Diagnostic Options are not supported!");

    // A stream that throws on failure ends the dump; the leak checker sees the record freed.
    struct Refusing : std::streambuf {
        int overflow(int) override { return EOF; }
    } refusing;
    std::ostream os(&refusing);
    os.exceptions(std::ios::badbit);
    EXPECT_THROW(mgr.dumpMapper(os, 3), std::ios_base::failure);
}
