// The paging engine.
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
//   pinned      a span with at least one object whose reference count is above 0.
//   clock ring  every resident span, in a circle. A hand sweeps it when room is needed: a
//               pinned span is passed over, a span released since the hand last passed it
//               (its referenced bit) gets a second chance, any other span is paged out.
//               Pinning and releasing touch only counters and that bit, never the ring.
//   file slot   a run of pages of the page file that keeps one span's bytes.
//
// Design rules
//   1. A pinned span is resident and never moves; only unpinned spans leave memory.
//   2. The clock ring holds exactly the resident spans; unpinnedResident counts those of them
//      that are not pinned, so a sweep knows when nothing can be evicted.
//   3. residentBytes is the sum of the sizes of resident spans. After any call returns it is at
//      most the budget, plus what pinned spans hold, plus spans whose page-out failed.
//   4. A span is written out only if it is dirty: mapped for writing (Allocate, GetAddress with
//      true, Dirty) since it last came in. A clean span has a valid copy in its file slot and is
//      dropped without a write.
//   5. A span keeps its file slot from its first write until it is released or left empty, so
//      a span that goes out again is written over its own slot.
//   6. The page map covers exactly the pages of live spans; released page numbers and file
//      slots go back to their extent allocators and are reused.
//   7. outstanding counts the objects whose reference count is above 0; it changes only when a
//      count moves between 0 and 1.
//   8. An I/O failure never changes an object's bytes or frees one: a failed write leaves the
//      span resident and dirty; a failed read leaves it paged out with its slot intact.
//
// Span states and the functions that move a span between them (pinned is "resident" with a
// count above 0; it keeps its dirty or clean flag):
//
//   state           entered by                              left by
//   free            the start; releaseSpan                  newSpan -> resident dirty
//   resident dirty  newSpan; Allocate, GetAddress(true) or  pageOut, which writes it
//                   Dirty on a resident span                -> paged out
//   resident clean  pageIn                                  GetAddress(true), Dirty -> dirty;
//                                                           pageOut, no write -> paged out
//   pinned          pin: Allocate, GetAddress               unpin of its last reference
//   paged out       pageOut, called only by makeRoom's      pageIn: GetAddress, Allocate
//                   clock sweep
//   any state: releaseSpan, when the last object of the span is deallocated -> free
#include "VirtualMemoryPool.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <new>
#include <string>
#include <unistd.h>
#include <vector>

#ifndef HXL_VMM_CHECK_LEVEL
#ifdef NDEBUG
#define HXL_VMM_CHECK_LEVEL 0
#else
#define HXL_VMM_CHECK_LEVEL 1
#endif
#endif

