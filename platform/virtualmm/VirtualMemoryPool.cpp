// The paging engine: spans, size classes, the clock, and the public face.
//
// Glossary
//   page        8 KiB of the store's offset space. Page numbers start at 1, so no object
//               offset is 0; offset = page number * 8192 + place in the span.
//   span        a run of pages holding either slots of one size class or one large object.
//               The span is the unit of residence and of paging.
//   size class  a slot size (16 bytes to 8 KiB); small objects take the smallest slot that
//               fits them.
//   page map    a vector indexed by page number giving the span that covers it: offset to
//               address is one shift, one load and a subtraction, no hashing, no search.
//   span record what the engine keeps of a span in or out of memory: about 90 bytes and one bit
//               per slot (the live bitmap). A paged-out span costs nothing else: a 64-byte
//               object pays under a byte for its bookkeeping.
//   slot byte   one per slot, only while the span is resident: 0 for a free slot, else 1 plus
//               the object's reference count; 255 means "look in the overflow table", which
//               holds counts from 254 up. A resident span's liveness is read from its slot
//               bytes, so the hit path does not touch the live bitmap.
//   pinned      a span with at least one object whose reference count is above 0.
//   clock ring  every resident span, in a circle. A hand sweeps it when room is needed: a
//               pinned span is passed over, a span released since the hand last passed it
//               (its referenced bit) gets a second chance, any other span leaves memory.
//   copy        the span's bytes in its file slot (PageFile.h), with their fingerprint
//               (Fingerprint.h). Its state: none (must be written), exact (equal to memory),
//               or maybe stale (mapped for writing since: the fingerprint decides).
//
// Design rules
//   1. A pinned span is resident and never moves; only unpinned spans leave memory.
//   2. The clock ring holds exactly the resident spans; unpinnedResident counts those of them
//      that are not pinned, so a sweep knows when nothing can be evicted.
//   3. residentBytes is the sum of the sizes of resident spans. After any call returns it is at
//      most the budget, plus what pinned spans hold, plus spans whose page-out failed.
//   4. A span leaves memory without a write when its copy is exact, or when it is maybe stale
//      and its fingerprint has not changed; only a span with no copy or changed bytes is
//      written. Flag true and Dirty make an exact copy maybe stale; flag false leaves it exact,
//      so what is written through such an address may be lost.
//   5. A span keeps its file slot from its first write until it is released or left empty, so
//      a span that goes out again is written over its own slot.
//   6. The page map covers exactly the pages of live spans; released page numbers and file
//      slots go back to their extent allocators and are reused.
//   7. outstanding counts the objects whose reference count is above 0; it changes only when a
//      count moves between 0 and 1.
//   8. An I/O failure never changes an object's bytes or frees one: a failed write leaves the
//      span resident (with no copy, since its slot may now hold half of it); a failed or
//      damaged read leaves it paged out with its slot and fingerprint intact.
//   9. A paged-out span has an exact copy, a file slot whose owner it is, no slot counts and no
//      place in the ring. A page-in admits its bytes only if their fingerprint is the one kept
//      when they were written.
//  10. Spans leave memory in batches: a sweep that must evict goes on until a batch's worth
//      (256 KiB, at most a sixteenth of the budget) is free, and writes what it must in
//      gathered runs of adjacent file slots.
//  11. A page-in at the file slot that follows the last one read reads ahead: the paged-out
//      spans whose slots follow it, up to 256 KiB (at most a quarter of the budget), in one
//      gathered read. Read-ahead stops at a free slot or a resident span, so it never makes a
//      second copy of a span in memory.
//  12. Spans read in file order go on the scan queue and leave memory before the clock sweeps,
//      oldest first, until one of them is used a second time: a scan through data larger than
//      the budget cycles through its own few spans and leaves the rest of memory alone.
//  13. In a full store (within a batch's worth of its budget) the first release of a span that
//      came in takes its fingerprint while its bytes are still in cache: an unchanged span's
//      copy is exact again; a changed or new one keeps the print (kPrintTaken) until it is
//      mapped for writing again, so the sweep writes it without reading its bytes twice.
//
// Span states and the functions that move a span between them (pinned is "resident" with a
// count above 0; it keeps its copy state):
//
//   state            entered by                           left by
//   free             the start; releaseSpan               newSpan -> resident, no copy
//   resident, none   newSpan; a failed write; emptied     makeRoom -> flushBatch writes it
//                                                         -> paged out
//   resident, maybe  Allocate, GetAddress(true) or Dirty  makeRoom: fingerprint unchanged ->
//                    on an exact span                     evict (drop); changed -> flushBatch
//   resident, exact  pageIn (asked for or read ahead)     Allocate, GetAddress(true), Dirty ->
//                                                         maybe; makeRoom -> evict (drop)
//   pinned           pin: Allocate, GetAddress            unpin of its last reference
//   paged out        evict, called by makeRoom's sweep    pageIn: GetAddress, Allocate
//   any state: releaseSpan, when the last object of the span is deallocated -> free
#include "VirtualMemoryPool.h"

#include "Fingerprint.h"
#include "PageFile.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <new>
#include <string>
#include <unordered_map>
#include <vector>

#ifndef HXL_VMM_CHECK_LEVEL
#ifdef NDEBUG
#define HXL_VMM_CHECK_LEVEL 0
#else
#define HXL_VMM_CHECK_LEVEL 1
#endif
#endif

// Keeps a rarely taken path out of the function that calls it.
#define HXL_VMM_COLD __attribute__((noinline, cold))

