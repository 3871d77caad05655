#include "HXLCore.h"
#include "HXLVirtualFile.h"
#include "demo_sections.h"

#include <string>
#include <zlib.h>

namespace {

// Inflates every gzip member of `gz` with zlib; `ok` is false when zlib rejects the input.
std::string inflateMembers(const std::string& gz, bool& ok) {
    std::string out;
    z_stream stream = {};
    ok = inflateInit2(&stream, 15 + 16) == Z_OK;
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(gz.data()));
    stream.avail_in = static_cast<uInt>(gz.size());
    char buffer[16384];
    while (ok && stream.avail_in > 0) {
        stream.next_out = reinterpret_cast<Bytef*>(buffer);
        stream.avail_out = sizeof(buffer);
        const int rc = inflate(&stream, Z_NO_FLUSH);
        out.append(buffer, sizeof(buffer) - stream.avail_out);
        if (rc == Z_STREAM_END)
            ok = inflateReset(&stream) == Z_OK; // the next member follows directly
        else if (rc != Z_OK)
            ok = false;
    }
    inflateEnd(&stream);
    return out;
}

} // namespace

// The paged file with compression on the way in: two gzip members written into a virtual file,
// read back as stored (compressed) and inflated with zlib.
int demoFile(std::ostream& os) {
    int failures = 0;
    os << "== Paged file with gzip compression ==\n";

    const unsigned int storeBudget = 64 * 1024;
    const unsigned int pageSize = 3000; // any size: positions are plain byte counts
    HXLVirtualFile file;
    file.open(storeBudget, 0, pageSize, true); // the file makes its store and deletes it

    std::string written;
    for (int member = 0; member < 2; ++member) {
        for (int line = 0; line < 2000; ++line) {
            const std::string text = "member " + std::to_string(member) + ", line " +
                                     std::to_string(line) + ": bytes live in pages of the store\n";
            file.write(text.data(), static_cast<unsigned int>(text.size()));
            written += text;
        }
        file.close(); // ends the gzip member; the next write starts another behind it
        os << "after member " << member + 1 << ": " << written.size() << " bytes written, "
           << file.getLength() << " bytes stored\n";
    }

    std::string stored(static_cast<size_t>(file.getLength()), '\0');
    file.seek(0, HXLFmFile::eSeekBegin);
    const int got = file.read(&stored[0], static_cast<unsigned int>(stored.size()));
    failures += got != static_cast<int>(stored.size());
    const bool gzipMagic = stored.size() > 2 && static_cast<unsigned char>(stored[0]) == 0x1f &&
                           static_cast<unsigned char>(stored[1]) == 0x8b;
    os << "stored bytes begin with the gzip magic 1f 8b: " << (gzipMagic ? "yes" : "NO") << "\n";
    failures += !gzipMagic;

    bool ran = false;
    const std::string inflated = inflateMembers(stored, ran);
    const bool same = ran && inflated == written;
    os << "zlib inflates the stored bytes to " << inflated.size() << " bytes: "
       << (same  ? "exactly what was written"
           : ran ? "SOMETHING ELSE"
                 : "INVALID GZIP")
       << "\n\n";
    failures += !same;
    return failures;
}
