// Helpers shared by the virtual file's and the gzip stream's tests.
#ifndef FILE_TEST_UTIL_H
#define FILE_TEST_UTIL_H

#include "HXLCore.h"
#include "HXLVirtualMemoryMgr.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <cstdlib>
#include <cstring>
#include <random>
#include <string>

// Objects of `store` with a reference held, read from the leak check's report. The check is
// switched on for good: each test program is a process of its own.
inline int outstandingReferences(HXLVirtualMemoryMgr& store) {
    HXLVirtualMemoryMgr::setExceptionOnReferenceLeak(1);
    try {
        store.throwExceptionOnReferenceLeak();
        return 0;
    } catch (const HXLIllegalStateError& e) {
        return std::atoi(std::strrchr(e.what(), ':') + 1);
    }
}

// Inflates the gzip members of `gz` one behind the other; fails the test on damaged input.
inline std::string gunzip(const std::string& gz) {
    std::string out;
    z_stream zs{};
    int rc = inflateInit2(&zs, 15 + 16);
    zs.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(gz.data()));
    zs.avail_in = static_cast<uInt>(gz.size());
    while (rc == Z_OK || (rc == Z_STREAM_END && zs.avail_in > 0)) {
        if (rc == Z_STREAM_END) // the next member follows directly
            inflateReset(&zs);
        char buffer[4096];
        zs.next_out = reinterpret_cast<Bytef*>(buffer);
        zs.avail_out = sizeof buffer;
        rc = inflate(&zs, Z_NO_FLUSH);
        out.append(buffer, sizeof buffer - zs.avail_out);
    }
    EXPECT_EQ(rc, Z_STREAM_END) << "damaged or truncated gzip stream";
    inflateEnd(&zs);
    return out;
}

// Random bytes: deflate gets nothing out of them, so its output is as large as its input.
inline std::string sample(size_t size, unsigned seed) {
    std::mt19937 rng(seed);
    std::string s(size, '\0');
    for (char& c : s)
        c = static_cast<char>(rng());
    return s;
}

#endif
