/// @file
/// @ingroup contracts
/// @brief The paging engine: a store of blocks named by 64-bit offsets, kept in memory up to a
/// resident budget and paged out to a page file when nobody holds them.
///
/// The engine takes no lock: the caller serialises every call on one store.
#ifndef VIRTUALMEMORYPOOL_H
#define VIRTUALMEMORYPOOL_H

#include "HXLExport.h"

#include <cstddef>

namespace tcmalloc {
class VirtualMemoryPool;
struct FastTable;
} // namespace tcmalloc

/// @ingroup contracts
/// @brief The engine's optional fast path (VirtualMemoryFastPath.h): its published table for
/// `pool`, good for the pool's life.
///
/// Weak: an engine that does not offer one leaves the symbol null, and callers then use the
/// plain calls of VirtualMemoryPool.
extern "C" HXL_EXPORT __attribute__((weak)) tcmalloc::FastTable*
tcmalloc_VirtualMemoryPool_FastTable(tcmalloc::VirtualMemoryPool* pool);

/// @brief The paging engine's interface: the store, its records and its fast path.
namespace tcmalloc {

/// @ingroup contracts
/// @brief The name of one object of the store. The caller fills `offset` before each call, except
/// Allocate, which fills it. 0 and 0xFFFFFFFFFFFFFFFF never name an object.
struct PageItem {
    /// The object's offset.
    unsigned long long offset;
};

/// @ingroup contracts
/// @brief One record per size class in use (byte offsets in the comments).
struct VirtualMemoryFixedPoolStats {
    unsigned long long allocBytes; ///< 0: bytes of live objects' slots in this class
    unsigned long long freeBytes;  ///< 8: bytes of free slots in this class's spans
    unsigned int spans;            ///< 16: spans of this class
    unsigned int pages;            ///< 20: pages in those spans
    unsigned int elementSize;      ///< 24: the slot size of the class in bytes
    unsigned int objects;          ///< 28: live objects of this class
};

/// @ingroup contracts
/// @brief The statistics record.
///
/// Its size is variable: ExtractStats says how many bytes it takes (kFixedPoolsOffset +
/// fixedPoolCount * sizeof(VirtualMemoryFixedPoolStats)). Byte offsets in the comments; all figures
/// are counts since the store was made unless they say "now".
struct VirtualMemoryStats {
    unsigned long long pageSize;          ///< 0: page size in bytes
    unsigned long long residentBudget;    ///< 8: the resident budget in bytes
    unsigned long long residentBytes;     ///< 16: bytes of spans in memory now
    unsigned long long objectsCurrent;    ///< 24: live objects now
    unsigned long long objectsMax;        ///< 32: most live objects at any one time
    unsigned long long objectsCumulative; ///< 40: objects ever allocated
    unsigned long long pageDrops;         ///< 48: spans dropped from memory without a write
    unsigned long long pageFileSize;      ///< 56: bytes of the page file; 0 while there is none
    unsigned long long pageReads;         ///< 64: spans read back from the page file
    unsigned long long pageOuts;          ///< 72: pages taken out of memory (written or dropped)
    unsigned long long pageWrites;        ///< 80: spans written to the page file
    unsigned long long largePages;        ///< 88: pages in spans of single large objects
    unsigned long long largeSpans;        ///< 96: spans of single large objects
    unsigned int fixedPoolCount;          ///< 104: records in fixedPools
    char pageFileName[260];               ///< 108: the page file's path, NUL-terminated; "" if none
    VirtualMemoryFixedPoolStats fixedPools[1]; ///< 368: fixedPoolCount records

    /// Byte offset of the first size class record.
    static constexpr std::size_t kFixedPoolsOffset = 368;

