// The paging engine's internal header: its design, its records and the engine class. The
// engine is spread over VirtualMemoryPool.cpp (the calls of the interface), Spans.cpp (spans,
// size classes, the clock ring, the checker) and Paging.cpp (leaving memory and coming back);
// PageFile.h has the page file, SpanMemory.h the memory spans live in, and Fingerprint.h the
// fingerprint.
//
//
// Glossary
//   page        8 KiB of the store's offset space. Page numbers start at 1, so no object
//               offset is 0; offset = page number * 8192 + place in the span.
//   span        a run of pages holding either slots of one size class or one large object.
//               The span is the unit of residence and of paging.
//   size class  a slot size (16 bytes to 8 KiB); small objects take the smallest slot that
//               fits them.
//   page map    an array indexed by page number (FastPage, 16 bytes a page, right behind the
//               FastTable of VirtualMemoryFastPath.h, at an address that never moves: PageMap.h).
//               For a page of a resident span it gives the span's hot block and a bias, so that an
//               object's address is bias + offset (the hot block names the span's record); for a
//               page of a paged-out span the hot block is null and the first field holds the
//               record. No hashing, no search.
//   hot block   what a hit reads and writes, 64-byte aligned and only while the span is
//               resident (FastSpan): hit flags, slot divisor, and the slot bytes, the first 32
//               of them in the same cache line. A hit writes its own slot byte and, when the
//               count goes to 0, the flags; nothing that every hit shares.
//   span record what the engine keeps of a span in or out of memory (the cold part: ring,
//               class links, file slot, fingerprint, state) and one bit per slot (the live
//               bitmap): 88 bytes and the bitmap. A paged-out span costs nothing else: a
//               64-byte object pays under a byte for its bookkeeping. A hit never reads it.
//   slot byte   one per slot, in the hot block: 0 for a free slot, else 1 plus the object's
//               reference count; 255 means "look in the overflow table", which holds counts
//               from 254 up. A resident span's liveness is read from its slot bytes, so the
//               hit path does not touch the live bitmap.
//   pinned      a span with at least one object whose reference count is above 0, read from
//               its slot bytes when the engine needs to know (pinned()); no count of pins is
//               kept, so that a hit does not move one up and down.
//   clock ring  every resident span, in a circle. A hand sweeps it when room is needed: a
//               pinned span is passed over, a span released since the hand last passed it
//               (its referenced bit) gets a second chance, any other span leaves memory.
//   copy        the span's bytes in its file slot (PageFile.h), with their fingerprint
//               (Fingerprint.h): none (must be written), exact (equal to memory), or maybe
//               stale (mapped for writing since: the fingerprint decides). The span's state
//               field says which, and whether the span is in memory at all.
//
// Design rules
//   1. A pinned span is resident and never moves; only unpinned spans leave memory.
//   2. The clock ring holds exactly the resident spans. A sweep goes at most two laps; one that
//      runs out of them found every span pinned, and the next sweep is skipped until the
//      table's `released` says that a count went to 0 or spans were read ahead since.
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
//   7. Every object whose reference count is above 0 lies in a resident span (rule 1), so
//      GetOutstandingReferences reads them from the slot bytes of the ring's spans.
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
//      the budget cycles through its own few spans and leaves the rest of memory alone. A
//      resident span marked as such (kFastScan) always has its current entry in the queue.
//  13. In a full store (within two batches' worth of its budget: the sweep leaves it one batch
//      below) the release that first unpins a span made there (kFastFresh) takes its
//      fingerprint while its bytes are still in cache, and keeps it (state kPrinted) until the span
//      is mapped for writing again, so the sweep writes it without reading its bytes twice. A span
//      read back is printed only where rule 4 needs it, at its eviction after a write mapping: it
//      costs at most two prints per stay in memory, the check at page-in and that one.
//  14. A span is resident exactly when it has memory and a hot block; then every page map
//      entry of its pages names that block with bias memory - first page * 8192. The entries
//      of a paged-out span's pages have no hot block and hold its record; all others are null. The
//      hot block's copy of the span's geometry equals the record's, and its kFastWriteSlow bit is
//      set exactly in the states printed and exact.
//  15. The inline routines (fastMap, fastDismiss, fastMove, fastPeek) change only slot bytes,
//      kFastReferenced and the table's `released`, exactly as the plain calls would in the same
//      case (fastPeek as a GetAddress and a Dismiss with nothing between), except that fastMove,
//      which cannot unpin its span, leaves the last two to the release that does. They decline
//      every case where the plain call does more: a free slot, a count at the table, a pin of a
//      used scan span, a write mapping that changes the copy state, and a count that goes to 0
//      in a fresh or scan span or in a store over its budget, where the engine asks whether the
//      span is now unpinned. The plain calls never use them, so callers that take the fast path
//      and callers that do not meet the same store.
//  16. A class's emptied span stays on its non-full list while it is resident, up to
//      kKeptEmptySpans of them per class, so that allocation and deallocation in bursts reuse
//      spans instead of making and releasing them. Kept spans count against the budget like any
//      other; the sweep releases an empty span instead of writing it.
//  17. Span buffers come from the store's span arena (SpanMemory.h, rules M1-M6), which never
//      clears them: a new object holds zeros or bytes this store held before, so the page file
//      receives nothing from outside the store. What the arena cannot hold comes from the
//      process heap, cleared; Verify checks the arena's runs against the resident spans.
//  18. Write-behind: a new span that takes its print at its first release in a full store (rule
//      13) joins the write batch at once and stays resident; when the batch is flushed it is
//      written while its bytes are likely still in cache and becomes exact, so that the sweep
//      drops it later without reading it again. Between calls the batch holds only such spans;
//      one mapped for writing meanwhile is not written, one the sweep reaches becomes an
//      ordinary victim, one released leaves the batch.
//
// Span states (the record's `state`; pinned is a resident state with a slot count above 0
// and keeps it) and the functions that move a span between them; every move goes through
// setState, which keeps the hot block's kFastWriteSlow bit:
//
//   state       entered by                                left by
//   (free)      the start; releaseSpan                    newSpan -> kNoCopy
//   kNoCopy     newSpan; a failed write; keepEmptied      flushBatch writes it -> kPagedOut;
//                                                         takePrint -> kPrinted
//   kPrinted    takePrint: the print of its bytes taken   mappedForWriting -> kNoCopy;
//               on release in a full store                flushBatch -> kPagedOut, or kExact
//                                                         when written behind (rule 18)
//   kMaybe      mappedForWriting (Allocate,               chooseVictim: print unchanged ->
//               GetAddress(true), Dirty) on kExact        kExact and evict; changed ->
//                                                         flushBatch; takePrint -> kExact or
//                                                         kPrinted
//   kExact      pageIn (asked for or read ahead);         mappedForWriting -> kMaybe;
//               chooseVictim, takePrint: print unchanged  chooseVictim -> evict (drop)
//   kPagedOut   evict, called by the sweep                pageIn -> kExact
//   any state: releaseSpan, when the span's last object is deallocated (an emptied span of a
//   class may be kept instead: keepEmptied -> kNoCopy).
#ifndef HXL_VMM_ENGINE_H
#define HXL_VMM_ENGINE_H

