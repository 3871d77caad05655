// The memory manager, the page item pool and the mapper report, over the real paging engine.
#include "HXLCore.h"
#include "HXLVirtualMemoryMgr.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

std::vector<std::string> dumpLines(HXLVirtualMemoryMgr& mgr, int flags) {
    std::ostringstream os;
    mgr.dumpMapper(os, flags);
    std::vector<std::string> lines;
    std::istringstream in(os.str());
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

bool hasPageFile(HXLVirtualMemoryMgr& mgr) {
    for (const std::string& line : dumpLines(mgr, 1))
        if (line.rfind("Paging File - ", 0) == 0)
            return true;
    return false;
}

// Writes `count` objects of `size` bytes and lets go of each: whatever exceeds the store's
// budget has to go to the page file.
std::vector<HXLVirtualPageItem> churn(HXLVirtualMemoryMgr& mgr, unsigned count, unsigned size) {
    std::vector<HXLVirtualPageItem> items(count);
    for (unsigned i = 0; i < count; ++i) {
        char* p = static_cast<char*>(mgr.alloc(size, items[i]));
        std::memset(p, static_cast<int>('a' + i % 26), size);
        mgr.dismiss(items[i]);
    }
    return items;
}

unsigned outstanding(HXLVirtualMemoryMgr& mgr) {
    const std::string prefix = "Total Objects with reference count > 0 : ";
    for (const std::string& line : dumpLines(mgr, 0))
        if (line.rfind(prefix, 0) == 0)
            return static_cast<unsigned>(std::stoul(line.substr(prefix.size())));
    return 0;
}

// Restores the process-wide leak switch however a test ends.
struct LeakSwitch {
    explicit LeakSwitch(int on) { HXLVirtualMemoryMgr::setExceptionOnReferenceLeak(on); }
    ~LeakSwitch() { HXLVirtualMemoryMgr::setExceptionOnReferenceLeak(0); }
};

} // namespace

TEST(HXLVirtualMemoryMgr, ConstructorsTakeTheBudgetFromTheirArgument) {
    // 100 objects of 1000 bytes: they fit a budget of a megabyte, never one of a byte.
    HXLVirtualMemoryMgr first(1, 1 << 20, 3);
    churn(first, 100, 1000);
    EXPECT_TRUE(hasPageFile(first));

    HXLVirtualMemoryMgr second(1 << 20, 1, 3, 4);
    churn(second, 100, 1000);
    EXPECT_TRUE(hasPageFile(second));

    HXLVirtualMemoryMgr third(HXLVirtualMemoryMgr::eMapperVirtual, 1, 1 << 20, 3, 4);
    churn(third, 100, 1000);
    EXPECT_FALSE(hasPageFile(third));

    HXLVirtualMemoryMgr defaulted(0, 0, 0); // 0x400000 bytes
    churn(defaulted, 100, 1000);
    EXPECT_FALSE(hasPageFile(defaulted));
    churn(defaulted, 600, 8000);
    EXPECT_TRUE(hasPageFile(defaulted));

    EXPECT_EQ(first.getMapper(123), nullptr);
    first.pageOut(1);
    first.setDiagnosticMode(HXLVirtualMemoryMgr::eDumpMapper);
}

TEST(HXLVirtualMemoryMgr, AllocShrinksInPlaceAndMovesOtherwise) {
    HXLVirtualMemoryMgr mgr(1 << 16, 0, 0);
    HXLVirtualPageItem item;
    char* p = static_cast<char*>(mgr.alloc(100, item));
    for (int i = 0; i < 100; ++i)
        p[i] = static_cast<char>(i);
    mgr.dismiss(item);
    const unsigned long long first = item.getOffset();

    // Smaller: same object, size lowered, bytes kept.
    p = static_cast<char*>(mgr.alloc(60, item));
    EXPECT_EQ(item.getOffset(), first);
    EXPECT_EQ(item.getSize(), 60u);
    EXPECT_EQ(p[59], 59);
    mgr.dismiss(item);

    // Between the new and the old size: only m_size is compared, so it moves.
    p = static_cast<char*>(mgr.alloc(80, item));
    EXPECT_NE(item.getOffset(), first);
    EXPECT_EQ(item.getSize(), 80u);
    for (int i = 0; i < 60; ++i)
        ASSERT_EQ(p[i], i);
    mgr.dismiss(item);
    EXPECT_EQ(mgr.getAddress(first, 1), nullptr) << "the old object is freed";

    // Equal size moves too; the bytes stay the same.
    const unsigned long long second = item.getOffset();
    p = static_cast<char*>(mgr.alloc(80, item));
    EXPECT_NE(item.getOffset(), second);
    EXPECT_EQ(p[42], 42);
    mgr.dismiss(item);

    // Size 0 on a live item keeps it live.
    HXLVirtualPageItem five;
    mgr.alloc(5, five);
    mgr.dismiss(five);
    mgr.alloc(0, five);
    mgr.dismiss(five);
    EXPECT_EQ(five.empty(), 0);
    EXPECT_EQ(five.getSize(), 0u);

    // free: empty afterwards, size kept, a second free does nothing.
    mgr.free(item);
    EXPECT_EQ(item.empty(), 1);
    EXPECT_EQ(item.getSize(), 80u);
    mgr.free(item);
    EXPECT_EQ(outstanding(mgr), 0u);
}

