/// @file
/// @ingroup heap
/// @brief HXLFixedMemoryPool: elements of one size carved out of 32768-byte chunks on the
/// process heap.
///
/// Glossary:
/// @verbatim
///  chunk        a block of exactly 32768 bytes: an element area of Chunk::size (32752) bytes,
///               then the chunk's link m_next (offset 0x7FF0) and its free-list head m_free
///               (offset 0x7FF8).
///  element      one slot of m_esize bytes in a chunk's element area; element k lies at
///               k * m_esize. m_esize is a multiple of 16 and includes the header.
///  header mode  every element starts with an 8-byte ElementHeader and each chunk keeps its own
///               free list; the caller's pointer is the header's address + 8.
///  plain mode   no headers; one free list for the whole pool; the caller's pointer is the
///               element's start.
///  link         the first 8 bytes of a free element's caller area: the caller's pointer of the
///               next free element, null in the last.
///  wholly free  a chunk whose m_free is set and in which no element has m_inUse set.
///  hit          a header whose m_filler3 is not 0x0E (or, in a full scan, whose m_elementSize
///               is not the pool's requested size).
/// @endverbatim
///
/// A pool serves one thread at a time; it takes no lock.
#ifndef HXLFIXEDMEMORYPOOL_H
#define HXLFIXEDMEMORYPOOL_H

#include "HXLExport.h"

/// @ingroup heap
/// @brief Elements of one size on the process heap, with optional headers and overwrite
/// detection.
///
/// Not tied to the store: no references, nothing pages out. An element is the caller's from
/// alloc to free; the destructor releases every chunk.
///
/// Exceptions: the constructor throws HXLAssertError for an element that does not fit a chunk;
/// a damaged header throws HXLAssertError (or aborts, with the abort flag set) from the calls
/// that test headers, and from free for a header-mode element freed twice; alloc and grow throw
/// HXLOutOfMemoryError when operator new fails. Running out of elements is a null alloc.
class HXL_EXPORT HXLFixedMemoryPool {
public:
    /// The layout of a chunk. Chunks are raw blocks from operator new(32768); this struct only
    /// names their parts.
    struct Chunk {
        static constexpr unsigned int size = 0x7FF0; ///< bytes of the element area
        /// The element area: element k at k * the pool's stride.
        unsigned char m_elements[size];
        Chunk* m_next; ///< next chunk of the pool's list (newest first); null in the last
        void* m_free;  ///< header mode: caller's pointer of the first free element, or null
    };

    /// The 8 bytes in front of an element in header mode, little-endian.
    ///
    /// HXLMemoryArena writes the same header in front of its non-bin blocks, so allocSize reads
    /// both.
    struct ElementHeader {
        unsigned int m_elementSize;   ///< the pool's requested size (arena: the caller's size)
        unsigned short m_chunkOffset; ///< bytes from the chunk's start to this header
        unsigned char m_inUse;        ///< 1 while handed out, 0 while free
        unsigned char m_filler3;      ///< always kFiller
    };

    /// Bytes of a chunk.
    static constexpr unsigned int kChunkBytes = 0x8000;
    /// The value of every header's m_filler3.
    static constexpr unsigned char kFiller = 0x0E;

    /// A pool with no chunk yet.
    ///
    /// size: bytes a caller may use in an element; 0 stands for 16. expandable: only bit 0
    /// counts; when set, alloc adds chunks by itself. useHeaders: non-zero selects header mode.
    /// Throws HXLAssertError when an element (header included, rounded to 16) would not fit in
    /// a chunk's element area.
    HXLFixedMemoryPool(unsigned int size, int expandable, int useHeaders);
    /// Releases every chunk, whether or not callers still hold elements in it.
    ~HXLFixedMemoryPool();
    /// Not copyable: the pool owns its chunks.
    HXLFixedMemoryPool(const HXLFixedMemoryPool&) = delete;
    /// Not assignable: the pool owns its chunks.
    HXLFixedMemoryPool& operator=(const HXLFixedMemoryPool&) = delete;

