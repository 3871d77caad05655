// What the library's fuzz targets share: reading the input as a program, failing loudly, and
// the store's count of objects that still hold a reference.
#ifndef FUZZ_UTIL_H
#define FUZZ_UTIL_H

#include "HXLVirtualMemoryMgr.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>

// Aborts with `what` unless `ok`: libFuzzer keeps the input that got there.
inline void check(bool ok, const char* what) {
    if (!ok) {
        std::fprintf(stderr, "fuzz: %s\n", what);
        std::abort();
    }
}

// The input, read front to back; 0 once it is used up.
class FuzzInput {
public:
    FuzzInput(const uint8_t* data, size_t size) : m_data(data), m_size(size) {}
    bool more() const { return m_size > 0; }
    unsigned byte() {
        if (m_size == 0)
            return 0;
        --m_size;
        return *m_data++;
    }
    unsigned below(unsigned n) { return n == 0 ? 0 : (byte() | byte() << 8) % n; }

private:
    const uint8_t* m_data;
    size_t m_size;
};

// Objects of the store with a reference held, from the line of the store's report.
inline unsigned long long heldReferences(HXLVirtualMemoryMgr& memMgr) {
    std::ostringstream report;
    memMgr.dumpMapper(report, 0);
    const std::string marker = "Total Objects with reference count > 0 : ", text = report.str();
    const std::string::size_type at = text.find(marker);
    return at == std::string::npos ? 0 : std::stoull(text.substr(at + marker.size()));
}

#endif