TEST(HXLVirtualMemoryMgr, EmptyAndInvalidItems) {
    HXLVirtualMemoryMgr mgr(1 << 16, 0, 0);
    const unsigned long long invalid = HXLVirtualPageItem::kInvalidOffset;
    EXPECT_EQ(HXLVirtualPageItem::getInvalidOffset(), invalid);
    HXLVirtualPageItem bad(invalid, 8);
    EXPECT_EQ(bad.empty(), 0);
    mgr.free(bad);
    mgr.dirty(bad);
    mgr.dismiss(bad);
    mgr.dismiss(0ULL);
    mgr.dismiss(invalid);
    EXPECT_EQ(bad.getOffset(), invalid);
    EXPECT_EQ(mgr.getAddress(bad, 1), nullptr);
    EXPECT_EQ(mgr.getAddress(0ULL, 1), nullptr);
    EXPECT_EQ(mgr.getAddress(invalid, 1), nullptr);

    // Shrinking an invalid item lowers its size and then fails.
    try {
        mgr.alloc(4, bad);
        FAIL();
    } catch (const HXLOutOfMemoryError& e) {
        EXPECT_EQ(e.getBackTrace().at(0).function, "HXLVirtualMemoryMgr::alloc");
    }
    EXPECT_EQ(bad.getOffset(), invalid);
    EXPECT_EQ(bad.getSize(), 4u);

    // Growing one makes a new object, then finds no old one to copy.
    try {
        mgr.alloc(10, bad);
        FAIL();
    } catch (const HXLAssertError& e) {
        EXPECT_STREQ(e.what(), "HXL_ASSERT(old_ptr);");
    }
    EXPECT_EQ(bad.getOffset(), invalid);
    EXPECT_EQ(bad.getSize(), 4u);
    EXPECT_EQ(outstanding(mgr), 1u); // the new object stays allocated, as mapped

    HXLVirtualPageItem cleared(77, 5);
    cleared.clear();
    EXPECT_EQ(cleared.empty(), 1);
    EXPECT_EQ(cleared.getSize(), 0u);
}

TEST(HXLVirtualMemoryMgr, StoreFailureRaisesOutOfMemory) {
    // A temporary directory that disappears once the store is made: the first page-out fails.
    char dir[] = "/tmp/hxlvmm-gone-XXXXXX";
    ASSERT_NE(::mkdtemp(dir), nullptr);
    const char* saved = std::getenv("TMPDIR");
    const std::string restore = saved ? saved : "";
    ::setenv("TMPDIR", dir, 1);
    HXLVirtualMemoryMgr mgr(1 << 16, 0, 0);
    if (saved)
        ::setenv("TMPDIR", restore.c_str(), 1);
    else
        ::unsetenv("TMPDIR");
    ::rmdir(dir);

    HXLVirtualPageItem kept;
    std::memset(mgr.alloc(100, kept), 'k', 100);
    mgr.dismiss(kept);
    bool failed = false;
    std::vector<HXLVirtualPageItem> items(20);
    for (HXLVirtualPageItem& item : items) {
        try {
            mgr.alloc(8000, item);
            mgr.dismiss(item);
        } catch (const HXLOutOfMemoryError& e) {
            EXPECT_STREQ(e.what(), "Out of memory");
            EXPECT_EQ(e.getBackTrace().at(0).function, "HXLVirtualMemoryMgr::alloc");
            EXPECT_EQ(item.empty(), 1);
            EXPECT_EQ(item.getSize(), 8000u);
            failed = true;
            break;
        }
    }
    EXPECT_TRUE(failed);
    // What was stored before is still there, byte for byte.
    const char* p = static_cast<const char*>(mgr.getAddress(kept, 1));
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(std::string(p, 100), std::string(100, 'k'));
    mgr.dismiss(kept);
}

