// The heap allocators against malloc/free and std::pmr::unsynchronized_pool_resource, in the
// same run. Each benchmark keeps a ring of live blocks and, per iteration, frees the oldest and
// allocates a new one, so that allocators work in a steady state with blocks of mixed age.
//
// At the end a summary prints, for each load, how many times faster our allocator is than
// each baseline (baseline time / our time; above 1 is faster), from the medians when the run
// has repetitions:
//
//     heap_bench --benchmark_repetitions=5 --benchmark_report_aggregates_only=true
#include "BenchRatio.h"
#include "HXLFixedMemoryPool.h"
#include "HXLMemoryArena.h"
#include "HXLMemoryPool.h"

#include <benchmark/benchmark.h>

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <memory_resource>
#include <random>
#include <string>
#include <vector>

#include <unistd.h>

namespace {

constexpr std::size_t kRing = 1024;  // live blocks
constexpr std::size_t kSizes = 4096; // pre-drawn request sizes

// Sizes of 8 to 256 bytes, uniformly drawn once for every benchmark.
const std::vector<unsigned int>& mixedSizes() {
    static const std::vector<unsigned int> sizes = [] {
        std::mt19937 rng(2024);
        std::vector<unsigned int> s(kSizes);
        for (unsigned int& size : s)
            size = 8 + rng() % 249;
        return s;
    }();
    return sizes;
}

// Runs the ring for one allocator. alloc(size) gives a block, release(p, size) takes it back.
template <class Alloc, class Release>
void runRing(benchmark::State& state, bool mixed, Alloc alloc, Release release) {
    const std::vector<unsigned int>& sizes = mixedSizes();
    std::vector<void*> ring(kRing);
    std::vector<unsigned int> ringSize(kRing);
    std::size_t k = 0;
    for (std::size_t i = 0; i < kRing; ++i, ++k) {
        ringSize[i] = mixed ? sizes[k % kSizes] : 64;
        ring[i] = alloc(ringSize[i]);
    }
    for (auto _ : state) {
        const std::size_t slot = k % kRing;
        release(ring[slot], ringSize[slot]);
        const unsigned int size = mixed ? sizes[k % kSizes] : 64;
        void* p = alloc(size);
        static_cast<unsigned char*>(p)[0] = static_cast<unsigned char>(k);
        ring[slot] = p;
        ringSize[slot] = size;
        ++k;
    }
    benchmark::DoNotOptimize(ring.data());
    for (std::size_t i = 0; i < kRing; ++i)
        release(ring[i], ringSize[i]);
    state.SetItemsProcessed(state.iterations());
}

void mallocRing(benchmark::State& state, bool mixed) {
    runRing(
        state, mixed, [](unsigned int size) { return std::malloc(size); },
        [](void* p, unsigned int) { std::free(p); });
}

void pmrRing(benchmark::State& state, bool mixed) {
    std::pmr::unsynchronized_pool_resource pool;
    runRing(
        state, mixed, [&pool](unsigned int size) { return pool.allocate(size); },
        [&pool](void* p, unsigned int size) { pool.deallocate(p, size); });
}

void BM_Mix_malloc(benchmark::State& state) {
    mallocRing(state, true);
}
void BM_Mix_pmr(benchmark::State& state) {
    pmrRing(state, true);
}

void BM_Mix_arena(benchmark::State& state) {
    HXLMemoryArena arena(32, 64u << 20, 0); // bins up to 256 bytes
    runRing(
        state, true, [&arena](unsigned int size) { return arena.alloc(size); },
        [&arena](void* p, unsigned int) { arena.free(p); });
}

void BM_Mix_memorypool(benchmark::State& state) {
    HXLMemoryPool pool(0, 0);
    runRing(
        state, true, [&pool](unsigned int size) { return pool.alloc(size); },
        [&pool](void* p, unsigned int) { pool.free(p); });
}

void BM_Fixed64_malloc(benchmark::State& state) {
    mallocRing(state, false);
}
void BM_Fixed64_pmr(benchmark::State& state) {
    pmrRing(state, false);
}

void fixedRing(benchmark::State& state, int useHeaders) {
    HXLFixedMemoryPool pool(64, 1, useHeaders);
    runRing(
        state, false, [&pool](unsigned int) { return pool.alloc(); },
        [&pool](void* p, unsigned int) { pool.free(p); });
}
void BM_Fixed64_fixedpool_headers(benchmark::State& state) {
    fixedRing(state, 1);
}
void BM_Fixed64_fixedpool_plain(benchmark::State& state) {
    fixedRing(state, 0);
}

BENCHMARK(BM_Mix_malloc);
BENCHMARK(BM_Mix_pmr);
BENCHMARK(BM_Mix_arena);
BENCHMARK(BM_Mix_memorypool);
BENCHMARK(BM_Fixed64_malloc);
BENCHMARK(BM_Fixed64_pmr);
BENCHMARK(BM_Fixed64_fixedpool_headers);
BENCHMARK(BM_Fixed64_fixedpool_plain);

} // namespace

int main(int argc, char** argv) {
    MedianReporter reporter;
    if (!runBenchmarks(argc, argv, reporter))
        return 1;
    std::cout << "\nSpeed-up (baseline time / our time, medians where repeated):\n";
    printSpeedRatio(reporter, "BM_Mix_arena", "BM_Mix_malloc", 1.0, "arena bins, 8-256 bytes");
    printSpeedRatio(reporter, "BM_Mix_arena", "BM_Mix_pmr", 2.0, "arena bins, 8-256 bytes");
    printSpeedRatio(reporter, "BM_Mix_memorypool", "BM_Mix_malloc", 0, "memory pool");
    printSpeedRatio(reporter, "BM_Mix_memorypool", "BM_Mix_pmr", 0, "memory pool");
    printSpeedRatio(reporter, "BM_Fixed64_fixedpool_headers", "BM_Fixed64_malloc", 1.0,
                    "fixed pool with headers, 64 bytes");
    printSpeedRatio(reporter, "BM_Fixed64_fixedpool_headers", "BM_Fixed64_pmr", 2.0,
                    "fixed pool with headers, 64 bytes");
    printSpeedRatio(reporter, "BM_Fixed64_fixedpool_plain", "BM_Fixed64_malloc", 1.0,
                    "fixed pool, plain, 64 bytes");
    printSpeedRatio(reporter, "BM_Fixed64_fixedpool_plain", "BM_Fixed64_pmr", 2.0,
                    "fixed pool, plain, 64 bytes");
    return 0;
}
