// The paged file against its baselines, measured in the same run:
//   - 256 MiB written and read back (and checked) in 64 KiB calls through a virtual file whose
//     store keeps 16 MiB resident, with the default page size and with 64 KiB pages, against
//     the same through a temporary file in the same directory as the store's page file;
//   - the compressed write path against zlib's deflate called directly at the same level.
// Each benchmark is repeated; the ratios printed at the end compare medians (throughput of the
// virtual file divided by throughput of its baseline; 1.0 is parity).
#include "BenchRatio.h"
#include "HXLCore.h"
#include "HXLVirtualFile.h"
#include "HXLVirtualMemoryMgr.h"
#include "ZOJStreams.h"

#include <benchmark/benchmark.h>
#include <zlib.h>

#include <cstdio>
#include <iostream>
#include <random>
#include <stdexcept>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

const unsigned int kCall = 64 * 1024;                          // bytes per write or read call
const unsigned long long kTotal = 256ULL * 1024 * 1024;        // bytes through the plain path
const unsigned int kBudget = 16 * 1024 * 1024;                 // resident bytes of the store
const unsigned long long kCompressTotal = 64ULL * 1024 * 1024; // bytes into the compressor
const int kLevel = ZOJGZIPOutputStream::kDefaultLevel;
const int kRepetitions = 5;

std::vector<char> randomCall(unsigned seed) {
    std::vector<char> call(kCall);
    std::mt19937 rng(seed);
    for (char& c : call)
        c = static_cast<char>(rng());
    return call;
}

// Text-like input that deflates to roughly a third, so the compressor does real work.
const std::vector<char>& compressibleInput() {
    static std::vector<char> input;
    if (input.empty()) {
        std::mt19937 rng(7);
        const char* words[] = {"store ",   "page ",      "offset ", "block ", "mapped ",
                               "dismiss ", "reference ", "budget ", "span ",  "file "};
        while (input.size() < kCompressTotal) {
            const char* w = words[rng() % 10];
            input.insert(input.end(), w, w + std::char_traits<char>::length(w));
            if (rng() % 8 == 0)
                input.push_back(static_cast<char>('0' + rng() % 10));
        }
        input.resize(kCompressTotal);
    }
    return input;
}

void check(bool ok, const char* what) {
    if (!ok)
        throw std::runtime_error(what);
}

// The argument is the page size of the file: 0 for the default.
void BM_VirtualFileWriteRead(benchmark::State& state) {
    const std::vector<char> call = randomCall(1);
    std::vector<char> back(kCall);
    for (auto _ : state) {
        HXLVirtualMemoryMgr store(kBudget, 0, 64);
        HXLVirtualFile file;
        file.open(&store, 0, static_cast<unsigned int>(state.range(0)), false);
        for (unsigned long long done = 0; done < kTotal; done += kCall)
            check(file.write(call.data(), kCall) == static_cast<int>(kCall), "short write");
        file.seek(0, HXLFmFile::eSeekBegin);
        for (unsigned long long done = 0; done < kTotal; done += kCall)
            check(file.read(back.data(), kCall) == static_cast<int>(kCall) && back == call,
                  "short read or wrong bytes");
        file.close();
        benchmark::DoNotOptimize(back.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kTotal * 2));
}

void BM_TempFileWriteRead(benchmark::State& state) {
    const std::vector<char> call = randomCall(1);
    std::vector<char> back(kCall);
    I18NString dir;
    HXLFmDir::getTempPath(dir);
    const std::string path = std::string(dir.c_str(nullptr, nullptr, nullptr, nullptr)) +
                             "/hxl_file_bench_" + std::to_string(getpid());
    for (auto _ : state) {
        HXLFmFile file;
        check(file.open(path.c_str(), HXLFmFile::eCreateAlways, 0600) == 1, "open");
        for (unsigned long long done = 0; done < kTotal; done += kCall)
            check(file.write(call.data(), kCall) == static_cast<int>(kCall), "short write");
        file.seek(0, HXLFmFile::eSeekBegin);
        for (unsigned long long done = 0; done < kTotal; done += kCall)
            check(file.read(back.data(), kCall) == static_cast<int>(kCall) && back == call,
                  "short read or wrong bytes");
        file.close();
        std::remove(path.c_str());
        benchmark::DoNotOptimize(back.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kTotal * 2));
}

void BM_VirtualFileCompressedWrite(benchmark::State& state) {
    const std::vector<char>& input = compressibleInput();
    for (auto _ : state) {
        HXLVirtualMemoryMgr store(kBudget, 0, 64);
        HXLVirtualFile file;
        file.open(&store, 0, 64 * 1024, true);
        for (unsigned long long done = 0; done < kCompressTotal; done += kCall)
            file.write(input.data() + done, kCall);
        file.close();
        benchmark::DoNotOptimize(file.getLength());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kCompressTotal));
}

// The same input through deflate with the same gzip wrapper and level, into one reused
// buffer: the cost of compression alone.
void BM_ZlibDeflateDirect(benchmark::State& state) {
    const std::vector<char>& input = compressibleInput();
    std::vector<unsigned char> out(256 * 1024);
    for (auto _ : state) {
        z_stream zs{};
        check(deflateInit2(&zs, kLevel, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY) == Z_OK,
              "deflateInit2");
        unsigned long long produced = 0;
        for (unsigned long long done = 0; done < kCompressTotal; done += kCall) {
            zs.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(input.data() + done));
            zs.avail_in = kCall;
            const int flush = done + kCall >= kCompressTotal ? Z_FINISH : Z_NO_FLUSH;
            int rc;
            do {
                zs.next_out = out.data();
                zs.avail_out = static_cast<uInt>(out.size());
                rc = deflate(&zs, flush);
                produced += out.size() - zs.avail_out;
            } while (zs.avail_out == 0 || (flush == Z_FINISH && rc != Z_STREAM_END));
        }
        deflateEnd(&zs);
        benchmark::DoNotOptimize(produced);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kCompressTotal));
}

BENCHMARK(BM_VirtualFileWriteRead)
    ->Arg(0)
    ->Arg(64 * 1024)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(1)
    ->Repetitions(kRepetitions);
BENCHMARK(BM_TempFileWriteRead)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(1)
    ->Repetitions(kRepetitions);
BENCHMARK(BM_VirtualFileCompressedWrite)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(1)
    ->Repetitions(kRepetitions);
BENCHMARK(BM_ZlibDeflateDirect)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(1)
    ->Repetitions(kRepetitions);

} // namespace

int main(int argc, char** argv) {
    MedianReporter reporter;
    if (!runBenchmarks(argc, argv, reporter))
        return 1;
    std::cout << "\nRatios of median times (" << kRepetitions << " repetitions):\n";
    printSpeedRatio(reporter, "BM_VirtualFileWriteRead/0", "BM_TempFileWriteRead", 0.75,
                    "write + read throughput against a temporary file, default 8 KiB pages");
    printSpeedRatio(reporter, "BM_VirtualFileWriteRead/65536", "BM_TempFileWriteRead", 0.9,
                    "the same with 64 KiB pages");
    printSpeedRatio(reporter, "BM_VirtualFileCompressedWrite", "BM_ZlibDeflateDirect", 0.9,
                    "compressed write throughput against zlib's deflate");
    return 0;
}