namespace tcmalloc {

namespace {

const unsigned kPageShift = 13;
const unsigned long long kPageSize = 1ULL << kPageShift;
const unsigned kMaxSmallSize = 8192;    // larger objects get spans of their own
const unsigned kClassGranule = 16;      // sizes are rounded to 16 bytes; addresses aligned
const unsigned kMaxSpanPages = 8;       // a small-object span is at most 64 KiB
const unsigned kFreeSlot = 0xFFFFFFFFu; // reference count of a slot with no object
const unsigned long long kNoSlot = ~0ULL;
const unsigned kCachedBufferPages = 32;               // span buffers up to 256 KiB are recycled
const unsigned long long kBufferCacheBytes = 2 << 20; // at most this much kept for reuse

long posixPwrite(int fd, const void* data, unsigned long count, long long offset) {
    return ::pwrite(fd, data, count, static_cast<off_t>(offset));
}
long posixPread(int fd, void* data, unsigned long count, long long offset) {
    return ::pread(fd, data, count, static_cast<off_t>(offset));
}
const VirtualMemoryIo kPosixIo = {posixPwrite, posixPread};

[[noreturn]] void broken(const char* rule, unsigned long long detail) {
    std::fprintf(stderr, "VirtualMemoryPool: invariant broken: %s (%llu)\n", rule, detail);
    std::abort();
}

#define VMM_CHECK(cond, detail)                                                                    \
    do {                                                                                           \
        if (!(cond))                                                                               \
            broken(#cond, static_cast<unsigned long long>(detail));                                \
    } while (0)

// Best-fit allocator of runs of units (page numbers, page file pages) with coalescing.
class ExtentAllocator {
public:
    explicit ExtentAllocator(unsigned long long first) : m_end(first) {}

    // A run of `count` units; grows the end when no free run fits.
    unsigned long long take(unsigned long long count) {
        auto fit = m_bySize.lower_bound(count);
        if (fit == m_bySize.end()) {
            const unsigned long long start = m_end;
            m_end += count;
            return start;
        }
        const unsigned long long length = fit->first;
        const unsigned long long start = fit->second;
        m_bySize.erase(fit);
        m_byStart.erase(start);
        if (length > count)
            insert(start + count, length - count);
        return start;
    }

    // Gives a run back; joins it with free neighbours and lowers the end when it reaches it.
    void give(unsigned long long start, unsigned long long count) {
        auto next = m_byStart.lower_bound(start);
        if (next != m_byStart.end() && next->first == start + count) {
            count += next->second;
            eraseRun(next);
            next = m_byStart.lower_bound(start);
        }
        if (next != m_byStart.begin()) {
            auto prev = std::prev(next);
            if (prev->first + prev->second == start) {
                start = prev->first;
                count += prev->second;
                eraseRun(prev);
            }
        }
        if (start + count == m_end)
            m_end = start;
        else
            insert(start, count);
    }

    unsigned long long end() const { return m_end; }
    unsigned long long freeUnits() const {
        unsigned long long total = 0;
        for (const auto& run : m_byStart)
            total += run.second;
        return total;
    }

private:
    void insert(unsigned long long start, unsigned long long count) {
        m_byStart.emplace(start, count);
        m_bySize.emplace(count, start);
    }
    void eraseRun(std::map<unsigned long long, unsigned long long>::iterator it) {
        auto range = m_bySize.equal_range(it->second);
        for (auto s = range.first; s != range.second; ++s) {
            if (s->second == it->first) {
                m_bySize.erase(s);
                break;
            }
        }
        m_byStart.erase(it);
    }

    std::map<unsigned long long, unsigned long long> m_byStart;     // start -> length
    std::multimap<unsigned long long, unsigned long long> m_bySize; // length -> start
    unsigned long long m_end;                                       // first unit never handed out
};

struct SizeClass;

// The fields that GetAddress and Dismiss read come first, in one cache line.
struct Span {
    unsigned long long firstPage;
    char* memory;         // the span's bytes while resident, else null
    unsigned* refs;       // per slot: reference count, or kFreeSlot
    unsigned elementSize; // slot size; 0 for a span of one large object
    unsigned slotMagic;   // ceil(2^32 / elementSize): slot = delta * slotMagic >> 32
    unsigned slotCount;   // 1 for a large object
    unsigned pinCount;    // objects with a reference count above 0
    bool dirty;           // mapped for writing since it last came in (or never saved)
    bool referenced;      // released since the clock hand last passed
    bool onNonFullList;
    unsigned pageCount;
    unsigned classIndex;         // index into the class table; kLargeClass for a large object
    unsigned liveCount;          // slots holding an object
    unsigned long long fileSlot; // first page of its copy in the page file, or kNoSlot
    unsigned* freeStack;         // free slot indices; freeTop of them are valid
    unsigned freeTop;
    Span* ringPrev; // clock ring links (resident spans only)
    Span* ringNext;
    Span* classPrev; // the class's list of spans with free slots
    Span* classNext;

    unsigned long long bytes() const {
        return static_cast<unsigned long long>(pageCount) << kPageShift;
    }
    unsigned long long baseOffset() const { return firstPage << kPageShift; }
};

const unsigned kLargeClass = ~0u;

struct SizeClass {
    unsigned elementSize;
    unsigned pages;
    unsigned slots;
    unsigned spanCount;
    unsigned emptySpans; // spans of this class with no object, kept for reuse
    unsigned long long liveObjects;
    Span* nonFull; // spans with free slots; resident ones are put in front
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
    void setIo(const VirtualMemoryIo* io) { m_io = io ? *io : kPosixIo; }
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
            if (index * span->elementSize != delta || index >= span->slotCount)
                return nullptr;
            slot = index;
        }
        return span->refs[slot] == kFreeSlot ? nullptr : span;
    }

