// What the paging engine keeps in memory beyond its budget, and what its page file keeps on
// disk. Not a timing benchmark: it prints figures read off the process and the file.
//
//   1. For 1 M, 10 M and 20 M objects of 64 bytes, each allocated, filled and dismissed in a
//      store with a 64 MiB budget (a child process each, so that peak RSS is the store's own):
//      peak RSS (VmHWM) beyond the process's RSS before the store was made and beyond the
//      budget, per object, and the page file's size.
//   2. 64 MiB of 64 KiB objects paged out through a 4 MiB budget, then every other one freed:
//      the page file's allocated blocks (st_blocks) before and after.
//
//   build/release/bench/footprint_bench [objects...]
#include "HXLCore.h"
#include "VirtualMemoryPool.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

using tcmalloc::PageItem;
using tcmalloc::VirtualMemoryPool;
using tcmalloc::VirtualMemoryStats;

namespace {

const unsigned long long kBudget = 64ULL << 20;
const unsigned kObjectSize = 64;

std::string tempDir() {
    I18NString path;
    HXLFmDir::getTempPath(path);
    return path.c_str(nullptr, nullptr, nullptr, nullptr);
}

// A line of /proc/self/status in KiB ("VmHWM", "VmRSS").
unsigned long long statusKiB(const char* key) {
    FILE* status = std::fopen("/proc/self/status", "r");
    char line[256];
    unsigned long long value = 0;
    while (status != nullptr && std::fgets(line, sizeof(line), status) != nullptr)
        if (std::strncmp(line, key, std::strlen(key)) == 0)
            value = std::strtoull(line + std::strlen(key) + 1, nullptr, 10);
    if (status != nullptr)
        std::fclose(status);
    return value;
}

VirtualMemoryStats stats(VirtualMemoryPool& pool) {
    unsigned long long needed = 0;
    pool.ExtractStats(nullptr, 0, needed);
    std::vector<unsigned char> block(needed);
    pool.ExtractStats(reinterpret_cast<VirtualMemoryStats*>(block.data()), needed, needed);
    VirtualMemoryStats head;
    std::memcpy(&head, block.data(), sizeof(head));
    return head;
}

// The open descriptor of the page file named in the statistics, or -1.
int pageFileDescriptor(const char* name) {
    int found = -1;
    DIR* fds = ::opendir("/proc/self/fd");
    while (dirent* entry = fds ? ::readdir(fds) : nullptr) {
        char target[512] = {};
        const std::string link = std::string("/proc/self/fd/") + entry->d_name;
        if (::readlink(link.c_str(), target, sizeof(target) - 1) > 0 &&
            std::strncmp(target, name, std::strlen(name)) == 0)
            found = std::atoi(entry->d_name);
    }
    if (fds != nullptr)
        ::closedir(fds);
    return found;
}

// Runs in a child: N objects made, filled and dismissed; prints one row.
int measureObjects(unsigned long long count) {
    const unsigned long long before = statusKiB("VmRSS:");
    VirtualMemoryPool pool(kBudget, tempDir().c_str());
    for (unsigned long long i = 0; i < count; ++i) {
        PageItem item;
        void* address = pool.Allocate(kObjectSize, item);
        if (address == nullptr) {
            std::printf("allocation %llu failed\n", i);
            return 1;
        }
        std::memset(address, static_cast<int>(i), kObjectSize);
        pool.Dismiss(item);
    }
    const unsigned long long peak = statusKiB("VmHWM:") << 10;
    const long long beyond = static_cast<long long>(peak - (before << 10) - kBudget);
    const VirtualMemoryStats figures = stats(pool);
    std::printf("%12llu %12.1f %12.1f %14.2f %16.1f\n", count, peak / 1048576.0, beyond / 1048576.0,
                static_cast<double>(beyond) / count, figures.pageFileSize / 1048576.0);
    return 0;
}

int measureHoles() {
    VirtualMemoryPool pool(4ULL << 20, tempDir().c_str());
    const unsigned size = 64 * 1024, count = 1024;
    std::vector<PageItem> items(count);
    for (PageItem& item : items) {
        std::memset(pool.Allocate(size, item), 1, size);
        pool.Dismiss(item);
    }
    const int fd = pageFileDescriptor(stats(pool).pageFileName);
    struct stat before, after;
    if (fd < 0 || ::fstat(fd, &before) != 0)
        return 1;
    for (unsigned i = 0; i < count; i += 2)
        pool.Deallocate(items[i]);
    if (::fstat(fd, &after) != 0)
        return 1;
    std::printf("page file after 64 MiB of 64 KiB objects: %.1f MiB allocated; every other one "
                "freed: %.1f MiB allocated (%.2f of before), size %.1f MiB\n",
                before.st_blocks * 512 / 1048576.0, after.st_blocks * 512 / 1048576.0,
                static_cast<double>(after.st_blocks) / before.st_blocks, after.st_size / 1048576.0);
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    std::vector<unsigned long long> counts;
    for (int i = 1; i < argc; ++i)
        counts.push_back(std::strtoull(argv[i], nullptr, 10));
    if (counts.empty())
        counts = {1000000, 10000000, 20000000};
    std::printf("64-byte objects through a 64 MiB budget (target: at most 2 bytes per object "
                "beyond the budget)\n%12s %12s %12s %14s %16s\n",
                "objects", "peak MiB", "beyond MiB", "beyond B/obj", "page file MiB");
    std::fflush(stdout);
    for (unsigned long long count : counts) {
        const pid_t child = ::fork();
        if (child == 0) {
            const int rc = measureObjects(count);
            std::fflush(stdout);
            std::_Exit(rc);
        }
        int status = 0;
        ::waitpid(child, &status, 0);
        if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
            return 1;
    }
    return measureHoles();
}
