#include "HXLMemoryArena.h"

#include "HXLCore.h"
#include "HXLFixedMemoryPool.h"
#include "HXLTranslated.h"

#include <cstdlib>
#include <cstring>

namespace {

constexpr unsigned int kDefaultBudget = 0x40000;
constexpr unsigned int kNonBinHeaderBytes = 8;
// The largest request whose block size (request + header) still fits 32 bits.
constexpr unsigned int kMaxNonBinRequest = 0xFFFFFFFFu - kNonBinHeaderBytes;

// A non-bin block's header reads, from offset 4, as the little-endian word 0x0E010000: chunk
// offset 0, in use 1, filler 0x0E.
static_assert(sizeof(HXLFixedMemoryPool::ElementHeader) == kNonBinHeaderBytes,
              "a non-bin block carries an element header");

} // namespace

HXLMemoryArena::HXLMemoryArena(int numVarBins, unsigned int maxAllowed, unsigned int)
    : m_numVarBins(numVarBins), m_maxAllowed(maxAllowed == 0 ? kDefaultBudget : maxAllowed),
      m_remaining(m_maxAllowed), m_expansions(0), m_nonBinAllocs(0), m_chunkSize(0), m_reclaims(0),
      m_minNonBin(0xFFFFFFFFu), m_maxNonBin(0), m_pools(), m_nonBinBlocks(nullptr) {
    // A negative count converts to a size beyond max_size(): the vector's length error.
    m_pools.reserve(static_cast<std::size_t>(numVarBins));
    try {
        for (int bin = 0; bin < numVarBins; ++bin) {
            HXLFixedMemoryPool* pool =
                hxl_translated::make<HXLFixedMemoryPool>(nullptr, index2Size(bin), 0, 1);
            m_pools.push_back(pool); // cannot throw: the room is reserved
            if (bin == 0) {
                int chunkSize = 0;
                pool->info(&chunkSize, nullptr, nullptr, nullptr);
                m_chunkSize = static_cast<unsigned int>(chunkSize);
            }
        }
        m_nonBinBlocks = hxl_translated::make<std::set<void*>>(nullptr);
    } catch (...) {
        // No destructor runs for a half-built arena: give back the pools made so far.
        release();
        throw;
    }
}

HXLMemoryArena::~HXLMemoryArena() {
    release();
}

void HXLMemoryArena::release() {
    for (HXLFixedMemoryPool* pool : m_pools)
        delete pool;
    m_pools.clear();
    if (m_nonBinBlocks != nullptr) {
        for (void* block : *m_nonBinBlocks)
            std::free(block);
        m_nonBinBlocks->clear();
        delete m_nonBinBlocks;
        m_nonBinBlocks = nullptr;
    }
    std::vector<HXLFixedMemoryPool*>().swap(m_pools);
}

void* HXLMemoryArena::alloc(unsigned int size) {
    if (size == 0)
        return nullptr;
    checkForMemoryOverWrite();
    if (size <= binLimit())
        return allocFromBin(size);
    return allocNonBin(size);
}

void* HXLMemoryArena::allocFromBin(unsigned int size) {
    const int b = size2Index(size);
    HXLFixedMemoryPool* pool = m_pools[static_cast<std::size_t>(b)];
    void* element = pool->alloc();
    if (element != nullptr)
        return element;

    if (m_remaining >= m_chunkSize) {
        // A freshly carved chunk always serves the alloc below; it is charged as soon as the
        // bin holds it.
        pool->grow(nullptr);
        m_remaining -= m_chunkSize;
        return pool->alloc();
    }

    // Budget spent: move a chunk from a bin that has at least two wholly free ones.
    for (std::size_t i = 0; i < m_pools.size(); ++i) {
        if (i == static_cast<std::size_t>(b))
            continue;
        void* chunk = m_pools[i]->reclaim(1);
        if (chunk != nullptr) {
            ++m_reclaims;
            pool->grow(chunk);
            return pool->alloc();
        }
    }
    return nullptr;
}

void* HXLMemoryArena::allocNonBin(unsigned int size) {
    if (size > kMaxNonBinRequest)
        return nullptr;
    const unsigned int total = size + kNonBinHeaderBytes;

    if (total > m_remaining) {
        // Give wholly free chunks back to the heap, bin by bin from 0, until enough is free.
        // Every released chunk was charged, so the credit cannot pass m_maxAllowed.
        const unsigned int needed = total - m_remaining;
        unsigned int released = 0;
        for (std::size_t i = 0; i < m_pools.size() && released < needed; ++i)
            released += m_pools[i]->trim(0);
        m_remaining += released;
    }
    if (m_remaining < total)
        return nullptr;

    void* block = std::malloc(total);
    if (block == nullptr)
        return nullptr;
    std::pair<std::set<void*>::iterator, bool> insStatus;
    try {
        insStatus = m_nonBinBlocks->insert(block);
    } catch (...) {
        std::free(block);
        throw;
    }
    // The heap gave an address that is still live here: something outside corrupted the heap.
    HXL_ASSERT(insStatus.second);

    ++m_nonBinAllocs;
    if (total < m_minNonBin)
        m_minNonBin = total;
    if (total > m_maxNonBin)
        m_maxNonBin = total;
    m_remaining -= total;

    HXLFixedMemoryPool::ElementHeader header;
    header.m_elementSize = size;
    header.m_chunkOffset = 0;
    header.m_inUse = 1;
    header.m_filler3 = HXLFixedMemoryPool::kFiller;
    std::memcpy(block, &header, sizeof header);
    return static_cast<unsigned char*>(block) + kNonBinHeaderBytes;
}

