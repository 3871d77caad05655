// The paging engine's internal header: its design, its records and the engine class. The
// engine is spread over VirtualMemoryPool.cpp (the calls of the interface), Spans.cpp (spans,
// size classes, the clock ring, the checker) and Paging.cpp (leaving memory and coming back);
// PageFile.h has the page file and Fingerprint.h the fingerprint.
//
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
//  13. In a full store (within two batches' worth of its budget: the sweep leaves it one batch
//      below) the first release of a span that came in takes its fingerprint while its bytes
//      are still in cache: an unchanged span's copy is exact again; a changed or new one keeps
//      the print (kPrintTaken) until it is mapped for writing again, so the sweep writes it
//      without reading its bytes twice.
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
#ifndef HXL_VMM_ENGINE_H
#define HXL_VMM_ENGINE_H

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

// The engine's own types; they are not part of the interface.

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
    // What a sweep frees beyond what it must (rule 10).
    unsigned long long spare() const { return std::min(kIoRunBytes, m_budget / 16); }
    // Whether a scan queue entry still names the span as it came in.
    bool isCurrent(const ScanEntry& entry) const {
        return entry.firstPage < m_pageMap.size() && m_pageMap[entry.firstPage] == entry.span &&
               entry.span->scanStamp == entry.stamp;
    }

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

// Raises the object's count by 1; false, with nothing changed, when it is at its largest or
// the overflow table cannot grow.
inline bool VirtualMemoryPool::Engine::pin(Span* span, unsigned slot) {
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

inline void VirtualMemoryPool::Engine::unpin(Span* span, unsigned slot) {
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

inline void VirtualMemoryPool::Engine::spanUnpinned(Span* span) {
    ++m_unpinnedResident;
    if ((span->flags & (kScan | kFresh)) == 0 && m_residentBytes <= m_budget)
        span->flags |= kReferenced;
    else
        unpinnedSlow(span);
}

} // namespace tcmalloc

#endif