#include "VirtualMemoryFastPath.h"
#include "VirtualMemoryPool.h"

#include "Fingerprint.h"
#include "PageFile.h"
#include "PageMap.h"
#include "SpanMemory.h"

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
// Keeps a path that hits never take, but paging takes at every span, out of its caller: still
// optimised for speed, unlike a cold one.
#define HXL_VMM_OUT_OF_LINE __attribute__((noinline))

namespace tcmalloc {

// The engine's own types; they are not part of the interface.

const unsigned kMaxSmallSize = 8192; // larger objects get spans of their own
const unsigned kClassGranule = 16;   // sizes are rounded to 16 bytes; addresses aligned
const unsigned kMaxSpanPages = 8;    // a small-object span is at most 64 KiB
const unsigned short kLargeClass = 0xFFFF;
const unsigned long long kIoRunBytes = 256 << 10; // eviction batch and read-ahead run
const unsigned char kFreeSlot = kFastFreeSlot;
const unsigned char kCountZero = kFastCountZero; // count n is kCountZero + n
const unsigned char kCountInTable = kFastCountTable;
const unsigned kMaxCount = 0xFFFFFFFEu; // a reference count never goes beyond
const std::size_t kHotAlign = 64;       // hot blocks start on a cache line
const unsigned kKeptEmptySpans = 16;    // emptied spans a class keeps for reuse (rule 16)

// The record's state: whether the span is in memory, and what its copy in the file is.
enum SpanState : unsigned char {
    kNoCopy,   // resident; no copy, or one that may hold anything: it must be written
    kPrinted,  // resident; no copy, but the fingerprint of its bytes as they are is taken
    kMaybe,    // resident; a copy that is stale if the bytes changed: the fingerprint decides
    kExact,    // resident; a copy equal to the bytes in memory
    kPagedOut, // not in memory; an exact copy in its file slot
};
// Bits of the record's flags; the hit flags live in the hot block (FastSpanFlag).
enum SpanFlag : unsigned char {
    kOnNonFullList = 1, // on its class's list of spans with free slots
    kInBatch = 2,       // in the write batch (chosen by a sweep, or written behind), resident
    kBehind = 4,        // in the write batch to be written behind, staying resident (rule 18)
};

// A span record (the cold part). The live bitmap follows it in the same allocation: one bit per
// slot, set while the slot holds an object.
struct Span {
    unsigned long long fingerprint; // of the copy in the file slot, or in kPrinted of the bytes
                                    // in memory
    Span* ringPrev;                 // clock ring links (resident spans only)
    Span* ringNext;
    Span* classPrev; // the class's list of spans with free slots
    Span* classNext;
    unsigned fileSlot;  // first file page of its copy, or kNoSlot
    unsigned scanStamp; // tells its entry on the scan queue from stale ones
    unsigned short classIndex;
    unsigned short liveCount; // slots holding an object (at most 512)
    unsigned firstPage;       // page numbers are 32-bit: a store spans at most 32 TiB of offsets
    unsigned elementSize;     // slot size; 0 for a span of one large object
    unsigned padding;
    unsigned pageCount;  // pages of the span
    unsigned char state; // SpanState
    unsigned char flags; // SpanFlag bits
    unsigned short reserved;
    char* memory;  // the span's bytes while resident, else null
    FastSpan* hot; // the hot block while resident, else null

