// The paging engine against its baselines, measured in the same run (the resident path has a
// program of its own, resident_bench):
//   3. a scan: 256 MiB of 64 KiB blocks made through a 32 MiB budget, then each mapped for
//      writing, checked and dismissed once, against pwrite of the same bytes to a file in the
//      same directory and pread of them, checked;
//   4. random 72-byte reads over a store eight times its budget, against pread of the same
//      record from a file that holds all records;
//   5. random pins of 72-byte objects over a store eight times its budget: page-ins per
//      thousand operations, beside those an exact LRU over the same spans needs;
//   6. the fingerprint kept with every page file copy, against zlib's crc32 (for information);
//   7. a new store: made with a 4 MiB budget (the manager's default), 50,000 72-byte objects
//      allocated, written and let go, and ended, against the same objects from malloc, freed at
//      the end: what the store's own memory costs a short-lived store (for information).
#include "../platform/virtualmm/Fingerprint.h"
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
#include <zlib.h>

using tcmalloc::PageItem;
using tcmalloc::VirtualMemoryPool;

namespace {

const unsigned kObjectSize = 72;
const unsigned kAccesses = 1 << 16;
const int kRepetitions = 5;

std::string tempDir() {
    I18NString path;
    HXLFmDir::getTempPath(path);
    return path.c_str(nullptr, nullptr, nullptr, nullptr);
}

tcmalloc::VirtualMemoryStats poolStats(VirtualMemoryPool& pool) {
    unsigned long long needed = 0;
    pool.ExtractStats(nullptr, 0, needed);
    std::vector<unsigned char> block(needed);
    auto* stats = reinterpret_cast<tcmalloc::VirtualMemoryStats*>(block.data());
    pool.ExtractStats(stats, needed, needed);
    return *stats; // the fixed part; the per-class records behind it are not needed here
}
unsigned long long pageReads(VirtualMemoryPool& pool) {
    return poolStats(pool).pageReads;
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

// 3. Scan: 256 MiB of 64 KiB blocks through a 32 MiB budget. Block i holds bytes i + j.
const unsigned long long kScanBudget = 32ULL << 20;
const unsigned kScanBlock = 64 * 1024;
const unsigned kScanBlocks = 8 * kScanBudget / kScanBlock;

void fillBlock(unsigned char* p, unsigned i) {
    for (unsigned j = 0; j < kScanBlock; j += 64)
        std::memset(p + j, static_cast<int>(i + j / 64), 64);
}
bool blockHolds(const unsigned char* p, unsigned i) {
    for (unsigned j = 0; j < kScanBlock; j += 64)
        if (p[j] != static_cast<unsigned char>(i + j / 64) || p[j + 63] != p[j])
            return false;
    return true;
}

void BM_StoreScan(benchmark::State& state) {
    for (auto _ : state) {
        VirtualMemoryPool pool(kScanBudget, tempDir().c_str());
        std::vector<unsigned long long> offsets(kScanBlocks);
        for (unsigned i = 0; i < kScanBlocks; ++i) {
            PageItem item;
            unsigned char* p = static_cast<unsigned char*>(pool.Allocate(kScanBlock, item));
            if (p == nullptr)
                return state.SkipWithError("allocate failed");
            fillBlock(p, i);
            pool.Dismiss(item);
            offsets[i] = item.offset;
        }
        for (unsigned i = 0; i < kScanBlocks; ++i) {
            PageItem item{offsets[i]};
            const unsigned char* p = static_cast<unsigned char*>(pool.GetAddress(item, true));
            if (p == nullptr || !blockHolds(p, i))
                return state.SkipWithError("page-in failed or wrong bytes");
            pool.Dismiss(item);
        }
    }
    state.SetBytesProcessed(state.iterations() * kScanBlocks * kScanBlock);
}

// What a program without the store does: writes the blocks to a file once and reads them back.
void BM_PwritePreadScan(benchmark::State& state) {
    std::vector<unsigned char> block(kScanBlock);
    for (auto _ : state) {
        std::string name = tempDir() + "/hxlvmm-bench-XXXXXX";
        const int fd = ::mkstemp(&name[0]);
        ::unlink(name.c_str());
        for (unsigned i = 0; i < kScanBlocks; ++i) {
            fillBlock(block.data(), i);
            if (::pwrite(fd, block.data(), kScanBlock, static_cast<off_t>(i) * kScanBlock) !=
                kScanBlock)
                state.SkipWithError("pwrite failed");
        }
        for (unsigned i = 0; i < kScanBlocks; ++i)
            if (::pread(fd, block.data(), kScanBlock, static_cast<off_t>(i) * kScanBlock) !=
                    kScanBlock ||
                !blockHolds(block.data(), i))
                state.SkipWithError("pread failed or wrong bytes");
        ::close(fd);
    }
    state.SetBytesProcessed(state.iterations() * kScanBlocks * kScanBlock);
}

// 4. Random 72-byte reads: 2,000,000 records (144 MB) through an 18 MiB budget. Record i holds
// bytes i + j.
const unsigned kRecords = 2000000;
const unsigned long long kRecordBudget = 18ULL << 20;
const unsigned kReads = 100000;

void fillRecord(unsigned char* p, unsigned i) {
    for (unsigned j = 0; j < kObjectSize; ++j)
        p[j] = static_cast<unsigned char>(i + j);
}
bool recordHolds(const unsigned char* p, unsigned i) {
    for (unsigned j = 0; j < kObjectSize; ++j)
        if (p[j] != static_cast<unsigned char>(i + j))
            return false;
    return true;
}

void BM_StoreRandomReads(benchmark::State& state) {
    VirtualMemoryPool pool(kRecordBudget, tempDir().c_str());
    std::vector<unsigned long long> offsets(kRecords);
    for (unsigned i = 0; i < kRecords; ++i) {
        PageItem item;
        fillRecord(static_cast<unsigned char*>(pool.Allocate(kObjectSize, item)), i);
        pool.Dismiss(item);
        offsets[i] = item.offset;
    }
    std::mt19937 random(5);
    const tcmalloc::VirtualMemoryStats before = poolStats(pool);
    for (auto _ : state) {
        for (unsigned n = 0; n < kReads; ++n) {
            const unsigned i = random() % kRecords;
            PageItem item{offsets[i]};
            const unsigned char* p = static_cast<unsigned char*>(pool.GetAddress(item, true));
            if (p == nullptr || !recordHolds(p, i))
                return state.SkipWithError("page-in failed or wrong bytes");
            pool.Dismiss(item);
        }
    }
    state.SetItemsProcessed(state.iterations() * kReads);
    // What a miss costs: one span read (one 8 KiB page for records of this size) and checked
    // against its fingerprint; each span that leaves after a mapping for writing is hashed
    // again, whether it is then dropped or written.
    const tcmalloc::VirtualMemoryStats after = poolStats(pool);
    const double misses = static_cast<double>(after.pageReads - before.pageReads);
    const double leaving = static_cast<double>(after.pageDrops - before.pageDrops +
                                               after.pageWrites - before.pageWrites);
    state.counters["misses_per_read"] = misses / static_cast<double>(state.iterations() * kReads);
    state.counters["spans_hashed_per_miss"] = misses > 0 ? (misses + leaving) / misses : 0;
    state.counters["spans_written_per_miss"] =
        misses > 0 ? static_cast<double>(after.pageWrites - before.pageWrites) / misses : 0;
}

void BM_PreadRandomReads(benchmark::State& state) {
    std::string name = tempDir() + "/hxlvmm-bench-XXXXXX";
    const int fd = ::mkstemp(&name[0]);
    ::unlink(name.c_str());
    std::vector<unsigned char> all(static_cast<size_t>(kRecords) * kObjectSize);
    for (unsigned i = 0; i < kRecords; ++i)
        fillRecord(all.data() + static_cast<size_t>(i) * kObjectSize, i);
    if (::pwrite(fd, all.data(), all.size(), 0) != static_cast<ssize_t>(all.size()))
        state.SkipWithError("pwrite failed");
    unsigned char record[kObjectSize];
    std::mt19937 random(5);
    for (auto _ : state) {
        for (unsigned n = 0; n < kReads; ++n) {
            const unsigned i = random() % kRecords;
            if (::pread(fd, record, kObjectSize, static_cast<off_t>(i) * kObjectSize) !=
                    kObjectSize ||
                !recordHolds(record, i))
                state.SkipWithError("pread failed or wrong bytes");
        }
    }
    ::close(fd);
    state.SetItemsProcessed(state.iterations() * kReads);
}

// 5. Random pins over a store eight times its budget. Objects are chosen with a skew towards
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

// 6. The fingerprint of a 64 KiB span, against zlib's crc32 of the same bytes.
void BM_Fingerprint(benchmark::State& state) {
    std::vector<unsigned char> block(kScanBlock);
    fillBlock(block.data(), 1);
    for (auto _ : state)
        benchmark::DoNotOptimize(tcmalloc::fingerprint(block.data(), block.size()));
    state.SetBytesProcessed(state.iterations() * kScanBlock);
}

void BM_ZlibCrc32(benchmark::State& state) {
    std::vector<unsigned char> block(kScanBlock);
    fillBlock(block.data(), 1);
    for (auto _ : state)
        benchmark::DoNotOptimize(crc32(0, block.data(), static_cast<uInt>(block.size())));
    state.SetBytesProcessed(state.iterations() * kScanBlock);
}

// 7. A short-lived store, against the heap. Each object's first byte is checked.
const unsigned kFreshObjects = 50000;
const unsigned long long kFreshBudget = 4ULL << 20;

void BM_FreshStore(benchmark::State& state) {
    const std::string dir = tempDir();
    for (auto _ : state) {
        VirtualMemoryPool pool(kFreshBudget, dir.c_str());
        unsigned long long sum = 0;
        for (unsigned i = 0; i < kFreshObjects; ++i) {
            PageItem item;
            unsigned char* p = static_cast<unsigned char*>(pool.Allocate(kObjectSize, item));
            if (p == nullptr)
                return state.SkipWithError("allocate failed");
            std::memset(p, static_cast<int>(i), kObjectSize);
            sum += p[0];
            pool.Dismiss(item);
        }
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(state.iterations() * kFreshObjects);
}

void BM_FreshHeap(benchmark::State& state) {
    std::vector<unsigned char*> objects(kFreshObjects);
    for (auto _ : state) {
        unsigned long long sum = 0;
        for (unsigned i = 0; i < kFreshObjects; ++i) {
            unsigned char* p = static_cast<unsigned char*>(std::malloc(kObjectSize));
            if (p == nullptr)
                return state.SkipWithError("malloc failed");
            std::memset(p, static_cast<int>(i), kObjectSize);
            sum += p[0];
            objects[i] = p;
        }
        for (unsigned char* p : objects)
            std::free(p);
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(state.iterations() * kFreshObjects);
}

} // namespace

BENCHMARK(BM_StoreScan)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(1)
    ->Repetitions(kRepetitions);
BENCHMARK(BM_PwritePreadScan)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(1)
    ->Repetitions(kRepetitions);
BENCHMARK(BM_StoreRandomReads)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(1)
    ->Repetitions(kRepetitions);
BENCHMARK(BM_PreadRandomReads)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(1)
    ->Repetitions(kRepetitions);
BENCHMARK(BM_StoreRandomPins)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(4)
    ->Repetitions(kRepetitions);

BENCHMARK(BM_Fingerprint)->Repetitions(kRepetitions);
BENCHMARK(BM_ZlibCrc32)->Repetitions(kRepetitions);
BENCHMARK(BM_FreshStore)->Unit(benchmark::kMillisecond)->Repetitions(kRepetitions);
BENCHMARK(BM_FreshHeap)->Unit(benchmark::kMillisecond)->Repetitions(kRepetitions);

int main(int argc, char** argv) {
    MedianReporter reporter;
    if (!runBenchmarks(argc, argv, reporter))
        return 1;
    std::cout << "\nRatios of median times:\n";
    printSpeedRatio(reporter, "BM_StoreScan", "BM_PwritePreadScan", 0.9,
                    "256 MiB scan through a 32 MiB budget, throughput relative to pwrite+pread");
    printSpeedRatio(reporter, "BM_StoreRandomReads", "BM_PreadRandomReads", 0.3,
                    "random 72-byte reads, 8 times the budget, throughput relative to pread");
    printSpeedRatio(reporter, "BM_Fingerprint", "BM_ZlibCrc32", 0,
                    "fingerprint of 64 KiB, times faster than zlib's crc32");
    printCost(reporter, "BM_FreshStore", "BM_FreshHeap", 0,
              "a new store with 50,000 objects, times the cost of the same from malloc");
    std::cout << "random pins: see pageins_per_1k against lru_pageins_per_1k (vs_lru, target "
                 "<= 1.1) in the BM_StoreRandomPins rows\n";
    return 0;
}