    /// The record of size class `index` (< fixedPoolCount) in a block of the size ExtractStats
    /// asked for.
    VirtualMemoryFixedPoolStats* fixedPool(unsigned int index) {
        return reinterpret_cast<VirtualMemoryFixedPoolStats*>(reinterpret_cast<char*>(this) +
                                                              kFixedPoolsOffset) +
               index;
    }
    /// The record of size class `index` (< fixedPoolCount), read-only.
    const VirtualMemoryFixedPoolStats* fixedPool(unsigned int index) const {
        return reinterpret_cast<const VirtualMemoryFixedPoolStats*>(
                   reinterpret_cast<const char*>(this) + kFixedPoolsOffset) +
               index;
    }
};

static_assert(offsetof(VirtualMemoryFixedPoolStats, allocBytes) == 0, "pool record layout");
static_assert(offsetof(VirtualMemoryFixedPoolStats, freeBytes) == 8, "pool record layout");
static_assert(offsetof(VirtualMemoryFixedPoolStats, spans) == 16, "pool record layout");
static_assert(offsetof(VirtualMemoryFixedPoolStats, pages) == 20, "pool record layout");
static_assert(offsetof(VirtualMemoryFixedPoolStats, elementSize) == 24, "pool record layout");
static_assert(offsetof(VirtualMemoryFixedPoolStats, objects) == 28, "pool record layout");
static_assert(sizeof(VirtualMemoryFixedPoolStats) == 32, "pool record layout");

static_assert(offsetof(VirtualMemoryStats, pageSize) == 0, "stats layout");
static_assert(offsetof(VirtualMemoryStats, objectsCurrent) == 24, "stats layout");
static_assert(offsetof(VirtualMemoryStats, objectsMax) == 32, "stats layout");
static_assert(offsetof(VirtualMemoryStats, objectsCumulative) == 40, "stats layout");
static_assert(offsetof(VirtualMemoryStats, pageFileSize) == 56, "stats layout");
static_assert(offsetof(VirtualMemoryStats, pageReads) == 64, "stats layout");
static_assert(offsetof(VirtualMemoryStats, pageOuts) == 72, "stats layout");
static_assert(offsetof(VirtualMemoryStats, pageWrites) == 80, "stats layout");
static_assert(offsetof(VirtualMemoryStats, largePages) == 88, "stats layout");
static_assert(offsetof(VirtualMemoryStats, largeSpans) == 96, "stats layout");
static_assert(offsetof(VirtualMemoryStats, fixedPoolCount) == 104, "stats layout");
static_assert(offsetof(VirtualMemoryStats, pageFileName) == 108, "stats layout");
static_assert(sizeof(VirtualMemoryStats::pageFileName) == 260, "stats layout");
static_assert(offsetof(VirtualMemoryStats, fixedPools) == VirtualMemoryStats::kFixedPoolsOffset,
              "stats layout");

/// @ingroup contracts
/// @brief One object's reference count, for GetOutstandingReferences.
struct VirtualMemoryReferenceInfo {
    unsigned long long offset; ///< the object's offset
    unsigned long long count;  ///< its reference count, above 0
};

/// @ingroup contracts
/// @brief The I/O calls the engine makes on its page file.
///
/// Tests replace them to provoke failures (a full disk, a failing read); each has the contract
/// of the POSIX call of the same name.
struct VirtualMemoryIo {
    /// Writes `count` bytes at byte `offset` of the page file.
    long (*pwrite)(int fd, const void* data, unsigned long count, long long offset);
    /// Reads `count` bytes at byte `offset` of the page file.
    long (*pread)(int fd, void* data, unsigned long count, long long offset);
};

/// @ingroup contracts
/// @brief The store. Objects are named by PageItem offsets, stable for their life.
///
//// References: Allocate and each GetAddress raise the object's count by 1 and give its
/// address, good until the Dismiss that answers it; Deallocate ends the object whatever its
/// count.
///
/// Paging: an object whose count is 0 may leave memory at any later call and come back, perhaps
/// at another address, with the same bytes; one with a count above 0 never moves.
///
/// Exceptions: the constructor throws std::bad_alloc; nothing else throws: running out of memory
/// or page file space, any page file I/O failure and a damaged page file give a null address.
class HXL_EXPORT VirtualMemoryPool {
public:
    /// An empty store whose page file will lie in the directory `path`.
    ///
    /// `size` is the resident budget in bytes (0 is taken as 1 page). `path` is copied. Throws
    /// std::bad_alloc when the engine's tables cannot be made.
    VirtualMemoryPool(unsigned long long size, const char* path);
    /// Ends every object at once, freed or not, and closes the page file.
    ~VirtualMemoryPool();
    /// Not copyable: the store owns its engine and page file.
    VirtualMemoryPool(const VirtualMemoryPool&) = delete;
    /// Not assignable: the store owns its engine and page file.
    VirtualMemoryPool& operator=(const VirtualMemoryPool&) = delete;

    /// A new object of `size` bytes (0 is allowed), 16-byte aligned, with reference count 1;
    /// its offset is written to `item`. Null when memory or page file space runs out; `item`
    /// is then set to offset 0.
    void* Allocate(unsigned long long size, PageItem& item);
    /// The address of the live object at `item.offset`, paged in if need be, with its count
    /// raised by 1. While the count stays above 0 the address does not change. Null when the
    /// offset names no live object, the page-in fails, or the page file gives back bytes other
    /// than those written (damage is never returned as data); nothing changes then, and a later
    /// call may succeed. `flag` true costs no write by itself: a span whose bytes did not change
    /// leaves memory without one. `flag` false maps for reading only: what is written through
    /// that address may be lost at a page-out unless Dirty is called.
    void* GetAddress(PageItem& item, bool flag);
    /// Lowers the count by 1. A count of 0 or an offset that names no live object is misuse:
    /// nothing changes, and the fast table (VirtualMemoryFastPath.h) counts it.
    void Dismiss(PageItem& item);
    /// Marks the object as changed since its span last came in, so that changes made through an
    /// address mapped with flag false are kept.
    void Dirty(PageItem& item);
    /// Ends the object; its memory and page file space are reused, and page file space that no
    /// object needs any more goes back to the file system. An offset that names no live object
    /// is misuse: nothing changes, and the fast table counts it.
    void Deallocate(PageItem& item);
    /// Fills the statistics record, in two calls: (null, 0, needed) sets `needed` to the record's
    /// size in bytes; (block, size, needed) fills a block of at least `needed` bytes. A block
    /// smaller than the record is left untouched.
    void ExtractStats(VirtualMemoryStats* stats, unsigned long long size,
                      unsigned long long& needed);
    /// The number of live objects whose count is above 0, in constant time. When `info` is not
    /// null, up to `count` of them are described there; `total`, when not null, receives the
    /// sum of their counts.
    unsigned long long GetOutstandingReferences(VirtualMemoryReferenceInfo* info,
                                                unsigned long long count,
                                                unsigned long long* total);

    /// Replaces the page file I/O calls (null restores the POSIX ones). The POSIX calls move
    /// runs of adjacent spans in one gathered call; a replaced seam is called once per span.
    void SetIo(const VirtualMemoryIo* io);
    /// Walks the whole store and aborts with a message if any of the engine's invariants is
    /// broken. Costs time in proportion to the store; meant for tests.
    void Verify() const;

private:
    friend FastTable* ::tcmalloc_VirtualMemoryPool_FastTable(VirtualMemoryPool* pool);
    class HXL_NO_EXPORT Engine;
    Engine* m_engine;
};

} // namespace tcmalloc

#endif
