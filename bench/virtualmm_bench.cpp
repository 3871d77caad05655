// The paging engine against its baselines, measured in the same run:
//   1. resident hit: GetAddress + Dismiss of a resident 72-byte object, against a handle table
//      (std::unordered_map find and a counter up and down); then the same spread at random
//      over 100000 objects, where both sides pay for cache misses;
//   2. Allocate + Deallocate of 72-byte objects, against malloc + free;
//   3. a sequential scan of a store eight times its budget, against pread + pwrite of the same
//      bytes in the same directory;
//   4. random pins of 72-byte objects over a store eight times its budget: page-ins per
//      thousand operations, beside those an exact LRU over the same spans needs.
#include "BenchRatio.h"
#include "HXLCore.h"
#include "VirtualMemoryPool.h"

#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <list>
#include <random>
#include <string>
#include <unistd.h>
#include <unordered_map>
#include <vector>

using tcmalloc::PageItem;
using tcmalloc::VirtualMemoryPool;

namespace {

const unsigned kObjects = 100000; // for the hit and pin benchmarks
const unsigned kObjectSize = 72;
const unsigned kAccesses = 1 << 16;
const int kRepetitions = 5;

std::string tempDir() {
    I18NString path;
    HXLFmDir::getTempPath(path);
    return path.c_str(nullptr, nullptr, nullptr, nullptr);
}

std::vector<unsigned> accessOrder(unsigned count, unsigned seed) {
    std::mt19937 random(seed);
    std::vector<unsigned> order(kAccesses);
    for (unsigned& index : order)
        index = random() % count;
    return order;
}

unsigned long long pageReads(VirtualMemoryPool& pool) {
    unsigned long long needed = 0;
    pool.ExtractStats(nullptr, 0, needed);
    std::vector<unsigned char> block(needed);
    auto* stats = reinterpret_cast<tcmalloc::VirtualMemoryStats*>(block.data());
    pool.ExtractStats(stats, needed, needed);
    return stats->pageReads;
}

// Makes `count` objects of `size` bytes (byte i of object n holds n), none left pinned.
std::vector<unsigned long long> fill(VirtualMemoryPool& pool, unsigned count, unsigned size) {
    std::vector<unsigned long long> offsets(count);
    for (unsigned i = 0; i < count; ++i) {
        PageItem item;
        std::memset(pool.Allocate(size, item), static_cast<int>(i), size);
        pool.Dismiss(item);
        offsets[i] = item.offset;
    }
    return offsets;
}

// 1. Resident hit.
void BM_StoreResidentHit(benchmark::State& state) {
    VirtualMemoryPool pool(1ULL << 30, tempDir().c_str());
    const std::vector<unsigned long long> offsets = fill(pool, kObjects, kObjectSize);
    const std::vector<unsigned> order = accessOrder(kObjects, 1);
    for (auto _ : state) {
        for (unsigned index : order) {
            PageItem item{offsets[index]};
            benchmark::DoNotOptimize(pool.GetAddress(item, true));
            pool.Dismiss(item);
        }
    }
    state.SetItemsProcessed(state.iterations() * kAccesses);
}

// The same for one resident object, mapped and dismissed over and over: the hit path alone.
void BM_StoreResidentHitOne(benchmark::State& state) {
    VirtualMemoryPool pool(1ULL << 30, tempDir().c_str());
    const std::vector<unsigned long long> offsets = fill(pool, kObjects, kObjectSize);
    PageItem item{offsets[kObjects / 2]};
    for (auto _ : state) {
        for (unsigned i = 0; i < kAccesses; ++i) {
            benchmark::DoNotOptimize(pool.GetAddress(item, true));
            pool.Dismiss(item);
        }
    }
    state.SetItemsProcessed(state.iterations() * kAccesses);
}

struct TableObject {
    unsigned refs;
    unsigned char bytes[kObjectSize];
};

void BM_HandleTableHit(benchmark::State& state) {
    std::unordered_map<unsigned long long, TableObject> table;
    std::vector<unsigned long long> keys(kObjects);
    std::mt19937_64 random(2);
    for (unsigned i = 0; i < kObjects; ++i) {
        keys[i] = random();
        table[keys[i]] = TableObject{0, {}};
    }
    const std::vector<unsigned> order = accessOrder(kObjects, 1);
    for (auto _ : state) {
        for (unsigned index : order) {
            auto it = table.find(keys[index]);
            ++it->second.refs;
            benchmark::DoNotOptimize(it->second.bytes);
            --it->second.refs;
        }
    }
    state.SetItemsProcessed(state.iterations() * kAccesses);
}

void BM_HandleTableHitOne(benchmark::State& state) {
    std::unordered_map<unsigned long long, TableObject> table;
    std::vector<unsigned long long> keys(kObjects);
    std::mt19937_64 random(2);
    for (unsigned i = 0; i < kObjects; ++i) {
        keys[i] = random();
        table[keys[i]] = TableObject{0, {}};
    }
    const unsigned long long key = keys[kObjects / 2];
    for (auto _ : state) {
        for (unsigned i = 0; i < kAccesses; ++i) {
            auto it = table.find(key);
            ++it->second.refs;
            benchmark::DoNotOptimize(it->second.bytes);
            --it->second.refs;
        }
    }
    state.SetItemsProcessed(state.iterations() * kAccesses);
}

// 2. Allocate + Deallocate, in batches so that both sides hold many objects at once.
const unsigned kBatch = 1000;

void BM_StoreAllocate(benchmark::State& state) {
    VirtualMemoryPool pool(1ULL << 30, tempDir().c_str());
    std::vector<PageItem> items(kBatch);
    for (auto _ : state) {
        for (PageItem& item : items)
            benchmark::DoNotOptimize(pool.Allocate(kObjectSize, item));
        for (PageItem& item : items)
            pool.Deallocate(item);
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
}

void BM_MallocFree(benchmark::State& state) {
    std::vector<void*> blocks(kBatch);
    for (auto _ : state) {
        for (void*& block : blocks) {
            block = std::malloc(kObjectSize);
            benchmark::DoNotOptimize(block);
        }
        for (void* block : blocks)
            std::free(block);
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
}

// 3. Sequential scan: 128 MiB of 64 KiB objects through a 16 MiB budget. Every object is
// mapped for writing, so each span is read back and written out again once per pass.
const unsigned long long kScanBudget = 16ULL << 20;
const unsigned kScanBlock = 64 * 1024;
const unsigned kScanBlocks = 8 * kScanBudget / kScanBlock;

void BM_StoreSequentialScan(benchmark::State& state) {
    VirtualMemoryPool pool(kScanBudget, tempDir().c_str());
    const std::vector<unsigned long long> offsets = fill(pool, kScanBlocks, kScanBlock);
    for (auto _ : state) {
        for (unsigned long long offset : offsets) {
            PageItem item{offset};
            unsigned char* p = static_cast<unsigned char*>(pool.GetAddress(item, true));
            if (p == nullptr) {
                state.SkipWithError("page-in failed");
                return;
            }
            benchmark::DoNotOptimize(p[kScanBlock / 2]++);
            pool.Dismiss(item);
        }
    }
    state.SetBytesProcessed(state.iterations() * kScanBlocks * kScanBlock);
}

// The same traffic done by hand: a 16 MiB window of buffers (the store's budget), where each
// block read in takes the place of the block read 16 MiB before it, which is written out
// first.
void BM_PreadPwriteScan(benchmark::State& state) {
    std::string name = tempDir() + "/hxlvmm-bench-XXXXXX";
    const int fd = ::mkstemp(&name[0]);
    ::unlink(name.c_str());
    const unsigned windowBlocks = static_cast<unsigned>(kScanBudget / kScanBlock);
    std::vector<unsigned char> window(kScanBudget, 7);
    std::vector<unsigned> held(windowBlocks);
    for (unsigned i = 0; i < kScanBlocks; ++i)
        if (::pwrite(fd, window.data(), kScanBlock, static_cast<off_t>(i) * kScanBlock) < 0)
            state.SkipWithError("pwrite failed");
    for (unsigned w = 0; w < windowBlocks; ++w)
        held[w] = kScanBlocks - windowBlocks + w;
    for (auto _ : state) {
        for (unsigned i = 0; i < kScanBlocks; ++i) {
            const unsigned w = i % windowBlocks;
            unsigned char* buffer = window.data() + static_cast<size_t>(w) * kScanBlock;
            if (::pwrite(fd, buffer, kScanBlock, static_cast<off_t>(held[w]) * kScanBlock) !=
                    kScanBlock ||
                ::pread(fd, buffer, kScanBlock, static_cast<off_t>(i) * kScanBlock) != kScanBlock)
                state.SkipWithError("I/O failed");
            held[w] = i;
            benchmark::DoNotOptimize(buffer[kScanBlock / 2]++);
        }
    }
    ::close(fd);
    state.SetBytesProcessed(state.iterations() * kScanBlocks * kScanBlock);
}

// 4. Random pins over a store eight times its budget. Objects are chosen with a skew towards
// low indices (allocated first, so sharing spans), as real working sets are skewed.
const unsigned long long kPinBudget = 1ULL << 20;
const unsigned kPinObjects = static_cast<unsigned>(8 * kPinBudget / 80); // 80-byte slots

std::vector<unsigned> skewedOrder(unsigned seed) {
    std::mt19937 random(seed);
    std::uniform_real_distribution<double> uniform(0.0, 1.0);
    std::vector<unsigned> order(kAccesses);
    for (unsigned& index : order)
        index = static_cast<unsigned>(kPinObjects * std::pow(uniform(random), 3.0)) % kPinObjects;
    return order;
}

// Page-ins that an exact LRU with room for `capacity` spans needs for the same sequence.
unsigned long long lruPageIns(const std::vector<unsigned long long>& spans, unsigned capacity) {
    std::list<unsigned long long> recency; // most recent first
    std::unordered_map<unsigned long long, std::list<unsigned long long>::iterator> where;
    unsigned long long misses = 0;
    for (unsigned long long span : spans) {
        auto it = where.find(span);
        if (it != where.end()) {
            recency.splice(recency.begin(), recency, it->second);
            continue;
        }
        ++misses;
        recency.push_front(span);
        where[span] = recency.begin();
        if (recency.size() > capacity) {
            where.erase(recency.back());
            recency.pop_back();
        }
    }
    return misses;
}

void BM_StoreRandomPins(benchmark::State& state) {
    VirtualMemoryPool pool(kPinBudget, tempDir().c_str());
    const std::vector<unsigned long long> offsets = fill(pool, kPinObjects, kObjectSize);
    const std::vector<unsigned> order = skewedOrder(3);
    std::vector<unsigned long long> spanSequence;
    for (unsigned index : order)
        spanSequence.push_back(offsets[index] >> 13); // 80-byte slots live in 1-page spans
    unsigned long long reads = 0, operations = 0;
    for (auto _ : state) {
        const unsigned long long before = pageReads(pool);
        for (unsigned index : order) {
            PageItem item{offsets[index]};
            benchmark::DoNotOptimize(pool.GetAddress(item, true));
            pool.Dismiss(item);
        }
        reads += pageReads(pool) - before;
        operations += kAccesses;
    }
    // The LRU sees the same sequence repeated as often, starting from an empty memory.
    std::vector<unsigned long long> repeated;
    for (benchmark::IterationCount i = 0; i < state.iterations(); ++i)
        repeated.insert(repeated.end(), spanSequence.begin(), spanSequence.end());
    const unsigned capacity = static_cast<unsigned>(kPinBudget / 8192);
    const double ours = 1000.0 * reads / operations;
    const double lru = 1000.0 * lruPageIns(repeated, capacity) / operations;
    state.counters["pageins_per_1k"] = ours;
    state.counters["lru_pageins_per_1k"] = lru;
    state.counters["vs_lru"] = lru > 0 ? ours / lru : 0;
    state.SetItemsProcessed(state.iterations() * kAccesses);
}

} // namespace

BENCHMARK(BM_StoreResidentHitOne)->Repetitions(kRepetitions);
BENCHMARK(BM_HandleTableHitOne)->Repetitions(kRepetitions);
BENCHMARK(BM_StoreResidentHit)->Repetitions(kRepetitions);
BENCHMARK(BM_HandleTableHit)->Repetitions(kRepetitions);
BENCHMARK(BM_StoreAllocate)->Repetitions(kRepetitions);
BENCHMARK(BM_MallocFree)->Repetitions(kRepetitions);
BENCHMARK(BM_StoreSequentialScan)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(2)
    ->Repetitions(kRepetitions);
BENCHMARK(BM_PreadPwriteScan)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(2)
    ->Repetitions(kRepetitions);
BENCHMARK(BM_StoreRandomPins)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(4)
    ->Repetitions(kRepetitions);

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    MedianReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    std::cout << "\nRatios of median times:\n";
    printSpeedRatio(reporter, "BM_StoreResidentHitOne", "BM_HandleTableHitOne", 3.0,
                    "resident hit on one object, times faster than a handle table");
    printSpeedRatio(reporter, "BM_StoreResidentHit", "BM_HandleTableHit", 0,
                    "resident hits spread over 100000 objects, the same figure");
    printSpeedRatio(reporter, "BM_StoreAllocate", "BM_MallocFree", 1.0 / 1.5,
                    "allocate+deallocate, malloc's cost / ours");
    printSpeedRatio(reporter, "BM_StoreSequentialScan", "BM_PreadPwriteScan", 0.7,
                    "sequential scan, throughput relative to pread+pwrite");
    std::cout << "random pins: see pageins_per_1k against lru_pageins_per_1k (vs_lru, target "
                 "<= 1.1) in the BM_StoreRandomPins rows\n";
    return 0;
}
