#include "HXLFixedMemoryPool.h"

#include "HXLCore.h"
#include "HXLTranslated.h"

#include <climits>
#include <cstddef>
#include <cstdlib>
#include <new>

// The chunk and header layouts are shared with callers that hand chunks between pools and with
// the arena's non-bin blocks: they must not drift.
static_assert(sizeof(HXLFixedMemoryPool::Chunk) == HXLFixedMemoryPool::kChunkBytes,
              "a chunk is exactly 32768 bytes");
static_assert(offsetof(HXLFixedMemoryPool::Chunk, m_elements) == 0, "element area at 0");
static_assert(offsetof(HXLFixedMemoryPool::Chunk, m_next) == 0x7FF0, "m_next at 0x7FF0");
static_assert(offsetof(HXLFixedMemoryPool::Chunk, m_free) == 0x7FF8, "m_free at 0x7FF8");
static_assert(sizeof(HXLFixedMemoryPool::ElementHeader) == 8, "an element header is 8 bytes");
static_assert(offsetof(HXLFixedMemoryPool::ElementHeader, m_elementSize) == 0, "size at 0");
static_assert(offsetof(HXLFixedMemoryPool::ElementHeader, m_chunkOffset) == 4, "offset at 4");
static_assert(offsetof(HXLFixedMemoryPool::ElementHeader, m_inUse) == 6, "in-use at 6");
static_assert(offsetof(HXLFixedMemoryPool::ElementHeader, m_filler3) == 7, "filler at 7");
// m_chunkOffset must hold the offset of the last element header.
static_assert(HXLFixedMemoryPool::Chunk::size <= USHRT_MAX + 1u, "chunk offsets fit 16 bits");

namespace {

// The link of a free element lives in the first 8 bytes of the caller's area.
inline void* linkOf(void* p) {
    return *static_cast<void**>(p);
}
inline void setLink(void* p, void* next) {
    *static_cast<void**>(p) = next;
}

inline HXLFixedMemoryPool::ElementHeader* headerOf(void* p) {
    return reinterpret_cast<HXLFixedMemoryPool::ElementHeader*>(static_cast<unsigned char*>(p) - 8);
}

} // namespace

HXLFixedMemoryPool::HXLFixedMemoryPool(unsigned int size, int expandable, int useHeaders)
    : m_chunks(nullptr), m_esize(0), m_requestedSize(size == 0 ? 16 : size), m_freeList(nullptr),
      m_flags(static_cast<unsigned int>(expandable) & kFlagExpandable), m_useHeaders(useHeaders),
      m_currentChunk(nullptr) {
    // Rounded in 64 bits so that a size near the top of the range cannot wrap to a small stride;
    // anything past 32 bits is clamped, which the size test below refuses like any other.
    const unsigned long long stride = (static_cast<unsigned long long>(m_requestedSize) +
                                       (m_useHeaders ? kHeaderBytes : 0) + 15) /
                                      16 * 16;
    m_esize = stride > UINT_MAX ? UINT_MAX : static_cast<unsigned int>(stride);
    HXL_ASSERT_NAMED(m_esize <= Chunk::size, "Specified size for HXLFixedMemoryPool is too large.");
}

HXLFixedMemoryPool::~HXLFixedMemoryPool() {
    Chunk* chunk = m_chunks;
    while (chunk != nullptr) {
        Chunk* next = chunk->m_next;
        ::operator delete(chunk);
        chunk = next;
    }
    m_chunks = nullptr;
    m_freeList = nullptr;
    m_currentChunk = nullptr;
}

HXLFixedMemoryPool::ElementHeader* HXLFixedMemoryPool::headerAt(Chunk* chunk,
                                                                unsigned int k) const {
    return reinterpret_cast<ElementHeader*>(chunk->m_elements + k * m_esize);
}

void HXLFixedMemoryPool::shortTest(const ElementHeader* rh) const {
    if (rh->m_filler3 != kFiller) {
        if ((m_flags & kFlagAbort) != 0)
            std::abort();
        HXL_ASSERT(rh->m_filler3 == 0xE);
    }
}

void HXLFixedMemoryPool::fullTest(const ElementHeader* rh) const {
    if (rh->m_filler3 != kFiller || rh->m_elementSize != m_requestedSize) {
        if ((m_flags & kFlagAbort) != 0)
            std::abort();
        // Without the abort flag only a damaged filler is reported; a wrong size alone is not.
        HXL_ASSERT(rh->m_filler3 == 0xE);
    }
}

int HXLFixedMemoryPool::isWhollyFree(Chunk* chunk) const {
    if (chunk->m_free == nullptr)
        return 0;
    const unsigned int count = elementsPerChunk();
    for (unsigned int k = 0; k < count; ++k) {
        const ElementHeader* rh = headerAt(chunk, k);
        shortTest(rh);
        if (rh->m_inUse != 0)
            return 0;
    }
    return 1;
}

void HXLFixedMemoryPool::grow(void* chunk) {
    if (chunk == nullptr) {
        chunk = hxl_translated::required(
            hxl_translated::run(nullptr, [] { return ::operator new(kChunkBytes); }), nullptr);
    }
    Chunk* c = static_cast<Chunk*>(chunk);
    c->m_next = m_chunks;
    m_chunks = c;
    c->m_free = nullptr;

    // Carve every element afresh, whatever the block held before; the free list runs in
    // ascending address order.
    const unsigned int count = elementsPerChunk();
    const unsigned int userOffset = m_useHeaders ? kHeaderBytes : 0;
    for (unsigned int k = 0; k < count; ++k) {
        unsigned char* element = c->m_elements + k * m_esize;
        if (m_useHeaders) {
            ElementHeader* rh = reinterpret_cast<ElementHeader*>(element);
            rh->m_elementSize = m_requestedSize;
            rh->m_chunkOffset = static_cast<unsigned short>(k * m_esize);
            rh->m_inUse = 0;
            rh->m_filler3 = kFiller;
        }
        setLink(element + userOffset, k + 1 < count ? element + m_esize + userOffset : nullptr);
    }
    if (m_useHeaders) {
        c->m_free = c->m_elements + kHeaderBytes;
        m_currentChunk = c;
    } else {
        m_freeList = c->m_elements;
    }
    scanIfDetecting();
}

