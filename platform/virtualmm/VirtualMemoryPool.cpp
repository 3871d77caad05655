// The calls of the paging engine's interface (Engine.h states the design).
#include "Engine.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace tcmalloc {

unsigned VirtualMemoryPool::Engine::countOf(const Span* span, unsigned slot) const {
    const unsigned char count = span->counts()[slot];
    return count == kCountInTable ? m_bigCounts.at(slotOffset(span, slot)) : count - kCountZero;
}

// Raises the object's count by 1; false, with nothing changed, when it is at its largest or
// the overflow table cannot grow.
bool VirtualMemoryPool::Engine::pin(Span* span, unsigned slot) {
    unsigned char& count = span->counts()[slot];
    if (count == kCountZero) {
        count = kCountZero + 1;
        // A used scan span is unpinned (rule 12): this pin uses it twice, so it is no scan
        // span any more.
        if ((span->hotFlags() & kFastScanUsed) != 0)
            span->hotFlags() &= static_cast<unsigned char>(~(kFastScan | kFastScanUsed));
        return true;
    }
    if (count < kCountInTable - 1) {
        ++count;
        return true;
    }
    return pinInTable(span, slot);
}

void VirtualMemoryPool::Engine::unpin(Span* span, unsigned slot) {
    unsigned char& count = span->counts()[slot];
    if (count == kCountInTable) {
        unpinInTable(span, slot);
        return;
    }
    if (--count != kCountZero)
        return;
    // What the fast path does on its own (rule 15); only a new or scan span, or a store over
    // its budget, needs to know whether the span is still pinned.
    countGone(span);
    if (fastUnpinIsEngines(m_table, span->hotFlags()) && !pinned(span))
        spanUnpinned(span);
}

// A count of the resident span went to 0, as every release to 0 marks it, the fast path's too.
void VirtualMemoryPool::Engine::countGone(Span* span) {
    m_table.released = 1;
    if ((span->hotFlags() & kFastScan) == 0)
        span->hotFlags() |= kFastReferenced;
}

// The span's last pin went. A span read in file order earns no second chance from its first
// use (rule 12); a span that came in may have its fingerprint taken (rule 13); what was pinned
// may have held the store above its budget, and a failed page-out here is retried by the next
// call that needs room (rule 8).
void VirtualMemoryPool::Engine::spanUnpinned(Span* span) {
    unsigned char& flags = span->hotFlags();
    flags |= (flags & kFastScan) != 0 ? kFastScanUsed : kFastReferenced;
    if ((flags & kFastFresh) != 0)
        takePrint(span);
    if (m_table.residentBytes > m_table.budget)
        makeRoom(0);
}

// Counts from 255 up live in the overflow table.
bool VirtualMemoryPool::Engine::pinInTable(Span* span, unsigned slot) {
    unsigned char& count = span->counts()[slot];
    const unsigned long long offset = slotOffset(span, slot);
    if (count == kCountInTable) {
        unsigned& big = m_bigCounts.find(offset)->second;
        if (big == kMaxCount)
            return false;
        ++big;
        return true;
    }
    try {
        m_bigCounts.emplace(offset, kCountInTable - kCountZero);
    } catch (const std::bad_alloc&) {
        return false;
    }
    count = kCountInTable;
    return true;
}

void VirtualMemoryPool::Engine::unpinInTable(Span* span, unsigned slot) {
    auto it = m_bigCounts.find(slotOffset(span, slot));
    if (--it->second == kCountInTable - kCountZero - 1) {
        m_bigCounts.erase(it);
        span->counts()[slot] = kCountInTable - 1;
    }
}

void* VirtualMemoryPool::Engine::allocate(unsigned long long size, PageItem& item) {
    item.offset = 0;
    if (size <= kMaxSmallSize) {
        // The usual case, without a call: a resident span of the class that holds objects and
        // keeps a free slot after this one. allocateSlow does the same and the rest.
        SizeClass& sc = m_classes[classOf(size)];
        Span* span = sc.nonFull;
        if (span != nullptr && span->resident() && span->liveCount != 0 &&
            span->liveCount + 1u < sc.slots) {
            ++sc.liveObjects;
            return placeObject(span, lowestFreeSlot(span), item);
        }
    }
    return allocateSlow(size, item);
}

