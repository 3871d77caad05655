/// @file
/// @ingroup heap
/// @brief HXLMemoryPool: blocks of any size cut out of large heap blocks under a byte budget.
///
/// Glossary:
/// @verbatim
///  unit       16 bytes; inside the pool every size counts in units.
///  memheader  the one-unit header in front of every block, free or handed out: `next` (the
///             next free block; null while handed out) and `units` (the block's size in units,
///             header included). The caller's pointer is the header's address + 16.
///  free list  circular, singly linked through `next`, in address order apart from the one
///             step that wraps from the highest block to the lowest. Its anchor m_base has 0
///             units and so serves no request. No two free blocks are adjacent in memory.
///  rover      the member of the free list where the next search starts (next fit).
///  budget     m_remaining: bytes that may still be taken from the heap. It is no hard
///             ceiling: while it is not 0, the pool takes whatever a request needs.
///  quantum    the growth step in bytes.
/// @endverbatim
///
/// Memory returns to the heap only in the destructor. A pool serves one thread at a time.
#ifndef HXLMEMORYPOOL_H
#define HXLMEMORYPOOL_H

#include "HXLExport.h"

#include <vector>

/// @ingroup heap
/// @brief Blocks of any size cut out of large heap blocks under a byte budget (next fit).
///
/// Not tied to the store: no references, nothing pages out. A block is the caller's from alloc to
/// free; memory goes back to the heap with the pool.
///
/// Exceptions: free throws HXLAssertError for null and for a block freed twice; alloc throws
/// std::bad_alloc only when a new heap block cannot be recorded. Running out of budget or heap
/// is a null alloc.
class HXL_EXPORT HXLMemoryPool {
public:
    /// The header in front of every block (see the glossary of HXLMemoryPool.h).
    union memheader {
        /// The header's two fields.
        struct {
            memheader* next;          ///< free: next block of the free list; handed out: null
            unsigned long long units; ///< size in 16-byte units, this header included
        } s;
        /// The header as one unit of bytes, which sets its size and alignment.
        alignas(16) unsigned char unit[16];
    };

    /// A pool with no heap block yet.
    ///
    /// maxSize: the starting budget in bytes, 0 for twice the quantum. quantum: the growth step
    /// in bytes, 0 for 131072. No heap block is taken yet.
    HXLMemoryPool(unsigned long long maxSize, unsigned long long quantum);
    /// Returns every heap block, including blocks that callers still hold.
    ~HXLMemoryPool();
    /// Not copyable: the pool owns its heap blocks.
    HXLMemoryPool(const HXLMemoryPool&) = delete;
    /// Not assignable: the pool owns its heap blocks.
    HXLMemoryPool& operator=(const HXLMemoryPool&) = delete;

    /// A block of at least nbytes bytes, aligned to 16, owned by the pool and lent to the caller
    /// until free; null when nothing fits and the budget is spent, when the heap refuses, or when
    /// nbytes cannot be expressed in units. alloc(0) gives a valid block with no usable bytes.
    /// Only a failure to record a new heap block throws (the vector's exception).
    void* alloc(unsigned long long nbytes);
    /// Puts a block from alloc of this pool back on the free list, joining it to free neighbours.
    /// Throws HXLAssertError for null and for a block that is free already (nothing changes
    /// then). Requires a pool that has served an alloc.
    void free(void* memBlock);
    /// Raises the budget by the greater of amount and the quantum. Takes no memory.
    void expand(unsigned long long amount);
    /// The number of heap blocks taken, the quantum and the budget left, in bytes.
    void getStats(unsigned long long& blockCount, unsigned long long& quantum,
                  unsigned long long& remaining);

private:
    // Takes a heap block big enough for nunits units and frees it into the list. Gives back
    // m_rover, or null when the budget is 0 or the heap refuses.
    memheader* moreCore(unsigned long long nunits);

    unsigned long long m_remaining;
    memheader m_base;
    memheader* m_rover;
    std::vector<void*> m_blocks;
    unsigned long long m_quantum;
};

#endif