    unsigned long long* live() { return reinterpret_cast<unsigned long long*>(this + 1); }
    const unsigned long long* live() const {
        return reinterpret_cast<const unsigned long long*>(this + 1);
    }
    bool isLive(unsigned slot) const { return (live()[slot >> 6] >> (slot & 63)) & 1; }
    bool resident() const { return state != kPagedOut; }
    unsigned char* counts() const { return hot->counts(); }
    unsigned char& hotFlags() const { return hot->flags; }
    unsigned long long bytes() const {
        return static_cast<unsigned long long>(pageCount) << kPageShift;
    }
    unsigned long long baseOffset() const {
        return static_cast<unsigned long long>(firstPage) << kPageShift;
    }
};
static_assert(sizeof(Span) == 88, "a span record is 88 bytes and its bitmap");
static_assert(kCountZero == 1 && kFreeSlot == 0 && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__,
              "slot bytes are spread from the live bitmap, eight to a word");

// The size after `size` in the class table: 16-byte steps to 128, then four classes per doubling
// up to kMaxSmallSize.
constexpr unsigned nextClassSize(unsigned size) {
    if (size < 128)
        return size + kClassGranule;
    unsigned power = 128;
    while (power * 2 <= size)
        power *= 2;
    return size + power / 4;
}
constexpr unsigned countClasses() {
    unsigned count = 0;
    for (unsigned size = kClassGranule; size <= kMaxSmallSize; size = nextClassSize(size))
        ++count;
    return count;
}
const unsigned kClassCount = countClasses();

// One cache line each: an allocation touches its own class's line only, and a class index
// becomes an offset by a shift.
struct alignas(64) SizeClass {
    unsigned elementSize;
    unsigned pages;
    unsigned slots;
    unsigned words;             // 64-bit words of the live bitmap
    unsigned countBytes;        // slot bytes in the hot block: one per index an offset can give
    unsigned long long divisor; // ceil(2^64 / elementSize), for fastSlot
    unsigned spanCount;
    unsigned emptySpans; // spans of this class with no object, kept for reuse
    unsigned long long liveObjects;
    Span* nonFull; // spans with free slots; resident ones are put in front
};
static_assert(sizeof(SizeClass) == 64, "a size class is one cache line");

// Span records and hot blocks come from here rather than from the process heap: they are
// small, many and long-lived, and would otherwise sit between span buffers in the heap and
// keep it from giving memory back. Sizes are rounded to `Granule` bytes, and every block is
// aligned to it; each size has a free list.
//
// A fresh page faulted in alone costs several times what it costs as one of a range committed
// in one call (SpanMemory.h), and records are touched in order as spans are made: chunks are
// mappings that double from 256 KiB to 2 MiB, committed 64 KiB at a time ahead of the blocks
// handed out. A store holds at most 64 KiB of them that it does not use yet.
template <std::size_t Granule, std::size_t Largest> class RecordArena {
public:
    RecordArena() = default;
    RecordArena(const RecordArena&) = delete;
    RecordArena& operator=(const RecordArena&) = delete;
    ~RecordArena() {
        for (const Chunk& chunk : m_chunks)
            unmapReserved(chunk.memory, chunk.bytes);
    }
    void* take(std::size_t bytes) {
        const std::size_t units = (bytes + Granule - 1) / Granule;
        if (void* record = m_free[units]) {
            m_free[units] = *static_cast<void**>(record);
            return record;
        }
        if (units * Granule > static_cast<std::size_t>(m_end - m_next) && !newChunk())
            return nullptr;
        char* record = m_next;
        m_next += units * Granule;
        if (m_next > m_committed) {
            const std::size_t step =
                std::min(kCommitStep, static_cast<std::size_t>(m_end - m_committed));
            prefault(m_committed, step);
            m_committed += step;
        }
        return record;
    }
    void give(void* record, std::size_t bytes) {
        const std::size_t units = (bytes + Granule - 1) / Granule;
        *static_cast<void**>(record) = m_free[units];
        m_free[units] = record;
    }

private:
    static constexpr std::size_t kFirstChunk = 256 << 10;
    static constexpr std::size_t kLastChunk = 2 << 20;
    static constexpr std::size_t kCommitStep = 64 << 10;
    static_assert(4096 % Granule == 0 && Largest <= kCommitStep,
                  "a mapping is aligned for every block, and a step covers a block");
    struct Chunk {
        char* memory;
        std::size_t bytes;
    };

    // Opens a new chunk; the rest of the old one is a few units at most. False when memory
    // runs out, with nothing changed.
    bool newChunk() {
        if (m_chunks.size() == m_chunks.capacity()) {
            try {
                m_chunks.reserve(m_chunks.size() * 2 + 16);
            } catch (const std::bad_alloc&) {
                return false;
            }
        }
        const std::size_t bytes =
            m_chunks.empty() ? kFirstChunk : std::min(m_chunks.back().bytes * 2, kLastChunk);
        char* memory = mapReserved(bytes, false);
        if (memory == nullptr)
            return false;
        m_chunks.push_back({memory, bytes}); // cannot throw: capacity was reserved
        m_next = m_committed = memory;
        m_end = memory + bytes;
        return true;
    }

    void* m_free[Largest / Granule + 1] = {};
    std::vector<Chunk> m_chunks;
    char* m_next = nullptr;      // the next block of the last chunk
    char* m_end = nullptr;       // the end of the last chunk
    char* m_committed = nullptr; // the end of its committed part
};

// A span read in file order, as it was when it came in: the entry is stale once the span at
// that page is another, has left memory or came in again (another stamp).
struct ScanEntry {
    Span* span;
    unsigned firstPage;
    unsigned stamp;
};

// The scan queue (rule 12): spans read in file order, oldest first. Each entry carries a stamp
// that its span also keeps, so that an entry whose span has since left memory, or came in
// again, tells itself from the current one.
class ScanQueue {
public:
    // Puts `span` at the back with a new stamp; false, with nothing changed, when the queue
    // cannot grow.
    bool push(Span* span) {
        try {
            m_entries.push_back({span, span->firstPage, m_stamps + 1});
        } catch (const std::bad_alloc&) {
            return false;
        }
        span->scanStamp = ++m_stamps;
        return true;
    }
    // Takes the oldest entry off; the queue must not be empty.
    ScanEntry pop() {
        const ScanEntry entry = m_entries.front();
        m_entries.pop_front();
        return entry;
    }
    bool empty() const { return m_entries.empty(); }
    std::size_t size() const { return m_entries.size(); }
    const std::deque<ScanEntry>& entries() const { return m_entries; }

private:
    std::deque<ScanEntry> m_entries;
    unsigned m_stamps = 0;
};

// One span to be written, with the fingerprint of the bytes it writes.
struct BatchEntry {
    Span* span;
    unsigned long long fingerprint;
    bool newSlot; // its file slot was taken for this write, and goes back if the write fails
};

// The write batch (rules 10 and 18): spans a sweep chose, which leave memory once written, and
// spans written behind (kBehind), which stay. A span is in it exactly when its kInBatch bit is
// set. Only the leaving spans' bytes make room; both kinds count towards a full batch. Between
// engine calls it holds only spans written behind.
class WriteBatch {
public:
    // Room for a full batch, so that adding never allocates.
    void reserve() { m_entries.reserve(kIoRunBytes >> kPageShift); }
    // Adds a span chosen by a sweep, to be written with `print`, or a span printed at its
    // first release, to be written behind. True when the batch is full: it must be flushed.
    bool addLeaving(Span* span, unsigned long long print) {
        m_entries.push_back({span, print, false}); // cannot throw: reserved, flushed when full
        span->flags |= kInBatch;
        m_leavingBytes += span->bytes();
        return full();
    }
    bool addBehind(Span* span) {
        m_entries.push_back({span, span->fingerprint, false}); // as addLeaving
        span->flags |= kInBatch | kBehind;
        m_behindBytes += span->bytes();
        ++m_behindSpans;
        return full();
    }
    // Takes a span written behind out again.
    void removeBehind(Span* span) {
        const auto entry = std::find_if(m_entries.begin(), m_entries.end(),
                                        [span](const BatchEntry& e) { return e.span == span; });
        m_entries.erase(entry);
        span->flags &= static_cast<unsigned char>(~(kInBatch | kBehind));
        m_behindBytes -= span->bytes();
        --m_behindSpans;
    }
    // The entries, for the flush to order and write; clear() ends the flush.
    std::vector<BatchEntry>& entries() { return m_entries; }
    const std::vector<BatchEntry>& entries() const { return m_entries; }
    void clear() {
        m_entries.clear();
        m_leavingBytes = m_behindBytes = 0;
        m_behindSpans = 0;
    }
    // Bytes of the spans that leave memory when written: the room a flush makes.
    unsigned long long leavingBytes() const { return m_leavingBytes; }
    unsigned long long behindBytes() const { return m_behindBytes; }
    // Spans that leave memory when written.
    std::size_t leavingSpans() const { return m_entries.size() - m_behindSpans; }
    std::size_t behindSpans() const { return m_behindSpans; }

private:
    bool full() const {
        return m_leavingBytes + m_behindBytes >= kIoRunBytes ||
               m_entries.size() == m_entries.capacity();
    }