void* VirtualMemoryPool::Engine::allocateSlow(unsigned long long size, PageItem& item) {
    Span* span;
    unsigned slot = 0;
    if (size <= kMaxSmallSize) {
        const unsigned short classIndex = classOf(size);
        SizeClass& sc = m_classes[classIndex];
        span = sc.nonFull;
        if (span != nullptr) {
            if (!span->resident() && !pageIn(span))
                return nullptr;
        } else {
            if (!makeRoom(sc.pages * kPageSize))
                return nullptr;
            span = newSpan(classIndex, sc.pages);
            if (span == nullptr)
                return nullptr;
            nonFullPush(span);
            ++sc.emptySpans;
        }
        if (span->liveCount == 0)
            --sc.emptySpans;
        slot = lowestFreeSlot(span);
        if (span->liveCount + 1u == sc.slots)
            nonFullRemove(span);
        ++sc.liveObjects;
    } else {
        // Page counts are 32-bit; refuse before the rounding below could wrap.
        if (size > (0xFFFFFFFFULL << kPageShift))
            return nullptr;
        const unsigned long long pages = (size + kPageSize - 1) >> kPageShift;
        if (!makeRoom(pages * kPageSize))
            return nullptr;
        span = newSpan(kLargeClass, static_cast<unsigned>(pages));
        if (span == nullptr)
            return nullptr;
    }
    return placeObject(span, slot, item);
}

// The lowest free slot: a span on the non-full list has one below its slot count.
unsigned VirtualMemoryPool::Engine::lowestFreeSlot(const Span* span) {
    const unsigned long long* live = span->live();
    unsigned word = 0;
    while (live[word] == ~0ULL)
        ++word;
    return word * 64 + static_cast<unsigned>(__builtin_ctzll(~live[word]));
}

// A new object in `slot` of the resident `span`, with count 1 and mapped for writing; its
// class's list and counts are the caller's.
void* VirtualMemoryPool::Engine::placeObject(Span* span, unsigned slot, PageItem& item) {
    FastSpan* hot = span->hot;
    span->live()[slot >> 6] |= 1ULL << (slot & 63);
    ++span->liveCount;
    if (++m_counts.objectsCurrent > m_counts.objectsMax)
        m_counts.objectsMax = m_counts.objectsCurrent;
    ++m_counts.allocations;
    hot->counts()[slot] = kCountZero + 1; // a new object has count 1
    // Mapped for writing: a scan span used twice is none any more.
    hot->flags &= static_cast<unsigned char>(~(kFastScan | kFastScanUsed));
    mappedForWriting(span);
    item.offset = slotOffset(span, slot);
#if HXL_VMM_CHECK_LEVEL >= 1
    checkSpan(span);
#endif
    return span->memory + (item.offset - span->baseOffset());
}

void* VirtualMemoryPool::Engine::getAddress(unsigned long long offset, bool forWriting) {
    unsigned slot;
    Span* span = find(offset, slot);
    if (span == nullptr)
        return nullptr;
    if ((!span->resident() && !pageIn(span)) || !pin(span, slot))
        return nullptr;
    if (forWriting)
        mappedForWriting(span);
    return span->memory + (offset - span->baseOffset());
}

// The span may change: an exact copy becomes maybe stale, a fingerprint taken is void.
void VirtualMemoryPool::Engine::mappedForWriting(Span* span) {
    if (span->state == kExact)
        setState(span, kMaybe);
    else if (span->state == kPrinted)
        setState(span, kNoCopy);
}

void VirtualMemoryPool::Engine::dismiss(unsigned long long offset) {
    unsigned slot;
    Span* span = find(offset, slot);
    // No object, or one that holds no reference (a paged-out span holds none): misuse.
    if (span == nullptr || !span->resident() || span->counts()[slot] == kCountZero) {
        misused(offset);
        return;
    }
    unpin(span, slot);
}

