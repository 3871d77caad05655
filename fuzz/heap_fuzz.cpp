// libFuzzer target for the three heap pools against a model of their blocks and budgets. The
// input is a program of allocations, frees (a second free of the same block now and then),
// expansions and upkeep on one pool of each kind, with sizes and budgets from the input. Every
// live block keeps its bytes and its alignment and overlaps no other; a block freed twice is
// refused; a pool gives null only when its budget or its chunks are spent; the arena's budget
// equals its chunks plus its large blocks with their headers. tests/heap_test.cpp runs it on
// seeded inputs.
//
//   cmake --build build/fuzz --target heap_fuzz && build/fuzz/fuzz/heap_fuzz -max_total_time=600
#include "HXLCore.h"
#include "HXLFixedMemoryPool.h"
#include "HXLMemoryArena.h"
#include "HXLMemoryPool.h"
#include "fuzz_util.h"

#include <cstring>
#include <iterator>
#include <map>
#include <new>

namespace {

// The live blocks of one pool: where, how many bytes, and the byte they were filled from.
class Blocks {
public:
    // Records a new block after checking it against the others and the alignment.
    void add(void* p, size_t size, uintptr_t alignment, uintptr_t remainder, unsigned fill) {
        char* at = static_cast<char*>(p);
        check(reinterpret_cast<uintptr_t>(p) % alignment == remainder, "alignment");
        auto next = m_live.lower_bound(at);
        check(next == m_live.end() || at + size <= next->first, "overlaps the next block");
        check(next == m_live.begin() || std::prev(next)->first + std::prev(next)->second.size <= at,
              "overlaps the block before");
        for (size_t i = 0; i < size; ++i)
            at[i] = static_cast<char>(fill + i);
        m_live[at] = {size, fill};
    }
    // A live block picked by the input, checked and taken out of the model; null if none.
    void* take(FuzzInput& in) {
        if (m_live.empty())
            return nullptr;
        auto it = std::next(m_live.begin(), in.below(static_cast<unsigned>(m_live.size())));
        verify(*it);
        void* p = it->first;
        m_live.erase(it);
        return p;
    }
    void verifyAll() const {
        for (const auto& block : m_live)
            verify(block);
    }
    size_t count() const { return m_live.size(); }
    void clear() { m_live.clear(); }

private:
    struct Block {
        size_t size;
        unsigned fill;
    };
    static void verify(const std::pair<char* const, Block>& block) {
        for (size_t i = 0; i < block.second.size; ++i)
            check(block.first[i] == static_cast<char>(block.second.fill + i), "a block's bytes");
    }
    std::map<char*, Block> m_live;
};

// A call that must be refused with HXLAssertError.
template <class Call> void refused(Call call, const char* what) {
    bool threw = false;
    try {
        call();
    } catch (const HXLAssertError&) {
        threw = true;
    }
    check(threw, what);
}

void runMemoryPool(FuzzInput& in) {
    HXLMemoryPool pool(in.below(1 << 18), in.below(1 << 16));
    Blocks blocks;
    unsigned long long count, quantum, remaining;
    while (in.more()) {
        const unsigned op = in.byte() % 8;
        pool.getStats(count, quantum, remaining);
        if (op < 4) {
            const unsigned size = in.below(op == 0 ? 100000 : 600);
            void* p = pool.alloc(size);
            unsigned long long after;
            pool.getStats(count, quantum, after);
            check(after <= remaining, "an allocation raised the budget");
            if (p == nullptr)
                check(remaining == 0 || after == 0, "null with budget left");
            else
                blocks.add(p, size, 16, 0, in.byte());
        } else if (op < 7) {
            void* p = blocks.take(in);
            if (p != nullptr) {
                pool.free(p);
                if (op == 6)
                    refused([&] { pool.free(p); }, "a block freed twice");
            }
        } else {
            const unsigned amount = in.below(1 << 16);
            pool.expand(amount);
            unsigned long long after;
            pool.getStats(count, quantum, after);
            check(after == remaining + (amount > quantum ? amount : quantum), "expand");
        }
    }
    blocks.verifyAll();
}

void runFixedPool(FuzzInput& in) {
    const unsigned size = in.below(2000);
    const int expandable = in.byte() % 2, headers = in.byte() % 2;
    HXLFixedMemoryPool pool(size, expandable, headers);
    const unsigned requested = size != 0 ? size : 16;
    Blocks blocks;
    int chunkCount = 0, perChunk = 0, inUse = 0;
    // In plain mode a grow while elements are free strands them: the count no longer tells.
    bool stranded = false;
    while (in.more()) {
        const unsigned op = in.byte() % 10;
        if (op < 5) {
            void* p = pool.alloc();
            pool.info(nullptr, &chunkCount, &perChunk, nullptr);
            if (p == nullptr) {
                check(!expandable && (stranded ||
                                      blocks.count() == static_cast<size_t>(chunkCount) * perChunk),
                      "null with elements left");
            } else {
                blocks.add(p, requested, 16, headers ? 8 : 0, in.byte());
                if (headers)
                    check(HXLFixedMemoryPool::allocSize(p) == requested, "allocSize");
            }
        } else if (op < 8) {
            void* p = blocks.take(in);
            if (p != nullptr) {
                pool.free(p);
                if (op == 7 && headers)
                    refused([&] { pool.free(p); }, "an element freed twice");
            }
        } else if (op == 8) {
            pool.info(nullptr, &chunkCount, &perChunk, nullptr);
            stranded = stranded ||
                       (!headers && blocks.count() < static_cast<size_t>(chunkCount) * perChunk);
            pool.grow(nullptr);
        } else if (headers) { // upkeep: wholly free chunks leave, or move back in through grow
            pool.info(nullptr, &chunkCount, nullptr, &inUse);
            const int before = chunkCount;
            if (in.byte() % 2 == 0) {
                const unsigned released = pool.trim(static_cast<int>(in.below(3)));
                pool.info(nullptr, &chunkCount, nullptr, nullptr);
                check(released % HXLFixedMemoryPool::kChunkBytes == 0 &&
                          before - chunkCount ==
                              static_cast<int>(released / HXLFixedMemoryPool::kChunkBytes) &&
                          chunkCount >= inUse,
                      "trim");
            } else if (void* chunk = pool.reclaim(static_cast<int>(in.below(2)))) {
                pool.grow(chunk);
            }
        }
        pool.info(nullptr, &chunkCount, &perChunk, nullptr);
        check(blocks.count() <= static_cast<size_t>(chunkCount) * perChunk, "more live than made");
    }
    blocks.verifyAll();
    if (headers)
        pool.checkForMemoryOverWrite();
}

void runArena(FuzzInput& in) {
    const int bins = static_cast<int>(in.below(300));
    HXLMemoryArena arena(bins, in.below(1 << 20), 0);
    Blocks blocks;
    std::map<void*, unsigned> large; // non-bin blocks and their sizes
    unsigned count, used, remaining, ceiling;
    arena.getPoolStats(count, used, remaining);
    ceiling = used + remaining;
    while (in.more()) {
        const unsigned op = in.byte() % 8;
        if (op < 4) {
            const unsigned size = in.below(op == 0 ? 70000 : static_cast<unsigned>(bins) * 8 + 2);
            arena.getPoolStats(count, used, remaining);
            void* p = arena.alloc(size);
            if (p == nullptr) {
                check(size == 0 || size + 8 > remaining || size <= static_cast<unsigned>(bins) * 8,
                      "a large block refused within budget");
            } else {
                blocks.add(p, size, 16, 8, in.byte());
                check(HXLFixedMemoryPool::allocSize(p) ==
                          (size > static_cast<unsigned>(bins) * 8 ? size : (size + 7) / 8 * 8),
                      "allocSize");
                if (size > static_cast<unsigned>(bins) * 8)
                    large[p] = size;
            }
        } else if (op < 7) {
            void* p = blocks.take(in);
            if (p != nullptr) {
                arena.free(p);
                const bool isLarge = large.erase(p) != 0;
                if (op == 6 && !isLarge)
                    refused([&] { arena.free(p); }, "a bin element freed twice");
            }
        } else {
            const unsigned amount = in.below(1 << 16);
            arena.expand(amount);
            int chunkSize = 0;
            arena.getPoolStats(0, &chunkSize, nullptr, nullptr);
            ceiling += (amount > static_cast<unsigned>(chunkSize) ? amount : chunkSize) + 8;
        }
        // The budget in use is the chunks of the bins and the large blocks with their headers.
        unsigned long long expected = 0;
        for (int bin = 0; bin < bins; ++bin) {
            int chunkSize = 0, chunks = 0;
            arena.getPoolStats(bin, &chunkSize, &chunks, nullptr);
            expected += static_cast<unsigned long long>(chunkSize) * chunks;
        }
        for (const auto& block : large)
            expected += block.second + 8ULL;
        arena.getPoolStats(count, used, remaining);
        check(used == expected && used + remaining == ceiling, "the arena's budget");
    }
    blocks.verifyAll();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzInput in(data, size);
    switch (in.byte() % 3) {
    case 0:
        runMemoryPool(in);
        break;
    case 1:
        runFixedPool(in);
        break;
    default:
        runArena(in);
    }
    return 0;
}
