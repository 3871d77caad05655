// The resident path: what touching an object that is already in memory costs, through the
// manager as an application calls it, against what a program without the store would do, and
// against the engine's own calls. Measured in the same run, repeated; the ratios of medians are
// printed at the end.
//   1. hot hit: getAddress + dismiss of one of 1,000 hot 72-byte objects, in random order,
//      against std::unordered_map find with a count up and down (the map's cost is 1.0);
//   2. the same over 1,000,000 resident objects, where both sides pay for cache misses;
//   3. alloc + free of 72-byte objects in LIFO batches of 1,000, against malloc + free;
//   4. the manager's calls against the engine's own GetAddress/Dismiss and Allocate/Deallocate
//      on a store of the same shape.
// Every loop reads a byte of each object and checks the sum, so nothing is optimised away and
// a wrong mapping shows.
#include "BenchRatio.h"
#include "HXLCore.h"
#include "HXLVirtualMemoryMgr.h"
#include "VirtualMemoryPool.h"

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <iostream>
#include <random>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <vector>

namespace {

const unsigned kHotObjects = 1000;
const unsigned kSpreadObjects = 1000000;
const unsigned kObjectSize = 72;
const unsigned kAccesses = 1 << 16;
const unsigned kBatch = 1000;
const unsigned kBudget = 1u << 30; // holds every object: the store never pages here
const int kRepetitions = 7;

std::vector<unsigned> accessOrder(unsigned count) {
    std::mt19937 random(1);
    std::vector<unsigned> order(kAccesses);
    for (unsigned& index : order)
        index = random() % count;
    return order;
}

// The sum of the first byte of each object in `order`, when object n holds n in its bytes.
unsigned long long expectedSum(const std::vector<unsigned>& order) {
    unsigned long long sum = 0;
    for (unsigned index : order)
        sum += static_cast<unsigned char>(index);
    return sum;
}

// The sum of the bytes an alloc + free batch writes: i mod 256 for object i.
unsigned long long batchSum() {
    unsigned long long sum = 0;
    for (unsigned i = 0; i < kBatch; ++i)
        sum += static_cast<unsigned char>(i);
    return sum;
}

void check(unsigned long long sum, unsigned long long expected) {
    if (sum != expected)
        throw std::runtime_error("a mapping gave the wrong bytes");
}

// A manager holding `count` objects (object n holds n), none of them held.
struct ManagerStore {
    explicit ManagerStore(unsigned count) : memMgr(kBudget, 0, 0), offsets(count) {
        for (unsigned i = 0; i < count; ++i) {
            HXLVirtualPageItem item;
            std::memset(memMgr.alloc(kObjectSize, item), static_cast<int>(i), kObjectSize);
            memMgr.dismiss(item);
            offsets[i] = item.getOffset();
        }
    }
    HXLVirtualMemoryMgr memMgr;
    std::vector<unsigned long long> offsets;
};

// The same through the engine's own calls.
struct EngineStore {
    explicit EngineStore(unsigned count) : pool(kBudget, tempDir().c_str()), offsets(count) {
        for (unsigned i = 0; i < count; ++i) {
            tcmalloc::PageItem item;
            std::memset(pool.Allocate(kObjectSize, item), static_cast<int>(i), kObjectSize);
            pool.Dismiss(item);
            offsets[i] = item.offset;
        }
    }
    static std::string tempDir() {
        I18NString path;
        HXLFmDir::getTempPath(path);
        return path.c_str(nullptr, nullptr, nullptr, nullptr);
    }
    tcmalloc::VirtualMemoryPool pool;
    std::vector<unsigned long long> offsets;
};

struct TableObject {
    unsigned refs;
    unsigned char bytes[kObjectSize];
};

// What a program without the store does: objects in a hash table under 64-bit keys.
struct MapStore {
    explicit MapStore(unsigned count) : keys(count) {
        std::mt19937_64 random(2);
        table.reserve(count);
        for (unsigned i = 0; i < count; ++i) {
            keys[i] = random();
            TableObject& object = table[keys[i]];
            object.refs = 0;
            std::memset(object.bytes, static_cast<int>(i), kObjectSize);
        }
    }
    std::unordered_map<unsigned long long, TableObject> table;
    std::vector<unsigned long long> keys;
};

// 1, 2. Hits: `hit(index)` maps object `index`, reads its first byte and lets it go.
template <class Hit> void hits(benchmark::State& state, unsigned count, Hit hit) {
    const std::vector<unsigned> order = accessOrder(count);
    const unsigned long long expected = expectedSum(order);
    for (auto _ : state) {
        unsigned long long sum = 0;
        for (unsigned index : order)
            sum += hit(index);
        check(sum, expected);
    }
    state.SetItemsProcessed(state.iterations() * kAccesses);
}

void managerHits(benchmark::State& state, unsigned count) {
    ManagerStore store(count);
    hits(state, count, [&](unsigned index) {
        const unsigned long long offset = store.offsets[index];
        const unsigned char byte = *static_cast<unsigned char*>(store.memMgr.getAddress(offset, 1));
        store.memMgr.dismiss(offset);
        return byte;
    });
}

void engineHits(benchmark::State& state, unsigned count) {
    EngineStore store(count);
    hits(state, count, [&](unsigned index) {
        tcmalloc::PageItem item{store.offsets[index]};
        const unsigned char byte = *static_cast<unsigned char*>(store.pool.GetAddress(item, true));
        store.pool.Dismiss(item);
        return byte;
    });
}

void mapHits(benchmark::State& state, unsigned count) {
    MapStore store(count);
    hits(state, count, [&](unsigned index) {
        TableObject& object = store.table.find(store.keys[index])->second;
        ++object.refs;
        benchmark::DoNotOptimize(object.refs);
        const unsigned char byte = object.bytes[0];
        --object.refs;
        return byte;
    });
}

void BM_ManagerHitHot(benchmark::State& state) {
    managerHits(state, kHotObjects);
}
void BM_EngineHitHot(benchmark::State& state) {
    engineHits(state, kHotObjects);
}
void BM_MapHitHot(benchmark::State& state) {
    mapHits(state, kHotObjects);
}
void BM_ManagerHitSpread(benchmark::State& state) {
    managerHits(state, kSpreadObjects);
}
void BM_EngineHitSpread(benchmark::State& state) {
    engineHits(state, kSpreadObjects);
}
void BM_MapHitSpread(benchmark::State& state) {
    mapHits(state, kSpreadObjects);
}

// 3. alloc + free in LIFO batches; each object is written and read once. `Handle` names one
// object; `make` gives its address with a reference held, `release` dismisses it, `end` frees.
template <class Handle, class Make, class Release, class End>
void allocFree(benchmark::State& state, Make make, Release release, End end) {
    std::vector<Handle> items(kBatch);
    for (auto _ : state) {
        unsigned long long sum = 0;
        for (unsigned i = 0; i < kBatch; ++i) {
            unsigned char* p = static_cast<unsigned char*>(make(items[i]));
            p[0] = static_cast<unsigned char>(i);
            sum += p[0];
            release(items[i]);
        }
        for (unsigned i = kBatch; i-- > 0;)
            end(items[i]);
        check(sum, batchSum());
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
}

void BM_ManagerAllocFree(benchmark::State& state) {
    HXLVirtualMemoryMgr memMgr(kBudget, 0, 0);
    allocFree<HXLVirtualPageItem>(
        state, [&](HXLVirtualPageItem& item) { return memMgr.alloc(kObjectSize, item); },
        [&](HXLVirtualPageItem& item) { memMgr.dismiss(item); },
        [&](HXLVirtualPageItem& item) { memMgr.free(item); });
}

void BM_EngineAllocFree(benchmark::State& state) {
    tcmalloc::VirtualMemoryPool pool(kBudget, EngineStore::tempDir().c_str());
    allocFree<tcmalloc::PageItem>(
        state, [&](tcmalloc::PageItem& item) { return pool.Allocate(kObjectSize, item); },
        [&](tcmalloc::PageItem& item) { pool.Dismiss(item); },
        [&](tcmalloc::PageItem& item) { pool.Deallocate(item); });
}

void BM_MallocFree(benchmark::State& state) {
    allocFree<void*>(
        state, [](void*& block) { return block = std::malloc(kObjectSize); },
        [](void*& block) { benchmark::DoNotOptimize(block); },
        [](void*& block) { std::free(block); });
}

} // namespace

BENCHMARK(BM_ManagerHitHot)->Repetitions(kRepetitions)->ReportAggregatesOnly(true);
BENCHMARK(BM_EngineHitHot)->Repetitions(kRepetitions)->ReportAggregatesOnly(true);
BENCHMARK(BM_MapHitHot)->Repetitions(kRepetitions)->ReportAggregatesOnly(true);
BENCHMARK(BM_ManagerHitSpread)->Repetitions(kRepetitions)->ReportAggregatesOnly(true);
BENCHMARK(BM_EngineHitSpread)->Repetitions(kRepetitions)->ReportAggregatesOnly(true);
BENCHMARK(BM_MapHitSpread)->Repetitions(kRepetitions)->ReportAggregatesOnly(true);
BENCHMARK(BM_ManagerAllocFree)->Repetitions(kRepetitions)->ReportAggregatesOnly(true);
BENCHMARK(BM_EngineAllocFree)->Repetitions(kRepetitions)->ReportAggregatesOnly(true);
BENCHMARK(BM_MallocFree)->Repetitions(kRepetitions)->ReportAggregatesOnly(true);

int main(int argc, char** argv) {
    MedianReporter reporter;
    if (!runBenchmarks(argc, argv, reporter))
        return 1;
    std::cout << "\nRatios of median times (cost of ours / cost of the baseline):\n";
    printCost(reporter, "BM_ManagerHitHot", "BM_MapHitHot", 0.25,
              "hit on 1,000 hot objects vs unordered_map");
    printCost(reporter, "BM_ManagerHitSpread", "BM_MapHitSpread", 0.9,
              "hit over 1,000,000 resident objects vs unordered_map");
    printCost(reporter, "BM_ManagerAllocFree", "BM_MallocFree", 1.3,
              "alloc + free, LIFO, vs malloc + free");
    printCost(reporter, "BM_ManagerHitHot", "BM_EngineHitHot", 1.1,
              "manager's getAddress + dismiss vs the engine's own calls");
    printCost(reporter, "BM_ManagerHitSpread", "BM_EngineHitSpread", 1.1,
              "the same, spread over 1,000,000 objects");
    printCost(reporter, "BM_ManagerAllocFree", "BM_EngineAllocFree", 1.1,
              "manager's alloc + free vs the engine's own calls");
    return 0;
}