void* HXLFixedMemoryPool::alloc() {
    scanIfDetecting();
    if (!m_useHeaders) {
        if (m_freeList == nullptr && (m_flags & kFlagExpandable) != 0)
            grow(nullptr);
        void* element = m_freeList;
        if (element == nullptr)
            return nullptr;
        scanIfDetecting();
        m_freeList = linkOf(element);
        return element;
    }

    Chunk* n = m_currentChunk;
    if (n == nullptr || n->m_free == nullptr) {
        m_currentChunk = nullptr;
        for (n = m_chunks; n != nullptr && n->m_free == nullptr; n = n->m_next) {
        }
        if (n != nullptr) {
            // Remember the chunk only if it still has an element after this one.
            if (linkOf(n->m_free) != nullptr)
                m_currentChunk = n;
        } else {
            if ((m_flags & kFlagExpandable) == 0)
                return nullptr;
            grow(nullptr);
            n = m_currentChunk; // the fresh chunk, whose free list is full
        }
    }
    scanIfDetecting();
    HXL_ASSERT(n);
    void* element = n->m_free;
    ElementHeader* rh = headerOf(element);
    shortTest(rh);
    rh->m_inUse = 1;
    n->m_free = linkOf(element);
    return element;
}

void HXLFixedMemoryPool::free(void* p) {
    scanIfDetecting();
    if (p == nullptr)
        return;
    if (!m_useHeaders) {
        setLink(p, m_freeList);
        m_freeList = p;
        return;
    }
    ElementHeader* rh = headerOf(p);
    shortTest(rh);
    if (rh->m_inUse == 0) {
        // Freed twice: linking it again would hand the element to two callers.
        if ((m_flags & kFlagAbort) != 0)
            std::abort();
        HXL_ASSERT_NAMED(rh->m_inUse != 0, "Element freed twice in HXLFixedMemoryPool::free");
    }
    rh->m_inUse = 0;
    Chunk* chunk =
        reinterpret_cast<Chunk*>(reinterpret_cast<unsigned char*>(rh) - rh->m_chunkOffset);
    setLink(p, chunk->m_free);
    chunk->m_free = p;
}

unsigned int HXLFixedMemoryPool::allocSize(void* p) {
    if (p == nullptr)
        return 0;
    const ElementHeader* rh = headerOf(p);
    HXL_ASSERT(rh->m_filler3 == 0xE);
    return rh->m_elementSize;
}

void* HXLFixedMemoryPool::reclaim(int skip) {
    scanIfDetecting();
    if (!m_useHeaders)
        return nullptr;
    Chunk* prev = nullptr;
    for (Chunk* chunk = m_chunks; chunk != nullptr; prev = chunk, chunk = chunk->m_next) {
        if (!isWhollyFree(chunk))
            continue;
        if (skip == 0) {
            if (prev == nullptr)
                m_chunks = chunk->m_next;
            else
                prev->m_next = chunk->m_next;
            if (m_currentChunk == chunk)
                m_currentChunk = nullptr;
            return chunk;
        }
        // A negative skip stays negative and so never selects a chunk.
        if (skip > 0)
            --skip;
    }
    return nullptr;
}

unsigned int HXLFixedMemoryPool::trim(int limit) {
    if (!m_useHeaders)
        return 0;
    unsigned int released = 0;
    for (int count = 0; limit == 0 || count < limit; ++count) {
        void* chunk = reclaim(0);
        if (chunk == nullptr)
            break;
        ::operator delete(chunk);
        released += kChunkBytes;
    }
    return released;
}

void HXLFixedMemoryPool::info(int* chunkSize, int* chunkCount, int* elementsPerChunkOut,
                              int* chunksInUse) {
    scanIfDetecting();
    if (chunkSize != nullptr)
        *chunkSize = static_cast<int>(kChunkBytes);
    if (chunksInUse != nullptr)
        *chunksInUse = 0;
    if (chunkCount != nullptr) {
        *chunkCount = 0;
        for (Chunk* chunk = m_chunks; chunk != nullptr; chunk = chunk->m_next) {
            ++*chunkCount;
            if (m_useHeaders && chunksInUse != nullptr && !isWhollyFree(chunk))
                ++*chunksInUse;
        }
    }
    if (elementsPerChunkOut != nullptr)
        *elementsPerChunkOut = static_cast<int>(elementsPerChunk());
}

void HXLFixedMemoryPool::checkForMemoryOverWrite() const {
    if (!m_useHeaders)
        return;
    const unsigned int count = elementsPerChunk();
    for (Chunk* chunk = m_chunks; chunk != nullptr; chunk = chunk->m_next)
        for (unsigned int k = 0; k < count; ++k)
            fullTest(headerAt(chunk, k));
}

void HXLFixedMemoryPool::setDetectMemoryOverWrites(int on) {
    if (on != 0)
        m_flags |= kFlagDetect;
    else
        m_flags &= ~kFlagDetect;
}

void HXLFixedMemoryPool::setAbortProcessOnMemoryOverWrites(int on) {
    if (on != 0)
        m_flags |= kFlagAbort;
    else
        m_flags &= ~kFlagAbort;
}