void VirtualMemoryPool::Engine::misused(unsigned long long offset) {
    ++m_table.misuses;
    m_table.misuseOffset = offset;
}

void VirtualMemoryPool::Engine::dirty(unsigned long long offset) {
    unsigned slot;
    Span* span = find(offset, slot);
    if (span != nullptr && span->resident())
        mappedForWriting(span);
}

void VirtualMemoryPool::Engine::deallocate(unsigned long long offset) {
    unsigned slot;
    // The usual case, without a call: an unpinned object of a resident small span that keeps
    // other objects and is on its class's list already, found through the hot block alone (a
    // page with one is resident: rule 14). endObject does the same and the rest.
    const unsigned long long page = offset >> kPageShift;
    FastSpan* hot = page < m_fastPages.size() ? m_fastPages[page].span : nullptr;
    if (hot != nullptr && fastSlot(offset - hot->base, hot->divisor, slot)) {
        unsigned char* count = hot->counts() + slot;
        Span* span = static_cast<Span*>(hot->owner);
        if (*count == kCountZero && span->liveCount > 1 && (span->flags & kOnNonFullList) != 0) {
            *count = kFreeSlot;
            dropSlot(span, slot);
            --m_classes[span->classIndex].liveObjects;
            return;
        }
    }
    Span* span = find(offset, slot);
    if (span == nullptr) { // freed already, or never an object
        misused(offset);
        return;
    }
    endObject(span, slot);
}

void VirtualMemoryPool::Engine::endObject(Span* span, unsigned slot) {
    bool unpinnedNow = false;
    if (span->resident()) {
        unsigned char& count = span->counts()[slot];
        const bool wasPinned = count > kCountZero;
        if (count == kCountInTable) // its references go with it
            m_bigCounts.erase(slotOffset(span, slot));
        count = kFreeSlot;
        if (wasPinned) { // as a release of its count to 0 would
            countGone(span);
            unpinnedNow = !pinned(span);
        }
    }
    dropSlot(span, slot);
    if (span->classIndex == kLargeClass) {
        releaseSpan(span);
        return;
    }
    --m_classes[span->classIndex].liveObjects;
    if (span->liveCount == 0 && !keepEmptied(span))
        return;
    if ((span->flags & kOnNonFullList) == 0)
        nonFullPush(span);
    // Ending a pinned object may have unpinned a span that held the store above its budget
    // (rule 3), as the last dismiss would have.
    if (unpinnedNow && m_table.residentBytes > m_table.budget)
        makeRoom(0);
}

// A small span left with no object stays on its class's list while resident (rule 16); false
// when the span was released instead.
bool VirtualMemoryPool::Engine::keepEmptied(Span* span) {
    SizeClass& sc = m_classes[span->classIndex];
    if (sc.emptySpans >= kKeptEmptySpans || !span->resident()) {
        releaseSpan(span);
        return false;
    }
    ++sc.emptySpans;
    if (span->fileSlot != kNoSlot)
        giveFileSlot(span);  // its bytes mean nothing any more
    setState(span, kNoCopy); // a page-out must find it a slot again
    return true;
}