    std::vector<BatchEntry> m_entries;
    unsigned long long m_leavingBytes = 0;
    unsigned long long m_behindBytes = 0;
    std::size_t m_behindSpans = 0;
};

// The clock ring (rule 2): every resident span once, in a circle, with the hand of the sweep.
class ClockRing {
public:
    // Puts the span just behind the hand, so that the sweep reaches it last.
    void insert(Span* span) {
        ++m_size;
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
    void remove(Span* span) {
        --m_size;
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
    // The span under the hand; the hand moves on to the next. The ring must not be empty.
    Span* advance() {
        Span* span = m_hand;
        m_hand = span->ringNext;
        return span;
    }
    const Span* hand() const { return m_hand; }
    // Resident spans.
    unsigned long long size() const { return m_size; }

private:
    Span* m_hand = nullptr; // the next span the sweep looks at; null when the ring is empty
    unsigned long long m_size = 0;
};

// The figures ExtractStats reports that the rest of the engine does not keep anyway.
struct EngineCounts {
    unsigned long long objectsCurrent = 0;
    unsigned long long objectsMax = 0;  // most at once: each allocation keeps it up to date
    unsigned long long allocations = 0; // objects ever allocated
    unsigned long long largeSpans = 0;
    unsigned long long largePages = 0;
    unsigned long long pageReads = 0;
    unsigned long long pageWrites = 0;
    unsigned long long pageOuts = 0;
    unsigned long long pageDrops = 0;
};

class VirtualMemoryPool::Engine {
public:
    Engine(unsigned long long budget, const char* path);
    ~Engine();

    void* allocate(unsigned long long size, PageItem& item);
    // The plain calls do everything themselves, hits included: they are what a caller of the
    // fast path falls back to, and what a caller that uses no fast path gets.
    void* getAddress(unsigned long long offset, bool forWriting);
    void dismiss(unsigned long long offset);
    void dirty(unsigned long long offset);
    void deallocate(unsigned long long offset);
    void extractStats(VirtualMemoryStats* stats, unsigned long long size,
                      unsigned long long& needed);
    unsigned long long outstanding(VirtualMemoryReferenceInfo* info, unsigned long long count,
                                   unsigned long long* total);
    void setIo(const VirtualMemoryIo* io) { m_file.setIo(io); }
    FastTable* fastTable() { return &m_table; }
    void verify() const;

private:
    // Finds the span and slot of a live object starting at `offset`; null when there is none.
    Span* find(unsigned long long offset, unsigned& slot) const {
        const unsigned long long page = offset >> kPageShift;
        if (page >= m_fastPages.size())
            return nullptr;
        unsigned index;
        const FastPage& entry = m_fastPages[page];
        if (FastSpan* hot = entry.span) {
            // Resident: the hot block alone answers, without waiting on the cold record. Its
            // slot bytes cover every index an offset inside the span gives, and those past
            // the last slot read free.
            if (!fastSlot(offset - hot->base, hot->divisor, index) ||
                hot->counts()[index] == kFreeSlot)
                return nullptr;
            slot = index;
            return static_cast<Span*>(hot->owner);
        }
        Span* span = reinterpret_cast<Span*>(entry.bias); // rule 14
        if (span == nullptr || !fastSlot(offset - span->baseOffset(), divisorOf(span), index) ||
            index >= slotCount(span) || !span->isLive(index))
            return nullptr;
        slot = index;
        return span;
    }

    // The size class of a small object of `size` bytes (at most kMaxSmallSize).
    unsigned short classOf(unsigned long long size) const {
        return m_classOfGranules[(size + kClassGranule - 1) / kClassGranule];
    }
    // Marks `slot` free in the live bitmap and counts one object fewer in the span and the store;
    // the slot byte, the pins and the class are the caller's.
    void dropSlot(Span* span, unsigned slot) {
        span->live()[slot >> 6] &= ~(1ULL << (slot & 63));
        --span->liveCount;
        --m_counts.objectsCurrent;
    }

    // FastSpan::divisor of the span: ceil(2^64 / slot size), or 1 for one large object.
    unsigned long long divisorOf(const Span* span) const {
        return span->classIndex == kLargeClass ? 1 : m_classes[span->classIndex].divisor;
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
    std::size_t hotBytes(unsigned short classIndex) const {
        return FastSpan::kCountsOffset +
               (classIndex == kLargeClass ? 1 : m_classes[classIndex].countBytes);
    }
    unsigned countOf(const Span* span, unsigned slot) const;
    // What a sweep frees beyond what it must (rule 10).
    unsigned long long spare() const { return std::min(kIoRunBytes, m_table.budget / 16); }
    // A full store in the sense of rule 13: within two batches' worth of its budget.
    bool nearlyFull() const { return m_table.residentBytes + 2 * spare() >= m_table.budget; }
    // Whether a scan queue entry still names the span as it came in.
    bool isCurrent(const ScanEntry& entry) const {
        return entry.firstPage < m_fastPages.size() && recordAt(entry.firstPage) == entry.span &&
               entry.span->scanStamp == entry.stamp;
    }

    // The record of the live span that covers `page` (< the map's size), or null: a resident
    // span's through its hot block, a paged-out one's from the entry itself (rule 14).
    Span* recordAt(unsigned long long page) const {
        const FastPage& entry = m_fastPages[page];
        return entry.span != nullptr ? static_cast<Span*>(entry.span->owner)
                                     : reinterpret_cast<Span*>(entry.bias);
    }

    // State moves (the table in the opening comment).
    void setState(Span* span, SpanState state) {
        span->state = state;
        if (span->hot != nullptr) {
            if (state == kPrinted || state == kExact)
                span->hotFlags() |= kFastWriteSlow;
            else
                span->hotFlags() &= static_cast<unsigned char>(~kFastWriteSlow);
        }
    }
    // A hot block for a span of the class; null when memory runs out.
    FastSpan* takeHot(unsigned short classIndex);
    // Gives the span its memory and hot block (rule 14), in the ring and unpinned; the slot
    // bytes say which slots are live, all with count 0.
    void becomeResident(Span* span, char* memory, FastSpan* hot, SpanState state);
    // Takes memory and hot block away; the span keeps its record.
    void leaveMemory(Span* span);
    void mapPages(Span* span, FastSpan* hot, char* bias);

    Span* newSpan(unsigned short classIndex, unsigned pages);
    void releaseSpan(Span* span);
    bool resizePageMap(unsigned long long pages);
    HXL_VMM_OUT_OF_LINE bool makeRoom(unsigned long long incoming);
    bool chooseVictim(Span* span);
    bool flushBatch();
    void writeBehind(Span* span);
    void evict(Span* span);
    void queueForScan(Span* span);
    HXL_VMM_OUT_OF_LINE bool pageIn(Span* span);
    unsigned long long gatherRun(Span* span, bool sequential);
    std::size_t readRun(const Span* span);
    void giveFileSlot(Span* span);
    bool pin(Span* span, unsigned slot);
    void unpin(Span* span, unsigned slot);
    bool pinInTable(Span* span, unsigned slot);
    void unpinInTable(Span* span, unsigned slot);
    void spanUnpinned(Span* span);
    void countGone(Span* span);
    void takePrint(Span* span);
    void mappedForWriting(Span* span);
    // allocate, whatever the class's spans are like: the general case.
    HXL_VMM_COLD void* allocateSlow(unsigned long long size, PageItem& item);
    static unsigned lowestFreeSlot(const Span* span);
    inline void* placeObject(Span* span, unsigned slot, PageItem& item);
    // deallocate of a live object, whatever its span's state: the general case.
    HXL_VMM_COLD void endObject(Span* span, unsigned slot);
    // Records misuse in the table for the caller to see; nothing else changes.
    HXL_VMM_COLD void misused(unsigned long long offset);
    bool keepEmptied(Span* span);
    void nonFullPush(Span* span);
    void nonFullRemove(Span* span);
    void checkSpan(const Span* span) const;

    // Whether the resident span holds an object whose count is above 0 (rule 1): a slot byte
    // above kCountZero, that is with a bit above the lowest. The slot bytes of a class run to
    // a whole number of words, and those past the last slot are free.
    bool pinned(const Span* span) const {
        const unsigned char* counts = span->counts();
        if (span->classIndex == kLargeClass)
            return counts[0] > kCountZero;
        const unsigned words = m_classes[span->classIndex].countBytes / 8;
        for (unsigned word = 0; word < words; ++word) {
            unsigned long long bytes;
            std::memcpy(&bytes, counts + 8 * word, 8);
            if ((bytes & 0xFEFEFEFEFEFEFEFEULL) != 0)
                return true;
        }
        return false;
    }

    // The page map, with the published table (VirtualMemoryFastPath.h) in front of it: the
    // fast map and the counts a hit keeps. The table's budget is the resident budget;
    // residentBytes is the sum of the sizes of resident spans.
    PageMap m_fastPages;
    FastTable& m_table = m_fastPages.table();
    unsigned long long m_spreadBits[256] = {}; // a byte of the live bitmap as eight slot bytes
    // In the engine itself rather than behind a pointer: an allocation finds its class with one
    // load fewer.
    SizeClass m_classes[kClassCount] = {};
    // (size + 15) / 16 -> class index
    unsigned short m_classOfGranules[kMaxSmallSize / kClassGranule + 1] = {};
    ExtentAllocator m_pageNumbers{1};
    PageFile m_file;
    RecordArena<8, 256> m_records;
    RecordArena<kHotAlign, 640> m_hotBlocks;
    std::unordered_map<unsigned long long, unsigned> m_bigCounts; // offset -> count >= 255
    ClockRing m_ring;
    SpanMemory m_memory;
    WriteBatch m_batch;
    std::vector<iovec> m_pieces;   // scratch for gathered transfers
    std::vector<Span*> m_run;      // scratch for read-ahead
    std::vector<FastSpan*> m_hots; // scratch for read-ahead: the runs' hot blocks
    ScanQueue m_scanQueue;
    unsigned m_nextSequential = kNoSlot; // file page just behind the last span read
    // The last sweep found every resident span pinned; until a count goes to 0 (the table's
    // `released`) another would find the same (rule 2).
    bool m_allPinned = false;
    EngineCounts m_counts;
};

} // namespace tcmalloc

#endif
