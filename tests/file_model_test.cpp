// The paged file against a model: a byte vector, a position, a length and whether the mapping
// rule leaves a page mapped, which the store's reference count must show after every step.
#include "HXLVirtualFile.h"
#include "file_test_util.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <sstream>
#include <vector>

#include <sys/resource.h>

namespace {

void runModel(unsigned int openedWith, unsigned int seed) {
    SCOPED_TRACE(testing::Message() << "page size " << openedWith << ", seed " << seed);
    const unsigned int pageSize = openedWith != 0 ? openedWith : 8192;
    HXLVirtualMemoryMgr store(64 * 1024, 0, 64); // a budget far below the file's size
    std::mt19937 rng(seed);
    const unsigned int limit = 400 * 1024;
    // Bytes never written hold what a fresh block held: unknown until a read shows them.
    std::vector<char> bytes(limit), buffer;
    std::vector<bool> known(limit);
    unsigned int pos = 0, len = 0;
    bool mapped = false;
    {
        HXLVirtualFile file;
        file.open(&store, 0, openedWith, false);
        for (int step = 0; step < 3000; ++step) {
            const unsigned int op = rng() % 20, n = rng() % (3 * pageSize);
            if (op < 13) { // write (below 7) or read
                const bool reading = op >= 7;
                const unsigned int moved = std::min(n, (reading ? len : limit) - pos);
                buffer.resize(moved);
                for (char& c : buffer)
                    c = reading ? 0 : static_cast<char>(rng());
                ASSERT_EQ(reading ? file.read(buffer.data(), n) : file.write(buffer.data(), moved),
                          static_cast<int>(moved));
                for (unsigned int at = pos; at < pos + moved; ++at) {
                    ASSERT_FALSE(reading && known[at] && buffer[at - pos] != bytes[at]) << at;
                    bytes[at] = buffer[at - pos];
                    known[at] = true;
                }
                pos += moved;
                if (moved > 0) // a transfer keeps its last page mapped unless it ended there
                    mapped = pos % pageSize != 0;
            } else if (op < 18) { // seek by every origin (7 counts from the start), past the end
                const unsigned int target =
                    std::min<unsigned int>(rng() % (len + 2 * pageSize + 1), limit);
                const int origin = static_cast<int>(rng() % 4);
                const unsigned int from = origin == 1 ? pos : origin == 2 ? len : 0;
                ASSERT_EQ(file.seek(static_cast<int>(target - from),
                                    static_cast<HXLFmFile::seekorigin>(origin == 3 ? 7 : origin)),
                          static_cast<int>(target));
                mapped = mapped && pos / pageSize == target / pageSize;
                pos = target;
            } else if (op == 18) {
                ASSERT_EQ(file.close(), 1);
                mapped = false;
            } else {
                const bool disposePages = rng() % 2 == 0; // new blocks from here on
                file.reset(disposePages);
                pos = len = 0;
                mapped = false;
                if (disposePages)
                    known.assign(limit, false);
            }
            len = std::max(len, pos);
            ASSERT_EQ(file.getLength(), static_cast<int>(len)) << "step " << step;
            ASSERT_EQ(file.seek(0, HXLFmFile::eSeekCurrent), static_cast<int>(pos));
            ASSERT_EQ(outstandingReferences(store), mapped ? 1 : 0) << "step " << step;
        }
        // Far seeks wrap at 32 bits; positions from 0x80000000 on come back negative.
        ASSERT_EQ(file.seek(INT_MIN, HXLFmFile::eSeekCurrent), static_cast<int>(pos + 0x80000000u));
        ASSERT_EQ(file.getLength(), static_cast<int>(pos + 0x80000000u));
        ASSERT_EQ(file.seek(INT_MIN, HXLFmFile::eSeekCurrent), static_cast<int>(pos));
    }
    EXPECT_EQ(outstandingReferences(store), 0) << "the destructor gives the mapping back";
    std::ostringstream report;
    store.dumpMapper(report, HXLVirtualMemoryMgr::eDumpStats);
    EXPECT_EQ(report.str().find("Page Outs: 0\n"), std::string::npos) << "pages left memory";
}

} // namespace

