#include "HXLCore.h"
#include "HXLVirtualFile.h"
#include "demo_sections.h"

#include <cstdio>
#include <cstdlib>
#include <string>
#include <unistd.h>

namespace {

// Runs the system's gzip on `gz` and gives what it inflates to; `ok` is false when gzip could
// not be run or rejected the input.
std::string inflateWithGzip(const std::string& gz, bool& ok) {
    ok = false;
    I18NString tempDir;
    HXLFmDir::getTempPath(tempDir);
    std::string path =
        std::string(tempDir.c_str(nullptr, nullptr, nullptr, nullptr)) + "/hxlvmm-demo-XXXXXX";
    const int fd = mkstemp(&path[0]);
    if (fd < 0)
        return std::string();
    const bool written = ::write(fd, gz.data(), gz.size()) == static_cast<ssize_t>(gz.size());
    ::close(fd);
    std::string out;
    if (written) {
        FILE* pipe = popen(("gzip -dc < '" + path + "'").c_str(), "r");
        if (pipe != nullptr) {
            char buffer[4096];
            size_t n;
            while ((n = std::fread(buffer, 1, sizeof(buffer), pipe)) > 0)
                out.append(buffer, n);
            ok = pclose(pipe) == 0;
        }
    }
    std::remove(path.c_str());
    return out;
}

} // namespace

// The paged file with compression on the way in: two gzip members written into a virtual file,
// read back as stored (compressed) and inflated by the system's gzip program.
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
    const std::string inflated = inflateWithGzip(stored, ran);
    const bool same = ran && inflated == written;
    os << "gzip -dc of the stored bytes gives " << inflated.size() << " bytes: "
       << (same  ? "exactly what was written"
           : ran ? "SOMETHING ELSE"
                 : "GZIP FAILED")
       << "\n\n";
    failures += !same;
    return failures;
}
