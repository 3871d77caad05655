/// @file
/// @ingroup heap
/// @brief HXLMemoryArena: requests of any size under one byte budget.
///
/// Glossary:
/// @verbatim
///  bin          bin i is a header-mode, non-expandable HXLFixedMemoryPool of element size
///               8 * (i + 1); it serves requests of 8 * i + 1 to 8 * (i + 1) bytes. At most
///               4093 bins exist (bin 4092 has element size 32744, one per chunk).
///  non-bin      a request above m_numVarBins * 8 bytes: a heap block of size + 8 bytes with an
///               element header in front (size = the caller's size, chunk offset 0, in use 1,
///               filler 0x0E), so that HXLFixedMemoryPool::allocSize reads both kinds.
///  budget       m_remaining of m_maxAllowed bytes. Invariant after every operation:
///               m_maxAllowed - m_remaining == m_chunkSize * (chunks in all bins)
///                                             + sum over live non-bin blocks of (size + 8).
///               A chunk is spent from the moment a bin gets it until it returns to the heap;
///               elements freed into a bin change nothing.
///  reclaim      a chunk moved from one bin to another when the budget is spent; every bin
///               keeps its first wholly free chunk (reclaim(1)).
/// @endverbatim
///
/// Pointers are 8 bytes beyond a multiple of 16. An arena serves one thread at a time.
#ifndef HXLMEMORYARENA_H
#define HXLMEMORYARENA_H

#include "HXLExport.h"

#include <ostream>
#include <set>
#include <vector>

class HXLFixedMemoryPool;

/// @ingroup heap
/// @brief Requests of any size under one byte budget: small ones from bins, large ones from the
/// heap.
///
/// Not tied to the store: no references, nothing pages out. A block is the caller's from alloc
/// to free; the destructor releases everything.
///
/// Exceptions: see the constructor; alloc throws HXLOutOfMemoryError when a chunk cannot be had
/// and std::bad_alloc when a large block cannot be recorded; alloc (with detection on) and free
/// throw HXLAssertError on a damaged header, free also for null, for a bin element freed twice and
/// for a block this arena does not hold. Running out of budget is a null alloc.
class HXL_EXPORT HXLMemoryArena {
public:
    /// An arena with no chunk yet.
    ///
    /// numVarBins: the number of bins, 0 to 4093. maxAllowed: the budget in bytes, 0 for 262144.
    /// The third argument is accepted and ignored. Throws std::length_error
    /// for a negative count, HXLAssertError for more than 4093 bins, HXLOutOfMemoryError when a
    /// pool cannot be made; nothing is left behind then.
    HXLMemoryArena(int numVarBins, unsigned int maxAllowed, unsigned int);
    /// Returns every chunk and every non-bin block, including what callers still hold.
    ~HXLMemoryArena();
    /// Not copyable: the arena owns its bins and blocks.
    HXLMemoryArena(const HXLMemoryArena&) = delete;
    /// Not assignable: the arena owns its bins and blocks.
    HXLMemoryArena& operator=(const HXLMemoryArena&) = delete;

    /// A block of at least size bytes, lent to the caller until free; null for 0, when the budget
    /// cannot cover it (after moving or trimming free chunks), when the heap refuses, and above
    /// 0xFFFFFFF7 bytes. Throws HXLOutOfMemoryError when a chunk cannot be had, HXLAssertError on
    /// a damaged header found with detection on.
    void* alloc(unsigned int size);
    /// Takes back a block of either kind from this arena. Throws HXLAssertError for null, for a
    /// damaged header, for a bin element that is free already (or aborts, as its bin's abort flag
    /// says) and for a non-bin size that this arena does not hold.
    void free(void* mem);
    /// Raises the budget and its ceiling by the greater of amount and the chunk size, plus 8.
    void expand(unsigned int amount);

    /// The bin of a request of `size` bytes: (size - 1) >> 3 in 32-bit arithmetic, not checked
    /// against the number of bins.
    int size2Bin(unsigned int size);
    /// The element size of bin `bin`: 8 * bin + 8, not checked.
    unsigned int bin2Size(int bin);
    /// The number of bins.
    int getNumVarBins() const { return m_numVarBins; }

    /// Scans every bin's headers when detection is on (bin 0's flag speaks for the arena).
    void checkForMemoryOverWrite() const;

    /// The shape of one bin (counted from 0); each output may be null. All outputs are 0 for a
    /// bin out of range.
    void getPoolStats(int bin, int* chunkSize, int* chunkCount, int* elementsPerChunk);
    /// The budget: poolCount is always 1, memoryUsed is the bytes spent of the budget
    /// (m_maxAllowed - m_remaining), remaining the bytes left.
    void getPoolStats(unsigned int& poolCount, unsigned int& memoryUsed, unsigned int& remaining);
    /// Writes the budget, the non-bin counters and two lines per bin to os.
    void dumpStats(std::ostream& os);
    /// Passes the overwrite detection flag to every bin (see HXLFixedMemoryPool).
    void setDetectMemoryOverWrites(int on);
    /// Passes the abort flag to every bin (see HXLFixedMemoryPool).
    void setAbortProcessOnMemoryOverWrites(int on);

private:
    static int size2Index(unsigned int size) { return static_cast<int>((size - 1) >> 3); }
    static unsigned int index2Size(int bin) { return 8 * static_cast<unsigned int>(bin) + 8; }
    // The largest request that a bin serves.
    unsigned int binLimit() const { return static_cast<unsigned int>(m_numVarBins) * 8; }
    void* allocFromBin(unsigned int size);
    void* allocNonBin(unsigned int size);
    void release();

    int m_numVarBins;
    unsigned int m_maxAllowed;
    unsigned int m_remaining;
    unsigned int m_expansions;
    unsigned int m_nonBinAllocs;
    unsigned int m_chunkSize;
    unsigned int m_reclaims;
    unsigned int m_minNonBin;
    unsigned int m_maxNonBin;
    std::vector<HXLFixedMemoryPool*> m_pools;
    std::set<void*>* m_nonBinBlocks; // heap addresses (not callers' pointers) of live blocks
};

#endif