namespace tcmalloc {

namespace {

const unsigned kMaxSmallSize = 8192; // larger objects get spans of their own
const unsigned kClassGranule = 16;   // sizes are rounded to 16 bytes; addresses aligned
const unsigned kMaxSpanPages = 8;    // a small-object span is at most 64 KiB
const unsigned short kLargeClass = 0xFFFF;
const unsigned kCachedBufferPages = 32;               // span buffers up to 256 KiB are recycled
const unsigned long long kBufferCacheBytes = 2 << 20; // at most this much kept for reuse
const unsigned long long kIoRunBytes = 256 << 10;     // eviction batch and read-ahead run
const unsigned char kFreeSlot = 0;                    // slot byte of a slot with no object
const unsigned char kCountZero = 1;       // slot byte of an object with count 0; count n is 1 + n
const unsigned char kCountInTable = 0xFF; // slot byte: the count (254 or more) is in the table
const unsigned kMaxCount = 0xFFFFFFFEu;   // a reference count never goes beyond

enum CopyState : unsigned char { kCopyNone, kCopyMaybe, kCopyExact };
enum SpanFlag : unsigned char {
    kReferenced = 1,    // released since the clock hand last passed
    kOnNonFullList = 2, // on its class's list of spans with free slots
    kInBatch = 4,       // chosen by a sweep to be written, still resident
    kScan = 8,          // read in file order and not used twice since: on the scan queue
    kScanUsed = 16,     // a kScan span that has been pinned and released once
    kFresh = 32,        // came in (new or read back) and not released since
    kPrintTaken = 64,   // no copy, but the fingerprint of its bytes as they are is taken
};

[[noreturn]] void broken(const char* rule, unsigned long long detail) {
    std::fprintf(stderr, "VirtualMemoryPool: invariant broken: %s (%llu)\n", rule, detail);
    std::abort();
}

#define VMM_CHECK(cond, detail)                                                                    \
    do {                                                                                           \
        if (!(cond))                                                                               \
            broken(#cond, static_cast<unsigned long long>(detail));                                \
    } while (0)

// A span record. The live bitmap follows it in the same allocation: one bit per slot, set
// while the slot holds an object.
struct Span {
    // Paging, the clock and the class lists.
    unsigned long long fingerprint; // of the copy in the file slot, or with kPrintTaken of the
                                    // bytes in memory
    Span* ringPrev;                 // clock ring links (resident spans only)
    Span* ringNext;
    Span* classPrev; // the class's list of spans with free slots
    Span* classNext;
    unsigned fileSlot;  // first file page of its copy, or kNoSlot
    unsigned scanStamp; // tells its entry on the scan queue from stale ones
    unsigned short classIndex;
    unsigned short liveCount; // slots holding an object (at most 512)
    // What GetAddress and Dismiss read, last, so that it shares cache lines with the bitmap.
    unsigned firstPage;      // page numbers are 32-bit: a store spans at most 32 TiB of offsets
    unsigned elementSize;    // slot size; 0 for a span of one large object
    unsigned slotMagic;      // ceil(2^32 / elementSize): slot = delta * slotMagic >> 32
    unsigned pageCount;      // pages of the span
    unsigned short pinCount; // objects with a reference count above 0
    unsigned char copy;      // CopyState
    unsigned char flags;     // SpanFlag bits
    char* memory;            // the span's bytes while resident, else null
    unsigned char* refs;     // slot counts while resident, else null

    unsigned long long* live() { return reinterpret_cast<unsigned long long*>(this + 1); }
    const unsigned long long* live() const {
        return reinterpret_cast<const unsigned long long*>(this + 1);
    }
    bool isLive(unsigned slot) const { return (live()[slot >> 6] >> (slot & 63)) & 1; }
    unsigned long long bytes() const {
        return static_cast<unsigned long long>(pageCount) << kPageShift;
    }
    unsigned long long baseOffset() const {
        return static_cast<unsigned long long>(firstPage) << kPageShift;
    }
};
static_assert(sizeof(Span) == 88, "a span record is 88 bytes and its bitmap");

struct SizeClass {
    unsigned elementSize;
    unsigned pages;
    unsigned slots;
    unsigned words; // 64-bit words of the live bitmap
    unsigned spanCount;
    unsigned emptySpans; // spans of this class with no object, kept for reuse
    unsigned long long liveObjects;
    Span* nonFull; // spans with free slots; resident ones are put in front
};

// Span records and slot counts come from here rather than from the process heap: they are
// small, many and long-lived, and would otherwise sit between span buffers in the heap and
// keep it from giving memory back. Sizes are rounded to 8 bytes; each size has a free list.
class RecordArena {
public:
    static const std::size_t kLargest = 512;

    ~RecordArena() {
        for (void* chunk : m_chunks)
            std::free(chunk);
    }
    void* take(std::size_t bytes) {
        const std::size_t units = (bytes + 7) / 8;
        if (void* record = m_free[units]) {
            m_free[units] = *static_cast<void**>(record);
            return record;
        }
        if (m_chunkLeft < units * 8) {
            if (m_chunks.size() == m_chunks.capacity()) {
                try {
                    m_chunks.reserve(m_chunks.size() * 2 + 16);
                } catch (const std::bad_alloc&) {
                    return nullptr;
                }
            }
            void* chunk = std::malloc(kChunkBytes);
            if (chunk == nullptr)
                return nullptr;
            m_chunks.push_back(chunk); // cannot throw: capacity was reserved
            m_chunkNext = static_cast<char*>(chunk);
            m_chunkLeft = kChunkBytes; // the rest of the old chunk is a few bytes at most
        }
        void* record = m_chunkNext;
        m_chunkNext += units * 8;
        m_chunkLeft -= units * 8;
        return record;
    }
    void give(void* record, std::size_t bytes) {
        const std::size_t units = (bytes + 7) / 8;
        *static_cast<void**>(record) = m_free[units];
        m_free[units] = record;
    }

private:
    static const std::size_t kChunkBytes = 256 << 10;
    void* m_free[kLargest / 8 + 1] = {};
    std::vector<void*> m_chunks;
    char* m_chunkNext = nullptr;
    std::size_t m_chunkLeft = 0;
};

// A span read in file order, as it was when it came in: the entry is stale once the span at
// that page is another, has left memory or came in again (another stamp).
struct ScanEntry {
    Span* span;
    unsigned firstPage;
    unsigned stamp;
};

// One span that a sweep chose to write, with the fingerprint of the bytes it writes.
struct BatchEntry {
    Span* span;
    unsigned long long fingerprint;
    bool newSlot;
};

} // namespace

class VirtualMemoryPool::Engine {
public:
    Engine(unsigned long long budget, const char* path);
    ~Engine();

    void* allocate(unsigned long long size, PageItem& item);
    void* getAddress(unsigned long long offset, bool forWriting);
    void dismiss(unsigned long long offset);
    void dirty(unsigned long long offset);
    void deallocate(unsigned long long offset);
    void extractStats(VirtualMemoryStats* stats, unsigned long long size,
                      unsigned long long& needed);
    unsigned long long outstanding(VirtualMemoryReferenceInfo* info, unsigned long long count,
                                   unsigned long long* total);
    void setIo(const VirtualMemoryIo* io) { m_file.setIo(io); }
    void verify() const;

private:
    // Finds the span and slot of a live object starting at `offset`; null when there is none.
    Span* find(unsigned long long offset, unsigned& slot) const {
        const unsigned long long page = offset >> kPageShift;
        if (page >= m_pageMap.size())
            return nullptr;
        Span* span = m_pageMap[page];
        if (span == nullptr)
            return nullptr;
        const unsigned long long delta = offset - span->baseOffset();
        if (span->elementSize == 0) {
            if (delta != 0)
                return nullptr;
            slot = 0;
        } else {
            // A small span is at most 64 KiB: below that the multiplication by the reciprocal
            // gives the exact quotient.
            if (delta >= span->bytes())
                return nullptr;
            const unsigned index = static_cast<unsigned>((delta * span->slotMagic) >> 32);
            if (index * span->elementSize != delta)
                return nullptr;
            slot = index;
        }
        const bool live =
            span->refs != nullptr ? span->refs[slot] != kFreeSlot : span->isLive(slot);
        return live ? span : nullptr;
    }