void VirtualMemoryPool::Engine::extractStats(VirtualMemoryStats* stats, unsigned long long size,
                                             unsigned long long& needed) {
    unsigned poolCount = 0;
    for (const SizeClass& sc : m_classes)
        poolCount += sc.spanCount > 0;
    const unsigned long long recordSize =
        VirtualMemoryStats::kFixedPoolsOffset + poolCount * sizeof(VirtualMemoryFixedPoolStats);
    needed = recordSize;
    if (stats == nullptr || size < recordSize)
        return;
    std::memset(static_cast<void*>(stats), 0, recordSize);
    stats->pageSize = kPageSize;
    stats->residentBudget = m_table.budget;
    stats->residentBytes = m_table.residentBytes;
    stats->objectsCurrent = m_counts.objectsCurrent;
    stats->objectsMax = m_counts.objectsMax;
    stats->objectsCumulative = m_counts.allocations;
    stats->pageDrops = m_counts.pageDrops;
    stats->pageFileSize = m_file.sizeInBytes();
    stats->pageReads = m_counts.pageReads;
    stats->pageOuts = m_counts.pageOuts;
    stats->pageWrites = m_counts.pageWrites;
    stats->largePages = m_counts.largePages;
    stats->largeSpans = m_counts.largeSpans;
    stats->fixedPoolCount = poolCount;
    std::snprintf(stats->pageFileName, sizeof(stats->pageFileName), "%s", m_file.name().c_str());
    unsigned index = 0;
    for (const SizeClass& sc : m_classes) {
        if (sc.spanCount == 0)
            continue;
        VirtualMemoryFixedPoolStats* pool = stats->fixedPool(index++);
        const unsigned long long slots = static_cast<unsigned long long>(sc.spanCount) * sc.slots;
        pool->allocBytes = sc.liveObjects * sc.elementSize;
        pool->freeBytes = (slots - sc.liveObjects) * sc.elementSize;
        pool->spans = sc.spanCount;
        pool->pages = sc.spanCount * sc.pages;
        pool->elementSize = sc.elementSize;
        pool->objects = static_cast<unsigned>(sc.liveObjects);
    }
}

unsigned long long VirtualMemoryPool::Engine::outstanding(VirtualMemoryReferenceInfo* info,
                                                          unsigned long long count,
                                                          unsigned long long* total) {
    // Read from the slot bytes of the resident spans, where every pinned object lies (rule 7).
    unsigned long long objects = 0, sum = 0, written = 0;
    const Span* span = m_ring.hand();
    for (unsigned long long n = 0; n < m_ring.size(); ++n, span = span->ringNext) {
        if (!pinned(span))
            continue;
        for (unsigned slot = 0; slot < slotCount(span); ++slot) {
            if (span->counts()[slot] <= kCountZero)
                continue;
            const unsigned refs = countOf(span, slot);
            ++objects;
            sum += refs;
            if (info != nullptr && written < count)
                info[written++] = {slotOffset(span, slot), refs};
        }
    }
    if (total != nullptr)
        *total = sum;
    return objects;
}

// ------------------------------------------------------------------------------------------
// The public face: offsets in PageItem records.

VirtualMemoryPool::VirtualMemoryPool(unsigned long long size, const char* path)
    : m_engine(new Engine(size, path)) {}

VirtualMemoryPool::~VirtualMemoryPool() {
    delete m_engine;
}

void* VirtualMemoryPool::Allocate(unsigned long long size, PageItem& item) {
    return m_engine->allocate(size, item);
}

void* VirtualMemoryPool::GetAddress(PageItem& item, bool flag) {
    return m_engine->getAddress(item.offset, flag);
}

void VirtualMemoryPool::Dismiss(PageItem& item) {
    m_engine->dismiss(item.offset);
}

void VirtualMemoryPool::Dirty(PageItem& item) {
    m_engine->dirty(item.offset);
}

void VirtualMemoryPool::Deallocate(PageItem& item) {
    m_engine->deallocate(item.offset);
}

void VirtualMemoryPool::ExtractStats(VirtualMemoryStats* stats, unsigned long long size,
                                     unsigned long long& needed) {
    m_engine->extractStats(stats, size, needed);
}

unsigned long long VirtualMemoryPool::GetOutstandingReferences(VirtualMemoryReferenceInfo* info,
                                                               unsigned long long count,
                                                               unsigned long long* total) {
    return m_engine->outstanding(info, count, total);
}

void VirtualMemoryPool::SetIo(const VirtualMemoryIo* io) {
    m_engine->setIo(io);
}

void VirtualMemoryPool::Verify() const {
    m_engine->verify();
}

} // namespace tcmalloc

extern "C" tcmalloc::FastTable*
tcmalloc_VirtualMemoryPool_FastTable(tcmalloc::VirtualMemoryPool* pool) {
    return pool->m_engine->fastTable();
}

namespace tcmalloc {} // namespace tcmalloc
