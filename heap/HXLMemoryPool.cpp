#include "HXLMemoryPool.h"

#include "HXLCore.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>

static_assert(sizeof(HXLMemoryPool::memheader) == 16, "a memheader is one 16-byte unit");
static_assert(alignof(HXLMemoryPool::memheader) == 16, "headers keep 16-byte alignment");
static_assert(offsetof(HXLMemoryPool::memheader, s.next) == 0, "next at 0");
static_assert(offsetof(HXLMemoryPool::memheader, s.units) == 8, "units at 8");

namespace {

constexpr unsigned long long kUnit = 16;
constexpr unsigned long long kDefaultQuantum = 0x20000;
// The largest block in units whose byte size still fits 64 bits.
constexpr unsigned long long kMaxUnits = ~0ULL / kUnit;

// Blocks of different heap blocks and the anchor inside the pool object are ordered by address.
inline std::uintptr_t addr(const void* p) {
    return reinterpret_cast<std::uintptr_t>(p);
}

} // namespace

HXLMemoryPool::HXLMemoryPool(unsigned long long maxSize, unsigned long long quantum)
    : m_remaining(0), m_base(), m_rover(nullptr), m_blocks(),
      m_quantum(quantum == 0 ? kDefaultQuantum : quantum) {
    m_remaining = maxSize == 0 ? 2 * m_quantum : maxSize;
    m_base.s.next = nullptr;
    m_base.s.units = 0;
    m_blocks.reserve(static_cast<std::size_t>(m_remaining / m_quantum + 10));
}

HXLMemoryPool::~HXLMemoryPool() {
    for (void* block : m_blocks)
        std::free(block);
    std::vector<void*>().swap(m_blocks);
    m_rover = nullptr;
}

void* HXLMemoryPool::alloc(unsigned long long nbytes) {
    // Refuse sizes whose unit count (header included) would not fit the byte range.
    if (nbytes > (kMaxUnits - 1) * kUnit)
        return nullptr;
    const unsigned long long nunits = (nbytes + 15) / kUnit + 1;

    if (m_rover == nullptr) {
        m_base.s.next = &m_base;
        m_base.s.units = 0;
        m_rover = &m_base;
    }
    memheader* prev = m_rover;
    memheader* p = prev->s.next;
    for (;;) {
        if (p->s.units >= nunits) {
            memheader* block;
            if (p->s.units == nunits) {
                prev->s.next = p->s.next;
                block = p;
            } else {
                // Cut from the high end: p keeps its place and links on the list.
                p->s.units -= nunits;
                block = p + p->s.units;
                block->s.units = nunits;
            }
            block->s.next = nullptr;
            m_rover = prev;
            return block + 1;
        }
        if (p == m_rover) {
            // A full pass found nothing that fits.
            prev = moreCore(nunits);
            if (prev == nullptr)
                return nullptr;
            p = prev->s.next;
            continue;
        }
        prev = p;
        p = p->s.next;
    }
}

HXLMemoryPool::memheader* HXLMemoryPool::moreCore(unsigned long long nunits) {
    if (m_remaining == 0)
        return nullptr;
    const unsigned long long stepBytes = m_remaining < m_quantum ? m_remaining : m_quantum;
    const unsigned long long step = stepBytes / kUnit + (stepBytes % kUnit != 0) + 1;
    // nunits rounded up to a multiple of the step, without overflowing on the way.
    const unsigned long long steps = nunits / step + (nunits % step != 0);
    if (steps > kMaxUnits / step)
        return nullptr;
    const unsigned long long n = steps * step;
    const unsigned long long bytes = n * kUnit;
    if (bytes != static_cast<std::size_t>(bytes))
        return nullptr;

    void* raw = std::malloc(static_cast<std::size_t>(bytes));
    if (raw == nullptr)
        return nullptr;
    try {
        m_blocks.push_back(raw);
    } catch (...) {
        std::free(raw);
        throw;
    }
    m_remaining = m_remaining > bytes ? m_remaining - bytes : 0;

    memheader* block = static_cast<memheader*>(raw);
    block->s.units = n;
    block->s.next = nullptr;
    free(block + 1);
    return m_rover;
}

void HXLMemoryPool::free(void* memBlock) {
    HXL_ASSERT(memBlock);
    memheader* bp = static_cast<memheader*>(memBlock) - 1;

    // Find p with bp between p and p's next, or beyond either end of the wrapping step. A block
    // that is on the list itself stops the walk at itself (hence >=): it would otherwise circle
    // for ever.
    const std::uintptr_t block = addr(bp);
    memheader* p = m_rover;
    std::uintptr_t freeStart;
    for (;;) {
        freeStart = addr(p);
        const std::uintptr_t next = addr(p->s.next);
        if (block >= freeStart && block < next)
            break;
        if (freeStart >= next && (block >= freeStart || block < next))
            break;
        p = p->s.next;
    }
    // A block freed before is the free block p, or lies inside it when it was joined to p:
    // taking it again would hand its bytes to two callers.
    const std::uintptr_t freeEnd = addr(p + p->s.units);
    HXL_ASSERT_NAMED(block < freeStart || block >= freeEnd,
                     "Block freed twice in HXLMemoryPool::free");

    // The anchor must never be absorbed, even if it happened to sit right behind a heap block.
    // (As the lower neighbour it cannot absorb bp: with 0 units it ends where it starts.)
    memheader* upper = p->s.next;
    if (bp + bp->s.units == upper && upper != &m_base) {
        bp->s.units += upper->s.units;
        bp->s.next = upper->s.next;
    } else {
        bp->s.next = upper;
    }
    if (p + p->s.units == bp) {
        p->s.units += bp->s.units;
        p->s.next = bp->s.next;
    } else {
        p->s.next = bp;
    }
    m_rover = p;
}

void HXLMemoryPool::expand(unsigned long long amount) {
    m_remaining += amount > m_quantum ? amount : m_quantum;
}

void HXLMemoryPool::getStats(unsigned long long& blockCount, unsigned long long& quantum,
                             unsigned long long& remaining) {
    blockCount = m_blocks.size();
    quantum = m_quantum;
    remaining = m_remaining;
}
