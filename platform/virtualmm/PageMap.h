// The fast table and the page map behind it, in one block whose address never moves: the
// entries follow the table (VirtualMemoryFastPath.h), so a hit finds them without loading a
// pointer, and a caller may keep the table's address for the store's life.
//
// Rules
//   G1. The block is reserved, not committed: address space for the table and `capacity()`
//       entries, touched only as the map grows. It is the largest of 2^32 entries (64 GiB of
//       address space, every page number a store can use) down to 2^20 that the system grants,
//       else 2^16 entries from the heap; a store whose page numbers would pass the capacity
//       cannot grow (its allocations fail) rather than move the map.
//   G2. Entries from size() up to the capacity are null, so that a reader of any page number
//       below the capacity finds either a live entry or null.
#ifndef HXL_VMM_PAGEMAP_H
#define HXL_VMM_PAGEMAP_H

#include "VirtualMemoryFastPath.h"

#include <cstddef>

namespace tcmalloc {

class PageMap {
public:
    PageMap();
    ~PageMap();
    PageMap(const PageMap&) = delete;
    PageMap& operator=(const PageMap&) = delete;

    FastTable& table() { return *m_table; }
    std::size_t size() const { return static_cast<std::size_t>(m_table->pageCount); }
    std::size_t capacity() const { return m_capacity; }
    // The entries follow the table: found from its address, without loading `pages`.
    FastPage* data() { return entries(); }
    FastPage& operator[](std::size_t page) { return entries()[page]; }
    const FastPage& operator[](std::size_t page) const { return entries()[page]; }
    // Makes the map `pages` entries long; new entries are null, and entries given up are made
    // null (rule G2). False, with the map as it was, beyond the capacity.
    bool resize(std::size_t pages);

private:
    FastPage* entries() const { return reinterpret_cast<FastPage*>(m_table + 1); }

    FastTable* m_table;
    std::size_t m_capacity;
    std::size_t m_bytes; // of the mapping; 0 when the block came from the heap
};

} // namespace tcmalloc

#endif