    static unsigned long long slotOffset(const Span* span, unsigned slot) {
        return span->baseOffset() + static_cast<unsigned long long>(slot) * span->elementSize;
    }
    unsigned slotCount(const Span* span) const {
        return span->classIndex == kLargeClass ? 1 : m_classes[span->classIndex].slots;
    }
    unsigned bitmapWords(const Span* span) const {
        return span->classIndex == kLargeClass ? 1 : m_classes[span->classIndex].words;
    }
    std::size_t recordBytes(const Span* span) const { return sizeof(Span) + 8 * bitmapWords(span); }
    unsigned countOf(const Span* span, unsigned slot) const;

    Span* newSpan(unsigned short classIndex, unsigned pages);
    void releaseSpan(Span* span);
    HXL_VMM_COLD bool makeRoom(unsigned long long incoming);
    bool chooseVictim(Span* span);
    bool flushBatch();
    void evict(Span* span);
    void queueForScan(Span* span);
    HXL_VMM_COLD bool pageIn(Span* span);
    void giveFileSlot(Span* span);
    // The hit path: pin and unpin are inlined; what they seldom need is kept out of line, so
    // that the fast path needs few registers.
    inline bool pin(Span* span, unsigned slot);
    inline void unpin(Span* span, unsigned slot);
    HXL_VMM_COLD bool pinInTable(Span* span, unsigned slot);
    HXL_VMM_COLD void unpinInTable(Span* span, unsigned slot);
    inline void spanUnpinned(Span* span);
    HXL_VMM_COLD void takePrint(Span* span);
    HXL_VMM_COLD void firstRelease(Span* span);
    HXL_VMM_COLD void mappedForWriting(Span* span);
    HXL_VMM_COLD void* mapSlow(Span* span, unsigned slot, unsigned long long offset,
                               bool forWriting);
    HXL_VMM_COLD void unpinnedSlow(Span* span);
    inline bool endPins(Span* span, unsigned slot);
    HXL_VMM_COLD bool keepEmptied(Span* span);
    void ringInsert(Span* span);
    void ringRemove(Span* span);
    char* takeBuffer(unsigned pages, bool& recycled);
    void dropBuffer(char* memory, unsigned pages);
    void nonFullPush(Span* span);
    void nonFullRemove(Span* span);
    void checkSpan(const Span* span) const;

