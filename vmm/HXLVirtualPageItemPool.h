#ifndef HXLVIRTUALPAGEITEMPOOL_H
#define HXLVIRTUALPAGEITEMPOOL_H

#include "HXLExport.h"
#include "HXLVirtualPageItem.h"

#include <list>
#include <map>
#include <utility>

class HXLVirtualMemoryMgr;

/// @ingroup store
/// @brief A bounded cache from block contents to the store object that holds them, so that
/// holders of equal bytes share one object.
///
/// Keys are heap copies of the bytes; a lookup compares bytes and never maps a store object.
/// The pool holds no reference on any object and never frees one. Entries are evicted least
/// recently used first.
///
/// References: none held, none left behind; a remembered object may page out like any other.
///
/// Exceptions: set throws HXLOutOfMemoryError when the manager's alloc or the copy of the key
/// fails, and std::bad_alloc when the index cannot grow. Nothing else throws.
class HXL_EXPORT HXLVirtualPageItemPool {
public:
    /// A key: `m_size` bytes at `m_data` (a heap copy owned by the pool, or the caller's block
    /// during a lookup).
    struct PoolEntry {
        const void* m_data;  ///< the bytes
        unsigned int m_size; ///< their count
    };

    /// Orders keys by size first, then by their bytes compared as unsigned chars.
    struct cmp_void {
        /// True when `a` comes before `b`.
        bool operator()(const PoolEntry& a, const PoolEntry& b) const;
    };

    /// An empty pool of at most 1000 entries for `memoryMgr`, the manager that owns this pool
    /// (not owned).
    explicit HXLVirtualPageItemPool(HXLVirtualMemoryMgr* memoryMgr);
    /// An empty pool of at most `size` entries for `memoryMgr` (not owned).
    HXLVirtualPageItemPool(HXLVirtualMemoryMgr* memoryMgr, unsigned int size);
    /// Forgets every entry (reset), swallowing what that throws. Touches no store object.
    ~HXLVirtualPageItemPool();
    /// Not copyable: the pool owns the copies of its keys.
    HXLVirtualPageItemPool(const HXLVirtualPageItemPool&) = delete;
    /// Not assignable: the pool owns the copies of its keys.
    HXLVirtualPageItemPool& operator=(const HXLVirtualPageItemPool&) = delete;

    /// Makes `item` name a store object holding exactly the `size` bytes at `data`.
    ///
    /// It is a remembered one (no allocation, no reference, what `item` named before is not
    /// released), or a new one made by the manager's alloc from `item` as it stands, filled and
    /// dismissed. Null data or size 0 leave `item` alone. A miss evicts at most one entry. The
    /// caller's block is not kept.
    void set(const void* data, unsigned int size, HXLVirtualPageItem& item);
    /// Forgets every entry; store objects stay allocated.
    void reset();
    /// Sets the most entries kept; takes effect at the next miss, which removes at most one.
    void setPoolSize(unsigned int size);

private:
    // Invariants: m_entries and m_lru hold the same entries; an entry's key in both shares the
    // one heap copy of the bytes, which the list's entry frees; list positions stay valid when a
    // node moves inside the list, so a move never touches m_entries.
    typedef std::list<std::pair<PoolEntry, HXLVirtualPageItem>> LruList;

    std::map<PoolEntry, LruList::iterator, cmp_void> m_entries;
    LruList m_lru; // most recently used first
    HXLVirtualMemoryMgr* m_memoryMgr;
    unsigned int m_poolSize;
};

#endif
