// Helpers shared by the virtual file's tests.
#ifndef FILE_TEST_UTIL_H
#define FILE_TEST_UTIL_H

#include "HXLCore.h"
#include "HXLVirtualMemoryMgr.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <cstdlib>
#include <cstring>
#include <string>

// Turns the process-wide reference-leak switch on for the life of the object.
class LeakCheckOn {
public:
    LeakCheckOn() : m_old(HXLVirtualMemoryMgr::getExceptionOnReferenceLeak()) {
        HXLVirtualMemoryMgr::setExceptionOnReferenceLeak(1);
    }
    ~LeakCheckOn() { HXLVirtualMemoryMgr::setExceptionOnReferenceLeak(m_old); }

private:
    int m_old;
};

// Objects of `store` that hold a reference, read from the leak check's report (needs the
// switch on).
inline int outstandingReferences(HXLVirtualMemoryMgr& store) {
    try {
        store.throwExceptionOnReferenceLeak();
        return 0;
    } catch (const HXLIllegalStateError& e) {
        const char* colon = std::strrchr(e.what(), ':');
        return colon ? std::atoi(colon + 1) : -1;
    }
}

// Inflates every gzip member of `gz` one behind the other; fails the test on damaged input.
inline std::string gunzip(const std::string& gz) {
    std::string out;
    z_stream zs{};
    EXPECT_EQ(inflateInit2(&zs, 15 + 16), Z_OK);
    zs.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(gz.data()));
    zs.avail_in = static_cast<uInt>(gz.size());
    char buffer[4096];
    for (;;) {
        zs.next_out = reinterpret_cast<Bytef*>(buffer);
        zs.avail_out = sizeof(buffer);
        const int rc = inflate(&zs, Z_NO_FLUSH);
        out.append(buffer, sizeof(buffer) - zs.avail_out);
        if (rc == Z_STREAM_END && zs.avail_in == 0)
            break;
        if (rc == Z_STREAM_END) {
            inflateReset(&zs);
            continue;
        }
        EXPECT_EQ(rc, Z_OK) << "damaged gzip stream";
        if (rc != Z_OK)
            break;
    }
    inflateEnd(&zs);
    return out;
}

#endif