TEST(HXLVirtualMemoryMgr, ReferenceLeakCheck) {
    HXLVirtualMemoryMgr mgr(1 << 16, 0, 0);
    const char bytes[] = "shared bytes";
    HXLVirtualPageItem pooled, again;
    mgr.allocUsingPool(bytes, sizeof(bytes), pooled);

    // Off: nothing happens, the page item pool keeps its entries.
    HXLVirtualMemoryMgr::setExceptionOnReferenceLeak(0);
    mgr.throwExceptionOnReferenceLeak();
    mgr.allocUsingPool(bytes, sizeof(bytes), again);
    EXPECT_EQ(again.getOffset(), pooled.getOffset());

    LeakSwitch on(1);
    EXPECT_EQ(HXLVirtualMemoryMgr::getExceptionOnReferenceLeak(), 1);
    mgr.throwExceptionOnReferenceLeak(); // pooled objects hold no reference
    mgr.allocUsingPool(bytes, sizeof(bytes), again);
    EXPECT_NE(again.getOffset(), pooled.getOffset()) << "the check empties the pool";

    HXLVirtualPageItem a, b;
    mgr.alloc(10, a);
    mgr.alloc(10, b);
    mgr.getAddress(a, 1); // two references on one object count once
    try {
        mgr.throwExceptionOnReferenceLeak();
        FAIL();
    } catch (const HXLIllegalStateError& e) {
        EXPECT_STREQ(e.what(), "Reference Leak Error, total objects with reference count > 0 : 2");
        EXPECT_EQ(e.getBackTrace().at(0).function,
                  "HXLVirtualMemoryMgr::throwExceptionOnReferenceLeak");
    }
    mgr.dismiss(b);
    mgr.dismiss(a);
    try {
        mgr.throwExceptionOnReferenceLeak();
        FAIL();
    } catch (const HXLIllegalStateError& e) {
        EXPECT_STREQ(e.what(), "Reference Leak Error, total objects with reference count > 0 : 1");
    }
    mgr.dismiss(a);
    mgr.throwExceptionOnReferenceLeak();

    // A manager destroyed with references outstanding raises nothing.
    auto* leaky = new HXLVirtualMemoryMgr(0, 0, 0);
    HXLVirtualPageItem held;
    leaky->alloc(100, held);
    EXPECT_NO_THROW(delete leaky);
}