    /// Gives an element, the caller's until free, with whatever bytes it holds; null when no
    /// chunk has a free element and the pool is not expandable. In header mode the pointer is 8
    /// bytes beyond a multiple of 16, in plain mode a multiple of 16. Throws HXLAssertError on a
    /// damaged header (or aborts, with the abort flag set), HXLOutOfMemoryError when growing fails.
    void* alloc();
    /// Takes an element of this pool back; null does nothing (beyond the scan when detection is
    /// on). Overwrites the first 8 bytes of the element. A damaged header is reported as in alloc.
    /// In header mode an element that is free already is refused the same way (HXLAssertError,
    /// or abort() with the abort flag set), and nothing changes; plain mode cannot tell.
    void free(void* p);
    /// Adds one chunk and carves it for this pool's element size. A non-null chunk is a block of
    /// kChunkBytes bytes from operator new (e.g. from reclaim of any pool), which the pool now
    /// owns; null makes the pool take one from operator new. Throws HXLOutOfMemoryError. In plain
    /// mode the new chunk's elements replace the pool's free list: elements that were free in
    /// older chunks are not served again (alloc grows only on an empty list, so only a caller's
    /// grow can strand them) and go back to the heap with the pool.
    void grow(void* chunk);
    /// The size stored in the header in front of p (a header-mode element or an arena block);
    /// 0 for null. Throws HXLAssertError when the header's filler is damaged.
    static unsigned int allocSize(void* p);

    /// @name Upkeep
    /// Header mode only.
    /// @{

    /// Unlinks and gives back a wholly free chunk, passing over `skip` wholly free chunks first
    /// (newest first); the block is then the caller's (operator delete or grow). Null when there
    /// is none, for a negative skip, and in plain mode.
    void* reclaim(int skip);
    /// Releases up to `limit` wholly free chunks to the heap (0: all of them); gives back the
    /// bytes released, a multiple of kChunkBytes. Plain mode and a negative limit release nothing.
    unsigned int trim(int limit);
    /// The shape of the pool; each output may be null. chunkSize receives kChunkBytes,
    /// chunkCount the number of chunks, elementsPerChunk Chunk::size / m_esize. chunksInUse
    /// counts chunks that are not wholly free, only in header mode and only when chunkCount is
    /// asked for; otherwise it is 0.
    void info(int* chunkSize, int* chunkCount, int* elementsPerChunk, int* chunksInUse);
    /// Tests the header of every element of every chunk (header mode; plain mode returns at
    /// once), regardless of the detection flag. Changes nothing.
    void checkForMemoryOverWrite() const;
    /// @}

    /// @name Overwrite detection
    /// When on, alloc, free, grow, info and reclaim scan the whole pool. When the abort flag is
    /// on, a hit ends the process by abort() instead of raising HXLAssertError.
    /// @{

    /// Turns overwrite detection on (non-zero) or off.
    void setDetectMemoryOverWrites(int on);
    /// 1 while overwrite detection is on, else 0.
    int getDetectMemoryOverWrites() const { return (m_flags & kFlagDetect) != 0 ? 1 : 0; }
    /// Turns the abort flag on (non-zero) or off: a hit then ends the process by abort().
    void setAbortProcessOnMemoryOverWrites(int on);
    /// 1 while the abort flag is on, else 0.
    int getAbortProcessOnMemoryOverWrites() const { return (m_flags & kFlagAbort) != 0 ? 1 : 0; }
    /// @}

private:
    static constexpr unsigned int kFlagExpandable = 1;
    static constexpr unsigned int kFlagDetect = 2;
    static constexpr unsigned int kFlagAbort = 4;
    static constexpr unsigned int kHeaderBytes = 8;

    unsigned int elementsPerChunk() const { return Chunk::size / m_esize; }
    ElementHeader* headerAt(Chunk* chunk, unsigned int k) const;
    // The test of one header's filler; aborts or throws on a hit.
    void shortTest(const ElementHeader* rh) const;
    // The test of one header in a full scan: filler and element size.
    void fullTest(const ElementHeader* rh) const;
    // Header mode: 1 when no element of the chunk is in use (short test on each one scanned).
    int isWhollyFree(Chunk* chunk) const;
    void scanIfDetecting() const {
        if ((m_flags & kFlagDetect) != 0)
            checkForMemoryOverWrite();
    }

    Chunk* m_chunks;      // head of the chunk list, newest first
    unsigned int m_esize; // stride of an element in bytes, header included
    unsigned int m_requestedSize;
    void* m_freeList;      // plain mode: first free element; header mode: null
    unsigned int m_flags;  // kFlagExpandable | kFlagDetect | kFlagAbort
    int m_useHeaders;      // non-zero: header mode
    Chunk* m_currentChunk; // header mode: the chunk alloc tries first, or null
};

#endif