    unsigned long long m_budget;
    std::vector<SizeClass> m_classes;
    std::vector<unsigned short> m_classOfGranules; // (size + 15) / 16 -> class index
    std::vector<Span*> m_pageMap;
    ExtentAllocator m_pageNumbers{1};
    PageFile m_file;
    RecordArena m_records;
    std::unordered_map<unsigned long long, unsigned> m_bigCounts; // offset -> count >= 255
    Span* m_hand = nullptr; // the clock hand: next span the sweep looks at; null if no span
    unsigned long long m_unpinnedResident = 0;
    unsigned long long m_residentBytes = 0;
    std::vector<BatchEntry> m_batch; // spans chosen to be written, still resident
    unsigned long long m_batchBytes = 0;
    std::vector<iovec> m_pieces;       // scratch for gathered transfers
    std::vector<Span*> m_run;          // scratch for read-ahead
    std::deque<ScanEntry> m_scanQueue; // spans read in file order, oldest first
    unsigned m_scanStamps = 0;
    unsigned m_nextSequential = kNoSlot; // file page just behind the last span read
    std::vector<std::vector<char*>> m_buffers{kCachedBufferPages + 1}; // by page count
    unsigned long long m_bufferBytes = 0;
    unsigned long long m_outstanding = 0;
    unsigned long long m_objectsCurrent = 0;
    unsigned long long m_objectsMax = 0;
    unsigned long long m_objectsCumulative = 0;
    unsigned long long m_largeSpans = 0;
    unsigned long long m_largePages = 0;
    unsigned long long m_pageReads = 0;
    unsigned long long m_pageWrites = 0;
    unsigned long long m_pageOuts = 0;
    unsigned long long m_pageDrops = 0;
};

VirtualMemoryPool::Engine::Engine(unsigned long long budget, const char* path)
    : m_budget(budget == 0 ? kPageSize : budget), m_file(path) {
    // Classes: 16-byte steps to 128, then four classes per doubling up to 8 KiB. Each class
    // takes the shortest span (1 to 8 pages) that wastes at most an eighth of itself: short
    // spans make paging fine-grained.
    for (unsigned size = kClassGranule; size <= kMaxSmallSize;) {
        unsigned bestPages = kMaxSpanPages;
        for (unsigned pages = 1; pages <= kMaxSpanPages; ++pages) {
            const unsigned long long spanBytes = pages * kPageSize;
            if (spanBytes >= size && (spanBytes % size) * 8 <= spanBytes) {
                bestPages = pages;
                break;
            }
        }
        const unsigned slots = static_cast<unsigned>(bestPages * kPageSize / size);
        m_classes.push_back(SizeClass{size, bestPages, slots, (slots + 63) / 64, 0, 0, 0, nullptr});
        unsigned step = kClassGranule;
        if (size >= 128) {
            unsigned power = 128;
            while (power * 2 <= size)
                power *= 2;
            step = power / 4;
        }
        size += step;
    }
    // Room for every buffer the cache may keep, so that dropBuffer, called half-way through
    // moving a span out of memory, never allocates; likewise for the scratch vectors.
    for (unsigned pages = 1; pages <= kCachedBufferPages; ++pages)
        m_buffers[pages].reserve((kBufferCacheBytes >> kPageShift) / pages);
    m_batch.reserve(kIoRunBytes >> kPageShift);
    m_pieces.reserve(kIoRunBytes >> kPageShift);
    m_run.reserve(kIoRunBytes >> kPageShift);
    m_classOfGranules.resize(kMaxSmallSize / kClassGranule + 1);
    unsigned index = 0;
    for (unsigned granules = 0; granules < m_classOfGranules.size(); ++granules) {
        while (m_classes[index].elementSize < std::max(granules, 1u) * kClassGranule)
            ++index;
        m_classOfGranules[granules] = static_cast<unsigned short>(index);
    }
}

VirtualMemoryPool::Engine::~Engine() {
    // Every object ends with the store: no write, no check of references. Records and slot
    // counts go with the record arena.
    for (unsigned long long page = 0; page < m_pageMap.size(); ++page) {
        Span* span = m_pageMap[page];
        if (span == nullptr)
            continue;
        page += span->pageCount - 1; // the span's other pages name it too
        std::free(span->memory);
    }
    for (std::vector<char*>& bucket : m_buffers)
        for (char* buffer : bucket)
            std::free(buffer);
}

// A buffer of `pages` pages; `recycled` tells whether it held a span before (its bytes are
// then initialised, though not zero).
char* VirtualMemoryPool::Engine::takeBuffer(unsigned pages, bool& recycled) {
    recycled = pages <= kCachedBufferPages && !m_buffers[pages].empty();
    if (recycled) {
        char* buffer = m_buffers[pages].back();
        m_buffers[pages].pop_back();
        m_bufferBytes -= static_cast<unsigned long long>(pages) << kPageShift;
        return buffer;
    }
    return static_cast<char*>(std::malloc(static_cast<size_t>(pages) << kPageShift));
}

// Freed span buffers are kept (up to a bound) for the next page-in: giving them back to the
// process heap at once costs page faults when the heap returns them to the system.
void VirtualMemoryPool::Engine::dropBuffer(char* memory, unsigned pages) {
    const unsigned long long bytes = static_cast<unsigned long long>(pages) << kPageShift;
    if (pages <= kCachedBufferPages && m_bufferBytes + bytes <= kBufferCacheBytes) {
        m_buffers[pages].push_back(memory);
        m_bufferBytes += bytes;
        return;
    }
    std::free(memory);
}

Span* VirtualMemoryPool::Engine::newSpan(unsigned short classIndex, unsigned pages) {
    const unsigned long long bytes = static_cast<unsigned long long>(pages) << kPageShift;
    const unsigned slots = classIndex == kLargeClass ? 1 : m_classes[classIndex].slots;
    const unsigned words = classIndex == kLargeClass ? 1 : m_classes[classIndex].words;
    // Page numbers are 32-bit; a store that would pass them gives null.
    if (m_pageNumbers.end() + pages > 0xFFFFFFFFULL)
        return nullptr;
    bool recycled;
    char* memory = takeBuffer(pages, recycled);
    if (memory == nullptr)
        return nullptr;
    // Fresh memory is cleared so that a page file never receives uninitialised bytes; a
    // recycled buffer holds old bytes of this store, which are as good.
    if (!recycled)
        std::memset(memory, 0, bytes);
    Span* span = static_cast<Span*>(m_records.take(sizeof(Span) + 8 * words));
    unsigned char* refs = static_cast<unsigned char*>(m_records.take(slots));
    unsigned long long firstPage = 0;
    bool taken = false;
    try {
        // The page map grows before anything else changes, to cover the pages take() may add
        // at the end: running out of memory leaves the store as it was and gives null. A map
        // longer than the page numbers in use is harmless: its tail stays null.
        if (span != nullptr && refs != nullptr) {
            if (m_pageNumbers.end() + pages > m_pageMap.size())
                m_pageMap.resize(m_pageNumbers.end() + pages, nullptr);
            firstPage = m_pageNumbers.take(pages);
            taken = true;
        }
    } catch (const std::bad_alloc&) {
    }
    if (!taken) {
        dropBuffer(memory, pages);
        if (span != nullptr)
            m_records.give(span, sizeof(Span) + 8 * words);
        if (refs != nullptr)
            m_records.give(refs, slots);
        return nullptr;
    }
    std::memset(static_cast<void*>(span), 0, sizeof(Span) + 8 * words);
    std::memset(refs, 0, slots);
    span->memory = memory;
    span->refs = refs;
    span->firstPage = static_cast<unsigned>(firstPage);
    span->pageCount = pages;
    span->classIndex = classIndex;
    span->elementSize = classIndex == kLargeClass ? 0 : m_classes[classIndex].elementSize;
    span->slotMagic =
        span->elementSize == 0 ? 0 : static_cast<unsigned>((1ULL << 32) / span->elementSize + 1);
    span->copy = kCopyNone; // nothing of it is in the page file yet
    span->flags = kFresh;
    span->fileSlot = kNoSlot;
    for (unsigned i = 0; i < pages; ++i)
        m_pageMap[firstPage + i] = span;
    m_residentBytes += bytes;
    ++m_unpinnedResident;
    ringInsert(span);
    if (classIndex == kLargeClass) {
        ++m_largeSpans;
        m_largePages += pages;
    } else {
        ++m_classes[classIndex].spanCount;
    }
    return span;
}

void VirtualMemoryPool::Engine::releaseSpan(Span* span) {
    if (span->memory != nullptr) {
        ringRemove(span);
        if (span->pinCount == 0)
            --m_unpinnedResident;
        m_residentBytes -= span->bytes();
        dropBuffer(span->memory, span->pageCount);
        m_records.give(span->refs, slotCount(span));
    }
    if (span->fileSlot != kNoSlot)
        giveFileSlot(span);
    if (span->classIndex == kLargeClass) {
        --m_largeSpans;
        m_largePages -= span->pageCount;
    } else {
        nonFullRemove(span);
        --m_classes[span->classIndex].spanCount;
    }
    for (unsigned i = 0; i < span->pageCount; ++i)
        m_pageMap[span->firstPage + i] = nullptr;
    try {
        m_pageNumbers.give(span->firstPage, span->pageCount);
    } catch (const std::bad_alloc&) {
        // The page numbers stay taken: offset space is lost, never handed out twice.
    }
    if (m_pageNumbers.end() < m_pageMap.size())
        m_pageMap.resize(m_pageNumbers.end());
    m_records.give(span, recordBytes(span));
}

// Makes room until `incoming` more bytes fit in the budget with a batch's worth to spare
// (rule 10), or nothing unpinned is left. Spans read in file order and used once go first, oldest
// first (rule 12); then the clock sweeps. False only when a write failed (rule 8).
bool VirtualMemoryPool::Engine::makeRoom(unsigned long long incoming) {
    if (m_residentBytes + incoming <= m_budget)
        return true;
    const unsigned long long spare = std::min(kIoRunBytes, m_budget / 16);
    const unsigned long long goal = m_budget - spare;
    auto needMore = [&] {
        return m_residentBytes - m_batchBytes + incoming > goal &&
               m_unpinnedResident > m_batch.size();
    };
    while (needMore() && !m_scanQueue.empty()) {
        const ScanEntry entry = m_scanQueue.front();
        m_scanQueue.pop_front();
        Span* span = entry.span;
        if (entry.firstPage >= m_pageMap.size() || m_pageMap[entry.firstPage] != span ||
            span->scanStamp != entry.stamp || (span->flags & kScan) == 0)
            continue; // stale
        span->flags &= static_cast<unsigned char>(~(kScan | kScanUsed));
        if (span->pinCount == 0 && (span->flags & kInBatch) == 0 && !chooseVictim(span))
            return false;
    }
    while (needMore()) {
        Span* span = m_hand;
        m_hand = span->ringNext;
        if (span->pinCount > 0 || (span->flags & kInBatch) != 0)
            continue;
        if ((span->flags & kReferenced) != 0) {
            span->flags &= static_cast<unsigned char>(~kReferenced);
            continue;
        }
        if (!chooseVictim(span))
            return false;
    }
    return flushBatch();
}

// The unpinned span leaves memory: at once when its copy is exact or its bytes unchanged
// (rule 4), else through the batch. False only when flushing the batch failed.
bool VirtualMemoryPool::Engine::chooseVictim(Span* span) {
    if (span->copy != kCopyExact) {
        const bool taken = (span->flags & kPrintTaken) != 0;
        const unsigned long long print =
            taken ? span->fingerprint : fingerprint(span->memory, span->bytes());
        if (span->copy == kCopyNone || print != span->fingerprint) {
            span->flags |= kInBatch;
            m_batch.push_back({span, print, false}); // cannot throw: flushed at capacity
            span->flags &= static_cast<unsigned char>(~kPrintTaken);
            m_batchBytes += span->bytes();
            if (m_batchBytes >= kIoRunBytes || m_batch.size() == m_batch.capacity())
                return flushBatch();
            return true;
        }
        span->copy = kCopyExact; // mapped for writing, but not a byte changed
    }
    ++m_pageDrops;
    evict(span);
    return true;
}

// Writes the batch in runs of adjacent file slots; each span written leaves memory.
bool VirtualMemoryPool::Engine::flushBatch() {
    if (m_batch.empty())
        return true;
    const bool opened = m_file.open();
    for (BatchEntry& entry : m_batch) {
        Span* span = entry.span;
        if (opened && span->fileSlot == kNoSlot) {
            span->fileSlot = m_file.take(span->pageCount, span);
            entry.newSlot = span->fileSlot != kNoSlot;
        }
    }
    std::sort(m_batch.begin(), m_batch.end(), [](const BatchEntry& a, const BatchEntry& b) {
        return a.span->fileSlot < b.span->fileSlot;
    });
    bool allWritten = true;
    for (std::size_t first = 0, end; first < m_batch.size(); first = end) {
        // A run: slots that follow one another, as many as one gathered call takes.
        end = first + 1;
        while (end < m_batch.size() && end - first < IOV_MAX &&
               m_batch[end].span->fileSlot ==
                   m_batch[end - 1].span->fileSlot + m_batch[end - 1].span->pageCount)
            ++end;
        m_pieces.clear();
        for (std::size_t i = first; i < end; ++i)
            m_pieces.push_back({m_batch[i].span->memory, m_batch[i].span->bytes()});
        const unsigned slot = m_batch[first].span->fileSlot;
        const bool attempted = opened && slot != kNoSlot;
        const bool written =
            attempted && m_file.write(m_pieces.data(), static_cast<unsigned>(end - first), slot);
        allWritten &= written;
        for (std::size_t i = first; i < end; ++i) {
            Span* span = m_batch[i].span;
            span->flags &= static_cast<unsigned char>(~kInBatch);
            if (written) {
                span->fingerprint = m_batch[i].fingerprint;
                span->copy = kCopyExact;
                ++m_pageWrites;
                evict(span);
                continue;
            }
            if (m_batch[i].newSlot)
                giveFileSlot(span);
            else if (attempted)
                span->copy = kCopyNone; // its slot may now hold part of the new bytes (rule 8)
        }
    }
    m_batch.clear();
    m_batchBytes = 0;
    return allWritten;
}

// The span, unpinned and with an exact copy, leaves memory.
void VirtualMemoryPool::Engine::evict(Span* span) {
    ringRemove(span);
    --m_unpinnedResident;
    dropBuffer(span->memory, span->pageCount);
    m_records.give(span->refs, slotCount(span));
    span->memory = nullptr;
    span->refs = nullptr;
    span->flags &= static_cast<unsigned char>(~kReferenced);
    m_residentBytes -= span->bytes();
    m_pageOuts += span->pageCount;
}

// Returns the span's file slot for reuse.
void VirtualMemoryPool::Engine::giveFileSlot(Span* span) {
    m_file.give(span->fileSlot, span->pageCount);
    span->fileSlot = kNoSlot;
}

// Reads the span back, with the spans that follow it in the file when the reads go in file
// order (rule 11). False when the span itself cannot be read or is damaged (rule 9).
bool VirtualMemoryPool::Engine::pageIn(Span* span) {
    m_run.clear();
    m_run.push_back(span);
    unsigned long long runBytes = span->bytes();
    unsigned next = span->fileSlot + span->pageCount;
    const bool sequential = span->fileSlot == m_nextSequential;
    if (sequential) {
        const unsigned long long limit = std::min(kIoRunBytes, m_budget / 4);
        while (m_run.size() < m_run.capacity()) {
            Span* follower = static_cast<Span*>(const_cast<void*>(m_file.ownerAt(next)));
            if (follower == nullptr || follower->memory != nullptr ||
                runBytes + follower->bytes() > limit)
                break;
            m_run.push_back(follower);
            runBytes += follower->bytes();
            next += follower->pageCount;
        }
    }
    if (!makeRoom(runBytes))
        return false;
    // What is pinned may leave no room for reading ahead.
    while (m_run.size() > 1 && m_residentBytes + runBytes > m_budget) {
        runBytes -= m_run.back()->bytes();
        m_run.pop_back();
    }
    m_pieces.clear();
    for (Span* member : m_run) {
        bool recycled;
        char* memory = takeBuffer(member->pageCount, recycled);
        unsigned char* refs =
            memory ? static_cast<unsigned char*>(m_records.take(slotCount(member))) : nullptr;
        if (refs == nullptr) {
            if (memory != nullptr)
                dropBuffer(memory, member->pageCount);
            break;
        }
        for (unsigned slot = 0; slot < slotCount(member); ++slot)
            refs[slot] = member->isLive(slot) ? kCountZero : kFreeSlot;
        member->refs = refs;
        m_pieces.push_back({memory, member->bytes()});
    }
    m_run.resize(m_pieces.size());
    std::size_t readCount = 0;
    if (m_pieces.empty())
        readCount = 0;
    else if (m_file.read(m_pieces.data(), static_cast<unsigned>(m_pieces.size()), span->fileSlot))
        readCount = m_pieces.size();
    else if (m_pieces.size() > 1 && m_file.read(m_pieces.data(), 1, span->fileSlot))
        readCount = 1; // the read-ahead failed; the span asked for may still be whole
    bool ok = false;
    for (std::size_t i = 0; i < m_run.size(); ++i) {
        Span* member = m_run[i];
        char* memory = static_cast<char*>(m_pieces[i].iov_base);
        if (i >= readCount || fingerprint(memory, member->bytes()) != member->fingerprint) {
            dropBuffer(memory, member->pageCount);
            m_records.give(member->refs, slotCount(member));
            member->refs = nullptr;
            continue;
        }
        member->memory = memory;
        member->copy = kCopyExact;
        member->flags = static_cast<unsigned char>((member->flags & kOnNonFullList) | kFresh);
        m_residentBytes += member->bytes();
        ++m_unpinnedResident; // a paged-out span is never pinned
        ringInsert(member);
        ++m_pageReads;
        ok |= member == span;
        if (sequential)
            queueForScan(member);
    }
    if (!m_run.empty())
        m_nextSequential = m_run.back()->fileSlot + m_run.back()->pageCount;
    return ok;
}

// The span, just read in file order, goes on the scan queue; the queue keeps at most about a
// budget's worth of entries, stale ones included.
void VirtualMemoryPool::Engine::queueForScan(Span* span) {
    if (m_scanQueue.size() > (m_budget >> kPageShift) + 64) {
        const ScanEntry old = m_scanQueue.front();
        m_scanQueue.pop_front();
        if (old.firstPage < m_pageMap.size() && m_pageMap[old.firstPage] == old.span &&
            old.span->scanStamp == old.stamp)
            old.span->flags &= static_cast<unsigned char>(~(kScan | kScanUsed));
    }
    try {
        m_scanQueue.push_back({span, span->firstPage, ++m_scanStamps});
    } catch (const std::bad_alloc&) {
        return; // the span is then left to the clock
    }
    span->scanStamp = m_scanStamps;
    span->flags |= kScan;
}

// New and paged-in spans go just behind the hand, so the sweep reaches them last.
void VirtualMemoryPool::Engine::ringInsert(Span* span) {
    if (m_hand == nullptr) {
        span->ringPrev = span->ringNext = span;
        m_hand = span;
        return;
    }
    span->ringNext = m_hand;
    span->ringPrev = m_hand->ringPrev;
    m_hand->ringPrev->ringNext = span;
    m_hand->ringPrev = span;
}

void VirtualMemoryPool::Engine::ringRemove(Span* span) {
    if (span->ringNext == span) {
        m_hand = nullptr;
    } else {
        if (m_hand == span)
            m_hand = span->ringNext;
        span->ringPrev->ringNext = span->ringNext;
        span->ringNext->ringPrev = span->ringPrev;
    }
    span->ringPrev = span->ringNext = nullptr;
}

void VirtualMemoryPool::Engine::nonFullPush(Span* span) {
    SizeClass& sc = m_classes[span->classIndex];
    span->flags |= kOnNonFullList;
    span->classPrev = nullptr;
    // Resident spans go in front, so allocation rarely has to page one in.
    if (span->memory != nullptr || sc.nonFull == nullptr) {
        span->classNext = sc.nonFull;
        if (sc.nonFull)
            sc.nonFull->classPrev = span;
        sc.nonFull = span;
        return;
    }
    Span* last = sc.nonFull;
    while (last->classNext != nullptr && last->classNext->memory != nullptr)
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

unsigned VirtualMemoryPool::Engine::countOf(const Span* span, unsigned slot) const {
    const unsigned char count = span->refs[slot];
    return count == kCountInTable ? m_bigCounts.at(slotOffset(span, slot)) : count - kCountZero;
}

// Raises the object's count by 1; false, with nothing changed, when it is at its largest or
// the overflow table cannot grow.
bool VirtualMemoryPool::Engine::pin(Span* span, unsigned slot) {
    unsigned char& count = span->refs[slot];
    if (count == kCountZero) {
        count = kCountZero + 1;
        ++m_outstanding;
        if (span->pinCount++ == 0) {
            --m_unpinnedResident;
            if ((span->flags & kScanUsed) != 0) // used twice: no scan span any more
                span->flags &= static_cast<unsigned char>(~(kScan | kScanUsed));
        }
        return true;
    }
    if (count < kCountInTable - 1) {
        ++count;
        return true;
    }
    return pinInTable(span, slot);
}

// Counts from 255 up live in the overflow table.
bool VirtualMemoryPool::Engine::pinInTable(Span* span, unsigned slot) {
    unsigned char& count = span->refs[slot];
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

void VirtualMemoryPool::Engine::unpin(Span* span, unsigned slot) {
    unsigned char& count = span->refs[slot];
    if (count == kCountInTable) {
        unpinInTable(span, slot);
        return;
    }
    if (--count == kCountZero) {
        --m_outstanding;
        if (--span->pinCount == 0)
            spanUnpinned(span);
    }
}

void VirtualMemoryPool::Engine::unpinInTable(Span* span, unsigned slot) {
    auto it = m_bigCounts.find(slotOffset(span, slot));
    if (--it->second == kCountInTable - kCountZero - 1) {
        m_bigCounts.erase(it);
        span->refs[slot] = kCountInTable - 1;
    }
}

// A span read in file order earns no second chance from its first use (rule 12); a span that
// came in may have its fingerprint taken (rule 13).
void VirtualMemoryPool::Engine::firstRelease(Span* span) {
    span->flags |= (span->flags & kScan) != 0 ? kScanUsed : kReferenced;
    if ((span->flags & kFresh) != 0)
        takePrint(span);
}

// Rule 13: the first release of a span that came in, in a full store, takes its fingerprint
// while its bytes are still in cache, so the sweep need not read them again.
void VirtualMemoryPool::Engine::takePrint(Span* span) {
    span->flags &= static_cast<unsigned char>(~kFresh);
    const unsigned long long spare = std::min(kIoRunBytes, m_budget / 16);
    if (span->copy == kCopyExact || m_residentBytes + spare < m_budget)
        return;
    const unsigned long long print = fingerprint(span->memory, span->bytes());
    if (span->copy == kCopyMaybe && print == span->fingerprint) {
        span->copy = kCopyExact;
        return;
    }
    span->copy = kCopyNone; // changed: the copy in its slot, if any, is out of date
    span->fingerprint = print;
    span->flags |= kPrintTaken;
}

void VirtualMemoryPool::Engine::spanUnpinned(Span* span) {
    ++m_unpinnedResident;
    if ((span->flags & (kScan | kFresh)) == 0 && m_residentBytes <= m_budget)
        span->flags |= kReferenced;
    else
        unpinnedSlow(span);
}

void VirtualMemoryPool::Engine::unpinnedSlow(Span* span) {
    if ((span->flags & (kScan | kFresh)) == 0)
        span->flags |= kReferenced;
    else
        firstRelease(span);
    // What was pinned may have held the store above its budget; a failed page-out here is
    // retried by the next call that needs room (rule 8).
    if (m_residentBytes > m_budget)
        makeRoom(0);
}

void* VirtualMemoryPool::Engine::allocate(unsigned long long size, PageItem& item) {
    item.offset = 0;
    Span* span;
    unsigned slot = 0;
    if (size <= kMaxSmallSize) {
        const unsigned short classIndex =
            m_classOfGranules[(size + kClassGranule - 1) / kClassGranule];
        SizeClass& sc = m_classes[classIndex];
        span = sc.nonFull;
        if (span != nullptr) {
            if (span->memory == nullptr && !pageIn(span))
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
        // The lowest free slot: a span on the non-full list has one below slotCount.
        unsigned long long* live = span->live();
        unsigned word = 0;
        while (live[word] == ~0ULL)
            ++word;
        slot = word * 64 + static_cast<unsigned>(__builtin_ctzll(~live[word]));
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
    span->live()[slot >> 6] |= 1ULL << (slot & 63);
    ++span->liveCount;
    ++m_objectsCurrent;
    span->refs[slot] = kCountZero + 1; // a new object has count 1
    ++m_outstanding;
    if (span->pinCount++ == 0)
        --m_unpinnedResident;
    // Mapped for writing: the flags that say otherwise go (kScan with kScanUsed: used twice).
    span->flags &= static_cast<unsigned char>(~(kPrintTaken | kScan | kScanUsed));
    if (span->copy == kCopyExact)
        span->copy = kCopyMaybe;
    ++m_objectsCumulative;
    m_objectsMax = std::max(m_objectsMax, m_objectsCurrent);
    item.offset = slotOffset(span, slot);
#if HXL_VMM_CHECK_LEVEL >= 1
    checkSpan(span);
#endif
    return span->memory + (item.offset - span->baseOffset());
}

// The hit path: a resident object whose count stays below the table and whose span needs no
// change of state. Everything else goes to mapSlow, as a tail call, so that this path saves no
// registers.
void* VirtualMemoryPool::Engine::getAddress(unsigned long long offset, bool forWriting) {
    unsigned slot;
    Span* span = find(offset, slot);
    if (span == nullptr)
        return nullptr;
    unsigned char* refs = span->refs; // null while paged out
    if (refs == nullptr || refs[slot] >= kCountInTable - 1 ||
        (forWriting && ((span->flags & kPrintTaken) != 0 || span->copy == kCopyExact)) ||
        (refs[slot] == kCountZero && (span->flags & kScanUsed) != 0))
        return mapSlow(span, slot, offset, forWriting);
    if (refs[slot]++ == kCountZero) {
        ++m_outstanding;
        if (span->pinCount++ == 0)
            --m_unpinnedResident;
    }
    return span->memory + (offset - span->baseOffset());
}

void* VirtualMemoryPool::Engine::mapSlow(Span* span, unsigned slot, unsigned long long offset,
                                         bool forWriting) {
    if ((span->memory == nullptr && !pageIn(span)) || !pin(span, slot))
        return nullptr;
    if (forWriting && ((span->flags & kPrintTaken) != 0 || span->copy == kCopyExact))
        mappedForWriting(span);
    return span->memory + (offset - span->baseOffset());
}

// The span may change: an exact copy becomes maybe stale, a fingerprint taken is void.
void VirtualMemoryPool::Engine::mappedForWriting(Span* span) {
    span->flags &= static_cast<unsigned char>(~kPrintTaken);
    if (span->copy == kCopyExact)
        span->copy = kCopyMaybe;
}

void VirtualMemoryPool::Engine::dismiss(unsigned long long offset) {
    unsigned slot;
    Span* span = find(offset, slot);
    if (span == nullptr || span->refs == nullptr || span->refs[slot] == kCountZero)
        return;
    unpin(span, slot);
}

void VirtualMemoryPool::Engine::dirty(unsigned long long offset) {
    unsigned slot;
    Span* span = find(offset, slot);
    if (span == nullptr || span->memory == nullptr)
        return;
    span->flags &= static_cast<unsigned char>(~kPrintTaken);
    if (span->copy == kCopyExact)
        span->copy = kCopyMaybe;
}

void VirtualMemoryPool::Engine::deallocate(unsigned long long offset) {
    unsigned slot;
    Span* span = find(offset, slot);
    if (span == nullptr)
        return;
    unsigned char* refs = span->refs; // null while paged out
    const bool unpinnedNow = refs != nullptr && refs[slot] > kCountZero && endPins(span, slot);
    if (refs != nullptr)
        refs[slot] = kFreeSlot;
    span->live()[slot >> 6] &= ~(1ULL << (slot & 63));
    --span->liveCount;
    --m_objectsCurrent;
    if (span->classIndex == kLargeClass || span->liveCount == 0) {
        if (!keepEmptied(span))
            return;
    } else {
        --m_classes[span->classIndex].liveObjects;
    }
    if ((span->flags & kOnNonFullList) == 0)
        nonFullPush(span);
    // Ending a pinned object may have unpinned a span that held the store above its budget
    // (rule 3), as the last dismiss would have.
    if (unpinnedNow && m_residentBytes > m_budget)
        makeRoom(0);
}

// The references of an object that is deallocated while pinned go with it; true when that
// unpinned its span.
bool VirtualMemoryPool::Engine::endPins(Span* span, unsigned slot) {
    if (span->refs[slot] == kCountInTable)
        m_bigCounts.erase(slotOffset(span, slot));
    --m_outstanding;
    if (--span->pinCount != 0)
        return false;
    ++m_unpinnedResident;
    span->flags |= kReferenced;
    return true;
}

// A span left with no object: one resident empty span per class is kept, so that alloc and
// free in turn do not make and release a span every time; false when the span was released.
bool VirtualMemoryPool::Engine::keepEmptied(Span* span) {
    if (span->classIndex == kLargeClass) {
        releaseSpan(span);
        return false;
    }
    SizeClass& sc = m_classes[span->classIndex];
    --sc.liveObjects;
    if (sc.emptySpans > 0 || span->memory == nullptr) {
        releaseSpan(span);
        return false;
    }
    ++sc.emptySpans;
    if (span->fileSlot != kNoSlot)
        giveFileSlot(span); // its bytes mean nothing any more
    span->copy = kCopyNone; // a page-out must find it a slot again
    span->flags &= static_cast<unsigned char>(~kPrintTaken);
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
    stats->residentBudget = m_budget;
    stats->residentBytes = m_residentBytes;
    stats->objectsCurrent = m_objectsCurrent;
    stats->objectsMax = m_objectsMax;
    stats->objectsCumulative = m_objectsCumulative;
    stats->pageDrops = m_pageDrops;
    stats->pageFileSize = m_file.sizeInBytes();
    stats->pageReads = m_pageReads;
    stats->pageOuts = m_pageOuts;
    stats->pageWrites = m_pageWrites;
    stats->largePages = m_largePages;
    stats->largeSpans = m_largeSpans;
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
    // The count is kept; the sum and the list are walked for only when asked for.
    if (total == nullptr && (info == nullptr || count == 0))
        return m_outstanding;
    unsigned long long sum = 0, written = 0;
    for (unsigned long long page = 0; page < m_pageMap.size(); ++page) {
        const Span* span = m_pageMap[page];
        if (span == nullptr || span->firstPage != page || span->pinCount == 0)
            continue;
        for (unsigned slot = 0; slot < slotCount(span); ++slot) {
            const unsigned refs = span->isLive(slot) ? countOf(span, slot) : 0;
            if (refs == 0)
                continue;
            sum += refs;
            if (info != nullptr && written < count)
                info[written++] = {slotOffset(span, slot), refs};
        }
    }
    if (total != nullptr)
        *total = sum;
    return m_outstanding;
}

void VirtualMemoryPool::Engine::checkSpan(const Span* span) const {
    const unsigned slots = slotCount(span);
    unsigned live = 0, pinned = 0;
    for (unsigned word = 0; word < bitmapWords(span); ++word)
        live += static_cast<unsigned>(__builtin_popcountll(span->live()[word]));
    VMM_CHECK(live == span->liveCount, span->firstPage);
    VMM_CHECK(slots == 64 * bitmapWords(span) || (span->live()[slots >> 6] >> (slots & 63)) == 0,
              span->firstPage); // no bit beyond the last slot
    if (span->memory != nullptr) {
        VMM_CHECK(span->refs != nullptr, span->firstPage);
        for (unsigned slot = 0; slot < slots; ++slot) {
            VMM_CHECK(span->isLive(slot) == (span->refs[slot] != kFreeSlot),
                      slotOffset(span, slot));
            VMM_CHECK(span->refs[slot] != kCountInTable ||
                          m_bigCounts.count(slotOffset(span, slot)) == 1,
                      slotOffset(span, slot));
            pinned += span->refs[slot] > kCountZero;
        }
    } else { // rule 9
        VMM_CHECK(span->refs == nullptr && span->ringNext == nullptr, span->firstPage);
        VMM_CHECK(span->copy == kCopyExact && span->fileSlot != kNoSlot, span->firstPage);
    }
    VMM_CHECK(pinned == span->pinCount, span->firstPage); // rule 1 for paged-out spans
    VMM_CHECK(span->copy == kCopyNone || span->fileSlot != kNoSlot, span->firstPage);
    VMM_CHECK(span->fileSlot == kNoSlot || m_file.ownerAt(span->fileSlot) == span, span->firstPage);
    VMM_CHECK((span->flags & kInBatch) == 0, span->firstPage);
    VMM_CHECK((span->flags & kPrintTaken) == 0 ||
                  (span->copy == kCopyNone &&
                   fingerprint(span->memory, span->bytes()) == span->fingerprint),
              span->firstPage); // rule 13
}

void VirtualMemoryPool::Engine::verify() const {
    unsigned long long resident = 0, outstanding = 0, objects = 0, bigCounts = 0;
    unsigned long long pagesMapped = 0, filePages = 0, slots = 0;
    for (unsigned long long page = 0; page < m_pageMap.size(); ++page) {
        const Span* span = m_pageMap[page];
        if (span == nullptr)
            continue;
        ++pagesMapped;
        VMM_CHECK(page >= span->firstPage && page < span->firstPage + span->pageCount, page);
        if (span->firstPage != page)
            continue;
        checkSpan(span);
        if (span->memory != nullptr) {
            resident += span->bytes();
            for (unsigned slot = 0; slot < slotCount(span); ++slot) {
                outstanding += span->refs[slot] > kCountZero;
                bigCounts += span->refs[slot] == kCountInTable;
            }
        }
        if (span->fileSlot != kNoSlot) {
            filePages += span->pageCount;
            ++slots;
        }
        objects += span->liveCount;
    }
    // Rule 2: the ring holds the resident spans, each once, and unpinnedResident is exact.
    unsigned long long ringLength = 0, ringUnpinned = 0, residentSpans = 0;
    if (m_hand != nullptr) {
        const Span* span = m_hand;
        do {
            VMM_CHECK(span->memory != nullptr, span->firstPage);
            VMM_CHECK(m_pageMap[span->firstPage] == span, span->firstPage);
            VMM_CHECK(span->ringNext->ringPrev == span, span->firstPage);
            ringUnpinned += span->pinCount == 0;
            ++ringLength;
            span = span->ringNext;
        } while (span != m_hand && ringLength <= m_pageMap.size());
    }
    for (unsigned long long page = 0; page < m_pageMap.size(); ++page) {
        const Span* span = m_pageMap[page];
        residentSpans += span != nullptr && span->firstPage == page && span->memory != nullptr;
    }
    VMM_CHECK(ringLength == residentSpans, ringLength);
    VMM_CHECK(ringUnpinned == m_unpinnedResident, ringUnpinned);
    VMM_CHECK(resident == m_residentBytes, resident);     // rule 3
    VMM_CHECK(outstanding == m_outstanding, outstanding); // rule 7
    VMM_CHECK(bigCounts == m_bigCounts.size(), bigCounts);
    VMM_CHECK(objects == m_objectsCurrent, objects);
    VMM_CHECK(m_batch.empty() && m_batchBytes == 0, m_batch.size());
    VMM_CHECK(pagesMapped + m_pageNumbers.freeUnits() + 1 == m_pageNumbers.end(), pagesMapped);
    VMM_CHECK(filePages == m_file.pagesInUse(), filePages); // rule 6 and P2
    VMM_CHECK(slots == m_file.ownerCount(), slots);
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