    static unsigned long long slotOffset(const Span* span, unsigned slot) {
        return span->baseOffset() + static_cast<unsigned long long>(slot) * span->elementSize;
    }

    Span* newSpan(unsigned classIndex, unsigned pages, unsigned slots);
    void releaseSpan(Span* span);
    bool makeRoom(unsigned long long incoming);
    bool pageOut(Span* span);
    bool pageIn(Span* span);
    bool openPageFile();
    bool writeAll(const char* data, unsigned long long count, unsigned long long at);
    bool readAll(char* data, unsigned long long count, unsigned long long at);

    void giveFileSlot(Span* span);
    void pin(Span* span, unsigned slot);
    void unpin(Span* span, unsigned slot);
    void ringInsert(Span* span);
    void ringRemove(Span* span);
    char* takeBuffer(unsigned pages, bool& recycled);
    void dropBuffer(char* memory, unsigned pages);
    void nonFullPush(Span* span);
    void nonFullRemove(Span* span);
    void checkSpan(const Span* span) const;

    unsigned long long m_budget;
    std::string m_directory;
    std::vector<SizeClass> m_classes;
    std::vector<unsigned short> m_classOfGranules; // (size + 15) / 16 -> class index
    std::vector<Span*> m_pageMap;
    ExtentAllocator m_pageNumbers{1};
    ExtentAllocator m_fileSpace{0};
    Span* m_hand = nullptr; // the clock hand: next span the sweep looks at; null if no span
    unsigned long long m_unpinnedResident = 0;
    unsigned long long m_residentBytes = 0;
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
    int m_fd = -1;
    std::string m_fileName;
    VirtualMemoryIo m_io = kPosixIo;
};

VirtualMemoryPool::Engine::Engine(unsigned long long budget, const char* path)
    : m_budget(budget == 0 ? kPageSize : budget), m_directory(path ? path : "") {
    if (m_directory.empty())
        m_directory = "/tmp";
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
        m_classes.push_back(SizeClass{size, bestPages, slots, 0, 0, 0, nullptr});
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
    // moving a span out of memory, never allocates.
    for (unsigned pages = 1; pages <= kCachedBufferPages; ++pages)
        m_buffers[pages].reserve((kBufferCacheBytes >> kPageShift) / pages);
    m_classOfGranules.resize(kMaxSmallSize / kClassGranule + 1);
    unsigned index = 0;
    for (unsigned granules = 0; granules < m_classOfGranules.size(); ++granules) {
        while (m_classes[index].elementSize < std::max(granules, 1u) * kClassGranule)
            ++index;
        m_classOfGranules[granules] = static_cast<unsigned short>(index);
    }
}

VirtualMemoryPool::Engine::~Engine() {
    // Every object ends with the store: no write, no check of references.
    for (unsigned long long page = 0; page < m_pageMap.size(); ++page) {
        Span* span = m_pageMap[page];
        if (span == nullptr)
            continue;
        page += span->pageCount - 1; // the span's other pages name it too
        std::free(span->memory);
        delete[] span->refs;
        delete[] span->freeStack;
        delete span;
    }
    for (std::vector<char*>& bucket : m_buffers)
        for (char* buffer : bucket)
            std::free(buffer);
    if (m_fd >= 0)
        ::close(m_fd);
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
    void* memory = nullptr;
    if (posix_memalign(&memory, 64, static_cast<size_t>(pages) << kPageShift) != 0)
        return nullptr;
    return static_cast<char*>(memory);
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

Span* VirtualMemoryPool::Engine::newSpan(unsigned classIndex, unsigned pages, unsigned slots) {
    const unsigned long long bytes = static_cast<unsigned long long>(pages) << kPageShift;
    bool recycled;
    char* memory = takeBuffer(pages, recycled);
    if (memory == nullptr)
        return nullptr;
    // Fresh memory is cleared so that a page file never receives uninitialised bytes; a
    // recycled buffer holds old bytes of this store, which are as good.
    if (!recycled)
        std::memset(memory, 0, bytes);
    // The page map grows before anything else changes, to cover the pages take() may add at
    // the end, so that running out of memory leaves the store as it was and gives null rather
    // than an exception. A map longer than the page numbers in use is harmless: its tail stays
    // null.
    if (m_pageNumbers.end() + pages > m_pageMap.size()) {
        try {
            m_pageMap.resize(m_pageNumbers.end() + pages, nullptr);
        } catch (const std::exception&) {
            dropBuffer(memory, pages);
            return nullptr;
        }
    }
    Span* span = new (std::nothrow) Span();
    unsigned* refs = new (std::nothrow) unsigned[slots];
    unsigned* freeStack = new (std::nothrow) unsigned[slots];
    if (span == nullptr || refs == nullptr || freeStack == nullptr) {
        dropBuffer(memory, pages);
        delete span;
        delete[] refs;
        delete[] freeStack;
        return nullptr;
    }
    span->firstPage = m_pageNumbers.take(pages);
    span->pageCount = pages;
    span->classIndex = classIndex;
    span->elementSize = classIndex == kLargeClass ? 0 : m_classes[classIndex].elementSize;
    span->slotMagic =
        span->elementSize == 0 ? 0 : static_cast<unsigned>((1ULL << 32) / span->elementSize + 1);
    span->slotCount = slots;
    span->liveCount = 0;
    span->pinCount = 0;
    span->memory = memory;
    span->dirty = true; // nothing of it is in the page file yet
    span->referenced = false;
    span->onNonFullList = false;
    span->fileSlot = kNoSlot;
    span->refs = refs;
    span->freeStack = freeStack;
    // Lowest slots first, so a new span fills from its start.
    for (unsigned i = 0; i < slots; ++i) {
        refs[i] = kFreeSlot;
        freeStack[i] = slots - 1 - i;
    }
    span->freeTop = slots;
    span->classPrev = span->classNext = nullptr;
    for (unsigned i = 0; i < pages; ++i)
        m_pageMap[span->firstPage + i] = span;
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
    m_pageNumbers.give(span->firstPage, span->pageCount);
    if (m_pageNumbers.end() < m_pageMap.size())
        m_pageMap.resize(m_pageNumbers.end());
    delete[] span->refs;
    delete[] span->freeStack;
    delete span;
}

// Sweeps the clock until `incoming` more bytes fit in the budget or nothing unpinned is
// left. False only when a page-out failed (rule 8); the hand then rests on that span.
bool VirtualMemoryPool::Engine::makeRoom(unsigned long long incoming) {
    while (m_residentBytes + incoming > m_budget && m_unpinnedResident > 0) {
        Span* span = m_hand;
        if (span->pinCount > 0) {
            m_hand = span->ringNext;
        } else if (span->referenced) {
            span->referenced = false;
            m_hand = span->ringNext;
        } else if (!pageOut(span)) {
            return false;
        }
    }
    return true;
}

bool VirtualMemoryPool::Engine::openPageFile() {
    std::string name = m_directory;
    if (name.back() != '/')
        name += '/';
    name += "hxlvmm-" + std::to_string(::getpid()) + "-XXXXXX";
    std::vector<char> buffer(name.begin(), name.end());
    buffer.push_back('\0');
    // mkostemp creates exclusively (O_EXCL, so no existing name or link is followed) with mode
    // 0600; the name is removed at once so nothing outlives the process.
    const int fd = ::mkostemp(buffer.data(), O_CLOEXEC);
    if (fd < 0)
        return false;
    ::unlink(buffer.data());
    m_fd = fd;
    m_fileName = buffer.data();
    return true;
}

bool VirtualMemoryPool::Engine::writeAll(const char* data, unsigned long long count,
                                         unsigned long long at) {
    while (count > 0) {
        const long n = m_io.pwrite(m_fd, data, count, static_cast<long long>(at));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        data += n;
        at += static_cast<unsigned long long>(n);
        count -= static_cast<unsigned long long>(n);
    }
    return true;
}

bool VirtualMemoryPool::Engine::readAll(char* data, unsigned long long count,
                                        unsigned long long at) {
    while (count > 0) {
        const long n = m_io.pread(m_fd, data, count, static_cast<long long>(at));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false; // an error, or the file ends before the span does
        data += n;
        at += static_cast<unsigned long long>(n);
        count -= static_cast<unsigned long long>(n);
    }
    return true;
}

// Returns the span's file slot for reuse; when that frees the end of the page file the file is
// cut back, so its reported size is its true size.
void VirtualMemoryPool::Engine::giveFileSlot(Span* span) {
    const unsigned long long end = m_fileSpace.end();
    m_fileSpace.give(span->fileSlot, span->pageCount);
    span->fileSlot = kNoSlot;
    if (m_fileSpace.end() < end && m_fd >= 0 &&
        ::ftruncate(m_fd, static_cast<off_t>(m_fileSpace.end() << kPageShift)) != 0) {
        // Keeping a longer file than needed is harmless; its tail is reused or cut later.
    }
}

bool VirtualMemoryPool::Engine::pageOut(Span* span) {
    if (span->dirty) {
        if (m_fd < 0 && !openPageFile())
            return false;
        bool newSlot = false;
        if (span->fileSlot == kNoSlot) {
            span->fileSlot = m_fileSpace.take(span->pageCount);
            newSlot = true;
        }
        if (!writeAll(span->memory, span->bytes(), span->fileSlot << kPageShift)) {
            if (newSlot)
                giveFileSlot(span);
            return false;
        }
        ++m_pageWrites;
    } else {
        ++m_pageDrops;
    }
    ringRemove(span);
    --m_unpinnedResident;
    dropBuffer(span->memory, span->pageCount);
    span->memory = nullptr;
    span->dirty = false;
    m_residentBytes -= span->bytes();
    m_pageOuts += span->pageCount;
    return true;
}

bool VirtualMemoryPool::Engine::pageIn(Span* span) {
    if (!makeRoom(span->bytes()))
        return false;
    bool recycled;
    char* memory = takeBuffer(span->pageCount, recycled);
    if (memory == nullptr)
        return false;
    if (!readAll(memory, span->bytes(), span->fileSlot << kPageShift)) {
        dropBuffer(memory, span->pageCount);
        return false;
    }
    ++m_pageReads;
    span->memory = memory;
    span->dirty = false;
    span->referenced = false;
    m_residentBytes += span->bytes();
    ++m_unpinnedResident; // a paged-out span is never pinned
    ringInsert(span);
    return true;
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
    span->onNonFullList = true;
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
    if (!span->onNonFullList)
        return;
    SizeClass& sc = m_classes[span->classIndex];
    if (span->classPrev)
        span->classPrev->classNext = span->classNext;
    else
        sc.nonFull = span->classNext;
    if (span->classNext)
        span->classNext->classPrev = span->classPrev;
    span->classPrev = span->classNext = nullptr;
    span->onNonFullList = false;
}

void VirtualMemoryPool::Engine::pin(Span* span, unsigned slot) {
    if (span->refs[slot]++ == 0) {
        ++m_outstanding;
        if (span->pinCount++ == 0)
            --m_unpinnedResident;
    }
}

void VirtualMemoryPool::Engine::unpin(Span* span, unsigned slot) {
    if (--span->refs[slot] == 0) {
        --m_outstanding;
        if (--span->pinCount == 0) {
            ++m_unpinnedResident;
            span->referenced = true;
            // What was pinned may have held the store above its budget; a failed page-out
            // here is retried by the next call that needs room (rule 8).
            if (m_residentBytes > m_budget)
                makeRoom(0);
        }
    }
}

void* VirtualMemoryPool::Engine::allocate(unsigned long long size, PageItem& item) {
    item.offset = 0;
    Span* span;
    unsigned slot;
    if (size <= kMaxSmallSize) {
        const unsigned classIndex = m_classOfGranules[(size + kClassGranule - 1) / kClassGranule];
        SizeClass& sc = m_classes[classIndex];
        span = sc.nonFull;
        if (span != nullptr) {
            if (span->memory == nullptr && !pageIn(span))
                return nullptr;
        } else {
            if (!makeRoom(sc.pages * kPageSize))
                return nullptr;
            span = newSpan(classIndex, sc.pages, sc.slots);
            if (span == nullptr)
                return nullptr;
            nonFullPush(span);
            ++sc.emptySpans;
        }
        if (span->liveCount == 0)
            --sc.emptySpans;
        slot = span->freeStack[--span->freeTop];
        if (span->freeTop == 0)
            nonFullRemove(span);
        ++sc.liveObjects;
    } else {
        // Page counts are 32-bit; refuse before the rounding below could wrap.
        if (size > (0xFFFFFFFFULL << kPageShift))
            return nullptr;
        const unsigned long long pages = (size + kPageSize - 1) >> kPageShift;
        if (!makeRoom(pages * kPageSize))
            return nullptr;
        span = newSpan(kLargeClass, static_cast<unsigned>(pages), 1);
        if (span == nullptr)
            return nullptr;
        slot = 0;
        span->freeTop = 0;
    }
    span->refs[slot] = 0;
    ++span->liveCount;
    ++m_objectsCurrent;
    pin(span, slot);
    span->dirty = true;
    ++m_objectsCumulative;
    m_objectsMax = std::max(m_objectsMax, m_objectsCurrent);
    item.offset = slotOffset(span, slot);
#if HXL_VMM_CHECK_LEVEL >= 1
    checkSpan(span);
#endif
    return span->memory + (item.offset - span->baseOffset());
}

void* VirtualMemoryPool::Engine::getAddress(unsigned long long offset, bool forWriting) {
    unsigned slot;
    Span* span = find(offset, slot);
    // A count one short of the free-slot marker is full: one more would make the object vanish.
    if (span == nullptr || span->refs[slot] == kFreeSlot - 1)
        return nullptr;
    if (span->memory == nullptr && !pageIn(span))
        return nullptr;
    pin(span, slot);
    if (forWriting)
        span->dirty = true;
    return span->memory + (offset - span->baseOffset());
}

void VirtualMemoryPool::Engine::dismiss(unsigned long long offset) {
    unsigned slot;
    Span* span = find(offset, slot);
    if (span == nullptr || span->refs[slot] == 0)
        return;
    unpin(span, slot);
}

void VirtualMemoryPool::Engine::dirty(unsigned long long offset) {
    unsigned slot;
    Span* span = find(offset, slot);
    if (span != nullptr && span->memory != nullptr)
        span->dirty = true;
}

void VirtualMemoryPool::Engine::deallocate(unsigned long long offset) {
    unsigned slot;
    Span* span = find(offset, slot);
    if (span == nullptr)
        return;
    if (span->refs[slot] > 0) {
        --m_outstanding;
        if (--span->pinCount == 0) {
            ++m_unpinnedResident;
            span->referenced = true;
        }
    }
    span->refs[slot] = kFreeSlot;
    --span->liveCount;
    --m_objectsCurrent;
    if (span->classIndex == kLargeClass) {
        releaseSpan(span);
        return;
    }
    SizeClass& sc = m_classes[span->classIndex];
    --sc.liveObjects;
    span->freeStack[span->freeTop++] = slot;
    if (span->liveCount == 0) {
        // Keep one resident empty span per class, so alloc/free in turn does not make and
        // release a span every time. Its bytes mean nothing any more: its file copy goes.
        if (sc.emptySpans > 0 || span->memory == nullptr) {
            releaseSpan(span);
            return;
        }
        ++sc.emptySpans;
        if (span->fileSlot != kNoSlot) {
            giveFileSlot(span);
            span->dirty = true; // a page-out must find it a slot again
        }
    }
    if (!span->onNonFullList)
        nonFullPush(span);
    // Ending a pinned object may have unpinned a span that held the store above its budget
    // (rule 3), as the last dismiss would have.
    if (m_residentBytes > m_budget)
        makeRoom(0);
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
    stats->pageFileSize = m_fd >= 0 ? m_fileSpace.end() << kPageShift : 0;
    stats->pageReads = m_pageReads;
    stats->pageOuts = m_pageOuts;
    stats->pageWrites = m_pageWrites;
    stats->largePages = m_largePages;
    stats->largeSpans = m_largeSpans;
    stats->fixedPoolCount = poolCount;
    std::snprintf(stats->pageFileName, sizeof(stats->pageFileName), "%s", m_fileName.c_str());
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
        for (unsigned slot = 0; slot < span->slotCount; ++slot) {
            const unsigned refs = span->refs[slot];
            if (refs == kFreeSlot || refs == 0)
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
    unsigned live = 0, pinned = 0;
    for (unsigned slot = 0; slot < span->slotCount; ++slot) {
        if (span->refs[slot] != kFreeSlot) {
            ++live;
            pinned += span->refs[slot] > 0;
        }
    }
    VMM_CHECK(live == span->liveCount, span->firstPage);
    VMM_CHECK(pinned == span->pinCount, span->firstPage);
    VMM_CHECK(live + span->freeTop == span->slotCount || span->classIndex == kLargeClass,
              span->firstPage);
    VMM_CHECK(span->pinCount == 0 || span->memory != nullptr, span->firstPage); // rule 1
    VMM_CHECK(span->memory != nullptr || span->fileSlot != kNoSlot, span->firstPage);
    VMM_CHECK(span->memory != nullptr || !span->dirty, span->firstPage);
}

void VirtualMemoryPool::Engine::verify() const {
    unsigned long long resident = 0, outstanding = 0, objects = 0;
    unsigned long long pagesMapped = 0, filePages = 0;
    for (unsigned long long page = 0; page < m_pageMap.size(); ++page) {
        const Span* span = m_pageMap[page];
        if (span == nullptr)
            continue;
        ++pagesMapped;
        VMM_CHECK(page >= span->firstPage && page < span->firstPage + span->pageCount, page);
        if (span->firstPage != page)
            continue;
        checkSpan(span);
        if (span->memory != nullptr)
            resident += span->bytes();
        if (span->fileSlot != kNoSlot)
            filePages += span->pageCount;
        objects += span->liveCount;
        for (unsigned slot = 0; slot < span->slotCount; ++slot)
            outstanding += span->refs[slot] != kFreeSlot && span->refs[slot] > 0;
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
    VMM_CHECK(objects == m_objectsCurrent, objects);
    VMM_CHECK(pagesMapped + m_pageNumbers.freeUnits() + 1 == m_pageNumbers.end(), pagesMapped);
    VMM_CHECK(filePages + m_fileSpace.freeUnits() == m_fileSpace.end(), filePages); // rule 6
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
