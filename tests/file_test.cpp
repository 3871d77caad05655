// The paged file: its model of bytes, position, length, mapping and compressed members
// (fuzz/file_fuzz.cpp) on seeded programs; a store that fails, and the compressed write path's
// members, finishes and failures.
#include "store_test_util.h"

#include <csignal>

#include <sys/resource.h>

namespace {

// Records every byte that reaches writeImpl, and can be made to fail there.
struct RecordingFile : HXLVirtualFile {
    std::string stored;
    bool fail = false;
    unsigned long long writeImpl(const void* data, unsigned int count) override {
        if (fail)
            throw std::runtime_error("disk full");
        stored.append(static_cast<const char*>(data), count);
        return HXLVirtualFile::writeImpl(data, count);
    }
};

} // namespace

TEST(HXLVirtualFileModel, RandomProgramsAgree) {
    runModel(200, 3000);
}

// A file size limit makes the page file's writes fail (EFBIG, with SIGXFSZ ignored) as on a full
// disk: a page that can be neither made nor brought back raises HXLOutOfMemoryError, and what
// was stored stays.
TEST(HXLVirtualFile, AFullStoreRaisesOutOfMemoryAndKeepsWhatWasStored) {
    char buffer[16] = {};
    rlimit saved{};
    ::getrlimit(RLIMIT_FSIZE, &saved);
    const rlimit full = {256 * 1024, saved.rlim_max};
    std::signal(SIGXFSZ, SIG_IGN);
    ::setrlimit(RLIMIT_FSIZE, &full);
    const std::string data = sample(10000, 3);
    HXLVirtualMemoryMgr store(64 * 1024, 0, 64);
    HXLVirtualFile file;
    file.open(&store, 0, 4096, false);
    EXPECT_THROW(while (file.getLength() < (1 << 24)) file.write(data.data(), 10000),
                 HXLOutOfMemoryError);
    EXPECT_EQ(file.seek(0, HXLFmFile::eSeekEnd) % 4096, 0) << "behind the last whole page";
    file.seek(0, HXLFmFile::eSeekBegin);
    EXPECT_THROW(file.read(buffer, 16), HXLOutOfMemoryError);
    EXPECT_THROW(file.write(buffer, 16), HXLOutOfMemoryError);
    EXPECT_EQ(file.seek(0, HXLFmFile::eSeekCurrent) + heldReferences(store), 0u);
    ::setrlimit(RLIMIT_FSIZE, &saved);
    EXPECT_EQ(file.read(buffer, 16), 16) << "the disk has room again";
    EXPECT_EQ(std::string(buffer, 16), data.substr(0, 16));
}

TEST(CompressedFile, MembersInflateToWhatWasWrittenAndResetOrDestructionEndsThem) {
    HXLVirtualMemoryMgr store(32 * 1024, 0, 64);
    const std::string first = sample(300000, 1), second = sample(5000, 2);
    {
        HXLVirtualFile borrowing, owning, neverOpened; // the owning one deletes its store
        borrowing.open(&store, 0, 1000, true);
        owning.open(16 * 1024u, 0, 1000, true);
        borrowing.write(first.data(), 20000);
        owning.write(first.data(), 20000);
        EXPECT_EQ(neverOpened.write("x", 1) + neverOpened.read(nullptr, 1), -2) << "no store";
        EXPECT_EQ(neverOpened.getLastErrorNumber(), unsigned(EBADF));
    }
    EXPECT_EQ(heldReferences(store), 0u) << "destruction with a compressor running";
    RecordingFile file;
    file.open(&store, 0, 1000, true);
    EXPECT_EQ(file.close() + file.getLength(), 1) << "no write, no compressor, nothing stored";
    EXPECT_EQ(file.write(first.data(), 100000), 100000);
    EXPECT_EQ(file.write(first.data() + 100000, 200000), 200000);
    file.close();
    // Behind a close the next write starts a new member where the position stands; an empty
    // write makes one too, and a finish that fails keeps its compressor for the next close.
    EXPECT_EQ(file.write(second.data(), 5000), 5000);
    file.close();
    const size_t twoMembers = file.stored.size();
    EXPECT_EQ(file.write(nullptr, 0), 0);
    file.fail = true;
    EXPECT_THROW(file.close(), std::runtime_error);
    file.fail = false;
    EXPECT_EQ(file.close(), 1);
    const std::string stored = readAll(file);
    EXPECT_GE(stored.size(), twoMembers + 18) << "an empty member has header and trailer";
    EXPECT_EQ(gunzip(stored), first + second);

    // A reset with a compressor running finishes its member before the length goes to 0.
    for (bool disposePages : {false, true}) {
        file.stored.clear();
        file.write(first.data(), 20000);
        file.reset(disposePages);
        EXPECT_EQ(file.getLength() + heldReferences(store), 0u);
        ASSERT_EQ(gunzip(file.stored), first.substr(0, 20000));
        file.write("again", 5); // a fresh member from position 0
        file.close();
        EXPECT_EQ(gunzip(readAll(file)), "again");
    }
    EXPECT_EQ(file.write(first.data(), 0x80000000u), -1) << "refused before the compressor";

    // Random bytes don't deflate: the compressor's output fills and reaches the pages long
    // before it has taken the whole write. A page failing then ends the member short: what it
    // had not taken is dropped, and the caller's buffer, reused after the throw, is not read by
    // the finish.
    std::string buffer = first;
    file.reset(true);
    file.fail = true;
    EXPECT_THROW(file.write(buffer.data(), 300000), std::runtime_error);
    buffer.assign(buffer.size(), 'x');
    file.fail = false;
    file.close();
    const std::string shorter = gunzip(readAll(file));
    EXPECT_LT(shorter.size(), first.size());
    EXPECT_EQ(shorter, first.substr(0, shorter.size()));
}
