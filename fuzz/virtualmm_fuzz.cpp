// libFuzzer target for the paging engine: the input is a program of operations (allocate,
// map, write, dismiss, deallocate, I/O that fails, reads back damaged bytes or ends early;
// maps and dismisses through the plain calls or the published fast path, references moved)
// run against a model on a store with a small budget. Any wrong byte, moved
// pinned object, wrong count or broken invariant aborts.
//
//   cmake -S . -B build/fuzz -G Ninja -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_C_COMPILER=clang \
//         -DHXL_BUILD_FUZZERS=ON -DHXL_BUILD_TESTS=OFF -DHXL_BUILD_BENCHMARKS=OFF
//   cmake --build build/fuzz --target virtualmm_fuzz && build/fuzz/fuzz/virtualmm_fuzz
//   -max_total_time=300
#include "VirtualMemoryFastPath.h"
#include "VirtualMemoryPool.h"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <unistd.h>

namespace {

struct Object {
    unsigned size;
    unsigned char fill;
    unsigned pins;
    void* pinnedAt;
};

// 0: I/O works; 1: every call fails; 2: reads bring back one byte changed; 3: reads end early.
unsigned g_fault = 0;
long seamWrite(int fd, const void* data, unsigned long count, long long offset) {
    if (g_fault == 1) {
        errno = ENOSPC;
        return -1;
    }
    return ::pwrite(fd, data, count, offset);
}
long seamRead(int fd, void* data, unsigned long count, long long offset) {
    if (g_fault == 1 || g_fault == 3) {
        errno = EIO;
        return g_fault == 1 ? -1 : 0;
    }
    const long n = ::pread(fd, data, count, offset);
    if (g_fault == 2 && n > 0)
        static_cast<unsigned char*>(data)[offset % n] ^= 0x10;
    return n;
}

void check(bool ok, const char* what) {
    if (!ok) {
        std::fprintf(stderr, "virtualmm_fuzz: %s\n", what);
        std::abort();
    }
}

bool holds(const void* address, unsigned size, unsigned char fill) {
    const unsigned char* p = static_cast<const unsigned char*>(address);
    for (unsigned i = 0; i < size; ++i)
        if (p[i] != static_cast<unsigned char>(fill + i))
            return false;
    return true;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    tcmalloc::VirtualMemoryPool pool(32 * 1024, "/tmp");
    const tcmalloc::VirtualMemoryIo seam = {seamWrite, seamRead};
    pool.SetIo(&seam);
    g_fault = 0;
    std::map<unsigned long long, Object> model;
    unsigned long long pinned = 0;
    // Bit 0x4000 of an argument sends a map or dismiss through the published fast path first.
    tcmalloc::FastTable* table = tcmalloc_VirtualMemoryPool_FastTable(&pool);
    check(table != nullptr, "no fast path published");

    for (size_t at = 0; at + 3 <= size; at += 3) {
        const unsigned op = data[at] % 7;
        const unsigned arg = data[at + 1] | (data[at + 2] << 8);
        auto pick = [&] { return std::next(model.begin(), arg % model.size()); };
        tcmalloc::PageItem item{0};
        if (op == 0 || model.empty()) { // allocate up to ~3 pages, or a large span
            const unsigned length = op == 0 && (arg & 0x8000) ? 9000 + arg % 30000 : arg % 4097;
            void* address = pool.Allocate(length, item);
            if (address == nullptr) {
                check(g_fault != 0 && item.offset == 0, "allocation failed without an I/O fault");
                continue;
            }
            check(model.count(item.offset) == 0, "offset of a live object handed out again");
            const unsigned char fill = static_cast<unsigned char>(arg);
            for (unsigned i = 0; i < length; ++i)
                static_cast<unsigned char*>(address)[i] = static_cast<unsigned char>(fill + i);
            model[item.offset] = {length, fill, 1, address};
            ++pinned;
        } else if (op <= 2) { // map, check, keep pinned; op 2 may move a reference along
            auto it = pick();
            item.offset = it->first;
            auto from = std::prev(it == model.begin() ? model.end() : it);
            void* address = nullptr;
            if (op == 2 && from->second.pins > 0) {
                address = tcmalloc::fastMove(*table, from->first, it->first, true);
                if (address != nullptr)
                    pinned -= --from->second.pins == 0;
            } else if ((arg & 0x4000) != 0) {
                address = tcmalloc::fastMap(*table, it->first, true);
            }
            if (address == nullptr)
                address = pool.GetAddress(item, true);
            if (address == nullptr) {
                check(g_fault != 0 && it->second.pins == 0, "a mapping failed without a fault");
                continue;
            }
            check(it->second.pins == 0 || address == it->second.pinnedAt, "pinned object moved");
            check(holds(address, it->second.size, it->second.fill), "wrong bytes");
            pinned += it->second.pins++ == 0;
            it->second.pinnedAt = address;
        } else if (op <= 4) { // dismiss (also of an object with count 0)
            auto it = pick();
            item.offset = it->first;
            if ((arg & 0x4000) == 0 || !tcmalloc::fastDismiss(*table, item.offset))
                pool.Dismiss(item);
            else
                check(it->second.pins > 0, "the fast path let go of an object nobody held");
            if (it->second.pins > 0)
                pinned -= --it->second.pins == 0;
        } else if (op == 5) { // deallocate
            auto it = pick();
            item.offset = it->first;
            pool.Deallocate(item);
            pinned -= it->second.pins > 0;
            model.erase(it);
        } else { // faults on or off
            g_fault = arg % 4;
        }
        check(pool.GetOutstandingReferences(nullptr, 0, nullptr) == pinned, "outstanding count");
        if ((arg & 0xF000) == 0xF000)
            pool.Verify();
    }
    pool.Verify();
    g_fault = 0;
    for (auto& entry : model) {
        tcmalloc::PageItem item{entry.first};
        void* address = pool.GetAddress(item, true);
        check(address != nullptr && holds(address, entry.second.size, entry.second.fill),
              "final read-back");
        pool.Dismiss(item);
    }
    return 0;
}
