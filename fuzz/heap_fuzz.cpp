// libFuzzer target for the three heap pools against one model of their live blocks. The input
// picks a pool and its shape, then is a program of allocations, frees (a second free of the same
// block now and then) and upkeep, run by one loop for all three. Every live block keeps its bytes
// and its alignment and overlaps no other; a block freed twice is refused; a pool gives null only
// when its budget or its chunks are spent; each pool's budget or capacity adds up after every
// step. tests/heap_test.cpp runs it on seeded inputs.
//
//   cmake --build build/fuzz --target heap_fuzz && build/fuzz/fuzz/heap_fuzz -max_total_time=600
#include "HXLFixedMemoryPool.h"
#include "HXLMemoryArena.h"
#include "HXLMemoryPool.h"
#include "fuzz_util.h"

#include <iterator>

namespace {

// The live blocks of one pool: where, how many bytes, and the seed of their bytes.
struct Blocks {
    struct Block {
        size_t size;
        unsigned seed;
    };
    // Records a new block after checking it against the others and the alignment.
    void add(void* p, size_t size, uintptr_t remainder, unsigned seed) {
        char* at = static_cast<char*>(p);
        check(reinterpret_cast<uintptr_t>(p) % 16 == remainder, "alignment");
        auto next = live.lower_bound(at);
        check(next == live.end() || at + size <= next->first, "overlaps the next block");
        check(next == live.begin() || std::prev(next)->first + std::prev(next)->second.size <= at,
              "overlaps the block before");
        ::fill(at, size, seed);
        live[at] = {size, seed};
    }
    // Frees a live block picked by the input, checked first; with `twice` a second free must
    // be refused where the pool tells (pool.free says whether it does for this block).
    template <class Pool> void free(FuzzInput& in, Pool& pool, bool twice) {
        if (live.empty())
            return;
        auto it = std::next(live.begin(), in.below(static_cast<unsigned>(live.size())));
        void* p = it->first;
        const size_t size = it->second.size;
        check(holds(p, size, it->second.seed), "a block's bytes");
        live.erase(it);
        check(!(pool.free(p, size) && twice) || raises<HXLAssertError>([&] { pool.free(p, size); }),
              "a block freed twice");
    }
    std::map<char*, Block> live;
};

// The three pools behind the same calls: alloc checks when null is allowed and records the block
// with the bytes it may hold, free says whether a second free is refused, upkeep expands, grows,
// trims or reclaims, and invariant checks the pool's budget or capacity against the live blocks.
class MemoryPool {
public:
    static constexpr unsigned kLarge = 100000, kSmall = 600;
    explicit MemoryPool(FuzzInput& in) : m_pool(in.below(1 << 18), in.below(1 << 16)) {}
    void alloc(unsigned size, FuzzInput& in, Blocks& blocks) {
        const unsigned long long before = remaining();
        void* p = m_pool.alloc(size);
        const unsigned long long after = remaining();
        check(after <= before && (p != nullptr || before == 0 || after == 0), "alloc's budget");
        if (p != nullptr)
            blocks.add(p, size, 0, in.byte());
    }
    bool free(void* p, size_t) {
        m_pool.free(p);
        return true;
    }
    void upkeep(FuzzInput& in, const Blocks&) {
        const unsigned long long amount = in.below(1 << 16), before = remaining();
        m_pool.expand(amount);
        check(remaining() == before + std::max(amount, m_quantum), "expand");
    }
    void invariant(const Blocks&) {}

private:
    unsigned long long remaining() {
        unsigned long long count, left;
        m_pool.getStats(count, m_quantum, left);
        return left;
    }
    HXLMemoryPool m_pool;
    unsigned long long m_quantum = 0;
};

class FixedPool {
public:
    static constexpr unsigned kLarge = 0, kSmall = 0; // the pool's element size is its own
    explicit FixedPool(FuzzInput& in)
        : m_size(in.below(2000)), m_expandable(in.byte() % 2), m_headers(in.byte() % 2),
          m_pool(m_size, m_expandable, m_headers) {}
    void alloc(unsigned, FuzzInput& in, Blocks& blocks) {
        void* p = m_pool.alloc();
        const unsigned usable = m_size != 0 ? m_size : 16;
        check(p != nullptr || (!m_expandable && (m_stranded || blocks.live.size() == capacity())),
              "null with elements left");
        check(p == nullptr || !m_headers || HXLFixedMemoryPool::allocSize(p) == usable,
              "allocSize");
        if (p != nullptr)
            blocks.add(p, usable, m_headers ? 8 : 0, in.byte());
    }
    bool free(void* p, size_t) {
        m_pool.free(p);
        return m_headers != 0;
    }
    // A grow, or in header mode: wholly free chunks leave, back to the heap or in again.
    void upkeep(FuzzInput& in, const Blocks& blocks) {
        const unsigned what = m_headers ? in.byte() % 3 : 0;
        if (what == 0) {
            // In plain mode a grow while elements are free strands them: the count no longer
            // tells.
            m_stranded = m_stranded || (!m_headers && blocks.live.size() < capacity());
            m_pool.grow(nullptr);
        } else if (what == 1) {
            int before = 0, after = 0, inUse = 0;
            m_pool.info(nullptr, &before, nullptr, &inUse);
            const unsigned released = m_pool.trim(static_cast<int>(in.below(3)));
            m_pool.info(nullptr, &after, nullptr, nullptr);
            check(released ==
                          static_cast<unsigned>(before - after) * HXLFixedMemoryPool::kChunkBytes &&
                      after >= inUse,
                  "trim");
        } else if (void* chunk = m_pool.reclaim(static_cast<int>(in.below(2)))) {
            // Given back to the heap, the chunk (the current one too) is forgotten: the
            // capacity check then catches an element handed out from it.
            in.byte() % 2 ? m_pool.grow(chunk) : ::operator delete(chunk);
        }
    }
    void invariant(const Blocks& blocks) {
        check(blocks.live.size() <= capacity(), "more live than made");
        if (m_headers)
            m_pool.checkForMemoryOverWrite();
    }

private:
    size_t capacity() {
        int chunks = 0, perChunk = 0;
        m_pool.info(nullptr, &chunks, &perChunk, nullptr);
        return static_cast<size_t>(chunks) * static_cast<size_t>(perChunk);
    }
    const unsigned m_size;
    const int m_expandable, m_headers;
    HXLFixedMemoryPool m_pool;
    bool m_stranded = false;
};

class Arena {
public:
    static constexpr unsigned kLarge = 70000;
    const unsigned kSmall; // up to the largest bin's size and just past it
    explicit Arena(FuzzInput& in)
        : kSmall(in.below(300) * 8), m_arena(static_cast<int>(kSmall / 8), in.below(1 << 20), 0) {
        m_ceiling = used() + m_remaining;
    }
    void alloc(unsigned size, FuzzInput& in, Blocks& blocks) {
        used();
        const unsigned remaining = m_remaining, usable = size > kSmall ? size : (size + 7) / 8 * 8;
        void* p = m_arena.alloc(size);
        check(p != nullptr || size == 0 || size + 8 > remaining || size <= kSmall,
              "a large block refused within budget");
        check(p == nullptr || HXLFixedMemoryPool::allocSize(p) == usable, "allocSize");
        check(m_arena.size2Bin(size) == static_cast<int>((size - 1u) / 8), "the bin of a size");
        if (p != nullptr)
            blocks.add(p, usable, 8, in.byte());
    }
    bool free(void* p, size_t size) {
        m_arena.free(p);
        return size <= kSmall; // a large block's header is gone with it
    }
    void upkeep(FuzzInput& in, const Blocks&) {
        const unsigned amount = in.below(1 << 16);
        m_arena.expand(amount);
        int chunkSize = 0;
        m_arena.getPoolStats(0, &chunkSize, nullptr, nullptr);
        m_ceiling += std::max(amount, static_cast<unsigned>(chunkSize)) + 8;
    }
    // The budget in use is the chunks of the bins and the large blocks with their headers.
    void invariant(const Blocks& blocks) {
        unsigned long long expected = 0;
        for (int bin = 0; bin < static_cast<int>(kSmall / 8); ++bin) {
            int chunkSize = 0, chunks = 0;
            m_arena.getPoolStats(bin, &chunkSize, &chunks, nullptr);
            expected += static_cast<unsigned long long>(chunkSize) * chunks;
        }
        for (const auto& block : blocks.live)
            expected += block.second.size > kSmall ? block.second.size + 8 : 0;
        check(used() == expected && used() + m_remaining == m_ceiling, "the arena's budget");
    }

private:
    unsigned used() {
        unsigned count, used;
        m_arena.getPoolStats(count, used, m_remaining);
        return used;
    }
    HXLMemoryArena m_arena;
    unsigned m_remaining = 0, m_ceiling = 0;
};

template <class Pool> void run(FuzzInput& in) {
    Pool pool(in);
    Blocks blocks;
    while (in.more()) {
        const unsigned op = in.byte() % 8;
        if (op < 4)
            pool.alloc(in.below(op == 0 ? pool.kLarge : pool.kSmall + 2), in, blocks);
        else if (op < 7)
            blocks.free(in, pool, op == 6);
        else
            pool.upkeep(in, blocks);
        pool.invariant(blocks);
    }
    for (const auto& block : blocks.live)
        check(holds(block.first, block.second.size, block.second.seed), "a block's bytes");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzInput in(data, size);
    void (*const runs[])(FuzzInput&) = {run<MemoryPool>, run<FixedPool>, run<Arena>};
    runs[in.byte() % 3](in);
    return 0;
}
