#include "HXLFixedMemoryPool.h"
#include "HXLMemoryArena.h"
#include "demo_sections.h"

#include <cstring>
#include <vector>

namespace {

struct Block {
    unsigned char* p;
    unsigned int size;
    unsigned char tag;
};

// The budget spent: chunks held by the bins plus each live non-bin block with its header.
unsigned int expectedUse(HXLMemoryArena& arena, const std::vector<Block>& live) {
    unsigned int bytes = 0;
    for (int bin = 0; bin < arena.getNumVarBins(); ++bin) {
        int chunkSize = 0, chunkCount = 0;
        arena.getPoolStats(bin, &chunkSize, &chunkCount, nullptr);
        bytes += static_cast<unsigned int>(chunkSize * chunkCount);
    }
    for (const Block& b : live)
        if (b.size > arena.bin2Size(arena.getNumVarBins() - 1))
            bytes += b.size + 8;
    return bytes;
}

} // namespace

// The arena under a mixed load, all under its default budget of 256 KB (8 chunks). A first
// phase fills one bin with 24-byte blocks and gives them all back, so that its chunks are wholly
// free; a second phase of 25 to 64 bytes, with larger blocks from the heap in between, then
// runs out of budget and is served by chunks moved from that bin. Every block is filled and
// checked when it comes back.
int demoHeap(std::ostream& os) {
    int failures = 0;
    os << "== Heap allocators ==\n";
    HXLMemoryArena arena(8, 0, 0); // bins for 8 to 64 bytes
    std::vector<Block> live;
    unsigned int seed = 12345;
    auto next = [&seed] {
        seed = seed * 1103515245u + 12345u;
        return (seed >> 16) & 0x7FFF;
    };
    int allocs = 0, frees = 0, refused = 0;
    auto release = [&](std::size_t i) {
        const Block b = live[i];
        for (unsigned int k = 0; k < b.size; ++k)
            failures += b.p[k] != b.tag;
        arena.free(b.p);
        live[i] = live.back();
        live.pop_back();
        ++frees;
    };
    auto take = [&](unsigned int size) {
        unsigned char* p = static_cast<unsigned char*>(arena.alloc(size));
        if (p == nullptr) {
            ++refused;
            return;
        }
        const unsigned char tag = static_cast<unsigned char>(next() | 1);
        std::memset(p, tag, size);
        live.push_back(Block{p, size, tag});
        ++allocs;
    };

    for (int i = 0; i < 5000; ++i)
        take(17 + next() % 8);
    while (!live.empty())
        release(live.size() - 1);
    for (int step = 0; step < 6000; ++step) {
        const bool heap = step >= 3000 && next() % 20 == 0;
        if (!live.empty() && next() % 10 < 3)
            release(next() % live.size());
        else
            take(heap ? 100 + next() % 4000 : 25 + next() % 40);
    }

    unsigned int pools = 0, used = 0, remaining = 0;
    arena.getPoolStats(pools, used, remaining);
    failures += used != expectedUse(arena, live);
    os << "mixed load of 17 to 4099 bytes: " << allocs << " allocations, " << frees << " frees, "
       << refused << " refused by the budget, " << live.size() << " blocks live\n";
    arena.dumpStats(os);

    for (const Block& b : live)
        arena.free(b.p);
    live.clear();
    arena.getPoolStats(pools, used, remaining);
    failures += used != expectedUse(arena, live);
    os << "all blocks back: " << used << " bytes stay with the bins as chunks, " << remaining
       << " bytes of budget free\n";

    // The size in front of a block: the bin's size for a bin element, the request otherwise.
    void* small = arena.alloc(50);
    void* large = arena.alloc(1000);
    const unsigned int smallSize = HXLFixedMemoryPool::allocSize(small);
    const unsigned int largeSize = HXLFixedMemoryPool::allocSize(large);
    os << "allocSize: " << smallSize << " for a 50-byte request (the bin of 56 bytes), "
       << largeSize << " for a 1000-byte one\n\n";
    failures += smallSize != 56 || largeSize != 1000;
    arena.free(small);
    arena.free(large);
    return failures;
}
