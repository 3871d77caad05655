// What the library's fuzz targets share: the headers, reading the input as a program, failing
// loudly, the store's count of objects that still hold a reference and its page file, strings to
// and from UTF-8, the bytes objects and files are filled with and a file's bytes read back, and the
// paging engine's figures. Each target's one-input function is its model; the test program of its
// subsystem compiles it in and runs it on seeded inputs, so a check throws rather than aborts
// (under libFuzzer the exception ends the run all the same, and the input is kept).
#ifndef FUZZ_UTIL_H
#define FUZZ_UTIL_H

#include "HXLCore.h"
#include "HXLVirtualFile.h"
#include "HXLVirtualMemoryMgr.h"
#include "VirtualMemoryPool.h"

#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

// Fails the model with `what` unless `ok`.
inline void check(bool ok, const char* what) {
    if (!ok)
        throw std::logic_error(what);
}

// Whether `call` raises `Error`; any other exception passes on.
template <class Error, class Call> bool raises(Call call) {
    try {
        call();
    } catch (const Error&) {
        return true;
    }
    return false;
}

// The input, read front to back; 0 once it is used up.
class FuzzInput {
public:
    FuzzInput(const uint8_t* data, size_t size) : m_data(data), m_end(data + size) {}
    bool more() const { return m_data < m_end; }
    unsigned byte() { return more() ? *m_data++ : 0; }
    unsigned below(unsigned n) { return n == 0 ? 0 : (byte() | byte() << 8) % n; }

private:
    const uint8_t *m_data, *m_end;
};

// The store's report, dumped with `flags`.
inline std::string mapperReport(HXLVirtualMemoryMgr& memMgr, int flags) {
    std::ostringstream report;
    memMgr.dumpMapper(report, flags);
    return report.str();
}

// The rest of the line of the store's report (dumped with `flags`) behind `marker`; empty if
// the report has no such line.
inline std::string reportLine(HXLVirtualMemoryMgr& memMgr, int flags, const std::string& marker) {
    const std::string text = mapperReport(memMgr, flags);
    const std::string::size_type at = text.find(marker), from = at + marker.size();
    return at == std::string::npos ? "" : text.substr(from, text.find('\n', from) - from);
}

// Objects of the store with a reference held: the report leaves out the line while there are none.
inline unsigned long long heldReferences(HXLVirtualMemoryMgr& memMgr) {
    return std::strtoull(reportLine(memMgr, 0, "Total Objects with reference count > 0 : ").c_str(),
                         nullptr, 10);
}

// The descriptor, in this process, of the page file `name`: unlinked at once but open, so found
// among the descriptors; -1 if there is none.
inline int pageFileDescriptor(const std::string& name) {
    std::error_code closed; // a descriptor closed meanwhile has no target
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
        if (std::filesystem::read_symlink(entry.path(), closed) == name + " (deleted)")
            return std::stoi(entry.path().filename().string());
    return -1;
}
// The page file of `memMgr`, by the name its report gives; -1 before the first page-out.
inline int pageFileDescriptor(HXLVirtualMemoryMgr& memMgr) {
    return pageFileDescriptor(
        reportLine(memMgr, HXLVirtualMemoryMgr::eDumpStats, "Paging File - "));
}

// A string from UTF-8, and a string as UTF-8 or in another encoding, marked if the length that
// c_str gives does not end at its NUL.
inline I18NString text(const std::string& utf8) {
    return I18NString(utf8.c_str(), nullptr, -1, nullptr, nullptr);
}
inline std::string narrow(const I18NString& text, const char* encoding = nullptr) {
    int length = 0;
    const char* bytes = text.c_str(encoding, &length, nullptr, nullptr);
    return std::string(bytes, length - 1) + (bytes[length - 1] == '\0' ? "" : "<no NUL>");
}

// `count` bytes that deflate well (even seed) or not at all (odd seed).
inline std::string sample(size_t count, unsigned seed) {
    std::string out(count, '\0');
    unsigned state = seed * 2654435761u + 1;
    for (size_t i = 0; i < count; ++i) {
        state = state * 1103515245u + 12345u;
        out[i] = static_cast<char>(seed % 2 != 0 ? state >> 16 : 'a' + (i / 7 + seed) % 4);
    }
    return out;
}

// An object's bytes from its seed: an odd sample, with no period a page could hide in.
inline void fill(void* address, size_t size, unsigned seed) {
    std::memcpy(address, sample(size, 2 * seed + 1).data(), size);
}
inline bool holds(const void* address, size_t size, unsigned seed) {
    return size == 0 || std::memcmp(address, sample(size, 2 * seed + 1).data(), size) == 0;
}

// The engine's figures, without the per-pool part behind them.
inline tcmalloc::VirtualMemoryStats poolStats(tcmalloc::VirtualMemoryPool& pool) {
    unsigned long long needed = 0;
    pool.ExtractStats(nullptr, 0, needed);
    std::vector<unsigned char> block(needed);
    pool.ExtractStats(reinterpret_cast<tcmalloc::VirtualMemoryStats*>(block.data()), needed,
                      needed);
    tcmalloc::VirtualMemoryStats head;
    std::memcpy(&head, block.data(), tcmalloc::VirtualMemoryStats::kFixedPoolsOffset);
    return head;
}

// All the bytes of `file`, read from its start.
inline std::string readAll(HXLVirtualFile& file) {
    std::string out(static_cast<size_t>(file.getLength()), '\0');
    file.seek(0, HXLFmFile::eSeekBegin);
    check(file.read(&out[0], static_cast<unsigned>(out.size())) == file.getLength(), "read back");
    return out;
}

// The gzip members of `gz` inflated one behind the other; a damaged or cut stream fails.
inline std::string gunzip(const std::string& gz) {
    std::string out;
    if (gz.empty())
        return out;
    z_stream zs{};
    int rc = inflateInit2(&zs, 15 + 16);
    zs.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(gz.data()));
    zs.avail_in = static_cast<uInt>(gz.size());
    char buffer[16384];
    while (rc == Z_OK || (rc == Z_STREAM_END && zs.avail_in > 0 && inflateReset(&zs) == Z_OK)) {
        zs.next_out = reinterpret_cast<Bytef*>(buffer);
        zs.avail_out = sizeof buffer;
        rc = inflate(&zs, Z_NO_FLUSH);
        out.append(buffer, sizeof buffer - zs.avail_out);
    }
    inflateEnd(&zs);
    check(rc == Z_STREAM_END, "the stored bytes are no whole gzip stream");
    return out;
}

#endif