void HXLMemoryArena::free(void* mem) {
    HXL_ASSERT(mem);
    checkForMemoryOverWrite();
    const unsigned int size = HXLFixedMemoryPool::allocSize(mem);
    // No block of this arena carries a size of 0, and size2Index(0) lies far past the last bin:
    // such a pointer goes to the lookup below, which refuses it.
    if (size != 0 && size <= binLimit()) {
        m_pools[static_cast<std::size_t>(size2Index(size))]->free(mem);
        return;
    }
    void* block = static_cast<unsigned char*>(mem) - kNonBinHeaderBytes;
    const std::size_t eraseCount = m_nonBinBlocks->erase(block);
    HXL_ASSERT_NAMED(eraseCount == 1, "Invalid memory chunk in HXLMemoryArena::free");
    m_remaining += size + kNonBinHeaderBytes;
    std::free(block);
}

void HXLMemoryArena::expand(unsigned int amount) {
    checkForMemoryOverWrite();
    // The extra 8 bytes cover the header of a non-bin block of `amount` bytes.
    const unsigned int increase = (amount > m_chunkSize ? amount : m_chunkSize) + 8;
    m_remaining += increase;
    m_maxAllowed += increase;
    ++m_expansions;
}

int HXLMemoryArena::size2Bin(unsigned int size) {
    return size2Index(size);
}

unsigned int HXLMemoryArena::bin2Size(int bin) {
    return index2Size(bin);
}

void HXLMemoryArena::checkForMemoryOverWrite() const {
    if (m_pools.empty())
        return;
    if (m_pools[0]->getDetectMemoryOverWrites() == 0)
        return;
    for (const HXLFixedMemoryPool* pool : m_pools)
        pool->checkForMemoryOverWrite();
}

void HXLMemoryArena::getPoolStats(int bin, int* chunkSize, int* chunkCount, int* elementsPerChunk) {
    checkForMemoryOverWrite();
    if (bin >= 0 && bin < m_numVarBins) {
        m_pools[static_cast<std::size_t>(bin)]->info(chunkSize, chunkCount, elementsPerChunk,
                                                     nullptr);
        return;
    }
    if (chunkSize != nullptr)
        *chunkSize = 0;
    if (chunkCount != nullptr)
        *chunkCount = 0;
    if (elementsPerChunk != nullptr)
        *elementsPerChunk = 0;
}

void HXLMemoryArena::getPoolStats(unsigned int& poolCount, unsigned int& memoryUsed,
                                  unsigned int& remaining) {
    checkForMemoryOverWrite();
    poolCount = 1;
    memoryUsed = m_maxAllowed - m_remaining;
    remaining = m_remaining;
}

void HXLMemoryArena::dumpStats(std::ostream& os) {
    checkForMemoryOverWrite();
    os << std::endl;
    os << "Pool Statistics - Max Allowed: " << m_maxAllowed
       << ", Memory used: " << m_maxAllowed - m_remaining << ", Pool remaining: " << m_remaining
       << ", Expansions: " << m_expansions << ", Reclaims: " << m_reclaims << std::endl;
    os << std::endl;
    os << "Arena Statistics - Memory Bins: " << m_numVarBins
       << ", Non Bin Allocs: " << m_nonBinAllocs << " (" << (m_nonBinAllocs == 0 ? 0u : m_minNonBin)
       << "/" << m_maxNonBin << ")" << std::endl;
    for (int bin = 0; bin < m_numVarBins; ++bin) {
        int chunkSize = 0;
        int chunkCount = 0;
        int elementsPerChunk = 0;
        int chunksInUse = 0;
        m_pools[static_cast<std::size_t>(bin)]->info(&chunkSize, &chunkCount, &elementsPerChunk,
                                                     &chunksInUse);
        os << "  Bin [" << bin + 1 << "] - Size: " << index2Size(bin) << std::endl;
        // The product is widened: a bin past 2 GB must not overflow a signed int.
        os << "     Chunk Size: " << chunkSize << ", Chunk Count: " << chunkCount
           << ", Chunks InUse: " << chunksInUse
           << ", Pool Size: " << static_cast<long long>(chunkSize) * chunkCount
           << ", Elements/Chunk: " << elementsPerChunk << std::endl;
    }
    os << std::endl;
}

void HXLMemoryArena::setDetectMemoryOverWrites(int on) {
    for (HXLFixedMemoryPool* pool : m_pools)
        pool->setDetectMemoryOverWrites(on);
}

void HXLMemoryArena::setAbortProcessOnMemoryOverWrites(int on) {
    for (HXLFixedMemoryPool* pool : m_pools)
        pool->setAbortProcessOnMemoryOverWrites(on);
}
