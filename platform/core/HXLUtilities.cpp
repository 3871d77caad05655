#include "HXLCore.h"

#include <climits>
#include <cstdlib>
#include <sys/stat.h>
#include <zlib.h>

unsigned int HXLUtCrc32::crc32(unsigned int seed, const unsigned char* data, size_t length) {
    if (data == nullptr)
        return seed;
    uLong crc = seed;
    // zlib takes a 32-bit length per call.
    while (length > 0) {
        const uInt piece = length > UINT_MAX ? UINT_MAX : static_cast<uInt>(length);
        crc = ::crc32(crc, data, piece);
        data += piece;
        length -= piece;
    }
    return static_cast<unsigned int>(crc);
}

int HXLFmDir::getTempPath(I18NString& path) {
    const char* dir = std::getenv("TMPDIR");
    struct stat st;
    if (dir == nullptr || *dir == '\0' || ::stat(dir, &st) != 0 || !S_ISDIR(st.st_mode))
        dir = "/tmp";
    path = I18NString(dir, nullptr, -1, nullptr, nullptr);
    return 1;
}