TEST(HXLVirtualFileModel, RandomOperationsAgreeWithTheModel) {
    for (unsigned int pageSize : {0u, 777u, 1000u, 4097u, 12289u}) // 0: the default, 8192
        for (unsigned int seed : {1u, 2u})
            runModel(pageSize, seed);
}

namespace {

// Lowers this process's file size limit: the page file's writes past it fail (EFBIG, with
// SIGXFSZ ignored) as on a full disk.
struct FullDisk {
    rlimit saved{};
    explicit FullDisk(rlim_t bytes) {
        ::getrlimit(RLIMIT_FSIZE, &saved);
        std::signal(SIGXFSZ, SIG_IGN);
        rlimit limit = saved;
        limit.rlim_cur = bytes;
        ::setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~FullDisk() {
        ::setrlimit(RLIMIT_FSIZE, &saved);
        std::signal(SIGXFSZ, SIG_DFL);
    }
};

} // namespace

TEST(HXLVirtualFile, MisuseIsRefusedAndAStoreThatFailsRaisesOutOfMemory) {
    char buffer[16] = {};
    HXLVirtualFile closed;
    EXPECT_EQ(closed.write("x", 1), -1);
    EXPECT_EQ(closed.read(buffer, 1), -1);
    EXPECT_EQ(closed.getLastErrorNumber(), unsigned(EBADF));

    HXLVirtualMemoryMgr store(64 * 1024, 0, 64);
    HXLVirtualFile file;
    file.open(&store, 0, 8192, false);
    EXPECT_EQ(file.write("0123456789", 0x80000000u), -1);
    EXPECT_EQ(file.getLastErrorNumber(), unsigned(EINVAL));
    EXPECT_EQ(file.write("0123456789", 10), 10);
    // At the end of the position range a write stops short instead of wrapping onto byte 0.
    file.seek(-5, HXLFmFile::eSeekBegin);
    EXPECT_EQ(file.write("abcdefghij", 10), 3);
    EXPECT_EQ(file.write("x", 1), -1);
    EXPECT_EQ(file.getLastErrorNumber(), unsigned(EFBIG));
    EXPECT_EQ(file.read(buffer, 10), 0);
    file.seek(-1, HXLFmFile::eSeekBegin); // 0xFFFFFFFF, in the page still mapped
    file.seek(0, HXLFmFile::eSeekBegin);
    EXPECT_EQ(outstandingReferences(store), 0) << "the page left was given back";
    EXPECT_EQ(file.read(buffer, 0x80000000u), -1);
    EXPECT_EQ(file.read(buffer, 10), 10);
    EXPECT_EQ(std::string(buffer, 10), "0123456789");

    const std::string data = sample(10000, 3);
    HXLVirtualMemoryMgr small(64 * 1024, 0, 64);
    HXLVirtualFile full;
    full.open(&small, 0, 4096, false);
    unsigned int written = 0;
    {
        FullDisk disk(256 * 1024);
        try {
            for (; written < (1u << 24); written += 10000)
                full.write(data.data(), 10000);
        } catch (const HXLOutOfMemoryError&) {
        }
        EXPECT_GT(full.getLength(), static_cast<int>(written)) << "whole pages kept";
        EXPECT_EQ(full.getLength() % 4096, 0);
        EXPECT_EQ(full.seek(0, HXLFmFile::eSeekEnd), full.getLength());
        full.seek(0, HXLFmFile::eSeekBegin);
        EXPECT_THROW(full.read(buffer, 16), HXLOutOfMemoryError);
        EXPECT_THROW(full.write(buffer, 16), HXLOutOfMemoryError);
        EXPECT_EQ(full.seek(0, HXLFmFile::eSeekCurrent), 0);
        EXPECT_EQ(outstandingReferences(small), 0);
    }
    EXPECT_EQ(full.read(buffer, 16), 16) << "the disk has room again";
    EXPECT_EQ(std::string(buffer, 16), data.substr(0, 16));
}