TEST(HXLVirtualPageItemPool, SharesEqualBytesAndEvictsLeastRecent) {
    HXLVirtualMemoryMgr mgr(1 << 16, 0, 0);
    char one[16] = "block one", two[16] = "block two", three[16] = "block three";
    HXLVirtualPageItem i1, i2, i3, probe;

    // Equal bytes in different blocks share one object; a prefix and other bytes do not.
    std::vector<char> copy(one, one + 16);
    mgr.allocUsingPool(one, 16, i1);
    mgr.allocUsingPool(copy.data(), 16, probe);
    EXPECT_EQ(probe.getOffset(), i1.getOffset());
    EXPECT_EQ(probe.getSize(), 16u);
    HXLVirtualPageItem prefix; // a fresh item: a shared one would be shrunk in place
    mgr.allocUsingPool(one, 8, prefix);
    EXPECT_NE(prefix.getOffset(), i1.getOffset());
    EXPECT_EQ(prefix.getSize(), 8u);
    mgr.allocUsingPool(two, 16, i2);
    EXPECT_NE(i2.getOffset(), i1.getOffset());
    EXPECT_EQ(outstanding(mgr), 0u) << "a pooled object holds no reference";

    // The pool keeps no pointer to the caller's block, and the store holds the bytes.
    copy.assign(16, 'x');
    const char* stored = static_cast<const char*>(mgr.getAddress(i1, 1));
    EXPECT_STREQ(stored, "block one");
    mgr.dismiss(i1);

    // Null data or size 0 leave the item alone.
    HXLVirtualPageItem untouched(5, 6);
    mgr.allocUsingPool(nullptr, 16, untouched);
    mgr.allocUsingPool(one, 0, untouched);
    EXPECT_EQ(untouched.getOffset(), 5u);
    EXPECT_EQ(untouched.getSize(), 6u);

    // Limit 2: one, two, one (a hit, to the front), three evicts two and not one.
    mgr.setVirtualPageItemPoolSize(2);
    HXLVirtualMemoryMgr small(1 << 16, 0, 0);
    small.setVirtualPageItemPoolSize(2);
    HXLVirtualPageItem s1, s2, s3, s1b, s2b;
    small.allocUsingPool(one, 16, s1);
    small.allocUsingPool(two, 16, s2);
    small.allocUsingPool(one, 16, s1b);
    EXPECT_EQ(s1b.getOffset(), s1.getOffset());
    small.allocUsingPool(three, 16, s3);
    small.allocUsingPool(one, 16, s1b);
    EXPECT_EQ(s1b.getOffset(), s1.getOffset());
    small.allocUsingPool(two, 16, s2b);
    EXPECT_NE(s2b.getOffset(), s2.getOffset()) << "block two was evicted";
    EXPECT_NE(small.getAddress(s2, 1), nullptr) << "its first object stays allocated";
    small.dismiss(s2);

    // A hit overwrites a non-empty item without releasing what it named.
    HXLVirtualPageItem owned;
    small.alloc(32, owned);
    small.dismiss(owned);
    const unsigned long long ownedOffset = owned.getOffset();
    small.allocUsingPool(two, 16, owned);
    EXPECT_EQ(owned.getOffset(), s2b.getOffset());
    EXPECT_NE(small.getAddress(ownedOffset, 1), nullptr);
    small.dismiss(ownedOffset);

    // Limit 0: every miss makes an object, records it and evicts it at once.
    HXLVirtualMemoryMgr none(1 << 16, 0, 0);
    none.setVirtualPageItemPoolSize(0);
    HXLVirtualPageItem n1, n2;
    none.allocUsingPool(one, 16, n1);
    none.allocUsingPool(one, 16, n2);
    EXPECT_NE(n1.getOffset(), n2.getOffset());

    // Lowering the limit removes nothing at once; each miss then adds one and removes one.
    HXLVirtualMemoryMgr lowered(1 << 16, 0, 0);
    char keys[4][8] = {"k0", "k1", "k2", "k3"};
    std::vector<HXLVirtualPageItem> first(4), second(4);
    for (int i = 0; i < 3; ++i)
        lowered.allocUsingPool(keys[i], 8, first[i]);
    lowered.setVirtualPageItemPoolSize(1);
    lowered.allocUsingPool(keys[3], 8, first[3]); // evicts k0 only
    for (int i = 0; i < 4; ++i)
        lowered.allocUsingPool(keys[i], 8, second[i]);
    EXPECT_NE(second[0].getOffset(), first[0].getOffset()); // k0 was gone: a miss (evicts k1)
    EXPECT_NE(second[1].getOffset(), first[1].getOffset()); // k1 was evicted by it
}

TEST(HXLVirtualMemoryMgr, DumpMapperTexts) {
    HXLVirtualMemoryMgr mgr(1 << 16, 0, 0);
    using Lines = std::vector<std::string>;
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
    HXLVirtualPageItem large;
    mgr.alloc(20000, large);
    mgr.dismiss(large);
    churn(mgr, 30, 4000);
    const Lines lines = dumpLines(mgr, 1);
    ASSERT_GE(lines.size(), 12u);
    EXPECT_EQ(lines[2].rfind("Paging File - ", 0), 0u);
    EXPECT_EQ(lines[3].rfind("Page file size: ", 0), 0u);
    EXPECT_EQ(lines[3].substr(lines[3].size() - 6), " bytes");
    EXPECT_EQ(lines[4], "");
    EXPECT_EQ(lines[5], "Mapping Mode - libtcmalloc_virtualmm");
    EXPECT_EQ(lines[7], "Mapping Statistics - Virtual Objects (Current/Max/Cumulative): 31/31/32");
    EXPECT_EQ(lines[8].rfind("Paging Statistics - Reads: 0, Writes: ", 0), 0u);
    EXPECT_EQ(lines[10], "Large size block breakdown");
    EXPECT_EQ(lines[11], "--------------------------");
    EXPECT_EQ(lines[12], "Pages: 3, Spans: 1, Alloc: 24576 bytes");
    EXPECT_EQ(lines[13], "Fixed-size pool breakdown");
    EXPECT_EQ(lines[lines.size() - 2], "Diagnostic Options are not supported!");
}
