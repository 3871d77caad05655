// Spans and size classes: making and releasing spans, their buffers, the clock ring, the
// class lists, and the checker that walks the whole store (Engine.h, design rules).
#include "Engine.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace tcmalloc {

namespace {

[[noreturn]] void broken(const char* rule, unsigned long long detail) {
    std::fprintf(stderr, "VirtualMemoryPool: invariant broken: %s (%llu)\n", rule, detail);
    std::abort();
}

#define VMM_CHECK(cond, detail)                                                                    \
    do {                                                                                           \
        if (!(cond))                                                                               \
            broken(#cond, static_cast<unsigned long long>(detail));                                \
    } while (0)

} // namespace

VirtualMemoryPool::Engine::Engine(unsigned long long budget, const char* path)
    : m_file(path), m_memory(budget == 0 ? kPageSize : budget) {
    m_table.budget = budget == 0 ? kPageSize : budget;
    for (unsigned bits = 0; bits < 256; ++bits) // bit i of a byte -> byte i (little-endian)
        for (unsigned bit = 0; bit < 8; ++bit)
            m_spreadBits[bits] |= static_cast<unsigned long long>((bits >> bit) & 1) << (8 * bit);
    m_table.layout = FastTable::kFastLayout;
    // Classes as nextClassSize steps them, from 16 bytes to 8 KiB. Each class takes the shortest
    // span (1 to 8 pages) that wastes at most an eighth of itself: short spans make paging
    // fine-grained.
    unsigned classIndex = 0;
    for (unsigned size = kClassGranule; size <= kMaxSmallSize; size = nextClassSize(size)) {
        unsigned bestPages = kMaxSpanPages;
        for (unsigned pages = 1; pages <= kMaxSpanPages; ++pages) {
            const unsigned long long spanBytes = pages * kPageSize;
            if (spanBytes >= size && (spanBytes % size) * 8 <= spanBytes) {
                bestPages = pages;
                break;
            }
        }
        const unsigned slots = static_cast<unsigned>(bestPages * kPageSize / size);
        // An offset inside the span gives a slot index up to (bytes - 1) / size: the indices
        // past the last slot have bytes of their own, always free, so a hit needs no bound. A
        // whole number of words, which the live bitmap is spread into and `pinned` reads.
        const unsigned indices = static_cast<unsigned>((bestPages * kPageSize - 1) / size + 1);
        const unsigned countBytes = (indices + 7) / 8 * 8;
        m_classes[classIndex++] =
            SizeClass{size, bestPages, slots,  (slots + 63) / 64, countBytes, ~0ULL / size + 1, 0,
                      0,    0,         nullptr};
    }
    // The scratch vectors never grow half-way through moving spans.
    m_batch.reserve();
    m_pieces.reserve(kIoRunBytes >> kPageShift);
    m_run.reserve(kIoRunBytes >> kPageShift);
    m_hots.reserve(kIoRunBytes >> kPageShift);
    unsigned index = 0;
    for (unsigned granules = 0; granules <= kMaxSmallSize / kClassGranule; ++granules) {
        while (m_classes[index].elementSize < std::max(granules, 1u) * kClassGranule)
            ++index;
        m_classOfGranules[granules] = static_cast<unsigned short>(index);
    }
}

VirtualMemoryPool::Engine::~Engine() {
    // Every object ends with the store: no write, no check of references. Records and slot
    // counts go with the record arena, span buffers in the span arena with the span memory.
    for (unsigned long long page = 0; page < m_fastPages.size(); ++page) {
        Span* span = recordAt(page);
        if (span == nullptr)
            continue;
        page += span->pageCount - 1; // the span's other pages name it too
        if (span->resident())
            m_memory.give(span->memory, span->pageCount); // frees a buffer from the heap
    }
}

// Grows or shrinks the page map to `pages` entries, published at once; false, with the map as
// it was, beyond its capacity. New entries are null.
bool VirtualMemoryPool::Engine::resizePageMap(unsigned long long pages) {
    return m_fastPages.resize(static_cast<std::size_t>(pages));
}

void VirtualMemoryPool::Engine::mapPages(Span* span, FastSpan* hot, char* bias) {
    for (unsigned i = 0; i < span->pageCount; ++i)
        m_fastPages[span->firstPage + i] = FastPage{bias, hot};
}

FastSpan* VirtualMemoryPool::Engine::takeHot(unsigned short classIndex) {
    return static_cast<FastSpan*>(m_hotBlocks.take(hotBytes(classIndex)));
}

void VirtualMemoryPool::Engine::becomeResident(Span* span, char* memory, FastSpan* hot,
                                               SpanState state) {
    std::memset(static_cast<void*>(hot), 0, hotBytes(span->classIndex));
    hot->base = span->baseOffset();
    hot->divisor = divisorOf(span);
    hot->pageCount = span->pageCount;
    hot->owner = span;
    // Rule 13: the first release of a span made in a full store takes its print. Elsewhere a
    // new span is marked for nothing, so that its releases stay on the fast path.
    hot->flags = state == kNoCopy && nearlyFull() ? kFastFresh : 0;
    // The slot bytes from the live bitmap, eight at a time: 1 (count 0) for a live slot, 0 for
    // a free one. Bits past the last slot are 0, and the block is rounded up to 64 bytes, so
    // whole groups of eight fit.
    const unsigned char* live = reinterpret_cast<const unsigned char*>(span->live());
    unsigned char* counts = hot->counts();
    for (unsigned group = 0; group < (slotCount(span) + 7) / 8; ++group) {
        const unsigned long long bytes = m_spreadBits[live[group]];
        std::memcpy(counts + 8 * group, &bytes, 8);
    }
    span->memory = memory;
    span->hot = hot;
    setState(span, state);
    mapPages(span, hot, memory - span->baseOffset());
    m_table.residentBytes += span->bytes();
    m_ring.insert(span);
}

void VirtualMemoryPool::Engine::leaveMemory(Span* span) {
    m_ring.remove(span);
    m_table.residentBytes -= span->bytes();
    mapPages(span, nullptr, reinterpret_cast<char*>(span)); // rule 14: the record stays found
    m_memory.give(span->memory, span->pageCount);
    m_hotBlocks.give(span->hot, hotBytes(span->classIndex));
    span->memory = nullptr;
    span->hot = nullptr;
    span->state = kPagedOut;
}

Span* VirtualMemoryPool::Engine::newSpan(unsigned short classIndex, unsigned pages) {
    const unsigned words = classIndex == kLargeClass ? 1 : m_classes[classIndex].words;
    const std::size_t recordSize = sizeof(Span) + 8 * words;
    // Page numbers are 32-bit; a store that would pass them gives null.
    if (m_pageNumbers.end() + pages > 0xFFFFFFFFULL)
        return nullptr;
    // The page map grows before anything else changes, to cover the pages take() may add at
    // the end: running out of memory leaves the store as it was and gives null. A map longer
    // than the page numbers in use is harmless: its tail stays null.
    // It grows by an eighth at a time, so that a store growing page by page does not resize it
    // at every span.
    const unsigned long long mapEnd = m_pageNumbers.end() + pages;
    if (mapEnd > m_fastPages.size() && !resizePageMap(mapEnd + mapEnd / 8) &&
        !resizePageMap(mapEnd))
        return nullptr;
    char* memory = m_memory.take(pages);
    FastSpan* hot = memory != nullptr ? takeHot(classIndex) : nullptr;
    Span* span = hot != nullptr ? static_cast<Span*>(m_records.take(recordSize)) : nullptr;
    unsigned long long firstPage = 0;
    if (span != nullptr) {
        try {
            firstPage = m_pageNumbers.take(pages);
        } catch (const std::bad_alloc&) {
            m_records.give(span, recordSize);
            span = nullptr;
        }
    }
    if (span == nullptr) {
        if (hot != nullptr)
            m_hotBlocks.give(hot, hotBytes(classIndex));
        if (memory != nullptr)
            m_memory.give(memory, pages);
        return nullptr;
    }
    std::memset(static_cast<void*>(span), 0, recordSize);
    span->firstPage = static_cast<unsigned>(firstPage);
    span->pageCount = pages;
    span->classIndex = classIndex;
    span->elementSize = classIndex == kLargeClass ? 0 : m_classes[classIndex].elementSize;
    span->fileSlot = kNoSlot;
    becomeResident(span, memory, hot, kNoCopy); // nothing of it is in the page file yet
    if (classIndex == kLargeClass) {
        ++m_counts.largeSpans;
        m_counts.largePages += pages;
    } else {
        ++m_classes[classIndex].spanCount;
    }
    return span;
}

void VirtualMemoryPool::Engine::releaseSpan(Span* span) {
    if ((span->flags & kBehind) != 0)
        m_batch.removeBehind(span);
    if (span->resident())
        leaveMemory(span);
    if (span->fileSlot != kNoSlot)
        giveFileSlot(span);
    if (span->classIndex == kLargeClass) {
        --m_counts.largeSpans;
        m_counts.largePages -= span->pageCount;
    } else {
        nonFullRemove(span);
        --m_classes[span->classIndex].spanCount;
    }
    mapPages(span, nullptr, nullptr);
    try {
        m_pageNumbers.give(span->firstPage, span->pageCount);
    } catch (const std::bad_alloc&) {
        // The page numbers stay taken: offset space is lost, never handed out twice.
    }
    // Shrinks only well below its length, so that a span made and released at the end does
    // not resize it both ways.
    const unsigned long long mapEnd = m_pageNumbers.end();
    if (mapEnd + mapEnd / 4 < m_fastPages.size())
        resizePageMap(mapEnd + mapEnd / 8);
    m_records.give(span, recordBytes(span));
}

void VirtualMemoryPool::Engine::nonFullPush(Span* span) {
    SizeClass& sc = m_classes[span->classIndex];
    span->flags |= kOnNonFullList;
    span->classPrev = nullptr;
    // Resident spans go in front, so allocation rarely has to page one in.
    if (span->resident() || sc.nonFull == nullptr) {
        span->classNext = sc.nonFull;
        if (sc.nonFull)
            sc.nonFull->classPrev = span;
        sc.nonFull = span;
        return;
    }
    Span* last = sc.nonFull;
    while (last->classNext != nullptr && last->classNext->resident())
        last = last->classNext;
    span->classNext = last->classNext;
    span->classPrev = last;
    if (last->classNext)
        last->classNext->classPrev = span;
    last->classNext = span;
}

void VirtualMemoryPool::Engine::nonFullRemove(Span* span) {
    if ((span->flags & kOnNonFullList) == 0)
        return;
    SizeClass& sc = m_classes[span->classIndex];
    if (span->classPrev)
        span->classPrev->classNext = span->classNext;
    else
        sc.nonFull = span->classNext;
    if (span->classNext)
        span->classNext->classPrev = span->classPrev;
    span->classPrev = span->classNext = nullptr;
    span->flags &= static_cast<unsigned char>(~kOnNonFullList);
}

void VirtualMemoryPool::Engine::checkSpan(const Span* span) const {
    const unsigned slots = slotCount(span);
    const unsigned long long base = span->baseOffset();
    unsigned live = 0, pinnedSlots = 0;
    for (unsigned word = 0; word < bitmapWords(span); ++word)
        live += static_cast<unsigned>(__builtin_popcountll(span->live()[word]));
    VMM_CHECK(live == span->liveCount, base);
    VMM_CHECK(slots == 64 * bitmapWords(span) || (span->live()[slots >> 6] >> (slots & 63)) == 0,
              base); // no bit beyond the last slot
    VMM_CHECK(span->state <= kPagedOut, span->state);
    if (span->resident()) { // rule 14
        const FastSpan* hot = span->hot;
        VMM_CHECK(span->memory != nullptr && hot != nullptr, base);
        VMM_CHECK(reinterpret_cast<std::uintptr_t>(hot) % kHotAlign == 0, base);
        VMM_CHECK(hot->owner == span && hot->base == base && hot->pageCount == span->pageCount,
                  base);
        VMM_CHECK(hot->divisor == divisorOf(span), base);
        VMM_CHECK(((hot->flags & kFastWriteSlow) != 0) ==
                      (span->state == kPrinted || span->state == kExact),
                  base);
        VMM_CHECK((hot->flags & kFastScanUsed) == 0 || !pinned(span), base); // rule 12
        for (unsigned i = 0; i < span->pageCount; ++i) {
            const FastPage& entry = m_fastPages[span->firstPage + i];
            VMM_CHECK(entry.span == hot && entry.bias == span->memory - base, base + i);
        }
        const unsigned char* counts = span->hot->counts();
        for (unsigned slot = 0; slot < slots; ++slot) {
            VMM_CHECK(span->isLive(slot) == (counts[slot] != kFreeSlot), slotOffset(span, slot));
            VMM_CHECK(counts[slot] != kCountInTable ||
                          m_bigCounts.count(slotOffset(span, slot)) == 1,
                      slotOffset(span, slot));
            pinnedSlots += counts[slot] > kCountZero;
        }
        const std::size_t countBytes = hotBytes(span->classIndex) - FastSpan::kCountsOffset;
        for (std::size_t index = slots; index < countBytes; ++index)
            VMM_CHECK(counts[index] == kFreeSlot, base);     // past the last slot: never live
        VMM_CHECK((pinnedSlots != 0) == pinned(span), base); // rule 1
    } else {                                                 // rule 9
        VMM_CHECK(span->memory == nullptr && span->hot == nullptr, base);
        VMM_CHECK(span->ringNext == nullptr && span->fileSlot != kNoSlot, base);
        for (unsigned i = 0; i < span->pageCount; ++i) {
            const FastPage& entry = m_fastPages[span->firstPage + i];
            VMM_CHECK(entry.span == nullptr && entry.bias == reinterpret_cast<const char*>(span),
                      base + i);
        }
    }
    VMM_CHECK(span->state != kMaybe || span->fileSlot != kNoSlot, base);
    VMM_CHECK(span->state != kExact || span->fileSlot != kNoSlot, base);
    VMM_CHECK(span->fileSlot == kNoSlot || m_file.ownerAt(span->fileSlot) == span, base);
    // Rule 18: between calls the batch holds only spans written behind.
    VMM_CHECK((span->flags & kInBatch) == 0 || (span->flags & kBehind) != 0, base);
    VMM_CHECK((span->flags & kBehind) == 0 || (span->flags & kInBatch) != 0, base);
    VMM_CHECK(span->state != kPrinted ||
                  fingerprint(span->memory, span->bytes()) == span->fingerprint,
              base); // rule 13
    if (span->classIndex != kLargeClass) {
        const SizeClass& sc = m_classes[span->classIndex];
        VMM_CHECK(((span->flags & kOnNonFullList) != 0) == (span->liveCount < sc.slots), base);
    }
}

void VirtualMemoryPool::Engine::verify() const {
    unsigned long long resident = 0, objects = 0, bigCounts = 0, batched = 0;
    unsigned long long pagesMapped = 0, filePages = 0, slots = 0, arenaPages = 0;
    VMM_CHECK(m_table.pages == reinterpret_cast<const FastPage*>(&m_table + 1) &&
                  m_table.pageCount == m_fastPages.size(),
              m_table.pageCount); // rule G2 and the table's layout
    for (std::size_t page = m_fastPages.size();
         page < std::min(m_fastPages.size() + 64, m_fastPages.capacity()); ++page)
        VMM_CHECK(m_table.pages[page].span == nullptr && m_table.pages[page].bias == nullptr,
                  page); // rule G2, near the end
    std::vector<unsigned> emptySpans(kClassCount, 0);
    std::vector<unsigned long long> classObjects(kClassCount, 0);
    for (unsigned long long page = 0; page < m_fastPages.size(); ++page) {
        const Span* span = recordAt(page);
        if (span == nullptr) {
            VMM_CHECK(m_fastPages[page].bias == nullptr, page); // rule 14
            continue;
        }
        ++pagesMapped;
        VMM_CHECK(page >= span->firstPage && page < span->firstPage + span->pageCount, page);
        if (span->firstPage != page)
            continue;
        checkSpan(span);
        if (span->resident()) {
            resident += span->bytes();
            if (m_memory.inArena(span->memory))
                arenaPages += span->pageCount;
            for (unsigned slot = 0; slot < slotCount(span); ++slot)
                bigCounts += span->counts()[slot] == kCountInTable;
        }
        if (span->fileSlot != kNoSlot) {
            filePages += span->pageCount;
            ++slots;
        }
        if (span->classIndex != kLargeClass) {
            emptySpans[span->classIndex] += span->liveCount == 0;
            classObjects[span->classIndex] += span->liveCount;
        }
        objects += span->liveCount;
        batched += (span->flags & kInBatch) != 0;
    }
    // Rule 16: the count of empty spans per class is exact and bounded; so is its count of
    // objects, which the statistics report.
    for (std::size_t index = 0; index < kClassCount; ++index) {
        VMM_CHECK(classObjects[index] == m_classes[index].liveObjects, index);
        VMM_CHECK(emptySpans[index] == m_classes[index].emptySpans, index);
        VMM_CHECK(emptySpans[index] <= kKeptEmptySpans, index);
    }
    // Rule 2: the ring holds the resident spans, each once; after a sweep that found every span
    // pinned, none is unpinned until the table says that something was let go.
    unsigned long long ringLength = 0, ringUnpinned = 0, residentSpans = 0, scanMarked = 0;
    if (m_ring.hand() != nullptr) {
        const Span* span = m_ring.hand();
        do {
            VMM_CHECK(span->resident(), span->firstPage);
            VMM_CHECK(recordAt(span->firstPage) == span, span->firstPage);
            VMM_CHECK(span->ringNext->ringPrev == span, span->firstPage);
            ringUnpinned += !pinned(span);
            scanMarked += (span->hotFlags() & kFastScan) != 0;
            ++ringLength;
            span = span->ringNext;
        } while (span != m_ring.hand() && ringLength <= m_fastPages.size());
    }
    for (unsigned long long page = 0; page < m_fastPages.size(); ++page) {
        const Span* span = recordAt(page);
        residentSpans += span != nullptr && span->firstPage == page && span->resident();
    }
    VMM_CHECK(ringLength == residentSpans, ringLength);
    VMM_CHECK(ringLength == m_ring.size(), ringLength);
    VMM_CHECK(!m_allPinned || m_table.released != 0 || ringUnpinned == 0, ringUnpinned);
    // Rule 12: a resident span marked as read in file order has its current entry in the queue.
    unsigned long long scanQueued = 0;
    for (const ScanEntry& entry : m_scanQueue.entries())
        scanQueued +=
            isCurrent(entry) && entry.span->resident() && (entry.span->hotFlags() & kFastScan) != 0;
    VMM_CHECK(scanQueued == scanMarked, scanMarked);
    VMM_CHECK(resident == m_table.residentBytes, resident); // rule 3
    VMM_CHECK(bigCounts == m_bigCounts.size(), bigCounts);
    VMM_CHECK(objects == m_counts.objectsCurrent, objects);
    unsigned long long behindBytes = 0;
    for (const BatchEntry& entry : m_batch.entries()) {
        VMM_CHECK((entry.span->flags & kBehind) != 0, entry.span->firstPage);
        VMM_CHECK(entry.span->resident(), entry.span->firstPage);
        behindBytes += entry.span->bytes();
    }
    VMM_CHECK(m_batch.leavingBytes() == 0 && m_batch.leavingSpans() == 0, m_batch.leavingSpans());
    VMM_CHECK(behindBytes == m_batch.behindBytes(), behindBytes);
    VMM_CHECK(batched == m_batch.entries().size(), batched); // kInBatch names the batch's spans
    VMM_CHECK(pagesMapped + m_pageNumbers.freeUnits() + 1 == m_pageNumbers.end(), pagesMapped);
    VMM_CHECK(filePages == m_file.pagesInUse(), filePages); // rule 6 and P2
    VMM_CHECK(slots == m_file.ownerCount(), slots);
    VMM_CHECK(m_memory.consistent(arenaPages), arenaPages); // rule M2
}

} // namespace tcmalloc
